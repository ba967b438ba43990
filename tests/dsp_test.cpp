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

Complex Value(const Ipp32fc& sample) { return {sample.re, sample.im}; }

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
