#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::Check;
using ipps_detail::Map;
using ipps_detail::ScaleInRange;

namespace {

// The exact integer x 2^-scaleFactor, halves to even, saturated at the limits of T. |value| below 2^32.
template <class T>
T Scaled(std::int64_t value, int scaleFactor) {
    constexpr int FULL_SHIFT = 31;  // up: saturates every value but 0 and still fits 64 bits
    constexpr int NO_BITS_LEFT = 34;
    if (scaleFactor < 0) {
        value *= std::int64_t{1} << std::min(-scaleFactor, FULL_SHIFT);
    } else if (scaleFactor >= NO_BITS_LEFT) {
        value = 0;
    } else if (scaleFactor > 0) {
        const std::int64_t floored = value >> scaleFactor;
        const std::int64_t twiceRest = 2 * (value - (floored << scaleFactor));
        const std::int64_t unit = std::int64_t{1} << scaleFactor;
        value = floored + ((twiceRest > unit || (twiceRest == unit && (floored & 1) != 0)) ? 1 : 0);
    }
    return static_cast<T>(
        std::clamp<std::int64_t>(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
}

template <class T>
T Product(T a, T b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

}  // namespace

IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, [](Ipp32f a, Ipp32f b) { return a + b; });
}

IppStatus ippsAdd_32u(const Ipp32u* pSrc1, const Ipp32u* pSrc2, Ipp32u* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, [](Ipp32u a, Ipp32u b) { return a + b; });
}

IppStatus ippsAddC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len) {
    return Map(pSrc, pDst, len, [val](Ipp32f x) { return x + val; });
}

IppStatus ippsAddC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len) { return ippsAddC_32f(pSrcDst, val, pSrcDst, len); }

IppStatus ippsSubC_16s_Sfs(const Ipp16s* pSrc, Ipp16s val, Ipp16s* pDst, int len, int scaleFactor) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    if (!ScaleInRange(scaleFactor)) return ippStsScaleRangeErr;
    // Unscaled, every sample of every stream comes through here: kept in 32 bits, which vectorises.
    if (scaleFactor == 0) {
        return Map(pSrc, pDst, len,
                   [val](Ipp16s x) { return static_cast<Ipp16s>(std::min(std::max(x - val, -32768), 32767)); });
    }
    return Map(pSrc, pDst, len, [=](Ipp16s x) { return Scaled<Ipp16s>(std::int64_t{x} - val, scaleFactor); });
}

IppStatus ippsSub_32s_Sfs(const Ipp32s* pSrc1, const Ipp32s* pSrc2, Ipp32s* pDst, int len, int scaleFactor) {
    if (const IppStatus status = Check(len, pSrc1, pSrc2, pDst); status != ippStsNoErr) return status;
    if (!ScaleInRange(scaleFactor)) return ippStsScaleRangeErr;
    return Map(pSrc1, pSrc2, pDst, len,
               [=](Ipp32s a, Ipp32s b) { return Scaled<Ipp32s>(std::int64_t{b} - a, scaleFactor); });
}

IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, [](Ipp32f a, Ipp32f b) { return a * b; });
}

IppStatus ippsMul_64f(const Ipp64f* pSrc1, const Ipp64f* pSrc2, Ipp64f* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, [](Ipp64f a, Ipp64f b) { return a * b; });
}

IppStatus ippsMul_32fc(const Ipp32fc* pSrc1, const Ipp32fc* pSrc2, Ipp32fc* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, Product<Ipp32fc>);
}

IppStatus ippsMul_64fc(const Ipp64fc* pSrc1, const Ipp64fc* pSrc2, Ipp64fc* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, Product<Ipp64fc>);
}

IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len) {
    return Map(pSrc, pDst, len, [val](Ipp32f x) { return x * val; });
}

IppStatus ippsMulC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len) { return ippsMulC_32f(pSrcDst, val, pSrcDst, len); }

IppStatus ippsMulC_64f(const Ipp64f* pSrc, Ipp64f val, Ipp64f* pDst, int len) {
    return Map(pSrc, pDst, len, [val](Ipp64f x) { return x * val; });
}

// The comparisons are written as the processor's minimum and maximum take them, NaN included.
IppStatus ippsMinEvery_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, [](Ipp32f a, Ipp32f b) { return a < b ? a : b; });
}

IppStatus ippsMaxEvery_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Map(pSrc1, pSrc2, pDst, len, [](Ipp32f a, Ipp32f b) { return a > b ? a : b; });
}

IppStatus ippsSum_32f(const Ipp32f* pSrc, int len, Ipp32f* pSum, IppHintAlgorithm) {
    if (const IppStatus status = Check(len, pSrc, pSum); status != ippStsNoErr) return status;
    Ipp64f sum = 0.0;
    for (int n = 0; n < len; ++n) sum += static_cast<Ipp64f>(pSrc[n]);
    *pSum = static_cast<Ipp32f>(sum);
    return ippStsNoErr;
}

IppStatus ippsSum_32fc(const Ipp32fc* pSrc, int len, Ipp32fc* pSum, IppHintAlgorithm) {
    if (const IppStatus status = Check(len, pSrc, pSum); status != ippStsNoErr) return status;
    Ipp64fc sum = {};
    for (int n = 0; n < len; ++n) {
        sum.re += static_cast<Ipp64f>(pSrc[n].re);
        sum.im += static_cast<Ipp64f>(pSrc[n].im);
    }
    *pSum = {static_cast<Ipp32f>(sum.re), static_cast<Ipp32f>(sum.im)};
    return ippStsNoErr;
}

IppStatus ippsSum_64f(const Ipp64f* pSrc, int len, Ipp64f* pSum) {
    if (const IppStatus status = Check(len, pSrc, pSum); status != ippStsNoErr) return status;
    Ipp64f sum = 0.0;
    for (int n = 0; n < len; ++n) sum += pSrc[n];
    *pSum = sum;
    return ippStsNoErr;
}
