#include "tq_api.h"

#include "backend_usb.h"
#include "device_interface.h"
#include "dsp.h"
#include "tq_api_frame.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace {

constexpr int MAX_DEVICES = 9;
constexpr int MAX_DECIMATION = 8192;
constexpr int PRESET_WAIT_MS = 3000;  // on top of the wait inside Preset: the instrument is away for longer

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

// A place in the table of open devices. A plain pointer: an application that ends without closing must not have its
// instruments shut down behind its back, in the middle of static destruction.
struct DevicePlace {
    std::atomic<TqDevice*> device = nullptr;  // null: no calls
    std::atomic<int> calls = 0;               // that have looked, and may be inside
    bool taken = false;                       // by a device, or by one that is being opened or closed; under tableLock
    int serial = -1;                          // under which it was opened
};

// The open devices, by handle. tableLock guards `taken` and the serial numbers, and is held for moments only.
std::array<DevicePlace, MAX_DEVICES> deviceList;
CriticalSection tableLock;
std::array<int, MAX_DEVICES + 1> reservedSerials TQ_GUARDED_BY(tableLock);  // and that of the boot family
std::size_t reservedCount TQ_GUARDED_BY(tableLock) = 0;

template <typename T>
void SetIfWanted(T* output, T value) {
    if (output != nullptr) *output = value;
}

// Powers of two that the instrument and the host can decimate by together.
bool IsValidDecimation(int decimation) {
    return decimation >= 1 && decimation <= MAX_DECIMATION && std::has_single_bit(static_cast<unsigned>(decimation));
}

// The lowest free place of the table, for a device to come.
class NewPlace {
public:
    NewPlace() {
        const Lock held(tableLock);
        const auto free = std::ranges::find(deviceList, false, &DevicePlace::taken);
        handle = static_cast<int>(free - deviceList.begin());
        if (handle < MAX_DEVICES) free->taken = true;
    }
    ~NewPlace() {
        if (handle == MAX_DEVICES || kept) return;
        const Lock held(tableLock);
        deviceList[static_cast<size_t>(handle)].taken = false;
    }
    NewPlace(const NewPlace&) = delete;
    NewPlace& operator=(const NewPlace&) = delete;

    bool Found() const { return handle < MAX_DEVICES; }
    int Keep(std::unique_ptr<TqDevice> device, int serialNumber) {
        DevicePlace& place = deviceList[static_cast<size_t>(handle)];
        place.serial = serialNumber;
        place.device = device.release();
        kept = true;
        return handle;
    }

private:
    int handle;
    bool kept = false;
};

// False: the serial number is taken.
bool Reserve(int serialNumber) {
    const Lock held(tableLock);
    const auto end = reservedSerials.begin() + static_cast<std::ptrdiff_t>(reservedCount);
    if (end == reservedSerials.end() || std::find(reservedSerials.begin(), end, serialNumber) != end) return false;
    reservedSerials[reservedCount++] = serialNumber;
    return true;
}

//   inUse  out, whether the instrument is there and somebody else has it
TqStatus OpenDevice(int* device, int serialNumber, bool& inUse) {
    inUse = false;
    DSP::InitIpps();
    NewPlace place;
    if (!place.Found()) return tqMaxDevicesConnectedErr;
    SerialReservation serial(serialNumber);
    if (!serial.Got()) {
        inUse = true;
        return tqDeviceNotFoundErr;
    }
    auto usb = std::make_unique<DeviceInterface>();
    DeviceInterface& interface = *usb;
    TqStatus status = interface.Connect(serialNumber);
    inUse = interface.ownedElsewhere;
    if (status < tqNoError) return status;

    auto opened = std::make_unique<TqDevice>(std::move(usb));
    status = opened->InitializeDevice();
    if (status < tqNoError) return status;

    *device = place.Keep(std::move(opened), serialNumber);
    serial.Keep();
    return status;
}

