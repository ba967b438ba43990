#include "tq_api_admin.h"

#include "backend_usb.h"
#include "device_interface.h"
#include "firmware_image.h"
#include "flash_writer.h"
#include "tq_api_frame.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace {

constexpr int BOOT_HANDLE = 0;  // the only one
static_assert(TQ_FLASH_PAGE_BYTES == FLASH_PAGE_BYTES && TQ_FLASH_READ_BYTES == FLASH_READ_BYTES);

// The instrument that is open in its boot program. A plain pointer, for the reason of the table of open devices.
DeviceInterface* bootDevice = nullptr;
int bootSerial = -1;  // reserved for it

// What stands in front of all that works on the boot device.
TqStatus CheckBootHandle(int device) {
    if (bootDevice == nullptr) return tqDeviceNotFoundErr;
    return device == BOOT_HANDLE ? tqNoError : tqInvalidDeviceErr;
}

TqStatus FlashStatus(TqStatus transferStatus) { return transferStatus == tqNoError ? tqNoError : tqInternalFlashErr; }

uint16_t PageNumber(int page) { return static_cast<uint16_t>(page & 0xFFFF); }

// Attaches to an instrument in its boot program.
TqStatus OpenBootDevice(OwnedDeviceHandle handle, int* bootHandle) {
    auto device = std::make_unique<DeviceInterface>();
    const TqStatus status = device->ConnectBoot(handle.get());
    if (status != tqNoError) return status;
    static_cast<void>(handle.release());
    bootDevice = device.release();
    *bootHandle = BOOT_HANDLE;
    return tqNoError;
}

// The program of the instrument must not be brought down under an owner in this process or in another.
TqStatus OpenBootDeviceBySerial(int* bootHandle, int serialNumber) {
    SerialReservation serial(serialNumber);
    if (!serial.Got()) return tqDeviceNotFoundErr;
    OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(serialNumber));
    if (handle == nullptr) return tqDeviceNotFoundErr;
    if (IsUSBRunDevice(handle.get())) {
        if (!ClaimUSBInterface(handle.get())) return tqDeviceNotFoundErr;
        PresetUSBDevice(handle.get());
        SystemSleep(USB_RESTART_MS);
        handle.reset();
        handle.reset(GetUSBDeviceHandleBySerial(serialNumber));
    }
    if (!IsUSBBootDevice(handle.get())) return tqDeviceNotFoundErr;
    const TqStatus status = OpenBootDevice(std::move(handle), bootHandle);
    if (status != tqNoError) return status;
    serial.Keep();
    bootSerial = serialNumber;
    return tqNoError;
}

// A firmware image from its file with the serial number in it. Empty: it must not be written. One with a wrong checksum
// is left as it is.
std::vector<uint8_t> ImageWithSerial(const char* fileName, int serialNumber) {
    std::vector<uint8_t> img = GetFileContents(fileName, FX3_AREA_BYTES);
    if (!IsCompleteImg(img)) return {};
    UpdateImgSerial(img, serialNumber);
    return img;
}

}  // namespace

// --- Calibrating an open instrument ---

TqStatus tqAdminGetTempRange(int device, TqTempRange* tempRange) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (tempRange == nullptr) return tqNullPtrErr;
        return dev.corrections.GetDeviceTempRange(*tempRange);
    });
}

TqStatus tqAdminHasDithering(int device, bool& hasDithering) {
    return OnDevice(device, [&](TqDevice& dev) {
        hasDithering = dev.HasDithering();
        return tqNoError;
    });
}

TqStatus tqAdminSetCorrectionMode(int device, TqCorrectionMode newCorrectionMode) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(newCorrectionMode, tqCorrectionModeCal)) return tqInvalidParameterErr;
        return dev.corrections.SetCorrectionMode(newCorrectionMode);
    });
}

TqStatus tqAdminSetCorrectionIndex(int device, int newCalIndex) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.corrections.SetCorrectionIndex(newCalIndex); });
}

