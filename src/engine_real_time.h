// EngineRealTime puts every sample of the undecimated stream through overlapping transforms, and 30 times a second
// hands over what they saw: minimum and maximum sweep, hit counts and fading alpha. TqDevice owns it while the
// real-time mode is configured and calls GetFrame from the client's thread; the three threads inside live as long as
// the engine.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "device_interface.h"
#include "dsp.h"
#include "persistence_image.h"
#include "real_time_plan.h"
#include "tq_command.h"
#include "tq_settings.h"
#include "vk_semaphore.h"

class TqDevice;

// What a client asks of GetFrame, and its answer. The arrays are the caller's; null ones are skipped.
struct TqRealTimeFrame {
    float* frame = nullptr;     // out, hit density, frameHeight rows of frameWidth, the lowest level first
    float* alpha = nullptr;     // out, likewise, 0.0 to 1.0
    float* sweepMin = nullptr;  // out, sweepSize values in the unit of the scale
    float* sweepMax = nullptr;  // out
    int32_t frameCount = 0;     // out, running number from 0 on
    int64_t time = 0;           // out, when the frame was finished, [ns] since the epoch
};

// The transform of the real-time mode: window, FFT, power.
class RealTimeFFT {
public:
    // Allocates all that Transform needs.
    //   setup     fftSize, zeroPadAmount, of which half goes in front of the window and half behind, and sweepOffset
    //   binCount  bins that are wanted, from sweepOffset on
    RealTimeFFT(TqWindowType windowType, const RealTimeSetup& setup, int binCount);
    RealTimeFFT(const RealTimeFFT&) = delete;
    RealTimeFFT& operator=(const RealTimeFFT&) = delete;

    //   src  fftSize samples
    //   dst  out, place of fftSize bins of power, the most negative frequency first, of which those wanted are written.
    //        A tone of amplitude A in the middle of a bin gives A^2.
    void Transform(const Ipp32fc* src, float* dst);

private:
    DSP::FFT_32fc fft;
    const int fftSize;
    const int firstBin;
    const int binsBelowZero;  // frequency; the transform has these last
    const int binsAboveZero;
    DSP::Vector<float> windowFunction;  // each value twice: for I and for Q
    DSP::Vector<Ipp32fc> windowed;
};

class EngineRealTime {
public:
    static constexpr int FRAMES_PER_SECOND = 30;
    static constexpr int FRAMES_STORED = PersistenceImage::FRAMES_STORED;  // output slots
    static constexpr int IQ_PER_XFER = 262144;                             // samples in a block of the store
    static constexpr int XFER_TO_STORE = 20;                               // blocks in the store
    static constexpr int XFER_SIZE = 1048576;  // of a transfer, and of a block as it comes, [bytes]
    static constexpr int DMA_QUEUE_SIZE = 12;  // transfers in flight, on the first slots

    // Copies the plan, allocates everything and starts the stream.
    //   initiateCommands  the block that tunes and starts
    //   fetchCommands     the block that asks for one transfer, the last of its packets aux
    // Throws std::bad_alloc, or std::system_error when a thread cannot start; no thread is left behind then.
    EngineRealTime(TqDevice& device, DeviceInterface& usb, const TqRealTimeSettings& settings,
                   const RealTimeSetup& rtSetup, const PatchSetup& patchInfo, const TqCommand& initiateCommands,
                   const TqCommand& fetchCommands);

    // Stops the stream and finishes all transfers in flight. No caller is in GetFrame: End has sent it home.
    ~EngineRealTime();
    EngineRealTime(const EngineRealTime&) = delete;
    EngineRealTime& operator=(const EngineRealTime&) = delete;

    // Ends the stream for good, at once: the threads wind up, and a caller of GetFrame leaves it.
    void End();

