#include "tq_lib.h"

#include "ipps.h"
#include "tq_assert.h"
#include "vk_critical_section.h"

#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

namespace {

constexpr int FIFO_PRIORITY = 10;

constexpr int MAX_HW_DECIMATION = 4;
constexpr int MAX_NARROW_DECIMATION = 256;

constexpr char DATA_FOLDER[] = "/.tarnwell/";
constexpr char CAL_SUFFIX[] = ".bin";
constexpr char GPS_SUFFIX[] = "gps.bin";
constexpr int MAX_LINKS = 8;         // in a chain that is followed
constexpr int TEMPORARY_CHARS = 6;   // behind the name of a file and a point, letters and digits
constexpr int MAX_TEMPORARIES = 16;  // names that are tried

void SetRealTimePriority(std::thread& thread) {
    sched_param param{};
    param.sched_priority = FIFO_PRIORITY;
    pthread_setschedparam(thread.native_handle(), SCHED_FIFO, &param);
}

// Threads may still come here while the process ends, so nothing of this has a destructor to run.
constinit CriticalSection folderLock;
constinit std::array<char, PATH_MAX> folderPath TQ_GUARDED_BY(folderLock) = {};

// The per-user folder, with a trailing slash; made when it is not there. Empty: there is none and none can be made.
// Keeps the path while the folder is there, since asking the user database can be slow.
std::string GetProgramDataPath() {
    const Lock held(folderLock);
    std::string folder = folderPath.data();
    if (!folder.empty() && FileExists(folder)) return folder;
    folderPath[0] = '\0';
    const passwd* user = getpwuid(getuid());
    if (user == nullptr || user->pw_dir == nullptr || user->pw_dir[0] == '\0') return {};
    folder = std::string(user->pw_dir) + DATA_FOLDER;
    if (folder.size() >= folderPath.size()) return {};
    // After a failed mkdir another process may have made it first.
    if (!FileExists(folder) && mkdir(folder.c_str(), 0777) != 0 && !FileExists(folder)) return {};
    folder.copy(folderPath.data(), folder.size());
    folderPath[folder.size()] = '\0';
    return folder;
}

// Path of an instrument's file; empty if there is no folder.
std::string LocalFilePath(int serialNumber, const char* suffix) {
    const std::string folder = GetProgramDataPath();
    if (folder.empty()) return {};
    char number[16];
    std::snprintf(number, sizeof number, "%08d", serialNumber);
    return folder + "tq" + number + suffix;
}

std::string CorrectionFilePath(int serialNumber) { return LocalFilePath(serialNumber, CAL_SUFFIX); }
std::string GPSFilePath(int serialNumber) { return LocalFilePath(serialNumber, GPS_SUFFIX); }

// An open file, closed at the end of the scope.
class Descriptor {
public:
    explicit Descriptor(int opened) : number(opened) {}
    ~Descriptor() {
        if (IsOpen()) close(number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool IsOpen() const { return number >= 0; }
    bool IsRegular() const {
        struct stat info;
        return fstat(number, &info) == 0 && S_ISREG(info.st_mode);
    }

    // False unless all bytes came.
    bool Read(void* dst, size_t size) const {
        return Move(size, [&](size_t done) { return read(number, static_cast<char*>(dst) + done, size - done); });
    }
    bool Write(const void* src, size_t size) const {
        return Move(size,
                    [&](size_t done) { return write(number, static_cast<const char*>(src) + done, size - done); });
    }

    const int number;

private:
    template <typename Step>
    static bool Move(size_t size, Step step) {
        for (size_t done = 0; done < size;) {
            const ssize_t moved = step(done);
            if (moved == 0 || (moved < 0 && errno != EINTR)) return false;
            if (moved > 0) done += static_cast<size_t>(moved);
        }
        return true;
    }
};

// False unless the first `size` bytes of a regular file came. Anything else that has its name, a pipe above all, could
// hold the caller for ever.
bool ReadFile(const std::string& path, void* dst, size_t size) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return file.IsOpen() && file.IsRegular() && file.Read(dst, size);
}

// The path at the end of a chain of symbolic links, there or not. Empty: the chain has no end, or something that is no
// file, which a user has put there for reasons of his own.
std::string FollowLinks(const std::string& path) {
    namespace fs = std::filesystem;
    fs::path end = path;
    for (int links = 0; links < MAX_LINKS; links++) {
        std::error_code error;
        const fs::path target = fs::read_symlink(end, error);
        if (error) {
            const fs::file_type type = fs::symlink_status(end, error).type();
            const bool ours = links == 0 || type == fs::file_type::regular || type == fs::file_type::not_found;
            return ours ? end.string() : std::string();
        }
        end = end.parent_path() / target;
    }
    return {};
}

// Removes what processes that ended in the middle of ReplaceFile have left beside a file. A temporary file that is
// being written is locked by its writer.
void RemoveStaleTemporaries(const std::string& path) {
    namespace fs = std::filesystem;
    const std::string prefix = fs::path(path).filename().string() + ".";
    std::error_code error;
    for (fs::directory_iterator it(fs::path(path).parent_path(), error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename();
        const auto isAlnum = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
        if (!name.starts_with(prefix) || name.size() != prefix.size() + TEMPORARY_CHARS) continue;
        if (!std::all_of(name.end() - TEMPORARY_CHARS, name.end(), isAlnum)) continue;
        const Descriptor stale(open(it->path().c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (!stale.IsOpen() || !stale.IsRegular()) continue;
        if (flock(stale.number, LOCK_EX | LOCK_NB) == 0) unlink(it->path().c_str());
    }
}

// Creates an empty file beside `path`, with the mode that the user wants for new files; its name comes back.
int OpenTemporary(const std::string& path, std::string& temporary) {
    for (int attempt = 0; attempt < MAX_TEMPORARIES; attempt++) {
        char suffix[TEMPORARY_CHARS + 1];
        const int64_t number = GetEpochNanos() / 1000 + getpid() + attempt;
        std::snprintf(suffix, sizeof suffix, "%06x", static_cast<unsigned>(number & 0xFFFFFF));
        temporary = path + "." + suffix;
        const int descriptor = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0 || errno != EEXIST) return descriptor;
    }
    return -1;
}

// Writes beside the file and renames, so that a reader finds the old contents or the new, never a part. Without a sync:
// after a power failure the file may be short, which readers refuse.
bool ReplaceFile(const std::string& path, const void* src, size_t size) {
    if (path.empty()) return false;
    std::string temporary;
    const Descriptor file(OpenTemporary(path, temporary));
    if (!file.IsOpen()) return false;
    flock(file.number, LOCK_EX | LOCK_NB);
    if (file.Write(src, size) && std::rename(temporary.c_str(), path.c_str()) == 0) return true;
    unlink(temporary.c_str());
    return false;
}

// Replaces one of an instrument's files, or what a link in its place points at.
bool ReplaceLocalFile(int serialNumber, const char* suffix, const void* src, size_t size) {
    for (const char* each : {CAL_SUFFIX, GPS_SUFFIX}) {
        RemoveStaleTemporaries(FollowLinks(LocalFilePath(serialNumber, each)));
    }
    return ReplaceFile(FollowLinks(LocalFilePath(serialNumber, suffix)), src, size);
}

// The number behind `key` at the start of a line. Nothing: the file or the line is not there, or it says something
// else.
std::optional<double> NumberInFile(const std::string& path, std::string_view key) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(key)) continue;
        const size_t start = line.find_first_not_of(" \t", key.size());
        if (start == std::string::npos) return {};
        uint64_t number = 0;
        const auto result = std::from_chars(line.data() + start, line.data() + line.size(), number);
        if (result.ec != std::errc()) return {};
        return static_cast<double>(number);
    }
    return {};
}

// The two versions of control groups.
struct GroupVersion {
    const char* mount;
    const char* limit;
    const char* usage;
    const char* reclaimable;  // cached files that give way to whoever wants memory, a line of memory.stat
};
constexpr GroupVersion GROUPS_V1 = {"/sys/fs/cgroup/memory", "/memory.limit_in_bytes", "/memory.usage_in_bytes",
                                    "total_inactive_file "};
constexpr GroupVersion GROUPS_V2 = {"/sys/fs/cgroup", "/memory.max", "/memory.current", "inactive_file "};

// What a group and those around it leave. A container may see its own group as the root of the mount under the path of
// its host, which then is not there: every level that is not there sets no limit.
double MemoryOfGroup(const std::string& root, const GroupVersion& version, std::string group) {
    double left = std::numeric_limits<double>::infinity();
    while (true) {
        const std::string folder = root + version.mount + group;
        const std::optional<double> limit = NumberInFile(folder + version.limit, "");
        const std::optional<double> usage = NumberInFile(folder + version.usage, "");
        if (limit && usage) {
            const double cached = NumberInFile(folder + "/memory.stat", version.reclaimable).value_or(0.0);
            left = std::min(left, std::max(0.0, *limit - std::max(0.0, *usage - cached)));
        }
        if (group.empty()) return left;
        group.resize(std::min(group.rfind('/'), group.size() - 1));
    }
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

double AvailableMemory(const std::string& root) {
    double available = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
    if (const auto kib = NumberInFile(root + "/proc/meminfo", "MemAvailable:")) available = *kib * 1024.0;

    // Lines of number, controllers and group; the second version has no controllers.
    std::ifstream groups(root + "/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);) {
        const size_t controllers = std::min(line.find(':'), line.size() - 1) + 1;
        const size_t group = line.find(":/", controllers);
        if (group == std::string::npos || line.size() > PATH_MAX) continue;
        const std::string list = "," + line.substr(controllers, group - controllers) + ",";
        if (list != ",," && list.find(",memory,") == std::string::npos) continue;
        const GroupVersion& version = list == ",," ? GROUPS_V2 : GROUPS_V1;
        available = std::min(available, MemoryOfGroup(root, version, line.substr(group + 1)));
    }
    return available;
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
    return ReplaceLocalFile(serialNumber, CAL_SUFFIX, calMem, CAL_DATA_BYTES);
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
    return ReplaceLocalFile(serial, GPS_SUFFIX, &file, sizeof file);
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
