// The element-wise kernels behind ipps_vector, ipps_convert, ipps_memory, ipps_signal, ipps_math, the conversion of raw
// samples and the level mapping of the persistence display. One table per instruction set; any thread may enter.
//
// Counts are elements and at least 0, pointers need no alignment beyond their element's, and no argument is checked.
// Source and destination may be the same array. Every result but magnitude32fc is the same on all sets, bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipps.h"
#include "ipps_kernels.h"

struct VectorKernels {
    // Copies of the 16 bytes at `pattern` over byteCount bytes.
    void (*fill)(const void* pattern, void* dst, std::ptrdiff_t byteCount);
    void (*flip32f)(const float* src, float* dst, std::ptrdiff_t count);

    void (*add32f)(const float* src1, const float* src2, float* dst, std::ptrdiff_t count);
    void (*add32u)(const std::uint32_t* src1, const std::uint32_t* src2, std::uint32_t* dst, std::ptrdiff_t count);
    void (*addC32f)(const float* src, float val, float* dst, std::ptrdiff_t count);
    void (*subC16s)(const std::int16_t* src, std::int16_t val, std::int16_t* dst, std::ptrdiff_t count);  // saturated
    void (*sub32s)(const std::int32_t* src1, const std::int32_t* src2, std::int32_t* dst,
                   std::ptrdiff_t count);  // src2 - src1, saturated
    void (*mul32f)(const float* src1, const float* src2, float* dst, std::ptrdiff_t count);
    void (*mul64f)(const double* src1, const double* src2, double* dst, std::ptrdiff_t count);
    void (*mulC32f)(const float* src, float val, float* dst, std::ptrdiff_t count);
    void (*mulC64f)(const double* src, double val, double* dst, std::ptrdiff_t count);
    void (*min32f)(const float* src1, const float* src2, float* dst, std::ptrdiff_t count);
    void (*max32f)(const float* src1, const float* src2, float* dst, std::ptrdiff_t count);
    void (*sqr32f)(const float* src, float* dst, std::ptrdiff_t count);

    // Complex arrays are pairs (re, im) and count in pairs.
    void (*mul32fc)(const float* src1, const float* src2, float* dst, std::ptrdiff_t count);
    void (*mul64fc)(const double* src1, const double* src2, double* dst, std::ptrdiff_t count);
    void (*conj32fc)(const float* src, float* dst, std::ptrdiff_t count);
    void (*power32fc)(const float* src, float* dst, std::ptrdiff_t count);  // re^2 + im^2
    // The root of power32fc's value, within 1.1 units in the last place.
    void (*magnitude32fc)(const float* src, float* dst, std::ptrdiff_t count);

    // Sums of the elements of even and of odd index, in double precision, added in an order that only the count
    // decides.
    void (*sums32f)(const float* src, std::ptrdiff_t count, double sums[2]);
    void (*sums64f)(const double* src, std::ptrdiff_t count, double sums[2]);

    // (src - offset, saturated to 16 bits) x scale. Runs upward, reading each element before it is written: src may lie
    // in the upper half of dst's memory.
    void (*convert16s32f)(const std::int16_t* src, std::int16_t offset, float scale, float* dst, std::ptrdiff_t count);
    // src x scale, to nearest with halves to even, saturated; NaN gives 0.
    void (*convert32f16s)(const float* src, float scale, std::int16_t* dst, std::ptrdiff_t count);
    void (*convert64f32f)(const double* src, float* dst, std::ptrdiff_t count);

    // dst[c][r] = src[r][c]. Strides between rows in floats; the matrices must not overlap.
    void (*transpose32f)(const float* src, std::ptrdiff_t srcStride, float* dst, std::ptrdiff_t dstStride,
                         std::ptrdiff_t rows, std::ptrdiff_t columns);

    // Levels of the persistence display: (src + add) x scale, to nearest with halves to even, limited to 0 and 255.
    // What is no number or fits no int32 becomes 0.
    void (*level32f)(const float* src, float add, float scale, std::int32_t* dst, std::ptrdiff_t count);
};

extern const VectorKernels VECTOR_KERNELS_sse41;
extern const VectorKernels VECTOR_KERNELS_avx2;
extern const VectorKernels VECTOR_KERNELS_avx512;

constexpr ipps_detail::KernelTables<VectorKernels> VECTOR_KERNELS = {
    {&VECTOR_KERNELS_sse41, &VECTOR_KERNELS_avx2, &VECTOR_KERNELS_avx512}};

namespace ipps_detail {

// ippsSubC_16s_Sfs of `offset` and ippsConvert_16s32f_Sfs in one pass, with the statuses and the overlap of the latter.
IppStatus ConvertOffset_16s32f_Sfs(const Ipp16s* pSrc, Ipp16s offset, Ipp32f* pDst, int len, int scaleFactor);

}  // namespace ipps_detail
