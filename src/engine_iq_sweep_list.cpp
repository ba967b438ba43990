#include "engine_iq_sweep_list.h"

#include "aux_reader.h"
#include "tq_assert.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int SAMPLES_PER_PKT = 2048;
constexpr int PACKET_BYTES = SAMPLES_PER_PKT * static_cast<int>(sizeof(Ipp16sc));
constexpr int PKTS_PER_UNIT = XFER_UNIT_BYTES / PACKET_BYTES;
constexpr int MAX_PKT_PER_XFER = USBBulkTransfer::MAX_XFER_SIZE / PACKET_BYTES;
constexpr int MAX_XFERS_IN_QUEUE = 10;
constexpr int MAX_CMDS_IN_QUEUE = USB_XFER_SLOTS;
constexpr std::size_t MAX_CMDS_AT_ONCE = 16;  // sent behind one read
static_assert(PACKET_BYTES == sizeof(AuxData));

// With up to three packets waiting for a read unit to fill, a larger block could be neither taken nor read ahead of.
constexpr int MAX_PKT_PER_CMD = MAX_PKT_PER_XFER - (PKTS_PER_UNIT - 1);

int NextSlot(int slot) { return (slot + 1) % USB_XFER_SLOTS; }

}  // namespace

void IQSweepListTuner::Tune(const Ipp16sc* src, Ipp32fc* dst, int len) {
    for (int pos = 0; pos < len; pos += N) {
        const int toProcess = std::min(len - pos, N);
        DSP::Convert_16sc32fc(src + pos, buffer.data(), toProcess);
        tuner.Tune(buffer.data(), dst + pos, toProcess);
    }
}

void IQSweepListTuner::Tune(const Ipp16sc* src, Ipp16sc* dst, int len) {
    for (int pos = 0; pos < len; pos += N) {
        const int toProcess = std::min(len - pos, N);
        DSP::Convert_16sc32fc(src + pos, buffer.data(), toProcess);
        tuner.Tune(buffer.data(), buffer.data(), toProcess);
        DSP::Convert_32fc16sc(buffer.data(), dst + pos, toProcess);
    }
}

EngineIQSweepList::EngineIQSweepList(TqDevice& owner, DeviceInterface& usb, const TqIQSweepListSettings& listSettings,
                                     const std::vector<StepInfo>& steps, const TqCommand& commands)
    : device(owner), iface(usb), settings(listSettings), sweepInfo(steps), sweepCommand(commands) {
    TQ_ASSERT(!sweepInfo.empty());
    TQ_ASSERT((sweepCommand.GetTotalXferCount() + sweepCommand.GetTotalAuxCount()) % PKTS_PER_UNIT == 0);
    for (int i = 0; i < sweepCommand.GetCommandCount(); i++) {
        const int pkts = sweepCommand.GetXferCount(i) + sweepCommand.GetAuxPacketCount(i);
        TQ_ASSERT(pkts > 0 && pkts <= MAX_PKT_PER_CMD);
    }

    for (int pkts = 0; pkts < PKTS_PER_UNIT; pkts++) {
        stopCommand.StartNewCommand();
        stopCommand.AddStopIQ();
        if (pkts > 0) stopCommand.AddFetchAux(PKTS_PER_UNIT - pkts);
    }
    xfers.cmdList.reserve(MAX_CMDS_AT_ONCE);
    xferThreadHandle = std::thread(&EngineIQSweepList::XferThread, this);
    SetThreadPriorityTimeCritical(xferThreadHandle);
}

EngineIQSweepList::~EngineIQSweepList() { End(); }

// The callers go last: what a caller has got back is his own.
void EngineIQSweepList::End() {
    if (!xferThreadHandle.joinable()) return;
    running = false;
    commandsAddedToQueue.Notify();
    xferThreadHandle.join();
    for (SweepState& state : sweepStates) state.sweepDone.Notify();
}

TqStatus EngineIQSweepList::StartSweep(int pos, void* dst, int64_t* timestamps) {
    if (!IsValidSweepPosition(pos)) return tqInvalidParameterErr;
    SweepState& state = sweepStates[static_cast<std::size_t>(pos)];
    if (state.active) return tqSweepAlreadyActiveErr;

    state.active = true;
    state.iq = dst;
    state.timestamps = timestamps;
    state.iqPos = 0;
    state.step = 0;
    state.complete = state.framingErr = state.dataLoss = state.adcOverflow = false;
    state.sweepDone.Reset();

    // The parser finds the position for any data that these commands bring.
    sweepPositionQueue.push_back(pos);
    commandQueue.AddToQueue(sweepCommand);
    commandsAddedToQueue.Notify();
    return tqNoError;
}

