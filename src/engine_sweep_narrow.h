// EngineSweepNarrow acquires narrow sweeps: one capture on one LO, shifted so that the centre of the span stands at
// zero frequency, filtered, decimated, and transformed by one SweepProcessor. TqDevice owns it while a sweep of a
// narrow span is configured, and calls GetSweep from the client's thread, on which everything runs: there is no thread
// inside.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "dsp.h"
#include "dsp_vector.h"
#include "ipps.h"
#include "sweep_plan.h"
#include "sweep_processor.h"
#include "tq_command.h"
#include "tq_settings.h"

class DeviceInterface;
struct DMAXferStatus;
class TqDevice;

class EngineSweepNarrow {
public:
    // Takes the plan and allocates everything that sweeps will need. Sends nothing.
    //   sweepSettings  as the planner left them; the span is below NARROW_SWEEP_MAX_SPAN
    //   sweepCmds      the blocks of one capture; their packets are sweepSetup.pktPerStep, a multiple of four, and all
    //                  blocks but the last fetch MAX_FETCH_IQ_PKTS
    //   patch          the one tuning
    // Throws std::bad_alloc.
    EngineSweepNarrow(TqDevice& owner, DeviceInterface& interface, TqSweepSettings sweepSettings, SweepSetup sweepSetup,
                      TqCommand sweepCmds, PatchSetup patch);
    EngineSweepNarrow(const EngineSweepNarrow&) = delete;
    EngineSweepNarrow& operator=(const EngineSweepNarrow&) = delete;

    // Takes one sweep. Blocks until it stands complete and nothing of it is left on the USB, then delivers it, also
    // with a failure status. Over a lost link it completes at once, by count: the rows stay as they were.
    //   userMin, userMax  out, sweepSize bins each, [dBm], [mV], or relative to full scale, by the settings' scale
    //   time              out, of the sweep, [ns since the epoch]
    // Null pointers are skipped. Returns the first that applies of: the transfer status, tqFramingErr, tqUncalData,
    // tqADCOverflow, tqTempDrift; tqNoError otherwise. One caller at a time.
    TqStatus GetSweep(float* userMin, float* userMax, int64_t* time);

private:
    void AcquireData();
    void AddData(const DMAXferStatus& xfer);
    void ReadAux();
    void AddGain(float* bins) const;
    TqStatus SweepStatus() const;

    TqDevice& device;
    DeviceInterface& usb;
    const TqSweepSettings settings;
    const SweepSetup setup;
    const PatchSetup patchInfo;
    TqCommand commands;
    TqCommand auxCommand;                     // one block that fetches a read unit of aux packets
    CommandQueue cmdQueue;                    // blocks of the capture in hand that are still to be sent
    std::vector<CommandQueue::Link> cmdList;  // blocks taken, not yet submitted; never grows

    int decimation = 1;          // power of two: hardwareDecimation * softwareDecimation
    int softwareDecimation = 1;  // done here
    int hardwareDecimation = 1;  // done in the FPGA, at most 4
    int64_t filterDelay = 0;     // [samples] at the decimated rate

    // Tone and delay line run on from sweep to sweep.
    DSP::IQFreqTuner_32fc tuner;
    DSP::FIRDown_32fc downSampleFilter;
    std::unique_ptr<SweepProcessor> processor;

    DSP::Vector<Ipp32fc> fromDevice;  // the samples of one full transfer
    DSP::Vector<Ipp32fc> preppedIQ;   // the capture at the decimated rate
    int64_t preppedIx = 0;            // samples of it that stand
    DSP::Vector<float> priSweepMin;   // rows of fftSize bins
    DSP::Vector<float> priSweepMax;
};
