// Volumes past the 32-bit limits: contiguous volumes of more than 2 GiB and
// plane-pointer volumes of more than 2^31 voxels. Every address of a voxel
// beyond those limits needs 64-bit arithmetic somewhere; the contents are a
// hash of the coordinates, so a voxel read from a wrong address shows.
// They need several GiB and some time, so they run only when
// VELR_LARGE_TESTS=1 (CI sets it; ctest label `large`).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "velr.h"

namespace {

bool enabled() {
  const char* e = std::getenv("VELR_LARGE_TESTS");
  return e != nullptr && std::strcmp(e, "0") != 0;
}

#define REQUIRE_LARGE()                                                      \
  do {                                                                       \
    if (!enabled()) GTEST_SKIP() << "set VELR_LARGE_TESTS=1 to run";         \
  } while (0)

// Untouched pages cost nothing until written, so a block is filled by the
// test itself, with its own pattern.
struct Free {
  void operator()(void* p) const { std::free(p); }
};
template <class T>
using Block = std::unique_ptr<T[], Free>;

template <class T>
Block<T> allocate(size_t count) {
  return Block<T>(static_cast<T*>(std::malloc(count * sizeof(T))));
}

uint32_t hash(uint32_t x, uint32_t y, uint32_t z) {
  uint32_t h = x * 2654435761u ^ y * 2246822519u ^ z * 3266489917u;
  h ^= h >> 15;
  return h * 2654435761u;
}

Vel8u value8(int x, int y, int z) { return static_cast<Vel8u>(hash(x, y, z) >> 24); }
float value32(int x, int y, int z) { return static_cast<float>(hash(x, y, z) >> 16); }

int threads() { return ownGetNumThreads(); }

// A contiguous W x H x D volume holding value(x, y, z); null when the memory
// is not there.
template <class T, class Value>
Block<T> filledVolume(int W, int H, int D, Value value) {
  const size_t plane = static_cast<size_t>(W) * H;
  Block<T> v = allocate<T>(plane * D);
  if (v == nullptr) return v;
#pragma omp parallel for
  for (int z = 0; z < D; ++z)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) v[z * plane + static_cast<size_t>(y) * W + x] = value(x, y, z);
  return v;
}

// 8-bit contiguous source of 2048 x 1024 x 1040 voxels (2.18 GB): a halving
// by nearest neighbour reads voxel (2x, 2y, 2z), so the far planes lie past
// 2^31 bytes from the start.
TEST(LargeVolumes, ContiguousSourceBeyondTwoGiBResizes) {
  REQUIRE_LARGE();
  constexpr int W = 2048, H = 1024, D = 1040;
  const size_t plane = static_cast<size_t>(W) * H;
  Block<Vel8u> src = filledVolume<Vel8u>(W, H, D, value8);
  ASSERT_NE(src, nullptr);

  const VelrVolume vol{W, H, D};
  const VelrCuboid srcRoi{0, 0, 0, W, H, D};
  const VelrCuboid dstRoi{0, 0, 0, W / 2, H / 2, D / 2};
  int size = 0;
  ASSERT_EQ(velrResizeGetBufSize(srcRoi, dstRoi, 1, VELR_INTER_NEAREST, &size), velStsNoErr);
  std::vector<Vel8u> buffer(static_cast<size_t>(size));
  const size_t dstPlane = static_cast<size_t>(W / 2) * (H / 2);
  Block<Vel8u> dst = allocate<Vel8u>(dstPlane * (D / 2));
  ASSERT_NE(dst, nullptr);
  ASSERT_EQ(velrResize_8u_C1V(src.get(), vol, W, W * H, srcRoi, dst.get(), W / 2,
                              static_cast<int>(dstPlane), dstRoi, 0.5, 0.5, 0.5, 0, 0, 0,
                              VELR_INTER_NEAREST, buffer.data()),
            velStsNoErr);
  long wrong = 0;
#pragma omp parallel for reduction(+ : wrong)
  for (int z = 0; z < D / 2; ++z)
    for (int y = 0; y < H / 2; ++y)
      for (int x = 0; x < W / 2; ++x)
        wrong += dst[z * dstPlane + static_cast<size_t>(y) * (W / 2) + x] != value8(2 * x, 2 * y, 2 * z);
  EXPECT_EQ(wrong, 0);
}

