#include "tone_gen.h"

#include "tone_kernels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace {

constexpr double TWO_PI = 2.0 * std::numbers::pi;
constexpr int GROUP = 8;     // values made from one another at this distance, independently of each other
constexpr int SEGMENTS = 4;  // worked on side by side

// Plain single precision, each operation rounded, as the vectors do it.
Ipp32fc Product(Ipp32fc a, Ipp32fc b) { return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re}; }

Ipp32fc Polar(double magnitude, double angle) {
    return {static_cast<float>(std::cos(angle) * magnitude), static_cast<float>(std::sin(angle) * magnitude)};
}

}  // namespace

void amToneGen_32fc_sse3(Ipp32fc* dst, double freq, double mag, double* phase, int64_t len) {
    if (len <= 0) return;
    const double step = TWO_PI * freq;
    std::array<Ipp32fc, GROUP> turns;  // of 1 to 8 samples
    turns[0] = Polar(1.0, step);
    for (std::size_t k = 1; k < GROUP; ++k) turns[k] = Product(turns[k - 1], turns[0]);

    while (len > 0) {
        const int n = static_cast<int>(std::min<int64_t>(len, MAX_ITER));
        const int segments = n < MAX_ITER ? 1 : static_cast<int>(std::min<int64_t>(len / MAX_ITER, SEGMENTS));
        for (int s = 0; s < segments; ++s) {
            Ipp32fc* const segment = dst + s * MAX_ITER;
            segment[0] = Polar(mag, *phase);
            for (int k = 1; k < std::min(n, GROUP); ++k) {
                segment[k] = Product(segment[0], turns[static_cast<std::size_t>(k) - 1]);
            }
            *phase = std::fmod(n * step + *phase, TWO_PI);
        }
        const int body = n - n % GROUP;
        if (body > GROUP) TONE_KERNELS.Now().recur32fc(&dst->re, body, segments, MAX_ITER, &turns[GROUP - 1].re);
        for (int k = std::max(body, std::min(n, GROUP)); k < n; ++k) dst[k] = Product(dst[k - 1], turns[0]);
        dst += segments * n;
        len -= segments * n;
    }
}
