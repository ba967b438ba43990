#include <array>
#include <cmath>
#include <numbers>

#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::AnyNull;
using ipps_detail::Check;

namespace {

constexpr Ipp64f TWO_PI = 2.0 * std::numbers::pi;

// The phase after n samples, less whole turns [rad]. The fused operation recovers what the product's rounding loses,
// which for a long tone would be far above the rounding of the tone itself.
Ipp64f AdvanceOf(Ipp64f rFreq, int n) {
    const Ipp64f turns = rFreq * n;
    const Ipp64f rest = std::fma(rFreq, static_cast<Ipp64f>(n), -turns);
    return TWO_PI * ((turns - std::floor(turns)) + rest);
}

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

IppStatus ippsTone_64fc(Ipp64fc* pDst, int len, Ipp64f magn, Ipp64f rFreq, Ipp64f* pPhase, IppHintAlgorithm) {
    if (const IppStatus status = Check(len, pDst, pPhase); status != ippStsNoErr) return status;
    if (!(rFreq >= 0.0 && rFreq < 1.0)) return ippStsRelFreqErr;

    // Each stretch starts from its own exact phase and turns through the same table: one rounding, no drift.
    constexpr int STRETCH = 64;
    std::array<Ipp64fc, STRETCH> turn;
    const int tableLen = std::min(len, STRETCH);
    for (int k = 0; k < tableLen; ++k) {
        const Ipp64f angle = AdvanceOf(rFreq, k);
        turn[static_cast<std::size_t>(k)] = {std::cos(angle), std::sin(angle)};
    }
    for (int n = 0; n < len;) {
        const Ipp64f angle = *pPhase + AdvanceOf(rFreq, n);
        const Ipp64fc start = {magn * std::cos(angle), magn * std::sin(angle)};
        const int count = std::min(len - n, STRETCH);
        for (int k = 0; k < count; ++k) {
            const Ipp64fc w = turn[static_cast<std::size_t>(k)];
            pDst[n + k] = {start.re * w.re - start.im * w.im, start.re * w.im + start.im * w.re};
        }
        n += count;
    }

    Ipp64f phase = std::fmod(*pPhase + AdvanceOf(rFreq, len), TWO_PI);
    if (phase < 0.0) phase += TWO_PI;
    *pPhase = phase < TWO_PI ? phase : 0.0;  // a tiny negative phase rounds up to the full turn
    return ippStsNoErr;
}

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
    // By square tiles, so that of both arrays whole cache lines are used while they are near.
    constexpr std::int64_t TILE = 16;
    for (std::int64_t row0 = 0; row0 < height; row0 += TILE) {
        const std::int64_t rowEnd = std::min(row0 + TILE, height);
        for (std::int64_t col0 = 0; col0 < width; col0 += TILE) {
            const std::int64_t colEnd = std::min(col0 + TILE, width);
            for (std::int64_t col = col0; col < colEnd; ++col) {
                for (std::int64_t row = row0; row < rowEnd; ++row) {
                    pDst[col * dstStride + row] = pSrc[row * srcStride + col];
                }
            }
        }
    }
    return ippStsNoErr;
}
