// DSP::Vector<T>: an owned buffer of fixed length on a 64-byte boundary, for the sample buffers that the primitives
// work on with wide registers. Used by the signal layer and all engines, at set-up only. It is no growing container:
// resize keeps nothing. No lock.
#pragma once

#include <cstdint>

#include "tq_assert.h"

namespace DSP {

// T is trivially copyable; the instances are unsigned char, int, float, double and Ipp32fc.
template <typename T>
class Vector {
public:
    Vector() = default;
    explicit Vector(int64_t size) { resize(size); }
    ~Vector() { clear(); }
    Vector(const Vector&) = delete;
    Vector& operator=(const Vector&) = delete;

    T* data() { return mem; }
    const T* data() const { return mem; }

    // Element pos, 0 to size() - 1.
    T& operator[](int64_t pos) {
        TQ_ASSERT(mem && pos < capacity);
        return mem[pos];
    }
    const T& operator[](int64_t pos) const {
        TQ_ASSERT(mem && pos < capacity);
        return mem[pos];
    }

    bool empty() const { return mem == nullptr; }
    int64_t size() const { return capacity; }

    // Frees what is held, then takes newSize >= 0 elements, not cleared. Throws std::bad_alloc; empty then.
    void resize(int64_t newSize);
    void clear();

    T* mem = nullptr;      // owned; null when empty
    int64_t capacity = 0;  // elements; above 0 exactly when mem is set
};

}  // namespace DSP
