#include <complex>
#include <numbers>
#include <optional>
#include <string>

#include "ipps.h"
#include "ipps_kernels.h"
#include "ipps_test_support.h"

using ipps_test::Guarded;
using ipps_test::Values;

namespace {

using Complex = std::complex<double>;

// exp(-2 pi j k / n), the angle reduced before it is rounded.
template <class T = double>
std::complex<T> Root(std::int64_t k, std::int64_t n) {
    return std::polar<T>(1, -2 * std::numbers::pi_v<T> * static_cast<T>(k % n) / static_cast<T>(n));
}

// The defining sum, in extended precision, since over 4096 terms double would be less exact than what it judges.
// sign 1 forward, -1 inverse.
std::vector<Complex> NaiveTransform(const std::vector<Complex>& x, int sign) {
    const std::size_t n = x.size();
    std::vector<std::complex<long double>> roots;
    std::vector<Complex> result;
    for (std::size_t k = 0; k < n; ++k) {
        const auto root = Root<long double>(static_cast<std::int64_t>(k), static_cast<std::int64_t>(n));
        roots.push_back(sign > 0 ? root : std::conj(root));
    }
    for (std::size_t k = 0; k < n; ++k) {
        long double re = 0, im = 0;
        for (std::size_t i = 0; i < n; ++i) {
            const std::complex<long double>& root = roots[i * k % n];
            re += root.real() * x[i].real() - root.imag() * x[i].imag();
            im += root.real() * x[i].imag() + root.imag() * x[i].real();
        }
        result.emplace_back(static_cast<double>(re), static_cast<double>(im));
    }
    return result;
}

// Root of the energy of the difference, relative to that of the truth.
template <class C>
double RelativeError(const C* got, const std::vector<Complex>& want, double scale) {
    double error = 0.0, energy = 0.0;
    for (std::size_t k = 0; k < want.size(); ++k) {
        error += std::norm(Complex(double(got[k].re), double(got[k].im)) - want[k] * scale);
        energy += std::norm(want[k] * scale);
    }
    return std::sqrt(error / energy);
}

// The calls of each precision, under one name.
struct Single {
    using C = Ipp32fc;
    using Spec = IppsFFTSpec_C_32fc;
    static constexpr auto GetSize = ippsFFTGetSize_C_32fc;
    static constexpr auto Init = ippsFFTInit_C_32fc;
    static constexpr auto Fwd = ippsFFTFwd_CToC_32fc;
    static constexpr auto Inv = ippsFFTInv_CToC_32fc;
    static constexpr double UNIT_ROUNDOFF = 0x1p-24;
};
struct Double {
    using C = Ipp64fc;
    using Spec = IppsFFTSpec_C_64fc;
    static constexpr auto GetSize = ippsFFTGetSize_C_64fc;
    static constexpr auto Init = ippsFFTInit_C_64fc;
    static constexpr auto Fwd = ippsFFTFwd_CToC_64fc;
    static constexpr auto Inv = ippsFFTInv_CToC_64fc;
    static constexpr double UNIT_ROUNDOFF = 0x1p-53;
};

// A description and a work buffer of exactly the asked sizes, at odd addresses.
template <class P>
struct Plan {
    Plan(int order, int flag) : specSize(Sizes(order, flag)), spec(specSize.spec, 1), buffer(specSize.work, 3) {
        EXPECT_EQ(P::Init(&usable, order, flag, ippAlgHintNone, spec.data(), nullptr), ippStsNoErr);
    }

    struct Bytes {
        int spec = 0, scratch = 0, work = 0;
    };
    static Bytes Sizes(int order, int flag) {
        Bytes bytes;
        EXPECT_EQ(P::GetSize(order, flag, ippAlgHintNone, &bytes.spec, &bytes.scratch, &bytes.work), ippStsNoErr);
        EXPECT_EQ(bytes.scratch, 0);
        return bytes;
    }

