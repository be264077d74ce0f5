// Meshes, trees and ray blocks shared by the KD-tree and intersection tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "raytrace/kdtree_format.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace velr::test {

struct TestMesh {
  std::vector<float> v;
  std::vector<int> idx;
  int nv() const { return static_cast<int>(v.size() / 3); }
  int nt() const { return static_cast<int>(idx.size() / 4); }
  void addVertex(float x, float y, float z) { v.insert(v.end(), {x, y, z}); }
  void addTriangle(const float a[3], const float b[3], const float c[3]) {
    const int i = nv();
    for (const float* p : {a, b, c}) addVertex(p[0], p[1], p[2]);
    idx.insert(idx.end(), {i, i + 1, i + 2, 0});
  }
};

inline TestMesh bumpy(int k) {
  const workloads::Mesh m = workloads::makeBumpySphere(k);
  return {m.vertices, m.indices};
}

// Random triangles of edge up to `size` in [-1, 1]^3, some of them with two
// equal vertices (degenerate) and some lying in an axis plane.
inline TestMesh soup(int n, std::uint64_t seed, double size) {
  workloads::SplitMix64 rng(seed);
  TestMesh m;
  for (int t = 0; t < n; ++t) {
    float p[3][3];
    for (int a = 0; a < 3; ++a) p[0][a] = static_cast<float>(rng.uniform(-1, 1));
    for (int q = 1; q < 3; ++q)
      for (int a = 0; a < 3; ++a) p[q][a] = p[0][a] + static_cast<float>(rng.uniform(-size, size));
    if (t % 17 == 3) std::memcpy(p[2], p[1], sizeof p[1]);
    if (t % 13 == 5) p[1][t % 3] = p[2][t % 3] = p[0][t % 3];
    m.addTriangle(p[0], p[1], p[2]);
  }
  return m;
}

// Faces of a lattice of cubes: every triangle lies in a plane x, y or z = 0,
// 2, 4 or 6, the planes a builder is likely to split on.
inline TestMesh lattice() {
  TestMesh m;
  for (int a = 0; a < 3; ++a)
    for (int i = 0; i <= 6; i += 2)
      for (int j = 0; j < 6; ++j)
        for (int k = 0; k < 6; ++k) {
          float p[4][3];
          for (int c = 0; c < 4; ++c) {
            p[c][a] = static_cast<float>(i);
            p[c][(a + 1) % 3] = static_cast<float>(j + (c == 1 || c == 2));
            p[c][(a + 2) % 3] = static_cast<float>(k + (c >= 2));
          }
          m.addTriangle(p[0], p[1], p[2]);
          m.addTriangle(p[0], p[2], p[3]);
        }
  return m;
}

// A ray against one record, written plainly from the intersection formula
// the records are built for: the plane term, the distance, the weights of
// vertices A and B, and whether the ray passes through (edges included).
struct RecordTerms {
  float den, t, w1, w2;
  bool inside;
};

inline RecordTerms recordTerms(const VelrTriangleAccel& r, const float o[3], const float d[3]) {
  const int k = (r.axes >> 4) & 3, u = (r.axes >> 2) & 3, v = r.axes & 3;
  const float den = r.nu * d[u] + r.nv * d[v] + d[k];
  const float num = r.ck + r.nu * (r.cu - o[u]) + r.nv * (r.cv - o[v]) - o[k];
  const float hu = d[u] * num - (r.cu - o[u]) * den;
  const float hv = d[v] * num - (r.cv - o[v]) * den;
  const float b1 = r.bv * hu - r.bu * hv;
  const float b2 = r.au * hv - r.av * hu;
  const float b0 = den - b1 - b2;
  return {den, num / den, b1 / den, b2 / den, b0 * b1 >= 0 && b1 * b2 >= 0 && b0 * b2 >= 0};
}

inline std::vector<VelrTriangleAccel> records(const TestMesh& m) {
  std::vector<VelrTriangleAccel> r(std::max(1, m.nt()));
  velrTriangleAccelInit(r.data(), m.v.data(), m.idx.data(), m.nt());
  return r;
}

// Bounds of the triangles (or of triangle t alone), and the bounds a caller
// would pass to the queries: a little wider.
inline void bounds(const TestMesh& m, float lo[3], float hi[3], int t = -1) {
  std::fill(lo, lo + 3, HUGE_VALF);
  std::fill(hi, hi + 3, -HUGE_VALF);
  for (int i = t < 0 ? 0 : t; i < (t < 0 ? m.nt() : t + 1); ++i)
    for (int c = 0; c < 3; ++c)
      for (int a = 0; a < 3; ++a) {
        lo[a] = std::min(lo[a], m.v[3 * m.idx[4 * i + c] + a]);
        hi[a] = std::max(hi[a], m.v[3 * m.idx[4 * i + c] + a]);
      }
}
inline std::vector<float> boxOf(const TestMesh& m) {
  std::vector<float> b(6);
  bounds(m, b.data(), b.data() + 3);
  for (int a = 0; a < 3; ++a) {
    b[a] -= 0.001f;
    b[3 + a] += 0.001f;
  }
  return b;
}

