// The virtual bus by itself: raw libusb calls on small devices whose answers the test knows.
#include "sim/bus.h"

#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <numeric>
#include <thread>
#include <vector>

#include "bus_fixture.h"
#include "usb_gadget.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* SERIAL = "12345678";
constexpr std::uint8_t IN = 0x81;
constexpr std::uint8_t OUT = 0x01;
constexpr std::uint8_t RESTART = 0xE0;
constexpr std::size_t UNIT = 32768;
constexpr std::size_t MEBIBYTE = 1 << 20;

sim::UsbIdentity LoopIdentity(const std::string& serial) { return {0x5C3E, 0x0037, "Maker", "Loop", serial}; }

// Gives back on the read endpoint what came on the write endpoint. RESTART makes it rejoin with another product string.
class LoopDevice : public sim::BusDevice {
public:
    explicit LoopDevice(const std::string& serial) : shown(LoopIdentity(serial)) {}

    sim::UsbIdentity Identity() const override { return shown; }

    int Control(const sim::ControlSetup& setup, std::span<std::uint8_t>) override {
        if (setup.request != RESTART) return -EPIPE;
        shown.product = "Loop again";
        wish = 2000ms;
        return 0;
    }

    int BulkOut(std::uint8_t, std::span<const std::uint8_t> data) override {
        echo.insert(echo.end(), data.begin(), data.end());
        return static_cast<int>(data.size());
    }

    sim::BulkInResult BulkIn(std::uint8_t, std::span<std::uint8_t> dst) override {
        using Kind = sim::BulkInResult::Kind;
        if (echo.size() < dst.size()) return {Kind::pending, 0, std::nullopt};
        std::copy_n(echo.begin(), dst.size(), dst.begin());
        echo.erase(echo.begin(), echo.begin() + static_cast<std::ptrdiff_t>(dst.size()));
        return UsbGadget::Done(dst);
    }

    std::optional<std::chrono::milliseconds> TakeRejoinRequest() override { return std::exchange(wish, std::nullopt); }

private:
    sim::UsbIdentity shown;
    std::deque<std::uint8_t> echo;
    std::optional<std::chrono::milliseconds> wish;
};

struct CloseHandle {
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};
using Handle = std::unique_ptr<libusb_device_handle, CloseHandle>;

std::string Text(libusb_device_handle* handle, std::uint8_t index) {
    std::array<unsigned char, 256> text{};
    const int length = libusb_get_string_descriptor_ascii(handle, index, text.data(), 255);
    return length < 0 ? std::string("error") : std::string(text.begin(), text.begin() + length);
}

// Visits an open handle of each listed device that opens.
void ForEachDevice(const std::function<void(Handle, const libusb_device_descriptor&)>& visit) {
    libusb_device** list = nullptr;
    const ssize_t count = libusb_get_device_list(nullptr, &list);
    ASSERT_GE(count, 0);
    for (libusb_device* device : std::span(list, static_cast<std::size_t>(count))) {
        libusb_device_handle* raw = nullptr;
        libusb_device_descriptor descriptor{};
        if (libusb_open(device, &raw) != 0) continue;
        EXPECT_EQ(libusb_get_device_descriptor(device, &descriptor), 0);
        visit(Handle(raw), descriptor);
    }
    libusb_free_device_list(list, 1);
}

// Product strings by serial.
std::map<std::string, std::string> Listing() {
    std::map<std::string, std::string> products;
    ForEachDevice([&](Handle handle, const libusb_device_descriptor& descriptor) {
        products[Text(handle.get(), descriptor.iSerialNumber)] = Text(handle.get(), descriptor.iProduct);
    });
    return products;
}

Handle OpenBySerial(const std::string& serial) {
    Handle result;
    ForEachDevice([&](Handle handle, const libusb_device_descriptor& descriptor) {
        if (Text(handle.get(), descriptor.iSerialNumber) == serial) result = std::move(handle);
    });
    return result;
}

