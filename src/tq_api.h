/*
 * libtq_api: the host library of the TQ720 real-time spectrum analyser, 9 kHz to 15 GHz.
 *
 * This header is C99 and C++. It is all that an application needs; calibration and production tools also include
 * tq_api_admin.h.
 *
 * HANDLES
 *   tqOpenDevice and tqOpenDeviceBySerial give a handle, 0 to 8, and up to nine instruments can be open at once. A
 *   handle names a place in a table: after tqCloseDevice its number may be given to the next instrument that is
 *   opened. There is nothing to initialise before the first call, and no exit call.
 *
 * ORDER OF CALLS
 *   1. tqGetDeviceList (optional), then tqOpenDevice or tqOpenDeviceBySerial.
 *   2. The setters of the mode wanted, and tqSetRefLevel or tqSetAttenuator. They only store: settings belong to the
 *      handle, keep their values from mode to mode, and reach the instrument at the next tqConfigure.
 *   3. tqConfigure(device, mode), which plans the mode and starts it.
 *   4. tqGetSweepParameters, tqGetRealTimeParameters or tqGetIQParameters for what was really configured. The sizes
 *      that they give are the sizes of the application's buffers.
 *   5. The data calls of the mode, as often as wanted.
 *   6. To change anything: 2 and 3 again. tqConfigure stops the running mode first.
 *   7. tqAbort returns to idle; tqCloseDevice ends.
 *   The calls under "Reference, ports and UART", "GPS" and "State of the instrument" act at once instead.
 *
 * STATUS
 *   Below 0 the call did not do what was asked; 0 is success; above 0 the call did its work, with a reservation. Test
 *   `status < 0` for failure. Each function checks, in this order and before it does anything else, its handle
 *   (tqInvalidDeviceErr), the pointers that it requires (tqNullPtrErr), and the range of its other arguments
 *   (tqInvalidParameterErr). These are not repeated below, and every function that takes a device can also answer
 *   tqAllocationErr. Outputs that are called optional are skipped when null.
 *   tqConnectionLostErr, from any call that talks to the instrument, is final: the handle stays valid, but only
 *   tqCloseDevice and a new open bring the instrument back. An open that answers it has restarted the instrument or
 *   found its flash unreadable: open again.
 *   tqFramingErr: an aux packet did not begin as it must. One damaged packet passes. When the next call says so, too,
 *   the stream is out of step: tqCloseDevice and a new open. A sweep judges by its own aux packet, a pass through a
 *   list by any of its own and the last; a stream (real time, I/Q) by the last that came before the call, so that a
 *   wrong packet followed by a right one is not told of.
 *
 * OUTPUTS ON FAILURE
 *   They stay as they are, with these exceptions. tqGetDeviceDiagnostics, tqGetGPSState and tqGetGPSInfo write the last
 *   reading whatever the instrument answers. Data calls deliver their data with a warning and with tqFramingErr, too.
 *   With tqConnectionLostErr, and with tqInvalidConfigurationErr when the mode was ended under the call, their outputs
 *   are not defined; tqGetAudio writes zeros when the connection is lost.
 *
 * THREADS
 *   Any thread may make any call. Calls on different handles run in parallel; listing, opening and closing overlap with
 *   everything on other handles. On one handle:
 *   - tqAbort, tqConfigure, tqCloseDevice and tqPresetDevice may be called while another thread is inside any call. A
 *     blocked data call then ends with tqInvalidConfigurationErr, or tqConnectionLostErr if the link was lost, and
 *     touches its buffers no more once the ending call has returned. A sweep in progress is brought to its end first:
 *     the ending call waits for it. Who arrives while the mode is being ended gets tqInvalidConfigurationErr, who
 *     arrives behind the close tqInvalidDeviceErr. A closed handle's number may by then be another instrument's.
 *   - Setters and getters of settings answer at once. Readings (diagnostics, fan, GPS) do so beside a running data
 *     call, with the last reading instead of a new one.
 *   - All other calls take turns in the order of arrival. A second data call waits for the first; a call that sends
 *     something (reference, ports, fan, GPS, power) waits for the sweep that runs, where the gate below lets it through
 *     at all. But tqIQSweepListStartSweep and tqIQSweepListFinishSweep, one caller a position, never wait for each
 *     other.
 *
 * TIME
 *   A silent instrument is found out by a USB time-out of 2 s. Data calls answer within 3 s of the silence, real-time
 *   frames with the next one; a reading can meet two time-outs, of its command and of its answer. Once the link is lost
 *   no call waits for the instrument again, but the first that ends the mode or closes the handle, which still tries to
 *   stop it: up to 5 s.
 *
 * TIME STAMPS
 *   Of a sweep: the end of its last sample. Of tqGetIQ: the first sample of the call, filter delays allowed for.
 *   Of a step of an I/Q sweep list: its first sample. These are GPS time, in ticks of 8 ns, while the receiver has a
 *   fix, and run on from it by the instrument's clock when it is lost; without a fix since the open they begin with the
 *   host's clock at the open and run by the instrument's, and do not follow later changes of the host's. Of a real-time
 *   frame: the host's clock when it was finished.
 *
 * THE STREAMING GATE
 *   While tqModeRealTime, tqModeIQStreaming or tqModeAudio runs, the instrument takes no other commands. "Gated" below
 *   means tqInvalidConfigurationErr in these modes; calls that would refresh a reading answer with the last one. The
 *   same holds while a pass through an I/Q sweep list is under way.
 *
 * UNITS
 *   Frequencies and bandwidths in Hz, times in seconds, levels in dBm, temperatures in degrees Celsius, time stamps
 *   (nsSinceEpoch) in nanoseconds since the Unix epoch. NaN is rejected with tqInvalidParameterErr by all but
 *   tqSetIQTriggerSentinel. Infinities are limited like other large values by tqSetRefLevel upwards, tqSetUARTBaudRate,
 *   tqSetRealTimeCenterSpan, tqSetRealTimeRBW, the setters of a list's step and of audio, and rejected by all others.
 *
 * SAMPLES
 *   A corrected sample of type tqDataType32fc is scaled so that re^2 + im^2 is its power in mW: the level is
 *   10 log10(re^2 + im^2) dBm. A sample of type tqDataType16sc has gone through the same tuning and filters, but is not
 *   corrected; full scale is 32768. Divided by that and multiplied by the factor of tqGetIQCorrection, or of the step's
 *   in tqIQSweepListGetCorrections, it is a corrected one.
 *
 * STANDARD OUTPUT
 *   A reading that fails prints "Aux data xfer failed". The other four texts belong to tq_api_admin.h: "Writing Page",
 *   "Verifying Page" and "Erasing Page" with its number, and "Fail to boot due to checksum error".
 */
