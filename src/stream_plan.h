// Plans of the modes that stay on one LO: from their settings to rates, correction and command blocks. TqDevice runs
// them inside Configure and hands the result to the mode's engine; the plans of the narrow sweep and of the list share
// the tune. Sends nothing; no state.
#pragma once

#include <array>
#include <cstdint>

#include "frequency_plan.h"
#include "tq720_config.h"
#include "tq_command.h"
#include "tq_corrections.h"
#include "tq_settings.h"

// One tune of the front end: what an engine has to know of it, and the words that make it.
struct StreamTune {
    PatchSetup patch{};  // coarseCorrection, actualFreq and coeffs are set
    std::array<uint32_t, TQ720_CONFIG_MAX_WORDS> words{};
    int wordCount = 0;
};

// Tunes to the streaming frequency nearest to centerFreq [Hz], at an attenuator index 0 to 6. Allocates.
StreamTune TuneStream(double centerFreq, int atten, const TqCorrections& corrections, Tq720Config& deviceConfig);

// Appends the words that make the tune and start the stream, at a hardware decimation of 1, 2 or 4.
void AddTuneAndStart(TqCommand& commands, const StreamTune& tune, int hwDecimation);

// What EngineIQ gets, by copy.
struct IQStreamPlan {
    PatchSetup patch{};
    int hwDecimation = 1;     // 1, 2 or 4: the instrument's part
    TqCommand initCommands;   // one block: tunes and starts
    TqCommand fetchCommands;  // one block: the packets of one transfer, 64 / hwDecimation with the aux packet
};

// Plans an I/Q stream and writes the planner fields of `settings`. Limits the bandwidth silently.
//   extTrigger  the port is the trigger input, whose edge is then set
IQStreamPlan PlanIQStreaming(TqIQSettings& settings, const TqRFSettings& rfConfig, bool extTrigger,
                             const TqCorrections& corrections, Tq720Config& deviceConfig);

// The one block of a full-band capture: tunes to LOFreq [Hz], which need not lie on any grid, starts without
// decimation, and fetches one read unit. At 0.0 the LO of the direct path stands in.
TqCommand PlanIQFullBand(double LOFreq, Tq720Config& deviceConfig);
