// Interpolation kernels shared by resize, remap and warp: the four-tap cubic
// kernels K(d), the weights of one fraction, the 208-entry sampled tables and
// the tap clamping rules.
#pragma once

#include <array>

#include "velr.h"

namespace velr::vol {

// K(d) of a four-tap code (4 to 7) in double precision, each polynomial in the
// one evaluation order that every caller must reproduce bit for bit. A NaN
// distance fails every comparison and weighs 1.0.
constexpr double cubicKernel(int code, double d) {
  constexpr double kSixth = 0.16666666666666666;
  constexpr double kElevenSixths = 1.8333333333333333;
  constexpr double kTwoThirds = 0.6666666666666666;
  constexpr double kFourThirds = 1.3333333333333333;
  constexpr double kFiveSixths = 0.8333333333333334;
  constexpr double kTwentyThreeSixtieths = 0.38333333333333336;
  constexpr double kTwentyEightFifteenths = 1.8666666666666667;
  if (d < 1.0) {
    switch (code) {
      case VELR_INTER_CUBIC_LAGRANGE:
        return (0.5 * d * d - d - 0.5) * d + 1.0;
      case VELR_INTER_BSPLINE:
        return (0.5 * d * d - d) * d + kTwoThirds;
      case VELR_INTER_CATMULL_ROM:
        return (1.5 * d - 2.5) * d * d + 1.0;
      default:
        return (0.95 * d - 1.7) * d * d + kFiveSixths;
    }
  }
  if (d < 2.0) {
    switch (code) {
      case VELR_INTER_CUBIC_LAGRANGE:
        return (-kSixth * d * d + d - kElevenSixths) * d + 1.0;
      case VELR_INTER_BSPLINE:
        return (-kSixth * d * d + d) * d + (kFourThirds - d - d);
      case VELR_INTER_CATMULL_ROM:
        return ((-0.5 * d + 2.5) * d - 4.0) * d + 2.0;
      default:
        return ((-kTwentyThreeSixtieths * d + 2.0) * d - 3.4) * d + kTwentyEightFifteenths;
    }
  }
  if (d >= 2.0) return 0.0;
  return 1.0;
}

// Weights of the taps i - 1, i, i + 1, i + 2 for the fraction t of a source
// coordinate. The distances are formed in float from u = -1 - t exactly as
// written (|u + 1| is not always t), then K is evaluated in double.
inline void cubicWeights(int code, float t, float w[4]) {
  const float u = -1.0f - t;
  const float d[4] = {u < 0 ? -u : u, (u + 1.0f) < 0 ? -(u + 1.0f) : (u + 1.0f),
                      (u + 2.0f) < 0 ? -(u + 2.0f) : (u + 2.0f),
                      (u + 3.0f) < 0 ? -(u + 3.0f) : (u + 3.0f)};
  for (int k = 0; k < 4; ++k) w[k] = static_cast<float>(cubicKernel(code, d[k]));
}

// ---------------------------------------------------------------- sampled tables

// Entry k is K(k / 100) rounded to float for k = 0 .. 200, then 7 zeros, so
// that interpolating between entries n and n + 1 never needs a bounds test.
inline constexpr int kWeightTableSize = 208;
inline constexpr int kWeightTableSamplesPerUnit = 100;

namespace detail {
constexpr std::array<float, kWeightTableSize> makeWeightTable(int code) {
  std::array<float, kWeightTableSize> t{};
  for (int k = 0; k <= 2 * kWeightTableSamplesPerUnit; ++k)
    t[k] = static_cast<float>(cubicKernel(code, k / 100.0));
  return t;
}
inline constexpr std::array<float, kWeightTableSize> kWeightTables[4] = {
    makeWeightTable(VELR_INTER_CUBIC_LAGRANGE), makeWeightTable(VELR_INTER_BSPLINE),
    makeWeightTable(VELR_INTER_CATMULL_ROM), makeWeightTable(VELR_INTER_CUBIC_B05_C03)};
}  // namespace detail

// The sampled table of a four-tap code (4 to 7).
inline const float* cubicWeightTable(int code) {
  return detail::kWeightTables[code - VELR_INTER_CUBIC_LAGRANGE].data();
}

// The table weight of distance d: d limited to 2 and scaled by 100, then
// linear between the two neighbouring samples, all in float. A NaN distance
// is limited to 2 and weighs 0 (it must not reach the index conversion).
inline float sampledWeight(const float* table, float d) {
  const float u = (d < 2.0f ? d : 2.0f) * 100.0f;
  const int n = static_cast<int>(u);
  return table[n] + (table[n + 1] - table[n]) * (u - static_cast<float>(n));
}

// ---------------------------------------------------------------- taps

// Edge replication: an index outside 0 .. n - 1 reads the nearest edge voxel.
constexpr int clampIndex(int i, int n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

// Four-tap indices of remap and warp for integer part i and the region's last
// index `last` on that axis. The lower clamp is against the volume's first
// voxel and the upper against the region's end; the asymmetry is part of the
// contract.
inline void regionCubicTaps(int i, int last, int taps[4]) {
  if (i <= 0) {
    taps[0] = 0, taps[1] = 0, taps[2] = 1, taps[3] = 2;
  } else if (i == last - 1) {
    taps[0] = i - 1, taps[1] = i, taps[2] = i + 1, taps[3] = i + 1;
  } else if (i >= last) {
    taps[0] = i - 1, taps[1] = i, taps[2] = i, taps[3] = i;
  } else {
    taps[0] = i - 1, taps[1] = i, taps[2] = i + 1, taps[3] = i + 2;
  }
}

}  // namespace velr::vol
