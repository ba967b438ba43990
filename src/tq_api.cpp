#include "tq_api.h"

#include "backend_usb.h"
#include "device_interface.h"
#include "dsp.h"
#include "tq_api_frame.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <array>
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

// The open devices, by handle. Plain pointers: an application that ends without closing must not have its instruments
// shut down behind its back, in the middle of static destruction.
std::array<TqDevice*, MAX_DEVICES> deviceList{};

template <typename T>
void SetIfWanted(T* output, T value) {
    if (output != nullptr) *output = value;
}

// Powers of two that the instrument and the host can decimate by together.
bool IsValidDecimation(int decimation) {
    return decimation >= 1 && decimation <= MAX_DECIMATION && std::has_single_bit(static_cast<unsigned>(decimation));
}

// Lowest free handle, or MAX_DEVICES.
int GetNextAvailableDeviceHandle() {
    return static_cast<int>(std::ranges::find(deviceList, nullptr) - deviceList.begin());
}

TqStatus OpenDevice(int* device, int serialNumber) {
    DSP::InitIpps();
    const int handle = GetNextAvailableDeviceHandle();
    if (handle == MAX_DEVICES) return tqMaxDevicesConnectedErr;

    if (IsBootDevice(serialNumber)) return tqDeviceNotFoundErr;
    auto usb = std::make_unique<DeviceInterface>();
    TqStatus status = usb->Connect(serialNumber);
    if (status < tqNoError) return status;

    auto opened = std::make_unique<TqDevice>(std::move(usb));
    status = opened->InitializeDevice();
    if (status < tqNoError) return status;

    deviceList[static_cast<size_t>(handle)] = opened.release();
    *device = handle;
    return status;
}

}  // namespace

TqDevice* GetDevice(int device) {
    return device >= 0 && device < MAX_DEVICES ? deviceList[static_cast<size_t>(device)] : nullptr;
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
    const TqStatus status = tqGetDeviceList(serials.data(), &count);
    if (status < tqNoError) return status;
    if (count == 0) return tqDeviceNotFoundErr;
    return tqOpenDeviceBySerial(device, serials.front());
}

TqStatus tqOpenDeviceBySerial(int* device, int serialNumber) {
    if (device == nullptr) return tqNullPtrErr;
    return Guarded([&] { return OpenDevice(device, serialNumber); });
}

TqStatus tqCloseDevice(int device) {
    if (GetDevice(device) == nullptr) return tqInvalidDeviceErr;
    const std::unique_ptr<TqDevice> owner(std::exchange(deviceList[static_cast<size_t>(device)], nullptr));
    Guarded([&] { return owner->CloseDevice(); });
    return tqNoError;
}

TqStatus tqPresetDevice(int device) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    TqStatus status = tqAbort(device);
    if (status < tqNoError) return status;
    status = Guarded([&] { return dev->Preset(); });
    if (status < tqNoError) return status;
    SystemSleep(PRESET_WAIT_MS);
    return tqCloseDevice(device);
}

// --- State of the instrument ---

TqStatus tqSetPowerState(int device, TqPowerState powerState) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(powerState, tqPowerStateStandby)) return tqInvalidParameterErr;
    return Guarded([&] { return dev->SetPowerState(powerState); });
}

TqStatus tqGetPowerState(int device, TqPowerState* powerState) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (powerState == nullptr) return tqNullPtrErr;
    return dev->GetPowerState(*powerState);
}

TqStatus tqGetSerialNumber(int device, int* serialNumber) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (serialNumber == nullptr) return tqNullPtrErr;
    *serialNumber = dev->GetSerialNumber();
    return tqNoError;
}

TqStatus tqGetFirmwareVersion(int device, int* major, int* minor, int* rev) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (major == nullptr || minor == nullptr || rev == nullptr) return tqNullPtrErr;
    const TqVersionInfo versions = dev->GetVersionInfo();
    *major = versions.bootFx3Version;
    *minor = versions.runFx3Version;
    *rev = versions.fpgaVersion;
    return tqNoError;
}

