// Several threads on one handle, and on several: every data call beside every other kind of call, at random moments.
// A failure names its seed; --gtest_random_seed takes it.
#include "tq_api_admin.h"

#include "device_support.h"
#include "thread_support.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <functional>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr float POISON = 1e30f;
constexpr unsigned PATIENCE_S = 60;  // of one pair
#if defined(__SANITIZE_THREAD__)
constexpr int ROUNDS = 2, SLOWNESS = 5;
constexpr bool OUTRUN = true;
#else
constexpr int ROUNDS = 4, SLOWNESS = 1;
constexpr bool OUTRUN = false;
#endif

// Spaces its reads out, so that a host of any speed keeps up and a data call takes a while; hands nothing out while it
// is shut. What is left behind a stop word comes at once.
class SlowInstrument : public sim::Instrument {
public:
    using Instrument::Instrument;

    std::atomic<bool> shut = false;
    std::atomic<std::chrono::milliseconds> gap = 0ms;

    int BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> data) override {
        constexpr std::uint8_t START = 0x30, STOP = 0x32;
        bool starts = false, stops = false;
        for (std::size_t opCode = 3; opCode < data.size(); opCode += 4) {
            starts |= data[opCode] == START;
            stops |= data[opCode] == STOP;
        }
        if (starts || stops) stopped = !starts;
        return Instrument::BulkOut(endpoint, data);
    }

    sim::BulkInResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) override {
        const auto now = std::chrono::steady_clock::now();
        if (shut) return {sim::BulkInResult::Kind::pending, 0, now + 1ms};
        if (!stopped && now < next) return {sim::BulkInResult::Kind::pending, 0, next};
        next = now + gap.load();
        return Instrument::BulkIn(endpoint, dst);
    }

private:
    bool stopped = true;
    std::chrono::steady_clock::time_point next;
};

int SweepSize(int device) {
    int size = 0;
    EXPECT_EQ(tqGetSweepParameters(device, nullptr, nullptr, nullptr, nullptr, &size), tqNoError);
    return size;
}

// A way to take data. Two callers may use it at a time, 0 and 1.
struct DataCall {
    const char* name;
    TqMode mode;
    std::chrono::milliseconds gap;  // between reads
    void (*set)(int device);        // settings, and sizes for `take`
    TqStatus (*take)(int device, std::vector<float>& out, int caller);
    std::size_t (*floats)(int device);  // that `take` writes, in the configured mode
    bool streams = false;
    bool endsOthers = false;  // takes the device for itself, and configures
};

constexpr std::size_t STEP_SAMPLES = 5000, LIST_FLOATS = 2 * 3 * STEP_SAMPLES, IQ_SAMPLES = 50000, PASSES = 3;

void SetList(int device) {
    tqSetIQSweepListSteps(device, 3);
    for (int step = 0; step < 3; step++) tqSetIQSweepListSampleCount(device, step, STEP_SAMPLES);
}

TqStatus TakeSweep(int device, std::vector<float>& out, int) {
    return tqGetSweep(device, nullptr, out.data(), nullptr);
}

TqStatus TakeFrame(int device, std::vector<float>& out, int) {
    int width = 0, height = 0, size = 0;
    const TqStatus status = tqGetRealTimeParameters(device, nullptr, &size, nullptr, nullptr, &width, &height, nullptr);
    if (status != tqNoError) return status;
    float* const alpha = out.data() + width * height;
    float* const min = alpha + width * height;
    return tqGetRealTimeFrame(device, out.data(), alpha, min, min + size, nullptr, nullptr);
}

TqStatus TakePasses(int device, std::vector<float>& out, int caller) {
    TqStatus status = tqNoError;
    const auto keep = [&](TqStatus s) { status = status < tqNoError ? status : s; };
    for (std::size_t i = 0; i < PASSES; i++) {
        const int pos = caller * 8 + static_cast<int>(i);
        keep(tqIQSweepListStartSweep(device, pos, out.data() + i * LIST_FLOATS, nullptr));
    }
    for (std::size_t i = 0; i < PASSES; i++) {
        keep(tqIQSweepListFinishSweep(device, caller * 8 + static_cast<int>(i)));
    }
    return status;
}

