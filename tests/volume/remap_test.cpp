#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "common/targets.h"
#include "common/threads.h"
#include "sample_reference.h"
#include "velcore.h"
#include "velr.h"

namespace {

using velr::test::RefBounds;
using velr::test::TestRng;
using velr::test::TestVolume;

VelStatus callRemap(const Vel8u* const* s, VelrVolume sv, int ss, VelrCuboid roi,
                    const Vel32f* const* mx, const Vel32f* const* my, const Vel32f* const* mz,
                    int ms, Vel8u* const* d, int ds, VelrVolume dv, int code) {
  return velrRemap_8u_C1PV(s, sv, ss, roi, mx, my, mz, ms, d, ds, dv, code);
}
VelStatus callRemap(const Vel16u* const* s, VelrVolume sv, int ss, VelrCuboid roi,
                    const Vel32f* const* mx, const Vel32f* const* my, const Vel32f* const* mz,
                    int ms, Vel16u* const* d, int ds, VelrVolume dv, int code) {
  return velrRemap_16u_C1PV(s, sv, ss, roi, mx, my, mz, ms, d, ds, dv, code);
}
VelStatus callRemap(const Vel32f* const* s, VelrVolume sv, int ss, VelrCuboid roi,
                    const Vel32f* const* mx, const Vel32f* const* my, const Vel32f* const* mz,
                    int ms, Vel32f* const* d, int ds, VelrVolume dv, int code) {
  return velrRemap_32f_C1PV(s, sv, ss, roi, mx, my, mz, ms, d, ds, dv, code);
}

// One remap call with its inputs, the destination before it, and a check of
// every destination voxel against the reference.
template <class T>
struct RemapCase {
  TestVolume<T> src;
  VelrCuboid roi;
  TestVolume<float> mx, my, mz;
  TestVolume<T> dst, before;

  RemapCase(VelrVolume sv, VelrCuboid r, VelrVolume dv, uint64_t seed, bool bottomUp = false)
      : src(sv.width, sv.height, sv.depth, 3, bottomUp),
        roi(r),
        mx(dv.width, dv.height, dv.depth, 1),
        my(dv.width, dv.height, dv.depth, 1),
        mz(dv.width, dv.height, dv.depth, 1),
        dst(dv.width, dv.height, dv.depth, 2, bottomUp),
        before(dv.width, dv.height, dv.depth, 2) {
    TestRng rng(seed);
    src.fillRandom(rng);
    dst.fillRandom(rng);
    copyDst(before, dst);
  }
  static void copyDst(TestVolume<T>& to, const TestVolume<T>& from) {
    for (int z = 0; z < from.d; ++z)
      for (int y = 0; y < from.h; ++y)
        for (int x = 0; x < from.w; ++x) to.at(x, y, z) = from.at(x, y, z);
  }
  void restore() { copyDst(dst, before); }

  VelrVolume srcVolume() const { return {src.w, src.h, src.d}; }
  VelrVolume dstVolume() const { return {dst.w, dst.h, dst.d}; }
  RefBounds bounds() const {
    return {{roi.x, roi.y, roi.z},
            {roi.x + std::min(roi.width, src.w - roi.x) - 1,
             roi.y + std::min(roi.height, src.h - roi.y) - 1,
             roi.z + std::min(roi.depth, src.d - roi.z) - 1}};
  }
  int dims() const { return src.d == 1 ? 2 : 3; }

  VelStatus run(int code) {
    return callRemap(src.src(), srcVolume(), src.stepBytes(), roi, mx.src(), my.src(), mz.src(),
                     mx.stepBytes(), dst.dst(), dst.stepBytes(), dstVolume(), code);
  }

