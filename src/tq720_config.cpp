#include "tq720_config.h"

#include "tq_assert.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <initializer_list>

namespace {

constexpr double REF_FREQ_HZ = 122880000.0;    // synthesiser reference
constexpr double FRAC_STEP_HZ = 960000.0;      // REF_FREQ_HZ / 128, the resolution of the VCO
constexpr double LOW_LO_HZ = 4500000.0;        // below it the output stage needs other port words
constexpr double VERY_LOW_LO_HZ = 4000000.0;   // and below it yet others
constexpr uint32_t PAYLOAD_MASK = 0x00FFFFFF;  // bits 0-23 of a command word

constexpr uint32_t WORD_SPACER = 0;
constexpr uint32_t WORD_ROUGH_ATTEN = 0x24000000;
constexpr uint32_t WORD_RF_CONFIG = 0x2C000000;
constexpr uint32_t WORD_IQ_TUNE = 0x2A000000;
constexpr uint32_t WORD_LMX = 0x20000000;  // register address in bits 16-23, value in bits 0-15

// Synthesiser start-up, in the order of writing: register address in bits 16-23, value in bits 0-15.
constexpr std::array<uint32_t, 23> LMXConfigTable = {{
    0x002496, 0x002494, 0x4E016F, 0x4B08C0, 0x3C0000, 0x2E07FC, 0x2DC0F2, 0x2C32A3,
    0x2B0000, 0x2A0000, 0x270080, 0x260000, 0x250404, 0x24004B, 0x1F43EC, 0x11012C,
    0x0E1E70, 0x090604, 0x0740B2, 0x040D43, 0x010808, 0x002494, 0x00249C,
}};
constexpr int INITIALIZE_VCO_WORDS = 116;

struct BandWord {
    uint32_t RFSEL;
    uint32_t BandPower;
    uint32_t muxctrl;
};
constexpr std::array<BandWord, 15> BANDS = {{
    {0x03, 0xA8, 2},  // 0
    {0xE2, 0xA8, 1},  // 1
    {0xD2, 0xA8, 1},  // 2
    {0xBA, 0xA8, 1},  // 3
    {0x8A, 0xA8, 1},  // 4
    {0x08, 0xA8, 1},  // 5
    {0x3C, 0x68, 0},  // 6
    {0x38, 0xA8, 1},  // 7
    {0x50, 0xA8, 1},  // 8
    {0x54, 0x68, 0},  // 9
    {0x64, 0x68, 0},  // 10
    {0x09, 0x3C, 3},  // 11
    {0x11, 0x3C, 3},  // 12
    {0x0C, 0x68, 0},  // 13
    {0x11, 0x3E, 3},  // 14
}};
constexpr uint32_t BBENABLE = 1u << 7;  // set in every band
constexpr int MAX_ATTEN_DB = 31;        // of the 5-bit field

struct BandRange {
    double topHz;       // RFFreq, exclusive
    int band;           // row of BANDS
    double multiplier;  // synthesiser frequency / LOFreq: 2 where the mixer halves it
    bool LOPortB;       // output port of the synthesiser
};
constexpr std::array<BandRange, 15> BAND_RANGES = {{
    {38400000, 0, 1, false},
    {61440000, 1, 2, false},
    {122880000, 2, 2, false},
    {276480000, 3, 2, false},
    {576000000, 4, 2, false},
    {698880000, 5, 2, false},
    {944640000, 13, 1, false},
    {975360000, 6, 1, false},
    {1405440000, 7, 2, false},
    {1958400000, 8, 2, false},
    {2880000000, 9, 1, false},
    {5429760000, 10, 1, false},
    {8409600000, 11, 1, true},
    {11635200000, 12, 1, true},
    {HUGE_VAL, 14, 1, true},
}};
static_assert(std::ranges::is_sorted(BAND_RANGES, {}, &BandRange::topHz));

struct OutputDivider {
    double aboveHz;  // synthesiser frequency, exclusive
    int divider;
    uint32_t chdivval;  // register code
};
constexpr std::array<OutputDivider, 15> DIVIDERS = {{
    {7500000000, 1, 0},
    {3750000000, 2, 0},
    {1875000000, 4, 1},
    {1437500000, 6, 2},
    {942500000, 8, 3},
    {640000000, 12, 4},
    {474000000, 16, 5},
    {320000000, 24, 6},
    {237000000, 32, 7},
    {160000000, 48, 8},
    {118500000, 64, 9},
    {80000000, 96, 11},
    {59250000, 128, 12},
    {40000000, 192, 13},
    {-HUGE_VAL, 256, 14},
}};
static_assert(std::ranges::is_sorted(DIVIDERS, std::ranges::greater(), &OutputDivider::aboveHz));

// Capacitor and amplitude presets of the VCO cores: straight lines over each core's range.
struct VCOCore {
    int core;
    double f1, f2;          // [Hz]
    double CCore1, CCore2;  // capacitor code at f1, f2
    double ACore1, ACore2;  // amplitude code at f1, f2
};
constexpr std::array<VCOCore, 7> VCO_CORES = {{
    {1, 7500000000, 8600000000, 164, 12, 299, 240},
    {2, 8600000000, 9800000000, 165, 16, 356, 247},
    {3, 9800000000, 10800000000, 158, 19, 324, 224},
    {4, 10800000000, 12000000000, 140, 0, 383, 244},
    {5, 12000000000, 12900000000, 183, 36, 205, 146},
    {6, 12900000000, 13900000000, 155, 6, 242, 163},
    {7, 13900000000, 15000000000, 175, 19, 323, 244},
}};
static_assert(std::ranges::is_sorted(VCO_CORES, {}, &VCOCore::f2));

// Converts a computed register value, limited to its field; NaN gives 0. Below 0 it would borrow from the register's
// address, above `max` carry into it.
uint32_t Field(double value, uint32_t max = 0xFFFF) {
    if (!(value > 0.0)) return 0;
    return static_cast<uint32_t>(std::min(value, static_cast<double>(max)));
}

const BandRange& GetBandFromRFFreq(double freq) {
    const auto row = std::ranges::find_if(BAND_RANGES, [freq](const BandRange& r) { return freq < r.topHz; });
    return row != BAND_RANGES.end() ? *row : BAND_RANGES.back();
}

int GetDividerSettingFromFreq(double freq) {
    const auto row = std::ranges::find_if(DIVIDERS, [freq](const OutputDivider& r) { return freq > r.aboveHz; });
    return row != DIVIDERS.end() ? row->divider : DIVIDERS.back().divider;
}

uint32_t GetCHDIV(int divider) {
    const auto row = std::ranges::find(DIVIDERS, divider, &OutputDivider::divider);
    TQ_ASSERT(row != DIVIDERS.end());
    return row->chdivval;
}

void GetVCOCoreSettings(double freq, uint32_t& core, uint32_t& cap, uint32_t& ampl) {
    const auto below = std::ranges::find_if(VCO_CORES, [freq](const VCOCore& r) { return freq < r.f2; });
    const VCOCore& row = below != VCO_CORES.end() ? *below : VCO_CORES.back();
    const double d = freq - row.f1;
    const double width = row.f2 - row.f1;
    core = static_cast<uint32_t>(row.core);
    cap = Field(std::floor((row.CCore2 - row.CCore1) * d / width + (row.CCore1 + 0.5)), 0x7FFF);  // doubled in its word
    ampl = Field(std::floor((row.ACore2 - row.ACore1) * d / width + (row.ACore1 + 0.5)));
}

// Writes words one behind the other.
class WordWriter {
public:
    explicit WordWriter(uint32_t* buffer) : begin(buffer), next(buffer) {}

