#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "common/targets.h"
#include "sh/reference.h"
#include "velr.h"

namespace {

using velr::test::Directions;
using velr::test::randomDirections;
using velr::test::referenceBasis;

using Context = velr::test::SHContext;

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * 4) == 0;
}

TEST(SHTransforms, SmallCases) {
  const float y00 = 0.28209479177387814f, y10 = 0.4886025119029199f;
  Context ctx(1, 0);
  const float x[1] = {0}, y[1] = {0}, z[1] = {1}, one[1] = {1};
  std::vector<float> c(4, 0.0f);
  ASSERT_EQ(velrSHTFwd_32f_C1I(x, y, z, one, 1, c.data(), 1, ctx.state()), velStsNoErr);
  EXPECT_EQ(c, (std::vector<float>{y00, 0, y10, 0}));
  ASSERT_EQ(velrSHTFwd_32f_C1I(x, y, z, one, 1, c.data(), 1, ctx.state()), velStsNoErr);
  EXPECT_EQ(c, (std::vector<float>{2 * y00, 0, 2 * y10, 0}));

  const Directions d = randomDirections(21, 4);
  const float constant[4] = {1, 0, 0, 0};
  std::vector<float> v(21);
  ASSERT_EQ(velrSHTInv_32f_C1(constant, 1, d.x.data(), d.y.data(), d.z.data(), v.data(), 21,
                              ctx.state()),
            velStsNoErr);
  for (float f : v) EXPECT_EQ(f, y00);

  // A zero sample adds zeros, even where the basis is infinite (a direction
  // far off the sphere).
  const float far[1] = {1e30f}, zero[1] = {0};
  std::vector<float> acc = {1, 2, 3, 4};
  ASSERT_EQ(velrSHTFwd_32f_C1I(far, y, y, zero, 1, acc.data(), 1, ctx.state()), velStsNoErr);
  EXPECT_EQ(acc, (std::vector<float>{1, 2, 3, 4}));
}

// Gauss-Legendre nodes in z times equally spaced azimuths integrate every
// product of two functions of bands <= L exactly, so projecting a
// band-limited function sampled there recovers its coefficients, and the
// inverse transform then reproduces it anywhere.
TEST(SHTransforms, ForwardThenInverseReproducesBandLimitedFunctions) {
  for (int algorithm : {0, 1}) {
    for (int order : {3, 7, 15}) {
      const int nz = order + 1, nphi = 2 * order + 2, nv = (order + 1) * (order + 1);
      std::vector<double> zs, ws;
      for (int i = 0; i < nz; ++i) {  // Newton on P_nz from the Chebyshev guess
        long double t = std::cos(3.14159265358979L * (i + 0.75L) / (nz + 0.5L)), dp = 0;
        for (int it = 0; it < 100; ++it) {
          long double p0 = 1, p1 = t;
          for (int k = 2; k <= nz; ++k) {
            const long double p2 = ((2 * k - 1) * t * p1 - (k - 1) * p0) / k;
            p0 = p1;
            p1 = p2;
          }
          if (nz == 1) p0 = 1;
          dp = nz * (t * p1 - p0) / (t * t - 1);
          t -= p1 / dp;
        }
        zs.push_back(static_cast<double>(t));
        ws.push_back(static_cast<double>(2 / ((1 - t * t) * dp * dp)));
      }
      std::vector<double> coeff(nv);
      velr::test::Directions dir = randomDirections(0, 0);
      for (int k = 0; k < nv; ++k) coeff[k] = std::sin(1.7 * k + order);
      std::vector<float> samples;
      for (int i = 0; i < nz; ++i) {
        for (int j = 0; j < nphi; ++j) {
          const double phi = 2 * 3.141592653589793 * j / nphi, r = std::sqrt(1 - zs[i] * zs[i]);
          dir.x.push_back(static_cast<float>(r * std::cos(phi)));
          dir.y.push_back(static_cast<float>(r * std::sin(phi)));
          dir.z.push_back(static_cast<float>(zs[i]));
          const auto ref = referenceBasis(dir.x.back(), dir.y.back(), dir.z.back(), order);
          long double f = 0;
          for (int k = 0; k < nv; ++k) f += coeff[k] * ref[k];
          samples.push_back(static_cast<float>(f * ws[i] * 2 * 3.141592653589793 / nphi));
        }
      }
      Context ctx(order, algorithm);
      std::vector<float> got(nv, 0.0f);
      ASSERT_EQ(velrSHTFwd_32f_C1I(dir.x.data(), dir.y.data(), dir.z.data(), samples.data(),
                                   static_cast<int>(samples.size()), got.data(), order,
                                   ctx.state()),
                velStsNoErr);
      for (int k = 0; k < nv; ++k) EXPECT_NEAR(got[k], coeff[k], 2e-5) << order << " " << k;

      const Directions probe = randomDirections(100, 17);
      std::vector<float> values(100);
      ASSERT_EQ(velrSHTInv_32f_C1(got.data(), order, probe.x.data(), probe.y.data(),
                                  probe.z.data(), values.data(), 100, ctx.state()),
                velStsNoErr);
      for (int i = 0; i < 100; ++i) {
        const auto ref = referenceBasis(probe.x[i], probe.y[i], probe.z[i], order);
        long double f = 0;
        for (int k = 0; k < nv; ++k) f += coeff[k] * ref[k];
        EXPECT_NEAR(values[i], static_cast<double>(f), 2e-4) << order << " " << i;
      }
    }
  }
}

