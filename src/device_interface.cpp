#include "device_interface.h"

#include "tq_assert.h"
#include "tq_lib.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr int FLASH_WRITE_MS = 16;
constexpr int FLASH_READ_MS = 100;
constexpr int FLASH_ERASE_MS = 2000;

constexpr int ALIGN_TIMEOUT_MS = 100;
constexpr int ALIGN_ATTEMPTS = 16;
constexpr int UNIT_PACKETS = 4;  // fetches of one packet that complete a read
// What a process that died in the middle of a capture can have left behind is some 64 MiB: 32 blocks of one fetch of
// 255 packets. 512 MiB, two seconds at full rate, is far beyond that; an instrument that dribbles has 5 s.
constexpr int MAX_DRAIN_READS = 512 * 1024 * 1024 / XFER_UNIT_BYTES;
constexpr uint64_t MAX_DRAIN_MS = 5000;

constexpr uint8_t ERASED = 0xFF;

// A buffer of bytes as the record that it holds. Its memory comes from operator new, aligned for any type; only the
// fields that it has bytes for may be read.
const TQ720CalData* AsCalData(const std::vector<uint8_t>& bytes) {
    return std::launder(reinterpret_cast<const TQ720CalData*>(bytes.data()));
}

// Empties the data endpoint until this many reads in a row have timed out. Whatever ends a read here is no lost link,
// not even for the next read. False: it does not fall silent.
bool Drain(DeviceInterface& device, int silences) {
    const uint64_t start = GetSystemTicks();
    int silent = 0;
    for (int reads = 0; silent < silences; ++reads) {
        if (reads == MAX_DRAIN_READS || GetSystemTicks() - start >= MAX_DRAIN_MS) return false;
        silent = device.FullDataXfer(0, XFER_UNIT_BYTES, ALIGN_TIMEOUT_MS).timeout ? silent + 1 : 0;
        device.ClearTransferStatus();
    }
    return true;
}

}  // namespace

DeviceInterface::DeviceInterface() : calMem(CAL_DATA_BYTES, ERASED) {}

DeviceInterface::~DeviceInterface() { Disconnect(); }

bool DeviceInterface::AllocateResources(DeviceHandle handle) {
    if (deviceConnected || handle == nullptr || usbHandle != nullptr) return false;
    if (!Claim(handle)) return false;

    // Whatever can throw comes first, so that a failure leaves nothing to undo.
    SlotArray newCmdXfers;
    SlotArray newDataXfers;
    for (int i = 0; i < USB_XFER_SLOTS; ++i) {
        const auto slot = static_cast<size_t>(i);
        newCmdXfers[slot] = std::make_unique<USBBulkTransfer>(i, handle, USBEndpointTypeCommand, USB_CMD_SIZE_BYTES);
        newDataXfers[slot] =
            std::make_unique<USBBulkTransfer>(i, handle, USBEndpointTypeData, USBBulkTransfer::MAX_XFER_SIZE);
    }
    int serial = -1;
    GetSerialNumberOfUSBDevice(handle, serial);
    ManageDevices::Open(serial);

    usbHandle = handle;
    serialNumber = serial;
    cmdXfers = std::move(newCmdXfers);
    dataXfers = std::move(newDataXfers);
    ClearEndpointHalts(handle);
    return true;
}

bool DeviceInterface::Claim(DeviceHandle handle) {
    ownedElsewhere = !ClaimUSBInterface(handle);
    return !ownedElsewhere;
}

TqStatus DeviceInterface::Connect(int targetSerial) {
    try {
        return ConnectAttached(targetSerial);
    } catch (const std::bad_alloc&) {
        Disconnect();
        return tqAllocationErr;
    }
}

