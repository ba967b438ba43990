// EngineRealTime on an instrument whose samples are known and which hands out no more of them than the test allows, so
// that nothing is ever overrun. Whole instruments are the matter of real_time_test.
#include "engine_real_time.h"

#include "bus_fixture.h"
#include "sim/gated_instrument.h"
#include "thread_support.h"
#include "tq_device.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstring>
#include <functional>
#include <future>
#include <numbers>
#include <random>
#include <vector>

namespace {

constexpr int SERIAL = 12345678;
constexpr int64_t XFER_SAMPLES = 127 * 2048;
constexpr float POISON = 1e30f;

// To make and to check the samples takes this sanitizer longer than the host waits for its reads. The threads that it
// is for are those of real_time_test, too.
#if defined(__SANITIZE_THREAD__)
constexpr bool TOO_SLOW = true;
#else
constexpr bool TOO_SLOW = false;
#endif

struct Frame {
    std::vector<float> min, max;
    int count = -1;
    int64_t time = 0;
    TqStatus status = tqNoError;
};

class EngineRealTimeTest : public BusFixture {
protected:
    void SetUp() override {
        BusFixture::SetUp();
        sim::InstrumentOptions options;
        options.serial = SERIAL;
        options.temperatureC = 0.0;  // what a device that has not yet looked takes for its own
        options.scene.pattern = sim::Pattern::samples;
        instrument = &Plug<sim::GatedInstrument>(options);
        // Samples of the test's own making take their time, too, of what the host allows for twelve reads.
        instrument->SetPatience(std::chrono::milliseconds(40));
        auto usb = std::make_unique<DeviceInterface>();
        ASSERT_TRUE(usb->AllocateResources(GetUSBDeviceHandleBySerial(SERIAL)));
        device = std::make_unique<TqDevice>(std::move(usb));
        settings.scale = tqScaleFullScale;
    }
    void TearDown() override {
        engine.reset();
        device.reset();
        BusFixture::TearDown();
    }

    // Sample n of the stream, without the device's offset.
    void Hear(Ipp16sc (*sample)(int64_t n)) {
        instrument->SetSamples([sample](int64_t n, std::span<int16_t> iq) {
            for (std::size_t i = 0; i < iq.size(); i += 2) {
                const Ipp16sc x = sample(n++);
                iq[i] = x.re;
                iq[i + 1] = x.im;
            }
        });
    }

    // Of a spectrum, `width` columns of `binning` bins from bin `offset` on.
    void Start(int fftSize, int zeroPad, int offset, int width, int binning, float correction = 0.0f) {
        setup.fftSize = fftSize;
        setup.zeroPadAmount = zeroPad;
        setup.sweepOffset = offset;
        setup.freqBinning = binning;
        settings.frameWidth = width;
        settings.frameHeight = PersistenceImage::HEIGHT;
        settings.sweepSize = width * binning;
        perFrame = static_cast<int>(BASE_SR / (fftSize / 2)) / 30;
        PatchSetup patch{};
        patch.coarseCorrection = correction;
        TqCommand start, fetch;
        start.StartNewCommand();
        start.AddStartIQ(1);
        fetch.StartNewCommand();
        fetch.AddFetchIQ(127, 1);
        engine = std::make_unique<EngineRealTime>(*device, *device->usb, settings, setup, patch, start, fetch);
    }
    void StartWhole(int fftSize) { Start(fftSize, 0, 0, fftSize / 8, 8); }

    // What must have come before the frame is sure to be complete: its own samples; five blocks more, of which the FFT
    // thread may leave less than four, and stitching less than one; and the spectra of a batch.
    int TransfersUntil(int frame) const {
        const int64_t samples = (frame + 1) * int64_t{perFrame} * setup.fftSize / 2 + setup.fftSize +
                                5 * int64_t{EngineRealTime::IQ_PER_XFER} + int64_t{perFrame / 4} * setup.fftSize / 2;
        return static_cast<int>(samples / XFER_SAMPLES) + 1;
    }

