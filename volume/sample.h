// What the per-voxel sampling kernels of remap and warp read: the source, its
// clipped region and the sampled weight table of a four-tap code.
#pragma once

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "velr.h"
#include "volume/kernels.h"

namespace velr::vol {

// Added to a four-tap result (widened to double) before truncation of 8- and
// 16-bit voxels. Slightly above one half so that a result that lands on a
// half after the float sum still rounds up.
inline constexpr double kCubicRoundOffset = 0.5000001;

// A four-tap table entry n with its slope to entry n + 1, so that one
// 8-byte load fetches what the linear interpolation between samples needs.
// The slope is the same float difference that the one-element form takes.
struct WeightPair {
  float base;
  float slope;
};

namespace detail {
constexpr std::array<WeightPair, kWeightTableSize - 1> makeWeightPairs(int code) {
  std::array<WeightPair, kWeightTableSize - 1> p{};
  const auto& t = kWeightTables[code - VELR_INTER_CUBIC_LAGRANGE];
  for (int n = 0; n + 1 < kWeightTableSize; ++n) p[n] = {t[n], t[n + 1] - t[n]};
  return p;
}
inline constexpr std::array<WeightPair, kWeightTableSize - 1> kWeightPairs[4] = {
    makeWeightPairs(VELR_INTER_CUBIC_LAGRANGE), makeWeightPairs(VELR_INTER_BSPLINE),
    makeWeightPairs(VELR_INTER_CATMULL_ROM), makeWeightPairs(VELR_INTER_CUBIC_B05_C03)};
}  // namespace detail

inline const WeightPair* cubicWeightPairs(int code) {
  return detail::kWeightPairs[code - VELR_INTER_CUBIC_LAGRANGE].data();
}

template <class T>
struct SampleSource {
  const T* const* planes = nullptr;  // by absolute z; a planar call has one
  ptrdiff_t lineStep = 0;            // elements
  VelrRemapRegion region{};          // clipped, inclusive; z unused when planar
  int width = 0;                     // source extent: taps never leave it
  int height = 0;
  int depth = 0;
  const float* weights = nullptr;     // sampled table of a four-tap code
  const WeightPair* pairs = nullptr;  // the same table as base and slope

  // Whether y * lineStep + x fits in 32 bits for every voxel: the vector
  // forms then form those offsets in vector lanes. (Only planes beyond 2 GiB
  // keep to the one-element forms.)
  bool lineOffsets32 = false;

  // After the fields above are set, with the final code.
  void prepare(int code) {
    if (code >= VELR_INTER_CUBIC_LAGRANGE) {
      weights = cubicWeightTable(code);
      pairs = cubicWeightPairs(code);
    }
    const int64_t step = lineStep < 0 ? -static_cast<int64_t>(lineStep) : lineStep;
    lineOffsets32 = static_cast<int64_t>(height - 1) * step + width <= INT32_MAX;
  }
};

// Positions of a run of destination voxels: remap reads them as floats from
// its coordinate volumes, warp computes them in double. Planar runs leave z
// null.
struct FloatRun {
  const float* x;
  const float* y;
  const float* z;
};
struct DoubleRun {
  const double* x;
  const double* y;
  const double* z;
};

}  // namespace velr::vol
