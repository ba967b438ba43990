#include "sim/rf_model.h"

#include <smmintrin.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>

namespace sim {
namespace {

using Complex = std::complex<double>;

constexpr double TICK_HZ = 960.0e3;  // of the digital tune, and of the synthesiser's fraction
constexpr double TWO_PI = 2.0 * std::numbers::pi;
constexpr double FULL_SCALE = 32768.0;
constexpr double MIN_AMPLITUDE = 1.0e-7;  // of full scale; weaker lines are far below the last bit
constexpr double ROUGH_DB = 0.5;          // a count of the rough attenuator
constexpr double TONE_DB = 3.0103;        // sqrt 2: the host divides by the root of the sum of both branches' gains

// The analogue filter ahead of the converter: flat to where the record ends, nothing left where aliases would reach
// the wanted band.
constexpr double ANALOG_PASS_HZ = 50.0e6;
constexpr double ANALOG_STOP_HZ = 80.0e6;

// Edges of the decimation filter, of the output rate: the widest band that clients get, 25 MHz at 30.72 MHz, is flat,
// and no alias falls into it.
constexpr double DECIMATION_PASS = 0.41;
constexpr double DECIMATION_STOP = 0.59;

// Register 0x4B, bits 6 to 10, by code; 0: no such code.
constexpr std::array<int, 15> DIVIDERS = {2, 4, 6, 8, 12, 16, 24, 32, 48, 64, 0, 96, 128, 192, 256};

std::uint64_t Mix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15u;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9u;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBu;
    return x ^ (x >> 31);
}

// White noise of variance 1 in re and in im, drawn once; renderings read it from scattered places.
struct NoisePool {
    static constexpr std::size_t SIZE = std::size_t{1} << 20;
    std::vector<float> re, im;

    NoisePool() : re(SIZE + RENDER_BLOCK), im(SIZE + RENDER_BLOCK) {
        std::uint64_t state = 720;
        const auto uniform = [&state] { return (static_cast<double>(Mix(state++) >> 11) + 0.5) * 0x1.0p-53; };
        for (std::size_t i = 0; i < SIZE; ++i) {
            const double radius = std::sqrt(-2.0 * std::log(uniform()));
            const double angle = TWO_PI * uniform();
            re[i] = static_cast<float>(radius * std::cos(angle));
            im[i] = static_cast<float>(radius * std::sin(angle));
        }
        std::copy_n(re.begin(), RENDER_BLOCK, re.begin() + SIZE);  // so that a block may start anywhere
        std::copy_n(im.begin(), RENDER_BLOCK, im.begin() + SIZE);
    }
    static const NoisePool& Get() {
        // Never destroyed, because the threads of the ports read it while the process exits.
        static const NoisePool& pool = *std::make_unique<NoisePool>().release();
        return pool;
    }
};

// One block of samples in the making, in units of the last bit.
struct Block {
    alignas(16) std::array<float, RENDER_BLOCK> re;
    alignas(16) std::array<float, RENDER_BLOCK> im;

