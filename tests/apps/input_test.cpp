// Reading the files a user may hand to the demo: OBJ meshes and NIfTI-1 volumes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "error.h"
#include "mesh.h"
#include "nifti1.h"
#include "temp_dir.h"
#include "volume.h"

namespace velr::demo {
namespace {

std::string errorOf(auto&& fn) {
  try {
    fn();
  } catch (const UserError& e) {
    return e.what();
  }
  return "";
}

TEST(DemoObj, TriangulatesFacesAndResolvesRelativeIndices) {
  test::TempDir dir;
  const std::string path = dir.write("shape.obj",
                                     "# a quad and a triangle given with relative indices\n"
                                     "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                     "vn 0 0 1\n"
                                     "f 1//1 2//1 3//1 4//1\n"
                                     "v 0 0 2\nv 1 0 2\nv 0 1 2\n"
                                     "f -3 -2 -1\n");
  const SceneMesh m = loadObj(path);
  ASSERT_EQ(m.vertexCount(), 7);
  ASSERT_EQ(m.triangleCount(), 3);
  ASSERT_EQ(m.material.size(), 3u);
  EXPECT_EQ(m.vertices[3 * 4 + 2], 2.0f);
  // The quad covers its four corners; the free fourth word stays 0.
  std::vector<int> quad(m.indices.begin(), m.indices.begin() + 8);
  for (int k : {0, 1, 2, 3}) EXPECT_NE(std::find(quad.begin(), quad.end(), k), quad.end());
  EXPECT_EQ(m.indices[3], 0);
  EXPECT_EQ(std::vector<int>(m.indices.begin() + 8, m.indices.begin() + 11),
            (std::vector<int>{4, 5, 6}));
}

TEST(DemoObj, ExplainsFilesItCannotUse) {
  test::TempDir dir;
  EXPECT_NE(errorOf([&] { loadObj(dir.file("absent.obj")); }).find("cannot open"),
            std::string::npos);
  const std::string points = dir.write("points.obj", "v 0 0 0\nv 1 0 0\n");
  EXPECT_NE(errorOf([&] { loadObj(points); }).find("no triangles"), std::string::npos);
  EXPECT_NE(errorOf([&] { loadObj(dir.file("")); }).find("is a directory"), std::string::npos);
  const std::string dangling = dir.write("dangling.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\n");
  EXPECT_FALSE(errorOf([&] { loadObj(dangling); }).empty());
}

TEST(DemoMesh, PlacesAModelOnTheGround) {
  SceneMesh m;
  m.vertices = {-3, 2, 1, 5, 6, 1, 1, 2, 9};
  m.indices = {0, 1, 2, 0};
  placeOnGround(m, 2.0f, 10.0f, -4.0f);
  const Box b = bounds(m);
  EXPECT_FLOAT_EQ(b.lo[1], 0.0f);
  EXPECT_FLOAT_EQ(std::max({b.hi[0] - b.lo[0], b.hi[1] - b.lo[1], b.hi[2] - b.lo[2]}), 2.0f);
  EXPECT_FLOAT_EQ(0.5f * (b.lo[0] + b.hi[0]), 10.0f);
  EXPECT_FLOAT_EQ(0.5f * (b.lo[2] + b.hi[2]), -4.0f);
}

// A single-file NIfTI-1 image with the given voxel bytes.
std::string niftiFile(short datatype, short bitpix, const short dims[3], const void* data,
                      std::size_t bytes, bool swapped = false, float slope = 0, float inter = 0) {
  nifti_1_header h;
  std::memset(&h, 0, sizeof h);
  h.sizeof_hdr = 348;
  h.dim[0] = 3;
  for (int i = 0; i < 3; ++i) h.dim[i + 1] = dims[i];
  h.datatype = datatype;
  h.bitpix = bitpix;
  h.vox_offset = 352;
  h.scl_slope = slope;
  h.scl_inter = inter;
  std::memcpy(h.magic, "n+1", 4);
  auto swap = [](auto& v) {
    unsigned char b[sizeof v];
    std::memcpy(b, &v, sizeof v);
    std::reverse(b, b + sizeof v);
    std::memcpy(&v, b, sizeof v);
  };
  if (swapped) {
    swap(h.sizeof_hdr);
    for (short& d : h.dim) swap(d);
    swap(h.datatype);
    swap(h.bitpix);
    swap(h.vox_offset);
    swap(h.scl_slope);
    swap(h.scl_inter);
  }
  std::string s(reinterpret_cast<const char*>(&h), sizeof h);
  s.append(4, '\0');
  s.append(static_cast<const char*>(data), bytes);
  return s;
}

TEST(DemoNifti, ReadsFloatAndSwappedIntegerVolumes) {
  test::TempDir dir;
  const short dims[3] = {6, 5, 4};
  std::vector<float> f(6 * 5 * 4);
  for (std::size_t i = 0; i < f.size(); ++i) f[i] = 10.0f + float(i);
  const Volume a = readNifti(dir.write("f.nii", niftiFile(NIFTI_TYPE_FLOAT32, 32, dims, f.data(), f.size() * 4)));
  ASSERT_EQ(a.width, 6);
  ASSERT_EQ(a.height, 5);
  ASSERT_EQ(a.depth, 4);
  // x runs fastest in the file and in the volume; values span [0, 1].
  EXPECT_FLOAT_EQ(a.at(0, 0, 0), 0.0f);
  EXPECT_FLOAT_EQ(a.at(5, 4, 3), 1.0f);
  EXPECT_NEAR(a.at(1, 0, 0), 1.0f / 119.0f, 1e-6);
  EXPECT_NEAR(a.at(0, 1, 0), 6.0f / 119.0f, 1e-6);
  EXPECT_NEAR(a.at(0, 0, 1), 30.0f / 119.0f, 1e-6);

  // Big-endian 16-bit voxels with a negative intensity slope: the order
  // flips, which shows both the byte swap and the scaling were applied.
  std::vector<short> s(6 * 5 * 4);
  for (std::size_t i = 0; i < s.size(); ++i) {
    const unsigned short v = static_cast<unsigned short>(i * 100);
    s[i] = static_cast<short>((v >> 8) | (v << 8));
  }
  const Volume b = readNifti(dir.write("s.nii", niftiFile(NIFTI_TYPE_INT16, 16, dims, s.data(), s.size() * 2, true, -2.0f, 5.0f)));
  EXPECT_FLOAT_EQ(b.at(0, 0, 0), 1.0f);
  EXPECT_FLOAT_EQ(b.at(5, 4, 3), 0.0f);
  EXPECT_NEAR(b.at(1, 0, 0), 118.0f / 119.0f, 1e-6);
}

TEST(DemoNifti, ExplainsFilesItCannotUse) {
  test::TempDir dir;
  const short dims[3] = {6, 5, 4};
  std::vector<float> f(120, 1.0f);
  const std::string good = niftiFile(NIFTI_TYPE_FLOAT32, 32, dims, f.data(), f.size() * 4);
  auto err = [&](const std::string& name, const std::string& content) {
    const std::string path = dir.write(name, content);
    return errorOf([&] { readNifti(path); });
  };
  EXPECT_NE(errorOf([&] { readNifti(dir.file("absent.nii")); }).find("cannot open"), std::string::npos);
  EXPECT_NE(errorOf([&] { readNifti(dir.file("")); }).find("is a directory"), std::string::npos);
  EXPECT_NE(err("short.nii", "abc").find("too short"), std::string::npos);
  EXPECT_NE(err("gz.nii.gz", std::string("\x1f\x8b\x08\x00", 4) + good).find("compressed"),
            std::string::npos);
  EXPECT_NE(err("cut.nii", good.substr(0, good.size() - 4)).find("truncated"), std::string::npos);
  std::string pair = good;
  std::memcpy(&pair[344], "ni1", 4);
  EXPECT_NE(err("pair.nii", pair).find(".hdr/.img"), std::string::npos);
  std::string junk = good;
  junk[0] = 7;
  EXPECT_NE(err("junk.nii", junk).find("not a NIfTI-1 file"), std::string::npos);
  const short flat[3] = {6, 5, 1};
  EXPECT_NE(err("flat.nii", niftiFile(NIFTI_TYPE_FLOAT32, 32, flat, f.data(), 120)).find("too small"),
            std::string::npos);
  EXPECT_NE(err("rgb.nii", niftiFile(NIFTI_TYPE_RGB24, 24, dims, f.data(), 360)).find("voxel type"),
            std::string::npos);
}

}  // namespace
}  // namespace velr::demo