// Takes the device out of the table, so that no further call comes in, does the last things with it, waits for the
// calls that are inside and closes it.
template <typename LastThings>
TqStatus TakeOut(int handle, LastThings&& lastThings) {
    if (handle < 0 || handle >= MAX_DEVICES) return tqInvalidDeviceErr;
    DevicePlace& place = deviceList[static_cast<size_t>(handle)];
    std::unique_ptr<TqDevice> device(place.device.exchange(nullptr));
    if (device == nullptr) return tqInvalidDeviceErr;

    Guarded([&] {
        lastThings(*device);
        return tqNoError;
    });
    for (int calls; (calls = place.calls.load()) != 0;) place.calls.wait(calls);
    device.reset();
    SerialReservation::GiveBack(place.serial);
    const Lock held(tableLock);
    place.taken = false;
    return tqNoError;
}

}  // namespace

// A call counts before it looks, and TakeOut looks at the count behind taking the device away: either of the two sees
// the other.
DeviceCall::DeviceCall(int handle) : place(handle >= 0 && handle < MAX_DEVICES ? handle : -1) {
    if (place < 0) return;
    DevicePlace& entry = deviceList[static_cast<size_t>(place)];
    ++entry.calls;
    device = entry.device;
}

DeviceCall::~DeviceCall() {
    if (place < 0) return;
    DevicePlace& entry = deviceList[static_cast<size_t>(place)];
    if (--entry.calls == 0 && entry.device == nullptr) entry.calls.notify_all();
}

SerialReservation::SerialReservation(int serialNumber) : serial(serialNumber), got(Reserve(serialNumber)) {}

SerialReservation::~SerialReservation() {
    if (got && !kept) GiveBack(serial);
}

void SerialReservation::GiveBack(int serialNumber) {
    const Lock held(tableLock);
    const auto end = reservedSerials.begin() + static_cast<std::ptrdiff_t>(reservedCount);
    const auto entry = std::find(reservedSerials.begin(), end, serialNumber);
    if (entry != end) *entry = reservedSerials[--reservedCount];
}

// --- Texts ---

const char* tqGetErrorString(TqStatus status) {
    const auto row = std::ranges::find(STATUS_TEXTS, status, &StatusText::status);
    return row != STATUS_TEXTS.end() ? row->text : "Unknown error";
}

const char* tqGetAPIVersion() { return "1.0.0"; }

// --- Device list and lifecycle ---

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

TqStatus tqOpenDevice(int* device) {
    if (device == nullptr) return tqNullPtrErr;
    std::array<int, MAX_DEVICES> serials;
    int count = MAX_DEVICES;
    TqStatus status = tqGetDeviceList(serials.data(), &count);
    if (status < tqNoError) return status;
    if (count == 0) return tqDeviceNotFoundErr;
    for (int i = 0; i < count; ++i) {
        bool inUse = false;
        status = Guarded([&] { return OpenDevice(device, serials[static_cast<size_t>(i)], inUse); });
        if (!inUse) break;
    }
    return status;
}

TqStatus tqOpenDeviceBySerial(int* device, int serialNumber) {
    if (device == nullptr) return tqNullPtrErr;
    bool inUse = false;
    return Guarded([&] { return OpenDevice(device, serialNumber, inUse); });
}

TqStatus tqCloseDevice(int device) {
    return TakeOut(device, [](TqDevice& dev) { dev.CloseDevice(); });
}

TqStatus tqPresetDevice(int device) {
    return TakeOut(device, [](TqDevice& dev) {
        dev.Abort();
        dev.Preset();
        SystemSleep(PRESET_WAIT_MS);
        dev.CloseDevice();
    });
}

// --- State of the instrument ---

TqStatus tqSetPowerState(int device, TqPowerState powerState) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (!InRange(powerState, tqPowerStateStandby)) return tqInvalidParameterErr;
        return dev.SetPowerState(powerState);
    });
}

TqStatus tqGetPowerState(int device, TqPowerState* powerState) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (powerState == nullptr) return tqNullPtrErr;
        return dev.GetPowerState(*powerState);
    });
}

TqStatus tqGetSerialNumber(int device, int* serialNumber) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (serialNumber == nullptr) return tqNullPtrErr;
        *serialNumber = dev.GetSerialNumber();
        return tqNoError;
    });
}

