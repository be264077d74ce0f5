#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "common/targets.h"
#include "common/threads.h"
#include "sample_reference.h"
#include "velr.h"

namespace {

using velr::test::RefBounds;
using velr::test::TestRng;
using velr::test::TestVolume;

VelStatus callRemap(const Vel8u* const* s, VelrVolume sv, int ss, VelrCuboid roi,
                    const Vel32f* const* const m[3], int ms, Vel8u* const* d, int ds, VelrVolume dv,
                    int code) {
  return velrRemap_8u_C1PV(s, sv, ss, roi, m[0], m[1], m[2], ms, d, ds, dv, code);
}
VelStatus callRemap(const Vel16u* const* s, VelrVolume sv, int ss, VelrCuboid roi,
                    const Vel32f* const* const m[3], int ms, Vel16u* const* d, int ds,
                    VelrVolume dv, int code) {
  return velrRemap_16u_C1PV(s, sv, ss, roi, m[0], m[1], m[2], ms, d, ds, dv, code);
}
VelStatus callRemap(const Vel32f* const* s, VelrVolume sv, int ss, VelrCuboid roi,
                    const Vel32f* const* const m[3], int ms, Vel32f* const* d, int ds,
                    VelrVolume dv, int code) {
  return velrRemap_32f_C1PV(s, sv, ss, roi, m[0], m[1], m[2], ms, d, ds, dv, code);
}

// One remap call: source, coordinate volumes, destination before and after.
template <class T>
struct RemapCase {
  TestVolume<T> src;
  VelrCuboid roi;
  TestVolume<float> map[3];
  TestVolume<T> dst, before;

  RemapCase(VelrVolume sv, VelrCuboid r, VelrVolume dv, uint64_t seed, bool bottomUp = false)
      : src(sv.width, sv.height, sv.depth, 3, bottomUp),
        roi(r),
        map{{dv.width, dv.height, dv.depth, 1},
            {dv.width, dv.height, dv.depth, 1},
            {dv.width, dv.height, dv.depth, 1}},
        dst(dv.width, dv.height, dv.depth, 2, bottomUp),
        before(dv.width, dv.height, dv.depth) {
    TestRng rng(seed);
    src.fillRandom(rng);
    dst.fillRandom(rng);
    before.copyFrom(dst);
  }
  RefBounds bounds() const {
    return {{roi.x, roi.y, roi.z},
            {roi.x + std::min(roi.width, src.w - roi.x) - 1,
             roi.y + std::min(roi.height, src.h - roi.y) - 1,
             roi.z + std::min(roi.depth, src.d - roi.z) - 1}};
  }
  VelStatus run(int code, int mapStep = -1) {
    const Vel32f* const* m[3] = {map[0].src(), map[1].src(), map[2].src()};
    return callRemap(src.src(), {src.w, src.h, src.d}, src.stepBytes(), roi, m,
                     mapStep < 0 ? map[0].stepBytes() : mapStep, dst.dst(), dst.stepBytes(),
                     {dst.w, dst.h, dst.d}, code);
  }
  void at(int k, float x, float y, float z) {
    map[0].at(k, 0, 0) = x, map[1].at(k, 0, 0) = y, map[2].at(k, 0, 0) = z;
  }

  // Whole lines well inside the region (the in-range vector path) alternate
  // with lines of bounds, values just past them, halves, integers, the
  // volume's first voxels and NaN.
  void randomPositions(uint64_t seed) {
    TestRng rng(seed);
    const RefBounds b = bounds();
    for (int z = 0; z < dst.d; ++z)
      for (int y = 0; y < dst.h; ++y) {
        const bool inner = velr::test::below(rng, 2) == 0;
        for (int x = 0; x < dst.w; ++x)
          for (int a = 0; a < 3; ++a) {
            const double lo = b.lo[a], hi = b.hi[a];
            double p = rng.uniform(lo - 1.5, hi + 1.5);
            if (inner && hi - lo >= 4) {
              p = rng.uniform(lo + 1.0, hi - 1.01);
            } else if (const int pick = velr::test::below(rng, 12); pick < 7) {
              const double picks[7] = {lo,
                                       hi,
                                       std::nextafter(static_cast<float>(hi), 1e9f),
                                       std::nextafter(static_cast<float>(lo), -1e9f),
                                       std::floor(rng.uniform(lo, hi + 1)) + 0.5,
                                       std::floor(rng.uniform(lo, hi + 1)),
                                       rng.uniform(0.0, 2.0)};
              p = picks[pick];
            } else if (pick == 7 && velr::test::below(rng, 4) == 0) {
              p = std::numeric_limits<double>::quiet_NaN();
            }
            map[a].at(x, y, z) = static_cast<float>(p);
          }
      }
  }

