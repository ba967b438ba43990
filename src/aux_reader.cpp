#include "aux_reader.h"

#include "dsp.h"
#include "tq_lib.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

namespace {

constexpr double VOLTS_PER_COUNT = 0.00553;
constexpr double AMPERES_PER_COUNT = 0.002;
constexpr float FAN_VOLTS_PER_COUNT = 0.078125f;
constexpr float FAN_DEGREES_PER_COUNT = 0.0625f;

constexpr int64_t NS_PER_SECOND = 1000000000;
constexpr size_t NMEA_LINE_BYTES = 512;  // of the line buffer, with its zero
constexpr size_t MAX_DEGREE_CHARS = 15;  // in front of the minutes of a coordinate
constexpr size_t GGA_ALTITUDE = 8;       // index in `gga`
constexpr double MAX_SPAN_NS = 9.2e18;   // what a 64-bit count of nanoseconds holds

// Counters come from outside, so their sums and differences may wrap; they do so in unsigned arithmetic.
int64_t AddWrapped(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// A distance between two counters, which may be negative, as time.
int64_t TicksToNs(uint64_t ticks) {
    const double ns = static_cast<double>(static_cast<int64_t>(ticks)) * NS_PER_122M_CLK;
    return DSP::RoundToInt64(std::clamp(ns, -MAX_SPAN_NS, MAX_SPAN_NS));
}

// Splits in place: cuts *stringp at the first `delim`, returns the piece in front and moves *stringp behind it, or to
// null behind the last piece. Keeps empty pieces.
char* strsep_sc(char** stringp, char delim) {
    char* piece = *stringp;
    if (piece == nullptr) return nullptr;
    char* cut = std::strchr(piece, delim);
    if (cut != nullptr) *cut++ = '\0';
    *stringp = cut;
    return piece;
}

// The number at the start of `text`, as a decimal in the C locale whatever the application has set. False if there is
// none, or if it is not finite.
bool ReadNumber(std::string_view text, double& value) {
    double number = 0.0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc() || !std::isfinite(number)) return false;
    value = number;
    return true;
}

// A coordinate as degrees and minutes without a separator, the minutes with two digits before the point.
bool stdStringToDecimalCoord(const std::string& s, double& d) {
    d = 0.0;
    const size_t point = s.find('.');
    if (point == std::string::npos || point <= 2 || point - 2 > MAX_DEGREE_CHARS) return false;
    double degrees = 0.0;
    double minutes = 0.0;
    if (!ReadNumber(std::string_view(s).substr(0, point - 2), degrees)) return false;
    if (!ReadNumber(std::string_view(s).substr(point - 2), minutes)) return false;
    d = minutes / 60.0 + degrees;
    return true;
}

// Three numbers of two characters each. What is no number reads as 0.
bool ReadTriple(const std::string& text, std::array<int, 3>& values) {
    char parts[3][3] = {};
    if (std::sscanf(text.c_str(), "%2s%2s%2s", parts[0], parts[1], parts[2]) != 3) return false;
    for (size_t i = 0; i < values.size(); i++) values[i] = static_cast<int>(std::strtol(parts[i], nullptr, 10));
    return true;
}

enum class Sentence { absent, oversized, found };

// Copies the first sentence with `tag` out of `text`, from the tag up to the line's end, into the zeroed `line`.
// oversized: there is one, too long to be NMEA.
Sentence FindSentence(std::string_view text, std::string_view tag, std::span<char, NMEA_LINE_BYTES> line) {
    const size_t start = text.find(tag);
    if (start == std::string_view::npos) return Sentence::absent;
    const size_t end = text.find("\r\n", start);
    if (end == std::string_view::npos) return Sentence::absent;
    if (end - start >= line.size()) return Sentence::oversized;
    std::ranges::copy(text.substr(start, end - start), line.begin());
    return Sentence::found;
}

// Splits a line at its commas, drops the tag and stores the fields that follow. Fields that the line lacks keep their
// old text. Returns how many were stored.
size_t StoreFields(char* line, std::span<std::string> fields) {
    strsep_sc(&line, ',');
    size_t count = 0;
    while (count < fields.size()) {
        const char* token = strsep_sc(&line, ',');
        if (token == nullptr) break;
        fields[count++] = token;
    }
    return count;
}

}  // namespace

int64_t IQCounterDelay(int hwDecimation) {
    int delay = TQ720_TRIG_DELAY_TICKS;
    if (hwDecimation >= 2) delay += TQ720_TRIG_DELAY_DEC_2_TICKS;
    if (hwDecimation >= 4) delay += TQ720_TRIG_DELAY_DEC_4_TICKS;
    return static_cast<int64_t>(hwDecimation) * 2048 - delay;
}

