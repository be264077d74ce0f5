#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/targets.h"
#include "common/threads.h"
#include "velr.h"
#include "volume/common.h"
#include "volume/resize_reference.h"

namespace {

constexpr int kCodes[] = {1, 2, 4, 5, 6, 7};

// The exact size the query reports, starting 1 byte past a 64-byte boundary
// (the worst case for the carving) and ending where the allocation ends, so
// the sanitizer catches any byte used beyond the reported size.
class WorkBuffer {
 public:
  explicit WorkBuffer(int size) {
    void* p = nullptr;
    EXPECT_EQ(posix_memalign(&p, 64, static_cast<size_t>(size) + 1), 0);
    block_ = static_cast<Vel8u*>(p);
  }
  ~WorkBuffer() { std::free(block_); }
  Vel8u* get() const { return block_ + 1; }

 private:
  Vel8u* block_ = nullptr;
};

template <class T>
T sentinel() {
  if constexpr (sizeof(T) == 1)
    return 0xA5;
  else if constexpr (sizeof(T) == 2)
    return 0xA5A5;
  else
    return -12345.5f;
}

bool sameBits(float a, float b) { return std::memcmp(&a, &b, 4) == 0; }
template <class T>
bool sameBits(T a, T b) {
  return a == b;
}

uint64_t nextRandom(uint64_t& s) {
  s += 0x9E3779B97F4A7C15ull;
  uint64_t z = s;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// Full-range random voxels, so saturation and cubic overshoot happen often.
template <class T>
std::vector<T> randomVolume(VelrVolume v, uint64_t seed) {
  std::vector<T> out(static_cast<size_t>(v.width) * v.height * v.depth);
  for (T& x : out) {
    const uint64_t r = nextRandom(seed);
    if constexpr (sizeof(T) == 4)
      x = static_cast<float>(static_cast<int64_t>(r % 20001) - 5000) / 64.0f;
    else
      x = static_cast<T>(r);
  }
  return out;
}

// A volume as the library sees it: padded lines and planes in one block (V),
// or separately allocated planes without padding, in reverse order of
// allocation (PV), so that the sanitizer sees any read past a plane.
template <class T>
class Stored {
 public:
  Stored(VelrVolume v, bool planar) : v_(v), planar_(planar) {
    line_ = v.width + (planar ? 0 : 3);
    plane_ = line_ * (v.height + (planar ? 0 : 2));
    if (planar) {
      store_.resize(v.depth);
      ptrs_.resize(v.depth);
      for (int z = v.depth - 1; z >= 0; --z) {
        store_[z].assign(plane_, sentinel<T>());
        ptrs_[z] = store_[z].data();
      }
    } else {
      block_.assign(static_cast<size_t>(plane_) * v.depth, sentinel<T>());
    }
  }
  T* plane(int z) { return planar_ ? ptrs_[z] : block_.data() + static_cast<size_t>(z) * plane_; }
  const T* plane(int z) const {
    return planar_ ? ptrs_[z] : block_.data() + static_cast<size_t>(z) * plane_;
  }
  void fill(const std::vector<T>& dense) {
    size_t k = 0;
    for (int z = 0; z < v_.depth; ++z)
      for (int y = 0; y < v_.height; ++y)
        for (int x = 0; x < v_.width; ++x) plane(z)[y * line_ + x] = dense[k++];
  }
  std::vector<T> dense() const {
    std::vector<T> out;
    for (int z = 0; z < v_.depth; ++z)
      for (int y = 0; y < v_.height; ++y)
        for (int x = 0; x < v_.width; ++x) out.push_back(plane(z)[y * line_ + x]);
    return out;
  }
  bool paddingIntact() const {
    for (int z = 0; z < v_.depth; ++z)
      for (int k = 0; k < plane_; ++k)
        if ((k % line_ >= v_.width || k / line_ >= v_.height) &&
            !sameBits(plane(z)[k], sentinel<T>()))
          return false;
    return true;
  }
  int lineBytes() const { return line_ * static_cast<int>(sizeof(T)); }
  int planeBytes() const { return plane_ * static_cast<int>(sizeof(T)); }
  T* base() { return block_.data(); }
  const T* base() const { return block_.data(); }
  T* const* planes() { return ptrs_.data(); }
  const T* const* constPlanes() const { return const_cast<const T* const*>(ptrs_.data()); }
  bool planar() const { return planar_; }

 private:
  VelrVolume v_;
  bool planar_;
  int line_ = 0, plane_ = 0;
  std::vector<T> block_;
  std::vector<std::vector<T>> store_;
  std::vector<T*> ptrs_;
};

struct Geometry {
  const char* name;
  VelrVolume src;
  VelrCuboid srcRoi;
  VelrVolume dst;
  VelrCuboid dstRoi;
  double f[3], h[3];
};

// The one entry point per element type and layout.
template <class T>
VelStatus callResize(const T* src, const T* const* srcPlanes, VelrVolume srcVolume, int srcStep,
                     int srcPlaneStep, VelrCuboid srcRoi, T* dst, T* const* dstPlanes, int dstStep,
                     int dstPlaneStep, VelrCuboid dstRoi, const double f[3], const double h[3],
                     int code, Vel8u* buf) {
  const bool planar = srcPlanes != nullptr || dstPlanes != nullptr;
  if constexpr (sizeof(T) == 1) {
    return planar ? velrResize_8u_C1PV(srcPlanes, srcVolume, srcStep, srcRoi, dstPlanes, dstStep,
                                       dstRoi, f[0], f[1], f[2], h[0], h[1], h[2], code, buf)
                  : velrResize_8u_C1V(src, srcVolume, srcStep, srcPlaneStep, srcRoi, dst, dstStep,
                                      dstPlaneStep, dstRoi, f[0], f[1], f[2], h[0], h[1], h[2],
                                      code, buf);
  } else if constexpr (sizeof(T) == 2) {
    return planar ? velrResize_16u_C1PV(srcPlanes, srcVolume, srcStep, srcRoi, dstPlanes, dstStep,
                                        dstRoi, f[0], f[1], f[2], h[0], h[1], h[2], code, buf)
                  : velrResize_16u_C1V(src, srcVolume, srcStep, srcPlaneStep, srcRoi, dst, dstStep,
                                       dstPlaneStep, dstRoi, f[0], f[1], f[2], h[0], h[1], h[2],
                                       code, buf);
  } else {
    return planar ? velrResize_32f_C1PV(srcPlanes, srcVolume, srcStep, srcRoi, dstPlanes, dstStep,
                                        dstRoi, f[0], f[1], f[2], h[0], h[1], h[2], code, buf)
                  : velrResize_32f_C1V(src, srcVolume, srcStep, srcPlaneStep, srcRoi, dst, dstStep,
                                       dstPlaneStep, dstRoi, f[0], f[1], f[2], h[0], h[1], h[2],
                                       code, buf);
  }
}

// Runs one resize with an exact-size work buffer; `stepExtra` is added to
// both line steps (odd values test the rounding of 16-bit steps).
template <class T>
VelStatus runResize(const Geometry& g, int code, const Stored<T>& src, Stored<T>& dst,
                    int stepExtra = 0) {
  int size = 0;
  EXPECT_EQ(velrResizeGetBufSize(g.srcRoi, g.dstRoi, 1, code, &size), velStsNoErr);
  WorkBuffer buf(size);
  if (src.planar())
    return callResize<T>(nullptr, src.constPlanes(), g.src, src.lineBytes() + stepExtra, 0,
                         g.srcRoi, nullptr, dst.planes(), dst.lineBytes() + stepExtra, 0, g.dstRoi,
                         g.f, g.h, code, buf.get());
  return callResize<T>(src.base(), nullptr, g.src, src.lineBytes() + stepExtra, src.planeBytes(),
                       g.srcRoi, dst.base(), nullptr, dst.lineBytes() + stepExtra, dst.planeBytes(),
                       g.dstRoi, g.f, g.h, code, buf.get());
}

// The destination volume the reference expects: sentinels outside the
// region, reference voxels inside.
template <class T>
std::vector<T> expectedVolume(const Geometry& g, int code, const std::vector<T>& src) {
  std::vector<T> want(static_cast<size_t>(g.dst.width) * g.dst.height * g.dst.depth, sentinel<T>());
  velr::vol::ResizeSetup s;
  if (velr::vol::resizeSetup(false, g.src, g.srcRoi, g.dstRoi, g.f, g.h, code, &s) != velStsNoErr)
    return want;
  const int n[3] = {g.src.width, g.src.height, g.src.depth};
  const velr::test::VoxelFn<T> at = [&](int x, int y, int z) {
    return src[(static_cast<size_t>(z) * g.src.height + y) * g.src.width + x];
  };
  for (int z = s.axis[2].begin; z < s.axis[2].end; ++z)
    for (int y = s.axis[1].begin; y < s.axis[1].end; ++y)
      for (int x = s.axis[0].begin; x < s.axis[0].end; ++x)
        want[(static_cast<size_t>(z) * g.dst.height + y) * g.dst.width + x] =
            velr::test::referenceVoxel<T>(at, n, g.f, g.h, code, x, y, z);
  return want;
}

template <class T>
::testing::AssertionResult sameVolume(const Geometry& g, const std::vector<T>& got,
                                      const std::vector<T>& want) {
  for (size_t k = 0; k < want.size(); ++k)
    if (!sameBits(got[k], want[k])) {
      const int x = static_cast<int>(k % g.dst.width);
      const int y = static_cast<int>(k / g.dst.width % g.dst.height);
      const int z = static_cast<int>(k / g.dst.width / g.dst.height);
      return ::testing::AssertionFailure() << "voxel (" << x << ", " << y << ", " << z << "): got "
                                           << +got[k] << ", want " << +want[k];
    }
  return ::testing::AssertionSuccess();
}

// Geometries chosen for their edges: regions touching the volume's last
// voxel, extents below 2 and 4, a single source plane, a destination region
// that cuts the mapped one, lines long enough for full vectors on every
// target.
const Geometry kGeometries[] = {
    {"zoom",
     {9, 7, 6},
     {1, 0, 1, 8, 7, 5},
     {24, 16, 16},
     {0, 0, 0, 24, 16, 16},
     {2.0, 1.5, 2.5},
     {0.3, -0.7, 0.0}},
    {"shrink into a narrow region",
     {37, 29, 11},
     {0, 0, 0, 37, 29, 11},
     {20, 24, 6},
     {3, 2, 1, 10, 15, 4},
     {0.5, 0.75, 0.4},
     {0.25, 0.0, -0.3}},
    {"tiny source",
     {1, 2, 3},
     {0, 0, 0, 1, 2, 3},
     {5, 7, 9},
     {0, 0, 0, 5, 7, 9},
     {3.0, 2.5, 2.2},
     {0.0, 0.0, 0.0}},
    {"one source plane",
     {13, 6, 1},
     {0, 0, 0, 13, 6, 1},
     {30, 14, 4},
     {0, 0, 0, 30, 14, 4},
     {2.2, 2.0, 3.0},
     {0.0, 0.2, 0.0}},
    {"single source line",
     {97, 1, 2},
     {0, 0, 0, 97, 1, 2},
     {230, 3, 4},
     {0, 0, 0, 230, 3, 4},
     {2.37, 3.0, 2.0},
     {0.0, 0.0, 0.0}},
    {"long lines",
     {70, 5, 4},
     {2, 1, 0, 68, 4, 4},
     {200, 12, 9},
     {5, 0, 1, 190, 12, 7},
     {2.3, 1.9, 1.7},
     {-1.2, 0.0, 0.4}},
};

template <class T>
void expectMatchesReference(uint64_t seed) {
  for (const Geometry& g : kGeometries) {
    const std::vector<T> source = randomVolume<T>(g.src, seed++);
    for (int code : kCodes) {
      const std::vector<T> want = expectedVolume(g, code, source);
      velr::test::forEachTarget([&](const std::string& target) {
        for (bool planar : {false, true}) {
          SCOPED_TRACE(std::string(g.name) + ", code " + std::to_string(code) + ", " + target +
                       (planar ? ", PV" : ", V"));
          Stored<T> src(g.src, planar), dst(g.dst, planar);
          src.fill(source);
          ASSERT_EQ(runResize(g, code, src, dst), velStsNoErr);
          EXPECT_TRUE(sameVolume(g, dst.dense(), want));
          EXPECT_TRUE(dst.paddingIntact());
        }
      });
    }
  }
}

}  // namespace

TEST(ResizeBufSize, ChecksAndFormula) {
  int size = -1;
  const VelrCuboid ok = {0, 0, 0, 10, 5, 3}, bad = {0, 0, 0, 10, 0, 3};
  EXPECT_EQ(velrResizeGetBufSize(bad, ok, 3, 3, nullptr), velStsNullPtrErr);
  EXPECT_EQ(velrResizeGetBufSize(bad, ok, 3, 3, &size), velStsSizeErr);
  EXPECT_EQ(velrResizeGetBufSize(ok, {0, -1, 0, 1, 1, 1}, 3, 3, &size), velStsSizeErr);
  EXPECT_EQ(velrResizeGetBufSize(ok, ok, 3, 3, &size), velStsNumChannelsErr);
  EXPECT_EQ(velrResizeGetBufSize(ok, ok, 1, 3, &size), velStsInterpolationErr);
  EXPECT_EQ(size, -1);

  velSetNumThreads(1);
  EXPECT_EQ(velrResizeGetBufSize(ok, {0, 0, 0, 1, 1, 1}, 1, 1, &size), velStsNoErr);
  EXPECT_EQ(size, 4 * 48 + 64);
  // W = 10, H = 5, D = 3, worked out by hand from the formula.
  EXPECT_EQ(velrResizeGetBufSize(ok, ok, 1, 2, &size), velStsNoErr);
  EXPECT_EQ(size, 4800 + 64);
  for (int code : {4, 5, 6, 7}) {
    EXPECT_EQ(velrResizeGetBufSize(ok, ok, 1, code, &size), velStsNoErr);
    EXPECT_EQ(size, 18624 + 64);
  }
  velSetNumThreads(3);
  EXPECT_EQ(velrResizeGetBufSize({5, 5, 5, 1, 1, 1}, {0, 0, 0, 1, 1, 1}, 1, 1, &size), velStsNoErr);
  EXPECT_EQ(size, (4 * 48 + 64) * 3);
  velSetNumThreads(0);
}

// Extents near INT_MAX overflow any fixed width; the query must still answer
// without undefined arithmetic, with the formula's value modulo 2^32.
TEST(ResizeBufSize, HugeExtentsWrapLikeThirtyTwoBitArithmetic) {
  auto a16 = [](uint32_t n) { return (n + 15u) & ~15u; };
  auto a64 = [](uint32_t n) { return (n + 63u) & ~63u; };
  const uint32_t W = INT_MAX, H = INT_MAX - 1, D = 7;
  const uint32_t t = 4u * (a16(W) + a16(H) + a16(D) + a64(W) + a64(H) + a64(D));
  const uint32_t cubic = t + 16u * H * a64(W) +
                         4u * (a64(128u * (W + H) + 192u) + 2u * a64(4u * W + 192u) +
                               a64(4u * H + 192u) + a64(4u * D + 192u));
  velSetNumThreads(5);
  int size = 0;
  const VelrCuboid src = {0, 0, 0, 1, 1, 1};
  EXPECT_EQ(velrResizeGetBufSize(src, {0, 0, 0, INT_MAX, INT_MAX - 1, 7}, 1, 6, &size),
            velStsNoErr);
  EXPECT_EQ(static_cast<uint32_t>(size), (cubic + 64u) * 5u);
  velSetNumThreads(0);
}

TEST(Resize, ChecksInOrderAndWarningsWriteNothing) {
  const VelrVolume vol = {4, 4, 4};
  const VelrCuboid roi = {0, 0, 0, 4, 4, 4};
  std::vector<float> src(64, 1.0f), dst(64, -7.0f);
  const std::vector<float> untouched = dst;
  Vel8u buf[1 << 12];
  auto call = [&](const float* s, VelrVolume sv, VelrCuboid sr, float* d, VelrCuboid dr, double fx,
                  int code, Vel8u* b) {
    return velrResize_32f_C1V(s, sv, 16, 64, sr, d, 16, 64, dr, fx, 1, 1, 0, 0, 0, code, b);
  };
  const VelrVolume empty = {4, 0, 4};
  const VelrCuboid badRoi = {0, 0, -1, 4, 4, 4};
  EXPECT_EQ(call(nullptr, empty, badRoi, dst.data(), roi, 0, 3, buf), velStsNullPtrErr);
  EXPECT_EQ(call(src.data(), empty, badRoi, nullptr, roi, 0, 3, buf), velStsNullPtrErr);
  EXPECT_EQ(call(src.data(), empty, badRoi, dst.data(), roi, 0, 3, nullptr), velStsNullPtrErr);
  EXPECT_EQ(call(src.data(), empty, roi, dst.data(), roi, 0, 3, buf), velStsSizeErr);
  EXPECT_EQ(call(src.data(), vol, badRoi, dst.data(), roi, 0, 3, buf), velStsSizeErr);
  EXPECT_EQ(call(src.data(), vol, roi, dst.data(), {0, 0, 0, 4, 0, 4}, 0, 3, buf), velStsSizeErr);
  EXPECT_EQ(call(src.data(), vol, roi, dst.data(), roi, 0, 3, buf), velStsResizeFactorErr);
  EXPECT_EQ(call(src.data(), vol, roi, dst.data(), roi, -2, 3, buf), velStsResizeFactorErr);
  EXPECT_EQ(call(src.data(), vol, roi, dst.data(), roi, 1, 3, buf), velStsInterpolationErr);
  EXPECT_EQ(call(src.data(), vol, roi, dst.data(), roi, 1, 0, buf), velStsInterpolationErr);
  EXPECT_EQ(call(src.data(), vol, {0, 0, 4, 4, 4, 4}, dst.data(), roi, 1, 6, buf),
            velStsWrongIntersectVolume);
  EXPECT_EQ(call(src.data(), vol, {4, 0, 0, 4, 4, 4}, dst.data(), roi, 1, 6, buf),
            velStsWrongIntersectVolume);
  // The region maps to x = 8 .. 16, outside the destination region 0 .. 4.
  EXPECT_EQ(call(src.data(), vol, {2, 0, 0, 2, 4, 4}, dst.data(), roi, 4, 6, buf),
            velStsEmptyCuboid);
  EXPECT_EQ(dst, untouched);
  // Steps are not checked: a zero plane step writes every plane onto plane 0.
  EXPECT_EQ(velrResize_32f_C1V(src.data(), vol, 16, 0, roi, dst.data(), 16, 0, roi, 1, 1, 1, 0, 0,
                               0, 1, buf),
            velStsNoErr);
  EXPECT_EQ(dst[15], 1.0f);
  EXPECT_EQ(dst[16], -7.0f);
}

TEST(Resize, IdentityCopiesTheRegion) {
  const Geometry g = {"identity",          {11, 7, 5}, {2, 1, 1, 8, 5, 3}, {11, 7, 5},
                      {0, 0, 0, 11, 7, 5}, {1, 1, 1},  {0, 0, 0}};
  const std::vector<Vel16u> source = randomVolume<Vel16u>(g.src, 5);
  for (int code : {1, 2, 6}) {
    Stored<Vel16u> src(g.src, false), dst(g.src, false);
    src.fill(source);
    ASSERT_EQ(runResize(g, code, src, dst), velStsNoErr);
    const std::vector<Vel16u> got = dst.dense();
    for (int z = 0; z < 5; ++z)
      for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 11; ++x) {
          const size_t k = (z * 7 + y) * 11 + x;
          const bool inside = x >= 2 && x < 10 && y >= 1 && y < 6 && z >= 1 && z < 4;
          // Linear and Catmull-Rom interpolate: at t = 0 they give the voxel.
          EXPECT_EQ(got[k], inside ? source[k] : sentinel<Vel16u>()) << code << " " << k;
        }
  }
}

