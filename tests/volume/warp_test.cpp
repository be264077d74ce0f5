#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

#include "common/targets.h"
#include "common/threads.h"
#include "sample_reference.h"
#include "velr.h"
#include "volume/warp_matrix.h"

namespace {

using velr::test::RefBounds;
using velr::test::TestRng;
using velr::test::TestVolume;

using Matrix = double[3][4];

VelStatus callWarp(const Vel8u* const* s, VelrVolume sv, int ss, VelrCuboid sr, Vel8u* const* d,
                   int ds, VelrCuboid dr, const Matrix c, int code) {
  return velrWarpAffine_8u_C1PV(s, sv, ss, sr, d, ds, dr, c, code, nullptr);
}
VelStatus callWarp(const Vel16u* const* s, VelrVolume sv, int ss, VelrCuboid sr, Vel16u* const* d,
                   int ds, VelrCuboid dr, const Matrix c, int code) {
  return velrWarpAffine_16u_C1PV(s, sv, ss, sr, d, ds, dr, c, code, nullptr);
}
VelStatus callWarp(const Vel32f* const* s, VelrVolume sv, int ss, VelrCuboid sr, Vel32f* const* d,
                   int ds, VelrCuboid dr, const Matrix c, int code) {
  return velrWarpAffine_32f_C1PV(s, sv, ss, sr, d, ds, dr, c, code, nullptr);
}

// One warp call: source, regions, transform, destination before and after.
template <class T>
struct WarpCase {
  TestVolume<T> src, dst, before;
  VelrCuboid srcRoi, dstRoi;
  Matrix c = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};

  WarpCase(VelrVolume sv, VelrCuboid sr, VelrCuboid dr, uint64_t seed)
      : src(sv.width, sv.height, sv.depth),
        dst(dr.x + dr.width + 1, dr.y + dr.height + 1, dr.z + dr.depth + 1, 2),
        before(dst.w, dst.h, dst.d),
        srcRoi(sr),
        dstRoi(dr) {
    TestRng rng(seed);
    src.fillRandom(rng);
    dst.fillRandom(rng);
    before.copyFrom(dst);
  }
  // Rotation about z around the source centre, a tilt that makes z vary
  // along lines, and a shift.
  void rotate(double degrees, double tilt) {
    const double a = degrees * std::numbers::pi / 180.0, co = std::cos(a), si = std::sin(a);
    const double rows[3][3] = {{co, -si, 0.0}, {si, co, 0.0}, {tilt, 0.0, 1.0}};
    const double centre[3] = {src.w / 2.0, src.h / 2.0, 0.0}, shift[3] = {0.37, -1.21, 0.5};
    for (int r = 0; r < 3; ++r) {
      c[r][3] = centre[r] + shift[r];
      for (int k = 0; k < 3; ++k) c[r][k] = rows[r][k], c[r][3] -= rows[r][k] * centre[k];
    }
  }
  VelStatus run(int code) {
    return callWarp(src.src(), {src.w, src.h, src.d}, src.stepBytes(), srcRoi, dst.dst(),
                    dst.stepBytes(), dstRoi, c, code);
  }

