#include "tq_device.h"

#include "device_interface.h"
#include "dsp.h"
#include "engine_audio.h"
#include "engine_iq.h"
#include "engine_iq_full_band.h"
#include "engine_iq_sweep_list.h"
#include "engine_real_time.h"
#include "engine_sweep.h"
#include "engine_sweep_narrow.h"
#include "ipps.h"
#include "list_plan.h"
#include "real_time_plan.h"
#include "stream_plan.h"
#include "sweep_plan.h"
#include "tq_assert.h"
#include "tq_command.h"
#include "tq_lib.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <limits>
#include <utility>

namespace {

constexpr int POWER_UP_MS = 50;        // the front end settles after its start-up words
constexpr int AUX_XFER_BYTES = 32768;  // smallest unit of the data endpoint: four packets
constexpr int AUX_XFER_TIMEOUT_MS = 2000;
constexpr uint64_t MAX_FETCH_TICKS = 122880 * POWER_UP_MS / 2;  // from the first to the last packet of a fetch
constexpr int GPS_WORDS_PER_BLOCK = CMD_SIZE_WORDS / 2;         // each takes two command words
constexpr uint32_t MAX_TIMEBASE_DAC = 0xFFFF;
constexpr int TIMEBASE_MOVE_TICKS = 7;  // smaller moves of the GPS discipline are not worth a file

// Limits of the setters that clamp; frequencies are limited by MIN_FREQ_HZ and MAX_FREQ_HZ.
constexpr double MAX_VBW_RATIO = 10000.0;  // RBW to VBW
constexpr double MIN_SWEEP_TIME = 1e-6, MAX_SWEEP_TIME = 100.0;
constexpr double MIN_REAL_TIME_SPAN = 200000.0, MAX_REAL_TIME_SPAN = 4e7;
constexpr double MIN_REAL_TIME_RBW = 2000.0, MAX_REAL_TIME_RBW = 1e6;
constexpr int MIN_IQ_QUEUE_SIZE = 2, MAX_IQ_QUEUE_SIZE = 16;
constexpr double MIN_LIST_REF_DBM = -100.0;
constexpr double MIN_AUDIO_BANDWIDTH = 500.0, MAX_AUDIO_BANDWIDTH = 250000.0;
constexpr double MIN_AUDIO_LPF = 1000.0, MAX_AUDIO_LPF = 12000.0;
constexpr double MIN_AUDIO_HPF = 20.0, MAX_AUDIO_HPF = 1000.0;
constexpr double MIN_FM_DEEMPHASIS = 1.0, MAX_FM_DEEMPHASIS = 100.0;
constexpr double MIN_FULL_BAND_LO = 3840000.0, MAX_FULL_BAND_LO = 1.92e10;

bool AllFinite(std::initializer_list<double> values) {
    return std::ranges::all_of(values, [](double v) { return std::isfinite(v); });
}

bool AnyNaN(std::initializer_list<double> values) {
    return std::ranges::any_of(values, [](double v) { return std::isnan(v); });
}

// Stores `value`, limited to [low, high]; whether it had to be.
template <typename Field, typename T>
bool StoreClamped(Field& field, T value, T low, T high) {
    field = std::clamp(value, low, high);
    return field != value;
}

TqStatus ClampedStatus(bool clamped) { return clamped ? tqSettingClamped : tqNoError; }

}  // namespace

std::atomic<double> g_triggerSentinelValue{0.0};

// --- Lifecycle and modes ---

TqDevice::TqDevice(std::unique_ptr<DeviceInterface> interface) : usb(std::move(interface)) {
    TQ_ASSERT(usb != nullptr);
    const int serial = usb->SerialNumber();
    gpsFileWriter = std::make_unique<GPSFileWriter>([serial](const TqGPSCal& cal) { StoreGPSCorrection(serial, cal); });
    if (rvCalDoesCorrectionsExist(usb->CalData())) corrections.LoadCorrections(usb->CalData());

    // The timebase starts from whichever is newer, the calibration's last value or what GPS taught us.
    uint16_t newest = lastCoarseTuneNormalized;
    uint64_t newestTime = 0;
    corrections.GetNewestTuningValue(newest, newestTime);
    if (ReadGPSCorrection(usb->SerialNumber(), gpsCal) && gpsCal.timeStamp > newestTime) newest = gpsCal.voltage;
    lastCoarseTuneNormalized = newest;
    lastCoarseTune = newest;
}

TqDevice::~TqDevice() = default;

TqStatus TqDevice::InitializeDevice() {
    if (!BringUp() && !(usb->AlignXfers() && BringUp())) {
        usb->PresetDevice();
        return tqConnectionLostErr;
    }
    return usb->checkSumInvalid ? tqInvalidCalData : tqNoError;
}

// Starts the front end up and refreshes the aux data. False: what came is not the answer to this fetch, since host and
// instrument are out of step. Bytes left of a packet move the magic number; whole packets left over were made before
// the start-up words and the wait behind them. A failed transfer says nothing of the step and shows at the next call.
bool TqDevice::BringUp() {
    std::array<uint32_t, TQ720_CONFIG_MAX_WORDS> words;
    TqCommand startUp;
    startUp.StartNewCommand();
    startUp.AddWords(words.data(), deviceConfig.Initialize(words.data()));
    SendDirect(startUp);
    powerState = tqPowerStateOn;
    SystemSleep(POWER_UP_MS);

    TqCommand reference;
    reference.StartNewCommand();
    reference.AddSetReference(referenceState == tqReferenceUseExternal);
    SendDirect(reference);
    SendGPSDOCommand();
    WriteTimebase(lastCoarseTuneNormalized);
    if (UpdateAuxData() != tqNoError) return true;

    std::array<AuxData, AUX_XFER_BYTES / sizeof(AuxData)> unit;
    std::memcpy(unit.data(), usb->dataXfers[0]->DataPtr(), sizeof unit);
    const AuxData& last = unit.back();
    const bool isAux = last.magicNumber == AUX_MAGIC_NUMBER;
    return !hasFramingErr && (!isAux || last.MainCounter() - unit.front().MainCounter() < MAX_FETCH_TICKS);
}

