// One affine warp call as its walkers see it, after the checks and the
// inversion of the transform.
#pragma once

#include <cstddef>

#include "velr.h"
#include "volume/sample.h"

namespace velr::vol {

template <class T>
struct WarpJob {
  SampleSource<T> src;
  T* const* dst;              // by absolute destination z
  ptrdiff_t dstStep;          // elements
  VelrRemapRegion dstBounds;  // inclusive destination region (z unused when planar)
  // Destination to source: position r = m[r][0] x + m[r][1] y + m[r][2] z +
  // m[r][3]. A planar job keeps its shift in m[r][3] and zeros in m[r][2].
  double m[3][4];
};

// Runs destination planes zFirst .. zLast of one job.
template <class T>
using WarpPlanesFn = void (*)(const WarpJob<T>& job, int zFirst, int zLast);

}  // namespace velr::vol