  // Positions: whole lines well inside the region (the in-range vector
  // path) alternate with lines of bounds, values just past them, halves,
  // integers, the volume's first voxels and NaN.
  void randomPositions(uint64_t seed) {
    TestRng rng(seed);
    const RefBounds b = bounds();
    TestVolume<float>* maps[3] = {&mx, &my, &mz};
    for (int z = 0; z < dst.d; ++z)
      for (int y = 0; y < dst.h; ++y) {
        const bool inner = rng.below(2) == 0;
        for (int x = 0; x < dst.w; ++x)
          for (int a = 0; a < 3; ++a) {
            const double lo = b.lo[a], hi = b.hi[a];
            float p;
            if (inner && hi - lo >= 4) {
              p = static_cast<float>(rng.uniform(lo + 1.0, hi - 1.01));
            } else {
              switch (rng.below(10)) {
                case 0: p = static_cast<float>(lo); break;
                case 1: p = static_cast<float>(hi); break;
                case 2: p = std::nextafter(static_cast<float>(hi), 1e9f); break;
                case 3: p = std::nextafter(static_cast<float>(lo), -1e9f); break;
                case 4: p = static_cast<float>(std::floor(rng.uniform(lo, hi + 1)) + 0.5); break;
                case 5: p = static_cast<float>(std::floor(rng.uniform(lo, hi + 1))); break;
                case 6: p = static_cast<float>(rng.uniform(0.0, 2.0)); break;
                case 7: p = rng.below(8) == 0 ? std::numeric_limits<float>::quiet_NaN()
                                              : static_cast<float>(rng.uniform(lo, hi));
                        break;
                default: p = static_cast<float>(rng.uniform(lo - 1.5, hi + 1.5)); break;
              }
            }
            maps[a]->at(x, y, z) = p;
          }
      }
  }

  // `code` is the code after lowering; planar nearest rounds halves up.
  void expectMatchesReference(int code, const std::string& what) {
    const RefBounds b = bounds();
    const int dims = this->dims();
    int mismatches = 0;
    for (int z = 0; z < dst.d; ++z)
      for (int y = 0; y < dst.h; ++y)
        for (int x = 0; x < dst.w; ++x) {
          const float p[3] = {mx.at(x, y, z), my.at(x, y, z), mz.at(x, y, z)};
          bool inside = true;
          for (int a = 0; a < dims; ++a)
            inside = inside && p[a] >= static_cast<float>(b.lo[a]) &&
                     p[a] <= static_cast<float>(b.hi[a]);
          T want = before.at(x, y, z);
          if (inside) {
            int i[3] = {0, 0, 0};
            for (int a = 0; a < dims; ++a) {
              if (code != VELR_INTER_NEAREST)
                i[a] = static_cast<int>(p[a]);
              else if (dims == 2)
                i[a] = static_cast<int>(p[a] + 0.5f);
              else
                i[a] = static_cast<int>(std::nearbyint(p[a]));
            }
            want = velr::test::refSample(src, b, dims, code, i, p);
          }
          const T got = dst.at(x, y, z);
          if (std::memcmp(&got, &want, sizeof(T)) != 0 && ++mismatches <= 5)
            ADD_FAILURE() << what << " code " << code << " at (" << x << "," << y << "," << z
                          << ") pos (" << p[0] << "," << p[1] << "," << p[2] << "): got "
                          << +got << " want " << +want;
        }
    EXPECT_EQ(mismatches, 0) << what;
  }
};

int lowered(int code, VelrVolume v) {
  const int m = std::min({v.width, v.height, v.depth});
  if (m >= 4) return code;
  if (code >= 4) code = 2;
  return m < 2 ? 1 : code;
}

template <class T>
void remapAllCodesAllTargets(VelrVolume sv, VelrCuboid roi, VelrVolume dv, bool bottomUp) {
  for (int code : {1, 2, 4, 5, 6, 7}) {
    RemapCase<T> c(sv, roi, dv, 17 + code, bottomUp);
    c.randomPositions(100 + code);
    velr::test::forEachTarget([&](const std::string& target) {
      c.restore();
      ASSERT_EQ(c.run(code), velStsNoErr);
      c.expectMatchesReference(lowered(code, sv), target);
    });
  }
}

}  // namespace

TEST(Remap, EveryCodeAndTypeMatchesThePerVoxelRuleOnEveryTarget) {
  // A region inside the volume (taps reach past its start and stop at its
  // clipped end), and one at the volume's origin (taps repeat index 0).
  const VelrVolume sv = {13, 9, 8};
  const VelrVolume dv = {37, 5, 3};
  for (const VelrCuboid roi : {VelrCuboid{2, 1, 1, 40, 6, 5}, VelrCuboid{0, 0, 0, 9, 9, 8}}) {
    remapAllCodesAllTargets<Vel8u>(sv, roi, dv, false);
    remapAllCodesAllTargets<Vel16u>(sv, roi, dv, false);
    remapAllCodesAllTargets<Vel32f>(sv, roi, dv, false);
  }
  // Negative line steps are used as given.
  remapAllCodesAllTargets<Vel16u>(sv, {1, 2, 0, 10, 5, 8}, dv, true);
}

