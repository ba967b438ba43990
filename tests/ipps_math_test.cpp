#include <array>
#include <bit>
#include <optional>
#include <string>

#include "ipps_kernels.h"
#include "ipps_test_support.h"

using ipps_detail::KernelOverride;
using ipps_detail::KernelSet;
using ipps_detail::KernelsFor;
using ipps_test::Guarded;
using ipps_test::Near;
using ipps_test::Values;

namespace {

constexpr std::array SET_NAMES = {"sse41", "avx2", "avx512"};
constexpr float INF = std::numeric_limits<float>::infinity();
constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();

using Operation = IppStatus (*)(const Ipp32f* pSrc, Ipp32f* pDst, int len);
using Truth = double (*)(double x);

struct Function {
    const char* name;
    Operation op;
    Truth truth;
    double ulps;
};

void PrintTo(const Function& function, std::ostream* out) { *out << function.name; }

// Bounds in units in the last place. The logarithm: half a unit for the last sum, one for the exponent's share where it
// is rounded on its own and lies in the binade above, a quarter for all that is smaller; where there is no such share,
// half a unit at most for the logarithm of the mantissa, which is then as large. The exponential: half a unit for the
// last sum, a quarter each for the fraction that 1 is added to and the reduced argument below it, and the rest of their
// polynomial. The root, where it is not rounded correctly: half a unit for the last sum, a tenth for what Newton's step
// leaves, a quarter where its correction is so small that it loses bits. An 11-bit mantissa, rounded, is off by half
// its unit: 2^12 of these.
constexpr double A11_ULPS = 4096.0;
constexpr Function FUNCTIONS[] = {
    {"Ln", ippsLn_32f, std::log, 1.75},
    {"LnA11", ippsLn_32f_A11, std::log, A11_ULPS},
    {"Exp", ippsExp_32f, std::exp, 1.5},
    {"Sqrt", ippsSqrt_32f, std::sqrt, 0.85},
    {"SqrtA11", ippsSqrt_32f_A11, std::sqrt, A11_ULPS},
};

// Of a phase: the rounding of the quotient, up to a unit where the angle lies in the binade below; and of the last two
// sums, half a unit each. Near the axis of 0 the last of them is exact, near another the quotient weighs less.
constexpr double PHASE_ULPS = 2.0;

// Also with the sign of zeros.
bool Agrees(float got, double want, double ulps) {
    return Near(got, want, ulps) && (std::isnan(want) || std::signbit(got) == std::signbit(want));
}

// Runs its tests on one instruction set, or skips them.
template <class Parameter>
class OnSet : public testing::TestWithParam<Parameter> {
protected:
    void Use(const char* name) {
        const KernelSet* const set = KernelsFor(name);
        if (set == nullptr) GTEST_SKIP() << "no " << name << " on this processor";
        scope.emplace(*set);
    }

private:
    std::optional<KernelOverride> scope;
};

class IppsMathFunction : public OnSet<std::tuple<const char*, Function>> {
protected:
    void SetUp() override { Use(std::get<0>(GetParam())); }
    const Function& Tested() const { return std::get<1>(GetParam()); }

