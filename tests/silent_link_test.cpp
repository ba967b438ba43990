// Links that fall silent, and links that one failed read marks as lost, in every mode: what the caller is told and
// when, and what the instrument still hears. Streams come at the real rate and time-outs take their real time.
#include "tq_api_admin.h"

#include "api_fixture.h"
#include "thread_support.h"

#include <algorithm>
#include <atomic>
#include <future>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// A transfer takes 2 s to time out; two of them, one behind the other, would take 4.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr Clock::duration TOLD = 6s, AT_ONCE = 3s;
#else
constexpr Clock::duration TOLD = 3900ms, AT_ONCE = 1s;
#endif
constexpr Clock::duration STOPPED = 5s;
constexpr unsigned PATIENCE_S = 60;

struct Acquisition {
    std::string name;
    std::function<TqStatus(int device)> configure;
    std::function<TqStatus(int device)> take;
};

TqStatus ConfigureSweep(int device, double spanHz, double rbw, double sweepTime) {
    tqSetSweepCenterSpan(device, 5e9, spanHz);
    tqSetSweepCoupling(device, rbw, rbw, sweepTime);
    return tqConfigure(device, tqModeSweeping);
}

Acquisition WideSweep(std::string name, double sweepTime) {
    return {std::move(name), [=](int device) { return ConfigureSweep(device, 9e9, 30e3, sweepTime); },
            [](int device) { return tqGetSweep(device, nullptr, nullptr, nullptr); }};
}

// As long as the memory of this machine lets it be.
Acquisition NarrowSweep(std::string name, double sweepTime) {
    return {std::move(name),
            [=](int device) {
                TqStatus status = tqAllocationErr;
                for (double time = sweepTime; status == tqAllocationErr; time /= 2) {
                    status = ConfigureSweep(device, 100e3, 1e3, time);
                }
                return status;
            },
            [](int device) { return tqGetSweep(device, nullptr, nullptr, nullptr); }};
}

Acquisition Samples(std::string name, int decimation) {
    return {std::move(name),
            [=](int device) {
                tqSetIQSampleRate(device, decimation);
                return tqConfigure(device, tqModeIQStreaming);
            },
            [=](int device) {
                std::vector<float> iq(2000);
                return tqGetIQ(device, iq.data(), 1000, nullptr, 0, nullptr, tqFalse, nullptr, nullptr);
            }};
}

TqStatus ConfigureList(int device, int steps) {
    tqSetIQSweepListSteps(device, steps);  // of a million samples each
    return tqConfigure(device, tqModeIQSweepList);
}

Acquisition List(std::string name, int steps) {
    return {std::move(name), [=](int device) { return ConfigureList(device, steps); },
            [](int device) { return tqIQSweepListGetSweep(device, nullptr, nullptr); }};
}

TqStatus ThreePasses(int device) {
    TqStatus status = tqNoError;
    const auto keep = [&](TqStatus s) { status = std::min(status, s); };
    for (int pos = 0; pos < 3; pos++) keep(tqIQSweepListStartSweep(device, pos, nullptr, nullptr));
    for (int pos = 0; pos < 3; pos++) keep(tqIQSweepListFinishSweep(device, pos));
    return status;
}

