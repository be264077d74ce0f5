// 3-D convolution of Vel16s volumes: the per-call plan that the front end
// prepares once and the slab kernels share, and the one-voxel forms that
// define every result (the vector kernels must match them bit for bit).
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "velr.h"

namespace velr::filter {

// Which kernel a call runs. The integer paths wrap their 32-bit sums and
// divide exactly; the float path sums in single precision. They can
// therefore disagree, and which one a call takes is part of its result.
enum class Path : int { kCube3, kCube5, kGeneric16, kFloat };

enum class DivisorClass : int { kUnit, kShift, kGeneral };

struct Scaling {
  DivisorClass cls = DivisorClass::kUnit;
  int shift = 0;           // k of a divisor 2^k (shift class)
  int divisor = 1;
  float reciprocal = 1.f;  // 1 / divisor in single precision (float path)
};

inline Scaling classifyDivisor(int divisor) {
  Scaling s;
  s.divisor = divisor;
  s.reciprocal = 1.0f / static_cast<float>(divisor);
  if (divisor == 1) {
    s.cls = DivisorClass::kUnit;
  } else if (divisor > 0 && (divisor & (divisor - 1)) == 0) {
    s.cls = DivisorClass::kShift;
    while ((1 << s.shift) != divisor) ++s.shift;
  } else {
    s.cls = DivisorClass::kGeneral;
  }
  return s;
}

// Taps of one kernel row are packed in pairs of 16-bit coefficients, the
// first in the low half. Pair p covers taps 2p and 2p + 1; with an odd row
// length the last pair is (0, last tap) placed one tap to the left, so that
// no load ever reaches past the neighbourhood the caller provides.
constexpr int pairsPerRow(int kw) { return (kw + 1) / 2; }
constexpr int pairOffset(int kw, int p) { return (kw & 1) && p == kw / 2 ? kw - 2 : 2 * p; }

// Everything a slab kernel needs. Kernel data are stored mirrored: tap
// (tx, ty, tz) multiplies src(x + xOrigin + tx, y + yOrigin + ty,
// z + zOrigin + tz), so every loop walks the source forwards.
struct Job {
  const Vel16s* const* src;  // entry 0 is the source plane aligned with dst[0]
  ptrdiff_t srcStride;       // elements
  Vel16s* const* dst;
  ptrdiff_t dstStride;  // elements
  int width, height;
  int kw, kh, kd;
  int64_t xOrigin, yOrigin, zOrigin;  // anchor - (kernel extent - 1)
  Path path;
  Scaling scaling;
  bool stream;  // write the integer paths' results past the caches
  const uint32_t* pairs;  // pairsPerRow(kw) per row, rows ty fastest, then tz
  const float* taps;      // kw per row, same row order (float path)
};

inline const Vel16s* sourceRow(const Job& job, int y, int z, int ty, int tz) {
  return job.src[z + job.zOrigin + tz] + (y + job.yOrigin + ty) * job.srcStride + job.xOrigin;
}

// ---------------------------------------------------------------- rounding

// Ties to the even neighbour, independent of the floating-point environment.
inline double roundHalfEven(double q) {
  double r = std::floor(q);
  const double frac = q - r;  // exact for the magnitudes seen here
  if (frac > 0.5 || (frac == 0.5 && std::fmod(r, 2.0) != 0.0)) r += 1.0;
  return r;
}

inline Vel16s clamp16(int64_t v) {
  return static_cast<Vel16s>(v < -32768 ? -32768 : (v > 32767 ? 32767 : v));
}

// Scaling of a 32-bit sum of the integer paths.
inline Vel16s scaleIntegerSum(int32_t s, const Scaling& sc) {
  switch (sc.cls) {
    case DivisorClass::kUnit:
      return clamp16(s);
    case DivisorClass::kShift: {
      int32_t q = s >> sc.shift;
      const uint32_t rem = static_cast<uint32_t>(s) & ((1u << sc.shift) - 1u);
      const uint32_t half = 1u << (sc.shift - 1);
      if (rem > half || (rem == half && (q & 1))) ++q;
      return clamp16(q);
    }
    case DivisorClass::kGeneral:
    default: {
      double q = static_cast<double>(s) / static_cast<double>(sc.divisor);
      // Clamping first is the same as saturating after rounding, and keeps
      // the rounding in a range where it is exact.
      q = q < -32768.0 ? -32768.0 : (q > 32767.0 ? 32767.0 : q);
      return static_cast<Vel16s>(roundHalfEven(q));
    }
  }
}

// Scaling of a single-precision sum of the float path. The product of the
// sum and the single-precision reciprocal is taken exactly (both are floats,
// so the double product has no rounding): where the reciprocal's own
// rounding moves a quotient off a tie, the result keeps that move.
inline Vel16s scaleFloatSum(float s, float reciprocal) {
  double v = static_cast<double>(s) * static_cast<double>(reciprocal);
  v = v < -32768.0 ? -32768.0 : (v > 32767.0 ? 32767.0 : v);
  return static_cast<Vel16s>(roundHalfEven(v));
}

// ---------------------------------------------------------------- one voxel

// The 32-bit sum of the integer paths: every pair product is exact in 32
// bits (coefficients exclude -32768), and the sums wrap modulo 2^32, so the
// order of accumulation does not matter.
inline int32_t integerSumAt(const Job& job, int x, int y, int z) {
  uint32_t sum = 0;
  const int pairs = pairsPerRow(job.kw);
  for (int tz = 0; tz < job.kd; ++tz)
    for (int ty = 0; ty < job.kh; ++ty) {
      const Vel16s* row = sourceRow(job, y, z, ty, tz) + x;
      const uint32_t* c = job.pairs + (static_cast<size_t>(tz) * job.kh + ty) * pairs;
      for (int p = 0; p < pairs; ++p) {
        const int t = pairOffset(job.kw, p);
        const int32_t lo = static_cast<int16_t>(c[p] & 0xFFFFu);
        const int32_t hi = static_cast<int16_t>(c[p] >> 16);
        sum += static_cast<uint32_t>(lo * row[t] + hi * row[t + 1]);
      }
    }
  return static_cast<int32_t>(sum);
}

// The single-precision sum of the float path, taps in mirrored order
// (planes, then rows, then columns, each ascending in the source).
inline float floatSumAt(const Job& job, int x, int y, int z) {
  float sum = 0.f;
  const float* c = job.taps;
  for (int tz = 0; tz < job.kd; ++tz)
    for (int ty = 0; ty < job.kh; ++ty) {
      const Vel16s* row = sourceRow(job, y, z, ty, tz) + x;
      for (int tx = 0; tx < job.kw; ++tx) sum = sum + *c++ * static_cast<float>(row[tx]);
    }
  return sum;
}

inline Vel16s voxelAt(const Job& job, int x, int y, int z) {
  if (job.path == Path::kFloat) return scaleFloatSum(floatSumAt(job, x, y, z), job.scaling.reciprocal);
  return scaleIntegerSum(integerSumAt(job, x, y, z), job.scaling);
}

}  // namespace velr::filter