const DataCall DATA_CALLS[] = {
    {"WideSweep", tqModeSweeping, 2ms,
     [](int device) {
         tqSetSweepStartStop(device, 9e3, 1e9);
         tqSetSweepCoupling(device, 1e6, 1e6, 0.02);
     },
     TakeSweep, [](int device) { return static_cast<std::size_t>(SweepSize(device)); }},
    {"NarrowSweep", tqModeSweeping, 2ms,
     [](int device) {
         tqSetSweepCenterSpan(device, 1e9, 100e3);
         tqSetSweepCoupling(device, 1e3, 1e3, 0.02);
     },
     TakeSweep, [](int device) { return static_cast<std::size_t>(SweepSize(device)); }},
    {"RealTime", tqModeRealTime, 4ms, [](int device) { tqSetRealTimeRBW(device, 250e3); }, TakeFrame,
     [](int device) {
         int width = 0, height = 0, size = 0;
         tqGetRealTimeParameters(device, nullptr, &size, nullptr, nullptr, &width, &height, nullptr);
         return static_cast<std::size_t>(2 * width * height + 2 * size);
     },
     true},
    {"IQ", tqModeIQStreaming, 2ms, [](int device) { tqSetIQSampleRate(device, 4); },
     [](int device, std::vector<float>& out, int) {
         return tqGetIQ(device, out.data(), IQ_SAMPLES, nullptr, 0, nullptr, tqFalse, nullptr, nullptr);
     },
     [](int) { return 2 * IQ_SAMPLES; }, true},
    {"List", tqModeIQSweepList, 2ms, [](int) {},
     [](int device, std::vector<float>& out, int) { return tqIQSweepListGetSweep(device, out.data(), nullptr); },
     [](int) { return LIST_FLOATS; }},
    {"ListInFlight", tqModeIQSweepList, 2ms, [](int) {}, TakePasses, [](int) { return PASSES * LIST_FLOATS; }},
    {"Audio", tqModeAudio, 1ms, [](int) {},
     [](int device, std::vector<float>& out, int) { return tqGetAudio(device, out.data()); },
     [](int) { return std::size_t{1000}; }, true},
    {"FullBand", tqModeSweeping, 2ms, [](int) {},
     [](int device, std::vector<float>& out, int) { return tqAdminGetFullBandIQ(device, 1e9, out.data()); },
     [](int) { return std::size_t{2 * TQ_FULL_BAND_SAMPLES}; }, false, true},
};

enum class Kind { ending, reading, setter, command };

struct OtherCall {
    const char* name;
    Kind kind;
    TqStatus (*call)(int device, TqMode running);
    bool leavesItRunning = false;  // an ending behind which data come again
};

TqMode OtherThan(TqMode mode) { return mode == tqModeSweeping ? tqModeIQStreaming : tqModeSweeping; }

