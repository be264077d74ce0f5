// Hit points, normals and bounding box: front ends. Each checks its pointers
// in order, picks the block or the one-ray form where the two differ, and
// runs the kernel; the triangle normals are split over the library's threads.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "raytrace/surface.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "raytrace/surface-inl.h"

#if HWY_ONCE

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/parallel.h"
#include "velr.h"

namespace velr {
HWY_EXPORT(HitPointBlockKernel);
HWY_EXPORT(HitPointOneRayKernel);
HWY_EXPORT(FlatNormalKernel);
HWY_EXPORT(SmoothNormalBlockKernel);
HWY_EXPORT(SmoothNormalOneRayKernel);
HWY_EXPORT(TriangleNormalKernel);
HWY_EXPORT(BoundsKernel);

namespace {

bool aligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15) == 0; }

// Below this many triangles per thread a parallel region costs more than it
// saves; results are the same for any split.
constexpr int kTrianglesPerThread = 4096;

VelStatus hitPoints(const Vel32f* origin, const Vel32f* const* originPlanes,
                    const Vel32f* const pDirection[3], const Vel32f* pDist, const Vel32s* pMask,
                    Vel32f* const pHitPoint[3], int len, Vel32f eps) {
  if (len < 1) return velStsNoErr;
  bool blocks = (len & 3) == 0 && aligned16(pDist) && aligned16(pMask);
  for (int c = 0; c < 3; ++c) {
    blocks = blocks && aligned16(pDirection[c]) && aligned16(pHitPoint[c]);
    if (originPlanes != nullptr) blocks = blocks && aligned16(originPlanes[c]);
  }
  const size_t n = static_cast<size_t>(len);
  if (blocks) {
    HWY_DYNAMIC_DISPATCH(HitPointBlockKernel)(origin, originPlanes, pDirection, pDist, pMask,
                                              pHitPoint, n, eps);
  } else {
    HWY_DYNAMIC_DISPATCH(HitPointOneRayKernel)(origin, originPlanes, pDirection, pDist, pMask,
                                               pHitPoint, n, eps);
  }
  return velStsNoErr;
}

}  // namespace
}  // namespace velr

extern "C" {

VelStatus velrHitPoint3DEpsS0_32f_M(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                    const Vel32f* pDist, const Vel32s* pMask,
                                    Vel32f* const pHitPoint[3], int len, Vel32f eps) {
  if (pDist == nullptr || pMask == nullptr || pDirection == nullptr || pHitPoint == nullptr)
    return velStsNullPtrErr;
  return velr::hitPoints(pOrigin, nullptr, pDirection, pDist, pMask, pHitPoint, len, eps);
}

VelStatus velrHitPoint3DEpsM0_32f_M(const Vel32f* const pOrigin[3],
                                    const Vel32f* const pDirection[3], const Vel32f* pDist,
                                    const Vel32s* pMask, Vel32f* const pHitPoint[3], int len,
                                    Vel32f eps) {
  if (pDist == nullptr || pMask == nullptr || pDirection == nullptr || pHitPoint == nullptr ||
      pOrigin == nullptr)
    return velStsNullPtrErr;
  return velr::hitPoints(nullptr, pOrigin, pDirection, pDist, pMask, pHitPoint, len, eps);
}

VelStatus velrSurfFlatNormal_32f(const Vel32f* pTrnglNorm, const Vel32s* pMask,
                                 Vel32f* const pSurfNorm[3], int len) {
  if (pTrnglNorm == nullptr || pMask == nullptr) return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::FlatNormalKernel)(pTrnglNorm, pMask, pSurfNorm,
                                               static_cast<size_t>(len));
  return velStsNoErr;
}

VelStatus velrSurfSmoothNormal_32f(const Vel32f* pVertNorm, const Vel32s* pTrnglIndex,
                                   const Vel32s* pMask, const Vel32f* const pHit[2],
                                   Vel32f* const pSurfNorm[3], int len, int indexStep) {
  if (pVertNorm == nullptr || pTrnglIndex == nullptr || pMask == nullptr || pHit == nullptr ||
      pSurfNorm == nullptr)
    return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  using velr::aligned16;
  const bool blocks = (len & 3) == 0 && aligned16(pVertNorm) && aligned16(pTrnglIndex) &&
                      aligned16(pMask) && aligned16(pHit[0]) && aligned16(pHit[1]) &&
                      aligned16(pSurfNorm[0]) && aligned16(pSurfNorm[1]) &&
                      aligned16(pSurfNorm[2]);
  const size_t n = static_cast<size_t>(len);
  if (blocks) {
    HWY_DYNAMIC_DISPATCH(velr::SmoothNormalBlockKernel)(pVertNorm, pTrnglIndex, pMask, pHit,
                                                        pSurfNorm, n, indexStep);
  } else {
    HWY_DYNAMIC_DISPATCH(velr::SmoothNormalOneRayKernel)(pVertNorm, pTrnglIndex, pMask, pHit,
                                                         pSurfNorm, n, indexStep);
  }
  return velStsNoErr;
}

VelStatus velrTriangleNormal_32f(const Vel32f* pVertCoor, const Vel32s* pTrnglIndex,
                                 Vel32f* pTrnglNorm, int lenTrngl) {
  if (pVertCoor == nullptr || pTrnglIndex == nullptr || pTrnglNorm == nullptr)
    return velStsNullPtrErr;
  if (lenTrngl < 1) return velStsNoErr;
  // Each triangle's normal depends on that triangle alone, so the slabs give
  // the same bits for any thread count.
  velr::parallelSlabs(velr::threadsFor(lenTrngl, velr::kTrianglesPerThread), lenTrngl,
                      [&](int first, int count, int, int) {
                        const size_t f = static_cast<size_t>(first);
                        HWY_DYNAMIC_DISPATCH(velr::TriangleNormalKernel)(
                            pVertCoor, pTrnglIndex + 4 * f, pTrnglNorm + 3 * f,
                            static_cast<size_t>(count));
                      });
  return velStsNoErr;
}

VelStatus velrSetBoundBox_32f(const Vel32f* pVertCoor, int lenVert, Vel32f* pBound) {
  if (pVertCoor == nullptr) return velStsNullPtrErr;
  float lo[3], hi[3];
  HWY_DYNAMIC_DISPATCH(velr::BoundsKernel)(pVertCoor, lenVert > 0 ? static_cast<size_t>(lenVert)
                                                                    : 0,
                                           lo, hi);
  // Widen every side by a ten-thousandth of the largest coordinate, so that
  // triangles lying in a face of the box are still strictly inside it. The
  // FLT_MIN floor keeps the margin positive for a box around the origin.
  float m = FLT_MIN;
  for (float v : {lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]})
    if (std::fabs(v) > m) m = std::fabs(v);
  const uint32_t tenThousandthBits = 0x38D1B717u;
  float tenThousandth;
  std::memcpy(&tenThousandth, &tenThousandthBits, sizeof tenThousandth);
  m = m * tenThousandth;
  for (int c = 0; c < 3; ++c) {
    pBound[c] = lo[c] - m;
    pBound[3 + c] = hi[c] + m;
  }
  return velStsNoErr;
}

}  // extern "C"

#endif  // HWY_ONCE
