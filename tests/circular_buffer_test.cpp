#include "circular_buffer.h"

#include "ipps.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <random>
#include <vector>

namespace {

constexpr double RATE = 3e5;  // 3333.3 ns a sample: times have to be rounded
constexpr double NS = 1e9 / RATE;

struct Taken {
    std::vector<Ipp32fc> samples;
    std::vector<double> triggers;
    uint64_t time = 0;
};

// A ring of 32fc samples, each of which carries its running number.
class IqRing : public ::testing::Test {
protected:
    IqRing() {
        ring.SetSampleRate(RATE);
        ring.Resize(SIZE, tqDataType32fc);
    }

    void Append(int count, std::vector<double> triggers = {}, uint64_t time = 0) {
        std::vector<Ipp32fc> block(static_cast<size_t>(count));
        for (Ipp32fc& x : block) x = {static_cast<float>(next++), -1.0f};
        ring.Append(block.data(), count, triggers.data(), static_cast<int>(triggers.size()), time);
    }

    Taken Read(int count, int triggerRoom = 8) {
        Taken taken;
        taken.samples.resize(static_cast<size_t>(count));
        taken.triggers.resize(static_cast<size_t>(triggerRoom));
        int samples = -1, triggers = -1;
        ring.Read(taken.samples.data(), count, samples, taken.triggers.data(), triggerRoom, triggers, taken.time,
                  tqDataType32fc);
        taken.samples.resize(static_cast<size_t>(samples));
        taken.triggers.resize(static_cast<size_t>(triggers));
        return taken;
    }

