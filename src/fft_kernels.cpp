#include "fft_kernels.h"

#include "fft_registers.h"

using ipps_detail::FftLaneColumn;
using ipps_detail::FftPasses;
using ipps_detail::FftPlan;

namespace {

// cos and sin of an eighth and of a sixteenth of a turn.
constexpr double DIAGONAL = 0.70710678118654752440;
constexpr double COS16 = 0.92387953251128675613;
constexpr double SIN16 = 0.38268343236508977173;

// The transforms whose vectors hold W values.
template <class T, int W>
struct Kernel {
    using R = Reg<T, W>;
    using V = typename R::V;
    static constexpr int VECTOR = 2 * W;  // numbers
    static constexpr std::int64_t MAX_RADIX = TQ_BY_SET(16, 8, 8);

    struct Complex {
        V re, im;
        TQ_INLINE Complex operator+(Complex b) const { return {re + b.re, im + b.im}; }
        TQ_INLINE Complex operator-(Complex b) const { return {re - b.re, im - b.im}; }
        // Plus and minus -j b.
        TQ_INLINE Complex PlusTurned(Complex b) const { return {re + b.im, im - b.re}; }
        TQ_INLINE Complex MinusTurned(Complex b) const { return {re - b.im, im + b.re}; }
        TQ_INLINE Complex operator*(Complex b) const {
            return {R::MulSub(re, b.re, im * b.im), R::MulAdd(re, b.im, im * b.re)};
        }
    };

    static TQ_INLINE Complex Constant(double re, double im) {
        return {R::Splat(static_cast<T>(re)), R::Splat(static_cast<T>(im))};
    }

    static TQ_INLINE Complex LoadVector(const T* from) { return {R::Load(from), R::Load(from + W)}; }
    static TQ_INLINE void StoreVector(T* to, Complex x) {
        R::Store(to, x.re);
        R::Store(to + W, x.im);
    }
    // Around the caches when STREAM, to an aligned address.
    template <bool STREAM>
    static TQ_INLINE void StoreFar(T* to, V a, V b) {
        if constexpr (STREAM) {
            R::Stream(to, a);
            R::Stream(to + W, b);
        } else {
            R::Store(to, a);
            R::Store(to + W, b);
        }
    }
    // The inverse transform is the forward one with real and imaginary parts exchanged on both sides.
    template <bool INVERSE>
    static TQ_INLINE Complex LoadPairs(const T* from) {
        Complex x;
        R::Deinterleave(R::Load(from), R::Load(from + W), INVERSE ? x.im : x.re, INVERSE ? x.re : x.im);
        return x;
    }
    template <bool INVERSE, bool STREAM = false>
    static TQ_INLINE void StorePairs(T* to, Complex x, V scale) {
        V a, b;
        R::Interleave((INVERSE ? x.im : x.re) * scale, (INVERSE ? x.re : x.im) * scale, a, b);
        StoreFar<STREAM>(to, a, b);
    }

    // Columns lie apart by more than the processor's own look-ahead follows; the source is asked for so many rows
    // early (measured). Past its end this is harmless.
    static constexpr std::int64_t AHEAD = 4;
    static TQ_INLINE void Prefetch(const T* from) {
        _mm_prefetch(reinterpret_cast<const char*>(from), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(from + W), _MM_HINT_T0);
    }

    // --- Transforms in registers ---

    static TQ_INLINE void Transform4(Complex& a, Complex& b, Complex& c, Complex& d) {
        const Complex sumAC = a + c, difAC = a - c, sumBD = b + d, difBD = b - d;
        a = sumAC + sumBD;
        b = difAC.PlusTurned(difBD);
        c = sumAC - sumBD;
        d = difAC.MinusTurned(difBD);
    }