// Connect, but for running out of memory.
TqStatus DeviceInterface::ConnectAttached(int targetSerial) {
    OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(targetSerial));
    if (handle == nullptr) return tqDeviceNotFoundErr;

    bool loaded = false;
    if (IsUSBRunDevice(handle.get())) {
        loaded = GetCachedCalibration(targetSerial);
        if (loaded) {
            ValidateCalibration();
        } else {
            // Only the boot program reads the flash. Its owner elsewhere must not lose the instrument.
            if (!Claim(handle.get())) return tqDeviceNotFoundErr;
            PresetUSBDevice(handle.get());
            SystemSleep(USB_RESTART_MS);
            handle.reset();
            handle.reset(GetUSBDeviceHandleBySerial(targetSerial));
        }
    }
    if (IsUSBBootDevice(handle.get())) {
        if (!WaitForBoot(handle.get())) return tqBootErr;
        if (!AllocateResources(handle.get())) return tqDeviceNotFoundErr;
        static_cast<void>(handle.release());
        loaded = LoadCalibration();
        Disconnect();
        if (!loaded) return tqConnectionLostErr;

        const TqStatus status = ExecuteBootToRunSequence(targetSerial);
        if (status != tqNoError) return status;
        handle.reset(GetUSBDeviceHandleBySerial(targetSerial));
        if (handle == nullptr || !WaitForBoot(handle.get())) return tqBootErr;
    }
    // A string that could not be read may have hidden a program above: never on without a record.
    if (!loaded || !IsUSBRunDevice(handle.get())) return tqBootErr;

    if (!AllocateResources(handle.get())) return tqDeviceNotFoundErr;
    static_cast<void>(handle.release());
    deviceConnected = true;
    int fetches = Align();
    // More than a unit takes: answers came late, and those to the last fetches come as late, if not later.
    if (fetches > UNIT_PACKETS) fetches = Drain(*this, fetches) ? Align() : 0;
    if (fetches > 0) return tqNoError;
    PresetDevice();
    Disconnect();
    return tqConnectionLostErr;
}

TqStatus DeviceInterface::ConnectBoot(DeviceHandle handle) {
    try {
        if (!AllocateResources(handle)) return tqDeviceNotFoundErr;
    } catch (const std::bad_alloc&) {
        return tqAllocationErr;
    }
    deviceConnected = true;
    WaitForBoot(usbHandle);  // an instrument that does not come up shows in its first transfer
    return tqNoError;
}

void DeviceInterface::Disconnect() {
    if (usbHandle == nullptr) return;
    cmdXfers = {};
    dataXfers = {};
    ManageDevices::Close(serialNumber);
    ReleaseUSBInterface(usbHandle);
    CloseUSBDevice(usbHandle);
    usbHandle = nullptr;
    serialNumber = -1;
    deviceConnected = false;
}

bool DeviceInterface::PresetDevice() {
    if (usbHandle == nullptr || !deviceConnected) return false;
    PresetUSBDevice(usbHandle);
    SystemSleep(USB_RESTART_MS);
    return true;
}

bool DeviceInterface::AlignXfers() { return Align() > 0; }

// AlignXfers. The number of fetches that it took; 0: it failed.
int DeviceInterface::Align() {
    TqCommand fetchOne;
    fetchOne.StartNewCommand();
    fetchOne.AddFetchAux(1);

    ClearTransferStatus();  // over a lost link nothing would begin
    if (!Drain(*this, 1)) return 0;

    // The instrument hands over whole units of four packets, so only a packet that completes a unit ends a read.
    for (int attempt = 1; attempt <= ALIGN_ATTEMPTS; ++attempt) {
        if (!SendCommands(fetchOne)) return 0;
        const DMAXferStatus read = FullDataXfer(0, XFER_UNIT_BYTES, ALIGN_TIMEOUT_MS);
        ClearTransferStatus();
        if (!read.timeout) return attempt < ALIGN_ATTEMPTS ? attempt : 0;
    }
    return 0;
}

const TQ720CalData* DeviceInterface::CalData() const { return AsCalData(calMem); }

bool DeviceInterface::GetCachedCalibration(int serial) {
    return CorrectionFileExists(serial) && GetCorrectionsFromFile(serial, calMem.data());
}

void DeviceInterface::ValidateCalibration() {
    if (!tqCalIsRecordValid(*CalData())) checkSumInvalid = true;
}

// Fills calMem, under the boot program, with the newer of the records in flash and in the cache file, and brings the
// file up to date. False: the flash cannot be read.
bool DeviceInterface::LoadCalibration() {
    const bool cached = GetCachedCalibration(serialNumber);
    std::vector<uint8_t> head(FLASH_READ_BYTES);  // holds the dates of the record
    if (ReadFlashPage(CAL_FLASH_PAGE, head.data()) != tqNoError) return false;
    if (!rvCalDoesCorrectionsExist(AsCalData(head))) return true;

    const bool readRecord =
        !cached || tqCalGetCorrectionCalDate(CalData()) < tqCalGetCorrectionCalDate(AsCalData(head));
    if (readRecord) {
        for (int offset = 0; offset < CAL_DATA_BYTES; offset += FLASH_READ_BYTES) {
            const auto page = static_cast<uint16_t>(CAL_FLASH_PAGE + offset / FLASH_PAGE_BYTES);
            if (ReadFlashPage(page, calMem.data() + offset) != tqNoError) return false;
        }
    }
    ValidateCalibration();
    if (readRecord) SaveCorrectionFile(serialNumber, calMem.data());
    return true;
}

