// What all exports share: the way from a handle to its device, the check of enumerated arguments, and the wall that no
// exception crosses. Used by tq_api.cpp and tq_api_admin.cpp alone.
#pragma once

#include <exception>
#include <utility>

#include "tq_api.h"
#include "tq_device.h"

// The device behind a handle, which nobody takes away while this lives: tqCloseDevice waits for it.
class DeviceCall {
public:
    explicit DeviceCall(int handle);
    ~DeviceCall();
    DeviceCall(const DeviceCall&) = delete;
    DeviceCall& operator=(const DeviceCall&) = delete;

    TqDevice* Device() const { return device; }  // null: tqInvalidDeviceErr

private:
    const int place;  // in the table; below 0: none
    TqDevice* device = nullptr;
};

// A serial number that this process opens or has open, in either family of calls, so that nobody else in it opens the
// same instrument meanwhile. Given back with the object unless it is kept.
class SerialReservation {
public:
    explicit SerialReservation(int serialNumber);
    ~SerialReservation();
    SerialReservation(const SerialReservation&) = delete;
    SerialReservation& operator=(const SerialReservation&) = delete;

    bool Got() const { return got; }  // false: it is taken
    void Keep() { kept = true; }
    static void GiveBack(int serialNumber);  // one that was kept

private:
    const int serial;
    const bool got;
    bool kept = false;
};

// Enumerated arguments come from C, so any int can stand in them: 0 to `last` is valid.
template <typename E>
bool InRange(E value, E last) {
    return static_cast<unsigned>(value) <= static_cast<unsigned>(last);
}

// The wall: what is called here may allocate, and no exception crosses an export.
template <typename Call>
TqStatus Guarded(Call&& call) {
    try {
        return call();
    } catch (const std::exception&) {
        return tqAllocationErr;
    }
}

// call(TqDevice&) behind the check of the handle and inside the wall.
template <typename Call>
TqStatus OnDevice(int handle, Call&& call) {
    const DeviceCall inside(handle);
    if (inside.Device() == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return call(*inside.Device()); });
}

// The same for what stores or reads settings: one at a time, and not while a mode is planned.
template <typename Call>
TqStatus OnSettings(int handle, Call&& call) {
    return OnDevice(handle, [&](TqDevice& device) {
        const Lock held(device.settingsLock);
        return call(device);
    });
}
