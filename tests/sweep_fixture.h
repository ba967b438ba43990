// What the end-to-end tests of wide and narrow sweeps share.
#pragma once

#include "api_fixture.h"

#include <algorithm>
#include <cmath>

struct Sweep {
    double startHz = 0.0;
    double binHz = 0.0;
    std::vector<float> min;
    std::vector<float> max;
    int64_t time = 0;
    TqStatus status = tqNoError;

    // Highest of the bins that lie nearer to a frequency than `reach` [Hz], or than five bins.
    std::size_t PeakNear(double freqHz, double reach) const {
        const auto bin = [&](double hz) {
            return std::clamp<std::ptrdiff_t>(std::lround((hz - startHz) / binHz), 0, std::ssize(max) - 1);
        };
        const auto first = max.begin() + bin(freqHz - reach);
        return static_cast<std::size_t>(std::max_element(first, max.begin() + bin(freqHz + reach) + 1) - max.begin());
    }
    std::size_t PeakNear(double freqHz) const { return PeakNear(freqHz, 5.0 * binHz); }
    double FreqOf(std::size_t bin) const { return startHz + static_cast<double>(bin) * binHz; }
    double LevelNear(double freqHz) const { return max[PeakNear(freqHz)]; }
};

class SweepFixture : public ApiFixture {
protected:
    // vbw 0: as the RBW.
    void Configure(double startHz, double stopHz, double rbw = 100e3, double vbw = 0.0, double sweepTime = 1e-6) {
        ASSERT_GE(tqSetSweepStartStop(device, startHz, stopHz), tqNoError);
        ASSERT_GE(tqSetSweepCoupling(device, rbw, vbw == 0.0 ? rbw : vbw, sweepTime), tqNoError);
        ASSERT_EQ(tqConfigure(device, tqModeSweeping), tqNoError);
    }
    void ConfigureSpan(double center, double span, double rbw, double vbw = 0.0, double sweepTime = 1e-6) {
        Configure(center - span / 2, center + span / 2, rbw, vbw, sweepTime);
    }

    Sweep Take() {
        Sweep sweep;
        int size = 0;
        EXPECT_EQ(tqGetSweepParameters(device, nullptr, nullptr, &sweep.startHz, &sweep.binHz, &size), tqNoError);
        sweep.min.assign(static_cast<std::size_t>(size), -1e30f);
        sweep.max.assign(static_cast<std::size_t>(size), -1e30f);
        sweep.status = tqGetSweep(device, sweep.min.data(), sweep.max.data(), &sweep.time);
        return sweep;
    }

    // A carrier within one bin and half a dB.
    static void ExpectCarrier(const Sweep& sweep, double freqHz, double reach, double levelDbm) {
        const std::size_t peak = sweep.PeakNear(freqHz, reach);
        EXPECT_NEAR(sweep.FreqOf(peak), freqHz, sweep.binHz) << freqHz;
        EXPECT_NEAR(sweep.max[peak], levelDbm, 0.5) << freqHz;
    }
};
