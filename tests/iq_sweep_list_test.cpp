// I/Q sweep lists end to end: exports, planner, engine and USB on virtual instruments, compared with the scene that
// these receive.
#include "api_fixture.h"
#include "sim/calibration.h"

#include <cmath>
#include <complex>
#include <numbers>

namespace {

constexpr double RATE = 61.44e6;

struct Step {
    double freqHz;
    double levelDbm;  // of the carrier at freqHz
    int atten;
    double refDbm;
    uint32_t samples;
};

// Both paths of the front end, several bands, on and off the tune grid, and each step with RF settings of its own.
const std::vector<Step> STEPS = {
    {9e3, -35.0, -1, -30.0, 131072},         {3.1234567e6, -35.0, 1, 0.0, 65537}, {26.7e6, -30.0, -1, -20.0, 100001},
    {101.3e6, -45.0, 0, 0.0, 65536},         {962399999.9, -20.0, 3, 0.0, 70000}, {2.4e9 + 1.0, -5.0, -1, 5.0, 65535},
    {5.80012345e9, -30.0, -1, -15.0, 80001}, {10.3e9, -40.0, 0, 0.0, 1 << 17},    {15e9, -15.0, 6, 0.0, 65999},
};

// Of these, those whose words leave nothing behind that the next pass could see: passes are equal to the bit.
const std::vector<Step> EQUAL_STEPS(STEPS.begin() + 3, STEPS.begin() + 6);

using Sample = std::complex<float>;

struct Pass {
    std::vector<Sample> iq;
    std::vector<int64_t> stamps;
    TqStatus status = tqNoError;
};

class IQSweepListTest : public ApiFixture {
protected:
    void Open(double temperatureC = 35.0, sim::GpsState gps = sim::GpsState::absent) {
        sim::InstrumentOptions options;
        options.temperatureC = temperatureC;
        options.gps = gps;
        for (const Step& step : STEPS) options.scene.emitters.push_back(Carrier(step.freqHz, step.levelDbm));
        ApiFixture::Open(std::move(options));
    }

    void Configure(const std::vector<Step>& steps = STEPS, TqDataType type = tqDataType32fc) {
        total = 0;
        count = steps.size();
        ASSERT_EQ(tqSetIQSweepListDataType(device, type), tqNoError);
        ASSERT_EQ(tqSetIQSweepListSteps(device, static_cast<int>(count)), tqNoError);
        for (std::size_t i = 0; i < count; i++) {
            const int step = static_cast<int>(i);
            ASSERT_EQ(tqSetIQSweepListFreq(device, step, steps[i].freqHz), tqNoError);
            ASSERT_EQ(tqSetIQSweepListRef(device, step, steps[i].refDbm), tqNoError);
            ASSERT_EQ(tqSetIQSweepListAtten(device, step, steps[i].atten), tqNoError);
            ASSERT_EQ(tqSetIQSweepListSampleCount(device, step, steps[i].samples), tqNoError);
            total += steps[i].samples;
        }
        ASSERT_EQ(tqConfigure(device, tqModeIQSweepList), tqNoError);
    }

    Pass Take() {
        Pass pass{std::vector<Sample>(total), std::vector<int64_t>(count), tqNoError};
        pass.status = tqIQSweepListGetSweep(device, pass.iq.data(), pass.stamps.data());
        return pass;
    }

