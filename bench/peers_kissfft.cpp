#include "peers_library.h"

#include <kissfft/kiss_fft.h>

namespace bench {
namespace {

Process MakeTransform(Ipp32fc* src, Ipp32fc* dst, int order) {
    if (src == dst) return {};  // it would only copy
    const std::shared_ptr<kiss_fft_state> plan(kiss_fft_alloc(1 << order, 0, nullptr, nullptr),
                                               [](kiss_fft_state* state) { kiss_fft_free(state); });
    return {"", [=] {
                kiss_fft(plan.get(), reinterpret_cast<const kiss_fft_cpx*>(src), reinterpret_cast<kiss_fft_cpx*>(dst));
            }};
}

}  // namespace

Library KissfftLibrary() {
    Library library;
    library.name = "kissfft";
    library.about = "kissfft 131";
    library.transform = MakeTransform;
    return library;
}

}  // namespace bench
