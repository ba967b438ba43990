// The fortified headers would redirect the very functions that this file defines.
#undef _FORTIFY_SOURCE

#include "sim/usbfs.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>

#include "sim/seams.h"

namespace sim {

struct Port::Descriptor {
    const std::shared_ptr<Port> port;
    const int fd;  // write end of the pipe, the host's

    // Guarded by the port's lock.
    int reader;  // -1 when the device has gone
    bool gone = false;
    std::list<Urb> done;
};

namespace {

// Bulk endpoints [bEndpointAddress]; endpoint numbers without the direction bit go to BulkOut and BulkIn as they are.
constexpr std::uint8_t ENDPOINT_OUT = 0x01;
constexpr std::uint8_t ENDPOINT_IN = 0x81;

constexpr std::size_t SETUP_BYTES = 8;

constexpr std::uint8_t MANUFACTURER_INDEX = 1;
constexpr std::uint8_t PRODUCT_INDEX = 2;
constexpr std::uint8_t SERIAL_INDEX = 3;
constexpr std::size_t STRING_CHARACTERS_MAX = 126;  // two bytes each behind a head of two, in a length of one byte

// What Linux charges for a URB besides its buffer (devio.c, proc_do_submiturb): its two records, about this long on
// x86-64, and one scatter entry for each 16 KiB when the buffer takes more than one.
constexpr std::size_t URB_RECORD_BYTES = 384;
constexpr std::size_t SCATTER_CHUNK_BYTES = 16384;
constexpr std::size_t SCATTER_ENTRY_BYTES = 32;

constexpr int PIPE_BYTES = 4096;  // one page: one byte fills it
constexpr int FD_MAX = 1 << 16;

constexpr char NODE_FOLDER[] = "/dev/bus/usb/";

// libc's own functions, or whatever else stands between them and us.
template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

using OpenFunction = int(const char*, int, ...);
using FortifiedOpenFunction = int(const char*, int);

__attribute__((no_sanitize("thread"))) int RealClose(int fd) {
    static auto* const next = Next<int(int)>("close");
    return next(fd);
}

__attribute__((no_sanitize("thread"))) int RealIoctl(int fd, unsigned long request, void* argument) {
    static auto* const next = Next<int(int, unsigned long, ...)>("ioctl");
    return next(fd, request, argument);
}

__attribute__((no_sanitize("thread"))) int RealOpen(const char* path, int flags, mode_t mode) {
    static auto* const next = Next<OpenFunction>("open");
    return next(path, flags, mode);
}

__attribute__((no_sanitize("thread"))) int RealOpen64(const char* path, int flags, mode_t mode) {
    static auto* const next = Next<OpenFunction>("open64");
    return next(path, flags, mode);
}

__attribute__((no_sanitize("thread"))) int RealFortifiedOpen(const char* path, int flags) {
    static auto* const next = Next<FortifiedOpenFunction>("__open_2");
    return next(path, flags);
}

__attribute__((no_sanitize("thread"))) int RealFortifiedOpen64(const char* path, int flags) {
    static auto* const next = Next<FortifiedOpenFunction>("__open64_2");
    return next(path, flags);
}

// The filter that all calls of the process go through, from before main on; those that are not for us cost a few loads.
// It is not instrumented, and so made of builtins: ThreadSanitizer opens files while it holds the locks of a report,
// and a report from in here would wait for them for ever.
pid_t servingProcess = 0;  // set with the first ServeNodes
bool isOurs[FD_MAX] = {};  // by descriptor

template <class T>
__attribute__((no_sanitize("thread"))) T Peek(const T& value) {
    return __atomic_load_n(&value, __ATOMIC_SEQ_CST);
}

// A child that has not yet called exec shares or copies our memory, but has neither our threads nor a use for our
// descriptors: its calls go to libc.
__attribute__((no_sanitize("thread"))) bool Serves() { return Peek(servingProcess) == getpid(); }
__attribute__((no_sanitize("thread"))) bool IsInChild() { return Peek(servingProcess) != 0 && !Serves(); }
__attribute__((no_sanitize("thread"))) bool IsOurs(int fd) {
    return fd >= 0 && fd < FD_MAX && Peek(isOurs[fd]) && Serves();
}

__attribute__((no_sanitize("thread"))) bool IsNode(const char* path) {
    if (path == nullptr || Peek(servingProcess) == 0) return false;
    for (const char* folder = NODE_FOLDER; *folder != 0; ++folder, ++path) {
        if (*path != *folder) return false;
    }
    return Serves();
}

void SetOurs(int fd, bool ours) { __atomic_store_n(&isOurs[fd], ours, __ATOMIC_SEQ_CST); }

// The nodes and the open descriptors of the process.
struct NodeTable {
    std::mutex lock;
    std::map<UsbAddress, std::shared_ptr<Port>> nodes;
    std::unordered_map<int, std::shared_ptr<Port::Descriptor>> descriptors;

