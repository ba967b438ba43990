#include "tq_api.h"

#include "device_interface.h"
#include "device_support.h"
#include "tq_device.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <deque>
#include <iterator>
#include <limits>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

constexpr int SERIAL = 12345678;
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double INF = std::numeric_limits<double>::infinity();

// Any int in the place of an enumeration, as a C caller can pass it.
struct Wild {
    int value;
    template <typename E>
    requires std::is_enum_v<E>
    constexpr operator E() const { return static_cast<E>(value); }
};

constexpr TqStatus OK = tqNoError;
constexpr TqStatus CLAMPED = tqSettingClamped;
constexpr TqStatus NO_PTR = tqNullPtrErr;
constexpr TqStatus BAD_ARG = tqInvalidParameterErr;
constexpr TqStatus NOT_NOW = tqInvalidConfigurationErr;

// Places for outputs that a call must not reach.
int anInt;
float aFloat;
double aDouble;
uint8_t aByte;

struct Call {
    const char* name;
    TqStatus onOpenDevice;  // what an idle device answers
    TqStatus (*call)(int device);
};

// Every export that takes a handle, with bad arguments: pointers are null one at a time, enumerations one past their
// end. The last two rows end the handle.
constexpr Call CALLS[] = {
    {"tqSetPowerState", BAD_ARG, [](int d) { return tqSetPowerState(d, Wild{2}); }},
    {"tqGetPowerState", NO_PTR, [](int d) { return tqGetPowerState(d, nullptr); }},
    {"tqGetSerialNumber", NO_PTR, [](int d) { return tqGetSerialNumber(d, nullptr); }},
    {"tqGetFirmwareVersion", NO_PTR, [](int d) { return tqGetFirmwareVersion(d, nullptr, &anInt, &anInt); }},
    {"tqGetFirmwareVersion", NO_PTR, [](int d) { return tqGetFirmwareVersion(d, &anInt, nullptr, &anInt); }},
    {"tqGetFirmwareVersion", NO_PTR, [](int d) { return tqGetFirmwareVersion(d, &anInt, &anInt, nullptr); }},
    {"tqGetDeviceDiagnostics", OK, [](int d) { return tqGetDeviceDiagnostics(d, nullptr, nullptr, nullptr); }},
    {"tqGetCalDate", NO_PTR, [](int d) { return tqGetCalDate(d, nullptr); }},
    {"tqSetFanSetPoint", BAD_ARG, [](int d) { return tqSetFanSetPoint(d, NAN); }},
    {"tqGetFanSettings", OK, [](int d) { return tqGetFanSettings(d, nullptr, nullptr); }},
    {"tqSetReference", BAD_ARG, [](int d) { return tqSetReference(d, Wild{2}); }},
    {"tqGetReference", NO_PTR, [](int d) { return tqGetReference(d, nullptr); }},
    {"tqSetGPIOPort", BAD_ARG, [](int d) { return tqSetGPIOPort(d, Wild{7}); }},
    {"tqGetGPIOPort", NO_PTR, [](int d) { return tqGetGPIOPort(d, nullptr); }},
    {"tqSetUARTBaudRate", BAD_ARG, [](int d) { return tqSetUARTBaudRate(d, NAN); }},
    {"tqGetUARTBaudRate", NO_PTR, [](int d) { return tqGetUARTBaudRate(d, nullptr); }},
    {"tqWriteUARTDirect", NOT_NOW, [](int d) { return tqWriteUARTDirect(d, 0); }},
    {"tqSetGPSTimebaseUpdate", BAD_ARG, [](int d) { return tqSetGPSTimebaseUpdate(d, Wild{2}); }},
    {"tqGetGPSTimebaseUpdate", NO_PTR, [](int d) { return tqGetGPSTimebaseUpdate(d, nullptr); }},
    {"tqGetGPSHoldoverInfo", OK, [](int d) { return tqGetGPSHoldoverInfo(d, nullptr, nullptr); }},
    {"tqGetGPSState", NO_PTR, [](int d) { return tqGetGPSState(d, nullptr); }},
    {"tqGetGPSInfo", OK,
     [](int d) { return tqGetGPSInfo(d, Wild{9}, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }},
    {"tqWriteToGPS", NO_PTR, [](int d) { return tqWriteToGPS(d, nullptr, 0); }},
    {"tqWriteToGPS", BAD_ARG, [](int d) { return tqWriteToGPS(d, &aByte, 0); }},
    {"tqSetRefLevel", BAD_ARG, [](int d) { return tqSetRefLevel(d, NaN); }},
    {"tqGetRefLevel", NO_PTR, [](int d) { return tqGetRefLevel(d, nullptr); }},
    {"tqSetAttenuator", CLAMPED, [](int d) { return tqSetAttenuator(d, 99); }},
    {"tqGetAttenuator", NO_PTR, [](int d) { return tqGetAttenuator(d, nullptr); }},
    {"tqSetSweepStartStop", BAD_ARG, [](int d) { return tqSetSweepStartStop(d, NaN, NaN); }},
    {"tqSetSweepCenterSpan", BAD_ARG, [](int d) { return tqSetSweepCenterSpan(d, NaN, NaN); }},
    {"tqSetSweepCoupling", BAD_ARG, [](int d) { return tqSetSweepCoupling(d, NaN, NaN, NaN); }},
    {"tqSetSweepDetector", BAD_ARG, [](int d) { return tqSetSweepDetector(d, Wild{2}, tqVideoLog); }},
    {"tqSetSweepDetector", BAD_ARG, [](int d) { return tqSetSweepDetector(d, tqDetectorMinMax, Wild{4}); }},
    {"tqSetSweepScale", BAD_ARG, [](int d) { return tqSetSweepScale(d, Wild{3}); }},
    {"tqSetSweepWindow", BAD_ARG, [](int d) { return tqSetSweepWindow(d, Wild{6}); }},
    {"tqSetSweepGPIOSwitching", NO_PTR, [](int d) { return tqSetSweepGPIOSwitching(d, nullptr, &aByte, 1); }},
    {"tqSetSweepGPIOSwitching", NO_PTR, [](int d) { return tqSetSweepGPIOSwitching(d, &aDouble, nullptr, 1); }},
    {"tqSetSweepGPIOSwitching", OK, [](int d) { return tqSetSweepGPIOSwitching(d, nullptr, nullptr, 0); }},
    {"tqSetSweepGPIOSwitchingDisabled", OK, [](int d) { return tqSetSweepGPIOSwitchingDisabled(d); }},
    {"tqSetRealTimeCenterSpan", BAD_ARG, [](int d) { return tqSetRealTimeCenterSpan(d, NaN, NaN); }},
    {"tqSetRealTimeRBW", BAD_ARG, [](int d) { return tqSetRealTimeRBW(d, NaN); }},
    {"tqSetRealTimeDetector", BAD_ARG, [](int d) { return tqSetRealTimeDetector(d, Wild{2}); }},
    {"tqSetRealTimeScale", BAD_ARG, [](int d) { return tqSetRealTimeScale(d, Wild{3}, 0, 0); }},
    {"tqSetRealTimeScale", BAD_ARG, [](int d) { return tqSetRealTimeScale(d, tqScaleLog, 0, NaN); }},
    {"tqSetRealTimeWindow", BAD_ARG, [](int d) { return tqSetRealTimeWindow(d, Wild{6}); }},
    {"tqSetIQDataType", BAD_ARG, [](int d) { return tqSetIQDataType(d, Wild{2}); }},
    {"tqSetIQCenterFreq", BAD_ARG, [](int d) { return tqSetIQCenterFreq(d, NaN); }},
    {"tqGetIQCenterFreq", NO_PTR, [](int d) { return tqGetIQCenterFreq(d, nullptr); }},
    {"tqSetIQSampleRate", BAD_ARG, [](int d) { return tqSetIQSampleRate(d, 3); }},
    {"tqSetIQSoftwareFilter", BAD_ARG, [](int d) { return tqSetIQSoftwareFilter(d, Wild{2}); }},
    {"tqSetIQBandwidth", BAD_ARG, [](int d) { return tqSetIQBandwidth(d, NaN); }},
    {"tqSetIQExtTriggerEdge", BAD_ARG, [](int d) { return tqSetIQExtTriggerEdge(d, Wild{2}); }},
    {"tqSetIQQueueSize", CLAMPED, [](int d) { return tqSetIQQueueSize(d, 0); }},
    {"tqSetIQSweepListDataType", BAD_ARG, [](int d) { return tqSetIQSweepListDataType(d, Wild{2}); }},
    {"tqSetIQSweepListCorrected", BAD_ARG, [](int d) { return tqSetIQSweepListCorrected(d, Wild{2}); }},
    {"tqSetIQSweepListSteps", BAD_ARG, [](int d) { return tqSetIQSweepListSteps(d, -1); }},
    {"tqGetIQSweepListSteps", NO_PTR, [](int d) { return tqGetIQSweepListSteps(d, nullptr); }},
    {"tqSetIQSweepListFreq", BAD_ARG, [](int d) { return tqSetIQSweepListFreq(d, -1, 1e9); }},
    {"tqSetIQSweepListRef", BAD_ARG, [](int d) { return tqSetIQSweepListRef(d, -1, 0.0); }},
    {"tqSetIQSweepListAtten", BAD_ARG, [](int d) { return tqSetIQSweepListAtten(d, -1, 0); }},
    {"tqSetIQSweepListSampleCount", BAD_ARG, [](int d) { return tqSetIQSweepListSampleCount(d, -1, 1); }},
    {"tqSetAudioCenterFreq", BAD_ARG, [](int d) { return tqSetAudioCenterFreq(d, NaN); }},
    {"tqSetAudioType", BAD_ARG, [](int d) { return tqSetAudioType(d, Wild{5}); }},
    {"tqSetAudioType", BAD_ARG, [](int d) { return tqSetAudioType(d, Wild{-1}); }},
    {"tqSetAudioFilters", BAD_ARG, [](int d) { return tqSetAudioFilters(d, NaN, NaN, NaN); }},
    {"tqSetAudioFMDeemphasis", BAD_ARG, [](int d) { return tqSetAudioFMDeemphasis(d, NaN); }},
    {"tqConfigure", BAD_ARG, [](int d) { return tqConfigure(d, Wild{6}); }},
    {"tqGetCurrentMode", NO_PTR, [](int d) { return tqGetCurrentMode(d, nullptr); }},
    {"tqAbort", OK, [](int d) { return tqAbort(d); }},
    {"tqGetSweepParameters", NOT_NOW,
     [](int d) { return tqGetSweepParameters(d, nullptr, nullptr, nullptr, nullptr, nullptr); }},
    {"tqGetRealTimeParameters", NOT_NOW,
     [](int d) { return tqGetRealTimeParameters(d, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }},
    {"tqGetIQParameters", NOT_NOW, [](int d) { return tqGetIQParameters(d, nullptr, nullptr); }},
    {"tqGetIQCorrection", NO_PTR, [](int d) { return tqGetIQCorrection(d, nullptr); }},
    {"tqGetIQCorrection", NOT_NOW, [](int d) { return tqGetIQCorrection(d, &aFloat); }},
    {"tqIQSweepListGetCorrections", NO_PTR, [](int d) { return tqIQSweepListGetCorrections(d, nullptr); }},
    {"tqIQSweepListGetCorrections", NOT_NOW, [](int d) { return tqIQSweepListGetCorrections(d, &aFloat); }},
    {"tqGetSweep", NOT_NOW, [](int d) { return tqGetSweep(d, nullptr, nullptr, nullptr); }},
    {"tqGetRealTimeFrame", NOT_NOW,
     [](int d) { return tqGetRealTimeFrame(d, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr); }},
    {"tqGetIQ", NO_PTR, [](int d) { return tqGetIQ(d, nullptr, 0, nullptr, 0, nullptr, tqFalse, nullptr, nullptr); }},
    {"tqGetIQ", BAD_ARG, [](int d) { return tqGetIQ(d, &aFloat, 0, nullptr, 0, nullptr, tqFalse, nullptr, nullptr); }},
    {"tqGetIQ", NOT_NOW, [](int d) { return tqGetIQ(d, &aFloat, 1, nullptr, -1, nullptr, Wild{9}, nullptr, nullptr); }},
    {"tqIQSweepListGetSweep", NOT_NOW, [](int d) { return tqIQSweepListGetSweep(d, nullptr, nullptr); }},
    {"tqIQSweepListStartSweep", NOT_NOW, [](int d) { return tqIQSweepListStartSweep(d, -1, nullptr, nullptr); }},
    {"tqIQSweepListFinishSweep", NOT_NOW, [](int d) { return tqIQSweepListFinishSweep(d, -1); }},
    {"tqGetAudio", NO_PTR, [](int d) { return tqGetAudio(d, nullptr); }},
    {"tqGetAudio", NOT_NOW, [](int d) { return tqGetAudio(d, &aFloat); }},
    {"tqPresetDevice", OK, [](int d) { return tqPresetDevice(d); }},
    {"tqCloseDevice", tqInvalidDeviceErr, [](int d) { return tqCloseDevice(d); }},
};

TEST(Handles, AreCheckedBeforeAnythingElse) {
    std::set<std::string> names;
    for (const Call& row : CALLS) {
        names.insert(row.name);
        for (const int handle : {-1, 0, 8, 9, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
            EXPECT_EQ(row.call(handle), tqInvalidDeviceErr) << row.name << ' ' << handle;
        }
    }

    // The list of exports knows which names take a handle: all plain ones but these.
    std::set<std::string> expected;
    std::ifstream exports(std::filesystem::path(__FILE__).replace_filename("exports.txt"));
    for (std::string type, name; exports >> type && std::getline(exports >> std::ws, name);) {
        if (name.find('(') == std::string::npos) expected.insert(name);
    }
    for (const char* other : {"tqGetErrorString", "tqGetAPIVersion", "tqGetDeviceList", "tqOpenDevice",
                              "tqOpenDeviceBySerial", "tqSetIQTriggerSentinel"}) {
        EXPECT_EQ(expected.erase(other), 1u) << other;
    }
    EXPECT_EQ(names, expected);
}

TEST(Texts, EveryStatusHasItsOwn) {
    std::set<std::string> texts;
    constexpr int NAMED[] = {-101, -100, -11, -10, -9, -8, -7, -6, -5, -4, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6};
    for (const int status : NAMED) texts.insert(tqGetErrorString(Wild{status}));
    EXPECT_EQ(texts.size(), std::size(NAMED));
    EXPECT_FALSE(texts.contains("Unknown error"));
    EXPECT_STREQ(tqGetErrorString(tqConnectionLostErr), "Connection lost");
    for (const int status : {7, -12, -102}) EXPECT_STREQ(tqGetErrorString(Wild{status}), "Unknown error");
}

class Frame : public DeviceFixture {
protected:
    void TearDown() override {
        for (int handle = 0; handle < 9; ++handle) tqCloseDevice(handle);
        DeviceFixture::TearDown();
    }

    static int Open(int serial = SERIAL, TqStatus expected = tqNoError) {
        int handle = -1;
        EXPECT_EQ(tqOpenDeviceBySerial(&handle, serial), expected);
        return handle;
    }

    sim::Instrument& PlugAndOpen() {
        sim::Instrument& instrument = PlugKnown(SERIAL);
        device = Open();
        return instrument;
    }

    TqMode Mode() const {
        TqMode mode = tqModeAudio;
        EXPECT_EQ(tqGetCurrentMode(device, &mode), tqNoError);
        return mode;
    }

    int device = -1;
};

TEST_F(Frame, ArgumentsAreCheckedOnAnOpenDevice) {
    PlugAndOpen();
    for (const int decimation : {0, -2, 12, 16384, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(tqSetIQSampleRate(device, decimation), BAD_ARG) << decimation;
    }
    int x = 77;
    int64_t time = 77;
    EXPECT_EQ(tqGetRealTimeFrame(device, nullptr, nullptr, nullptr, nullptr, &x, &time), NOT_NOW);
    EXPECT_EQ(x, 0);
    EXPECT_EQ(time, 0);
    EXPECT_EQ(tqGetDeviceList(nullptr, &x), NO_PTR);
    EXPECT_EQ(tqGetDeviceList(&x, nullptr), NO_PTR);
    EXPECT_EQ(tqOpenDevice(nullptr), NO_PTR);
    EXPECT_EQ(tqOpenDeviceBySerial(nullptr, SERIAL), NO_PTR);

    sim::ClearSleeps();
    for (const Call& row : CALLS) EXPECT_EQ(row.call(device), row.onOpenDevice) << row.name;

    // What the preset has left.
    EXPECT_GE(sim::Sleeps().total, std::chrono::seconds(6));
    EXPECT_TRUE(bus.WaitListed("12345678", "TQ720 Boot"));
}

TEST_F(Frame, SharedLevelSettingsClampAndLeaveEachOtherAlone) {
    PlugAndOpen();
    const auto Check = [&](TqStatus status, TqStatus expected, double level, int atten, int line = __builtin_LINE()) {
        double storedLevel = NaN;
        int storedAtten = 99;
        EXPECT_EQ(status, expected) << "line " << line;
        EXPECT_EQ(tqGetRefLevel(device, &storedLevel), tqNoError);
        EXPECT_EQ(tqGetAttenuator(device, &storedAtten), tqNoError);
        EXPECT_EQ(storedLevel, level) << "line " << line;
        EXPECT_EQ(storedAtten, atten) << "line " << line;
    };
    Check(tqSetRefLevel(device, -200.0), OK, -200.0, -1);
    Check(tqSetRefLevel(device, INF), CLAMPED, 20.0, -1);
    Check(tqSetRefLevel(device, -INF), BAD_ARG, 20.0, -1);
    Check(tqSetAttenuator(device, 6), OK, 20.0, 6);
    Check(tqSetAttenuator(device, -2), CLAMPED, 20.0, -1);
    Check(tqSetAttenuator(device, 7), CLAMPED, 20.0, 6);
    Check(tqSetRefLevel(device, 20.0), OK, 20.0, 6);
}

TEST_F(Frame, ListsWhatIsAttachedAndNotOpen) {
    std::array<int, 3> serials{-1, -1, -1};
    const auto List = [&](int room) {
        int count = room;
        EXPECT_EQ(tqGetDeviceList(serials.data(), &count), tqNoError);
        return count;
    };
    EXPECT_EQ(List(3), 0);
    EXPECT_EQ(tqOpenDevice(&device), tqDeviceNotFoundErr);
    EXPECT_EQ(tqOpenDeviceBySerial(&device, SERIAL), tqDeviceNotFoundErr);
    EXPECT_EQ(device, -1);

    PlugKnown(1);
    PlugKnown(2);
    EXPECT_EQ(List(0), 0);
    EXPECT_EQ(List(-1), -1);
    EXPECT_EQ(serials[0], -1) << "no room, nothing written";
    EXPECT_EQ(List(1), 1);
    EXPECT_EQ(serials[1], -1);

    const int first = serials[0];
    ASSERT_EQ(tqOpenDevice(&device), tqNoError);
    int serial = 0;
    EXPECT_EQ(tqGetSerialNumber(device, &serial), tqNoError);
    EXPECT_EQ(serial, first);
    EXPECT_EQ(List(3), 1);
    EXPECT_NE(serials[0], first);
}

TEST_F(Frame, NineInstrumentsAndThenTheFreedHandle) {
    for (int serial = 1; serial <= 10; ++serial) PlugKnown(serial);
    for (int serial = 1; serial <= 9; ++serial) EXPECT_EQ(Open(serial), serial - 1);
    EXPECT_EQ(Open(10, tqMaxDevicesConnectedErr), -1);
    EXPECT_EQ(tqCloseDevice(4), tqNoError);
    EXPECT_EQ(tqCloseDevice(4), tqInvalidDeviceErr);
    EXPECT_EQ(Open(10), 4);
    int serial = 0;
    EXPECT_EQ(tqGetSerialNumber(4, &serial), tqNoError);
    EXPECT_EQ(serial, 10);
}

// Takes commands, and so answers, late.
class LateInstrument : public sim::Instrument {
public:
    using sim::Instrument::Instrument;

    int BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> data) override {
        const auto now = std::chrono::steady_clock::now();
        commands.push_back({now + (lateCommands-- > 0 ? delay : delay.zero()), {data.begin(), data.end()}});
        Obey(endpoint, now);
        return static_cast<int>(data.size());
    }
    sim::BulkInResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) override {
        Obey(sim::COMMAND_ENDPOINT, std::chrono::steady_clock::now());
        sim::BulkInResult result = sim::Instrument::BulkIn(endpoint, dst);
        if (!commands.empty()) result.retryAt = commands.front().first;
        return result;
    }

    std::chrono::milliseconds delay{0};  // of the first `lateCommands`
    int lateCommands = 0;

private:
    void Obey(std::uint8_t endpoint, std::chrono::steady_clock::time_point now) {
        for (; !commands.empty() && commands.front().first <= now; commands.pop_front()) {
            sim::Instrument::BulkOut(endpoint, commands.front().second);
        }
    }

    std::deque<std::pair<std::chrono::steady_clock::time_point, std::vector<std::uint8_t>>> commands;
};

// What an interrupted program left on the data endpoint, and answers behind the 100 ms that alignment gives them.
TEST_F(Frame, AnOpenThatSaysYesIsInStep) {
    const struct {
        const char* name;
        int asked, read;  // [packets], [bytes]
        int delayMs, lateCommands;
        bool opens;  // with answers in time; else it depends on the machine
    } cases[] = {
        {"a unit and three packets", 7, 0, 0, 0, true},
        {"a short read of whole packets", 4, 8192, 0, 0, false},
        {"a short read amid a packet", 4, 1000, 0, 0, false},
        {"one answer late", 0, 0, 150, 5, true},
        {"one late answer behind two packets", 2, 0, 150, 2, true},
        {"a unit late", 0, 0, 440, 8, true},
        {"all answers late", 0, 0, 150, 1000, true},
    };
    int serial = SERIAL;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteLocalFile(++serial, ".bin", CalRecord().data.get(), sizeof(TQ720CalData));
        sim::InstrumentOptions options;
        options.serial = static_cast<uint32_t>(serial);
        auto& instrument = Plug<LateInstrument>(options);
        DeviceInterface before;
        ASSERT_EQ(before.Connect(serial), tqNoError);
        TqCommand fetch;
        fetch.StartNewCommand();
        for (int i = 0; i < c.asked; ++i) fetch.AddFetchAux(1);
        ASSERT_TRUE(before.SendCommands(fetch));
        if (c.read > 0) before.FullDataXfer(0, c.read, 2000);
        before.Disconnect();

        instrument.delay = std::chrono::milliseconds(c.delayMs);
        instrument.lateCommands = c.lateCommands;
        const TqStatus status = tqOpenDeviceBySerial(&device, serial);
        if (c.lateCommands == 0) {
            EXPECT_EQ(status == tqNoError, c.opens);
        }
        if (status != tqNoError) {
            EXPECT_EQ(status, tqConnectionLostErr);
            EXPECT_EQ(instrument.Identity().product, "TQ720 Boot") << "restarted";
            instrument.lateCommands = 0;
            ASSERT_EQ(Open(serial), 0);
        }
        EXPECT_EQ(tqConfigure(0, tqModeSweeping), tqNoError);
        EXPECT_EQ(tqGetSweep(0, nullptr, nullptr, nullptr), tqNoError);
        EXPECT_EQ(tqCloseDevice(0), tqNoError);
    }
}

TEST_F(Frame, ABadRecordOpensWithAWarning) {
    CalRecord record;
    record.data->checksum = 1;  // must be 0 in this version of the record
    PlugKnown(SERIAL, record);
    uint32_t date = 0;
    EXPECT_EQ(tqGetCalDate(Open(SERIAL, tqInvalidCalData), &date), tqNoError);
    EXPECT_EQ(date, 1700000000u) << "the record is used all the same";
}

TEST_F(Frame, ModesStartStopAndFailIntoIdle) {
    PlugAndOpen();
    EXPECT_EQ(Mode(), tqModeIdle);
    EXPECT_EQ(tqAbort(device), tqNoError);

    EXPECT_EQ(tqSetSweepCenterSpan(device, 1e9, 5e6), tqNoError);
    EXPECT_EQ(tqConfigure(device, tqModeSweeping), tqNoError) << "exactly the narrowest wide sweep";
    EXPECT_EQ(Mode(), tqModeSweeping);
    double rbw = 0.0, vbw = 0.0, start = 0.0, binSize = 0.0;
    int size = 0;
    EXPECT_EQ(tqGetSweepParameters(device, &rbw, &vbw, &start, &binSize, &size), tqNoError);
    EXPECT_NEAR(rbw, 30000.0, 10.0);
    EXPECT_EQ(vbw, 30000.0);
    EXPECT_EQ(start, 1e9 - 2.5e6);
    EXPECT_EQ(binSize, 7500.0);
    EXPECT_EQ(size, 668);

    // A wrong value stops nothing; idle does.
    EXPECT_EQ(tqConfigure(device, Wild{99}), BAD_ARG);
    EXPECT_EQ(Mode(), tqModeSweeping);
    EXPECT_EQ(tqConfigure(device, tqModeIdle), BAD_ARG);
    EXPECT_EQ(Mode(), tqModeIdle);
    EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), NOT_NOW);

    // One hertz less takes the narrow plan, which has a bin at the centre.
    EXPECT_EQ(tqSetSweepCenterSpan(device, 1e9, 4999999.0), tqNoError);
    EXPECT_EQ(tqConfigure(device, tqModeSweeping), tqNoError);
    EXPECT_EQ(tqGetSweepParameters(device, nullptr, nullptr, &start, &binSize, nullptr), tqNoError);
    EXPECT_EQ(std::fmod(1e9 - start, binSize), 0.0);

    // An empty list stops what runs; with a step it runs.
    EXPECT_EQ(tqConfigure(device, tqModeIQSweepList), NOT_NOW);
    EXPECT_EQ(Mode(), tqModeIdle);
    EXPECT_EQ(tqSetIQSweepListSteps(device, 1), tqNoError);
    EXPECT_EQ(tqSetIQSweepListSampleCount(device, 0, 1000), tqNoError);
    EXPECT_EQ(tqConfigure(device, tqModeIQSweepList), tqNoError);
    EXPECT_EQ(Mode(), tqModeIQSweepList);
    // The endpoints belong to a pass that is under way, and are free between passes.
    std::vector<float> samples(2000);
    EXPECT_EQ(tqIQSweepListStartSweep(device, 3, samples.data(), nullptr), tqNoError);
    EXPECT_EQ(tqSetReference(device, tqReferenceUseExternal), NOT_NOW);
    EXPECT_EQ(tqIQSweepListFinishSweep(device, 3), tqNoError);
    EXPECT_EQ(tqSetReference(device, tqReferenceUseExternal), tqNoError);
    EXPECT_EQ(tqGetIQParameters(device, &rbw, &vbw), NOT_NOW);

    // The stream answers for itself alone.
    float scale = 0.0f;
    EXPECT_EQ(tqConfigure(device, tqModeIQStreaming), tqNoError);
    EXPECT_EQ(Mode(), tqModeIQStreaming);
    EXPECT_EQ(tqGetIQCorrection(device, &scale), tqNoError);
    EXPECT_GT(scale, 0.0f);
    EXPECT_EQ(tqGetSweep(device, nullptr, nullptr, nullptr), NOT_NOW);
    EXPECT_EQ(tqGetAudio(device, &scale), NOT_NOW);

    // An RBW that no memory holds.
    EXPECT_EQ(tqSetSweepCenterSpan(device, 1e9, 5e6), tqNoError);
    EXPECT_EQ(tqSetSweepCoupling(device, 1e-3, 1e-3, 1.0), tqNoError);
    EXPECT_EQ(tqConfigure(device, tqModeSweeping), tqAllocationErr);
    EXPECT_EQ(Mode(), tqModeIdle);
}

