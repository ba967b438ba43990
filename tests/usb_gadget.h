// A USB device made to order: foreign devices, and instruments that misbehave in ways of their own. What it does is set
// before it is plugged; the bus calls it from one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "sim/bus_device.h"

class UsbGadget : public sim::BusDevice {
public:
    explicit UsbGadget(sim::UsbIdentity shown) : identity(std::move(shown)) {}

    // An instrument's identity but for what is given.
    static sim::UsbIdentity Identity(const std::string& serial, const std::string& product = "TQ720",
                                     std::uint16_t vendorId = 0x5C3E, std::uint16_t productId = 0x0037) {
        return {vendorId, productId, "Tarnwell", product, serial};
    }

    sim::UsbIdentity Identity() const override { return identity; }
    int Control(const sim::ControlSetup& setup, std::span<std::uint8_t> data) override {
        return onControl ? onControl(setup, data) : static_cast<int>(data.size());
    }
    int BulkOut(std::uint8_t, std::span<const std::uint8_t> data) override {
        if (onBulkOut) onBulkOut(data);
        return static_cast<int>(data.size());
    }
    sim::BulkInResult BulkIn(std::uint8_t, std::span<std::uint8_t> dst) override {
        return onBulkIn ? onBulkIn(dst) : sim::BulkInResult{};
    }

    static sim::BulkInResult Done(std::span<std::uint8_t> dst) {
        return {sim::BulkInResult::Kind::done, dst.size(), std::nullopt};
    }

    std::function<int(const sim::ControlSetup&, std::span<std::uint8_t>)> onControl;  // none: answers with zeros
    std::function<void(std::span<const std::uint8_t>)> onBulkOut;                     // none: swallows
    std::function<sim::BulkInResult(std::span<std::uint8_t>)> onBulkIn;               // none: silent

private:
    const sim::UsbIdentity identity;
};