    std::atomic<std::size_t> memoryLimit{0};
    std::atomic<std::size_t> memoryUsed{0};
};

// Never destroyed: other threads may still close descriptors while the process exits.
NodeTable& Table() {
    static NodeTable& table = *std::make_unique<NodeTable>().release();
    return table;
}

std::size_t ChargeOf(std::size_t bufferBytes) {
    const std::size_t chunks = (bufferBytes + SCATTER_CHUNK_BYTES - 1) / SCATTER_CHUNK_BYTES;
    return URB_RECORD_BYTES + bufferBytes + (chunks > 1 ? chunks * SCATTER_ENTRY_BYTES : 0);
}

bool TakeMemory(std::size_t bytes) {
    NodeTable& table = Table();
    const std::size_t limit = table.memoryLimit;
    if (table.memoryUsed.fetch_add(bytes) + bytes <= limit || limit == 0) return true;
    table.memoryUsed -= bytes;
    return false;
}

std::atomic<int (*)(NodeRequest)> requestHook{nullptr};

// 0, or the negative errno that the hook wants.
int AskHook(NodeRequest request) {
    int (*const hook)(NodeRequest) = requestHook;
    return hook == nullptr ? 0 : -hook(request);
}

std::optional<UsbAddress> NodeAddress(const char* path) {
    UsbAddress address;
    int end = 0;
    if (std::sscanf(path, "/dev/bus/usb/%3d/%3d%n", &address.bus, &address.number, &end) != 2) return std::nullopt;
    if (path[end] != '\0') return std::nullopt;
    return address;
}

// The descriptor or negative errno of an open in NODE_FOLDER, or nothing for a path that is no node.
std::optional<int> OpenNode(const char* path) {
    const Inside inside;
    const std::optional<UsbAddress> address = NodeAddress(path);
    if (!address) return std::nullopt;
    std::shared_ptr<Port> port;
    {
        NodeTable& table = Table();
        const std::lock_guard held(table.lock);
        const auto node = table.nodes.find(*address);
        if (node == table.nodes.end()) return -ENOENT;
        port = node->second;
    }
    return port->Open();
}

std::shared_ptr<Port::Descriptor> FindDescriptor(int fd) {
    NodeTable& table = Table();
    const std::lock_guard held(table.lock);
    const auto found = table.descriptors.find(fd);
    return found == table.descriptors.end() ? nullptr : found->second;
}

// Out of the table; whoever gets it closes it.
std::shared_ptr<Port::Descriptor> TakeDescriptor(int fd) {
    NodeTable& table = Table();
    const std::lock_guard held(table.lock);
    const auto found = table.descriptors.find(fd);
    if (found == table.descriptors.end()) return nullptr;
    std::shared_ptr<Port::Descriptor> descriptor = std::move(found->second);
    table.descriptors.erase(found);
    SetOurs(fd, false);
    return descriptor;
}

int WithErrno(int result) {
    if (result >= 0) return result;
    errno = -result;
    return -1;
}

std::uint16_t LittleEndian16(const std::uint8_t* bytes) { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }

ControlSetup SetupOf(const std::uint8_t* bytes) {
    return {bytes[0], bytes[1], LittleEndian16(bytes + 2), LittleEndian16(bytes + 4)};
}

std::span<std::uint8_t> BufferOf(const usbdevfs_urb& urb) {
    return {static_cast<std::uint8_t*>(urb.buffer), static_cast<std::size_t>(urb.buffer_length)};
}

std::vector<std::uint8_t> StringDescriptor(std::string_view text) {
    text = text.substr(0, STRING_CHARACTERS_MAX);
    std::vector<std::uint8_t> bytes{static_cast<std::uint8_t>(2 + 2 * text.size()), USB_DT_STRING};
    for (const char c : text) {
        bytes.push_back(static_cast<std::uint8_t>(c));  // UTF-16LE; our strings are ASCII
        bytes.push_back(0);
    }
    return bytes;
}

void AskAgainBy(std::optional<Port::Clock::time_point>& wakeAt, Port::Clock::time_point when) {
    wakeAt = wakeAt ? std::min(*wakeAt, when) : when;
}

}  // namespace

std::vector<std::uint8_t> RawDescriptors(const UsbIdentity& identity) {
    constexpr std::uint16_t BULK_PACKET_BYTES = 1024;
    constexpr std::uint8_t BURST_PACKETS = 16;
    const auto index = [](const std::string& text, std::uint8_t i) -> std::uint8_t { return text.empty() ? 0 : i; };
    std::vector<std::uint8_t> raw;
    const auto append = [&raw](const auto& descriptor) {
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&descriptor);
        raw.insert(raw.end(), bytes, bytes + descriptor.bLength);
    };