    // Adds z * w^i to samples first + i, i < count. Eight phasors side by side hide the latency of the recurrence;
    // in float it stays 100 dB clean over a block.
    void AddPhasor(std::size_t first, std::size_t count, Complex z, Complex w) {
        alignas(16) std::array<float, 8> startRe, startIm;
        for (std::size_t i = 0; i < 8; ++i, z *= w) {
            startRe[i] = static_cast<float>(z.real());
            startIm[i] = static_cast<float>(z.imag());
        }
        const Complex w2 = w * w;
        const Complex w8 = w2 * w2 * w2 * w2;
        const __m128 stepRe = _mm_set1_ps(static_cast<float>(w8.real()));
        const __m128 stepIm = _mm_set1_ps(static_cast<float>(w8.imag()));
        __m128 aRe = _mm_load_ps(startRe.data()), bRe = _mm_load_ps(startRe.data() + 4);
        __m128 aIm = _mm_load_ps(startIm.data()), bIm = _mm_load_ps(startIm.data() + 4);
        const auto turn = [&](__m128& x, __m128& y) {
            const __m128 next = _mm_sub_ps(_mm_mul_ps(x, stepRe), _mm_mul_ps(y, stepIm));
            y = _mm_add_ps(_mm_mul_ps(x, stepIm), _mm_mul_ps(y, stepRe));
            x = next;
        };
        const auto add = [](float* at, __m128 value) { _mm_storeu_ps(at, _mm_add_ps(_mm_loadu_ps(at), value)); };
        std::size_t i = 0;
        for (; i + 8 <= count; i += 8) {
            add(&re[first + i], aRe);
            add(&re[first + i] + 4, bRe);
            add(&im[first + i], aIm);
            add(&im[first + i] + 4, bIm);
            turn(aRe, aIm);
            turn(bRe, bIm);
        }
        _mm_store_ps(startRe.data(), aRe);
        _mm_store_ps(startRe.data() + 4, bRe);
        _mm_store_ps(startIm.data(), aIm);
        _mm_store_ps(startIm.data() + 4, bIm);
        for (std::size_t k = 0; i < count; ++i, ++k) {
            re[first + i] += startRe[k];
            im[first + i] += startIm[k];
        }
    }

    // Adds z * w^i * e to samples first + i, i < count, where e runs straight from `from` towards `to`. The count is a
    // multiple of 4.
    void AddRamp(std::size_t first, std::size_t count, Complex z, Complex w, Complex from, Complex to) {
        alignas(16) std::array<float, 4> startRe, startIm, envelopeRe, envelopeIm;
        const Complex slope = (to - from) / static_cast<double>(count);
        for (std::size_t i = 0; i < 4; ++i, z *= w, from += slope) {
            startRe[i] = static_cast<float>(z.real());
            startIm[i] = static_cast<float>(z.imag());
            envelopeRe[i] = static_cast<float>(from.real());
            envelopeIm[i] = static_cast<float>(from.imag());
        }
        const Complex w4 = w * w * w * w;
        const __m128 stepRe = _mm_set1_ps(static_cast<float>(w4.real()));
        const __m128 stepIm = _mm_set1_ps(static_cast<float>(w4.imag()));
        const __m128 slopeRe = _mm_set1_ps(static_cast<float>(4.0 * slope.real()));
        const __m128 slopeIm = _mm_set1_ps(static_cast<float>(4.0 * slope.imag()));
        __m128 x = _mm_load_ps(startRe.data()), y = _mm_load_ps(startIm.data());
        __m128 eRe = _mm_load_ps(envelopeRe.data()), eIm = _mm_load_ps(envelopeIm.data());
        for (std::size_t i = first; i < first + count; i += 4) {
            const __m128 productRe = _mm_sub_ps(_mm_mul_ps(x, eRe), _mm_mul_ps(y, eIm));
            const __m128 productIm = _mm_add_ps(_mm_mul_ps(x, eIm), _mm_mul_ps(y, eRe));
            _mm_storeu_ps(&re[i], _mm_add_ps(_mm_loadu_ps(&re[i]), productRe));
            _mm_storeu_ps(&im[i], _mm_add_ps(_mm_loadu_ps(&im[i]), productIm));
            const __m128 next = _mm_sub_ps(_mm_mul_ps(x, stepRe), _mm_mul_ps(y, stepIm));
            y = _mm_add_ps(_mm_mul_ps(x, stepIm), _mm_mul_ps(y, stepRe));
            x = next;
            eRe = _mm_add_ps(eRe, slopeRe);
            eIm = _mm_add_ps(eIm, slopeIm);
        }
    }

