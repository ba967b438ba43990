// The reader of the GPS timebase file, on files of any content and size.
#include "tq_lib.h"

#include "fuzz_support.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int SERIAL = 1;
    WriteFile(FuzzHome() / ".tarnwell" / "tq00000001gps.bin", {data, size});
    const TqGPSCal before{false, 4711, 815};
    TqGPSCal cal = before;
    if (!ReadGPSCorrection(SERIAL, cal)) {
        Require(cal.valid == before.valid && cal.timeStamp == before.timeStamp && cal.voltage == before.voltage);
        return 0;
    }
    constexpr uint8_t HEAD[] = {'t', 'q', 'g', 0, 1, 0, 0, 0};
    Require(cal.valid && size >= 64 && std::memcmp(data, HEAD, sizeof HEAD) == 0);
    Require(std::memcmp(data + 8, &cal.timeStamp, 8) == 0 && std::memcmp(data + 16, &cal.voltage, 2) == 0);
    TqGPSCal again;
    Require(StoreGPSCorrection(SERIAL, cal) && ReadGPSCorrection(SERIAL, again));
    Require(again.timeStamp == cal.timeStamp && again.voltage == cal.voltage);
    return 0;
}