TqStatus tqGetDeviceDiagnostics(int device, float* voltage, float* current, float* temperature) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->GetDeviceDiagnostics(voltage, current, temperature); });
}

TqStatus tqGetCalDate(int device, uint32_t* lastCalDate) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (lastCalDate == nullptr) return tqNullPtrErr;
    return dev->GetCalInfo(*lastCalDate);
}

TqStatus tqSetFanSetPoint(int device, float setPoint) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->SetFanSetPoint(setPoint); });
}

TqStatus tqGetFanSettings(int device, float* setPoint, float* voltage) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->GetFanSettings(setPoint, voltage); });
}

// --- Reference, ports and UART ---

TqStatus tqSetReference(int device, TqReference reference) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(reference, tqReferenceUseExternal)) return tqInvalidParameterErr;
    return Guarded([&] { return dev->SetReference(reference); });
}

TqStatus tqGetReference(int device, TqReference* reference) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (reference == nullptr) return tqNullPtrErr;
    return dev->GetReference(*reference);
}

TqStatus tqSetGPIOPort(int device, TqGPIOFunction func) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(func, TqGPIOFunctionUARTDoppler)) return tqInvalidParameterErr;
    return Guarded([&] { return dev->SetGPIOPort(func); });
}

TqStatus tqGetGPIOPort(int device, TqGPIOFunction* func) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (func == nullptr) return tqNullPtrErr;
    return dev->GetGPIOPort(*func);
}

TqStatus tqSetUARTBaudRate(int device, float rate) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->SetUARTBaudRate(rate); });
}

TqStatus tqGetUARTBaudRate(int device, float* rate) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (rate == nullptr) return tqNullPtrErr;
    return dev->GetUARTBaudRate(*rate);
}

TqStatus tqWriteUARTDirect(int device, uint8_t data) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->WriteUARTDirect(data); });
}

// --- GPS ---

TqStatus tqSetGPSTimebaseUpdate(int device, TqBool enabled) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(enabled, tqTrue)) return tqInvalidParameterErr;
    return Guarded([&] { return dev->SetGPSTimebaseUpdate(enabled); });
}

TqStatus tqGetGPSTimebaseUpdate(int device, TqBool* enabled) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (enabled == nullptr) return tqNullPtrErr;
    return dev->GetGPSTimebaseUpdate(*enabled);
}

TqStatus tqGetGPSHoldoverInfo(int device, TqBool* usingGPSHoldover, uint32_t* lastHoldoverTime) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->GetGPSHoldOverInfo(usingGPSHoldover, lastHoldoverTime);
}

TqStatus tqGetGPSState(int device, TqGPSState* GPSState) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (GPSState == nullptr) return tqNullPtrErr;
    return Guarded([&] { return dev->GetGPSState(*GPSState); });
}

TqStatus tqGetGPSInfo(int device, TqBool refresh, TqBool* updated, int64_t* secSinceEpoch, double* latitude,
                      double* longitude, double* altitude, char* nmea, int* nmeaLen) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    TqGPSInfo info;
    const TqStatus status = Guarded([&] { return dev->GetGPSInfo(refresh, updated, info, nmea, nmeaLen); });
    SetIfWanted(secSinceEpoch, info.secSinceEpoch);
    SetIfWanted(latitude, info.latitude);
    SetIfWanted(longitude, info.longitude);
    SetIfWanted(altitude, info.altitude);
    return status;
}

TqStatus tqWriteToGPS(int device, const uint8_t* mem, int len) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (mem == nullptr) return tqNullPtrErr;
    if (len < 1) return tqInvalidParameterErr;
    return Guarded([&] { return dev->WriteToGPS({mem, static_cast<size_t>(len)}); });
}

// --- Level, shared by all modes ---

