#include "engine_iq.h"

#include "aux_reader.h"
#include "tq_assert.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

constexpr int PACKET_BYTES = 8192;
constexpr int PKTS_PER_XFER_AT_BASE_RATE = 64;
constexpr int XFER_TIMEOUT_MS = 2000;
constexpr int DEAD_LINK_PAUSE_MS = 32;       // a lost instrument fails each transfer at once: don't spin
constexpr int HIGH_ACCURACY_DECIMATION = 4;  // from here on the tuner affords double precision
constexpr double FILTER_1_CUTOFF = 0.025;    // of a first stage with a second one behind it
constexpr double RING_SECONDS = 0.5;
constexpr int MAX_READ_SAMPLES = 65536;  // for so long, at most, the worker waits for a reader of the ring
static_assert(PACKET_BYTES == sizeof(AuxData));

// Taps of a stage that decimates on the host.
struct StageTaps {
    int decimation;  // at most
    int taps;
};
constexpr std::array<StageTaps, 3> STAGE_TAPS = {{{2, 257}, {4, 513}, {8, 1025}}};
constexpr int MOST_STAGE_TAPS = 2049;

int TapsOfStage(int decimation) {
    const auto row = std::ranges::lower_bound(STAGE_TAPS, decimation, {}, &StageTaps::decimation);
    return row != STAGE_TAPS.end() ? row->taps : MOST_STAGE_TAPS;
}

// Taps of a low pass; cut-off as a fraction of the filter's own input rate.
std::vector<Ipp32fc> DesignLowpass(int taps, double cutoff) {
    std::vector<Ipp32fc> values(static_cast<std::size_t>(taps));
    DSP::GetLowpassFIRTaps_32fc(values.data(), taps, static_cast<float>(cutoff), ippWinBlackman, ippTrue);
    return values;
}

}  // namespace

EngineIQ::EngineIQ(TqDevice* owner, DeviceInterface& usb, const TqIQSettings& iqSettings, const PatchSetup& patchSetup,
                   const TqCommand& startBlock, const TqCommand& fetchBlock)
    : device(owner),
      iface(usb),
      settings(iqSettings),
      patch(patchSetup),
      initCmds(startBlock),
      fetchCmds(fetchBlock),
      circularBuffer(owner->iqBuf),
      dmaXfersActive(iqSettings.queueSize),
      rfCorrectionScalar(static_cast<float>(std::sqrt(std::pow(10.0, patchSetup.coarseCorrection / 10.0)))) {
    TQ_ASSERT(dmaXfersActive >= 1 && dmaXfersActive < USB_XFER_SLOTS);
    CalculateDecimation(settings.decimation, hardwareDecimation, softwareDecimation);
    firstDecimation = std::min(softwareDecimation, SW_DEC_FILTER_1_MAX_DEC);
    secondDecimation = softwareDecimation / firstDecimation;
    iqPacketSize = (PKTS_PER_XFER_AT_BASE_RATE / hardwareDecimation - 1) * PACKET_BYTES;
    iqSamplesPerXfer = iqPacketSize / static_cast<int>(sizeof(Ipp16sc));
    bytesPerXfer = iqPacketSize + PACKET_BYTES;
    TQ_ASSERT((fetchCmds.GetTotalXferCount() + fetchCmds.GetTotalAuxCount()) * PACKET_BYTES == bytesPerXfer);

    rawStore.resize(static_cast<int64_t>(RAW_STEPS_TOTAL) * iqSamplesPerXfer);
    circularBuffer.SetSampleRate(settings.actualSampleRate);
    circularBuffer.Resize(static_cast<int>(RING_SECONDS * settings.actualSampleRate), tqDataType32fc);

    // What the tuning grid has left. Whole turns a sample don't matter: a centre beyond the instrument's range is
    // tuned to the nearest that there is, and may be any number of them away.
    const double shift = -(settings.centerFreq - patch.actualFreq) / (BASE_SR / hardwareDecimation);
    tuner.Init(std::fmod(shift, 1.0), iqSamplesPerXfer, hardwareDecimation >= HIGH_ACCURACY_DECIMATION);
    DesignFilters();
    if (settings.softwareFiltering || softwareDecimation > 1) filtered.resize(iqSamplesPerXfer / firstDecimation);
    if (secondDecimation > 1) twice.resize(iqSamplesPerXfer / softwareDecimation);
    stopCmds.StartNewCommand();
    stopCmds.AddStopIQ();

    try {
        if (softwareDecimation > 1) {
            workThreadHandle = std::thread(&EngineIQ::DownsampleAndFilterThread, this);
            SetThreadName(workThreadHandle, "TQ IQ DS and Filter Thread");
        } else {
            workThreadHandle = std::thread(&EngineIQ::FilterOnlyThread, this);
            SetThreadName(workThreadHandle, "TQ IQ Filter Thread");
        }
        acquisitionThreadHandle = std::thread(&EngineIQ::AcquisitionThread, this);
    } catch (...) {
        StopThreads();
        throw;
    }
    SetThreadPriorityAboveNormal(workThreadHandle);
    SetThreadPriorityTimeCritical(acquisitionThreadHandle);
    SetThreadName(acquisitionThreadHandle, "TQ IQ Acquisition Thread");
}

