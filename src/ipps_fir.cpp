#include <cmath>
#include <new>
#include <type_traits>

#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::AnyNull;
using ipps_detail::Carver;

namespace {

Ipp64f WindowAt(IppWinType winType, int n, int len) {
    const Ipp64f last = len - 1;
    switch (winType) {
        case ippWinBartlett:
            return 1.0 - std::abs(2.0 * n / last - 1.0);
        case ippWinBlackman: {
            const Ipp64f root = 0.5 / std::cos(std::numbers::pi / last);
            return ipps_detail::BlackmanAt(-root * root, n, len);
        }
        case ippWinHamming:
            return 0.54 - 0.46 * std::cos(2.0 * std::numbers::pi * n / last);
        case ippWinHann:
            return 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * n / last);
        case ippWinRect:
            break;
    }
    return 1.0;
}

// The scalars of a sample: T itself, or the two of a complex one.
template <class S>
struct SampleTraits {
    using Scalar = S;
    static constexpr int SCALARS = 1;
};
template <>
struct SampleTraits<Ipp32fc> {
    using Scalar = Ipp32f;
    static constexpr int SCALARS = 2;
};

constexpr std::int64_t MIN_CHUNK = 1024;  // samples filtered between two moves of the history

// Description of a filter over samples S, and its arithmetic. A complex sample counts as two scalars side by side:
// the sums of re(h) x and of im(h) x run over those alike, and are brought together at the end.
template <class S>
struct FirPlan {
    using T = typename SampleTraits<S>::Scalar;
    static constexpr int SCALARS = SampleTraits<S>::SCALARS;
    static constexpr bool IS_COMPLEX = SCALARS == 2;
    using Vec __attribute__((vector_size(16))) = T;
    static constexpr int LANES = 16 / sizeof(T);
    static constexpr int VECTORS = 4;  // with two sums of each and the inputs they fill the 16 registers
    static constexpr std::int64_t GROUP = VECTORS * LANES / SCALARS;  // samples computed together

    int tapsLen = 0;
    T* re = nullptr;
    T* im = nullptr;  // null unless complex

    void Layout(Carver& carver, int newTapsLen) {
        tapsLen = newTapsLen;
        re = carver.Take<T>(tapsLen);
        if (IS_COMPLEX) im = carver.Take<T>(tapsLen);
    }

    std::int64_t History() const { return std::int64_t{tapsLen} - 1; }
    std::int64_t Chunk() const { return std::max(MIN_CHUNK, History()); }
    // History and chunk in one stretch, and what the last group reads beyond the chunk.
    S* WorkLayout(Carver& carver) const { return carver.Take<S>(History() + Chunk() + GROUP); }

    // One group of outputs. x is the input of the first, behind its history; taps apply in ascending order, so that
    // an output does not depend on its place in the group.
    void Group(const T* x, T* y) const {
        Vec sumRe[VECTORS] = {};
        Vec sumIm[VECTORS] = {};
        for (std::int64_t k = 0; k < tapsLen; ++k) {
            const T* const from = x - k * SCALARS;
            for (int v = 0; v < VECTORS; ++v) {
                Vec in;
                std::memcpy(&in, from + v * LANES, sizeof(in));
                sumRe[v] += in * re[k];
                if constexpr (IS_COMPLEX) sumIm[v] += in * im[k];
            }
        }
        if constexpr (IS_COMPLEX) {
            constexpr Vec J = {-1, 1, -1, 1};
            for (int v = 0; v < VECTORS; ++v) sumRe[v] += __builtin_shufflevector(sumIm[v], sumIm[v], 1, 0, 3, 2) * J;
        }
        std::memcpy(y, sumRe, sizeof(sumRe));
    }

    void Run(const S* src, S* dst, std::int64_t len, const S* dlySrc, S* dlyDst, Ipp8u* buffer) const {
        Carver carver(buffer);
        S* const history = WorkLayout(carver);
        S* const chunk = history + History();
        std::copy_n(dlySrc, History(), history);
        for (std::int64_t done = 0; done < len;) {
            const std::int64_t count = std::min(len - done, Chunk());
            std::copy_n(src + done, count, chunk);
            std::fill_n(chunk + count, GROUP, S{});  // stale values there might be subnormal, and slow
            for (std::int64_t n = 0; n < count; n += GROUP) {
                S out[GROUP];
                Group(reinterpret_cast<const T*>(chunk + n), reinterpret_cast<T*>(out));
                std::copy_n(out, std::min(GROUP, count - n), dst + done + n);
            }
            std::copy_n(history + count, History(), history);
            done += count;
        }
        std::copy_n(history, History(), dlyDst);
    }
};

template <class S>
IppStatus GetSize(int tapsLen, int* pSpecSize, int* pBufSize) {
    FirPlan<S> plan;
    Carver spec(nullptr);
    spec.Take<FirPlan<S>>(1);
    plan.Layout(spec, tapsLen);
    Carver work(nullptr);
    plan.WorkLayout(work);
    int specSize = 0;
    int workSize = 0;
    if (spec.GetSize(&specSize) != ippStsNoErr || work.GetSize(&workSize) != ippStsNoErr) return ippStsSizeErr;
    *pSpecSize = specSize;
    *pBufSize = workSize;
    return ippStsNoErr;
}