    Frame Get() { return GetFrom(*engine); }
    Frame GetFrom(EngineRealTime& stream) const {
        Frame f;
        f.min.assign(static_cast<std::size_t>(settings.sweepSize), POISON);
        f.max = f.min;
        TqRealTimeFrame request{nullptr, nullptr, f.min.data(), f.max.data()};
        f.status = stream.GetFrame(&request);
        f.count = request.frameCount;
        f.time = request.time;
        return f;
    }
    Frame Next() {
        instrument->Allow(TransfersUntil(frames));
        Frame f = Get();
        EXPECT_EQ(f.status, tqNoError);
        EXPECT_EQ(f.count, frames++);
        return f;
    }

    sim::GatedInstrument* instrument = nullptr;
    std::unique_ptr<TqDevice> device;
    TqRealTimeSettings settings;
    RealTimeSetup setup;
    int perFrame = 0;
    int frames = 0;
    std::unique_ptr<EngineRealTime> engine;
};

// White noise from the running number alone.
Ipp16sc Noise(int64_t n) {
    uint64_t z = (static_cast<uint64_t>(n) + 1) * 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return {static_cast<Ipp16s>((z >> 8 & 0x3FFF) - 0x2000), static_cast<Ipp16s>((z >> 40 & 0x3FFF) - 0x2000)};
}

// Past the stitching cycle of 128 transfers, and seven times around the store, against a transform in double precision.
TEST_F(EngineRealTimeTest, SweepsAreThoseOfEverySampleInOrder) {
    if (TOO_SLOW) GTEST_SKIP();
    constexpr int SIZE = 1024, PAD = 100, STEP = SIZE / 2, OFFSET_BIN = 128, FRAMES = 17, BINS = 768;
    constexpr int PER_FRAME = 4000;
    settings.window = tqWindowBlackman;
    std::vector<double> window(SIZE);
    double sum = 0.0;
    DSP::buildWindowFunction(settings.window, window.data() + PAD / 2, SIZE - PAD);
    for (const double w : window) sum += w;
    DSP::FFT_64fc fft(10, 8, ippAlgHintNone);
    std::vector<Ipp64fc> x(SIZE);
    std::vector<std::vector<double>> min(FRAMES, std::vector<double>(BINS, 1e30)),
        max(FRAMES, std::vector<double>(BINS));
    for (int64_t i = 0; i < FRAMES * PER_FRAME; i++) {
        for (int n = 0; n < SIZE; n++) {
            const Ipp16sc sample = Noise(i * STEP + n);
            const double w = window[static_cast<std::size_t>(n)] / 32768.0 / sum;
            x[static_cast<std::size_t>(n)] = {w * sample.re, w * sample.im};
        }
        fft.FwdFFT_I(x.data());
        const auto frame = static_cast<std::size_t>(i / PER_FRAME);
        for (std::size_t bin = 0; bin < BINS; bin++) {
            const Ipp64fc& y = x[(bin + OFFSET_BIN + STEP) % SIZE];
            const double power = y.re * y.re + y.im * y.im;
            min[frame][bin] = std::min(min[frame][bin], power);
            max[frame][bin] = std::max(max[frame][bin], power);
        }
    }

    Hear(Noise);
    Start(SIZE, PAD, OFFSET_BIN, BINS / 4, 4);
    ASSERT_EQ(perFrame, PER_FRAME);
    int64_t time = 0;
    for (std::size_t frame = 0; frame < FRAMES; frame++) {
        const Frame got = Next();
        for (std::size_t bin = 0; bin < BINS; bin++) {
            ASSERT_NEAR(got.max[bin], max[frame][bin], 1e-5 * max[frame][bin]) << frame << ", " << bin;
            ASSERT_NEAR(got.min[bin], min[frame][bin], 2e-11) << frame << ", " << bin;  // of some 1e-8
        }
        EXPECT_GT(got.time, time);
        time = got.time;
    }
}

class EngineRealTimeEnergy : public EngineRealTimeTest, public ::testing::WithParamInterface<int> {};

// Where most samples are 0, each of the others is seen in two transforms, with all of its energy.
TEST_P(EngineRealTimeEnergy, NoEnergyIsLostBetweenSamplesAndSpectra) {
    if (TOO_SLOW) GTEST_SKIP();
    constexpr int APART = 4999;
    settings.window = tqWindowRect;
    settings.detector = tqDetectorAverage;
    instrument->SetSamples([](int64_t n, std::span<int16_t> iq) {
        std::ranges::fill(iq, int16_t{0});
        for (int64_t at = (n + APART - 1) / APART * APART; at < n + std::ssize(iq) / 2; at += APART) {
            const Ipp16sc x = Noise(at);
            iq[static_cast<std::size_t>(2 * (at - n))] = x.re;
            iq[static_cast<std::size_t>(2 * (at - n) + 1)] = x.im;
        }
    });
    StartWhole(GetParam());
    const int64_t step = GetParam() / 2;
    int64_t at = 0;
    const int enough = GetParam() == 128 ? PersistenceImage::FRAMES_STORED + 3 : 4;  // once around the slots
    for (int frame = 0; frame < enough; frame++, at += perFrame * step) {
        double energy = 0.0;  // of all transforms of the frame
        for (int64_t n = at; n < at + (perFrame + 1) * step; n++) {
            if (n % APART != 0) continue;
            const Ipp16sc x = Noise(n);
            const bool once = n < at + step || n >= at + perFrame * step;  // its other one is a neighbouring frame's
            energy += (once ? 1.0 : 2.0) * (x.re * x.re + x.im * x.im) / 32768.0 / 32768.0;
        }
        const Frame got = Next();
        double power = 0.0;
        for (const float p : got.max) power += static_cast<double>(p);
        EXPECT_NEAR(power * perFrame * GetParam(), energy, 1e-5 * energy) << frame;
        EXPECT_EQ(got.min, got.max);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, EngineRealTimeEnergy, ::testing::Values(128, 65536));

class EngineRealTimePulses : public EngineRealTimeTest, public ::testing::WithParamInterface<int> {};

struct Pulse {
    int64_t start;
    int bin;
    double offset;  // of its frequency from the bin's middle, [bins]
};

// As long as a transform and the step to the next: wherever it begins, one transform has nothing but pulse. A frame has
// 125 of them, each at a frequency of its own, far enough from the others' for their edges not to matter.
TEST_P(EngineRealTimePulses, APulseOfThePoiIsSeenAtItsLevelWhereverItLies) {
    if (TOO_SLOW) GTEST_SKIP();
    constexpr int PER_FRAME = 125, FRAMES = 8;
    constexpr double AMPLITUDE = 1000.0;  // [counts]
    const int size = GetParam(), spacing = size / 128;
    const int64_t length = size * 3 / 2, slot = 2048000 / PER_FRAME;
    std::mt19937 random(11);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Pulse> pulses;
    const double room = static_cast<double>(std::max(slot - 5 * size / 2, slot / 2));  // apart, but for the longest
    for (int i = 0; i < PER_FRAME * FRAMES; i++) {
        const auto start = static_cast<int64_t>(unit(random) * room);
        pulses.push_back({i * slot + start, (i % PER_FRAME + 1) * spacing, unit(random) - 0.5});
    }
    instrument->SetSamples([&](int64_t n, std::span<int16_t> iq) {
        std::ranges::fill(iq, int16_t{0});
        for (const Pulse& p : pulses) {
            const int64_t first = std::max(p.start, n), last = std::min(p.start + length, n + XFER_SAMPLES);
            if (first >= last) continue;
            const double turns = (p.bin - size / 2 + p.offset) / size;
            std::complex<double> x =
                std::polar(AMPLITUDE, 2.0 * std::numbers::pi * turns * static_cast<double>(first - p.start));
            const std::complex<double> step = std::polar(1.0, 2.0 * std::numbers::pi * turns);
            for (int64_t i = first; i < last; i++, x *= step) {
                int16_t* const sample = &iq[static_cast<std::size_t>(2 * (i - n))];
                sample[0] = static_cast<int16_t>(sample[0] + std::lround(x.real()));
                sample[1] = static_cast<int16_t>(sample[1] + std::lround(x.imag()));
            }
        }
    });
    StartWhole(size);
    std::vector<Frame> got;
    for (int i = 0; i <= FRAMES; i++) got.push_back(Next());
    engine.reset();

    std::vector<double> window(static_cast<std::size_t>(size));
    DSP::buildWindowFunction(settings.window, window.data(), size);
    for (const Pulse& p : pulses) {
        std::complex<double> gain = 0.0;
        double sum = 0.0;
        for (int n = 0; n < size; n++) {
            const double w = window[static_cast<std::size_t>(n)];
            gain += std::polar(w, 2.0 * std::numbers::pi * p.offset * n / size);
            sum += w;
        }
        const int64_t step = size / 2, firstWhole = (p.start + step - 1) / step;
        const std::vector<float>& max = got[static_cast<std::size_t>(firstWhole / perFrame)].max;
        const double level = AMPLITUDE / 32768.0 * std::abs(gain) / sum;
        const double seen = std::sqrt(max[static_cast<std::size_t>(p.bin)]);
        ASSERT_NEAR(20.0 * std::log10(seen / level), 0.0, 0.1) << p.start << ", " << p.bin;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, EngineRealTimePulses, ::testing::Values(1024, 8192));

// Of a level that rises by a count every APART samples, while the accumulation stands still for one and a half of its
// ring of spectra: one whole round is given up, and from there on every sample is seen, in order and once.
TEST_F(EngineRealTimeTest, SpectraThatAreHeldUpAreGivenUpInWholeRounds) {
    if (TOO_SLOW) GTEST_SKIP();
    constexpr int SIZE = 1024, STEP = SIZE / 2, ROUND = 10240, APART = 2000, PORTION = 5;
    constexpr int HELD = 3 * ROUND / 2 * STEP / XFER_SAMPLES;  // transfers
    settings.window = tqWindowRect;
    Hear([](int64_t n) { return Ipp16sc{static_cast<int16_t>(n / APART), 0}; });
    instrument->SetPatience(std::chrono::minutes(1));
    const std::vector<pid_t> threads = ThreadsOf([&] { StartWhole(SIZE); });
    ASSERT_EQ(threads.size(), 3u) << "accumulation, transforms, USB";
    {
        // In portions that the store of samples has room for.
        const HeldThreads held({threads[0]});
        for (int sent = PORTION; sent <= HELD; sent += PORTION) {
            instrument->Allow(sent);
            WaitUntil([&] { return instrument->Passed() == sent; });
            for (const std::size_t thread : {2, 1}) WaitUntilBlocked(threads[thread]);
        }
    }
    for (int frame = 0; frame < 4; frame++) {
        const auto levelAt = [&](int spectrum) { return static_cast<double>((ROUND + spectrum + 1) * STEP / APART); };
        instrument->Allow(TransfersUntil(frame) + ROUND * STEP / XFER_SAMPLES + 1);
        const Frame got = Get();
        EXPECT_EQ(got.count, frame);
        EXPECT_NEAR(std::sqrt(got.min[STEP]) * 32768.0f, levelAt(frame * perFrame), 1.0) << frame;
        EXPECT_NEAR(std::sqrt(got.max[STEP]) * 32768.0f, levelAt((frame + 1) * perFrame - 1), 1.0) << frame;
    }
}

TEST_F(EngineRealTimeTest, ACallerWaitsForAFrameAndIsWokenByTheEnd) {
    instrument->SetPatience(std::chrono::milliseconds(1500));  // no frame but what is allowed
    StartWhole(512);
    std::atomic<pid_t> caller;
    const auto call = [&] {
        caller = 0;
        auto waiting = std::async(std::launch::async, [&, &stream = *engine] {
            caller = gettid();
            return GetFrom(stream);
        });
        WaitUntilBlocked(caller);
        return waiting;
    };
    std::future<Frame> waiting = call();
    instrument->Allow(TransfersUntil(0));
    EXPECT_EQ(waiting.get().count, 0);

    waiting = call();
    engine->End();
    const Frame none = waiting.get();
    EXPECT_EQ(none.status, tqInvalidConfigurationErr);
    EXPECT_EQ(none.max[0], POISON);
    EXPECT_EQ(none.time, 0);
}

}  // namespace
