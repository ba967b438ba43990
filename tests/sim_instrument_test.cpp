// The virtual instrument from the wire's side: words composed as literals go in, samples are measured against a naive
// double-precision reference, records are read by their printed offsets.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <numeric>
#include <thread>

#include "sim/instrument.h"

namespace {

using sim::BulkInResult;
using sim::Instrument;
using sim::InstrumentOptions;
using Complex = std::complex<double>;
using Bytes = std::vector<std::uint8_t>;
using Words = std::vector<std::uint32_t>;

constexpr double PI = std::numbers::pi;
constexpr double RATE = 61.44e6;
constexpr std::uint32_t START = 0x30000001, STOP = 0x32000000, STROBE = 0x14000001;

// One tune of the front end, as it stands on the wire.
struct TuneRow {
    std::uint32_t rfConfig;  // at 0 dB
    std::uint32_t lmxInt, lmxFrac, divider, segment, ports, outB;
    double loHz;
    int band;
    int step;          // of the sweep grid
    std::size_t fine;  // off the sweep grid: index on the grid of 3.84 MHz; else 0
};
// Output A, as in band 10, keeps its divider whatever output B was last told.
constexpr std::array<TuneRow, 6> TUNES = {{
    {0x2CA803C0, 0x20240040, 0x202B0000, 0x204B0B00, 0x201F43EC, 0x202C32A3, 0x202E07FC, 61.44e6, 0, 1, 0},
    {0x2CA88AA0, 0x20240042, 0x202B0000, 0x204B0900, 0x201F43EC, 0x202C32A3, 0x202E07FC, 337.92e6, 4, 11, 0},
    {0x2CA850A0, 0x20240064, 0x202B0000, 0x204B0840, 0x201F43EC, 0x202C32A3, 0x202E07FC, 1536e6, 8, 50, 0},
    {0x2C686480, 0x20240041, 0x202B0000, 0x204B0800, 0x201F03EC, 0x202C32A3, 0x202E07FD, 3993.6e6, 10, 130, 0},
    {0x2C3C09E0, 0x20240064, 0x202B0000, 0x204B0800, 0x201F03EC, 0x202C3263, 0x202E07FC, 6144e6, 11, 200, 0},
    {0x2C3E11E0, 0x20240063, 0x202B0064, 0x204B0800, 0x201F43EC, 0x202C3263, 0x202E07FD, 12261.12e6, 14, 400, 3193},
}};
constexpr const TuneRow &DIRECT = TUNES[0], &BAND_4 = TUNES[1], &BAND_8 = TUNES[2];
constexpr double BAND_4_RF = 314.88e6;  // at the centre of its stream, 24 ticks of the tune below the LO

Words TuneBlock(const TuneRow& row, std::uint32_t rough, std::uint32_t ticks = 24, std::uint32_t attenDb = 0) {
    return {0x24000000 | rough, row.rfConfig + attenDb, row.lmxInt, row.lmxFrac, row.divider, row.segment,
            row.ports,          0x2A000000 | ticks,     row.outB};
}

Words operator+(Words a, const Words& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Words FetchIq(std::uint32_t iq, std::uint32_t aux) { return {0x31000000 | iq | aux << 8, STROBE}; }
Words FetchAux(std::uint32_t aux) { return {0x31000800 | aux << 8, STROBE}; }

int Send(Instrument& instrument, Words words) {
    EXPECT_LE(words.size(), 512u);
    words.resize(512, 1);
    Bytes block(2048);
    std::memcpy(block.data(), words.data(), block.size());
    return instrument.BulkOut(0x01, block);
}

BulkInResult::Kind Read(Instrument& instrument, Bytes& into, std::size_t bytes) {
    into.assign(bytes, 0xEE);
    const BulkInResult result = instrument.BulkIn(0x81, into);
    into.resize(result.bytes);
    return result.kind;
}

// A read that shall complete, in full.
Bytes Take(Instrument& instrument, std::size_t bytes) {
    Bytes into;
    EXPECT_EQ(Read(instrument, into, bytes), BulkInResult::Kind::done);
    EXPECT_EQ(into.size(), bytes);
    into.resize(bytes);
    return into;
}

Bytes FourAuxPackets(Instrument& instrument) {
    Send(instrument, FetchAux(4));
    return Take(instrument, 32768);
}

template <typename T>
T Get(const Bytes& bytes, std::size_t at) {
    EXPECT_LE(at + sizeof(T), bytes.size());
    T value;
    std::memcpy(&value, &bytes.at(at), sizeof(T));
    return value;
}
constexpr auto Get16 = Get<std::uint16_t>;
constexpr auto Get32 = Get<std::uint32_t>;
constexpr auto Get64 = Get<std::uint64_t>;

std::vector<Complex> Samples(const Bytes& bytes) {
    std::vector<Complex> samples(bytes.size() / 4);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] =
            Complex(Get<std::int16_t>(bytes, 4 * i) - 576.0, Get<std::int16_t>(bytes, 4 * i + 2) - 576.0) / 32768.0;
    }
    return samples;
}

