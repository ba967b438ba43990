// ThreadedDeque, a locked queue of a fixed capacity: one thread appends at the far end while another works on the
// front. The sweep engine hands the packet account of each sweep from its caller to its USB thread with it, the list
// engine the positions of its sweeps. Never allocates.
#pragma once

#include <array>
#include <cstddef>

#include "tq_assert.h"
#include "vk_critical_section.h"

template <typename T, std::size_t CAPACITY>
class ThreadedDeque {
public:
    // There must be room.
    void push_back(const T& item) {
        const Lock held(lock);
        TQ_ASSERT(count < CAPACITY);
        d[(first + count) % CAPACITY] = item;
        ++count;
    }

    void pop_front() {
        const Lock held(lock);
        TQ_ASSERT(count > 0);
        first = (first + 1) % CAPACITY;
        --count;
    }

    // The oldest item; there must be one. The reference stays valid until that item is popped, since only the far end
    // grows: the one thread that pops may use it without the lock.
    T& front() {
        const Lock held(lock);
        TQ_ASSERT(count > 0);
        return d[first];
    }

private:
    CriticalSection lock;
    std::array<T, CAPACITY> d TQ_GUARDED_BY(lock) = {};  // a ring
    std::size_t first TQ_GUARDED_BY(lock) = 0;
    std::size_t count TQ_GUARDED_BY(lock) = 0;
};
