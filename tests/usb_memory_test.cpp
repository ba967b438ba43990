// What the transfers of each mode take of the kernel's memory for USB at most, as the README tells it: too deep a queue
// in one mode takes the memory from the other instruments of the machine.
#include "sweep_fixture.h"

#include <functional>
#include <string>
#include <vector>

namespace {

struct MemoryCase {
    std::string name;
    double megabytes;  // of 10^6 bytes; buffers and records of the URBs
    std::function<void(int device)> run;
};

void GetSweep(int device, double startHz, double stopHz, double rbw, double sweepTime) {
    ASSERT_GE(tqSetSweepStartStop(device, startHz, stopHz), tqNoError);
    ASSERT_GE(tqSetSweepCoupling(device, rbw, rbw, sweepTime), tqNoError);
    ASSERT_EQ(tqConfigure(device, tqModeSweeping), tqNoError);
    ASSERT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), tqNoError);
}

void GetIQ(int device, int decimation) {
    float sample[2];
    ASSERT_EQ(tqSetIQSampleRate(device, decimation), tqNoError);
    ASSERT_EQ(tqConfigure(device, tqModeIQStreaming), tqNoError);
    ASSERT_GE(tqGetIQ(device, sample, 1, nullptr, 0, nullptr, tqFalse, nullptr, nullptr), tqNoError);
}

void GetList(int device) {
    constexpr int STEPS = 30;
    ASSERT_EQ(tqSetIQSweepListSteps(device, STEPS), tqNoError);
    for (int i = 0; i < STEPS; i++) {
        ASSERT_EQ(tqSetIQSweepListSampleCount(device, i, 63 * 2048), tqNoError);  // two steps fill a read of 1 MiB
    }
    ASSERT_EQ(tqConfigure(device, tqModeIQSweepList), tqNoError);
    ASSERT_EQ(tqIQSweepListGetSweep(device, nullptr, nullptr), tqNoError);
}

const std::vector<MemoryCase> CASES = {
    {"WideSweepAtItsDefaults", 1.13, [](int device) { GetSweep(device, 9e3, 15e9, 30e3, 1e-6); }},
    {"WideSweepOfLongSteps", 10.56, [](int device) { GetSweep(device, 9e3, 15e9, 30e3, 1.0); }},
    {"NarrowSweep", 8.38,
     [](int device) {
         GetSweep(device, 1e9, 1.0049e9, 30e3, 0.1357);  // four blocks, whose packets are all asked for at once
         GetSweep(device, 1e9, 1.0049e9, 30e3, 0.5);
     }},
    {"IQAtTheFullRate", 8.45, [](int device) { GetIQ(device, 1); }},
    {"IQDecimated", 2.15, [](int device) { GetIQ(device, 4); }},
    {"List", 10.56, GetList},
    {"RealTime", 12.64,
     [](int device) {
         ASSERT_EQ(tqConfigure(device, tqModeRealTime), tqNoError);
         ASSERT_GE(tqGetRealTimeFrame(device, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), tqNoError);
     }},
};

class UsbMemory : public SweepFixture, public ::testing::WithParamInterface<MemoryCase> {};

TEST_P(UsbMemory, PeaksAtWhatTheReadmeTells) {
    Open();
    GetParam().run(device);
    EXPECT_NEAR(static_cast<double>(bus.Use(*instrument).memoryMax) * 1e-6, GetParam().megabytes, 0.01);
}

INSTANTIATE_TEST_SUITE_P(Modes, UsbMemory, ::testing::ValuesIn(CASES), [](const auto& one) { return one.param.name; });

}  // namespace
