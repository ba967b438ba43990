// From sweep settings to a plan: FFT length, LO steps, packets per step and the command blocks of one whole sweep. The
// wide plan steps the LO and is for EngineSweep; the narrow plan, for spans below NARROW_SWEEP_MAX_SPAN, stays on one
// LO and is for EngineSweepNarrow. TqDevice runs them when it configures. Sends nothing; no state.
#pragma once

#include "frequency_plan.h"
#include "tq720_config.h"
#include "tq_command.h"
#include "tq_corrections.h"
#include "tq_settings.h"

#include <cstdint>
#include <vector>

inline constexpr int MIN_SWEEP_FFT_SIZE = 64;
inline constexpr int SAMPLES_PER_PACKET = 2048;  // complex 16-bit samples in a packet of 8192 bytes
inline constexpr int MAX_SWEEP_FFT_SIZE = 1 << 25;
inline constexpr double NARROW_SWEEP_MAX_SPAN = 5000000.0;  // [Hz]; spans below it take the narrow plan

// What a sweep engine gets, by copy, and keeps for its life.
struct SweepSetup {
    int fftSize = 0;                   // transform length, a power of two, MIN_SWEEP_FFT_SIZE to MAX_SWEEP_FFT_SIZE
    int bestFFTSize = 0;               // window length: samples that carry data, even
    int zeroPadAmount = 0;             // fftSize - bestFFTSize
    int numSteps = 0;                  // LO steps in a sweep
    int pktPerStep = 0;                // packets of SAMPLES_PER_PACKET samples fetched per LO step
    double iirFc = 1.0;                // video filter coefficient, VBW / RBW, at most 1.0
    int fftsPerStep = 1;               // transforms taken in one step
    int narrowSweepOffset = 0;         // narrow plan: first FFT bin of the returned sweep
    int firstStepOffset = 0;           // bins to skip in the stitched sweep before bin 0
    std::vector<PatchSetup> stepInfo;  // one per LO step, ascending

    int Num8kPkts() const { return numSteps * pktPerStep; }  // I/Q packets of one sweep
};

struct SweepPlan {
    SweepSetup setup;
    TqCommand commands;  // the blocks of one entire sweep
};

// Length of the sample ring of a wide sweep, [samples]: a whole number of steps, at least three of them and about five
// million samples; the whole sweep if that is below about fifty million.
int64_t SweepRingSamples(const SweepSetup& setup);

// Bins of the stitched sweep: the sum of validCount over all steps. A sweep whose stop lies just below the edge of its
// last step can want one bin more than this.
int64_t CompactedBins(const SweepSetup& setup);

// Memory that the engine of this plan takes, [bytes].
int64_t SweepMemoryBytes(const SweepSetup& setup);

// Plans a wide sweep and, unless it fails, writes the planner fields of `settings`.
//   settings     start and stop as the setters store them, at least NARROW_SWEEP_MAX_SPAN apart; the rest may be wild
//   gpioSteps    bytes to send from the UART on the way, ascending in freq; empty: none
// tqAllocationErr, before anything large is allocated, when the FFT is beyond MAX_SWEEP_FFT_SIZE or the buffers of the
// sweep exceed the machine's memory; `plan` is then not usable. May throw std::bad_alloc.
TqStatus PlanSweepWide(TqSweepSettings& settings, const TqRFSettings& rfConfig,
                       const std::vector<GPIOSweepStep>& gpioSteps, TqCorrections& corrections,
                       Tq720Config& deviceConfig, SweepPlan& plan);

// The plan of a narrow sweep. Of setup, numSteps is 1, pktPerStep all packets of the capture, a multiple of four, and
// stepInfo empty: the one tuning is `patch`, with coeffs, coarseCorrection and actualFreq.
struct NarrowSweepPlan {
    SweepSetup setup;
    TqCommand commands;  // the blocks of the capture, without aux packets
    PatchSetup patch;
};

// Plans a narrow sweep and, unless it fails, writes the planner fields of `settings`.
//   settings  start and stop as the setters store them, less than NARROW_SWEEP_MAX_SPAN apart; the rest may be wild
// tqAllocationErr, before anything large is allocated, when the capture is longer than can be counted or the buffers of
// the sweep exceed the machine's memory; `plan` is then not usable. May throw std::bad_alloc.
TqStatus PlanSweepNarrow(TqSweepSettings& settings, const TqRFSettings& rfConfig, TqCorrections& corrections,
                         Tq720Config& deviceConfig, NarrowSweepPlan& plan);
