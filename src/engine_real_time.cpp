#include "engine_real_time.h"

#include "aux_reader.h"
#include "tq_assert.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int PACKET_BYTES = 8192;
constexpr int BYTES_PER_XFER = 127 * PACKET_BYTES;  // of I/Q; an aux packet follows
constexpr int XFER_TIMEOUT_MS = 2000;
constexpr int DEAD_LINK_PAUSE_MS = 32;  // a lost instrument fails each transfer at once: don't spin
constexpr int STORE_SAMPLES = EngineRealTime::IQ_PER_XFER * EngineRealTime::XFER_TO_STORE;
constexpr int WAKE_SAMPLES = 4 * EngineRealTime::IQ_PER_XFER;  // 17 ms: the FFT thread is woken for no less
constexpr int FFT_RESULTS = 2 * STORE_SAMPLES;                 // as long in time as the store, at 50 % overlap
constexpr int TURN_SAMPLES = 4096;  // below it, atomic counters would cost more than a share of the transform
constexpr int SPARE_FFTS = 5;
constexpr float HIGHEST_POWER = 3.4028235e38f;
static_assert(BYTES_PER_XFER + sizeof(AuxData) == EngineRealTime::XFER_SIZE);
static_assert(sizeof(Ipp16sc) * EngineRealTime::IQ_PER_XFER == EngineRealTime::XFER_SIZE);

int FFTsPerFrame(int fftSize) { return static_cast<int>(BASE_SR / (fftSize / 2)) / EngineRealTime::FRAMES_PER_SECOND; }

template <class T>
void Allocate(std::array<DSP::Vector<T>, EngineRealTime::FRAMES_STORED>& slots, int size) {
    for (DSP::Vector<T>& slot : slots) {
        slot.resize(size);
        std::fill_n(slot.data(), size, T{});
    }
}

void Transpose(const float* columns, int frameWidth, int frameHeight, float* rows) {
    ippiTranspose_32f_C1R(columns, frameHeight * static_cast<int>(sizeof(float)), rows,
                          frameWidth * static_cast<int>(sizeof(float)), {frameHeight, frameWidth});
}

}  // namespace

RealTimeFFT::RealTimeFFT(TqWindowType windowType, const RealTimeSetup& setup, int binCount)
    : fft(DSP::IntLogBase2(setup.fftSize), 1, ippAlgHintFast),
      fftSize(setup.fftSize),
      firstBin(setup.sweepOffset),
      binsBelowZero(std::clamp(fftSize / 2 - firstBin, 0, binCount)),
      binsAboveZero(binCount - binsBelowZero),
      windowFunction(2 * fftSize),
      windowed(fftSize) {
    TQ_ASSERT(firstBin >= 0 && binCount >= 0 && firstBin + binCount <= fftSize);
    DSP::Vector<float> window(fftSize);
    ippsZero_32f(window.data(), fftSize);
    DSP::BuildWindowFunction(windowType, window.data() + setup.zeroPadAmount / 2, fftSize - setup.zeroPadAmount);
    DSP::NormalizeWindow(window.data(), fftSize);
    for (int i = 0; i < 2 * fftSize; i++) windowFunction[i] = window[i / 2];
}

void RealTimeFFT::Transform(const Ipp32fc* src, float* dst) {
    Ipp32fc* const work = windowed.data();
    ippsMul_32f(reinterpret_cast<const float*>(src), windowFunction.data(), reinterpret_cast<float*>(work),
                2 * fftSize);
    fft.FwdFFT_I(work);
    const int half = fftSize / 2, firstAbove = firstBin + binsBelowZero;
    if (binsBelowZero > 0) ippsPowerSpectr_32fc(work + half + firstBin, dst + firstBin, binsBelowZero);
    if (binsAboveZero > 0) ippsPowerSpectr_32fc(work + firstAbove - half, dst + firstAbove, binsAboveZero);
}

