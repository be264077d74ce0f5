// The KD-tree block format, shared by the builders (which encode it) and the
// traversals (which decode it). Nodes are 8 bytes; an inner node points
// forward to an adjacent pair of children, lower child first.
#pragma once

#include <bit>
#include <cstdint>

#include "velr.h"

namespace velr::kd {

inline constexpr Vel32u kLeafBit = 0x80000000u;
// Inner nodes hold the distance to their children in bits 30..3.
inline constexpr Vel32u kMaxChildDistance = 0x0FFFFFFFu;
// Inline leaves: the second triangle number and the middle number of a
// three-triangle leaf have 29 bits, the two distances of the latter 15 and 16.
inline constexpr Vel32u kMaxInlineSecond = 0x1FFFFFFFu;
inline constexpr Vel32u kMaxInlineD1 = 0x7FFFu;
inline constexpr Vel32u kMaxInlineD2 = 0xFFFFu;
// The deepest tree a builder may make; traversal stacks hold one entry per
// level and a little more.
inline constexpr int kMaxDepth = 50;
inline constexpr int kStackCapacity = 64;

inline bool isLeaf(const VelrKDTreeNode* n) { return (n->word[0] & kLeafBit) != 0; }
inline int splitAxis(const VelrKDTreeNode* n) { return static_cast<int>(n->word[0] & 3u); }
inline float splitPosition(const VelrKDTreeNode* n) { return std::bit_cast<float>(n->word[1]); }
inline const VelrKDTreeNode* lowerChild(const VelrKDTreeNode* n) {
  return n + ((n->word[0] >> 3) & kMaxChildDistance);
}

inline VelrKDTreeNode innerNode(int axis, Vel32u childDistance, float split) {
  return {{(childDistance << 3) | static_cast<Vel32u>(axis), std::bit_cast<Vel32u>(split)}};
}
inline VelrKDTreeNode emptyLeaf() { return {{kLeafBit, 0u}}; }
// The leaf's list starts byteOffset bytes after the node (a positive multiple
// of 4 below 2^31).
inline VelrKDTreeNode listLeaf(Vel32u byteOffset, int count) {
  return {{0u - byteOffset, static_cast<Vel32u>(count)}};
}

// Encodes 1, 2 or 3 ascending triangle numbers inline when they fit the bit
// fields; returns false when a list is needed.
inline bool inlineLeaf(const Vel32s* t, int count, VelrKDTreeNode* out) {
  if (count == 1) {
    *out = {{kLeafBit | static_cast<Vel32u>(t[0]), kLeafBit | 1u}};
    return true;
  }
  if (count == 2) {
    if (static_cast<Vel32u>(t[1]) > kMaxInlineSecond) return false;
    *out = {{kLeafBit | static_cast<Vel32u>(t[0]), kLeafBit | (static_cast<Vel32u>(t[1]) << 2) | 2u}};
    return true;
  }
  if (count == 3) {
    const Vel32u m = static_cast<Vel32u>(t[1]);
    const Vel32u d1 = m - static_cast<Vel32u>(t[0]);
    const Vel32u d2 = static_cast<Vel32u>(t[2]) - m;
    if (m > kMaxInlineSecond || d1 > kMaxInlineD1 || d2 > kMaxInlineD2) return false;
    *out = {{kLeafBit | (d1 << 16) | d2, kLeafBit | (m << 2) | 3u}};
    return true;
  }
  return false;
}

// The triangles of a leaf, in test order: either the leaf's list or up to
// three numbers decoded into `scratch`. Returns the count (0 for an empty leaf).
inline int leafTriangles(const VelrKDTreeNode* n, Vel32s scratch[3], const Vel32s** list) {
  const Vel32u w0 = n->word[0];
  const Vel32u w1 = n->word[1];
  if ((w1 & kLeafBit) == 0) {
    // A list, or an empty leaf when the count is 0.
    const std::int32_t back = static_cast<std::int32_t>(w0 & ~3u);
    *list = reinterpret_cast<const Vel32s*>(reinterpret_cast<const char*>(n) -
                                            static_cast<std::int64_t>(back));
    return static_cast<int>(w1);
  }
  *list = scratch;
  switch (w1 & 3u) {
    case 1:
      scratch[0] = static_cast<Vel32s>(w0 & ~kLeafBit);
      return 1;
    case 2:
      scratch[0] = static_cast<Vel32s>(w0 & ~kLeafBit);
      scratch[1] = static_cast<Vel32s>((w1 >> 2) & kMaxInlineSecond);
      return 2;
    case 3: {
      const Vel32s m = static_cast<Vel32s>((w1 >> 2) & kMaxInlineSecond);
      scratch[0] = m - static_cast<Vel32s>((w0 >> 16) & kMaxInlineD1);
      scratch[1] = m;
      scratch[2] = m + static_cast<Vel32s>(w0 & kMaxInlineD2);
      return 3;
    }
    default:
      return 0;
  }
}

}  // namespace velr::kd
