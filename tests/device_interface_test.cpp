#include "device_interface.h"

#include "tests/bus_fixture.h"
#include "tests/usb_gadget.h"
#include "tq_lib.h"

#include <errno.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <vector>

namespace fs = std::filesystem;

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Action = sim::BusFault::Action;
using Match = sim::BusFault::Match;
using Bytes = std::vector<uint8_t>;

constexpr int SERIAL = 12345678;
constexpr unsigned RECORD_PAGE = 4096;
constexpr unsigned RECORD_PAGES = 2048;
constexpr uint32_t FETCH_ONE_AUX = 0x31000900;

// Offsets in the record.
constexpr size_t AT_SERIAL = 8;  // outside the checksum, and the host does not read it
constexpr size_t AT_DATE = 16;
constexpr size_t AT_TIMEBASE = 32;
constexpr size_t AT_CHECKED = 700;  // inside the checksum

Bytes FactoryRecord() { return sim::BuildRecord(sim::Truth(SERIAL)); }

// A valid record that can be told from the factory's.
Bytes MarkedRecord() {
    Bytes record = FactoryRecord();
    record[AT_SERIAL] ^= 0x55;
    return record;
}

Bytes BrokenRecord() {
    Bytes record = FactoryRecord();
    record[AT_CHECKED] ^= 1;
    return record;
}

// Dated 1970, with no timebase history.
Bytes OldRecord() {
    Bytes record = MarkedRecord();
    std::fill_n(record.begin() + AT_DATE, 8, uint8_t{0});
    std::fill_n(record.begin() + AT_TIMEBASE, 2, uint8_t{0xFF});
    return record;
}

int Requests(const sim::Instrument& instrument, uint32_t code) {
    return static_cast<int>(std::ranges::count_if(instrument.Log(), [code](const sim::LogEntry& entry) {
        return entry.kind == sim::LogEntry::Kind::request && entry.value == code;
    }));
}
int Restarts(const sim::Instrument& instrument) { return Requests(instrument, 0xE0); }

class DeviceInterfaceTest : public BusFixture {
protected:
    fs::path CacheFile() const { return home / ".tarnwell" / "tq12345678.bin"; }

    Bytes Cached() const {
        std::ifstream file(CacheFile(), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }

    void Cache(const Bytes& record) {
        fs::create_directories(CacheFile().parent_path());
        std::ofstream(CacheFile(), std::ios::binary)
            .write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
    }

    sim::Instrument& PlugInstrument(sim::Program program, sim::InstrumentOptions options = {}) {
        options.serial = SERIAL;
        options.program = program;
        auto& instrument = Plug(std::move(options));
        instrument.EnableLog(true);
        return instrument;
    }

    static void ExpectDetached(const DeviceInterface& device) {
        EXPECT_FALSE(device.IsConnected());
        EXPECT_EQ(device.SerialNumber(), -1);
        EXPECT_EQ(device.usbHandle, nullptr);
        EXPECT_FALSE(ManageDevices::IsOpen(SERIAL));
    }

    // A gadget that ends reads on request, attached to.
    struct Attached {
        std::shared_ptr<UsbGadget> gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("12345678"));
        DeviceInterface device;
    };
    void Attach(Attached& attached) {
        bus.Plug(attached.gadget);
        ASSERT_TRUE(attached.device.AllocateResources(GetUSBDeviceHandleBySerial(SERIAL)));
    }
};

}  // namespace

