#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "raytrace/kdtree_build.h"
#include "raytrace/kdtree_sweep.h"
#include "tests/common/threads.h"
#include "tests/raytrace/kdtree_testing.h"

namespace {

using velr::test::buildTree;
using velr::test::fullOptions;
using velr::test::Leaf;
using velr::test::TestMesh;
using velr::test::Tree;

// A small triangle spanning [x0, x0 + s] x [y0, y0 + s] x [z0, z0 + s].
void addCorner(TestMesh* m, float x0, float y0, float z0, float s) {
  const float a[3] = {x0, y0, z0}, b[3] = {x0 + s, y0 + s, z0}, c[3] = {x0, y0 + s, z0 + s};
  m->addTriangle(a, b, c);
}

std::vector<Leaf> leavesOf(const TestMesh& m, const Tree& t) {
  float lo[3], hi[3];
  velr::test::bounds(m, lo, hi);
  return velr::test::parseTree(t, lo, hi);
}

// Every triangle number is valid, no leaf is deeper than allowed, and every
// triangle sits in each leaf its bounds overlap (triangles starting below a
// split go below it, those ending above go above).
void expectWellFormed(const TestMesh& m, const Tree& t, Vel32u maxDepth) {
  const std::vector<Leaf> leaves = leavesOf(m, t);
  ASSERT_FALSE(leaves.empty());
  std::vector<float> lo(3 * m.nt()), hi(3 * m.nt());
  for (int i = 0; i < m.nt(); ++i) velr::test::bounds(m, &lo[3 * i], &hi[3 * i], i);
  struct Item {
    const VelrKDTreeNode* node;
    std::vector<int> overlapping;
  };
  std::vector<int> all(m.nt());
  std::iota(all.begin(), all.end(), 0);
  std::vector<Item> todo{{t.root(), all}};
  size_t leaf = 0;
  while (!todo.empty()) {
    Item it = std::move(todo.back());
    todo.pop_back();
    if (velr::kd::isLeaf(it.node)) {
      ASSERT_LT(leaf, leaves.size());
      const Leaf& l = leaves[leaf++];
      EXPECT_LE(static_cast<Vel32u>(l.depth), maxDepth);
      std::vector<char> in(m.nt(), 0);
      for (int tri : l.tris) {
        ASSERT_TRUE(tri >= 0 && tri < m.nt());
        EXPECT_FALSE(in[tri]) << "listed twice";
        in[tri] = 1;
      }
      for (int tri : it.overlapping) EXPECT_TRUE(in[tri]) << "triangle " << tri << " missing";
      continue;
    }
    const int a = velr::kd::splitAxis(it.node);
    const float x = velr::kd::splitPosition(it.node);
    Item lower{velr::kd::lowerChild(it.node), {}}, upper{lower.node + 1, {}};
    for (int tri : it.overlapping) {
      if (lo[3 * tri + a] < x) lower.overlapping.push_back(tri);
      if (hi[3 * tri + a] > x) upper.overlapping.push_back(tri);
    }
    todo.push_back(std::move(upper));
    todo.push_back(std::move(lower));
  }
}

TEST(KDTreeBuild, ChecksRunInOrderAndWriteNothing) {
  const float v[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  const int idx[4] = {0, 1, 2, 0};
  VelrKDTreeNode* const untouched = reinterpret_cast<VelrKDTreeNode*>(0x40);
  VelrKDTreeNode* tree = untouched;
  int len = -7;
  VelrKDTreeBuildOptions opt = fullOptions();
  auto build = [&](const float* pv, const int* pi, int nv, int nt, int* pl,
                   const VelrKDTreeBuildOptions* po) {
    return velrKDTreeBuildAlloc(&tree, pv, pi, nv, nt, pl, po);
  };
  EXPECT_EQ(velrKDTreeBuildAlloc(nullptr, nullptr, nullptr, -1, -1, nullptr, nullptr),
            velStsNullPtrErr);
  EXPECT_EQ(build(nullptr, idx, 3, 1, &len, &opt), velStsNullPtrErr);
  EXPECT_EQ(build(v, nullptr, 3, 1, &len, &opt), velStsNullPtrErr);
  EXPECT_EQ(build(v, idx, -1, -1, nullptr, nullptr), velStsNullPtrErr);
  EXPECT_EQ(build(v, idx, -1, 1, &len, nullptr), velStsSizeErr);
  EXPECT_EQ(build(v, idx, 3, -1, &len, nullptr), velStsSizeErr);
  EXPECT_EQ(build(v, idx, 3, 1, &len, nullptr), velStsNullPtrErr);
  opt.alg = 0x12345678;
  EXPECT_EQ(build(v, idx, 3, 1, &len, &opt), velStsBadArgErr);
  for (Vel32u alg : {VELR_KDTREE_ONE_LEAF, VELR_KDTREE_FULL})
    for (Vel32u depth : {51u, 0xFFFFFFFFu}) {
      opt = {alg, depth, 0.5f, 64, 0};
      EXPECT_EQ(build(v, idx, 3, 1, &len, &opt), velStsOutOfRangeErr);
    }
  // The quality is checked before the budget.
  for (float q : {-0.0001f, 1.0001f}) {
    opt = fullOptions(q, 30, 0);
    EXPECT_EQ(build(v, idx, 3, 1, &len, &opt), velStsOutOfRangeErr);
  }
  // Budgets below 32 MiB, and those whose 32-bit half-megabyte form wraps.
  for (Vel32u mb : {0u, 31u, 0x2000u, 0x2001Fu}) {
    opt = fullOptions(0.5f, 30, mb);
    EXPECT_EQ(build(v, idx, 3, 1, &len, &opt), velStsNoMemErr) << mb;
  }
  EXPECT_EQ(tree, untouched);
  EXPECT_EQ(len, -7);

  // Boundaries that are accepted; the one-leaf builder reads neither the
  // quality nor the budget.
  const TestMesh m = velr::test::soup(20, 1, 0.3);
  for (float q : {0.0f, 1.0f})
    for (Vel32u depth : {0u, 50u})
      EXPECT_EQ(buildTree(m, fullOptions(q, depth, 0x20020)).status, velStsNoErr);
  EXPECT_EQ(buildTree(m, {VELR_KDTREE_ONE_LEAF, 50, -3.0f, 0, 1}).status, velStsNoErr);
}

TEST(KDTreeBuild, BudgetCoversTheMeshNeedExactly) {
  // 84 bytes per triangle, 12 per vertex and 0x20000F4: 33 MiB exactly.
  TestMesh m = velr::test::soup(1000, 7, 0.05);
  while (m.nv() < 80361) m.addVertex(0, 0, 0);
  EXPECT_EQ(buildTree(m, fullOptions(1.0f, 30, 33)).status, velStsNoErr);
  m.addVertex(0, 0, 0);
  EXPECT_EQ(buildTree(m, fullOptions(1.0f, 30, 33)).status, velStsNoMemErr);
  EXPECT_EQ(buildTree(m, fullOptions(1.0f, 30, 34)).status, velStsNoErr);
  // 32 MiB passes the front check but never covers the fixed part.
  EXPECT_EQ(buildTree(TestMesh{}, fullOptions(1.0f, 30, 32)).status, velStsNoMemErr);
}

TEST(KDTreeBuild, OneLeafAndEmptyTrees) {
  const TestMesh m = velr::test::soup(5, 3, 0.5);
  Tree t = buildTree(m, velr::test::kOneLeaf);
  ASSERT_EQ(t.status, velStsNoErr);
  EXPECT_EQ(t.length, 36);
  EXPECT_EQ(t.words, (std::vector<Vel32u>{0xFFFFFFF0u, 5, 0, 0, 0, 1, 2, 3, 4}));
  // No triangles: an empty leaf, 16 bytes for the one-leaf form, 8 for the
  // full tree.
  t = buildTree(TestMesh{}, velr::test::kOneLeaf);
  EXPECT_EQ(t.length, 16);
  EXPECT_EQ(t.words, (std::vector<Vel32u>{0xFFFFFFF0u, 0, 0, 0}));
  Vel32s scratch[3];
  const Vel32s* list;
  EXPECT_EQ(velr::kd::leafTriangles(t.root(), scratch, &list), 0);
  t = buildTree(TestMesh{}, fullOptions());
  EXPECT_EQ(t.length, 8);
  EXPECT_EQ(velr::kd::leafTriangles(t.root(), scratch, &list), 0);

  // A failed allocation of the one leaf is a budget status.
  const long live = velTestLiveBlocks();
  velTestFailMallocAfter(1);
  EXPECT_EQ(buildTree(m, velr::test::kOneLeaf).status, velStsNoMemErr);
  velTestFailMallocAfter(0);
  EXPECT_EQ(velTestLiveBlocks(), live);
  EXPECT_EQ(velrKDTreeFree(nullptr), velStsNoErr);
}

TEST(KDTreeFormat, InlineLeavesRoundTripWithinTheirFields) {
  auto roundTrip = [](std::vector<Vel32s> t) {
    VelrKDTreeNode n;
    if (!velr::kd::inlineLeaf(t.data(), static_cast<int>(t.size()), &n)) return false;
    Vel32s scratch[3];
    const Vel32s* list;
    const int count = velr::kd::leafTriangles(&n, scratch, &list);
    EXPECT_EQ(std::vector<Vel32s>(list, list + count), t);
    return true;
  };
  EXPECT_TRUE(roundTrip({0x7FFFFFFF}));
  EXPECT_TRUE(roundTrip({5, 0x1FFFFFFF}));
  EXPECT_FALSE(roundTrip({5, 0x20000000}));
  EXPECT_TRUE(roundTrip({0, 0x7FFF, 0x7FFF + 0xFFFF}));
  EXPECT_TRUE(roundTrip({0x1FFFFFFF - 9, 0x1FFFFFFF - 7, 0x1FFFFFFF}));
  EXPECT_FALSE(roundTrip({0, 0x8000, 0x8001}));
  EXPECT_FALSE(roundTrip({0, 1, 0x10001}));
  EXPECT_FALSE(roundTrip({1, 0x20000000, 0x20000001}));
}

TEST(KDTreeSweep, CountingEmptyCutsAndTies) {
  using velr::kd::CutKind;
  const int order[2] = {0, 1};
  auto search = [&](float s0, float s1, float e0, float e1, float ext = 1) {
    const float s[2] = {s0, s1}, e[2] = {e0, e1};
    return velr::kd::searchAxis(order, order, 2, s, e, 0, 4, ext, ext);
  };
  // [0, 2] and [2, 4] touch at 2: each counts only on its own side there.
  velr::kd::AxisResult r = search(0, 2, 2, 4);
  EXPECT_EQ(r.pos, 2.0f);
  EXPECT_EQ(r.nL, 1);
  EXPECT_EQ(r.nR, 1);
  EXPECT_EQ(r.cost, 2.0 * (2.5 + 2.5));
  // [0, 3] and [1, 4] straddle: planes 1 and 3 cost the same, 1 is kept.
  r = search(0, 1, 3, 4);
  EXPECT_EQ(r.pos, 1.0f);
  EXPECT_EQ(r.nR, 2);
  EXPECT_EQ(r.cost, 2.0 * (2 * 3.5 + 1.5));
  // A flat cross-section has no area term.
  EXPECT_EQ(search(0, 2, 2, 4, 1e-5f).cost, 2.0 * static_cast<double>(1e-5f) * 4.0);
  // Empty space below [3, 4] is cut off, at 0.7 of the cut's cost.
  r = search(3, 3.5f, 3.5f, 4);
  EXPECT_EQ(r.kind, CutKind::kEmptyBelow);
  EXPECT_EQ(r.pos, 3.0f);
  EXPECT_EQ(r.nL, 0);
  EXPECT_EQ(r.cost, 0.7 * 2.0 * (2 * (1 + 0.5)));
  // Both ends empty: the cheaper cut, above.
  r = search(1, 1, 2, 2);
  EXPECT_EQ(r.kind, CutKind::kEmptyAbove);
  EXPECT_EQ(r.pos, 2.0f);
  EXPECT_EQ(r.nR, 0);
  // A gap of exactly a tenth of the extent is not cut off.
  EXPECT_EQ(search(0.4f, 1, 1, 4).kind, CutKind::kSweep);
}

TEST(KDTreeBuild, SplitDecisionFollowsCostAxisTiesAndQuality) {
  // Two small triangles far apart along x. At quality 1 the gain 2 * 20
  // beats f L = 0.506 * 42: the leftmost of the equally cheap planes 0.5 and
  // 9.5 splits, and the upper part then cuts off its empty space.
  TestMesh apart;
  const float t1[3][3] = {{0, 0, 0}, {0.5f, 1, 0}, {0.25f, 0, 1}};
  const float t2[3][3] = {{9.5f, 0, 0}, {10, 1, 0}, {9.75f, 0, 1}};
  apart.addTriangle(t1[0], t1[1], t1[2]);
  apart.addTriangle(t2[0], t2[1], t2[2]);
  std::vector<Leaf> leaves = leavesOf(apart, buildTree(apart, fullOptions(1.0f)));
  ASSERT_EQ(leaves.size(), 3u);
  EXPECT_EQ(leaves[0].hi[0], 0.5f);
  EXPECT_EQ(leaves[0].tris, std::vector<int>{0});
  EXPECT_EQ(leaves[1].hi[0], 9.5f);
  EXPECT_TRUE(leaves[1].tris.empty());
  EXPECT_EQ(leaves[2].tris, std::vector<int>{1});
  // Lower quality asks more of a split than it gains.
  for (float q : {0.0f, 0.5f}) EXPECT_EQ(leavesOf(apart, buildTree(apart, fullOptions(q))).size(), 1u);

  auto rootAxis = [](const TestMesh& m) {
    const Tree t = buildTree(m, fullOptions(1.0f));
    EXPECT_FALSE(velr::kd::isLeaf(t.root()));
    return velr::kd::splitAxis(t.root());
  };
  // Flat in z, symmetric in x and y: the tie goes to y.
  TestMesh flat;
  const float f1[3][3] = {{0, 0, 0}, {0.5f, 0, 0}, {0, 0.5f, 0}};
  const float f2[3][3] = {{9.5f, 9.5f, 0}, {10, 9.5f, 0}, {9.5f, 10, 0}};
  flat.addTriangle(f1[0], f1[1], f1[2]);
  flat.addTriangle(f2[0], f2[1], f2[2]);
  EXPECT_EQ(rootAxis(flat), 1);
  // Equal along all three axes, or along x and z with y dearer: z.
  TestMesh cube, xz;
  addCorner(&cube, 0, 0, 0, 0.5f);
  addCorner(&cube, 9.5f, 9.5f, 9.5f, 0.5f);
  EXPECT_EQ(rootAxis(cube), 2);
  addCorner(&xz, 0, 0, 0, 0.5f);
  addCorner(&xz, 9.5f, 1.5f, 9.5f, 0.5f);
  EXPECT_EQ(rootAxis(xz), 2);

  // Slivers along x, thinner than 0.00001 in y and z: below 76 triangles the
  // one qualifying axis is searched; from 76 on a node needs two axes.
  for (int n : {75, 76}) {
    TestMesh slivers;
    for (int i = 0; i < n; ++i) {
      const float x = static_cast<float>(i);
      const float a[3] = {x, 0, 0}, b[3] = {x + 0.5f, 4e-6f, 0}, c[3] = {x + 0.25f, 0, 4e-6f};
      slivers.addTriangle(a, b, c);
    }
    EXPECT_EQ(velr::kd::isLeaf(buildTree(slivers, fullOptions(1.0f)).root()), n == 76);
  }
}

TEST(KDTreeBuild, FullTreesAreWellFormed) {
  const TestMesh meshes[] = {velr::test::bumpy(9), velr::test::soup(3000, 11, 0.2),
                             velr::test::soup(400, 12, 1.5), velr::test::lattice()};
  for (const TestMesh& m : meshes)
    for (float q : {0.0f, 1.0f})
      for (Vel32u depth : {0u, 4u, 50u}) {
        SCOPED_TRACE(testing::Message() << m.nt() << " triangles, q " << q << ", depth " << depth);
        const Tree t = buildTree(m, fullOptions(q, depth));
        ASSERT_EQ(t.status, velStsNoErr);
        expectWellFormed(m, t, depth);
        if (depth == 0) {
          std::vector<int> all(m.nt());
          std::iota(all.begin(), all.end(), 0);
          EXPECT_EQ(leavesOf(m, t)[0].tris, all);
        }
      }
}

TEST(KDTreeBuild, BlockIsTheSameForAnyThreadCountAndPath) {
  for (const TestMesh& m : {velr::test::bumpy(20), velr::test::lattice()}) {
    const Tree reference = buildTree(m, fullOptions(0.8f, 40));
    ASSERT_EQ(reference.status, velStsNoErr);
    velr::test::forEachThreadCount([&](int n) {
      EXPECT_TRUE(buildTree(m, fullOptions(0.8f, 40)).words == reference.words) << n;
    });
    // Builds from inside a parallel region, whose per-axis teams get one
    // thread each; and the path that opens no region at all.
    Tree nested[2];
#pragma omp parallel for num_threads(2)
    for (int i = 0; i < 2; ++i) nested[i] = buildTree(m, fullOptions(0.8f, 40));
    for (const Tree& t : nested) EXPECT_TRUE(t.words == reference.words);
    VelrKDTreeBuildOptions opt = fullOptions(0.8f, 40);
    opt.flags = 1;
    EXPECT_TRUE(buildTree(m, opt).words == reference.words);
    // A team for every node of the parallel decision, however small, from
    // the calling thread and from inside a parallel region.
    auto everyNodeATeam = [&] {
      const velr::kd::FullBuildOptions all{.maxDepth = 40, .quality = 0.8f,
                                           .budgetBytes = 256ull << 20, .teamMinTriangles = 76};
      VelrKDTreeNode* tree = nullptr;
      int len = 0;
      EXPECT_EQ(velr::kd::buildFull(m.v.data(), m.idx.data(), m.nv(), m.nt(), all, &tree, &len,
                                    nullptr),
                velStsNoErr);
      const auto* w = reinterpret_cast<const Vel32u*>(tree);
      const bool same = std::vector<Vel32u>(w, w + len / 4) == reference.words;
      velrKDTreeFree(tree);
      return same;
    };
    EXPECT_TRUE(everyNodeATeam());
    bool nestedSame[2];
#pragma omp parallel for num_threads(2)
    for (int i = 0; i < 2; ++i) nestedSame[i] = everyNodeATeam();
    EXPECT_TRUE(nestedSame[0] && nestedSame[1]);
  }
}

TEST(KDTreeBuild, AllocationFailuresAndAnExhaustedBudget) {
  const TestMesh m = velr::test::lattice();
  const long live = velTestLiveBlocks();
  int failures = 0;
  for (int k = 1; k < 200; ++k) {
    velTestFailMallocAfter(k);
    const VelStatus s = buildTree(m, fullOptions(1.0f)).status;
    velTestFailMallocAfter(0);
    if (s == velStsNoErr) break;
    EXPECT_EQ(s, velStsMemAllocErr) << "allocation " << k;
    ++failures;
  }
  EXPECT_GE(failures, 4);
  EXPECT_EQ(velTestLiveBlocks(), live);

  // Many vertices make the charged vertex area outgrow the need formula, so
  // the budget is overdrawn once the build starts, and the first leaf-list
  // chunk opened after that fails.
  TestMesh big = m;
  while (big.nv() < 400000) big.addVertex(0, 0, 0);
  const std::uint64_t need = 84ull * big.nt() + 12ull * big.nv() + 0x20000F4;
  auto build = [&](std::uint64_t budget, std::int64_t chunk) {
    velr::kd::FullBuildOptions opt{.maxDepth = 0, .quality = 1, .budgetBytes = budget,
                                   .chunkEntries = chunk};
    VelrKDTreeNode* tree = nullptr;
    int len;
    velr::kd::BuildStats stats;
    const VelStatus s = velr::kd::buildFull(big.v.data(), big.idx.data(), big.nv(), big.nt(), opt,
                                            &tree, &len, &stats);
    velrKDTreeFree(tree);
    if (s == velStsNoErr) EXPECT_LE(stats.peakBytes, static_cast<std::int64_t>(budget));
    return s;
  };
  EXPECT_EQ(build(need, 100), velStsMemAllocErr);  // one list of 864 > 100
  EXPECT_EQ(build(need, velr::kd::kLeafChunkEntries), velStsNoErr);
  EXPECT_EQ(build(need + (20 << 20), 100), velStsNoErr);
  EXPECT_EQ(velTestLiveBlocks(), live);
}

}  // namespace