    usb_device_descriptor device{};
    device.bLength = USB_DT_DEVICE_SIZE;
    device.bDescriptorType = USB_DT_DEVICE;
    device.bcdUSB = 0x0300;
    device.bMaxPacketSize0 = 9;  // 2^9 bytes
    device.idVendor = identity.vendorId;
    device.idProduct = identity.productId;
    device.bcdDevice = 0x0100;
    device.iManufacturer = index(identity.manufacturer, MANUFACTURER_INDEX);
    device.iProduct = index(identity.product, PRODUCT_INDEX);
    device.iSerialNumber = index(identity.serial, SERIAL_INDEX);
    device.bNumConfigurations = 1;
    append(device);

    usb_config_descriptor configuration{};
    configuration.bLength = USB_DT_CONFIG_SIZE;
    configuration.bDescriptorType = USB_DT_CONFIG;
    configuration.wTotalLength =
        USB_DT_CONFIG_SIZE + USB_DT_INTERFACE_SIZE + 2 * (USB_DT_ENDPOINT_SIZE + USB_DT_SS_EP_COMP_SIZE);
    configuration.bNumInterfaces = 1;
    configuration.bConfigurationValue = 1;
    configuration.bmAttributes = USB_CONFIG_ATT_ONE;
    configuration.bMaxPower = 112;  // 896 mA
    append(configuration);

    usb_interface_descriptor interface {};
    interface.bLength = USB_DT_INTERFACE_SIZE;
    interface.bDescriptorType = USB_DT_INTERFACE;
    interface.bNumEndpoints = 2;
    interface.bInterfaceClass = USB_CLASS_VENDOR_SPEC;
    append(interface);

    for (const std::uint8_t address : {ENDPOINT_OUT, ENDPOINT_IN}) {
        usb_endpoint_descriptor endpoint{};
        endpoint.bLength = USB_DT_ENDPOINT_SIZE;
        endpoint.bDescriptorType = USB_DT_ENDPOINT;
        endpoint.bEndpointAddress = address;
        endpoint.bmAttributes = USB_ENDPOINT_XFER_BULK;
        endpoint.wMaxPacketSize = BULK_PACKET_BYTES;
        append(endpoint);
        usb_ss_ep_comp_descriptor companion{};
        companion.bLength = USB_DT_SS_EP_COMP_SIZE;
        companion.bDescriptorType = USB_DT_SS_ENDPOINT_COMP;
        companion.bMaxBurst = BURST_PACKETS - 1;
        append(companion);
    }
    return raw;
}

void SetUsbfsMemoryLimit(std::size_t bytes) { Table().memoryLimit = bytes; }

void SetRequestHook(int (*hook)(NodeRequest)) { requestHook = hook; }

void ServeNodes() { __atomic_store_n(&servingProcess, getpid(), __ATOMIC_SEQ_CST); }

Port::Port(std::shared_ptr<BusDevice> plugged, PortOwner& portOwner, const PlugOptions& plugOptions)
    : device(std::move(plugged)), owner(portOwner), options(plugOptions), thread(&Port::Serve, this) {}

void Port::Plug() {
    const std::lock_guard held(lock);
    while (leaving) changed.wait(lock);
    if (!announced) joinAt = Clock::now();
    work.notify_all();
    while (!announced && !stopping) changed.wait(lock);
}

void Port::Unplug() {
    const std::lock_guard held(lock);
    away.reset();
    joinAt.reset();
    leaving = true;
    work.notify_all();
    while (leaving) changed.wait(lock);
}