TEST_F(DeviceInterfaceTest, BringsABootProgramToRunWithItsRecordCached) {
    sim::InstrumentOptions options;
    options.startupPolls = 3;
    sim::Instrument& instrument = PlugInstrument(sim::Program::boot, options);
    UsbGadget& foreign = Plug<UsbGadget>(UsbGadget::Identity("12345678", "Scale", 0x1234, 0x0001));
    DeviceInterface device;
    ASSERT_EQ(device.Connect(SERIAL), tqNoError);
    EXPECT_TRUE(device.IsConnected());
    EXPECT_EQ(device.SerialNumber(), SERIAL);
    EXPECT_EQ(device.TransferStatus(), tqNoError);
    EXPECT_FALSE(device.checkSumInvalid);
    EXPECT_EQ(instrument.State().program, sim::Program::run);
    EXPECT_EQ(Restarts(instrument), 0);
    EXPECT_EQ(device.calMem, instrument.PeekFlash(RECORD_PAGE, RECORD_PAGES));
    EXPECT_EQ(Cached(), device.calMem);
    EXPECT_EQ(std::ranges::count(instrument.LoggedWords(), FETCH_ONE_AUX), 4) << "aligned at the fourth packet";
    EXPECT_FALSE(bus.Use(foreign).WasWrittenTo());

    EXPECT_TRUE(GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID}).empty());
    device.Disconnect();
    ExpectDetached(device);
    EXPECT_EQ(GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID}), std::vector<int>{SERIAL});

    // With the file there, the next connection neither restarts the instrument nor sleeps.
    sim::ClearSleeps();
    DeviceInterface again;
    ASSERT_EQ(again.Connect(SERIAL), tqNoError);
    EXPECT_EQ(Restarts(instrument), 0);
    EXPECT_EQ(sim::Sleeps().total, seconds(0));
    EXPECT_EQ(again.calMem, Cached());
}

