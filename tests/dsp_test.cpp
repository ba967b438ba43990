// The wrappers, windows, designs and conversions of namespace DSP, against double-precision references.
#include "dsp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <new>
#include <numbers>
#include <numeric>
#include <random>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Complex = std::complex<double>;
constexpr double PI = std::numbers::pi;

double ToDB(double amplitude) { return 20.0 * std::log10(amplitude); }

// Spectrum of real values at frequency f, a fraction of the sample rate.
template <typename Values>
Complex ResponseAt(const Values& values, double f) {
    Complex sum = 0.0;
    double n = 0.0;
    for (const auto value : values) sum += static_cast<double>(value) * std::polar(1.0, -2.0 * PI * f * n++);
    return sum;
}

Complex Value(double sample) { return sample; }
Complex Value(const Ipp32fc& sample) { return {sample.re, sample.im}; }

template <typename Sample>
std::vector<Sample> Noise(int count, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    std::vector<Sample> samples(static_cast<size_t>(count));
    for (Sample& sample : samples) {
        if constexpr (std::is_same_v<Sample, Ipp32fc>) {
            sample = {uniform(engine), uniform(engine)};
        } else {
            sample = uniform(engine);
        }
    }
    return samples;
}

// Also that new taps forget the past.
template <typename Filter, typename Sample, typename Real>
void ExpectOneConvolution() {
    constexpr int BLOCKS[] = {1, 7, 100, 3, 500, 389};
    constexpr size_t COUNT = 1000;
    const auto x = Noise<Sample>(COUNT, 5);
    Filter filter;
    EXPECT_DEATH(filter.SetTaps(x.data(), 0), "tapsLen > 0");
    for (const int tapCount : {1, 2, 31, 150}) {
        const auto taps = Noise<Sample>(tapCount, 6);
        filter.SetTaps(taps.data(), tapCount);
        auto y = x;
        Sample* block = y.data();
        for (const int length : BLOCKS) {
            EXPECT_EQ(filter.Filter(block, block, length), 0);
            block += length;
        }
        // Each product and each sum, of magnitude below 2 * tapCount, is rounded once.
        const double bound = 2.0 * tapCount * std::numeric_limits<Real>::epsilon();
        for (size_t n = 0; n < COUNT; n++) {
            Complex expected = 0.0;
            for (size_t k = 0; k < taps.size() && k <= n; k++) expected += Value(taps[k]) * Value(x[n - k]);
            ASSERT_LT(std::abs(Value(y[n]) - expected), bound) << "taps " << tapCount << " sample " << n;
        }
    }
}

}  // namespace

TEST(DspVector, IsAlignedAndKeepsItsBoundsThroughResize) {
    DSP::Vector<double> v(3);
    for (const int64_t size : {1, 100000, 7}) {
        v.resize(size);
        ASSERT_EQ(v.size(), size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(v.data()) % 64, 0u);
        v[size - 1] = 1;
        EXPECT_DEATH(v[size] = 1, "mem && pos < capacity");
    }
    EXPECT_DEATH(v.resize(-1), "newSize >= 0");
    EXPECT_THROW(v.resize(std::numeric_limits<int64_t>::max() / 4), std::bad_alloc);
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(v.size(), 0);
    EXPECT_DEATH(v[0] = 1, "mem && pos < capacity");
}

// The forward transform is checked bin by bin in the sweep processor.
TEST(DspFFT, InverseUndoesForwardAndMayRunInPlace) {
    constexpr int ORDER = 6;
    const auto x = Noise<Ipp32fc>(1 << ORDER, 1);
    DSP::FFT_32fc fft(ORDER, 1, ippAlgHintFast);
    auto spectrum = x;
    auto back = x;
    fft.FwdFFT_I(spectrum.data());
    fft.InvFFT(spectrum.data(), back.data());
    EXPECT_LT(std::abs(Value(spectrum[0])), 0.5) << "divided by the length";
    for (size_t n = 0; n < x.size(); n++) EXPECT_LT(std::abs(Value(back[n]) - Value(x[n])), 2e-6) << n;
    EXPECT_DEATH(DSP::FFT_32fc(40, 1, ippAlgHintFast), "status == 0");
}

TEST(DspFir, BlocksOfAnyLengthAreOneConvolution) {
    ExpectOneConvolution<DSP::FIR_32f, float, float>();
    ExpectOneConvolution<DSP::FIR_64f, double, double>();
    ExpectOneConvolution<DSP::FIR_32fc, Ipp32fc, float>();
}

