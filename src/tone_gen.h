// The fast generator of complex tones behind DSP::IQFreqTuner_32fc (dsp.h): a single-precision recurrence that is set
// right from the double-precision phase so often that its error stays bounded. Any thread may enter.
#pragma once

#include <cstdint>

#include "ipps.h"

inline constexpr int MAX_ITER = 1024;  // the longest run of the recurrence between two exact values [samples]

// dst[k] = mag * exp(j (*phase + 2 pi freq k)), within 1e-4 of mag; the same bits on every processor.
//   freq   fraction of the sample rate
//   phase  in and out [rad]; out: that of sample len, in magnitude below 2 pi
//   len    at most 0: nothing happens
void amToneGen_32fc_sse3(Ipp32fc* dst, double freq, double mag, double* phase, int64_t len);
