#include <numbers>

#include "ipps.h"
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

TEST(IppsTone, QuarterTurnsComeBackToPhase0) {
    double phase = 0.0;
    Guarded<Ipp64fc> tone(4, 1);
    ASSERT_EQ(ippsTone_64fc(tone.data(), 4, 1.0, 0.25, &phase, ippAlgHintFast), ippStsNoErr);
    const double want[4][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
    for (int n = 0; n < 4; ++n) {
        EXPECT_NEAR(tone[n].re, want[n][0], 1e-15);
        EXPECT_NEAR(tone[n].im, want[n][1], 1e-15);
    }
    EXPECT_EQ(phase, 0.0);
    phase = -1e-18;  // plus a full turn this is the full turn itself, which is phase 0
    ippsTone_64fc(tone.data(), 4, 1.0, 0.0, &phase, ippAlgHintFast);
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

TEST(IppsWindow, BlackmanTapersFromTheMiddleToZero) {
    double window[5] = {2, 2, 2, 2, 2};
    ASSERT_EQ(ippsWinBlackmanStd_64f_I(window, 5), ippStsNoErr);
    const double want[5] = {0.0, 0.68, 2.0, 0.68, 0.0};
    for (int n = 0; n < 5; ++n) EXPECT_NEAR(window[n], want[n], 1e-15);
}

TEST(IppsTranspose, MovesEachElementAndLeavesThePaddingAlone) {
    const struct {
        int width, height, srcPad, dstPad;
    } rows[] = {{1, 1, 0, 0}, {5, 3, 2, 1}, {16, 16, 0, 0}, {17, 33, 3, 5}, {100, 47, 0, 4}};
    for (const auto& row : rows) {
        const int srcStride = row.width + row.srcPad, dstStride = row.height + row.dstPad;
        Guarded<float> src(srcStride * row.height, 1), dst(dstStride * row.width, 1);
        for (int n = 0; n < src.size(); ++n) src[n] = static_cast<float>(n);
        for (int n = 0; n < dst.size(); ++n) dst[n] = -1.0F;
        ASSERT_EQ(ippiTranspose_32f_C1R(src.data(), srcStride * 4, dst.data(), dstStride * 4, {row.width, row.height}),
                  ippStsNoErr);
        for (int y = 0; y < row.width; ++y) {
            for (int x = 0; x < dstStride; ++x) {
                ASSERT_EQ(dst[y * dstStride + x], x < row.height ? src[x * srcStride + y] : -1.0F) << x << ',' << y;
            }
        }
    }
    float square[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const float turned[9] = {1, 4, 7, 2, 5, 8, 3, 6, 9};
    ASSERT_EQ(ippiTranspose_32f_C1R(square, 12, square, 12, {3, 3}), ippStsNoErr);
    EXPECT_EQ(std::memcmp(square, turned, sizeof(square)), 0);
}

TEST(IppsSignal, RejectsBadArguments) {
    Ipp64fc tone[4];
    double phase = 0.0, window[3] = {};
    float a[16] = {}, b[16] = {};
    int len = 0, offset = 0, tooFar = 2, negative = -1;
    const auto transpose = [&](int srcStep, int dstStep, int width, int height) {
        return ippiTranspose_32f_C1R(a, srcStep, b, dstStep, {width, height});
    };
    const struct {
        const char* what;
        IppStatus got, want;
    } rows[] = {
        {"null tone", ippsTone_64fc(nullptr, 4, 1, 0.1, &phase, ippAlgHintFast), ippStsNullPtrErr},
        {"null phase", ippsTone_64fc(tone, 4, 1, 0.1, nullptr, ippAlgHintFast), ippStsNullPtrErr},
        {"tone length", ippsTone_64fc(tone, -1, 1, 0.1, &phase, ippAlgHintFast), ippStsSizeErr},
        {"frequency 1", ippsTone_64fc(tone, 4, 1, 1.0, &phase, ippAlgHintFast), ippStsRelFreqErr},
        {"frequency below 0", ippsTone_64fc(tone, 4, 1, -0.1, &phase, ippAlgHintFast), ippStsRelFreqErr},
        {"frequency NaN", ippsTone_64fc(tone, 4, 1, std::nan(""), &phase, ippAlgHintFast), ippStsRelFreqErr},
        {"null count", ippsSampleDown_32f(a, 4, b, nullptr, 2, &offset), ippStsNullPtrErr},
        {"factor 0", ippsSampleDown_32f(a, 4, b, &len, 0, &offset), ippStsBadArgErr},
        {"offset of the factor", ippsSampleDown_32f(a, 4, b, &len, 2, &tooFar), ippStsBadArgErr},
        {"offset below 0", ippsSampleDown_32f(a, 4, b, &len, 2, &negative), ippStsBadArgErr},
        {"window of 2", ippsWinBlackmanStd_64f_I(window, 2), ippStsSizeErr},
        {"null window", ippsWinBlackmanStd_64f_I(nullptr, 3), ippStsNullPtrErr},
        {"short source row", transpose(12, 16, 4, 4), ippStsSizeErr},
        {"short result row", transpose(16, 12, 4, 4), ippStsSizeErr},
        {"row of broken floats", transpose(18, 16, 4, 4), ippStsSizeErr},
        {"negative width", transpose(16, 16, -1, 4), ippStsSizeErr},
        {"in place, not square", ippiTranspose_32f_C1R(a, 16, a, 16, {4, 2}), ippStsSizeErr},
    };
    for (const auto& row : rows) EXPECT_EQ(row.got, row.want) << row.what;
}

}  // namespace
