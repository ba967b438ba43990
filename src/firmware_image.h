// Image files for the instrument's flash: reading them, and the firmware format of the FX3 controller in which boot and
// run program come. They come from anywhere: no length that stands in one is trusted, and an image with no end to its
// sections is not touched. The boot family of tq_api_admin.h uses it. No state; any thread.
//
// An FX3 image, in little-endian 32-bit words:
//   word 0          first two bytes "CY"
//   then sections   length L in words, load address, L words of data
//   then the end    0, entry address, checksum: the sum, modulo 2^32, of all data words
// Two marks lie in the data: the USB string of an instrument without a serial number, eight 16-bit characters '1', and
// the text "FW Ver" in front of the version, high byte first.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

inline constexpr int MAX_SERIAL = 99999999;  // eight digits

// The bytes of a regular file, and 0xFF behind them, as erased flash reads, up to finalSize. Empty: the file cannot be
// read to its end, is longer, or is no regular file. Throws std::bad_alloc.
std::vector<uint8_t> GetFileContents(const char* fileName, int finalSize);

// Whether an image may go into flash: it begins with "CY", its sections end within it, and it has the place for a
// serial number. Says nothing of the checksum.
bool IsCompleteImg(std::span<const uint8_t> img);

// Sums the data of all sections. With `verify` the sum is compared with the checksum word, and a difference is printed;
// without, it is stored there. False: a difference, or an image without "CY" or without an end to its sections.
bool UpdateCheckSumImg(std::span<uint8_t> img, bool verify);

// Writes `serial`, 0 to MAX_SERIAL, with leading zeros over the first serial number placeholder, and a new checksum.
// False, and the image untouched: another serial, a wrong checksum, no placeholder.
bool UpdateImgSerial(std::span<uint8_t> img, int serial);

// The version behind the first mark. False: there is none.
bool GetBootVersionFromFile(const std::vector<uint8_t>& img, uint16_t& version);

// Puts the version, high byte first, into the image's last two bytes, where the boot program looks for it. False, and
// the image untouched: the sections do not leave them free.
bool SetImgVersion(std::span<uint8_t> img, uint16_t version);
