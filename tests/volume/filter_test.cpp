// 3-D convolution of Vel16s volumes, checked against a brute-force
// reference: 64-bit sums, wrapped to 32 bits on the integer paths, divided
// exactly (integer paths) or by the single-precision reciprocal (float
// path), rounded half to even and saturated.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "common/targets.h"
#include "common/threads.h"
#include "velr.h"

namespace {

// Source volume whose planes and plane array cover exactly the
// neighbourhood the filter may read, each plane its own allocation, so a
// sanitizer build catches any read outside it.
class Source {
 public:
  Source(VelrVolume dst, VelrVolume k, VelrPoint a, int rowPad = 0)
      : x0_(a.x - (k.width - 1)), y0_(a.y - (k.height - 1)), z0_(a.z - (k.depth - 1)) {
    cols_ = dst.width + k.width - 1;
    rows_ = dst.height + k.height - 1;
    stride_ = cols_ + rowPad;
    const int planes = dst.depth + k.depth - 1;
    for (int i = 0; i < planes; ++i) {
      store_.emplace_back(new Vel16s[static_cast<size_t>(rows_) * stride_]());
    }
    ptrs_.resize(planes);
    for (int i = 0; i < planes; ++i) ptrs_[i] = store_[i].get() - x0_ - static_cast<ptrdiff_t>(y0_) * stride_;
  }
  Vel16s& at(int x, int y, int z) {
    return store_[z - z0_][static_cast<size_t>(y - y0_) * stride_ + (x - x0_)];
  }
  Vel16s at(int x, int y, int z) const {
    return store_[z - z0_][static_cast<size_t>(y - y0_) * stride_ + (x - x0_)];
  }
  // Sets every voxel to fn(x, y, z).
  template <class Fn>
  void fill(Fn&& fn) {
    for (int z = z0_; z < z0_ + static_cast<int>(store_.size()); ++z)
      for (int y = y0_; y < y0_ + rows_; ++y)
        for (int x = x0_; x < x0_ + cols_; ++x) at(x, y, z) = fn(x, y, z);
  }
  const Vel16s* const* planes() const { return ptrs_.data() - z0_; }
  int step() const { return 2 * stride_; }

 private:
  int x0_, y0_, z0_, cols_ = 0, rows_ = 0, stride_ = 0;
  std::vector<std::unique_ptr<Vel16s[]>> store_;
  std::vector<const Vel16s*> ptrs_;
};

class Dest {
 public:
  explicit Dest(VelrVolume d, Vel16s fill = 0x5A5A) : d_(d) {
    for (int z = 0; z < d.depth; ++z) {
      store_.emplace_back(new Vel16s[static_cast<size_t>(d.width) * d.height]);
      std::fill_n(store_.back().get(), static_cast<size_t>(d.width) * d.height, fill);
      ptrs_.push_back(store_.back().get());
    }
  }
  Vel16s at(int x, int y, int z) const { return store_[z][static_cast<size_t>(y) * d_.width + x]; }
  Vel16s* const* planes() const { return ptrs_.data(); }
  int step() const { return 2 * d_.width; }
  std::vector<Vel16s> all() const {
    std::vector<Vel16s> v;
    for (const auto& p : store_) v.insert(v.end(), p.get(), p.get() + static_cast<size_t>(d_.width) * d_.height);
    return v;
  }

