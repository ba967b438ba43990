// I/Q streams end to end: exports, planner, engine and USB on virtual instruments, compared with the scene that these
// receive, or with samples that carry their running numbers.
#include "api_fixture.h"
#include "frequency_plan.h"
#include "sim/rf_model.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <span>

namespace {

constexpr double BASE_RATE = 61.44e6;
using Complex = std::complex<double>;

struct Stream {
    int decimation = 1;
    double centerHz = 1e9;
    double bandwidthHz = 4e7;
    TqBool filter = tqTrue;
    TqDataType type = tqDataType32fc;
};

struct Read {
    std::vector<std::complex<float>> samples;
    std::vector<double> triggers;
    int64_t time = 0;
    int loss = 0;
    TqStatus status = tqNoError;
};

class IQTest : public ApiFixture {
protected:
    sim::Instrument& Open(std::vector<sim::Emitter> emitters = {}) {
        sim::InstrumentOptions options;
        options.speed = sim::Speed::lockstep;
        options.scene.noiseDbmPerHz = -200.0;
        options.scene.emitters = std::move(emitters);
        return ApiFixture::Open(std::move(options));
    }

    void Configure(const Stream& stream) {
        ASSERT_EQ(tqSetIQSampleRate(device, stream.decimation), tqNoError);
        ASSERT_EQ(tqSetIQCenterFreq(device, stream.centerHz), tqNoError);
        ASSERT_EQ(tqSetIQBandwidth(device, stream.bandwidthHz), tqNoError);
        ASSERT_EQ(tqSetIQSoftwareFilter(device, stream.filter), tqNoError);
        ASSERT_EQ(tqSetIQDataType(device, stream.type), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeIQStreaming), tqNoError);
    }

    Read Take(int count, int triggerRoom = 0) {
        Read read;
        read.samples.resize(static_cast<std::size_t>(count));
        read.triggers.resize(static_cast<std::size_t>(triggerRoom));
        read.status = tqGetIQ(device, read.samples.data(), count, triggerRoom > 0 ? read.triggers.data() : nullptr,
                              triggerRoom, &read.time, tqFalse, &read.loss, nullptr);
        return read;
    }
};

// Amplitude and frequency of the one tone in x, the latter from the phase between its halves. `near` is within half a
// turn over a half's length; everything as fractions of the sample rate.
struct Tone {
    double amplitude;
    double freq;
};
Tone MeasureTone(std::span<const std::complex<float>> x, double near) {
    const std::size_t half = x.size() / 2;
    Complex sums[2] = {};
    for (std::size_t i = 0; i < 2 * half; i++) {
        const double turns = near * static_cast<double>(i);
        sums[i / half] += Complex(x[i]) * std::polar(1.0, -2.0 * std::numbers::pi * (turns - std::floor(turns)));
    }
    const double phase = std::arg(sums[1] * std::conj(sums[0]));
    return {std::abs(sums[0]) / static_cast<double>(half),
            near + phase / (2.0 * std::numbers::pi) / static_cast<double>(half)};
}

class IQCarriers : public IQTest, public ::testing::WithParamInterface<int> {};

// The carrier stands off the centre by a tenth of the rate, at levels that the default reference takes.
TEST_P(IQCarriers, StandAtTheirFrequencyAndLevel) {
    constexpr double CENTERS[] = {9.5e6, 25.1e6, 97.3e6, 433.92e6, 1.0123456e9, 2.45e9, 5.8001e9, 14.9e9};
    constexpr double LEVEL = -35.0;
    const double rate = BASE_RATE / GetParam();
    std::vector<sim::Emitter> emitters;
    for (const double center : CENTERS) emitters.push_back(Carrier(center + 0.1 * std::min(rate, 5e6), LEVEL));
    Open(emitters);

    // As long as resolves a tenth of a hertz; the first samples fill the filters.
    constexpr int SETTLING = 300;
    const int count = std::clamp(200000 / GetParam(), 1000, 200000);
    for (std::size_t i = 0; i < std::size(CENTERS); i++) {
        SCOPED_TRACE(CENTERS[i]);
        Configure({.decimation = GetParam(), .centerHz = CENTERS[i], .bandwidthHz = 0.6 * rate});
        const Read read = Take(SETTLING + count);
        ASSERT_EQ(read.status, tqNoError);
        ASSERT_EQ(read.loss, 0);
        const double offset = emitters[i].freqHz - CENTERS[i];
        const Tone tone = MeasureTone(std::span(read.samples).subspan(SETTLING), offset / rate);
        EXPECT_NEAR(tone.freq * rate, offset, 1.0);
        EXPECT_NEAR(20.0 * std::log10(tone.amplitude), LEVEL, 0.5);
    }
}

