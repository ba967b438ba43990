#include "backend_usb.h"

#include "tests/bus_fixture.h"
#include "tests/usb_gadget.h"
#include "tq_lib.h"

#include <libusb.h>

#include <dlfcn.h>
#include <errno.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
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
using Action = sim::BusFault::Action;

constexpr int SERIAL = 11000001;
constexpr int READ_BYTES = 32768;

OwnedDeviceHandle OpenAndClaim(int serial) {
    OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(serial));
    ClaimUSBInterface(handle.get());
    return handle;
}

// Fills each read with the number of the read, so that order and completeness show.
auto NumberedReads() {
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

    const std::shared_ptr<UsbGadget> gadget = std::make_shared<UsbGadget>(UsbGadget::Identity(std::to_string(SERIAL)));
};

}  // namespace

TEST_F(BackendUsb, ListingsKnowInstrumentsByTheirIdentityAndTouchNobody) {
    const struct {
        int serial;
        sim::UsbIdentity identity;
        int openError;
        bool bySerials, byProduct, byHandle;  // found by which search
    } cases[] = {
        {11000001, UsbGadget::Identity("11000001"), 0, true, true, true},
        {11000002, UsbGadget::Identity("11000002", "TQ720 Boot"), 0, true, true, true},
        {3, UsbGadget::Identity("00000003"), 0, true, true, true},
        {1100004, UsbGadget::Identity("1100004"), 0, false, false, false},
        {110000005, UsbGadget::Identity("110000005"), 0, false, false, false},
        {110006, UsbGadget::Identity("110006ab"), 0, false, false, false},
        {-1100007, UsbGadget::Identity("-1100007"), 0, false, false, false},
        {0, UsbGadget::Identity(""), 0, false, false, false},
        {11000010, UsbGadget::Identity("11000010", "TQ720X"), 0, true, false, true},
        {11000011, UsbGadget::Identity("11000011", "TQ72"), 0, true, false, true},
        {11000012, UsbGadget::Identity("11000012", ""), 0, true, false, true},
        {11000013, UsbGadget::Identity("11000013", "TQ720", 0x1234), 0, false, true, true},
        {11000014, UsbGadget::Identity("11000014", "TQ720", 0x5C3E, 0x0038), 0, false, true, false},
        {11000015, UsbGadget::Identity("11000015"), EACCES, false, false, false},
    };
    for (const auto& c : cases) bus.Plug(std::make_shared<UsbGadget>(c.identity), {.openError = c.openError});

    const std::vector<int> serials = GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID});
    const std::vector<TQBootState> states = GetAllDevices();
    for (const auto& c : cases) {
        EXPECT_EQ(std::ranges::count(serials, c.serial), c.bySerials) << c.serial;
        EXPECT_EQ(std::ranges::count(states, c.serial, &TQBootState::serialNumber), c.byProduct) << c.serial;
        const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(c.serial));
        EXPECT_EQ(handle != nullptr, c.byHandle) << c.serial;
    }
    EXPECT_EQ(std::ranges::count(states, false, &TQBootState::isRunProgram), 1) << "only one runs the boot program";
    EXPECT_FALSE(bus.Use().WasWrittenTo());
    EXPECT_FALSE(IsValidTarnwellUSBDevice(OwnedDeviceHandle(GetUSBDeviceHandleBySerial(3)).get(), {0x0037, 0x0038}))
        << "every entry has to match";

    // Open ones are left out of listings, and of nothing else.
    ManageDevices::Open(3);
    EXPECT_EQ(GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID}).size(), serials.size() - 1);
    EXPECT_EQ(GetAllDevices().size(), states.size() - 1);
    EXPECT_NE(OwnedDeviceHandle(GetUSBDeviceHandleBySerial(3)), nullptr);
    ManageDevices::Close(3);
    EXPECT_EQ(GetAllDevices().size(), states.size());
}

