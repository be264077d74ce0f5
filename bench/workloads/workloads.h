// The standard benchmark workloads: seeded, procedural meshes, camera and
// volumes, identical on every side of a comparison.
#pragma once

#include <cstdint>
#include <vector>

namespace velr::workloads {

// splitmix64, the one generator every workload uses (standard-library
// distributions differ between implementations).
class SplitMix64 {
 public:
  explicit SplitMix64(std::uint64_t seed) : s_(seed) {}
  std::uint64_t next();
  double uniform();                        // [0, 1)
  double uniform(double a, double b);      // [a, b)

 private:
  std::uint64_t s_;
};

struct Mesh {
  std::vector<float> vertices;  // x, y, z per vertex
  std::vector<int> indices;     // a, b, c, 0 per triangle
  int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
  int triangleCount() const { return static_cast<int>(indices.size() / 4); }
};

// Geodesic icosphere of frequency k with smooth radial bumps: k = 71 gives
// bumpy100k, k = 224 bumpy1M.
Mesh makeBumpySphere(int k);
// 1000 small UV spheres in one triangle soup (cloud100k).
Mesh makeCloud();

// Pinhole camera of the eye-ray workloads, in the form the eye-ray caster
// takes: D(x, y) = (dH * y + origin) + dW * x.
struct Camera {
  float eye[3];
  float origin[3];
  float dW[3];
  float dH[3];
  int width;
  int height;
};
Camera standardCamera(int width = 1024, int height = 1024);
inline constexpr float kLight[3] = {3.0f, 4.0f, 1.5f};

// Pixel indices (y * width + x) in the traced order: 16 x 16 blocks,
// row-major inside a block, blocks row-major.
std::vector<int> blockPixelOrder(int width, int height, int block = 16);

// Volume content in [0, 1] for an n^3 volume, arrays [z][y][x].
std::vector<double> volumeContent(int n, std::uint64_t seed);

}  // namespace velr::workloads