INSTANTIATE_TEST_SUITE_P(Decimations, IQCarriers, ::testing::Values(1, 2, 4, 8, 64, 128, 1024, 8192));

TEST_F(IQTest, SixteenBitsTimesTheCorrectionAreTheFloats) {
    Open({Carrier(1.001e9, -25.0)});
    const Stream stream = {.decimation = 8, .bandwidthHz = 5e6};
    Configure(stream);
    float scale = 0.0f;
    ASSERT_EQ(tqGetIQCorrection(device, &scale), tqNoError);
    const Read floats = Take(5000);
    Configure({.decimation = 8, .bandwidthHz = 5e6, .type = tqDataType16sc});
    std::vector<std::complex<int16_t>> shorts(5000);
    ASSERT_EQ(tqGetIQ(device, shorts.data(), 5000, nullptr, 0, nullptr, tqFalse, nullptr, nullptr), tqNoError);
    for (std::size_t i = 0; i < shorts.size(); i++) {
        ASSERT_NEAR(shorts[i].real() * scale / 32768.0f, floats.samples[i].real(), 0.51f * scale / 32768.0f) << i;
        ASSERT_NEAR(shorts[i].imag() * scale / 32768.0f, floats.samples[i].imag(), 0.51f * scale / 32768.0f) << i;
    }
}

class IQTriggers : public IQTest, public ::testing::WithParamInterface<int> {};

// A pulse is switched on at a known sample, and a trigger placed there: both come out at the same place.
TEST_P(IQTriggers, LieAtTheSampleThatTheyMark) {
    const int decimation = GetParam();
    constexpr int64_t EDGE = 6 * 131072 + 4320;  // at the base rate; the readers need some packets to arm
    sim::Emitter pulse = Carrier(1e9, -30.0);
    pulse.kind = sim::EmitterKind::pulse;
    pulse.periodS = EDGE / BASE_RATE;
    pulse.widthS = pulse.periodS / 4.0;
    Open({pulse});
    instrument->TriggerAtSample(static_cast<uint64_t>(EDGE / std::min(decimation, 4)));  // of the instrument's stream
    Configure({.decimation = decimation, .bandwidthHz = 0.6 * BASE_RATE / decimation});
    const Read read = Take(static_cast<int>(EDGE * 5 / 4 / decimation), 2);
    ASSERT_EQ(read.status, tqNoError);
    ASSERT_EQ(read.loss, 0);

    // Where the envelope passes half of its height on its last way up, between two samples. The first sample that is
    // on lies half a sample of the instrument's stream behind that. What is allowed for the optional filter is one
    // sample more than its delay.
    const float half = std::abs(read.samples.back()) / 2.0f;
    std::size_t i = read.samples.size() - 1;
    while (std::abs(read.samples[i - 1]) > half) i--;
    const double rise = std::abs(read.samples[i]) - std::abs(read.samples[i - 1]);
    const double edge = static_cast<double>(i) - (std::abs(read.samples[i]) - half) / rise;
    EXPECT_NEAR(read.triggers[0], edge + 0.5 * std::min(decimation, 4) / decimation, 1.01);
    EXPECT_EQ(read.triggers[1], 0.0) << "one trigger, and the sentinel";
}

INSTANTIATE_TEST_SUITE_P(Decimations, IQTriggers, ::testing::Values(1, 4, 16, 128));

