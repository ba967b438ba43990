#include "engine_sweep_narrow.h"

#include "aux_reader.h"
#include "device_interface.h"
#include "frequency_plan.h"
#include "tq_assert.h"
#include "tq_device.h"
#include "tq_lib.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr int PACKET_BYTES = SAMPLES_PER_PACKET * static_cast<int>(sizeof(Ipp16sc));
constexpr int PKTS_PER_UNIT = XFER_UNIT_BYTES / PACKET_BYTES;
constexpr int MAX_PKT_PER_XFER = USBBulkTransfer::MAX_XFER_SIZE / PACKET_BYTES;
constexpr int MAX_SAMPLES_PER_XFER = MAX_PKT_PER_XFER * SAMPLES_PER_PACKET;
constexpr int MAX_CMDS_IN_QUEUE = 4;    // command blocks in flight
constexpr int MAX_XFERS_IN_QUEUE = 10;  // reads in flight, until the last packets are requested
static_assert(PACKET_BYTES == sizeof(AuxData));

// Anti-alias filter ahead of the host's decimation.
constexpr int FILTER_TAPS = 2049;
constexpr int FILTER_DELAY = (FILTER_TAPS - 1) / 2;  // [samples] before decimation
constexpr double FILTER_CUTOFF = 0.45;               // as a fraction of the decimated rate

}  // namespace

EngineSweepNarrow::EngineSweepNarrow(TqDevice& owner, DeviceInterface& interface, TqSweepSettings sweepSettings,
                                     SweepSetup sweepSetup, TqCommand sweepCmds, PatchSetup patch)
    : device(owner),
      usb(interface),
      settings(sweepSettings),
      setup(std::move(sweepSetup)),
      patchInfo(patch),
      commands(std::move(sweepCmds)),
      decimation(GetNarrowSweepDecimation(settings.Span())) {
    TQ_ASSERT(commands.GetTotalXferCount() % PKTS_PER_UNIT == 0 && commands.GetTotalAuxCount() == 0);
    TQ_ASSERT(setup.narrowSweepOffset >= 0 && setup.narrowSweepOffset + settings.sweepSize <= setup.fftSize);
    auxCommand.StartNewCommand();
    auxCommand.AddFetchAux();

    CalculateDecimation(decimation, hardwareDecimation, softwareDecimation);
    if (softwareDecimation > 1) {
        std::vector<Ipp32fc> taps(FILTER_TAPS);
        DSP::GetLowpassFIRTaps_32fc(taps.data(), FILTER_TAPS, static_cast<float>(FILTER_CUTOFF / softwareDecimation),
                                    ippWinBlackman, ippTrue);
        downSampleFilter.SetTaps(taps.data(), FILTER_TAPS, softwareDecimation);
        filterDelay = FILTER_DELAY / softwareDecimation;
    }
    tuner.Init(-(settings.Center() - patchInfo.actualFreq) / (BASE_SR / hardwareDecimation), MAX_SAMPLES_PER_XFER,
               true);

    fromDevice.resize(MAX_SAMPLES_PER_XFER);
    preppedIQ.resize(int64_t{commands.GetTotalXferCount()} * SAMPLES_PER_PACKET / softwareDecimation);
    const int64_t hops = int64_t{setup.fftsPerStep - 1} * (setup.fftSize / 4);
    TQ_ASSERT(filterDelay + hops + setup.bestFFTSize <= preppedIQ.size());

    cmdList.reserve(MAX_CMDS_IN_QUEUE);
    processor = std::make_unique<SweepProcessor>(settings, setup);
    for (DSP::Vector<float>* row : {&priSweepMin, &priSweepMax}) {
        row->resize(setup.fftSize);
        ippsZero_32f(row->data(), setup.fftSize);
    }
}

TqStatus EngineSweepNarrow::GetSweep(float* userMin, float* userMax, int64_t* time) {
    AcquireData();
    ReadAux();

    // Over a lost link there is nothing to process. Output n of the filter belongs to input n - FILTER_DELAY: what
    // stands before the capture's start is left out.
    if (usb.TransferStatus() == tqNoError) {
        processor->ProcessInput(preppedIQ.data() + filterDelay, priSweepMin.data(), priSweepMax.data());
        AddGain(priSweepMin.data() + setup.narrowSweepOffset);
        AddGain(priSweepMax.data() + setup.narrowSweepOffset);
    }
    for (const auto& [row, user] : {std::pair{&priSweepMin, userMin}, std::pair{&priSweepMax, userMax}}) {
        if (user != nullptr) ippsCopy_32f(row->data() + setup.narrowSweepOffset, user, settings.sweepSize);
    }
    if (time != nullptr) *time = static_cast<int64_t>(device.readerGPS.GetLockedIQTime());
    return SweepStatus();
}

TqStatus EngineSweepNarrow::SweepStatus() const {
    const TqStatus transferStatus = usb.TransferStatus();
    if (transferStatus != tqNoError) return transferStatus;
    if (device.HasFramingIssues()) return tqFramingErr;
    if (device.readerStatus.IQDataLoss()) return tqUncalData;
    if (device.readerStatus.ADCOverflow()) return tqADCOverflow;
    if (device.readerStatus.TempWarning()) return tqTempDrift;
    return tqNoError;
}