TEST(Remap, SmallSourcesLowerTheCode) {
  // 3 voxels wide: four-tap codes run trilinear; 1 line high: nearest. The
  // reference is told the lowered code, so any other kernel shows up.
  remapAllCodesAllTargets<Vel8u>({3, 9, 8}, {0, 0, 0, 3, 9, 8}, {21, 4, 3}, false);
  remapAllCodesAllTargets<Vel32f>({9, 1, 5}, {0, 0, 0, 9, 1, 5}, {21, 4, 3}, false);
  remapAllCodesAllTargets<Vel16u>({5, 6, 2}, {1, 1, 0, 4, 4, 2}, {21, 4, 3}, false);
}

TEST(Remap, OneVoxelRegionsAtTheOriginNeverReadOutsideTheVolume) {
  // The two-tap cell of a region ending at 0 reaches index -1 on that axis
  // with weight 0: the result is the sample itself on every axis.
  for (const VelrCuboid roi : {VelrCuboid{0, 3, 2, 1, 3, 3}, VelrCuboid{3, 0, 2, 3, 1, 3},
                               VelrCuboid{3, 3, 0, 3, 3, 1}, VelrCuboid{0, 0, 0, 1, 1, 1}}) {
    RemapCase<Vel32f> c({8, 8, 8}, roi, {20, 3, 2}, 5);
    c.randomPositions(6);
    velr::test::forEachTarget([&](const std::string& target) {
      c.restore();
      ASSERT_EQ(c.run(VELR_INTER_LINEAR), velStsNoErr);
      c.expectMatchesReference(VELR_INTER_LINEAR, target);
    });
  }
}

TEST(Remap, BoundsRoundingAndSaturation) {
  RemapCase<Vel8u> c({8, 6, 5}, {1, 1, 1, 6, 4, 3}, {4, 1, 1}, 9);
  for (int x = 0; x < 8; ++x) c.src.at(x, 2, 2) = static_cast<Vel8u>(10 * x);
  auto at = [&](int k, float x, float y, float z) {
    c.mx.at(k, 0, 0) = x, c.my.at(k, 0, 0) = y, c.mz.at(k, 0, 0) = z;
  };
  // On xMax (6) the sample, a little above it untouched, halves to even.
  at(0, 6.0f, 2.0f, 2.0f);
  at(1, std::nextafter(6.0f, 7.0f), 2.0f, 2.0f);
  at(2, 2.5f, 2.0f, 2.0f);
  at(3, 3.5f, 2.0f, 2.0f);
  const Vel8u old = c.before.at(1, 0, 0);
  ASSERT_EQ(c.run(VELR_INTER_NEAREST), velStsNoErr);
  EXPECT_EQ(c.dst.at(0, 0, 0), 60);
  EXPECT_EQ(c.dst.at(1, 0, 0), old);
  EXPECT_EQ(c.dst.at(2, 0, 0), 20);
  EXPECT_EQ(c.dst.at(3, 0, 0), 40);
  c.restore();
  ASSERT_EQ(c.run(VELR_INTER_LINEAR), velStsNoErr);
  EXPECT_EQ(c.dst.at(0, 0, 0), 60);  // fraction 1.0 on the stepped-back cell

  // Four-tap results: a constant volume stays constant under the B-spline
  // (weights sum to 1); Lagrange at a whole position is the centre sample;
  // Catmull-Rom overshoot on a step saturates both ways.
  RemapCase<Vel8u> k({8, 8, 8}, {0, 0, 0, 8, 8, 8}, {3, 1, 1}, 10);
  k.src.fill(200);
  for (int i = 0; i < 3; ++i) k.mx.at(i, 0, 0) = 2.3f + i, k.my.at(i, 0, 0) = 3.7f, k.mz.at(i, 0, 0) = 4.1f;
  ASSERT_EQ(k.run(VELR_INTER_BSPLINE), velStsNoErr);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(k.dst.at(i, 0, 0), 200);
  TestRng rng(3);
  k.src.fillRandom(rng);
  k.mx.at(0, 0, 0) = 3.0f, k.my.at(0, 0, 0) = 4.0f, k.mz.at(0, 0, 0) = 5.0f;
  ASSERT_EQ(k.run(VELR_INTER_CUBIC_LAGRANGE), velStsNoErr);
  EXPECT_EQ(k.dst.at(0, 0, 0), k.src.at(3, 4, 5));

  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) k.src.at(x, y, z) = x < 4 ? 0 : 255;
  k.mx.at(0, 0, 0) = 4.4f;  // just past the step: the float sum exceeds 255
  k.mx.at(1, 0, 0) = 2.6f;  // just before it: the sum is below 0
  for (int i = 0; i < 2; ++i) k.my.at(i, 0, 0) = 3.0f, k.mz.at(i, 0, 0) = 3.0f;
  ASSERT_EQ(k.run(VELR_INTER_CATMULL_ROM), velStsNoErr);
  EXPECT_EQ(k.dst.at(0, 0, 0), 255);
  EXPECT_EQ(k.dst.at(1, 0, 0), 0);
  RemapCase<Vel32f> f({8, 8, 8}, {0, 0, 0, 8, 8, 8}, {2, 1, 1}, 10);
  for (int z = 0; z < 8; ++z)
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) f.src.at(x, y, z) = x < 4 ? 0.0f : 255.0f;
  for (int i = 0; i < 2; ++i)
    f.mx.at(i, 0, 0) = i == 0 ? 4.4f : 2.6f, f.my.at(i, 0, 0) = 3.0f, f.mz.at(i, 0, 0) = 3.0f;
  ASSERT_EQ(f.run(VELR_INTER_CATMULL_ROM), velStsNoErr);
  EXPECT_GT(f.dst.at(0, 0, 0), 255.0f);  // floats keep the overshoot
  EXPECT_LT(f.dst.at(1, 0, 0), 0.0f);
}

