#include "dsp.h"

#include "ipps_fir_down.h"
#include "tone_gen.h"
#include "tq_assert.h"
#include "vector_kernels.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <new>
#include <numbers>

namespace DSP {

namespace {

// Features that the AVX2 routines need: AVX, its registers kept by the operating system, AVX2.
constexpr Ipp64u AVX2_FEATURES = 0x8300;

// Null for a size of 0: the primitive then needs no such memory.
IppsMemory AllocateIpps(int size) {
    IppsMemory memory;
    if (size > 0) {
        memory.reset(ippsMalloc_8u(size));
        if (!memory) throw std::bad_alloc();
    }
    return memory;
}

// The FFT and FIR families once per element type, so that the classes above them are written once.
IppStatus FFTGetSize(Ipp32fc, int order, int flag, IppHintAlgorithm hint, int* spec, int* specBuf, int* work) {
    return ippsFFTGetSize_C_32fc(order, flag, hint, spec, specBuf, work);
}
IppStatus FFTGetSize(Ipp64fc, int order, int flag, IppHintAlgorithm hint, int* spec, int* specBuf, int* work) {
    return ippsFFTGetSize_C_64fc(order, flag, hint, spec, specBuf, work);
}
IppStatus FFTInit(IppsFFTSpec_C_32fc** spec, int order, int flag, IppHintAlgorithm hint, Ipp8u* mem, Ipp8u* buf) {
    return ippsFFTInit_C_32fc(spec, order, flag, hint, mem, buf);
}
IppStatus FFTInit(IppsFFTSpec_C_64fc** spec, int order, int flag, IppHintAlgorithm hint, Ipp8u* mem, Ipp8u* buf) {
    return ippsFFTInit_C_64fc(spec, order, flag, hint, mem, buf);
}
IppStatus FFTFwd(const Ipp32fc* src, Ipp32fc* dst, const IppsFFTSpec_C_32fc* spec, Ipp8u* buf) {
    return ippsFFTFwd_CToC_32fc(src, dst, spec, buf);
}
IppStatus FFTFwd(const Ipp64fc* src, Ipp64fc* dst, const IppsFFTSpec_C_64fc* spec, Ipp8u* buf) {
    return ippsFFTFwd_CToC_64fc(src, dst, spec, buf);
}
IppStatus FFTInv(const Ipp32fc* src, Ipp32fc* dst, const IppsFFTSpec_C_32fc* spec, Ipp8u* buf) {
    return ippsFFTInv_CToC_32fc(src, dst, spec, buf);
}
IppStatus FFTInv(const Ipp64fc* src, Ipp64fc* dst, const IppsFFTSpec_C_64fc* spec, Ipp8u* buf) {
    return ippsFFTInv_CToC_64fc(src, dst, spec, buf);
}

IppStatus FIRInit(const float* taps, int len, IppsFIRSpec_32f* spec) {
    return ippsFIRSRInit_32f(taps, len, ippAlgAuto, spec);
}
IppStatus FIRInit(const double* taps, int len, IppsFIRSpec_64f* spec) {
    return ippsFIRSRInit_64f(taps, len, ippAlgAuto, spec);
}
IppStatus FIRRun(const float* src, float* dst, int len, IppsFIRSpec_32f* spec, float* dly, Ipp8u* buf) {
    return ippsFIRSR_32f(src, dst, len, spec, dly, dly, buf);
}
IppStatus FIRRun(const double* src, double* dst, int len, IppsFIRSpec_64f* spec, double* dly, Ipp8u* buf) {
    return ippsFIRSR_64f(src, dst, len, spec, dly, dly, buf);
}

}  // namespace

std::atomic<bool> hasAVX2 = false;

void InitIpps() {
    static const IppStatus initStatus = ippInit();  // once, whoever opens first
    TQ_ASSERT(initStatus == 0);
    hasAVX2 = (ippGetEnabledCpuFeatures() & AVX2_FEATURES) == AVX2_FEATURES;
}

bool AVX2Supported() { return hasAVX2; }

template <typename Complex>
FFT_CToC<Complex>::FFT_CToC(int order_, int flag_, IppHintAlgorithm hint_) : order(order_), flag(flag_), hint(hint_) {
    Initialize();
}

template <typename Complex>
void FFT_CToC<Complex>::Initialize() {
    int specSize = 0;
    int specBufSize = 0;
    int workSize = 0;
    IppStatus status = FFTGetSize(Complex{}, order, flag, hint, &specSize, &specBufSize, &workSize);
    TQ_ASSERT(status == 0);
    specMem = AllocateIpps(specSize);
    specBufMem = AllocateIpps(specBufSize);
    workBuf = AllocateIpps(workSize);
    status = FFTInit(&spec, order, flag, hint, specMem.get(), specBufMem.get());
    TQ_ASSERT(status == 0);
}

template <typename Complex>
void FFT_CToC<Complex>::FwdFFT(const Complex* src, Complex* dst) {
    const IppStatus status = FFTFwd(src, dst, spec, workBuf.get());
    TQ_ASSERT(status == 0);
}

template <typename Complex>
void FFT_CToC<Complex>::InvFFT(const Complex* src, Complex* dst) {
    const IppStatus status = FFTInv(src, dst, spec, workBuf.get());
    TQ_ASSERT(status == 0);
}

template class FFT_CToC<Ipp32fc>;
template class FFT_CToC<Ipp64fc>;

IppsFFT_64f::IppsFFT_64f(int order_, int flag_, IppHintAlgorithm hint_) : order(order_), flag(flag_), hint(hint_) {
    Initialize();
}

void IppsFFT_64f::Initialize() {
    int specSize = 0;
    int specBufSize = 0;
    int workSize = 0;
    IppStatus status = ippsFFTGetSize_R_64f(order, flag, hint, &specSize, &specBufSize, &workSize);
    TQ_ASSERT(status == 0);
    specMem.resize(static_cast<size_t>(specSize));
    if (specBufSize > 0) specBufMem.resize(static_cast<size_t>(specBufSize));
    workBuf.resize(static_cast<size_t>(workSize));
    status = ippsFFTInit_R_64f(&spec, order, flag, hint, specMem.data(), specBufMem.data());
    TQ_ASSERT(status == 0);
}

// The primitives take the packed spectrum as plain reals.
void IppsFFT_64f::FwdFFT(const Ipp64f* src, Ipp64fc* dst) {
    const IppStatus status = ippsFFTFwd_RToPerm_64f(src, reinterpret_cast<Ipp64f*>(dst), spec, workBuf.data());
    TQ_ASSERT(status == 0);
}

void IppsFFT_64f::FwdFFT_I(Ipp64f* srcDst) { FwdFFT(srcDst, reinterpret_cast<Ipp64fc*>(srcDst)); }

void IppsFFT_64f::InvFFT(const Ipp64fc* src, Ipp64f* dst) {
    const IppStatus status = ippsFFTInv_PermToR_64f(reinterpret_cast<const Ipp64f*>(src), dst, spec, workBuf.data());
    TQ_ASSERT(status == 0);
}

void IIR_32f::SetTaps(Ipp64f freq, Ipp64f ripple, int newOrder, FilterType type) {
    order = newOrder;
    taps.resize(2 * int64_t{order} + 2);
    if (type == FilterType::Lowpass) {
        GetLowpassIIRTaps_32f(freq, ripple, order, taps.data());
    } else {
        GetHighpassIIRTaps_32f(freq, ripple, order, taps.data());
    }
    int size = 0;
    IppStatus status = ippsIIRGetStateSize_32f(order, &size);
    TQ_ASSERT(status == 0);
    buf.resize(size);
    status = ippsIIRInit_32f(&iirState, taps.data(), order, nullptr, buf.data());
    TQ_ASSERT(status == 0);
}

void IIR_32f::Filter(const Ipp32f* src, Ipp32f* dst, int len) {
    const IppStatus status = ippsIIR_32f(src, dst, len, iirState);
    TQ_ASSERT(status == 0);
}

void IIR_32f::Filter_I(Ipp32f* srcDst, int len) {
    const IppStatus status = ippsIIR_32f_I(srcDst, len, iirState);
    TQ_ASSERT(status == 0);
}

template <typename T>
void FIR_Real<T>::SetTaps(const T* taps, int tapsLen) {
    TQ_ASSERT(taps);
    TQ_ASSERT(tapsLen > 0);
    filterTaps.resize(tapsLen);
    std::copy_n(taps, tapsLen, filterTaps.data());
    int specSize = 0;
    int bufSize = 0;
    IppStatus status = ippsFIRSRGetSize(tapsLen, std::is_same_v<T, float> ? ipp32f : ipp64f, &specSize, &bufSize);
    TQ_ASSERT(status == 0);
    specMem.resize(specSize);
    workBuf.resize(bufSize);
    spec = reinterpret_cast<Spec*>(specMem.data());
    status = FIRInit(filterTaps.data(), tapsLen, spec);
    TQ_ASSERT(status == 0);
    dly.resize(tapsLen - 1);
    std::fill_n(dly.data(), dly.size(), T{});
}

template <typename T>
IppStatus FIR_Real<T>::Filter(const T* src, T* dst, int len) {
    TQ_ASSERT(spec != nullptr);
    return FIRRun(src, dst, len, spec, dly.data(), workBuf.data());
}

template class FIR_Real<float>;
template class FIR_Real<double>;

void FIR_32fc::SetTaps(const Ipp32fc* taps, int tapsLen) {
    TQ_ASSERT(taps);
    TQ_ASSERT(tapsLen > 0);
    filterTaps.assign(taps, taps + tapsLen);
    int specSize = 0;
    int bufSize = 0;
    IppStatus status = ippsFIRSRGetSize(tapsLen, ipp32fc, &specSize, &bufSize);
    TQ_ASSERT(status == 0);
    specMem = AllocateIpps(specSize);
    workBuf = AllocateIpps(bufSize);
    spec = reinterpret_cast<IppsFIRSpec_32fc*>(specMem.get());
    status = ippsFIRSRInit_32fc(filterTaps.data(), tapsLen, ippAlgAuto, spec);
    TQ_ASSERT(status == 0);
    dly.resize(static_cast<size_t>(tapsLen - 1));
    Flush();
}

void FIR_32fc::Flush() { std::ranges::fill(dly, Ipp32fc{0.0f, 0.0f}); }

IppStatus FIR_32fc::Filter(const Ipp32fc* src, Ipp32fc* dst, int len) {
    TQ_ASSERT(spec != nullptr);
    const IppStatus status = ippsFIRSR_32fc(src, dst, len, spec, dly.data(), dly.data(), workBuf.get());
    TQ_ASSERT(status == 0);
    return status;
}

void FIRDown_32fc::SetTaps(const Ipp32fc* taps, int tapsLen, int keepEvery) {
    TQ_ASSERT(taps && tapsLen > 0 && keepEvery > 0);
    int specSize = 0;
    int bufSize = 0;
    IppStatus status = ipps_detail::FirDownGetSize_32fc(tapsLen, keepEvery, &specSize, &bufSize);
    TQ_ASSERT(status == 0);
    specMem = AllocateIpps(specSize);
    workBuf = AllocateIpps(bufSize);
    status = ipps_detail::FirDownInit_32fc(taps, tapsLen, keepEvery,
                                           reinterpret_cast<ipps_detail::FirDownSpec_32fc*>(specMem.get()));
    TQ_ASSERT(status == 0);
    dly.resize(static_cast<size_t>(tapsLen - 1));
    Flush();
}

void FIRDown_32fc::Flush() {
    std::ranges::fill(dly, Ipp32fc{0.0f, 0.0f});
    phase = 0;
}

int FIRDown_32fc::Filter(const Ipp32fc* src, Ipp32fc* dst, int len) {
    const auto* const spec = reinterpret_cast<const ipps_detail::FirDownSpec_32fc*>(specMem.get());
    int written = 0;
    const IppStatus status =
        ipps_detail::FirDown_32fc(src, len, dst, &written, spec, dly.data(), dly.data(), &phase, workBuf.get());
    TQ_ASSERT(status == 0);
    return written;
}

void IQFreqTuner_32fc::Init(double _tuneFreq, int _blockLen, bool _highAccuracy) {
    TQ_ASSERT(_tuneFreq >= -1.0 && _tuneFreq <= 1.0);
    highAccuracy = _highAccuracy;
    blockLen = _blockLen;
    phase_64f = 0.0;
    tone_64fc.resize(static_cast<size_t>(blockLen));
    tone_32fc.resize(static_cast<size_t>(blockLen));
    freq = _tuneFreq;
    if (freq < 0.0) {
        freq += 1.0;                  // the same tone
        if (freq == 1.0) freq = 0.0;  // so near to 0 that the sum rounds up to a whole turn
    }
}

void IQFreqTuner_32fc::SetPhaseOffset(int64_t offset) {
    constexpr double TWO_PI = 2.0 * std::numbers::pi;
    const double t = freq * TWO_PI * static_cast<double>(offset);
    phase_64f = t - std::floor(t / TWO_PI) * TWO_PI;
}

void IQFreqTuner_32fc::GenNextToneSegment(int len) {
    TQ_ASSERT(len <= blockLen);
    if (highAccuracy) {
        ippsTone_64fc(tone_64fc.data(), len, 1.0, freq, &phase_64f, ippAlgHintFast);
        ippsConvert_64f32f(&tone_64fc.data()->re, &tone_32fc.data()->re, 2 * len);
    } else {
        amToneGen_32fc_sse3(tone_32fc.data(), freq, 1.0, &phase_64f, len);
    }
}

void IQFreqTuner_32fc::Tune(const Ipp32fc* src, Ipp32fc* dst, int len) {
    TQ_ASSERT(len <= blockLen);
    TQ_ASSERT(freq != 1.0);
    // Piece by piece, so that the tone is still in the caches when it is multiplied in. Whole runs of the recurrence
    // make the same tone as one piece.
    constexpr int PIECE = 4 * MAX_ITER;
    for (int done = 0; done < len; done += PIECE) {
        const int count = std::min(len - done, PIECE);
        GenNextToneSegment(count);
        ippsMul_32fc(src + done, tone_32fc.data(), dst + done, count);
    }
}

namespace {

constexpr double GAUSSIAN_SIGMA = 0.1;  // of the Gaussian window, as a fraction of its length

// Fills dst with value(n). The formulas divide by len - 1, so a window of one point is set to 1 instead.
template <typename Value>
void FillWindow(double* dst, int len, Value value) {
    if (len == 1) {
        dst[0] = 1.0;
        return;
    }
    for (int n = 0; n < len; n++) dst[n] = value(n);
}

// The flat top and Nuttall windows were calibrated with the cosine in single precision.
double SingleCos(double angle) { return std::cos(static_cast<float>(angle)); }

double confinedGaussianHelper(int64_t p, double s, int len) {
    const double x = (static_cast<double>(p) - (len - 1) / 2.0) / (2.0 * s);
    return std::exp(-(x * x));
}

struct WindowRow {
    TqWindowType window;
    void (*build)(double* dst, int len);
    double bandwidth;  // [bins]
};
constexpr std::array<WindowRow, 6> WINDOWS = {{
    {tqWindowFlatTop, GetFlatTopWindow, 3.7702},
    {tqWindowNutall, GetNutallWindow, 2.0212},
    {tqWindowBlackman, GetBlackmanWindow, 1.73},
    {tqWindowHamming, GetHammingWindow, 1.3628},
    {tqWindowGaussian6dB, [](double* dst, int len) { GetGaussian6dBWindow(dst, GAUSSIAN_SIGMA, len); },
     CONFINED_GAUSSIAN_BW},
    {tqWindowRect, GetRectWindow, 1.0},
}};

const WindowRow& FindWindow(TqWindowType window) {
    const auto row = std::ranges::find(WINDOWS, window, &WindowRow::window);
    if (row == WINDOWS.end()) TQ_ASSERT(false);
    return *row;
}

// A complex window from a real one.
template <typename Complex>
void BuildComplexWindow(TqWindowType window, Complex* buf, int len) {
    Vector<double> real(len);
    buildWindowFunction(window, &real[0], len);
    for (int n = 0; n < len; n++) buf[n] = {static_cast<decltype(Complex::re)>(real[n]), 0};
}

}  // namespace

double GetWindowBandwidth(TqWindowType window) { return FindWindow(window).bandwidth; }

void GetFlatTopWindow(double* dst, int len) {
    FillWindow(dst, len, [len](int n) {
        const double x = std::numbers::pi * n / (len - 1);
        return 1.0 - 1.93 * SingleCos(2.0 * x) + 1.29 * SingleCos(4.0 * x) - 0.388 * SingleCos(6.0 * x) +
               0.028 * SingleCos(8.0 * x);
    });
}

void GetNutallWindow(double* dst, int len) {
    FillWindow(dst, len, [len](int n) {
        const double x = std::numbers::pi * n / (len - 1);
        return 0.355768 - 0.487396 * SingleCos(2.0 * x) + 0.144232 * SingleCos(4.0 * x) - 0.012604 * SingleCos(6.0 * x);
    });
}

void GetBlackmanWindow(double* dst, int len) {
    FillWindow(dst, len, [len](int n) {
        return 0.42659 - 0.49656 * std::cos(2.0 * std::numbers::pi * n / (len - 1)) +
               0.076849 * std::cos(4.0 * std::numbers::pi * n / (len - 1));
    });
}

void GetHammingWindow(double* dst, int len) {
    FillWindow(dst, len, [len](int n) { return 0.54 - 0.46 * std::cos(2.0 * std::numbers::pi * n / (len - 1)); });
}

// The approximate confined Gaussian, anchored at the whole positions 0, len - 1 and -len.
void GetGaussian6dBWindow(double* dst, double sigma, int len) {
    const auto gauss = [s = sigma * len, len](int64_t p) { return confinedGaussianHelper(p, s, len); };
    const double edge = gauss(0);
    const double edges = gauss(int64_t{len} - 1) + gauss(-int64_t{len});
    FillWindow(dst, len,
               [=](int n) { return gauss(n) - edge * (gauss(int64_t{n} + len) + gauss(int64_t{n} - len)) / edges; });
}

void GetRectWindow(double* dst, int len) { std::fill_n(dst, len, 1.0); }

void buildWindowFunction(TqWindowType window, double* buf, int len) { FindWindow(window).build(buf, len); }

void BuildWindowFunction(TqWindowType window, float* buf, int len) {
    Vector<double> real(len);
    buildWindowFunction(window, &real[0], len);
    ippsConvert_64f32f(real.data(), buf, len);
}

void BuildWindowFunction(TqWindowType window, Ipp32fc* buf, int len) { BuildComplexWindow(window, buf, len); }

void BuildWindowFunction(TqWindowType window, Ipp64fc* buf, int len) { BuildComplexWindow(window, buf, len); }

void NormalizeWindow(Ipp32f* window, int len) {
    Ipp32f sum = 0.0f;
    ippsSum_32f(window, len, &sum, ippAlgHintAccurate);
    ippsMulC_32f_I(static_cast<Ipp32f>(len) / sum, window, len);
}

void NormalizeWindow(Ipp64f* window, int len) {
    Ipp64f sum = 0.0;
    ippsSum_64f(window, len, &sum);
    ippsMulC_64f(window, len / sum, window, len);
}

void NormalizeWindow(Ipp32fc* window, int len) {
    Ipp32fc sum = {0.0f, 0.0f};
    ippsSum_32fc(window, len, &sum, ippAlgHintAccurate);
    const Ipp32f factor = static_cast<Ipp32f>(len) / sum.re;
    for (int n = 0; n < len; n++) window[n].re *= factor;
}

IppStatus GetLowpassFIRTaps_64f(Ipp64f* taps, int len, Ipp32f cutoff, IppWinType winType, IppBool normalize) {
    int size = 0;
    IppStatus status = ippsFIRGenGetBufferSize(len, &size);
    TQ_ASSERT(status == 0);
    Vector<unsigned char> buffer(size);
    ippsZero_8u(buffer.data(), size);
    status = ippsFIRGenLowpass_64f(cutoff, taps, len, winType, normalize, buffer.data());
    TQ_ASSERT(status == 0);
    return status;
}

IppStatus GetLowpassFIRTaps_32f(Ipp32f* taps, int len, Ipp32f cutoff, IppWinType winType, IppBool normalize) {
    Vector<double> design(len);
    const IppStatus status = GetLowpassFIRTaps_64f(design.data(), len, cutoff, winType, normalize);
    ippsConvert_64f32f(design.data(), taps, len);
    return status;
}

IppStatus GetLowpassFIRTaps_32fc(Ipp32fc* taps, int len, Ipp32f cutoff, IppWinType winType, IppBool normalize) {
    TQ_ASSERT(cutoff < 0.5);
    Vector<double> design(len);
    const IppStatus status = GetLowpassFIRTaps_64f(design.data(), len, cutoff, winType, normalize);
    for (int n = 0; n < len; n++) taps[n] = {static_cast<Ipp32f>(design[n]), 0.0f};
    return status;
}

namespace {

using IIRGenerator = decltype(ippsIIRGenLowpass_64f);

IppStatus DesignChebyshev(IIRGenerator& generate, Ipp64f freq, Ipp64f ripple, int order, Ipp32f* taps) {
    Vector<double> design(2 * int64_t{order} + 2);
    int size = 0;
    IppStatus status = ippsIIRGenGetBufferSize(order, &size);
    TQ_ASSERT(status == 0);
    Vector<unsigned char> buffer(size);
    status = generate(freq, ripple, order, design.data(), ippChebyshev1, buffer.data());
    TQ_ASSERT(status == 0);
    ippsConvert_64f32f(design.data(), taps, 2 * order + 2);
    return status;
}

// floor(n + 0.5) as an integer of type Int, saturated; comparing with the limits first keeps the conversion defined.
template <typename Int>
Int Round(double n) {
    constexpr double BEYOND = -static_cast<double>(std::numeric_limits<Int>::min());  // 2^31 or 2^63, exact
    const double rounded = std::floor(n + 0.5);
    if (std::isnan(rounded)) return 0;
    if (rounded >= BEYOND) return std::numeric_limits<Int>::max();
    if (rounded < -BEYOND) return std::numeric_limits<Int>::min();
    return static_cast<Int>(rounded);
}

}  // namespace

IppStatus GetLowpassIIRTaps_32f(Ipp64f freq, Ipp64f ripple, int order, Ipp32f* taps) {
    return DesignChebyshev(ippsIIRGenLowpass_64f, freq, ripple, order, taps);
}

IppStatus GetHighpassIIRTaps_32f(Ipp64f freq, Ipp64f ripple, int order, Ipp32f* taps) {
    return DesignChebyshev(ippsIIRGenHighpass_64f, freq, ripple, order, taps);
}

IppStatus Convert_16sc32fc(const Ipp16sc* src, Ipp32fc* dst, int len) {
    constexpr int FULL_SCALE_BITS = 15;
    return Convert_16sc32fc_Sfs(src, dst, len, FULL_SCALE_BITS);
}

IppStatus Convert_16sc32fc_Sfs(const Ipp16sc* src, Ipp32fc* dst, int len, int scaleFactor) {
    return ipps_detail::ConvertOffset_16s32f_Sfs(&src->re, gSpurADCOffset, &dst->re, 2 * len, scaleFactor);
}

IppStatus Convert_32fc16sc(const Ipp32fc* src, Ipp16sc* dst, int len) {
    constexpr int TIMES_2_TO_15 = -15;
    return ippsConvert_32f16s_Sfs(&src->re, &dst->re, 2 * len, ippRndNear, TIMES_2_TO_15);
}

void DBCalToLin_32f(Ipp32f* srcDst, int len) {
    constexpr float NEPER_PER_DB = 0.115129255f;  // ln(10) / 20
    ippsMulC_32f_I(NEPER_PER_DB, srcDst, len);
    ippsExp_32f_I(srcDst, len);
}

bool IsOdd(int n) { return (n & 1) != 0; }

bool IsPowerOf2(int n) { return n >= 1 && std::has_single_bit(static_cast<unsigned>(n)); }

int IntLogBase2(int n) {
    TQ_ASSERT(IsPowerOf2(n));
    return std::countr_zero(static_cast<unsigned>(n));
}

int RoundUpPowerTwo(int n) {
    constexpr int LARGEST = 1 << 30;
    if (n > LARGEST) return LARGEST;
    return n <= 1 ? 1 : static_cast<int>(std::bit_ceil(static_cast<unsigned>(n)));
}

int RoundToInt(double n) { return Round<int>(n); }

int64_t RoundToInt64(double n) { return Round<int64_t>(n); }

}  // namespace DSP
