// The instrument's 64 MiB flash as its boot program serves it: pages of 1024 bytes, read 32 at a time, erased 256 at
// a time. Pages never written take no memory. No locking: the instrument's mutex guards it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <unordered_map>
#include <vector>

namespace sim {

inline constexpr std::size_t FLASH_PAGE_BYTES = 1024;
inline constexpr unsigned FLASH_PAGES = 65536;
inline constexpr unsigned FLASH_READ_PAGES = 32;
inline constexpr unsigned FLASH_ERASE_PAGES = 256;
inline constexpr unsigned FLASH_BOOT_PAGE = 0;       // firmware images, one erase sector each: boot program,
inline constexpr unsigned FLASH_RUN_PAGE = 49152;    // and run program
inline constexpr unsigned FLASH_RECORD_PAGE = 4096;  // calibration record, byte 0x400000

class Flash {
public:
    // A page's content; `dst` takes at most FLASH_PAGE_BYTES. Page numbers wrap at the end of the flash.
    void ReadPage(unsigned page, std::span<std::uint8_t> dst) const;

    // The content of several pages.
    std::vector<std::uint8_t> Read(unsigned page, unsigned count) const;

    // Programs a page: bits can only go from 1 to 0, as in NOR flash.
    void WritePage(unsigned page, std::span<const std::uint8_t> data);

    // Sets the erase sector that holds `page` to 0xFF.
    void EraseSector(unsigned page);

    // Puts bytes in place as the factory would, with no regard to what stood there.
    void Place(unsigned firstPage, std::span<const std::uint8_t> data);

private:
    using Page = std::array<std::uint8_t, FLASH_PAGE_BYTES>;
    std::unordered_map<unsigned, std::unique_ptr<Page>> pages;  // absent: erased
};

}  // namespace sim
