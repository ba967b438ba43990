// The settings of an instrument: one record per mode and the RF record that all modes share. TqDevice keeps them,
// setters only store into them, planners read them and fill in the fields marked "planner", and an engine gets a
// copy. Frequencies in Hz, times in seconds, levels in dBm.
#pragma once

#include "tq_api.h"

#include <atomic>
#include <vector>

// Limits of the setters.
inline constexpr double MIN_FREQ_HZ = 9000.0;  // bottom of the instrument's range
inline constexpr double MAX_FREQ_HZ = 1.5e10;  // top of it
inline constexpr double MAX_REF_LEVEL_DBM = 20.0;
inline constexpr int MIN_ATTEN = -1;  // -1: chosen from the reference level
inline constexpr int MAX_ATTEN = 6;   // index in steps of ATTEN_STEP_DB
inline constexpr int ATTEN_STEP_DB = 5;

struct TqRFSettings {
    int atten = -1;           // attenuator index 0 to 6; -1 chooses from refLevel
    double refLevel = -20.0;  // expected top of the signal range, [dBm]
};

struct TqSweepSettings {
    double start = MIN_FREQ_HZ;
    double stop = MAX_FREQ_HZ;
    double rbw = 30000.0;
    double vbw = 30000.0;
    TqDetector detector = tqDetectorAverage;
    TqScale scale = tqScaleLog;
    TqVideoUnits videoUnits = tqVideoPower;
    TqWindowType window = tqWindowFlatTop;
    double sweepTime = 1e-6;  // requested duration of a sweep, [s]

    double actualRbw = 0.0;        // planner: achieved RBW
    double actualVbw = 0.0;        // planner
    int sweepSize = 0;             // planner: bins in one returned sweep
    double firstBinFreq = 0.0;     // planner: frequency of bin 0
    double binSize = 0.0;          // planner: bin spacing
    double windowBandwidth = 0.0;  // planner: [bins]

    double Center() const { return (start + stop) * 0.5; }
    double Span() const { return stop - start; }
};

struct TqRealTimeSettings {
    double centerFreq = 1e9;
    double span = 4e7;
    double rbw = 30000.0;
    TqDetector detector = tqDetectorMinMax;
    TqScale scale = tqScaleLog;
    double frameRef = 0.0;         // level at the top of the persistence frame, [dBm] or [mV]
    double frameHeightDB = 100.0;  // height of the frame
    TqWindowType window = tqWindowNutall;

    double actualRBW = 0.0;        // planner
    int sweepSize = 0;             // planner
    double firstBinFreq = 0.0;     // planner
    double binSize = 0.0;          // planner
    int frameWidth = 0;            // planner
    int frameHeight = 0;           // planner
    int frameRate = 0;             // no plan writes it; the rate is a constant of the real-time engine
    double windowBandwidth = 0.0;  // planner: [bins]
    double poi = 0.0;              // planner: duration caught with certainty, [s]
};

struct TqIQSettings {
    TqDataType dataType = tqDataType32fc;
    double centerFreq = 1e9;
    int decimation = 1;  // power of two, 1 to 8192
    bool softwareFiltering = true;
    double bandwidth = 4e7;
    TqTriggerEdge extTriggerEdge = tqTriggerEdgeRising;
    int queueSize = 16;  // USB transfers that the I/Q engine keeps in flight, 2 to 16

    double actualSampleRate = 6.144e7;  // then planner
    double actualBandwidth = 4e7;       // then planner
};

struct TqIQSweepListStep {
    double freq = 1e9;
    int atten = -1;
    double ref = -20.0;
    int samples = 1000000;
};

struct TqIQSweepListSettings {
    TqDataType dataType = tqDataType32fc;
    bool fullScale = false;  // true: samples relative to full scale, no correction
    std::vector<TqIQSweepListStep> steps;
};

// The audio engine gets no copy: a change of the atomic fields is heard at its next block.
struct TqAudioSettings {
    double center = 9.71e7;
    std::atomic<TqAudioType> audioType = tqAudioTypeFM;
    std::atomic<double> ifBandwidth = 200000.0;
    double audioLpf = 12000.0;
    double audioHpf = 100.0;
    double fmDeemphasis = 75.0;
};

// One entry of the list that a wide sweep sends out of the UART while it steps: `data` goes out at the first LO step
// whose RF lies above `freq`.
struct GPIOSweepStep {
    double freq = 0.0;  // [Hz]
    uint8_t data = 0;
};

// The attenuator index, 0 to 6, that all planners use: rfConfig.atten, or by rfConfig.refLevel when that is negative.
TqStatus GetBestRFConfig(TqRFSettings rfConfig, int& rfAtten);
int GetBestRFAtten(TqRFSettings rfConfig);
