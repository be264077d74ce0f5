// Affine warp and its buffer-size query, on the volume path and on the
// single-plane path of a depth-1 source. Transforms range from ordinary
// scalings and rotations through permutations, nearly parallel rows and
// nearly singular matrices to arbitrary doubles; the singularity tests are
// replayed here exactly, so the status must be the documented one, and only
// the destination region (plane 0 of it on the single-plane path) may
// change, only on success.
#include <cmath>

#include "tests/fuzz/volume_fuzz.h"

namespace {

using fuzz::Arena;
using fuzz::Input;
using fuzz::roiValid;
using fuzz::Volume;

template <class T>
VelStatus warp(const T* const* src, VelrVolume sv, int ss, VelrCuboid sr, T* const* dst, int ds,
               VelrCuboid dr, const double c[3][4], int code, Vel8u* buf) {
  if constexpr (sizeof(T) == 1)
    return velrWarpAffine_8u_C1PV(src, sv, ss, sr, dst, ds, dr, c, code, buf);
  else if constexpr (sizeof(T) == 2)
    return velrWarpAffine_16u_C1PV(src, sv, ss, sr, dst, ds, dr, c, code, buf);
  else
    return velrWarpAffine_32f_C1PV(src, sv, ss, sr, dst, ds, dr, c, code, buf);
}

bool nearlyEqual(double p, double q) {
  if (std::fabs(p) <= 1e-200) return std::fabs(q) <= 1e-10;
  return std::fabs((p - q) / p) <= 1e-10;
}

double coefficient(Input& in) {
  static constexpr double kCommon[] = {0.0, 1.0, -1.0, 2.0, 0.5, 0.25, -0.5, 1.5};
  const uint8_t b = in.u8();
  if (b < 120) return kCommon[b % 8];
  if (b < 230) return (static_cast<int>(in.u16() % 4097) - 2048) / 512.0;
  return in.f64();
}

// A forward transform: its kind decides which of the tests it meets.
void transform(Input& in, double c[3][4]) {
  const uint8_t kind = in.u8() % 10;
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 4; ++k) c[r][k] = k == 3 ? coefficient(in) * 2 : 0.0;
  switch (kind) {
    case 0:  // a permutation: zero diagonal
      c[0][1] = c[1][2] = c[2][0] = 1.0;
      break;
    case 1:  // rows 1 and 2 parallel
      for (int k = 0; k < 3; ++k) c[0][k] = coefficient(in);
      for (int k = 0; k < 3; ++k) c[1][k] = c[2][k] = coefficient(in);
      if (in.oneIn(2))
        for (int k = 0; k < 3; ++k) c[2][k] *= 3.0;
      break;
    case 2: {  // nearly singular: rows 1 and 2 independent, det of order 1e-11
      c[0][0] = 1e-11;
      c[1][1] = c[2][2] = 1.0;
      c[0][1] = in.oneIn(2) ? 1e-12 : 0.0;
      break;
    }
    case 3:  // anything
      for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 4; ++k) c[r][k] = in.f64();
      break;
    default:  // a scaling with some shear
      for (int r = 0; r < 3; ++r) {
        c[r][r] = in.oneIn(6) ? coefficient(in) : 0.5 + in.u8() % 8 * 0.25;
        for (int k = 0; k < 3; ++k)
          if (k != r && in.oneIn(3)) c[r][k] = coefficient(in) / 4;
      }
      break;
  }
}

// The status of the volume path's coefficient tests (0 when they pass).
VelStatus coefficientTests(const double c[3][4]) {
  if (std::fabs(c[0][0]) <= 1e-100 && std::fabs(c[1][1]) <= 1e-100 && std::fabs(c[2][2]) <= 1e-100)
    return velStsCoeffErr;
  if (nearlyEqual(c[1][1] * c[2][2], c[1][2] * c[2][1]) &&
      nearlyEqual(c[2][2] * c[1][0], c[1][2] * c[2][0]) &&
      nearlyEqual(c[2][1] * c[1][0], c[1][1] * c[2][0]))
    return velStsCoeffErr;
  return velStsNoErr;
}

bool singular(const double c[3][4]) {
  const double a = c[0][0], b = c[0][1], cc = c[0][2], e = c[1][0], f = c[1][1], g = c[1][2],
               i = c[2][0], j = c[2][1], k = c[2][2];
  const double U = f * k - j * g, V = k * e - g * i, W = j * e - f * i;
  const double det = a * U - b * V + cc * W;
  return -1e-10 < det && det < 1e-10;
}

void fuzzBufSize(Input& in) {
  Arena arena;
  VelrCuboid src{in.range(-1, 9), in.range(-1, 9), in.range(-1, 9), in.range(0, 9),
                 in.range(0, 9), in.range(0, 9)};
  VelrCuboid dst{in.range(-1, 9), in.range(-1, 9), in.range(-1, 9), in.range(0, 9),
                 in.range(0, 9), in.range(0, 9)};
  const int channels = in.oneIn(8) ? in.anyInt() : 1;
  const int code = fuzz::interpolationCode(in);
  int* size = in.oneIn(16) ? nullptr : arena.add<int>(1, 0, &in);
  if (size != nullptr) arena.writable(size);
  arena.seal();
  const VelStatus st = velrWarpAffineGetBufSize(src, dst, channels, code, size);
  FUZZ_EXPECT_STATUS(st, fuzz::bufSizeStatus(size, src, dst, channels, code));
  arena.verify(st == velStsNoErr);
  if (st == velStsNoErr) FUZZ_CHECK(*size == 0, "the warp needs no buffer");
}

