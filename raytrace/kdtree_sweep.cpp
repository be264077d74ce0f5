// One-axis split search: an O(n) sweep over the node's triangles, already
// ordered by start and by end.
#include "raytrace/kdtree_sweep.h"

#include <algorithm>
#include <cmath>

namespace velr::kd {
namespace {

// Cutting off empty space is favoured by this factor on its cost.
constexpr double kEmptyCutBonus = 0.7;

}  // namespace

// With w the extent of a part along the axis, S (w + K) is half that part's
// surface area, so the costs below are counted in units of S.
AxisResult searchAxis(const int* byStart, const int* byEnd, int n, const float* start,
                      const float* end, float lo, float hi, float a, float b) {
  const double P = static_cast<double>(a) * static_cast<double>(b);
  const double S = static_cast<double>(a) + static_cast<double>(b);
  const double K = P < 1e-9 ? 0.0 : P / S;
  const double dlo = lo, dhi = hi, dn = n;
  AxisResult r;

  // Empty space at either end is cut off first, with a bonus, because an
  // empty leaf costs nothing to traverse.
  const float first = start[byStart[0]];
  const float last = end[byEnd[n - 1]];
  const float margin = (hi - lo) * 0.1f;
  const bool below = static_cast<double>(first) - dlo > static_cast<double>(margin);
  const bool above = dhi - static_cast<double>(last) > static_cast<double>(margin);
  if (below || above) {
    double best = 0;
    if (below) {
      best = dn * ((dhi - first) + K);
      r.pos = first;
      r.nL = 0;
      r.nR = n;
      r.kind = CutKind::kEmptyBelow;
    }
    if (above) {
      const double c = dn * ((static_cast<double>(last) - dlo) + K);
      if (!below || c < best) {
        best = c;
        r.pos = last;
        r.nL = n;
        r.nR = 0;
        r.kind = CutKind::kEmptyAbove;
      }
    }
    r.cost = kEmptyCutBonus * S * best;
    return r;
  }

  // Sweep the distinct start and end values in increasing order. nL counts
  // the starts strictly below x, nR the ends strictly above it; the first of
  // equal costs stays, so the leftmost plane wins. Triangles reaching beyond
  // the node give values outside it, which are no planes of this node.
  double best = HUGE_VAL;
  r.pos = lo;
  r.nL = 0;
  r.nR = n;
  // sv and ev are the next start and end not yet passed (+inf past the
  // last start), each read once.
  int i = 0, j = 0;
  float sv = start[byStart[0]];
  float ev = end[byEnd[0]];
  while (j < n) {
    const float x = sv < ev ? sv : ev;
    const int nl = i;  // every start passed so far lies below x
    while (j < n && ev <= x) {
      ++j;
      ev = j < n ? end[byEnd[j]] : 0.0f;
    }
    while (i < n && sv <= x) {
      ++i;
      sv = i < n ? start[byStart[i]] : HUGE_VALF;
    }
    const int nr = n - j;
    if (x < lo || x > hi) continue;
    const double c = nr * ((dhi - x) + K) + nl * ((static_cast<double>(x) - dlo) + K);
    if (c < best) {
      best = c;
      r.pos = x;
      r.nL = nl;
      r.nR = nr;
    }
  }
  r.cost = S * best;
  return r;
}

}  // namespace velr::kd