TqStatus tqAdminManualLoadCorrections(int device, const TQ720CalData* calData) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (calData == nullptr) return tqNullPtrErr;
        return dev.corrections.LoadCorrections(calData);
    });
}

TqStatus tqAdminDeviceHasCorrections(int device, bool* hasCorrections) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (hasCorrections == nullptr) return tqNullPtrErr;
        *hasCorrections = rvCalDoesCorrectionsExist(dev.usb->CalData());
        return tqNoError;
    });
}

TqStatus tqAdminGetCoarseTuneVal(int device, uint16_t* ticks) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (ticks == nullptr) return tqNullPtrErr;
        return dev.GetCoarseTuneVal(ticks);
    });
}

TqStatus tqAdminSetCoarseTuneVal(int device, uint16_t ticks) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.SetCoarseTuneVal(ticks); });
}

TqStatus tqAdminGetFullBandIQ(int device, double LOFreq, float* dst) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (dst == nullptr) return tqNullPtrErr;
        return dev.CaptureFullBand(LOFreq, dst);
    });
}

// --- Boot program ---

TqStatus tqBootStrap(int* device, const char* fileName) {
    if (bootDevice != nullptr) return tqMaxDevicesConnectedErr;
    if (device == nullptr) return tqNullPtrErr;
    return Guarded([&] {
        OwnedDeviceHandle handle(FindInitBootDevice(fileName));
        if (handle == nullptr || OpenBootDevice(std::move(handle), device) != tqNoError) return tqDeviceNotFoundErr;
        return tqNoError;
    });
}

TqStatus tqBootOpenDevice(int* bootHandle) {
    if (bootHandle == nullptr) return tqNullPtrErr;
    if (bootDevice != nullptr) return tqMaxDevicesConnectedErr;
    return Guarded([&] {
        ResetAllRunProgramDevices();
        const std::vector<TQBootState> devices = GetAllDevices();
        if (devices.empty() || devices.front().isRunProgram) return tqDeviceNotFoundErr;
        return OpenBootDeviceBySerial(bootHandle, devices.front().serialNumber);
    });
}

TqStatus tqBootOpenDeviceBySerial(int* bootHandle, int serialNumber) {
    if (bootHandle == nullptr) return tqNullPtrErr;
    if (bootDevice != nullptr) return tqMaxDevicesConnectedErr;
    return Guarded([&] { return OpenBootDeviceBySerial(bootHandle, serialNumber); });
}

TqStatus tqBootCloseDevice(int bootHandle) {
    if (bootDevice == nullptr || bootHandle != BOOT_HANDLE) return tqInvalidDeviceErr;
    const std::unique_ptr<DeviceInterface> owner(std::exchange(bootDevice, nullptr));
    owner->PresetDevice();
    SerialReservation::GiveBack(bootSerial);
    return tqNoError;
}

TqStatus tqBootGetSerial(int bootHandle, int* serialNumber) {
    if (bootHandle != BOOT_HANDLE) return tqInvalidDeviceErr;
    if (bootDevice == nullptr) return tqDeviceNotFoundErr;
    if (serialNumber == nullptr) return tqNullPtrErr;
    *serialNumber = bootDevice->SerialNumber();
    return tqNoError;
}

// --- Areas of the flash ---

TqStatus tqBootClearBootSector(int device) {
    return tqBootClearFlashPage(device, BOOT_FLASH_ADDRESS / FLASH_PAGE_BYTES);
}

TqStatus tqBootWriteBootSector(int device, const char* fileName, int serialNumber) {
    const TqStatus check = CheckBootHandle(device);
    if (check != tqNoError) return check;
    if (serialNumber < 0 || serialNumber > MAX_SERIAL) return tqInvalidParameterErr;
    return Guarded([&] {
        std::vector<uint8_t> img = ImageWithSerial(fileName, serialNumber);
        uint16_t version = 0;
        if (!GetBootVersionFromFile(img, version) || !SetImgVersion(img, version)) return tqInternalFileIOErr;
        double progress = 0.0;
        const TqStatus status = WriteBytesToFlash(bootDevice, img, BOOT_FLASH_ADDRESS, progress);
        return status == tqNoError ? tqNoError : tqInternalFileIOErr;
    });
}

