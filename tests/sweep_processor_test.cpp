// SweepFFT and SweepProcessor against a plain double-precision model: DFT by definition, video filter and detectors as
// formulas, conversions through the power.
#include "sweep_processor.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Complex = std::complex<double>;

constexpr TqWindowType WINDOWS[] = {tqWindowFlatTop, tqWindowNutall,      tqWindowBlackman,
                                    tqWindowHamming, tqWindowGaussian6dB, tqWindowRect};
constexpr TqVideoUnits UNITS[] = {tqVideoLog, tqVideoVoltage, tqVideoPower, tqVideoSample};

struct Layout {
    std::size_t fftSize;
    std::size_t zeroPad;
};

struct VideoFilter {
    double a0;
    int transforms;
};

SweepSetup PlanOf(Layout layout, VideoFilter filter) {
    SweepSetup setup;
    setup.fftSize = static_cast<int>(layout.fftSize);
    setup.zeroPadAmount = static_cast<int>(layout.zeroPad);
    setup.bestFFTSize = setup.fftSize - setup.zeroPadAmount;
    setup.iirFc = filter.a0;
    setup.fftsPerStep = filter.transforms;
    return setup;
}

TqSweepSettings Settings(TqWindowType window, TqVideoUnits units, TqScale scale, TqDetector detector) {
    TqSweepSettings settings;
    settings.window = window;
    settings.videoUnits = units;
    settings.scale = scale;
    settings.detector = detector;
    return settings;
}

std::size_t InputSize(const SweepSetup& setup) {
    return static_cast<std::size_t>((setup.fftsPerStep - 1) * (setup.fftSize / 4) + setup.bestFFTSize);
}

std::vector<Ipp32fc> Noise(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::normal_distribution<float> normal(0.0f, 0.1f);
    std::vector<Ipp32fc> samples(count);
    for (Ipp32fc& sample : samples) sample = {normal(generator), normal(generator)};
    return samples;
}

// A tone in output bin `bin` of a row of fftSize.
std::vector<Ipp32fc> Tone(std::size_t count, std::size_t fftSize, std::size_t bin, double amplitude) {
    std::vector<Ipp32fc> samples(count);
    for (std::size_t n = 0; n < count; n++) {
        const auto turn = static_cast<double>(n * (bin + fftSize / 2) % fftSize) / static_cast<double>(fftSize);
        const Complex value = std::polar(amplitude, 2.0 * std::numbers::pi * turn);
        samples[n] = {static_cast<float>(value.real()), static_cast<float>(value.imag())};
    }
    return samples;
}

// Power of each bin of one transform, most negative frequency first.
std::vector<double> PowerRow(const Ipp32fc* samples, Layout layout, const std::vector<double>& window) {
    const std::size_t size = layout.fftSize;
    std::vector<Complex> turn(size);
    for (std::size_t i = 0; i < size; i++) {
        turn[i] = std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(size));
    }
    std::vector<double> row(size);
    for (std::size_t k = 0; k < size; k++) {
        Complex sum = 0.0;
        for (std::size_t n = 0; n < size - layout.zeroPad; n++) {
            const Complex sample(samples[n].re, samples[n].im);
            sum += sample * window[n] * turn[n * (k + size / 2) % size];
        }
        row[k] = std::norm(sum / static_cast<double>(size));
    }
    return row;
}

double ToUnits(double power, TqVideoUnits units) {
    if (units == tqVideoLog) return 10.0 * std::log10(power);
    return units == tqVideoVoltage ? std::sqrt(power) : power;
}

double ToPower(double value, TqVideoUnits units) {
    if (units == tqVideoLog) return std::pow(10.0, value / 10.0);
    return units == tqVideoVoltage ? value * value : value;
}

struct Rows {
    std::vector<double> min;
    std::vector<double> max;
};

