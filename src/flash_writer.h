// The instrument's flash under the boot program, area by area: erasing, writing and verifying, with progress. The boot
// family of tq_api_admin.h uses it, on the caller's thread.
#pragma once

#include <cstdint>
#include <vector>

#include "device_interface.h"

// What stands where, [bytes]. Both firmware images fill one erase unit, the other two areas eight.
inline constexpr int BOOT_FLASH_ADDRESS = 0x0;
inline constexpr int FPGA_FLASH_ADDRESS = 0x100000;
inline constexpr int RUN_FLASH_ADDRESS = 0x3000000;
inline constexpr int FX3_AREA_BYTES = 0x40000;
inline constexpr int FPGA_AREA_BYTES = 0x200000;

// Writes the whole pages of `mem` into erased flash from writeOffsetBytes on, which begins a page, then reads all of
// them back. Prints what it does, page by page. 20 ms a page.
//   progress  grows by 1.0 in all, in steps of one page written or 32 verified; where it stands after a failure tells
//             how far it came. Another thread may watch it, as an atomic.
// The transfer status of a failed write; tqInternalFlashErr when a page does not read back as written.
TqStatus WriteBytesToFlash(DeviceInterface* device, const std::vector<uint8_t>& mem, int writeOffsetBytes,
                           double& progress);

// Erases the eight units of the FPGA program or of the corrections, 2 s each.
//   progress  begins at 0.0 and ends at 0.875: what is done when the last unit begins
//   print     whether to print each page
// The transfer status of a failed erase, at once.
TqStatus ClearFlashArea(DeviceInterface* device, int address, bool print, double& progress);
