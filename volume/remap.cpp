// The remap front ends: argument checks in their documented order, the
// planar path of a one-plane source with its own checks, the clipped region,
// code lowering for small sources, and the thread count.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "volume/remap.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "volume/remap-inl.h"

#if HWY_ONCE
#include "velcore.h"
#include "velr.h"
#include "volume/common.h"
#include "volume/kernels.h"
#include "volume/remap_job.h"
#include "volume/sample.h"

namespace velr::vol {

HWY_EXPORT(RemapVolume8u);
HWY_EXPORT(RemapVolume16u);
HWY_EXPORT(RemapVolume32f);
HWY_EXPORT(RemapPlane8u);
HWY_EXPORT(RemapPlane16u);
HWY_EXPORT(RemapPlane32f);

namespace {

void runVolume(const RemapJob<Vel8u>& job, int code, int depth, int threads) {
  HWY_DYNAMIC_DISPATCH(RemapVolume8u)(job, code, depth, threads);
}
void runVolume(const RemapJob<Vel16u>& job, int code, int depth, int threads) {
  HWY_DYNAMIC_DISPATCH(RemapVolume16u)(job, code, depth, threads);
}
void runVolume(const RemapJob<Vel32f>& job, int code, int depth, int threads) {
  HWY_DYNAMIC_DISPATCH(RemapVolume32f)(job, code, depth, threads);
}
void runPlane(const RemapJob<Vel8u>& job, int code) {
  HWY_DYNAMIC_DISPATCH(RemapPlane8u)(job, code);
}
void runPlane(const RemapJob<Vel16u>& job, int code) {
  HWY_DYNAMIC_DISPATCH(RemapPlane16u)(job, code);
}
void runPlane(const RemapJob<Vel32f>& job, int code) {
  HWY_DYNAMIC_DISPATCH(RemapPlane32f)(job, code);
}

// Volumes smaller than 16 along any axis of the destination are not worth a
// parallel region.
constexpr int kMinParallelExtent = 16;

// The planar routine sees a two-axis source; it has checks of its own, and a
// narrower set of codes (four-tap codes 5 and 7 have no planar kernel).
template <class T>
VelStatus remapPlane(const T* const* pSrc, VelrVolume srcVolume, int srcStep, VelrCuboid srcRoi,
                     const Vel32f* const* pxMap, const Vel32f* const* pyMap, int mapStep,
                     T* const* pDst, int dstStep, VelrVolume dstVolume, int interpolation) {
  if (pSrc[0] == nullptr || pDst[0] == nullptr || pxMap[0] == nullptr || pyMap[0] == nullptr)
    return velStsNullPtrErr;
  if (srcVolume.width < 1 || srcVolume.height < 1 || srcRoi.x < 0 || srcRoi.y < 0 ||
      srcRoi.width < 1 || srcRoi.height < 1 || dstVolume.width < 1 || dstVolume.height < 1)
    return velStsSizeErr;
  // Bit 31 selects another kernel set and 16 a wider kernel in the planar
  // routine; neither reaches it through the volume checks.
  const int code = interpolation & 0x7FFFFFFF;
  if (code != VELR_INTER_NEAREST && code != VELR_INTER_LINEAR &&
      code != VELR_INTER_CUBIC_LAGRANGE && code != VELR_INTER_CATMULL_ROM && code != 16)
    return velStsInterpolationErr;
  if (srcStep < 1 || dstStep < 1 || mapStep < 1) return velStsStepErr;
  if (srcRoi.x >= srcVolume.width || srcRoi.y >= srcVolume.height) return velStsWrongIntersectRoi;

  const VelrVolume plane = {srcVolume.width, srcVolume.height, 1};
  int lowered = code;
  const int smallest = plane.width < plane.height ? plane.width : plane.height;
  if (smallest < 4) {
    if (lowered == VELR_INTER_CUBIC_LAGRANGE || lowered == VELR_INTER_CATMULL_ROM)
      lowered = VELR_INTER_LINEAR;
    if (smallest == 1) lowered = VELR_INTER_NEAREST;
  }

  RemapJob<T> job{};
  job.src.planes = pSrc;
  job.src.lineStep = elementStep<T>(srcStep);
  job.src.region = clippedBounds({srcRoi.x, srcRoi.y, 0, srcRoi.width, srcRoi.height, 1}, plane);
  job.src.width = plane.width;
  job.src.height = plane.height;
  job.src.depth = 1;
  job.src.prepare(lowered);
  job.maps[0] = pxMap;
  job.maps[1] = pyMap;
  job.maps[2] = nullptr;
  job.mapStep = elementStep<Vel32f>(mapStep);
  job.dst = pDst;
  job.dstStep = elementStep<T>(dstStep);
  job.width = dstVolume.width;
  job.height = dstVolume.height;
  runPlane(job, lowered);
  return velStsNoErr;
}

template <class T>
VelStatus remap(const T* const* pSrc, VelrVolume srcVolume, int srcStep, VelrCuboid srcRoi,
                const Vel32f* const* pxMap, const Vel32f* const* pyMap, const Vel32f* const* pzMap,
                int mapStep, T* const* pDst, int dstStep, VelrVolume dstVolume, int interpolation) {
  if (pSrc == nullptr || pDst == nullptr) return velStsNullPtrErr;
  if (pxMap == nullptr || pyMap == nullptr || pzMap == nullptr) return velStsNullPtrErr;
  if (isEmptyVolume(srcVolume)) return velStsSizeErr;
  if (isBadCuboid(srcRoi)) return velStsSizeErr;
  if (isEmptyVolume(dstVolume)) return velStsSizeErr;
  if (!isInterpolationCode(interpolation)) return velStsInterpolationErr;
  if (srcVolume.depth == 1)
    return remapPlane(pSrc, srcVolume, srcStep, srcRoi, pxMap, pyMap, mapStep, pDst, dstStep,
                      dstVolume, interpolation);
  if (startsOutside(srcRoi, srcVolume)) return velStsWrongIntersectVolume;

  const int code = lowerCodeForSmallVolume(interpolation, srcVolume);
  RemapJob<T> job{};
  job.src.planes = pSrc;
  job.src.lineStep = elementStep<T>(srcStep);
  job.src.region = clippedBounds(srcRoi, srcVolume);
  job.src.width = srcVolume.width;
  job.src.height = srcVolume.height;
  job.src.depth = srcVolume.depth;
  job.src.prepare(code);
  job.maps[0] = pxMap;
  job.maps[1] = pyMap;
  job.maps[2] = pzMap;
  job.mapStep = elementStep<Vel32f>(mapStep);
  job.dst = pDst;
  job.dstStep = elementStep<T>(dstStep);
  job.width = dstVolume.width;
  job.height = dstVolume.height;

  const bool parallel = dstVolume.width >= kMinParallelExtent &&
                        dstVolume.height >= kMinParallelExtent &&
                        dstVolume.depth >= kMinParallelExtent;
  runVolume(job, code, dstVolume.depth, parallel ? ownGetNumThreads() : 1);
  return velStsNoErr;
}

}  // namespace
}  // namespace velr::vol

