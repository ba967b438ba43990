#include "engine_sweep.h"

#include "aux_reader.h"
#include "dsp.h"
#include "tq_assert.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace {

constexpr int PACKET_BYTES = SAMPLES_PER_PACKET * static_cast<int>(sizeof(Ipp16sc));
constexpr int PKTS_PER_UNIT = XFER_UNIT_BYTES / PACKET_BYTES;
constexpr int MAX_PKT_PER_XFER = USBBulkTransfer::MAX_XFER_SIZE / PACKET_BYTES;
constexpr int MAX_XFERS_IN_QUEUE = 10;
constexpr int MAX_CMDS_IN_QUEUE = USB_XFER_SLOTS;
static_assert(PACKET_BYTES == sizeof(AuxData));

constexpr int64_t NOT_IN_WORK = std::numeric_limits<int64_t>::max();

int NextSlot(int slot) { return (slot + 1) % USB_XFER_SLOTS; }

}  // namespace

EngineSweep::EngineSweep(TqDevice* owner, DeviceInterface& usb, const TqSweepSettings& sweepSettings,
                         const SweepSetup& setup, const TqCommand& sweepCmds)
    : device(owner),
      iface(usb),
      settings(sweepSettings),
      sweepSetup(setup),
      cmds(sweepCmds),
      stepSize(static_cast<int64_t>(setup.pktPerStep) * SAMPLES_PER_PACKET),
      bufferSize(SweepRingSamples(setup)),
      buffer(bufferSize) {
    TQ_ASSERT(stepSize > 0 && bufferSize % stepSize == 0);
    TQ_ASSERT(bufferSize >= MAX_PKT_PER_XFER * SAMPLES_PER_PACKET);
    TQ_ASSERT((cmds.GetTotalXferCount() + cmds.GetTotalAuxCount()) % PKTS_PER_UNIT == 0);

    TQ_ASSERT(CompactedBins(setup) > 0);

    cmdList.reserve(MAX_CMDS_IN_QUEUE);
    const int64_t rowsSize = static_cast<int64_t>(setup.numSteps) * setup.fftSize;
    for (DSP::Vector<float>* rows : {&sweepState.minData, &sweepState.maxData}) {
        rows->resize(rowsSize);
        std::fill_n(rows->data(), rowsSize, 0.0f);
    }
    for (int i = 0; i < SWEEP_THREADS; i++) {
        inWork[i] = NOT_IN_WORK;
        proc[i] = std::make_unique<SweepProcessor>(settings, setup);
        min[i].resize(setup.fftSize);
        max[i].resize(setup.fftSize);
    }

    try {
        for (int i = 0; i < SWEEP_THREADS; i++) workThreadHandles[i] = std::thread(&EngineSweep::WorkThread, this, i);
        usbThreadHandle = std::thread(&EngineSweep::USBThread, this);
    } catch (...) {
        StopThreads();
        throw;
    }
    SetThreadPriorityTimeCritical(usbThreadHandle);
}

EngineSweep::~EngineSweep() {
    if (sweepState.active) WaitForSweep();
    StopThreads();
}

void EngineSweep::StopThreads() {
    running = false;
    commandsAddedToQueue.Notify();
    if (usbThreadHandle.joinable()) usbThreadHandle.join();

    // One post is enough: the thread that waits for data holds criticalSection, and the other one follows it in.
    rawDataReady.Notify();
    for (std::thread& workThread : workThreadHandles) {
        if (workThread.joinable()) workThread.join();
    }
}

TqStatus EngineSweep::StartSweep() {
    if (sweepState.active) return tqSweepAlreadyActiveErr;

    sweepState.stepsLeft = sweepSetup.numSteps;
    sweepState.currentPatch = 0;
    sweepState.sweepFinished.Reset();
    sweepState.sweepTransfersFinished.Reset();
    sweepState.active = true;
    sweepState.dataLoss = false;
    sweepState.adcOverflow = false;
    sweepState.cpuLimited = false;

    // The account stands before any of its packets can arrive.
    pktCounters.push_back({cmds.GetTotalXferCount(), cmds.GetTotalAuxCount(), false});
    commandQueue.AddToQueue(cmds);
    commandsAddedToQueue.Notify();
    return tqNoError;
}

