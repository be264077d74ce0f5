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

// Source whose planes and plane array cover exactly the neighbourhood the
// filter may read, each plane its own allocation: sanitizer builds catch
// any read outside it. Rows are padded by `pad` voxels.
class Source {
 public:
  Source(VelrVolume d, VelrVolume k, VelrPoint a, int pad = 0)
      : x0_(a.x - k.width + 1), y0_(a.y - k.height + 1), z0_(a.z - k.depth + 1),
        cols_(d.width + k.width - 1), rows_(d.height + k.height - 1), stride_(cols_ + pad) {
    for (int i = 0; i < d.depth + k.depth - 1; ++i) {
      store_.emplace_back(new Vel16s[static_cast<size_t>(rows_) * stride_]());
      ptrs_.push_back(store_.back().get() - x0_ - static_cast<ptrdiff_t>(y0_) * stride_);
    }
  }
  Vel16s& at(int x, int y, int z) { return ptrs_[z - z0_][static_cast<ptrdiff_t>(y) * stride_ + x]; }
  Vel16s at(int x, int y, int z) const { return ptrs_[z - z0_][static_cast<ptrdiff_t>(y) * stride_ + x]; }
  template <class Fn>  // every voxel = fn(x, y, z)
  void fill(Fn&& fn) {
    for (int z = z0_; z < z0_ + static_cast<int>(ptrs_.size()); ++z)
      for (int y = y0_; y < y0_ + rows_; ++y)
        for (int x = x0_; x < x0_ + cols_; ++x) at(x, y, z) = fn(x, y, z);
  }
  const Vel16s* const* planes() const { return ptrs_.data() - z0_; }
  int step() const { return 2 * stride_; }

 private:
  int x0_, y0_, z0_, cols_, rows_, stride_;
  std::vector<std::unique_ptr<Vel16s[]>> store_;
  std::vector<Vel16s*> ptrs_;
};

struct Dest {
  explicit Dest(VelrVolume d) : v(d), voxels(static_cast<size_t>(d.width) * d.height * d.depth, 0x5A5A) {
    for (int z = 0; z < d.depth; ++z) ptrs.push_back(voxels.data() + static_cast<size_t>(z) * d.width * d.height);
  }
  Vel16s at(int x, int y, int z) const { return ptrs[z][static_cast<size_t>(y) * v.width + x]; }
  VelrVolume v;
  std::vector<Vel16s> voxels;
  std::vector<Vel16s*> ptrs;
};

struct Kernel {
  VelrVolume k;
  std::vector<Vel32s> c;  // x fastest, then y, then z
  Vel32s at(int i, int j, int l) const { return c[(static_cast<size_t>(l) * k.height + j) * k.width + i]; }
};

Kernel zeroKernel(int kw, int kh, int kd) { return {{kw, kh, kd}, std::vector<Vel32s>(static_cast<size_t>(kw) * kh * kd)}; }

// Taps in [-range, range], negated until their sum is within the integer
// paths' limit.
Kernel randomKernel(VelrVolume kv, int range, std::mt19937& rng) {
  Kernel k = zeroKernel(kv.width, kv.height, kv.depth);
  std::uniform_int_distribution<int> u(-range, range);
  int64_t sum = 0;
  for (auto& v : k.c) sum += v = u(rng);
  for (auto& v : k.c)
    if (sum > 98301 && v > 0) sum -= 2 * static_cast<int64_t>(v), v = -v;
  return k;
}

Vel16s reference(const Source& s, const Kernel& k, VelrPoint a, int x, int y, int z, int divisor, bool floatPath) {
  int64_t sum = 0;
  for (int l = 0; l < k.k.depth; ++l)
    for (int j = 0; j < k.k.height; ++j)
      for (int i = 0; i < k.k.width; ++i)
        sum += static_cast<int64_t>(k.at(i, j, l)) * s.at(x + a.x - i, y + a.y - j, z + a.z - l);
  double q = floatPath ? static_cast<double>(static_cast<float>(sum)) * (1.0f / static_cast<float>(divisor))
                       : static_cast<double>(static_cast<int32_t>(static_cast<uint32_t>(sum))) / divisor;
  return static_cast<Vel16s>(std::nearbyint(std::fmin(std::fmax(q, -32768.0), 32767.0)));
}

