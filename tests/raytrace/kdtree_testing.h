// Meshes, tree parsing and a reference triangle test shared by the KD-tree and
// intersection tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
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
  int addVertex(float x, float y, float z) {
    v.insert(v.end(), {x, y, z});
    return nv() - 1;
  }
  void addTriangle(const float a[3], const float b[3], const float c[3]) {
    const int i = addVertex(a[0], a[1], a[2]);
    const int j = addVertex(b[0], b[1], b[2]);
    const int k = addVertex(c[0], c[1], c[2]);
    idx.insert(idx.end(), {i, j, k, 0});
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

// A 6 x 6 x 6 lattice of unit cubes' faces: every triangle lies in a plane
// x, y or z = integer, the planes a builder is likely to split on.
inline TestMesh lattice() {
  TestMesh m;
  for (int a = 0; a < 3; ++a) {
    const int u = (a + 1) % 3, w = (a + 2) % 3;
    for (int i = 0; i <= 6; i += 2)
      for (int j = 0; j < 6; ++j)
        for (int k = 0; k < 6; ++k) {
          float p[4][3];
          for (int c = 0; c < 4; ++c) {
            p[c][a] = static_cast<float>(i);
            p[c][u] = static_cast<float>(j + (c == 1 || c == 2));
            p[c][w] = static_cast<float>(k + (c >= 2));
          }
          m.addTriangle(p[0], p[1], p[2]);
          m.addTriangle(p[0], p[2], p[3]);
        }
  }
  return m;
}

inline std::vector<VelrTriangleAccel> records(const TestMesh& m) {
  std::vector<VelrTriangleAccel> r(std::max(1, m.nt()));
  velrTriangleAccelInit(r.data(), m.v.data(), m.idx.data(), m.nt());
  return r;
}

// The mesh's bounds widened by a small margin, as a caller would pass them.
inline std::vector<float> boundsOf(const TestMesh& m) {
  std::vector<float> b = {HUGE_VALF, HUGE_VALF, HUGE_VALF, -HUGE_VALF, -HUGE_VALF, -HUGE_VALF};
  for (int i = 0; i < m.nv(); ++i)
    for (int a = 0; a < 3; ++a) {
      b[a] = std::min(b[a], m.v[3 * i + a]);
      b[3 + a] = std::max(b[3 + a], m.v[3 * i + a]);
    }
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

// A built tree copied out of the library's block (which is freed at once).
struct Tree {
  VelStatus status = velStsNoErr;
  std::vector<Vel32u> words;
  int length = 0;
  const VelrKDTreeNode* root() const { return reinterpret_cast<const VelrKDTreeNode*>(words.data()); }
};

inline Tree buildTree(const TestMesh& m, const VelrKDTreeBuildOptions& opt) {
  Tree t;
  VelrKDTreeNode* block = nullptr;
  static const float noVertex[3] = {};
  static const int noIndex[4] = {};
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

// Walks the whole tree from the root box; fails the test on anything outside
// the block or a malformed node.
inline std::vector<Leaf> parseTree(const Tree& t, const float rootLo[3], const float rootHi[3]) {
  std::vector<Leaf> leaves;
  struct Item {
    std::int64_t node;
    Leaf box;
  };
  const std::int64_t nodeCount = t.length / 8;
  std::vector<Item> todo;
  Leaf root{};
  std::copy(rootLo, rootLo + 3, root.lo);
  std::copy(rootHi, rootHi + 3, root.hi);
  todo.push_back({0, root});
  while (!todo.empty()) {
    Item it = todo.back();
    todo.pop_back();
    EXPECT_LT(it.node, nodeCount);
    if (it.node >= nodeCount) return leaves;
    const VelrKDTreeNode* n = t.root() + it.node;
    if (!kd::isLeaf(n)) {
      const int a = kd::splitAxis(n);
      const float x = kd::splitPosition(n);
      const std::int64_t child = kd::lowerChild(n) - t.root();
      EXPECT_LT(a, 3);
      EXPECT_GT(child, it.node);
      EXPECT_LE(child + 2, nodeCount);
      EXPECT_GE(x, it.box.lo[a]);
      EXPECT_LE(x, it.box.hi[a]);
      if (a > 2 || child <= it.node || child + 2 > nodeCount) return leaves;
      Item lower{child, it.box}, upper{child + 1, it.box};
      lower.box.hi[a] = x;
      upper.box.lo[a] = x;
      lower.box.depth = upper.box.depth = it.box.depth + 1;
      todo.push_back(upper);
      todo.push_back(lower);
      continue;
    }
    Vel32s scratch[3];
    const Vel32s* list;
    const int count = kd::leafTriangles(n, scratch, &list);
    if (list != scratch && count > 0) {
      const std::int64_t offset = reinterpret_cast<const char*>(list) -
                                  reinterpret_cast<const char*>(t.root());
      EXPECT_GE(offset, 8 * (it.node + 1));
      EXPECT_LE(offset + 4 * std::int64_t{count}, t.length);
      if (offset < 8 * (it.node + 1) || offset + 4 * std::int64_t{count} > t.length) return leaves;
    }
    Leaf leaf = it.box;
    leaf.tris.assign(list, list + count);
    leaves.push_back(leaf);
  }
  return leaves;
}

// Per-triangle bounds, as the builder sees them.
inline void triangleBounds(const TestMesh& m, int t, float lo[3], float hi[3]) {
  for (int a = 0; a < 3; ++a) {
    lo[a] = HUGE_VALF;
    hi[a] = -HUGE_VALF;
    for (int c = 0; c < 3; ++c) {
      const float x = m.v[3 * m.idx[4 * t + c] + a];
      lo[a] = std::min(lo[a], x);
      hi[a] = std::max(hi[a], x);
    }
  }
}

inline void meshBounds(const TestMesh& m, float lo[3], float hi[3]) {
  for (int a = 0; a < 3; ++a) {
    lo[a] = HUGE_VALF;
    hi[a] = -HUGE_VALF;
  }
  for (int t = 0; t < m.nt(); ++t) {
    float l[3], h[3];
    triangleBounds(m, t, l, h);
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], l[a]);
      hi[a] = std::max(hi[a], h[a]);
    }
  }
}

