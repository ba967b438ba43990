#include "tq_command.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Words = std::vector<uint32_t>;

TqCommand OneBlock() {
    TqCommand command;
    command.StartNewCommand();
    return command;
}

TEST(TqCommand, StopBlockOnTheWireIsTheWordAndFillWords) {
    TqCommand command = OneBlock();
    command.AddStopIQ();
    std::array<uint8_t, 2048> wire = {0x00, 0x00, 0x00, 0x32};
    for (size_t word = 1; word < 512; word++) wire[4 * word] = 0x01;
    EXPECT_TRUE(std::equal(wire.begin(), wire.end(), command.GetCommand(0)));
}

TEST(TqCommand, BuildersAppendTheseWords) {
    const struct {
        const char* name;
        void (*build)(TqCommand&);
        Words words;
    } CASES[] = {
        {"negative count", [](TqCommand& c) { c.AddNop(-1); }, {}},
        {"wait drops the top byte", [](TqCommand& c) { c.AddWait(0x7F123456); }, {0x10123456}},
        {"start", [](TqCommand& c) { c.AddStartIQ(3); }, {0x30000003, 0x10000050, 0x01000000, 0x01000000, 0x01000000}},
        {"fetch",
         [](TqCommand& c) { c.AddFetchIQ(63, 1); },
         {0x3100013F, 0x14000001, 0x01000000, 0x01000000, 0x01000000}},
        {"rising edge", [](TqCommand& c) { c.AddSetExtTriggerEdge(tqTriggerEdgeRising); }, {0x26000000}},
        {"falling edge", [](TqCommand& c) { c.AddSetExtTriggerEdge(tqTriggerEdgeFalling); }, {0x26100000}},
        {"slowest UART", [](TqCommand& c) { c.AddConfigureUARTDirect(32768); }, {0x26207FFF}},
    };
    for (const auto& c : CASES) {
        TqCommand command = OneBlock();
        c.build(command);
        EXPECT_EQ(Words(command.cmds.begin(), command.cmds.begin() + command.pos), c.words) << c.name;
    }
}

TEST(TqCommand, TapsRoundSaturateAndStayInTheirWords) {
    constexpr float INF = std::numeric_limits<float>::infinity();
    std::array<Ipp32fc, 31> taps = {};
    taps[0] = {std::nanf(""), INF};
    taps[1] = {-INF, 1e30f};
    taps[2] = {2.0f / 32767.0f, 0.0f};
    taps[15] = {1.0f, -1.0f};
    taps[16] = {0.5f, -0.5f};  // halves go up
    TqCommand command = OneBlock();
    command.AddFIRCoeffs(taps.data());
    EXPECT_EQ(command.pos, 64) << "the 32nd position is cleared";
    for (uint32_t i = 0; i < 64; i++) {
        const uint32_t op = (i % 2 == 0 ? 0x40 : 0x60) + i / 2;
        EXPECT_EQ(command.cmds[i] >> 16, op << 8) << i;
    }
    const std::pair<size_t, uint32_t> WORDS[] = {{4, 0x42000002},  {30, 0x4F007FFF}, {31, 0x6F008001},
                                                 {32, 0x50004000}, {33, 0x7000C001}, {63, 0x7F000000}};
    for (const auto& [at, word] : WORDS) EXPECT_EQ(command.cmds[at], word) << at;
}

TEST(TqCommandDeathTest, MisuseAsserts) {
    EXPECT_DEATH(TqCommand().AddStopIQ(), "WordsLeftInCommand");
    TqCommand command = OneBlock();
    EXPECT_DEATH(command.AddFetchIQ(256, 0), "iqPkts <= ");
    EXPECT_DEATH(command.AddFetchIQ(0, 5), "auxPkts <= ");
    EXPECT_DEATH(command.GetCommand(1), "GetCommandCount");
    const std::array<Ipp32fc, 31> taps = {};
    command.AddNop(512 - 63);
    EXPECT_DEATH(command.AddFIRCoeffs(taps.data()), "FIR_COEFF_WORDS");
    EXPECT_DEATH(CommandQueue().GetNextCommand(), "blocks > 0");
}

TEST(CommandQueue, HandsBlocksOverInOrderAcrossThreads) {
    constexpr int BLOCKS = 50;
    TqCommand command;
    for (uint32_t i = 0; i < BLOCKS; i++) {
        command.StartNewCommand();
        command.AddFetchIQ(i, 1);
    }
    CommandQueue queue;
    std::thread producer([&] { queue.AddToQueue(command); });
    for (int taken = 0; taken < BLOCKS; taken++) {
        while (queue.Size() == 0) std::this_thread::yield();
        const CommandQueue::Link link = queue.GetNextCommand();
        EXPECT_EQ(link.cmdMemory, command.GetCommand(taken));
        EXPECT_EQ(link.num8kPkts, taken + 1);
    }
    producer.join();
}

}  // namespace
