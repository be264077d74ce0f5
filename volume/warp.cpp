// The affine warp front ends: argument and transform checks in their
// documented order, the planar path of a one-plane source, the clipped
// region, code lowering, the inversion and the thread count.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "volume/warp.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "volume/warp-inl.h"

#if HWY_ONCE
#include <climits>

#include "velcore.h"
#include "velr.h"
#include "volume/common.h"
#include "volume/kernels.h"
#include "volume/sample.h"
#include "volume/warp_job.h"
#include "volume/warp_matrix.h"

namespace velr::vol {

HWY_EXPORT(WarpVolume8u);
HWY_EXPORT(WarpVolume16u);
HWY_EXPORT(WarpVolume32f);
HWY_EXPORT(WarpPlane8u);
HWY_EXPORT(WarpPlane16u);
HWY_EXPORT(WarpPlane32f);

namespace {

void runVolume(const WarpJob<Vel8u>& job, int code, int depth, int threads) {
  HWY_DYNAMIC_DISPATCH(WarpVolume8u)(job, code, depth, threads);
}
void runVolume(const WarpJob<Vel16u>& job, int code, int depth, int threads) {
  HWY_DYNAMIC_DISPATCH(WarpVolume16u)(job, code, depth, threads);
}
void runVolume(const WarpJob<Vel32f>& job, int code, int depth, int threads) {
  HWY_DYNAMIC_DISPATCH(WarpVolume32f)(job, code, depth, threads);
}
void runPlane(const WarpJob<Vel8u>& job, int code) { HWY_DYNAMIC_DISPATCH(WarpPlane8u)(job, code); }
void runPlane(const WarpJob<Vel16u>& job, int code) {
  HWY_DYNAMIC_DISPATCH(WarpPlane16u)(job, code);
}
void runPlane(const WarpJob<Vel32f>& job, int code) {
  HWY_DYNAMIC_DISPATCH(WarpPlane32f)(job, code);
}

constexpr int kMinParallelExtent = 16;

// Inclusive bounds of a destination region, which has no volume to be
// clipped against. A region reaching past the largest int ends there.
VelrRemapRegion regionBounds(const VelrCuboid& r) {
  const auto last = [](int start, int length) {
    return start > INT_MAX - (length - 1) ? INT_MAX : start + (length - 1);
  };
  return {r.x, r.y, r.z, last(r.x, r.width), last(r.y, r.height), last(r.z, r.depth)};
}

// A one-plane source warps one plane by the 2 x 3 block whose third column
// is the plane's shift: the z coefficients c[0][2] and c[1][2] act as the x
// and y shifts there, which callers of the planar form rely on.
template <class T>
VelStatus warpPlane(const T* const* pSrc, VelrVolume srcVolume, int srcStep, VelrCuboid srcRoi,
                    T* const* pDst, int dstStep, VelrCuboid dstRoi, const Vel64f coeffs[3][4],
                    int interpolation) {
  if (pSrc[0] == nullptr || pDst[0] == nullptr) return velStsNullPtrErr;
  if (srcVolume.width < 1 || srcVolume.height < 1 || srcRoi.x < 0 || srcRoi.y < 0 ||
      srcRoi.width < 1 || srcRoi.height < 1 || dstRoi.x < 0 || dstRoi.y < 0 || dstRoi.width < 1 ||
      dstRoi.height < 1)
    return velStsSizeErr;
  int code = interpolation & 0x7FFFFFFF;
  if (code != VELR_INTER_NEAREST && code != VELR_INTER_LINEAR &&
      code != VELR_INTER_CUBIC_LAGRANGE && code != VELR_INTER_CATMULL_ROM)
    return velStsInterpolationErr;
  const double block[2][3] = {{coeffs[0][0], coeffs[0][1], coeffs[0][2]},
                              {coeffs[1][0], coeffs[1][1], coeffs[1][2]}};
  if (nearlyEqualProducts(block[0][0] * block[1][1], block[0][1] * block[1][0]))
    return velStsCoeffErr;
  // Unlike the volume path, Catmull-Rom keeps four taps on planes narrower
  // than 4; its taps are then limited to the plane.
  if (srcVolume.width == 1 || srcVolume.height == 1) {
    code = VELR_INTER_NEAREST;
  } else if (code == VELR_INTER_CUBIC_LAGRANGE && (srcVolume.width < 4 || srcVolume.height < 4)) {
    code = VELR_INTER_LINEAR;
  }
  if (srcRoi.x >= srcVolume.width || srcRoi.y >= srcVolume.height) return velStsWrongIntersectRoi;
  const VelrVolume plane = {srcVolume.width, srcVolume.height, 1};
  const VelrRemapRegion region =
      clippedBounds({srcRoi.x, srcRoi.y, 0, srcRoi.width, srcRoi.height, 1}, plane);
  if (region.xMax - region.xMin < 1 || region.yMax - region.yMin < 1)
    return velStsRegionTooSmallErr;
  double inverse[2][3];
  if (!invertPlaneAffine(block, inverse)) return velStsCoeffErr;

  WarpJob<T> job{};
  job.src.planes = pSrc;
  job.src.lineStep = elementStep<T>(srcStep);
  job.src.region = region;
  job.src.width = plane.width;
  job.src.height = plane.height;
  job.src.depth = 1;
  job.src.prepare(code);
  job.dst = pDst;
  job.dstStep = elementStep<T>(dstStep);
  job.dstBounds = regionBounds({dstRoi.x, dstRoi.y, 0, dstRoi.width, dstRoi.height, 1});
  for (int r = 0; r < 2; ++r) {
    job.m[r][0] = inverse[r][0];
    job.m[r][1] = inverse[r][1];
    job.m[r][2] = 0.0;
    job.m[r][3] = inverse[r][2];
  }
  runPlane(job, code);
  return velStsNoErr;
}

template <class T>
VelStatus warp(const T* const* pSrc, VelrVolume srcVolume, int srcStep, VelrCuboid srcRoi,
               T* const* pDst, int dstStep, VelrCuboid dstRoi, const Vel64f coeffs[3][4],
               int interpolation) {
  if (pSrc == nullptr || pDst == nullptr) return velStsNullPtrErr;
  if (isEmptyVolume(srcVolume)) return velStsSizeErr;
  if (isBadCuboid(srcRoi)) return velStsSizeErr;
  if (isBadCuboid(dstRoi)) return velStsSizeErr;
  if (diagonalVanishes(coeffs)) return velStsCoeffErr;
  if (lowerRowsParallel(coeffs)) return velStsCoeffErr;
  if (!isInterpolationCode(interpolation)) return velStsInterpolationErr;
  if (srcVolume.depth == 1)
    return warpPlane(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs,
                     interpolation);
  if (startsOutside(srcRoi, srcVolume)) return velStsWrongIntersectVolume;

  WarpJob<T> job{};
  job.src.planes = pSrc;
  job.src.lineStep = elementStep<T>(srcStep);
  job.src.region = clippedBounds(srcRoi, srcVolume);
  job.src.width = srcVolume.width;
  job.src.height = srcVolume.height;
  job.src.depth = srcVolume.depth;
  const int code = lowerCodeForSmallVolume(interpolation, srcVolume);
  if (!invertAffine(coeffs, job.m)) return velStsCoeffErr;
  job.src.prepare(code);
  job.dst = pDst;
  job.dstStep = elementStep<T>(dstStep);
  job.dstBounds = regionBounds(dstRoi);

  const bool parallel = dstRoi.width >= kMinParallelExtent && dstRoi.height >= kMinParallelExtent &&
                        dstRoi.depth >= kMinParallelExtent;
  runVolume(job, code, job.dstBounds.zMax - job.dstBounds.zMin + 1,
            parallel ? ownGetNumThreads() : 1);
  return velStsNoErr;
}

}  // namespace
}  // namespace velr::vol