TEST_F(Frame, ReadingsGoFromTheInstrumentToTheCaller) {
    sim::Instrument& instrument = PlugAndOpen();
    float temperature = 0.0f, voltage = 0.0f, current = 0.0f;
    EXPECT_EQ(tqGetDeviceDiagnostics(device, &voltage, &current, &temperature), tqNoError);
    EXPECT_NEAR(temperature, 35.0f, 0.25f);
    EXPECT_GT(voltage, 1.0f);
    EXPECT_GT(current, 0.0f);
    EXPECT_NE(voltage, current);

    int major = 0, minor = 0, rev = 0;
    EXPECT_EQ(tqGetFirmwareVersion(device, &major, &minor, &rev), tqNoError);
    EXPECT_EQ(major, 0x0102);
    EXPECT_EQ(minor, 0x0203);
    EXPECT_EQ(rev, 0x0107);

    float setPoint = 0.0f;
    EXPECT_EQ(tqSetFanSetPoint(device, 30.5f), tqNoError);
    EXPECT_EQ(tqSetFanSetPoint(device, std::numeric_limits<float>::infinity()), BAD_ARG);
    EXPECT_EQ(instrument.State().fanSetPoint, 488);
    EXPECT_EQ(tqGetFanSettings(device, &setPoint, nullptr), tqNoError);
    EXPECT_EQ(setPoint, 30.5f);

    instrument.SetGps(sim::GpsState::locked);
    instrument.AdvanceTime(std::chrono::seconds(3));
    TqBool updated = tqFalse;
    TqGPSState state = tqGPSStateNotPresent;
    int64_t seconds = 0;
    double latitude = 0.0, longitude = 0.0, altitude = 0.0;
    std::array<char, 400> text{};
    int length = static_cast<int>(text.size());
    EXPECT_EQ(tqGetGPSInfo(device, tqTrue, &updated, &seconds, &latitude, &longitude, &altitude, text.data(), &length),
              tqNoError);
    EXPECT_EQ(updated, tqTrue);
    EXPECT_GT(seconds, 0);
    EXPECT_NEAR(latitude, 48.1173, 1e-6);
    EXPECT_NEAR(longitude, 11.516667, 1e-6);
    EXPECT_EQ(altitude, 545.4);
    EXPECT_NE(std::string(text.data()).find("RMC"), std::string::npos);
    EXPECT_EQ(static_cast<size_t>(length), std::string(text.data()).size() + 1);
    EXPECT_EQ(tqGetGPSState(device, &state), tqNoError);
    EXPECT_EQ(state, tqGPSStateLocked);
    EXPECT_EQ(tqGetGPSInfo(device, tqFalse, &updated, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), tqNoError);
    EXPECT_EQ(updated, tqFalse) << "without a refresh nothing new has come";
}

}  // namespace
