// Temperature planes, table limits, the filter design against a double-precision reference, and records without sense.
#include "tq_corrections.h"

#include "frequency_plan.h"
#include "tq_correction_def.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>
#include <utility>
#include <vector>

namespace {

using Complex = std::complex<double>;
constexpr double PI = std::numbers::pi;
constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr float INF = std::numeric_limits<float>::infinity();

// Smooth faults of an IF, of the size that instruments have: +-0.6 dB, +-3 degrees, 1.5 dB of slope. Plane t shrinks
// them by a twentieth for each.
std::unique_ptr<TQ720CalData> RealisticRecord() {
    auto record = std::make_unique<TQ720CalData>();
    tqCalBuildDummyCorrections(record.get());
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) {
        const double size = 1.0 - 0.05 * t;
        record->measuredTemps[t] = static_cast<float>(-28.0 + 14.5 * t);
        for (int i = 0; i < TQ720_CAL_LO_STEPS; i++) {
            for (int j = 0; j < TQ720_CAL_IF_POINTS; j++) {
                const double x = PI * j / 14.0 + i * 0.01;
                record->iqImbalanceAmp[t][i][j] = static_cast<float>(std::pow(10.0, size * 0.06 * std::cos(x + 0.3)));
                record->iqImbalancePhase[t][i][j] = static_cast<float>(size * 0.05 * std::sin(x + 0.5));
                record->iqFlatnessAmp[t][i][j] = static_cast<float>(size * -0.01 * j * j);
            }
        }
    }
    return record;
}

std::unique_ptr<TqCorrections> CorrectionsAt(const TQ720CalData& record, float temp) {
    auto corrections = std::make_unique<TqCorrections>();
    corrections->LoadCorrections(&record);
    corrections->SetCurrentTemp(temp);
    return corrections;
}

struct Filter {
    std::array<Ipp32fc, CORRECTION_TAPS> taps;
    double offset;  // [dB]
};

Filter DesignAt(const TqCorrections& corrections, int step, int fine) {
    Filter filter;
    corrections.GetIFCorrections(step, fine, filter.taps.data(), filter.offset);
    return filter;
}

bool SameFilter(const Filter& a, const Filter& b) {
    return a.offset == b.offset && std::memcmp(a.taps.data(), b.taps.data(), sizeof a.taps) == 0;
}