void EngineSweep::WaitForSweep() {
    sweepState.sweepFinished.Wait();
    sweepState.sweepTransfersFinished.Wait();
}

TqStatus EngineSweep::FinishSweep(float* sweepMin, float* sweepMax, int64_t* nsSinceEpoch) {
    if (!sweepState.active) return tqNoError;

    WaitForSweep();
    if (sweepMin) CopySweep(sweepState.minData, sweepMin);
    if (sweepMax) CopySweep(sweepState.maxData, sweepMax);
    if (nsSinceEpoch) *nsSinceEpoch = sweepState.timeStamp;
    sweepState.active = false;
    return SweepStatus();
}

TqStatus EngineSweep::SweepStatus() const {
    const TqStatus transferStatus = iface.TransferStatus();
    if (transferStatus != tqNoError) return transferStatus;
    if (device->HasFramingIssues()) return tqFramingErr;
    if (sweepState.dataLoss) return tqUncalData;
    if (sweepState.adcOverflow) return tqADCOverflow;
    if (sweepState.cpuLimited) return tqCPULimited;
    if (device->readerStatus.TempWarning()) return tqTempDrift;
    return tqNoError;
}

// The stop may lie just below the edge of the last step: the sweep can then ask for one bin more than there is.
void EngineSweep::CopySweep(const DSP::Vector<float>& rows, float* dst) const {
    const int64_t bins = CompactedBins(sweepSetup);
    const int64_t first = std::clamp<int64_t>(sweepSetup.firstStepOffset, 0, bins - 1);
    const int count = static_cast<int>(std::min<int64_t>(settings.sweepSize, bins - first));
    ippsCopy_32f(rows.data() + first, dst, count);
    std::fill(dst + count, dst + settings.sweepSize, rows.data()[bins - 1]);
}

// Keeps reads posted ahead of the commands that feed them, and retires both in order. A command is retired once the
// reads have passed the last of its packets. All counts move by what was asked for, whatever came of a transfer, so
// that a sweep always completes.
void EngineSweep::USBThread() {
    int cmdInQueue = 0;   // commands taken, not yet retired
    int pktsInQueue = 0;  // packets of taken commands that no read has asked for
    int xferInQueue = 0;  // reads in flight
    int xferStartPos = 0, xferStopPos = 0, cmdStartPos = 0, cmdStopPos = 0;
    int cmdState[USB_XFER_SLOTS] = {};  // packets still owed to the command of each slot

    while (running) {
        if (commandQueue.Size() == 0 && xferInQueue == 0 && pktsInQueue == 0) {
            commandsAddedToQueue.Wait();
            xferStartPos = xferStopPos = cmdStartPos = cmdStopPos = 0;
            continue;
        }

        while (pktsInQueue < MAX_PKT_PER_XFER && cmdInQueue < MAX_CMDS_IN_QUEUE && commandQueue.Size() > 0) {
            cmdList.push_back(commandQueue.GetNextCommand());
            pktsInQueue += cmdList.back().num8kPkts;
            cmdInQueue++;
        }
        const bool allTaken = commandQueue.Size() == 0;

        const bool worthwhile = cmdInQueue == MAX_CMDS_IN_QUEUE || pktsInQueue >= MAX_PKT_PER_XFER || allTaken;
        const int pktsToXfer = std::min(pktsInQueue, MAX_PKT_PER_XFER) / PKTS_PER_UNIT * PKTS_PER_UNIT;
        if (worthwhile && pktsToXfer > 0) {
            iface.BeginDataXfer(xferStartPos, pktsToXfer * PACKET_BYTES, USBBulkTransfer::DMA_TIMEOUT);
            xferStartPos = NextSlot(xferStartPos);
            xferInQueue++;
            pktsInQueue -= pktsToXfer;
            for (const CommandQueue::Link& link : cmdList) {
                iface.BeginCommandXfer(cmdStartPos, link.cmdMemory);
                cmdState[cmdStartPos] = link.num8kPkts;
                cmdStartPos = NextSlot(cmdStartPos);
            }
            cmdList.clear();
        }

        const bool nothingToStart = cmdInQueue == MAX_CMDS_IN_QUEUE || (allTaken && pktsInQueue == 0);
        if (xferInQueue < MAX_XFERS_IN_QUEUE && !(xferInQueue > 0 && nothingToStart)) continue;

        const DMAXferStatus status = iface.FinishDataXfer(xferStopPos);
        xferStopPos = NextSlot(xferStopPos);
        xferInQueue--;
        AddData(status);

        // One read may finish more than one command, or only a part of one.
        int xferred = status.xferLenRequested / PACKET_BYTES;
        while (xferred > 0) {
            const int done = std::min(xferred, cmdState[cmdStopPos]);
            cmdState[cmdStopPos] -= done;
            xferred -= done;
            if (cmdState[cmdStopPos] > 0) break;
            iface.FinishCommandXfer(cmdStopPos);
            cmdStopPos = NextSlot(cmdStopPos);
            cmdInQueue--;
        }

        if (commandQueue.Size() == 0 && xferInQueue == 0 && pktsInQueue == 0) {
            TQ_ASSERT(cmdInQueue == 0);
            sweepState.sweepTransfersFinished.Notify();
        }
    }
}

