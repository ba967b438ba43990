#include "tq_device.h"

#include "device_interface.h"
#include "device_support.h"
#include "tq_lib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Words = std::vector<uint32_t>;

constexpr int SERIAL = 12345678;
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double INF = std::numeric_limits<double>::infinity();

// One aux fetch as it goes over the wire: fetch of four, strobe, three NOPs.
const Words AUX_FETCH = {0x31000C00, 0x14000001, 0x01000000, 0x01000000, 0x01000000};

constexpr TqStatus OK = tqNoError;
constexpr TqStatus CLAMPED = tqSettingClamped;
constexpr TqStatus REJECTED = tqInvalidParameterErr;

class Device : public DeviceFixture {
protected:
    // A device whose interface is not attached: good for all that sends nothing.
    static std::unique_ptr<TqDevice> Unattached(const CalRecord* record = nullptr, int serial = SERIAL) {
        auto usb = std::make_unique<DeviceInterface>();
        usb->serialNumber = serial;
        if (record != nullptr) std::memcpy(usb->calMem.data(), record->data.get(), usb->calMem.size());
        return std::make_unique<TqDevice>(std::move(usb));
    }

    // `instrument`, opened and brought up, with a traffic log that starts behind that.
    std::unique_ptr<TqDevice> BringUp() {
        instrument = &PlugKnown(SERIAL);
        auto usb = std::make_unique<DeviceInterface>();
        EXPECT_EQ(usb->Connect(SERIAL), tqNoError);
        instrument->EnableLog(true);
        auto device = std::make_unique<TqDevice>(std::move(usb));
        EXPECT_EQ(device->InitializeDevice(), tqNoError);
        startUpWords = TakeWords();
        sim::ClearSleeps();
        return device;
    }

    // The words since the last call.
    Words TakeWords() {
        Words words = instrument->LoggedWords();
        instrument->ClearLog();
        return words;
    }

    sim::Instrument* instrument = nullptr;
    Words startUpWords;
};