// Float contiguous destination of 1024 x 1024 x 520 voxels (2.18 GB), from a
// source of half the depth by trilinear doubling along z: the parallel float
// path splits the destination into slabs whose far planes lie past 2^31
// bytes. Along x and y the factor is 1, so each voxel is a + (b - a) * t of
// two source voxels of one column, t = 0.25 or 0.75.
TEST(LargeVolumes, ContiguousDestinationBeyondTwoGiBResizes) {
  REQUIRE_LARGE();
  constexpr int W = 1024, H = 1024, D = 260;
  const size_t plane = static_cast<size_t>(W) * H;
  Block<float> src = filledVolume<float>(W, H, D, value32);
  ASSERT_NE(src, nullptr);

  const VelrVolume vol{W, H, D};
  const VelrCuboid srcRoi{0, 0, 0, W, H, D};
  const VelrCuboid dstRoi{0, 0, 0, W, H, 2 * D};
  int size = 0;
  ASSERT_EQ(velrResizeGetBufSize(srcRoi, dstRoi, 1, VELR_INTER_LINEAR, &size), velStsNoErr);
  std::vector<Vel8u> buffer(static_cast<size_t>(size));
  Block<float> dst = allocate<float>(plane * 2 * D);
  ASSERT_NE(dst, nullptr);
  const int step = W * 4;
  ASSERT_EQ(velrResize_32f_C1V(src.get(), vol, step, step * H, srcRoi, dst.get(), step, step * H,
                               dstRoi, 1.0, 1.0, 2.0, 0, 0, 0, VELR_INTER_LINEAR, buffer.data()),
            velStsNoErr);
  long wrong = 0;
#pragma omp parallel for reduction(+ : wrong)
  for (int z = 0; z < 2 * D; ++z) {
    // s = (z + 0.5) / 2 - 0.5; taps clamped into the volume.
    const double s = (z + 0.5) * 0.5 - 0.5;
    const int i = static_cast<int>(std::floor(s));
    const float t = static_cast<float>(s - i);
    const int i0 = std::max(i, 0), i1 = std::min(i + 1, D - 1);
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) {
        const float a = value32(x, y, i0), b = value32(x, y, i1);
        wrong += dst[z * plane + static_cast<size_t>(y) * W + x] != a + (b - a) * t;
      }
  }
  EXPECT_EQ(wrong, 0) << "threads " << threads();
}

// Plane-pointer volumes of 4096 x 4096 x 130 voxels (2.18e9 > 2^31): every
// voxel counted across planes passes the 32-bit limit.
constexpr int kW = 4096, kH = 4096, kD = 130;
constexpr size_t kPlane = static_cast<size_t>(kW) * kH;

struct PlaneVolume {
  std::vector<Block<Vel8u>> storage;
  std::vector<Vel8u*> planes;
  explicit PlaneVolume(int depth, size_t planeBytes) {
    for (int z = 0; z < depth; ++z) {
      storage.push_back(allocate<Vel8u>(planeBytes));
      planes.push_back(storage.back().get());
    }
  }
  bool ok() const {
    for (const auto& b : storage)
      if (b == nullptr) return false;
    return true;
  }
};

void fillHashed(PlaneVolume& v, int w, int h) {
#pragma omp parallel for
  for (int z = 0; z < static_cast<int>(v.planes.size()); ++z)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) v.planes[z][static_cast<size_t>(y) * w + x] = value8(x, y, z);
}

