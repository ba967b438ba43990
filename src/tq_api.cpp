#include "tq_api.h"

#include "backend_usb.h"

#include <algorithm>
#include <array>
#include <exception>
#include <vector>

namespace {

struct StatusText {
    TqStatus status;
    const char* text;
};
constexpr std::array<StatusText, 20> STATUS_TEXTS = {{
    {tqInternalFlashErr, "Flash transfer error"},
    {tqInternalFileIOErr, "File I/O error"},
    {tqAllocationErr, "Memory allocation error"},
    {tqMaxDevicesConnectedErr, "Max devices connected"},
    {tqInvalidConfigurationErr, "Invalid configuration"},
    {tqSweepAlreadyActiveErr, "Sweep already active"},
    {tqBootErr, "Boot error"},
    {tqFramingErr, "USB framing error"},
    {tqConnectionLostErr, "Connection lost"},
    {tqInvalidDeviceErr, "Invalid device specified"},
    {tqNullPtrErr, "Null pointer specified"},
    {tqInvalidParameterErr, "Invalid parameter specified"},
    {tqDeviceNotFoundErr, "Device not found"},
    {tqNoError, "No error"},
    {tqSettingClamped, "Setting clamped"},
    {tqTempDrift, "Temp drift warning"},
    {tqADCOverflow, "ADC overflow"},
    {tqUncalData, "Uncal data, potential USB data loss"},
    {tqCPULimited, "Exceeded CPU resources"},
    {tqInvalidCalData, "Invalid calibration data"},
}};
static_assert(std::ranges::is_sorted(STATUS_TEXTS, {}, &StatusText::status));

// The wall: what is called here may allocate, and no exception crosses an export.
template <typename Call>
TqStatus Guarded(Call&& call) {
    try {
        return call();
    } catch (const std::exception&) {
        return tqAllocationErr;
    }
}

}  // namespace

// --- Texts ---

const char* tqGetErrorString(TqStatus status) {
    const auto row = std::ranges::find(STATUS_TEXTS, status, &StatusText::status);
    return row != STATUS_TEXTS.end() ? row->text : "Unknown error";
}

const char* tqGetAPIVersion() { return "1.0.0"; }

TqStatus tqGetDeviceList(int* serials, int* deviceCount) {
    if (serials == nullptr || deviceCount == nullptr) return tqNullPtrErr;
    if (*deviceCount < 0) return tqNoError;
    return Guarded([&] {
        const std::vector<int> found = GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID});
        const size_t count = std::min(found.size(), static_cast<size_t>(*deviceCount));
        std::copy_n(found.begin(), count, serials);
        *deviceCount = static_cast<int>(count);
        return tqNoError;
    });
}
