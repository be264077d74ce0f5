#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "tests/common/targets.h"
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

constexpr float kSentinel = 123.25f;

float dot3(float x0, float y0, float z0, float x1, float y1, float z1) {
  return (x0 * x1 + y0 * y1) + z0 * z1;
}

// Runs body(target, shape, rng) for every target and packet shape.
template <class Body>
void forEveryPath(Body&& body) {
  velr::test::forEachTarget([&](const std::string& target) {
    Rng rng(0xC0FFEE);
    for (PacketShape s : velr::test::packetShapes()) {
      SCOPED_TRACE(velr::test::shapeName(target, s));
      body(s, rng);
    }
  });
}

}  // namespace

TEST(RayArith, NullPointersAreReportedBeforeAnyWrite) {
  Plane<float> a(8, 0, 1.0f), out(8, 0, kSentinel);
  Plane<int32_t> m(8, 0, 0);
  const float* p3[3] = {a.data(), a.data(), a.data()};
  float* o3[3] = {out.data(), out.data(), out.data()};
  const float pos[3] = {0, 0, 0};

  using velr::test::expectNullRejected;
  expectNullRejected<0, 1, 2, 3>(velrDot_32f_P3C1M, p3, p3, m.data(), out.data(), 8);
  expectNullRejected<0, 1, 2, 3>(velrDotChangeNorm_32f_IM, p3, m.data(), o3, out.data(), 8);
  expectNullRejected<1, 2, 3>(velrDistAttenuationSO_32f_M, pos, p3, m.data(), out.data(), 8);
  expectNullRejected<0, 1, 2>(velrMul_32f_C1IM, a.data(), m.data(), out.data(), 8);
  expectNullRejected<0, 1, 2>(velrMul_32f_C1P3IM, a.data(), m.data(), o3, 8);
  expectNullRejected<0, 2>(velrDiv_32f_C1IM, a.data(), m.data(), out.data(), 8);
  expectNullRejected<1, 2, 3, 4>(velrAddMulMul_32f_AC1P3IM, pos, a.data(), p3, m.data(), o3, 8);
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(out[i], kSentinel);

  // Pointers that are deliberately not checked, and counts below one: no
  // error and nothing written.
  const float* null3[3] = {nullptr, nullptr, nullptr};
  float* nullOut3[3] = {nullptr, nullptr, nullptr};
  for (int len : {0, -5}) {
    EXPECT_EQ(velrDot_32f_P3C1M(null3, null3, m.data(), out.data(), len), velStsNoErr);
    EXPECT_EQ(velrDotChangeNorm_32f_IM(null3, m.data(), nullOut3, out.data(), len), velStsNoErr);
    EXPECT_EQ(velrDistAttenuationSO_32f_M(nullptr, null3, m.data(), out.data(), len),
              velStsNoErr);
    EXPECT_EQ(velrMul_32f_C1IM(a.data(), m.data(), out.data(), len), velStsNoErr);
    EXPECT_EQ(velrMul_32f_C1P3IM(a.data(), m.data(), nullOut3, len), velStsNoErr);
    EXPECT_EQ(velrDiv_32f_C1IM(a.data(), nullptr, out.data(), len), velStsNoErr);
    EXPECT_EQ(velrAddMulMul_32f_AC1P3IM(nullptr, a.data(), null3, m.data(), nullOut3, len),
              velStsNoErr);
  }
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(out[i], kSentinel);
}

// The packet tests below compare with the formulas; these two pin down the
// points a formula alone leaves open: the sign of a zero divisor is ignored
// and 0 / 0 is one fixed NaN; a flipped normal turns +0 into -0.
TEST(RayArith, ZeroDivisorsAndSignFlips) {
  float x[4] = {2, -2, 0, 5};
  const float s[4] = {0, -0.0f, 0, 2};
  const int32_t m[4] = {0, 0, 0, 0};
  EXPECT_EQ(velrDiv_32f_C1IM(s, m, x, 4), velStsDivByZero);
  EXPECT_EQ(x[0], HUGE_VALF);
  EXPECT_EQ(x[1], -HUGE_VALF);
  EXPECT_EQ(bitsOf(x[2]), 0xFFC00000u);
  EXPECT_EQ(x[3], 2.5f);

  const float r[2] = {0, 1};
  float nx[1] = {0}, ny[1] = {0}, nz[1] = {1};
  const float* ray[3] = {r, r, r + 1};
  float* nrm[3] = {nx, ny, nz};
  float dot[1];
  EXPECT_EQ(velrDotChangeNorm_32f_IM(ray, m, nrm, dot, 1), velStsNoErr);
  EXPECT_EQ(bitsOf(nx[0]), 0x80000000u);
  EXPECT_EQ(bitsOf(ny[0]), 0x80000000u);
  EXPECT_EQ(nz[0], -1.0f);
  EXPECT_EQ(dot[0], -1.0f);
}