EngineIQ::~EngineIQ() { StopThreads(); }

void EngineIQ::End() {
    running = false;
    rawDataReady.Notify();
    userDataReady.Notify();
}

void EngineIQ::StopThreads() {
    End();
    if (workThreadHandle.joinable()) workThreadHandle.join();
    if (acquisitionThreadHandle.joinable()) acquisitionThreadHandle.join();
}

// filterDelay adds up what positions and times have to allow for.
void EngineIQ::DesignFilters() {
    if (softwareDecimation == 1) {
        const double cutoff = settings.actualBandwidth / settings.actualSampleRate * 0.5;
        filter.SetTaps(DesignLowpass(SW_FILTER_SIZE, cutoff).data(), SW_FILTER_SIZE);
        if (settings.softwareFiltering) filterDelay = hardwareDecimation * SW_FILTER_DELAY;
        return;
    }

    const auto design = [this](DSP::FIRDown_32fc& stage, int factor, double cutoff, int inputDecimation) {
        const int taps = TapsOfStage(factor);
        stage.SetTaps(DesignLowpass(taps, cutoff).data(), taps, factor);
        filterDelay += taps / 2 * inputDecimation;
    };
    const double firstRate = BASE_SR / hardwareDecimation;
    design(stage1, firstDecimation, secondDecimation > 1 ? FILTER_1_CUTOFF : settings.actualBandwidth / firstRate * 0.5,
           hardwareDecimation);
    if (secondDecimation > 1) {
        design(stage2, secondDecimation, settings.actualBandwidth / (firstRate / firstDecimation) * 0.5,
               firstDecimation * hardwareDecimation);
    }
}

// Keeps dmaXfersActive transfers in flight from the start block to the stop word. All counts move by what was asked
// for, whatever came of a transfer.
void EngineIQ::AcquisitionThread() {
    iface.SendCommands(initCmds);
    const auto begin = [this](int slot) {
        iface.BeginDataXfer(slot, bytesPerXfer, XFER_TIMEOUT_MS);
        iface.BeginCommandXfer(slot, fetchCmds.GetCommand(0));
    };
    for (int slot = 0; slot < dmaXfersActive; slot++) begin(slot);

    for (int slot = 0; running; slot = (slot + 1) % dmaXfersActive) {
        const DMAXferStatus xfer = iface.FinishDataXfer(slot);
        iface.FinishCommandXfer(slot);
        if (iface.TransferStatus() != tqNoError) SystemSleep(DEAD_LINK_PAUSE_MS);
        if (!xfer.begun) {
            userDataReady.Notify();  // the caller sees the transfer status
            begin(slot);
            continue;
        }

        AuxData aux;
        std::memcpy(&aux, xfer.p + iqPacketSize, sizeof(aux));
        device->UpdateAuxData(&aux);
        if (device->readerStatus.ADCOverflow()) adcOverflow = true;
        if (device->readerStatus.IQDataLoss()) dataLoss = true;
        StoreIQ(xfer.p, device->readerTrigger.HasExtTrigger(), device->readerTrigger.ExtTrigger());
        begin(slot);
    }

    // The instrument comes to this block behind all fetches, so that each of these is answered. It takes the first
    // slot that the stream does not use.
    const DeviceInterface::LastWords lastWords(iface);
    iface.FullCommandXfer(dmaXfersActive, stopCmds.GetCommand(0));
    for (int slot = 0; slot < dmaXfersActive; slot++) {
        iface.FinishDataXfer(slot);
        iface.FinishCommandXfer(slot);
    }
}

// One transfer into the store: converted, tuned, with its trigger and time. The transfer is dropped if the worker is
// behind by the whole store.
void EngineIQ::StoreIQ(const uint8_t* src, bool hasTrigger, int64_t triggerPos) {
    if (rawBatchesReady == RAW_STEPS_TOTAL) {
        rawDropped = true;
        return;
    }
    Ipp32fc* const samples = &rawStore[static_cast<int64_t>(rawWriteIx) * iqSamplesPerXfer];
    DSP::Convert_16sc32fc(reinterpret_cast<const Ipp16sc*>(src), samples, iqSamplesPerXfer);
    tuner.Tune(samples, samples);

    // The aux packet's time is that of the transfer's end.
    const auto transferNs = static_cast<int64_t>(2.0 * iqSamplesPerXfer * hardwareDecimation * NS_PER_122M_CLK);
    const auto filterNs = static_cast<int64_t>(2.0 * filterDelay * NS_PER_122M_CLK);
    RawStep& step = rawSteps[static_cast<std::size_t>(rawWriteIx)];
    step.afterGap = rawDropped;
    step.hasTrigger = hasTrigger;
    step.trigger = (static_cast<double>(triggerPos) + 2.0 * filterDelay) / (2.0 * settings.decimation);
    step.time = static_cast<uint64_t>(device->readerGPS.GetLockedIQTime() - transferNs - filterNs);

    rawDropped = false;
    rawWriteIx = (rawWriteIx + 1) % RAW_STEPS_TOTAL;
    rawBatchesReady++;
    rawDataReady.Notify();
}

