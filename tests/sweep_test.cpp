// Wide sweeps end to end: exports, planner, engine and USB on virtual instruments, compared with the scene that these
// receive.
#include "tq_api.h"

#include "bus_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr uint32_t SERIAL = 12345678;
constexpr double RBW_100K_BIN = 15000.0;  // with the flat top at RBW 100 kHz: 61.44 MHz / 4096

sim::Emitter Carrier(double freqHz, double levelDbm) {
    sim::Emitter emitter;
    emitter.freqHz = freqHz;
    emitter.levelDbm = levelDbm;
    return emitter;
}

sim::InstrumentOptions Options(std::vector<sim::Emitter> emitters, double temperatureC = 35.0) {
    sim::InstrumentOptions options;
    options.serial = SERIAL;
    options.scene.emitters = std::move(emitters);
    options.temperatureC = temperatureC;
    return options;
}

struct Sweep {
    double startHz = 0.0;
    double binHz = 0.0;
    std::vector<float> min;
    std::vector<float> max;
    int64_t time = 0;
    TqStatus status = tqNoError;

    int BinOf(double freqHz) const { return static_cast<int>(std::lround((freqHz - startHz) / binHz)); }
    // Highest of the bins around a frequency.
    int PeakNear(double freqHz, int reach = 5) const {
        const auto first = max.begin() + std::max(BinOf(freqHz) - reach, 0);
        const auto last = max.begin() + std::min(BinOf(freqHz) + reach + 1, static_cast<int>(max.size()));
        return static_cast<int>(std::max_element(first, last) - max.begin());
    }
    double LevelNear(double freqHz) const { return max[static_cast<std::size_t>(PeakNear(freqHz))]; }
};

class SweepTest : public BusFixture {
protected:
    void TearDown() override {
        CloseDevice();
        BusFixture::TearDown();
    }

    sim::Instrument& Open(sim::InstrumentOptions options) {
        sim::Instrument& instrument = Plug(std::move(options));
        OpenDevice();
        return instrument;
    }
    void OpenDevice() { ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), tqNoError); }
    void CloseDevice() {
        if (device >= 0) tqCloseDevice(device);
        device = -1;
    }

    void Configure(double startHz, double stopHz, double rbw = 100e3, double vbw = 100e3, double sweepTime = 1e-6) {
        ASSERT_GE(tqSetSweepStartStop(device, startHz, stopHz), tqNoError);
        ASSERT_GE(tqSetSweepCoupling(device, rbw, vbw, sweepTime), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeSweeping), tqNoError);
    }

    Sweep Take() {
        Sweep sweep;
        int size = 0;
        EXPECT_EQ(tqGetSweepParameters(device, nullptr, nullptr, &sweep.startHz, &sweep.binHz, &size), tqNoError);
        sweep.min.assign(static_cast<std::size_t>(size), -1e30f);
        sweep.max.assign(static_cast<std::size_t>(size), -1e30f);
        sweep.status = tqGetSweep(device, sweep.min.data(), sweep.max.data(), &sweep.time);
        return sweep;
    }

    int device = -1;
};

// --- What stands in the rows
// -------------------------------------------------------------------------------------------

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
        const int peak = sweep.PeakNear(freq);
        const double binsOff = (sweep.startHz - freq) / sweep.binHz + peak;
        EXPECT_LE(std::abs(binsOff), freq < STEP_1_STOP ? 1.5 : 1.0) << freq;
        EXPECT_NEAR(sweep.max[static_cast<std::size_t>(peak)], GetParam().levelDbm, 0.5) << freq;
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
            ASSERT_EQ(tqSetSweepScale(device, scale), tqNoError);
            for (const double freq : {FREQ, LOW_FREQ}) {
                Configure(freq < 1e9 ? 30e3 : freq - 20e6, freq + 20e6);
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
        sim::Instrument& instrument = Open(options);
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
        bus.Unplug(instrument);
        std::filesystem::remove_all(home / ".tarnwell");  // the cached record
    }
}

