#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <vector>

#include "raytrace/surface_rsqrt.h"
#include "tests/common/targets.h"
#include "tests/common/threads.h"
#include "tests/raytrace/shade_packets.h"
#include "velr.h"

using velr::test::bitsOf;
using velr::test::fromBits;
using velr::test::PacketShape;
using velr::test::Plane;
using velr::test::Planes3;
using velr::test::Rng;
using velr::test::samePlanes;

namespace {

constexpr float kSentinel = 55.5f;

template <class Body>
void forEveryPath(Body&& body) {
  velr::test::forEachTarget([&](const std::string& target) {
    Rng rng(4711);
    for (PacketShape s : velr::test::packetShapes()) {
      SCOPED_TRACE(velr::test::shapeName(target, s));
      body(s, rng);
    }
  });
}

bool blockPath(PacketShape s) { return s.offset == 0 && s.len % 4 == 0; }

}  // namespace

TEST(SurfaceChecks, NullPointersAreReportedBeforeAnyWrite) {
  Plane<float> f(8, 0, 1.0f), out(8, 0, kSentinel);
  Plane<int32_t> m(8, 0, 0), idx(16, 0, 0);
  const float* in3[3] = {f.data(), f.data(), f.data()};
  float* out3[3] = {out.data(), out.data(), out.data()};
  const float* hit[2] = {f.data(), f.data()};
  const float o[3] = {0, 0, 0};

  using velr::test::expectNullRejected;
  expectNullRejected<1, 2, 3, 4>(velrHitPoint3DEpsS0_32f_M, o, in3, f.data(), m.data(), out3, 8,
                                 1.0f);
  expectNullRejected<0, 1, 2, 3, 4>(velrHitPoint3DEpsM0_32f_M, in3, in3, f.data(), m.data(), out3,
                                    8, 1.0f);
  expectNullRejected<0, 1>(velrSurfFlatNormal_32f, f.data(), m.data(), out3, 8);
  expectNullRejected<0, 1, 2, 3, 4>(velrSurfSmoothNormal_32f, f.data(), idx.data(), m.data(), hit,
                                    out3, 8, 3);
  expectNullRejected<0, 1, 2>(velrTriangleNormal_32f, f.data(), idx.data(), out.data(), 2);
  expectNullRejected<0>(velrSetBoundBox_32f, f.data(), 2, out.data());
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(out[i], kSentinel);

  // The single origin and the output triple of the flat normals are not
  // checked; counts below one write nothing.
  float* null3[3] = {nullptr, nullptr, nullptr};
  for (int len : {0, -1}) {
    EXPECT_EQ(velrHitPoint3DEpsS0_32f_M(nullptr, in3, f.data(), m.data(), null3, len, 1),
              velStsNoErr);
    EXPECT_EQ(velrHitPoint3DEpsM0_32f_M(in3, in3, f.data(), m.data(), null3, len, 1),
              velStsNoErr);
    EXPECT_EQ(velrSurfFlatNormal_32f(f.data(), m.data(), nullptr, len), velStsNoErr);
    EXPECT_EQ(velrSurfSmoothNormal_32f(f.data(), idx.data(), m.data(), hit, null3, len, 3),
              velStsNoErr);
    EXPECT_EQ(velrTriangleNormal_32f(f.data(), idx.data(), out.data(), len), velStsNoErr);
  }
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(out[i], kSentinel);
}

// ---------------------------------------------------------------- hit points

