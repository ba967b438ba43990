// Looks after the flash of one instrument.
//
//     service [--serial N] [--yes] info
//     service [--serial N] [--yes] backup FILE        saves the calibration record
//     service [--serial N] [--yes] write-run IMAGE    FX3 image of the run program
//     service [--serial N] [--yes] write-fpga FILE
//     service [--serial N] [--yes] write-cal FILE     a calibration record, such as a backup
//
// Asks before it erases anything, unless --yes is given. What fails half-way can be done again.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "tq_api_admin.h"

namespace {

constexpr int CAL_FIRST_PAGE = 4096;
constexpr long MAX_RUN_BYTES = 0x40000;
constexpr long MAX_FPGA_BYTES = 0x200000;
constexpr uint32_t CAL_MAGIC = 0xF0000000;

[[noreturn]] void GiveUp(const std::string& reason) {
    std::fprintf(stderr, "service: %s\n", reason.c_str());
    std::exit(EXIT_FAILURE);
}

void Check(TqStatus status, const char* what) {
    if (status < tqNoError) GiveUp(std::string(what) + ": " + tqGetErrorString(status));
    if (status > tqNoError) std::fprintf(stderr, "service: %s: %s\n", what, tqGetErrorString(status));
}

// One line on the terminal that shows how far a blocking call is: a bar where it tells its progress, else the time that
// it has taken. Silent when there is no terminal.
class ProgressLine {
public:
    // progress: what the library writes, from 0.0 to `end`; null: it tells none.
    ProgressLine(const char* what, double* progress, double end = 1.0)
        : label(what), watched(progress), full(end), painter([this](std::stop_token stop) { Paint(stop); }) {}

private:
    void Paint(const std::stop_token& stop) {
        if (isatty(STDERR_FILENO) == 0) return;
        const auto start = std::chrono::steady_clock::now();
        std::mutex mutex;
        std::condition_variable_any wake;
        std::unique_lock lock(mutex);
        while (!wake.wait_for(lock, stop, std::chrono::milliseconds(100), [&] { return stop.stop_requested(); })) {
            if (watched == nullptr) {
                const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
                std::fprintf(stderr, "\r%-10s %4.1f s ", label, taken.count());
                continue;
            }
            constexpr int WIDTH = 50;
            const double part = std::min(std::atomic_ref(*watched).load() / full, 1.0);
            const std::string bar(static_cast<size_t>(part * WIDTH), '#');
            std::fprintf(stderr, "\r%-10s [%-*s] %3.0f %% ", label, WIDTH, bar.c_str(), part * 100.0);
        }
        std::fprintf(stderr, "\r\033[K");
    }

    const char* label;
    double* watched;
    double full;
    std::jthread painter;  // last: it paints with all of the above
};

// The library names every page on standard output; that would tear the progress line.
class QuietOutput {
public:
    QuietOutput() {
        std::fflush(stdout);
        const int nowhere = open("/dev/null", O_WRONLY);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~QuietOutput() {
        std::fflush(stdout);
        dup2(kept, STDOUT_FILENO);
        close(kept);
    }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    int kept = dup(STDOUT_FILENO);
};

// The instrument in its boot program, from which leaving restarts it, whatever has happened.
class BootSession {
public:
    explicit BootSession(int serial) { Check(Open(serial), "opening the boot program"); }
    ~BootSession() {
        const ProgressLine line("restarting", nullptr);
        tqBootCloseDevice(handle);
    }
    BootSession(const BootSession&) = delete;
    BootSession& operator=(const BootSession&) = delete;

