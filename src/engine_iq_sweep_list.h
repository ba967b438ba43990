// EngineIQSweepList captures a list of frequency steps as raw I/Q: it replays the prepared command blocks of a pass,
// shifts each step's samples onto its exact frequency and writes them to the caller's buffer. Up to sixteen passes, in
// numbered positions, stand in line, so that the instrument never waits for the application. TqDevice owns it while the
// list mode is configured; clients' threads start and finish sweeps, one thread inside moves and parses the data.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

#include "device_interface.h"
#include "dsp.h"
#include "list_plan.h"
#include "threaded_deque.h"
#include "tq_command.h"
#include "tq_settings.h"
#include "vk_semaphore.h"

class TqDevice;

// Converts device samples and shifts them in frequency, with one continuous tone from Init on. One thread.
class IQSweepListTuner {
public:
    static constexpr int N = 2048;  // samples of one pass

    IQSweepListTuner() : buffer(N) { Init(0.0); }

    // Starts a new tone at phase zero.
    //   freq  fraction of the sample rate, above -1 and below 1
    void Init(double freq) { tuner.Init(freq, N, false); }

    // The next len >= 0 samples; dst in full scale 1.0, or in 16 bits.
    void Tune(const Ipp16sc* src, Ipp32fc* dst, int len);
    void Tune(const Ipp16sc* src, Ipp16sc* dst, int len);

private:
    DSP::Vector<Ipp32fc> buffer;
    DSP::IQFreqTuner_32fc tuner;
};

class EngineIQSweepList {
public:
    using StepInfo = IQSweepListStepInfo;

    static constexpr int SWEEP_POSITIONS = 16;

    // Copies the plan and starts the thread. Sends nothing before the first StartSweep.
    //   steps     at least one
    //   commands  blocks of one pass, each of 1 to 125 packets, a multiple of four in all
    // Throws std::bad_alloc, or std::system_error when the thread cannot start.
    EngineIQSweepList(TqDevice& owner, DeviceInterface& usb, const TqIQSweepListSettings& listSettings,
                      const std::vector<StepInfo>& steps, const TqCommand& commands);

    ~EngineIQSweepList();
    EngineIQSweepList(const EngineIQSweepList&) = delete;
    EngineIQSweepList& operator=(const EngineIQSweepList&) = delete;

    // Ends the engine, for good and before its destruction: abandons the sweeps under way, whose buffers are not
    // touched from here on, and sends callers of FinishSweep home. Drops the blocks that have not gone out, takes
    // everything that the others asked for and stops the acquisition, so that the instrument's stream stays aligned.
    // Blocks until that is done, some 2 s when the instrument is dead. StartSweep doesn't come any more.
    void End();

    // Queues one pass over the list and returns at once. Sweeps run in the order of these calls.
    //   pos         0 to 15, else tqInvalidParameterErr; tqSweepAlreadyActiveErr, and no change, if it is taken
    //   dst         out, userSamples of all steps back to back, Ipp32fc or Ipp16sc by settings.dataType; may be null
    //   timestamps  out, one for each step, time of its first sample [ns since the epoch]; may be null
    // Both buffers stay the caller's and must last until FinishSweep has returned. Calls come from one thread at a
    // time, FinishSweep of other positions aside.
    TqStatus StartSweep(int pos, void* dst, int64_t* timestamps);

    // Blocks until the sweep in this position stands complete, also with a failure status, and frees the position. Over
    // a lost link it completes at once, by count. Any order of positions; one caller for each.
    // Returns the first that applies of: the transfer status, tqFramingErr, tqUncalData, tqADCOverflow, tqTempDrift;
    // tqNoError otherwise. tqInvalidParameterErr for a position that does not exist, tqSweepAlreadyActiveErr for a
    // free one, tqInvalidConfigurationErr when the engine ended first over a sound link.
    TqStatus FinishSweep(int pos);

    // Both in one call, in position 0. tqSweepAlreadyActiveErr, and no change, if any position is taken.
    TqStatus GetSweep(void* dst, int64_t* timestamps);

