#include "sweep_plan.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <utility>
#include <vector>

namespace {

struct Planned {
    TqStatus status;
    TqSweepSettings settings;
    SweepSetup setup;
    TqCommand commands;
};

class SweepPlanning : public testing::Test {
protected:
    Planned Plan(TqSweepSettings settings, const std::vector<GPIOSweepStep>& gpioSteps = {}, TqRFSettings rf = {}) {
        SweepPlan plan;
        const TqStatus status = PlanSweepWide(settings, rf, gpioSteps, corrections, config, plan);
        return {status, settings, plan.setup, plan.commands};
    }

    TqCorrections corrections;
    Tq720Config config;
};

constexpr double WHOLE = 1e-6;  // shortest sweep time

TqSweepSettings Ask(double rbw, double vbw, double sweepTime = WHOLE, TqWindowType window = tqWindowFlatTop) {
    TqSweepSettings settings;
    settings.rbw = rbw;
    settings.vbw = vbw;
    settings.sweepTime = sweepTime;
    settings.window = window;
    return settings;
}

TEST_F(SweepPlanning, SizesFollowBandwidthsAndSweepTime) {
    const struct {
        const char* name;
        TqSweepSettings settings;
        int bestFFTSize;
        int fftSize;
        double iirFc;
        int fftsPerStep;
        int pktPerStep;
    } CASES[] = {
        {"defaults", {}, 7720, 8192, 1.0, 1, 4},
        {"one second buys transforms", Ask(30e3, 30e3, 1.0), 7720, 8192, 1.0, 58, 61},
        {"too short a time buys none", Ask(30e3, 30e3, 0.03), 7720, 8192, 1.0, 1, 4},
        {"smallest VBW", Ask(30e3, 3.0), 7720, 8192, 1e-4, 10000, 10003},
        {"rectangular window", Ask(30e3, 30e3, WHOLE, tqWindowRect), 2048, 2048, 1.0, 1, 1},
        {"just above a power of two", Ask(30e3, 30e3, WHOLE, tqWindowNutall), 4138, 8192, 1.0, 1, 3},
        {"wide RBW pads", Ask(10e6, 10e6), 22, 64, 1.0, 1, 1},
        {"RBW beyond the sample rate", Ask(1e9, 1e9), 4, 64, 1.0, 1, 1},
        {"beyond all, slowly", Ask(1e300, 1e300, 1.0), 4, 64, 1.0, 7808, 61},
    };
    for (const auto& c : CASES) {
        TqSweepSettings settings = c.settings;
        if (settings.vbw < 10.0) settings.stop = settings.start + 20e6;  // one step, to stay within small memories
        const Planned plan = Plan(settings);
        ASSERT_EQ(plan.status, tqNoError) << c.name;
        EXPECT_EQ(plan.setup.bestFFTSize, c.bestFFTSize) << c.name;
        EXPECT_EQ(plan.setup.fftSize, c.fftSize) << c.name;
        EXPECT_NEAR(plan.setup.iirFc, c.iirFc, 1e-12) << c.name;
        EXPECT_EQ(plan.setup.fftsPerStep, c.fftsPerStep) << c.name;
        EXPECT_EQ(plan.setup.pktPerStep, c.pktPerStep) << c.name;
        // What the transforms read is what a step delivers.
        const int64_t wanted = c.bestFFTSize + int64_t{c.fftsPerStep - 1} * (c.fftSize / 4);
        EXPECT_LE(wanted, int64_t{c.pktPerStep} * 2048) << c.name;
    }
}

TEST_F(SweepPlanning, PlansThatNoMachineHoldsAreRefusedUntouched) {
    TqSweepSettings oneStep = Ask(7.0, 7.0e-4);  // 8.4e10 samples: too large for memories, not for the counts
    oneStep.stop = oneStep.start + NARROW_SWEEP_MAX_SPAN;
    const std::pair<const char*, TqSweepSettings> CASES[] = {
        {"one slow step", oneStep},         {"RBW of order 26", Ask(6.9, 6.9)},     {"RBW NaN", Ask(NAN, 30e3)},
        {"VBW NaN", Ask(30e3, NAN)},        {"endless", Ask(30e3, 30e3, INFINITY)}, {"1e6 s", Ask(30e3, 30e3, 1e6)},
        {"time NaN", Ask(30e3, 30e3, NAN)},
    };
    for (const auto& [name, settings] : CASES) {
        const Planned plan = Plan(settings);
        EXPECT_EQ(plan.status, tqAllocationErr) << name;
        EXPECT_EQ(plan.settings.sweepSize, 0) << name;
        EXPECT_EQ(plan.commands.GetCommandCount(), 0) << name;
    }
    TqSweepSettings narrow;
    narrow.stop = narrow.start + NARROW_SWEEP_MAX_SPAN - 1.0;
    EXPECT_DEATH(Plan(narrow), "NARROW_SWEEP_MAX_SPAN");
}

TEST(SweepRing, HoldsThreeStepsFiveMillionSamplesOrTheSweep) {
    constexpr struct {
        int numSteps, pktPerStep;
        int64_t samples;
    } CASES[] = {
        {1, 1, 2441 * 2048},                    // five million, in whole steps
        {489, 4, 610 * 8192},                   // the sweep is smaller than that
        {489, 40, 489 * int64_t{81920}},        // the sweep
        {489, 61, 400 * int64_t{124928}},       // fifty million, in whole steps
        {2, 10000, 3 * int64_t{20480000}},      // three steps
        {1, 2000000, 3 * int64_t{4096000000}},  // beyond 32 bits
    };
    for (const auto& c : CASES) {
        SweepSetup setup;
        setup.numSteps = c.numSteps;
        setup.pktPerStep = c.pktPerStep;
        EXPECT_EQ(SweepRingSamples(setup), c.samples) << c.numSteps << " x " << c.pktPerStep;
    }
}

TEST_F(SweepPlanning, StepsCoverTheSpan) {
    constexpr struct {
        double start, stop;
        int firstStep, lastStep;
    } CASES[] = {
        {9000, 5009000, 1, 1},      {38399999, 45e6, 1, 2},        {38400000, 45e6, 2, 2},
        {38400000, 61440000, 2, 3},  // the stop belongs to the step above
        {1e9, 1.1e9, 33, 37},       {14983679999, 15e9, 488, 489}, {14983680000, 15e9, 1, 489},  // within the last step
    };
    for (const auto& c : CASES) {
        TqSweepSettings settings;
        settings.start = c.start;
        settings.stop = c.stop;
        const Planned plan = Plan(settings);
        ASSERT_EQ(plan.setup.numSteps, c.lastStep - c.firstStep + 1) << c.start;
        EXPECT_EQ(plan.setup.stepInfo.front().LOStep, c.firstStep) << c.start;
        EXPECT_EQ(plan.setup.stepInfo.back().LOStep, c.lastStep) << c.start;
        // Bin 0 stands at the start, by both accounts and within a bin.
        EXPECT_EQ(plan.settings.firstBinFreq, c.start);
        const double bin0 = GetLOInfo(c.firstStep).startFreq + plan.setup.firstStepOffset * plan.settings.binSize;
        EXPECT_TRUE(bin0 <= c.start && bin0 > c.start - plan.settings.binSize) << c.start;
        // The stitched row holds the sweep, or all but its last bin.
        EXPECT_LE(plan.setup.firstStepOffset + plan.settings.sweepSize, CompactedBins(plan.setup) + 1) << c.start;
    }
}

// One step near 1 GHz: front end, filter, start, fetch, two stops and the aux packets that fill the read unit.
TEST_F(SweepPlanning, BlockOfAStepHoldsTheseWords) {
    TqSweepSettings settings;
    settings.start = 1e9;
    settings.stop = 1.005e9;
    const Planned plan = Plan(settings, {}, {.atten = 2});
    const PatchSetup& patch = plan.setup.stepInfo.at(0);
    double rfOffset = 0.0;
    std::array<Ipp32fc, 31> coeffs;
    corrections.GetIFCorrections(33, coeffs.data(), rfOffset);
    EXPECT_EQ(patch.coarseCorrection, static_cast<float>(corrections.GetRFCorrection(2, 33) + rfOffset));

    std::array<uint32_t, 24> tune;
    ASSERT_EQ(config.Configure(tune.data(), 1013760000.0, 990720000.0, corrections.GetRoughGain(33), 10, 24), 24);
    TqCommand expected;
    expected.StartNewCommand();
    expected.AddWords(tune.data(), 24);
    expected.AddFIRCoeffs(coeffs.data());
    expected.AddStartIQ(1);
    expected.AddFetchIQ(4, 0);
    expected.AddStopIQ();
    expected.AddStopIQ();
    expected.AddFetchAux(4);
    EXPECT_EQ(plan.commands.cmds, expected.cmds);
}

// A fetch carries 255 packets at most; the next one stands in a block of its own.
TEST_F(SweepPlanning, LongStepsFetchInSeveralBlocks) {
    const struct {
        int pktPerStep;
        std::vector<int> perBlock;
        int auxPkts;
    } CASES[] = {{254, {254}, 2}, {255, {255}, 1}, {256, {255, 1}, 4}, {257, {255, 2}, 3}, {511, {255, 255, 1}, 1}};
    for (const auto& c : CASES) {
        TqSweepSettings settings = Ask(30e3, 30e3, c.pktPerStep / 30000.0 + 2.5e-5);
        settings.start = 1e9;
        settings.stop = 1.005e9;
        const Planned plan = Plan(settings);
        ASSERT_EQ(plan.setup.pktPerStep, c.pktPerStep);
        ASSERT_EQ(plan.commands.xferCount, c.perBlock);
        EXPECT_EQ(plan.commands.auxCount.back(), c.auxPkts) << c.pktPerStep;
    }
}

TEST_F(SweepPlanning, UartBytesLeadTheFirstStepAboveTheirFrequency) {
    TqSweepSettings settings;
    settings.start = 500e6;
    settings.stop = 3e9;
    // Of two that lie between the same LO steps only the higher goes out; one at the RF of a step goes out at the next;
    // the last is out of reach.
    const Planned plan = Plan(settings, {{0.0, 9}, {1e9, 1}, {GetRFFreq(50), 4}, {2e9, 5}, {2e9 + 1e6, 2}, {14e9, 7}});
    std::vector<std::pair<int, uint32_t>> sent;
    for (size_t i = 0; i < plan.setup.stepInfo.size(); i++) {
        const uint32_t firstWord = plan.commands.cmds[512 * i];  // each step takes one block
        if (firstWord >> 24 == 0x27) sent.emplace_back(plan.setup.stepInfo[i].LOStep, firstWord);
    }
    // RFFreq of step n is 30.72 n - 23.04 MHz.
    const std::vector<std::pair<int, uint32_t>> expected = {
        {17, 0x27000009}, {34, 0x27000001}, {51, 0x27000004}, {66, 0x27000002}};
    EXPECT_EQ(sent, expected);
}

// --- Narrow sweeps ---

struct NarrowPlanned {
    TqStatus status;
    TqSweepSettings settings;
    NarrowSweepPlan plan;
};

class NarrowSweepPlanning : public testing::Test {
protected:
    NarrowPlanned Plan(TqSweepSettings settings, double center, double span, TqRFSettings rf = {}) {
        settings.start = center - span / 2;
        settings.stop = center + span / 2;
        NarrowSweepPlan plan;
        const TqStatus status = PlanSweepNarrow(settings, rf, corrections, config, plan);
        return {status, settings, plan};
    }