// Takes one transfer apart. Of a sweep's aux packets only the first is read, the others only fill up the transfer. One
// that never began is only counted: behind it none begins, so that nothing is stored in the ring any more.
void EngineSweep::AddData(const DMAXferStatus& xfer) {
    const uint8_t* p = xfer.p;
    int pktsLeft = xfer.xferLenRequested / PACKET_BYTES;
    while (pktsLeft > 0) {
        SweepXferInfo& info = pktCounters.front();
        int count = 0;
        if (info.pktCount > 0) {
            count = std::min(info.pktCount, pktsLeft);
            info.pktCount -= count;
            if (xfer.begun) {
                StoreSamples(p, count);
            } else {
                bufferWrite += static_cast<int64_t>(count) * SAMPLES_PER_PACKET;
            }
        } else {
            count = std::min(info.auxCount, pktsLeft);
            info.auxCount -= count;
            if (!info.processedAux && xfer.begun) ReadAux(p);
            info.processedAux = true;
            if (info.auxCount == 0) pktCounters.pop_front();
        }
        p += static_cast<int64_t>(count) * PACKET_BYTES;
        pktsLeft -= count;
    }
    rawDataReady.Notify();
}

// Samples up to the oldest step still being read: steps may finish out of order. bufferRead is loaded first, because a
// claim sets inWork before it moves bufferRead: the step cannot slip through between the two.
int64_t EngineSweep::FreeSpace() const {
    int64_t oldest = bufferRead;
    for (const std::atomic<int64_t>& position : inWork) oldest = std::min(oldest, position.load());
    return bufferSize - (bufferWrite - oldest);
}

void EngineSweep::StoreSamples(const uint8_t* p, int pktCount) {
    const int64_t toWrite = static_cast<int64_t>(pktCount) * SAMPLES_PER_PACKET;
    while (FreeSpace() < toWrite) {
        // No data are dropped, the instrument waits. The work threads have been told of all that stands in the ring.
        sweepState.cpuLimited = true;
        SystemSleep(1);
    }

    const auto* samples = reinterpret_cast<const Ipp16sc*>(p);
    const int64_t index = bufferWrite % bufferSize;
    const int64_t untilEnd = std::min(toWrite, bufferSize - index);
    DSP::Convert_16sc32fc(samples, &buffer[index], static_cast<int>(untilEnd));
    if (untilEnd < toWrite) {
        DSP::Convert_16sc32fc(samples + untilEnd, buffer.data(), static_cast<int>(toWrite - untilEnd));
    }
    bufferWrite += toWrite;
}

