// What the real-time mode costs: the whole way from the wire to the client's images, in multiples of the real rate, and
// each stage by itself. The whole way shares the cores with the model of the instrument, of which ModelStream tells the
// cost.
#include "engine_real_time.h"
#include "frequency_plan.h"
#include "open_instrument.h"
#include "sim/gated_instrument.h"

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

constexpr double SPAN = 40e6;
constexpr double IQ_BYTES_PER_READ = 127 * 8192;

// An RBW that asks for windows of 19 twentieths of this length.
double RbwOf(int64_t fftSize) {
    return DSP::GetWindowBandwidth(tqWindowNutall) * BASE_SR / (0.95 * static_cast<double>(fftSize));
}

int FramePairs(int64_t fftSize) { return static_cast<int>(BASE_SR / (static_cast<double>(fftSize) / 2)) / 30; }

// The part of a spectrum that a span of 40 MHz takes.
TqRealTimeSettings SettingsOf(int64_t fftSize, RealTimeSetup& setup) {
    Tq720Config config;
    TqRealTimeSettings settings;
    settings.span = SPAN;
    settings.rbw = RbwOf(fftSize);
    setup = PlanRealTime(settings, {}, {}, config).setup;
    return settings;
}

void CountRates(benchmark::State& state, double spectra, int64_t fftSize) {
    const double realRate = BASE_SR / (static_cast<double>(fftSize) / 2);
    state.counters["spectra/s"] = benchmark::Counter(spectra, benchmark::Counter::kIsRate);
    state.counters["x real rate"] = benchmark::Counter(spectra / realRate, benchmark::Counter::kIsRate);
}

// Frames through the exports from an instrument that delivers as fast as frames are taken, and no faster: nothing is
// lost.
void WholeWay(benchmark::State& state) {
    const int64_t fftSize = state.range(0);
    sim::InstrumentOptions options;
    auto instrument = std::make_shared<sim::GatedInstrument>(options);
    const OpenInstrument open(instrument, options.serial);
    const int device = open.device;

    int size = 0, width = 0, height = 0;
    if (device < 0 || tqSetRealTimeRBW(device, RbwOf(fftSize)) < 0 ||
        tqConfigure(device, tqModeRealTime) != tqNoError ||
        tqGetRealTimeParameters(device, nullptr, &size, nullptr, nullptr, &width, &height, nullptr) != tqNoError) {
        state.SkipWithError("cannot configure");
    }
    std::vector<float> frame(static_cast<std::size_t>(width * height)), alpha(frame.size());
    std::vector<float> min(static_cast<std::size_t>(size)), max(min.size());

    // Ahead of the client by as much as the store and the ring of spectra can hold between them.
    constexpr int64_t SAMPLES_AHEAD = 3500000;
    const int64_t perFrame = int64_t{FramePairs(fftSize)} * fftSize / 2;
    int expected = 0;
    const auto take = [&] {
        const int64_t samples = (expected + 1) * perFrame + SAMPLES_AHEAD;
        instrument->Allow(static_cast<int64_t>(static_cast<double>(samples * 4) / IQ_BYTES_PER_READ));
        int count = 0;
        const TqStatus status =
            tqGetRealTimeFrame(device, frame.data(), alpha.data(), min.data(), max.data(), &count, nullptr);
        if (status != tqNoError || count != expected++) state.SkipWithError("frame lost");
    };
    for (int i = 0; i < 10; i++) take();
    for (auto _ : state) take();
    CountRates(state, static_cast<double>(state.iterations()) * FramePairs(fftSize), fftSize);
}
BENCHMARK(WholeWay)
    ->RangeMultiplier(2)
    ->Range(128, 65536)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The stages. A multiple here says how often one core could do the stage's work for the whole stream.

std::vector<float> Noise(std::size_t count) {
    std::mt19937 generator(1);
    std::normal_distribution<float> normal(0.0f, 0.01f);
    std::vector<float> noise(count);
    for (float& x : noise) x = normal(generator);
    return noise;
}

// Stitching and conversion of a block.
void Conversion(benchmark::State& state) {
    constexpr int BLOCK = EngineRealTime::IQ_PER_XFER, BLOCKS = EngineRealTime::XFER_TO_STORE;
    std::vector<Ipp16sc> transfer(BLOCK, Ipp16sc{600, 500}), block(BLOCK);
    DSP::Vector<Ipp32fc> store(int64_t{BLOCK} * BLOCKS);
    int at = 0;
    for (auto _ : state) {
        std::memcpy(block.data(), transfer.data(), BLOCK * sizeof(Ipp16sc));
        DSP::Convert_16sc32fc(block.data(), store.data() + int64_t{at} * BLOCK, BLOCK);
        at = (at + 1) % BLOCKS;
        benchmark::ClobberMemory();
    }
    state.counters["x real rate"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * BLOCK / BASE_SR, benchmark::Counter::kIsRate);
}
BENCHMARK(Conversion)->Unit(benchmark::kMicrosecond);

