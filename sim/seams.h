// Three calls of libc that a program with a virtual bus defines itself, in front of libc's: usleep, so that tests need
// not wait out the library's long sleeps; timerfd_settime, so that a time-out does not strike a transfer that a busy
// machine merely delays; and getpwuid, so that the files of virtual instruments never mix with those of real ones. Used
// by tests, by the bus and by the preload library. Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace sim {

// Sleeps of LONG_SLEEP or more take 1/factor of their time; shorter ones are left alone. 1 (the default): real time.
constexpr std::chrono::milliseconds LONG_SLEEP{10};
void SetSleepFactor(int factor);

// A device's time of its own (away from the bus, starting up), shortened as the sleeps of its host are.
std::chrono::steady_clock::duration ScaledDelay(std::chrono::milliseconds delay);

// All usleep calls since the last clearing, by the time they asked for.
struct SleepTally {
    std::uint64_t count = 0;
    std::chrono::microseconds total{0};
};
SleepTally Sleeps();
void ClearSleeps();

// Whether the caller's thread is inside one of these calls or inside one that the bus answers, so that a test can tell
// what the library under test does from what the virtual bus does on the library's threads.
bool IsInside();
class Inside {
public:
    Inside();
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

// Called at the end of each shortened sleep with the time it asked for. The bus waits in it for devices whose time away
// fell within the sleep, so that a shortened sleep cannot end before what it was meant to outlast. Null: none.
void SetAfterSleep(void (*hook)(std::chrono::microseconds asked));

// libusb keeps the earliest time-out of its transfers on a timer. What is LONG_TIMEOUT or more ahead when it is set
// ends `slack` late, and so does whatever the timer is moved to from there, until it is stopped: behind the first of
// some transfers with long time-outs the next one may have little time left. Short time-outs with none of those in
// flight stay as they are. 0 (the default): all do. A timer that runs is left alone until it is set again. Below 0: as
// much too early, for runs that meet very many time-outs.
constexpr std::chrono::milliseconds LONG_TIMEOUT{500};
void SetTimeoutSlack(std::chrono::milliseconds slack);

// The home folder that getpwuid reports for the user of this process; empty (the default): the real one. Not while
// another thread uses a result of getpwuid.
void SetHome(const std::string& folder);

}  // namespace sim
