// EngineSweep acquires wide sweeps: it replays the prepared command blocks of a sweep, collects the samples of each LO
// step in a ring, turns them into rows on two work threads and joins their valid parts into one sweep. TqDevice owns
// it while the sweep mode is configured, and calls StartSweep and FinishSweep from the client's thread; the three
// threads inside live as long as the engine.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "device_interface.h"
#include "dsp_vector.h"
#include "sweep_plan.h"
#include "sweep_processor.h"
#include "threaded_deque.h"
#include "tq_command.h"
#include "tq_settings.h"
#include "vk_critical_section.h"
#include "vk_semaphore.h"

class TqDevice;

class EngineSweep {
public:
    static constexpr int SWEEP_THREADS = 2;

    // Copies the plan, allocates everything that sweeps will need and starts the threads. Sends nothing.
    //   sweepCmds  the blocks of one entire sweep; their packets, aux packets included, are a multiple of four
    // Throws std::bad_alloc, or std::system_error when a thread cannot start; no thread is left behind then.
    EngineSweep(TqDevice* owner, DeviceInterface& usb, const TqSweepSettings& sweepSettings, const SweepSetup& setup,
                const TqCommand& sweepCmds);

    // Waits for a sweep in progress, so that the instrument's stream stays aligned, and joins the threads.
    ~EngineSweep();
    EngineSweep(const EngineSweep&) = delete;
    EngineSweep& operator=(const EngineSweep&) = delete;

    // Queues one sweep and returns at once. tqSweepAlreadyActiveErr, and no change, until FinishSweep has collected
    // the last one.
    TqStatus StartSweep();

    // Blocks until the sweep stands complete and nothing of it is left on the USB, then delivers it, also with a
    // failure status. Over a lost link it completes at once, by count: the rows stay as they were.
    //   sweepMin, sweepMax  out, sweepSize bins each, [dBm], [mV], or relative to full scale, by the settings' scale
    //   nsSinceEpoch        out, time of the sweep
    // Null pointers are skipped. Returns the first that applies of: the transfer status, tqFramingErr, tqUncalData,
    // tqADCOverflow, tqCPULimited, tqTempDrift; tqNoError otherwise, and also, writing nothing, without a sweep.
    // One caller at a time, which is also StartSweep's.
    TqStatus FinishSweep(float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch);

private:
    // Packets of a started sweep that are still to come.
    struct SweepXferInfo {
        int pktCount;       // I/Q packets, in step order
        int auxCount;       // aux packets, behind them
        bool processedAux;  // the first of those has been read
    };

    struct SweepState {
        std::atomic<bool> active = false;   // started and not yet collected
        std::atomic<int> currentPatch = 0;  // steps claimed so far: the index of the next one
        std::atomic<int> stepsLeft = 0;     // steps not yet finished
        DSP::Vector<float> minData;         // numSteps rows of fftSize bins; compacted at the end of a sweep
        DSP::Vector<float> maxData;
        SemaphoreManual sweepFinished;           // last work thread: all rows stand compacted
        SemaphoreManual sweepTransfersFinished;  // USB thread: no transfer or command of the sweep is outstanding

        // Plain: the USB thread writes them between taking a sweep's first command from the locked queue and
        // sweepTransfersFinished; the caller before and after.
        int64_t timeStamp = 0;  // [ns since the epoch]
        bool dataLoss = false;
        bool adcOverflow = false;
        bool cpuLimited = false;
    };

    // A step that a work thread has claimed.
    struct ClaimedStep {
        int index;         // in stepInfo
        int64_t position;  // of its first sample in the ring
    };

    void WaitForSweep();
    void StopThreads();
    void USBThread();
    void AddData(const DMAXferStatus& xfer);
    void StoreSamples(const uint8_t* p, int pktCount);
    void ReadAux(const uint8_t* p);
    int64_t FreeSpace() const;
    void WorkThread(int threadNum);
    std::optional<ClaimedStep> ClaimStep(int threadNum);
    void ProcessStep(int threadNum, const ClaimedStep& step);
    void StoreRow(DSP::Vector<float>& row, DSP::Vector<float>& rows, int step) const;
    void CompactRows(DSP::Vector<float>& rows) const;
    void CopySweep(const DSP::Vector<float>& rows, float* dst) const;
    TqStatus SweepStatus() const;

    TqDevice* device;
    DeviceInterface& iface;
    const TqSweepSettings settings;
    const SweepSetup sweepSetup;
    TqCommand cmds;            // owns the memory of the queued blocks
    const int64_t stepSize;    // samples of a step
    const int64_t bufferSize;  // samples; whole steps, so that no step's stretch wraps

    std::atomic<bool> running = true;

    // The sample ring. Positions count samples since construction and never wrap; modulo bufferSize they are places in
    // `buffer`. A stretch belongs to the writer until bufferWrite has passed it, then to the work thread that claims
    // it, and to the writer again once that thread's inWork has moved on, in whatever order the steps finish.
    DSP::Vector<Ipp32fc> buffer;
    std::atomic<int64_t> bufferWrite = 0;        // next sample to store; moved by the USB thread
    std::atomic<int64_t> bufferRead = 0;         // next step to claim
    std::atomic<int64_t> inWork[SWEEP_THREADS];  // step that each work thread reads, or NOT_IN_WORK

    // rawDataReady: posted after each transfer's data; the work thread that is next to claim waits. Stop: the
    // destructor posts once, after running = false.
    Semaphore rawDataReady;
    CriticalSection criticalSection;  // one work thread claims at a time, and waits for data while it does

    // commandsAddedToQueue: StartSweep posts behind the blocks of a sweep; the idle USB thread waits. Stop: as above.
    CommandQueue commandQueue;
    Semaphore commandsAddedToQueue;
    ThreadedDeque<SweepXferInfo, 1> pktCounters;
    std::vector<CommandQueue::Link> cmdList;  // USB thread: blocks taken, not yet submitted; never grows

    SweepState sweepState;
    std::unique_ptr<SweepProcessor> proc[SWEEP_THREADS];
    DSP::Vector<float> min[SWEEP_THREADS];  // the row in hand of each work thread
    DSP::Vector<float> max[SWEEP_THREADS];

    std::thread workThreadHandles[SWEEP_THREADS];
    std::thread usbThreadHandle;
};