    std::size_t total = 0;  // samples of a pass
    std::size_t count = 0;  // steps
};

std::complex<double> Mean(const Sample* samples, std::size_t length) {
    std::complex<double> sum;
    for (std::size_t i = 0; i < length; i++) sum += std::complex<double>(samples[i]);
    return sum / static_cast<double>(length);
}

TEST_F(IQSweepListTest, CarriersStandAtZeroFrequencyAndTheirLevel) {
    for (const double temperature : {35.0, -11.0}) {
        SCOPED_TRACE(temperature);
        Open(temperature);
        Configure();
        const Pass pass = Take();
        ASSERT_EQ(pass.status, tqNoError);
        const Sample* samples = pass.iq.data();
        for (const Step& step : STEPS) {
            const std::size_t half = step.samples / 2;
            const std::complex<double> first = Mean(samples, half), second = Mean(samples + half, half);
            const double hertz = std::arg(second / first) / (2.0 * std::numbers::pi) * RATE / static_cast<double>(half);
            EXPECT_NEAR(hertz, 0.0, 1.0) << step.freqHz;
            // The rise towards zero frequency is a matter of sweeps: a list does not correct it.
            const double level = step.levelDbm + sim::LowFrequencyRise(step.freqHz);
            EXPECT_NEAR(20.0 * std::log10(std::abs(first + second) / 2.0), level, 0.5) << step.freqHz;
            samples += step.samples;
        }
        EXPECT_EQ(instrument->Counters().unknownWords, 0U);
        EXPECT_EQ(instrument->Counters().protocolErrors, 0U);
        CloseDevice();
        bus.Unplug(*instrument);
    }
}

TEST_F(IQSweepListTest, CorrectionsTakeSixteenBitsToTheCorrectedScale) {
    Open();
    Configure(EQUAL_STEPS);
    const Pass wide = Take();
    std::vector<float> factors(count);
    ASSERT_EQ(tqIQSweepListGetCorrections(device, factors.data()), tqNoError);

    Configure(EQUAL_STEPS, tqDataType16sc);
    std::vector<int16_t> narrow(2 * total);
    ASSERT_EQ(tqIQSweepListGetSweep(device, narrow.data(), nullptr), tqNoError);
    std::size_t at = 0;
    for (std::size_t step = 0; step < count; step++) {
        const float factor = factors[step] / 32768.0f;
        for (const std::size_t end = at + EQUAL_STEPS[step].samples; at < end; at++) {
            ASSERT_NEAR(static_cast<float>(narrow[2 * at]) * factor, wide.iq[at].real(), 0.51f * factor) << at;
            ASSERT_NEAR(static_cast<float>(narrow[2 * at + 1]) * factor, wide.iq[at].imag(), 0.51f * factor) << at;
        }
    }

    // Full scale: the same samples without the factor.
    ASSERT_EQ(tqSetIQSweepListCorrected(device, tqFalse), tqNoError);
    Configure(EQUAL_STEPS);
    const Pass raw = Take();
    EXPECT_NEAR(std::abs(raw.iq.back()) * factors.back(), std::abs(wide.iq.back()), 1e-5 * factors.back());
}

TEST_F(IQSweepListTest, StampsNameTheFirstSampleUnderPPS) {
    Open(35.0, sim::GpsState::locked);
    instrument->AdvanceTime(std::chrono::seconds(3));
    Configure({{1e9, -30.0, 0, 0.0, 50001}, {2e9, -30.0, 0, 0.0, 1}, {3e9, -30.0, 0, 0.0, 1234567}});
    Take();  // its aux packets bring the fix
    for (int i = 0; i < 3; i++) {
        const Pass pass = Take();
        ASSERT_EQ(pass.status, tqNoError);
        EXPECT_NEAR(static_cast<double>(pass.stamps.back() - instrument->GpsNanosAt(instrument->State().startCounter)),
                    0.0, 1e9 / RATE);
        EXPECT_LT(pass.stamps[0], pass.stamps[1]);
        EXPECT_LT(pass.stamps[1], pass.stamps[2]);
    }
}

TEST_F(IQSweepListTest, SixteenSweepsInFlightAreEqual) {
    Open();
    Configure(EQUAL_STEPS);
    const Pass alone = Take();
    std::vector<Pass> passes(16, Pass{std::vector<Sample>(total), std::vector<int64_t>(count), tqNoError});
    for (int round = 0; round < 2; round++) {
        for (int pos = 15; pos >= 0; pos--) {
            Pass& pass = passes[static_cast<std::size_t>(pos)];
            ASSERT_EQ(tqIQSweepListStartSweep(device, pos, pass.iq.data(), pass.stamps.data()), tqNoError);
        }
        for (int pos = 0; pos < 16; pos++) ASSERT_EQ(tqIQSweepListFinishSweep(device, pos), tqNoError);
        for (std::size_t pos = 0; pos < 16; pos++) {
            ASSERT_EQ(passes[pos].iq, alone.iq) << pos;
            if (pos > 0) {
                EXPECT_GT(passes[pos - 1].stamps[0], passes[pos].stamps.back());
            }
        }
    }
}

// Direct commands share slots with the engine, also right behind a sweep and while others are under way.
TEST_F(IQSweepListTest, DirectCommandsDoNotDisturbTheSweeps) {
    Open();
    const std::vector<Step> one = {{1e9, -30.0, 0, 0.0, 3001}};
    Configure(one);
    const Pass alone = Take();
    for (int i = 0; i < 50; i++) {
        float setPoint = 0.0f, voltage = 0.0f;
        ASSERT_EQ(tqGetFanSettings(device, &setPoint, &voltage), tqNoError);
        Pass pass = alone;
        ASSERT_EQ(tqIQSweepListStartSweep(device, 3, pass.iq.data(), nullptr), tqNoError);
        ASSERT_EQ(tqGetFanSettings(device, &setPoint, &voltage), tqNoError);
        ASSERT_EQ(tqIQSweepListFinishSweep(device, 3), tqNoError);
        ASSERT_EQ(pass.iq, alone.iq);
    }
}

TEST_F(IQSweepListTest, NextModeAfterAnAbortStartsWithItsOwnData) {
    Open();
    Configure(EQUAL_STEPS);
    const Pass good = Take();
    Pass lost = good;
    for (int round = 0; round < 4; round++) {
        for (int pos = 0; pos < 16; pos++) {
            ASSERT_EQ(tqIQSweepListStartSweep(device, pos, lost.iq.data(), lost.stamps.data()), tqNoError);
        }
        if (round > 0) {
            ASSERT_EQ(tqIQSweepListFinishSweep(device, round), tqNoError);
        }
        if (round % 2 == 1) {
            ASSERT_EQ(tqAbort(device), tqNoError);
        }
        ASSERT_EQ(tqConfigure(device, tqModeIQSweepList), tqNoError);
        const Pass next = Take();
        ASSERT_EQ(next.status, tqNoError);
        ASSERT_EQ(next.iq, good.iq) << round;
    }
    EXPECT_EQ(instrument->Counters().protocolErrors, 0U);
    EXPECT_EQ(tqAbort(device), tqNoError);
    EXPECT_EQ(tqIQSweepListStartSweep(device, 0, lost.iq.data(), nullptr), tqInvalidConfigurationErr);
    EXPECT_EQ(tqIQSweepListFinishSweep(device, 0), tqInvalidConfigurationErr);
    EXPECT_EQ(tqIQSweepListGetSweep(device, lost.iq.data(), nullptr), tqInvalidConfigurationErr);
}

class IQSweepListFaults : public IQSweepListTest, public ::testing::WithParamInterface<FaultCase> {};

// Amid sixteen sweeps of three steps: at least one tells, and all behind it when the link is lost.
TEST_P(IQSweepListFaults, SweepsCompleteAndTell) {
    const FaultCase& fault = GetParam();
    Open();
    Configure(EQUAL_STEPS);
    const Pass good = Take();
    ASSERT_EQ(good.status, tqNoError);

    Strike(fault);
    std::vector<Pass> passes(16, good);
    for (std::size_t pos = 0; pos < 16; pos++) {
        ASSERT_EQ(tqIQSweepListStartSweep(device, static_cast<int>(pos), passes[pos].iq.data(), nullptr), tqNoError);
    }
    int told = 0;
    TqStatus last = tqNoError;
    for (int pos = 0; pos < 16; pos++) {
        last = tqIQSweepListFinishSweep(device, pos);
        if (last == fault.expected) told++;
    }
    EXPECT_GE(told, 1);

    if (fault.LosesTheLink()) {
        EXPECT_EQ(last, tqConnectionLostErr);
        EXPECT_EQ(Take().status, tqConnectionLostErr);
        Reopen();
    }
    Configure(EQUAL_STEPS);
    const Pass again = Take();
    EXPECT_EQ(again.status, tqNoError);
    if (fault.expected != tqTempDrift) {
        EXPECT_EQ(again.iq, good.iq);
    }
}

INSTANTIATE_TEST_SUITE_P(Faults, IQSweepListFaults,
                         ::testing::ValuesIn(FaultCases({.aux = 6, .packet = 500, .read = 5, .command = 9})),
                         [](const auto& test) { return test.param.name; });

}  // namespace