    static constexpr int SIZE = 1000;
    std::vector<uint8_t> memory;
    IQCircularBuffer ring{memory};
    int next = 0;
};

TEST_F(IqRing, KeepsOrderThroughManyWraps) {
    std::mt19937 random(4);
    int expected = 0;
    for (int round = 0; round < 2000; ++round) {
        const int room = SIZE - 1 - static_cast<int>(ring.SamplesInBuffer());
        // Now and then up to the last place that the ring has.
        Append(round % 7 == 0 ? room : static_cast<int>(random() % static_cast<unsigned>(room + 1)));
        for (const Ipp32fc& x : Read(static_cast<int>(random() % 700)).samples) {
            ASSERT_EQ(x.re, static_cast<float>(expected++));
            ASSERT_EQ(x.im, -1.0f);
        }
        ASSERT_EQ(static_cast<int>(ring.SamplesInBuffer()), next - expected);
    }
    EXPECT_EQ(ring.SampleLoss(), 0);
    EXPECT_GT(expected, 100 * SIZE);
}

TEST_F(IqRing, DropsAllWhenTheBlockWouldFillIt) {
    Append(900, {5.0});
    Append(99);
    EXPECT_EQ(ring.SamplesInBuffer(), 999u) << "one below the size is not full";
    EXPECT_EQ(ring.SampleLoss(), 0);

    Append(1, {0.0});
    EXPECT_EQ(ring.SampleLoss(), 1);
    EXPECT_EQ(ring.SampleLoss(), 0) << "told once";
    Taken taken = Read(SIZE);
    ASSERT_EQ(taken.samples.size(), 1u);
    EXPECT_EQ(taken.samples[0].re, 999.0f) << "the block that caused it is kept";
    EXPECT_EQ(taken.triggers, std::vector<double>{0.0}) << "the old trigger went with its sample";

    // A gap in front of a block does the same to a ring with room.
    Append(10, {3.0});
    const Ipp32fc fresh = {7777.0f, 0.0f};
    ring.AppendAfterGap(&fresh, 1, nullptr, 0, 50);
    EXPECT_EQ(ring.SampleLoss(), 1);
    taken = Read(SIZE);
    ASSERT_EQ(taken.samples.size(), 1u);
    EXPECT_EQ(taken.samples[0].re, 7777.0f);
    EXPECT_TRUE(taken.triggers.empty());
    EXPECT_EQ(taken.time, 50u);
}

TEST_F(IqRing, TriggersMoveWithTheSamples) {
    Append(40);
    Append(60, {-9.5, 0.25, 59.0, 60.0, 61.5});  // relative to sample 40; the last two lie behind their block
    EXPECT_TRUE(Read(30).triggers.empty());
    EXPECT_EQ(Read(10).triggers, std::vector<double>{0.5});
    EXPECT_EQ(Read(60).triggers, (std::vector<double>{0.25, 59.0})) << "a position below the count is in the read";
    Append(10);
    EXPECT_EQ(Read(10).triggers, (std::vector<double>{0.0, 1.5})) << "one at the end of a read is in the next";

    // Those beyond the caller's room are lost, and only those of this read.
    for (const int room : {0, 2}) {
        Append(20, {1.0, 2.0, 3.0, 15.0});
        EXPECT_EQ(Read(10, room).triggers.size(), static_cast<size_t>(room));
        EXPECT_EQ(Read(10, 8).triggers, std::vector<double>{5.0});
    }

    // A wild position never piles up.
    Append(1, {1e18});
    Append(1);
    EXPECT_TRUE(Read(2).triggers.empty());
}

TEST_F(IqRing, TimeIsThatOfTheOldestSample) {
    constexpr uint64_t T = 1700000000000000000;
    const auto Later = [](uint64_t t, double samples) {
        return t + static_cast<uint64_t>(std::floor(samples * NS + 0.5));
    };
    Append(100, {}, T);
    EXPECT_EQ(Read(7).time, T);
    EXPECT_EQ(Read(1).time, Later(T, 7));
    // A new block's own time counts from then on: here it is 1 ms off what the reads have counted.
    Append(100, {}, Later(T, 100) + 1000000);
    EXPECT_EQ(Read(92).time, Later(T, 100) + 1000000 - static_cast<uint64_t>(std::floor(92 * NS + 0.5)));
    EXPECT_EQ(Read(200).time, Later(T, 100) + 1000000);
    EXPECT_EQ(Read(5).samples.size(), 0u);
    EXPECT_EQ(Read(5).time, Later(Later(T, 100) + 1000000, 100)) << "an empty ring knows the time of its next sample";

    uint64_t untouched = 5;
    int samples = 1, triggers = 1;
    ring.Read(nullptr, 0, samples, nullptr, 0, triggers, untouched, tqDataType32fc);
    EXPECT_EQ(untouched, 5u);
    EXPECT_EQ(samples + triggers, 0);
}

TEST(IqRingTypes, ConvertBothWaysAcrossTheEnd) {
    // Stored in floats, read as 16 bits: scaled, rounded, saturated, over the seam between 3 and 4 samples.
    std::vector<uint8_t> memory;
    IQCircularBuffer ring(memory);
    ring.SetSampleRate(RATE);
    ring.Resize(10, tqDataType32fc);
    const std::vector<Ipp32fc> floats = {{0.5f, -0.5f},          {1.0f, -1.0f},         {2.0f, -2.0f},
                                         {1.0f / 32768, 0.0f},   {0.7f / 32768, 0.25f}, {0.0f, 0.0f},
                                         {-0.125f, 1.0f / 65537}};
    const std::vector<Ipp16sc> shorts = {{16384, -16384}, {32767, -32768}, {32767, -32768}, {1, 0},
                                         {1, 8192},       {0, 0},          {-4096, 0}};
    int n = 0, t = 0;
    uint64_t time = 0;
    std::vector<Ipp16sc> out(7);
    for (int round = 0; round < 2; ++round) {
        ring.Append(floats.data(), 7, nullptr, 0, 0);
        ring.Read(out.data(), 7, n, nullptr, 0, t, time, tqDataType16sc);
        ASSERT_EQ(n, 7);
        for (size_t i = 0; i < 7; ++i) {
            EXPECT_EQ(out[i].re, shorts[i].re) << round << ' ' << i;
            EXPECT_EQ(out[i].im, shorts[i].im) << round << ' ' << i;
        }
    }

    // Stored as 16 bits, read as floats: the device's offset comes off.
    ring.Resize(10, tqDataType16sc);
    const std::vector<Ipp16sc> wire(7, Ipp16sc{576 + 16384, 576 - 8192});
    std::vector<Ipp32fc> values(7);
    for (int round = 0; round < 2; ++round) {
        ring.Append(wire.data(), 7, nullptr, 0, 0);
        ring.Read(values.data(), 7, n, nullptr, 0, t, time, tqDataType32fc);
        for (const Ipp32fc& x : values) {
            EXPECT_EQ(x.re, 0.5f);
            EXPECT_EQ(x.im, -0.25f);
        }
    }
}

}  // namespace
