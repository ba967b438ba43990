#include "sim/firmware.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace sim {
namespace {

// A string descriptor of eight characters: length, type, then UTF-16.
constexpr std::array<std::uint8_t, 2> DESCRIPTOR = {18, 3};
constexpr std::size_t SERIAL_CHARACTERS = 8;
constexpr std::string_view VERSION_MARK = "FW Ver";

std::string SerialString(std::span<const std::uint8_t> memory) {
    for (auto at = memory.begin();; ++at) {
        at = std::search(at, memory.end(), DESCRIPTOR.begin(), DESCRIPTOR.end());
        if (memory.end() - at < DESCRIPTOR.front()) return {};
        std::string text;
        for (std::size_t i = 0; i < SERIAL_CHARACTERS; ++i) {
            const auto low = static_cast<char>(at[static_cast<std::ptrdiff_t>(2 + 2 * i)]);
            if (at[static_cast<std::ptrdiff_t>(3 + 2 * i)] == 0 && low >= '0' && low <= '9') text += low;
        }
        if (text.size() == SERIAL_CHARACTERS) return text;
    }
}

}  // namespace

std::optional<Firmware> LoadFirmware(std::span<const std::uint8_t> image) {
    std::size_t at = 4;
    const auto next = [&]() -> std::uint32_t {
        if (image.size() - at < 4) return 0;
        at += 4;
        return static_cast<std::uint32_t>(image[at - 4]) | static_cast<std::uint32_t>(image[at - 3]) << 8 |
               static_cast<std::uint32_t>(image[at - 2]) << 16 | static_cast<std::uint32_t>(image[at - 1]) << 24;
    };
    if (image.size() < at || image[0] != 'C' || image[1] != 'Y') return std::nullopt;
    std::vector<std::uint8_t> memory;
    std::uint32_t sum = 0;
    while (const std::uint32_t words = next()) {
        next();  // address
        if (words > (image.size() - at) / 4) return std::nullopt;
        const auto data = image.subspan(at, std::size_t{4} * words);
        memory.insert(memory.end(), data.begin(), data.end());
        for (std::uint32_t i = 0; i < words; ++i) sum += next();
    }
    next();  // entry
    if (next() != sum || memory.empty()) return std::nullopt;

    Firmware firmware{SerialString(memory), 0};
    const auto mark = std::search(memory.begin(), memory.end(), VERSION_MARK.begin(), VERSION_MARK.end());
    if (memory.end() - mark >= 8) firmware.version = static_cast<std::uint16_t>(mark[6] << 8 | mark[7]);
    return firmware;
}

}  // namespace sim
