#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "tests/common/targets.h"
#include "tests/raytrace/shade_packets.h"
#include "velr.h"

using velr::test::PacketShape;
using velr::test::Plane;
using velr::test::Planes3;
using velr::test::Rng;
using velr::test::sameInts;
using velr::test::samePlanes;

namespace {

constexpr float kSentinel = -77.5f;

struct EyeCase {
  float o[3], dw[3], dh[3];
  int bw, bh, bx, by;
};

int wrapMul(int a, int b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Every pixel from scratch: (dh * (y + offY) + o) + dw * (x + offX).
Planes3 eyeOneRay(const EyeCase& e, int width, int height) {
  Planes3 p(size_t(width) * height, 0);
  const float offX = float(wrapMul(e.bw, e.bx)), offY = float(wrapMul(e.bh, e.by));
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < 3; ++c)
        p.c[c][size_t(y) * width + x] =
            (e.dh[c] * (float(y) + offY) + e.o[c]) + e.dw[c] * (float(x) + offX);
  return p;
}

// Incremental: base advanced by dh per row, dw * column + base within a row.
Planes3 eyeBlocks(const EyeCase& e, int width, int height) {
  Planes3 p(size_t(width) * height, 0);
  const float offX = float(wrapMul(e.bw, e.bx)), offY = float(wrapMul(e.bh, e.by));
  float base[3];
  for (int c = 0; c < 3; ++c) base[c] = (e.dh[c] * offY + e.o[c]) + e.dw[c] * offX;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < 3; ++c) p.c[c][size_t(y) * width + x] = e.dw[c] * float(x) + base[c];
    for (int c = 0; c < 3; ++c) base[c] += e.dh[c];
  }
  return p;
}

bool differsSomewhere(const Planes3& a, const Planes3& b) {
  for (int c = 0; c < 3; ++c)
    for (size_t i = 0; i < a.c[c].size(); ++i)
      if (!velr::test::sameFloat(a.c[c][i], b.c[c][i])) return true;
  return false;
}

EyeCase randomEye(Rng& rng) {
  EyeCase e{};
  for (int c = 0; c < 3; ++c) {
    e.o[c] = rng.uniform(-1.3f, 1.3f);
    e.dw[c] = rng.uniform(-0.003f, 0.003f);
    e.dh[c] = rng.uniform(-0.003f, 0.003f);
  }
  e.bw = 1 + rng.below(40);
  e.bh = 1 + rng.below(40);
  e.bx = rng.below(64);
  e.by = rng.below(64);
  return e;
}

}  // namespace

TEST(CastEye, ChecksOnlyTheOutputTripleAndSkipsEmptyBlocks) {
  const float v[3] = {1, 2, 3};
  Planes3 out(16, 0, kSentinel);
  EXPECT_EQ(velrCastEye_32f(v, v, v, 4, 4, 0, 0, nullptr, 4, 4), velStsNullPtrErr);
  // The three input vectors are not checked; with nothing to write they are
  // not read either.
  for (auto [w, h] : {std::pair{0, 4}, {4, 0}, {-4, 3}, {3, -1}})
    EXPECT_EQ(velrCastEye_32f(nullptr, nullptr, nullptr, 4, 4, 0, 0, out.out(), w, h),
              velStsNoErr);
  for (int c = 0; c < 3; ++c)
    for (size_t i = 0; i < 16; ++i) EXPECT_EQ(out.c[c][i], kSentinel);
}

