// Wide sweeps end to end: exports, planner, engine and USB on virtual instruments, compared with the scene that these
// receive. Calls and faults are those of wide and of narrow sweeps.
#include "sweep_fixture.h"

namespace {

constexpr double RBW_100K_BIN = 15000.0;  // with the flat top at RBW 100 kHz: 61.44 MHz / 4096

sim::InstrumentOptions Options(std::vector<sim::Emitter> emitters, double temperatureC = 35.0) {
    sim::InstrumentOptions options;
    options.scene.emitters = std::move(emitters);
    options.temperatureC = temperatureC;
    return options;
}

using SweepTest = SweepFixture;

// --- What stands in the rows ---

// One carrier in each front-end band and more; the first four in the direct band, three of those under its curve. LO
// step 1 comes mirrored and reads one bin low.
constexpr double CARRIERS_HZ[] = {1.2e6,  3.1e6,  6.5e6,  21.3e6, 44.1e6,  77.7e6,  101.3e6, 147.9e6, 210.5e6, 290e6,
                                  333e6,  455e6,  612e6,  790e6,  870e6,   960.4e6, 1.24e9,  1.575e9, 1.9e9,   2.45e9,
                                  3.05e9, 3.6e9,  4.2e9,  4.8e9,  5.25e9,  5.8e9,   6.4e9,   7.1e9,   7.9e9,   8.6e9,
                                  9.4e9,  10.3e9, 11.2e9, 12.1e9, 13.05e9, 14.1e9,  14.97e9};

constexpr double STEP_1_STOP = 38.4e6;

struct Front {
    int atten;
    double levelDbm;
    double temperatureC;
};

class SweepLevels : public SweepTest, public ::testing::WithParamInterface<Front> {};

TEST_P(SweepLevels, CarriersReadTrueInEveryBand) {
    std::vector<sim::Emitter> emitters;
    for (const double freq : CARRIERS_HZ) emitters.push_back(Carrier(freq, GetParam().levelDbm));
    Open(Options(emitters, GetParam().temperatureC));
    ASSERT_EQ(tqSetAttenuator(device, GetParam().atten), tqNoError);
    Configure(2 * RBW_100K_BIN, 15e9);  // starts on the grid of the bins
    const Sweep sweep = Take();
    ASSERT_EQ(sweep.status, tqNoError);
    ASSERT_EQ(sweep.binHz, RBW_100K_BIN);
    for (const double freq : CARRIERS_HZ) {
        const std::size_t peak = sweep.PeakNear(freq);
        EXPECT_NEAR(sweep.FreqOf(peak), freq, sweep.binHz * (freq < STEP_1_STOP ? 1.5 : 1.0));
        EXPECT_NEAR(sweep.max[peak], GetParam().levelDbm, 0.5) << freq;
    }
}

INSTANTIATE_TEST_SUITE_P(Fronts, SweepLevels,
                         ::testing::Values(Front{0, -30.0, 35.0}, Front{1, -35.0, -11.0}, Front{3, -20.0, 48.0},
                                           Front{6, -15.0, 22.0}));

TEST_F(SweepTest, ScalesAndUnitsTellTheSameLevel) {
    constexpr double FREQ = 2.4e9, LEVEL = -33.0;
    constexpr double LOW_FREQ = 3e6;  // under the low-frequency curve
    Open(Options({Carrier(FREQ, LEVEL), Carrier(LOW_FREQ, LEVEL)}));
    double fullScaleLevel = 0.0;
    for (const TqVideoUnits units : {tqVideoLog, tqVideoVoltage, tqVideoPower, tqVideoSample}) {
        for (const TqScale scale : {tqScaleLog, tqScaleLin, tqScaleFullScale}) {
            SCOPED_TRACE("units " + std::to_string(units) + " scale " + std::to_string(scale));
            ASSERT_EQ(tqSetSweepDetector(device, tqDetectorMinMax, units), tqNoError);
            for (const double freq : {FREQ, LOW_FREQ}) {
                ASSERT_EQ(tqSetSweepScale(device, scale), tqNoError);
                Configure(freq < 1e9 ? 30e3 : freq - 20e6, freq + 20e6);
                // Settings that are made meanwhile are those of the next configuration.
                ASSERT_EQ(tqSetSweepScale(device, scale == tqScaleLin ? tqScaleLog : tqScaleLin), tqNoError);
                ASSERT_EQ(tqSetSweepStartStop(device, 2e9, 14e9), tqNoError);
                const Sweep sweep = Take();
                ASSERT_EQ(sweep.status, tqNoError);
                const double level = sweep.LevelNear(freq);
                if (scale == tqScaleLog) {
                    EXPECT_NEAR(level, LEVEL, 0.5);
                } else if (scale == tqScaleLin) {
                    EXPECT_NEAR(20.0 * std::log10(level / 223.6), LEVEL, 0.5);
                } else if (freq == FREQ) {
                    // Relative to the converter: the same number in all units, and not the level.
                    if (fullScaleLevel == 0.0) fullScaleLevel = level;
                    EXPECT_NEAR(level, fullScaleLevel, 0.01);
                    EXPECT_GT(std::abs(level - LEVEL), 3.0);
                }
            }
        }
    }
}

// A carrier 20 MHz above the LO of a step falls outside that step, its image 20 MHz below near the step's middle.
double ImageSuppression(const Sweep& sweep, int loStep) {
    const double lo = 30.72e6 * loStep;
    return sweep.LevelNear(lo + 20e6) - sweep.LevelNear(lo - 20e6);
}

TEST_F(SweepTest, RecordSuppressesImages) {
    constexpr int STEPS[] = {20, 34, 100, 230, 350, 480};
    std::vector<sim::Emitter> carriers;
    for (const int step : STEPS) carriers.push_back(Carrier(30.72e6 * step + 20e6, -20.0));

    for (const bool calibrated : {true, false}) {
        SCOPED_TRACE(calibrated ? "with record" : "without record");
        sim::InstrumentOptions options = Options(carriers);
        options.scene.noiseDbmPerHz = -165.0;
        if (!calibrated) options.record = sim::RecordKind::none;
        Open(options);
        ASSERT_EQ(tqSetAttenuator(device, 0), tqNoError);
        Configure(9e3, 15e9, 30e3, 30e3);
        const Sweep sweep = Take();
        ASSERT_EQ(sweep.status, tqNoError);
        double worst = 200.0;
        for (const int step : STEPS) {
            const double suppression = ImageSuppression(sweep, step);
            worst = std::min(worst, suppression);
            if (calibrated) {
                EXPECT_GE(suppression, 50.0) << "LO step " << step;
            }
        }
        if (!calibrated) {
            EXPECT_LT(worst, 40.0);
        }
        CloseDevice();
        bus.Unplug(*instrument);
        std::filesystem::remove_all(home / ".tarnwell");  // the cached record
    }
}

// --- Calls ---

TEST_F(SweepTest, SweepsAreEqual) {
    Open(Options({Carrier(1.1e9, -30.0), Carrier(2.9e9, -50.0), Carrier(10e6, -40.0)}));
    Configure(9e3, 3e9, 30e3, 10e3);
    const Sweep first = Take();
    ASSERT_EQ(first.status, tqNoError);
    for (int i = 1; i < 40; i++) {
        const Sweep next = Take();
        ASSERT_EQ(next.status, tqNoError);
        ASSERT_EQ(next.min, first.min) << i;
        ASSERT_EQ(next.max, first.max) << i;
        ASSERT_GT(next.time, i == 1 ? first.time : 0);
    }
}

class EitherSweep : public SweepFixture, public ::testing::WithParamInterface<double> {};

// Of a span [Hz]. Direct commands share slot 0 with the blocks of a wide sweep; their aux packets disturb no sweep.
TEST_P(EitherSweep, OutputsAreOptionalTimesRiseAndOtherCallsMayComeBetween) {
    constexpr double FREQ = 1.1e9, LEVEL = -30.0;
    Open({Carrier(FREQ, LEVEL)});
    ConfigureSpan(FREQ, GetParam(), 10e3);
    int64_t last = Take().time;
    for (int i = 0; i < 10; i++) {
        float setPoint = 0.0f, voltage = 0.0f;
        EXPECT_EQ(tqGetFanSettings(device, &setPoint, &voltage), tqNoError);
        EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), tqNoError);
        Sweep sweep = Take();
        EXPECT_EQ(sweep.status, tqNoError);
        ExpectCarrier(sweep, FREQ, 50e3, LEVEL);
        EXPECT_GT(sweep.time, last);
        last = sweep.time;
        for (const bool minAlone : {true, false}) {
            std::vector<float> row(sweep.max.size());
            EXPECT_EQ(tqGetSweep(device, minAlone ? row.data() : nullptr, minAlone ? nullptr : row.data(), nullptr),
                      tqNoError);
            sweep.max = row;
            ExpectCarrier(sweep, FREQ, 50e3, LEVEL);
        }
    }
}

