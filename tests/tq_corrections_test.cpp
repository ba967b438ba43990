// Corrections: temperature planes, table limits, the filter design against a double-precision model of what it must
// do, and records without sense.
#include "tq_corrections.h"

#include "frequency_plan.h"
#include "tq_correction_def.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <complex>
#include <limits>
#include <memory>
#include <numbers>
#include <vector>

namespace {

using Complex = std::complex<double>;
using Taps = std::array<Ipp32fc, CORRECTION_TAPS>;
constexpr double PI = std::numbers::pi;
constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr float INF = std::numeric_limits<float>::infinity();

double ToDB(double amplitude) { return 20.0 * std::log10(amplitude); }

// Smooth faults of an IF, of the size that instruments have: +-0.6 dB, +-3 degrees, 1.5 dB of slope. x is the IF
// frequency in points of the record, from 0, so that point j lies at bin j + 1 of the filter.
double AmpDB(double x, int step) { return 0.6 * std::cos(PI * x / 14.0 + 0.3 + step * 0.01); }
double Phase(double x, int step) { return 3.0 * PI / 180.0 * std::sin(PI * x / 14.0 + 0.5 + step * 0.01); }
double FlatnessDB(double x) { return x < 1.0 ? 0.0 : -1.5 * std::pow((x - 1.0) / 11.0, 2.0); }

// Tables and temperatures of planes that differ: plane t shrinks the faults by a twentieth for each.
std::unique_ptr<TQ720CalData> RealisticRecord() {
    auto record = std::make_unique<TQ720CalData>();
    tqCalBuildDummyCorrections(record.get());
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) {
        const double size = 1.0 - 0.05 * t;
        record->measuredTemps[t] = static_cast<float>(-28.0 + 14.5 * t);
        for (int i = 0; i < TQ720_CAL_LO_STEPS; i++) {
            for (int j = 0; j < TQ720_CAL_IF_POINTS; j++) {
                record->iqImbalanceAmp[t][i][j] = static_cast<float>(std::pow(10.0, size * AmpDB(j, i + 1) / 10.0));
                record->iqImbalancePhase[t][i][j] = static_cast<float>(size * Phase(j, i + 1));
                record->iqFlatnessAmp[t][i][j] = static_cast<float>(size * FlatnessDB(j));
            }
        }
    }
    return record;
}

// Corrections with a record, at a temperature.
struct Corrections {
    TqCorrections corrections;
    Corrections(const TQ720CalData& record, float temp) {
        corrections.LoadCorrections(&record);
        corrections.SetCurrentTemp(temp);
    }
    TqCorrections* operator->() { return &corrections; }
};

struct Filter {
    Taps taps;
    double offset;  // [dB]
};

Filter DesignAt(const TqCorrections& corrections, int step, int fine) {
    Filter filter;
    corrections.GetIFCorrections(step, fine, filter.taps.data(), filter.offset);
    return filter;
}

bool SameFilter(const Filter& a, const Filter& b) {
    return a.offset == b.offset && std::ranges::equal(a.taps, b.taps, [](const Ipp32fc& x, const Ipp32fc& y) {
               return x.re == y.re && x.im == y.im;
           });
}

// What an IF tone at bin k of the filter, k * 3.84 MHz, becomes: the branches' faults and their taps in series. The
// wanted tone comes out as the half sum of the branches, its image as the half difference.
struct ToneResult {
    double levelDB;
    double imageDB;  // relative to the wanted tone
};

ToneResult RunTone(const Filter& filter, int k, double ampRatio, double phase, double flatnessDB) {
    Complex tapsI = 0.0;
    Complex tapsQ = 0.0;
    for (size_t n = 0; n < filter.taps.size(); n++) {
        const Complex turn = std::polar(1.0, -2.0 * PI * k * static_cast<double>(n) / 32.0);
        tapsI += static_cast<double>(filter.taps[n].re) * turn;
        tapsQ += static_cast<double>(filter.taps[n].im) * turn;
    }
    const double flatness = std::pow(10.0, flatnessDB / 20.0);
    const Complex gainI = tapsI * std::polar(std::sqrt(ampRatio) * flatness, -phase / 2.0);
    const Complex gainQ = tapsQ * std::polar(flatness / std::sqrt(ampRatio), phase / 2.0);
    const double wanted = std::abs(gainI + gainQ) / 2.0;
    // The offset counts both branches, whose gains add as powers: 3.01 dB above that of one.
    return {ToDB(wanted) + filter.offset + ToDB(std::numbers::sqrt2), ToDB(std::abs(gainI - gainQ) / 2.0 / wanted)};
}

