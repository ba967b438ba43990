#include <numbers>

#include "ipps.h"
#include "ipps_fir_down.h"
#include "ipps_test_support.h"

using ipps_test::Guarded;
using ipps_test::Values;

namespace {

constexpr double TWO_PI = 2.0 * std::numbers::pi;

// The fraction of a turn after n samples, exactly: the frequency is a whole number of 2^-64ths, and turns wrap there.
// Holds for 0 and from 2^-11 up.
double FractionOfTurn(double freq, int n) {
    const auto units = static_cast<std::uint64_t>(std::ldexp(freq, 64));
    return std::ldexp(static_cast<double>(units * static_cast<std::uint64_t>(n)), -64);
}

TEST(IppsTone, KeepsItsPhaseOverLongLengthsAndAcrossBlocks) {
    constexpr int LEN = 3000000;
    for (const double freq : {0.0, 0.25, 0.1, 1.0 / 3.0, 0.7123456789, 0x1.fffffffffffffp-1}) {
        for (const int block : {LEN, 99991}) {
            const double start = 2.5;
            double phase = start;
            std::vector<Ipp64fc> tone(LEN);
            for (int done = 0; done < LEN; done += block) {
                const int count = std::min(block, LEN - done);
                ASSERT_EQ(ippsTone_64fc(tone.data() + done, count, 2.0, freq, &phase, ippAlgHintFast), ippStsNoErr);
                ASSERT_GE(phase, 0.0);
                ASSERT_LT(phase, TWO_PI);
            }
            const auto angleAt = [&](int n) { return TWO_PI * FractionOfTurn(freq, n) + start; };
            // A few roundings in one call; each hand-over of a phase adds one of up to 2 pi.
            const double bound = 4e-15 + 2e-15 * (LEN / block);
            for (const int n : {0, 1, 63, 64, 65, 1000003, LEN - 1}) {
                EXPECT_NEAR(tone[static_cast<std::size_t>(n)].re, 2.0 * std::cos(angleAt(n)), bound)
                    << freq << ' ' << n;
                EXPECT_NEAR(tone[static_cast<std::size_t>(n)].im, 2.0 * std::sin(angleAt(n)), bound)
                    << freq << ' ' << n;
            }
            EXPECT_NEAR(std::remainder(phase - angleAt(LEN), TWO_PI), 0.0, bound) << freq;
        }
    }
}

TEST(IppsTone, AFullTurnIsPhase0) {
    double phase = -1e-18;  // plus a full turn this is the full turn itself
    Ipp64fc tone;
    ASSERT_EQ(ippsTone_64fc(&tone, 1, 1.0, 0.0, &phase, ippAlgHintFast), ippStsNoErr);
    EXPECT_EQ(phase, 0.0);
}

TEST(IppsSampleDown, ContinuesWhereTheLastBlockEnded) {
    for (const int factor : {1, 2, 3, 16}) {
        std::vector<float> src(200), got;
        std::vector<Ipp32fc> pairs(200), gotPairs;
        for (int n = 0; n < 200; ++n) {
            src[static_cast<std::size_t>(n)] = static_cast<float>(n);
            pairs[static_cast<std::size_t>(n)] = {static_cast<float>(n), static_cast<float>(-n)};
        }
        int phase = factor - 1, pairPhase = factor - 1;
        for (int done = 0, count = 0; done < 200; done += count) {
            count = std::min(count + 1, 200 - done);  // from blocks shorter than the factor upward
            int outLen = -1, pairLen = -1;
            float* const at = src.data() + done;
            ASSERT_EQ(ippsSampleDown_32f(at, count, at, &outLen, factor, &phase), ippStsNoErr);  // in place
            got.insert(got.end(), at, at + outLen);
            Guarded<Ipp32fc> out((count + factor - 1) / factor);
            ASSERT_EQ(ippsSampleDown_32fc(pairs.data() + done, count, out.data(), &pairLen, factor, &pairPhase),
                      ippStsNoErr);
            gotPairs.insert(gotPairs.end(), out.data(), out.data() + pairLen);
            ASSERT_EQ(outLen, pairLen);
            ASSERT_EQ(phase, pairPhase);
        }
        ASSERT_EQ(got.size(), static_cast<std::size_t>(200 / factor));
        for (std::size_t k = 0; k < got.size(); ++k) {
            const auto want = static_cast<float>(static_cast<int>(k) * factor + factor - 1);
            EXPECT_EQ(got[k], want);
            EXPECT_EQ(gotPairs[k].im, -want);
        }
    }
    Ipp32fc five[5] = {}, out[3];
    int outLen = 0, phase = 0;
    ippsSampleDown_32fc(five, 5, out, &outLen, 2, &phase);
    EXPECT_EQ(outLen, 3);
    EXPECT_EQ(phase, 1);
}

TEST(IppsTranspose, TurnsASquareInItsPlace) {
    float square[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const float turned[9] = {1, 4, 7, 2, 5, 8, 3, 6, 9};
    ASSERT_EQ(ippiTranspose_32f_C1R(square, 12, square, 12, {3, 3}), ippStsNoErr);
    EXPECT_EQ(std::memcmp(square, turned, sizeof(square)), 0);
}

// What planners compute and clients ask for reaches these: sizes beyond int, and frequencies that are none.
TEST(IppsArguments, OutOfRangeAreRefused) {
    constexpr int HUGE_LEN = 1 << 29, LAST = std::numeric_limits<int>::max();
    const double nan = std::nan("");
    Ipp64fc tone[4];
    double phase = 0.0, taps[26];
    float a[16] = {}, zeroA0[4] = {1, 1, 0, 1};
    Ipp16s s[4] = {};
    Ipp8u memory[4096];
    int x = 0, y = 0, z = 0, past = 2;
    IppsIIRState_32f* state = nullptr;
    const auto lowpass = [&](double freq) {
        return ippsFIRGenLowpass_64f(freq, taps, 5, ippWinRect, ippTrue, nullptr);
    };
    const auto chebyshev = [&](double freq, double ripple, int order) {
        return ippsIIRGenLowpass_64f(freq, ripple, order, taps, ippChebyshev1, nullptr);
    };
    const struct {
        const char* what;
        IppStatus got, want;
    } rows[] = {
        {"order of 26", ippsFFTGetSize_C_64fc(26, 1, ippAlgHintNone, &x, &y, &z), ippStsFftOrderErr},
        {"flag 3", ippsFFTGetSize_R_64f(4, 3, ippAlgHintNone, &x, &y, &z), ippStsFftFlagErr},
        {"filter beyond int", ippsFIRSRGetSize(HUGE_LEN, ipp32fc, &x, &y), ippStsSizeErr},
        {"no taps", ippsFIRSRGetSize(0, ipp32f, &x, &y), ippStsSizeErr},
        {"decimator beyond int", ipps_detail::FirDownGetSize_32fc(HUGE_LEN, 2, &x, &y), ippStsSizeErr},
        {"decimator by 0", ipps_detail::FirDownGetSize_32fc(2, 0, &x, &y), ippStsBadArgErr},
        {"cut-off 0.5", lowpass(0.5), ippStsRelFreqErr},
        {"cut-off NaN", lowpass(nan), ippStsRelFreqErr},
        {"edge NaN", chebyshev(nan, 1, 2), ippStsRelFreqErr},
        {"ripple 0", chebyshev(0.1, 0, 2), ippStsRippleErr},
        {"order 13", chebyshev(0.1, 1, 13), ippStsSizeErr},
        {"state beyond int", ippsIIRGetStateSize_32f(LAST, &x), ippStsSizeErr},
        {"A0", ippsIIRInit_32f(&state, zeroA0, 1, nullptr, memory), ippStsDivByZeroErr},
        {"frequency 1", ippsTone_64fc(tone, 4, 1, 1.0, &phase, ippAlgHintFast), ippStsRelFreqErr},
        {"frequency NaN", ippsTone_64fc(tone, 4, 1, nan, &phase, ippAlgHintFast), ippStsRelFreqErr},
        {"offset of the factor", ippsSampleDown_32f(a, 4, a, &x, 2, &past), ippStsBadArgErr},
        {"scale to float", ippsConvert_16s32f_Sfs(s, a, 4, 65), ippStsScaleRangeErr},
        {"negative length", ippsAdd_32f(a, a, a, -1), ippStsSizeErr},
        {"null before length", ippsAdd_32f(a, nullptr, a, -1), ippStsNullPtrErr},
        {"in place, not square", ippiTranspose_32f_C1R(a, 16, a, 16, {4, 2}), ippStsSizeErr},
    };
    for (const auto& row : rows) EXPECT_EQ(row.got, row.want) << row.what;
}

}  // namespace
