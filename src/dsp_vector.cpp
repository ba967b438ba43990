#include "dsp_vector.h"

#include "ipps.h"

#include <limits>
#include <new>
#include <type_traits>

namespace DSP {

template <typename T>
void Vector<T>::resize(int64_t newSize) {
    static_assert(std::is_trivially_copyable_v<T>);
    TQ_ASSERT(newSize >= 0);
    clear();
    if (newSize == 0) return;
    constexpr int64_t ELEMENT_BYTES = sizeof(T);
    if (newSize > std::numeric_limits<int64_t>::max() / ELEMENT_BYTES) throw std::bad_alloc();
    mem = static_cast<T*>(ippMalloc_L(newSize * ELEMENT_BYTES));
    if (mem == nullptr) throw std::bad_alloc();
    capacity = newSize;
}

template <typename T>
void Vector<T>::clear() {
    if (mem == nullptr) return;
    TQ_ASSERT(capacity > 0);
    ippsFree(mem);
    mem = nullptr;
    capacity = 0;
}

template class Vector<unsigned char>;
template class Vector<int>;
template class Vector<float>;
template class Vector<double>;
template class Vector<Ipp32fc>;

}  // namespace DSP
