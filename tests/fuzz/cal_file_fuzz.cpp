// The calibration record as a cache file may bring it: the neutral record with up to sixteen values replaced, read as a
// configuration reads it. Every 64th record also goes through the design of the correction filter, every 4096th through
// a file, cut at any length, and through the check.
#include "tq_corrections.h"
#include "tq_lib.h"

#include "fuzz_support.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr int SERIAL = 1;

void ThroughFile(FuzzedDataProvider& input, const TQ720CalData& record) {
    const std::filesystem::path path = FuzzHome() / ".tarnwell" / "tq00000001.bin";
    const auto length = input.ConsumeIntegralInRange<size_t>(0, sizeof record);
    static const auto read = std::make_unique<TQ720CalData>();
    read->pad[0] = 0x55;
    WriteFile(path, {reinterpret_cast<const uint8_t*>(&record), length});
    Require(GetCorrectionsFromFile(SERIAL, read.get()) == (length == sizeof record));
    Require(length == sizeof record || read->pad[0] == 0x55);
    Require(SaveCorrectionFile(SERIAL, &record) && tqCalCorrectionLoadFromFile(path.c_str(), read.get()));
    Require(std::memcmp(read.get(), &record, sizeof record) == 0);
    tqCalIsRecordValid(*read);
    tqCalPropagateSingleTempCal(*read, input.ConsumeIntegral<int>(), input.ConsumeIntegralInRange(-1, 7));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static TqCorrections corrections;
    static unsigned run = 0;
    FuzzedDataProvider input(data, size);
    TQ720CalData& r = *corrections.calData;
    const int step = input.ConsumeIntegralInRange(1, TQ720_CAL_LO_STEPS);
    const int step384 = std::max(1, step * 8 - input.ConsumeIntegralInRange(0, 7));
    const int atten = input.ConsumeIntegralInRange(0, TQ720_CAL_ATTENS - 1);

    // Replaced are values that will be read: of the step's tables, or anywhere in header and lists.
    std::vector<std::pair<uint8_t*, uint64_t>> old;
    while (old.size() < 16 && input.remaining_bytes() > 0) {
        const auto plane = input.ConsumeIntegralInRange<size_t>(0, TQ720_CAL_TEMPS - 1);
        const auto point = input.ConsumeIntegralInRange<size_t>(0, TQ720_CAL_IF_POINTS - 1);
        const auto column = static_cast<size_t>(step - 1);
        const auto fine = static_cast<size_t>(step384);
        float* const values[] = {
            &r.rfCorrections[plane][atten][column],    &r.iqImbalanceAmp[plane][column][point],
            &r.iqImbalancePhase[plane][column][point], &r.iqFlatnessAmp[plane][column][point],
            &r.iqImbalanceAmpOffset[plane][fine],      &r.iqImbalancePhaseOffset[plane][fine],
        };
        const auto choice = input.ConsumeIntegralInRange<size_t>(0, 7);
        const auto offset = input.ConsumeIntegralInRange<size_t>(0, offsetof(TQ720CalData, rfCorrections));
        auto* const place = choice < std::size(values) ? reinterpret_cast<uint8_t*>(values[choice])
                                                       : reinterpret_cast<uint8_t*>(&r) + offset;
        std::memcpy(&old.emplace_back(place, 0).second, place, sizeof(uint64_t));
        const auto value = input.ConsumeIntegral<uint64_t>();
        std::memcpy(place, &value, input.ConsumeIntegralInRange<size_t>(1, sizeof value));
    }

    tqCalGetCorrectionCalDate(&r);
    TqTempRange range = tqTempRangeNotSet;
    corrections.GetDeviceTempRange(range);
    Require(range >= tqTempRangeUnknown && range <= tqTempRangeNotSet);
    uint16_t voltage = 0;
    uint64_t time = 0;
    corrections.GetNewestTuningValue(voltage, time);
    corrections.SetCorrectionMode(input.ConsumeBool() ? tqCorrectionModeCal : tqCorrectionModeNormal);
    corrections.SetCorrectionIndex(input.ConsumeIntegral<int>());
    corrections.SetCurrentTemp(input.ConsumeFloatingPoint<float>());
    Require(corrections.currTempIndex >= 0 && corrections.currTempIndex <= TQ720_CAL_TEMPS - 2);
    Require(corrections.currTempFrac >= 0.0 && corrections.currTempFrac <= 1.0);
    corrections.GetFreqTuneOffset();
    corrections.GetRoughGain(step);
    Require(std::isfinite(corrections.GetRFCorrection(atten, step)));
    if (run % 64 == 0) {
        std::array<Ipp32fc, 31> taps;
        double offset = 0.0;
        corrections.GetIFCorrections(step, step384, taps.data(), offset);
        Require(std::isfinite(offset));
        for (const Ipp32fc& tap : taps) Require(std::isfinite(tap.re) && std::isfinite(tap.im));
    }
    if (run++ % 4096 == 0) ThroughFile(input, r);

    for (; !old.empty(); old.pop_back()) std::memcpy(old.back().first, &old.back().second, sizeof(uint64_t));
    return 0;
}