  // The per-voxel rule; `code` is the code after lowering. Planar sources
  // round nearest positions half up, volumes half to even.
  void check(int code, const std::string& what) const {
    const RefBounds b = bounds();
    const int dims = src.d == 1 ? 2 : 3;
    TestVolume<T> want(dst.w, dst.h, dims == 2 ? 1 : dst.d);
    for (int z = 0; z < want.d; ++z)
      for (int y = 0; y < dst.h; ++y)
        for (int x = 0; x < dst.w; ++x) {
          const float p[3] = {map[0].at(x, y, z), map[1].at(x, y, z), map[2].at(x, y, z)};
          bool inside = true;
          int i[3] = {0, 0, 0};
          for (int a = 0; a < dims; ++a) {
            inside = inside && p[a] >= static_cast<float>(b.lo[a]) &&
                     p[a] <= static_cast<float>(b.hi[a]);
            if (!inside) break;
            i[a] = code != VELR_INTER_NEAREST ? static_cast<int>(p[a])
                   : dims == 2                ? static_cast<int>(p[a] + 0.5f)
                                              : static_cast<int>(std::nearbyint(p[a]));
          }
          want.at(x, y, z) =
              inside ? velr::test::refSample(src, b, dims, code, i, p) : before.at(x, y, z);
        }
    velr::test::expectSameVoxels(dst, want, what + " code " + std::to_string(code));
    if (dims == 2)  // only plane 0 is written
      for (int z = 1; z < dst.d; ++z)
        for (int y = 0; y < dst.h; ++y)
          ASSERT_EQ(std::memcmp(dst.line(y, z), before.line(y, z), sizeof(T) * dst.w), 0);
  }
};

struct Scenario {
  VelrVolume src;
  VelrCuboid roi;
  VelrVolume dst;
  bool bottomUp;
};

template <class T>
void matchesReferenceOnEveryTarget(const Scenario& sc) {
  const bool planar = sc.src.depth == 1;
  for (int code : {1, 2, 4, 5, 6, 7}) {
    if (planar && (code == 5 || code == 7)) continue;
    RemapCase<T> c(sc.src, sc.roi, sc.dst, 17 + code, sc.bottomUp);
    c.randomPositions(100 + code);
    int want = velr::test::loweredCode(code, sc.src.width, sc.src.height, sc.src.depth);
    if (planar) {
      const int m = std::min(sc.src.width, sc.src.height);
      want = m == 1 ? 1 : (m < 4 && code >= 4 ? 2 : code);
    }
    velr::test::forEachTarget([&](const std::string& target) {
      c.dst.copyFrom(c.before);
      ASSERT_EQ(c.run(code), velStsNoErr);
      c.check(want, target);
    });
  }
}

}  // namespace

