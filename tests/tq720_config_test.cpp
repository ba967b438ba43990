#include "tq720_config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace {

using Words = std::vector<uint32_t>;

Words Tune(double LOFreq, double RFFreq, int roughAtten = 0, int atten = 0, int ticks = 24) {
    Words words(TQ720_CONFIG_MAX_WORDS);
    words.resize(static_cast<size_t>(Tq720Config().Configure(words.data(), LOFreq, RFFreq, roughAtten, atten, ticks)));
    return words;
}

// Value of the synthesiser register at `address` in a tune; 0xBAD00000 if it is not written.
uint32_t Register(const Words& words, uint32_t address) {
    for (uint32_t word : words) {
        if (word >> 16 == (0x2000 | address)) return word & 0xFFFF;
    }
    return 0xBAD00000;
}

// Sweep step 1: band 0, VCO 7.86432 GHz by 128, 64 times the reference, core 1.
TEST(Tq720Config, TunesTheLowestStepWithTheseWords) {
    const Words expected = {
        0x24000007, 0x2CA803CF,                                                  // rough attenuation, band 0 at 15 dB
        0x204E00E5, 0x2014C848, 0x20110117, 0x202C32A3, 0x202B0000, 0x20240040,  //
        0x10000100, 0x00000000, 0x00000000, 0x00000000,                          //
        0x201F43EC, 0x204B0B00, 0x2000251C,                                      //
        0x2A000018, 0x10000800, 0x00000000, 0x00000000, 0x00000000,              //
        0x11008000, 0x00000000, 0x00000000, 0x00000000,
    };
    EXPECT_EQ(Tune(61440000, 23040000, 7, 15, 24), expected);
}

// A step at 10.1 GHz: band 12 by port B, VCO undivided, 82.5 times the reference, core 3.
TEST(Tq720Config, TunesAHighStepWithTheseWords) {
    const Words expected = {
        0x24000000, 0x2C3C11FE,                                                              // band 12 at 30 dB
        0x204E00DF, 0x2014D848, 0x20110122, 0x202E07FD, 0x202C3263, 0x202B0040, 0x20240052,  //
        0x10000100, 0x00000000, 0x00000000, 0x00000000,                                      //
        0x201F43EC, 0x204B0800, 0x2000251C,                                                  //
        0x2A00001C, 0x10000800, 0x00000000, 0x00000000, 0x00000000,                          //
        0x11008000, 0x00000000, 0x00000000, 0x00000000,
    };
    EXPECT_EQ(Tune(10137600000, 10114560000, 0, 30, 28), expected);
}

// Each range from its lowest RF on; the frequency just below belongs to the row above.
TEST(Tq720Config, BandFollowsTheRF) {
    constexpr std::pair<double, uint32_t> BANDS[] = {
        {9000, 0x2CA803C0},       {38400000, 0x2CA8E2A0},   {61440000, 0x2CA8D2A0},   {122880000, 0x2CA8BAA0},
        {276480000, 0x2CA88AA0},  {576000000, 0x2CA808A0},  {698880000, 0x2C680C80},  {944640000, 0x2C683C80},
        {975360000, 0x2CA838A0},  {1405440000, 0x2CA850A0}, {1958400000, 0x2C685480}, {2880000000, 0x2C686480},
        {5429760000, 0x2C3C09E0}, {8409600000, 0x2C3C11E0}, {11635200000, 0x2C3E11E0}};
    uint32_t below = 0x2CA803C0;
    for (const auto& [fromHz, rfConfig] : BANDS) {
        EXPECT_EQ(Tune(480e6, std::nextafter(fromHz, 0.0))[1], below) << fromHz;
        EXPECT_EQ(Tune(480e6, fromHz)[1], rfConfig) << fromHz;
        below = rfConfig;
    }
}

// Each divider up to its highest synthesiser frequency, with its register code.
TEST(Tq720Config, DividerFollowsTheSynthesiserFrequency) {
    constexpr struct {
        double topHz;
        int divider;
        uint32_t chdiv;
    } CASES[] = {{40000000, 256, 0xB80}, {59250000, 192, 0xB40}, {80000000, 128, 0xB00}, {118500000, 96, 0xAC0},
                 {160000000, 64, 0xA40}, {237000000, 48, 0xA00}, {320000000, 32, 0x9C0}, {474000000, 24, 0x980},
                 {640000000, 16, 0x940}, {942500000, 12, 0x900}, {1437500000, 8, 0x8C0}, {1875000000, 6, 0x880},
                 {3750000000, 4, 0x840}, {7500000000, 2, 0x800}, {15000000000, 1, 0x800}};
    double above = 10e6;
    for (const auto& c : CASES) {
        for (const double f : {std::nextafter(above, 1e12), c.topHz}) {
            Tq720Config config;
            Words words(TQ720_CONFIG_MAX_WORDS);
            config.Configure(words.data(), f, 700e6, 0, 0, 0);  // band 13: the LO undoubled
            EXPECT_EQ(config.VCOFreq, f * c.divider) << f;
            EXPECT_EQ(Register(words, 0x4B), c.chdiv) << f;
            EXPECT_EQ(Register(words, 0x1F), c.divider == 2 ? 0x03ECu : 0x43ECu) << f;
        }
        above = c.topHz;
    }
}

