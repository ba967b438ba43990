// The aux packet that the instrument sends beside its samples, and its three readers: device status, external trigger
// positions, GPS fix and time. TqDevice holds one of each. Update() runs on whichever thread passes aux packets in: the
// USB thread of the running engine, or the client's thread when none streams. The client's thread reads the status and
// the GPS state at any time; everything that the two share is atomic or under AuxReaderGPS::nmeaMutex.
#pragma once

#include "tq_api.h"
#include "vk_critical_section.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr uint32_t AUX_MAGIC_NUMBER = 0x41555831;          // "AUX1" read as a big-endian number
inline constexpr double NS_PER_122M_CLK = 1e9 / 122880000.0;      // nanoseconds per tick of the counters
inline constexpr uint64_t COUNTER_SENTINEL = 0x1000000000000000;  // no counter value yet
inline constexpr int TQ720_TRIG_DELAY_TICKS = 98;                 // trigger path
inline constexpr int TQ720_TRIG_DELAY_DEC_2_TICKS = 78;           // extra at hardware decimation 2 and above
inline constexpr int TQ720_TRIG_DELAY_DEC_4_TICKS = 136;          // further at 4 and above
inline constexpr double TQ_TEMP_WARNING_THRESHOLD = 2.0;          // [degrees C]
inline constexpr int GPS_RING_WORDS = 512;                        // words of AuxData::gpsData that hold text
inline constexpr int GPS_RING_BYTES = GPS_RING_WORDS * 4;         // the same in bytes
inline constexpr uint64_t PPS_TIMEOUT_TICKS = 366000000;          // 2.98 s without an edge: GPS is lost
inline constexpr int RMC_STRINGS = 12;                            // fields kept of an RMC sentence
inline constexpr int GGA_STRINGS = 13;                            // fields kept of a GGA sentence

// Ticks to add to the I/Q counter of a packet for the position of the first sample behind it: 2048 times the hardware
// decimation, less the delay of the trigger path, which grows with the decimation.
int64_t IQCounterDelay(int hwDecimation);

// The aux packet as it comes over the wire, little-endian. Counters tick at 122.88 MHz.
//   offset  0  magicNumber           64  magicNumber2 (not read)
//           4  fpgaVersion           68  switcherVoltage: [0] device voltage reading
//           8  main counter          72  current: [1] device current reading
//          16  at external trigger   76  bootRunFW: [0] run, [1] boot program version
//          24  at PPS edge           80  fanSettings: [0] voltage, [1] threshold reading
//          32  at I/Q position       84  unpopSensor1 (not read)
//          40  gpsBufferPointers     88  tempSensors: [0] device temperature reading
//          44  timebaseDAC           92  sensors (not read)
//          48  statusFlags         4096  gpsData: a ring of GPS_RING_WORDS words of text, then unused
struct AuxData {
    uint32_t magicNumber;
    uint32_t fpgaVersion;
    uint32_t mainCounterLow;
    uint32_t mainCounterHigh;  // 20 bits count
    uint32_t counterAtTriggerLow;
    uint32_t counterAtTriggerHigh;
    uint32_t counterAtPPSLow;
    uint32_t counterAtPPSHigh;
    uint32_t counterAtIQLow;
    uint32_t counterAtIQHigh;
    uint32_t gpsBufferPointers;
    uint32_t timebaseDAC;  // value now in force
    uint32_t statusFlags;
    uint32_t reserved1[3];
    uint32_t magicNumber2;
    uint16_t switcherVoltage[2];
    uint16_t current[2];
    uint16_t bootRunFW[2];
    uint16_t fanSettings[2];
    uint32_t unpopSensor1;
    uint16_t tempSensors[2];
    uint32_t sensors[9];
    uint32_t reserved2[992];
    uint32_t gpsData[1024];

    uint64_t MainCounter() const { return Join(mainCounterHigh & 0xFFFFF, mainCounterLow); }
    uint64_t TriggerCounter() const { return Join(counterAtTriggerHigh, counterAtTriggerLow); }
    uint64_t PPSCounter() const { return Join(counterAtPPSHigh, counterAtPPSLow); }
    uint64_t IQCounter() const { return Join(counterAtIQHigh, counterAtIQLow); }