// Runs the filter with a work buffer of exactly the queried size at an odd
// address; odd byte steps must act as the next lower even ones. The
// destination starts at source plane `z0`.
VelStatus run(const Source& s, Dest& d, const Kernel& k, VelrPoint a, int divisor, bool oddSteps = false,
              int z0 = 0) {
  int size = 0;
  EXPECT_EQ(velrFilterGetBufSize(d.v, k.k, 1, &size), velStsNoErr);
  std::vector<Vel8u> buffer(static_cast<size_t>(size) + 1);
  return velrFilter_16s_C1PV(s.planes() + z0, s.step() + oddSteps, d.ptrs.data(), 2 * d.v.width + oddSteps, d.v,
                             k.c.data(), k.k, a, divisor, buffer.data() + 1);
}

// Voxels differing from the reference; reports the first.
int mismatches(const Source& s, const Dest& d, const Kernel& k, VelrPoint a, int divisor, bool floatPath) {
  int bad = 0;
  for (int z = 0; z < d.v.depth; ++z)
    for (int y = 0; y < d.v.height; ++y)
      for (int x = 0; x < d.v.width; ++x) {
        const Vel16s want = reference(s, k, a, x, y, z, divisor, floatPath);
        if (d.at(x, y, z) != want && bad++ == 0)
          ADD_FAILURE() << "voxel (" << x << "," << y << "," << z << "): got " << d.at(x, y, z) << ", want " << want;
      }
  return bad;
}

struct PathCase {
  VelrVolume dst, k;
  int divisor;
  bool floatPath;
  int srcRange, tapRange;  // values in [-range, range]
};

// Every case on every target, against the reference.
void checkPaths(const std::vector<PathCase>& cases, VelrPoint (*anchorOf)(VelrVolume)) {
  velr::test::forEachTarget([&](const std::string& target) {
    std::mt19937 rng(42);
    for (size_t i = 0; i < cases.size(); ++i) {
      const PathCase& c = cases[i];
      const Kernel k = randomKernel(c.k, c.tapRange, rng);
      const VelrPoint a = anchorOf(c.k);
      Source s(c.dst, c.k, a, static_cast<int>(i % 3));
      std::uniform_int_distribution<int> u(-c.srcRange, c.srcRange);
      s.fill([&](int, int, int) { return static_cast<Vel16s>(std::clamp(u(rng), -32768, 32767)); });
      Dest d(c.dst);
      ASSERT_EQ(run(s, d, k, a, c.divisor, i % 2), velStsNoErr);
      EXPECT_EQ(mismatches(s, d, k, a, c.divisor, c.floatPath), 0)
          << target << " case " << i << ": " << c.k.width << "x" << c.k.height << "x" << c.k.depth
          << " W=" << c.dst.width << " divisor " << c.divisor;
    }
  });
}

VelrPoint centreAnchor(VelrVolume k) { return {k.width / 2, k.height / 2, k.depth / 2}; }

// -------------------------------------------------------------- statuses

TEST(FilterStatus, BufSizeChecksInOrderAndReportsThePerThreadSum) {
  int size = -1;
  EXPECT_EQ(velrFilterGetBufSize({0, 1, 1}, {0, 1, 1}, 3, nullptr), velStsNullPtrErr);
  for (int i = 0; i < 6; ++i) {
    VelrVolume v[2] = {{17, 2, 3}, {5, 3, 2}};
    int* extent[] = {&v[0].width, &v[0].height, &v[0].depth, &v[1].width, &v[1].height, &v[1].depth};
    *extent[i] = 0;
    EXPECT_EQ(velrFilterGetBufSize(v[0], v[1], 3, &size), velStsSizeErr) << i;
  }
  EXPECT_EQ(velrFilterGetBufSize({17, 2, 3}, {5, 3, 2}, 3, &size), velStsNumChannelsErr);
  EXPECT_EQ(size, -1);
  // 32 bytes per coefficient pair (3 per row of 5), a line of 32 sums, 64.
  for (int threads : {1, 3}) {
    velSetNumThreads(threads);
    EXPECT_EQ(velrFilterGetBufSize({17, 2, 3}, {5, 3, 2}, 1, &size), velStsNoErr);
    EXPECT_EQ(size, threads * (32 * 3 * 3 * 2 + 4 * 32 + 64));
  }
  velSetNumThreads(0);
  // A size that an int cannot report is a size error.
  EXPECT_EQ(velrFilterGetBufSize({17, 2, 3}, {4096, 4096, 4096}, 1, &size), velStsSizeErr);
}

