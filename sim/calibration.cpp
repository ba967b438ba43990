#include "sim/calibration.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace sim {
namespace {

constexpr double MHZ = 1.0e6;
constexpr double GRID_MHZ = 30.72;  // sweep grid of the LO
constexpr double FINE_MHZ = 3.84;   // fine grid of LO and IF
constexpr int FINE_IF_POINT = 4;    // the IF point that the fine tables hold, 19.2 MHz
constexpr double TOP_RF_HZ = 15.0e9;
constexpr double ROOM_C = 25.0;

constexpr std::array<Band, 15> BANDS = {{
    // below [Hz]  no  select power mux doubled
    {38400000.0, 0, 0x03, 0xA8, 2, false},
    {61440000.0, 1, 0xE2, 0xA8, 1, true},
    {122880000.0, 2, 0xD2, 0xA8, 1, true},
    {276480000.0, 3, 0xBA, 0xA8, 1, true},
    {576000000.0, 4, 0x8A, 0xA8, 1, true},
    {698880000.0, 5, 0x08, 0xA8, 1, true},
    {944640000.0, 13, 0x0C, 0x68, 0, false},
    {975360000.0, 6, 0x3C, 0x68, 0, false},
    {1405440000.0, 7, 0x38, 0xA8, 1, true},
    {1958400000.0, 8, 0x50, 0xA8, 1, true},
    {2880000000.0, 9, 0x54, 0x68, 0, false},
    {5429760000.0, 10, 0x64, 0x68, 0, false},
    {8409600000.0, 11, 0x09, 0x3C, 3, false},
    {11635200000.0, 12, 0x11, 0x3C, 3, false},
    {1.0e12, 14, 0x11, 0x3E, 3, false},
}};
static_assert(std::ranges::is_sorted(BANDS, {}, &Band::topHz));

// The irregular first steps of the sweep grid, from step 1.
struct GridRow {
    double loMHz;
    double rfMHz;
};
constexpr std::array<GridRow, 10> LOW_GRID = {{{61.44, 23.04},
                                               {69.12, 46.08},
                                               {99.84, 76.80},
                                               {130.56, 107.52},
                                               {161.28, 138.24},
                                               {192.00, 168.96},
                                               {222.72, 199.68},
                                               {253.44, 230.40},
                                               {284.16, 261.12},
                                               {307.20, 284.16}}};

struct RisePoint {
    double freqHz;
    double riseDb;
};
constexpr std::array<RisePoint, 6> LOW_FREQUENCY_RISE = {
    {{2.0e6, 0.85}, {2.4e6, 0.75}, {3.95e6, 0.5}, {5.35e6, 0.25}, {7.2e6, 0.1}, {8.7e6, 0.0}}};

// Offsets of the record's fields.
constexpr std::size_t AT_MAGIC = 0;
constexpr std::size_t AT_VERSION = 4;
constexpr std::size_t AT_SERIAL = 8;
constexpr std::size_t AT_DATE = 16;
constexpr std::size_t AT_TEMP_RANGE = 24;
constexpr std::size_t AT_CHECKSUM = 28;
constexpr std::size_t AT_TIMEBASE = 32;
constexpr std::size_t AT_TIMESTAMPS = 160;
constexpr std::size_t AT_TIMEBASE_TEMP = 672;  // the checksum starts here
constexpr std::size_t AT_TEMPS = 688;
constexpr std::size_t AT_ROUGH = 716;
constexpr std::size_t AT_RF = 1208;
constexpr std::size_t AT_IQ_AMP = 97248;
constexpr std::size_t AT_IQ_PHASE = 275608;
constexpr std::size_t AT_FLATNESS = 453968;
constexpr std::size_t AT_FINE_AMP = 632328;
constexpr std::size_t AT_FINE_PHASE = 744328;

constexpr std::uint32_t RECORD_MAGIC = 0xF0000000;
constexpr std::uint64_t CAL_DATE = 1717200000;  // 2024-06-01 UTC
constexpr std::uint64_t MONTH_S = 2592000;
constexpr int TIMEBASE_ENTRIES = 3;

std::uint64_t Mix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15u;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
}

// The n-th draw of a serial number, 0 to 1.
double Draw(std::uint32_t serial, std::uint32_t n) {
    return static_cast<double>(Mix((std::uint64_t{serial} << 32) | n) >> 11) * 0x1.0p-53;
}

double Wave(double turns) { return std::sin(2.0 * std::numbers::pi * turns); }

class RecordWriter {
public:
    RecordWriter() : bytes(RECORD_BYTES, 0xFF) {}

    template <typename T>
    void Put(std::size_t offset, T value) {
        std::uint64_t raw = 0;
        static_assert(sizeof(T) <= sizeof(raw));
        std::memcpy(&raw, &value, sizeof(T));  // this machine is little-endian, as the record is
        for (std::size_t i = 0; i < sizeof(T); ++i) bytes[offset + i] = static_cast<std::uint8_t>(raw >> (8 * i));
    }
    void PutFloat(std::size_t offset, std::size_t index, double value) {
        Put(offset + 4 * index, static_cast<float>(value));
    }