// A link that is lost once stays lost, and a sweep over it still ends.
TEST_P(EitherSweep, AfterUnplugEndsAtOnce) {
    Open();
    ConfigureSpan(1e9, GetParam(), 10e3);
    ASSERT_EQ(Take().status, tqNoError);
    bus.Unplug(*instrument);
    EXPECT_EQ(Take().status, tqConnectionLostErr);
    EXPECT_EQ(Take().status, tqConnectionLostErr);
}

INSTANTIATE_TEST_SUITE_P(Spans, EitherSweep, ::testing::Values(200e6, 1e6));

// --- Faults ---

struct SweepFault {
    FaultCase fault;
    double span;
    double rbw;
};

class SweepFaults : public SweepFixture, public ::testing::WithParamInterface<SweepFault> {
protected:
    void ConfigureAndCheck() {
        ConfigureSpan(1.15e9, GetParam().span, GetParam().rbw);
        const Sweep sweep = Take();
        EXPECT_EQ(sweep.status, tqNoError);
        ExpectCarrier(sweep, 1.15e9, 50e3, -30.0);
    }
    const FaultCase& fault = GetParam().fault;
};

TEST_P(SweepFaults, SweepCompletesAndTells) {
    Open({Carrier(1.15e9, -30.0)});
    ConfigureAndCheck();
    Strike(fault);
    EXPECT_EQ(Take().status, fault.expected);
    if (fault.LosesTheLink()) {
        Reopen();
    } else {
        // Of this sweep alone, but for the temperature, which takes a new configuration.
        EXPECT_EQ(Take().status, fault.expected == tqTempDrift ? tqTempDrift : tqNoError);
    }
    ConfigureAndCheck();
}

