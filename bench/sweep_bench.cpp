// Speed of the wide sweep on the fast virtual instrument, whose samples stand rendered after the first sweep, and of
// its parts: ProcessStep is the arithmetic of one LO step on one thread, ModelSweep what the instrument alone takes for
// the samples of a sweep, which the library cannot win back.
#include "open_instrument.h"
#include "sweep_processor.h"

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

constexpr double START = 9e3, STOP = 15e9, RBW = 30e3;

// Planned for the whole range, with its samples rendered.
class SweepingInstrument : public OpenInstrument {
public:
    explicit SweepingInstrument(benchmark::State& state) : OpenInstrument(Options()) {
        if (device < 0 || tqSetSweepStartStop(device, START, STOP) < 0 ||
            tqSetSweepCoupling(device, RBW, RBW, 1e-6) < 0 || tqConfigure(device, tqModeSweeping) != tqNoError ||
            tqGetSweep(device, nullptr, nullptr, nullptr) < 0) {
            state.SkipWithError("cannot sweep");
        }
    }

private:
    static sim::InstrumentOptions Options() {
        sim::InstrumentOptions options;
        options.scene.emitters.resize(1);
        options.scene.emitters[0].freqHz = 2.4e9;
        options.scene.emitters[0].levelDbm = -40.0;
        return options;
    }
};

void WholeSweep(benchmark::State& state) {
    const SweepingInstrument instrument(state);
    int size = 0;
    tqGetSweepParameters(instrument.device, nullptr, nullptr, nullptr, nullptr, &size);
    std::vector<float> min(static_cast<std::size_t>(size)), max(min.size());
    for (auto _ : state) {
        if (tqGetSweep(instrument.device, min.data(), max.data(), nullptr) < 0) state.SkipWithError("sweep failed");
    }
    state.counters["sweeps/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["GHz/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * (STOP - START) / 1e9, benchmark::Counter::kIsRate);
}
BENCHMARK(WholeSweep)->UseRealTime()->Unit(benchmark::kMillisecond);

void ConfigureWholeRange(benchmark::State& state) {
    const SweepingInstrument instrument(state);
    for (auto _ : state) {
        if (tqConfigure(instrument.device, tqModeSweeping) != tqNoError) state.SkipWithError("configure failed");
    }
}
BENCHMARK(ConfigureWholeRange)->UseRealTime()->Unit(benchmark::kMillisecond);

// One LO step of that sweep. Arguments: transforms per step, 1 / iirFc of the video filter, detector.
void ProcessStep(benchmark::State& state) {
    SweepSetup setup;
    setup.fftSize = 8192;
    setup.bestFFTSize = 7720;
    setup.zeroPadAmount = setup.fftSize - setup.bestFFTSize;
    setup.fftsPerStep = static_cast<int>(state.range(0));
    setup.iirFc = 1.0 / static_cast<double>(state.range(1));
    TqSweepSettings settings;
    settings.detector = static_cast<TqDetector>(state.range(2));

    std::mt19937 generator(1);
    std::normal_distribution<float> normal(0.0f, 0.1f);
    std::vector<Ipp32fc> input(static_cast<std::size_t>(setup.fftSize / 4 * (setup.fftsPerStep - 1) + setup.fftSize));
    for (Ipp32fc& sample : input) sample = {normal(generator), normal(generator)};
    std::vector<float> min(static_cast<std::size_t>(setup.fftSize)), max(min.size());
    SweepProcessor processor(settings, setup);
    for (auto _ : state) {
        processor.ProcessInput(input.data(), min.data(), max.data());
        benchmark::DoNotOptimize(min.data());
        benchmark::ClobberMemory();
    }
    state.counters["transforms/s"] =
        benchmark::Counter(static_cast<double>(state.iterations() * setup.fftsPerStep), benchmark::Counter::kIsRate);
}
BENCHMARK(ProcessStep)
    ->ArgNames({"transforms", "filter", "minmax"})
    ->Args({1, 1, tqDetectorAverage})
    ->Args({1, 1, tqDetectorMinMax})
    ->Args({58, 1, tqDetectorAverage})
    ->Args({58, 10, tqDetectorMinMax})
    ->Unit(benchmark::kMicrosecond);

// As many packets as one whole sweep has, from as many tuned states as it has reads.
void ModelSweep(benchmark::State& state) {
    sim::InstrumentOptions options;
    sim::Instrument instrument(options);
    constexpr uint32_t PACKETS = 128;  // a read of 1 MiB
    constexpr uint32_t READS = 1960 / PACKETS + 1;
    std::vector<uint8_t> block(sim::BLOCK_BYTES), data(PACKETS * sim::PACKET_BYTES);
    for (std::size_t i = 0; i < block.size(); i += 4) block[i] = 1;  // fill words
    for (auto _ : state) {
        for (uint32_t read = 0; read < READS; read++) {
            const uint32_t words[] = {0x2A000000 | read, 0x30000001, 0x31000000 | PACKETS, 0x14000001, 0x32000000};
            std::memcpy(block.data(), words, sizeof(words));
            instrument.BulkOut(sim::COMMAND_ENDPOINT, block);
            if (instrument.BulkIn(sim::DATA_ENDPOINT, data).bytes != data.size()) state.SkipWithError("no data");
        }
    }
}
BENCHMARK(ModelSweep)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
