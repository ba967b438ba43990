// The real-time mode end to end: exports, planner, engine and USB on virtual instruments, compared with the scene that
// these receive. The stream waits for the client, so that a slow machine sees the same frames.
#include "api_fixture.h"
#include "sim/gated_instrument.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int64_t FRAME = 2048000;    // [samples]
constexpr int64_t READ = 127 * 2048;  // likewise
constexpr int64_t IN_FLIGHT = 12;     // reads

// Behind a lost link the engine goes on at its own pace, faster than this sanitizer lets it follow itself: it then
// overwrites samples in place, as it should, and that is a race.
#if defined(__SANITIZE_THREAD__)
constexpr bool OUTRUN = true;
#else
constexpr bool OUTRUN = false;
#endif

struct Setting {
    double centerHz = 1e9;
    double spanHz = 4e7;
    double rbwHz = 30e3;
    TqDetector detector = tqDetectorMinMax;
    TqScale scale = tqScaleLog;
};

struct Frame {
    std::vector<float> density, alpha, min, max;
    int count = -1;
    int64_t time = -1;
    TqStatus status = tqNoError;
};

class RealTimeTest : public ApiFixture {
protected:
    void Open() {
        sim::InstrumentOptions options;
        options.serial = SERIAL;
        gate = &Plug<sim::GatedInstrument>(options);
        instrument = gate;
        OpenDevice();
    }

    void Configure(const Setting& s) {
        ASSERT_EQ(tqAbort(device), tqNoError);
        gate->Allow(0);
        ASSERT_EQ(tqSetRealTimeCenterSpan(device, s.centerHz, s.spanHz), tqNoError);
        ASSERT_EQ(tqSetRealTimeRBW(device, s.rbwHz), tqNoError);
        ASSERT_EQ(tqSetRealTimeDetector(device, s.detector), tqNoError);
        ASSERT_EQ(tqSetRealTimeScale(device, s.scale, -20.0, 100.0), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeRealTime), tqNoError);
        ASSERT_EQ(tqGetRealTimeParameters(device, nullptr, &size, &startHz, &binHz, &width, &height, nullptr),
                  tqNoError);
        before = gate->Passed();
        frames = 0;
    }

    Frame Take() {
        constexpr int64_t LEAD = 2000000;  // before a frame is sure to be there, so many more samples have to be
        gate->Allow(before + ((frames + 1) * FRAME + LEAD) / READ);
        Frame f;
        f.density.resize(static_cast<std::size_t>(width * height));
        f.alpha.resize(f.density.size());
        f.min.resize(static_cast<std::size_t>(size));
        f.max.resize(f.min.size());
        f.status =
            tqGetRealTimeFrame(device, f.density.data(), f.alpha.data(), f.min.data(), f.max.data(), &f.count, &f.time);
        // Over a lost link frames come a hundred times as fast, by the pauses that tests shorten, and past a slow test.
        EXPECT_TRUE(f.count == frames || f.status == tqConnectionLostErr) << f.count << ", not " << frames;
        frames = f.count + 1;
        return f;
    }

    // A carrier in the middle of the bin nearest to a frequency, from the next frame on.
    int PlaceCarrier(double freqHz, double levelDbm) {
        const double bin = std::round((freqHz - startHz) / binHz);
        sim::Scene scene;
        scene.emitters = {Carrier(startHz + bin * binHz, levelDbm)};
        instrument->SetScene(scene);
        // Not what was under way.
        const int64_t queued = gate->Passed() - before + IN_FLIGHT;
        while (frames * FRAME < queued * READ) EXPECT_EQ(Take().status, tqNoError);
        return static_cast<int>(bin);
    }
    int PeakOf(const std::vector<float>& sweep) const {
        return static_cast<int>(std::max_element(sweep.begin(), sweep.end()) - sweep.begin());
    }

    sim::GatedInstrument* gate = nullptr;  // the instrument
    int64_t before = 0;                    // reads of earlier configurations
    int frames = 0;
    int size = 0, width = 0, height = 0;
    double startHz = 0.0, binHz = 0.0;
};

class RealTimeLevels : public RealTimeTest, public ::testing::WithParamInterface<double> {};