// Outputs of one ray.
struct RayResult {
  float dist, w1, w2;
  Vel32s tri;
};

inline bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The planes of one block of rays, placed at a chosen offset from a 64-byte
// boundary (a non-zero float offset breaks the 16-byte alignment that the
// packet kernels need). Distance, weights and triangles have `layers`
// layers for the layered query.
class Block {
 public:
  Block(int width, int height, int offset, int layers = 1) : w_(width), h_(height), layers_(layers) {
    const size_t n = static_cast<size_t>(width) * height;
    for (int k = 0; k < kPlanes; ++k) storage_[k].assign(n * (k >= 6 && k < 10 ? layers : 1) + 32, 0.0f);
    auto place = [&](int k) {
      const std::uintptr_t p = reinterpret_cast<std::uintptr_t>(storage_[k].data());
      return reinterpret_cast<float*>((p + 63) / 64 * 64) + offset;
    };
    for (int a = 0; a < 3; ++a) {
      o[a] = place(a);
      dir[a] = place(3 + a);
    }
    dist = place(6);
    hit[0] = place(7);
    hit[1] = place(8);
    tri = reinterpret_cast<Vel32s*>(place(9));
    mask = reinterpret_cast<Vel32s*>(place(10));
    occluder = reinterpret_cast<Vel32s*>(place(11));
  }
  int size() const { return w_ * h_; }
  VelStatus trace(const float origin[3], const VelrIntersectObject& obj) {
    const Vel32f* const d[3] = {dir[0], dir[1], dir[2]};
    return velrIntersectEyeSO_32f(origin, d, dist, hit, tri, &obj, w_, h_);
  }
  VelStatus traceFromSurfaces(const VelrIntersectObject& obj) {
    const Vel32f* const d[3] = {dir[0], dir[1], dir[2]};
    const Vel32f* const org[3] = {o[0], o[1], o[2]};
    return velrIntersectMO_32f(org, d, dist, hit, tri, &obj, w_, h_);
  }
  VelStatus traceShadows(const float origin[3], const VelrIntersectObject& obj) {
    const Vel32f* const d[3] = {dir[0], dir[1], dir[2]};
    return velrIntersectAnySO_32f(origin, d, occluder, mask, w_, h_, &obj);
  }
  VelStatus traceLayers(const float origin[3], const VelrIntersectObject& obj, int maxHits) {
    const Vel32f* const d[3] = {dir[0], dir[1], dir[2]};
    return velrIntersectMultipleSO_32f(origin, d, dist, hit, tri, w_, h_, maxHits, &obj);
  }
  RayResult at(int i, int layer = 0) const {
    const int j = i + layer * size();
    return {dist[j], hit[0][j], hit[1][j], tri[j]};
  }
  void copyInputsFrom(const Block& other) {
    for (int k = 0; k < kPlanes; ++k) {
      const int n = size() * (k >= 6 && k < 10 ? layers_ : 1);
      const float* src = k < 3 ? other.o[k] : k < 6 ? other.dir[k - 3] : k == 6 ? other.dist
                         : k < 9 ? other.hit[k - 7] : k == 9 ? reinterpret_cast<float*>(other.tri)
                         : k == 10 ? reinterpret_cast<float*>(other.mask)
                                   : reinterpret_cast<float*>(other.occluder);
      float* dst = k < 3 ? o[k] : k < 6 ? dir[k - 3] : k == 6 ? dist : k < 9 ? hit[k - 7]
                   : k == 9 ? reinterpret_cast<float*>(tri)
                   : k == 10 ? reinterpret_cast<float*>(mask)
                             : reinterpret_cast<float*>(occluder);
      std::memcpy(dst, src, sizeof(float) * n);
    }
  }

