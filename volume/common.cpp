// The resize coordinate mapping and the destination-region rule, shared by
// the six resize functions and velrGetResizeCuboid.
#include "volume/common.h"

namespace velr::vol {

namespace {

// Comparisons written so that a NaN operand yields the other one: absurd
// factors then give a defined (empty or clamped) region instead of a NaN
// reaching an integer conversion.
inline double maxOf(double a, double b) { return a > b ? a : b; }
inline double minOf(double a, double b) { return a < b ? a : b; }

}  // namespace

VelStatus resizeSetup(bool anyNull, const VelrVolume& srcVolume, const VelrCuboid& srcRoi,
                      const VelrCuboid& dstRoi, const double factor[3], const double shift[3],
                      int interpolation, ResizeSetup* setup) {
  if (anyNull) return velStsNullPtrErr;
  if (isEmptyVolume(srcVolume) || isBadCuboid(srcRoi) || isBadCuboid(dstRoi)) return velStsSizeErr;
  // "f <= 0" rather than "!(f > 0)": a NaN factor passes, as callers expect.
  if (factor[0] <= 0 || factor[1] <= 0 || factor[2] <= 0) return velStsResizeFactorErr;
  if (!isInterpolationCode(interpolation)) return velStsInterpolationErr;
  if (startsOutside(srcRoi, srcVolume)) return velStsWrongIntersectVolume;

  const int srcStart[3] = {srcRoi.x, srcRoi.y, srcRoi.z};
  const int srcLen[3] = {srcRoi.width, srcRoi.height, srcRoi.depth};
  const int srcExtent[3] = {srcVolume.width, srcVolume.height, srcVolume.depth};
  const int dstStart[3] = {dstRoi.x, dstRoi.y, dstRoi.z};
  const int dstLen[3] = {dstRoi.width, dstRoi.height, dstRoi.depth};
  ResizeSetup s;
  for (int k = 0; k < 3; ++k) {
    const double f = factor[k], h = shift[k];
    const int a = srcStart[k];
    const int n = srcExtent[k] - a < srcLen[k] ? srcExtent[k] - a : srcLen[k];
    const double c = dstStart[k];
    const double cEnd = static_cast<double>(dstStart[k]) + dstLen[k];
    ResizeAxis& ax = s.axis[k];
    ax.inv = 1.0 / f;
    ax.off = -h / f;
    ax.begin = truncToInt(maxOf(a * f + h, c) + kRegionStartRound);
    ax.end = truncToInt(minOf(static_cast<double>(a + n) * f + h, cEnd) + kRegionEndRound);
  }
  for (const ResizeAxis& ax : s.axis)
    if (ax.begin >= ax.end) return velStsEmptyCuboid;
  *setup = s;
  return velStsNoErr;
}

}  // namespace velr::vol

using velr::vol::truncToInt;

VelStatus velrGetResizeCuboid(VelrCuboid srcRoi, VelrCuboid* pDstRoi, double xFactor,
                              double yFactor, double zFactor, double xShift, double yShift,
                              double zShift, int interpolation) {
  if (!pDstRoi) return velStsNullPtrErr;
  if (velr::vol::isBadCuboid(srcRoi)) return velStsSizeErr;
  if (xFactor <= 0 || yFactor <= 0 || zFactor <= 0) return velStsResizeFactorErr;
  if (!velr::vol::isInterpolationCode(interpolation)) return velStsInterpolationErr;

  // Without a source volume or a destination region to limit against, only
  // the clamp at 0 after truncation remains.
  const int start[3] = {srcRoi.x, srcRoi.y, srcRoi.z};
  const int len[3] = {srcRoi.width, srcRoi.height, srcRoi.depth};
  const double f[3] = {xFactor, yFactor, zFactor};
  const double h[3] = {xShift, yShift, zShift};
  int b[3], e[3];
  for (int k = 0; k < 3; ++k) {
    const int lo = truncToInt(start[k] * f[k] + h[k] + velr::vol::kRegionStartRound);
    const int hi = truncToInt((static_cast<double>(start[k]) + len[k]) * f[k] + h[k] +
                              velr::vol::kRegionEndRound);
    b[k] = lo > 0 ? lo : 0;
    e[k] = hi > 0 ? hi : 0;
  }
  for (int k = 0; k < 3; ++k)
    if (e[k] <= b[k]) return velStsEmptyCuboid;
  *pDstRoi = {b[0], b[1], b[2], e[0] - b[0], e[1] - b[1], e[2] - b[2]};
  return velStsNoErr;
}