TqStatus TqDevice::CloseDevice() {
    const Ending ending(*this);
    closed = true;
    DestroyEngines();
    Switch(tqPowerStateStandby);
    return tqNoError;
}

TqStatus TqDevice::Abort() {
    const Ending ending(*this);
    DestroyEngines();
    return tqNoError;
}

TqStatus TqDevice::Preset() {
    const Ending ending(*this);
    usb->PresetDevice();
    return tqNoError;
}

TqStatus TqDevice::Configure(TqMode mode) {
    const Ending ending(*this);
    return ConfigureAlone(mode);
}

// Configure, for who has ended all others.
TqStatus TqDevice::ConfigureAlone(TqMode mode) {
    DestroyEngines();
    TqStatus status = Switch(tqPowerStateOn);
    if (status != tqNoError) return status;

    // Everything that is planned from here on belongs to one temperature, and drift warnings count from it.
    if (AuxDataIsDue()) UpdateAuxData();
    {
        const Lock held(settingsLock);
        corrections.SetCurrentTemp(readerStatus.DeviceTemp());
    }
    readerStatus.Reconfigure();
    readerTrigger.Reset();

    status = UpdateDeviceTimebase();
    if (status != tqNoError) return status;

    try {
        const Lock held(settingsLock);
        status = PlanMode(mode);
    } catch (const std::exception&) {  // std::bad_alloc, or std::system_error from a thread that could not start
        status = tqAllocationErr;
    }
    if (status < tqNoError) {
        DestroyEngines();
    } else {
        currentMode = mode;
    }
    return status;
}

// Plans the mode and starts its engine, which copies all that it is given.
TqStatus TqDevice::PlanMode(TqMode mode) {
    switch (static_cast<int>(mode)) {
        case tqModeSweeping:
            return sweepSettings.Span() < NARROW_SWEEP_MAX_SPAN ? ConfigureModeSweepNarrow() : ConfigureModeSweep();
        case tqModeRealTime:
            return ConfigureModeRealTime();
        case tqModeIQStreaming:
            return ConfigureModeIQStreaming(iqSettings.dataType);
        case tqModeIQSweepList:
            return ConfigureModeIQSweepList();
        case tqModeAudio:
            return ConfigureModeAudio();
        case tqModeIQFullBand:
            return ConfigureModeIQFullBand();
        default:
            return tqInvalidParameterErr;
    }
}

TqStatus TqDevice::ConfigureModeSweep() {
    std::vector<GPIOSweepStep> bytesOnTheWay;
    if (gpioFunction == TqGPIOFunctionUARTSweep) bytesOnTheWay = gpioSweepSteps;

    SweepPlan plan;
    const TqStatus status = PlanSweepWide(sweepSettings, rfConfig, bytesOnTheWay, corrections, deviceConfig, plan);
    if (status < tqNoError) return status;
    LoadLowFreqCurve();
    readerGPS.Configure(1);
    engineSweep = std::make_unique<EngineSweep>(this, *usb, sweepSettings, plan.setup, plan.commands);
    return status;
}

TqStatus TqDevice::ConfigureModeSweepNarrow() {
    NarrowSweepPlan plan;
    const TqStatus status = PlanSweepNarrow(sweepSettings, rfConfig, corrections, deviceConfig, plan);
    if (status < tqNoError) return status;
    LoadLowFreqCurve();
    int hwDecimation = 1;
    int swDecimation = 1;
    CalculateDecimation(GetNarrowSweepDecimation(sweepSettings.Span()), hwDecimation, swDecimation);
    readerGPS.Configure(hwDecimation);
    engineSweepNarrow =
        std::make_unique<EngineSweepNarrow>(*this, *usb, sweepSettings, plan.setup, plan.commands, plan.patch);
    return status;
}

TqStatus TqDevice::ConfigureModeRealTime() {
    const RealTimePlan plan = PlanRealTime(realTimeSettings, rfConfig, corrections, deviceConfig);
    readerTrigger.Configure(1);
    readerGPS.Configure(1);
    engineRealTime = std::make_unique<EngineRealTime>(*this, *usb, realTimeSettings, plan.setup, plan.patch,
                                                      plan.initCommands, plan.fetchCommands);
    return tqNoError;
}

// The engine's copy of the settings says which samples it hands out; the client's choice stays as it is.
TqStatus TqDevice::ConfigureModeIQStreaming(TqDataType dataType) {
    const bool extTrigger = gpioFunction == TqGPIOFunctionTrigIn;
    const IQStreamPlan plan = PlanIQStreaming(iqSettings, rfConfig, extTrigger, corrections, deviceConfig);
    readerTrigger.Configure(plan.hwDecimation);
    readerGPS.Configure(plan.hwDecimation);
    TqIQSettings settings = iqSettings;
    settings.dataType = dataType;
    engineIQ = std::make_unique<EngineIQ>(this, *usb, settings, plan.patch, plan.initCommands, plan.fetchCommands);
    return tqNoError;
}