  float* o[3];
  float* dir[3];
  float* dist;
  float* hit[2];
  Vel32s* tri;
  Vel32s* mask;
  Vel32s* occluder;

 private:
  static constexpr int kPlanes = 12;
  int w_, h_, layers_;
  std::vector<float> storage_[kPlanes];
};

// Brute-force nearest hit over the listed triangles with the documented
// arithmetic, for scenes built without distance ties.
inline RayResult reference(const std::vector<VelrTriangleAccel>& recs, const std::vector<int>& tris,
                    const float o[3], const float d[3], float dist) {
  RayResult r{dist, 0, 0, -1};
  for (int n : tris) {
    const VelrTriangleAccel& t = recs[n];
    if (t.axes == 0) continue;
    const int k = (t.axes >> 4) & 3, u = (t.axes >> 2) & 3, v = t.axes & 3;
    const float den = t.nu * d[u] + t.nv * d[v] + d[k];
    const float num = t.ck + t.nu * (t.cu - o[u]) + t.nv * (t.cv - o[v]) - o[k];
    const float hu = d[u] * num - (t.cu - o[u]) * den;
    const float hv = d[v] * num - (t.cv - o[v]) * den;
    const float b1 = t.bv * hu - t.bu * hv;
    const float b2 = t.au * hv - t.av * hu;
    const float b0 = den - b1 - b2;
    if (!(b0 * b1 >= 0 && b1 * b2 >= 0 && b0 * b2 >= 0)) continue;
    const float tt = num / den;
    if (r.dist > tt && tt > 0) r = {tt, b1 / den, b2 / den, n};
  }
  return r;
}

inline void expectSame(const RayResult& a, const RayResult& b, int i) {
  EXPECT_EQ(a.tri, b.tri) << "ray " << i;
  EXPECT_TRUE(sameBits(a.dist, b.dist)) << "ray " << i << ": " << a.dist << " vs " << b.dist;
  EXPECT_TRUE(sameBits(a.w1, b.w1)) << "ray " << i;
  EXPECT_TRUE(sameBits(a.w2, b.w2)) << "ray " << i;
}

// A random tree over a random soup: random splits, leaves of every kind
// holding random triangles wherever they lie.
inline std::vector<Vel32u> randomTree(velr::workloads::SplitMix64& rng, int triangles) {
  std::vector<VelrKDTreeNode> nodes(1);
  std::vector<std::vector<Vel32s>> lists;  // per node, for list leaves
  std::vector<int> listOf(1, -1);
  struct Item {
    size_t node;
    int depth;
  };
  std::vector<Item> todo{{0, 0}};
  while (!todo.empty()) {
    const Item it = todo.back();
    todo.pop_back();
    if (it.depth < 10 && rng.next() % 4 != 0) {
      const size_t child = nodes.size();
      nodes.resize(child + 2);
      listOf.resize(child + 2, -1);
      nodes[it.node] = velr::kd::innerNode(static_cast<int>(rng.next() % 3),
                                           static_cast<Vel32u>(child - it.node),
                                           static_cast<float>(rng.uniform(-1.1, 1.1)));
      todo.push_back({child, it.depth + 1});
      todo.push_back({child + 1, it.depth + 1});
      continue;
    }
    const int count = static_cast<int>(rng.next() % 7);
    std::vector<Vel32s> tris;
    while (static_cast<int>(tris.size()) < count) {
      const Vel32s t = static_cast<Vel32s>(rng.next() % triangles);
      if (std::find(tris.begin(), tris.end(), t) == tris.end()) tris.push_back(t);
    }
    std::sort(tris.begin(), tris.end());
    if (count == 0) {
      nodes[it.node] = velr::kd::emptyLeaf();
    } else if (count > 3 || rng.next() % 3 == 0 ||
               !velr::kd::inlineLeaf(tris.data(), count, &nodes[it.node])) {
      std::shuffle(tris.begin(), tris.end(), std::mt19937_64(rng.next()));
      listOf[it.node] = static_cast<int>(lists.size());
      lists.push_back(tris);
    }
  }
  std::vector<Vel32u> words(2 * nodes.size());
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (listOf[i] >= 0) {
      const Vel32u offset = static_cast<Vel32u>(4 * (words.size() - 2 * i));
      nodes[i] = velr::kd::listLeaf(offset, static_cast<int>(lists[listOf[i]].size()));
      for (Vel32s t : lists[listOf[i]]) words.push_back(static_cast<Vel32u>(t));
    }
    words[2 * i] = nodes[i].word[0];
    words[2 * i + 1] = nodes[i].word[1];
  }
  return words;
}


}  // namespace velr::test
