// EngineIQ on a scripted device that hands out its transfers one by one, as the test allows: what has come and what is
// still to come is known at every moment. Whole instruments are the matter of iq_test.
#include "engine_iq.h"

#include "scripted_stream.h"
#include "stream_plan.h"

#include <signal.h>
#include <sys/mman.h>

#include <complex>
#include <functional>

namespace {

constexpr double TICK_NS = 1e9 / 122880000.0;

// White noise from the running number alone.
Ipp16sc Noise(int64_t n) {
    uint64_t z = static_cast<uint64_t>(n) * 0x9E3779B97F4A7C15 + 12345;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return {static_cast<Ipp16s>((z >> 8 & 0x7FFF) - 0x4000), static_cast<Ipp16s>((z >> 40 & 0x7FFF) - 0x4000)};
}

struct Got {
    std::vector<Ipp32fc> samples;
    std::vector<double> triggers;
    int64_t time = 0;
    int loss = -1;
    int remaining = -1;
    TqStatus status = tqNoError;
};

class EngineIQTest : public ScriptedFixture {
protected:
    void SetUp() override {
        ScriptedFixture::SetUp();
        scripted->allowed = 0;
        settings.centerFreq = GetLOConfigStreaming(1e9).actualFreq;  // nothing is left to the tuner
        settings.softwareFiltering = false;
    }
    void TearDown() override {
        End();
        ScriptedFixture::TearDown();
    }

    void Start(int decimation, float correctionDb = 0.0f) {
        settings.decimation = decimation;
        IQStreamPlan plan = PlanIQStreaming(settings, {}, false, device->corrections, device->deviceConfig);
        plan.patch.coarseCorrection = correctionDb;
        device->readerTrigger.Reset();
        device->readerTrigger.Configure(plan.hwDecimation);
        device->readerGPS.Configure(plan.hwDecimation);
        hwDecimation = plan.hwDecimation;
        perXfer = (64 / hwDecimation - 1) * PACKET_SAMPLES * hwDecimation / decimation;
        scripted->ticksPerAux = static_cast<uint64_t>(perXfer) * static_cast<uint64_t>(decimation) * 2;
        engine = std::make_unique<EngineIQ>(device.get(), *device->usb, settings, plan.patch, plan.initCommands,
                                            plan.fetchCommands);
    }

    // The acquisition thread needs data to come to its end.
    void End() {
        scripted->trickle = true;
        engine.reset();
    }

    Got Get(int count, int triggerRoom = 0, TqBool purge = tqFalse) {
        return GetFrom(*engine, count, triggerRoom, purge);
    }
    static Got GetFrom(EngineIQ& stream, int count, int triggerRoom, TqBool purge) {
        Got got;
        got.samples.assign(static_cast<std::size_t>(count), {POISON, POISON});
        got.triggers.resize(static_cast<std::size_t>(triggerRoom));
        got.status = stream.GetIQ(got.samples.data(), count, triggerRoom > 0 ? got.triggers.data() : nullptr,
                                  triggerRoom, &got.time, purge, &got.loss, &got.remaining);
        return got;
    }