TEST(Resize, EightBitMatchesReference) { expectMatchesReference<Vel8u>(100); }
TEST(Resize, SixteenBitMatchesReference) { expectMatchesReference<Vel16u>(200); }
TEST(Resize, FloatMatchesReference) { expectMatchesReference<Vel32f>(300); }

TEST(Resize, TapsReadBeyondTheRegionAndReplicateTheEdges) {
  // A one-line volume 0, 40, 80, 120, 200 enlarged 4 times along x, one
  // source voxel at a time: the region picks the destination voxels, the taps
  // read its neighbours, and taps past either end read the end voxel.
  const float line[5] = {0, 40, 80, 120, 200};
  std::vector<float> dst(20);
  Vel8u buf[4096];
  auto run = [&](int x) {
    std::fill(dst.begin(), dst.end(), -1.0f);
    return velrResize_32f_C1V(line, {5, 1, 1}, 20, 20, {x, 0, 0, 1, 1, 1}, dst.data(), 80, 80,
                              {0, 0, 0, 20, 1, 1}, 4, 1, 1, 0, 0, 0, 2, buf);
  };
  ASSERT_EQ(run(4), velStsNoErr);
  EXPECT_EQ(dst[15], -1.0f);
  EXPECT_EQ(dst[16], 170.0f);  // s = 3.625
  EXPECT_EQ(dst[17], 190.0f);
  EXPECT_EQ(dst[18], 200.0f);  // s = 4.125: both taps on the last voxel
  EXPECT_EQ(dst[19], 200.0f);
  ASSERT_EQ(run(0), velStsNoErr);
  EXPECT_EQ(dst[0], 0.0f);  // s = -0.375
  EXPECT_EQ(dst[1], 0.0f);
  EXPECT_EQ(dst[2], 5.0f);
  EXPECT_EQ(dst[3], 15.0f);
  EXPECT_EQ(dst[4], -1.0f);
}