// The plan stands at the first cache line within the description's memory, which is found again at each use.
template <class S>
IppStatus Init(const S* pTaps, int tapsLen, IppAlgType algType, void* pSpec) {
    if (pTaps == nullptr || pSpec == nullptr) return ippStsNullPtrErr;
    if (tapsLen < 1) return ippStsSizeErr;
    if (algType != ippAlgAuto && algType != ippAlgDirect && algType != ippAlgFFT) return ippStsBadArgErr;
    static_assert(std::is_trivially_destructible_v<FirPlan<S>>);
    Carver carver(static_cast<Ipp8u*>(pSpec));
    FirPlan<S>* const plan = new (carver.Take<FirPlan<S>>(1)) FirPlan<S>;
    plan->Layout(carver, tapsLen);
    for (int k = 0; k < tapsLen; ++k) {
        if constexpr (FirPlan<S>::IS_COMPLEX) {
            plan->re[k] = pTaps[k].re;
            plan->im[k] = pTaps[k].im;
        } else {
            plan->re[k] = pTaps[k];
        }
    }
    return ippStsNoErr;
}

template <class S>
IppStatus Filter(const S* pSrc, S* pDst, int numIters, const void* pSpec, const S* pDlySrc, S* pDlyDst, Ipp8u* pBuf) {
    if (pSpec == nullptr || AnyNull(pSrc, pDst, pBuf)) return ippStsNullPtrErr;
    Carver carver(const_cast<Ipp8u*>(static_cast<const Ipp8u*>(pSpec)));
    const FirPlan<S>* const plan = carver.Take<FirPlan<S>>(1);
    if (plan->tapsLen > 1 && AnyNull(pDlySrc, pDlyDst)) return ippStsNullPtrErr;
    if (numIters < 0) return ippStsSizeErr;
    plan->Run(pSrc, pDst, numIters, pDlySrc, pDlyDst, pBuf);
    return ippStsNoErr;
}

}  // namespace

IppStatus ippsFIRGenGetBufferSize(int tapsLen, int* pBufferSize) {
    if (pBufferSize == nullptr) return ippStsNullPtrErr;
    if (tapsLen < 5) return ippStsSizeErr;
    *pBufferSize = 0;
    return ippStsNoErr;
}

IppStatus ippsFIRGenLowpass_64f(Ipp64f rFreq, Ipp64f* pTaps, int tapsLen, IppWinType winType, IppBool doNormal,
                                Ipp8u*) {
    if (pTaps == nullptr) return ippStsNullPtrErr;
    if (tapsLen < 5) return ippStsSizeErr;
    if (!(rFreq > 0.0 && rFreq < 0.5)) return ippStsRelFreqErr;
    if (winType < ippWinBartlett || winType > ippWinRect) return ippStsBadArgErr;
    const Ipp64f centre = (tapsLen - 1) / 2.0;
    Ipp64f sum = 0.0;
    for (int n = 0; n < tapsLen; ++n) {
        const Ipp64f x = n - centre;
        const Ipp64f sinc =
            x == 0.0 ? 2.0 * rFreq : std::sin(2.0 * std::numbers::pi * rFreq * x) / (std::numbers::pi * x);
        pTaps[n] = sinc * WindowAt(winType, n, tapsLen);
        sum += pTaps[n];
    }
    if (doNormal == ippFalse) return ippStsNoErr;
    if (sum == 0.0) return ippStsDivByZeroErr;
    for (int n = 0; n < tapsLen; ++n) pTaps[n] /= std::abs(sum);
    return ippStsNoErr;
}

IppStatus ippsFIRSRGetSize(int tapsLen, IppDataType tapsType, int* pSpecSize, int* pBufSize) {
    if (AnyNull(pSpecSize, pBufSize)) return ippStsNullPtrErr;
    if (tapsLen < 1) return ippStsSizeErr;
    switch (tapsType) {
        case ipp32f:
            return GetSize<Ipp32f>(tapsLen, pSpecSize, pBufSize);
        case ipp32fc:
            return GetSize<Ipp32fc>(tapsLen, pSpecSize, pBufSize);
        case ipp64f:
            return GetSize<Ipp64f>(tapsLen, pSpecSize, pBufSize);
    }
    return ippStsBadArgErr;
}

IppStatus ippsFIRSRInit_32f(const Ipp32f* pTaps, int tapsLen, IppAlgType algType, IppsFIRSpec_32f* pSpec) {
    return Init(pTaps, tapsLen, algType, pSpec);
}

IppStatus ippsFIRSRInit_64f(const Ipp64f* pTaps, int tapsLen, IppAlgType algType, IppsFIRSpec_64f* pSpec) {
    return Init(pTaps, tapsLen, algType, pSpec);
}

IppStatus ippsFIRSRInit_32fc(const Ipp32fc* pTaps, int tapsLen, IppAlgType algType, IppsFIRSpec_32fc* pSpec) {
    return Init(pTaps, tapsLen, algType, pSpec);
}

IppStatus ippsFIRSR_32f(const Ipp32f* pSrc, Ipp32f* pDst, int numIters, const IppsFIRSpec_32f* pSpec,
                        const Ipp32f* pDlySrc, Ipp32f* pDlyDst, Ipp8u* pBuf) {
    return Filter(pSrc, pDst, numIters, pSpec, pDlySrc, pDlyDst, pBuf);
}

IppStatus ippsFIRSR_64f(const Ipp64f* pSrc, Ipp64f* pDst, int numIters, const IppsFIRSpec_64f* pSpec,
                        const Ipp64f* pDlySrc, Ipp64f* pDlyDst, Ipp8u* pBuf) {
    return Filter(pSrc, pDst, numIters, pSpec, pDlySrc, pDlyDst, pBuf);
}

IppStatus ippsFIRSR_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int numIters, const IppsFIRSpec_32fc* pSpec,
                         const Ipp32fc* pDlySrc, Ipp32fc* pDlyDst, Ipp8u* pBuf) {
    return Filter(pSrc, pDst, numIters, pSpec, pDlySrc, pDlyDst, pBuf);
}
