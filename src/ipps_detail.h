// What the sources of the signal primitives share: argument checks, the loops behind all element-wise operations, and
// the division of a caller's memory into aligned pieces. Included by ipps_*.cpp alone; holds no state.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>

#include "ipps.h"

namespace ipps_detail {

template <class... T>
bool AnyNull(const T*... pointers) {
    return ((pointers == nullptr) || ...);
}

// The checks that nearly every operation begins with.
template <class... T>
IppStatus Check(int len, const T*... pointers) {
    if (AnyNull(pointers...)) return ippStsNullPtrErr;
    return len < 0 ? ippStsSizeErr : ippStsNoErr;
}

// True for the scale factors that all operations with one take.
inline bool ScaleInRange(int scaleFactor) {
    return scaleFactor >= -IPP_MAX_SCALE_FACTOR && scaleFactor <= IPP_MAX_SCALE_FACTOR;
}

// Value n of the Blackman window of shape a over len points.
inline Ipp64f BlackmanAt(Ipp64f a, int n, int len) {
    const Ipp64f angle = 2.0 * std::numbers::pi * n / (len - 1);
    return (a + 1.0) / 2.0 - 0.5 * std::cos(angle) - a / 2.0 * std::cos(2.0 * angle);
}

// Elements taken at a time: a constant, so that the inner loop becomes vector code without a remainder.
constexpr int BLOCK = 8;

// dst[n] = f(src[n]), checked. Runs upward and reads each block before it writes it, through memcpy: the types may
// differ and the arrays overlap as long as no element is overwritten before its block is read.
template <class Src, class Dst, class F>
IppStatus Map(const Src* src, Dst* dst, int len, F f) {
    if (const IppStatus status = Check(len, src, dst); status != ippStsNoErr) return status;
    int n = 0;
    for (; len - n >= BLOCK; n += BLOCK) {
        Src in[BLOCK];
        Dst out[BLOCK];
        std::memcpy(in, src + n, sizeof(in));
        for (int k = 0; k < BLOCK; ++k) out[k] = f(in[k]);
        std::memcpy(dst + n, out, sizeof(out));
    }
    for (; n < len; ++n) {
        Src in;
        std::memcpy(&in, src + n, sizeof(in));
        const Dst out = f(in);
        std::memcpy(dst + n, &out, sizeof(out));
    }
    return ippStsNoErr;
}

// dst[n] = f(src1[n], src2[n]), likewise.
template <class Src, class Dst, class F>
IppStatus Map(const Src* src1, const Src* src2, Dst* dst, int len, F f) {
    if (const IppStatus status = Check(len, src1, src2, dst); status != ippStsNoErr) return status;
    int n = 0;
    for (; len - n >= BLOCK; n += BLOCK) {
        Src in1[BLOCK];
        Src in2[BLOCK];
        Dst out[BLOCK];
        std::memcpy(in1, src1 + n, sizeof(in1));
        std::memcpy(in2, src2 + n, sizeof(in2));
        for (int k = 0; k < BLOCK; ++k) out[k] = f(in1[k], in2[k]);
        std::memcpy(dst + n, out, sizeof(out));
    }
    for (; n < len; ++n) dst[n] = f(src1[n], src2[n]);
    return ippStsNoErr;
}

// Cuts a caller's block of memory, aligned or not, into arrays that begin on cache lines. With null memory it only
// measures, so that one layout function serves both the size operation and the initialiser.
class Carver {
public:
    explicit Carver(Ipp8u* memory) : base(memory) {
        if (base != nullptr) base += (ALIGNMENT - reinterpret_cast<std::uintptr_t>(base) % ALIGNMENT) % ALIGNMENT;
    }

    template <class T>
    T* Take(std::int64_t count) {
        T* const piece = base == nullptr ? nullptr : reinterpret_cast<T*>(base + used);
        used += (count * static_cast<std::int64_t>(sizeof(T)) + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
        return piece;
    }

    // The bytes to ask for, with the loss by alignment.
    std::int64_t Bytes() const { return used + ALIGNMENT - 1; }

    // Writes them. ippStsSizeErr when an int cannot hold them.
    IppStatus GetSize(int* size) const {
        if (Bytes() > std::numeric_limits<int>::max()) return ippStsSizeErr;
        *size = static_cast<int>(Bytes());
        return ippStsNoErr;
    }

private:
    static constexpr std::int64_t ALIGNMENT = 64;

    Ipp8u* base;
    std::int64_t used = 0;
};

}  // namespace ipps_detail
