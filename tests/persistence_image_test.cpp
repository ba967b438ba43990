// The persistence image against what its definition gives pixel by pixel: equal to the bit.
#include "persistence_image.h"

#include "ipps.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int HEIGHT = PersistenceImage::HEIGHT;
constexpr int WINDOW = 39;  // frames

struct Display {
    const char* name;
    TqScale scale;
    double ref;
    double height;
    int width;
    int binning;
    int spectra;  // of a frame
    float correction;
};

class PersistenceImages : public ::testing::TestWithParam<Display> {
protected:
    // By the formulas, one value at a time. The logarithm is the primitive's, whose last bits are its own.
    int LevelOf(float power) const {
        const Display& d = GetParam();
        if (d.scale == tqScaleFullScale) return 0;
        volatile float x = 0.0f, scale = 0.0f;  // every step rounds to a float
        if (d.scale == tqScaleLog) {
            float ln = 0.0f;
            ippsLn_32f(&power, &ln, 1);
            x = ln * 4.3429446f;
            x = x + d.correction;
            x = x + (static_cast<float>(d.height) - static_cast<float>(d.ref));
            scale = static_cast<float>(100.0 / static_cast<double>(static_cast<float>(d.height)) * 2.56);
        } else {
            x = std::sqrt(power) * 223.6f;
            x = x * static_cast<float>(std::pow(10.0, static_cast<double>(d.correction) * 0.05));
            scale = static_cast<float>(255.0 / std::pow(10.0, (d.ref + 46.9897) / 20.0));
        }
        const float level = x * scale;
        if (!(std::abs(level) < 2147483648.0f)) return 0;
        return static_cast<int>(std::min(std::max(std::nearbyint(level), 0.0f), 255.0f));
    }
};

TEST_P(PersistenceImages, AreThoseOfTheDefinition) {
    const Display& d = GetParam();
    TqRealTimeSettings settings;
    settings.scale = d.scale;
    settings.frameRef = d.ref;
    settings.frameHeightDB = d.height;
    settings.frameWidth = d.width;
    settings.frameHeight = HEIGHT;
    settings.sweepSize = d.width * d.binning;
    PersistenceImage image(settings, d.binning, RealTimeScale(d.scale, d.correction));

    const std::size_t pixels = static_cast<std::size_t>(d.width * HEIGHT);
    const std::size_t sweepSize = static_cast<std::size_t>(settings.sweepSize);
    std::vector<std::vector<int>> hits;
    std::vector<float> alpha(pixels), previous(pixels), expectedAlpha(pixels);
    std::vector<int> counts(pixels), expected(pixels);
    std::mt19937 random(5);
    std::lognormal_distribution<float> noise(-20.0f, 1.0f);
    std::vector<float> row(sweepSize);
    const int frames = 2 * WINDOW + 7;  // around the ring, and most of the way again
    for (int frame = 0; frame < frames; frame++) {
        hits.emplace_back(pixels);
        for (int i = 0; i < d.spectra; i++) {
            for (float& x : row) x = noise(random);
            row[0] = 0.01f;                      // a steady tone
            if (frame == 3) row[1] = 1e-3f;      // a burst in one frame
            if (frame % 10 == 0) row[2] = 0.0f;  // silence, now and then
            row[3] = frame % 2 == 0 ? std::numeric_limits<float>::infinity() : 3e38f;
            image.AddSpectrum(row.data());
            for (std::size_t bin = 0; bin < sweepSize; bin++) {
                const std::size_t column = bin / static_cast<std::size_t>(d.binning);
                hits.back()[column * HEIGHT + static_cast<std::size_t>(LevelOf(row[bin]))]++;
            }
        }
        image.FinishFrame(counts.data(), previous.data(), alpha.data());

        for (std::size_t i = 0; i < pixels; i++) {
            expected[i] = 0;
            for (int back = 0; back < std::min(WINDOW, frame + 1); back++) {
                expected[i] += hits[static_cast<std::size_t>(frame - back)][i];
            }
            const float before = expectedAlpha[i];
            const auto faded = static_cast<float>(static_cast<double>(before) * 0.92);
            expectedAlpha[i] = hits.back()[i] > 0 ? 1.0f : expected[i] > 0 ? faded : 0.0f;
        }
        ASSERT_EQ(counts, expected) << "frame " << frame;
        ASSERT_EQ(alpha, expectedAlpha) << "frame " << frame;
        for (std::size_t column = 0; column < static_cast<std::size_t>(d.width); column++) {
            int sum = 0;
            for (std::size_t level = 0; level < HEIGHT; level++) sum += counts[column * HEIGHT + level];
            ASSERT_EQ(sum, std::min(frame + 1, WINDOW) * d.spectra * d.binning) << "frame " << frame;
        }
        previous.swap(alpha);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Displays, PersistenceImages,
    ::testing::Values(Display{"Narrow", tqScaleLog, -20.0, 100.0, 5, 1, 9000, -1.5f},  // several blocks a frame
                      Display{"Binned", tqScaleLog, 0.0, 80.0, 37, 8, 62, 3.25f},      //
                      Display{"Wide", tqScaleLog, -20.0, 100.0, 67, 512, 3, 0.0f},     // spectra longer than a block
                      Display{"NoHeight", tqScaleLog, -20.0, 0.0, 17, 2, 11, 0.0f},    //
                      Display{"Linear", tqScaleLin, -13.0, 100.0, 37, 4, 50, -7.0f},   //
                      Display{"FullScale", tqScaleFullScale, 0.0, 100.0, 37, 2, 50, 0.0f}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
