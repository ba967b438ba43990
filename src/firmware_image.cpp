#include "firmware_image.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

namespace {

constexpr uint8_t ERASED = 0xFF;
constexpr size_t WORD_BYTES = 4;

constexpr size_t SERIAL_DIGITS = 8;
constexpr size_t SERIAL_STRIDE = 2;  // 16-bit characters, low byte first
constexpr size_t SERIAL_SPAN = (SERIAL_DIGITS - 1) * SERIAL_STRIDE + 1;
constexpr uint8_t PLACEHOLDER_DIGIT = '1';

constexpr std::string_view VERSION_MARK = "FW Ver";
constexpr size_t VERSION_BYTES = 2;

uint32_t GetWord(std::span<const uint8_t> img, size_t offset) {
    uint32_t word;
    std::memcpy(&word, &img[offset], sizeof word);
    return word;
}

struct Section {
    size_t begin, end;  // of its data, [bytes] from the start of the image
};

struct ImgLayout {
    std::vector<Section> sections;
    size_t checksum = 0;  // offset of the checksum word
    uint32_t sum = 0;     // what it should hold

    size_t End() const { return checksum + WORD_BYTES; }
};

// Walks the section list. Nothing: no "CY", or the list runs past the end of the image.
std::optional<ImgLayout> ParseImg(std::span<const uint8_t> img) {
    if (img.size() < WORD_BYTES || img[0] != 'C' || img[1] != 'Y') return std::nullopt;
    ImgLayout layout;
    size_t at = WORD_BYTES;
    while (img.size() - at >= 2 * WORD_BYTES) {
        const size_t words = GetWord(img, at);
        at += 2 * WORD_BYTES;  // the length, and the load address or entry address
        const size_t left = (img.size() - at) / WORD_BYTES;
        if (words == 0) {
            if (left == 0) return std::nullopt;
            layout.checksum = at;
            return layout;
        }
        if (words > left) return std::nullopt;
        layout.sections.push_back({at, at + words * WORD_BYTES});
        for (const size_t end = layout.sections.back().end; at < end; at += WORD_BYTES) layout.sum += GetWord(img, at);
    }
    return std::nullopt;
}

// Offset of the first serial number placeholder. A run of the digit that reaches into the section list or the checksum
// is none: writing there would break the image.
std::optional<size_t> FindPlaceholder(std::span<const uint8_t> img, const ImgLayout& layout) {
    auto section = layout.sections.begin();
    for (size_t at = 0; at + SERIAL_SPAN <= img.size(); ++at) {
        size_t digits = 0;
        while (digits < SERIAL_DIGITS && img[at + digits * SERIAL_STRIDE] == PLACEHOLDER_DIGIT) ++digits;
        if (digits < SERIAL_DIGITS) continue;
        while (section != layout.sections.end() && section->end < at + SERIAL_SPAN) ++section;
        const bool inData = section != layout.sections.end() && section->begin <= at;
        if (inData || at >= layout.End()) return at;
    }
    return std::nullopt;
}

// Fills `contents` with the file's bytes and what erased flash reads. False: not a file, or not its end.
bool ReadToEnd(const char* fileName, std::vector<uint8_t>& contents) {
    struct stat info;
    if (stat(fileName, &info) != 0 || !S_ISREG(info.st_mode)) return false;  // opening a pipe would block
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Close> file(std::fopen(fileName, "rb"));
    if (file == nullptr) return false;
    const size_t length = std::fread(contents.data(), 1, contents.size(), file.get());
    std::fill(contents.begin() + static_cast<std::ptrdiff_t>(length), contents.end(), ERASED);
    return std::fgetc(file.get()) == EOF && std::ferror(file.get()) == 0;
}

}  // namespace

std::vector<uint8_t> GetFileContents(const char* fileName, int finalSize) {
    if (fileName == nullptr || finalSize <= 0) return {};
    std::vector<uint8_t> contents(static_cast<size_t>(finalSize));
    if (!ReadToEnd(fileName, contents)) return {};
    return contents;
}

bool IsCompleteImg(std::span<const uint8_t> img) {
    const std::optional<ImgLayout> layout = ParseImg(img);
    return layout && FindPlaceholder(img, *layout);
}

bool UpdateCheckSumImg(std::span<uint8_t> img, bool verify) {
    const std::optional<ImgLayout> layout = ParseImg(img);
    if (!layout) return false;
    if (!verify) {
        std::memcpy(&img[layout->checksum], &layout->sum, sizeof layout->sum);
        return true;
    }
    if (GetWord(img, layout->checksum) == layout->sum) return true;
    std::puts("Fail to boot due to checksum error");
    return false;
}

bool UpdateImgSerial(std::span<uint8_t> img, int serial) {
    if (serial < 0 || serial > MAX_SERIAL) return false;
    if (!UpdateCheckSumImg(img, true)) return false;
    const std::optional<size_t> placeholder = FindPlaceholder(img, *ParseImg(img));
    if (!placeholder) return false;
    std::array<char, SERIAL_DIGITS + 1> digits;
    std::snprintf(digits.data(), digits.size(), "%08d", serial);
    for (size_t i = 0; i < SERIAL_DIGITS; ++i) {
        img[*placeholder + i * SERIAL_STRIDE] = static_cast<uint8_t>(digits[i]);
    }
    return UpdateCheckSumImg(img, false);
}

bool GetBootVersionFromFile(const std::vector<uint8_t>& img, uint16_t& version) {
    if (img.size() <= VERSION_MARK.size() + VERSION_BYTES) return false;
    // A mark right at the end, where its version would be the last two bytes, does not count: they are written over.
    const auto end = img.end() - VERSION_BYTES - 1;
    const auto mark = std::search(img.begin(), end, VERSION_MARK.begin(), VERSION_MARK.end());
    if (mark == end) return false;
    const auto bytes = mark + VERSION_MARK.size();
    version = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
    return true;
}

bool SetImgVersion(std::span<uint8_t> img, uint16_t version) {
    const std::optional<ImgLayout> layout = ParseImg(img);
    if (!layout || img.size() - layout->End() < VERSION_BYTES) return false;
    img[img.size() - 2] = static_cast<uint8_t>(version >> 8);
    img[img.size() - 1] = static_cast<uint8_t>(version);
    return true;
}