inline VelrKDTreeBuildOptions fullOptions(float quality = 1.0f, Vel32u maxDepth = 30,
                                          Vel32u memoryMB = 256) {
  return {VELR_KDTREE_FULL, maxDepth, quality, memoryMB, 0};
}
inline constexpr VelrKDTreeBuildOptions kOneLeaf = {VELR_KDTREE_ONE_LEAF, 0, 0, 0, 0};

// A built tree copied out of the library's block (which is freed at once).
struct Tree {
  VelStatus status = velStsNoErr;
  std::vector<Vel32u> words;
  int length = 0;
  const VelrKDTreeNode* root() const { return reinterpret_cast<const VelrKDTreeNode*>(words.data()); }
};

inline Tree buildTree(const TestMesh& m, const VelrKDTreeBuildOptions& opt) {
  static const float noVertex[3] = {};
  static const int noIndex[4] = {};
  Tree t;
  VelrKDTreeNode* block = nullptr;
  t.status = velrKDTreeBuildAlloc(&block, m.v.empty() ? noVertex : m.v.data(),
                                  m.idx.empty() ? noIndex : m.idx.data(), m.nv(), m.nt(),
                                  &t.length, &opt);
  if (t.status == velStsNoErr) {
    t.words.resize((t.length + 3) / 4);
    std::memcpy(t.words.data(), block, t.length);
    velrKDTreeFree(block);
  }
  return t;
}

struct Leaf {
  float lo[3], hi[3];
  std::vector<int> tris;
  int depth;
};

// The leaves of a tree in lower-first order with their boxes, failing the
// test on a node or list outside the block.
inline std::vector<Leaf> parseTree(const Tree& t, const float rootLo[3], const float rootHi[3]) {
  std::vector<Leaf> leaves;
  Leaf root{};
  std::copy(rootLo, rootLo + 3, root.lo);
  std::copy(rootHi, rootHi + 3, root.hi);
  std::vector<std::pair<std::int64_t, Leaf>> todo{{0, root}};
  const std::int64_t words = t.length / 4;
  while (!todo.empty()) {
    auto [index, box] = todo.back();
    todo.pop_back();
    EXPECT_LE(2 * index + 2, words);
    if (2 * index + 2 > words) return leaves;
    const VelrKDTreeNode* n = t.root() + index;
    if (!kd::isLeaf(n)) {
      const int a = kd::splitAxis(n);
      const float x = kd::splitPosition(n);
      const std::int64_t child = kd::lowerChild(n) - t.root();
      EXPECT_LT(a, 3);
      EXPECT_GT(child, index);
      EXPECT_GE(x, box.lo[a]);
      EXPECT_LE(x, box.hi[a]);
      if (a > 2 || child <= index) return leaves;
      Leaf lower = box, upper = box;
      lower.hi[a] = upper.lo[a] = x;
      lower.depth = upper.depth = box.depth + 1;
      todo.push_back({child + 1, upper});
      todo.push_back({child, lower});
      continue;
    }
    Vel32s scratch[3];
    const Vel32s* list;
    const int count = kd::leafTriangles(n, scratch, &list);
    const std::int64_t at = reinterpret_cast<const Vel32u*>(list) - t.words.data();
    if (list != scratch && count > 0) {
      EXPECT_GE(at, 2 * index + 2);
      EXPECT_LE(at + count, words);
      if (at < 2 * index + 2 || at + count > words) return leaves;
    }
    box.tris.assign(list, list + count);
    leaves.push_back(box);
  }
  return leaves;
}

