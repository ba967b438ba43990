#include "peers_library.h"

#include <complex>
#include <numbers>

#include <liquid/liquid.h>

namespace bench {
namespace {

using Complex = std::complex<float>;

// Its functions take sources without const, and don't write them.
Complex* Native(const Ipp32fc* data) { return reinterpret_cast<Complex*>(const_cast<Ipp32fc*>(data)); }
unsigned Count(int len) { return static_cast<unsigned>(len); }

void Magnitude(const Ipp32fc* src, float* dst, int len) { liquid_vectorcf_abs(Native(src), Count(len), dst); }

void Phase(const Ipp32fc* src, float* dst, int len) { liquid_vectorcf_carg(Native(src), Count(len), dst); }

void Multiply(const Ipp32fc* src1, const Ipp32fc* src2, Ipp32fc* dst, int len) {
    liquid_vectorcf_mul(Native(src1), Native(src2), Count(len), Native(dst));
}

Process MakeTransform(Ipp32fc* src, Ipp32fc* dst, int order) {
    const std::shared_ptr<fftplan_s> plan(fft_create_plan(1u << order, Native(src), Native(dst), LIQUID_FFT_FORWARD, 0),
                                          fft_destroy_plan);
    return {src == dst ? "in place" : "", [=] { fft_execute(plan.get()); }};
}

std::vector<Process> MakeShift(const Ipp32fc* src, Ipp32fc* dst, int len, double freq) {
    const std::shared_ptr<nco_crcf_s> oscillator(nco_crcf_create(LIQUID_VCO), nco_crcf_destroy);
    const auto restart = [=] {
        nco_crcf_set_phase(oscillator.get(), 0.0f);
        nco_crcf_set_frequency(oscillator.get(), static_cast<float>(2.0 * std::numbers::pi * freq));
    };
    restart();
    return {{"", [=] { nco_crcf_mix_block_up(oscillator.get(), Native(src), Native(dst), Count(len)); }, restart}};
}

std::vector<Process> MakeFilter(const Ipp32fc* src, Ipp32fc* dst, int len, std::span<const float> taps, int factor) {
    std::vector<float> own(taps.begin(), taps.end());
    const auto count = static_cast<unsigned>(own.size());
    std::vector<Process> processes;
    if (factor > 1) {
        const std::shared_ptr<firdecim_crcf_s> filter(
            firdecim_crcf_create(static_cast<unsigned>(factor), own.data(), count), firdecim_crcf_destroy);
        processes.push_back(
            {"decimator",
             [=] { firdecim_crcf_execute_block(filter.get(), Native(src), Count(len / factor), Native(dst)); },
             [=] { firdecim_crcf_reset(filter.get()); }});
        return processes;
    }
    const std::shared_ptr<firfilt_crcf_s> direct(firfilt_crcf_create(own.data(), count), firfilt_crcf_destroy);
    processes.push_back({"direct",
                         [=] { firfilt_crcf_execute_block(direct.get(), Native(src), Count(len), Native(dst)); },
                         [=] { firfilt_crcf_reset(direct.get()); }});
    for (const int block : {512, 1024, 2048}) {
        if (len % block != 0 || block < static_cast<int>(own.size()) - 1) continue;
        const std::shared_ptr<fftfilt_crcf_s> filter(
            fftfilt_crcf_create(own.data(), count, static_cast<unsigned>(block)), fftfilt_crcf_destroy);
        processes.push_back({"fft " + std::to_string(block),
                             [=] {
                                 for (int i = 0; i < len; i += block) {
                                     fftfilt_crcf_execute(filter.get(), Native(src + i), Native(dst + i));
                                 }
                             },
                             [=] { fftfilt_crcf_reset(filter.get()); }});
    }
    return processes;
}

}  // namespace

Library LiquidLibrary() {
    Library library;
    library.name = "liquid";
    library.about = std::string("liquid-dsp ") + liquid_libversion();
    library.multiply = Multiply;
    library.magnitude = Magnitude;
    library.phase = Phase;
    library.transform = MakeTransform;
    library.shift = MakeShift;
    library.filter = MakeFilter;
    return library;
}

}  // namespace bench
