// Speed of the streams on the fast virtual instrument, which never waits for its host, and of the demodulators by
// themselves. "real_rate" is the multiple of the instrument's own rate. What the worker of EngineIQ is too slow for it
// drops, so a rate is that of the samples that arrived; CPU is the time of the whole process, instrument included;
// ModelStream is what the instrument alone takes for its samples.
#include "engine_audio.h"
#include "open_instrument.h"

#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <numbers>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

constexpr double BASE_RATE = 61.44e6;

sim::InstrumentOptions CountingInstrument() {
    sim::InstrumentOptions options;
    options.scene.pattern = sim::Pattern::samples;  // the cheapest to make
    return options;
}

// Samples of the stream per second, and as a multiple of the rate at which the instrument takes them.
void CountSamples(benchmark::State& state, double samples, double realRate) {
    using benchmark::Counter;
    state.counters["samples/s"] = Counter(samples, Counter::kIsRate);
    state.counters["real_rate"] = Counter(samples / realRate, Counter::kIsRate);
}

void StreamIQ(benchmark::State& state) {
    const OpenInstrument instrument(CountingInstrument());
    const int device = instrument.device;
    const int decimation = static_cast<int>(state.range(0));
    const TqBool filter = state.range(1) != 0 ? tqTrue : tqFalse;
    const double rate = BASE_RATE / decimation;
    if (tqSetIQSampleRate(device, decimation) < 0 || tqSetIQBandwidth(device, 0.6 * rate) < 0 ||
        tqSetIQSoftwareFilter(device, filter) < 0 || tqConfigure(device, tqModeIQStreaming) < 0) {
        state.SkipWithError("cannot configure");
        return;
    }
    const int count = 4 * 63 * 2048 / decimation;  // four transfers
    std::vector<std::complex<float>> samples(static_cast<std::size_t>(count));
    int losses = 0;
    for (auto _ : state) {
        int lost = 0;
        if (tqGetIQ(device, samples.data(), count, nullptr, 0, nullptr, tqFalse, &lost, nullptr) < 0) {
            state.SkipWithError("stream failed");
        }
        losses += lost;
    }
    CountSamples(state, static_cast<double>(state.iterations()) * count, rate);
    state.counters["losses"] = losses;
}
BENCHMARK(StreamIQ)
    ->ArgNames({"decimation", "filter"})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({8, 1})
    ->Args({128, 1})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Ten steps, with as many passes under way as there is room for.
void SweepList(benchmark::State& state) {
    constexpr int STEPS = 10, IN_FLIGHT = 16;
    const int perStep = static_cast<int>(state.range(0));
    const OpenInstrument instrument(CountingInstrument());
    const int device = instrument.device;
    bool good = tqSetIQSweepListSteps(device, STEPS) == tqNoError;
    for (int i = 0; i < STEPS; i++) {
        good = good && tqSetIQSweepListFreq(device, i, 1e9 + i * 1e8) == tqNoError &&
               tqSetIQSweepListSampleCount(device, i, static_cast<uint32_t>(perStep)) == tqNoError;
    }
    if (!good || tqConfigure(device, tqModeIQSweepList) != tqNoError) {
        state.SkipWithError("cannot configure");
        return;
    }
    std::vector<std::vector<std::complex<float>>> lists(IN_FLIGHT);
    for (int i = 0; i < IN_FLIGHT; i++) {
        lists[static_cast<std::size_t>(i)].resize(static_cast<std::size_t>(STEPS) * static_cast<std::size_t>(perStep));
        tqIQSweepListStartSweep(device, i, lists[static_cast<std::size_t>(i)].data(), nullptr);
    }
    int at = 0;
    for (auto _ : state) {
        if (tqIQSweepListFinishSweep(device, at) < 0) state.SkipWithError("list failed");
        tqIQSweepListStartSweep(device, at, lists[static_cast<std::size_t>(at)].data(), nullptr);
        at = (at + 1) % IN_FLIGHT;
    }
    tqAbort(device);  // while the lists are still there
    CountSamples(state, static_cast<double>(state.iterations()) * STEPS * perStep, BASE_RATE);
}
BENCHMARK(SweepList)->ArgName("samples")->Arg(2048)->Arg(50000)->MeasureProcessCPUTime()->UseRealTime()->Unit(
    benchmark::kMillisecond);

// A carrier with a little of everything on it.
void Demodulate(benchmark::State& state) {
    TqAudioSettings settings;
    settings.audioType = static_cast<TqAudioType>(state.range(0));
    AudioDemodulator demodulator(settings);
    std::vector<Ipp32fc> signal(AudioDemodLen), iq(AudioDemodLen);
    for (int i = 0; i < AudioDemodLen; i++) {
        const double turn = 2.0 * std::numbers::pi * 1000.0 * i / AudioInputRate;
        const std::complex<double> x = std::polar(0.1 + 0.05 * std::cos(turn), 5.0 * std::sin(turn));
        signal[static_cast<std::size_t>(i)] = {static_cast<float>(x.real()), static_cast<float>(x.imag())};
    }
    std::vector<float> audio(AudioRetLen);
    for (auto _ : state) {
        std::memcpy(iq.data(), signal.data(), AudioDemodLen * sizeof(Ipp32fc));  // the demodulator overwrites it
        demodulator.Process(iq.data(), audio.data());
        benchmark::DoNotOptimize(audio.data());
        benchmark::ClobberMemory();
    }
    using benchmark::Counter;
    const auto blocks = static_cast<double>(state.iterations());
    state.counters["blocks/s"] = Counter(blocks, Counter::kIsRate);
    state.counters["real_rate"] = Counter(blocks * AudioRetLen / TqAudioRate, Counter::kIsRate);
}
BENCHMARK(Demodulate)
    ->ArgName("type")
    ->DenseRange(tqAudioTypeAM, tqAudioTypeCW)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// What one stream costs the instrument at the full rate, in transfers as EngineIQ asks for them.
void ModelStream(benchmark::State& state) {
    sim::Instrument instrument(CountingInstrument());
    std::vector<uint8_t> block(sim::BLOCK_BYTES), data(64 * sim::PACKET_BYTES);
    for (std::size_t i = 0; i < block.size(); i += 4) block[i] = 1;  // fill words
    constexpr uint32_t START[] = {0x30000001, 0x01};
    constexpr uint32_t FETCH[] = {0x3100013F, 0x14000001};  // 63 packets of I/Q, one aux packet
    std::memcpy(block.data(), START, sizeof(START));
    instrument.BulkOut(sim::COMMAND_ENDPOINT, block);
    std::memcpy(block.data(), FETCH, sizeof(FETCH));
    for (auto _ : state) {
        instrument.BulkOut(sim::COMMAND_ENDPOINT, block);
        if (instrument.BulkIn(sim::DATA_ENDPOINT, data).bytes != data.size()) state.SkipWithError("no data");
    }
    CountSamples(state, static_cast<double>(state.iterations()) * 63 * 2048, BASE_RATE);
}
BENCHMARK(ModelStream)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
