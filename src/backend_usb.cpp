#include "backend_usb.h"

#include "device_interface.h"
#include "tq_assert.h"
#include "tq_lib.h"
#include "vk_critical_section.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <shared_mutex>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

constexpr int USB_INTERFACE = 0;
constexpr int SERIAL_DIGITS = 8;
constexpr int MAX_STRING_BYTES = 255;

// Vendor requests, all with value 0 and index 0.
constexpr uint8_t REQ_RESTART = 0xE0;
constexpr uint8_t REQ_FAN_SET_POINT = 0xC3;  // 2 bytes out: sixteenths of a degree
constexpr uint8_t REQ_BOOT_STATUS = 0xC2;    // 4 bytes in; byte 1 is 1 during start-up
constexpr uint8_t VENDOR_OUT = 0x40;
constexpr uint8_t VENDOR_IN = 0xC0;
constexpr unsigned CONTROL_TIMEOUT_MS = 1000;

constexpr float MAX_FAN_SET_POINT = 60.0f;  // [degrees Celsius]

constexpr uint64_t BOOT_WAIT_MS = 10000;
constexpr int BOOT_POLL_MS = 100;

libusb_device_handle* Native(DeviceHandle handle) { return static_cast<libusb_device_handle*>(handle); }

// All zero if it cannot be read.
libusb_device_descriptor Descriptor(DeviceHandle handle) {
    libusb_device_descriptor descriptor{};
    if (handle == nullptr || libusb_get_device_descriptor(libusb_get_device(Native(handle)), &descriptor) != 0) {
        return {};
    }
    return descriptor;
}

// One string of the device.
struct DeviceString {
    DeviceString(DeviceHandle handle, uint8_t index) {
        if (handle != nullptr) {
            length = libusb_get_string_descriptor_ascii(Native(handle), index, bytes, MAX_STRING_BYTES);
        }
    }
    std::string_view Text() const {
        return length > 0 ? std::string_view(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length))
                          : std::string_view();
    }

    unsigned char bytes[MAX_STRING_BYTES + 1] = {};
    int length = 0;  // below 0: not readable
};

// libusb's default context, and what has to be known to make it anew. Static, and without a destructor: threads may
// still list and close when main has returned.
struct Context {
    // Shared by whoever uses the context without an open handle; taken alone to make it anew.
    std::shared_mutex users;
    CriticalSection lock;
    bool initialized TQ_GUARDED_BY(lock) = false;
    std::atomic<int> openHandles = 0;
    std::atomic<bool> restartSeen = false;  // an instrument was restarted, and this context need not know its return
};
static_assert(std::is_trivially_destructible_v<Context>);
constinit Context context;

// Makes the default context anew, so that it reads the bus afresh, if an instrument may have come back unseen: without
// udev, as in containers, nobody tells libusb. Handles do not outlive their context, so none may be open. False: it is
// as it was. Where the application holds the default context, too, libusb keeps it, and the list with it.
bool RenewContext() {
    const std::unique_lock alone(context.users);
    if (context.openHandles > 0 || !context.restartSeen.exchange(false)) return false;
    const Lock held(context.lock);
    if (context.initialized) libusb_exit(nullptr);
    context.initialized = libusb_init(nullptr) == 0;
    return context.initialized;
}

// Looks for devices, and once more when none was found that may be there. look() is true when it has found something.
template <typename Look>
void LookTwice(Look look) {
    if (!look() && RenewContext()) look();
}

// All devices on the bus.
class DeviceList {
public:
    DeviceList() : use(context.users) {
        if (InitializeLIBUSB()) count = libusb_get_device_list(nullptr, &list);
    }
    ~DeviceList() {
        if (list != nullptr) libusb_free_device_list(list, 1);
    }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;

    std::span<libusb_device*> Devices() const {
        return count > 0 ? std::span(list, static_cast<size_t>(count)) : std::span<libusb_device*>();
    }

private:
    std::shared_lock<std::shared_mutex> use;
    libusb_device** list = nullptr;
    ssize_t count = 0;
};

// Null for a device that does not open: another user's, or gone since. Its DeviceList lives.
OwnedDeviceHandle Open(libusb_device* device) {
    libusb_device_handle* handle = nullptr;
    if (libusb_open(device, &handle) != 0) return nullptr;
    ++context.openHandles;
    return OwnedDeviceHandle(handle);
}

struct OpenDevices {
    CriticalSection lock;
    std::set<int> openDeviceList TQ_GUARDED_BY(lock);
};

