// Speed of the signal primitives beside the libraries that a user could pick instead, in one run:
//     ipps_bench [--set sse41|avx2|avx512] [--only TEXT] [--seconds S] [--json FILE] [--wisdom FILE]
// A line is a piece of work; its ratio is our speed over that of the best peer whose result is accurate. Ends with 1
// when a result of ours is not.
#include "peers_library.h"

#include "dsp.h"
#include "ipps_fir_down.h"
#include "ipps_kernels.h"
#include "sweep_processor.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numbers>
#include <optional>
#include <random>
#include <utility>

namespace {

using bench::Accuracy;
using bench::Contestant;
using bench::Library;
using bench::Line;
using bench::MakeBlock;
using bench::Process;
using Complex = std::complex<double>;

constexpr Accuracy EXACT = {Accuracy::Measure::Relative, 0.0};
constexpr Accuracy FLOAT_RELATIVE = {Accuracy::Measure::Relative, 1e-6};
constexpr Accuracy FLOAT_RADIANS = {Accuracy::Measure::Relative, 1e-6, 1.0};
constexpr Accuracy FLOAT_DECIBELS = {Accuracy::Measure::Relative, 1e-6, 10.0};
constexpr Accuracy FLOAT_PRODUCT = {Accuracy::Measure::Rms, 1e-7};
// Rounding errors of a float transform grow with the root of its order, to some 3e-7 of the whole at 2^22.
constexpr Accuracy FLOAT_TRANSFORM = {Accuracy::Measure::Rms, 1e-6};
// The same errors weigh more behind a filter that lets a twentieth of the power pass.
constexpr Accuracy FLOAT_FILTER = {Accuracy::Measure::Rms, 3e-6};
// ... and in the least of half a million bins of noise, some 60 dB below the mean.
constexpr Accuracy FLOAT_SPECTRUM = {Accuracy::Measure::Relative, 1e-3, 10.0};
constexpr Accuracy FLOAT_RECURRENCE = {Accuracy::Measure::Rms, 1e-3};

std::mt19937 generator(1);

std::shared_ptr<float[]> RandomReals(int len, float low, float high) {
    auto block = MakeBlock<float>(static_cast<std::size_t>(len));
    std::uniform_real_distribution<float> uniform(low, high);
    for (int i = 0; i < len; i++) block[i] = uniform(generator);
    return block;
}

std::shared_ptr<Ipp32fc[]> RandomSamples(int len) {
    auto block = MakeBlock<Ipp32fc>(static_cast<std::size_t>(len));
    std::normal_distribution<float> normal(0.0f, 0.1f);
    for (int i = 0; i < len; i++) block[i] = {normal(generator), normal(generator)};
    return block;
}

std::shared_ptr<Ipp16sc[]> RandomDeviceSamples(int len) {
    auto block = MakeBlock<Ipp16sc>(static_cast<std::size_t>(len));
    std::uniform_int_distribution<int> uniform(-20000, 20000);
    for (int i = 0; i < len; i++) {
        block[i].re = static_cast<Ipp16s>(uniform(generator));
        block[i].im = static_cast<Ipp16s>(uniform(generator));
    }
    return block;
}

// --- References in double precision ---

Complex Wide(const Ipp32fc& value) { return {static_cast<double>(value.re), static_cast<double>(value.im)}; }

std::vector<double> Flat(const std::vector<Complex>& values) {
    std::vector<double> flat;
    flat.reserve(2 * values.size());
    for (const Complex& value : values) flat.insert(flat.end(), {value.real(), value.imag()});
    return flat;
}

void TransformReference(std::vector<Complex>& data) {
    const std::size_t size = data.size();
    for (std::size_t i = 1, j = 0; i < size; i++) {
        std::size_t bit = size >> 1;
        for (; (j & bit) != 0; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(data[i], data[j]);
    }
    std::vector<Complex> roots(size / 2);
    for (std::size_t k = 0; k < roots.size(); k++) {
        roots[k] = std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(size));
    }
    for (std::size_t half = 1; half < size; half *= 2) {
        for (std::size_t start = 0; start < size; start += 2 * half) {
            for (std::size_t k = 0; k < half; k++) {
                const Complex a = data[start + k], w = roots[k * (size / (2 * half))], b = data[start + half + k];
                const Complex turned(b.real() * w.real() - b.imag() * w.imag(),
                                     b.real() * w.imag() + b.imag() * w.real());
                data[start + k] = a + turned;
                data[start + half + k] = a - turned;
            }
        }
    }
}

// Power of the windowed transform, divided by its length, zero frequency in the centre.
std::vector<double> PowerReference(const std::vector<Complex>& samples, std::span<const float> window) {
    const std::size_t size = window.size();
    std::vector<Complex> data(size);
    for (std::size_t i = 0; i < samples.size(); i++) data[i] = samples[i] * static_cast<double>(window[i]);
    TransformReference(data);
    std::vector<double> power(size);
    for (std::size_t i = 0; i < size; i++) {
        power[(i + size / 2) % size] = std::norm(data[i]) / (static_cast<double>(size) * static_cast<double>(size));
    }
    return power;
}

// --- Our side, as the engines use it ---

constexpr float LN_TO_DB_POWER = 4.3429446f;  // 10 / ln(10)

// Any hint would do: it does not matter to the results.
constexpr IppHintAlgorithm HINT = ippAlgHintFast;

Process OurTransform(Ipp32fc* src, Ipp32fc* dst, int order, int flag) {
    const auto fft = std::make_shared<DSP::FFT_32fc>(order, flag, HINT);
    return {src == dst ? "in place" : "", [=] { fft->FwdFFT(src, dst); }};
}

std::vector<Process> OurShift(const Ipp32fc* src, Ipp32fc* dst, int len, double freq) {
    std::vector<Process> processes;
    for (const bool exact : {false, true}) {
        const auto tuner = std::make_shared<DSP::IQFreqTuner_32fc>(freq, len, exact);
        processes.push_back(
            {exact ? "exact" : "recurrence", [=] { tuner->Tune(src, dst); }, [=] { tuner->SetPhaseOffset(0); }});
    }
    return processes;
}

// The filter that leaves out what nobody wants; its memory.
struct DownFilter {
    DownFilter(std::span<const Ipp32fc> taps, int factor) {
        int specSize = 0, workSize = 0;
        ipps_detail::FirDownGetSize_32fc(static_cast<int>(taps.size()), factor, &specSize, &workSize);
        specMemory = MakeBlock<Ipp8u>(static_cast<std::size_t>(specSize));
        work = MakeBlock<Ipp8u>(static_cast<std::size_t>(workSize));
        delay.resize(taps.size() - 1);
        spec = reinterpret_cast<ipps_detail::FirDownSpec_32fc*>(specMemory.get());
        ipps_detail::FirDownInit_32fc(taps.data(), static_cast<int>(taps.size()), factor, spec);
    }

