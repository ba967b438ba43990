// What the tests of TqDevice and of the exports share: instruments whose calibration is at hand in the user's home, so
// that an open needs no restart, and hand-made aux packets.
#pragma once

#include "aux_reader.h"
#include "tq_correction_def.h"

#include "bus_fixture.h"

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

// A record that passes its check and carries what these tests look for.
struct CalRecord {
    // 5 until a temperature is known; at the 35 degrees of the instrument 8 + (12 - 8) / 3, of which 9 is whole.
    static constexpr int16_t TIMEBASE_CURVE[TQ720_CAL_TEMPS] = {5, 5, 5, 5, 8, 12, 12};

    CalRecord() : data(std::make_unique<TQ720CalData>()) {
        tqCalBuildDummyCorrections(data.get());
        data->magicNumber = 0xF0000000;
        data->calVersion = 2;  // a version without a checksum
        data->checksum = 0;
        data->calDate = 1700000000;
        data->timebaseCorr[0] = 31000;
        data->timebaseTimestamps[0] = 1700000100;
        for (int i = 0; i < TQ720_CAL_TEMPS; ++i) {
            data->timebaseTempCurve[i] = TIMEBASE_CURVE[i];
            data->measuredTemps[i] = static_cast<float>(tqCalGetTempFromIndex(i));
        }
    }

    std::unique_ptr<TQ720CalData> data;
};

// An aux packet whose text is one second of the receiver with a fix, behind a PPS edge.
inline AuxData PacketWithFix() {
    const std::string text = "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,180226,003.1,W*00\r\n";
    const auto words = static_cast<uint32_t>((text.size() + 3) / 4);
    AuxData aux{};
    aux.magicNumber = 0x41555831;
    aux.gpsBufferPointers = 1U << 18 | words << 9;  // first edge; text from word 0 on
    std::memcpy(aux.gpsData, text.data(), text.size());
    return aux;
}

class DeviceFixture : public BusFixture {
protected:
    void WriteLocalFile(int serial, const char* suffix, const void* bytes, size_t size) const {
        const std::filesystem::path folder = home / ".tarnwell";
        std::string number = std::to_string(serial);
        number.insert(0, 8 - number.size(), '0');
        std::filesystem::create_directories(folder);
        std::ofstream(folder / ("tq" + number + suffix), std::ios::binary)
            .write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    }

    // An instrument in its run program, of which this home has the calibration.
    sim::Instrument& PlugKnown(int serial, const CalRecord& record = {}) {
        WriteLocalFile(serial, ".bin", record.data.get(), sizeof(TQ720CalData));
        sim::InstrumentOptions options;
        options.serial = static_cast<uint32_t>(serial);
        return Plug(options);
    }
};
