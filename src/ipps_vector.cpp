#include "ipps.h"
#include "ipps_detail.h"
#include "vector_kernels.h"

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

// Runs a kernel whose arguments are arrays and their length.
template <class Kernel, class... T>
IppStatus Run(Kernel VectorKernels::*kernel, int len, T*... arrays) {
    if (const IppStatus status = Check(len, arrays...); status != ippStsNoErr) return status;
    (VECTOR_KERNELS.Now().*kernel)(arrays..., len);
    return ippStsNoErr;
}

// Runs a kernel that takes a constant.
template <class Kernel, class T>
IppStatus RunC(Kernel VectorKernels::*kernel, const T* src, T val, T* dst, int len) {
    if (const IppStatus status = Check(len, src, dst); status != ippStsNoErr) return status;
    (VECTOR_KERNELS.Now().*kernel)(src, val, dst, len);
    return ippStsNoErr;
}

// A complex array as the real one it is.
const Ipp32f* Parts(const Ipp32fc* p) { return reinterpret_cast<const Ipp32f*>(p); }
const Ipp64f* Parts(const Ipp64fc* p) { return reinterpret_cast<const Ipp64f*>(p); }
Ipp32f* Parts(Ipp32fc* p) { return reinterpret_cast<Ipp32f*>(p); }
Ipp64f* Parts(Ipp64fc* p) { return reinterpret_cast<Ipp64f*>(p); }

}  // namespace

IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::add32f, len, pSrc1, pSrc2, pDst);
}

IppStatus ippsAdd_32u(const Ipp32u* pSrc1, const Ipp32u* pSrc2, Ipp32u* pDst, int len) {
    return Run(&VectorKernels::add32u, len, pSrc1, pSrc2, pDst);
}

IppStatus ippsAddC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len) {
    return RunC(&VectorKernels::addC32f, pSrc, val, pDst, len);
}

IppStatus ippsAddC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len) { return ippsAddC_32f(pSrcDst, val, pSrcDst, len); }

IppStatus ippsSubC_16s_Sfs(const Ipp16s* pSrc, Ipp16s val, Ipp16s* pDst, int len, int scaleFactor) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    if (!ScaleInRange(scaleFactor)) return ippStsScaleRangeErr;
    if (scaleFactor == 0) return RunC(&VectorKernels::subC16s, pSrc, val, pDst, len);
    return Map(pSrc, pDst, len, [=](Ipp16s x) { return Scaled<Ipp16s>(std::int64_t{x} - val, scaleFactor); });
}

IppStatus ippsSub_32s_Sfs(const Ipp32s* pSrc1, const Ipp32s* pSrc2, Ipp32s* pDst, int len, int scaleFactor) {
    if (const IppStatus status = Check(len, pSrc1, pSrc2, pDst); status != ippStsNoErr) return status;
    if (!ScaleInRange(scaleFactor)) return ippStsScaleRangeErr;
    if (scaleFactor == 0) return Run(&VectorKernels::sub32s, len, pSrc1, pSrc2, pDst);
    return Map(pSrc1, pSrc2, pDst, len,
               [=](Ipp32s a, Ipp32s b) { return Scaled<Ipp32s>(std::int64_t{b} - a, scaleFactor); });
}

IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::mul32f, len, pSrc1, pSrc2, pDst);
}

IppStatus ippsMul_64f(const Ipp64f* pSrc1, const Ipp64f* pSrc2, Ipp64f* pDst, int len) {
    return Run(&VectorKernels::mul64f, len, pSrc1, pSrc2, pDst);
}

IppStatus ippsMul_32fc(const Ipp32fc* pSrc1, const Ipp32fc* pSrc2, Ipp32fc* pDst, int len) {
    return Run(&VectorKernels::mul32fc, len, Parts(pSrc1), Parts(pSrc2), Parts(pDst));
}

IppStatus ippsMul_64fc(const Ipp64fc* pSrc1, const Ipp64fc* pSrc2, Ipp64fc* pDst, int len) {
    return Run(&VectorKernels::mul64fc, len, Parts(pSrc1), Parts(pSrc2), Parts(pDst));
}

IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len) {
    return RunC(&VectorKernels::mulC32f, pSrc, val, pDst, len);
}

IppStatus ippsMulC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len) { return ippsMulC_32f(pSrcDst, val, pSrcDst, len); }

IppStatus ippsMulC_64f(const Ipp64f* pSrc, Ipp64f val, Ipp64f* pDst, int len) {
    return RunC(&VectorKernels::mulC64f, pSrc, val, pDst, len);
}

IppStatus ippsMinEvery_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::min32f, len, pSrc1, pSrc2, pDst);
}

IppStatus ippsMaxEvery_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::max32f, len, pSrc1, pSrc2, pDst);
}

IppStatus ippsSum_32f(const Ipp32f* pSrc, int len, Ipp32f* pSum, IppHintAlgorithm) {
    if (const IppStatus status = Check(len, pSrc, pSum); status != ippStsNoErr) return status;
    Ipp64f sums[2];
    VECTOR_KERNELS.Now().sums32f(pSrc, len, sums);
    *pSum = static_cast<Ipp32f>(sums[0] + sums[1]);
    return ippStsNoErr;
}

IppStatus ippsSum_32fc(const Ipp32fc* pSrc, int len, Ipp32fc* pSum, IppHintAlgorithm) {
    if (const IppStatus status = Check(len, pSrc, pSum); status != ippStsNoErr) return status;
    Ipp64f sums[2];
    VECTOR_KERNELS.Now().sums32f(Parts(pSrc), std::ptrdiff_t{2} * len, sums);
    *pSum = {static_cast<Ipp32f>(sums[0]), static_cast<Ipp32f>(sums[1])};
    return ippStsNoErr;
}

IppStatus ippsSum_64f(const Ipp64f* pSrc, int len, Ipp64f* pSum) {
    if (const IppStatus status = Check(len, pSrc, pSum); status != ippStsNoErr) return status;
    Ipp64f sums[2];
    VECTOR_KERNELS.Now().sums64f(pSrc, len, sums);
    *pSum = sums[0] + sums[1];
    return ippStsNoErr;
}