    void Header(std::uint32_t serial) {
        Put(AT_MAGIC, RECORD_MAGIC);
        Put(AT_VERSION, std::uint32_t{1});
        Put(AT_SERIAL, serial);
        Put(AT_DATE, CAL_DATE);
        Put(AT_TEMP_RANGE, std::uint32_t{1});
        for (std::size_t i = 0; i < TIMEBASE_ENTRIES; ++i) {
            Put(AT_TIMEBASE + 2 * i, static_cast<std::uint16_t>(32000 + 40 * i + serial % 500));
            Put(AT_TIMESTAMPS + 8 * i, CAL_DATE - MONTH_S * (TIMEBASE_ENTRIES - 1 - i));
        }
    }

    std::vector<std::uint8_t> Finish() {
        std::uint32_t sum = 0;
        for (std::size_t i = AT_TIMEBASE_TEMP; i < bytes.size(); i += 4) {
            sum += static_cast<std::uint32_t>(bytes[i]) | static_cast<std::uint32_t>(bytes[i + 1]) << 8 |
                   static_cast<std::uint32_t>(bytes[i + 2]) << 16 | static_cast<std::uint32_t>(bytes[i + 3]) << 24;
        }
        Put(AT_CHECKSUM, sum);
        return std::move(bytes);
    }

private:
    std::vector<std::uint8_t> bytes;
};

}  // namespace

std::span<const Band> Bands() { return BANDS; }

const Band& BandOfRf(double rfHz) {
    return *std::ranges::find_if(BANDS.begin(), BANDS.end() - 1,
                                 [rfHz](const Band& band) { return rfHz < band.topHz; });
}

double StepLo(int step) {
    if (step <= static_cast<int>(LOW_GRID.size())) return LOW_GRID[static_cast<std::size_t>(step - 1)].loMHz * MHZ;
    return step * GRID_MHZ * MHZ;
}

double StepRf(int step) {
    if (step <= static_cast<int>(LOW_GRID.size())) return LOW_GRID[static_cast<std::size_t>(step - 1)].rfMHz * MHZ;
    return StepLo(step) - 6 * FINE_MHZ * MHZ;
}

Truth::Truth(std::uint32_t serialNumber) : serial(serialNumber) {
    std::uint32_t n = 0;
    const auto spread = [&](double limit) { return limit * (2.0 * Draw(serial, n++) - 1.0); };
    for (int i = 0; i < CAL_TEMPS; ++i) temps[static_cast<std::size_t>(i)] = -30.0 + 15.0 * i + spread(0.7);
    for (double& offset : bandOffset) offset = spread(0.4);
    for (double& offset : attenOffset) offset = spread(0.15);
    for (double& value : draw) value = Draw(serial, n++);
}

double Truth::RfCorrectionAt(int plane, int atten, double loHz, int band) const {
    constexpr double FULL_SCALE_DB = -7.0;  // about -10 dBm fills the converter at index 0
    const double height = loHz / TOP_RF_HZ;
    const double ripple = 0.5 * Wave(loHz / 1.31e9 + draw[0]) + 0.3 * Wave(loHz / 3.7e9 + draw[1]);
    const double warmth = 0.03 * (MeasuredTemp(plane) - ROOM_C) * (1.0 + 0.2 * height);
    return FULL_SCALE_DB + 5.0 * atten + attenOffset[static_cast<std::size_t>(atten)] +
           bandOffset[static_cast<std::size_t>(band)] + ripple + 4.0 * height * height + warmth;
}

// The three IF curves: wide shapes only, nothing narrower than several points of the record, because 31 taps cannot
// follow more.
double Truth::ImbalanceAmpAt(int plane, double loHz, double ifHz) const {
    return 1.0 + 0.03 * (draw[2] < 0.5 ? -1.0 : 1.0) + 0.012 * std::cos(std::numbers::pi * ifHz / 60.0e6) +
           0.015 * Wave(loHz / 4.1e9 + draw[3]) + 0.00005 * (MeasuredTemp(plane) - ROOM_C);
}

double Truth::ImbalancePhaseAt(int plane, double loHz, double ifHz) const {
    return 0.02 * (draw[4] < 0.5 ? -1.0 : 1.0) + 0.010 * std::sin(std::numbers::pi * ifHz / 90.0e6) +
           0.012 * Wave(loHz / 3.3e9 + draw[5]) + 0.00006 * (MeasuredTemp(plane) - ROOM_C);
}

double Truth::FlatnessAt(int plane, double loHz, double ifHz) const {
    const double above = std::max(0.0, ifHz - 8.0e6) / 42.0e6;
    const double slope = 1.0 + 0.1 * Wave(loHz / 6.0e9 + draw[6]) + 0.001 * (MeasuredTemp(plane) - ROOM_C);
    return -1.5 * above * above * slope;
}