Handle OpenAndClaim(const std::string& serial) {
    Handle handle = OpenBySerial(serial);
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(libusb_claim_interface(handle.get(), 0), 0);
    return handle;
}

// An asynchronous bulk transfer with its own buffer.
class Transfer {
public:
    Transfer(libusb_device_handle* handle, std::uint8_t endpoint, std::size_t size, unsigned timeoutMs = 5000)
        : buffer(size), transfer(libusb_alloc_transfer(0)) {
        libusb_fill_bulk_transfer(
            transfer.get(), handle, endpoint, buffer.data(), static_cast<int>(size),
            [](libusb_transfer* done) { std::atomic_ref(*static_cast<int*>(done->user_data)) = 1; }, &completed,
            timeoutMs);
    }

    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    // A test that failed half-way leaves transfers in flight.
    ~Transfer() {
        if (!inFlight) return;
        Cancel();
        Wait();
    }

    int Submit() {
        completed = 0;
        const int error = libusb_submit_transfer(transfer.get());
        inFlight = error == 0;
        return error;
    }
    int Cancel() { return libusb_cancel_transfer(transfer.get()); }
    // Pumps events until the transfer has ended; its callback may run on any thread that pumps.
    libusb_transfer_status Wait() {
        if (!inFlight) return LIBUSB_TRANSFER_ERROR;
        timeval patience{10, 0};
        while (std::atomic_ref(completed) == 0) {
            if (libusb_handle_events_timeout_completed(nullptr, &patience, &completed) != 0) break;
        }
        inFlight = false;
        return transfer->status;
    }
    libusb_transfer_status Run() { return Submit() == 0 ? Wait() : LIBUSB_TRANSFER_ERROR; }
    std::size_t Moved() const { return static_cast<std::size_t>(transfer->actual_length); }

    std::vector<std::uint8_t> buffer;

private:
    struct Free {
        void operator()(libusb_transfer* dead) const { libusb_free_transfer(dead); }
    };
    std::unique_ptr<libusb_transfer, Free> transfer;
    int completed = 0;
    bool inFlight = false;
};

class SimBus : public BusFixture {
protected:
    void SetUp() override {
        ASSERT_EQ(libusb_init(nullptr), 0);
        BusFixture::SetUp();
    }
    void TearDown() override {
        BusFixture::TearDown();
        libusb_exit(nullptr);
    }
};

TEST_F(SimBus, ListsWhatIsPluggedAtTheReturnOfEachCall) {
    Plug<LoopDevice>("00000001");
    LoopDevice& comesAndGoes = Plug<LoopDevice>("00000002");
    const std::map<std::string, std::string> one{{"00000001", "Loop"}};
    const std::map<std::string, std::string> both{{"00000001", "Loop"}, {"00000002", "Loop"}};
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(Listing(), both) << round;
        bus.Unplug(comesAndGoes);
        ASSERT_EQ(Listing(), one) << round;
        bus.Replug(comesAndGoes);
    }
    bus.Reset();
    EXPECT_TRUE(Listing().empty());
}

TEST_F(SimBus, WithoutUeventsAContextKeepsItsList) {
    LoopDevice& device = Plug<LoopDevice>("00000001");
    bus.SetUevents(false);
    Plug<LoopDevice>("00000002");
    EXPECT_EQ(Listing().size(), 1u) << "the second is unheard of";
    bus.Unplug(device);
    EXPECT_TRUE(Listing().empty()) << "the first is listed, but does not open";
}