    Bytes specSize;
    Guarded<Ipp8u> spec, buffer;
    typename P::Spec* usable = nullptr;
};

// Root of the mean square error, relative. A stage of radix 2 rounds a root, a product and a sum, each by at most half
// a unit in the last place: as independent uniform errors these add up to the variance of one unit roundoff. The turn
// between columns and rows, whose roots are products, counts as two stages more.
template <class P>
double ErrorBound(int order) {
    return P::UNIT_ROUNDOFF * std::sqrt(order + 2.0);
}

// Every test runs on each instruction set that the processor offers.
class IppsFft : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        const ipps_detail::KernelSet* const set = ipps_detail::KernelsFor(GetParam());
        if (set == nullptr) GTEST_SKIP() << "no " << GetParam();
        chosen.emplace(*set);
    }

    std::optional<ipps_detail::KernelOverride> chosen;
};
INSTANTIATE_TEST_SUITE_P(Sets, IppsFft, testing::Values("sse41", "avx2", "avx512"),
                         [](const auto& set) { return std::string(set.param); });

template <class P>
void ExpectDefiningSum() {
    using C = typename P::C;
    for (int order = 0; order <= 12; ++order) {
        const int n = 1 << order;
        Plan<P> plan(order, IPP_FFT_NODIV_BY_ANY);
        Values values;
        Guarded<C> src(n, 1), dst(n, 1);
        std::vector<Complex> truth;
        for (int i = 0; i < n; ++i) {
            values.Next(src[i]);
            truth.emplace_back(src[i].re, src[i].im);
        }
        for (const int sign : {1, -1}) {
            const auto transform = sign > 0 ? P::Fwd : P::Inv;
            ASSERT_EQ(transform(src.data(), dst.data(), plan.usable, plan.buffer.data()), ippStsNoErr);
            EXPECT_LE(RelativeError(dst.data(), NaiveTransform(truth, sign), 1.0), ErrorBound<P>(order))
                << "order " << order << ", sign " << sign;
            Guarded<C> inPlace(n);
            std::copy_n(src.data(), n, inPlace.data());
            transform(inPlace.data(), inPlace.data(), plan.usable, plan.buffer.data());
            EXPECT_EQ(std::memcmp(inPlace.data(), dst.data(), sizeof(C) * static_cast<std::size_t>(n)), 0) << order;
        }
    }
}

TEST_P(IppsFft, IsTheDefiningSumInBothDirectionsAndInPlace) {
    ExpectDefiningSum<Single>();
    ExpectDefiningSum<Double>();
}

template <class P>
void ExpectLongImpulsesAndTones(int order) {
    using C = typename P::C;
    const std::int64_t n = std::int64_t{1} << order;
    const std::int64_t place = n / 3 + 5;
    Plan<P> plan(order, IPP_FFT_NODIV_BY_ANY);
    // One array begins on a cache line, which the longest transforms write around the caches, one does not.
    Guarded<C> aligned(static_cast<int>(n)), odd(static_cast<int>(n), 1);
    std::vector<Complex> impulse(static_cast<std::size_t>(n)), tone(static_cast<std::size_t>(n));
    impulse[static_cast<std::size_t>(place)] = 1.0;
    for (std::int64_t i = 0; i < n; ++i) tone[static_cast<std::size_t>(i)] = Root(i * place, n);
    for (const int sign : {1, -1}) {
        const auto transform = sign > 0 ? P::Fwd : P::Inv;
        if (sign < 0) {
            for (Complex& value : tone) value = std::conj(value);
        }
        std::fill_n(aligned.data(), n, C{});
        aligned[static_cast<int>(place)].re = 1;
        transform(aligned.data(), odd.data(), plan.usable, plan.buffer.data());
        EXPECT_LE(RelativeError(odd.data(), tone, 1.0), ErrorBound<P>(order)) << "impulse " << order;
        transform(aligned.data(), aligned.data(), plan.usable, plan.buffer.data());
        EXPECT_EQ(std::memcmp(aligned.data(), odd.data(), sizeof(C) * static_cast<std::size_t>(n)), 0) << order;

        // A tone that turns against the transform's kernel meets it in one bin.
        for (std::int64_t i = 0; i < n; ++i) {
            const Complex value = std::conj(tone[static_cast<std::size_t>(i)]);
            odd[static_cast<int>(i)] = {static_cast<decltype(C::re)>(value.real()),
                                        static_cast<decltype(C::re)>(value.imag())};
        }
        transform(odd.data(), odd.data(), plan.usable, plan.buffer.data());
        EXPECT_LE(RelativeError(odd.data(), impulse, static_cast<double>(n)), ErrorBound<P>(order)) << "tone " << order;
    }
}