EngineRealTime::EngineRealTime(TqDevice& owner, DeviceInterface& usbInterface, const TqRealTimeSettings& rtSettings,
                               const RealTimeSetup& setup, const PatchSetup& patchInfo, const TqCommand& startBlock,
                               const TqCommand& fetchBlock)
    : device(owner),
      usb(usbInterface),
      initiateCommands(startBlock),
      fetchCommands(fetchBlock),
      settings(rtSettings),
      rtSetup(setup),
      scale(rtSettings.scale, patchInfo.coarseCorrection),
      fftsPerFrame(FFTsPerFrame(setup.fftSize)),
      fftsPerBatch(std::max(fftsPerFrame / 4, 2)),
      fftsPerTurn(std::max(TURN_SAMPLES / setup.fftSize, 1)),
      fftStoreCount(FFT_RESULTS / setup.fftSize),
      fftsBeyondStore(std::max(SPARE_FFTS, fftsPerTurn)),
      imagePixels(rtSettings.frameWidth * rtSettings.frameHeight),
      store(STORE_SAMPLES + IQ_PER_XFER),
      stitched(XFER_SIZE),
      fft(rtSettings.window, setup, rtSettings.sweepSize),
      fftResultsBuffer(FFT_RESULTS),
      image(rtSettings, setup.freqBinning, scale),
      minTrace(rtSettings.sweepSize),
      maxTrace(rtSettings.sweepSize),
      finalImage(imagePixels) {
    TQ_ASSERT((fetchCommands.GetTotalXferCount() + fetchCommands.GetTotalAuxCount()) * PACKET_BYTES == XFER_SIZE);
    ippsZero_32fc(store.data(), static_cast<int>(store.size()));
    ippsZero_32f(fftResultsBuffer.data(), FFT_RESULTS);
    Allocate(maxSweepsOut, settings.sweepSize);
    Allocate(minSweepsOut, settings.sweepSize);
    Allocate(compositeFrames, imagePixels);
    Allocate(compositeAlpha, imagePixels);
    ClearTraces();
    stopCommands.StartNewCommand();
    stopCommands.AddStopIQ();

    // The stream comes last: nothing has to be stopped on the wire when a thread cannot start.
    try {
        accumulationThreadHandle = std::thread(&EngineRealTime::AccumulationThread, this);
        fftThreadHandle = std::thread(&EngineRealTime::FFTThread, this);
        usbThreadHandle = std::thread(&EngineRealTime::USBThread, this);
    } catch (...) {
        StopThreads();
        throw;
    }
    SetThreadPriorityTimeCritical(usbThreadHandle);
    SetThreadName(usbThreadHandle, "TQ Real Time USB Thread");
    SetThreadPriorityAboveNormal(fftThreadHandle);
    SetThreadName(fftThreadHandle, "TQ Real Time FFT Thread");
    SetThreadPriorityAboveNormal(accumulationThreadHandle);
    SetThreadName(accumulationThreadHandle, "TQ Real Time Accum Thread");
    firstSlotHeld.Wait();
}

EngineRealTime::~EngineRealTime() { StopThreads(); }

void EngineRealTime::End() {
    running = false;
    fftBatchReady.Notify();
    storeDataReady.Notify();
}

void EngineRealTime::StopThreads() {
    End();
    if (usbThreadHandle.joinable()) usbThreadHandle.join();
    if (fftThreadHandle.joinable()) fftThreadHandle.join();
    if (accumulationThreadHandle.joinable()) accumulationThreadHandle.join();
}

// Keeps DMA_QUEUE_SIZE transfers in flight from the start block to the stop word. Over a lost link frames go on, out of
// what the store holds, so that a caller who waits for one hears of it.
void EngineRealTime::USBThread() {
    usb.SendCommands(initiateCommands);
    const auto begin = [this](int slot) {
        usb.BeginDataXfer(slot, XFER_SIZE, XFER_TIMEOUT_MS);
        usb.BeginCommandXfer(slot, fetchCommands.GetCommand(0));
    };
    for (int slot = 0; slot < DMA_QUEUE_SIZE; slot++) begin(slot);

    int dmaIndex = 0;
    for (; running; dmaIndex = (dmaIndex + 1) % DMA_QUEUE_SIZE) {
        const DMAXferStatus xfer = usb.FinishDataXfer(dmaIndex);
        usb.FinishCommandXfer(dmaIndex);
        if (usb.TransferStatus() != tqNoError) SystemSleep(DEAD_LINK_PAUSE_MS);
        if (xfer.begun) {
            Stitch(xfer.p);
        } else {
            CountBlock();
        }

        if (dmaIndex == 0 && xfer.begun) {
            AuxData aux;
            std::memcpy(&aux, xfer.p + BYTES_PER_XFER, sizeof(aux));
            device.UpdateAuxData(&aux);
            if (device.readerStatus.ADCOverflow()) adcOverflow = true;
            if (device.readerStatus.IQDataLoss()) dataLoss = true;
        }
        begin(dmaIndex);
    }

    // The instrument comes to this block behind all fetches, so that each of these is answered. It takes the first
    // slot that the stream does not use.
    const DeviceInterface::LastWords lastWords(usb);
    usb.FullCommandXfer(DMA_QUEUE_SIZE, stopCommands.GetCommand(0));
    for (int i = 0; i < DMA_QUEUE_SIZE; i++, dmaIndex = (dmaIndex + 1) % DMA_QUEUE_SIZE) {
        usb.FinishDataXfer(dmaIndex);
        usb.FinishCommandXfer(dmaIndex);
    }
}

