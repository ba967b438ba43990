#include "tq_api_admin.h"

#include "device_support.h"
#include "flash_writer.h"
#include "fx3_image.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <set>

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

constexpr int SERIAL = 12345678;
constexpr unsigned FPGA_PAGE = 1024, RECORD_PAGE = 4096, RUN_PAGE = 49152;
constexpr TqStatus OK = tqNoError;
constexpr TqStatus NO_PTR = tqNullPtrErr;
constexpr TqStatus BAD_DEVICE = tqInvalidDeviceErr;
constexpr TqStatus NOT_FOUND = tqDeviceNotFoundErr;
constexpr TqStatus BAD_FILE = tqInternalFileIOErr;
constexpr TqStatus BAD_FLASH = tqInternalFlashErr;
constexpr TqStatus NO_ROOM = tqMaxDevicesConnectedErr;

// Places for outputs that a call must not reach.
int anInt;
bool aBool;
double aDouble;
Bytes page(32768);

struct BootCall {
    const char* name;
    std::array<TqStatus, 2> alone;   // without a boot device, with handle 0 and another
    std::array<TqStatus, 2> opened;  // with one
    TqStatus (*call)(int device);
};
constexpr std::array<TqStatus, 2> OPEN_FIRST = {NOT_FOUND, NOT_FOUND};

// Pointers are null where there are any, so that nothing reaches the instrument.
constexpr BootCall BOOT_CALLS[] = {
    {"Strap", {NO_PTR, NO_PTR}, {NO_ROOM, NO_ROOM}, [](int) { return tqBootStrap(nullptr, nullptr); }},
    {"Strap", {NOT_FOUND, NOT_FOUND}, {NO_ROOM, NO_ROOM}, [](int) { return tqBootStrap(&anInt, "x"); }},
    {"Open", {NO_PTR, NO_PTR}, {NO_PTR, NO_PTR}, [](int) { return tqBootOpenDevice(nullptr); }},
    {"Open", {NOT_FOUND, NOT_FOUND}, {NO_ROOM, NO_ROOM}, [](int) { return tqBootOpenDevice(&anInt); }},
    {"BySerial", {NO_PTR, NO_PTR}, {NO_PTR, NO_PTR}, [](int) { return tqBootOpenDeviceBySerial(nullptr, 1); }},
    {"BySerial", {NOT_FOUND, NOT_FOUND}, {NO_ROOM, NO_ROOM}, [](int) { return tqBootOpenDeviceBySerial(&anInt, 1); }},
    {"GetSerial", {NOT_FOUND, BAD_DEVICE}, {NO_PTR, BAD_DEVICE}, [](int d) { return tqBootGetSerial(d, nullptr); }},
    {"ClearBoot", OPEN_FIRST, {OK, BAD_DEVICE}, [](int d) { return tqBootClearBootSector(d); }},
    {"WriteBoot", OPEN_FIRST, {BAD_FILE, BAD_DEVICE}, [](int d) { return tqBootWriteBootSector(d, nullptr, 1); }},
    {"WriteBoot",
     OPEN_FIRST,
     {tqInvalidParameterErr, BAD_DEVICE},
     [](int d) { return tqBootWriteBootSector(d, nullptr, -1); }},
    {"ClearRun", OPEN_FIRST, {OK, BAD_DEVICE}, [](int d) { return tqBootClearRunSector(d); }},
    {"WriteRun", OPEN_FIRST, {BAD_FILE, BAD_DEVICE}, [](int d) { return tqBootWriteRunSector(d, nullptr, -1); }},
    {"WriteRun",
     OPEN_FIRST,
     {tqInvalidParameterErr, BAD_DEVICE},
     [](int d) { return tqBootWriteRunSector(d, nullptr, 100000000); }},
    {"ClearFPGA", OPEN_FIRST, {OK, BAD_DEVICE}, [](int d) { return tqBootClearFPGAProgram(d, aDouble); }},
    {"WriteFPGA",
     OPEN_FIRST,
     {BAD_FILE, BAD_DEVICE},
     [](int d) { return tqBootWriteFPGAProgram(d, nullptr, aDouble); }},
    {"ClearCal", OPEN_FIRST, {OK, BAD_DEVICE}, [](int d) { return tqBootClearCorrections(d, aDouble); }},
    {"WriteCal", OPEN_FIRST, {NO_PTR, BAD_DEVICE}, [](int d) { return tqBootWriteCorrections(d, nullptr, aDouble); }},
    {"WritePage", OPEN_FIRST, {NO_PTR, BAD_DEVICE}, [](int d) { return tqBootWriteFlashPage(d, 0, nullptr); }},
    {"ReadPage", OPEN_FIRST, {NO_PTR, BAD_DEVICE}, [](int d) { return tqBootReadFlashPage(d, 0, nullptr); }},
    {"ClearPage", OPEN_FIRST, {OK, BAD_DEVICE}, [](int d) { return tqBootClearFlashPage(d, 0); }},
    {"Close", {BAD_DEVICE, BAD_DEVICE}, {OK, BAD_DEVICE}, [](int d) { return tqBootCloseDevice(d); }},
};