    TqIQSettings settings;
    int hwDecimation = 1;
    int perXfer = 0;  // samples that a transfer becomes
    std::unique_ptr<EngineIQ> engine;
};

struct Stream {
    int decimation;
    int queueSize;
};

class EngineIQStreams : public EngineIQTest, public ::testing::WithParamInterface<Stream> {};

// Reads of uneven lengths, up to several transfers each, twice around the store.
TEST_P(EngineIQStreams, EverySampleComesOnceAndInOrder) {
    settings.queueSize = GetParam().queueSize;
    Start(GetParam().decimation);
    std::mt19937 random(7);
    int64_t expected = 0;
    while (expected < int64_t{45} * perXfer) {
        const int count = 1 + static_cast<int>(random() % static_cast<unsigned>(3 * perXfer));
        scripted->allowed = static_cast<int>((expected + count) / perXfer) + 2;
        const Got got = Get(count);
        ASSERT_EQ(got.status, tqNoError);
        ASSERT_EQ(got.loss, 0);
        for (const Ipp32fc& x : got.samples) ASSERT_EQ(NumberOf(x), expected++);
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, EngineIQStreams,
                         ::testing::Values(Stream{1, 2}, Stream{1, 16}, Stream{2, 5}, Stream{4, 16}));

struct Filtered {
    int decimation;
    bool softwareFiltering;
    std::vector<int> taps;  // of each stage
    std::vector<int> factors;
    std::vector<double> cutoffs;  // of the stage's own rate
    int filterDelay;              // [samples] at the base rate
};

class EngineIQFilters : public EngineIQTest, public ::testing::WithParamInterface<Filtered> {
protected:
    // Output k of the first `stages` stages, by plain sums in double.
    std::complex<double> Reference(std::size_t stages, int64_t k) const {
        if (k < 0) return 0.0;
        if (stages == 0) {
            const Ipp16sc x = Noise(origin + k);
            return {x.re / 32768.0, x.im / 32768.0};
        }
        std::complex<double> sum = 0.0;
        const std::vector<double>& taps = stageTaps[stages - 1];
        for (std::size_t j = 0; j < taps.size(); j++) {
            sum += taps[j] * Reference(stages - 1, k * GetParam().factors[stages - 1] - static_cast<int64_t>(j));
        }
        return sum;
    }
    void DesignStages() {
        const Filtered& param = GetParam();
        for (std::size_t stage = 0; stage < param.taps.size(); stage++) {
            stageTaps.emplace_back(static_cast<std::size_t>(param.taps[stage]));
            DSP::GetLowpassFIRTaps_64f(stageTaps.back().data(), param.taps[stage],
                                       static_cast<float>(param.cutoffs[stage]), ippWinBlackman, ippTrue);
        }
    }
    // Sample k of those since `origin` against the reference. Floats round by 6e-8 of samples below 0.75, here in sums
    // of at most two times 2049 taps whose magnitudes add up to less than 4.
    void ExpectSample(Ipp32fc sample, int64_t k) const {
        const std::complex<double> expected = Reference(GetParam().taps.size(), k);
        EXPECT_NEAR(sample.re, expected.real(), 1e-6) << k;
        EXPECT_NEAR(sample.im, expected.imag(), 1e-6) << k;
    }

    std::vector<std::vector<double>> stageTaps;
    int64_t origin = 0;  // sample of the wire with which the filters start, all that lies ahead being 0
};

TEST_P(EngineIQFilters, SamplesTriggersAndTimesPassTheStages) {
    const Filtered& param = GetParam();
    settings.softwareFiltering = param.softwareFiltering;
    settings.bandwidth = 1e9;  // as wide as the rate allows
    scripted->render = PerSample(Noise);
    constexpr int TRIGGER_XFER = 3, TRANSFERS = 5, TRIGGER_TICKS = 1234;
    scripted->onAux = [&](int transfer, AuxData& aux) {
        // Latched long before, and then a new one while transfer TRIGGER_XFER was taken.
        const uint64_t ticks = transfer < TRIGGER_XFER ? 77
                                                       : scripted->TickOf(TRIGGER_XFER) + TRIGGER_TICKS +
                                                             static_cast<uint64_t>(IQCounterDelay(hwDecimation));
        ScriptedStream::SetCounter(aux.counterAtTriggerLow, aux.counterAtTriggerHigh, ticks);
    };
    Start(param.decimation);
    scripted->allowed = TRANSFERS;
    const Got got = Get(TRANSFERS * perXfer, 3);
    ASSERT_EQ(got.status, tqNoError);
    ASSERT_EQ(got.remaining, 0);

    DesignStages();
    // Around the start, the seams of the transfers and the end.
    const std::size_t last = got.samples.size() - 1, seam = static_cast<std::size_t>(perXfer);
    for (const std::size_t k : {std::size_t{0}, std::size_t{1}, seam - 1, seam, 2 * seam + 3, last}) {
        ExpectSample(got.samples[k], static_cast<int64_t>(k));
    }

    // The trigger lies where the filters have moved its sample, and so does the time.
    const double delay = param.filterDelay;
    const double position = TRIGGER_XFER * perXfer + (TRIGGER_TICKS / 2.0 + delay) / param.decimation;
    const double inRead = position < TRANSFERS * perXfer ? position : g_triggerSentinelValue.load();
    EXPECT_NEAR(got.triggers[0], inRead, 1e-9);
    const double elapsed = (TRANSFERS * static_cast<double>(scripted->ticksPerAux) + 2.0 * delay) * TICK_NS;
    EXPECT_NEAR(static_cast<double>(device->readerGPS.GetLockedIQTime() - got.time), elapsed, 3.0);

    // The next block continues the time.
    scripted->allowed = TRANSFERS + 1;
    const Got next = Get(perXfer);
    EXPECT_NEAR(static_cast<double>(next.time - got.time), TRANSFERS * perXfer * 1e9 / settings.actualSampleRate, 3.0);
}

// The worker stands still until the store has dropped five transfers. What is in it stays good, and what comes behind
// the gap starts as a stream of its own, once around the store and on.
TEST_P(EngineIQFilters, AFullStoreLosesInOnePieceAndTheFiltersStartAnew) {
    constexpr int STORED = EngineIQ::RAW_STEPS_TOTAL, SENT = STORED + 5;
    settings.softwareFiltering = GetParam().softwareFiltering;
    settings.bandwidth = 1e9;
    scripted->render = PerSample(Noise);
    scripted->onAux = [](int transfer, AuxData& aux) { aux.fpgaVersion = static_cast<uint32_t>(transfer + 1); };
    const std::vector<pid_t> threads = ThreadsOf([&] { Start(GetParam().decimation); });
    ASSERT_EQ(threads.size(), 2u) << "worker and acquisition";
    {
        const HeldThreads held({threads[0]});
        scripted->allowed = SENT;
        WaitUntil([&] { return device->GetVersionInfo().fpgaVersion == SENT; });
        WaitUntilBlocked(threads[1]);
    }
    DesignStages();
    const Got kept = Get(STORED * perXfer);
    EXPECT_EQ(kept.loss, 0);
    ExpectSample(kept.samples.back(), STORED * int64_t{perXfer} - 1);

    origin = SENT * int64_t{64 / hwDecimation - 1} * PACKET_SAMPLES;
    for (int transfer = 0; transfer <= STORED; transfer++) {
        scripted->allowed = SENT + transfer + 1;
        const Got got = Get(perXfer);
        ASSERT_EQ(got.status, tqNoError);
        ASSERT_EQ(got.loss, transfer == 0 ? 1 : 0) << transfer << " behind the gap";
        ASSERT_EQ(got.remaining, 0);
        if (transfer > 1 && transfer < STORED) continue;
        for (const int k : {0, 1, perXfer - 1}) {
            ExpectSample(got.samples[static_cast<std::size_t>(k)], transfer * int64_t{perXfer} + k);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Decimations, EngineIQFilters,
    ::testing::Values(Filtered{1, false, {}, {}, {}, 0},                                 //
                      Filtered{1, true, {129}, {1}, {41.5e6 / 61.44e6 / 2}, 65},         //
                      Filtered{4, true, {129}, {1}, {12.5e6 / 15.36e6 / 2}, 260},        //
                      Filtered{8, false, {257}, {2}, {6.25e6 / 15.36e6 / 2}, 512},       //
                      Filtered{64, true, {2049}, {16}, {781250.0 / 15.36e6 / 2}, 4096},  //
                      Filtered{128, true, {2049, 257}, {16, 2}, {0.025, 390625.0 / 960e3 / 2}, 12288},
                      Filtered{8192, true, {2049, 2049}, {16, 128}, {0.025, 6103.515625 / 960e3 / 2}, 69632}),
    [](const auto& row) {
        return "By" + std::to_string(row.param.decimation) + (row.param.softwareFiltering ? "Filtered" : "");
    });

// The client falls behind: of every ten transfers, which the store always holds, it takes a few samples.
TEST_F(EngineIQTest, OverflowLosesInOnePieceAndSaysSo) {
    Start(4);
    int64_t expected = 0;
    Got got;
    for (int sent = 10; got.loss != 1; sent += 10) {
        ASSERT_LT(sent, 400) << "the ring holds half a second";
        scripted->allowed = sent;
        do {
            expected++;
            got = Get(1);
            ASSERT_EQ(got.status, tqNoError);
        } while (got.loss == 0 && NumberOf(got.samples[0]) == expected - 1 &&
                 expected + got.remaining < int64_t{sent} * perXfer);
    }

    // The gap lies at the start of a transfer, just before or just after the report, and nothing else is missing.
    const Got next = Get(5000);
    EXPECT_EQ(next.status, tqNoError);
    EXPECT_EQ(next.loss, 0);
    const int64_t reported = NumberOf(got.samples[0]), first = NumberOf(next.samples[0]);
    if (reported == expected - 1) {
        EXPECT_GT(first, expected);
        EXPECT_EQ(first % perXfer, 0);
    } else {
        EXPECT_GT(reported, expected);
        EXPECT_EQ(reported % perXfer, 0);
        EXPECT_EQ(first, reported + 1);
    }
    for (std::size_t i = 0; i < next.samples.size(); i++) {
        ASSERT_EQ(NumberOf(next.samples[i]), first + static_cast<int64_t>(i));
    }
}

TEST_F(EngineIQTest, PurgeGivesFreshSamples) {
    Start(4);
    scripted->allowed = 3;
    EXPECT_EQ(Get(2 * perXfer + 1).remaining, perXfer - 1);
    scripted->trickle = true;
    const Got got = Get(1, 0, tqTrue);
    const int64_t n = NumberOf(got.samples[0]);
    EXPECT_GE(n, 3 * perXfer);
    EXPECT_EQ(n % perXfer, 0);
    EXPECT_EQ(got.loss, 0);
}

TEST_F(EngineIQTest, TypesAndSentinel) {
    const double before = g_triggerSentinelValue.exchange(-7.5);
    Start(4, 6.0206f);  // twice the amplitude
    EXPECT_NEAR(engine->GetIQScalar(), 2.0f, 1e-5f);
    scripted->allowed = 1;
    Got got = Get(1000, 2);
    g_triggerSentinelValue = before;
    EXPECT_EQ(got.triggers, (std::vector<double>{-7.5, -7.5}));
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(got.samples[static_cast<std::size_t>(i)].re, static_cast<float>(i) / 32768 * engine->GetIQScalar());
    }
    End();

    // 16-bit samples come as they are; the device of this engine has counted on.
    settings.dataType = tqDataType16sc;
    Start(4, 6.0206f);
    std::vector<Ipp16sc> samples(3001, Ipp16sc{-1, -1});
    EXPECT_EQ(engine->GetIQ(samples.data(), 3000, nullptr, 0, nullptr, tqFalse, nullptr, nullptr), tqNoError);
    EXPECT_EQ(samples.back().re, -1) << "written past the end";
    for (int i = 1; i < 3000; i++) {
        const auto& x = samples[static_cast<std::size_t>(i)];
        const auto& previous = samples[static_cast<std::size_t>(i - 1)];
        ASSERT_EQ(NumberOf(x), NumberOf(previous) + 1) << i;
    }
}

// Each read is the block of one transfer, and tells what its aux packet said, once.
TEST_F(EngineIQTest, StatusIsTheFirstThatApplies) {
    struct Case {
        const char* name;
        uint32_t magic;
        uint32_t flags;
        bool hot;
        TqStatus expected;
    };
    static constexpr Case CASES[] = {
        {"nothing", GOOD_MAGIC, 0, false, tqNoError},
        {"drift", GOOD_MAGIC, 0, true, tqTempDrift},
        {"overflow before drift", GOOD_MAGIC, ADC_OVERFLOW, true, tqADCOverflow},
        {"loss before overflow", GOOD_MAGIC, ADC_OVERFLOW | DATA_LOSS, false, tqUncalData},
        {"told once", GOOD_MAGIC, 0, false, tqNoError},
        {"framing before loss", GOOD_MAGIC + 1, DATA_LOSS, false, tqFramingErr},
        {"and over with the next good packet", GOOD_MAGIC, 0, false, tqNoError},
    };
    scripted->onAux = [](int transfer, AuxData& aux) {
        const Case& c = CASES[std::min<std::size_t>(static_cast<std::size_t>(transfer), std::size(CASES) - 1)];
        aux.magicNumber = c.magic;
        aux.statusFlags = c.flags;
        aux.tempSensors[0] = static_cast<uint16_t>((c.hot ? 40 : 0) << 4);  // quarter degrees from bit 2 on
    };
    Start(4);
    for (int i = 0; i < static_cast<int>(std::size(CASES)); i++) {
        scripted->allowed = i + 1;
        const Got got = Get(perXfer);
        EXPECT_EQ(got.status, CASES[i].expected) << CASES[i].name;
        EXPECT_EQ(NumberOf(got.samples.back()), int64_t{i + 1} * perXfer - 1) << "delivered whatever the status";
    }
}

// Memory that holds its first writer up: at every first touch of a guarded page a transfer more comes off the wire.
struct SlowMemory {
    static constexpr std::size_t PAGE = 4096;

    SlowMemory(std::size_t size, std::size_t stride, std::function<void()> hold)
        : bytes(size), onTouch(std::move(hold)) {
        at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        for (std::size_t page = 0; page < bytes; page += stride) mprotect(Place(page), PAGE, PROT_NONE);
        active = this;
        struct sigaction action = {};
        action.sa_sigaction = [](int, siginfo_t* info, void*) {
            const auto offset = static_cast<std::size_t>(static_cast<char*>(info->si_addr) - active->Place(0));
            if (offset >= active->bytes) std::abort();
            mprotect(active->Place(offset / PAGE * PAGE), PAGE, PROT_READ | PROT_WRITE);
            active->onTouch();
        };
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigaction(SIGSEGV, &action, &before);
    }
    ~SlowMemory() {
        sigaction(SIGSEGV, &before, nullptr);
        munmap(at, bytes);
    }
    char* Place(std::size_t offset) const { return static_cast<char*>(at) + offset; }

    std::size_t bytes;
    std::function<void()> onTouch;
    void* at;
    struct sigaction before;
    static inline SlowMemory* active = nullptr;
};

// The store between the threads holds 20 transfers: a reader may not keep the worker out of the ring for longer.
TEST_F(EngineIQTest, ACallerWithSlowMemoryLosesNothing) {
    constexpr int FIRST = 60, MORE = 40;
    Start(1);
    scripted->allowed = FIRST;
    const int count = (FIRST - 1) * perXfer;
    WaitUntil([&] { return Get(1).remaining >= count - 100; });
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(Ipp32fc);
    const SlowMemory memory(bytes, bytes / MORE / SlowMemory::PAGE * SlowMemory::PAGE, [this] {
        const int64_t last = device->readerGPS.GetLockedIQTime();
        ++scripted->allowed;
        while (device->readerGPS.GetLockedIQTime() == last) std::this_thread::yield();
    });
    int loss = -1;
    EXPECT_EQ(engine->GetIQ(memory.at, count - 200, nullptr, 0, nullptr, tqFalse, &loss, nullptr), tqNoError);
    EXPECT_EQ(loss, 0);
    EXPECT_EQ(Get(MORE * perXfer).loss, 0);
}

// What went before it has no say, however often it was wrong, and it stays said until the next packet.
TEST_F(EngineIQTest, FramingIsThatOfTheLastPacketAlone) {
    scripted->onAux = [](int transfer, AuxData& aux) {
        if (transfer % 4 != 3) aux.magicNumber = BAD_MAGIC;
    };
    Start(4);
    for (int transfer = 1; transfer < 24; transfer += 2) {
        scripted->allowed = transfer + 1;
        const TqStatus expected = transfer % 4 == 3 ? tqNoError : tqFramingErr;
        EXPECT_EQ(Get(2 * perXfer - 1).status, expected) << transfer;
        EXPECT_EQ(Get(1).status, expected) << transfer;
    }
}

TEST_F(EngineIQTest, ABlockedCallerIsWokenByTheEndAndByALostLink) {
    for (const bool lost : {false, true}) {
        SCOPED_TRACE(lost);
        scripted->trickle = false;
        scripted->allowed = 0;
        Start(4);
        std::atomic<pid_t> caller = 0;
        Got got;
        std::thread thread([&, &stream = *engine, count = 75 * perXfer] {
            caller = gettid();
            got = GetFrom(stream, count, 0, tqFalse);
        });
        WaitUntilBlocked(caller);
        if (lost) {
            scripted->stall = true;
            thread.join();
            EXPECT_EQ(got.status, tqConnectionLostErr);
            EXPECT_EQ(got.loss, -1) << "outputs as they stood";
            EXPECT_EQ(Get(1).status, tqConnectionLostErr) << "it stays";
            End();
        } else {
            engine->End();
            thread.join();
            EXPECT_EQ(got.status, tqInvalidConfigurationErr);
            End();
            EXPECT_EQ(got.samples.back().re, POISON) << "the rest stays as it was";
        }
    }
}

}  // namespace