VelStatus velrWarpAffineGetBufSize(VelrCuboid srcRoi, VelrCuboid dstRoi, int nChannel,
                                   int interpolation, int* pSize) {
  if (pSize == nullptr) return velStsNullPtrErr;
  if (velr::vol::isBadCuboid(srcRoi) || velr::vol::isBadCuboid(dstRoi)) return velStsSizeErr;
  if (nChannel != 1) return velStsNumChannelsErr;
  if (!velr::vol::isInterpolationCode(interpolation)) return velStsInterpolationErr;
  *pSize = 0;
  return velStsNoErr;
}

VelStatus velrWarpAffine_8u_C1PV(const Vel8u* const* pSrc, VelrVolume srcVolume, int srcStep,
                                 VelrCuboid srcRoi, Vel8u* const* pDst, int dstStep,
                                 VelrCuboid dstRoi, const Vel64f coeffs[3][4], int interpolation,
                                 Vel8u* /*pBuffer: never needed*/) {
  return velr::vol::warp(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs,
                         interpolation);
}

VelStatus velrWarpAffine_16u_C1PV(const Vel16u* const* pSrc, VelrVolume srcVolume, int srcStep,
                                  VelrCuboid srcRoi, Vel16u* const* pDst, int dstStep,
                                  VelrCuboid dstRoi, const Vel64f coeffs[3][4], int interpolation,
                                  Vel8u* /*pBuffer: never needed*/) {
  return velr::vol::warp(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs,
                         interpolation);
}

VelStatus velrWarpAffine_32f_C1PV(const Vel32f* const* pSrc, VelrVolume srcVolume, int srcStep,
                                  VelrCuboid srcRoi, Vel32f* const* pDst, int dstStep,
                                  VelrCuboid dstRoi, const Vel64f coeffs[3][4], int interpolation,
                                  Vel8u* /*pBuffer: never needed*/) {
  return velr::vol::warp(pSrc, srcVolume, srcStep, srcRoi, pDst, dstStep, dstRoi, coeffs,
                         interpolation);
}

#endif  // HWY_ONCE