    template <int RADIX>
    static TQ_INLINE void Transform(Complex (&x)[RADIX]) {
        if constexpr (RADIX == 2) {
            const Complex a = x[0];
            x[0] = a + x[1];
            x[1] = a - x[1];
        } else if constexpr (RADIX == 4) {
            Transform4(x[0], x[1], x[2], x[3]);
        } else if constexpr (RADIX == 8) {
            Complex a = x[0] + x[4], b = x[1] + x[5], c = x[2] + x[6], d = x[3] + x[7];
            const Complex e = x[0] - x[4], f = x[1] - x[5], g = x[2] - x[6], h = x[3] - x[7];
            Transform4(a, b, c, d);
            // f and h turn by an eighth and three eighths; the factor sqrt(1/2) waits for the last sums.
            const V diagonal = R::Splat(static_cast<T>(DIAGONAL));
            const Complex turnedF = {f.re + f.im, f.im - f.re}, turnedH = {h.im - h.re, V{} - (h.re + h.im)};
            const Complex sum = turnedF + turnedH, dif = turnedF - turnedH;
            const Complex plus = e.PlusTurned(g), minus = e.MinusTurned(g);
            x[0] = a;
            x[2] = b;
            x[4] = c;
            x[6] = d;
            x[1] = {R::MulAdd(sum.re, diagonal, plus.re), R::MulAdd(sum.im, diagonal, plus.im)};
            x[5] = {R::NegMulAdd(sum.re, diagonal, plus.re), R::NegMulAdd(sum.im, diagonal, plus.im)};
            x[3] = {R::MulAdd(dif.im, diagonal, minus.re), R::NegMulAdd(dif.re, diagonal, minus.im)};
            x[7] = {R::NegMulAdd(dif.im, diagonal, minus.re), R::MulAdd(dif.re, diagonal, minus.im)};
        } else {
            static_assert(RADIX == 16);
            // Four transforms of 4, a turn of value q of transform k by q k sixteenths, four transforms across.
            Times<4>(TQ_EACH(k) { Transform4(x[k], x[4 + k], x[8 + k], x[12 + k]); });
            const Complex one = Constant(COS16, -SIN16), three = Constant(SIN16, -COS16),
                          nine = Constant(-COS16, SIN16);
            const V diagonal = R::Splat(static_cast<T>(DIAGONAL));
            const auto eighth = [&](Complex z) __attribute__((always_inline)) {
                return Complex{(z.re + z.im) * diagonal, (z.im - z.re) * diagonal};
            };
            const auto turned = [&](Complex z) __attribute__((always_inline)) { return Complex{z.im, V{} - z.re}; };
            x[5] = x[5] * one;
            x[6] = eighth(x[6]);
            x[7] = x[7] * three;
            x[9] = eighth(x[9]);
            x[10] = turned(x[10]);
            x[11] = turned(eighth(x[11]));
            x[13] = x[13] * three;
            x[14] = turned(eighth(x[14]));
            x[15] = x[15] * nine;
            Times<4>(TQ_EACH(q) { Transform4(x[4 * q], x[4 * q + 1], x[4 * q + 2], x[4 * q + 3]); });
            Complex y[16];
            Times<4>(TQ_EACH(q) { Times<4>(TQ_EACH(s) { y[q + 4 * s] = x[4 * q + s]; }); });
            Times<16>(TQ_EACH(k) { x[k] = y[k]; });
        }
    }

    // --- Passes. All but the last multiply by their twiddles. ---

    template <int RADIX>
    static TQ_INLINE void StoreTurned(T* to, std::int64_t step, const Complex (&x)[RADIX], const T* twiddle) {
        StoreVector(to, x[0]);
        Times<RADIX - 1>(TQ_EACH(k) {
            const Complex w = {R::Splat(twiddle[2 * k]), R::Splat(twiddle[2 * k + 1])};
            StoreVector(to + (k + 1) * step, x[k + 1] * w);
        });
    }

    // The first pass over `groups` x `lanes` columns of the source, into as many tiles.
    template <int RADIX, bool INVERSE>
    static void FirstPass(const FftPlan<T>& plan, const T* src, int groups, T* tile) {
        const std::int64_t count = plan.rows / RADIX;
        const std::int64_t rowStep = plan.columns * 2;
        const T* twiddle = plan.down.twiddles;
        for (std::int64_t p = 0; p < count; ++p, twiddle += 2 * (RADIX - 1)) {
            for (int group = 0; group < groups; ++group) {
                const T* const from = src + p * rowStep + group * VECTOR;
                Complex x[RADIX];
                Times<RADIX>(TQ_EACH(k) { x[k] = LoadPairs<INVERSE>(from + k * count * rowStep); });
                if (groups > 1) Times<RADIX>(TQ_EACH(k) { Prefetch(from + (k * count + AHEAD) * rowStep); });
                Transform(x);
                StoreTurned(tile + group * plan.tileStride + p * VECTOR, count * VECTOR, x, twiddle);
            }
        }
    }

