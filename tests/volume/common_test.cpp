#include "volume/common.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "velr.h"
#include "volume/kernels.h"

using velr::vol::cubicKernel;

namespace {

constexpr VelrCuboid kSentinel = {-7, -7, -7, -7, -7, -7};

bool same(const VelrCuboid& a, const VelrCuboid& b) {
  return a.x == b.x && a.y == b.y && a.z == b.z && a.width == b.width && a.height == b.height &&
         a.depth == b.depth;
}

VelStatus cuboid(VelrCuboid src, VelrCuboid* out, double f, double h, int code = 1) {
  return velrGetResizeCuboid(src, out, f, f, f, h, h, h, code);
}

}  // namespace

TEST(VolumeAddressing, ByteStepsBecomeElementsByArithmeticShift) {
  EXPECT_EQ(velr::vol::elementStep<Vel8u>(7), 7);
  EXPECT_EQ(velr::vol::elementStep<Vel16u>(7), 3);  // odd steps round down
  EXPECT_EQ(velr::vol::elementStep<Vel16u>(-7), -4);
  EXPECT_EQ(velr::vol::elementStep<Vel32f>(15), 3);
  EXPECT_EQ(velr::vol::elementStep<Vel32f>(-15), -4);
}

TEST(VolumeAddressing, ContiguousAndPlanarAgreeAndOffsetsUse64Bits) {
  float data[4 * 3 * 5];
  const float* planes[5];
  for (int z = 0; z < 5; ++z) planes[z] = data + z * 12;
  const auto v = velr::vol::VolumeRef<const float>::contiguous(data, 4 * 4, 12 * 4);
  const auto pv = velr::vol::VolumeRef<const float>::planar(planes, 4 * 4);
  for (int z = 0; z < 5; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 4; ++x) {
        EXPECT_EQ(v.voxel(x, y, z), data + (z * 12 + y * 4 + x));
        EXPECT_EQ(pv.voxel(x, y, z), v.voxel(x, y, z));
      }
  // A 3000-plane volume of 1 MiB planes lies past 2 GiB: the plane offset
  // must not wrap in 32 bits (only the offset is formed, nothing is read).
  const auto big = velr::vol::VolumeRef<const Vel8u>::contiguous(nullptr, 1024, 1 << 20);
  EXPECT_EQ(big.planeStep * 3000, int64_t{3000} << 20);
  static_assert(sizeof(big.planeStep) == 8);
}

TEST(VolumeChecks, ClippedBoundsAreInclusive) {
  const VelrRemapRegion r = velr::vol::clippedBounds({2, 1, 0, 100, 2, 3}, {8, 4, 8});
  EXPECT_EQ(r.xMin, 2);
  EXPECT_EQ(r.xMax, 7);
  EXPECT_EQ(r.yMax, 2);
  EXPECT_EQ(r.zMax, 2);
}

TEST(VolumeChecks, SmallVolumesLowerTheCode) {
  using velr::vol::lowerCodeForSmallVolume;
  EXPECT_EQ(lowerCodeForSmallVolume(6, {4, 4, 4}), 6);
  EXPECT_EQ(lowerCodeForSmallVolume(6, {3, 9, 9}), 2);
  EXPECT_EQ(lowerCodeForSmallVolume(5, {9, 1, 9}), 1);
  EXPECT_EQ(lowerCodeForSmallVolume(2, {9, 9, 1}), 1);
  EXPECT_EQ(lowerCodeForSmallVolume(2, {9, 3, 9}), 2);
}

TEST(ResizeCuboid, ScalesRegions) {
  VelrCuboid out = kSentinel;
  EXPECT_EQ(cuboid({0, 0, 0, 10, 10, 10}, &out, 2.0, 0.0), velStsNoErr);
  EXPECT_TRUE(same(out, {0, 0, 0, 20, 20, 20}));
  EXPECT_EQ(cuboid({0, 0, 0, 10, 10, 10}, &out, 0.5, 0.0), velStsNoErr);
  EXPECT_TRUE(same(out, {0, 0, 0, 5, 5, 5}));
  EXPECT_EQ(velrGetResizeCuboid({3, 1, 2, 4, 5, 6}, &out, 1.5, 2.0, 0.25, 1.0, -0.5, 0.0, 7),
            velStsNoErr);
  // x: 4.5+1 -> 5 .. 10.5+1 -> 12; y: 2-0.5 -> 1 .. 12-0.5 -> 12; z: 0.5 -> 0 .. 2 -> 2.
  EXPECT_TRUE(same(out, {5, 1, 0, 7, 11, 2}));
}

