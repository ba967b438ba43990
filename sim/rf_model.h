// From antenna to stream: decodes the words that tune the front end, works out where each emitter of a scene lands and
// how strong, and renders 16-bit samples. A Renderer is fixed for one tuned state; the instrument keeps it while the
// state lasts. Const members may be called from any thread.
#pragma once

#include <array>
#include <complex>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "sim/calibration.h"
#include "sim/scene.h"

namespace sim {

inline constexpr double CONVERTER_RATE = 122.88e6;  // complex samples per second ahead of the decimation
inline constexpr int FIR_TAPS = 32;                 // per branch
inline constexpr std::uint16_t FIR_ONE = 32767;     // the tap word for a gain of 1
inline constexpr int RENDER_BLOCK = 512;            // samples; renderings start and end on multiples of it

// Packs numbers `first`, `first` + 1, ... modulo 2^30 into samples around the offset, of up to 16384.
void RenderNumbers(std::uint32_t first, std::uint32_t offset, std::uint8_t* dst, std::size_t samples);

// The number in a sample whose offset is taken off: for a host that scales by 2^-15, of its values times 2^15.
constexpr std::uint32_t ReadNumber(int i, int q) {
    constexpr int MIDDLE = 1 << 14;
    return static_cast<std::uint32_t>(q + MIDDLE) << 15 | static_cast<std::uint32_t>(i + MIDDLE);
}

// Everything that decides what the samples look like, as the words left it. Power-up values.
struct TuneWords {
    std::uint32_t rfConfig = 0x683C8A;
    std::uint32_t rough = 4;
    std::uint32_t tune = 24;  // ticks of 960 kHz
    std::uint32_t startCode = 1;
    std::uint32_t adcOffset = 576;                   // added to I and Q
    std::uint16_t lmxInt = 100;                      // synthesiser register 0x24
    std::uint16_t lmxFrac = 0;                       // 0x2B
    std::uint16_t lmxDivider = 0x0B00;               // 0x4B
    std::uint16_t lmxSegment = 0x43EC;               // 0x1F
    std::uint16_t lmxOutB = 0x07FC;                  // 0x2E
    std::uint16_t lmxPorts = 0x32A3;                 // 0x2C
    std::array<std::uint16_t, 2 * FIR_TAPS> taps{};  // I, then Q
    bool standby = false;                            // until the synthesiser is reset: no tuning word brings it back
    double temperatureC = 35.0;
    std::uint64_t sceneVersion = 0;

    TuneWords();
    bool operator==(const TuneWords&) const = default;
};

struct TuneWordsHash {
    std::size_t operator()(const TuneWords& words) const;
};

// The front end's setting, decoded.
struct Tuning {
    int band = 0;
    bool direct = false;  // band 0: no mixer
    double loHz = 0.0;    // at the mixer
    int attenDb = 0;
};

// Nothing when the front end is powered down, or when the words name no band or divider that the hardware has.
std::optional<Tuning> DecodeTuning(const TuneWords& words);

// One spectral line of the stream, before its modulation.
struct Line {
    double freqHz = 0.0;             // in the stream, -rate/2 to rate/2
    std::complex<double> amplitude;  // of digital full scale
    bool mirrored = false;           // modulation runs backwards
    std::size_t emitter = 0;         // index into the scene

    // Gate: on while (t - gateStart) modulo gatePeriod is below gateWidth; gatePeriod 0: always on. [s]
    double gatePeriod = 0.0;
    double gateStart = 0.0;
    double gateWidth = 0.0;

    enum class Modulation { none, fm, replay, audio } modulation = Modulation::none;
};

class Renderer {
public:
    Renderer(const Truth& truth, std::shared_ptr<const Scene> scene, const TuneWords& words);

    double SampleRate() const { return rate; }
    std::span<const Line> Lines() const { return lines; }
    double NoiseRms() const { return noiseRms; }  // of I and of Q alone, of full scale

    // Renders `samples` complex samples, 4 bytes each, to dst.
    //   position   sample count since the acquisition began; a multiple of RENDER_BLOCK, as is `samples`
    //   origin     sample count at which the acquisition began: emitters run on position + origin
    // Returns whether any sample clipped.
    bool Render(std::uint64_t position, std::uint64_t origin, std::uint8_t* dst, std::size_t samples) const;

private:
    void AddEmitter(const Truth& truth, const Tuning& tuning, const TuneWords& words, std::size_t index);
    void AddLine(const Truth& truth, const Tuning& tuning, const TuneWords& words, double rfHz, double levelDb,
                 Line line);
    void AddPath(const Truth& truth, const Tuning& tuning, const TuneWords& words, double ifHz, double amplitude,
                 bool conjugated, Line line);
    void KeepLine(double freqHz, std::complex<double> amplitude, bool mirrored, Line line);

    std::shared_ptr<const Scene> scene;
    double rate = 0.0;
    bool fullBand = false;
    double offset = 0.0;
    double noiseRms = 0.0;
    std::uint64_t noiseSeed = 0;
    std::vector<Line> lines;
};

// Response of the taps of one branch (0: I, 1: Q) at a frequency of the converter's rate, -61.44e6 to 61.44e6 Hz.
std::complex<double> TapResponse(const TuneWords& words, int branch, double ifHz);

}  // namespace sim