const OtherCall OTHER_CALLS[] = {
    {"tqAbort", Kind::ending, [](int d, TqMode) { return tqAbort(d); }},
    {"tqConfigure", Kind::ending, [](int d, TqMode mode) { return tqConfigure(d, mode); }, true},
    {"tqConfigure to another mode", Kind::ending, [](int d, TqMode mode) { return tqConfigure(d, OtherThan(mode)); }},
    {"tqCloseDevice", Kind::ending, [](int d, TqMode) { return tqCloseDevice(d); }},
    {"tqAdminGetFullBandIQ", Kind::ending,
     [](int d, TqMode) {
         std::vector<float> capture(2 * TQ_FULL_BAND_SAMPLES);
         return tqAdminGetFullBandIQ(d, 2e9, capture.data());
     }},
    {"tqGetDeviceDiagnostics", Kind::reading,
     [](int d, TqMode) {
         float voltage = 0.0f, current = 0.0f, temperature = 0.0f;
         return tqGetDeviceDiagnostics(d, &voltage, &current, &temperature);
     }},
    {"tqGetFanSettings", Kind::reading,
     [](int d, TqMode) {
         float setPoint = 0.0f, voltage = 0.0f;
         return tqGetFanSettings(d, &setPoint, &voltage);
     }},
    {"tqGetGPSState", Kind::reading,
     [](int d, TqMode) {
         TqGPSState state = tqGPSStateNotPresent;
         return tqGetGPSState(d, &state);
     }},
    {"tqGetGPSInfo", Kind::reading,
     [](int d, TqMode) {
         char text[2000];
         int room = sizeof(text);
         int64_t seconds = 0;
         double latitude = 0.0, longitude = 0.0, altitude = 0.0;
         TqBool updated = tqFalse;
         return tqGetGPSInfo(d, tqTrue, &updated, &seconds, &latitude, &longitude, &altitude, text, &room);
     }},
    {"tqGetCurrentMode", Kind::reading,
     [](int d, TqMode) {
         TqMode mode = tqModeIdle;
         return tqGetCurrentMode(d, &mode);
     }},
    {"the parameters of all modes", Kind::reading,
     [](int d, TqMode) {
         double hz = 0.0;
         float factors[3];
         tqGetSweepParameters(d, &hz, &hz, &hz, &hz, nullptr);
         tqGetRealTimeParameters(d, &hz, nullptr, &hz, &hz, nullptr, nullptr, &hz);
         tqGetIQParameters(d, &hz, &hz);
         tqGetIQCorrection(d, factors);
         tqIQSweepListGetCorrections(d, factors);
         return tqNoError;
     }},
    {"the getters", Kind::reading,
     [](int d, TqMode) {
         int number = 0;
         uint16_t ticks = 0;
         double value = 0.0;
         float rate = 0.0f;
         uint32_t date = 0;
         bool flag = false;
         TqReference reference = tqReferenceUseInternal;
         TqPowerState power = tqPowerStateOn;
         TqGPIOFunction port = TqGPIOFunctionTrigIn;
         TqBool enabled = tqFalse;
         TqTempRange range = {};
         const TqStatus statuses[] = {tqGetReference(d, &reference),
                                      tqGetPowerState(d, &power),
                                      tqGetGPIOPort(d, &port),
                                      tqGetUARTBaudRate(d, &rate),
                                      tqGetGPSTimebaseUpdate(d, &enabled),
                                      tqGetGPSHoldoverInfo(d, &enabled, &date),
                                      tqGetCalDate(d, &date),
                                      tqGetSerialNumber(d, &number),
                                      tqGetFirmwareVersion(d, &number, &number, &number),
                                      tqGetRefLevel(d, &value),
                                      tqGetAttenuator(d, &number),
                                      tqGetIQCenterFreq(d, &value),
                                      tqGetIQSweepListSteps(d, &number),
                                      tqAdminHasDithering(d, flag),
                                      tqAdminGetTempRange(d, &range),
                                      tqAdminGetCoarseTuneVal(d, &ticks)};
         return *std::ranges::min_element(statuses);
     }},
    {"tqSetRefLevel", Kind::setter, [](int d, TqMode) { return tqSetRefLevel(d, -20.0); }},
    {"tqSetIQSweepListFreq", Kind::setter, [](int d, TqMode) { return tqSetIQSweepListFreq(d, 0, 1e9); }},
    {"tqSetAudioFilters", Kind::setter, [](int d, TqMode) { return tqSetAudioFilters(d, 2e5, 12e3, 100.0); }},
    {"tqSetSweepGPIOSwitching", Kind::setter,
     [](int d, TqMode) {
         double freqs[] = {1e9, 2e9};
         uint8_t bytes[] = {1, 2};
         return tqSetSweepGPIOSwitching(d, freqs, bytes, 2);
     }},
    {"tqSetReference", Kind::command,
     [](int d, TqMode) {
         TqReference now = tqReferenceUseInternal;
         tqGetReference(d, &now);
         return tqSetReference(d, now == tqReferenceUseInternal ? tqReferenceUseExternal : tqReferenceUseInternal);
     }},
    {"tqSetFanSetPoint", Kind::command, [](int d, TqMode) { return tqSetFanSetPoint(d, 40.0f); }},
    {"tqWriteToGPS", Kind::command,
     [](int d, TqMode) {
         const uint8_t bytes[] = "$PMTK";
         return tqWriteToGPS(d, bytes, 5);
     }},
    {"tqAdminSetCoarseTuneVal", Kind::command, [](int d, TqMode) { return tqAdminSetCoarseTuneVal(d, 32000); }},
};

