#include <cmath>
#include <new>
#include <type_traits>

#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::AnyNull;
using ipps_detail::Carver;

// Method. Passes of radix 4 that sort as they go (Stockham), between destination and work buffer, with roots computed
// in double precision. A transform too long for the caches becomes a matrix of rows x columns: short transforms of all
// columns, a turn of each element, short transforms of all rows. The short ones then run side by side for as many
// neighbouring columns as fill whole cache lines, so that main memory is crossed only twice.

namespace {

template <class C>
using ScalarOf = decltype(C::re);

// LANES complex values, re and im alternating, as one register. One float pair makes half a register.
template <class C, int LANES>
struct Packed {
    using T = ScalarOf<C>;
    using Vec __attribute__((vector_size(LANES * sizeof(C)))) = T;

    static Vec Load(const C* from) {
        Vec v;
        std::memcpy(&v, from, sizeof(v));
        return v;
    }
    static void Store(C* to, Vec v) { std::memcpy(to, &v, sizeof(v)); }
    static Vec Pairs(T even, T odd) {
        Vec v;
        for (int k = 0; k < LANES; ++k) {
            v[2 * k] = even;
            v[2 * k + 1] = odd;
        }
        return v;
    }
    static Vec Swapped(Vec v) {
        if constexpr (LANES == 1) {
            return __builtin_shufflevector(v, v, 1, 0);
        } else {
            return __builtin_shufflevector(v, v, 1, 0, 3, 2);
        }
    }
};

// Complex values that fill a register of 128 bits.
template <class C>
constexpr int FULL_LANES = 16 / sizeof(C);

// exp(-2 pi j k / 2^order). From an angle within an eighth of a turn, so that the axes and diagonals come out exact
// and no precision is lost to large arguments.
Ipp64fc UnitRoot(std::int64_t k, int order) {
    const std::int64_t turn = std::int64_t{8} << order;  // in units that divide an eighth of a turn evenly
    const std::int64_t eighth = turn / 8;
    std::int64_t angle = (8 * k) % turn;
    const std::int64_t quarters = (angle + eighth) / (2 * eighth);  // nearest axis
    angle -= quarters * 2 * eighth;
    const Ipp64f radians = 2.0 * std::numbers::pi * static_cast<Ipp64f>(angle) / static_cast<Ipp64f>(turn);
    const Ipp64f c = std::cos(radians);
    const Ipp64f s = std::sin(radians);
    switch (quarters % 4) {
        case 0:
            return {c, -s};
        case 1:
            return {-s, -c};
        case 2:
            return {-c, s};
        default:
            return {s, c};
    }
}

// All roots of length 2^order from two short tables in double precision, whose product is the root. Their sizes are
// near the square root of the length and stay in the caches.
struct RootTables {
    int lowBits = 0;
    Ipp64fc* high = nullptr;
    Ipp64fc* low = nullptr;

    void Layout(Carver& carver, int order) {
        lowBits = order / 2;
        high = carver.Take<Ipp64fc>(std::int64_t{1} << (order - lowBits));
        low = carver.Take<Ipp64fc>(std::int64_t{1} << lowBits);
    }

    void Fill(int order) {
        for (std::int64_t k = 0; k < std::int64_t{1} << (order - lowBits); ++k) high[k] = UnitRoot(k, order - lowBits);
        for (std::int64_t k = 0; k < std::int64_t{1} << lowBits; ++k) low[k] = UnitRoot(k, order);
    }

    Ipp64fc At(std::int64_t k) const {
        const Ipp64fc a = high[k >> lowBits];
        const Ipp64fc b = low[k & ((std::int64_t{1} << lowBits) - 1)];
        return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
    }
};

// Description of the complex transform of length 2^order.
template <class C>
struct ComplexPlan {
    using T = ScalarOf<C>;

    // Above this the data and its work buffer outgrow the second cache, and the transform goes by columns and rows.
    static constexpr int MAX_DIRECT_ORDER = 15;
    // Columns or rows transformed side by side: two cache lines of each.
    static constexpr int BATCH = 128 / sizeof(C);

