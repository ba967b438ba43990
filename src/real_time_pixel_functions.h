// Level mapping of the persistence display: spectrum values to image levels 0 to 255. EngineRealTime calls one of the
// three per frame on its accumulation thread; they touch only their arguments.
#pragma once

#include "ipps.h"

// Maps `len` values, rounded up to a multiple of four: reads and writes up to three elements behind `len`, for which
// both arrays must have room. A value that is no number, or whose level would not fit an int32, falls on level 0.
//   src  Log: [dB]; Mag: [mV]
//   dst  out, levels 0 to 255; must not overlap src
//   div  height of the display [dB], above 0; Mag ignores it
//   ref  top of the display, the reference level [dBm]

// 256 steps over `div` dB: ref - div is level 0, ref itself is limited to 255. The two give the same result.
void sse41LogToPixel(const Ipp32f* src, Ipp32s* dst, int len, float div, float ref);
void avx2LogToPixel(const Ipp32f* src, Ipp32s* dst, int len, float div, float ref);  // needs DSP::AVX2Supported()

// Linear: 0 mV is level 0, the voltage of `ref` dBm at 50 ohms level 255.
void sse41MagToPixel(const Ipp32f* src, Ipp32s* dst, int len, float div, float ref);
