#include "sim/instrument.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <utility>

#include <unistd.h>

namespace sim {
namespace {

// Control requests.
constexpr std::uint8_t REQUEST_RESTART = 0xE0;
constexpr std::uint8_t REQUEST_FAN = 0xC3;
constexpr std::uint8_t REQUEST_STATUS = 0xC2;
constexpr std::uint8_t VENDOR_OUT = 0x40;
constexpr std::uint8_t VENDOR_IN = 0xC0;

constexpr std::size_t BLOCK_WORDS = BLOCK_BYTES / 4;
constexpr std::uint32_t FILL_WORD = 0x00000001;
constexpr std::uint64_t PACKET_SAMPLES = 2048;
constexpr std::uint64_t UNIT_PACKETS = STREAM_UNIT / PACKET_BYTES;
constexpr std::size_t MAX_SEGMENTS = std::size_t{1} << 20;  // fetches not yet read; a host that asks for more is broken
constexpr std::uint64_t FIFO_SAMPLES = std::uint64_t{8} << 20;  // 32 MiB of samples wait in the instrument, no more
constexpr std::uint64_t CACHED_PACKETS = 256;                   // from the start of an acquisition
constexpr std::uint64_t SECONDS_BEFORE = 10;  // age of the counter when the host first sees the instrument
constexpr std::uint64_t LOCK_TICKS = 614;     // the synthesiser settles in 5 us
constexpr std::uint32_t STANDBY = 0x00035F;   // front end and synthesiser off
constexpr std::uint16_t LMX_RESET = 0x0002;   // in register 0
constexpr std::size_t KEPT_BYTES = 4096;      // of what went out of the side ports

constexpr std::chrono::microseconds LOCKSTEP_POLL{20};

// Aux packet.
constexpr std::uint32_t AUX_MAGIC = 0x41555831;
constexpr std::uint32_t AUX_MAGIC_2 = 0x32585541;
constexpr std::uint32_t FLAG_OVERFLOW = 0x100;
constexpr std::uint32_t FLAG_LOSS = 0x200;
constexpr std::uint32_t FLAG_GPS_LOCKED = 0x400;
constexpr std::size_t AUX_GPS_RING = 4096;

// GPS text ring, in words of four characters.
constexpr std::uint64_t RING_WORDS = 512;
constexpr std::uint64_t BURST_WORDS = 40;           // the text of one second, padded
constexpr std::uint64_t PPS_PHASE_TICKS = 1234567;  // the counter did not start on a second

void Put16(std::uint8_t* at, std::uint32_t value) {
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}
void Put32(std::uint8_t* at, std::uint32_t value) {
    Put16(at, value);
    Put16(at + 2, value >> 16);
}
void Put64(std::uint8_t* at, std::uint64_t value) {
    Put32(at, static_cast<std::uint32_t>(value));
    Put32(at + 4, static_cast<std::uint32_t>(value >> 32));
}

// Whether a thread with this folder in /proc is off the processor and off its queue. Its state alone does not tell: one
// that is about to sleep is marked before it looks for the last time whether it needs to, and under load it may lose
// the processor in between. Where the kernel does not say, the state has to do.
bool IsAsleep(const std::filesystem::path& task) {
    std::ifstream file(task / "syscall");
    std::string answer;
    return !(file >> answer) || answer != "running";
}

// Of each thread of this process but the caller's how often it has gone to sleep, by its id. Nothing when one of them
// has work to do: is not asleep, whatever it waits for.
std::optional<std::map<std::string, std::string>> SleepCounts() {
    const std::string self = std::to_string(gettid());
    std::map<std::string, std::string> counts;
    std::error_code error;  // a thread that ends meanwhile is none of ours
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        if (task.path().filename() == self) continue;
        if (!IsAsleep(task.path())) return std::nullopt;
        std::ifstream file(task.path() / "status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("State:") && line.find("S (") == std::string::npos) return std::nullopt;
            if (line.starts_with("voluntary_ctxt_switches:")) counts[task.path().filename()] = line;
        }
    }
    return counts;
}

// Whether any thread of this process but the caller's has work to do. One look at each is not enough: a thread may be
// woken behind the look by one that sleeps when its turn comes. Who sleeps in two looks, and did not go to sleep
// between them, slept from the end of the first to the begin of the second.
bool OthersRun() {
    const auto first = SleepCounts();
    return !first || SleepCounts() != first;
}

// Delay between a trigger edge and the sample stream, in ticks, by the decimation behind the converter.
std::uint64_t TriggerDelay(std::uint64_t ticksPerSample) {
    if (ticksPerSample <= 2) return 98;
    return ticksPerSample <= 4 ? 176 : 312;
}

// Sign and count of quarter degrees from bit 2 up, sign in bit 12.
std::uint32_t TemperatureWord(double celsius) {
    const int quarters = std::clamp(static_cast<int>(std::floor(celsius * 4.0 + 0.5)), -1024, 1023);
    return quarters < 0 ? 0x1000u | static_cast<std::uint32_t>(1024 + quarters) << 2
                        : static_cast<std::uint32_t>(quarters) << 2;
}

std::string Sentence(const std::string& body) {
    unsigned sum = 0;
    for (const char c : body) sum ^= static_cast<unsigned char>(c);
    std::array<char, 8> tail{};
    std::snprintf(tail.data(), tail.size(), "*%02X\r\n", sum & 0xFF);
    return "$" + body + tail.data();
}

// What the receiver says about the second that began at `utc`.
std::string GpsText(std::int64_t utc, bool fix) {
    const std::time_t time = utc;
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 16> clock{}, date{};
    std::strftime(clock.data(), clock.size(), "%H%M%S.00", &parts);
    std::strftime(date.data(), date.size(), "%d%m%y", &parts);
    const std::string place = fix ? "4807.0380,N,01131.0000,E" : ",,,";
    const std::string rmc = std::string("GPRMC,") + clock.data() + (fix ? ",A," : ",V,") + place +
                            (fix ? ",0.0,0.0," : ",,,") + date.data() + ",,," + (fix ? "A" : "N");
    const std::string gga =
        std::string("GPGGA,") + clock.data() + "," + place + (fix ? ",1,08,0.9,545.4,M,46.9,M,," : ",0,00,99.9,,,,,,");
    std::string text = Sentence(rmc) + Sentence(gga);
    text.resize(4 * BURST_WORDS, '\n');
    return text;
}

template <typename T>
void Keep(std::vector<T>& kept, T value) {
    if (kept.size() == KEPT_BYTES) kept.erase(kept.begin());
    kept.push_back(value);
}

}  // namespace

// Faults

void Faults::Arm(Kind kind, std::uint64_t at, double value) {
    const std::lock_guard lock(mutex);
    armed.push_back({kind, at + (CountsAux(kind) ? auxSoFar : packetsAtReadEnd), value});
}

std::optional<Faults::Armed> Faults::Take(Kind kind, std::uint64_t span) {
    const std::lock_guard lock(mutex);
    const std::uint64_t first = CountsAux(kind) ? auxSoFar : packetsSoFar;
    const auto it = std::ranges::find_if(
        armed, [&](const Armed& fault) { return fault.kind == kind && fault.at >= first && fault.at - first < span; });
    if (it == armed.end()) return std::nullopt;
    const Armed fault = *it;
    armed.erase(it);
    return fault;
}

bool Faults::SilentWithin(std::uint64_t span) const {
    const std::lock_guard lock(mutex);
    return std::ranges::any_of(
        armed, [&](const Armed& fault) { return fault.kind == Kind::silent && fault.at < packetsSoFar + span; });
}

void Faults::FailFlashPage(unsigned page) {
    const std::lock_guard lock(mutex);
    badPages.insert(page);
}

void Faults::DeadFlashPage(unsigned page) {
    const std::lock_guard lock(mutex);
    deadPages.insert(page);
}

void Faults::StartNeverEnds() {
    const std::lock_guard lock(mutex);
    neverStarts = true;
}

void Faults::LosePps() {
    const std::lock_guard lock(mutex);
    ppsLost = true;
}

void Faults::Clear() {
    const std::lock_guard lock(mutex);
    armed.clear();
    badPages.clear();
    deadPages.clear();
    neverStarts = ppsLost = false;
}

bool Faults::FlashFails(unsigned page, unsigned count) const {
    const std::lock_guard lock(mutex);
    const auto it = badPages.lower_bound(page);
    return it != badPages.end() && *it - page < count;
}

bool Faults::FlashIsDead(unsigned page) const {
    const std::lock_guard lock(mutex);
    return deadPages.contains(page);
}

bool Faults::NeverStarts() const {
    const std::lock_guard lock(mutex);
    return neverStarts;
}

bool Faults::PpsLost() const {
    const std::lock_guard lock(mutex);
    return ppsLost;
}

std::uint64_t Faults::PacketsSoFar() const {
    const std::lock_guard lock(mutex);
    return packetsSoFar;
}

void Faults::BeginRead(std::uint64_t packets) {
    const std::lock_guard lock(mutex);
    packetsAtReadEnd = packetsSoFar + packets;
}

void Faults::CountPacket(bool aux) {
    const std::lock_guard lock(mutex);
    ++packetsSoFar;
    auxSoFar += aux ? 1 : 0;
}

// Set-up and the outside view

Instrument::Instrument(InstrumentOptions given)
    : options(std::move(given)),
      truth(options.serial),
      program(options.program),
      temperatureC(options.temperatureC),
      scene(std::make_shared<const Scene>(options.scene)),
      gps(options.gps),
      execTick(SECONDS_BEFORE * TICKS_PER_SECOND),
      powerUpTime(std::chrono::steady_clock::now()) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    utcAtPowerUp = options.utcAtPowerUp.value_or(std::chrono::duration_cast<std::chrono::seconds>(now).count());
    PowerUp();
}