 private:
  VelrVolume d_;
  std::vector<std::unique_ptr<Vel16s[]>> store_;
  std::vector<Vel16s*> ptrs_;
};

struct Kernel {
  VelrVolume k;
  std::vector<Vel32s> c;  // x fastest, then y, then z
  Vel32s& at(int i, int j, int l) { return c[(static_cast<size_t>(l) * k.height + j) * k.width + i]; }
  Vel32s at(int i, int j, int l) const { return c[(static_cast<size_t>(l) * k.height + j) * k.width + i]; }
};

Kernel zeroKernel(int kw, int kh, int kd) { return {{kw, kh, kd}, std::vector<Vel32s>(static_cast<size_t>(kw) * kh * kd)}; }

// Random kernel with taps in [-range, range] whose sum stays within the
// integer paths' limit.
Kernel randomKernel(int kw, int kh, int kd, int range, std::mt19937& rng) {
  Kernel k = zeroKernel(kw, kh, kd);
  std::uniform_int_distribution<int> u(-range, range);
  int64_t sum = 0;
  for (auto& v : k.c) sum += v = u(rng);
  for (auto& v : k.c)
    if (sum > 98301 && v > 0) sum -= 2 * static_cast<int64_t>(v), v = -v;
  return k;
}

int64_t exactSum(const Source& s, const Kernel& k, VelrPoint a, int x, int y, int z) {
  int64_t sum = 0;
  for (int l = 0; l < k.k.depth; ++l)
    for (int j = 0; j < k.k.height; ++j)
      for (int i = 0; i < k.k.width; ++i)
        sum += static_cast<int64_t>(k.at(i, j, l)) * s.at(x + a.x - i, y + a.y - j, z + a.z - l);
  return sum;
}

Vel16s expected(int64_t sum, int divisor, bool floatPath) {
  double q;
  if (floatPath) {
    q = static_cast<double>(static_cast<float>(sum)) * static_cast<double>(1.0f / static_cast<float>(divisor));
  } else {
    q = static_cast<double>(static_cast<int32_t>(static_cast<uint32_t>(sum))) / divisor;
  }
  q = std::fmin(std::fmax(q, -32768.0), 32767.0);
  return static_cast<Vel16s>(std::nearbyint(q));
}

// Runs the filter with a work buffer of exactly the queried size, placed at
// an odd address.
VelStatus run(const Source& s, Dest& d, VelrVolume dv, const Kernel& k, VelrPoint a, int divisor) {
  int size = 0;
  EXPECT_EQ(velrFilterGetBufSize(dv, k.k, 1, &size), velStsNoErr);
  std::vector<Vel8u> buffer(static_cast<size_t>(size) + 1);
  return velrFilter_16s_C1PV(s.planes(), s.step(), d.planes(), d.step(), dv, k.c.data(), k.k, a, divisor,
                             buffer.data() + 1);
}

// Number of voxels differing from the reference; reports the first.
int mismatches(const Source& s, const Dest& d, VelrVolume dv, const Kernel& k, VelrPoint a, int divisor,
               bool floatPath) {
  int bad = 0;
  for (int z = 0; z < dv.depth; ++z)
    for (int y = 0; y < dv.height; ++y)
      for (int x = 0; x < dv.width; ++x) {
        const int64_t sum = exactSum(s, k, a, x, y, z);
        const Vel16s want = expected(sum, divisor, floatPath);
        if (d.at(x, y, z) != want && bad++ == 0)
          ADD_FAILURE() << "voxel (" << x << "," << y << "," << z << ") sum " << sum << ": got "
                        << d.at(x, y, z) << ", want " << want;
      }
  return bad;
}

struct PathCase {
  VelrVolume dst;
  VelrVolume k;
  int divisor;
  bool floatPath;
  int srcRange;  // source values in [-srcRange, srcRange]
  int tapRange;
};

// -------------------------------------------------------------- statuses

TEST(FilterStatus, BufSizeChecksInOrderAndReportsThePerThreadSum) {
  int size = -1;
  EXPECT_EQ(velrFilterGetBufSize({0, 1, 1}, {0, 1, 1}, 3, nullptr), velStsNullPtrErr);
  const VelrVolume good{17, 2, 3};
  for (int i = 0; i < 6; ++i) {
    VelrVolume d = good, k{5, 3, 2};
    int* f[6] = {&d.width, &d.height, &d.depth, &k.width, &k.height, &k.depth};
    *f[i] = 0;
    EXPECT_EQ(velrFilterGetBufSize(d, k, 3, &size), velStsSizeErr) << i;
  }
  EXPECT_EQ(velrFilterGetBufSize(good, {5, 3, 2}, 3, &size), velStsNumChannelsErr);
  EXPECT_EQ(size, -1);

  // Pairs of 32 bytes (3 per row of 5), a line of 32 sums, 64 spare bytes.
  velSetNumThreads(1);
  EXPECT_EQ(velrFilterGetBufSize(good, {5, 3, 2}, 1, &size), velStsNoErr);
  EXPECT_EQ(size, 32 * 3 * 3 * 2 + 4 * 32 + 64);
  velSetNumThreads(3);
  EXPECT_EQ(velrFilterGetBufSize(good, {5, 3, 2}, 1, &size), velStsNoErr);
  EXPECT_EQ(size, 3 * (32 * 3 * 3 * 2 + 4 * 32 + 64));
  velSetNumThreads(0);
  // A size that an int cannot report is a size error.
  EXPECT_EQ(velrFilterGetBufSize(good, {4096, 4096, 4096}, 1, &size), velStsSizeErr);
}

TEST(FilterStatus, FilterChecksInOrderAndWritesNothingOnFailure) {
  const VelrVolume dv{4, 3, 2};
  Kernel k = zeroKernel(1, 1, 1);
  k.c[0] = 1;
  const VelrPoint a{0, 0, 0};
  Source s(dv, k.k, a);
  Dest d(dv);
  Vel8u buf[1024];
  auto call = [&](const Vel16s* const* src, Vel16s* const* dst, const Vel32s* ker, VelrVolume v,
                  VelrVolume kv, int divisor, Vel8u* b) {
    return velrFilter_16s_C1PV(src, s.step(), dst, d.step(), v, ker, kv, a, divisor, b);
  };
  const VelrVolume bad{0, 3, 2};
  EXPECT_EQ(call(nullptr, d.planes(), k.c.data(), bad, bad, 0, nullptr), velStsNullPtrErr);
  EXPECT_EQ(call(s.planes(), nullptr, k.c.data(), dv, k.k, 1, buf), velStsNullPtrErr);
  EXPECT_EQ(call(s.planes(), d.planes(), nullptr, dv, k.k, 1, buf), velStsNullPtrErr);
  EXPECT_EQ(call(s.planes(), d.planes(), k.c.data(), bad, bad, 0, nullptr), velStsNullPtrErr);
  for (VelrVolume v : {VelrVolume{0, 3, 2}, VelrVolume{4, 0, 2}, VelrVolume{4, 3, 0}})
    EXPECT_EQ(call(s.planes(), d.planes(), k.c.data(), v, k.k, 1, buf), velStsSizeErr);
  for (VelrVolume kv : {VelrVolume{0, 1, 1}, VelrVolume{1, 0, 1}, VelrVolume{1, 1, 0}})
    EXPECT_EQ(call(s.planes(), d.planes(), k.c.data(), dv, kv, 0, buf), velStsSizeErr);
  // A zero divisor is reported as a size error.
  EXPECT_EQ(call(s.planes(), d.planes(), k.c.data(), dv, k.k, 0, buf), velStsSizeErr);
  for (Vel16s v : d.all()) ASSERT_EQ(v, 0x5A5A);
}

// ---------------------------------------------------- documented examples

// One voxel per case: kernel size, the single source value under the tap
// with coefficient c, divisor, expected output.
TEST(Filter, SmallExamplesRoundHalfToEven) {
  struct Ex {
    int n;  // kernel n x n x n, tap at the centre, W = 16 so cubes take an integer path
    Vel32s c;
    Vel16s v;
    int divisor;
    Vel16s want;
  };
  const Ex cases[] = {
      {1, 1, -1234, 1, -1234}, {1, 3, 1, 2, 2},      {1, 3, 3, 2, 4},      {1, 3, -1, 2, -2},
      {3, 6, 1, 4, 2},         {3, 10, 1, 4, 2},     {3, -6, 1, 4, -2},    {3, 1, -32768, -1, 32767},
      {1, 1, -32768, -1, 32767}, {3, 5, 1, 10, 0},   {1, 5, 1, 10, 1},     {3, 5, -1, 10, 0},
      {3, 3, 5, 2, 8},         {5, 7, 1, 2, 4},      {5, 9, 1, 2, 4},      {3, 1, 1, -2, 0},
  };
  velr::test::forEachTarget([&](const std::string& target) {
    for (const Ex& e : cases) {
      const VelrVolume dv{16, 1, 1};
      Kernel k = zeroKernel(e.n, e.n, e.n);
      const int h = e.n / 2;
      k.at(h, h, h) = e.c;
      const VelrPoint a{h, h, h};
      Source s(dv, k.k, a);
      s.at(7, 0, 0) = e.v;
      Dest d(dv);
      ASSERT_EQ(run(s, d, dv, k, a, e.divisor), velStsNoErr);
      EXPECT_EQ(d.at(7, 0, 0), e.want) << target << " n=" << e.n << " c=" << e.c << " v=" << e.v
                                        << " divisor=" << e.divisor;
      EXPECT_EQ(d.at(6, 0, 0), 0);
    }
  });
}

// ------------------------------------------------------ paths vs reference

void checkPaths(const PathCase* cases, size_t n, VelrPoint (*anchorOf)(VelrVolume)) {
  velr::test::forEachTarget([&](const std::string& target) {
    std::mt19937 rng(42);
    for (size_t i = 0; i < n; ++i) {
      const PathCase& c = cases[i];
      Kernel k = randomKernel(c.k.width, c.k.height, c.k.depth, c.tapRange, rng);
      const VelrPoint a = anchorOf(c.k);
      Source s(c.dst, c.k, a, static_cast<int>(i % 3));
      std::uniform_int_distribution<int> u(-c.srcRange, c.srcRange);
      s.fill([&](int, int, int) { return static_cast<Vel16s>(std::max(-32768, std::min(32767, u(rng)))); });
      Dest d(c.dst);
      ASSERT_EQ(run(s, d, c.dst, k, a, c.divisor), velStsNoErr);
      EXPECT_EQ(mismatches(s, d, c.dst, k, a, c.divisor, c.floatPath), 0)
          << target << " case " << i << ": " << c.k.width << "x" << c.k.height << "x" << c.k.depth
          << " W=" << c.dst.width << " divisor " << c.divisor;
    }
  });
}

VelrPoint centreAnchor(VelrVolume k) { return {k.width / 2, k.height / 2, k.depth / 2}; }

TEST(Filter, EveryPathMatchesTheReference) {
  // Moderate values exercise the rounding; full-range values the 32-bit
  // wrap of the integer sums and the saturation.
  const PathCase cases[] = {
      {{16, 3, 2}, {3, 3, 3}, 64, false, 300, 200},
      {{17, 2, 2}, {3, 3, 3}, 6, false, 300, 200},
      {{40, 6, 2}, {3, 3, 3}, -7, false, 300, 200},
      {{67, 2, 3}, {3, 3, 3}, 1, false, 100, 40},
      {{48, 2, 2}, {3, 3, 3}, 4096, false, 32768, 32766},
      {{16, 2, 2}, {5, 5, 5}, 4096, false, 300, 200},
      {{37, 7, 2}, {5, 5, 5}, 10, false, 300, 200},
      {{33, 2, 2}, {5, 5, 5}, 1, false, 32768, 32766},
      {{21, 3, 2}, {7, 3, 3}, 1024, false, 300, 200},
      {{33, 2, 3}, {4, 3, 3}, 3, false, 300, 200},
      {{16, 2, 2}, {3, 4, 5}, -64, false, 300, 200},
      {{50, 2, 2}, {6, 3, 4}, 1, false, 32768, 32766},
      {{9, 3, 2}, {2, 2, 2}, 8, true, 300, 200},
      {{23, 2, 3}, {1, 5, 3}, 10, true, 300, 200},
      {{40, 2, 2}, {3, 3, 2}, -6, true, 300, 200},
      {{15, 3, 2}, {3, 3, 3}, 64, true, 300, 200},
      {{5, 2, 2}, {3, 3, 3}, 1, true, 300, 200},
      {{19, 2, 2}, {9, 1, 1}, 3, true, 300, 200},
  };
  checkPaths(cases, sizeof(cases) / sizeof(cases[0]), centreAnchor);
}

// Extreme anchors: no border before the region, no border after it, mixed
// corners, and anchors outside the kernel. The source holds exactly the
// neighbourhood, so sanitizer builds also prove nothing else is read.
TEST(Filter, AnchorsAtCornersAndOutsideTheKernel) {
  const PathCase cases[] = {
      {{18, 5, 2}, {3, 3, 3}, 64, false, 300, 200},
      {{20, 6, 2}, {5, 5, 5}, 7, false, 300, 200},
      {{17, 2, 2}, {4, 3, 5}, 1, false, 300, 200},
      {{6, 2, 2}, {2, 3, 1}, 5, true, 300, 200},
  };
  VelrPoint (*anchors[])(VelrVolume) = {
      [](VelrVolume) { return VelrPoint{0, 0, 0}; },
      [](VelrVolume k) { return VelrPoint{k.width - 1, k.height - 1, k.depth - 1}; },
      [](VelrVolume k) { return VelrPoint{k.width - 1, 0, k.depth - 1}; },
      [](VelrVolume k) { return VelrPoint{0, k.height - 1, 0}; },
      [](VelrVolume k) { return VelrPoint{-2, k.height + 1, 1}; },
  };
  for (auto anchor : anchors) checkPaths(cases, sizeof(cases) / sizeof(cases[0]), anchor);
}

TEST(Filter, DivisorClassesIncludingNegative) {
  const int divisors[] = {1, 2, 4, 64, 1 << 14, 1 << 30, 3, 6, 10, 255, -1, -2, -64, -10, INT_MAX, INT_MIN};
  std::vector<PathCase> cases;
  for (int div : divisors) {
    cases.push_back({{24, 5, 2}, {3, 3, 3}, div, false, 2000, 2000});
    cases.push_back({{16, 2, 2}, {3, 3, 4}, div, false, 2000, 2000});
    cases.push_back({{7, 3, 2}, {3, 3, 3}, div, true, 300, 200});
  }
  checkPaths(cases.data(), cases.size(), centreAnchor);
}

// ------------------------------------------------------ path selection

// With divisor 10, a sum of 5 is a tie that the integer rule rounds to 0;
// the float path's reciprocal (slightly above 0.1) moves it to 1. A single
// source voxel of 1 under a tap of 5 therefore tells the paths apart.
int tieProbe(int kw, int kh, int kd, int width, std::initializer_list<Vel32s> extraTaps) {
  const VelrVolume dv{width, 1, 1};
  Kernel k = zeroKernel(kw, kh, kd);
  k.c[0] = 5;
  size_t i = k.c.size();
  for (Vel32s t : extraTaps) k.c[--i] = t;  // far from tap 0, never over the probe
  const VelrPoint a{0, 0, 0};
  Source s(dv, k.k, a);
  s.at(3, 0, 0) = 1;
  Dest d(dv);
  EXPECT_EQ(run(s, d, dv, k, a, 10), velStsNoErr);
  return d.at(3, 0, 0);
}

TEST(Filter, PathSelectionBoundaries) {
  velr::test::forEachTarget([&](const std::string& target) {
    SCOPED_TRACE(target);
    constexpr int kInteger = 0, kFloat = 1;
    // Coefficient sum 98301 versus 98302.
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {32766, 32766, 32764}), kInteger);
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {32766, 32766, 32765}), kFloat);
    // A negative sum is always within the limit.
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {-32767, -32767, -32767, -32767}), kInteger);
    // Coefficients 32766 versus 32767, -32767 versus -32768.
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {32766}), kInteger);
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {32767}), kFloat);
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {-32767}), kInteger);
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {-32768}), kFloat);
    // Width 15 versus 16.
    EXPECT_EQ(tieProbe(3, 3, 3, 15, {}), kFloat);
    EXPECT_EQ(tieProbe(3, 3, 3, 16, {}), kInteger);
    // The same limits on the 5x5x5 and generic paths; a failing kernel
    // never falls back to the generic 16-bit path.
    EXPECT_EQ(tieProbe(5, 5, 5, 16, {32766, 32766, 32764}), kInteger);
    EXPECT_EQ(tieProbe(5, 5, 5, 16, {32767}), kFloat);
    EXPECT_EQ(tieProbe(4, 3, 3, 16, {-32767}), kInteger);
    EXPECT_EQ(tieProbe(4, 3, 3, 16, {-32768}), kFloat);
    EXPECT_EQ(tieProbe(3, 3, 3, 200, {32766, 32766, 32765}), kFloat);
    EXPECT_EQ(tieProbe(4, 3, 3, 15, {}), kFloat);
    // Kernels below 3 on some axis always take the float path.
    EXPECT_EQ(tieProbe(3, 3, 2, 16, {}), kFloat);
    EXPECT_EQ(tieProbe(2, 3, 3, 16, {}), kFloat);
    EXPECT_EQ(tieProbe(3, 1, 3, 16, {}), kFloat);
  });
}

