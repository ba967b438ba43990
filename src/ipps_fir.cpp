#include "ipps_fir_down.h"

#include <bit>
#include <cmath>
#include <new>
#include <type_traits>

#include "fir_kernels.h"
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

// A filter of complex samples by overlapping transforms, of which every factor-th output is wanted. A segment of
// past + step inputs is transformed, multiplied by the taps' response and transformed back; of the outputs the first
// `past` lack inputs from before the segment. Folding the product `fold` times keeps every fold-th output alone, by a
// transform so much shorter; what is left of the factor is picked.
struct OverlapSave {
    static constexpr std::int64_t MIN_RESULT = 64;   // values of the transform back, as multiplyFold32fc takes them
    static constexpr std::int64_t ALIGNED_STEP = 8;  // keeps the caches' lines where the caller's arrays have them

    std::int64_t size = 0;  // of a segment; 0: the filter is beyond the longest transform
    std::int64_t factor = 1;
    std::int64_t fold = 1;
    std::int64_t past = 0;
    std::int64_t step = 0;  // a multiple of the factor; at least `past` where values go straight to their place
    std::int64_t fftWorkBytes = 0;
    IppsFFTSpec_C_32fc* forward = nullptr;
    IppsFFTSpec_C_32fc* backward = nullptr;
    Ipp8u* forwardMemory = nullptr;
    Ipp8u* backwardMemory = nullptr;  // null without fold
    Ipp8u* scratch = nullptr;         // for the transform of the taps
    Ipp32fc* response = nullptr;

    struct FftSizes {
        int spec = 0;
        int work = 0;
    };
    static FftSizes SizesOf(std::int64_t length) {
        FftSizes sizes;
        int none = 0;
        ippsFFTGetSize_C_32fc(OrderOf(length), IPP_FFT_NODIV_BY_ANY, ippAlgHintNone, &sizes.spec, &none, &sizes.work);
        return sizes;
    }
    static int OrderOf(std::int64_t length) { return std::countr_zero(static_cast<std::uint64_t>(length)); }

    // Segments of at least perTap times the taps (or the factor, if larger) and minSize.
    void Layout(Carver& carver, int tapsLen, int newFactor, std::int64_t perTap, std::int64_t minSize) {
        factor = newFactor;
        const auto overlap = static_cast<std::uint64_t>(std::max(tapsLen - 1, newFactor));
        size = std::max(perTap * static_cast<std::int64_t>(std::bit_ceil(overlap)), minSize);
        if (size > std::int64_t{1} << IPP_MAX_FFT_ORDER) {
            size = 0;
            return;
        }
        while (factor % (2 * fold) == 0 && size / (2 * fold) >= MIN_RESULT) fold *= 2;
        const std::int64_t unit = factor == 1 ? ALIGNED_STEP : factor;
        step = (size - (tapsLen - 1)) / unit * unit;
        past = size - step;
        const FftSizes there = SizesOf(size);
        const FftSizes back = SizesOf(size / fold);
        fftWorkBytes = std::max(there.work, back.work);
        forwardMemory = carver.Take<Ipp8u>(there.spec);
        if (fold > 1) backwardMemory = carver.Take<Ipp8u>(back.spec);
        scratch = carver.Take<Ipp8u>(there.work);
        response = carver.Take<Ipp32fc>(size);
    }

    static IppsFFTSpec_C_32fc* InitFft(std::int64_t length, Ipp8u* memory) {
        IppsFFTSpec_C_32fc* spec = nullptr;
        ippsFFTInit_C_32fc(&spec, OrderOf(length), IPP_FFT_NODIV_BY_ANY, ippAlgHintNone, memory, nullptr);
        return spec;
    }

    void Fill(const Ipp32fc* taps, int tapsLen) {
        forward = InitFft(size, forwardMemory);
        backward = fold > 1 ? InitFft(size / fold, backwardMemory) : forward;
        const Ipp32f scale = 1.0F / static_cast<Ipp32f>(size);  // a power of two: exact
        std::fill_n(response, size, Ipp32fc{});
        for (int k = 0; k < tapsLen; ++k) response[k] = {taps[k].re * scale, taps[k].im * scale};
        ippsFFTFwd_CToC_32fc(response, response, forward, scratch);
    }

    struct Work {
        Ipp32fc* spectrum = nullptr;
        Ipp8u* fft = nullptr;
    };
    Work WorkLayout(Carver& carver) const {
        Work work;
        work.spectrum = carver.Take<Ipp32fc>(size);
        work.fft = carver.Take<Ipp8u>(fftWorkBytes);
        return work;
    }