std::vector<Complex> Capture(Instrument& instrument, const Words& setup, std::uint32_t packets = 4,
                             std::uint32_t start = START) {
    EXPECT_EQ(Send(instrument, setup + Words{start} + FetchIq(packets, 0) + Words{STOP}), 2048);
    return Samples(Take(instrument, packets * 8192));
}

// Complex amplitude at a frequency of the stream, under a four-term window (side lobes below -90 dB).
Complex ToneAt(const std::vector<Complex>& samples, double freqHz, double rate = RATE) {
    Complex sum = 0.0;
    double weights = 0.0;
    const auto n = static_cast<double>(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double x = 2.0 * PI * static_cast<double>(i) / n;
        const double w = 0.35875 - 0.48829 * std::cos(x) + 0.14128 * std::cos(2 * x) - 0.01168 * std::cos(3 * x);
        sum += w * samples[i] * std::polar(1.0, -2.0 * PI * std::fmod(freqHz / rate * static_cast<double>(i), 1.0));
        weights += w;
    }
    return sum / weights;
}

double Db(Complex amplitude) { return 20.0 * std::log10(std::abs(amplitude)); }

sim::Scene Carriers(std::initializer_list<std::pair<double, double>> list, double noise = -170.0) {
    sim::Scene scene;
    scene.noiseDbmPerHz = noise;
    for (const auto& [freq, level] : list) {
        sim::Emitter& emitter = scene.emitters.emplace_back();
        emitter.freqHz = freq;
        emitter.levelDbm = level;
    }
    return scene;
}

// The record, read by its printed layout.
struct Record {
    Bytes bytes;
    explicit Record(const Instrument& instrument) : bytes(instrument.PeekFlash(4096, 2048)) {}
    double Temp(std::size_t plane) const { return Get<float>(bytes, 688 + 4 * plane); }
    std::uint32_t Rough(int step) const { return bytes.at(716 + static_cast<std::size_t>(step - 1)); }
    double Rf(std::size_t plane, std::size_t atten, int step) const {
        return Get<float>(bytes, 1208 + 4 * ((plane * 7 + atten) * 490 + static_cast<std::size_t>(step - 1)));
    }
    double Curve(std::size_t base, std::size_t plane, int step, std::size_t point) const {
        return Get<float>(bytes, base + 4 * ((plane * 490 + static_cast<std::size_t>(step - 1)) * 13 + point));
    }
    double Fine(std::size_t base, std::size_t plane, std::size_t k) const {
        return Get<float>(bytes, base + 4 * (plane * 4000 + k));
    }
};