TEST(Filter, Width15And16AgreeWithDivisor1) {
  std::mt19937 rng(7);
  Kernel k = randomKernel(3, 3, 3, 300, rng);
  const VelrPoint a{1, 1, 1};
  const VelrVolume wide{16, 4, 3}, narrow{15, 4, 3};
  Source s(wide, k.k, a);
  std::uniform_int_distribution<int> u(-1000, 1000);
  s.fill([&](int, int, int) { return static_cast<Vel16s>(u(rng)); });
  Dest dw(wide), dn(narrow);
  ASSERT_EQ(run(s, dw, wide, k, a, 1), velStsNoErr);
  ASSERT_EQ(run(s, dn, narrow, k, a, 1), velStsNoErr);  // same source, one voxel less per line
  for (int z = 0; z < 3; ++z)
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 15; ++x) ASSERT_EQ(dw.at(x, y, z), dn.at(x, y, z)) << x << "," << y << "," << z;
}

// ------------------------------------------------------ steps, threads

TEST(Filter, OddStepsAreTruncatedToWholeElements) {
  std::mt19937 rng(3);
  const VelrVolume dv{20, 5, 2};
  Kernel k = randomKernel(3, 3, 3, 100, rng);
  const VelrPoint a{1, 1, 1};
  Source s(dv, k.k, a, 1);
  std::uniform_int_distribution<int> u(-500, 500);
  s.fill([&](int, int, int) { return static_cast<Vel16s>(u(rng)); });
  Dest d(dv);
  int size = 0;
  ASSERT_EQ(velrFilterGetBufSize(dv, k.k, 1, &size), velStsNoErr);
  std::vector<Vel8u> buffer(size);
  ASSERT_EQ(velrFilter_16s_C1PV(s.planes(), s.step() + 1, d.planes(), d.step() + 1, dv, k.c.data(), k.k, a, 8,
                                buffer.data()),
            velStsNoErr);
  EXPECT_EQ(mismatches(s, d, dv, k, a, 8, false), 0);
}

