// Audio end to end: exports, planner, both engines and USB on virtual instruments, compared with what their emitters
// were modulated with.
#include "api_fixture.h"
#include "audio_support.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <span>

namespace {

constexpr double LEVEL_DBM = -20.0;  // where the envelopes begin: they need not settle
constexpr std::size_t BLOCK = 1000;

// Made when first asked for: it takes a while.
const std::shared_ptr<const sim::Audio>& Voice() {
    static const std::shared_ptr<const sim::Audio> voice = sim::MakeAudio(sim::SyntheticVoice());
    return voice;
}

class AudioTest : public ApiFixture {
protected:
    void Open(const sim::Emitter& emitter) {
        sim::InstrumentOptions options;
        options.speed = sim::Speed::lockstep;
        options.scene.emitters = {emitter};
        ApiFixture::Open(std::move(options));
    }
    void Configure(TqAudioType type, double centerHz) {
        ASSERT_EQ(tqSetRefLevel(device, LEVEL_DBM + 10.0), tqNoError);
        ASSERT_EQ(tqSetAudioType(device, type), tqNoError);
        ASSERT_EQ(tqSetAudioCenterFreq(device, centerHz), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeAudio), tqNoError);
    }

    struct Block {
        TqStatus status;
        std::vector<float> audio;
    };
    Block Take() {
        constexpr float GUARD = 1e30f;
        Block block{tqNoError, std::vector<float>(BLOCK + 1, GUARD)};
        block.status = tqGetAudio(device, block.audio.data());
        EXPECT_EQ(block.audio.back(), GUARD);
        block.audio.pop_back();
        return block;
    }
    std::vector<float> Take(int count) {
        std::vector<float> audio;
        for (int i = 0; i < count; i++) {
            const Block block = Take();
            EXPECT_EQ(block.status, tqNoError);
            audio.insert(audio.end(), block.audio.begin(), block.audio.end());
        }
        return audio;
    }
};

// The best match of the audio with the voice over the delays that the filters can have. A sideband keeps the
// voice but not its phase: there a turn of all its tones by the same angle is no difference.
double Correlation(std::span<const float> heard, bool anyPhase) {
    double best = 0.0;
    for (double delay = 0.0; delay < 0.010; delay += 1.0 / sim::VOICE_RATE_HZ) {
        std::complex<double> product = 0.0;
        double heardPower = 0.0, voicePower = 0.0;
        for (std::size_t i = 300; i < heard.size(); i++) {
            const double at = (static_cast<double>(i) / AUDIO_RATE - delay) * sim::VOICE_RATE_HZ;
            const auto k = static_cast<std::size_t>(at);
            const auto between = [&](const std::vector<float>& x) {
                const double part = at - static_cast<double>(k);
                return x[k % x.size()] * (1.0 - part) + x[(k + 1) % x.size()] * part;
            };
            const std::complex<double> said(between(Voice()->signal), between(Voice()->quadrature));
            product += double{heard[i]} * said;
            heardPower += double{heard[i]} * heard[i];
            voicePower += said.real() * said.real();
        }
        best = std::max(best, (anyPhase ? std::abs(product) : product.real()) / std::sqrt(heardPower * voicePower));
    }
    return best;
}

struct Transmission {
    const char* name;
    TqAudioType type;
    sim::EmitterKind kind;
    double freqHz;
    double channelHz;
};

class AudioSpeech : public AudioTest, public ::testing::WithParamInterface<Transmission> {};

TEST_P(AudioSpeech, IsHeardAsItWasSpoken) {
    const Transmission& param = GetParam();
    sim::Emitter emitter = Carrier(param.freqHz, LEVEL_DBM);
    emitter.kind = param.kind;
    emitter.deviationHz = 60e3;
    emitter.depth = 0.8;
    emitter.upperSideband = param.type == tqAudioTypeUSB;
    emitter.audio = Voice();
    emitter.rateHz = sim::VOICE_RATE_HZ;
    Open(emitter);
    ASSERT_EQ(tqSetAudioFilters(device, param.channelHz, 6000.0, 20.0), tqNoError);
    Configure(param.type, param.freqHz);
    EXPECT_GT(Correlation(Take(20), param.kind == sim::EmitterKind::ssb), 0.95);
}

