#include "sim/flash.h"

#include <algorithm>

namespace sim {

void Flash::ReadPage(unsigned page, std::span<std::uint8_t> dst) const {
    const auto it = pages.find(page % FLASH_PAGES);
    if (it == pages.end()) {
        std::ranges::fill(dst, std::uint8_t{0xFF});
    } else {
        std::copy_n(it->second->begin(), std::min(dst.size(), FLASH_PAGE_BYTES), dst.begin());
    }
}

std::vector<std::uint8_t> Flash::Read(unsigned page, unsigned count) const {
    std::vector<std::uint8_t> bytes(count * FLASH_PAGE_BYTES);
    for (unsigned i = 0; i < count; ++i) {
        ReadPage(page + i, std::span(bytes).subspan(i * FLASH_PAGE_BYTES, FLASH_PAGE_BYTES));
    }
    return bytes;
}

void Flash::WritePage(unsigned page, std::span<const std::uint8_t> data) {
    std::unique_ptr<Page>& slot = pages[page % FLASH_PAGES];
    if (!slot) {
        slot = std::make_unique<Page>();
        slot->fill(0xFF);
    }
    for (std::size_t i = 0; i < std::min(data.size(), FLASH_PAGE_BYTES); ++i) (*slot)[i] &= data[i];
}

void Flash::EraseSector(unsigned page) {
    const unsigned first = page % FLASH_PAGES / FLASH_ERASE_PAGES * FLASH_ERASE_PAGES;
    for (unsigned i = 0; i < FLASH_ERASE_PAGES; ++i) pages.erase(first + i);
}

void Flash::Place(unsigned firstPage, std::span<const std::uint8_t> data) {
    for (unsigned page = firstPage; !data.empty(); ++page) {
        const std::size_t bytes = std::min(data.size(), FLASH_PAGE_BYTES);
        pages.erase(page % FLASH_PAGES);
        WritePage(page, data.first(bytes));
        data = data.subspan(bytes);
    }
}

}  // namespace sim