// Rides on I/Q streaming, whose rate, centre and bandwidth stay changed behind it.
TqStatus TqDevice::ConfigureModeAudio() {
    const double shift = audioSettings.audioType == tqAudioTypeCW ? CW_TONE_HZ : 0.0;
    iqSettings.centerFreq = audioSettings.center + shift;
    iqSettings.decimation = AUDIO_DECIMATION;
    iqSettings.bandwidth = AUDIO_IQ_BANDWIDTH;
    const TqStatus status = ConfigureModeIQStreaming(tqDataType32fc);
    if (status != tqNoError) return status;
    engineAudio = std::make_unique<EngineAudio>(*engineIQ, audioSettings);
    return tqNoError;
}

TqStatus TqDevice::ConfigureModeIQSweepList() {
    IQSweepListPlan plan;
    const TqStatus status = PlanIQSweepList(iqSweepListSettings, corrections, deviceConfig, plan);
    if (status < tqNoError) return status;
    readerTrigger.Configure(1);
    readerGPS.Configure(1);
    engineIQSweepList =
        std::make_unique<EngineIQSweepList>(*this, *usb, iqSweepListSettings, plan.stepInfo, plan.sweepCommand);
    return status;
}

TqStatus TqDevice::ConfigureModeIQFullBand() {
    engineIQFullBand = std::make_unique<EngineIQFullBand>(*usb, PlanIQFullBand(iqFullBandLOFreq, deviceConfig));
    return tqNoError;
}

// The low-frequency curve at the bins of the planned sweep, in the unit of its scale. Full scale results carry no
// correction at all: the curve stays empty for them.
void TqDevice::LoadLowFreqCurve() {
    ClearLowFreqCurve();
    if (sweepSettings.scale == tqScaleFullScale) return;
    lowFreqCurve = corrections.GetLowFreqAmplitudeCorrections(sweepSettings.firstBinFreq, sweepSettings.binSize,
                                                              sweepSettings.sweepSize);
    lowFreqCurveLog = sweepSettings.scale == tqScaleLog;
    if (!lowFreqCurveLog && !lowFreqCurve.empty()) {
        DSP::DBCalToLin_32f(lowFreqCurve.data(), static_cast<int>(lowFreqCurve.size()));
    }
}

// An engine's destructor stops and joins its threads, so that the instrument is quiet afterwards.
void TqDevice::DestroyEngines() {
    const bool sweeps = engineSweep != nullptr || engineSweepNarrow != nullptr || engineIQFullBand != nullptr;
    engineSweep.reset();
    engineSweepNarrow.reset();
    engineAudio.reset();
    engineRealTime.reset();
    engineIQ.reset();
    engineIQSweepList.reset();
    engineIQFullBand.reset();
    currentMode = tqModeIdle;
    ClearLowFreqCurve();

    // Over a lost link the rest of a sweep is not sent, its stop word included.
    if (!sweeps || usb->TransferStatus() == tqNoError) return;
    TqCommand stop;
    stop.StartNewCommand();
    stop.AddStopIQ();
    const DeviceInterface::LastWords lastWords(*usb);
    SendDirect(stop);
}

// Makes the engine let go of who waits for its data. A sweep goes on to its end.
void TqDevice::SendHome() {
    if (engineIQ != nullptr) engineIQ->End();
    if (engineAudio != nullptr) engineAudio->End();
    if (engineRealTime != nullptr) engineRealTime->End();
    if (engineIQSweepList != nullptr) engineIQSweepList->End();
}

void TqDevice::ClearLowFreqCurve() {
    lowFreqCurve.clear();
    lowFreqCurveLog = true;
}

TqStatus TqDevice::GetCurrentMode(TqMode& mode) const {
    mode = currentMode;
    return tqNoError;
}

bool TqDevice::Streams() const {
    const TqMode mode = currentMode;
    return mode == tqModeRealTime || mode == tqModeIQStreaming || mode == tqModeAudio;
}

bool TqDevice::CanSendCommand() const {
    return !Streams() && (engineIQSweepList == nullptr || !engineIQSweepList->AnySweepActive());
}

// Runs call() in its turn, unless the mode is being ended.
template <class Call>
TqStatus TqDevice::DataCall(Call&& call) {
    const Callers::Turn turn(callers);
    if (closed) return tqInvalidDeviceErr;
    return callers.AreBeingEnded() ? tqInvalidConfigurationErr : call();
}

// Runs send() in its turn, if that is allowed then. Beside a stream the answer is known at once.
template <class Send>
TqStatus TqDevice::Command(bool (TqDevice::*allowed)() const, Send&& send) {
    if (Streams()) return tqInvalidConfigurationErr;
    const Callers::Turn turn(callers);
    if (closed) return tqInvalidDeviceErr;
    return (this->*allowed)() ? send() : tqInvalidConfigurationErr;
}

TqStatus TqDevice::SetPowerState(TqPowerState state) {
    if (state == powerState) return tqNoError;
    return Command(&TqDevice::CanSendCommand, [&] { return Switch(state); });
}

// To standby these are the last words: over a lost link, too, they may be heard.
TqStatus TqDevice::Switch(TqPowerState state) {
    if (state == powerState) return tqNoError;
    const bool on = state == tqPowerStateOn;
    std::array<uint32_t, TQ720_CONFIG_MAX_WORDS> words;
    TqCommand command;
    command.StartNewCommand();
    command.AddWords(words.data(), on ? deviceConfig.ReInitialize(words.data()) : deviceConfig.PowerDown(words.data()));
    if (on) {
        SendDirect(command);
        SystemSleep(POWER_UP_MS);
    } else {
        const DeviceInterface::LastWords lastWords(*usb);
        SendDirect(command);
    }
    powerState = state;
    return usb->TransferStatus();
}

