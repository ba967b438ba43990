#include "aux_reader.h"

#include "tq_lib.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
constexpr int64_t TICKS_PER_SECOND = 122880000;
constexpr int64_t DELAY_DEC_1 = 1950;            // 2048 - 98
constexpr int64_t FIX_NS = 1771418120000000000;  // 2026-02-18 12:35:20 UTC
const std::string FIX = "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,180226,003.1,W*6A\r\n";
const std::string ALTITUDE = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";

// Puts a counter where the wire has it.
void PutCounter(AuxData& aux, size_t offset, int64_t counter) {
    std::memcpy(reinterpret_cast<char*>(&aux) + offset, &counter, sizeof counter);
}

std::unique_ptr<AuxData> Packet(int64_t iqCounter = 0, int64_t triggerCounter = 0) {
    auto aux = std::make_unique<AuxData>();
    aux->magicNumber = 0x41555831;
    PutCounter(*aux, 16, triggerCounter);
    PutCounter(*aux, 32, iqCounter);
    return aux;
}

// A packet behind PPS edge number `ppsCount`, at ppsCounter, with the text of the second before from word `firstWord`
// of the ring on. The main counter stands at the I/Q counter, with something else in its top 12 bits.
std::unique_ptr<AuxData> GpsPacket(int ppsCount, int64_t ppsCounter, int64_t iqCounter, std::string text,
                                   size_t firstWord = 0) {
    auto aux = Packet(iqCounter);
    PutCounter(*aux, 8, iqCounter ^ int64_t{0x5A5} << 52);
    PutCounter(*aux, 24, ppsCounter);
    text.resize((text.size() + 3) / 4 * 4, '$');
    for (size_t i = 0; i < text.size(); i++) {
        reinterpret_cast<char*>(aux->gpsData)[(firstWord * 4 + i) % 2048] = text[i];
    }
    const auto last = static_cast<uint32_t>((firstWord + text.size() / 4) % 512);
    aux->gpsBufferPointers =
        static_cast<uint32_t>(firstWord) << 20 | static_cast<uint32_t>(ppsCount) << 18 | last << 9 | 0x1FF;
    return aux;
}

// A GPS reader that is fed one text after the other, each at an edge of its own.
struct GpsReader {
    void Feed(const std::string& text, size_t firstWord = 0) {
        reader.Update(GpsPacket(edges++ % 4, 1000, 1000, text, firstWord).get());
    }
    TqGPSInfo Fix() {
        TqGPSInfo info;
        reader.Query(nullptr, &info, nullptr, nullptr);
        return info;
    }
    std::string Text() {
        std::string text(4096, '?');
        int len = static_cast<int>(text.size());
        reader.Query(nullptr, nullptr, text.data(), &len);
        text.resize(static_cast<size_t>(len - 1));
        return text;
    }

    AuxReaderGPS reader;
    int edges = 0;
};

// An RMC line with these fields in place of those of FIX.
std::string Rmc(const std::string& time, const std::string& position, const std::string& date) {
    return "$GNRMC," + time + ",A," + position + ",0.0,0.0," + date + ",,,A*00\r\n";
}

TEST(AuxReaderStatus, ScalesReadingsAndIgnoresForeignPackets) {
    auto aux = Packet();
    aux->tempSensors[0] = 0x0190;
    aux->switcherVoltage[0] = 900;
    aux->current[1] = 1500;
    aux->fanSettings[0] = 64;
    aux->fanSettings[1] = 800;
    aux->statusFlags = 0x701;
    AuxReaderStatus status;
    status.Update(aux.get());
    status.Update(std::make_unique<AuxData>().get());
    EXPECT_EQ(status.DeviceTemp(), 25.0f);
    EXPECT_FLOAT_EQ(status.DeviceVoltage(), 4.977f);
    EXPECT_FLOAT_EQ(status.DeviceCurrent(), 3.0f);
    EXPECT_EQ(status.FanVoltage(), 5.0f);
    EXPECT_EQ(status.FanThreshold(), 50.0f);
    EXPECT_EQ(status.flags, 0x701u);

    status.Reconfigure();
    for (const auto& [drift, warns] : {std::pair{2.9f, false}, {3.0f, true}, {-2.9f, false}, {-3.2f, true}}) {
        status.deviceTemp = 25.0f + drift;
        EXPECT_EQ(status.TempWarning(), warns) << drift;
    }
}

