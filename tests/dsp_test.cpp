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
#include <random>
#include <vector>

namespace {

using Complex = std::complex<double>;
constexpr double PI = std::numbers::pi;

double ToDB(double amplitude) { return 20.0 * std::log10(amplitude); }

std::vector<double> Noise(int count, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    std::vector<double> values(static_cast<size_t>(count));
    for (double& value : values) value = uniform(engine);
    return values;
}

// Spectrum of real values at frequency f, a fraction of the sample rate.
template <typename Values>
Complex ResponseAt(const Values& values, double f) {
    Complex sum = 0.0;
    double n = 0.0;
    for (const auto value : values) sum += static_cast<double>(value) * std::polar(1.0, -2.0 * PI * f * n++);
    return sum;
}

}  // namespace

TEST(DspVector, IsAlignedAndKeepsItsBoundsThroughResize) {
    DSP::Vector<unsigned char> v(3);
    for (const int64_t size : {1, 100000, 100000, 7}) {
        v.resize(size);
        ASSERT_EQ(v.size(), size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(v.data()) % 64, 0u);
        v[size - 1] = 1;
        EXPECT_DEATH(v[size] = 1, "mem && pos < capacity");
    }
    v.resize(0);
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(v.size(), 0);
    EXPECT_EQ(v.data(), nullptr);
    EXPECT_DEATH(v[0] = 1, "mem && pos < capacity");
    EXPECT_DEATH(v.resize(-1), "newSize >= 0");
}

TEST(DspVector, ALengthBeyondMemoryThrowsAndLeavesItEmpty) {
    DSP::Vector<double> v(5);
    EXPECT_THROW(v.resize(std::numeric_limits<int64_t>::max() / 4), std::bad_alloc);
    EXPECT_TRUE(v.empty());
}

// ippInit cannot be watched from here; that the processor is looked at each time can.
TEST(DspStartUp, EachInitLooksAtTheProcessorAgain) {
    const bool expected = __builtin_cpu_supports("avx2") != 0;
    for (const bool before : {true, false}) {
        DSP::hasAVX2 = before;
        DSP::InitIpps();
        EXPECT_EQ(DSP::AVX2Supported(), expected);
    }
}

template <typename T>
class DspComplexFFT : public testing::Test {};
using ComplexTypes = testing::Types<Ipp32fc, Ipp64fc>;
TYPED_TEST_SUITE(DspComplexFFT, ComplexTypes);

TYPED_TEST(DspComplexFFT, ForwardIsTheDftOverNAndInverseUndoesIt) {
    using Real = decltype(TypeParam::re);
    for (const int order : {0, 1, 6}) {
        const size_t count = size_t{1} << order;
        const std::vector<double> re = Noise(1 << order, 1);
        const std::vector<double> im = Noise(1 << order, 2);
        std::vector<TypeParam> x(count);
        for (size_t n = 0; n < count; n++) x[n] = {static_cast<Real>(re[n]), static_cast<Real>(im[n])};

        DSP::FFT_CToC<TypeParam> fft(order, 1, ippAlgHintFast);
        std::vector<TypeParam> spectrum(count);
        fft.FwdFFT(x.data(), spectrum.data());
        // Values of order 1: a few roundings in each of at most 6 passes.
        const double bound = 16.0 * std::numeric_limits<Real>::epsilon();
        for (size_t k = 0; k < count; k++) {
            const double f = static_cast<double>(k) / static_cast<double>(count);
            const Complex expected = (ResponseAt(re, f) + Complex(0, 1) * ResponseAt(im, f)) / double(count);
            EXPECT_NEAR(spectrum[k].re, expected.real(), bound);
            EXPECT_NEAR(spectrum[k].im, expected.imag(), bound);
        }

        std::vector<TypeParam> back(count);
        fft.InvFFT(spectrum.data(), back.data());
        std::vector<TypeParam> inPlace = x;
        fft.FwdFFT_I(inPlace.data());
        for (size_t n = 0; n < count; n++) {
            EXPECT_NEAR(back[n].re, re[n], bound);
            EXPECT_NEAR(back[n].im, im[n], bound);
            EXPECT_EQ(inPlace[n].re, spectrum[n].re);
            EXPECT_EQ(inPlace[n].im, spectrum[n].im);
        }
    }
}