TqStatus tqBootClearRunSector(int device) { return tqBootClearFlashPage(device, RUN_FLASH_ADDRESS / FLASH_PAGE_BYTES); }

TqStatus tqBootWriteRunSector(int device, const char* fileName, int serialNumber) {
    const TqStatus check = CheckBootHandle(device);
    if (check != tqNoError) return check;
    const int serial = serialNumber < 1 ? bootDevice->SerialNumber() : serialNumber;
    if (serial < 0 || serial > MAX_SERIAL) return tqInvalidParameterErr;
    return Guarded([&] {
        const std::vector<uint8_t> img = ImageWithSerial(fileName, serial);
        if (img.empty()) return tqInternalFileIOErr;
        double progress = 0.0;
        return FlashStatus(WriteBytesToFlash(bootDevice, img, RUN_FLASH_ADDRESS, progress));
    });
}

TqStatus tqBootClearFPGAProgram(int device, double& progress) {
    const TqStatus check = CheckBootHandle(device);
    if (check != tqNoError) return check;
    return Guarded([&] { return FlashStatus(ClearFlashArea(bootDevice, FPGA_FLASH_ADDRESS, true, progress)); });
}

TqStatus tqBootWriteFPGAProgram(int device, const char* fileName, double& progress) {
    const TqStatus check = CheckBootHandle(device);
    if (check != tqNoError) return check;
    return Guarded([&] {
        const std::vector<uint8_t> img = GetFileContents(fileName, FPGA_AREA_BYTES);
        // An empty file, and one of erased flash, is no program.
        if (std::ranges::all_of(img, [](uint8_t byte) { return byte == 0xFF; })) return tqInternalFileIOErr;
        return FlashStatus(WriteBytesToFlash(bootDevice, img, FPGA_FLASH_ADDRESS, progress));
    });
}

TqStatus tqBootClearCorrections(int device, double& progress) {
    const TqStatus check = CheckBootHandle(device);
    if (check != tqNoError) return check;
    return Guarded([&] { return FlashStatus(ClearFlashArea(bootDevice, CAL_FLASH_ADDRESS, false, progress)); });
}

TqStatus tqBootWriteCorrections(int device, const uint8_t* dataRaw, double& progress) {
    const TqStatus check = CheckBootHandle(device);
    if (check != tqNoError) return check;
    if (dataRaw == nullptr) return tqNullPtrErr;
    return Guarded([&] {
        const std::vector<uint8_t> record(dataRaw, dataRaw + CAL_DATA_BYTES);
        if (WriteBytesToFlash(bootDevice, record, CAL_FLASH_ADDRESS, progress) != tqNoError) return tqInternalFileIOErr;
        // By its date a cached record could win over an older one that has just been written.
        RemoveCorrectionFile(bootDevice->SerialNumber());
        return tqNoError;
    });
}

// --- Pages of the flash ---

TqStatus tqBootWriteFlashPage(int bootHandle, int page, const uint8_t* src) {
    const TqStatus check = CheckBootHandle(bootHandle);
    if (check != tqNoError) return check;
    if (src == nullptr) return tqNullPtrErr;
    return Guarded([&] { return FlashStatus(bootDevice->WriteFlashPage(PageNumber(page), src)); });
}

TqStatus tqBootReadFlashPage(int bootHandle, int page, uint8_t* dst) {
    const TqStatus check = CheckBootHandle(bootHandle);
    if (check != tqNoError) return check;
    if (dst == nullptr) return tqNullPtrErr;
    return Guarded([&] { return FlashStatus(bootDevice->ReadFlashPage(PageNumber(page), dst)); });
}

TqStatus tqBootClearFlashPage(int bootHandle, int page) {
    const TqStatus check = CheckBootHandle(bootHandle);
    if (check != tqNoError) return check;
    return Guarded([&] { return FlashStatus(bootDevice->EraseFlashPage(PageNumber(page))); });
}
