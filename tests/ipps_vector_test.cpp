#include <functional>
#include <string>
#include <tuple>

#include "ipps.h"
#include "ipps_kernels.h"
#include "ipps_test_support.h"

using ipps_test::Guarded;
using ipps_test::Near;
using ipps_test::Values;

namespace {

// --- Element-wise operations, each against its formula in double precision or 64-bit integers ---

struct ElementCase {
    std::string name;
    std::function<void(int len, int offset, bool inPlace)> run;
};

void PrintTo(const ElementCase& c, std::ostream* out) { *out << c.name; }

// How a result compares: integers exactly; single reals in ulps of a double; complex ones within a bound that scales
// with the terms added, here of size 1.
template <class T, class Want>
bool Agrees(T got, Want want, double ulps) {
    if constexpr (std::is_same_v<T, float>) {
        return Near(got, want, ulps);
    } else if constexpr (requires { got.re; }) {
        const double eps = std::numeric_limits<decltype(got.re)>::epsilon();
        return std::abs(double(got.re) - want.re) <= ulps * eps && std::abs(double(got.im) - want.im) <= ulps * eps;
    } else {
        return got == static_cast<T>(want);
    }
}

// `op` takes pointers to Src..., to Dst, and the length; `truth` one value of each Src.
template <class Dst, class... Src, class Op, class Truth>
ElementCase Element(std::string name, Op op, Truth truth, double ulps = 0.0) {
    return {std::move(name), [=](int len, int offset, bool inPlace) {
                using First = std::tuple_element_t<0, std::tuple<Src...>>;
                Values values;
                Guarded<Dst> separate(len, 3 - offset);
                auto wants = std::vector<decltype(truth(Src{}...))>();
                [&](Guarded<Src>&&... src) {
                    for (int n = 0; n < len; ++n) {
                        (values.Next(src[n]), ...);
                        wants.push_back(truth(src[n]...));
                    }
                    Dst* dst = separate.data();
                    if constexpr (std::is_same_v<First, Dst>) {
                        if (inPlace) dst = std::get<0>(std::tie(src...)).data();
                    }
                    ASSERT_GE(op(src.data()..., dst, len), 0);
                    for (int n = 0; n < len; ++n) {
                        ASSERT_TRUE(Agrees(dst[n], wants[static_cast<std::size_t>(n)], ulps))
                            << "element " << n << " of " << len << ", offset " << offset;
                    }
                }(Guarded<Src>(len, offset)...);
            }};
}

constexpr float C = 0.7310F;

// Each operation rounded to the type, none fused: all instruction sets give these bits.
template <class T>
T Product(T a, T b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

Ipp64fc Conjugate(Ipp32fc a) { return {double(a.re), -double(a.im)}; }

double Power(Ipp32fc a) { return double(a.re * a.re + a.im * a.im); }

template <class T>
std::int64_t Saturated(std::int64_t value) {
    return std::clamp<std::int64_t>(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
}

// Additions and products of single values are correctly rounded; a complex part has three roundings of terms up to 1,
// and powers of three roundings stay within 2 ulps. A magnitude adds the 1.1 of its root to half the relative error of
// the power.
std::vector<ElementCase> ElementCases() {
    using f = Ipp32f;
    const auto id = [](auto x) { return x; };
    return {
        Element<f, f, f>("Add_32f", ippsAdd_32f, [](double a, double b) { return a + b; }),
        Element<Ipp32u, Ipp32u, Ipp32u>("Add_32u", ippsAdd_32u, [](std::uint64_t a, std::uint64_t b) { return a + b; }),
        Element<f, f>(
            "AddC_32f", [](f* s, f* d, int n) { return ippsAddC_32f(s, C, d, n); },
            [](double a) { return a + double(C); }),
        Element<f, f, f>("Mul_32f", ippsMul_32f, [](double a, double b) { return a * b; }),
        Element<double, double, double>("Mul_64f", ippsMul_64f, [](double a, double b) { return a * b; }),
        Element<Ipp32fc, Ipp32fc, Ipp32fc>("Mul_32fc", ippsMul_32fc, Product<Ipp32fc>),
        Element<Ipp64fc, Ipp64fc, Ipp64fc>("Mul_64fc", ippsMul_64fc, Product<Ipp64fc>),
        Element<f, f>(
            "MulC_32f", [](f* s, f* d, int n) { return ippsMulC_32f(s, C, d, n); },
            [](double a) { return a * double(C); }),
        Element<double, double>(
            "MulC_64f", [](double* s, double* d, int n) { return ippsMulC_64f(s, 0.3, d, n); },
            [](double a) { return a * 0.3; }),
        Element<Ipp16s, Ipp16s>(
            "SubC_16s", [](Ipp16s* s, Ipp16s* d, int n) { return ippsSubC_16s_Sfs(s, 576, d, n, 0); },
            [](std::int64_t a) { return Saturated<Ipp16s>(a - 576); }),
        Element<Ipp32s, Ipp32s, Ipp32s>(
            "Sub_32s", [](Ipp32s* a, Ipp32s* b, Ipp32s* d, int n) { return ippsSub_32s_Sfs(a, b, d, n, 0); },
            [](std::int64_t a, std::int64_t b) { return Saturated<Ipp32s>(b - a); }),
        Element<f, f>("Sqr_32f", ippsSqr_32f, [](double a) { return a * a; }),
        Element<Ipp32fc, Ipp32fc>("Conj_32fc", ippsConj_32fc, Conjugate, 0.0),
        Element<f, Ipp32fc>("PowerSpectr_32fc", ippsPowerSpectr_32fc, Power),
        Element<f, Ipp32fc>(
            "Magnitude_32fc", ippsMagnitude_32fc, [](Ipp32fc a) { return std::sqrt(Power(a)); }, 2.1),
        Element<f, f, f>("MinEvery_32f", ippsMinEvery_32f,
                         [](double a, double b) { return std::isnan(a)   ? b
                                                         : std::isnan(b) ? b
                                                                         : std::fmin(a, b); }),
        Element<f, f, f>("MaxEvery_32f", ippsMaxEvery_32f,
                         [](double a, double b) { return std::isnan(a)   ? b
                                                         : std::isnan(b) ? b
                                                                         : std::fmax(a, b); }),
        Element<f, double>("Convert_64f32f", ippsConvert_64f32f, id),
        Element<f, Ipp16s>(
            "Convert_16s32f", [](Ipp16s* s, f* d, int n) { return ippsConvert_16s32f_Sfs(s, d, n, 15); },
            [](double a) { return a / 32768.0; }),
        Element<Ipp16s, f>(
            "Convert_32f16s", [](f* s, Ipp16s* d, int n) { return ippsConvert_32f16s_Sfs(s, d, n, ippRndNear, -3); },
            [](double a) { return std::isnan(a) ? 0.0 : std::nearbyint(std::clamp(a * 8.0, -32768.0, 32767.0)); }),
        Element<f, f>("Move_32f", ippsMove_32f, id),
        Element<Ipp64fc, Ipp64fc>("Copy_64fc", ippsCopy_64fc, id),
        Element<Ipp32fc, Ipp32fc>(
            "Zero_32fc", [](Ipp32fc*, Ipp32fc* d, int n) { return ippsZero_32fc(d, n); },
            [](Ipp32fc) { return Ipp64fc{}; }),
        Element<f, f>(
            "Set_32f", [](f*, f* d, int n) { return ippsSet_32f(C, d, n); }, [](f) { return double(C); }),
        Element<Ipp64fc, Ipp64fc>(
            "Set_64fc",
            [](Ipp64fc*, Ipp64fc* d, int n) {
                return ippsSet_64fc({1, -2}, d, n);
            },
            [](Ipp64fc) {
                return Ipp64fc{1, -2};
            }),
        Element<f, f>(
            "Exp_32f_I", [](f* s, f* d, int n) { return ippsMove_32f(s, d, n) + ippsExp_32f_I(d, n); },
            [](double a) { return std::exp(a); }, 2.0),
        // Bounds as ipps_math_test derives them.
        Element<f, f>(
            "Ln_32f", ippsLn_32f, [](double a) { return std::log(a); }, 1.75),
        Element<f, f>(
            "LnA11_32f", ippsLn_32f_A11, [](double a) { return std::log(a); }, 4096.0),
        Element<f, f>(
            "Sqrt_32f", ippsSqrt_32f, [](double a) { return std::sqrt(a); }, 0.85),
        Element<f, f>(
            "SqrtA11_32f", ippsSqrt_32f_A11, [](double a) { return std::sqrt(a); }, 4096.0),
        Element<f, Ipp32fc>(
            "Phase_32fc", ippsPhase_32fc, [](Ipp32fc a) { return std::atan2(double(a.im), double(a.re)); }, 2.0),
        Element<f, f>(
            "AddC_32f_I", [](f* s, f* d, int n) { return ippsMove_32f(s, d, n) + ippsAddC_32f_I(C, d, n); },
            [](double a) { return a + double(C); }),
        Element<f, f>(
            "MulC_32f_I", [](f* s, f* d, int n) { return ippsMove_32f(s, d, n) + ippsMulC_32f_I(C, d, n); },
            [](double a) { return a * double(C); }),
    };
}

class IppsElement : public testing::TestWithParam<std::tuple<const char*, ElementCase>> {};

TEST_P(IppsElement, FollowsItsFormulaAtEveryLengthAndStart) {
    const auto& [setName, elementCase] = GetParam();
    const ipps_detail::KernelSet* const set = ipps_detail::KernelsFor(setName);
    if (set == nullptr) GTEST_SKIP() << "no " << setName << " on this processor";
    const ipps_detail::KernelOverride scope(*set);
    for (const bool inPlace : {false, true}) {
        for (const int offset : {0, 1, 3}) {
            for (int len = 0; len <= 33; ++len) elementCase.run(len, offset, inPlace);
            for (const int len : {63, 64, 65, 127, 128, 129, 5003}) elementCase.run(len, offset, inPlace);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, IppsElement, testing::Combine(testing::Values("sse41", "avx2", "avx512"), testing::ValuesIn(ElementCases())),
    [](const auto& paramInfo) { return std::get<1>(paramInfo.param).name + "_" + std::get<0>(paramInfo.param); });

// --- What a table of formulas does not show ---

TEST(IppsVector, ScaledDifferencesRoundHalvesToEvenAndSaturate) {
    struct Row {
        Ipp32s from, subtracted;
        int scaleFactor;
        Ipp32s want;
    };
    constexpr Ipp32s LOW = std::numeric_limits<Ipp32s>::min();
    constexpr Ipp32s HIGH = std::numeric_limits<Ipp32s>::max();
    for (const Row& row : {Row{5, 0, 1, 2}, Row{7, 0, 1, 4}, Row{-5, 0, 1, -2}, Row{-7, 0, 1, -4}, Row{11, 0, 2, 3},
                           Row{LOW, HIGH, 31, -2}, Row{HIGH, LOW, 33, 0}, Row{HIGH, LOW, 64, 0}, Row{3, 0, -4, 48},
                           Row{1, 0, -31, HIGH}, Row{-1, 0, -64, LOW}, Row{0, 0, -64, 0}}) {
        Ipp32s got = 99;
        ASSERT_EQ(ippsSub_32s_Sfs(&row.subtracted, &row.from, &got, 1, row.scaleFactor), ippStsNoErr);
        EXPECT_EQ(got, row.want) << row.from << " - " << row.subtracted << " scaled by " << row.scaleFactor;
    }
    const Ipp16s lowest = -32768;
    Ipp16s got = 0;
    ASSERT_EQ(ippsSubC_16s_Sfs(&lowest, 576, &got, 1, 1), ippStsNoErr);
    EXPECT_EQ(got, -16672);
}

TEST(IppsVector, ConversionTo16BitsRoundsByMode) {
    struct Row {
        float value;
        Ipp16s zero, near, financial;
    };
    const float inf = std::numeric_limits<float>::infinity();
    for (const Row& row :
         {Row{0.5F, 0, 0, 1}, Row{1.5F, 1, 2, 2}, Row{2.5F, 2, 2, 3}, Row{-2.5F, -2, -2, -3}, Row{0.49999997F, 0, 0, 0},
          Row{32767.5F, 32767, 32767, 32767}, Row{-inf, -32768, -32768, -32768}, Row{inf, 32767, 32767, 32767},
          Row{std::nanf(""), 0, 0, 0}}) {
        const std::pair<IppRoundMode, Ipp16s> modes[] = {
            {ippRndZero, row.zero}, {ippRndNear, row.near}, {ippRndFinancial, row.financial}};
        for (const auto& [mode, want] : modes) {
            Ipp16s got = 99;
            ASSERT_EQ(ippsConvert_32f16s_Sfs(&row.value, &got, 1, mode, 0), ippStsNoErr);
            EXPECT_EQ(got, want) << row.value << " in mode " << mode;
        }
    }
    const float fullScale[] = {1.0F, -1.0F};
    Ipp16s got[2] = {};
    ippsConvert_32f16s_Sfs(fullScale, got, 2, ippRndNear, -15);
    EXPECT_EQ(got[0], 32767);
    EXPECT_EQ(got[1], -32768);
}

TEST(IppsVector, MovesAcrossOverlapAndFlips) {
    std::vector<float> ramp(1000);
    for (std::size_t n = 0; n < ramp.size(); ++n) ramp[n] = static_cast<float>(n);
    std::vector<float> down = ramp, up = ramp, flipped(1000);
    ippsMove_32f(down.data() + 3, down.data(), 990);
    ippsMove_32f(up.data(), up.data() + 3, 990);
    ippsFlip_32f(ramp.data(), flipped.data(), 1000);
    for (std::size_t n = 0; n < 990; ++n) {
        ASSERT_EQ(down[n], ramp[n + 3]);
        ASSERT_EQ(up[n + 3], ramp[n]);
        ASSERT_EQ(flipped[n], ramp[999 - n]);
    }
}

// GCC 12 at -O2 may carry a pair of doubles on in place of the floats it was narrowed to, unless the build says
// -fno-tree-slp-vectorize. Every result here that is promised in single precision rests on that flag.
[[gnu::noinline]] Ipp64fc ThroughSingle(double x, double y) {
    const Ipp32fc narrow = {static_cast<float>(x), static_cast<float>(y)};
    return {narrow.re, narrow.im};
}

[[gnu::noinline]] double ThroughSingle(double x) { return static_cast<double>(static_cast<float>(x)); }

TEST(IppsVector, BuildKeepsTheNarrowingOfPairs) {
    Values values;  // not constants, which the compiler would fold
    const double x = values.Uniform(), y = values.Uniform();
    const Ipp64fc got = ThroughSingle(x, y);
    EXPECT_EQ(got.re, ThroughSingle(x));
    EXPECT_EQ(got.im, ThroughSingle(y));
    EXPECT_NE(got.re, x);
}

TEST(IppsMemory, IsAlignedOrNull) {
    for (const std::int64_t bytes : {1, 63, 64, 65, 1000003}) {
        void* const memory = ippMalloc_L(bytes);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % 64, 0U);
        std::memset(memory, 1, static_cast<std::size_t>(bytes));
        ippsFree(memory);
    }
    for (const std::int64_t bytes : {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max() - 1}) {
        EXPECT_EQ(ippMalloc_L(bytes), nullptr) << bytes;
    }
    EXPECT_EQ(ippsMalloc_8u(-1), nullptr);
    ippsFree(nullptr);
}

TEST(IppsMemory, NamesTheFeaturesThatTheCompilerFinds) {
    const Ipp64u features = ippGetEnabledCpuFeatures();
    EXPECT_EQ((features & 0x300) == 0x300, __builtin_cpu_supports("avx") != 0);
    EXPECT_EQ((features & 0x8300) == 0x8300, __builtin_cpu_supports("avx2") != 0);
}

}  // namespace
