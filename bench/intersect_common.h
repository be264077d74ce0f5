// The eye-ray workload of the intersection benchmarks, shared by our suite
// and the peer: meshes with their records, box and tree, the camera's rays
// in 16 x 16 blocks in the standard pixel order, and a reader of the tree
// block for its statistics.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "velr.h"
#include "workloads/workloads.h"

namespace velr::bench {

// The tree options the benchmarks use: the quality that traces these meshes
// fastest (higher values make deeper trees of smaller leaves that cost more
// node steps than they save triangle tests), room for a 1M-triangle mesh's
// depth, and a budget of four times what the largest mesh needs.
inline VelrKDTreeBuildOptions benchTreeOptions() {
  return {VELR_KDTREE_FULL, 40, 0.5f, 512, 0};
}

inline const workloads::Mesh& meshNamed(const std::string& name) {
  static const workloads::Mesh b100k = workloads::makeBumpySphere(71);
  static const workloads::Mesh cloud = workloads::makeCloud();
  if (name == "bumpy100k") return b100k;
  if (name == "cloud100k") return cloud;
  static const workloads::Mesh b1m = workloads::makeBumpySphere(224);
  return b1m;
}
inline const char* const kMeshNames[3] = {"bumpy100k", "bumpy1M", "cloud100k"};

// Bounds widened by a ten-thousandth of the largest coordinate, so triangles
// in a face of the box are inside it.
inline void boundingBox(const workloads::Mesh& m, float box[6]) {
  for (int a = 0; a < 3; ++a) {
    box[a] = FLT_MAX;
    box[3 + a] = -FLT_MAX;
  }
  for (int i = 0; i < m.vertexCount(); ++i)
    for (int a = 0; a < 3; ++a) {
      box[a] = std::min(box[a], m.vertices[3 * i + a]);
      box[3 + a] = std::max(box[3 + a], m.vertices[3 * i + a]);
    }
  float big = FLT_MIN;
  for (int i = 0; i < 6; ++i) big = std::max(big, std::fabs(box[i]));
  const float margin = big * 0.0001f;
  for (int a = 0; a < 3; ++a) {
    box[a] -= margin;
    box[3 + a] += margin;
  }
}

struct Scene {
  const workloads::Mesh* mesh = nullptr;
  std::vector<VelrTriangleAccel> records;
  float box[6];
  VelrKDTreeNode* tree = nullptr;
  int treeLength = 0;
  double buildSeconds = 0;

  explicit Scene(const std::string& name) : mesh(&meshNamed(name)) {
    records.resize(mesh->triangleCount());
    velrTriangleAccelInit(records.data(), mesh->vertices.data(), mesh->indices.data(),
                          mesh->triangleCount());
    boundingBox(*mesh, box);
  }
  ~Scene() { velrKDTreeFree(tree); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  VelStatus build(const VelrKDTreeBuildOptions& opt) {
    velrKDTreeFree(tree);
    tree = nullptr;
    return velrKDTreeBuildAlloc(&tree, mesh->vertices.data(), mesh->indices.data(),
                                mesh->vertexCount(), mesh->triangleCount(), &treeLength, &opt);
  }
  VelrIntersectObject object() const { return {box, records.data(), tree}; }
};

// Counts of a tree block, read through the documented node format.
struct TreeCounts {
  long nodes = 0, leaves = 0, emptyLeaves = 0, references = 0;
  int depth = 0;
};

inline TreeCounts countTree(const VelrKDTreeNode* root) {
  TreeCounts c;
  struct Item {
    const VelrKDTreeNode* n;
    int depth;
  };
  std::vector<Item> todo{{root, 0}};
  while (!todo.empty()) {
    const Item it = todo.back();
    todo.pop_back();
    ++c.nodes;
    c.depth = std::max(c.depth, it.depth);
    const Vel32u w0 = it.n->word[0], w1 = it.n->word[1];
    if (!(w0 & 0x80000000u)) {
      const VelrKDTreeNode* child = it.n + ((w0 >> 3) & 0x0FFFFFFFu);
      todo.push_back({child, it.depth + 1});
      todo.push_back({child + 1, it.depth + 1});
      continue;
    }
    ++c.leaves;
    const long count = (w1 & 0x80000000u) ? (w1 & 3u) : w1;
    c.emptyLeaves += count == 0;
    c.references += count;
  }
  return c;
}

// The camera's 1024 x 1024 eye rays, block by block: block b holds pixels in
// the standard order, its three direction planes 256 floats each, starting
// 64-byte aligned (or one float later, which sends the library down its
// one-ray path).
class EyeRays {
 public:
  static constexpr int kBlock = 16;
  static constexpr int kRaysPerBlock = kBlock * kBlock;

