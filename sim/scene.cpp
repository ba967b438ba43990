#include "sim/scene.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <numbers>
#include <optional>

namespace sim {
namespace {

constexpr std::size_t MAX_TEXT_BYTES = std::size_t{1} << 20;
constexpr std::size_t MAX_LINE_BYTES = 4096;
constexpr std::size_t MAX_EMITTERS = 256;
constexpr std::size_t MAX_HOPS = 256;
constexpr std::size_t MAX_RECORDING_BYTES = std::size_t{256} << 20;
constexpr std::size_t MAX_AUDIO_BYTES = std::size_t{8} << 20;

struct KindRow {
    EmitterKind kind;
    std::string_view name;
    std::string_view keys;  // the settings that it takes, each followed by a space
};
constexpr std::array<KindRow, 7> KINDS = {{
    {EmitterKind::carrier, "carrier", "freq level "},
    {EmitterKind::am, "am", "freq level tone depth audio rate "},
    {EmitterKind::fm, "fm", "freq level tone deviation audio rate "},
    {EmitterKind::ssb, "ssb", "freq level tone side audio rate "},
    {EmitterKind::pulse, "pulse", "freq level period width start "},
    {EmitterKind::hop, "hop", "freqs level dwell "},
    {EmitterKind::replay, "replay", "freq level rate file "},
}};

struct NumberRow {
    std::string_view key;
    double Emitter::*field;
    double low, high;
};
constexpr std::array<NumberRow, 10> NUMBERS = {{
    {"freq", &Emitter::freqHz, 0.0, 20.0e9},
    {"level", &Emitter::levelDbm, -200.0, 30.0},
    {"tone", &Emitter::toneHz, 1.0, 1.0e6},
    {"depth", &Emitter::depth, 0.0, 1.0},
    {"deviation", &Emitter::deviationHz, 0.0, 5.0e6},
    {"period", &Emitter::periodS, 2.0e-6, 1000.0},
    {"width", &Emitter::widthS, 1.0e-7, 1000.0},
    {"start", &Emitter::startS, 0.0, 1000.0},
    {"dwell", &Emitter::dwellS, 1.0e-6, 1000.0},
    {"rate", &Emitter::rateHz, 1.0, 122.88e6},
}};

// A number with an optional unit prefix: n, u, m (thousandths), k, M, G.
std::optional<double> ParseNumber(std::string_view text) {
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || !std::isfinite(value)) return std::nullopt;
    const std::string_view suffix(end, static_cast<std::size_t>(text.data() + text.size() - end));
    constexpr std::array<std::pair<char, double>, 6> PREFIXES = {
        {{'n', 1e-9}, {'u', 1e-6}, {'m', 1e-3}, {'k', 1e3}, {'M', 1e6}, {'G', 1e9}}};
    if (suffix.empty()) return value;
    const auto* row = std::ranges::find(PREFIXES, suffix.front(), &std::pair<char, double>::first);
    if (suffix.size() != 1 || row == PREFIXES.end()) return std::nullopt;
    return value * row->second;
}

// Cuts the next word off the front of a line.
std::string_view NextWord(std::string_view& line) {
    constexpr std::string_view BLANKS = " \t\r";
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

// Reads a file of little-endian 16-bit values, `unit` bytes a sample. Returns what is wrong with it.
std::string LoadValues(const std::string& path, std::size_t unit, std::size_t maxBytes,
                       std::vector<std::int16_t>& values) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return "cannot open recording " + path;
    const auto end = static_cast<std::streamoff>(file.tellg());
    const auto bytes = static_cast<std::size_t>(std::max<std::streamoff>(end, 0));
    if (bytes < 2 * unit || bytes > maxBytes || bytes % unit != 0) {
        return "recording " + path + " is not 2 to " + std::to_string((maxBytes / unit) >> 20) + "M samples of " +
               std::to_string(unit) + " bytes";
    }
    values.resize(bytes / 2);
    file.seekg(0);
    file.read(reinterpret_cast<char*>(values.data()), static_cast<std::streamsize>(bytes));
    return file ? std::string{} : "cannot read recording " + path;
}

std::string LoadRecording(const std::string& path, Emitter& emitter) {
    auto recording = std::make_shared<Recording>();
    const std::string error = LoadValues(path, 4, MAX_RECORDING_BYTES, recording->iq);
    if (error.empty()) emitter.recording = std::move(recording);
    return error;
}

std::string LoadAudio(const std::string& path, Emitter& emitter) {
    std::vector<std::int16_t> values;
    const std::string error = LoadValues(path, 2, MAX_AUDIO_BYTES, values);
    if (error.empty()) emitter.audio = MakeAudio(values);
    return error;
}

std::string ParseHops(std::string_view list, Emitter& emitter) {
    emitter.hopsHz.clear();
    while (true) {
        const std::size_t comma = list.find(',');
        const std::optional<double> freq = ParseNumber(list.substr(0, comma));
        if (!freq || *freq < 0.0 || *freq > 20.0e9) return "bad frequency in freqs";
        if (emitter.hopsHz.size() == MAX_HOPS) return "more than 256 frequencies in freqs";
        emitter.hopsHz.push_back(*freq);
        if (comma == std::string_view::npos) break;
        list.remove_prefix(comma + 1);
    }
    emitter.freqHz = emitter.hopsHz.front();
    return {};
}

std::string ParseSetting(std::string_view key, std::string_view value, const std::string& folder, Emitter& emitter) {
    if (key == "freqs") return ParseHops(value, emitter);
    if (key == "side") {
        if (value != "usb" && value != "lsb") return "side is usb or lsb";
        emitter.upperSideband = value == "usb";
        return {};
    }
    if (key == "audio" && value == "voice") {
        static const std::shared_ptr<const Audio> voice = MakeAudio(SyntheticVoice());
        emitter.audio = voice;
        if (emitter.rateHz == 0.0) emitter.rateHz = VOICE_RATE_HZ;  // a rate that is given may stand on either side
        return {};
    }
    if (key == "file" || key == "audio") {
        const std::string name(value);
        const std::string path = folder.empty() || name.starts_with('/') ? name : folder + "/" + name;
        return key == "file" ? LoadRecording(path, emitter) : LoadAudio(path, emitter);
    }
    const auto* row = std::ranges::find(NUMBERS, key, &NumberRow::key);
    const std::optional<double> number = ParseNumber(value);
    if (!number) return "bad number for " + std::string(key);
    if (*number < row->low || *number > row->high) return std::string(key) + " out of range";
    emitter.*row->field = *number;
    return {};
}

// One line of an emitter behind its kind. Returns what is wrong with it.
std::string ParseEmitter(const KindRow& row, std::string_view line, const std::string& folder, Emitter& emitter) {
    emitter.kind = row.kind;
    std::string seen;
    for (std::string_view word = NextWord(line); !word.empty(); word = NextWord(line)) {
        const std::size_t equals = word.find('=');
        if (equals == std::string_view::npos) return "expected key=value, found " + std::string(word);
        const std::string key = std::string(word.substr(0, equals)) + " ";
        if (key.size() < 2 || (" " + std::string(row.keys)).find(" " + key) == std::string::npos) {
            return std::string(row.name) + " has no setting " + key;
        }
        if (seen.find(" " + key) != std::string::npos) return "setting given twice: " + key;
        seen += " " + key;
        const std::string error = ParseSetting(word.substr(0, equals), word.substr(equals + 1), folder, emitter);
        if (!error.empty()) return error;
    }
    const auto given = [&](std::string_view key) {
        return seen.find(" " + std::string(key) + " ") != std::string::npos;
    };
    if (!given(row.kind == EmitterKind::hop ? "freqs" : "freq")) return "frequency missing";
    if (!given("level")) return "level missing";
    if (row.kind == EmitterKind::replay && !(given("file") && given("rate"))) return "replay needs file and rate";
    if (emitter.audio && emitter.rateHz == 0.0) return "rate missing";
    if (given("rate") && row.kind != EmitterKind::replay && !emitter.audio) return "rate goes with audio";
    if (emitter.audio && given("tone")) return "tone or audio, not both";
    if (row.kind == EmitterKind::pulse && emitter.widthS > emitter.periodS) return "width above period";
    return {};
}

std::string ParseLine(std::string_view line, const std::string& folder, Scene& scene) {
    if (line.size() > MAX_LINE_BYTES) return "line longer than 4096 characters";
    line = line.substr(0, line.find('#'));
    const std::string_view word = NextWord(line);
    if (word.empty()) return {};
    if (word == "noise") {
        const std::optional<double> level = ParseNumber(NextWord(line));
        if (!level || *level < -250.0 || *level > -60.0 || !NextWord(line).empty()) {
            return "noise takes one density from -250 to -60 dBm/Hz";
        }
        scene.noiseDbmPerHz = *level;
        return {};
    }
    if (word == "count") {
        const std::string_view what = NextWord(line);
        if ((what != "samples" && what != "acquisitions") || !NextWord(line).empty()) {
            return "count takes samples or acquisitions";
        }
        scene.pattern = what == "samples" ? Pattern::samples : Pattern::acquisitions;
        return {};
    }
    const auto* row = std::ranges::find(KINDS, word, &KindRow::name);
    if (row == KINDS.end()) return "unknown word " + std::string(word.substr(0, 40));
    if (scene.emitters.size() == MAX_EMITTERS) return "more than 256 emitters";
    return ParseEmitter(*row, line, folder, scene.emitters.emplace_back());
}

}  // namespace

