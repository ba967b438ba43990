/*
 * libtq_api: the host library of the TQ720 real-time spectrum analyser, 9 kHz to 15 GHz.
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
    tqSweepAlreadyActiveErr = -8,   /* this place of the sweep list is in flight already */
    tqBootErr = -7,                 /* the instrument did not start up */
    tqFramingErr = -6,              /* the data stream of the instrument is out of step: configure again */
    tqConnectionLostErr = -5,       /* a USB transfer failed: close and open again */
    tqInvalidDeviceErr = -4,        /* the handle is out of range or not open */
    tqNullPtrErr = -3,              /* a required pointer is null */
    tqInvalidParameterErr = -2,     /* an argument is out of range; nothing was stored */
    tqDeviceNotFoundErr = -1,       /* no such instrument, or none that is free */
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

/**
 * Serial numbers of the attached instruments that this process has not open.
 *   serials      out, up to *deviceCount of them
 *   deviceCount  in: room in serials; out: how many were written. Negative: both stay as they are, tqNoError.
 */
TQ_API TqStatus tqGetDeviceList(int* serials, int* deviceCount);

/** A short English text; "Unknown error" for a value without a name. */
TQ_API const char* tqGetErrorString(TqStatus status);

/** "major.minor.revision" of this library. */
TQ_API const char* tqGetAPIVersion(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TQ_API_H */
