// Resize front ends: the shared checks and set-up, the work-buffer size
// query, the carving of the buffer, and the split of velrResize_32f_C1V into
// slabs of destination planes.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "volume/resize.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "volume/resize-inl.h"

#if HWY_ONCE
#include "frame/parallel.h"
#include "velcore.h"
#include "volume/common.h"
#include "volume/resize_job.h"

namespace velr::vol {

HWY_EXPORT(RunResize);

namespace {

// Below this many destination voxels along any axis a slab split costs more
// than it saves, so the call stays on the calling thread.
constexpr int kMinParallelExtent = 16;

// Results at least this large (the size of a large last-level cache) are
// streamed past the caches (see WriteRow); smaller ones are likely still
// cached when the caller reads them, and ordinary stores serve them better.
constexpr int64_t kStreamBytes = int64_t{32} << 20;

template <class T>
struct Layout {
  const T* srcBase = nullptr;
  const T* const* srcPlanes = nullptr;
  int srcStep = 0, srcPlaneStep = 0;
  T* dstBase = nullptr;
  T* const* dstPlanes = nullptr;
  int dstStep = 0, dstPlaneStep = 0;
};

template <class T>
VelStatus resize(const Layout<T>& l, VelrVolume srcVolume, VelrCuboid srcRoi, VelrCuboid dstRoi,
                 double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                 double zShift, int interpolation, Vel8u* pBuffer, bool mayRunInParallel) {
  const bool anyNull = (l.srcPlanes == nullptr && l.srcBase == nullptr) ||
                       (l.dstPlanes == nullptr && l.dstBase == nullptr) || pBuffer == nullptr;
  const double factor[3] = {xFactor, yFactor, zFactor};
  const double shift[3] = {xShift, yShift, zShift};
  ResizeSetup setup;
  const VelStatus status =
      resizeSetup(anyNull, srcVolume, srcRoi, dstRoi, factor, shift, interpolation, &setup);
  if (status != velStsNoErr) return status;

  ResizeJob job;
  job.elemSize = static_cast<int>(sizeof(T));
  job.code = interpolation;
  job.srcBase = l.srcBase;
  job.srcPlanes = reinterpret_cast<const void* const*>(l.srcPlanes);
  job.srcLineStep = elementStep<T>(l.srcStep);
  job.srcPlaneStep = elementStep<T>(l.srcPlaneStep);
  job.srcWidth = srcVolume.width;
  job.srcHeight = srcVolume.height;
  job.srcDepth = srcVolume.depth;
  job.dstBase = l.dstBase;
  job.dstPlanes = reinterpret_cast<void* const*>(l.dstPlanes);
  job.dstLineStep = elementStep<T>(l.dstStep);
  job.dstPlaneStep = elementStep<T>(l.dstPlaneStep);
  job.dx = setup.axis[0].begin;
  job.dy = setup.axis[1].begin;
  job.dz = setup.axis[2].begin;
  const int nz = setup.axis[2].count();
  job.zFirst = 0;
  job.zCount = nz;
  const int64_t resultBytes =
      int64_t{setup.axis[0].count()} * setup.axis[1].count() * nz * static_cast<int64_t>(sizeof(T));
  job.streamRows = interpolation != VELR_INTER_NEAREST && resultBytes >= kStreamBytes;

  const auto run = HWY_DYNAMIC_DISPATCH(RunResize);
  const int threads = ownGetNumThreads();
  const bool parallel = mayRunInParallel && threads > 1 &&
                        setup.axis[0].count() >= kMinParallelExtent &&
                        setup.axis[1].count() >= kMinParallelExtent && nz >= kMinParallelExtent;
  if (!parallel) {
    prepareResizeJob(setup, dstRoi.width, dstRoi.height, dstRoi.depth, pBuffer, &job);
    run(job);
    return velStsNoErr;
  }
  // Each thread takes the share of the buffer that starts at k / P of the
  // size the query reports for this thread count; with P at most that count
  // every share holds one thread's work area and its alignment margin.
  const int64_t total =
      (resizeWorkBytes(dstRoi.width, dstRoi.height, dstRoi.depth, interpolation) + 64) * threads;
  velr::parallelSlabs(threads, nz, [&](int first, int count, int id, int team) {
    ResizeJob mine = job;
    mine.zFirst = first;
    mine.zCount = count;
    prepareResizeJob(setup, dstRoi.width, dstRoi.height, dstRoi.depth, pBuffer + id * total / team,
                     &mine);
    run(mine);
  });
  return velStsNoErr;
}

template <class T>
VelStatus resizeV(const T* pSrc, VelrVolume srcVolume, int srcStep, int srcPlaneStep,
                  VelrCuboid srcRoi, T* pDst, int dstStep, int dstPlaneStep, VelrCuboid dstRoi,
                  double xFactor, double yFactor, double zFactor, double xShift, double yShift,
                  double zShift, int interpolation, Vel8u* pBuffer, bool mayRunInParallel) {
  Layout<T> l;
  l.srcBase = pSrc;
  l.srcStep = srcStep;
  l.srcPlaneStep = srcPlaneStep;
  l.dstBase = pDst;
  l.dstStep = dstStep;
  l.dstPlaneStep = dstPlaneStep;
  return resize(l, srcVolume, srcRoi, dstRoi, xFactor, yFactor, zFactor, xShift, yShift, zShift,
                interpolation, pBuffer, mayRunInParallel);
}

template <class T>
VelStatus resizePV(const T* const* pSrc, VelrVolume srcVolume, int srcStep, VelrCuboid srcRoi,
                   T* const* pDst, int dstStep, VelrCuboid dstRoi, double xFactor, double yFactor,
                   double zFactor, double xShift, double yShift, double zShift, int interpolation,
                   Vel8u* pBuffer) {
  Layout<T> l;
  l.srcPlanes = pSrc;
  l.srcStep = srcStep;
  l.dstPlanes = pDst;
  l.dstStep = dstStep;
  return resize(l, srcVolume, srcRoi, dstRoi, xFactor, yFactor, zFactor, xShift, yShift, zShift,
                interpolation, pBuffer, false);
}

}  // namespace
}  // namespace velr::vol

