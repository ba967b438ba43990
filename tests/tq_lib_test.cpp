#include "tq_lib.h"

#include "sim/seams.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Record(uint8_t seed) {
    Bytes record(CAL_DATA_BYTES);
    for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(seed + i * 7 + i / 4096);
    return record;
}

Bytes FileBytes(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const fs::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A user's home of its own for each test.
class LocalFiles : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "tq-lib-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        home = pattern;
        folder = home / ".tarnwell";
        sim::SetHome(home.string());
    }
    void TearDown() override {
        sim::SetHome({});
        fs::remove_all(home);
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
        std::ranges::sort(names);
        return names;
    }

    fs::path home;
    fs::path folder;
};

}  // namespace

TEST(TqLib, SplitsDecimationBetweenFpgaAndHost) {
    struct Case {
        int total, hardware, software;
    };
    for (const Case c : {Case{1, 1, 1}, {2, 2, 1}, {4, 4, 1}, {8, 4, 2}, {256, 4, 64}, {8192, 4, 2048}}) {
        int hardware = 0;
        int software = 0;
        CalculateDecimation(c.total, hardware, software);
        EXPECT_EQ(hardware, c.hardware) << c.total;
        EXPECT_EQ(software, c.software) << c.total;
    }
}

TEST(TqLib, NarrowSweepDecimationIsTheLargestWithTheSpanInBand) {
    constexpr double USABLE = 47185920.0;
    for (const double span :
         {0.0, 1.0, 184319.0, 184320.0, 184321.0, 1e6, 4999999.0, 23592959.0, 23592960.0, 47185919.0}) {
        const int decimation = GetNarrowSweepDecimation(span);
        EXPECT_LT(span, USABLE / decimation) << span;
        EXPECT_TRUE(decimation == 256 || span >= USABLE / (2 * decimation)) << span;
        EXPECT_EQ(decimation & (decimation - 1), 0) << span;
    }
    EXPECT_EQ(GetNarrowSweepDecimation(4999999.0), 8);
    EXPECT_EQ(GetNarrowSweepDecimation(1.0), 256);
    EXPECT_DEATH(GetNarrowSweepDecimation(USABLE), "span < usableBW");
    EXPECT_DEATH(GetNarrowSweepDecimation(std::numeric_limits<double>::quiet_NaN()), "span < usableBW");
}

TEST(TqLib, NextMultipleStaysAtAMultipleAndIsWide) {
    EXPECT_EQ(NextMultipleOf(0, 4), 0);
    EXPECT_EQ(NextMultipleOf(1, 4), 4);
    EXPECT_EQ(NextMultipleOf(4, 4), 4);
    EXPECT_EQ(NextMultipleOf((int64_t{1} << 40) + 1, 2048), (int64_t{1} << 40) + 2048);
}

TEST(TqLib, ReadsTemperaturesAsThirteenBitQuarters) {
    struct Case {
        uint16_t reading;
        float celsius;
    };
    constexpr Case CASES[] = {
        {0x0000, 0.0f},    {0x0004, 0.25f},  {0x0190, 25.0f},  {0xE193, 25.0f},  // bits beside the reading
        {0x0FFC, 255.75f}, {0x1FFC, -0.25f}, {0x1F60, -10.0f}, {0x1000, -256.0f}, {0xFFFF, -0.25f},
    };
    for (const Case& c : CASES) EXPECT_EQ(ConvertTempAuxToC(c.reading), c.celsius) << std::hex << c.reading;
}

TEST(TqLib, SleepsInMillisecondsAndNotForNegativeTimes) {
    sim::SetSleepFactor(1000);
    sim::ClearSleeps();
    SystemSleep(3000);
    SystemSleep(0);
    SystemSleep(-5);
    sim::SetSleepFactor(1);
    EXPECT_EQ(sim::Sleeps().total, std::chrono::seconds(3));
}

