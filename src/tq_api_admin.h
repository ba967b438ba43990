/*
 * libtq_api, service interface: what calibration and production tools need beside tq_api.h.
 *
 * This header is for C++ only: its functions take references and are exported under mangled names. It needs tq_api.h
 * and the standard library alone. Three families:
 *
 *   tqCal    works on a calibration record in the caller's memory and needs no device. Any thread.
 *   tqAdmin  takes a handle of tqOpenDevice, with the rules of tq_api.h for handles and threads. A bad handle is
 *            tqInvalidDeviceErr before all other checks.
 *   tqBoot   opens one instrument in its boot program and works on its flash. See below.
 *
 * tqBoot functions print to standard output: a line "Writing Page" and "Verifying Page" with its number for all that is
 * written but single pages, "Erasing Page" while the FPGA program is cleared, "Fail to boot due to checksum error".
 */
#ifndef TQ_API_ADMIN_H
#define TQ_API_ADMIN_H

#ifndef __cplusplus
#error "tq_api_admin.h is a C++ header"
#endif

#include <cstdint>

#include "tq_api.h"

/* One tick of the timebase DAC in parts per billion. */
constexpr double TQ_PPB_PER_TICK = 0.25;

/* Dimensions of the calibration record. */
constexpr int TQ720_CAL_TEMPS = 7;         /* calibration temperatures */
constexpr int TQ720_CAL_ATTENS = 7;        /* attenuator settings, 5 dB apart */
constexpr int TQ720_CAL_LO_STEPS = 490;    /* LO steps 1 to 490 on the 30.72 MHz grid, at index step - 1 */
constexpr int TQ720_CAL_IF_POINTS = 13;    /* points across the IF, 3.84 MHz apart */
constexpr int TQ720_CAL_FINE_STEPS = 4000; /* LO positions on the 3.84 MHz grid, at their own index */
constexpr int TQ720_CAL_TIMEBASES = 64;    /* entries in the timebase history */
constexpr int TQ720_CAL_PAD_BYTES = 1240824;

/* Nominal grid of the calibration temperatures, [degrees Celsius]. */
constexpr double TQ720_START_TEMP = -30.0;
constexpr double TQ720_TEMP_STEP = 15.0;

/** Where corrections take their temperature from. */
enum TqCorrectionMode TQ_AS_INT {
    tqCorrectionModeNormal = 0, /* interpolated over the measured temperature */
    tqCorrectionModeCal = 1     /* the one temperature plane that the service tool has chosen */
};

/** Temperature coverage of a calibration, as its record states it. */
enum TqTempRange TQ_AS_INT {
    tqTempRangeUnknown = -1,
    tqTempRangeRoomTemp = 0,
    tqTempRangeStd = 1,
    tqTempRangeExt = 2,
    tqTempRangeNotSet = 3
};

/**
 * The calibration record of one instrument: 2 MiB, little-endian, the same bytes in flash, in the cache file and in
 * memory. There is no padding but the named one.
 *
 *    offset  field                   meaning
 *         0  magicNumber             0xF0000000
 *         4  calVersion              format; only version 1 carries a checksum, in others it is 0
 *         8  serialNumber            not read by the host
 *        16  calDate                 [s] since the Unix epoch; all ones: no corrections
 *        24  tempRange               0, 1, 2 as TqTempRange; 0xFFFFFFFF: not set
 *        28  checksum                sum, modulo 2^32, of all 32-bit words from offset 672 on
 *        32  timebaseCorr            timebase DAC values in order of measurement; 0xFFFF ends the list
 *       160  timebaseTimestamps      [s] since the Unix epoch, one for each entry of timebaseCorr
 *       672  timebaseTempCurve       DAC ticks to add, per temperature
 *       688  measuredTemps           [degrees Celsius] of each calibration temperature, ascending
 *       716  roughAttens             rough attenuator value, per LO step
 *      1208  rfCorrections           [dB] by temperature, attenuator, LO step
 *     97248  iqImbalanceAmp          power ratio of I to Q, by temperature, LO step, IF point
 *    275608  iqImbalancePhase        phase between I and Q in radians, same indices
 *    453968  iqFlatnessAmp           IF flatness in dB, same indices
 *    632328  iqImbalanceAmpOffset    power ratio of I to Q, by temperature and fine LO step
 *    744328  iqImbalancePhaseOffset  phase between I and Q in radians, same indices
 *    856328  pad
 */