#ifndef TQ_API_H
#define TQ_API_H

#include <stdint.h>

#if defined(__GNUC__)
#define TQ_API __attribute__((visibility("default")))
#else
#define TQ_API
#endif

/* In C++, too, an enumeration takes any int: a wrong value is an error that is reported, not undefined behaviour. */
#ifdef __cplusplus
#define TQ_AS_INT : int
#else
#define TQ_AS_INT
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum TqStatus TQ_AS_INT {
    tqInternalFlashErr = -101,      /* a flash operation of a service tool failed */
    tqInternalFileIOErr = -100,     /* a file of a service tool could not be read or written */
    tqAllocationErr = -11,          /* not enough memory, or a thread could not be started */
    tqMaxDevicesConnectedErr = -10, /* nine instruments are open already */
    tqInvalidConfigurationErr = -9, /* the running mode forbids the call, or it needs a mode that is not running */
    tqSweepAlreadyActiveErr = -8,   /* a position of the sweep list is in flight, or, to finish it, is not */
    tqBootErr = -7,                 /* the instrument did not start up */
    tqFramingErr = -6,              /* a wrong aux packet; if it stays, out of step: close and open again */
    tqConnectionLostErr = -5,       /* a USB transfer failed or came short: close and open again */
    tqInvalidDeviceErr = -4,        /* the handle is out of range or not open */
    tqNullPtrErr = -3,              /* a required pointer is null */
    tqInvalidParameterErr = -2,     /* an argument is out of range; nothing was stored */
    tqDeviceNotFoundErr = -1,       /* no such instrument, or it is open already */
    tqNoError = 0,
    tqSettingClamped = 1, /* a setter stored the nearest possible value instead */
    tqTempDrift = 2,      /* 3 degrees or more since tqConfigure: configure again for accurate levels */
    tqADCOverflow = 3,    /* the converter clipped: raise the reference level or the attenuator */
    tqUncalData = 4,      /* data was lost on the way to the host: levels may be wrong */
    tqCPULimited = 5,     /* the host could not keep up */
    tqInvalidCalData = 6  /* opened, but the calibration record failed its check: levels are not to be trusted */
} TqStatus;

