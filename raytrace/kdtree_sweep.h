// The split search along one axis of a KD-tree node.
#pragma once

namespace velr::kd {

enum class CutKind {
  kSweep,       // a plane among the triangles
  kEmptyBelow,  // cuts off the empty space below the triangles
  kEmptyAbove,  // cuts off the empty space above them
};

struct AxisResult {
  double cost = 0;
  float pos = 0;
  int nL = 0, nR = 0;
  CutKind kind = CutKind::kSweep;
};

// The best plane along one axis for a node of n >= 1 triangles. byStart and
// byEnd list the node's triangles ordered by their lowest (start) and highest
// (end) coordinate on the axis, read through start[] and end[]; [lo, hi] are
// the node's bounds on the axis and a, b its extents on the other two
// axes. The cost is the sum over the two children of half the child's surface
// area times its triangle count, the measure of the node's leaf cost; a cut
// that only removes empty space reports 0.7 of its cost.
AxisResult searchAxis(const int* byStart, const int* byEnd, int n, const float* start,
                      const float* end, float lo, float hi, float a, float b);

}  // namespace velr::kd