    int order = 0;
    T fwdScale = 1;
    T invScale = 1;
    int rootsOrder = 0;
    C* roots = nullptr;  // exp(-2 pi j k / 2^rootsOrder), all k below a turn
    RootTables turns;    // of length 2^order, for the turn between columns and rows

    bool ByRowsAndColumns() const { return order > MAX_DIRECT_ORDER; }
    int ColumnLengthOrder() const { return order / 2; }
    int RowLengthOrder() const { return order - order / 2; }

    // Divides the description's memory; only measures where the carver has none.
    void Layout(Carver& carver, int newOrder) {
        order = newOrder;
        rootsOrder = ByRowsAndColumns() ? RowLengthOrder() : order;
        roots = carver.Take<C>(std::int64_t{1} << rootsOrder);
        if (ByRowsAndColumns()) turns.Layout(carver, order);
    }

    void Fill(int flag) {
        for (std::int64_t k = 0; k < std::int64_t{1} << rootsOrder; ++k) {
            const Ipp64fc root = UnitRoot(k, rootsOrder);
            roots[k] = {static_cast<T>(root.re), static_cast<T>(root.im)};
        }
        if (ByRowsAndColumns()) turns.Fill(order);
        const double length = std::ldexp(1.0, order);
        if (flag == IPP_FFT_DIV_FWD_BY_N) fwdScale = static_cast<T>(1.0 / length);
        if (flag == IPP_FFT_DIV_INV_BY_N) invScale = static_cast<T>(1.0 / length);
        if (flag == IPP_FFT_DIV_BY_SQRTN) fwdScale = invScale = static_cast<T>(1.0 / std::sqrt(length));
    }

    // Arrays of the work buffer of one transform.
    struct Work {
        C* matrix = nullptr;
        C* tile = nullptr;  // null for a direct transform
        C* tileWork = nullptr;
    };
    Work WorkLayout(Carver& carver) const {
        Work work;
        work.matrix = carver.Take<C>(std::int64_t{1} << order);
        if (ByRowsAndColumns()) {
            work.tile = carver.Take<C>(std::int64_t{BATCH} << RowLengthOrder());
            work.tileWork = carver.Take<C>(std::int64_t{BATCH} << RowLengthOrder());
        }
        return work;
    }

    // One pass of radix 4 over length-n transforms, `stride` of them side by side. sign 1 forward, -1 inverse.
    template <int LANES>
    void PassOf4(const C* in, C* out, std::int64_t n, std::int64_t stride, T sign) const {
        using P = Packed<C, LANES>;
        const auto quarterTurn = P::Pairs(sign, -sign);
        const std::int64_t quarter = n / 4;
        const std::int64_t rootStep = (std::int64_t{1} << rootsOrder) / n;
        const std::int64_t q1 = quarter * stride;
        for (std::int64_t p = 0; p < quarter; ++p) {
            const C w1 = roots[p * rootStep];
            const C w2 = roots[2 * p * rootStep];
            const C w3 = roots[3 * p * rootStep];
            const auto re1 = P::Pairs(w1.re, w1.re);
            const auto re2 = P::Pairs(w2.re, w2.re);
            const auto re3 = P::Pairs(w3.re, w3.re);
            const auto im1 = P::Pairs(-sign * w1.im, sign * w1.im);
            const auto im2 = P::Pairs(-sign * w2.im, sign * w2.im);
            const auto im3 = P::Pairs(-sign * w3.im, sign * w3.im);
            const C* const x = in + p * stride;
            C* const y = out + 4 * p * stride;
            for (std::int64_t s = 0; s < stride; s += LANES) {
                const auto a = P::Load(x + s);
                const auto b = P::Load(x + s + q1);
                const auto c = P::Load(x + s + 2 * q1);
                const auto d = P::Load(x + s + 3 * q1);
                const auto sumAC = a + c;
                const auto difAC = a - c;
                const auto sumBD = b + d;
                const auto difBD = P::Swapped(b - d) * quarterTurn;
                const auto y1 = difAC + difBD;
                const auto y2 = sumAC - sumBD;
                const auto y3 = difAC - difBD;
                P::Store(y + s, sumAC + sumBD);
                P::Store(y + s + stride, y1 * re1 + P::Swapped(y1) * im1);
                P::Store(y + s + 2 * stride, y2 * re2 + P::Swapped(y2) * im2);
                P::Store(y + s + 3 * stride, y3 * re3 + P::Swapped(y3) * im3);
            }
        }
    }

