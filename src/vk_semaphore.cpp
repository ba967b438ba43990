#include "vk_semaphore.h"

#include "tq_assert.h"

#include <cerrno>

Semaphore::Semaphore(unsigned count) { TQ_ASSERT(sem_init(&s, 0, count) == 0); }

Semaphore::~Semaphore() { sem_destroy(&s); }

void Semaphore::Wait() {
    // A signal handler of the application may interrupt the wait: that is no arrival.
    while (sem_wait(&s) != 0) TQ_ASSERT(errno == EINTR);
}

void Semaphore::Notify() {
    // At its limit the semaphore takes no more. The post may be lost: a waiter that is billions behind looks again
    // without it.
    TQ_ASSERT(sem_post(&s) == 0 || errno == EOVERFLOW);
}

void SemaphoreManual::Wait() {
    std::unique_lock<std::mutex> held(m);
    cv.wait(held, [this] { return set; });
}

void SemaphoreManual::Notify() {
    // Woken under the lock: a waiter may destroy the object as soon as it has seen `set`.
    const std::lock_guard<std::mutex> held(m);
    if (set) return;
    set = true;
    cv.notify_all();
}

void SemaphoreManual::Reset() {
    const std::lock_guard<std::mutex> held(m);
    set = false;
}
