#include "vector_kernels.h"

#include "ipps_simd.h"

namespace {

using std::ptrdiff_t;

// Lanes of a register of T.
template <class T>
constexpr int LANES_OF = LANES * 4 / static_cast<int>(sizeof(T));

// dst[n] = f(src...[n]) by whole registers, four at a time, which keeps up with one store per cycle, and the rest by
// a part of one. Each register is loaded before it is stored, and the registers go upward.
template <class T, class F, class... Src>
inline void Map(T* dst, ptrdiff_t count, F f, const Src*... src) {
    constexpr ptrdiff_t STEP = LANES_OF<T>;
    constexpr ptrdiff_t UNROLLED = 4;
    ptrdiff_t n = 0;
    for (; count - n >= UNROLLED * STEP; n += UNROLLED * STEP) {
#pragma GCC unroll 4
        for (ptrdiff_t k = 0; k < UNROLLED; ++k) Store(dst + n + k * STEP, f(Load(src + n + k * STEP)...));
    }
    for (; count - n >= STEP; n += STEP) Store(dst + n, f(Load(src + n)...));
    if (const int rest = static_cast<int>(count - n); rest > 0) StorePart(dst + n, f(LoadPart(src + n, rest)...), rest);
}

// --- Fill and order ---

void Fill(const void* pattern, void* dst, ptrdiff_t byteCount) {
    constexpr ptrdiff_t STEP = sizeof(Bits);
    const __m128i once = _mm_loadu_si128(static_cast<const __m128i*>(pattern));
    const Bits bits = TQ_BY_SET(_mm512_broadcast_i32x4(once), _mm256_broadcastsi128_si256(once), once);
    auto* const bytes = static_cast<unsigned char*>(dst);
    ptrdiff_t n = 0;
    for (; byteCount - n >= STEP; n += STEP) StoreBits(bytes + n, bits);
    // STEP is a multiple of the pattern, so that the rest begins where the pattern does.
    if (n < byteCount) __builtin_memcpy(bytes + n, &bits, static_cast<std::size_t>(byteCount - n));
}

F32 Reversed(F32 x) {
#if defined(TQ_AVX512)
    return _mm512_permutexvar_ps(_mm512_setr_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0), x);
#elif defined(TQ_AVX2)
    return _mm256_permutevar8x32_ps(x, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
#else
    return _mm_shuffle_ps(x, x, 0x1B);
#endif
}

void Flip(const float* src, float* dst, ptrdiff_t count) {
    ptrdiff_t n = 0;
    for (; count - n >= LANES; n += LANES) Store(dst + n, Reversed(Load(src + count - n - LANES)));
    for (; n < count; ++n) dst[n] = src[count - 1 - n];
}

// --- Arithmetic ---

void Add(const float* src1, const float* src2, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [](F32 a, F32 b) { return a + b; }, src1, src2);
}

void AddWrapping(const std::uint32_t* src1, const std::uint32_t* src2, std::uint32_t* dst, ptrdiff_t count) {
    const auto sum = [](I32 a, I32 b) {
        return (I32)TQ_BY_SET(_mm512_add_epi32, _mm256_add_epi32, _mm_add_epi32)((Bits)a, (Bits)b);
    };
    Map(reinterpret_cast<std::int32_t*>(dst), count, sum, reinterpret_cast<const std::int32_t*>(src1),
        reinterpret_cast<const std::int32_t*>(src2));
}

void AddConstant(const float* src, float val, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [v = Splat(val)](F32 a) { return a + v; }, src);
}

void SubSaturated(const std::int32_t* src1, const std::int32_t* src2, std::int32_t* dst, ptrdiff_t count) {
    const auto difference = [](I32 a, I32 b) {
        const I32 wrapped = (I32)TQ_BY_SET(_mm512_sub_epi32, _mm256_sub_epi32, _mm_sub_epi32)((Bits)b, (Bits)a);
        // It overflowed where the signs of a and b differ and the difference has not the sign of b.
        const I32 overflowed = ((b ^ a) & (b ^ wrapped)) >> 31;
        const I32 limit = (b >> 31) ^ Splat(INT32_MAX);
        return (wrapped & ~overflowed) | (limit & overflowed);
    };
    Map(dst, count, difference, src1, src2);
}