    // The last pass, of radix 1, 2, 4 or 8, has no roots to apply; it scales instead. `in` may be `out`.
    template <int LANES>
    static void LastPass(const C* in, C* out, int radixOrder, std::int64_t stride, T sign, T scaleBy) {
        using P = Packed<C, LANES>;
        const auto scale = P::Pairs(scaleBy, scaleBy);
        const auto quarterTurn = P::Pairs(sign, -sign);
        const auto diagonal =
            P::Pairs(static_cast<T>(std::numbers::sqrt2 / 2), static_cast<T>(std::numbers::sqrt2 / 2));
        for (std::int64_t s = 0; s < stride; s += LANES) {
            const auto load = [&](std::int64_t k) { return P::Load(in + s + k * stride); };
            const auto store = [&](std::int64_t k, auto v) { P::Store(out + s + k * stride, v * scale); };
            if (radixOrder == 0) {
                store(0, load(0));
            } else if (radixOrder == 1) {
                const auto a = load(0);
                const auto b = load(1);
                store(0, a + b);
                store(1, a - b);
            } else if (radixOrder == 2) {
                const auto a = load(0), b = load(1), c = load(2), d = load(3);
                const auto difBD = P::Swapped(b - d) * quarterTurn;
                store(0, (a + c) + (b + d));
                store(1, (a - c) + difBD);
                store(2, (a + c) - (b + d));
                store(3, (a - c) - difBD);
            } else {
                // Even and odd results of the length 8 are two transforms of length 4.
                const auto a = load(0), b = load(1), c = load(2), d = load(3);
                const auto e = load(4), f = load(5), g = load(6), h = load(7);
                const auto sumAE = a + e, sumBF = b + f, sumCG = c + g, sumDH = d + h;
                const auto difBFDH = P::Swapped(sumBF - sumDH) * quarterTurn;
                const auto difAE = a - e;
                const auto difBF = b - f;
                const auto difCG = P::Swapped(c - g) * quarterTurn;
                const auto difDH = d - h;
                const auto turnedBF = (difBF + P::Swapped(difBF) * quarterTurn) * diagonal;
                const auto turnedDH = (P::Swapped(difDH) * quarterTurn - difDH) * diagonal;
                const auto difTurned = P::Swapped(turnedBF - turnedDH) * quarterTurn;
                store(0, (sumAE + sumCG) + (sumBF + sumDH));
                store(4, (sumAE + sumCG) - (sumBF + sumDH));
                store(2, (sumAE - sumCG) + difBFDH);
                store(6, (sumAE - sumCG) - difBFDH);
                store(1, (difAE + difCG) + (turnedBF + turnedDH));
                store(5, (difAE + difCG) - (turnedBF + turnedDH));
                store(3, (difAE - difCG) + difTurned);
                store(7, (difAE - difCG) - difTurned);
            }
        }
    }

    // `batch` interleaved transforms of length 2^lengthOrder. src may be dst; work is of the same size and separate.
    void Direct(const C* src, C* dst, C* work, int lengthOrder, std::int64_t batch, T sign, T scale) const {
        const int lastOrder = lengthOrder < 3 ? lengthOrder : (lengthOrder % 2 == 0 ? 2 : 3);
        std::int64_t n = std::int64_t{1} << lengthOrder;
        std::int64_t stride = batch;
        const C* in = src;
        for (int done = 0; done < lengthOrder - lastOrder; done += 2) {
            C* const out = in == work ? dst : work;
            if (stride == 1) {
                PassOf4<1>(in, out, n, stride, sign);
            } else {
                PassOf4<FULL_LANES<C>>(in, out, n, stride, sign);
            }
            in = out;
            n /= 4;
            stride *= 4;
        }
        if (stride == 1) {
            LastPass<1>(in, dst, lastOrder, stride, sign, scale);
        } else {
            LastPass<FULL_LANES<C>>(in, dst, lastOrder, stride, sign, scale);
        }
    }

