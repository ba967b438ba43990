// ThreadedDeque, a locked queue: one thread appends at the far end while another works on the front. The sweep engine
// hands the packet account of each sweep from its caller to its USB thread with it.
#pragma once

#include <deque>

#include "tq_assert.h"
#include "vk_critical_section.h"

template <typename T>
class ThreadedDeque {
public:
    void push_back(const T& item) {
        const Lock held(lock);
        d.push_back(item);
    }

    void pop_front() {
        const Lock held(lock);
        TQ_ASSERT(d.size() > 0);
        d.pop_front();
    }

    // The oldest item; there must be one. The reference stays valid until that item is popped, since only the far end
    // grows: the one thread that pops may use it without the lock.
    T& front() {
        const Lock held(lock);
        TQ_ASSERT(d.size() > 0);
        return d.front();
    }

private:
    CriticalSection lock;
    std::deque<T> d TQ_GUARDED_BY(lock);
};