void EngineSweep::ReadAux(const uint8_t* p) {
    AuxData aux;
    std::memcpy(&aux, p, sizeof(aux));
    device->UpdateAuxData(&aux);
    sweepState.timeStamp = static_cast<int64_t>(device->readerGPS.GetLockedIQTime());
    sweepState.dataLoss = device->readerStatus.IQDataLoss();
    sweepState.adcOverflow = device->readerStatus.ADCOverflow();
}

void EngineSweep::WorkThread(int threadNum) {
    while (const std::optional<ClaimedStep> step = ClaimStep(threadNum)) {
        // Over a lost link steps are passed over, since their samples may never have come.
        if (iface.TransferStatus() == tqNoError) ProcessStep(threadNum, *step);
        inWork[threadNum] = NOT_IN_WORK;
        if (sweepState.stepsLeft.fetch_sub(1) != 1) continue;

        // Whichever step was the last to finish, all rows stand now.
        CompactRows(sweepState.minData);
        CompactRows(sweepState.maxData);
        sweepState.sweepFinished.Notify();
    }
}

// Blocks until a whole step stands in the ring. Nothing when the engine stops.
std::optional<EngineSweep::ClaimedStep> EngineSweep::ClaimStep(int threadNum) {
    const Lock held(criticalSection);
    while (running && bufferWrite - bufferRead < stepSize) rawDataReady.Wait();
    if (!running) return std::nullopt;

    const int64_t position = bufferRead;
    inWork[threadNum] = position;
    bufferRead = position + stepSize;
    return ClaimedStep{sweepState.currentPatch++, position};
}

void EngineSweep::ProcessStep(int threadNum, const ClaimedStep& step) {
    DSP::Vector<float>& rowMin = min[threadNum];
    DSP::Vector<float>& rowMax = max[threadNum];
    proc[threadNum]->ProcessInput(&buffer[step.position % bufferSize], rowMin.data(), rowMax.data());
    inWork[threadNum] = NOT_IN_WORK;  // the ring may have the samples back
    StoreRow(rowMin, sweepState.minData, step.index);
    StoreRow(rowMax, sweepState.maxData, step.index);
}

// Applies the gain of the step, and puts the row into its slot of the sweep.
void EngineSweep::StoreRow(DSP::Vector<float>& row, DSP::Vector<float>& rows, int step) const {
    const PatchSetup& patch = sweepSetup.stepInfo[static_cast<std::size_t>(step)];
    const int fftSize = sweepSetup.fftSize;
    if (settings.scale == tqScaleLog) {
        ippsAddC_32f(row.data(), patch.coarseCorrection, row.data(), fftSize);
    } else if (settings.scale == tqScaleLin) {
        const auto correction = static_cast<float>(std::pow(10.0, patch.coarseCorrection * 0.05));
        ippsMulC_32f(row.data(), correction, row.data(), fftSize);
    }

    float* const slot = rows.data() + static_cast<int64_t>(step) * fftSize;
    if (patch.flip) {
        ippsFlip_32f(row.data(), slot, fftSize);
    } else {
        ippsCopy_32f(row.data(), slot, fftSize);
    }
}

// Joins the valid parts of all rows at the front. They only move down, in step order.
void EngineSweep::CompactRows(DSP::Vector<float>& rows) const {
    int64_t maxIndex = 0;
    for (int i = 0; i < sweepSetup.numSteps; i++) {
        const PatchSetup& patch = sweepSetup.stepInfo[static_cast<std::size_t>(i)];
        const int64_t valid = static_cast<int64_t>(i) * sweepSetup.fftSize + patch.validOffset;
        ippsMove_32f(rows.data() + valid, rows.data() + maxIndex, patch.validCount);
        maxIndex += patch.validCount;
    }
}