    // Rounds and packs to interleaved 16-bit words. Returns whether any was out of range.
    bool Pack(std::uint8_t* dst) const {
        // Keeps the conversion to integers in range; far beyond 16 bits all the same.
        const __m128 limit = _mm_set1_ps(1.0e6f);
        const __m128 negative = _mm_set1_ps(-1.0e6f);
        const __m128i top = _mm_set1_epi32(32767);
        const __m128i bottom = _mm_set1_epi32(-32768);
        __m128i outside = _mm_setzero_si128();
        for (std::size_t i = 0; i < RENDER_BLOCK; i += 4) {
            const __m128i x = _mm_cvtps_epi32(_mm_max_ps(_mm_min_ps(_mm_load_ps(&re[i]), limit), negative));
            const __m128i y = _mm_cvtps_epi32(_mm_max_ps(_mm_min_ps(_mm_load_ps(&im[i]), limit), negative));
            outside = _mm_or_si128(outside, _mm_or_si128(_mm_cmpgt_epi32(x, top), _mm_cmplt_epi32(x, bottom)));
            outside = _mm_or_si128(outside, _mm_or_si128(_mm_cmpgt_epi32(y, top), _mm_cmplt_epi32(y, bottom)));
            const __m128i packed = _mm_packs_epi32(_mm_unpacklo_epi32(x, y), _mm_unpackhi_epi32(x, y));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 4 * i), packed);
        }
        return _mm_testz_si128(outside, outside) == 0;
    }
};

// Turns of a frequency after n samples, less whole turns. Extended precision: exact enough for weeks of samples.
double Turns(double freqHz, double rate, std::uint64_t n) {
    const long double turns = static_cast<long double>(freqHz) / rate * static_cast<long double>(n);
    return static_cast<double>(turns - std::floor(turns));
}

double Wrap(double freqHz, double rate) { return freqHz - rate * std::floor(freqHz / rate + 0.5); }

// Gain that falls from 1 at `pass` to 0 at `stop`.
double Slope(double x, double pass, double stop) {
    if (x <= pass) return 1.0;
    if (x >= stop) return 0.0;
    return 0.5 * (1.0 + std::cos(std::numbers::pi * (x - pass) / (stop - pass)));
}

double Linear(double db) { return std::pow(10.0, db / 20.0); }

// Antenna to the branches' mean, ahead of the taps, for a power in dBm: amplitude of full scale.
double Amplitude(const Truth& truth, const Tuning& tuning, const TuneWords& words, double powerDbm) {
    const double correction = truth.RfCorrection(words.temperatureC, tuning.attenDb, tuning.loHz, tuning.band);
    const int extra = static_cast<int>(words.rough) - truth.RoughAtten(tuning.loHz);
    return Linear(powerDbm - correction + TONE_DB - ROUGH_DB * extra);
}

// What a line at ifHz becomes: itself times the mean of the branches' responses, and its image at -ifHz times the
// conjugate of half their difference.
struct BranchResponse {
    Complex i, q;
};
BranchResponse Branches(const Truth& truth, const Tuning& tuning, const TuneWords& words, double ifHz) {
    const double distance = std::abs(ifHz);
    const double amp = truth.ImbalanceAmp(words.temperatureC, tuning.loHz, distance);
    const double half =
        0.5 * truth.ImbalancePhase(words.temperatureC, tuning.loHz, distance) * (ifHz < 0.0 ? -1.0 : 1.0);
    const double gain = Linear(truth.Flatness(words.temperatureC, tuning.loHz, distance)) *
                        Slope(distance, ANALOG_PASS_HZ, ANALOG_STOP_HZ);
    const double aliased = Wrap(ifHz, CONVERTER_RATE);
    return {std::polar(gain * std::sqrt(amp), -half) * TapResponse(words, 0, aliased),
            std::polar(gain / std::sqrt(amp), half) * TapResponse(words, 1, aliased)};
}