TEST(DspRealFFT, PacksDcAndNyquistIntoTheFirstElement) {
    constexpr int N = 32;
    const std::vector<double> x = Noise(N, 3);
    DSP::IppsFFT_64f fft(5, 1, ippAlgHintAccurate);
    std::vector<Ipp64fc> spectrum(N / 2);
    fft.FwdFFT(x.data(), spectrum.data());
    constexpr double BOUND = 1e-15;
    EXPECT_NEAR(spectrum[0].re, ResponseAt(x, 0.0).real() / N, BOUND);
    EXPECT_NEAR(spectrum[0].im, ResponseAt(x, 0.5).real() / N, BOUND);
    for (size_t k = 1; k < N / 2; k++) {
        const Complex expected = ResponseAt(x, static_cast<double>(k) / N) / double(N);
        EXPECT_NEAR(spectrum[k].re, expected.real(), BOUND);
        EXPECT_NEAR(spectrum[k].im, expected.imag(), BOUND);
    }

    std::vector<double> back(N);
    fft.InvFFT(spectrum.data(), back.data());
    std::vector<double> inPlace = x;
    fft.FwdFFT_I(inPlace.data());
    for (size_t n = 0; n < N; n++) {
        EXPECT_NEAR(back[n], x[n], 16 * BOUND);
        EXPECT_EQ(inPlace[n], n % 2 == 0 ? spectrum[n / 2].re : spectrum[n / 2].im);
    }
}

TEST(DspFFT, AnOrderOutOfRangeIsAFault) {
    EXPECT_DEATH(DSP::FFT_32fc(-1, 1, ippAlgHintFast), "status == 0");
    EXPECT_DEATH(DSP::FFT_32fc(40, 1, ippAlgHintFast), "status == 0");
    EXPECT_DEATH(DSP::IppsFFT_64f(40, 1, ippAlgHintFast), "status == 0");
}

Complex Value(double sample) { return sample; }
Complex Value(const Ipp32fc& sample) { return {sample.re, sample.im}; }

template <typename Sample>
std::vector<Sample> NoiseOf(int count, unsigned seed) {
    const std::vector<double> noise = Noise(2 * count, seed);
    std::vector<Sample> samples(static_cast<size_t>(count));
    for (size_t n = 0; n < samples.size(); n++) {
        if constexpr (std::is_same_v<Sample, Ipp32fc>) {
            samples[n] = {static_cast<float>(noise[2 * n]), static_cast<float>(noise[2 * n + 1])};
        } else {
            samples[n] = static_cast<Sample>(noise[n]);
        }
    }
    return samples;
}

template <typename FilterClass, typename SampleType, typename RealType>
struct FirCase {
    using Filter = FilterClass;
    using Sample = SampleType;
    using Real = RealType;
};
template <typename T>
class DspFir : public testing::Test {};
using FirTypes = testing::Types<FirCase<DSP::FIR_32f, float, float>, FirCase<DSP::FIR_64f, double, double>,
                                FirCase<DSP::FIR_32fc, Ipp32fc, float>>;
TYPED_TEST_SUITE(DspFir, FirTypes);

TYPED_TEST(DspFir, BlocksOfAnyLengthAreOneConvolutionAndNewTapsForgetThePast) {
    constexpr int BLOCKS[] = {1, 7, 100, 3, 500, 389};
    constexpr size_t COUNT = 1000;
    const auto x = NoiseOf<typename TypeParam::Sample>(COUNT, 5);
    typename TypeParam::Filter filter;
    for (const int tapCount : {1, 2, 31, 150}) {
        const auto taps = NoiseOf<typename TypeParam::Sample>(tapCount, 6);
        filter.SetTaps(taps.data(), tapCount);
        auto y = x;
        auto* block = y.data();
        for (const int length : BLOCKS) {
            EXPECT_EQ(filter.Filter(block, block, length), 0);
            block += length;
        }
        // Each product and each sum, of magnitude below 2 * tapCount, is rounded once.
        const double bound = 2.0 * tapCount * std::numeric_limits<typename TypeParam::Real>::epsilon();
        for (size_t n = 0; n < COUNT; n++) {
            Complex expected = 0.0;
            for (size_t k = 0; k < taps.size() && k <= n; k++) expected += Value(taps[k]) * Value(x[n - k]);
            ASSERT_LT(std::abs(Value(y[n]) - expected), bound) << "taps " << tapCount << " sample " << n;
        }
    }
}