TqStatus EngineIQSweepList::FinishSweep(int pos) {
    if (!IsValidSweepPosition(pos)) return tqInvalidParameterErr;
    SweepState& state = sweepStates[static_cast<std::size_t>(pos)];
    if (!state.active) return tqSweepAlreadyActiveErr;

    state.sweepDone.Wait();
    TqStatus status = SweepStatus(state);
    if (!state.complete && status != tqConnectionLostErr) status = tqInvalidConfigurationErr;
    state.active = false;
    return status;
}

TqStatus EngineIQSweepList::GetSweep(void* dst, int64_t* timestamps) {
    if (AnySweepActive()) return tqSweepAlreadyActiveErr;
    const TqStatus status = StartSweep(0, dst, timestamps);
    return status == tqNoError ? FinishSweep(0) : status;
}

TqStatus EngineIQSweepList::GetCorrections(float* corrections) const {
    std::ranges::transform(sweepInfo, corrections, &StepInfo::rfCorrectionScalar);
    return tqNoError;
}

bool EngineIQSweepList::AnySweepActive() const {
    return std::ranges::any_of(sweepStates, [](const SweepState& state) { return state.active.load(); });
}

// The device's framing flag is that of the last packet, the sweep's that of any of its own.
TqStatus EngineIQSweepList::SweepStatus(const SweepState& state) const {
    const TqStatus transferStatus = iface.TransferStatus();
    if (transferStatus != tqNoError) return transferStatus;
    if (state.framingErr || device.HasFramingIssues()) return tqFramingErr;
    if (state.dataLoss) return tqUncalData;
    if (state.adcOverflow) return tqADCOverflow;
    if (device.readerStatus.TempWarning()) return tqTempDrift;
    return tqNoError;
}

// Reads and the commands that feed them are paired by packet count: a block may span reads, a read may span blocks.
// All counts move by what was asked for, whatever came of a transfer, so that a sweep always completes.
void EngineIQSweepList::XferThread() {
    while (running) {
        const bool idle = !CommandsWaiting() && xfers.pktsInQueue == 0 && xfers.xferInQueue == 0;
        if (idle) {
            TQ_ASSERT(xfers.cmdInQueue == 0);
            commandsAddedToQueue.Wait();
            xfers.cmdStartPos = xfers.cmdStopPos = xfers.xferStartPos = xfers.xferStopPos = 0;
            continue;
        }
        if (Gather()) Issue();

        // Deep queues are what keeps the instrument going while a transfer is parsed.
        const bool runDry = !CommandsWaiting() && xfers.pktsInQueue == 0;
        const bool full = xfers.xferInQueue >= MAX_XFERS_IN_QUEUE;
        if (full || (xfers.xferInQueue > 0 && (xfers.cmdInQueue == MAX_CMDS_IN_QUEUE || runDry))) Collect();
    }
    FinishEverything();
}

// Blocks that have not been gathered for a read.
bool EngineIQSweepList::CommandsWaiting() { return nextCommand.has_value() || commandQueue.Size() > 0; }

// Takes blocks for the next read. Whether that read and what feeds it are to go out now.
bool EngineIQSweepList::Gather() {
    while (CommandsWaiting() && xfers.pktsInQueue < MAX_PKT_PER_XFER && xfers.cmdInQueue < MAX_CMDS_IN_QUEUE) {
        if (!nextCommand) nextCommand = commandQueue.GetNextCommand();
        if (xfers.pktsInQueue + nextCommand->num8kPkts > MAX_PKT_PER_XFER) return true;
        xfers.cmdList.push_back(*nextCommand);
        xfers.cmdInQueue++;
        xfers.pktsInQueue += nextCommand->num8kPkts;
        nextCommand.reset();
        if (xfers.cmdList.size() == MAX_CMDS_AT_ONCE) return true;
    }
    if (xfers.pktsInQueue >= MAX_PKT_PER_XFER || xfers.cmdInQueue == MAX_CMDS_IN_QUEUE) return true;
    return !CommandsWaiting() && xfers.pktsInQueue > 0;
}

