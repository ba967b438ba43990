#include <cpuid.h>

#include <array>
#include <cstdlib>

#include "ipps.h"
#include "ipps_detail.h"
#include "vector_kernels.h"

using ipps_detail::Check;

namespace {

constexpr std::int64_t ALIGNMENT = 64;  // a cache line, and the widest vector register

constexpr Ipp64u FEATURE_AVX = 0x100;
constexpr Ipp64u FEATURE_AVX_ENABLED = 0x200;
constexpr Ipp64u FEATURE_AVX2 = 0x8000;

// True if the operating system saves the registers of 128 and 256 bits on a task switch. Needs OSXSAVE.
bool SystemSavesAvxState() {
    constexpr std::uint32_t SSE_AND_AVX_STATE = 0x6;
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return (low & SSE_AND_AVX_STATE) == SSE_AND_AVX_STATE;
}

template <class T>
IppStatus Zero(T* pDst, int len) {
    if (const IppStatus status = Check(len, pDst); status != ippStsNoErr) return status;
    std::memset(pDst, 0, static_cast<std::size_t>(len) * sizeof(T));
    return ippStsNoErr;
}

template <class T>
IppStatus Fill(T val, T* pDst, int len) {
    if (const IppStatus status = Check(len, pDst); status != ippStsNoErr) return status;
    std::array<T, 16 / sizeof(T)> pattern;
    pattern.fill(val);
    VECTOR_KERNELS.Now().fill(pattern.data(), pDst, static_cast<std::ptrdiff_t>(sizeof(T)) * len);
    return ippStsNoErr;
}

// Correct for any overlap, which costs the plain copies nothing that could be measured.
template <class T>
IppStatus Move(const T* pSrc, T* pDst, int len) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    std::memmove(pDst, pSrc, static_cast<std::size_t>(len) * sizeof(T));
    return ippStsNoErr;
}

}  // namespace

IppStatus ippInit() {
    ipps_detail::Kernels();
    return ippStsNoErr;
}

Ipp64u ippGetEnabledCpuFeatures() {
    std::uint32_t eax = 0;
    std::uint32_t ebx = 0;
    std::uint32_t ecx = 0;
    std::uint32_t edx = 0;
    Ipp64u features = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return features;
    if ((ecx & bit_AVX) != 0) features |= FEATURE_AVX;
    if ((ecx & bit_OSXSAVE) != 0 && (ecx & bit_AVX) != 0 && SystemSavesAvxState()) features |= FEATURE_AVX_ENABLED;
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0 && (ebx & bit_AVX2) != 0) features |= FEATURE_AVX2;
    return features;
}

void* ippMalloc_L(std::int64_t byteCount) {
    if (byteCount <= 0 || byteCount > std::numeric_limits<std::int64_t>::max() - ALIGNMENT) return nullptr;
    const std::int64_t rounded = (byteCount + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    return std::aligned_alloc(static_cast<std::size_t>(ALIGNMENT), static_cast<std::size_t>(rounded));
}

Ipp8u* ippsMalloc_8u(int byteCount) { return static_cast<Ipp8u*>(ippMalloc_L(byteCount)); }

void ippsFree(void* ptr) { std::free(ptr); }

IppStatus ippsZero_8u(Ipp8u* pDst, int len) { return Zero(pDst, len); }
IppStatus ippsZero_32s(Ipp32s* pDst, int len) { return Zero(pDst, len); }
IppStatus ippsZero_32f(Ipp32f* pDst, int len) { return Zero(pDst, len); }
IppStatus ippsZero_32fc(Ipp32fc* pDst, int len) { return Zero(pDst, len); }
IppStatus ippsZero_64f(Ipp64f* pDst, int len) { return Zero(pDst, len); }

IppStatus ippsSet_32f(Ipp32f val, Ipp32f* pDst, int len) { return Fill(val, pDst, len); }
IppStatus ippsSet_32s(Ipp32s val, Ipp32s* pDst, int len) { return Fill(val, pDst, len); }
IppStatus ippsSet_64fc(Ipp64fc val, Ipp64fc* pDst, int len) { return Fill(val, pDst, len); }

IppStatus ippsCopy_8u(const Ipp8u* pSrc, Ipp8u* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsCopy_16sc(const Ipp16sc* pSrc, Ipp16sc* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsCopy_32s(const Ipp32s* pSrc, Ipp32s* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsCopy_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsCopy_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsCopy_64f(const Ipp64f* pSrc, Ipp64f* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsCopy_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, int len) { return Move(pSrc, pDst, len); }

IppStatus ippsMove_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) { return Move(pSrc, pDst, len); }
IppStatus ippsMove_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len) { return Move(pSrc, pDst, len); }

IppStatus ippsFlip_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    if (const IppStatus status = Check(len, pSrc, pDst); status != ippStsNoErr) return status;
    VECTOR_KERNELS.Now().flip32f(pSrc, pDst, len);
    return ippStsNoErr;
}
