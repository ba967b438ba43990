#include "sweep_plan.h"

#include "dsp.h"
#include "stream_plan.h"
#include "tq_assert.h"
#include "tq_lib.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

constexpr double LO_STEP_TIME_S = 2.5e-5;        // allowed for each retuning
constexpr double PACKET_TIME_S = 1.0 / 30000.0;  // SAMPLES_PER_PACKET at BASE_SR
constexpr int MIN_WINDOW_SIZE = 4;               // a shorter window has no shape
constexpr int START_IQ_NO_DECIMATION = 1;        // code of AddStartIQ
constexpr int READ_UNIT_PKTS = 4;                // the data endpoint is read in units of four packets
constexpr double MAX_INT = std::numeric_limits<int>::max();

// Of SweepRingSamples.
constexpr int64_t RING_MIN_STEPS = 3;
constexpr int64_t RING_MIN_SAMPLES = 5000000;
constexpr int64_t RING_SWEEP_SAMPLES = 50000000;

// Of SweepMemoryBytes.
constexpr int64_t SWEEP_WORK_THREADS = 2;
constexpr int64_t WORK_BYTES_PER_BIN = 64;  // window, transform, filter and detector rows of one work thread
constexpr int64_t COMMAND_COPIES = 2;       // the planner's and the engine's

// Of a narrow sweep: the two rows of its engine.
constexpr int64_t NARROW_ROW_BYTES_PER_BIN = 2 * sizeof(float);

// Walks along the bytes that the UART sends during a sweep.
class GPIOStepAssist {
public:
    explicit GPIOStepAssist(const std::vector<GPIOSweepStep>& gpioSteps) : steps(gpioSteps), iter(steps.begin()) {}

    // Whether a byte is due at an LO step with this RF. Entries that lie between two LO steps leave only the highest.
    bool GetNextGPIOValue(double freq, uint8_t& gpioData) {
        const auto first = iter;
        for (; iter != steps.end() && iter->freq < freq; iter++) gpioData = iter->data;
        return iter != first;
    }

private:
    const std::vector<GPIOSweepStep>& steps;
    std::vector<GPIOSweepStep>::const_iterator iter;
};

// The step that holds `start`. A start within the last step finds none and sweeps everything from step 1.
int BestLOStartIndex(double start) {
    for (int i = 2; i <= MAX_SWEEP_LO_STEP; i++) {
        if (GetLOInfo(i).startFreq > start) return i - 1;
    }
    return 1;
}

int BestLOStopIndex(double stop) {
    for (int i = 1; i <= MAX_SWEEP_LO_STEP; i++) {
        if (GetLOInfo(i).stopFreq > stop) return i;
    }
    return MAX_SWEEP_LO_STEP;
}

// One fetch carries MAX_FETCH_IQ_PKTS at most; each further one stands in a block of its own.
void AddFetches(TqCommand& commands, int pktsToGet) {
    for (; pktsToGet > MAX_FETCH_IQ_PKTS; pktsToGet -= MAX_FETCH_IQ_PKTS) {
        commands.AddFetchIQ(MAX_FETCH_IQ_PKTS, 0);
        commands.StartNewCommand();
    }
    commands.AddFetchIQ(static_cast<uint32_t>(pktsToGet), 0);
}

// Window of about `wantedSize` samples, below 2^31, and the transform that holds it.
void SizeTransform(double wantedSize, SweepSetup& setup) {
    int bestFFTSize = static_cast<int>(std::max<double>(wantedSize, MIN_WINDOW_SIZE));
    if (DSP::IsOdd(bestFFTSize)) bestFFTSize--;
    setup.bestFFTSize = bestFFTSize;
    setup.fftSize = std::max(DSP::RoundUpPowerTwo(bestFFTSize), MIN_SWEEP_FFT_SIZE);
    setup.zeroPadAmount = setup.fftSize - bestFFTSize;
}