TqStatus tqSetRefLevel(int device, double refLevel) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (std::isnan(refLevel) || (std::isinf(refLevel) && refLevel < 0.0)) return tqInvalidParameterErr;
    TqRFSettings config = dev->GetRFConfig();
    config.refLevel = std::min(refLevel, MAX_REF_LEVEL_DBM);
    dev->SetRFConfig(config);
    return config.refLevel == refLevel ? tqNoError : tqSettingClamped;
}

TqStatus tqGetRefLevel(int device, double* refLevel) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (refLevel == nullptr) return tqNullPtrErr;
    *refLevel = dev->GetRFConfig().refLevel;
    return tqNoError;
}

TqStatus tqSetAttenuator(int device, int atten) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    TqRFSettings config = dev->GetRFConfig();
    config.atten = std::clamp(atten, MIN_ATTEN, MAX_ATTEN);
    dev->SetRFConfig(config);
    return config.atten == atten ? tqNoError : tqSettingClamped;
}

TqStatus tqGetAttenuator(int device, int* atten) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (atten == nullptr) return tqNullPtrErr;
    *atten = dev->GetRFConfig().atten;
    return tqNoError;
}

// --- Sweep settings ---

TqStatus tqSetSweepStartStop(int device, double startFreqHz, double stopFreqHz) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetSweepStartStop(startFreqHz, stopFreqHz);
}

TqStatus tqSetSweepCenterSpan(int device, double centerFreqHz, double spanHz) {
    return tqSetSweepStartStop(device, centerFreqHz - spanHz * 0.5, spanHz * 0.5 + centerFreqHz);
}

TqStatus tqSetSweepCoupling(int device, double rbw, double vbw, double sweepTime) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetSweepCoupling(rbw, vbw, sweepTime);
}

TqStatus tqSetSweepDetector(int device, TqDetector detector, TqVideoUnits videoUnits) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(detector, tqDetectorMinMax)) return tqInvalidParameterErr;
    if (!InRange(videoUnits, tqVideoSample)) return tqInvalidParameterErr;
    return dev->SetSweepDetector(detector, videoUnits);
}

TqStatus tqSetSweepScale(int device, TqScale scale) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(scale, tqScaleFullScale)) return tqInvalidParameterErr;
    return dev->SetSweepScale(scale);
}

TqStatus tqSetSweepWindow(int device, TqWindowType window) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(window, tqWindowRect)) return tqInvalidParameterErr;
    return dev->SetSweepWindow(window);
}

TqStatus tqSetSweepGPIOSwitching(int device, double* freqs, uint8_t* data, int count) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (count < 1) return dev->SetSweepGPIOSwitchingDisabled();
    if (freqs == nullptr || data == nullptr) return tqNullPtrErr;
    const auto entries = static_cast<size_t>(count);
    return Guarded([&] { return dev->SetSweepGPIOSwitching({freqs, entries}, {data, entries}); });
}

TqStatus tqSetSweepGPIOSwitchingDisabled(int device) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetSweepGPIOSwitchingDisabled();
}

// --- Real-time settings ---

TqStatus tqSetRealTimeCenterSpan(int device, double centerFreqHz, double spanHz) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetRealTimeCenterSpan(centerFreqHz, spanHz);
}

TqStatus tqSetRealTimeRBW(int device, double rbw) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetRealTimeRBW(rbw);
}

TqStatus tqSetRealTimeDetector(int device, TqDetector detector) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(detector, tqDetectorMinMax)) return tqInvalidParameterErr;
    return dev->SetRealTimeDetector(detector);
}

TqStatus tqSetRealTimeScale(int device, TqScale scale, double frameRef, double frameScale) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(scale, tqScaleFullScale)) return tqInvalidParameterErr;
    return dev->SetRealTimeScale(scale, frameRef, frameScale);
}

TqStatus tqSetRealTimeWindow(int device, TqWindowType window) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(window, tqWindowRect)) return tqInvalidParameterErr;
    return dev->SetRealTimeWindow(window);
}

// --- I/Q settings ---

TqStatus tqSetIQDataType(int device, TqDataType dataType) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(dataType, tqDataType16sc)) return tqInvalidParameterErr;
    return dev->SetIQDataType(dataType);
}