    // The next frame in order; blocks until it is finished. A caller that is late by more than 39 frames finds newer
    // ones in their place. The first that applies of the transfer status, tqFramingErr, tqUncalData, tqADCOverflow,
    // tqTempDrift; tqNoError. All come with the frame. When the engine ends meanwhile, the transfer status if that is
    // an error, else tqInvalidConfigurationErr, and nothing is written. One caller at a time.
    TqStatus GetFrame(TqRealTimeFrame* frame);

private:
    void StopThreads();
    void USBThread();
    void Stitch(const uint8_t* p);
    void Store(const uint8_t* d);
    void CountBlock();
    void FFTThread();
    void AccumulationThread();
    void Detect(const float* fftResult);
    void FinishFrame();
    void FrameGeneration(std::size_t slot);
    void ClearTraces();
    void ReadFrame(std::size_t slot, TqRealTimeFrame* frame);
    void ReadSweep(const DSP::Vector<float>& power, float* dst) const;
    TqStatus StreamStatus();

    TqDevice& device;
    DeviceInterface& usb;
    TqCommand initiateCommands;
    const TqCommand fetchCommands;
    TqCommand stopCommands;

    std::atomic<bool> running = true;
    std::atomic<bool> adcOverflow = false;  // seen in an aux packet since the last GetFrame
    std::atomic<bool> dataLoss = false;

    const TqRealTimeSettings settings;
    const RealTimeSetup rtSetup;
    const RealTimeScale scale;

    const int fftsPerFrame;
    const int fftsPerBatch;     // spectra between two posts of fftBatchReady
    const int fftsPerTurn;      // spectra between two looks at the counters
    const int fftStoreCount;    // spectra that fftResultsBuffer holds
    const int fftsBeyondStore;  // how far fftsReady may run past that
    const int imagePixels;

    // The store, with a copy of block 0 behind its end, so that a transform that begins in the last samples reads on.
    // The USB thread never waits for the FFT thread: it overwrites in place. What is lost then is whole rounds of the
    // ring: the counter gives up as many samples, and both indices stay where they are.
    DSP::Vector<Ipp32fc> store;
    DSP::Vector<unsigned char> stitched;  // USB thread: a block out of two transfers,
    std::size_t leftInBuffer = 0;         // of which so much stands, [bytes]
    int storeWriteIndex = 0;              // USB thread: block
    int storeReadIndex = 0;               // FFT thread: sample
    alignas(64) std::atomic<int32_t> storeSamplesAvailable = 0;

    // storeDataReady: the USB thread posts behind each block once four are pending; the FFT thread waits when less than
    // a transform is. Stop: End posts, after running = false.
    Semaphore storeDataReady;

    // The ring of spectra, under the same rule: the accumulation thread loses whole rounds.
    RealTimeFFT fft;
    DSP::Vector<float> fftResultsBuffer;
    int fftResultsWriteIndex = 0;  // FFT thread: element
    int fftResultsReadIndex = 0;   // accumulation thread: element
    alignas(64) std::atomic<int32_t> fftsReady = 0;

    // fftBatchReady: the FFT thread posts once per batch, the accumulation thread waits when no spectrum is left. Stop:
    // as above.
    Semaphore fftBatchReady;

    // Accumulation thread: the frame in hand.
    PersistenceImage image;
    DSP::Vector<float> minTrace;
    DSP::Vector<float> maxTrace;
    int fftCount = 0;
    int32_t frameCount = 0;
    std::size_t outWriteIndex = 0;

    // The output slots. sweepLocks go hand over hand: the accumulation thread always holds that of the slot it fills,
    // and takes the next before it gives up the last, so that a caller waits exactly for an unfinished frame.
    std::array<std::mutex, FRAMES_STORED> sweepLocks;
    std::array<DSP::Vector<float>, FRAMES_STORED> maxSweepsOut;  // linear power
    std::array<DSP::Vector<float>, FRAMES_STORED> minSweepsOut;
    std::array<DSP::Vector<int>, FRAMES_STORED> compositeFrames;
    std::array<DSP::Vector<float>, FRAMES_STORED> compositeAlpha;
    std::array<int64_t, FRAMES_STORED> frameTimes{};
    std::array<int32_t, FRAMES_STORED> frameIds{};
    Semaphore firstSlotHeld;  // the accumulation thread posts once, the constructor waits

    // The caller's.
    std::size_t outReadIndex = 0;
    DSP::Vector<float> finalImage;

    std::thread usbThreadHandle;
    std::thread fftThreadHandle;
    std::thread accumulationThreadHandle;
};