    void RowsAndColumns(const C* src, C* dst, const Work& work, T sign, T scale) const {
        const std::int64_t rows = std::int64_t{1} << ColumnLengthOrder();
        const std::int64_t columns = std::int64_t{1} << RowLengthOrder();
        constexpr std::size_t LINE_BYTES = BATCH * sizeof(C);
        for (std::int64_t column = 0; column < columns; column += BATCH) {
            for (std::int64_t row = 0; row < rows; ++row) {
                std::memcpy(work.tile + row * BATCH, src + row * columns + column, LINE_BYTES);
            }
            Direct(work.tile, work.tile, work.tileWork, ColumnLengthOrder(), BATCH, sign, T{1});
            for (std::int64_t row = 0; row < rows; ++row) {
                const C* const from = work.tile + row * BATCH;
                C* const to = work.matrix + row * columns + column;
                for (int k = 0; k < BATCH; ++k) {
                    const Ipp64fc turn = turns.At(row * (column + k));
                    const C w = {static_cast<T>(turn.re), sign * static_cast<T>(turn.im)};
                    to[k] = {from[k].re * w.re - from[k].im * w.im, from[k].re * w.im + from[k].im * w.re};
                }
            }
        }
        constexpr std::int64_t LINE = 64 / sizeof(C);
        for (std::int64_t row = 0; row < rows; row += BATCH) {
            // By whole lines of each row: all rows of the batch fall into the same few sets of the cache.
            for (std::int64_t column = 0; column < columns; column += LINE) {
                for (std::int64_t k = 0; k < BATCH; ++k) {
                    const C* const from = work.matrix + (row + k) * columns + column;
                    for (std::int64_t i = 0; i < LINE; ++i) work.tile[(column + i) * BATCH + k] = from[i];
                }
            }
            Direct(work.tile, work.tile, work.tileWork, RowLengthOrder(), BATCH, sign, scale);
            for (std::int64_t column = 0; column < columns; ++column) {
                std::memcpy(dst + column * rows + row, work.tile + column * BATCH, LINE_BYTES);
            }
        }
    }

    void Transform(const C* src, C* dst, Ipp8u* buffer, T sign, T scale) const {
        Carver carver(buffer);
        const Work work = WorkLayout(carver);
        if (ByRowsAndColumns()) {
            RowsAndColumns(src, dst, work, sign, scale);
        } else {
            Direct(src, dst, work.matrix, order, 1, sign, scale);
        }
    }
};

// Description of the real transform of length 2^order: a complex one of half the length over pairs of samples, whose
// result is then taken apart.
struct RealPlan {
    int order = 0;
    ComplexPlan<Ipp64fc> half;
    RootTables roots;
    Ipp64f fwdScale = 1.0;
    Ipp64f invScale = 1.0;

    int HalfOrder() const { return std::max(order - 1, 0); }

    void Layout(Carver& carver, int newOrder) {
        order = newOrder;
        half.Layout(carver, HalfOrder());
        roots.Layout(carver, order);
    }

    void Fill(int flag) {
        half.Fill(IPP_FFT_NODIV_BY_ANY);
        roots.Fill(order);
        const double length = std::ldexp(1.0, order);
        if (flag == IPP_FFT_DIV_FWD_BY_N) fwdScale = 1.0 / length;
        if (flag == IPP_FFT_DIV_INV_BY_N) invScale = 1.0 / length;
        if (flag == IPP_FFT_DIV_BY_SQRTN) fwdScale = invScale = 1.0 / std::sqrt(length);
    }

    struct Work {
        Ipp64fc* pairs = nullptr;
        Ipp8u* rest = nullptr;
    };
    Work WorkLayout(Carver& carver) const {
        Carver inner(nullptr);
        half.WorkLayout(inner);
        Work work;
        work.pairs = carver.Take<Ipp64fc>(std::int64_t{1} << HalfOrder());
        work.rest = carver.Take<Ipp8u>(inner.Bytes());
        return work;
    }

