// The plan of the real-time mode: from its settings to transform length, bins of the frame and command blocks. TqDevice
// runs it inside Configure and hands the result to EngineRealTime. Sends nothing; no state.
#pragma once

#include "stream_plan.h"

// What EngineRealTime has to know of its spectra.
struct RealTimeSetup {
    float windowGain = 0.0f;      // unused
    float fftGrowth = 0.0f;       // unused
    int fftSize = 0;              // a power of two, 128 to 65536
    int zeroPadAmount = 0;        // fftSize less the length of the window
    float hwFrameOffset = 0.0f;   // unused
    float frameGain = 0.0f;       // unused
    int sweepOffset = 0;          // first bin of a spectrum, ascending in frequency, that is returned; whole columns
    int freqBinning = 1;          // bins per column of the frame, a power of two
    int swFrameOffset = 0;        // sweepOffset / freqBinning
    uint32_t sweepsPerFrame = 0;  // unused
};

// What EngineRealTime gets, by copy.
struct RealTimePlan {
    RealTimeSetup setup;
    PatchSetup patch{};
    TqCommand initCommands;   // one block: tunes and starts
    TqCommand fetchCommands;  // one block: 127 I/Q packets and an aux packet
};

// Plans the mode and writes the planner fields of `settings`. Limits the RBW silently.
RealTimePlan PlanRealTime(TqRealTimeSettings& settings, const TqRFSettings& rfConfig, const TqCorrections& corrections,
                          Tq720Config& deviceConfig);
