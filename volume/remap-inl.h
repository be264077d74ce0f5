// Remap walkers, compiled for every SIMD target: each walks destination planes
// and lines and hands every line, with its three (or two) coordinate lines, to
// the sampling kernel of its code. The kernel is picked once per call from a
// table indexed by the code.

#if defined(VELR_VOLUME_REMAP_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_VOLUME_REMAP_INL_H_
#undef VELR_VOLUME_REMAP_INL_H_
#else
#define VELR_VOLUME_REMAP_INL_H_
#endif

#include <hwy/highway.h>

#include "frame/parallel.h"
#include "volume/remap_job.h"
#include "volume/sample-inl.h"

HWY_BEFORE_NAMESPACE();
namespace velr::vol::HWY_NAMESPACE {

// Destination planes [first, first + count) of a volume remap, or the one
// plane of a planar remap (kDims = 2, first = 0, count = 1).
template <int kKind, class T, int kDims>
void RemapPlanes(const RemapJob<T>& job, int first, int count) {
  // Planar calls read nearest positions rounded half up.
  using C = MapCoords<kDims, kDims == 2>;
  for (int z = first; z < first + count; ++z) {
    for (int y = 0; y < job.height; ++y) {
      const ptrdiff_t mapLine = static_cast<ptrdiff_t>(y) * job.mapStep;
      const FloatRun run = {job.maps[0][z] + mapLine, job.maps[1][z] + mapLine,
                            kDims == 3 ? job.maps[2][z] + mapLine : nullptr};
      T* line = job.dst[z] + static_cast<ptrdiff_t>(y) * job.dstStep;
      SampleRun<kKind, T, kDims, C>(job.src, run, line, job.width);
    }
  }
}

template <class T, int kDims>
RemapPlanesFn<T> RemapKernel(int code) {
  static constexpr RemapPlanesFn<T> kTable[8] = {nullptr,
                                                 &RemapPlanes<kSampleNearest, T, kDims>,
                                                 &RemapPlanes<kSampleLinear, T, kDims>,
                                                 nullptr,
                                                 &RemapPlanes<kSampleCubic, T, kDims>,
                                                 &RemapPlanes<kSampleCubic, T, kDims>,
                                                 &RemapPlanes<kSampleCubic, T, kDims>,
                                                 &RemapPlanes<kSampleCubic, T, kDims>};
  return kTable[code];
}

// Volume remap of dstDepth planes in slabs over nThreads threads; each slab
// is independent of the others, so the split never changes a result.
template <class T>
void RunRemapVolume(const RemapJob<T>& job, int code, int dstDepth, int nThreads) {
  const RemapPlanesFn<T> fn = RemapKernel<T, 3>(code);
  velr::parallelSlabs(nThreads, dstDepth,
                      [&](int first, int count, int, int) { fn(job, first, count); });
}

template <class T>
void RunRemapPlane(const RemapJob<T>& job, int code) {
  RemapKernel<T, 2>(code)(job, 0, 1);
}

void RemapVolume8u(const RemapJob<Vel8u>& job, int code, int depth, int nThreads) {
  RunRemapVolume(job, code, depth, nThreads);
}
void RemapVolume16u(const RemapJob<Vel16u>& job, int code, int depth, int nThreads) {
  RunRemapVolume(job, code, depth, nThreads);
}
void RemapVolume32f(const RemapJob<Vel32f>& job, int code, int depth, int nThreads) {
  RunRemapVolume(job, code, depth, nThreads);
}
void RemapPlane8u(const RemapJob<Vel8u>& job, int code) { RunRemapPlane(job, code); }
void RemapPlane16u(const RemapJob<Vel16u>& job, int code) { RunRemapPlane(job, code); }
void RemapPlane32f(const RemapJob<Vel32f>& job, int code) { RunRemapPlane(job, code); }

}  // namespace velr::vol::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // include guard