class Callers : public DeviceFixture {
protected:
    static constexpr int SERIAL = 12345678;

    void SetUp() override {
        DeviceFixture::SetUp();
        const int given = GTEST_FLAG_GET(random_seed);
        seed = given != 0 ? static_cast<unsigned>(given) : std::random_device()() % 99999 + 1;
        random.seed(seed);
    }

    // A moment of up to some milliseconds.
    void Linger() { LingerFor(random() % 1500); }
    static void LingerFor(std::uint_fast32_t yields) {
        for (; yields > 0; yields--) std::this_thread::yield();
    }

    std::string Seed() const { return ", seed " + std::to_string(seed); }

    unsigned seed = 0;
    std::minstd_rand random;
};

class PairsOfCallers : public Callers, public ::testing::WithParamInterface<DataCall> {
protected:
    void SetUp() override {
        Callers::SetUp();
        if (OUTRUN && call.mode == tqModeRealTime) GTEST_SKIP() << "its store is overwritten, by design";
        const CalRecord record;
        WriteLocalFile(SERIAL, ".bin", record.data.get(), sizeof(TQ720CalData));
        sim::InstrumentOptions options;
        options.serial = SERIAL;
        options.gps = sim::GpsState::locked;
        instrument = &Plug<SlowInstrument>(options);
    }
    void TearDown() override {
        tqCloseDevice(device);
        Callers::TearDown();
    }

    // In the mode of the data call, with a buffer for each caller.
    void Run() {
        if (device < 0) {
            ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), tqNoError);
            SetList(device);
            call.set(device);
        }
        ASSERT_EQ(tqConfigure(device, call.mode), tqNoError);
        instrument->gap = call.gap * SLOWNESS;
        for (std::vector<float>& buffer : buffers) buffer.assign(call.floats(device), POISON);
        ASSERT_GE(call.take(device, buffers[0], 0), tqNoError);
        ASSERT_EQ(std::ranges::count(buffers[0], POISON), 0) << "the wrong size";
    }

    // Takes data on and on until somebody ends it.
    std::thread Taker(int caller = 0) {
        done = false;
        return std::thread([this, caller] {
            tid = gettid();
            do {
                last = call.take(device, buffers[static_cast<std::size_t>(caller)], caller);
            } while (last >= tqNoError && !done);
        });
    }

    // A pass of which an ending came between start and finish finds its place in the list free.
    bool IsEnd(TqStatus status) const {
        return status == tqInvalidConfigurationErr || status == tqInvalidDeviceErr ||
               (call.take == TakePasses && status == tqSweepAlreadyActiveErr);
    }

    const DataCall& call = GetParam();
    SlowInstrument* instrument = nullptr;
    int device = -1;
    std::array<std::vector<float>, 2> buffers;
    std::atomic<bool> done = false;
    std::atomic<TqStatus> last = tqNoError;
    std::atomic<pid_t> tid = 0;
};