TEST(ResizeCuboid, HalfVoxelStartsRoundDownAndEndsRoundUp) {
  VelrCuboid out = kSentinel;
  // Start 2 * 1.25 = 2.5 goes to 2, end 2 * 3.25 = 6.5 goes to 7.
  EXPECT_EQ(cuboid({1, 1, 1, 2, 2, 2}, &out, 2.0, 0.5), velStsNoErr);
  EXPECT_TRUE(same(out, {2, 2, 2, 5, 5, 5}));
  // Adjacent source regions tile the destination without gap or overlap.
  VelrCuboid left = kSentinel, right = kSentinel;
  EXPECT_EQ(cuboid({0, 0, 0, 3, 3, 3}, &left, 1.5, 0.0), velStsNoErr);
  EXPECT_EQ(cuboid({3, 3, 3, 4, 4, 4}, &right, 1.5, 0.0), velStsNoErr);
  // Both meet at 4.5: the left one ends at 5 and the right one starts at 4,
  // so the voxel at the seam is written by both and none is missed.
  EXPECT_EQ(left.x + left.width, 5);
  EXPECT_EQ(right.x, 4);
}

TEST(ResizeCuboid, EmptyOrNegativeResultsLeaveOutputAlone) {
  VelrCuboid out = kSentinel;
  EXPECT_EQ(cuboid({0, 0, 0, 4, 4, 4}, &out, 1.0, -100.0), velStsEmptyCuboid);
  EXPECT_TRUE(same(out, kSentinel));
  // Only the y axis is empty; z is still tested after it and not written.
  EXPECT_EQ(velrGetResizeCuboid({0, 0, 0, 4, 4, 4}, &out, 1, 1, 1, 0, -10, 0, 1),
            velStsEmptyCuboid);
  EXPECT_TRUE(same(out, kSentinel));
  // Ends below 0 clamp to 0 before the emptiness test: a region that starts
  // below 0 keeps only its part from 0.
  EXPECT_EQ(cuboid({0, 0, 0, 4, 4, 4}, &out, 1.0, -2.0), velStsNoErr);
  EXPECT_TRUE(same(out, {0, 0, 0, 2, 2, 2}));
}

TEST(ResizeCuboid, ChecksInOrder) {
  VelrCuboid out = kSentinel;
  EXPECT_EQ(cuboid({-1, 0, 0, 1, 1, 1}, nullptr, 0.0, 0.0, 3), velStsNullPtrErr);
  EXPECT_EQ(cuboid({0, 0, 0, 1, 0, 1}, &out, 0.0, 0.0, 3), velStsSizeErr);
  EXPECT_EQ(cuboid({0, 0, 0, 1, 1, 1}, &out, 0.0, 0.0, 3), velStsResizeFactorErr);
  EXPECT_EQ(velrGetResizeCuboid({0, 0, 0, 1, 1, 1}, &out, 1, 1, -1, 0, 0, 0, 1),
            velStsResizeFactorErr);
  EXPECT_EQ(cuboid({0, 0, 0, 1, 1, 1}, &out, 1.0, 0.0, 3), velStsInterpolationErr);
  EXPECT_EQ(cuboid({0, 0, 0, 1, 1, 1}, &out, 1.0, 0.0, 8), velStsInterpolationErr);
  EXPECT_TRUE(same(out, kSentinel));
  // A NaN factor passes the factor test (then yields an empty region).
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(velrGetResizeCuboid({0, 0, 0, 1, 1, 1}, &out, nan, 1, 1, 0, 0, 0, 9),
            velStsInterpolationErr);
}

TEST(ResizeSetup, LimitsByVolumeAndDestinationAndReportsWarnings) {
  velr::vol::ResizeSetup s;
  const double one[3] = {1, 1, 1}, two[3] = {2, 2, 2}, zero[3] = {0, 0, 0};
  // Source region runs past the 6-voxel volume: limited to 2 voxels from 4.
  ASSERT_EQ(velr::vol::resizeSetup(false, {6, 6, 6}, {4, 0, 0, 10, 6, 6}, {0, 0, 0, 99, 99, 99},
                                   two, zero, 2, &s),
            velStsNoErr);
  EXPECT_EQ(s.axis[0].begin, 8);
  EXPECT_EQ(s.axis[0].end, 12);
  // A destination region narrower than the mapped source limits the result.
  ASSERT_EQ(velr::vol::resizeSetup(false, {6, 6, 6}, {0, 0, 0, 6, 6, 6}, {3, 0, 0, 4, 99, 99}, two,
                                   zero, 2, &s),
            velStsNoErr);
  EXPECT_EQ(s.axis[0].begin, 3);
  EXPECT_EQ(s.axis[0].end, 7);
  EXPECT_DOUBLE_EQ(s.axis[0].inv, 0.5);
  // Half-voxel boundaries: 1 * 2 + 0.5 starts at 2, 3 * 2 + 0.5 ends at 7.
  const double half[3] = {0.5, 0.5, 0.5};
  ASSERT_EQ(velr::vol::resizeSetup(false, {6, 6, 6}, {1, 1, 1, 2, 2, 2}, {0, 0, 0, 99, 99, 99}, two,
                                   half, 6, &s),
            velStsNoErr);
  EXPECT_EQ(s.axis[2].begin, 2);
  EXPECT_EQ(s.axis[2].end, 7);
  EXPECT_EQ(velr::vol::resizeSetup(false, {6, 6, 6}, {0, 6, 0, 1, 1, 1}, {0, 0, 0, 9, 9, 9}, one,
                                   zero, 1, &s),
            velStsWrongIntersectVolume);
  EXPECT_EQ(velr::vol::resizeSetup(false, {6, 6, 6}, {0, 0, 0, 6, 6, 6}, {7, 0, 0, 9, 9, 9}, one,
                                   zero, 1, &s),
            velStsEmptyCuboid);
}

