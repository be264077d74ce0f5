#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
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

std::vector<float> evalSH(const Directions& d, int order, int algorithm, size_t first = 0) {
  Context ctx(15, algorithm);
  const int n = static_cast<int>(d.x.size() - first);
  std::vector<float> out(static_cast<size_t>(n) * (order + 1) * (order + 1));
  EXPECT_EQ(velrSH_32f(&d.x[first], &d.y[first], &d.z[first], n, out.data(), order, ctx.state()),
            velStsNoErr);
  return out;
}

// Spacing of floats at |v|.
float ulpAt(long double v) {
  float f = std::fabs(static_cast<float>(v));
  std::uint32_t bits;
  std::memcpy(&bits, &f, 4);
  ++bits;
  float next;
  std::memcpy(&next, &bits, 4);
  return next - f;
}

Directions withSpecialDirections(Directions d) {
  const float s = std::sqrt(1.0f / 3), t = 0.00034526698f;  // t: z = 1 - 6e-8
  const float special[][3] = {{0, 0, 1},  {0, 0, -1}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0},
                              {0, -1, 0}, {s, s, s},  {-s, s, -s}, {t, 0, 0.99999994f}};
  for (const auto& p : special) {
    d.x.push_back(p[0]);
    d.y.push_back(p[1]);
    d.z.push_back(p[2]);
  }
  return d;
}

TEST(SHBasis, ClosedFormWithinOneUlpOfExactValue) {
  const Directions all = withSpecialDirections(randomDirections(1000000, 7));
  const size_t n = all.x.size(), chunk = 4096;
  // Worst error in ULPs where values are not tiny, and worst error relative
  // to the bound max(1 ULP, 1e-7) everywhere.
  double worstUlps = 0, worstBound = 0;
  for (size_t first = 0; first < n; first += chunk) {
    const size_t count = std::min(chunk, n - first);
    Directions d;
    d.x.assign(&all.x[first], &all.x[first] + count);
    d.y.assign(&all.y[first], &all.y[first] + count);
    d.z.assign(&all.z[first], &all.z[first] + count);
    const std::vector<float> out = evalSH(d, 15, 0);
    for (size_t i = 0; i < count; ++i) {
      const auto ref = referenceBasis(d.x[i], d.y[i], d.z[i], 15);
      for (int k = 0; k < 256; ++k) {
        const double err = static_cast<double>(std::fabs(out[i * 256 + k] - ref[k]));
        const double ulp = ulpAt(ref[k]);
        worstBound = std::fmax(worstBound, err / std::fmax(ulp, 1e-7));
        if (std::fabs(ref[k]) >= 1e-4L) worstUlps = std::fmax(worstUlps, err / ulp);
      }
    }
  }
  std::printf("closed form, %zu directions: worst %.4f ULP (values >= 1e-4), "
              "worst %.4f of max(1 ULP, 1e-7)\n", n, worstUlps, worstBound);
  EXPECT_LE(worstBound, 1.0);
}

// The first bands fix the sign convention: odd |m| negative on
// both the cos and the sin side.
TEST(SHBasis, FirstBandsFollowTheConvention) {
  Directions d = randomDirections(64, 3);
  const std::vector<float> out = evalSH(d, 3, 0);
  for (size_t i = 0; i < d.x.size(); ++i) {
    const double x = d.x[i], y = d.y[i], z = d.z[i];
    const double expected[16] = {0.28209479177387814,
                                 -0.4886025119029199 * y,
                                 0.4886025119029199 * z,
                                 -0.4886025119029199 * x,
                                 1.092548430592079 * x * y,
                                 -1.092548430592079 * y * z,
                                 0.31539156525252 * (3 * z * z - 1),
                                 -1.092548430592079 * x * z,
                                 0.5462742152960395 * (x * x - y * y),
                                 -0.5900435899266435 * (3 * x * x * y - y * y * y),
                                 2.890611442640554 * x * y * z,
                                 -0.4570457994644657 * y * (5 * z * z - 1),
                                 0.3731763325901154 * z * (5 * z * z - 3),
                                 -0.4570457994644657 * x * (5 * z * z - 1),
                                 1.445305721320277 * z * (x * x - y * y),
                                 -0.5900435899266435 * (x * x * x - 3 * x * y * y)};
    for (int k = 0; k < 16; ++k) {
      EXPECT_NEAR(out[i * 16 + k], expected[k], std::fmax(ulpAt(expected[k]), 1e-7f)) << k;
    }
  }

  const float px[1] = {0}, py[1] = {0}, pz[1] = {1}, ux[1] = {1};
  for (int algorithm : {0, 1}) {
    Context ctx(2, algorithm);
    float v[9];
    ASSERT_EQ(velrSH_32f(px, py, pz, 1, v, 2, ctx.state()), velStsNoErr);
    const float pole[9] = {0.28209479f, 0, 0.48860252f, 0, 0, 0, 0.63078313f, 0, 0};
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(v[k], pole[k], 1e-7f) << algorithm << " " << k;
    ASSERT_EQ(velrSH_32f(ux, py, py, 1, v, 1, ctx.state()), velStsNoErr);
    EXPECT_NEAR(v[3], -0.48860252f, 1e-7f);
    ASSERT_EQ(velrSH_32f(ux, py, py, 1, v, 0, ctx.state()), velStsNoErr);
    std::uint32_t bits;
    std::memcpy(&bits, v, 4);
    EXPECT_EQ(bits, 0x3E906EBBu);
  }
}