TEST(SurfaceHitPoint, AlignmentAndLengthPickTheMultiplicationOrder) {
  forEveryPath([](PacketShape s, Rng& rng) {
    const float eps = rng.below(2) ? 0.999f : 1.0001f;
    const float single[3] = {rng.uniform(-3, 3), rng.uniform(-3, 3), rng.uniform(-3, 3)};
    const Planes3 origins = velr::test::randomPlanes(rng, s.len, s.offset, true);
    const Planes3 dir = velr::test::randomPlanes(rng, s.len, s.offset, true);
    const Plane<float> t = velr::test::randomPlane(rng, s.len, s.offset, true);
    const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
    for (bool perRay : {false, true}) {
      Planes3 hp(s.len, s.offset, kSentinel), want(s.len, 0);
      for (size_t i = 0; i < s.len; ++i)
        for (int c = 0; c < 3; ++c) {
          const float o = perRay ? origins.c[c][i] : single[c];
          const float d = dir.c[c][i];
          want.c[c][i] = m[i] < 0 ? 0.0f
                                  : (blockPath(s) ? (d * t[i]) * eps + o : (d * eps) * t[i] + o);
        }
      const VelStatus st =
          perRay ? velrHitPoint3DEpsM0_32f_M(origins.in(), dir.in(), t.data(), m.data(), hp.out(),
                                             int(s.len), eps)
                 : velrHitPoint3DEpsS0_32f_M(single, dir.in(), t.data(), m.data(), hp.out(),
                                             int(s.len), eps);
      ASSERT_EQ(st, velStsNoErr);
      for (int c = 0; c < 3; ++c) EXPECT_TRUE(samePlanes(hp.c[c].data(), want.c[c].data(), s.len));
    }
  });
}

// ---------------------------------------------------------------- normals

TEST(SurfaceFlatNormal, CopiesTheHitTrianglesNormalBitForBit) {
  forEveryPath([](PacketShape s, Rng& rng) {
    const int triangles = 300;
    // Exactly sized, so that a read past the last normal is an error under
    // the address sanitizer.
    std::vector<float> tn(3 * triangles);
    for (float& x : tn) x = fromBits(static_cast<uint32_t>(rng.next()));  // NaNs included
    Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset, triangles);
    if (s.len > 2) {
      m[0] = 0;
      m[s.len - 1] = triangles - 1;
    }
    Planes3 out(s.len, s.offset, kSentinel);
    ASSERT_EQ(velrSurfFlatNormal_32f(tn.data(), m.data(), out.out(), int(s.len)), velStsNoErr);
    for (size_t i = 0; i < s.len; ++i)
      for (int c = 0; c < 3; ++c)
        ASSERT_EQ(bitsOf(out.c[c][i]), m[i] < 0 ? 0u : bitsOf(tn[3 * size_t(m[i]) + c])) << i;
  });
}

namespace {

struct SmoothMesh {
  std::vector<float> normals;   // per vertex
  std::vector<int32_t> index;   // `step` values per triangle
  int step;
};

SmoothMesh randomMesh(Rng& rng, int vertices, int triangles, int step) {
  SmoothMesh mesh{std::vector<float>(3 * size_t(vertices)),
                  std::vector<int32_t>(size_t(step) * triangles, -7), step};
  for (float& x : mesh.normals) x = rng.uniform(-1, 1);
  for (int t = 0; t < triangles; ++t)
    for (int k = 0; k < 3; ++k) mesh.index[size_t(t) * step + k] = rng.below(vertices);
  return mesh;
}

// Both forms from the definition; the block form uses the library's
// estimate (the one free choice), everything after it is restated here.
void smoothReference(const SmoothMesh& mesh, const Plane<int32_t>& m, const Planes3& uv,
                     bool block, Planes3& want) {
  for (size_t i = 0; i < m.size(); ++i) {
    if (m[i] < 0) {
      for (int c = 0; c < 3; ++c) want.c[c][i] = 0.0f;
      continue;
    }
    const int32_t* rec = mesh.index.data() + size_t(m[i]) * mesh.step;
    const float u = uv.c[0][i], v = uv.c[1][i], w = 1.0f - u - v;
    float n[3];
    for (int c = 0; c < 3; ++c)
      n[c] = (mesh.normals[3 * rec[1] + c] * v + mesh.normals[3 * rec[0] + c] * u) +
             mesh.normals[3 * rec[2] + c] * w;
    const float s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
    if (block) {
      const float r0 = s > FLT_EPSILON ? velr::rsqrtEstimate(s) : 0.0f;
      const float r = (r0 * -0.5f) * (s * r0 * r0 - 3.0f);
      for (int c = 0; c < 3; ++c) want.c[c][i] = n[c] * r;
    } else {
      const float len = std::sqrt(s);
      for (int c = 0; c < 3; ++c) want.c[c][i] = s < FLT_EPSILON ? 0.0f : n[c] / len;
    }
  }
}

VelStatus smoothNormals(const SmoothMesh& mesh, const float* vn, const Plane<int32_t>& m,
                        const Planes3& uv, Planes3& out) {
  const float* hit[2] = {uv.c[0].data(), uv.c[1].data()};
  return velrSurfSmoothNormal_32f(vn, mesh.index.data(), m.data(), hit, out.out(), int(m.size()),
                                  mesh.step);
}

}  // namespace

