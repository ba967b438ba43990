#include "backend_usb.h"

#include "tests/bus_fixture.h"
#include "tests/usb_gadget.h"

#include <libusb.h>

#include <dlfcn.h>
#include <errno.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

namespace {
std::atomic<int> pumpFailures{0};  // the next calls of libusb's event pump that fail, ...
std::atomic<int> pumpError{0};     // ... and with what
}  // namespace

// Stands in front of libusb's, which fails too rarely to wait for.
extern "C" __attribute__((visibility("default"))) int libusb_handle_events_timeout_completed(libusb_context* context,
                                                                                             timeval* timeout,
                                                                                             int* completed) {
    static const auto next = reinterpret_cast<int (*)(libusb_context*, timeval*, int*)>(
        dlsym(RTLD_NEXT, "libusb_handle_events_timeout_completed"));
    if (pumpFailures > 0) {
        --pumpFailures;
        return pumpError;
    }
    return next(context, timeout, completed);
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Action = sim::BusFault::Action;
using Match = sim::BusFault::Match;

constexpr int READ_BYTES = 32768;

// An opened and claimed device for the length of a scope.
class Claimed {
public:
    explicit Claimed(int serial) : handle(GetUSBDeviceHandleBySerial(serial)) {
        if (handle != nullptr) ClaimUSBInterface(handle.get());
    }
    ~Claimed() {
        if (handle != nullptr) ReleaseUSBInterface(handle.get());
    }
    Claimed(const Claimed&) = delete;
    Claimed& operator=(const Claimed&) = delete;
    DeviceHandle get() const { return handle.get(); }

private:
    OwnedDeviceHandle handle;
};

// Fills each read with the number of the read, so that order and completeness show.
std::function<sim::BulkInResult(std::span<uint8_t>)> NumberedReads() {
    return [read = uint8_t{0}](std::span<uint8_t> dst) mutable {
        std::ranges::fill(dst, ++read);
        return UsbGadget::Done(dst);
    };
}

bool HoldsOnly(uint8_t value, const uint8_t* data, int size) {
    return std::all_of(data, data + size, [value](uint8_t byte) { return byte == value; });
}

class BackendUsb : public BusFixture {
protected:
    void TearDown() override {
        pumpFailures = 0;
        BusFixture::TearDown();
    }

    UsbGadget& PlugNumbered(const std::string& serial) {
        auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity(serial));
        gadget->onBulkIn = NumberedReads();
        bus.Plug(gadget);
        return *gadget;
    }
};

}  // namespace

TEST_F(BackendUsb, EmptyBusGivesEmptyListings) {
    EXPECT_TRUE(GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID}).empty());
    EXPECT_TRUE(GetAllDevices().empty());
    EXPECT_EQ(GetUSBDeviceHandleBySerial(12345678), nullptr);
    EXPECT_EQ(ExecuteBootToRunSequence(12345678), tqDeviceNotFoundErr);
}