    // Values that one segment yields, and how many before them are none.
    std::int64_t Yield() const { return step / factor; }
    std::int64_t Lead() const { return past / fold; }

    // Filters one segment; `to` takes Lead() + step / fold values.
    void Segment(const FirKernels& kernels, const Ipp32fc* segment, Ipp32fc* to, const Work& work) const {
        ippsFFTFwd_CToC_32fc(segment, work.spectrum, forward, work.fft);
        float* const spectrum = &work.spectrum->re;
        kernels.multiplyFold32fc(spectrum, &response->re, spectrum, size / fold, fold);
        ippsFFTInv_CToC_32fc(work.spectrum, to, backward, work.fft);
    }

    // The last inputs, fewer than a segment has: `from` is the input of the first of `count` values, `have` follow.
    void PartSegment(const FirKernels& kernels, const Ipp32fc* from, std::int64_t have, Ipp32fc* dst,
                     std::int64_t count, const Work& work) const {
        have = std::min(have, step);
        std::copy_n(from - past, past + have, work.spectrum);
        std::fill_n(work.spectrum + past + have, step - have, Ipp32fc{});
        Segment(kernels, work.spectrum, work.spectrum, work);
        Pick(work, dst, count);
    }

    void Pick(const Work& work, Ipp32fc* dst, std::int64_t count) const {
        const Ipp32fc* const from = work.spectrum + Lead();
        const std::int64_t every = factor / fold;
        if (every == 1) {
            std::copy_n(from, count, dst);
        } else {
            for (std::int64_t k = 0; k < count; ++k) dst[k] = from[k * every];
        }
    }

    // All values of a stretch: the inputs are src[0] to src[len - 1], of which src[phase] belongs to the first value.
    // `head` repeats the first phase + step of them, behind `past` earlier ones. What whole segments leave over goes to
    // rest(from, have, dst, count), with the arguments of PartSegment. All goes from the last to the first: with a
    // factor of 1, dst may be src.
    template <class Rest>
    void Run(const FirKernels& kernels, const Ipp32fc* src, std::int64_t len, std::int64_t phase, const Ipp32fc* head,
             Ipp32fc* dst, std::int64_t values, const Work& work, Rest rest) const {
        const std::int64_t whole = std::max(len - phase, std::int64_t{0}) / step;
        if (const std::int64_t count = values - whole * Yield(); count > 0) {
            const std::int64_t at = phase + whole * step;
            rest(whole == 0 ? head + past + phase : src + at, len - at, dst + whole * Yield(), count);
        }
        for (std::int64_t i = whole; i-- > 0;) {
            const Ipp32fc* const segment = i == 0 ? head + phase : src + phase + i * step - past;
            Ipp32fc* const to = dst + i * Yield();
            if (i > 0 && src != dst && factor == fold) {
                Segment(kernels, segment, to - Lead(), work);  // what is no value yields to the segment before
            } else {
                Segment(kernels, segment, work.spectrum, work);
                Pick(work, to, Yield());
            }
        }
    }
};

// The same by segments of two lengths: long ones cost least, and short ones do what these leave over, or all of a short
// block.
struct Transforms {
    // Measured from 33 to 2049 taps with 128-, 256- and 512-bit registers.
    static constexpr std::int64_t LONG_PER_TAP = 8;
    static constexpr std::int64_t SHORT_PER_TAP = 2;
    static constexpr std::int64_t MIN_LONG = 256;
    static constexpr std::int64_t MIN_SHORT = 128;
    static constexpr std::int64_t MAX_SHORTS = 3;  // cost less than one long segment

    OverlapSave longs;
    OverlapSave shorts;

    void Layout(Carver& carver, int tapsLen, int factor) {
        longs.Layout(carver, tapsLen, factor, LONG_PER_TAP, MIN_LONG);
        if (Possible()) shorts.Layout(carver, tapsLen, factor, SHORT_PER_TAP, MIN_SHORT);
    }
    bool Possible() const { return longs.size > 0; }
    void Fill(const Ipp32fc* taps, int tapsLen) {
        longs.Fill(taps, tapsLen);
        shorts.Fill(taps, tapsLen);
    }

    // Inputs before and in the stretch that Run wants at `head`.
    std::int64_t Past() const { return std::max(longs.past, shorts.past); }
    std::int64_t HeadLen() const { return longs.factor - 1 + longs.step; }