// Each call builds on the one before it: a rejected one leaves standing what was stored last.
TEST_F(Device, SettersClampOrReject) {
    const auto d = Unattached();
    const auto Check = [](TqStatus status, TqStatus expected, const auto& stored, double value,
                          int line = __builtin_LINE()) {
        EXPECT_EQ(status, expected) << "line " << line;
        EXPECT_EQ(stored, value) << "line " << line;
    };

    const TqSweepSettings& sweep = d->sweepSettings;
    Check(d->SetSweepStartStop(1e9, 2e9), OK, sweep.start, 1e9);
    Check(d->SetSweepStartStop(3e9, 3e9), REJECTED, sweep.stop, 2e9);
    Check(d->SetSweepStartStop(-INF, 1e9), REJECTED, sweep.stop, 2e9);
    Check(d->SetSweepStartStop(1e9, 16e9), CLAMPED, sweep.stop, 15e9);
    Check(d->SetSweepStartStop(16e9, 17e9), CLAMPED, sweep.start, 15e9);
    Check(d->SetSweepStartStop(100.0, 200.0), CLAMPED, sweep.start, 9000.0);
    EXPECT_EQ(sweep.stop, 9000.0);
    Check(d->SetSweepCoupling(1e6, 1e5, 0.5), OK, sweep.vbw, 1e5);
    Check(d->SetSweepCoupling(0.0, 1.0, 1.0), REJECTED, sweep.rbw, 1e6);
    Check(d->SetSweepCoupling(1.0, NaN, 1.0), REJECTED, sweep.rbw, 1e6);
    Check(d->SetSweepCoupling(1000.0, 2000.0, 1.0), CLAMPED, sweep.vbw, 1000.0);
    Check(d->SetSweepCoupling(10000.0, 0.5, 1.0), CLAMPED, sweep.vbw, 1.0);
    Check(d->SetSweepCoupling(1e3, 1e3, -1.0), CLAMPED, sweep.sweepTime, 1e-6);
    Check(d->SetSweepCoupling(1e3, 1e3, 101.0), CLAMPED, sweep.sweepTime, 100.0);

    const TqRealTimeSettings& realTime = d->realTimeSettings;
    Check(d->SetRealTimeCenterSpan(2e9, 1e5), CLAMPED, realTime.span, 200000.0);
    Check(d->SetRealTimeCenterSpan(INF, INF), CLAMPED, realTime.centerFreq, 15e9);
    Check(d->SetRealTimeCenterSpan(-INF, INF), CLAMPED, realTime.centerFreq, 9000.0);
    EXPECT_EQ(realTime.span, 4e7);
    Check(d->SetRealTimeCenterSpan(1e9, NaN), REJECTED, realTime.centerFreq, 9000.0);
    Check(d->SetRealTimeRBW(1999.0), CLAMPED, realTime.rbw, 2000.0);
    Check(d->SetRealTimeRBW(INF), CLAMPED, realTime.rbw, 1e6);

    Check(d->SetIQCenterFreq(-1.0), OK, d->iqSettings.centerFreq, -1.0);
    Check(d->SetIQBandwidth(INF), REJECTED, d->iqSettings.bandwidth, 4e7);
    Check(d->SetIQQueueSize(17), CLAMPED, d->iqSettings.queueSize, 16);
    Check(d->SetIQQueueSize(1), CLAMPED, d->iqSettings.queueSize, 2);

    const std::vector<TqIQSweepListStep>& steps = d->iqSweepListSettings.steps;
    EXPECT_EQ(d->SetIQSweepListSteps(5), OK);
    Check(d->SetIQSweepListFreq(4, -INF), CLAMPED, steps[4].freq, 9000.0);
    Check(d->SetIQSweepListFreq(4, INF), CLAMPED, steps[4].freq, 15e9);
    Check(d->SetIQSweepListAtten(4, -2), CLAMPED, steps[4].atten, -1);
    Check(d->SetIQSweepListFreq(4, NaN), REJECTED, steps[4].freq, 15e9);
    Check(d->SetIQSweepListAtten(4, 7), CLAMPED, steps[4].atten, 6);
    Check(d->SetIQSweepListRef(4, NaN), REJECTED, steps[4].atten, 6);
    Check(d->SetIQSweepListRef(4, -101.0), CLAMPED, steps[4].atten, -1);
    EXPECT_EQ(steps[4].ref, -100.0);
    Check(d->SetIQSweepListRef(4, INF), CLAMPED, steps[4].ref, MAX_REF_LEVEL_DBM);
    Check(d->SetIQSweepListSampleCount(4, 0xFFFFFFFF), CLAMPED, steps[4].samples, 2147483647.0);
    EXPECT_EQ(d->SetIQSweepListSampleCount(5, 1), REJECTED);
    EXPECT_EQ(d->SetIQSweepListSteps(1001), REJECTED);
    EXPECT_EQ(steps.size(), 5u);
    EXPECT_EQ(d->SetIQSweepListSteps(1), OK);
    EXPECT_EQ(d->SetIQSweepListSteps(1000), OK);
    EXPECT_EQ(steps[4].freq, 1e9) << "a step that comes back is a new one";

    const TqAudioSettings& audio = d->audioSettings;
    Check(d->SetAudioCenterFreq(1.0), CLAMPED, audio.center, 9000.0);
    Check(d->SetAudioCenterFreq(INF), CLAMPED, audio.center, 15e9);
    Check(d->SetAudioFilters(INF, 5000.0, 50.0), CLAMPED, audio.ifBandwidth, 250000.0);
    Check(d->SetAudioFilters(499.0, 5000.0, 50.0), CLAMPED, audio.ifBandwidth, 500.0);
    Check(d->SetAudioFilters(5000.0, 999.0, 50.0), CLAMPED, audio.audioLpf, 1000.0);
    Check(d->SetAudioFilters(5000.0, INF, 50.0), CLAMPED, audio.audioLpf, 12000.0);
    Check(d->SetAudioFilters(5000.0, 5000.0, 1001.0), CLAMPED, audio.audioHpf, 1000.0);
    Check(d->SetAudioFilters(5000.0, 5000.0, 10.0), CLAMPED, audio.audioHpf, 20.0);
    Check(d->SetAudioFilters(9000.0, 9000.0, NaN), REJECTED, audio.ifBandwidth, 5000.0);
    Check(d->SetAudioFMDeemphasis(0.5), CLAMPED, audio.fmDeemphasis, 1.0);
    Check(d->SetAudioFMDeemphasis(101.0), CLAMPED, audio.fmDeemphasis, 100.0);

    Check(d->SetIQFullBandLO(1.0), OK, d->iqFullBandLOFreq, 3.84e6);
    Check(d->SetIQFullBandLO(2e10), OK, d->iqFullBandLOFreq, 1.92e10);
    Check(d->SetIQFullBandLO(NaN), REJECTED, d->iqFullBandLOFreq, 1.92e10);
}