TEST(DspIir, LowpassPassesDCAndHighpassDoesNot) {
    using FilterType = DSP::IIR_32f::FilterType;
    // An even order puts DC at the bottom of the ripple, an odd one at its top.
    const std::tuple<FilterType, int, double> CASES[] = {
        {FilterType::Lowpass, 4, -0.5}, {FilterType::Lowpass, 3, 0.0}, {FilterType::Highpass, 3, -999.0}};
    DSP::IIR_32f filter;
    for (const auto& [type, order, levelDB] : CASES) {
        filter.SetTaps(0.1, 0.5, order, type);
        std::vector<float> step(2000, 1.0f);  // settles in that time
        filter.Filter_I(step.data(), 2000);
        EXPECT_NEAR(step.back(), std::pow(10.0, levelDB / 20.0), 1e-4) << order;
    }
}

// Single-precision cosines leave errors near 1e-7 in two of the windows, and none in the others.
TEST(DspWindow, IsItsCosineSum) {
    constexpr int N = 1000;
    struct Case {
        TqWindowType window;
        std::vector<double> a;  // coefficients of cos(2 pi k n / (N - 1))
        double least, most;     // largest deviation from the exact window
    };
    const Case CASES[] = {
        {tqWindowFlatTop, {1.0, -1.93, 1.29, -0.388, 0.028}, 1e-8, 2e-6},
        {tqWindowNutall, {0.355768, -0.487396, 0.144232, -0.012604}, 1e-8, 1e-6},
        {tqWindowBlackman, {0.42659, -0.49656, 0.076849}, 0.0, 1e-15},
        {tqWindowHamming, {0.54, -0.46}, 0.0, 1e-15},
        {tqWindowRect, {1.0}, 0.0, 0.0},
    };
    for (const Case& c : CASES) {
        std::vector<double> w(N);
        std::vector<float> narrow(N);
        std::vector<Ipp32fc> complex(N);
        DSP::buildWindowFunction(c.window, w.data(), N);
        DSP::BuildWindowFunction(c.window, narrow.data(), N);
        DSP::BuildWindowFunction(c.window, complex.data(), N);
        double deviation = 0.0;
        for (size_t n = 0; n < N; n++) {
            double exact = 0.0;
            for (size_t k = 0; k < c.a.size(); k++) {
                exact += c.a[k] * std::cos(2.0 * PI * static_cast<double>(k * n) / (N - 1));
            }
            deviation = std::max(deviation, std::abs(w[n] - exact));
            EXPECT_EQ(narrow[n], static_cast<float>(w[n]));
            EXPECT_EQ(Value(complex[n]), Complex(narrow[n], 0.0));
        }
        EXPECT_GE(deviation, c.least) << c.window;
        EXPECT_LE(deviation, c.most) << c.window;
        DSP::buildWindowFunction(c.window, w.data(), 1);
        EXPECT_EQ(w[0], 1.0) << c.window;
    }
}

// The bandwidths are the instrument's own, and lie near those of their windows: the Blackman's is 2.1 % off.
TEST(DspWindow, BandwidthsAreThoseOfTheWindows) {
    constexpr int N = 4096;
    std::vector<double> w(N);
    for (const TqWindowType window : {tqWindowFlatTop, tqWindowNutall, tqWindowBlackman, tqWindowHamming}) {
        DSP::buildWindowFunction(window, w.data(), N);
        double sum = 0.0;
        double power = 0.0;
        for (const double value : w) {
            sum += value;
            power += value * value;
        }
        EXPECT_NEAR(DSP::GetWindowBandwidth(window) / (N * power / (sum * sum)), 1.0, 0.022) << window;
    }
    // This one is defined where its response is down by 6 dB.
    DSP::buildWindowFunction(tqWindowGaussian6dB, w.data(), N);
    const double edge = DSP::GetWindowBandwidth(tqWindowGaussian6dB) / 2.0 / N;
    EXPECT_NEAR(ToDB(std::abs(ResponseAt(w, edge)) / std::abs(ResponseAt(w, 0.0))), -6.0, 0.1);
    constexpr double NINE_POINTS[] = {0.006721, 0.062162, 0.29096, 0.734444, 1.0};
    DSP::buildWindowFunction(tqWindowGaussian6dB, w.data(), 9);
    for (size_t n = 0; n < 9; n++) EXPECT_NEAR(w[n], NINE_POINTS[std::min(n, 8 - n)], 6e-7) << n;

    EXPECT_DEATH(DSP::GetWindowBandwidth(static_cast<TqWindowType>(6)), "assertion failed: false");
}

TEST(DspWindow, NormalizingMakesTheSumTheLengthWithItsPadding) {
    constexpr int PADDED = 1024;
    std::vector<double> w64(PADDED, 0.0);
    std::vector<float> w32(PADDED, 0.0f);
    std::vector<Ipp32fc> wc(PADDED, {0.0f, 7.0f});
    DSP::buildWindowFunction(tqWindowFlatTop, w64.data(), 1000);
    for (size_t n = 0; n < PADDED; n++) wc[n].re = w32[n] = static_cast<float>(w64[n]);
    DSP::NormalizeWindow(w64.data(), PADDED);
    DSP::NormalizeWindow(w32.data(), PADDED);
    DSP::NormalizeWindow(wc.data(), PADDED);
    EXPECT_NEAR(ResponseAt(w64, 0.0).real(), PADDED, PADDED * 1e-14);
    for (size_t n = 0; n < PADDED; n++) {
        EXPECT_NEAR(w32[n], w64[n], 1e-6) << n;
        EXPECT_EQ(Value(wc[n]), Complex(w32[n], 7.0)) << n;
    }
}