// Adds a line that a sine modulates in frequency, by stretches of constant frequency. They are as long as the phase
// between their ends stays true to a thousandth of a radian.
void AddFm(Block& block, const Line& line, const Emitter& emitter, double rate, std::uint64_t n) {
    constexpr double MAX_PHASE_ERROR = 1.0e-3;
    constexpr std::size_t SHORTEST = 8, LONGEST = 128;
    const double curvature = TWO_PI * emitter.deviationHz * TWO_PI * emitter.toneHz / (rate * rate);
    std::size_t stretch = LONGEST;
    while (stretch > SHORTEST && curvature * static_cast<double>(stretch * stretch) / 8.0 > MAX_PHASE_ERROR)
        stretch /= 2;
    const double index = emitter.deviationHz / emitter.toneHz * (line.mirrored ? -1.0 : 1.0);
    const double turnsAtStart = Turns(line.freqHz, rate, n);
    const double toneAtStart = Turns(emitter.toneHz, rate, n);
    const double advance = TWO_PI * line.freqHz / rate;
    const auto deviation = [&](std::size_t i) {
        return index * std::sin(TWO_PI * (toneAtStart + emitter.toneHz / rate * static_cast<double>(i)));
    };
    double before = deviation(0);
    for (std::size_t i = 0; i < RENDER_BLOCK; i += stretch) {
        const double after = deviation(i + stretch);
        const double phase = TWO_PI * turnsAtStart + advance * static_cast<double>(i) + before;
        block.AddPhasor(i, stretch, FULL_SCALE * line.amplitude * std::polar(1.0, phase),
                        std::polar(1.0, advance + (after - before) / static_cast<double>(stretch)));
        before = after;
    }
}

// Adds a recording, linearly interpolated, on its carrier.
void AddReplay(Block& block, const Line& line, const Emitter& emitter, double rate, std::uint64_t n) {
    const std::vector<std::int16_t>& iq = emitter.recording->iq;
    const std::size_t length = emitter.recording->Samples();
    const auto sample = [&](std::size_t i) { return Complex(iq[2 * i], (line.mirrored ? -1.0 : 1.0) * iq[2 * i + 1]); };
    const double perSample = emitter.rateHz / rate;
    double at = static_cast<double>(length) * Turns(emitter.rateHz / static_cast<double>(length), rate, n);
    Complex z = line.amplitude * std::polar(1.0, TWO_PI * Turns(line.freqHz, rate, n));
    const Complex w = std::polar(1.0, TWO_PI * line.freqHz / rate);
    for (std::size_t i = 0; i < RENDER_BLOCK; ++i, z *= w) {
        const std::size_t low = static_cast<std::size_t>(at) % length;
        const double share = at - std::floor(at);
        const Complex value = z * ((1.0 - share) * sample(low) + share * sample((low + 1) % length));
        block.re[i] += static_cast<float>(value.real());
        block.im[i] += static_cast<float>(value.imag());
        at += perSample;
    }
}

// An audio between its samples, from 0 to its length.
struct AudioPoint {
    Complex analytic;
    double integral;  // from the start [sample periods]
};
AudioPoint AudioAt(const Audio& audio, double at) {
    const std::size_t length = audio.signal.size();
    const std::size_t k = std::min(static_cast<std::size_t>(at), length - 1);
    const double t = at - static_cast<double>(k);
    const auto sample = [&](std::size_t i) {
        const std::size_t j = i % length;
        return Complex(audio.signal[j], audio.quadrature[j]);
    };
    const Complex p0 = sample(k + length - 1), p1 = sample(k), p2 = sample(k + 1), p3 = sample(k + 2);
    const Complex c1 = 0.5 * (p2 - p0);
    const Complex c2 = p0 - 2.5 * p1 + 2.0 * p2 - 0.5 * p3;
    const Complex c3 = 1.5 * (p1 - p2) + 0.5 * (p3 - p0);
    const double area = t * (p1.real() + t * (c1.real() / 2.0 + t * (c2.real() / 3.0 + t * c3.real() / 4.0)));
    return {p1 + t * (c1 + t * (c2 + t * c3)), audio.integral[k] + area};
}