TEST_F(BackendUsb, FanSetPointGoesOutInLimitedSixteenths) {
    std::vector<uint8_t> sent;
    gadget->onControl = [&sent](const sim::ControlSetup& setup, std::span<uint8_t> data) {
        EXPECT_EQ(setup.requestType, 0x40);
        EXPECT_EQ(setup.request, 0xC3);
        sent.assign(data.begin(), data.end());
        return static_cast<int>(data.size());
    };
    bus.Plug(gadget);
    const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(SERIAL));
    constexpr float INF = std::numeric_limits<float>::infinity();
    for (const auto& [setPoint, value] :
         {std::pair{-1.0f, 0}, {30.53f, 488}, {60.0f, 960}, {INF, 960}, {-INF, 0}, {std::nanf(""), 0}}) {
        EXPECT_TRUE(SetFanSetPoint(handle.get(), setPoint));
        EXPECT_EQ(sent, (std::vector<uint8_t>{static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)}))
            << setPoint;
    }
}

TEST_F(BackendUsb, WaitForBootTakesAFailedReadForNotReady) {
    int polls = 0;
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
    const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(SERIAL));
    EXPECT_TRUE(WaitForBoot(handle.get()));
    EXPECT_EQ(polls, 5);
    EXPECT_EQ(sim::Sleeps().total, milliseconds(500)) << "100 ms behind each poll, the last one too";
}

TEST_F(BackendUsb, BootToRunLeavesOtherProgramsAlone) {
    UsbGadget& run = Plug<UsbGadget>(UsbGadget::Identity("11000001"));
    UsbGadget& neither = Plug<UsbGadget>(UsbGadget::Identity("11000002", "Scale"));
    EXPECT_EQ(ExecuteBootToRunSequence(11000001), tqNoError);
    EXPECT_EQ(ExecuteBootToRunSequence(11000002), tqBootErr);
    EXPECT_EQ(ExecuteBootToRunSequence(11000003), tqDeviceNotFoundErr);
    EXPECT_FALSE(bus.Use(run).WasWrittenTo() || bus.Use(neither).WasWrittenTo());
}

// What each way of ending a read reports, and whether the slot goes on working behind it.
TEST_F(BackendUsb, EveryEndOfATransferIsReported) {
    const struct {
        const char* name;
        sim::BusFault fault;
        bool failed;
        int moved;
        bool nextWorks;
    } cases[] = {
        {"time-out", {.action = Action::hang, .nth = 2}, true, 0, true},
        {"late cancel", {.action = Action::hang, .nth = 2, .cancelDelay = milliseconds(80)}, true, 0, true},
        {"short", {.action = Action::shortTransfer, .nth = 2, .bytes = 4096}, false, 4096, true},
        {"refused for memory", {.action = Action::refuse, .nth = 2, .error = ENOMEM}, true, 0, true},
        {"refused", {.action = Action::refuse, .nth = 2, .error = EIO}, true, 0, true},
        {"stall", {.action = Action::stall, .nth = 2}, true, 0, false},
        {"unplug", {.action = Action::unplug, .nth = 2}, true, 0, false},
    };
    int serial = SERIAL;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto numbered = std::make_shared<UsbGadget>(UsbGadget::Identity(std::to_string(++serial)));
        numbered->onBulkIn = NumberedReads();
        bus.Plug(numbered);
        const OwnedDeviceHandle device = OpenAndClaim(serial);
        USBBulkTransfer slot(3, device.get(), USBEndpointTypeData, READ_BYTES);
        bus.Inject(*numbered, c.fault);

        slot.BeginDataXfer(READ_BYTES, 2000);
        EXPECT_FALSE(slot.WaitForXfer());
        EXPECT_EQ(slot.FinishDataXfer(), READ_BYTES);
        EXPECT_TRUE(HoldsOnly(1, slot.DataPtr(), READ_BYTES));

        slot.BeginDataXfer(READ_BYTES, c.failed ? 60 : 2000);
        EXPECT_EQ(slot.WaitForXfer(), c.failed);
        EXPECT_EQ(slot.FinishDataXfer(), c.moved) << "nothing of the transfer before";

        slot.BeginDataXfer(READ_BYTES / 2, 2000);
        EXPECT_EQ(slot.WaitForXfer(), !c.nextWorks);
        EXPECT_EQ(slot.FinishDataXfer(), c.nextWorks ? READ_BYTES / 2 : 0);
    }
}

