// EngineSweepNarrow on a scripted device that sends noise, every packet different: the spectrum is compared with that
// of the same stream shifted, filtered and decimated in double precision. Whole instruments are the matter of
// narrow_sweep_test.
#include "engine_sweep_narrow.h"

#include "scripted_stream.h"
#include "tq_lib.h"

#include <algorithm>
#include <complex>
#include <numbers>

namespace {

struct Plan {
    TqSweepSettings settings;
    SweepSetup setup;
    TqCommand commands;
    PatchSetup patch = {};
};

constexpr double CENTER = 1e9;
constexpr int SWEEP_SIZE = 46;
constexpr int OFFSET = 9;

Plan MakePlan(double span, int pktCount, double centerOffset = 123456.0, TqScale scale = tqScaleLin) {
    Plan plan;
    plan.settings.start = CENTER - span / 2;
    plan.settings.stop = CENTER + span / 2;
    plan.settings.window = tqWindowHamming;
    plan.settings.videoUnits = tqVideoVoltage;
    plan.settings.detector = tqDetectorMinMax;
    plan.settings.scale = scale;
    plan.settings.sweepSize = SWEEP_SIZE;
    plan.patch.actualFreq = CENTER - centerOffset;
    plan.patch.coarseCorrection = -6.5f;

    int hwDecimation = 0;
    int swDecimation = 0;
    CalculateDecimation(GetNarrowSweepDecimation(span), hwDecimation, swDecimation);
    SweepSetup& setup = plan.setup;
    setup.fftSize = 64;
    setup.bestFFTSize = 50;
    setup.zeroPadAmount = 14;
    setup.numSteps = 1;
    setup.pktPerStep = pktCount;
    setup.iirFc = 0.25;
    setup.narrowSweepOffset = OFFSET;
    const int samples = (pktCount - (swDecimation > 1 ? 1 : 0)) * SAMPLES_PER_PACKET / swDecimation;
    setup.fftsPerStep = (samples - setup.bestFFTSize) / (setup.fftSize / 4) + 1;

    for (int left = pktCount; left > 0; left -= MAX_FETCH_IQ_PKTS) {
        plan.commands.StartNewCommand();
        plan.commands.AddFetchIQ(static_cast<uint32_t>(std::min(left, MAX_FETCH_IQ_PKTS)), 0);
    }
    return plan;
}

// The device's whole stream, shifted, filtered and decimated sample by sample in double precision.
class Reference {
public:
    explicit Reference(const Plan& sweepPlan) : plan(sweepPlan) {
        CalculateDecimation(GetNarrowSweepDecimation(plan.settings.Span()), hwDecimation, swDecimation);
        if (swDecimation == 1) return;
        // Windowed sinc of 2049 taps, cut off at 0.45 of the decimated rate, gain 1 at zero frequency.
        const double cutoff = 0.45 / swDecimation;
        double sum = 0.0;
        for (int k = -DELAY; k <= DELAY; k++) {
            const double turn = std::numbers::pi * (k + DELAY) / DELAY;
            const double blackman = 0.42 - 0.5 * std::cos(turn) + 0.08 * std::cos(2 * turn);
            const double x = 2 * std::numbers::pi * cutoff * k;
            taps.push_back(blackman * (k == 0 ? 1.0 : std::sin(x) / x));
            sum += taps.back();
        }
        for (double& tap : taps) tap /= sum;
    }

    // Rows of the next capture.
    void NextSweep(std::vector<float>& min, std::vector<float>& max) {
        const std::size_t first = shifted.size();
        const double turnsPerSample = (plan.patch.actualFreq - CENTER) / (61.44e6 / hwDecimation);
        for (int i = 0; i < plan.setup.pktPerStep; i++) {
            std::vector<Ipp16sc> samples(SAMPLES_PER_PACKET);
            NoisePacket(packet++, samples.data());
            for (const Ipp16sc& sample : samples) {
                const double turns = turnsPerSample * static_cast<double>(shifted.size());
                const std::complex<double> iq((sample.re - WIRE_OFFSET) / 32768.0, (sample.im - WIRE_OFFSET) / 32768.0);
                shifted.push_back(iq * std::polar(1.0, 2 * std::numbers::pi * (turns - std::floor(turns))));
            }
        }
        std::vector<Ipp32fc> prepped;
        const std::size_t delay = swDecimation > 1 ? DELAY : 0;
        for (std::size_t at = first + delay; at < shifted.size(); at += static_cast<std::size_t>(swDecimation)) {
            std::complex<double> sum = swDecimation > 1 ? 0.0 : shifted[at];
            for (std::size_t k = 0; k < taps.size() && k <= at; k++) sum += taps[k] * shifted[at - k];
            prepped.push_back({static_cast<float>(sum.real()), static_cast<float>(sum.imag())});
        }
        SweepProcessor(plan.settings, plan.setup).ProcessInput(prepped.data(), min.data(), max.data());
    }

private:
    static constexpr int DELAY = 1024;
    const Plan& plan;
    int hwDecimation = 1;
    int swDecimation = 1;
    std::vector<double> taps;
    std::vector<std::complex<double>> shifted;
    int64_t packet = 0;
};

class EngineSweepNarrowTest : public ScriptedFixture {
protected:
    void PlugNoise() {
        PlugScripted();
        scripted->render = NoisePacket;
    }

