// The reciprocal square root estimate behind the smooth normal's block form.
//
// Processor reciprocal-square-root instructions are approximations whose
// exact bits differ between processor generations and between their 128-bit
// and 512-bit forms, so they cannot give the same normals on every target.
// The estimate is built from exactly rounded operations instead: an
// exponent-halving integer guess (within 3.5%) refined by two Newton steps
// (within 5e-6). The block form then applies its own single Newton step,
// which brings the normal to within about 1.5e-7 of unit length. The vector
// kernels repeat these operations lane by lane in the same order.
#pragma once

#include <cstdint>
#include <cstring>

namespace velr {

inline constexpr uint32_t kRsqrtSeed = 0x5F375A86u;

// r' = (r * -0.5) * (s * r * r - 3), the Newton step for 1 / sqrt(s).
inline float rsqrtNewtonStep(float s, float r) { return (r * -0.5f) * ((s * r) * r - 3.0f); }

inline float rsqrtEstimate(float s) {
  uint32_t bits;
  std::memcpy(&bits, &s, sizeof bits);
  bits = kRsqrtSeed - (bits >> 1);
  float r;
  std::memcpy(&r, &bits, sizeof r);
  r = rsqrtNewtonStep(s, r);
  return rsqrtNewtonStep(s, r);
}

}  // namespace velr