Instrument::~Instrument() = default;

void Instrument::PowerUp() {
    startupPollsLeft = options.startupPolls;
    tune = TuneWords{};
    current.reset();
    acquiring = inStep = false;
    ticksPerSample = 2;
    position = 0;
    lossPending = overflowLatched = false;
    pendingFetch.reset();
    stream.clear();
    packetsAsked = packetsTaken = bytesOut = 0;
    partial.clear();
    kept = InstrumentState{};
    kept.timebaseDac = 0x8000;
    kept.fanSetPoint = 45 * 16;
}

void Instrument::Restart(Program next) {
    const std::vector<std::uint8_t> boot = flash.Read(FLASH_BOOT_PAGE, FLASH_ERASE_PAGES);
    const std::vector<std::uint8_t> run = flash.Read(FLASH_RUN_PAGE, FLASH_ERASE_PAGES);
    bootFirmware = LoadFirmware(boot);
    runFirmware = LoadFirmware(run);
    if (bootFirmware) bootFirmware->version = static_cast<std::uint16_t>(boot[boot.size() - 2] << 8 | boot.back());
    // Where there is nothing, the instrument has its built-in programs; a broken run image takes it nowhere.
    const bool runnable = runFirmware || std::ranges::all_of(run, [](std::uint8_t byte) { return byte == 0xFF; });
    program = runnable ? next : Program::boot;
    rejoin = options.rejoinTime;
    PowerUp();
}