TEST_F(Device, SweepBytesAreSortedAndReplacedAsAWhole) {
    const auto device = Unattached();
    const double freqs[] = {3e9, 1e9, 2e9}, withNaN[] = {5e9, NaN, 4e9};
    const uint8_t data[] = {3, 1, 2};
    EXPECT_EQ(device->SetSweepGPIOSwitching(freqs, data), tqNoError);
    EXPECT_EQ(device->SetSweepGPIOSwitching(withNaN, data), tqInvalidParameterErr);
    ASSERT_EQ(device->gpioSweepSteps.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(device->gpioSweepSteps[i].data, i + 1);

    EXPECT_EQ(device->SetSweepGPIOSwitching(std::span(freqs, 1), std::span(data, 1)), tqNoError);
    EXPECT_EQ(device->gpioSweepSteps.size(), 1u);
    EXPECT_EQ(device->SetSweepGPIOSwitchingDisabled(), tqNoError);
    EXPECT_TRUE(device->gpioSweepSteps.empty());
}

TEST_F(Device, BringUpSendsItsWordsInOrder) {
    const auto device = BringUp();
    ASSERT_EQ(startUpWords.size(), 227u + 3u + AUX_FETCH.size());
    EXPECT_EQ(startUpWords[0], 0x2C683C8Au);
    EXPECT_EQ(startUpWords[226], 0x3F000240u);
    EXPECT_EQ(startUpWords[227], 0x2D000001u) << "internal reference";
    EXPECT_EQ(startUpWords[228], 0x2F000000u) << "no discipline by GPS";
    EXPECT_EQ(startUpWords[229], 0x2E00791Du) << "31000 of the record, and 5 before a temperature is known";
    EXPECT_EQ(Words(startUpWords.begin() + 230, startUpWords.end()), AUX_FETCH);
    EXPECT_EQ(device->lastCoarseTuneNormalized, 31000);
    EXPECT_EQ(device->lastCoarseTune, 31005);
    EXPECT_EQ(device->GetVersionInfo().runFx3Version, 0x0203);
}

TEST_F(Device, StandbyAndWakeSendTheirWordsOnce) {
    const auto device = BringUp();
    EXPECT_EQ(device->SetPowerState(tqPowerStateOn), tqNoError);
    EXPECT_EQ(TakeWords(), Words{});
    for (int i = 0; i < 2; ++i) EXPECT_EQ(device->SetPowerState(tqPowerStateStandby), tqNoError);
    EXPECT_EQ(TakeWords(), Words{0x2C00035F});

    // Configure wakes, settles for 50 ms and writes the timebase, even if it can run no such mode.
    EXPECT_EQ(device->Configure(tqModeIdle), tqInvalidParameterErr);
    const Words words = TakeWords();
    ASSERT_EQ(words.size(), 117u + 1u);
    EXPECT_EQ(words[0], 0x2CA803CAu);
    EXPECT_EQ(words[117], 0x2E007921u) << "31000, and 9 at this temperature";
    EXPECT_EQ(sim::Sleeps().total, std::chrono::milliseconds(50));
    EXPECT_EQ(device->CloseDevice(), tqNoError);
    EXPECT_EQ(TakeWords(), Words{0x2C00035F});
}

// Each call, made first while a mode streams, which it must not disturb, then on the idle device.
TEST_F(Device, SidePortsSpeakTheirWordsAtAnOpenGateOnly) {
    const auto device = BringUp();
    const std::array<uint8_t, 5> text = {'A', 'B', 'C', 'D', 'E'};
    struct Row {
        const char* name;
        std::function<TqStatus()> call;
        Words words;
        TqStatus status = tqNoError;
    };
    const Row ROWS[] = {
        {"external", [&] { return device->SetReference(tqReferenceUseExternal); }, {0x2D000000}},
        {"external already", [&] { return device->SetReference(tqReferenceUseExternal); }, {}},
        {"internal", [&] { return device->SetReference(tqReferenceUseInternal); }, {0x2D000001}},
        {"GPS on", [&] { return device->SetGPSTimebaseUpdate(tqTrue); }, {0x2F000001}},
        {"GPS on already", [&] { return device->SetGPSTimebaseUpdate(tqTrue); }, {}},
        {"GPS off", [&] { return device->SetGPSTimebaseUpdate(tqFalse); }, {0x2F000000}},
        {"PPS out", [&] { return device->SetGPIOPort(TqGPIOFunctionPPSOut); }, {0x26600000}},
        {"low", [&] { return device->SetGPIOPort(TqGPIOFunctionLogicOutLow); }, {0x26400000}},
        {"high", [&] { return device->SetGPIOPort(TqGPIOFunctionLogicOutHigh); }, {0x26500000}},
        {"rate waits", [&] { return device->SetUARTBaudRate(9600.0f); }, {}},
        {"trigger", [&] { return device->SetGPIOPort(TqGPIOFunctionTrigIn); }, {}},
        {"UART sweep", [&] { return device->SetGPIOPort(TqGPIOFunctionUARTSweep); }, {0x26202154}},
        {"not direct", [&] { return device->WriteUARTDirect(1); }, {}, tqInvalidConfigurationErr},
        {"UART direct", [&] { return device->SetGPIOPort(TqGPIOFunctionUARTDirect); }, {0x26202154}},
        {"byte", [&] { return device->WriteUARTDirect(0x5A); }, {0x2700005A}},
        {"rate at once", [&] { return device->SetUARTBaudRate(499512.0f); }, {0x262000A3}},
        {"GPS text", [&] { return device->WriteToGPS(text); }, {0x28004241, 0x29004443, 0x28000045, 0x29000000}},
        {"timebase", [&] { return device->SetCoarseTuneVal(0xFFFE); }, {0x2E000003}},  // the sum wraps in 16 bits
        {"fan", [&] { return device->SetFanSetPoint(40.0f); }, {}},
        {"standby", [&] { return device->SetPowerState(tqPowerStateStandby); }, {0x2C00035F}},
    };
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.name);
        for (const TqMode mode : {tqModeRealTime, tqModeIQStreaming, tqModeAudio}) {
            device->currentMode = mode;
            EXPECT_EQ(row.call(), tqInvalidConfigurationErr) << mode;
        }
        EXPECT_EQ(TakeWords(), Words{});
        device->currentMode = tqModeIdle;
        EXPECT_EQ(row.call(), row.status);
        EXPECT_EQ(TakeWords(), row.words);
    }
    EXPECT_EQ(device->lastCoarseTuneNormalized, 0xFFFE);
    EXPECT_EQ(device->lastCoarseTune, 3);

    // A sweep closes only the ports that need an idle device.
    device->currentMode = tqModeSweeping;
    EXPECT_EQ(device->SetGPIOPort(TqGPIOFunctionTrigIn), tqInvalidConfigurationErr);
    EXPECT_EQ(device->SetUARTBaudRate(9600.0f), tqInvalidConfigurationErr);
    EXPECT_EQ(device->WriteUARTDirect(1), tqNoError);
    EXPECT_EQ(TakeWords(), Words{0x27000001});

    // More than a block carries goes out in several.
    const uint64_t blocks = instrument->Counters().blocks;
    EXPECT_EQ(device->WriteToGPS(std::vector<uint8_t>(1025, 0xFF)), tqNoError);
    EXPECT_EQ(instrument->Counters().blocks - blocks, 2u);
    const Words words = TakeWords();
    ASSERT_EQ(words.size(), 514u);
    EXPECT_EQ(Words(words.begin() + 511, words.end()), (Words{0x2900FFFF, 0x280000FF, 0x29000000}));
}

