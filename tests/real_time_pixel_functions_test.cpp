#include "real_time_pixel_functions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "ipps_kernels.h"

namespace {

using LevelFunction = void(const Ipp32f* src, Ipp32s* dst, int len, float div, float ref);

std::vector<Ipp32s> Levels(LevelFunction* function, std::vector<float> values, float div, float ref) {
    const std::size_t len = values.size();
    values.resize(len + 3);
    std::vector<Ipp32s> levels(len + 3);
    function(values.data(), levels.data(), static_cast<int>(len), div, ref);
    levels.resize(len);
    return levels;
}

// The nearest level to `exact`, which is formed in single precision as the display's definition has it.
Ipp32s Limited(float exact) {
    const double rounded = std::nearbyint(static_cast<double>(exact));  // halves to even
    if (!(std::abs(rounded) < 2147483648.0)) return 0;
    return static_cast<Ipp32s>(std::clamp(rounded, 0.0, 255.0));
}

// Spectrum values of every size, all halves between levels of a 100 dB display included.
std::vector<float> Awkward() {
    std::mt19937 engine(4711);
    std::vector<float> values = {0.0F, -0.0F, 1e30F, -1e30F, 8388608.0F, 3.4e38F, -3.4e38F, 1e-45F};
    for (const float special : {std::numeric_limits<float>::infinity(), std::nanf("")}) {
        values.insert(values.end(), {special, -special});
    }
    for (int half = -3; half < 520; ++half) values.push_back(static_cast<float>(half) / 5.12F - 120.0F);
    for (int n = 0; n < 4000; ++n) values.push_back(std::uniform_real_distribution<float>(-180.0F, 60.0F)(engine));
    return values;
}

class PixelFunctions : public testing::TestWithParam<const char*> {
protected:
    bool Available() const { return ipps_detail::KernelsFor(GetParam()) != nullptr; }
};

TEST_P(PixelFunctions, FollowTheirFormulasBitForBit) {
    if (!Available()) GTEST_SKIP() << "no " << GetParam() << " on this processor";
    const ipps_detail::KernelOverride scope(*ipps_detail::KernelsFor(GetParam()));
    const std::vector<float> values = Awkward();
    struct Row {
        float div, ref;
    };
    for (const Row& row : {Row{100.0F, -20.0F}, Row{10.0F, 0.0F}, Row{37.3F, 12.7F}, Row{200.0F, 20.0F}}) {
        const float logScale = static_cast<float>((100.0 / static_cast<double>(row.div)) * 2.56);
        const float linScale = static_cast<float>(255.0 / std::pow(10.0, (double(row.ref) + 46.9897) / 20.0));
        const auto wide = Levels(avx2LogToPixel, values, row.div, row.ref);
        const auto narrow = Levels(sse41LogToPixel, values, row.div, row.ref);
        const auto linear = Levels(sse41MagToPixel, values, row.div, row.ref);
        const float add = row.div - row.ref;
        for (std::size_t n = 0; n < values.size(); ++n) {
            const float sum = values[n] + add;
            ASSERT_EQ(narrow[n], Limited(sum * logScale)) << values[n] << " of " << row.div;
            ASSERT_EQ(wide[n], narrow[n]) << values[n] << " of " << row.div;
            ASSERT_EQ(linear[n], Limited(values[n] * linScale)) << values[n] << " mV at " << row.ref;
        }
    }
}

TEST_P(PixelFunctions, WorkOnWholeFours) {
    if (!Available()) GTEST_SKIP() << "no " << GetParam() << " on this processor";
    const ipps_detail::KernelOverride scope(*ipps_detail::KernelsFor(GetParam()));
    for (LevelFunction* const function : {sse41LogToPixel, avx2LogToPixel, sse41MagToPixel}) {
        for (int len = 0; len <= 70; ++len) {
            const std::vector<float> values(80, 1e3F);
            std::vector<Ipp32s> levels(80, -1);
            function(values.data(), levels.data(), len, 100.0F, 0.0F);
            const int whole = (len + 3) / 4 * 4;
            for (int n = 0; n < 80; ++n) {
                ASSERT_EQ(levels[static_cast<std::size_t>(n)], n < whole ? 255 : -1) << n << " of " << len;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, PixelFunctions, testing::Values("sse41", "avx2", "avx512"),
                         [](const auto& paramInfo) { return std::string(paramInfo.param); });

TEST(PixelFunctionsScale, PutsTheDisplaysEdgesOnTheOutermostLevels) {
    const std::vector<float> decibels = {-120.0F, -120.2F, -119.8F, -70.0F, -20.2F, -20.0F, 0.0F, -INFINITY};
    EXPECT_EQ(Levels(sse41LogToPixel, decibels, 100.0F, -20.0F), (std::vector<Ipp32s>{0, 0, 1, 128, 255, 255, 255, 0}));
    const std::vector<float> millivolts = {0.0F, 223.6F, 447.2F, 111.8F, -1.0F};
    EXPECT_EQ(Levels(sse41MagToPixel, millivolts, 100.0F, 0.0F), (std::vector<Ipp32s>{0, 255, 255, 127, 0}));
}

}  // namespace
