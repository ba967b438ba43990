#include "real_time_plan.h"

#include "dsp.h"

#include <algorithm>

namespace {

constexpr double MIN_RBW = 2000.0;  // [Hz]
constexpr double MAX_RBW = 1e6;
constexpr int MIN_FFT_SIZE = 128;
constexpr int MAX_FFT_SIZE = 65536;
constexpr int MAX_FRAME_WIDTH = 1023;
constexpr int FRAME_HEIGHT = 256;
constexpr uint32_t IQ_PKTS_PER_XFER = 127;  // with the aux packet, the most that one read holds

}  // namespace

RealTimePlan PlanRealTime(TqRealTimeSettings& settings, const TqRFSettings& rfConfig, const TqCorrections& corrections,
                          Tq720Config& deviceConfig) {
    RealTimePlan plan;
    RealTimeSetup& setup = plan.setup;

    // The window is as long as the RBW asks for; zeros fill it up to a length that can be transformed.
    settings.windowBandwidth = DSP::GetWindowBandwidth(settings.window);
    const double rbw = std::clamp(settings.rbw, MIN_RBW, MAX_RBW);
    const int bestFFTSize = static_cast<int>(settings.windowBandwidth * BASE_SR / rbw) & ~1;
    const int realFFTSize = DSP::RoundUpPowerTwo(bestFFTSize);
    setup.fftSize = std::clamp(realFFTSize, MIN_FFT_SIZE, MAX_FFT_SIZE);
    setup.zeroPadAmount = setup.fftSize == realFFTSize ? realFFTSize - bestFFTSize : 0;
    settings.binSize = BASE_SR / setup.fftSize;
    settings.poi = 1.5 * setup.fftSize / BASE_SR;  // a transform and the step to the next
    settings.actualRBW = settings.windowBandwidth * BASE_SR / (setup.fftSize - setup.zeroPadAmount);

    settings.frameHeight = FRAME_HEIGHT;
    settings.frameWidth = DSP::RoundToInt(settings.span / BASE_SR * setup.fftSize) + 2;
    for (; settings.frameWidth > MAX_FRAME_WIDTH; settings.frameWidth /= 2) setup.freqBinning *= 2;
    settings.sweepSize = settings.frameWidth * setup.freqBinning;

    const StreamTune tune = TuneStream(settings.centerFreq, GetBestRFAtten(rfConfig), corrections, deviceConfig);
    plan.patch = tune.patch;
    const double startToCenter = plan.patch.actualFreq - (settings.centerFreq - 0.5 * settings.span);
    const int binOffset = static_cast<int>(startToCenter / settings.binSize + 1.0);
    setup.swFrameOffset = (setup.fftSize / 2 - binOffset) / setup.freqBinning;
    setup.sweepOffset = setup.swFrameOffset * setup.freqBinning;
    settings.firstBinFreq = (plan.patch.actualFreq - 0.5 * BASE_SR) + setup.sweepOffset * settings.binSize;

    plan.initCommands.StartNewCommand();
    AddTuneAndStart(plan.initCommands, tune, 1);
    plan.fetchCommands.StartNewCommand();
    plan.fetchCommands.AddFetchIQ(IQ_PKTS_PER_XFER, 1);
    return plan;
}