    // With Z the transform of the pairs, E and O those of the even and odd samples, and M half the length:
    // E[k] = (Z[k] + conj Z[M-k]) / 2, O[k] = (Z[k] - conj Z[M-k]) / 2j, X[k] = E[k] + W^k O[k], X[M-k] = conj of
    // E[k] - W^k O[k].
    void Forward(const Ipp64f* src, Ipp64f* dst, Ipp8u* buffer) const {
        if (order == 0) {
            dst[0] = src[0] * fwdScale;
            return;
        }
        Carver carver(buffer);
        const Work work = WorkLayout(carver);
        const std::int64_t count = std::int64_t{1} << HalfOrder();
        std::memcpy(work.pairs, src, static_cast<std::size_t>(count) * sizeof(Ipp64fc));
        half.Transform(work.pairs, work.pairs, work.rest, 1.0, fwdScale);
        const Ipp64fc* const z = work.pairs;
        dst[0] = z[0].re + z[0].im;
        dst[1] = z[0].re - z[0].im;
        for (std::int64_t k = 1; k <= count / 2; ++k) {
            const Ipp64fc a = z[k];
            const Ipp64fc b = z[count - k];
            const Ipp64fc even = {0.5 * (a.re + b.re), 0.5 * (a.im - b.im)};
            const Ipp64fc odd = {0.5 * (a.im + b.im), 0.5 * (b.re - a.re)};
            const Ipp64fc w = roots.At(k);
            const Ipp64fc turned = {odd.re * w.re - odd.im * w.im, odd.re * w.im + odd.im * w.re};
            dst[2 * (count - k)] = even.re - turned.re;
            dst[2 * (count - k) + 1] = turned.im - even.im;
            dst[2 * k] = even.re + turned.re;
            dst[2 * k + 1] = even.im + turned.im;
        }
    }

    // The steps of Forward backward; the halves of E and O make up for the transform of half the length.
    void Inverse(const Ipp64f* src, Ipp64f* dst, Ipp8u* buffer) const {
        if (order == 0) {
            dst[0] = src[0] * invScale;
            return;
        }
        Carver carver(buffer);
        const Work work = WorkLayout(carver);
        const std::int64_t count = std::int64_t{1} << HalfOrder();
        Ipp64fc* const z = work.pairs;
        z[0] = {src[0] + src[1], src[0] - src[1]};
        for (std::int64_t k = 1; k <= count / 2; ++k) {
            const Ipp64fc a = {src[2 * k], src[2 * k + 1]};
            const Ipp64fc b = {src[2 * (count - k)], src[2 * (count - k) + 1]};
            const Ipp64fc even = {a.re + b.re, a.im - b.im};
            const Ipp64fc turned = {a.re - b.re, a.im + b.im};
            const Ipp64fc w = roots.At(k);
            const Ipp64fc odd = {turned.re * w.re + turned.im * w.im, turned.im * w.re - turned.re * w.im};
            z[count - k] = {even.re + odd.im, odd.re - even.im};
            z[k] = {even.re - odd.im, even.im + odd.re};
        }
        half.Transform(z, z, work.rest, -1.0, invScale);
        std::memcpy(dst, z, static_cast<std::size_t>(count) * sizeof(Ipp64fc));
    }
};

IppStatus CheckPlan(int order, int flag) {
    if (order < 0 || order > IPP_MAX_FFT_ORDER) return ippStsFftOrderErr;
    const bool known = flag == IPP_FFT_DIV_FWD_BY_N || flag == IPP_FFT_DIV_INV_BY_N || flag == IPP_FFT_DIV_BY_SQRTN ||
                       flag == IPP_FFT_NODIV_BY_ANY;
    return known ? ippStsNoErr : ippStsFftFlagErr;
}

template <class Plan>
IppStatus GetSize(int order, int flag, int* pSpecSize, int* pSpecBufferSize, int* pBufferSize) {
    if (AnyNull(pSpecSize, pSpecBufferSize, pBufferSize)) return ippStsNullPtrErr;
    if (const IppStatus status = CheckPlan(order, flag); status != ippStsNoErr) return status;
    Plan plan;
    Carver spec(nullptr);
    spec.Take<Plan>(1);
    plan.Layout(spec, order);
    Carver work(nullptr);
    plan.WorkLayout(work);
    int specSize = 0;
    int workSize = 0;
    if (spec.GetSize(&specSize) != ippStsNoErr || work.GetSize(&workSize) != ippStsNoErr) return ippStsSizeErr;
    *pSpecSize = specSize;
    *pSpecBufferSize = 0;
    *pBufferSize = workSize;
    return ippStsNoErr;
}

template <class Plan>
IppStatus Init(Plan** ppSpec, int order, int flag, Ipp8u* pSpec) {
    if (AnyNull(ppSpec, pSpec)) return ippStsNullPtrErr;
    if (const IppStatus status = CheckPlan(order, flag); status != ippStsNoErr) return status;
    static_assert(std::is_trivially_destructible_v<Plan>);  // the caller's memory is released with no further word
    Carver carver(pSpec);
    Plan* const plan = new (carver.Take<Plan>(1)) Plan;
    plan->Layout(carver, order);
    plan->Fill(flag);
    *ppSpec = plan;
    return ippStsNoErr;
}

}  // namespace

