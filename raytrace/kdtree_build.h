// KD-tree builders behind velrKDTreeBuildAlloc. The front end checks the
// arguments; these functions only build.
#pragma once

#include <cstdint>

#include "velr.h"

namespace velr::kd {

// What a full build produced and what it held at its peak; filled for tests
// and benchmarks, never needed by the library itself.
struct BuildStats {
  std::int64_t peakBytes = 0;   // most memory held at once, tree block included
  std::int64_t nodes = 0;       // inner nodes and leaves
  std::int64_t leaves = 0;      // leaves of every kind, empty ones included
  std::int64_t emptyLeaves = 0;
  std::int64_t references = 0;  // triangle numbers over all leaves
  int depth = 0;                // deepest leaf
};

// Entries of one leaf-list chunk; each chunk after the first is charged
// against the budget when it is opened.
inline constexpr std::int64_t kLeafChunkEntries = 4194304;

// Nodes of this many triangles or more search their axes with one thread per
// axis. Opening a team costs a wake-up of its threads (tens of microseconds,
// more on a virtual machine or one with fewer cores than axes, where the
// threads queue for the cores), while the three searches of a node of a few
// thousand triangles take about as long; smaller nodes search in the calling
// thread, which decides the same. On 2 cores this makes the default build of
// a million triangles about four times faster than a team for every node of
// the parallel decision.
inline constexpr std::int64_t kTeamMinTriangles = 4096;
inline constexpr std::int64_t kNeverTeam = INT64_MAX;

struct FullBuildOptions {
  Vel32u maxDepth;            // 0 .. 50
  Vel32f quality;             // 0 .. 1
  std::uint64_t budgetBytes;  // at least 32 MiB
  // The smallest node that searches its axes with a team; kNeverTeam keeps
  // the whole build in the calling thread. The tree is the same either way.
  std::int64_t teamMinTriangles = kTeamMinTriangles;
  std::int64_t chunkEntries = kLeafChunkEntries;
};

// The root leaf holding triangles 0 .. n-1 in its list.
VelStatus buildOneLeaf(int cntTrngl, VelrKDTreeNode** ppTree, int* pLength);

// Cost-driven tree: velStsNoMemErr when the mesh needs more than the budget,
// velStsMemAllocErr when an allocation fails or the budget runs out during
// the build. The block is the same for any thread count.
VelStatus buildFull(const Vel32f* vertices, const int* indices, int cntVertex, int cntTrngl,
                    const FullBuildOptions& options, VelrKDTreeNode** ppTree, int* pLength,
                    BuildStats* stats);

}  // namespace velr::kd
