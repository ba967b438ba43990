#include "stream_plan.h"

#include "dsp.h"
#include "tq_lib.h"

#include <algorithm>

namespace {

constexpr double MIN_IQ_BANDWIDTH = 1000.0;             // [Hz]
constexpr double MAX_IQ_BANDWIDTH = 41500000.0;         // at the base rate, [Hz]
constexpr double MAX_DECIMATED_BANDWIDTH = 50000000.0;  // times the decimation, [Hz]
constexpr int PKTS_PER_XFER_AT_BASE_RATE = 64;          // 2.1 ms of the stream at any decimation
constexpr int START_IQ_NO_DECIMATION = 1;               // code of AddStartIQ; one more for each halving
constexpr int FULL_BAND_ROUGH_GAIN = 4;
constexpr int START_FULL_BAND = 0;  // code of AddStartIQ
constexpr int READ_UNIT_PKTS = 4;

}  // namespace

StreamTune TuneStream(double centerFreq, int atten, const TqCorrections& corrections, Tq720Config& deviceConfig) {
    const LOConfigStreaming config = GetLOConfigStreaming(centerFreq);
    StreamTune tune;
    double rfOffset = 0.0;
    corrections.GetIFCorrections(config.LOStep, config.LOStep384, tune.patch.coeffs.data(), rfOffset);
    tune.patch.coarseCorrection = static_cast<float>(corrections.GetRFCorrection(atten, config.LOStep) + rfOffset);
    tune.patch.actualFreq = config.actualFreq;
    tune.wordCount =
        deviceConfig.Configure(tune.words.data(), config.LOFreq, config.RFFreq, corrections.GetRoughGain(config.LOStep),
                               atten * ATTEN_STEP_DB, config.tuneTicks);
    return tune;
}

void AddTuneAndStart(TqCommand& commands, const StreamTune& tune, int hwDecimation) {
    commands.AddWords(tune.words.data(), tune.wordCount);
    commands.AddFIRCoeffs(tune.patch.coeffs.data());
    commands.AddStartIQ(START_IQ_NO_DECIMATION + DSP::IntLogBase2(hwDecimation));
}

IQStreamPlan PlanIQStreaming(TqIQSettings& settings, const TqRFSettings& rfConfig, bool extTrigger,
                             const TqCorrections& corrections, Tq720Config& deviceConfig) {
    settings.actualSampleRate = BASE_SR / settings.decimation;
    const double maxBandwidth =
        settings.decimation == 1 ? MAX_IQ_BANDWIDTH : MAX_DECIMATED_BANDWIDTH / settings.decimation;
    settings.actualBandwidth = std::clamp(settings.bandwidth, MIN_IQ_BANDWIDTH, maxBandwidth);

    IQStreamPlan plan;
    int swDecimation = 1;
    CalculateDecimation(settings.decimation, plan.hwDecimation, swDecimation);
    const StreamTune tune = TuneStream(settings.centerFreq, GetBestRFAtten(rfConfig), corrections, deviceConfig);
    plan.patch = tune.patch;

    plan.initCommands.StartNewCommand();
    if (extTrigger) plan.initCommands.AddSetExtTriggerEdge(settings.extTriggerEdge);
    AddTuneAndStart(plan.initCommands, tune, plan.hwDecimation);

    plan.fetchCommands.StartNewCommand();
    plan.fetchCommands.AddFetchIQ(static_cast<uint32_t>(PKTS_PER_XFER_AT_BASE_RATE / plan.hwDecimation - 1), 1);
    return plan;
}

TqCommand PlanIQFullBand(double LOFreq, Tq720Config& deviceConfig) {
    const LOMap direct = GetLOInfo(1);
    double RFFreq = GetRFFreq(Get3072LOStepFrom384Step(GetClosestLOStepIQ(LOFreq)));
    if (LOFreq == 0.0) {
        LOFreq = direct.LOFreq;
        RFFreq = direct.RFFreq;
    }
    TqCommand command;
    command.StartNewCommand();
    std::array<uint32_t, TQ720_CONFIG_MAX_WORDS> words;
    command.AddWords(words.data(),
                     deviceConfig.Configure(words.data(), LOFreq, RFFreq, FULL_BAND_ROUGH_GAIN, 0, SWEEP_TUNE_TICKS));
    command.AddStartIQ(START_FULL_BAND);
    command.AddFetchIQ(READ_UNIT_PKTS, 0);
    return command;
}
