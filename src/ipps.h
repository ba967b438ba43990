// The signal primitives: 88 vector operations in the vocabulary of a well-known signal library, written here from
// their mathematical definitions. The whole of the library's bulk arithmetic runs on them, mostly through the
// namespace DSP (dsp.h, dsp_vector.h). Any thread may enter: an operation touches only its arguments. Descriptions
// may be shared; a work buffer, a delay line or a filter state belongs to one call at a time.
//
// What holds for all of them, where the comment says no more:
//   - Lengths count elements; a complex value is one element. A length of 0 is legal and does nothing.
//   - Arrays need no alignment beyond their element's. Memory of descriptions, states and work buffers needs none at
//     all, but must stay at its address between initialisation and use.
//   - Source and destination may be the same array; other overlap is allowed only where the comment says so.
//   - Nothing allocates, locks or blocks, except for the two allocators.
//   - The status is ippStsNullPtrErr for a null pointer, then ippStsSizeErr for a negative length, then what the
//     comment names; on an error nothing has been written.
#pragma once

#include <cstdint>

using Ipp8u = std::uint8_t;
using Ipp16s = std::int16_t;
using Ipp32s = std::int32_t;
using Ipp32u = std::uint32_t;
using Ipp64u = std::uint64_t;
using Ipp32f = float;
using Ipp64f = double;

struct Ipp16sc {
    Ipp16s re;
    Ipp16s im;
};
struct Ipp32fc {
    Ipp32f re;
    Ipp32f im;
};
struct Ipp64fc {
    Ipp64f re;
    Ipp64f im;
};

// Result of an operation: 0 success, negative an error, positive a warning with all results delivered.
using IppStatus = int;
constexpr IppStatus ippStsNoErr = 0;
constexpr IppStatus ippStsBadArgErr = -5;       // enumerator, phase, factor or data type outside what is supported
constexpr IppStatus ippStsSizeErr = -6;         // length, order or number of taps out of range, or size beyond int
constexpr IppStatus ippStsNullPtrErr = -8;      // a required pointer is null
constexpr IppStatus ippStsDivByZeroErr = -10;   // filter whose A0 is 0, or taps that sum to 0
constexpr IppStatus ippStsScaleRangeErr = -13;  // scale factor beyond +-IPP_MAX_SCALE_FACTOR
constexpr IppStatus ippStsFftOrderErr = -15;    // order outside 0 to IPP_MAX_FFT_ORDER
constexpr IppStatus ippStsFftFlagErr = -16;     // flag other than 1, 2, 4, 8
constexpr IppStatus ippStsRelFreqErr = -17;     // relative frequency out of range
constexpr IppStatus ippStsRippleErr = -18;      // pass-band ripple out of range
constexpr IppStatus ippStsSqrtNegArg = 3;       // root of a negative value: NaN
constexpr IppStatus ippStsLnZeroArg = 7;        // logarithm of 0: minus infinity
constexpr IppStatus ippStsLnNegArg = 8;         // logarithm of a negative value: NaN

constexpr int IPP_MAX_SCALE_FACTOR = 64;
constexpr int IPP_MAX_FFT_ORDER = 25;

enum IppBool { ippFalse = 0, ippTrue = 1 };
enum IppHintAlgorithm { ippAlgHintNone = 0, ippAlgHintFast = 1, ippAlgHintAccurate = 2 };
enum IppRoundMode { ippRndZero = 0, ippRndNear = 1, ippRndFinancial = 2 };  // to 0; halves to even; halves away from 0
enum IppAlgType { ippAlgAuto = 0, ippAlgDirect = 1, ippAlgFFT = 2 };
enum IppWinType { ippWinBartlett = 0, ippWinBlackman = 1, ippWinHamming = 2, ippWinHann = 3, ippWinRect = 4 };
enum IppsIIRFilterType { ippButterworth = 0, ippChebyshev1 = 1 };
enum IppDataType { ipp32f = 13, ipp32fc = 14, ipp64f = 19 };

// Normalisation of the transforms; one of them is the flag.
constexpr int IPP_FFT_DIV_FWD_BY_N = 1;
constexpr int IPP_FFT_DIV_INV_BY_N = 2;
constexpr int IPP_FFT_DIV_BY_SQRTN = 4;
constexpr int IPP_FFT_NODIV_BY_ANY = 8;

