// What the tests of audio share: the one tone that they look for.
#pragma once

#include <cmath>
#include <complex>
#include <numbers>
#include <span>

inline constexpr double AUDIO_RATE = 30000.0;

struct AudioTone {
    double amplitude;
    double sinadDb;  // the tone's power to that of all else, a constant included
};

// The tone at `hz` in x, which holds a whole number of its periods.
inline AudioTone MeasureAudioTone(std::span<const float> x, double hz) {
    std::complex<double> sum = 0.0;
    double power = 0.0;
    for (std::size_t i = 0; i < x.size(); i++) {
        sum += double{x[i]} * std::polar(1.0, -2.0 * std::numbers::pi * hz / AUDIO_RATE * static_cast<double>(i));
        power += double{x[i]} * x[i];
    }
    const double count = static_cast<double>(x.size());
    const double amplitude = 2.0 * std::abs(sum) / count;
    const double tone = amplitude * amplitude / 2.0;
    return {amplitude, 10.0 * std::log10(tone / (power / count - tone))};
}