void Mul(const float* src1, const float* src2, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [](F32 a, F32 b) { return a * b; }, src1, src2);
}

void Mul(const double* src1, const double* src2, double* dst, ptrdiff_t count) {
    Map(
        dst, count, [](F64 a, F64 b) { return a * b; }, src1, src2);
}

void MulConstant(const float* src, float val, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [v = Splat(val)](F32 a) { return a * v; }, src);
}

void MulConstant(const double* src, double val, double* dst, ptrdiff_t count) {
    Map(
        dst, count, [v = Splat(val)](F64 a) { return a * v; }, src);
}

void MinEvery(const float* src1, const float* src2, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [](F32 a, F32 b) { return Min(a, b); }, src1, src2);
}

void MaxEvery(const float* src1, const float* src2, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [](F32 a, F32 b) { return Max(a, b); }, src1, src2);
}

void Square(const float* src, float* dst, ptrdiff_t count) {
    Map(
        dst, count, [](F32 a) { return a * a; }, src);
}

// --- Complex arithmetic. A register holds whole pairs, and so does a rest. ---

// x, read once: GCC else loads a value anew for each of its uses, of which the loads are the bottleneck here.
template <class V>
inline V Once(V x) {
    __asm__("" : "+v"(x));
    return x;
}

void MulComplex(const float* src1, const float* src2, float* dst, ptrdiff_t count) {
    Map(
        dst, 2 * count, [](F32 a, F32 b) { return ComplexMul(Once(a), Once(b)); }, src1, src2);
}

void MulComplex(const double* src1, const double* src2, double* dst, ptrdiff_t count) {
    Map(
        dst, 2 * count, [](F64 a, F64 b) { return ComplexMul(Once(a), Once(b)); }, src1, src2);
}

void Conjugate(const float* src, float* dst, ptrdiff_t count) {
    const F32 imagSigns = (F32)TQ_BY_SET(_mm512_set1_epi64, _mm256_set1_epi64x, _mm_set1_epi64x)(INT64_MIN);
    Map(
        dst, 2 * count, [imagSigns](F32 a) { return Xor(a, imagSigns); }, src);
}

// dst[n] = re^2 + im^2, finished by f, which takes two registers of results at a time and changes them.
template <class F>
inline void MapPower(const float* src, float* dst, ptrdiff_t count, F f) {
    const auto power = [](F32 a, F32 b) {
        F32 re, im;
        Deinterleave(a * a, b * b, re, im);
        return InOrder(re + im);
    };
    ptrdiff_t n = 0;
    for (; count - n >= 2 * LANES; n += 2 * LANES) {
        const float* const from = src + 2 * n;
        F32 x = power(Load(from), Load(from + LANES));
        F32 y = power(Load(from + 2 * LANES), Load(from + 3 * LANES));
        f(x, y);
        Store(dst + n, x);
        Store(dst + n + LANES, y);
    }
    for (; n < count; n += LANES) {
        const int rest = count - n < LANES ? static_cast<int>(count - n) : LANES;
        const int low = 2 * rest < LANES ? 2 * rest : LANES;
        F32 x = power(LoadPart(src + 2 * n, low), LoadPart(src + 2 * n + low, 2 * rest - low));
        F32 unused = Zero32();
        f(x, unused);
        StorePart(dst + n, x, rest);
    }
}

void Power(const float* src, float* dst, ptrdiff_t count) {
    MapPower(src, dst, count, [](F32&, F32&) {});
}

void Magnitude(const float* src, float* dst, ptrdiff_t count) {
    MapPower(src, dst, count, [](F32& x, F32& y) { SqrtBoth(x, y); });
}

// --- Sums ---

// Element n goes to sum n mod WAYS, on every set, and the sums are folded by halves.
constexpr int WAYS = 16;