typedef enum TqBool TQ_AS_INT { tqFalse = 0, tqTrue = 1 } TqBool;

typedef enum TqMode TQ_AS_INT {
    tqModeIdle = 0,
    tqModeSweeping = 1,
    tqModeRealTime = 2,
    tqModeIQStreaming = 3,
    tqModeIQSweepList = 4,
    tqModeAudio = 5
} TqMode;

typedef enum TqPowerState TQ_AS_INT { tqPowerStateOn = 0, tqPowerStateStandby = 1 } TqPowerState;

/** How the spectra of one stretch of samples become one: their mean, or their lowest and highest values. */
typedef enum TqDetector TQ_AS_INT { tqDetectorAverage = 0, tqDetectorMinMax = 1 } TqDetector;

/** Unit of the amplitudes: dBm, millivolts at 50 ohms, or relative to the converter's full scale, uncorrected. */
typedef enum TqScale TQ_AS_INT { tqScaleLog = 0, tqScaleLin = 1, tqScaleFullScale = 2 } TqScale;

/** The unit in which detector and video filter work. tqVideoSample: a single spectrum, without either. */
typedef enum TqVideoUnits TQ_AS_INT {
    tqVideoLog = 0,
    tqVideoVoltage = 1,
    tqVideoPower = 2,
    tqVideoSample = 3
} TqVideoUnits;

typedef enum TqWindowType TQ_AS_INT {
    tqWindowFlatTop = 0,
    tqWindowNutall = 1,
    tqWindowBlackman = 2,
    tqWindowHamming = 3,
    tqWindowGaussian6dB = 4,
    tqWindowRect = 5
} TqWindowType;

/** A complex sample as two floats, or as two 16-bit integers, real part first. */
typedef enum TqDataType TQ_AS_INT { tqDataType32fc = 0, tqDataType16sc = 1 } TqDataType;
typedef enum TqTriggerEdge TQ_AS_INT { tqTriggerEdgeRising = 0, tqTriggerEdgeFalling = 1 } TqTriggerEdge;

/** Locked: the receiver has a fix. Disciplined: the timebase follows it, too. */
typedef enum TqGPSState TQ_AS_INT {
    tqGPSStateNotPresent = 0,
    tqGPSStateLocked = 1,
    tqGPSStateDisciplined = 2
} TqGPSState;
typedef enum TqReference TQ_AS_INT { tqReferenceUseInternal = 0, tqReferenceUseExternal = 1 } TqReference;

/** What the GPIO port does. UARTSweep: sweeps send the bytes of tqSetSweepGPIOSwitching. */
typedef enum TqGPIOFunction TQ_AS_INT {
    TqGPIOFunctionTrigIn = 0,
    TqGPIOFunctionPPSOut = 1,
    TqGPIOFunctionLogicOutLow = 2,
    TqGPIOFunctionLogicOutHigh = 3,
    TqGPIOFunctionUARTDirect = 4,
    TqGPIOFunctionUARTSweep = 5,
    TqGPIOFunctionUARTDoppler = 6
} TqGPIOFunction;

typedef enum TqAudioType TQ_AS_INT {
    tqAudioTypeAM = 0,
    tqAudioTypeFM = 1,
    tqAudioTypeUSB = 2,
    tqAudioTypeLSB = 3,
    tqAudioTypeCW = 4
} TqAudioType;

/* ---- Texts: no device, never null, never freed ---- */

/** A short English text; "Unknown error" for a value without a name. */
TQ_API const char* tqGetErrorString(TqStatus status);

/** "major.minor.revision" of this library. */
TQ_API const char* tqGetAPIVersion(void);

/* ---- Device list and lifecycle ---- */

/**
 * Serial numbers of the attached instruments that this process has not open.
 *   serials      out, up to *deviceCount of them
 *   deviceCount  in: room in serials; out: how many were written. Negative: both stay as they are, tqNoError.
 */
TQ_API TqStatus tqGetDeviceList(int* serials, int* deviceCount);

