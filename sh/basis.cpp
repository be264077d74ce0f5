// Front ends of the basis evaluation: argument checks in their fixed
// order, then the kernels.
#include "sh/context.h"
#include "sh/kernels.h"
#include "velr.h"

extern "C" {

VelStatus velrSH_32f(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ, int len, Vel32f* pDst,
                     Vel32u order, const VelrSHState* pSHState) {
  if (!pX || !pY || !pZ || !pDst || !pSHState) return velStsNullPtrErr;
  if (len == 0) return velStsSizeErr;
  if (len < 0) return velStsNoErr;
  if (order > pSHState->order) return velStsRangeErr;
  if (pSHState->algorithm != 0 && pSHState->algorithm != 1) return velStsRangeErr;
  // A recurrence context may be built for any order; evaluation stops at 15.
  if (order > velr::sh::kMaxBand) return velStsRangeErr;
  const velr::sh::Tables tables =
      pSHState->algorithm == 1
          ? velr::sh::Tables{velr::sh::tableA(pSHState), velr::sh::tableB(pSHState)}
          : velr::sh::Tables{nullptr, nullptr};
  velr::sh::evalBasis(pX, pY, pZ, static_cast<size_t>(len), pDst, static_cast<int>(order),
                      tables);
  return velStsNoErr;
}

VelStatus velrSHBand_32f(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ, int len,
                         Vel32f* pDst, Vel32u band) {
  if (!pX || !pY || !pZ || !pDst) return velStsNullPtrErr;
  if (band > velr::sh::kMaxBand) return velStsRangeErr;
  if (len == 0) return velStsSizeErr;
  if (len < 0) return velStsNoErr;
  velr::sh::evalBand(pX, pY, pZ, static_cast<size_t>(len), pDst, static_cast<int>(band));
  return velStsNoErr;
}

}  // extern "C"