// The words name an LO, the record how the two branches differ there, and the taps filter them: what comes out of the
// converter is a carrier and its image, each with the amplitude and phase that follow from these three.
TEST(SimInstrument, CarriersAndImagesFollowWordsRecordAndTaps) {
    constexpr std::size_t PLANE = 5;
    constexpr double LEVEL = -20.0;
    // I: taps 3 and 20; Q: taps 3 and 9; the centre taps of power-up are cleared.
    const Words taps = {0x4F000000, 0x43004000, 0x5400F000, 0x6F000000, 0x63003A98, 0x69000800};
    InstrumentOptions options;
    options.serial = 20250017;
    options.temperatureC = sim::Truth(options.serial).MeasuredTemp(PLANE);
    Instrument instrument(options);
    const Record record(instrument);
    for (const TuneRow& row : std::span(TUNES).subspan(1)) {
        for (const int multiple : {-10, -5, 2, 5, 10}) {
            if (row.fine && std::abs(multiple) != 5) continue;  // off the grid the record knows 19.2 MHz alone
            SCOPED_TRACE(std::to_string(row.band) + " at " + std::to_string(multiple));
            const double ifHz = 3.84e6 * multiple;
            instrument.SetScene(Carriers({{row.loHz - ifHz, LEVEL}}));
            const auto samples = Capture(instrument, TuneBlock(row, record.Rough(row.step)) + taps, 4, 0x30000000);
            const auto tuning = instrument.State().tuning;
            ASSERT_TRUE(tuning);
            EXPECT_EQ(tuning->band, row.band);
            EXPECT_NEAR(tuning->loHz, row.loHz, 1.0);

            const auto point = static_cast<std::size_t>(std::abs(multiple) - 1);
            const double amp =
                row.fine ? record.Fine(632328, PLANE, row.fine) : record.Curve(97248, PLANE, row.step, point);
            const double phase =
                row.fine ? record.Fine(744328, PLANE, row.fine) : record.Curve(275608, PLANE, row.step, point);
            const auto tap = [&](double value, int k) {
                return value / 32767.0 * std::polar(1.0, -PI * ifHz / RATE * k);
            };
            const Complex turn = std::polar(std::sqrt(amp), (ifHz < 0.0 ? phase : -phase) / 2.0);
            const Complex i = (tap(0x4000, 3) + tap(-0x1000, 20)) * turn;
            const Complex q = (tap(0x3A98, 3) + tap(0x0800, 9)) / turn;
            const Complex carrier = ToneAt(samples, ifHz, 2 * RATE);
            const Complex image = ToneAt(samples, -ifHz, 2 * RATE);
            EXPECT_LT(std::abs(image / carrier - std::conj(i - q) / (i + q)), 1e-4);
            if (row.fine) continue;
            const double flatness = record.Curve(453968, PLANE, row.step, point);
            EXPECT_NEAR(Db(carrier), LEVEL - record.Rf(PLANE, 0, row.step) + flatness + Db((i + q) / std::sqrt(2.0)),
                        0.01);
        }
    }
    EXPECT_EQ(instrument.Counters().unknownWords + instrument.Counters().protocolErrors, 0u);
}

TEST(SimInstrument, RefusesAFrontEndThatTheHardwareDoesNotHave) {
    Instrument instrument;
    instrument.SetScene(Carriers({{BAND_4_RF, -20.0}}, -100.0));
    for (const std::uint32_t word : {
             0x2CA88B20u,  // select of no band
             0x204B0A80u,  // divider code 10
             0x204B0800u,  // division by two with the second segment on
             0x202C3263u,  // output A off
             0x2C00035Fu,  // powered down
         }) {
        const auto samples = Capture(instrument, TuneBlock(BAND_4, 4) + Words{word});
        EXPECT_FALSE(instrument.State().tuning) << std::hex << word;
        EXPECT_EQ(samples, std::vector<Complex>(samples.size())) << "the bare offset";
    }
}

TEST(SimInstrument, NoiseHasItsDensityAndIsWhite) {
    InstrumentOptions options;
    options.scene = Carriers({}, -140.0);
    Instrument instrument(options);
    const Record record(instrument);
    instrument.SetTemperature(record.Temp(3));
    const auto samples = Capture(instrument, TuneBlock(BAND_8, record.Rough(BAND_8.step)), 128);
    double power = 0.0;
    Complex neighbours = 0.0;
    for (std::size_t i = 1; i < samples.size(); ++i) {
        power += std::norm(samples[i]);
        neighbours += samples[i] * std::conj(samples[i - 1]);
    }
    const double meanDb = 10.0 * std::log10(power / static_cast<double>(samples.size() - 1));
    // 77.88 dB: the stream's width; 0.2 dB: the IF's slope at its centre, which these plain taps leave in.
    EXPECT_NEAR(meanDb + record.Rf(3, 0, BAND_8.step) - 3.01 - 77.88, -140.2, 0.15);
    EXPECT_LT(std::abs(neighbours) / power, 0.01);  // 5 sigma of 262144 samples
}

