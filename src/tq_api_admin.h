/*
 * libtq_api, service interface: what calibration and production tools need beside tq_api.h.
 *
 * This header is for C++ only: its functions take references and are exported under mangled names. It needs tq_api.h
 * and the standard library alone. The tqCal functions work on a calibration record in the caller's memory and need no
 * device; they may be called from any thread.
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
enum TqCorrectionMode {
    tqCorrectionModeNormal = 0, /* interpolated over the measured temperature */
    tqCorrectionModeCal = 1     /* the one temperature plane that the service tool has chosen */
};

/** Temperature coverage of a calibration, as its record states it. */
enum TqTempRange {
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

#endif /* TQ_API_ADMIN_H */
