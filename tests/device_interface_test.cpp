#include "device_interface.h"

#include "tests/device_support.h"
#include "tests/usb_gadget.h"
#include "tq_lib.h"

#include <errno.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Of the allocations of this size by this thread the nth from now on fails, once; 0: none.
struct FailingAllocation {
    std::size_t bytes;
    int nth;
};
thread_local FailingAllocation failing = {};

}  // namespace

// Sanitizers bring allocators of their own, which nothing may stand in front of.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool CAN_FAIL = false;
#else
constexpr bool CAN_FAIL = true;
[[gnu::noinline]] void* operator new(std::size_t bytes) {  // the library's delete frees what malloc gave
    if (bytes == failing.bytes && failing.nth > 0 && --failing.nth == 0) throw std::bad_alloc();
    if (void* const memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}
#endif

namespace {

using namespace std::chrono_literals;
using Action = sim::BusFault::Action;
using Match = sim::BusFault::Match;
using Bytes = std::vector<uint8_t>;

constexpr int SERIAL = 12345678;
constexpr unsigned RECORD_PAGE = 4096;

Bytes FactoryRecord() { return sim::BuildRecord(sim::Truth(SERIAL)); }

int Restarts(const sim::Instrument& instrument) {
    return static_cast<int>(std::ranges::count_if(instrument.Log(), [](const sim::LogEntry& entry) {
        return entry.kind == sim::LogEntry::Kind::request && entry.value == 0xE0;
    }));
}

class DeviceInterfaceTest : public DeviceFixture {
protected:
    fs::path CacheFile() const { return home / ".tarnwell" / "tq12345678.bin"; }
    void Cache(const Bytes& record) { WriteLocalFile(SERIAL, ".bin", record.data(), record.size()); }
    Bytes Cached() const {
        std::ifstream file(CacheFile(), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
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

    // To a gadget that has been told what to do.
    void Attach(DeviceInterface& device) {
        bus.Plug(gadget);
        ASSERT_TRUE(device.AllocateResources(GetUSBDeviceHandleBySerial(SERIAL)));
    }

    std::shared_ptr<UsbGadget> gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("12345678"));
};

}  // namespace

// Which of the two records wins, what becomes of the file, and what of the check.
TEST_F(DeviceInterfaceTest, ChoosesBetweenFlashAndFile) {
    using sim::Program;
    const Bytes none;
    const Bytes factory = FactoryRecord();
    Bytes marked = factory;  // valid, and not the factory's: byte 8 is outside the checksum, and byte 700 inside
    marked[8] ^= 0x55;
    Bytes broken = factory;
    broken[700] ^= 1;
    Bytes old = marked;  // dated 1970, with no timebase history
    std::fill_n(old.begin() + 16, 8, uint8_t{0});
    std::fill_n(old.begin() + 32, 2, uint8_t{0xFF});
    const Bytes shortFile(factory.begin(), factory.end() - 1);
    const Bytes erased(CAL_DATA_BYTES, 0xFF);
    const struct {
        const char* name;
        Program program;
        const Bytes& flash;  // empty: none, as for files
        const Bytes& file;
        const Bytes& loaded;
        const Bytes& fileAfter;
        bool invalid;
        int restarts;
    } cases[] = {
        {"run, no file: restarts to read", Program::run, factory, none, factory, factory, false, 1},
        {"run, file: taken unseen", Program::run, factory, old, old, old, false, 0},
        {"run, broken file: taken, reported", Program::run, factory, broken, broken, broken, true, 0},
        {"run, short file: as none", Program::run, factory, shortFile, factory, factory, false, 1},
        {"boot, no file: reads", Program::boot, factory, none, factory, factory, false, 0},
        {"same date: the file stays", Program::boot, factory, marked, marked, marked, false, 0},
        {"flash newer: replaces both", Program::boot, factory, old, factory, factory, false, 0},
        {"file newer: stays", Program::boot, old, marked, marked, marked, false, 0},
        {"broken flash: loaded, saved, reported", Program::boot, broken, none, broken, broken, true, 0},
        {"empty flash: file unchecked", Program::boot, none, broken, broken, broken, false, 0},
        {"nothing anywhere", Program::boot, none, none, erased, none, false, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(CacheFile());
        if (!c.file.empty()) Cache(c.file);
        sim::InstrumentOptions options;
        options.record = c.flash.empty() ? sim::RecordKind::none : sim::RecordKind::custom;
        options.customRecord = c.flash;
        sim::Instrument& instrument = PlugInstrument(c.program, options);
        DeviceInterface device;
        EXPECT_EQ(device.Connect(SERIAL), tqNoError);
        EXPECT_TRUE(device.calMem == c.loaded);
        EXPECT_TRUE(Cached() == c.fileAfter);
        EXPECT_EQ(device.checkSumInvalid, c.invalid);
        EXPECT_EQ(Restarts(instrument), c.restarts);
        EXPECT_EQ(instrument.State().program, Program::run);
        device.Disconnect();
        ExpectDetached(device);
        bus.Unplug(instrument);
    }
}

// However a connection fails, it says how and holds nothing; the fixture looks for what is left behind.
TEST_F(DeviceInterfaceTest, FailedConnectionsSayHowAndHoldNothing) {
    using sim::Instrument;
    using sim::Program;
    const auto nothing = [](Instrument&) {};
    const auto refuse = [this](Match match, int nth) {
        return [this, match, nth](Instrument& instrument) {
            bus.Inject(instrument, {.action = Action::refuse, .match = match, .nth = nth, .error = EIO});
        };
    };
    const auto unplug = [this](Instrument& instrument) {
        bus.Inject(instrument, {.action = Action::unplug, .match = Match::bulkIn, .nth = 2});
    };
    const auto startsForEver = [](Instrument& instrument) { instrument.faults().StartNeverEnds(); };
    const auto silent = [](Instrument& instrument) { instrument.faults().SilentAt(0); };
    const struct {
        const char* name;
        Program program;
        std::chrono::milliseconds away;
        bool cached;
        std::function<void(Instrument&)> arrange;
        TqStatus status;
        int restarts;
    } cases[] = {
        {"does not come back from its restart", Program::run, 1h, false, nothing, tqBootErr, 1},
        {"does not come back as run program", Program::boot, 1h, false, nothing, tqBootErr, 0},
        {"starts up for ever", Program::boot, 1s, false, startsForEver, tqBootErr, 0},
        {"flash read refused", Program::boot, 1s, false, refuse(Match::bulkOut, 1), tqConnectionLostErr, 0},
        {"boot-to-run lost", Program::boot, 1s, false, refuse(Match::bulkOut, 2), tqBootErr, 0},
        {"program not readable at first", Program::run, 1s, true, refuse(Match::control, 3), tqBootErr, 0},
        {"silent data endpoint", Program::run, 1s, true, silent, tqConnectionLostErr, 1},
        {"unplugged while aligning", Program::run, 1s, true, unplug, tqConnectionLostErr, 0},
    };
    for (const auto& c : cases) {
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

// Whatever is refused, nothing is held then, and the same object connects.
TEST_F(DeviceInterfaceTest, MemoryThatIsMissingOnceIsNoHindranceLater) {
    if (!CAN_FAIL) GTEST_SKIP();
    constexpr std::size_t SLOT = USBBulkTransfer::MAX_XFER_SIZE;
    const struct {
        const char* name;
        sim::Program program;
        FailingAllocation fails;
    } cases[] = {
        {"first slot", sim::Program::run, {SLOT, 1}},
        {"last slot", sim::Program::run, {SLOT, USB_XFER_SLOTS}},
        {"record, under the boot program", sim::Program::boot, {FLASH_READ_BYTES, 1}},
        {"first slot of the run program behind it", sim::Program::boot, {SLOT, USB_XFER_SLOTS + 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(CacheFile());
        if (c.program == sim::Program::run) Cache(FactoryRecord());
        sim::Instrument& instrument = PlugInstrument(c.program);
        DeviceInterface device;
        failing = c.fails;
        EXPECT_EQ(device.Connect(SERIAL), tqAllocationErr);
        EXPECT_EQ(failing.nth, 0);
        ExpectDetached(device);
        EXPECT_TRUE(bus.Use(instrument).HoldsNothing());
        EXPECT_EQ(device.Connect(SERIAL), tqNoError);
        device.Disconnect();
        bus.Reset();
    }
}

TEST_F(DeviceInterfaceTest, FlashFailureInMidRecordAbandonsTheConnection) {
    sim::Instrument& instrument = PlugInstrument(sim::Program::boot);
    instrument.faults().FailFlashPage(RECORD_PAGE + 1000);
    sim::SetTimeoutSlack({});
    DeviceInterface device;
    EXPECT_EQ(device.Connect(SERIAL), tqConnectionLostErr);
    ExpectDetached(device);
    EXPECT_FALSE(fs::exists(CacheFile())) << "no half record";
    EXPECT_EQ(instrument.State().program, sim::Program::boot);
}

TEST_F(DeviceInterfaceTest, AlignmentDrainsAndThenFetchesOnePacketAtATime) {
    const struct {
        int backlog;   // stale units that wait on the endpoint
        int answerAt;  // the fetch that completes a unit
        bool aligned;
    } cases[] = {
        {40, 4, true}, {0, 15, true}, {0, 16, false},  // success at the last attempt does not count
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answerAt);
        std::atomic<int> fetches{0};
        int unread = c.backlog + 1;
        gadget->onBulkOut = [&](std::span<const uint8_t> block) {
            constexpr uint8_t FETCH[] = {0x00, 0x09, 0x00, 0x31};
            EXPECT_TRUE(std::ranges::equal(FETCH, block.first(4)));
            ++fetches;
        };
        gadget->onBulkIn = [&](std::span<uint8_t> dst) {
            if (unread == 0 || (unread == 1 && fetches < c.answerAt)) return sim::BulkInResult{};
            --unread;
            return UsbGadget::Done(dst);
        };
        DeviceInterface device;
        Attach(device);
        EXPECT_EQ(device.AlignXfers(), c.aligned);
        EXPECT_EQ(fetches, c.answerAt);
        EXPECT_EQ(device.TransferStatus(), tqNoError);
        device.Disconnect();
        bus.Reset();
    }
}

TEST_F(DeviceInterfaceTest, EndpointThatNeverFallsSilentFailsTheConnection) {
    Cache(FactoryRecord());
    gadget->onBulkIn = &UsbGadget::Done;
    bus.Plug(gadget);
    DeviceInterface device;
    EXPECT_EQ(device.Connect(SERIAL), tqConnectionLostErr);
    ExpectDetached(device);
}

// A unit every 5 ms never lets a read of the drain time out.
TEST_F(DeviceInterfaceTest, AlignmentWaitsFiveSecondsForSilence) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    Clock::time_point next = start;
    gadget->onBulkIn = [&](std::span<uint8_t> dst) {
        const Clock::time_point now = Clock::now();
        if (now < next) return sim::BulkInResult{.retryAt = next};
        if (now > start + 8s) return sim::BulkInResult{};  // the end of a test that has failed
        next = now + 5ms;
        return UsbGadget::Done(dst);
    };
    DeviceInterface device;
    Attach(device);
    EXPECT_FALSE(device.AlignXfers());
    EXPECT_LT(Clock::now() - start, 7s);
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
    EXPECT_EQ(sim::Sleeps().total, 2000ms + 16ms + 100ms);

    Bytes expected(FLASH_READ_BYTES, 0xFF);
    std::ranges::copy(page, expected.begin() + FLASH_PAGE_BYTES);
    EXPECT_EQ(read, expected);

    instrument.faults().FailFlashPage(PAGE);
    EXPECT_EQ(device.WriteFlashPage(PAGE, page.data()), tqConnectionLostErr);
    device.ClearTransferStatus();
    const Bytes untouched(FLASH_READ_BYTES, 0x55);
    read = untouched;
    EXPECT_EQ(device.ReadFlashPage(PAGE, read.data()), tqConnectionLostErr);
    EXPECT_EQ(read, untouched);
}

// Of another program, which for the kernel is any other descriptor.
TEST_F(DeviceInterfaceTest, InstrumentThatIsClaimedElsewhereIsLeftAlone) {
    for (const sim::Program program : {sim::Program::run, sim::Program::boot}) {
        for (const bool cached : {false, true}) {
            SCOPED_TRACE(cached);
            if (cached) Cache(FactoryRecord());
            sim::Instrument& instrument = PlugInstrument(program);
            OwnedDeviceHandle owner(GetUSBDeviceHandleBySerial(SERIAL));
            EXPECT_TRUE(ClaimUSBInterface(owner.get()));
            DeviceInterface device;
            EXPECT_EQ(device.Connect(SERIAL), tqDeviceNotFoundErr);
            EXPECT_TRUE(device.ownedElsewhere);
            ExpectDetached(device);
            EXPECT_EQ(bus.Use(instrument).controlWrites + bus.Use(instrument).bulkOut + bus.Use(instrument).bulkIn, 0);
            owner.reset();
            EXPECT_EQ(device.Connect(SERIAL), tqNoError);
            EXPECT_FALSE(device.ownedElsewhere);
            device.Disconnect();
            bus.Reset();
            fs::remove_all(CacheFile());
        }
    }
}

// Without uevents libusb's list stays as it was when its context was made, and that must wait for the last handle.
TEST_F(DeviceInterfaceTest, InstrumentIsFoundBehindItsRestartsWithoutUevents) {
    PlugInstrument(sim::Program::run);
    PlugKnown(1);
    DeviceInterface device;
    OwnedDeviceHandle other(GetUSBDeviceHandleBySerial(1));
    bus.SetUevents(false);
    EXPECT_EQ(device.Connect(SERIAL), tqBootErr);
    other.reset();
    EXPECT_EQ(device.Connect(SERIAL), tqNoError) << "back in its boot program since";
    EXPECT_TRUE(device.PresetDevice());
    device.Disconnect();
    EXPECT_EQ(GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID}).size(), 1u) << "one that is listed is enough";
    EXPECT_EQ(device.Connect(SERIAL), tqNoError);
}

TEST_F(DeviceInterfaceTest, AttachesOnceAndRestartsOnlyWhenConnected) {
    sim::Instrument& instrument = PlugInstrument(sim::Program::boot);
    DeviceInterface device;
    EXPECT_EQ(device.ConnectBoot(nullptr), tqDeviceNotFoundErr);
    EXPECT_FALSE(device.PresetDevice());
    ASSERT_EQ(device.ConnectBoot(GetUSBDeviceHandleBySerial(SERIAL)), tqNoError);
    const OwnedDeviceHandle second(GetUSBDeviceHandleBySerial(SERIAL));
    EXPECT_EQ(device.ConnectBoot(second.get()), tqDeviceNotFoundErr);
    EXPECT_EQ(bus.Use(instrument).claimedNow, 1);
    EXPECT_TRUE(device.PresetDevice());
    EXPECT_EQ(Restarts(instrument), 1);
    EXPECT_TRUE(device.IsConnected()) << "the handle is dead, but still held";
}
