// Test helpers for the shading operations: ray planes placed at a chosen
// offset from a 64-byte boundary (so a test picks the aligned or unaligned
// path), seeded random contents, and bit-exact comparison.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "velr.h"

namespace velr::test {

// A plane of n elements starting `offset` elements past a 64-byte boundary.
template <class T>
class Plane {
 public:
  Plane() : Plane(0, 0) {}
  Plane(size_t n, size_t offset, T fill = T())
      : store_(n + offset + 64 / sizeof(T), fill), n_(n) {
    const uintptr_t a = reinterpret_cast<uintptr_t>(store_.data());
    p_ = store_.data() + ((64 - (a & 63)) & 63) / sizeof(T) + offset;
  }
  Plane(const Plane& o) : Plane(o.n_, o.offset()) { std::memcpy(p_, o.p_, n_ * sizeof(T)); }
  Plane& operator=(const Plane& o) {
    Plane t(o);
    std::swap(store_, t.store_);
    std::swap(p_, t.p_);
    std::swap(n_, t.n_);
    return *this;
  }
  T* data() { return p_; }
  const T* data() const { return p_; }
  T& operator[](size_t i) { return p_[i]; }
  const T& operator[](size_t i) const { return p_[i]; }
  size_t size() const { return n_; }
  size_t offset() const { return (reinterpret_cast<uintptr_t>(p_) & 63) / sizeof(T); }

 private:
  std::vector<T> store_;
  T* p_ = nullptr;
  size_t n_ = 0;
};

// Three planes of a vector packet and the pointer arrays the interface takes.
struct Planes3 {
  Plane<float> c[3];
  Planes3() = default;
  Planes3(size_t n, size_t offset, float fill = 0.0f)
      : c{Plane<float>(n, offset, fill), Plane<float>(n, offset, fill),
          Plane<float>(n, offset, fill)} {}
  float* const* out() {
    ptr[0] = c[0].data();
    ptr[1] = c[1].data();
    ptr[2] = c[2].data();
    return ptr;
  }
  const float* const* in() const {
    cptr[0] = c[0].data();
    cptr[1] = c[1].data();
    cptr[2] = c[2].data();
    return cptr;
  }

 private:
  float* ptr[3] = {};
  mutable const float* cptr[3] = {};
};

class Rng {
 public:
  explicit Rng(uint64_t seed) : s_(seed) {}
  uint64_t next() {
    s_ += 0x9E3779B97F4A7C15ull;
    uint64_t z = s_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  float uniform(float a, float b) { return static_cast<float>(a + (b - a) * unit()); }
  int below(int n) { return static_cast<int>(next() % static_cast<uint64_t>(n)); }

 private:
  uint64_t s_;
};

inline uint32_t bitsOf(float f) {
  uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}
inline float fromBits(uint32_t u) {
  float f;
  std::memcpy(&f, &u, sizeof f);
  return f;
}

// Equal bit patterns; any two NaNs count as equal, since which operand's
// payload a NaN result carries is up to the instruction chosen.
inline bool sameFloat(float a, float b) {
  return (std::isnan(a) && std::isnan(b)) || bitsOf(a) == bitsOf(b);
}

inline ::testing::AssertionResult samePlanes(const float* got, const float* want, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (!sameFloat(got[i], want[i])) {
      return ::testing::AssertionFailure()
             << "element " << i << ": got " << got[i] << " (0x" << std::hex << bitsOf(got[i])
             << "), want " << want[i] << " (0x" << bitsOf(want[i]) << std::dec << ")";
    }
  }
  return ::testing::AssertionSuccess();
}

inline ::testing::AssertionResult sameInts(const int32_t* got, const int32_t* want, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (got[i] != want[i]) {
      return ::testing::AssertionFailure()
             << "element " << i << ": got " << got[i] << ", want " << want[i];
    }
  }
  return ::testing::AssertionSuccess();
}

// Mask values for a packet: mostly hit indices below `triangles`, some -1,
// a few other negatives, and whole runs of inactive rays so that the blocks
// skipped after one test are exercised at every vector width.
inline Plane<int32_t> randomMask(Rng& rng, size_t n, size_t offset, int triangles = 1000) {
  Plane<int32_t> m(n, offset);
  for (size_t i = 0; i < n; ++i) {
    const int r = rng.below(10);
    m[i] = r < 6 ? rng.below(triangles) : (r < 9 ? -1 : -1 - rng.below(100));
  }
  if (n >= 40) {
    const size_t start = static_cast<size_t>(rng.below(static_cast<int>(n - 32)));
    for (size_t i = start; i < start + 32; ++i) m[i] = -1;
  }
  return m;
}

// Floats of either sign spread over several magnitudes, with the occasional
// zero, infinity or NaN when `special` is set.
inline float randomFloat(Rng& rng, bool special) {
  if (special) {
    switch (rng.below(40)) {
      case 0: return 0.0f;
      case 1: return -0.0f;
      case 2: return HUGE_VALF;
      case 3: return -HUGE_VALF;
      case 4: return std::nanf("");
      default: break;
    }
  }
  const float mag = std::ldexp(rng.uniform(0.5f, 1.0f), rng.below(12) - 6);
  return rng.below(2) ? mag : -mag;
}

inline Plane<float> randomPlane(Rng& rng, size_t n, size_t offset, bool special) {
  Plane<float> p(n, offset);
  for (size_t i = 0; i < n; ++i) p[i] = randomFloat(rng, special);
  return p;
}

inline Planes3 randomPlanes(Rng& rng, size_t n, size_t offset, bool special) {
  Planes3 p(n, offset);
  for (auto& c : p.c)
    for (size_t i = 0; i < n; ++i) c[i] = randomFloat(rng, special);
  return p;
}

// Packet shapes that reach every path: short lengths around the block size,
// a long multiple of 4 that is not a multiple of the widest vector, a long
// odd length; each aligned and one float off.
struct PacketShape {
  size_t len;
  size_t offset;
};
inline std::vector<PacketShape> packetShapes() {
  std::vector<PacketShape> shapes;
  for (size_t offset : {0u, 1u}) {
    for (size_t len = 0; len <= 9; ++len) shapes.push_back({len, offset});
    for (size_t len : {36u, 1028u, 1001u}) shapes.push_back({len, offset});
  }
  return shapes;
}

inline std::string shapeName(const std::string& target, PacketShape s) {
  return target + " len " + std::to_string(s.len) + (s.offset ? " unaligned" : " aligned");
}

// Calls fn(args...) once per listed argument position with that argument
// replaced by a null pointer; each call must report velStsNullPtrErr.
template <size_t... Checked, class Fn, class... Args>
void expectNullRejected(Fn fn, Args... args) {
  const auto all = std::make_tuple(args...);
  (
      [&] {
        auto one = all;
        std::get<Checked>(one) = nullptr;
        EXPECT_EQ(std::apply(fn, one), velStsNullPtrErr) << "argument " << Checked;
      }(),
      ...);
}

}  // namespace velr::test
