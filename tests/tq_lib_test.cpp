#include "tq_lib.h"

#include "device_support.h"

#include <chrono>
#include <ctime>
#include <limits>
#include <thread>
#include <utility>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes FileBytes(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

class LocalFiles : public DeviceFixture {
protected:
    void SetUp() override {
        DeviceFixture::SetUp();
        folder = home / ".tarnwell";
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
        return names;
    }

    const Bytes record = Bytes(CAL_DATA_BYTES, 0xAA);
    const Bytes newer = Bytes(CAL_DATA_BYTES, 0xBB);
    Bytes read = Bytes(CAL_DATA_BYTES);
    fs::path folder;
};

}  // namespace

TEST(TqLib, NarrowSweepDecimationIsTheLargestWithTheSpanInBand) {
    constexpr double USABLE = 47185920.0;
    for (const double span : {0.0, 184319.0, 184320.0, 184321.0, 4999999.0, 23592959.0, 23592960.0, 47185919.0}) {
        const int decimation = GetNarrowSweepDecimation(span);
        EXPECT_LT(span, USABLE / decimation) << span;
        EXPECT_TRUE(decimation == 256 || span >= USABLE / (2 * decimation)) << span;
        EXPECT_EQ(decimation & (decimation - 1), 0) << span;
    }
    EXPECT_DEATH(GetNarrowSweepDecimation(USABLE), "span < usableBW");
    EXPECT_DEATH(GetNarrowSweepDecimation(std::numeric_limits<double>::quiet_NaN()), "span < usableBW");

    for (const auto& [total, fpga] : {std::pair{1, 1}, {2, 2}, {4, 4}, {8192, 4}}) {
        int hardware = 0;
        int software = 0;
        CalculateDecimation(total, hardware, software);
        EXPECT_EQ(hardware, fpga) << total;
        EXPECT_EQ(hardware * software, total);
    }
}

TEST(TqLib, ReadsTemperaturesAsThirteenBitQuarters) {
    constexpr std::pair<uint16_t, float> CASES[] = {{0x0004, 0.25f},  {0xE193, 25.0f},   {0x0FFC, 255.75f},
                                                    {0x1FFC, -0.25f}, {0x1000, -256.0f}, {0xFFFF, -0.25f}};
    for (const auto& [reading, celsius] : CASES) EXPECT_EQ(ConvertTempAuxToC(reading), celsius) << reading;
}

TEST_F(LocalFiles, SleepsAreMillisecondsAndNotForNegativeTimes) {
    SystemSleep(3000);
    SystemSleep(-5);
    EXPECT_EQ(sim::Sleeps().total, std::chrono::seconds(3));
}

TEST_F(LocalFiles, RecordComesBackUnderItsSerialNumber) {
    for (const Bytes* saved : {&record, &newer}) {
        ASSERT_TRUE(SaveCorrectionFile(1234, saved->data()));
        ASSERT_TRUE(GetCorrectionsFromFile(1234, read.data()));
        EXPECT_EQ(read, *saved);
        EXPECT_EQ(FileBytes(folder / "tq00001234.bin"), *saved);
        EXPECT_EQ(Names(), std::vector<std::string>{"tq00001234.bin"}) << "something was left beside the file";
    }
    EXPECT_TRUE(CorrectionFileExists(1234));
    EXPECT_FALSE(CorrectionFileExists(1235));

    for (const uintmax_t size : {uintmax_t{CAL_DATA_BYTES - 1}, uintmax_t{0}}) {
        fs::resize_file(folder / "tq00001234.bin", size);
        read = record;
        EXPECT_FALSE(GetCorrectionsFromFile(1234, read.data())) << size;
        EXPECT_EQ(read, record) << "memory is left alone at " << size;
    }
}

TEST_F(LocalFiles, ReaderNeverSeesAHalfWrittenRecord) {
    ASSERT_TRUE(SaveCorrectionFile(5, record.data()));
    std::thread writer([&] {
        for (int i = 0; i < 30; ++i) SaveCorrectionFile(5, (i % 2 == 0 ? newer : record).data());
    });
    for (int i = 0; i < 30; ++i) {
        EXPECT_TRUE(GetCorrectionsFromFile(5, read.data()));
        EXPECT_TRUE(read == record || read == newer);
    }
    writer.join();
}

TEST_F(LocalFiles, GpsValueHasItsLayoutAndABadFileLeavesTheValueAlone) {
    TqGPSCal cal;
    cal.timeStamp = 0x0102030405060708;
    cal.voltage = 0xA1B2;
    ASSERT_TRUE(StoreGPSCorrection(42, cal));
    Bytes good = {'t', 'q', 'g', 0, 1, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1, 0xB2, 0xA1};
    good.resize(64);
    EXPECT_EQ(FileBytes(folder / "tq00000042gps.bin"), good);
    Bytes wrongMagic = good;
    wrongMagic[0] ^= 1;
    Bytes wrongVersion = good;
    wrongVersion[4] = 2;
    const Bytes tooShort(good.begin(), good.end() - 1);

    cal.timeStamp = 99;
    for (const Bytes& bad : {wrongMagic, wrongVersion, tooShort, Bytes()}) {
        WriteLocalFile(42, "gps.bin", bad.data(), bad.size());
        EXPECT_FALSE(ReadGPSCorrection(42, cal));
    }
    EXPECT_FALSE(ReadGPSCorrection(43, cal)) << "missing";
    EXPECT_FALSE(cal.valid);
    EXPECT_EQ(cal.timeStamp, 99u);
}

// Whatever is wrong with the home: nothing exists, nothing is written, and nothing lands in the working directory.
TEST_F(LocalFiles, WithoutAUsableFolderThereAreNoFiles) {
    const auto expectNothing = [&](const char* what) {
        TqGPSCal cal;
        EXPECT_EQ(GetCorrectionFilePath(), "") << what;
        EXPECT_FALSE(SaveCorrectionFile(9, record.data())) << what;
        EXPECT_FALSE(GetCorrectionsFromFile(9, read.data())) << what;
        EXPECT_FALSE(StoreGPSCorrection(9, cal)) << what;
        EXPECT_FALSE(ReadGPSCorrection(9, cal)) << what;
        EXPECT_FALSE(fs::exists("tq00000009.bin") || fs::exists("tq00000009gps.bin")) << what;
    };
    sim::SetHome((home / "missing").string());
    expectNothing("home does not exist");

    sim::SetHome(home.string());
    std::ofstream(folder).close();
    expectNothing("a file has the folder's name");

    fs::remove(folder);
    EXPECT_TRUE(SaveCorrectionFile(9, record.data())) << "it is looked for again";
}

TEST_F(LocalFiles, FailedReplacementLeavesNothingBehind) {
    fs::create_directories(folder / "tq00000003.bin" / "occupied");
    EXPECT_FALSE(SaveCorrectionFile(3, record.data()));
    EXPECT_EQ(Names(), std::vector<std::string>{"tq00000003.bin"});
}
