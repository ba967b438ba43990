// The inner loops of the FIR filters (ipps_fir.cpp). One table per instruction set; any thread may enter.
//
// Direct filters: y[n] = sum for k below tapsLen of taps[k] x[n - k], for n below count. x points at the first output's
// input, behind tapsLen - 1 earlier ones; y may be x. An output's terms add in an order that only tapsLen decides, so
// that it does not depend on how a stream is cut. Complex values are pairs (re, im) and count in pairs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipps_kernels.h"

struct FirKernels {
    void (*real32f)(const float* x, float* y, std::ptrdiff_t count, const float* taps, std::ptrdiff_t tapsLen);
    void (*real64f)(const double* x, double* y, std::ptrdiff_t count, const double* taps, std::ptrdiff_t tapsLen);
    // Real taps over complex samples.
    void (*real32fc)(const float* x, float* y, std::ptrdiff_t count, const float* taps, std::ptrdiff_t tapsLen);
    // Complex taps, their real and imaginary parts apart.
    void (*complex32fc)(const float* x, float* y, std::ptrdiff_t count, const float* re, const float* im,
                        std::ptrdiff_t tapsLen);

    // One output of a filter of complex taps: sum of the products of count values x and taps, both in pairs, forward.
    void (*dot32fc)(const float* x, const float* taps, std::ptrdiff_t count, float sum[2]);

    // A spectrum times a response, folded: dst[k] = sum for f below folds of the products at k + f count. In pairs;
    // count is a multiple of 64; dst may be the spectrum.
    void (*multiplyFold32fc)(const float* spectrum, const float* response, float* dst, std::ptrdiff_t count,
                             std::ptrdiff_t folds);
};

extern const FirKernels FIR_KERNELS_sse41;
extern const FirKernels FIR_KERNELS_avx2;
extern const FirKernels FIR_KERNELS_avx512;

constexpr ipps_detail::KernelTables<FirKernels> FIR_KERNELS = {
    {&FIR_KERNELS_sse41, &FIR_KERNELS_avx2, &FIR_KERNELS_avx512}};
