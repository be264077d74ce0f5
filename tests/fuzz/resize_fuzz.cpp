// Resize, its buffer-size query and the destination-cuboid query. Calls are
// derived with volumes that hold what the caller promises (the destination
// covers dstRoi, the buffer has the queried size) and with the arguments the
// checks look at pushed past their limits; the status must follow the
// documented order, and only destination voxels inside dstRoi and the work
// buffer may change, and those only on success.
#include <cmath>

#include "tests/fuzz/volume_fuzz.h"

namespace {

using fuzz::Arena;
using fuzz::Input;
using fuzz::roiValid;

// Factors and shifts: mostly ordinary, sometimes anything a double can be.
double factor(Input& in, bool& odd) {
  static constexpr double kCommon[] = {1.0, 2.0, 0.5, 0.25, 1.5, 3.0, 0.75, 1.0 / 3.0, 1.4, 0.6};
  const uint8_t b = in.u8();
  if (b < 120) return kCommon[b % 10];
  if (b < 230) return 0.2 + (in.u16() % 3800) / 1000.0;
  odd = true;
  return in.f64();
}

double shift(Input& in, bool& odd) {
  const uint8_t b = in.u8();
  if (b < 100) return 0.0;
  if (b < 235) return (static_cast<int>(in.u8()) - 128) / 16.0;
  odd = true;
  return in.f64();
}

// Ordinary values keep every intermediate of the region rules well inside
// int, where the expected region can be computed exactly.
bool ordinary(double v) { return std::isfinite(v) && std::fabs(v) < 1e6; }

VelrCuboid cuboid(int x, int y, int z, int w, int h, int d) { return VelrCuboid{x, y, z, w, h, d}; }

// Now and then one field of a region or extent is pushed out of range:
// offsets below 0, extents below 1.
struct Spoiler {
  Input& in;
  std::vector<int*> offsets, extents;
  void run() {
    if (!in.oneIn(10)) return;
    const size_t k = in.u8() % (offsets.size() + extents.size());
    const bool extent = k >= offsets.size();
    int* f = extent ? extents[k - offsets.size()] : offsets[k];
    switch (in.u8() % 4) {
      case 0: *f = INT_MIN; break;
      case 1: *f = -1; break;
      case 2: *f = -in.range(1, 1000); break;
      default: *f = extent ? 0 : -1; break;
    }
  }
};

struct Axis {
  double f, h;
};

// [b, e) of the destination along one axis, as the resize front ends
// compute it: the source region limited to the volume, mapped and rounded,
// and limited to the destination region.
void destinationSpan(int a, int n, int N, int c, int m, Axis ax, long& b, long& e) {
  const int n1 = std::min(N - a, n);
  b = static_cast<long>(std::trunc(std::max(a * ax.f + ax.h, static_cast<double>(c)) + 0.4999999999));
  e = static_cast<long>(
      std::trunc(std::min((a + n1) * ax.f + ax.h, static_cast<double>(c) + m) + 0.5000000001));
}

long a16(long n) { return (n + 15) & ~15L; }
long a64(long n) { return (n + 63) & ~63L; }

long bufferSize(long W, long H, long D, int code) {
  long s;
  if (code == 1) {
    s = 4 * (a16(W) + a16(H) + a16(D));
  } else {
    const long t = 4 * (a16(W) + a16(H) + a16(D) + a64(W) + a64(H) + a64(D));
    if (code == 2)
      s = t + 8 * H * a64(W) + 4 * (a64(2 * W + 64) + a64(8 * (W + H) + 64));
    else
      s = t + 16 * H * a64(W) +
          4 * (a64(128 * (W + H) + 192) + 2 * a64(4 * W + 192) + a64(4 * H + 192) +
               a64(4 * D + 192));
  }
  return (s + 64) * ownGetNumThreads();
}

void fuzzCuboid(Input& in) {
  Arena arena;
  VelrCuboid src = cuboid(in.range(0, 40), in.range(0, 40), in.range(0, 40), in.range(1, 40),
                          in.range(1, 40), in.range(1, 40));
  Spoiler{in, {&src.x, &src.y, &src.z}, {&src.width, &src.height, &src.depth}}.run();
  bool odd = false;
  const Axis ax[3] = {{factor(in, odd), shift(in, odd)},
                      {factor(in, odd), shift(in, odd)},
                      {factor(in, odd), shift(in, odd)}};
  const int code = fuzz::interpolationCode(in);
  VelrCuboid* out = in.oneIn(16) ? nullptr : arena.add<VelrCuboid>(1, 0, &in);
  if (out != nullptr) arena.writable(out);
  arena.seal();
  const VelStatus st = velrGetResizeCuboid(src, out, ax[0].f, ax[1].f, ax[2].f, ax[0].h, ax[1].h,
                                           ax[2].h, code);
  VelStatus want = velStsNoErr;
  if (out == nullptr) want = velStsNullPtrErr;
  else if (!roiValid(src)) want = velStsSizeErr;
  else if (!(ax[0].f > 0) && !std::isnan(ax[0].f)) want = velStsResizeFactorErr;
  else if (!(ax[1].f > 0) && !std::isnan(ax[1].f)) want = velStsResizeFactorErr;
  else if (!(ax[2].f > 0) && !std::isnan(ax[2].f)) want = velStsResizeFactorErr;
  else if (!fuzz::codeAccepted(code)) want = velStsInterpolationErr;
  if (want != velStsNoErr) {
    FUZZ_EXPECT_STATUS(st, want);
    arena.verify(false);
    return;
  }
  FUZZ_CHECK(st == velStsNoErr || st == velStsEmptyCuboid, "region status");
  arena.verify(st == velStsNoErr);
  if (odd) {
    if (st == velStsNoErr)
      FUZZ_CHECK(out->width >= 1 && out->height >= 1 && out->depth >= 1, "non-empty region");
    return;
  }
  const int a[3] = {src.x, src.y, src.z}, n[3] = {src.width, src.height, src.depth};
  long b[3], e[3];
  bool empty = false;
  for (int k = 0; k < 3; ++k) {
    b[k] = std::max(0L, static_cast<long>(std::trunc(a[k] * ax[k].f + ax[k].h + 0.4999999999)));
    e[k] = std::max(0L, static_cast<long>(
                            std::trunc((a[k] + n[k]) * ax[k].f + ax[k].h + 0.5000000001)));
    empty |= e[k] <= b[k];
  }
  FUZZ_EXPECT_STATUS(st, empty ? velStsEmptyCuboid : velStsNoErr);
  if (!empty) {
    FUZZ_CHECK(out->x == b[0] && out->y == b[1] && out->z == b[2], "region start");
    FUZZ_CHECK(out->width == e[0] - b[0] && out->height == e[1] - b[1] &&
                   out->depth == e[2] - b[2],
               "region extent");
  }
}

void fuzzBufSize(Input& in) {
  fuzz::pickThreads(in);
  Arena arena;
  const bool huge = in.oneIn(8);
  auto extent = [&] { return huge ? in.range(1, INT_MAX) : in.range(1, 300); };
  VelrCuboid src = cuboid(in.range(0, 50), in.range(0, 50), in.range(0, 50), extent(), extent(),
                          extent());
  VelrCuboid dst = cuboid(in.range(0, 50), in.range(0, 50), in.range(0, 50), extent(), extent(),
                          extent());
  Spoiler{in,
          {&src.x, &src.y, &src.z, &dst.x, &dst.y, &dst.z},
          {&src.width, &src.height, &src.depth, &dst.width, &dst.height, &dst.depth}}
      .run();
  const int channels = in.oneIn(10) ? in.anyInt() : 1;
  const int code = fuzz::interpolationCode(in);
  int* size = in.oneIn(16) ? nullptr : arena.add<int>(1, 0, &in);
  if (size != nullptr) arena.writable(size);
  arena.seal();
  const VelStatus st = velrResizeGetBufSize(src, dst, channels, code, size);
  FUZZ_EXPECT_STATUS(st, fuzz::bufSizeStatus(size, src, dst, channels, code));
  arena.verify(st == velStsNoErr);
  if (st == velStsNoErr && !huge)
    FUZZ_CHECK(*size == bufferSize(dst.width, dst.height, dst.depth, code), "buffer size");
}

template <class T>
void fuzzResize(Input& in, bool planar) {
  fuzz::pickThreads(in);
  Arena arena;
  // Real extents (what is allocated) and the ones passed, which may be spoilt.
  const bool big = in.oneIn(12);  // enough for the parallel slabs of the float path
  const int sw = in.range(1, big ? 20 : 9), sh = in.range(1, big ? 20 : 9),
            sd = in.range(1, big ? 20 : 9);
  VelrVolume srcVol{sw, sh, sd};
  VelrCuboid srcRoi = cuboid(in.range(0, sw + 1), in.range(0, sh + 1), in.range(0, sd + 1),
                             in.range(1, sw + 2), in.range(1, sh + 2), in.range(1, sd + 2));
  VelrCuboid dstRoi = cuboid(in.range(0, 4), in.range(0, 4), in.range(0, 4),
                             in.range(1, big ? 20 : 10), in.range(1, big ? 20 : 10),
                             in.range(1, big ? 20 : 10));
  const VelrCuboid dstReal = dstRoi;
  Spoiler{in,
          {&srcRoi.x, &srcRoi.y, &srcRoi.z, &dstRoi.x, &dstRoi.y, &dstRoi.z},
          {&srcVol.width, &srcVol.height, &srcVol.depth, &srcRoi.width, &srcRoi.height,
           &srcRoi.depth, &dstRoi.width, &dstRoi.height, &dstRoi.depth}}
      .run();
  bool odd = false;
  const Axis ax[3] = {{factor(in, odd), shift(in, odd)},
                      {factor(in, odd), shift(in, odd)},
                      {factor(in, odd), shift(in, odd)}};
  const int code = fuzz::interpolationCode(in);

  fuzz::Volume<T> src = fuzz::makeVolume<T>(arena, in, sw, sh, sd, planar);
  fuzz::Volume<T> dst = fuzz::makeVolume<T>(arena, in, dstReal.x + dstReal.width,
                                            dstReal.y + dstReal.height,
                                            dstReal.z + dstReal.depth, planar);
  int bufSize = 0;
  if (velrResizeGetBufSize(srcRoi, dstRoi, 1, code, &bufSize) != velStsNoErr) bufSize = 64;
  Vel8u* buffer = arena.add<Vel8u>(static_cast<size_t>(bufSize), in.misalign(1), &in);
  arena.writable(buffer, static_cast<size_t>(bufSize));
  fuzz::markWritable(arena, dst, dstReal.x, dstReal.y, dstReal.z, dstReal.x + dstReal.width,
                     dstReal.y + dstReal.height, dstReal.z + dstReal.depth);
  const bool noSrc = in.oneIn(24), noDst = in.oneIn(24), noBuf = in.oneIn(24);
  arena.seal();
  FUZZ_TRACE("resize %zu-byte %s: src %dx%dx%d step %d plane %d roi (%d %d %d %d %d %d), "
             "dst step %d plane %d roi (%d %d %d %d %d %d), f (%g %g %g) h (%g %g %g), code %d, "
             "buffer %d, threads %d, null %d%d%d\n",
             sizeof(T), planar ? "PV" : "V", srcVol.width, srcVol.height, srcVol.depth, src.step,
             src.planeStep, srcRoi.x, srcRoi.y, srcRoi.z, srcRoi.width, srcRoi.height,
             srcRoi.depth, dst.step, dst.planeStep, dstRoi.x, dstRoi.y, dstRoi.z, dstRoi.width,
             dstRoi.height, dstRoi.depth, ax[0].f, ax[1].f, ax[2].f, ax[0].h, ax[1].h, ax[2].h,
             code, bufSize, ownGetNumThreads(), noSrc, noDst, noBuf);

  VelStatus st;
  const double fx = ax[0].f, fy = ax[1].f, fz = ax[2].f, hx = ax[0].h, hy = ax[1].h, hz = ax[2].h;
  Vel8u* buf = noBuf ? nullptr : buffer;
  if constexpr (sizeof(T) == 1) {
    st = planar ? velrResize_8u_C1PV(noSrc ? nullptr : src.planes, srcVol, src.step, srcRoi,
                                     noDst ? nullptr : dst.planes, dst.step, dstRoi, fx, fy, fz,
                                     hx, hy, hz, code, buf)
                : velrResize_8u_C1V(noSrc ? nullptr : src.base, srcVol, src.step, src.planeStep,
                                    srcRoi, noDst ? nullptr : dst.base, dst.step, dst.planeStep,
                                    dstRoi, fx, fy, fz, hx, hy, hz, code, buf);
  } else if constexpr (sizeof(T) == 2) {
    st = planar ? velrResize_16u_C1PV(noSrc ? nullptr : src.planes, srcVol, src.step, srcRoi,
                                      noDst ? nullptr : dst.planes, dst.step, dstRoi, fx, fy, fz,
                                      hx, hy, hz, code, buf)
                : velrResize_16u_C1V(noSrc ? nullptr : src.base, srcVol, src.step, src.planeStep,
                                     srcRoi, noDst ? nullptr : dst.base, dst.step, dst.planeStep,
                                     dstRoi, fx, fy, fz, hx, hy, hz, code, buf);
  } else {
    st = planar ? velrResize_32f_C1PV(noSrc ? nullptr : src.planes, srcVol, src.step, srcRoi,
                                      noDst ? nullptr : dst.planes, dst.step, dstRoi, fx, fy, fz,
                                      hx, hy, hz, code, buf)
                : velrResize_32f_C1V(noSrc ? nullptr : src.base, srcVol, src.step, src.planeStep,
                                     srcRoi, noDst ? nullptr : dst.base, dst.step, dst.planeStep,
                                     dstRoi, fx, fy, fz, hx, hy, hz, code, buf);
  }

  VelStatus want = velStsNoErr;
  const bool volOk = srcVol.width >= 1 && srcVol.height >= 1 && srcVol.depth >= 1;
  if (noSrc || noDst || noBuf) want = velStsNullPtrErr;
  else if (!volOk || !roiValid(srcRoi) || !roiValid(dstRoi)) want = velStsSizeErr;
  else if (!(fx > 0) || !(fy > 0) || !(fz > 0)) {
    // A not-a-number factor passes the test "zero is not less than it".
    if (!(std::isnan(fx) || fx > 0) || !(std::isnan(fy) || fy > 0) ||
        !(std::isnan(fz) || fz > 0))
      want = velStsResizeFactorErr;
  }
  if (want == velStsNoErr && !fuzz::codeAccepted(code)) want = velStsInterpolationErr;
  if (want == velStsNoErr &&
      (srcRoi.x >= srcVol.width || srcRoi.y >= srcVol.height || srcRoi.z >= srcVol.depth))
    want = velStsWrongIntersectVolume;
  if (want != velStsNoErr) {
    FUZZ_EXPECT_STATUS(st, want);
    arena.verify(false);
    return;
  }
  FUZZ_CHECK(st == velStsNoErr || st == velStsEmptyCuboid, "resize status");
  arena.verify(st == velStsNoErr);
  if (odd) return;
  const int a[3] = {srcRoi.x, srcRoi.y, srcRoi.z}, n[3] = {srcRoi.width, srcRoi.height, srcRoi.depth};
  const int N[3] = {sw, sh, sd}, c[3] = {dstRoi.x, dstRoi.y, dstRoi.z},
            m[3] = {dstRoi.width, dstRoi.height, dstRoi.depth};
  bool empty = false;
  for (int k = 0; k < 3; ++k) {
    long b, e;
    destinationSpan(a[k], n[k], N[k], c[k], m[k], ax[k], b, e);
    empty |= !(b < e);
  }
  FUZZ_EXPECT_STATUS(st, empty ? velStsEmptyCuboid : velStsNoErr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  switch (in.u8() % 8) {
    case 0: fuzzCuboid(in); break;
    case 1: fuzzBufSize(in); break;
    case 2: fuzzResize<Vel8u>(in, in.oneIn(2)); break;
    case 3: fuzzResize<Vel16u>(in, in.oneIn(2)); break;
    case 4: fuzzResize<Vel32f>(in, false); break;
    case 5: fuzzResize<Vel32f>(in, true); break;
    case 6: fuzzResize<Vel8u>(in, false); break;
    default: fuzzResize<Vel16u>(in, true); break;
  }
  return 0;
}
