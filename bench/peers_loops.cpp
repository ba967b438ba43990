#include "peers_library.h"

#include <math.h>

// Built with -O3 -ffast-math: roots, exponentials and logarithms become calls of the C library's vector functions.
#define CLONED __attribute__((target_clones("avx512f", "avx2", "default")))

namespace bench {
namespace {

constexpr int TILE = 32;  // floats: two tiles in L1

CLONED void FromDevice(const Ipp16sc* src, Ipp32fc* dst, int len) {
    const Ipp16s* const from = &src->re;
    float* const to = &dst->re;
#pragma GCC ivdep
    for (int i = 0; i < 2 * len; i++) to[i] = static_cast<float>(from[i] - 576) * (1.0f / 32768.0f);
}

CLONED void Multiply(const Ipp32fc* src1, const Ipp32fc* src2, Ipp32fc* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) {
        const Ipp32fc a = src1[i], b = src2[i];
        dst[i] = {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
    }
}

CLONED void MultiplyReal(const float* src1, const float* src2, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = src1[i] * src2[i];
}

CLONED void Power(const Ipp32fc* src, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = src[i].re * src[i].re + src[i].im * src[i].im;
}

CLONED void Magnitude(const Ipp32fc* src, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = sqrtf(src[i].re * src[i].re + src[i].im * src[i].im);
}

CLONED void Phase(const Ipp32fc* src, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = atan2f(src[i].im, src[i].re);
}

CLONED void Root(const float* src, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = sqrtf(src[i]);
}

CLONED void Exponential(const float* src, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = expf(src[i]);
}

CLONED void Decibel(const float* src, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = 4.3429448f * logf(src[i]);
}

CLONED void Minimum(const float* src1, const float* src2, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = src1[i] < src2[i] ? src1[i] : src2[i];
}

CLONED void Maximum(const float* src1, const float* src2, float* dst, int len) {
#pragma GCC ivdep
    for (int i = 0; i < len; i++) dst[i] = src1[i] > src2[i] ? src1[i] : src2[i];
}

CLONED void Transpose(const float* src, float* dst, int rows, int columns) {
    for (int row = 0; row < rows; row += TILE) {
        const int rowEnd = row + TILE < rows ? row + TILE : rows;
        for (int column = 0; column < columns; column += TILE) {
            const int columnEnd = column + TILE < columns ? column + TILE : columns;
            for (int c = column; c < columnEnd; c++) {
#pragma GCC ivdep
                for (int r = row; r < rowEnd; r++)
                    dst[static_cast<long>(c) * rows + r] = src[static_cast<long>(r) * columns + c];
            }
        }
    }
}

Process MakeTranspose(const float* src, float* dst, int rows, int columns) {
    return {"", [=] { Transpose(src, dst, rows, columns); }};
}

}  // namespace

CLONED void MultiplyFold(const Ipp32fc* src1, const Ipp32fc* src2, Ipp32fc* dst, int len, int factor) {
    Multiply(src1, src2, dst, len);
    for (int s = 1; s < factor; s++) {
        const Ipp32fc* const part1 = src1 + static_cast<long>(s) * len;
        const Ipp32fc* const part2 = src2 + static_cast<long>(s) * len;
#pragma GCC ivdep
        for (int i = 0; i < len; i++) {
            const Ipp32fc a = part1[i], b = part2[i];
            dst[i].re += a.re * b.re - a.im * b.im;
            dst[i].im += a.re * b.im + a.im * b.re;
        }
    }
}

Library LoopsLibrary() {
    Library library;
    library.name = "loops";
    library.about = "loops: gcc -O3 -ffast-math for the processor at hand, vector functions of glibc";
    library.fromDevice = FromDevice;
    library.multiply = Multiply;
    library.multiplyReal = MultiplyReal;
    library.power = Power;
    library.magnitude = Magnitude;
    library.phase = Phase;
    library.root = Root;
    library.exponential = Exponential;
    library.decibel = Decibel;
    library.minimum = Minimum;
    library.maximum = Maximum;
    library.transpose = MakeTranspose;
    return library;
}

}  // namespace bench