TqStatus tqGetFirmwareVersion(int device, int* major, int* minor, int* rev) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (major == nullptr || minor == nullptr || rev == nullptr) return tqNullPtrErr;
        const TqVersionInfo versions = dev.GetVersionInfo();
        *major = versions.bootFx3Version;
        *minor = versions.runFx3Version;
        *rev = versions.fpgaVersion;
        return tqNoError;
    });
}

TqStatus tqGetDeviceDiagnostics(int device, float* voltage, float* current, float* temperature) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.GetDeviceDiagnostics(voltage, current, temperature); });
}

TqStatus tqGetCalDate(int device, uint32_t* lastCalDate) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (lastCalDate == nullptr) return tqNullPtrErr;
        return dev.GetCalInfo(*lastCalDate);
    });
}

TqStatus tqSetFanSetPoint(int device, float setPoint) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.SetFanSetPoint(setPoint); });
}

TqStatus tqGetFanSettings(int device, float* setPoint, float* voltage) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.GetFanSettings(setPoint, voltage); });
}

// --- Reference, ports and UART ---

TqStatus tqSetReference(int device, TqReference reference) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (!InRange(reference, tqReferenceUseExternal)) return tqInvalidParameterErr;
        return dev.SetReference(reference);
    });
}

TqStatus tqGetReference(int device, TqReference* reference) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (reference == nullptr) return tqNullPtrErr;
        return dev.GetReference(*reference);
    });
}

TqStatus tqSetGPIOPort(int device, TqGPIOFunction func) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (!InRange(func, TqGPIOFunctionUARTDoppler)) return tqInvalidParameterErr;
        return dev.SetGPIOPort(func);
    });
}

TqStatus tqGetGPIOPort(int device, TqGPIOFunction* func) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (func == nullptr) return tqNullPtrErr;
        return dev.GetGPIOPort(*func);
    });
}

TqStatus tqSetUARTBaudRate(int device, float rate) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.SetUARTBaudRate(rate); });
}

TqStatus tqGetUARTBaudRate(int device, float* rate) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (rate == nullptr) return tqNullPtrErr;
        return dev.GetUARTBaudRate(*rate);
    });
}

TqStatus tqWriteUARTDirect(int device, uint8_t data) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.WriteUARTDirect(data); });
}

// --- GPS ---

TqStatus tqSetGPSTimebaseUpdate(int device, TqBool enabled) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (!InRange(enabled, tqTrue)) return tqInvalidParameterErr;
        return dev.SetGPSTimebaseUpdate(enabled);
    });
}

TqStatus tqGetGPSTimebaseUpdate(int device, TqBool* enabled) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (enabled == nullptr) return tqNullPtrErr;
        return dev.GetGPSTimebaseUpdate(*enabled);
    });
}

TqStatus tqGetGPSHoldoverInfo(int device, TqBool* usingGPSHoldover, uint32_t* lastHoldoverTime) {
    return OnSettings(device,
                      [&](TqDevice& dev) { return dev.GetGPSHoldOverInfo(usingGPSHoldover, lastHoldoverTime); });
}

TqStatus tqGetGPSState(int device, TqGPSState* GPSState) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (GPSState == nullptr) return tqNullPtrErr;
        return dev.GetGPSState(*GPSState);
    });
}

TqStatus tqGetGPSInfo(int device, TqBool refresh, TqBool* updated, int64_t* secSinceEpoch, double* latitude,
                      double* longitude, double* altitude, char* nmea, int* nmeaLen) {
    return OnDevice(device, [&](TqDevice& dev) {
        TqGPSInfo info;
        const TqStatus status = dev.GetGPSInfo(refresh, updated, info, nmea, nmeaLen);
        SetIfWanted(secSinceEpoch, info.secSinceEpoch);
        SetIfWanted(latitude, info.latitude);
        SetIfWanted(longitude, info.longitude);
        SetIfWanted(altitude, info.altitude);
        return status;
    });
}

TqStatus tqWriteToGPS(int device, const uint8_t* mem, int len) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (mem == nullptr) return tqNullPtrErr;
        if (len < 1) return tqInvalidParameterErr;
        return dev.WriteToGPS({mem, static_cast<size_t>(len)});
    });
}

