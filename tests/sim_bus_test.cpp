// The virtual bus by itself: raw libusb calls on small devices whose answers the test knows.
#include "sim/bus.h"

#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "bus_fixture.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint8_t IN = 0x81;
constexpr std::uint8_t OUT = 0x01;
constexpr std::uint8_t RESTART = 0xE0;
constexpr std::uint8_t STORE = 0x10;
constexpr std::uint8_t FETCH = 0x11;
constexpr std::size_t UNIT = 32768;
constexpr std::size_t MEBIBYTE = 1 << 20;

// Gives back on the read endpoint what came on the write endpoint. RESTART makes it rejoin with another product string.
class LoopDevice : public sim::BusDevice {
public:
    explicit LoopDevice(std::string serialNumber, std::uint16_t vendor = 0x5C3E)
        : shown{vendor, 0x0037, "Maker", "Loop", std::move(serialNumber)} {}

    sim::UsbIdentity Identity() const override { return shown; }

    int Control(const sim::ControlSetup& setup, std::span<std::uint8_t> data) override {
        switch (setup.request) {
            case RESTART:
                shown.product = "Loop again";
                wish = 2000ms;
                return 0;
            case STORE:
                stored.assign(data.begin(), data.end());
                return static_cast<int>(data.size());
            case FETCH:
                std::copy_n(stored.begin(), std::min(stored.size(), data.size()), data.begin());
                return static_cast<int>(std::min(stored.size(), data.size()));
            default:
                return -EPIPE;
        }
    }

    int BulkOut(std::uint8_t, std::span<const std::uint8_t> data) override {
        echo.insert(echo.end(), data.begin(), data.end());
        return static_cast<int>(data.size());
    }

    sim::BulkInResult BulkIn(std::uint8_t, std::span<std::uint8_t> dst) override {
        using Kind = sim::BulkInResult::Kind;
        if (endless) {
            std::memset(dst.data(), ++block & 0xFF, dst.size());
            return {Kind::done, dst.size(), std::nullopt};
        }
        if (Clock::now() < silentUntil) return {Kind::pending, 0, silentUntil};
        if (echo.size() < dst.size()) return {Kind::pending, 0, std::nullopt};
        std::copy_n(echo.begin(), dst.size(), dst.begin());
        echo.erase(echo.begin(), echo.begin() + static_cast<std::ptrdiff_t>(dst.size()));
        return {Kind::done, dst.size(), std::nullopt};
    }

    std::optional<std::chrono::milliseconds> TakeRejoinRequest() override { return std::exchange(wish, std::nullopt); }

