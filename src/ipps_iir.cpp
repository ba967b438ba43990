#include <array>
#include <cmath>
#include <complex>
#include <new>

#include "ipps.h"
#include "ipps_detail.h"

using ipps_detail::AnyNull;
using ipps_detail::Carver;

// Transposed direct form II: z[k] is the part of output n + 1 + k that is already known. All in double precision,
// since poles near the unit circle magnify what a single-precision state would lose.
struct IppsIIRState_32f {
    int order = 0;
    Ipp64f* b = nullptr;  // order + 1 values each, divided by A0
    Ipp64f* a = nullptr;
    Ipp64f* z = nullptr;  // order values, and a zero that ends the chain

    void Layout(Carver& carver, int newOrder) {
        order = newOrder;
        b = carver.Take<Ipp64f>(std::int64_t{order} + 1);
        a = carver.Take<Ipp64f>(std::int64_t{order} + 1);
        z = carver.Take<Ipp64f>(std::int64_t{order} + 1);
    }
};

namespace {

constexpr int MAX_DESIGN_ORDER = 12;
constexpr Ipp64f MAX_RIPPLE_DB = 29.0;

// Poles of the analogue prototype, moved one by one to the z plane, where the polynomials are multiplied out. The gain
// is fixed at the prototype's zero frequency: that of the low-pass, half the sample rate for the high-pass.
IppStatus Chebyshev(Ipp64f rFreq, Ipp64f rRipple, int order, Ipp64f* pTaps, IppsIIRFilterType filterType,
                    bool highpass) {
    if (pTaps == nullptr) return ippStsNullPtrErr;
    if (order < 1 || order > MAX_DESIGN_ORDER) return ippStsSizeErr;
    if (!(rFreq > 0.0 && rFreq < 0.5)) return ippStsRelFreqErr;
    if (!(rRipple > 0.0 && rRipple <= MAX_RIPPLE_DB)) return ippStsRippleErr;
    if (filterType != ippChebyshev1) return ippStsBadArgErr;

    using Complex = std::complex<Ipp64f>;
    const Ipp64f edge = std::tan(std::numbers::pi * rFreq);
    const Ipp64f epsilon = std::sqrt(std::expm1(rRipple / 10.0 * std::numbers::ln10));
    const Ipp64f mu = std::asinh(1.0 / epsilon) / order;
    const Ipp64f zero = highpass ? 1.0 : -1.0;       // order-fold, in the z plane
    const Ipp64f reference = highpass ? -1.0 : 1.0;  // point of known gain in the z plane

    std::array<Complex, MAX_DESIGN_ORDER + 1> denominator = {Complex(1.0)};
    std::array<Ipp64f, MAX_DESIGN_ORDER + 1> numerator = {1.0};
    Complex gain = order % 2 == 0 ? std::pow(10.0, -rRipple / 20.0) : 1.0;
    for (int k = 0; k < order; ++k) {
        const Ipp64f theta = std::numbers::pi * (2 * k + 1) / (2 * order);
        const Complex prototype(-std::sinh(mu) * std::sin(theta), std::cosh(mu) * std::cos(theta));
        const Complex analogue = highpass ? edge / prototype : edge * prototype;
        const Complex pole = (1.0 + analogue) / (1.0 - analogue);
        gain *= (1.0 - pole * reference) / 2.0;
        for (std::size_t i = static_cast<std::size_t>(k) + 1; i > 0; --i) {
            denominator[i] -= pole * denominator[i - 1];
            numerator[i] -= zero * numerator[i - 1];
        }
    }
    for (int i = 0; i <= order; ++i) {
        pTaps[i] = gain.real() * numerator[static_cast<std::size_t>(i)];
        pTaps[order + 1 + i] = denominator[static_cast<std::size_t>(i)].real();
    }
    return ippStsNoErr;
}

}  // namespace

IppStatus ippsIIRGenGetBufferSize(int order, int* pBufferSize) {
    if (pBufferSize == nullptr) return ippStsNullPtrErr;
    if (order < 1 || order > MAX_DESIGN_ORDER) return ippStsSizeErr;
    *pBufferSize = 0;
    return ippStsNoErr;
}

IppStatus ippsIIRGenLowpass_64f(Ipp64f rFreq, Ipp64f rRipple, int order, Ipp64f* pTaps, IppsIIRFilterType filterType,
                                Ipp8u*) {
    return Chebyshev(rFreq, rRipple, order, pTaps, filterType, false);
}

IppStatus ippsIIRGenHighpass_64f(Ipp64f rFreq, Ipp64f rRipple, int order, Ipp64f* pTaps, IppsIIRFilterType filterType,
                                 Ipp8u*) {
    return Chebyshev(rFreq, rRipple, order, pTaps, filterType, true);
}

IppStatus ippsIIRGetStateSize_32f(int order, int* pBufferSize) {
    if (pBufferSize == nullptr) return ippStsNullPtrErr;
    if (order < 1) return ippStsSizeErr;
    IppsIIRState_32f state;
    Carver carver(nullptr);
    carver.Take<IppsIIRState_32f>(1);
    state.Layout(carver, order);
    return carver.GetSize(pBufferSize);
}

IppStatus ippsIIRInit_32f(IppsIIRState_32f** ppState, const Ipp32f* pTaps, int order, const Ipp32f* pDlyLine,
                          Ipp8u* pBuf) {
    if (ppState == nullptr || AnyNull(pTaps, pBuf)) return ippStsNullPtrErr;
    int size = 0;
    if (const IppStatus status = ippsIIRGetStateSize_32f(order, &size); status != ippStsNoErr) return status;
    const Ipp64f a0 = static_cast<Ipp64f>(pTaps[order + 1]);
    if (a0 == 0.0) return ippStsDivByZeroErr;
    Carver carver(pBuf);
    IppsIIRState_32f* const state = new (carver.Take<IppsIIRState_32f>(1)) IppsIIRState_32f;
    state->Layout(carver, order);
    for (int k = 0; k <= order; ++k) {
        state->b[k] = static_cast<Ipp64f>(pTaps[k]) / a0;
        state->a[k] = static_cast<Ipp64f>(pTaps[order + 1 + k]) / a0;
        state->z[k] = pDlyLine != nullptr && k < order ? static_cast<Ipp64f>(pDlyLine[k]) : 0.0;
    }
    *ppState = state;
    return ippStsNoErr;
}

IppStatus ippsIIR_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len, IppsIIRState_32f* pState) {
    if (AnyNull(pSrc, pDst) || pState == nullptr) return ippStsNullPtrErr;
    if (len < 0) return ippStsSizeErr;
    const Ipp64f* const b = pState->b;
    const Ipp64f* const a = pState->a;
    Ipp64f* const z = pState->z;
    for (int n = 0; n < len; ++n) {
        const Ipp64f x = static_cast<Ipp64f>(pSrc[n]);
        const Ipp64f y = z[0] + b[0] * x;
        for (int k = 1; k <= pState->order; ++k) z[k - 1] = z[k] + b[k] * x - a[k] * y;
        pDst[n] = static_cast<Ipp32f>(y);
    }
    return ippStsNoErr;
}

IppStatus ippsIIR_32f_I(Ipp32f* pSrcDst, int len, IppsIIRState_32f* pState) {
    return ippsIIR_32f(pSrcDst, pSrcDst, len, pState);
}