    int handle = -1;

private:
    TqStatus Open(int serial) {
        const ProgressLine line("restarting", nullptr);
        return tqBootOpenDeviceBySerial(&handle, serial);
    }
};

int ChooseInstrument(int wanted) {
    if (wanted >= 0) return wanted;
    std::array<int, 16> serials{};
    int count = static_cast<int>(serials.size());
    Check(tqGetDeviceList(serials.data(), &count), "looking for instruments");
    if (count == 0) GiveUp("no instrument found");
    if (count == 1) return serials[0];
    std::string list;
    for (int i = 0; i < count; ++i) list += " " + std::to_string(serials[static_cast<size_t>(i)]);
    GiveUp("several instruments, choose one with --serial:" + list);
}

std::string Date(uint64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    std::array<char, 32> text{};
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) return "?";
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

// Nothing is erased for a file that cannot be what it should: the library would refuse it only afterwards.
void CheckFile(const char* name, long maxBytes, std::string_view head) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(name, "rb"), &std::fclose);
    std::array<char, 4> begin{};
    if (file == nullptr || std::fread(begin.data(), 1, begin.size(), file.get()) != begin.size() ||
        std::fseek(file.get(), 0, SEEK_END) != 0) {
        GiveUp(std::string(name) + ": cannot be read");
    }
    if (std::ftell(file.get()) > maxBytes) GiveUp(std::string(name) + ": larger than its place in flash");
    if (!std::string_view(begin.data(), begin.size()).starts_with(head)) {
        GiveUp(std::string(name) + ": not such an image");
    }
}

void Ask(const std::string& what, int serial, bool yes) {
    if (yes) return;
    std::printf("This erases the %s of instrument %08d. Go on? [y/N] ", what.c_str(), serial);
    std::fflush(stdout);
    std::array<char, 8> answer{};
    if (std::fgets(answer.data(), answer.size(), stdin) == nullptr || (answer[0] != 'y' && answer[0] != 'Y')) {
        GiveUp("nothing done");
    }
}

void Info(int serial) {
    int device, boot, run, fpga;
    uint32_t calDate;
    uint16_t ticks;
    bool dithering, calibrated;
    TqTempRange range;
    Check(tqOpenDeviceBySerial(&device, serial), "tqOpenDeviceBySerial");
    Check(tqGetFirmwareVersion(device, &boot, &run, &fpga), "tqGetFirmwareVersion");
    Check(tqAdminDeviceHasCorrections(device, &calibrated), "tqAdminDeviceHasCorrections");
    Check(tqGetCalDate(device, &calDate), "tqGetCalDate");
    Check(tqAdminGetTempRange(device, &range), "tqAdminGetTempRange");
    Check(tqAdminGetCoarseTuneVal(device, &ticks), "tqAdminGetCoarseTuneVal");
    Check(tqAdminHasDithering(device, dithering), "tqAdminHasDithering");
    const char* const coverage = range == tqTempRangeRoomTemp ? "room temperature"
                                 : range == tqTempRangeStd    ? "standard range"
                                 : range == tqTempRangeExt    ? "extended range"
                                                              : "range not set";
    std::printf("serial number   %08d\n", serial);
    std::printf("boot program    %d.%d\n", boot >> 8, boot & 0xFF);
    std::printf("run program     %d.%d\n", run >> 8, run & 0xFF);
    std::printf("FPGA program    %d.%d\n", fpga >> 8, fpga & 0xFF);
    std::printf("calibration     %s\n", calibrated ? (Date(calDate) + " UTC, " + coverage).c_str() : "none");
    std::printf("timebase DAC    %u, %g ppb a tick\n", unsigned{ticks}, TQ_PPB_PER_TICK);
    std::printf("ADC dithering   %s\n", dithering ? "yes" : "no");
    Check(tqCloseDevice(device), "tqCloseDevice");
}

// 64 reads of a tenth of a second.
void Backup(int serial, const char* name) {
    std::vector<uint8_t> record(sizeof(TQ720CalData));
    TqStatus status = tqNoError;
    {
        const BootSession session(serial);
        double progress = 0.0;
        const ProgressLine line("reading", &progress);
        constexpr int READ_PAGES = TQ_FLASH_READ_BYTES / TQ_FLASH_PAGE_BYTES;
        int pageNumber = CAL_FIRST_PAGE;
        for (size_t at = 0; at < record.size() && status == tqNoError; at += TQ_FLASH_READ_BYTES) {
            status = tqBootReadFlashPage(session.handle, pageNumber, &record[at]);
            pageNumber += READ_PAGES;
            const double done = static_cast<double>(at) / static_cast<double>(record.size());
            std::atomic_ref<double>(progress).store(done);
        }
    }
    Check(status, "reading the calibration record");
    std::FILE* const file = std::fopen(name, "wb");
    if (file == nullptr) GiveUp(std::string(name) + ": " + std::strerror(errno));
    const bool written = std::fwrite(record.data(), 1, record.size(), file) == record.size();
    if (std::fclose(file) != 0 || !written) GiveUp(std::string(name) + ": " + std::strerror(errno));
    std::printf("%s: %zu bytes\n", name, record.size());
}

