#include <array>
#include <cmath>
#include <numbers>

#include "ipps.h"
#include "ipps_kernels.h"
#include "ipps_test_support.h"

using ipps_detail::KernelOverride;
using ipps_detail::KernelsFor;
using ipps_test::Guarded;

namespace {

constexpr std::array SET_NAMES = {"sse41", "avx2", "avx512"};
constexpr double UNIT_ROUNDOFF = 0x1p-53;

// In units of the rounding error of a double: the phase's own sine and cosine and their magnitude 0.7 each; three exact
// points with angles of up to an eighth of a turn 1.6 each; the three complex products between them 2.3 each.
constexpr double TONE_ERROR = 13.0 * UNIT_ROUNDOFF;

TEST(IppsTone, IsWithinAFewRoundingsAndTheSameOnAllSets) {
    constexpr int LEN = 1 << 20;
    constexpr long double TWO_PI = 2.0L * std::numbers::pi_v<long double>;
    for (const double freq : {0x1p-11, 0.1, 1.0 / 3.0, 0.5, 0.61803398875, 0x1.fffffffffffffp-1}) {
        constexpr double MAGNITUDE = 3.0, START = 5.7;
        std::vector<Ipp64fc> first;
        for (const char* name : SET_NAMES) {
            if (KernelsFor(name) == nullptr) continue;
            const KernelOverride use(*KernelsFor(name));
            std::vector<Ipp64fc> tone(LEN);
            double phase = START;
            ASSERT_EQ(ippsTone_64fc(tone.data(), LEN, MAGNITUDE, freq, &phase, ippAlgHintFast), ippStsNoErr);
            if (first.empty()) first = tone;
            ASSERT_EQ(std::memcmp(tone.data(), first.data(), LEN * sizeof(Ipp64fc)), 0) << name;
        }
        // Turns exactly: the frequency is a whole number of 2^-64ths, and turns wrap there.
        const auto units = static_cast<std::uint64_t>(std::ldexp(freq, 64));
        for (std::uint64_t n = 0; n < LEN; n += n < 300 ? 1 : 997) {
            const long double angle =
                TWO_PI * std::ldexp(static_cast<long double>(units * n), -64) + static_cast<long double>(START);
            const auto re = static_cast<double>(static_cast<long double>(first[n].re) - MAGNITUDE * std::cos(angle));
            const auto im = static_cast<double>(static_cast<long double>(first[n].im) - MAGNITUDE * std::sin(angle));
            ASSERT_LE(std::hypot(re, im), MAGNITUDE * TONE_ERROR) << freq << ' ' << n;
        }
    }
}

}  // namespace