void Port::Shutdown() {
    Unplug();
    {
        const std::lock_guard held(lock);
        stopping = true;
        work.notify_all();
    }
    if (thread.joinable()) thread.join();
}

void Port::AwaitReturn(Clock::time_point until, std::chrono::microseconds slept) {
    const std::lock_guard held(lock);
    while (away && *away <= slept && Clock::now() < until) changed.wait_until(lock, until);
}

void Port::Inject(const BusFault& fault) {
    const std::lock_guard held(lock);
    faults.push_back(fault);
}

void Port::ClearFaults() {
    const std::lock_guard held(lock);
    faults.clear();
}

BusUse Port::Use() const {
    const std::lock_guard held(lock);
    return use;
}

int Port::Open() {
    std::shared_ptr<Descriptor> descriptor;
    {
        const std::lock_guard held(lock);
        if (!address) return -ENODEV;
        use.opens += 1;
        if (options.openError != 0) return -options.openError;
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return -errno;
        const char full = 0;
        if (ends[1] >= FD_MAX || fcntl(ends[1], F_SETPIPE_SZ, PIPE_BYTES) < 0 || write(ends[1], &full, 1) != 1) {
            RealClose(ends[0]);
            RealClose(ends[1]);
            return -EMFILE;
        }
        descriptor = std::make_shared<Descriptor>(Descriptor{shared_from_this(), ends[1], ends[0], false, {}});
        descriptors.push_back(descriptor.get());
        use.openNow += 1;
    }
    NodeTable& table = Table();
    const std::lock_guard held(table.lock);
    table.descriptors[descriptor->fd] = descriptor;
    SetOurs(descriptor->fd, true);
    return descriptor->fd;
}

void Port::Close(Descriptor& descriptor) {
    const std::lock_guard held(lock);
    descriptor.gone = true;
    while (active != nullptr && active->descriptor == &descriptor) changed.wait(lock);
    for (Pipe& pipe : pipes) {
        Forget(pipe.queue, descriptor);
        pipe.waits = false;
    }
    Forget(late, descriptor);
    Forget(descriptor.done, descriptor);
    if (claimant == &descriptor) {
        claimant = nullptr;
        use.claimedNow -= 1;
    }
    std::erase(descriptors, &descriptor);
    use.openNow -= 1;
    if (descriptor.reader >= 0) RealClose(descriptor.reader);
    RealClose(descriptor.fd);
    work.notify_all();
}

int Port::Ioctl(Descriptor& descriptor, unsigned long request, void* argument) {
    const std::lock_guard held(lock);
    if (request == USBDEVFS_REAPURB) return Reap(descriptor, argument, true);
    if (request == USBDEVFS_REAPURBNDELAY) return Reap(descriptor, argument, false);
    if (descriptor.gone) return -ENODEV;
    switch (request) {
        case USBDEVFS_SUBMITURB:
            return Submit(descriptor, static_cast<usbdevfs_urb*>(argument));
        case USBDEVFS_DISCARDURB:
            return Discard(descriptor, argument);
        case USBDEVFS_CLAIMINTERFACE:
            if (const int error = AskHook(NodeRequest::claim); error < 0) return error;
            return Claim(descriptor, argument);
        case USBDEVFS_RELEASEINTERFACE:
            return Release(descriptor, argument);
        case USBDEVFS_CLEAR_HALT:
            return ClearHalt(argument);
        case USBDEVFS_SETCONFIGURATION:
            return 0;
        case USBDEVFS_RESET:
            for (Pipe& pipe : pipes) pipe.halted = false;
            return 0;
        case USBDEVFS_GET_CAPABILITIES: {
            constexpr std::uint32_t CAPABILITIES = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                                                   USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_BULK_SCATTER_GATHER |
                                                   USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
            std::memcpy(argument, &CAPABILITIES, sizeof CAPABILITIES);
            return 0;
        }
        default:
            return -ENOTTY;
    }
}

