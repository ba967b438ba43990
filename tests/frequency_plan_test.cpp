#include "frequency_plan.h"

#include "tq_settings.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(FrequencyPlan, SweepStepsTileTheRangeWithoutGaps) {
    EXPECT_EQ(GetLOInfo(489).stopFreq, 15014400000.0);
    for (int step = 1; step <= MAX_SWEEP_LO_STEP; step++) {
        const LOMap info = GetLOInfo(step);
        EXPECT_EQ(info.startFreq, step > 1 ? GetLOInfo(step - 1).stopFreq : 0.0) << step;
        // The LO stands an IF above the centre of the step, or above its mirror image at step 1.
        EXPECT_EQ(info.LOFreq - info.RFFreq, step == 1 ? 38400000.0 : 23040000.0) << step;
        // The valid part of the spectrum, around RFFreq, is just the step.
        EXPECT_EQ(info.RFFreq + (info.offset - 0.5) * BASE_SR, info.startFreq) << step;
        EXPECT_EQ(info.frac * BASE_SR, info.stopFreq - info.startFreq) << step;
    }
    EXPECT_EQ(GetLOInfo(11).LOFreq, 337920000.0);
    EXPECT_DEATH(GetLOInfo(-1), "LOStep >= 0");
}

TEST(FrequencyPlan, StreamingCentresTuneLikeThis) {
    struct Case {
        double centerFreq;
        int LOStep384;
        double LOFreq;
        int LOStep;
        double RFFreq;
        int tuneTicks;
        double actualFreq;
    };
    constexpr Case CASES[] = {
        {9000, 1, 61440000, 1, 23040000, 128, 0},
        {26799999, 1, 61440000, 1, 23040000, 100, 26880000},
        {26800000, 13, 49920000, 2, 46080000, 24, 26880000},
        {1000000000, 267, 1025280000, 34, 1021440000, 26, 1000320000},
        {15000000000, 3913, 15025920000, 490, 15029760000, 27, 15000000000},
    };
    for (const Case& c : CASES) {
        const LOConfigStreaming config = GetLOConfigStreaming(c.centerFreq);
        EXPECT_EQ(config.LOStep384, c.LOStep384) << c.centerFreq;
        EXPECT_EQ(config.LOFreq, c.LOFreq) << c.centerFreq;
        EXPECT_EQ(config.LOStep, c.LOStep) << c.centerFreq;
        EXPECT_EQ(config.RFFreq, c.RFFreq) << c.centerFreq;
        EXPECT_EQ(config.tuneTicks, c.tuneTicks) << c.centerFreq;
        EXPECT_EQ(config.actualFreq, c.actualFreq) << c.centerFreq;
    }
}

TEST(FrequencyPlan, StreamsLandWithinHalfATickAndTheTuneMakesUpTheRest) {
    for (double center = 26.8e6; center <= MAX_FREQ_HZ; center += 1234567.0) {
        const LOConfigStreaming config = GetLOConfigStreaming(center);
        EXPECT_LE(std::abs(config.actualFreq - center), 480000.0) << center;
        EXPECT_EQ(config.tuneTicks * TUNE_TICK, config.LOFreq - config.actualFreq) << center;
        EXPECT_TRUE(config.tuneTicks >= 24 && config.tuneTicks <= 28) << center;
        EXPECT_TRUE(config.LOStep * LO_STEP_SIZE >= config.LOFreq) << center;
        EXPECT_TRUE((config.LOStep - 1) * LO_STEP_SIZE < config.LOFreq) << center;
    }
}

TEST(FrequencyPlan, NoCentreLeavesTheTables) {
    constexpr double WILD[] = {NAN, INFINITY, -INFINITY, 1e300, -1e300, -1e6, 0.0, 15.1e9, 19.2e9, 5e-324};
    for (double center : WILD) {
        const LOConfigStreaming config = GetLOConfigStreaming(center);
        EXPECT_TRUE(config.LOStep >= 1 && config.LOStep <= 490) << center;
        EXPECT_TRUE(config.LOStep384 >= 1 && config.LOStep384 <= 3999) << center;
        EXPECT_TRUE(config.tuneTicks >= 24 && config.tuneTicks <= 128) << center;
        EXPECT_EQ(config.RFFreq, GetRFFreq(config.LOStep)) << center;
    }
}

TEST(Attenuator, FollowsTheReferenceLevelUnlessItIsSet) {
    constexpr std::pair<double, int> CASES[] = {{-200.0, 0}, {-20.0, 0}, {-19.9, 1}, {-15.0, 1}, {-9.9, 3},
                                                {0.0, 4},    {5.0, 5},   {5.1, 6},   {20.0, 6},  {NAN, 6}};
    for (const auto& [refLevel, atten] : CASES) {
        EXPECT_EQ(GetBestRFAtten({.atten = -1, .refLevel = refLevel}), atten) << refLevel;
        EXPECT_EQ(GetBestRFAtten({.atten = 5, .refLevel = refLevel}), 5) << refLevel;
    }
}

}  // namespace
