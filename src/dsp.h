// Namespace DSP: the layer through which the engines reach the signal primitives. FFT and filter objects that own a
// primitive's memory and state, windows with their calibrated bandwidths, filter design, the conversions between
// device samples and floating point, and rounding helpers. A failing primitive is a mistake of ours and asserts; memory
// that cannot be had throws std::bad_alloc, at set-up only. The objects belong to one thread at a time, the functions
// touch nothing but their arguments.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "dsp_vector.h"
#include "ipps.h"
#include "tq_api.h"

namespace DSP {

// True when processor and operating system offer AVX2, as of the last InitIpps.
extern std::atomic<bool> hasAVX2;

// Prepares the primitives at its first call and looks for AVX2 at each. Not for two threads at the same moment.
void InitIpps();
bool AVX2Supported();

// Memory of a primitive, 64-byte aligned.
struct IppsDeleter {
    void operator()(Ipp8u* memory) const { ippsFree(memory); }
};
using IppsMemory = std::unique_ptr<Ipp8u[], IppsDeleter>;

// A complex transform of 2^order points; use it as FFT_32fc or FFT_64fc.
template <typename Complex>
class FFT_CToC {
public:
    using Spec = std::conditional_t<std::is_same_v<Complex, Ipp32fc>, IppsFFTSpec_C_32fc, IppsFFTSpec_C_64fc>;

    //   order  log2 of the length, 0 to 25
    //   flag   1 forward divided by the length, 2 inverse divided by it, 4 both by its root, 8 neither
    //   hint   does not matter to the results
    FFT_CToC(int order, int flag, IppHintAlgorithm hint);
    FFT_CToC(const FFT_CToC&) = delete;
    FFT_CToC& operator=(const FFT_CToC&) = delete;

    // Arrays of 2^order values; src and dst may be the same. exp(-j) forward, exp(+j) inverse.
    void FwdFFT(const Complex* src, Complex* dst);
    void FwdFFT_I(Complex* srcDst) { FwdFFT(srcDst, srcDst); }
    void InvFFT(const Complex* src, Complex* dst);

private:
    void Initialize();

    int order;
    int flag;
    IppHintAlgorithm hint;
    Spec* spec = nullptr;  // lies inside specMem
    IppsMemory specMem;
    IppsMemory specBufMem;
    IppsMemory workBuf;
};
using FFT_32fc = FFT_CToC<Ipp32fc>;
using FFT_64fc = FFT_CToC<Ipp64fc>;

// A transform of 2^order reals, order at least 1. Spectra are in the packed Perm layout: the real values at 0 and at
// half the sample rate make up element 0, then follow re and im of each bin between.
class IppsFFT_64f {
public:
    // Arguments as of FFT_CToC.
    IppsFFT_64f(int order, int flag, IppHintAlgorithm hint);
    IppsFFT_64f(const IppsFFT_64f&) = delete;
    IppsFFT_64f& operator=(const IppsFFT_64f&) = delete;

    // Reals: 2^order values; spectra: half as many. The two may lie in the same memory.
    void FwdFFT(const Ipp64f* src, Ipp64fc* dst);
    void FwdFFT_I(Ipp64f* srcDst);
    void InvFFT(const Ipp64fc* src, Ipp64f* dst);

private:
    void Initialize();

    int order;
    int flag;
    IppHintAlgorithm hint;
    IppsFFTSpec_R_64f* spec = nullptr;  // lies inside specMem
    std::vector<unsigned char> specMem;
    std::vector<unsigned char> specBufMem;
    std::vector<unsigned char> workBuf;
};

// The filters keep their state between calls, so that one block after the other is one continuous stream. SetTaps
// comes first; called again it replaces the taps and forgets the past. Filter never allocates; src and dst may be the
// same array.

// A recursive Chebyshev filter.
class IIR_32f {
public:
    enum class FilterType { Lowpass = 0, Highpass = 1 };

    IIR_32f() = default;
    IIR_32f(const IIR_32f&) = delete;
    IIR_32f& operator=(const IIR_32f&) = delete;

