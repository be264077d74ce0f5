// Shared machinery of the fuzz harnesses: reading a call's parameters from
// the fuzzer's bytes, and memory regions fenced by guard bytes whose every
// byte is compared with a snapshot after the call, so that a write outside the
// declared outputs (or any write on a failing status) is caught even where
// AddressSanitizer sees a legal address, such as the padding of a line step.
#pragma once

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "velr.h"

namespace fuzz {

[[noreturn]] inline void fail(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
  std::abort();
}

#define FUZZ_CHECK(cond, what)                                  \
  do {                                                          \
    if (!(cond)) ::fuzz::fail(what, __FILE__, __LINE__);        \
  } while (0)

// Prints a call's parameters when FUZZ_TRACE is set, for reproducing a
// reported input by hand.
inline bool tracing() {
  static const bool on = std::getenv("FUZZ_TRACE") != nullptr;
  return on;
}
#define FUZZ_TRACE(...)                                    \
  do {                                                     \
    if (::fuzz::tracing()) std::fprintf(stderr, __VA_ARGS__); \
  } while (0)

// The status a call returned must be the one its checks predict.
#define FUZZ_EXPECT_STATUS(got, want)                                                       \
  do {                                                                                      \
    const VelStatus got_ = (got), want_ = (want);                                           \
    FUZZ_TRACE("  -> status %d\n", static_cast<int>(got_));                                \
    if (got_ != want_) {                                                                    \
      std::fprintf(stderr, "status %d, expected %d\n", static_cast<int>(got_),              \
                   static_cast<int>(want_));                                                \
      ::fuzz::fail("status", __FILE__, __LINE__);                                           \
    }                                                                                       \
  } while (0)

// Reads parameters from the fuzzer's bytes. Once the bytes run out every read
// gives 0, so short inputs still describe an ordinary, valid call: choices
// are arranged so that 0 means the common case (pointer present, aligned).
class Input {
 public:
  Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

  uint8_t u8() { return p_ < end_ ? *p_++ : 0; }
  uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
  uint32_t u32() { return u16() | (static_cast<uint32_t>(u16()) << 16); }
  uint64_t u64() { return u32() | (static_cast<uint64_t>(u32()) << 32); }

  // True about once in `n` calls; false when the input is exhausted.
  bool oneIn(int n) { return u8() % n == static_cast<unsigned>(n - 1); }

  // Uniform-ish in [lo, hi], inclusive.
  int range(int lo, int hi) {
    const uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
    const uint64_t v = span <= 256 ? u8() : span <= 65536 ? u16() : u32();
    return static_cast<int>(lo + static_cast<int64_t>(v % span));
  }

  // Any int, biased towards the boundaries that checks compare against.
  int anyInt() {
    switch (u8() % 8) {
      case 0: return range(-2, 2);
      case 1: return INT_MIN;
      case 2: return INT_MAX;
      case 3: return range(-64, 64);
      case 4: return static_cast<int>(u32());
      default: return range(0, 20);
    }
  }

  // Floats with the special values weighted up.
  float f32() {
    switch (u8() % 20) {
      case 0: return 0.0f;
      case 1: return -0.0f;
      case 2: return 1.0f;
      case 3: return -1.0f;
      case 4: return INFINITY;
      case 5: return -INFINITY;
      case 6: return NAN;
      case 7: return FLT_MAX;
      case 8: return -FLT_MAX;
      case 9: return FLT_MIN;
      case 10: return 1.4e-45f;
      case 11: return FLT_EPSILON;
      case 12: {
        const uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
      }
      default: return static_cast<float>(static_cast<int8_t>(u8())) / 16.0f;
    }
  }

  // A finite float in [-limit, limit].
  float finite(float limit) {
    const float f = f32();
    if (!std::isfinite(f)) return 0.5f * limit;
    return std::fmax(-limit, std::fmin(limit, f));
  }

  double f64() {
    switch (u8() % 16) {
      case 0: return 0.0;
      case 1: return -0.0;
      case 2: return 1.0;
      case 3: return -1.0;
      case 4: return INFINITY;
      case 5: return NAN;
      case 6: return DBL_MAX;
      case 7: return DBL_MIN;
      case 8: return 1e-300;
      case 9: {
        const uint64_t bits = u64();
        double d;
        std::memcpy(&d, &bits, 8);
        return d;
      }
      default: return static_cast<double>(static_cast<int16_t>(u16())) / 256.0;
    }
  }

  // An offset in bytes from a 64-byte boundary, a multiple of `elem`: mostly
  // aligned, so that the vector paths are reached, sometimes not.
  size_t misalign(size_t elem) {
    const uint8_t b = u8();
    if (b < 160) return 0;
    return (b % (64 / elem)) * elem;
  }