class Service : public DeviceFixture {
protected:
    void SetUp() override {
        DeviceFixture::SetUp();
        testing::internal::CaptureStdout();  // the calls tell of every page
    }
    void TearDown() override {
        tqBootCloseDevice(0);
        tqCloseDevice(0);
        const std::string told = testing::internal::GetCapturedStdout();
        if (HasFailure()) std::fputs(told.c_str(), stdout);
        DeviceFixture::TearDown();
    }

    sim::Instrument& PlugBoot(int serial = SERIAL) {
        sim::InstrumentOptions options;
        options.serial = static_cast<uint32_t>(serial);
        options.program = sim::Program::boot;
        return Plug(options);
    }

    std::string File(const Bytes& bytes) const {
        const fs::path path = home / "image";
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return path.string();
    }

    static void OpenBoot(int serial = SERIAL) {
        int handle = -1;
        ASSERT_EQ(tqBootOpenDeviceBySerial(&handle, serial), OK);
        EXPECT_EQ(handle, 0);
    }

    // Closes the boot device and opens the instrument as an application does.
    static int OpenToRun(TqStatus expected = OK, int serial = SERIAL) {
        EXPECT_EQ(tqBootCloseDevice(0), OK);
        int device = -1;
        EXPECT_EQ(tqOpenDeviceBySerial(&device, serial), expected);
        return device;
    }

    // The instrument's calibration record with another date, and so valid.
    static Bytes RecordOf(uint64_t date) {
        Bytes record = sim::BuildRecord(sim::Truth(SERIAL));
        std::memcpy(&record[16], &date, sizeof date);
        std::fill_n(&record[32], 2, uint8_t{0xFF});  // no timebase history
        return record;
    }

    static uint32_t CalDate(int device) {
        uint32_t date = 0;
        EXPECT_EQ(tqGetCalDate(device, &date), OK);
        return date;
    }
};

TEST_F(Service, BootCallsCheckInTheirOrder) {
    for (const bool open : {false, true}) {
        if (open) {
            PlugBoot();
            OpenBoot();
        }
        for (const BootCall& row : BOOT_CALLS) {
            for (const int handle : {1, -1, 0}) {
                const size_t column = handle == 0 ? 0 : 1;
                EXPECT_EQ(row.call(handle), (open ? row.opened : row.alone)[column]) << row.name << ' ' << handle;
            }
        }
    }
}

