// The kernels behind ipps_math: logarithm, exponential, root and phase. One table per instruction set; any thread may
// enter.
//
// Counts are elements and at least 0, pointers need no alignment beyond their element's, and no argument is checked.
// Source and destination may be the same array. Zeros, infinities, NaN and denormals give what the C library gives.
// Logarithm, exponential and phase stay within 2 units in the last place of the exact result, denormal ones included;
// sets may differ in the last bits. The forms A11 stay within 2^12 units: half a unit of an 11-bit mantissa.
#pragma once

#include <cstddef>

#include "ipps_kernels.h"

struct MathKernels {
    // These four return a value below 0 if src has such a one, otherwise 0 if src has that, otherwise one above. The
    // roots may take a 0 for a value above.
    float (*ln32f)(const float* src, float* dst, std::ptrdiff_t count);
    float (*ln32fA11)(const float* src, float* dst, std::ptrdiff_t count);
    float (*sqrt32f)(const float* src, float* dst, std::ptrdiff_t count);  // within 0.85 units
    float (*sqrt32fA11)(const float* src, float* dst, std::ptrdiff_t count);

    void (*exp32f)(const float* src, float* dst, std::ptrdiff_t count);

    // atan2(im, re) of pairs (re, im); counts pairs.
    void (*phase32fc)(const float* src, float* dst, std::ptrdiff_t count);
};

extern const MathKernels MATH_KERNELS_sse41;
extern const MathKernels MATH_KERNELS_avx2;
extern const MathKernels MATH_KERNELS_avx512;

constexpr ipps_detail::KernelTables<MathKernels> MATH_KERNELS = {
    {&MATH_KERNELS_sse41, &MATH_KERNELS_avx2, &MATH_KERNELS_avx512}};