INSTANTIATE_TEST_SUITE_P(Types, AudioSpeech,
                         ::testing::Values(Transmission{"fm", tqAudioTypeFM, sim::EmitterKind::fm, 97.1e6, 200e3},
                                           Transmission{"am", tqAudioTypeAM, sim::EmitterKind::am, 121.5e6, 12e3},
                                           Transmission{"usb", tqAudioTypeUSB, sim::EmitterKind::ssb, 14.2e6, 12e3},
                                           Transmission{"lsb", tqAudioTypeLSB, sim::EmitterKind::ssb, 3.65e6, 12e3}),
                         [](const auto& row) { return std::string(row.param.name); });

// The engine reads floats, whatever the client takes from I/Q streams; of the I/Q settings only those of the ride stay.
TEST_F(AudioTest, CwIsAToneOf520HzAndLeavesTheDataTypeAlone) {
    Open(Carrier(7.03e6, LEVEL_DBM));
    ASSERT_EQ(tqSetIQDataType(device, tqDataType16sc), tqNoError);
    Configure(tqAudioTypeCW, 7.03e6);
    EXPECT_EQ(tqGetIQ(device, &device, 1, nullptr, 0, nullptr, tqFalse, nullptr, nullptr), tqInvalidConfigurationErr);
    Take(20);
    const AudioTone tone = MeasureAudioTone(Take(3), 520.0);
    EXPECT_NEAR(tone.amplitude, 1.0, 0.03);
    EXPECT_GT(tone.sinadDb, 50.0);

    ASSERT_EQ(tqConfigure(device, tqModeIQStreaming), tqNoError);
    double rate = 0.0, center = 0.0;
    EXPECT_EQ(tqGetIQParameters(device, &rate, nullptr), tqNoError);
    EXPECT_EQ(tqGetIQCenterFreq(device, &center), tqNoError);
    EXPECT_EQ(rate, 480000.0);
    EXPECT_EQ(center, 7.03e6 + 520.0);
    std::vector<int16_t> samples(3 * 100, 0x5555);
    EXPECT_EQ(tqGetIQ(device, samples.data(), 100, nullptr, 0, nullptr, tqFalse, nullptr, nullptr), tqNoError);
    EXPECT_TRUE(std::all_of(samples.begin() + 200, samples.end(), [](int16_t x) { return x == 0x5555; }));
}

class AudioFaults : public AudioTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(AudioFaults, AreHeardThroughOrEndInSilence) {
    Open(Carrier(7.03e6, LEVEL_DBM));
    Configure(tqAudioTypeCW, 7.03e6);
    const std::vector<float> before = Take(3);
    Strike(GetParam());
    Block block = Take();
    for (int i = 0; i < 10 && block.status == tqNoError; i++) block = Take();
    EXPECT_EQ(block.status, GetParam().LosesTheLink() ? tqConnectionLostErr : tqNoError);
    if (GetParam().LosesTheLink()) {
        for (int i = 0; i < 3; i++, block = Take()) {
            EXPECT_EQ(block.status, tqConnectionLostErr);
            EXPECT_TRUE(std::ranges::all_of(block.audio, [](float x) { return x == 0.0f; }));
        }
        Reopen();
    }
    Configure(tqAudioTypeCW, 7.03e6);
    const std::vector<float> again = Take(3);
    for (std::size_t i = 0; i < again.size(); i++) ASSERT_NEAR(again[i], before[i], 0.01) << i;
}

INSTANTIATE_TEST_SUITE_P(Kinds, AudioFaults,
                         ::testing::ValuesIn(FaultCases({.aux = 20, .packet = 408, .read = 25, .command = 25})),
                         [](const auto& row) { return row.param.name; });

}  // namespace