TEST_F(BackendUsb, ListingsKnowInstrumentsByTheirIdentityAndTouchNobody) {
    struct Case {
        const char* name;
        sim::UsbIdentity identity;
        int openError;
        bool bySerials, byProduct, byHandle;  // found by which search
        int serial;
    };
    const Case cases[] = {
        {"run program", UsbGadget::Identity("11000001"), 0, true, true, true, 11000001},
        {"boot program", UsbGadget::Identity("11000002", "TQ720 Boot"), 0, true, true, true, 11000002},
        {"leading zeros", UsbGadget::Identity("00000003"), 0, true, true, true, 3},
        {"7 digits", UsbGadget::Identity("1100004"), 0, false, false, false, 1100004},
        {"9 digits", UsbGadget::Identity("110000005"), 0, false, false, false, 110000005},
        {"letters behind digits", UsbGadget::Identity("110006ab"), 0, false, false, false, 110006},
        {"sign", UsbGadget::Identity("-1100007"), 0, false, false, false, -1100007},
        {"leading space", UsbGadget::Identity(" 1100008"), 0, false, false, false, 1100008},
        {"no serial string", UsbGadget::Identity(""), 0, false, false, false, 0},
        {"longer product string", UsbGadget::Identity("11000010", "TQ720X"), 0, true, false, true, 11000010},
        {"shorter product string", UsbGadget::Identity("11000011", "TQ72"), 0, true, false, true, 11000011},
        {"no product string", UsbGadget::Identity("11000012", ""), 0, true, false, true, 11000012},
        {"foreign vendor", UsbGadget::Identity("11000013", "TQ720", 0x1234), 0, false, true, true, 11000013},
        {"other product id", UsbGadget::Identity("11000014", "TQ720", 0x5C3E, 0x0038), 0, false, true, false, 11000014},
        {"no rights", UsbGadget::Identity("11000015"), EACCES, false, false, false, 11000015},
    };
    std::vector<std::shared_ptr<UsbGadget>> gadgets;
    for (const Case& c : cases) {
        gadgets.push_back(std::make_shared<UsbGadget>(c.identity));
        bus.Plug(gadgets.back(), {.openError = c.openError});
    }

    const std::vector<int> serials = GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID});
    const std::vector<TQBootState> states = GetAllDevices();
    for (const Case& c : cases) {
        EXPECT_EQ(std::ranges::count(serials, c.serial), c.bySerials) << c.name;
        EXPECT_EQ(std::ranges::count(states, c.serial, &TQBootState::serialNumber), c.byProduct) << c.name;
        const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(c.serial));
        EXPECT_EQ(handle != nullptr, c.byHandle) << c.name;
    }
    EXPECT_EQ(std::ranges::count(states, false, &TQBootState::isRunProgram), 1) << "only one runs the boot program";
    for (const auto& gadget : gadgets) EXPECT_FALSE(bus.Use(*gadget).WasWrittenTo()) << gadget->Identity().serial;
}

TEST_F(BackendUsb, OpenSerialNumbersAreLeftOutOfListingsOnly) {
    Plug<UsbGadget>(UsbGadget::Identity("11000001"));
    Plug<UsbGadget>(UsbGadget::Identity("11000002"));
    ManageDevices::Open(11000001);
    ManageDevices::Open(11000001);
    EXPECT_EQ(GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID}), std::vector<int>{11000002});
    ASSERT_EQ(GetAllDevices().size(), 1u);
    EXPECT_EQ(GetAllDevices()[0].serialNumber, 11000002);
    EXPECT_NE(OwnedDeviceHandle(GetUSBDeviceHandleBySerial(11000001)), nullptr);

    ManageDevices::Close(11000001);
    std::vector<int> both = GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID});
    std::ranges::sort(both);
    EXPECT_EQ(both, (std::vector<int>{11000001, 11000002}));
}

TEST_F(BackendUsb, IdentityOfOneHandle) {
    Plug<UsbGadget>(UsbGadget::Identity("11000001", "TQ720 Boot"));
    const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(11000001));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(GetVID(handle.get()), 0x5C3E);
    EXPECT_EQ(GetPID(handle.get()), 0x0037);
    EXPECT_TRUE(IsValidTarnwellUSBDevice(handle.get(), std::vector<int>{}));
    EXPECT_TRUE(IsValidTarnwellUSBDevice(handle.get(), 0x0037));
    EXPECT_FALSE(IsValidTarnwellUSBDevice(handle.get(), {0x0037, 0x0038})) << "every entry has to match";
    EXPECT_TRUE(IsUSBBootDevice(handle.get()));
    EXPECT_FALSE(IsUSBRunDevice(handle.get()));

    int serial = -7;
    bool isRunProgram = true;
    TqDeviceType type = tqDeviceTypeTQ720;
    EXPECT_EQ(GetVID(nullptr), 0);
    EXPECT_EQ(GetPID(nullptr), 0);
    EXPECT_FALSE(GetSerialNumberOfUSBDevice(nullptr, serial));
    EXPECT_FALSE(IsValidTarnwellUSBDevice(nullptr, std::vector<int>{}));
    EXPECT_FALSE(IsValidFx3Program(nullptr, isRunProgram, type));
    EXPECT_FALSE(IsUSBRunDevice(nullptr) || IsUSBBootDevice(nullptr));
    EXPECT_EQ(serial, -7);
    EXPECT_TRUE(isRunProgram);
}

