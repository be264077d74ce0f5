// Intersection front ends: no argument is checked; each picks the packet
// kernel when the block is whole 4 x 4 tiles and its planes are 16-byte
// aligned, the one-ray algorithm otherwise. The choice is made once per call.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "raytrace/intersect.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "raytrace/intersect-inl.h"

#if HWY_ONCE
#include <cstdint>
#include <initializer_list>

#include "raytrace/traverse.h"
#include "velr.h"

namespace velr::rt {
HWY_EXPORT(IntersectEyePackets);
HWY_EXPORT(IntersectSurfacePackets);
HWY_EXPORT(IntersectShadowPackets);
HWY_EXPORT(IntersectLayerPackets);

namespace {

bool aligned16(std::initializer_list<const void*> planes) {
  for (const void* p : planes)
    if ((reinterpret_cast<std::uintptr_t>(p) & 15u) != 0) return false;
  return true;
}

bool wholeTiles(int width, int height) { return width % 4 == 0 && height % 4 == 0; }

std::int64_t raysOf(int width, int height) { return static_cast<std::int64_t>(width) * height; }

}  // namespace
}  // namespace velr::rt

extern "C" {

VelStatus velrIntersectEyeSO_32f(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                 Vel32f* pDist, Vel32f* pHit[2], Vel32s* pTrngl,
                                 const VelrIntersectObject* pObj, int width, int height) {
  using namespace velr::rt;
  if (width < 1 || height < 1) return velStsNoErr;
  if (wholeTiles(width, height) && aligned16({pDirection[0], pDirection[1], pDirection[2], pDist,
                                              pHit[0], pHit[1], pTrngl})) {
    HWY_DYNAMIC_DISPATCH(IntersectEyePackets)(pOrigin, pDirection, pDist, pHit, pTrngl, pObj, width,
                                              height);
    return velStsNoErr;
  }
  Ray ray{{pOrigin[0], pOrigin[1], pOrigin[2], 0.0f}, {0.0f, 0.0f, 0.0f, 0.0f}};
  for (std::int64_t i = 0, n = raysOf(width, height); i < n; ++i) {
    for (int a = 0; a < 3; ++a) ray.d[a] = pDirection[a][i];
    traceNearestRay<false>(*pObj, ray, pDist + i, pHit[0] + i, pHit[1] + i, pTrngl + i);
  }
  return velStsNoErr;
}

VelStatus velrIntersectMO_32f(const Vel32f* const pOrigin[3], const Vel32f* const pDirection[3],
                              Vel32f* pDist, Vel32f* pHit[2], Vel32s* pTrngl,
                              const VelrIntersectObject* pObj, int width, int height) {
  using namespace velr::rt;
  if (width < 1 || height < 1) return velStsNoErr;
  if (wholeTiles(width, height) &&
      aligned16({pOrigin[0], pOrigin[1], pOrigin[2], pDirection[0], pDirection[1], pDirection[2],
                 pDist, pHit[0], pHit[1], pTrngl})) {
    HWY_DYNAMIC_DISPATCH(IntersectSurfacePackets)(pOrigin, pDirection, pDist, pHit, pTrngl, pObj,
                                                  width, height);
    return velStsNoErr;
  }
  Ray ray{{0.0f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.0f, 0.0f}};
  for (std::int64_t i = 0, n = raysOf(width, height); i < n; ++i) {
    for (int a = 0; a < 3; ++a) {
      ray.o[a] = pOrigin[a][i];
      ray.d[a] = pDirection[a][i];
    }
    traceNearestRay<true>(*pObj, ray, pDist + i, pHit[0] + i, pHit[1] + i, pTrngl + i);
  }
  return velStsNoErr;
}

VelStatus velrIntersectAnySO_32f(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                 Vel32s* pOccluder, Vel32s* pMask, int width, int height,
                                 const VelrIntersectObject* pObj) {
  using namespace velr::rt;
  if (width < 1 || height < 1) return velStsNoErr;
  if (wholeTiles(width, height) &&
      aligned16({pOccluder, pMask, pDirection[0], pDirection[1], pDirection[2]})) {
    HWY_DYNAMIC_DISPATCH(IntersectShadowPackets)(pOrigin, pDirection, pOccluder, pMask, pObj, width,
                                                 height);
    return velStsNoErr;
  }
  Ray ray{{pOrigin[0], pOrigin[1], pOrigin[2], 0.0f}, {0.0f, 0.0f, 0.0f, 0.0f}};
  for (std::int64_t i = 0, n = raysOf(width, height); i < n; ++i) {
    for (int a = 0; a < 3; ++a) ray.d[a] = pDirection[a][i];
    traceShadowRay(*pObj, ray, pOccluder + i, pMask + i);
  }
  return velStsNoErr;
}

VelStatus velrIntersectMultipleSO_32f(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                      Vel32f* pDist, Vel32f* pHit[2], Vel32s* pTrngl, int width,
                                      int height, int maxHits, const VelrIntersectObject* pObj) {
  using namespace velr::rt;
  if (width < 1 || height < 1 || maxHits < 1) return velStsNoErr;
  const std::int64_t n = raysOf(width, height);
  for (std::int64_t i = 0; i < n * maxHits; ++i) pTrngl[i] = -1;
  const LayerPlanes out{pDist, pHit[0], pHit[1], pTrngl, n};
  if (wholeTiles(width, height) &&
      aligned16({pDirection[0], pDirection[1], pDirection[2], pDist, pHit[0], pHit[1], pTrngl})) {
    HWY_DYNAMIC_DISPATCH(IntersectLayerPackets)(pOrigin, pDirection, &out, pObj, width, height,
                                                maxHits);
    return velStsNoErr;
  }
  Ray ray{{pOrigin[0], pOrigin[1], pOrigin[2], 0.0f}, {0.0f, 0.0f, 0.0f, 0.0f}};
  for (std::int64_t i = 0; i < n; ++i) {
    for (int a = 0; a < 3; ++a) ray.d[a] = pDirection[a][i];
    traceLayers(*pObj, ray, out, i, maxHits);
  }
  return velStsNoErr;
}

}  // extern "C"
#endif  // HWY_ONCE