TEST_F(Service, OpensOnlyWhatIsFreeAndInItsBootProgram) {
    PlugBoot(2);
    sim::Instrument& run = PlugKnown(1);
    int handle = -1, serial = 0, device = -1, count = 1;
    ASSERT_EQ(tqGetDeviceList(&serial, &count), OK);
    ASSERT_EQ(serial, 1) << "libusb lists the newest first";
    EXPECT_EQ(tqBootOpenDevice(&handle), NOT_FOUND) << "the first one runs its run program";
    ASSERT_EQ(tqOpenDeviceBySerial(&device, 1), OK);
    run.EnableLog(true);
    EXPECT_EQ(tqBootOpenDeviceBySerial(&handle, 1), NOT_FOUND) << "would be restarted under its owner";
    EXPECT_TRUE(run.Log().empty());

    EXPECT_EQ(tqBootOpenDevice(&handle), OK) << "one that is open is not on the list";
    EXPECT_EQ(tqBootGetSerial(0, &serial), OK);
    EXPECT_EQ(serial, 2);
    EXPECT_EQ(tqOpenDeviceBySerial(&anInt, 2), NOT_FOUND);
    EXPECT_EQ(tqBootGetSerial(0, &serial), OK) << "and is still there";
    EXPECT_EQ(tqBootCloseDevice(0), OK);

    EXPECT_EQ(tqCloseDevice(device), OK);
    OpenBoot(1);
    EXPECT_EQ(run.State().program, sim::Program::boot);
    EXPECT_EQ(tqBootCloseDevice(0), OK);

    sim::InstrumentOptions lost;
    lost.serial = 3;
    lost.rejoinTime = 1h;
    Plug(lost);
    EXPECT_EQ(tqBootOpenDeviceBySerial(&handle, 3), NOT_FOUND) << "never comes back from its restart";
}

TEST_F(Service, BootProgramIsNotForcedOnAnInstrumentThatIsClaimedElsewhere) {
    sim::Instrument& instrument = PlugKnown(SERIAL);
    OwnedDeviceHandle owner(GetUSBDeviceHandleBySerial(SERIAL));
    ClaimUSBInterface(owner.get());
    int handle = -1;
    EXPECT_EQ(tqBootOpenDeviceBySerial(&handle, SERIAL), NOT_FOUND);
    EXPECT_EQ(bus.Use(instrument).controlWrites, 0);
    owner.reset();

    bus.SetUevents(false);
    OpenBoot();
    EXPECT_EQ(OpenToRun(), 0) << "found again, too, where no uevent tells of its restarts";
}

TEST_F(Service, AFullUpdateChangesTheFourAreasAndNothingElse) {
    sim::Instrument& instrument = PlugKnown(SERIAL);
    instrument.PlaceFlash(0, Fx3Image({.serial = "12345678", .version = 0x0101}).Padded());
    instrument.PlaceFlash(RUN_PAGE, Fx3Image({.serial = "12345678", .version = 0x0202}).Padded());
    instrument.PlaceFlash(FPGA_PAGE, Bytes(0x200000, 0x3C));
    for (const unsigned edge : {256u, 1023u, 3072u, 4095u, 6144u, 49151u, 49408u, 65535u}) {
        instrument.PlaceFlash(edge, Bytes(1024, static_cast<uint8_t>(edge)));  // next to the areas
    }
    Bytes expected = instrument.PeekFlash(0, 65536);
    const auto expect = [&](unsigned firstPage, const Bytes& area) {
        std::ranges::copy(area, expected.begin() + firstPage * 1024);
    };
    const Bytes record = RecordOf(1900000000);
    Bytes program(1500001);
    for (size_t i = 0; i < program.size(); ++i) program[i] = static_cast<uint8_t>(i * i >> 7);
    expect(FPGA_PAGE, Bytes(0x200000, 0xFF));
    expect(FPGA_PAGE, program);
    expect(RECORD_PAGE, record);
    expect(RUN_PAGE, Fx3Image({.serial = "12345678", .version = 0x0304}).Padded());
    expect(0, Fx3Image({.serial = "12345678", .version = 0x0506, .words = 60000}).Padded());
    expected[0x3FFFE] = 0x05;
    expected[0x3FFFF] = 0x06;

    OpenBoot();
    double progress = 7.0;
    EXPECT_EQ(tqBootClearCorrections(0, progress), OK);
    EXPECT_EQ(progress, 0.875);
    progress = 0.0;
    EXPECT_EQ(tqBootWriteCorrections(0, record.data(), progress), OK);
    EXPECT_NEAR(progress, 1.0, 1e-9);
    EXPECT_EQ(tqBootClearFPGAProgram(0, progress), OK);
    EXPECT_EQ(progress, 0.875);
    EXPECT_EQ(tqBootWriteFPGAProgram(0, File(program).c_str(), progress), OK);
    EXPECT_NEAR(progress, 1.875, 1e-9) << "is added to";
    EXPECT_EQ(tqBootClearRunSector(0), OK);
    EXPECT_EQ(tqBootWriteRunSector(0, File(Fx3Image({.version = 0x0304}).bytes).c_str(), 0), OK);
    EXPECT_EQ(tqBootClearBootSector(0), OK);
    const Fx3Image boot({.version = 0x0506, .words = 60000});
    EXPECT_EQ(tqBootWriteBootSector(0, File(boot.bytes).c_str(), SERIAL), OK);
    EXPECT_TRUE(instrument.PeekFlash(0, 65536) == expected);
    const std::string told = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    EXPECT_EQ(std::ranges::count(told, '\n'), 2 * (2048 + 64) + 2 * (256 + 8) + 8);
    for (const char* lines : {"Erasing Page 2816\nWriting Page 1024\n", "Page 49407\nVerifying Page 49152\nVer"}) {
        EXPECT_NE(told.find(lines), std::string::npos) << lines;
    }

    const int device = OpenToRun();
    EXPECT_EQ(instrument.Identity().serial, "12345678");
    EXPECT_EQ(CalDate(device), 1900000000u);
    int major = 0, minor = 0, rev = 0;
    EXPECT_EQ(tqGetFirmwareVersion(device, &major, &minor, &rev), OK);
    EXPECT_EQ(major, 0x0506);
    EXPECT_EQ(minor, 0x0304);
    EXPECT_EQ(instrument.Counters().unknownWords + instrument.Counters().protocolErrors, 0u);
}

