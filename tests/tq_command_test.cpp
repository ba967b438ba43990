#include "tq_command.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>
#include <thread>

namespace {

std::vector<uint32_t> WordsOf(const TqCommand& command) {
    return {command.cmds.begin(), command.cmds.begin() + command.pos};
}

TqCommand OneBlock() {
    TqCommand command;
    command.StartNewCommand();
    return command;
}

TEST(TqCommand, StopBlockOnTheWireIsTheWordAndFillWords) {
    TqCommand command = OneBlock();
    command.AddStopIQ();
    const uint8_t* bytes = command.GetCommand(0);
    const std::array<uint8_t, 4> stop = {0x00, 0x00, 0x00, 0x32};
    const std::array<uint8_t, 4> fill = {0x01, 0x00, 0x00, 0x00};
    EXPECT_TRUE(std::equal(stop.begin(), stop.end(), bytes));
    for (int word = 1; word < 512; word++) EXPECT_TRUE(std::equal(fill.begin(), fill.end(), bytes + 4 * word)) << word;
}

struct BuilderCase {
    const char* name;
    std::function<void(TqCommand&)> build;
    std::vector<uint32_t> words;
};

class Builder : public testing::TestWithParam<BuilderCase> {};

TEST_P(Builder, AppendsTheseWords) {
    TqCommand command = OneBlock();
    GetParam().build(command);
    EXPECT_EQ(WordsOf(command), GetParam().words);
}

constexpr std::array<uint32_t, 2> GPS_TEXT = {0x12345678, 0xFFFF0001};

INSTANTIATE_TEST_SUITE_P(
    TqCommand, Builder,
    testing::Values(BuilderCase{"Nop", [](TqCommand& c) { c.AddNop(2); }, {0x01000000, 0x01000000}},
                    BuilderCase{"NopOfNegativeCount", [](TqCommand& c) { c.AddNop(-1); }, {}},
                    BuilderCase{"Wait", [](TqCommand& c) { c.AddWait(0x123456); }, {0x10123456}},
                    BuilderCase{"WaitDropsTheTopByte", [](TqCommand& c) { c.AddWait(0x7F123456); }, {0x10123456}},
                    BuilderCase{"StartIQ",
                                [](TqCommand& c) { c.AddStartIQ(3); },
                                {0x30000003, 0x10000050, 0x01000000, 0x01000000, 0x01000000}},
                    BuilderCase{"FetchAuxOnly",
                                [](TqCommand& c) { c.AddFetchAux(); },
                                {0x31000C00, 0x14000001, 0x01000000, 0x01000000, 0x01000000}},
                    BuilderCase{"FetchBoth",
                                [](TqCommand& c) { c.AddFetchIQ(63, 1); },
                                {0x3100013F, 0x14000001, 0x01000000, 0x01000000, 0x01000000}},
                    BuilderCase{"FetchMostIQ",
                                [](TqCommand& c) { c.AddFetchIQ(255, 0); },
                                {0x310000FF, 0x14000001, 0x01000000, 0x01000000, 0x01000000}},
                    BuilderCase{"TriggerEdges",
                                [](TqCommand& c) {
                                    c.AddSetExtTriggerEdge(tqTriggerEdgeRising);
                                    c.AddSetExtTriggerEdge(tqTriggerEdgeFalling);
                                },
                                {0x26000000, 0x26100000}},
                    BuilderCase{"PortOutputs",
                                [](TqCommand& c) {
                                    c.AddSetPPSOut();
                                    c.AddSetLogicLowOut();
                                    c.AddSetLogicHighOut();
                                },
                                {0x26600000, 0x26400000, 0x26500000}},
                    BuilderCase{"Uart",
                                [](TqCommand& c) {
                                    c.AddConfigureUARTDirect(164);
                                    c.AddConfigureUARTDirect(32768);
                                    c.AddUARTWriteDirect(0xA5);
                                },
                                {0x262000A3, 0x26207FFF, 0x270000A5}},
                    BuilderCase{"GpsText",
                                [](TqCommand& c) { c.AddWriteToGPS(GPS_TEXT.data(), 2); },
                                {0x28005678, 0x29001234, 0x28000001, 0x2900FFFF}},
                    BuilderCase{"Timebase",
                                [](TqCommand& c) {
                                    c.AddSetReference(true);
                                    c.AddSetReference(false);
                                    c.AddSetTimebaseDAC(0xA000);
                                    c.AddSetGPSTimebaseUpdate(true);
                                    c.AddSetGPSTimebaseUpdate(false);
                                },
                                {0x2D000000, 0x2D000001, 0x2E00A000, 0x2F000001, 0x2F000000}},
                    BuilderCase{"System",
                                [](TqCommand& c) {
                                    c.AddBootToRun();
                                    c.AddReadFlashPage(0x1234);
                                    c.AddEraseFlashPage(0xFFFF);
                                },
                                {0xFFFA0003, 0xFFFD1234, 0xFFFCFFFF}}),
    [](const auto& suite) { return suite.param.name; });

TEST(TqCommand, FlashPageFollowsItsWordByteForByte) {
    std::array<uint8_t, 1024> page;
    std::iota(page.begin(), page.end(), uint8_t{3});
    TqCommand command = OneBlock();
    command.AddWriteFlashPage(0x0102, page.data());
    EXPECT_EQ(command.pos, 257);
    EXPECT_EQ(command.cmds[0], 0xFFFE0102u);
    EXPECT_TRUE(std::equal(page.begin(), page.end(), command.GetCommand(0) + 4));
}

TEST(TqCommand, FilterTapsAlternateAndTheLastPositionIsZeroed) {
    std::array<Ipp32fc, 31> taps = {};
    for (size_t k = 0; k < taps.size(); k++) taps[k] = {static_cast<float>(k) / 32767.0f, 0.0f};
    taps[15] = {1.0f, -1.0f};
    taps[16] = {0.5f, -0.5f};  // halves go up
    TqCommand command = OneBlock();
    command.AddFIRCoeffs(taps.data());
    const std::vector<uint32_t> words = WordsOf(command);
    ASSERT_EQ(words.size(), 64u);
    EXPECT_EQ(words[0], 0x40000000u);
    EXPECT_EQ(words[1], 0x60000000u);
    EXPECT_EQ(words[2], 0x41000001u);
    EXPECT_EQ(words[30], 0x4F007FFFu);
    EXPECT_EQ(words[31], 0x6F008001u);
    EXPECT_EQ(words[32], 0x50004000u);
    EXPECT_EQ(words[33], 0x7000C001u);
    EXPECT_EQ(words[60], 0x5E00001Eu);
    EXPECT_EQ(words[62], 0x5F000000u);
    EXPECT_EQ(words[63], 0x7F000000u);
}

TEST(TqCommand, WildTapsStayInTheirWords) {
    constexpr float INF = std::numeric_limits<float>::infinity();
    std::array<Ipp32fc, 31> taps = {};
    taps[0] = {std::nanf(""), INF};
    taps[1] = {-INF, 1e30f};
    TqCommand command = OneBlock();
    command.AddFIRCoeffs(taps.data());
    for (uint32_t i = 0; i < 64; i++) {
        const uint32_t op = (i % 2 == 0 ? 0x40 : 0x60) + i / 2;
        EXPECT_EQ(command.cmds[i] >> 16, op << 8) << i;
    }
}

TEST(TqCommand, CountsPacketsPerBlockAndLeavesEarlierBlocksAlone) {
    TqCommand command;
    EXPECT_EQ(command.GetCommandCount(), 0);
    EXPECT_EQ(command.GetCurrent8kXferCount(), 0);
    EXPECT_EQ(command.GetTotalXferCount() + command.GetTotalAuxCount(), 0);

    command.StartNewCommand();
    command.AddFetchIQ(255, 0);
    command.AddFetchIQ(2, 1);
    const std::vector<uint32_t> first = command.cmds;
    command.StartNewCommand();
    EXPECT_EQ(command.GetCurrent8kXferCount(), 0);
    command.AddFetchAux(3);

    EXPECT_TRUE(std::equal(first.begin(), first.end(), command.cmds.begin()));
    EXPECT_EQ(command.cmds[512], 0x31000B00u);
    EXPECT_EQ(command.GetCommandCount(), 2);
    EXPECT_EQ(command.GetCommand(1) - command.GetCommand(0), 2048);
    EXPECT_EQ(command.GetXferCount(0), 257);
    EXPECT_EQ(command.GetAuxPacketCount(0), 1);
    EXPECT_EQ(command.GetCurrent8kXferCount(), 3);
    EXPECT_EQ(command.GetTotalXferCount(), 257);
    EXPECT_EQ(command.GetTotalAuxCount(), 4);
}

TEST(TqCommandDeathTest, MisuseAsserts) {
    TqCommand empty;
    EXPECT_DEATH(empty.AddStopIQ(), "WordsLeftInCommand");
    TqCommand command = OneBlock();
    EXPECT_DEATH(command.AddFetchIQ(256, 0), "iqPkts <= ");
    EXPECT_DEATH(command.AddFetchIQ(0, 5), "auxPkts <= ");
    EXPECT_DEATH(command.GetCommand(1), "GetCommandCount");
    EXPECT_DEATH(command.GetXferCount(-1), "GetCommandCount");

    const std::array<Ipp32fc, 31> taps = {};
    command.AddNop(512 - 63);
    EXPECT_DEATH(command.AddFIRCoeffs(taps.data()), "FIR_COEFF_WORDS");
    command.AddNop(63);
    EXPECT_DEATH(command.AddStopIQ(), "WordsLeftInCommand");

    CommandQueue queue;
    EXPECT_DEATH(queue.GetNextCommand(), "q\\.size\\(\\) > 0");
}

TEST(CommandQueue, HandsBlocksOverInOrderAcrossThreads) {
    constexpr int ROUNDS = 50;
    TqCommand command;
    for (uint32_t i = 0; i < 5; i++) {
        command.StartNewCommand();
        command.AddFetchIQ(i, 1);
    }
    CommandQueue queue;
    std::thread producer([&] {
        for (int i = 0; i < ROUNDS; i++) queue.AddToQueue(command);
    });
    for (int taken = 0; taken < 5 * ROUNDS;) {
        if (queue.Size() == 0) {
            std::this_thread::yield();
            continue;
        }
        const CommandQueue::Link link = queue.GetNextCommand();
        EXPECT_EQ(link.cmdMemory, command.GetCommand(taken % 5));
        EXPECT_EQ(link.num8kPkts, taken % 5 + 1);
        taken++;
    }
    producer.join();
    EXPECT_EQ(queue.Size(), 0);
}

}  // namespace