    void ExpectAgreement(const std::vector<float>& src) const {
        const int len = static_cast<int>(src.size());
        std::vector<float> dst(src.size());
        ASSERT_GE(Tested().op(src.data(), dst.data(), len), 0);
        for (std::size_t n = 0; n < src.size(); ++n) {
            ASSERT_TRUE(Agrees(dst[n], Tested().truth(static_cast<double>(src[n])), Tested().ulps))
                << std::hexfloat << "of " << src[n] << ": " << dst[n] << " for "
                << Tested().truth(static_cast<double>(src[n]));
        }
    }
};

INSTANTIATE_TEST_SUITE_P(All, IppsMathFunction,
                         testing::Combine(testing::ValuesIn(SET_NAMES), testing::ValuesIn(FUNCTIONS)),
                         [](const auto& paramInfo) {
                             return std::string(std::get<1>(paramInfo.param).name) + "_" + std::get<0>(paramInfo.param);
                         });

TEST_P(IppsMathFunction, IsAccurateAllOverTheNumbers) {
    constexpr std::uint64_t STRIDE = 251;
    constexpr std::uint64_t PATTERNS = std::uint64_t{1} << 32;
    constexpr std::size_t CHUNK = 1 << 16;
    std::vector<float> src;
    for (std::uint64_t bits = 0; bits < PATTERNS; bits += STRIDE) {
        src.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
        if (src.size() < CHUNK && bits + STRIDE < PATTERNS) continue;
        ExpectAgreement(src);
        if (HasFatalFailure()) return;
        src.clear();
    }
}

// Every value around those where a function is 0, or an argument reduction, a range or a class of numbers ends.
TEST_P(IppsMathFunction, IsAccurateAroundItsSeams) {
    constexpr std::uint32_t REACH = 2000;
    for (const float seam : {0x1p-149F,
                             0x1p-126F,
                             0x1.8p-126F,
                             0.5F,
                             0.75F,
                             1.0F,
                             1.5F,
                             3.0F,
                             0x1.8p64F,
                             0.34657359F,
                             -0.34657359F,
                             1.0397208F,
                             88.722839F,
                             89.0F,
                             -87.336545F,
                             -103.27893F,
                             -103.97208F,
                             -104.0F,
                             0x1.fffffep127F,
                             -0x1p-149F,
                             -0x1p-126F,
                             -0x1.fffffep127F}) {
        std::vector<float> src;
        const auto middle = std::bit_cast<std::uint32_t>(seam);
        for (std::uint32_t bits = middle - REACH; bits != middle + REACH; ++bits) {
            src.push_back(std::bit_cast<float>(bits));
        }
        ExpectAgreement(src);
    }
}

class IppsMath : public OnSet<const char*> {
protected:
    void SetUp() override { Use(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(All, IppsMath, testing::ValuesIn(SET_NAMES),
                         [](const auto& paramInfo) { return std::string(paramInfo.param); });

TEST_P(IppsMath, WarnsOfAValueWithoutLogarithmOrRootWhereverItStands) {
    constexpr int LEN = 37;
    const struct {
        float value;
        IppStatus ofLn, ofSqrt;
    } rows[] = {
        {0.0F, ippStsLnZeroArg, ippStsNoErr},      {-0.0F, ippStsLnZeroArg, ippStsNoErr},
        {-1.0F, ippStsLnNegArg, ippStsSqrtNegArg}, {-0x1p-149F, ippStsLnNegArg, ippStsSqrtNegArg},
        {-INF, ippStsLnNegArg, ippStsSqrtNegArg},  {0x1p-149F, ippStsNoErr, ippStsNoErr},
        {INF, ippStsNoErr, ippStsNoErr},           {NOT_A_NUMBER, ippStsNoErr, ippStsNoErr},
    };
    for (const auto& row : rows) {
        for (int len = 1; len <= LEN; ++len) {
            std::vector<float> src(LEN, 5.0F), dst(LEN);
            src[static_cast<std::size_t>(len / 2)] = row.value;
            EXPECT_EQ(ippsLn_32f(src.data(), dst.data(), len), row.ofLn) << row.value << " among " << len;
            EXPECT_EQ(ippsLn_32f_A11(src.data(), dst.data(), len), row.ofLn) << row.value << " among " << len;
            EXPECT_EQ(ippsSqrt_32f(src.data(), dst.data(), len), row.ofSqrt) << row.value << " among " << len;
            EXPECT_EQ(ippsSqrt_32f_A11(src.data(), dst.data(), len), row.ofSqrt) << row.value << " among " << len;
        }
    }
    // Of zero and negative, the latter counts; and NaN after them hides nothing.
    std::vector<float> src(LEN, NOT_A_NUMBER), dst(LEN);
    src[1] = 0.0F;
    EXPECT_EQ(ippsLn_32f(src.data(), dst.data(), LEN), ippStsLnZeroArg);
    src[0] = -1.0F;
    EXPECT_EQ(ippsLn_32f(src.data(), dst.data(), LEN), ippStsLnNegArg);
}

void ExpectPhases(std::vector<Ipp32fc> src) {
    std::vector<float> dst(src.size());
    ASSERT_EQ(ippsPhase_32fc(src.data(), dst.data(), static_cast<int>(src.size())), ippStsNoErr);
    for (std::size_t n = 0; n < src.size(); ++n) {
        const double want = std::atan2(static_cast<double>(src[n].im), static_cast<double>(src[n].re));
        ASSERT_TRUE(Agrees(dst[n], want, PHASE_ULPS))
            << std::hexfloat << "of re " << src[n].re << " im " << src[n].im << ": " << dst[n] << " for " << want;
    }
}

TEST_P(IppsMath, PhaseIsAccurateInAllDirectionsAndSizes) {
    std::mt19937 generator(1);
    const auto bits = [&generator] { return static_cast<std::uint32_t>(generator()); };
    std::vector<Ipp32fc> anything, alike;  // of any bits at all; of sizes within a few powers of two
    for (int n = 0; n < 1 << 20; ++n) {
        anything.push_back({std::bit_cast<float>(bits()), std::bit_cast<float>(bits())});
        const float size = std::bit_cast<float>(bits());
        const auto part = static_cast<float>(static_cast<std::int32_t>(bits()));
        alike.push_back({size, std::ldexp(size * (part * 0x1p-31F), static_cast<int>(bits() % 12))});
    }
    ExpectPhases(anything);
    ExpectPhases(alike);
}

TEST_P(IppsMath, PhaseOfSpecialValuesIsThatOfTheCLibrary) {
    constexpr float SIZES[] = {0.0F, 0x1p-149F, 0x1p-126F, 1.0F, 0x1.fffffep127F, INF, NOT_A_NUMBER};
    std::vector<Ipp32fc> src;
    for (const float re : SIZES) {
        for (const float im : SIZES) {
            for (const Ipp32fc turned : {Ipp32fc{re, im}, {-re, im}, {re, -im}, {-re, -im}}) src.push_back(turned);
        }
    }
    ExpectPhases(src);
}

}  // namespace