  // The documented walk: positions by repeated addition along lines, line
  // bases along planes, each of `slabs` slabs restarting from its first
  // plane; then the per-voxel rule (`code` after lowering).
  void check(int code, int slabs, const std::string& what) const {
    const int dims = src.d == 1 ? 2 : 3;
    double m[3][4] = {};
    if (dims == 3) {
      ASSERT_TRUE(velr::vol::invertAffine(c, m));
    } else {
      const double block[2][3] = {{c[0][0], c[0][1], c[0][2]}, {c[1][0], c[1][1], c[1][2]}};
      double inv[2][3];
      ASSERT_TRUE(velr::vol::invertPlaneAffine(block, inv));
      for (int r = 0; r < 2; ++r) m[r][0] = inv[r][0], m[r][1] = inv[r][1], m[r][3] = inv[r][2];
    }
    const RefBounds b = {{srcRoi.x, srcRoi.y, srcRoi.z},
                         {srcRoi.x + std::min(srcRoi.width, src.w - srcRoi.x) - 1,
                          srcRoi.y + std::min(srcRoi.height, src.h - srcRoi.y) - 1,
                          srcRoi.z + std::min(srcRoi.depth, src.d - srcRoi.z) - 1}};
    TestVolume<T> want(dst.w, dst.h, dst.d);
    want.copyFrom(before);
    const int depth = dims == 3 ? dstRoi.depth : 1, chunk = depth / slabs;
    for (int t = 0; t < slabs; ++t) {
      const int z0 = (dims == 3 ? dstRoi.z : 0) + t * chunk;
      const int z1 = z0 + chunk - 1 + (t == slabs - 1 ? depth % slabs : 0);
      double planeBase[3] = {0, 0, 0};
      for (int r = 0; r < dims; ++r)
        planeBase[r] = dims == 3 ? (m[r][1] * dstRoi.y + m[r][3]) + m[r][2] * z0
                                 : m[r][1] * dstRoi.y + m[r][3];
      for (int z = z0; z <= z1; ++z) {
        double lineBase[3] = {planeBase[0], planeBase[1], planeBase[2]};
        for (int y = dstRoi.y; y < dstRoi.y + dstRoi.height; ++y) {
          double p[3];
          for (int r = 0; r < 3; ++r) p[r] = m[r][0] * dstRoi.x + lineBase[r];
          for (int x = dstRoi.x; x < dstRoi.x + dstRoi.width; ++x) {
            bool inside = true;
            int i[3] = {0, 0, 0};
            float f[3] = {0, 0, 0};
            for (int a = 0; a < dims && inside; ++a) {
              inside = p[a] >= b.lo[a] && p[a] <= b.hi[a];
              i[a] = inside ? static_cast<int>(code == 1 ? std::nearbyint(p[a]) : p[a]) : 0;
              f[a] = static_cast<float>(p[a]);
            }
            if (inside) want.at(x, y, z) = velr::test::refSample(src, b, dims, code, i, f);
            for (int r = 0; r < 3; ++r) p[r] += m[r][0];
          }
          for (int r = 0; r < 3; ++r) lineBase[r] += m[r][1];
        }
        for (int r = 0; r < 3; ++r) planeBase[r] += m[r][2];
      }
    }
    velr::test::expectSameVoxels(dst, want, what + " code " + std::to_string(code));
  }
};

template <class T>
void matchesWalkOnEveryTarget(VelrVolume sv, VelrCuboid sr, VelrCuboid dr, double degrees,
                              double tilt) {
  const bool planar = sv.depth == 1;
  for (int code : {1, 2, 4, 5, 6, 7}) {
    if (planar && (code == 5 || code == 7)) continue;
    WarpCase<T> w(sv, sr, dr, 200 + code);
    w.rotate(degrees, tilt);
    // The planar path lowers only Lagrange on narrow planes.
    const int want = !planar ? velr::test::loweredCode(code, sv.width, sv.height, sv.depth)
                     : code == 4 && std::min(sv.width, sv.height) < 4 ? 2
                                                                      : code;
    velr::test::forEachTarget([&](const std::string& target) {
      w.dst.copyFrom(w.before);
      ASSERT_EQ(w.run(code), velStsNoErr);
      w.check(want, 1, target);
    });
  }
}

}  // namespace

TEST(WarpAffine, BufferSizeIsZeroAfterItsChecks) {
  const VelrCuboid ok = {0, 0, 0, 4, 4, 4};
  int size = -1;
  EXPECT_EQ(velrWarpAffineGetBufSize({0, -1, 0, 4, 4, 4}, ok, 3, 3, nullptr), velStsNullPtrErr);
  EXPECT_EQ(velrWarpAffineGetBufSize({0, -1, 0, 4, 4, 4}, ok, 3, 3, &size), velStsSizeErr);
  EXPECT_EQ(velrWarpAffineGetBufSize(ok, {0, 0, 0, 4, 0, 4}, 3, 3, &size), velStsSizeErr);
  EXPECT_EQ(velrWarpAffineGetBufSize(ok, ok, 3, 3, &size), velStsNumChannelsErr);
  EXPECT_EQ(velrWarpAffineGetBufSize(ok, ok, 1, 3, &size), velStsInterpolationErr);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(velrWarpAffineGetBufSize(ok, ok, 1, 6, &size), velStsNoErr);
  EXPECT_EQ(size, 0);
}

