// The I/Q sweep list engine and its plan on a scripted device: every sample carries its own running number, so that one
// that is lost, repeated or misplaced shows as a plain inequality. Whole instruments are the matter of
// iq_sweep_list_test.
#include "engine_iq_sweep_list.h"

#include "frequency_plan.h"
#include "scripted_stream.h"

#include <algorithm>
#include <complex>
#include <numbers>

namespace {

constexpr int POSITIONS = 16;
constexpr Ipp16sc UNTOUCHED = {-7777, -7777};

// A list whose steps need no tune, unless a shift [Hz] is given.
TqIQSweepListSettings List(const std::vector<int>& samples, TqDataType dataType = tqDataType16sc, double shift = 0.0) {
    TqIQSweepListSettings settings;
    settings.dataType = dataType;
    for (const int count : samples) {
        const double freq = 1e9 + 1e8 * static_cast<double>(settings.steps.size() % 100);
        settings.steps.push_back({GetLOConfigStreaming(freq).actualFreq + shift, -1, -20.0, count});
    }
    return settings;
}

IQSweepListPlan Plan(const TqIQSweepListSettings& settings) {
    TqCorrections corrections;
    Tq720Config config;
    IQSweepListPlan plan;
    EXPECT_EQ(PlanIQSweepList(settings, corrections, config, plan), tqNoError);
    return plan;
}

// Numbers of the samples that a pass beginning with sample `first` has to deliver, and of the one behind it.
std::vector<int64_t> Wanted(const std::vector<int>& samples, int64_t& first) {
    std::vector<int64_t> numbers;
    for (const int count : samples) {
        for (int i = 0; i < count; i++) numbers.push_back(first + i);
        first += int64_t{(count + PACKET_SAMPLES - 1) / PACKET_SAMPLES} * PACKET_SAMPLES;
    }
    return numbers;
}

// Index of the first sample that is not the wanted one; -1 if all are right and nothing stands behind them.
int64_t FirstWrong(const std::vector<Ipp16sc>& got, const std::vector<int64_t>& wanted) {
    for (std::size_t i = 0; i < got.size(); i++) {
        const Ipp16sc right = i < wanted.size() ? Numbered(wanted[i]) : UNTOUCHED;
        if (got[i].re != right.re || got[i].im != right.im) return static_cast<int64_t>(i);
    }
    return -1;
}

class EngineIQSweepListTest : public ScriptedFixture {
protected:
    std::unique_ptr<EngineIQSweepList> MakeEngine(const TqIQSweepListSettings& settings) {
        const IQSweepListPlan plan = Plan(settings);
        return std::make_unique<EngineIQSweepList>(*device, *device->usb, settings, plan.stepInfo, plan.sweepCommand);
    }
};

TEST_F(EngineIQSweepListTest, EverySampleStandsWhereItBelongsWithSixteenSweepsInFlight) {
    const std::vector<int> cases[] = {
        {1},                            // 2047 samples dropped, two more aux packets
        {2048 * 3},                     // nothing dropped, nothing to fill up
        {0},                            // no I/Q at all
        {0, 1, 0, 5001, 0},             // among others, and at the end
        {1, 1, 1},                      // not a multiple of four
        std::vector<int>(100, 2047),    // more blocks than slots, of two packets each
        {2048 * 83 - 1, 2048 * 84, 3},  // a first block just filled, and one packet more
        {300001, 7, 2049},              // reads within a step, and across steps and sweeps
    };
    for (const std::vector<int>& samples : cases) {
        SCOPED_TRACE("list of " + std::to_string(samples.size()) + ", first " + std::to_string(samples[0]));
        int64_t next = scripted->SamplesSent();
        const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(List(samples));
        for (int round = 0; round < 2; round++) {
            // Positions downwards: the order is that of the calls.
            std::vector<std::vector<Ipp16sc>> buffers(POSITIONS);
            std::vector<std::vector<int64_t>> wanted(POSITIONS);
            for (std::size_t pos = POSITIONS; pos-- > 0;) {
                wanted[pos] = Wanted(samples, next);
                buffers[pos].assign(wanted[pos].size() + 1, UNTOUCHED);
                ASSERT_EQ(engine->StartSweep(static_cast<int>(pos), buffers[pos].data(), nullptr), tqNoError);
            }
            for (std::size_t pos = 0; pos < POSITIONS; pos++) {
                ASSERT_EQ(engine->FinishSweep(static_cast<int>(pos)), tqNoError);
                ASSERT_EQ(FirstWrong(buffers[pos], wanted[pos]), -1) << "position " << pos;
            }
        }
        EXPECT_EQ(scripted->PacketsUnread(), 0U);
    }
}

// Lists whose last block does not fit into the read in the making, and all others.
TEST_F(EngineIQSweepListTest, EveryLengthOfAListComesToItsEnd) {
    scripted->render = [](int64_t, Ipp16sc*) {};                                // only the packets count
    const std::pair<std::size_t, int> cases[] = {{2, 260}, {3, 260}, {5, 80}};  // steps, and packets of each at most
    for (const auto& [steps, most] : cases) {
        for (int packets = 1; packets <= most; packets++) {
            const std::string name = std::to_string(steps) + " steps of " + std::to_string(packets) + " packets";
            Watchdog::Watch(name, 30);
            const std::vector<int> samples(steps, packets * PACKET_SAMPLES);
            const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(List(samples));
            for (const int inFlight : {1, 3}) {
                for (int pos = 0; pos < inFlight; pos++)
                    ASSERT_EQ(engine->StartSweep(pos, nullptr, nullptr), tqNoError);
                for (int pos = 0; pos < inFlight; pos++) ASSERT_EQ(engine->FinishSweep(pos), tqNoError) << name;
            }
            ASSERT_EQ(scripted->PacketsUnread(), 0U) << name;
        }
    }
}

TEST_F(EngineIQSweepListTest, TuneStartsAfreshWithEveryStepAndScaleFollowsTheSettings) {
    constexpr double SHIFTS[] = {-123456.7, 311000.0, -1e-7};  // the last is a whole turn when rounded
    const std::vector<int> samples = {5000, 2047};
    for (const double shift : SHIFTS) {
        for (const TqDataType type : {tqDataType32fc, tqDataType16sc}) {
            for (const bool fullScale : {false, true}) {
                SCOPED_TRACE(std::to_string(shift) + " Hz, type " + std::to_string(type));
                TqIQSweepListSettings settings = List(samples, type, shift);
                settings.fullScale = fullScale;
                int64_t next = scripted->SamplesSent();
                const std::vector<int64_t> numbers = Wanted(samples, next);
                const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(settings);
                float factors[2] = {};
                ASSERT_EQ(engine->GetCorrections(factors), tqNoError);
                std::vector<Ipp32fc> wide(numbers.size());
                std::vector<Ipp16sc> narrow(numbers.size());
                const bool isWide = type == tqDataType32fc;
                void* const dst = isWide ? static_cast<void*>(wide.data()) : narrow.data();
                ASSERT_EQ(engine->GetSweep(dst, nullptr), tqNoError);

                double worst = 0.0;
                for (std::size_t i = 0; i < numbers.size(); i++) {
                    const bool second = i >= 5000;
                    const double turns = -shift / 61.44e6 * static_cast<double>(second ? i - 5000 : i);
                    const Ipp16sc raw = Numbered(numbers[i]);
                    std::complex<double> right = std::complex<double>(raw.re, raw.im) / 32768.0 *
                                                 std::polar(1.0, 2.0 * std::numbers::pi * turns);
                    std::complex<double> got(narrow[i].re / 32768.0, narrow[i].im / 32768.0);
                    if (isWide) got = {wide[i].re, wide[i].im};
                    if (isWide && !fullScale) got /= static_cast<double>(factors[second ? 1 : 0]);
                    worst = std::max(worst, std::abs(got - right));
                }
                // The tone is good to 1e-4, 16 bits round to half a step on each axis.
                EXPECT_LT(worst, isWide ? 1e-4 : 1e-4 + 0.71 / 32768.0);
            }
        }
    }
}

TEST_F(EngineIQSweepListTest, PositionsAreTakenOnceAndFreedByFinish) {
    const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(List({3}));
    std::vector<Ipp16sc> first(3), second(3, UNTOUCHED);
    int64_t next = 0;
    for (const int pos : {-1, POSITIONS, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_EQ(engine->StartSweep(pos, first.data(), nullptr), tqInvalidParameterErr);
        EXPECT_EQ(engine->FinishSweep(pos), tqInvalidParameterErr);
    }
    EXPECT_EQ(engine->FinishSweep(5), tqSweepAlreadyActiveErr);
    EXPECT_EQ(engine->StartSweep(5, first.data(), nullptr), tqNoError);
    EXPECT_EQ(engine->StartSweep(5, second.data(), nullptr), tqSweepAlreadyActiveErr);
    EXPECT_EQ(engine->GetSweep(second.data(), nullptr), tqSweepAlreadyActiveErr);
    EXPECT_EQ(engine->FinishSweep(5), tqNoError);
    EXPECT_EQ(engine->FinishSweep(5), tqSweepAlreadyActiveErr);
    EXPECT_FALSE(engine->AnySweepActive());
    EXPECT_EQ(FirstWrong(first, Wanted({3}, next)), -1);
    EXPECT_EQ(FirstWrong(second, {}), -1) << "a refused call wrote";
    EXPECT_EQ(engine->GetSweep(second.data(), nullptr), tqNoError);
    EXPECT_EQ(FirstWrong(second, Wanted({3}, next)), -1) << "a refused call asked for data";
}

TEST_F(EngineIQSweepListTest, StampsAreTakenBackByTheStepToTheNanosecond) {
    const std::vector<int> samples = {1, 0, 100000, 2049};
    constexpr int64_t SAMPLE_NS_NUM = 15625, SAMPLE_NS_DEN = 960;  // 1e9 / 61.44e6
    const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(List(samples));
    std::vector<int64_t> stamps(samples.size() + 1, -1);
    ASSERT_EQ(engine->GetSweep(nullptr, stamps.data()), tqNoError);
    // All packets carry the same counter, so that all steps end at one time.
    const int64_t end = device->readerGPS.GetLockedIQTime();
    for (std::size_t i = 0; i < samples.size(); i++) {
        const int64_t length = int64_t{(samples[i] + PACKET_SAMPLES - 1) / PACKET_SAMPLES} * PACKET_SAMPLES;
        EXPECT_EQ(end - stamps[i], length * SAMPLE_NS_NUM / SAMPLE_NS_DEN) << i;
    }
    EXPECT_EQ(stamps.back(), -1);
}

TEST_F(EngineIQSweepListTest, FirstAuxPacketOfAStepGivesTheStatusOfItsSweep) {
    constexpr AuxStatus GOOD = {}, BAD = {BAD_MAGIC, 0}, FULL = {GOOD_MAGIC, ADC_OVERFLOW},
                        LOSS = {GOOD_MAGIC, DATA_LOSS};
    const std::vector<StatusCase> cases = {
        {"overflow at the first step", {FULL, GOOD, GOOD, GOOD}, tqADCOverflow},
        {"none is left over", {GOOD, GOOD, GOOD, GOOD}, tqNoError},
        {"loss outranks overflow", {FULL, LOSS, GOOD, GOOD}, tqUncalData},
        {"a foreign packet amid the list", {BAD, LOSS, GOOD, GOOD}, tqFramingErr},
        {"others only fill up", {GOOD, GOOD, BAD, LOSS}, tqNoError},
    };
    scripted->AuxInTurn(cases);
    const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(List({5000, 2000}));  // 3 + 1 + 1 + 3 packets
    for (const StatusCase& c : cases) EXPECT_EQ(engine->GetSweep(nullptr, nullptr), c.expected) << c.name;
}

// Ended at whatever point the thread has reached: the next engine's first samples are its own.
TEST_F(EngineIQSweepListTest, DestructionAmidSweepsLeavesAnIdleInstrumentAndAnEmptyStream) {
    const std::vector<std::vector<int>> lists = {{2000000}, std::vector<int>(300, 1), {1}, {300000, 1, 700001}};
    std::vector<Ipp16sc> buffer(2100000);
    for (int round = 0; round < 20; round++) {
        const std::vector<int>& samples = lists[static_cast<std::size_t>(round) % lists.size()];
        {
            const std::unique_ptr<EngineIQSweepList> abandoned = MakeEngine(List(samples));
            for (int pos = 0; pos < POSITIONS; pos++) abandoned->StartSweep(pos, buffer.data(), nullptr);
            for (int pos = 0; pos < round % 3; pos++) EXPECT_EQ(abandoned->FinishSweep(pos), tqNoError);
        }
        ASSERT_EQ(device->usb->TransferStatus(), tqNoError);
        ASSERT_FALSE(scripted->Acquiring()) << round;
        ASSERT_EQ(scripted->PacketsUnread(), 0U) << round;

        int64_t next = scripted->SamplesSent();
        std::vector<Ipp16sc> own(3001, UNTOUCHED);
        ASSERT_EQ(MakeEngine(List({3000}))->GetSweep(own.data(), nullptr), tqNoError);
        ASSERT_EQ(FirstWrong(own, Wanted({3000}, next)), -1) << round;
    }
}

TEST_F(EngineIQSweepListTest, ACallerBlockedInFinishIsSentHomeByTheEnd) {
    scripted->silent = true;
    const std::unique_ptr<EngineIQSweepList> engine = MakeEngine(List({2000000}));
    std::vector<Ipp16sc> buffer(2000000);
    ASSERT_EQ(engine->StartSweep(7, buffer.data(), nullptr), tqNoError);
    std::atomic<pid_t> blocked = 0, ending = 0;
    TqStatus status = tqNoError;
    std::thread caller([&] {
        blocked = gettid();
        status = engine->FinishSweep(7);
    });
    WaitUntilBlocked(blocked);
    std::thread ender([&] {
        ending = gettid();
        engine->End();
    });
    WaitUntilBlocked(ending);
    scripted->silent = false;  // what is in flight still comes
    ender.join();
    caller.join();
    EXPECT_EQ(status, tqInvalidConfigurationErr);
}

// --- The plan ---

std::vector<std::pair<int, int>> PacketsOfBlocks(const TqCommand& command) {
    std::vector<std::pair<int, int>> packets;
    for (int i = 0; i < command.GetCommandCount(); i++) {
        packets.emplace_back(command.GetXferCount(i), command.GetAuxPacketCount(i));
    }
    return packets;
}

TEST(IQSweepListPlan, BlocksAndAuxPacketsFollowTheSteps) {
    struct Case {
        std::vector<int> samples;
        std::vector<std::pair<int, int>> blocks;  // I/Q and aux packets of each
        int lastAux;
    };
    const Case cases[] = {
        {{0}, {{0, 4}}, 4},
        {{2048 * 3}, {{3, 1}}, 1},
        {{1, 2048, 2049}, {{1, 1}, {1, 1}, {2, 2}}, 2},
        {{200 * 2048}, {{83, 0}, {102, 0}, {15, 4}}, 4},
        {{83 * 2048}, {{83, 0}, {0, 1}}, 1},  // the register words leave no room for aux fetch and stop
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.samples.back());
        const IQSweepListPlan plan = Plan(List(c.samples));
        EXPECT_EQ(PacketsOfBlocks(plan.sweepCommand), c.blocks);
        ASSERT_EQ(plan.stepInfo.size(), c.samples.size());
        EXPECT_EQ(plan.stepInfo.back().auxData, c.lastAux);
        for (std::size_t i = 0; i < c.samples.size(); i++) EXPECT_EQ(plan.stepInfo[i].userSamples, c.samples[i]);
    }
}

TEST(IQSweepListPlan, EachStepHasItsOwnAttenuator) {
    TqIQSweepListSettings settings = List({1, 1, 1});
    settings.steps[0].atten = 4;
    settings.steps[1].ref = -4.0;  // automatic
    settings.steps[2].atten = 0;
    settings.steps[2].ref = 20.0;  // overruled
    const int attens[] = {20, 20, 0};
    const IQSweepListPlan plan = Plan(settings);
    for (int i = 0; i < 3; i++) {
        const LOConfigStreaming tune = GetLOConfigStreaming(settings.steps[static_cast<std::size_t>(i)].freq);
        std::array<uint32_t, TQ720_CONFIG_MAX_WORDS> words;
        Tq720Config config;
        const int count = config.Configure(words.data(), tune.LOFreq, tune.RFFreq,
                                           TqCorrections().GetRoughGain(tune.LOStep), attens[i], tune.tuneTicks);
        EXPECT_EQ(std::memcmp(words.data(), plan.sweepCommand.GetCommand(i), static_cast<std::size_t>(count) * 4), 0)
            << i;
    }
}

TEST(IQSweepListPlan, SizesBeyond32BitsAreCarriedOrRefused) {
    constexpr int MOST = std::numeric_limits<int>::max();
    TqCorrections corrections;
    Tq720Config config;
    IQSweepListPlan plan;
    ASSERT_EQ(PlanIQSweepList(List({MOST}), corrections, config, plan), tqNoError);
    EXPECT_EQ(plan.stepInfo[0].samples, int64_t{1} << 31);
    EXPECT_EQ(plan.stepInfo[0].loopSamples, int64_t{1} << 31);
    EXPECT_EQ(plan.sweepCommand.GetTotalXferCount(), 1 << 20);
    EXPECT_EQ(PlanIQSweepList(List(std::vector<int>(1000, MOST)), corrections, config, plan), tqAllocationErr);
    EXPECT_EQ(PlanIQSweepList(List({}), corrections, config, plan), tqInvalidConfigurationErr);
}

}  // namespace