// The taps of one branch by plain sums: sign +1 is I. Curves as the design takes them, phase already turned round.
std::vector<double> ReferenceBranch(const std::array<double, 13>& amp, const std::array<double, 13>& phase,
                                    const std::array<double, 13>& flatness, int sign) {
    std::array<double, 32> sinc = {};
    double sum = 0.0;
    for (int n = 0; n < 31; n++) {
        const double x = n - 15;
        const double cutoff = 0.45f;
        sinc[static_cast<size_t>(n)] = n == 15 ? 2.0 * cutoff : std::sin(2.0 * PI * cutoff * x) / (PI * x);
        sum += sinc[static_cast<size_t>(n)];
    }
    std::array<Complex, 17> spectrum;
    for (size_t k = 0; k <= 16; k++) {
        spectrum[k] = 0.0;
        for (size_t n = 0; n < 32; n++) {
            spectrum[k] +=
                sinc[n] / std::abs(sum) / 32.0 * std::polar(1.0, -2.0 * PI * static_cast<double>(k * n) / 32);
        }
    }
    spectrum[0] *= std::pow(2.0 * amp[0] - amp[1], -0.5 * sign) * std::pow(10.0, flatness[0] / 20.0);
    for (size_t k = 1; k < 16; k++) {
        const size_t c = std::min<size_t>(k - 1, 12);
        spectrum[k] *=
            std::polar(std::pow(amp[c], -0.5 * sign) / std::pow(10.0, flatness[c] / 20.0), -0.5 * sign * phase[c]);
    }
    std::vector<double> taps(31);
    for (size_t n = 0; n < 31; n++) {
        double value = spectrum[0].real() + spectrum[16].real() * (n % 2 == 0 ? 1.0 : -1.0);
        for (size_t k = 1; k < 16; k++) {
            value += 2.0 * (spectrum[k] * std::polar(1.0, 2.0 * PI * static_cast<double>(k * n) / 32)).real();
        }
        taps[n] = value * (0.54 - 0.46 * std::cos(2.0 * PI * static_cast<double>(n) / 30));
    }
    return taps;
}

}  // namespace

TEST(CorrectionTemperature, PicksThePlanesAroundTheMeasuredTemperature) {
    const auto record = RealisticRecord();
    const auto& m = record->measuredTemps;
    const struct {
        float temp;
        int index;
        double frac;
    } CASES[] = {{-273.0f, 0, 0.0},           {-INF, 0, 0.0}, {m[0], 0, 0.0},   {m[2], 2, 0.0},
                 {(m[3] + m[4]) / 2, 3, 0.5}, {m[6], 5, 1.0}, {200.0f, 5, 1.0}, {INF, 5, 1.0},
                 {NOT_A_NUMBER, 5, 1.0}};
    TqCorrections corrections;
    corrections.LoadCorrections(record.get());
    for (const auto& c : CASES) {
        corrections.SetCurrentTemp(c.temp);
        EXPECT_EQ(corrections.currTempIndex, c.index) << c.temp;
        EXPECT_NEAR(corrections.currTempFrac, c.frac, 1e-6) << c.temp;
        EXPECT_TRUE(corrections.GetCurrentTemp() == c.temp || std::isnan(c.temp));
    }
}