TEST(SimInstrument, StandbyIsTheOffsetAloneUntilTheSynthesiserIsReset) {
    Instrument instrument;
    instrument.SetScene(Carriers({{BAND_4_RF, -20.0}}));
    const auto power = [&] {
        double sum = 0.0;
        for (const Complex& sample : Capture(instrument, TuneBlock(BAND_4, 4), 4)) sum += std::norm(sample);
        return sum;
    };
    const double awake = power();
    Send(instrument, {0x2C00035F});
    EXPECT_EQ(power(), 0.0) << "tuned or not";
    EXPECT_EQ(Get32(FourAuxPackets(instrument), 0), 0x41555831u);
    Send(instrument, {0x20002496, 0x20002494});
    EXPECT_NEAR(power(), awake, 0.01 * awake);
}

// Codes 2 and 3 decimate on: flat inside, no aliases from beyond the transition. Code 0 is the converter itself.
TEST(SimInstrument, StartCodesSetRateAndBandLimits) {
    Instrument instrument;
    const auto level = [&](double shift, std::uint32_t code, double at) {
        instrument.SetScene(Carriers({{BAND_4_RF + shift, -20.0}}));
        const auto samples = Capture(instrument, TuneBlock(BAND_4, 4), 4, 0x30000000 | code);
        return Db(ToneAt(samples, at, 122.88e6 / (1 << code)));
    };
    const double centre = level(0.0, 1, 0.0);
    struct Case {
        std::uint32_t code;
        double shift;  // of the carrier from the centre of the tune
        double at;
        double expectedDb;  // -80: or less
    };
    for (const Case& c :
         {Case{0, 0.0, 23.04e6, 0.0}, Case{1, 23.0e6, 23.0e6, 0.0}, Case{1, -38.5e6, 22.94e6, -80.0},
          Case{2, 11.5e6, 11.5e6, 0.0}, Case{2, 12.5e6, 12.5e6, 0.0}, Case{2, 16.0e6, -14.72e6, -9.8},
          Case{2, 19.3e6, -11.42e6, -80.0}, Case{3, -6.25e6, -6.25e6, 0.0}, Case{3, 9.7e6, -5.66e6, -80.0}}) {
        const double db = std::max(level(c.shift, c.code, c.at) - centre, -80.0);
        EXPECT_NEAR(db, c.expectedDb, 1.0) << c.code;  // plain taps leave the IF's own slope in
    }
}

// With the pattern in place of a scene each sample says which one it is, whatever is tuned and however it is read.
TEST(SimInstrument, CountsSamplesAndAcquisitionsInPlaceOfAScene) {
    InstrumentOptions options;
    options.scene = Carriers({{BAND_4_RF, 0.0}}, -80.0);
    options.scene.pattern = sim::Pattern::samples;
    Instrument instrument(options);
    const auto numbers = [](const Bytes& bytes) {
        std::vector<std::uint32_t> list(bytes.size() / 4);
        for (std::size_t i = 0; i < list.size(); ++i) {
            list[i] = sim::ReadNumber(Get<std::int16_t>(bytes, 4 * i) - 576, Get<std::int16_t>(bytes, 4 * i + 2) - 576);
        }
        return list;
    };
    for (const std::uint32_t code : {0u, 1u, 2u, 3u}) {
        Send(instrument, Words{0x30000000 | code} + FetchIq(255, 0) + FetchIq(9, 0));
        Bytes whole = Take(instrument, 70000);
        std::ranges::copy(Take(instrument, 264 * 8192 - 70000), std::back_inserter(whole));
        std::vector<std::uint32_t> expected(264 * 2048);
        std::iota(expected.begin(), expected.end(), 0u);
        ASSERT_EQ(numbers(whole), expected) << code;
    }

    options.scene.pattern = sim::Pattern::acquisitions;
    instrument.SetScene(options.scene);
    std::uint32_t acquisition = 4;
    ASSERT_EQ(instrument.Counters().starts, acquisition);
    Send(instrument, Words{START} + FetchIq(37, 0) + Words{STOP, START} + FetchIq(2, 0) + FetchIq(1, 0));
    const std::vector<std::uint32_t> read = numbers(Take(instrument, 40 * 8192));
    for (std::uint32_t i = 0; i < read.size(); ++i) {
        const std::uint32_t start = i < 37 * 2048 ? 0 : 37 * 2048;
        ASSERT_EQ(read[i], (acquisition + (start != 0)) << 16 | ((i - start) & 0xFFFF)) << i;
    }

    Bytes atEnd(16);
    sim::RenderNumbers((1u << 30) - 2, 576, atEnd.data(), 4);
    EXPECT_EQ(numbers(atEnd), (std::vector<std::uint32_t>{(1u << 30) - 2, (1u << 30) - 1, 0, 1})) << "wraps";
}