TYPED_TEST(DspFir, UseBeforeTapsAndEmptyTapsAreFaults) {
    typename TypeParam::Filter filter;
    auto x = NoiseOf<typename TypeParam::Sample>(1, 1);
    EXPECT_DEATH(filter.Filter(x.data(), x.data(), 1), "spec != nullptr");
    EXPECT_DEATH(filter.SetTaps(nullptr, 1), "assertion failed: taps");
    EXPECT_DEATH(filter.SetTaps(x.data(), 0), "tapsLen > 0");
}

TEST(DspFir32fc, FlushForgetsThePastAndKeepsTheTaps) {
    const auto taps = NoiseOf<Ipp32fc>(20, 7);
    const auto x = NoiseOf<Ipp32fc>(50, 8);
    DSP::FIR_32fc filter(taps.data(), 20);
    auto first = x;
    filter.Filter_I(first.data(), 50);
    filter.Flush();
    auto second = x;
    filter.Filter_I(second.data(), 50);
    for (size_t n = 0; n < x.size(); n++) EXPECT_EQ(Value(first[n]), Value(second[n]));
    EXPECT_EQ(Value(filter.GetTaps().back()), Value(taps.back()));
}

TEST(DspIir, MeetsItsDesignAndRunsOnOverBlocks) {
    using FilterType = DSP::IIR_32f::FilterType;
    struct Case {
        const char* name;
        FilterType type;
        double freq, ripple;
        int order;
        double atDC, atNyquist;  // gain [dB]; below -100: none
    };
    // An even order starts its pass band at the bottom of the ripple, an odd one at the top. The gain at the cut-off is
    // the ripple's in all.
    const Case CASES[] = {
        {"low 1", FilterType::Lowpass, 0.0044, 0.2, 1, 0.0, -999.0},
        {"low 4", FilterType::Lowpass, 0.1, 0.5, 4, -0.5, -999.0},
        {"high 2", FilterType::Highpass, 0.0033, 0.2, 2, -999.0, -0.2},
        {"high 5", FilterType::Highpass, 0.2, 3.0, 5, -999.0, 0.0},
    };
    constexpr int COUNT = 20000;  // the slowest has died away by then
    for (const Case& c : CASES) {
        SCOPED_TRACE(c.name);
        DSP::IIR_32f filter;
        filter.SetTaps(c.freq, c.ripple, c.order, c.type);
        std::vector<float> impulse(COUNT, 0.0f);
        impulse[0] = 1.0f;
        std::vector<float> whole(COUNT);
        filter.Filter(impulse.data(), whole.data(), COUNT);

        const auto expectGain = [&](double f, double expected) {
            const double gain = ToDB(std::abs(ResponseAt(whole, f)));
            if (expected < -100.0) {
                EXPECT_LT(gain, -60.0) << f;
            } else {
                EXPECT_NEAR(gain, expected, 0.005) << f;
            }
        };
        expectGain(0.0, c.atDC);
        expectGain(c.freq, -c.ripple);
        expectGain(0.5, c.atNyquist);

        filter.SetTaps(c.freq, c.ripple, c.order, c.type);
        for (int n = 0; n < COUNT; n += 2500) filter.Filter_I(impulse.data() + n, 2500);
        EXPECT_EQ(impulse, whole);
    }
}

TEST(DspIir, UseBeforeTapsIsAFault) {
    DSP::IIR_32f filter;
    float x = 0.0f;
    EXPECT_DEATH(filter.Filter_I(&x, 1), "status == 0");
}