UsbIdentity Instrument::Identity() const {
    const std::lock_guard lock(mutex);
    std::array<char, 16> serial{};
    std::snprintf(serial.data(), serial.size(), "%08u", options.serial);
    const std::optional<Firmware>& firmware = program == Program::run ? runFirmware : bootFirmware;
    return {VENDOR_ID, PRODUCT_ID, "Tarnwell", program == Program::run ? "TQ720" : "TQ720 Boot",
            firmware && !firmware->serial.empty() ? firmware->serial : serial.data()};
}

// What an earlier host left unread is there at once: whoever clears it away tells its end by a short time-out.
void Instrument::Joined() {
    const std::lock_guard lock(mutex);
    inStep = false;
}

std::optional<std::chrono::milliseconds> Instrument::TakeRejoinRequest() {
    const std::lock_guard lock(mutex);
    return std::exchange(rejoin, std::nullopt);
}

int Instrument::Control(const ControlSetup& setup, std::span<std::uint8_t> data) {
    const std::lock_guard lock(mutex);
    ++counters.requests;
    if (logOn && log.size() < logLimit) {
        LogEntry entry{LogEntry::Kind::request, setup.request, {}};
        if (!(setup.requestType & 0x80)) entry.data.assign(data.begin(), data.end());
        log.push_back(std::move(entry));
    }
    if (setup.requestType == VENDOR_OUT && setup.request == REQUEST_RESTART) {
        Restart(Program::boot);
        return 0;
    }
    if (setup.requestType == VENDOR_OUT && setup.request == REQUEST_FAN && data.size() == 2) {
        kept.fanSetPoint = static_cast<std::uint16_t>(data[0] | data[1] << 8);
        return 2;
    }
    if (setup.requestType == VENDOR_IN && setup.request == REQUEST_STATUS) {
        const bool starting = faultSet.NeverStarts() || startupPollsLeft > 0;
        if (startupPollsLeft > 0) --startupPollsLeft;
        const std::array<std::uint8_t, 4> answer = {0, static_cast<std::uint8_t>(starting ? 1 : 0), 0, 0};
        const std::size_t bytes = std::min(answer.size(), data.size());
        std::copy_n(answer.begin(), bytes, data.begin());
        return static_cast<int>(bytes);
    }
    Refuse();
    return -EPIPE;
}

void Instrument::SetScene(Scene next) {
    const std::lock_guard lock(mutex);
    scene = std::make_shared<const Scene>(std::move(next));
    ++sceneVersion;
}

Scene Instrument::GetScene() const {
    const std::lock_guard lock(mutex);
    return *scene;
}

void Instrument::SetTemperature(double celsius) {
    const std::lock_guard lock(mutex);
    temperatureC = celsius;
}

void Instrument::SetGps(GpsState state) {
    const std::lock_guard lock(mutex);
    gps = state;
}

void Instrument::SetTimebaseDac(std::uint16_t value) {
    const std::lock_guard lock(mutex);
    kept.timebaseDac = value;
}

void Instrument::AdvanceTime(std::chrono::nanoseconds time) {
    const std::lock_guard lock(mutex);
    if (options.speed == Speed::paced) return;
    NotePps();
    const long double ticks = static_cast<long double>(time.count()) * TICKS_PER_SECOND / 1000000000;
    execTick += static_cast<std::uint64_t>(std::max(ticks, 0.0L));
}

void Instrument::TriggerAt(std::uint64_t mainCounter) {
    const std::lock_guard lock(mutex);
    PlaceTrigger(mainCounter);
}

