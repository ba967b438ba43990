// From a client's list of I/Q steps to a plan: one tune, correction and packet count for each step, and the command
// blocks of one pass over the list. TqDevice::ConfigureModeIQSweepList runs it and hands the plan to EngineIQSweepList.
// Sends nothing; no state.
#pragma once

#include "tq720_config.h"
#include "tq_command.h"
#include "tq_corrections.h"
#include "tq_settings.h"

#include <cstdint>
#include <vector>

// One step of the list. In the stream it is `loops` times its I/Q samples and, behind them, its aux packets.
struct IQSweepListStepInfo {
    int pktRequests = 0;      // I/Q packets to fetch, 0 for a step of 0 samples
    int64_t samples = 0;      // samples that come: pktRequests whole packets
    int64_t userSamples = 0;  // samples that the client asked for, at most `samples`
    int auxData = 0;          // aux packets behind the I/Q: 1; at the last step as many more as fill a read unit
    float rfCorrectionScalar = 0.0f;  // amplitude factor from digital full scale to the square root of milliwatts
    float tuneFreq = 0.0f;            // shift that puts the step's frequency at the centre, [cycles per sample]
    int loops = 1;                    // passes of I/Q and aux
    int64_t loopSamples = 0;          // samples of one pass
};

struct IQSweepListPlan {
    std::vector<IQSweepListStepInfo> stepInfo;  // one per step, in list order
    TqCommand sweepCommand;                     // the blocks of one pass; their packets are a multiple of four
};

// Plans a list. Each step has its own RF settings; the rate is the full one throughout, so the caller sets the aux
// readers to hardware decimation 1.
//   settings  steps as the setters store them
// tqInvalidConfigurationErr for an empty list. tqAllocationErr, before anything large is allocated, when the blocks of
// a pass exceed the machine's memory or what a TqCommand can count; `plan` is then not usable. May throw
// std::bad_alloc.
TqStatus PlanIQSweepList(const TqIQSweepListSettings& settings, TqCorrections& corrections, Tq720Config& deviceConfig,
                         IQSweepListPlan& plan);
