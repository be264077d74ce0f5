#include <array>
#include <cmath>
#include <map>

#include "workloads/workloads.h"

namespace velr::workloads {
namespace {

using Vec3 = std::array<double, 3>;

Vec3 normalize(const Vec3& v) {
  const double len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  return {v[0] / len, v[1] / len, v[2] / len};
}

struct Wave {
  Vec3 dir;
  double w, phase, amp;
};

}  // namespace

Mesh makeBumpySphere(int k) {
  const double phi = (1.0 + std::sqrt(5.0)) / 2.0;
  const Vec3 ico[12] = {{-1, phi, 0}, {1, phi, 0},   {-1, -phi, 0}, {1, -phi, 0},
                        {0, -1, phi}, {0, 1, phi},   {0, -1, -phi}, {0, 1, -phi},
                        {phi, 0, -1}, {phi, 0, 1},   {-phi, 0, -1}, {-phi, 0, 1}};
  // Counter-clockwise seen from outside.
  const int faces[20][3] = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11},
                            {1, 5, 9},  {5, 11, 4}, {11, 10, 2}, {10, 7, 6}, {7, 1, 8},
                            {3, 9, 4},  {3, 4, 2},  {3, 2, 6},   {3, 6, 8},  {3, 8, 9},
                            {4, 9, 5},  {2, 4, 11}, {6, 2, 10},  {8, 6, 7},  {9, 8, 1}};

  SplitMix64 rng(12345);
  Wave waves[8];
  for (Wave& wv : waves) {
    const double z = 2.0 * rng.uniform() - 1.0;
    const double az = 2.0 * M_PI * rng.uniform();
    const double rxy = std::sqrt(1.0 - z * z);
    wv.dir = {rxy * std::cos(az), rxy * std::sin(az), z};
    wv.w = rng.uniform(3.0, 9.0);
    wv.phase = rng.uniform(0.0, 2.0 * M_PI);
    wv.amp = rng.uniform(0.02, 0.05);
  }

  Mesh mesh;
  std::map<Vec3, int> index;  // exact merge of shared edge vertices
  std::vector<Vec3> points;
  auto vertexAt = [&](const Vec3& a, const Vec3& b, const Vec3& c, int i, int j) {
    const double wa = k - i - j;
    Vec3 p;
    for (int d = 0; d < 3; ++d) p[d] = wa * a[d] + i * b[d] + j * c[d];
    p = normalize(p);
    auto [it, inserted] = index.emplace(p, static_cast<int>(points.size()));
    if (inserted) points.push_back(p);
    return it->second;
  };
  auto addTriangle = [&](int a, int b, int c) {
    mesh.indices.insert(mesh.indices.end(), {a, b, c, 0});
  };
  for (const auto& f : faces) {
    const Vec3 a = normalize(ico[f[0]]), b = normalize(ico[f[1]]), c = normalize(ico[f[2]]);
    for (int j = 0; j < k; ++j) {
      for (int i = 0; i + j < k; ++i) {
        addTriangle(vertexAt(a, b, c, i, j), vertexAt(a, b, c, i + 1, j),
                    vertexAt(a, b, c, i, j + 1));
        if (i + j < k - 1)
          addTriangle(vertexAt(a, b, c, i + 1, j), vertexAt(a, b, c, i + 1, j + 1),
                      vertexAt(a, b, c, i, j + 1));
      }
    }
  }
  mesh.vertices.reserve(points.size() * 3);
  for (const Vec3& p : points) {
    double r = 1.0;
    for (const Wave& wv : waves)
      r += wv.amp * std::sin(wv.w * (wv.dir[0] * p[0] + wv.dir[1] * p[1] + wv.dir[2] * p[2]) +
                             wv.phase);
    for (int d = 0; d < 3; ++d) mesh.vertices.push_back(static_cast<float>(r * p[d]));
  }
  return mesh;
}

Mesh makeCloud() {
  constexpr int kSpheres = 1000, kRing = 10, kRings = 5, kPerSphere = 2 + kRing * kRings;
  SplitMix64 rng(777);
  Mesh mesh;
  for (int s = 0; s < kSpheres; ++s) {
    const double cx = rng.uniform(-1, 1), cy = rng.uniform(-1, 1), cz = rng.uniform(-1, 1);
    const double r = rng.uniform(0.04, 0.10);
    const int base = s * kPerSphere;
    auto push = [&](double x, double y, double z) {
      mesh.vertices.push_back(static_cast<float>(x * r + cx));
      mesh.vertices.push_back(static_cast<float>(y * r + cy));
      mesh.vertices.push_back(static_cast<float>(z * r + cz));
    };
    push(0, 1, 0);
    for (int j = 1; j <= kRings; ++j) {
      const double theta = j * M_PI / 6.0;
      for (int q = 0; q < kRing; ++q) {
        const double az = 2.0 * M_PI * q / kRing;
        push(std::sin(theta) * std::cos(az), std::cos(theta), std::sin(theta) * std::sin(az));
      }
    }
    push(0, -1, 0);
    auto ring = [&](int j, int q) { return base + 1 + (j - 1) * kRing + (q % kRing); };
    const int north = base, south = base + kPerSphere - 1;
    auto tri = [&](int a, int b, int c) { mesh.indices.insert(mesh.indices.end(), {a, b, c, 0}); };
    // Azimuth runs from +x towards +z, so outward-facing order is (q+1, q).
    for (int q = 0; q < kRing; ++q) tri(north, ring(1, q + 1), ring(1, q));
    for (int j = 1; j < kRings; ++j)
      for (int q = 0; q < kRing; ++q) {
        tri(ring(j, q), ring(j, q + 1), ring(j + 1, q + 1));
        tri(ring(j, q), ring(j + 1, q + 1), ring(j + 1, q));
      }
    for (int q = 0; q < kRing; ++q) tri(south, ring(kRings, q), ring(kRings, q + 1));
  }
  return mesh;
}

}  // namespace velr::workloads