void Instrument::TriggerAtSample(std::uint64_t sample) {
    const std::lock_guard lock(mutex);
    if (acquiring) {
        PlaceTrigger(startTick + sample * ticksPerSample);
    } else {
        sampleTriggers.push_back(sample);
    }
}

void Instrument::PlaceTrigger(std::uint64_t mainCounter) {
    triggers.insert(std::ranges::upper_bound(triggers, mainCounter), mainCounter);
}

std::int64_t Instrument::GpsNanosAt(std::uint64_t mainCounter) const {
    const std::lock_guard lock(mutex);
    constexpr std::int64_t NANOS = 1000000000;
    const auto ticks = static_cast<std::int64_t>(mainCounter - SECONDS_BEFORE * TICKS_PER_SECOND - PPS_PHASE_TICKS);
    constexpr auto PER_SECOND = static_cast<std::int64_t>(TICKS_PER_SECOND);
    const std::int64_t second = ticks / PER_SECOND - (ticks % PER_SECOND < 0 ? 1 : 0);
    return (utcAtPowerUp + second) * NANOS + (ticks - second * PER_SECOND) * NANOS / PER_SECOND;
}

InstrumentCounters Instrument::Counters() const {
    const std::lock_guard lock(mutex);
    return counters;
}

InstrumentState Instrument::State() const {
    const std::lock_guard lock(mutex);
    InstrumentState state = kept;
    state.program = program;
    state.tune = tune;
    state.tuning = DecodeTuning(tune);
    state.acquiring = acquiring;
    state.startCounter = startTick;
    state.ticksPerSample = ticksPerSample;
    state.samplesAsked = position;
    state.mainCounter = options.speed == Speed::paced ? std::max(execTick, WallTick()) : execTick;
    return state;
}

void Instrument::EnableLog(bool on, std::size_t limit) {
    const std::lock_guard lock(mutex);
    logOn = on;
    logLimit = limit;
}

void Instrument::ClearLog() {
    const std::lock_guard lock(mutex);
    log.clear();
}

std::vector<LogEntry> Instrument::Log() const {
    const std::lock_guard lock(mutex);
    return log;
}

std::vector<std::uint32_t> Instrument::LoggedWords() const {
    const std::lock_guard lock(mutex);
    std::vector<std::uint32_t> words;
    for (const LogEntry& entry : log) {
        if (entry.kind == LogEntry::Kind::word) words.push_back(entry.value);
    }
    return words;
}

void Instrument::LogWord(std::uint32_t word) {
    if (logOn && log.size() < logLimit) log.push_back({LogEntry::Kind::word, word, {}});
}

void Instrument::EnsureRecord() const {
    if (std::exchange(recordPlaced, true)) return;
    switch (options.record) {
        case RecordKind::factory:
            flash.Place(FLASH_RECORD_PAGE, BuildRecord(truth));
            break;
        case RecordKind::custom:
            flash.Place(FLASH_RECORD_PAGE, options.customRecord);
            break;
        case RecordKind::none:
            break;
    }
}

std::vector<std::uint8_t> Instrument::PeekFlash(unsigned page, unsigned pages) const {
    const std::lock_guard lock(mutex);
    EnsureRecord();
    return flash.Read(page, pages);
}

void Instrument::PlaceFlash(unsigned page, std::span<const std::uint8_t> data) {
    const std::lock_guard lock(mutex);
    EnsureRecord();
    flash.Place(page, data);
}

// Time

std::uint64_t Instrument::WallTick() const {
    const std::chrono::duration<long double> since = std::chrono::steady_clock::now() - powerUpTime;
    return SECONDS_BEFORE * TICKS_PER_SECOND + static_cast<std::uint64_t>(since.count() * TICKS_PER_SECOND);
}

std::chrono::steady_clock::time_point Instrument::WallTime(std::uint64_t tick) const {
    const std::uint64_t ticks = tick - SECONDS_BEFORE * TICKS_PER_SECOND;
    const std::chrono::seconds whole(ticks / TICKS_PER_SECOND);
    const std::uint64_t rest = ticks % TICKS_PER_SECOND * 1000000000u / TICKS_PER_SECOND;
    return powerUpTime + whole + std::chrono::nanoseconds(rest + 1);
}

// Remembers when the PPS input went dead.
void Instrument::NotePps() {
    if (!faultSet.PpsLost()) {
        ppsLostTick.reset();
    } else if (!ppsLostTick) {
        ppsLostTick = execTick;
    }
}

// Commands

int Instrument::BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> data) {
    const std::lock_guard lock(mutex);
    if (endpoint != COMMAND_ENDPOINT || data.size() != BLOCK_BYTES) {
        Refuse();
        return -EPIPE;
    }
    ++counters.blocks;
    if (options.speed == Speed::paced) execTick = std::max(execTick, WallTick());
    NotePps();
    std::array<std::uint32_t, BLOCK_WORDS> words;
    for (std::size_t i = 0; i < BLOCK_WORDS; ++i) {
        words[i] = static_cast<std::uint32_t>(data[4 * i]) | static_cast<std::uint32_t>(data[4 * i + 1]) << 8 |
                   static_cast<std::uint32_t>(data[4 * i + 2]) << 16 |
                   static_cast<std::uint32_t>(data[4 * i + 3]) << 24;
    }
    for (std::size_t i = 0; i < BLOCK_WORDS; ++i) {
        if (words[i] == FILL_WORD) continue;
        LogWord(words[i]);
        if (words[i] >> 24 == 0xFF) {
            if (!ExecuteSystemWord(words, i)) return -EPIPE;
        } else {
            ExecuteWord(words[i]);
        }
    }
    return static_cast<int>(BLOCK_BYTES);
}

