#include "tq_lib.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>

namespace {

constexpr int FIFO_PRIORITY = 10;

void SetRealTimePriority(std::thread& thread) {
    sched_param param{};
    param.sched_priority = FIFO_PRIORITY;
    pthread_setschedparam(thread.native_handle(), SCHED_FIFO, &param);
}

}  // namespace

void SystemSleep(int milliseconds) {
    if (milliseconds > 0) usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

uint64_t GetSystemTicks() {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

int64_t GetEpochSeconds() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

int64_t GetEpochNanos() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

void SetThreadPriorityAboveNormal(std::thread& thread) { SetRealTimePriority(thread); }
void SetThreadPriorityTimeCritical(std::thread& thread) { SetRealTimePriority(thread); }