TEST(CorrectionTemperature, MeasuredTemperaturesWithoutSenseLeaveTheWeightBetween0And1) {
    const struct {
        const char* name;
        std::array<float, 7> temps;
        int index;
        double frac;
    } CASES[] = {
        {"a hole below", {-30, NOT_A_NUMBER, 0, 15, 30, 45, 60}, 1, 1.0},
        {"a hole above", {-30, -15, NOT_A_NUMBER, 15, 30, 45, 60}, 2, 1.0},
        {"no numbers",
         {NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER, NOT_A_NUMBER},
         5,
         1.0},
        {"infinite ends", {-INF, INF, INF, INF, INF, INF, INF}, 0, 1.0},
        {"difference overflows", {-3e38f, 3e38f, 0, 0, 0, 0, 0}, 0, 0.0},
        {"all equal", {5, 5, 5, 5, 5, 5, 5}, 0, 0.0},
        {"descending", {-60, -70, -80, -90, -100, -110, -120}, 5, 1.0},
    };
    const auto record = RealisticRecord();
    TqCorrections corrections;
    for (const auto& c : CASES) {
        std::ranges::copy(c.temps, record->measuredTemps);
        corrections.LoadCorrections(record.get());
        corrections.SetCurrentTemp(-5.0f);
        EXPECT_EQ(corrections.currTempIndex, c.index) << c.name;
        EXPECT_EQ(corrections.currTempFrac, c.frac) << c.name;
    }
}

TEST(CorrectionTemperature, CalibrationModeReadsTheChosenPlaneAtAnyTemperature) {
    const auto record = RealisticRecord();
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) record->rfCorrections[t][0][0] = static_cast<float>(t);
    Corrections c(*record, 20.0f);
    const struct {
        int index;
        TqStatus status;
        float plane;
    } CASES[] = {{0, tqNoError, 0.0f}, {2, tqNoError, 2.0f},        {5, tqNoError, 5.0f},
                 {6, tqNoError, 6.0f}, {7, tqSettingClamped, 6.0f}, {-1, tqSettingClamped, 0.0f}};
    c->SetCorrectionMode(tqCorrectionModeCal);
    for (const auto& k : CASES) {
        EXPECT_EQ(c->SetCorrectionIndex(k.index), k.status);
        for (const float temp : {-100.0f, 0.0f, 100.0f}) {
            c->SetCurrentTemp(temp);
            EXPECT_EQ(c->GetRFCorrection(0, 1), k.plane) << k.index;
        }
    }
    EXPECT_EQ(c->GetCurrentTemp(), 20.0f);
}

TEST(CorrectionTables, IndicesAreLimitedToTheTables) {
    const auto record = RealisticRecord();
    for (auto& plane : record->rfCorrections) {
        for (int a = 0; a < TQ720_CAL_ATTENS; a++) {
            for (int i = 0; i < TQ720_CAL_LO_STEPS; i++) plane[a][i] = static_cast<float>(1000 * a + i);
        }
    }
    for (int i = 0; i < TQ720_CAL_LO_STEPS; i++) record->roughAttens[i] = static_cast<uint8_t>(i % 251);
    Corrections c(*record, 20.0f);
    const struct {
        int step, index;
    } STEPS[] = {{INT_MIN, 0}, {0, 0}, {1, 0}, {2, 1}, {490, 489}, {491, 489}, {INT_MAX, 489}};
    const struct { int atten, index; } ATTENS[] = {{INT_MIN, 0}, {-1, 0}, {0, 0}, {6, 6}, {9, 6}, {INT_MAX, 6}};
    for (const auto& s : STEPS) {
        EXPECT_EQ(c->GetRoughGain(s.step), s.index % 251);
        for (const auto& a : ATTENS) {
            EXPECT_FLOAT_EQ(c->GetRFCorrection(a.atten, s.step), static_cast<float>(1000 * a.index + s.index));
        }
        Taps taps;
        double offset;
        c->GetIFCorrections(s.step, taps.data(), offset);
        EXPECT_TRUE(SameFilter({taps, offset}, DesignAt(c.corrections, s.index + 1, 8)));
    }
}

