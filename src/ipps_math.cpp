#include <smmintrin.h>

#include <cmath>

#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::Check;
using ipps_detail::Map;

namespace {

// By intrinsics: std::sqrt has to set errno and is not vectorised.
IppStatus Root(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    constexpr int LANES = 4;
    __m128 negative = _mm_setzero_ps();
    int n = 0;
    for (; len - n >= LANES; n += LANES) {
        const __m128 x = _mm_loadu_ps(pSrc + n);
        negative = _mm_or_ps(negative, _mm_cmplt_ps(x, _mm_setzero_ps()));
        _mm_storeu_ps(pDst + n, _mm_sqrt_ps(x));
    }
    for (; n < len; ++n) {
        const __m128 x = _mm_set_ss(pSrc[n]);
        negative = _mm_or_ps(negative, _mm_cmplt_ss(x, _mm_setzero_ps()));
        pDst[n] = _mm_cvtss_f32(_mm_sqrt_ss(x));
    }
    return _mm_movemask_ps(negative) != 0 ? ippStsSqrtNegArg : ippStsNoErr;
}

}  // namespace

IppStatus ippsExp_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Map(pSrc, pDst, len, [](Ipp32f x) { return std::exp(x); });
}

IppStatus ippsExp_32f_I(Ipp32f* pSrcDst, int len) { return ippsExp_32f(pSrcDst, pSrcDst, len); }

IppStatus ippsLn_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    bool anyZero = false;
    bool anyNegative = false;
    const IppStatus status = Map(pSrc, pDst, len, [&](Ipp32f x) {
        anyZero |= x == 0.0F;
        anyNegative |= x < 0.0F;
        return std::log(x);
    });
    if (status != ippStsNoErr) return status;
    if (anyNegative) return ippStsLnNegArg;
    return anyZero ? ippStsLnZeroArg : ippStsNoErr;
}

IppStatus ippsLn_32f_A11(const Ipp32f* pSrc, Ipp32f* pDst, int len) { return ippsLn_32f(pSrc, pDst, len); }

IppStatus ippsSqr_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Map(pSrc, pDst, len, [](Ipp32f x) { return x * x; });
}

IppStatus ippsSqrt_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) { return Root(pSrc, pDst, len); }

IppStatus ippsSqrt_32f_A11(const Ipp32f* pSrc, Ipp32f* pDst, int len) { return Root(pSrc, pDst, len); }

IppStatus ippsConj_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len) {
    return Map(pSrc, pDst, len, [](Ipp32fc x) { return Ipp32fc{x.re, -x.im}; });
}

IppStatus ippsMagnitude_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    constexpr int CHUNK = 1024;  // the powers wait in the nearest cache for their roots
    for (int n = 0; n < len;) {
        const int count = std::min(len - n, CHUNK);
        ippsPowerSpectr_32fc(pSrc + n, pDst + n, count);
        Root(pDst + n, pDst + n, count);
        n += count;
    }
    return ippStsNoErr;
}

IppStatus ippsPowerSpectr_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len) {
    return Map(pSrc, pDst, len, [](Ipp32fc x) { return x.re * x.re + x.im * x.im; });
}

IppStatus ippsPhase_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len) {
    return Map(pSrc, pDst, len, [](Ipp32fc x) { return std::atan2(x.im, x.re); });
}