// Video filter, and as many transforms as it takes to settle. False if they cannot be counted.
bool SizeVideoFilter(const TqSweepSettings& settings, SweepSetup& setup) {
    setup.iirFc = std::min(settings.vbw / settings.rbw, 1.0);
    const double wantedFFTs = std::ceil(1.0 / setup.iirFc);
    if (!(wantedFFTs >= 1.0 && wantedFFTs <= MAX_INT)) return false;
    setup.fftsPerStep = static_cast<int>(wantedFFTs);
    return true;
}

// FFT length and transforms per step from RBW, VBW and sweep time, for numSteps LO steps. False if a size cannot be
// carried. Everything is formed in 64 bits or double and judged before it is narrowed: client settings reach far
// beyond any memory.
bool SizeSweep(const TqSweepSettings& settings, double windowBW, int numSteps, SweepSetup& setup) {
    const double wantedSize = std::trunc(BASE_SR * windowBW / settings.rbw);
    if (!(wantedSize < MAX_SWEEP_FFT_SIZE + 2.0)) return false;
    SizeTransform(wantedSize, setup);
    if (!SizeVideoFilter(settings, setup)) return false;
    const int64_t fftDiv4 = setup.fftSize / 4;
    int64_t fftsPerStep = setup.fftsPerStep;
    const int64_t minStepLen = setup.bestFFTSize + (fftsPerStep - 1) * fftDiv4;
    int64_t pktPerStep = (minStepLen + SAMPLES_PER_PACKET - 1) / SAMPLES_PER_PACKET;

    // A longer sweep time buys more transforms, at the same resolution.
    const double sweepPackets = (settings.sweepTime - LO_STEP_TIME_S * numSteps) / PACKET_TIME_S;
    const double wantedPackets = sweepPackets / numSteps;
    if (!(wantedPackets < MAX_INT)) return false;
    const int64_t usrPktPerFreq = DSP::RoundToInt(std::max(wantedPackets, 1.0));
    if (usrPktPerFreq > pktPerStep) {
        pktPerStep = usrPktPerFreq;
        fftsPerStep = (usrPktPerFreq * SAMPLES_PER_PACKET - setup.bestFFTSize) / fftDiv4 + 1;
    }

    // The packets of one sweep, with up to four aux packets behind them, are counted in an int.
    if (pktPerStep > (std::numeric_limits<int>::max() - READ_UNIT_PKTS) / numSteps) return false;
    if (fftsPerStep > std::numeric_limits<int>::max()) return false;
    setup.pktPerStep = static_cast<int>(pktPerStep);
    setup.fftsPerStep = static_cast<int>(fftsPerStep);
    setup.numSteps = numSteps;
    return FitsInMemory(static_cast<double>(SweepMemoryBytes(setup)));
}

// The same for a narrow sweep at finalSampleRate, of which the host makes the last softwareDecimation. An RBW too small
// for the longest transform gets that one.
bool SizeNarrowSweep(const TqSweepSettings& settings, double windowBW, double finalSampleRate, int softwareDecimation,
                     SweepSetup& setup) {
    const double wantedSize = std::trunc(finalSampleRate * windowBW / settings.rbw);
    SizeTransform(wantedSize < MAX_SWEEP_FFT_SIZE ? wantedSize : MAX_SWEEP_FFT_SIZE, setup);
    if (!SizeVideoFilter(settings, setup)) return false;
    const int64_t fftDiv4 = setup.fftSize / 4;
    int64_t fftsPerStep = setup.fftsPerStep;
    int64_t neededAcqSize = (fftsPerStep - 1) * fftDiv4 + setup.fftSize;

    // A longer sweep time buys more transforms, at the same resolution.
    const double pktsForSweepTime = settings.sweepTime / (SAMPLES_PER_PACKET / finalSampleRate);
    if (!(pktsForSweepTime < MAX_INT)) return false;
    const auto sweepTimeAcqSize = static_cast<int64_t>(pktsForSweepTime * SAMPLES_PER_PACKET);
    if (neededAcqSize < sweepTimeAcqSize) {
        fftsPerStep = (sweepTimeAcqSize - setup.bestFFTSize) / fftDiv4 + 1;
        neededAcqSize = sweepTimeAcqSize;
    }

    // One packet more makes up for the delay of the host's filter.
    int64_t pktCount = NextMultipleOf(neededAcqSize, SAMPLES_PER_PACKET) / SAMPLES_PER_PACKET * softwareDecimation;
    if (softwareDecimation > 1) pktCount++;
    pktCount = NextMultipleOf(pktCount, READ_UNIT_PKTS);
    if (pktCount > std::numeric_limits<int>::max() || fftsPerStep > std::numeric_limits<int>::max()) return false;
    setup.numSteps = 1;
    setup.pktPerStep = static_cast<int>(pktCount);
    setup.fftsPerStep = static_cast<int>(fftsPerStep);

    const int64_t perBin = (WORK_BYTES_PER_BIN + NARROW_ROW_BYTES_PER_BIN) * setup.fftSize;
    const int64_t capture = pktCount * SAMPLES_PER_PACKET / softwareDecimation * static_cast<int64_t>(sizeof(Ipp32fc));
    const int64_t blocks = COMMAND_COPIES * (pktCount / MAX_FETCH_IQ_PKTS + 1) * CMD_SIZE_BYTES;
    return FitsInMemory(static_cast<double>(perBin + capture + blocks));
}

}  // namespace