// Cuts the stream, which comes 127 packets at a time, into blocks of 128: each transfer but the first of 128 completes
// one.
void EngineRealTime::Stitch(const uint8_t* p) {
    unsigned char* const mem = stitched.data();
    if (leftInBuffer == 0) {
        std::memcpy(mem, p, BYTES_PER_XFER);
        leftInBuffer = BYTES_PER_XFER;
        return;
    }
    const std::size_t after = XFER_SIZE - leftInBuffer;
    std::memcpy(mem + leftInBuffer, p, after);
    Store(mem);
    leftInBuffer -= PACKET_BYTES;
    std::memcpy(mem, p + after, leftInBuffer);
}

// A block of IQ_PER_XFER device samples into the store.
void EngineRealTime::Store(const uint8_t* d) {
    const auto* const samples = reinterpret_cast<const Ipp16sc*>(d);
    if (storeWriteIndex == 0) DSP::Convert_16sc32fc(samples, store.data() + STORE_SAMPLES, IQ_PER_XFER);
    DSP::Convert_16sc32fc(samples, store.data() + storeWriteIndex * IQ_PER_XFER, IQ_PER_XFER);
    CountBlock();
}

// One block more in the store.
void EngineRealTime::CountBlock() {
    storeWriteIndex = (storeWriteIndex + 1) % XFER_TO_STORE;
    if (storeSamplesAvailable += IQ_PER_XFER; storeSamplesAvailable > STORE_SAMPLES) {
        storeSamplesAvailable -= STORE_SAMPLES;
    }
    if (storeSamplesAvailable >= WAKE_SAMPLES) storeDataReady.Notify();
}

void EngineRealTime::FFTThread() {
    const int fftSize = rtSetup.fftSize;
    const int fftStepSize = fftSize / 2;
    int inBatch = 0;
    while (running) {
        storeDataReady.Wait();
        for (int available; running && (available = storeSamplesAvailable) >= fftSize;) {
            const int count = std::min(fftsPerTurn, available / fftStepSize - 1);
            for (int i = 0; i < count; i++) {
                fft.Transform(store.data() + storeReadIndex, fftResultsBuffer.data() + fftResultsWriteIndex);
                fftResultsWriteIndex = (fftResultsWriteIndex + fftSize) % FFT_RESULTS;
                storeReadIndex = (storeReadIndex + fftStepSize) % STORE_SAMPLES;
            }
            storeSamplesAvailable -= count * fftStepSize;
            if (fftsReady += count; fftsReady > fftStoreCount + fftsBeyondStore) fftsReady -= fftStoreCount;

            inBatch += count;
            if (inBatch >= fftsPerBatch) {
                inBatch -= fftsPerBatch;
                fftBatchReady.Notify();
            }
        }
    }
}

void EngineRealTime::AccumulationThread() {
    sweepLocks[outWriteIndex].lock();
    firstSlotHeld.Notify();
    while (running) {
        fftBatchReady.Wait();
        for (int ready; running && (ready = fftsReady) > 0;) {
            const int count = std::min(fftsPerTurn, ready);
            for (int i = 0; i < count; i++) {
                const float* const fftResult = fftResultsBuffer.data() + fftResultsReadIndex + rtSetup.sweepOffset;
                Detect(fftResult);
                image.AddSpectrum(fftResult);
                if (++fftCount == fftsPerFrame) FinishFrame();
                fftResultsReadIndex = (fftResultsReadIndex + rtSetup.fftSize) % FFT_RESULTS;
            }
            fftsReady -= count;
        }
    }
    sweepLocks[outWriteIndex].unlock();
}

void EngineRealTime::Detect(const float* fftResult) {
    if (settings.detector == tqDetectorAverage) {
        ippsAdd_32f(fftResult, maxTrace.data(), maxTrace.data(), settings.sweepSize);
    } else {
        ippsMinEvery_32f(fftResult, minTrace.data(), minTrace.data(), settings.sweepSize);
        ippsMaxEvery_32f(fftResult, maxTrace.data(), maxTrace.data(), settings.sweepSize);
    }
}