TEST(TqLib, ClocksAgreeOnTheirUnits) {
    const auto now = static_cast<int64_t>(std::time(nullptr));
    EXPECT_NEAR(static_cast<double>(GetEpochSeconds() - now), 0.0, 1.0);
    EXPECT_NEAR(static_cast<double>(GetEpochNanos() - now * 1'000'000'000), 0.0, 2e9);
    const uint64_t start = GetSystemTicks();
    timespec monotonic{};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    EXPECT_NEAR(static_cast<double>(start),
                static_cast<double>(monotonic.tv_sec) * 1e3 + 1e-6 * static_cast<double>(monotonic.tv_nsec), 1000.0);
}

TEST_F(LocalFiles, RecordComesBackUnderItsSerialNumber) {
    const Bytes record = Record(1);
    EXPECT_FALSE(CorrectionFileExists(1234));
    ASSERT_TRUE(SaveCorrectionFile(1234, record.data()));
    EXPECT_TRUE(CorrectionFileExists(1234));
    EXPECT_FALSE(CorrectionFileExists(1235));
    EXPECT_EQ(FileBytes(folder / "tq00001234.bin"), record);

    Bytes read(CAL_DATA_BYTES);
    ASSERT_TRUE(GetCorrectionsFromFile(1234, read.data()));
    EXPECT_EQ(read, record);

    const Bytes newer = Record(2);
    ASSERT_TRUE(SaveCorrectionFile(1234, newer.data()));
    ASSERT_TRUE(GetCorrectionsFromFile(1234, read.data()));
    EXPECT_EQ(read, newer);
    EXPECT_EQ(Names(), std::vector<std::string>{"tq00001234.bin"}) << "something was left beside the file";
    EXPECT_EQ(GetCorrectionFilePath(), folder.string() + "/");
}

TEST_F(LocalFiles, ShortRecordIsRefusedAndLeavesMemoryAlone) {
    Bytes record = Record(3);
    ASSERT_TRUE(SaveCorrectionFile(7, record.data()));
    const fs::path file = folder / "tq00000007.bin";

    const Bytes untouched(CAL_DATA_BYTES, 0xFF);
    for (const uintmax_t size : {uintmax_t{0}, uintmax_t{4096}, uintmax_t{CAL_DATA_BYTES - 1}}) {
        fs::resize_file(file, size);
        Bytes read = untouched;
        EXPECT_FALSE(GetCorrectionsFromFile(7, read.data())) << size;
        EXPECT_EQ(read, untouched) << size;
    }

    record.push_back(0);  // what follows a whole record does not matter
    WriteFile(file, record);
    Bytes read = untouched;
    EXPECT_TRUE(GetCorrectionsFromFile(7, read.data()));
    EXPECT_TRUE(std::equal(read.begin(), read.end(), record.begin()));
}

TEST_F(LocalFiles, ReaderNeverSeesAHalfWrittenRecord) {
    const Bytes a(CAL_DATA_BYTES, 0xAA);
    const Bytes b(CAL_DATA_BYTES, 0xBB);
    ASSERT_TRUE(SaveCorrectionFile(5, a.data()));
    std::thread writer([&] {
        for (int i = 0; i < 30; ++i) SaveCorrectionFile(5, (i % 2 == 0 ? b : a).data());
    });
    Bytes read(CAL_DATA_BYTES);
    for (int i = 0; i < 30; ++i) {
        EXPECT_TRUE(GetCorrectionsFromFile(5, read.data()));
        EXPECT_TRUE(read == a || read == b);
    }
    writer.join();
}

TEST_F(LocalFiles, GpsValueComesBackAndHasItsLayout) {
    TqGPSCal cal;
    cal.timeStamp = 0x0102030405060708;
    cal.voltage = 0xA1B2;
    ASSERT_TRUE(StoreGPSCorrection(42, cal));

    Bytes expected = {'t', 'q', 'g', 0, 1, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1, 0xB2, 0xA1};
    expected.resize(64);
    EXPECT_EQ(FileBytes(folder / "tq00000042gps.bin"), expected);

    TqGPSCal read;
    ASSERT_TRUE(ReadGPSCorrection(42, read));
    EXPECT_TRUE(read.valid);
    EXPECT_EQ(read.timeStamp, cal.timeStamp);
    EXPECT_EQ(read.voltage, cal.voltage);
}

TEST_F(LocalFiles, BadGpsFileIsNoFileAndLeavesTheValueAlone) {
    struct Case {
        const char* name;
        std::function<void(Bytes&)> damage;
    };
    const Case cases[] = {
        {"version 2", [](Bytes& file) { file[4] = 2; }},
        {"wrong magic", [](Bytes& file) { file[0] ^= 1; }},
        {"one byte short", [](Bytes& file) { file.pop_back(); }},
        {"empty", [](Bytes& file) { file.clear(); }},
    };
    TqGPSCal cal;
    cal.timeStamp = 1;
    ASSERT_TRUE(StoreGPSCorrection(42, cal));
    const fs::path path = folder / "tq00000042gps.bin";
    const Bytes good = FileBytes(path);

    TqGPSCal read;
    read.timeStamp = 99;
    read.voltage = 98;
    for (const Case& c : cases) {
        Bytes file = good;
        c.damage(file);
        WriteFile(path, file);
        EXPECT_FALSE(ReadGPSCorrection(42, read)) << c.name;
    }
    EXPECT_FALSE(ReadGPSCorrection(43, read)) << "missing";
    EXPECT_FALSE(read.valid);
    EXPECT_EQ(read.timeStamp, 99u);
    EXPECT_EQ(read.voltage, 98);
}

// Whatever is wrong with the home: nothing exists, nothing is written, and nothing lands in the working directory.
TEST_F(LocalFiles, WithoutAUsableFolderThereAreNoFiles) {
    const Bytes record = Record(4);
    const auto expectNothing = [&](const char* what) {
        Bytes read(CAL_DATA_BYTES, 0xFF);
        TqGPSCal cal;
        EXPECT_EQ(GetCorrectionFilePath(), "") << what;
        EXPECT_FALSE(SaveCorrectionFile(9, record.data())) << what;
        EXPECT_FALSE(CorrectionFileExists(9)) << what;
        EXPECT_FALSE(GetCorrectionsFromFile(9, read.data())) << what;
        EXPECT_FALSE(StoreGPSCorrection(9, cal)) << what;
        EXPECT_FALSE(ReadGPSCorrection(9, cal)) << what;
        EXPECT_FALSE(fs::exists("tq00000009.bin")) << what;
        EXPECT_FALSE(fs::exists("tq00000009gps.bin")) << what;
    };
    sim::SetHome((home / "missing").string());
    expectNothing("home does not exist");

    sim::SetHome(home.string());
    WriteFile(folder, {});
    expectNothing("a file has the folder's name");

    // It is looked for again, and made again when it vanishes later.
    fs::remove(folder);
    EXPECT_TRUE(SaveCorrectionFile(9, record.data()));
    fs::remove_all(folder);
    EXPECT_TRUE(SaveCorrectionFile(9, record.data()));
    EXPECT_TRUE(CorrectionFileExists(9));
}

TEST_F(LocalFiles, FailedReplacementLeavesNothingBehind) {
    fs::create_directories(folder / "tq00000003.bin" / "occupied");
    EXPECT_FALSE(SaveCorrectionFile(3, Record(5).data()));
    EXPECT_EQ(Names(), std::vector<std::string>{"tq00000003.bin"});
}
