// What the virtual antenna receives: a noise density and a list of emitters. Read from a text file (README.md tells
// the format) or built in memory by a test; rf_model renders it, tools compare results against the list. A Scene is
// a plain value: whoever shares one between threads shares it as const.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

enum class EmitterKind { carrier, am, fm, ssb, pulse, hop, replay };

// A modulating signal: mono, repeats without end, cubic between its samples. Built by MakeAudio.
struct Audio {
    std::vector<float> signal;      // -1 to 1
    std::vector<float> quadrature;  // its Hilbert transform, for single sideband
    std::vector<double> integral;   // of the signal from its start to each sample, and to its end [sample periods]
};

// A recording: interleaved little-endian 16-bit I and Q.
struct Recording {
    std::vector<std::int16_t> iq;
    std::size_t Samples() const { return iq.size() / 2; }
};

// One transmitter. Fields that a kind does not use keep their defaults.
struct Emitter {
    EmitterKind kind = EmitterKind::carrier;
    double freqHz = 0.0;    // carrier; ssb: the suppressed carrier; hop: the first frequency
    double levelDbm = 0.0;  // carrier power (am), tone (ssb), power while on (pulse, hop), full scale (replay)

    double toneHz = 1000.0;              // am, fm, ssb: modulating tone
    double depth = 0.5;                  // am: modulation depth, 0 to 1
    double deviationHz = 50.0e3;         // fm: peak deviation
    bool upperSideband = true;           // ssb
    std::shared_ptr<const Audio> audio;  // am, fm, ssb: modulates in place of the tone; full scale as the tone's peak
    double periodS = 1.0e-3;             // pulse: repetition
    double widthS = 100.0e-6;            // pulse: on-time, at most the period
    double startS = 0.0;                 // pulse: when the first one comes on
    double dwellS = 1.0e-3;              // hop: time on each frequency

    std::vector<double> hopsHz;                  // hop: all frequencies, in order, then over again
    double rateHz = 0.0;                         // replay: samples per second of the recording; also of the audio
    std::shared_ptr<const Recording> recording;  // replay: repeats without end
};

// Numbers in place of samples, to prove that none was lost, repeated or moved between the endpoint and the client. The
// number's lower 15 bits stand in I and its upper 15 in Q, in the middle of the range: ReadNumber in rf_model.h.
enum class Pattern {
    none,
    samples,       // samples since the start word, modulo 2^30
    acquisitions,  // start words ahead of this one (InstrumentCounters), modulo 2^14, times 2^16; plus samples mod 2^16
};

struct Scene {
    Pattern pattern = Pattern::none;  // another one: no RF is heard, whatever is tuned
    double noiseDbmPerHz = -150.0;
    std::vector<Emitter> emitters;
};

// Prepares 2 samples or more: full scale is 1.
std::shared_ptr<const Audio> MakeAudio(std::span<const std::int16_t> samples);

// A sentence of eight syllables as a vocal tract would shape them: two seconds, VOICE_RATE_HZ samples in each.
std::vector<std::int16_t> SyntheticVoice();
inline constexpr double VOICE_RATE_HZ = 48000.0;

// The word that stands for a kind in a scene file.
std::string_view KindName(EmitterKind kind);

struct SceneResult {
    Scene scene;
    std::string error;  // empty: good; otherwise "line 3: ..." and the scene is not to be used
    bool Ok() const { return error.empty(); }
};

// Reads a scene from text.
//   folder   where relative names of recordings start; empty: the current folder
// Bounded against hostile text: lengths, counts and values outside the ranges of README.md are errors.
SceneResult ParseScene(std::string_view text, const std::string& folder = {});

// The same from a file; recordings are found beside it.
SceneResult LoadScene(const std::string& path);

}  // namespace sim