// Adds a line that an audio modulates, by stretches of constant frequency (fm) or straight envelope (am, ssb), as long
// as what lies in the lower eighth of the audio's rate stays clean by 60 (fm) and 80 dB.
void AddAudio(Block& block, const Line& line, const Emitter& emitter, double rate, std::uint64_t n) {
    const bool fm = emitter.kind == EmitterKind::fm;
    const double topHz = emitter.rateHz / 8.0;
    const double maxError = fm ? 1.0e-3 : 1.0e-4;
    constexpr std::size_t SHORTEST = 8, LONGEST = 128;
    const double curvature = (fm ? emitter.deviationHz / topHz : 1.0) * std::pow(TWO_PI * topHz / rate, 2.0);
    std::size_t stretch = LONGEST;
    while (stretch > SHORTEST && curvature * static_cast<double>(stretch * stretch) / 8.0 > maxError) stretch /= 2;

    const Audio& audio = *emitter.audio;
    const double length = static_cast<double>(audio.signal.size());
    const double perSample = emitter.rateHz / rate;
    const long double played = static_cast<long double>(emitter.rateHz) / rate * static_cast<long double>(n);
    const long double rounds = std::floor(played / length);
    const double start = static_cast<double>(played - rounds * length);
    const double turnsPerRound = emitter.deviationHz / emitter.rateHz * audio.integral.back();
    const double turnsBefore = static_cast<double>(std::fmod(rounds * turnsPerRound, 1.0L));
    const double turn = line.mirrored ? -1.0 : 1.0;
    const double sideband = turn * (emitter.upperSideband ? 1.0 : -1.0);

    // fm: the phase that the audio adds, in radians, as the real part; otherwise the envelope.
    const auto modulation = [&](std::size_t i) {
        const double at = start + perSample * static_cast<double>(i);
        const double extra = std::floor(at / length);
        const AudioPoint point = AudioAt(audio, at - extra * length);
        if (emitter.kind == EmitterKind::am) return Complex(1.0 + emitter.depth * point.analytic.real());
        if (!fm) return Complex(point.analytic.real(), sideband * point.analytic.imag());
        const double turns =
            turnsBefore + extra * turnsPerRound + emitter.deviationHz / emitter.rateHz * point.integral;
        return Complex(turn * TWO_PI * turns);
    };
    const double advance = TWO_PI * line.freqHz / rate;
    const double atStart = TWO_PI * Turns(line.freqHz, rate, n);
    const Complex w = std::polar(1.0, advance);
    Complex before = modulation(0);
    for (std::size_t i = 0; i < RENDER_BLOCK; i += stretch) {
        const Complex after = modulation(i + stretch);
        const double phase = atStart + advance * static_cast<double>(i);
        const Complex amplitude = FULL_SCALE * line.amplitude;
        if (fm) {
            const double step = (after - before).real() / static_cast<double>(stretch);
            block.AddPhasor(i, stretch, amplitude * std::polar(1.0, phase + before.real()),
                            std::polar(1.0, advance + step));
        } else {
            block.AddRamp(i, stretch, amplitude * std::polar(1.0, phase), w, before, after);
        }
        before = after;
    }
}

// Adds a line only while its gate is open.
void AddGated(Block& block, const Line& line, double rate, std::uint64_t n) {
    const double period = line.gatePeriod * rate;
    const double width = line.gateWidth * rate;
    const long double turns = (static_cast<long double>(n) - static_cast<long double>(line.gateStart * rate)) /
                              static_cast<long double>(period);
    double phase = static_cast<double>(turns - std::floor(turns)) * period;
    if (phase >= width && phase + RENDER_BLOCK <= period) return;
    const Complex w = std::polar(1.0, TWO_PI * line.freqHz / rate);
    for (std::size_t i = 0; i < RENDER_BLOCK;) {
        const bool open = phase < width;
        const double left = std::ceil((open ? width : period) - phase);
        const double room = static_cast<double>(RENDER_BLOCK - i);
        const std::size_t run = static_cast<std::size_t>(std::clamp(left, 1.0, room));
        if (open) {
            const double phaseAtRun = TWO_PI * Turns(line.freqHz, rate, n + i);
            block.AddPhasor(i, run, FULL_SCALE * line.amplitude * std::polar(1.0, phaseAtRun), w);
        }
        i += run;
        phase += static_cast<double>(run);
        if (phase >= period) phase -= period;
    }
}

}  // namespace