  explicit EyeRays(bool misaligned) : offset_(misaligned ? 1 : 0) {
    cam_ = workloads::standardCamera();
    blocks_ = (cam_.width / kBlock) * (cam_.height / kBlock);
    const size_t stride = kRaysPerBlock + 16;
    for (auto& s : storage_) s.assign(stride * blocks_ + 32, 0.0f);
    int b = 0;
    for (int by = 0; by < cam_.height; by += kBlock)
      for (int bx = 0; bx < cam_.width; bx += kBlock, ++b)
        for (int y = 0; y < kBlock; ++y)
          for (int x = 0; x < kBlock; ++x)
            for (int a = 0; a < 3; ++a)
              plane(a, b)[y * kBlock + x] = (cam_.dH[a] * static_cast<float>(by + y) +
                                             cam_.origin[a]) +
                                            cam_.dW[a] * static_cast<float>(bx + x);
  }
  int blocks() const { return blocks_; }
  const float* eye() const { return cam_.eye; }
  float* plane(int p, int block) {
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(storage_[p].data());
    return reinterpret_cast<float*>((base + 63) / 64 * 64) + offset_ +
           static_cast<size_t>(block) * (kRaysPerBlock + 16);
  }
  // Traces every block through the library; returns hits and the sum of
  // their distances.
  void traceVelr(const VelrIntersectObject& obj, long* hits, double* sumT) {
    *hits = 0;
    *sumT = 0;
    for (int b = 0; b < blocks_; ++b) {
      float* dist = plane(3, b);
      for (int i = 0; i < kRaysPerBlock; ++i) dist[i] = 1e30f;
      const Vel32f* const dir[3] = {plane(0, b), plane(1, b), plane(2, b)};
      Vel32f* hit[2] = {plane(4, b), plane(5, b)};
      Vel32s* tri = reinterpret_cast<Vel32s*>(plane(6, b));
      velrIntersectEyeSO_32f(cam_.eye, dir, dist, hit, tri, &obj, kBlock, kBlock);
      for (int i = 0; i < kRaysPerBlock; ++i)
        if (tri[i] >= 0) {
          ++*hits;
          *sumT += dist[i];
        }
    }
  }

 private:
  workloads::Camera cam_;
  int blocks_;
  int offset_;
  std::vector<float> storage_[7];
};

// Planes of per-block data: `count` planes, each `blocks` runs of `width`
// floats (or ints), every run 64-byte aligned plus an offset of 0 or 1 float
// (1 sends the library down its one-ray path).
class PlaneSet {
 public:
  PlaneSet(int count, int blocks, int width, int offset)
      : stride_((width + 16 + 15) / 16 * 16), offset_(offset), storage_(count) {
    for (auto& s : storage_) s.assign(static_cast<size_t>(stride_) * blocks + 32, 0.0f);
  }
  float* f(int p, int block) {
    const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(storage_[p].data());
    return reinterpret_cast<float*>((base + 63) / 64 * 64) + offset_ +
           static_cast<size_t>(block) * stride_;
  }
  Vel32s* i(int p, int block) { return reinterpret_cast<Vel32s*>(f(p, block)); }

 private:
  int stride_, offset_;
  std::vector<std::vector<float>> storage_;
};

// The secondary rays of the standard workload, from the eye rays' hits:
// shadow rays from the light towards the hit points (segment (0, 1), as the
// any-hit query takes them, masked by the eye rays' triangles), reflection
// rays from just in front of the hit points about the flat normal, and the
// eye rays again for four layers. Pixels without a hit get a shadow mask of
// -1 and a reflection distance of -1, which ends those rays at once.
class SecondaryRays {
 public:
  static constexpr int kBlock = EyeRays::kBlock;
  static constexpr int kRays = EyeRays::kRaysPerBlock;
  static constexpr int kLayers = 4;
  enum Plane {
    kShadowDir = 0,    // 3 planes
    kShadowMask = 3,   // as made
    kMask = 4,         // worked on
    kOccluder = 5,
    kReflOrigin = 6,   // 3 planes
    kReflDir = 9,      // 3 planes
    kReflLimit = 12,   // as made
    kReflDist = 13,
    kReflHit = 14,     // 2 planes
    kReflTri = 16,
    kEyeDir = 17,      // 3 planes
    kPlanes = 20
  };

