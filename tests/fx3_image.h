// Firmware images in the controller's format, made to order: two sections with a USB serial string at an odd place, a
// version mark, and a checksum.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Fx3Options {
    std::string serial = "11111111";  // as it comes from the maker: the placeholder
    uint16_t version = 0x0405;
    uint32_t words = 3000;  // of the second section, pseudorandom
};

class Fx3Image {
public:
    explicit Fx3Image(const Fx3Options& options = {}) {
        Add(0xB01C5943);
        std::string data = "program\x12\x03";
        serialAt = 12 + data.size();
        for (const char digit : options.serial) data += {digit, '\0'};
        data += "FW Ver";
        data += {static_cast<char>(options.version >> 8), static_cast<char>(options.version), '.', '.'};
        data.resize((data.size() + 3) / 4 * 4);
        std::vector<uint32_t> words(data.size() / 4);
        std::copy(data.begin(), data.end(), reinterpret_cast<char*>(words.data()));
        AddSection(0x40003000, words);

        words.resize(options.words);
        uint32_t seed = options.version;
        for (uint32_t& word : words) word = seed = seed * 1664525 + 1013904223;
        AddSection(0x40010000, words);
        endAt = bytes.size();
        Add(0);
        Add(0x40003000);
        Add(sum);
    }

    // As the area of `size` bytes should read.
    std::vector<uint8_t> Padded(size_t size = 0x40000) const {
        std::vector<uint8_t> padded = bytes;
        padded.resize(size, 0xFF);
        return padded;
    }

    std::vector<uint8_t> bytes;
    size_t serialAt = 0;  // first digit
    size_t endAt = 0;     // the word 0 behind the sections; the checksum stands 8 bytes on

private:
    void Add(uint32_t word) {
        for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
    }
    void AddSection(uint32_t address, const std::vector<uint32_t>& words) {
        Add(static_cast<uint32_t>(words.size()));
        Add(address);
        for (const uint32_t word : words) {
            Add(word);
            sum += word;
        }
    }

    uint32_t sum = 0;
};