    ipps_detail::FirDownSpec_32fc* spec = nullptr;  // lies in specMemory
    std::shared_ptr<Ipp8u[]> specMemory, work;
    std::vector<Ipp32fc> delay;
    int phase = 0;
};

std::vector<Process> OurFilter(const Ipp32fc* src, Ipp32fc* dst, int len, std::span<const float> taps, int factor) {
    std::vector<Ipp32fc> complexTaps;
    for (const float tap : taps) complexTaps.push_back({tap, 0.0f});
    const auto filter = std::make_shared<DSP::FIR_32fc>(complexTaps.data(), static_cast<int>(taps.size()));
    const auto restart = [=] { filter->Flush(); };
    if (factor == 1) return {{"", [=] { filter->Filter(src, dst, len); }, restart}};

    // len is a multiple of the factor, so that the phase stays 0.
    const auto filtered = MakeBlock<Ipp32fc>(static_cast<std::size_t>(len));
    const auto inTwoSteps = [=] {
        int count = 0, phase = 0;
        filter->Filter(src, filtered.get(), len);
        ippsSampleDown_32fc(filtered.get(), len, dst, &count, factor, &phase);
    };
    const auto down = std::make_shared<DownFilter>(complexTaps, factor);
    const auto atOnce = [=] {
        int count = 0;
        ipps_detail::FirDown_32fc(src, len, dst, &count, down->spec, down->delay.data(), down->delay.data(),
                                  &down->phase, down->work.get());
    };
    return {{"in two steps", inTwoSteps, restart}, {"at once", atOnce, [=] {
                                                        std::ranges::fill(down->delay, Ipp32fc{0.0f, 0.0f});
                                                    }}};
}

Library OurLibrary() {
    Library library;
    library.name = "tq";
    library.fromDevice = [](const Ipp16sc* src, Ipp32fc* dst, int len) { DSP::Convert_16sc32fc(src, dst, len); };
    library.multiply = [](const Ipp32fc* a, const Ipp32fc* b, Ipp32fc* dst, int len) { ippsMul_32fc(a, b, dst, len); };
    library.multiplyReal = [](const float* a, const float* b, float* dst, int len) { ippsMul_32f(a, b, dst, len); };
    library.power = [](const Ipp32fc* src, float* dst, int len) { ippsPowerSpectr_32fc(src, dst, len); };
    library.magnitude = [](const Ipp32fc* src, float* dst, int len) { ippsMagnitude_32fc(src, dst, len); };
    library.phase = [](const Ipp32fc* src, float* dst, int len) { ippsPhase_32fc(src, dst, len); };
    library.root = [](const float* src, float* dst, int len) { ippsSqrt_32f(src, dst, len); };
    library.exponential = [](const float* src, float* dst, int len) { ippsExp_32f(src, dst, len); };
    library.decibel = [](const float* src, float* dst, int len) {
        ippsLn_32f(src, dst, len);
        ippsMulC_32f(dst, LN_TO_DB_POWER, dst, len);
    };
    library.minimum = [](const float* a, const float* b, float* dst, int len) { ippsMinEvery_32f(a, b, dst, len); };
    library.maximum = [](const float* a, const float* b, float* dst, int len) { ippsMaxEvery_32f(a, b, dst, len); };
    library.transform = [](Ipp32fc* src, Ipp32fc* dst, int order) {
        return OurTransform(src, dst, order, IPP_FFT_NODIV_BY_ANY);
    };
    library.transpose = [](const float* src, float* dst, int rows, int columns) {
        const int width = static_cast<int>(sizeof(float));
        return Process{"", [=] { ippiTranspose_32f_C1R(src, columns * width, dst, rows * width, {columns, rows}); }};
    };
    library.shift = OurShift;
    library.filter = OurFilter;
    return library;
}

// --- The lines ---

class Bench {
public:
    std::vector<Library> libraries;  // ours first
    std::string only;                // of group or name; empty: all
    double seconds = 0.3;            // of a line
    std::vector<Line> lines;

