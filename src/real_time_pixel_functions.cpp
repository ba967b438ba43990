#include "real_time_pixel_functions.h"

#include "vector_kernels.h"

#include <cmath>

namespace {

std::ptrdiff_t WholeFours(int len) { return (std::ptrdiff_t{len} + 3) / 4 * 4; }

void LogToPixel(const VectorKernels& kernels, const Ipp32f* src, Ipp32s* dst, int len, float div, float ref) {
    const float add = div - ref;
    const float scale = static_cast<float>(100.0 / static_cast<double>(div) * 2.56);
    kernels.level32f(src, add, scale, dst, WholeFours(len));
}

}  // namespace

void sse41LogToPixel(const Ipp32f* src, Ipp32s* dst, int len, float div, float ref) {
    LogToPixel(VECTOR_KERNELS_sse41, src, dst, len, div, ref);
}

void avx2LogToPixel(const Ipp32f* src, Ipp32s* dst, int len, float div, float ref) {
    LogToPixel(VECTOR_KERNELS.Now(), src, dst, len, div, ref);  // AVX2, or what is wider
}

void sse41MagToPixel(const Ipp32f* src, Ipp32s* dst, int len, float /*div*/, float ref) {
    constexpr double DBM_TO_DBMV = 46.9897;  // 0 dBm at 50 ohms is 223.6 mV
    const float scale = static_cast<float>(255.0 / std::pow(10.0, (static_cast<double>(ref) + DBM_TO_DBMV) / 20.0));
    VECTOR_KERNELS.Now().level32f(src, 0.0F, scale, dst, WholeFours(len));
}