TqStatus tqSetIQCenterFreq(int device, double centerFreqHz) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQCenterFreq(centerFreqHz);
}

TqStatus tqGetIQCenterFreq(int device, double* centerFreqHz) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (centerFreqHz == nullptr) return tqNullPtrErr;
    return dev->GetIQCenterFreq(*centerFreqHz);
}

TqStatus tqSetIQSampleRate(int device, int decimation) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!IsValidDecimation(decimation)) return tqInvalidParameterErr;
    return dev->SetIQSampleRate(decimation);
}

TqStatus tqSetIQSoftwareFilter(int device, TqBool enabled) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(enabled, tqTrue)) return tqInvalidParameterErr;
    return dev->SetIQSoftwareFilter(enabled);
}

TqStatus tqSetIQBandwidth(int device, double bandwidth) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQBandwidth(bandwidth);
}

TqStatus tqSetIQExtTriggerEdge(int device, TqTriggerEdge edge) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(edge, tqTriggerEdgeFalling)) return tqInvalidParameterErr;
    return dev->SetIQExtTriggerEdge(edge);
}

TqStatus tqSetIQQueueSize(int device, int units) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQQueueSize(units);
}

TqStatus tqSetIQTriggerSentinel(double sentinelValue) {
    g_triggerSentinelValue = sentinelValue;
    return tqNoError;
}

// --- I/Q sweep list settings ---

TqStatus tqSetIQSweepListDataType(int device, TqDataType dataType) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(dataType, tqDataType16sc)) return tqInvalidParameterErr;
    return dev->SetIQSweepListDataType(dataType);
}

TqStatus tqSetIQSweepListCorrected(int device, TqBool corrected) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(corrected, tqTrue)) return tqInvalidParameterErr;
    return dev->SetIQSweepListCorrected(corrected);
}

TqStatus tqSetIQSweepListSteps(int device, int steps) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->SetIQSweepListSteps(steps); });
}

TqStatus tqGetIQSweepListSteps(int device, int* steps) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (steps == nullptr) return tqNullPtrErr;
    return dev->GetIQSweepListSteps(*steps);
}

TqStatus tqSetIQSweepListFreq(int device, int step, double freq) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQSweepListFreq(step, freq);
}

TqStatus tqSetIQSweepListRef(int device, int step, double level) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQSweepListRef(step, level);
}

TqStatus tqSetIQSweepListAtten(int device, int step, int atten) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQSweepListAtten(step, atten);
}

TqStatus tqSetIQSweepListSampleCount(int device, int step, uint32_t samples) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetIQSweepListSampleCount(step, samples);
}

// --- Audio settings ---

TqStatus tqSetAudioCenterFreq(int device, double centerFreqHz) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetAudioCenterFreq(centerFreqHz);
}

TqStatus tqSetAudioType(int device, TqAudioType audioType) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(audioType, tqAudioTypeCW)) return tqInvalidParameterErr;
    return dev->SetAudioType(audioType);
}

TqStatus tqSetAudioFilters(int device, double ifBandwidth, double audioLpf, double audioHpf) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetAudioFilters(ifBandwidth, audioLpf, audioHpf);
}

TqStatus tqSetAudioFMDeemphasis(int device, double deemphasis) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->SetAudioFMDeemphasis(deemphasis);
}

// --- Mode control ---

TqStatus tqConfigure(int device, TqMode mode) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (!InRange(mode, tqModeAudio) && static_cast<int>(mode) != tqModeIQFullBand) return tqInvalidParameterErr;
    return Guarded([&] { return dev->Configure(mode); });
}

TqStatus tqGetCurrentMode(int device, TqMode* mode) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (mode == nullptr) return tqNullPtrErr;
    return dev->GetCurrentMode(*mode);
}

TqStatus tqAbort(int device) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->Abort(); });
}

// --- Parameters of the running mode ---

