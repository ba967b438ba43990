// What the virtual USB bus (bus.h) needs of a device that is plugged into it. Instrument (instrument.h) implements it;
// so do the foreign devices of the tests. The bus calls a device from one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sim {

struct UsbIdentity {
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::string manufacturer;
    std::string product;
    std::string serial;
};

struct ControlSetup {
    std::uint8_t requestType = 0;  // bmRequestType; bit 7 set: device to host
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
};

// How a bulk IN attempt ended.
struct BulkInResult {
    enum class Kind {
        done,     // `bytes` bytes stand in dst (fewer than asked for: a short transfer)
        pending,  // nothing consumed; ask again at `retryAt`, or after the next bulk OUT if that is empty
        stalled,  // endpoint halted
    };
    Kind kind = Kind::pending;
    std::size_t bytes = 0;
    std::optional<std::chrono::steady_clock::time_point> retryAt;
};

class BusDevice {
public:
    virtual ~BusDevice() = default;

    // As it shows itself now; may change when it rejoins the bus.
    virtual UsbIdentity Identity() const = 0;

    // On the bus, for the first time or again, and about to be seen there.
    virtual void Joined() {}

    // A control request on endpoint 0. `data` holds the payload to the device, or takes the answer.
    // Returns the bytes moved, or a negative errno (-EPIPE for a stall).
    virtual int Control(const ControlSetup& setup, std::span<std::uint8_t> data) = 0;

    // A bulk OUT transfer. Returns the bytes taken, or a negative errno.
    virtual int BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> data) = 0;

    // A bulk IN transfer that wants exactly dst.size() bytes. The data endpoint is one stream of bytes in whole
    // units of 32,768: a read completes when all that it wants is there, and a read that is given up loses nothing.
    virtual BulkInResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) = 0;

    // When the device wants to leave the bus and come back (restart, boot to run): how long it stays away.
    // The bus asks after every control request and bulk OUT; the answer clears the wish. Called before the device is
    // removed; Identity() is read anew when it comes back.
    virtual std::optional<std::chrono::milliseconds> TakeRejoinRequest() { return std::nullopt; }
};

}  // namespace sim
