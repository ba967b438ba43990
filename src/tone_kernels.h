// The inner loops of the tone generators (tone_gen.cpp, ipps_tone.cpp). One table per instruction set; any thread may
// enter. Every result is the same on all sets, bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipps_kernels.h"

struct ToneKernels {
    // value[n] = value[n - 8] * turn for n from 8 to count - 1, in single precision; count is a multiple of 8.
    // `segments` such runs, which begin `stride` complex values apart.
    void (*recur32fc)(float* values, std::ptrdiff_t count, int segments, std::ptrdiff_t stride, const float turn[2]);
    // dst[n] = start * turns[n].
    void (*rotate64fc)(const double start[2], const double* turns, double* dst, std::ptrdiff_t count);
};

extern const ToneKernels TONE_KERNELS_sse41;
extern const ToneKernels TONE_KERNELS_avx2;
extern const ToneKernels TONE_KERNELS_avx512;

constexpr ipps_detail::KernelTables<ToneKernels> TONE_KERNELS = {
    {&TONE_KERNELS_sse41, &TONE_KERNELS_avx2, &TONE_KERNELS_avx512}};
