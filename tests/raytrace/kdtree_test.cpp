#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include "raytrace/kdtree_build.h"
#include "raytrace/kdtree_format.h"
#include "raytrace/kdtree_sweep.h"
#include "tests/common/threads.h"
#include "tests/raytrace/kdtree_testing.h"

namespace {

using velr::test::buildTree;
using velr::test::fullOptions;
using velr::test::Leaf;
using velr::test::TestMesh;
using velr::test::Tree;

constexpr Vel32u kOneLeaf = VELR_KDTREE_ONE_LEAF;
constexpr Vel32u kFull = VELR_KDTREE_FULL;

// A small triangle spanning [x0, x0 + s] x [y0, y0 + s] x [z0, z0 + s].
void addCornerTriangle(TestMesh* m, float x0, float y0, float z0, float s) {
  const float a[3] = {x0, y0, z0};
  const float b[3] = {x0 + s, y0 + s, z0};
  const float c[3] = {x0, y0 + s, z0 + s};
  m->addTriangle(a, b, c);
}

std::vector<Leaf> leavesOf(const TestMesh& m, const Tree& t) {
  float lo[3], hi[3];
  velr::test::meshBounds(m, lo, hi);
  return velr::test::parseTree(t, lo, hi);
}

// Every triangle number is valid, no leaf is deeper than allowed, and every
// triangle sits in each leaf whose box its bounds overlap (open intervals,
// closed ones for a box flat along an axis). The overlapping triangles are
// narrowed from node to node, so the check costs what the tree holds.
void expectWellFormed(const TestMesh& m, const Tree& t, Vel32u maxDepth) {
  std::vector<float> lo(3 * m.nt()), hi(3 * m.nt());
  for (int i = 0; i < m.nt(); ++i) velr::test::triangleBounds(m, i, &lo[3 * i], &hi[3 * i]);
  float rootLo[3], rootHi[3];
  velr::test::meshBounds(m, rootLo, rootHi);
  ASSERT_FALSE(velr::test::parseTree(t, rootLo, rootHi).empty());  // bounds of every reference

  struct Item {
    const VelrKDTreeNode* node;
    std::vector<int> overlapping;
    int depth;
  };
  std::vector<int> all(m.nt());
  std::iota(all.begin(), all.end(), 0);
  std::vector<Item> todo{{t.root(), all, 0}};
  while (!todo.empty()) {
    Item it = std::move(todo.back());
    todo.pop_back();
    if (velr::kd::isLeaf(it.node)) {
      EXPECT_LE(static_cast<Vel32u>(it.depth), maxDepth);
      Vel32s scratch[3];
      const Vel32s* list;
      const int count = velr::kd::leafTriangles(it.node, scratch, &list);
      std::vector<char> in(m.nt(), 0);
      for (int i = 0; i < count; ++i) {
        ASSERT_GE(list[i], 0);
        ASSERT_LT(list[i], m.nt());
        EXPECT_FALSE(in[list[i]]) << "triangle listed twice in a leaf";
        in[list[i]] = 1;
      }
      for (int tri : it.overlapping)
        EXPECT_TRUE(in[tri]) << "triangle " << tri << " missing from a leaf it overlaps";
      continue;
    }
    // Child boxes along the split axis; the parsed walk checked the split
    // lies inside the parent, so [lo, x] and [x, hi] are proper.
    const int a = velr::kd::splitAxis(it.node);
    const float x = velr::kd::splitPosition(it.node);
    Item lower{velr::kd::lowerChild(it.node), {}, it.depth + 1};
    Item upper{lower.node + 1, {}, it.depth + 1};
    for (int tri : it.overlapping) {
      if (lo[3 * tri + a] < x) lower.overlapping.push_back(tri);
      if (hi[3 * tri + a] > x) upper.overlapping.push_back(tri);
    }
    todo.push_back(std::move(lower));
    todo.push_back(std::move(upper));
  }
}

TEST(KDTreeBuild, ChecksRunInOrderAndWriteNothing) {
  const float v[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  const int idx[4] = {0, 1, 2, 0};
  VelrKDTreeNode* tree = reinterpret_cast<VelrKDTreeNode*>(&tree);
  VelrKDTreeNode* const untouched = tree;
  int len = -7;
  VelrKDTreeBuildOptions opt = fullOptions();
  auto run = [&](VelrKDTreeNode** pp, const float* pv, const int* pi, int nv, int nt, int* pl,
                 const VelrKDTreeBuildOptions* po) {
    return velrKDTreeBuildAlloc(pp, pv, pi, nv, nt, pl, po);
  };
  EXPECT_EQ(run(nullptr, nullptr, nullptr, -1, -1, nullptr, nullptr), velStsNullPtrErr);
  EXPECT_EQ(run(&tree, nullptr, idx, 3, 1, &len, &opt), velStsNullPtrErr);
  EXPECT_EQ(run(&tree, v, nullptr, 3, 1, &len, &opt), velStsNullPtrErr);
  EXPECT_EQ(run(&tree, v, idx, -1, -1, nullptr, nullptr), velStsNullPtrErr);
  EXPECT_EQ(run(&tree, v, idx, -1, 1, &len, nullptr), velStsSizeErr);
  EXPECT_EQ(run(&tree, v, idx, 3, -1, &len, nullptr), velStsSizeErr);
  EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, nullptr), velStsNullPtrErr);