using velr::vol::resizePV;
using velr::vol::resizeV;

VelStatus velrResizeGetBufSize(VelrCuboid srcRoi, VelrCuboid dstRoi, int nChannel,
                               int interpolation, int* pSize) {
  if (pSize == nullptr) return velStsNullPtrErr;
  if (velr::vol::isBadCuboid(srcRoi) || velr::vol::isBadCuboid(dstRoi)) return velStsSizeErr;
  if (nChannel != 1) return velStsNumChannelsErr;
  if (!velr::vol::isInterpolationCode(interpolation)) return velStsInterpolationErr;
  const int64_t perThread =
      velr::vol::resizeWorkBytes(dstRoi.width, dstRoi.height, dstRoi.depth, interpolation) + 64;
  *pSize = static_cast<int>(static_cast<uint64_t>(perThread) *
                           static_cast<uint64_t>(ownGetNumThreads()));
  return velStsNoErr;
}

VelStatus velrResize_8u_C1V(const Vel8u* pSrc, VelrVolume srcVolume, int srcStep, int srcPlaneStep,
                            VelrCuboid srcRoi, Vel8u* pDst, int dstStep, int dstPlaneStep,
                            VelrCuboid dstRoi, double xFactor, double yFactor, double zFactor,
                            double xShift, double yShift, double zShift, int interpolation,
                            Vel8u* pBuffer) {
  return resizeV(pSrc, srcVolume, srcStep, srcPlaneStep, srcRoi, pDst, dstStep, dstPlaneStep,
                 dstRoi, xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer,
                 false);
}

VelStatus velrResize_8u_C1PV(const Vel8u* const* pSrc, VelrVolume srcVolume, int srcStep,
                             VelrCuboid srcRoi, Vel8u* const* pDst, int dstStep, VelrCuboid dstRoi,
                             double xFactor, double yFactor, double zFactor, double xShift,
                             double yShift, double zShift, int interpolation, Vel8u* pBuffer) {
  return resizePV(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, xFactor, yFactor,
                  zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

VelStatus velrResize_16u_C1V(const Vel16u* pSrc, VelrVolume srcVolume, int srcStep,
                             int srcPlaneStep, VelrCuboid srcRoi, Vel16u* pDst, int dstStep,
                             int dstPlaneStep, VelrCuboid dstRoi, double xFactor, double yFactor,
                             double zFactor, double xShift, double yShift, double zShift,
                             int interpolation, Vel8u* pBuffer) {
  return resizeV(pSrc, srcVolume, srcStep, srcPlaneStep, srcRoi, pDst, dstStep, dstPlaneStep,
                 dstRoi, xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer,
                 false);
}

VelStatus velrResize_16u_C1PV(const Vel16u* const* pSrc, VelrVolume srcVolume, int srcStep,
                              VelrCuboid srcRoi, Vel16u* const* pDst, int dstStep,
                              VelrCuboid dstRoi, double xFactor, double yFactor, double zFactor,
                              double xShift, double yShift, double zShift, int interpolation,
                              Vel8u* pBuffer) {
  return resizePV(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, xFactor, yFactor,
                  zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

VelStatus velrResize_32f_C1V(const Vel32f* pSrc, VelrVolume srcVolume, int srcStep,
                             int srcPlaneStep, VelrCuboid srcRoi, Vel32f* pDst, int dstStep,
                             int dstPlaneStep, VelrCuboid dstRoi, double xFactor, double yFactor,
                             double zFactor, double xShift, double yShift, double zShift,
                             int interpolation, Vel8u* pBuffer) {
  return resizeV(pSrc, srcVolume, srcStep, srcPlaneStep, srcRoi, pDst, dstStep, dstPlaneStep,
                 dstRoi, xFactor, yFactor, zFactor, xShift, yShift, zShift, interpolation, pBuffer,
                 true);
}

VelStatus velrResize_32f_C1PV(const Vel32f* const* pSrc, VelrVolume srcVolume, int srcStep,
                              VelrCuboid srcRoi, Vel32f* const* pDst, int dstStep,
                              VelrCuboid dstRoi, double xFactor, double yFactor, double zFactor,
                              double xShift, double yShift, double zShift, int interpolation,
                              Vel8u* pBuffer) {
  return resizePV(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, xFactor, yFactor,
                  zFactor, xShift, yShift, zShift, interpolation, pBuffer);
}

#endif  // HWY_ONCE