TEST(CorrectionTables, BlendsInSinglePrecision) {
    const auto record = RealisticRecord();
    record->measuredTemps[3] = 10.0f;
    record->measuredTemps[4] = 20.0f;
    record->rfCorrections[3][2][99] = 3.3f;
    record->rfCorrections[4][2][99] = -7.7f;
    record->timebaseTempCurve[3] = -101;
    record->timebaseTempCurve[4] = 2;
    Corrections c(*record, 13.0f);
    const float f = (13.0f - 10.0f) / (20.0f - 10.0f);
    EXPECT_EQ(c->GetRFCorrection(2, 100), 3.3f * (1.0f - f) + -7.7f * f);
    EXPECT_EQ(c->GetFreqTuneOffset(), -70);  // -70.1, cut towards zero

    // An end of the blend keeps out what stands in the other plane.
    c->SetCurrentTemp(10.0f);
    c->calData->rfCorrections[4][2][99] = NOT_A_NUMBER;
    EXPECT_EQ(c->GetRFCorrection(2, 100), 3.3f);
    EXPECT_EQ(c->GetFreqTuneOffset(), -101);
    // Within it, a gain that is no number is none.
    for (const float bad : {NOT_A_NUMBER, INF, -INF}) {
        c->calData->rfCorrections[4][2][99] = bad;
        c->SetCurrentTemp(15.0f);
        EXPECT_EQ(c->GetRFCorrection(2, 100), 0.0f);
    }
    for (const int16_t limit : {int16_t{INT16_MAX}, int16_t{INT16_MIN}}) {
        c->calData->timebaseTempCurve[3] = limit;
        c->calData->timebaseTempCurve[4] = limit;
        EXPECT_NEAR(c->GetFreqTuneOffset(), limit, 1);
    }
}

TEST(CorrectionTables, NewestTimebaseEntryAndTemperatureRange) {
    TqCorrections c;
    uint16_t voltage = 11;
    uint64_t time = 22;
    c.GetNewestTuningValue(voltage, time);
    EXPECT_EQ(voltage, 11);
    EXPECT_EQ(time, 22u);
    for (int i = 0; i < TQ720_CAL_TIMEBASES; i++) {
        c.calData->timebaseCorr[i] = static_cast<uint16_t>(100 + i);
        c.calData->timebaseTimestamps[i] = static_cast<uint64_t>(200 + i);
        c.GetNewestTuningValue(voltage, time);
        EXPECT_EQ(voltage, 100 + i);
        EXPECT_EQ(time, static_cast<uint64_t>(200 + i));
    }

    const struct {
        uint32_t stored;
        TqTempRange range;
    } CASES[] = {{0, tqTempRangeRoomTemp},        {1, tqTempRangeStd},     {2, tqTempRangeExt},
                 {0xFFFFFFFF, tqTempRangeNotSet}, {3, tqTempRangeUnknown}, {0xFFFFFFFE, tqTempRangeUnknown}};
    for (const auto& k : CASES) {
        c.calData->tempRange = k.stored;
        TqTempRange range;
        c.GetDeviceTempRange(range);
        EXPECT_EQ(range, k.range) << k.stored;
    }
    c.calData->calDate = 0x123456789ull;
    EXPECT_EQ(c.GetCalDate(), 0x23456789u);
}

TEST(CorrectionFilter, NeutralRecordGivesEqualBranches) {
    TqCorrections c;
    c.SetCurrentTemp(20.0f);
    const Filter filter = DesignAt(c, 100, 803);
    EXPECT_EQ(filter.taps[15].re, 1.0f);
    double sum = 0.0;
    for (size_t n = 0; n < filter.taps.size(); n++) {
        EXPECT_EQ(filter.taps[n].re, filter.taps[n].im);
        EXPECT_NEAR(filter.taps[n].re, filter.taps[30 - n].re, 1e-7);
        sum += filter.taps[n].re;
    }
    EXPECT_NEAR(filter.offset, -ToDB(sum * std::numbers::sqrt2), 1e-5);
}