// Which of the two records wins, what becomes of the file, and what of the check.
TEST_F(DeviceInterfaceTest, ChoosesBetweenFlashAndFile) {
    const Bytes none;
    const Bytes factory = FactoryRecord();
    const Bytes marked = MarkedRecord();
    const Bytes broken = BrokenRecord();
    const Bytes old = OldRecord();
    const Bytes shortFile(factory.begin(), factory.end() - 1);
    const Bytes erased(CAL_DATA_BYTES, 0xFF);
    struct Case {
        const char* name;
        sim::Program program;
        const Bytes& flash;  // empty: none
        const Bytes& file;   // empty: none
        const Bytes& loaded;
        const Bytes& fileAfter;
        bool invalid;
        int restarts;
    };
    const Case cases[] = {
        {"run, no file: restarts to read", sim::Program::run, factory, none, factory, factory, false, 1},
        {"run, file: taken unseen", sim::Program::run, factory, old, old, old, false, 0},
        {"run, broken file: taken, reported", sim::Program::run, factory, broken, broken, broken, true, 0},
        {"run, short file: as none", sim::Program::run, factory, shortFile, factory, factory, false, 1},
        {"same date: the file stays", sim::Program::boot, factory, marked, marked, marked, false, 0},
        {"flash newer: replaces both", sim::Program::boot, factory, old, factory, factory, false, 0},
        {"file newer: stays", sim::Program::boot, old, marked, marked, marked, false, 0},
        {"broken flash: loaded, saved, reported", sim::Program::boot, broken, none, broken, broken, true, 0},
        {"empty flash: file unchecked", sim::Program::boot, none, broken, broken, broken, false, 0},
        {"nothing anywhere", sim::Program::boot, none, none, erased, none, false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(CacheFile());
        if (!c.file.empty()) Cache(c.file);
        sim::InstrumentOptions options;
        options.record = c.flash.empty() ? sim::RecordKind::none : sim::RecordKind::custom;
        options.customRecord = c.flash;
        sim::Instrument& instrument = PlugInstrument(c.program, options);
        {
            DeviceInterface device;
            EXPECT_EQ(device.Connect(SERIAL), tqNoError);
            EXPECT_TRUE(device.calMem == c.loaded);
            EXPECT_TRUE(Cached() == c.fileAfter);
            EXPECT_EQ(device.checkSumInvalid, c.invalid);
            EXPECT_EQ(Restarts(instrument), c.restarts);
        }
        bus.Unplug(instrument);
    }
}

TEST_F(DeviceInterfaceTest, ConnectsWithoutAPlaceForFiles) {
    sim::SetHome((home / "missing").string());
    sim::Instrument& instrument = PlugInstrument(sim::Program::run);
    DeviceInterface device;
    EXPECT_EQ(device.Connect(SERIAL), tqNoError);
    EXPECT_EQ(device.calMem, instrument.PeekFlash(RECORD_PAGE, RECORD_PAGES));
}

// However a connection fails, it says how and holds nothing; the fixture looks for what is left behind.
TEST_F(DeviceInterfaceTest, FailedConnectionsSayHowAndHoldNothing) {
    const sim::BusFault refusedRead{.action = Action::refuse, .match = Match::bulkOut, .nth = 1, .error = EIO};
    const sim::BusFault refusedBootToRun{.action = Action::refuse, .match = Match::bulkOut, .nth = 2, .error = EIO};
    struct Case {
        const char* name;
        sim::Program program;
        milliseconds away;
        bool cached;
        std::function<void(sim::Instrument&)> arrange;
        TqStatus status;
        int restarts;
    };
    const auto nothing = [](sim::Instrument&) {};
    const auto inject = [this](const sim::BusFault& fault) {
        return [this, fault](sim::Instrument& instrument) { bus.Inject(instrument, fault); };
    };
    const Case cases[] = {
        {"does not come back from its restart", sim::Program::run, hours(1), false, nothing, tqBootErr, 1},
        {"does not come back as run program", sim::Program::boot, hours(1), false, nothing, tqBootErr, 0},
        {"starts up for ever", sim::Program::boot, seconds(1), false,
         [](sim::Instrument& instrument) { instrument.faults().StartNeverEnds(); }, tqBootErr, 0},
        {"flash read refused", sim::Program::boot, seconds(1), false, inject(refusedRead), tqConnectionLostErr, 0},
        {"boot-to-run lost", sim::Program::boot, seconds(1), false, inject(refusedBootToRun), tqBootErr, 0},
        {"first flash page fails", sim::Program::boot, seconds(1), false,
         [](sim::Instrument& instrument) { instrument.faults().FailFlashPage(RECORD_PAGE); }, tqConnectionLostErr, 0},
        {"silent data endpoint", sim::Program::run, seconds(1), true,
         [](sim::Instrument& instrument) { instrument.faults().SilentAt(0); }, tqConnectionLostErr, 1},
        {"unplugged while aligning", sim::Program::run, seconds(1), true,
         inject({.action = Action::unplug, .match = Match::bulkIn, .nth = 2}), tqConnectionLostErr, 0},
    };
    DeviceInterface never;
    EXPECT_EQ(never.Connect(SERIAL), tqDeviceNotFoundErr);
    ExpectDetached(never);

    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(CacheFile());
        if (c.cached) Cache(FactoryRecord());
        sim::InstrumentOptions options;
        options.rejoinTime = c.away;
        options.record = sim::RecordKind::none;
        sim::Instrument& instrument = PlugInstrument(c.program, options);
        c.arrange(instrument);
        DeviceInterface device;
        EXPECT_EQ(device.Connect(SERIAL), c.status);
        ExpectDetached(device);
        EXPECT_EQ(Restarts(instrument), c.restarts);
        EXPECT_TRUE(bus.Use(instrument).HoldsNothing());
        bus.Reset();
    }
}

TEST_F(DeviceInterfaceTest, FlashFailureInMidRecordAbandonsTheConnection) {
    sim::Instrument& instrument = PlugInstrument(sim::Program::boot);
    instrument.faults().FailFlashPage(RECORD_PAGE + 1000);
    DeviceInterface device;
    EXPECT_EQ(device.Connect(SERIAL), tqConnectionLostErr);
    ExpectDetached(device);
    EXPECT_FALSE(fs::exists(CacheFile())) << "no half record";
    EXPECT_EQ(instrument.State().program, sim::Program::boot);
}

