// Helpers used all over the library: sleep, clocks and thread priorities. No state; any thread.
#pragma once

#include <cstdint>
#include <thread>

void SystemSleep(int milliseconds);
uint64_t GetSystemTicks();  // monotonic clock, [ms]
int64_t GetEpochSeconds();  // system clock since the Unix epoch, [s]
int64_t GetEpochNanos();    // the same, [ns]

// Real-time FIFO scheduling for threads that move USB data. Without the right to it a thread keeps its normal
// priority. Both do the same on Linux.
void SetThreadPriorityAboveNormal(std::thread& thread);
void SetThreadPriorityTimeCritical(std::thread& thread);
// Threads carry no names on Linux.
inline void SetThreadName(std::thread&, const char*) {}