void RenderNumbers(std::uint32_t first, std::uint32_t offset, std::uint8_t* dst, std::size_t samples) {
    constexpr int HALF = 0x7FFF;  // 15 bits
    const __m128i low = _mm_set1_epi32(HALF);
    const __m128i high = _mm_set1_epi32(HALF << 15);
    const __m128i base = _mm_set1_epi16(static_cast<std::int16_t>(static_cast<int>(offset & HALF) - (1 << 14)));
    const __m128i step = _mm_set1_epi32(4);
    __m128i n = _mm_add_epi32(_mm_set1_epi32(static_cast<int>(first)), _mm_setr_epi32(0, 1, 2, 3));
    for (std::size_t i = 0; i < samples; i += 4, n = _mm_add_epi32(n, step)) {
        const __m128i parts = _mm_or_si128(_mm_and_si128(n, low), _mm_slli_epi32(_mm_and_si128(n, high), 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 4 * i), _mm_adds_epi16(parts, base));
    }
}

TuneWords::TuneWords() {
    taps[FIR_TAPS / 2 - 1] = FIR_ONE;
    taps[FIR_TAPS + FIR_TAPS / 2 - 1] = FIR_ONE;
}

std::size_t TuneWordsHash::operator()(const TuneWords& words) const {
    std::uint64_t hash = 0;
    const auto add = [&hash](std::uint64_t value) { hash = Mix(hash ^ value); };
    for (const std::uint32_t value : {words.rfConfig, words.rough, words.tune, words.startCode, words.adcOffset}) {
        add(value);
    }
    for (const std::uint16_t value :
         {words.lmxInt, words.lmxFrac, words.lmxDivider, words.lmxSegment, words.lmxOutB, words.lmxPorts}) {
        add(value);
    }
    for (const std::uint16_t tap : words.taps) add(tap);
    add(std::bit_cast<std::uint64_t>(words.temperatureC));
    add(words.sceneVersion);
    return hash;
}

std::optional<Tuning> DecodeTuning(const TuneWords& words) {
    const std::uint32_t word = words.rfConfig;
    constexpr std::uint32_t BASEBAND_ON = 0x80;
    const auto bands = Bands();
    const auto band = std::ranges::find_if(bands, [word](const Band& row) {
        return row.power == ((word >> 16) & 0xFF) && row.select == ((word >> 8) & 0xFF) && row.mux == ((word >> 5) & 3);
    });
    if (band == bands.end() || !(word & BASEBAND_ON)) return std::nullopt;

    // The upper bands' mixers hang on output B, all others on A; the other output is off.
    constexpr std::uint8_t POWER_A = 0x40, POWER_B = 0x80;  // set: off
    constexpr std::uint8_t UPPER_MUX = 3;
    const bool onB = band->mux == UPPER_MUX;
    if (words.lmxPorts & (onB ? POWER_B : POWER_A)) return std::nullopt;

    int divider = 1;
    if (!(onB && (words.lmxOutB & 3) == 1)) {  // 1: output B straight from the VCO
        const std::size_t code = (words.lmxDivider >> 6) & 0x1Fu;
        constexpr std::uint16_t SECOND_SEGMENT = 0x4000;
        if (code >= DIVIDERS.size() || DIVIDERS[code] == 0) return std::nullopt;
        divider = DIVIDERS[code];
        if ((divider == 2) == ((words.lmxSegment & SECOND_SEGMENT) != 0)) return std::nullopt;
    }
    Tuning tuning;
    tuning.band = band->number;
    tuning.direct = band->number == 0;
    tuning.loHz = (words.lmxInt + words.lmxFrac / 128.0) * CONVERTER_RATE / divider / (band->doubled ? 2.0 : 1.0);
    tuning.attenDb = static_cast<int>(word & 0x1F);
    return tuning;
}