// Remap: x mirrored, y kept, and each destination plane reading one of five
// source planes up to the last. The coordinate planes are shared between
// destination planes, so the maps stay small.
TEST(LargeVolumes, PlanarRemapBeyondTwoToTheThirtyOneVoxels) {
  REQUIRE_LARGE();
  PlaneVolume src(kD, kPlane), dst(kD, kPlane);
  ASSERT_TRUE(src.ok() && dst.ok());
  fillHashed(src, kW, kH);
  std::vector<float> mx(kPlane), my(kPlane);
  constexpr int kLevels = 5;
  const int level[kLevels] = {0, 31, 64, 100, kD - 1};
  std::vector<std::vector<float>> mz(kLevels, std::vector<float>(kPlane));
  for (size_t i = 0; i < kPlane; ++i) {
    mx[i] = static_cast<float>(kW - 1 - static_cast<int>(i % kW));
    my[i] = static_cast<float>(i / kW);
    for (int l = 0; l < kLevels; ++l) mz[l][i] = static_cast<float>(level[l]);
  }
  std::vector<const float*> px(kD, mx.data()), py(kD, my.data()), pz;
  for (int z = 0; z < kD; ++z) pz.push_back(mz[z % kLevels].data());
  std::vector<const Vel8u*> srcPlanes(src.planes.begin(), src.planes.end());
  ASSERT_EQ(velrRemap_8u_C1PV(srcPlanes.data(), {kW, kH, kD}, kW, {0, 0, 0, kW, kH, kD},
                              px.data(), py.data(), pz.data(), kW * 4, dst.planes.data(), kW,
                              {kW, kH, kD}, VELR_INTER_NEAREST),
            velStsNoErr);
  long wrong = 0;
#pragma omp parallel for reduction(+ : wrong)
  for (int z = 0; z < kD; ++z)
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x)
        wrong += dst.planes[z][static_cast<size_t>(y) * kW + x] !=
                 value8(kW - 1 - x, y, level[z % kLevels]);
  EXPECT_EQ(wrong, 0) << "threads " << threads();
}

// Affine warp mirroring x and z over the whole volume, nearest neighbour:
// positions stay whole numbers, so destination (x, y, z) is source
// (4095 - x, y, 129 - z).
TEST(LargeVolumes, PlanarWarpBeyondTwoToTheThirtyOneVoxels) {
  REQUIRE_LARGE();
  PlaneVolume src(kD, kPlane), dst(kD, kPlane);
  ASSERT_TRUE(src.ok() && dst.ok());
  fillHashed(src, kW, kH);
  const double c[3][4] = {{-1, 0, 0, kW - 1}, {0, 1, 0, 0}, {0, 0, -1, kD - 1}};
  std::vector<const Vel8u*> srcPlanes(src.planes.begin(), src.planes.end());
  ASSERT_EQ(velrWarpAffine_8u_C1PV(srcPlanes.data(), {kW, kH, kD}, kW, {0, 0, 0, kW, kH, kD},
                                   dst.planes.data(), kW, {0, 0, 0, kW, kH, kD}, c,
                                   VELR_INTER_NEAREST, nullptr),
            velStsNoErr);
  long wrong = 0;
#pragma omp parallel for reduction(+ : wrong)
  for (int z = 0; z < kD; ++z)
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x)
        wrong += dst.planes[z][static_cast<size_t>(y) * kW + x] != value8(kW - 1 - x, y, kD - 1 - z);
  EXPECT_EQ(wrong, 0) << "threads " << threads();
}

// Planes of more than 2 GiB each (65536 x 32870 voxels): every line from
// 32768 on lies 2^31 bytes or more past its plane pointer, so the line
// offset itself needs 64 bits; all lines read or written here are such. Only the lines that are read or written are ever
// touched; the rest of each plane stays unmapped.
constexpr int kWideW = 65536, kWideH = 32870, kFirstLine = 32770;
constexpr size_t kWidePlane = static_cast<size_t>(kWideW) * kWideH;