    struct Work {
        OverlapSave::Work longs;
        OverlapSave::Work shorts;
    };
    Work WorkLayout(Carver& carver) const { return {longs.WorkLayout(carver), shorts.WorkLayout(carver)}; }

    // As OverlapSave::Run, with Past() inputs before the head. Fewer values than `worth` at the end, which do not repay
    // a short segment, are left to direct(from, dst, count), `from` being the input of the first.
    template <class Direct>
    void Run(const FirKernels& kernels, const Ipp32fc* src, std::int64_t len, std::int64_t phase, const Ipp32fc* head,
             Ipp32fc* dst, std::int64_t values, std::int64_t worth, const Work& work, Direct direct) const {
        const auto last = [&](const Ipp32fc* from, std::int64_t have, Ipp32fc* to, std::int64_t count) {
            count < worth ? direct(from, to, count) : shorts.PartSegment(kernels, from, have, to, count, work.shorts);
        };
        const auto rest = [&](const Ipp32fc* from, std::int64_t have, Ipp32fc* to, std::int64_t count) {
            if (have > MAX_SHORTS * shorts.step) {
                longs.PartSegment(kernels, from, have, to, count, work.longs);
            } else {
                shorts.Run(kernels, from, have, 0, from - shorts.past, to, count, work.shorts, last);
            }
        };
        longs.Run(kernels, src, len, phase, head + Past() - longs.past, dst, values, work.longs, rest);
    }
};

// What filters share: the first inputs behind `past` earlier ones, of which the delay line knows the last `history`, at
// `head`; and the delay line after len inputs, of which all or at least as many as it holds stand at `first`.
template <class S>
void FillHead(const S* src, std::int64_t count, const S* dlySrc, std::int64_t history, S* head, std::int64_t past) {
    std::fill_n(head, past - history, S{});
    std::copy_n(dlySrc, history, head + past - history);
    std::copy_n(src, count, head + past);
}

template <class S>
void KeepHistory(const S* src, std::int64_t len, const S* first, std::int64_t history, S* dlyDst) {
    std::copy_n((len >= history ? src : first) + len - history, history, dlyDst);
}

// The scalars of a sample: T itself, or the two of a complex one.
template <class S>
struct SampleTraits {
    using Scalar = S;
};
template <>
struct SampleTraits<Ipp32fc> {
    using Scalar = Ipp32f;
};

// Description of a filter over samples S.
template <class S>
struct FirPlan {
    using T = typename SampleTraits<S>::Scalar;
    static constexpr bool IS_COMPLEX = std::is_same_v<S, Ipp32fc>;

    // From so many taps on, transforms win; they win the last outputs when these are more than so many times a segment
    // over the taps. Measured, for complex taps and for real ones.
    static constexpr int MIN_TRANSFORM_TAPS = 24;
    static constexpr int MIN_TRANSFORM_REAL_TAPS = 48;
    static constexpr std::int64_t PART_WORTH = 25;
    static constexpr std::int64_t PART_WORTH_REAL_TAPS = 50;
    // Direct filters take the first outputs from a copy of the delay line and these inputs: as many as a group of
    // outputs at least, since fewer are slow.
    static constexpr std::int64_t MIN_HEAD = 192;

    const FirKernels* kernels = nullptr;
    int tapsLen = 0;
    bool realTaps = true;
    bool transforming = false;
    T* re = nullptr;
    T* im = nullptr;  // null unless complex
    Transforms transforms;

    void Layout(Carver& carver, int newTapsLen) {
        kernels = &FIR_KERNELS.Now();
        tapsLen = newTapsLen;
        re = carver.Take<T>(tapsLen);
        if constexpr (IS_COMPLEX) {
            im = carver.Take<T>(tapsLen);
            if (tapsLen >= MIN_TRANSFORM_TAPS) transforms.Layout(carver, tapsLen, 1);
        }
    }

    void Fill(const S* taps, IppAlgType algType) {
        if constexpr (IS_COMPLEX) {
            for (int k = 0; k < tapsLen; ++k) {
                re[k] = taps[k].re;
                im[k] = taps[k].im;
                realTaps = realTaps && taps[k].im == 0.0F;
            }
            const int least = realTaps && algType == ippAlgAuto ? MIN_TRANSFORM_REAL_TAPS : MIN_TRANSFORM_TAPS;
            transforming = transforms.Possible() && tapsLen >= least && algType != ippAlgDirect;
            if (transforming) transforms.Fill(taps, tapsLen);
        } else {
            std::copy_n(taps, tapsLen, re);
        }
    }