// Outputs of one ray.
struct RayResult {
  float dist, w1, w2;
  Vel32s tri;
  bool operator==(const RayResult& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};
inline std::ostream& operator<<(std::ostream& os, const RayResult& r) {
  return os << "{t " << r.dist << ", w " << r.w1 << " " << r.w2 << ", tri " << r.tri << "}";
}

// The planes of a width x height block of rays at a chosen offset from a
// 64-byte boundary (a non-zero offset breaks the 16-byte alignment that the
// packet kernels need). Distances, weights and triangles have `layers`
// layers for the layered query.
class Block {
 public:
  Block(int width, int height, int offset, int layers = 1)
      : w_(width), h_(height), layers_(layers) {
    for (int k = 0; k < kPlanes; ++k) {
      storage_[k].assign(size() * (layered(k) ? layers : 1) + 32, 0.0f);
      const auto p = reinterpret_cast<std::uintptr_t>(storage_[k].data());
      plane_[k] = reinterpret_cast<float*>((p + 63) / 64 * 64) + offset;
    }
  }
  int size() const { return w_ * h_; }
  float* o(int a) { return plane_[a]; }
  float* d(int a) { return plane_[3 + a]; }
  float* dist() { return plane_[6]; }
  float* w(int k) { return plane_[7 + k]; }
  Vel32s* tri() { return reinterpret_cast<Vel32s*>(plane_[9]); }
  Vel32s* mask() { return reinterpret_cast<Vel32s*>(plane_[10]); }
  Vel32s* occluder() { return reinterpret_cast<Vel32s*>(plane_[11]); }
  RayResult at(int i, int layer = 0) {
    const int j = i + layer * size();
    return {dist()[j], w(0)[j], w(1)[j], tri()[j]};
  }
  void copyFrom(const Block& b) {
    for (int k = 0; k < kPlanes; ++k)
      std::memcpy(plane_[k], b.plane_[k], sizeof(float) * size() * (layered(k) ? layers_ : 1));
  }

  VelStatus eye(const float* origin, const VelrIntersectObject& obj) {
    Vel32f* hit[2] = {w(0), w(1)};
    return velrIntersectEyeSO_32f(origin, dirs(), dist(), hit, tri(), &obj, w_, h_);
  }
  VelStatus surface(const VelrIntersectObject& obj) {
    const Vel32f* const org[3] = {o(0), o(1), o(2)};
    Vel32f* hit[2] = {w(0), w(1)};
    return velrIntersectMO_32f(org, dirs(), dist(), hit, tri(), &obj, w_, h_);
  }
  VelStatus shadow(const float* origin, const VelrIntersectObject& obj) {
    return velrIntersectAnySO_32f(origin, dirs(), occluder(), mask(), w_, h_, &obj);
  }
  VelStatus layers(const float* origin, const VelrIntersectObject& obj, int maxHits) {
    Vel32f* hit[2] = {w(0), w(1)};
    return velrIntersectMultipleSO_32f(origin, dirs(), dist(), hit, tri(), w_, h_, maxHits, &obj);
  }

 private:
  static constexpr int kPlanes = 12;
  static bool layered(int k) { return k >= 6 && k <= 9; }
  const Vel32f* const* dirs() {
    dirs_[0] = d(0);
    dirs_[1] = d(1);
    dirs_[2] = d(2);
    return dirs_;
  }
  int w_, h_, layers_;
  std::vector<float> storage_[kPlanes];
  float* plane_[kPlanes];
  const Vel32f* dirs_[3];
};

// A random tree over `triangles` triangles: random splits, and leaves of
// every kind holding random triangles wherever those lie.
inline std::vector<Vel32u> randomTree(workloads::SplitMix64& rng, int triangles) {
  std::vector<VelrKDTreeNode> nodes(1);
  std::vector<std::vector<Vel32s>> lists(1);
  std::vector<std::pair<size_t, int>> todo{{0, 0}};
  while (!todo.empty()) {
    const auto [at, depth] = todo.back();
    todo.pop_back();
    if (depth < 10 && rng.next() % 4 != 0) {
      const size_t child = nodes.size();
      nodes.resize(child + 2);
      lists.resize(child + 2);
      nodes[at] = kd::innerNode(static_cast<int>(rng.next() % 3), static_cast<Vel32u>(child - at),
                                static_cast<float>(rng.uniform(-1.1, 1.1)));
      todo.push_back({child, depth + 1});
      todo.push_back({child + 1, depth + 1});
      continue;
    }
    std::vector<Vel32s> tris;
    for (int count = static_cast<int>(rng.next() % 7); static_cast<int>(tris.size()) < count;) {
      const Vel32s t = static_cast<Vel32s>(rng.next() % triangles);
      if (std::find(tris.begin(), tris.end(), t) == tris.end()) tris.push_back(t);
    }
    std::sort(tris.begin(), tris.end());
    nodes[at] = kd::emptyLeaf();
    if (tris.size() > 3 || rng.next() % 3 == 0 ||
        !kd::inlineLeaf(tris.data(), static_cast<int>(tris.size()), &nodes[at])) {
      std::shuffle(tris.begin(), tris.end(), std::mt19937_64(rng.next()));
      lists[at] = tris;
    }
  }
  std::vector<Vel32u> words(2 * nodes.size());
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (!lists[i].empty()) {
      nodes[i] = kd::listLeaf(static_cast<Vel32u>(4 * (words.size() - 2 * i)),
                              static_cast<int>(lists[i].size()));
      words.insert(words.end(), lists[i].begin(), lists[i].end());
    }
    words[2 * i] = nodes[i].word[0];
    words[2 * i + 1] = nodes[i].word[1];
  }
  return words;
}

}  // namespace velr::test