TEST(SimInstrument, ModulationsAreFunctionsOfTime) {
    using enum sim::EmitterKind;
    sim::Scene scene = Carriers({{BAND_4_RF, -20.0}});
    sim::Emitter& emitter = scene.emitters[0];
    emitter.toneHz = 100e3;
    emitter.deviationHz = 200e3;
    Instrument instrument;
    const auto captureAs = [&](sim::EmitterKind kind) {
        emitter.kind = kind;
        instrument.SetScene(scene);
        return Capture(instrument, TuneBlock(BAND_4, 4), 16);
    };
    const double full = Db(ToneAt(captureAs(carrier), 0.0));
    const auto bessel = [](unsigned order) { return 20.0 * std::log10(std::abs(std::cyl_bessel_j(order, 2.0))); };
    struct Row {
        sim::EmitterKind kind;
        double atHz, relativeDb;
    };
    for (const Row& row : {Row{am, 0.0, 0.0}, Row{am, 100e3, -12.04}, Row{am, -100e3, -12.04}, Row{ssb, 100e3, 0.0},
                           Row{fm, 0.0, bessel(0)}, Row{fm, 100e3, bessel(1)}, Row{fm, 200e3, bessel(2)}}) {
        EXPECT_NEAR(Db(ToneAt(captureAs(row.kind), row.atHz)), full + row.relativeDb, 0.05) << row.atHz;
    }
    EXPECT_LT(Db(ToneAt(captureAs(ssb), 0.0)), full - 70.0);

    emitter.periodS = 6000 / RATE;
    emitter.widthS = 1800 / RATE;
    const auto gated = captureAs(pulse);
    const double on = std::pow(10.0, full / 20.0);
    for (const std::size_t i : {0u, 1799u, 6000u, 7799u, 30000u}) EXPECT_NEAR(std::abs(gated[i]), on, 0.01 * on);
    for (const std::size_t i : {1800u, 5999u, 7800u, 29999u}) EXPECT_LT(std::abs(gated[i]), 0.01 * on);

    emitter.hopsHz = {BAND_4_RF, BAND_4_RF + 1e6};
    emitter.dwellS = 16384 / RATE;
    const auto hops = captureAs(hop);
    const std::vector<Complex> first(hops.begin(), hops.begin() + 16384), second(hops.begin() + 16384, hops.end());
    EXPECT_NEAR(Db(ToneAt(first, 0.0)), full, 0.05);
    EXPECT_NEAR(Db(ToneAt(second, 1e6)), full, 0.05);
    EXPECT_LT(Db(ToneAt(second, 0.0)), full - 60.0);

    // A recording of a slow tone at half scale, at a quarter of the stream's rate.
    auto recording = std::make_shared<sim::Recording>();
    for (int i = 0; i < 512; ++i) {
        recording->iq.push_back(static_cast<std::int16_t>(std::lround(16384 * std::cos(2 * PI * i / 128))));
        recording->iq.push_back(static_cast<std::int16_t>(std::lround(16384 * std::sin(2 * PI * i / 128))));
    }
    emitter.recording = recording;
    emitter.rateHz = RATE / 4;
    EXPECT_NEAR(Db(ToneAt(captureAs(replay), RATE / 512)), full - 6.02, 0.05);
    emitter.freqHz = 23.04e6;
    instrument.SetScene(scene);
    const auto mirrored = Capture(instrument, TuneBlock(DIRECT, 4));
    EXPECT_GT(Db(ToneAt(mirrored, -RATE / 512)) - Db(ToneAt(mirrored, RATE / 512)), 60.0);
}