// Both rows as power.
Rows ModelRows(const std::vector<Ipp32fc>& input, const TqSweepSettings& settings, Layout layout, VideoFilter filter) {
    const std::size_t size = layout.fftSize;
    std::vector<double> window(size - layout.zeroPad);
    DSP::buildWindowFunction(settings.window, window.data(), static_cast<int>(window.size()));
    double sum = 0.0;
    for (const double w : window) sum += w;
    for (double& w : window) w *= static_cast<double>(size) / sum;

    std::vector<std::vector<double>> transforms;
    const std::size_t count = settings.videoUnits == tqVideoSample ? 1 : static_cast<std::size_t>(filter.transforms);
    for (std::size_t i = 0; i < count; i++) {
        transforms.push_back(PowerRow(&input[i * (size / 4)], layout, window));
        for (double& value : transforms.back()) value = ToUnits(value, settings.videoUnits);
    }

    Rows rows = {std::vector<double>(size), std::vector<double>(size)};
    for (std::size_t k = 0; k < size; k++) {
        if (count == 1 || settings.detector == tqDetectorAverage) {
            double total = 0.0;
            for (const auto& transform : transforms) total += transform[k];
            rows.min[k] = rows.max[k] = total / static_cast<double>(count);
        } else {
            // The mean of the first transforms, until the filter's weight is the smaller one; then the recursion.
            const std::size_t warmUp = std::min(static_cast<std::size_t>(std::ceil(1.0 / filter.a0)), count) - 1;
            double state = 0.0;
            for (std::size_t i = 0; i < warmUp; i++) state += transforms[i][k] / static_cast<double>(warmUp);
            for (std::size_t i = warmUp; i < count; i++) {
                state = (1.0 - filter.a0) * state + filter.a0 * transforms[i][k];
                rows.min[k] = i == warmUp ? state : std::min(rows.min[k], state);
                rows.max[k] = i == warmUp ? state : std::max(rows.max[k], state);
            }
        }
        rows.min[k] = ToPower(rows.min[k], settings.videoUnits);
        rows.max[k] = ToPower(rows.max[k], settings.videoUnits);
    }
    return rows;
}

// A result as the amplitude that it stands for. Full scale in millivolts is 223.6, or 46.9897 dB.
double Amplitude(float value, TqVideoUnits units, TqScale scale) {
    if (scale != tqScaleLin) return std::pow(10.0, value / 20.0);
    return units == tqVideoLog ? value / std::pow(10.0, 46.9897 / 20.0) : value / 223.6;
}

TEST(SweepProcessor, MatchesModelInAllWindowsUnitsScalesDetectors) {
    const Layout layouts[] = {{64, 0}, {128, 30}, {64, 60}};
    // The last but one: 1 / a0 rounds to 2.0 although a0 is below one half.
    const VideoFilter filters[] = {{1.0, 1}, {1.0, 3}, {0.3, 4}, {0.3, 6}, {std::nextafter(0.5, 0.0), 2}, {0.05, 23}};
    unsigned seed = 1;
    for (const TqWindowType window : WINDOWS) {
        for (const Layout layout : layouts) {
            for (const VideoFilter filter : filters) {
                const SweepSetup setup = PlanOf(layout, filter);
                const std::vector<Ipp32fc> input = Noise(InputSize(setup), seed++);
                for (const TqVideoUnits units : UNITS) {
                    for (const TqDetector detector : {tqDetectorAverage, tqDetectorMinMax}) {
                        const Rows model =
                            ModelRows(input, Settings(window, units, tqScaleLog, detector), layout, filter);
                        // Rounding of a single-precision transform is a fraction of its largest bin.
                        const double bound = 3e-6 * std::sqrt(*std::max_element(model.max.begin(), model.max.end()));
                        for (const TqScale scale : {tqScaleLog, tqScaleLin, tqScaleFullScale}) {
                            SCOPED_TRACE("window " + std::to_string(window) + " fft " + std::to_string(layout.fftSize) +
                                         " a0 " + std::to_string(filter.a0) + " x " +
                                         std::to_string(filter.transforms) + " units " + std::to_string(units) +
                                         " detector " + std::to_string(detector) + " scale " + std::to_string(scale));
                            SweepProcessor processor(Settings(window, units, scale, detector), setup);
                            std::vector<float> outMin(layout.fftSize), outMax(layout.fftSize);
                            processor.ProcessInput(input.data(), outMin.data(), outMax.data());
                            for (std::size_t k = 0; k < layout.fftSize; k++) {
                                ASSERT_NEAR(Amplitude(outMin[k], units, scale), std::sqrt(model.min[k]), bound)
                                    << "bin " << k;
                                ASSERT_NEAR(Amplitude(outMax[k], units, scale), std::sqrt(model.max[k]), bound)
                                    << "bin " << k;
                            }
                        }
                    }
                }
            }
        }
    }
}