TEST(Filter, ResultsDoNotDependOnThreadCount) {
  // Every axis at least 16, so the volume is split into slabs; depth 37
  // leaves a remainder for every count of the sweep.
  const PathCase cases[] = {
      {{20, 16, 37}, {3, 3, 3}, 64, false, 2000, 300},
      {{33, 16, 17}, {5, 5, 5}, 4096, false, 2000, 300},
      {{16, 17, 19}, {7, 3, 3}, 5, false, 2000, 300},
      {{17, 16, 18}, {2, 3, 3}, 9, true, 300, 200},
  };
  for (const PathCase& c : cases) {
    std::mt19937 rng(11);
    Kernel k = randomKernel(c.k.width, c.k.height, c.k.depth, c.tapRange, rng);
    const VelrPoint a = centreAnchor(c.k);
    Source s(c.dst, c.k, a);
    std::uniform_int_distribution<int> u(-c.srcRange, c.srcRange);
    s.fill([&](int, int, int) { return static_cast<Vel16s>(u(rng)); });
    std::vector<Vel16s> first;
    velr::test::forEachThreadCount([&](int n) {
      Dest d(c.dst);
      ASSERT_EQ(run(s, d, c.dst, k, a, c.divisor), velStsNoErr);
      if (first.empty()) {
        first = d.all();
        EXPECT_EQ(mismatches(s, d, c.dst, k, a, c.divisor, c.floatPath), 0) << c.k.width << "x" << c.k.height;
      } else {
        EXPECT_TRUE(d.all() == first) << n << " threads, kernel " << c.k.width << "x" << c.k.height << "x"
                                      << c.k.depth;
      }
    });
  }
}

