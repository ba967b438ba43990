#include "tq720_config.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <vector>

namespace {

using Words = std::vector<uint32_t>;

Words Tune(double LOFreq, double RFFreq, int roughAtten = 0, int atten = 0, int ticks = 24) {
    Words words(TQ720_CONFIG_MAX_WORDS);
    words.resize(static_cast<size_t>(Tq720Config().Configure(words.data(), LOFreq, RFFreq, roughAtten, atten, ticks)));
    return words;
}

// Value of the synthesiser register at `address` in a tune; empty-handed: 0xBAD00000.
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
    struct Case {
        double fromHz;
        uint32_t rfConfig;
        int multiplier;
        size_t words;
    };
    constexpr std::array<Case, 15> CASES = {{
        {9000, 0x2CA803C0, 1, 24},
        {38400000, 0x2CA8E2A0, 2, 24},
        {61440000, 0x2CA8D2A0, 2, 24},
        {122880000, 0x2CA8BAA0, 2, 24},
        {276480000, 0x2CA88AA0, 2, 24},
        {576000000, 0x2CA808A0, 2, 24},
        {698880000, 0x2C680C80, 1, 24},
        {944640000, 0x2C683C80, 1, 24},
        {975360000, 0x2CA838A0, 2, 24},
        {1405440000, 0x2CA850A0, 2, 24},
        {1958400000, 0x2C685480, 1, 24},
        {2880000000, 0x2C686480, 1, 24},
        {5429760000, 0x2C3C09E0, 1, 25},
        {8409600000, 0x2C3C11E0, 1, 25},
        {11635200000, 0x2C3E11E0, 1, 25},
    }};
    for (size_t i = 0; i < CASES.size(); i++) {
        const double topHz = i + 1 < CASES.size() ? std::nextafter(CASES[i + 1].fromHz, 0.0) : 15e9;
        for (double rf : {CASES[i].fromHz, topHz}) {
            // 480 MHz exceeds the limit of divider 16, 960 MHz that of divider 8.
            const Words words = Tune(480e6, rf);
            EXPECT_EQ(words.size(), CASES[i].words) << rf;
            EXPECT_EQ(words[1], CASES[i].rfConfig) << rf;
            EXPECT_EQ(Register(words, 0x4B), CASES[i].multiplier == 2 ? 0x8C0u : 0x940u) << rf;
            EXPECT_EQ(Register(words, 0x2C), CASES[i].words == 25 ? 0x3263u : 0x32A3u) << rf;
        }
    }
}

TEST(Tq720Config, DividerFollowsTheSynthesiserFrequency) {
    struct Case {
        double topHz;  // inclusive
        int divider;
        uint32_t chdiv;
    };
    constexpr std::array<Case, 15> CASES = {{
        {40000000, 256, 0xB80},
        {59250000, 192, 0xB40},
        {80000000, 128, 0xB00},
        {118500000, 96, 0xAC0},
        {160000000, 64, 0xA40},
        {237000000, 48, 0xA00},
        {320000000, 32, 0x9C0},
        {474000000, 24, 0x980},
        {640000000, 16, 0x940},
        {942500000, 12, 0x900},
        {1437500000, 8, 0x8C0},
        {1875000000, 6, 0x880},
        {3750000000, 4, 0x840},
        {7500000000, 2, 0x800},
        {15000000000, 1, 0x800},
    }};
    double above = 10e6;
    for (const Case& c : CASES) {
        for (double f : {std::nextafter(above, 1e12), c.topHz}) {
            Tq720Config config;
            Words words(TQ720_CONFIG_MAX_WORDS);
            config.Configure(words.data(), f, 700e6, 0, 0, 0);  // band 13: the LO undoubled
            EXPECT_EQ(config.VCOFreqDivider, c.divider) << f;
            EXPECT_EQ(config.VCOFreq, f * c.divider) << f;
            EXPECT_EQ(Register(words, 0x4B), c.chdiv) << f;
            EXPECT_EQ(Register(words, 0x1F), c.divider == 2 ? 0x03ECu : 0x43ECu) << f;
        }
        above = c.topHz;
    }
}

// Presets at the ends of each core's range: the table's codes, the upper one approached from below.
TEST(Tq720Config, CorePresetsRunAlongTheirLines) {
    struct Case {
        double f;
        uint32_t core;
        uint32_t cap;
        uint32_t ampl;
    };
    constexpr std::array<Case, 12> CASES = {{
        {7500000001, 0xC848, 164, 299},
        {8599999999, 0xC848, 12, 240},
        {8600000000, 0xD048, 165, 356},
        {9800000000, 0xD848, 158, 324},
        {10800000000, 0xE048, 140, 383},
        {11999999999, 0xE048, 0, 244},
        {12000000000, 0xE848, 183, 205},
        {12900000000, 0xF048, 155, 242},
        {13900000000, 0xF848, 175, 323},
        {15000000000, 0xF848, 19, 244},
        {16000000000, 0xF848, 0, 172},  // beyond the table the capacitor code ends at 0
        {19200000000, 0xF848, 0, 0},    // top of the LO
    }};
    for (const Case& c : CASES) {
        const Words words = Tune(c.f, 14e9);
        EXPECT_EQ(Register(words, 0x14), c.core) << c.f;
        EXPECT_EQ(Register(words, 0x4E), 1 + 2 * c.cap) << c.f;
        EXPECT_EQ(Register(words, 0x11), c.ampl) << c.f;
    }
}

