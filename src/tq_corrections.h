// TqCorrections: what a configuration needs from the calibration record, at the present temperature, for one LO step:
// rough attenuator value, gain correction, the 31 taps of the instrument's correction filter, timebase offset. TqDevice
// owns one and hands it to the planners. It takes no lock: only the client's thread enters, and engines get copies of
// the results. Their threads call GetFreqTuneOffset() alone.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "ipps.h"
#include "tq_api_admin.h"

// Gain of the direct path below the mixer's range, to be added to the level of a sweep.
struct LowFreqPoint {
    double freq;  // [Hz]
    double ampl;  // [dB]
};
inline constexpr std::array<LowFreqPoint, 6> gLowFreqCurve = {{
    {2000000.0, -0.85},
    {2400000.0, -0.75},
    {3950000.0, -0.5},
    {5350000.0, -0.25},
    {7200000.0, -0.1},
    {8700000.0, 0.0},
}};

class TqCorrections {
public:
    // Starts with the neutral record. Throws std::bad_alloc.
    TqCorrections();
    TqCorrections(const TqCorrections&) = delete;
    TqCorrections& operator=(const TqCorrections&) = delete;

    // Copies a whole record; what was computed before stays as it is. Returns tqNoError.
    TqStatus LoadCorrections(const TQ720CalData* data);

    // Low 32 bits of the record's calDate.
    uint32_t GetCalDate() const { return static_cast<uint32_t>(calData->calDate); }

    // Both take effect at the next SetCurrentTemp. An index outside 0 to 6 is limited: tqSettingClamped.
    TqStatus SetCorrectionMode(TqCorrectionMode mode);
    TqStatus SetCorrectionIndex(int newIndex);

    // The record's temperature coverage; tqTempRangeUnknown for a value without a meaning. Returns tqNoError.
    TqStatus GetDeviceTempRange(TqTempRange& tempRange) const;

    // Chooses the two temperature planes, and the weight between them, of all reads that follow.
    //   deviceTemp  [degrees Celsius]; beyond the measured ones the nearer plane counts, as does the last for a NaN.
    //               In calibration mode it is ignored, and the chosen plane counts.
    void SetCurrentTemp(float deviceTemp);
    // The last temperature given in normal mode.
    float GetCurrentTemp() const { return currTemp; }

    // Newest entry of the timebase history; an empty history leaves both outputs alone.
    //   voltage    out, timebase DAC value
    //   timeStamp  out, [s] since the Unix epoch
    void GetNewestTuningValue(uint16_t& voltage, uint64_t& timeStamp) const;

    // Ticks to add to the timebase DAC at this temperature. Any thread.
    int16_t GetFreqTuneOffset() const { return freqTuneOffset; }

    // The reads by LO step limit their arguments to the record's tables.
    //   IFStep    LO step, 1 to 490
    //   atten     attenuator index, 0 to 6
    uint8_t GetRoughGain(int IFStep) const;

    // Gain correction [dB]; 0 where the record has no finite number.
    float GetRFCorrection(int atten, int IFStep) const;

    // Designs the correction filter of one LO position. Where the record gives no finite taps the neutral ones stand
    // in. Allocates: for configuration time only.
    //   IFStep384  LO position on the 3.84 MHz grid. Off the multiples of 8 it lies between two calibrated steps, and
    //              the fine tables, limited to 0 to 3999, correct the imbalance.
    //   coeffs     out, CORRECTION_TAPS taps: re for the I branch, im for Q, the larger centre tap 1.0
    //   rfOffset   out, [dB] to add to levels for the gain of these taps
    void GetIFCorrections(int IFStep, int IFStep384, Ipp32fc* coeffs, double& rfOffset) const;
    // The same at a calibrated step, as sweeps use it.
    void GetIFCorrections(int IFStep, Ipp32fc* coeffs, double& rfOffset) const;

    // gLowFreqCurve at the bins of a sweep, [dB]. The vector ends before `length` at the first bin at or above the
    // curve's last point, and at a frequency that is no number.
    //   startFreq  frequency of bin 0, [Hz]
    //   binSize    [Hz]
    static std::vector<float> GetLowFreqAmplitudeCorrections(double startFreq, double binSize, int length);

    std::unique_ptr<TQ720CalData> calData;  // never null
    TqCorrectionMode correctionMode = tqCorrectionModeNormal;
    int calModeTempIndex = 0;   // plane of calibration mode, 0 to 6
    float currTemp = 0.0f;      // [degrees Celsius]
    int currTempIndex = 0;      // lower plane, 0 to 5
    double currTempFrac = 0.0;  // weight of plane currTempIndex + 1, 0.0 to 1.0

private:
    void ChoosePlanes(float deviceTemp);
    void RenewFreqTuneOffset();

    std::atomic<int16_t> freqTuneOffset{0};  // of the present record and temperature; the neutral record has none
};