// Begins a read of all packets that fill whole units, and the commands that feed it behind it.
void EngineIQSweepList::Issue() {
    const int pktsToXfer = xfers.pktsInQueue / PKTS_PER_UNIT * PKTS_PER_UNIT;
    if (pktsToXfer > 0) {
        iface.BeginDataXfer(xfers.xferStopPos, pktsToXfer * PACKET_BYTES, USBBulkTransfer::DMA_TIMEOUT);
        xfers.xferStopPos = NextSlot(xfers.xferStopPos);
        xfers.xferInQueue++;
        xfers.pktsInQueue -= pktsToXfer;
    }
    for (const CommandQueue::Link& link : xfers.cmdList) {
        iface.BeginCommandXfer(xfers.cmdStopPos, link.cmdMemory);
        xfers.cmdState[static_cast<std::size_t>(xfers.cmdStopPos)] = link.num8kPkts;
        xfers.cmdStopPos = NextSlot(xfers.cmdStopPos);
    }
    xfers.cmdList.clear();
}

// Finishes the oldest read and the commands that it completes, and only then parses: when a sweep is reported as done,
// no slot of it is in use any more.
void EngineIQSweepList::Collect() {
    const DMAXferStatus status = iface.FinishDataXfer(xfers.xferStartPos);
    xfers.xferStartPos = NextSlot(xfers.xferStartPos);
    xfers.xferInQueue--;

    int pkts = status.xferLenRequested / PACKET_BYTES;
    while (pkts > 0) {
        int& owed = xfers.cmdState[static_cast<std::size_t>(xfers.cmdStartPos)];
        const int done = std::min(pkts, owed);
        owed -= done;
        pkts -= done;
        if (owed > 0) break;
        iface.FinishCommandXfer(xfers.cmdStartPos);
        xfers.cmdStartPos = NextSlot(xfers.cmdStartPos);
        xfers.cmdInQueue--;
    }
    ProcessData(status);
}

// Leaves nothing in flight, and the instrument idle with an empty stream, also amid a sweep. The data are dropped.
void EngineIQSweepList::FinishEverything() {
    const bool abandoned = CommandsWaiting() || !xfers.cmdList.empty() || xfers.pktsInQueue > 0;
    for (const CommandQueue::Link& link : xfers.cmdList) {
        xfers.cmdInQueue--;
        xfers.pktsInQueue -= link.num8kPkts;
    }
    for (; xfers.xferInQueue > 0; xfers.xferInQueue--) {
        iface.FinishDataXfer(xfers.xferStartPos);
        xfers.xferStartPos = NextSlot(xfers.xferStartPos);
    }
    for (; xfers.cmdInQueue > 0; xfers.cmdInQueue--) {
        iface.FinishCommandXfer(xfers.cmdStartPos);
        xfers.cmdStartPos = NextSlot(xfers.cmdStartPos);
    }

    // Behind a failed transfer the stream is aligned by the next open, but an instrument that lives is still to stop.
    if (!abandoned && iface.TransferStatus() == tqNoError) return;
    const DeviceInterface::LastWords lastWords(iface);
    const int unread = xfers.pktsInQueue;  // asked for by the commands that went out, less than a unit
    if (unread > 0) iface.BeginDataXfer(0, XFER_UNIT_BYTES, USBBulkTransfer::DMA_TIMEOUT);
    iface.FullCommandXfer(USB_CMD_SLOT, stopCommand.GetCommand(unread));
    if (unread > 0) iface.FinishDataXfer(0);
}

// Takes one transfer apart. It may end amid a stage, and begin or end a sweep anywhere. One that never began is only
// counted.
void EngineIQSweepList::ProcessData(const DMAXferStatus& xfer) {
    const uint8_t* data = xfer.begun ? xfer.p : nullptr;
    int pktsLeft = xfer.xferLenRequested / PACKET_BYTES;
    while (pktsLeft > 0) {
        if (activeSweepState == nullptr) {
            activeSweepState = &sweepStates[static_cast<std::size_t>(sweepPositionQueue.front())];
            sweepPositionQueue.pop_front();
            BeginStep(*activeSweepState);
        }
        SweepState& state = *activeSweepState;
        const int taken = state.part == Part::IQ ? TakeIQ(state, data, pktsLeft) : TakeAux(state, data, pktsLeft);
        if (data != nullptr) data += static_cast<std::ptrdiff_t>(taken) * PACKET_BYTES;
        pktsLeft -= taken;
    }
}

