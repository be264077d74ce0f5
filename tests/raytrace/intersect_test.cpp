#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "tests/common/targets.h"
#include "tests/raytrace/kdtree_testing.h"

namespace {

using velr::test::Block;
using velr::test::expectSame;
using velr::test::RayResult;
using velr::test::reference;
using velr::test::sameBits;
using velr::test::TestMesh;

// A small triangle facing z around (cx, cy) at height z.
void addFacing(TestMesh* m, float cx, float cy, float z) {
  const float a[3] = {cx - 0.4f, cy - 0.4f, z};
  const float b[3] = {cx + 0.4f, cy - 0.4f, z};
  const float c[3] = {cx, cy + 0.4f, z};
  m->addTriangle(a, b, c);
}

VelrKDTreeNode inner(int axis, Vel32u distance, float split) {
  return velr::kd::innerNode(axis, distance, split);
}

TEST(IntersectEye, HandBuiltTreeWithEveryNodeKind) {
  // Quadrants split at x = 0 and y = 0; the upper-right one once more at
  // x = 2. Triangles 8, 10, 11 and 13 lie in the scene but in no leaf.
  TestMesh m;
  addFacing(&m, -1.5f, -1.5f, 0.0f);  // 0  list leaf
  addFacing(&m, -1.5f, -1.5f, 0.5f);  // 1  list leaf, in front of 0
  addFacing(&m, -3.0f, -0.8f, 0.2f);  // 2  list leaf
  addFacing(&m, -0.8f, -3.0f, 0.9f);  // 3  list leaf
  addFacing(&m, -1.5f, 1.5f, 0.3f);   // 4  one inline
  addFacing(&m, 1.0f, -1.5f, 0.0f);   // 5  two inline
  addFacing(&m, 1.2f, -1.3f, 0.7f);   // 6  two inline, overlapping 5 in front
  addFacing(&m, 0.6f, 0.6f, 0.1f);    // 7  three inline (m - d1)
  addFacing(&m, 1.4f, 0.6f, 0.4f);    // 8  decoy
  addFacing(&m, 1.4f, 1.4f, 0.2f);    // 9  three inline (m)
  addFacing(&m, 0.6f, 1.4f, 0.8f);    // 10 decoy
  addFacing(&m, 1.0f, 2.5f, 0.5f);    // 11 decoy
  addFacing(&m, 1.0f, 1.0f, 1.0f);    // 12 three inline (m + d2), over 7 and 9
  addFacing(&m, 3.0f, 3.0f, 0.0f);    // 13 decoy in the empty leaf
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);

  std::vector<VelrKDTreeNode> nodes(9);
  nodes[0] = inner(0, 1, 0.0f);
  nodes[1] = inner(1, 2, 0.0f);
  nodes[2] = inner(1, 3, 0.0f);
  nodes[3] = velr::kd::listLeaf(8 * (9 - 3), 4);
  const Vel32s one[1] = {4}, two[2] = {5, 6}, three[3] = {7, 9, 12};
  ASSERT_TRUE(velr::kd::inlineLeaf(one, 1, &nodes[4]));
  ASSERT_TRUE(velr::kd::inlineLeaf(two, 2, &nodes[5]));
  nodes[6] = inner(0, 1, 2.0f);
  ASSERT_TRUE(velr::kd::inlineLeaf(three, 3, &nodes[7]));
  nodes[8] = velr::kd::emptyLeaf();
  std::vector<Vel32u> block(2 * nodes.size() + 4);
  std::memcpy(block.data(), nodes.data(), 8 * nodes.size());
  const Vel32u list[4] = {3, 0, 2, 1};
  std::memcpy(block.data() + 2 * nodes.size(), list, sizeof list);

  const float box[6] = {-4, -4, -1, 4, 4, 2};
  const VelrIntersectObject obj{box, recs.data(), reinterpret_cast<VelrKDTreeNode*>(block.data())};
  const std::vector<int> inTree = {0, 1, 2, 3, 4, 5, 6, 7, 9, 12};
  const float origin[3] = {0.05f, -0.1f, 10.0f};
  constexpr int kSide = 64;
  for (int offset : {0, 1}) {  // packets, then single rays
    Block b(kSide, kSide, offset);
    for (int y = 0; y < kSide; ++y)
      for (int x = 0; x < kSide; ++x) {
        const int i = y * kSide + x;
        b.dir[0][i] = (-3.95f + 7.9f * x / (kSide - 1)) - origin[0];
        b.dir[1][i] = (-3.95f + 7.9f * y / (kSide - 1)) - origin[1];
        b.dir[2][i] = -origin[2];
        b.dist[i] = 1e30f;
      }
    ASSERT_EQ(b.trace(origin, obj), velStsNoErr);
    int hits[14] = {};
    for (int i = 0; i < b.size(); ++i) {
      const float d[3] = {b.dir[0][i], b.dir[1][i], b.dir[2][i]};
      const RayResult want = reference(recs, inTree, origin, d, 1e30f);
      if (want.tri < 0) {
        EXPECT_EQ(b.tri[i], -1) << i;
        EXPECT_EQ(b.dist[i], 1e30f) << i;
        continue;
      }
      expectSame(b.at(i), want, i);
      ++hits[want.tri];
    }
    for (int t : inTree)
      if (t != 0 && t != 5) EXPECT_GT(hits[t], 0) << "triangle " << t << " never seen";
  }
}

