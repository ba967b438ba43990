#include <algorithm>
#include <array>
#include <complex>
#include <numbers>
#include <span>
#include <string>

#include "ipps.h"
#include "ipps_fir_down.h"
#include "ipps_kernels.h"
#include "ipps_test_support.h"

using ipps_detail::FirDown_32fc;
using ipps_detail::FirDownGetSize_32fc;
using ipps_detail::FirDownInit_32fc;
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

constexpr std::array SET_NAMES = {"sse41", "avx2", "avx512"};

// Runs check() on each instruction set that the processor has.
template <class F>
void OnEachSet(F check) {
    for (const char* name : SET_NAMES) {
        const ipps_detail::KernelSet* const set = ipps_detail::KernelsFor(name);
        if (set == nullptr) continue;
        SCOPED_TRACE(name);
        const ipps_detail::KernelOverride use(*set);
        check();
    }
}

// A filter with memory of exactly the asked sizes, at odd addresses.
template <class P>
struct Fir {
    using S = typename P::S;
    explicit Fir(const std::vector<S>& taps, IppAlgType algorithm = ippAlgAuto)
        : bytes(Sizes(static_cast<int>(taps.size()))), specMem(bytes.spec, 1), work(bytes.work, 3) {
        EXPECT_EQ(P::Init(taps.data(), static_cast<int>(taps.size()), algorithm, Spec()), ippStsNoErr);
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

// A random filter and a stream behind the inputs of its delay line, with the truth about its outputs.
template <class P>
struct Trial {
    using S = typename P::S;

    Trial(int tapsLen, int len, bool realTaps) : taps(Size(tapsLen)), stream(Size(tapsLen - 1 + len)) {
        Values values;
        for (S& tap : taps) {
            SetRandom(values, tap);
            if constexpr (std::is_same_v<S, Ipp32fc>) {
                if (realTaps) tap.im = 0.0F;
            }
            tapsSum += std::abs(Wide(tap));
        }
        for (S& sample : stream) SetRandom(values, sample);
        SumEnergy();
    }

    const S* Src() const { return stream.data() + taps.size() - 1; }
    std::span<const S> Past() const { return std::span(stream).first(taps.size() - 1); }
    std::span<const S> After() const { return std::span(stream).last(taps.size() - 1); }

    Complex Truth(int n) const {
        Complex sum = 0.0;
        for (std::size_t k = 0; k < taps.size(); ++k)
            sum += Wide(taps[k]) * Wide(stream[Size(n) + taps.size() - 1 - k]);
        return sum;
    }
    // A sum in any order: each product and each addition rounds once, and no partial sum exceeds the whole of absolute
    // values. Values are within 1 in each part.
    double DirectBound() const {
        const double count = static_cast<double>(taps.size());
        return P::UNIT_ROUNDOFF * 2.0 * count * (std::sqrt(count) + 2.0);
    }
    // As ipps.h derives it; the fold of a filter that keeps one output in `factor` adds as many terms.
    double TransformBound(int n, int factor) const {
        const int segment = std::max(256, 16 * std::max(static_cast<int>(taps.size()), factor));
        const int last = static_cast<int>(stream.size());
        const int at = n + static_cast<int>(taps.size()) - 1;
        const double sum = energy[Size(std::max(at - segment, 0))] - energy[Size(std::min(at + segment, last))];
        return P::UNIT_ROUNDOFF * (20.0 * std::log2(segment) + 8.0 + factor - 1.0) * tapsSum * std::sqrt(sum);
    }

    std::vector<S> taps, stream;

private:
    static std::size_t Size(int n) { return static_cast<std::size_t>(n); }
    void SumEnergy() {
        energy.assign(stream.size() + 1, 0.0);
        for (std::size_t n = stream.size(); n-- > 0;) energy[n] = energy[n + 1] + std::norm(Wide(stream[n]));
    }

    double tapsSum = 0.0;
    std::vector<double> energy;  // of each input and all after it: loud beginnings leave the rest exact
};

template <class P>
class IppsFir : public testing::Test {};
using Filters = testing::Types<Real32, Real64, Complex32>;
TYPED_TEST_SUITE(IppsFir, Filters);

// Blocks of every length around the vectors', some shorter than the taps, some empty, some of several segments.
std::vector<int> Cuts(int len) {
    std::vector<int> cuts;
    for (int left = len, turn = 0; left > 0; ++turn) {
        const int count = std::min(left, turn < 34 ? turn : turn * turn);
        cuts.push_back(count);
        left -= count;
    }
    return cuts;
}

TYPED_TEST(IppsFir, IsTheConvolutionHoweverTheStreamIsCut) {
    using S = typename TypeParam::S;
    constexpr int LEN = 7000;
    const auto check = [&](int tapsLen, bool realTaps, IppAlgType algorithm) {
        SCOPED_TRACE(testing::Message() << tapsLen << " taps, real " << realTaps << ", algorithm " << algorithm);
        Trial<TypeParam> trial(tapsLen, LEN, realTaps);
        Fir<TypeParam> fir(trial.taps, algorithm);
        Guarded<S> delay(tapsLen - 1);
        std::ranges::copy(trial.Past(), delay.data());
        Guarded<S> whole(LEN, 1);
        ASSERT_EQ(fir.Run(trial.Src(), whole.data(), LEN, delay.data()), ippStsNoErr);
        ASSERT_TRUE(std::ranges::equal(std::span(delay.data(), delay.data() + tapsLen - 1), trial.After(), Same<S>));

        // In place, each block at the place that its number gives.
        std::ranges::copy(trial.Past(), delay.data());
        const bool direct = sizeof(S) != sizeof(Ipp32fc) || algorithm == ippAlgDirect || tapsLen < 20;
        int done = 0;
        for (const int count : Cuts(LEN)) {
            Guarded<S> block(count, done % 5);
            std::copy_n(trial.Src() + done, count, block.data());
            ASSERT_EQ(fir.Run(block.data(), block.data(), count, delay.data()), ippStsNoErr);
            for (int i = 0; i < count; ++i) {
                const int n = done + i;
                if (direct || std::is_same_v<S, Ipp64f>) {
                    ASSERT_TRUE(Same(block[i], whole[n])) << n;
                } else {
                    ASSERT_LE(std::abs(Wide(block[i]) - Wide(whole[n])), 2.0 * trial.TransformBound(n, 1)) << n;
                }
            }
            done += count;
        }
        ASSERT_TRUE(std::ranges::equal(std::span(delay.data(), delay.data() + tapsLen - 1), trial.After(), Same<S>));

        for (int n = 0; n < LEN; n += tapsLen < 100 ? 1 : 37) {
            const double bound =
                direct ? trial.DirectBound() : std::max(trial.DirectBound(), trial.TransformBound(n, 1));
            ASSERT_LE(std::abs(Wide(whole[n]) - trial.Truth(n)), bound) << n;
        }
    };
    OnEachSet([&] {
        for (const int tapsLen : {1, 2, 5, 17, 31, 61, 130, 300, 2047}) {
            for (const IppAlgType algorithm : {ippAlgAuto, ippAlgDirect}) {
                check(tapsLen, false, algorithm);
                if (std::is_same_v<S, Ipp32fc>) check(tapsLen, true, algorithm);
            }
        }
    });
}

struct DownFilter {
    DownFilter(const std::vector<Ipp32fc>& taps, int factor)
        : bytes(Sizes(static_cast<int>(taps.size()), factor)), specMem(bytes.spec, 1), work(bytes.work, 3) {
        EXPECT_EQ(FirDownInit_32fc(taps.data(), static_cast<int>(taps.size()), factor, Spec()), ippStsNoErr);
    }
    ipps_detail::FirDownSpec_32fc* Spec() { return reinterpret_cast<ipps_detail::FirDownSpec_32fc*>(specMem.data()); }
    static Fir<Complex32>::Bytes Sizes(int tapsLen, int factor) {
        Fir<Complex32>::Bytes bytes;
        EXPECT_EQ(FirDownGetSize_32fc(tapsLen, factor, &bytes.spec, &bytes.work), ippStsNoErr);
        return bytes;
    }

    Fir<Complex32>::Bytes bytes;
    Guarded<Ipp8u> specMem, work;
};

TEST(IppsFirDown, IsTheFilterThenTheSampleDown) {
    constexpr int LEN = 20000;
    const struct {
        int tapsLen, factor;
    } rows[] = {{1, 1},    {1, 3},   {2, 2},     {31, 2},   {130, 4}, {129, 1},
                {257, 10}, {300, 7}, {2049, 16}, {64, 256}, {5, 1000}};
    OnEachSet([&] {
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << row.tapsLen << " taps, 1 in " << row.factor);
            const Trial<Complex32> trial(row.tapsLen, LEN, false);
            DownFilter filter(trial.taps, row.factor);
            for (const bool cut : {false, true}) {
                Guarded<Ipp32fc> delay(row.tapsLen - 1);
                std::ranges::copy(trial.Past(), delay.data());
                int phase = row.factor / 2, samplePhase = phase, next = phase, done = 0;
                for (const int count : cut ? Cuts(LEN) : std::vector{LEN}) {
                    Ipp32fc unused[LEN];
                    int got = -1, want = -1;
                    ASSERT_EQ(ippsSampleDown_32fc(trial.Src() + done, count, unused, &want, row.factor, &samplePhase),
                              ippStsNoErr);
                    Guarded<Ipp32fc> out(want, done % 3);
                    ASSERT_EQ(FirDown_32fc(trial.Src() + done, count, out.data(), &got, filter.Spec(), delay.data(),
                                           delay.data(), &phase, filter.work.data()),
                              ippStsNoErr);
                    ASSERT_EQ(got, want);
                    ASSERT_EQ(phase, samplePhase);
                    for (int k = 0; k < got; ++k, next += row.factor) {
                        if (row.tapsLen > 100 && k % 13 != 0) continue;
                        ASSERT_LE(std::abs(Wide(out[k]) - trial.Truth(next)),
                                  std::max(trial.DirectBound(), trial.TransformBound(next, row.factor)))
                            << next;
                    }
                    done += count;
                }
                ASSERT_GE(next, LEN);
                ASSERT_TRUE(std::ranges::equal(std::span(delay.data(), delay.data() + row.tapsLen - 1), trial.After(),
                                               Same<Ipp32fc>));
            }
        }
    });
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

}  // namespace