TEST(WarpAffine, NearlyEqualProductsAndInversion) {
  using velr::vol::nearlyEqualProducts;
  EXPECT_TRUE(nearlyEqualProducts(0.0, 1e-11));
  EXPECT_FALSE(nearlyEqualProducts(1e-201, 2e-10));
  EXPECT_TRUE(nearlyEqualProducts(3.0, 3.0 * (1 + 1e-11)));
  EXPECT_FALSE(nearlyEqualProducts(3.0, 3.0 * (1 + 1e-9)));
  // The inverse undoes random well-conditioned transforms; powers of two
  // invert exactly.
  TestRng rng(7);
  for (int trial = 0; trial < 20; ++trial) {
    Matrix c, m;
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 4; ++k) c[r][k] = rng.uniform(-1, 1) + (r == k ? 3.0 : 0.0);
    ASSERT_TRUE(velr::vol::invertAffine(c, m));
    const double p[3] = {rng.uniform(-50, 50), rng.uniform(-50, 50), rng.uniform(-50, 50)};
    double q[3];
    for (int r = 0; r < 3; ++r) q[r] = c[r][0] * p[0] + c[r][1] * p[1] + c[r][2] * p[2] + c[r][3];
    for (int r = 0; r < 3; ++r)
      EXPECT_NEAR(m[r][0] * q[0] + m[r][1] * q[1] + m[r][2] * q[2] + m[r][3], p[r], 1e-9);
  }
  const Matrix scale = {{2, 0, 0, 4}, {0, 0.5, 0, -1}, {0, 0, 4, 8}};
  Matrix m;
  ASSERT_TRUE(velr::vol::invertAffine(scale, m));
  EXPECT_EQ(m[0][0], 0.5);
  EXPECT_EQ(m[0][3], -2.0);
  EXPECT_EQ(m[1][3], 2.0);
  EXPECT_EQ(m[2][3], -2.0);
}

