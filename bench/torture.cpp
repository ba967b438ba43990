// Lets each single thing fail that the library asks the system for, one in a life of a handle: the n-th allocation,
// thread start or request to a device node between open and close, for each n. Whatever fails, each call has to end,
// with a status of its documentation; data are right or refused; and a life behind it in which nothing fails goes well
// and leaves nothing over. scripts/torture.sh runs it:
//     torture MODE KIND [LIVES [SEED]]
// LIVES: about so many n, evenly spread, and others with another SEED; absent: all. A crash or a hang ends a child
// process alone, and the next one goes on behind it. Prints one line, and one for each place where a failure did harm;
// exits with 1 then.
//
// What fails is asked for by the library's own threads: by the client's inside an export, and by those that it starts.
// What the virtual bus does on them is left out.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sim/bus.h"
#include "sim/flash.h"
#include "sim/instrument.h"
#include "sim/seams.h"
#include "sim/usbfs.h"
#include "tq_api.h"
#include "tq_api_admin.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
#define TQ_OWN_HEAP
constexpr bool SANITIZED = false;
#endif

// By the linker: where this program begins in memory, and where its code ends.
extern "C" const char __executable_start;
extern "C" const char etext;

namespace {

// --- What fails, and when ---

enum class Kind { memory, heap, threads, submit, control, claim, reap };
constexpr std::array<std::pair<std::string_view, Kind>, 7> KINDS = {{
    {"memory", Kind::memory},    // operator new and aligned blocks: the library's own
    {"heap", Kind::heap},        // malloc and its like: those of libusb and libc; the sanitizers want it for themselves
    {"threads", Kind::threads},  // EAGAIN
    {"submit", Kind::submit},    // a bulk transfer; each with each of ERRORS, as the rest
    {"control", Kind::control},
    {"claim", Kind::claim},
    {"reap", Kind::reap},
}};
constexpr std::array<int, 4> ERRORS = {EIO, ENODEV, ENOMEM, EINTR};

constexpr unsigned PATIENCE_S = SANITIZED ? 120 : 30;  // with one life
constexpr int FRAMES_MAX = 40;                         // of a place
constexpr int CLEAN_TURNS = 8;                         // lives with a failure for each one without

Kind kind;  // written before the first life

// Of the present life.
std::atomic<int> asked = 0;
std::atomic<int> strikeAt = 0;  // 0: none
std::atomic<bool> struck = false;
int life = 0;

// What is put on the library's time-outs: nothing is to time out unless a failure makes it, and then soon.
constexpr std::chrono::milliseconds NO_TIMEOUT{10000};
constexpr std::chrono::milliseconds SHORT_TIMEOUT{-1500};

int reportTo = -1;  // the pipe to the parent

thread_local bool ours = false;    // the library is at work
thread_local bool exempt = false;  // though not just now

// Exempts the caller until the end of the scope.
class Exempt {
public:
    Exempt() { exempt = true; }
    ~Exempt() { exempt = before; }
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;

private:
    const bool before = exempt;
};

// Safe in a signal handler.
[[gnu::format(printf, 1, 2)]] void Report(const char* format, ...) {
    std::array<char, 1024> line;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    if (write(reportTo, line.data(), std::min<std::size_t>(static_cast<std::size_t>(length), line.size() - 1)) < 0) {
        _exit(EXIT_FAILURE);
    }
}

// Those of the frames that are calls of this program.
void ReportFrames(const char* what, std::span<void* const> frames) {
    std::array<char, 20 * FRAMES_MAX> text{};
    std::size_t length = 0;
    for (void* const each : frames) {
        const auto* const frame = static_cast<const char*>(each);
        if (frame < &__executable_start || frame >= &etext) continue;
        // A frame is the address behind its call.
        length += static_cast<std::size_t>(
            std::snprintf(&text[length], text.size() - length, " 0x%tx", frame - 1 - &__executable_start));
    }
    Report("%s%s\n", what, text.data());
}

void ReportPlace(const char* what) {
    std::array<void*, FRAMES_MAX> frames;
    ReportFrames(what, std::span(frames).first(static_cast<std::size_t>(backtrace(frames.data(), FRAMES_MAX))));
}

void Strike() {
    const Exempt inside;
    struck = true;
    ReportPlace("at");
    // A request that fails may end in time-outs, memory that fails must not.
    if (kind != Kind::memory && kind != Kind::threads) sim::SetTimeoutSlack(SHORT_TIMEOUT);
}

// Whether this request of the library is the one to fail. Called for every request of the armed kind.
bool Strikes() {
    if (!ours || exempt || sim::IsInside()) return false;
    if (++asked != strikeAt) return false;
    Strike();
    return true;
}

bool StrikesMemory() { return kind == Kind::memory && Strikes(); }

int StrikeRequest(sim::NodeRequest request) {
    using enum sim::NodeRequest;
    const bool isArmed = (kind == Kind::submit && request == submit) || (kind == Kind::control && request == control) ||
                         (kind == Kind::claim && request == claim) || (kind == Kind::reap && request == reap);
    if (!isArmed || !ours || exempt) return 0;
    // Each request counts once for each error.
    constexpr int EACH = ERRORS.size();
    const int last = asked += EACH;
    const int at = strikeAt;
    if (at <= last - EACH || at > last) return 0;
    Strike();
    return ERRORS[static_cast<std::size_t>(at - (last - EACH) - 1)];
}

// --- In front of libc and the language's library ---

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct Start {
    void* (*routine)(void*);
    void* argument;
};

void* Run(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    ours = true;
    return start->routine(start->argument);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                             void* (*routine)(void*), void* argument) {
    static auto* const next = Next<decltype(pthread_create)>("pthread_create");
    if (!ours || exempt || sim::IsInside()) return next(thread, attributes, routine, argument);
    if (kind == Kind::threads && Strikes()) return EAGAIN;
    const Exempt inside;  // what libc takes for the thread is part of its start
    auto start = std::make_unique<Start>(Start{routine, argument});
    const int error = next(thread, attributes, Run, start.get());
    if (error == 0) static_cast<void>(start.release());
    return error;
}

// Several of these processes share the machine with others: no thread of theirs takes it for itself.
extern "C" [[gnu::visibility("default")]] int pthread_setschedparam(pthread_t, int, const sched_param*) {
    return EPERM;
}

#ifdef TQ_OWN_HEAP

namespace {

// In front of each block of operator new. Those of the library stand in a list.
struct alignas(16) Block {
    Block* next;
    Block* previous;  // null: not the library's
    int life;
    std::array<void*, 12> frames;  // where it was taken
};
std::mutex blocksLock;  // guards the list
constinit Block blocks = {&blocks, &blocks, 0, {}};
int blocksHeld = 0;

thread_local bool fromNew = false;  // inside operator new, which has been asked

void* Keep(Block* block) {
    block->previous = nullptr;
    if (!ours || exempt || sim::IsInside()) return block + 1;
    const Exempt inside;
    block->life = life;
    block->frames = {};
    backtrace(block->frames.data(), static_cast<int>(block->frames.size()));
    const std::lock_guard held(blocksLock);
    block->previous = blocks.previous;
    block->next = &blocks;
    block->previous->next = block->next->previous = block;
    blocksHeld += 1;
    return block + 1;
}

void* Take(std::size_t bytes) {
    fromNew = true;
    void* const block = std::malloc(sizeof(Block) + bytes);
    fromNew = false;
    return block == nullptr ? nullptr : Keep(static_cast<Block*>(block));
}

void GiveBack(void* address) {
    if (address == nullptr) return;
    Block* const block = static_cast<Block*>(address) - 1;
    if (block->previous != nullptr) {
        const std::lock_guard held(blocksLock);
        block->previous->next = block->next;
        block->next->previous = block->previous;
        blocksHeld -= 1;
    }
    std::free(block);
}

// How many blocks the library holds. Tells where those beyond `most` were taken, the newest.
int CountBlocks(int most) {
    const std::lock_guard held(blocksLock);
    const Block* block = &blocks;
    for (int over = blocksHeld; over > most; --over) {
        block = block->previous;
        ReportFrames("lost", block->frames);
    }
    return blocksHeld;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

static bool StrikesHeap() {
    if (kind != Kind::heap || fromNew || !Strikes()) return false;
    errno = ENOMEM;
    return true;
}

[[gnu::visibility("default")]] void* malloc(std::size_t bytes) {
    return StrikesHeap() ? nullptr : __libc_malloc(bytes);
}
[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t bytes) {
    return StrikesHeap() ? nullptr : __libc_calloc(count, bytes);
}
[[gnu::visibility("default")]] void* realloc(void* block, std::size_t bytes) {
    return StrikesHeap() ? nullptr : __libc_realloc(block, bytes);
}
[[gnu::visibility("default")]] void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
    return StrikesMemory() ? nullptr : __libc_memalign(alignment, bytes);
}

}  // extern "C"

#else

namespace {

// A block that is lost is the sanitizer's matter. Out of line, or GCC takes new and free for a pair.
void* Take(std::size_t bytes) { return std::malloc(std::max<std::size_t>(bytes, 1)); }
[[gnu::noinline]] void GiveBack(void* block) { std::free(block); }
int CountBlocks(int) { return 0; }

}  // namespace

#endif

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return StrikesMemory() ? nullptr : Take(bytes);
}
void* operator new(std::size_t bytes) {
    void* const block = operator new(bytes, std::nothrow);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new[](std::size_t bytes) { return operator new(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t& tag) noexcept { return operator new(bytes, tag); }
void operator delete(void* block) noexcept { GiveBack(block); }
void operator delete[](void* block) noexcept { GiveBack(block); }
void operator delete(void* block, std::size_t) noexcept { GiveBack(block); }
void operator delete[](void* block, std::size_t) noexcept { GiveBack(block); }

namespace {

// --- The lives ---

constexpr int SERIAL = 12345678;
constexpr double CENTER_HZ = 1e9;
constexpr double LEVEL_DBM = -30.0;  // of a carrier in the middle
constexpr double LEVEL_SLACK_DB = 1.5;
constexpr int IQ_SAMPLES = 20000;
constexpr int LIST_STEPS = 2;

std::vector<float> data;  // large enough for what any mode delivers

double PeakDbm(int count) { return *std::max_element(data.begin(), data.begin() + count); }
double PowerDbm(int samples) {
    const double sum = std::transform_reduce(data.begin(), data.begin() + 2 * samples, 0.0, std::plus<>(),
                                             [](float x) { return static_cast<double>(x) * static_cast<double>(x); });
    return 10.0 * std::log10(sum / samples);
}

struct Mode {
    std::string_view name;
    std::function<TqStatus(int device)> set;
    std::function<TqStatus(int device)> configure;
    std::function<TqStatus(int device)> take;
    std::function<double()> level;  // of what was taken, [dBm]
    bool isBoot = false;
    bool isFirst = false;  // without a local copy of the calibration record
};

int sweepSize = 0;

TqStatus TakeSweep(int device) {
    const TqStatus status = tqGetSweepParameters(device, nullptr, nullptr, nullptr, nullptr, &sweepSize);
    return status < tqNoError ? status : tqGetSweep(device, nullptr, data.data(), nullptr);
}
TqStatus TakeFrame(int device) {
    const TqStatus status =
        tqGetRealTimeParameters(device, nullptr, &sweepSize, nullptr, nullptr, nullptr, nullptr, nullptr);
    return status < tqNoError ? status
                              : tqGetRealTimeFrame(device, nullptr, nullptr, nullptr, data.data(), nullptr, nullptr);
}
TqStatus SetList(int device) {
    TqStatus status = tqSetIQSweepListSteps(device, LIST_STEPS);
    for (int step = 0; step < LIST_STEPS && status == tqNoError; ++step) {
        status = tqSetIQSweepListFreq(device, step, CENTER_HZ);
        if (status == tqNoError) status = tqSetIQSweepListSampleCount(device, step, IQ_SAMPLES);
    }
    return status;
}
auto Configure(TqMode mode) {
    return [mode](int device) { return tqConfigure(device, mode); };
}
auto Sweep(double spanHz, double rbwHz) {
    return [spanHz, rbwHz](int device) {
        const TqStatus status = tqSetSweepCenterSpan(device, CENTER_HZ, spanHz);
        return status < tqNoError ? status : tqSetSweepCoupling(device, rbwHz, rbwHz, 0.001);
    };
}
double PeakOfSweep() { return PeakDbm(sweepSize); }
double PowerOfIQ() { return PowerDbm(IQ_SAMPLES); }
double PowerOfList() { return PowerDbm(LIST_STEPS * IQ_SAMPLES); }
double AnyLevel() { return LEVEL_DBM; }  // where the status has to do

TqStatus TakeReadings(int device) {
    float celsius = 0;
    TqGPSState gps;
    const TqStatus status = tqGetDeviceDiagnostics(device, nullptr, nullptr, &celsius);
    return status < tqNoError ? status : tqGetGPSState(device, &gps);
}

const auto NOTHING = [](int) { return tqNoError; };

const std::vector<Mode> MODES = {
    {"open", NOTHING, NOTHING, TakeReadings, AnyLevel},
    {"first", NOTHING, NOTHING, TakeReadings, AnyLevel, false, true},
    {"sweep", Sweep(50e6, 100e3), Configure(tqModeSweeping), TakeSweep, PeakOfSweep},
    {"narrow", Sweep(1e6, 10e3), Configure(tqModeSweeping), TakeSweep, PeakOfSweep},
    {"realtime", [](int device) { return tqSetRealTimeCenterSpan(device, CENTER_HZ, 40e6); }, Configure(tqModeRealTime),
     TakeFrame, PeakOfSweep},
    {"iq",
     [](int device) {
         const TqStatus status = tqSetIQCenterFreq(device, CENTER_HZ);
         return status < tqNoError ? status : tqSetIQSampleRate(device, 32);
     },
     Configure(tqModeIQStreaming),
     [](int device) {
         return tqGetIQ(device, data.data(), IQ_SAMPLES, nullptr, 0, nullptr, tqFalse, nullptr, nullptr);
     },
     PowerOfIQ},
    {"list", SetList, Configure(tqModeIQSweepList),
     [](int device) { return tqIQSweepListGetSweep(device, data.data(), nullptr); }, PowerOfList},
    {"audio", [](int device) { return tqSetAudioCenterFreq(device, CENTER_HZ); }, Configure(tqModeAudio),
     [](int device) { return tqGetAudio(device, data.data()); }, AnyLevel},
    {"fullband", NOTHING, NOTHING, [](int device) { return tqAdminGetFullBandIQ(device, CENTER_HZ, data.data()); },
     // Relative to full scale; the carrier is there, or the buffer is empty.
     [] { return PowerDbm(TQ_FULL_BAND_SAMPLES) > -60.0 ? LEVEL_DBM : 0.0; }},
    {"boot", NOTHING, NOTHING,
     [](int device) {
         return tqBootReadFlashPage(device, sim::FLASH_RECORD_PAGE, reinterpret_cast<std::uint8_t*>(data.data()));
     },
     [] { return data[0] != 0.0f ? LEVEL_DBM : 0.0; }, true},
};

// What a failure may end a call with, besides success and, for data, a warning.
std::vector<TqStatus> Permitted(std::string_view call, bool isBoot) {
    if (call == "close" || call == "abort") return {};
    if (kind == Kind::memory || kind == Kind::threads) return {tqAllocationErr};
    if (call == "open") return {tqAllocationErr, tqConnectionLostErr, tqBootErr, tqDeviceNotFoundErr};
    if (isBoot) return {tqAllocationErr, tqInternalFlashErr};
    return {tqAllocationErr, tqConnectionLostErr};
}

bool isClean = false;
bool harmed = false;  // since the last clean life

void ReportBad(std::string_view call, const std::string& what) {
    harmed = true;
    Report("bad %s%.*s: %s\n", isClean ? "behind it, " : "", static_cast<int>(call.size()), call.data(), what.c_str());
}

// One call of the library, whose status is looked at.
TqStatus Call(const Mode& mode, std::string_view name, const std::function<TqStatus(int device)>& function,
              int device) {
    ours = true;
    const TqStatus status = function(device);
    ours = false;
    // A flash read that was given up comes in front of the next open's record.
    const bool mayWarn = name == "take" || (name == "open" && mode.isFirst);
    const std::vector<TqStatus> permitted = struck ? Permitted(name, mode.isBoot) : std::vector<TqStatus>();
    if (status != tqNoError && !(mayWarn && status > tqNoError) && !std::ranges::count(permitted, status)) {
        ReportBad(name, "status " + std::to_string(status));
    }
    return status;
}

// From open to close; where `at` is not 0, that request of the armed kind fails. False: none did.
bool Live(const Mode& mode, int at) {
    alarm(PATIENCE_S);
    std::ranges::fill(data, 0.0f);
    struck = false;
    life += 1;
    asked = 0;
    strikeAt = at;
    sim::SetTimeoutSlack(NO_TIMEOUT);
    isClean = at == 0;
    int device = -1;
    const auto open = [&](int) {
        return mode.isBoot ? tqBootOpenDeviceBySerial(&device, SERIAL) : tqOpenDeviceBySerial(&device, SERIAL);
    };
    const auto close = [&](int) { return mode.isBoot ? tqBootCloseDevice(device) : tqCloseDevice(device); };
    if (Call(mode, "open", open, device) >= tqNoError) {
        if (Call(mode, "set", mode.set, device) >= tqNoError &&
            Call(mode, "configure", mode.configure, device) >= tqNoError &&
            Call(mode, "take", mode.take, device) == tqNoError) {
            const double level = mode.level();
            if (!(std::fabs(level - LEVEL_DBM) < LEVEL_SLACK_DB)) {
                ReportBad("take", std::to_string(std::lround(level)) + " dBm, without a warning");
            }
        }
        if (!mode.isBoot) Call(mode, "abort", tqAbort, device);
        Call(mode, "close", close, device);
    }
    strikeAt = 0;
    const sim::BusUse use = sim::Bus::Get().Use();
    if (!use.HoldsNothing()) {
        ReportBad("end", std::to_string(use.openNow) + " descriptors, " + std::to_string(use.claimedNow) + " claims, " +
                             std::to_string(use.urbsInFlight) + " URBs left");
    }
    return struck;
}

std::filesystem::path home;

void ForgetFiles(const Mode& mode) {
    if (!mode.isFirst) return;
    for (const auto& entry : std::filesystem::directory_iterator(home)) std::filesystem::remove_all(entry);
}

// --- The child: lives until one in which nothing fails, from the `first` n on, each `stride`-th ---

void OnCrash(int signal) {
    const bool hangs = signal == SIGALRM;
    if (hangs) Report("bad life: hangs\n");
    ReportPlace("in");
    if (hangs) {
        // All threads in turn tell where they are; these calls are not for signal handlers, but nothing else is left.
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const pid_t id = std::stoi(task.path().filename());
            if (id != gettid()) tgkill(getpid(), id, SIGUSR1);
        }
        usleep(200000);
        _exit(EXIT_FAILURE);
    }
    ::signal(signal, SIG_DFL);
    raise(signal);
}

int Torture(const Mode& mode, int first, int lives, unsigned seed) {
    std::string pattern = (std::filesystem::temp_directory_path() / "tq-torture-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return EXIT_FAILURE;
    home = pattern;
    sim::SetHome(home.string());
    sim::SetSleepFactor(100);
    data.resize(1 << 20);

    std::array<void*, 4> frames;
    backtrace(frames.data(), static_cast<int>(frames.size()));  // loads what it needs
    if (!SANITIZED) {
        for (const int signal : {SIGABRT, SIGSEGV, SIGBUS}) ::signal(signal, OnCrash);
    }
    ::signal(SIGALRM, OnCrash);
    ::signal(SIGUSR1, [](int) { ReportPlace("in"); });

    sim::InstrumentOptions options;
    options.serial = SERIAL;
    options.speed = sim::Speed::lockstep;
    options.rejoinTime = std::chrono::milliseconds(10);
    options.cacheBytes = std::size_t{16} << 20;
    sim::Emitter carrier;
    carrier.freqHz = CENTER_HZ;
    carrier.levelDbm = LEVEL_DBM;
    options.scene.emitters = {carrier};
    sim::Bus::Get().Plug(std::make_shared<sim::Instrument>(options));
    // Makes libusb's context with its thread, which is not the library's.
    if (!sim::Bus::Get().WaitListed(std::to_string(SERIAL))) return EXIT_FAILURE;
    sim::SetRequestHook(StrikeRequest);

    Live(mode, 0);  // makes what stays for good
    int held = CountBlocks(INT_MAX);
    int stride = 1;
    if (lives > 0) {
        ForgetFiles(mode);
        Live(mode, 0);
        stride = std::max(1, asked / lives);
        first += static_cast<int>(seed % static_cast<unsigned>(stride));
        Report("stride %d\n", stride);
    }
    int turn = 0;
    for (int at = first; true; at += stride) {
        Report("n %d\n", at);
        ForgetFiles(mode);
        const bool hasStruck = Live(mode, at);
        ForgetFiles(mode);
        // Harm that shows in the next life alone is worth some of the time.
        if (!hasStruck || harmed || turn++ % CLEAN_TURNS == 0) Live(mode, 0);
        harmed = false;
        const int now = CountBlocks(held);
        if (now > held) ReportBad("end", "blocks lost");
        held = std::max(held, now);
        if (hasStruck) continue;
        Report("end\n");
        break;
    }
    alarm(0);
    sim::SetRequestHook(nullptr);
    std::filesystem::remove_all(home);
    return EXIT_SUCCESS;
}

// --- The parent ---

constexpr int PLACE_FRAMES = 6;  // shown of a place
// Not worth one.
constexpr std::array<std::string_view, 14> OTHERS = {
    "operator new", "std::",  "void std::", "__gnu",  "sim::",   "ioctl",         "(anonymous namespace)::",
    "main",         "_start", "malloc",     "calloc", "realloc", "aligned_alloc", "pthread_create",
};
constexpr int CRASHES_MAX = SANITIZED ? 20 : 60;

// The innermost calls of a place, from its offsets.
std::string Name(const std::string& offsets) {
    const std::string command = "addr2line -Cfps -e /proc/" + std::to_string(getpid()) + "/exe" + offsets;
    std::string text;
    if (std::FILE* const pipe = popen(command.c_str(), "r")) {
        std::array<char, 1024> line;
        int count = 0;
        while (std::fgets(line.data(), line.size(), pipe) != nullptr) {
            std::string_view name(line.data());
            name = name.substr(0, name.find(" at ??"));
            const auto begins = [name](std::string_view with) { return name.starts_with(with); };
            if (std::ranges::any_of(OTHERS, begins) || ++count > PLACE_FRAMES) continue;
            text += "\n        ";
            text += name.substr(0, name.find('\n'));
        }
        pclose(pipe);
    }
    return text;
}

int Drive(const Mode& mode, std::string_view kindName, const std::string& lives, const std::string& seed) {
    struct Harm {
        int count = 0;
        int first = 0;
    };
    std::map<std::string, Harm> harms;
    int at = 1;
    int stride = 1;
    int done = 0;
    int crashes = 0;
    bool ended = false;
    while (!ended && crashes < CRASHES_MAX) {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) return EXIT_FAILURE;
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);  // what the library tells a terminal
            const std::string target = std::to_string(ends[1]);
            const std::string first = std::to_string(at);
            // Behind a crash the first n is one of its own.
            const std::string shift = crashes == 0 ? seed : "0";
            execl("/proc/self/exe", "torture", mode.name.data(), kindName.data(), lives.c_str(), shift.c_str(),
                  first.c_str(), target.c_str(), nullptr);
            _exit(EXIT_FAILURE);
        }
        close(ends[1]);
        std::FILE* const reports = fdopen(ends[0], "r");
        std::string place;
        std::string inside;
        std::string bad;
        const auto note = [&](const std::string& what) {
            Harm& harm = harms[what + Name(place) + (inside.empty() ? "" : "\n      in:" + inside)];
            if (harm.count++ == 0) harm.first = at;
            inside.clear();
        };
        std::array<char, 2048> line;
        while (std::fgets(line.data(), line.size(), reports) != nullptr) {
            std::string text(line.data());
            if (text.ends_with('\n')) text.pop_back();
            if (text.starts_with("n ")) {
                at = std::stoi(text.substr(2));
                done += 1;
                place.clear();
            } else if (text.starts_with("stride ")) {
                stride = std::stoi(text.substr(7));
            } else if (text.starts_with("at")) {
                place = text.substr(2);
            } else if (text == "bad life: hangs") {
                bad = "hangs";
            } else if (text.starts_with("bad ")) {
                note(text.substr(4));
            } else if (text.starts_with("in") || text.starts_with("lost")) {
                inside += Name(text.substr(std::min(text.find(' '), text.size()))) + "\n        -";
            } else if (text == "end") {
                ended = true;
                done -= 1;
            }
        }
        std::fclose(reports);
        int status = 0;
        waitpid(child, &status, 0);
        if (ended) break;
        crashes += 1;
        if (bad.empty()) {
            bad = WIFSIGNALED(status) ? std::string("ends in ") + strsignal(WTERMSIG(status)) : "ends";
        }
        note(bad);
        at += stride;
    }
    std::printf("%-9.*s %-8.*s %5d failures, each %d., harm from %zu places%s\n", static_cast<int>(mode.name.size()),
                mode.name.data(), static_cast<int>(kindName.size()), kindName.data(), done, stride, harms.size(),
                ended ? "" : ", given up");
    for (const auto& [what, harm] : harms)
        std::printf("    %d times, first at %d: %s\n", harm.count, harm.first, what.c_str());
    return harms.empty() && ended ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return EXIT_FAILURE;
    const auto mode = std::ranges::find(MODES, std::string_view(argv[1]), &Mode::name);
    const auto row = std::ranges::find(KINDS, std::string_view(argv[2]), &std::pair<std::string_view, Kind>::first);
    if (mode == MODES.end() || row == KINDS.end() || (SANITIZED && row->second == Kind::heap)) return EXIT_FAILURE;
    const std::string lives = argc > 3 ? argv[3] : "0";
    const std::string seed = argc > 4 ? argv[4] : "0";
    if (argc < 7) return Drive(*mode, row->first, lives, seed);
    kind = row->second;
    reportTo = std::stoi(argv[6]);
    return Torture(*mode, std::stoi(argv[5]), std::stoi(lives), static_cast<unsigned>(std::stoul(seed)));
}