  opt.alg = 0x12345678;
  EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, &opt), velStsBadArgErr);

  // Depth: 51 and "-1" (compared unsigned) are refused by both builders.
  for (Vel32u alg : {kOneLeaf, kFull}) {
    opt = fullOptions();
    opt.alg = alg;
    opt.maxDepth = 51;
    EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, &opt), velStsOutOfRangeErr);
    opt.maxDepth = 0xFFFFFFFFu;
    EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, &opt), velStsOutOfRangeErr);
  }
  // The quality factor is checked before the budget.
  opt = fullOptions(-0.0001f, 30, 0);
  EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, &opt), velStsOutOfRangeErr);
  opt = fullOptions(1.0001f, 30, 0);
  EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, &opt), velStsOutOfRangeErr);
  // Budgets below 32 MiB, and those whose 32-bit half-megabyte form wraps.
  for (Vel32u mb : {0u, 31u, 0x2000u, 0x2001Fu}) {
    opt = fullOptions(0.5f, 30, mb);
    EXPECT_EQ(run(&tree, v, idx, 3, 1, &len, &opt), velStsNoMemErr) << mb;
  }
  EXPECT_EQ(tree, untouched);
  EXPECT_EQ(len, -7);
}

TEST(KDTreeBuild, AcceptsTheBoundariesOfEveryOption) {
  const TestMesh m = velr::test::soup(20, 1, 0.3);
  for (float q : {0.0f, 1.0f})
    for (Vel32u depth : {0u, 50u}) {
      const Tree t = buildTree(m, fullOptions(q, depth, 0x2001Fu + 1));
      EXPECT_EQ(t.status, velStsNoErr) << q << " " << depth;
    }
  // The one-leaf builder reads neither the quality nor the budget.
  const VelrKDTreeBuildOptions opt{kOneLeaf, 50, -3.0f, 0, 1};
  EXPECT_EQ(buildTree(m, opt).status, velStsNoErr);
}

TEST(KDTreeBuild, BudgetCoversTheMeshNeedExactly) {
  // Need: 84 bytes per triangle, 12 per vertex and 0x20000F4 bytes. With
  // 1000 triangles and 80361 vertices it is exactly 33 MiB.
  TestMesh m = velr::test::soup(1000, 7, 0.05);
  while (m.nv() < 80361) m.addVertex(0, 0, 0);
  EXPECT_EQ(buildTree(m, fullOptions(1.0f, 30, 33)).status, velStsNoErr);
  m.addVertex(0, 0, 0);
  EXPECT_EQ(buildTree(m, fullOptions(1.0f, 30, 33)).status, velStsNoMemErr);
  EXPECT_EQ(buildTree(m, fullOptions(1.0f, 30, 34)).status, velStsNoErr);
  // 32 MiB passes the front check but can never cover the fixed need.
  EXPECT_EQ(buildTree(TestMesh{}, fullOptions(1.0f, 30, 32)).status, velStsNoMemErr);
}

