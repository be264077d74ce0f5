#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "tests/raytrace/kdtree_testing.h"
#include "velr.h"

namespace {

VelrTriangleAccel build(std::vector<float> v) {
  const int idx[4] = {0, 1, 2, 77};
  VelrTriangleAccel rec;
  std::memset(&rec, 0xAB, sizeof rec);
  EXPECT_EQ(velrTriangleAccelInit(&rec, v.data(), idx, 1), velStsNoErr);
  return rec;
}

bool allZero(const VelrTriangleAccel& r) {
  static const VelrTriangleAccel zero{};
  return std::memcmp(&r, &zero, sizeof r) == 0;
}

}  // namespace

TEST(TriangleAccel, SizeQuery) {
  int size = 0;
  EXPECT_EQ(velrTriangleAccelGetSize(nullptr), velStsNullPtrErr);
  EXPECT_EQ(velrTriangleAccelGetSize(&size), velStsNoErr);
  EXPECT_EQ(size, 40);
}

TEST(TriangleAccel, CountsBelowOneWriteNothing) {
  VelrTriangleAccel rec;
  std::memset(&rec, 0x5A, sizeof rec);
  const VelrTriangleAccel before = rec;
  EXPECT_EQ(velrTriangleAccelInit(&rec, nullptr, nullptr, 0), velStsNoErr);
  EXPECT_EQ(velrTriangleAccelInit(&rec, nullptr, nullptr, -3), velStsNoErr);
  EXPECT_EQ(std::memcmp(&rec, &before, sizeof rec), 0);
}

TEST(TriangleAccel, DegenerateTrianglesGiveZeroRecords) {
  EXPECT_TRUE(allZero(build({1, 2, 3, 1, 2, 3, 4, 5, 6})));        // two equal vertices
  EXPECT_TRUE(allZero(build({0, 0, 0, 1, 1, 1, 2, 2, 2})));        // collinear
  EXPECT_TRUE(allZero(build({5, 5, 5, 5, 5, 5, 5, 5, 5})));        // a point
}

TEST(TriangleAccel, PlaneAlongZSetsPerpendicularBit) {
  const VelrTriangleAccel r = build({0, 0, 2, 1, 0, 2, 0, 1, 2});
  EXPECT_EQ(r.axes, 0x80000021u);
  EXPECT_EQ(r.nu, 0.0f);
  EXPECT_EQ(r.nv, 0.0f);
  EXPECT_EQ(r.ck, 2.0f);
}

TEST(TriangleAccel, AxisTiesGoToTheLowerAxis) {
  // N = (1, 1, 0)-ish: |Nx| = |Ny| > |Nz| picks x, low bits (u, v) = (1, 2).
  VelrTriangleAccel r = build({0, 0, 0, 0, 0, 1, 1, -1, 0});
  EXPECT_EQ(r.axes & 0x3F, 0x06u);
  EXPECT_EQ(r.axes & 0x80000000u, 0u);
  // |Nx| = |Ny| = |Nz|: still x.
  r = build({1, 0, 0, 0, 1, 0, 0, 0, 1});
  EXPECT_EQ(r.axes & 0x3F, 0x06u);
  // |Ny| = |Nz| > |Nx|: y, since z must be strictly larger to win.
  r = build({0, 0, 0, 1, 0, 0, 0, 1, -1});
  EXPECT_EQ((r.axes >> 4) & 3, 1u);
}

TEST(TriangleAccel, YAxisRecordsCarryTheSignFlip) {
  // Triangle in the plane y = 3 with vertices A, B, C.
  const std::vector<float> v = {1, 3, 0, 0, 3, 1, 0, 3, 0};
  const VelrTriangleAccel r = build(v);
  EXPECT_EQ(r.axes, 0x80000000u | (1u << 4) | (0u << 2) | 2u);
  // E1 = A - C = (1, 0, 0), E2 = B - C = (0, 0, 1); N = E1 x E2 = (0, -1, 0).
  // q = s / N[k] = -1 / -1 = 1.
  EXPECT_EQ(r.au, 1.0f);
  EXPECT_EQ(r.av, 0.0f);
  EXPECT_EQ(r.bu, 0.0f);
  EXPECT_EQ(r.bv, 1.0f);
  // Same geometry with the other winding flips the normal, and the sign flip
  // keeps the weights of A and B where they belong.
  const float o[3] = {0.25f, 10.0f, 0.5f}, d[3] = {0.0f, -1.0f, 0.0f};
  const velr::test::RecordTerms h = velr::test::recordTerms(r, o, d);
  EXPECT_TRUE(h.inside);
  EXPECT_FLOAT_EQ(h.t, 7.0f);
  EXPECT_FLOAT_EQ(h.w1, 0.25f);  // weight of A: x
  EXPECT_FLOAT_EQ(h.w2, 0.5f);   // weight of B: z
}

