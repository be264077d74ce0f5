// The ray tracer of the demo, built on the library's public interface.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "aligned.h"
#include "scene.h"
#include "velr.h"

namespace velr::demo {

// Side of the square ray blocks; a multiple of 4 so every block takes the
// library's four-ray paths.
inline constexpr int kTile = 16;

enum Stage { kEyeRays, kNearestHit, kSurface, kShadows, kReflection, kShading, kStageCount };
const char* stageName(Stage s);

struct RenderStats {
  double setupMs[3] = {};  // mesh records + tree, vertex normals, sky projection
  double wallMs = 0;       // tracing the image
  std::array<double, kStageCount> stageMs{};  // summed over threads
  long long eyeRays = 0, shadowRays = 0, reflectionRays = 0;
  long long totalRays() const { return eyeRays + shadowRays + reflectionRays; }
};

// Linear RGB, three floats per pixel, rows top to bottom.
struct Framebuffer {
  int width = 0, height = 0;
  std::vector<float> rgb;
  const float* at(int x, int y) const { return &rgb[(std::size_t(y) * width + x) * 3]; }
};

class Tracer {
 public:
  // Builds the triangle records, the KD-tree, the vertex normals and the
  // ambient light's spherical-harmonic coefficients.
  explicit Tracer(const Scene& scene);
  ~Tracer();
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

  // Traces the image in blocks of kTile x kTile rays on `threads` threads.
  Framebuffer render(const Camera& camera, int threads);
  const RenderStats& stats() const { return stats_; }

  // Ambient term (irradiance / pi, before albedo) for a unit normal; used by
  // tests to reason about expected brightness.
  void ambient(const float normal[3], float rgb[3]) const;

  static constexpr unsigned kShOrder = 4;

 private:
  struct RayBlock;
  struct TileWork;
  void traceTile(const Camera& camera, int bx, int by, TileWork& w, Framebuffer& fb);
  void shadeSurface(RayBlock& rays, TileWork& w);
  void buildMesh();
  void buildNormals();
  void projectSky();

  const Scene& scene_;
  std::vector<VelrTriangleAccel> records_;
  VelrKDTreeNode* tree_ = nullptr;
  float bound_[6] = {};
  VelrIntersectObject object_{};
  AlignedVector<Vel32s> indices_;
  AlignedVector<Vel32f> vertexNormals_;
  AlignedVector<Vel32f> shCoeffs_[3];
  void* shState_ = nullptr;
  RenderStats stats_;
};

}  // namespace velr::demo