  SecondaryRays(const Scene& scene, bool misaligned, EyeRays& eye)
      : blocks_(eye.blocks()),
        planes_(kPlanes, blocks_, kRays, misaligned ? 1 : 0),
        layers_(4, blocks_, kLayers * kRays, misaligned ? 1 : 0) {
    for (int a = 0; a < 3; ++a) eye_[a] = eye.eye()[a];
    long hits;
    double sumT;
    eye.traceVelr(scene.object(), &hits, &sumT);
    const workloads::Mesh& m = *scene.mesh;
    const float* light = workloads::kLight;
    for (int b = 0; b < blocks_; ++b) {
      const float* t = eye.plane(3, b);
      const Vel32s* tri = reinterpret_cast<const Vel32s*>(eye.plane(6, b));
      for (int i = 0; i < kRays; ++i) {
        float d[3];
        for (int a = 0; a < 3; ++a) {
          d[a] = eye.plane(a, b)[i];
          planes_.f(kEyeDir + a, b)[i] = d[a];
        }
        const bool hit = tri[i] >= 0;
        planes_.i(kShadowMask, b)[i] = tri[i];
        planes_.f(kReflLimit, b)[i] = hit ? 1e30f : -1.0f;
        double n[3] = {0, 0, 1};
        if (hit) {
          const int* v = &m.indices[4 * tri[i]];
          double e1[3], e2[3];
          for (int a = 0; a < 3; ++a) {
            e1[a] = m.vertices[3 * v[1] + a] - m.vertices[3 * v[0] + a];
            e2[a] = m.vertices[3 * v[2] + a] - m.vertices[3 * v[0] + a];
          }
          n[0] = e1[1] * e2[2] - e1[2] * e2[1];
          n[1] = e1[2] * e2[0] - e1[0] * e2[2];
          n[2] = e1[0] * e2[1] - e1[1] * e2[0];
          const double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
          for (double& c : n) c /= len;
        }
        const float dn = static_cast<float>(n[0]) * d[0] + static_cast<float>(n[1]) * d[1] +
                         static_cast<float>(n[2]) * d[2];
        for (int a = 0; a < 3; ++a) {
          const float p = eye_[a] + t[i] * d[a];
          planes_.f(kShadowDir + a, b)[i] = hit ? (p - light[a]) * (1.0f - 1e-4f) : 0.0f;
          planes_.f(kReflOrigin + a, b)[i] = hit ? eye_[a] + (t[i] * 0.9999f) * d[a] : eye_[a];
          planes_.f(kReflDir + a, b)[i] =
              hit ? d[a] - 2.0f * dn * static_cast<float>(n[a]) : d[a];
        }
      }
    }
  }

  int blocks() const { return blocks_; }
  const float* eye() const { return eye_; }
  PlaneSet& planes() { return planes_; }

  // Shadow rays through the library; returns the number of blocked rays.
  long traceShadows(const VelrIntersectObject& obj) {
    long blocked = 0;
    for (int b = 0; b < blocks_; ++b) {
      Vel32s* mask = planes_.i(kMask, b);
      std::memcpy(mask, planes_.i(kShadowMask, b), sizeof(Vel32s) * kRays);
      const Vel32f* const dir[3] = {planes_.f(kShadowDir, b), planes_.f(kShadowDir + 1, b),
                                    planes_.f(kShadowDir + 2, b)};
      Vel32s* occ = planes_.i(kOccluder, b);
      velrIntersectAnySO_32f(workloads::kLight, dir, occ, mask, kBlock, kBlock, &obj);
      for (int i = 0; i < kRays; ++i) blocked += occ[i] >= 0;
    }
    return blocked;
  }

  // Reflection rays through the library; returns hits and their distances.
  void traceReflections(const VelrIntersectObject& obj, long* hits, double* sumT) {
    *hits = 0;
    *sumT = 0;
    for (int b = 0; b < blocks_; ++b) {
      float* dist = planes_.f(kReflDist, b);
      std::memcpy(dist, planes_.f(kReflLimit, b), sizeof(float) * kRays);
      const Vel32f* const org[3] = {planes_.f(kReflOrigin, b), planes_.f(kReflOrigin + 1, b),
                                    planes_.f(kReflOrigin + 2, b)};
      const Vel32f* const dir[3] = {planes_.f(kReflDir, b), planes_.f(kReflDir + 1, b),
                                    planes_.f(kReflDir + 2, b)};
      Vel32f* hit[2] = {planes_.f(kReflHit, b), planes_.f(kReflHit + 1, b)};
      Vel32s* tri = planes_.i(kReflTri, b);
      velrIntersectMO_32f(org, dir, dist, hit, tri, &obj, kBlock, kBlock);
      for (int i = 0; i < kRays; ++i)
        if (tri[i] >= 0) {
          ++*hits;
          *sumT += dist[i];
        }
    }
  }

