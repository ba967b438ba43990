#include "engine_audio.h"

#include "engine_iq.h"
#include "frequency_plan.h"
#include "tq_assert.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace {

constexpr int FIR_TAPS = 1024;
constexpr int HILBERT_TAPS = 2047;
constexpr int HILBERT_DELAY = HILBERT_TAPS / 2;       // [samples]
constexpr double HILBERT_SCALE = 0.6366197723675394;  // 2 / pi
constexpr double IIR_RIPPLE_DB = 0.2;
constexpr int HIGHPASS_ORDER = 2;
constexpr int DEEMPHASIS_ORDER = 1;
constexpr double DEEMPHASIS_CUTOFF = 0.3275;  // of the input rate, at a time constant of 1 us
constexpr double FM_GAIN_HZ = 160000.0;       // a deviation of ifBandwidth / 2 is pi / 3, whatever ifBandwidth is
constexpr int AUDIO_DOWN = AudioDemodLen / AudioRetLen;
static_assert(AUDIO_DOWN * AudioRetLen == AudioDemodLen && AUDIO_DOWN * TqAudioRate == AudioInputRate);
static_assert(BASE_SR / AUDIO_DECIMATION == AudioInputRate);

// One-pole averages at the input rate, one factor for the past and one for what is new: 133 ms and 208 ms.
constexpr double AM_PAST = 0.9999843751325798, AM_NEW = 1.562486742023861e-05;
constexpr double SSB_PAST = 0.9999900000567263, SSB_NEW = 9.999943273664158e-06;
constexpr double FIRST_ENVELOPE = 0.1f;

void DesignLowpass(DSP::FIR_32fc& filter, float cutoff) {
    std::vector<Ipp32fc> taps(FIR_TAPS);
    TQ_ASSERT(DSP::GetLowpassFIRTaps_32fc(taps.data(), FIR_TAPS, cutoff, ippWinBlackman, ippTrue) == 0);
    filter.SetTaps(taps.data(), FIR_TAPS);
}

void DesignLowpass(DSP::FIR_32f& filter, float cutoff) {
    std::vector<float> taps(FIR_TAPS);
    TQ_ASSERT(DSP::GetLowpassFIRTaps_32f(taps.data(), FIR_TAPS, cutoff, ippWinBlackman, ippTrue) == 0);
    filter.SetTaps(taps.data(), FIR_TAPS);
}

// An envelope that samples have spoilt starts anew.
double Healed(double envelope) { return std::isfinite(envelope) ? envelope : FIRST_ENVELOPE; }

// For what goes into the recursive filters, which would never forget anything else; also the ratio of no signal to no
// envelope.
float FiniteOrZero(double value) {
    const auto single = static_cast<float>(value);
    return std::isfinite(single) ? single : 0.0f;
}

}  // namespace

AudioDemodulator::AudioDemodulator(const TqAudioSettings& audioSettings)
    : settings(audioSettings),
      demod(AudioDemodLen),
      hilbertBuf(AudioDemodLen),
      hilbertDelayQ(HILBERT_DELAY),
      envelopeAM(FIRST_ENVELOPE),
      envelopeSSB(FIRST_ENVELOPE) {
    // The channel lies on both sides of zero, the audio on one.
    const float channel = static_cast<float>(settings.ifBandwidth / AudioInputRate) * 0.5f;
    DesignLowpass(firIF, channel < 0.5f ? channel : 0.49f);
    DesignLowpass(firAudioLP, static_cast<float>(settings.audioLpf / AudioInputRate));
    iirAudioHP.SetTaps(settings.audioHpf / TqAudioRate, IIR_RIPPLE_DB, HIGHPASS_ORDER,
                       DSP::IIR_32f::FilterType::Highpass);
    iirDeemp.SetTaps(DEEMPHASIS_CUTOFF / settings.fmDeemphasis, IIR_RIPPLE_DB, DEEMPHASIS_ORDER,
                     DSP::IIR_32f::FilterType::Lowpass);
    DesignHilbert();
}

void AudioDemodulator::DesignHilbert() {
    std::vector<double> taps(HILBERT_TAPS);
    for (int n = 0; n < HILBERT_TAPS; n += 2) {
        taps[static_cast<std::size_t>(n)] = HILBERT_SCALE / (n - HILBERT_DELAY);
    }
    TQ_ASSERT(ippsWinBlackmanStd_64f_I(taps.data(), HILBERT_TAPS) == 0);
    firHilbert.SetTaps(taps.data(), HILBERT_TAPS);
    std::fill_n(hilbertDelayQ.data(), HILBERT_DELAY, 0.0);
}

void AudioDemodulator::Process(Ipp32fc* iq, float* audio) {
    firIF.Filter_I(iq, AudioDemodLen);
    const TqAudioType type = settings.audioType;
    if (type == tqAudioTypeAM) {
        DemodAM(iq, demod.data());
    } else if (type == tqAudioTypeFM) {
        DemodFM(iq, demod.data());
    } else {
        DemodSSB(iq, demod.data(), type == tqAudioTypeUSB);
    }
    firAudioLP.Filter(demod.data(), demod.data(), AudioDemodLen);
    int kept = 0;
    ippsSampleDown_32f(demod.data(), AudioDemodLen, audio, &kept, AUDIO_DOWN, &downPhase);
    TQ_ASSERT(kept == AudioRetLen);
    iirAudioHP.Filter_I(audio, AudioRetLen);
}