// The bytes of a sweep are kept whatever the port does, and go out while it is the UART of sweeps.
TEST_F(Device, SweepsCarryTheirBytesAtTheUARTOfSweepsAlone) {
    const auto device = BringUp();
    const double freqs[] = {1e9};
    const uint8_t data[] = {0x5A};
    EXPECT_EQ(device->SetSweepGPIOSwitching(freqs, data), tqNoError);
    EXPECT_EQ(device->SetSweepStartStop(0.9e9, 1.1e9), tqNoError);
    for (const TqGPIOFunction port : {TqGPIOFunctionTrigIn, TqGPIOFunctionUARTSweep, TqGPIOFunctionUARTDirect}) {
        EXPECT_EQ(device->Abort(), tqNoError);
        EXPECT_EQ(device->SetGPIOPort(port), tqNoError);
        EXPECT_EQ(device->Configure(tqModeSweeping), tqNoError);
        TakeWords();
        EXPECT_EQ(device->GetSweep(nullptr, nullptr, nullptr), tqNoError);
        EXPECT_EQ(std::ranges::count(TakeWords(), 0x2700005Au), port == TqGPIOFunctionUARTSweep ? 1 : 0) << port;
    }
}

TEST_F(Device, UARTRatesBecomeDividers) {
    const auto device = Unattached();
    constexpr auto INFINITE = std::numeric_limits<float>::infinity();
    for (const auto& [rate, divider] : {std::pair{2500.0f, 32768},
                                        {2e8f, 1},
                                        {0.0f, 32768},
                                        {-1.0f, 1},
                                        {INFINITE, 1},
                                        {1e-38f, 32768},
                                        {9600.0f, 8533}}) {
        EXPECT_EQ(device->SetUARTBaudRate(rate), tqNoError) << rate;
        EXPECT_EQ(device->UARTDivider, divider) << rate;
    }
    float rate = 0.0f;
    EXPECT_EQ(device->GetUARTBaudRate(rate), tqNoError);
    EXPECT_FLOAT_EQ(rate, 9600.375f);
}