void FoldSums(double (&ways)[WAYS], double sums[2]) {
    for (int half = WAYS / 2; half >= 2; half /= 2) {
        for (int n = 0; n < half; ++n) ways[n] += ways[n + half];
    }
    sums[0] = ways[0];
    sums[1] = ways[1];
}

// The lower and the upper lanes of x as doubles.
F64 WidenedLow(F32 x) {
    return TQ_BY_SET(_mm512_cvtps_pd(_mm512_castps512_ps256(x)), _mm256_cvtps_pd(_mm256_castps256_ps128(x)),
                     _mm_cvtps_pd(x));
}
F64 WidenedHigh(F32 x) {
    return TQ_BY_SET(_mm512_cvtps_pd(_mm512_extractf32x8_ps(x, 1)), _mm256_cvtps_pd(_mm256_extractf128_ps(x, 1)),
                     _mm_cvtps_pd(_mm_movehl_ps(x, x)));
}

void Sums(const float* src, ptrdiff_t count, double sums[2]) {
    constexpr int REGISTERS = WAYS / LANES;
    F64 low[REGISTERS];
    F64 high[REGISTERS];
    for (int k = 0; k < REGISTERS; ++k) low[k] = high[k] = Zero64();
    ptrdiff_t n = 0;
    for (; count - n >= WAYS; n += WAYS) {
#pragma GCC unroll 4
        for (int k = 0; k < REGISTERS; ++k) {
            const F32 x = Load(src + n + k * LANES);
            low[k] += WidenedLow(x);
            high[k] += WidenedHigh(x);
        }
    }
    double ways[WAYS];
    for (int k = 0; k < REGISTERS; ++k) {
        Store(ways + k * LANES, low[k]);
        Store(ways + k * LANES + LANES64, high[k]);
    }
    for (int k = 0; n + k < count; ++k) ways[k] += static_cast<double>(src[n + k]);
    FoldSums(ways, sums);
}

void Sums(const double* src, ptrdiff_t count, double sums[2]) {
    constexpr int REGISTERS = WAYS / LANES64;
    F64 sum[REGISTERS];
    for (int k = 0; k < REGISTERS; ++k) sum[k] = Zero64();
    ptrdiff_t n = 0;
    for (; count - n >= WAYS; n += WAYS) {
#pragma GCC unroll 8
        for (int k = 0; k < REGISTERS; ++k) sum[k] += Load(src + n + k * LANES64);
    }
    double ways[WAYS];
    for (int k = 0; k < REGISTERS; ++k) Store(ways + k * LANES64, sum[k]);
    for (int k = 0; n + k < count; ++k) ways[k] += src[n + k];
    FoldSums(ways, sums);
}

// --- 16-bit integers ---

// As many as there are float lanes.
using Half = TQ_BY_SET(__m256i, __m128i, __m128i);

Half LoadHalf(const std::int16_t* p) {
    return TQ_BY_SET(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)),
                     _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), _mm_loadu_si64(p));
}

void StoreHalf(std::int16_t* p, Half x) {
    TQ_BY_SET(_mm256_storeu_si256(reinterpret_cast<__m256i*>(p), x), _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x),
              _mm_storeu_si64(p, x));
}

// The first `count`, below LANES.
Half LoadHalfPart(const std::int16_t* p, int count) {
#if defined(TQ_AVX512)
    return _mm256_maskz_loadu_epi16(FirstLanes(count), p);
#else
    Half x = _mm_setzero_si128();
    __builtin_memcpy(&x, p, static_cast<std::size_t>(count) * sizeof(*p));
    return x;
#endif
}

void StoreHalfPart(std::int16_t* p, Half x, int count) {
#if defined(TQ_AVX512)
    _mm256_mask_storeu_epi16(p, FirstLanes(count), x);
#else
    __builtin_memcpy(p, &x, static_cast<std::size_t>(count) * sizeof(*p));
#endif
}