TEST(DspDesign, NarrowedLowpassesAreTheDoubleOne) {
    double t64[31];
    float t32[31];
    Ipp32fc tc[31];
    DSP::GetLowpassFIRTaps_64f(t64, 31, 0.1f, ippWinBlackman, ippTrue);
    DSP::GetLowpassFIRTaps_32f(t32, 31, 0.1f, ippWinBlackman, ippTrue);
    DSP::GetLowpassFIRTaps_32fc(tc, 31, 0.1f, ippWinBlackman, ippTrue);
    for (size_t n = 0; n < 31; n++) {
        EXPECT_EQ(t32[n], static_cast<float>(t64[n]));
        EXPECT_EQ(Value(tc[n]), Complex(t32[n], 0.0));
    }
}

// All 65536 values; at short lengths, that the scratch inside the destination survives its own expansion and stays
// inside.
TEST(DspConvert, EveryDeviceValueLosesItsOffsetExactly) {
    constexpr int COUNT = 32768;
    std::vector<Ipp16sc> all(COUNT);
    for (int n = 0; n < COUNT; n++) {
        all[static_cast<size_t>(n)] = {static_cast<Ipp16s>(2 * n - 32768), static_cast<Ipp16s>(2 * n - 32767)};
    }
    const auto expected = [](Ipp16s value) { return static_cast<float>(std::max(value - 576, -32768)) / 32768.0f; };
    std::vector<int> lengths(40);
    std::iota(lengths.begin(), lengths.end(), 1);
    lengths.push_back(COUNT);
    for (const int length : lengths) {
        const Ipp16sc* src = all.data() + COUNT - length;
        std::vector<Ipp32fc> guarded(static_cast<size_t>(length) + 2, {1234.0f, 1234.0f});
        EXPECT_EQ(DSP::Convert_16sc32fc(src, guarded.data() + 1, length), 0);
        for (int n = 0; n < length; n++) {
            const Ipp32fc& got = guarded[static_cast<size_t>(n) + 1];
            ASSERT_EQ(got.re, expected(src[n].re)) << length;
            ASSERT_EQ(got.im, expected(src[n].im)) << length;
        }
        EXPECT_EQ(guarded.front().im, 1234.0f);
        EXPECT_EQ(guarded.back().re, 1234.0f);
    }
}

TEST(DspConvert, FloatToDeviceRoundsAndSaturates) {
    const Ipp32fc src = {1.5f / 32768, 3e38f};
    Ipp16sc dst;
    DSP::Convert_32fc16sc(&src, &dst, 1);
    EXPECT_EQ(dst.re, 2);
    EXPECT_EQ(dst.im, 32767);
}

TEST(DspConvert, DecibelsBecomeAmplitude) {
    for (float dB = -200.0f; dB <= 40.0f; dB += 0.37f) {
        float linear = dB;
        DSP::DBCalToLin_32f(&linear, 1);
        // Constant and product are rounded to float, and the exponential magnifies that by its argument.
        const double bound = (std::abs(dB) * 0.116 + 4.0) * std::numeric_limits<float>::epsilon();
        EXPECT_NEAR(linear / std::pow(10.0, dB / 20.0), 1.0, bound) << dB;
    }
}

TEST(DspNumbers, RoundingTakesHalvesUpAndSaturates) {
    const struct {
        double n;
        int as32;
        int64_t as64;
    } CASES[] = {{-2.5, -2, -2},
                 {-2.51, -3, -3},
                 {2147483647.5, INT_MAX, 2147483648},
                 {-2147483649.0, INT_MIN, -2147483649},
                 {1e300, INT_MAX, INT64_MAX},
                 {-1e300, INT_MIN, INT64_MIN},
                 {9223372036854774784.0, INT_MAX, 9223372036854774784},
                 {NAN, 0, 0}};
    for (const auto& c : CASES) {
        EXPECT_EQ(DSP::RoundToInt(c.n), c.as32) << c.n;
        EXPECT_EQ(DSP::RoundToInt64(c.n), c.as64) << c.n;
    }
    EXPECT_EQ(DSP::RoundUpPowerTwo(INT_MAX), 1 << 30);
    EXPECT_EQ(DSP::RoundUpPowerTwo(INT_MIN), 1);
    EXPECT_DEATH(DSP::IntLogBase2(0), "IsPowerOf2\\(n\\)");
}