// Even rounds end a call that waits for data, odd ones whatever is under way. The buffers are the caller's own again
// when the ending call has returned, unless that lets calls go on.
TEST_P(PairsOfCallers, AnEndingCallSendsADataCallHome) {
    for (const OtherCall& other : OTHER_CALLS) {
        if (other.kind != Kind::ending) continue;
        for (int round = 0; round < ROUNDS; round++) {
            const std::string pair = std::string(call.name) + " and " + other.name + Seed();
            SCOPED_TRACE(pair);
            Watchdog::Watch(pair, PATIENCE_S);
            Run();
            tid = 0;
            std::thread taker = Taker();
            if (round % 2 == 0) WaitUntilBlocked(tid);
            Linger();
            const bool goesOn = other.leavesItRunning || call.endsOthers;
            done = goesOn;
            EXPECT_EQ(other.call(device, call.mode), tqNoError);
            if (!goesOn) std::ranges::fill(buffers[0], POISON);
            taker.join();
            if (goesOn) {
                EXPECT_TRUE(last >= tqNoError || IsEnd(last)) << last;
            } else {
                EXPECT_TRUE(IsEnd(last)) << last;
                EXPECT_EQ(std::ranges::count(buffers[0], POISON), std::ssize(buffers[0])) << "written behind the end";
            }
            if (other.leavesItRunning && !call.endsOthers) {
                EXPECT_GE(call.take(device, buffers[0], 0), tqNoError);
            }
            if (other.call == OTHER_CALLS[3].call) device = -1;
        }
    }
}

TEST_P(PairsOfCallers, OthersTakeTurnsWithADataCall) {
    Run();
    for (const OtherCall& other : OTHER_CALLS) {
        if (other.kind == Kind::ending) continue;
        const std::string pair = std::string(call.name) + " and " + other.name + Seed();
        SCOPED_TRACE(pair);
        Watchdog::Watch(pair, PATIENCE_S);
        std::thread taker = Taker();
        for (int round = 0; round < ROUNDS; round++) {
            Linger();
            const TqStatus status = other.call(device, call.mode);
            const bool refused = status == tqInvalidConfigurationErr;
            if (other.kind == Kind::command && call.streams) {
                EXPECT_TRUE(refused) << status;
            } else if (other.kind == Kind::command && call.mode == tqModeIQSweepList) {
                EXPECT_TRUE(refused || status == tqNoError) << status;  // by whether a pass is in flight
            } else {
                EXPECT_EQ(status, tqNoError);
            }
        }
        done = true;
        taker.join();
        EXPECT_GE(last, tqNoError);
    }
}

TEST_P(PairsOfCallers, TwoDataCallsBothGetTheirOwn) {
    Watchdog::Watch(std::string(call.name) + " twice" + Seed(), PATIENCE_S);
    Run();
    std::thread taker = Taker(1);
    for (int round = 0; round < ROUNDS; round++) {
        std::ranges::fill(buffers[0], POISON);
        Linger();
        EXPECT_GE(call.take(device, buffers[0], 0), tqNoError);
        EXPECT_EQ(std::ranges::count(buffers[0], POISON), 0);
    }
    done = true;
    taker.join();
    EXPECT_GE(last, tqNoError);
}

