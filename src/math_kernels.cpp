#include "math_kernels.h"

#include "ipps_simd.h"

namespace {

using std::ptrdiff_t;

typedef std::uint32_t U32 __attribute__((vector_size(LANES * 4), may_alias));

constexpr float LN_2 = 0.693147181F;  // as a float, high by 2^-28.4 of itself only: the logarithm needs no second part

#if !defined(TQ_AVX512)
constexpr float SMALLEST_NORMAL = 0x1p-126F;
constexpr float INF = __builtin_inff();

// Whether all lanes are above 0, finite and normal. AVX-512 has instructions for the other values.
inline bool Ordinary(F32 x) { return All(BothOf(LessEqual(Splat(SMALLEST_NORMAL), x), Less(x, Splat(INF)))); }
#endif

// c0 + c1 x + c2 x^2 + ..., in two chains, by powers of the square: the processor waits for a single one. Constants
// are arguments, as the compiler folds those of an array less well.
inline F32 Polynomial(F32, F32, float c0) { return Splat(c0); }
template <class... C>
inline F32 Polynomial(F32 x, F32 square, float c0, float c1, C... higher) {
    const F32 low = MulAdd(Splat(c1), x, Splat(c0));
    if constexpr (sizeof...(higher) == 0) {
        return low;
    } else {
        return MulAdd(Polynomial(x, square, higher...), square, low);
    }
}

// dst[n] = f(src[n]); f is called with 1 for lanes beyond the end.
template <class F>
inline void Map(const float* src, float* dst, ptrdiff_t count, F f) {
    ptrdiff_t n = 0;
    for (; count - n >= 2 * LANES; n += 2 * LANES) {
        const F32 a = f(Load(src + n));
        const F32 b = f(Load(src + n + LANES));
        Store(dst + n, a);
        Store(dst + n + LANES, b);
    }
    for (; n < count; n += LANES) {
        const int rest = count - n < LANES ? static_cast<int>(count - n) : LANES;
        StorePart(dst + n, f(LoadPart(src + n, rest, Splat(1.0F))), rest);
    }
}

// The same with Function(x, lowest): in each lane, it lowers `lowest` to what is below 0 or 0. Returns the least of all
// lanes. A template of the function, so that `lowest` stays in a register.
template <F32 (*Function)(F32 x, F32& lowest)>
inline float MapAndFindLeast(const float* src, float* dst, ptrdiff_t count) {
    F32 lowest = Splat(1.0F);
    Map(src, dst, count, [&lowest](F32 x) { return Function(x, lowest); });
    float lanes[LANES];
    Store(lanes, lowest);
    float least = lanes[0];
    for (const float lane : lanes) least = lane < least ? lane : least;
    return least;
}

// Passes over NaN, thanks to the order.
inline void Lower(F32& lowest, F32 x) { lowest = Min(x, lowest); }

// --- Logarithm ---

// x = 2^exponent (1 + fraction), -0.25 <= fraction < 0.5: around 1 the exponent is 0 and nothing cancels.
struct Parts {
    F32 exponent;
    F32 fraction;
};

inline Parts Split(F32 x) {
#if defined(TQ_AVX512)
    // Takes all that there is: denormals; zeros and infinities, whose exponent is infinite; NaN for values below 0.
    const F32 mantissa = _mm512_getmant_ps(x, _MM_MANT_NORM_p75_1p5, _MM_MANT_SIGN_nan);
    return {_mm512_getexp_ps(x) - _mm512_getexp_ps(mantissa), mantissa - Splat(1.0F)};
#else
    const U32 bits = (U32)x;
    const I32 exponent = (I32)(bits - (U32)Splat(0.75F)) >> 23;
    return {ToFloat(exponent), (F32)(bits - ((U32)exponent << 23)) - Splat(1.0F)};
#endif
}

// (ln(1 + r) - r) / r^2 and ln(1 + r) / r are minimax fits of the error relative to the least result that an exponent
// can leave: 2^-26.9 and 2^-14.2.
inline F32 LnOf(Parts x) {
    const F32 r = x.fraction;
    const F32 square = r * r;
    const F32 curve = Polynomial(r, square, -0.5F, 0.333334565F, -0.25000006F, 0.199903399F, -0.166491166F,
                                 0.144889086F, -0.131555453F, 0.1039133F, -0.0443180241F);
    return MulAdd(x.exponent, Splat(LN_2), MulAdd(square, curve, r));
}

inline F32 LnOfA11(Parts x) {
    const F32 r = x.fraction;
    const F32 curve = Polynomial(r, r * r, 0.999946892F, -0.500007212F, 0.33862403F, -0.257357568F, 0.136499569F);
    return MulAdd(x.exponent, Splat(LN_2), r * curve);
}

#if !defined(TQ_AVX512)
// Any values.
template <F32 (*Formula)(Parts)>
inline F32 LnOfAny(F32 x) {
    constexpr float RAISED = 23.0F;  // and by 2^23, every denormal is normal
    const Mask tiny = Less(x, Splat(SMALLEST_NORMAL));
    Parts parts = Split(Select(tiny, x * Splat(0x1p23F), x));
    parts.exponent = parts.exponent - OnlyWhere(tiny, Splat(RAISED));
    const F32 finite = Select(Less(x, Splat(INF)), Formula(parts), x);
    return Select(Equal(x, Zero32()), Splat(-INF), Select(Less(x, Zero32()), Splat(__builtin_nanf("")), finite));
}
#endif

template <F32 (*Formula)(Parts)>
inline F32 LnBy(F32 x, F32& lowest) {
#if defined(TQ_AVX512)
    Lower(lowest, x);
#else
    if (!Ordinary(x)) [[unlikely]] {
        Lower(lowest, x);
        return LnOfAny<Formula>(x);
    }
#endif
    return Formula(Split(x));
}

float Ln(const float* src, float* dst, ptrdiff_t count) { return MapAndFindLeast<LnBy<LnOf>>(src, dst, count); }

float LnA11(const float* src, float* dst, ptrdiff_t count) { return MapAndFindLeast<LnBy<LnOfA11>>(src, dst, count); }

// --- Exponential ---

inline F32 ExpOf(F32 x) {
    // Beyond these the result is 0 or infinite, and so it is at them. NaN, as second operand, stays.
    constexpr float LOWEST = -104.0F;
    constexpr float HIGHEST = 89.0F;
    // Adding it leaves a float rounded to an integer, in its low bits.
    constexpr float ROUNDER = 0x1.8p23F;
    // ln(2) in two parts, the upper of so few bits that its multiples up to 151 are exact.
    constexpr float LN_2_UPPER = 0.693359375F;
    constexpr float LN_2_LOWER = -2.12194440e-4F;
    constexpr float LOG2_E = 1.44269504F;

    const F32 limited = Max(Splat(LOWEST), Min(Splat(HIGHEST), x));
    const F32 shifted = MulAdd(limited, Splat(LOG2_E), Splat(ROUNDER));
    const F32 exponent = shifted - Splat(ROUNDER);
    const F32 r = NegMulAdd(exponent, Splat(LN_2_LOWER), NegMulAdd(exponent, Splat(LN_2_UPPER), limited));
    // (e^r - 1 - r) / r^2 for |r| <= ln(2) / 2, minimax of the error relative to e^r: 2^-28.2.
    const F32 square = r * r;
    const F32 curve = Polynomial(r, square, 0.49999994F, 0.166665167F, 0.0416681021F, 0.00836916547F, 0.00138380029F);
    const F32 mantissa = MulAdd(square, curve, r) + Splat(1.0F);
#if defined(TQ_AVX512)
    return _mm512_scalef_ps(mantissa, exponent);
#else
    // By two powers of two, as one may be beyond the range of float; only the last product rounds.
    const U32 whole = (U32)shifted - (U32)Splat(ROUNDER);
    const U32 half = (U32)((I32)whole >> 1);
    const U32 bias = (U32)Splat(127);
    return mantissa * (F32)((half + bias) << 23) * (F32)((whole - half + bias) << 23);
#endif
}

void Exp(const float* src, float* dst, ptrdiff_t count) { Map(src, dst, count, ExpOf); }

// --- Square root ---

#if defined(TQ_AVX512)
// The divider gives a correct root, but the multipliers give theirs in three fifths of the time. Of the estimate's
// error e, below 2^-14, a step of Newton leaves 1.5 e^2, a tenth of a unit. Where x lies at the lower end of the normal
// numbers, a quarter of a unit is lost with the bits of root^2 below the denormals.
inline F32 RootOf(F32 x, F32& lowest) {
    constexpr int ALL_BUT_POSITIVE_NORMAL = 0xFF;
    const F32 inverse = _mm512_rsqrt14_ps(x);
    const F32 root = x * inverse;
    const F32 finer = MulAdd(NegMulAdd(root, root, x), Splat(0.5F) * inverse, root);
    const Mask others = _mm512_fpclass_ps_mask(x, ALL_BUT_POSITIVE_NORMAL);
    if (!Any(others)) [[likely]]
        return finer;
    Lower(lowest, x);
    return _mm512_mask_sqrt_ps(finer, others, x);
}
#else
inline F32 RootOf(F32 x, F32& lowest) {
    Lower(lowest, x);
    return Sqrt(x);
}
#endif

float Root(const float* src, float* dst, ptrdiff_t count) { return MapAndFindLeast<RootOf>(src, dst, count); }

// x times the processor's estimate of its inverse root, which is good to 2^-14, or to 1.5 x 2^-12 on the narrower sets,
// where a step of Newton squares that.
inline F32 RootOfA11(F32 x, F32& lowest) {
#if defined(TQ_AVX512)
    constexpr int ZERO_OR_INF = 0x02 | 0x04 | 0x08;  // which are their own roots, and the product NaN
    Lower(lowest, x);
    return _mm512_mask_mov_ps(x * _mm512_rsqrt14_ps(x), _mm512_fpclass_ps_mask(x, ZERO_OR_INF), x);
#else
    // The estimate takes denormals for 0.
    if (!Ordinary(x)) [[unlikely]]
        return RootOf(x, lowest);
    const F32 inverse = TQ_BY_SET(, _mm256_rsqrt_ps, _mm_rsqrt_ps)(x);
    const F32 root = x * inverse;
    return root * NegMulAdd(Splat(0.5F) * root, inverse, Splat(1.5F));
#endif
}

float RootA11(const float* src, float* dst, ptrdiff_t count) { return MapAndFindLeast<RootOfA11>(src, dst, count); }

// --- Phase ---

inline F32 PhaseOf(F32 re, F32 im) {
    constexpr float HALF_PI = 1.57079633F;
    constexpr float PI = 3.14159265F;
    const F32 signBit = Splat(-0.0F);
    const F32 x = Abs(re);
    const F32 y = Abs(im);
    // NaN, as second operand, stays in one of the two. 0 / 0 is to be 0, infinity / infinity 1.
    const F32 lower = Min(y, x);
    const F32 upper = Max(Splat(0x1p-149F), Max(x, y));
    const F32 a = Select(Equal(lower, upper), Splat(1.0F), lower / upper);
    const F32 s = a * a;
    // (atan(a) / a - 1) / a^2 for 0 <= a <= 1, minimax of the error relative to atan: 2^-25.8.
    const F32 curve = Polynomial(s, s * s, -0.333331525F, 0.199937671F, -0.14211002F, 0.106657669F, -0.0755164698F,
                                 0.0432044417F, -0.0163629223F, 0.00291933166F);

    // atan(a) from the nearer axis: steep values count back from pi / 2, those to the left from pi.
    const Mask steep = Less(x, y);
    const F32 left = AsFloat(AsInt(re) >> 31);
    const F32 axis = Select(steep, Splat(HALF_PI), And(left, Splat(PI)));
    const F32 turned = Xor(a, And(signBit, re));
    const F32 t = Select(steep, Xor(turned, signBit), turned);
    // Smallest terms first. The last: pi and its half, being floats, lie too high by that share of themselves.
    const F32 angle = axis + (t + MulAdd(t * s, curve, axis * Splat(-2.78275303e-8F)));
    return Or(angle, And(signBit, im));
}

void Phase(const float* src, float* dst, ptrdiff_t count) {
    const auto phase = [](F32 a, F32 b) {
        F32 re, im;
        Deinterleave(a, b, re, im);
        return InOrder(PhaseOf(re, im));
    };
    ptrdiff_t n = 0;
    for (; count - n >= LANES; n += LANES) Store(dst + n, phase(Load(src + 2 * n), Load(src + 2 * n + LANES)));
    if (const int rest = static_cast<int>(count - n); rest > 0) {
        const int low = 2 * rest < LANES ? 2 * rest : LANES;
        const F32 a = LoadPart(src + 2 * n, low);
        const F32 b = LoadPart(src + 2 * n + low, 2 * rest - low);
        StorePart(dst + n, phase(a, b), rest);
    }
}

}  // namespace

extern const MathKernels TQ_KERNELS(MATH);
const MathKernels TQ_KERNELS(MATH) = {
    .ln32f = Ln,
    .ln32fA11 = LnA11,
    .sqrt32f = Root,
    .sqrt32fA11 = RootA11,
    .exp32f = Exp,
    .phase32fc = Phase,
};
