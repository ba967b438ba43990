#include <utility>

#include "ipps.h"
#include "ipps_detail.h"
#include "vector_kernels.h"

using ipps_detail::AnyNull;
using ipps_detail::Check;

namespace {

template <class T>
IppStatus SampleDown(const T* pSrc, int srcLen, T* pDst, int* pDstLen, int factor, int* pPhase) {
    if (const IppStatus status = Check(srcLen, pSrc, pDst, pDstLen, pPhase); status != ippStsNoErr) return status;
    if (factor < 1 || *pPhase < 0 || *pPhase >= factor) return ippStsBadArgErr;
    int count = 0;
    std::int64_t index = *pPhase;
    for (; index < srcLen; index += factor) pDst[count++] = pSrc[index];
    *pDstLen = count;
    *pPhase = static_cast<int>(index - srcLen);
    return ippStsNoErr;
}

}  // namespace

IppStatus ippsSampleDown_32f(const Ipp32f* pSrc, int srcLen, Ipp32f* pDst, int* pDstLen, int factor, int* pPhase) {
    return SampleDown(pSrc, srcLen, pDst, pDstLen, factor, pPhase);
}

IppStatus ippsSampleDown_32fc(const Ipp32fc* pSrc, int srcLen, Ipp32fc* pDst, int* pDstLen, int factor, int* pPhase) {
    return SampleDown(pSrc, srcLen, pDst, pDstLen, factor, pPhase);
}

IppStatus ippsWinBlackmanStd_64f_I(Ipp64f* pSrcDst, int len) {
    if (pSrcDst == nullptr) return ippStsNullPtrErr;
    if (len < 3) return ippStsSizeErr;
    for (int n = 0; n < len; ++n) pSrcDst[n] *= ipps_detail::BlackmanAt(-0.16, n, len);
    return ippStsNoErr;
}

IppStatus ippiTranspose_32f_C1R(const Ipp32f* pSrc, int srcStep, Ipp32f* pDst, int dstStep, IppiSize roiSize) {
    if (AnyNull(pSrc, pDst)) return ippStsNullPtrErr;
    const std::int64_t width = roiSize.width;
    const std::int64_t height = roiSize.height;
    constexpr std::int64_t FLOAT_BYTES = sizeof(Ipp32f);
    if (width < 0 || height < 0 || srcStep % FLOAT_BYTES != 0 || dstStep % FLOAT_BYTES != 0) return ippStsSizeErr;
    const std::int64_t srcStride = srcStep / FLOAT_BYTES;
    const std::int64_t dstStride = dstStep / FLOAT_BYTES;
    if (srcStride < width || dstStride < height) return ippStsSizeErr;

    if (pSrc == pDst) {
        if (width != height || srcStep != dstStep) return ippStsSizeErr;
        for (std::int64_t row = 0; row < height; ++row) {
            for (std::int64_t col = 0; col < row; ++col)
                std::swap(pDst[row * dstStride + col], pDst[col * dstStride + row]);
        }
        return ippStsNoErr;
    }
    VECTOR_KERNELS.Now().transpose32f(pSrc, srcStride, pDst, dstStride, height, width);
    return ippStsNoErr;
}
