#include "ipps.h"
#include "ipps_detail.h"
#include "math_kernels.h"
#include "vector_kernels.h"

using ipps_detail::Check;

namespace {

// A complex array as the real one it is.
const Ipp32f* Parts(const Ipp32fc* p) { return reinterpret_cast<const Ipp32f*>(p); }
Ipp32f* Parts(Ipp32fc* p) { return reinterpret_cast<Ipp32f*>(p); }

// Runs a kernel that says of nothing.
template <class Table>
IppStatus Run(void (*Table::*kernel)(const float*, float*, std::ptrdiff_t),
              const ipps_detail::KernelTables<Table>& tables, const Ipp32f* src, Ipp32f* dst, int len) {
    if (const IppStatus status = Check(len, src, dst); status != ippStsNoErr) return status;
    (tables.Now().*kernel)(src, dst, len);
    return ippStsNoErr;
}

// Runs one that finds the least value of src, and picks the warning for it.
IppStatus Run(float (*MathKernels::*kernel)(const float*, float*, std::ptrdiff_t), const Ipp32f* src, Ipp32f* dst,
              int len, IppStatus ofNegative, IppStatus ofZero) {
    if (const IppStatus status = Check(len, src, dst); status != ippStsNoErr) return status;
    const float least = (MATH_KERNELS.Now().*kernel)(src, dst, len);
    if (least < 0.0F) return ofNegative;
    return least == 0.0F ? ofZero : ippStsNoErr;
}

}  // namespace

IppStatus ippsExp_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Run(&MathKernels::exp32f, MATH_KERNELS, pSrc, pDst, len);
}

IppStatus ippsExp_32f_I(Ipp32f* pSrcDst, int len) { return ippsExp_32f(pSrcDst, pSrcDst, len); }

IppStatus ippsLn_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Run(&MathKernels::ln32f, pSrc, pDst, len, ippStsLnNegArg, ippStsLnZeroArg);
}

IppStatus ippsLn_32f_A11(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Run(&MathKernels::ln32fA11, pSrc, pDst, len, ippStsLnNegArg, ippStsLnZeroArg);
}

IppStatus ippsSqr_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::sqr32f, VECTOR_KERNELS, pSrc, pDst, len);
}

IppStatus ippsSqrt_32f(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Run(&MathKernels::sqrt32f, pSrc, pDst, len, ippStsSqrtNegArg, ippStsNoErr);
}

IppStatus ippsSqrt_32f_A11(const Ipp32f* pSrc, Ipp32f* pDst, int len) {
    return Run(&MathKernels::sqrt32fA11, pSrc, pDst, len, ippStsSqrtNegArg, ippStsNoErr);
}

IppStatus ippsConj_32fc(const Ipp32fc* pSrc, Ipp32fc* pDst, int len) {
    return Run(&VectorKernels::conj32fc, VECTOR_KERNELS, Parts(pSrc), Parts(pDst), len);
}

IppStatus ippsMagnitude_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::magnitude32fc, VECTOR_KERNELS, Parts(pSrc), pDst, len);
}

IppStatus ippsPowerSpectr_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len) {
    return Run(&VectorKernels::power32fc, VECTOR_KERNELS, Parts(pSrc), pDst, len);
}

IppStatus ippsPhase_32fc(const Ipp32fc* pSrc, Ipp32f* pDst, int len) {
    return Run(&MathKernels::phase32fc, MATH_KERNELS, Parts(pSrc), pDst, len);
}