// Flash and program words. Leaves index at the last word used up. False: the endpoint stalls.
bool Instrument::ExecuteSystemWord(std::span<const std::uint32_t, BLOCK_BYTES / 4> words, std::size_t& index) {
    constexpr std::uint32_t TO_RUN = 0xFA, ERASE = 0xFC, READ = 0xFD, WRITE = 0xFE;
    constexpr std::size_t PAGE_WORDS = FLASH_PAGE_BYTES / 4;
    const std::uint32_t action = (words[index] >> 16) & 0xFF;
    const unsigned page = words[index] & 0xFFFF;
    if (action != TO_RUN && action != ERASE && action != READ && action != WRITE) {
        ++counters.unknownWords;
        return true;
    }
    if (program != Program::boot || (action == TO_RUN && page != 3) ||
        (action == WRITE && BLOCK_WORDS - index <= PAGE_WORDS)) {
        Refuse();
        return true;
    }
    EnsureRecord();
    if (action == TO_RUN) {
        Restart(Program::run);
    } else if (action == ERASE) {
        const unsigned sector = page / FLASH_ERASE_PAGES * FLASH_ERASE_PAGES;
        if (faultSet.FlashFails(sector, FLASH_ERASE_PAGES)) return false;
        flash.EraseSector(page);
    } else if (action == READ) {
        if (faultSet.FlashFails(page, FLASH_READ_PAGES)) return true;  // the answer never comes
        Segment segment;
        segment.kind = Segment::Kind::flash;
        segment.packets = FLASH_READ_PAGES * FLASH_PAGE_BYTES / PACKET_BYTES;
        segment.readyTick = execTick;
        segment.page = page;
        Push(std::move(segment));
    } else {
        if (faultSet.FlashFails(page, 1)) return false;
        std::array<std::uint8_t, FLASH_PAGE_BYTES> bytes;
        for (std::size_t i = 0; i < PAGE_WORDS; ++i) Put32(&bytes[4 * i], words[index + 1 + i]);
        if (!faultSet.FlashIsDead(page)) flash.WritePage(page, bytes);
        index += PAGE_WORDS;
    }
    return true;
}

void Instrument::ExecuteWord(std::uint32_t word) {
    const std::uint32_t op = word >> 24;
    const std::uint32_t payload = word & 0xFFFFFF;
    const auto low = static_cast<std::uint16_t>(payload);
    if (op == 0x00 || op == 0x01) {
        if (payload > 1) Refuse();
        return;
    }
    if (program != Program::run) {
        Refuse();
        return;
    }
    if (op >= 0x40 && op < 0x40 + 2 * FIR_TAPS) {
        tune.taps[op - 0x40] = low;
        return;
    }
    switch (op) {
        case 0x10:
            execTick += payload;
            break;
        case 0x11:
            execTick += LOCK_TICKS;
            break;
        case 0x14:
            if (payload == 1 && pendingFetch) {
                Fetch(*std::exchange(pendingFetch, std::nullopt));
            } else {
                Refuse();
            }
            break;
        case 0x20:
            WriteLmx(payload >> 16, low);
            break;
        case 0x22:
            if (payload > 1) Refuse();
            break;
        case 0x23:
            if (payload != 0x0001F4 && payload != 0x060001 && payload != 0x0D80A3 && payload != 0x0D80A2) Refuse();
            break;
        case 0x24:
            tune.rough = payload;
            break;
        case 0x26:
            kept.gpio = payload;
            break;
        case 0x27:
            Keep(kept.uartBytes, static_cast<std::uint8_t>(payload));
            break;
        case 0x28:
            gpsWordLow = low;
            break;
        case 0x29:
            Keep(kept.gpsWords, gpsWordLow | static_cast<std::uint32_t>(low) << 16);
            break;
        case 0x2A:
            tune.tune = payload;
            break;
        case 0x2C:
            tune.rfConfig = payload;
            if (payload == STANDBY) tune.standby = true;
            break;
        case 0x2D:
            kept.externalReference = payload == 0;
            break;
        case 0x2E:
            kept.timebaseDac = low;
            break;
        case 0x2F:
            kept.gpsTimebaseUpdate = payload != 0;
            break;
        case 0x30:
            Start(payload);
            break;
        case 0x31:
            pendingFetch = payload;
            break;
        case 0x32:
            acquiring = inStep = false;
            break;
        case 0x3F:
            tune.adcOffset = payload & 0x7FFF;
            break;
        default:
            ++counters.unknownWords;
            break;
    }
}

