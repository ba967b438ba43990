#include "peers_library.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <numbers>

#include <fftw3.h>

namespace bench {
namespace {

constexpr int LONGEST_PATIENT_ORDER = 16;  // beyond it, patience takes minutes

using Plan = std::shared_ptr<fftwf_plan_s>;

fftwf_complex* Native(Ipp32fc* data) { return reinterpret_cast<fftwf_complex*>(data); }

Plan Own(fftwf_plan plan) { return {plan, fftwf_destroy_plan}; }

unsigned Effort(int length) { return length <= 1 << LONGEST_PATIENT_ORDER ? FFTW_PATIENT : FFTW_MEASURE; }

Plan PlanTransform(int length, Ipp32fc* src, Ipp32fc* dst, int sign) {
    return Own(fftwf_plan_dft_1d(length, Native(src), Native(dst), sign, Effort(length)));
}

Process MakeTransform(Ipp32fc* src, Ipp32fc* dst, int order) {
    const Plan plan = PlanTransform(1 << order, src, dst, FFTW_FORWARD);
    return {src == dst ? "in place" : "", [=] { fftwf_execute(plan.get()); }};
}

// A transform of rank 0 moves data between two layouts. Planning spoils the arrays, so it has others.
Process MakeTranspose(const float* src, float* dst, int rows, int columns) {
    const auto size = static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns);
    const auto from = MakeBlock<float>(size), to = MakeBlock<float>(size);
    const fftwf_iodim dims[] = {{rows, columns, 1}, {columns, 1, rows}};
    const Plan plan = Own(fftwf_plan_guru_r2r(0, nullptr, 2, dims, from.get(), to.get(), nullptr, FFTW_PATIENT));
    return {"", [=] { fftwf_execute_r2r(plan.get(), const_cast<float*>(src), dst); }};
}

// A filter by overlapping transforms. Blocks are read where they lie, and written where they belong: the spectrum of
// the taps is turned so that a block's good values come first and the next block overwrites the others. Of a filter
// that keeps every factor-th value, the product is folded to a transform so much shorter.
class OverlapSave {
public:
    OverlapSave(std::span<const float> taps, int factor_, int size_)
        : size(size_),
          factor(factor_),
          past(static_cast<int>(taps.size()) - 1),
          step((size - past) / (2 * factor) * (2 * factor)),  // results stay on FFTW's 16-byte boundary
          history(static_cast<std::size_t>(past)),
          input(MakeBlock<Ipp32fc>(static_cast<std::size_t>(size))),
          spectrum(MakeBlock<Ipp32fc>(static_cast<std::size_t>(size))),
          response(MakeBlock<Ipp32fc>(static_cast<std::size_t>(size))),
          product(MakeBlock<Ipp32fc>(static_cast<std::size_t>(size / factor))),
          output(MakeBlock<Ipp32fc>(static_cast<std::size_t>(size / factor))),
          forward(PlanTransform(size, input.get(), spectrum.get(), FFTW_FORWARD)),
          backward(PlanTransform(size / factor, product.get(), output.get(), FFTW_BACKWARD)) {
        // Turned by `past` samples, and divided by the length.
        std::fill_n(input.get(), size, Ipp32fc{0.0f, 0.0f});
        const std::size_t mask = static_cast<std::size_t>(size) - 1;
        for (std::size_t n = 0; n < taps.size(); n++) {
            input[static_cast<std::ptrdiff_t>((n - static_cast<std::size_t>(past)) & mask)].re =
                taps[n] / static_cast<float>(size);
        }
        fftwf_execute(forward.get());
        std::copy_n(spectrum.get(), size, response.get());
    }

    void Restart() { std::ranges::fill(history, Ipp32fc{0.0f, 0.0f}); }

    // len at least as long as the history, a multiple of the factor.
    void Run(Ipp32fc* src, Ipp32fc* dst, int len) {
        for (int at = 0; at < len; at += step) {
            const bool inside = at >= past && at - past + size <= len && Fits(src + at - past);
            Ipp32fc* const block = inside ? src + at - past : input.get();
            if (!inside) Gather(src, at, len);
            fftwf_execute_dft(forward.get(), Native(block), Native(spectrum.get()));
            MultiplyFold(spectrum.get(), response.get(), product.get(), size / factor, factor);
            Ipp32fc* const to = dst + at / factor;
            if (at + size <= len && Fits(to)) {
                fftwf_execute_dft(backward.get(), Native(product.get()), Native(to));
            } else {
                fftwf_execute(backward.get());
                std::copy_n(output.get(), std::min(step, len - at) / factor, to);
            }
        }
        std::copy_n(src + len - past, past, history.begin());
    }

private:
    static bool Fits(Ipp32fc* data) { return fftwf_alignment_of(&data->re) == 0; }

    // The block of which the first new sample is src[at], with the history before and silence behind.
    void Gather(const Ipp32fc* src, int at, int len) {
        for (int i = 0; i < size; i++) {
            const int from = at - past + i;
            input[i] = from < 0      ? history[static_cast<std::size_t>(from + past)]
                       : from >= len ? Ipp32fc{0.0f, 0.0f}
                                     : src[from];
        }
    }

    int size, factor, past, step;
    std::vector<Ipp32fc> history;
    std::shared_ptr<Ipp32fc[]> input, spectrum, response, product, output;
    Plan forward, backward;
};

std::vector<Process> MakeFilter(const Ipp32fc* src, Ipp32fc* dst, int len, std::span<const float> taps, int factor) {
    // A forward plan out of place leaves its source as it is, though it takes it without const.
    Ipp32fc* const source = const_cast<Ipp32fc*>(src);
    const int least = static_cast<int>(std::bit_ceil(2 * taps.size()));
    std::vector<Process> processes;
    for (int size = least; size <= 16 * least && size <= len; size *= 2) {
        const auto filter = std::make_shared<OverlapSave>(taps, factor, size);
        processes.push_back(
            {"save " + std::to_string(size), [=] { filter->Run(source, dst, len); }, [=] { filter->Restart(); }});
    }
    return processes;
}

}  // namespace

Library FftwLibrary(const std::string& wisdomFile) {
    if (!wisdomFile.empty()) fftwf_import_wisdom_from_filename(wisdomFile.c_str());
    Library library;
    library.name = "fftw";
    library.about = fftwf_version;
    library.transform = MakeTransform;
    library.transpose = MakeTranspose;
    library.filter = MakeFilter;
    return library;
}

void SaveFftwPlans(const std::string& wisdomFile) {
    if (!wisdomFile.empty()) fftwf_export_wisdom_to_filename(wisdomFile.c_str());
}

}  // namespace bench