std::shared_ptr<const Audio> MakeAudio(std::span<const std::int16_t> samples) {
    const std::size_t length = samples.size();
    auto audio = std::make_shared<Audio>();
    audio->signal.resize(length);
    std::ranges::transform(samples, audio->signal.begin(), [](std::int16_t x) { return x / 32768.0f; });

    const std::span<const float> signal = audio->signal;
    const auto at = [&](std::size_t i) { return static_cast<double>(signal[i % length]); };
    audio->integral.resize(length + 1);
    for (std::size_t i = 0; i < length; ++i) {  // of the cubic through four samples, between the middle two
        const double piece = (13.0 * (at(i) + at(i + 1)) - at(i + length - 1) - at(i + 2)) / 24.0;
        audio->integral[i + 1] = audio->integral[i] + piece;
    }

    // A Hilbert transformer of 2047 taps, every other one 0, under a Blackman window: it leaves an image of -70 dB or
    // less from 1/480 of the rate up.
    constexpr std::size_t REACH = 1023;
    std::array<float, REACH + 1> taps{};
    for (std::size_t k = 1; k <= REACH; k += 2) {
        const double x = std::numbers::pi * static_cast<double>(k) / (REACH + 1);
        const double window = 0.42 + 0.5 * std::cos(x) + 0.08 * std::cos(2.0 * x);
        taps[k] = static_cast<float>(2.0 / (std::numbers::pi * static_cast<double>(k)) * window);
    }
    std::vector<float> around(length + 2 * REACH);  // the signal, and what its repetition puts in front and behind
    for (std::size_t i = 0; i < around.size(); ++i) {
        around[i] = signal[(i + length - REACH % length) % length];
    }
    audio->quadrature.resize(length);
    for (std::size_t i = 0; i < length; ++i) {
        const float* centre = &around[i + REACH];
        float sum = 0.0f;
        for (std::size_t k = 1; k <= REACH; k += 2) sum += taps[k] * (*(centre - k) - centre[k]);
        audio->quadrature[i] = sum;
    }
    return audio;
}