    //   freq      cut-off as a fraction of the sample rate, above 0, below 0.5
    //   ripple    of the pass band, [dB], above 0, at most 29
    //   newOrder  1 to 12
    void SetTaps(Ipp64f freq, Ipp64f ripple, int newOrder, FilterType type);
    void Filter(const Ipp32f* src, Ipp32f* dst, int len);
    void Filter_I(Ipp32f* srcDst, int len);

private:
    IppsIIRState_32f* iirState = nullptr;  // lies inside buf
    Vector<unsigned char> buf;
    Vector<float> taps;  // B0 to Bn, A0 to An
    int order = 0;
};

// A filter of real taps on real samples; use it as FIR_32f or FIR_64f.
template <typename T>
class FIR_Real {
public:
    using Spec = std::conditional_t<std::is_same_v<T, float>, IppsFIRSpec_32f, IppsFIRSpec_64f>;

    FIR_Real() = default;
    FIR_Real(const FIR_Real&) = delete;
    FIR_Real& operator=(const FIR_Real&) = delete;

    // Copies tapsLen >= 1 taps.
    void SetTaps(const T* taps, int tapsLen);
    // Returns the primitive's status, 0 for success.
    IppStatus Filter(const T* src, T* dst, int len);

private:
    Spec* spec = nullptr;  // lies inside specMem
    Vector<unsigned char> specMem;
    Vector<unsigned char> workBuf;
    Vector<T> filterTaps;
    Vector<T> dly;  // the last inputs, one less than taps
};
using FIR_32f = FIR_Real<float>;
using FIR_64f = FIR_Real<double>;

// A filter of complex taps on complex samples.
class FIR_32fc {
public:
    FIR_32fc() = default;
    FIR_32fc(const Ipp32fc* taps, int len) { SetTaps(taps, len); }
    FIR_32fc(const FIR_32fc&) = delete;
    FIR_32fc& operator=(const FIR_32fc&) = delete;

    // Copies tapsLen >= 1 taps.
    void SetTaps(const Ipp32fc* taps, int tapsLen);
    std::vector<Ipp32fc> GetTaps() const { return filterTaps; }
    // Forgets the past, keeps the taps.
    void Flush();
    // Returns 0.
    IppStatus Filter(const Ipp32fc* src, Ipp32fc* dst, int len);
    IppStatus Filter_I(Ipp32fc* srcDst, int len) { return Filter(srcDst, srcDst, len); }

private:
    IppsFIRSpec_32fc* spec = nullptr;  // lies inside specMem
    IppsMemory specMem;
    IppsMemory workBuf;
    std::vector<Ipp32fc> filterTaps;
    std::vector<Ipp32fc> dly;  // the last inputs, one less than taps
};

// The same filter, of whose outputs every factor-th is kept, from the first on.
class FIRDown_32fc {
public:
    FIRDown_32fc() = default;
    FIRDown_32fc(const FIRDown_32fc&) = delete;
    FIRDown_32fc& operator=(const FIRDown_32fc&) = delete;

    // Copies tapsLen >= 1 taps; keepEvery >= 1.
    void SetTaps(const Ipp32fc* taps, int tapsLen, int keepEvery);
    // Forgets the past, keeps the taps: the next output is the first one again.
    void Flush();
    // Returns the number of values written, at most (len + keepEvery - 1) / keepEvery. dst and src must not overlap.
    int Filter(const Ipp32fc* src, Ipp32fc* dst, int len);

private:
    IppsMemory specMem;
    IppsMemory workBuf;
    std::vector<Ipp32fc> dly;  // the last inputs, one less than taps
    int phase = 0;             // inputs until the next value that is kept
};

// Shifts a stream in frequency: multiplies it by a complex tone whose phase runs on from block to block. Nothing
// allocates but construction and Init.
class IQFreqTuner_32fc {
public:
    IQFreqTuner_32fc() { Init(0.0, 0, true); }
    IQFreqTuner_32fc(double _tuneFreq, int _blockLen, bool _highAccuracy) { Init(_tuneFreq, _blockLen, _highAccuracy); }

    // May be called again to retune; the phase starts at 0.
    //   _tuneFreq      fraction of the sample rate, -1 to below 1
    //   _blockLen      the longest block of one Tune
    //   _highAccuracy  true: the tone is made in double precision; false: by a recurrence, within 1e-4, and faster
    void Init(double _tuneFreq, int _blockLen, bool _highAccuracy);
    // The phase as `offset` samples after phase 0.
    void SetPhaseOffset(int64_t offset);
    // The next len samples of the tone times src; len at most blockLen; dst may be src.
    void Tune(const Ipp32fc* src, Ipp32fc* dst, int len);
    void Tune(const Ipp32fc* src, Ipp32fc* dst) { Tune(src, dst, blockLen); }
    // The next len samples of the tone into tone_32fc.
    void GenNextToneSegment(int len);

