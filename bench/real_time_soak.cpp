// The real-time mode at the instrument's own pace: whether it keeps up, and what share of two cores that takes.
//     real_time_soak [SECONDS [FFTSIZE ...]]
// Exits with 1 if a sample was lost, a frame missed, or a status other than success seen.
#include "dsp.h"
#include "engine_real_time.h"
#include "open_instrument.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include <sys/resource.h>
#include <time.h>

namespace {

constexpr int CORES = 2;

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; }

// CPU time of this process so far, [s].
double ProcessTime() {
    rusage use{};
    getrusage(RUSAGE_SELF, &use);
    return Seconds(use.ru_utime) + Seconds(use.ru_stime);
}

// Tells the CPU time of the one thread that the bus calls it from.
class MeteredInstrument : public sim::Instrument {
public:
    using Instrument::Instrument;
    sim::BulkInResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> dst) override {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        threadTime = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
        return Instrument::BulkIn(endpoint, dst);
    }
    std::atomic<double> threadTime = 0.0;
};

bool Run(int device, MeteredInstrument& instrument, int fftSize, double seconds) {
    const double rbw = DSP::GetWindowBandwidth(tqWindowNutall) * BASE_SR / (0.95 * fftSize);
    int size = 0, width = 0, height = 0;
    double binSize = 0.0;
    const uint64_t packetsBefore = instrument.Counters().iqPackets;
    if (tqSetRealTimeCenterSpan(device, 2.44e9, 40e6) < 0 || tqSetRealTimeRBW(device, rbw) < 0 ||
        tqSetRealTimeScale(device, tqScaleLog, -20.0, 100.0) < 0 || tqConfigure(device, tqModeRealTime) != tqNoError ||
        tqGetRealTimeParameters(device, nullptr, &size, nullptr, &binSize, &width, &height, nullptr) != tqNoError) {
        std::puts("cannot configure");
        return false;
    }
    if (binSize != BASE_SR / fftSize) {
        std::printf("no RBW gives fftSize %d\n", fftSize);
        return false;
    }
    std::vector<float> frame(static_cast<std::size_t>(width * height)), alpha(frame.size());
    std::vector<float> min(static_cast<std::size_t>(size)), max(min.size());

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const double cpuStart = ProcessTime(), modelStart = instrument.threadTime;
    int64_t frames = 0;
    int gaps = 0, warnings = 0, count = -1;
    double elapsed = 0.0;
    for (; elapsed < seconds; elapsed = std::chrono::duration<double>(Clock::now() - start).count(), frames++) {
        const int before = count;
        const TqStatus status =
            tqGetRealTimeFrame(device, frame.data(), alpha.data(), min.data(), max.data(), &count, nullptr);
        if (status != tqNoError) warnings++;
        if (count != before + 1) gaps++;
    }
    const double cpu = ProcessTime() - cpuStart, model = instrument.threadTime - modelStart;

    // Each lost round of a ring would leave the frames behind by as much, for good.
    const auto handedOver = static_cast<int64_t>((instrument.Counters().iqPackets - packetsBefore) * 2048);
    const int64_t spectra = (count + int64_t{1}) * (static_cast<int64_t>(BASE_SR / (fftSize / 2)) / 30);
    const int64_t onTheWay = handedOver - spectra * fftSize / 2;
    const bool all = onTheWay < int64_t{EngineRealTime::IQ_PER_XFER} * EngineRealTime::XFER_TO_STORE && warnings == 0;
    std::printf("%8d %9.1f %9lld %5d %9d %14lld %12lld %10lld  %-8s %8.1f %% %8.1f %%\n", fftSize, elapsed,
                static_cast<long long>(frames), gaps, warnings, static_cast<long long>(handedOver),
                static_cast<long long>(spectra), static_cast<long long>(onTheWay), all ? "all" : "NOT ALL",
                100.0 * (cpu - model) / elapsed / CORES, 100.0 * model / elapsed / CORES);
    std::fflush(stdout);
    tqAbort(device);
    return all && gaps == 0;
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 20.0;
    std::vector<int> sizes;
    for (int i = 2; i < argc; i++) sizes.push_back(std::atoi(argv[i]));
    if (sizes.empty()) sizes = {128, 1024, 8192, 65536};

    sim::InstrumentOptions options;
    options.speed = sim::Speed::paced;
    options.scene.emitters.resize(1);
    options.scene.emitters[0].freqHz = 2.442e9;
    options.scene.emitters[0].levelDbm = -40.0;
    auto instrument = std::make_shared<MeteredInstrument>(options);
    const OpenInstrument open(instrument, options.serial);
    bool good = open.device >= 0;
    std::printf("%8s %9s %9s %5s %9s %14s %12s %10s  %-8s %10s %10s\n", "fftSize", "seconds", "frames", "gaps",
                "statuses", "samples", "spectra", "on the way", "taken", "library", "model");
    for (const int size : sizes) good = good && Run(open.device, *instrument, size, seconds);
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