// The envelope without its mean, relative to that.
void AudioDemodulator::DemodAM(const Ipp32fc* src, float* dst) {
    ippsMagnitude_32fc(src, dst, AudioDemodLen);
    double mean = envelopeAM;
    for (int i = 0; i < AudioDemodLen; i++) {
        const double magnitude = dst[i];
        mean = mean * AM_PAST + magnitude * AM_NEW;
        dst[i] = FiniteOrZero((magnitude - mean) / mean);
    }
    envelopeAM = Healed(mean);
}

// The turn from sample to sample.
void AudioDemodulator::DemodFM(const Ipp32fc* src, float* dst) {
    ippsPhase_32fc(src, dst, AudioDemodLen);
    const auto gain = static_cast<float>(FM_GAIN_HZ / settings.ifBandwidth);
    for (int i = 0; i < AudioDemodLen; i++) {
        const float phase = dst[i];
        float turn = phase - lastPhase;
        if (turn > std::numbers::pi) {
            turn = static_cast<float>(turn - 2.0 * std::numbers::pi);
        } else if (turn < -std::numbers::pi) {
            turn = static_cast<float>(turn + 2.0 * std::numbers::pi);
        }
        dst[i] = FiniteOrZero(turn * gain);
        lastPhase = phase;
    }
    iirDeemp.Filter_I(dst, AudioDemodLen);
}

// By phasing: of Q, and of I or -I a quarter turn later, the wanted sideband makes the same wave and the other one
// opposite ones. The sum has twice the signal's amplitude. The envelope rises at once and falls slowly, and a block is
// divided by what it is at its end.
void AudioDemodulator::DemodSSB(const Ipp32fc* src, float* dst, bool isUpper) {
    ippsMagnitude_32fc(src, dst, AudioDemodLen);
    double envelope = envelopeSSB;
    for (int i = 0; i < AudioDemodLen; i++) {
        const double magnitude = 2.0f * dst[i];
        envelope = magnitude > envelope ? magnitude : envelope * SSB_PAST + magnitude * SSB_NEW;
    }
    envelopeSSB = Healed(envelope);

    double* const turned = hilbertBuf.data();
    for (int i = 0; i < AudioDemodLen; i++) turned[i] = isUpper ? src[i].re : -src[i].re;
    firHilbert.Filter(turned, turned, AudioDemodLen);
    for (int i = 0; i < AudioDemodLen; i++) {
        const double delayedQ = i < HILBERT_DELAY ? hilbertDelayQ.data()[i] : src[i - HILBERT_DELAY].im;
        dst[i] = FiniteOrZero((turned[i] + delayedQ) / envelopeSSB);
    }
    for (int i = 0; i < HILBERT_DELAY; i++) hilbertDelayQ.data()[i] = src[AudioDemodLen - HILBERT_DELAY + i].im;
}

EngineAudio::EngineAudio(EngineIQ& stream, const TqAudioSettings& settings)
    : iqEngine(stream),
      demodulator(settings),
      iq(AudioDemodLen),
      audio(AudioRetLen),
      audioStore(int64_t{AudioBlocks} * AudioRetLen) {
    threadHandle = std::thread(&EngineAudio::WorkThread, this);
}

EngineAudio::~EngineAudio() {
    End();
    threadHandle.join();
}

void EngineAudio::End() {
    running = false;
    storeReady.Notify();
}

// A block out of step is heard like any other, as the stream may find back; only a lost instrument is the end, and the
// end of the stream.
void EngineAudio::WorkThread() {
    while (running) {
        const TqStatus status =
            iqEngine.GetIQ(iq.data(), AudioDemodLen, nullptr, 0, nullptr, tqFalse, nullptr, nullptr);
        if (status == tqConnectionLostErr || status == tqInvalidConfigurationErr) {
            streamStatus = status;
            storeReady.Notify();
            return;
        }
        demodulator.Process(iq.data(), audio.data());
        StoreBlock(audio.data());
        storeReady.Notify();
    }
}

void EngineAudio::StoreBlock(const float* block) {
    const Lock held(storeLock);
    std::copy_n(block, AudioRetLen, &audioStore[int64_t{storeWrite} * AudioRetLen]);
    storeWrite = (storeWrite + 1) % AudioBlocks;
}

TqStatus EngineAudio::GetAudio(float* dst) {
    // Behind the end nobody posts any more.
    if (running && streamStatus == tqNoError) storeReady.Wait();
    if (!running || streamStatus != tqNoError) {
        std::fill_n(dst, AudioRetLen, 0.0f);
        return streamStatus != tqNoError ? streamStatus.load() : tqInvalidConfigurationErr;
    }
    const Lock held(storeLock);
    std::copy_n(&audioStore[int64_t{storeRead} * AudioRetLen], AudioRetLen, dst);
    storeRead = (storeRead + 1) % AudioBlocks;
    return tqNoError;
}
