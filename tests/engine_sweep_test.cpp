// EngineSweep on a scripted device: every packet differs from all others, so that a sample, row or bin in the wrong
// place shows as a plain inequality. Whole instruments are the matter of sweep_test.
#include "engine_sweep.h"

#include "scripted_stream.h"

#include <algorithm>

namespace {

// One of the work threads waits for the other's lock, and this sanitizer puts its signals off until it has it.
#if defined(__SANITIZE_THREAD__)
constexpr bool HOLDS_NO_LOCKED_OUT_THREAD = true;
#else
constexpr bool HOLDS_NO_LOCKED_OUT_THREAD = false;
#endif

struct Plan {
    TqSweepSettings settings;
    SweepSetup setup;
    TqCommand cmds;
};

Plan MakePlan(int numSteps, int pktPerStep, TqScale scale = tqScaleLog) {
    Plan plan;
    plan.settings.scale = scale;
    plan.settings.detector = tqDetectorMinMax;
    plan.settings.window = tqWindowHamming;
    SweepSetup& setup = plan.setup;
    setup.fftSize = 64;
    setup.bestFFTSize = 50;
    setup.zeroPadAmount = 14;
    setup.numSteps = numSteps;
    setup.pktPerStep = pktPerStep;
    setup.iirFc = 0.5;
    setup.fftsPerStep = (pktPerStep * SAMPLES_PER_PACKET - setup.bestFFTSize) / (setup.fftSize / 4) + 1;
    setup.firstStepOffset = 3;

    for (int step = 0; step < numSteps; step++) {
        PatchSetup patch = {};
        patch.coarseCorrection = 7.0f - 0.25f * static_cast<float>(step % 50);
        patch.validOffset = 4 + step % 3;
        patch.validCount = 40 + step % 11;
        patch.flip = step % 4 == 0;
        setup.stepInfo.push_back(patch);

        plan.cmds.StartNewCommand();
        plan.cmds.AddStartIQ(1);
        int left = pktPerStep;
        for (; left > MAX_FETCH_IQ_PKTS; left -= MAX_FETCH_IQ_PKTS) {
            plan.cmds.AddFetchIQ(MAX_FETCH_IQ_PKTS, 0);
            plan.cmds.StartNewCommand();
        }
        plan.cmds.AddFetchIQ(static_cast<uint32_t>(left), 0);
        plan.cmds.AddStopIQ();
    }
    plan.cmds.AddFetchAux(4 - setup.Num8kPkts() % 4);
    plan.settings.sweepSize = static_cast<int>(CompactedBins(setup)) - setup.firstStepOffset;
    return plan;
}

struct Sweep {
    std::vector<float> min;
    std::vector<float> max;
    bool operator==(const Sweep&) const = default;
};

// What the sweep that begins with I/Q packet `firstPacket` has to read.
Sweep Expected(const Plan& plan, int64_t firstPacket) {
    const SweepSetup& setup = plan.setup;
    SweepProcessor processor(plan.settings, setup);
    std::vector<Ipp16sc> wire(static_cast<std::size_t>(setup.pktPerStep) * SAMPLES_PER_PACKET);
    std::vector<Ipp32fc> samples(wire.size());
    std::vector<float> rowMin(64), rowMax(64);
    Sweep joined;
    for (const PatchSetup& patch : setup.stepInfo) {
        for (std::size_t at = 0; at < wire.size(); at += SAMPLES_PER_PACKET) {
            NoisePacket(firstPacket++, &wire[at]);
        }
        DSP::Convert_16sc32fc(wire.data(), samples.data(), static_cast<int>(wire.size()));
        processor.ProcessInput(samples.data(), rowMin.data(), rowMax.data());
        for (std::vector<float>* row : {&rowMin, &rowMax}) {
            if (patch.flip) std::reverse(row->begin(), row->end());
            std::vector<float>& all = row == &rowMin ? joined.min : joined.max;
            for (int k = 0; k < patch.validCount; k++) {
                const float value = (*row)[static_cast<std::size_t>(patch.validOffset + k)];
                const auto factor = static_cast<float>(std::pow(10.0, patch.coarseCorrection / 20.0));
                all.push_back(plan.settings.scale == tqScaleLog   ? value + patch.coarseCorrection
                              : plan.settings.scale == tqScaleLin ? value * factor
                                                                  : value);
            }
        }
    }
    for (std::vector<float>* all : {&joined.min, &joined.max}) {
        all->erase(all->begin(), all->begin() + setup.firstStepOffset);
        all->resize(static_cast<std::size_t>(plan.settings.sweepSize), all->back());
    }
    return joined;
}

class EngineSweepTest : public ScriptedFixture {
protected:
    void SetUp() override {
        ScriptedFixture::SetUp();
        scripted->render = NoisePacket;
    }