/** Opens the first instrument of the list that no other program has open. Answers as tqOpenDeviceBySerial. */
TQ_API TqStatus tqOpenDevice(int* device);

/**
 * Opens an instrument: brings it to its run program, loads its calibration, switches it on. A fraction of a second
 * when a copy of the calibration is at hand in the user's home folder, about 15 seconds the first time.
 *   device  out, the handle; untouched on failure
 * tqInvalidCalData comes with a valid handle. tqMaxDevicesConnectedErr, tqDeviceNotFoundErr (also of an instrument that
 * is open already, here or in another program, which is left alone), tqBootErr, tqConnectionLostErr: nothing is open.
 */
TQ_API TqStatus tqOpenDeviceBySerial(int* device, int serialNumber);

/** Stops the running mode, puts the instrument in standby and frees the handle. tqNoError even if it is unplugged. */
TQ_API TqStatus tqCloseDevice(int device);

/** Restarts the instrument and closes the handle; open it again afterwards. Blocks for 6 s. */
TQ_API TqStatus tqPresetDevice(int device);

/* ---- State of the instrument ---- */

/**
 * Standby or on; tqConfigure wakes by itself. Gated, except for the state that it is in already. In a sweep or list
 * mode data calls go on without a status: their data are noise from standby until the next tqConfigure.
 */
TQ_API TqStatus tqSetPowerState(int device, TqPowerState powerState);
TQ_API TqStatus tqGetPowerState(int device, TqPowerState* powerState);

TQ_API TqStatus tqGetSerialNumber(int device, int* serialNumber);

/**
 * Not one version but three, each packed as its program has it: major is the boot program's and minor the run
 * program's, of 16 bits, rev the FPGA's, of 32.
 */
TQ_API TqStatus tqGetFirmwareVersion(int device, int* major, int* minor, int* rev);

/** Supply [V] and [A] and temperature; each optional. Fetches when the last reading is more than a second old. */
TQ_API TqStatus tqGetDeviceDiagnostics(int device, float* voltage, float* current, float* temperature);

/** Date of the calibration, seconds since the Unix epoch; 0xFFFFFFFF: none. */
TQ_API TqStatus tqGetCalDate(int device, uint32_t* lastCalDate);

/** Temperature at which the fan starts, limited to 0 to 60 degrees in steps of 1/16. Gated. */
TQ_API TqStatus tqSetFanSetPoint(int device, float setPoint);

/** The instrument's set point and the fan's voltage [V]; each optional. Fetches, unless gated. */
TQ_API TqStatus tqGetFanSettings(int device, float* setPoint, float* voltage);

/* ---- Reference, ports and UART ---- */

/** 10 MHz reference, internal at first. Gated. */
TQ_API TqStatus tqSetReference(int device, TqReference reference);
TQ_API TqStatus tqGetReference(int device, TqReference* reference);

/** Trigger input at first. tqInvalidConfigurationErr unless idle. */
TQ_API TqStatus tqSetGPIOPort(int device, TqGPIOFunction func);
TQ_API TqStatus tqGetGPIOPort(int device, TqGPIOFunction* func);

/**
 * 81.92 MHz divided by 1 to 32768: any rate but a NaN is taken and silently limited to that, 499512 baud at first.
 * tqInvalidConfigurationErr unless idle.
 */
TQ_API TqStatus tqSetUARTBaudRate(int device, float rate);

/** The rate that the divider really gives. */
TQ_API TqStatus tqGetUARTBaudRate(int device, float* rate);

/** Sends one byte. Gated, and tqInvalidConfigurationErr unless the port is TqGPIOFunctionUARTDirect. */
TQ_API TqStatus tqWriteUARTDirect(int device, uint8_t data);

/* ---- GPS ---- */

/** Lets the instrument steer its timebase from GPS; off at first. Gated. */
TQ_API TqStatus tqSetGPSTimebaseUpdate(int device, TqBool enabled);
TQ_API TqStatus tqGetGPSTimebaseUpdate(int device, TqBool* enabled);

/**
 * Whether the timebase runs on a value learned from GPS that is newer than the calibration, and when that was learned
 * (seconds since the Unix epoch, 0: never). Each optional.
 */
TQ_API TqStatus tqGetGPSHoldoverInfo(int device, TqBool* usingGPSHoldover, uint32_t* lastHoldoverTime);

