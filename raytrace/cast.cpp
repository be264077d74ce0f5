// Ray casting: front ends for eye, reflection and shadow rays. They check
// their pointers in order, pick the block or the one-ray form and run the
// kernel; none allocates or starts threads.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "raytrace/cast.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "raytrace/cast-inl.h"

#if HWY_ONCE

#include <cstdint>

#include "velr.h"

namespace velr {
HWY_EXPORT(CastEyeOneRayKernel);
HWY_EXPORT(CastEyeBlockKernel);
HWY_EXPORT(ReflectOneRayKernel);
HWY_EXPORT(ReflectBlockKernel);
HWY_EXPORT(ShadowKernel);
}  // namespace velr

extern "C" {

VelStatus velrCastEye_32f(const Vel32f* pImPlaneOrigin, const Vel32f* pDW, const Vel32f* pDH,
                          int blockWidth, int blockHeight, int blockX, int blockY,
                          Vel32f* const pDirection[3], int width, int height) {
  if (pDirection == nullptr) return velStsNullPtrErr;
  if (width < 1 || height < 1) return velStsNoErr;
  // Pixel offsets of the block: 32-bit products that wrap on overflow, and
  // only then are converted to float.
  const auto wrapMul = [](int a, int b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
  };
  const float offX = static_cast<float>(wrapMul(blockWidth, blockX));
  const float offY = static_cast<float>(wrapMul(blockHeight, blockY));
  const size_t w = static_cast<size_t>(width), h = static_cast<size_t>(height);
  if ((width & 3) == 0) {
    HWY_DYNAMIC_DISPATCH(velr::CastEyeBlockKernel)(pImPlaneOrigin, pDW, pDH, offX, offY,
                                                   pDirection, w, h);
  } else {
    HWY_DYNAMIC_DISPATCH(velr::CastEyeOneRayKernel)(pImPlaneOrigin, pDW, pDH, offX, offY,
                                                    pDirection, w, h);
  }
  return velStsNoErr;
}

VelStatus velrCastReflectionRay_32f(const Vel32f* const pInc[3], const Vel32s* pMask,
                                    const Vel32f* const pSurfNorm[3], Vel32f* const pReflect[3],
                                    int len) {
  if (pInc == nullptr || pMask == nullptr || pSurfNorm == nullptr || pReflect == nullptr)
    return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  const size_t n = static_cast<size_t>(len);
  if ((len & 3) == 0) {
    HWY_DYNAMIC_DISPATCH(velr::ReflectBlockKernel)(pInc, pMask, pSurfNorm, pReflect, n);
  } else {
    HWY_DYNAMIC_DISPATCH(velr::ReflectOneRayKernel)(pInc, pMask, pSurfNorm, pReflect, n);
  }
  return velStsNoErr;
}

VelStatus velrCastShadowSO_32f(const Vel32f* pLightPos, const Vel32f* pDotRay,
                               const Vel32f* const pSurfNorm[3],
                               const Vel32f* const pSurfPoint[3], Vel32s* pMask,
                               Vel32f* pDotShadow, Vel32f* const pShadowDir[3], int len) {
  if (pDotRay == nullptr || pSurfNorm == nullptr || pSurfPoint == nullptr || pMask == nullptr ||
      pShadowDir == nullptr || pDotShadow == nullptr)
    return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::ShadowKernel)(pLightPos, pDotRay, pSurfNorm, pSurfPoint, pMask,
                                           pDotShadow, pShadowDir, static_cast<size_t>(len));
  return velStsNoErr;
}

}  // extern "C"

#endif  // HWY_ONCE
