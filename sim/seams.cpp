#include "sim/seams.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

namespace sim {
namespace {

std::atomic<int> sleepFactor{1};
std::atomic<std::uint64_t> sleepCount{0};
std::atomic<std::int64_t> sleepMicroseconds{0};
std::atomic<void (*)(std::chrono::microseconds)> afterSleep{nullptr};

std::atomic<std::int64_t> timeoutSlack{0};  // [ms]

// By descriptor: the timer was set to a long time ahead and has run ever since. Higher descriptors go without slack.
std::array<std::atomic<bool>, 1024> runsLong{};

thread_local int insideDepth = 0;

bool IsZero(const timespec& t) { return t.tv_sec == 0 && t.tv_nsec == 0; }

std::chrono::nanoseconds FromNow(const timespec& at) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(at.tv_sec - now.tv_sec) + std::chrono::nanoseconds(at.tv_nsec - now.tv_nsec);
}

void Move(timespec& at, std::chrono::milliseconds by) {
    const std::chrono::nanoseconds moved = std::chrono::seconds(at.tv_sec) + std::chrono::nanoseconds(at.tv_nsec) + by;
    at.tv_sec = std::chrono::floor<std::chrono::seconds>(moved).count();
    at.tv_nsec = (moved - std::chrono::floor<std::chrono::seconds>(moved)).count();
}

// Plain memory: getpwuid may be called before and after the life of any object.
std::array<char, 4096> home{};

int Usleep(useconds_t microseconds) {
    static const auto next = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"));
    return next(microseconds);
}

}  // namespace

void SetSleepFactor(int factor) { sleepFactor = std::max(1, factor); }

std::chrono::steady_clock::duration ScaledDelay(std::chrono::milliseconds delay) {
    return std::chrono::steady_clock::duration(delay) / sleepFactor.load();
}

SleepTally Sleeps() { return {sleepCount, std::chrono::microseconds(sleepMicroseconds)}; }

void ClearSleeps() {
    sleepCount = 0;
    sleepMicroseconds = 0;
}

bool IsInside() { return insideDepth > 0; }
Inside::Inside() { insideDepth += 1; }
Inside::~Inside() { insideDepth -= 1; }

void SetAfterSleep(void (*hook)(std::chrono::microseconds)) { afterSleep = hook; }

void SetTimeoutSlack(std::chrono::milliseconds slack) { timeoutSlack = slack.count(); }

void SetHome(const std::string& folder) {
    home.fill('\0');
    folder.copy(home.data(), home.size() - 1);
}

}  // namespace sim

extern "C" {

[[gnu::visibility("default")]] int usleep(useconds_t microseconds) {
    sim::sleepCount += 1;
    sim::sleepMicroseconds += microseconds;
    const int factor = sim::sleepFactor;
    const std::chrono::microseconds asked(microseconds);
    if (factor == 1 || asked < sim::LONG_SLEEP) return sim::Usleep(microseconds);
    const int result = sim::Usleep(microseconds / static_cast<useconds_t>(factor));
    const sim::Inside inside;
    if (auto* hook = sim::afterSleep.load()) hook(asked);
    return result;
}

[[gnu::visibility("default")]] int timerfd_settime(int fd, int flags, const itimerspec* value, itimerspec* old) {
    static const auto next =
        reinterpret_cast<int (*)(int, int, const itimerspec*, itimerspec*)>(dlsym(RTLD_NEXT, "timerfd_settime"));
    const std::int64_t slack = sim::timeoutSlack;
    const auto index = static_cast<std::size_t>(fd);  // a negative one is beyond the array, too
    if (index >= sim::runsLong.size()) return next(fd, flags, value, old);
    std::atomic<bool>& runsLong = sim::runsLong[index];
    // libusb's times are points on the monotonic clock; other timers are nobody's time-out.
    if (slack == 0 || flags != TFD_TIMER_ABSTIME || value == nullptr || sim::IsZero(value->it_value)) {
        runsLong = false;
        return next(fd, flags, value, old);
    }
    if (sim::FromNow(value->it_value) >= sim::LONG_TIMEOUT) runsLong = true;
    itimerspec later = *value;
    if (runsLong) sim::Move(later.it_value, std::chrono::milliseconds(slack));
    return next(fd, flags, &later, old);
}

[[gnu::visibility("default")]] passwd* getpwuid(uid_t uid) {
    static const auto next = reinterpret_cast<passwd* (*)(uid_t)>(dlsym(RTLD_NEXT, "getpwuid"));
    passwd* real = next(uid);
    if (sim::home.front() == '\0' || uid != getuid()) return real;
    // As libc's, the result lives in one static record; a user without an entry gets one.
    static passwd entry;
    static char name[] = "tq";
    static char empty[] = "";
    if (real != nullptr) {
        entry = *real;
    } else {
        entry = {name, empty, uid, getgid(), empty, sim::home.data(), empty};
    }
    entry.pw_dir = sim::home.data();
    return &entry;
}

}  // extern "C"