TEST(SimInstrument, ClippedSamplesSaturateAndRaiseTheFlagOnce) {
    InstrumentOptions options;
    options.scene = Carriers({{BAND_4_RF + 1e6, 0.0}});
    Instrument instrument(options);
    Send(instrument, TuneBlock(BAND_4, 4) + Words{START} + FetchIq(3, 1));
    const Bytes bytes = Take(instrument, 32768);
    EXPECT_EQ(Get32(bytes, 3 * 8192 + 48), 0x100u);
    std::vector<std::int16_t> values(3 * 4096);
    std::memcpy(values.data(), bytes.data(), 3 * 8192);
    EXPECT_EQ(std::ranges::max(values), 32767);
    EXPECT_EQ(std::ranges::min(values), -32768);
    EXPECT_EQ(Get32(FourAuxPackets(instrument), 48), 0u);
}

TEST(SimInstrument, AuxPacketIsLaidOutToTheByte) {
    constexpr std::uint64_t T0 = 1228800000;  // ten seconds
    InstrumentOptions options;
    options.temperatureC = -1.0;
    options.fpgaVersion = 0xA1B2C3D4;
    options.runVersion = 0x0305;
    Instrument instrument(options);
    std::array<std::uint8_t, 2> fan = {0xE8, 0x01};
    ASSERT_EQ(instrument.Control({0x40, 0xC3, 0, 0}, fan), 2);
    Send(instrument, TuneBlock(BAND_4, 4) + Words{0x2E00A123, START} + FetchIq(3, 1));
    instrument.TriggerAt(T0 + 500);
    instrument.TriggerAt(T0 + 100000000);  // not yet
    Bytes bytes = Take(instrument, 32768);
    const Bytes aux(bytes.begin() + 3 * 8192, bytes.end());
    EXPECT_EQ(Bytes(aux.begin(), aux.begin() + 4), (Bytes{0x31, 0x58, 0x55, 0x41}));
    EXPECT_EQ(Get32(aux, 4), 0xA1B2C3D4u);
    EXPECT_EQ(Get64(aux, 8), T0 + 12288);           // three packets of two ticks a sample
    EXPECT_EQ(Get64(aux, 16), T0 + 500);            // the trigger
    EXPECT_EQ(Get64(aux, 32), T0 + 12288 - 1950u);  // the host adds 1950 at decimation 1
    EXPECT_EQ(Get32(aux, 44), 0xA123u);
    EXPECT_EQ(Get16(aux, 76), 0x0305u);
    EXPECT_EQ(Get16(aux, 82), 0x01E8u);
    EXPECT_EQ(Get16(aux, 88), 0x1FF0u);  // -1.0 degrees

    instrument.SetTemperature(25.0);
    Send(instrument, Words{0x30000003} + FetchIq(3, 1));
    bytes = Take(instrument, 32768);
    EXPECT_EQ(Get16(bytes, 3 * 8192 + 88), 0x0190u);
    // Eight ticks a sample at decimation 4; the host adds 7880.
    EXPECT_EQ(Get64(bytes, 3 * 8192 + 32), T0 + 12288 + 3 * 2048 * 8 - 7880u);
}

TEST(SimInstrument, ReadsCompleteInWholeUnitsUntilARestartForgetsThem) {
    Instrument instrument;
    Bytes bytes;
    Send(instrument, FetchAux(3));
    EXPECT_EQ(Read(instrument, bytes, 8192), BulkInResult::Kind::pending);  // not even what is there
    Send(instrument, FetchAux(1) + Words{START} + FetchIq(7, 1));
    // First come, first served; I/Q before the aux packet of its fetch, whatever the size of the reads.
    Bytes whole;
    for (const std::size_t size : {32768u, 1000u, 40000u, 24536u}) {
        std::ranges::copy(Take(instrument, size), std::back_inserter(whole));
    }
    for (std::size_t packet = 0; packet < 12; ++packet) {
        EXPECT_EQ(Get32(whole, packet * 8192) == 0x41555831u, packet < 4 || packet == 11) << packet;
    }
    EXPECT_EQ(instrument.BulkIn(0x82, bytes).kind, BulkInResult::Kind::stalled);

    Send(instrument, Words{START} + FetchIq(4, 0));
    ASSERT_EQ(instrument.Control({0x40, 0xE0, 0, 0}, {}), 0);
    Send(instrument, FetchAux(4));  // the boot program knows no fetch
    EXPECT_EQ(Read(instrument, bytes, 32768), BulkInResult::Kind::pending);
    Send(instrument, {0xFFFA0003});
    EXPECT_EQ(Get32(FourAuxPackets(instrument), 0), 0x41555831u);
}