TEST(SurfaceSmoothNormal, AlignmentAndLengthPickTheNormalisation) {
  forEveryPath([](PacketShape s, Rng& rng) {
    for (int step : {3, 4, 7}) {
      const int triangles = 200;
      SmoothMesh mesh = randomMesh(rng, 150, triangles, step);
      // The first and the last vertex normal are read; in the aligned case
      // the normals are an exactly sized array.
      mesh.index[size_t(triangles - 1) * step + 2] = 149;
      mesh.index[size_t(triangles - 1) * step + 1] = 0;
      Plane<float> shifted(mesh.normals.size(), 1);
      for (size_t i = 0; i < shifted.size(); ++i) shifted[i] = mesh.normals[i];
      const float* vn = s.offset == 0 ? mesh.normals.data() : shifted.data();
      ASSERT_EQ(reinterpret_cast<uintptr_t>(mesh.normals.data()) % 16, 0u);
      Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset, triangles);
      if (s.len > 0) m[s.len - 1] = triangles - 1;
      Planes3 uv(s.len, s.offset);
      for (size_t i = 0; i < s.len; ++i) {
        uv.c[0][i] = rng.uniform(0, 1);
        uv.c[1][i] = rng.uniform(0, 1 - uv.c[0][i]);
      }
      Planes3 out(s.len, s.offset, kSentinel), want(s.len, 0);
      // index records are 16-byte aligned (vector storage), so the path is
      // decided by the packet planes and the vertex normals.
      smoothReference(mesh, m, uv, blockPath(s), want);
      ASSERT_EQ(smoothNormals(mesh, vn, m, uv, out), velStsNoErr);
      for (int c = 0; c < 3; ++c)
        EXPECT_TRUE(samePlanes(out.c[c].data(), want.c[c].data(), s.len)) << "step " << step;
    }
  });
}

TEST(SurfaceSmoothNormal, ThresholdsAndDegenerateBlends) {
  // Vertex 0: a normal of squared length exactly FLT_EPSILON; vertices 1, 2
  // opposite; vertex 3 an ordinary normal.
  const float e = 0x1p-12f;
  Plane<float> vn(12, 0);
  const float values[12] = {e, e, 0, 0, 0.6f, -0.8f, 0, -0.6f, 0.8f, 3, 4, 12};
  for (int i = 0; i < 12; ++i) vn[i] = values[i];
  SmoothMesh mesh{{}, {0, 1, 2, 1, 2, 0, 3, 1, 2}, 3};
  Plane<int32_t> m(4, 0);
  Planes3 uv(4, 0);
  m[0] = 0;  // u = 1: the FLT_EPSILON normal alone
  uv.c[0][0] = 1;
  m[1] = 1;  // halfway between opposite normals: a zero blend
  uv.c[0][1] = 0.5f;
  uv.c[1][1] = 0.5f;
  m[2] = 2;  // u = 1 on vertex 3: its normal, normalised
  uv.c[0][2] = 1;
  m[3] = -1;
  velr::test::forEachTarget([&](const std::string& target) {
    SCOPED_TRACE(target);
    for (bool block : {true, false}) {
      Planes3 out(4, 0, kSentinel);
      const int len = block ? 4 : 3;
      const float* hit[2] = {uv.c[0].data(), uv.c[1].data()};
      ASSERT_EQ(velrSurfSmoothNormal_32f(vn.data(), mesh.index.data(), m.data(), hit, out.out(),
                                         len, 3),
                velStsNoErr);
      // Squared length equal to FLT_EPSILON: zero in the block form (strict
      // test), normalised in the one-ray form.
      EXPECT_NEAR(out.c[0][0], block ? 0.0f : std::sqrt(0.5f), block ? 0.0 : 1e-7);
      for (int c = 0; c < 3; ++c) EXPECT_EQ(out.c[c][1], 0.0f);
      EXPECT_NEAR(out.c[0][2], 3.0f / 13, 1e-7);
      EXPECT_NEAR(out.c[1][2], 4.0f / 13, 1e-7);
      EXPECT_NEAR(out.c[2][2], 12.0f / 13, 1e-7);
      if (block)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(bitsOf(out.c[c][3]), 0u);
    }
  });
}