void fillBottomLines(PlaneVolume& v) {
  for (size_t z = 0; z < v.planes.size(); ++z)
    for (int y = kFirstLine; y < kWideH; ++y)
      for (int x = 0; x < kWideW; ++x)
        v.planes[z][static_cast<size_t>(y) * kWideW + x] = value8(x, y, static_cast<int>(z));
}

TEST(LargeVolumes, RemapAndWarpReadAndWriteLinesPastTwoGiBInOnePlane) {
  REQUIRE_LARGE();
  PlaneVolume src(2, kWidePlane);
  ASSERT_TRUE(src.ok());
  fillBottomLines(src);
  std::vector<const Vel8u*> srcPlanes(src.planes.begin(), src.planes.end());

  // Remap into a small destination: voxel (x, y, z) reads source
  // (55904 + x, 32770 + y, 1 - z).
  constexpr int dw = 4096, dh = 100, dd = 2;
  std::vector<float> mx(static_cast<size_t>(dw) * dh * dd), my(mx.size()), mz(mx.size());
  for (int z = 0; z < dd; ++z)
    for (int y = 0; y < dh; ++y)
      for (int x = 0; x < dw; ++x) {
        const size_t i = (static_cast<size_t>(z) * dh + y) * dw + x;
        mx[i] = static_cast<float>(60000 - 4096 + x);
        my[i] = static_cast<float>(kFirstLine + y);
        mz[i] = static_cast<float>(1 - z);
      }
  const float* px[dd] = {mx.data(), mx.data() + dw * dh};
  const float* py[dd] = {my.data(), my.data() + dw * dh};
  const float* pz[dd] = {mz.data(), mz.data() + dw * dh};
  std::vector<Vel8u> small(static_cast<size_t>(dw) * dh * dd);
  Vel8u* smallPlanes[dd] = {small.data(), small.data() + dw * dh};
  ASSERT_EQ(velrRemap_8u_C1PV(srcPlanes.data(), {kWideW, kWideH, 2}, kWideW,
                              {0, 0, 0, kWideW, kWideH, 2}, px, py, pz, dw * 4, smallPlanes, dw,
                              {dw, dh, dd}, VELR_INTER_NEAREST),
            velStsNoErr);
  long wrong = 0;
  for (int z = 0; z < dd; ++z)
    for (int y = 0; y < dh; ++y)
      for (int x = 0; x < dw; ++x)
        wrong += small[(static_cast<size_t>(z) * dh + y) * dw + x] !=
                 value8(60000 - 4096 + x, kFirstLine + y, 1 - z);
  EXPECT_EQ(wrong, 0) << "remap";

  // Warp into planes as large as the source's: the destination region lies
  // at the bottom right, shifted by (-100, -50) and swapped in z from the
  // source, so both sides are addressed past 2 GiB.
  PlaneVolume dst(2, kWidePlane);
  ASSERT_TRUE(dst.ok());
  const VelrCuboid dstRoi{kWideW - 5000, kFirstLine + 50, 0, 4900, kWideH - kFirstLine - 50, 2};
  const double c[3][4] = {{1, 0, 0, 100}, {0, 1, 0, 50}, {0, 0, -1, 1}};
  ASSERT_EQ(velrWarpAffine_8u_C1PV(srcPlanes.data(), {kWideW, kWideH, 2}, kWideW,
                                   {0, 0, 0, kWideW, kWideH, 2}, dst.planes.data(), kWideW,
                                   dstRoi, c, VELR_INTER_NEAREST, nullptr),
            velStsNoErr);
  wrong = 0;
  for (int z = 0; z < 2; ++z)
    for (int y = dstRoi.y; y < dstRoi.y + dstRoi.height; ++y)
      for (int x = dstRoi.x; x < dstRoi.x + dstRoi.width; ++x)
        wrong += dst.planes[z][static_cast<size_t>(y) * kWideW + x] != value8(x - 100, y - 50, 1 - z);
  EXPECT_EQ(wrong, 0) << "warp";
}

}  // namespace