TqStatus TqDevice::GetPowerState(TqPowerState& state) const {
    state = powerState;
    return tqNoError;
}

// --- Aux data ---

TqStatus TqDevice::UpdateAuxData() {
    AuxData aux{};
    TqCommand command;
    command.StartNewCommand();
    command.AddFetchAux(4);
    SendDirect(command);

    const DMAXferStatus xfer = usb->FullDataXfer(0, AUX_XFER_BYTES, AUX_XFER_TIMEOUT_MS);
    if (xfer.Failed()) {
        std::puts("Aux data xfer failed");
        return usb->TransferStatus();
    }
    std::memcpy(&aux, xfer.p, sizeof(aux));
    TqGPSCal learned;
    if (TakeAuxData(&aux, learned)) gpsFileWriter->Store(learned);
    return tqNoError;
}

void TqDevice::UpdateAuxData(const AuxData* aux) {
    TqGPSCal learned;
    if (aux != nullptr && TakeAuxData(aux, learned)) gpsFileWriter->Post(learned);
}

// Whether the packet taught a timebase value that is worth its file.
bool TqDevice::TakeAuxData(const AuxData* aux, TqGPSCal& learned) {
    hasFramingErr = aux->magicNumber != AUX_MAGIC_NUMBER;
    if (hasFramingErr) return false;

    lastAuxUpdate = GetSystemTicks();
    {
        const Lock lock(auxLock);
        verInfo.bootFx3Version = aux->bootRunFW[1];
        verInfo.runFx3Version = aux->bootRunFW[0];
        verInfo.fpgaVersion = static_cast<int>(aux->fpgaVersion);
    }
    readerStatus.Update(aux);
    readerTrigger.Update(aux);
    readerGPS.Update(aux);

    // While the instrument steers its DAC from GPS the host follows, and keeps the value so that the next start begins
    // at a good frequency. The DAC has 16 bits; a field that holds more is no report.
    if (!readerGPS.IsGPSDataValidAndDisciplined() || aux->timebaseDAC > MAX_TIMEBASE_DAC) return false;
    const auto dac = static_cast<uint16_t>(aux->timebaseDAC);
    if (std::abs(lastCoarseTune - dac) <= TIMEBASE_MOVE_TICKS) return false;

    const auto normalized = static_cast<uint16_t>(dac - corrections.GetFreqTuneOffset());
    lastCoarseTune = dac;
    lastCoarseTuneNormalized = normalized;
    learned = {true, static_cast<uint64_t>(GetEpochSeconds()), normalized};
    const Lock lock(auxLock);
    gpsCal = learned;
    return true;
}

bool TqDevice::AuxDataIsDue() const { return GetSystemTicks() - lastAuxUpdate > MAX_AUX_UPDATE_RATE_MS; }

// Fetches an aux packet, if the last one is old or `always`, unless the endpoints are in use. What became of the fetch;
// tqNoError without one.
TqStatus TqDevice::Refresh(bool always) {
    const Callers::TurnIfFree turn(callers);
    if (!turn || closed || !CanSendCommand() || !(always || AuxDataIsDue())) return tqNoError;
    return UpdateAuxData();
}

TqStatus TqDevice::GetDeviceDiagnostics(float* voltage, float* current, float* temperature) {
    Refresh(false);
    if (voltage != nullptr) *voltage = readerStatus.DeviceVoltage();
    if (current != nullptr) *current = readerStatus.DeviceCurrent();
    if (temperature != nullptr) *temperature = readerStatus.DeviceTemp();
    return usb->TransferStatus();
}

TqStatus TqDevice::GetGPSState(TqGPSState& state) {
    const TqStatus status = Refresh(false);
    state = tqGPSStateNotPresent;
    if (readerGPS.IsGPSDataValid()) state = tqGPSStateLocked;
    if (readerGPS.IsGPSDataValidAndDisciplined()) state = tqGPSStateDisciplined;
    return status;
}

TqStatus TqDevice::GetGPSInfo(TqBool refresh, TqBool* updated, TqGPSInfo& info, char* nmea, int* nmeaLen) {
    if (refresh == tqTrue) Refresh(true);
    const TqStatus status = readerGPS.Query(updated, &info, nmea, nmeaLen);
    return status != tqNoError ? status : usb->TransferStatus();
}

TqStatus TqDevice::GetFanSettings(float* setPoint, float* voltage) {
    const TqStatus status = Refresh(true);
    if (status != tqNoError) return status;
    if (setPoint != nullptr) *setPoint = readerStatus.FanThreshold();
    if (voltage != nullptr) *voltage = readerStatus.FanVoltage();
    return tqNoError;
}

int TqDevice::GetSerialNumber() const { return usb->SerialNumber(); }

TqVersionInfo TqDevice::GetVersionInfo() const {
    const Lock lock(auxLock);
    return verInfo;
}

TqStatus TqDevice::GetCalInfo(uint32_t& lastCalDate) const {
    lastCalDate = corrections.GetCalDate();
    return tqNoError;
}

// --- Side ports and timebase ---

// Sends the blocks and answers with the transfer status, which also tells of any earlier failure.
TqStatus TqDevice::SendDirect(TqCommand& command) {
    usb->SendCommands(command);
    return usb->TransferStatus();
}

