#include "tone_gen.h"

#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "dsp.h"
#include "ipps_kernels.h"
#include "ipps_test_support.h"

using ipps_detail::KernelOverride;
using ipps_detail::KernelsFor;
using ipps_test::Guarded;
using ipps_test::Values;

namespace {

using Complex = std::complex<double>;
constexpr double TWO_PI = 2.0 * std::numbers::pi;
constexpr double RECURRENCE_ERROR = 1e-4;  // of the magnitude, as tone_gen.h promises
constexpr std::array SET_NAMES = {"sse41", "avx2", "avx512"};

Complex Wide(Ipp32fc value) { return {double(value.re), double(value.im)}; }

bool Same(Ipp32fc a, Ipp32fc b) { return Wide(a) == Wide(b); }

// The recurrence as one loop, sample by sample.
std::vector<Ipp32fc> Plain(double freq, double mag, double* phase, int len) {
    const auto product = [](Ipp32fc a, Ipp32fc b) {
        const float rr = a.re * b.re, ii = a.im * b.im, ri = a.re * b.im, ir = a.im * b.re;
        return Ipp32fc{rr - ii, ri + ir};
    };
    const double step = TWO_PI * freq;
    Ipp32fc turns[8] = {{float(std::cos(step)), float(std::sin(step))}};
    for (int k = 1; k < 8; ++k) turns[k] = product(turns[k - 1], turns[0]);
    std::vector<Ipp32fc> tone;
    for (int begin = 0; begin < len; begin += MAX_ITER) {
        const int n = std::min(len - begin, MAX_ITER), body = n - n % 8;
        const std::size_t first = tone.size();
        for (int k = 0; k < n; ++k) {
            if (k == 0) {
                tone.push_back({float(std::cos(*phase) * mag), float(std::sin(*phase) * mag)});
            } else if (k < 8) {
                tone.push_back(product(tone[first], turns[k - 1]));
            } else if (k < body) {
                tone.push_back(product(tone[tone.size() - 8], turns[7]));
            } else {
                tone.push_back(product(tone.back(), turns[0]));
            }
        }
        *phase = std::fmod(n * step + *phase, TWO_PI);
    }
    return tone;
}

// Lengths of no group, of one group and a rest, of whole segments in numbers that go side by side or do not.
TEST(ToneGen, IsTheSameOnAllSetsBitForBit) {
    for (const char* name : SET_NAMES) {
        if (KernelsFor(name) == nullptr) continue;
        SCOPED_TRACE(name);
        const KernelOverride use(*KernelsFor(name));
        for (const int len :
             {1, 2, 7, 8, 9, 15, 16, 17, 24, 33, 1023, 1024, 1025, 1032, 1040, 3072, 4096, 5 * 1024 + 13, 9216}) {
            for (const double freq : {0.0, 0.123, 0.5, 0.999}) {
                double phase = 1.25, plainPhase = 1.25;
                Guarded<Ipp32fc> tone(len, len % 3);
                amToneGen_32fc_sse3(tone.data(), freq, 0.75, &phase, len);
                const std::vector<Ipp32fc> plain = Plain(freq, 0.75, &plainPhase, len);
                for (int n = 0; n < len; ++n)
                    ASSERT_TRUE(Same(tone[n], plain[static_cast<std::size_t>(n)])) << n << " of " << len;
                ASSERT_EQ(phase, plainPhase);
            }
        }
    }
}

TEST(ToneGen, StaysWithinItsErrorWhateverTheLength) {
    for (const double freq : {1e-9, 0.0123, 0.25, 0.61803398875, 0.9999}) {
        constexpr int LEN = 1000000;
        std::vector<Ipp32fc> tone(LEN);
        double phase = 0.5, untouched = 2.0;
        amToneGen_32fc_sse3(tone.data(), freq, 2.0, &phase, LEN);
        for (int n = 0; n < LEN; n += 101) {
            const double angle = TWO_PI * std::fmod(freq * n, 1.0) + 0.5;
            ASSERT_LE(std::abs(Wide(tone[static_cast<std::size_t>(n)]) - std::polar(2.0, angle)),
                      2.0 * RECURRENCE_ERROR)
                << freq << ' ' << n;
        }
        EXPECT_NEAR(std::remainder(phase - TWO_PI * freq * LEN - 0.5, TWO_PI), 0.0, 1e-9) << freq;
        amToneGen_32fc_sse3(nullptr, freq, 2.0, &untouched, 0);
        EXPECT_EQ(untouched, 2.0);
    }
}

// Blocks of any length make one tone, equal to that of the exact angle.
TEST(Tuner, ShiftsAStreamInUnevenBlocks) {
    constexpr int LEN = 30000;
    Values values;
    std::vector<Ipp32fc> src(LEN), dst(LEN);
    for (Ipp32fc& sample : src) values.Next(sample);
    for (const bool accurate : {false, true}) {
        for (const double freq : {0.0, 0.3, -0.25, -1.0, 0.987}) {
            DSP::IQFreqTuner_32fc tuner(freq, 9000, accurate);
            dst = src;
            for (int done = 0, count = 1; done < LEN; done += count) {
                count = std::min({3 * count, tuner.blockLen, LEN - done});
                tuner.Tune(dst.data() + done, dst.data() + done, count);
                ASSERT_GE(tuner.phase_64f, 0.0);
                ASSERT_LT(tuner.phase_64f, TWO_PI);
            }
            // In double precision the product rounds twice and the tone once, on values of up to sqrt(2).
            const double bound = accurate ? 8.0 * 0x1p-24 : std::numbers::sqrt2 * RECURRENCE_ERROR;
            for (std::size_t n = 0; n < LEN; n += 11) {
                const double angle = TWO_PI * std::fmod(freq * static_cast<double>(n), 1.0);
                const Complex want = Wide(src[n]) * std::polar(1.0, angle);
                ASSERT_LE(std::abs(Wide(dst[n]) - want), bound) << freq << ' ' << n << " accurate " << accurate;
            }
        }
    }
}

TEST(Tuner, TakesNegativeFrequenciesAsTheirAliases) {
    const struct { double given, held; } rows[] = {{-0.25, 0.75}, {-1.0, 0.0}, {-1e-20, 0.0}, {-0.0, 0.0}, {0.5, 0.5}};
    for (const auto& row : rows) {
        for (const bool accurate : {false, true}) {
            DSP::IQFreqTuner_32fc tuner(row.given, 3, accurate);
            EXPECT_EQ(tuner.freq, row.held) << row.given;
            const Ipp32fc ones[3] = {{1, 0}, {1, 0}, {1, 0}};
            Ipp32fc tone[3];
            tuner.Tune(ones, tone);
            EXPECT_LE(std::abs(Wide(tone[2]) - std::polar(1.0, 2.0 * TWO_PI * row.given)), 1e-6) << row.given;
        }
    }
}

TEST(Tuner, ContinuesATonePartOfTheWay) {
    constexpr int OFFSET = 12345;
    DSP::IQFreqTuner_32fc whole(0.0371, OFFSET + 100, true), part(0.0371, 100, true);
    whole.GenNextToneSegment(OFFSET + 100);
    part.SetPhaseOffset(OFFSET);
    part.GenNextToneSegment(100);
    for (std::size_t n = 0; n < 100; ++n) {
        EXPECT_LE(std::abs(Wide(part.tone_32fc[n]) - Wide(whole.tone_32fc[n + OFFSET])), 0x1p-23) << n;
    }
    part.SetPhaseOffset(-1);
    EXPECT_NEAR(part.phase_64f, TWO_PI * (1.0 - 0.0371), 1e-12);
    part.SetPhaseOffset(0);
    EXPECT_EQ(part.phase_64f, 0.0);
    part.SetPhaseOffset(7);
    part.Init(0.5, 1, false);
    EXPECT_EQ(part.phase_64f, 0.0);
}

TEST(TunerDeathTest, RefusesWhatIsNoFrequencyOrTooLong) {
    DSP::IQFreqTuner_32fc tuner;
    Ipp32fc data[2] = {};
    EXPECT_DEATH(tuner.Init(1.5, 1, true), "assertion failed");
    EXPECT_DEATH(tuner.Init(-1.0001, 1, false), "assertion failed");
    EXPECT_DEATH(tuner.Init(std::nan(""), 1, true), "assertion failed");
    EXPECT_DEATH(tuner.Tune(data, data, 1), "len <= blockLen");
    tuner.Init(1.0, 2, false);
    EXPECT_DEATH(tuner.Tune(data, data), "freq != 1.0");
}

}  // namespace