TEST_F(Service, ARecordThatIsWrittenCountsWhateverItsDate) {
    sim::Instrument& instrument = PlugBoot();
    const Bytes cached = RecordOf(2000000000);
    WriteLocalFile(SERIAL, ".bin", cached.data(), cached.size());
    OpenBoot();
    double progress = 0.0;
    EXPECT_EQ(tqBootClearCorrections(0, progress), OK);
    EXPECT_EQ(tqBootWriteCorrections(0, RecordOf(1500000000).data(), progress), OK);
    EXPECT_EQ(CalDate(OpenToRun()), 1500000000u);
    EXPECT_EQ(instrument.State().program, sim::Program::run);
}

// Nothing reaches the flash; only a wrong checksum goes through, and then as it is.
TEST_F(Service, ImagesThatMustNotBeWrittenAreNot) {
    sim::Instrument& instrument = PlugBoot();
    OpenBoot();
    const Fx3Image good;
    const auto with = [&](size_t at, uint8_t value) {
        Bytes img = good.bytes;
        img[at] = value;
        return img;
    };
    const Bytes full = Fx3Image({.words = 0x40000 / 4 - 17}).bytes;  // leaves no room for the version
    ASSERT_EQ(full.size(), 0x40000u);
    const struct {
        const char* name;
        Bytes file;
        bool run;  // the run sector takes it
    } cases[] = {
        {"no CY", with(1, 'X'), false},
        {"no placeholder", with(good.serialAt + 4, '0'), false},
        {"too long", good.Padded(0x40001), false},
        {"no version", with(good.serialAt + 16, 'f'), true},
        {"no room for the version", full, true},
    };
    const int before = bus.Use(instrument).bulkOut;
    double progress = 0.0;
    for (const auto& c : cases) {
        const std::string path = File(c.file);
        EXPECT_EQ(tqBootWriteBootSector(0, path.c_str(), 1), BAD_FILE) << c.name;
        EXPECT_TRUE(c.run || tqBootWriteRunSector(0, path.c_str(), 1) == BAD_FILE) << c.name;
    }
    for (const Bytes& file : {Bytes(), Bytes(1000, 0xFF), Bytes(0x200001)}) {
        EXPECT_EQ(tqBootWriteFPGAProgram(0, File(file).c_str(), progress), BAD_FILE);
    }
    EXPECT_EQ(bus.Use(instrument).bulkOut, before);
    EXPECT_EQ(progress, 0.0);

    Bytes wrong = with(good.endAt - 1, static_cast<uint8_t>(good.bytes[good.endAt - 1] + 1));
    EXPECT_EQ(tqBootWriteRunSector(0, File(wrong).c_str(), 0), OK);
    wrong.resize(0x40000, 0xFF);
    EXPECT_TRUE(instrument.PeekFlash(RUN_PAGE, 256) == wrong);
    OpenToRun(tqBootErr);
    OpenBoot();
    EXPECT_EQ(tqBootClearRunSector(0), OK);
    EXPECT_EQ(tqBootWriteRunSector(0, File(good.bytes).c_str(), 0), OK);
    OpenToRun();
}

