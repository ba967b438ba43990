// CriticalSection, the library's mutex, and FairSection, which lets in whoever came first; Lock and FairLock, their
// scoped owners. Used by every class whose fields two threads share outside a hand-over. All carry Clang's capability
// attributes, so that a Clang build with -Wthread-safety proves that a field marked TQ_GUARDED_BY is only touched with
// its lock held; elsewhere the macros are empty.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#if defined(__clang__)
#define TQ_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TQ_THREAD_ATTRIBUTE(x)
#endif

#define TQ_CAPABILITY(x) TQ_THREAD_ATTRIBUTE(capability(x))
#define TQ_SCOPED_CAPABILITY TQ_THREAD_ATTRIBUTE(scoped_lockable)
#define TQ_GUARDED_BY(x) TQ_THREAD_ATTRIBUTE(guarded_by(x))
#define TQ_REQUIRES(...) TQ_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TQ_ACQUIRE(...) TQ_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TQ_TRY_ACQUIRE(...) TQ_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TQ_RELEASE(...) TQ_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

// Not recursive.
class TQ_CAPABILITY("mutex") CriticalSection {
public:
    CriticalSection() = default;
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Enter() TQ_ACQUIRE() { m.lock(); }
    void Leave() TQ_RELEASE() { m.unlock(); }

private:
    std::mutex m;
};

// For threads that come back at once, like a loop that reads piece by piece: past a mutex such a one would go in over
// and over, while who waits there still wakes up. 4 ns where nobody waits. Not recursive.
class TQ_CAPABILITY("mutex") FairSection {
public:
    FairSection() = default;
    FairSection(const FairSection&) = delete;
    FairSection& operator=(const FairSection&) = delete;

    void Enter() TQ_ACQUIRE() {
        const uint32_t ticket = next.fetch_add(1);
        for (uint32_t now; (now = serving.load()) != ticket;) serving.wait(now);
    }
    // False, and outside, if somebody is in.
    bool TryEnter() TQ_TRY_ACQUIRE(true) {
        uint32_t free = serving.load();
        return next.compare_exchange_strong(free, free + 1);
    }
    void Leave() TQ_RELEASE() {
        serving.fetch_add(1);
        serving.notify_all();
    }

private:
    std::atomic<uint32_t> next = 0;     // ticket
    std::atomic<uint32_t> serving = 0;  // ticket of who is in; equal to `next` when nobody is
};

// Holds a CriticalSection for the length of a scope.
class TQ_SCOPED_CAPABILITY Lock {
public:
    explicit Lock(CriticalSection& section) TQ_ACQUIRE(section) : held(section) { held.Enter(); }
    ~Lock() TQ_RELEASE() { held.Leave(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    CriticalSection& held;
};

class TQ_SCOPED_CAPABILITY FairLock {
public:
    explicit FairLock(FairSection& section) TQ_ACQUIRE(section) : held(section) { held.Enter(); }
    ~FairLock() TQ_RELEASE() { held.Leave(); }
    FairLock(const FairLock&) = delete;
    FairLock& operator=(const FairLock&) = delete;

private:
    FairSection& held;
};