TEST(Resize, OddSixteenBitStepsRoundDown) {
  const Geometry& g = kGeometries[0];
  const std::vector<Vel16u> source = randomVolume<Vel16u>(g.src, 9);
  for (bool planar : {false, true}) {
    Stored<Vel16u> src(g.src, planar), even(g.dst, planar), odd(g.dst, planar);
    src.fill(source);
    ASSERT_EQ(runResize(g, 6, src, even), velStsNoErr);
    ASSERT_EQ(runResize(g, 6, src, odd, 1), velStsNoErr);
    EXPECT_EQ(even.dense(), odd.dense());
  }
}

TEST(Resize, NegativePlaneStepAddressesDownward) {
  // Planes stored last to first: voxel (0, 0, 0) is in the last plane of the
  // block and the plane step is negative.
  const Geometry& g = kGeometries[0];
  const std::vector<float> source = randomVolume<float>(g.src, 11);
  const int line = g.src.width, plane = line * g.src.height;
  std::vector<float> flipped(source.size());
  for (int z = 0; z < g.src.depth; ++z)
    std::memcpy(&flipped[(g.src.depth - 1 - z) * plane], &source[z * plane], plane * 4);
  Stored<float> dst(g.dst, false);
  int size = 0;
  ASSERT_EQ(velrResizeGetBufSize(g.srcRoi, g.dstRoi, 1, 6, &size), velStsNoErr);
  WorkBuffer buf(size);
  ASSERT_EQ(velrResize_32f_C1V(&flipped[(g.src.depth - 1) * plane], g.src, line * 4, -plane * 4,
                               g.srcRoi, dst.base(), dst.lineBytes(), dst.planeBytes(), g.dstRoi,
                               g.f[0], g.f[1], g.f[2], g.h[0], g.h[1], g.h[2], 6, buf.get()),
            velStsNoErr);
  EXPECT_TRUE(sameVolume(g, dst.dense(), expectedVolume(g, 6, source)));
}