TEST(Tq720Config, LowOutputsTakeTheirOwnPortWords) {
    EXPECT_EQ(Register(Tune(3840000, 23040000), 0x2C), 0x0AA3u);
    EXPECT_EQ(Register(Tune(4000000, 23040000), 0x2C), 0x0FA3u);
    EXPECT_EQ(Register(Tune(4499999, 23040000), 0x2C), 0x0FA3u);
    EXPECT_EQ(Register(Tune(4500000, 23040000), 0x2C), 0x32A3u);
    EXPECT_EQ(Register(Tune(2000000, 46080000), 0x2C), 0x0FA3u);  // doubled
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
                EXPECT_LE(words[1] & 0x1F, 31u);
                EXPECT_EQ(words[1] & 0x80, 0x80u);  // no attenuation reaches the bits above its own
            }
        }
    }
}

TEST(Tq720Config, RFConfigWordCarriesBandAndAttenuation) {
    EXPECT_EQ(GetRFConfigWordFromBandAtten(3, 15), 0xA8BAAFu);
    EXPECT_EQ(GetRFConfigWordFromBandAtten(14, 30), 0x3E11FEu);
    EXPECT_EQ(GetRFConfigWordFromBandAtten(0, 40), 0xA803DFu);
    EXPECT_EQ(GetRFConfigWordFromBandAtten(0, -1), 0xA803C0u);
    EXPECT_DEATH(GetRFConfigWordFromBandAtten(15, 0), "BANDS");
}

TEST(Tq720Config, WakingProgramsTheSynthesiserFromTheTop) {
    Words words(117, 0xDEADBEEF);
    ASSERT_EQ(Tq720Config().ReInitialize(words.data()), 117);
    EXPECT_EQ(words[0], 0x2CA803CAu);
    EXPECT_EQ(words[1], 0u);
    constexpr std::array<uint32_t, 23> WRITES = {
        0x20002496, 0x20002494, 0x204E016F, 0x204B08C0, 0x203C0000, 0x202E07FC, 0x202DC0F2, 0x202C32A3,
        0x202B0000, 0x202A0000, 0x20270080, 0x20260000, 0x20250404, 0x2024004B, 0x201F43EC, 0x2011012C,
        0x200E1E70, 0x20090604, 0x200740B2, 0x20040D43, 0x20010808, 0x20002494, 0x2000249C,
    };
    for (size_t i = 0; i < WRITES.size(); i++) {
        const size_t at = 2 + 5 * i;
        EXPECT_EQ(words[at], WRITES[i]) << i;
        EXPECT_EQ(words[at + 1], i == 21 ? 0x100C8000u : 0x10000050u) << i;
        for (size_t spacer = at + 2; spacer < at + 5; spacer++) EXPECT_EQ(words[spacer], 0u) << spacer;
    }

    EXPECT_EQ(Tq720Config().PowerDown(words.data()), 1);
    EXPECT_EQ(words[0], 0x2C00035Fu);
}

TEST(Tq720Config, BringUpIsTheseWords) {
    Words words(TQ720_CONFIG_MAX_WORDS, 0xDEADBEEF);
    Tq720Config config;
    ASSERT_EQ(config.Initialize(words.data()), 227);

    const std::map<size_t, uint32_t> expected = {
        {0, 0x2C683C8A},  {1, 0x2E00A000},   {2, 0x1000A000},   {6, 0x2E00A000},   {7, 0x1000A000},   {11, 0x230D80A3},
        {12, 0x230D80A2}, {13, 0x10000A00},  {17, 0x230001F4},  {18, 0x23060001},  {19, 0x1000A000},  {86, 0x2A000018},
        {87, 0x107F0000}, {91, 0x22000000},  {92, 0x103F0000},  {96, 0x22000001},  {97, 0x230D80A3},  {98, 0x230D80A2},
        {99, 0x10000A00}, {103, 0x230001F4}, {104, 0x23060001}, {221, 0x26000000}, {222, 0x10000A00}, {226, 0x3F000240},
    };
    for (size_t i = 0; i < words.size(); i++) {
        if ((i >= 22 && i < 86) || (i >= 105 && i < 221)) continue;
        EXPECT_EQ(words[i], expected.contains(i) ? expected.at(i) : 0u) << i;
    }
    for (uint32_t i = 0; i < 64; i++) {
        const uint32_t word = i == 16 ? 0x500041F4 : i == 48 ? 0x70004000 : (0x40 + i) << 24;
        EXPECT_EQ(words[22 + i], word) << i;
    }
    Words wake(117);
    config.ReInitialize(wake.data());
    EXPECT_TRUE(std::equal(wake.begin() + 1, wake.end(), words.begin() + 105));
}

}  // namespace
