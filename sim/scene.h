// What the virtual antenna receives: a noise density and a list of emitters. Read from a text file (README.md tells
// the format) or built in memory by a test; rf_model renders it, tools compare results against the list. A Scene is
// a plain value: whoever shares one between threads shares it as const.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

enum class EmitterKind { carrier, am, fm, ssb, pulse, hop, replay };

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

    double toneHz = 1000.0;       // am, fm, ssb: modulating tone
    double depth = 0.5;           // am: modulation depth, 0 to 1
    double deviationHz = 50.0e3;  // fm: peak deviation
    bool upperSideband = true;    // ssb
    double periodS = 1.0e-3;      // pulse: repetition
    double widthS = 100.0e-6;     // pulse: on-time, at most the period
    double dwellS = 1.0e-3;       // hop: time on each frequency

    std::vector<double> hopsHz;                  // hop: all frequencies, in order, then over again
    double rateHz = 0.0;                         // replay: samples per second of the recording
    std::shared_ptr<const Recording> recording;  // replay: repeats without end
};

struct Scene {
    double noiseDbmPerHz = -150.0;
    std::vector<Emitter> emitters;
};

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
