// The virtual USB bus: puts devices (bus_device.h) under the real, unmodified libusb-1.0 of this process, without USB
// in the kernel. Listing, descriptors and uevents come from a umockdev test bed, the device nodes are served in process
// (usbfs.h), and the long sleeps and the home folder of the library under test are in our hand (seams.h). Used by tests
// and benches, and by the preload library behind tq-sim. Any thread may call a Bus; each plugged device has a thread of
// its own, the only one that calls the device.
//
// Form 1, a program of ours. Link tq_sim_bus (bus.cpp, usbfs.cpp, seams.cpp) and
//     -Wl,--no-as-needed -l:libumockdev-preload.so.0 -Wl,--as-needed -rdynamic   before the objects,
//     -lumockdev -lgobject-2.0 -lglib-2.0 -lusb-1.0                              behind them.
// The executable's definitions of open, ioctl, close, usleep and getpwuid then stand in front of libc's; -rdynamic
// shows them to shared libraries. The same line serves plain builds and GCC with -fsanitize=address,undefined or
// =thread, all without an LD_PRELOAD.
//
// Form 2, any program, unmodified:
//     tq-sim [--scene FILE] [--fast] [--serials N,M,...] [--home DIR] -- PROGRAM ARGS
// libtq_sim_preload.so (the same sources, preload.cpp and the instrument) goes in front of umockdev's own preload
// library in LD_PRELOAD. Statically linked programs are out of reach.
#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/bus_device.h"

namespace sim {

class Port;
class TestBed;

// One place on the bus. A device that leaves and comes back gets a new one.
struct UsbAddress {
    int bus = 0;     // 1 to 255
    int number = 0;  // 1 to 127

    auto operator<=>(const UsbAddress&) const = default;
};

// A fault of the bus, not of the device. It strikes once, at the nth matching URB from now.
struct BusFault {
    enum class Action {
        refuse,         // SUBMITURB fails with `error`
        hang,           // never completes; a cancel completes it, `cancelDelay` late. URBs behind it wait.
        shortTransfer,  // only `bytes` bytes come through; of a read the rest is lost
        stall,          // completes with -EPIPE and halts the endpoint
        unplug,         // the device leaves; back after `replugAfter`, or never
    };
    enum class Match { control, bulkOut, bulkIn };

    Action action = Action::hang;
    Match match = Match::bulkIn;
    int nth = 1;
    int error = 0;  // refuse: positive errno, ENOMEM or EIO
    std::size_t bytes = 0;
    std::chrono::milliseconds cancelDelay{0};
    std::optional<std::chrono::milliseconds> replugAfter = std::nullopt;
};

struct PlugOptions {
    int openError = 0;  // positive errno with which every open of the node fails (EACCES: no rights); 0: opens
};

// What the host has done to a device since it was first plugged, and what it holds now.
struct BusUse {
    int opens = 0;
    int claims = 0;
    int bulkOut = 0;        // accepted URBs
    int bulkIn = 0;         // accepted URBs
    int controlWrites = 0;  // requests towards the device, except standard ones
    int openNow = 0;        // descriptors
    int claimedNow = 0;     // interfaces
    int urbsInFlight = 0;   // submitted and not yet reaped
    int urbsInFlightMax = 0;
    std::size_t memory = 0;  // what the kernel charges for the URBs in flight: buffers and records [bytes]
    std::size_t memoryMax = 0;

    bool HoldsNothing() const { return openNow == 0 && claimedNow == 0 && urbsInFlight == 0; }
    bool WasWrittenTo() const { return claims + bulkOut + bulkIn + controlWrites > 0; }
    BusUse& operator+=(const BusUse& other);
};

class Bus {
public:
    // The one bus of this process: libusb's default context learns of arrivals and removals by uevents. The first call
    // makes the test bed; from then on this process sees no other USB device.
    static Bus& Get();

    // Puts a device on the bus, and keeps it until Reset. On return libusb_get_device_list shows it: the uevent stands
    // in the socket that this call of libusb empties before it answers.
    void Plug(std::shared_ptr<BusDevice> device, const PlugOptions& options = {});

    // Takes a device off the bus: pending URBs end with -ESHUTDOWN, handles are dead. It stays the bus's property and
    // can be plugged again. On return libusb_get_device_list no longer shows it.
    void Unplug(const BusDevice& device);
    void Replug(const BusDevice& device);

    // Unplugs and drops all devices, waits for their threads, clears the memory limit and lets uevents flow.
    // Descriptors that are still open stay valid and dead, until they are closed.
    void Reset();

    // Lays a fault in wait. Any number may wait; each counts its own matches.
    void Inject(const BusDevice& device, const BusFault& fault);
    void ClearFaults(const BusDevice& device);

    // Waits until every device that is away to rejoin is back, and libusb lists a device with this serial and, when
    // given, this product string. False when `timeout` ran out.
    bool WaitListed(std::string_view serial, std::string_view product = {},
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // Limit of the memory that URBs in flight may take, for all devices together [bytes]; 0: none (the default).
    // USBFS_MEMORY_LIMIT is what Linux sets.
    static constexpr std::size_t USBFS_MEMORY_LIMIT = 16 << 20;
    void SetMemoryLimit(std::size_t bytes);

    // Off: devices come and go in sysfs and in /dev, and no uevent tells of it, as in a container without udev. A
    // context of libusb that stands keeps its list, and a new one reads sysfs.
    void SetUevents(bool on);

    // One device (all zero when the bus does not have it), and the sum over all devices plugged since the last Reset.
    BusUse Use(const BusDevice& device) const;
    BusUse Use() const;

    // Waits until `until` at most for each device that is away to rejoin for no longer than `slept`.
    void AwaitReturns(std::chrono::steady_clock::time_point until, std::chrono::microseconds slept) const;

    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus();

private:
    Bus();
    std::shared_ptr<Port> PortOf(const BusDevice& device) const;
    std::vector<std::shared_ptr<Port>> Ports() const;

    std::unique_ptr<TestBed> bed;
    mutable std::mutex portsLock;  // guards ports
    std::vector<std::shared_ptr<Port>> ports;
};

}  // namespace sim