TEST(SHBasis, RecurrenceAgreesWithExactValue) {
  const Directions d = withSpecialDirections(randomDirections(20000, 11));
  const std::vector<float> out = evalSH(d, 15, 1);
  double worst = 0;
  int worstK = 0;
  for (size_t i = 0; i < d.x.size(); ++i) {
    const auto ref = referenceBasis(d.x[i], d.y[i], d.z[i], 15);
    for (int k = 0; k < 256; ++k) {
      const double e = static_cast<double>(std::fabs(out[i * 256 + k] - ref[k]));
      if (e > worst) { worst = e; worstK = k; }
    }
  }
  std::printf("recurrence: worst absolute error %.3g at %d\n", worst, worstK);
  EXPECT_LT(worst, 1e-5);
}

// Sum over bands 0..L of Y^2 is (L + 1)^2 / (4 pi) for every unit direction.
// Float directions are unit only to about 1e-7, and the polynomials are not
// homogeneous, so the bound grows with the band and the length error.
TEST(SHBasis, AdditionTheoremOnBothAlgorithms) {
  const Directions d = randomDirections(500, 5);
  double worst[2] = {0, 0};
  for (int algorithm : {0, 1}) {
    for (int order = 0; order <= 15; ++order) {
      const std::vector<float> out = evalSH(d, order, algorithm);
      const int nv = (order + 1) * (order + 1);
      const double expected = nv / (4 * 3.141592653589793);
      for (size_t i = 0; i < d.x.size(); ++i) {
        const double r2 = double(d.x[i]) * d.x[i] + double(d.y[i]) * d.y[i] +
                          double(d.z[i]) * d.z[i];
        double sum = 0;
        for (int k = 0; k < nv; ++k) sum += double(out[i * nv + k]) * out[i * nv + k];
        const double rel = std::fabs(sum / expected - 1) / (1e-7 + 2 * order * std::fabs(r2 - 1));
        worst[algorithm] = std::fmax(worst[algorithm], rel);
      }
    }
  }
  std::printf("addition theorem: worst %.3f (closed), %.3f (recurrence) of the bound\n",
              worst[0], worst[1]);
  EXPECT_LE(worst[0], 4.0);
  EXPECT_LE(worst[1], 40.0);
}

TEST(SHBasis, BandIsTheSliceOfTheFullEvaluation) {
  const Directions d = withSpecialDirections(randomDirections(1001, 9));
  const std::vector<float> full = evalSH(d, 15, 0, 1);  // misaligned, odd length
  const size_t n = d.x.size() - 1;
  for (int band = 0; band <= 15; ++band) {
    const int w = 2 * band + 1;
    std::vector<float> out(n * w);
    ASSERT_EQ(velrSHBand_32f(&d.x[1], &d.y[1], &d.z[1], static_cast<int>(n), out.data(), band),
              velStsNoErr);
    for (size_t i = 0; i < n; ++i) {
      ASSERT_EQ(std::memcmp(&out[i * w], &full[i * 256 + band * band], w * 4), 0)
          << band << " " << i;
    }
  }
}

