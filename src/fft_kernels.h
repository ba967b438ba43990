// The transforms' inner loops and the description they read. ipps_fft.cpp builds descriptions and calls transforms; the
// tests take a table to run one instruction set. A description is read-only while transforms run.
//
// Method. The input is a matrix of `rows` x `columns`, row by row. Columns are transformed, `lanes` of them side by
// side, one per lane; each value is turned by exp(-2 pi j row column / N); then rows are transformed, `lanes` of them
// side by side after a transpose in registers, and leave in columns. Lengths that fit the second cache take as many
// columns as lanes: all passes run in one tile, and the rows are transformed within registers. Longer ones go through a
// work matrix. Between input and output, real and imaginary parts lie apart: a "vector" is `lanes` real parts, then as
// many imaginary ones.
//
// A column or row transform divides frequencies (decimation in frequency), in place, in passes of radix 4 to 16: value
// k then lies where its mixed-radix digits, read backwards, say, and what reads the last pass's results looks there.
#pragma once

#include <cstdint>

#include "ipps_kernels.h"

namespace ipps_detail {

// One-dimensional transform of vectors.
template <class T>
struct FftPasses {
    static constexpr int MAX_PASSES = 8;

    std::int64_t length = 1;
    int count = 0;
    int radix[MAX_PASSES] = {};
    // For each pass but the last, of length n and radix r, for p below n / r, for q from 1 to r - 1: re and im of
    // exp(-2 pi j p q / n).
    T* twiddles = nullptr;
    // Place b r + q, with r the radix of the last pass, holds value order[b] + q length / r.
    std::int32_t* order = nullptr;
};

template <class T>
struct FftPlan {
    int order = 0;
    int lanes = 1;
    std::int64_t rows = 1;
    std::int64_t columns = 1;
    // Through a work matrix only, where there are more columns than lanes:
    std::int64_t rowStride = 0;   // of the work matrix [numbers]
    std::int64_t tileStride = 0;  // [numbers]
    int groups = 1;               // of `lanes` columns or rows worked on at a time, a tile for each
    bool streamWork = false;      // whether work matrix and destination are written around the caches
    bool streamDst = false;
    FftPasses<T> down;    // of length rows
    FftPasses<T> across;  // of length columns; unused where columns = lanes
    // By place in the column transform: a vector of exp(-2 pi j row c / N), c the lane's column of the first `lanes`.
    T* laneTurns = nullptr;
    // By group of columns and place: exp(-2 pi j row c / N), c the group's first column.
    T* groupTurns = nullptr;
    // Where columns = lanes: place of the vector of each row.
    std::int32_t* placeOfRow = nullptr;
};

// Column of lane l among `lanes` neighbouring ones, as the numbers of complex values of T are parted most cheaply:
// within blocks of 128 bits.
template <class T>
constexpr __attribute__((always_inline)) int FftLaneColumn(int lane, int lanes) {
    constexpr int BLOCK = 16 / sizeof(T);
    constexpr int HALF = BLOCK / 2;
    if (lanes == 1) return 0;
    return lane / BLOCK * HALF + lane % HALF + lane % BLOCK / HALF * (lanes / 2);
}

struct FftKernels {
    int lanes32;
    int lanes64;
    int maxRadixOrder;  // log2 of the largest radix that the registers hold
    // Transforms src to dst, which may be the same, and multiplies by scale. work, aligned to 64 bytes, holds
    // rows x rowStride numbers, then a tile of 2 x lanes x rows, or `groups` tiles of tileStride. N above 1.
    void (*transform32)(const FftPlan<float>& plan, const float* src, float* dst, float* work, bool inverse,
                        float scale);
    void (*transform64)(const FftPlan<double>& plan, const double* src, double* dst, double* work, bool inverse,
                        double scale);
};

extern const FftKernels FFT_KERNELS_sse41, FFT_KERNELS_avx2, FFT_KERNELS_avx512;
constexpr KernelTables<FftKernels> FFT_KERNELS = {{&FFT_KERNELS_sse41, &FFT_KERNELS_avx2, &FFT_KERNELS_avx512}};

}  // namespace ipps_detail
