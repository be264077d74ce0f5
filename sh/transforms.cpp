// Front ends of the forward and inverse transforms. The six functions share
// one set of checks and differ only in how samples and coefficient vectors
// are laid out, which becomes a plane array and a step for the kernels.
#include "sh/context.h"
#include "sh/kernels.h"
#include "velr.h"

namespace {

using velr::sh::Tables;

// The common checks; on success *tables selects the context's algorithm.
// Orders above 15 pass the context's order check of a large recurrence
// context but cannot be evaluated, so they are refused here, before any
// output is touched; so is an unknown algorithm.
VelStatus check(int len, Vel32u order, const VelrSHState* state, Tables* tables) {
  if (len == 0) return velStsSizeErr;
  if (order > state->order) return velStsRangeErr;
  if (state->algorithm != 0 && state->algorithm != 1) return velStsRangeErr;
  if (order > velr::sh::kMaxBand) return velStsRangeErr;
  *tables = state->algorithm == 1 ? Tables{velr::sh::tableA(state), velr::sh::tableB(state)}
                                  : Tables{nullptr, nullptr};
  return velStsNoErr;
}

template <class P>
bool anyNull3(P const* planes) {
  return !planes || !planes[0] || !planes[1] || !planes[2];
}

}  // namespace

extern "C" {

VelStatus velrSHTFwd_32f_C1I(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                             const Vel32f* pSrc, int len, Vel32f* pSrcDstCoeffs, Vel32u order,
                             const VelrSHState* pSHState) {
  if (!pX || !pY || !pZ || !pSrc || !pSrcDstCoeffs || !pSHState) return velStsNullPtrErr;
  Tables tables;
  if (VelStatus st = check(len, order, pSHState, &tables)) return st;
  if (len < 0) return velStsNoErr;
  const Vel32f* src[1] = {pSrc};
  Vel32f* coeffs[1] = {pSrcDstCoeffs};
  velr::sh::forward(pX, pY, pZ, src, 1, 1, static_cast<size_t>(len), coeffs,
                    static_cast<int>(order), tables);
  return velStsNoErr;
}

VelStatus velrSHTFwd_32f_C3P3I(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                               const Vel32f* pSrc, int len, Vel32f* const pSrcDstCoeffs[3],
                               Vel32u order, const VelrSHState* pSHState) {
  if (!pX || !pY || !pZ || !pSrc || anyNull3(pSrcDstCoeffs) || !pSHState) {
    return velStsNullPtrErr;
  }
  Tables tables;
  if (VelStatus st = check(len, order, pSHState, &tables)) return st;
  if (len < 0) return velStsNoErr;
  const Vel32f* src[3] = {pSrc, pSrc + 1, pSrc + 2};
  velr::sh::forward(pX, pY, pZ, src, 3, 3, static_cast<size_t>(len), pSrcDstCoeffs,
                    static_cast<int>(order), tables);
  return velStsNoErr;
}

VelStatus velrSHTFwd_32f_P3I(const Vel32f* pX, const Vel32f* pY, const Vel32f* pZ,
                             const Vel32f* const pSrc[3], int len, Vel32f* const pSrcDstCoeffs[3],
                             Vel32u order, const VelrSHState* pSHState) {
  if (!pX || !pY || !pZ || anyNull3(pSrc) || anyNull3(pSrcDstCoeffs) || !pSHState) {
    return velStsNullPtrErr;
  }
  Tables tables;
  if (VelStatus st = check(len, order, pSHState, &tables)) return st;
  if (len < 0) return velStsNoErr;
  velr::sh::forward(pX, pY, pZ, pSrc, 1, 3, static_cast<size_t>(len), pSrcDstCoeffs,
                    static_cast<int>(order), tables);
  return velStsNoErr;
}

VelStatus velrSHTInv_32f_C1(const Vel32f* pSrcCoeffs, Vel32u order, const Vel32f* pX,
                            const Vel32f* pY, const Vel32f* pZ, Vel32f* pDst, int len,
                            const VelrSHState* pSHState) {
  if (!pSrcCoeffs || !pX || !pY || !pZ || !pDst || !pSHState) return velStsNullPtrErr;
  Tables tables;
  if (VelStatus st = check(len, order, pSHState, &tables)) return st;
  if (len < 0) return velStsNoErr;
  const Vel32f* coeffs[1] = {pSrcCoeffs};
  Vel32f* dst[1] = {pDst};
  velr::sh::inverse(coeffs, 1, static_cast<int>(order), pX, pY, pZ, dst, 1,
                    static_cast<size_t>(len), tables);
  return velStsNoErr;
}

VelStatus velrSHTInv_32f_P3(const Vel32f* const pSrcCoeffs[3], Vel32u order, const Vel32f* pX,
                            const Vel32f* pY, const Vel32f* pZ, Vel32f* const pDst[3], int len,
                            const VelrSHState* pSHState) {
  if (anyNull3(pSrcCoeffs) || !pX || !pY || !pZ || anyNull3(pDst) || !pSHState) {
    return velStsNullPtrErr;
  }
  Tables tables;
  if (VelStatus st = check(len, order, pSHState, &tables)) return st;
  if (len < 0) return velStsNoErr;
  velr::sh::inverse(pSrcCoeffs, 3, static_cast<int>(order), pX, pY, pZ, pDst, 1,
                    static_cast<size_t>(len), tables);
  return velStsNoErr;
}

VelStatus velrSHTInv_32f_P3C3(const Vel32f* const pSrcCoeffs[3], Vel32u order, const Vel32f* pX,
                              const Vel32f* pY, const Vel32f* pZ, Vel32f* pDst, int len,
                              const VelrSHState* pSHState) {
  if (anyNull3(pSrcCoeffs) || !pX || !pY || !pZ || !pDst || !pSHState) return velStsNullPtrErr;
  Tables tables;
  if (VelStatus st = check(len, order, pSHState, &tables)) return st;
  if (len < 0) return velStsNoErr;
  Vel32f* dst[3] = {pDst, pDst + 1, pDst + 2};
  velr::sh::inverse(pSrcCoeffs, 3, static_cast<int>(order), pX, pY, pZ, dst, 3,
                    static_cast<size_t>(len), tables);
  return velStsNoErr;
}

}  // extern "C"
