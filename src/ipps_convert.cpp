#include <cmath>

#include "ipps.h"
#include "ipps_detail.h"
#include "vector_kernels.h"

using ipps_detail::Check;
using ipps_detail::Map;
using ipps_detail::ScaleInRange;

namespace {

// A power of two within range of float, so that the multiplication by it is exact for any 16-bit value.
Ipp32f ScaleOf(int scaleFactor) { return std::ldexp(1.0F, -scaleFactor); }

// Saturating before rounding is the same as after it, the limits being whole numbers.
template <class Round>
IppStatus Narrow(const Ipp32f* pSrc, Ipp16s* pDst, int len, Ipp32f scale, Round round) {
    return Map(pSrc, pDst, len, [=](Ipp32f x) {
        Ipp32f value = x * scale;
        value = value == value ? value : 0.0F;
        value = value < -32768.0F ? -32768.0F : value;
        value = value > 32767.0F ? 32767.0F : value;
        return static_cast<Ipp16s>(round(value));
    });
}

}  // namespace

IppStatus ipps_detail::ConvertOffset_16s32f_Sfs(const Ipp16s* pSrc, Ipp16s offset, Ipp32f* pDst, int len,
                                                int scaleFactor) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    if (!ScaleInRange(scaleFactor)) return ippStsScaleRangeErr;
    VECTOR_KERNELS.Now().convert16s32f(pSrc, offset, ScaleOf(scaleFactor), pDst, len);
    return ippStsNoErr;
}

IppStatus ippsConvert_16s32f_Sfs(const Ipp16s* pSrc, Ipp32f* pDst, int len, int scaleFactor) {
    return ipps_detail::ConvertOffset_16s32f_Sfs(pSrc, 0, pDst, len, scaleFactor);
}

IppStatus ippsConvert_32f16s_Sfs(const Ipp32f* pSrc, Ipp16s* pDst, int len, IppRoundMode rndMode, int scaleFactor) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    if (!ScaleInRange(scaleFactor)) return ippStsScaleRangeErr;
    const Ipp32f scale = ScaleOf(scaleFactor);
    switch (rndMode) {
        case ippRndZero:
            return Narrow(pSrc, pDst, len, scale, [](Ipp32f x) { return x; });
        case ippRndNear:
            VECTOR_KERNELS.Now().convert32f16s(pSrc, scale, pDst, len);
            return ippStsNoErr;
        case ippRndFinancial:
            return Narrow(pSrc, pDst, len, scale, [](Ipp32f x) { return std::round(x); });
    }
    return ippStsBadArgErr;
}

IppStatus ippsConvert_64f32f(const Ipp64f* pSrc, Ipp32f* pDst, int len) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    VECTOR_KERNELS.Now().convert64f32f(pSrc, pDst, len);
    return ippStsNoErr;
}