std::complex<double> TapResponse(const TuneWords& words, int branch, double ifHz) {
    const Complex w = std::polar(1.0, -TWO_PI * ifHz / CONVERTER_RATE);
    Complex sum = 0.0;
    for (std::size_t k = FIR_TAPS; k-- > 0;) {
        const auto tap = static_cast<std::int16_t>(words.taps[static_cast<std::size_t>(branch) * FIR_TAPS + k]);
        sum = sum * w + static_cast<double>(tap) / FIR_ONE;
    }
    return sum;
}

Renderer::Renderer(const Truth& truth, std::shared_ptr<const Scene> sceneToRender, const TuneWords& words)
    : scene(std::move(sceneToRender)),
      rate(CONVERTER_RATE / static_cast<double>(1u << std::min(words.startCode, 3u))),
      fullBand(words.startCode == 0),
      offset(words.adcOffset),
      noiseSeed(TuneWordsHash{}(words)) {
    const std::optional<Tuning> tuning = DecodeTuning(words);
    if (!tuning) return;  // nothing reaches the converter: the bare offset
    for (std::size_t i = 0; i < scene->emitters.size(); ++i) AddEmitter(truth, *tuning, words, i);

    // Noise is white over the stream at the gain of the stream's centre.
    const double centre = fullBand ? 24 * TICK_HZ : Wrap(words.tune * TICK_HZ, CONVERTER_RATE);
    const BranchResponse gain = Branches(truth, *tuning, words, centre);
    const double power = scene->noiseDbmPerHz + 10.0 * std::log10(rate);
    noiseRms = Amplitude(truth, *tuning, words, power) * std::abs(gain.i + gain.q) / 2.0 / std::numbers::sqrt2;
}

void Renderer::AddEmitter(const Truth& truth, const Tuning& tuning, const TuneWords& words, std::size_t index) {
    const Emitter& emitter = scene->emitters[index];
    Line line;
    line.emitter = index;
    const auto add = [&](double freqHz, double levelDb) {
        AddLine(truth, tuning, words, freqHz, emitter.levelDbm + levelDb, line);
    };
    if (emitter.audio) {
        line.modulation = Line::Modulation::audio;
        add(emitter.freqHz, 0.0);
        return;
    }
    switch (emitter.kind) {
        case EmitterKind::carrier:
            add(emitter.freqHz, 0.0);
            break;
        case EmitterKind::am:
            add(emitter.freqHz, 0.0);
            if (emitter.depth > 0.0) {
                const double sideband = 20.0 * std::log10(emitter.depth / 2.0);
                add(emitter.freqHz - emitter.toneHz, sideband);
                add(emitter.freqHz + emitter.toneHz, sideband);
            }
            break;
        case EmitterKind::fm:
            line.modulation = Line::Modulation::fm;
            add(emitter.freqHz, 0.0);
            break;
        case EmitterKind::ssb:
            add(emitter.freqHz + (emitter.upperSideband ? emitter.toneHz : -emitter.toneHz), 0.0);
            break;
        case EmitterKind::pulse:
            line.gatePeriod = emitter.periodS;
            line.gateWidth = emitter.widthS;
            line.gateStart = emitter.startS;
            add(emitter.freqHz, 0.0);
            break;
        case EmitterKind::hop:
            line.gatePeriod = emitter.dwellS * static_cast<double>(emitter.hopsHz.size());
            line.gateWidth = emitter.dwellS;
            for (const double freqHz : emitter.hopsHz) {
                add(freqHz, 0.0);
                line.gateStart += emitter.dwellS;
            }
            break;
        case EmitterKind::replay:
            if (!emitter.recording || emitter.recording->Samples() == 0) break;
            line.modulation = Line::Modulation::replay;
            add(emitter.freqHz, 0.0);
            break;
    }
}