TEST(KDTreeBuild, OneLeafBlock) {
  TestMesh m = velr::test::soup(5, 3, 0.5);
  const VelrKDTreeBuildOptions opt{kOneLeaf, 0, 0, 0, 0};
  Tree t = buildTree(m, opt);
  ASSERT_EQ(t.status, velStsNoErr);
  EXPECT_EQ(t.length, 36);
  EXPECT_EQ(t.words, (std::vector<Vel32u>{0xFFFFFFF0u, 5, 0, 0, 0, 1, 2, 3, 4}));

  t = buildTree(TestMesh{}, opt);
  ASSERT_EQ(t.status, velStsNoErr);
  EXPECT_EQ(t.length, 16);
  EXPECT_EQ(t.words, (std::vector<Vel32u>{0xFFFFFFF0u, 0, 0, 0}));
  Vel32s scratch[3];
  const Vel32s* list;
  EXPECT_EQ(velr::kd::leafTriangles(t.root(), scratch, &list), 0);

  // A failed allocation of the one leaf is a budget status.
  const long live = velTestLiveBlocks();
  velTestFailMallocAfter(1);
  VelrKDTreeNode* tree = nullptr;
  int len = 0;
  EXPECT_EQ(velrKDTreeBuildAlloc(&tree, m.v.data(), m.idx.data(), m.nv(), m.nt(), &len, &opt),
            velStsNoMemErr);
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
    EXPECT_TRUE(velr::kd::isLeaf(&n));
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
  EXPECT_FALSE(roundTrip({1, 2, 3, 4}));
}

TEST(KDTreeSweep, CountsTouchingAndStraddlingTrianglesAndKeepsTheLeftmostTie) {
  using velr::kd::searchAxis;
  const int order[2] = {0, 1};
  // [0, 2] and [2, 4] touch at 2: each counts only on its own side there.
  {
    const float s[2] = {0, 2}, e[2] = {2, 4};
    const velr::kd::AxisResult r = searchAxis(order, order, 2, s, e, 0, 4, 1, 1);
    EXPECT_EQ(r.pos, 2.0f);
    EXPECT_EQ(r.nL, 1);
    EXPECT_EQ(r.nR, 1);
    EXPECT_EQ(r.cost, 2.0 * (2.5 + 2.5));
    EXPECT_EQ(r.kind, velr::kd::CutKind::kSweep);
  }
  // [0, 3] and [1, 4] overlap: 1 and 3 cost the same, 1 is kept.
  {
    const float s[2] = {0, 1}, e[2] = {3, 4};
    const velr::kd::AxisResult r = searchAxis(order, order, 2, s, e, 0, 4, 1, 1);
    EXPECT_EQ(r.pos, 1.0f);
    EXPECT_EQ(r.nL, 1);
    EXPECT_EQ(r.nR, 2);
    EXPECT_EQ(r.cost, 2.0 * (2 * 3.5 + 1.5));
  }
  // Flat cross-section: the area term vanishes.
  {
    const float s[2] = {0, 2}, e[2] = {2, 4};
    const velr::kd::AxisResult r = searchAxis(order, order, 2, s, e, 0, 4, 1e-5f, 1e-5f);
    EXPECT_EQ(r.cost, 2.0 * static_cast<double>(1e-5f) * 4.0);
  }
}