// One triangle in z = 0 with A = (0, 0, 0), B = (1, 0, 0), C = (0, 1, 0), in
// a one-leaf tree and in a full tree.
struct OneTriangle {
  TestMesh mesh;
  std::vector<VelrTriangleAccel> recs;
  velr::test::Tree oneLeaf, full;
  OneTriangle() {
    const float a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0};
    mesh.addTriangle(a, b, c);
    recs = velr::test::records(mesh);
    oneLeaf = velr::test::buildTree(mesh, {VELR_KDTREE_ONE_LEAF, 0, 0, 0, 0});
    full = velr::test::buildTree(mesh, velr::test::fullOptions());
  }
};

RayResult traceOne(const float* box, const VelrTriangleAccel* recs, const VelrKDTreeNode* root,
                   const float o[3], const float d[3], float dist) {
  const VelrIntersectObject obj{box, recs, root};
  float dx = d[0], dy = d[1], dz = d[2];
  const Vel32f* const dirs[3] = {&dx, &dy, &dz};
  RayResult r{dist, -5.0f, -6.0f, 77};
  float* hit[2] = {&r.w1, &r.w2};
  EXPECT_EQ(velrIntersectEyeSO_32f(o, dirs, &r.dist, hit, &r.tri, &obj, 1, 1), velStsNoErr);
  return r;
}

TEST(IntersectEye, DistanceLimitsAndEdges) {
  const OneTriangle s;
  const float box[6] = {-1, -1, -1, 2, 2, 2};
  const float down[3] = {0, 0, -1};
  const float above[3] = {0.25f, 0.25f, 1.0f};
  for (const velr::test::Tree* t : {&s.oneLeaf, &s.full}) {
    auto trace = [&](const float o[3], const float d[3], float dist) {
      return traceOne(box, s.recs.data(), t->root(), o, d, dist);
    };
    // No t satisfies 0 < t < dist for a limit of 0 or below; a miss leaves
    // distance and weights as they were.
    for (float limit : {0.0f, -1.0f, 1.0f}) {
      const RayResult r = trace(above, down, limit);
      EXPECT_EQ(r.tri, -1);
      EXPECT_EQ(r.dist, limit);
      EXPECT_EQ(r.w1, -5.0f);
      EXPECT_EQ(r.w2, -6.0f);
    }
    RayResult r = trace(above, down, std::nextafter(1.0f, 2.0f));
    EXPECT_EQ(r.tri, 0);
    EXPECT_EQ(r.dist, 1.0f);
    EXPECT_EQ(r.w1, 0.5f);   // weight of A
    EXPECT_EQ(r.w2, 0.25f);  // weight of B
    // Behind the origin.
    const float below[3] = {0.25f, 0.25f, -1.0f};
    EXPECT_EQ(trace(below, down, 1e30f).tri, -1);
    // Through the edge AC (weight of B exactly 0) and through vertex B.
    const float onEdge[3] = {0.0f, 0.5f, 1.0f};
    r = trace(onEdge, down, 1e30f);
    EXPECT_EQ(r.tri, 0);
    EXPECT_EQ(r.w2, 0.0f);
    const float onVertex[3] = {1.0f, 0.0f, 1.0f};
    EXPECT_EQ(trace(onVertex, down, 1e30f).tri, 0);
    const float outside[3] = {0.5001f, 0.5001f, 1.0f};
    EXPECT_EQ(trace(outside, down, 1e30f).tri, -1);
  }
}