struct TQ720CalData {
    uint32_t magicNumber;
    uint32_t calVersion;
    uint32_t serialNumber;
    uint8_t padAfterSerial[4];
    uint64_t calDate;
    uint32_t tempRange;
    uint32_t checksum;
    uint16_t timebaseCorr[TQ720_CAL_TIMEBASES];
    uint64_t timebaseTimestamps[TQ720_CAL_TIMEBASES];
    int16_t timebaseTempCurve[TQ720_CAL_TEMPS];
    uint8_t padAfterTempCurve[2];
    float measuredTemps[TQ720_CAL_TEMPS];
    uint8_t roughAttens[TQ720_CAL_LO_STEPS];
    uint8_t padAfterRoughAttens[2];
    float rfCorrections[TQ720_CAL_TEMPS][TQ720_CAL_ATTENS][TQ720_CAL_LO_STEPS];
    float iqImbalanceAmp[TQ720_CAL_TEMPS][TQ720_CAL_LO_STEPS][TQ720_CAL_IF_POINTS];
    float iqImbalancePhase[TQ720_CAL_TEMPS][TQ720_CAL_LO_STEPS][TQ720_CAL_IF_POINTS];
    float iqFlatnessAmp[TQ720_CAL_TEMPS][TQ720_CAL_LO_STEPS][TQ720_CAL_IF_POINTS];
    float iqImbalanceAmpOffset[TQ720_CAL_TEMPS][TQ720_CAL_FINE_STEPS];
    float iqImbalancePhaseOffset[TQ720_CAL_TEMPS][TQ720_CAL_FINE_STEPS];
    uint8_t pad[TQ720_CAL_PAD_BYTES];
};

/** Nominal temperature [degrees Celsius] of a calibration temperature; an index outside 0 to 6 gives the nearer end. */
TQ_API double tqCalGetTempFromIndex(int tempIndex);

/**
 * Fills c with the neutral record, which corrects nothing and stands in where an instrument has none: calDate all
 * ones, no timebase history, measuredTemps NaN, imbalances and gains flat. A null c does nothing.
 */
TQ_API void tqCalBuildDummyCorrections(TQ720CalData* c);

/**
 * The newest date of a record, [s] since the Unix epoch: calDate or a later entry of the timebase history. Reads the
 * first 672 bytes only, so the beginning of a record is enough. A null c gives 0.
 */
TQ_API uint64_t tqCalGetCorrectionCalDate(const TQ720CalData* c);

/** True unless calDate is all ones, as in erased flash and in the neutral record; a null c gives false. */
TQ_API bool rvCalDoesCorrectionsExist(const TQ720CalData* c);

/**
 * Copies the data of one calibration temperature onto another and sets the measured temperature of the copy as far
 * from its source as the nominal grid has it. Does nothing when an index lies outside 0 to 6 or both are the same.
 */
TQ_API void tqCalPropagateSingleTempCal(TQ720CalData& c, int srcIndex, int dstIndex);

/**
 * Reads a record from a file. True when the whole 2097152 bytes came; their contents are not checked. False for a
 * null argument, an unreadable file or one too short, which may leave a part of it in c.
 */
TQ_API bool tqCalCorrectionLoadFromFile(const char* fileName, TQ720CalData* c);

/* --- Calibrating an open instrument ---
 *
 * tqAdminSetCorrectionMode(tqCorrectionModeCal), tqAdminSetCorrectionIndex with the temperature plane in work,
 * tqConfigure to apply both, measurements, then tqCorrectionModeNormal and another tqConfigure.
 */

/** The temperature coverage that the instrument's record states. tqNullPtrErr. */
TQ_API TqStatus tqAdminGetTempRange(int device, TqTempRange* tempRange);

/** Whether the ADC has dithering, by the last aux packet; sends nothing. */
TQ_API TqStatus tqAdminHasDithering(int device, bool& hasDithering);

/** Where corrections take their temperature from; at the next tqConfigure. tqInvalidParameterErr. */
TQ_API TqStatus tqAdminSetCorrectionMode(int device, TqCorrectionMode newCorrectionMode);

/** The temperature plane of tqCorrectionModeCal, 0 to 6, else the nearer end and tqSettingClamped; likewise. */
TQ_API TqStatus tqAdminSetCorrectionIndex(int device, int newCalIndex);

/**
 * Copies a record over the one that the device works with, until it is closed. Neither flash nor cache file changes,
 * and what is configured keeps what it was planned with. tqNullPtrErr.
 */
TQ_API TqStatus tqAdminManualLoadCorrections(int device, const TQ720CalData* calData);

/** Whether the instrument itself came with a calibration record. tqNullPtrErr. */
TQ_API TqStatus tqAdminDeviceHasCorrections(int device, bool* hasCorrections);

/**
 * The timebase DAC [ticks of TQ_PPB_PER_TICK], without the offset that follows the temperature. Get answers in every
 * mode with the value last written or taken from GPS; tqNullPtrErr. Set writes at once: tqInvalidConfigurationErr while
 * a mode streams, tqConnectionLostErr.
 */
TQ_API TqStatus tqAdminGetCoarseTuneVal(int device, uint16_t* ticks);
TQ_API TqStatus tqAdminSetCoarseTuneVal(int device, uint16_t ticks);

/* Samples of one full-band capture. */
constexpr int TQ_FULL_BAND_SAMPLES = 8192;

/**
 * Takes one capture of the whole converter band, 122.88 million samples a second, without any correction. Stops what
 * runs and leaves the device idle.
 *   LOFreq  in, [Hz], limited to 3.84 MHz to 19.2 GHz
 *   dst     out, TQ_FULL_BAND_SAMPLES pairs of I and Q, -1.0 to 1.0 at full scale
 * tqNullPtrErr and, for a LOFreq that is no number, tqInvalidParameterErr stop nothing. tqConnectionLostErr: dst holds
 * no samples of this capture.
 */