// Keeps reads posted ahead of the commands that feed them, and retires both in order. All counts move by what was asked
// for, whatever came of a transfer, so that a capture always completes.
void EngineSweepNarrow::AcquireData() {
    int cmdsInQueue = 0;   // commands taken, not yet retired
    int pktsInQueue = 0;   // packets of taken commands that no read has asked for
    int xfersInQueue = 0;  // reads in flight
    int xferStartPos = 0, xferStopPos = 0, cmdStartPos = 0, cmdStopPos = 0;
    int cmdState[MAX_CMDS_IN_QUEUE] = {};  // packets still owed to the command of each slot

    preppedIx = 0;
    cmdQueue.AddToQueue(commands);
    while (cmdQueue.Size() > 0 || xfersInQueue > 0) {
        while (cmdQueue.Size() > 0 && cmdsInQueue < MAX_CMDS_IN_QUEUE && pktsInQueue < MAX_PKT_PER_XFER) {
            cmdList.push_back(cmdQueue.GetNextCommand());
            pktsInQueue += cmdList.back().num8kPkts;
            cmdsInQueue++;
        }
        const bool allTaken = cmdQueue.Size() == 0;

        while ((xfersInQueue < MAX_XFERS_IN_QUEUE && pktsInQueue >= MAX_PKT_PER_XFER) ||
               (allTaken && pktsInQueue > 0)) {
            const int pktsToXfer = std::min(pktsInQueue, MAX_PKT_PER_XFER) / PKTS_PER_UNIT * PKTS_PER_UNIT;
            TQ_ASSERT(pktsToXfer > 0);
            usb.BeginDataXfer(xferStartPos, pktsToXfer * PACKET_BYTES, USBBulkTransfer::DMA_TIMEOUT);
            xferStartPos = (xferStartPos + 1) % USB_XFER_SLOTS;
            xfersInQueue++;
            pktsInQueue -= pktsToXfer;
            for (const CommandQueue::Link& link : cmdList) {
                usb.BeginCommandXfer(cmdStartPos, link.cmdMemory);
                cmdState[cmdStartPos] = link.num8kPkts;
                cmdStartPos = (cmdStartPos + 1) % MAX_CMDS_IN_QUEUE;
            }
            cmdList.clear();
        }

        if (xfersInQueue < MAX_XFERS_IN_QUEUE && cmdsInQueue < MAX_CMDS_IN_QUEUE && !allTaken) continue;
        TQ_ASSERT(xfersInQueue > 0);
        const DMAXferStatus status = usb.FinishDataXfer(xferStopPos);
        xferStopPos = (xferStopPos + 1) % USB_XFER_SLOTS;
        xfersInQueue--;
        AddData(status);

        // One read may finish more than one command, or only a part of one.
        int xferred = status.xferLenRequested / PACKET_BYTES;
        while (xferred > 0) {
            const int done = std::min(xferred, cmdState[cmdStopPos]);
            cmdState[cmdStopPos] -= done;
            xferred -= done;
            if (cmdState[cmdStopPos] > 0) break;
            usb.FinishCommandXfer(cmdStopPos);
            cmdStopPos = (cmdStopPos + 1) % MAX_CMDS_IN_QUEUE;
            cmdsInQueue--;
        }
    }
    TQ_ASSERT(cmdsInQueue == 0 && preppedIx == preppedIQ.size());
}

// Appends the samples of one transfer to preppedIQ. While this works on one, the reads behind it are under way.
// One that never began is only counted.
void EngineSweepNarrow::AddData(const DMAXferStatus& xfer) {
    const int iqCount = xfer.xferLenRequested / static_cast<int>(sizeof(Ipp16sc));
    if (!xfer.begun) {
        preppedIx += iqCount / softwareDecimation;
        return;
    }
    DSP::Convert_16sc32fc(reinterpret_cast<const Ipp16sc*>(xfer.p), fromDevice.data(), iqCount);
    tuner.Tune(fromDevice.data(), fromDevice.data(), iqCount);

    // A transfer is a whole number of read units, of which softwareDecimation is a divisor.
    Ipp32fc* const dst = preppedIQ.data() + preppedIx;
    TQ_ASSERT(preppedIx + iqCount / softwareDecimation <= preppedIQ.size());
    if (softwareDecimation > 1) {
        preppedIx += downSampleFilter.Filter(fromDevice.data(), dst, iqCount);
    } else {
        ippsCopy_32fc(fromDevice.data(), dst, iqCount);
        preppedIx += iqCount;
    }
}

void EngineSweepNarrow::ReadAux() {
    if (!usb.SendCommands(auxCommand)) return;  // lost: nothing would feed the read
    const DMAXferStatus status = usb.FullDataXfer(0, XFER_UNIT_BYTES, USBBulkTransfer::DMA_TIMEOUT);
    AuxData aux;
    std::memcpy(&aux, status.p, sizeof(aux));
    device.UpdateAuxData(&aux);
}

// The gain of the front end, on the bins that belong to the sweep.
void EngineSweepNarrow::AddGain(float* bins) const {
    if (settings.scale == tqScaleLog) {
        ippsAddC_32f(bins, patchInfo.coarseCorrection, bins, settings.sweepSize);
    } else if (settings.scale == tqScaleLin) {
        const auto correction = static_cast<float>(std::pow(10.0, patchInfo.coarseCorrection * 0.05));
        ippsMulC_32f(bins, correction, bins, settings.sweepSize);
    }
}