TEST(CorrectionFilter, TapsAreThoseOfTheDesignCarriedOutInDouble) {
    const auto record = RealisticRecord();
    // A slope that begins at DC, so that its way into the DC value shows.
    for (auto& step : record->iqFlatnessAmp[2])
        std::ranges::generate(step, [x = 0.0]() mutable { return float(x -= 0.1); });
    Corrections c(*record, record->measuredTemps[2]);
    std::array<double, 13> amp, phase, flatness;
    for (size_t j = 0; j < 13; j++) {
        amp[j] = record->iqImbalanceAmp[2][199][j];
        phase[j] = -record->iqImbalancePhase[2][199][j];
        flatness[j] = record->iqFlatnessAmp[2][199][j];
    }
    const std::vector<double> i = ReferenceBranch(amp, phase, flatness, 1);
    const std::vector<double> q = ReferenceBranch(amp, phase, flatness, -1);
    const double scale = std::max(i[15], q[15]);
    double sumI = 0.0, sumQ = 0.0;
    const Filter filter = DesignAt(c.corrections, 200, 1600);
    for (size_t n = 0; n < 31; n++) {
        // Narrowing to float and dividing by a float: two roundings of a value of at most 1.
        EXPECT_NEAR(filter.taps[n].re, i[n] / scale, 2e-7) << n;
        EXPECT_NEAR(filter.taps[n].im, q[n] / scale, 2e-7) << n;
        sumI += i[n] / scale;
        sumQ += q[n] / scale;
    }
    EXPECT_NEAR(filter.offset, -ToDB(std::hypot(sumI, sumQ)), 2e-5);
}

TEST(CorrectionFilter, SuppressesTheImageAndFlattensTheIF) {
    const auto record = RealisticRecord();
    Corrections corrected(*record, record->measuredTemps[3] * 0.25f + record->measuredTemps[4] * 0.75f);
    const double size = 1.0 - 0.05 * 3.75;
    TqCorrections neutral;
    neutral.SetCurrentTemp(20.0f);
    for (const int step : {1, 57, 300, 489}) {
        const Filter right = DesignAt(corrected.corrections, step, step * 8);
        const Filter none = DesignAt(neutral, step, step * 8);
        double worstNone = -999.0;
        for (int k = 2; k <= 12; k++) {
            SCOPED_TRACE(testing::Message() << "step " << step << " bin " << k);
            const double amp = std::pow(10.0, size * AmpDB(k - 1, step) / 10.0);
            const double phase = size * Phase(k - 1, step);
            const double flatness = size * FlatnessDB(k - 1);
            const ToneResult tone = RunTone(right, k, amp, phase, flatness);
            EXPECT_LT(tone.imageDB, -55.0);
            EXPECT_NEAR(tone.levelDB, 0.0, 0.05);
            worstNone = std::max(worstNone, RunTone(none, k, amp, phase, flatness).imageDB);
        }
        EXPECT_GT(worstNone, -40.0) << step;
    }
}

TEST(CorrectionFilter, FineTablesMoveTheCurvesBetweenTwoSteps) {
    const auto record = RealisticRecord();
    constexpr int STEP = 120;
    constexpr int FINE = STEP * 8 + 3;
    constexpr double AMP = 1.07;
    constexpr double PHASE = 0.04;
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) {
        for (auto* table : {&record->iqImbalanceAmpOffset[t], &record->iqImbalancePhaseOffset[t]}) {
            std::ranges::fill(*table, NOT_A_NUMBER);
        }
        record->iqImbalanceAmpOffset[t][FINE] = static_cast<float>(AMP);
        record->iqImbalancePhaseOffset[t][FINE] = static_cast<float>(PHASE);
    }
    Corrections c(*record, 20.0f);

    // At point 4, bin 5, the faults are those of the fine table.
    const ToneResult tone = RunTone(DesignAt(c.corrections, STEP, FINE), 5, AMP, PHASE, 0.0);
    EXPECT_LT(tone.imageDB, -55.0);
    EXPECT_GT(RunTone(DesignAt(c.corrections, STEP, STEP * 8), 5, AMP, PHASE, 0.0).imageDB, -45.0);

    // A calibrated step reads none of it: that would be no number, and give the neutral taps.
    const Filter atStep = DesignAt(c.corrections, STEP, STEP * 8);
    EXPECT_FALSE(SameFilter(atStep, DesignAt(TqCorrections(), STEP, STEP * 8)));
}