// Silence has no logarithm: minus infinity stands in the minimum, and must not turn the later transforms into NaN.
TEST(SweepProcessor, SilenceBeforeASignalLeavesNoNaN) {
    const SweepSetup setup = PlanOf({64, 0}, {1.0, 9});
    std::vector<Ipp32fc> input = Noise(InputSize(setup), 5);
    std::fill(input.begin(), input.begin() + 64, Ipp32fc{0.0f, 0.0f});
    for (const TqVideoUnits units : {tqVideoLog, tqVideoVoltage, tqVideoPower}) {
        SweepProcessor processor(Settings(tqWindowHamming, units, tqScaleLog, tqDetectorMinMax), setup);
        std::vector<float> outMin(64), outMax(64);
        processor.ProcessInput(input.data(), outMin.data(), outMax.data());
        for (std::size_t k = 0; k < 64; k++) {
            EXPECT_EQ(outMin[k], -INFINITY);
            EXPECT_TRUE(std::isfinite(outMax[k])) << k;
        }
    }
}

TEST(SweepProcessor, StepsLeaveNothingBehind) {
    const SweepSetup setup = PlanOf({256, 56}, {0.3, 6});
    const TqSweepSettings settings = Settings(tqWindowNutall, tqVideoLog, tqScaleLog, tqDetectorMinMax);
    const std::vector<Ipp32fc> strong = Tone(InputSize(setup), 256, 40, 1.0);
    const std::vector<Ipp32fc> input = Noise(InputSize(setup), 9);
    const std::vector<Ipp32fc> kept = input;
    std::vector<float> freshMin(256), freshMax(256), usedMin(256), usedMax(256);

    SweepProcessor fresh(settings, setup);
    fresh.ProcessInput(input.data(), freshMin.data(), freshMax.data());
    SweepProcessor used(settings, setup);
    used.ProcessInput(strong.data(), usedMin.data(), usedMax.data());
    used.ProcessInput(input.data(), usedMin.data(), usedMax.data());

    EXPECT_EQ(freshMin, usedMin);
    EXPECT_EQ(freshMax, usedMax);
    EXPECT_EQ(std::memcmp(input.data(), kept.data(), input.size() * sizeof(Ipp32fc)), 0);
}

TEST(SweepFFT, HighSideMirrorsTheSpectrum) {
    constexpr int SIZE = 256;
    const std::vector<Ipp32fc> tone = Tone(SIZE, SIZE, SIZE / 2 + 20, 1.0);
    std::vector<float> upright(SIZE), mirrored(SIZE);
    SweepFFT(tqWindowBlackman, tqVideoPower, SIZE, 0, false).FwdTransform(tone.data(), upright.data());
    SweepFFT(tqWindowBlackman, tqVideoPower, SIZE, 0, true).FwdTransform(tone.data(), mirrored.data());
    EXPECT_NEAR(upright[SIZE / 2 + 20], 1.0, 1e-5);
    EXPECT_NEAR(mirrored[SIZE / 2 - 20], 1.0, 1e-5);
    EXPECT_LT(mirrored[SIZE / 2 + 20], 1e-5);
}

}  // namespace
