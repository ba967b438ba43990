#include "tq_settings.h"

#include <algorithm>
#include <array>

namespace {

// Highest reference level of each attenuator index from 0 on, [dBm]; above the last, MAX_ATTEN.
constexpr std::array<double, MAX_ATTEN> ATTEN_LEVELS = {-20.0, -15.0, -10.0, -5.0, 0.0, 5.0};
static_assert(std::ranges::is_sorted(ATTEN_LEVELS));

}  // namespace

TqStatus GetBestRFConfig(TqRFSettings rfConfig, int& rfAtten) {
    const auto level = std::ranges::find_if(ATTEN_LEVELS, [&](double top) { return rfConfig.refLevel <= top; });
    rfAtten = rfConfig.atten >= 0 ? rfConfig.atten : static_cast<int>(level - ATTEN_LEVELS.begin());
    return tqNoError;
}

int GetBestRFAtten(TqRFSettings rfConfig) {
    int atten = 0;
    GetBestRFConfig(rfConfig, atten);
    return atten;
}