template <class T>
void fuzzWarp(Input& in) {
  fuzz::pickThreads(in);
  Arena arena;
  const bool big = in.oneIn(16);
  const bool flat = in.oneIn(3);
  const int sw = in.range(1, 9), sh = in.range(1, 9), sd = flat ? 1 : in.range(1, 7);
  VelrVolume srcVol{sw, sh, sd};
  VelrCuboid srcRoi{in.range(0, sw), in.range(0, sh), in.range(0, sd),
                    in.range(1, sw + 1), in.range(1, sh + 1), in.range(1, sd + 1)};
  VelrCuboid dstRoi{in.range(0, 3), in.range(0, 3), in.range(0, 3),
                    in.range(1, big ? 18 : 9), in.range(1, big ? 18 : 7), in.range(1, big ? 17 : 4)};
  const VelrCuboid dstReal = dstRoi;
  if (in.oneIn(10)) {
    int* f[] = {&srcVol.width, &srcVol.height, &srcVol.depth, &srcRoi.x,     &srcRoi.y,
                &srcRoi.z,     &srcRoi.width,  &srcRoi.height, &srcRoi.depth, &dstRoi.x,
                &dstRoi.y,     &dstRoi.z,      &dstRoi.width,  &dstRoi.height, &dstRoi.depth};
    *f[in.u8() % 15] = in.oneIn(2) ? -1 : INT_MIN;
  }
  double c[3][4];
  transform(in, c);
  const int code = fuzz::interpolationCode(in);

  Volume<T> src = fuzz::makeVolume<T>(arena, in, sw, sh, sd, true);
  Volume<T> dst = fuzz::makeVolume<T>(arena, in, dstReal.x + dstReal.width,
                                      dstReal.y + dstReal.height, dstReal.z + dstReal.depth, true);
  double* coeffs = arena.add<double>(12, 0);
  std::memcpy(coeffs, c, sizeof(c));
  const int missing = in.oneIn(14) ? in.range(0, 1) : -1;
  const bool noPlane = flat && missing < 0 && in.oneIn(14);
  if (sd == 1)
    fuzz::markWritable(arena, dst, dstReal.x, dstReal.y, 0, dstReal.x + dstReal.width,
                       dstReal.y + dstReal.height, 1);
  else
    fuzz::markWritable(arena, dst, dstReal.x, dstReal.y, dstReal.z, dstReal.x + dstReal.width,
                       dstReal.y + dstReal.height, dstReal.z + dstReal.depth);
  if (noPlane) (in.oneIn(2) ? src.planes[0] : dst.planes[0]) = nullptr;
  arena.seal();
  FUZZ_TRACE("warp %zu-byte: src %dx%dx%d step %d roi (%d %d %d %d %d %d), dst step %d roi "
             "(%d %d %d %d %d %d), code %d, threads %d, missing %d%s\n"
             "  c = [%a %a %a %a; %a %a %a %a; %a %a %a %a]\n",
             sizeof(T), srcVol.width, srcVol.height, srcVol.depth, src.step, srcRoi.x, srcRoi.y,
             srcRoi.z, srcRoi.width, srcRoi.height, srcRoi.depth, dst.step, dstRoi.x, dstRoi.y,
             dstRoi.z, dstRoi.width, dstRoi.height, dstRoi.depth, code, ownGetNumThreads(), missing,
             noPlane ? ", null plane" : "", c[0][0], c[0][1], c[0][2], c[0][3], c[1][0], c[1][1],
             c[1][2], c[1][3], c[2][0], c[2][1], c[2][2], c[2][3]);

  // The work buffer is accepted and never used: null is as good as any.
  const VelStatus st = warp<T>(missing == 0 ? nullptr : src.planes, srcVol, src.step, srcRoi,
                               missing == 1 ? nullptr : dst.planes, dst.step, dstRoi,
                               reinterpret_cast<const double(*)[4]>(coeffs), code, nullptr);

  VelStatus want = velStsNoErr;
  bool planeSetup = false;  // the single-plane routine may refuse its geometry
  if (missing >= 0) want = velStsNullPtrErr;
  else if (srcVol.width < 1 || srcVol.height < 1 || srcVol.depth < 1) want = velStsSizeErr;
  else if (!roiValid(srcRoi) || !roiValid(dstRoi)) want = velStsSizeErr;
  else if ((want = coefficientTests(c)) != velStsNoErr) {
  } else if (!fuzz::codeAccepted(code)) want = velStsInterpolationErr;
  else if (srcVol.depth == 1) {
    const int k = code & 0x7FFFFFFF;
    const int w = std::min(srcRoi.width, srcVol.width - srcRoi.x),
              h = std::min(srcRoi.height, srcVol.height - srcRoi.y);
    if (noPlane) want = velStsNullPtrErr;
    else if (k != 1 && k != 2 && k != 4 && k != 6) want = velStsInterpolationErr;
    else if (nearlyEqual(c[0][0] * c[1][1], c[0][1] * c[1][0])) want = velStsCoeffErr;
    else if (srcRoi.x >= srcVol.width || srcRoi.y >= srcVol.height) want = velStsWrongIntersectRoi;
    else if (w < 2 || h < 2) want = velStsRegionTooSmallErr;
    else planeSetup = true;
  } else if (srcRoi.x >= srcVol.width || srcRoi.y >= srcVol.height || srcRoi.z >= srcVol.depth) {
    want = velStsWrongIntersectVolume;
  } else if (singular(c)) {
    want = velStsCoeffErr;
  }
  if (planeSetup && st == velStsCoeffErr) want = velStsCoeffErr;
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  switch (in.u8() % 7) {
    case 0: fuzzBufSize(in); break;
    case 1:
    case 2: fuzzWarp<Vel8u>(in); break;
    case 3:
    case 4: fuzzWarp<Vel16u>(in); break;
    default: fuzzWarp<Vel32f>(in); break;
  }
  return 0;
}