TEST_F(BackendUsb, FanSetPointGoesOutInLimitedSixteenths) {
    std::vector<uint8_t> sent;
    auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("11000001"));
    gadget->onControl = [&sent](const sim::ControlSetup& setup, std::span<uint8_t> data) {
        EXPECT_EQ(setup.requestType, 0x40);
        EXPECT_EQ(setup.request, 0xC3);
        sent.assign(data.begin(), data.end());
        return static_cast<int>(data.size());
    };
    bus.Plug(gadget);
    const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(11000001));
    struct Case {
        float setPoint;
        int value;
    };
    constexpr float INF = std::numeric_limits<float>::infinity();
    for (const Case c : {Case{-1.0f, 0},
                         {0.0f, 0},
                         {30.5f, 488},
                         {30.53f, 488},
                         {60.0f, 960},
                         {61.0f, 960},
                         {INF, 960},
                         {-INF, 0},
                         {std::nanf(""), 0}}) {
        EXPECT_TRUE(SetFanSetPoint(handle.get(), c.setPoint));
        EXPECT_EQ(sent, (std::vector<uint8_t>{static_cast<uint8_t>(c.value), static_cast<uint8_t>(c.value >> 8)}))
            << c.setPoint;
    }
    EXPECT_FALSE(SetFanSetPoint(nullptr, 30.0f));
}

TEST_F(BackendUsb, WaitForBootTakesAFailedReadForNotReady) {
    int polls = 0;
    auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("11000001", "TQ720 Boot"));
    gadget->onControl = [&polls](const sim::ControlSetup& setup, std::span<uint8_t> data) {
        EXPECT_EQ(setup.requestType, 0xC0);
        EXPECT_EQ(setup.request, 0xC2);
        ++polls;
        if (polls == 2) return -EPIPE;
        if (polls == 3) return 2;  // too short an answer, although its byte 1 reads as ready
        data[1] = polls < 5 ? 1 : 0;
        return static_cast<int>(data.size());
    };
    bus.Plug(gadget);
    const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(11000001));
    EXPECT_TRUE(WaitForBoot(handle.get()));
    EXPECT_EQ(polls, 5);
    EXPECT_EQ(sim::Sleeps().total, milliseconds(500)) << "100 ms behind each poll, the last one too";
}

TEST_F(BackendUsb, BootToRunLeavesOtherProgramsAlone) {
    UsbGadget& run = Plug<UsbGadget>(UsbGadget::Identity("11000001"));
    UsbGadget& neither = Plug<UsbGadget>(UsbGadget::Identity("11000002", "Scale"));
    EXPECT_EQ(ExecuteBootToRunSequence(11000001), tqNoError);
    EXPECT_EQ(ExecuteBootToRunSequence(11000002), tqBootErr);
    EXPECT_FALSE(bus.Use(run).WasWrittenTo());
    EXPECT_FALSE(bus.Use(neither).WasWrittenTo());
}