// The samples of the next stored transfer; blocks until there is one. Null when the engine ends. Behind a gap the
// filters start anew: samples from before it have no place in what follows.
const Ipp32fc* EngineIQ::NextRawStep() {
    rawDataReady.Wait();
    if (!running) return nullptr;
    if (rawSteps[static_cast<std::size_t>(rawReadIx)].afterGap) {
        filter.Flush();
        stage1.Flush();
        stage2.Flush();
    }
    return &rawStore[static_cast<int64_t>(rawReadIx) * iqSamplesPerXfer];
}

// Hands over what became of the transfer, and gives its place in the store back.
void EngineIQ::FinishRawStep(const Ipp32fc* samples, int count) {
    const RawStep& step = rawSteps[static_cast<std::size_t>(rawReadIx)];
    const int triggers = step.hasTrigger ? 1 : 0;
    if (step.afterGap) {
        circularBuffer.AppendAfterGap(samples, count, &step.trigger, triggers, step.time);
    } else {
        circularBuffer.Append(samples, count, &step.trigger, triggers, step.time);
    }
    userDataReady.Notify();
    rawReadIx = (rawReadIx + 1) % RAW_STEPS_TOTAL;
    rawBatchesReady--;
}

void EngineIQ::FilterOnlyThread() {
    while (const Ipp32fc* const samples = NextRawStep()) {
        if (settings.softwareFiltering) filter.Filter(samples, filtered.data(), iqSamplesPerXfer);
        FinishRawStep(settings.softwareFiltering ? filtered.data() : samples, iqSamplesPerXfer);
    }
}

// Lengths are multiples of the factors, so that a transfer always becomes the same number of samples.
void EngineIQ::DownsampleAndFilterThread() {
    while (const Ipp32fc* const samples = NextRawStep()) {
        int count = stage1.Filter(samples, filtered.data(), iqSamplesPerXfer);
        if (secondDecimation > 1) count = stage2.Filter(filtered.data(), twice.data(), count);
        FinishRawStep(secondDecimation > 1 ? twice.data() : filtered.data(), count);
    }
}

TqStatus EngineIQ::GetIQ(void* iqBuf, int iqBufSize, double* triggers, int triggerBufSize, int64_t* nsSinceEpoch,
                         TqBool purge, int* sampleLoss, int* samplesRemaining) {
    const int triggerRoom = triggers != nullptr ? std::max(triggerBufSize, 0) : 0;
    int triggersRead = 0;
    int samplesRead = 0;
    if (purge == tqTrue) circularBuffer.Clear();

    while (running && samplesRead < iqBufSize) {
        if (iface.TransferStatus() != tqNoError) return iface.TransferStatus();

        // Reset before the look: a block that comes behind it opens the wait.
        userDataReady.Reset();
        if (running && circularBuffer.SamplesInBuffer() == 0) userDataReady.Wait();

        auto* const dst =
            static_cast<uint8_t*>(iqBuf) + static_cast<int64_t>(samplesRead) * GetDataTypeSize(settings.dataType);
        double* const newTriggers = triggers + triggersRead;
        int returned = 0, triggersReturned = 0;
        uint64_t time = 0;
        circularBuffer.Read(dst, std::min(iqBufSize - samplesRead, MAX_READ_SAMPLES), returned, newTriggers,
                            triggerRoom - triggersRead, triggersReturned, time, settings.dataType);
        for (int i = 0; i < triggersReturned; i++) newTriggers[i] += samplesRead;
        if (samplesRead == 0 && nsSinceEpoch != nullptr) *nsSinceEpoch = static_cast<int64_t>(time);
        if (settings.dataType == tqDataType32fc && returned > 0) {
            ippsMulC_32f_I(rfCorrectionScalar, reinterpret_cast<float*>(dst), 2 * returned);
        }
        samplesRead += returned;
        triggersRead += triggersReturned;
    }
    if (samplesRead < iqBufSize) {  // ended
        const TqStatus transferStatus = iface.TransferStatus();
        return transferStatus != tqNoError ? transferStatus : tqInvalidConfigurationErr;
    }

    std::fill(triggers + triggersRead, triggers + triggerRoom, g_triggerSentinelValue.load());
    if (samplesRemaining != nullptr) *samplesRemaining = static_cast<int>(circularBuffer.SamplesInBuffer());
    if (sampleLoss != nullptr) *sampleLoss = circularBuffer.SampleLoss();
    return StreamStatus();
}

// Of what was seen since the last call the flags are forgotten, reported or not.
TqStatus EngineIQ::StreamStatus() {
    const bool lost = dataLoss.exchange(false);
    const bool overflowed = adcOverflow.exchange(false);
    const TqStatus transferStatus = iface.TransferStatus();
    if (transferStatus != tqNoError) return transferStatus;
    if (device->HasFramingIssues()) return tqFramingErr;
    if (lost) return tqUncalData;
    if (overflowed) return tqADCOverflow;
    if (device->readerStatus.TempWarning()) return tqTempDrift;
    return tqNoError;
}