TEST(KDTreeSweep, CutsOffEmptySpaceWithABonus) {
  using velr::kd::CutKind;
  using velr::kd::searchAxis;
  const int order[2] = {0, 1};
  // Triangles in [3, 4] of [0, 4]: only the space below is empty.
  {
    const float s[2] = {3, 3.5f}, e[2] = {3.5f, 4};
    const velr::kd::AxisResult r = searchAxis(order, order, 2, s, e, 0, 4, 1, 1);
    EXPECT_EQ(r.kind, CutKind::kEmptyBelow);
    EXPECT_EQ(r.pos, 3.0f);
    EXPECT_EQ(r.nL, 0);
    EXPECT_EQ(r.nR, 2);
    EXPECT_EQ(r.cost, 0.7 * 2.0 * (2 * (1 + 0.5)));
  }
  // Triangles in [1, 2]: both ends are empty; the cheaper cut is above.
  {
    const float s[2] = {1, 1}, e[2] = {2, 2};
    const velr::kd::AxisResult r = searchAxis(order, order, 2, s, e, 0, 4, 1, 1);
    EXPECT_EQ(r.kind, CutKind::kEmptyAbove);
    EXPECT_EQ(r.pos, 2.0f);
    EXPECT_EQ(r.nL, 2);
    EXPECT_EQ(r.nR, 0);
  }
  // A gap of exactly a tenth of the extent is not a cut.
  {
    const float s[2] = {0.4f, 1}, e[2] = {1, 4};
    EXPECT_EQ(searchAxis(order, order, 2, s, e, 0, 4, 1, 1).kind, CutKind::kSweep);
  }
}

TEST(KDTreeBuild, SplitDecisionFollowsCostAxisTiesAndQuality) {
  // Two small triangles far apart along x.
  TestMesh apart;
  const float t1[3][3] = {{0, 0, 0}, {0.5f, 1, 0}, {0.25f, 0, 1}};
  apart.addTriangle(t1[0], t1[1], t1[2]);
  const float t2[3][3] = {{9.5f, 0, 0}, {10, 1, 0}, {9.75f, 0, 1}};
  apart.addTriangle(t2[0], t2[1], t2[2]);
  // High quality splits: the gain 2 * 20 beats f L = 0.506 * 42, and the
  // leftmost of the equally cheap planes 0.5 and 9.5 is taken. The upper
  // part then cuts off its empty space.
  Tree t = buildTree(apart, fullOptions(1.0f));
  ASSERT_EQ(t.status, velStsNoErr);
  std::vector<Leaf> leaves = leavesOf(apart, t);
  ASSERT_EQ(leaves.size(), 3u);
  EXPECT_EQ(leaves[0].hi[0], 0.5f);
  EXPECT_EQ(leaves[0].tris, std::vector<int>{0});
  EXPECT_EQ(leaves[1].lo[0], 0.5f);
  EXPECT_EQ(leaves[1].hi[0], 9.5f);
  EXPECT_TRUE(leaves[1].tris.empty());
  EXPECT_EQ(leaves[2].tris, std::vector<int>{1});
  // Lower quality asks more of a split than this one gains.
  for (float q : {0.0f, 0.5f}) {
    t = buildTree(apart, fullOptions(q));
    ASSERT_EQ(t.status, velStsNoErr);
    leaves = leavesOf(apart, t);
    ASSERT_EQ(leaves.size(), 1u) << q;
    EXPECT_EQ(leaves[0].tris, (std::vector<int>{0, 1}));
  }

  auto rootAxis = [](const TestMesh& m) {
    const Tree tree = buildTree(m, fullOptions(1.0f));
    EXPECT_EQ(tree.status, velStsNoErr);
    EXPECT_FALSE(velr::kd::isLeaf(tree.root()));
    return velr::kd::splitAxis(tree.root());
  };
  // Flat in z, symmetric in x and y: the x-y tie goes to y.
  TestMesh flat;
  const float f1[3][3] = {{0, 0, 0}, {0.5f, 0, 0}, {0, 0.5f, 0}};
  const float f2[3][3] = {{9.5f, 9.5f, 0}, {10, 9.5f, 0}, {9.5f, 10, 0}};
  flat.addTriangle(f1[0], f1[1], f1[2]);
  flat.addTriangle(f2[0], f2[1], f2[2]);
  EXPECT_EQ(rootAxis(flat), 1);
  // The same along all three axes: ties with z go to z.
  TestMesh cube;
  addCornerTriangle(&cube, 0, 0, 0, 0.5f);
  addCornerTriangle(&cube, 9.5f, 9.5f, 9.5f, 0.5f);
  EXPECT_EQ(rootAxis(cube), 2);
  // x and z equal, y dearer: z again.
  TestMesh xz;
  addCornerTriangle(&xz, 0, 0, 0, 0.5f);
  addCornerTriangle(&xz, 9.5f, 1.5f, 9.5f, 0.5f);
  EXPECT_EQ(rootAxis(xz), 2);
}