TEST(WarpAffine, ChecksInOrderLeaveTheDestinationAlone) {
  WarpCase<Vel8u> w({6, 6, 5}, {0, 0, 0, 6, 6, 5}, {0, 0, 0, 5, 5, 4}, 1);
  const auto s = w.src.src();
  const auto d = w.dst.dst();
  const int ss = w.src.stepBytes(), ds = w.dst.stepBytes();
  const VelrVolume sv = {6, 6, 5}, flat = {6, 6, 1};
  const VelrCuboid sr = w.srcRoi, dr = w.dstRoi, bad = {0, 0, 0, 0, 1, 1};
  const Matrix id = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
  const Matrix permutation = {{0, 1, 0, 0}, {0, 0, 1, 0}, {1, 0, 0, 0}};  // zero diagonal
  const Matrix equalRows = {{1, 0, 0, 0}, {0, 1, 2, 0}, {0, 1, 2, 5}};
  const Matrix parallelRows = {{1, 0, 0, 0}, {1, 2, 3, 0}, {-2, -4, -6, 1}};
  const Matrix tinyDet = {{1e-11, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
  EXPECT_EQ(callWarp(s, {6, 6, 0}, ss, bad, nullptr, ds, bad, permutation, 3), velStsNullPtrErr);
  EXPECT_EQ(callWarp(s, {6, 6, 0}, ss, bad, d, ds, bad, permutation, 3), velStsSizeErr);
  EXPECT_EQ(callWarp(s, sv, ss, bad, d, ds, dr, permutation, 3), velStsSizeErr);
  EXPECT_EQ(callWarp(s, sv, ss, sr, d, ds, bad, permutation, 3), velStsSizeErr);
  EXPECT_EQ(callWarp(s, sv, ss, sr, d, ds, dr, permutation, 3), velStsCoeffErr);
  EXPECT_EQ(callWarp(s, sv, ss, sr, d, ds, dr, equalRows, 3), velStsCoeffErr);
  EXPECT_EQ(callWarp(s, sv, ss, sr, d, ds, dr, parallelRows, 3), velStsCoeffErr);
  EXPECT_EQ(callWarp(s, flat, ss, {9, 0, 0, 1, 1, 1}, d, ds, dr, tinyDet, 3),
            velStsInterpolationErr);
  EXPECT_EQ(callWarp(s, sv, ss, {0, 6, 0, 1, 1, 1}, d, ds, dr, tinyDet, 1),
            velStsWrongIntersectVolume);
  // The determinant is looked at only after the early tests have passed.
  EXPECT_EQ(callWarp(s, sv, ss, sr, d, ds, dr, tinyDet, 1), velStsCoeffErr);

  // The planar routine: null plane, codes 5 and 7, its 2 x 2 test, a start
  // off the plane, a clipped region below 2 pixels.
  const Vel8u* nullPlane[1] = {nullptr};
  const Matrix planeSingular = {{1, 2, 0, 0}, {2, 4, 0, 0}, {0, 0, 1, 0}};
  EXPECT_EQ(callWarp(nullPlane, flat, ss, sr, d, ds, dr, id, 5), velStsNullPtrErr);
  EXPECT_EQ(callWarp(s, flat, ss, sr, d, ds, dr, planeSingular, 5), velStsInterpolationErr);
  EXPECT_EQ(callWarp(s, flat, ss, {6, 0, 0, 1, 1, 1}, d, ds, dr, planeSingular, 6), velStsCoeffErr);
  EXPECT_EQ(callWarp(s, flat, ss, {6, 0, 0, 1, 1, 1}, d, ds, dr, id, 6), velStsWrongIntersectRoi);
  EXPECT_EQ(callWarp(s, flat, ss, {5, 0, 0, 3, 3, 1}, d, ds, dr, id, 6), velStsRegionTooSmallErr);
  EXPECT_EQ(callWarp(s, flat, ss, {0, 4, 0, 3, 1, 1}, d, ds, dr, id, 6), velStsRegionTooSmallErr);
  EXPECT_TRUE(w.dst.sameAs(w.before));
}

TEST(WarpAffine, IdentityIntegerScaleAndThePlanarShiftColumn) {
  // Identity, nearest: the source region lands in place; the rest of the
  // destination region falls outside it and keeps its values.
  WarpCase<Vel16u> w({10, 9, 8}, {2, 1, 3, 5, 4, 3}, {0, 0, 0, 10, 9, 8}, 2);
  ASSERT_EQ(w.run(VELR_INTER_NEAREST), velStsNoErr);
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 9; ++y)
      for (int x = 0; x < 10; ++x) {
        const bool in = x >= 2 && x < 7 && y >= 1 && y < 5 && z >= 3 && z < 6;
        ASSERT_EQ(w.dst.at(x, y, z), in ? w.src.at(x, y, z) : w.before.at(x, y, z));
      }
  // Scaling by 2: destination voxel (4, 4, 4) samples source (2, 2, 2).
  WarpCase<Vel32f> s({6, 6, 6}, {0, 0, 0, 6, 6, 6}, {0, 0, 0, 12, 12, 12}, 3);
  s.c[0][0] = s.c[1][1] = s.c[2][2] = 2.0;
  for (int code : {1, 2, 6}) {
    ASSERT_EQ(s.run(code), velStsNoErr);
    EXPECT_EQ(s.dst.at(4, 4, 4), s.src.at(2, 2, 2));
  }
  // One plane: c[0][2] and c[1][2] shift by (2, -1), c[0][3] and c[1][3]
  // are ignored (row 2 still passes the volume checks that come first).
  WarpCase<Vel8u> p({9, 7, 1}, {0, 0, 0, 9, 7, 1}, {0, 0, 0, 12, 8, 1}, 5);
  const Matrix shiftInZColumn = {{1, 0, 2, 50}, {0, 1, -1, 50}, {0, 0, 1, 0}};
  std::copy(&shiftInZColumn[0][0], &shiftInZColumn[0][0] + 12, &p.c[0][0]);
  for (int code : {1, 2, 4, 6}) {
    p.dst.copyFrom(p.before);
    ASSERT_EQ(p.run(code), velStsNoErr);
    TestVolume<Vel8u> want(p.dst.w, p.dst.h, p.dst.d);
    want.copyFrom(p.before);
    for (int y = 0; y < 8; ++y)
      for (int x = 2; x < 11; ++x)
        if (y + 1 < 7) want.at(x, y, 0) = p.src.at(x - 2, y + 1, 0);
    velr::test::expectSameVoxels(p.dst, want, "shift column, code " + std::to_string(code));
  }
}

TEST(WarpAffine, EveryCodeTypeAndTargetMatchesTheDocumentedWalk) {
  const VelrVolume sv = {14, 12, 10};
  matchesWalkOnEveryTarget<Vel8u>(sv, {1, 2, 1, 11, 30, 8}, {2, 1, 1, 37, 12, 5}, 30.0, 0.05);
  matchesWalkOnEveryTarget<Vel16u>(sv, {0, 0, 0, 14, 12, 10}, {0, 0, 2, 33, 11, 6}, -17.0, -0.03);
  matchesWalkOnEveryTarget<Vel32f>(sv, {3, 1, 2, 8, 9, 7}, {1, 2, 0, 35, 13, 9}, 30.0, 0.02);
  // Small sources lower the code as remap does.
  matchesWalkOnEveryTarget<Vel8u>({3, 8, 8}, {0, 0, 0, 3, 8, 8}, {0, 0, 0, 19, 6, 4}, 10.0, 0.0);
  matchesWalkOnEveryTarget<Vel32f>({8, 8, 2}, {0, 0, 0, 8, 8, 2}, {0, 0, 0, 19, 6, 4}, 10.0, 0.0);
  // Planes: the two-axis kernels; a plane 3 wide keeps Catmull-Rom (its taps
  // limited to the plane) and runs Lagrange bilinear.
  matchesWalkOnEveryTarget<Vel16u>({13, 11, 1}, {1, 2, 0, 20, 8, 1}, {0, 1, 0, 29, 12, 1}, 24.0, 0);
  matchesWalkOnEveryTarget<Vel8u>({3, 9, 1}, {0, 0, 0, 3, 9, 1}, {0, 0, 0, 21, 10, 1}, 8.0, 0.0);
}

TEST(WarpAffine, SlabsRestartTheirPlaneSequence) {
  // A tilted rotation on every thread count, each checked against its own
  // slab split.
  WarpCase<Vel32f> w({20, 20, 20}, {0, 0, 0, 20, 20, 20}, {1, 0, 2, 17, 16, 17}, 4);
  w.rotate(23.0, 0.1);
  w.c[2][1] = 0.07;
  // z' = 10 z - 5: the inverse steps 0.1 per plane from 0.5, and the sum of
  // 0.1s reaches 5.5 a rounding step below where a slab's fresh start puts
  // it, so nearest picks plane 5 or 6 depending on the split (5 threads).
  WarpCase<Vel8u> t({8, 8, 8}, {0, 0, 0, 8, 8, 8}, {0, 0, 0, 16, 16, 80}, 5);
  t.c[2][2] = 10.0;
  t.c[2][3] = -5.0;
  velr::test::forEachThreadCount([&](int n) {
    for (int code : {1, 2, 6}) {
      w.dst.copyFrom(w.before);
      ASSERT_EQ(w.run(code), velStsNoErr);
      w.check(code, n, "threads " + std::to_string(n));
    }
    t.dst.copyFrom(t.before);
    ASSERT_EQ(t.run(VELR_INTER_NEAREST), velStsNoErr);
    t.check(VELR_INTER_NEAREST, n, "tenfold z, threads " + std::to_string(n));
  });
}