TEST(Resize, FloatSlabsGiveTheSameResultForAnyThreadCount) {
  // 16 x 16 x 16 splits into slabs, 16 x 16 x 15 stays on the calling
  // thread, 30 x 27 x 25 leaves uneven remainders.
  const Geometry geometries[] = {
      {"16^3",
       {8, 8, 8},
       {0, 0, 0, 8, 8, 8},
       {16, 16, 16},
       {0, 0, 0, 16, 16, 16},
       {2, 2, 2},
       {0, 0, 0}},
      {"16x16x15",
       {8, 8, 8},
       {0, 0, 0, 8, 8, 8},
       {16, 16, 16},
       {0, 0, 0, 16, 16, 15},
       {2, 2, 2},
       {0, 0, 0}},
      {"uneven",
       {12, 11, 10},
       {0, 0, 0, 12, 11, 10},
       {31, 28, 26},
       {1, 1, 1, 30, 27, 25},
       {2.5, 2.5, 2.5},
       {0.5, 0.2, 0.7}},
  };
  for (const Geometry& g : geometries) {
    const std::vector<float> source = randomVolume<float>(g.src, 21);
    for (int code : kCodes) {
      const std::vector<float> want = expectedVolume(g, code, source);
      velr::test::forEachThreadCount([&](int threads) {
        SCOPED_TRACE(std::string(g.name) + ", code " + std::to_string(code) + ", threads " +
                     std::to_string(threads));
        Stored<float> src(g.src, false), dst(g.dst, false);
        src.fill(source);
        ASSERT_EQ(runResize(g, code, src, dst), velStsNoErr);
        EXPECT_TRUE(sameVolume(g, dst.dense(), want));
      });
    }
  }
}

