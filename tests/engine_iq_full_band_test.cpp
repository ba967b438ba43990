#include "engine_iq_full_band.h"

#include "device_support.h"
#include "stream_plan.h"
#include "tq_api_admin.h"
#include "tq_device.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <span>

namespace {

constexpr int SERIAL = 12345678;
constexpr TqMode FULL_BAND = static_cast<TqMode>(tqModeIQFullBand);

class FullBand : public DeviceFixture {
protected:
    void SetUp() override {
        DeviceFixture::SetUp();
        instrument = &PlugKnown(SERIAL);
        ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), tqNoError);
        instrument->EnableLog(true);
    }
    void TearDown() override {
        EXPECT_EQ(tqCloseDevice(device), tqNoError);
        DeviceFixture::TearDown();
    }

    TqStatus Capture(double LOFreq) { return tqAdminGetFullBandIQ(device, LOFreq, iq.data()); }

    TqMode Mode() const {
        TqMode mode = FULL_BAND;
        EXPECT_EQ(tqGetCurrentMode(device, &mode), tqNoError);
        return mode;
    }

    sim::Instrument* instrument = nullptr;
    int device = -1;
    std::vector<float> iq = std::vector<float>(2 * TQ_FULL_BAND_SAMPLES);
};

TEST_F(FullBand, EachCallTakesAllSamplesFromItsOwnStartAndLeavesTheDeviceIdle) {
    sim::Scene scene;
    scene.pattern = sim::Pattern::samples;
    instrument->SetScene(scene);
    ASSERT_EQ(tqConfigure(device, tqModeIQStreaming), tqNoError);
    for (int call = 0; call < 2; ++call) {
        iq.assign(iq.size() + 1, NAN);
        instrument->ClearLog();
        EXPECT_EQ(Capture(1e9), tqNoError);
        EXPECT_EQ(Mode(), tqModeIdle);
        EXPECT_TRUE(std::isnan(iq.back())) << "no more than its samples";
        iq.pop_back();
        for (uint32_t n = 0; n < TQ_FULL_BAND_SAMPLES; ++n) {
            const auto sample = [&](size_t at) { return static_cast<int>(std::lround(iq[at] * 32768.0f)); };
            ASSERT_EQ(sim::ReadNumber(sample(2 * n), sample(2 * n + 1)), n) << call;
        }

        // Behind the stream's stop, if it ran: tuning words, start, one fetch of samples. No taps, no stop.
        const std::vector<uint32_t> words = instrument->LoggedWords();
        const auto stop = std::ranges::find(words, 0x32000000u);
        ASSERT_EQ(stop != words.end(), call == 0);
        const std::span own(call == 0 ? stop + 1 : words.begin(), words.end());
        const auto start = std::ranges::find(own, 0x30000000u);
        EXPECT_EQ(std::count(start, own.end(), 0x31000004u), 1);
        EXPECT_TRUE(std::ranges::none_of(own, [](uint32_t word) { return word >> 24 >= 0x32 && word >> 24 < 0x80; }));
        EXPECT_EQ(instrument->State().ticksPerSample, 1u);
    }
    EXPECT_EQ(instrument->Counters().unknownWords + instrument->Counters().protocolErrors, 0u);
}

TEST_F(FullBand, TunesToTheLimitedFrequencyAndToTheBandOfTheStepAbove) {
    const struct {
        double LOFreq, tunedHz;
        int band;
    } cases[] = {
        {1e6, 3.84e6, 0}, {-INFINITY, 3.84e6, 0}, {984e6, 984e6, 6},   {986e6, 986e6, 7},
        {10e9, 10e9, 12}, {2e10, 19.2e9, 14},     {3.84e6, 3.84e6, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.LOFreq);
        EXPECT_EQ(Capture(c.LOFreq), tqNoError);
        const sim::InstrumentState state = instrument->State();
        ASSERT_TRUE(state.tuning);
        // The synthesiser counts in steps of 960 kHz in front of its divider, and its output may be doubled.
        EXPECT_NEAR(state.tuning->loHz, c.tunedHz, 960e3);
        EXPECT_EQ(state.tuning->band, c.band);
        EXPECT_EQ(state.tuning->attenDb, 0);
        EXPECT_EQ(state.tune.rough, 4u);
        EXPECT_EQ(state.tune.tune, 24u);
    }

    // Where none was ever set: the direct path, at the converter's half rate.
    Tq720Config config;
    const TqCommand plan = PlanIQFullBand(0.0, config);
    instrument->BulkOut(sim::COMMAND_ENDPOINT, {plan.GetCommand(0), sim::BLOCK_BYTES});
    EXPECT_EQ(instrument->State().tuning->loHz, 61.44e6);
    EXPECT_TRUE(instrument->State().tuning->direct);
    EXPECT_EQ(tqConfigure(device, FULL_BAND), tqNoError) << "a mode like any other";
    EXPECT_EQ(Mode(), FULL_BAND);
}

TEST_F(FullBand, FailuresAreToldAndEndIdle) {
    const std::function<void()> faults[] = {
        [&] { instrument->faults().SilentAt(2); },
        [&] { instrument->faults().StallAt(0); },
        [&] { bus.Inject(*instrument, {.action = sim::BusFault::Action::unplug}); },
    };
    for (const auto& arrange : faults) {
        ASSERT_EQ(Capture(1e9), tqNoError);
        arrange();
        sim::SetTimeoutSlack({});
        EXPECT_EQ(Capture(1e9), tqConnectionLostErr);
        EXPECT_EQ(Mode(), tqModeIdle);
        EXPECT_EQ(Capture(1e9), tqConnectionLostErr) << "until the device is closed";
        instrument->faults().Clear();
        tqCloseDevice(device);
        sim::SetTimeoutSlack(TIMEOUT_SLACK);
        bus.Replug(*instrument);  // if it has gone
        ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), tqNoError);
    }
}

}  // namespace
