// Two calls of libc that a program with a virtual bus defines itself, in front of libc's: usleep, so that tests need
// not wait out the library's long sleeps, and getpwuid, so that the files of virtual instruments never mix with those
// of real ones. Used by tests, by the bus and by the preload library. Any thread.
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

// Called at the end of each shortened sleep with the time it asked for. The bus waits in it for devices whose time away
// fell within the sleep, so that a shortened sleep cannot end before what it was meant to outlast. Null: none.
void SetAfterSleep(void (*hook)(std::chrono::microseconds asked));

// The home folder that getpwuid reports for the user of this process; empty (the default): the real one. Not while
// another thread uses a result of getpwuid.
void SetHome(const std::string& folder);

}  // namespace sim
