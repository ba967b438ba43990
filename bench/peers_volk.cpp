#include "peers_library.h"

#include <cmath>
#include <complex>
#include <numbers>

#include <volk/constants.h>
#include <volk/volk.h>

namespace bench {
namespace {

const lv_32fc_t* Native(const Ipp32fc* data) { return reinterpret_cast<const lv_32fc_t*>(data); }
lv_32fc_t* Native(Ipp32fc* data) { return reinterpret_cast<lv_32fc_t*>(data); }
unsigned Count(int len) { return static_cast<unsigned>(len); }

void FromDevice(const Ipp16sc* src, Ipp32fc* dst, int len) {
    volk_16i_s32f_convert_32f(&dst->re, &src->re, 32768.0f, Count(2 * len));
    volk_32f_s32f_add_32f(&dst->re, &dst->re, -576.0f / 32768.0f, Count(2 * len));
}

void Multiply(const Ipp32fc* src1, const Ipp32fc* src2, Ipp32fc* dst, int len) {
    volk_32fc_x2_multiply_32fc(Native(dst), Native(src1), Native(src2), Count(len));
}

void MultiplyReal(const float* src1, const float* src2, float* dst, int len) {
    volk_32f_x2_multiply_32f(dst, src1, src2, Count(len));
}

void Power(const Ipp32fc* src, float* dst, int len) { volk_32fc_magnitude_squared_32f(dst, Native(src), Count(len)); }

void Magnitude(const Ipp32fc* src, float* dst, int len) { volk_32fc_magnitude_32f(dst, Native(src), Count(len)); }

void Phase(const Ipp32fc* src, float* dst, int len) { volk_32fc_s32f_atan2_32f(dst, Native(src), 1.0f, Count(len)); }

void Root(const float* src, float* dst, int len) { volk_32f_sqrt_32f(dst, src, Count(len)); }

void Exponential(const float* src, float* dst, int len) { volk_32f_exp_32f(dst, src, Count(len)); }

void Decibel(const float* src, float* dst, int len) {
    volk_32f_log2_32f(dst, src, Count(len));
    volk_32f_s32f_multiply_32f(dst, dst, 3.0103f, Count(len));
}

void Minimum(const float* src1, const float* src2, float* dst, int len) {
    volk_32f_x2_min_32f(dst, src1, src2, Count(len));
}

void Maximum(const float* src1, const float* src2, float* dst, int len) {
    volk_32f_x2_max_32f(dst, src1, src2, Count(len));
}

std::vector<Process> MakeShift(const Ipp32fc* src, Ipp32fc* dst, int len, double freq) {
    const auto phase = std::make_shared<lv_32fc_t>(1.0f, 0.0f);
    const lv_32fc_t step(std::polar(1.0, 2.0 * std::numbers::pi * freq));
    const auto run = [=] { volk_32fc_s32fc_x2_rotator_32fc(Native(dst), Native(src), step, phase.get(), Count(len)); };
    return {{"", run, [=] { *phase = 1.0f; }}};
}

}  // namespace

Library VolkLibrary() {
    Library library;
    library.name = "volk";
    library.about = std::string("VOLK ") + volk_version() + " " + volk_get_machine();
    library.fromDevice = FromDevice;
    library.multiply = Multiply;
    library.multiplyReal = MultiplyReal;
    library.power = Power;
    library.magnitude = Magnitude;
    library.phase = Phase;
    library.root = Root;
    library.exponential = Exponential;
    library.decibel = Decibel;
    library.minimum = Minimum;
    library.maximum = Maximum;
    library.shift = MakeShift;
    return library;
}

}  // namespace bench