struct IppiSize {
    int width;
    int height;
};

struct IppsFFTSpec_C_32fc;
struct IppsFFTSpec_C_64fc;
struct IppsFFTSpec_R_64f;
struct IppsFIRSpec_32f;
struct IppsFIRSpec_64f;
struct IppsFIRSpec_32fc;
struct IppsIIRState_32f;

// --- Set-up and memory ---

// Prepares the primitives. Returns ippStsNoErr.
IppStatus ippInit();

// Features that this processor and its operating system offer: 0x100 AVX, 0x200 AVX enabled by the system, 0x8000 AVX2.
Ipp64u ippGetEnabledCpuFeatures();

// Memory of so many bytes, aligned to 64; null for a count <= 0 or when there is none. Release with ippsFree.
void* ippMalloc_L(std::int64_t byteCount);
Ipp8u* ippsMalloc_8u(int byteCount);

// Releases memory of either allocator; null is legal.
void ippsFree(void* ptr);

// --- Fill, copy and move ---

IppStatus ippsZero_8u(Ipp8u* pDst, int len);
IppStatus ippsZero_32s(Ipp32s* pDst, int len);
IppStatus ippsZero_32f(Ipp32f* pDst, int len);
IppStatus ippsZero_32fc(Ipp32fc* pDst, int len);
IppStatus ippsZero_64f(Ipp64f* pDst, int len);

IppStatus ippsSet_32f(Ipp32f val, Ipp32f* pDst, int len);
IppStatus ippsSet_32s(Ipp32s val, Ipp32s* pDst, int len);
IppStatus ippsSet_64fc(Ipp64fc val, Ipp64fc* pDst, int len);

// Copies; the arrays must not overlap.
IppStatus ippsCopy_8u(const Ipp8u* pSrc, Ipp8u* pDst, int len);
IppStatus ippsCopy_16sc(const Ipp16sc* pSrc, Ipp16sc* pDst, int len);
IppStatus ippsCopy_32s(const Ipp32s* pSrc, Ipp32s* pDst, int len);
IppStatus ippsCopy_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsCopy_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len);
IppStatus ippsCopy_64f(const Ipp64f* pSrc, Ipp64f* pDst, int len);
IppStatus ippsCopy_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, int len);

// Copies between arrays that may overlap in any way.
IppStatus ippsMove_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsMove_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len);

// pDst[n] = pSrc[len - 1 - n]; the arrays must not overlap.
IppStatus ippsFlip_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);

// --- Arithmetic, element by element ---

IppStatus ippsAdd_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsAdd_32u(const Ipp32u* pSrc1, const Ipp32u* pSrc2, Ipp32u* pDst, int len);  // wraps at 2^32
IppStatus ippsAddC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len);
IppStatus ippsAddC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len);

// Integer results x 2^-scaleFactor, rounded with halves to even, saturated at the limits of the type.
// ippStsScaleRangeErr.
IppStatus ippsSubC_16s_Sfs(const Ipp16s* pSrc, Ipp16s val, Ipp16s* pDst, int len, int scaleFactor);  // pSrc - val
IppStatus ippsSub_32s_Sfs(const Ipp32s* pSrc1, const Ipp32s* pSrc2, Ipp32s* pDst, int len,
                          int scaleFactor);  // pSrc2 - pSrc1: the first is subtracted from the second

IppStatus ippsMul_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsMul_64f(const Ipp64f* pSrc1, const Ipp64f* pSrc2, Ipp64f* pDst, int len);
IppStatus ippsMul_32fc(const Ipp32fc* pSrc1, const Ipp32fc* pSrc2, Ipp32fc* pDst, int len);  // no conjugation
IppStatus ippsMul_64fc(const Ipp64fc* pSrc1, const Ipp64fc* pSrc2, Ipp64fc* pDst, int len);
IppStatus ippsMulC_32f(const Ipp32f* pSrc, Ipp32f val, Ipp32f* pDst, int len);
IppStatus ippsMulC_32f_I(Ipp32f val, Ipp32f* pSrcDst, int len);
IppStatus ippsMulC_64f(const Ipp64f* pSrc, Ipp64f val, Ipp64f* pDst, int len);

// --- Functions, element by element ---

IppStatus ippsExp_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsExp_32f_I(Ipp32f* pSrcDst, int len);