TEST(DspWindow, NinePointsAreThePrintedOnes) {
    struct Case {
        TqWindowType window;
        double w[5];  // the rest mirrors them
    };
    const Case CASES[] = {
        {tqWindowFlatTop, {0.0, -0.118359, -0.262, 2.062359, 4.636}},
        {tqWindowNutall, {0.0, 0.020039, 0.211536, 0.691497, 1.0}},
        {tqWindowBlackman, {0.006879, 0.075469, 0.349741, 0.777711, 0.999999}},
        {tqWindowHamming, {0.08, 0.214731, 0.54, 0.865269, 1.0}},
        {tqWindowGaussian6dB, {0.006721, 0.062162, 0.29096, 0.734444, 1.0}},
        {tqWindowRect, {1.0, 1.0, 1.0, 1.0, 1.0}},
    };
    for (const Case& c : CASES) {
        double exact[9];
        float narrow[9];
        Ipp32fc complex32[9];
        Ipp64fc complex64[9];
        DSP::buildWindowFunction(c.window, exact, 9);
        DSP::BuildWindowFunction(c.window, narrow, 9);
        DSP::BuildWindowFunction(c.window, complex32, 9);
        DSP::BuildWindowFunction(c.window, complex64, 9);
        for (int n = 0; n < 9; n++) {
            EXPECT_NEAR(exact[n], c.w[std::min(n, 8 - n)], 6e-7) << c.window << " " << n;
            EXPECT_EQ(narrow[n], static_cast<float>(exact[n]));
            EXPECT_EQ(complex32[n].re, narrow[n]);
            EXPECT_EQ(complex32[n].im, 0.0f);
            EXPECT_EQ(complex64[n].re, exact[n]);
            EXPECT_EQ(complex64[n].im, 0.0);
        }
        DSP::buildWindowFunction(c.window, exact, 1);
        EXPECT_EQ(exact[0], 1.0) << c.window;
    }
}

// The constants are the instrument's own, and lie near the noise bandwidth of their windows: the Blackman's is 2.1 %
// off.
TEST(DspWindow, BandwidthsAreThoseOfTheWindows) {
    constexpr int N = 4096;
    std::vector<double> w(N);
    for (const TqWindowType window :
         {tqWindowFlatTop, tqWindowNutall, tqWindowBlackman, tqWindowHamming, tqWindowRect}) {
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

    EXPECT_DEATH(DSP::GetWindowBandwidth(static_cast<TqWindowType>(6)), "assertion failed: false");
    EXPECT_DEATH(DSP::buildWindowFunction(static_cast<TqWindowType>(7), w.data(), N), "assertion failed: false");
}

// Single-precision cosines leave errors near 1e-7 in two of the windows, and none in the others.
TEST(DspWindow, FlatTopAndNuttallTakeTheCosineInSinglePrecision) {
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
    };
    for (const Case& c : CASES) {
        std::vector<double> w(N);
        DSP::buildWindowFunction(c.window, w.data(), N);
        double deviation = 0.0;
        for (int n = 0; n < N; n++) {
            double exact = 0.0;
            for (size_t k = 0; k < c.a.size(); k++) {
                exact += c.a[k] * std::cos(2.0 * PI * static_cast<double>(k) * n / (N - 1));
            }
            deviation = std::max(deviation, std::abs(w[static_cast<size_t>(n)] - exact));
        }
        EXPECT_GE(deviation, c.least) << c.window;
        EXPECT_LE(deviation, c.most) << c.window;
    }
}

TEST(DspWindow, NormalizingMakesTheSumTheLengthWithItsPadding) {
    constexpr int N = 1000;
    constexpr int PADDED = 1024;
    std::vector<double> w64(PADDED, 0.0);
    std::vector<float> w32(PADDED, 0.0f);
    std::vector<Ipp32fc> wc(PADDED, {0.0f, 0.0f});
    DSP::buildWindowFunction(tqWindowFlatTop, w64.data(), N);
    DSP::BuildWindowFunction(tqWindowFlatTop, w32.data(), N);
    DSP::BuildWindowFunction(tqWindowFlatTop, wc.data(), N);
    wc[3].im = 7.0f;
    DSP::NormalizeWindow(w64.data(), PADDED);
    DSP::NormalizeWindow(w32.data(), PADDED);
    DSP::NormalizeWindow(wc.data(), PADDED);
    double sum64 = 0.0, sum32 = 0.0, sumC = 0.0;
    for (size_t n = 0; n < PADDED; n++) {
        sum64 += w64[n];
        sum32 += w32[n];
        sumC += wc[n].re;
    }
    // The factor and each of the values is rounded by half a unit in the last place.
    EXPECT_NEAR(sum64, PADDED, PADDED * 1e-14);
    EXPECT_NEAR(sum32, PADDED, PADDED * 2e-7);
    EXPECT_NEAR(sumC, PADDED, PADDED * 2e-7);
    EXPECT_EQ(wc[3].im, 7.0f);
}