void EngineRealTime::FinishFrame() {
    const std::size_t w = outWriteIndex;
    const int size = settings.sweepSize;
    if (settings.detector == tqDetectorAverage) {
        ippsMulC_32f(maxTrace.data(), static_cast<float>(1.0 / fftsPerFrame), maxSweepsOut[w].data(), size);
        ippsCopy_32f(maxSweepsOut[w].data(), minSweepsOut[w].data(), size);
    } else {
        ippsCopy_32f(maxTrace.data(), maxSweepsOut[w].data(), size);
        ippsCopy_32f(minTrace.data(), minSweepsOut[w].data(), size);
    }
    FrameGeneration(w);
    frameIds[w] = frameCount++;
    frameTimes[w] = GetEpochNanos();

    outWriteIndex = (w + 1) % FRAMES_STORED;
    // Free but for a caller who is late by a whole round. Tried first, since only waits tell checkers of lock order of
    // the circle, which no other thread can close: a caller holds one lock at a time.
    if (std::mutex& next = sweepLocks[outWriteIndex]; !next.try_lock()) next.lock();
    sweepLocks[w].unlock();
    ClearTraces();
    fftCount = 0;
}

void EngineRealTime::FrameGeneration(std::size_t slot) {
    const std::size_t previous = (slot + FRAMES_STORED - 1) % FRAMES_STORED;
    image.FinishFrame(compositeFrames[slot].data(), compositeAlpha[previous].data(), compositeAlpha[slot].data());
}

void EngineRealTime::ClearTraces() {
    ippsSet_32f(HIGHEST_POWER, minTrace.data(), settings.sweepSize);
    ippsZero_32f(maxTrace.data(), settings.sweepSize);
}

TqStatus EngineRealTime::GetFrame(TqRealTimeFrame* frame) {
    {
        const std::lock_guard<std::mutex> slot(sweepLocks[outReadIndex]);
        if (!running) {
            const TqStatus transferStatus = usb.TransferStatus();
            return transferStatus != tqNoError ? transferStatus : tqInvalidConfigurationErr;
        }
        ReadFrame(outReadIndex, frame);
    }
    outReadIndex = (outReadIndex + 1) % FRAMES_STORED;
    return StreamStatus();
}

void EngineRealTime::ReadFrame(std::size_t slot, TqRealTimeFrame* frame) {
    if (frame->sweepMin != nullptr) ReadSweep(minSweepsOut[slot], frame->sweepMin);
    if (frame->sweepMax != nullptr) ReadSweep(maxSweepsOut[slot], frame->sweepMax);
    if (frame->frame != nullptr) {
        // A full column of all slots is 1; the window is one frame shorter.
        const auto imageScale =
            static_cast<float>(1.0 / (static_cast<double>(FRAMES_STORED) * fftsPerFrame * rtSetup.freqBinning));
        const int* const counts = compositeFrames[slot].data();
        for (int i = 0; i < imagePixels; i++) finalImage.data()[i] = static_cast<float>(counts[i]) * imageScale;
        Transpose(finalImage.data(), settings.frameWidth, settings.frameHeight, frame->frame);
    }
    if (frame->alpha != nullptr) {
        Transpose(compositeAlpha[slot].data(), settings.frameWidth, settings.frameHeight, frame->alpha);
    }
    frame->frameCount = frameIds[slot];
    frame->time = frameTimes[slot];
}

void EngineRealTime::ReadSweep(const DSP::Vector<float>& power, float* dst) const {
    ippsCopy_32f(power.data(), dst, settings.sweepSize);
    scale.Convert(dst, settings.sweepSize);
}

// Of what was seen since the last call the flags are forgotten, reported or not.
TqStatus EngineRealTime::StreamStatus() {
    const bool lost = dataLoss.exchange(false);
    const bool overflowed = adcOverflow.exchange(false);
    const TqStatus transferStatus = usb.TransferStatus();
    if (transferStatus != tqNoError) return transferStatus;
    if (device.HasFramingIssues()) return tqFramingErr;
    if (lost) return tqUncalData;
    if (overflowed) return tqADCOverflow;
    if (device.readerStatus.TempWarning()) return tqTempDrift;
    return tqNoError;
}
