#include "sim/bus.h"

#include <libusb-1.0/libusb.h>
#include <umockdev.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <span>
#include <utility>

#include "sim/seams.h"
#include "sim/usbfs.h"

#if defined(__SANITIZE_THREAD__)
// Libraries below us that ThreadSanitizer cannot follow. libudev redraws the common key of its hash tables without
// a lock, on libusb's thread and on ours; each table works with its own copy, whatever it caught. umockdev hands over
// to its GLib thread by futex. libusb's synchronous requests wait on a plain int that any pumping thread may set. And
// the rings of the real-time mode, which are overwritten in place where the host is outrun, as a sanitized one is.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_suppressions() {
    return "race:libudev.so.1\nrace:libumockdev.so.0\nrace:libglib-2.0.so.0\nrace:^libusb_free_transfer$\nrace:^libusb_"
           "control_transfer$\nrace:EngineRealTime::Store\nrace:RealTimeFFT::Transform\nrace:EngineRealTime::Detect\n"
           "race:PersistenceImage::AddSpectrum\n";
}
#endif

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;

// libusb works off uevents in its own time; between two looks at its list this passes at most.
constexpr std::chrono::milliseconds LISTING_PAUSE{5};

// A sleep of the host waits for devices that should have come back within it, but not for ever.
constexpr std::chrono::seconds RETURN_TIMEOUT{20};

constexpr int BUSES = 255;
constexpr int NUMBERS = 127;  // on each bus

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};

std::string SysfsPath(UsbAddress address) {
    return "/sys/devices/virtual_bus/usb" + std::to_string(address.bus) + "/" + std::to_string(address.bus) + "-" +
           std::to_string(address.number);
}

std::string Hex(std::span<const std::uint8_t> bytes) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0xF];
    }
    return text;
}

// The device in umockdev's own notation.
std::string Record(UsbAddress address, const UsbIdentity& identity) {
    std::array<char, 1024> text{};
    std::snprintf(text.data(), text.size(),
                  "P: %s\n"
                  "N: bus/usb/%03d/%03d\n"
                  "E: SUBSYSTEM=usb\nE: DRIVER=usb\nE: DEVTYPE=usb_device\n"
                  "E: BUSNUM=%03d\nE: DEVNUM=%03d\nE: DEVNAME=/dev/bus/usb/%03d/%03d\n"
                  "A: busnum=%d\\n\nA: devnum=%d\\n\nA: bConfigurationValue=1\\n\nA: speed=5000\\n\n"
                  "A: idVendor=%04x\\n\nA: idProduct=%04x\\n\n"
                  "H: descriptors=",
                  SysfsPath(address).substr(sizeof "/sys" - 1).c_str(), address.bus, address.number, address.bus,
                  address.number, address.bus, address.number, address.bus, address.number, identity.vendorId,
                  identity.productId);
    return text.data() + Hex(RawDescriptors(identity)) + "\n\n";
}

bool IsListed(UsbAddress address) {
    // Given back: a user of the default context who is left holding it would keep others from making it anew.
    if (libusb_init(nullptr) != LIBUSB_SUCCESS) return false;
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &list);
    const bool found = std::any_of(list, list + std::max<ssize_t>(count, 0), [address](libusb_device* device) {
        return libusb_get_bus_number(device) == address.bus && libusb_get_device_address(device) == address.number;
    });
    if (count >= 0) libusb_free_device_list(list, 1);
    libusb_exit(nullptr);
    return found;
}

}  // namespace

// While it lives the test bed sends its uevents to nobody: the sockets of the listeners are out of its sight. Null:
// nothing happens.
class Silence {
public:
    explicit Silence(UMockdevTestbed* bed) {
        if (bed == nullptr) return;
        const std::unique_ptr<char, decltype(&std::free)> root(umockdev_testbed_get_root_dir(bed), &std::free);
        for (const auto& entry : std::filesystem::directory_iterator(root.get())) {
            if (entry.path().filename().string().starts_with("event")) sockets.push_back(entry.path());
        }
        for (const auto& path : sockets) std::filesystem::rename(path, Hidden(path));
    }
    ~Silence() {
        std::error_code gone;  // its listener has left
        for (const auto& path : sockets) std::filesystem::rename(Hidden(path), path, gone);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    static std::filesystem::path Hidden(const std::filesystem::path& path) {
        return path.parent_path() / ("silent-" + path.filename().string());
    }
    std::vector<std::filesystem::path> sockets;
};

// sysfs and udev of the virtual bus.
class TestBed : public PortOwner {
public:
    TestBed() {
        const std::lock_guard held(lock);
        if (bed == nullptr || !umockdev_in_mock_environment()) {
            std::fputs("virtual bus: umockdev's preload library is not loaded\n", stderr);
            std::abort();
        }
    }

    UsbAddress NewAddress() override {
        const std::lock_guard held(lock);
        const UsbAddress address{next / NUMBERS + 1, next % NUMBERS + 1};
        next = (next + 1) % (BUSES * NUMBERS);
        return address;
    }

    void Announce(UsbAddress address, const UsbIdentity& identity) override {
        const std::lock_guard held(lock);
        const Silence silence(uevents ? nullptr : bed.get());
        Add(Record(address, identity));
        // The test bed's own uevent may have gone out before all files stood; libusb ignores a second one.
        umockdev_testbed_uevent(bed.get(), SysfsPath(address).c_str(), "add");
        announced[address] = identity;
        changed.notify_all();
    }