    void Add(uint32_t word) { *next++ = word; }
    void Add(std::initializer_list<uint32_t> words) { next = std::ranges::copy(words, next).out; }
    void AddSpacers(int count) { next = std::fill_n(next, count, WORD_SPACER); }
    void AddWait(uint32_t word, int spacers = 3) {
        Add(word);
        AddSpacers(spacers);
    }
    uint32_t* Next() const { return next; }
    void Skip(int words) { next += words; }
    int Count() const { return static_cast<int>(next - begin); }

private:
    uint32_t* begin;
    uint32_t* next;
};

// Correction filter at start-up: one centre tap in each set.
void initializeDSP(WordWriter& out) {
    for (uint32_t i = 0; i < 64; i++) {
        const uint32_t ucoeff = i == 16 ? 0x41F4 : i == 48 ? 0x4000 : 0;
        out.Add((0x40 + i) << 24 | ucoeff);
    }
}

}  // namespace

uint32_t GetRFConfigWordFromBandAtten(int band, int atten) {
    TQ_ASSERT(band >= 0 && band < static_cast<int>(BANDS.size()));
    const BandWord& row = BANDS[static_cast<size_t>(band)];
    return row.BandPower << 16 | row.RFSEL << 8 | BBENABLE | row.muxctrl << 5 |
           static_cast<uint32_t>(std::clamp(atten, 0, MAX_ATTEN_DB));
}

