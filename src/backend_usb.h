// The USB backend, the one unit that calls libusb: it finds instruments, reads what they say of themselves, does the
// vendor control requests and gives DeviceInterface its transfer slots. Any thread may list, open and close; a slot
// belongs to one thread at a time, but many threads can wait in different slots at once. There is no event thread:
// whoever waits for a transfer pumps the events of all. Nothing here throws but std::bad_alloc, and nothing prints.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tq_api.h"

// A libusb_device_handle, untyped so that libusb stays inside this unit. Null: no device.
using DeviceHandle = void*;

// Identity of the instrument, the same under its boot program and its run program.
inline constexpr uint16_t TQ_VENDOR_ID = 0x5C3E;
inline constexpr int TQ720_PRODUCT_ID = 0x0037;

// Product strings, which tell the two programs apart.
inline constexpr char TQ720_RUN_STR[] = "TQ720";
inline constexpr char TQ720_BOOT_STR[] = "TQ720 Boot";

inline constexpr uint8_t BULK_OUT_ENDPOINT = 0x01;  // commands
inline constexpr uint8_t BULK_IN_ENDPOINT = 0x81;   // data

inline constexpr int USB_XFER_SLOTS = 32;        // command slots, and as many data slots, of a device
inline constexpr int USB_CMD_SLOT = 0;           // the command slot of blocking sends
inline constexpr int USB_CMD_SIZE_BYTES = 2048;  // a command block, and a command slot's buffer

// How long an instrument takes to leave the bus and come back under its other program.
inline constexpr int USB_RESTART_MS = 3000;

// Serial number placeholder in an FX3 firmware image.
inline constexpr int CypressBootloaderSerial = 11111111;

enum CypressBootStatus {
    CypressBootSuccess = 0,
    CypressBootNoDeviceFound = 1,
    CypressBootDownloadFailed = 2,
};

enum TqDeviceType { tqDeviceTypeTQ720 = 0 };

enum USBEndpointType {
    USBEndpointTypeCommand = 0,
    USBEndpointTypeData = 1,
};

// One attached instrument.
struct TQBootState {
    int serialNumber = -1;
    bool isRunProgram = false;
    TqDeviceType deviceType = tqDeviceTypeTQ720;
};

// What a finished transfer reports.
struct DMAXferStatus {
    bool timeout = false;      // failed, for whatever reason
    int xferLenRequested = 0;  // [bytes]
    int xferLen = 0;           // [bytes] moved
    uint8_t* p = nullptr;      // the slot's buffer; null for a command
    bool begun = true;         // false: the link was lost before, and nothing went over it

    bool Failed() const { return timeout || xferLen != xferLenRequested; }
    bool Success() const { return !Failed(); }
};

// Brings up libusb's default context at the first call that succeeds. False: libusb is not usable now; the next call
// tries again. Any thread.
bool InitializeLIBUSB();

// From the device descriptor; 0 for a null handle.
uint16_t GetVID(DeviceHandle handle);
uint16_t GetPID(DeviceHandle handle);

// False for a null handle and unless the serial string is exactly 8 decimal digits; serialNumber is then untouched.
bool GetSerialNumberOfUSBDevice(DeviceHandle handle, int& serialNumber);

// True for a device with the instrument's vendor id whose product id equals every entry of pids (any, if empty).
bool IsValidTarnwellUSBDevice(DeviceHandle handle, const std::vector<int>& pids);
bool IsValidTarnwellUSBDevice(DeviceHandle handle, int pid);

// Which program the device runs, by its product string. False, and the arguments untouched, for a device that runs
// neither or does not answer.
bool IsValidFx3Program(DeviceHandle handle, bool& isRunProgram, TqDeviceType& deviceType);
bool IsUSBBootDevice(DeviceHandle handle);
bool IsUSBRunDevice(DeviceHandle handle);

// Interface 0. False: another handle has it, of whatever program. Any other failure of the claim shows in the first
// transfer.
bool ClaimUSBInterface(DeviceHandle handle);
void ReleaseUSBInterface(DeviceHandle handle);
// Lets both bulk endpoints go on behind a stall: an endpoint stays halted, whoever closes and opens the device.
void ClearEndpointHalts(DeviceHandle handle);
void CloseUSBDevice(DeviceHandle handle);

struct USBDeviceCloser {
    void operator()(DeviceHandle handle) const { CloseUSBDevice(handle); }
};
// Closes the handle unless it is released to somebody who keeps it.
using OwnedDeviceHandle = std::unique_ptr<void, USBDeviceCloser>;