    // Writes the amplitude factor of every step, in order. tqNoError.
    TqStatus GetCorrections(float* corrections) const;

    bool IsValidSweepPosition(int pos) const { return pos >= 0 && pos < SWEEP_POSITIONS; }

    // Whether any position is taken. While none is, no slot is in use and other commands may go to the instrument.
    bool AnySweepActive() const;

private:
    enum class Part { IQ, Aux };  // stages of a loop

    // A position. From StartSweep to the notification of sweepDone all but `active` belongs to XferThread.
    struct SweepState {
        std::atomic<bool> active = false;  // taken
        void* iq = nullptr;                // the caller's
        int64_t iqPos = 0;                 // samples written to iq
        int64_t* timestamps = nullptr;     // the caller's, or null
        int step = 0;                      // index in sweepInfo
        int64_t stepPos = 0;               // within the stage: samples of I/Q, packets of aux
        Part part = Part::IQ;
        int64_t userSamplesLeft = 0;  // that the step still has to deliver
        int loopPos = 0;
        bool complete = false;    // the last aux packet has been parsed
        bool framingErr = false;  // seen in an aux packet of this sweep, as the next two
        bool dataLoss = false;
        bool adcOverflow = false;

        // sweepDone: XferThread notifies behind the last aux packet, with nothing of the sweep left on the USB;
        // FinishSweep waits. Stop: End notifies all of them, with `complete` false for what is abandoned.
        SemaphoreManual sweepDone;
    };

    // Commands and reads in flight, in slots that are used in turn.
    struct Transfers {
        int pktsInQueue = 0;                            // packets of taken commands that no read has asked for
        int cmdInQueue = 0;                             // commands taken, not yet retired
        int xferInQueue = 0;                            // reads in flight
        int cmdStartPos = 0;                            // oldest command in flight
        int cmdStopPos = 0;                             // next command
        int xferStartPos = 0;                           // oldest read in flight
        int xferStopPos = 0;                            // next read
        std::array<int, USB_XFER_SLOTS> cmdState = {};  // packets still owed to the command of each slot
        std::vector<CommandQueue::Link> cmdList;        // commands taken, not yet sent
    };

    void XferThread();
    bool CommandsWaiting();
    bool Gather();
    void Issue();
    void Collect();
    void FinishEverything();
    void ProcessData(const DMAXferStatus& xfer);
    int TakeIQ(SweepState& state, const uint8_t* data, int pktsLeft);  // data null: only counts
    void Deliver(SweepState& state, const Ipp16sc* samples, int count);
    int TakeAux(SweepState& state, const uint8_t* data, int pktsLeft);
    void ReadAux(SweepState& state, const uint8_t* packet);
    void EndLoop(SweepState& state);
    void BeginStep(SweepState& state);
    const StepInfo& StepOf(const SweepState& state) const { return sweepInfo[static_cast<std::size_t>(state.step)]; }
    TqStatus SweepStatus(const SweepState& state) const;

    TqDevice& device;
    DeviceInterface& iface;
    const TqIQSweepListSettings settings;
    const std::vector<StepInfo> sweepInfo;
    TqCommand sweepCommand;  // owns the memory of the queued blocks
    TqCommand stopCommand;   // block n ends an abandoned sweep of which n packets have been asked for and not read

    std::atomic<bool> running = true;

    // commandsAddedToQueue: StartSweep posts behind the blocks of a sweep; the idle XferThread waits. Stop: End posts
    // once, after running = false.
    CommandQueue commandQueue;
    Semaphore commandsAddedToQueue;
    static_assert(CommandQueue::MAX_COMMANDS >= SWEEP_POSITIONS);

    ThreadedDeque<int, SWEEP_POSITIONS> sweepPositionQueue;  // in the order of StartSweep
    std::array<SweepState, SWEEP_POSITIONS> sweepStates;

    // Of XferThread alone.
    Transfers xfers;
    std::optional<CommandQueue::Link> nextCommand;  // out of the queue, too big for the read in the making
    SweepState* activeSweepState = nullptr;         // that the parser is in; null between sweeps
    IQSweepListTuner tuner;

    std::thread xferThreadHandle;
};
