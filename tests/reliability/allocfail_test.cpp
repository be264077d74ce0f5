// Every allocation of a KD-tree build made to fail in turn: each failure
// must come back as the documented status with the outputs untouched and no
// block left behind (velTestLiveBlocks here, LeakSanitizer under the asan
// preset), and the build that finally succeeds must produce the same block
// as one that never saw a failure.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "velcore.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace {

struct Built {
  VelStatus status;
  std::vector<uint32_t> words;
  bool outputsTouched;
};

Built build(const velr::workloads::Mesh& m, const VelrKDTreeBuildOptions& opt) {
  VelrKDTreeNode* const kUntouched = reinterpret_cast<VelrKDTreeNode*>(0x5A5A5A5A);
  VelrKDTreeNode* tree = kUntouched;
  int length = -77;
  Built b;
  b.status = velrKDTreeBuildAlloc(&tree, m.vertices.data(), m.indices.data(), m.vertexCount(),
                                  m.triangleCount(), &length, &opt);
  b.outputsTouched = tree != kUntouched || length != -77;
  if (b.status == velStsNoErr) {
    b.words.resize(static_cast<size_t>(length) / 4);
    std::memcpy(b.words.data(), tree, b.words.size() * 4);
    velrKDTreeFree(tree);
  }
  return b;
}

// Fails allocation 1, 2, 3, ... of the build until one succeeds; returns the
// number of allocations the build made.
int sweep(const velr::workloads::Mesh& m, const VelrKDTreeBuildOptions& opt, VelStatus failure) {
  velTestFailMallocAfter(0);
  const Built clean = build(m, opt);
  EXPECT_EQ(clean.status, velStsNoErr);
  const long live = velTestLiveBlocks();
  for (int k = 1; k < 1000; ++k) {
    velTestFailMallocAfter(k);
    const Built b = build(m, opt);
    velTestFailMallocAfter(0);
    EXPECT_EQ(velTestLiveBlocks(), live) << "allocation " << k << " failed";
    if (b.status == velStsNoErr) {
      EXPECT_TRUE(b.words == clean.words) << "after " << k - 1 << " failures";
      return k - 1;
    }
    EXPECT_EQ(b.status, failure) << "allocation " << k;
    EXPECT_FALSE(b.outputsTouched) << "allocation " << k;
  }
  ADD_FAILURE() << "the build never succeeded";
  return 0;
}

TEST(AllocationFailures, EveryAllocationOfTheFullBuildFailsCleanly) {
  // Enough triangles (4500) for the top nodes to search their axes with a
  // team.
  const velr::workloads::Mesh m = velr::workloads::makeBumpySphere(15);
  for (int threads : {1, 3}) {
    for (int flags : {0, 1}) {
      velSetNumThreads(threads);
      SCOPED_TRACE("threads " + std::to_string(threads) + ", flags " + std::to_string(flags));
      const VelrKDTreeBuildOptions opt{VELR_KDTREE_FULL, 30, 0.7f, 64, flags};
      EXPECT_GE(sweep(m, opt, velStsMemAllocErr), 2);
    }
  }
  velSetNumThreads(0);
}

TEST(AllocationFailures, DepthLimitedAndEmptyMeshes) {
  const velr::workloads::Mesh sphere = velr::workloads::makeBumpySphere(4);
  sweep(sphere, {VELR_KDTREE_FULL, 0, 0.0f, 40, 0}, velStsMemAllocErr);
  sweep(sphere, {VELR_KDTREE_FULL, 50, 1.0f, 40, 0}, velStsMemAllocErr);
  velr::workloads::Mesh empty;  // vertices but no triangle
  empty.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  empty.indices = {0};
  sweep(empty, {VELR_KDTREE_FULL, 10, 0.5f, 40, 0}, velStsMemAllocErr);
}

TEST(AllocationFailures, OneLeafTreeReportsNoMemory) {
  const velr::workloads::Mesh sphere = velr::workloads::makeBumpySphere(4);
  EXPECT_EQ(sweep(sphere, {VELR_KDTREE_ONE_LEAF, 0, 0.0f, 0, 0}, velStsNoMemErr), 1);
}

}  // namespace