TqStatus TqDevice::SetGPIOPort(TqGPIOFunction func) {
    return Command(&TqDevice::IsIdle, [&] {
        gpioFunction = func;
        TqCommand command;
        command.StartNewCommand();
        switch (func) {
            case TqGPIOFunctionTrigIn:  // the I/Q plan sets the edge when it needs the trigger
            case TqGPIOFunctionUARTDoppler:
                return usb->TransferStatus();
            case TqGPIOFunctionPPSOut:
                command.AddSetPPSOut();
                break;
            case TqGPIOFunctionLogicOutLow:
                command.AddSetLogicLowOut();
                break;
            case TqGPIOFunctionLogicOutHigh:
                command.AddSetLogicHighOut();
                break;
            case TqGPIOFunctionUARTDirect:
            case TqGPIOFunctionUARTSweep:
                command.AddConfigureUARTDirect(UARTDivider);
                break;
        }
        return SendDirect(command);
    });
}

TqStatus TqDevice::GetGPIOPort(TqGPIOFunction& func) const {
    func = gpioFunction;
    return tqNoError;
}

TqStatus TqDevice::SetUARTBaudRate(float rate) {
    if (std::isnan(rate)) return tqInvalidParameterErr;
    return Command(&TqDevice::IsIdle, [&] {
        UARTDivider = std::clamp(DSP::RoundToInt(BASE_BAUD_RATE / double{rate}), 1, MAX_UART_DIVIDER);
        if (gpioFunction != TqGPIOFunctionUARTDirect && gpioFunction != TqGPIOFunctionUARTSweep) {
            return usb->TransferStatus();
        }
        TqCommand command;
        command.StartNewCommand();
        command.AddConfigureUARTDirect(UARTDivider);
        return SendDirect(command);
    });
}

TqStatus TqDevice::GetUARTBaudRate(float& rate) const {
    rate = static_cast<float>(BASE_BAUD_RATE / UARTDivider);
    return tqNoError;
}

TqStatus TqDevice::WriteUARTDirect(uint8_t data) {
    return Command(&TqDevice::CanSendCommand, [&] {
        if (gpioFunction != TqGPIOFunctionUARTDirect) return tqInvalidConfigurationErr;
        TqCommand command;
        command.StartNewCommand();
        command.AddUARTWriteDirect(data);
        return SendDirect(command);
    });
}

TqStatus TqDevice::SetFanSetPoint(float setPoint) {
    if (!std::isfinite(setPoint)) return tqInvalidParameterErr;
    return Command(&TqDevice::CanSendCommand, [&] { return usb->SetFanSetPoint(setPoint); });
}

TqStatus TqDevice::SetReference(TqReference reference) {
    return Command(&TqDevice::CanSendCommand, [&] {
        if (reference == referenceState) return tqNoError;
        referenceState = reference;
        TqCommand command;
        command.StartNewCommand();
        command.AddSetReference(reference == tqReferenceUseExternal);
        return SendDirect(command);
    });
}

TqStatus TqDevice::GetReference(TqReference& reference) const {
    reference = referenceState;
    return tqNoError;
}

TqStatus TqDevice::SetGPSTimebaseUpdate(TqBool enabled) {
    return Command(&TqDevice::CanSendCommand, [&] {
        if (enabled == autoGPSTimebaseUpdate) return tqNoError;
        autoGPSTimebaseUpdate = enabled;
        return SendGPSDOCommand();
    });
}

TqStatus TqDevice::GetGPSTimebaseUpdate(TqBool& enabled) const {
    enabled = autoGPSTimebaseUpdate;
    return tqNoError;
}

TqStatus TqDevice::SendGPSDOCommand() {
    TqCommand command;
    command.StartNewCommand();
    command.AddSetGPSTimebaseUpdate(autoGPSTimebaseUpdate == tqTrue);
    return SendDirect(command);
}

TqStatus TqDevice::GetGPSHoldOverInfo(TqBool* usingGPSHoldover, uint32_t* lastHoldoverTime) const {
    TqGPSCal learned;
    {
        const Lock lock(auxLock);
        learned = gpsCal;
    }
    uint16_t newest = 0;
    uint64_t newestTime = 0;
    corrections.GetNewestTuningValue(newest, newestTime);

    if (usingGPSHoldover != nullptr) {
        *usingGPSHoldover = learned.valid && learned.timeStamp > newestTime ? tqTrue : tqFalse;
    }
    if (lastHoldoverTime != nullptr) {
        *lastHoldoverTime = learned.valid ? static_cast<uint32_t>(learned.timeStamp) : 0;
    }
    return tqNoError;
}

TqStatus TqDevice::WriteToGPS(std::span<const uint8_t> bytes) {
    return Command(&TqDevice::CanSendCommand, [&] {
        std::vector<uint32_t> words((bytes.size() + 3) / 4);  // zeroed: the last one is filled up with zeros
        std::memcpy(words.data(), bytes.data(), bytes.size());
        TqCommand command;
        for (std::span<const uint32_t> left = words; !left.empty();) {
            const auto block = left.first(std::min<size_t>(left.size(), GPS_WORDS_PER_BLOCK));
            command.StartNewCommand();
            command.AddWriteToGPS(block.data(), static_cast<int>(block.size()));
            left = left.subspan(block.size());
        }
        return SendDirect(command);
    });
}

TqStatus TqDevice::GetCoarseTuneVal(uint16_t* ticks) const {
    if (ticks != nullptr) *ticks = lastCoarseTuneNormalized;
    return tqNoError;
}