TEST(CubicKernels, KnownValuesAndPiecesMeetAtOne) {
  EXPECT_EQ(cubicKernel(4, 0.0), 1.0);
  EXPECT_EQ(cubicKernel(6, 0.0), 1.0);
  EXPECT_EQ(cubicKernel(5, 0.0), 0.6666666666666666);
  EXPECT_EQ(cubicKernel(7, 0.0), 0.8333333333333334);
  EXPECT_NEAR(cubicKernel(4, 1.0), 0.0, 1e-15);
  EXPECT_NEAR(cubicKernel(6, 1.0), 0.0, 1e-15);
  EXPECT_NEAR(cubicKernel(5, 1.0), 1.0 / 6, 1e-15);
  EXPECT_NEAR(cubicKernel(7, 1.0), 1.0 / 12, 1e-15);  // b / 6 with b = 1/2
  EXPECT_NEAR(cubicKernel(6, 0.5), 0.5625, 1e-15);
  EXPECT_NEAR(cubicKernel(6, 1.5), -0.0625, 1e-15);
  EXPECT_NEAR(cubicKernel(4, 0.5), 0.5625, 1e-15);
  EXPECT_NEAR(cubicKernel(4, 1.5), -0.0625, 1e-15);
  for (int code = 4; code <= 7; ++code) {
    EXPECT_NEAR(cubicKernel(code, std::nextafter(1.0, 0.0)), cubicKernel(code, 1.0), 1e-12);
    EXPECT_NEAR(cubicKernel(code, std::nextafter(2.0, 0.0)), 0.0, 1e-12);
    EXPECT_EQ(cubicKernel(code, 2.0), 0.0);
    EXPECT_EQ(cubicKernel(code, 7.5), 0.0);
    EXPECT_EQ(cubicKernel(code, std::nan("")), 1.0);
  }
}

TEST(CubicKernels, FourWeightsSumToOne) {
  for (int code = 4; code <= 7; ++code)
    for (float t : {0.0f, 0.125f, 0.3f, 0.5f, 0.77f, 0.999f}) {
      float w[4];
      velr::vol::cubicWeights(code, t, w);
      EXPECT_NEAR(w[0] + w[1] + w[2] + w[3], 1.0f, 4e-7f) << code << " " << t;
      if (code == 4 || code == 6) {
        // Interpolating kernels reproduce the centre sample at t = 0.
        // (The Lagrange polynomial evaluated at d = 1 leaves 1.1e-16, not 0.)
        if (t == 0.0f) {
          EXPECT_NEAR(w[0], 0.0f, 1e-15f);
          EXPECT_EQ(w[1], 1.0f);
          EXPECT_NEAR(w[2], 0.0f, 1e-15f);
          EXPECT_EQ(w[3], 0.0f);
        }
      }
    }
  // The distances come from u = -1 - t: for a tiny t the centre distance is
  // 0, not t.
  float w[4];
  velr::vol::cubicWeights(4, 1e-9f, w);
  EXPECT_EQ(w[1], 1.0f);
}

TEST(CubicKernels, SampledTablesAndTheirInterpolation) {
  for (int code = 4; code <= 7; ++code) {
    const float* t = velr::vol::cubicWeightTable(code);
    for (int k = 0; k <= 200; ++k)
      EXPECT_EQ(t[k], static_cast<float>(cubicKernel(code, k / 100.0)));
    for (int k = 200; k < velr::vol::kWeightTableSize; ++k) EXPECT_EQ(t[k], 0.0f);
    EXPECT_EQ(velr::vol::sampledWeight(t, 0.5f), t[50]);
    EXPECT_EQ(velr::vol::sampledWeight(t, 3.0f), 0.0f);
    EXPECT_EQ(velr::vol::sampledWeight(t, std::nanf("")), 0.0f);
    const float mid = velr::vol::sampledWeight(t, 0.125f);  // u = 12.5
    EXPECT_EQ(mid, t[12] + (t[13] - t[12]) * 0.5f);
  }
}