    // A pass over `blocks` transforms of length n in the tile.
    template <int RADIX>
    static void MiddlePass(T* tile, std::int64_t n, std::int64_t blocks, const T* twiddles) {
        const std::int64_t count = n / RADIX;
        for (std::int64_t b = 0; b < blocks; ++b) {
            const T* twiddle = twiddles;
            for (std::int64_t p = 0; p < count; ++p, twiddle += 2 * (RADIX - 1)) {
                T* const at = tile + (b * n + p) * VECTOR;
                Complex x[RADIX];
                Times<RADIX>(TQ_EACH(k) { x[k] = LoadVector(at + k * count * VECTOR); });
                Transform(x);
                StoreTurned(at, count * VECTOR, x, twiddle);
            }
        }
    }

    // The last pass of columns, places from `begin` on, which stay in the tile: there are no more columns than lanes.
    template <int RADIX>
    static void LastPassInTile(const FftPlan<T>& plan, T* tile, std::int64_t begin, std::int64_t end) {
        for (std::int64_t place = begin; place < end; place += RADIX) {
            T* const at = tile + place * VECTOR;
            const T* const turns = plan.laneTurns + place * VECTOR;
            Complex x[RADIX];
            Times<RADIX>(TQ_EACH(k) { x[k] = LoadVector(at + k * VECTOR); });
            Transform(x);
            Times<RADIX>(TQ_EACH(k) { StoreVector(at + k * VECTOR, x[k] * LoadVector(turns + k * VECTOR)); });
        }
    }

    // The last pass of columns, from `groups` tiles into the work matrix at `work`, where `column` is the first.
    template <int RADIX, bool STREAM>
    static void LastPassToWork(const FftPlan<T>& plan, const T* tile, T* work, std::int64_t column, int groups,
                               std::int64_t begin, std::int64_t end) {
        const std::int64_t step = plan.rows / RADIX * plan.rowStride;
        for (std::int64_t place = begin; place < end; place += RADIX) {
            const T* const turns = plan.laneTurns + place * VECTOR;
            T* const row = work + plan.down.order[place / RADIX] * plan.rowStride + column * 2;
            for (int group = 0; group < groups; ++group) {
                const T* const at = tile + group * plan.tileStride + place * VECTOR;
                const T* const groupTurns = plan.groupTurns + 2 * ((column / W + group) * plan.rows + place);
                T* const to = row + group * VECTOR;
                Complex x[RADIX];
                Times<RADIX>(TQ_EACH(k) { x[k] = LoadVector(at + k * VECTOR); });
                Transform(x);
                Times<RADIX>(TQ_EACH(k) {
                    const Complex turn = {R::Splat(groupTurns[2 * k]), R::Splat(groupTurns[2 * k + 1])};
                    const Complex y = x[k] * (LoadVector(turns + k * VECTOR) * turn);
                    StoreFar<STREAM>(to + k * step, y.re, y.im);
                });
            }
        }
    }

    // The last pass of rows, from `groups` tiles to the destination at `dst`.
    template <int RADIX, bool INVERSE, bool STREAM>
    static void LastPassToDst(const FftPlan<T>& plan, const T* tile, T* dst, int groups, T scale, std::int64_t begin,
                              std::int64_t end) {
        const V factor = R::Splat(scale);
        const std::int64_t step = plan.columns / RADIX * plan.rows * 2;
        for (std::int64_t place = begin; place < end; place += RADIX) {
            for (int group = 0; group < groups; ++group) {
                const T* const at = tile + group * plan.tileStride + place * VECTOR;
                T* const to = dst + plan.across.order[place / RADIX] * plan.rows * 2 + group * VECTOR;
                Complex x[RADIX];
                Times<RADIX>(TQ_EACH(k) { x[k] = LoadVector(at + k * VECTOR); });
                Transform(x);
                Times<RADIX>(TQ_EACH(k) { StorePairs<INVERSE, STREAM>(to + k * step, x[k], factor); });
            }
        }
    }

    // --- Drivers ---

    // f(Index<radix>{}): the loop for a radix.
    template <class F>
    static TQ_INLINE void ForRadix(int radix, F f) {
        if (radix == 4) return f(Index<4>{});
        if (radix == 8) return f(Index<8>{});
        if constexpr (MAX_RADIX == 16) f(Index<16>{});
    }