// What each way of ending a read reports, and whether the slot goes on working behind it.
TEST_F(BackendUsb, EveryEndOfATransferIsReported) {
    struct Case {
        const char* name;
        sim::BusFault fault;
        bool failed;
        int moved;
        bool nextWorks;
    };
    const Case cases[] = {
        {"time-out", {.action = Action::hang, .nth = 2}, true, 0, true},
        {"late cancel", {.action = Action::hang, .nth = 2, .cancelDelay = milliseconds(80)}, true, 0, true},
        {"short", {.action = Action::shortTransfer, .nth = 2, .bytes = 4096}, false, 4096, true},
        {"refused for memory", {.action = Action::refuse, .nth = 2, .error = ENOMEM}, true, 0, true},
        {"refused", {.action = Action::refuse, .nth = 2, .error = EIO}, true, 0, true},
        {"stall", {.action = Action::stall, .nth = 2}, true, 0, false},
        {"unplug", {.action = Action::unplug, .nth = 2}, true, 0, false},
    };
    int serial = 11000000;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        UsbGadget& gadget = PlugNumbered(std::to_string(++serial));
        const Claimed device(serial);
        USBBulkTransfer slot(3, device.get(), USBEndpointTypeData, READ_BYTES);
        bus.Inject(gadget, c.fault);

        slot.BeginDataXfer(READ_BYTES, 2000);
        EXPECT_FALSE(slot.WaitForXfer());
        EXPECT_EQ(slot.FinishDataXfer(), READ_BYTES);
        EXPECT_TRUE(HoldsOnly(1, slot.DataPtr(), READ_BYTES));

        slot.BeginDataXfer(READ_BYTES, c.failed ? 60 : 2000);
        EXPECT_EQ(slot.WaitForXfer(), c.failed);
        EXPECT_EQ(slot.FinishDataXfer(), c.moved) << "nothing of the transfer before";
        EXPECT_EQ(slot.XferLenRequested(), READ_BYTES);

        slot.BeginDataXfer(READ_BYTES / 2, 2000);
        EXPECT_EQ(slot.WaitForXfer(), !c.nextWorks);
        EXPECT_EQ(slot.FinishDataXfer(), c.nextWorks ? READ_BYTES / 2 : 0);
    }
}

TEST_F(BackendUsb, TransferTakesItsTimeOutAndNotMore) {
    Plug<UsbGadget>(UsbGadget::Identity("11000001"));
    const Claimed device(11000001);
    USBBulkTransfer slot(0, device.get(), USBEndpointTypeData, READ_BYTES);
    const auto start = steady_clock::now();
    slot.BeginDataXfer(READ_BYTES, 100);
    EXPECT_TRUE(slot.WaitForXfer());
    slot.FinishDataXfer();
    const auto took = steady_clock::now() - start;
    EXPECT_GE(took, milliseconds(95));
    EXPECT_LT(took, milliseconds(1500));
}

TEST_F(BackendUsb, SignalDoesNotEndAWait) {
    PlugNumbered("11000001");
    const Claimed device(11000001);
    USBBulkTransfer slot(0, device.get(), USBEndpointTypeData, READ_BYTES);
    pumpError = LIBUSB_ERROR_INTERRUPTED;
    slot.BeginDataXfer(READ_BYTES, 2000);
    pumpFailures = 3;
    EXPECT_FALSE(slot.WaitForXfer());
    EXPECT_EQ(pumpFailures, 0);
    EXPECT_EQ(slot.FinishDataXfer(), READ_BYTES);
}

TEST_F(BackendUsb, BrokenPumpFailsTheTransferAndBringsItHome) {
    auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("11000001"));
    bus.Plug(gadget);
    const Claimed device(11000001);
    USBBulkTransfer slot(0, device.get(), USBEndpointTypeData, READ_BYTES);
    pumpError = LIBUSB_ERROR_IO;
    slot.BeginDataXfer(READ_BYTES, 2000);
    pumpFailures = 3;
    EXPECT_TRUE(slot.WaitForXfer());
    EXPECT_EQ(slot.FinishDataXfer(), 0);
    EXPECT_EQ(bus.Use(*gadget).urbsInFlight, 0) << "cancelled, not left behind";
    EXPECT_EQ(bus.Use(*gadget).bulkIn, 1);
}