void AuxReaderStatus::Update(const AuxData* aux) {
    if (aux->magicNumber != AUX_MAGIC_NUMBER) return;
    deviceTemp = ConvertTempAuxToC(aux->tempSensors[0]);
    deviceVoltage = static_cast<float>(aux->switcherVoltage[0] * VOLTS_PER_COUNT);
    deviceCurrent = static_cast<float>(aux->current[1] * AMPERES_PER_COUNT);
    fanVoltage = static_cast<float>(aux->fanSettings[0]) * FAN_VOLTS_PER_COUNT;
    fanThreshold = static_cast<float>(aux->fanSettings[1]) * FAN_DEGREES_PER_COUNT;
    flags = aux->statusFlags;
}

bool AuxReaderStatus::TempWarning() const {
    const float drift = deviceTemp - lastConfiguredTemp;
    return std::abs(static_cast<int>(drift)) > TQ_TEMP_WARNING_THRESHOLD;  // whole degrees
}

void AuxReaderTrigger::Configure(int hwDecimation) {
    decimation = hwDecimation;
    iqCounterDelay = IQCounterDelay(hwDecimation);
}

void AuxReaderTrigger::Reset() {
    hasExtTrigger = false;
    trigger = 0;
    lastIQCounter = COUNTER_SENTINEL;
    lastExtTriggerCounter = COUNTER_SENTINEL;
}

void AuxReaderTrigger::Update(const AuxData* aux) {
    if (aux->magicNumber != AUX_MAGIC_NUMBER) return;
    if (lastIQCounter != COUNTER_SENTINEL) {
        const uint64_t counter = aux->TriggerCounter();
        hasExtTrigger = lastExtTriggerCounter != COUNTER_SENTINEL && counter != lastExtTriggerCounter;
        if (hasExtTrigger) trigger = static_cast<int64_t>(counter - lastIQCounter);
        lastExtTriggerCounter = counter;
    }
    lastIQCounter = aux->IQCounter() + static_cast<uint64_t>(iqCounterDelay);
}

AuxReaderGPS::AuxReaderGPS() : nmeaBuf(GPS_RING_BYTES + 1) {
    // Every field that a line can have fits from now on, since the threads that parse must not allocate.
    for (std::string& field : rmc) field.reserve(NMEA_LINE_BYTES);
    for (std::string& field : gga) field.reserve(NMEA_LINE_BYTES);
}

void AuxReaderGPS::Update(const AuxData* auxData) {
    if (auxData->magicNumber != AUX_MAGIC_NUMBER) return;
    gpsTimebaseLocked = (auxData->statusFlags & AUX_GPS_TB_LOCKED) != 0;

    const GPSPPSReader pointers(auxData->gpsBufferPointers);
    if (pointers.PPSCount() != lastPPSCount) {
        lastPPSCount = pointers.PPSCount();
        lastPPSCountCounter = static_cast<int64_t>(auxData->PPSCounter());
        const int words = (pointers.PPSCurrPtr() - pointers.PPSPrevPtr() + GPS_RING_WORDS) % GPS_RING_WORDS;
        Lock guard(nmeaMutex);
        TakeText(auxData, pointers.PPSPrevPtr(), words);
        ParseRMC(nmeaBuf.data(), nmeaLen);
        ParseGGA(nmeaBuf.data(), nmeaLen);
        updateCounter++;
    } else if (gpsInfoValid &&
               auxData->MainCounter() - static_cast<uint64_t>(lastPPSCountCounter) > PPS_TIMEOUT_TICKS) {
        Lock guard(nmeaMutex);
        TakeText(auxData, 0, GPS_RING_WORDS);
        gpsInfoValid = false;
        gpsInfo.Clear();
    }

    if (gpsInfoValid) {
        TimeFromPPS(auxData->IQCounter());
    } else {
        TimeWithoutGPS(auxData->IQCounter());
    }
}

void AuxReaderGPS::TakeText(const AuxData* auxData, int firstWord, int words) {
    for (int i = 0; i < words; i++) {
        std::memcpy(&nmeaBuf[static_cast<size_t>(i) * 4], &auxData->gpsData[(firstWord + i) % GPS_RING_WORDS], 4);
    }
    nmeaLen = words * 4;
    nmeaBuf[static_cast<size_t>(nmeaLen)] = '\0';
}