    std::unique_ptr<EngineSweep> MakeEngine(const Plan& plan) {
        return std::make_unique<EngineSweep>(device.get(), *device->usb, plan.settings, plan.setup, plan.cmds);
    }

    // A whole sweep into poisoned buffers.
    Sweep TakeSweep(EngineSweep& engine, const Plan& plan) {
        const auto size = static_cast<std::size_t>(plan.settings.sweepSize);
        Sweep sweep = {std::vector<float>(size + 1, POISON), std::vector<float>(size + 1, POISON)};
        EXPECT_EQ(engine.StartSweep(), tqNoError);
        EXPECT_EQ(engine.FinishSweep(sweep.min.data(), sweep.max.data(), nullptr), tqNoError);
        for (std::vector<float>* row : {&sweep.min, &sweep.max}) {
            EXPECT_EQ(row->back(), POISON) << "written past the last bin";
            row->pop_back();
        }
        return sweep;
    }
};

TEST_F(EngineSweepTest, EverySampleReachesItsBin) {
    struct Case {
        int numSteps;
        int pktPerStep;
        TqScale scale;
        int binsBeyond = 0;  // these repeat the last one
    };
    const Case cases[] = {
        {1, 1, tqScaleLog},           // the only step is also the last
        {3, 1, tqScaleFullScale, 1},  // one read for everything
        {7, 3, tqScaleLin},           // commands that end amid a read
        {31, 4, tqScaleLog},          // as many commands as slots, but one
        {40, 1, tqScaleLin},          // more commands than slots before a read is full
        {5, 300, tqScaleLog},         // two blocks for a step, many reads for a step
        {129, 5, tqScaleFullScale},   // reads that straddle steps
    };
    int64_t packet = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.numSteps) + " steps of " + std::to_string(c.pktPerStep));
        Plan plan = MakePlan(c.numSteps, c.pktPerStep, c.scale);
        plan.settings.sweepSize += c.binsBeyond;
        const std::unique_ptr<EngineSweep> engine = MakeEngine(plan);
        for (int sweep = 0; sweep < 3; sweep++) {
            ASSERT_EQ(TakeSweep(*engine, plan), Expected(plan, packet));
            packet += plan.setup.Num8kPkts();
        }
    }
}

// 2441 steps of one packet fill the ring: the 245th sweep of ten wraps in the middle of a read.
TEST_F(EngineSweepTest, RingWrapsAmidARead) {
    const Plan plan = MakePlan(10, 1);
    ASSERT_EQ(SweepRingSamples(plan.setup), 2441 * SAMPLES_PER_PACKET);
    const std::unique_ptr<EngineSweep> engine = MakeEngine(plan);
    for (int sweep = 0; sweep < 500; sweep++) {
        ASSERT_EQ(TakeSweep(*engine, plan), Expected(plan, 10 * sweep)) << "sweep " << sweep;
    }
}

// A ring of three steps, a sweep of five, and transforms, more at each try, until they take longer than the data: the
// writer has to wait for the oldest step. All samples of a step have the step's own level, and a stretch that is
// overwritten while it is read shows in the minimum or maximum.
TEST_F(EngineSweepTest, FullRingWaitsForTheOldestStep) {
    constexpr int FFT_SIZE = 65536;
    constexpr int STEPS = 5;
    constexpr int PKT_PER_STEP = 8300;
    Plan plan = MakePlan(STEPS, PKT_PER_STEP, tqScaleFullScale);
    plan.setup.fftSize = plan.setup.bestFFTSize = FFT_SIZE;
    plan.setup.zeroPadAmount = 0;
    plan.setup.iirFc = 1.0;
    plan.setup.firstStepOffset = 0;
    for (PatchSetup& patch : plan.setup.stepInfo) {
        patch.validOffset = FFT_SIZE / 2;  // zero frequency alone
        patch.validCount = 1;
        patch.flip = false;
    }
    plan.settings.sweepSize = STEPS;
    ASSERT_EQ(SweepRingSamples(plan.setup), int64_t{3} * PKT_PER_STEP * SAMPLES_PER_PACKET);
    scripted->render = [](int64_t packet, Ipp16sc* dst) {
        const auto level = static_cast<int16_t>(WIRE_OFFSET + 32768 / (2 << packet / PKT_PER_STEP % STEPS));
        std::fill_n(dst, PACKET_SAMPLES, Ipp16sc{level, WIRE_OFFSET});
    };

    TqStatus status = tqNoError;
    for (const int transforms : {60, 250, 1000}) {
        plan.setup.fftsPerStep = transforms;
        const std::unique_ptr<EngineSweep> engine = MakeEngine(plan);
        std::vector<float> min(STEPS), max(STEPS);
        ASSERT_EQ(engine->StartSweep(), tqNoError);
        status = engine->FinishSweep(min.data(), max.data(), nullptr);
        for (std::size_t step = 0; step < STEPS; step++) {
            const double level = -6.0206 * static_cast<double>(step + 1);
            EXPECT_NEAR(min[step], level, 1e-3) << step;
            EXPECT_NEAR(max[step], level, 1e-3) << step;
        }
        if (status != tqNoError) break;
    }
    EXPECT_EQ(status, tqCPULimited);
}