// Serial numbers, in libusb's order, of the attached instruments with these product ids that this process has not open.
// Opens every USB device on the machine for a moment; claims none and writes to none. Empty if libusb fails. When this
// or one of the next two finds nothing behind a restart of an instrument, and no handle is open, libusb's context is
// made anew for a second look: without udev nobody tells it who has come back.
std::vector<int> GetAvailableDeviceSerialNumbers(const std::vector<int>& pids);

// All attached devices that carry the product string of either program and that this process has not open.
std::vector<TQBootState> GetAllDevices();

// Opens the first device with the instrument's product id and this serial number, also one that this process has open
// already. Null: there is none. The caller owns the handle.
DeviceHandle GetUSBDeviceHandleBySerial(int desiredSerial);

// The serial numbers that this process has open; listings leave these out. Any thread.
namespace ManageDevices {
void Open(int serialNumber);
bool IsOpen(int serialNumber);
void Close(int serialNumber);
}  // namespace ManageDevices

// Restarts the instrument, which then leaves the bus and comes back in its boot program within USB_RESTART_MS: all
// handles to it are dead. True always.
bool PresetUSBDevice(DeviceHandle handle);

// Temperature at which the fan starts, [degrees Celsius], limited to 0..60 and sent in sixteenths. False: null handle.
bool SetFanSetPoint(DeviceHandle handle, float setPoint);

// Vendor requests to and from the device, 1000 ms at most. The low 16 bits of len are the length in bytes, and buf
// holds as many. Write: true always. Read: whether len bytes came.
bool WriteCtrlEndpoint(DeviceHandle handle, uint8_t reqCode, uint8_t* buf, long& len);
bool ReadCtrlEndpoint(DeviceHandle handle, uint8_t reqCode, uint8_t* buf, long& len);

// Waits until the instrument has started up: 100 ms if it has already, false after a little over 10 s. A status read
// that fails counts as not yet ready, since an instrument that has just joined the bus need not answer at once.
bool WaitForBoot(DeviceHandle handle);

// Takes an instrument from its boot program to its run program. Blocks for the 3 s that it stays away; handles to it
// are dead afterwards. tqDeviceNotFoundErr: not attached. tqBootErr: runs neither program. tqNoError otherwise, also
// for one that was in its run program already.
TqStatus ExecuteBootToRunSequence(int serialNumber);

// The download of firmware into a controller that holds none is not supported on Linux: no such device is found.
inline DeviceHandle FindInitBootDevice(const char*) { return nullptr; }
inline bool LoadBootloaderProgram(const char*) { return true; }
inline void ResetFirstRunDevice() {}
inline void ResetAllRunProgramDevices() {}
// Linux needs no abort: a transfer ends by itself or by its time-out.
inline void AbortEndPoints(DeviceHandle) {}

struct USBBulkTransferData;

// A transfer slot: one asynchronous bulk transfer and its buffer. Used strictly in the order BeginDataXfer,
// WaitForXfer, FinishDataXfer, by one thread at a time. Allocates at construction only.
class USBBulkTransfer {
public:
    static constexpr int MAX_XFER_SIZE = 1048576;  // a data slot's buffer, the largest read, [bytes]
    static constexpr int DMA_TIMEOUT = 2000;       // the usual time-out of a transfer, [ms]

    //   num      the slot's index
    //   bufSize  [bytes], the longest transfer
    USBBulkTransfer(int num, DeviceHandle handle, USBEndpointType endpointType, int bufSize);
    ~USBBulkTransfer();
    USBBulkTransfer(const USBBulkTransfer&) = delete;
    USBBulkTransfer& operator=(const USBBulkTransfer&) = delete;

    // Starts a transfer of `size` bytes, from `data` if given. A refusal shows in WaitForXfer. Does not block.
    void BeginDataXfer(int size, int timeoutMs);
    void BeginDataXfer(const uint8_t* data, int size, int timeoutMs);

    // Takes the place of BeginDataXfer over a lost link: a transfer that fails at once, without having gone out.
    void DontBegin(int size);

    // Blocks until the transfer has ended, by its time-out at the latest, and pumps events meanwhile. True: it failed.
    // A short transfer does not count as failed here.
    bool WaitForXfer();

    // Ends the use of the slot. The number of bytes moved.
    int FinishDataXfer();

    int XferLenRequested() const;
    bool Begun() const { return begun; }
    uint8_t* DataPtr();

    int num;
    bool submitFailed = false;  // the transfer of the last Begin never started

private:
    bool TakeBack();

    bool begun = true;  // false: DontBegin was the last call
    std::unique_ptr<USBBulkTransferData> p;
};