TqStatus tqGetSweepParameters(int device, double* actualRBW, double* actualVBW, double* actualStartFreq,
                              double* binSize, int* sweepSize) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    TqSweepSettings settings;
    const TqStatus status = dev->GetSweepSettings(settings);
    if (status < tqNoError) return status;
    SetIfWanted(actualRBW, settings.actualRbw);
    SetIfWanted(actualVBW, settings.actualVbw);
    SetIfWanted(actualStartFreq, settings.firstBinFreq);
    SetIfWanted(binSize, settings.binSize);
    SetIfWanted(sweepSize, settings.sweepSize);
    return tqNoError;
}

TqStatus tqGetRealTimeParameters(int device, double* actualRBW, int* sweepSize, double* actualStartFreq,
                                 double* binSize, int* frameWidth, int* frameHeight, double* poi) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    TqRealTimeSettings settings;
    const TqStatus status = dev->GetRealTimeSettings(settings);
    if (status < tqNoError) return status;
    SetIfWanted(actualRBW, settings.actualRBW);
    SetIfWanted(sweepSize, settings.sweepSize);
    SetIfWanted(actualStartFreq, settings.firstBinFreq);
    SetIfWanted(binSize, settings.binSize);
    SetIfWanted(frameWidth, settings.frameWidth);
    SetIfWanted(frameHeight, settings.frameHeight);
    SetIfWanted(poi, settings.poi);
    return tqNoError;
}

TqStatus tqGetIQParameters(int device, double* sampleRate, double* bandwidth) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return dev->GetIQParameters(sampleRate, bandwidth);
}

TqStatus tqGetIQCorrection(int device, float* scale) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (scale == nullptr) return tqNullPtrErr;
    return dev->GetIQCorrection(*scale);
}

TqStatus tqIQSweepListGetCorrections(int device, float* corrections) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (corrections == nullptr) return tqNullPtrErr;
    return dev->IQSweepListGetCorrections(corrections);
}

// --- Data ---

TqStatus tqGetSweep(int device, float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->GetSweep(sweepMin, sweepMax, nsSinceEpoch); });
}

TqStatus tqGetRealTimeFrame(int device, float* colorFrame, float* alphaFrame, float* sweepMin, float* sweepMax,
                            int* frameCount, int64_t* nsSinceEpoch) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    int count = 0;
    int64_t time = 0;
    const TqStatus status =
        Guarded([&] { return dev->GetRealTimeFrame(colorFrame, alphaFrame, sweepMin, sweepMax, count, time); });
    SetIfWanted(frameCount, count);
    SetIfWanted(nsSinceEpoch, time);
    return status;
}

TqStatus tqGetIQ(int device, void* iqBuf, int iqBufSize, double* triggers, int triggerBufSize, int64_t* nsSinceEpoch,
                 TqBool purge, int* sampleLoss, int* samplesRemaining) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (iqBuf == nullptr) return tqNullPtrErr;
    if (iqBufSize < 1) return tqInvalidParameterErr;
    return Guarded([&] {
        return dev->GetIQ(iqBuf, iqBufSize, triggers, triggerBufSize, nsSinceEpoch, purge, sampleLoss,
                          samplesRemaining);
    });
}

TqStatus tqIQSweepListGetSweep(int device, void* dst, int64_t* timestamps) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->IQSweepListGetSweep(dst, timestamps); });
}

TqStatus tqIQSweepListStartSweep(int device, int pos, void* dst, int64_t* timestamps) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->IQSweepListBeginSweep(pos, dst, timestamps); });
}

TqStatus tqIQSweepListFinishSweep(int device, int pos) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    return Guarded([&] { return dev->IQSweepListFinishSweep(pos); });
}

TqStatus tqGetAudio(int device, float* audio) {
    TqDevice* const dev = GetDevice(device);
    if (dev == nullptr) return tqInvalidDeviceErr;
    if (audio == nullptr) return tqNullPtrErr;
    return Guarded([&] { return dev->GetAudio(audio); });
}
