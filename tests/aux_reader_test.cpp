#include "aux_reader.h"

#include "tq_lib.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr int64_t TICKS_PER_SECOND = 122880000;
constexpr int64_t DELAY_DEC_1 = 1950;            // 2048 - 98
constexpr int64_t FIX_NS = 1771418120000000000;  // 2026-02-18 12:35:20 UTC
const std::string FIX = "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,180226,003.1,W*6A\r\n";
const std::string ALTITUDE = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";

uint32_t Low(int64_t counter) { return static_cast<uint32_t>(counter); }
uint32_t High(int64_t counter) { return static_cast<uint32_t>(static_cast<uint64_t>(counter) >> 32); }

std::unique_ptr<AuxData> Packet(int64_t iqCounter = 0, int64_t triggerCounter = 0) {
    auto aux = std::make_unique<AuxData>();
    std::memset(aux.get(), 0, sizeof(AuxData));
    aux->magicNumber = AUX_MAGIC_NUMBER;
    aux->counterAtIQLow = Low(iqCounter);
    aux->counterAtIQHigh = High(iqCounter);
    aux->counterAtTriggerLow = Low(triggerCounter);
    aux->counterAtTriggerHigh = High(triggerCounter);
    return aux;
}

// A packet behind PPS edge number `ppsCount`, at ppsCounter, with the text of the second before from word `firstWord`
// of the ring on. The main counter stands at the I/Q counter.
std::unique_ptr<AuxData> GpsPacket(int ppsCount, int64_t ppsCounter, int64_t iqCounter, std::string text,
                                   size_t firstWord = 0) {
    auto aux = Packet(iqCounter);
    aux->mainCounterLow = Low(iqCounter);
    aux->mainCounterHigh = High(iqCounter);
    aux->counterAtPPSLow = Low(ppsCounter);
    aux->counterAtPPSHigh = High(ppsCounter);
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

TEST(AuxData, ReadsCountersAndPointersFromTheWire) {
    std::array<uint8_t, sizeof(AuxData)> wire = {};
    const uint8_t head[] = {0x31, 0x58, 0x55, 0x41};
    std::memcpy(wire.data(), head, sizeof head);
    for (size_t i = 8; i < 44; i++) wire[i] = static_cast<uint8_t>(0xA0 + i);
    AuxData aux;
    std::memcpy(&aux, wire.data(), sizeof aux);
    EXPECT_EQ(aux.magicNumber, AUX_MAGIC_NUMBER);
    EXPECT_EQ(aux.MainCounter(), 0x000EADACABAAA9A8u);  // 20 bits of the high word
    EXPECT_EQ(aux.TriggerCounter(), 0xB7B6B5B4B3B2B1B0u);
    EXPECT_EQ(aux.PPSCounter(), 0xBFBEBDBCBBBAB9B8u);
    EXPECT_EQ(aux.IQCounter(), 0xC7C6C5C4C3C2C1C0u);
    const AuxReaderGPS::GPSPPSReader pointers(0x0AB7F155);
    EXPECT_EQ(pointers.WritePtr(), 0x155);
    EXPECT_EQ(pointers.PPSCurrPtr(), 0x1F8);
    EXPECT_EQ(pointers.PPSCount(), 1);
    EXPECT_EQ(pointers.PPSPrevPtr(), 0xAB);
}

TEST(AuxReaderStatus, ScalesReadingsAndIgnoresForeignPackets) {
    auto aux = Packet();
    aux->tempSensors[0] = 0x0190;
    aux->switcherVoltage[0] = 900;
    aux->switcherVoltage[1] = 1;
    aux->current[0] = 1;
    aux->current[1] = 1500;
    aux->fanSettings[0] = 64;
    aux->fanSettings[1] = 800;
    aux->statusFlags = 0x701;
    AuxReaderStatus status;
    EXPECT_EQ(status.FanThreshold(), 45.0f);
    status.Update(aux.get());
    EXPECT_EQ(status.DeviceTemp(), 25.0f);
    EXPECT_FLOAT_EQ(status.DeviceVoltage(), 4.977f);
    EXPECT_FLOAT_EQ(status.DeviceCurrent(), 3.0f);
    EXPECT_EQ(status.FanVoltage(), 5.0f);
    EXPECT_EQ(status.FanThreshold(), 50.0f);
    EXPECT_TRUE(status.ADCOverflow() && status.IQDataLoss() && status.GPSTBLocked());
    EXPECT_FALSE(status.HasDitheringADC());

    const auto foreign = std::make_unique<AuxData>(AuxData{});
    status.Update(foreign.get());
    EXPECT_EQ(status.DeviceTemp(), 25.0f);
    EXPECT_EQ(status.flags, 0x701u);
}

TEST(AuxReaderStatus, WarnsFromThreeWholeDegreesOn) {
    AuxReaderStatus status;
    status.deviceTemp = 40.0f;
    status.Reconfigure();
    for (const auto& [drift, warns] :
         {std::pair{0.0f, false}, {2.9f, false}, {3.0f, true}, {-2.9f, false}, {-3.2f, true}}) {
        status.deviceTemp = 40.0f + drift;
        EXPECT_EQ(status.TempWarning(), warns) << drift;
    }
    status.Reconfigure();
    EXPECT_FALSE(status.TempWarning());
}

TEST(AuxReaderTrigger, ReportsANewTriggerOnceAndFromTheSamplesThatCameWithIt) {
    AuxReaderTrigger reader;
    reader.Configure(1);
    reader.Reset();
    struct Case {
        int64_t iq;
        int64_t trigger;
        bool reported;
    };
    constexpr Case CASES[] = {{100000, 5000, false},
                              {200000, 70000, false},
                              {300000, 70000, false},
                              {400000, 350000, true},
                              {500000, 350000, false}};
    for (const Case& c : CASES) {
        reader.Update(Packet(c.iq, c.trigger).get());
        EXPECT_EQ(reader.HasExtTrigger(), c.reported) << c.iq;
    }
    EXPECT_EQ(reader.ExtTrigger(), 350000 - (300000 + DELAY_DEC_1));

    auto foreign = Packet(600000, 550000);
    foreign->magicNumber++;
    reader.Update(foreign.get());
    EXPECT_FALSE(reader.HasExtTrigger());
    reader.Update(Packet(600000, 450000).get());
    EXPECT_EQ(reader.ExtTrigger(), 450000 - (500000 + DELAY_DEC_1));  // before those samples: negative

    reader.Reset();
    reader.Update(Packet(700000, 650000).get());
    reader.Update(Packet(800000, 750000).get());
    EXPECT_FALSE(reader.HasExtTrigger());
}

TEST(AuxReaderTrigger, DelayGrowsWithTheDecimation) {
    AuxReaderTrigger reader;
    for (const auto& [decimation, delay] : {std::pair{1, 1950}, {2, 3920}, {4, 7880}}) {
        reader.Configure(decimation);
        EXPECT_EQ(reader.iqCounterDelay, delay);
    }
}

TEST(AuxReaderTrigger, CountersAtTheirEndsWrap) {
    constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
    constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
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
    EXPECT_FALSE(gps.reader.IsGPSDataValidAndDisciplined());
    const TqGPSInfo fix = gps.Fix();
    EXPECT_NEAR(fix.latitude, 48.1173, 1e-9);
    EXPECT_NEAR(fix.longitude, 11.0 + 31.0 / 60.0, 1e-9);
    EXPECT_EQ(fix.altitude, 545.4);
    EXPECT_EQ(fix.secSinceEpoch, FIX_NS / 1000000000);

    gps.Feed(Rmc("123519", "4807.038,S,01131.000,W", "180226"));
    EXPECT_NEAR(gps.Fix().latitude, -48.1173, 1e-9);
    EXPECT_NEAR(gps.Fix().longitude, -(11.0 + 31.0 / 60.0), 1e-9);
    EXPECT_EQ(gps.Fix().altitude, 0.0);  // of this second's text, which had none

    auto steered = GpsPacket(gps.edges % 4, 1000, 1000, FIX);
    steered->statusFlags = 0x400;
    gps.reader.Update(steered.get());
    EXPECT_TRUE(gps.reader.IsGPSDataValidAndDisciplined());

    gps.edges++;
    gps.Feed("$GPRMC,123521,V,,,,,,,180226,,,N*53\r\n");
    EXPECT_FALSE(gps.reader.IsGPSDataValid());
    EXPECT_EQ(gps.Fix().latitude, 0.0);
    EXPECT_EQ(gps.Fix().secSinceEpoch, 0);
    EXPECT_NE(gps.Text().find("123521,V"), std::string::npos);
}

// What can be read replaces the fix of before; what cannot leaves it.
TEST(AuxReaderGPS, UnreadableFieldsLeaveTheFix) {
    const std::string good = "4807.038,N,01131.000,E";
    const std::string longLine = "$GPRMC,000000,V," + std::string(499, 'x') + "\r\n";  // 512 from the tag on
    struct Case {
        const char* name;
        std::string text;
        double latitude;
        int64_t seconds;
    };
    const Case CASES[] = {
        {"other position", Rmc("123519", "1030.000,N,00000.000,E", "180226"), 10.5, 1771418120},
        {"no degrees", Rmc("123519", "7.038,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"two digits", Rmc("123519", "07.038,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"no point", Rmc("123519", "4807,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"16 degree digits", Rmc("123519", "123456789012345607.0,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"words", Rmc("123519", "abcd.efg,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"infinite", Rmc("123519", "10inf.0,N,01131.000,E", "180226"), 48.1173, 1771418120},
        {"empty hemisphere", Rmc("123519", "4807.038,,01131.000,E", "180226"), -48.1173, 1771418120},
        {"long hemisphere", Rmc("123519", "4807.038,NN,01131.000,E", "180226"), -48.1173, 1771418120},
        {"no time", Rmc("", good, "180226"), 48.1173, 1771418120},
        {"short time", Rmc("1235", good, "180226"), 48.1173, 1771418120},
        {"short date", Rmc("123519", good, "1802"), 48.1173, 1771418120},
        {"fraction of a second", Rmc("123520.00", good, "180226"), 48.1173, 1771418121},
        {"last of the century", Rmc("235959", good, "311299"), 48.1173, 4102444800},
        {"no line end", "$GPRMC,000000,V,,,,,,,,,,", 48.1173, 1771418120},
        {"line too long", longLine, 48.1173, 1771418120},
        {"no sentence", "$GPGSV,1,1,01\r\n", 48.1173, 1771418120},
        {"two bytes", "RM", 48.1173, 1771418120},
    };
    for (const Case& c : CASES) {
        GpsReader gps;
        gps.Feed(FIX);
        gps.Feed(c.text);
        EXPECT_TRUE(gps.reader.IsGPSDataValid()) << c.name;
        EXPECT_NEAR(gps.Fix().latitude, c.latitude, 1e-9) << c.name;
        EXPECT_EQ(gps.Fix().secSinceEpoch, c.seconds) << c.name;
    }
}

TEST(AuxReaderGPS, LongestLineIsStillRead) {
    GpsReader gps;
    gps.Feed(FIX);
    gps.Feed("$GPRMC,000000,V," + std::string(498, 'x') + "\r\n");  // 511 from the tag on
    EXPECT_FALSE(gps.reader.IsGPSDataValid());
}

TEST(AuxReaderGPS, AltitudeIsThisSentencesOrZero) {
    const std::pair<const char*, double> CASES[] = {
        {"$GPGGA,1,2,N,3,E,1,08,0.9,-12.5,M,46.9,M,,*47\r\n", -12.5},
        {"$GPGGA,1,2,N,3,E,1,08,0.9\r\n", 0.0},  // ends in front of the altitude
        {"$GPGGA,1,2,N,3,E,1,08,0.9,,M\r\n", 0.0},
        {"$GPGGA,1,2,N,3,E,1,08,0.9,high,M\r\n", 0.0},
        {"$GPGGA,1,2,N,3,E,1,08,0.9,1e999,M\r\n", 0.0},
        {"$GPGGA,1,2,N,3,E,1,08,0.9,nan,M\r\n", 0.0},
        {"$GPGGA,1,2,N", 0.0},
        {"", 0.0},
    };
    for (const auto& [text, altitude] : CASES) {
        GpsReader gps;
        gps.Feed(ALTITUDE);
        ASSERT_EQ(gps.Fix().altitude, 545.4);
        gps.Feed(text);
        EXPECT_EQ(gps.Fix().altitude, altitude) << text;
    }
    GpsReader gps;
    gps.Feed(ALTITUDE);
    gps.Feed("$GPGGA," + std::string(600, '1') + "\r\n");  // not NMEA: changes nothing
    EXPECT_EQ(gps.Fix().altitude, 545.4);
}

TEST(AuxReaderGPS, NoTextIsTooWild) {
    std::string wild;
    for (int i = 0; i < 2044; i++) wild += static_cast<char>(i * 7 + i / 256);
    const std::string dates[] = {"-9-9-9", "999999", "abcdef", "      ", "1 2 3", "\xff\xff\xff\xff\xff\xff"};
    for (const std::string& date : dates) {
        GpsReader gps;
        gps.Feed(Rmc(date, "4807.038,N,01131.000,E", date));
        gps.Feed(wild);
        gps.Feed("RMC,,A\r\nGGA\r\n");
        gps.Feed(Rmc(date, std::string("48\0.0,N,1.0,E", 13), date));
        // Nothing that two characters each can name lies further from 2000 than this.
        EXPECT_LT(std::abs(static_cast<double>(gps.Fix().secSinceEpoch)), 5e9) << date;
    }
}

TEST(AuxReaderGPS, TextRunsAroundTheEndOfTheRing) {
    GpsReader gps;
    gps.Feed(FIX, 505);
    EXPECT_EQ(gps.Text().substr(0, FIX.size()), FIX);
    EXPECT_NEAR(gps.Fix().latitude, 48.1173, 1e-9);

    gps.Feed("", 300);  // equal pointers: no text, and the state of the receiver stands
    EXPECT_EQ(gps.Text(), "");
    EXPECT_TRUE(gps.reader.IsGPSDataValid());

    gps.Feed(std::string(2044, 'x'), 1);  // all but one word
    EXPECT_EQ(gps.Text(), std::string(2044, 'x'));
}

TEST(AuxReaderGPS, QueryFitsTheCallersBufferAndTellsWhatIsNew) {
    GpsReader gps;
    TqBool updated = tqTrue;
    gps.reader.Query(&updated, nullptr, nullptr, nullptr);
    EXPECT_EQ(updated, tqFalse);
    gps.Feed("ABCDEFGH");
    gps.reader.Query(&updated, nullptr, nullptr, nullptr);
    EXPECT_EQ(updated, tqTrue);
    gps.reader.Query(&updated, nullptr, nullptr, nullptr);
    EXPECT_EQ(updated, tqFalse);

    struct Case {
        int room;
        int written;
        const char* text;
    };
    for (const Case& c : {Case{9, 9, "ABCDEFGH"}, Case{100, 9, "ABCDEFGH"}, Case{4, 4, "ABC"}, Case{1, 1, ""},
                          Case{0, 0, "????"}, Case{-5, -5, "????"}}) {
        char text[16] = "????";
        int len = c.room;
        gps.reader.Query(nullptr, nullptr, text, &len);
        EXPECT_EQ(len, c.written);
        EXPECT_STREQ(text, c.text) << c.room;
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
    char text[4096];
    int len = sizeof text;
    reader.Query(nullptr, &fix, text, &len);
    EXPECT_EQ(fix.latitude, 0.0);
    EXPECT_EQ(len, 2049);
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
    constexpr int64_t WILD[] = {0, -1, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()};
    for (int64_t pps : WILD) {
        for (int64_t iq : WILD) {
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

TEST(AuxReaders, ClientMayReadWhilePacketsComeIn) {
    GpsReader gps;
    AuxReaderStatus status;
    std::atomic<bool> done = false;
    std::atomic<int> queries = 0;
    std::thread client([&] {
        while (!done) {
            const TqGPSInfo fix = gps.Fix();
            EXPECT_EQ(fix.latitude == 0.0, fix.longitude == 0.0);  // never half a fix
            EXPECT_EQ(gps.Text().size() % 4, 0u);
            EXPECT_FALSE(status.TempWarning());
            EXPECT_GE(gps.reader.GetLockedIQTime(), 0);
            EXPECT_FALSE(gps.reader.IsGPSDataValidAndDisciplined());
            queries++;
        }
    });
    while (queries < 100) {
        gps.Feed(FIX);
        gps.Feed("$GPRMC,123521,V,,,,,,,180226,,,N*53\r\n");
        status.Update(Packet().get());
    }
    done = true;
    client.join();
    EXPECT_FALSE(gps.reader.IsGPSDataValid());
}

}  // namespace