Half Splat16(std::int16_t x) { return TQ_BY_SET(_mm256_set1_epi16, _mm_set1_epi16, _mm_set1_epi16)(x); }
Half SubSaturated16(Half a, Half b) { return TQ_BY_SET(_mm256_subs_epi16, _mm_subs_epi16, _mm_subs_epi16)(a, b); }

I32 Widened(Half x) { return (I32)TQ_BY_SET(_mm512_cvtepi16_epi32, _mm256_cvtepi16_epi32, _mm_cvtepi16_epi32)(x); }

// Saturated.
Half Narrowed(I32 x) {
#if defined(TQ_AVX512)
    return _mm512_cvtsepi32_epi16((Bits)x);
#elif defined(TQ_AVX2)
    return _mm_packs_epi32(_mm256_castsi256_si128((Bits)x), _mm256_extracti128_si256((Bits)x, 1));
#else
    return _mm_packs_epi32((Bits)x, (Bits)x);
#endif
}

// Two registers at once, the narrow ones being the cheaper that way.
void StoreNarrowed(std::int16_t* p, I32 low, I32 high) {
#if defined(TQ_AVX512)
    StoreHalf(p, Narrowed(low));
    StoreHalf(p + LANES, Narrowed(high));
#elif defined(TQ_AVX2)
    StoreBits(p, _mm256_permute4x64_epi64(_mm256_packs_epi32((Bits)low, (Bits)high), 0xD8));
#else
    StoreBits(p, _mm_packs_epi32((Bits)low, (Bits)high));
#endif
}

void SubConstant(const std::int16_t* src, std::int16_t val, std::int16_t* dst, ptrdiff_t count) {
    const Half v = Splat16(val);
    ptrdiff_t n = 0;
    for (; count - n >= LANES; n += LANES) StoreHalf(dst + n, SubSaturated16(LoadHalf(src + n), v));
    if (const int rest = static_cast<int>(count - n); rest > 0) {
        StoreHalfPart(dst + n, SubSaturated16(LoadHalfPart(src + n, rest), v), rest);
    }
}

// Where src lies in the upper half of dst's memory, the write of element n ends before the source of element n + 1
// begins; so each register, loaded before it is stored, may be as wide as it likes.
void ConvertToFloat(const std::int16_t* src, std::int16_t offset, float scale, float* dst, ptrdiff_t count) {
    const Half v = Splat16(offset);
    const F32 factor = Splat(scale);
    const auto convert = [v, factor](Half x) { return ToFloat(Widened(SubSaturated16(x, v))) * factor; };
    constexpr ptrdiff_t UNROLLED = 4;
    ptrdiff_t n = 0;
    for (; count - n >= UNROLLED * LANES; n += UNROLLED * LANES) {
#pragma GCC unroll 4
        for (ptrdiff_t k = 0; k < UNROLLED; ++k) Store(dst + n + k * LANES, convert(LoadHalf(src + n + k * LANES)));
    }
    for (; count - n >= LANES; n += LANES) Store(dst + n, convert(LoadHalf(src + n)));
    if (const int rest = static_cast<int>(count - n); rest > 0) {
        StorePart(dst + n, convert(LoadHalfPart(src + n, rest)), rest);
    }
}

void ConvertTo16(const float* src, float scale, std::int16_t* dst, ptrdiff_t count) {
    const F32 factor = Splat(scale);
    const F32 highest = Splat(32767.0F);
    // Far below range ToInt gives the lowest integer, which narrows to the right limit; far above it must not come.
    const auto convert = [factor, highest](F32 x) {
        const F32 scaled = x * factor;
        return ToInt(OnlyWhere(Equal(scaled, scaled), Min(scaled, highest)));
    };
    ptrdiff_t n = 0;
    for (; count - n >= 2 * LANES; n += 2 * LANES) {
        StoreNarrowed(dst + n, convert(Load(src + n)), convert(Load(src + n + LANES)));
    }
    for (; n < count; n += LANES) {
        const int rest = count - n < LANES ? static_cast<int>(count - n) : LANES;
        StoreHalfPart(dst + n, Narrowed(convert(LoadPart(src + n, rest))), rest);
    }
}