TEST(Remap, EveryCodeTypeAndTargetMatchesThePerVoxelRule) {
  const Scenario scenarios[] = {
      // A region inside the volume: taps reach past its start and stop at
      // its clipped end. One at the origin: taps repeat index 0.
      {{13, 9, 8}, {2, 1, 1, 40, 6, 5}, {37, 5, 3}, false},
      {{13, 9, 8}, {0, 0, 0, 9, 9, 8}, {37, 5, 3}, true},  // negative line steps
      // Small sources lower the code: four-tap to trilinear below 4 voxels,
      // anything to nearest below 2.
      {{3, 9, 8}, {0, 0, 0, 3, 9, 8}, {21, 4, 3}, false},
      {{9, 1, 5}, {0, 0, 0, 9, 1, 5}, {21, 4, 3}, false},
      // Regions one voxel wide at index 0: the two-tap cell reaches index -1
      // with weight 0 and must not read there.
      {{8, 8, 8}, {0, 3, 2, 1, 3, 3}, {20, 3, 2}, false},
      {{8, 8, 8}, {3, 0, 0, 3, 1, 1}, {20, 3, 2}, false},
      // Planar sources: the two-axis kernels, codes 1, 2, 4 and 6, with
      // their own lowering (a plane 3 wide, a plane 1 high).
      {{12, 10, 1}, {1, 2, 0, 20, 6, 1}, {23, 6, 2}, false},
      {{3, 7, 1}, {0, 0, 0, 3, 7, 1}, {19, 3, 1}, false},
      {{7, 1, 1}, {0, 0, 0, 7, 1, 1}, {19, 3, 1}, false},
  };
  for (const Scenario& sc : scenarios) {
    matchesReferenceOnEveryTarget<Vel8u>(sc);
    matchesReferenceOnEveryTarget<Vel16u>(sc);
    matchesReferenceOnEveryTarget<Vel32f>(sc);
  }
}

// Properties that hold whatever the reference says.
TEST(Remap, FourTapPropertiesAndSaturation) {
  // Lagrange at a whole position is the sample itself; a constant volume
  // stays constant under the B-spline (its weights sum to 1).
  RemapCase<Vel8u> k({8, 8, 8}, {0, 0, 0, 8, 8, 8}, {3, 1, 1}, 10);
  RemapCase<Vel32f> f({8, 8, 8}, {0, 0, 0, 8, 8, 8}, {2, 1, 1}, 10);
  k.at(0, 3.0f, 4.0f, 5.0f);
  ASSERT_EQ(k.run(VELR_INTER_CUBIC_LAGRANGE), velStsNoErr);
  EXPECT_EQ(k.dst.at(0, 0, 0), k.src.at(3, 4, 5));
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) k.src.at(x, y, z) = 200;
  for (int i = 0; i < 3; ++i) k.at(i, 2.3f + i, 3.7f, 4.1f);
  ASSERT_EQ(k.run(VELR_INTER_BSPLINE), velStsNoErr);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(k.dst.at(i, 0, 0), 200);

  // Catmull-Rom overshoot on a step: 8-bit results saturate both ways,
  // floats keep it.
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) {
        k.src.at(x, y, z) = x < 4 ? 0 : 255;
        f.src.at(x, y, z) = x < 4 ? 0.0f : 255.0f;
      }
  k.at(0, 4.4f, 3.0f, 3.0f), f.at(0, 4.4f, 3.0f, 3.0f);  // just past the step
  k.at(1, 2.6f, 3.0f, 3.0f), f.at(1, 2.6f, 3.0f, 3.0f);  // just before it
  ASSERT_EQ(k.run(VELR_INTER_CATMULL_ROM), velStsNoErr);
  ASSERT_EQ(f.run(VELR_INTER_CATMULL_ROM), velStsNoErr);
  EXPECT_EQ(k.dst.at(0, 0, 0), 255);
  EXPECT_EQ(k.dst.at(1, 0, 0), 0);
  EXPECT_GT(f.dst.at(0, 0, 0), 255.0f);
  EXPECT_LT(f.dst.at(1, 0, 0), 0.0f);
}

