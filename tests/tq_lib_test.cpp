#include "tq_lib.h"

#include "device_support.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>
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
        std::ranges::sort(names);
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

TEST_F(LocalFiles, WhatIsNoRegularFileIsNotWaitedFor) {
    fs::create_directories(folder);
    for (const char* name : {"tq00000006.bin", "tq00000006gps.bin"}) {
        const fs::path fifo = folder / name;
        ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
        auto answer = std::async(std::launch::async, [&] {
            TqGPSCal cal;
            return GetCorrectionsFromFile(6, read.data()) || ReadGPSCorrection(6, cal);
        });
        if (answer.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << name << " holds its reader, whom nothing can call back";
            std::_Exit(EXIT_FAILURE);
        }
        EXPECT_FALSE(answer.get()) << name;
        fs::remove(fifo);
    }
}

TEST_F(LocalFiles, ModeIsTheUsersChoice) {
    for (const mode_t mask : {0022, 0000, 0077}) {
        const mode_t old = umask(mask);
        EXPECT_TRUE(SaveCorrectionFile(7, record.data()));
        EXPECT_TRUE(StoreGPSCorrection(7, {}));
        umask(old);
        for (const char* name : {"tq00000007.bin", "tq00000007gps.bin"}) {
            EXPECT_EQ(static_cast<mode_t>(fs::status(folder / name).permissions()), 0666 & ~mask) << name;
        }
    }
}

TEST_F(LocalFiles, LinksStayAndTheirTargetsAreReplaced) {
    fs::create_directories(folder);
    fs::create_directories(home / "elsewhere");
    fs::create_symlink("../elsewhere/cal", folder / "link");
    fs::create_symlink("link", folder / "tq00000008.bin");
    for (const Bytes* saved : {&record, &newer}) {  // the target made, and replaced
        EXPECT_TRUE(SaveCorrectionFile(8, saved->data()));
        EXPECT_EQ(FileBytes(home / "elsewhere" / "cal"), *saved);
    }
    EXPECT_TRUE(fs::is_symlink(folder / "tq00000008.bin") && fs::is_symlink(folder / "link"));

    fs::create_symlink("tq00000009.bin", folder / "tq00000009.bin");
    EXPECT_FALSE(SaveCorrectionFile(9, record.data())) << "a ring of links";
    ASSERT_EQ(mkfifo((home / "device").c_str(), 0666), 0);
    fs::create_symlink(home / "device", folder / "tq00000010.bin");
    EXPECT_FALSE(SaveCorrectionFile(10, record.data()));
    EXPECT_TRUE(fs::is_fifo(home / "device")) << "the target of a link is not ours unless it is a file";
}

TEST_F(LocalFiles, WhatACrashLeftBehindIsRemoved) {
    const auto make = [&](const char* name) { std::ofstream(folder / name).put('x'); };
    fs::create_directories(folder);
    const std::vector<std::string> kept = {"tq00000011.bin.backup1", "tq00000011.bin.old",      "tq00000011.bin.zzzzzz",
                                           "tq00000011x.bin.aB3dEf", "tq00000012.bin.aB3dEf",   "tq00000012gps.bin",
                                           "tq00000012gps.bin.gps",  "tq00000012gps.bin.a-b_c."};
    for (const std::string& name : kept) make(name.c_str());
    make("tq00000011.bin.aB3dEf");
    make("tq00000011gps.bin.000000");
    const int writer = open((folder / "tq00000011.bin.zzzzzz").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(flock(writer, LOCK_EX), 0) << "another process is about to rename this one";
    EXPECT_TRUE(StoreGPSCorrection(11, {}));
    close(writer);
    std::vector<std::string> expected = kept;
    expected.push_back("tq00000011gps.bin");
    std::ranges::sort(expected);
    EXPECT_EQ(Names(), expected);
}

// What /proc and the cgroups say, under a root of our own.
TEST_F(LocalFiles, MemoryIsWhatTheMachineAndTheGroupsLeave) {
    const auto put = [&](const char* path, const std::string& text) {
        fs::create_directories((home / path).parent_path());
        std::ofstream(home / path) << text;
    };
    const auto available = [&] { return AvailableMemory(home.string()); };
    const double physical = available();
    EXPECT_GE(physical, 64e6) << "what is built in, since nothing can be read";
    put("proc/meminfo", "MemTotal:       16000000 kB\nMemFree:          10000 kB\nMemAvailable:    4000000 kB\n");
    EXPECT_EQ(available(), 4000000.0 * 1024.0);

    // The second version: each group up to the root may have a limit; cached files give way.
    put("proc/self/cgroup", "1:name=systemd:/x\n0::/user/app\n");
    put("sys/fs/cgroup/user/app/memory.max", "max\n");
    put("sys/fs/cgroup/user/app/memory.current", "900000000\n");
    EXPECT_EQ(available(), 4000000.0 * 1024.0);
    put("sys/fs/cgroup/user/memory.max", "1000000000\n");
    put("sys/fs/cgroup/user/memory.current", "990000000\n");
    put("sys/fs/cgroup/user/memory.stat", "anon 1\ninactive_file 300000000\nactive_file 5\n");
    EXPECT_EQ(available(), 310000000.0);
    put("sys/fs/cgroup/user/app/memory.max", "800000000\n");
    EXPECT_EQ(available(), 0.0) << "beyond its limit";
    fs::remove_all(home / "sys");

    // The first; a container sees its own group as the root of the mount.
    put("proc/self/cgroup", "9:name=systemd:/\n4:cpu,memory:/docker/77\n0::/\n");
    put("sys/fs/cgroup/memory/memory.limit_in_bytes", "500000000\n");
    put("sys/fs/cgroup/memory/memory.usage_in_bytes", "450000000\n");
    put("sys/fs/cgroup/memory/memory.stat", "inactive_file 7\ntotal_inactive_file 50000000\n");
    EXPECT_EQ(available(), 100000000.0);
    put("sys/fs/cgroup/memory/docker/77/memory.limit_in_bytes", "9223372036854771712\n");
    put("sys/fs/cgroup/memory/docker/77/memory.usage_in_bytes", "450000000\n");
    EXPECT_EQ(available(), 100000000.0);

    put("proc/self/cgroup", "4:memory:/../../..\n::\n" + std::string(100000, '/') + "\n4:memory\n\n");
    put("proc/meminfo", "MemAvailable: lots\n");
    put("sys/fs/cgroup/memory/memory.limit_in_bytes", "none\n");
    EXPECT_EQ(available(), physical) << "what is no number counts as not there";
}