TEST(Remap, ChecksInOrderLeaveTheDestinationAlone) {
  RemapCase<Vel16u> c({6, 5, 4}, {0, 0, 0, 6, 5, 4}, {5, 4, 3}, 11);
  c.randomPositions(12);
  const auto sv = c.srcVolume();
  const auto dv = c.dstVolume();
  const int ms = c.mx.stepBytes(), ss = c.src.stepBytes(), ds = c.dst.stepBytes();
  const auto src = c.src.src();
  const auto mx = c.mx.src(), my = c.my.src(), mz = c.mz.src();
  const auto dst = c.dst.dst();
  const VelrCuboid roi = c.roi;
  const VelrVolume bad = {6, 0, 4};
  // Each call fails the named check while every later check would fail too.
  EXPECT_EQ(callRemap(nullptr, bad, ss, roi, nullptr, my, mz, ms, dst, ds, dv, 3), velStsNullPtrErr);
  EXPECT_EQ(callRemap(src, bad, ss, roi, mx, my, nullptr, ms, dst, ds, dv, 3), velStsNullPtrErr);
  EXPECT_EQ(callRemap(src, bad, ss, {0, 0, -1, 1, 1, 1}, mx, my, mz, ms, dst, ds, dv, 3),
            velStsSizeErr);
  EXPECT_EQ(callRemap(src, sv, ss, {0, 0, 0, 1, 1, 0}, mx, my, mz, ms, dst, ds, {0, 1, 1}, 3),
            velStsSizeErr);
  EXPECT_EQ(callRemap(src, sv, ss, roi, mx, my, mz, ms, dst, ds, {1, 1, 0}, 3), velStsSizeErr);
  for (int code : {0, 3, 8, 16, -1, INT32_MIN + 1})
    EXPECT_EQ(callRemap(src, {6, 5, 1}, ss, {9, 0, 0, 1, 1, 1}, mx, my, mz, 0, dst, ds, dv, code),
              velStsInterpolationErr);
  EXPECT_EQ(callRemap(src, sv, ss, {6, 0, 0, 1, 1, 1}, mx, my, mz, ms, dst, ds, dv, 1),
            velStsWrongIntersectVolume);
  EXPECT_EQ(callRemap(src, sv, ss, {0, 0, 4, 1, 1, 1}, mx, my, mz, ms, dst, ds, dv, 1),
            velStsWrongIntersectVolume);
  // Steps are not checked on the volume path.
  EXPECT_EQ(callRemap(src, sv, ss, {0, 0, 3, 1, 1, 1}, mx, my, mz, 0, dst, ds, dv, 1), velStsNoErr);
  c.restore();

  // A one-plane source goes to the planar routine and its own checks.
  const VelrVolume flat = {6, 5, 1};
  const Vel16u* nullPlane[1] = {nullptr};
  EXPECT_EQ(callRemap(nullPlane, flat, ss, roi, mx, my, mz, ms, dst, ds, dv, 5), velStsNullPtrErr);
  EXPECT_EQ(callRemap(src, flat, ss, roi, mx, my, nullptr, ms, dst, ds, dv, 1), velStsNullPtrErr);
  for (int code : {5, 7})
    EXPECT_EQ(callRemap(src, flat, 0, roi, mx, my, mz, ms, dst, ds, dv, code),
              velStsInterpolationErr);
  EXPECT_EQ(callRemap(src, flat, ss, {6, 0, 0, 1, 1, 1}, mx, my, mz, 0, dst, ds, dv, 6),
            velStsStepErr);
  EXPECT_EQ(callRemap(src, flat, -ss, roi, mx, my, mz, ms, dst, ds, dv, 1), velStsStepErr);
  EXPECT_EQ(callRemap(src, flat, ss, roi, mx, my, mz, ms, dst, 0, dv, 1), velStsStepErr);
  EXPECT_EQ(callRemap(src, flat, ss, {6, 0, 0, 1, 1, 1}, mx, my, mz, ms, dst, ds, dv, 1),
            velStsWrongIntersectRoi);
  EXPECT_EQ(callRemap(src, flat, ss, {0, 5, 0, 1, 1, 1}, mx, my, mz, ms, dst, ds, dv, 1),
            velStsWrongIntersectRoi);
  // The region's z is not looked at by the planar routine.
  EXPECT_EQ(callRemap(src, flat, ss, {0, 0, 7, 1, 1, 1}, mx, my, mz, ms, dst, ds, dv, 1),
            velStsNoErr);
  c.restore();
  EXPECT_TRUE(c.dst.sameAs(c.before));
}

