// One remap call as its walkers see it, after the checks and the set-up.
#pragma once

#include <cstddef>

#include "velr.h"
#include "volume/sample.h"

namespace velr::vol {

template <class T>
struct RemapJob {
  SampleSource<T> src;
  const Vel32f* const* maps[3];  // x, y, z positions by destination plane
  ptrdiff_t mapStep;             // elements
  T* const* dst;                 // by destination plane
  ptrdiff_t dstStep;             // elements
  int width;                     // voxels per destination line
  int height;                    // lines per destination plane
};

// Runs destination planes [first, first + count) of one job.
template <class T>
using RemapPlanesFn = void (*)(const RemapJob<T>& job, int first, int count);

}  // namespace velr::vol
