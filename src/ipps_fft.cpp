#include <cmath>
#include <new>
#include <type_traits>

#include "fft_kernels.h"
#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::AnyNull;
using ipps_detail::Carver;
using ipps_detail::FftKernels;
using ipps_detail::FftPasses;
using ipps_detail::FftPlan;

// Here descriptions are laid out, filled and checked; fft_kernels.h tells how the transform goes.

namespace {

template <class C>
using ScalarOf = decltype(C::re);

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

constexpr std::int64_t Length(int order) { return std::int64_t{1} << order; }

// Writes exp(-2 pi j k / 2^order) as two numbers, each rounded once.
template <class T>
T* PutRoot(T* at, std::int64_t k, int order) {
    const Ipp64fc root = UnitRoot(k, order);
    *at++ = static_cast<T>(root.re);
    *at++ = static_cast<T>(root.im);
    return at;
}

// Divides a length of 2^order into passes: as few as the largest radix allows, and as even.
template <class T>
void LayoutPasses(FftPasses<T>& passes, Carver& carver, int order, int maxRadixOrder) {
    passes.length = Length(order);
    passes.count = (order + maxRadixOrder - 1) / maxRadixOrder;
    std::int64_t twiddles = 0;
    std::int64_t n = passes.length;
    for (int pass = 0; pass < passes.count; ++pass) {
        const int larger = order % passes.count;  // passes of one more bit come last
        const int bits = order / passes.count + (pass >= passes.count - larger ? 1 : 0);
        passes.radix[pass] = 1 << bits;
        n /= passes.radix[pass];
        twiddles += 2 * n * (passes.radix[pass] - 1);
    }
    if (passes.count <= 1) return;
    passes.twiddles = carver.Take<T>(twiddles);
    passes.order = carver.Take<std::int32_t>(passes.length / passes.radix[passes.count - 1]);
}

// Value that lies at a place: the digits of the place, highest first, are those of the value, lowest first.
template <class T>
std::int64_t ValueAt(const FftPasses<T>& passes, std::int64_t place) {
    std::int64_t value = 0;
    std::int64_t weight = 1;
    std::int64_t n = passes.length;
    for (int pass = 0; pass < passes.count; ++pass) {
        n /= passes.radix[pass];
        value += place / n * weight;
        place %= n;
        weight *= passes.radix[pass];
    }
    return value;
}

template <class T>
void FillPasses(const FftPasses<T>& passes, int order) {
    if (passes.count <= 1) return;
    T* twiddle = passes.twiddles;
    for (int pass = 0; pass < passes.count - 1; ++pass) {
        const std::int64_t part = Length(order) / passes.radix[pass];
        for (std::int64_t p = 0; p < part; ++p) {
            for (int q = 1; q < passes.radix[pass]; ++q) twiddle = PutRoot(twiddle, p * q, order);
        }
        while (Length(order) > part) --order;
    }
    const int last = passes.radix[passes.count - 1];
    for (std::int64_t b = 0; b < passes.length / last; ++b) {
        passes.order[b] = static_cast<std::int32_t>(ValueAt(passes, b * last));
    }
}

// Description of the complex transform of length 2^order, for the instruction set in use when it is laid out.
template <class C>
struct ComplexPlan {
    using T = ScalarOf<C>;

    // As many columns as lanes make one tile of the whole length: best while the second cache holds it (measured).
    static constexpr std::int64_t MAX_TILE_BYTES = 512 << 10;
    // Rows of the work matrix are set apart by this much more than a power of two [bytes], or all would fall into the
    // same few sets of the caches.
    static constexpr std::int64_t ROW_GAP_BYTES = 128;
    // From these sizes on [bytes] data outgrow the second and the third cache: the destination, then also the work
    // matrix are written around them, and several columns are taken at a time, to visit fewer pages of memory.
    static constexpr std::int64_t LARGE_BYTES = 1 << 20;
    static constexpr std::int64_t HUGE_BYTES = 16 << 20;

    const FftKernels* kernels = nullptr;
    FftPlan<T> plan;
    T fwdScale = 1;
    T invScale = 1;

    int ColumnsOrder() const {
        int order = 0;
        while (Length(order) < plan.columns) ++order;
        return order;
    }