int64_t SweepRingSamples(const SweepSetup& setup) {
    const int64_t step = static_cast<int64_t>(setup.pktPerStep) * SAMPLES_PER_PACKET;
    const int64_t wholeSweep = std::min(RING_SWEEP_SAMPLES / step * step, setup.numSteps * step);
    return std::max({RING_MIN_STEPS * step, RING_MIN_SAMPLES / step * step, wholeSweep});
}

int64_t CompactedBins(const SweepSetup& setup) {
    int64_t bins = 0;
    for (const PatchSetup& patch : setup.stepInfo) bins += patch.validCount;
    return bins;
}

int64_t SweepMemoryBytes(const SweepSetup& setup) {
    const int64_t fftSize = setup.fftSize;
    const int64_t rows = 2 * setup.numSteps * fftSize * static_cast<int64_t>(sizeof(float));
    const int64_t work = SWEEP_WORK_THREADS * WORK_BYTES_PER_BIN * fftSize;
    const int64_t ring = SweepRingSamples(setup) * static_cast<int64_t>(sizeof(Ipp32fc));
    const int64_t blocks = setup.numSteps * (static_cast<int64_t>(setup.pktPerStep) / MAX_FETCH_IQ_PKTS + 1);
    return rows + work + ring + COMMAND_COPIES * blocks * CMD_SIZE_BYTES;
}