TqStatus Frame(int device) { return tqGetRealTimeFrame(device, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }

TqStatus Audio(int device) {
    float audio[1000];
    return tqGetAudio(device, audio);
}

std::vector<Acquisition> Acquisitions() {
    return {
        WideSweep("Wide", 1e-6),
        WideSweep("Wide1s", 1.0),
        WideSweep("Wide3s", 3.0),
        WideSweep("Wide100s", 100.0),
        NarrowSweep("Narrow", 1e-6),
        NarrowSweep("Narrow100s", 100.0),
        Samples("IQ", 1),
        Samples("IQ8192", 8192),
        List("List20", 20),
        List("List1000", 1000),
        {"ThreePasses", [](int device) { return ConfigureList(device, 20); }, ThreePasses},
        {"RealTime", [](int device) { return tqConfigure(device, tqModeRealTime); }, Frame},
        {"Audio", [](int device) { return tqConfigure(device, tqModeAudio); }, Audio},
    };
}

class LinkTest : public ApiFixture, public ::testing::WithParamInterface<Acquisition> {
protected:
    void Open() {
        sim::InstrumentOptions options;
        options.speed = sim::Speed::paced;
        ApiFixture::Open(std::move(options));
    }

    // Takes data in a thread of its own until a failure, which it returns with its moment.
    struct Failure {
        TqStatus status;
        Clock::time_point when;
    };
    std::future<Failure> TakeUntilFailure() {
        return std::async(std::launch::async, [this] {
            TqStatus status = tqNoError;
            while (status >= tqNoError) status = GetParam().take(device);
            return Failure{status, Clock::now()};
        });
    }

    void AwaitPackets(std::uint64_t count) {
        const std::uint64_t before = instrument->Counters().iqPackets;
        while (instrument->Counters().iqPackets < before + count) std::this_thread::yield();
    }
};

class SilentLink : public LinkTest {
protected:
    void ExpectEndsInTime(Clock::time_point silence, Failure failure) {
        EXPECT_EQ(failure.status, tqConnectionLostErr);
        EXPECT_LT(failure.when - silence, TOLD);
        RecordProperty("toldMs", static_cast<int>((failure.when - silence) / 1ms));
        ExpectWithin(AT_ONCE, "the next call", [this] { EXPECT_EQ(GetParam().take(device), tqConnectionLostErr); });
        ExpectWithin(STOPPED, "the abort", [this] { EXPECT_EQ(tqAbort(device), tqNoError); });
        ExpectWithin(STOPPED, "the close", [this] { CloseDevice(); });
    }
    template <class F>
    void ExpectWithin(Clock::duration most, const char* what, F call) {
        const Clock::time_point begin = Clock::now();
        call();
        EXPECT_LT(Clock::now() - begin, most) << what;
    }
};

TEST_P(SilentLink, IsToldInTimeFromTheFirstPacketOn) {
    Watchdog::Watch(GetParam().name + ", silent from the start", PATIENCE_S);
    Open();
    sim::SetTimeoutSlack({});
    ASSERT_EQ(GetParam().configure(device), tqNoError);
    const Clock::time_point silence = Clock::now();
    instrument->faults().SilentAt(0);
    ExpectEndsInTime(silence, TakeUntilFailure().get());
}

TEST_P(SilentLink, IsToldInTimeAmidTheAcquisition) {
    constexpr std::uint64_t AMID = 1000;  // packets
    Watchdog::Watch(GetParam().name + ", silent amid the data", PATIENCE_S);
    Open();
    sim::SetTimeoutSlack({});
    ASSERT_EQ(GetParam().configure(device), tqNoError);
    std::future<Failure> failure = TakeUntilFailure();
    AwaitPackets(AMID);
    const Clock::time_point silence = Clock::now();
    instrument->faults().SilentAt(0);
    ExpectEndsInTime(silence, failure.get());
}

INSTANTIATE_TEST_SUITE_P(Modes, SilentLink, ::testing::ValuesIn(Acquisitions()),
                         [](const auto& row) { return row.param.name; });

class SilentFullBand : public ApiFixture {};

// A capture configures and takes its data in one call; the former reads nothing when the last reading is young.
TEST_F(SilentFullBand, IsToldInTime) {
    Watchdog::Watch("full band", PATIENCE_S);
    for (const bool young : {false, true}) {
        SCOPED_TRACE(young);
        Open();
        sim::SetTimeoutSlack({});
        float volts = 0.0f;
        if (young) tqGetDeviceDiagnostics(device, &volts, nullptr, nullptr);
        instrument->faults().SilentAt(0);
        std::vector<float> capture(2 * TQ_FULL_BAND_SAMPLES);
        const Clock::time_point silence = Clock::now();
        EXPECT_EQ(tqAdminGetFullBandIQ(device, 1e9, capture.data()), tqConnectionLostErr);
        EXPECT_LT(Clock::now() - silence, TOLD);
        const Clock::time_point again = Clock::now();
        EXPECT_EQ(tqAdminGetFullBandIQ(device, 1e9, capture.data()), tqConnectionLostErr);
        EXPECT_LT(Clock::now() - again, AT_ONCE);
        CloseDevice();
        bus.Unplug(*instrument);
    }
}

// One failed read marks the link as lost, but the instrument lives: it is stopped, and put in standby, all the same.
class LostLinkOfALiveInstrument : public LinkTest {
protected:
    std::vector<std::uint32_t> WordsOfClose() {
        instrument->ClearLog();
        instrument->EnableLog(true);
        CloseDevice();
        instrument->EnableLog(false);
        return instrument->LoggedWords();
    }
};

TEST_P(LostLinkOfALiveInstrument, IsStoppedAndPutInStandby) {
    using enum sim::BusFault::Action;
    Watchdog::Watch(GetParam().name + ", one failed read", PATIENCE_S);
    Open();
    const std::vector<std::uint32_t> standby = WordsOfClose();
    ASSERT_FALSE(standby.empty());
    for (const sim::BusFault& fault : {sim::BusFault{.action = stall, .nth = 3}, {.action = shortTransfer, .nth = 3}}) {
        SCOPED_TRACE(fault.action == stall ? "stall" : "short");
        OpenDevice();
        sim::SetTimeoutSlack({});
        ASSERT_EQ(GetParam().configure(device), tqNoError);
        std::future<Failure> failure = TakeUntilFailure();
        AwaitPackets(1);
        bus.Inject(*instrument, fault);
        EXPECT_EQ(failure.get().status, tqConnectionLostErr);
        EXPECT_EQ(tqAbort(device), tqNoError);
        EXPECT_FALSE(instrument->State().acquiring) << "no stop word";
        const std::vector<std::uint32_t> words = WordsOfClose();
        EXPECT_FALSE(std::ranges::search(words, standby).empty()) << "no standby";
        sim::SetTimeoutSlack(TIMEOUT_SLACK);
        bus.Unplug(*instrument);
        bus.Replug(*instrument);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, LostLinkOfALiveInstrument, ::testing::ValuesIn(Acquisitions()),
                         [](const auto& row) { return row.param.name; });

}  // namespace