// --- Level, shared by all modes ---

TqStatus tqSetRefLevel(int device, double refLevel) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (std::isnan(refLevel) || (std::isinf(refLevel) && refLevel < 0.0)) return tqInvalidParameterErr;
        TqRFSettings config = dev.GetRFConfig();
        config.refLevel = std::min(refLevel, MAX_REF_LEVEL_DBM);
        dev.SetRFConfig(config);
        return config.refLevel == refLevel ? tqNoError : tqSettingClamped;
    });
}

TqStatus tqGetRefLevel(int device, double* refLevel) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (refLevel == nullptr) return tqNullPtrErr;
        *refLevel = dev.GetRFConfig().refLevel;
        return tqNoError;
    });
}

TqStatus tqSetAttenuator(int device, int atten) {
    return OnSettings(device, [&](TqDevice& dev) {
        TqRFSettings config = dev.GetRFConfig();
        config.atten = std::clamp(atten, MIN_ATTEN, MAX_ATTEN);
        dev.SetRFConfig(config);
        return config.atten == atten ? tqNoError : tqSettingClamped;
    });
}

TqStatus tqGetAttenuator(int device, int* atten) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (atten == nullptr) return tqNullPtrErr;
        *atten = dev.GetRFConfig().atten;
        return tqNoError;
    });
}

// --- Sweep settings ---

TqStatus tqSetSweepStartStop(int device, double startFreqHz, double stopFreqHz) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetSweepStartStop(startFreqHz, stopFreqHz); });
}

TqStatus tqSetSweepCenterSpan(int device, double centerFreqHz, double spanHz) {
    return tqSetSweepStartStop(device, centerFreqHz - spanHz * 0.5, spanHz * 0.5 + centerFreqHz);
}

TqStatus tqSetSweepCoupling(int device, double rbw, double vbw, double sweepTime) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetSweepCoupling(rbw, vbw, sweepTime); });
}

TqStatus tqSetSweepDetector(int device, TqDetector detector, TqVideoUnits videoUnits) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(detector, tqDetectorMinMax)) return tqInvalidParameterErr;
        if (!InRange(videoUnits, tqVideoSample)) return tqInvalidParameterErr;
        return dev.SetSweepDetector(detector, videoUnits);
    });
}

TqStatus tqSetSweepScale(int device, TqScale scale) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(scale, tqScaleFullScale)) return tqInvalidParameterErr;
        return dev.SetSweepScale(scale);
    });
}

TqStatus tqSetSweepWindow(int device, TqWindowType window) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(window, tqWindowRect)) return tqInvalidParameterErr;
        return dev.SetSweepWindow(window);
    });
}

TqStatus tqSetSweepGPIOSwitching(int device, double* freqs, uint8_t* data, int count) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (count < 1) return dev.SetSweepGPIOSwitchingDisabled();
        if (freqs == nullptr || data == nullptr) return tqNullPtrErr;
        const auto entries = static_cast<size_t>(count);
        return dev.SetSweepGPIOSwitching({freqs, entries}, {data, entries});
    });
}

TqStatus tqSetSweepGPIOSwitchingDisabled(int device) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetSweepGPIOSwitchingDisabled(); });
}

// --- Real-time settings ---

TqStatus tqSetRealTimeCenterSpan(int device, double centerFreqHz, double spanHz) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetRealTimeCenterSpan(centerFreqHz, spanHz); });
}

TqStatus tqSetRealTimeRBW(int device, double rbw) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetRealTimeRBW(rbw); });
}

TqStatus tqSetRealTimeDetector(int device, TqDetector detector) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(detector, tqDetectorMinMax)) return tqInvalidParameterErr;
        return dev.SetRealTimeDetector(detector);
    });
}

TqStatus tqSetRealTimeScale(int device, TqScale scale, double frameRef, double frameScale) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(scale, tqScaleFullScale)) return tqInvalidParameterErr;
        return dev.SetRealTimeScale(scale, frameRef, frameScale);
    });
}

TqStatus tqSetRealTimeWindow(int device, TqWindowType window) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(window, tqWindowRect)) return tqInvalidParameterErr;
        return dev.SetRealTimeWindow(window);
    });
}

