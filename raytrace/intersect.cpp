// Intersection front ends: no argument is checked; each picks the packet
// kernel when the block shape and the planes' alignment allow, the one-ray
// algorithm otherwise.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "raytrace/intersect.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "raytrace/intersect-inl.h"

#if HWY_ONCE
#include <cstdint>

#include "raytrace/traverse.h"
#include "velr.h"

namespace velr::rt {
HWY_EXPORT(IntersectEyePackets);

namespace {

bool aligned16(const void* p) { return (reinterpret_cast<std::uintptr_t>(p) & 15u) == 0; }

// Packets need whole 4 x 4 tiles and planes that vector loads may read.
bool packetsFit(int width, int height) { return width % 4 == 0 && height % 4 == 0; }

}  // namespace
}  // namespace velr::rt

extern "C" {

VelStatus velrIntersectEyeSO_32f(const Vel32f* pOrigin, const Vel32f* const pDirection[3],
                                 Vel32f* pDist, Vel32f* pHit[2], Vel32s* pTrngl,
                                 const VelrIntersectObject* pObj, int width, int height) {
  using namespace velr::rt;
  if (width < 1 || height < 1) return velStsNoErr;
  const bool aligned = aligned16(pDirection[0]) && aligned16(pDirection[1]) &&
                       aligned16(pDirection[2]) && aligned16(pDist) && aligned16(pHit[0]) &&
                       aligned16(pHit[1]) && aligned16(pTrngl);
  if (aligned && packetsFit(width, height)) {
    HWY_DYNAMIC_DISPATCH(IntersectEyePackets)(pOrigin, pDirection, pDist, pHit, pTrngl, pObj, width,
                                              height);
    return velStsNoErr;
  }
  const std::int64_t n = static_cast<std::int64_t>(width) * height;
  Ray ray{{pOrigin[0], pOrigin[1], pOrigin[2], 0.0f}, {0.0f, 0.0f, 0.0f, 0.0f}};
  for (std::int64_t i = 0; i < n; ++i) {
    ray.d[0] = pDirection[0][i];
    ray.d[1] = pDirection[1][i];
    ray.d[2] = pDirection[2][i];
    traceEyeRay(*pObj, ray, pDist + i, pHit[0] + i, pHit[1] + i, pTrngl + i);
  }
  return velStsNoErr;
}

}  // extern "C"
#endif  // HWY_ONCE
