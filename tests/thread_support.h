// For tests in which one thread has to be asleep before another goes on.
#pragma once

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

// Until the thread sleeps in the kernel; it stores its id with gettid().
inline void WaitUntilBlocked(const std::atomic<pid_t>& thread) {
    for (std::string line; line.substr(line.rfind(')') + 1, 2) != " S"; std::this_thread::yield()) {
        while (thread == 0) std::this_thread::yield();
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::getline(file, line);
    }
}