TEST(IntersectEye, ParallelSlabsAreNotTested) {
  // The box lies beside the ray in x; the ray is parallel to x and y, so
  // only its z slab is tested and it still reaches the triangle.
  const OneTriangle s;
  const float beside[6] = {5, -1, -1, 6, 2, 2};
  const float o[3] = {0.25f, 0.25f, 1.0f};
  for (const velr::test::Tree* t : {&s.oneLeaf, &s.full}) {
    for (float tiny : {0.0f, -0.0f, 1e-7f, -1.1920928955078125e-07f}) {
      const float d[3] = {tiny, 0.0f, -1.0f};
      EXPECT_EQ(traceOne(beside, s.recs.data(), t->root(), o, d, 1e30f).tri, 0) << tiny;
    }
    // Just above the parallel limit the x slab counts, and misses.
    const float d[3] = {1.2e-7f, 0.0f, -1.0f};
    EXPECT_EQ(traceOne(beside, s.recs.data(), t->root(), o, d, 1e30f).tri, -1);
  }
}

TEST(IntersectEye, DegenerateRecordsAndEqualDistances) {
  // 0: degenerate, on the ray; 1 and 2: the same triangle twice.
  TestMesh m;
  const float p[3] = {0.2f, 0.2f, 0.0f};
  m.addTriangle(p, p, p);
  const float a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0};
  m.addTriangle(a, b, c);
  m.addTriangle(a, b, c);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const float box[6] = {-1, -1, -1, 2, 2, 2};
  const float o[3] = {0.2f, 0.2f, 1.0f}, d[3] = {0, 0, -1};
  // The first triangle met keeps the hit: list order decides in a leaf.
  for (const std::vector<Vel32u>& block :
       {std::vector<Vel32u>{0xFFFFFFF0u, 3, 0, 0, 0, 1, 2},
        std::vector<Vel32u>{0xFFFFFFF0u, 3, 0, 0, 0, 2, 1}}) {
    const RayResult r = traceOne(box, recs.data(),
                                 reinterpret_cast<const VelrKDTreeNode*>(block.data()), o, d, 1e30f);
    EXPECT_EQ(r.tri, static_cast<Vel32s>(block[5]));
  }
  // Alone, the degenerate triangle is never hit.
  const Vel32u alone[5] = {0xFFFFFFF0u, 1, 0, 0, 0};
  EXPECT_EQ(traceOne(box, recs.data(), reinterpret_cast<const VelrKDTreeNode*>(alone), o, d, 1e30f)
                .tri,
            -1);
}

TEST(IntersectEye, EmptyBlocksWriteNothing) {
  const OneTriangle s;
  const float box[6] = {-1, -1, -1, 2, 2, 2};
  const VelrIntersectObject obj{box, s.recs.data(), s.oneLeaf.root()};
  Block b(4, 4, 0);
  for (int i = 0; i < 16; ++i) b.tri[i] = 9;
  const float o[3] = {0, 0, 1};
  const Vel32f* const d[3] = {b.dir[0], b.dir[1], b.dir[2]};
  for (auto [w, h] : {std::pair{0, 4}, std::pair{4, 0}, std::pair{-4, -4}})
    EXPECT_EQ(velrIntersectEyeSO_32f(o, d, b.dist, b.hit, b.tri, &obj, w, h), velStsNoErr);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(b.tri[i], 9);
}

// Rays from a handful of origins, inside and outside the mesh's box, in all
// directions; blocks of 32 x 32.
std::vector<std::pair<std::vector<float>, Block*>> randomBlocks(std::uint64_t seed, int count,
                                                                 std::vector<Block>* store) {
  velr::workloads::SplitMix64 rng(seed);
  std::vector<std::pair<std::vector<float>, Block*>> out;
  store->reserve(count);
  for (int c = 0; c < count; ++c) {
    std::vector<float> o(3);
    const double reach = c % 2 ? 1.0 : 3.0;
    for (float& x : o) x = static_cast<float>(rng.uniform(-reach, reach));
    store->emplace_back(32, 32, 0);
    Block& b = store->back();
    // Directions towards random points near the origin of the scene, so
    // most rays meet the mesh, with random lengths.
    for (int i = 0; i < b.size(); ++i) {
      for (int a = 0; a < 3; ++a)
        b.dir[a][i] = static_cast<float>(rng.uniform(-1.2, 1.2)) - o[a] * (c % 2 ? 0.0f : 1.0f);
      b.dist[i] = i % 97 == 5 ? static_cast<float>(rng.uniform(0.1, 2.0)) : 1e30f;
    }
    out.emplace_back(o, &b);
  }
  return out;
}

