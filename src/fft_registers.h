// Registers of W numbers T for the transforms, which need narrower ones than their set's widest for short lengths, and
// matrices of W x W transposed in registers. Included by fft_kernels.cpp and fir_kernels.cpp alone, once per
// instruction set.
#pragma once

#include "ipps_simd.h"

#define TQ_INLINE inline __attribute__((always_inline))

namespace {

// How W numbers T are held and moved. Deinterleave takes W complex values from two registers to one of real and one of
// imaginary parts, Interleave back; between them lane l holds value FftLaneColumn(l), which needs no lane crossing.
template <class T, int W>
struct Reg;

#define TQ_REG_COMMON(T, W, type, prefix, suffix)                                        \
    using V = type;                                                                      \
    static TQ_INLINE V Load(const T* p) { return prefix##_loadu_##suffix(p); }           \
    static TQ_INLINE void Store(T* p, V x) { prefix##_storeu_##suffix(p, x); }           \
    static TQ_INLINE void Stream(T* p, V x) { prefix##_stream_##suffix(p, x); }          \
    static TQ_INLINE V Splat(T x) { return prefix##_set1_##suffix(x); }                  \
    static TQ_INLINE V UnpackLow(V a, V b) { return prefix##_unpacklo_##suffix(a, b); }  \
    static TQ_INLINE V UnpackHigh(V a, V b) { return prefix##_unpackhi_##suffix(a, b); } \
    static TQ_INLINE void Interleave(V re, V im, V& a, V& b) {                           \
        a = UnpackLow(re, im);                                                           \
        b = UnpackHigh(re, im);                                                          \
    }

#if defined(TQ_SSE41)
#define TQ_REG_FUSED(prefix, suffix)                               \
    static TQ_INLINE V MulAdd(V a, V b, V c) { return a * b + c; } \
    static TQ_INLINE V MulSub(V a, V b, V c) { return a * b - c; } \
    static TQ_INLINE V NegMulAdd(V a, V b, V c) { return c - a * b; }
#else
#define TQ_REG_FUSED(prefix, suffix)                                                      \
    static TQ_INLINE V MulAdd(V a, V b, V c) { return prefix##_fmadd_##suffix(a, b, c); } \
    static TQ_INLINE V MulSub(V a, V b, V c) { return prefix##_fmsub_##suffix(a, b, c); } \
    static TQ_INLINE V NegMulAdd(V a, V b, V c) { return prefix##_fnmadd_##suffix(a, b, c); }
#endif

template <>
struct Reg<float, 4> {
    TQ_REG_COMMON(float, 4, __m128, _mm, ps)
    TQ_REG_FUSED(_mm, ps)
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) {
        re = _mm_shuffle_ps(a, b, 0x88);
        im = _mm_shuffle_ps(a, b, 0xDD);
    }
    static TQ_INLINE V PairsLow(V a, V b) { return _mm_movelh_ps(a, b); }
    static TQ_INLINE V PairsHigh(V a, V b) { return _mm_movehl_ps(b, a); }
};

template <>
struct Reg<double, 2> {
    TQ_REG_COMMON(double, 2, __m128d, _mm, pd)
    TQ_REG_FUSED(_mm, pd)
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) { Interleave(a, b, re, im); }
};

#if !defined(TQ_SSE41)
template <>
struct Reg<float, 8> {
    TQ_REG_COMMON(float, 8, __m256, _mm256, ps)
    TQ_REG_FUSED(_mm256, ps)
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) {
        re = _mm256_shuffle_ps(a, b, 0x88);
        im = _mm256_shuffle_ps(a, b, 0xDD);
    }
    static TQ_INLINE V PairsLow(V a, V b) { return _mm256_shuffle_ps(a, b, 0x44); }
    static TQ_INLINE V PairsHigh(V a, V b) { return _mm256_shuffle_ps(a, b, 0xEE); }
    static TQ_INLINE V HalvesLow(V a, V b) { return _mm256_permute2f128_ps(a, b, 0x20); }
    static TQ_INLINE V HalvesHigh(V a, V b) { return _mm256_permute2f128_ps(a, b, 0x31); }
};

template <>
struct Reg<double, 4> {
    TQ_REG_COMMON(double, 4, __m256d, _mm256, pd)
    TQ_REG_FUSED(_mm256, pd)
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) { Interleave(a, b, re, im); }
    static TQ_INLINE V HalvesLow(V a, V b) { return _mm256_permute2f128_pd(a, b, 0x20); }
    static TQ_INLINE V HalvesHigh(V a, V b) { return _mm256_permute2f128_pd(a, b, 0x31); }
};
#endif

#if defined(TQ_AVX512)
template <>
struct Reg<float, 16> {
    TQ_REG_COMMON(float, 16, __m512, _mm512, ps)
    TQ_REG_FUSED(_mm512, ps)
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) {
        re = _mm512_shuffle_ps(a, b, 0x88);
        im = _mm512_shuffle_ps(a, b, 0xDD);
    }
    static TQ_INLINE V PairsLow(V a, V b) { return _mm512_shuffle_ps(a, b, 0x44); }
    static TQ_INLINE V PairsHigh(V a, V b) { return _mm512_shuffle_ps(a, b, 0xEE); }
    template <int IMM>
    static TQ_INLINE V Quarters(V a, V b) {
        return _mm512_shuffle_f32x4(a, b, IMM);
    }
};

template <>
struct Reg<double, 8> {
    TQ_REG_COMMON(double, 8, __m512d, _mm512, pd)
    TQ_REG_FUSED(_mm512, pd)
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) { Interleave(a, b, re, im); }
    template <int IMM>
    static TQ_INLINE V Quarters(V a, V b) {
        return _mm512_shuffle_f64x2(a, b, IMM);
    }
};
#endif

// A register of one number, for transforms shorter than any other.
template <class T>
struct Reg<T, 1> {
    using V = T;
    static TQ_INLINE V Load(const T* p) { return *p; }
    static TQ_INLINE void Store(T* p, V x) { *p = x; }
    static TQ_INLINE V Splat(T x) { return x; }
    static TQ_INLINE V MulAdd(V a, V b, V c) { return a * b + c; }
    static TQ_INLINE V MulSub(V a, V b, V c) { return a * b - c; }
    static TQ_INLINE V NegMulAdd(V a, V b, V c) { return c - a * b; }
    static TQ_INLINE void Deinterleave(V a, V b, V& re, V& im) {
        re = a;
        im = b;
    }
    static TQ_INLINE void Interleave(V re, V im, V& a, V& b) {
        a = re;
        b = im;
    }
};

#undef TQ_REG_COMMON
#undef TQ_REG_FUSED

// f(Index<0>{}), ..., f(Index<N - 1>{}): a loop that is unrolled, since arrays of registers allow no other.
template <int K>
struct Index {
    constexpr operator int() const { return K; }
};
template <int N, class F>
TQ_INLINE void Times(F&& f) {
    if constexpr (N > 0) {
        Times<N - 1>(f);
        f(Index<N - 1>{});
    }
}
// What a body given to Times begins with.
#define TQ_EACH(k) [&](auto k) __attribute__((always_inline))

// out[l] lane i = in[i] lane l, for W registers. First within blocks of 128 bits, then whole blocks.
template <class T, int W>
TQ_INLINE void Transpose(const typename Reg<T, W>::V (&in)[W], typename Reg<T, W>::V (&out)[W]) {
    using R = Reg<T, W>;
    using V = typename R::V;
    constexpr int P = 16 / sizeof(T);  // numbers per block
    constexpr int G = W / P;           // blocks per register
    V part[W];                         // [P g + j]: block b is column P b + j of rows P g to P g + P - 1
    Times<G>(TQ_EACH(g) {
        constexpr int r = P * g;
        if constexpr (P == 4) {
            const V low01 = R::UnpackLow(in[r], in[r + 1]);
            const V high01 = R::UnpackHigh(in[r], in[r + 1]);
            const V low23 = R::UnpackLow(in[r + 2], in[r + 3]);
            const V high23 = R::UnpackHigh(in[r + 2], in[r + 3]);
            part[r] = R::PairsLow(low01, low23);
            part[r + 1] = R::PairsHigh(low01, low23);
            part[r + 2] = R::PairsLow(high01, high23);
            part[r + 3] = R::PairsHigh(high01, high23);
        } else {
            part[r] = R::UnpackLow(in[r], in[r + 1]);
            part[r + 1] = R::UnpackHigh(in[r], in[r + 1]);
        }
    });
    Times<P>(TQ_EACH(j) {
        if constexpr (G == 1) {
            out[j] = part[j];
        } else if constexpr (G == 2) {
            out[j] = R::HalvesLow(part[j], part[P + j]);
            out[P + j] = R::HalvesHigh(part[j], part[P + j]);
        } else {
            const V low01 = R::template Quarters<0x44>(part[j], part[P + j]);
            const V high01 = R::template Quarters<0xEE>(part[j], part[P + j]);
            const V low23 = R::template Quarters<0x44>(part[2 * P + j], part[3 * P + j]);
            const V high23 = R::template Quarters<0xEE>(part[2 * P + j], part[3 * P + j]);
            out[j] = R::template Quarters<0x88>(low01, low23);
            out[P + j] = R::template Quarters<0xDD>(low01, low23);
            out[2 * P + j] = R::template Quarters<0x88>(high01, high23);
            out[3 * P + j] = R::template Quarters<0xDD>(high01, high23);
        }
    });
}

}  // namespace