// Natural logarithm; ippStsLnNegArg, else ippStsLnZeroArg, when such a value occurs. _A11 promises only 11 bits.
IppStatus ippsLn_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsLn_32f_A11(const Ipp32f* pSrc, Ipp32f* pDst, int len);

IppStatus ippsSqr_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);

// Square root; ippStsSqrtNegArg when a value is below 0. _A11 promises only 11 bits.
IppStatus ippsSqrt_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len);
IppStatus ippsSqrt_32f_A11(const Ipp32f* pSrc, Ipp32f* pDst, int len);

IppStatus ippsConj_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len);

// sqrt(re^2 + im^2), re^2 + im^2, and atan2(im, re) from -pi to pi [rad]. Squares are formed in single precision: the
// first two are good while the larger of |re| and |im| lies between 1.1e-19, below which its square loses bits and then
// vanishes, and 1.3e19, above which the sum of the squares may be infinite. Samples at full scale 1.0 never leave that.
IppStatus ippsMagnitude_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len);
IppStatus ippsPowerSpectr_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len);
IppStatus ippsPhase_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len);

// The smaller, the larger of each pair. Where one of the two is NaN, the value of pSrc2.
IppStatus ippsMinEvery_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);
IppStatus ippsMaxEvery_32f(const Ipp32f* pSrc1, const Ipp32f* pSrc2, Ipp32f* pDst, int len);

// --- Sums ---

// Sum of all, 0 for none. All three add in double precision, whatever the hint.
IppStatus ippsSum_32f(const Ipp32f* pSrc, int len, Ipp32f* pSum, IppHintAlgorithm hint);
IppStatus ippsSum_32fc(const Ipp32fc* pSrc, int len, Ipp32fc* pSum, IppHintAlgorithm hint);
IppStatus ippsSum_64f(const Ipp64f* pSrc, int len, Ipp64f* pSum);

// --- Conversions ---

// pDst[n] = pSrc[n] x 2^-scaleFactor. Runs from the lowest index upward, element n being read before it is written:
// pSrc may lie in the upper half of pDst's memory. ippStsScaleRangeErr.
IppStatus ippsConvert_16s32f_Sfs(const Ipp16s* pSrc, Ipp32f* pDst, int len, int scaleFactor);

// pDst[n] = pSrc[n] x 2^-scaleFactor, rounded and saturated; NaN gives 0. ippStsBadArgErr, ippStsScaleRangeErr.
IppStatus ippsConvert_32f16s_Sfs(const Ipp32f* pSrc, Ipp16s* pDst, int len, IppRoundMode rndMode, int scaleFactor);

IppStatus ippsConvert_64f32f(const Ipp64f* pSrc, Ipp32f* pDst, int len);  // to nearest

// --- Signals ---

// pDst[n] = magn x exp(j(2 pi rFreq n + *pPhase)); *pPhase becomes the phase of sample len, 0 to below 2 pi [rad].
//   rFreq  fraction of the sample rate, 0 <= rFreq < 1; else ippStsRelFreqErr
// Accurate in double precision at every length, whatever the hint.
IppStatus ippsTone_64fc(Ipp64fc* pDst, int len, Ipp64f magn, Ipp64f rFreq, Ipp64f* pPhase, IppHintAlgorithm hint);

// pDst[k] = pSrc[*pPhase + k x factor] while the index is below srcLen.
//   pDstLen  out, number of values written
//   factor   >= 1
//   pPhase   in, 0 <= *pPhase < factor; out, the offset at which the next block continues
// ippStsBadArgErr for the last two.
IppStatus ippsSampleDown_32f(const Ipp32f* pSrc, int srcLen, Ipp32f* pDst, int* pDstLen, int factor, int* pPhase);
IppStatus ippsSampleDown_32fc(const Ipp32fc* pSrc, int srcLen, Ipp32fc* pDst, int* pDstLen, int factor, int* pPhase);

// Multiplies by 0.42 - 0.5 cos(2 pi n / (len - 1)) + 0.08 cos(4 pi n / (len - 1)). len >= 3, else ippStsSizeErr.
IppStatus ippsWinBlackmanStd_64f_I(Ipp64f* pSrcDst, int len);

// Transpose of the matrix of roiSize.height rows of roiSize.width floats.
//   srcStep, dstStep  distance between row starts [bytes], multiples of 4, at least a row; else ippStsSizeErr
// The same array is legal for a square matrix with equal steps, else ippStsSizeErr.
IppStatus ippiTranspose_32f_C1R(const Ipp32f* pSrc, int srcStep, Ipp32f* pDst, int dstStep, IppiSize roiSize);