int Tq720Config::Configure(uint32_t* buffer, double LOFreq, double RFFreq, int roughAtten, int atten, int IQTune960k) {
    const BandRange& range = GetBandFromRFFreq(RFFreq);
    const double f = LOFreq * range.multiplier;
    VCOFreqDivider = GetDividerSettingFromFreq(f);
    VCOFreq = f * VCOFreqDivider;

    WordWriter out(buffer);
    out.Add(WORD_ROUGH_ATTEN | (static_cast<uint32_t>(roughAtten) & PAYLOAD_MASK));
    out.Add(WORD_RF_CONFIG | GetRFConfigWordFromBandAtten(range.band, atten));
    out.Skip(GenerateVCOSettings(out.Next(), range.LOPortB));
    out.Add(WORD_IQ_TUNE | (static_cast<uint32_t>(IQTune960k) & PAYLOAD_MASK));
    out.AddWait(0x10000800);
    out.AddWait(0x11008000);
    return out.Count();
}

int Tq720Config::GenerateVCOSettings(uint32_t* settingBuf, bool LOPortB) {
    const uint32_t RFFreqInt = Field(std::floor(VCOFreq / REF_FREQ_HZ));
    const uint32_t RFFreqFrac = Field(std::floor((VCOFreq - RFFreqInt * REF_FREQ_HZ) / FRAC_STEP_HZ + 0.5));

    const uint32_t seldiv = VCOFreqDivider == 1 ? 0x7FD : 0x7FC;
    const uint32_t seg1en = VCOFreqDivider == 2 ? 0x201F03EC : 0x201F43EC;
    const uint32_t CHDIV = 0x204B0000 | (0x800 + (GetCHDIV(VCOFreqDivider) << 6));

    // The two words for low outputs are those of port A, so port B goes first.
    const double LOFreq = VCOFreq / VCOFreqDivider;
    const uint32_t portControl = LOPortB                   ? 0x202C3263
                                 : LOFreq < VERY_LOW_LO_HZ ? 0x202C0AA3
                                 : LOFreq < LOW_LO_HZ      ? 0x202C0FA3
                                                           : 0x202C32A3;
    uint32_t core = 0;
    uint32_t cap = 0;
    uint32_t ampl = 0;
    GetVCOCoreSettings(VCOFreq, core, cap, ampl);

    WordWriter out(settingBuf);
    out.Add({0x204E0001 + 2 * cap, 0x2014C048 + (core << 11), 0x20110000 + ampl});
    if (LOPortB) out.Add(0x202E0000 | seldiv);
    out.Add({portControl, 0x202B0000 | RFFreqFrac, 0x20240000 | RFFreqInt});
    out.AddWait(0x10000100);
    out.Add({seg1en, CHDIV, 0x2000251C});
    return out.Count();
}

int Tq720Config::InitializeVCO(uint32_t* settingBuf) {
    WordWriter out(settingBuf);
    out.Add(WORD_SPACER);
    for (size_t k = 0; k < LMXConfigTable.size(); k++) {
        const bool last = k + 1 == LMXConfigTable.size();
        if (k > 0) out.AddWait(last ? 0x100C8000 : 0x10000050);  // calibration, ahead of the last write, takes longer
        out.Add(WORD_LMX | LMXConfigTable[k]);
    }
    out.AddWait(0x10000050);
    TQ_ASSERT(out.Count() == INITIALIZE_VCO_WORDS);
    return out.Count();
}

int Tq720Config::PowerDown(uint32_t* buffer) {
    buffer[0] = 0x2C00035F;
    return 1;
}

int Tq720Config::ReInitialize(uint32_t* buffer) {
    buffer[0] = WORD_RF_CONFIG | GetRFConfigWordFromBandAtten(0, 10);
    return 1 + InitializeVCO(buffer + 1);
}

int Tq720Config::Initialize(uint32_t* buffer) {
    WordWriter out(buffer);
    out.Add(WORD_RF_CONFIG | GetRFConfigWordFromBandAtten(6, 10));
    for (int i = 0; i < 2; i++) {
        out.Add(0x2E00A000);
        out.AddWait(0x1000A000);
    }
    out.Add({0x230D80A3, 0x230D80A2});
    out.AddWait(0x10000A00);
    out.Add({0x230001F4, 0x23060001});
    out.AddWait(0x1000A000, 2);
    initializeDSP(out);
    out.Add(WORD_IQ_TUNE | 24);
    out.AddWait(0x107F0000);
    out.Add(0x22000000);
    out.AddWait(0x103F0000);
    out.Add({0x22000001, 0x230D80A3, 0x230D80A2});
    out.AddWait(0x10000A00);
    out.Add({0x230001F4, 0x23060001});
    out.Skip(InitializeVCO(out.Next()));
    out.Add(0x26000000);  // GPIO port: trigger input, rising edge
    out.AddWait(0x10000A00);
    out.Add(0x3F000240);  // ADC offset of 576, taken off again by the conversion of samples to float
    TQ_ASSERT(out.Count() == TQ720_CONFIG_MAX_WORDS);
    return out.Count();
}