// A transfer that cannot be brought home keeps its slot shut: neither its buffer nor its transfer is used again until
// libusb has let go of them.
TEST_F(BackendUsb, SlotInLibusbsHandsIsNotReused) {
    auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("11000001"));
    bus.Plug(gadget);
    const Claimed device(11000001);
    {
        USBBulkTransfer slot(0, device.get(), USBEndpointTypeData, READ_BYTES);
        pumpError = LIBUSB_ERROR_IO;
        slot.BeginDataXfer(READ_BYTES, 2000);
        pumpFailures = std::numeric_limits<int>::max();
        EXPECT_TRUE(slot.WaitForXfer());
        EXPECT_EQ(slot.FinishDataXfer(), 0);
        slot.BeginDataXfer(READ_BYTES, 2000);
        EXPECT_TRUE(slot.WaitForXfer());
        EXPECT_EQ(slot.FinishDataXfer(), 0);
        EXPECT_EQ(bus.Use(*gadget).bulkIn, 1);
        pumpFailures = 0;
    }
    EXPECT_EQ(bus.Use(*gadget).urbsInFlight, 0);
}

TEST(USBBulkTransferDeathTest, TransferLargerThanItsSlotIsOurMistake) {
    USBBulkTransfer slot(0, nullptr, USBEndpointTypeData, READ_BYTES);
    EXPECT_DEATH(slot.BeginDataXfer(READ_BYTES + 1, 100), "size");
    EXPECT_DEATH(slot.BeginDataXfer(-1, 100), "size");
}

// Two devices, a thread each, many slots in flight: whichever thread pumps, every transfer ends at its own waiter, in
// order and whole.
TEST_F(BackendUsb, ThreadsShareThePump) {
    constexpr int SLOTS = 8;
    constexpr int ROUNDS = 60;
    struct Line {
        std::vector<uint8_t> blocks;  // first byte of each command block that arrived
        bool good = true;
    };
    Line lines[2];
    for (int i = 0; i < 2; ++i) {
        auto gadget = std::make_shared<UsbGadget>(UsbGadget::Identity("1100000" + std::to_string(i)));
        gadget->onBulkIn = NumberedReads();
        gadget->onBulkOut = [&line = lines[i]](std::span<const uint8_t> data) {
            line.good = line.good && HoldsOnly(data[0], data.data(), static_cast<int>(data.size()));
            line.blocks.push_back(data[0]);
        };
        bus.Plug(gadget);
    }
    const auto run = [](int serial) {
        const Claimed device(serial);
        std::vector<std::unique_ptr<USBBulkTransfer>> reads;
        for (int i = 0; i < SLOTS; ++i) {
            reads.push_back(std::make_unique<USBBulkTransfer>(i, device.get(), USBEndpointTypeData, READ_BYTES));
            reads.back()->BeginDataXfer(READ_BYTES, 5000);
        }
        USBBulkTransfer command(0, device.get(), USBEndpointTypeCommand, USB_CMD_SIZE_BYTES);
        for (int i = 0; i < ROUNDS; ++i) {
            const std::vector<uint8_t> block(USB_CMD_SIZE_BYTES, static_cast<uint8_t>(i));
            command.BeginDataXfer(block.data(), USB_CMD_SIZE_BYTES, 5000);
            EXPECT_FALSE(command.WaitForXfer());
            EXPECT_EQ(command.FinishDataXfer(), USB_CMD_SIZE_BYTES);

            USBBulkTransfer& read = *reads[static_cast<size_t>(i % SLOTS)];
            EXPECT_FALSE(read.WaitForXfer());
            EXPECT_EQ(read.FinishDataXfer(), READ_BYTES);
            EXPECT_TRUE(HoldsOnly(static_cast<uint8_t>(i + 1), read.DataPtr(), READ_BYTES)) << i;
            if (i + SLOTS < ROUNDS) read.BeginDataXfer(READ_BYTES, 5000);
        }
    };
    std::thread other(run, 11000001);
    run(11000000);
    other.join();
    for (const Line& line : lines) {
        EXPECT_TRUE(line.good);
        ASSERT_EQ(line.blocks.size(), static_cast<size_t>(ROUNDS));
        for (int i = 0; i < ROUNDS; ++i) EXPECT_EQ(line.blocks[static_cast<size_t>(i)], i);
    }
}