// --- I/Q settings ---

TqStatus tqSetIQDataType(int device, TqDataType dataType) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(dataType, tqDataType16sc)) return tqInvalidParameterErr;
        return dev.SetIQDataType(dataType);
    });
}

TqStatus tqSetIQCenterFreq(int device, double centerFreqHz) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQCenterFreq(centerFreqHz); });
}

TqStatus tqGetIQCenterFreq(int device, double* centerFreqHz) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (centerFreqHz == nullptr) return tqNullPtrErr;
        return dev.GetIQCenterFreq(*centerFreqHz);
    });
}

TqStatus tqSetIQSampleRate(int device, int decimation) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!IsValidDecimation(decimation)) return tqInvalidParameterErr;
        return dev.SetIQSampleRate(decimation);
    });
}

TqStatus tqSetIQSoftwareFilter(int device, TqBool enabled) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(enabled, tqTrue)) return tqInvalidParameterErr;
        return dev.SetIQSoftwareFilter(enabled);
    });
}

TqStatus tqSetIQBandwidth(int device, double bandwidth) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQBandwidth(bandwidth); });
}

TqStatus tqSetIQExtTriggerEdge(int device, TqTriggerEdge edge) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(edge, tqTriggerEdgeFalling)) return tqInvalidParameterErr;
        return dev.SetIQExtTriggerEdge(edge);
    });
}

TqStatus tqSetIQQueueSize(int device, int units) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQQueueSize(units); });
}

TqStatus tqSetIQTriggerSentinel(double sentinelValue) {
    g_triggerSentinelValue = sentinelValue;
    return tqNoError;
}

// --- I/Q sweep list settings ---

TqStatus tqSetIQSweepListDataType(int device, TqDataType dataType) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(dataType, tqDataType16sc)) return tqInvalidParameterErr;
        return dev.SetIQSweepListDataType(dataType);
    });
}

TqStatus tqSetIQSweepListCorrected(int device, TqBool corrected) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(corrected, tqTrue)) return tqInvalidParameterErr;
        return dev.SetIQSweepListCorrected(corrected);
    });
}

TqStatus tqSetIQSweepListSteps(int device, int steps) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQSweepListSteps(steps); });
}

TqStatus tqGetIQSweepListSteps(int device, int* steps) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (steps == nullptr) return tqNullPtrErr;
        return dev.GetIQSweepListSteps(*steps);
    });
}

TqStatus tqSetIQSweepListFreq(int device, int step, double freq) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQSweepListFreq(step, freq); });
}

TqStatus tqSetIQSweepListRef(int device, int step, double level) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQSweepListRef(step, level); });
}

TqStatus tqSetIQSweepListAtten(int device, int step, int atten) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQSweepListAtten(step, atten); });
}

TqStatus tqSetIQSweepListSampleCount(int device, int step, uint32_t samples) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetIQSweepListSampleCount(step, samples); });
}

// --- Audio settings ---

TqStatus tqSetAudioCenterFreq(int device, double centerFreqHz) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetAudioCenterFreq(centerFreqHz); });
}

TqStatus tqSetAudioType(int device, TqAudioType audioType) {
    return OnSettings(device, [&](TqDevice& dev) {
        if (!InRange(audioType, tqAudioTypeCW)) return tqInvalidParameterErr;
        return dev.SetAudioType(audioType);
    });
}

TqStatus tqSetAudioFilters(int device, double ifBandwidth, double audioLpf, double audioHpf) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetAudioFilters(ifBandwidth, audioLpf, audioHpf); });
}

TqStatus tqSetAudioFMDeemphasis(int device, double deemphasis) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.SetAudioFMDeemphasis(deemphasis); });
}

// --- Mode control ---

TqStatus tqConfigure(int device, TqMode mode) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (!InRange(mode, tqModeAudio) && static_cast<int>(mode) != tqModeIQFullBand) return tqInvalidParameterErr;
        return dev.Configure(mode);
    });
}

TqStatus tqGetCurrentMode(int device, TqMode* mode) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (mode == nullptr) return tqNullPtrErr;
        return dev.GetCurrentMode(*mode);
    });
}