    bool Wants(const std::string& group, const std::string& name) const {
        return (group + " " + name).find(only) != std::string::npos;
    }
    bool IsOurs(const Library& library) const { return &library == libraries.data(); }

    void Enter(Line& line, const Library& library, const Process& process) const {
        if (process.run) line.contestants.push_back({library.name, process, IsOurs(library)});
    }
    void Run(Line line) {
        bench::Hold(line, seconds);
        bench::PrintLine(line);
        lines.push_back(std::move(line));
    }
};

void Transforms(Bench& bench) {
    constexpr int LEAST_ORDER = 6, LARGEST_ORDER = 22;
    for (int order = LEAST_ORDER; order <= LARGEST_ORDER; order++) {
        const int size = 1 << order;
        const std::string name = order < 10   ? std::to_string(size)
                                 : order < 20 ? std::to_string(size >> 10) + " Ki"
                                              : std::to_string(size >> 20) + " Mi";
        if (!bench.Wants("fft", name)) continue;
        const auto samples = RandomSamples(size);
        const auto src = MakeBlock<Ipp32fc>(static_cast<std::size_t>(size));
        const auto dst = MakeBlock<Ipp32fc>(static_cast<std::size_t>(size));
        std::vector<Complex> reference;
        for (int i = 0; i < size; i++) reference.push_back(Wide(samples[i]));
        TransformReference(reference);

        Line line = {"fft", name, "GFLOP/s", 5e-9 * size * order, &dst[0].re, Flat(reference), FLOAT_TRANSFORM, {}};
        for (const Library& library : bench.libraries) {
            if (library.transform == nullptr) continue;
            for (const bool inPlace : {false, true}) {
                Process process = library.transform(inPlace ? dst.get() : src.get(), dst.get(), order);
                process.restart = [=] { std::copy_n(samples.get(), size, inPlace ? dst.get() : src.get()); };
                // Repeated in place, undivided values would overflow; zeros take the same time.
                if (inPlace) process.settle = [=] { std::fill_n(dst.get(), size, Ipp32fc{0.0f, 0.0f}); };
                bench.Enter(line, library, process);
            }
        }
        bench.Run(std::move(line));
    }
}

// A line of which each library has one plain function, `operation`, that `call` applies.
template <typename Operation, typename Call>
void Elements(Bench& bench, const std::string& name, double work, const float* result, std::vector<double> reference,
              const Accuracy& accuracy, Operation Library::*operation, Call call) {
    Line line = {"element-wise", name, "G/s", 1e-9 * work, result, std::move(reference), accuracy, {}};
    for (const Library& library : bench.libraries) {
        const Operation function = library.*operation;
        if (function != nullptr) bench.Enter(line, library, {"", [=] { call(function); }});
    }
    bench.Run(std::move(line));
}

template <typename Function>
std::vector<double> Reference(int len, Function function) {
    std::vector<double> values;
    for (int i = 0; i < len; i++) values.push_back(function(i));
    return values;
}

void ElementWise(Bench& bench, int len) {
    const auto count = static_cast<std::size_t>(len);
    const auto device = RandomDeviceSamples(len);
    const auto samples1 = RandomSamples(len), samples2 = RandomSamples(len);
    const auto reals1 = RandomReals(len, -20.0f, 20.0f), reals2 = RandomReals(len, -20.0f, 20.0f);
    const auto powers = RandomReals(len, -14.0f, 2.0f);
    for (int i = 0; i < len; i++) powers[i] = std::pow(10.0f, powers[i]);
    const auto dst = MakeBlock<Ipp32fc>(count);
    float* const out = &dst[0].re;

    struct Row {
        const char* name;
        std::function<void(const std::string& name)> run;
    };
    const auto wide = [&](int i) { return Wide(samples1[i]); };
    const auto unary = [&](const std::string& name, const float* src, const Accuracy& accuracy,
                           double (*function)(double), void (*Library::*operation)(const float*, float*, int)) {
        Elements(bench, name, len, out, Reference(len, [&](int i) { return function(static_cast<double>(src[i])); }),
                 accuracy, operation, [=](auto apply) { apply(src, out, len); });
    };
    const auto binary = [&](const std::string& name, double (*function)(double, double),
                            void (*Library::*operation)(const float*, const float*, float*, int)) {
        Elements(
            bench, name, len, out,
            Reference(len,
                      [&](int i) { return function(static_cast<double>(reals1[i]), static_cast<double>(reals2[i])); }),
            EXACT, operation, [=](auto apply) { apply(reals1.get(), reals2.get(), out, len); });
    };
    const auto fromComplex = [&](const std::string& name, const Accuracy& accuracy, auto function,
                                 void (*Library::*operation)(const Ipp32fc*, float*, int)) {
        Elements(bench, name, len, out, Reference(len, [&](int i) { return function(wide(i)); }), accuracy, operation,
                 [=](auto apply) { apply(samples1.get(), out, len); });
    };

    const Row rows[] = {
        {"int16 to float",
         [&](const std::string& name) {
             Elements(bench, name, len, out,
                      Reference(len,
                                [&](int i) {
                                    const Ipp16sc& value = device[i / 2];
                                    return ((i % 2 == 0 ? value.re : value.im) - 576) / 32768.0;
                                }),
                      EXACT, &Library::fromDevice, [=](auto apply) { apply(device.get(), dst.get(), len / 2); });
         }},
        {"complex multiply",
         [&](const std::string& name) {
             std::vector<Complex> products;
             for (int i = 0; i < len; i++) products.push_back(wide(i) * Wide(samples2[i]));
             Elements(bench, name, len, out, Flat(products), FLOAT_PRODUCT, &Library::multiply,
                      [=](auto apply) { apply(samples1.get(), samples2.get(), dst.get(), len); });
         }},
        {"magnitude squared",
         [&](const std::string& name) {
             fromComplex(
                 name, FLOAT_RELATIVE, [](Complex value) { return std::norm(value); }, &Library::power);
         }},
        {"magnitude",
         [&](const std::string& name) {
             fromComplex(
                 name, FLOAT_RELATIVE, [](Complex value) { return std::abs(value); }, &Library::magnitude);
         }},
        {"phase",
         [&](const std::string& name) {
             fromComplex(
                 name, FLOAT_RADIANS, [](Complex value) { return std::arg(value); }, &Library::phase);
         }},
        {"square root",
         [&](const std::string& name) { unary(name, powers.get(), FLOAT_RELATIVE, std::sqrt, &Library::root); }},
        {"10 log10",
         [&](const std::string& name) {
             unary(
                 name, powers.get(), FLOAT_DECIBELS, [](double x) { return 10.0 * std::log10(x); }, &Library::decibel);
         }},
        {"exp",
         [&](const std::string& name) { unary(name, reals1.get(), FLOAT_RELATIVE, std::exp, &Library::exponential); }},
        {"min", [&](const std::string& name) { binary(name, std::fmin, &Library::minimum); }},
        {"max", [&](const std::string& name) { binary(name, std::fmax, &Library::maximum); }},
    };
    for (const Row& row : rows) {
        const std::string name = std::string(row.name) + " " + std::to_string(len);
        if (bench.Wants("element-wise", name)) row.run(name);
    }
}

void ToneTimesStream(Bench& bench) {
    constexpr int LEN = 65536;
    constexpr double FREQ = 0.1234567;
    if (!bench.Wants("element-wise", "tone x stream")) return;
    const auto src = RandomSamples(LEN);
    const auto dst = MakeBlock<Ipp32fc>(LEN);
    std::vector<Complex> reference;
    for (int i = 0; i < LEN; i++) {
        reference.push_back(Wide(src[i]) * std::polar(1.0, 2.0 * std::numbers::pi * std::fmod(FREQ * i, 1.0)));
    }
    Line line = {"element-wise", "tone x stream", "MS/s",           1e-6 * LEN,
                 &dst[0].re,     Flat(reference), FLOAT_RECURRENCE, {}};
    for (const Library& library : bench.libraries) {
        if (library.shift == nullptr) continue;
        for (const Process& process : library.shift(src.get(), dst.get(), LEN, FREQ)) {
            bench.Enter(line, library, process);
        }
    }
    bench.Run(std::move(line));
}

void Transpose(Bench& bench) {
    constexpr int ROWS = 500, COLUMNS = 5328;  // a frame of the real-time mode
    if (!bench.Wants("element-wise", "transpose 500 x 5328")) return;
    const auto src = RandomReals(ROWS * COLUMNS, -1.0f, 1.0f);
    const auto dst = MakeBlock<float>(static_cast<std::size_t>(ROWS) * COLUMNS);
    Line line = {"element-wise", "transpose 500 x 5328", "G/s", 1e-9 * ROWS * COLUMNS, dst.get(), {}, EXACT, {}};
    line.reference =
        Reference(ROWS * COLUMNS, [&](int i) { return static_cast<double>(src[i % ROWS * COLUMNS + i / ROWS]); });
    for (const Library& library : bench.libraries) {
        if (library.transpose == nullptr) continue;
        bench.Enter(line, library, library.transpose(src.get(), dst.get(), ROWS, COLUMNS));
    }
    bench.Run(std::move(line));
}

void Filters(Bench& bench) {
    struct Row {
        const char* name;
        int taps;
        float cutoff;
        int factor;
        int len;
    };
    constexpr Row ROWS[] = {{"129 taps", 129, 0.2f, 1, 65536}, {"2049 taps, 1 in 16", 2049, 0.025f, 16, 262144}};
    for (const Row& row : ROWS) {
        if (!bench.Wants("filter", row.name)) continue;
        std::vector<float> taps(static_cast<std::size_t>(row.taps));
        DSP::GetLowpassFIRTaps_32f(taps.data(), row.taps, row.cutoff, ippWinBlackman, ippTrue);
        const auto src = RandomSamples(row.len);
        const auto dst = MakeBlock<Ipp32fc>(static_cast<std::size_t>(row.len / row.factor));
        std::vector<Complex> reference;
        for (int n = 0; n < row.len; n += row.factor) {
            Complex sum = 0.0;
            for (int k = 0; k < std::min(row.taps, n + 1); k++) {
                sum += static_cast<double>(taps[static_cast<std::size_t>(k)]) * Wide(src[n - k]);
            }
            reference.push_back(sum);
        }
        Line line = {"filter", row.name, "MS/s", 1e-6 * row.len, &dst[0].re, Flat(reference), FLOAT_FILTER, {}};
        for (const Library& library : bench.libraries) {
            if (library.filter == nullptr) continue;
            for (const Process& process : library.filter(src.get(), dst.get(), row.len, taps, row.factor)) {
                bench.Enter(line, library, process);
            }
        }
        bench.Run(std::move(line));
    }
}

// A library's element-wise functions around the transform of the same or another one.
struct Team {
    std::string name;
    bool ours;
    const Library* elements;
    const Library* transforms;
};

// Ours, and the first peer's transform, which is the fastest, with each peer's functions that reach from device samples
// to decibels.
std::vector<Team> Teams(const Bench& bench) {
    const Library& ours = bench.libraries.front();
    std::vector<Team> teams = {{"tq", true, &ours, &ours}};
    const auto peer = std::ranges::find_if(bench.libraries.begin() + 1, bench.libraries.end(),
                                           [](const Library& library) { return library.transform != nullptr; });
    if (peer == bench.libraries.end()) return teams;
    for (const Library& elements : bench.libraries) {
        if (bench.IsOurs(elements) || elements.decibel == nullptr || elements.fromDevice == nullptr) continue;
        teams.push_back({peer->name + "+" + elements.name, false, &elements, &*peer});
    }
    return teams;
}

// The transform with its division by the length. A peer's, which has none, leaves it to the window.
Process TeamTransform(const Team& team, Ipp32fc* src, Ipp32fc* dst, int order) {
    return team.ours ? OurTransform(src, dst, order, IPP_FFT_DIV_FWD_BY_N)
                     : team.transforms->transform(src, dst, order);
}

// Each value twice, for the two parts of a sample.
std::shared_ptr<float[]> TeamWindow(const Team& team, std::span<const float> window) {
    const auto pairs = MakeBlock<float>(2 * window.size());
    const float scale = team.ours ? 1.0f : 1.0f / static_cast<float>(window.size());
    for (std::size_t i = 0; i < 2 * window.size(); i++) pairs[static_cast<std::ptrdiff_t>(i)] = window[i / 2] * scale;
    return pairs;
}

// The real-time mode's work: overlapping spectra, their least and greatest power, all levels in decibels.
void Spectra(Bench& bench, int order) {
    constexpr int LEN = 262144;  // a block of the engine's store
    const int size = 1 << order, half = size / 2, count = LEN / half;
    const std::string name = "spectra of " + std::to_string(size);
    if (!bench.Wants("composed", name)) return;
    const auto src = RandomSamples(LEN + half);
    std::vector<float> window(static_cast<std::size_t>(size));
    DSP::BuildWindowFunction(tqWindowNutall, window.data(), size);
    DSP::NormalizeWindow(window.data(), size);

    // Least and greatest, then the levels.
    const auto result = MakeBlock<float>(static_cast<std::size_t>(size) * static_cast<std::size_t>(count + 2));
    float* const least = result.get();
    float* const greatest = least + size;
    float* const levels = greatest + size;
    std::vector<double> lows(static_cast<std::size_t>(size), std::numeric_limits<double>::max()), highs(lows.size());
    std::vector<double> decibels;
    for (int i = 0; i < count; i++) {
        std::vector<Complex> samples;
        for (int n = 0; n < size; n++) samples.push_back(Wide(src[i * half + n]));
        const std::vector<double> power = PowerReference(samples, window);
        for (std::size_t bin = 0; bin < power.size(); bin++) {
            lows[bin] = std::min(lows[bin], power[bin]);
            highs[bin] = std::max(highs[bin], power[bin]);
            decibels.push_back(10.0 * std::log10(power[bin]));
        }
    }
    std::vector<double> reference = lows;
    reference.insert(reference.end(), highs.begin(), highs.end());
    reference.insert(reference.end(), decibels.begin(), decibels.end());

    Line line = {"composed", name, "MS/s", 1e-6 * LEN, result.get(), std::move(reference), FLOAT_SPECTRUM, {}};
    for (const Team& team : Teams(bench)) {
        for (const bool inPlace : {false, true}) {
            const auto windowed = MakeBlock<Ipp32fc>(static_cast<std::size_t>(size));
            const auto bins = inPlace ? windowed : MakeBlock<Ipp32fc>(static_cast<std::size_t>(size));
            const Process transform = TeamTransform(team, windowed.get(), bins.get(), order);
            if (!transform.run) continue;
            const auto pairs = TeamWindow(team, window);
            const auto run = [=, &elements = *team.elements] {
                std::fill_n(least, size, std::numeric_limits<float>::max());
                std::fill_n(greatest, size, 0.0f);
                for (int i = 0; i < count; i++) {
                    float* const row = levels + i * size;
                    elements.multiplyReal(&src[i * half].re, pairs.get(), &windowed[0].re, 2 * size);
                    transform.run();
                    elements.power(bins.get() + half, row, half);
                    elements.power(bins.get(), row + half, half);
                    elements.minimum(least, row, least, size);
                    elements.maximum(greatest, row, greatest, size);
                    elements.decibel(row, row, size);
                }
            };
            line.contestants.push_back({team.name, {transform.variant, run}, team.ours});
        }
    }
    bench.Run(std::move(line));
}

// The sweep mode's work on one tuned step.
void SweepStep(Bench& bench) {
    constexpr int ORDER = 13, SIZE = 1 << ORDER, HALF = SIZE / 2, WINDOW_SIZE = 7720;
    if (!bench.Wants("composed", "sweep step")) return;
    const auto src = RandomDeviceSamples(SIZE);
    std::vector<float> window(SIZE);
    DSP::BuildWindowFunction(tqWindowNutall, window.data(), WINDOW_SIZE);
    DSP::NormalizeWindow(window.data(), SIZE);
    const auto result = MakeBlock<float>(SIZE);
    const auto samples = MakeBlock<Ipp32fc>(SIZE);

    std::vector<Complex> wide;
    for (int i = 0; i < WINDOW_SIZE; i++) {
        wide.emplace_back((src[i].re - 576) / 32768.0, (src[i].im - 576) / 32768.0);
    }
    std::vector<double> reference = PowerReference(wide, window);
    for (double& value : reference) value = 10.0 * std::log10(value);

    Line line = {"composed", "sweep step", "k/s", 1e-3, result.get(), std::move(reference), FLOAT_SPECTRUM, {}};
    for (const Team& team : Teams(bench)) {
        for (const bool inPlace : {false, true}) {
            const auto windowed = MakeBlock<Ipp32fc>(SIZE);
            const auto bins = inPlace ? windowed : MakeBlock<Ipp32fc>(SIZE);
            const Process transform = TeamTransform(team, windowed.get(), bins.get(), ORDER);
            if (!transform.run) continue;
            const auto pairs = TeamWindow(team, window);
            const auto run = [=, &elements = *team.elements] {
                elements.fromDevice(src.get(), samples.get(), SIZE);
                elements.multiplyReal(&samples[0].re, pairs.get(), &windowed[0].re, 2 * WINDOW_SIZE);
                std::memset(windowed.get() + WINDOW_SIZE, 0, (SIZE - WINDOW_SIZE) * sizeof(Ipp32fc));
                transform.run();
                elements.power(bins.get() + HALF, result.get(), HALF);
                elements.power(bins.get(), result.get() + HALF, HALF);
                elements.decibel(result.get(), result.get(), SIZE);
            };
            line.contestants.push_back({team.name, {transform.variant, run}, team.ours});
        }
    }
    const auto engine = std::make_shared<SweepFFT>(tqWindowNutall, tqVideoLog, SIZE, SIZE - WINDOW_SIZE, false);
    const auto run = [=] {
        DSP::Convert_16sc32fc(src.get(), samples.get(), SIZE);
        engine->FwdTransform(samples.get(), result.get());
    };
    line.contestants.push_back({"tq", {"as in the engine", run}, true});
    bench.Run(std::move(line));
}

std::string ProcessorName() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
    }
    return "unknown processor";
}