TqStatus DeviceInterface::BootToRun() {
    TqCommand command;
    command.StartNewCommand();
    command.AddBootToRun();
    SendCommands(command);
    return tqNoError;
}

TqStatus DeviceInterface::WriteFlashPage(uint16_t page, const uint8_t* mem) {
    TqCommand command;
    command.StartNewCommand();
    command.AddWriteFlashPage(page, mem);
    SendCommands(command);
    SystemSleep(FLASH_WRITE_MS);
    return transferStatus;
}

TqStatus DeviceInterface::ReadFlashPage(uint16_t page, uint8_t* mem) {
    TqCommand command;
    command.StartNewCommand();
    command.AddReadFlashPage(page);
    if (SendCommands(command)) {
        SystemSleep(FLASH_READ_MS);
        const DMAXferStatus read = FullDataXfer(0, FLASH_READ_BYTES, USBBulkTransfer::DMA_TIMEOUT);
        if (read.Success()) std::memcpy(mem, read.p, FLASH_READ_BYTES);
    }
    return transferStatus;
}

TqStatus DeviceInterface::EraseFlashPage(uint16_t page) {
    TqCommand command;
    command.StartNewCommand();
    command.AddEraseFlashPage(page);
    if (SendCommands(command)) SystemSleep(FLASH_ERASE_MS);
    return transferStatus;
}

TqStatus DeviceInterface::SetFanSetPoint(float setPoint) {
    ::SetFanSetPoint(usbHandle, setPoint);
    return transferStatus;
}

bool DeviceInterface::MayBegin() const { return transferStatus == tqNoError || (lastWords && !unheard); }

void DeviceInterface::BeginCommandXfer(int slot, const uint8_t* data) {
    USBBulkTransfer& xfer = Slot(cmdXfers, slot);
    if (MayBegin()) {
        xfer.BeginDataXfer(data, USB_CMD_SIZE_BYTES, USBBulkTransfer::DMA_TIMEOUT);
    } else {
        xfer.DontBegin(USB_CMD_SIZE_BYTES);
    }
}

DMAXferStatus DeviceInterface::FinishCommandXfer(int slot) {
    const DMAXferStatus status = FinishXfer(Slot(cmdXfers, slot));
    if (status.begun && status.Failed() && lastWords) unheard = true;
    return status;
}

void DeviceInterface::BeginDataXfer(int slot, int len, int timeoutMS) {
    USBBulkTransfer& xfer = Slot(dataXfers, slot);
    if (MayBegin()) {
        xfer.BeginDataXfer(len, timeoutMS);
    } else {
        xfer.DontBegin(len);
    }
}

DMAXferStatus DeviceInterface::FinishDataXfer(int slot) {
    USBBulkTransfer& xfer = Slot(dataXfers, slot);
    DMAXferStatus status = FinishXfer(xfer);
    status.p = xfer.DataPtr();
    return status;
}

DMAXferStatus DeviceInterface::FullCommandXfer(int slot, const uint8_t* data) {
    BeginCommandXfer(slot, data);
    return FinishCommandXfer(slot);
}

DMAXferStatus DeviceInterface::FullDataXfer(int slot, int len, int timeoutMs) {
    BeginDataXfer(slot, len, timeoutMs);
    return FinishDataXfer(slot);
}

bool DeviceInterface::SendCommands(TqCommand& cmdList) {
    for (int i = 0; i < cmdList.GetCommandCount(); ++i) {
        FullCommandXfer(USB_CMD_SLOT, cmdList.GetCommand(i));
        if (transferStatus < 0) return false;
    }
    return true;
}

USBBulkTransfer& DeviceInterface::Slot(SlotArray& slots, int slot) {
    TQ_ASSERT(slot >= 0 && slot < USB_XFER_SLOTS);
    USBBulkTransfer* xfer = slots[static_cast<size_t>(slot)].get();
    TQ_ASSERT(xfer != nullptr);
    return *xfer;
}

DMAXferStatus DeviceInterface::FinishXfer(USBBulkTransfer& xfer) {
    DMAXferStatus status;
    status.timeout = xfer.WaitForXfer();
    status.xferLenRequested = xfer.XferLenRequested();
    status.xferLen = xfer.FinishDataXfer();
    status.begun = xfer.Begun();
    if (status.Failed()) transferStatus = tqConnectionLostErr;
    return status;
}
