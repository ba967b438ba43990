// The hardware's true behaviour and the calibration record that a factory would have measured from it. Truth is a set
// of smooth functions of LO, band, attenuator, IF and temperature, drawn from the serial number; the record samples
// these functions at the sweep grid, so a host that reads it right takes all errors off again. Values: no state after
// construction, any thread.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace sim {

inline constexpr int CAL_TEMPS = 7;
inline constexpr int CAL_ATTENS = 7;         // 5 dB each
inline constexpr int CAL_STEPS = 490;        // steps of the sweep grid, counted from 1
inline constexpr int CAL_IF_POINTS = 13;     // every 3.84 MHz from 3.84 MHz
inline constexpr int CAL_FINE_STEPS = 4000;  // every 3.84 MHz of LO, counted from 0
inline constexpr std::size_t RECORD_BYTES = 2097152;

// One front-end path.
struct Band {
    double topHz;  // highest RF centre that it serves, exclusive
    int number;
    std::uint8_t select;  // RFSEL field of the RF configuration word
    std::uint8_t power;   // BandPower field
    std::uint8_t mux;     // muxctrl field
    bool doubled;         // the synthesiser runs at twice the mixer's LO
};
std::span<const Band> Bands();

// Centre [Hz] and LO [Hz] of a step of the sweep grid, 1 to CAL_STEPS.
double StepLo(int step);
double StepRf(int step);

// Band that serves an RF centre.
const Band& BandOfRf(double rfHz);

class Truth {
public:
    explicit Truth(std::uint32_t serial);

    std::uint32_t Serial() const { return serial; }
    double MeasuredTemp(int plane) const { return temps[static_cast<std::size_t>(plane)]; }

    // At a plane of the record, 0 to CAL_TEMPS - 1.
    double RfCorrectionAt(int plane, int atten, double loHz, int band) const;  // [dB] digital to antenna
    double ImbalanceAmpAt(int plane, double loHz, double ifHz) const;          // I over Q, amplitude ratio
    double ImbalancePhaseAt(int plane, double loHz, double ifHz) const;        // [rad]
    double FlatnessAt(int plane, double loHz, double ifHz) const;              // [dB]

    // At any temperature: linear between the planes, constant beyond them.
    //   attenDb   0 to 31; linear between multiples of 5, constant above 30
    //   ifHz      distance from the LO, not negative
    double RfCorrection(double tempC, int attenDb, double loHz, int band) const;
    double ImbalanceAmp(double tempC, double loHz, double ifHz) const;
    double ImbalancePhase(double tempC, double loHz, double ifHz) const;
    double Flatness(double tempC, double loHz, double ifHz) const;

    // The rough attenuator count at which RfCorrection holds; each count more costs 0.5 dB.
    int RoughAtten(double loHz) const;

private:
    template <typename F>
    double Blend(double tempC, F&& atPlane) const;

    std::uint32_t serial;
    std::array<double, CAL_TEMPS> temps{};
    std::array<double, 16> bandOffset{};           // [dB]
    std::array<double, CAL_ATTENS> attenOffset{};  // [dB]
    std::array<double, 12> draw{};                 // phases and signs of the curves, 0 to 1
};

// What the low-frequency path of the direct band reads too high [dB]; 0 from 8.7 MHz up.
double LowFrequencyRise(double rfHz);

// The 2 MiB record of an instrument with this truth, header, history and checksum included.
std::vector<std::uint8_t> BuildRecord(const Truth& truth);

}  // namespace sim
