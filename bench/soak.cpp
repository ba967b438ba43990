// Long runs on an instrument that sends at the real rate, whose samples carry their running numbers: proves that none
// is lost, repeated or moved, and tells what share of the machine that takes, instrument included.
//     soak iq|list [SECONDS]
#include "frequency_plan.h"
#include "open_instrument.h"

#include <chrono>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace {

using Sample = std::complex<int16_t>;
using Clock = std::chrono::steady_clock;

constexpr uint32_t NUMBERS = 1u << 30;      // numbers count modulo this
constexpr uint32_t ACQUISITION = 1u << 16;  // of an acquisition the numbers count modulo this, from 0
constexpr double FREQ = 1e9;

uint32_t NumberOf(Sample x) { return sim::ReadNumber(x.real(), x.imag()); }

struct Result {
    int64_t samples = 0;
    int64_t breaks = 0;
    int64_t failures = 0;  // calls that answered anything but tqNoError, and losses told
};

Result SoakIQ(int device, double seconds) {
    Result result;
    tqSetIQSampleRate(device, 1);
    tqSetIQCenterFreq(device, GetLOConfigStreaming(FREQ).actualFreq);  // nothing is left to the tuner
    tqSetIQSoftwareFilter(device, tqFalse);
    tqSetIQDataType(device, tqDataType16sc);
    if (tqConfigure(device, tqModeIQStreaming) != tqNoError) return {0, 0, 1};
    std::vector<Sample> samples(123457);
    uint32_t next = 0;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end) {
        int loss = 0;
        const TqStatus status = tqGetIQ(device, samples.data(), static_cast<int>(samples.size()), nullptr, 0, nullptr,
                                        tqFalse, &loss, nullptr);
        if (status != tqNoError || loss != 0) result.failures++;
        if (result.samples == 0) next = NumberOf(samples[0]);
        for (const Sample x : samples) {
            const uint32_t number = NumberOf(x);
            if (number != next) result.breaks++;
            next = (number + 1) % NUMBERS;
        }
        result.samples += static_cast<int64_t>(samples.size());
    }
    return result;
}

// Each step is an acquisition of its own, the next one after that of the step before.
Result SoakList(int device, double seconds) {
    constexpr int COUNTS[] = {100001, 1, 65537, 2047, 262143, 4096, 33333};
    constexpr int POSITIONS = 16;
    Result result;
    std::size_t total = 0;
    tqSetIQSweepListDataType(device, tqDataType16sc);
    tqSetIQSweepListSteps(device, static_cast<int>(std::size(COUNTS)));
    for (int step = 0; step < static_cast<int>(std::size(COUNTS)); step++) {
        tqSetIQSweepListFreq(device, step, GetLOConfigStreaming(FREQ * (1 + step)).actualFreq);
        tqSetIQSweepListSampleCount(device, step, static_cast<uint32_t>(COUNTS[step]));
        total += static_cast<std::size_t>(COUNTS[step]);
    }
    if (tqConfigure(device, tqModeIQSweepList) != tqNoError) return {0, 0, 1};
    std::vector<std::vector<Sample>> buffers(POSITIONS, std::vector<Sample>(total));
    const auto start = [&](int pos) {
        if (tqIQSweepListStartSweep(device, pos, buffers[static_cast<std::size_t>(pos)].data(), nullptr) != tqNoError) {
            result.failures++;
        }
    };
    for (int pos = 0; pos < POSITIONS; pos++) start(pos);
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    uint32_t previous = 0;
    for (int pos = 0; Clock::now() < end; pos = (pos + 1) % POSITIONS) {
        if (tqIQSweepListFinishSweep(device, pos) != tqNoError) result.failures++;
        const Sample* step = buffers[static_cast<std::size_t>(pos)].data();
        for (const int count : COUNTS) {
            const uint32_t first = NumberOf(*step);
            if (first % ACQUISITION != 0) result.breaks++;
            if (result.samples > 0 && first != (previous + ACQUISITION) % NUMBERS) result.breaks++;
            for (int i = 0; i < count; i++) {
                if (NumberOf(step[i]) != first + static_cast<uint32_t>(i) % ACQUISITION) result.breaks++;
            }
            previous = first;
            step += count;
            result.samples += count;
        }
        start(pos);
    }
    tqAbort(device);  // the buffers go with this function
    return result;
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const double seconds = argc > 2 ? std::strtod(argv[2], nullptr) : 60.0;
    if ((mode != "iq" && mode != "list") || !(seconds > 0.0)) {
        std::fprintf(stderr, "usage: %s iq|list [SECONDS]\n", argv[0]);
        return 2;
    }
    sim::InstrumentOptions options;
    options.speed = sim::Speed::paced;
    options.scene.pattern = mode == "iq" ? sim::Pattern::samples : sim::Pattern::acquisitions;
    const OpenInstrument instrument(std::move(options));
    if (instrument.device < 0) {
        std::fprintf(stderr, "no instrument\n");
        return 1;
    }
    const double cpu = CpuSeconds();
    const auto begin = Clock::now();
    const Result result = mode == "iq" ? SoakIQ(instrument.device, seconds) : SoakList(instrument.device, seconds);
    const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("%s: %lld samples in %.1f s (%.2f MS/s), %lld breaks, %lld failures, %.2f cores\n", mode.c_str(),
                static_cast<long long>(result.samples), elapsed, static_cast<double>(result.samples) / elapsed / 1e6,
                static_cast<long long>(result.breaks), static_cast<long long>(result.failures),
                (CpuSeconds() - cpu) / elapsed);
    return result.samples > 0 && result.breaks == 0 && result.failures == 0 ? 0 : 1;
}