int Port::Submit(Descriptor& descriptor, usbdevfs_urb* user) {
    if (user->buffer_length < 0) return -EINVAL;
    const std::span<std::uint8_t> buffer = BufferOf(*user);
    if (buffer.data() == nullptr && !buffer.empty()) return -EFAULT;

    std::size_t pipe = CONTROL;
    BusFault::Match match = BusFault::Match::control;
    if (user->type == USBDEVFS_URB_TYPE_CONTROL) {
        if (buffer.size() < SETUP_BYTES || LittleEndian16(&buffer[6]) > buffer.size() - SETUP_BYTES) return -EINVAL;
    } else if (user->type == USBDEVFS_URB_TYPE_BULK) {
        if (user->endpoint != ENDPOINT_OUT && user->endpoint != ENDPOINT_IN) return -ENOENT;
        // As in Linux, a transfer claims the interface that was not claimed before.
        const unsigned int interface = 0;
        if (const int error = Claim(descriptor, &interface); error < 0) return error;
        const bool isRead = user->endpoint == ENDPOINT_IN;
        pipe = isRead ? BULK_IN : BULK_OUT;
        match = isRead ? BusFault::Match::bulkIn : BusFault::Match::bulkOut;
    } else {
        return -EINVAL;
    }

    const NodeRequest request = pipe == CONTROL ? NodeRequest::control : NodeRequest::submit;
    if (const int error = AskHook(request); error < 0) return error;
    std::list<Urb> submitted(1);
    Urb& urb = submitted.front();
    urb.user = user;
    urb.descriptor = &descriptor;
    urb.charge = ChargeOf(buffer.size());
    if (const int error = ApplyFaults(match, urb); error < 0) return error;
    if (!TakeMemory(urb.charge)) return -ENOMEM;

    if (pipe == BULK_OUT) use.bulkOut += 1;
    if (pipe == BULK_IN) use.bulkIn += 1;
    if (pipe == CONTROL && (buffer[0] & USB_DIR_IN) == 0 && (buffer[0] & USB_TYPE_MASK) != USB_TYPE_STANDARD)
        use.controlWrites += 1;
    use.urbsInFlight += 1;
    use.urbsInFlightMax = std::max(use.urbsInFlightMax, use.urbsInFlight);
    use.memory += urb.charge;
    use.memoryMax = std::max(use.memoryMax, use.memory);
    user->status = -EINPROGRESS;
    user->actual_length = 0;
    pipes[pipe].queue.splice(pipes[pipe].queue.end(), submitted);
    work.notify_all();
    return 0;
}

int Port::ApplyFaults(BusFault::Match match, Urb& urb) {
    int error = 0;
    std::erase_if(faults, [&](BusFault& fault) {
        if (fault.match != match || --fault.nth > 0) return false;
        switch (fault.action) {
            case BusFault::Action::refuse:
                error = -fault.error;
                break;
            case BusFault::Action::hang:
                urb.hangs = true;
                urb.cancelDelay = fault.cancelDelay;
                break;
            case BusFault::Action::shortTransfer:
                urb.shortTo = fault.bytes;
                break;
            case BusFault::Action::stall:
                urb.stalls = true;
                break;
            case BusFault::Action::unplug:
                AskToLeave(fault.replugAfter);
                break;
        }
        return true;
    });
    return error;
}

int Port::Discard(const Descriptor& descriptor, const void* user) {
    for (Pipe& pipe : pipes) {
        for (auto urb = pipe.queue.begin(); urb != pipe.queue.end(); ++urb) {
            if (urb->user != user || urb->descriptor != &descriptor) continue;
            if (&*urb == active) {
                urb->discarded = true;  // the port's thread decides when the device has answered
                return 0;
            }
            // The next in line asks the device afresh.
            if (urb == pipe.queue.begin()) pipe.waits = false;
            if (urb->cancelDelay.count() > 0) {
                urb->completeAt = Clock::now() + urb->cancelDelay;
                late.splice(late.end(), pipe.queue, urb);
            } else {
                Complete(pipe.queue, urb, -ENOENT);
            }
            work.notify_all();
            return 0;
        }
    }
    return -EINVAL;
}

int Port::Reap(Descriptor& descriptor, void* argument, bool wait) {
    while (wait && descriptor.done.empty() && !descriptor.gone) changed.wait(lock);
    if (descriptor.done.empty()) return descriptor.gone ? -ENODEV : -EAGAIN;
    if (const int error = AskHook(NodeRequest::reap); error < 0) return error;
    const Urb& urb = descriptor.done.front();
    void* const user = urb.user;
    std::memcpy(argument, &user, sizeof user);
    Table().memoryUsed -= urb.charge;
    use.urbsInFlight -= 1;
    use.memory -= urb.charge;
    descriptor.done.pop_front();
    const char full = 0;
    // Without a reader a write would raise SIGPIPE. The pipe is empty here, so that this cannot fail.
    if (descriptor.done.empty() && descriptor.reader >= 0 && write(descriptor.fd, &full, 1) != 1) return -EIO;
    return 0;
}