TEST(CorrectionFilter, FinePositionsAreLimitedToTheTable) {
    const auto record = RealisticRecord();
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) {
        record->iqImbalanceAmpOffset[t][0] = 1.1f;
        record->iqImbalanceAmpOffset[t][3999] = 0.9f;
    }
    Corrections c(*record, 20.0f);
    for (const int fine : {-1, -7, INT_MIN + 1}) {
        EXPECT_GT(DesignAt(c.corrections, 1, fine).taps[15].im, DesignAt(c.corrections, 1, fine).taps[15].re) << fine;
    }
    const Filter last = DesignAt(c.corrections, 490, 3999);
    EXPECT_GT(last.taps[15].re, last.taps[15].im);
    for (const int fine : {4001, INT_MAX}) EXPECT_TRUE(SameFilter(DesignAt(c.corrections, 490, fine), last)) << fine;
}

TEST(CorrectionFilter, ValuesWithoutSenseGiveTheNeutralTaps) {
    TqCorrections neutral;
    neutral.SetCurrentTemp(20.0f);
    const Filter expected = DesignAt(neutral, 10, 80);
    const auto record = RealisticRecord();
    Corrections c(*record, 20.0f);
    auto& data = *c->calData;
    const int plane = c->currTempIndex;
    const auto check = [&](float& value, std::initializer_list<float> bad) {
        const float good = value;
        for (const float v : bad) {
            value = v;
            EXPECT_TRUE(SameFilter(DesignAt(c.corrections, 10, 80), expected)) << v;
        }
        value = good;
        EXPECT_FALSE(SameFilter(DesignAt(c.corrections, 10, 80), expected));
    };
    check(data.iqImbalanceAmp[plane][9][0], {NOT_A_NUMBER, INF, -INF, -100.0f});
    check(data.iqImbalanceAmp[plane][9][7], {NOT_A_NUMBER, INF, -100.0f});
    check(data.iqImbalancePhase[plane][9][12], {NOT_A_NUMBER, INF, -INF});
    check(data.iqFlatnessAmp[plane][9][3], {NOT_A_NUMBER, -INF, -1e30f});

    c->SetCurrentTemp(record->measuredTemps[2]);
    data.iqImbalanceAmp[2][9][4] = 0.0f;
    EXPECT_TRUE(SameFilter(DesignAt(c.corrections, 10, 80), expected));
}

TEST(LowFrequencyCurve, IsReadAtEachBinUpToItsEnd) {
    const struct {
        const char* name;
        double start, binSize;
        int length;
        std::vector<float> expected;
    } CASES[] = {
        {"below the first point", 9000.0, 1000.0, 2, {-0.85f, -0.85f}},
        {"at points and between", 2000000.0, 200000.0, 3, {-0.85f, -0.8f, -0.75f}},
        {"ends with the curve", 8000000.0, 1000000.0, 5, {-0.0466667f}},
        {"just below the end", 8699999.9, 0.2, 4, {0.0f}},
        {"above it", 8700000.0, 1.0, 4, {}},
        {"no bins", 1e6, 1.0, 0, {}},
        {"fewer than none", 1e6, 1.0, -5, {}},
        {"downward", 2200000.0, -200000.0, 2, {-0.8f, -0.85f}},
        {"start is no number", std::nan(""), 1.0, 4, {}},
        {"bin size is no number", 1e6, std::nan(""), 4, {}},
        {"start minus infinite", -INFINITY, 1.0, 2, {-0.85f, -0.85f}},
        {"start infinite", INFINITY, 1.0, 2, {}},
        {"bin size infinite", 1e6, INFINITY, 2, {}},
    };
    for (const auto& c : CASES) {
        const std::vector<float> got = TqCorrections::GetLowFreqAmplitudeCorrections(c.start, c.binSize, c.length);
        ASSERT_EQ(got.size(), c.expected.size()) << c.name;
        for (size_t n = 0; n < got.size(); n++) EXPECT_NEAR(got[n], c.expected[n], 1e-7) << c.name << " " << n;
    }

    const auto fine = TqCorrections::GetLowFreqAmplitudeCorrections(0.0, 10.0, 3000000);
    EXPECT_EQ(fine.size(), 870000u);
    EXPECT_TRUE(std::ranges::is_sorted(fine));
}
