#include "ipps_kernels.h"

#include <array>
#include <functional>
#include <optional>
#include <string>

#include "ipps_test_support.h"
#include "vector_kernels.h"

using ipps_detail::KernelOverride;
using ipps_detail::Kernels;
using ipps_detail::KernelSet;
using ipps_detail::KernelsFor;
using ipps_test::Guarded;
using ipps_test::Near;
using ipps_test::Values;

namespace {

constexpr std::array SET_NAMES = {"sse41", "avx2", "avx512"};

// --- The choice ---

TEST(IppsKernels, OffersTheSetsThatTheProcessorHas) {
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
                        __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq");
    EXPECT_NE(KernelsFor("sse41"), nullptr);
    EXPECT_EQ(KernelsFor("avx2") != nullptr, avx2);
    EXPECT_EQ(KernelsFor("avx512") != nullptr, avx512);
    EXPECT_EQ(KernelsFor("avx"), nullptr);
    EXPECT_EQ(&Kernels(), KernelsFor(avx512 ? "avx512" : avx2 ? "avx2" : "sse41"));
}

// --- What has a shape of its own ---

class IppsKernelSet : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        const KernelSet* const set = KernelsFor(GetParam());
        if (set == nullptr) GTEST_SKIP() << "no " << GetParam() << " on this processor";
        kernels = &VECTOR_KERNELS.Of(*set);
        scope.emplace(*set);
    }

    const VectorKernels* kernels = nullptr;
    std::optional<KernelOverride> scope;
};

INSTANTIATE_TEST_SUITE_P(All, IppsKernelSet, testing::ValuesIn(SET_NAMES),
                         [](const auto& paramInfo) { return std::string(paramInfo.param); });

TEST_P(IppsKernelSet, OffsetConversionIsTheTwoStepsForEveryInput) {
    constexpr int COUNT = 65536;
    std::vector<Ipp16s> raw(COUNT);
    for (int n = 0; n < COUNT; ++n) raw[static_cast<std::size_t>(n)] = static_cast<Ipp16s>(n - 32768);
    for (const int offset : {576, 0, -1, -576, 32767, -32768}) {
        for (const int scaleFactor : {15, 0, -64, 64}) {
            Guarded<float> dst(COUNT, 1);
            ASSERT_EQ(ipps_detail::ConvertOffset_16s32f_Sfs(raw.data(), static_cast<Ipp16s>(offset), dst.data(), COUNT,
                                                            scaleFactor),
                      ippStsNoErr);
            for (int n = 0; n < COUNT; ++n) {
                const int difference = std::clamp(n - 32768 - offset, -32768, 32767);
                ASSERT_EQ(dst[n], std::ldexp(static_cast<float>(difference), -scaleFactor))
                    << n - 32768 << " less " << offset << " scaled by " << scaleFactor;
            }
        }
    }
}

TEST_P(IppsKernelSet, ConversionExpandsUpwardInsideItsOwnDestination) {
    for (const int len : {1, 2, 7, 15, 16, 17, 33, 63, 64, 65, 129, 5003}) {
        Values values;
        Guarded<float> dst(len);
        auto* const upper = reinterpret_cast<Ipp16s*>(dst.data()) + len;
        std::vector<Ipp16s> raw(static_cast<std::size_t>(len));
        for (Ipp16s& value : raw) values.Next(value);
        std::memcpy(upper, raw.data(), raw.size() * sizeof(Ipp16s));
        kernels->convert16s32f(upper, 0, 1.0F, dst.data(), len);
        for (int n = 0; n < len; ++n) ASSERT_EQ(dst[n], float(raw[static_cast<std::size_t>(n)])) << n << " of " << len;
    }
}