    double freq = 0.0;       // fraction of the sample rate, 0 to below 1
    double phase_64f = 0.0;  // of the next sample [rad], 0 to 2 pi
    int blockLen = 0;
    bool highAccuracy = true;
    std::vector<Ipp64fc> tone_64fc;  // blockLen values each
    std::vector<Ipp32fc> tone_32fc;
};

inline constexpr double CONFINED_GAUSSIAN_BW = 2.65;  // of the Gaussian window at -6 dB, [bins]

// Resolution bandwidth of a window [bins], the instrument's fixed constant: a window of L samples at rate r has an RBW
// of r * bandwidth / L.
double GetWindowBandwidth(TqWindowType window);

// The windows as their formulas have them, len values, first and last alike, not normalised. A window of one point is
// 1. They allocate, but for the first.
void buildWindowFunction(TqWindowType window, double* buf, int len);
void BuildWindowFunction(TqWindowType window, float* buf, int len);
void BuildWindowFunction(TqWindowType window, Ipp32fc* buf, int len);  // im 0
void BuildWindowFunction(TqWindowType window, Ipp64fc* buf, int len);  // im 0

void GetFlatTopWindow(double* dst, int len);
void GetNutallWindow(double* dst, int len);
void GetBlackmanWindow(double* dst, int len);
void GetHammingWindow(double* dst, int len);
void GetGaussian6dBWindow(double* dst, double sigma, int len);  // sigma: as a fraction of len
void GetRectWindow(double* dst, int len);

// Scales to a sum of len. A zero-padded window takes its padded length, since the forward transform divides by that.
void NormalizeWindow(Ipp32f* window, int len);
void NormalizeWindow(Ipp64f* window, int len);
void NormalizeWindow(Ipp32fc* window, int len);  // the real parts; im is not touched

// Windowed-sinc low-pass, designed in double precision. Allocates. Returns 0.
//   taps       out, len values, len at least 5
//   cutoff     as a fraction of the sample rate, above 0, below 0.5
//   normalize  ippTrue: gain 1 at zero frequency
IppStatus GetLowpassFIRTaps_64f(Ipp64f* taps, int len, Ipp32f cutoff, IppWinType winType, IppBool normalize);
IppStatus GetLowpassFIRTaps_32f(Ipp32f* taps, int len, Ipp32f cutoff, IppWinType winType, IppBool normalize);
IppStatus GetLowpassFIRTaps_32fc(Ipp32fc* taps, int len, Ipp32f cutoff, IppWinType winType, IppBool normalize);

// Chebyshev type I, arguments as of IIR_32f::SetTaps. Allocates. Returns 0.
//   taps  out, 2 * order + 2 values, B0 to Bn, then A0 to An
IppStatus GetLowpassIIRTaps_32f(Ipp64f freq, Ipp64f ripple, int order, Ipp32f* taps);
IppStatus GetHighpassIIRTaps_32f(Ipp64f freq, Ipp64f ripple, int order, Ipp32f* taps);

inline constexpr Ipp16s gSpurADCOffset = 576;  // the device adds it to each I and each Q value

// Device samples to floating point: (value - gSpurADCOffset) / 2^scaleFactor on I and Q, with scaleFactor 15 in the
// first. The difference saturates at 16 bits. No allocation. src and dst don't overlap.
IppStatus Convert_16sc32fc(const Ipp16sc* src, Ipp32fc* dst, int len);
IppStatus Convert_16sc32fc_Sfs(const Ipp16sc* src, Ipp32fc* dst, int len, int scaleFactor);

// Full scale 1.0 to 16 bits: times 2^15, rounded to nearest, saturated. The device's offset is not added back.
IppStatus Convert_32fc16sc(const Ipp32fc* src, Ipp16sc* dst, int len);

// In place: dB to a factor of amplitude, 10^(x / 20).
void DBCalToLin_32f(Ipp32f* srcDst, int len);

bool IsOdd(int n);
bool IsPowerOf2(int n);
// Exact log2 of a power of two.
int IntLogBase2(int n);
// Smallest power of two not below n; 1 for n up to 1, and 2^30, the largest there is, for any n above it.
int RoundUpPowerTwo(int n);

// floor(n + 0.5): halves go up. A value beyond the type gives its nearer limit, a NaN gives 0.
int RoundToInt(double n);
int64_t RoundToInt64(double n);

}  // namespace DSP