    TqCorrections corrections;
    Tq720Config config;
};

TEST_F(NarrowSweepPlanning, SizesFollowSpanBandwidthsAndSweepTime) {
    const struct {
        const char* name;
        double span;
        TqSweepSettings settings;
        int softwareDecimation;
        int bestFFTSize;
        int fftSize;
        int fftsPerStep;
        int pktPerStep;
        int sweepSize;
        int narrowSweepOffset;
    } CASES[] = {
        {"widest, defaults", 4999999.0, {}, 2, 964, 1024, 1, 4, 670, 177},
        {"ten hertz", 1e3, Ask(10.0, 10.0), 64, 90484, 131072, 1, 4100, 548, 65262},
        {"video filter", 100e3, Ask(1e3, 100.0), 64, 904, 1024, 10, 132, 430, 297},
        {"sweep time", 1e6, Ask(10e3, 10e3, 0.1), 8, 722, 1024, 748, 756, 536, 244},
        {"RBW beyond the sample rate", 1e6, Ask(1e9, 1e9), 8, 4, 64, 1, 12, 36, 14},
        {"RBW beyond the longest transform", 1e3, Ask(1e-3, 1e-3), 64, 1 << 25, 1 << 25, 1, 1048580, 139812, 16707310},
        {"no span at all", 0.0, Ask(10.0, 10.0), 64, 90484, 131072, 1, 4100, 2, 65535},
    };
    for (const auto& c : CASES) {
        const NarrowPlanned planned = Plan(c.settings, 1e9, c.span);
        ASSERT_EQ(planned.status, tqNoError) << c.name;
        const SweepSetup& setup = planned.plan.setup;
        EXPECT_EQ(setup.bestFFTSize, c.bestFFTSize) << c.name;
        EXPECT_EQ(setup.fftSize, c.fftSize) << c.name;
        EXPECT_EQ(setup.fftsPerStep, c.fftsPerStep) << c.name;
        EXPECT_EQ(setup.pktPerStep, c.pktPerStep) << c.name;
        EXPECT_EQ(planned.plan.commands.GetTotalXferCount(), c.pktPerStep) << c.name;
        EXPECT_EQ(planned.settings.sweepSize, c.sweepSize) << c.name;
        EXPECT_EQ(setup.narrowSweepOffset, c.narrowSweepOffset) << c.name;
        EXPECT_EQ(setup.numSteps, 1) << c.name;

        // What the transforms read, behind the filter's delay, is what the capture delivers.
        const double rate = 15.36e6 / c.softwareDecimation;
        const int64_t wanted =
            1024 / c.softwareDecimation + c.bestFFTSize + int64_t{c.fftsPerStep - 1} * (c.fftSize / 4);
        EXPECT_LE(wanted, int64_t{c.pktPerStep} * 2048 / c.softwareDecimation) << c.name;
        EXPECT_NEAR(planned.settings.actualRbw * c.bestFFTSize / rate, 3.7702, 1e-12) << c.name;

        // Bin fftSize / 2 stands at the centre, and the bins reach over both ends of the span.
        const double binSize = planned.settings.binSize;
        EXPECT_DOUBLE_EQ(binSize, rate / c.fftSize) << c.name;
        const double center = planned.settings.firstBinFreq + (c.fftSize / 2 - c.narrowSweepOffset) * binSize;
        EXPECT_NEAR(center, 1e9, 1e-6) << c.name;
        EXPECT_LE(planned.settings.firstBinFreq, planned.settings.start) << c.name;
        EXPECT_GE(planned.settings.firstBinFreq + (c.sweepSize - 0.5) * binSize, planned.settings.stop) << c.name;
    }
}

TEST_F(NarrowSweepPlanning, PlansThatNoMachineHoldsAreRefusedUntouched) {
    const struct {
        const char* name;
        double span;
        TqSweepSettings settings;
    } CASES[] = {
        {"slow video filter", 1e3, Ask(1e-2, 1e-6)},
        {"memory", 4.9e6, Ask(1e4, 1e4, 2e4)},
        {"packets beyond int", 1e3, Ask(10., 10., 1e6)},
        {"endless", 1e3, Ask(10.0, 10.0, INFINITY)},
        {"RBW NaN", 1e3, Ask(NAN, 10.0)},
        {"VBW NaN", 1e3, Ask(10.0, NAN)},
        {"VBW 0", 1e3, Ask(10.0, 0.0)},
        {"time NaN", 1e3, Ask(10.0, 10.0, NAN)},
    };
    for (const auto& c : CASES) {
        const NarrowPlanned planned = Plan(c.settings, 1e9, c.span);
        EXPECT_EQ(planned.status, tqAllocationErr) << c.name;
        EXPECT_EQ(planned.settings.sweepSize, 0) << c.name;
        EXPECT_EQ(planned.plan.commands.GetCommandCount(), 0) << c.name;
    }
    EXPECT_DEATH(Plan({}, 1e9, NARROW_SWEEP_MAX_SPAN), "NARROW_SWEEP_MAX_SPAN");
}

// Near 1 GHz: front end, filter, start at the hardware's decimation of four, fetches, stop and no aux packet.
TEST_F(NarrowSweepPlanning, BlocksHoldTheseWords) {
    const NarrowPlanned planned = Plan(Ask(1e3, 100.0, 0.3), 1e9, 100e3, {.atten = 2});  // 36 packets at 240 kHz
    ASSERT_EQ(planned.plan.setup.pktPerStep, 2308);
    const PatchSetup& patch = planned.plan.patch;
    EXPECT_EQ(patch.actualFreq, 1000320000.0);
    double rfOffset = 0.0;
    std::array<Ipp32fc, 31> coeffs;
    corrections.GetIFCorrections(34, 267, coeffs.data(), rfOffset);
    EXPECT_EQ(patch.coarseCorrection, static_cast<float>(corrections.GetRFCorrection(2, 34) + rfOffset));

    std::array<uint32_t, 24> tune;
    ASSERT_EQ(config.Configure(tune.data(), 1025280000.0, 1021440000.0, corrections.GetRoughGain(34), 10, 26), 24);
    TqCommand expected;
    expected.StartNewCommand();
    expected.AddWords(tune.data(), 24);
    expected.AddFIRCoeffs(coeffs.data());
    expected.AddStartIQ(3);
    for (int i = 0; i < 9; i++) {
        expected.AddFetchIQ(255, 0);
        expected.StartNewCommand();
    }
    expected.AddFetchIQ(13, 0);
    expected.AddStopIQ();
    EXPECT_EQ(planned.plan.commands.cmds, expected.cmds);
}

}  // namespace