// The three-channel forms are three one-channel transforms, bit for bit, on
// every target; the one-channel forms themselves agree across targets.
TEST(SHTransforms, ChannelLayoutsAndTargets) {
  const int n = 77, order = 5, nv = 36;
  const Directions d = randomDirections(n, 23);
  std::vector<float> c3(3 * n);
  for (int i = 0; i < 3 * n; ++i) c3[i] = (i % 7 == 0) ? 0.0f : (i % 5 == 0) ? 1.0f : std::cos(0.3f * i);
  std::vector<float> planes[3];
  for (int c = 0; c < 3; ++c) {
    for (int i = 0; i < n; ++i) planes[c].push_back(c3[3 * i + c]);
  }
  std::vector<std::vector<float>> first;
  velr::test::forEachTarget([&](const std::string& target) {
    for (int algorithm : {0, 1}) {
      Context ctx(order, algorithm);
      const VelrSHState* s = ctx.state();
      std::vector<float> one[3], fromC3[3], fromP3[3];
      for (int c = 0; c < 3; ++c) {
        one[c].assign(nv, 0.5f * c);
        fromC3[c] = fromP3[c] = one[c];
        velrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), planes[c].data(), n,
                           one[c].data(), order, s);
      }
      Vel32f* const outC3[3] = {fromC3[0].data(), fromC3[1].data(), fromC3[2].data()};
      Vel32f* const outP3[3] = {fromP3[0].data(), fromP3[1].data(), fromP3[2].data()};
      const Vel32f* const src[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
      velrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), c3.data(), n, outC3, order, s);
      velrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), src, n, outP3, order, s);

      std::vector<float> inv[3], invP3[3], invC3(3 * n);
      const Vel32f* const coeffs[3] = {one[0].data(), one[1].data(), one[2].data()};
      for (int c = 0; c < 3; ++c) {
        inv[c].resize(n);
        invP3[c].resize(n);
        velrSHTInv_32f_C1(coeffs[c], order, d.x.data(), d.y.data(), d.z.data(), inv[c].data(), n,
                          s);
      }
      Vel32f* const dstP3[3] = {invP3[0].data(), invP3[1].data(), invP3[2].data()};
      velrSHTInv_32f_P3(coeffs, order, d.x.data(), d.y.data(), d.z.data(), dstP3, n, s);
      velrSHTInv_32f_P3C3(coeffs, order, d.x.data(), d.y.data(), d.z.data(), invC3.data(), n, s);

      std::vector<std::vector<float>> results;
      for (int c = 0; c < 3; ++c) {
        EXPECT_TRUE(sameBits(fromC3[c], one[c])) << target << " " << algorithm << " " << c;
        EXPECT_TRUE(sameBits(fromP3[c], one[c])) << target << " " << algorithm << " " << c;
        EXPECT_TRUE(sameBits(invP3[c], inv[c])) << target << " " << algorithm << " " << c;
        for (int i = 0; i < n; ++i) ASSERT_EQ(invC3[3 * i + c], inv[c][i]) << target << " " << i;
        results.push_back(one[c]);
        results.push_back(inv[c]);
      }
      if (first.size() < 12) first.insert(first.end(), results.begin(), results.end());
      for (size_t r = 0; r < results.size(); ++r) {
        EXPECT_TRUE(sameBits(results[r], first[algorithm * 6 + r])) << target << " " << r;
      }
    }
  });
}