void ConvertToSingle(const double* src, float* dst, ptrdiff_t count) {
    ptrdiff_t n = 0;
    for (; count - n >= LANES; n += LANES) {
        const F64 a = Load(src + n);
        const F64 b = Load(src + n + LANES64);
#if defined(TQ_AVX512)
        Store(dst + n, _mm512_insertf32x8(_mm512_castps256_ps512(_mm512_cvtpd_ps(a)), _mm512_cvtpd_ps(b), 1));
#elif defined(TQ_AVX2)
        Store(dst + n, _mm256_set_m128(_mm256_cvtpd_ps(b), _mm256_cvtpd_ps(a)));
#else
        Store(dst + n, _mm_movelh_ps(_mm_cvtpd_ps(a), _mm_cvtpd_ps(b)));
#endif
    }
    for (; n < count; ++n) dst[n] = static_cast<float>(src[n]);
}

// --- Transpose ---

void TransposeRegisters(F32 (&x)[LANES]) {
#if defined(TQ_AVX512)
    // Within groups of four rows: 4 x 4 blocks of each 128 bits; then the 128-bit pieces change places between groups.
    F32 y[LANES];
#pragma GCC unroll 4
    for (int g = 0; g < LANES; g += 4) {
        const __m512d t0 = _mm512_castps_pd(_mm512_unpacklo_ps(x[g], x[g + 1]));
        const __m512d t1 = _mm512_castps_pd(_mm512_unpackhi_ps(x[g], x[g + 1]));
        const __m512d t2 = _mm512_castps_pd(_mm512_unpacklo_ps(x[g + 2], x[g + 3]));
        const __m512d t3 = _mm512_castps_pd(_mm512_unpackhi_ps(x[g + 2], x[g + 3]));
        y[g] = _mm512_castpd_ps(_mm512_unpacklo_pd(t0, t2));
        y[g + 1] = _mm512_castpd_ps(_mm512_unpackhi_pd(t0, t2));
        y[g + 2] = _mm512_castpd_ps(_mm512_unpacklo_pd(t1, t3));
        y[g + 3] = _mm512_castpd_ps(_mm512_unpackhi_pd(t1, t3));
    }
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) {
        const F32 a = _mm512_shuffle_f32x4(y[k], y[k + 4], 0x88);
        const F32 b = _mm512_shuffle_f32x4(y[k], y[k + 4], 0xDD);
        const F32 c = _mm512_shuffle_f32x4(y[k + 8], y[k + 12], 0x88);
        const F32 d = _mm512_shuffle_f32x4(y[k + 8], y[k + 12], 0xDD);
        x[k] = _mm512_shuffle_f32x4(a, c, 0x88);
        x[k + 4] = _mm512_shuffle_f32x4(b, d, 0x88);
        x[k + 8] = _mm512_shuffle_f32x4(a, c, 0xDD);
        x[k + 12] = _mm512_shuffle_f32x4(b, d, 0xDD);
    }
#elif defined(TQ_AVX2)
    F32 y[LANES];
#pragma GCC unroll 2
    for (int g = 0; g < LANES; g += 4) {
        const F32 t0 = _mm256_unpacklo_ps(x[g], x[g + 1]);
        const F32 t1 = _mm256_unpackhi_ps(x[g], x[g + 1]);
        const F32 t2 = _mm256_unpacklo_ps(x[g + 2], x[g + 3]);
        const F32 t3 = _mm256_unpackhi_ps(x[g + 2], x[g + 3]);
        y[g] = _mm256_shuffle_ps(t0, t2, 0x44);
        y[g + 1] = _mm256_shuffle_ps(t0, t2, 0xEE);
        y[g + 2] = _mm256_shuffle_ps(t1, t3, 0x44);
        y[g + 3] = _mm256_shuffle_ps(t1, t3, 0xEE);
    }
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) {
        x[k] = _mm256_permute2f128_ps(y[k], y[k + 4], 0x20);
        x[k + 4] = _mm256_permute2f128_ps(y[k], y[k + 4], 0x31);
    }