TqStatus TqDevice::SetCoarseTuneVal(uint16_t ticks) {
    return Command(&TqDevice::CanSendCommand, [&] { return WriteTimebase(ticks); });
}

TqStatus TqDevice::WriteTimebase(uint16_t ticks) {
    const auto dac = static_cast<uint16_t>(ticks + corrections.GetFreqTuneOffset());
    lastCoarseTuneNormalized = ticks;
    lastCoarseTune = dac;
    TqCommand command;
    command.StartNewCommand();
    command.AddSetTimebaseDAC(dac);
    return SendDirect(command);
}

// Writing the normalised value again is how the timebase follows the temperature; an instrument that disciplines
// itself is left alone.
TqStatus TqDevice::UpdateDeviceTimebase() {
    if (readerGPS.IsGPSDataValid() && autoGPSTimebaseUpdate == tqTrue) return tqNoError;
    return WriteTimebase(lastCoarseTuneNormalized);
}

// --- Settings ---

TqStatus TqDevice::SetSweepStartStop(double start, double stop) {
    if (!AllFinite({start, stop}) || start >= stop) return tqInvalidParameterErr;
    bool clamped = StoreClamped(sweepSettings.start, start, MIN_FREQ_HZ, MAX_FREQ_HZ);
    clamped |= StoreClamped(sweepSettings.stop, stop, MIN_FREQ_HZ, MAX_FREQ_HZ);
    return ClampedStatus(clamped);
}

TqStatus TqDevice::SetSweepCoupling(double rbw, double vbw, double sweepTime) {
    if (!AllFinite({rbw, vbw, sweepTime}) || rbw <= 0.0) return tqInvalidParameterErr;
    sweepSettings.rbw = rbw;
    bool clamped = StoreClamped(sweepSettings.vbw, vbw, rbw / MAX_VBW_RATIO, rbw);
    clamped |= StoreClamped(sweepSettings.sweepTime, sweepTime, MIN_SWEEP_TIME, MAX_SWEEP_TIME);
    return ClampedStatus(clamped);
}

TqStatus TqDevice::SetSweepDetector(TqDetector detector, TqVideoUnits videoUnits) {
    sweepSettings.detector = detector;
    sweepSettings.videoUnits = videoUnits;
    return tqNoError;
}

TqStatus TqDevice::SetSweepScale(TqScale scale) {
    sweepSettings.scale = scale;
    return tqNoError;
}

TqStatus TqDevice::SetSweepWindow(TqWindowType window) {
    sweepSettings.window = window;
    return tqNoError;
}

TqStatus TqDevice::SetSweepGPIOSwitching(std::span<const double> freqs, std::span<const uint8_t> data) {
    TQ_ASSERT(freqs.size() == data.size());
    std::vector<GPIOSweepStep> steps(freqs.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        if (!std::isfinite(freqs[i])) return tqInvalidParameterErr;
        steps[i] = {freqs[i], data[i]};
    }
    std::ranges::sort(steps, {}, &GPIOSweepStep::freq);
    gpioSweepSteps = std::move(steps);
    return tqNoError;
}

TqStatus TqDevice::SetSweepGPIOSwitchingDisabled() {
    gpioSweepSteps.clear();
    return tqNoError;
}

TqStatus TqDevice::SetRealTimeCenterSpan(double center, double span) {
    if (AnyNaN({center, span})) return tqInvalidParameterErr;
    bool clamped = StoreClamped(realTimeSettings.span, span, MIN_REAL_TIME_SPAN, MAX_REAL_TIME_SPAN);
    clamped |= StoreClamped(realTimeSettings.centerFreq, center, MIN_FREQ_HZ, MAX_FREQ_HZ);
    return ClampedStatus(clamped);
}

TqStatus TqDevice::SetRealTimeRBW(double rbw) {
    if (std::isnan(rbw)) return tqInvalidParameterErr;
    return ClampedStatus(StoreClamped(realTimeSettings.rbw, rbw, MIN_REAL_TIME_RBW, MAX_REAL_TIME_RBW));
}

TqStatus TqDevice::SetRealTimeDetector(TqDetector detector) {
    realTimeSettings.detector = detector;
    return tqNoError;
}

TqStatus TqDevice::SetRealTimeScale(TqScale scale, double frameRef, double frameScale) {
    if (!AllFinite({frameRef, frameScale})) return tqInvalidParameterErr;
    realTimeSettings.scale = scale;
    realTimeSettings.frameRef = frameRef;
    realTimeSettings.frameHeightDB = frameScale;
    return tqNoError;
}

TqStatus TqDevice::SetRealTimeWindow(TqWindowType window) {
    realTimeSettings.window = window;
    return tqNoError;
}

TqStatus TqDevice::SetIQDataType(TqDataType dataType) {
    iqSettings.dataType = dataType;
    return tqNoError;
}

TqStatus TqDevice::SetIQCenterFreq(double centerFreqHz) {
    if (!std::isfinite(centerFreqHz)) return tqInvalidParameterErr;
    iqSettings.centerFreq = centerFreqHz;
    return tqNoError;
}

TqStatus TqDevice::GetIQCenterFreq(double& centerFreqHz) const {
    centerFreqHz = iqSettings.centerFreq;
    return tqNoError;
}

TqStatus TqDevice::SetIQSampleRate(int decimation) {
    iqSettings.decimation = decimation;
    return tqNoError;
}

TqStatus TqDevice::SetIQSoftwareFilter(TqBool enabled) {
    iqSettings.softwareFiltering = enabled == tqTrue;
    return tqNoError;
}