struct IppsFFTSpec_C_32fc : ComplexPlan<Ipp32fc> {};
struct IppsFFTSpec_C_64fc : ComplexPlan<Ipp64fc> {};
struct IppsFFTSpec_R_64f : RealPlan {};

IppStatus ippsFFTGetSize_C_32fc(int order, int flag, IppHintAlgorithm, int* pSpecSize, int* pSpecBufferSize,
                                int* pBufferSize) {
    return GetSize<IppsFFTSpec_C_32fc>(order, flag, pSpecSize, pSpecBufferSize, pBufferSize);
}

IppStatus ippsFFTGetSize_C_64fc(int order, int flag, IppHintAlgorithm, int* pSpecSize, int* pSpecBufferSize,
                                int* pBufferSize) {
    return GetSize<IppsFFTSpec_C_64fc>(order, flag, pSpecSize, pSpecBufferSize, pBufferSize);
}

IppStatus ippsFFTGetSize_R_64f(int order, int flag, IppHintAlgorithm, int* pSpecSize, int* pSpecBufferSize,
                               int* pBufferSize) {
    return GetSize<IppsFFTSpec_R_64f>(order, flag, pSpecSize, pSpecBufferSize, pBufferSize);
}

IppStatus ippsFFTInit_C_32fc(IppsFFTSpec_C_32fc** ppSpec, int order, int flag, IppHintAlgorithm, Ipp8u* pSpec, Ipp8u*) {
    return Init(ppSpec, order, flag, pSpec);
}

IppStatus ippsFFTInit_C_64fc(IppsFFTSpec_C_64fc** ppSpec, int order, int flag, IppHintAlgorithm, Ipp8u* pSpec, Ipp8u*) {
    return Init(ppSpec, order, flag, pSpec);
}

IppStatus ippsFFTInit_R_64f(IppsFFTSpec_R_64f** ppSpec, int order, int flag, IppHintAlgorithm, Ipp8u* pSpec, Ipp8u*) {
    return Init(ppSpec, order, flag, pSpec);
}

IppStatus ippsFFTFwd_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, 1.0F, pSpec->fwdScale);
    return ippStsNoErr;
}

IppStatus ippsFFTFwd_CToC_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, const IppsFFTSpec_C_64fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, 1.0, pSpec->fwdScale);
    return ippStsNoErr;
}

IppStatus ippsFFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, -1.0F, pSpec->invScale);
    return ippStsNoErr;
}

IppStatus ippsFFTInv_CToC_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, const IppsFFTSpec_C_64fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, -1.0, pSpec->invScale);
    return ippStsNoErr;
}

IppStatus ippsFFTFwd_RToPerm_64f(const Ipp64f* pSrc, Ipp64f* pDst, const IppsFFTSpec_R_64f* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Forward(pSrc, pDst, pBuffer);
    return ippStsNoErr;
}

IppStatus ippsFFTInv_PermToR_64f(const Ipp64f* pSrc, Ipp64f* pDst, const IppsFFTSpec_R_64f* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Inverse(pSrc, pDst, pBuffer);
    return ippStsNoErr;
}