TEST(FilterStatus, FilterChecksInOrderAndWritesNothingOnFailure) {
  const VelrVolume dv{4, 3, 2}, bad{0, 3, 2};
  Kernel k = zeroKernel(1, 1, 1);
  k.c[0] = 1;
  Source s(dv, k.k, {0, 0, 0});
  Dest d(dv);
  Vel8u buf[1024];
  auto call = [&](const Vel16s* const* src, Vel16s* const* dst, const Vel32s* ker, VelrVolume v, VelrVolume kv,
                  int divisor, Vel8u* b) {
    return velrFilter_16s_C1PV(src, s.step(), dst, 8, v, ker, kv, {0, 0, 0}, divisor, b);
  };
  EXPECT_EQ(call(nullptr, d.ptrs.data(), k.c.data(), bad, bad, 0, nullptr), velStsNullPtrErr);
  EXPECT_EQ(call(s.planes(), nullptr, k.c.data(), dv, k.k, 1, buf), velStsNullPtrErr);
  EXPECT_EQ(call(s.planes(), d.ptrs.data(), nullptr, dv, k.k, 1, buf), velStsNullPtrErr);
  EXPECT_EQ(call(s.planes(), d.ptrs.data(), k.c.data(), bad, bad, 0, nullptr), velStsNullPtrErr);
  for (VelrVolume v : {VelrVolume{0, 3, 2}, VelrVolume{4, 0, 2}, VelrVolume{4, 3, 0}})
    EXPECT_EQ(call(s.planes(), d.ptrs.data(), k.c.data(), v, bad, 0, buf), velStsSizeErr);
  for (VelrVolume kv : {VelrVolume{0, 1, 1}, VelrVolume{1, 0, 1}, VelrVolume{1, 1, 0}})
    EXPECT_EQ(call(s.planes(), d.ptrs.data(), k.c.data(), dv, kv, 0, buf), velStsSizeErr);
  // A zero divisor is reported as a size error.
  EXPECT_EQ(call(s.planes(), d.ptrs.data(), k.c.data(), dv, k.k, 0, buf), velStsSizeErr);
  for (Vel16s v : d.voxels) ASSERT_EQ(v, 0x5A5A);
}

// ---------------------------------------------------------------- results

TEST(Filter, SingleTapExamplesRoundHalfToEven) {
  struct Ex {
    int n;  // kernel n^3 with tap c at its centre; n = 1 takes the float path
    Vel32s c;
    Vel16s v;  // the one non-zero source voxel
    int divisor;
    Vel16s want;
  };
  const Ex cases[] = {
      {1, 1, -1234, 1, -1234}, {1, 3, 1, 2, 2},  {1, 3, 3, 2, 4},   {1, 3, -1, 2, -2}, {3, 6, 1, 4, 2},
      {3, 10, 1, 4, 2},        {3, -6, 1, 4, -2}, {3, 3, 5, 2, 8},  {5, 7, 1, 2, 4},   {5, 9, 1, 2, 4},
      {3, 1, -32768, -1, 32767}, {1, 1, -32768, -1, 32767}, {3, 1, 1, -2, 0},
      // Sum 5, divisor 10: a tie for the integer rule, not for the float
      // path, whose reciprocal lies above 0.1.
      {3, 5, 1, 10, 0}, {3, 5, -1, 10, 0}, {1, 5, 1, 10, 1},
  };
  velr::test::forEachTarget([&](const std::string& target) {
    for (const Ex& e : cases) {
      Kernel k = zeroKernel(e.n, e.n, e.n);
      const int h = e.n / 2;
      k.c[k.c.size() / 2] = e.c;
      Source s({16, 1, 1}, k.k, {h, h, h});
      s.at(7, 0, 0) = e.v;
      Dest d({16, 1, 1});
      ASSERT_EQ(run(s, d, k, {h, h, h}, e.divisor), velStsNoErr);
      EXPECT_EQ(d.at(7, 0, 0), e.want) << target << " n=" << e.n << " c=" << e.c << " v=" << e.v << " / " << e.divisor;
      EXPECT_EQ(d.at(6, 0, 0), 0);
    }
  });
}

