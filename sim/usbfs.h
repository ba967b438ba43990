// The device nodes /dev/bus/usb/BBB/DDD, served inside the process. usbfs.cpp defines open, open64, __open_2,
// __open64_2, ioctl and close in front of libc's: calls on these nodes end here, all others go through. A Port is the
// socket into which one device is plugged: it queues the URBs of all descriptors and has the one thread that calls the
// device. Used by Bus; libusb's threads enter through ioctl.
//
// libusb polls the descriptor for POLLOUT, "something to reap", and POLLERR, "the device has gone". The write end of a
// pipe of one page has this contract: full, drained, reader closed.
#pragma once

#include <linux/usbdevice_fs.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

#include "sim/bus.h"
#include "sim/bus_device.h"

namespace sim {

// Shows devices to sysfs and udev. Called by the threads of all ports.
class PortOwner {
public:
    virtual ~PortOwner() = default;
    virtual UsbAddress NewAddress() = 0;
    virtual void Announce(UsbAddress address, const UsbIdentity& identity) = 0;
    virtual void Retire(UsbAddress address) = 0;
};

// The raw descriptors of a device, as sysfs shows them: device, configuration, interface 0, bulk OUT 0x01, bulk IN
// 0x81.
std::vector<std::uint8_t> RawDescriptors(const UsbIdentity& identity);

// Memory that the URBs in flight may take, in this process [bytes]; 0: no limit.
void SetUsbfsMemoryLimit(std::size_t bytes);

// Called at each request of these kinds, of reaps at those that find something, on the caller's thread and under the
// port's lock. The request fails with the positive errno that comes back, and changes nothing; 0: it goes on. Null, the
// default: none is asked.
enum class NodeRequest { claim, submit, control, reap };
void SetRequestHook(int (*hook)(NodeRequest request));

// From now on all of /dev/bus/usb is ours: a node without a device does not exist, real ones are out of sight.
void ServeNodes();

class Port : public std::enable_shared_from_this<Port> {
public:
    using Clock = std::chrono::steady_clock;

    Port(std::shared_ptr<BusDevice> device, PortOwner& owner, const PlugOptions& options);
    // Shutdown has been called.
    ~Port() = default;
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    const BusDevice* Device() const { return device.get(); }

    // Each blocks until it is so. Shutdown unplugs and ends the thread; nothing can be plugged afterwards.
    void Plug();
    void Unplug();
    void Shutdown();

    // Blocks while the device is away to rejoin for no longer than `slept`, until `until` at most.
    void AwaitReturn(Clock::time_point until, std::chrono::microseconds slept);

    void Inject(const BusFault& fault);
    void ClearFaults();
    BusUse Use() const;

    // A descriptor on this port's node, or a negative errno.
    int Open();

    // An open descriptor. Owned by the table of descriptors; `port` keeps the port alive behind a leaked one.
    struct Descriptor;
    int Ioctl(Descriptor& descriptor, unsigned long request, void* argument);
    void Close(Descriptor& descriptor);

private:
    struct Urb {
        usbdevfs_urb* user = nullptr;  // the host's record: its buffer is ours until it is reaped
        Descriptor* descriptor = nullptr;
        std::size_t charge = 0;  // [bytes] against the memory limit
        bool hangs = false;
        bool stalls = false;
        bool discarded = false;
        std::optional<std::size_t> shortTo;  // [bytes]
        std::chrono::milliseconds cancelDelay{0};
        Clock::time_point completeAt{};  // in `late`
    };
    // URBs of one endpoint, served in order.
    struct Pipe {
        std::list<Urb> queue;
        bool halted = false;
        bool waits = false;                        // the device had nothing for the head
        std::optional<Clock::time_point> retryAt;  // when to ask again, besides after each request or command
    };
    enum : std::size_t { CONTROL, BULK_OUT, BULK_IN, PIPES };  // in the order of service

    void Serve();
    Pipe* NextReady(Clock::time_point now, std::optional<Clock::time_point>& wakeAt);
    void ServeHead(Pipe& pipe);
    void CompleteLate(Clock::time_point now, std::optional<Clock::time_point>& wakeAt);
    void Join();
    void Leave();
    int RunControl(std::span<std::uint8_t> buffer) const;
    int AnswerStandard(const ControlSetup& setup, std::span<std::uint8_t> data) const;
    void AskToLeave(std::optional<std::chrono::milliseconds> comeBackAfter);

    int Submit(Descriptor& descriptor, usbdevfs_urb* user);
    int ApplyFaults(BusFault::Match match, Urb& urb);
    int Discard(const Descriptor& descriptor, const void* user);
    int Reap(Descriptor& descriptor, void* argument, bool wait);
    int Claim(Descriptor& descriptor, const void* argument);
    int Release(Descriptor& descriptor, const void* argument);
    int ClearHalt(const void* argument);
    void Complete(std::list<Urb>& from, std::list<Urb>::iterator urb, int status);
    void Forget(std::list<Urb>& urbs, const Descriptor& descriptor);

    const std::shared_ptr<BusDevice> device;
    PortOwner& owner;
    const PlugOptions options;
    UsbIdentity identity;  // the port's thread only

    // Guards everything below it. The private members but Serve, RunControl and AnswerStandard are called with it held.
    mutable std::mutex lock;
    std::condition_variable_any work;     // to the port's thread: something was submitted or asked for
    std::condition_variable_any changed;  // from the port's thread: a URB ended, the device came or went
    std::array<Pipe, PIPES> pipes;
    std::list<Urb> late;                   // discarded, their completion held back
    const Urb* active = nullptr;           // its buffer is in use outside the lock
    std::vector<Descriptor*> descriptors;  // those of the present address
    Descriptor* claimant = nullptr;        // of interface 0
    std::vector<BusFault> faults;
    BusUse use;
    std::optional<UsbAddress> address;  // while on the bus
    bool announced = false;             // and visible to udev
    bool leaving = false;
    bool stopping = false;
    std::optional<std::chrono::milliseconds> away;  // from the wish to rejoin until back
    std::optional<Clock::time_point> joinAt;
    std::thread thread;
};

}  // namespace sim
