// EngineIQ streams corrected I/Q samples without a gap: an acquisition thread keeps USB transfers in flight, converts
// and tunes what comes into a store of 20 transfers; a worker filters, decimates and appends to the ring, from which
// GetIQ takes. TqDevice owns it while an I/Q or audio mode is configured and calls GetIQ from the client's thread; the
// audio engine calls it from its own. Both threads inside live as long as the engine.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>

#include "circular_buffer.h"
#include "device_interface.h"
#include "dsp.h"
#include "frequency_plan.h"
#include "tq_command.h"
#include "tq_settings.h"
#include "vk_semaphore.h"

class TqDevice;

class EngineIQ {
public:
    static constexpr int SW_FILTER_SIZE = 129;  // taps of the optional filter of undecimated streams
    static constexpr int SW_FILTER_DELAY = 65;  // what positions and times allow for it, [samples] of the stream
    static constexpr int SW_DEC_FILTER_1_MAX_DEC = 16;  // decimation of the first software stage at most
    static constexpr int RAW_STEPS_TOTAL = 20;          // transfers in the store between the threads

    // Copies the plan, allocates everything and starts the stream.
    //   initCmds   the block that tunes and starts
    //   fetchCmds  the block that asks for one transfer: 64 / h packets, the last one aux, h the hardware decimation
    // Throws std::bad_alloc, or std::system_error when a thread cannot start; no thread is left behind then.
    EngineIQ(TqDevice* device, DeviceInterface& iface, const TqIQSettings& settings, const PatchSetup& patch,
             const TqCommand& initCmds, const TqCommand& fetchCmds);

    // Stops the stream and finishes all transfers in flight. No caller is in GetIQ: End has sent it home.
    ~EngineIQ();
    EngineIQ(const EngineIQ&) = delete;
    EngineIQ& operator=(const EngineIQ&) = delete;

    // Ends the stream for good, at once: the threads wind up, and a caller of GetIQ leaves it.
    void End();

    // Factor from tqDataType16sc samples to the corrected scale.
    float GetIQScalar() const { return rfCorrectionScalar; }

    // The next samples; blocks until they are there.
    //   iqBuf             out, iqBufSize >= 1 samples of settings.dataType; tqDataType32fc comes corrected
    //   triggers          out, triggerBufSize sample positions in iqBuf, unused places hold g_triggerSentinelValue;
    //                     may be null
    //   nsSinceEpoch      out, optional, time of the first sample
    //   purge             tqTrue: drops what is queued
    //   sampleLoss        out, optional, 1 when queued samples were dropped since the last report, else 0
    //   samplesRemaining  out, optional, samples left in the ring
    // tqConnectionLostErr comes at once, with the outputs as they stand, and so does tqInvalidConfigurationErr when the
    // stream is ended. Else the first that applies of tqFramingErr, tqUncalData, tqADCOverflow, tqTempDrift; tqNoError.
    // One caller at a time.
    TqStatus GetIQ(void* iqBuf, int iqBufSize, double* triggers, int triggerBufSize, int64_t* nsSinceEpoch,
                   TqBool purge, int* sampleLoss, int* samplesRemaining);

private:
    // One transfer as the worker gets it.
    struct RawStep {
        bool afterGap = false;    // transfers in front of it were dropped
        bool hasTrigger = false;  // one trigger is what an aux packet reports
        double trigger = 0.0;     // [samples] at the stream's rate, from the first sample on
        uint64_t time = 0;        // of the first sample, [ns] since the epoch
    };

    void DesignFilters();
    void StopThreads();
    void AcquisitionThread();
    void StoreIQ(const uint8_t* src, bool hasTrigger, int64_t triggerPos);
    const Ipp32fc* NextRawStep();
    void FinishRawStep(const Ipp32fc* samples, int count);
    void FilterOnlyThread();
    void DownsampleAndFilterThread();
    TqStatus StreamStatus();

    TqDevice* device;
    DeviceInterface& iface;
    const TqIQSettings settings;
    const PatchSetup patch;
    TqCommand initCmds;
    const TqCommand fetchCmds;
    TqCommand stopCmds;

    std::atomic<bool> adcOverflow = false;  // seen in an aux packet since the last GetIQ
    std::atomic<bool> dataLoss = false;
    std::atomic<bool> running = true;
    IQCircularBuffer circularBuffer;
    const int dmaXfersActive;  // transfers in flight
    const float rfCorrectionScalar;

    int hardwareDecimation = 1;
    int softwareDecimation = 1;
    int firstDecimation = 1;  // the software stages
    int secondDecimation = 1;
    int iqPacketSize = 0;  // I/Q bytes of a transfer
    int iqSamplesPerXfer = 0;
    int bytesPerXfer = 0;  // with the aux packet
    DSP::FIR_32fc filter;  // of undecimated streams
    DSP::FIRDown_32fc stage1;
    DSP::FIRDown_32fc stage2;
    DSP::Vector<Ipp32fc> filtered;  // worker: a transfer behind the first filter, if any,
    DSP::Vector<Ipp32fc> twice;     // and behind the second
    double filterDelay = 0.0;       // of what filters run, [samples] at BASE_SR
    DSP::IQFreqTuner_32fc tuner;

    // The store. The acquisition thread fills an entry and then counts it in rawBatchesReady; the worker takes it out
    // of the count when it has done with it. A full store drops the transfer that comes: the next entry is marked.
    DSP::Vector<Ipp32fc> rawStore;
    std::array<RawStep, RAW_STEPS_TOTAL> rawSteps;
    int rawWriteIx = 0;       // acquisition thread
    bool rawDropped = false;  // acquisition thread: transfers were dropped since the last entry
    int rawReadIx = 0;        // worker
    std::atomic<int> rawBatchesReady = 0;

    // rawDataReady: the acquisition thread posts once per entry, the worker waits once per entry. Stop: End posts,
    // after running = false.
    Semaphore rawDataReady;

    // userDataReady: GetIQ resets it, looks into the ring and waits; the worker notifies behind each block, and the
    // acquisition thread while the link is lost. Stop: End notifies, after running = false.
    SemaphoreManual userDataReady;

    std::thread acquisitionThreadHandle;
    std::thread workThreadHandle;
};