// Never destroyed, as the context.
OpenDevices& AllOpenDevices() {
    static OpenDevices& devices = *std::make_unique<OpenDevices>().release();
    return devices;
}

}  // namespace

bool InitializeLIBUSB() {
    const Lock held(context.lock);
    if (!context.initialized) context.initialized = libusb_init(nullptr) == 0;
    return context.initialized;
}

uint16_t GetVID(DeviceHandle handle) { return Descriptor(handle).idVendor; }
uint16_t GetPID(DeviceHandle handle) { return Descriptor(handle).idProduct; }

bool GetSerialNumberOfUSBDevice(DeviceHandle handle, int& serialNumber) {
    const DeviceString serial(handle, Descriptor(handle).iSerialNumber);
    const std::string_view text = serial.Text();
    if (text.size() != SERIAL_DIGITS || text.find_first_not_of("0123456789") != text.npos) return false;
    std::from_chars(text.data(), text.data() + text.size(), serialNumber);
    return true;
}

bool IsValidTarnwellUSBDevice(DeviceHandle handle, const std::vector<int>& pids) {
    if (handle == nullptr || GetVID(handle) != TQ_VENDOR_ID) return false;
    return std::ranges::all_of(pids, [product = GetPID(handle)](int pid) { return pid == product; });
}

bool IsValidTarnwellUSBDevice(DeviceHandle handle, int pid) {
    return IsValidTarnwellUSBDevice(handle, std::vector<int>{pid});
}

bool IsValidFx3Program(DeviceHandle handle, bool& isRunProgram, TqDeviceType& deviceType) {
    const DeviceString product(handle, Descriptor(handle).iProduct);
    const bool isBoot = product.Text() == TQ720_BOOT_STR;
    if (!isBoot && product.Text() != TQ720_RUN_STR) return false;
    isRunProgram = !isBoot;
    deviceType = tqDeviceTypeTQ720;
    return true;
}

bool IsUSBBootDevice(DeviceHandle handle) {
    bool isRunProgram = false;
    TqDeviceType deviceType;
    return IsValidFx3Program(handle, isRunProgram, deviceType) && !isRunProgram;
}

bool IsUSBRunDevice(DeviceHandle handle) {
    bool isRunProgram = false;
    TqDeviceType deviceType;
    return IsValidFx3Program(handle, isRunProgram, deviceType) && isRunProgram;
}

bool ClaimUSBInterface(DeviceHandle handle) {
    return libusb_claim_interface(Native(handle), USB_INTERFACE) != LIBUSB_ERROR_BUSY;
}
void ReleaseUSBInterface(DeviceHandle handle) { libusb_release_interface(Native(handle), USB_INTERFACE); }

void ClearEndpointHalts(DeviceHandle handle) {
    for (const uint8_t endpoint : {BULK_OUT_ENDPOINT, BULK_IN_ENDPOINT}) libusb_clear_halt(Native(handle), endpoint);
}

void CloseUSBDevice(DeviceHandle handle) {
    libusb_close(Native(handle));
    --context.openHandles;
}

std::vector<int> GetAvailableDeviceSerialNumbers(const std::vector<int>& pids) {
    std::vector<int> serials;
    LookTwice([&] {
        const DeviceList list;
        for (libusb_device* device : list.Devices()) {
            const OwnedDeviceHandle handle = Open(device);
            int serial = 0;
            if (IsValidTarnwellUSBDevice(handle.get(), pids) && GetSerialNumberOfUSBDevice(handle.get(), serial) &&
                !ManageDevices::IsOpen(serial)) {
                serials.push_back(serial);
            }
        }
        return !serials.empty();
    });
    return serials;
}

std::vector<TQBootState> GetAllDevices() {
    std::vector<TQBootState> states;
    LookTwice([&] {
        const DeviceList list;
        for (libusb_device* device : list.Devices()) {
            const OwnedDeviceHandle handle = Open(device);
            TQBootState state;
            if (IsValidFx3Program(handle.get(), state.isRunProgram, state.deviceType) &&
                GetSerialNumberOfUSBDevice(handle.get(), state.serialNumber) &&
                !ManageDevices::IsOpen(state.serialNumber)) {
                states.push_back(state);
            }
        }
        return !states.empty();
    });
    return states;
}

DeviceHandle GetUSBDeviceHandleBySerial(int desiredSerial) {
    OwnedDeviceHandle found;
    LookTwice([&] {
        const DeviceList list;
        for (libusb_device* device : list.Devices()) {
            OwnedDeviceHandle handle = Open(device);
            int serial = 0;
            if (handle != nullptr && GetPID(handle.get()) == TQ720_PRODUCT_ID &&
                GetSerialNumberOfUSBDevice(handle.get(), serial) && serial == desiredSerial) {
                found = std::move(handle);
                return true;
            }
        }
        return false;
    });
    return found.release();
}