void EngineIQSweepList::BeginStep(SweepState& state) {
    const StepInfo& info = StepOf(state);
    tuner.Init(static_cast<double>(info.tuneFreq));
    state.userSamplesLeft = info.userSamples;
    state.stepPos = 0;
    state.loopPos = 0;
    state.part = info.loopSamples > 0 ? Part::IQ : Part::Aux;
}

// Delivers what the client wants of the packets of this loop and runs over the rest. The packets used up.
int EngineIQSweepList::TakeIQ(SweepState& state, const uint8_t* data, int pktsLeft) {
    const StepInfo& info = StepOf(state);
    const int64_t toAdvance = std::min(int64_t{pktsLeft} * SAMPLES_PER_PKT, info.loopSamples - state.stepPos);
    const int toCopy = static_cast<int>(std::min(toAdvance, state.userSamplesLeft));
    if (data != nullptr && state.iq != nullptr) Deliver(state, reinterpret_cast<const Ipp16sc*>(data), toCopy);
    state.iqPos += toCopy;
    state.userSamplesLeft -= toCopy;
    state.stepPos += toAdvance;
    if (state.stepPos == info.loopSamples) {
        state.stepPos = 0;
        state.part = Part::Aux;
    }
    return static_cast<int>(toAdvance / SAMPLES_PER_PKT);
}

void EngineIQSweepList::Deliver(SweepState& state, const Ipp16sc* samples, int count) {
    if (settings.dataType == tqDataType16sc) {
        tuner.Tune(samples, static_cast<Ipp16sc*>(state.iq) + state.iqPos, count);
        return;
    }
    Ipp32fc* const dst = static_cast<Ipp32fc*>(state.iq) + state.iqPos;
    tuner.Tune(samples, dst, count);
    if (!settings.fullScale && count > 0) {
        ippsMulC_32f_I(StepOf(state).rfCorrectionScalar, reinterpret_cast<float*>(dst), 2 * count);
    }
}

// Reads the first aux packet of a loop; the others only fill up the last transfer of the sweep.
int EngineIQSweepList::TakeAux(SweepState& state, const uint8_t* data, int pktsLeft) {
    const StepInfo& info = StepOf(state);
    if (state.stepPos == 0 && data != nullptr) ReadAux(state, data);
    const int toAdvance = static_cast<int>(std::min<int64_t>(pktsLeft, info.auxData - state.stepPos));
    state.stepPos += toAdvance;
    if (state.stepPos == info.auxData) EndLoop(state);
    return toAdvance;
}

void EngineIQSweepList::ReadAux(SweepState& state, const uint8_t* packet) {
    AuxData aux;
    std::memcpy(&aux, packet, sizeof(aux));
    device.UpdateAuxData(&aux);
    state.framingErr |= device.HasFramingIssues();
    state.adcOverflow |= device.readerStatus.ADCOverflow();
    state.dataLoss |= device.readerStatus.IQDataLoss();

    const StepInfo& info = StepOf(state);
    if (state.loopPos != info.loops - 1 || state.timestamps == nullptr) return;
    // The packet has the time of the sample behind the step. Nanoseconds since the epoch do not fit a double, and the
    // instrument's counters may be anything: the difference is an integer that wraps.
    const auto duration = static_cast<int64_t>(static_cast<double>(info.samples) * 2.0 * NS_PER_122M_CLK);
    const auto time = static_cast<uint64_t>(device.readerGPS.GetLockedIQTime()) - static_cast<uint64_t>(duration);
    state.timestamps[state.step] = static_cast<int64_t>(time);
}

void EngineIQSweepList::EndLoop(SweepState& state) {
    const StepInfo& info = StepOf(state);
    state.stepPos = 0;
    state.part = info.loopSamples > 0 ? Part::IQ : Part::Aux;
    if (++state.loopPos < info.loops) return;
    if (++state.step < static_cast<int>(sweepInfo.size())) {
        BeginStep(state);
        return;
    }
    activeSweepState = nullptr;
    state.complete = true;
    state.sweepDone.Notify();
}