TEST(Filter, EveryPathMatchesTheReference) {
  // Widths cover whole vectors, narrow vectors and shifted last vectors;
  // moderate values exercise rounding, full-range ones the 32-bit wrap of
  // the integer sums and saturation.
  checkPaths({{{16, 3, 2}, {3, 3, 3}, 64, false, 300, 200},     {{17, 2, 2}, {3, 3, 3}, 6, false, 300, 200},
              {{40, 6, 2}, {3, 3, 3}, -7, false, 300, 200},     {{67, 2, 3}, {3, 3, 3}, 1, false, 100, 40},
              {{48, 2, 2}, {3, 3, 3}, 4096, false, 32768, 32766}, {{16, 2, 2}, {5, 5, 5}, 4096, false, 300, 200},
              {{37, 7, 2}, {5, 5, 5}, 10, false, 300, 200},     {{33, 2, 2}, {5, 5, 5}, 1, false, 32768, 32766},
              {{21, 3, 2}, {7, 3, 3}, 1024, false, 300, 200},   {{33, 2, 3}, {4, 3, 3}, 3, false, 300, 200},
              {{16, 2, 2}, {3, 4, 5}, -64, false, 300, 200},    {{50, 2, 2}, {6, 3, 4}, 1, false, 32768, 32766},
              {{9, 3, 2}, {2, 2, 2}, 8, true, 300, 200},        {{23, 2, 3}, {1, 5, 3}, 10, true, 300, 200},
              {{40, 2, 2}, {3, 3, 2}, -6, true, 300, 200},      {{15, 3, 2}, {3, 3, 3}, 64, true, 300, 200},
              {{5, 2, 2}, {3, 3, 3}, 1, true, 300, 200},        {{19, 2, 2}, {9, 1, 1}, 3, true, 300, 200}},
             centreAnchor);
}

// No border before the region, none after it, mixed corners, and anchors
// outside the kernel; the source holds exactly the neighbourhood.
TEST(Filter, AnchorsAtCornersAndOutsideTheKernel) {
  const std::vector<PathCase> cases = {{{18, 5, 2}, {3, 3, 3}, 64, false, 300, 200},
                                       {{20, 6, 2}, {5, 5, 5}, 7, false, 300, 200},
                                       {{17, 2, 2}, {4, 3, 5}, 1, false, 300, 200},
                                       {{6, 2, 2}, {2, 3, 1}, 5, true, 300, 200}};
  checkPaths(cases, [](VelrVolume) { return VelrPoint{0, 0, 0}; });
  checkPaths(cases, [](VelrVolume k) { return VelrPoint{k.width - 1, k.height - 1, k.depth - 1}; });
  checkPaths(cases, [](VelrVolume k) { return VelrPoint{k.width - 1, 0, k.depth - 1}; });
  checkPaths(cases, [](VelrVolume k) { return VelrPoint{-2, k.height + 1, 1}; });
}

TEST(Filter, DivisorClassesIncludingNegative) {
  std::vector<PathCase> cases;
  for (int div : {1, 2, 4, 64, 1 << 14, 1 << 30, 3, 6, 10, 255, -1, -2, -64, -10, INT_MAX, INT_MIN}) {
    cases.push_back({{24, 5, 2}, {3, 3, 3}, div, false, 2000, 2000});
    cases.push_back({{16, 2, 2}, {3, 3, 4}, div, false, 2000, 2000});
    cases.push_back({{7, 3, 2}, {3, 3, 3}, div, true, 300, 200});
  }
  checkPaths(cases, centreAnchor);
}

// With divisor 10 a sum of 5 gives 0 on the integer paths and 1 on the
// float path, so a source voxel of 1 under a tap of 5 shows the path taken.
// The other taps sit far from tap 0 and never meet that voxel.
int probePath(int kw, int kh, int kd, int width, std::initializer_list<Vel32s> otherTaps) {
  Kernel k = zeroKernel(kw, kh, kd);
  k.c[0] = 5;
  std::copy(otherTaps.begin(), otherTaps.end(), k.c.end() - otherTaps.size());
  Source s({width, 1, 1}, k.k, {0, 0, 0});
  s.at(3, 0, 0) = 1;
  Dest d({width, 1, 1});
  EXPECT_EQ(run(s, d, k, {0, 0, 0}, 10), velStsNoErr);
  return d.at(3, 0, 0);
}

TEST(Filter, PathSelectionBoundaries) {
  velr::test::forEachTarget([&](const std::string& target) {
    SCOPED_TRACE(target);
    constexpr int kInteger = 0, kFloat = 1;
    EXPECT_EQ(probePath(3, 3, 3, 16, {32766, 32766, 32764}), kInteger);  // coefficient sum 98301
    EXPECT_EQ(probePath(3, 3, 3, 16, {32766, 32766, 32765}), kFloat);    // 98302
    EXPECT_EQ(probePath(3, 3, 3, 16, {-32767, -32767, -32767, -32767}), kInteger);
    EXPECT_EQ(probePath(3, 3, 3, 16, {32766}), kInteger);
    EXPECT_EQ(probePath(3, 3, 3, 16, {32767}), kFloat);
    EXPECT_EQ(probePath(3, 3, 3, 16, {-32767}), kInteger);
    EXPECT_EQ(probePath(3, 3, 3, 16, {-32768}), kFloat);
    EXPECT_EQ(probePath(3, 3, 3, 15, {}), kFloat);
    EXPECT_EQ(probePath(3, 3, 3, 200, {32766, 32766, 32765}), kFloat);
    // The same limits hold for the 5x5x5 and generic paths: a kernel that
    // fails them never falls back to the generic 16-bit path.
    EXPECT_EQ(probePath(5, 5, 5, 16, {32766, 32766, 32764}), kInteger);
    EXPECT_EQ(probePath(5, 5, 5, 16, {32767}), kFloat);
    EXPECT_EQ(probePath(4, 3, 3, 16, {-32767}), kInteger);
    EXPECT_EQ(probePath(4, 3, 3, 16, {-32768}), kFloat);
    EXPECT_EQ(probePath(4, 3, 3, 15, {}), kFloat);
    // Below 3 along some axis, always the float path.
    EXPECT_EQ(probePath(3, 3, 2, 16, {}), kFloat);
    EXPECT_EQ(probePath(2, 3, 3, 16, {}), kFloat);
    EXPECT_EQ(probePath(3, 1, 3, 16, {}), kFloat);
  });
}