TEST(Resize, LargeResultsStreamedPastTheCachesAreExact) {
  // Results of 32 MiB and more leave through non-temporal stores. Rows
  // start at every alignment (the line step is not a multiple of 16 bytes);
  // a sample of whole rows is checked against the reference, with the
  // padding after each row.
  auto check = [](auto zero, VelrVolume src, int code) {
    using T = decltype(zero);
    const Geometry g = {"large",
                        src,
                        {0, 0, 0, src.width, src.height, src.depth},
                        {2 * src.width, 2 * src.height, 2 * src.depth},
                        {0, 0, 0, 2 * src.width, 2 * src.height, 2 * src.depth},
                        {2, 2, 2},
                        {0, 0, 0}};
    const std::vector<T> source = randomVolume<T>(src, 77);
    const int line = g.dst.width + 5;
    std::vector<T> dst(static_cast<size_t>(line) * g.dst.height * g.dst.depth, sentinel<T>());
    int size = 0;
    ASSERT_EQ(velrResizeGetBufSize(g.srcRoi, g.dstRoi, 1, code, &size), velStsNoErr);
    WorkBuffer buf(size);
    const int step = line * static_cast<int>(sizeof(T));
    ASSERT_EQ(
        callResize<T>(source.data(), nullptr, src, src.width * static_cast<int>(sizeof(T)),
                      src.width * src.height * static_cast<int>(sizeof(T)), g.srcRoi, dst.data(),
                      nullptr, step, step * g.dst.height, g.dstRoi, g.f, g.h, code, buf.get()),
        velStsNoErr);
    const int n[3] = {src.width, src.height, src.depth};
    const velr::test::VoxelFn<T> at = [&](int x, int y, int z) {
      return source[(static_cast<size_t>(z) * src.height + y) * src.width + x];
    };
    uint64_t seed = 5;
    for (int sample = 0; sample < 40; ++sample) {
      const int y = static_cast<int>(nextRandom(seed) % g.dst.height);
      const int z = static_cast<int>(nextRandom(seed) % g.dst.depth);
      const T* row = &dst[(static_cast<size_t>(z) * g.dst.height + y) * line];
      for (int x = 0; x < g.dst.width; ++x)
        ASSERT_TRUE(sameBits(row[x], velr::test::referenceVoxel<T>(at, n, g.f, g.h, code, x, y, z)))
            << code << " (" << x << ", " << y << ", " << z << ")";
      for (int x = g.dst.width; x < line; ++x) ASSERT_TRUE(sameBits(row[x], sentinel<T>()));
    }
  };
  check(float{}, {103, 104, 100}, 2);
  check(float{}, {103, 104, 100}, 6);
  check(Vel8u{}, {103, 104, 400}, 2);
}