TEST(Remap, ChecksInOrderLeaveTheDestinationAlone) {
  RemapCase<Vel16u> c({6, 5, 4}, {0, 0, 0, 6, 5, 4}, {5, 4, 3}, 11);
  c.randomPositions(12);
  const auto s = c.src.src();
  const auto d = c.dst.dst();
  const Vel32f* const* m[3] = {c.map[0].src(), c.map[1].src(), c.map[2].src()};
  const Vel32f* const* noZ[3] = {m[0], m[1], nullptr};
  const int ss = c.src.stepBytes(), ms = c.map[0].stepBytes(), ds = c.dst.stepBytes();
  const VelrVolume sv = {6, 5, 4}, dv = {5, 4, 3}, bad = {6, 0, 4}, flat = {6, 5, 1};
  const VelrCuboid roi = c.roi;
  // Each call fails the named check while every later check would fail too.
  EXPECT_EQ(callRemap(s, bad, ss, roi, m, ms, nullptr, ds, dv, 3), velStsNullPtrErr);
  EXPECT_EQ(callRemap(s, bad, ss, roi, noZ, ms, d, ds, dv, 3), velStsNullPtrErr);
  EXPECT_EQ(callRemap(s, bad, ss, {0, 0, -1, 1, 1, 1}, m, ms, d, ds, {0, 1, 1}, 3), velStsSizeErr);
  EXPECT_EQ(callRemap(s, sv, ss, {0, 0, 0, 1, 1, 0}, m, ms, d, ds, {0, 1, 1}, 3), velStsSizeErr);
  EXPECT_EQ(callRemap(s, sv, ss, roi, m, ms, d, ds, {1, 1, 0}, 3), velStsSizeErr);
  for (int code : {0, 3, 8, 16, -1, INT32_MIN + 1})  // before the planar hand-off
    EXPECT_EQ(callRemap(s, flat, ss, {9, 0, 0, 1, 1, 1}, m, 0, d, ds, dv, code),
              velStsInterpolationErr);
  EXPECT_EQ(callRemap(s, sv, ss, {6, 0, 0, 1, 1, 1}, m, ms, d, ds, dv, 1),
            velStsWrongIntersectVolume);
  EXPECT_EQ(callRemap(s, sv, ss, {0, 0, 4, 1, 1, 1}, m, ms, d, ds, dv, 1),
            velStsWrongIntersectVolume);

  // The planar routine: its null planes, codes 5 and 7, steps below 1, a
  // start off the plane (+29 where a volume gives +40); the region's z is
  // not looked at.
  const Vel16u* nullPlane[1] = {nullptr};
  EXPECT_EQ(callRemap(nullPlane, flat, ss, roi, m, ms, d, ds, dv, 5), velStsNullPtrErr);
  for (int code : {5, 7})
    EXPECT_EQ(callRemap(s, flat, 0, roi, m, ms, d, ds, dv, code), velStsInterpolationErr);
  EXPECT_EQ(callRemap(s, flat, ss, {6, 0, 0, 1, 1, 1}, m, 0, d, ds, dv, 6), velStsStepErr);
  EXPECT_EQ(callRemap(s, flat, -ss, roi, m, ms, d, ds, dv, 1), velStsStepErr);
  EXPECT_EQ(callRemap(s, flat, ss, roi, m, ms, d, 0, dv, 1), velStsStepErr);
  EXPECT_EQ(callRemap(s, flat, ss, {6, 0, 0, 1, 1, 1}, m, ms, d, ds, dv, 1),
            velStsWrongIntersectRoi);
  EXPECT_EQ(callRemap(s, flat, ss, {0, 5, 0, 1, 1, 1}, m, ms, d, ds, dv, 1),
            velStsWrongIntersectRoi);
  EXPECT_TRUE(c.dst.sameAs(c.before));
  EXPECT_EQ(callRemap(s, flat, ss, {0, 0, 7, 1, 1, 1}, m, ms, d, ds, dv, 1), velStsNoErr);
  // Steps are not checked on the volume path.
  EXPECT_EQ(c.run(VELR_INTER_NEAREST, 0), velStsNoErr);
}

TEST(Remap, ThreadCountsGiveIdenticalResults) {
  RemapCase<Vel16u> c({24, 20, 19}, {0, 0, 0, 24, 20, 19}, {16, 16, 17}, 21);
  c.randomPositions(22);
  for (int code : {2, 6}) {
    velr::test::forEachThreadCount([&](int n) {
      c.dst.copyFrom(c.before);
      ASSERT_EQ(c.run(code), velStsNoErr);
      c.check(code, "threads " + std::to_string(n));
    });
  }
}
