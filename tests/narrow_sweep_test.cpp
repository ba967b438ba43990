// Narrow sweeps end to end, compared with the scene that the virtual instruments receive. What they have in common with
// wide ones, and their faults, is the matter of sweep_test.
#include "sweep_fixture.h"

#include <array>

namespace {

constexpr double LEVEL = -45.0;  // of the carriers, [dBm]; a dozen of them don't overload the converter

using ::Carrier;
sim::Emitter Carrier(double freqHz) { return Carrier(freqHz, LEVEL); }

class NarrowSweepTest : public SweepFixture {
protected:
    static void ExpectCarrier(const Sweep& sweep, double freqHz, double reach, double levelDbm = LEVEL) {
        SweepFixture::ExpectCarrier(sweep, freqHz, reach, levelDbm);
    }
};

// Bands of each front end, both paths of the direct one, and both sides of a tune tick.
TEST_F(NarrowSweepTest, CarriersReadTrueAtAllSpansAndCenters) {
    const struct {
        double center, span, rbw;
    } CASES[] = {
        {2.5095e6, 4.999e6, 10e3},  // starts at 10 kHz; direct path
        {480e3, 900e3, 3e3},        // as far from a tick as can be
        {21.3e6, 4.999e6, 30e3},    // LO step 1
        {26.799e6, 1e6, 300.0},     // last of the direct path
        {26.801e6, 1e6, 300.0},     // first above it
        {455.5e6, 4.999e6, 10e3},   // decimation 8
        {1e9, 2.9e6, 5e3},          // 16, and hardly room for the span
        {1.00032e9, 1e6, 1e3},      // on a tick
        {2.4501e9, 300e3, 300.0},   // 128
        {5.8e9, 100e3, 100.0},      // 256
        {9.4007e9, 10e3, 30.0},     // and ever longer transforms
        {12.1e9, 1e3, 10.0},        // of 2^17
        {1.5e9, 1e3, 3.0},          // of 2^19
        {14.9995e9, 900e3, 1e3},    // LO step 490
    };
    constexpr double PLACES[] = {-0.47, -0.213, 0.0, 0.31, 0.47};  // in the span
    std::vector<sim::Emitter> emitters;
    for (const auto& c : CASES) {
        for (const double place : PLACES) emitters.push_back(Carrier(c.center + place * c.span));
    }
    Open(emitters);
    for (const auto& c : CASES) {
        SCOPED_TRACE(std::to_string(c.center) + " span " + std::to_string(c.span));
        ConfigureSpan(c.center, c.span, c.rbw);
        const Sweep sweep = Take();
        ASSERT_EQ(sweep.status, tqNoError);
        for (const double place : PLACES) ExpectCarrier(sweep, c.center + place * c.span, 2.0 * c.rbw);
    }
    EXPECT_EQ(instrument->Counters().unknownWords, 0U);
    EXPECT_EQ(instrument->Counters().protocolErrors, 0U);
}

TEST_F(NarrowSweepTest, TenHertzSplitTwoCarriersAHundredApart) {
    constexpr double LOW = 1.234567e9;
    Open({Carrier(LOW), Carrier(LOW + 100.0, LEVEL - 3.0)});
    ConfigureSpan(LOW, 1e3, 10.0);
    const Sweep sweep = Take();
    ASSERT_EQ(sweep.status, tqNoError);
    ExpectCarrier(sweep, LOW, 40.0);
    ExpectCarrier(sweep, LOW + 100.0, 40.0, LEVEL - 3.0);
    const std::size_t between = sweep.PeakNear(LOW + 50.0, 10.0);
    EXPECT_LT(sweep.max[between], LEVEL - 60.0);
}

// What lies outside the decimated band does not fold into it.
TEST_F(NarrowSweepTest, StrongNeighboursStayOut) {
    constexpr double CENTER = 2.4e9;
    constexpr double SPAN = 100e3;  // at 240 kHz
    std::vector<sim::Emitter> emitters;
    for (const double offset : {-1.44e6, -250e3, -170e3, 190e3, 241e3, 480e3, 5e6}) {
        emitters.push_back(Carrier(CENTER + offset, -40.0));
    }
    Open(emitters);
    ConfigureSpan(CENTER, SPAN, 1e3);
    const Sweep sweep = Take();
    ASSERT_EQ(sweep.status, tqNoError);
    EXPECT_LT(*std::ranges::max_element(sweep.max), -110.0f);
}

TEST_F(NarrowSweepTest, WindowsUnitsAndScalesTellTheSameLevel) {
    constexpr double FREQ = 1.1e9, LOW_FREQ = 3e6;  // the latter under the low-frequency curve
    Open({Carrier(FREQ), Carrier(LOW_FREQ)});
    for (const TqWindowType window :
         {tqWindowFlatTop, tqWindowNutall, tqWindowBlackman, tqWindowHamming, tqWindowGaussian6dB, tqWindowRect}) {
        ASSERT_EQ(tqSetSweepWindow(device, window), tqNoError);
        ConfigureSpan(FREQ, 1e6, 1e3);
        double rbw = 0.0;
        ASSERT_EQ(tqGetSweepParameters(device, &rbw, nullptr, nullptr, nullptr, nullptr), tqNoError);
        EXPECT_NEAR(rbw, 1e3, 3.0) << window;
        ExpectCarrier(Take(), FREQ, 50e3);  // in the middle of a bin
    }
    for (const TqVideoUnits units : {tqVideoLog, tqVideoVoltage, tqVideoPower, tqVideoSample}) {
        for (const TqScale scale : {tqScaleLog, tqScaleLin, tqScaleFullScale}) {
            for (const double freq : {FREQ, LOW_FREQ}) {
                SCOPED_TRACE("units " + std::to_string(units) + " scale " + std::to_string(scale));
                ASSERT_EQ(tqSetSweepDetector(device, tqDetectorAverage, units), tqNoError);
                ASSERT_EQ(tqSetSweepScale(device, scale), tqNoError);
                ConfigureSpan(freq, 1e6, 1e4, 2e3);
                const Sweep sweep = Take();
                ASSERT_EQ(sweep.status, tqNoError);
                const double level = sweep.max[sweep.PeakNear(freq, 50e3)];
                if (scale == tqScaleFullScale) {
                    EXPECT_GT(std::abs(level - LEVEL), 3.0);  // the gain of the front end is not taken out
                } else {
                    EXPECT_NEAR(scale == tqScaleLin ? 20.0 * std::log10(level / 223.6) : level, LEVEL, 0.5);
                }
            }
        }
    }
}

TEST_F(NarrowSweepTest, DetectorsShowNoiseAndCarrier) {
    constexpr double FREQ = 1.021e9;
    Open({Carrier(FREQ)});
    const auto spread = [](const Sweep& sweep) {
        double sum = 0.0;
        for (std::size_t k = 0; k < sweep.min.size(); k++) sum += sweep.max[k] - sweep.min[k];
        return sum / static_cast<double>(sweep.min.size());
    };
    for (const TqDetector detector : {tqDetectorMinMax, tqDetectorAverage}) {
        ASSERT_EQ(tqSetSweepDetector(device, detector, tqVideoPower), tqNoError);
        ConfigureSpan(FREQ, 1e6, 3e3, 3e3, 0.02);
        const Sweep first = Take();
        const Sweep second = Take();  // of itself, without what the first one held
        ASSERT_EQ(second.status, tqNoError);
        for (const Sweep* sweep : {&first, &second}) {
            ExpectCarrier(*sweep, FREQ, 20e3);
            EXPECT_NEAR(sweep->min[sweep->PeakNear(FREQ, 20e3)], LEVEL, 0.5);
        }
        if (detector == tqDetectorMinMax) {
            EXPECT_GT(spread(first), 3.0);  // noise moves, [dB]
            EXPECT_NEAR(spread(second), spread(first), 0.5);
        } else {
            EXPECT_EQ(first.min, first.max);
        }
    }
}

// The two kinds of sweep take turns, at the span that divides them too; each finds its own data.
TEST_F(NarrowSweepTest, SpanDecidesAndPlansFollowEachOther) {
    constexpr double FREQ = 1.1e9;
    Open({Carrier(FREQ)});
    const struct {
        double span, binHz;
    } CASES[] = {{4999999.0, 7.68e6 / 4096}, {5000000.0, 61.44e6 / 32768}, {1e3, 240e3 / 128}, {20e6, 61.44e6 / 32768}};
    for (int round = 0; round < 3; round++) {
        for (const auto& c : CASES) {
            ConfigureSpan(FREQ, c.span, 10e3);
            const Sweep sweep = Take();
            ASSERT_EQ(sweep.status, tqNoError) << c.span;
            EXPECT_DOUBLE_EQ(sweep.binHz, c.binHz) << c.span;
            ExpectCarrier(sweep, FREQ, std::min(c.span / 2, 100e3));
        }
    }
}

// A stamp depends on the sweep that it belongs to, not on the mode before it.
TEST_F(NarrowSweepTest, StampsFollowTheDecimationOfTheSweep) {
    Open();
    instrument->SetGps(sim::GpsState::locked);
    instrument->AdvanceTime(std::chrono::seconds(3));
    for (int i = 0; i < 3; i++) {
        instrument->AdvanceTime(std::chrono::seconds(1));
        ASSERT_EQ(tqGetGPSInfo(device, tqTrue, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                  tqNoError);
    }
    // Behind each sweep the reader's stamp is that of the last packet, whose delay counts by the decimation.
    const auto offset = [&](double span) {
        ConfigureSpan(1e9, span, 10e3);
        const Sweep sweep = Take();
        return sweep.time - instrument->GpsNanosAt(instrument->State().startCounter);
    };
    for (const double span : {20e6, 4e6}) {
        std::array<int64_t, 2> behind = {};  // streams of decimation 1 and 4
        for (std::size_t i = 0; i < behind.size(); i++) {
            ASSERT_EQ(tqSetIQSampleRate(device, i == 0 ? 1 : 4), tqNoError);
            ASSERT_EQ(tqConfigure(device, tqModeIQStreaming), tqNoError);
            behind[i] = offset(span);
        }
        EXPECT_NEAR(static_cast<double>(behind[0] - behind[1]), 0.0, 10.0) << span;  // rounding of a few ticks' time
    }
}

TEST_F(NarrowSweepTest, PlanBeyondTheMemoryIsRefusedAndTheNextWorks) {
    constexpr double FREQ = 1.1e9;
    Open({Carrier(FREQ)});
    ASSERT_EQ(tqSetSweepStartStop(device, FREQ - 500.0, FREQ + 500.0), tqNoError);
    ASSERT_EQ(tqSetSweepCoupling(device, 0.01, 1e-6, 1e-6), tqNoError);
    EXPECT_EQ(tqConfigure(device, tqModeSweeping), tqAllocationErr);
    EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), tqInvalidConfigurationErr);
    ConfigureSpan(FREQ, 1e6, 10e3);
    ExpectCarrier(Take(), FREQ, 50e3);
}

}  // namespace