// The first sweep, longer than the ring, finds the work threads asleep until it waits for them; the second one gives
// them the time that they take.
TEST_F(EngineSweepTest, ASlowSweepLeavesNoMarkOnAFastOne) {
    if (HOLDS_NO_LOCKED_OUT_THREAD) GTEST_SKIP();
    constexpr int PKT_PER_STEP = 8300;
    Plan plan = MakePlan(4, PKT_PER_STEP);
    plan.setup.fftsPerStep = 1;
    std::unique_ptr<EngineSweep> engine;
    const std::vector<pid_t> threads = ThreadsOf([&] { engine = MakeEngine(plan); });
    ASSERT_EQ(threads.size(), 3u) << "two work threads, then that of the USB";
    scripted->render = [&](int64_t packet, Ipp16sc* dst) {
        std::memset(dst, 0, PACKET_BYTES);
        if (packet < plan.setup.Num8kPkts() || packet % 1000 != 0) return;
        for (const std::size_t thread : {2, 0, 1}) WaitUntilBlocked(threads[thread]);
    };
    {
        const HeldThreads held({threads[0], threads[1]});
        sim::ClearSleeps();
        EXPECT_EQ(engine->StartSweep(), tqNoError);
        WaitUntil([] { return sim::Sleeps().count > 0; });
    }
    EXPECT_EQ(engine->FinishSweep(nullptr, nullptr, nullptr), tqCPULimited);
    EXPECT_EQ(engine->StartSweep(), tqNoError);
    EXPECT_EQ(engine->FinishSweep(nullptr, nullptr, nullptr), tqNoError);
}

TEST_F(EngineSweepTest, APlanWithoutAValidBinAsserts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the bus has threads
    Plan plan = MakePlan(9, 2);
    for (PatchSetup& patch : plan.setup.stepInfo) patch.validCount = 0;
    EXPECT_DEATH(MakeEngine(plan), "CompactedBins");
}

TEST_F(EngineSweepTest, StartAndFinishKeepTheirOrder) {
    const Plan plan = MakePlan(9, 2);
    const std::unique_ptr<EngineSweep> engine = MakeEngine(plan);
    float untouched = 42.0f;
    int64_t time = 43;
    EXPECT_EQ(engine->FinishSweep(&untouched, &untouched, &time), tqNoError);
    EXPECT_EQ(untouched, 42.0f);
    EXPECT_EQ(time, 43);

    EXPECT_EQ(engine->StartSweep(), tqNoError);
    EXPECT_EQ(engine->StartSweep(), tqSweepAlreadyActiveErr);
    EXPECT_EQ(engine->FinishSweep(nullptr, nullptr, nullptr), tqNoError);

    // The refused start asked for nothing: this is the second sweep.
    EXPECT_EQ(TakeSweep(*engine, plan), Expected(plan, plan.setup.Num8kPkts()));
}

TEST_F(EngineSweepTest, DestructionAmidASweepLeavesTheStreamAligned) {
    const Plan plan = MakePlan(50, 3);
    for (int sweep = 0; sweep < 5; sweep++) {
        const std::unique_ptr<EngineSweep> abandoned = MakeEngine(plan);
        EXPECT_EQ(abandoned->StartSweep(), tqNoError);
    }
    const std::unique_ptr<EngineSweep> engine = MakeEngine(plan);
    EXPECT_EQ(TakeSweep(*engine, plan), Expected(plan, 5 * plan.setup.Num8kPkts()));
}

TEST_F(EngineSweepTest, FirstAuxPacketGivesStatusAndTime) {
    scripted->AuxInTurn(SweepStatusCases());
    const Plan plan = MakePlan(4, 1);  // four aux packets
    const std::unique_ptr<EngineSweep> engine = MakeEngine(plan);
    ExpectStatusAndTimeOfSweeps([&](int64_t* time) {
        EXPECT_EQ(engine->StartSweep(), tqNoError);
        return engine->FinishSweep(nullptr, nullptr, time);
    });
}

}  // namespace