TEST(SHTransforms, ChecksInOrderAndNothingWrittenOnFailure) {
  Context ctx(2, 0), rec(20, 1);
  const VelrSHState* s = ctx.state();
  const float x[1] = {0}, z[1] = {1};
  std::vector<float> out(300, -5.0f);
  const std::vector<float> untouched = out;
  float* o = out.data();
  Vel32f* const o3[3] = {o, o + 100, o + 200};
  Vel32f* const o3null[3] = {o, nullptr, o + 200};
  const Vel32f* const in3[3] = {x, x, x};
  const Vel32f* const in3null[3] = {x, x, nullptr};

  EXPECT_EQ(velrSHTFwd_32f_C1I(x, x, z, nullptr, 1, o, 2, s), velStsNullPtrErr);
  EXPECT_EQ(velrSHTFwd_32f_C1I(x, x, z, x, 1, o, 2, nullptr), velStsNullPtrErr);
  EXPECT_EQ(velrSHTFwd_32f_C3P3I(x, x, z, x, 1, o3null, 2, s), velStsNullPtrErr);
  EXPECT_EQ(velrSHTFwd_32f_C3P3I(x, x, z, x, 1, nullptr, 2, s), velStsNullPtrErr);
  EXPECT_EQ(velrSHTFwd_32f_P3I(x, x, z, in3null, 1, o3, 2, s), velStsNullPtrErr);
  EXPECT_EQ(velrSHTInv_32f_C1(x, 2, x, nullptr, z, o, 1, s), velStsNullPtrErr);
  EXPECT_EQ(velrSHTInv_32f_P3(in3, 2, x, x, z, o3null, 1, s), velStsNullPtrErr);
  EXPECT_EQ(velrSHTInv_32f_P3C3(in3null, 2, x, x, z, o, 1, s), velStsNullPtrErr);

  EXPECT_EQ(velrSHTFwd_32f_C1I(x, x, z, x, 0, o, 9, s), velStsSizeErr);  // before the order
  EXPECT_EQ(velrSHTInv_32f_P3(in3, 9, x, x, z, o3, 0, s), velStsSizeErr);
  EXPECT_EQ(velrSHTFwd_32f_P3I(x, x, z, in3, -1, o3, 3, s), velStsRangeErr);  // before len < 0
  EXPECT_EQ(velrSHTInv_32f_P3C3(in3, 3, x, x, z, o, 1, s), velStsRangeErr);
  EXPECT_EQ(velrSHTFwd_32f_C3P3I(x, x, z, x, -4, o3, 2, s), velStsNoErr);
  EXPECT_EQ(velrSHTInv_32f_C1(x, 2, x, x, z, o, -4, s), velStsNoErr);
  // A recurrence context passes orders above 15, which cannot be evaluated.
  EXPECT_EQ(velrSHTFwd_32f_C1I(x, x, z, x, 1, o, 16, rec.state()), velStsRangeErr);
  EXPECT_EQ(velrSHTInv_32f_P3(in3, 16, x, x, z, o3, 1, rec.state()), velStsRangeErr);
  EXPECT_EQ(out, untouched);
}

}  // namespace