TQ_API TqStatus tqAdminGetFullBandIQ(int device, double LOFreq, float* dst);

/* --- Boot program and flash ---
 *
 * One instrument at a time, with handle 0, beside those that tqOpenDevice has opened. All calls block, on one thread.
 * A full update: tqBootOpenDeviceBySerial; of each area that is wanted, in any order, clear and write; then
 * tqBootCloseDevice, after which tqOpenDevice finds the instrument with its new programs and its new calibration.
 *
 * Flash is 64 MiB in pages of TQ_FLASH_PAGE_BYTES; page numbers wrap. Writing only turns ones into zeros, so an area is
 * cleared first. Every write reads back what it wrote. A failed call leaves the area half done: close, open, clear and
 * write again. `progress` runs towards 1.0 and stands where a failed call stopped; another thread may read it meanwhile
 * through std::atomic_ref.
 *
 * Of all that take a handle: tqDeviceNotFoundErr without an open boot device, else tqInvalidDeviceErr for a handle
 * other than 0, unless told otherwise; then tqNullPtrErr.
 */
constexpr int TQ_FLASH_PAGE_BYTES = 1024;
constexpr int TQ_FLASH_READ_BYTES = 32768; /* one read, 32 pages */

/**
 * For an instrument whose controller holds no firmware: downloads some from a file. Not supported on Linux:
 * tqDeviceNotFoundErr. tqMaxDevicesConnectedErr comes before tqNullPtrErr.
 */
TQ_API TqStatus tqBootStrap(int* device, const char* fileName);

/**
 * Opens the first instrument that is attached and not open. tqDeviceNotFoundErr when there is none, or when it runs its
 * run program. tqNullPtrErr, tqMaxDevicesConnectedErr: a boot device is open.
 */
TQ_API TqStatus tqBootOpenDevice(int* bootHandle);

/**
 * Opens the instrument with this serial number; from its run program it is restarted, 3 s. One that this process has
 * open by tqOpenDevice is tqDeviceNotFoundErr, as is one that does not come back.
 */
TQ_API TqStatus tqBootOpenDeviceBySerial(int* bootHandle, int serialNumber);

/** Restarts the instrument, 3 s, and frees the handle. tqInvalidDeviceErr for any handle that is not open. */
TQ_API TqStatus tqBootCloseDevice(int bootHandle);

/** Checks a handle other than 0 first: tqInvalidDeviceErr. */
TQ_API TqStatus tqBootGetSerial(int bootHandle, int* serialNumber);

/** Clears, 2 s, the area of a firmware image. tqInternalFlashErr. */
TQ_API TqStatus tqBootClearBootSector(int device);
TQ_API TqStatus tqBootClearRunSector(int device);

/**
 * Write a firmware image with the instrument's serial number in it, 0 to 99999999, else tqInvalidParameterErr. For the
 * run program a serialNumber below 1 stands for that of the open instrument. An image with a wrong checksum is written
 * as it is, without a serial number, after a line on standard output.
 * tqInternalFileIOErr, before flash is touched: the file cannot be read or is larger than 256 KiB; it does not begin
 * with "CY", its sections do not end within it, or it has no place for a serial number; for the boot program also, it
 * names no version or does not leave its last two bytes free.
 * A page that cannot be written or verified is tqInternalFileIOErr for the boot, tqInternalFlashErr for the run
 * program.
 */
TQ_API TqStatus tqBootWriteBootSector(int device, const char* fileName, int serialNumber);
TQ_API TqStatus tqBootWriteRunSector(int device, const char* fileName, int serialNumber);

/** Clear 2 MiB each, in 16 s. progress begins at 0.0 and ends at 0.875. tqInternalFlashErr. */
TQ_API TqStatus tqBootClearFPGAProgram(int device, double& progress);
TQ_API TqStatus tqBootClearCorrections(int device, double& progress);

/**
 * Writes a file of at most 2 MiB, 40 s. progress is added to: the caller starts it at 0.0. tqInternalFileIOErr, before
 * flash is touched, for a file that cannot be read, is larger, or holds nothing but 0xFF. tqInternalFlashErr.
 */
TQ_API TqStatus tqBootWriteFPGAProgram(int device, const char* fileName, double& progress);

/**
 * Writes the calibration record, 2 MiB at dataRaw, unchecked; progress likewise. Success also removes this user's
 * cached copy of the old record. tqInternalFileIOErr: a page could not be written or verified.
 */
TQ_API TqStatus tqBootWriteCorrections(int device, const uint8_t* dataRaw, double& progress);

/** Single pages: TQ_FLASH_PAGE_BYTES out, TQ_FLASH_READ_BYTES in, 256 pages cleared. tqInternalFlashErr. */
TQ_API TqStatus tqBootWriteFlashPage(int bootHandle, int page, const uint8_t* src);
TQ_API TqStatus tqBootReadFlashPage(int bootHandle, int page, uint8_t* dst);
TQ_API TqStatus tqBootClearFlashPage(int bootHandle, int page);

#endif /* TQ_API_ADMIN_H */
