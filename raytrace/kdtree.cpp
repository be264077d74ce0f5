// KD-tree front ends: argument checks in their documented order, then the
// builder the options ask for.
#include "raytrace/kdtree_build.h"
#include "velr.h"

namespace {

constexpr Vel32u kMaxDepthAccepted = 50;
// Budgets are checked in half-megabyte units kept to 32 bits, the historical
// form of the check: it refuses anything below 32 MiB, and values whose
// shifted form wraps below that as well.
constexpr Vel32u kMinBudgetHalfMegabytes = 0x1000000;

}  // namespace

extern "C" {

VelStatus velrKDTreeBuildAlloc(VelrKDTreeNode** ppTree, const Vel32f* pVertexCoord,
                               const int* pTrnglIndex, int cntVertex, int cntTrngl, int* pLength,
                               const VelrKDTreeBuildOptions* pOpt) {
  if (ppTree == nullptr) return velStsNullPtrErr;
  if (pVertexCoord == nullptr || pTrnglIndex == nullptr) return velStsNullPtrErr;
  if (pLength == nullptr) return velStsNullPtrErr;
  if (cntVertex < 0 || cntTrngl < 0) return velStsSizeErr;
  if (pOpt == nullptr) return velStsNullPtrErr;

  if (pOpt->alg == VELR_KDTREE_ONE_LEAF) {
    if (pOpt->maxDepth > kMaxDepthAccepted) return velStsOutOfRangeErr;
    return velr::kd::buildOneLeaf(cntTrngl, ppTree, pLength);
  }
  if (pOpt->alg == VELR_KDTREE_FULL) {
    const float q = pOpt->qualityFactor;
    if (pOpt->maxDepth > kMaxDepthAccepted || q < 0.0f || q > 1.0f) return velStsOutOfRangeErr;
    if (static_cast<Vel32u>(pOpt->memoryLimitMB << 19) < kMinBudgetHalfMegabytes)
      return velStsNoMemErr;
    // Non-zero flags select the construction that opens no parallel region:
    // the per-axis searches of large nodes then run one after another in the
    // calling thread. It builds the same tree; it suits callers that build
    // several meshes in threads of their own, or share the machine, where a
    // team mostly waits for its threads to be scheduled.
    const velr::kd::FullBuildOptions options{
        pOpt->maxDepth, q, static_cast<std::uint64_t>(pOpt->memoryLimitMB) << 20,
        pOpt->flags != 0 ? velr::kd::kNeverTeam : velr::kd::kTeamMinTriangles};
    return velr::kd::buildFull(pVertexCoord, pTrnglIndex, cntVertex, cntTrngl, options, ppTree,
                               pLength, nullptr);
  }
  return velStsBadArgErr;
}

VelStatus velrKDTreeFree(VelrKDTreeNode* pTree) {
  velFree(pTree);
  return velStsNoErr;
}

}  // extern "C"