    // Set before the device is plugged.
    bool endless = false;
    Clock::time_point silentUntil{};

private:
    sim::UsbIdentity shown;
    std::vector<std::uint8_t> stored;
    std::deque<std::uint8_t> echo;
    std::optional<std::chrono::milliseconds> wish;
    unsigned block = 0;
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
    static const int ready = libusb_init(nullptr);
    ASSERT_EQ(ready, 0);
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

class SimBus : public BusFixture {};

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

TEST_F(SimBus, ShowsTheDescriptorsOfABulkDevice) {
    Plug<LoopDevice>("12345678");
    const Handle handle = OpenBySerial("12345678");
    ASSERT_NE(handle, nullptr);
    libusb_device* const device = libusb_get_device(handle.get());
    EXPECT_EQ(libusb_get_device_speed(device), LIBUSB_SPEED_SUPER);
    EXPECT_EQ(libusb_get_max_packet_size(device, IN), 1024);
    EXPECT_EQ(libusb_get_max_packet_size(device, OUT), 1024);
    libusb_device_descriptor descriptor{};
    ASSERT_EQ(libusb_get_device_descriptor(device, &descriptor), 0);
    EXPECT_EQ(descriptor.idVendor, 0x5C3E);
    EXPECT_EQ(descriptor.idProduct, 0x0037);
    EXPECT_EQ(Text(handle.get(), descriptor.iManufacturer), "Maker");
}

TEST_F(SimBus, CarriesControlRequestsBothWays) {
    Plug<LoopDevice>("12345678");
    const Handle handle = OpenBySerial("12345678");
    std::array<unsigned char, 5> data{1, 2, 3, 4, 5};
    EXPECT_EQ(libusb_control_transfer(handle.get(), 0x40, STORE, 0, 0, data.data(), 5, 1000), 5);
    std::array<unsigned char, 8> answer{};
    EXPECT_EQ(libusb_control_transfer(handle.get(), 0xC0, FETCH, 0, 0, answer.data(), 8, 1000), 5);
    EXPECT_EQ(answer, (std::array<unsigned char, 8>{1, 2, 3, 4, 5, 0, 0, 0}));
    EXPECT_EQ(libusb_control_transfer(handle.get(), 0xC0, 0x99, 0, 0, answer.data(), 8, 1000), LIBUSB_ERROR_PIPE);
    // A stalled request does not halt the control endpoint.
    EXPECT_EQ(libusb_control_transfer(handle.get(), 0xC0, FETCH, 0, 0, answer.data(), 2, 1000), 2);
}

TEST_F(SimBus, KeepsTheOrderOfManyTransfersFromTwoThreads) {
    LoopDevice& device = Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    constexpr int UNITS = 200;
    constexpr std::size_t BLOCK = 2048;
    constexpr int DEPTH = 10;

    std::thread writer([&] {
        std::deque<Transfer> slots;
        for (int i = 0; i < DEPTH; ++i) slots.emplace_back(handle.get(), OUT, BLOCK);
        std::uint32_t counter = 0;
        constexpr int BLOCKS = UNITS * static_cast<int>(UNIT / BLOCK);
        for (int block = 0; block < BLOCKS + DEPTH; ++block) {
            Transfer& slot = slots[static_cast<std::size_t>(block % DEPTH)];
            if (block >= DEPTH) {
                EXPECT_EQ(slot.Wait(), LIBUSB_TRANSFER_COMPLETED);
            }
            if (block >= BLOCKS) continue;
            for (std::size_t at = 0; at < BLOCK; at += 4, ++counter) std::memcpy(&slot.buffer[at], &counter, 4);
            EXPECT_EQ(slot.Submit(), 0);
        }
    });

    std::deque<Transfer> slots;
    for (int i = 0; i < DEPTH; ++i) {
        slots.emplace_back(handle.get(), IN, UNIT, 30000U);
        EXPECT_EQ(slots.back().Submit(), 0);
    }
    std::uint32_t expected = 0;
    int wrong = 0;
    for (int unit = 0; unit < UNITS; ++unit) {
        Transfer& slot = slots[static_cast<std::size_t>(unit % DEPTH)];
        ASSERT_EQ(slot.Wait(), LIBUSB_TRANSFER_COMPLETED);
        ASSERT_EQ(slot.Moved(), UNIT);
        for (std::size_t at = 0; at < UNIT; at += 4, ++expected) {
            std::uint32_t got = 0;
            std::memcpy(&got, &slot.buffer[at], 4);
            wrong += got != expected;
        }
        if (unit + DEPTH < UNITS) {
            EXPECT_EQ(slot.Submit(), 0);
        }
    }
    writer.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(bus.Use(device).urbsInFlightMax, DEPTH);
}

TEST_F(SimBus, LosesNothingToAReadThatTimedOut) {
    Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    Transfer read(handle.get(), IN, UNIT, 30);
    ASSERT_EQ(read.Submit(), 0);
    EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_EQ(read.Moved(), 0U);

    Transfer write(handle.get(), OUT, UNIT);
    std::iota(write.buffer.begin(), write.buffer.end(), std::uint8_t{0});
    ASSERT_EQ(write.Submit(), 0);
    EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
    Transfer again(handle.get(), IN, UNIT);
    ASSERT_EQ(again.Submit(), 0);
    EXPECT_EQ(again.Wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(again.buffer, write.buffer);
}

TEST_F(SimBus, ALargeReadThatTimedOutLetsASmallerOnePass) {
    Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    Transfer large(handle.get(), IN, 2 * UNIT, 50);
    Transfer small(handle.get(), IN, UNIT);
    Transfer write(handle.get(), OUT, UNIT);
    ASSERT_EQ(large.Submit(), 0);
    ASSERT_EQ(small.Submit(), 0);
    ASSERT_EQ(write.Submit(), 0);
    EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(large.Wait(), LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_EQ(small.Wait(), LIBUSB_TRANSFER_COMPLETED);
}

TEST_F(SimBus, AsksAgainWhenTheDeviceSaid) {
    auto device = std::make_shared<LoopDevice>("12345678");
    device->silentUntil = Clock::now() + 200ms;
    const Clock::time_point due = device->silentUntil;
    bus.Plug(device);
    const Handle handle = OpenAndClaim("12345678");
    Transfer write(handle.get(), OUT, UNIT);
    Transfer read(handle.get(), IN, UNIT);
    ASSERT_EQ(write.Submit(), 0);
    ASSERT_EQ(read.Submit(), 0);
    EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_GE(Clock::now(), due);
    EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
}

TEST_F(SimBus, UnplugEndsEveryReadInFlight) {
    LoopDevice& device = Plug<LoopDevice>("12345678");
    Handle handle = OpenAndClaim("12345678");
    std::deque<Transfer> reads;
    for (int i = 0; i < 8; ++i) {
        reads.emplace_back(handle.get(), IN, MEBIBYTE);
        ASSERT_EQ(reads.back().Submit(), 0);
    }
    std::thread hand([&] { bus.Unplug(device); });
    for (Transfer& read : reads) EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_NO_DEVICE);
    hand.join();
    EXPECT_EQ(reads.front().Submit(), LIBUSB_ERROR_NO_DEVICE);

    // The handle stays dead when the device is back.
    bus.Replug(device);
    EXPECT_EQ(reads.front().Submit(), LIBUSB_ERROR_NO_DEVICE);
    const Handle afresh = OpenAndClaim("12345678");
    Transfer write(afresh.get(), OUT, UNIT);
    ASSERT_EQ(write.Submit(), 0);
    EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
    handle.reset();
    EXPECT_EQ(bus.Use(device).openNow, 1);
}

TEST_F(SimBus, ARestartedDeviceIsBackAfterAShortenedSleep) {
    LoopDevice& device = Plug<LoopDevice>("12345678");
    Handle handle = OpenAndClaim("12345678");
    const int oldNumber = libusb_get_device_address(libusb_get_device(handle.get()));
    ASSERT_EQ(libusb_control_transfer(handle.get(), 0x40, RESTART, 0, 0, nullptr, 0, 1000), 0);
    usleep(3000000);
    EXPECT_EQ(Listing().at("12345678"), "Loop again");
    handle = OpenAndClaim("12345678");
    EXPECT_NE(libusb_get_device_address(libusb_get_device(handle.get())), oldNumber);
    EXPECT_EQ(bus.Use(device).openNow, 1);

    ASSERT_EQ(libusb_control_transfer(handle.get(), 0x40, RESTART, 0, 0, nullptr, 0, 1000), 0);
    EXPECT_TRUE(bus.WaitListed("12345678", "Loop again"));
    EXPECT_FALSE(bus.WaitListed("12345678", "Loop", 20ms));
    EXPECT_FALSE(bus.WaitListed("87654321", {}, 20ms));
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
    for (std::size_t i = 1; i < reads.size(); ++i) EXPECT_EQ(reads[i].Wait(), LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_EQ(oneTooMany.Wait(), LIBUSB_TRANSFER_NO_DEVICE);
}

TEST_F(SimBus, RefusesTheNthSubmitOnly) {
    LoopDevice& device = Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    for (const auto& [error, expected] : {std::pair{ENOMEM, LIBUSB_ERROR_NO_MEM}, std::pair{EIO, LIBUSB_ERROR_IO}}) {
        bus.Inject(device, {.action = sim::BusFault::Action::refuse,
                            .match = sim::BusFault::Match::bulkOut,
                            .nth = 2,
                            .error = error});
        Transfer write(handle.get(), OUT, UNIT);
        ASSERT_EQ(write.Submit(), 0);
        EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
        EXPECT_EQ(write.Submit(), expected);
        ASSERT_EQ(write.Submit(), 0);
        EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
    }
}

TEST_F(SimBus, AHungReadTimesOutAndItsCancelMayBeLate) {
    auto device = std::make_shared<LoopDevice>("12345678");
    device->endless = true;
    bus.Plug(device);
    const Handle handle = OpenAndClaim("12345678");
    for (const auto delay : {0ms, 150ms}) {
        bus.Inject(*device, {.action = sim::BusFault::Action::hang, .cancelDelay = delay});
        const Clock::time_point start = Clock::now();
        Transfer read(handle.get(), IN, UNIT, 50);
        ASSERT_EQ(read.Submit(), 0);
        EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_TIMED_OUT);
        EXPECT_GE(Clock::now() - start, 50ms + delay);
        ASSERT_EQ(read.Submit(), 0);
        EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_COMPLETED);
    }
}

TEST_F(SimBus, CutsTransfersShort) {
    LoopDevice& device = Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    const auto cutNext = [&](sim::BusFault::Match match, std::size_t bytes) {
        bus.Inject(device, {.action = sim::BusFault::Action::shortTransfer, .match = match, .bytes = bytes});
    };
    Transfer write(handle.get(), OUT, UNIT);
    cutNext(sim::BusFault::Match::bulkOut, 1000);
    ASSERT_EQ(write.Submit(), 0);
    EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(write.Moved(), 1000U);

    Transfer read(handle.get(), IN, 1000);
    cutNext(sim::BusFault::Match::bulkIn, 500);
    ASSERT_EQ(read.Submit(), 0);
    EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(read.Moved(), 500U);
}

TEST_F(SimBus, AStallHaltsTheEndpointUntilItIsCleared) {
    auto device = std::make_shared<LoopDevice>("12345678");
    device->endless = true;
    bus.Plug(device);
    const Handle handle = OpenAndClaim("12345678");
    bus.Inject(*device, {.action = sim::BusFault::Action::stall});
    Transfer read(handle.get(), IN, UNIT);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(read.Submit(), 0);
        EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_STALL);
    }
    EXPECT_EQ(libusb_clear_halt(handle.get(), IN), 0);
    ASSERT_EQ(read.Submit(), 0);
    EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_COMPLETED);
}

