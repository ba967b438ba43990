#include "tq_corrections.h"

#include "dsp.h"
#include "frequency_plan.h"
#include "tq_assert.h"
#include "tq_correction_def.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr int MAX_LOWER_PLANE = TQ720_CAL_TEMPS - 2;
constexpr int FINE_STEPS_PER_LO_STEP = 8;
// Point of the IF curves, 19.2 MHz, that the fine tables hold.
constexpr int FINE_TABLE_POINT = 4;

// The correction filter is shaped as a spectrum of 32 points.
constexpr int FILTER_FFT_ORDER = 5;
constexpr int FILTER_FFT_SIZE = 1 << FILTER_FFT_ORDER;
constexpr int FILTER_BINS = FILTER_FFT_SIZE / 2;  // packed: DC and Nyquist, then bins 1 to 15
constexpr int FFT_DIV_FWD_BY_N = 1;
constexpr float PROTOTYPE_CUTOFF = 0.45f;  // fraction of the filter's sample rate
constexpr int CENTER_TAP = CORRECTION_TAPS / 2;

int LOStepIndex(int IFStep) { return std::clamp(IFStep, 1, TQ720_CAL_LO_STEPS) - 1; }

// Between two temperature planes, in single precision. The ends are exact, so that a plane with no numbers does no
// harm at weight 0.
float Blend(float lower, float upper, double frac) {
    const float f = static_cast<float>(frac);
    if (f == 0.0f) return lower;
    if (f == 1.0f) return upper;
    return lower * (1.0f - f) + upper * f;
}

// Taps for curves across the IF, the prototype low-pass corrected for them. Curve point c belongs to spectrum bin
// c + 1; the bins above the last point repeat it.
//   ampImbalance    power ratio of I to Q
//   phaseImbalance  [rad], half of it goes to either branch
//   ampFlatness     [dB]
std::vector<Ipp32fc> GenerateFirIFFT(const float* ampImbalance, const float* phaseImbalance, const float* ampFlatness,
                                     int numCorrPoints) {
    DSP::IppsFFT_64f fft(FILTER_FFT_ORDER, FFT_DIV_FWD_BY_N, ippAlgHintAccurate);
    std::array<double, FILTER_FFT_SIZE> prototype = {};
    DSP::GetLowpassFIRTaps_64f(prototype.data(), CORRECTION_TAPS, PROTOTYPE_CUTOFF, ippWinRect, ippTrue);

    std::array<Ipp64fc, FILTER_BINS> specI;
    fft.FwdFFT(prototype.data(), specI.data());
    std::array<Ipp64fc, FILTER_BINS> specQ = specI;

    // The imbalance at DC, where none can be measured, continues the first two points as a line.
    const float dcImbalance = 2.0f * ampImbalance[0] - ampImbalance[1];
    const double dcRoot = std::sqrt(static_cast<double>(dcImbalance));
    specI[0].re /= dcRoot;
    specQ[0].re *= dcRoot;

    std::array<Ipp64fc, FILTER_BINS> rotI;
    rotI.fill({1.0, 0.0});
    std::array<Ipp64fc, FILTER_BINS> rotQ = rotI;
    for (size_t bin = 1; bin < FILTER_BINS; bin++) {
        const int c = std::min(static_cast<int>(bin), numCorrPoints) - 1;
        Ipp64fc& binI = specI[bin];
        Ipp64fc& binQ = specQ[bin];

        const double flatness = std::sqrt(std::pow(10.0, ampFlatness[c] / 10.0));
        binI.re /= flatness;
        binI.im /= flatness;
        binQ.re /= flatness;
        binQ.im /= flatness;
        if (bin == 1) {
            // DC goes the other way from the bins: the gains of the record were measured with filters made so.
            specI[0].re *= flatness;
            specQ[0].re *= flatness;
        }

        const double root = std::sqrt(static_cast<double>(ampImbalance[c]));
        binI.re /= root;
        binI.im /= root;
        binQ.re *= root;
        binQ.im *= root;

        const double halfPhase = phaseImbalance[c] * 0.5f;
        rotI[bin] = {std::cos(-halfPhase), std::sin(-halfPhase)};
        rotQ[bin] = {std::cos(halfPhase), std::sin(halfPhase)};
    }
    ippsMul_64fc(specI.data(), rotI.data(), specI.data(), FILTER_BINS);
    ippsMul_64fc(specQ.data(), rotQ.data(), specQ.data(), FILTER_BINS);

    std::array<double, FILTER_FFT_SIZE> timeI;
    std::array<double, FILTER_FFT_SIZE> timeQ;
    fft.InvFFT(specI.data(), timeI.data());
    fft.InvFFT(specQ.data(), timeQ.data());

    std::array<double, CORRECTION_TAPS> window;
    DSP::GetHammingWindow(window.data(), CORRECTION_TAPS);
    ippsMul_64f(timeI.data(), window.data(), timeI.data(), CORRECTION_TAPS);
    ippsMul_64f(timeQ.data(), window.data(), timeQ.data(), CORRECTION_TAPS);

    std::vector<Ipp32fc> coeffs(CORRECTION_TAPS);
    for (size_t n = 0; n < CORRECTION_TAPS; n++) {
        coeffs[n] = {static_cast<float>(timeI[n]), static_cast<float>(timeQ[n])};
    }
    return coeffs;
}