TEST(Filter, ResultsDoNotDependOnThreadCount) {
  // Every axis at least 16, so the volume is split into slabs; the depths
  // leave remainders for the counts of the sweep.
  const PathCase cases[] = {{{20, 16, 37}, {3, 3, 3}, 64, false, 2000, 300},
                            {{33, 16, 17}, {5, 5, 5}, 4096, false, 2000, 300},
                            {{16, 17, 19}, {7, 3, 3}, 5, false, 2000, 300},
                            {{17, 16, 18}, {2, 3, 3}, 9, true, 300, 200}};
  for (const PathCase& c : cases) {
    std::mt19937 rng(11);
    const Kernel k = randomKernel(c.k, c.tapRange, rng);
    const VelrPoint a = centreAnchor(c.k);
    Source s(c.dst, c.k, a);
    std::uniform_int_distribution<int> u(-c.srcRange, c.srcRange);
    s.fill([&](int, int, int) { return static_cast<Vel16s>(u(rng)); });
    std::vector<Vel16s> first;
    velr::test::forEachThreadCount([&](int n) {
      Dest d(c.dst);
      ASSERT_EQ(run(s, d, k, a, c.divisor), velStsNoErr);
      if (first.empty()) {
        first = d.voxels;
        EXPECT_EQ(mismatches(s, d, k, a, c.divisor, c.floatPath), 0);
      }
      EXPECT_TRUE(d.voxels == first) << n << " threads, kernel " << c.k.width << "x" << c.k.height;
    });
  }
}

// Destinations of 8 MiB and more bypass the caches; the same volume filtered
// in two halves, each below that size, must give the same voxels.
TEST(Filter, LargeDestinationsMatchTheirHalves) {
  const VelrVolume whole{256, 128, 128}, half{256, 128, 64};
  std::mt19937 rng(9);
  for (VelrVolume kv : {VelrVolume{3, 3, 3}, VelrVolume{4, 3, 3}}) {
    const Kernel k = randomKernel(kv, 300, rng);
    const VelrPoint a = centreAnchor(kv);
    Source s(whole, kv, a);
    std::uniform_int_distribution<int> u(-2000, 2000);
    s.fill([&](int, int, int) { return static_cast<Vel16s>(u(rng)); });
    velr::test::forEachTarget([&](const std::string& target) {
      Dest big(whole), low(half), high(half);
      ASSERT_EQ(run(s, big, k, a, 16), velStsNoErr);
      ASSERT_EQ(run(s, low, k, a, 16), velStsNoErr);
      ASSERT_EQ(run(s, high, k, a, 16, false, 64), velStsNoErr);
      low.voxels.insert(low.voxels.end(), high.voxels.begin(), high.voxels.end());
      EXPECT_TRUE(big.voxels == low.voxels) << target << " kernel width " << kv.width;
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
  Source s({37, 3, 2}, k.k, {1, 1, 1});
  std::uniform_int_distribution<int> u(-300, 300);
  std::vector<Vel16s> rowValue(64);
  for (auto& v : rowValue) v = static_cast<Vel16s>(u(rng));
  s.fill([&](int, int y, int z) { return rowValue[(z + 2) * 8 + y + 2]; });
  std::vector<Vel16s> first;
  velr::test::forEachTarget([&](const std::string& target) {
    Dest d({37, 3, 2});
    ASSERT_EQ(run(s, d, k, {1, 1, 1}, 3), velStsNoErr);
    if (first.empty()) first = d.voxels;
    EXPECT_TRUE(d.voxels == first) << target;
  });
}

}  // namespace