  size_t remaining() const { return static_cast<size_t>(end_ - p_); }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
};

// Memory handed to one call. Every region sits between guard bytes; after
// the call every byte of every region (guards included) must equal its
// snapshot, except the bytes marked writable, and those only when the call
// was allowed to write.
class Arena {
 public:
  static constexpr size_t kGuard = 64;

  // `count` elements placed `misalign` bytes after a 64-byte boundary,
  // filled with arbitrary bytes from the input.
  template <class T>
  T* add(size_t count, size_t misalign, Input* fill = nullptr) {
    Region r;
    r.bytes = count * sizeof(T);
    r.total = kGuard + misalign + r.bytes + kGuard;
    r.base.reset(static_cast<uint8_t*>(std::aligned_alloc(64, (r.total + 63) & ~size_t(63))));
    std::memset(r.base.get(), 0xA5, r.total);
    r.data = r.base.get() + kGuard + misalign;
    if (fill != nullptr) {
      for (size_t i = 0; i < r.bytes; ++i) r.data[i] = fill->u8();
    }
    r.writable.assign(r.bytes, 0);
    FUZZ_TRACE("  region %zu: %zu bytes at %p\n", regions_.size(), r.bytes,
               static_cast<void*>(r.data));
    regions_.push_back(std::move(r));
    return reinterpret_cast<T*>(regions_.back().data);
  }

  // Marks [p, p + count) of a region as an output.
  template <class T>
  void writable(T* p, size_t count = 1) {
    const uint8_t* b = reinterpret_cast<const uint8_t*>(p);
    for (Region& r : regions_) {
      if (b >= r.data && b < r.data + r.bytes) {
        const size_t off = static_cast<size_t>(b - r.data);
        FUZZ_CHECK(off + count * sizeof(T) <= r.bytes, "writable range inside its region");
        std::memset(r.writable.data() + off, 1, count * sizeof(T));
        return;
      }
    }
    fail("writable range inside a region", __FILE__, __LINE__);
  }

  // Takes the snapshot; call after filling, right before the call under test.
  void seal() {
    for (Region& r : regions_) r.snapshot.assign(r.base.get(), r.base.get() + r.total);
  }

  // After the call: nothing outside the writable bytes changed, and nothing
  // at all unless `wrote`.
  void verify(bool wrote) const {
    for (size_t i = 0; i < regions_.size(); ++i) {
      const Region& r = regions_[i];
      const uint8_t* now = r.base.get();
      for (size_t k = 0; k < r.total; ++k) {
        if (now[k] == r.snapshot[k]) continue;
        const long off = static_cast<long>(k) - static_cast<long>(r.data - r.base.get());
        const bool inData = off >= 0 && static_cast<size_t>(off) < r.bytes;
        if (wrote && inData && r.writable[off]) continue;
        std::fprintf(stderr, "region %zu of %zu bytes: byte %ld changed (%s)\n", i, r.bytes, off,
                     !inData ? "guard" : !wrote ? "call failed or had nothing to do"
                                                : "not an output");
        fail("memory outside the outputs unchanged", __FILE__, __LINE__);
      }
    }
  }

  // Whether any writable byte changed; lets a harness check that a call that
  // reports success did not silently skip its work where that is decidable.
  bool anyOutputChanged() const {
    for (const Region& r : regions_) {
      const uint8_t* now = r.base.get();
      for (size_t k = 0; k < r.bytes; ++k) {
        const size_t at = static_cast<size_t>(r.data - now) + k;
        if (r.writable[k] && now[at] != r.snapshot[at]) return true;
      }
    }
    return false;
  }

 private:
  struct Free {
    void operator()(uint8_t* p) const { std::free(p); }
  };
  struct Region {
    std::unique_ptr<uint8_t, Free> base;
    size_t total = 0;
    uint8_t* data = nullptr;
    size_t bytes = 0;
    std::vector<uint8_t> writable;
    std::vector<uint8_t> snapshot;
  };
  std::vector<Region> regions_;
};

// An array of n plane pointers in the arena, each plane its own region of
// `count` elements filled from the input; the planes are outputs when
// `output` is set.
template <class T>
T** planes(Arena& arena, Input& in, int n, size_t count, bool output, size_t misalign) {
  T** list = arena.add<T*>(static_cast<size_t>(n), 0);
  for (int i = 0; i < n; ++i) {
    list[i] = arena.add<T>(count, misalign, &in);
    if (output && count > 0) arena.writable(list[i], count);
  }
  return list;
}

// Picks the thread count for the call, so the parallel paths are reached.
inline void pickThreads(Input& in) { velSetNumThreads(1 + in.u8() % 4); }

}  // namespace fuzz