// Brings the larger centre tap to 1.0, the largest value that a tap word carries.
void ScaleFirFilterCoefficients(Ipp32fc* coeffs) {
    const float scale = std::max(coeffs[CENTER_TAP].re, coeffs[CENTER_TAP].im);
    for (int n = 0; n < CORRECTION_TAPS; n++) {
        coeffs[n].re /= scale;
        coeffs[n].im /= scale;
    }
}

// Gain of both branches at zero frequency.
Ipp32fc CalculateFirFilterGain(const Ipp32fc* coeffs) {
    Ipp32fc gain = {0.0f, 0.0f};
    for (int n = 0; n < CORRECTION_TAPS; n++) {
        gain.re += coeffs[n].re;
        gain.im += coeffs[n].im;
    }
    return gain;
}

// The curves of one LO position across the IF.
struct IFCurves {
    std::array<float, TQ720_CAL_IF_POINTS> amp;
    std::array<float, TQ720_CAL_IF_POINTS> phase;
    std::array<float, TQ720_CAL_IF_POINTS> flatness;
};

IFCurves NeutralCurves() {
    IFCurves curves;
    curves.amp.fill(1.0f);
    curves.phase.fill(0.0f);
    curves.flatness.fill(0.0f);
    return curves;
}

struct CorrectionFilter {
    std::vector<Ipp32fc> taps;
    double offset;  // [dB] to add to levels

    bool IsFinite() const {
        return std::isfinite(offset) && std::ranges::all_of(taps, [](const Ipp32fc& tap) {
                   return std::isfinite(tap.re) && std::isfinite(tap.im);
               });
    }
};

CorrectionFilter DesignFilter(const IFCurves& curves) {
    CorrectionFilter filter;
    filter.taps = GenerateFirIFFT(curves.amp.data(), curves.phase.data(), curves.flatness.data(), TQ720_CAL_IF_POINTS);
    ScaleFirFilterCoefficients(filter.taps.data());
    const Ipp32fc gain = CalculateFirFilterGain(filter.taps.data());
    const float power = gain.re * gain.re + gain.im * gain.im;
    filter.offset = -20.0 * std::log10(std::sqrt(static_cast<double>(power)));
    return filter;
}

}  // namespace

TqCorrections::TqCorrections() : calData(std::make_unique<TQ720CalData>()) {
    tqCalBuildDummyCorrections(calData.get());
}

TqStatus TqCorrections::LoadCorrections(const TQ720CalData* data) {
    TQ_ASSERT(data != nullptr);
    std::memmove(calData.get(), data, sizeof(TQ720CalData));
    RenewFreqTuneOffset();
    return tqNoError;
}

TqStatus TqCorrections::SetCorrectionMode(TqCorrectionMode mode) {
    correctionMode = mode;
    return tqNoError;
}

TqStatus TqCorrections::SetCorrectionIndex(int newIndex) {
    calModeTempIndex = std::clamp(newIndex, 0, TQ720_CAL_TEMPS - 1);
    return calModeTempIndex == newIndex ? tqNoError : tqSettingClamped;
}

TqStatus TqCorrections::GetDeviceTempRange(TqTempRange& tempRange) const {
    switch (calData->tempRange) {
        case 0:
            tempRange = tqTempRangeRoomTemp;
            break;
        case 1:
            tempRange = tqTempRangeStd;
            break;
        case 2:
            tempRange = tqTempRangeExt;
            break;
        case TEMP_RANGE_NOT_SET:
            tempRange = tqTempRangeNotSet;
            break;
        default:
            tempRange = tqTempRangeUnknown;
            break;
    }
    return tqNoError;
}

void TqCorrections::SetCurrentTemp(float deviceTemp) {
    ChoosePlanes(deviceTemp);
    RenewFreqTuneOffset();
}

void TqCorrections::ChoosePlanes(float deviceTemp) {
    if (correctionMode == tqCorrectionModeCal) {
        currTempIndex = std::min(calModeTempIndex, MAX_LOWER_PLANE);
        currTempFrac = calModeTempIndex - currTempIndex;
        return;
    }

    currTemp = deviceTemp;
    const auto& temps = calData->measuredTemps;
    const auto above = std::ranges::find_if(temps, [=](float temp) { return temp > deviceTemp; });
    if (above == std::begin(temps)) {
        currTempIndex = 0;
        currTempFrac = 0.0;
    } else if (above == std::end(temps)) {
        currTempIndex = MAX_LOWER_PLANE;
        currTempFrac = 1.0;
    } else {
        const float below = above[-1];
        const float frac = (deviceTemp - below) / (*above - below);
        currTempIndex = static_cast<int>(above - std::begin(temps)) - 1;
        // A point below without a temperature gives no fraction: the plane above counts alone.
        currTempFrac = frac >= 0.0f && frac <= 1.0f ? frac : 1.0f;
    }
}

