// The virtual TQ720 seen from its USB connector: takes control requests and 2048-byte command blocks, answers with
// packets. It knows nothing of libusb; the virtual bus (bus.h) plugs it in. The bus calls it from one thread, tests
// and tools watch and change it from others: every member locks.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "sim/bus_device.h"
#include "sim/calibration.h"
#include "sim/firmware.h"
#include "sim/flash.h"
#include "sim/rf_model.h"
#include "sim/scene.h"

namespace sim {

inline constexpr std::uint16_t VENDOR_ID = 0x5C3E;
inline constexpr std::uint16_t PRODUCT_ID = 0x0037;
inline constexpr std::uint8_t COMMAND_ENDPOINT = 0x01;
inline constexpr std::uint8_t DATA_ENDPOINT = 0x81;
inline constexpr std::size_t BLOCK_BYTES = 2048;              // a command block
inline constexpr std::size_t PACKET_BYTES = 8192;             // an I/Q or aux packet
inline constexpr std::size_t STREAM_UNIT = 32768;             // the data endpoint moves whole units
inline constexpr std::uint64_t TICKS_PER_SECOND = 122880000;  // main counter

enum class Program { boot, run };
enum class Speed {
    fast,   // data stands ready at once; time is the count of samples and waits; emitters start anew at each start word
    paced,  // data comes at the real rate by the wall clock; emitters run on the main counter
    lockstep,  // as fast, but the stream comes when all other threads of the process sleep: no host is too slow for it
};
enum class RecordKind { factory, none, custom };
enum class GpsState {
    absent,        // no text, no PPS
    searching,     // text of status V, PPS
    locked,        // fix and PPS; disciplines when the host's word asks for it
    disciplining,  // fix, PPS, timebase locked in any case
};

struct InstrumentOptions {
    std::uint32_t serial = 12345678;  // at most 8 digits
    Speed speed = Speed::fast;
    Scene scene;
    Program program = Program::run;
    double temperatureC = 35.0;
    RecordKind record = RecordKind::factory;
    std::vector<std::uint8_t> customRecord;  // RecordKind::custom: bytes from the record's start
    std::uint32_t fpgaVersion = 0x0107;
    std::uint16_t runVersion = 0x0203;
    std::uint16_t bootVersion = 0x0102;
    GpsState gps = GpsState::absent;
    int startupPolls = 0;  // status requests that still answer "starting up", after power-up and after each restart
    std::chrono::milliseconds rejoinTime{1000};       // away from the bus at a restart
    std::optional<std::int64_t> utcAtPowerUp;         // seconds since the epoch; absent: the host's clock
    std::size_t cacheBytes = std::size_t{512} << 20;  // rendered samples kept in fast mode; 0: none
};

// Things that go wrong. Positions count from the call: 0 is the next packet, or the next read's first where all packets
// count. Each fires once and is gone, unless told otherwise. Several may be armed at a time. Any thread.
class Faults {
public:
    void WrongAuxMagicAt(std::uint64_t auxPacket) { Arm(Kind::magic, auxPacket); }
    void AdcOverflowAt(std::uint64_t auxPacket) { Arm(Kind::overflow, auxPacket); }
    void DataLossAt(std::uint64_t auxPacket) { Arm(Kind::loss, auxPacket); }
    // From that aux packet on the instrument has this temperature.
    void TemperatureStepAt(std::uint64_t auxPacket, double celsius) { Arm(Kind::temperature, auxPacket, celsius); }

    // Positions of the next three count all packets, flash included.
    void SilentAt(std::uint64_t packet) { Arm(Kind::silent, packet); }  // no read from there on; until Clear()
    void ShortAt(std::uint64_t packet) { Arm(Kind::shorter, packet); }  // the read that holds it ends in front of it
    void StallAt(std::uint64_t packet) { Arm(Kind::stall, packet); }    // the read that holds it fails, nothing is lost

    // Reading a range that holds the page never completes, writing or erasing it stalls. Until Clear().
    void FailFlashPage(unsigned page);
    // Writing the page seems to succeed and changes nothing. Until Clear().
    void DeadFlashPage(unsigned page);
    // Every status request says "starting up". Until Clear().
    void StartNeverEnds();
    // No PPS edge from now on. Until Clear().
    void LosePps();
    void Clear();

private:
    friend class Instrument;
    enum class Kind { magic, overflow, loss, temperature, silent, shorter, stall };
    struct Armed {
        Kind kind;
        std::uint64_t at;  // count of packets, or of aux packets, since power-up
        double value;
    };
    void Arm(Kind kind, std::uint64_t at, double value = 0.0);
    // A fault of this kind armed for one of the next `span` packets (aux packets for the first four kinds); removed.
    std::optional<Armed> Take(Kind kind, std::uint64_t span = 1);
    bool SilentWithin(std::uint64_t span) const;
    bool FlashFails(unsigned page, unsigned count) const;
    bool FlashIsDead(unsigned page) const;
    bool NeverStarts() const;
    bool PpsLost() const;
    std::uint64_t PacketsSoFar() const;
    void BeginRead(std::uint64_t packets);
    void CountPacket(bool aux);
    static bool CountsAux(Kind kind) { return kind <= Kind::temperature; }