// Clears an area and writes it.
//   clear, write  what to call, with the handle and with a progress that they may or may not tell
void Rewrite(int serial, bool tellsProgress, const std::function<TqStatus(int, double&)>& clear,
             const std::function<TqStatus(int, double&)>& write) {
    TqStatus status;
    const char* failed = "erasing; do it again";
    {
        const BootSession session(serial);
        const QuietOutput quiet;
        double progress = 0.0;
        {
            const ProgressLine line("erasing", tellsProgress ? &progress : nullptr, 0.875);
            status = clear(session.handle, progress);
        }
        progress = 0.0;
        if (status == tqNoError) {
            failed = "writing; the area is not usable, do it again";
            const ProgressLine line("writing", tellsProgress ? &progress : nullptr);
            status = write(session.handle, progress);
        }
    }
    Check(status, failed);
    std::puts("written and verified");
}

void WriteRun(int serial, const char* name, bool yes) {
    CheckFile(name, MAX_RUN_BYTES, "CY");
    Ask("run program", serial, yes);
    Rewrite(
        serial, false, [](int handle, double&) { return tqBootClearRunSector(handle); },
        [name](int handle, double&) { return tqBootWriteRunSector(handle, name, 0); });
}

void WriteFPGA(int serial, const char* name, bool yes) {
    CheckFile(name, MAX_FPGA_BYTES, "");
    Ask("FPGA program", serial, yes);
    Rewrite(serial, true, tqBootClearFPGAProgram,
            [name](int handle, double& progress) { return tqBootWriteFPGAProgram(handle, name, progress); });
}

void WriteCal(int serial, const char* name, bool yes) {
    const auto record = std::make_unique<TQ720CalData>();
    CheckFile(name, sizeof *record, "");
    if (!tqCalCorrectionLoadFromFile(name, record.get()) || record->magicNumber != CAL_MAGIC) {
        GiveUp(std::string(name) + ": not a calibration record");
    }
    std::printf("calibration of %s UTC\n", Date(tqCalGetCorrectionCalDate(record.get())).c_str());
    Ask("calibration", serial, yes);
    Rewrite(serial, true, tqBootClearCorrections, [&record](int handle, double& progress) {
        return tqBootWriteCorrections(handle, reinterpret_cast<const uint8_t*>(record.get()), progress);
    });
}

[[noreturn]] void Usage() {
    std::fputs(
        "usage: service [--serial N] [--yes] info | backup FILE | write-run IMAGE | write-fpga FILE | "
        "write-cal FILE\n",
        stderr);
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    int serial = -1;
    bool yes = false;
    std::vector<const char*> words;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--yes") {
            yes = true;
        } else if (argument == "--serial" && i + 1 < argc) {
            const std::string_view number = argv[++i];
            const auto [end, error] = std::from_chars(number.begin(), number.end(), serial);
            if (error != std::errc() || end != number.end() || serial < 0) Usage();
        } else {
            words.push_back(argv[i]);
        }
    }
    const std::string_view command = words.empty() ? "" : words[0];
    if (words.size() != (command == "info" ? 1 : 2)) Usage();
    using Command = void (*)(int, const char*, bool);
    constexpr std::array<std::pair<std::string_view, Command>, 5> COMMANDS = {{
        {"info", [](int number, const char*, bool) { Info(number); }},
        {"backup", [](int number, const char* name, bool) { Backup(number, name); }},
        {"write-run", WriteRun},
        {"write-fpga", WriteFPGA},
        {"write-cal", WriteCal},
    }};
    for (const auto& [name, run] : COMMANDS) {
        if (name != command) continue;
        run(ChooseInstrument(serial), words.back(), yes);
        return EXIT_SUCCESS;
    }
    Usage();
}
