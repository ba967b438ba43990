#include "flash_writer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <span>

namespace {

constexpr int CLEARED_UNITS = 8;
static_assert(CLEARED_UNITS * FLASH_ERASE_PAGES * FLASH_PAGE_BYTES == FPGA_AREA_BYTES);
static_assert(FPGA_AREA_BYTES == CAL_DATA_BYTES);

// Page numbers are 16 bits wide on the wire.
uint16_t PageNumber(int page) { return static_cast<uint16_t>(page & 0xFFFF); }

}  // namespace

TqStatus WriteBytesToFlash(DeviceInterface* device, const std::vector<uint8_t>& mem, int writeOffsetBytes,
                           double& progress) {
    const int oneKPages = static_cast<int>(mem.size() / FLASH_PAGE_BYTES);
    if (oneKPages < 1) return tqNoError;
    const double progressStep = 1.0 / (oneKPages / double{FLASH_READ_PAGES} + oneKPages);
    const std::atomic_ref<double> watched(progress);
    const int firstPage = writeOffsetBytes / FLASH_PAGE_BYTES;
    const std::span written(mem.data(), static_cast<size_t>(oneKPages) * FLASH_PAGE_BYTES);

    for (int i = 0; i < oneKPages; ++i) {
        std::printf("Writing Page %d\n", firstPage + i);
        const TqStatus status =
            device->WriteFlashPage(PageNumber(firstPage + i), &written[static_cast<size_t>(i) * FLASH_PAGE_BYTES]);
        if (status != tqNoError) return status;
        watched += progressStep;
    }
    std::array<uint8_t, FLASH_READ_BYTES> buffer;
    for (int i = 0; i < oneKPages; i += FLASH_READ_PAGES) {
        std::printf("Verifying Page %d\n", firstPage + i);
        // A read that failed leaves the buffer as it was, which may by chance be what should come.
        if (device->ReadFlashPage(PageNumber(firstPage + i), buffer.data()) != tqNoError) return tqInternalFlashErr;
        const std::span left = written.subspan(static_cast<size_t>(i) * FLASH_PAGE_BYTES);
        const std::span expected = left.first(std::min(left.size(), buffer.size()));
        if (!std::ranges::equal(expected, std::span(buffer).first(expected.size()))) return tqInternalFlashErr;
        watched += progressStep;
    }
    return tqNoError;
}

TqStatus ClearFlashArea(DeviceInterface* device, int address, bool print, double& progress) {
    const std::atomic_ref<double> watched(progress);
    watched = 0.0;
    for (int i = 0; i < CLEARED_UNITS; ++i) {
        const int page = address / FLASH_PAGE_BYTES + FLASH_ERASE_PAGES * i;
        if (print) std::printf("Erasing Page %d\n", page);
        const TqStatus status = device->EraseFlashPage(PageNumber(page));
        if (status != tqNoError) return status;
        watched = i * (1.0 / CLEARED_UNITS);
    }
    return tqNoError;
}
