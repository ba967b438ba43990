#include <array>
#include <cmath>
#include <numbers>

#include "ipps.h"
#include "ipps_detail.h"
#include "tone_kernels.h"

using ipps_detail::Check;

namespace {

constexpr Ipp64f TWO_PI = 2.0 * std::numbers::pi;

// Turns after n samples, less the nearest multiple of 1 / parts. The fused operation recovers what the product's
// rounding loses, which for a long tone would be far above the rounding of the tone itself.
struct Turns {
    Ipp64f multiples;
    Ipp64f rest;
};
Turns TurnsAfter(Ipp64f rFreq, int n, int parts) {
    const Ipp64f turns = rFreq * n;
    const Ipp64f lost = std::fma(rFreq, static_cast<Ipp64f>(n), -turns);
    const Ipp64f multiples = std::nearbyint(parts * turns);
    return {multiples, (turns - multiples / parts) + lost};
}

Ipp64fc Polar(Ipp64f angle) { return {std::cos(angle), std::sin(angle)}; }

Ipp64fc Product(Ipp64fc a, Ipp64fc b) { return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re}; }

// The value after n samples from phase 0. The angle stays within an eighth of a turn, where its rounding is least.
Ipp64fc ToneAt(Ipp64f rFreq, int n) {
    const Turns turns = TurnsAfter(rFreq, n, 4);
    const Ipp64fc w = Polar(TWO_PI * turns.rest);
    switch (static_cast<std::int64_t>(turns.multiples) % 4) {
        case 0:
            return w;
        case 1:
            return {-w.im, w.re};
        case 2:
            return {-w.re, -w.im};
        default:
            return {w.im, -w.re};
    }
}

}  // namespace

IppStatus ippsTone_64fc(Ipp64fc* pDst, int len, Ipp64f magn, Ipp64f rFreq, Ipp64f* pPhase, IppHintAlgorithm) {
    if (const IppStatus status = Check(len, pDst, pPhase); status != ippStsNoErr) return status;
    if (!(rFreq >= 0.0 && rFreq < 1.0)) return ippStsRelFreqErr;

    // Each stretch starts from its own exact value and turns through the same table, which is made of two exact ones:
    // a few roundings and no drift. In radians the phase would be rounded once more; it is a factor instead.
    constexpr int STRETCH = 128;
    constexpr int ROW = 8;
    std::array<Ipp64fc, STRETCH> turns;
    const int tableLen = std::min(len, STRETCH);
    for (int k = 0; k < tableLen; ++k) {
        Ipp64fc* const turn = turns.data() + k;
        *turn = k < ROW || k % ROW == 0 ? ToneAt(rFreq, k)
                                        : Product(*(turn - k % ROW), turns[static_cast<std::size_t>(k % ROW)]);
    }
    Ipp64fc origin = Polar(*pPhase);
    origin = {magn * origin.re, magn * origin.im};
    for (int n = 0; n < len; n += std::min(len - n, STRETCH)) {
        const Ipp64fc start = Product(origin, ToneAt(rFreq, n));
        TONE_KERNELS.Now().rotate64fc(&start.re, &turns[0].re, &pDst[n].re, std::min(len - n, STRETCH));
    }

    Ipp64f phase = std::fmod(*pPhase + TWO_PI * TurnsAfter(rFreq, len, 1).rest, TWO_PI);
    if (phase < 0.0) phase += TWO_PI;
    *pPhase = phase < TWO_PI ? phase : 0.0;  // a tiny negative phase rounds up to the full turn
    return ippStsNoErr;
}