VelStatus velrRemap_8u_C1PV(const Vel8u* const* pSrc, VelrVolume srcVolume, int srcStep,
                            VelrCuboid srcRoi, const Vel32f* const* pxMap,
                            const Vel32f* const* pyMap, const Vel32f* const* pzMap, int mapStep,
                            Vel8u* const* pDst, int dstStep, VelrVolume dstVolume,
                            int interpolation) {
  return velr::vol::remap(pSrc, srcVolume, srcStep, srcRoi, pxMap, pyMap, pzMap, mapStep, pDst,
                          dstStep, dstVolume, interpolation);
}

VelStatus velrRemap_16u_C1PV(const Vel16u* const* pSrc, VelrVolume srcVolume, int srcStep,
                             VelrCuboid srcRoi, const Vel32f* const* pxMap,
                             const Vel32f* const* pyMap, const Vel32f* const* pzMap, int mapStep,
                             Vel16u* const* pDst, int dstStep, VelrVolume dstVolume,
                             int interpolation) {
  return velr::vol::remap(pSrc, srcVolume, srcStep, srcRoi, pxMap, pyMap, pzMap, mapStep, pDst,
                          dstStep, dstVolume, interpolation);
}

VelStatus velrRemap_32f_C1PV(const Vel32f* const* pSrc, VelrVolume srcVolume, int srcStep,
                             VelrCuboid srcRoi, const Vel32f* const* pxMap,
                             const Vel32f* const* pyMap, const Vel32f* const* pzMap, int mapStep,
                             Vel32f* const* pDst, int dstStep, VelrVolume dstVolume,
                             int interpolation) {
  return velr::vol::remap(pSrc, srcVolume, srcStep, srcRoi, pxMap, pyMap, pzMap, mapStep, pDst,
                          dstStep, dstVolume, interpolation);
}

#endif  // HWY_ONCE
