// A test that waits for what never comes ends by itself, and says so.
#include "thread_support.h"

#include "vk_semaphore.h"

#include <gtest/gtest-spi.h>

// Stands in front of libc's for all tests: on a loaded machine threads with real-time priority would keep the virtual
// bus and the other tests from the processor, where users' instruments have none to keep from it.
extern "C" [[gnu::visibility("default")]] int pthread_setschedparam(pthread_t, int, const sched_param*) {
    return EPERM;
}

namespace {

TEST(ThreadSupport, AThreadThatHasEndedIsNotWaitedFor) {
    static std::atomic<pid_t> ended;  // the macro's statement sees no locals
    std::thread([] { ended = gettid(); }).join();
    EXPECT_NONFATAL_FAILURE(WaitUntilBlocked(ended), "the thread has ended");
}

TEST(ThreadSupport, ATestThatStandsStillIsNamedAndEnds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // other tests of this process have left threads
    const auto standStill = [] {
        Watchdog::Watch("Some.Test", 1);
        while (true) pause();
    };
    EXPECT_EXIT(standStill(), ::testing::KilledBySignal(SIGABRT), "watchdog: Some.Test stands still");
}

TEST(ThreadSupport, HeldThreadsGoOnWhenLetGo) {
    Semaphore go;
    std::atomic<bool> gone = false;
    std::vector<pid_t> made;
    std::thread thread;
    made = ThreadsOf([&] {
        thread = std::thread([&] {
            go.Wait();
            gone = true;
        });
    });
    ASSERT_EQ(made.size(), 1u);
    {
        const HeldThreads held(made);
        go.Notify();
        WaitUntilBlocked(made[0]);
        EXPECT_FALSE(gone);
    }
    thread.join();
    EXPECT_TRUE(gone);
}

}  // namespace