// Too long for the defining sum, but an impulse and a tone have theirs in closed form. Covers the longest transforms
// in one tile, the shortest through a work matrix (square and not), and those that leave the second and third cache.
TEST_P(IppsFft, TransformsLongImpulsesAndTones) {
    for (const int order : {16, 17, 18, 21}) ExpectLongImpulsesAndTones<Single>(order);
    for (const int order : {15, 16, 17, 20}) ExpectLongImpulsesAndTones<Double>(order);
}

// Two impulses are two tones: every bin is known at once, and so is the energy of the spectrum. All orders beyond those
// of the defining sum, up to the longest.
TEST_P(IppsFft, KeepsBinsAndEnergyAtEveryLongOrder) {
    for (int order = 13; order <= 25; ++order) {
        const std::int64_t n = std::int64_t{1} << order, first = n / 5, second = n - 7;
        Plan<Single> plan(order, IPP_FFT_NODIV_BY_ANY);
        Guarded<Ipp32fc> data(static_cast<int>(n));
        std::fill_n(data.data(), n, Ipp32fc{});
        data[static_cast<int>(first)] = {1.0F, 0.0F};
        data[static_cast<int>(second)] = {0.0F, -0.5F};
        ASSERT_EQ(Single::Fwd(data.data(), data.data(), plan.usable, plan.buffer.data()), ippStsNoErr);
        double energy = 0.0, error = 0.0;
        for (std::int64_t k = 0; k < n; ++k) {
            const Ipp32fc& bin = data[static_cast<int>(k)];
            energy += double{bin.re} * bin.re + double{bin.im} * bin.im;
        }
        const std::int64_t stride = n / 4096 + 1;
        int checked = 0;
        for (std::int64_t k = 0; k < n; k += stride, ++checked) {
            const Complex want = Root(k * first, n) + Complex(0.0, -0.5) * Root(k * second, n);
            const Ipp32fc& bin = data[static_cast<int>(k)];
            error += std::norm(Complex(bin.re, bin.im) - want);
        }
        // 1.25 is the energy of the impulses; relative errors of energy are twice those of amplitude.
        const double perBin = 1.25;
        EXPECT_NEAR(energy / static_cast<double>(n), perBin, perBin * 2.0 * ErrorBound<Single>(order)) << order;
        EXPECT_LE(std::sqrt(error / checked / perBin), ErrorBound<Single>(order)) << order;
    }
}

TEST_P(IppsFft, KeepsTheInstructionSetThatADescriptionWasBuiltFor) {
    constexpr int ORDER = 10, N = 1 << ORDER;
    Plan<Single> plan(ORDER, IPP_FFT_NODIV_BY_ANY);
    Values values;
    Guarded<Ipp32fc> src(N), before(N), after(N);
    for (int i = 0; i < N; ++i) values.Next(src[i]);
    Single::Fwd(src.data(), before.data(), plan.usable, plan.buffer.data());
    for (const char* name : {"sse41", "avx2", "avx512"}) {
        const ipps_detail::KernelSet* const set = ipps_detail::KernelsFor(name);
        if (set == nullptr) continue;
        const ipps_detail::KernelOverride other(*set);
        Single::Fwd(src.data(), after.data(), plan.usable, plan.buffer.data());
        EXPECT_EQ(std::memcmp(before.data(), after.data(), sizeof(Ipp32fc) * N), 0) << name;
    }
}