TEST_F(Service, AFailedPageIsReportedAndTheInstrumentCanBeWrittenAnew) {
    sim::Instrument& instrument = PlugBoot();
    const std::string image = File(Fx3Image().bytes);
    const fs::path program = home / "program";
    std::ofstream(program) << std::string(0x200000, 'p');  // all of its reads look the same
    const Bytes record = RecordOf(1);
    sim::Faults& faults = instrument.faults();
    const auto fail = [&](unsigned bad) { return [&faults, bad] { faults.FailFlashPage(bad); }; };
    const auto dead = [&](unsigned bad) { return [&faults, bad] { faults.DeadFlashPage(bad); }; };
    // The read-back fails: 4 packets a read.
    const auto stall = [&](unsigned reads) { return [&faults, reads] { faults.StallAt(4 * reads + 1); }; };
    double progress = 0.0;
    const auto clearBoot = [] { return tqBootClearBootSector(0); };
    const auto clearRun = [] { return tqBootClearRunSector(0); };
    const auto clearFPGA = [&] { return tqBootClearFPGAProgram(0, progress); };
    const auto clearCal = [&] { return tqBootClearCorrections(0, progress); };
    const auto writeBoot = [&] { return tqBootWriteBootSector(0, image.c_str(), 1); };
    const auto writeRun = [&] { return tqBootWriteRunSector(0, image.c_str(), 0); };
    const auto writeFPGA = [&] { return tqBootWriteFPGAProgram(0, program.c_str(), progress); };
    const auto writeCal = [&] { return tqBootWriteCorrections(0, record.data(), progress); };
    constexpr double STEP = 1.0 / (2048 + 64);
    const struct {
        const char* name;
        std::function<TqStatus()> call;
        std::function<void()> arrange;
        TqStatus status;
        double progress;
    } cases[] = {
        {"clear boot", clearBoot, fail(255), BAD_FLASH, 0.0},
        {"clear run", clearRun, fail(RUN_PAGE + 9), BAD_FLASH, 0.0},
        {"clear FPGA, fourth unit", clearFPGA, fail(FPGA_PAGE + 3 * 256), BAD_FLASH, 0.25},
        {"clear record, last unit", clearCal, fail(RECORD_PAGE + 2047), BAD_FLASH, 0.75},
        {"write boot, first page", writeBoot, fail(0), BAD_FILE, 0.0},
        {"write boot, dead page", writeBoot, dead(2), BAD_FILE, 0.0},
        {"write run, last page", writeRun, fail(RUN_PAGE + 255), BAD_FLASH, 0.0},
        {"write run, read-back stalls", writeRun, stall(7), BAD_FLASH, 0.0},
        {"write FPGA, eleventh page", writeFPGA, fail(FPGA_PAGE + 10), BAD_FLASH, 10 * STEP},
        {"write FPGA, read-back stalls", writeFPGA, stall(5), BAD_FLASH, (2048 + 5) * STEP},
        {"write record, dead page", writeCal, dead(RECORD_PAGE + 836), BAD_FILE, (2048 + 26) * STEP},
        {"write page", [] { return tqBootWriteFlashPage(0, 7, page.data()); }, fail(7), BAD_FLASH, 0.0},
        {"read page", [] { return tqBootReadFlashPage(0, 7, page.data()); }, fail(38), BAD_FLASH, 0.0},
        {"clear page", [] { return tqBootClearFlashPage(0, 7); }, fail(8), BAD_FLASH, 0.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        OpenBoot();
        c.arrange();
        progress = 0.0;
        sim::SetTimeoutSlack({});
        EXPECT_EQ(c.call(), c.status);
        EXPECT_NEAR(progress, c.progress, 1e-9);
        sim::SetTimeoutSlack(TIMEOUT_SLACK);
        faults.Clear();
        EXPECT_EQ(tqBootCloseDevice(0), OK);
    }

    OpenBoot();
    EXPECT_EQ(clearBoot(), OK);
    EXPECT_EQ(writeBoot(), OK);
    EXPECT_EQ(clearCal(), OK);
    EXPECT_EQ(writeCal(), OK);
    EXPECT_EQ(clearRun(), OK);
    EXPECT_EQ(tqBootWriteRunSector(0, image.c_str(), 1), OK);
    EXPECT_EQ(instrument.PeekFlash(RUN_PAGE, 256), Fx3Image({.serial = "00000001"}).Padded());
    OpenToRun(OK, 1);
}

TEST_F(Service, PageNumbersWrapAndOddAmountsAreWrittenInWholePages) {
    sim::Instrument& instrument = PlugBoot();
    OpenBoot();
    const Bytes mine(1024, 0x5A);
    EXPECT_EQ(tqBootWriteFlashPage(0, 0x10000 + 3, mine.data()), OK);
    EXPECT_EQ(tqBootReadFlashPage(0, 0x10000, page.data()), OK);
    EXPECT_EQ(page, instrument.PeekFlash(0, 32));
    EXPECT_EQ(page[3 * 1024], 0x5A);
    EXPECT_EQ(tqBootClearFlashPage(0, -0x10000), OK);
    EXPECT_EQ(instrument.PeekFlash(0, 32), Bytes(32768, 0xFF));
    EXPECT_EQ(tqBootCloseDevice(0), OK);

    DeviceInterface device;
    ASSERT_EQ(device.ConnectBoot(GetUSBDeviceHandleBySerial(SERIAL)), OK);
    const int before = bus.Use(instrument).bulkOut;
    double progress = 0.0;
    EXPECT_EQ(WriteBytesToFlash(&device, Bytes(1023), 0, progress), OK);
    EXPECT_EQ(progress, 0.0);
    EXPECT_EQ(WriteBytesToFlash(&device, Bytes(33 * 1024 + 1023, 0xA5), 65535 * 1024, progress), OK);
    EXPECT_EQ(bus.Use(instrument).bulkOut - before, 33 + 2);
    EXPECT_NEAR(progress, (33 + 2) / (33 + 33 / 32.0), 1e-9);
    Bytes expected(34 * 1024, 0xA5);
    std::fill_n(expected.end() - 1024, 1024, uint8_t{0xFF});
    EXPECT_EQ(instrument.PeekFlash(65535, 34), expected);
}

TEST_F(Service, AdminCallsCheckTheHandleAndThenPointers) {
    const struct {
        const char* name;
        TqStatus status;
        TqStatus (*call)(int device);
    } cases[] = {
        {"tqAdminGetTempRange", NO_PTR, [](int d) { return tqAdminGetTempRange(d, nullptr); }},
        {"tqAdminHasDithering", OK, [](int d) { return tqAdminHasDithering(d, aBool); }},
        {"tqAdminSetCorrectionMode", tqInvalidParameterErr,
         [](int d) { return tqAdminSetCorrectionMode(d, static_cast<TqCorrectionMode>(2)); }},
        {"tqAdminSetCorrectionIndex", tqSettingClamped, [](int d) { return tqAdminSetCorrectionIndex(d, 9); }},
        {"tqAdminManualLoadCorrections", NO_PTR, [](int d) { return tqAdminManualLoadCorrections(d, nullptr); }},
        {"tqAdminDeviceHasCorrections", NO_PTR, [](int d) { return tqAdminDeviceHasCorrections(d, nullptr); }},
        {"tqAdminGetCoarseTuneVal", NO_PTR, [](int d) { return tqAdminGetCoarseTuneVal(d, nullptr); }},
        {"tqAdminSetCoarseTuneVal", tqInvalidConfigurationErr, [](int d) { return tqAdminSetCoarseTuneVal(d, 1); }},
        {"tqAdminGetFullBandIQ", NO_PTR, [](int d) { return tqAdminGetFullBandIQ(d, NAN, nullptr); }},
        {"tqAdminGetFullBandIQ", tqInvalidParameterErr,
         [](int d) { return tqAdminGetFullBandIQ(d, NAN, reinterpret_cast<float*>(page.data())); }},
    };
    for (const auto& c : cases) {
        for (const int handle : {-1, 0, 9}) EXPECT_EQ(c.call(handle), BAD_DEVICE) << c.name;
    }
    sim::Instrument& instrument = PlugKnown(SERIAL);
    int device = -1;
    ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), OK);
    uint16_t ticks = 0;
    EXPECT_EQ(tqAdminSetCoarseTuneVal(device, 30000), OK);
    ASSERT_EQ(tqConfigure(device, tqModeIQStreaming), OK);
    for (const auto& c : cases) EXPECT_EQ(c.call(device), c.status) << c.name;
    EXPECT_TRUE(aBool);
    EXPECT_EQ(tqAdminGetCoarseTuneVal(device, &ticks), OK);
    EXPECT_EQ(ticks, 30000) << "as stored, whatever streams";
    TqMode mode = tqModeIdle;
    EXPECT_EQ(tqGetCurrentMode(device, &mode), OK);
    EXPECT_EQ(mode, tqModeIQStreaming) << "nothing of this has stopped the stream";
    EXPECT_EQ(instrument.State().timebaseDac, 30009) << "with the offset at the temperature";
}