template <typename F>
double Truth::Blend(double tempC, F&& atPlane) const {
    if (!(tempC > temps.front())) return atPlane(0);
    const auto upper = std::ranges::upper_bound(temps, tempC);
    if (upper == temps.end()) return atPlane(CAL_TEMPS - 1);
    const int plane = static_cast<int>(upper - temps.begin());
    const double low = MeasuredTemp(plane - 1);
    const double share = (tempC - low) / (*upper - low);
    return (1.0 - share) * atPlane(plane - 1) + share * atPlane(plane);
}

double Truth::RfCorrection(double tempC, int attenDb, double loHz, int band) const {
    const int lower = std::clamp(attenDb / 5, 0, CAL_ATTENS - 1);
    const int upper = std::min(lower + 1, CAL_ATTENS - 1);
    const double share = (attenDb - 5 * lower) / 5.0;
    return Blend(tempC, [&](int plane) {
        return (1.0 - share) * RfCorrectionAt(plane, lower, loHz, band) +
               share * RfCorrectionAt(plane, upper, loHz, band);
    });
}

double Truth::ImbalanceAmp(double tempC, double loHz, double ifHz) const {
    return Blend(tempC, [&](int plane) { return ImbalanceAmpAt(plane, loHz, ifHz); });
}

double Truth::ImbalancePhase(double tempC, double loHz, double ifHz) const {
    return Blend(tempC, [&](int plane) { return ImbalancePhaseAt(plane, loHz, ifHz); });
}

double Truth::Flatness(double tempC, double loHz, double ifHz) const {
    return Blend(tempC, [&](int plane) { return FlatnessAt(plane, loHz, ifHz); });
}

int Truth::RoughAtten(double loHz) const {
    // Stays put over whole regions of the grid. An LO between two steps belongs to the upper one.
    constexpr int FLAT_STEPS = 20;
    constexpr int REGION_STEPS = 64;
    const int step = std::clamp(static_cast<int>(std::ceil(loHz / (GRID_MHZ * MHZ) - 1e-6)), 1, CAL_STEPS);
    if (step <= FLAT_STEPS) return 4;
    return 4 + (step / REGION_STEPS + static_cast<int>(serial % 3)) % 3;
}

double LowFrequencyRise(double rfHz) {
    const auto upper = std::ranges::upper_bound(LOW_FREQUENCY_RISE, rfHz, {}, &RisePoint::freqHz);
    if (upper == LOW_FREQUENCY_RISE.begin()) return LOW_FREQUENCY_RISE.front().riseDb;
    if (upper == LOW_FREQUENCY_RISE.end()) return 0.0;
    const RisePoint& lower = *(upper - 1);
    return std::lerp(lower.riseDb, upper->riseDb, (rfHz - lower.freqHz) / (upper->freqHz - lower.freqHz));
}

std::vector<std::uint8_t> BuildRecord(const Truth& truth) {
    RecordWriter record;
    record.Header(truth.Serial());
    std::size_t rf = 0;
    std::size_t curve = 0;
    std::size_t fine = 0;
    for (int plane = 0; plane < CAL_TEMPS; ++plane) {
        const auto at = static_cast<std::size_t>(plane);
        record.PutFloat(AT_TEMPS, at, truth.MeasuredTemp(plane));
        record.Put(AT_TIMEBASE_TEMP + 2 * at, static_cast<std::int16_t>(12 * (plane - 4)));
        for (int atten = 0; atten < CAL_ATTENS; ++atten) {
            for (int step = 1; step <= CAL_STEPS; ++step) {
                const int band = BandOfRf(StepRf(step)).number;
                record.PutFloat(AT_RF, rf++, truth.RfCorrectionAt(plane, atten, StepLo(step), band));
            }
        }
        for (int step = 1; step <= CAL_STEPS; ++step) {
            for (int point = 0; point < CAL_IF_POINTS; ++point, ++curve) {
                const double ifHz = (point + 1) * FINE_MHZ * MHZ;
                record.PutFloat(AT_IQ_AMP, curve, truth.ImbalanceAmpAt(plane, StepLo(step), ifHz));
                record.PutFloat(AT_IQ_PHASE, curve, truth.ImbalancePhaseAt(plane, StepLo(step), ifHz));
                record.PutFloat(AT_FLATNESS, curve, truth.FlatnessAt(plane, StepLo(step), ifHz));
            }
        }
        for (int k = 0; k < CAL_FINE_STEPS; ++k, ++fine) {
            const double loHz = k * FINE_MHZ * MHZ;
            const double ifHz = (FINE_IF_POINT + 1) * FINE_MHZ * MHZ;
            record.PutFloat(AT_FINE_AMP, fine, truth.ImbalanceAmpAt(plane, loHz, ifHz));
            record.PutFloat(AT_FINE_PHASE, fine, truth.ImbalancePhaseAt(plane, loHz, ifHz));
        }
    }
    for (int step = 1; step <= CAL_STEPS; ++step) {
        record.Put(AT_ROUGH + static_cast<std::size_t>(step - 1),
                   static_cast<std::uint8_t>(truth.RoughAtten(StepLo(step))));
    }
    return record.Finish();
}

}  // namespace sim
