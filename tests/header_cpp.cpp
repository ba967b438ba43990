// The public headers from C++: each stands alone, the enumerations keep the four bytes that they have in C, plain and
// mangled names link.
#include "tq_api_admin.h"

#include "tq_api.h"

#include <cstdio>
#include <type_traits>

template <typename... Enums>
constexpr bool AllFourBytes = ((std::is_enum_v<Enums> && sizeof(Enums) == 4) && ...);
static_assert(
    AllFourBytes<TqStatus, TqBool, TqMode, TqPowerState, TqDetector, TqScale, TqVideoUnits, TqWindowType, TqDataType,
                 TqTriggerEdge, TqGPSState, TqReference, TqGPIOFunction, TqAudioType, TqCorrectionMode, TqTempRange>);

int main() {
    int count = -1;
    if (tqGetDeviceList(nullptr, &count) != tqNullPtrErr || tqCloseDevice(0) != tqInvalidDeviceErr) {
        std::puts("a check is missing");
        return 1;
    }
    return tqCalGetTempFromIndex(3) == 15.0 ? 0 : 1;
}
