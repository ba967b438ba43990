// CriticalSection, the library's mutex, and Lock, its scoped owner. Used by every class whose fields two threads
// share outside a hand-over. Both carry Clang's capability attributes, so that a Clang build with -Wthread-safety
// proves that a field marked TQ_GUARDED_BY is only touched with its lock held; elsewhere the macros are empty.
#pragma once

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