// In the correction of a stream at 35 degrees, between planes 4 and 5 of the record.
TEST_F(Service, CorrectionsAreForcedAndReplacedAtTheNextConfigure) {
    PlugKnown(SERIAL);
    int device = -1;
    ASSERT_EQ(tqOpenDeviceBySerial(&device, SERIAL), OK);
    const auto levelDb = [&](bool configure) {
        float scale = 0.0f;
        if (configure) {
            EXPECT_EQ(tqConfigure(device, tqModeIQStreaming), OK);
        }
        EXPECT_EQ(tqGetIQCorrection(device, &scale), OK);
        return 20.0 * std::log10(scale);
    };
    bool has = false;
    TqTempRange range = tqTempRangeExt;
    EXPECT_EQ(tqAdminDeviceHasCorrections(device, &has), OK);
    EXPECT_TRUE(has);
    EXPECT_EQ(tqAdminGetTempRange(device, &range), OK);
    EXPECT_EQ(range, tqTempRangeNotSet);
    const double neutral = levelDb(true);
    CalRecord record;
    for (int plane = 0; plane < TQ720_CAL_TEMPS; ++plane) {
        std::fill_n(&record.data->rfCorrections[plane][0][0], TQ720_CAL_ATTENS * TQ720_CAL_LO_STEPS,
                    3.0f * static_cast<float>(plane));
    }
    EXPECT_EQ(tqAdminManualLoadCorrections(device, record.data.get()), OK);
    EXPECT_EQ(levelDb(false), neutral) << "what runs keeps what it was planned with";
    EXPECT_NEAR(levelDb(true) - neutral, 12.0 + 3.0 / 3.0, 1e-3);
    EXPECT_EQ(tqAdminSetCorrectionMode(device, tqCorrectionModeCal), OK);
    EXPECT_EQ(tqAdminSetCorrectionIndex(device, 2), OK);
    EXPECT_NEAR(levelDb(false) - neutral, 13.0, 1e-3);
    EXPECT_NEAR(levelDb(true) - neutral, 6.0, 1e-3);
    EXPECT_EQ(tqAdminSetCorrectionIndex(device, 9), tqSettingClamped);
    EXPECT_NEAR(levelDb(true) - neutral, 18.0, 1e-3);
    EXPECT_EQ(tqAdminSetCorrectionMode(device, tqCorrectionModeNormal), OK);
    EXPECT_NEAR(levelDb(true) - neutral, 13.0, 1e-3);
}

}  // namespace