// One that comes before a stream has armed is told by none, whatever the stream ahead of it had seen. The two streams
// lie few transfers apart, so that a position counted from the end of the first would fall into the second.
TEST_F(IQTest, TriggersOfOneStreamAreNoneOfTheNext) {
    Open();
    constexpr int COUNT = 6 * 131072;
    const Stream stream = {.filter = tqFalse};
    ASSERT_EQ(tqSetIQQueueSize(device, 2), tqNoError);
    instrument->TriggerAtSample(COUNT - 1000);
    Configure(stream);
    EXPECT_NEAR(Take(COUNT, 1).triggers[0], COUNT - 1000, 1.0);
    ASSERT_EQ(tqAbort(device), tqNoError);
    instrument->TriggerAtSample(100);
    Configure(stream);
    EXPECT_EQ(Take(COUNT, 1).triggers[0], 0.0) << "the sentinel";
}

TEST_F(IQTest, StampsUnderPpsAreThoseOfTheSamples) {
    Open();
    instrument->SetGps(sim::GpsState::locked);
    instrument->AdvanceTime(std::chrono::seconds(3));
    for (int i = 0; i < 3; i++) {
        instrument->AdvanceTime(std::chrono::seconds(1));
        ASSERT_EQ(tqGetGPSInfo(device, tqTrue, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                  tqNoError);
    }
    for (const int decimation : {1, 2, 4}) {
        Configure({.decimation = decimation, .filter = tqFalse});
        const Read read = Take(1000);
        ASSERT_EQ(read.status, tqNoError);
        const int64_t start = instrument->GpsNanosAt(instrument->State().startCounter);
        EXPECT_NEAR(static_cast<double>(read.time - start), 0.0, 1e9 / BASE_RATE) << decimation;
    }
}

// Around the engine's store several times.
TEST_F(IQTest, EverySampleComesOnceAndInOrder) {
    sim::InstrumentOptions options;
    options.speed = sim::Speed::lockstep;
    options.scene.pattern = sim::Pattern::samples;
    ApiFixture::Open(options);
    for (const int decimation : {1, 4}) {
        SCOPED_TRACE(decimation);
        Configure({.decimation = decimation,
                   .centerHz = GetLOConfigStreaming(1e9).actualFreq,
                   .filter = tqFalse,
                   .type = tqDataType16sc});
        std::vector<std::complex<int16_t>> samples(123457);
        const int count = static_cast<int>(samples.size());
        uint32_t expected = 0;
        for (int read = 0; read < 100; read++) {
            int loss = 1;
            ASSERT_EQ(tqGetIQ(device, samples.data(), count, nullptr, 0, nullptr, tqFalse, &loss, nullptr), tqNoError);
            ASSERT_EQ(loss, 0);
            for (const std::complex<int16_t> x : samples) ASSERT_EQ(sim::ReadNumber(x.real(), x.imag()), expected++);
        }
    }
}

class IQFaults : public IQTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(IQFaults, EndInTheirStatusAndTheNextStreamIsSound) {
    const FaultCase& fault = GetParam();
    Open({Carrier(1.001e9, -30.0)});
    const Stream stream = {.decimation = 8, .bandwidthHz = 5e6};
    Strike(fault);  // while nothing streams, so that it falls on a known place of a read
    Configure(stream);
    TqStatus status = tqNoError;
    for (int reads = 0; reads < 5000 && status == tqNoError; reads++) status = Take(15360).status;
    EXPECT_EQ(status, fault.expected);

    if (fault.LosesTheLink()) {
        EXPECT_EQ(Take(1).status, tqConnectionLostErr) << "final";
        EXPECT_EQ(tqAbort(device), tqNoError);
        Reopen();
    }
    instrument->faults().Clear();
    Configure(stream);
    const Read read = Take(20000);
    ASSERT_EQ(read.status, tqNoError);
    const Tone tone = MeasureTone(std::span(read.samples).subspan(300), 1e6 / (BASE_RATE / 8));
    EXPECT_NEAR(20.0 * std::log10(tone.amplitude), -30.0, 0.5);
}

// Packet 708 is amid a read of 16. Of framing the last packet has the say: all are wrong until the client has looked.
INSTANTIATE_TEST_SUITE_P(
    Kinds, IQFaults,
    ::testing::ValuesIn(FaultCases({.aux = 40, .wrong = 1000, .packet = 708, .read = 40, .command = 40})),
    [](const auto& test) { return test.param.name; });

TEST_F(IQTest, ModesFollowEachOtherInStep) {
    Open({Carrier(1.001e9, -30.0)});
    for (const int decimation : {1, 2, 8, 256}) {
        ASSERT_EQ(tqSetIQQueueSize(device, decimation == 2 ? 2 : 16), tqNoError);
        Configure({.decimation = decimation, .bandwidthHz = 1e6});
        EXPECT_EQ(Take(100).status, tqNoError);

        ASSERT_EQ(tqSetSweepCenterSpan(device, 1e9, 20e6), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeSweeping), tqNoError);
        int size = 0;
        ASSERT_EQ(tqGetSweepParameters(device, nullptr, nullptr, nullptr, nullptr, &size), tqNoError);
        std::vector<float> sweep(static_cast<std::size_t>(size));
        EXPECT_EQ(tqGetSweep(device, nullptr, sweep.data(), nullptr), tqNoError);
        EXPECT_NEAR(*std::ranges::max_element(sweep), -30.0, 0.5) << decimation;
    }
    EXPECT_EQ(instrument->Counters().unknownWords, 0u);
    EXPECT_EQ(instrument->Counters().protocolErrors, 0u);
}