std::vector<std::int16_t> SyntheticVoice() {
    struct Syllable {
        double pitchHz, formant1Hz, formant2Hz;
    };
    constexpr std::array<Syllable, 8> SYLLABLES = {{{120, 730, 1090},
                                                    {135, 270, 2290},
                                                    {128, 530, 1840},
                                                    {115, 570, 840},
                                                    {140, 300, 870},
                                                    {125, 660, 1720},
                                                    {118, 440, 1020},
                                                    {105, 490, 1350}}};
    constexpr std::size_t SYLLABLE_SAMPLES = static_cast<std::size_t>(VOICE_RATE_HZ) / 4;
    constexpr double TOP_HZ = 3400.0, FORMANT_WIDTH_HZ = 120.0, PEAK = 6000.0;
    std::vector<std::int16_t> samples;
    samples.reserve(SYLLABLES.size() * SYLLABLE_SAMPLES);
    for (const Syllable& row : SYLLABLES) {
        double phase = 0.0;
        for (std::size_t i = 0; i < SYLLABLE_SAMPLES; ++i) {
            const double x = static_cast<double>(i) / static_cast<double>(SYLLABLE_SAMPLES);
            const double pitchHz = row.pitchHz * (1.1 - 0.2 * x);  // each falls
            phase += 2.0 * std::numbers::pi * pitchHz / VOICE_RATE_HZ;
            double sum = 0.0;
            for (int k = 1; k * pitchHz < TOP_HZ; ++k) {
                const auto formant = [&](double hz) {
                    const double off = (k * pitchHz - hz) / FORMANT_WIDTH_HZ;
                    return 1.0 / (1.0 + off * off);
                };
                sum += (formant(row.formant1Hz) + 0.5 * formant(row.formant2Hz)) * std::sin(k * phase);
            }
            const double swell = std::sin(std::numbers::pi * x);
            samples.push_back(static_cast<std::int16_t>(std::clamp(PEAK * swell * swell * sum, -32767.0, 32767.0)));
        }
    }
    return samples;
}

std::string_view KindName(EmitterKind kind) { return std::ranges::find(KINDS, kind, &KindRow::kind)->name; }

SceneResult ParseScene(std::string_view text, const std::string& folder) {
    SceneResult result;
    if (text.size() > MAX_TEXT_BYTES) {
        result.error = "scene larger than 1 MiB";
        return result;
    }
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const std::string error = ParseLine(line, folder, result.scene);
        if (!error.empty()) {
            result.error = "line " + std::to_string(number) + ": " + error;
            return result;
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return result;
}

SceneResult LoadScene(const std::string& path) {
    SceneResult result;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        result.error = "cannot open " + path;
        return result;
    }
    std::string text(MAX_TEXT_BYTES + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    const std::size_t slash = path.rfind('/');
    result = ParseScene(text, slash == std::string::npos ? std::string{} : path.substr(0, slash));
    if (!result.Ok()) result.error = path + ", " + result.error;
    return result;
}

}  // namespace sim
