// What the order among callers costs where nobody waits: a turn by itself, and whole exports that do nothing else. A
// data call is to pay less than 100 ns for it.
#include "callers.h"
#include "open_instrument.h"

#include <benchmark/benchmark.h>

namespace {

void Turn(benchmark::State& state) {
    Callers callers;
    for (auto _ : state) {
        const Callers::Turn turn(callers);
        benchmark::DoNotOptimize(callers.AreBeingEnded());
    }
}

// Handle, wall, turn and the answer that no mode runs.
void DataCallWithoutAMode(benchmark::State& state) {
    const OpenInstrument instrument(sim::InstrumentOptions{});
    for (auto _ : state) benchmark::DoNotOptimize(tqGetSweep(instrument.device, nullptr, nullptr, nullptr));
}

void Setter(benchmark::State& state) {
    const OpenInstrument instrument(sim::InstrumentOptions{});
    for (auto _ : state) benchmark::DoNotOptimize(tqSetSweepScale(instrument.device, tqScaleLog));
}

BENCHMARK(Turn);
BENCHMARK(DataCallWithoutAMode);
BENCHMARK(Setter);

}  // namespace

BENCHMARK_MAIN();
