#include "fir_kernels.h"

#include "fft_registers.h"

using std::ptrdiff_t;

namespace {

// Terms are taken by their remainder r of k divided by the samples of a vector: for one r, all that a group of outputs
// needs is a row of vectors that lie apart by whole vectors, and each further tap needs just one more of them. They
// stay in registers, in a ring: vector i of the row, counted from the group's first output, in slot i mod VECTORS.
//   SCALARS  1 for real samples, 2 for complex ones
//   PART     the group is a single vector of which only `part` numbers exist
template <class T, int SCALARS, bool COMPLEX_TAPS, int VECTORS, bool PART = false>
TQ_INLINE void Group(const T* x, T* y, const T* re, const T* im, ptrdiff_t tapsLen, int part = 0) {
    constexpr int WIDTH = sizeof(F32) / sizeof(T);
    constexpr int SAMPLES = WIDTH / SCALARS;
    using V = decltype(Load(x));
    const auto load = [&](const T* from) __attribute__((always_inline)) {
        if constexpr (PART) {
            return LoadPart(from, part);
        } else {
            return Load(from);
        }
    };
    V sumRe[VECTORS] = {};
    V sumIm[VECTORS] = {};
    for (ptrdiff_t r = 0; r < SAMPLES && r < tapsLen; ++r) {
        V ring[VECTORS];
        Times<VECTORS - 1>(TQ_EACH(v) { ring[v + 1] = load(x - r * SCALARS + (v + 1) * WIDTH); });
        ptrdiff_t k = r;
        while (k < tapsLen) {
            Times<VECTORS>(TQ_EACH(u) {
                if (k >= tapsLen) return;
                ring[(VECTORS - u) % VECTORS] = load(x - k * SCALARS);
                const V tap = Splat(re[k]);
                Times<VECTORS>(TQ_EACH(v) { sumRe[v] = MulAdd(ring[(v + VECTORS - u) % VECTORS], tap, sumRe[v]); });
                if constexpr (COMPLEX_TAPS) {
                    const V imagTap = Splat(im[k]);
                    Times<VECTORS>(
                        TQ_EACH(v) { sumIm[v] = MulAdd(ring[(v + VECTORS - u) % VECTORS], imagTap, sumIm[v]); });
                }
                k += SAMPLES;
            });
        }
    }
    Times<VECTORS>(TQ_EACH(v) {
        if constexpr (COMPLEX_TAPS) sumRe[v] = SubAdd(sumRe[v], Swapped(sumIm[v]));
        if constexpr (PART) {
            StorePart(y, sumRe[v], part);
        } else {
            Store(y + v * WIDTH, sumRe[v]);
        }
    });
}

// Groups go from the last to the first: none overwrites what another one still reads.
template <class T, int SCALARS, bool COMPLEX_TAPS>
void Filter(const T* x, T* y, ptrdiff_t count, const T* re, const T* im, ptrdiff_t tapsLen) {
    constexpr int WIDTH = sizeof(F32) / sizeof(T);
    // As many as the registers hold sums and ring of.
    constexpr int VECTORS = COMPLEX_TAPS ? TQ_BY_SET(8, 4, 3) : TQ_BY_SET(12, 7, 6);
    constexpr int FEW = 3;
    constexpr ptrdiff_t GROUP = VECTORS * WIDTH;
    ptrdiff_t left = count * SCALARS;
    if (left >= GROUP) {
        // What whole groups leave over is the beginning of one more, whose other outputs are computed twice.
        T first[GROUP];
        const ptrdiff_t over = left % GROUP;
        if (over > 0) Group<T, SCALARS, COMPLEX_TAPS, VECTORS>(x, first, re, im, tapsLen);
        for (; left > over; left -= GROUP) {
            Group<T, SCALARS, COMPLEX_TAPS, VECTORS>(x + left - GROUP, y + left - GROUP, re, im, tapsLen);
        }
        __builtin_memcpy(y, first, static_cast<std::size_t>(over) * sizeof(T));
        return;
    }
    if (const int part = static_cast<int>(left % WIDTH); part > 0) {
        left -= part;
        Group<T, SCALARS, COMPLEX_TAPS, 1, true>(x + left, y + left, re, im, tapsLen, part);
    }
    for (; left % (FEW * WIDTH) != 0; left -= WIDTH) {
        Group<T, SCALARS, COMPLEX_TAPS, 1>(x + left - WIDTH, y + left - WIDTH, re, im, tapsLen);
    }
    for (; left > 0; left -= FEW * WIDTH) {
        Group<T, SCALARS, COMPLEX_TAPS, FEW>(x + left - FEW * WIDTH, y + left - FEW * WIDTH, re, im, tapsLen);
    }
}

template <class T, int SCALARS>
void FilterReal(const T* x, T* y, ptrdiff_t count, const T* taps, ptrdiff_t tapsLen) {
    Filter<T, SCALARS, false>(x, y, count, taps, nullptr, tapsLen);
}

void FilterComplex(const float* x, float* y, ptrdiff_t count, const float* re, const float* im, ptrdiff_t tapsLen) {
    Filter<float, 2, true>(x, y, count, re, im, tapsLen);
}

void Dot(const float* x, const float* taps, ptrdiff_t count, float sum[2]) {
    constexpr int VECTORS = 4;
    constexpr ptrdiff_t GROUP = VECTORS * LANES;
    // Sums of re(h) x and of im(h) times x with its parts exchanged.
    F32 straight[VECTORS] = {};
    F32 crossed[VECTORS] = {};
    const auto add = [&](int v, F32 in, F32 tap) __attribute__((always_inline)) {
        straight[v] = MulAdd(in, Reals(tap), straight[v]);
        crossed[v] = MulAdd(Swapped(in), Imags(tap), crossed[v]);
    };
    ptrdiff_t n = 0;
    for (; n + GROUP <= 2 * count; n += GROUP) {
        Times<VECTORS>(TQ_EACH(v) { add(v, Load(x + n + v * LANES), Load(taps + n + v * LANES)); });
    }
    for (; n < 2 * count; n += LANES) {
        const int part = 2 * count - n < LANES ? static_cast<int>(2 * count - n) : LANES;
        add(0, LoadPart(x + n, part), LoadPart(taps + n, part));
    }
    float lanes[LANES];
    Store(lanes, SubAdd((straight[0] + straight[1]) + (straight[2] + straight[3]),
                        (crossed[0] + crossed[1]) + (crossed[2] + crossed[3])));
    sum[0] = sum[1] = 0.0F;
    for (int lane = 0; lane < LANES; ++lane) sum[lane % 2] += lanes[lane];
}

// The parts to be folded lie a power of two apart, where the caches hold but a few lines: of each part a stretch is
// taken at a time.
void MultiplyFold(const float* spectrum, const float* response, float* dst, ptrdiff_t count, ptrdiff_t folds) {
    constexpr int VECTORS = 8;
    constexpr ptrdiff_t STRETCH = VECTORS * LANES;
    for (ptrdiff_t n = 0; n < 2 * count; n += STRETCH) {
        F32 sum[VECTORS];
        Times<VECTORS>(
            TQ_EACH(v) { sum[v] = ComplexMulFused(Load(spectrum + n + v * LANES), Load(response + n + v * LANES)); });
        for (ptrdiff_t at = n + 2 * count; at < 2 * count * folds; at += 2 * count) {
            Times<VECTORS>(TQ_EACH(v) {
                sum[v] += ComplexMulFused(Load(spectrum + at + v * LANES), Load(response + at + v * LANES));
            });
        }
        Times<VECTORS>(TQ_EACH(v) { Store(dst + n + v * LANES, sum[v]); });
    }
}

}  // namespace

extern const FirKernels TQ_KERNELS(FIR);
const FirKernels TQ_KERNELS(FIR) = {
    .real32f = FilterReal<float, 1>,
    .real64f = FilterReal<double, 1>,
    .real32fc = FilterReal<float, 2>,
    .complex32fc = FilterComplex,
    .dot32fc = Dot,
    .multiplyFold32fc = MultiplyFold,
};
