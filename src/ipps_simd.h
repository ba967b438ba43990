// One vector register of the instruction set that a kernel source is compiled for, under names that are the same for
// all sets: F32 (float), F64 (double), I32 (int32), masks over float lanes, and what complex arithmetic needs. Included
// by *_kernels.cpp alone, which are compiled once per set; hence everything has internal linkage and nothing comes from
// the standard library, whose inline functions the linker might take from the wrong object.
//
// F32, F64 and I32 take + - * / and comparison-free arithmetic as they stand. No operation is fused but MulAdd,
// MulSub, NegMulAdd and their complex forms; on SSE4.1 these are two roundings. "Pairs" are (re, im) in neighbouring
// lanes, as complex arrays lie in memory.
#pragma once

// GCC 12 takes the deliberately undefined pass-through operands of its own intrinsics for mistakes.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

// The exported table of a family is TQ_KERNELS(FFT), that is FFT_KERNELS_avx2 and so on. TQ_ISA comes from the build.
#define TQ_KERNELS_OF(family, isa) family##_KERNELS_##isa
#define TQ_KERNELS_EXPANDED(family, isa) TQ_KERNELS_OF(family, isa)
#define TQ_KERNELS(family) TQ_KERNELS_EXPANDED(family, TQ_ISA)

namespace {

#if defined(__AVX512F__)
#define TQ_AVX512 1
constexpr int LANES = 16;
using F32 = __m512;
using F64 = __m512d;
using Bits = __m512i;    // any integers
using Mask = __mmask16;  // one bit per float lane
#elif defined(__AVX2__)
#define TQ_AVX2 1
constexpr int LANES = 8;
using F32 = __m256;
using F64 = __m256d;
using Bits = __m256i;
using Mask = __m256;  // all bits of a float lane
#else
#define TQ_SSE41 1
constexpr int LANES = 4;
using F32 = __m128;
using F64 = __m128d;
using Bits = __m128i;
using Mask = __m128;
#endif
constexpr int LANES64 = LANES / 2;  // doubles, or complex floats
constexpr int LANES16 = LANES * 2;  // 16-bit integers
typedef std::int32_t I32 __attribute__((vector_size(LANES * 4), may_alias));

// The same call for a kernel's three widths.
#if defined(TQ_AVX512)
#define TQ_BY_SET(avx512, avx2, sse41) avx512
#elif defined(TQ_AVX2)
#define TQ_BY_SET(avx512, avx2, sse41) avx2
#else
#define TQ_BY_SET(avx512, avx2, sse41) sse41
#endif

// --- Loads, stores, constants. No address needs alignment. ---

inline F32 Load(const float* p) { return TQ_BY_SET(_mm512_loadu_ps(p), _mm256_loadu_ps(p), _mm_loadu_ps(p)); }
inline F64 Load(const double* p) { return TQ_BY_SET(_mm512_loadu_pd(p), _mm256_loadu_pd(p), _mm_loadu_pd(p)); }
inline void Store(float* p, F32 x) { TQ_BY_SET(_mm512_storeu_ps, _mm256_storeu_ps, _mm_storeu_ps)(p, x); }
inline void Store(double* p, F64 x) { TQ_BY_SET(_mm512_storeu_pd, _mm256_storeu_pd, _mm_storeu_pd)(p, x); }
inline Bits LoadBits(const void* p) {
    return TQ_BY_SET(_mm512_loadu_si512(p), _mm256_loadu_si256(static_cast<const __m256i*>(p)),
                     _mm_loadu_si128(static_cast<const __m128i*>(p)));
}
inline void StoreBits(void* p, Bits x) {
    TQ_BY_SET(_mm512_storeu_si512(p, x), _mm256_storeu_si256(static_cast<__m256i*>(p), x),
              _mm_storeu_si128(static_cast<__m128i*>(p), x));
}

inline F32 Splat(float x) { return TQ_BY_SET(_mm512_set1_ps, _mm256_set1_ps, _mm_set1_ps)(x); }
inline F64 Splat(double x) { return TQ_BY_SET(_mm512_set1_pd, _mm256_set1_pd, _mm_set1_pd)(x); }
inline I32 Splat(std::int32_t x) { return (I32)TQ_BY_SET(_mm512_set1_epi32, _mm256_set1_epi32, _mm_set1_epi32)(x); }
inline F32 Zero32() { return TQ_BY_SET(_mm512_setzero_ps, _mm256_setzero_ps, _mm_setzero_ps)(); }
inline F64 Zero64() { return TQ_BY_SET(_mm512_setzero_pd, _mm256_setzero_pd, _mm_setzero_pd)(); }

// The first `count` lanes, 0 to LANES; memory behind them is not touched, lanes behind them load as 0,
// or as those of `others`.
#if defined(TQ_AVX512)
inline Mask FirstLanes(int count) { return static_cast<Mask>((1U << count) - 1U); }
inline F32 LoadPart(const float* p, int count) { return _mm512_maskz_loadu_ps(FirstLanes(count), p); }
inline F32 LoadPart(const float* p, int count, F32 others) {
    return _mm512_mask_loadu_ps(others, FirstLanes(count), p);
}
inline void StorePart(float* p, F32 x, int count) { _mm512_mask_storeu_ps(p, FirstLanes(count), x); }
inline F64 LoadPart(const double* p, int count) {
    return _mm512_maskz_loadu_pd(static_cast<__mmask8>(FirstLanes(count)), p);
}
inline void StorePart(double* p, F64 x, int count) {
    _mm512_mask_storeu_pd(p, static_cast<__mmask8>(FirstLanes(count)), x);
}
#elif defined(TQ_AVX2)
inline __m256i FirstLanes(int count) {
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
}
inline __m256i FirstLanes64(int count) {
    return _mm256_cmpgt_epi64(_mm256_set1_epi64x(count), _mm256_setr_epi64x(0, 1, 2, 3));
}
inline F32 LoadPart(const float* p, int count) { return _mm256_maskload_ps(p, FirstLanes(count)); }
inline F32 LoadPart(const float* p, int count, F32 others) {
    const __m256i first = FirstLanes(count);
    return _mm256_blendv_ps(others, _mm256_maskload_ps(p, first), _mm256_castsi256_ps(first));
}
inline void StorePart(float* p, F32 x, int count) { _mm256_maskstore_ps(p, FirstLanes(count), x); }
inline F64 LoadPart(const double* p, int count) { return _mm256_maskload_pd(p, FirstLanes64(count)); }
inline void StorePart(double* p, F64 x, int count) { _mm256_maskstore_pd(p, FirstLanes64(count), x); }
#else
// Without memcpy, whose call would cost the loop before it its registers.
inline F32 LoadPart(const float* p, int count, F32 others) {
    if (count >= 4) return _mm_loadu_ps(p);
    if (count == 0) return others;
    if (count == 1) return _mm_move_ss(others, _mm_load_ss(p));
    const F32 two = _mm_loadl_pi(others, reinterpret_cast<const __m64*>(p));
    return count == 2 ? two : _mm_insert_ps(two, _mm_load_ss(p + 2), 0x20);
}
inline F32 LoadPart(const float* p, int count) { return LoadPart(p, count, _mm_setzero_ps()); }
inline void StorePart(float* p, F32 x, int count) {
    if (count >= 4) return _mm_storeu_ps(p, x);
    if (count == 1) _mm_store_ss(p, x);
    if (count >= 2) _mm_storel_pi(reinterpret_cast<__m64*>(p), x);
    if (count == 3) _mm_store_ss(p + 2, _mm_movehl_ps(x, x));
}
inline F64 LoadPart(const double* p, int count) {
    return count == 2 ? _mm_loadu_pd(p) : count == 1 ? _mm_load_sd(p) : _mm_setzero_pd();
}
inline void StorePart(double* p, F64 x, int count) {
    if (count == 2) _mm_storeu_pd(p, x);
    if (count == 1) _mm_store_sd(p, x);
}
#endif

inline I32 Load(const std::int32_t* p) { return (I32)LoadBits(p); }
inline void Store(std::int32_t* p, I32 x) { StoreBits(p, (Bits)x); }
inline I32 LoadPart(const std::int32_t* p, int count) {
    return (I32)LoadPart(reinterpret_cast<const float*>(p), count);
}
inline void StorePart(std::int32_t* p, I32 x, int count) { StorePart(reinterpret_cast<float*>(p), (F32)x, count); }

// --- Arithmetic ---

// a b + c, a b - c, c - a b: fused where the set has it.
#if defined(TQ_SSE41)
inline F32 MulAdd(F32 a, F32 b, F32 c) { return a * b + c; }
inline F32 MulSub(F32 a, F32 b, F32 c) { return a * b - c; }
inline F32 NegMulAdd(F32 a, F32 b, F32 c) { return c - a * b; }
inline F64 MulAdd(F64 a, F64 b, F64 c) { return a * b + c; }
inline F64 MulSub(F64 a, F64 b, F64 c) { return a * b - c; }
inline F64 NegMulAdd(F64 a, F64 b, F64 c) { return c - a * b; }
#else
inline F32 MulAdd(F32 a, F32 b, F32 c) { return TQ_BY_SET(_mm512_fmadd_ps, _mm256_fmadd_ps, )(a, b, c); }
inline F32 MulSub(F32 a, F32 b, F32 c) { return TQ_BY_SET(_mm512_fmsub_ps, _mm256_fmsub_ps, )(a, b, c); }
inline F32 NegMulAdd(F32 a, F32 b, F32 c) { return TQ_BY_SET(_mm512_fnmadd_ps, _mm256_fnmadd_ps, )(a, b, c); }
inline F64 MulAdd(F64 a, F64 b, F64 c) { return TQ_BY_SET(_mm512_fmadd_pd, _mm256_fmadd_pd, )(a, b, c); }
inline F64 MulSub(F64 a, F64 b, F64 c) { return TQ_BY_SET(_mm512_fmsub_pd, _mm256_fmsub_pd, )(a, b, c); }
inline F64 NegMulAdd(F64 a, F64 b, F64 c) { return TQ_BY_SET(_mm512_fnmadd_pd, _mm256_fnmadd_pd, )(a, b, c); }
#endif

// The smaller, the larger; b where one of the two is NaN.
inline F32 Min(F32 a, F32 b) { return TQ_BY_SET(_mm512_min_ps, _mm256_min_ps, _mm_min_ps)(a, b); }
inline F32 Max(F32 a, F32 b) { return TQ_BY_SET(_mm512_max_ps, _mm256_max_ps, _mm_max_ps)(a, b); }
inline I32 Min(I32 a, I32 b) {
    return (I32)TQ_BY_SET(_mm512_min_epi32, _mm256_min_epi32, _mm_min_epi32)((Bits)a, (Bits)b);
}
inline I32 Max(I32 a, I32 b) {
    return (I32)TQ_BY_SET(_mm512_max_epi32, _mm256_max_epi32, _mm_max_epi32)((Bits)a, (Bits)b);
}
inline F32 Sqrt(F32 x) { return TQ_BY_SET(_mm512_sqrt_ps, _mm256_sqrt_ps, _mm_sqrt_ps)(x); }
inline F64 Sqrt(F64 x) { return TQ_BY_SET(_mm512_sqrt_pd, _mm256_sqrt_pd, _mm_sqrt_pd)(x); }

// The roots of a and of b. The divider takes one while the multipliers take the other, for about the time of one.
// a comes correctly rounded, b within 1.1 units in the last place.
inline void SqrtBoth(F32& a, F32& b) {
    a = Sqrt(a);
#if defined(TQ_AVX512)
    const F32 inverse = _mm512_rsqrt14_ps(b);  // within 2^-14, which one step of Newton squares
    const F32 root = b * inverse;
    const F32 miss = NegMulAdd(root, inverse, Splat(1.0F));
    const F32 finer = MulAdd(root * Splat(0.5F), miss, root);
    // 0 and infinity have become NaN by their inverse: they are their own roots.
    constexpr int ZERO_AND_INFINITY_AS_THEY_ARE = 0x00100100;
    b = _mm512_fixupimm_ps(finer, b, _mm512_set1_epi32(ZERO_AND_INFINITY_AS_THEY_ARE), 0);
#else
    b = Sqrt(b);
#endif
}

// To nearest, halves to even. ToInt gives the lowest integer for NaN and for what does not fit.
inline I32 ToInt(F32 x) { return (I32)TQ_BY_SET(_mm512_cvtps_epi32, _mm256_cvtps_epi32, _mm_cvtps_epi32)(x); }
inline F32 ToFloat(I32 x) { return TQ_BY_SET(_mm512_cvtepi32_ps, _mm256_cvtepi32_ps, _mm_cvtepi32_ps)((Bits)x); }
inline F32 Round(F32 x) {
    return TQ_BY_SET(_mm512_roundscale_ps(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC),
                     _mm256_round_ps(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC),
                     _mm_round_ps(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
}

// The same bits under another type.
inline I32 AsInt(F32 x) { return (I32)x; }
inline F32 AsFloat(I32 x) { return (F32)x; }

inline F32 And(F32 a, F32 b) { return TQ_BY_SET(_mm512_and_ps, _mm256_and_ps, _mm_and_ps)(a, b); }
inline F32 Xor(F32 a, F32 b) { return TQ_BY_SET(_mm512_xor_ps, _mm256_xor_ps, _mm_xor_ps)(a, b); }
inline F32 Or(F32 a, F32 b) { return TQ_BY_SET(_mm512_or_ps, _mm256_or_ps, _mm_or_ps)(a, b); }
inline F32 AndNot(F32 a, F32 b) {
    return TQ_BY_SET(_mm512_andnot_ps, _mm256_andnot_ps, _mm_andnot_ps)(a, b);
}  // ~a & b
inline F64 Xor(F64 a, F64 b) { return TQ_BY_SET(_mm512_xor_pd, _mm256_xor_pd, _mm_xor_pd)(a, b); }
inline F32 Abs(F32 x) { return AndNot(Splat(-0.0F), x); }

// --- Comparisons. All but NotEqual are false for NaN. ---

#if defined(TQ_AVX512)
inline Mask Less(F32 a, F32 b) { return _mm512_cmp_ps_mask(a, b, _CMP_LT_OQ); }
inline Mask LessEqual(F32 a, F32 b) { return _mm512_cmp_ps_mask(a, b, _CMP_LE_OQ); }
inline Mask Equal(F32 a, F32 b) { return _mm512_cmp_ps_mask(a, b, _CMP_EQ_OQ); }
inline Mask NotEqual(F32 a, F32 b) { return _mm512_cmp_ps_mask(a, b, _CMP_NEQ_UQ); }
inline F32 Select(Mask m, F32 yes, F32 no) { return _mm512_mask_blend_ps(m, no, yes); }
inline F32 OnlyWhere(Mask m, F32 x) { return _mm512_maskz_mov_ps(m, x); }  // 0 elsewhere
inline Mask NoLane() { return 0; }
inline Mask EitherOf(Mask a, Mask b) { return static_cast<Mask>(a | b); }
inline Mask BothOf(Mask a, Mask b) { return static_cast<Mask>(a & b); }
inline bool Any(Mask m) { return m != 0; }
inline bool All(Mask m) { return m == 0xFFFF; }
#else
#if defined(TQ_AVX2)
inline Mask Less(F32 a, F32 b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
inline Mask LessEqual(F32 a, F32 b) { return _mm256_cmp_ps(a, b, _CMP_LE_OQ); }
inline Mask Equal(F32 a, F32 b) { return _mm256_cmp_ps(a, b, _CMP_EQ_OQ); }
inline Mask NotEqual(F32 a, F32 b) { return _mm256_cmp_ps(a, b, _CMP_NEQ_UQ); }
inline F32 Select(Mask m, F32 yes, F32 no) { return _mm256_blendv_ps(no, yes, m); }
inline bool Any(Mask m) { return _mm256_movemask_ps(m) != 0; }
inline bool All(Mask m) { return _mm256_movemask_ps(m) == 0xFF; }
#else
inline Mask Less(F32 a, F32 b) { return _mm_cmplt_ps(a, b); }
inline Mask LessEqual(F32 a, F32 b) { return _mm_cmple_ps(a, b); }
inline Mask Equal(F32 a, F32 b) { return _mm_cmpeq_ps(a, b); }
inline Mask NotEqual(F32 a, F32 b) { return _mm_cmpneq_ps(a, b); }
inline F32 Select(Mask m, F32 yes, F32 no) { return _mm_blendv_ps(no, yes, m); }
inline bool Any(Mask m) { return _mm_movemask_ps(m) != 0; }
inline bool All(Mask m) { return _mm_movemask_ps(m) == 0xF; }
#endif
inline F32 OnlyWhere(Mask m, F32 x) { return And(m, x); }  // 0 elsewhere
inline Mask NoLane() { return Zero32(); }
inline Mask EitherOf(Mask a, Mask b) { return Or(a, b); }
inline Mask BothOf(Mask a, Mask b) { return And(a, b); }
#endif

// --- Complex values ---

// (re, re), (im, im) and (im, re) of each pair.
inline F32 Reals(F32 x) { return TQ_BY_SET(_mm512_moveldup_ps, _mm256_moveldup_ps, _mm_moveldup_ps)(x); }
inline F32 Imags(F32 x) { return TQ_BY_SET(_mm512_movehdup_ps, _mm256_movehdup_ps, _mm_movehdup_ps)(x); }
inline F32 Swapped(F32 x) {
    return TQ_BY_SET(_mm512_permute_ps(x, 0xB1), _mm256_permute_ps(x, 0xB1), _mm_shuffle_ps(x, x, 0xB1));
}
inline F64 Reals(F64 x) { return TQ_BY_SET(_mm512_movedup_pd, _mm256_movedup_pd, _mm_movedup_pd)(x); }
inline F64 Imags(F64 x) {
    return TQ_BY_SET(_mm512_permute_pd(x, 0xFF), _mm256_permute_pd(x, 0xF), _mm_shuffle_pd(x, x, 0x3));
}
inline F64 Swapped(F64 x) {
    return TQ_BY_SET(_mm512_permute_pd(x, 0x55), _mm256_permute_pd(x, 0x5), _mm_shuffle_pd(x, x, 0x1));
}

// (a.re - b.re, a.im + b.im), each rounded once: AVX-512 has it only behind a product, here by 1, which is exact.
inline F32 SubAdd(F32 a, F32 b) {
    return TQ_BY_SET(_mm512_fmaddsub_ps(a, Splat(1.0F), b), _mm256_addsub_ps(a, b), _mm_addsub_ps(a, b));
}
inline F64 SubAdd(F64 a, F64 b) {
    return TQ_BY_SET(_mm512_fmaddsub_pd(a, Splat(1.0), b), _mm256_addsub_pd(a, b), _mm_addsub_pd(a, b));
}

// Products of pairs, every operation rounded: (ar br - ai bi, ar bi + ai br), the same on all sets.
inline F32 ComplexMul(F32 a, F32 b) { return SubAdd(Reals(a) * b, Imags(a) * Swapped(b)); }
inline F64 ComplexMul(F64 a, F64 b) { return SubAdd(Reals(a) * b, Imags(a) * Swapped(b)); }

// The same, fused where the set has it.
#if defined(TQ_SSE41)
inline F32 ComplexMulFused(F32 a, F32 b) { return ComplexMul(a, b); }
inline F64 ComplexMulFused(F64 a, F64 b) { return ComplexMul(a, b); }
#else
inline F32 ComplexMulFused(F32 a, F32 b) {
    return TQ_BY_SET(_mm512_fmaddsub_ps, _mm256_fmaddsub_ps, )(Reals(a), b, Imags(a) * Swapped(b));
}
inline F64 ComplexMulFused(F64 a, F64 b) {
    return TQ_BY_SET(_mm512_fmaddsub_pd, _mm256_fmaddsub_pd, )(Reals(a), b, Imags(a) * Swapped(b));
}
#endif

// Two registers of pairs to one of real and one of imaginary parts, and back. The order of the lanes between is the
// set's own, the cheapest; Deinterleave and Interleave undo each other.
inline void Deinterleave(F32 a, F32 b, F32& re, F32& im) {
    re = TQ_BY_SET(_mm512_shuffle_ps(a, b, 0x88), _mm256_shuffle_ps(a, b, 0x88), _mm_shuffle_ps(a, b, 0x88));
    im = TQ_BY_SET(_mm512_shuffle_ps(a, b, 0xDD), _mm256_shuffle_ps(a, b, 0xDD), _mm_shuffle_ps(a, b, 0xDD));
}
inline void Interleave(F32 re, F32 im, F32& a, F32& b) {
    a = TQ_BY_SET(_mm512_unpacklo_ps, _mm256_unpacklo_ps, _mm_unpacklo_ps)(re, im);
    b = TQ_BY_SET(_mm512_unpackhi_ps, _mm256_unpackhi_ps, _mm_unpackhi_ps)(re, im);
}
inline void Deinterleave(F64 a, F64 b, F64& re, F64& im) {
    re = TQ_BY_SET(_mm512_unpacklo_pd, _mm256_unpacklo_pd, _mm_unpacklo_pd)(a, b);
    im = TQ_BY_SET(_mm512_unpackhi_pd, _mm256_unpackhi_pd, _mm_unpackhi_pd)(a, b);
}
inline void Interleave(F64 re, F64 im, F64& a, F64& b) { Deinterleave(re, im, a, b); }

// Likewise with the lanes of re and im in the order of memory.
inline F32 InOrder(F32 x) {
#if defined(TQ_AVX512)
    return _mm512_castpd_ps(_mm512_permutexvar_pd(_mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7), _mm512_castps_pd(x)));
#elif defined(TQ_AVX2)
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(x), 0xD8));
#else
    return x;
#endif
}
inline void DeinterleaveInOrder(F32 a, F32 b, F32& re, F32& im) {
#if defined(TQ_AVX512)
    const __m512i even = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    re = _mm512_permutex2var_ps(a, even, b);
    im = _mm512_permutex2var_ps(a, _mm512_or_si512(even, _mm512_set1_epi32(1)), b);
#else
    Deinterleave(a, b, re, im);
    re = InOrder(re);
    im = InOrder(im);
#endif
}
inline void InterleaveInOrder(F32 re, F32 im, F32& a, F32& b) {
#if defined(TQ_AVX512)
    const __m512i low = _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
    a = _mm512_permutex2var_ps(re, low, im);
    b = _mm512_permutex2var_ps(re, _mm512_add_epi32(low, _mm512_set1_epi32(8)), im);
#elif defined(TQ_AVX2)
    const F32 low = _mm256_unpacklo_ps(re, im);
    const F32 high = _mm256_unpackhi_ps(re, im);
    a = _mm256_permute2f128_ps(low, high, 0x20);
    b = _mm256_permute2f128_ps(low, high, 0x31);
#else
    Interleave(re, im, a, b);
#endif
}

// --- Across lanes ---

// The sum of all lanes.
inline double SumOf(F64 x) {
#if defined(TQ_AVX512)
    return _mm512_reduce_add_pd(x);
#elif defined(TQ_AVX2)
    const __m128d two = _mm256_castpd256_pd128(x) + _mm256_extractf128_pd(x, 1);
    return _mm_cvtsd_f64(two + _mm_unpackhi_pd(two, two));
#else
    return _mm_cvtsd_f64(x + _mm_unpackhi_pd(x, x));
#endif
}

}  // namespace
