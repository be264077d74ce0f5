// Internal allocation: every scratch or persistent block of the library comes
// from these helpers over velMalloc, so a failing allocation is always a null
// pointer (never an exception) and the test hook in velcore reaches them all.
#pragma once

#include <cstddef>

#include "velcore.h"

namespace velr {

// Counts of 8-byte, 4-byte and 1-byte items; null without calling velMalloc
// when count is below 1. The product is not checked for overflow.
void* allocItems8(int count);
void* allocItems4(int count);
void* allocBytes(int count);

// Owns one block from the helpers above for the duration of a scope.
class ScratchBlock {
 public:
  ScratchBlock() = default;
  explicit ScratchBlock(void* p) : p_(p) {}
  ScratchBlock(const ScratchBlock&) = delete;
  ScratchBlock& operator=(const ScratchBlock&) = delete;
  ScratchBlock(ScratchBlock&& o) noexcept : p_(o.release()) {}
  ScratchBlock& operator=(ScratchBlock&& o) noexcept {
    reset(o.release());
    return *this;
  }
  ~ScratchBlock() { velFree(p_); }

  template <class T = void>
  T* get() const {
    return static_cast<T*>(p_);
  }
  explicit operator bool() const { return p_ != nullptr; }
  void* release() {
    void* p = p_;
    p_ = nullptr;
    return p;
  }
  void reset(void* p = nullptr) {
    velFree(p_);
    p_ = p;
  }

 private:
  void* p_ = nullptr;
};

}  // namespace velr
