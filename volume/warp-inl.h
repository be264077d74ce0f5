// Affine warp walkers, compiled for every SIMD target. Positions advance by
// repeated addition in double along lines, line bases along planes, exactly
// as a one-voxel-at-a-time walk would form them; they are buffered a chunk
// at a time and handed to the same sampling kernels as remap's.

#if defined(VELR_VOLUME_WARP_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_VOLUME_WARP_INL_H_
#undef VELR_VOLUME_WARP_INL_H_
#else
#define VELR_VOLUME_WARP_INL_H_
#endif

#include <hwy/highway.h>

#include "frame/parallel.h"
#include "volume/sample-inl.h"
#include "volume/warp_job.h"

HWY_BEFORE_NAMESPACE();
namespace velr::vol::HWY_NAMESPACE {

// Positions buffered per kernel call: long enough to amortise the call, short
// enough to stay in the first-level cache.
inline constexpr int kWarpChunk = 256;

// Positions of `count` voxels of `lines` lines (1 or 2) from their starting
// positions p, advancing by step. The sums of the lines are independent, so
// interleaving two lines halves the time spent waiting on the additions.
template <int kDims, int kLines>
HWY_INLINE void WarpPositions(double p[][3], const double step[3], int count,
                              double pos[][3][kWarpChunk]) {
  for (int k = 0; k < count; ++k)
    for (int l = 0; l < kLines; ++l)
      for (int r = 0; r < kDims; ++r) {
        pos[l][r][k] = p[l][r];
        p[l][r] += step[r];
      }
}

template <int kKind, class T, int kDims>
void WarpPlanes(const WarpJob<T>& job, int zFirst, int zLast) {
  using C = AffineCoords<kDims>;
  const VelrRemapRegion& d = job.dstBounds;
  const double(&m)[3][4] = job.m;
  const double step[3] = {m[0][0], m[1][0], m[2][0]};
  HWY_ALIGN double pos[2][3][kWarpChunk];

  // Each slab starts its plane sequence from its own first plane, so the
  // bases are formed directly there and then carried by addition.
  double planeBase[3];
  for (int r = 0; r < kDims; ++r) {
    planeBase[r] = m[r][1] * d.yMin + m[r][3];
    if constexpr (kDims == 3) planeBase[r] = planeBase[r] + m[r][2] * zFirst;
  }
  for (int z = zFirst;; ++z) {
    T* plane = job.dst[kDims == 3 ? z : 0];
    double lineBase[3];
    for (int r = 0; r < kDims; ++r) lineBase[r] = planeBase[r];
    for (int y = d.yMin;; y += 2) {
      const int lines = y < d.yMax ? 2 : 1;
      double p[2][3];
      for (int l = 0; l < lines; ++l)
        for (int r = 0; r < kDims; ++r) {
          p[l][r] = m[r][0] * d.xMin + lineBase[r];
          lineBase[r] += m[r][1];
        }
      for (int x = d.xMin;;) {
        const int n = d.xMax - x < kWarpChunk ? d.xMax - x + 1 : kWarpChunk;
        if (lines == 2) {
          WarpPositions<kDims, 2>(p, step, n, pos);
        } else {
          WarpPositions<kDims, 1>(p, step, n, pos);
        }
        for (int l = 0; l < lines; ++l) {
          const DoubleRun run = {pos[l][0], pos[l][1], kDims == 3 ? pos[l][2] : nullptr};
          T* line = plane + static_cast<ptrdiff_t>(y + l) * job.dstStep;
          SampleRun<kKind, T, kDims, C>(job.src, run, line + x, n);
        }
        if (d.xMax - x < kWarpChunk) break;
        x += n;
      }
      if (d.yMax - y <= 1) break;  // y never steps past yMax, which may be INT_MAX
    }
    if (z == zLast) break;
    for (int r = 0; r < kDims; ++r) planeBase[r] += m[r][2];
  }
}

template <class T, int kDims>
WarpPlanesFn<T> WarpKernel(int code) {
  static constexpr WarpPlanesFn<T> kTable[8] = {nullptr,
                                                &WarpPlanes<kSampleNearest, T, kDims>,
                                                &WarpPlanes<kSampleLinear, T, kDims>,
                                                nullptr,
                                                &WarpPlanes<kSampleCubic, T, kDims>,
                                                &WarpPlanes<kSampleCubic, T, kDims>,
                                                &WarpPlanes<kSampleCubic, T, kDims>,
                                                &WarpPlanes<kSampleCubic, T, kDims>};
  return kTable[code];
}

// The destination region's `depth` planes in slabs over nThreads threads.
template <class T>
void RunWarpVolume(const WarpJob<T>& job, int code, int depth, int nThreads) {
  const WarpPlanesFn<T> fn = WarpKernel<T, 3>(code);
  const int zMin = job.dstBounds.zMin;
  velr::parallelSlabs(nThreads, depth, [&](int first, int count, int, int) {
    fn(job, zMin + first, zMin + first + count - 1);
  });
}

template <class T>
void RunWarpPlane(const WarpJob<T>& job, int code) {
  WarpKernel<T, 2>(code)(job, 0, 0);
}

void WarpVolume8u(const WarpJob<Vel8u>& job, int code, int depth, int nThreads) {
  RunWarpVolume(job, code, depth, nThreads);
}
void WarpVolume16u(const WarpJob<Vel16u>& job, int code, int depth, int nThreads) {
  RunWarpVolume(job, code, depth, nThreads);
}
void WarpVolume32f(const WarpJob<Vel32f>& job, int code, int depth, int nThreads) {
  RunWarpVolume(job, code, depth, nThreads);
}
void WarpPlane8u(const WarpJob<Vel8u>& job, int code) { RunWarpPlane(job, code); }
void WarpPlane16u(const WarpJob<Vel16u>& job, int code) { RunWarpPlane(job, code); }
void WarpPlane32f(const WarpJob<Vel32f>& job, int code) { RunWarpPlane(job, code); }

}  // namespace velr::vol::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // include guard