TEST(DspDesign, LowpassHasUnitGainAndHalfOfItAtTheCutoff) {
    constexpr int LEN = 257;
    std::vector<double> t64(LEN);
    std::vector<float> t32(LEN);
    std::vector<Ipp32fc> tc(LEN);
    EXPECT_EQ(DSP::GetLowpassFIRTaps_64f(t64.data(), LEN, 0.1f, ippWinBlackman, ippTrue), 0);
    EXPECT_EQ(DSP::GetLowpassFIRTaps_32f(t32.data(), LEN, 0.1f, ippWinBlackman, ippTrue), 0);
    EXPECT_EQ(DSP::GetLowpassFIRTaps_32fc(tc.data(), LEN, 0.1f, ippWinBlackman, ippTrue), 0);
    EXPECT_NEAR(std::abs(ResponseAt(t64, 0.0)), 1.0, 1e-12);
    EXPECT_NEAR(std::abs(ResponseAt(t64, 0.1f)), 0.5, 1e-3);
    EXPECT_LT(std::abs(ResponseAt(t64, 0.12)), 1e-3);
    for (size_t n = 0; n < LEN; n++) {
        EXPECT_NEAR(t64[n], t64[LEN - 1 - n], 1e-15);
        EXPECT_EQ(t32[n], static_cast<float>(t64[n]));
        EXPECT_EQ(tc[n].re, t32[n]);
        EXPECT_EQ(tc[n].im, 0.0f);
    }
    EXPECT_DEATH(DSP::GetLowpassFIRTaps_32fc(tc.data(), LEN, 0.5f, ippWinBlackman, ippTrue), "cutoff < 0.5");
    EXPECT_DEATH(DSP::GetLowpassFIRTaps_64f(t64.data(), LEN, 0.5f, ippWinBlackman, ippTrue), "status == 0");
}

TEST(DspConvert, EveryDeviceValueLosesItsOffsetExactly) {
    constexpr int COUNT = 32768;  // pairs: all 65536 values
    std::vector<Ipp16sc> src(COUNT);
    for (int n = 0; n < COUNT; n++) {
        src[static_cast<size_t>(n)] = {static_cast<Ipp16s>(2 * n - 32768), static_cast<Ipp16s>(2 * n - 32767)};
    }
    const auto expected = [](Ipp16s value) { return static_cast<float>(std::max(value - 576, -32768)) / 32768.0f; };
    std::vector<Ipp32fc> dst(COUNT);
    EXPECT_EQ(DSP::Convert_16sc32fc(src.data(), dst.data(), COUNT), 0);
    for (size_t n = 0; n < COUNT; n++) {
        ASSERT_EQ(dst[n].re, expected(src[n].re));
        ASSERT_EQ(dst[n].im, expected(src[n].im));
    }

    // The scratch inside the destination must survive its own expansion at every length, and stay inside.
    for (size_t len = 1; len <= 40; len++) {
        std::vector<Ipp32fc> guarded(len + 2, {1234.0f, 1234.0f});
        DSP::Convert_16sc32fc(src.data() + 16000, guarded.data() + 1, static_cast<int>(len));
        for (size_t n = 0; n < len; n++) {
            ASSERT_EQ(guarded[n + 1].re, expected(src[16000 + n].re)) << len;
            ASSERT_EQ(guarded[n + 1].im, expected(src[16000 + n].im)) << len;
        }
        EXPECT_EQ(guarded.front().im, 1234.0f);
        EXPECT_EQ(guarded.back().re, 1234.0f);
    }

    const Ipp16sc one = {576 + 100, 576 - 100};
    Ipp32fc scaled;
    DSP::Convert_16sc32fc_Sfs(&one, &scaled, 1, 2);
    EXPECT_EQ(scaled.re, 25.0f);
    EXPECT_EQ(scaled.im, -25.0f);
}

