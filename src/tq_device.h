// TqDevice, the object behind one open handle: the connection, the calibration, the settings of every mode, the
// readers of aux packets and the running engine. The exports of tq_api.cpp forward to it, engines call back into it
// with the aux packets that they receive. Any thread may call it at any time (callers.h): data calls and commands take
// turns, stops send the waiting home, readings and getters answer at once. The settings have settingsLock, which the
// exports take. UpdateAuxData(const AuxData*) also runs on the USB thread of an engine.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "aux_reader.h"
#include "callers.h"
#include "gps_file_writer.h"
#include "tq720_config.h"
#include "tq_api.h"
#include "tq_correction_def.h"
#include "tq_corrections.h"
#include "tq_settings.h"
#include "vk_critical_section.h"

class DeviceInterface;
class EngineAudio;
class EngineIQ;
class EngineIQFullBand;
class EngineIQSweepList;
class EngineRealTime;
class EngineSweep;
class EngineSweepNarrow;
class TqCommand;

// The service capture of the whole converter band: a mode for the mode machine, unknown to applications.
inline constexpr int tqModeIQFullBand = 100;

inline constexpr uint64_t MAX_AUX_UPDATE_RATE_MS = 1000;  // aux data this old or younger are not fetched again
inline constexpr double BASE_BAUD_RATE = 81920000.0;      // clock of the UART, [Hz]
inline constexpr int MAX_UART_DIVIDER = 32768;
inline constexpr int MAX_SWEEP_LIST_STEPS = 1000;

// What tqGetIQ writes into the unused slots of a trigger array. One value for the process.
extern std::atomic<double> g_triggerSentinelValue;

// As the instrument reports them; zero until the first aux packet.
struct TqVersionInfo {
    int bootFx3Version = 0;
    int runFx3Version = 0;
    int fpgaVersion = 0;
};

class TqDevice {
public:
    // Takes over a connected interface, loads the calibration record and the start value of the timebase. Sends
    // nothing. May throw std::bad_alloc.
    explicit TqDevice(std::unique_ptr<DeviceInterface> interface);
    ~TqDevice();
    TqDevice(const TqDevice&) = delete;
    TqDevice& operator=(const TqDevice&) = delete;

    // Every member below that returns a TqStatus may throw std::bad_alloc unless it says otherwise; the exports turn
    // that into tqAllocationErr. Members that talk to the instrument block for a USB transfer, at most 2 s each, and
    // return the transfer status, which stays tqConnectionLostErr from the first failure on.

    // --- Lifecycle and modes ---

    // First bring-up after the connection, 50 ms and more. tqInvalidCalData: usable, but the calibration record
    // failed its check. tqConnectionLostErr: host and instrument are out of step, and the instrument was restarted. A
    // failed transfer shows at the next call that reads the transfer status.
    TqStatus InitializeDevice();

    // Stops the engine and puts the instrument in standby. tqNoError whatever the instrument answered. Whoever still
    // waits for a turn gets tqInvalidDeviceErr.
    TqStatus CloseDevice();

    // Stops the engine, to idle; a data call of another thread ends with tqInvalidConfigurationErr first. tqNoError.
    TqStatus Abort();

    // Restarts the instrument, which drops it off the bus; 3 s. Stops no engine: Abort comes first. tqNoError.
    TqStatus Preset();

    // Stops the running engine, wakes the instrument, takes its temperature for the corrections, writes the timebase,
    // plans `mode` and starts its engine. Any failure leaves the device idle: tqInvalidParameterErr for a mode without
    // a planner (tqModeIdle included), tqAllocationErr, tqConnectionLostErr. Doesn't throw for want of memory for an
    // engine.
    TqStatus Configure(TqMode mode);

    TqStatus GetCurrentMode(TqMode& mode) const;  // tqNoError
    bool IsIdle() const { return currentMode == tqModeIdle; }

    // The streaming gate: while a mode streams without pause, or a pass through an I/Q sweep list is under way, the
    // endpoints belong to the engine and nothing else may use them. Asked by who has the turn.
    bool CanSendCommand() const;

    // tqNoError when `state` is the present one, else tqInvalidConfigurationErr at a closed gate. Waking takes 50 ms.
    TqStatus SetPowerState(TqPowerState state);
    TqStatus GetPowerState(TqPowerState& state) const;  // tqNoError

    // --- Aux data ---

    // Fetches one aux packet now. Only at an open gate, by who has the turn.
    TqStatus UpdateAuxData();

