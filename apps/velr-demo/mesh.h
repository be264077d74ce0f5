// Triangle meshes of the demo scene: procedural shapes and OBJ loading.
#pragma once

#include <string>
#include <vector>

namespace velr::demo {

// Vertices as x, y, z floats; four ints per triangle (three vertex numbers
// and a free word), the layout every library call on meshes takes; and a
// material number per triangle.
struct SceneMesh {
  std::vector<float> vertices;
  std::vector<int> indices;
  std::vector<int> material;

  int vertexCount() const { return static_cast<int>(vertices.size() / 3); }
  int triangleCount() const { return static_cast<int>(indices.size() / 4); }

  // Appends `other` with every triangle given material `materialId`.
  void append(const SceneMesh& other, int materialId);
};

struct Box {
  float lo[3];
  float hi[3];
};
Box bounds(const SceneMesh& mesh);

// Scales uniformly and translates so the mesh's largest extent becomes
// `size`, its centre in x and z lands on (cx, cz) and its lowest point on y = 0.
void placeOnGround(SceneMesh& mesh, float size, float cx, float cz);

// Geodesic sphere of the given subdivision frequency around `centre`; the
// radius along each unit direction p is radius * (1 + relief(p)), where
// relief sums `waves` seeded sine waves of amplitude `amplitude` (0 gives a
// plain sphere).
SceneMesh makeSphere(int frequency, const float centre[3], float radius, int waves,
                     float amplitude, unsigned long long seed);

// Square of side `size` in the plane y = 0, centred on the origin, facing
// +y, as a grid of cells x cells quads.
SceneMesh makeGround(float size, int cells);

// Reads the triangles of a Wavefront OBJ file (faces with more than three
// corners are triangulated; materials and texture data are ignored).
// Throws UserError for a missing, unreadable, malformed or empty file.
SceneMesh loadObj(const std::string& path);

}  // namespace velr::demo
