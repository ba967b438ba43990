#include "tone_kernels.h"

#include "ipps_simd.h"

using std::ptrdiff_t;

namespace {

constexpr int STRIDE = 16;  // numbers from a value to the one it is made from: 8 complex ones

// One value's eight are as many registers, which wait for each other only from group to group; where they are few,
// several segments go side by side.
template <int SEGMENTS>
void RecurSide(float* values, ptrdiff_t count, ptrdiff_t stride, F32 turn) {
    constexpr int PARTS = STRIDE / LANES;
    F32 last[SEGMENTS][PARTS];
    for (int s = 0; s < SEGMENTS; ++s) {
        for (int p = 0; p < PARTS; ++p) last[s][p] = Load(values + s * 2 * stride + p * LANES);
    }
    for (ptrdiff_t n = STRIDE; n < 2 * count; n += STRIDE) {
        for (int s = 0; s < SEGMENTS; ++s) {
            for (int p = 0; p < PARTS; ++p) {
                last[s][p] = ComplexMul(last[s][p], turn);
                Store(values + s * 2 * stride + n + p * LANES, last[s][p]);
            }
        }
    }
}

void Recur(float* values, ptrdiff_t count, int segments, ptrdiff_t stride, const float turn[2]) {
    float pairs[LANES];
    for (int lane = 0; lane < LANES; ++lane) pairs[lane] = turn[lane % 2];
    const F32 turns = Load(pairs);
    constexpr int SIDE = TQ_BY_SET(4, 2, 1);
    int s = 0;
    for (; s + SIDE <= segments; s += SIDE) RecurSide<SIDE>(values + s * 2 * stride, count, stride, turns);
    for (; s < segments; ++s) RecurSide<1>(values + s * 2 * stride, count, stride, turns);
}

void Rotate(const double start[2], const double* turns, double* dst, ptrdiff_t count) {
    double pairs[LANES64];
    for (int lane = 0; lane < LANES64; ++lane) pairs[lane] = start[lane % 2];
    const F64 from = Load(pairs);
    ptrdiff_t n = 0;
    for (; n + LANES64 <= 2 * count; n += LANES64) Store(dst + n, ComplexMul(from, Load(turns + n)));
    if (const int part = static_cast<int>(2 * count - n); part > 0) {
        StorePart(dst + n, ComplexMul(from, LoadPart(turns + n, part)), part);
    }
}

}  // namespace

extern const ToneKernels TQ_KERNELS(TONE);
const ToneKernels TQ_KERNELS(TONE) = {.recur32fc = Recur, .rotate64fc = Rotate};