void TqCorrections::GetNewestTuningValue(uint16_t& voltage, uint64_t& timeStamp) const {
    const auto& values = calData->timebaseCorr;
    const auto entries = std::ranges::find(values, TIMEBASE_CORR_END) - std::begin(values);
    if (entries == 0) return;
    voltage = values[entries - 1];
    timeStamp = calData->timebaseTimestamps[entries - 1];
}

void TqCorrections::RenewFreqTuneOffset() {
    const int16_t lower = calData->timebaseTempCurve[currTempIndex];
    const int16_t upper = calData->timebaseTempCurve[currTempIndex + 1];
    // The ends are exact. Weights from 0 to 1 keep the sum, cut towards zero, within 16 bits.
    const float f = static_cast<float>(currTempFrac);
    int16_t offset = f == 0.0f ? lower : upper;
    if (f != 0.0f && f != 1.0f) {
        offset = static_cast<int16_t>(lower * static_cast<double>(1.0f - f) + upper * static_cast<double>(f));
    }
    freqTuneOffset = offset;
}

uint8_t TqCorrections::GetRoughGain(int IFStep) const { return calData->roughAttens[LOStepIndex(IFStep)]; }

float TqCorrections::GetRFCorrection(int atten, int IFStep) const {
    const int a = std::clamp(atten, 0, TQ720_CAL_ATTENS - 1);
    const int i = LOStepIndex(IFStep);
    const auto* planes = &calData->rfCorrections[currTempIndex];
    const float gain = Blend(planes[0][a][i], planes[1][a][i], currTempFrac);
    return std::isfinite(gain) ? gain : 0.0f;
}

void TqCorrections::GetIFCorrections(int IFStep, int IFStep384, Ipp32fc* coeffs, double& rfOffset) const {
    const int i = LOStepIndex(IFStep);
    const auto* ampPlanes = &calData->iqImbalanceAmp[currTempIndex];
    const auto* phasePlanes = &calData->iqImbalancePhase[currTempIndex];
    const auto* flatnessPlanes = &calData->iqFlatnessAmp[currTempIndex];
    IFCurves curves;
    for (size_t j = 0; j < TQ720_CAL_IF_POINTS; j++) {
        curves.amp[j] = Blend(ampPlanes[0][i][j], ampPlanes[1][i][j], currTempFrac);
        curves.phase[j] = -Blend(phasePlanes[0][i][j], phasePlanes[1][i][j], currTempFrac);
        curves.flatness[j] = Blend(flatnessPlanes[0][i][j], flatnessPlanes[1][i][j], currTempFrac);
    }

    if (IFStep384 % FINE_STEPS_PER_LO_STEP != 0) {
        const int fine = std::clamp(IFStep384, 0, TQ720_CAL_FINE_STEPS - 1);
        const auto* ampFine = &calData->iqImbalanceAmpOffset[currTempIndex];
        const auto* phaseFine = &calData->iqImbalancePhaseOffset[currTempIndex];
        const float amp = Blend(ampFine[0][fine], ampFine[1][fine], currTempFrac);
        const float phase = Blend(phaseFine[0][fine], phaseFine[1][fine], currTempFrac);
        const float ampShift = amp - curves.amp[FINE_TABLE_POINT];
        const float phaseShift = -phase - curves.phase[FINE_TABLE_POINT];
        for (float& value : curves.amp) value += ampShift;
        for (float& value : curves.phase) value += phaseShift;
    }

    CorrectionFilter filter = DesignFilter(curves);
    if (!filter.IsFinite()) filter = DesignFilter(NeutralCurves());
    std::ranges::copy(filter.taps, coeffs);
    rfOffset = filter.offset;
}

void TqCorrections::GetIFCorrections(int IFStep, Ipp32fc* coeffs, double& rfOffset) const {
    GetIFCorrections(IFStep, (LOStepIndex(IFStep) + 1) * FINE_STEPS_PER_LO_STEP, coeffs, rfOffset);
}

std::vector<float> TqCorrections::GetLowFreqAmplitudeCorrections(double startFreq, double binSize, int length) {
    std::vector<float> corrections;
    for (int n = 0; n < length; n++) {
        const double f = n * binSize + startFreq;
        const auto upper = std::ranges::find_if(gLowFreqCurve, [=](const LowFreqPoint& p) { return p.freq > f; });
        if (upper == gLowFreqCurve.end()) break;
        if (upper == gLowFreqCurve.begin()) {
            corrections.push_back(static_cast<float>(upper->ampl));
            continue;
        }
        const auto lower = upper - 1;
        const float t = static_cast<float>((f - lower->freq) / (upper->freq - lower->freq));
        double ampl = lower->ampl;
        if (t == 1.0f) {
            ampl = upper->ampl;
        } else if (t != 0.0f) {
            ampl = lower->ampl * static_cast<double>(1.0f - t) + upper->ampl * static_cast<double>(t);
        }
        corrections.push_back(static_cast<float>(ampl));
    }
    return corrections;
}
