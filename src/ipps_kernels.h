// The choice of the instruction set that the signal primitives run on. A family of kernels (vector, fft, ...) is one
// source, compiled once per set into objects of its own; each object exports one const table of functions. The sources
// ipps_*.cpp take their tables through KernelTables; tests and benchmarks run them on a set of their choice. Any thread
// may enter.
//
// A family's header declares its table type and three tables, and gathers them:
//     struct FftKernels { void (*pass)(...); ... };
//     extern const FftKernels FFT_KERNELS_sse41, FFT_KERNELS_avx2, FFT_KERNELS_avx512;
//     constexpr KernelTables<FftKernels> FFT_KERNELS = {{&FFT_KERNELS_sse41, &FFT_KERNELS_avx2, &FFT_KERNELS_avx512}};
// A caller writes FFT_KERNELS.Now().pass(...); what keeps data laid out for a set from call to call also keeps the
// table's address. Kernel sources see no more of this header than the declarations.
#pragma once

#include <cstddef>

namespace ipps_detail {

// One instruction set: "sse41", "avx2" (with FMA) or "avx512" (F, VL, BW, DQ), in ascending order.
struct KernelSet {
    const char* name;
    std::size_t index;
};

// The set in use: the best that processor and operating system offer, found at the first call.
const KernelSet& Kernels();

// The set of that name; null where this processor or its operating system lacks it, or the name is unknown.
const KernelSet* KernelsFor(const char* name);

// For tests and benchmarks: all primitives run on `set` until the object goes. Overrides nest; threads that are inside
// a primitive meanwhile finish on the set they began with.
class KernelOverride {
public:
    explicit KernelOverride(const KernelSet& set);
    ~KernelOverride();
    KernelOverride(const KernelOverride&) = delete;
    KernelOverride& operator=(const KernelOverride&) = delete;

private:
    const KernelSet& before;
};

// The tables of one family.
template <class Table>
struct KernelTables {
    const Table* bySet[3];

    const Table& Of(const KernelSet& set) const { return *bySet[set.index]; }
    const Table& Now() const { return Of(Kernels()); }
};

}  // namespace ipps_detail