    void Retire(UsbAddress address) override {
        const std::lock_guard held(lock);
        const Silence silence(uevents ? nullptr : bed.get());
        umockdev_testbed_uevent(bed.get(), SysfsPath(address).c_str(), "remove");
        umockdev_testbed_remove_device(bed.get(), SysfsPath(address).c_str());
        announced.erase(address);
        changed.notify_all();
    }

    std::optional<UsbAddress> Find(std::string_view serial, std::string_view product) const {
        const std::lock_guard held(lock);
        for (const auto& [address, identity] : announced) {
            if (identity.serial == serial && (product.empty() || identity.product == product)) return address;
        }
        return std::nullopt;
    }

    void AwaitChange(Clock::time_point until) {
        const std::lock_guard held(lock);
        changed.wait_until(lock, until);
    }

    void SetUevents(bool on) {
        const std::lock_guard held(lock);
        uevents = on;
    }

    // Removes the files. The process is about to exit.
    void Clear() {
        const std::lock_guard held(lock);
        bed.reset();
    }

private:
    void Add(const std::string& record) {
        GError* error = nullptr;
        if (umockdev_testbed_add_from_string(bed.get(), record.c_str(), &error)) return;
        std::fprintf(stderr, "virtual bus: %s\n", error->message);
        std::abort();
    }

    mutable std::mutex lock;  // guards all below
    std::condition_variable_any changed;
    std::unique_ptr<UMockdevTestbed, Unref> bed{umockdev_testbed_new()};
    std::map<UsbAddress, UsbIdentity> announced;
    bool uevents = true;
    int next = 0;
};

BusUse& BusUse::operator+=(const BusUse& other) {
    opens += other.opens;
    claims += other.claims;
    bulkOut += other.bulkOut;
    bulkIn += other.bulkIn;
    controlWrites += other.controlWrites;
    openNow += other.openNow;
    claimedNow += other.claimedNow;
    urbsInFlight += other.urbsInFlight;
    urbsInFlightMax += other.urbsInFlightMax;
    memory += other.memory;
    memoryMax += other.memoryMax;
    return *this;
}

Bus& Bus::Get() {
    // Never destroyed, because threads of libusb and of the program may outlive main; what it holds is given back.
    static Bus& bus = *std::unique_ptr<Bus>(new Bus).release();
    return bus;
}

Bus::Bus() : bed(std::make_unique<TestBed>()) {
    ServeNodes();
    SetAfterSleep([](std::chrono::microseconds asked) { Get().AwaitReturns(Clock::now() + RETURN_TIMEOUT, asked); });
    std::atexit([] {
        SetAfterSleep(nullptr);
        Get().Reset();
        Get().bed->Clear();
    });
}

Bus::~Bus() = default;

void Bus::Plug(std::shared_ptr<BusDevice> device, const PlugOptions& options) {
    const auto port = std::make_shared<Port>(std::move(device), *bed, options);
    {
        const std::lock_guard held(portsLock);
        ports.push_back(port);
    }
    port->Plug();
}

void Bus::Unplug(const BusDevice& device) {
    if (const auto port = PortOf(device)) port->Unplug();
}

void Bus::Replug(const BusDevice& device) {
    if (const auto port = PortOf(device)) port->Plug();
}

void Bus::Reset() {
    std::vector<std::shared_ptr<Port>> dropped;
    {
        const std::lock_guard held(portsLock);
        dropped.swap(ports);
    }
    for (const auto& port : dropped) port->Shutdown();
    SetMemoryLimit(0);
    SetUevents(true);
}

void Bus::Inject(const BusDevice& device, const BusFault& fault) {
    if (const auto port = PortOf(device)) port->Inject(fault);
}

void Bus::ClearFaults(const BusDevice& device) {
    if (const auto port = PortOf(device)) port->ClearFaults();
}

bool Bus::WaitListed(std::string_view serial, std::string_view product, std::chrono::milliseconds timeout) {
    const Clock::time_point until = Clock::now() + timeout;
    AwaitReturns(until, std::chrono::microseconds::max());
    while (true) {
        const std::optional<UsbAddress> address = bed->Find(serial, product);
        if (address && IsListed(*address)) return true;
        if (Clock::now() >= until) return false;
        bed->AwaitChange(std::min(until, Clock::now() + LISTING_PAUSE));
    }
}

void Bus::SetUevents(bool on) { bed->SetUevents(on); }

void Bus::SetMemoryLimit(std::size_t bytes) { SetUsbfsMemoryLimit(bytes); }

BusUse Bus::Use(const BusDevice& device) const {
    const auto port = PortOf(device);
    return port ? port->Use() : BusUse{};
}

BusUse Bus::Use() const {
    BusUse sum;
    for (const auto& port : Ports()) sum += port->Use();
    return sum;
}

std::shared_ptr<Port> Bus::PortOf(const BusDevice& device) const {
    for (const auto& port : Ports()) {
        if (port->Device() == &device) return port;
    }
    return nullptr;
}

std::vector<std::shared_ptr<Port>> Bus::Ports() const {
    const std::lock_guard held(portsLock);
    return ports;
}

void Bus::AwaitReturns(Clock::time_point until, std::chrono::microseconds slept) const {
    for (const auto& port : Ports()) port->AwaitReturn(until, slept);
}

}  // namespace sim