TEST(AuxReaderTrigger, ReportsANewTriggerOnceAndFromTheSamplesThatCameWithIt) {
    constexpr int64_t DELAY_DEC_2 = 3920;
    AuxReaderTrigger reader;
    reader.Configure(2);
    reader.Reset();
    // The second packet brings the trigger that everything is compared with.
    const std::pair<int64_t, bool> TRIGGERS[] = {
        {5000, false}, {70000, false}, {70000, false}, {350000, true}, {350000, false}};
    int64_t iqCounter = 0;
    for (const auto& [trigger, reported] : TRIGGERS) {
        reader.Update(Packet(iqCounter += 100000, trigger).get());
        EXPECT_EQ(reader.HasExtTrigger(), reported) << iqCounter;
    }
    EXPECT_EQ(reader.ExtTrigger(), 350000 - (300000 + DELAY_DEC_2));

    auto foreign = Packet(600000, 550000);
    foreign->magicNumber++;
    reader.Update(foreign.get());
    EXPECT_FALSE(reader.HasExtTrigger());
    reader.Update(Packet(600000, 450000).get());
    EXPECT_EQ(reader.ExtTrigger(), 450000 - (500000 + DELAY_DEC_2));  // before those samples: negative

    reader.Reset();
    reader.Update(Packet(700000, 650000).get());
    reader.Update(Packet(800000, 750000).get());
    EXPECT_FALSE(reader.HasExtTrigger());
}

TEST(AuxReaderTrigger, CountersAtTheirEndsWrap) {
    AuxReaderTrigger reader;
    reader.Configure(4);
    reader.Update(Packet(HIGHEST, 0).get());
    reader.Update(Packet(-1, HIGHEST).get());
    reader.Update(Packet(LOWEST, LOWEST).get());
    EXPECT_EQ(reader.ExtTrigger(), HIGHEST - 7878);  // LOWEST - (7880 - 1), wrapped
}

TEST(AuxReaderGPS, TakesFixAndTimeFromTheText) {
    GpsReader gps;
    gps.Feed("36,M,,*4C\r\n" + FIX + ALTITUDE);
    EXPECT_TRUE(gps.reader.IsGPSDataValid());
    const TqGPSInfo fix = gps.Fix();
    EXPECT_NEAR(fix.latitude, 48.1173, 1e-9);
    EXPECT_NEAR(fix.longitude, 11.0 + 31.0 / 60.0, 1e-9);
    EXPECT_EQ(fix.altitude, 545.4);
    EXPECT_EQ(fix.secSinceEpoch, FIX_NS / 1000000000);

    gps.Feed(Rmc("123519", "4807.038,S,01131.000,W", "180226"));
    EXPECT_NEAR(gps.Fix().latitude, -48.1173, 1e-9);
    EXPECT_NEAR(gps.Fix().longitude, -(11.0 + 31.0 / 60.0), 1e-9);
    EXPECT_EQ(gps.Fix().altitude, 0.0);  // of this second's text, which had none

    gps.Feed("$GPRMC,123521,V,,,,,,,180226,,,N*53\r\n");
    EXPECT_FALSE(gps.reader.IsGPSDataValid());
    EXPECT_EQ(gps.Fix().latitude, 0.0);
}