void Instrument::WriteLmx(std::uint32_t address, std::uint16_t value) {
    switch (address) {
        case 0x00:
            if ((value & LMX_RESET) != 0) tune.standby = false;
            break;
        case 0x1F:
            tune.lmxSegment = value;
            break;
        case 0x24:
            tune.lmxInt = value;
            break;
        case 0x2B:
            tune.lmxFrac = value;
            break;
        case 0x2C:
            tune.lmxPorts = value;
            break;
        case 0x2E:
            tune.lmxOutB = value;
            break;
        case 0x4B:
            tune.lmxDivider = value;
            break;
        default:
            break;  // trims of the loop, without effect on the frequency
    }
}

void Instrument::Start(std::uint32_t code) {
    if (code > 3) {
        Refuse();
        return;
    }
    acquiring = true;
    inStep = options.speed == Speed::lockstep;
    tune.startCode = code;
    ticksPerSample = std::uint64_t{1} << code;
    startTick = execTick;
    position = 0;
    ++counters.starts;
    for (const std::uint64_t sample : std::exchange(sampleTriggers, {})) {
        PlaceTrigger(startTick + sample * ticksPerSample);
    }
}

void Instrument::Fetch(std::uint32_t request) {
    const std::uint32_t iqPackets = request & 0xFF;
    const std::uint32_t auxPackets = (request >> 8) & 7;
    const bool auxOnly = (request & 0x800) != 0;
    if (request >> 12 != 0 || auxPackets > 4 || auxOnly != (iqPackets == 0) || (iqPackets > 0 && !acquiring) ||
        stream.size() >= MAX_SEGMENTS) {
        Refuse();
        return;
    }
    const auto sampleTick = [this](std::uint64_t n) { return startTick + n * ticksPerSample; };
    if (iqPackets > 0) {
        if (options.speed == Speed::paced && execTick > sampleTick(position + FIFO_SAMPLES)) {
            // The host came too late: what did not fit into the instrument is gone.
            position = (execTick - startTick) / ticksPerSample / PACKET_SAMPLES * PACKET_SAMPLES;
            lossPending = true;
        }
        Segment segment;
        segment.packets = iqPackets;
        segment.readyTick = sampleTick(position + PACKET_SAMPLES);
        segment.ticksPerPacket = PACKET_SAMPLES * ticksPerSample;
        segment.rendition = GetRendition();
        segment.position = position;
        segment.origin = options.speed == Speed::paced ? startTick / ticksPerSample : 0;
        segment.acquisition = counters.starts - 1;
        position += iqPackets * PACKET_SAMPLES;
        execTick = std::max(execTick, sampleTick(position));
        Push(std::move(segment));
    }
    if (auxPackets > 0) {
        Segment segment;
        segment.kind = Segment::Kind::aux;
        segment.packets = auxPackets;
        segment.readyTick = execTick;
        segment.iqEndTick = acquiring ? sampleTick(position) : execTick;
        segment.ticksPerSample = ticksPerSample;
        segment.lossLatched = std::exchange(lossPending, false);
        Push(std::move(segment));
    }
}

void Instrument::Push(Segment segment) {
    packetsAsked += segment.packets;
    stream.push_back(std::move(segment));
}

// The tuned state as it stands now.
std::shared_ptr<Instrument::Rendition> Instrument::GetRendition() {
    tune.temperatureC = temperatureC;
    tune.sceneVersion = sceneVersion;
    if (current && current->words == tune) return current;
    const bool caching = options.speed == Speed::fast && options.cacheBytes > 0 && scene->pattern == Pattern::none;
    if (caching) {
        const auto it = cache.find(tune);
        if (it != cache.end()) {
            cacheOrder.splice(cacheOrder.begin(), cacheOrder, it->second);
            return current = *it->second;
        }
    }
    current = std::make_shared<Rendition>();
    current->words = tune;
    current->scene = scene;
    current->cached = caching;
    if (caching) {
        cacheOrder.push_front(current);
        cache[tune] = cacheOrder.begin();
        TrimCache();
    }
    return current;
}

void Instrument::TrimCache() {
    constexpr std::size_t STATE_BYTES = 4096;  // what a state costs beside its samples, about
    while (cacheSize + cacheOrder.size() * STATE_BYTES > options.cacheBytes && cacheOrder.size() > 1) {
        const std::shared_ptr<Rendition> oldest = std::move(cacheOrder.back());
        cacheSize -= oldest->samples.size();
        oldest->cached = false;  // segments in flight may still hold it
        cache.erase(oldest->words);
        cacheOrder.pop_back();
    }
}

// Data

// When the last of the next `packets` packets is complete.
std::uint64_t Instrument::ReadyTick(std::uint64_t packets) const {
    std::uint64_t tick = 0;
    for (const Segment& segment : stream) {
        const std::uint64_t here = std::min(packets, segment.packets);
        if (here == 0) break;
        tick = std::max(tick, segment.readyTick + (here - 1) * segment.ticksPerPacket);
        packets -= here;
    }
    return tick;
}