// The taps of one branch by plain sums: sign +1 is I.
std::vector<double> ReferenceBranch(const float* amp, const float* phase, const float* flatness, int sign) {
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
    spectrum[0] *= std::pow(2.0f * amp[0] - amp[1], -0.5 * sign) * std::pow(10.0, flatness[0] / 20.0);
    for (size_t k = 1; k < 16; k++) {
        const size_t c = std::min<size_t>(k - 1, 12);
        spectrum[k] *=
            std::polar(std::pow(amp[c], -0.5 * sign) / std::pow(10.0, flatness[c] / 20.0), 0.5 * sign * phase[c]);
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

TEST(CorrectionTemperature, PicksTwoPlanesAndAWeightBetween0And1) {
    constexpr float N = NOT_A_NUMBER;
    const std::array<float, 7> good = {-28, -14, 1, 16, 30, 46, 59};
    const struct {
        const char* name;
        std::array<float, 7> measured;
        float temp;
        int index;
        double frac;
    } CASES[] = {
        {"at a plane", good, 1, 2, 0.0},
        {"between", good, 23, 3, 0.5},
        {"at the last plane", good, 59, 5, 1.0},
        {"hottest", good, INF, 5, 1.0},
        {"no temperature", good, N, 5, 1.0},
        {"a hole below", {-30, N, 0, 15, 30, 45, 60}, -5, 1, 1.0},
        {"a hole above", {-30, -15, N, 15, 30, 45, 60}, -5, 2, 1.0},
        {"no numbers", {N, N, N, N, N, N, N}, -5, 5, 1.0},
        {"infinite ends", {-INF, INF, INF, INF, INF, INF, INF}, -5, 0, 1.0},
        {"difference overflows", {-3e38f, 3e38f, 0, 0, 0, 0, 0}, -5, 0, 0.0},
        {"descending", {-60, -70, -80, -90, -100, -110, -120}, -5, 5, 1.0},
    };
    const auto record = RealisticRecord();
    for (const auto& c : CASES) {
        std::ranges::copy(c.measured, record->measuredTemps);
        const auto corrections = CorrectionsAt(*record, c.temp);
        EXPECT_EQ(corrections->currTempIndex, c.index) << c.name;
        EXPECT_EQ(corrections->currTempFrac, c.frac) << c.name;
    }
}

TEST(CorrectionTemperature, CalibrationModeReadsTheChosenPlaneAtAnyTemperature) {
    const auto record = RealisticRecord();
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) record->rfCorrections[t][0][0] = static_cast<float>(t);
    const auto c = CorrectionsAt(*record, 20.0f);
    c->SetCorrectionMode(tqCorrectionModeCal);
    for (const auto& [index, plane] : {std::pair{5, 5}, {6, 6}, {7, 6}, {-1, 0}}) {
        EXPECT_EQ(c->SetCorrectionIndex(index), index == plane ? tqNoError : tqSettingClamped);
        c->SetCurrentTemp(-100.0f);
        EXPECT_EQ(c->GetRFCorrection(0, 1), static_cast<float>(plane)) << index;
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
    const auto c = CorrectionsAt(*record, 20.0f);
    constexpr std::pair<int, int> STEPS[] = {{INT_MIN, 0}, {1, 0}, {2, 1}, {490, 489}, {INT_MAX, 489}};
    constexpr std::pair<int, int> ATTENS[] = {{INT_MIN, 0}, {-1, 0}, {6, 6}, {INT_MAX, 6}};
    for (const auto& [step, stepIndex] : STEPS) {
        EXPECT_EQ(c->GetRoughGain(step), stepIndex % 251);
        for (const auto& [atten, attenIndex] : ATTENS) {
            EXPECT_FLOAT_EQ(c->GetRFCorrection(atten, step), static_cast<float>(1000 * attenIndex + stepIndex));
        }
        Filter filter;
        c->GetIFCorrections(step, filter.taps.data(), filter.offset);
        EXPECT_TRUE(SameFilter(filter, DesignAt(*c, stepIndex + 1, 8)));
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
    const auto c = CorrectionsAt(*record, 13.0f);
    const float f = (13.0f - 10.0f) / (20.0f - 10.0f);
    EXPECT_EQ(c->GetRFCorrection(2, 100), 3.3f * (1.0f - f) + -7.7f * f);
    EXPECT_EQ(c->GetFreqTuneOffset(), -70);  // -70.1, cut towards zero
    record->timebaseTempCurve[3] = 99;
    c->LoadCorrections(record.get());
    EXPECT_EQ(c->GetFreqTuneOffset(), 69);  // at once, and without a new temperature: 69.9

    // An end of the blend keeps out what stands in the other plane; within it, a gain that is no number is none.
    for (const float bad : {NOT_A_NUMBER, INF, -INF}) {
        c->calData->rfCorrections[4][2][99] = bad;
        c->SetCurrentTemp(10.0f);
        EXPECT_EQ(c->GetRFCorrection(2, 100), 3.3f);
        c->SetCurrentTemp(15.0f);
        EXPECT_EQ(c->GetRFCorrection(2, 100), 0.0f);
    }
}

TEST(CorrectionFilter, TapsAreThoseOfTheDesignCarriedOutInDouble) {
    const auto record = RealisticRecord();
    // A slope that begins at DC, so that its way into the DC value shows.
    for (auto& step : record->iqFlatnessAmp[2])
        std::ranges::generate(step, [x = 0.0]() mutable { return float(x -= 0.1); });
    const auto c = CorrectionsAt(*record, record->measuredTemps[2]);
    const auto branch = [&](int sign) {
        return ReferenceBranch(record->iqImbalanceAmp[2][199], record->iqImbalancePhase[2][199],
                               record->iqFlatnessAmp[2][199], sign);
    };
    const std::vector<double> i = branch(1);
    const std::vector<double> q = branch(-1);
    const double scale = std::max(i[15], q[15]);
    const Filter filter = DesignAt(*c, 200, 1600);
    for (size_t n = 0; n < 31; n++) {
        // Narrowing to float and dividing by a float: two roundings of a value of at most 1.
        EXPECT_NEAR(filter.taps[n].re, i[n] / scale, 2e-7) << n;
        EXPECT_NEAR(filter.taps[n].im, q[n] / scale, 2e-7) << n;
    }
    const double sumI = std::accumulate(i.begin(), i.end(), 0.0);
    const double sumQ = std::accumulate(q.begin(), q.end(), 0.0);
    EXPECT_NEAR(filter.offset, -20.0 * std::log10(std::hypot(sumI, sumQ) / scale), 2e-5);
}

// At their point of the curves the fine tables say what these are to be, and all points move by as much.
TEST(CorrectionFilter, FineTablesMoveTheCurvesBetweenTwoSteps) {
    constexpr int STEP = 120;
    constexpr int FINE = STEP * 8 + 3;
    const auto record = RealisticRecord();
    const auto moved = RealisticRecord();
    for (int t = 0; t < TQ720_CAL_TEMPS; t++) {
        auto& amp = record->iqImbalanceAmpOffset[t];
        auto& phase = record->iqImbalancePhaseOffset[t];
        std::ranges::fill(amp, NOT_A_NUMBER);
        std::ranges::fill(phase, 0.0f);
        amp[0] = 1.1f;
        amp[FINE] = 0.03f + record->iqImbalanceAmp[t][STEP - 1][4];
        amp[3999] = 0.9f;
        phase[FINE] = 0.02f + record->iqImbalancePhase[t][STEP - 1][4];
        for (float& value : moved->iqImbalanceAmp[t][STEP - 1]) value += 0.03f;
        for (float& value : moved->iqImbalancePhase[t][STEP - 1]) value += 0.02f;
    }
    const auto c = CorrectionsAt(*record, 20.0f);
    const Filter atFine = DesignAt(*c, STEP, FINE);
    const Filter expected = DesignAt(*CorrectionsAt(*moved, 20.0f), STEP, STEP * 8);
    for (size_t n = 0; n < atFine.taps.size(); n++) {
        EXPECT_NEAR(atFine.taps[n].re, expected.taps[n].re, 1e-6) << n;
        EXPECT_NEAR(atFine.taps[n].im, expected.taps[n].im, 1e-6) << n;
    }

    // A calibrated step reads none of it: that would be no number, and give the neutral taps.
    EXPECT_FALSE(SameFilter(DesignAt(*c, STEP, STEP * 8), DesignAt(TqCorrections(), STEP, STEP * 8)));

    // Positions outside the table take its ends.
    const Ipp32fc below = DesignAt(*c, 1, INT_MIN + 1).taps[15];
    const Ipp32fc above = DesignAt(*c, 490, INT_MAX).taps[15];
    EXPECT_GT(below.im, below.re);
    EXPECT_GT(above.re, above.im);
}

TEST(CorrectionFilter, ValuesWithoutSenseGiveTheNeutralTaps) {
    TqCorrections neutral;
    neutral.SetCurrentTemp(20.0f);
    const Filter expected = DesignAt(neutral, 10, 80);
    const auto record = RealisticRecord();
    const auto c = CorrectionsAt(*record, 20.0f);
    auto& data = *c->calData;
    const int plane = c->currTempIndex;
    const auto check = [&](float& value, std::initializer_list<float> bad) {
        const float good = value;
        for (const float v : bad) {
            value = v;
            EXPECT_TRUE(SameFilter(DesignAt(*c, 10, 80), expected)) << v;
        }
        value = good;
        EXPECT_FALSE(SameFilter(DesignAt(*c, 10, 80), expected));
    };
    check(data.iqImbalanceAmp[plane][9][0], {NOT_A_NUMBER, -INF, -100.0f});
    check(data.iqImbalancePhase[plane][9][12], {NOT_A_NUMBER, INF, -INF});
    check(data.iqFlatnessAmp[plane][9][3], {NOT_A_NUMBER, -INF, -1e30f});
}

// A peak of the third bin takes from the sum of the taps, by the sidelobe of their window. Halving the way between too
// much and too little of it comes upon a sum of exactly 0 now and then, for which no level offset is finite.
TEST(CorrectionFilter, TapsThatAddUpToNothingGiveTheNeutralOnes) {
    TqCorrections c;
    c.SetCurrentTemp(20.0f);
    const Filter neutral = DesignAt(c, 10, 80);
    auto& flatness = c.calData->iqFlatnessAmp[c.currTempIndex + 1][9];  // its weight is 1
    int found = 0;
    for (int i = 0; i < 300; i++) {
        flatness[5] = -0.01f * static_cast<float>(i);
        float low = -60.0f, high = -40.0f;
        for (int halvings = 0; halvings < 24; halvings++) {
            flatness[2] = (low + high) / 2;
            const Filter filter = DesignAt(c, 10, 80);
            ASSERT_TRUE(std::isfinite(filter.offset)) << i;
            if (SameFilter(filter, neutral)) {
                found++;
                break;
            }
            float sum = 0.0f;
            for (const Ipp32fc& tap : filter.taps) sum += tap.re;
            (sum < 0.0f ? low : high) = flatness[2];
        }
    }
    EXPECT_GT(found, 0);
}

TEST(LowFrequencyCurve, IsReadAtEachBinUpToItsEnd) {
    const struct {
        double start, binSize;
        int length;
        std::vector<float> expected;
    } CASES[] = {
        {2000000.0, 200000.0, 3, {-0.85f, -0.8f, -0.75f}},
        {8000000.0, 1000000.0, 5, {-0.0466667f}},  // ends with the curve
        {1e6, 1.0, -5, {}},
        {std::nan(""), 1.0, 4, {}},
        {1e6, std::nan(""), 4, {}},
        {-INFINITY, 1.0, 2, {-0.85f, -0.85f}},
        {1e6, INFINITY, 2, {}},
    };
    for (const auto& c : CASES) {
        const std::vector<float> got = TqCorrections::GetLowFreqAmplitudeCorrections(c.start, c.binSize, c.length);
        ASSERT_EQ(got.size(), c.expected.size()) << c.start;
        for (size_t n = 0; n < got.size(); n++) EXPECT_NEAR(got[n], c.expected[n], 1e-7) << c.start << " " << n;
    }
}