    // All that follows pass 0, on `groups` tiles, by the parts that pass 0 made: a part stays in the nearer caches.
    // last(begin, end) does the last pass over the places of a part.
    template <class Last>
    static TQ_INLINE void AfterFirst(const FftPasses<T>& passes, T* tile, int groups, std::int64_t tileStride,
                                     Last last) {
        const std::int64_t partLength = passes.length / passes.radix[0];
        for (std::int64_t begin = 0; begin < passes.length; begin += partLength) {
            const T* twiddles = passes.twiddles + 2 * partLength * (passes.radix[0] - 1);
            std::int64_t n = partLength;
            for (int pass = 1; pass < passes.count - 1; ++pass) {
                const int radix = passes.radix[pass];
                for (int group = 0; group < groups; ++group) {
                    T* const at = tile + group * tileStride + begin * VECTOR;
                    ForRadix(
                        radix, TQ_EACH(r) { MiddlePass<r>(at, n, partLength / n, twiddles); });
                }
                n /= radix;
                twiddles += 2 * n * (radix - 1);
            }
            last(begin, begin + partLength);
        }
    }

    // W rows of as many columns as lanes, from row `row` on: vector(k, part) is the real (0) or imaginary (1)
    // part of the k-th of their vectors.
    template <bool INVERSE, class Vector>
    static TQ_INLINE void ShortRows(const FftPlan<T>& plan, T* dst, std::int64_t row, V scale, Vector vector) {
        V in[W], re[W], im[W];
        Complex x[W];
        Times<W>(TQ_EACH(k) { in[k] = vector(Index<FftLaneColumn<T>(k, W)>{}, Index<0>{}); });
        Transpose<T, W>(in, re);
        Times<W>(TQ_EACH(k) { in[k] = vector(Index<FftLaneColumn<T>(k, W)>{}, Index<1>{}); });
        Transpose<T, W>(in, im);
        Times<W>(TQ_EACH(k) { x[FftLaneColumn<T>(k, W)] = {re[k], im[k]}; });
        Transform(x);
        Times<W>(TQ_EACH(k) { StorePairs<INVERSE>(dst + (k * plan.rows + row) * 2, x[k], scale); });
    }

    // Columns short enough for one pass, and their rows, without leaving the registers.
    template <int RADIX, bool INVERSE>
    static TQ_INLINE void SinglePass(const FftPlan<T>& plan, const T* src, T* dst, T scale) {
        const V factor = R::Splat(scale);
        Complex x[RADIX];
        Times<RADIX>(TQ_EACH(k) { x[k] = LoadPairs<INVERSE>(src + k * VECTOR); });
        Transform(x);
        if constexpr (W == 1) {
            Times<RADIX>(TQ_EACH(k) { StorePairs<INVERSE>(dst + k * VECTOR, x[k], factor); });
        } else {
            Times<RADIX - 1>(TQ_EACH(k) { x[k + 1] = x[k + 1] * LoadVector(plan.laneTurns + (k + 1) * VECTOR); });
            Times<RADIX / W>(TQ_EACH(group) {
                constexpr int row = group * W;
                ShortRows<INVERSE>(
                    plan, dst, row, factor, [&](auto k, auto part) __attribute__((always_inline)) {
                        return part == 0 ? x[row + k].re : x[row + k].im;
                    });
            });
        }
    }

    template <bool INVERSE>
    static void Single(const FftPlan<T>& plan, const T* src, T* dst, T scale) {
        if (plan.rows == 2) return SinglePass<2, INVERSE>(plan, src, dst, scale);
        if (plan.rows == 4) return SinglePass<4, INVERSE>(plan, src, dst, scale);
        if (plan.rows == 8) return SinglePass<8, INVERSE>(plan, src, dst, scale);
        if constexpr (MAX_RADIX == 16) SinglePass<16, INVERSE>(plan, src, dst, scale);
    }

    template <bool INVERSE>
    static void InTile(const FftPlan<T>& plan, const T* src, T* dst, T* tile, T scale) {
        ForRadix(
            plan.down.radix[0], TQ_EACH(r) { FirstPass<r, INVERSE>(plan, src, 1, tile); });
        AfterFirst(plan.down, tile, 1, 0, [&](std::int64_t begin, std::int64_t end) {
            ForRadix(
                plan.down.radix[plan.down.count - 1], TQ_EACH(r) { LastPassInTile<r>(plan, tile, begin, end); });
        });
        for (std::int64_t row = 0; row < plan.rows; row += W) {
            const std::int32_t* const places = plan.placeOfRow + row;
            ShortRows<INVERSE>(
                plan, dst, row, R::Splat(scale), [&](auto k, auto part) __attribute__((always_inline)) {
                    return R::Load(tile + places[k] * VECTOR + part * W);
                });
        }
    }