TqStatus tqAbort(int device) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.Abort(); });
}

// --- Parameters of the running mode ---

TqStatus tqGetSweepParameters(int device, double* actualRBW, double* actualVBW, double* actualStartFreq,
                              double* binSize, int* sweepSize) {
    return OnSettings(device, [&](TqDevice& dev) {
        TqSweepSettings settings;
        const TqStatus status = dev.GetSweepSettings(settings);
        if (status < tqNoError) return status;
        SetIfWanted(actualRBW, settings.actualRbw);
        SetIfWanted(actualVBW, settings.actualVbw);
        SetIfWanted(actualStartFreq, settings.firstBinFreq);
        SetIfWanted(binSize, settings.binSize);
        SetIfWanted(sweepSize, settings.sweepSize);
        return tqNoError;
    });
}

TqStatus tqGetRealTimeParameters(int device, double* actualRBW, int* sweepSize, double* actualStartFreq,
                                 double* binSize, int* frameWidth, int* frameHeight, double* poi) {
    return OnSettings(device, [&](TqDevice& dev) {
        TqRealTimeSettings settings;
        const TqStatus status = dev.GetRealTimeSettings(settings);
        if (status < tqNoError) return status;
        SetIfWanted(actualRBW, settings.actualRBW);
        SetIfWanted(sweepSize, settings.sweepSize);
        SetIfWanted(actualStartFreq, settings.firstBinFreq);
        SetIfWanted(binSize, settings.binSize);
        SetIfWanted(frameWidth, settings.frameWidth);
        SetIfWanted(frameHeight, settings.frameHeight);
        SetIfWanted(poi, settings.poi);
        return tqNoError;
    });
}

TqStatus tqGetIQParameters(int device, double* sampleRate, double* bandwidth) {
    return OnSettings(device, [&](TqDevice& dev) { return dev.GetIQParameters(sampleRate, bandwidth); });
}

TqStatus tqGetIQCorrection(int device, float* scale) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (scale == nullptr) return tqNullPtrErr;
        return dev.GetIQCorrection(*scale);
    });
}

TqStatus tqIQSweepListGetCorrections(int device, float* corrections) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (corrections == nullptr) return tqNullPtrErr;
        return dev.IQSweepListGetCorrections(corrections);
    });
}

// --- Data ---

TqStatus tqGetSweep(int device, float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.GetSweep(sweepMin, sweepMax, nsSinceEpoch); });
}

TqStatus tqGetRealTimeFrame(int device, float* colorFrame, float* alphaFrame, float* sweepMin, float* sweepMax,
                            int* frameCount, int64_t* nsSinceEpoch) {
    return OnDevice(device, [&](TqDevice& dev) {
        return dev.GetRealTimeFrame(colorFrame, alphaFrame, sweepMin, sweepMax, frameCount, nsSinceEpoch);
    });
}

TqStatus tqGetIQ(int device, void* iqBuf, int iqBufSize, double* triggers, int triggerBufSize, int64_t* nsSinceEpoch,
                 TqBool purge, int* sampleLoss, int* samplesRemaining) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (iqBuf == nullptr) return tqNullPtrErr;
        if (iqBufSize < 1) return tqInvalidParameterErr;
        return dev.GetIQ(iqBuf, iqBufSize, triggers, triggerBufSize, nsSinceEpoch, purge, sampleLoss, samplesRemaining);
    });
}

TqStatus tqIQSweepListGetSweep(int device, void* dst, int64_t* timestamps) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.IQSweepListGetSweep(dst, timestamps); });
}

TqStatus tqIQSweepListStartSweep(int device, int pos, void* dst, int64_t* timestamps) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.IQSweepListBeginSweep(pos, dst, timestamps); });
}

TqStatus tqIQSweepListFinishSweep(int device, int pos) {
    return OnDevice(device, [&](TqDevice& dev) { return dev.IQSweepListFinishSweep(pos); });
}

TqStatus tqGetAudio(int device, float* audio) {
    return OnDevice(device, [&](TqDevice& dev) {
        if (audio == nullptr) return tqNullPtrErr;
        return dev.GetAudio(audio);
    });
}