BulkInResult Instrument::BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) {
    const std::lock_guard lock(mutex);
    if (endpoint != DATA_ENDPOINT) return {BulkInResult::Kind::stalled, 0, {}};
    const std::size_t fresh = dst.size() - std::min(dst.size(), partial.size());
    const std::uint64_t packets = (fresh + PACKET_BYTES - 1) / PACKET_BYTES;
    if (faultSet.SilentWithin(packets)) return {};
    if (bytesOut + dst.size() > packetsAsked / UNIT_PACKETS * STREAM_UNIT) return {};
    if (options.speed == Speed::paced) {
        const std::uint64_t last = (bytesOut + dst.size() + STREAM_UNIT - 1) / STREAM_UNIT * UNIT_PACKETS;
        const std::uint64_t tick = ReadyTick(last - std::min(last, packetsTaken));
        if (tick > WallTick()) return {BulkInResult::Kind::pending, 0, WallTime(tick)};
    }
    if (inStep && OthersRun()) {
        return {BulkInResult::Kind::pending, 0, std::chrono::steady_clock::now() + LOCKSTEP_POLL};
    }
    if (faultSet.Take(Faults::Kind::stall, packets)) return {BulkInResult::Kind::stalled, 0, {}};
    if (const auto fault = faultSet.Take(Faults::Kind::shorter, packets)) {
        const std::uint64_t whole = (fault->at - faultSet.PacketsSoFar()) * PACKET_BYTES;
        dst = dst.first(std::min<std::size_t>(dst.size(), partial.size() + whole));
    }

    std::span<std::uint8_t> rest = dst;
    const auto takePartial = [&] {
        const std::size_t bytes = std::min(rest.size(), partial.size());
        std::copy_n(partial.begin(), bytes, rest.begin());
        partial.erase(partial.begin(), partial.begin() + static_cast<std::ptrdiff_t>(bytes));
        rest = rest.subspan(bytes);
    };
    takePartial();
    faultSet.BeginRead((rest.size() + PACKET_BYTES - 1) / PACKET_BYTES);
    while (rest.size() >= PACKET_BYTES) {
        TakePacket(rest.data());
        rest = rest.subspan(PACKET_BYTES);
    }
    if (!rest.empty()) {
        partial.resize(PACKET_BYTES);
        TakePacket(partial.data());
        takePartial();
    }
    bytesOut += dst.size();
    return {BulkInResult::Kind::done, dst.size(), {}};
}

void Instrument::TakePacket(std::uint8_t* dst) {
    Segment& segment = stream.front();
    switch (segment.kind) {
        case Segment::Kind::iq:
            RenderIq(segment, dst);
            segment.position += PACKET_SAMPLES;
            ++counters.iqPackets;
            break;
        case Segment::Kind::aux:
            RenderAux(segment, dst);
            ++counters.auxPackets;
            if (segment.packets == 1) overflowLatched = false;
            break;
        case Segment::Kind::flash:
            for (std::size_t at = 0; at < PACKET_BYTES; at += FLASH_PAGE_BYTES) {
                flash.ReadPage(segment.page++, {dst + at, FLASH_PAGE_BYTES});
            }
            break;
    }
    ++packetsTaken;
    faultSet.CountPacket(segment.kind == Segment::Kind::aux);
    segment.readyTick += segment.ticksPerPacket;
    if (--segment.packets == 0) stream.pop_front();
}

void Instrument::RenderIq(const Segment& segment, std::uint8_t* dst) {
    Rendition& rendition = *segment.rendition;
    if (rendition.words.standby) {
        for (std::size_t at = 0; at < PACKET_BYTES; at += 2) {
            Put16(dst + at, static_cast<std::uint16_t>(rendition.words.adcOffset));
        }
        return;
    }
    if (rendition.scene->pattern != Pattern::none) {
        const bool plain = rendition.scene->pattern == Pattern::samples;
        const std::uint64_t first = plain ? segment.position : segment.acquisition << 16 | (segment.position & 0xFFFF);
        RenderNumbers(static_cast<std::uint32_t>(first), rendition.words.adcOffset, dst, PACKET_SAMPLES);
        ++counters.rendered;
        return;
    }
    const std::uint64_t packet = segment.position / PACKET_SAMPLES;
    if (rendition.cached && packet < rendition.clipped.size()) {
        std::memcpy(dst, rendition.samples.data() + packet * PACKET_BYTES, PACKET_BYTES);
        overflowLatched = overflowLatched || rendition.clipped[packet];
        return;
    }
    if (!rendition.renderer) {
        rendition.renderer = std::make_unique<Renderer>(truth, rendition.scene, rendition.words);
    }
    const bool clipped = rendition.renderer->Render(segment.position, segment.origin, dst, PACKET_SAMPLES);
    overflowLatched = overflowLatched || clipped;
    ++counters.rendered;
    if (rendition.cached && packet == rendition.clipped.size() && packet < CACHED_PACKETS) {
        rendition.samples.insert(rendition.samples.end(), dst, dst + PACKET_BYTES);
        rendition.clipped.push_back(clipped);
        cacheSize += PACKET_BYTES;
        TrimCache();
    }
}