TEST_F(DeviceInterfaceTest, AlignmentDrainsAndThenFetchesOnePacketAtATime) {
    struct Case {
        const char* name;
        int backlog;   // stale units that wait on the endpoint
        int answerAt;  // the fetch that completes a unit
        bool aligned;
    };
    const Case cases[] = {
        {"fourth packet", 0, 4, true},
        {"behind a backlog", 40, 4, true},
        {"last but one attempt", 0, 15, true},
        {"last attempt does not count", 0, 16, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::atomic<int> fetches{0};
        int stale = c.backlog;
        bool answered = false;
        Attached a;
        a.gadget->onBulkOut = [&](std::span<const uint8_t> block) {
            uint32_t word = 0;
            std::memcpy(&word, block.data(), sizeof word);
            EXPECT_EQ(word, FETCH_ONE_AUX);
            ++fetches;
        };
        a.gadget->onBulkIn = [&](std::span<uint8_t> dst) {
            if (stale > 0) {
                --stale;
                return UsbGadget::Done(dst);
            }
            if (fetches < c.answerAt || answered) return sim::BulkInResult{};
            answered = true;
            return UsbGadget::Done(dst);
        };
        Attach(a);
        EXPECT_EQ(a.device.AlignXfers(), c.aligned);
        EXPECT_EQ(fetches, c.answerAt);
        EXPECT_EQ(a.device.TransferStatus(), tqNoError);
        a.device.Disconnect();
        bus.Reset();
    }
}

TEST_F(DeviceInterfaceTest, EndpointThatNeverFallsSilentFailsTheConnection) {
    Cache(FactoryRecord());
    std::atomic<int> restarts{0};
    auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("12345678"));
    gadget->onControl = [&restarts](const sim::ControlSetup& setup, std::span<uint8_t> data) {
        if (setup.request == 0xE0) ++restarts;
        return static_cast<int>(data.size());
    };
    gadget->onBulkIn = &UsbGadget::Done;
    bus.Plug(gadget);
    DeviceInterface device;
    EXPECT_EQ(device.Connect(SERIAL), tqConnectionLostErr);
    ExpectDetached(device);
    EXPECT_EQ(restarts, 1);
}

