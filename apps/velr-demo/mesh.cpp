#include "mesh.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "error.h"
#include "tiny_obj_loader.h"
#include "workloads/workloads.h"

namespace velr::demo {

void SceneMesh::append(const SceneMesh& other, int materialId) {
  const int base = vertexCount();
  vertices.insert(vertices.end(), other.vertices.begin(), other.vertices.end());
  for (std::size_t i = 0; i < other.indices.size(); ++i)
    indices.push_back(i % 4 == 3 ? 0 : other.indices[i] + base);
  material.insert(material.end(), other.triangleCount(), materialId);
}

Box bounds(const SceneMesh& mesh) {
  Box b{{HUGE_VALF, HUGE_VALF, HUGE_VALF}, {-HUGE_VALF, -HUGE_VALF, -HUGE_VALF}};
  for (std::size_t i = 0; i < mesh.vertices.size(); ++i) {
    b.lo[i % 3] = std::min(b.lo[i % 3], mesh.vertices[i]);
    b.hi[i % 3] = std::max(b.hi[i % 3], mesh.vertices[i]);
  }
  return b;
}

void placeOnGround(SceneMesh& mesh, float size, float cx, float cz) {
  const Box b = bounds(mesh);
  const float extent = std::max({b.hi[0] - b.lo[0], b.hi[1] - b.lo[1], b.hi[2] - b.lo[2]});
  const float scale = extent > 0.0f ? size / extent : 1.0f;
  const float shift[3] = {cx - 0.5f * (b.lo[0] + b.hi[0]) * scale, -b.lo[1] * scale,
                          cz - 0.5f * (b.lo[2] + b.hi[2]) * scale};
  for (std::size_t i = 0; i < mesh.vertices.size(); ++i)
    mesh.vertices[i] = mesh.vertices[i] * scale + shift[i % 3];
}

SceneMesh makeSphere(int frequency, const float centre[3], float radius, int waves,
                     float amplitude, unsigned long long seed) {
  // The benchmark sphere supplies the geodesic topology; its vertices are
  // pushed back onto the unit sphere and displaced by our own relief.
  const workloads::Mesh base = workloads::makeBumpySphere(frequency);
  struct Wave {
    double dir[3], freq, phase;
  };
  std::vector<Wave> relief(std::max(waves, 0));
  workloads::SplitMix64 rng(seed);
  for (Wave& w : relief) {
    const double z = rng.uniform(-1.0, 1.0), az = rng.uniform(0.0, 2.0 * M_PI);
    const double r = std::sqrt(1.0 - z * z);
    w.dir[0] = r * std::cos(az);
    w.dir[1] = r * std::sin(az);
    w.dir[2] = z;
    w.freq = rng.uniform(4.0, 11.0);
    w.phase = rng.uniform(0.0, 2.0 * M_PI);
  }
  SceneMesh mesh;
  mesh.indices = base.indices;
  mesh.material.assign(base.triangleCount(), 0);
  mesh.vertices.resize(base.vertices.size());
  for (std::size_t v = 0; v < base.vertices.size(); v += 3) {
    double p[3] = {base.vertices[v], base.vertices[v + 1], base.vertices[v + 2]};
    const double len = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    for (double& c : p) c /= len;
    double r = 1.0;
    for (const Wave& w : relief)
      r += amplitude * std::sin(w.freq * (w.dir[0] * p[0] + w.dir[1] * p[1] + w.dir[2] * p[2]) +
                                w.phase);
    for (int c = 0; c < 3; ++c)
      mesh.vertices[v + c] = static_cast<float>(centre[c] + radius * r * p[c]);
  }
  return mesh;
}

SceneMesh makeGround(float size, int cells) {
  SceneMesh mesh;
  const int n = cells + 1;
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i)
      mesh.vertices.insert(mesh.vertices.end(), {size * (float(i) / cells - 0.5f), 0.0f,
                                                 size * (float(j) / cells - 0.5f)});
  for (int j = 0; j < cells; ++j)
    for (int i = 0; i < cells; ++i) {
      const int a = j * n + i, b = a + 1, c = a + n, d = c + 1;
      // Counter-clockwise seen from above, so the normals point up.
      mesh.indices.insert(mesh.indices.end(), {a, c, b, 0, b, c, d, 0});
    }
  mesh.material.assign(mesh.triangleCount(), 0);
  return mesh;
}

SceneMesh loadObj(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw UserError("mesh file '" + path + "' is a directory");
  if (!std::ifstream(path, std::ios::binary))
    throw UserError("cannot open mesh file '" + path + "'");
  tinyobj::ObjReaderConfig config;
  config.triangulate = true;
  config.vertex_color = false;
  config.mtl_search_path = "";
  tinyobj::ObjReader reader;
  if (!reader.ParseFromFile(path, config)) {
    std::string why = reader.Error();
    while (!why.empty() && (why.back() == '\n' || why.back() == '\r')) why.pop_back();
    const auto nl = why.find('\n');
    if (nl != std::string::npos) why = why.substr(0, nl);
    throw UserError("cannot read mesh file '" + path + "': " + (why.empty() ? "parse error" : why));
  }
  SceneMesh mesh;
  const auto& coords = reader.GetAttrib().vertices;
  const int vertexCount = static_cast<int>(coords.size() / 3);
  mesh.vertices.assign(coords.begin(), coords.begin() + std::size_t(vertexCount) * 3);
  for (const tinyobj::shape_t& shape : reader.GetShapes()) {
    std::size_t offset = 0;
    for (const auto corners : shape.mesh.num_face_vertices) {
      if (corners == 3) {
        int v[3];
        for (int k = 0; k < 3; ++k) {
          v[k] = shape.mesh.indices[offset + k].vertex_index;
          if (v[k] < 0 || v[k] >= vertexCount)
            throw UserError("mesh file '" + path + "' refers to a vertex that does not exist");
        }
        mesh.indices.insert(mesh.indices.end(), {v[0], v[1], v[2], 0});
      }
      offset += corners;
    }
  }
  for (float c : mesh.vertices)
    if (!std::isfinite(c)) throw UserError("mesh file '" + path + "' has a non-finite coordinate");
  if (mesh.triangleCount() == 0) throw UserError("mesh file '" + path + "' holds no triangles");
  mesh.material.assign(mesh.triangleCount(), 0);
  return mesh;
}

}  // namespace velr::demo