void ManageDevices::Open(int serialNumber) {
    OpenDevices& devices = AllOpenDevices();
    Lock held(devices.lock);
    devices.openDeviceList.insert(serialNumber);
}

bool ManageDevices::IsOpen(int serialNumber) {
    OpenDevices& devices = AllOpenDevices();
    Lock held(devices.lock);
    return devices.openDeviceList.contains(serialNumber);
}

void ManageDevices::Close(int serialNumber) {
    OpenDevices& devices = AllOpenDevices();
    Lock held(devices.lock);
    devices.openDeviceList.erase(serialNumber);
}

bool PresetUSBDevice(DeviceHandle handle) {
    long none = 0;
    context.restartSeen = true;
    return WriteCtrlEndpoint(handle, REQ_RESTART, nullptr, none);
}

bool SetFanSetPoint(DeviceHandle handle, float setPoint) {
    if (handle == nullptr) return false;
    // The comparison is written so that a NaN, too, becomes 0.
    const double limited = setPoint > 0.0f ? std::min(setPoint, MAX_FAN_SET_POINT) : 0.0;
    const auto value = static_cast<uint16_t>(limited * 16.0);
    uint8_t wire[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
    long length = sizeof wire;
    return WriteCtrlEndpoint(handle, REQ_FAN_SET_POINT, wire, length);
}

bool WriteCtrlEndpoint(DeviceHandle handle, uint8_t reqCode, uint8_t* buf, long& len) {
    libusb_control_transfer(Native(handle), VENDOR_OUT, reqCode, 0, 0, buf, static_cast<uint16_t>(len),
                            CONTROL_TIMEOUT_MS);
    return true;
}

bool ReadCtrlEndpoint(DeviceHandle handle, uint8_t reqCode, uint8_t* buf, long& len) {
    return libusb_control_transfer(Native(handle), VENDOR_IN, reqCode, 0, 0, buf, static_cast<uint16_t>(len),
                                   CONTROL_TIMEOUT_MS) == len;
}

bool WaitForBoot(DeviceHandle handle) {
    const uint64_t start = GetSystemTicks();
    while (GetSystemTicks() - start <= BOOT_WAIT_MS) {
        uint8_t status[4] = {};
        long length = sizeof status;
        const bool ready = ReadCtrlEndpoint(handle, REQ_BOOT_STATUS, status, length) && status[1] != 1;
        SystemSleep(BOOT_POLL_MS);
        if (ready) return true;
    }
    return false;
}

TqStatus ExecuteBootToRunSequence(int serialNumber) {
    OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(serialNumber));
    if (handle == nullptr) return tqDeviceNotFoundErr;

    bool isRunProgram = false;
    TqDeviceType deviceType;
    if (!IsValidFx3Program(handle.get(), isRunProgram, deviceType)) return tqBootErr;
    if (isRunProgram) return tqNoError;

    DeviceInterface device;
    TqStatus status = device.ConnectBoot(handle.get());
    if (status != tqNoError) return status;
    static_cast<void>(handle.release());
    context.restartSeen = true;
    status = device.BootToRun();
    if (status != tqNoError) return status;
    SystemSleep(USB_RESTART_MS);
    device.Disconnect();
    return tqNoError;
}

struct USBBulkTransferData {
    USBBulkTransferData(libusb_device_handle* deviceHandle, uint8_t bulkEndpoint, int bufSize)
        : handle(deviceHandle), buf(static_cast<size_t>(bufSize)), endpoint(bulkEndpoint) {
        xfr = libusb_alloc_transfer(0);
        if (xfr == nullptr) throw std::bad_alloc();
        xfr->type = LIBUSB_TRANSFER_TYPE_BULK;
    }
    ~USBBulkTransferData() { libusb_free_transfer(xfr); }
    USBBulkTransferData(const USBBulkTransferData&) = delete;
    USBBulkTransferData& operator=(const USBBulkTransferData&) = delete;

    // libusb wants the address of a plain int and reads it under its own locks; we touch it only through this. The
    // callback's store may come from any thread that pumps events: seeing 1 is what makes status and length of xfr,
    // and the bytes in buf, ours to read.
    std::atomic_ref<int> Completed() { return std::atomic_ref<int>(completed); }