TEST_F(DeviceInterfaceTest, AnyFailedTransferSticksInTheStatus) {
    struct Case {
        const char* name;
        sim::BusFault fault;
        bool timeout;
        int moved;
    };
    const Case cases[] = {
        {"time-out", {.action = Action::hang, .nth = 2}, true, 0},
        {"short", {.action = Action::shortTransfer, .nth = 2, .bytes = 8192}, false, 8192},
        {"stall", {.action = Action::stall, .nth = 2}, true, 0},
        {"refused", {.action = Action::refuse, .nth = 2, .error = ENOMEM}, true, 0},
        {"unplug", {.action = Action::unplug, .nth = 2}, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Attached a;
        a.gadget->onBulkIn = [byte = uint8_t{0}](std::span<uint8_t> dst) mutable {
            std::ranges::fill(dst, ++byte);
            return UsbGadget::Done(dst);
        };
        Attach(a);
        bus.Inject(*a.gadget, c.fault);
        const auto read = [&](int slot) { return a.device.FullDataXfer(slot, XFER_UNIT_BYTES, 60); };

        const DMAXferStatus first = read(0);
        EXPECT_TRUE(first.Success());
        EXPECT_EQ(first.p[XFER_UNIT_BYTES - 1], 1);
        EXPECT_EQ(a.device.TransferStatus(), tqNoError);

        const DMAXferStatus second = read(31);
        EXPECT_TRUE(second.Failed());
        EXPECT_EQ(second.timeout, c.timeout);
        EXPECT_EQ(second.xferLen, c.moved);
        EXPECT_EQ(second.xferLenRequested, XFER_UNIT_BYTES);
        EXPECT_NE(second.p, nullptr) << "engines go on by the requested length";
        EXPECT_EQ(a.device.TransferStatus(), tqConnectionLostErr);

        read(0);
        EXPECT_EQ(a.device.TransferStatus(), tqConnectionLostErr) << "sticks, whatever comes";
        a.device.ClearTransferStatus();
        EXPECT_EQ(a.device.TransferStatus(), tqNoError);
        a.device.Disconnect();
        bus.Reset();
    }
}

TEST_F(DeviceInterfaceTest, SendStopsAtTheFirstFailure) {
    std::vector<uint32_t> sent;
    Attached a;
    a.gadget->onBulkOut = [&sent](std::span<const uint8_t> block) {
        EXPECT_EQ(block.size(), 2048u);
        sent.resize(sent.size() + 1);
        std::memcpy(&sent.back(), block.data(), sizeof sent.back());
    };
    Attach(a);
    TqCommand command;
    EXPECT_TRUE(a.device.SendCommands(command));
    EXPECT_TRUE(sent.empty());

    for (int i = 0; i < 3; ++i) {
        command.StartNewCommand();
        command.AddWait(i);
    }
    EXPECT_TRUE(a.device.SendCommands(command));
    EXPECT_EQ(sent, (std::vector<uint32_t>{0x10000000, 0x10000001, 0x10000002}));

    sent.clear();
    bus.Inject(*a.gadget, {.action = Action::refuse, .match = Match::bulkOut, .nth = 2, .error = EIO});
    EXPECT_FALSE(a.device.SendCommands(command));
    EXPECT_EQ(sent, std::vector<uint32_t>{0x10000000});
    EXPECT_EQ(a.device.TransferStatus(), tqConnectionLostErr);
}

TEST_F(DeviceInterfaceTest, FlashPagesUnderTheBootProgram) {
    constexpr uint16_t PAGE = 2048;
    sim::Instrument& instrument = PlugInstrument(sim::Program::boot);
    DeviceInterface device;
    ASSERT_EQ(device.ConnectBoot(GetUSBDeviceHandleBySerial(SERIAL)), tqNoError);
    Bytes page(FLASH_PAGE_BYTES);
    for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i * 13 + i / 256);

    sim::ClearSleeps();
    EXPECT_EQ(device.EraseFlashPage(PAGE), tqNoError);
    EXPECT_EQ(device.WriteFlashPage(PAGE + 1, page.data()), tqNoError);
    Bytes read(FLASH_READ_BYTES);
    EXPECT_EQ(device.ReadFlashPage(PAGE, read.data()), tqNoError);
    EXPECT_EQ(sim::Sleeps().total, milliseconds(2000 + 16 + 100));

    Bytes expected(FLASH_READ_BYTES, 0xFF);
    std::ranges::copy(page, expected.begin() + FLASH_PAGE_BYTES);
    EXPECT_EQ(read, expected);
    EXPECT_EQ(instrument.PeekFlash(PAGE, FLASH_READ_PAGES), expected);

    instrument.faults().FailFlashPage(PAGE);
    EXPECT_EQ(device.WriteFlashPage(PAGE, page.data()), tqConnectionLostErr);
    const Bytes before = read;
    EXPECT_EQ(device.ReadFlashPage(PAGE, read.data()), tqConnectionLostErr);
    EXPECT_EQ(read, before);
}

TEST_F(DeviceInterfaceTest, AttachesOnceAndRestartsOnlyWhenConnected) {
    sim::Instrument& instrument = PlugInstrument(sim::Program::boot);
    DeviceInterface device;
    EXPECT_FALSE(device.AllocateResources(nullptr));
    EXPECT_EQ(device.ConnectBoot(nullptr), tqDeviceNotFoundErr);
    EXPECT_FALSE(device.PresetDevice());
    EXPECT_EQ(Restarts(instrument), 0);

    ASSERT_EQ(device.ConnectBoot(GetUSBDeviceHandleBySerial(SERIAL)), tqNoError);
    EXPECT_EQ(bus.Use(instrument).claimedNow, 1);
    {
        const OwnedDeviceHandle second(GetUSBDeviceHandleBySerial(SERIAL));
        EXPECT_NE(second, nullptr) << "an open serial number hides nothing here";
        EXPECT_FALSE(device.AllocateResources(second.get()));
        EXPECT_EQ(device.ConnectBoot(second.get()), tqDeviceNotFoundErr);
    }
    EXPECT_TRUE(device.IsConnected());
    EXPECT_TRUE(device.PresetDevice());
    EXPECT_EQ(Restarts(instrument), 1);
    EXPECT_TRUE(device.IsConnected()) << "the handle is dead, but still held";
}