TEST(IntersectEye, FullTreesFindTheNearestHitOfBruteForce) {
  const TestMesh meshes[] = {velr::test::bumpy(12), velr::test::soup(2000, 21, 0.3),
                             velr::test::lattice()};
  int ties = 0, hits = 0;
  for (const TestMesh& m : meshes) {
    TestMesh scaled = m;
    if (m.nt() == velr::test::lattice().nt())
      for (float& x : scaled.v) x = x / 3.0f - 1.0f;  // into [-1, 1]
    const std::vector<VelrTriangleAccel> recs = velr::test::records(scaled);
    const std::vector<float> box = velr::test::boundsOf(scaled);
    const velr::test::Tree brute = velr::test::buildTree(scaled, {VELR_KDTREE_ONE_LEAF, 0, 0, 0, 0});
    for (float q : {0.0f, 1.0f}) {
      const velr::test::Tree tree = velr::test::buildTree(scaled, velr::test::fullOptions(q, 40));
      ASSERT_EQ(tree.status, velStsNoErr);
      std::vector<Block> store;
      for (auto& [o, b] : randomBlocks(1234 + m.nt(), 6, &store)) {
        Block single(32, 32, 1);
        single.copyInputsFrom(*b);
        const VelrIntersectObject full{box.data(), recs.data(), tree.root()};
        const VelrIntersectObject all{box.data(), recs.data(), brute.root()};
        b->trace(o.data(), full);
        single.trace(o.data(), all);
        for (int i = 0; i < b->size(); ++i) {
          const RayResult got = b->at(i), want = single.at(i);
          EXPECT_TRUE(sameBits(got.dist, want.dist)) << i << ": " << got.dist << " " << want.dist;
          if (got.tri == want.tri) {
            expectSame(got, want, i);
          } else {
            // Only two triangles at exactly the same distance may differ.
            ASSERT_GE(got.tri, 0);
            ASSERT_GE(want.tri, 0);
            const float d[3] = {b->dir[0][i], b->dir[1][i], b->dir[2][i]};
            EXPECT_TRUE(sameBits(reference(recs, {got.tri}, o.data(), d, 1e30f).dist, got.dist));
            ++ties;
          }
          hits += want.tri >= 0;
        }
      }
    }
  }
  EXPECT_GT(hits, 10000);
  EXPECT_LT(ties, hits / 100);
}

// The documented walk, written plainly: the reference for trees whose leaves
// hold arbitrary triangles, where which leaves a ray visits decides what it
// finds.
RayResult documentedWalk(const VelrIntersectObject& obj, const float o[3], const float d[3],
                         float dist) {
  RayResult r{dist, 0, 0, -1};
  float inv[3];
  int sign[3];
  float tnear = 0, tfar = dist;
  for (int a = 0; a < 3; ++a) {
    if (std::fabs(d[a]) <= 1.1920928955078125e-07f) {
      inv[a] = 838860800.0f;
      sign[a] = 0;
      continue;
    }
    const float t1 = (obj.pBound[a] - o[a]) / d[a], t2 = (obj.pBound[a + 3] - o[a]) / d[a];
    inv[a] = 1 / d[a];
    sign[a] = d[a] < 0;
    const float lo = t1 < t2 ? t1 : t2, hi = t1 > t2 ? t1 : t2;
    tnear = lo > tnear ? lo : tnear;
    tfar = hi < tfar ? hi : tfar;
    if (tnear > tfar) return r;
  }
  tfar += 0.0001f;
  std::vector<std::pair<const VelrKDTreeNode*, float>> stack;
  const VelrKDTreeNode* node = obj.pRootNode;
  for (;;) {
    if (!velr::kd::isLeaf(node)) {
      const int a = velr::kd::splitAxis(node);
      const float ts = (velr::kd::splitPosition(node) - o[a]) * inv[a];
      const VelrKDTreeNode* nearChild = velr::kd::lowerChild(node) + sign[a];
      const VelrKDTreeNode* farChild = velr::kd::lowerChild(node) + 1 - sign[a];
      if (tnear - ts > 0.00001f) {
        node = farChild;
      } else if (ts - tfar > 0.00001f) {
        node = nearChild;
      } else {
        stack.emplace_back(farChild, tfar);
        const float m = ts < tfar ? ts : tfar;
        tfar = tnear > m ? tnear : m;
        node = nearChild;
      }
      continue;
    }
    Vel32s scratch[3];
    const Vel32s* list;
    const int count = velr::kd::leafTriangles(node, scratch, &list);
    for (int i = 0; i < count; ++i) {
      const RayResult h = reference(
          std::vector<VelrTriangleAccel>(obj.pAccel + list[i], obj.pAccel + list[i] + 1), {0}, o,
          d, r.dist);
      if (h.tri == 0) r = {h.dist, h.w1, h.w2, list[i]};
    }
    if (stack.empty() || tfar >= r.dist) return r;
    tnear = tfar;
    node = stack.back().first;
    tfar = stack.back().second;
    stack.pop_back();
  }
}