    // Divides the description's memory; only measures where the carver has none.
    void Layout(Carver& carver, int order) {
        kernels = &ipps_detail::FFT_KERNELS.Now();
        plan.order = order;
        constexpr int NARROWEST = 16 / sizeof(T);
        plan.lanes = std::is_same_v<T, float> ? kernels->lanes32 : kernels->lanes64;
        while (plan.lanes * std::int64_t{plan.lanes} > Length(order)) plan.lanes /= 2;
        if (plan.lanes < NARROWEST) plan.lanes = 1;
        const std::int64_t bytes = Length(order) * static_cast<std::int64_t>(sizeof(C));
        const bool throughWork = bytes > MAX_TILE_BYTES;
        plan.columns = throughWork ? Length(order / 2) : plan.lanes;
        plan.rows = Length(order) / plan.columns;
        if (throughWork) {
            plan.rowStride = 2 * plan.columns + ROW_GAP_BYTES / static_cast<std::int64_t>(sizeof(T));
            plan.tileStride = 2 * plan.lanes * std::max(plan.rows, plan.columns);
            plan.groups = bytes < LARGE_BYTES ? 1 : bytes < HUGE_BYTES ? 2 : 4;
            plan.streamDst = bytes >= LARGE_BYTES;
            plan.streamWork = bytes >= HUGE_BYTES;
        }
        LayoutPasses(plan.down, carver, order - ColumnsOrder(), kernels->maxRadixOrder);
        plan.laneTurns = carver.Take<T>(2 * plan.lanes * plan.rows);
        if (throughWork) {
            LayoutPasses(plan.across, carver, ColumnsOrder(), kernels->maxRadixOrder);
            plan.groupTurns = carver.Take<T>(2 * (plan.columns / plan.lanes) * plan.rows);
        } else {
            plan.placeOfRow = carver.Take<std::int32_t>(plan.rows);
        }
    }

    void Fill(int flag) {
        const int order = plan.order;
        FillPasses(plan.down, order - ColumnsOrder());
        FillPasses(plan.across, ColumnsOrder());
        for (std::int64_t place = 0; place < plan.rows; ++place) {
            const std::int64_t row = ValueAt(plan.down, place);
            T* const turns = plan.laneTurns + 2 * plan.lanes * place;
            for (int lane = 0; lane < plan.lanes; ++lane) {
                const Ipp64fc root = UnitRoot(row * ipps_detail::FftLaneColumn<T>(lane, plan.lanes), order);
                turns[lane] = static_cast<T>(root.re);
                turns[plan.lanes + lane] = static_cast<T>(root.im);
            }
            for (std::int64_t group = 0; plan.groupTurns != nullptr && group < plan.columns / plan.lanes; ++group) {
                PutRoot(plan.groupTurns + 2 * (group * plan.rows + place), row * group * plan.lanes, order);
            }
            if (plan.placeOfRow != nullptr) plan.placeOfRow[row] = static_cast<std::int32_t>(place);
        }
        const double length = std::ldexp(1.0, order);
        if (flag == IPP_FFT_DIV_FWD_BY_N) fwdScale = static_cast<T>(1.0 / length);
        if (flag == IPP_FFT_DIV_INV_BY_N) invScale = static_cast<T>(1.0 / length);
        if (flag == IPP_FFT_DIV_BY_SQRTN) fwdScale = invScale = static_cast<T>(1.0 / std::sqrt(length));
    }

    // The work buffer of one transform: matrix and tile.
    T* WorkLayout(Carver& carver) const {
        return carver.Take<T>(plan.columns > plan.lanes ? plan.rows * plan.rowStride + plan.groups * plan.tileStride
                                                        : 2 * plan.lanes * plan.rows);
    }

    void Transform(const C* src, C* dst, Ipp8u* buffer, bool inverse, T scale) const {
        if (plan.order == 0) {
            *dst = {src->re * scale, src->im * scale};
            return;
        }
        Carver carver(buffer);
        T* const work = WorkLayout(carver);
        // A complex value is its two numbers.
        const T* const from = reinterpret_cast<const T*>(src);
        T* const to = reinterpret_cast<T*>(dst);
        if constexpr (std::is_same_v<T, float>) {
            kernels->transform32(plan, from, to, work, inverse, scale);
        } else {
            kernels->transform64(plan, from, to, work, inverse, scale);
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
        half.Transform(reinterpret_cast<const Ipp64fc*>(src), work.pairs, work.rest, false, fwdScale);
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
        half.Transform(z, reinterpret_cast<Ipp64fc*>(dst), work.rest, true, invScale);
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
    pSpec->Transform(pSrc, pDst, pBuffer, false, pSpec->fwdScale);
    return ippStsNoErr;
}

IppStatus ippsFFTFwd_CToC_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, const IppsFFTSpec_C_64fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, false, pSpec->fwdScale);
    return ippStsNoErr;
}

IppStatus ippsFFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, true, pSpec->invScale);
    return ippStsNoErr;
}

IppStatus ippsFFTInv_CToC_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, const IppsFFTSpec_C_64fc* pSpec, Ipp8u* pBuffer) {
    if (AnyNull(pSrc, pDst, pSpec, pBuffer)) return ippStsNullPtrErr;
    pSpec->Transform(pSrc, pDst, pBuffer, true, pSpec->invScale);
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