// The stamp is that of the first sample behind the packet, as for triggers. It becomes the anchor for the time when GPS
// is lost.
void AuxReaderGPS::TimeFromPPS(uint64_t iqCounter) {
    const uint64_t delay = static_cast<uint64_t>(IQCounterDelay(hwDecimation));
    const int64_t sincePPS = TicksToNs(iqCounter - static_cast<uint64_t>(lastPPSCountCounter) + delay);
    lastIQTimeLocked = AddWrapped(lastPPSTime, sincePPS);
    lastIQTime = lastIQTimeLocked;
    lastIQTimeValid = true;
    lastIQCounter = static_cast<int64_t>(iqCounter);
}

// The anchor stays, so that rounding does not add up. The host's clock is read only once: the instrument's own does
// not jump.
void AuxReaderGPS::TimeWithoutGPS(uint64_t iqCounter) {
    if (lastIQTimeValid) {
        lastIQTime = AddWrapped(lastIQTimeLocked, TicksToNs(iqCounter - static_cast<uint64_t>(lastIQCounter)));
        return;
    }
    lastIQTimeLocked = GetEpochNanos();
    lastIQTime = lastIQTimeLocked;
    lastIQTimeValid = true;
    lastIQCounter = static_cast<int64_t>(iqCounter);
}

// False: no sentence, or one without a fix.
bool AuxReaderGPS::ParseRMC(char* buf, int bufLen) {
    std::array<char, NMEA_LINE_BYTES> line = {};
    const std::string_view text(buf, static_cast<size_t>(bufLen));
    if (FindSentence(text, "RMC", line) != Sentence::found) return false;
    StoreFields(line.data(), rmc);

    if (rmc[1] != "A") {
        gpsInfoValid = false;
        gpsInfo.Clear();
        return false;
    }
    gpsInfoValid = true;

    double latitude = 0.0;
    double longitude = 0.0;
    if (stdStringToDecimalCoord(rmc[2], latitude) && stdStringToDecimalCoord(rmc[4], longitude)) {
        gpsInfo.latitude = rmc[3] == "N" ? latitude : -latitude;
        gpsInfo.longitude = rmc[5] == "E" ? longitude : -longitude;
    }

    std::array<int, 3> time = {};  // hours, minutes, seconds
    std::array<int, 3> date = {};  // day, month, year of the century
    if (!ReadTriple(rmc[0], time) || !ReadTriple(rmc[8], date)) return true;
    // Values out of their range carry over, as they do for timegm, which would allocate at its first call.
    using namespace std::chrono;
    const year_month month = year(2000 + date[2]) / January + months(date[1] - 1);
    const sys_seconds utc =
        sys_days(month / 1) + days(date[0] - 1) + hours(time[0]) + minutes(time[1]) + seconds(time[2]);
    // The sentence names the second before the edge behind which it is read. Two characters each keep this small.
    gpsInfo.secSinceEpoch = int64_t{utc.time_since_epoch().count()} + 1;
    lastPPSTime = gpsInfo.secSinceEpoch * NS_PER_SECOND;
    return true;
}

void AuxReaderGPS::ParseGGA(char* buf, int bufLen) {
    std::array<char, NMEA_LINE_BYTES> line = {};
    const std::string_view text(buf, static_cast<size_t>(bufLen));
    const Sentence sentence = FindSentence(text, "GGA", line);
    if (sentence == Sentence::oversized) return;
    gpsInfo.altitude = 0.0;
    if (sentence == Sentence::absent) return;
    // A field that this sentence lacks still holds the text of an older one, and without a fix there is no altitude.
    const size_t fields = StoreFields(line.data(), gga);
    if (gpsInfoValid && fields > GGA_ALTITUDE) ReadNumber(gga[GGA_ALTITUDE], gpsInfo.altitude);
}

TqStatus AuxReaderGPS::Query(TqBool* updated, TqGPSInfo* userGpsInfo, char* userNmea, int* userNmeaLen) {
    Lock guard(nmeaMutex);
    if (updated != nullptr) *updated = lastQuery != updateCounter ? tqTrue : tqFalse;
    if (userGpsInfo != nullptr) *userGpsInfo = gpsInfo;
    if (userNmea != nullptr && userNmeaLen != nullptr && *userNmeaLen > 0) {
        const int n = std::min(*userNmeaLen - 1, nmeaLen);
        std::copy_n(nmeaBuf.begin(), n, userNmea);
        userNmea[n] = '\0';
        *userNmeaLen = n + 1;
    }
    lastQuery = updateCounter;
    return tqNoError;
}