// With an instrument that hands out nothing, whoever waits for the data call waits for ever.
TEST_P(PairsOfCallers, ReadingsAndSettersDoNotWaitForADataCall) {
    if (call.endsOthers) GTEST_SKIP() << "it configures";
    Run();
    instrument->shut = true;
    tid = 0;
    done = true;
    std::thread taker([this] {
        tid = gettid();
        do {
            last = call.take(device, buffers[0], 0);
        } while (last >= tqNoError && instrument->shut);  // what had come before
    });
    for (int round = 0; round < ROUNDS; round++) {
        WaitUntilBlocked(tid);
        for (const OtherCall& other : OTHER_CALLS) {
            const bool atOnce = other.kind == Kind::reading || other.kind == Kind::setter ||
                                (other.kind == Kind::command && call.streams);
            if (!atOnce) continue;
            Watchdog::Watch(std::string(other.name) + " beside " + call.name, PATIENCE_S);
            EXPECT_EQ(other.call(device, call.mode),
                      other.kind == Kind::command ? tqInvalidConfigurationErr : tqNoError)
                << other.name;
        }
    }
    instrument->shut = false;
    Watchdog::Watch(std::string("the end of ") + call.name, PATIENCE_S);
    taker.join();
    EXPECT_GE(last, tqNoError);
}

INSTANTIATE_TEST_SUITE_P(Modes, PairsOfCallers, ::testing::ValuesIn(DATA_CALLS),
                         [](const auto& row) { return std::string(row.param.name); });

// --- Several handles ---

class CallersOfSeveral : public Callers {
protected:
    static constexpr int INSTRUMENTS = 4;

    void SetUp() override {
        Callers::SetUp();
        sim::SetTimeoutSlack({});  // an open waits for short time-outs, and beside a stream they would have it, too
        for (int i = 0; i < INSTRUMENTS; i++) PlugKnown(SERIAL + i);
    }
};

// Runs body(thread, random) in so many threads that begin at the same time.
template <class F>
void InThreads(int count, std::uint_fast32_t seed, F body) {
    std::barrier begin(count);
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; i++) {
        threads.emplace_back([&, i] {
            std::minstd_rand random(seed + static_cast<unsigned>(i));
            begin.arrive_and_wait();
            body(i, random);
        });
    }
}

TEST_F(CallersOfSeveral, EachInstrumentIsOpenedOnce) {
    for (int round = 0; round < ROUNDS; round++) {
        Watchdog::Watch("as many opens as instruments" + Seed(), PATIENCE_S);
        std::array<int, INSTRUMENTS> handles, serials;
        InThreads(INSTRUMENTS, seed, [&](int i, auto& moment) {
            const auto at = static_cast<std::size_t>(i);
            LingerFor(moment() % 300);
            EXPECT_EQ(tqOpenDevice(&handles[at]), tqNoError);
            EXPECT_EQ(tqGetSerialNumber(handles[at], &serials[at]), tqNoError);
        });
        EXPECT_EQ(std::set(serials.begin(), serials.end()).size(), INSTRUMENTS) << seed;
        EXPECT_EQ(std::set(handles.begin(), handles.end()).size(), INSTRUMENTS) << seed;
        for (const int handle : handles) EXPECT_EQ(tqCloseDevice(handle), tqNoError);
    }
}

TEST_F(CallersOfSeveral, OneOfTwoGetsTheSameInstrumentAndOneOfTwoClosesIt) {
    for (int round = 0; round < ROUNDS; round++) {
        Watchdog::Watch("two opens of one instrument" + Seed(), PATIENCE_S);
        std::atomic<int> opened = 0, refused = 0, closed = 0, invalid = 0, handle = -1;
        InThreads(2, random(), [&](int, auto& moment) {
            int mine = -1;
            LingerFor(moment() % 300);
            const TqStatus status = tqOpenDeviceBySerial(&mine, SERIAL);
            opened += status == tqNoError;
            refused += status == tqDeviceNotFoundErr;
            if (status == tqNoError) handle = mine;
        });
        ASSERT_EQ(opened, 1) << seed;
        ASSERT_EQ(refused, 1) << seed;
        InThreads(2, random(), [&](int, auto& moment) {
            LingerFor(moment() % 300);
            const TqStatus status = tqCloseDevice(handle);
            closed += status == tqNoError;
            invalid += status == tqInvalidDeviceErr;
        });
        ASSERT_EQ(closed, 1) << seed;
        ASSERT_EQ(invalid, 1) << seed;
    }
}