void Renderer::AddLine(const Truth& truth, const Tuning& tuning, const TuneWords& words, double rfHz, double levelDb,
                       Line line) {
    if (!tuning.direct) {
        const double ifHz = tuning.loHz - rfHz;
        // The mixer turns the spectrum round, so what comes out carries the emitter's phase backwards.
        if (std::abs(ifHz) < ANALOG_STOP_HZ) {
            AddPath(truth, tuning, words, ifHz, Amplitude(truth, tuning, words, levelDb), true, line);
        }
        return;
    }
    if (std::abs(rfHz) >= ANALOG_STOP_HZ) return;
    const double amplitude = Amplitude(truth, tuning, words, levelDb + LowFrequencyRise(rfHz));
    AddPath(truth, tuning, words, rfHz, amplitude, false, line);
    AddPath(truth, tuning, words, -rfHz, amplitude, true, line);
}

void Renderer::AddPath(const Truth& truth, const Tuning& tuning, const TuneWords& words, double ifHz, double amplitude,
                       bool conjugated, Line line) {
    const BranchResponse branch = Branches(truth, tuning, words, ifHz);
    const Complex direct = amplitude * (branch.i + branch.q) / 2.0;
    const Complex image = amplitude * std::conj(branch.i - branch.q) / 2.0;
    if (fullBand) {
        KeepLine(ifHz, direct, conjugated, line);
        KeepLine(-ifHz, image, !conjugated, line);
    } else {  // the digital tune turns the spectrum round again: b = tune - s
        const double tuneHz = words.tune * TICK_HZ;
        KeepLine(tuneHz - ifHz, std::conj(direct), !conjugated, line);
        KeepLine(tuneHz + ifHz, std::conj(image), conjugated, line);
    }
}

void Renderer::KeepLine(double freqHz, std::complex<double> amplitude, bool mirrored, Line line) {
    const double atConverter = Wrap(freqHz, CONVERTER_RATE);
    if (!fullBand) amplitude *= Slope(std::abs(atConverter), DECIMATION_PASS * rate, DECIMATION_STOP * rate);
    if (std::abs(amplitude) < MIN_AMPLITUDE) return;
    line.freqHz = Wrap(atConverter, rate);
    line.amplitude = amplitude;
    line.mirrored = mirrored;
    lines.push_back(line);
}

bool Renderer::Render(std::uint64_t position, std::uint64_t origin, std::uint8_t* dst, std::size_t samples) const {
    const NoisePool& pool = NoisePool::Get();
    const float scale = static_cast<float>(noiseRms * FULL_SCALE);
    const float base = static_cast<float>(offset);
    bool clipped = false;
    Block block;
    for (std::size_t done = 0; done < samples; done += RENDER_BLOCK, dst += 4 * RENDER_BLOCK) {
        const std::uint64_t n = position + origin + done;
        const std::size_t from = Mix(noiseSeed + n) % NoisePool::SIZE;
        for (std::size_t i = 0; i < RENDER_BLOCK; ++i) {
            block.re[i] = base + scale * pool.re[from + i];
            block.im[i] = base + scale * pool.im[from + i];
        }
        for (const Line& line : lines) {
            const Emitter& emitter = scene->emitters[line.emitter];
            if (line.modulation == Line::Modulation::fm) {
                AddFm(block, line, emitter, rate, n);
            } else if (line.modulation == Line::Modulation::replay) {
                AddReplay(block, line, emitter, rate, n);
            } else if (line.modulation == Line::Modulation::audio) {
                AddAudio(block, line, emitter, rate, n);
            } else if (line.gatePeriod > 0.0) {
                AddGated(block, line, rate, n);
            } else {
                block.AddPhasor(0, RENDER_BLOCK,
                                FULL_SCALE * line.amplitude * std::polar(1.0, TWO_PI * Turns(line.freqHz, rate, n)),
                                std::polar(1.0, TWO_PI * line.freqHz / rate));
            }
        }
        if (block.Pack(dst)) clipped = true;
    }
    return clipped;
}

}  // namespace sim