// --- FFT ---
// Length N = 2^order, order 0 to 25. Forward is X[k] = sum over n of x[n] exp(-2 pi j n k / N), inverse the same with
// the sign reversed; the flag says which direction is divided by what.

// Byte sizes of the description, of the scratch of its initialisation and of the work buffer of a transform. A size
// of 0 means that the memory is not needed and may be null. ippStsFftOrderErr, ippStsFftFlagErr, ippStsSizeErr.
IppStatus ippsFFTGetSize_C_32fc(int order, int flag, IppHintAlgorithm hint, int* pSpecSize, int* pSpecBufferSize,
                                int* pBufferSize);
IppStatus ippsFFTGetSize_C_64fc(int order, int flag, IppHintAlgorithm hint, int* pSpecSize, int* pSpecBufferSize,
                                int* pBufferSize);
IppStatus ippsFFTGetSize_R_64f(int order, int flag, IppHintAlgorithm hint, int* pSpecSize, int* pSpecBufferSize,
                               int* pBufferSize);

// Builds the description in pSpec's memory and gives the usable pointer into it through ppSpec.
IppStatus ippsFFTInit_C_32fc(IppsFFTSpec_C_32fc** ppSpec, int order, int flag, IppHintAlgorithm hint, Ipp8u* pSpec,
                             Ipp8u* pSpecBuffer);
IppStatus ippsFFTInit_C_64fc(IppsFFTSpec_C_64fc** ppSpec, int order, int flag, IppHintAlgorithm hint, Ipp8u* pSpec,
                             Ipp8u* pSpecBuffer);
IppStatus ippsFFTInit_R_64f(IppsFFTSpec_R_64f** ppSpec, int order, int flag, IppHintAlgorithm hint, Ipp8u* pSpec,
                            Ipp8u* pSpecBuffer);

IppStatus ippsFFTFwd_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer);
IppStatus ippsFFTFwd_CToC_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, const IppsFFTSpec_C_64fc* pSpec, Ipp8u* pBuffer);
IppStatus ippsFFTInv_CToC_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, const IppsFFTSpec_C_32fc* pSpec, Ipp8u* pBuffer);
IppStatus ippsFFTInv_CToC_64fc(const Ipp64fc* pSrc, Ipp64fc* pDst, const IppsFFTSpec_C_64fc* pSpec, Ipp8u* pBuffer);

// Transform of N reals to and from the Perm layout, also N reals: R0, R(N/2), R1, I1, R2, I2, ... R(N/2-1), I(N/2-1).
IppStatus ippsFFTFwd_RToPerm_64f(const Ipp64f* pSrc, Ipp64f* pDst, const IppsFFTSpec_R_64f* pSpec, Ipp8u* pBuffer);
IppStatus ippsFFTInv_PermToR_64f(const Ipp64f* pSrc, Ipp64f* pDst, const IppsFFTSpec_R_64f* pSpec, Ipp8u* pBuffer);

// --- FIR filters ---

// Byte size of the scratch of the design: 0, none is needed and pBuffer may be null. tapsLen >= 5.
IppStatus ippsFIRGenGetBufferSize(int tapsLen, int* pBufferSize);

// Designs a windowed-sinc low-pass.
//   rFreq     cut-off as a fraction of the sample rate, 0 < rFreq < 0.5; else ippStsRelFreqErr
//   pTaps     out, tapsLen values; tapsLen >= 5, else ippStsSizeErr
//   winType   else ippStsBadArgErr
//   doNormal  ippTrue: taps are divided by the absolute value of their sum (ippStsDivByZeroErr)
IppStatus ippsFIRGenLowpass_64f(Ipp64f rFreq, Ipp64f* pTaps, int tapsLen, IppWinType winType, IppBool doNormal,
                                Ipp8u* pBuffer);

// Byte sizes of description and work buffer. tapsLen >= 1; ippStsSizeErr, ippStsBadArgErr for the type.
IppStatus ippsFIRSRGetSize(int tapsLen, IppDataType tapsType, int* pSpecSize, int* pBufSize);