TEST(SimInstrument, InLockstepABusyHostWaitsForItsStreamButNotForWhatAnEarlierOneLeft) {
    InstrumentOptions options;
    options.speed = sim::Speed::lockstep;
    Instrument instrument(options);
    std::atomic<bool> busy = true;
    std::thread worker([&busy] {
        while (busy) {
        }
    });
    Bytes bytes;
    Send(instrument, Words{START} + FetchIq(8, 0));
    EXPECT_EQ(Read(instrument, bytes, 32768), BulkInResult::Kind::pending);
    instrument.Joined();
    Take(instrument, 32768);
    Send(instrument, Words{START} + FetchIq(4, 0));
    EXPECT_EQ(Read(instrument, bytes, 32768), BulkInResult::Kind::pending);
    busy = false;
    worker.join();
    BulkInResult::Kind asleep = BulkInResult::Kind::pending;
    for (int i = 0; i < 100000 && asleep == BulkInResult::Kind::pending; ++i) asleep = Read(instrument, bytes, 65536);
    EXPECT_EQ(asleep, BulkInResult::Kind::done);
}

TEST(SimInstrument, CountsWhatItDoesNotUnderstandAndLogsInOrder) {
    Instrument instrument;
    instrument.EnableLog(true, 17);
    const Words senseless = {
        0x33000000,              // no such op code
        0x80000000,              // nor this
        0xFF120000,              // no such system word
        0x14000001,              // strobe without fetch
        0x30000004,              // start code
        0x31000000, 0x14000001,  // nothing asked for, yet not marked as aux
        0x31000D00, 0x14000001,  // five aux packets
        0x31000004, 0x14000001,  // samples without a start
        0x230001F5,              // no such setting
        0xFFFD1000,              // flash, under the run program
    };
    Send(instrument, senseless);
    EXPECT_EQ(instrument.Counters().unknownWords, 3u);
    EXPECT_EQ(instrument.Counters().protocolErrors, 7u);
    std::array<std::uint8_t, 2> fan = {1, 2};
    instrument.Control({0x40, 0xC3, 0, 0}, fan);
    Send(instrument, {0x28003412, 0x29007856, 0x2700005A, 0x26200007});  // more than the log holds
    EXPECT_EQ(instrument.Log().at(senseless.size()), (sim::LogEntry{sim::LogEntry::Kind::request, 0xC3, {1, 2}}));
    EXPECT_EQ(instrument.LoggedWords(), senseless + (Words{0x28003412, 0x29007856, 0x2700005A}));
    EXPECT_EQ(instrument.BulkOut(0x01, Bytes(2047)), -EPIPE);
    EXPECT_EQ(instrument.BulkOut(0x02, Bytes(2048)), -EPIPE);
    EXPECT_EQ(instrument.Control({0x40, 0xE1, 0, 0}, {}), -EPIPE);
}

TEST(SimInstrument, FlashProgramsClearsAndReadsAsFlashDoes) {
    InstrumentOptions options;
    options.program = sim::Program::boot;
    Instrument instrument(options);
    const auto write = [&](std::uint32_t page, std::uint32_t pattern) {
        Words words = {0xFFFE0000 | page};
        words.resize(257, pattern);
        EXPECT_EQ(Send(instrument, words), 2048);
    };
    const auto read = [&](std::uint32_t page) {
        Send(instrument, {0xFFFD0000 | page});
        return Take(instrument, 32768);
    };
    write(1024, 0xFFFFF0F0);
    write(1025, 0xFF12FFFF);  // words that look like commands are data
    write(1055, 0x00000001);  // and so is the fill word
    write(1024, 0xFFFF0FF0);  // bits only go down
    const Bytes bytes = read(1024);
    EXPECT_EQ(Get32(bytes, 0), 0xFFFF00F0u);
    EXPECT_EQ(Get32(bytes, 1024), 0xFF12FFFFu);
    EXPECT_EQ(Get32(bytes, 31 * 1024), 1u);
    EXPECT_EQ(instrument.Counters().unknownWords, 0u);

    for (const std::uint32_t page : {0u, 1279u, 1280u}) write(page, 0);
    Send(instrument, {0xFFFC0400});  // pages 1024 to 1279
    EXPECT_EQ(read(1024), Bytes(32768, 0xFF));
    EXPECT_EQ(Get32(read(1279), 0), 0xFFFFFFFFu);
    EXPECT_EQ(Get32(read(1279), 1024), 0u);
    EXPECT_EQ(Get32(read(65535), 1024), 0u) << "wraps";
}

