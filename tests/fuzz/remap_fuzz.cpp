// Remap through three coordinate volumes, on the volume path and on the
// single-plane path of a depth-1 source. Positions are finite (a
// not-a-number position is outside the contract) but may fall anywhere:
// on the region's bounds, just past them, far outside, at infinity. The
// status must follow the documented order of both paths; only destination
// voxels may change (only plane 0 on the single-plane path), and only on
// success.
#include <cmath>

#include "tests/fuzz/volume_fuzz.h"

namespace {

using fuzz::Arena;
using fuzz::Input;
using fuzz::Volume;

template <class T>
VelStatus remap(const T* const* src, VelrVolume sv, int ss, VelrCuboid roi, const Vel32f* const* mx,
                const Vel32f* const* my, const Vel32f* const* mz, int ms, T* const* dst, int ds,
                VelrVolume dv, int code) {
  if constexpr (sizeof(T) == 1)
    return velrRemap_8u_C1PV(src, sv, ss, roi, mx, my, mz, ms, dst, ds, dv, code);
  else if constexpr (sizeof(T) == 2)
    return velrRemap_16u_C1PV(src, sv, ss, roi, mx, my, mz, ms, dst, ds, dv, code);
  else
    return velrRemap_32f_C1PV(src, sv, ss, roi, mx, my, mz, ms, dst, ds, dv, code);
}

// A source position along an axis with region bounds [lo, hi] in a volume
// of n voxels: mostly inside or near the volume, often exactly on a voxel or
// a half, sometimes just past a bound or far away.
float position(Input& in, int lo, int hi, int n) {
  const uint8_t b = in.u8();
  if (b < 150) return static_cast<float>(in.range(-12, 8 * n + 4)) / 8.0f;
  if (b < 190) return static_cast<float>(in.range(-2, 2 * n + 2)) / 2.0f;
  if (b < 215) {
    const float bound = static_cast<float>(in.oneIn(2) ? lo : hi);
    return in.oneIn(2) ? bound : std::nextafter(bound, in.oneIn(2) ? INFINITY : -INFINITY);
  }
  if (b < 235) return in.finite(1e30f);
  if (b < 245) return in.oneIn(2) ? INFINITY : -INFINITY;
  return in.oneIn(2) ? 1e30f : -1e30f;
}

template <class T>
void fuzzRemap(Input& in) {
  fuzz::pickThreads(in);
  Arena arena;
  const bool big = in.oneIn(16);  // parallel slabs need 16 along every axis
  const bool flat = in.oneIn(3);  // depth 1: the single-plane path
  const int sw = in.range(1, 9), sh = in.range(1, 9), sd = flat ? 1 : in.range(1, 7);
  const int dw = in.range(1, big ? 18 : 9), dh = in.range(1, big ? 18 : 7),
            dd = in.range(1, big ? 17 : 4);
  VelrVolume srcVol{sw, sh, sd}, dstVol{dw, dh, dd};
  VelrCuboid roi{in.range(0, sw), in.range(0, sh), in.range(0, sd),
                 in.range(1, sw + 1), in.range(1, sh + 1), in.range(1, sd + 1)};
  // One argument spoilt now and then; the real extents stay allocated.
  if (in.oneIn(10)) {
    int* f[] = {&srcVol.width, &srcVol.height, &srcVol.depth, &roi.width, &roi.height,
                &roi.depth, &dstVol.width, &dstVol.height, &dstVol.depth, &roi.x, &roi.y, &roi.z};
    *f[in.u8() % 12] = in.oneIn(2) ? -1 : INT_MIN;
  }
  const int code = fuzz::interpolationCode(in);

  Volume<T> src = fuzz::makeVolume<T>(arena, in, sw, sh, sd, true);
  Volume<T> dst = fuzz::makeVolume<T>(arena, in, dw, dh, dd, true);
  bool flipped = false;
  const int mapStep = fuzz::lineStep<Vel32f>(in, dw, flipped);
  Volume<Vel32f> maps[3];
  // Region bounds as the set-up clips them (wide: the arguments may be spoilt).
  auto last = [](int start, int extent, int n) {
    return static_cast<int>(std::clamp<long>(std::min<long>(long{start} + extent, n) - 1, -1, n));
  };
  const int xMax = last(roi.x, roi.width, sw), yMax = last(roi.y, roi.height, sh),
            zMax = last(roi.z, roi.depth, sd);
  const int lo[3] = {roi.x, roi.y, roi.z}, hi[3] = {xMax, yMax, zMax}, n[3] = {sw, sh, sd};
  for (int k = 0; k < 3; ++k) {
    maps[k] = fuzz::makeVolume<Vel32f>(arena, in, dw, dh, dd, true, mapStep);
    for (int z = 0; z < dd; ++z)
      for (int y = 0; y < dh; ++y)
        for (int x = 0; x < dw; ++x) *maps[k].at(x, y, z) = position(in, lo[k], hi[k], n[k]);
  }
  // The single-plane path checks the line steps; the volume path uses them
  // as given.
  int srcStep = src.step, dstStep = dst.step, mStep = mapStep;
  if (in.oneIn(12)) (in.oneIn(2) ? srcStep : in.oneIn(2) ? dstStep : mStep) = 0;

  const T* const* srcArg = src.planes;
  T* const* dstArg = dst.planes;
  const Vel32f* const* mArg[3] = {maps[0].planes, maps[1].planes, maps[2].planes};
  const int missing = in.oneIn(14) ? in.range(0, 4) : -1;
  if (missing == 0) srcArg = nullptr;
  if (missing == 1) dstArg = nullptr;
  if (missing >= 2) mArg[missing - 2] = nullptr;
  // The single-plane path also checks the plane pointers it uses.
  const bool noPlane = flat && missing < 0 && in.oneIn(14);
  if (sd == 1) fuzz::markWritable(arena, dst, 0, 0, 0, dw, dh, 1);
  else fuzz::markWritable(arena, dst, 0, 0, 0, dw, dh, dd);
  if (noPlane) (in.oneIn(2) ? src.planes[0] : dst.planes[0]) = nullptr;
  arena.seal();
  FUZZ_TRACE("remap %zu-byte: src %dx%dx%d step %d roi (%d %d %d %d %d %d), dst %dx%dx%d step %d, "
             "map step %d, code %d, threads %d, missing %d%s\n",
             sizeof(T), srcVol.width, srcVol.height, srcVol.depth, srcStep, roi.x, roi.y, roi.z,
             roi.width, roi.height, roi.depth, dstVol.width, dstVol.height, dstVol.depth, dstStep,
             mStep, code, ownGetNumThreads(), missing, noPlane ? ", null plane" : "");

  const VelStatus st = remap<T>(srcArg, srcVol, srcStep, roi, mArg[0], mArg[1], mArg[2], mStep,
                                dstArg, dstStep, dstVol, code);

  VelStatus want = velStsNoErr;
  const bool roiOk = roi.x >= 0 && roi.width >= 1 && roi.y >= 0 && roi.height >= 1 &&
                     roi.z >= 0 && roi.depth >= 1;
  if (missing >= 0) want = velStsNullPtrErr;
  else if (srcVol.width < 1 || srcVol.height < 1 || srcVol.depth < 1) want = velStsSizeErr;
  else if (!roiOk) want = velStsSizeErr;
  else if (dstVol.width < 1 || dstVol.height < 1 || dstVol.depth < 1) want = velStsSizeErr;
  else if (!fuzz::codeAccepted(code)) want = velStsInterpolationErr;
  else if (srcVol.depth == 1) {
    const int c = code & 0x7FFFFFFF;
    if (noPlane) want = velStsNullPtrErr;
    else if (c != 1 && c != 2 && c != 4 && c != 6) want = velStsInterpolationErr;
    else if (srcStep < 1 || dstStep < 1 || mStep < 1) want = velStsStepErr;
    else if (roi.x >= srcVol.width || roi.y >= srcVol.height) want = velStsWrongIntersectRoi;
  } else if (roi.x >= srcVol.width || roi.y >= srcVol.height || roi.z >= srcVol.depth) {
    want = velStsWrongIntersectVolume;
  }
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  switch (in.u8() % 3) {
    case 0: fuzzRemap<Vel8u>(in); break;
    case 1: fuzzRemap<Vel16u>(in); break;
    default: fuzzRemap<Vel32f>(in); break;
  }
  return 0;
}
