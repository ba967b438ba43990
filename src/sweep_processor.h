// SweepProcessor turns the samples of one LO step into a row of minima and a row of maxima: windowed FFTs, video
// filter, detector and units. It knows nothing of LO steps, device gain or bin selection, which belong to the sweep
// engines; each of their work threads owns one. One thread at a time, no state from one step to the next.
#pragma once

#include "dsp.h"
#include "dsp_vector.h"
#include "ipps.h"
#include "sweep_plan.h"
#include "tq_settings.h"

// A windowed forward transform, with the spectrum rearranged to ascending frequency.
class SweepFFT {
public:
    //   size     transform length, a power of two
    //   zeroPad  zeros behind the window inside the transform: they only interpolate the bins
    //   mirror   mirrors the spectrum of the input
    // Allocates all that FwdTransform needs.
    SweepFFT(TqWindowType windowType, TqVideoUnits units, int size, int zeroPad, bool mirror);
    SweepFFT(const SweepFFT&) = delete;
    SweepFFT& operator=(const SweepFFT&) = delete;

    //   src  size - zeroPad samples
    //   dst  `size` bins, the most negative frequency first, zero frequency in bin size / 2: 10 log10 of the power,
    //        magnitude, or power, by the units. A tone of amplitude A at the centre of a bin has magnitude A, whatever
    //        the window and the padding. Zero power in a logarithmic row is minus infinity.
    void FwdTransform(const Ipp32fc* src, Ipp32f* dst);

private:
    DSP::FFT_32fc fftState;
    DSP::Vector<Ipp32fc> window;    // real parts; zero beyond windowSize
    DSP::Vector<Ipp32fc> windowed;  // transformed in place
    int windowSize;                 // samples of a transform
    int fftSize;
    bool highSide;
    TqVideoUnits unitsOut;
};

class SweepProcessor {
public:
    SweepProcessor(const TqSweepSettings& sweepSettings, const SweepSetup& setup);
    SweepProcessor(const SweepProcessor&) = delete;
    SweepProcessor& operator=(const SweepProcessor&) = delete;

    //   input           (fftsPerStep - 1) * fftSize / 4 + bestFFTSize samples; with tqVideoSample, bestFFTSize
    //   outMin, outMax  fftSize bins each, both always written, relative to full scale: an amplitude of 1.0 is 0 dB,
    //                   or 223.6 mV
    // Allocates nothing.
    void ProcessInput(const Ipp32fc* input, Ipp32f* outMin, Ipp32f* outMax);

private:
    void Average(const Ipp32fc* input, Ipp32f* out);
    void MinMax(const Ipp32fc* input, Ipp32f* outMin, Ipp32f* outMax);
    void Blend(float keep, float take);
    void ToScale(Ipp32f* row) const;

    const TqSweepSettings settings;
    SweepFFT fft;
    int fftSize;
    int fftStepCount;              // transforms in a step
    int fftStepSize;               // hop between them: 75 percent overlap
    double a0;                     // video filter: weight of the new transform, VBW / RBW, at most 1.0
    double b1;                     // and of what was there
    DSP::Vector<float> fftOutput;  // the transform in hand
    DSP::Vector<float> filtered;   // state of the video filter
};
