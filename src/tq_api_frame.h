// What all exports share: the way from a handle to its device, the check of enumerated arguments, and the wall that no
// exception crosses. Used by tq_api.cpp and tq_api_admin.cpp alone.
#pragma once

#include <exception>

#include "tq_api.h"

class TqDevice;

// The device behind a handle; null: tqInvalidDeviceErr.
TqDevice* GetDevice(int device);

// Whether an instrument is the one that the boot family holds, which nobody else may open meanwhile.
bool IsBootDevice(int serialNumber);

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