// Copies the taps into the description. tapsLen >= 1.
IppStatus ippsFIRSRInit_32f(const Ipp32f* pTaps, int tapsLen, IppAlgType algType, IppsFIRSpec_32f* pSpec);
IppStatus ippsFIRSRInit_64f(const Ipp64f* pTaps, int tapsLen, IppAlgType algType, IppsFIRSpec_64f* pSpec);
IppStatus ippsFIRSRInit_32fc(const Ipp32fc* pTaps, int tapsLen, IppAlgType algType, IppsFIRSpec_32fc* pSpec);

// y[n] = sum for k from 0 to L - 1 of h[k] x[n - k].
//   numIters  samples of the block; any length, also below L
//   pDlySrc   the L - 1 inputs before the block, oldest first; zeros are silence
//   pDlyDst   out, the L - 1 inputs before the next block; may be pDlySrc
// With one tap there is no delay line and both may be null.
// Products are added directly, in an order that only the taps decide: how a stream is cut into blocks does not change a
// bit. But _32fc of some tens of taps, unless initialised with ippAlgDirect, transforms segments of N inputs, with N at
// most the larger of 256 and 16 tapsLen. An output is then within 2^-24 (20 log2 N + 8) S E of the exact one, however
// the stream is cut; S is the sum of |h[k]|, E the root of the sum of |x|^2 over the N inputs to each side. (Three
// transforms, the taps' among them, cost at worst 6.7 roundings each per doubling of N; usual errors are a hundredth of
// the bound.) An input that is not finite may spoil all outputs within N of it.
IppStatus ippsFIRSR_32f(const Ipp32f* pSrc, Ipp32f* pDst, int numIters, const IppsFIRSpec_32f* pSpec,
                        const Ipp32f* pDlySrc, Ipp32f* pDlyDst, Ipp8u* pBuf);
IppStatus ippsFIRSR_64f(const Ipp64f* pSrc, Ipp64f* pDst, int numIters, const IppsFIRSpec_64f* pSpec,
                        const Ipp64f* pDlySrc, Ipp64f* pDlyDst, Ipp8u* pBuf);
IppStatus ippsFIRSR_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int numIters, const IppsFIRSpec_32fc* pSpec,
                         const Ipp32fc* pDlySrc, Ipp32fc* pDlyDst, Ipp8u* pBuf);

// --- IIR filters ---

// Byte size of the scratch of the design: 0, none is needed and pBuffer may be null. order 1 to 12.
IppStatus ippsIIRGenGetBufferSize(int order, int* pBufferSize);

// Designs a digital Chebyshev filter of type I, whose pass band peaks at gain 1.
//   rFreq       edge of the pass band as a fraction of the sample rate, 0 < rFreq < 0.5; else ippStsRelFreqErr
//   rRipple     pass-band ripple [dB], above 0 and at most 29; else ippStsRippleErr
//   order       1 to 12, else ippStsSizeErr
//   pTaps       out, 2 x order + 2 values: B0 to Bn, then A0 to An, with A0 = 1
//   filterType  ippChebyshev1, else ippStsBadArgErr
IppStatus ippsIIRGenLowpass_64f(Ipp64f rFreq, Ipp64f rRipple, int order, Ipp64f* pTaps, IppsIIRFilterType filterType,
                                Ipp8u* pBuffer);
IppStatus ippsIIRGenHighpass_64f(Ipp64f rFreq, Ipp64f rRipple, int order, Ipp64f* pTaps, IppsIIRFilterType filterType,
                                 Ipp8u* pBuffer);

IppStatus ippsIIRGetStateSize_32f(int order, int* pBufferSize);  // [bytes]; order >= 1

// Builds the state in pBuf from 2 x order + 2 taps as above. A0 of 0 is ippStsDivByZeroErr.
//   pDlyLine  the filter's order state values (transposed direct form, taps divided by A0); null: silence before
IppStatus ippsIIRInit_32f(IppsIIRState_32f** ppState, const Ipp32f* pTaps, int order, const Ipp32f* pDlyLine,
                          Ipp8u* pBuf);

// y[n] = (sum for k from 0 to n of Bk x[n - k] - sum for k from 1 to n of Ak y[n - k]) / A0, in double precision.
// The state carries on from call to call.
IppStatus ippsIIR_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len, IppsIIRState_32f* pState);
IppStatus ippsIIR_32f_I(Ipp32f* pSrcDst, int len, IppsIIRState_32f* pState);