TEST_F(SimBus, UnplugsAtTheNthTransferAndComesBack) {
    LoopDevice& device = Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    bus.Inject(device, {.action = sim::BusFault::Action::unplug, .nth = 3, .replugAfter = 1000ms});
    std::deque<Transfer> reads;
    for (int i = 0; i < 3; ++i) {
        reads.emplace_back(handle.get(), IN, UNIT);
        ASSERT_EQ(reads.back().Submit(), 0);
    }
    for (Transfer& read : reads) EXPECT_EQ(read.Wait(), LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_TRUE(bus.WaitListed("12345678"));
}

TEST_F(SimBus, TellsWhatAListingDoesToForeignDevices) {
    LoopDevice& foreign = Plug<LoopDevice>("1234567", std::uint16_t{0x1234});
    auto locked = std::make_shared<LoopDevice>("99999999");
    bus.Plug(locked, {.openError = EACCES});
    EXPECT_EQ(Listing(), (std::map<std::string, std::string>{{"1234567", "Loop"}}));
    for (const sim::BusDevice* device :
         {static_cast<sim::BusDevice*>(&foreign), static_cast<sim::BusDevice*>(&*locked)}) {
        EXPECT_GT(bus.Use(*device).opens, 0);
        EXPECT_FALSE(bus.Use(*device).WasWrittenTo());
        EXPECT_TRUE(bus.Use(*device).HoldsNothing());
    }

    const Handle handle = OpenBySerial("1234567");
    libusb_control_transfer(handle.get(), 0x40, STORE, 0, 0, nullptr, 0, 1000);
    EXPECT_EQ(bus.Use(foreign).controlWrites, 1);
    EXPECT_EQ(libusb_claim_interface(handle.get(), 0), 0);
    EXPECT_EQ(bus.Use(foreign).claimedNow, 1);
    const Handle rival = OpenBySerial("1234567");
    EXPECT_EQ(libusb_claim_interface(rival.get(), 0), LIBUSB_ERROR_BUSY);
}

TEST_F(SimBus, AChildThatSharesMemoryCannotCloseItsParentsDevice) {
    Plug<LoopDevice>("12345678");
    const Handle handle = OpenAndClaim("12345678");
    const pid_t child = vfork();  // as Python's subprocess does
    if (child == 0) {
        for (int fd = 3; fd < 256; ++fd) close(fd);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    Transfer write(handle.get(), OUT, UNIT);
    ASSERT_EQ(write.Submit(), 0);
    EXPECT_EQ(write.Wait(), LIBUSB_TRANSFER_COMPLETED);
}

TEST_F(SimBus, SeamsShortenLongSleepsAndMoveTheHome) {
    const Clock::time_point start = Clock::now();
    usleep(1000000);
    usleep(5000);
    const auto took = Clock::now() - start;
    EXPECT_GE(took, 15ms);  // a hundredth of the first, all of the second
    EXPECT_LT(took, 1000ms);
    EXPECT_EQ(sim::Sleeps().count, 2U);
    EXPECT_EQ(sim::Sleeps().total, 1005ms);
    EXPECT_EQ(getpwuid(getuid())->pw_dir, home.string());
    sim::SetHome({});
    EXPECT_NE(getpwuid(getuid())->pw_dir, home.string());
}

TEST_F(SimBus, StreamsTenReadsOfAMebibyte) {
    auto device = std::make_shared<LoopDevice>("12345678");
    device->endless = true;
    bus.Plug(device);
    const Handle handle = OpenAndClaim("12345678");
    constexpr int DEPTH = 10;
    constexpr int READS = 1000;
    std::deque<Transfer> slots;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < DEPTH; ++i) {
        slots.emplace_back(handle.get(), IN, MEBIBYTE);
        ASSERT_EQ(slots.back().Submit(), 0);
    }
    for (int read = 1; read <= READS; ++read) {
        Transfer& slot = slots[static_cast<std::size_t>((read - 1) % DEPTH)];
        ASSERT_EQ(slot.Wait(), LIBUSB_TRANSFER_COMPLETED);
        ASSERT_EQ(slot.buffer.back(), read & 0xFF);
        if (read + DEPTH <= READS) {
            ASSERT_EQ(slot.Submit(), 0);
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("%.0f MB/s\n", READS * static_cast<double>(MEBIBYTE) / seconds / 1e6);
    EXPECT_EQ(bus.Use(*device).urbsInFlight, 0);
}

}  // namespace