    static uint64_t Join(uint32_t high, uint32_t low) { return static_cast<uint64_t>(high) << 32 | low; }
};
static_assert(sizeof(AuxData) == 8192);
static_assert(offsetof(AuxData, counterAtIQLow) == 32);
static_assert(offsetof(AuxData, statusFlags) == 48);
static_assert(offsetof(AuxData, magicNumber2) == 64);
static_assert(offsetof(AuxData, switcherVoltage) == 68);
static_assert(offsetof(AuxData, tempSensors) == 88);
static_assert(offsetof(AuxData, sensors) == 92);
static_assert(offsetof(AuxData, reserved2) == 128);
static_assert(offsetof(AuxData, gpsData) == 4096);

// Bits of AuxData::statusFlags.
inline constexpr uint32_t AUX_NO_DITHERING = 0x001;
inline constexpr uint32_t AUX_ADC_OVERFLOW = 0x100;  // the ADC overflowed in the period of this packet
inline constexpr uint32_t AUX_IQ_DATA_LOSS = 0x200;  // I/Q data was lost in the instrument
inline constexpr uint32_t AUX_GPS_TB_LOCKED = 0x400;

// Sensor readings and status flags of the last good packet.
class AuxReaderStatus {
public:
    void Update(const AuxData* aux);
    // Takes the present temperature as the one that the running configuration was computed for.
    void Reconfigure() { lastConfiguredTemp = deviceTemp.load(); }
    // The temperature has moved by 3 degrees or more since Reconfigure().
    bool TempWarning() const;

    float DeviceTemp() const { return deviceTemp; }
    float DeviceVoltage() const { return deviceVoltage; }
    float DeviceCurrent() const { return deviceCurrent; }
    float FanVoltage() const { return fanVoltage; }
    float FanThreshold() const { return fanThreshold; }
    bool GPSTBLocked() const { return (flags & AUX_GPS_TB_LOCKED) != 0; }
    bool IQDataLoss() const { return (flags & AUX_IQ_DATA_LOSS) != 0; }
    bool ADCOverflow() const { return (flags & AUX_ADC_OVERFLOW) != 0; }
    bool HasDitheringADC() const { return (flags & AUX_NO_DITHERING) == 0; }

    std::atomic<float> deviceTemp = 0.0f;          // [degrees C]
    std::atomic<float> deviceVoltage = 0.0f;       // [V]
    std::atomic<float> deviceCurrent = 0.0f;       // [A]
    std::atomic<float> fanVoltage = 0.0f;          // [V]
    std::atomic<float> fanThreshold = 45.0f;       // [degrees C]
    std::atomic<uint32_t> flags = 0;               // AuxData::statusFlags
    std::atomic<float> lastConfiguredTemp = 0.0f;  // deviceTemp at the last configuration
};

// Positions of external triggers. Plain fields: Update() and the engine that reads them share one thread, and
// Configure() and Reset() run while no engine does.
class AuxReaderTrigger {
public:
    // Hardware decimation of the mode, 1, 2 or 4.
    void Configure(int hwDecimation);
    // Forgets all counters. The next packet then only arms the I/Q counter and the one after it takes the trigger
    // baseline, so that a trigger which the instrument latched before is never reported.
    void Reset();
    void Update(const AuxData* aux);

    bool HasExtTrigger() const { return hasExtTrigger; }
    int64_t ExtTrigger() const { return trigger; }

    int decimation = 1;
    uint64_t lastIQCounter = COUNTER_SENTINEL;          // position of the first sample that came with this packet
    bool hasExtTrigger = false;                         // this packet reported a new trigger
    uint64_t lastExtTriggerCounter = COUNTER_SENTINEL;  // last trigger counter seen
    int64_t trigger = 0;         // ticks from the first sample that came with its packet; valid with hasExtTrigger
    int64_t iqCounterDelay = 0;  // [ticks], added to each I/Q counter
};

// The last fix.
struct TqGPSInfo {
    bool valid = false;  // only ever cleared; AuxReaderGPS::IsGPSDataValid() tells whether the position is good
    int64_t secSinceEpoch = 0;
    double latitude = 0.0;   // [degrees], south negative
    double longitude = 0.0;  // [degrees], west negative
    double altitude = 0.0;   // [m]