// The same faults while an instrument with a cached record is opened. Most fall on reads whose time-out is the normal
// signal there, or on the first aux packet: then it opens. If not, the link is lost.
TEST_P(SweepFaults, OpeningEndsAndTheNextOneWorks) {
    Open({Carrier(1.15e9, -30.0)});
    CloseDevice();
    Strike(fault);
    const TqStatus status = tqOpenDeviceBySerial(&device, SERIAL);
    EXPECT_TRUE(status == tqNoError || status == tqConnectionLostErr) << status;
    if (status < tqNoError) device = -1;
    Reopen();
    ConfigureAndCheck();
}

std::vector<SweepFault> Faults(double span, double rbw, const std::vector<FaultCase>& cases) {
    std::vector<SweepFault> faults;
    for (const FaultCase& fault : cases) faults.push_back({fault, span, rbw});
    return faults;
}
std::string FaultName(const ::testing::TestParamInfo<SweepFault>& test) { return test.param.fault.name; }

constexpr sim::BusFault LATE_CANCEL = {sim::BusFault::Action::hang,   sim::BusFault::Match::bulkIn, 1, 0, 0,
                                       std::chrono::milliseconds(300)};
INSTANTIATE_TEST_SUITE_P(
    Wide, SweepFaults,
    ::testing::ValuesIn(Faults(300e6, 100e3,
                               FaultCases({.packet = 8, .command = 3},
                                          {DeviceFault("LostPps", tqNoError, [](sim::Faults& f) { f.LosePps(); }),
                                           BusFault("LateCancel", LATE_CANCEL)}))),
    FaultName);
// 516 packets: three blocks of commands, five reads, and an aux packet at the end.
INSTANTIATE_TEST_SUITE_P(
    Narrow, SweepFaults,
    ::testing::ValuesIn(Faults(1e6, 100.0,
                               FaultCases({.packet = 300, .read = 3, .command = 2},
                                          {DeviceFault("SilentAtTheAuxPacket", tqConnectionLostErr,
                                                       [](sim::Faults& f) { f.SilentAt(516); }),
                                           BusFault("UnpluggedAtTheAuxCommand", {sim::BusFault::Action::unplug,
                                                                                 sim::BusFault::Match::bulkOut, 3})}))),
    FaultName);

}  // namespace
