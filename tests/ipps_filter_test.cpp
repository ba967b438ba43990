#include <algorithm>
#include <complex>
#include <numbers>
#include <span>
#include <string>

#include "ipps.h"
#include "ipps_test_support.h"

using ipps_test::Guarded;
using ipps_test::Values;

namespace {

using Complex = std::complex<double>;
constexpr double PI = std::numbers::pi;

template <class S>
Complex Wide(S value) {
    if constexpr (requires { value.re; }) {
        return {double(value.re), double(value.im)};
    } else {
        return double(value);
    }
}

template <class S>
bool Same(S a, S b) {
    return Wide(a) == Wide(b);
}

struct Real32 {
    using S = Ipp32f;
    using Spec = IppsFIRSpec_32f;
    static constexpr IppDataType TYPE = ipp32f;
    static constexpr auto Init = ippsFIRSRInit_32f;
    static constexpr auto Filter = ippsFIRSR_32f;
    static constexpr double UNIT_ROUNDOFF = 0x1p-24;
};
struct Real64 {
    using S = Ipp64f;
    using Spec = IppsFIRSpec_64f;
    static constexpr IppDataType TYPE = ipp64f;
    static constexpr auto Init = ippsFIRSRInit_64f;
    static constexpr auto Filter = ippsFIRSR_64f;
    static constexpr double UNIT_ROUNDOFF = 0x1p-53;
};
struct Complex32 {
    using S = Ipp32fc;
    using Spec = IppsFIRSpec_32fc;
    static constexpr IppDataType TYPE = ipp32fc;
    static constexpr auto Init = ippsFIRSRInit_32fc;
    static constexpr auto Filter = ippsFIRSR_32fc;
    static constexpr double UNIT_ROUNDOFF = 0x1p-24;
};

void SetRandom(Values& values, Ipp32fc& sample) { values.Next(sample); }
template <class T>
void SetRandom(Values& values, T& sample) {
    sample = static_cast<T>(values.Uniform());
}

// A filter with memory of exactly the asked sizes, at odd addresses.
template <class P>
struct Fir {
    using S = typename P::S;
    explicit Fir(const std::vector<S>& taps)
        : bytes(Sizes(static_cast<int>(taps.size()))), specMem(bytes.spec, 1), work(bytes.work, 3) {
        EXPECT_EQ(P::Init(taps.data(), static_cast<int>(taps.size()), ippAlgAuto, Spec()), ippStsNoErr);
    }
    typename P::Spec* Spec() { return reinterpret_cast<typename P::Spec*>(specMem.data()); }
    IppStatus Run(const S* src, S* dst, int len, S* delay) {
        return P::Filter(src, dst, len, Spec(), delay, delay, work.data());
    }

    struct Bytes {
        int spec = 0, work = 0;
    };
    static Bytes Sizes(int tapsLen) {
        Bytes bytes;
        EXPECT_EQ(ippsFIRSRGetSize(tapsLen, P::TYPE, &bytes.spec, &bytes.work), ippStsNoErr);
        return bytes;
    }