    EngineSweepNarrow MakeEngine(const Plan& plan) {
        return {*device, *device->usb, plan.settings, plan.setup, plan.commands, plan.patch};
    }
};

TEST_F(EngineSweepNarrowTest, EverySampleReachesItsBin) {
    const struct {
        const char* name;
        double span;
        int pktCount;
        double centerOffset;
    } CASES[] = {
        {"one read", 4e6, 4, 123456.0},
        {"one read finishes two commands", 4e6, 256, -479999.0},
        {"no host decimation", 10e6, 132, 400e3},
        {"commands that end amid a read", 1e6, 516, 0.0},
        {"more reads than may be in flight", 100.0, 1600, 480e3},
    };
    for (const auto& c : CASES) {
        SCOPED_TRACE(c.name);
        PlugNoise();
        const Plan plan = MakePlan(c.span, c.pktCount, c.centerOffset);
        Reference reference(plan);
        EngineSweepNarrow engine = MakeEngine(plan);
        // The second capture continues the tone and the filter of the first, but none of its spectrum.
        for (int sweep = 0; sweep < 2; sweep++) {
            std::vector<float> min(SWEEP_SIZE + 1, POISON), max(SWEEP_SIZE + 1, POISON), rowMin(64), rowMax(64);
            ASSERT_EQ(engine.GetSweep(min.data(), max.data(), nullptr), tqNoError);
            reference.NextSweep(rowMin, rowMax);
            const double gain = std::pow(10.0, -6.5 / 20.0);
            for (std::size_t k = 0; k < SWEEP_SIZE; k++) {
                ASSERT_NEAR(min[k], rowMin[OFFSET + k] * gain, 1e-3) << sweep << " bin " << k;  // [mV] of 223.6
                ASSERT_NEAR(max[k], rowMax[OFFSET + k] * gain, 1e-3) << sweep << " bin " << k;
            }
            EXPECT_EQ(min.back(), POISON) << "written past the last bin";
            EXPECT_EQ(max.back(), POISON) << "written past the last bin";
        }
    }
}

TEST_F(EngineSweepNarrowTest, ScaleDecidesOnTheGain) {
    for (const TqScale scale : {tqScaleLog, tqScaleFullScale}) {
        PlugNoise();
        const Plan plan = MakePlan(4e6, 8, 123456.0, scale);
        Reference reference(plan);
        EngineSweepNarrow engine = MakeEngine(plan);
        std::vector<float> max(SWEEP_SIZE), rowMin(64), rowMax(64);
        ASSERT_EQ(engine.GetSweep(nullptr, max.data(), nullptr), tqNoError);
        reference.NextSweep(rowMin, rowMax);
        const double gain = scale == tqScaleLog ? -6.5 : 0.0;
        for (std::size_t k = 0; k < SWEEP_SIZE; k++) ASSERT_NEAR(max[k], rowMax[OFFSET + k] + gain, 1e-3) << k;
    }
}

// If each read waited out its time-out it would take over half a minute.
TEST_F(EngineSweepNarrowTest, ALongCaptureOnASilentInstrumentEndsSoon) {
    constexpr int READS = 150;
    sim::SetTimeoutSlack({});
    scripted->silent = true;
    EngineSweepNarrow engine = MakeEngine(MakePlan(100.0, READS * 128));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(engine.GetSweep(nullptr, nullptr, nullptr), tqConnectionLostErr);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST_F(EngineSweepNarrowTest, FirstAuxPacketGivesStatusAndTime) {
    scripted->AuxInTurn(SweepStatusCases());
    EngineSweepNarrow engine = MakeEngine(MakePlan(4e6, 8));
    ExpectStatusAndTimeOfSweeps([&](int64_t* time) { return engine.GetSweep(nullptr, nullptr, time); });
}

}  // namespace