TEST(SimInstrument, GpsTextAndPpsFollowTheCounter) {
    InstrumentOptions options;
    options.utcAtPowerUp = 1771418119;  // 2026-02-18 12:35:19 UTC
    options.gps = sim::GpsState::locked;
    Instrument instrument(options);
    struct Gps {
        std::uint32_t count, flags;
        std::uint64_t pps;
        std::string text;
    };
    const auto look = [&] {
        const Bytes bytes = FourAuxPackets(instrument);
        const std::uint32_t word = Get32(bytes, 40);
        Gps gps{(word >> 18) & 3, Get32(bytes, 48), Get64(bytes, 24), {}};
        for (std::size_t at = word >> 20 & 511; at != (word >> 9 & 511); at = (at + 1) % 512) {
            gps.text.append(reinterpret_cast<const char*>(&bytes[4096 + 4 * at]), 4);
        }
        return gps;
    };
    instrument.AdvanceTime(std::chrono::milliseconds(100));
    const Gps first = look();
    EXPECT_EQ(first.flags, 0u);
    // The text in front of an edge names the second before it.
    EXPECT_EQ(first.text.substr(0, first.text.find("\n\n") + 1),
              "$GPRMC,123518.00,A,4807.0380,N,01131.0000,E,0.0,0.0,180226,,,A*5F\r\n"
              "$GPGGA,123518.00,4807.0380,N,01131.0000,E,1,08,0.9,545.4,M,46.9,M,,*68\r\n");
    for (unsigned second = 1; second < 20; ++second) {  // round the ring and the count
        instrument.AdvanceTime(std::chrono::seconds(1));
        const Gps next = look();
        EXPECT_EQ(next.count, (first.count + second) % 4);
        EXPECT_EQ(next.pps, first.pps + 122880000u * second);
        EXPECT_NE(next.text.find(",1235" + std::to_string(18 + second) + ".00,"), std::string::npos) << next.text;
    }
    Send(instrument, {0x2F000001});  // the host asks for discipline
    const Gps before = look();
    EXPECT_EQ(before.flags, 0x400u);

    instrument.faults().LosePps();
    instrument.AdvanceTime(std::chrono::seconds(4));
    EXPECT_EQ(look().pps, before.pps);
    instrument.faults().Clear();
    EXPECT_EQ(look().pps, before.pps + 4u * 122880000u);

    instrument.SetGps(sim::GpsState::searching);
    EXPECT_NE(look().text.find(",V,"), std::string::npos);
    EXPECT_EQ(look().flags, 0u);
    instrument.SetGps(sim::GpsState::absent);
    EXPECT_EQ(look().text, "");
    EXPECT_EQ(look().pps, 0u);
}

// Tests and tools watch and change the instrument while the bus reads from it.
TEST(SimInstrument, MayBeWatchedAndChangedWhileItStreams) {
    Instrument instrument;
    std::thread bus([&] {
        for (int i = 0; i < 50; ++i) {
            Send(instrument, TuneBlock(BAND_4, 4) + Words{START} + FetchIq(15, 1) + Words{STOP});
            Take(instrument, 16 * 8192);
        }
    });
    instrument.EnableLog(true, 1000);
    for (int i = 0; i < 200; ++i) {
        instrument.SetScene(Carriers({{314e6 + i, -40.0}}));
        instrument.SetTemperature(20.0 + i % 3);
        instrument.faults().DataLossAt(1);
        (void)instrument.State();
        (void)instrument.Log();
    }
    bus.join();
    EXPECT_EQ(instrument.Counters().iqPackets, 750u);
}

}  // namespace