TEST_F(Device, AuxDataIsFetchedAtAnOpenGateAndAtMostOnceASecond) {
    const auto device = BringUp();
    TqGPSState state;
    TqGPSInfo info;
    struct Row {
        const char* name;
        std::function<TqStatus()> call;
        bool whenStale;
        bool whenFresh;
    };
    const Row ROWS[] = {
        {"diagnostics", [&] { return device->GetDeviceDiagnostics(nullptr, nullptr, nullptr); }, true, false},
        {"GPS state", [&] { return device->GetGPSState(state); }, true, false},
        {"fan", [&] { return device->GetFanSettings(nullptr, nullptr); }, true, true},
        {"fix", [&] { return device->GetGPSInfo(tqFalse, nullptr, info, nullptr, nullptr); }, false, false},
        {"new fix", [&] { return device->GetGPSInfo(tqTrue, nullptr, info, nullptr, nullptr); }, true, true},
    };
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.name);
        device->lastAuxUpdate = GetSystemTicks() - 1001;
        for (const TqMode mode : {tqModeRealTime, tqModeIQStreaming, tqModeAudio}) {
            device->currentMode = mode;
            EXPECT_EQ(row.call(), tqNoError);
        }
        EXPECT_EQ(TakeWords(), Words{}) << "closed gate";
        device->currentMode = tqModeIdle;
        EXPECT_EQ(row.call(), tqNoError);
        EXPECT_EQ(TakeWords(), row.whenStale ? AUX_FETCH : Words{}) << "stale";
        device->lastAuxUpdate = GetSystemTicks();
        EXPECT_EQ(row.call(), tqNoError);
        EXPECT_EQ(TakeWords(), row.whenFresh ? AUX_FETCH : Words{}) << "fresh";
    }

    // Each Configure writes the timebase; only a stale packet is fetched anew before that.
    Words expected = {0x2E007921};
    EXPECT_EQ(device->Configure(tqModeSweeping), tqNoError);
    EXPECT_EQ(TakeWords(), expected);
    device->lastAuxUpdate = GetSystemTicks() - 1001;
    EXPECT_EQ(device->Configure(tqModeSweeping), tqNoError);
    expected.insert(expected.begin(), AUX_FETCH.begin(), AUX_FETCH.end());
    EXPECT_EQ(TakeWords(), expected);
}