#else
    _MM_TRANSPOSE4_PS(x[0], x[1], x[2], x[3]);
#endif
}

inline void TransposeTile(const float* src, ptrdiff_t srcStride, float* dst, ptrdiff_t dstStride) {
    F32 x[LANES];
#pragma GCC unroll 16
    for (int k = 0; k < LANES; ++k) x[k] = Load(src + k * srcStride);
    TransposeRegisters(x);
#pragma GCC unroll 16
    for (int k = 0; k < LANES; ++k) Store(dst + k * dstStride, x[k]);
}

void TransposePartTile(const float* src, ptrdiff_t srcStride, float* dst, ptrdiff_t dstStride, int rows, int columns) {
    F32 x[LANES];
    for (int k = 0; k < LANES; ++k) x[k] = k < rows ? LoadPart(src + k * srcStride, columns) : Zero32();
    TransposeRegisters(x);
    for (int k = 0; k < columns; ++k) StorePart(dst + k * dstStride, x[k], rows);
}

// Tile after tile along the rows of dst, so that their cache lines are completed while they are near.
void Transpose(const float* src, ptrdiff_t srcStride, float* dst, ptrdiff_t dstStride, ptrdiff_t rows,
               ptrdiff_t columns) {
    for (ptrdiff_t column = 0; column < columns; column += LANES) {
        for (ptrdiff_t row = 0; row < rows; row += LANES) {
            const float* const from = src + row * srcStride + column;
            float* const to = dst + column * dstStride + row;
            const ptrdiff_t rowsHere = rows - row;
            const ptrdiff_t columnsHere = columns - column;
            if (rowsHere >= LANES && columnsHere >= LANES) {
                // A tile takes one cache line from each of many rows, which the processor does not foresee.
                constexpr ptrdiff_t AHEAD = 32;  // floats, measured best of 0, 32 and 64
                for (int k = 0; k < LANES; ++k) {
                    _mm_prefetch(reinterpret_cast<const char*>(from + k * srcStride + AHEAD), _MM_HINT_T0);
                }
                TransposeTile(from, srcStride, to, dstStride);
            } else {
                TransposePartTile(from, srcStride, to, dstStride, rowsHere < LANES ? static_cast<int>(rowsHere) : LANES,
                                  columnsHere < LANES ? static_cast<int>(columnsHere) : LANES);
            }
        }
    }
}

// --- Levels ---

void Level(const float* src, float add, float scale, std::int32_t* dst, ptrdiff_t count) {
    const F32 summand = Splat(add);
    const F32 factor = Splat(scale);
    const I32 lowest = Splat(0);
    const I32 highest = Splat(255);
    const auto level = [=](F32 x) { return Min(Max(ToInt((x + summand) * factor), lowest), highest); };
    Map(dst, count, level, src);
}

}  // namespace

extern const VectorKernels TQ_KERNELS(VECTOR);
const VectorKernels TQ_KERNELS(VECTOR) = {
    .fill = Fill,
    .flip32f = Flip,
    .add32f = Add,
    .add32u = AddWrapping,
    .addC32f = AddConstant,
    .subC16s = SubConstant,
    .sub32s = SubSaturated,
    .mul32f = Mul,
    .mul64f = Mul,
    .mulC32f = MulConstant,
    .mulC64f = MulConstant,
    .min32f = MinEvery,
    .max32f = MaxEvery,
    .sqr32f = Square,
    .mul32fc = MulComplex,
    .mul64fc = MulComplex,
    .conj32fc = Conjugate,
    .power32fc = Power,
    .magnitude32fc = Magnitude,
    .sums32f = Sums,
    .sums64f = Sums,
    .convert16s32f = ConvertToFloat,
    .convert32f16s = ConvertTo16,
    .convert64f32f = ConvertToSingle,
    .transpose32f = Transpose,
    .level32f = Level,
};