TqStatus TqDevice::SetIQBandwidth(double bandwidth) {
    if (!std::isfinite(bandwidth)) return tqInvalidParameterErr;
    iqSettings.bandwidth = bandwidth;
    return tqNoError;
}

TqStatus TqDevice::SetIQExtTriggerEdge(TqTriggerEdge edge) {
    iqSettings.extTriggerEdge = edge;
    return tqNoError;
}

TqStatus TqDevice::SetIQQueueSize(int units) {
    return ClampedStatus(StoreClamped(iqSettings.queueSize, units, MIN_IQ_QUEUE_SIZE, MAX_IQ_QUEUE_SIZE));
}

TqStatus TqDevice::SetIQSweepListDataType(TqDataType dataType) {
    iqSweepListSettings.dataType = dataType;
    return tqNoError;
}

TqStatus TqDevice::SetIQSweepListCorrected(TqBool corrected) {
    iqSweepListSettings.fullScale = corrected == tqFalse;
    return tqNoError;
}

TqStatus TqDevice::SetIQSweepListSteps(int steps) {
    if (steps < 1 || steps > MAX_SWEEP_LIST_STEPS) return tqInvalidParameterErr;
    iqSweepListSettings.steps.resize(static_cast<size_t>(steps));
    return tqNoError;
}

TqStatus TqDevice::GetIQSweepListSteps(int& steps) const {
    steps = static_cast<int>(iqSweepListSettings.steps.size());
    return tqNoError;
}

// The step at an index that came from outside, or null.
TqIQSweepListStep* TqDevice::SweepListStep(int step) {
    auto& steps = iqSweepListSettings.steps;
    return step >= 0 && step < static_cast<int>(steps.size()) ? &steps[static_cast<size_t>(step)] : nullptr;
}

TqStatus TqDevice::SetIQSweepListFreq(int step, double freq) {
    TqIQSweepListStep* const s = SweepListStep(step);
    if (s == nullptr || std::isnan(freq)) return tqInvalidParameterErr;
    return ClampedStatus(StoreClamped(s->freq, freq, MIN_FREQ_HZ, MAX_FREQ_HZ));
}

TqStatus TqDevice::SetIQSweepListRef(int step, double level) {
    TqIQSweepListStep* const s = SweepListStep(step);
    if (s == nullptr || std::isnan(level)) return tqInvalidParameterErr;
    s->atten = MIN_ATTEN;
    return ClampedStatus(StoreClamped(s->ref, level, MIN_LIST_REF_DBM, MAX_REF_LEVEL_DBM));
}

TqStatus TqDevice::SetIQSweepListAtten(int step, int atten) {
    TqIQSweepListStep* const s = SweepListStep(step);
    if (s == nullptr) return tqInvalidParameterErr;
    return ClampedStatus(StoreClamped(s->atten, atten, MIN_ATTEN, MAX_ATTEN));
}

TqStatus TqDevice::SetIQSweepListSampleCount(int step, uint32_t samples) {
    TqIQSweepListStep* const s = SweepListStep(step);
    if (s == nullptr) return tqInvalidParameterErr;
    constexpr uint32_t MOST = std::numeric_limits<int>::max();  // what the record can hold
    s->samples = static_cast<int>(std::min(samples, MOST));
    return ClampedStatus(samples > MOST);
}

TqStatus TqDevice::SetAudioCenterFreq(double centerFreqHz) {
    if (std::isnan(centerFreqHz)) return tqInvalidParameterErr;
    return ClampedStatus(StoreClamped(audioSettings.center, centerFreqHz, MIN_FREQ_HZ, MAX_FREQ_HZ));
}

TqStatus TqDevice::SetAudioType(TqAudioType audioType) {
    audioSettings.audioType = audioType;
    return tqNoError;
}

TqStatus TqDevice::SetAudioFilters(double ifBandwidth, double audioLpf, double audioHpf) {
    if (AnyNaN({ifBandwidth, audioLpf, audioHpf})) return tqInvalidParameterErr;
    bool clamped = StoreClamped(audioSettings.ifBandwidth, ifBandwidth, MIN_AUDIO_BANDWIDTH, MAX_AUDIO_BANDWIDTH);
    clamped |= StoreClamped(audioSettings.audioLpf, audioLpf, MIN_AUDIO_LPF, MAX_AUDIO_LPF);
    clamped |= StoreClamped(audioSettings.audioHpf, audioHpf, MIN_AUDIO_HPF, MAX_AUDIO_HPF);
    return ClampedStatus(clamped);
}

TqStatus TqDevice::SetAudioFMDeemphasis(double deemphasis) {
    if (std::isnan(deemphasis)) return tqInvalidParameterErr;
    return ClampedStatus(StoreClamped(audioSettings.fmDeemphasis, deemphasis, MIN_FM_DEEMPHASIS, MAX_FM_DEEMPHASIS));
}

TqStatus TqDevice::SetIQFullBandLO(double freq) {
    if (std::isnan(freq)) return tqInvalidParameterErr;
    StoreClamped(iqFullBandLOFreq, freq, MIN_FULL_BAND_LO, MAX_FULL_BAND_LO);
    return tqNoError;
}

// --- What was configured, and its data ---

TqStatus TqDevice::GetSweepSettings(TqSweepSettings& settings) const {
    if (currentMode != tqModeSweeping) return tqInvalidConfigurationErr;
    settings = sweepSettings;
    return tqNoError;
}

