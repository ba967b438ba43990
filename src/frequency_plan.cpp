#include "frequency_plan.h"

#include "dsp.h"
#include "tq_assert.h"

namespace {

// Sweep steps 0 to 10; step 0 does not exist. The lowest steps are irregular: step 1 reaches down to 0 Hz.
constexpr std::array<LOMap, 11> TQ720LowFreqLOMap = {{
    {0, 0, 0, 0, 0, 0},
    {61440000, 23040000, 0, 38400000, 0.125, 0.625},
    {69120000, 46080000, 38400000, 61440000, 0.375, 0.375},
    {99840000, 76800000, 61440000, 92160000, 0.25, 0.5},
    {130560000, 107520000, 92160000, 122880000, 0.25, 0.5},
    {161280000, 138240000, 122880000, 153600000, 0.25, 0.5},
    {192000000, 168960000, 153600000, 184320000, 0.25, 0.5},
    {222720000, 199680000, 184320000, 215040000, 0.25, 0.5},
    {253440000, 230400000, 215040000, 245760000, 0.25, 0.5},
    {284160000, 261120000, 245760000, 276480000, 0.25, 0.5},
    {307200000, 284160000, 276480000, 299520000, 0.375, 0.375},
}};

constexpr int GRID_RATIO = 8;           // streaming steps to a sweep step
constexpr int TICKS_PER_STEP = 4;       // STREAMING_LO_STEP / TUNE_TICK
constexpr int MAX_LO_STEP_384 = 5000;   // 19.2 GHz, top of the LO
constexpr int DIRECT_PATH_TICKS = 128;  // 122.88 MHz, the ADC's clock, in ticks
// The highest centre whose LO is still that of step 490, the last one with corrections.
constexpr double MAX_STREAMING_CENTER = 490 * LO_STEP_SIZE - STREAMING_IF;

// `value` limited to [low, high], NaN to `low`, so that a conversion to int is defined.
constexpr double Limit(double value, double low, double high) {
    if (!(value > low)) return low;
    return value < high ? value : high;
}

}  // namespace

LOMap GetLOInfo(int LOStep) {
    TQ_ASSERT(LOStep >= 0);
    if (LOStep < static_cast<int>(TQ720LowFreqLOMap.size())) return TQ720LowFreqLOMap[static_cast<size_t>(LOStep)];
    const double LOFreq = LOStep * LO_STEP_SIZE;
    const double RFFreq = LOFreq - SWEEP_IF;
    return {LOFreq, RFFreq, RFFreq - HALF_STEP, RFFreq + HALF_STEP, 0.25, 0.5};
}

int GetClosestLOStepIQ(double freq) { return DSP::RoundToInt(Limit(freq / STREAMING_LO_STEP, 0.0, MAX_LO_STEP_384)); }

int Get3072LOStepFrom384Step(int LOStep384) { return (LOStep384 + GRID_RATIO - 1) / GRID_RATIO; }

double GetRFFreq(int LOStep) { return GetLOInfo(LOStep).RFFreq; }

LOConfigStreaming GetLOConfigStreaming(double centerFreq) {
    const double center = Limit(centerFreq, 0.0, MAX_STREAMING_CENTER);
    LOConfigStreaming config = {};
    if (center < LOW_PATH_LIMIT) {
        const int tick960 = DSP::RoundToInt(center / TUNE_TICK);
        config.LOStep384 = 1;
        config.LOStep = 1;
        config.LOFreq = GetLOInfo(1).LOFreq;
        config.RFFreq = GetRFFreq(1);
        config.tuneTicks = DIRECT_PATH_TICKS - tick960;
        config.actualFreq = tick960 * TUNE_TICK;
        return config;
    }

    const double LOStepConvert = center + STREAMING_IF;
    const int LOStep960k = DSP::RoundToInt(LOStepConvert / TUNE_TICK);
    config.LOStep384 = GetClosestLOStepIQ(LOStepConvert);
    config.LOFreq = config.LOStep384 * STREAMING_LO_STEP;
    config.LOStep = Get3072LOStepFrom384Step(config.LOStep384);
    config.RFFreq = GetRFFreq(config.LOStep);
    config.tuneTicks = TICKS_PER_STEP * config.LOStep384 - LOStep960k + STREAMING_IF_TICKS;
    config.actualFreq = LOStep960k * TUNE_TICK - STREAMING_IF;
    return config;
}
