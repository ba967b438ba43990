// The calibration record and the GPS timebase file as bytes: layout checks, where they lie, and whether a record is
// sound. The record itself and the functions for calibration tools stand in tq_api_admin.h, which service programs
// include; their code is here. Used by DeviceInterface, tq_lib and TqCorrections. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tq_api_admin.h"

inline constexpr uint32_t CAL_MAGIC_NUMBER = 0xF0000000;
inline constexpr uint32_t CAL_VERSION_WITH_CHECKSUM = 1;  // all other versions have a checksum field of 0
inline constexpr size_t CAL_CHECKSUM_START = 672;         // byte; header and timebase history are left out, to grow
inline constexpr uint64_t CAL_DATE_ABSENT = UINT64_MAX;   // calDate of erased flash
inline constexpr uint16_t TIMEBASE_CORR_END = 0xFFFF;     // ends the list in timebaseCorr
inline constexpr uint32_t TEMP_RANGE_NOT_SET = 0xFFFFFFFF;

// The record in flash.
inline constexpr int CAL_DATA_BYTES = 0x200000;
inline constexpr uint32_t CAL_FLASH_ADDRESS = 0x400000;  // first byte
inline constexpr int CAL_FLASH_PAGE = 4096;              // the same in pages of 1024 bytes

static_assert(sizeof(TQ720CalData) == CAL_DATA_BYTES);
static_assert(offsetof(TQ720CalData, magicNumber) == 0);
static_assert(offsetof(TQ720CalData, calVersion) == 4);
static_assert(offsetof(TQ720CalData, serialNumber) == 8);
static_assert(offsetof(TQ720CalData, calDate) == 16);
static_assert(offsetof(TQ720CalData, tempRange) == 24);
static_assert(offsetof(TQ720CalData, checksum) == 28);
static_assert(offsetof(TQ720CalData, timebaseCorr) == 32);
static_assert(offsetof(TQ720CalData, timebaseTimestamps) == 160);
static_assert(offsetof(TQ720CalData, timebaseTempCurve) == CAL_CHECKSUM_START);
static_assert(offsetof(TQ720CalData, measuredTemps) == 688);
static_assert(offsetof(TQ720CalData, roughAttens) == 716);
static_assert(offsetof(TQ720CalData, rfCorrections) == 1208);
static_assert(offsetof(TQ720CalData, iqImbalanceAmp) == 97248);
static_assert(offsetof(TQ720CalData, iqImbalancePhase) == 275608);
static_assert(offsetof(TQ720CalData, iqFlatnessAmp) == 453968);
static_assert(offsetof(TQ720CalData, iqImbalanceAmpOffset) == 632328);
static_assert(offsetof(TQ720CalData, iqImbalancePhaseOffset) == 744328);
static_assert(offsetof(TQ720CalData, pad) == 856328);

// True when the magic number is right and the checksum is what the version asks for. An invalid record is still used;
// the client hears of it.
bool tqCalIsRecordValid(const TQ720CalData& c);

// The GPS timebase file, little-endian:
//   offset  type       meaning
//   0       uint32     MAGIC_NUMBER
//   4       uint32     GPS_FILE_VERSION
//   8       uint64     seconds since the Unix epoch
//   16      uint16     normalised timebase DAC value
//   18      23*uint16  zero
struct TqGPSCalOnFile {
    uint32_t magicNumber;
    uint32_t version;
    uint64_t timeStamp;
    uint16_t voltage;
    uint16_t reserved[23];
};
static_assert(sizeof(TqGPSCalOnFile) == 64);
static_assert(offsetof(TqGPSCalOnFile, version) == 4);
static_assert(offsetof(TqGPSCalOnFile, timeStamp) == 8);
static_assert(offsetof(TqGPSCalOnFile, voltage) == 16);
static_assert(offsetof(TqGPSCalOnFile, reserved) == 18);

inline constexpr uint32_t MAGIC_NUMBER = 0x00677174;  // of the GPS timebase file: the bytes "tqg" and 0
inline constexpr uint32_t GPS_FILE_VERSION = 1;

// The timebase value learned from GPS, in memory.
struct TqGPSCal {
    bool valid = false;
    uint64_t timeStamp = 0;  // [s] since the Unix epoch
    uint16_t voltage = 0;    // normalised timebase DAC value
};