// In every band, for every unit and detector, and in the image, too; each RBW takes some of them.
TEST_P(RealTimeLevels, CarriersReadTrue) {
    constexpr double CENTERS[] = {25.1e6, 97.3e6, 433.92e6, 1.0123456e9, 2.45e9, 5.8001e9, 14.9e9};
    constexpr double SPANS[] = {4e7, 2e5, 2e7, 1e6};  // the narrow ones may lie to one side of the stream's centre
    constexpr double LEVEL = -35.0, MV = 223.6;
    Open();
    const auto first = static_cast<std::size_t>(std::lround(GetParam() / 1e3)) % 3;
    for (std::size_t i = first; i < std::size(CENTERS); i += 3) {
        SCOPED_TRACE(CENTERS[i]);
        const bool log = i % 4 != 2;
        Configure({.centerHz = CENTERS[i],
                   .spanHz = SPANS[i % 4],
                   .rbwHz = GetParam(),
                   .detector = i % 2 == 0 ? tqDetectorMinMax : tqDetectorAverage,
                   .scale = log ? tqScaleLog : tqScaleLin});
        const int bin = PlaceCarrier(CENTERS[i] + 0.18 * SPANS[i % 4], LEVEL);
        const Frame f = Take();
        ASSERT_EQ(f.status, tqNoError);
        for (const std::vector<float>* const sweep : {&f.min, &f.max}) {
            const double read = (*sweep)[static_cast<std::size_t>(bin)];
            EXPECT_EQ(PeakOf(*sweep), bin);
            EXPECT_NEAR(log ? read : 20.0 * std::log10(read / MV), LEVEL, 0.5);
        }

        // The highest pixel of the carrier's column stands at its level, and three frames of hits stand in each column.
        const std::size_t column = static_cast<std::size_t>(bin / (size / width));
        std::size_t top = 0;
        double sum = 0.0;
        for (std::size_t level = 0; level < 256; level++) {
            const float density = f.density[level * static_cast<std::size_t>(width) + column];
            if (density > 0.0f) top = level;
            sum += static_cast<double>(density);
            EXPECT_EQ(density > 0.0f, f.alpha[level * static_cast<std::size_t>(width) + column] > 0.0f) << level;
        }
        EXPECT_NEAR(sum, frames / 40.0, 1e-5);
        const double expected = log ? (LEVEL + 120.0) * 2.56 : std::pow(10.0, (LEVEL + 20.0) / 20.0) * 255.0;
        EXPECT_NEAR(static_cast<double>(top), expected, log ? 0.5 * 2.56 + 1.0 : 0.06 * expected + 1.0);
    }
}

INSTANTIATE_TEST_SUITE_P(Rbws, RealTimeLevels, ::testing::Values(2e3, 30e3, 250e3, 1e6));

class RealTimeFaults : public RealTimeTest, public ::testing::WithParamInterface<FaultCase> {};

// In the middle of the stream, but armed while nothing streams, so that it falls on a known place of a read.
TEST_P(RealTimeFaults, EndInTheirStatusAndTheNextStreamIsSound) {
    const FaultCase& fault = GetParam();
    if (OUTRUN && fault.LosesTheLink()) GTEST_SKIP();
    Open();
    const Setting setting = {.rbwHz = 100e3};
    Strike(fault);
    Configure(setting);
    TqStatus status = tqNoError;
    for (int i = 0; i < 100 && status == tqNoError; i++) status = Take().status;
    EXPECT_EQ(status, fault.expected);
    const bool flag = status == tqADCOverflow || status == tqUncalData;
    EXPECT_EQ(Take().status, flag ? tqNoError : status) << "flags are told once, and frames keep coming";

    instrument->faults().Clear();
    if (fault.LosesTheLink()) Reopen();
    Configure(setting);
    const int bin = PlaceCarrier(1.0073e9, -30.0);
    const Frame f = Take();
    ASSERT_EQ(f.status, tqNoError);
    EXPECT_EQ(PeakOf(f.min), bin);
    EXPECT_NEAR(f.min[static_cast<std::size_t>(bin)], -30.0, 0.5);
}

// Of the aux packets the engine looks at every twelfth.
std::vector<FaultCase> RealTimeFaultCases() {
    const auto inAll = [](void (sim::Faults::*arm)(uint64_t), uint64_t count) {
        return [arm, count](sim::Faults& faults) {
            for (uint64_t i = 0; i < count; i++) (faults.*arm)(30 + i);
        };
    };
    std::vector<FaultCase> cases = {
        DeviceFault("Overflow", tqADCOverflow, inAll(&sim::Faults::AdcOverflowAt, 12)),
        DeviceFault("DataLoss", tqUncalData, inAll(&sim::Faults::DataLossAt, 12)),
        DeviceFault("WrongMagic", tqFramingErr, inAll(&sim::Faults::WrongAuxMagicAt, 1000)),
        DeviceFault("TemperatureStep", tqTempDrift, [](sim::Faults& f) { f.TemperatureStepAt(30, 41.0); }),
    };
    for (const FaultCase& fault : FaultCases({.packet = 2004, .read = 40, .command = 40})) {
        if (fault.LosesTheLink()) cases.push_back(fault);
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Kinds, RealTimeFaults, ::testing::ValuesIn(RealTimeFaultCases()),
                         [](const auto& row) { return row.param.name; });

TEST_F(RealTimeTest, ModesFollowEachOtherInStep) {
    Open();
    for (const double rbw : {2e3, 1e6}) {
        Configure({.rbwHz = rbw});
        PlaceCarrier(1.0073e9, -30.0);
        EXPECT_EQ(Take().status, tqNoError);
        EXPECT_EQ(tqSetReference(device, tqReferenceUseExternal), tqInvalidConfigurationErr)
            << "the stream's endpoints";
        EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), tqInvalidConfigurationErr);
        ASSERT_EQ(tqAbort(device), tqNoError);
        EXPECT_EQ(tqGetRealTimeFrame(device, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                  tqInvalidConfigurationErr);

        ASSERT_EQ(tqSetSweepCenterSpan(device, 1e9, 20e6), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeSweeping), tqNoError);
        ASSERT_EQ(tqGetSweepParameters(device, nullptr, nullptr, nullptr, nullptr, &size), tqNoError);
        std::vector<float> sweep(static_cast<std::size_t>(size));
        EXPECT_EQ(tqGetSweep(device, nullptr, sweep.data(), nullptr), tqNoError);
        EXPECT_NEAR(*std::ranges::max_element(sweep), -30.0, 0.5);
    }
    EXPECT_EQ(instrument->Counters().unknownWords, 0u);
    EXPECT_EQ(instrument->Counters().protocolErrors, 0u);
}

}  // namespace
