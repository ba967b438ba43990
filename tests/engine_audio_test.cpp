// The signal path of the audio engine, on signals that are known in closed form. Streams are the matter of audio_test.
#include "engine_audio.h"

#include "audio_support.h"
#include "engine_iq.h"
#include "scripted_stream.h"
#include "stream_plan.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

namespace {

using Complex = std::complex<double>;
using Signal = Complex (*)(double t);  // [s]

constexpr double TURN = 2.0 * std::numbers::pi;
constexpr int SETTLING = 40;  // blocks: the envelopes have a long memory
constexpr int MEASURED = 3;   // 100 ms: whole periods of every tone here

Complex Tone(double hz, double t) { return std::polar(0.1, TURN * hz * t); }
Complex Am(double level, double t) { return std::polar(level * (1.0 + 0.5 * std::cos(TURN * 1000.0 * t)), 1.0); }
// Deviation 50 kHz around 30 kHz off the centre, so that the phase wraps all the time.
Complex Fm(double hz, double t) { return std::polar(0.01, TURN * 3e4 * t + 5e4 / hz * std::sin(TURN * hz * t)); }

class Demodulator : public ::testing::Test {
protected:
    // The signal's next blocks; of these the audio.
    std::vector<float> Take(int blocks, Signal signal) {
        std::vector<Ipp32fc> iq(AudioDemodLen);
        std::vector<float> audio(static_cast<std::size_t>(blocks) * AudioRetLen);
        for (int block = 0; block < blocks; block++) {
            for (Ipp32fc& x : iq) {
                const Complex value = signal(static_cast<double>(samples++) / AudioInputRate);
                x = {static_cast<float>(value.real()), static_cast<float>(value.imag())};
            }
            demodulator->Process(iq.data(), &audio[static_cast<std::size_t>(block) * AudioRetLen]);
        }
        return audio;
    }
    void Start(TqAudioType type) {
        settings.audioType = type;
        demodulator = std::make_unique<AudioDemodulator>(settings);
        samples = 0;
    }

    TqAudioSettings settings;
    std::unique_ptr<AudioDemodulator> demodulator;
    int64_t samples = 0;
};

struct Case {
    const char* name;
    TqAudioType type;
    Signal signal;
    double toneHz;
    double amplitude;
    double sinadDb;  // at least; of the other sideband, which is to vanish, how far below full modulation
};

// 5e4 * TURN / 480000 * 0.8, behind the de-emphasis: 0.2 dB down at 2096 Hz and of first order.
constexpr double FM_PEAK = 0.5236;
const double FM_1K = FM_PEAK / std::sqrt(1.0 + 0.04713 * std::pow(1000.0 / 2096.0, 2));
const double FM_9K = FM_PEAK / std::sqrt(1.0 + 0.04713 * std::pow(9000.0 / 2096.0, 2));
const Case CASES[] = {
    {"Am", tqAudioTypeAM, [](double t) { return Am(0.01, t); }, 1000.0, 0.5, 65.0},
    {"AmStrong", tqAudioTypeAM, [](double t) { return Am(2.0, t); }, 1000.0, 0.5, 65.0},
    {"Fm", tqAudioTypeFM, [](double t) { return Fm(1000.0, t); }, 1000.0, FM_1K, 115.0},
    {"FmHigh", tqAudioTypeFM, [](double t) { return Fm(9000.0, t); }, 9000.0, FM_9K, 115.0},
    {"Usb", tqAudioTypeUSB, [](double t) { return Tone(1000.0, t); }, 1000.0, 1.0, 90.0},
    {"Lsb", tqAudioTypeLSB, [](double t) { return Tone(-1000.0, t); }, 1000.0, 1.0, 90.0},
    {"Cw", tqAudioTypeCW, [](double t) { return Tone(-CW_TONE_HZ, t); }, 520.0, 1.0, 90.0},
    {"NotUsb", tqAudioTypeUSB, [](double t) { return Tone(-600.0, t); }, 600.0, 0.0, 60.0},
    {"NotUsbHigh", tqAudioTypeUSB, [](double t) { return Tone(-3000.0, t); }, 3000.0, 0.0, 100.0},
    {"NotLsb", tqAudioTypeLSB, [](double t) { return Tone(600.0, t); }, 600.0, 0.0, 60.0},
};

class Demodulators : public Demodulator, public ::testing::WithParamInterface<Case> {};

// Ahead of the signal comes what is no number: a recursive filter that once held it would never lose it.
TEST_P(Demodulators, RecoverTheModulation) {
    Start(GetParam().type);
    const std::vector<float> bad = Take(2, [](double) { return Complex(std::numeric_limits<double>::quiet_NaN()); });
    EXPECT_TRUE(std::ranges::all_of(bad, [](float x) { return std::isfinite(x); }));
    Take(SETTLING, GetParam().signal);
    const AudioTone tone = MeasureAudioTone(Take(MEASURED, GetParam().signal), GetParam().toneHz);
    EXPECT_NEAR(tone.amplitude, GetParam().amplitude, 0.03) << "the filters' ripple is 0.2 dB";
    EXPECT_GT(GetParam().amplitude > 0.0 ? tone.sinadDb : -20.0 * std::log10(tone.amplitude), GetParam().sinadDb);
}

INSTANTIATE_TEST_SUITE_P(Types, Demodulators, ::testing::ValuesIn(CASES),
                         [](const auto& row) { return std::string(row.param.name); });

// Each change is heard in the next block, behind what the filters hold from before.
TEST_F(Demodulator, TypeAndGainFollowTheSettings) {
    const Signal fm = [](double t) { return Fm(1000.0, t); };
    Start(tqAudioTypeFM);
    Take(SETTLING, fm);
    settings.ifBandwidth = 100000.0;
    std::vector<float> audio = Take(1 + MEASURED, fm);
    EXPECT_NEAR(MeasureAudioTone(std::span(audio).subspan(AudioRetLen), 1000.0).amplitude, 2.0 * FM_1K, 0.03);
    settings.audioType = tqAudioTypeAM;
    audio = Take(SETTLING + MEASURED, fm);
    EXPECT_LT(MeasureAudioTone(std::span(audio).last(MEASURED * AudioRetLen), 1000.0).amplitude, 0.001);
}

class EngineAudioTest : public ScriptedFixture {};

TEST_F(EngineAudioTest, ABlockedCallerIsWokenByTheEnd) {
    scripted->allowed = 0;
    device->iqSettings.decimation = AUDIO_DECIMATION;
    const IQStreamPlan plan = PlanIQStreaming(device->iqSettings, {}, false, device->corrections, device->deviceConfig);
    EngineIQ stream(device.get(), *device->usb, device->iqSettings, plan.patch, plan.initCommands, plan.fetchCommands);
    auto engine = std::make_unique<EngineAudio>(stream, device->audioSettings);

    std::vector<float> audio(AudioRetLen, POISON);
    std::atomic<pid_t> caller = 0;
    TqStatus status = tqInvalidDeviceErr;
    std::thread thread([&, &running = *engine] {
        caller = gettid();
        status = running.GetAudio(audio.data());
    });
    WaitUntilBlocked(caller);
    stream.End();
    engine->End();
    thread.join();
    scripted->trickle = true;  // what is in flight still comes
    EXPECT_EQ(status, tqInvalidConfigurationErr);
    EXPECT_EQ(std::ranges::count(audio, 0.0f), AudioRetLen);
}

}  // namespace