TEST_F(IQTest, AnyCentreCanBeConfigured) {
    Open();
    const double onATick = GetLOConfigStreaming(1e9).actualFreq;
    for (const double center : {onATick, std::nextafter(onATick, 2e9), std::nextafter(onATick, 0.0), -3e9, 0.0, 9e3,
                                1.6e10, 1e300, -std::numeric_limits<double>::max()}) {
        Configure({.decimation = 4, .centerHz = center});
        EXPECT_EQ(Take(100).status, tqNoError) << center;
    }
}

// Of the decimation the instrument does 1, 2 or 4, and each fetch takes the same time. The edge of the trigger is set
// when the port takes it.
TEST_F(IQTest, ParametersAreThoseThatRun) {
    Open();
    struct Case {
        int decimation;
        double asked;
        double bandwidth;
        uint32_t startWord;
        uint32_t fetchWord;
        TqGPIOFunction port;
    };
    for (const Case c : {Case{1, 5e7, 41.5e6, 0x30000001, 0x3100013F, TqGPIOFunctionTrigIn},
                         Case{1, 100.0, 1000.0, 0x30000001, 0x3100013F, TqGPIOFunctionLogicOutLow},
                         Case{2, 4e7, 25e6, 0x30000002, 0x3100011F, TqGPIOFunctionTrigIn},
                         Case{8, 1e6, 1e6, 0x30000003, 0x3100010F, TqGPIOFunctionLogicOutHigh},
                         Case{8192, 4e7, 6103.515625, 0x30000003, 0x3100010F, TqGPIOFunctionTrigIn}}) {
        SCOPED_TRACE("decimation " + std::to_string(c.decimation));
        ASSERT_EQ(tqAbort(device), tqNoError);
        ASSERT_EQ(tqSetGPIOPort(device, c.port), tqNoError);
        ASSERT_EQ(tqSetIQExtTriggerEdge(device, tqTriggerEdgeFalling), tqNoError);
        instrument->ClearLog();
        instrument->EnableLog(true, 1000);
        Configure({.decimation = c.decimation, .bandwidthHz = c.asked});
        double rate = 0.0, bandwidth = 0.0;
        EXPECT_EQ(tqGetIQParameters(device, &rate, &bandwidth), tqNoError);
        EXPECT_EQ(rate, BASE_RATE / c.decimation);
        EXPECT_EQ(bandwidth, c.bandwidth);
        EXPECT_EQ(Take(1).status, tqNoError);

        const std::vector<uint32_t> words = instrument->LoggedWords();
        EXPECT_EQ(std::ranges::count(words, c.startWord), 1);
        EXPECT_GE(std::ranges::count(words, c.fetchWord), 2);
        EXPECT_EQ(std::ranges::count(words, 0x26100000u), c.port == TqGPIOFunctionTrigIn ? 1 : 0);
    }
}

}  // namespace
