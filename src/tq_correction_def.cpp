#include "tq_correction_def.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <type_traits>

namespace {

constexpr int MAX_TEMP_INDEX = TQ720_CAL_TEMPS - 1;

bool IsTempIndex(int index) { return index >= 0 && index <= MAX_TEMP_INDEX; }

// Fills a table of any dimensions.
template <typename Table>
void FillTable(Table& table, float value) {
    if constexpr (std::is_array_v<Table>) {
        for (auto& part : table) FillTable(part, value);
    } else {
        table = value;
    }
}

}  // namespace

bool tqCalIsRecordValid(const TQ720CalData& c) {
    if (c.magicNumber != CAL_MAGIC_NUMBER) return false;
    if (c.calVersion != CAL_VERSION_WITH_CHECKSUM) return c.checksum == 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&c);
    uint32_t sum = 0;
    for (size_t i = CAL_CHECKSUM_START; i < sizeof(c); i += sizeof(uint32_t)) {
        uint32_t word;
        std::memcpy(&word, bytes + i, sizeof(word));
        sum += word;
    }
    return sum == c.checksum;
}

double tqCalGetTempFromIndex(int tempIndex) {
    return std::clamp(tempIndex, 0, MAX_TEMP_INDEX) * TQ720_TEMP_STEP + TQ720_START_TEMP;
}

void tqCalBuildDummyCorrections(TQ720CalData* c) {
    constexpr uint8_t NEUTRAL_ROUGH_ATTEN = 4;
    if (c == nullptr) return;
    std::memset(c, 0xFF, sizeof(*c));
    std::ranges::fill(c->timebaseTempCurve, int16_t{0});
    std::ranges::fill(c->roughAttens, NEUTRAL_ROUGH_ATTEN);
    FillTable(c->rfCorrections, 0.0f);
    FillTable(c->iqImbalanceAmp, 1.0f);
    FillTable(c->iqImbalancePhase, 0.0f);
    FillTable(c->iqFlatnessAmp, 0.0f);
    FillTable(c->iqImbalanceAmpOffset, 1.0f);
    FillTable(c->iqImbalancePhaseOffset, 0.0f);
}

uint64_t tqCalGetCorrectionCalDate(const TQ720CalData* c) {
    if (c == nullptr) return 0;
    uint64_t newest = c->calDate;
    for (int i = 0; i < TQ720_CAL_TIMEBASES && c->timebaseCorr[i] != TIMEBASE_CORR_END; i++) {
        newest = std::max(newest, c->timebaseTimestamps[i]);
    }
    return newest;
}

bool rvCalDoesCorrectionsExist(const TQ720CalData* c) { return c != nullptr && c->calDate != CAL_DATE_ABSENT; }

void tqCalPropagateSingleTempCal(TQ720CalData& c, int srcIndex, int dstIndex) {
    if (!IsTempIndex(srcIndex) || !IsTempIndex(dstIndex) || srcIndex == dstIndex) return;
    c.measuredTemps[dstIndex] = static_cast<float>(c.measuredTemps[srcIndex] + (dstIndex - srcIndex) * TQ720_TEMP_STEP);
    const auto copySlice = [=](auto& table) {
        std::memcpy(&table[dstIndex], &table[srcIndex], sizeof(table[srcIndex]));
    };
    copySlice(c.rfCorrections);
    copySlice(c.iqImbalanceAmp);
    copySlice(c.iqImbalancePhase);
    copySlice(c.iqFlatnessAmp);
    copySlice(c.iqImbalanceAmpOffset);
    copySlice(c.iqImbalancePhaseOffset);
}

bool tqCalCorrectionLoadFromFile(const char* fileName, TQ720CalData* c) {
    if (fileName == nullptr || c == nullptr) return false;
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Close> file(std::fopen(fileName, "rb"));
    return file && std::fread(c, 1, sizeof(*c), file.get()) == sizeof(*c);
}