// Presets at the ends of each core's range, the upper one approached from below.
TEST(Tq720Config, CorePresetsRunAlongTheirLines) {
    constexpr struct {
        double f;
        uint32_t core, cap, ampl;
    } CASES[] = {
        {7500000001, 0xC848, 164, 299},  {8599999999, 0xC848, 12, 240},   {8600000000, 0xD048, 165, 356},
        {9800000000, 0xD848, 158, 324},  {10800000000, 0xE048, 140, 383}, {11999999999, 0xE048, 0, 244},
        {12000000000, 0xE848, 183, 205}, {12900000000, 0xF048, 155, 242}, {13900000000, 0xF848, 175, 323},
        {15000000000, 0xF848, 19, 244},  {16000000000, 0xF848, 0, 172}};  // beyond the table the codes end at 0
    for (const auto& c : CASES) {
        const Words words = Tune(c.f, 14e9);
        EXPECT_EQ(Register(words, 0x14), c.core) << c.f;
        EXPECT_EQ(Register(words, 0x4E), 1 + 2 * c.cap) << c.f;
        EXPECT_EQ(Register(words, 0x11), c.ampl) << c.f;
    }
}

TEST(Tq720Config, LowOutputsTakeTheirOwnPortWords) {
    constexpr std::pair<double, uint32_t> CASES[] = {
        {3840000, 0x0AA3}, {4000000, 0x0FA3}, {4499999, 0x0FA3}, {4500000, 0x32A3}};
    for (const auto& [LOFreq, word] : CASES) EXPECT_EQ(Register(Tune(LOFreq, 23040000), 0x2C), word) << LOFreq;
}

TEST(Tq720Config, NoArgumentReachesAnOpCodeOrARegisterAddress) {
    const double wild[] = {NAN, INFINITY, -INFINITY, 1e300, -1e300, -1.0, 0.0, 5e-324, 1e18};
    const auto skeleton = [](const Words& words) {
        Words heads;
        for (uint32_t word : words) heads.push_back(word >> 24 == 0x20 ? word >> 16 : word >> 24);
        return heads;
    };
    const Words portA = skeleton(Tune(1e9, 1e9));
    const Words portB = skeleton(Tune(1e10, 1e10));
    for (double lo : wild) {
        for (double rf : wild) {
            for (int field : {INT32_MIN, -1, INT32_MAX}) {
                const Words words = Tune(lo, rf, field, field, field);
                EXPECT_EQ(skeleton(words), words.size() == 25 ? portB : portA) << lo << " " << rf;
                EXPECT_EQ(words[1] & 0x80, 0x80u);  // no attenuation reaches the bits above its own
            }
        }
    }
}

TEST(Tq720Config, WakingProgramsTheSynthesiserFromTheTop) {
    Words words(117, 0xDEADBEEF);
    ASSERT_EQ(Tq720Config().ReInitialize(words.data()), 117);
    Words expected = {0x2CA803CA, 0};
    for (const uint32_t write :
         Words{0x20002496, 0x20002494, 0x204E016F, 0x204B08C0, 0x203C0000, 0x202E07FC, 0x202DC0F2, 0x202C32A3,
               0x202B0000, 0x202A0000, 0x20270080, 0x20260000, 0x20250404, 0x2024004B, 0x201F43EC, 0x2011012C,
               0x200E1E70, 0x20090604, 0x200740B2, 0x20040D43, 0x20010808, 0x20002494, 0x2000249C}) {
        expected.insert(expected.end(), {write, 0x10000050, 0, 0, 0});
    }
    expected[2 + 5 * 21 + 1] = 0x100C8000;  // the calibration takes longer
    EXPECT_EQ(words, expected);
}

TEST(Tq720Config, BringUpIsTheseWords) {
    Words words(TQ720_CONFIG_MAX_WORDS, 0xDEADBEEF);
    Tq720Config config;
    ASSERT_EQ(config.Initialize(words.data()), 227);

    const std::pair<size_t, uint32_t> WORDS[] = {
        {0, 0x2C683C8A},   {1, 0x2E00A000},   {2, 0x1000A000},   {6, 0x2E00A000},  {7, 0x1000A000},
        {11, 0x230D80A3},  {12, 0x230D80A2},  {13, 0x10000A00},  {17, 0x230001F4}, {18, 0x23060001},
        {19, 0x1000A000},  {86, 0x2A000018},  {87, 0x107F0000},  {91, 0x22000000}, {92, 0x103F0000},
        {96, 0x22000001},  {97, 0x230D80A3},  {98, 0x230D80A2},  {99, 0x10000A00}, {103, 0x230001F4},
        {104, 0x23060001}, {221, 0x26000000}, {222, 0x10000A00}, {226, 0x3F000240}};
    Words expected(TQ720_CONFIG_MAX_WORDS, 0);
    for (const auto& [at, word] : WORDS) expected[at] = word;
    for (uint32_t i = 0; i < 64; i++) expected[22 + i] = (0x40 + i) << 24;
    expected[22 + 16] = 0x500041F4;
    expected[22 + 48] = 0x70004000;
    Words wake(117);
    config.ReInitialize(wake.data());
    std::copy(wake.begin() + 1, wake.end(), expected.begin() + 105);
    EXPECT_EQ(words, expected);
}

}  // namespace
