// Nothing allocates while samples flow: all memory of a transform, filter or vector call is the caller's, obtained at
// set-up, and so is that of the GPS reader, which works on the threads of engines. Allocations of this whole process
// are counted, which is why the calls of libc stand here.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "aux_reader.h"
#include "dsp.h"
#include "ipps.h"
#include "ipps_kernels.h"

namespace {

std::atomic<long> allocations{0};

}  // namespace

// Sanitizers bring allocators of their own, which nothing may stand in front of.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool COUNTED = false;
#else
constexpr bool COUNTED = true;
extern "C" void* __libc_malloc(std::size_t);
extern "C" void* __libc_memalign(std::size_t, std::size_t);
extern "C" void* malloc(std::size_t bytes) {
    ++allocations;
    return __libc_malloc(bytes);
}
extern "C" void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
    ++allocations;
    return __libc_memalign(alignment, bytes);
}
#endif

namespace {

TEST(IppsAllocation, CountsWhatIsAllocated) {
    if (!COUNTED) GTEST_SKIP();
    const long before = allocations;
    const auto one = std::make_unique<std::vector<float>>(100);
    EXPECT_GE(allocations, before + 2) << one->size();
}

class IppsAllocationFree : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Sets, IppsAllocationFree, testing::Values("sse41", "avx2", "avx512"),
                         [](const auto& set) { return std::string(set.param); });

TEST_P(IppsAllocationFree, WhileSamplesFlow) {
    const ipps_detail::KernelSet* const set = ipps_detail::KernelsFor(GetParam());
    if (set == nullptr) GTEST_SKIP() << "no " << GetParam();
    const ipps_detail::KernelOverride chosen(*set);

    constexpr int N = 1 << 18;
    std::vector<Ipp32fc> in(N, {0.5F, -0.25F}), out(N);
    std::vector<float> values(N, 0.5F);
    const std::vector<Ipp16sc> samples(N, {1000, -1000});
    for (const int order : {3, 6, 10, 14, 18}) {
        DSP::FFT_32fc single(order, IPP_FFT_DIV_FWD_BY_N, ippAlgHintFast);
        const long before = allocations;
        single.FwdFFT(in.data(), out.data());
        single.InvFFT(out.data(), in.data());
        single.FwdFFT_I(out.data());
        EXPECT_EQ(allocations, before) << "order " << order;
    }
    for (const int taps : {1, 31, 129, 2049}) {  // direct and by transforms
        DSP::FIR_32fc filter(std::vector<Ipp32fc>(static_cast<std::size_t>(taps), {0.01F, 0.0F}).data(), taps);
        const long before = allocations;
        for (const int length : {1, 100, 4096, 100000}) filter.Filter(in.data(), out.data(), length);
        EXPECT_EQ(allocations, before) << taps << " taps";
    }
    DSP::IQFreqTuner_32fc fast(0.1, N, false), accurate(0.1, N, true);
    const long before = allocations;
    fast.Tune(in.data(), out.data(), N);
    accurate.Tune(in.data(), out.data(), N);
    ippsPowerSpectr_32fc(in.data(), values.data(), N);
    ippsLn_32f(values.data(), values.data(), N);
    ippsExp_32f_I(values.data(), N);
    ippsMagnitude_32fc(in.data(), values.data(), N);
    DSP::Convert_16sc32fc(samples.data(), out.data(), N);
    EXPECT_EQ(allocations, before);
}

TEST(GPSAllocationFree, WhateverTheReceiverSays) {
    AuxReaderGPS reader;
    const auto aux = std::make_unique<AuxData>();
    aux->magicNumber = AUX_MAGIC_NUMBER;
    const std::string sentences[] = {
        "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,180226,003.1,W*6A\r\n$GPGGA,1,2,N,3,E,1,08,0.9,545.4,M\r\n",
        "$GPRMC," + std::string(500, 'x') + "\r\n$GPGGA,," + std::string(500, 'y') + "\r\n"};
    uint32_t edges = 0;
    for (const std::string& text : sentences) {
        std::memcpy(aux->gpsData, text.data(), text.size());
        aux->gpsBufferPointers = ++edges << 18 | static_cast<uint32_t>(text.size() + 3) / 4 << 9;
        const long before = allocations;
        reader.Update(aux.get());
        EXPECT_EQ(allocations, before) << text;
    }
}

}  // namespace
