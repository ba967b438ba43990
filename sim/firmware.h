// What the controller's boot ROM makes of an FX3 firmware image in flash: whether it loads, and what the program in it
// then says of itself. Values, no state.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sim {

struct Firmware {
    std::string serial;         // eight characters of the USB string descriptor; empty: the program has none
    std::uint16_t version = 0;  // behind the mark "FW Ver"
};

// Loads an image as the boot ROM does: "CY", sections, checksum. Nothing: it does not load.
std::optional<Firmware> LoadFirmware(std::span<const std::uint8_t> image);

}  // namespace sim