TEST(CastEye, WidthPicksTheEvaluationOrder) {
  velr::test::forEachTarget([](const std::string& target) {
    Rng rng(17);
    for (int width : {1, 3, 4, 6, 7, 8, 12, 16, 20, 36, 44, 68}) {
      for (int height : {1, 2, 5, 16}) {
        SCOPED_TRACE(target + " " + std::to_string(width) + "x" + std::to_string(height));
        EyeCase e = randomEye(rng);
        if (height == 2) {  // block offsets whose 32-bit products wrap
          e.bw = 70000;
          e.bx = 70001;
        }
        const size_t n = size_t(width) * height;
        for (size_t offset : {0u, 1u}) {
          Planes3 out(n + 4, offset, kSentinel);
          ASSERT_EQ(velrCastEye_32f(e.o, e.dw, e.dh, e.bw, e.bh, e.bx, e.by, out.out(), width,
                                    height),
                    velStsNoErr);
          const Planes3 want = width % 4 == 0 ? eyeBlocks(e, width, height)
                                              : eyeOneRay(e, width, height);
          for (int c = 0; c < 3; ++c) {
            EXPECT_TRUE(samePlanes(out.c[c].data(), want.c[c].data(), n));
            for (size_t i = n; i < n + 4; ++i) EXPECT_EQ(out.c[c][i], kSentinel);  // rows packed
          }
        }
      }
    }
  });
  // The two orders really round differently on this kind of data, so the
  // comparison above tells the paths apart.
  Rng rng(5);
  bool differ = false;
  for (int k = 0; k < 8 && !differ; ++k) {
    const EyeCase e = randomEye(rng);
    differ = differsSomewhere(eyeBlocks(e, 16, 16), eyeOneRay(e, 16, 16));
  }
  EXPECT_TRUE(differ);
}

TEST(CastReflection, NullPointersAreReportedBeforeAnyWrite) {
  const float v[4] = {0, 0, 0, 0};
  const float* in3[3] = {v, v, v};
  float o[4] = {kSentinel, kSentinel, kSentinel, kSentinel};
  float* out3[3] = {o, o, o};
  const int32_t m[4] = {0, 0, 0, 0};
  velr::test::expectNullRejected<0, 1, 2, 3>(velrCastReflectionRay_32f, in3, m, in3, out3, 4);
  const float* null3[3] = {nullptr, nullptr, nullptr};
  EXPECT_EQ(velrCastReflectionRay_32f(null3, m, null3, out3, 0), velStsNoErr);
  for (float x : o) EXPECT_EQ(x, kSentinel);
}

TEST(CastReflection, LengthPicksTheSummationOrder) {
  velr::test::forEachTarget([](const std::string& target) {
    Rng rng(99);
    for (PacketShape s : velr::test::packetShapes()) {
      SCOPED_TRACE(velr::test::shapeName(target, s));
      const Planes3 inc = velr::test::randomPlanes(rng, s.len, s.offset, true);
      const Planes3 nrm = velr::test::randomPlanes(rng, s.len, s.offset, true);
      const Plane<int32_t> m = velr::test::randomMask(rng, s.len, s.offset);
      Planes3 out(s.len, s.offset, kSentinel), want(s.len, 0);
      for (size_t i = 0; i < s.len; ++i) {
        const float x = inc.c[0][i] * nrm.c[0][i], y = inc.c[1][i] * nrm.c[1][i],
                    z = inc.c[2][i] * nrm.c[2][i];
        const float d = s.len % 4 == 0 ? (x + y) + z : (y + z) + x;
        for (int c = 0; c < 3; ++c)
          want.c[c][i] = m[i] >= 0 ? inc.c[c][i] - nrm.c[c][i] * (d + d) : 0.0f;
      }
      ASSERT_EQ(velrCastReflectionRay_32f(inc.in(), m.data(), nrm.in(), out.out(), int(s.len)),
                velStsNoErr);
      for (int c = 0; c < 3; ++c) EXPECT_TRUE(samePlanes(out.c[c].data(), want.c[c].data(), s.len));
    }
  });
}

namespace {

const float kGrazing = velr::test::fromBits(0x3AE4C388u);

struct ShadowWant {
  Plane<float> dot;
  Planes3 dir;
  Plane<int32_t> mask;
};

// Blocks of four for the first len & ~3 rays, one-ray rules for the rest.
ShadowWant shadowReference(const float* light, const Plane<float>& dotRay, const Planes3& nrm,
                           const Planes3& pt, const Plane<int32_t>& mask, size_t len) {
  ShadowWant w{Plane<float>(len, 0), Planes3(len, 0), mask};
  for (size_t i = 0; i < len; ++i) {
    float s[3];
    for (int c = 0; c < 3; ++c) s[c] = pt.c[c][i] - light[c];
    const bool block = i < (len & ~size_t{3});
    const float d = block ? (nrm.c[0][i] * s[0] + nrm.c[1][i] * s[1]) + nrm.c[2][i] * s[2]
                          : (s[0] * nrm.c[0][i] + s[1] * nrm.c[1][i]) + s[2] * nrm.c[2][i];
    const bool valid = mask[i] >= 0 && std::fabs(d) >= kGrazing && dotRay[i] * d > 0;
    w.dot[i] = valid ? std::fabs(d) : 0.0f;
    for (int c = 0; c < 3; ++c) w.dir.c[c][i] = valid ? s[c] : 0.0f;
    if (!valid && (block || mask[i] >= 0)) w.mask[i] = -1;
  }
  return w;
}

}  // namespace

