// The two hand-over objects of the engines: Semaphore counts what has arrived, SemaphoreManual says that a state
// holds. Any thread may wait on, notify or reset them.
#pragma once

#include <condition_variable>
#include <mutex>

#include <semaphore.h>

// One Notify lets one Wait pass, whichever comes first. Posts beyond SEM_VALUE_MAX are dropped.
class Semaphore {
public:
    // `count` Waits pass at first, 0 to SEM_VALUE_MAX.
    explicit Semaphore(unsigned count = 0);
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void Wait();
    void Notify();

private:
    sem_t s;
};

// A manual-reset event, reset at first: Notify opens it for all waiters, present and future, until Reset.
class SemaphoreManual {
public:
    SemaphoreManual() = default;
    SemaphoreManual(const SemaphoreManual&) = delete;
    SemaphoreManual& operator=(const SemaphoreManual&) = delete;

    void Wait();
    void Notify();
    void Reset();

private:
    std::mutex m;
    std::condition_variable cv;
    bool set = false;  // under m
};