TEST(IntersectEye, ArbitraryTreesFollowTheDocumentedWalkOnEveryPath) {
  velr::workloads::SplitMix64 rng(5);
  const TestMesh m = velr::test::soup(300, 8, 1.0);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const float box[6] = {-1, -1, -1, 1, 1, 1};
  int hits = 0;
  for (int round = 0; round < 12; ++round) {
    const std::vector<Vel32u> tree = velr::test::randomTree(rng, m.nt());
    const VelrIntersectObject obj{box, recs.data(),
                                  reinterpret_cast<const VelrKDTreeNode*>(tree.data())};
    float o[3];
    for (float& x : o) x = static_cast<float>(rng.uniform(-1.5, 1.5));
    Block in(16, 16, 0);
    for (int i = 0; i < in.size(); ++i) {
      // Coherent rays, as packets are meant for, with now and then a
      // parallel component.
      for (int a = 0; a < 3; ++a)
        in.dir[a][i] = static_cast<float>(-o[a] - 0.9 + 0.6 * ((i >> (2 * a)) % 4) +
                                          rng.uniform(-0.05, 0.05));
      if (i % 37 == 0) in.dir[i % 3][i] = 0.0f;
      in.dist[i] = i % 23 == 0 ? 1.0f : 1e30f;
    }
    Block single(16, 16, 1);
    single.copyInputsFrom(in);
    single.trace(o, obj);
    for (int i = 0; i < in.size(); ++i) {
      const float d[3] = {in.dir[0][i], in.dir[1][i], in.dir[2][i]};
      expectSame(single.at(i), documentedWalk(obj, o, d, in.dist[i]), i);
      hits += single.tri[i] >= 0;
    }
    velr::test::forEachTarget([&](const std::string& target) {
      Block packet(16, 16, 0);
      packet.copyInputsFrom(in);
      packet.trace(o, obj);
      SCOPED_TRACE(target);
      for (int i = 0; i < in.size(); ++i) expectSame(packet.at(i), single.at(i), i);
    });
  }
  EXPECT_GT(hits, 300);
}

TEST(IntersectEye, PacketsGiveTheOneRayResultOnEveryTarget) {
  const TestMesh m = velr::test::bumpy(10);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<float> box = velr::test::boundsOf(m);
  const velr::test::Tree tree = velr::test::buildTree(m, velr::test::fullOptions(1.0f, 40));
  const VelrIntersectObject obj{box.data(), recs.data(), tree.root()};
  const float origin[3] = {0.3f, 0.2f, 2.5f};
  constexpr int kSide = 48;
  Block in(kSide, kSide, 0);
  velr::workloads::SplitMix64 rng(99);
  const float specials[] = {0.0f, -0.0f, 1e-8f, -1e-8f, 1.1920928955078125e-07f,
                            std::numeric_limits<float>::quiet_NaN(), 1e30f};
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kSide; ++x) {
      const int i = y * kSide + x;
      // A fan through the mesh whose x and y signs change mid-block, so some
      // tiles mix signs.
      in.dir[0][i] = -0.3f + 0.9f * (x - kSide / 2 + 0.5f) / kSide;
      in.dir[1][i] = -0.2f + 0.9f * (y - kSide / 2 + 0.5f) / kSide;
      in.dir[2][i] = -1.0f;
      in.dist[i] = 1e30f;
      in.hit[0][i] = in.hit[1][i] = 7.0f;
      in.tri[i] = 5;
      if (rng.next() % 11 == 0) in.dir[rng.next() % 3][i] = specials[rng.next() % 7];
      if (rng.next() % 13 == 0) in.dist[i] = static_cast<float>(rng.uniform(-1, 3));
    }
  // Whole tiles of parallel rays and rays starting beyond every triangle.
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) {
      in.dir[0][y * kSide + x + 8] = 0.0f;
      in.dist[(y + 8) * kSide + x] = 0.5f;
    }

  Block single(kSide, kSide, 1);
  single.copyInputsFrom(in);
  single.trace(origin, obj);
  int hits = 0;
  for (int i = 0; i < single.size(); ++i) hits += single.tri[i] >= 0;
  EXPECT_GT(hits, single.size() / 4);

  velr::test::forEachTarget([&](const std::string& target) {
    Block packet(kSide, kSide, 0);
    packet.copyInputsFrom(in);
    packet.trace(origin, obj);
    for (int i = 0; i < packet.size(); ++i) {
      SCOPED_TRACE(target);
      expectSame(packet.at(i), single.at(i), i);
    }
  });
}

}  // namespace
