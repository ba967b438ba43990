#include "sim/scene.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <optional>

namespace sim {
namespace {

constexpr std::size_t MAX_TEXT_BYTES = std::size_t{1} << 20;
constexpr std::size_t MAX_LINE_BYTES = 4096;
constexpr std::size_t MAX_EMITTERS = 256;
constexpr std::size_t MAX_HOPS = 256;
constexpr std::size_t MAX_RECORDING_BYTES = std::size_t{256} << 20;

struct KindRow {
    EmitterKind kind;
    std::string_view name;
    std::string_view keys;  // the settings that it takes, each followed by a space
};
constexpr std::array<KindRow, 7> KINDS = {{
    {EmitterKind::carrier, "carrier", "freq level "},
    {EmitterKind::am, "am", "freq level tone depth "},
    {EmitterKind::fm, "fm", "freq level tone deviation "},
    {EmitterKind::ssb, "ssb", "freq level tone side "},
    {EmitterKind::pulse, "pulse", "freq level period width "},
    {EmitterKind::hop, "hop", "freqs level dwell "},
    {EmitterKind::replay, "replay", "freq level rate file "},
}};

struct NumberRow {
    std::string_view key;
    double Emitter::*field;
    double low, high;
};
constexpr std::array<NumberRow, 9> NUMBERS = {{
    {"freq", &Emitter::freqHz, 0.0, 20.0e9},
    {"level", &Emitter::levelDbm, -200.0, 30.0},
    {"tone", &Emitter::toneHz, 1.0, 1.0e6},
    {"depth", &Emitter::depth, 0.0, 1.0},
    {"deviation", &Emitter::deviationHz, 0.0, 5.0e6},
    {"period", &Emitter::periodS, 2.0e-6, 1000.0},
    {"width", &Emitter::widthS, 1.0e-7, 1000.0},
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

std::string LoadRecording(const std::string& path, Emitter& emitter) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return "cannot open recording " + path;
    const auto bytes = static_cast<std::streamoff>(file.tellg());
    if (bytes < 8 || static_cast<std::size_t>(bytes) > MAX_RECORDING_BYTES || bytes % 4 != 0) {
        return "recording " + path + " is not 2 to 64M samples of 4 bytes";
    }
    auto recording = std::make_shared<Recording>();
    recording->iq.resize(static_cast<std::size_t>(bytes) / 2);
    file.seekg(0);
    file.read(reinterpret_cast<char*>(recording->iq.data()), bytes);
    if (!file) return "cannot read recording " + path;
    emitter.recording = std::move(recording);
    return {};
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
    if (key == "file") {
        const std::string name(value);
        return LoadRecording(folder.empty() || name.starts_with('/') ? name : folder + "/" + name, emitter);
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
    const auto* row = std::ranges::find(KINDS, word, &KindRow::name);
    if (row == KINDS.end()) return "unknown word " + std::string(word.substr(0, 40));
    if (scene.emitters.size() == MAX_EMITTERS) return "more than 256 emitters";
    return ParseEmitter(*row, line, folder, scene.emitters.emplace_back());
}

}  // namespace

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
