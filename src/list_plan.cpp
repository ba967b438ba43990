#include "list_plan.h"

#include "stream_plan.h"
#include "sweep_plan.h"
#include "tq_assert.h"
#include "tq_lib.h"

#include <cmath>
#include <limits>

namespace {

constexpr int READ_UNIT_PKTS = 4;  // the data endpoint is read in units of four packets
constexpr int FETCH_WORDS = 5;
constexpr int LAST_WORDS = FETCH_WORDS + 1;  // the step's aux fetch and stop, kept in one block
constexpr int MAX_TUNE_WORDS = 25;           // of Tq720Config::Configure
constexpr int START_WORDS = 5;

// Single-packet fetches in the first block of a step, at least, and so in every other.
constexpr int64_t FETCHES_PER_BLOCK = (CMD_SIZE_WORDS - MAX_TUNE_WORDS - FIR_COEFF_WORDS - START_WORDS) / FETCH_WORDS;

constexpr int64_t MAX_BLOCKS = std::numeric_limits<int>::max() / CMD_SIZE_WORDS;  // words are counted in an int

int64_t PacketsOf(const TqIQSweepListStep& step) {
    return (int64_t{step.samples} + SAMPLES_PER_PACKET - 1) / SAMPLES_PER_PACKET;
}

// Blocks of one pass, or a few more.
int64_t BlocksNeeded(const TqIQSweepListSettings& settings) {
    int64_t blocks = 1;  // of the last aux packets
    for (const TqIQSweepListStep& step : settings.steps) blocks += PacketsOf(step) / FETCHES_PER_BLOCK + 2;
    return blocks;
}

// Whether the blocks can be carried twice, as the plan's and as the engine's.
bool FitsMachine(int64_t blocks) {
    constexpr int64_t BLOCK_BYTES = 2 * CMD_SIZE_BYTES;
    return blocks <= MAX_BLOCKS && FitsInMemory(static_cast<double>(blocks * BLOCK_BYTES));
}

void MakeRoom(TqCommand& command, int words) {
    if (command.WordsLeftInCommand() < words) command.StartNewCommand();
}

}  // namespace

TqStatus PlanIQSweepList(const TqIQSweepListSettings& settings, TqCorrections& corrections, Tq720Config& deviceConfig,
                         IQSweepListPlan& plan) {
    if (settings.steps.empty()) return tqInvalidConfigurationErr;
    const int64_t blocks = BlocksNeeded(settings);
    if (!FitsMachine(blocks)) return tqAllocationErr;

    plan = IQSweepListPlan();
    TqCommand& command = plan.sweepCommand;
    command.cmds.reserve(static_cast<std::size_t>(blocks * CMD_SIZE_WORDS));
    plan.stepInfo.reserve(settings.steps.size());

    int64_t totalPktsRequested = 0;
    for (const TqIQSweepListStep& iqStep : settings.steps) {
        TQ_ASSERT(iqStep.samples >= 0);
        const StreamTune tune =
            TuneStream(iqStep.freq, GetBestRFAtten({iqStep.atten, iqStep.ref}), corrections, deviceConfig);

        IQSweepListStepInfo info;
        info.pktRequests = static_cast<int>(PacketsOf(iqStep));
        info.samples = int64_t{info.pktRequests} * SAMPLES_PER_PACKET;
        info.userSamples = iqStep.samples;
        info.auxData = 1;
        info.rfCorrectionScalar = std::sqrt(std::pow(10.0f, tune.patch.coarseCorrection / 10.0f));
        info.tuneFreq = static_cast<float>(-(iqStep.freq - tune.patch.actualFreq) / BASE_SR);
        info.loopSamples = info.samples;
        plan.stepInfo.push_back(info);

        command.StartNewCommand();
        AddTuneAndStart(command, tune, 1);
        for (int pkt = 0; pkt < info.pktRequests; pkt++) {
            MakeRoom(command, FETCH_WORDS);
            command.AddFetchIQ(1, 0);
        }
        MakeRoom(command, LAST_WORDS);
        command.AddFetchAux(1);
        command.AddStopIQ();
        totalPktsRequested += info.pktRequests + 1;
    }

    for (; totalPktsRequested % READ_UNIT_PKTS != 0; totalPktsRequested++) {
        MakeRoom(command, FETCH_WORDS);
        command.AddFetchAux(1);
        plan.stepInfo.back().auxData++;
    }
    return tqNoError;
}