    mutable std::mutex mutex;
    std::vector<Armed> armed;
    std::set<unsigned> badPages;
    std::set<unsigned> deadPages;
    std::uint64_t packetsSoFar = 0;
    std::uint64_t packetsAtReadEnd = 0;  // a place must not depend on how far a read has come
    std::uint64_t auxSoFar = 0;
    bool neverStarts = false;
    bool ppsLost = false;
};

// One entry of the traffic log: a command word, or a control request (value: the request code).
struct LogEntry {
    enum class Kind { word, request } kind = Kind::word;
    std::uint32_t value = 0;
    std::vector<std::uint8_t> data;  // request to the device: its payload
    bool operator==(const LogEntry&) const = default;
};

struct InstrumentCounters {
    std::uint64_t blocks = 0;
    std::uint64_t unknownWords = 0;    // op codes that the instrument does not have
    std::uint64_t protocolErrors = 0;  // words that make no sense where or as they stand; they change nothing
    std::uint64_t requests = 0;
    std::uint64_t starts = 0;      // start words obeyed
    std::uint64_t iqPackets = 0;   // handed over
    std::uint64_t auxPackets = 0;  // handed over
    std::uint64_t rendered = 0;    // packets that came out of the RF model and not out of the cache
};

// What the words and requests left behind, for inspection.
struct InstrumentState {
    Program program = Program::run;
    TuneWords tune;
    std::optional<Tuning> tuning;  // decoded
    bool acquiring = false;
    std::uint64_t startCounter = 0;    // main counter at the first sample of the present or last acquisition
    std::uint64_t ticksPerSample = 2;  // of it
    std::uint64_t samplesAsked = 0;    // fetched since its start; what the stream skipped counts
    std::uint16_t timebaseDac = 0;
    bool externalReference = false;
    bool gpsTimebaseUpdate = false;
    std::uint32_t gpio = 0;               // payload of the last port function word
    std::uint16_t fanSetPoint = 0;        // sixteenths of a degree
    std::vector<std::uint8_t> uartBytes;  // the last 4096
    std::vector<std::uint32_t> gpsWords;  // the last 4096
    std::uint64_t mainCounter = 0;
};

class Instrument : public BusDevice {
public:
    explicit Instrument(InstrumentOptions options = {});
    ~Instrument() override;

    UsbIdentity Identity() const override;
    void Joined() override;
    int Control(const ControlSetup& setup, std::span<std::uint8_t> data) override;
    int BulkOut(std::uint8_t endpoint, std::span<const std::uint8_t> data) override;
    BulkInResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) override;
    std::optional<std::chrono::milliseconds> TakeRejoinRequest() override;

    Faults& faults() { return faultSet; }

    // Take effect with the next packet that is asked for.
    void SetScene(Scene scene);
    Scene GetScene() const;
    void SetTemperature(double celsius);
    void SetGps(GpsState state);
    // The value that aux packets report, as if the firmware had steered the DAC there.
    void SetTimebaseDac(std::uint16_t value);

    // Fast mode: lets time pass without samples, for PPS edges and the like. Paced mode: no effect.
    void AdvanceTime(std::chrono::nanoseconds time);

    // External triggers. Each aux packet reports the newest one ahead of the sample behind the last one fetched: a
    // trigger is told with the samples in which it lies, or, placed too late for that, with the next ones.
    void TriggerAt(std::uint64_t mainCounter);
    // The same at a sample of the running acquisition, counted from its start word, or of the next one if none runs.
    void TriggerAtSample(std::uint64_t sample);

    // The time that GPS text and PPS give to a main counter, in nanoseconds since the epoch, rounded down.
    std::int64_t GpsNanosAt(std::uint64_t mainCounter) const;

    InstrumentCounters Counters() const;
    InstrumentState State() const;
    const Truth& GetTruth() const { return truth; }

    // Traffic log, off at first. Keeps the first `limit` entries; block fill words are left out.
    void EnableLog(bool on, std::size_t limit = std::size_t{1} << 20);
    void ClearLog();
    std::vector<LogEntry> Log() const;
    std::vector<std::uint32_t> LoggedWords() const;