TqStatus TqDevice::GetRealTimeSettings(TqRealTimeSettings& settings) const {
    if (currentMode != tqModeRealTime) return tqInvalidConfigurationErr;
    settings = realTimeSettings;
    return tqNoError;
}

TqStatus TqDevice::GetIQParameters(double* sampleRate, double* bandwidth) const {
    if (currentMode != tqModeIQStreaming) return tqInvalidConfigurationErr;
    if (sampleRate != nullptr) *sampleRate = iqSettings.actualSampleRate;
    if (bandwidth != nullptr) *bandwidth = iqSettings.actualBandwidth;
    return tqNoError;
}

TqStatus TqDevice::GetSweep(float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch) {
    return DataCall([&] {
        TqStatus status = tqInvalidConfigurationErr;
        if (engineSweep != nullptr) {
            engineSweep->StartSweep();
            status = engineSweep->FinishSweep(sweepMin, sweepMax, nsSinceEpoch);
        } else if (engineSweepNarrow != nullptr) {
            status = engineSweepNarrow->GetSweep(sweepMin, sweepMax, nsSinceEpoch);
        } else {
            return status;
        }
        if (callers.AreBeingEnded()) return status == tqConnectionLostErr ? status : tqInvalidConfigurationErr;

        // The engine delivers whatever its status is, so the curve goes on in any case. It covers the first bins only.
        const int length = static_cast<int>(lowFreqCurve.size());
        for (float* const row : {sweepMin, sweepMax}) {
            if (row == nullptr || length == 0) continue;
            if (lowFreqCurveLog) {
                ippsAdd_32f(row, lowFreqCurve.data(), row, length);
            } else {
                ippsMul_32f(row, lowFreqCurve.data(), row, length);
            }
        }
        return status;
    });
}

TqStatus TqDevice::GetRealTimeFrame(float* colorFrame, float* alphaFrame, float* sweepMin, float* sweepMax,
                                    int* frameCount, int64_t* nsSinceEpoch) {
    return DataCall([&] {
        TqRealTimeFrame frame{colorFrame, alphaFrame, sweepMin, sweepMax};
        const TqStatus status =
            engineRealTime != nullptr ? engineRealTime->GetFrame(&frame) : tqInvalidConfigurationErr;
        if (frameCount != nullptr) *frameCount = frame.frameCount;
        if (nsSinceEpoch != nullptr) *nsSinceEpoch = frame.time;
        return status;
    });
}

TqStatus TqDevice::GetIQ(void* buffer, int bufferSize, double* triggers, int triggerBufSize, int64_t* nsSinceEpoch,
                         TqBool purge, int* sampleLoss, int* samplesRemaining) {
    return DataCall([&] {
        if (currentMode != tqModeIQStreaming) return tqInvalidConfigurationErr;
        return engineIQ->GetIQ(buffer, bufferSize, triggers, triggerBufSize, nsSinceEpoch, purge, sampleLoss,
                               samplesRemaining);
    });
}

TqStatus TqDevice::GetIQCorrection(float& scale) {
    const Callers::Guest guest(callers);
    if (!guest || currentMode != tqModeIQStreaming) return tqInvalidConfigurationErr;
    scale = engineIQ->GetIQScalar();
    return tqNoError;
}

TqStatus TqDevice::GetAudio(float* audio) {
    return DataCall([&] {
        if (engineAudio == nullptr) return tqInvalidConfigurationErr;
        const TqStatus status = engineAudio->GetAudio(audio);
        const bool ended = status == tqInvalidConfigurationErr;
        return ended && usb->TransferStatus() != tqNoError ? usb->TransferStatus() : status;
    });
}

TqStatus TqDevice::CaptureFullBand(double freq, float* dst) {
    if (std::isnan(freq)) return tqInvalidParameterErr;
    const Ending ending(*this);
    {
        const Lock held(settingsLock);
        SetIQFullBandLO(freq);
    }
    TqStatus status = ConfigureAlone(static_cast<TqMode>(tqModeIQFullBand));
    if (status == tqNoError) status = engineIQFullBand->GetIQ(dst);
    DestroyEngines();
    return status;
}

TqStatus TqDevice::GetIQFullBand(float* dst) {
    return DataCall([&] {
        if (engineIQFullBand == nullptr) return tqInvalidConfigurationErr;
        return engineIQFullBand->GetIQ(dst);
    });
}

TqStatus TqDevice::IQSweepListGetSweep(void* dst, int64_t* timestamps) {
    return DataCall([&] {
        if (engineIQSweepList == nullptr) return tqInvalidConfigurationErr;
        return engineIQSweepList->GetSweep(dst, timestamps);
    });
}

TqStatus TqDevice::IQSweepListBeginSweep(int pos, void* dst, int64_t* timestamps) {
    return DataCall([&] {
        if (engineIQSweepList == nullptr) return tqInvalidConfigurationErr;
        return engineIQSweepList->StartSweep(pos, dst, timestamps);
    });
}

// No turn: the sweep is under way, and others may be started and finished meanwhile.
TqStatus TqDevice::IQSweepListFinishSweep(int pos) {
    const Callers::Guest guest(callers);
    if (!guest || currentMode != tqModeIQSweepList) return tqInvalidConfigurationErr;
    return engineIQSweepList->FinishSweep(pos);
}

TqStatus TqDevice::IQSweepListGetCorrections(float* factors) {
    const Callers::Guest guest(callers);
    if (!guest || currentMode != tqModeIQSweepList) return tqInvalidConfigurationErr;
    return engineIQSweepList->GetCorrections(factors);
}
