#include "ipps_kernels.h"

#include <cpuid.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace ipps_detail {
namespace {

constexpr std::array<KernelSet, 3> SETS = {{{"sse41", 0}, {"avx2", 1}, {"avx512", 2}}};

// What the two wider sets need of leaf 7; leaf 1 must offer FMA and OSXSAVE besides.
constexpr std::uint32_t AVX2_FEATURES = bit_AVX2;
constexpr std::uint32_t AVX512_FEATURES = bit_AVX2 | bit_AVX512F | bit_AVX512VL | bit_AVX512BW | bit_AVX512DQ;

// Registers that the operating system saves on a task switch: bits of XCR0.
constexpr std::uint32_t AVX_STATE = 0x06;     // 128 and 256 bits
constexpr std::uint32_t AVX512_STATE = 0xE6;  // and masks, upper halves, registers 16 to 31

std::uint32_t SavedState() {
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low;
}

bool HasAll(std::uint32_t have, std::uint32_t wanted) { return (have & wanted) == wanted; }

const KernelSet& Best() {
    std::uint32_t eax = 0;
    std::uint32_t ebx = 0;
    std::uint32_t ecx = 0;
    std::uint32_t edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0 || !HasAll(ecx, bit_OSXSAVE | bit_AVX | bit_FMA)) return SETS[0];
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return SETS[0];
    const std::uint32_t state = SavedState();
    if (HasAll(ebx, AVX512_FEATURES) && HasAll(state, AVX512_STATE)) return SETS[2];
    return HasAll(ebx, AVX2_FEATURES) && HasAll(state, AVX_STATE) ? SETS[1] : SETS[0];
}

std::atomic<const KernelSet*> active{nullptr};

}  // namespace

const KernelSet& Kernels() {
    if (const KernelSet* const set = active.load(); set != nullptr) return *set;
    const KernelSet* set = nullptr;
    const KernelSet& best = Best();
    return active.compare_exchange_strong(set, &best) ? best : *set;
}

const KernelSet* KernelsFor(const char* name) {
    static const std::size_t best = Best().index;  // the sets ascend: whoever has one has all before it
    for (const KernelSet& set : SETS) {
        if (set.name == std::string_view(name)) return set.index <= best ? &set : nullptr;
    }
    return nullptr;
}

KernelOverride::KernelOverride(const KernelSet& set) : before(Kernels()) { active.store(&set); }

KernelOverride::~KernelOverride() { active.store(&before); }

}  // namespace ipps_detail