struct FlagRow {
    int flag;
    double fwdPower, invPower;  // of 1 / N
};
constexpr FlagRow FLAGS[] = {{IPP_FFT_DIV_FWD_BY_N, 1.0, 0.0},
                             {IPP_FFT_DIV_INV_BY_N, 0.0, 1.0},
                             {IPP_FFT_DIV_BY_SQRTN, 0.5, 0.5},
                             {IPP_FFT_NODIV_BY_ANY, 0.0, 0.0}};

template <class P>
void ExpectScaling() {
    using C = typename P::C;
    for (const FlagRow& row : FLAGS) {
        for (const int order : {0, 1, 2, 5, 9, 17}) {
            const int n = 1 << order;
            Plan<P> plan(order, row.flag);
            Guarded<C> data(n);
            for (const bool forward : {true, false}) {
                std::fill_n(data.data(), n, C{1, -2});
                (forward ? P::Fwd : P::Inv)(data.data(), data.data(), plan.usable, plan.buffer.data());
                const double want = n * std::pow(n, forward ? -row.fwdPower : -row.invPower);
                EXPECT_NEAR(data[0].re, want, want * 2.0 * P::UNIT_ROUNDOFF) << row.flag << ' ' << order;
                EXPECT_NEAR(data[0].im, -2.0 * want, want * 4.0 * P::UNIT_ROUNDOFF);
                for (int k = 1; k < n; ++k) ASSERT_LE(std::hypot(data[k].re, data[k].im), want * 1e-6);
            }
        }
    }
}

TEST_P(IppsFft, ScalesByFlag) {
    ExpectScaling<Single>();
    ExpectScaling<Double>();
}

struct Real {
    using Spec = IppsFFTSpec_R_64f;
    static constexpr auto GetSize = ippsFFTGetSize_R_64f;
    static constexpr auto Init = ippsFFTInit_R_64f;
};

TEST_P(IppsFft, PacksTheSpectrumOfRealsAndUnpacksIt) {
    for (const FlagRow& row : FLAGS) {
        for (int order = 0; order <= 10; ++order) {
            const int n = 1 << order;
            Plan<Real> plan(order, row.flag);
            Values values;
            Guarded<double> src(n, 1), dst(n, 1), back(n, 1);
            std::vector<Complex> samples;
            for (int i = 0; i < n; ++i) samples.emplace_back(src[i] = values.Uniform());
            const std::vector<Complex> spectrum = NaiveTransform(samples, 1);
            std::vector<double> packed = {spectrum[0].real()};
            if (n > 1) packed.push_back(spectrum[static_cast<std::size_t>(n) / 2].real());
            for (std::size_t k = 1; k < static_cast<std::size_t>(n) / 2; ++k) {
                packed.insert(packed.end(), {spectrum[k].real(), spectrum[k].imag()});
            }
            ASSERT_EQ(ippsFFTFwd_RToPerm_64f(src.data(), dst.data(), plan.usable, plan.buffer.data()), ippStsNoErr);
            const double bound = 1e-15 * std::sqrt(n) * (order + 1);
            for (int i = 0; i < n; ++i) {
                ASSERT_NEAR(dst[i] * std::pow(n, row.fwdPower), packed[static_cast<std::size_t>(i)], bound)
                    << "value " << i << ", order " << order << ", flag " << row.flag;
            }
            ASSERT_EQ(ippsFFTInv_PermToR_64f(packed.data(), back.data(), plan.usable, plan.buffer.data()), ippStsNoErr);
            for (int i = 0; i < n; ++i) {
                ASSERT_NEAR(back[i] * std::pow(n, row.invPower), n * src[i], n * bound) << i << ", order " << order;
            }
            ippsFFTFwd_RToPerm_64f(src.data(), src.data(), plan.usable, plan.buffer.data());
            ippsFFTInv_PermToR_64f(packed.data(), packed.data(), plan.usable, plan.buffer.data());
            for (int i = 0; i < n; ++i) {
                ASSERT_EQ(src[i], dst[i]);
                ASSERT_EQ(packed[static_cast<std::size_t>(i)], back[i]);
            }
        }
    }
}

}  // namespace