TEST_F(SweepTest, LongSingleStepSweepHoldsItsEnvelope) {
    constexpr double FREQ = 1.021e9;  // 1006.08 to 1036.8 MHz is one step
    Open(Options({Carrier(FREQ, -40.0)}));
    ASSERT_EQ(tqSetSweepDetector(device, tqDetectorMinMax, tqVideoPower), tqNoError);
    Configure(1.010e9, 1.030e9, 30e3, 3e3, 0.02);  // 600 packets, three fetches
    const Sweep sweep = Take();
    ASSERT_EQ(sweep.status, tqNoError);
    double spread = 0.0;
    for (std::size_t k = 0; k < sweep.min.size(); k++) {
        ASSERT_LE(sweep.min[k], sweep.max[k]);
        spread += (sweep.max[k] - sweep.min[k]) / static_cast<double>(sweep.min.size());
    }
    EXPECT_GT(spread, 1.0);  // noise moves, [dB]
    const auto peak = static_cast<std::size_t>(sweep.PeakNear(FREQ));
    EXPECT_NEAR(sweep.min[peak], -40.0, 0.5);
    EXPECT_NEAR(sweep.max[peak], -40.0, 0.5);
}

// --- Calls
// ---------------------------------------------------------------------------------------------------------------

TEST_F(SweepTest, HundredSweepsAreEqual) {
    Open(Options({Carrier(1.1e9, -30.0), Carrier(2.9e9, -50.0), Carrier(10e6, -40.0)}));
    Configure(9e3, 3e9, 30e3, 10e3);
    const Sweep first = Take();
    ASSERT_EQ(first.status, tqNoError);
    for (int i = 1; i < 100; i++) {
        const Sweep next = Take();
        ASSERT_EQ(next.status, tqNoError);
        ASSERT_EQ(next.min, first.min) << i;
        ASSERT_EQ(next.max, first.max) << i;
        ASSERT_GT(next.time, i == 1 ? first.time : 0);
    }
}

TEST_F(SweepTest, OutputsAreOptionalAndTimesRise) {
    Open(Options({Carrier(1.1e9, -30.0)}));
    Configure(1e9, 1.2e9);
    const Sweep full = Take();
    EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), tqNoError);

    std::vector<float> row(full.min.size());
    EXPECT_EQ(tqGetSweep(device, row.data(), nullptr, nullptr), tqNoError);
    EXPECT_EQ(row, full.min);
    EXPECT_EQ(tqGetSweep(device, nullptr, row.data(), nullptr), tqNoError);
    EXPECT_EQ(row, full.max);

    int64_t last = full.time;
    for (int i = 0; i < 5; i++) {
        int64_t time = 0;
        EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, &time), tqNoError);
        EXPECT_GT(time, last);
        last = time;
    }
}

// Direct commands share slot 0 with the sweep's blocks; the next sweep is not disturbed by their aux packets.
TEST_F(SweepTest, DirectCommandsMayFollowASweepAtOnce) {
    Open(Options({Carrier(1.1e9, -30.0)}));
    Configure(1e9, 1.2e9);
    const Sweep first = Take();
    for (int i = 0; i < 20; i++) {
        float setPoint = 0.0f, voltage = 0.0f;
        ASSERT_EQ(tqGetFanSettings(device, &setPoint, &voltage), tqNoError);
        const Sweep next = Take();
        ASSERT_EQ(next.status, tqNoError);
        ASSERT_EQ(next.max, first.max);
    }
}

// --- Faults
// ----------------------------------------------------------------------------------------------------------------

struct FaultCase {
    const char* name;
    std::function<void(sim::Instrument&, sim::Bus&)> strike;
    TqStatus expected;
    bool lost;  // the link stays lost until the device is opened anew
};

FaultCase BusFaultCase(const char* name, sim::BusFault fault) {
    return {name, [fault](sim::Instrument& device, sim::Bus& bus) { bus.Inject(device, fault); }, tqConnectionLostErr,
            true};
}

