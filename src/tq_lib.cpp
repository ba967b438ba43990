#include "tq_lib.h"

#include "ipps.h"
#include "tq_assert.h"
#include "vk_critical_section.h"

#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr int FIFO_PRIORITY = 10;

constexpr int MAX_HW_DECIMATION = 4;
constexpr int MAX_NARROW_DECIMATION = 256;

constexpr char DATA_FOLDER[] = "/.tarnwell/";

void SetRealTimePriority(std::thread& thread) {
    sched_param param{};
    param.sched_priority = FIFO_PRIORITY;
    pthread_setschedparam(thread.native_handle(), SCHED_FIFO, &param);
}

// The per-user folder, with a trailing slash; made when it is not there. Empty: there is none and none can be made.
// Keeps the path while the folder is there, since asking the user database can be slow and engine threads come here.
std::string GetProgramDataPath() {
    static CriticalSection lock;
    static std::string path;
    Lock held(lock);
    if (!path.empty() && FileExists(path)) return path;
    path.clear();
    const passwd* user = getpwuid(getuid());
    if (user == nullptr || user->pw_dir == nullptr || user->pw_dir[0] == '\0') return {};
    const std::string folder = std::string(user->pw_dir) + DATA_FOLDER;
    // After a failed mkdir another process may have made it first.
    if (!FileExists(folder) && mkdir(folder.c_str(), 0777) != 0 && !FileExists(folder)) return {};
    path = folder;
    return path;
}

// Path of an instrument's file; empty if there is no folder.
std::string LocalFilePath(int serialNumber, const char* suffix) {
    const std::string folder = GetProgramDataPath();
    if (folder.empty()) return {};
    char number[16];
    std::snprintf(number, sizeof number, "%08d", serialNumber);
    return folder + "tq" + number + suffix;
}

std::string CorrectionFilePath(int serialNumber) { return LocalFilePath(serialNumber, ".bin"); }
std::string GPSFilePath(int serialNumber) { return LocalFilePath(serialNumber, "gps.bin"); }

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// False unless the first `size` bytes of the file came.
bool ReadFile(const std::string& path, void* dst, size_t size) {
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    return file != nullptr && std::fread(dst, 1, size, file.get()) == size;
}

// Writes beside the file and renames, so that a reader finds the old contents or the new, never a part. Without a sync:
// after a power failure the file may be short, which readers refuse.
bool ReplaceFile(const std::string& path, const void* src, size_t size) {
    if (path.empty()) return false;
    std::string temporary = path + ".XXXXXX";
    const int descriptor = mkstemp(temporary.data());
    if (descriptor < 0) return false;
    std::FILE* file = fdopen(descriptor, "wb");
    bool written = false;
    if (file == nullptr) {
        close(descriptor);
    } else {
        written = std::fwrite(src, 1, size, file) == size;
        written = std::fclose(file) == 0 && written;
    }
    if (written && std::rename(temporary.c_str(), path.c_str()) == 0) return true;
    unlink(temporary.c_str());
    return false;
}

}  // namespace

void SystemSleep(int milliseconds) {
    if (milliseconds > 0) usleep(static_cast<useconds_t>(milliseconds) * 1000);
}

uint64_t GetSystemTicks() {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

int64_t GetEpochSeconds() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

int64_t GetEpochNanos() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

void SetThreadPriorityAboveNormal(std::thread& thread) { SetRealTimePriority(thread); }
void SetThreadPriorityTimeCritical(std::thread& thread) { SetRealTimePriority(thread); }

bool FitsInMemory(double bytes) {
    return bytes <= static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

int GetDataTypeSize(TqDataType dataType) {
    return static_cast<int>(dataType == tqDataType16sc ? sizeof(Ipp16sc) : sizeof(Ipp32fc));
}

int64_t NextMultipleOf(int64_t v, int64_t multiple) { return (v + multiple - 1) / multiple * multiple; }

void CalculateDecimation(int totalDecimation, int& hwDecimation, int& swDecimation) {
    hwDecimation = std::min(totalDecimation, MAX_HW_DECIMATION);
    swDecimation = totalDecimation > MAX_HW_DECIMATION ? totalDecimation / MAX_HW_DECIMATION : 1;
}

int GetNarrowSweepDecimation(double span) {
    constexpr double usableBW = 47185920.0;  // free of aliases at the base rate, [Hz]
    TQ_ASSERT(span < usableBW);
    int decimation = 1;
    while (decimation < MAX_NARROW_DECIMATION && usableBW / (2 * decimation) > span) decimation *= 2;
    return decimation;
}

float ConvertTempAuxToC(uint16_t v) {
    const int count = v >> 2 & 0x3FF;
    const bool negative = (v & 0x1000) != 0;
    return static_cast<float>(negative ? count - 1024 : count) * 0.25f;
}

std::string GetCorrectionFilePath() { return GetProgramDataPath(); }

bool FileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

bool CorrectionFileExists(int serialNumber) { return FileExists(CorrectionFilePath(serialNumber)); }

bool SaveCorrectionFile(int serialNumber, const void* calMem) {
    return ReplaceFile(CorrectionFilePath(serialNumber), calMem, CAL_DATA_BYTES);
}

bool GetCorrectionsFromFile(int serialNumber, void* calMem) {
    std::vector<uint8_t> record(CAL_DATA_BYTES);
    if (!ReadFile(CorrectionFilePath(serialNumber), record.data(), record.size())) return false;
    std::memcpy(calMem, record.data(), record.size());
    return true;
}

void RemoveCorrectionFile(int serialNumber) { unlink(CorrectionFilePath(serialNumber).c_str()); }

bool StoreGPSCorrection(int serial, TqGPSCal cal) {
    TqGPSCalOnFile file{};
    file.magicNumber = MAGIC_NUMBER;
    file.version = GPS_FILE_VERSION;
    file.timeStamp = cal.timeStamp;
    file.voltage = cal.voltage;
    return ReplaceFile(GPSFilePath(serial), &file, sizeof file);
}

bool ReadGPSCorrection(int serial, TqGPSCal& cal) {
    TqGPSCalOnFile file;
    if (!ReadFile(GPSFilePath(serial), &file, sizeof file)) return false;
    if (file.magicNumber != MAGIC_NUMBER || file.version != GPS_FILE_VERSION) return false;
    cal.valid = true;
    cal.timeStamp = file.timeStamp;
    cal.voltage = file.voltage;
    return true;
}