TEST_P(IppsKernelSet, TransposesEveryShapeAroundItsTiles) {
    for (int rows = 1; rows <= 35; ++rows) {
        for (const int columns : {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 32, 33, 50}) {
            const int srcStride = columns + 3;
            const int dstStride = rows + 2;
            Guarded<float> src(rows * srcStride, 1);
            Guarded<float> dst(columns * dstStride, 2);
            for (int n = 0; n < src.size(); ++n) src[n] = static_cast<float>(n);
            for (int n = 0; n < dst.size(); ++n) dst[n] = -1.0F;
            ASSERT_EQ(ippiTranspose_32f_C1R(src.data(), 4 * srcStride, dst.data(), 4 * dstStride, {columns, rows}),
                      ippStsNoErr);
            for (int c = 0; c < columns; ++c) {
                for (int r = 0; r < dstStride; ++r) {
                    const float want = r < rows ? src[r * srcStride + c] : -1.0F;  // and nothing between the rows
                    ASSERT_EQ(dst[c * dstStride + r], want) << rows << " x " << columns << " at " << r << ", " << c;
                }
            }
        }
    }
}

// The rounding of the root, half that of its first approximation, and what Newton's step leaves of 2^-14: together
// below 1.1 units, for powers of every mantissa, and at the ends of the range.
TEST_P(IppsKernelSet, MagnitudeIsTheRootOfEveryPower) {
    constexpr std::uint32_t BLOCK = 1U << 18;
    std::vector<float> pairs(2 * BLOCK), got(BLOCK);
    const auto check = [&](std::uint32_t firstBits, float ratio) {
        for (std::uint32_t n = 0; n < BLOCK; ++n) {
            const std::uint32_t bits = firstBits + n;
            std::memcpy(&pairs[2 * n], &bits, sizeof(bits));
            pairs[2 * n + 1] = ratio * pairs[2 * n];
        }
        kernels->magnitude32fc(pairs.data(), got.data(), BLOCK);
        for (std::size_t n = 0; n < BLOCK; ++n) {
            const float power = pairs[2 * n] * pairs[2 * n] + pairs[2 * n + 1] * pairs[2 * n + 1];
            if (!Near(got[n], std::sqrt(static_cast<double>(power)), 1.1)) {
                FAIL() << std::hexfloat << pairs[2 * n] << ", " << pairs[2 * n + 1] << " gave " << got[n];
            }
        }
    };
    for (std::uint32_t bits = 0x3F800000; bits < 0x40000000; bits += BLOCK) check(bits, 0.7F);
    check(0, 0.0F);                       // powers that vanish
    check(0x1A000000 - BLOCK / 2, 0.0F);  // denormal powers
    check(0x20000000 - BLOCK / 2, 1.0F);  // the least normal powers
    check(0x5F800000 - BLOCK / 2, 0.0F);  // the largest powers, and infinite ones
    check(0x7F800000 - BLOCK / 2, 0.0F);  // infinity and NaN
    check(0xBF800000, -1.5F);
}

// Each addition errs by at most 2^-53 of the partial sum, which never exceeds the sum of the magnitudes; n additions.
TEST_P(IppsKernelSet, SumsAreThoseOfDoublePrecisionAndTheSameOnAllSets) {
    for (int count = 0; count <= 70; ++count) {
        Values values;
        std::vector<float> reals(static_cast<std::size_t>(count));
        std::vector<double> doubles(reals.size());
        long double want[2] = {}, wantWide[2] = {};
        double size = 0, sizeWide = 0;
        for (std::size_t n = 0; n < reals.size(); ++n) {
            reals[n] = static_cast<float>(values.Uniform());
            doubles[n] = values.Uniform();
            want[n % 2] += static_cast<long double>(reals[n]);
            wantWide[n % 2] += static_cast<long double>(doubles[n]);
            size += std::abs(double(reals[n]));
            sizeWide += std::abs(doubles[n]);
        }
        double got[2], gotWide[2], baseline[2], baselineWide[2];
        kernels->sums32f(reals.data(), count, got);
        kernels->sums64f(doubles.data(), count, gotWide);
        VECTOR_KERNELS_sse41.sums32f(reals.data(), count, baseline);
        VECTOR_KERNELS_sse41.sums64f(doubles.data(), count, baselineWide);
        for (int part = 0; part < 2; ++part) {
            EXPECT_NEAR(got[part], double(want[part]), count * 0x1p-53 * size) << count;
            EXPECT_NEAR(gotWide[part], double(wantWide[part]), count * 0x1p-53 * sizeWide) << count;
            EXPECT_EQ(got[part], baseline[part]) << count;
            EXPECT_EQ(gotWide[part], baselineWide[part]) << count;
        }
    }
}

}  // namespace