TqStatus PlanSweepWide(TqSweepSettings& settings, const TqRFSettings& rfConfig,
                       const std::vector<GPIOSweepStep>& gpioSteps, TqCorrections& corrections,
                       Tq720Config& deviceConfig, SweepPlan& plan) {
    TQ_ASSERT(settings.start >= 0.0 && settings.Span() >= NARROW_SWEEP_MAX_SPAN);
    const int startLOStep = BestLOStartIndex(settings.start);
    const int stopLOStep = BestLOStopIndex(settings.stop);
    const double windowBW = DSP::GetWindowBandwidth(settings.window);

    plan = SweepPlan();
    SweepSetup& setup = plan.setup;
    if (!SizeSweep(settings, windowBW, stopLOStep - startLOStep + 1, setup)) return tqAllocationErr;

    const double binSize = BASE_SR / setup.fftSize;
    const double firstPatchStartFreq = GetLOInfo(startLOStep).startFreq;
    const double startOffsetHz = settings.start - firstPatchStartFreq;
    const double sweepSize = settings.Span() / binSize + 2.0;
    if (!(sweepSize <= MAX_INT && startOffsetHz / binSize <= MAX_INT)) return tqAllocationErr;
    setup.firstStepOffset = static_cast<int>(startOffsetHz / binSize);
    settings.binSize = binSize;
    settings.firstBinFreq = startOffsetHz + firstPatchStartFreq;
    settings.windowBandwidth = windowBW;
    settings.actualRbw = BASE_SR * windowBW / setup.bestFFTSize;
    settings.actualVbw = settings.vbw;
    settings.sweepSize = static_cast<int>(sweepSize);

    const int atten = GetBestRFAtten(rfConfig);
    TqCommand& commands = plan.commands;
    GPIOStepAssist gpioMaskFeeder(gpioSteps);
    for (int step = startLOStep; step <= stopLOStep; step++) {
        commands.StartNewCommand();
        const LOMap info = GetLOInfo(step);

        PatchSetup patch;
        patch.LOStep = step;
        patch.LOFreq = info.LOFreq;
        patch.flip = step == 1;
        patch.validOffset = static_cast<int>(info.offset * setup.fftSize);
        patch.validCount = static_cast<int>(setup.fftSize * info.frac);
        double RFOffset = 0.0;
        corrections.GetIFCorrections(step, patch.coeffs.data(), RFOffset);
        patch.coarseCorrection = static_cast<float>(corrections.GetRFCorrection(atten, step) + RFOffset);

        uint8_t gpioData = 0;
        if (gpioMaskFeeder.GetNextGPIOValue(info.RFFreq, gpioData)) commands.AddUARTWriteDirect(gpioData);
        std::array<uint32_t, TQ720_CONFIG_MAX_WORDS> buf;
        const int words = deviceConfig.Configure(buf.data(), info.LOFreq, info.RFFreq, corrections.GetRoughGain(step),
                                                 atten * ATTEN_STEP_DB, SWEEP_TUNE_TICKS);
        commands.AddWords(buf.data(), words);
        commands.AddFIRCoeffs(patch.coeffs.data());
        commands.AddStartIQ(START_IQ_NO_DECIMATION);
        AddFetches(commands, setup.pktPerStep);
        commands.AddStopIQ();
        setup.stepInfo.push_back(patch);
    }

    // Aux packets fill up the last read unit; there is always one, for the status and the time of the sweep.
    commands.AddStopIQ();
    commands.AddFetchAux(READ_UNIT_PKTS - setup.Num8kPkts() % READ_UNIT_PKTS);
    return tqNoError;
}

TqStatus PlanSweepNarrow(TqSweepSettings& settings, const TqRFSettings& rfConfig, TqCorrections& corrections,
                         Tq720Config& deviceConfig, NarrowSweepPlan& plan) {
    const double span = settings.Span();
    TQ_ASSERT(span >= 0.0 && span < NARROW_SWEEP_MAX_SPAN);
    const int decimation = GetNarrowSweepDecimation(span);
    int hwDecimation = 1;
    int swDecimation = 1;
    CalculateDecimation(decimation, hwDecimation, swDecimation);
    const double finalSampleRate = BASE_SR / decimation;
    const double windowBW = DSP::GetWindowBandwidth(settings.window);

    plan = NarrowSweepPlan();
    SweepSetup& setup = plan.setup;
    if (!SizeNarrowSweep(settings, windowBW, finalSampleRate, swDecimation, setup)) return tqAllocationErr;

    // The decimated band is wider than the span by a fifth or more, so the row always holds the sweep.
    const double binSize = finalSampleRate / setup.fftSize;
    int sweepSize = DSP::RoundToInt(span / binSize) + 2;
    if (DSP::IsOdd(sweepSize)) sweepSize++;
    TQ_ASSERT(sweepSize <= setup.fftSize);
    setup.narrowSweepOffset = (setup.fftSize - sweepSize) / 2;
    settings.sweepSize = sweepSize;
    settings.binSize = binSize;
    settings.firstBinFreq = settings.Center() - sweepSize / 2 * binSize;
    settings.windowBandwidth = windowBW;
    settings.actualRbw = finalSampleRate * windowBW / setup.bestFFTSize;
    settings.actualVbw = settings.vbw;

    const StreamTune tune = TuneStream(settings.Center(), GetBestRFAtten(rfConfig), corrections, deviceConfig);
    plan.patch = tune.patch;
    TqCommand& commands = plan.commands;
    commands.StartNewCommand();
    AddTuneAndStart(commands, tune, hwDecimation);
    AddFetches(commands, setup.pktPerStep);
    commands.AddStopIQ();
    return tqNoError;
}