void Instrument::RenderAux(const Segment& segment, std::uint8_t* dst) {
    if (const auto fault = faultSet.Take(Faults::Kind::temperature)) temperatureC = fault->value;
    const std::uint64_t tick = segment.readyTick;
    const auto newest = std::ranges::lower_bound(triggers, segment.iqEndTick);
    if (newest != triggers.begin()) {
        latchedTrigger = *(newest - 1);
        triggers.erase(triggers.begin(), newest);
    }
    std::uint32_t flags = 0;
    if (faultSet.Take(Faults::Kind::overflow) || overflowLatched) flags |= FLAG_OVERFLOW;
    if (faultSet.Take(Faults::Kind::loss) || segment.lossLatched) flags |= FLAG_LOSS;
    if (gps == GpsState::disciplining || (gps == GpsState::locked && kept.gpsTimebaseUpdate)) flags |= FLAG_GPS_LOCKED;

    std::memset(dst, 0, PACKET_BYTES);
    const std::uint32_t magic = faultSet.Take(Faults::Kind::magic) ? ~AUX_MAGIC : AUX_MAGIC;
    Put32(dst, magic);
    Put32(dst + 4, options.fpgaVersion);
    Put64(dst + 8, tick);
    Put64(dst + 16, latchedTrigger);
    // The host adds this distance again: it leads from the mark to the sample behind the last one that was fetched.
    const std::uint64_t distance = std::max<std::uint64_t>(segment.ticksPerSample / 2, 1) * PACKET_SAMPLES;
    Put64(dst + 32, segment.iqEndTick - distance + TriggerDelay(segment.ticksPerSample));
    Put32(dst + 44, kept.timebaseDac);
    Put32(dst + 48, flags);
    Put32(dst + 64, AUX_MAGIC_2);
    constexpr std::uint32_t BASEBAND_ON = 0x80;
    const bool awake = (tune.rfConfig & BASEBAND_ON) != 0;
    Put16(dst + 68, 904);  // 5 V in steps of 5.53 mV
    Put16(dst + 70, 597);  // 3.3 V
    Put16(dst + 72, awake ? 700 : 150);
    Put16(dst + 74, awake ? 900 : 220);  // 1.8 A, or 0.44 A in standby, in steps of 2 mA
    Put16(dst + 76, runFirmware ? runFirmware->version : options.runVersion);
    Put16(dst + 78, bootFirmware ? bootFirmware->version : options.bootVersion);
    const double fanVolts = std::clamp(5.0 + (temperatureC - kept.fanSetPoint / 16.0) * 0.5, 5.0, 12.0);
    Put16(dst + 80, static_cast<std::uint32_t>(fanVolts / 0.078125));
    Put16(dst + 82, kept.fanSetPoint);
    Put16(dst + 88, TemperatureWord(temperatureC));
    Put16(dst + 90, TemperatureWord(temperatureC + 4.0));
    RenderGps(tick, dst);
}

void Instrument::RenderGps(std::uint64_t tick, std::uint8_t* dst) {
    if (gps == GpsState::absent) return;
    const std::uint64_t reached = ppsLostTick ? std::min(tick, *ppsLostTick) : tick;
    const std::uint64_t second = (reached - PPS_PHASE_TICKS) / TICKS_PER_SECOND;
    Put64(dst + 24, second * TICKS_PER_SECOND + PPS_PHASE_TICKS);
    const auto pointer = [](std::uint64_t burst) {
        return static_cast<std::uint32_t>(burst * BURST_WORDS % RING_WORDS);
    };
    Put32(dst + 40, pointer(second + 1) | pointer(second) << 9 | static_cast<std::uint32_t>(second & 3) << 18 |
                        pointer(second - 1) << 20);
    if (second != gpsRingSecond || gps != gpsRingState || gpsRing.empty()) FillGpsRing(second);
    std::copy(gpsRing.begin(), gpsRing.end(), dst + AUX_GPS_RING);
}

// The ring holds the bursts of the seconds up to this one; each begins where the write pointer stood at its PPS edge.
void Instrument::FillGpsRing(std::uint64_t second) {
    gpsRing.assign(4 * RING_WORDS, 0);
    const bool fix = gps != GpsState::searching;
    for (std::uint64_t burst = second - std::min(second, RING_WORDS / BURST_WORDS); burst <= second; ++burst) {
        const std::string text = GpsText(utcAtPowerUp + static_cast<std::int64_t>(burst - SECONDS_BEFORE), fix);
        for (std::size_t i = 0; i < text.size(); ++i) {
            gpsRing[(4 * burst * BURST_WORDS + i) % gpsRing.size()] = static_cast<std::uint8_t>(text[i]);
        }
    }
    gpsRingSecond = second;
    gpsRingState = gps;
}

}  // namespace sim