TEST(CastShadow, NullPointersAndSwitchedOffRays) {
  float f[8] = {};
  const float* in3[3] = {f, f, f};
  float out[8];
  float* out3[3] = {out, out, out};
  int32_t m[8] = {};
  const float light[3] = {0, 0, 0};
  velr::test::expectNullRejected<1, 2, 3, 4, 5, 6>(velrCastShadowSO_32f, light, f, in3, in3, m, out,
                                                   out3, 8);
  EXPECT_EQ(velrCastShadowSO_32f(nullptr, f, in3, in3, m, out, out3, 0), velStsNoErr);

  // Five rays already switched off with -5: the block of four is reset to
  // -1, the one-ray tail keeps its value.
  Planes3 nrm(5, 0, 1.0f), pt(5, 0, 2.0f), dir(5, 0, kSentinel);
  Plane<float> dotRay(5, 0, 1.0f), dot(5, 0, kSentinel);
  Plane<int32_t> mask(5, 0, -5);
  ASSERT_EQ(velrCastShadowSO_32f(light, dotRay.data(), nrm.in(), pt.in(), mask.data(), dot.data(),
                                 dir.out(), 5),
            velStsNoErr);
  const int32_t wantMask[5] = {-1, -1, -1, -1, -5};
  EXPECT_TRUE(sameInts(mask.data(), wantMask, 5));
  EXPECT_EQ(dot[4], 0.0f);
}

TEST(CastShadow, BlocksAndTailFollowTheirRules) {
  const float light[3] = {3, 4, 1.5f};
  velr::test::forEachTarget([&](const std::string& target) {
    Rng rng(2024);
    for (PacketShape s : velr::test::packetShapes()) {
      SCOPED_TRACE(velr::test::shapeName(target, s));
      Planes3 nrm = velr::test::randomPlanes(rng, s.len, s.offset, true);
      Planes3 pt(s.len, s.offset);
      Plane<float> dotRay = velr::test::randomPlane(rng, s.len, s.offset, true);
      for (size_t i = 0; i < s.len; ++i) {
        for (int c = 0; c < 3; ++c) pt.c[c][i] = light[c] + rng.uniform(-2, 2);
        // Some points put d right around the grazing limit.
        if (rng.below(5) == 0) {
          const float d = kGrazing * rng.uniform(0.5f, 1.5f) * (rng.below(2) ? 1 : -1);
          nrm.c[0][i] = 1.0f;
          nrm.c[1][i] = nrm.c[2][i] = 0.0f;
          pt.c[0][i] = light[0] + d;
        }
        if (rng.below(9) == 0) dotRay[i] = rng.below(2) ? HUGE_VALF : 0.0f;
      }
      const Plane<int32_t> mask0 = velr::test::randomMask(rng, s.len, s.offset);
      const ShadowWant want = shadowReference(light, dotRay, nrm, pt, mask0, s.len);
      Plane<int32_t> mask = mask0;
      Plane<float> dot(s.len, s.offset, kSentinel);
      Planes3 dir(s.len, s.offset, kSentinel);
      ASSERT_EQ(velrCastShadowSO_32f(light, dotRay.data(), nrm.in(), pt.in(), mask.data(),
                                     dot.data(), dir.out(), int(s.len)),
                velStsNoErr);
      EXPECT_TRUE(sameInts(mask.data(), want.mask.data(), s.len));
      EXPECT_TRUE(samePlanes(dot.data(), want.dot.data(), s.len));
      for (int c = 0; c < 3; ++c)
        EXPECT_TRUE(samePlanes(dir.c[c].data(), want.dir.c[c].data(), s.len));
    }
  });
}
