// A FIR filter of which only every factor-th output is wanted, beside the signal primitives (ipps.h) and in their
// manner: what ippsFIRSR_32fc and then ippsSampleDown_32fc give, at a fraction of the work. The error's bound is that
// of the filter in ipps.h, with the factor for tapsLen if it is larger, and with factor - 1 roundings more. Used by the
// I/Q engines. Any thread may enter; a work buffer and a delay line belong to one call at a time.
#pragma once

#include "ipps.h"

namespace ipps_detail {

struct FirDownSpec_32fc;

// Byte sizes of description and work buffer. tapsLen and factor >= 1, else ippStsSizeErr and ippStsBadArgErr;
// ippStsSizeErr also beyond int.
IppStatus FirDownGetSize_32fc(int tapsLen, int factor, int* pSpecSize, int* pBufSize);

// Copies the taps into the description.
IppStatus FirDownInit_32fc(const Ipp32fc* pTaps, int tapsLen, int factor, FirDownSpec_32fc* pSpec);

// pDst[k] = output *pPhase + k x factor of the filter, while that is below srcLen. Does not allocate.
//   pSrc, pDst        must not overlap
//   srcLen            any length
//   pDstLen           out, number of values written: at most (srcLen + factor - 1) / factor
//   pDlySrc, pDlyDst  delay line of the filter: the tapsLen - 1 inputs before and after; may be one array, and null for
//                     one tap
//   pPhase            in, 0 <= *pPhase < factor, else ippStsBadArgErr; out, the offset at which the next block
//   continues
IppStatus FirDown_32fc(const Ipp32fc* pSrc, int srcLen, Ipp32fc* pDst, int* pDstLen, const FirDownSpec_32fc* pSpec,
                       const Ipp32fc* pDlySrc, Ipp32fc* pDlyDst, int* pPhase, Ipp8u* pBuf);

}  // namespace ipps_detail
