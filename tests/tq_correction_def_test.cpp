// The calibration record: validity, dates, the neutral record and the helpers of calibration tools.
#include "tq_correction_def.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A record as it comes from flash: bytes that all differ from their neighbours, under a right header.
std::unique_ptr<TQ720CalData> PatternRecord() {
    Bytes bytes(CAL_DATA_BYTES);
    uint32_t state = 12345;
    for (auto& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<unsigned char>(state >> 24);
    }
    auto record = std::make_unique<TQ720CalData>();
    std::memcpy(record.get(), bytes.data(), bytes.size());
    record->magicNumber = 0xF0000000;
    record->calVersion = 1;
    record->checksum = 0;
    for (size_t i = 672; i < bytes.size(); i += 4) {
        record->checksum += uint32_t{bytes[i]} | uint32_t{bytes[i + 1]} << 8 | uint32_t{bytes[i + 2]} << 16 |
                            uint32_t{bytes[i + 3]} << 24;
    }
    return record;
}

void FlipByte(TQ720CalData& record, size_t offset) { reinterpret_cast<unsigned char*>(&record)[offset] ^= 1; }

bool SameBytes(const TQ720CalData& a, const TQ720CalData& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

}  // namespace

TEST(CalRecord, TheChecksumCoversAllFromByte672On) {
    const struct {
        size_t offset;
        bool valid;
    } CASES[] = {{0, false}, {12, true}, {32, true}, {671, true}, {672, false}, {856328, false}, {2097151, false}};
    const auto record = PatternRecord();
    EXPECT_TRUE(tqCalIsRecordValid(*record));
    for (const auto& c : CASES) {
        FlipByte(*record, c.offset);
        EXPECT_EQ(tqCalIsRecordValid(*record), c.valid) << c.offset;
        FlipByte(*record, c.offset);
    }
}

TEST(CalRecord, OtherVersionsHaveNoChecksum) {
    const auto record = PatternRecord();
    for (const uint32_t version : {0u, 2u, 0xFFFFFFFFu}) {
        record->calVersion = version;
        record->checksum = 0;
        EXPECT_TRUE(tqCalIsRecordValid(*record)) << version;
        record->checksum = 1;
        EXPECT_FALSE(tqCalIsRecordValid(*record)) << version;
    }
}

TEST(CalRecord, ItsDateIsTheNewestOfHeaderAndTimebaseHistory) {
    // Only the beginning may be read: the rest of a first flash read lies elsewhere.
    alignas(TQ720CalData) unsigned char beginning[CAL_CHECKSUM_START];
    std::memset(beginning, 0xFF, sizeof(beginning));
    auto* record = reinterpret_cast<TQ720CalData*>(beginning);
    EXPECT_FALSE(rvCalDoesCorrectionsExist(record));
    record->calDate = 1000;
    EXPECT_TRUE(rvCalDoesCorrectionsExist(record));
    EXPECT_EQ(tqCalGetCorrectionCalDate(record), 1000u);

    record->timebaseCorr[0] = 1;
    record->timebaseTimestamps[0] = 3000;
    record->timebaseCorr[1] = 1;
    record->timebaseTimestamps[1] = 2000;
    record->timebaseTimestamps[2] = 9000;  // behind the end of the list
    EXPECT_EQ(tqCalGetCorrectionCalDate(record), 3000u);
    record->calDate = 4000;
    EXPECT_EQ(tqCalGetCorrectionCalDate(record), 4000u);

    for (int i = 0; i < TQ720_CAL_TIMEBASES; i++) {
        record->timebaseCorr[i] = 1;
        record->timebaseTimestamps[i] = static_cast<uint64_t>(5000 + i);
    }
    EXPECT_EQ(tqCalGetCorrectionCalDate(record), 5063u);

    EXPECT_EQ(tqCalGetCorrectionCalDate(nullptr), 0u);
    EXPECT_FALSE(rvCalDoesCorrectionsExist(nullptr));
}