// Outputs of several megabytes take the cache-bypassing path, whatever the
// alignment of the destination; they must hold what short calls write.
TEST(SHBasis, LargeOutputsMatchShortCalls) {
  const Directions d = randomDirections(40000, 21);
  const int n = 40000;
  for (int offset : {0, 1, 3}) {
    for (int band : {4, 15}) {
      const int w = 2 * band + 1;
      std::vector<float> big(n * w + offset), small(n * w);
      ASSERT_EQ(velrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), n, big.data() + offset, band),
                velStsNoErr);
      for (int i = 0; i < n; i += 100) {
        velrSHBand_32f(&d.x[i], &d.y[i], &d.z[i], 100, &small[i * w], band);
      }
      ASSERT_EQ(std::memcmp(big.data() + offset, small.data(), small.size() * 4), 0);
    }
    Context ctx(15, 1);
    const int m = 4500;
    std::vector<float> big(m * 256 + offset), small(m * 256);
    ASSERT_EQ(velrSH_32f(d.x.data(), d.y.data(), d.z.data(), m, big.data() + offset, 15,
                         ctx.state()),
              velStsNoErr);
    for (int i = 0; i < m; i += 100) {
      velrSH_32f(&d.x[i], &d.y[i], &d.z[i], 100, &small[i * 256], 15, ctx.state());
    }
    ASSERT_EQ(std::memcmp(big.data() + offset, small.data(), small.size() * 4), 0);
  }
}

TEST(SHBasis, EveryTargetGivesTheSameBits) {
  Directions d = randomDirections(45, 13);
  d.x[7] = 1e30f;  // values overflow to infinity on every target alike
  d.z[8] = -3e9f;
  std::vector<std::vector<float>> first;
  velr::test::forEachTarget([&](const std::string& target) {
    std::vector<std::vector<float>> results;
    for (int algorithm : {0, 1}) {
      for (int order = 0; order <= 15; ++order) results.push_back(evalSH(d, order, algorithm, 2));
    }
    for (int band = 0; band <= 15; ++band) {
      std::vector<float> out(43 * (2 * band + 1));
      velrSHBand_32f(&d.x[2], &d.y[2], &d.z[2], 43, out.data(), band);
      results.push_back(out);
    }
    if (first.empty()) first = results;
    for (size_t r = 0; r < results.size(); ++r) {
      EXPECT_EQ(std::memcmp(results[r].data(), first[r].data(), results[r].size() * 4), 0)
          << target << " result " << r;
    }
  });
}

TEST(SHBasis, ChecksInOrderAndNothingWrittenOnFailure) {
  Context ctx2(2, 0), rec20(20, 1);
  const float x[2] = {0, 0}, z[2] = {1, 1};
  std::vector<float> out(600, -5.0f);
  const std::vector<float> untouched = out;
  auto sh = [&](const float* px, float* dst, int len, Vel32u order, const VelrSHState* s) {
    return velrSH_32f(px, x, z, len, dst, order, s);
  };
  EXPECT_EQ(sh(nullptr, out.data(), 1, 0, ctx2.state()), velStsNullPtrErr);
  EXPECT_EQ(sh(x, nullptr, 1, 0, ctx2.state()), velStsNullPtrErr);
  EXPECT_EQ(sh(x, out.data(), 1, 0, nullptr), velStsNullPtrErr);
  EXPECT_EQ(velrSH_32f(x, nullptr, z, 1, out.data(), 0, ctx2.state()), velStsNullPtrErr);
  EXPECT_EQ(velrSH_32f(x, x, nullptr, 1, out.data(), 0, ctx2.state()), velStsNullPtrErr);
  EXPECT_EQ(sh(x, out.data(), 0, 3, ctx2.state()), velStsSizeErr);
  EXPECT_EQ(sh(x, out.data(), -1, 3, ctx2.state()), velStsNoErr);  // before the order check
  EXPECT_EQ(sh(x, out.data(), 1, 3, ctx2.state()), velStsRangeErr);
  EXPECT_EQ(sh(x, out.data(), 1, 16, rec20.state()), velStsRangeErr);
  VelrSHState bad = *ctx2.state();
  bad.algorithm = 2;
  EXPECT_EQ(sh(x, out.data(), 1, 0, &bad), velStsRangeErr);
  EXPECT_EQ(velrSHBand_32f(x, x, z, 0, out.data(), 16), velStsRangeErr);  // band first
  EXPECT_EQ(velrSHBand_32f(x, x, z, 0, out.data(), 2), velStsSizeErr);
  EXPECT_EQ(velrSHBand_32f(x, x, z, -3, out.data(), 2), velStsNoErr);
  EXPECT_EQ(velrSHBand_32f(x, x, nullptr, 1, out.data(), 2), velStsNullPtrErr);
  EXPECT_EQ(out, untouched);

  EXPECT_EQ(sh(x, out.data(), 2, 15, rec20.state()), velStsNoErr);
  EXPECT_NE(out, untouched);
  EXPECT_EQ(out[512], -5.0f);  // exactly 2 * 256 values
}

}  // namespace