TEST(KDTreeBuild, LargeNodesThinAlongTwoAxesStayLeaves) {
  // Slivers along x, thinner than 0.00001 in y and z. Below 76 triangles the
  // one qualifying axis is searched; from 76 on a node needs two axes.
  auto slivers = [](int n) {
    TestMesh m;
    for (int i = 0; i < n; ++i) {
      const float x = static_cast<float>(i);
      const float a[3] = {x, 0, 0}, b[3] = {x + 0.5f, 4e-6f, 0}, c[3] = {x + 0.25f, 0, 4e-6f};
      m.addTriangle(a, b, c);
    }
    return m;
  };
  Tree t = buildTree(slivers(75), fullOptions(1.0f));
  ASSERT_EQ(t.status, velStsNoErr);
  EXPECT_FALSE(velr::kd::isLeaf(t.root()));
  t = buildTree(slivers(76), fullOptions(1.0f));
  ASSERT_EQ(t.status, velStsNoErr);
  EXPECT_TRUE(velr::kd::isLeaf(t.root()));
  EXPECT_EQ(t.root()->word[1], 76u);
}

TEST(KDTreeBuild, FullTreesAreWellFormed) {
  const TestMesh meshes[] = {velr::test::bumpy(9), velr::test::soup(3000, 11, 0.2),
                             velr::test::soup(400, 12, 1.5), velr::test::lattice()};
  for (const TestMesh& m : meshes) {
    for (float q : {0.0f, 1.0f}) {
      for (Vel32u depth : {0u, 4u, 50u}) {
        SCOPED_TRACE(testing::Message() << m.nt() << " triangles, q " << q << ", depth " << depth);
        const Tree t = buildTree(m, fullOptions(q, depth));
        ASSERT_EQ(t.status, velStsNoErr);
        expectWellFormed(m, t, depth);
        if (depth == 0) {
          // The root is a leaf listing every triangle in order.
          const std::vector<Leaf> leaves = leavesOf(m, t);
          ASSERT_EQ(leaves.size(), 1u);
          std::vector<int> all(m.nt());
          std::iota(all.begin(), all.end(), 0);
          EXPECT_EQ(leaves[0].tris, all);
        }
      }
    }
  }
}

TEST(KDTreeBuild, EmptyMeshGivesAnEmptyLeaf) {
  const Tree t = buildTree(TestMesh{}, fullOptions());
  ASSERT_EQ(t.status, velStsNoErr);
  EXPECT_EQ(t.length, 8);
  Vel32s scratch[3];
  const Vel32s* list;
  EXPECT_TRUE(velr::kd::isLeaf(t.root()));
  EXPECT_EQ(velr::kd::leafTriangles(t.root(), scratch, &list), 0);
}

