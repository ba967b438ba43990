// What the tests of the signal primitives share: arrays that notice a write beyond their ends, seeded values with the
// awkward ones among them, and the unit of accuracy.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "ipps.h"

namespace ipps_test {

// `len` elements that start `offset` elements past a 64-byte boundary, between guard elements.
template <class T>
class Guarded {
public:
    explicit Guarded(int len, int offset = 0)
        : length(len),
          memory(static_cast<Ipp8u*>(ippMalloc_L(Bytes(offset) + Bytes(len) + 2 * GUARD_BYTES))),
          begin(GUARD_BYTES + Bytes(offset)),
          end(begin + Bytes(len)),
          total(Bytes(offset) + Bytes(len) + 2 * GUARD_BYTES) {
        std::memset(memory, PATTERN, static_cast<std::size_t>(total));
    }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    ~Guarded() {
        for (std::int64_t i = 0; i < total; ++i) {
            if ((i < begin || i >= end) && memory[i] != PATTERN) {
                ADD_FAILURE() << "wrote outside the array, at byte " << i - begin << " of " << end - begin;
                break;
            }
        }
        ippsFree(memory);
    }

    T* data() { return reinterpret_cast<T*>(memory + begin); }
    T& operator[](int n) { return data()[n]; }
    int size() const { return length; }

private:
    static constexpr std::int64_t GUARD_BYTES = 64;
    static constexpr Ipp8u PATTERN = 0xA5;
    static std::int64_t Bytes(int count) { return std::int64_t{count} * static_cast<std::int64_t>(sizeof(T)); }

    int length;
    Ipp8u* memory;
    std::int64_t begin;
    std::int64_t end;
    std::int64_t total;
};

// Seeded values. Single reals contain zeros, infinities, NaN and the extremes; integers their limits. Complex values
// are finite and within +-1.
class Values {
public:
    double Uniform() { return std::uniform_real_distribution<double>(-1.0, 1.0)(engine); }

    void Next(float& value) {
        using Limits = std::numeric_limits<float>;
        constexpr float AWKWARD[] = {
            0.0F,          -0.0F,          1.0F,          Limits::infinity(),   -Limits::infinity(),
            Limits::max(), -Limits::max(), Limits::min(), Limits::denorm_min(), Limits::quiet_NaN()};
        const auto pick = engine() % 64;
        value = pick < std::size(AWKWARD) ? AWKWARD[pick] : static_cast<float>(50.0 * Uniform());
    }
    void Next(double& value) { value = 50.0 * Uniform(); }
    void Next(Ipp32fc& value) { value = {static_cast<float>(Uniform()), static_cast<float>(Uniform())}; }
    void Next(Ipp64fc& value) { value = {Uniform(), Uniform()}; }
    template <class Int>
    requires std::is_integral_v<Int>
    void Next(Int& value) {
        using Limits = std::numeric_limits<Int>;
        const auto pick = engine() % 8;
        value = pick == 0 ? Limits::min() : pick == 1 ? Limits::max() : static_cast<Int>(engine());
    }

private:
    std::mt19937 engine{20720};
};

// Distance from |x| to the next value of the type.
inline double Ulp(float x) {
    x = std::abs(x);
    return static_cast<double>(std::nextafter(x, std::numeric_limits<float>::infinity())) - static_cast<double>(x);
}

// Within so many units in the last place of the double-precision truth, infinities and NaN included.
inline bool Near(float got, double want, double ulps) {
    const float rounded = static_cast<float>(want);
    if (std::isnan(rounded)) return std::isnan(got);
    if (std::isinf(rounded) || std::isinf(got)) return got == rounded;
    if (ulps == 0.0) return got == rounded;
    return std::abs(static_cast<double>(got) - want) <= ulps * Ulp(rounded);
}

}  // namespace ipps_test