/** Fetches when the last reading is more than a second old. */
TQ_API TqStatus tqGetGPSState(int device, TqGPSState* GPSState);

/**
 * The last fix and the newest text of the receiver; every output is optional. Without a fix the values are 0.
 *   refresh    tqTrue: fetch now, unless gated
 *   updated    out, whether text has come since the last call
 *   secSinceEpoch        out, the second that began with the last PPS edge
 *   latitude, longitude  out, degrees, south and west negative
 *   altitude   out, metres
 *   nmea       out, zero-terminated NMEA text; needs nmeaLen
 *   nmeaLen    in: room in nmea, 2049 for any text; out: bytes written with the zero. Below 1: nothing is written
 */
TQ_API TqStatus tqGetGPSInfo(int device, TqBool refresh, TqBool* updated, int64_t* secSinceEpoch, double* latitude,
                             double* longitude, double* altitude, char* nmea, int* nmeaLen);

/** Sends len bytes, at least 1, to the receiver, filled up with zeros to a multiple of four. Gated. */
TQ_API TqStatus tqWriteToGPS(int device, const uint8_t* mem, int len);

/* ---- Level, shared by all modes ---- */

/** Expected top of the signal range, up to 20 dBm (clamped); -20 at first. Chooses the attenuator if that is -1. */
TQ_API TqStatus tqSetRefLevel(int device, double refLevel);
TQ_API TqStatus tqGetRefLevel(int device, double* refLevel);

/** Steps of 5 dB, 0 to 6 (clamped); -1, as at first, chooses by the reference level. */
TQ_API TqStatus tqSetAttenuator(int device, int atten);
TQ_API TqStatus tqGetAttenuator(int device, int* atten);

/* ---- Sweep settings ---- */

/** 9 kHz to 15 GHz (clamped), the whole range at first; a start that is not below the stop is rejected. */
TQ_API TqStatus tqSetSweepStartStop(int device, double startFreqHz, double stopFreqHz);
TQ_API TqStatus tqSetSweepCenterSpan(int device, double centerFreqHz, double spanHz);

/**
 *   rbw        resolution bandwidth, above 0; 30 kHz at first
 *   vbw        video bandwidth, from rbw / 10000 to rbw (clamped); 30 kHz at first
 *   sweepTime  wanted duration, 1e-6, as at first, to 100 s (clamped): a longer one averages more, a short one is as
 *              short as can be
 * The host has room for the samples of three tuning steps of 30.72 MHz, and of the sweep up to 400 MB: a second of
 * sweepTime takes 1.5 GB for a span within one step, 0.7 GB for one in two. Spans below 5 MHz keep the whole sweep at
 * a decimated rate: 61 MB a second at 4.9 MHz, 2 MB at 100 kHz. What does not fit is tqAllocationErr of tqConfigure.
 */
TQ_API TqStatus tqSetSweepCoupling(int device, double rbw, double vbw, double sweepTime);

/** tqDetectorAverage and tqVideoPower at first. */
TQ_API TqStatus tqSetSweepDetector(int device, TqDetector detector, TqVideoUnits videoUnits);

/** tqScaleLog at first. */
TQ_API TqStatus tqSetSweepScale(int device, TqScale scale);

/** tqWindowFlatTop at first. */
TQ_API TqStatus tqSetSweepWindow(int device, TqWindowType window);

/**
 * Bytes for sweeps to send from the UART on their way, with the port at TqGPIOFunctionUARTSweep: data[i] goes out
 * before the first tuning step above freqs[i], and between two steps only the highest entry. Any order; copied.
 *   freqs, data  in, count of each
 *   count        below 1: as tqSetSweepGPIOSwitchingDisabled, and the arrays may be null
 */
TQ_API TqStatus tqSetSweepGPIOSwitching(int device, double* freqs, uint8_t* data, int count);
TQ_API TqStatus tqSetSweepGPIOSwitchingDisabled(int device);

/* ---- Real-time settings ---- */

/** Centre 9 kHz to 15 GHz, span 200 kHz to 40 MHz (clamped); 1 GHz and 40 MHz at first. */
TQ_API TqStatus tqSetRealTimeCenterSpan(int device, double centerFreqHz, double spanHz);

/** 2 kHz to 1 MHz (clamped); 30 kHz at first. */
TQ_API TqStatus tqSetRealTimeRBW(int device, double rbw);

