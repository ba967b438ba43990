// Where to tune: for any RF the LO, the front-end band's RF, the digital tune of the FPGA and what remains for the
// host. Sweeps step through a 30.72 MHz grid of LOs (GetLOInfo); streaming modes and the narrow sweep use a grid eight
// times finer (GetLOConfigStreaming). Used by all planners. Pure functions, no state.
#pragma once

#include "ipps.h"

#include <array>

inline constexpr double BASE_SR = 61440000.0;           // complex samples per second before decimation
inline constexpr double LO_STEP_SIZE = 30720000.0;      // spacing of the sweep grid, [Hz]
inline constexpr double LO_STEP_SIZE_MHZ = 30.72;       // the same in MHz
inline constexpr double STREAMING_LO_STEP = 3840000.0;  // spacing of the streaming grid, LO_STEP_SIZE / 8
inline constexpr double TUNE_TICK = 960000.0;           // one step of the FPGA's digital tune
inline constexpr double SWEEP_IF = 23040000.0;          // LOFreq - RFFreq of every sweep step but step 1
inline constexpr int SWEEP_TUNE_TICKS = 24;             // SWEEP_IF in ticks, sent at every sweep step
inline constexpr double STREAMING_IF = 24960000.0;      // IF of the streaming grid
inline constexpr int STREAMING_IF_TICKS = 26;           // the same in ticks
inline constexpr double HALF_STEP = 15360000.0;         // half the width of a sweep step
inline constexpr double LOW_PATH_LIMIT = 26800000.0;    // streaming centres below it use the direct path
inline constexpr int MAX_SWEEP_LO_STEP = 489;           // highest step that a sweep uses; the first is 1

// Taps in each of the two real sets of the instrument's correction filter.
inline constexpr int CORRECTION_TAPS = 31;

// Plan of one sweep step.
struct LOMap {
    double LOFreq;     // [Hz]
    double RFFreq;     // RF at the centre of the step; selects the front-end band
    double startFreq;  // lowest RF that this step delivers
    double stopFreq;   // highest RF that this step delivers
    double offset;     // first valid part of the FFT, as a fraction of its size
    double frac;       // valid part of the FFT, as a fraction of its size
};

// Plan of a streaming tune.
struct LOConfigStreaming {
    int LOStep384;      // index on the 3.84 MHz grid; picks the IF correction
    int LOStep;         // index of the sweep step that covers this LO; picks gain and RF corrections
    double LOFreq;      // [Hz]
    double RFFreq;      // RFFreq of that sweep step; selects the band
    int tuneTicks;      // digital tune in the FPGA, in 960 kHz ticks
    double actualFreq;  // RF that lands exactly at the centre of the stream, [Hz]
};

// One tuned piece of spectrum as engines see it: what one LO setting delivers.
struct PatchSetup {
    int LOStep;                                   // sweep step; not set in streaming
    double LOFreq;                                // [Hz]; not set in streaming
    float coarseCorrection = 0.0f;                // RF plus IF correction, from digital full scale to dBm, [dB]
    int validOffset;                              // first bin of the FFT row that belongs to this step; sweeps only
    int validCount;                               // bins used; sweeps only
    double actualFreq = 0.0;                      // streaming: RF at the centre of the stream
    bool flip = false;                            // the spectrum comes mirrored: true only at sweep step 1
    std::array<Ipp32fc, CORRECTION_TAPS> coeffs;  // correction filter: re the taps of I, im the taps of Q
};

// Sweep step LOStep, 1 to 489. Streaming reaches 490 just below 15 GHz, a full-band capture up to 625.
LOMap GetLOInfo(int LOStep);

// Nearest index on the streaming grid, limited to that of the synthesiser's range, 0 to 5000.
int GetClosestLOStepIQ(double freq);

// Sweep step that covers an index of the streaming grid: the next one at or above it.
int Get3072LOStepFrom384Step(int LOStep384);

// RFFreq of a sweep step, [Hz].
double GetRFFreq(int LOStep);

// Plan for a stream centred near centerFreq [Hz]: actualFreq is within 480 kHz of it. A centre below 0 or beyond the
// reach of LO step 490 is planned as that limit, and NaN as 0: LOStep is 1 to 490 and LOStep384 1 to 3920.
LOConfigStreaming GetLOConfigStreaming(double centerFreq);