std::vector<FaultCase> FaultCases() {
    using Action = sim::BusFault::Action;
    using Match = sim::BusFault::Match;
    const auto device = [](const char* name, auto arm, TqStatus expected, bool lost) {
        return FaultCase{name, [arm](sim::Instrument& instrument, sim::Bus&) { arm(instrument.faults()); }, expected,
                         lost};
    };
    sim::BusFault refuseRead{Action::refuse, Match::bulkIn}, refuseCommand{Action::refuse, Match::bulkOut, 3};
    refuseRead.error = ENOMEM;
    refuseCommand.error = EIO;
    sim::BusFault shortRead{Action::shortTransfer, Match::bulkIn};
    shortRead.bytes = 8192;
    sim::BusFault lateCancel{Action::hang, Match::bulkIn};
    lateCancel.cancelDelay = std::chrono::milliseconds(300);
    return {
        device(
            "WrongMagic", [](sim::Faults& f) { f.WrongAuxMagicAt(0); }, tqFramingErr, false),
        device(
            "DataLoss", [](sim::Faults& f) { f.DataLossAt(0); }, tqUncalData, false),
        device(
            "Overflow", [](sim::Faults& f) { f.AdcOverflowAt(0); }, tqADCOverflow, false),
        device(
            "TemperatureStep", [](sim::Faults& f) { f.TemperatureStepAt(0, 41.0); }, tqTempDrift, false),
        device(
            "SilentInstrument", [](sim::Faults& f) { f.SilentAt(5); }, tqConnectionLostErr, true),
        device(
            "ShortPacket", [](sim::Faults& f) { f.ShortAt(8); }, tqConnectionLostErr, true),
        device(
            "StalledRead", [](sim::Faults& f) { f.StallAt(5); }, tqConnectionLostErr, true),
        device(
            "LostPps", [](sim::Faults& f) { f.LosePps(); }, tqNoError, false),
        BusFaultCase("HangingRead", {Action::hang, Match::bulkIn}),
        BusFaultCase("LateCancel", lateCancel),
        BusFaultCase("ShortRead", shortRead),
        BusFaultCase("RefusedRead", refuseRead),
        BusFaultCase("RefusedCommand", refuseCommand),
        BusFaultCase("StalledCommand", {Action::stall, Match::bulkOut, 2}),
        BusFaultCase("UnpluggedAtARead", {Action::unplug, Match::bulkIn}),
        BusFaultCase("UnpluggedAtACommand", {Action::unplug, Match::bulkOut, 4}),
    };
}

class SweepFaults : public SweepTest, public ::testing::WithParamInterface<FaultCase> {
protected:
    void ExpectTheNextOpenToWork(sim::Instrument& instrument, const std::vector<float>& sweepMax) {
        instrument.faults().Clear();
        instrument.SetTemperature(sim::InstrumentOptions().temperatureC);
        bus.ClearFaults(instrument);
        CloseDevice();
        bus.Unplug(instrument);
        bus.Replug(instrument);
        OpenDevice();
        Configure(1e9, 1.3e9);
        const Sweep again = Take();
        EXPECT_EQ(again.status, tqNoError);
        EXPECT_EQ(again.max, sweepMax);
    }
};

TEST_P(SweepFaults, SweepCompletesAndTells) {
    const FaultCase& fault = GetParam();
    sim::Instrument& instrument = Open(Options({Carrier(1.1e9, -30.0)}));
    Configure(1e9, 1.3e9);
    const Sweep good = Take();
    ASSERT_EQ(good.status, tqNoError);

    fault.strike(instrument, bus);
    EXPECT_EQ(Take().status, fault.expected);

    if (!fault.lost) {
        // Of this sweep alone, but for the temperature, which takes a new configuration.
        if (fault.expected == tqTempDrift) {
            EXPECT_EQ(Take().status, tqTempDrift);
            Configure(1e9, 1.3e9);
        }
        EXPECT_EQ(Take().status, tqNoError);
        return;
    }
    ExpectTheNextOpenToWork(instrument, good.max);
}

// The same faults while an instrument with a cached record is opened. Most fall on reads whose time-out is the normal
// signal there, or on the first aux packet: then it opens. If not, the link is lost.
TEST_P(SweepFaults, OpeningEndsAndTheNextOneWorks) {
    sim::Instrument& instrument = Open(Options({Carrier(1.1e9, -30.0)}));
    Configure(1e9, 1.3e9);
    const Sweep good = Take();
    CloseDevice();

    GetParam().strike(instrument, bus);
    const TqStatus status = tqOpenDeviceBySerial(&device, SERIAL);
    EXPECT_TRUE(status == tqNoError || status == tqConnectionLostErr) << status;
    if (status < tqNoError) device = -1;
    ExpectTheNextOpenToWork(instrument, good.max);
}

INSTANTIATE_TEST_SUITE_P(Faults, SweepFaults, ::testing::ValuesIn(FaultCases()),
                         [](const auto& test) { return std::string(test.param.name); });

// A link that is lost once stays lost, and a sweep over it still ends.
TEST_F(SweepTest, SweepsAfterUnplugEndAtOnce) {
    sim::Instrument& instrument = Open(Options({}));
    Configure(9e3, 15e9);
    ASSERT_EQ(Take().status, tqNoError);
    bus.Unplug(instrument);
    EXPECT_EQ(Take().status, tqConnectionLostErr);
    EXPECT_EQ(Take().status, tqConnectionLostErr);
}

}  // namespace
