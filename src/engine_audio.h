// EngineAudio makes one signal audible: it reads a narrow stream from an EngineIQ, block by block, demodulates it (AM,
// FM, upper and lower sideband; CW is lower sideband off a shifted centre) and keeps a second of audio, from which the
// client takes. It has no contact with the USB side. TqDevice owns it in the audio mode, beside the EngineIQ that it
// rides on and that outlives it. One thread inside; GetAudio runs on the client's.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "dsp.h"
#include "tq_settings.h"
#include "vk_critical_section.h"
#include "vk_semaphore.h"

class EngineIQ;

inline constexpr int AUDIO_DECIMATION = 128;            // of the stream that the engine reads
inline constexpr double AUDIO_IQ_BANDWIDTH = 280000.0;  // of the same, [Hz]
inline constexpr double CW_TONE_HZ = 520.0;             // what a carrier at the centre sounds as, in CW
inline constexpr double AudioInputRate = 480000.0;      // of the stream, [1/s]
inline constexpr double TqAudioRate = 30000.0;          // of the audio, [1/s]
inline constexpr int AudioDemodLen = 16000;             // samples of a block at the input rate
inline constexpr int AudioRetLen = 1000;                // the same block at the audio rate, 33.3 ms
inline constexpr int AudioBlocks = 30;                  // that are kept

// The signal path of the engine, with all its state: filters, envelopes and the last phase run on from block to block.
// One thread at a time.
class AudioDemodulator {
public:
    // Designs the filters for the settings as they stand. Of these, audioType and the gain that goes with ifBandwidth
    // are read anew for each block; `settings` outlives the object. Throws std::bad_alloc.
    explicit AudioDemodulator(const TqAudioSettings& settings);

    // The next block. Doesn't allocate.
    //   iq     in, AudioDemodLen samples; overwritten
    //   audio  out, AudioRetLen values, finite whatever came in. Peaks at full modulation: AM the modulation depth, FM
    //          pi / 3 for a deviation of half of ifBandwidth, sidebands about 1
    void Process(Ipp32fc* iq, float* audio);

private:
    void DesignHilbert();
    void DemodAM(const Ipp32fc* src, float* dst);
    void DemodFM(const Ipp32fc* src, float* dst);
    void DemodSSB(const Ipp32fc* src, float* dst, bool isUpper);

    const TqAudioSettings& settings;
    DSP::FIR_32fc firIF;       // the channel
    DSP::FIR_32f firAudioLP;   // the audio, and against aliases of the audio rate
    DSP::IIR_32f iirAudioHP;   // at the audio rate
    DSP::IIR_32f iirDeemp;     // FM only
    DSP::FIR_64f firHilbert;   // sidebands only
    DSP::Vector<float> demod;  // one block
    DSP::Vector<double> hilbertBuf;
    DSP::Vector<double> hilbertDelayQ;  // the last of Q, for as long as firHilbert delays I
    int downPhase = 0;
    double envelopeAM;
    double envelopeSSB;
    float lastPhase = 0.0f;  // [rad]
};

class EngineAudio {
public:
    // Allocates everything and starts to read from `stream`, whose samples are tqDataType32fc at AudioInputRate. Both
    // arguments outlive the engine. Throws std::bad_alloc, or std::system_error when the thread cannot start.
    EngineAudio(EngineIQ& stream, const TqAudioSettings& settings);

    // Ends behind the block in hand. No caller is in GetAudio: End has sent it home.
    ~EngineAudio();
    EngineAudio(const EngineAudio&) = delete;
    EngineAudio& operator=(const EngineAudio&) = delete;

    // Ends the engine for good, at once, and a caller of GetAudio leaves it. The stream ends first.
    void End();

    // The next block; blocks until it is there.
    //   audio  out, AudioRetLen values
    // tqNoError, whatever reservations there are about the samples; but once the stream has lost the instrument, its
    // status and silence, at once, and tqInvalidConfigurationErr and silence when the engine ends. A client that falls
    // behind by the whole store misses what it was too slow for and meets no status. One caller at a time.
    TqStatus GetAudio(float* audio);

private:
    void WorkThread();
    void StoreBlock(const float* audio);

    EngineIQ& iqEngine;
    AudioDemodulator demodulator;
    std::atomic<bool> running = true;
    std::atomic<TqStatus> streamStatus = tqNoError;  // what has ended the stream
    DSP::Vector<Ipp32fc> iq;                         // WorkThread's block
    DSP::Vector<float> audio;                        // and what becomes of it

    // A ring of AudioBlocks blocks. WorkThread doesn't wait for a slow client: it overwrites.
    CriticalSection storeLock;
    DSP::Vector<float> audioStore TQ_GUARDED_BY(storeLock);
    int storeRead = 0;   // block, the client's
    int storeWrite = 0;  // block, WorkThread's

    // storeReady: WorkThread posts once per block, GetAudio waits once per block. Lost stream: WorkThread posts once,
    // after streamStatus. Stop: End posts, after running = false.
    Semaphore storeReady;

    std::thread threadHandle;
};