    // The one door for all aux packets, called by UpdateAuxData() and by the USB threads of the engines: readers,
    // versions, and the timebase value when the instrument steers it from GPS. A packet without the magic number only
    // sets the framing flag; null does nothing. Has the GPS file written at a move of the timebase, without waiting.
    void UpdateAuxData(const AuxData* aux);

    // Whether the last aux packet lacked its magic number. Any thread.
    bool HasFramingIssues() const { return hasFramingErr; }

    // Readings refresh at an open gate. Beside a call that uses the endpoints they don't: the last values must do.

    // [V], [A], [degrees Celsius]; null outputs are skipped. Refreshes at most once a second.
    TqStatus GetDeviceDiagnostics(float* voltage, float* current, float* temperature);
    TqStatus GetGPSState(TqGPSState& state);  // refreshes likewise; tqNoError when it did not

    // Fix and text of the GPS receiver. Refreshes when `refresh` is tqTrue.
    //   updated  out, whether text has come since the last call; null: skipped
    //   nmea     out, zero-terminated text; *nmeaLen in: its room, out: what was written; null: skipped
    TqStatus GetGPSInfo(TqBool refresh, TqBool* updated, TqGPSInfo& info, char* nmea, int* nmeaLen);
    bool HasDithering() const { return readerStatus.HasDitheringADC(); }  // by the last aux packet
    TqStatus GetFanSettings(float* setPoint, float* voltage);             // refreshes always; null outputs are skipped

    int GetSerialNumber() const;
    TqVersionInfo GetVersionInfo() const;
    TqStatus GetCalInfo(uint32_t& lastCalDate) const;  // seconds since the epoch, low 32 bits; tqNoError

    // --- Side ports and timebase: sent to the instrument at once ---

    TqStatus SetGPIOPort(TqGPIOFunction func);         // idle only, else tqInvalidConfigurationErr
    TqStatus GetGPIOPort(TqGPIOFunction& func) const;  // tqNoError
    TqStatus SetUARTBaudRate(float rate);              // [baud]; silently clamped; NaN is rejected; idle only
    TqStatus GetUARTBaudRate(float& rate) const;       // as the divider achieves it; tqNoError
    TqStatus WriteUARTDirect(uint8_t data);            // gate, and the port must be TqGPIOFunctionUARTDirect
    TqStatus SetFanSetPoint(float setPoint);           // [degrees Celsius], finite; gate
    TqStatus SetReference(TqReference reference);      // gate
    TqStatus GetReference(TqReference& reference) const;
    TqStatus SetGPSTimebaseUpdate(TqBool enabled);  // gate
    TqStatus GetGPSTimebaseUpdate(TqBool& enabled) const;
    TqStatus GetGPSHoldOverInfo(TqBool* usingGPSHoldover, uint32_t* lastHoldoverTime) const;  // null outputs skipped
    TqStatus WriteToGPS(std::span<const uint8_t> bytes);                                      // gate

    // Timebase DAC value, free of the offset that follows the unit's temperature.
    TqStatus GetCoarseTuneVal(uint16_t* ticks) const;  // tqNoError
    TqStatus SetCoarseTuneVal(uint16_t ticks);         // gate

    // --- Settings: stored, in every mode; they take effect at the next Configure. Under settingsLock ---
    // tqSettingClamped: a value was limited and the call took effect. tqInvalidParameterErr: nothing was stored. A
    // value that is not finite is never stored: a setter that clamps takes infinities as beyond the limit.

    TqRFSettings GetRFConfig() const { return rfConfig; }
    void SetRFConfig(const TqRFSettings& config) { rfConfig = config; }

    TqStatus SetSweepStartStop(double start, double stop);  // start below stop, else rejected; then 9 kHz to 15 GHz
    TqStatus SetSweepCoupling(double rbw, double vbw, double sweepTime);  // rbw above 0; vbw rbw/10000 to rbw
    TqStatus SetSweepDetector(TqDetector detector, TqVideoUnits videoUnits);
    TqStatus SetSweepScale(TqScale scale);
    TqStatus SetSweepWindow(TqWindowType window);
    TqStatus SetSweepGPIOSwitching(std::span<const double> freqs, std::span<const uint8_t> data);  // of equal length
    TqStatus SetSweepGPIOSwitchingDisabled();

    TqStatus SetRealTimeCenterSpan(double center, double span);
    TqStatus SetRealTimeRBW(double rbw);
    TqStatus SetRealTimeDetector(TqDetector detector);
    TqStatus SetRealTimeScale(TqScale scale, double frameRef, double frameScale);
    TqStatus SetRealTimeWindow(TqWindowType window);

