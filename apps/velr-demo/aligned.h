// Vectors whose data start on a 64-byte boundary: the library takes its
// four-ray paths only for 16-byte aligned planes, and malloc promises less
// on some systems.
#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace velr::demo {

template <class T>
struct Aligned64 {
  using value_type = T;
  Aligned64() = default;
  template <class U>
  Aligned64(const Aligned64<U>&) {}
  T* allocate(std::size_t n) {
    return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(64)));
  }
  void deallocate(T* p, std::size_t) { ::operator delete(p, std::align_val_t(64)); }
  template <class U>
  bool operator==(const Aligned64<U>&) const { return true; }
};

template <class T>
using AlignedVector = std::vector<T, Aligned64<T>>;

}  // namespace velr::demo