    Bytes bytes;
    Guarded<Ipp8u> specMem, work;
};

template <class P>
class IppsFir : public testing::Test {};
using Filters = testing::Types<Real32, Real64, Complex32>;
TYPED_TEST_SUITE(IppsFir, Filters);

TYPED_TEST(IppsFir, IsTheConvolutionHoweverTheStreamIsCut) {
    using S = typename TypeParam::S;
    constexpr int LEN = 3000;
    for (const int tapsLen : {1, 2, 5, 31, 300, 2047}) {
        Values values;
        std::vector<S> taps(static_cast<std::size_t>(tapsLen)), src(LEN), whole(LEN), pieces(LEN);
        for (S& tap : taps) SetRandom(values, tap);
        for (S& sample : src) SetRandom(values, sample);
        Fir<TypeParam> fir(taps);
        Guarded<S> delay(tapsLen - 1);
        for (int i = 0; i < tapsLen - 1; ++i) SetRandom(values, delay[i]);
        std::vector<S> past(delay.data(), delay.data() + tapsLen - 1);
        std::vector<S> stream = past;
        stream.insert(stream.end(), src.begin(), src.end());

        ASSERT_EQ(fir.Run(src.data(), whole.data(), LEN, delay.data()), ippStsNoErr);
        // Each product and each sum rounds once; a partial sum of terms up to 2 is at most 2 tapsLen.
        const double bound = TypeParam::UNIT_ROUNDOFF * 2.0 * tapsLen * (std::sqrt(tapsLen) + 2.0);
        for (int n = 0; n < LEN; n += tapsLen < 100 ? 1 : 37) {
            Complex want = 0.0;
            for (int k = 0; k < tapsLen; ++k) {
                want += Wide(taps[static_cast<std::size_t>(k)]) *
                        Wide(stream[static_cast<std::size_t>(n + tapsLen - 1 - k)]);
            }
            ASSERT_LE(std::abs(Wide(whole[static_cast<std::size_t>(n)]) - want), bound) << n << " of " << tapsLen;
        }
        const std::vector<S> after(stream.end() - (tapsLen - 1), stream.end());
        ASSERT_TRUE(std::ranges::equal(std::span(delay.data(), after.size()), after, Same<S>));

        // In place and in uneven blocks, some shorter than the taps and some empty.
        std::copy(past.begin(), past.end(), delay.data());
        pieces = src;
        const int cuts[] = {1, 0, 2, 7, 16, 64, 333, 1100};
        for (int done = 0, turn = 0; done < LEN; ++turn) {
            const int count = std::min(cuts[turn % 8], LEN - done);
            ASSERT_EQ(fir.Run(pieces.data() + done, pieces.data() + done, count, delay.data()), ippStsNoErr);
            done += count;
        }
        EXPECT_TRUE(std::ranges::equal(pieces, whole, Same<S>)) << tapsLen << " taps";
    }
}

TEST(IppsFirArguments, AreChecked) {
    const std::vector<float> one = {2.0F}, two = {1.0F, 1.0F};
    Fir<Real32> single(one), pair(two);
    float data[3] = {1, 2, 3}, delay[1] = {};
    int a = 0, b = 0;
    EXPECT_EQ(single.Run(data, data, 3, nullptr), ippStsNoErr);
    EXPECT_EQ(data[2], 6.0F);
    double taps[5];
    const double inf = std::numeric_limits<double>::infinity();
    const auto design = [&](double freq, int len, IppWinType type) {
        return ippsFIRGenLowpass_64f(freq, taps, len, type, ippTrue, nullptr);
    };
    const struct {
        const char* what;
        IppStatus got, want;
    } rows[] = {
        {"no delay line", pair.Run(data, data, 3, nullptr), ippStsNullPtrErr},
        {"no source", pair.Run(nullptr, data, 3, delay), ippStsNullPtrErr},
        {"negative length", pair.Run(data, data, -1, delay), ippStsSizeErr},
        {"no description", ippsFIRSR_32f(data, data, 3, nullptr, delay, delay, pair.work.data()), ippStsNullPtrErr},
        {"no buffer", ippsFIRSR_32f(data, data, 3, pair.Spec(), delay, delay, nullptr), ippStsNullPtrErr},
        {"no taps", ippsFIRSRInit_32f(nullptr, 2, ippAlgAuto, pair.Spec()), ippStsNullPtrErr},
        {"0 taps", ippsFIRSRInit_32f(data, 0, ippAlgAuto, pair.Spec()), ippStsSizeErr},
        {"size of 0 taps", ippsFIRSRGetSize(0, ipp32f, &a, &b), ippStsSizeErr},
        {"size beyond int", ippsFIRSRGetSize(1 << 29, ipp32fc, &a, &b), ippStsSizeErr},
        {"type", ippsFIRSRGetSize(5, static_cast<IppDataType>(15), &a, &b), ippStsBadArgErr},
        {"no size", ippsFIRSRGetSize(5, ipp32f, nullptr, &b), ippStsNullPtrErr},
        {"design of 4 taps", design(0.1, 4, ippWinRect), ippStsSizeErr},
        {"cut-off 0", design(0.0, 5, ippWinRect), ippStsRelFreqErr},
        {"cut-off 0.5", design(0.5, 5, ippWinRect), ippStsRelFreqErr},
        {"cut-off inf", design(inf, 5, ippWinRect), ippStsRelFreqErr},
        {"cut-off NaN", design(inf - inf, 5, ippWinRect), ippStsRelFreqErr},
        {"window", design(0.1, 5, static_cast<IppWinType>(5)), ippStsBadArgErr},
    };
    for (const auto& row : rows) EXPECT_EQ(row.got, row.want) << row.what;
}

// Taps 0 to 2 of 5, cut-off 0.2, worked out by hand from the closed forms.
TEST(IppsFirDesign, MatchesTheWindowedSinc) {
    const double sinc[3] = {std::sin(0.8 * PI) / (2 * PI), std::sin(0.4 * PI) / PI, 0.4};
    const struct {
        IppWinType type;
        double window[3];
    } rows[] = {
        {ippWinBartlett, {0.0, 0.5, 1.0}}, {ippWinHamming, {0.08, 0.54, 1.0}}, {ippWinHann, {0.0, 0.5, 1.0}},
        {ippWinBlackman, {0.0, 0.0, 1.0}},  // a = -1/2: 0.25 - 0.5 cos + 0.25 cos of twice the angle
        {ippWinRect, {1.0, 1.0, 1.0}},
    };
    for (const auto& row : rows) {
        for (const bool normal : {false, true}) {
            double taps[5];
            ASSERT_EQ(ippsFIRGenLowpass_64f(0.2, taps, 5, row.type, normal ? ippTrue : ippFalse, nullptr), ippStsNoErr);
            const double sum = 2 * sinc[0] * row.window[0] + 2 * sinc[1] * row.window[1] + sinc[2];
            for (int n = 0; n < 5; ++n) {
                const int i = std::min(n, 4 - n);
                EXPECT_NEAR(taps[n], sinc[i] * row.window[i] / (normal ? sum : 1.0), 1e-15) << row.type << ' ' << n;
            }
        }
    }
}

// The adjustable Blackman window is the one whose second point is 0 too; of 9 points the third is 1/2 + a.
TEST(IppsFirDesign, AdjustsItsBlackmanWindowToTheLength) {
    double windowed[9], plain[9];
    ASSERT_EQ(ippsFIRGenLowpass_64f(0.07, windowed, 9, ippWinBlackman, ippFalse, nullptr), ippStsNoErr);
    ASSERT_EQ(ippsFIRGenLowpass_64f(0.07, plain, 9, ippWinRect, ippFalse, nullptr), ippStsNoErr);
    const double window[5] = {0.0, 0.0, 0.2071067811865475, 0.7071067811865475, 1.0};
    for (int n = 0; n < 5; ++n) EXPECT_NEAR(windowed[n] / plain[n], window[n], 1e-14) << n;
}

TEST(IppsFirDesign, PassesBelowAndStopsAboveTheCutOff) {
    for (const int tapsLen : {1024, 2049}) {
        const double cutoff = 0.11;
        std::vector<double> taps(static_cast<std::size_t>(tapsLen));
        ASSERT_EQ(ippsFIRGenLowpass_64f(cutoff, taps.data(), tapsLen, ippWinBlackman, ippTrue, nullptr), ippStsNoErr);
        const auto gain = [&](double freq) {
            Complex sum = 0.0;
            for (int n = 0; n < tapsLen; ++n)
                sum += taps[static_cast<std::size_t>(n)] * std::polar(1.0, -2 * PI * freq * n);
            return std::abs(sum);
        };
        // The main lobe of this window is 3 bins to each side; within it the cut-off is the half-way point.
        const double lobe = 3.0 / tapsLen;
        EXPECT_NEAR(gain(0.0), 1.0, 1e-12);
        EXPECT_NEAR(gain(cutoff), 0.5, 1e-3);
        for (const double away : {1.1, 2.0, 10.0}) {
            EXPECT_NEAR(gain(cutoff - away * lobe), 1.0, 5e-3) << away;
            EXPECT_LE(gain(cutoff + away * lobe), 5e-3) << away;
        }
    }
}

// |H|^2 = 1 / (1 + eps^2 T^2(x)), with T the Chebyshev polynomial and x the pre-warped frequency over that of the
// edge, or its inverse for a high-pass.
TEST(IppsIirDesign, HasTheChebyshevResponse) {
    const struct {
        int order;
        double edge, rippleDb;
    } rows[] = {{1, 0.25, 0.5}, {2, 0.1, 3.0}, {3, 0.01, 0.1}, {4, 0.4, 1.0}, {7, 0.2, 29.0}, {12, 0.15, 0.5}};
    for (const auto& row : rows) {
        for (const bool highpass : {false, true}) {
            double taps[26];
            const auto design = highpass ? ippsIIRGenHighpass_64f : ippsIIRGenLowpass_64f;
            ASSERT_EQ(design(row.edge, row.rippleDb, row.order, taps, ippChebyshev1, nullptr), ippStsNoErr);
            EXPECT_EQ(taps[row.order + 1], 1.0);
            const double eps2 = std::pow(10.0, row.rippleDb / 10.0) - 1.0;
            for (const double freq : {0.0, 0.3 * row.edge, 0.77 * row.edge, row.edge, 1.2 * row.edge, 0.49, 0.5}) {
                const double x = highpass ? std::tan(PI * row.edge) / std::tan(PI * freq)
                                          : std::tan(PI * freq) / std::tan(PI * row.edge);
                const double t = x <= 1.0 ? std::cos(row.order * std::acos(x)) : std::cosh(row.order * std::acosh(x));
                Complex numerator = 0.0, denominator = 0.0;
                for (int k = 0; k <= row.order; ++k) {
                    const Complex z = std::polar(1.0, -2 * PI * freq * k);
                    numerator += taps[k] * z;
                    denominator += taps[row.order + 1 + k] * z;
                }
                const double want = 1.0 / std::sqrt(1.0 + eps2 * t * t);
                EXPECT_NEAR(std::abs(numerator / denominator), want, 1e-7)
                    << (highpass ? "high" : "low") << "-pass of order " << row.order << " at " << freq;
            }
        }
    }
}

TEST(IppsIir, IsItsDifferenceEquationHoweverTheStreamIsCut) {
    for (const int order : {1, 2, 5}) {
        double design[12];
        ippsIIRGenLowpass_64f(0.1, 1.0, order, design, ippChebyshev1, nullptr);
        std::vector<float> taps;
        for (int i = 0; i < 2 * order + 2; ++i) taps.push_back(static_cast<float>(2.0 * design[i]));  // A0 = 2
        int size = 0;
        ASSERT_EQ(ippsIIRGetStateSize_32f(order, &size), ippStsNoErr);
        Guarded<Ipp8u> memory(size, 1);
        IppsIIRState_32f* state = nullptr;
        ASSERT_EQ(ippsIIRInit_32f(&state, taps.data(), order, nullptr, memory.data()), ippStsNoErr);

        constexpr int LEN = 500;
        Values values;
        std::vector<float> src(LEN), whole(LEN), pieces;
        for (float& x : src) x = static_cast<float>(values.Uniform());
        ASSERT_EQ(ippsIIR_32f(src.data(), whole.data(), LEN, state), ippStsNoErr);
        std::vector<double> truth;
        for (int n = 0; n < LEN; ++n) {
            double y = 0.0;
            for (int k = 0; k <= std::min(order, n); ++k) {
                y += double(taps[static_cast<std::size_t>(k)]) * double(src[static_cast<std::size_t>(n - k)]);
                if (k > 0)
                    y -= double(taps[static_cast<std::size_t>(order + 1 + k)]) * truth[static_cast<std::size_t>(n - k)];
            }
            truth.push_back(y / double(taps[static_cast<std::size_t>(order) + 1]));
            ASSERT_NEAR(whole[static_cast<std::size_t>(n)], truth.back(), 1e-7) << n << ", order " << order;
        }

        ippsIIRInit_32f(&state, taps.data(), order, nullptr, memory.data());
        pieces = src;
        for (int done = 0, count = 1; done < LEN; done += count, count += 2) {
            count = std::min(count, LEN - done);
            ASSERT_EQ(ippsIIR_32f_I(pieces.data() + done, count, state), ippStsNoErr);
        }
        EXPECT_EQ(pieces, whole) << "order " << order;

        // A preset state is the part of the first outputs that is already known.
        const std::vector<float> preset(static_cast<std::size_t>(order), 0.25F);
        const float silence = 0.0F;
        float first = 0.0F;
        ippsIIRInit_32f(&state, taps.data(), order, preset.data(), memory.data());
        ippsIIR_32f(&silence, &first, 1, state);
        EXPECT_EQ(first, 0.25F);
    }
}

TEST(IppsIirArguments, AreChecked) {
    double taps[26];
    const auto design = [&](double freq, double ripple, int order, IppsIIRFilterType type) {
        return ippsIIRGenLowpass_64f(freq, ripple, order, taps, type, nullptr);
    };
    int size = 0;
    std::vector<Ipp8u> memory(4096);
    IppsIIRState_32f* state = nullptr;
    const float zeroA0[4] = {1, 1, 0, 1}, fine[4] = {1, 1, 1, 0};
    ASSERT_EQ(ippsIIRInit_32f(&state, fine, 1, nullptr, memory.data()), ippStsNoErr);
    float data[2] = {};
    const double nan = std::nan("");
    const struct {
        const char* what;
        IppStatus got, want;
    } rows[] = {
        {"order 0", design(0.1, 1, 0, ippChebyshev1), ippStsSizeErr},
        {"order 13", design(0.1, 1, 13, ippChebyshev1), ippStsSizeErr},
        {"edge 0", design(0.0, 1, 2, ippChebyshev1), ippStsRelFreqErr},
        {"edge 0.5", design(0.5, 1, 2, ippChebyshev1), ippStsRelFreqErr},
        {"edge NaN", design(nan, 1, 2, ippChebyshev1), ippStsRelFreqErr},
        {"ripple 0", design(0.1, 0, 2, ippChebyshev1), ippStsRippleErr},
        {"ripple 30", design(0.1, 30, 2, ippChebyshev1), ippStsRippleErr},
        {"type", design(0.1, 1, 2, ippButterworth), ippStsBadArgErr},
        {"null taps", ippsIIRGenHighpass_64f(0.1, 1, 2, nullptr, ippChebyshev1, nullptr), ippStsNullPtrErr},
        {"design size", ippsIIRGenGetBufferSize(13, &size), ippStsSizeErr},
        {"state size", ippsIIRGetStateSize_32f(0, &size), ippStsSizeErr},
        {"state beyond int", ippsIIRGetStateSize_32f(std::numeric_limits<int>::max(), &size), ippStsSizeErr},
        {"init order", ippsIIRInit_32f(&state, fine, 0, nullptr, memory.data()), ippStsSizeErr},
        {"A0", ippsIIRInit_32f(&state, zeroA0, 1, nullptr, memory.data()), ippStsDivByZeroErr},
        {"null state memory", ippsIIRInit_32f(&state, fine, 1, nullptr, nullptr), ippStsNullPtrErr},
        {"null state", ippsIIR_32f(data, data, 2, nullptr), ippStsNullPtrErr},
        {"length", ippsIIR_32f_I(data, -1, state), ippStsSizeErr},
    };
    for (const auto& row : rows) EXPECT_EQ(row.got, row.want) << row.what;
}

}  // namespace