TEST(Resize, OnlyFloatVolumesOfSixteenPlanesAndMoreSplitIntoSlabs) {
  // Each thread works in its own share of the buffer, the second one in the
  // upper half with two threads: whether that half is touched tells whether
  // the call ran in slabs.
  velSetNumThreads(2);
  const std::vector<float> src(8 * 8 * 8, 1.0f);
  std::vector<float> dst(16 * 16 * 16);
  std::vector<const float*> srcPlanes(8);
  std::vector<float*> dstPlanes(16);
  for (int z = 0; z < 8; ++z) srcPlanes[z] = &src[z * 64];
  for (int z = 0; z < 16; ++z) dstPlanes[z] = &dst[z * 256];
  // Sized for two threads throughout, also when one thread is granted.
  int size = 0;
  EXPECT_EQ(velrResizeGetBufSize({0, 0, 0, 8, 8, 8}, {0, 0, 0, 16, 16, 16}, 1, 2, &size),
            velStsNoErr);
  auto upperHalfTouched = [&](VelrCuboid dr, bool planar) {
    std::vector<Vel8u> buf(size, 0xEE);
    const VelStatus st =
        planar ? velrResize_32f_C1PV(srcPlanes.data(), {8, 8, 8}, 32, {0, 0, 0, 8, 8, 8},
                                     dstPlanes.data(), 64, dr, 2, 2, 2, 0, 0, 0, 2, buf.data())
               : velrResize_32f_C1V(src.data(), {8, 8, 8}, 32, 256, {0, 0, 0, 8, 8, 8}, dst.data(),
                                    64, 1024, dr, 2, 2, 2, 0, 0, 0, 2, buf.data());
    EXPECT_EQ(st, velStsNoErr);
    for (size_t k = buf.size() / 2 + 64; k < buf.size(); ++k)
      if (buf[k] != 0xEE) return true;
    return false;
  };
  EXPECT_TRUE(upperHalfTouched({0, 0, 0, 16, 16, 16}, false));
  EXPECT_FALSE(upperHalfTouched({0, 0, 0, 16, 16, 15}, false));
  EXPECT_FALSE(upperHalfTouched({0, 0, 0, 15, 16, 16}, false));
  EXPECT_FALSE(upperHalfTouched({0, 0, 0, 16, 16, 16}, true));
  velSetNumThreads(1);
  EXPECT_FALSE(upperHalfTouched({0, 0, 0, 16, 16, 16}, false));
  velSetNumThreads(0);
}