TEST(CalRecord, TheNeutralOneCorrectsNothingAndSaysSo) {
    const auto record = PatternRecord();
    tqCalBuildDummyCorrections(nullptr);
    tqCalBuildDummyCorrections(record.get());
    EXPECT_FALSE(rvCalDoesCorrectionsExist(record.get()));
    EXPECT_EQ(record->tempRange, 0xFFFFFFFFu);
    EXPECT_EQ(record->timebaseCorr[0], 0xFFFF);
    EXPECT_EQ(record->timebaseTempCurve[6], 0);
    EXPECT_TRUE(std::isnan(record->measuredTemps[0]));
    EXPECT_EQ(record->roughAttens[0], 4);
    EXPECT_EQ(record->roughAttens[489], 4);
    // First and last element of each table; what lies between them was filled with the same loop.
    EXPECT_EQ(record->rfCorrections[0][0][0], 0.0f);
    EXPECT_EQ(record->rfCorrections[6][6][489], 0.0f);
    EXPECT_EQ(record->iqImbalanceAmp[0][0][0], 1.0f);
    EXPECT_EQ(record->iqImbalanceAmp[6][489][12], 1.0f);
    EXPECT_EQ(record->iqImbalancePhase[0][0][0], 0.0f);
    EXPECT_EQ(record->iqImbalancePhase[6][489][12], 0.0f);
    EXPECT_EQ(record->iqFlatnessAmp[0][0][0], 0.0f);
    EXPECT_EQ(record->iqFlatnessAmp[6][489][12], 0.0f);
    EXPECT_EQ(record->iqImbalanceAmpOffset[0][0], 1.0f);
    EXPECT_EQ(record->iqImbalanceAmpOffset[6][3999], 1.0f);
    EXPECT_EQ(record->iqImbalancePhaseOffset[0][0], 0.0f);
    EXPECT_EQ(record->iqImbalancePhaseOffset[6][3999], 0.0f);
    EXPECT_EQ(record->pad[TQ720_CAL_PAD_BYTES - 1], 0xFF);
}

TEST(CalRecord, TemperaturesOutsideTheGridTakeItsEnds) {
    const struct {
        int index;
        double temp;
    } CASES[] = {{INT32_MIN, -30.0}, {-1, -30.0}, {0, -30.0}, {3, 15.0}, {6, 60.0}, {7, 60.0}, {INT32_MAX, 60.0}};
    for (const auto& c : CASES) EXPECT_EQ(tqCalGetTempFromIndex(c.index), c.temp) << c.index;
}

TEST(CalPropagate, CopiesOneTemperatureOntoAnotherAndNothingElse) {
    const auto original = PatternRecord();
    original->measuredTemps[1] = -12.5f;
    const auto record = std::make_unique<TQ720CalData>(*original);
    tqCalPropagateSingleTempCal(*record, 1, 4);
    EXPECT_EQ(record->measuredTemps[4], 32.5f);

    // Putting the copied slices back must give the original again.
    const auto expectCopied = [&](auto& table, const auto& before) {
        EXPECT_EQ(std::memcmp(&table[4], &before[1], sizeof(table[4])), 0);
        std::memcpy(&table[4], &before[4], sizeof(table[4]));
    };
    expectCopied(record->rfCorrections, original->rfCorrections);
    expectCopied(record->iqImbalanceAmp, original->iqImbalanceAmp);
    expectCopied(record->iqImbalancePhase, original->iqImbalancePhase);
    expectCopied(record->iqFlatnessAmp, original->iqFlatnessAmp);
    expectCopied(record->iqImbalanceAmpOffset, original->iqImbalanceAmpOffset);
    expectCopied(record->iqImbalancePhaseOffset, original->iqImbalancePhaseOffset);
    record->measuredTemps[4] = original->measuredTemps[4];
    EXPECT_TRUE(SameBytes(*record, *original));

    constexpr int REFUSED[][2] = {{-1, 3}, {3, -1}, {7, 3}, {3, 7}, {INT32_MIN, INT32_MAX}, {2, 2}};
    for (const auto& [src, dst] : REFUSED) tqCalPropagateSingleTempCal(*record, src, dst);
    EXPECT_TRUE(SameBytes(*record, *original));
}

TEST(CalFile, OnlyAWholeRecordIsLoaded) {
    const std::string path = testing::TempDir() + "tq_correction_def_test_" + std::to_string(getpid()) + ".bin";
    const auto written = PatternRecord();
    const auto read = std::make_unique<TQ720CalData>();
    const auto write = [&](size_t bytes) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(written.get()), static_cast<std::streamsize>(bytes));
    };
    write(CAL_DATA_BYTES);
    EXPECT_TRUE(tqCalCorrectionLoadFromFile(path.c_str(), read.get()));
    EXPECT_TRUE(SameBytes(*read, *written));
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(path.c_str(), nullptr));
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(nullptr, read.get()));
    write(CAL_DATA_BYTES - 1);
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(path.c_str(), read.get()));
    unlink(path.c_str());
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(path.c_str(), read.get()));
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(testing::TempDir().c_str(), read.get()));  // a folder
}