TEST(SurfaceSmoothNormal, EstimateIsAccurateAfterTheNewtonStep) {
  // Over the whole range a normal's squared length can take, the estimate
  // stays within 5e-6 and one more Newton step within 2e-7 of 1 / sqrt(s).
  double worstEstimate = 0, worstFinal = 0;
  for (uint32_t b = bitsOf(FLT_EPSILON) + 1; b < 0x7F000000u; b += 4099) {
    const float s = fromBits(b);
    const double exact = 1.0 / std::sqrt(double(s));
    const float r = velr::rsqrtEstimate(s);
    worstEstimate = std::max(worstEstimate, std::fabs(r / exact - 1));
    worstFinal = std::max(worstFinal, std::fabs(velr::rsqrtNewtonStep(s, r) / exact - 1));
  }
  EXPECT_LT(worstEstimate, 5e-6);
  EXPECT_LT(worstFinal, 2e-7);
}

// ---------------------------------------------------------------- triangle normals

namespace {

std::vector<float> triangleNormalsReference(const std::vector<float>& v,
                                            const std::vector<int32_t>& idx, int count) {
  std::vector<float> out(3 * size_t(count));
  for (int t = 0; t < count; ++t) {
    const float* p[3];
    for (int k = 0; k < 3; ++k) p[k] = &v[3 * size_t(idx[4 * size_t(t) + k])];
    double a[3], b[3];
    for (int c = 0; c < 3; ++c) {
      a[c] = double(p[0][c]) - p[2][c];
      b[c] = double(p[1][c]) - p[2][c];
    }
    const double n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                         a[0] * b[1] - a[1] * b[0]};
    const double s = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
    for (int c = 0; c < 3; ++c)
      out[3 * size_t(t) + c] = s < DBL_EPSILON ? 0.0f : float(n[c] / std::sqrt(s));
  }
  return out;
}

}  // namespace

TEST(SurfaceTriangleNormal, KnownValues) {
  const float v[12] = {1, 0, 0, 0, 1, 0, 0, 0, 0, 2, 2, 2};
  const int32_t idx[8] = {0, 1, 2, -99, 3, 3, 3, -99};
  float n[6];
  ASSERT_EQ(velrTriangleNormal_32f(v, idx, n, 2), velStsNoErr);
  EXPECT_EQ(n[0], 0.0f);
  EXPECT_EQ(n[1], 0.0f);
  EXPECT_EQ(n[2], 1.0f);  // counter-clockwise seen from +z
  for (int c = 3; c < 6; ++c) EXPECT_EQ(bitsOf(n[c]), 0u);  // coincident vertices
}

TEST(SurfaceTriangleNormal, MatchesDoubleReferenceForEveryTargetAndThreadCount) {
  Rng rng(31337);
  const int vertices = 9000, count = 30001;
  std::vector<float> v(3 * size_t(vertices));
  for (float& x : v) x = rng.uniform(-2, 2);
  std::vector<int32_t> idx(4 * size_t(count));
  for (int t = 0; t < count; ++t) {
    for (int k = 0; k < 3; ++k) idx[4 * size_t(t) + k] = rng.below(vertices);
    idx[4 * size_t(t) + 3] = -1;  // ignored
    if (t % 97 == 0) idx[4 * size_t(t) + 1] = idx[4 * size_t(t)];  // degenerate
  }
  // Thin slivers, where the double-precision cross product matters.
  for (int t = 0; t < count; t += 101) {
    const int k = idx[4 * size_t(t) + 2];
    for (int c = 0; c < 3; ++c) v[3 * size_t(k) + c] = v[3 * size_t(idx[4 * size_t(t)]) + c];
    v[3 * size_t(k)] += 1e-6f;
  }
  const std::vector<float> want = triangleNormalsReference(v, idx, count);
  velr::test::forEachTarget([&](const std::string& target) {
    velr::test::forEachThreadCount([&](int threads) {
      SCOPED_TRACE(target + " threads " + std::to_string(threads));
      for (int len : {1, 2, 3, 5, 8, 9, 17, count}) {
        std::vector<float> out(3 * size_t(count) + 3, kSentinel);
        ASSERT_EQ(velrTriangleNormal_32f(v.data(), idx.data(), out.data(), len), velStsNoErr);
        ASSERT_TRUE(samePlanes(out.data(), want.data(), 3 * size_t(len))) << len;
        EXPECT_EQ(out[3 * size_t(len)], kSentinel);
      }
    });
  });
}