  // Four layers of the eye rays through the library; returns all layers'
  // hits.
  long traceLayers(const VelrIntersectObject& obj) {
    long hits = 0;
    for (int b = 0; b < blocks_; ++b) {
      float* dist = layers_.f(0, b);
      for (int i = 0; i < kRays; ++i) dist[i] = 1e30f;
      const Vel32f* const dir[3] = {planes_.f(kEyeDir, b), planes_.f(kEyeDir + 1, b),
                                    planes_.f(kEyeDir + 2, b)};
      Vel32f* hit[2] = {layers_.f(1, b), layers_.f(2, b)};
      Vel32s* tri = layers_.i(3, b);
      velrIntersectMultipleSO_32f(eye_, dir, dist, hit, tri, kBlock, kBlock, kLayers, &obj);
      for (int i = 0; i < kLayers * kRays; ++i) hits += tri[i] >= 0;
    }
    return hits;
  }

 private:
  int blocks_;
  float eye_[3];
  PlaneSet planes_;
  PlaneSet layers_;
};

// ------------------------------------------------ the library's benchmarks
// Shared by bench_intersect and the peer comparison, so both time the same
// calls on the same rays.

// The benchmark tree of a standard mesh, built once per process.
inline Scene& sceneNamed(const std::string& name) {
  static std::map<std::string, std::unique_ptr<Scene>> scenes;
  auto& s = scenes[name];
  if (!s) {
    s = std::make_unique<Scene>(name);
    s->build(benchTreeOptions());
  }
  return *s;
}

// The eye rays, aligned (packet path) or one float off (one-ray path).
inline EyeRays& eyeRays(bool misaligned) {
  static EyeRays aligned(false), shifted(true);
  return misaligned ? shifted : aligned;
}

// The secondary rays of a mesh, made once per alignment.
inline SecondaryRays& secondaryRays(const std::string& name, bool packets) {
  static std::map<std::string, std::unique_ptr<SecondaryRays>> made;
  auto& s = made[name + (packets ? "/p" : "/1")];
  if (!s) {
    EyeRays eye(false);
    s = std::make_unique<SecondaryRays>(sceneNamed(name), !packets, eye);
  }
  return *s;
}

// The tree's shape beside a build's time.
inline void treeCounters(benchmark::State& state, const Scene& scene) {
  const TreeCounts c = countTree(scene.tree);
  state.counters["MB"] = scene.treeLength / 1048576.0;
  state.counters["nodes"] = static_cast<double>(c.nodes);
  state.counters["leaves"] = static_cast<double>(c.leaves);
  state.counters["empty"] = static_cast<double>(c.emptyLeaves);
  state.counters["tris/leaf"] = c.references / static_cast<double>(c.leaves - c.emptyLeaves);
  state.counters["depth"] = c.depth;
}

inline void rayCounters(benchmark::State& state, long hits, double sumT) {
  state.counters["rays/s"] = benchmark::Counter(eyeRays(false).blocks() * 256.0,
                                                benchmark::Counter::kIsIterationInvariantRate);
  state.counters["hits"] = static_cast<double>(hits);
  state.counters["sum_t"] = sumT;
}

inline void velrEye(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) eyeRays(!packets).traceVelr(obj, &hits, &sumT);
  rayCounters(state, hits, sumT);
}

inline void velrShadow(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  SecondaryRays& rays = secondaryRays(name, packets);
  long blocked = 0;
  for (auto _ : state) blocked = rays.traceShadows(obj);
  state.counters["blocked"] = static_cast<double>(blocked);
}

inline void velrReflection(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  SecondaryRays& rays = secondaryRays(name, packets);
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) rays.traceReflections(obj, &hits, &sumT);
  state.counters["hits"] = static_cast<double>(hits);
  state.counters["sum_t"] = sumT;
}

inline void velrLayers(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  SecondaryRays& rays = secondaryRays(name, packets);
  long hits = 0;
  for (auto _ : state) hits = rays.traceLayers(obj);
  state.counters["hits"] = static_cast<double>(hits);
}

}  // namespace velr::bench