    TqStatus SetIQDataType(TqDataType dataType);
    TqStatus SetIQCenterFreq(double centerFreqHz);
    TqStatus GetIQCenterFreq(double& centerFreqHz) const;
    TqStatus SetIQSampleRate(int decimation);  // the frame has checked it: a power of two, 1 to 8192
    TqStatus SetIQSoftwareFilter(TqBool enabled);
    TqStatus SetIQBandwidth(double bandwidth);
    TqStatus SetIQExtTriggerEdge(TqTriggerEdge edge);
    TqStatus SetIQQueueSize(int units);

    // The setters of a step reject an index outside the list.
    TqStatus SetIQSweepListDataType(TqDataType dataType);
    TqStatus SetIQSweepListCorrected(TqBool corrected);
    TqStatus SetIQSweepListSteps(int steps);  // 1 to MAX_SWEEP_LIST_STEPS
    TqStatus GetIQSweepListSteps(int& steps) const;
    TqStatus SetIQSweepListFreq(int step, double freq);
    TqStatus SetIQSweepListRef(int step, double level);  // also puts the step's attenuator back to automatic
    TqStatus SetIQSweepListAtten(int step, int atten);
    TqStatus SetIQSweepListSampleCount(int step, uint32_t samples);

    TqStatus SetAudioCenterFreq(double centerFreqHz);
    TqStatus SetAudioType(TqAudioType audioType);
    TqStatus SetAudioFilters(double ifBandwidth, double audioLpf, double audioHpf);
    TqStatus SetAudioFMDeemphasis(double deemphasis);

    TqStatus SetIQFullBandLO(double freq);  // clamps, and answers tqNoError all the same

    // The settings, `corrections`, and what tells of both. Held by Configure while it plans, and only for moments
    // besides. Taken behind a turn, never in front of one.
    CriticalSection settingsLock;

    // --- What was configured, and its data: tqInvalidConfigurationErr in any other mode ---

    TqStatus GetSweepSettings(TqSweepSettings& settings) const;
    TqStatus GetRealTimeSettings(TqRealTimeSettings& settings) const;
    TqStatus GetIQParameters(double* sampleRate, double* bandwidth) const;  // null outputs are skipped

    // Data calls wait for their turn. One that another thread ends answers tqInvalidConfigurationErr, the transfer
    // status if that is an error, and leaves its buffers as they are.

    // One whole sweep, blocking until it is complete, also when it is ended. Each output may be null: sweepSize floats,
    // [ns since the epoch].
    TqStatus GetSweep(float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch);

    // The next real-time frame, blocking until it is finished; images and sweeps as of EngineRealTime::GetFrame. Each
    // output may be null. In another mode number and time are 0.
    TqStatus GetRealTimeFrame(float* colorFrame, float* alphaFrame, float* sweepMin, float* sweepMax, int* frameCount,
                              int64_t* nsSinceEpoch);

    // The next samples of the stream, blocking until they are there; arguments as of EngineIQ::GetIQ.
    TqStatus GetIQ(void* iqBuf, int iqBufSize, double* triggers, int triggerBufSize, int64_t* nsSinceEpoch,
                   TqBool purge, int* sampleLoss, int* samplesRemaining);
    TqStatus GetIQCorrection(float& scale);  // factor from tqDataType16sc samples to the corrected scale

    // The next block of audio, blocking until it is there; as EngineAudio::GetAudio.
    TqStatus GetAudio(float* audio);

    // One full-band capture at this LO, which ends whatever runs and leaves the device idle; dst as of
    // EngineIQFullBand::GetIQ.
    TqStatus CaptureFullBand(double freq, float* dst);

    // One full-band capture in its mode; argument likewise.
    TqStatus GetIQFullBand(float* dst);

    // Passes over the list; arguments as of EngineIQSweepList. Begin waits for its turn, Finish for nobody.
    TqStatus IQSweepListGetSweep(void* dst, int64_t* timestamps);
    TqStatus IQSweepListBeginSweep(int pos, void* dst, int64_t* timestamps);
    TqStatus IQSweepListFinishSweep(int pos);
    TqStatus IQSweepListGetCorrections(float* factors);  // out, one for each step

    // --- State ---
    // Atomic: written by UpdateAuxData(const AuxData*) on an engine's thread, or by who has the turn, while others
    // read.