TEST(RayArith, DotProductsMatchTheOneRayForm) {
  forEveryPath([](PacketShape s, Rng& rng) {
    const Planes3 a = velr::test::randomPlanes(rng, s.len, s.offset, true);
    const Planes3 b = velr::test::randomPlanes(rng, s.len, s.offset, true);
    const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
    Plane<float> dot(s.len, s.offset, kSentinel), want(s.len, 0);
    Planes3 n = b, wantN = b;
    Plane<float> dot2(s.len, s.offset, kSentinel), want2(s.len, 0);
    for (size_t i = 0; i < s.len; ++i) {
      const float d = dot3(a.c[0][i], a.c[1][i], a.c[2][i], b.c[0][i], b.c[1][i], b.c[2][i]);
      want[i] = m[i] >= 0 ? d : 0.0f;
      want2[i] = m[i] < 0 ? 0.0f : (d > 0 ? -d : d);
      if (m[i] >= 0 && d > 0)
        for (auto& c : wantN.c) c[i] = -c[i];
    }
    ASSERT_EQ(velrDot_32f_P3C1M(a.in(), b.in(), m.data(), dot.data(), int(s.len)), velStsNoErr);
    EXPECT_TRUE(samePlanes(dot.data(), want.data(), s.len));
    ASSERT_EQ(velrDotChangeNorm_32f_IM(a.in(), m.data(), n.out(), dot2.data(), int(s.len)),
              velStsNoErr);
    EXPECT_TRUE(samePlanes(dot2.data(), want2.data(), s.len));
    for (int c = 0; c < 3; ++c) EXPECT_TRUE(samePlanes(n.c[c].data(), wantN.c[c].data(), s.len));
  });
}

TEST(RayArith, LightDistanceFollowsThePathForm) {
  const float light[3] = {0.25f, -1.5f, 2.0f};
  forEveryPath([&](PacketShape s, Rng& rng) {
    Planes3 p(s.len, s.offset);
    for (size_t i = 0; i < s.len; ++i) {
      // Points near the light (clamped), far away, and the odd NaN.
      const float r = rng.below(3) == 0 ? 0.3f : 8.0f;
      for (int c = 0; c < 3; ++c) p.c[c][i] = light[c] + rng.uniform(-r, r);
      if (rng.below(15) == 0) p.c[rng.below(3)][i] = std::nanf("");
    }
    const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
    Plane<float> dist(s.len, s.offset, kSentinel), want(s.len, 0);
    // Aligned whole blocks of four let a NaN distance become 1.0.
    const bool blockForm = s.offset == 0 && s.len % 4 == 0;
    for (size_t i = 0; i < s.len; ++i) {
      const float dx = p.c[0][i] - light[0], dy = p.c[1][i] - light[1], dz = p.c[2][i] - light[2];
      const float q = (dx * dx + dy * dy) + dz * dz;
      if (m[i] < 0)
        want[i] = 1.0f;
      else if (blockForm)
        want[i] = q >= 1.0f ? std::sqrt(q) : 1.0f;
      else
        want[i] = q < 1.0f ? 1.0f : std::sqrt(q);
    }
    ASSERT_EQ(velrDistAttenuationSO_32f_M(light, p.in(), m.data(), dist.data(), int(s.len)),
              velStsNoErr);
    EXPECT_TRUE(samePlanes(dist.data(), want.data(), s.len));
  });
}