/** tqDetectorMinMax at first. */
TQ_API TqStatus tqSetRealTimeDetector(int device, TqDetector detector);

/**
 * Unit of the sweeps; level at the top of the frame [dBm] and, with tqScaleLog, its height [dB]. tqScaleLog, 0 and 100
 * at first. The frame of tqScaleLin begins at 0 mV; that of tqScaleFullScale has all hits in its lowest row.
 */
TQ_API TqStatus tqSetRealTimeScale(int device, TqScale scale, double frameRef, double frameScale);

/** tqWindowNutall at first. */
TQ_API TqStatus tqSetRealTimeWindow(int device, TqWindowType window);

/* ---- I/Q settings ---- */

/** tqDataType32fc at first. */
TQ_API TqStatus tqSetIQDataType(int device, TqDataType dataType);

/**
 * 1 GHz at first. Any finite number is stored, but 9 kHz to 15 GHz alone make sense: what cannot be tuned to gives the
 * samples of another frequency, without a status.
 */
TQ_API TqStatus tqSetIQCenterFreq(int device, double centerFreqHz);
TQ_API TqStatus tqGetIQCenterFreq(int device, double* centerFreqHz);

/** Sample rate 61.44 MHz / decimation, a power of two from 1, as at first, to 8192. */
TQ_API TqStatus tqSetIQSampleRate(int device, int decimation);

/** On at first. Of no effect from decimation 8 on, where the host's filters make the rate. */
TQ_API TqStatus tqSetIQSoftwareFilter(int device, TqBool enabled);

/**
 * Width of the software filter, 40 MHz at first. Any finite number; tqConfigure limits it, from 1 kHz to 41.5 MHz
 * or, decimated, to 50 MHz / decimation, and tqGetIQParameters tells. Without the software filter it has no effect.
 */
TQ_API TqStatus tqSetIQBandwidth(int device, double bandwidth);

/** Rising at first. */
TQ_API TqStatus tqSetIQExtTriggerEdge(int device, TqTriggerEdge edge);

/** USB transfers kept in flight, 2 to 16 (clamped); 16 at first. Fewer shorten the delay, more ride out load. */
TQ_API TqStatus tqSetIQQueueSize(int device, int units);

/**
 * What tqGetIQ writes into unused places of a trigger array, for all devices; any value, tqNoError. It is 0 at first,
 * which is also the position of a trigger at the first sample: set -1 to tell them apart.
 */
TQ_API TqStatus tqSetIQTriggerSentinel(double sentinelValue);

/* ---- I/Q sweep list settings: the setters of a step reject an index that is not in the list ---- */

/** tqDataType32fc at first. */
TQ_API TqStatus tqSetIQSweepListDataType(int device, TqDataType dataType);

/** tqTrue, as at first: samples corrected for level; tqFalse: relative to full scale. */
TQ_API TqStatus tqSetIQSweepListCorrected(int device, TqBool corrected);

/** 1 to 1000 steps, 0 at first. Steps that stay keep their settings; new ones: 1 GHz, -20 dBm, 1000000 samples. */
TQ_API TqStatus tqSetIQSweepListSteps(int device, int steps);
TQ_API TqStatus tqGetIQSweepListSteps(int device, int* steps);

/** 9 kHz to 15 GHz (clamped). */
TQ_API TqStatus tqSetIQSweepListFreq(int device, int step, double freq);

/** -100 to 20 dBm (clamped); puts the step's attenuator back to -1. */
TQ_API TqStatus tqSetIQSweepListRef(int device, int step, double level);

/** -1 to 6 (clamped), as tqSetAttenuator. */
TQ_API TqStatus tqSetIQSweepListAtten(int device, int step, int atten);

/** Complex samples at 61.44 MHz, up to 2147483647 (clamped); a step of 0 gives its time stamp alone. */
TQ_API TqStatus tqSetIQSweepListSampleCount(int device, int step, uint32_t samples);

/* ---- Audio settings: tqConfigure writes audio's centre, rate and bandwidth over those of I/Q, where they stay ---- */

/** 9 kHz to 15 GHz (clamped); 97.1 MHz at first. */
TQ_API TqStatus tqSetAudioCenterFreq(int device, double centerFreqHz);