void WindowFFTPower(benchmark::State& state) {
    const int fftSize = static_cast<int>(state.range(0));
    constexpr int64_t STORE = int64_t{EngineRealTime::IQ_PER_XFER} * EngineRealTime::XFER_TO_STORE;
    DSP::Vector<Ipp32fc> store(STORE + fftSize);
    const std::vector<float> noise = Noise(1 << 20);
    for (int64_t i = 0; i < store.size(); i++) {
        store[i] = {noise[static_cast<std::size_t>(i) % noise.size()],
                    noise[static_cast<std::size_t>(3 * i) % noise.size()]};
    }
    DSP::Vector<float> spectra(2 * STORE);
    RealTimeSetup setup;
    const TqRealTimeSettings settings = SettingsOf(fftSize, setup);
    RealTimeFFT fft(settings.window, setup, settings.sweepSize);
    int64_t read = 0, write = 0;
    for (auto _ : state) {
        fft.Transform(store.data() + read, spectra.data() + write);
        read = (read + fftSize / 2) % STORE;
        write = (write + fftSize) % (2 * STORE);
    }
    CountRates(state, static_cast<double>(state.iterations()), fftSize);
}
BENCHMARK(WindowFFTPower)->RangeMultiplier(2)->Range(128, 65536)->Unit(benchmark::kMicrosecond);

// The spectra of a round of the ring, as the two stages of the accumulation thread read them.
struct Spectra {
    explicit Spectra(int64_t size)
        : fftSize(size), settings(SettingsOf(size, setup)), values(Noise(std::size_t{1} << 21)) {
        for (float& x : values) x *= x;
    }
    const float* Next() {
        at = (at + static_cast<std::size_t>(fftSize)) % values.size();
        return values.data() + at + setup.sweepOffset;
    }

    int64_t fftSize;
    RealTimeSetup setup;
    TqRealTimeSettings settings;
    std::vector<float> values;
    std::size_t at = 0;
};

void MinMax(benchmark::State& state) {
    Spectra spectra(state.range(0));
    const int size = spectra.settings.sweepSize;
    std::vector<float> min(static_cast<std::size_t>(size)), max(min.size());
    for (auto _ : state) {
        const float* const row = spectra.Next();
        ippsMinEvery_32f(row, min.data(), min.data(), size);
        ippsMaxEvery_32f(row, max.data(), max.data(), size);
        benchmark::ClobberMemory();
    }
    CountRates(state, static_cast<double>(state.iterations()), spectra.fftSize);
}
BENCHMARK(MinMax)->RangeMultiplier(8)->Range(128, 65536)->Unit(benchmark::kMicrosecond);

// Logarithm, levels, histogram, and, a frame's worth of spectra later, window and alpha.
void Persistence(benchmark::State& state) {
    Spectra spectra(state.range(0));
    PersistenceImage image(spectra.settings, spectra.setup.freqBinning, {tqScaleLog, 0.0f});
    std::vector<int> counts(static_cast<std::size_t>(spectra.settings.frameWidth * PersistenceImage::HEIGHT));
    std::vector<float> alpha(counts.size()), before(counts.size());
    const int perFrame = FramePairs(spectra.fftSize);
    for (auto _ : state) {
        for (int i = 0; i < perFrame; i++) image.AddSpectrum(spectra.Next());
        image.FinishFrame(counts.data(), before.data(), alpha.data());
        before.swap(alpha);
    }
    CountRates(state, static_cast<double>(state.iterations()) * perFrame, spectra.fftSize);
}
BENCHMARK(Persistence)->RangeMultiplier(2)->Range(128, 65536)->Unit(benchmark::kMillisecond);

// The instrument's side of one transfer.
void ModelStream(benchmark::State& state) {
    sim::InstrumentOptions options;
    sim::Instrument instrument(options);
    std::vector<uint8_t> block(2048), data(EngineRealTime::XFER_SIZE);
    const auto send = [&](std::initializer_list<uint32_t> words) {
        for (std::size_t i = 0; i < block.size(); i += 4) std::memcpy(block.data() + i, "\1\0\0", 4);  // fill words
        std::memcpy(block.data(), words.begin(), words.size() * sizeof(uint32_t));
        instrument.BulkOut(sim::COMMAND_ENDPOINT, block);
    };
    send({0x30000001});
    for (auto _ : state) {
        send({0x3100017F, 0x14000001});
        if (instrument.BulkIn(sim::DATA_ENDPOINT, data).bytes != data.size()) state.SkipWithError("no data");
    }
    state.counters["x real rate"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * IQ_BYTES_PER_READ / 4 / BASE_SR, benchmark::Counter::kIsRate);
}
BENCHMARK(ModelStream)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
