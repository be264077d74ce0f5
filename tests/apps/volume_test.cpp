// The volume steps as the demo sets them up, and a whole tiny run.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli.h"
#include "temp_dir.h"
#include "volume.h"

namespace velr::demo {
namespace {

Volume marker(int n, int x, int y, int z) {
  Volume v(n, n, n, 0.0f);
  v.plane(z)[y * n + x] = 1.0f;
  return v;
}

void expectOnlyVoxel(const Volume& v, int x, int y, int z) {
  for (int k = 0; k < v.depth; ++k)
    for (int j = 0; j < v.height; ++j)
      for (int i = 0; i < v.width; ++i)
        ASSERT_NEAR(v.at(i, j, k), (i == x && j == y && k == z) ? 1.0f : 0.0f, 1e-5f)
            << i << ' ' << j << ' ' << k;
}

TEST(DemoVolume, RotationTurnsAboutTheCentreInTheRightSense) {
  // 17^3 has its centre on voxel 8. A quarter turn about z takes
  // (x, y) - c to (-(y - c), x - c); a quarter turn about x takes
  // (y, z) - c to (-(z - c), y - c). Together (Rx after Rz):
  // (11, 9, 8) -> about z (7, 11, 8) -> about x (7, 8, 11).
  double ms = 0;
  expectOnlyVoxel(rotate(marker(17, 11, 9, 8), 90.0, 0.0, &ms), 7, 11, 8);
  expectOnlyVoxel(rotate(marker(17, 11, 9, 8), 90.0, 90.0, &ms), 7, 8, 11);
  EXPECT_GE(ms, 0.0);
}

TEST(DemoVolume, SwirlKeepsTheAxisTheRimAndTheEnds) {
  const Volume src = makePhantom(24);
  double ms = 0;
  // No angle: every voxel samples itself.
  const Volume same = swirl(src, 0.0, &ms);
  for (std::size_t i = 0; i < src.voxels.size(); ++i) ASSERT_NEAR(same.voxels[i], src.voxels[i], 1e-6f);
  const Volume turned = swirl(src, 120.0, &ms);
  int changed = 0;
  for (int z = 0; z < 24; ++z)
    for (int y = 0; y < 24; ++y)
      for (int x = 0; x < 24; ++x) {
        const double r = std::hypot(x - 11.5, y - 11.5) / 12.0;
        if (z == 0 || z == 23 || r >= 1.0)
          ASSERT_NEAR(turned.at(x, y, z), src.at(x, y, z), 1e-5f) << x << ' ' << y << ' ' << z;
        else
          changed += std::fabs(turned.at(x, y, z) - src.at(x, y, z)) > 1e-3f;
      }
  EXPECT_GT(changed, 100);
}

TEST(DemoVolume, SmoothingKeepsConstantsAndSpreadsAnImpulse) {
  double ms = 0;
  // A constant volume stays constant up to the edges, which shows the
  // replicated border and the plane pointers are set up right.
  const Volume flat = smooth(Volume(16, 17, 18, 0.5f), &ms);
  for (float v : flat.voxels) ASSERT_FLOAT_EQ(v, 0.5f);
  // An impulse becomes the binomial kernel: 8/64 at the centre, 4/64 at a
  // face neighbour, 1/64 at a corner neighbour.
  const Volume spread = smooth(marker(16, 5, 6, 7), &ms);
  EXPECT_NEAR(spread.at(5, 6, 7), 8.0f / 64, 1e-4f);
  EXPECT_NEAR(spread.at(4, 6, 7), 4.0f / 64, 1e-4f);
  EXPECT_NEAR(spread.at(6, 7, 8), 1.0f / 64, 1e-4f);
  EXPECT_EQ(spread.at(7, 6, 7), 0.0f);
}

TEST(DemoVolume, ResizeScalesTheExtentAndKeepsAConstant) {
  double ms = 0;
  const Volume up = resizeCubic(Volume(10, 12, 14, 0.25f), 1.5, &ms);
  EXPECT_EQ(up.width, 15);
  EXPECT_EQ(up.height, 18);
  EXPECT_EQ(up.depth, 21);
  for (float v : up.voxels) ASSERT_NEAR(v, 0.25f, 1e-6f);
}

TEST(DemoVolume, ATinyRunWritesEveryPicture) {
  test::TempDir dir;
  const std::string out = dir.file("pictures");
  std::ostringstream log, err;
  ASSERT_EQ(runDemo({"volume", "--size", "16", "--out", out, "--threads", "2"}, log, err), 0)
      << err.str();
  for (const char* name : {"volume-montage.png", "volume-0-input.png", "volume-1-resize.png",
                           "volume-2-warp.png", "volume-3-remap.png", "volume-4-filter.png"}) {
    std::ifstream f(out + "/" + name, std::ios::binary);
    char sig[8] = {};
    f.read(sig, 8);
    EXPECT_EQ(std::string(sig + 1, 3), "PNG") << name;
  }
  for (const char* step : {"resize", "warp", "remap", "filter"})
    EXPECT_NE(log.str().find(step), std::string::npos) << log.str();
  EXPECT_NE(log.str().find("voxels/s"), std::string::npos);
}

}  // namespace
}  // namespace velr::demo