// A read that timed out has taken nothing, and a smaller one behind it passes.
TEST_F(SimBus, LosesNothingToAReadThatTimedOut) {
    Plug<LoopDevice>(SERIAL);
    const Handle handle = OpenAndClaim(SERIAL);
    Transfer large(handle.get(), IN, 2 * UNIT, 50);
    Transfer small(handle.get(), IN, UNIT);
    Transfer write(handle.get(), OUT, UNIT);
    std::iota(write.buffer.begin(), write.buffer.end(), std::uint8_t{0});
    ASSERT_EQ(large.Submit(), 0);
    ASSERT_EQ(small.Submit(), 0);
    EXPECT_EQ(write.Run(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(large.Wait(), LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_EQ(large.Moved(), 0U);
    EXPECT_EQ(small.Wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(small.buffer, write.buffer);
}

TEST_F(SimBus, UnplugEndsEveryReadInFlight) {
    LoopDevice& device = Plug<LoopDevice>(SERIAL);
    Handle handle = OpenAndClaim(SERIAL);
    bus.Inject(device, {.action = sim::BusFault::Action::unplug, .nth = 8, .replugAfter = 1000ms});
    std::deque<Transfer> reads;
    for (int i = 0; i < 8; ++i) {
        reads.emplace_back(handle.get(), IN, MEBIBYTE);
        ASSERT_EQ(reads.back().Submit(), 0);
    }
    for (Transfer& read : reads) EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_EQ(reads.front().Submit(), LIBUSB_ERROR_NO_DEVICE);

    // The handle stays dead when the device is back.
    EXPECT_TRUE(bus.WaitListed(SERIAL));
    EXPECT_EQ(reads.front().Submit(), LIBUSB_ERROR_NO_DEVICE);
    const Handle afresh = OpenAndClaim(SERIAL);
    Transfer write(afresh.get(), OUT, UNIT);
    EXPECT_EQ(write.Run(), LIBUSB_TRANSFER_COMPLETED);
    handle.reset();
    EXPECT_EQ(bus.Use(device).openNow, 1);

    // From another thread, while this one waits for an event.
    Transfer last(afresh.get(), IN, MEBIBYTE);
    ASSERT_EQ(last.Submit(), 0);
    std::thread hand([&] { bus.Unplug(device); });
    EXPECT_EQ(last.Wait(), LIBUSB_TRANSFER_NO_DEVICE);
    hand.join();
}

TEST_F(SimBus, ARestartedDeviceIsBackAfterAShortenedSleep) {
    LoopDevice& device = Plug<LoopDevice>(SERIAL);
    Handle handle = OpenAndClaim(SERIAL);
    const int oldNumber = libusb_get_device_address(libusb_get_device(handle.get()));
    ASSERT_EQ(libusb_control_transfer(handle.get(), 0x40, RESTART, 0, 0, nullptr, 0, 1000), 0);
    usleep(3000000);
    EXPECT_EQ(Listing().at(SERIAL), "Loop again");
    handle = OpenAndClaim(SERIAL);
    EXPECT_NE(libusb_get_device_address(libusb_get_device(handle.get())), oldNumber);
    EXPECT_EQ(bus.Use(device).openNow, 1);
    EXPECT_FALSE(bus.WaitListed(SERIAL, "Loop", 20ms));
    EXPECT_FALSE(bus.WaitListed("87654321", {}, 20ms));
}

TEST_F(SimBus, LongTimeoutsOfAWaitingStreamGetSlackAndShortOnesDoNot) {
    const int timer = timerfd_create(CLOCK_MONOTONIC, 0);
    ASSERT_GE(timer, 0);
    // Time left [s] on the timer once it was asked for `ahead`.
    const auto left = [&](std::chrono::milliseconds ahead) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const auto nanoseconds = std::chrono::nanoseconds(now.tv_nsec) + ahead;
        itimerspec at{};
        at.it_value.tv_sec = now.tv_sec + static_cast<time_t>(nanoseconds / 1s);
        at.it_value.tv_nsec = static_cast<long>((nanoseconds % 1s).count());
        EXPECT_EQ(timerfd_settime(timer, TFD_TIMER_ABSTIME, &at, nullptr), 0);
        EXPECT_EQ(timerfd_gettime(timer, &at), 0);
        return static_cast<double>(at.it_value.tv_sec) + 1e-9 * static_cast<double>(at.it_value.tv_nsec);
    };
    const double slack = std::chrono::duration<double>(TIMEOUT_SLACK).count();
    const double tolerance = slack / 3;  // a busy machine may look late
    EXPECT_LT(left(100ms), 0.2);
    EXPECT_NEAR(left(2s), 2 + slack, tolerance);
    EXPECT_NEAR(left(100ms), slack, tolerance) << "the next one behind a long one";
    const itimerspec stop{};
    EXPECT_EQ(timerfd_settime(timer, TFD_TIMER_ABSTIME, &stop, nullptr), 0);
    EXPECT_LT(left(100ms), 0.2);
    EXPECT_NEAR(left(2s), 2 + slack, tolerance);
    sim::SetTimeoutSlack({});
    EXPECT_LE(left(2s), 2.0);
    EXPECT_LE(left(100ms), 0.1);
    EXPECT_EQ(close(timer), 0);
}

TEST_F(SimBus, LimitsTheMemoryInFlightAcrossDevices) {
    Plug<LoopDevice>("00000001");
    Plug<LoopDevice>("00000002");
    bus.SetMemoryLimit(sim::Bus::USBFS_MEMORY_LIMIT);
    const Handle first = OpenAndClaim("00000001");
    const Handle second = OpenAndClaim("00000002");
    std::deque<Transfer> reads;
    for (int i = 0; i < 15; ++i) {
        reads.emplace_back((i % 2 == 0 ? first : second).get(), IN, MEBIBYTE);
        ASSERT_EQ(reads.back().Submit(), 0) << i;
    }
    Transfer oneTooMany(second.get(), IN, MEBIBYTE);
    EXPECT_EQ(oneTooMany.Submit(), LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(reads.front().Cancel(), 0);
    EXPECT_EQ(reads.front().Wait(), LIBUSB_TRANSFER_CANCELLED);
    EXPECT_EQ(oneTooMany.Submit(), 0);
    bus.Reset();
    EXPECT_EQ(oneTooMany.Wait(), LIBUSB_TRANSFER_NO_DEVICE);
}

TEST_F(SimBus, AStallHaltsTheEndpointUntilItIsCleared) {
    auto endless = std::make_shared<UsbGadget>(LoopIdentity(SERIAL));
    endless->onBulkIn = &UsbGadget::Done;
    bus.Plug(endless);
    const Handle handle = OpenAndClaim(SERIAL);
    bus.Inject(*endless, {.action = sim::BusFault::Action::stall});
    Transfer read(handle.get(), IN, UNIT);
    EXPECT_EQ(read.Run(), LIBUSB_TRANSFER_STALL);
    EXPECT_EQ(read.Run(), LIBUSB_TRANSFER_STALL);
    EXPECT_EQ(libusb_clear_halt(handle.get(), IN), 0);
    EXPECT_EQ(read.Run(), LIBUSB_TRANSFER_COMPLETED);
}

TEST_F(SimBus, CountsWhatIsDoneToADevice) {
    LoopDevice& device = Plug<LoopDevice>(SERIAL);
    EXPECT_EQ(Listing().size(), 1U);
    EXPECT_FALSE(bus.Use(device).WasWrittenTo());
    EXPECT_TRUE(bus.Use(device).HoldsNothing());

    constexpr std::uint8_t UNKNOWN = 0x10;
    const Handle handle = OpenAndClaim(SERIAL);
    EXPECT_EQ(libusb_control_transfer(handle.get(), 0x40, UNKNOWN, 0, 0, nullptr, 0, 1000), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(bus.Use(device).controlWrites, 1);
    EXPECT_EQ(bus.Use(device).claimedNow, 1);
    const Handle rival = OpenBySerial(SERIAL);
    EXPECT_EQ(libusb_claim_interface(rival.get(), 0), LIBUSB_ERROR_BUSY);
}

}  // namespace
