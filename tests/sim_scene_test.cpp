#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>

#include "sim/scene.h"

namespace {

TEST(SimScene, ReadsEveryKindWithUnitsCommentsAndDefaults) {
    const sim::SceneResult result = sim::ParseScene(
        "# a comment line\r\n"
        "noise -148.5\n"
        "\n"
        "carrier freq=2.4G level=-40   # behind a line\n"
        "am  freq=1.017M level=-65 tone=400 depth=0.3\n"
        "fm\tfreq=97.1M level=-45 deviation=60k\n"
        "ssb freq=14.2M level=-75 side=lsb\n"
        "pulse freq=1.09G level=-35 period=1m width=250u start=3m\n"
        "hop freqs=433.1M,433.5M,434M level=-50 dwell=2m");
    ASSERT_EQ(result.error, "");
    EXPECT_EQ(result.scene.noiseDbmPerHz, -148.5);
    const std::vector<sim::Emitter>& emitters = result.scene.emitters;
    ASSERT_EQ(emitters.size(), 6u);
    EXPECT_DOUBLE_EQ(emitters[0].freqHz, 2.4e9);
    EXPECT_EQ(emitters[1].depth, 0.3);
    EXPECT_EQ(emitters[2].toneHz, 1000.0);  // not given
    EXPECT_DOUBLE_EQ(emitters[2].deviationHz, 60e3);
    EXPECT_FALSE(emitters[3].upperSideband);
    EXPECT_DOUBLE_EQ(emitters[4].widthS, 250e-6);
    EXPECT_DOUBLE_EQ(emitters[4].startS, 3e-3);
    ASSERT_EQ(emitters[5].hopsHz.size(), 3u);
    EXPECT_EQ(emitters[5].freqHz, emitters[5].hopsHz[0]);
}

TEST(SimScene, SaysWhichLineIsWrongAndWhy) {
    const std::pair<const char*, const char*> cases[] = {
        {"noise -150\nlaser freq=1 level=0", "line 2: unknown word laser"},
        {"carrier freq=1G", "line 1: level missing"},
        {"\n\ncarrier freq=1G level=-3 width=1", "line 3: carrier has no setting width "},
        {"carrier freq=nan level=0", "line 1: bad number for freq"},
        {"carrier freq=-1 level=0", "line 1: freq out of range"},
        {"carrier freq=1G freq=2G level=0", "line 1: setting given twice: freq "},
        {"pulse freq=1M level=0 period=1m width=2m", "line 1: width above period"},
        {"hop freqs=1M,,2M level=0", "line 1: bad frequency in freqs"},
        {"replay freq=1M level=0 rate=1M file=/no/such", "line 1: cannot open recording /no/such"},
        {"am freq=1M level=0 rate=8k", "line 1: rate goes with audio"},
        {"am freq=1M level=0 audio=voice tone=1k", "line 1: tone or audio, not both"},
        {"count", "line 1: count takes samples or acquisitions"},
        {"noise -150 -151", "line 1: noise takes one density from -250 to -60 dBm/Hz"},
    };
    for (const auto& [text, error] : cases) EXPECT_EQ(sim::ParseScene(text).error, error) << text;
}

TEST(SimScene, LoadsFilesAndTheRecordingsBesideThem) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::path(testing::TempDir()) / ("scene" + std::to_string(::getpid()));
    fs::create_directories(folder);
    std::ofstream(folder / "tape.iq", std::ios::binary) << std::string("\x01\x00\x02\x00\xFF\xFF\x00\x80", 8);
    std::ofstream(folder / "cut.iq", std::ios::binary) << "0123456789";
    std::ofstream(folder / "good.txt") << "replay freq=1G level=-30 rate=1M file=tape.iq\n";
    std::ofstream(folder / "bad.txt") << "replay freq=1G level=-30 rate=1M file=cut.iq\n";

    const sim::SceneResult good = sim::LoadScene((folder / "good.txt").string());
    ASSERT_EQ(good.error, "");
    EXPECT_EQ(good.scene.emitters.at(0).recording->iq, (std::vector<std::int16_t>{1, 2, -1, -32768}));

    std::ofstream(folder / "speech.txt") << "ssb freq=1M level=-30 rate=8k audio=tape.iq\n";
    const sim::SceneResult speech = sim::LoadScene((folder / "speech.txt").string());
    ASSERT_EQ(speech.error, "");
    EXPECT_EQ(speech.scene.emitters.at(0).audio->signal, (std::vector<float>{0x1p-15f, 0x1p-14f, -0x1p-15f, -1.0f}));
    std::ofstream(folder / "hasty.txt") << "ssb freq=1M level=-30 audio=tape.iq\n";
    EXPECT_EQ(sim::LoadScene((folder / "hasty.txt").string()).error,
              (folder / "hasty.txt").string() + ", line 1: rate missing");

    EXPECT_FALSE(sim::LoadScene((folder / "bad.txt").string()).Ok());  // no whole number of samples
    EXPECT_FALSE(sim::LoadScene((folder / "none.txt").string()).Ok());
    const fs::path shipped = fs::path(__FILE__).parent_path().parent_path() / "sim/scenes";
    for (const char* name : {"default.txt", "voices.txt"})
        EXPECT_EQ(sim::LoadScene((shipped / name).string()).error, "");
    fs::remove_all(folder);
}

}  // namespace