// ---------------------------------------------------------------- bounding box

namespace {

std::vector<float> boxReference(const float* v, int count) {
  float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX}, hi[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
  for (int k = 0; k < count; ++k)
    for (int c = 0; c < 3; ++c) {
      const float x = v[3 * k + c];
      if (lo[c] > x) lo[c] = x;
      if (x > hi[c]) hi[c] = x;
    }
  float m = FLT_MIN;
  for (int c = 0; c < 3; ++c) m = std::max({m, std::fabs(lo[c]), std::fabs(hi[c])});
  m *= 0.0001f;
  return {lo[0] - m, lo[1] - m, lo[2] - m, hi[0] + m, hi[1] + m, hi[2] + m};
}

}  // namespace

TEST(SurfaceBoundBox, KnownValues) {
  float box[6];
  const float one[3] = {1, -2, 0.5f};
  ASSERT_EQ(velrSetBoundBox_32f(one, 1, box), velStsNoErr);
  const float m = 2 * 0.0001f;
  const float want[6] = {1 - m, -2 - m, 0.5f - m, 1 + m, -2 + m, 0.5f + m};
  for (int c = 0; c < 6; ++c) EXPECT_FLOAT_EQ(box[c], want[c]);

  // All at the origin: the margin is FLT_MIN * 0.0001, a denormal, not 0.
  const float origin[12] = {};
  ASSERT_EQ(velrSetBoundBox_32f(origin, 4, box), velStsNoErr);
  EXPECT_EQ(box[3], FLT_MIN * 0.0001f);
  EXPECT_GT(box[3], 0.0f);
  EXPECT_EQ(box[0], -box[3]);

  // No vertices: the start values with their margin, an inverted box.
  for (int len : {0, -3}) {
    ASSERT_EQ(velrSetBoundBox_32f(one, len, box), velStsNoErr);
    for (int c = 0; c < 3; ++c) {
      EXPECT_EQ(box[c], FLT_MAX - FLT_MAX * 0.0001f);
      EXPECT_EQ(box[3 + c], -FLT_MAX + FLT_MAX * 0.0001f);
    }
  }
}

TEST(SurfaceBoundBox, NaNsAreIgnoredOnEveryTargetAndLength) {
  velr::test::forEachTarget([](const std::string& target) {
    Rng rng(8);
    for (int count : {1, 2, 3, 4, 5, 7, 8, 15, 16, 17, 33, 1000, 1003}) {
      for (size_t offset : {0u, 1u}) {
        SCOPED_TRACE(target + " " + std::to_string(count));
        Plane<float> v(3 * size_t(count), offset);
        for (size_t i = 0; i < v.size(); ++i) v[i] = rng.uniform(-5, 5) + (i % 3 == 1 ? 20 : 0);
        // NaNs everywhere, including at the very first and last vertex.
        for (size_t i = 0; i < v.size(); i += 7) v[i] = std::nanf("");
        v[v.size() - 1] = std::nanf("");
        float box[6];
        ASSERT_EQ(velrSetBoundBox_32f(v.data(), count, box), velStsNoErr);
        const std::vector<float> want = boxReference(v.data(), count);
        EXPECT_TRUE(samePlanes(box, want.data(), 6));
      }
    }
  });
}