// Float-path sums beyond 2^24 round in single precision, so their order
// matters. Rows of taps {A, -A + s, t} over rows of equal values cancel only
// partly, leaving results in range that depend on that order: every target
// must give the same bits.
TEST(Filter, FloatPathWithInexactSumsIsTheSameOnEveryTarget) {
  std::mt19937 rng(5);
  Kernel k = zeroKernel(3, 3, 2);
  std::uniform_int_distribution<int> big(1 << 24, 1 << 25), small(-50, 50), sign(0, 1);
  for (size_t r = 0; r < k.c.size(); r += 3) {
    const int a = sign(rng) ? big(rng) : -big(rng);
    Vel32s row[3] = {a, -a + small(rng), small(rng)};
    std::shuffle(row, row + 3, rng);
    std::copy(row, row + 3, k.c.begin() + r);
  }
  const VelrPoint a{1, 1, 1};
  const VelrVolume dv{37, 3, 2};
  Source s(dv, k.k, a);
  std::uniform_int_distribution<int> u(-300, 300);
  std::vector<Vel16s> rowValue(64);
  for (auto& v : rowValue) v = static_cast<Vel16s>(u(rng));
  s.fill([&](int, int y, int z) { return rowValue[(z + 2) * 8 + y + 2]; });
  std::vector<Vel16s> first;
  velr::test::forEachTarget([&](const std::string& target) {
    Dest d(dv);
    ASSERT_EQ(run(s, d, dv, k, a, 3), velStsNoErr);
    if (first.empty()) first = d.all();
    EXPECT_TRUE(d.all() == first) << target;
  });
}

}  // namespace
