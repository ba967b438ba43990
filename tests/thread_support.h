// For tests with more than one thread: waits that end, threads that sleep before another goes on, threads that are held
// where they sleep, and a watchdog for what none of this can end.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Ends the process when a test runs for longer than the slowest one ever should: a call that never returns cannot be
// unwound. It stands over all tests of a program that includes this file.
class Watchdog : public ::testing::EmptyTestEventListener {
public:
    static constexpr unsigned PATIENCE_S =
        240;  // the slowest test takes 20 s, under ThreadSanitizer and full load more

    static void Watch(const std::string& test, unsigned patienceS = PATIENCE_S) {
        message = "\nwatchdog: " + test + " stands still\n";
        signal(SIGALRM, [](int) {
            if (write(STDERR_FILENO, message.data(), message.size()) >= 0) std::abort();
        });
        alarm(patienceS);
    }

private:
    void OnTestStart(const ::testing::TestInfo& test) override {
        Watch(std::string(test.test_suite_name()) + '.' + test.name());
    }
    void OnTestEnd(const ::testing::TestInfo&) override { alarm(0); }

    inline static std::string message;  // ready for the handler, which may not allocate
};
inline const bool WATCHED = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(std::make_unique<Watchdog>().release());
    return true;
}();

// Until the condition holds. False, and a failure, when it still does not after a minute.
template <class Condition>
bool WaitUntil(Condition holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (; !holds(); std::this_thread::yield()) {
        if (std::chrono::steady_clock::now() < end) continue;
        ADD_FAILURE() << "waited in vain";
        return false;
    }
    return true;
}

// Until the thread sleeps in the kernel; it stores its id with gettid(). A failure when it has ended instead.
inline void WaitUntilBlocked(const std::atomic<pid_t>& thread) {
    WaitUntil([&] { return thread != 0; });
    WaitUntil([&] {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string line;
        if (std::getline(file, line)) return line.substr(line.rfind(')') + 1, 2) == " S";
        ADD_FAILURE() << "the thread has ended";
        return true;
    });
}

// The threads that `make` has left running, in the order in which they were made.
template <class Make>
std::vector<pid_t> ThreadsOf(Make make) {
    const auto all = [] {
        std::vector<pid_t> ids;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            ids.push_back(std::stoi(entry.path().filename()));
        }
        return ids;
    };
    const std::vector<pid_t> before = all();
    make();
    std::vector<pid_t> made = all();
    std::erase_if(made, [&](pid_t id) { return std::ranges::count(before, id) > 0; });
    return made;
}

// Keeps threads of this process from going on, each from where it waits for something, until the object goes.
class HeldThreads {
public:
    explicit HeldThreads(const std::vector<pid_t>& threads) : count(threads.size()) {
        if (gate[0] < 0 && pipe2(gate, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipe";
        held = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) {
            const int error = errno;
            held++;
            char token;
            while (read(gate[0], &token, 1) < 0) continue;
            errno = error;
        };
        action.sa_flags = SA_RESTART;
        sigaction(SIGUSR2, &action, nullptr);
        for (const pid_t thread : threads) {
            WaitUntilBlocked(thread);
            syscall(SYS_tgkill, getpid(), thread, SIGUSR2);
        }
        WaitUntil([&] { return held == count; });
    }
    ~HeldThreads() {
        const std::string tokens(count, '\0');
        EXPECT_EQ(write(gate[1], tokens.data(), count), static_cast<ssize_t>(count));
    }
    HeldThreads(const HeldThreads&) = delete;
    HeldThreads& operator=(const HeldThreads&) = delete;

private:
    const std::size_t count;
    inline static int gate[2] = {-1, -1};
    inline static std::atomic<std::size_t> held = 0;
};
