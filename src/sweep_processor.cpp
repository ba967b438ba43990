#include "sweep_processor.h"

namespace {

constexpr float LN_TO_DB_POWER = 4.3429446f;      // 10 / ln(10)
constexpr float DB_TO_LN_VOLTAGE = 0.115129255f;  // ln(10) / 20
constexpr float DBM_TO_DBMV = 46.9897f;           // dBm to dB of a millivolt across 50 ohm, 20 log10(223.6)
constexpr float FULL_SCALE_MV = 223.6f;           // root of 50000: 0 dBm in millivolts across 50 ohm

}  // namespace

SweepFFT::SweepFFT(TqWindowType windowType, TqVideoUnits units, int size, int zeroPad, bool mirror)
    : fftState(DSP::IntLogBase2(size), 1, ippAlgHintFast),
      window(size),
      windowed(size),
      windowSize(size - zeroPad),
      fftSize(size),
      highSide(mirror),
      unitsOut(units) {
    ippsZero_32fc(window.data(), fftSize);
    DSP::BuildWindowFunction(windowType, window.data(), windowSize);
    // Over the padded length, by which the transform divides.
    DSP::NormalizeWindow(window.data(), fftSize);
}

void SweepFFT::FwdTransform(const Ipp32fc* src, Ipp32f* dst) {
    if (fftSize <= 1) return;

    Ipp32fc* const work = windowed.data();
    if (highSide) {
        ippsConj_32fc(src, work, windowSize);
        ippsMul_32fc(work, window.data(), work, windowSize);
    } else {
        ippsMul_32fc(src, window.data(), work, windowSize);
    }
    ippsZero_32fc(work + windowSize, fftSize - windowSize);
    fftState.FwdFFT_I(work);

    const int half = fftSize / 2;
    if (unitsOut == tqVideoVoltage) {
        ippsMagnitude_32fc(work, dst + half, half);
        ippsMagnitude_32fc(work + half, dst, half);
        return;
    }
    ippsPowerSpectr_32fc(work, dst + half, half);
    ippsPowerSpectr_32fc(work + half, dst, half);
    if (unitsOut == tqVideoLog) {
        ippsLn_32f(dst, dst, fftSize);
        ippsMulC_32f(dst, LN_TO_DB_POWER, dst, fftSize);
    }
}

SweepProcessor::SweepProcessor(const TqSweepSettings& sweepSettings, const SweepSetup& setup)
    : settings(sweepSettings),
      fft(settings.window, settings.videoUnits, setup.fftSize, setup.zeroPadAmount, false),
      fftSize(setup.fftSize),
      fftStepCount(setup.fftsPerStep),
      fftStepSize(setup.fftSize / 4),
      a0(setup.iirFc),
      b1(1.0 - setup.iirFc),
      fftOutput(setup.fftSize),
      filtered(setup.fftSize) {}

void SweepProcessor::ProcessInput(const Ipp32fc* input, Ipp32f* outMin, Ipp32f* outMax) {
    if (settings.videoUnits != tqVideoSample && settings.detector == tqDetectorMinMax) {
        MinMax(input, outMin, outMax);
        ToScale(outMin);
        ToScale(outMax);
        return;
    }
    // One row serves as both.
    if (settings.videoUnits == tqVideoSample) {
        fft.FwdTransform(input, outMin);
    } else {
        Average(input, outMin);
    }
    ToScale(outMin);
    ippsCopy_32f(outMin, outMax, fftSize);
}

void SweepProcessor::Average(const Ipp32fc* input, Ipp32f* out) {
    ippsZero_32f(out, fftSize);
    for (int i = 0; i < fftStepCount; i++) {
        fft.FwdTransform(input + static_cast<int64_t>(i) * fftStepSize, fftOutput.data());
        ippsAdd_32f(out, fftOutput.data(), out, fftSize);
    }
    ippsMulC_32f(out, 1.0f / static_cast<float>(fftStepCount), out, fftSize);
}

void SweepProcessor::MinMax(const Ipp32fc* input, Ipp32f* outMin, Ipp32f* outMax) {
    ippsZero_32f(filtered.data(), fftSize);
    double weight = 1.0;
    bool first = true;
    for (int i = 0; i < fftStepCount; i++) {
        fft.FwdTransform(input + static_cast<int64_t>(i) * fftStepSize, fftOutput.data());

        // A running mean until the filter's own weight is reached. The last transform always counts: 1 / a0 can round
        // to a whole number while a0 is still below its reciprocal, and the rows would then take nothing.
        if (weight > a0 && i < fftStepCount - 1) {
            Blend(static_cast<float>(1.0 - weight), static_cast<float>(weight));
            weight = 1.0 / (i + 2);
            continue;
        }

        Blend(static_cast<float>(b1), static_cast<float>(a0));
        if (first) {
            ippsCopy_32f(filtered.data(), outMin, fftSize);
            ippsCopy_32f(filtered.data(), outMax, fftSize);
            first = false;
        } else {
            ippsMinEvery_32f(filtered.data(), outMin, outMin, fftSize);
            ippsMaxEvery_32f(filtered.data(), outMax, outMax, fftSize);
        }
    }
}

void SweepProcessor::Blend(float keep, float take) {
    if (keep == 0.0f) {
        // Not a product with 0: the minus infinity of a bin without power would become NaN and stay.
        ippsCopy_32f(fftOutput.data(), filtered.data(), fftSize);
        return;
    }
    ippsMulC_32f(filtered.data(), keep, filtered.data(), fftSize);
    ippsMulC_32f(fftOutput.data(), take, fftOutput.data(), fftSize);
    ippsAdd_32f(filtered.data(), fftOutput.data(), filtered.data(), fftSize);
}

void SweepProcessor::ToScale(Ipp32f* row) const {
    const bool linear = settings.scale == tqScaleLin;
    switch (settings.videoUnits) {
        case tqVideoLog:
            if (!linear) return;
            ippsAddC_32f(row, DBM_TO_DBMV, row, fftSize);
            ippsMulC_32f(row, DB_TO_LN_VOLTAGE, row, fftSize);
            ippsExp_32f_I(row, fftSize);
            return;
        case tqVideoVoltage:
            if (linear) break;
            ippsSqr_32f(row, row, fftSize);
            ippsLn_32f(row, row, fftSize);
            ippsMulC_32f(row, LN_TO_DB_POWER, row, fftSize);
            return;
        case tqVideoPower:
        case tqVideoSample:
            if (linear) {
                ippsSqrt_32f(row, row, fftSize);
                break;
            }
            ippsLn_32f(row, row, fftSize);
            ippsMulC_32f(row, LN_TO_DB_POWER, row, fftSize);
            return;
    }
    ippsMulC_32f(row, FULL_SCALE_MV, row, fftSize);
}