/** tqAudioTypeFM at first. To and from tqAudioTypeCW at the next tqConfigure; between others at the next block. */
TQ_API TqStatus tqSetAudioType(int device, TqAudioType audioType);

/**
 * All clamped.
 *   ifBandwidth  500 Hz to 250 kHz, 200 kHz at first
 *   audioLpf     1 to 12 kHz, 12 kHz at first
 *   audioHpf     20 Hz to 1 kHz, 100 Hz at first
 */
TQ_API TqStatus tqSetAudioFilters(int device, double ifBandwidth, double audioLpf, double audioHpf);

/** Time constant in microseconds, 1 to 100 (clamped); 75 at first. */
TQ_API TqStatus tqSetAudioFMDeemphasis(int device, double deemphasis);

/* ---- Mode control ---- */

/**
 * Stops the running mode, wakes the instrument if need be, fits all corrections to its present temperature and starts
 * `mode`. Blocks for the planning, a fraction of a second for the widest sweep. On failure the device is idle:
 * tqInvalidParameterErr (a mode that cannot be run; tqModeIdle too: tqAbort is the way to idle),
 * tqInvalidConfigurationErr (an I/Q sweep list without steps), tqAllocationErr (an RBW, a sweep time or a list that
 * takes more memory than there is), tqConnectionLostErr. A value that is no mode at all is rejected before anything is
 * stopped.
 */
TQ_API TqStatus tqConfigure(int device, TqMode mode);
TQ_API TqStatus tqGetCurrentMode(int device, TqMode* mode);

/** Stops the running mode. tqNoError, also when idle. */
TQ_API TqStatus tqAbort(int device);

/* ---- Parameters of the running mode: every output of the first three is optional ---- */

/**
 *   actualRBW, actualVBW  out, as achieved
 *   actualStartFreq       out, frequency of bin 0
 *   binSize               out, distance of two bins
 *   sweepSize             out, bins of a sweep: the floats in each buffer for tqGetSweep
 * tqInvalidConfigurationErr unless tqModeSweeping runs.
 */
TQ_API TqStatus tqGetSweepParameters(int device, double* actualRBW, double* actualVBW, double* actualStartFreq,
                                     double* binSize, int* sweepSize);

/**
 *   sweepSize                out, bins of the sweeps
 *   frameWidth, frameHeight  out, size of the frames
 *   poi                      out, duration from which on a signal is caught at its full level wherever it begins
 * tqInvalidConfigurationErr unless tqModeRealTime runs.
 */
TQ_API TqStatus tqGetRealTimeParameters(int device, double* actualRBW, int* sweepSize, double* actualStartFreq,
                                        double* binSize, int* frameWidth, int* frameHeight, double* poi);

/**
 *   sampleRate  out, of the samples of tqGetIQ
 *   bandwidth   out, of the software filter
 * tqInvalidConfigurationErr unless tqModeIQStreaming runs.
 */
TQ_API TqStatus tqGetIQParameters(int device, double* sampleRate, double* bandwidth);

/** Factor from full scale to the corrected scale, see SAMPLES. tqInvalidConfigurationErr as tqGetIQParameters. */
TQ_API TqStatus tqGetIQCorrection(int device, float* scale);

/** The same for each step of the list, a float each. tqInvalidConfigurationErr unless tqModeIQSweepList runs. */
TQ_API TqStatus tqIQSweepListGetCorrections(int device, float* corrections);

/* ---- Data: tqInvalidConfigurationErr unless the mode of the call runs, and when it is ended meanwhile ---- */

/**
 * Takes one whole sweep; blocks until it is complete.
 *   sweepMin, sweepMax  out, optional, sweepSize floats each in the unit of tqSetSweepScale, ascending in frequency;
 *                       with tqDetectorAverage both are the same
 *   nsSinceEpoch        out, optional, end of the sweep
 * tqCPULimited, tqTempDrift, tqADCOverflow, tqUncalData: with reservation. tqFramingErr, tqConnectionLostErr.
 */
TQ_API TqStatus tqGetSweep(int device, float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch);