    std::int64_t History() const { return std::int64_t{tapsLen} - 1; }
    std::int64_t Past() const { return transforms.Possible() ? transforms.Past() : History(); }
    std::int64_t HeadLen() const {
        return transforms.Possible() ? transforms.HeadLen() : std::max(History(), MIN_HEAD);
    }

    struct Work {
        S* head = nullptr;
        Transforms::Work transforms;
    };
    Work WorkLayout(Carver& carver) const {
        Work work;
        work.head = carver.Take<S>(Past() + HeadLen());
        if (transforms.Possible()) work.transforms = transforms.WorkLayout(carver);
        return work;
    }

    void Direct(const S* from, S* to, std::int64_t count) const {
        if constexpr (!IS_COMPLEX) {
            if constexpr (std::is_same_v<T, Ipp32f>) {
                kernels->real32f(from, to, count, re, tapsLen);
            } else {
                kernels->real64f(from, to, count, re, tapsLen);
            }
        } else if (realTaps) {
            kernels->real32fc(&from->re, &to->re, count, re, tapsLen);
        } else {
            kernels->complex32fc(&from->re, &to->re, count, re, im, tapsLen);
        }
    }

    void Run(const S* src, S* dst, std::int64_t len, const S* dlySrc, S* dlyDst, Ipp8u* buffer) const {
        Carver carver(buffer);
        const Work work = WorkLayout(carver);
        const std::int64_t headLen = std::min(len, HeadLen());
        FillHead(src, headLen, dlySrc, History(), work.head, Past());
        const S* const first = work.head + Past();
        KeepHistory(src, len, first, History(), dlyDst);
        if constexpr (IS_COMPLEX) {
            if (transforming) {
                const std::int64_t worth =
                    (realTaps ? PART_WORTH_REAL_TAPS : PART_WORTH) * transforms.shorts.size / tapsLen;
                transforms.Run(*kernels, src, len, 0, work.head, dst, len, worth, work.transforms,
                               [this](const S* from, S* to, std::int64_t count) { Direct(from, to, count); });
                return;
            }
        }
        Direct(src + headLen, dst + headLen, len - headLen);
        Direct(first, dst, headLen);
    }
};

IppStatus GiveSizes(const Carver& spec, const Carver& work, int* pSpecSize, int* pBufSize) {
    int specSize = 0;
    int workSize = 0;
    if (spec.GetSize(&specSize) != ippStsNoErr || work.GetSize(&workSize) != ippStsNoErr) return ippStsSizeErr;
    *pSpecSize = specSize;
    *pBufSize = workSize;
    return ippStsNoErr;
}