int Port::Claim(Descriptor& descriptor, const void* argument) {
    unsigned int interface = 0;
    std::memcpy(&interface, argument, sizeof interface);
    if (interface != 0) return -EINVAL;
    if (claimant == &descriptor) return 0;
    if (claimant != nullptr) return -EBUSY;
    claimant = &descriptor;
    use.claims += 1;
    use.claimedNow += 1;
    return 0;
}

int Port::Release(Descriptor& descriptor, const void* argument) {
    unsigned int interface = 0;
    std::memcpy(&interface, argument, sizeof interface);
    if (interface != 0 || claimant != &descriptor) return -EINVAL;
    claimant = nullptr;
    use.claimedNow -= 1;
    return 0;
}

int Port::ClearHalt(const void* argument) {
    unsigned int endpoint = 0;
    std::memcpy(&endpoint, argument, sizeof endpoint);
    if (endpoint != ENDPOINT_OUT && endpoint != ENDPOINT_IN) return -EINVAL;
    pipes[endpoint == ENDPOINT_IN ? BULK_IN : BULK_OUT].halted = false;
    return 0;
}

void Port::Complete(std::list<Urb>& from, std::list<Urb>::iterator urb, int status) {
    Descriptor& descriptor = *urb->descriptor;
    urb->user->status = status;
    const bool first = descriptor.done.empty();
    descriptor.done.splice(descriptor.done.end(), from, urb);
    char full = 0;
    if (first && descriptor.reader >= 0 && read(descriptor.reader, &full, 1) != 1) descriptor.gone = true;
    changed.notify_all();
}

void Port::Forget(std::list<Urb>& urbs, const Descriptor& descriptor) {
    for (auto urb = urbs.begin(); urb != urbs.end();) {
        if (urb->descriptor != &descriptor) {
            ++urb;
            continue;
        }
        Table().memoryUsed -= urb->charge;
        use.urbsInFlight -= 1;
        use.memory -= urb->charge;
        urb = urbs.erase(urb);
    }
}

void Port::AskToLeave(std::optional<std::chrono::milliseconds> comeBackAfter) {
    leaving = true;
    away = comeBackAfter;
    work.notify_all();
}

void Port::Serve() {
    const std::lock_guard held(lock);
    while (true) {
        if (leaving) {
            Leave();
            continue;
        }
        if (stopping) return;
        const Clock::time_point now = Clock::now();
        if (joinAt && *joinAt <= now) {
            Join();
            continue;
        }
        std::optional<Clock::time_point> wakeAt = joinAt;
        CompleteLate(now, wakeAt);
        if (Pipe* const pipe = NextReady(now, wakeAt)) {
            ServeHead(*pipe);
        } else if (wakeAt) {
            work.wait_until(lock, *wakeAt);
        } else {
            work.wait(lock);
        }
    }
}

Port::Pipe* Port::NextReady(Clock::time_point now, std::optional<Clock::time_point>& wakeAt) {
    for (Pipe& pipe : pipes) {
        if (pipe.queue.empty() || pipe.queue.front().hangs) continue;
        if (pipe.halted || !pipe.waits || (pipe.retryAt && *pipe.retryAt <= now)) return &pipe;
        if (pipe.retryAt) AskAgainBy(wakeAt, *pipe.retryAt);
    }
    return nullptr;
}

void Port::CompleteLate(Clock::time_point now, std::optional<Clock::time_point>& wakeAt) {
    for (auto urb = late.begin(); urb != late.end();) {
        const auto next = std::next(urb);
        if (urb->completeAt <= now) {
            Complete(late, urb, -ENOENT);
        } else {
            AskAgainBy(wakeAt, urb->completeAt);
        }
        urb = next;
    }
}