    std::atomic<bool> hasFramingErr{false};
    std::atomic<TqMode> currentMode{tqModeIdle};
    std::atomic<TqPowerState> powerState{tqPowerStateStandby};  // last state commanded
    std::atomic<uint64_t> lastAuxUpdate{0};                     // GetSystemTicks() of the last good aux packet
    std::atomic<uint16_t> lastCoarseTuneNormalized{32768};      // timebase DAC value without the unit's offset
    std::atomic<uint16_t> lastCoarseTune{32768};                // what the DAC was given, or reports under GPS
    std::unique_ptr<DeviceInterface> usb;                       // declared before the engine: it outlives it
    TqCorrections corrections;
    std::atomic<TqReference> referenceState{tqReferenceUseInternal};
    std::atomic<TqGPIOFunction> gpioFunction{TqGPIOFunctionTrigIn};
    std::atomic<TqBool> autoGPSTimebaseUpdate{tqFalse};  // the instrument disciplines its timebase from GPS
    std::atomic<int> UARTDivider{164};                   // BASE_BAUD_RATE / UARTDivider is the rate: 499.5 kBaud
    Tq720Config deviceConfig;
    TqRFSettings rfConfig;
    TqSweepSettings sweepSettings;
    TqRealTimeSettings realTimeSettings;
    TqIQSettings iqSettings;
    TqIQSweepListSettings iqSweepListSettings;
    TqAudioSettings audioSettings;
    double iqFullBandLOFreq = 0.0;
    std::vector<GPIOSweepStep> gpioSweepSteps;  // ascending in freq
    std::vector<float> lowFreqCurve;            // one value per bin of the sweep below the curve's last point
    bool lowFreqCurveLog = true;                // in dB and added; false: linear and multiplied
    AuxReaderStatus readerStatus;
    AuxReaderTrigger readerTrigger;
    AuxReaderGPS readerGPS;
    std::vector<uint8_t> iqBuf;  // memory of the I/Q ring, kept from one engine to the next

private:
    // While one lives nobody else is inside; the constructor sends them home.
    struct Ending : Callers::Ending {
        explicit Ending(TqDevice& device) : Callers::Ending(device.callers, [&device] { device.SendHome(); }) {}
    };

    bool Streams() const;
    void SendHome();
    template <class Call>
    TqStatus DataCall(Call&& call);
    template <class Send>
    TqStatus Command(bool (TqDevice::*allowed)() const, Send&& send);
    TqStatus Refresh(bool always);
    TqStatus ConfigureAlone(TqMode mode);
    TqStatus Switch(TqPowerState state);
    TqStatus WriteTimebase(uint16_t ticks);
    bool TakeAuxData(const AuxData* aux, TqGPSCal& learned);
    TqStatus PlanMode(TqMode mode);
    TqStatus ConfigureModeSweep();
    TqStatus ConfigureModeSweepNarrow();
    TqStatus ConfigureModeIQStreaming(TqDataType dataType);
    TqStatus ConfigureModeAudio();
    TqStatus ConfigureModeRealTime();
    TqStatus ConfigureModeIQSweepList();
    TqStatus ConfigureModeIQFullBand();
    void LoadLowFreqCurve();
    void DestroyEngines();
    TqIQSweepListStep* SweepListStep(int step);
    void ClearLowFreqCurve();
    bool AuxDataIsDue() const;
    bool BringUp();
    TqStatus UpdateDeviceTimebase();
    TqStatus SendGPSDOCommand();
    TqStatus SendDirect(TqCommand& command);

    Callers callers;
    std::atomic<bool> closed = false;  // CloseDevice has been here

    // auxLock guards copies of these between UpdateAuxData(const AuxData*) and the client; nothing blocks under it.
    mutable CriticalSection auxLock;
    TqVersionInfo verInfo TQ_GUARDED_BY(auxLock);
    TqGPSCal gpsCal TQ_GUARDED_BY(auxLock);        // the GPS timebase value last stored or read
    std::unique_ptr<GPSFileWriter> gpsFileWriter;  // outlives the engines, which post to it

    // At most one, but for the audio mode: EngineAudio reads from EngineIQ, and goes first.
    std::unique_ptr<EngineSweep> engineSweep;
    std::unique_ptr<EngineSweepNarrow> engineSweepNarrow;
    std::unique_ptr<EngineRealTime> engineRealTime;
    std::unique_ptr<EngineIQ> engineIQ;
    std::unique_ptr<EngineIQSweepList> engineIQSweepList;
    std::unique_ptr<EngineAudio> engineAudio;
    std::unique_ptr<EngineIQFullBand> engineIQFullBand;
};
