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

// 8-bit contiguous source of 2048 x 1024 x 1040 voxels (2.18 GB): a halving
// by nearest neighbour reads voxel (2x, 2y, 2z), so the far planes lie past
// 2^31 bytes from the start.
TEST(LargeVolumes, ContiguousSourceBeyondTwoGiBResizes) {
  REQUIRE_LARGE();
  constexpr int W = 2048, H = 1024, D = 1040;
  const size_t plane = static_cast<size_t>(W) * H;
  Block<Vel8u> src = allocate<Vel8u>(plane * D);
  ASSERT_NE(src, nullptr);
#pragma omp parallel for
  for (int z = 0; z < D; ++z)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) src[z * plane + static_cast<size_t>(y) * W + x] = value8(x, y, z);

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
  Block<float> src = allocate<float>(plane * D);
  ASSERT_NE(src, nullptr);
#pragma omp parallel for
  for (int z = 0; z < D; ++z)
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) src[z * plane + static_cast<size_t>(y) * W + x] = value32(x, y, z);

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

}  // namespace
