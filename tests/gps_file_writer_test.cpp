#include "gps_file_writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace {

TqGPSCal Value(uint16_t voltage) { return {false, 1, voltage}; }

TEST(GPSFileWriter, NobodyWaitsForASlowFileAndTheNewestValueWins) {
    std::vector<uint16_t> written;
    Semaphore begun, goOn;
    auto writer = std::make_unique<GPSFileWriter>([&](const TqGPSCal& value) {
        begun.Notify();
        goOn.Wait();
        written.push_back(value.voltage);
    });
    writer->Post(Value(1));
    begun.Wait();
    for (uint16_t v = 2; v <= 5; v++) writer->Post(Value(v));  // this thread goes on, or the test stands still
    goOn.Notify();
    begun.Wait();
    writer->Post(Value(6));
    goOn.Notify();
    goOn.Notify();
    writer.reset();
    EXPECT_EQ(written, (std::vector<uint16_t>{1, 5, 6})) << "the last one at the end";
}

TEST(GPSFileWriter, StoresOnTheCallersThreadAndDropsWhatIsOlder) {
    std::vector<uint16_t> written;
    std::atomic<bool> full{false};
    Semaphore begun, goOn;
    std::thread::id last;
    auto writer = std::make_unique<GPSFileWriter>([&](const TqGPSCal& value) {
        begun.Notify();
        goOn.Wait();
        if (full) throw std::bad_alloc();
        written.push_back(value.voltage);
        last = std::this_thread::get_id();
    });
    goOn.Notify();
    writer->Store(Value(1));
    EXPECT_EQ(last, std::this_thread::get_id());
    begun.Wait();

    full = true;  // the writer's thread survives that
    writer->Post(Value(2));
    begun.Wait();
    writer->Post(Value(3));
    goOn.Notify();
    begun.Wait();
    full = false;
    writer->Post(Value(4));
    std::thread caller([&] { writer->Store(Value(5)); });
    for (int i = 0; i < 3; i++) goOn.Notify();
    caller.join();
    writer.reset();
    EXPECT_EQ(written.back(), 5) << "never an older value behind a newer one";
}

}  // namespace