TEST(TriangleAccel, RecordsReproduceBarycentricsOnEveryAxis) {
  // A tilted triangle seen along each axis: the record's weights must equal
  // the barycentric coordinates of the hit point, whatever k is.
  const float tri[3][9] = {{0.2f, 0, 0, 0.1f, 1, 0, 0.3f, 0, 1},    // k = x
                           {0, 0.2f, 0, 0, 0.3f, 1, 1, 0.1f, 0},    // k = y
                           {0, 0, 0.2f, 1, 0, 0.3f, 0, 1, 0.1f}};   // k = z
  for (int axis = 0; axis < 3; ++axis) {
    const std::vector<float> v(tri[axis], tri[axis] + 9);
    const VelrTriangleAccel r = build(v);
    ASSERT_EQ((r.axes >> 4) & 3, static_cast<unsigned>(axis));
    EXPECT_EQ(r.axes & 0x80000000u, 0u);
    const double wa = 0.2, wb = 0.3, wc = 0.5;
    float p[3], o[3], d[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i)
      p[i] = static_cast<float>(wa * v[i] + wb * v[3 + i] + wc * v[6 + i]);
    for (int i = 0; i < 3; ++i) o[i] = p[i];
    o[axis] += 4.0f;
    d[axis] = -1.0f;
    const velr::test::RecordTerms h = velr::test::recordTerms(r, o, d);
    EXPECT_TRUE(h.inside) << axis;
    EXPECT_NEAR(h.w1, wa, 1e-5) << axis;
    EXPECT_NEAR(h.w2, wb, 1e-5) << axis;
    EXPECT_NEAR(h.t, 4.0, 1e-5) << axis;
  }
}

TEST(TriangleAccel, ComputedInDoubleAndRoundedOnce) {
  // A thin sliver whose slopes lose digits if the cross product is formed in
  // float: compare against the double formula rounded once.
  const std::vector<float> v = {1.0f, 1e-4f, 0.3f, 1.0000001f, 2e-4f, 0.7f, 0.9999999f, 0.0f, 0.1f};
  const VelrTriangleAccel r = build(v);
  double a[3], b[3], c[3];
  for (int i = 0; i < 3; ++i) a[i] = v[i], b[i] = v[3 + i], c[i] = v[6 + i];
  const double e1[3] = {a[0] - c[0], a[1] - c[1], a[2] - c[2]};
  const double e2[3] = {b[0] - c[0], b[1] - c[1], b[2] - c[2]};
  const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                       e1[0] * e2[1] - e1[1] * e2[0]};
  ASSERT_EQ((r.axes >> 4) & 3, 0u);
  const double rk = 1.0 / n[0];
  EXPECT_EQ(r.nu, static_cast<float>(n[1] * rk));
  EXPECT_EQ(r.nv, static_cast<float>(n[2] * rk));
  EXPECT_EQ(r.au, static_cast<float>(e1[1] * rk));
  EXPECT_EQ(r.bv, static_cast<float>(e2[2] * rk));
}

TEST(TriangleAccel, ManyTrianglesInIndexOrder) {
  // Index words are read four per triangle; the fourth is ignored.
  const std::vector<float> v = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
  const int idx[12] = {0, 1, 2, -99, 0, 0, 1, 12345, 0, 1, 3, 7};
  VelrTriangleAccel rec[3];
  ASSERT_EQ(velrTriangleAccelInit(rec, v.data(), idx, 3), velStsNoErr);
  EXPECT_EQ(rec[0].axes & 0x3F, 0x21u);
  EXPECT_TRUE(allZero(rec[1]));
  EXPECT_EQ((rec[2].axes >> 4) & 3, 1u);
}