/**
 * The next real-time frame; blocks until it is finished. 30 a second, out of transforms that begin every half of their
 * length and leave no sample out; 40 finished frames wait for the caller, then the oldest are overwritten and
 * frameCount shows the gap. The window of a transform is as long as the RBW asks for, from half of it to all: with
 * tqWindowNutall 4004 of 4096 samples at 31 kHz, so that windows overlap by half, but 4138 of 8192 at 30 kHz, so that
 * they hardly do. What is shorter than poi and falls between two windows shows weaker.
 *   colorFrame, alphaFrame  out, optional, frameWidth x frameHeight floats each, row by row; row 0 holds the lowest
 *                           level, and a column's frequencies are those of sweepSize / frameWidth bins
 *   colorFrame              share of hits of each pixel over the last 39 frames; a whole column is 0.975, and 0.025
 *                           times their number in the first 39 behind tqConfigure
 *   alphaFrame              1.0 where this frame hit, fading to 0.0 with the hits of the last 39
 *   sweepMin, sweepMax      out, optional, sweepSize floats each in the unit of tqSetRealTimeScale: extremes of the
 *                           frame's spectra, or, with tqDetectorAverage, twice their average
 *   frameCount              out, optional, running number of the frame from 0 on; 0 without a frame
 *   nsSinceEpoch            out, optional, when the frame was finished; 0 without a frame
 * tqTempDrift, tqADCOverflow, tqUncalData: with reservation. tqFramingErr, tqConnectionLostErr.
 */
TQ_API TqStatus tqGetRealTimeFrame(int device, float* colorFrame, float* alphaFrame, float* sweepMin, float* sweepMax,
                                   int* frameCount, int64_t* nsSinceEpoch);

/**
 * The next samples of the stream; blocks until they are there. Half a second of samples waits for the caller: when
 * that fills up all of it is dropped, and what follows is in one piece again.
 *   iqBuf             out, iqBufSize samples of the type of tqSetIQDataType
 *   iqBufSize         complex samples, at least 1
 *   triggers          out, optional, triggerBufSize sample positions in this buffer, unused places as
 *                     tqSetIQTriggerSentinel says; of several triggers within 2.1 ms the last
 *   nsSinceEpoch      out, optional, time of the first sample
 *   purge             tqTrue: drop what has piled up and start with fresh samples
 *   sampleLoss        out, optional, 1 when samples were lost since the last report: before these or among them
 *   samplesRemaining  out, optional, samples that could be had without waiting
 * tqTempDrift, tqADCOverflow, tqUncalData, tqFramingErr: with the samples. tqConnectionLostErr.
 */
TQ_API TqStatus tqGetIQ(int device, void* iqBuf, int iqBufSize, double* triggers, int triggerBufSize,
                        int64_t* nsSinceEpoch, TqBool purge, int* sampleLoss, int* samplesRemaining);

/**
 * One pass through the list; blocks until it is complete.
 *   dst         out, optional, the samples of all steps back to back, as many as tqSetIQSweepListSampleCount has asked
 *               for: 8 bytes each of tqDataType32fc, 4 of tqDataType16sc
 *   timestamps  out, optional, one for each step
 * tqSweepAlreadyActiveErr while any position is in flight. tqTempDrift, tqADCOverflow, tqUncalData: with reservation.
 * tqFramingErr, tqConnectionLostErr.
 */
TQ_API TqStatus tqIQSweepListGetSweep(int device, void* dst, int64_t* timestamps);

/**
 * The same in two halves, with up to 16 passes, pos 0 to 15, in flight, which run in the order of their starts. The
 * start returns at once, tqSweepAlreadyActiveErr if pos is in flight; the finish, in any order, blocks until that pass
 * is complete and has its status, tqSweepAlreadyActiveErr if pos is not in flight. Both buffers are the library's until
 * the finish, or what ended the mode, has returned.
 */
TQ_API TqStatus tqIQSweepListStartSweep(int device, int pos, void* dst, int64_t* timestamps);
TQ_API TqStatus tqIQSweepListFinishSweep(int device, int pos);

/**
 * The next 1000 samples of audio, 30000 a second; blocks until they are there. One second is kept. A caller that falls
 * behind by more still gets as many blocks as were made, at once, out of that second: some twice or more, out of order,
 * and without a status. The one failure that is told is tqConnectionLostErr, at every call from then on.
 *   audio  peaks at full modulation: AM its depth, FM 1.05 for a deviation of half of ifBandwidth, sidebands and CW
 *          about 1
 */
TQ_API TqStatus tqGetAudio(int device, float* audio);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TQ_API_H */