    // Looks into and changes flash from behind, whatever program runs.
    std::vector<std::uint8_t> PeekFlash(unsigned page, unsigned pages) const;
    void PlaceFlash(unsigned page, std::span<const std::uint8_t> data);

private:
    // A tuned state with its renderer and, in fast mode, the samples rendered so far from its start on.
    struct Rendition {
        TuneWords words;
        std::shared_ptr<const Scene> scene;
        std::unique_ptr<Renderer> renderer;  // built when first needed
        std::vector<std::uint8_t> samples;
        std::vector<bool> clipped;  // one per packet in samples
        bool cached = false;
    };
    // Packets that one fetch asked for.
    struct Segment {
        enum class Kind { iq, aux, flash } kind = Kind::iq;
        std::uint64_t packets = 0;    // still to hand over
        std::uint64_t readyTick = 0;  // when the first of them is complete
        std::uint64_t ticksPerPacket = 0;
        std::shared_ptr<Rendition> rendition;  // iq
        std::uint64_t position = 0;            // iq: samples since the start word
        std::uint64_t origin = 0;              // iq: sample count at the start word
        std::uint64_t acquisition = 0;         // iq: start words ahead of its own
        std::uint64_t iqEndTick = 0;           // aux: when the sample behind the last one fetched is taken
        std::uint64_t ticksPerSample = 2;      // aux
        bool lossLatched = false;              // aux: samples were skipped since the packet before
        unsigned page = 0;                     // flash
    };

    void PowerUp();
    void Restart(Program next);
    void ExecuteWord(std::uint32_t word);
    bool ExecuteSystemWord(std::span<const std::uint32_t, BLOCK_BYTES / 4> words, std::size_t& index);
    void WriteLmx(std::uint32_t address, std::uint16_t value);
    void Start(std::uint32_t code);
    void Fetch(std::uint32_t request);
    void Push(Segment segment);
    void Refuse() { ++counters.protocolErrors; }
    std::shared_ptr<Rendition> GetRendition();
    void TrimCache();
    std::uint64_t WallTick() const;
    std::chrono::steady_clock::time_point WallTime(std::uint64_t tick) const;
    std::uint64_t ReadyTick(std::uint64_t packets) const;
    void NotePps();
    void TakePacket(std::uint8_t* dst);
    void PlaceTrigger(std::uint64_t mainCounter);
    void RenderIq(const Segment& segment, std::uint8_t* dst);
    void RenderAux(const Segment& segment, std::uint8_t* dst);
    void RenderGps(std::uint64_t tick, std::uint8_t* dst);
    void FillGpsRing(std::uint64_t second);
    void LogWord(std::uint32_t word);
    void EnsureRecord() const;

    const InstrumentOptions options;
    const Truth truth;
    Faults faultSet;

    mutable std::mutex mutex;  // guards all below
    Program program;
    mutable Flash flash;
    mutable bool recordPlaced = false;     // the factory record is built when flash is first touched
    std::optional<Firmware> bootFirmware;  // of the image in flash; none: built in
    std::optional<Firmware> runFirmware;
    std::optional<std::chrono::milliseconds> rejoin;
    int startupPollsLeft = 0;

    InstrumentState kept;
    TuneWords tune;
    double temperatureC;
    std::shared_ptr<const Scene> scene;
    std::uint64_t sceneVersion = 0;
    GpsState gps;

    // Acquisition.
    bool acquiring = false;
    bool inStep = false;  // lockstep: reads wait until the process sleeps
    std::uint64_t ticksPerSample = 2;
    std::uint64_t startTick = 0;  // main counter at the start word
    std::uint64_t position = 0;   // samples fetched since
    std::uint64_t execTick = 0;   // main counter when the word in execution acts
    bool lossPending = false;
    std::optional<std::uint32_t> pendingFetch;  // waits for its strobe
    std::uint32_t gpsWordLow = 0;
    std::chrono::steady_clock::time_point powerUpTime;

    // Data endpoint.
    std::deque<Segment> stream;
    std::uint64_t packetsAsked = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t packetsTaken = 0;
    std::vector<std::uint8_t> partial;  // rest of a packet that a read cut

    // Flags latched over the period of an aux packet.
    bool overflowLatched = false;

    std::vector<std::uint64_t> triggers;        // not yet latched, ascending
    std::vector<std::uint64_t> sampleTriggers;  // wait for the next start word
    std::uint64_t latchedTrigger = 0;
    std::int64_t utcAtPowerUp = 0;
    std::optional<std::uint64_t> ppsLostTick;
    std::uint64_t gpsRingSecond = ~std::uint64_t{0};
    GpsState gpsRingState = GpsState::absent;
    std::vector<std::uint8_t> gpsRing;

    // Samples of tuned states seen before, newest first.
    std::list<std::shared_ptr<Rendition>> cacheOrder;
    std::unordered_map<TuneWords, std::list<std::shared_ptr<Rendition>>::iterator, TuneWordsHash> cache;
    std::size_t cacheSize = 0;
    std::shared_ptr<Rendition> current;

    InstrumentCounters counters;
    bool logOn = false;
    std::size_t logLimit = 0;
    std::vector<LogEntry> log;
};

}  // namespace sim