void Port::ServeHead(Pipe& pipe) {
    const auto head = pipe.queue.begin();
    usbdevfs_urb& user = *head->user;
    const bool isControl = &pipe == &pipes[CONTROL];
    const bool isRead = &pipe == &pipes[BULK_IN];
    if (pipe.halted || head->stalls) {
        pipe.halted = !isControl;
        Complete(pipe.queue, head, -EPIPE);
        return;
    }

    std::span<std::uint8_t> buffer = BufferOf(user);
    // A truncated command reaches the device truncated; of a truncated read the device knows nothing.
    if (head->shortTo && !isControl && !isRead) buffer = buffer.first(std::min(*head->shortTo, buffer.size()));
    active = &*head;
    lock.unlock();
    int moved = 0;  // [bytes], or a negative errno
    BulkInResult in{BulkInResult::Kind::done, 0, std::nullopt};
    std::optional<std::chrono::milliseconds> rejoin;
    if (isRead) {
        in = device->BulkIn(ENDPOINT_IN, buffer);
        moved = in.kind == BulkInResult::Kind::stalled ? -EPIPE : static_cast<int>(std::min(in.bytes, buffer.size()));
    } else {
        moved = isControl ? RunControl(buffer) : device->BulkOut(ENDPOINT_OUT, buffer);
        rejoin = device->TakeRejoinRequest();
    }
    lock.lock();
    active = nullptr;

    if (in.kind == BulkInResult::Kind::pending) {
        pipe.waits = !head->discarded;
        pipe.retryAt = in.retryAt;
        if (head->discarded) Complete(pipe.queue, head, -ENOENT);
        changed.notify_all();  // a close may wait for the buffer
        return;
    }
    // The wish to rejoin is known before the host can see its request done, so that a wait for the return misses none.
    if (rejoin) AskToLeave(rejoin);
    if (!isRead) pipes[BULK_IN].waits = false;  // the device may have something now
    if (moved >= 0 && head->shortTo) moved = std::min(moved, static_cast<int>(std::min(*head->shortTo, buffer.size())));
    pipe.waits = false;
    pipe.halted = moved == -EPIPE && !isControl;
    user.actual_length = std::max(moved, 0);
    const bool tooShort = isRead && moved < user.buffer_length && (user.flags & USBDEVFS_URB_SHORT_NOT_OK) != 0;
    Complete(pipe.queue, head, moved < 0 ? moved : tooShort ? -EREMOTEIO : 0);
}

int Port::RunControl(std::span<std::uint8_t> buffer) const {
    const ControlSetup setup = SetupOf(buffer.data());
    const std::span<std::uint8_t> data = buffer.subspan(SETUP_BYTES, LittleEndian16(&buffer[6]));
    if ((setup.requestType & USB_TYPE_MASK) == USB_TYPE_STANDARD) return AnswerStandard(setup, data);
    return std::min(device->Control(setup, data), static_cast<int>(data.size()));
}

int Port::AnswerStandard(const ControlSetup& setup, std::span<std::uint8_t> data) const {
    const auto answer = [&data](std::span<const std::uint8_t> bytes) {
        const std::size_t count = std::min(bytes.size(), data.size());
        std::copy_n(bytes.begin(), count, data.begin());
        return static_cast<int>(count);
    };
    if ((setup.requestType & USB_DIR_IN) == 0) return 0;
    if (setup.request == USB_REQ_GET_STATUS) return answer(std::array<std::uint8_t, 2>{});
    if (setup.request == USB_REQ_GET_CONFIGURATION) return answer(std::array<std::uint8_t, 1>{1});
    if (setup.request != USB_REQ_GET_DESCRIPTOR) return -EPIPE;

    const std::vector<std::uint8_t> raw = RawDescriptors(identity);
    switch (setup.value >> 8) {
        case USB_DT_DEVICE:
            return answer(std::span(raw).first(USB_DT_DEVICE_SIZE));
        case USB_DT_CONFIG:
            return answer(std::span(raw).subspan(USB_DT_DEVICE_SIZE));
        case USB_DT_STRING:
            switch (setup.value & 0xFF) {
                case 0:
                    return answer(std::array<std::uint8_t, 4>{4, USB_DT_STRING, 0x09, 0x04});  // English (US)
                case MANUFACTURER_INDEX:
                    return answer(StringDescriptor(identity.manufacturer));
                case PRODUCT_INDEX:
                    return answer(StringDescriptor(identity.product));
                case SERIAL_INDEX:
                    return answer(StringDescriptor(identity.serial));
                default:
                    return -EPIPE;
            }
        default:
            return -EPIPE;
    }
}

void Port::Join() {
    joinAt.reset();
    lock.unlock();
    identity = device->Identity();
    device->Joined();
    const UsbAddress place = owner.NewAddress();
    lock.lock();
    address = place;
    {
        NodeTable& table = Table();
        const std::lock_guard held(table.lock);
        table.nodes[place] = shared_from_this();
    }
    lock.unlock();
    owner.Announce(place, identity);
    lock.lock();
    announced = true;
    away.reset();
    changed.notify_all();
}