// What can be read replaces the fix of before; what cannot leaves it.
TEST(AuxReaderGPS, UnreadableFieldsLeaveTheFix) {
    const std::string good = "4807.038,N,01131.000,E";
    const std::string longLine = "$GPRMC,000000,V," + std::string(499, 'x') + "\r\n";  // 512 from the tag on
    const struct {
        const char* name;
        std::string text;
        double latitude;
        int64_t seconds;
    } CASES[] = {
        {"no degrees", Rmc("123519", "7.038,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"16 degree digits", Rmc("123519", "123456789012345607.0,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"infinite", Rmc("123519", "10inf.0,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"empty hemisphere", Rmc("123519", "4807.038,,01131.000,E", "180226"), -48.1173, 1771418120},
        {"short time", Rmc("1235", good, "180226"), 48.1173, 1771418120},
        {"fraction of a second", Rmc("123520.00", good, "180226"), 48.1173, 1771418121},
        {"last of the century", Rmc("235959", good, "311299"), 48.1173, 4102444800},
        {"no line end", "$GPRMC,000000,V,,,,,,,,,,", 48.1173, 1771418120},
        {"line too long", longLine, 48.1173, 1771418120},
    };
    for (const auto& c : CASES) {
        GpsReader gps;
        gps.Feed(FIX);
        gps.Feed(c.text);
        EXPECT_TRUE(gps.reader.IsGPSDataValid()) << c.name;
        EXPECT_NEAR(gps.Fix().latitude, c.latitude, 1e-9) << c.name;
        EXPECT_EQ(gps.Fix().secSinceEpoch, c.seconds) << c.name;
    }
    GpsReader gps;
    gps.Feed(FIX);
    gps.Feed("$GPRMC,000000,V," + std::string(498, 'x') + "\r\n");  // 511 from the tag on: still a line
    EXPECT_FALSE(gps.reader.IsGPSDataValid());
}

TEST(AuxReaderGPS, AltitudeIsThisSentencesOrZero) {
    const std::pair<std::string, double> CASES[] = {
        {"$GPGGA,1,2,N,3,E,1,08,0.9,-12.5,M,46.9,M,,*47\r\n", -12.5},
        {"$GPGGA,1,2,N,3,E,1,08,0.9\r\n", 0.0},  // ends in front of the altitude
        {"$GPGGA,1,2,N,3,E,1,08,0.9,1e999,M\r\n", 0.0},
        {"$GPGGA,1,2,N,3,E,1,08,0.9,nan,M\r\n", 0.0},
        {"", 0.0},
        {"$GPGGA," + std::string(600, '1') + "\r\n", 545.4},  // not NMEA: changes nothing
    };
    for (const auto& [text, altitude] : CASES) {
        GpsReader gps;
        gps.Feed(FIX + ALTITUDE);
        gps.Feed(text);
        EXPECT_EQ(gps.Fix().altitude, altitude) << text;
    }
    GpsReader gps;
    gps.Feed("$GPRMC,123521,V,,,,,,,180226,,,N*53\r\n" + ALTITUDE);
    EXPECT_EQ(gps.Fix().altitude, 0.0) << "without a fix it is what the receiver remembers";
}

TEST(AuxReaderGPS, NoTextIsTooWild) {
    std::string wild;
    for (int i = 0; i < 2044; i++) wild += static_cast<char>(i * 7 + i / 256);
    for (const std::string date : {"-9-9-9", "999999", "abcdef", "1 2 3", "\xff\xff\xff\xff\xff\xff"}) {
        GpsReader gps;
        gps.Feed(Rmc(date, "4807.038,N,01131.000,E", date));
        gps.Feed(wild);
        gps.Feed(Rmc(date, std::string("48\0.0,N,1.0,E", 13), date));
        // Nothing that two characters each can name lies further from 2000 than this.
        EXPECT_LT(std::abs(static_cast<double>(gps.Fix().secSinceEpoch)), 5e9) << date;
    }
}

TEST(AuxReaderGPS, TextRunsAroundTheEndOfTheRing) {
    GpsReader gps;
    gps.Feed(FIX, 505);
    EXPECT_EQ(gps.Text().substr(0, FIX.size()), FIX);

    gps.Feed("", 300);  // equal pointers: no text, and the state of the receiver stands
    EXPECT_EQ(gps.Text(), "");
    EXPECT_TRUE(gps.reader.IsGPSDataValid());

    gps.Feed(std::string(2044, 'x'), 1);  // all but one word
    EXPECT_EQ(gps.Text(), std::string(2044, 'x'));
}

TEST(AuxReaderGPS, QueryFitsTheCallersBufferAndTellsWhatIsNew) {
    GpsReader gps;
    gps.Feed("ABCDEFGH");
    for (const TqBool isNew : {tqTrue, tqFalse}) {
        TqBool updated = tqFalse;
        gps.reader.Query(&updated, nullptr, nullptr, nullptr);
        EXPECT_EQ(updated, isNew);
    }
    constexpr std::pair<int, const char*> CASES[] = {{100, "ABCDEFGH"}, {9, "ABCDEFGH"}, {4, "ABC"},
                                                     {1, ""},           {0, "?"},        {-5, "?"}};
    for (const auto& [room, expected] : CASES) {
        char text[16] = "?";
        int len = room;
        gps.reader.Query(nullptr, nullptr, text, &len);
        EXPECT_EQ(len, std::min(room, 9));
        EXPECT_STREQ(text, expected) << room;
    }
}

TEST(AuxReaderGPS, StampsRunFromTheEdgeAndThenFromTheLastStamp) {
    constexpr int64_t EDGE = 5 * TICKS_PER_SECOND;
    AuxReaderGPS reader;
    reader.Update(GpsPacket(3, EDGE, EDGE + TICKS_PER_SECOND / 2 - DELAY_DEC_1, FIX).get());
    EXPECT_EQ(reader.GetLockedIQTime(), FIX_NS + 500000000);

    // 0 follows 3: a new edge, whose sentence names the same second again.
    reader.Update(GpsPacket(0, EDGE + TICKS_PER_SECOND, EDGE + TICKS_PER_SECOND - DELAY_DEC_1 - 3, FIX).get());
    EXPECT_EQ(reader.GetLockedIQTime(), FIX_NS - 24);  // three ticks before it

    reader.Configure(4);
    reader.Update(GpsPacket(0, 0, EDGE + 2 * TICKS_PER_SECOND - 7880, "").get());
    EXPECT_EQ(reader.GetLockedIQTime(), FIX_NS + 1000000000);

    // 366000000 ticks without an edge are borne, one more is not.
    const int64_t limit = EDGE + TICKS_PER_SECOND + 366000000;
    reader.Update(GpsPacket(0, 0, limit, "").get());
    EXPECT_TRUE(reader.IsGPSDataValid());
    const int64_t anchor = reader.GetLockedIQTime();
    EXPECT_EQ(anchor, FIX_NS + std::llround(static_cast<double>(366000000 + 7880) / 0.12288));
    reader.Update(GpsPacket(0, 0, limit + 1, "").get());
    EXPECT_FALSE(reader.IsGPSDataValid());
    TqGPSInfo fix;
    reader.Query(nullptr, &fix, nullptr, nullptr);
    EXPECT_EQ(fix.latitude, 0.0);
    EXPECT_EQ(reader.GetLockedIQTime(), anchor + 8);
    reader.Update(GpsPacket(0, 0, limit + TICKS_PER_SECOND, "").get());
    EXPECT_EQ(reader.GetLockedIQTime(), anchor + 1000000000);
}

TEST(AuxReaderGPS, WithoutGPSStampsStartAtTheHostsClockOnce) {
    AuxReaderGPS reader;
    const int64_t before = GetEpochNanos();
    reader.Update(Packet(1000).get());
    const int64_t start = reader.GetLockedIQTime();
    EXPECT_GE(start, before);
    EXPECT_LE(start, GetEpochNanos());
    reader.Update(Packet(1000 + TICKS_PER_SECOND).get());
    EXPECT_EQ(reader.GetLockedIQTime(), start + 1000000000);
    reader.Update(Packet(1000 - TICKS_PER_SECOND).get());
    EXPECT_EQ(reader.GetLockedIQTime(), start - 1000000000);
}

TEST(AuxReaderGPS, WildCountersAreDefined) {
    for (const int64_t pps : {int64_t{0}, int64_t{-1}, LOWEST, HIGHEST}) {
        for (const int64_t iq : {int64_t{0}, int64_t{-1}, LOWEST, HIGHEST}) {
            AuxReaderGPS valid;
            valid.Update(GpsPacket(1, pps, iq, FIX).get());
            valid.Update(GpsPacket(1, pps, -iq - 1, "").get());
            AuxReaderGPS host;
            host.Update(GpsPacket(1, pps, iq, "").get());
            host.Update(GpsPacket(2, iq, pps, "").get());
            EXPECT_FALSE(host.IsGPSDataValid());
        }
    }
}

}  // namespace