TEST_F(Device, APacketWithoutMagicChangesNothingButTheFlag) {
    const auto device = BringUp();
    instrument->SetTemperature(50.0);
    instrument->faults().WrongAuxMagicAt(0);
    device->lastAuxUpdate = 1;
    float temperature = 0.0f;
    EXPECT_EQ(device->GetDeviceDiagnostics(nullptr, nullptr, &temperature), tqNoError);
    EXPECT_TRUE(device->HasFramingIssues());
    EXPECT_NEAR(temperature, 35.0f, 0.25f);
    EXPECT_EQ(device->lastAuxUpdate, 1u) << "so the next call fetches again";

    EXPECT_EQ(device->GetDeviceDiagnostics(nullptr, nullptr, &temperature), tqNoError);
    EXPECT_FALSE(device->HasFramingIssues());
    EXPECT_NEAR(temperature, 50.0f, 0.25f);
    device->UpdateAuxData(nullptr);

    // Corrections stay with the temperature of the last Configure, and warnings count from it.
    EXPECT_NE(device->corrections.GetCurrentTemp(), 50.0f);
    EXPECT_TRUE(device->readerStatus.TempWarning());
    EXPECT_EQ(device->Configure(tqModeSweeping), tqNoError);
    EXPECT_NEAR(device->corrections.GetCurrentTemp(), 50.0f, 0.25f);
    EXPECT_FALSE(device->readerStatus.TempWarning());
}