    libusb_device_handle* handle;
    std::vector<uint8_t> buf;  // never resized: transfers in flight point into it
    libusb_transfer* xfr = nullptr;
    int completed = 0;
    bool inFlight = false;  // libusb holds xfr and buf
    int xferLenRequested = 0;
    int timeoutMs = 0;
    uint8_t endpoint;
};

namespace {

void LIBUSB_CALL BulkTransferCallback(libusb_transfer* transfer) {
    std::atomic_ref<int>(*static_cast<int*>(transfer->user_data)).store(1);
}

timeval ToTimeval(int ms) { return {ms / 1000, ms % 1000 * 1000}; }

}  // namespace

USBBulkTransfer::USBBulkTransfer(int slot, DeviceHandle handle, USBEndpointType endpointType, int bufSize)
    : num(slot),
      p(std::make_unique<USBBulkTransferData>(
          Native(handle), endpointType == USBEndpointTypeData ? BULK_IN_ENDPOINT : BULK_OUT_ENDPOINT, bufSize)) {}

USBBulkTransfer::~USBBulkTransfer() {
    // Memory that libusb may still write to is better lost than reused.
    if (p->inFlight && !TakeBack()) static_cast<void>(p.release());
}

void USBBulkTransfer::BeginDataXfer(int size, int timeoutMs) {
    TQ_ASSERT(size >= 0 && static_cast<size_t>(size) <= p->buf.size());
    begun = true;
    p->timeoutMs = timeoutMs;
    p->xferLenRequested = size;
    if (p->inFlight) {  // lost by an earlier wait: this slot is dead
        submitFailed = true;
        return;
    }
    p->Completed().store(0);
    libusb_fill_bulk_transfer(p->xfr, p->handle, p->endpoint, p->buf.data(), size, BulkTransferCallback, &p->completed,
                              static_cast<unsigned>(timeoutMs));
    p->xfr->actual_length = 0;  // what a refused submit has moved
    submitFailed = libusb_submit_transfer(p->xfr) != 0;
    p->inFlight = !submitFailed;
}

void USBBulkTransfer::BeginDataXfer(const uint8_t* data, int size, int timeoutMs) {
    TQ_ASSERT(size >= 0 && static_cast<size_t>(size) <= p->buf.size());
    if (!p->inFlight) std::memcpy(p->buf.data(), data, static_cast<size_t>(size));
    BeginDataXfer(size, timeoutMs);
}

void USBBulkTransfer::DontBegin(int size) {
    begun = false;
    submitFailed = true;
    p->xferLenRequested = size;
    if (!p->inFlight) p->xfr->actual_length = 0;
}

bool USBBulkTransfer::WaitForXfer() {
    if (submitFailed) {
        submitFailed = false;
        return true;
    }
    timeval wait = ToTimeval(p->timeoutMs);
    while (p->Completed().load() == 0) {
        const int result = libusb_handle_events_timeout_completed(nullptr, &wait, &p->completed);
        // A signal handler of the application ran: nothing is wrong with the transfer.
        if (result == LIBUSB_ERROR_INTERRUPTED) continue;
        if (result != 0) {
            TakeBack();
            return true;
        }
    }
    p->inFlight = false;
    if (p->xfr->status == LIBUSB_TRANSFER_TIMED_OUT) {
        libusb_cancel_transfer(p->xfr);
        libusb_handle_events_timeout_completed(nullptr, &wait, &p->completed);
    }
    return p->xfr->status != LIBUSB_TRANSFER_COMPLETED;
}

int USBBulkTransfer::FinishDataXfer() {
    if (p->inFlight) return 0;
    p->Completed().store(0);
    return p->xfr->actual_length;
}

int USBBulkTransfer::XferLenRequested() const { return p->xferLenRequested; }
uint8_t* USBBulkTransfer::DataPtr() { return p->buf.data(); }

// Gets a transfer in flight out of libusb's hands when nobody will wait for it in the orderly way: the pump has failed,
// or the slot goes away. Bounded, since a pump that is broken for good never runs the callback. False: still in flight.
bool USBBulkTransfer::TakeBack() {
    libusb_cancel_transfer(p->xfr);
    const uint64_t start = GetSystemTicks();
    timeval wait = ToTimeval(DMA_TIMEOUT);
    while (p->Completed().load() == 0 && GetSystemTicks() - start <= DMA_TIMEOUT) {
        if (libusb_handle_events_timeout_completed(nullptr, &wait, &p->completed) != 0) SystemSleep(1);
    }
    p->inFlight = p->Completed().load() == 0;
    return !p->inFlight;
}
