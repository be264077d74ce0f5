// Masked per-ray arithmetic: front ends. Each checks its pointers in its own
// order (some pointers are deliberately left unchecked, as callers rely on
// passing null together with a zero count), then runs the kernel.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "raytrace/arith.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "raytrace/arith-inl.h"

#if HWY_ONCE

#include <cstdint>

#include "velr.h"

namespace velr {
HWY_EXPORT(DotKernel);
HWY_EXPORT(DotChangeNormKernel);
HWY_EXPORT(DistAttenuationFourRayKernel);
HWY_EXPORT(DistAttenuationOneRayKernel);
HWY_EXPORT(MulKernel);
HWY_EXPORT(MulP3Kernel);
HWY_EXPORT(DivKernel);
HWY_EXPORT(AddMulMulKernel);

namespace {
bool aligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15) == 0; }
}  // namespace
}  // namespace velr

extern "C" {

VelStatus velrDot_32f_P3C1M(const Vel32f* const pSrc0[3], const Vel32f* const pSrc1[3],
                            const Vel32s* pMask, Vel32f* pDot, int len) {
  if (pSrc0 == nullptr || pSrc1 == nullptr || pMask == nullptr || pDot == nullptr)
    return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::DotKernel)(pSrc0, pSrc1, pMask, pDot, static_cast<size_t>(len));
  return velStsNoErr;
}

VelStatus velrDotChangeNorm_32f_IM(const Vel32f* const pSrc[3], const Vel32s* pMask,
                                   Vel32f* const pSrcDst[3], Vel32f* pDot, int len) {
  if (pSrc == nullptr || pMask == nullptr || pSrcDst == nullptr || pDot == nullptr)
    return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::DotChangeNormKernel)(pSrc, pMask, pSrcDst, pDot,
                                                  static_cast<size_t>(len));
  return velStsNoErr;
}

VelStatus velrDistAttenuationSO_32f_M(const Vel32f* pPos, const Vel32f* const pSurfPoint[3],
                                      const Vel32s* pMask, Vel32f* pDist, int len) {
  if (pSurfPoint == nullptr || pMask == nullptr || pDist == nullptr) return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  using velr::aligned16;
  // The two forms differ only for a NaN distance; the block form is the one
  // aligned packets of whole blocks of four get.
  const bool blocks = (len & 3) == 0 && aligned16(pSurfPoint[0]) && aligned16(pSurfPoint[1]) &&
                      aligned16(pSurfPoint[2]) && aligned16(pMask) && aligned16(pDist);
  if (blocks) {
    HWY_DYNAMIC_DISPATCH(velr::DistAttenuationFourRayKernel)(pPos, pSurfPoint, pMask, pDist,
                                                             static_cast<size_t>(len));
  } else {
    HWY_DYNAMIC_DISPATCH(velr::DistAttenuationOneRayKernel)(pPos, pSurfPoint, pMask, pDist,
                                                            static_cast<size_t>(len));
  }
  return velStsNoErr;
}

VelStatus velrMul_32f_C1IM(const Vel32f* pSrc, const Vel32s* pMask, Vel32f* pSrcDst, int len) {
  if (pSrc == nullptr || pMask == nullptr || pSrcDst == nullptr) return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::MulKernel)(pSrc, pMask, pSrcDst, static_cast<size_t>(len));
  return velStsNoErr;
}

VelStatus velrMul_32f_C1P3IM(const Vel32f* pSrc, const Vel32s* pMask, Vel32f* const pSrcDst[3],
                             int len) {
  if (pSrc == nullptr || pMask == nullptr || pSrcDst == nullptr) return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::MulP3Kernel)(pSrc, pMask, pSrcDst, static_cast<size_t>(len));
  return velStsNoErr;
}

VelStatus velrDiv_32f_C1IM(const Vel32f* pSrc, const Vel32s* pMask, Vel32f* pSrcDst, int len) {
  if (pSrc == nullptr || pSrcDst == nullptr) return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  const bool zeroDivisor =
      HWY_DYNAMIC_DISPATCH(velr::DivKernel)(pSrc, pMask, pSrcDst, static_cast<size_t>(len));
  return zeroDivisor ? velStsDivByZero : velStsNoErr;
}

VelStatus velrAddMulMul_32f_AC1P3IM(const Vel32f* pSrc0, const Vel32f* pSrc1,
                                    const Vel32f* const pSrc2[3], const Vel32s* pMask,
                                    Vel32f* const pSrcDst[3], int len) {
  if (pSrc1 == nullptr || pSrc2 == nullptr || pMask == nullptr || pSrcDst == nullptr)
    return velStsNullPtrErr;
  if (len < 1) return velStsNoErr;
  HWY_DYNAMIC_DISPATCH(velr::AddMulMulKernel)(pSrc0, pSrc1, pSrc2, pMask, pSrcDst,
                                              static_cast<size_t>(len));
  return velStsNoErr;
}

}  // extern "C"

#endif  // HWY_ONCE