TEST_F(Device, ALostConnectionSticksAndStoresAllTheSame) {
    const auto device = BringUp();
    bus.Unplug(*instrument);
    testing::internal::CaptureStdout();
    EXPECT_EQ(device->UpdateAuxData(), tqConnectionLostErr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Aux data xfer failed\n");
    float temperature = 0.0f;
    EXPECT_EQ(device->GetDeviceDiagnostics(nullptr, nullptr, &temperature), tqConnectionLostErr);
    EXPECT_NEAR(temperature, 35.0f, 0.25f) << "as last known";
    EXPECT_EQ(device->SetReference(tqReferenceUseExternal), tqConnectionLostErr);
    EXPECT_EQ(device->referenceState, tqReferenceUseExternal);
    EXPECT_EQ(device->SetPowerState(tqPowerStateStandby), tqConnectionLostErr);
    EXPECT_EQ(device->powerState, tqPowerStateStandby);
    EXPECT_EQ(device->Configure(tqModeSweeping), tqConnectionLostErr);
    EXPECT_TRUE(device->IsIdle());
}

TEST_F(Device, FollowsTheTimebaseThatGPSSteersBeyondSevenTicks) {
    const CalRecord record;
    auto device = Unattached(&record);
    ASSERT_EQ(device->lastCoarseTune, 31000) << "the constructor adds no offset";
    TqBool holdover = tqFalse;
    uint32_t when = 0;
    TqGPSCal stored;
    TqGPSState state = tqGPSStateNotPresent;
    AuxData packet = PacketWithFix();
    packet.timebaseDAC = 40000;
    device->UpdateAuxData(&packet);
    EXPECT_EQ(device->lastCoarseTune, 31000) << "a fix, but the timebase is not locked to it";
    EXPECT_EQ(device->GetGPSState(state), tqNoError);
    EXPECT_EQ(state, tqGPSStateLocked);

    packet.statusFlags = 0x400;
    for (const uint32_t ignored : {31007u, 30993u, 0x10000u, 0x10000u + 40000u, 0xFFFF0000u}) {
        packet.timebaseDAC = ignored;
        device->UpdateAuxData(&packet);
        EXPECT_EQ(device->lastCoarseTune, 31000) << ignored;
        EXPECT_FALSE(ReadGPSCorrection(SERIAL, stored)) << ignored;
    }
    packet.timebaseDAC = 31008;
    device->UpdateAuxData(&packet);
    EXPECT_EQ(device->lastCoarseTune, 31008);
    EXPECT_EQ(device->lastCoarseTuneNormalized, 31003) << "without this unit's offset of 5";
    EXPECT_EQ(device->GetGPSState(state), tqNoError);
    EXPECT_EQ(state, tqGPSStateDisciplined);

    EXPECT_EQ(device->GetGPSHoldOverInfo(&holdover, &when), tqNoError);
    EXPECT_EQ(holdover, tqTrue);
    EXPECT_NEAR(static_cast<double>(when), static_cast<double>(GetEpochSeconds()), 100.0);

    device.reset();
    EXPECT_TRUE(ReadGPSCorrection(SERIAL, stored)) << "at the latest now";
    EXPECT_EQ(stored.voltage, 31003);
}

TEST_F(Device, StartsFromTheNewestTimebaseValue) {
    // The file in the home folder against the record; without a record or a file the timebase starts at mid scale.
    const auto WriteFile = [&](uint64_t date, uint16_t value) {
        const TqGPSCalOnFile file{MAGIC_NUMBER, 1, date, value, {}};
        WriteLocalFile(SERIAL, "gps.bin", &file, sizeof file);
    };
    CalRecord record;
    TqBool holdover = tqTrue;
    uint32_t when = 0;
    EXPECT_EQ(Unattached()->lastCoarseTune, 32768);

    WriteFile(1700000100, 20000);
    EXPECT_EQ(Unattached(&record)->lastCoarseTune, 31000) << "of the same second";
    EXPECT_EQ(Unattached()->lastCoarseTuneNormalized, 20000);
    EXPECT_EQ(Unattached(&record)->GetGPSHoldOverInfo(&holdover, &when), tqNoError);
    EXPECT_EQ(holdover, tqFalse);
    EXPECT_EQ(when, 1700000100u);

    WriteFile(1700000101, 20001);
    EXPECT_EQ(Unattached(&record)->lastCoarseTune, 20001);
    EXPECT_EQ(Unattached(&record)->lastCoarseTuneNormalized, 20001);
    EXPECT_EQ(Unattached(&record, SERIAL + 1)->lastCoarseTune, 31000) << "the file is another instrument's";

    // Of a history the last entry counts, at whatever date, and none but its own.
    record.data->calDate = 1900000000;
    record.data->timebaseCorr[1] = 31500;
    for (const bool falls : {false, true}) {
        record.data->timebaseTimestamps[0] = falls ? 1700000300 : 1700000100;
        record.data->timebaseTimestamps[1] = falls ? 1700000100 : 1700000300;
        WriteFile(1700000200, 20002);
        EXPECT_EQ(Unattached(&record)->lastCoarseTune, falls ? 20002 : 31500);
        EXPECT_EQ(Unattached(&record)->GetGPSHoldOverInfo(&holdover, nullptr), tqNoError);
        EXPECT_EQ(holdover, falls ? tqTrue : tqFalse);
        WriteFile(1700000000, 20003);
        EXPECT_EQ(Unattached(&record)->lastCoarseTune, 31500) << "the file is older than both";
    }
}

TEST_F(Device, LeavesADiscipliningInstrumentAlone) {
    const auto device = BringUp();
    const AuxData packet = PacketWithFix();
    device->UpdateAuxData(&packet);
    EXPECT_EQ(device->Configure(tqModeIdle), tqInvalidParameterErr);
    EXPECT_EQ(TakeWords(), Words{0x2E00791D}) << "a fix alone is no discipline; 0 degrees";
    EXPECT_EQ(device->SetGPSTimebaseUpdate(tqTrue), tqNoError);
    EXPECT_EQ(device->Configure(tqModeIdle), tqInvalidParameterErr);
    EXPECT_EQ(TakeWords(), Words{0x2F000001});
}

// For ThreadSanitizer: packets arrive on an engine's thread while the client reads what they change.
TEST_F(Device, AuxPacketsMayArriveWhileTheClientReads) {
    const CalRecord record;
    const auto device = Unattached();
    device->currentMode = tqModeRealTime;
    constexpr int LAST = 40000;
    std::thread engine([&] {
        AuxData packet = PacketWithFix();
        packet.statusFlags = 0x400;
        for (packet.timebaseDAC = LAST - 800; packet.timebaseDAC <= LAST; packet.timebaseDAC += 8) {
            packet.fpgaVersion = packet.bootRunFW[1] = static_cast<uint16_t>(packet.timebaseDAC);
            device->UpdateAuxData(&packet);
        }
    });
    TqVersionInfo versions;
    while (versions.fpgaVersion != LAST) {
        versions = device->GetVersionInfo();
        EXPECT_EQ(versions.bootFx3Version, versions.fpgaVersion) << "never a mixture of two packets";
        TqBool holdover = tqFalse;
        EXPECT_EQ(device->GetDeviceDiagnostics(nullptr, nullptr, nullptr), tqNoError);
        EXPECT_EQ(device->GetGPSHoldOverInfo(&holdover, nullptr), tqNoError);
        EXPECT_FALSE(device->HasFramingIssues());
        EXPECT_EQ(device->corrections.LoadCorrections(record.data.get()), tqNoError);
        uint16_t ticks = 0;
        EXPECT_EQ(device->GetCoarseTuneVal(&ticks), tqNoError);
    }
    engine.join();
}

}  // namespace