    // W rows of the work matrix become vectors of one column each.
    static void TransposeRows(const FftPlan<T>& plan, const T* work, T* tile) {
        for (std::int64_t column = 0; column < plan.columns; column += W) {
            for (int part = 0; part < 2; ++part) {
                V in[W], out[W];
                const T* const from = work + column * 2 + part * W;
                Times<W>(TQ_EACH(k) { in[k] = R::Load(from + FftLaneColumn<T>(k, W) * plan.rowStride); });
                Transpose<T, W>(in, out);
                T* const to = tile + column * VECTOR + part * W;
                Times<W>(TQ_EACH(k) { R::Store(to + FftLaneColumn<T>(k, W) * VECTOR, out[k]); });
            }
        }
    }

    template <bool INVERSE>
    static void ThroughWork(const FftPlan<T>& plan, const T* src, T* dst, T* work, T scale) {
        T* const tile = work + plan.rows * plan.rowStride;
        const int groups = plan.groups;
        for (std::int64_t column = 0; column < plan.columns; column += groups * W) {
            const FftPasses<T>& down = plan.down;
            ForRadix(
                down.radix[0], TQ_EACH(r) { FirstPass<r, INVERSE>(plan, src + column * 2, groups, tile); });
            AfterFirst(down, tile, groups, plan.tileStride, [&](std::int64_t begin, std::int64_t end) {
                ForRadix(
                    down.radix[down.count - 1], TQ_EACH(r) {
                        plan.streamWork ? LastPassToWork<r, true>(plan, tile, work, column, groups, begin, end)
                                        : LastPassToWork<r, false>(plan, tile, work, column, groups, begin, end);
                    });
            });
        }
        const bool stream = plan.streamDst && reinterpret_cast<std::uintptr_t>(dst) % (W * sizeof(T)) == 0;
        for (std::int64_t row = 0; row < plan.rows; row += groups * W) {
            const FftPasses<T>& across = plan.across;
            for (int group = 0; group < groups; ++group) {
                T* const at = tile + group * plan.tileStride;
                TransposeRows(plan, work + (row + group * W) * plan.rowStride, at);
                ForRadix(
                    across.radix[0], TQ_EACH(r) { MiddlePass<r>(at, across.length, 1, across.twiddles); });
            }
            AfterFirst(across, tile, groups, plan.tileStride, [&](std::int64_t begin, std::int64_t end) {
                ForRadix(
                    across.radix[across.count - 1], TQ_EACH(r) {
                        T* const to = dst + row * 2;
                        stream ? LastPassToDst<r, INVERSE, true>(plan, tile, to, groups, scale, begin, end)
                               : LastPassToDst<r, INVERSE, false>(plan, tile, to, groups, scale, begin, end);
                    });
            });
        }
        if (stream || plan.streamWork) _mm_sfence();  // what was streamed is in order for whoever reads next
    }

    template <bool INVERSE>
    static void Run(const FftPlan<T>& plan, const T* src, T* dst, T* work, T scale) {
        if (plan.down.count <= 1) {
            Single<INVERSE>(plan, src, dst, scale);
        } else if constexpr (W == TQ_BY_SET(64, 32, 16) / sizeof(T)) {
            plan.columns == W ? InTile<INVERSE>(plan, src, dst, work, scale)
                              : ThroughWork<INVERSE>(plan, src, dst, work, scale);
        }
    }
};

template <class T>
void Transform(const FftPlan<T>& plan, const T* src, T* dst, T* work, bool inverse, T scale) {
    const auto run = [&](auto w) {
        inverse ? Kernel<T, w>::template Run<true>(plan, src, dst, work, scale)
                : Kernel<T, w>::template Run<false>(plan, src, dst, work, scale);
    };
    constexpr int NARROWEST = 16 / sizeof(T);
    if (plan.lanes == 1) return run(Index<1>{});
    if (plan.lanes == NARROWEST) return run(Index<NARROWEST>{});
#if !defined(TQ_SSE41)
    if (plan.lanes == 2 * NARROWEST) return run(Index<2 * NARROWEST>{});
#endif
#if defined(TQ_AVX512)
    run(Index<4 * NARROWEST>{});
#endif
}

}  // namespace

extern const ipps_detail::FftKernels ipps_detail::TQ_KERNELS(FFT) = {LANES, LANES64, TQ_BY_SET(4, 3, 3),
                                                                     Transform<float>, Transform<double>};
