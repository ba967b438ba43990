#include "real_time_plan.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

struct Planned {
    TqRealTimeSettings settings;
    RealTimePlan plan;
};

Planned Plan(TqWindowType window, double rbw, double span = 4e7, double center = 1e9) {
    Planned p;
    p.settings.window = window;
    p.settings.rbw = rbw;
    p.settings.span = span;
    p.settings.centerFreq = center;
    Tq720Config config;
    p.plan = PlanRealTime(p.settings, {}, {}, config);
    return p;
}

TEST(RealTimePlan, LengthsAndFramesFollowFromRbwWindowAndSpan) {
    constexpr double NUTALL = 2.0212;
    struct Case {
        TqWindowType window;
        double rbw;
        double span;
        int fftSize;
        int zeroPad;
        double actualRbw;
        double binSize;
        double poi;
        int binning;
        int width;
    };
    for (const Case& c : {
             Case{tqWindowFlatTop, 2000.0, 4e7, 65536, 0, 3534.5625, 937.5, 0.0016, 64, 666},
             Case{tqWindowNutall, 2000.0, 4e7, 65536, 3446, NUTALL * 61.44e6 / 62090, 937.5, 0.0016, 64, 666},
             Case{tqWindowRect, 1e6, 4e7, 128, 0, 480000.0, 480000.0, 3.125e-06, 1, 85},
             Case{tqWindowRect, 1e6, 2e5, 128, 0, 480000.0, 480000.0, 3.125e-06, 1, 2},
             Case{tqWindowNutall, 15200.0, 4e7, 8192, 8192 - 8168, NUTALL * 61.44e6 / 8168, 7500.0, 2e-4, 8, 666},

         }) {
        SCOPED_TRACE(c.rbw);
        const Planned p = Plan(c.window, c.rbw, c.span);
        EXPECT_EQ(p.plan.setup.fftSize, c.fftSize);
        EXPECT_EQ(p.plan.setup.zeroPadAmount, c.zeroPad);
        EXPECT_NEAR(p.settings.actualRBW, c.actualRbw, 1e-6);
        EXPECT_EQ(p.settings.binSize, c.binSize);
        EXPECT_EQ(p.settings.poi, c.poi);
        EXPECT_EQ(p.plan.setup.freqBinning, c.binning);
        EXPECT_EQ(p.settings.sweepSize, c.width * c.binning);
    }
}

// Wherever it is tuned: bins lie on the grid of the transform, the first one at or below the start of the span by
// less than two columns, and all are there.
TEST(RealTimePlan, SweepsStartAtTheSpanAndStayInsideTheSpectrum) {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < 300; i++) {
        const double center = i % 3 == 0 ? 9000.0 : i % 3 == 1 ? 15e9 : 9000.0 + 15e9 * unit(random) * unit(random);
        const double span = i % 2 == 0 ? 4e7 : 2e5 * std::pow(200.0, unit(random));
        const double rbw = 2000.0 * std::pow(500.0, unit(random));
        const Planned p = Plan(static_cast<TqWindowType>(i % 6), rbw, span, center);
        const RealTimeSetup& setup = p.plan.setup;
        ASSERT_GE(setup.sweepOffset, 0);
        ASSERT_LE(setup.sweepOffset + p.settings.sweepSize, setup.fftSize);
        ASSERT_EQ(setup.sweepOffset, setup.swFrameOffset * setup.freqBinning);
        const double column = p.settings.binSize * setup.freqBinning;
        const double early = center - 0.5 * span - p.settings.firstBinFreq;
        ASSERT_GE(early, 0.0) << center << ' ' << span;
        ASSERT_LE(early, column + p.settings.binSize) << center << ' ' << span;
        const double bins = (p.settings.firstBinFreq - p.plan.patch.actualFreq) / p.settings.binSize;
        ASSERT_EQ(bins, std::round(bins));
    }
}

}  // namespace