TEST_F(BackendUsb, SignalDoesNotEndAWaitAndABrokenPumpDoes) {
    for (const bool broken : {false, true}) {
        SCOPED_TRACE(broken);
        const int serial = SERIAL + broken;
        const auto device = std::make_shared<UsbGadget>(UsbGadget::Identity(std::to_string(serial)));
        if (!broken) device->onBulkIn = NumberedReads();
        bus.Plug(device);
        const OwnedDeviceHandle claimed = OpenAndClaim(serial);
        USBBulkTransfer slot(0, claimed.get(), USBEndpointTypeData, READ_BYTES);
        pumpError = broken ? LIBUSB_ERROR_IO : LIBUSB_ERROR_INTERRUPTED;
        slot.BeginDataXfer(READ_BYTES, 2000);
        pumpFailures = 3;
        EXPECT_EQ(slot.WaitForXfer(), broken);
        EXPECT_EQ(pumpFailures, 0);
        EXPECT_EQ(slot.FinishDataXfer(), broken ? 0 : READ_BYTES);
        EXPECT_EQ(bus.Use(*device).urbsInFlight, 0) << "cancelled, not left behind";
    }
}

// A transfer that cannot be brought home keeps its slot shut: neither its buffer nor its transfer is used again until
// libusb has let go of them.
TEST_F(BackendUsb, SlotInLibusbsHandsIsNotReused) {
    bus.Plug(gadget);
    const OwnedDeviceHandle device = OpenAndClaim(SERIAL);
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

// Other threads list and open while an instrument is restarted and looked for, unseen by udev.
TEST_F(BackendUsb, ListingsAndNewContextsOverlap) {
    sim::InstrumentOptions options;
    options.serial = SERIAL;
    Plug(options);
    bus.SetUevents(false);
    std::atomic<bool> done{false};
    const auto list = [&done] {
        while (!done) {
            GetAvailableDeviceSerialNumbers({TQ720_PRODUCT_ID});
            const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(SERIAL));
            ManageDevices::IsOpen(GetVID(handle.get()));
        }
    };
    std::thread first(list), second(list);
    int restarts = 0;
    const uint64_t start = GetSystemTicks();
    while (restarts < 20 && GetSystemTicks() - start < 20000) {
        const OwnedDeviceHandle handle(GetUSBDeviceHandleBySerial(SERIAL));
        if (handle == nullptr) continue;  // another thread had one when it was looked for
        PresetUSBDevice(handle.get());
        SystemSleep(USB_RESTART_MS);
        ++restarts;
    }
    done = true;
    first.join();
    second.join();
    EXPECT_EQ(restarts, 20);
}

// Two devices, a thread each, many slots in flight: whichever thread pumps, every transfer ends at its own waiter, in
// order and whole.
TEST_F(BackendUsb, ThreadsShareThePump) {
    constexpr int SLOTS = 8;
    constexpr int ROUNDS = 60;
    for (const int serial : {SERIAL, SERIAL + 1}) {
        const auto device = std::make_shared<UsbGadget>(UsbGadget::Identity(std::to_string(serial)));
        device->onBulkIn = NumberedReads();
        bus.Plug(device);
    }
    const auto run = [](int serial) {
        const OwnedDeviceHandle device = OpenAndClaim(serial);
        std::vector<std::unique_ptr<USBBulkTransfer>> reads;
        for (int i = 0; i < SLOTS; ++i) {
            reads.push_back(std::make_unique<USBBulkTransfer>(i, device.get(), USBEndpointTypeData, READ_BYTES));
            reads.back()->BeginDataXfer(READ_BYTES, 5000);
        }
        for (int i = 0; i < ROUNDS; ++i) {
            USBBulkTransfer& read = *reads[static_cast<size_t>(i % SLOTS)];
            EXPECT_FALSE(read.WaitForXfer());
            EXPECT_EQ(read.FinishDataXfer(), READ_BYTES);
            EXPECT_TRUE(HoldsOnly(static_cast<uint8_t>(i + 1), read.DataPtr(), READ_BYTES)) << i;
            if (i + SLOTS < ROUNDS) read.BeginDataXfer(READ_BYTES, 5000);
        }
    };
    std::thread other(run, SERIAL + 1);
    run(SERIAL);
    other.join();
}