TEST(RayArith, MultiplicationsMatchTheOneRayForm) {
  forEveryPath([](PacketShape s, Rng& rng) {
    // The lead pointer gets its own misalignment so the peel before the
    // vector blocks varies independently of the other arrays.
    for (size_t lead : {0u, 1u, 2u, 3u}) {
      const Plane<float> src = velr::test::randomPlane(rng, s.len, lead, true);
      const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
      Plane<float> x = velr::test::randomPlane(rng, s.len, s.offset, true);
      Planes3 x3 = velr::test::randomPlanes(rng, s.len, (s.offset + lead) % 4, true);
      Plane<float> want = x;
      Planes3 want3 = x3;
      for (size_t i = 0; i < s.len; ++i) {
        const float f = m[i] >= 0 ? 1.0f : 0.0f;
        want[i] = (want[i] * src[i]) * f;
        for (auto& c : want3.c) c[i] = (c[i] * src[i]) * f;
      }
      Plane<float> lx(s.len, lead);  // the destination leads here
      for (size_t i = 0; i < s.len; ++i) lx[i] = x[i];
      ASSERT_EQ(velrMul_32f_C1IM(src.data(), m.data(), lx.data(), int(s.len)), velStsNoErr);
      EXPECT_TRUE(samePlanes(lx.data(), want.data(), s.len));
      ASSERT_EQ(velrMul_32f_C1P3IM(src.data(), m.data(), x3.out(), int(s.len)), velStsNoErr);
      for (int c = 0; c < 3; ++c) EXPECT_TRUE(samePlanes(x3.c[c].data(), want3.c[c].data(), s.len));
    }
  });
}

TEST(RayArith, DivisionMatchesTheOneRayForm) {
  forEveryPath([](PacketShape s, Rng& rng) {
    Plane<float> src = velr::test::randomPlane(rng, s.len, s.offset, true);
    Plane<float> x = velr::test::randomPlane(rng, s.len, (s.offset + 2) % 4, true);
    for (size_t i = 0; i < s.len; ++i)
      if (rng.below(6) == 0) src[i] = rng.below(2) ? 0.0f : -0.0f;
    const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
    Plane<float> want = x;
    bool warned = false;
    for (size_t i = 0; i < s.len; ++i) {
      if (m[i] < 0) {
        want[i] = 0.0f;
      } else if (src[i] == 0.0f) {
        warned = true;
        want[i] = x[i] > 0 ? HUGE_VALF : (x[i] < 0 ? -HUGE_VALF : fromBits(0xFFC00000u));
      } else {
        want[i] = x[i] / src[i];
      }
    }
    EXPECT_EQ(velrDiv_32f_C1IM(src.data(), m.data(), x.data(), int(s.len)),
              warned ? velStsDivByZero : velStsNoErr);
    EXPECT_TRUE(samePlanes(x.data(), want.data(), s.len));
    for (size_t i = 0; i < s.len; ++i)  // the fixed NaN, not just any NaN
      if (m[i] >= 0 && std::isnan(want[i]) && bitsOf(want[i]) == 0xFFC00000u)
        ASSERT_EQ(bitsOf(x[i]), 0xFFC00000u) << i;
  });
}

TEST(RayArith, AccumulationMatchesTheOneRayForm) {
  const float colour[3] = {0.75f, -1.25f, 3.0f};
  forEveryPath([&](PacketShape s, Rng& rng) {
    for (size_t lead : {0u, 3u}) {
      const Plane<float> w = velr::test::randomPlane(rng, s.len, lead, true);
      const Planes3 h = velr::test::randomPlanes(rng, s.len, s.offset, true);
      const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
      Planes3 acc = velr::test::randomPlanes(rng, s.len, s.offset, true);
      Planes3 want = acc;
      for (size_t i = 0; i < s.len; ++i)
        if (m[i] >= 0)
          for (int c = 0; c < 3; ++c) want.c[c][i] += (colour[c] * h.c[c][i]) * w[i];
      ASSERT_EQ(velrAddMulMul_32f_AC1P3IM(colour, w.data(), h.in(), m.data(), acc.out(),
                                          int(s.len)),
                velStsNoErr);
      for (int c = 0; c < 3; ++c) EXPECT_TRUE(samePlanes(acc.c[c].data(), want.c[c].data(), s.len));
    }
  });
}