TEST(Remap, PlanarSourcesUseTheTwoAxisKernels) {
  // Codes 1, 2, 4, 6 on one plane; only destination plane 0 is written, and
  // nearest rounds halves up there.
  for (int code : {1, 2, 4, 6}) {
    RemapCase<Vel8u> c({12, 10, 1}, {1, 2, 0, 20, 6, 1}, {23, 6, 2}, 30 + code);
    c.randomPositions(40 + code);
    velr::test::forEachTarget([&](const std::string& target) {
      c.restore();
      ASSERT_EQ(c.run(code), velStsNoErr);
      for (int y = 0; y < c.dst.h; ++y)
        for (int x = 0; x < c.dst.w; ++x) {
          EXPECT_EQ(c.dst.at(x, y, 1), c.before.at(x, y, 1));
        }
      c.dst.d = 1;  // compare plane 0 only
      c.expectMatchesReference(code, target);
      c.dst.d = 2;
    });
  }
  RemapCase<Vel32f> half({6, 4, 1}, {0, 0, 0, 6, 4, 1}, {2, 1, 1}, 50);
  half.mx.at(0, 0, 0) = 2.5f, half.my.at(0, 0, 0) = 1.0f;
  half.mx.at(1, 0, 0) = 3.5f, half.my.at(1, 0, 0) = 1.0f;
  ASSERT_EQ(half.run(VELR_INTER_NEAREST), velStsNoErr);
  EXPECT_EQ(half.dst.at(0, 0, 0), half.src.at(3, 1, 0));
  EXPECT_EQ(half.dst.at(1, 0, 0), half.src.at(4, 1, 0));
  // A plane narrower than 4 runs four-tap codes bilinear, one pixel high
  // nearest.
  for (int code : {4, 6}) {
    RemapCase<Vel16u> c({3, 7, 1}, {0, 0, 0, 3, 7, 1}, {19, 3, 1}, 60 + code);
    c.randomPositions(70 + code);
    ASSERT_EQ(c.run(code), velStsNoErr);
    c.expectMatchesReference(VELR_INTER_LINEAR, "narrow plane");
    RemapCase<Vel16u> l({7, 1, 1}, {0, 0, 0, 7, 1, 1}, {19, 3, 1}, 80 + code);
    l.randomPositions(90 + code);
    ASSERT_EQ(l.run(code), velStsNoErr);
    l.expectMatchesReference(VELR_INTER_NEAREST, "one line");
  }
}

TEST(Remap, ThreadCountsGiveIdenticalResults) {
  RemapCase<Vel16u> c({24, 20, 19}, {0, 0, 0, 24, 20, 19}, {16, 16, 17}, 21);
  c.randomPositions(22);
  for (int code : {2, 6}) {
    velr::test::forEachThreadCount([&](int n) {
      c.restore();
      ASSERT_EQ(c.run(code), velStsNoErr);
      c.expectMatchesReference(code, "threads " + std::to_string(n));
    });
  }
}