    void Clear() { *this = TqGPSInfo(); }
};

// Reads the receiver's NMEA text and gives every aux packet an absolute time: from the PPS edge while GPS is valid,
// else by counting ticks from the last such packet, or from the host's clock if there never was one. The state
// survives from mode to mode.
class AuxReaderGPS {
public:
    // Unpacks AuxData::gpsBufferPointers. Pointers are word indices into the text ring, 0 to 511.
    class GPSPPSReader {
    public:
        explicit GPSPPSReader(uint32_t pointers) : word(pointers) {}
        int WritePtr() const { return static_cast<int>(word & 0x1FF); }
        int PPSCurrPtr() const { return static_cast<int>(word >> 9 & 0x1FF); }   // write position at the last PPS edge
        int PPSCount() const { return static_cast<int>(word >> 18 & 3); }        // edges, modulo 4
        int PPSPrevPtr() const { return static_cast<int>(word >> 20 & 0x1FF); }  // and at the edge before
    private:
        uint32_t word;
    };

    AuxReaderGPS();
    // Hardware decimation of the mode. Only while no engine runs.
    void Configure(int newHwDecimation) { hwDecimation = newHwDecimation; }
    void Update(const AuxData* auxData);

    // The last RMC sentence reported status A, and no PPS gap has come since.
    bool IsGPSDataValid() const { return gpsInfoValid; }
    // Also, the firmware steers the timebase by GPS.
    bool IsGPSDataValidAndDisciplined() const { return gpsInfoValid && gpsTimebaseLocked; }
    // Time of the I/Q counter of the last packet, [ns] since the epoch.
    int64_t GetLockedIQTime() const { return lastIQTime; }
    // Copies the fix and the newest text; any argument may be null.
    //   updated        out, text has come since the last Query
    //   userGpsInfo    out
    //   userNmea       out, text with a terminating zero; needs userNmeaLen
    //   userNmeaLen    in: room in bytes, nothing is copied if not positive; out: bytes written with the zero
    TqStatus Query(TqBool* updated, TqGPSInfo* userGpsInfo, char* userNmea, int* userNmeaLen);

private:
    void TakeText(const AuxData* auxData, int firstWord, int words) TQ_REQUIRES(nmeaMutex);
    void TimeFromPPS(uint64_t iqCounter);
    void TimeWithoutGPS(uint64_t iqCounter);
    bool ParseRMC(char* buf, int bufLen) TQ_REQUIRES(nmeaMutex);
    void ParseGGA(char* buf, int bufLen) TQ_REQUIRES(nmeaMutex);

    // Of the updating thread alone.
    int hwDecimation = 1;
    int lastPPSCount = -1;                                                 // -1: no packet yet
    int64_t lastPPSCountCounter = static_cast<int64_t>(COUNTER_SENTINEL);  // counter at the last PPS edge
    int64_t lastPPSTime = 0;                                               // time of that edge, [ns] since the epoch
    int64_t lastIQTimeLocked = 0;                                          // anchor: a time, [ns] since the epoch,
    int64_t lastIQCounter = 0;                                             // and the I/Q counter that belongs to it
    bool lastIQTimeValid = false;                                          // an anchor exists

    std::atomic<int64_t> lastIQTime = 0;
    std::atomic<bool> gpsTimebaseLocked = false;
    std::atomic<bool> gpsInfoValid = false;  // written under nmeaMutex, with gpsInfo

    CriticalSection nmeaMutex;
    std::array<std::string, RMC_STRINGS> rmc TQ_GUARDED_BY(nmeaMutex);  // fields of the last RMC sentence, without tag
    std::array<std::string, GGA_STRINGS> gga TQ_GUARDED_BY(nmeaMutex);  // and of the last GGA sentence
    uint32_t updateCounter TQ_GUARDED_BY(nmeaMutex) = 0;                // texts so far
    uint32_t lastQuery TQ_GUARDED_BY(nmeaMutex) = 0;                    // updateCounter at the last Query
    TqGPSInfo gpsInfo TQ_GUARDED_BY(nmeaMutex);
    std::vector<char> nmeaBuf TQ_GUARDED_BY(nmeaMutex);  // newest text, zero-terminated
    int nmeaLen TQ_GUARDED_BY(nmeaMutex) = 0;
};