void Port::Leave() {
    if (address) {
        const UsbAddress place = *address;
        {
            NodeTable& table = Table();
            const std::lock_guard held(table.lock);
            table.nodes.erase(place);
        }
        // Linux's order: the URBs end, the descriptors tell, the uevent goes out.
        for (Descriptor* descriptor : descriptors) descriptor->gone = true;
        for (Pipe& pipe : pipes) {
            while (!pipe.queue.empty()) Complete(pipe.queue, pipe.queue.begin(), -ESHUTDOWN);
            pipe.halted = false;
            pipe.waits = false;
        }
        while (!late.empty()) Complete(late, late.begin(), -ESHUTDOWN);
        for (Descriptor* descriptor : descriptors) {
            RealClose(descriptor->reader);
            descriptor->reader = -1;
        }
        descriptors.clear();
        if (claimant != nullptr) use.claimedNow -= 1;
        claimant = nullptr;
        address.reset();
        lock.unlock();
        owner.Retire(place);
        lock.lock();
        announced = false;
    }
    leaving = false;
    if (away) joinAt = Clock::now() + ScaledDelay(*away);
    changed.notify_all();
}

namespace {

__attribute__((no_sanitize("thread"))) mode_t ModeArgument(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

// Resolved while the process still has one thread: a child between fork and exec must not enter the dynamic linker.
[[maybe_unused]] const bool resolved = [] {
    const int none = -1;
    RealIoctl(none, 0, nullptr);
    RealClose(none);
    RealOpen("", 0, 0);
    RealOpen64("", 0, 0);
    RealFortifiedOpen("", 0);
    RealFortifiedOpen64("", 0);
    return true;
}();

}  // namespace
}  // namespace sim

extern "C" {

[[gnu::visibility("default")]] __attribute__((no_sanitize("thread"))) int open(const char* path, int flags, ...) {
    if (sim::IsNode(path)) {
        if (const std::optional<int> fd = sim::OpenNode(path)) return sim::WithErrno(*fd);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = sim::ModeArgument(flags, arguments);
    va_end(arguments);
    return sim::RealOpen(path, flags, mode);
}

[[gnu::visibility("default")]] __attribute__((no_sanitize("thread"))) int open64(const char* path, int flags, ...) {
    if (sim::IsNode(path)) {
        if (const std::optional<int> fd = sim::OpenNode(path)) return sim::WithErrno(*fd);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = sim::ModeArgument(flags, arguments);
    va_end(arguments);
    return sim::RealOpen64(path, flags, mode);
}

[[gnu::visibility("default")]] __attribute__((no_sanitize("thread"))) int __open_2(const char* path, int flags) {
    if (sim::IsNode(path)) {
        if (const std::optional<int> fd = sim::OpenNode(path)) return sim::WithErrno(*fd);
    }
    return sim::RealFortifiedOpen(path, flags);
}

[[gnu::visibility("default")]] __attribute__((no_sanitize("thread"))) int __open64_2(const char* path, int flags) {
    if (sim::IsNode(path)) {
        if (const std::optional<int> fd = sim::OpenNode(path)) return sim::WithErrno(*fd);
    }
    return sim::RealFortifiedOpen64(path, flags);
}

[[gnu::visibility("default")]] __attribute__((no_sanitize("thread"))) int ioctl(int fd, unsigned long request,
                                                                                ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!sim::IsOurs(fd)) return sim::RealIoctl(fd, request, argument);
    const sim::Inside inside;
    const auto descriptor = sim::FindDescriptor(fd);
    return sim::WithErrno(descriptor ? descriptor->port->Ioctl(*descriptor, request, argument) : -EBADF);
}

[[gnu::visibility("default")]] __attribute__((no_sanitize("thread"))) int close(int fd) {
    // Behind a vfork even umockdev's close would work on the memory of the parent.
    if (sim::IsInChild()) return static_cast<int>(syscall(SYS_close, fd));
    if (!sim::IsOurs(fd)) return sim::RealClose(fd);
    const sim::Inside inside;
    const auto descriptor = sim::TakeDescriptor(fd);
    if (!descriptor) return sim::WithErrno(-EBADF);
    descriptor->port->Close(*descriptor);
    return 0;
}

}  // extern "C"
