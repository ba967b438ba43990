// The fixture of all tests that need the virtual bus: a fresh home folder, shortened sleeps, time-outs that leave a
// loaded machine all the time that it needs, and an empty bus behind each test, with a check that the test gave back
// every descriptor, claim and URB.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "sim/bus.h"
#include "sim/instrument.h"
#include "sim/seams.h"
#include "thread_support.h"

class BusFixture : public ::testing::Test {
protected:
    static constexpr int SLEEP_FACTOR = 100;
    static constexpr std::chrono::seconds TIMEOUT_SLACK{30};  // tests that wait for a time-out go without

    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "tq-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        home = pattern;
        sim::SetHome(home.string());
        sim::SetSleepFactor(SLEEP_FACTOR);
        sim::SetTimeoutSlack(TIMEOUT_SLACK);
        sim::ClearSleeps();
    }

    void TearDown() override {
        const sim::BusUse use = bus.Use();
        EXPECT_EQ(use.openNow, 0) << "leaked descriptors";
        EXPECT_EQ(use.claimedNow, 0) << "leaked claims";
        EXPECT_EQ(use.urbsInFlight, 0) << "URBs left in flight";
        bus.Reset();
        sim::SetSleepFactor(1);
        sim::SetTimeoutSlack({});
        sim::SetHome({});
        std::filesystem::remove_all(home);
    }

    // Plugs a device made from the arguments: an instrument, unless a type is given. The bus keeps it until the test
    // ends. Listings show it on return.
    template <class Device = sim::Instrument, class... Arguments>
    Device& Plug(Arguments&&... arguments) {
        auto device = std::make_shared<Device>(std::forward<Arguments>(arguments)...);
        bus.Plug(device);
        return *device;
    }

    sim::Bus& bus = sim::Bus::Get();
    std::filesystem::path home;  // what getpwuid reports
};