TEST(DspConvert, FloatToDeviceRoundsAndSaturates) {
    const struct {
        float value;
        Ipp16s expected;
    } CASES[] = {{0.5f, 16384},     {1.0f, 32767},       {-1.0f, -32768},     {0.0f, 0},
                 {0.5f / 32768, 0}, {1.5f / 32768, 2},   {-1.5f / 32768, -2}, {0.6f / 32768, 1},
                 {INFINITY, 32767}, {-INFINITY, -32768}, {3e38f, 32767},      {-7.0f, -32768}};
    for (const auto& c : CASES) {
        const Ipp32fc src = {c.value, -0.25f};
        Ipp16sc dst;
        DSP::Convert_32fc16sc(&src, &dst, 1);
        EXPECT_EQ(dst.re, c.expected) << c.value;
        EXPECT_EQ(dst.im, -8192);
    }
}

TEST(DspConvert, DecibelsBecomeAmplitude) {
    std::vector<float> values;
    for (float dB = -200.0f; dB <= 40.0f; dB += 0.37f) values.push_back(dB);
    std::vector<float> linear = values;
    DSP::DBCalToLin_32f(linear.data(), static_cast<int>(linear.size()));
    for (size_t n = 0; n < values.size(); n++) {
        const double exact = std::pow(10.0, values[n] / 20.0);
        // Constant and product are rounded to float, and the exponential magnifies that by its argument.
        const double bound = (std::abs(values[n]) * 0.116 + 4.0) * std::numeric_limits<float>::epsilon();
        EXPECT_NEAR(linear[n] / exact, 1.0, bound) << values[n];
    }
}

TEST(DspNumbers, PowersOfTwo) {
    const struct {
        int n;
        bool isPower;
        int roundedUp;
    } CASES[] = {{INT_MIN, false, 1},
                 {-4, false, 1},
                 {0, false, 1},
                 {1, true, 1},
                 {3, false, 4},
                 {1024, true, 1024},
                 {1025, false, 2048},
                 {1 << 30, true, 1 << 30},
                 {(1 << 30) + 1, false, 1 << 30},
                 {INT_MAX, false, 1 << 30}};
    for (const auto& c : CASES) {
        EXPECT_EQ(DSP::IsPowerOf2(c.n), c.isPower) << c.n;
        EXPECT_EQ(DSP::RoundUpPowerTwo(c.n), c.roundedUp) << c.n;
    }
    EXPECT_EQ(DSP::IntLogBase2(1), 0);
    EXPECT_EQ(DSP::IntLogBase2(1 << 30), 30);
    EXPECT_DEATH(DSP::IntLogBase2(0), "IsPowerOf2\\(n\\)");
    EXPECT_TRUE(DSP::IsOdd(-3));
    EXPECT_FALSE(DSP::IsOdd(-4));
}

TEST(DspNumbers, RoundingTakesHalvesUpAndSaturates) {
    const struct {
        double n;
        int as32;
        int64_t as64;
    } CASES[] = {{2.5, 3, 3},
                 {-2.5, -2, -2},
                 {-2.51, -3, -3},
                 {2147483647.49, INT_MAX, 2147483647},
                 {2147483647.5, INT_MAX, 2147483648},
                 {-2147483647.0, -INT_MAX, -2147483647},
                 {-2147483648.5, INT_MIN, -2147483648},
                 {-2147483649.0, INT_MIN, -2147483649},
                 {1e300, INT_MAX, INT64_MAX},
                 {-1e300, INT_MIN, INT64_MIN},
                 {9223372036854774784.0, INT_MAX, 9223372036854774784},
                 {INFINITY, INT_MAX, INT64_MAX},
                 {-INFINITY, INT_MIN, INT64_MIN},
                 {NAN, 0, 0}};
    for (const auto& c : CASES) {
        EXPECT_EQ(DSP::RoundToInt(c.n), c.as32) << c.n;
        EXPECT_EQ(DSP::RoundToInt64(c.n), c.as64) << c.n;
    }
}