TEST(KDTreeBuild, BlockIsTheSameForAnyThreadCount) {
  const TestMesh meshes[] = {velr::test::bumpy(20), velr::test::lattice()};
  for (const TestMesh& m : meshes) {
    const Tree reference = buildTree(m, fullOptions(0.8f, 40));
    ASSERT_EQ(reference.status, velStsNoErr);
    velr::test::forEachThreadCount([&](int n) {
      const Tree t = buildTree(m, fullOptions(0.8f, 40));
      EXPECT_EQ(t.length, reference.length) << n;
      EXPECT_TRUE(t.words == reference.words) << n << " threads";
    });
    // Two builds at once, each from inside a parallel region: their per-axis
    // teams get one thread and run the searches one after another.
    Tree nested[2];
#pragma omp parallel num_threads(2)
    {
#pragma omp for
      for (int i = 0; i < 2; ++i) nested[i] = buildTree(m, fullOptions(0.8f, 40));
    }
    for (const Tree& t : nested) EXPECT_TRUE(t.words == reference.words);
    // Non-zero flags: no parallel region at all, the same tree.
    VelrKDTreeBuildOptions opt = fullOptions(0.8f, 40);
    opt.flags = 1;
    EXPECT_TRUE(buildTree(m, opt).words == reference.words);
  }
}

TEST(KDTreeBuild, EveryAllocationFailureIsReportedWithoutLeak) {
  const TestMesh m = velr::test::lattice();
  const long live = velTestLiveBlocks();
  int failures = 0;
  for (int k = 1; k < 200; ++k) {
    VelrKDTreeNode* tree = nullptr;
    int len = 0;
    const VelrKDTreeBuildOptions opt = fullOptions(1.0f);
    velTestFailMallocAfter(k);
    const VelStatus s =
        velrKDTreeBuildAlloc(&tree, m.v.data(), m.idx.data(), m.nv(), m.nt(), &len, &opt);
    velTestFailMallocAfter(0);
    if (s == velStsNoErr) {
      velrKDTreeFree(tree);
      break;
    }
    EXPECT_EQ(s, velStsMemAllocErr) << "allocation " << k;
    EXPECT_EQ(tree, nullptr);
    ++failures;
  }
  EXPECT_GE(failures, 4);
  EXPECT_EQ(velTestLiveBlocks(), live);
}

TEST(KDTreeBuild, RunningOutOfBudgetDuringTheBuildIsAnAllocationError) {
  // Many vertices make the nominal vertex area (16 MiB per 2^20 / 3
  // vertices) outgrow what the need formula asked for, so the budget is
  // overdrawn once the build has started; the first leaf-list chunk opened
  // after that fails.
  TestMesh m = velr::test::lattice();
  while (m.nv() < 400000) m.addVertex(0, 0, 0);
  const std::uint64_t need = 84ull * m.nt() + 12ull * m.nv() + 0x20000F4;
  // One leaf of 864 entries, more than a chunk of 100.
  velr::kd::FullBuildOptions opt{.maxDepth = 0, .quality = 1.0f, .budgetBytes = need,
                                 .chunkEntries = 100};
  VelrKDTreeNode* tree = nullptr;
  int len = 0;
  const long live = velTestLiveBlocks();
  EXPECT_EQ(velr::kd::buildFull(m.v.data(), m.idx.data(), m.nv(), m.nt(), opt, &tree, &len, nullptr),
            velStsMemAllocErr);
  EXPECT_EQ(velTestLiveBlocks(), live);
  // With the whole list fitting the first chunk, or budget to spare, it works.
  for (const velr::kd::FullBuildOptions& ok :
       {velr::kd::FullBuildOptions{.maxDepth = 0, .quality = 1.0f, .budgetBytes = need},
        velr::kd::FullBuildOptions{.maxDepth = 0, .quality = 1.0f,
                                   .budgetBytes = need + (20 << 20), .chunkEntries = 100}}) {
    velr::kd::BuildStats stats;
    ASSERT_EQ(velr::kd::buildFull(m.v.data(), m.idx.data(), m.nv(), m.nt(), ok, &tree, &len, &stats),
              velStsNoErr);
    EXPECT_LE(stats.peakBytes, static_cast<std::int64_t>(ok.budgetBytes));
    velrKDTreeFree(tree);
  }
}

}  // namespace
