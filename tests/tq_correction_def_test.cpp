// The calibration record: validity, dates, the neutral record and the helpers of calibration tools.
#include "tq_correction_def.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <utility>

namespace {

// A record as it comes from flash: bytes that differ from their neighbours, under a right header.
std::unique_ptr<TQ720CalData> PatternRecord() {
    auto record = std::make_unique<TQ720CalData>();
    auto* bytes = reinterpret_cast<unsigned char*>(record.get());
    std::mt19937 engine(12345);
    std::generate_n(bytes, CAL_DATA_BYTES, [&] { return static_cast<unsigned char>(engine()); });
    record->magicNumber = 0xF0000000;
    record->calVersion = 1;
    record->checksum = 0;
    for (size_t i = 672; i < CAL_DATA_BYTES; i += 4) {
        record->checksum += uint32_t{bytes[i]} | uint32_t{bytes[i + 1]} << 8 | uint32_t{bytes[i + 2]} << 16 |
                            uint32_t{bytes[i + 3]} << 24;
    }
    return record;
}

bool SameBytes(const TQ720CalData& a, const TQ720CalData& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

// Each table over the temperatures, with the value that corrects nothing.
template <typename Visitor>
void VisitTables(TQ720CalData& record, Visitor visit) {
    visit(record.rfCorrections, 0.0f);
    visit(record.iqImbalanceAmp, 1.0f);
    visit(record.iqImbalancePhase, 0.0f);
    visit(record.iqFlatnessAmp, 0.0f);
    visit(record.iqImbalanceAmpOffset, 1.0f);
    visit(record.iqImbalancePhaseOffset, 0.0f);
}

}  // namespace

TEST(CalRecord, VersionOneHasAChecksumFromByte672OnAndOthersHaveNone) {
    const std::pair<size_t, bool> CASES[] = {{0, false}, {671, true}, {672, false}, {856328, false}, {2097151, false}};
    const auto record = PatternRecord();
    auto* bytes = reinterpret_cast<unsigned char*>(record.get());
    EXPECT_TRUE(tqCalIsRecordValid(*record));
    for (const auto& [flipped, valid] : CASES) {
        bytes[flipped] ^= 1;
        EXPECT_EQ(tqCalIsRecordValid(*record), valid) << flipped;
        bytes[flipped] ^= 1;
    }
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
    record->timebaseTimestamps[0] = 9000;  // behind the end of an empty list
    EXPECT_TRUE(rvCalDoesCorrectionsExist(record));
    EXPECT_EQ(tqCalGetCorrectionCalDate(record), 1000u);
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
    tqCalBuildDummyCorrections(record.get());
    EXPECT_FALSE(rvCalDoesCorrectionsExist(record.get()));
    EXPECT_EQ(record->timebaseCorr[0], 0xFFFF);
    EXPECT_EQ(record->timebaseTempCurve[6], 0);
    EXPECT_TRUE(std::isnan(record->measuredTemps[0]));
    EXPECT_EQ(std::ranges::count(record->roughAttens, 4), TQ720_CAL_LO_STEPS);
    VisitTables(*record, [](const auto& table, float neutral) {
        const auto* first = reinterpret_cast<const float*>(&table);
        EXPECT_EQ(std::count(first, first + sizeof(table) / sizeof(float), neutral), sizeof(table) / sizeof(float));
    });
}

TEST(CalPropagate, CopiesOneTemperatureOntoAnotherAndNothingElse) {
    const auto original = PatternRecord();
    original->measuredTemps[1] = -12.5f;
    const auto record = std::make_unique<TQ720CalData>(*original);
    tqCalPropagateSingleTempCal(*record, 1, 4);
    EXPECT_EQ(record->measuredTemps[4], 32.5f);

    // Putting the overwritten slices back must give the original again.
    VisitTables(*record, [&](auto& table, float) {
        EXPECT_EQ(std::memcmp(&table[4], &table[1], sizeof(table[4])), 0);
        const auto at = reinterpret_cast<char*>(&table[4]) - reinterpret_cast<char*>(record.get());
        std::memcpy(&table[4], reinterpret_cast<char*>(original.get()) + at, sizeof(table[4]));
    });
    record->measuredTemps[4] = original->measuredTemps[4];
    EXPECT_TRUE(SameBytes(*record, *original));

    constexpr int REFUSED[][2] = {{-1, 3}, {3, -1}, {7, 3}, {3, 7}, {INT32_MIN, INT32_MAX}, {2, 2}};
    for (const auto& [src, dst] : REFUSED) tqCalPropagateSingleTempCal(*record, src, dst);
    EXPECT_TRUE(SameBytes(*record, *original));
    EXPECT_EQ(tqCalGetTempFromIndex(INT32_MIN), -30.0);
    EXPECT_EQ(tqCalGetTempFromIndex(INT32_MAX), 60.0);
}

TEST(CalFile, OnlyAWholeRecordIsLoaded) {
    const std::string path = testing::TempDir() + "tq_correction_def_test_" + std::to_string(getpid()) + ".bin";
    const auto written = PatternRecord();
    const auto read = std::make_unique<TQ720CalData>();
    for (const auto size : {std::streamsize{CAL_DATA_BYTES - 1}, std::streamsize{CAL_DATA_BYTES}}) {
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(written.get()), size);
        EXPECT_EQ(tqCalCorrectionLoadFromFile(path.c_str(), read.get()), size == CAL_DATA_BYTES);
    }
    EXPECT_TRUE(SameBytes(*read, *written));
    unlink(path.c_str());
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(path.c_str(), read.get()));
    EXPECT_FALSE(tqCalCorrectionLoadFromFile(nullptr, read.get()));
}