template <class S>
IppStatus GetSize(int tapsLen, int* pSpecSize, int* pBufSize) {
    FirPlan<S> plan;
    Carver spec(nullptr);
    spec.Take<FirPlan<S>>(1);
    plan.Layout(spec, tapsLen);
    Carver work(nullptr);
    plan.WorkLayout(work);
    return GiveSizes(spec, work, pSpecSize, pBufSize);
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
    plan->Fill(pTaps, algType);
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

namespace ipps_detail {

struct FirDownSpec_32fc {
    // Transforms win the last values when these are more than so many times a segment over the taps. Measured.
    static constexpr std::int64_t PART_WORTH = 16;

    const FirKernels* kernels = nullptr;
    int tapsLen = 0;
    int factor = 1;
    Ipp32fc* reversed = nullptr;  // the taps, last first
    Transforms transforms;

    void Layout(Carver& carver, int newTapsLen, int newFactor) {
        kernels = &FIR_KERNELS.Now();
        tapsLen = newTapsLen;
        factor = newFactor;
        reversed = carver.Take<Ipp32fc>(tapsLen);
        transforms.Layout(carver, tapsLen, factor);
    }

    void Fill(const Ipp32fc* taps) {
        std::reverse_copy(taps, taps + tapsLen, reversed);
        if (transforms.Possible()) transforms.Fill(taps, tapsLen);
    }

    std::int64_t History() const { return std::int64_t{tapsLen} - 1; }
    std::int64_t Past() const { return transforms.Possible() ? transforms.Past() : History(); }
    std::int64_t HeadLen() const { return transforms.Possible() ? transforms.HeadLen() : History(); }

    struct Work {
        Ipp32fc* head = nullptr;
        Transforms::Work transforms;
    };
    Work WorkLayout(Carver& carver) const {
        Work work;
        work.head = carver.Take<Ipp32fc>(Past() + HeadLen());
        if (transforms.Possible()) work.transforms = transforms.WorkLayout(carver);
        return work;
    }

    void Direct(const Ipp32fc* from, Ipp32fc* to) const {
        kernels->dot32fc(&(from - History())->re, &reversed->re, tapsLen, &to->re);
    }

    // Returns the number of values.
    std::int64_t Run(const Ipp32fc* src, std::int64_t len, std::int64_t phase, Ipp32fc* dst, const Ipp32fc* dlySrc,
                     Ipp32fc* dlyDst, Ipp8u* buffer) const {
        Carver carver(buffer);
        const Work work = WorkLayout(carver);
        const Ipp32fc* const first = work.head + Past();
        FillHead(src, std::min(len, HeadLen()), dlySrc, History(), work.head, Past());
        KeepHistory(src, len, first, History(), dlyDst);
        const std::int64_t values = len > phase ? (len - 1 - phase) / factor + 1 : 0;
        if (transforms.Possible()) {
            transforms.Run(*kernels, src, len, phase, work.head, dst, values,
                           PART_WORTH * transforms.shorts.size / tapsLen, work.transforms,
                           [this](const Ipp32fc* from, Ipp32fc* to, std::int64_t count) {
                               for (std::int64_t k = 0; k < count; ++k) Direct(from + k * factor, to + k);
                           });
        } else {
            for (std::int64_t k = 0; k < values; ++k) {
                const std::int64_t at = phase + k * factor;
                Direct((at < History() ? first : src) + at, dst + k);
            }
        }
        return values;
    }
};

IppStatus FirDownGetSize_32fc(int tapsLen, int factor, int* pSpecSize, int* pBufSize) {
    if (AnyNull(pSpecSize, pBufSize)) return ippStsNullPtrErr;
    if (tapsLen < 1) return ippStsSizeErr;
    if (factor < 1) return ippStsBadArgErr;
    FirDownSpec_32fc plan;
    Carver spec(nullptr);
    spec.Take<FirDownSpec_32fc>(1);
    plan.Layout(spec, tapsLen, factor);
    Carver work(nullptr);
    plan.WorkLayout(work);
    return GiveSizes(spec, work, pSpecSize, pBufSize);
}

IppStatus FirDownInit_32fc(const Ipp32fc* pTaps, int tapsLen, int factor, FirDownSpec_32fc* pSpec) {
    if (AnyNull(pTaps) || pSpec == nullptr) return ippStsNullPtrErr;
    if (tapsLen < 1) return ippStsSizeErr;
    if (factor < 1) return ippStsBadArgErr;
    static_assert(std::is_trivially_destructible_v<FirDownSpec_32fc>);
    Carver carver(reinterpret_cast<Ipp8u*>(pSpec));
    FirDownSpec_32fc* const plan = new (carver.Take<FirDownSpec_32fc>(1)) FirDownSpec_32fc;
    plan->Layout(carver, tapsLen, factor);
    plan->Fill(pTaps);
    return ippStsNoErr;
}

IppStatus FirDown_32fc(const Ipp32fc* pSrc, int srcLen, Ipp32fc* pDst, int* pDstLen, const FirDownSpec_32fc* pSpec,
                       const Ipp32fc* pDlySrc, Ipp32fc* pDlyDst, int* pPhase, Ipp8u* pBuf) {
    if (AnyNull(pSrc, pDst, pBuf) || AnyNull(pDstLen, pPhase) || pSpec == nullptr) return ippStsNullPtrErr;
    Carver carver(reinterpret_cast<Ipp8u*>(const_cast<FirDownSpec_32fc*>(pSpec)));
    const FirDownSpec_32fc* const plan = carver.Take<FirDownSpec_32fc>(1);
    if (plan->tapsLen > 1 && AnyNull(pDlySrc, pDlyDst)) return ippStsNullPtrErr;
    if (srcLen < 0) return ippStsSizeErr;
    if (*pPhase < 0 || *pPhase >= plan->factor) return ippStsBadArgErr;
    const std::int64_t values = plan->Run(pSrc, srcLen, *pPhase, pDst, pDlySrc, pDlyDst, pBuf);
    *pDstLen = static_cast<int>(values);
    *pPhase = static_cast<int>(*pPhase + values * plan->factor - srcLen);
    return ippStsNoErr;
}

}  // namespace ipps_detail
