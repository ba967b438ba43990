// The reader of the GPS receiver's text, over a few packets of any text, pointers and counters.
#include "aux_reader.h"

#include "fuzz_support.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    static const auto aux = std::make_unique<AuxData>();
    AuxReaderGPS reader;
    for (int packet = 0; packet < 8 && input.remaining_bytes() > 0; ++packet) {
        *aux = {};
        aux->magicNumber = AUX_MAGIC_NUMBER;
        // By default all of the text between two edges, from the start of the ring.
        const std::string text = input.ConsumeRandomLengthString(GPS_RING_BYTES);
        const auto words = static_cast<uint32_t>(text.size() + 3) / 4 % GPS_RING_WORDS;
        aux->gpsBufferPointers = static_cast<uint32_t>(packet % 4) << 18 | words << 9;
        if (input.ConsumeBool()) aux->gpsBufferPointers = input.ConsumeIntegral<uint32_t>();
        aux->counterAtPPSLow = input.ConsumeIntegral<uint32_t>();
        aux->counterAtPPSHigh = input.ConsumeIntegral<uint32_t>();
        aux->counterAtIQHigh = input.ConsumeIntegral<uint32_t>();
        aux->mainCounterHigh = input.ConsumeIntegral<uint32_t>();
        aux->statusFlags = input.ConsumeIntegral<uint32_t>();
        const AuxReaderGPS::GPSPPSReader pointers(aux->gpsBufferPointers);
        auto* const ring = reinterpret_cast<char*>(aux->gpsData);
        for (size_t i = 0; i < text.size(); ++i) {
            ring[(static_cast<size_t>(pointers.PPSPrevPtr()) * 4 + i) % GPS_RING_BYTES] = text[i];
        }
        reader.Configure(1 << input.ConsumeIntegralInRange(0, 2));
        reader.Update(aux.get());

        const int room = input.ConsumeIntegralInRange(-1, GPS_RING_BYTES + 2);
        const auto nmea = std::make_unique<char[]>(static_cast<size_t>(std::max(room, 0)));
        int length = room;
        TqGPSInfo info;
        Require(reader.Query(nullptr, &info, nmea.get(), &length) == tqNoError);
        Require(length <= std::max(room, 0) || room < 1);
        Require(room < 1 || nmea[static_cast<size_t>(length) - 1] == '\0');
        Require(std::isfinite(info.latitude) && std::isfinite(info.longitude) && std::isfinite(info.altitude));
    }
    return 0;
}