struct Options {
    std::string set, only, json, wisdom;
    double seconds = 0.3;
};

std::optional<Options> Parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 == argc) return std::nullopt;
        const std::string key = argv[i], value = argv[i + 1];
        if (key == "--set") {
            options.set = value;
        } else if (key == "--only") {
            options.only = value;
        } else if (key == "--json") {
            options.json = value;
        } else if (key == "--wisdom") {
            options.wisdom = value;
        } else if (key == "--seconds") {
            options.seconds = std::strtod(value.c_str(), nullptr);
        } else {
            return std::nullopt;
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = Parse(argc, argv);
    if (!options) {
        std::fprintf(stderr,
                     "usage: %s [--set sse41|avx2|avx512] [--only TEXT] [--seconds S] [--json FILE] [--wisdom FILE]\n",
                     argv[0]);
        return 2;
    }
    std::optional<ipps_detail::KernelOverride> chosen;
    if (!options->set.empty()) {
        const ipps_detail::KernelSet* const set = ipps_detail::KernelsFor(options->set.c_str());
        if (set == nullptr) {
            std::fprintf(stderr, "this processor has no set %s\n", options->set.c_str());
            return 2;
        }
        chosen.emplace(*set);
    }
    DSP::InitIpps();

    Bench bench;
    bench.only = options->only;
    bench.seconds = options->seconds;
    bench.libraries.push_back(OurLibrary());
    bench.libraries.push_back(bench::LoopsLibrary());
#ifdef TQ_PEER_FFTW
    bench.libraries.push_back(bench::FftwLibrary(options->wisdom));
#endif
#ifdef TQ_PEER_VOLK
    bench.libraries.push_back(bench::VolkLibrary());
#endif
#ifdef TQ_PEER_LIQUID
    bench.libraries.push_back(bench::LiquidLibrary());
#endif
#ifdef TQ_PEER_KISSFFT
    bench.libraries.push_back(bench::KissfftLibrary());
#endif

    std::vector<std::string> header = {ProcessorName(), "g++ " __VERSION__,
                                       std::string("set ") + ipps_detail::Kernels().name};
    for (const Library& library : bench.libraries) {
        if (!library.about.empty()) header.push_back(library.about);
    }
    for (const std::string& item : header) std::printf("%s%s", &item == header.data() ? "" : "; ", item.c_str());
    std::printf("\n");
    bench::PrintHeading();

    Transforms(bench);
    for (const int len : {1024, 16384}) ElementWise(bench, len);
    ToneTimesStream(bench);
    Transpose(bench);
    Filters(bench);
    for (const int order : {10, 13, 16}) Spectra(bench, order);
    SweepStep(bench);
    bench::PrintSummary(bench.lines);
#ifdef TQ_PEER_FFTW
    bench::SaveFftwPlans(options->wisdom);
#endif

    if (!options->json.empty() && !bench::WriteJson(options->json, header, bench.lines)) {
        std::fprintf(stderr, "cannot write %s\n", options->json.c_str());
        return 2;
    }
    const bool right = std::ranges::all_of(bench.lines, [](const Line& line) {
        return std::ranges::all_of(line.contestants, [](const Contestant& c) { return !c.ours || c.accurate; });
    });
    return right ? 0 : 1;
}