// Beside a handle that takes data all the time.
TEST_F(CallersOfSeveral, ListOpenAndCloseStormAlong) {
    Watchdog::Watch("storm" + Seed(), PATIENCE_S);
    int steady = -1;
    ASSERT_EQ(tqOpenDeviceBySerial(&steady, SERIAL), tqNoError);
    ASSERT_EQ(tqSetSweepCenterSpan(steady, 1e9, 20e6), tqNoError);
    ASSERT_EQ(tqConfigure(steady, tqModeSweeping), tqNoError);
    std::array<std::atomic<int>, INSTRUMENTS> owners = {1};
    std::atomic<int> storming = 3;
    InThreads(4, seed, [&](int i, auto& moment) {
        if (i == 3) {
            while (storming > 0) EXPECT_GE(tqGetSweep(steady, nullptr, nullptr, nullptr), tqNoError);
            return;
        }
        for (int round = 0; round < ROUNDS; round++) {
            std::array<int, 9> listed;
            int count = 9, handle = -1, serial = 0;
            EXPECT_EQ(tqGetDeviceList(listed.data(), &count), tqNoError);
            EXPECT_LT(count, INSTRUMENTS);
            LingerFor(moment() % 300);
            // Whatever was on the list may be gone when it is opened.
            const TqStatus status = tqOpenDevice(&handle);
            EXPECT_TRUE(status == tqNoError || status == tqDeviceNotFoundErr) << status;
            if (status != tqNoError) continue;
            EXPECT_EQ(tqGetSerialNumber(handle, &serial), tqNoError);
            std::atomic<int>& owner = owners[static_cast<std::size_t>(serial - SERIAL)];
            EXPECT_EQ(owner.fetch_add(1), 0) << "opened twice";
            LingerFor(moment() % 300);
            owner = 0;
            EXPECT_EQ(tqCloseDevice(handle), tqNoError);
        }
        storming--;
    });
    EXPECT_EQ(tqCloseDevice(steady), tqNoError);
}

TEST_F(CallersOfSeveral, AFirstOpenHoldsNobodyUp) {
    Watchdog::Watch("beside a first open" + Seed(), PATIENCE_S);
    sim::InstrumentOptions options;
    options.serial = SERIAL + INSTRUMENTS;
    options.rejoinTime = 10ms;
    sim::Instrument& slow = Plug(options);
    slow.faults().StartNeverEnds();
    int running = -1, late = -1;
    ASSERT_EQ(tqOpenDeviceBySerial(&running, SERIAL), tqNoError);
    ASSERT_EQ(tqSetSweepCenterSpan(running, 1e9, 20e6), tqNoError);
    ASSERT_EQ(tqConfigure(running, tqModeSweeping), tqNoError);

    sim::SetSleepFactor(1);
    std::atomic<pid_t> tid = 0;
    std::atomic<bool> opened = false;
    std::thread opener([&] {
        tid = gettid();
        EXPECT_EQ(tqOpenDeviceBySerial(&late, SERIAL + INSTRUMENTS), tqNoError);
        opened = true;
    });
    WaitUntilBlocked(tid);
    int listed[9], count = 9, other = -1;
    EXPECT_EQ(tqGetDeviceList(listed, &count), tqNoError);
    EXPECT_EQ(tqOpenDeviceBySerial(&other, SERIAL + 1), tqNoError);
    EXPECT_GE(tqGetSweep(running, nullptr, nullptr, nullptr), tqNoError);
    EXPECT_EQ(tqCloseDevice(other), tqNoError);
    EXPECT_EQ(tqCloseDevice(running), tqNoError);
    EXPECT_FALSE(opened);
    sim::SetSleepFactor(SLEEP_FACTOR);
    slow.faults().Clear();
    opener.join();
    EXPECT_EQ(tqCloseDevice(late), tqNoError);
}

}  // namespace
