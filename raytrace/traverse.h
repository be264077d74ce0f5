// The one-ray traversal and triangle test that every intersection query is
// built from. A query supplies the ray's interval (its box test), the margin
// of the split comparisons, what a triangle test does for it and the distance
// beyond which the ray is finished; the traversal itself exists once.
//
// All arithmetic is single precision in a fixed order: the packet kernels
// (traverse-inl.h) repeat it lane by lane and must agree bit for bit.
#pragma once

#include <cmath>
#include <cstdint>

#include "raytrace/kdtree_format.h"
#include "velr.h"

namespace velr::rt {

// Direction components at most this large count as parallel to the axis.
inline constexpr float kParallelLimit = 1.1920928955078125e-07f;
// Inverse given to a parallel axis by the queries that clip against the box
// with divisions (their split distances then run far off in either direction).
inline constexpr float kParallelInverseWide = 838860800.0f;
// Split comparisons tolerate this much, so a ray that meets a split plane
// within rounding visits both children rather than miss a triangle on it.
inline constexpr float kSplitMargin = 0.00001f;
// Added to the exit distance after clipping, for hits just behind the box.
inline constexpr float kExitSlack = 0.0001f;
// Inverse given to a parallel axis by the queries that multiply by inverses
// (rays from surfaces, shadow rays).
inline constexpr float kParallelInverseNarrow = 83886.078125f;
// Rays that start on a surface pass over triangles they run this close to
// parallel to, whose distances are unreliable, ...
inline constexpr float kFlatDenominator = 1.1920928955078125e-06f;
// ... and take a new hit only when it is nearer by more than this, so the
// surface they leave does not catch them again through rounding.
inline constexpr float kSurfaceGap = 0.00001f;
// Shadow rays test the segment (0, 1) of their direction; the walk runs a
// little past its end for the same reason as kExitSlack.
inline constexpr float kSegmentEnd = 1.0f;
inline constexpr float kSegmentExit = 1.0001f;
// The layered query walks with wider split margins: its rays start on the
// surfaces of earlier layers.
inline constexpr float kLayerMargin = 0.00019f;
// The distance limit of a layer that has no hit yet.
inline constexpr float kNoLimit = 3.4028234663852886e+38f;
// The layered query remembers this many earlier layers' triangles.
inline constexpr int kLayerRing = 8;

// min and max as compare-and-select: with a NaN operand they keep the second
// operand in every form (the packet kernels use the same selection).
inline float minOf(float a, float b) { return a < b ? a : b; }
inline float maxOf(float a, float b) { return a > b ? a : b; }

// A ray prepared for traversal: per-axis inverse and sign (1 for a negative
// direction, visiting the upper child first) and its interval.
struct RayPath {
  float inv[3];
  int sign[3];
  float tnear, tfar;
};

// Origin and direction with a fourth zero component, so that a record with a
// malformed axis field reads a defined value rather than past the array.
struct Ray {
  float o[4];
  float d[4];
};

// Slab clip with divisions, axes in the order x, y, z. A parallel axis gets a
// large inverse and sign 0 and its slab is not tested at all. Returns false
// when the ray misses; the interval is then meaningless.
inline bool clipDivided(const float* box, const Ray& ray, float dist, RayPath* p) {
  p->tnear = 0.0f;
  p->tfar = dist;
  for (int a = 0; a < 3; ++a) {
    const float d = ray.d[a];
    if (std::fabs(d) <= kParallelLimit) {
      p->inv[a] = kParallelInverseWide;
      p->sign[a] = 0;
      continue;
    }
    const float t1 = (box[a] - ray.o[a]) / d;
    const float t2 = (box[3 + a] - ray.o[a]) / d;
    p->inv[a] = 1.0f / d;
    p->sign[a] = d < 0.0f ? 1 : 0;
    p->tnear = maxOf(minOf(t1, t2), p->tnear);
    p->tfar = minOf(maxOf(t1, t2), p->tfar);
    if (p->tnear > p->tfar) return false;
  }
  p->tfar = p->tfar + kExitSlack;
  return true;
}

// Slab clip with multiplications by the inverse, for rays that start on a
// surface: a parallel axis misses unless the origin lies strictly inside its
// slab, since such a ray can never enter the slab.
inline bool clipMultiplied(const float* box, const Ray& ray, float dist, RayPath* p) {
  p->tnear = 0.0f;
  p->tfar = dist;
  for (int a = 0; a < 3; ++a) {
    const float d = ray.d[a];
    if (std::fabs(d) <= kParallelLimit) {
      p->inv[a] = kParallelInverseNarrow;
      p->sign[a] = 0;
      if (!(box[3 + a] > ray.o[a] && ray.o[a] > box[a])) return false;
      continue;
    }
    p->inv[a] = 1.0f / d;
    const float t1 = (box[3 + a] - ray.o[a]) * p->inv[a];
    const float t2 = (box[a] - ray.o[a]) * p->inv[a];
    p->sign[a] = d < 0.0f ? 1 : 0;
    p->tnear = maxOf(minOf(t1, t2), p->tnear);
    p->tfar = minOf(maxOf(t1, t2), p->tfar);
    if (p->tnear > p->tfar) return false;
  }
  p->tfar = p->tfar + kExitSlack;
  return true;
}

// A shadow ray's walk: no box, the segment (0, 1) of its direction.
inline RayPath segmentPath(const Ray& ray) {
  RayPath p;
  for (int a = 0; a < 3; ++a) {
    p.sign[a] = ray.d[a] < 0.0f ? 1 : 0;
    p.inv[a] = std::fabs(ray.d[a]) <= kParallelLimit ? kParallelInverseNarrow : 1.0f / ray.d[a];
  }
  p.tnear = 0.0f;
  p.tfar = kSegmentExit;
  return p;
}

// The exit distance of a ray moved to a new origin, for the next layer.
inline float layerExit(const float* box, const Ray& ray, const RayPath& p) {
  float tfar = kNoLimit;
  for (int a = 0; a < 3; ++a)
    tfar = minOf(maxOf((box[a] - ray.o[a]) * p.inv[a], (box[3 + a] - ray.o[a]) * p.inv[a]), tfar);
  return tfar + kExitSlack;
}

// The geometry of one ray against one record: the plane term den, the
// distance numerator num and the two scaled weights b1, b2 of vertices A and
// B (the true weights are b / den). Valid for records with a non-zero axes
// word only.
struct TriangleTerms {
  float den, num, b1, b2;
};

inline TriangleTerms triangleTerms(const VelrTriangleAccel& r, const Ray& ray) {
  const int k = static_cast<int>((r.axes >> 4) & 3u);
  const int u = static_cast<int>((r.axes >> 2) & 3u);
  const int v = static_cast<int>(r.axes & 3u);
  const float* o = ray.o;
  const float* d = ray.d;
  TriangleTerms t;
  t.den = r.nu * d[u] + r.nv * d[v] + d[k];
  const float ou = r.cu - o[u];
  const float ov = r.cv - o[v];
  t.num = r.ck + r.nu * ou + r.nv * ov - o[k];
  const float hu = d[u] * t.num - ou * t.den;
  const float hv = d[v] * t.num - ov * t.den;
  t.b1 = r.bv * hu - r.bu * hv;
  t.b2 = r.au * hv - r.av * hu;
  return t;
}

// The ray passes through the triangle (edges included) when the three scaled
// weights do not differ in sign.
inline bool inside(const TriangleTerms& t) {
  const float b0 = t.den - t.b1 - t.b2;
  return (b0 * t.b1 >= 0.0f) & (t.b1 * t.b2 >= 0.0f) & (b0 * t.b2 >= 0.0f);
}

// Walks the tree front to back along one ray. The query provides
//   bool testLeaf(const Vel32s* triangles, int count) -- tests a leaf's
//       triangles in list order; true ends the ray at once;
//   float limit() -- a leaf whose exit lies at or beyond it ends the ray.
template <class Query>
inline void traverse(const VelrKDTreeNode* root, const Ray& ray, const RayPath& path, float margin,
                     Query& q) {
  const VelrKDTreeNode* stackNode[kd::kStackCapacity];
  float stackFar[kd::kStackCapacity];
  int sp = 0;
  const VelrKDTreeNode* node = root;
  float tnear = path.tnear;
  float tfar = path.tfar;
  for (;;) {
    while (!kd::isLeaf(node)) {
      const int a = kd::splitAxis(node);
      const float tsplit = (kd::splitPosition(node) - ray.o[a]) * path.inv[a];
      const VelrKDTreeNode* lower = kd::lowerChild(node);
      const VelrKDTreeNode* nearChild = lower + path.sign[a];
      const VelrKDTreeNode* farChild = lower + (1 - path.sign[a]);
      if (tnear - tsplit > margin) {
        node = farChild;
      } else if (tsplit - tfar > margin) {
        node = nearChild;
      } else {
        // A well-formed tree never fills the stack; a malformed one loses
        // far children rather than memory beyond it.
        if (sp < kd::kStackCapacity) {
          stackNode[sp] = farChild;
          stackFar[sp] = tfar;
          ++sp;
        }
        tfar = maxOf(tnear, minOf(tsplit, tfar));
        node = nearChild;
      }
    }
    Vel32s scratch[3];
    const Vel32s* list;
    const int count = kd::leafTriangles(node, scratch, &list);
    if (count > 0 && q.testLeaf(list, count)) return;
    if (sp == 0 || tfar >= q.limit()) return;
    tnear = tfar;
    --sp;
    node = stackNode[sp];
    tfar = stackFar[sp];
  }
}

// What the nearest-hit queries keep for a ray: the hit so far and its
// distance, which limits both the triangle test and the walk. Query is the
// query itself, whose test(n) decides on one triangle.
template <class Query>
struct NearestState {
  const VelrTriangleAccel* records;
  const Ray* ray;
  float dist;
  TriangleTerms kept;  // of the hit taken last
  Vel32s triangle;

  // A later, nearer hit replaces an earlier one, so the weights are divided
  // out once, for the hit that is kept (the same quotients as at the take).
  void take(const TriangleTerms& t, float dt, Vel32s n) {
    dist = dt;
    kept = t;
    triangle = n;
  }
  float w1() const { return kept.b1 / kept.den; }
  float w2() const { return kept.b2 / kept.den; }
  bool testLeaf(const Vel32s* list, int count) {
    for (int i = 0; i < count; ++i) static_cast<Query*>(this)->test(list[i]);
    return false;
  }
  float limit() const { return dist; }
};

// Nearest hit: the closest triangle with 0 < t < the ray's distance. A ray
// that starts on a surface (kFromSurface) passes over the triangle it holds
// so far, triangles it runs almost parallel to, and hits not nearer than its
// distance by more than kSurfaceGap.
template <bool kFromSurface>
struct Nearest : NearestState<Nearest<kFromSurface>> {
  void test(Vel32s n) {
    const VelrTriangleAccel& r = this->records[n];
    if (r.axes == 0) return;
    if (kFromSurface && n == this->triangle) return;
    const TriangleTerms t = triangleTerms(r, *this->ray);
    // Most triangles of a leaf lie beside the ray: the sign tests reject them
    // before the division.
    if (!inside(t)) return;
    if (kFromSurface && std::fabs(t.den) < kFlatDenominator) return;
    const float dt = t.num / t.den;
    const float bound = kFromSurface ? this->dist - kSurfaceGap : this->dist;
    if ((bound > dt) & (dt > 0.0f)) this->take(t, dt, n);
  }
};

// Any hit on the segment (0, 1): the first blocking triangle ends the walk.
struct AnyHit {
  const VelrTriangleAccel* records;
  const Ray* ray;
  float end;  // the segment's end while the ray is free, 0 once blocked
  Vel32s blocker;

  bool test(Vel32s n) {
    const VelrTriangleAccel& r = records[n];
    if (r.axes == 0) return false;
    const TriangleTerms t = triangleTerms(r, *ray);
    if (!inside(t)) return false;
    const float dt = t.num / t.den;
    if (!((kSegmentEnd > dt) & (dt > 0.0f))) return false;
    blocker = n;
    end = 0.0f;
    return true;
  }
  bool testLeaf(const Vel32s* list, int count) {
    for (int i = 0; i < count; ++i)
      if (test(list[i])) return true;
    return false;
  }
  float limit() const { return end; }
};

// One pass of the layered query: the nearest hit that is neither the
// previous layer's triangle nor, once found, one of the triangles in the
// first `ringUsed` slots of the ring of earlier layers.
struct LayerHit : NearestState<LayerHit> {
  Vel32s previous;
  const Vel32s* ring;
  int ringUsed;

  void test(Vel32s n) {
    const VelrTriangleAccel& r = records[n];
    if (r.axes == 0 || n == previous) return;
    const TriangleTerms t = triangleTerms(r, *ray);
    if (!inside(t)) return;
    const float dt = t.num / t.den;
    if (!((dist > dt) & (dt > 0.0f))) return;
    for (int i = 0; i < ringUsed; ++i)
      if (ring[i] == n) return;
    take(t, dt, n);
  }
};

// One nearest-hit ray, eye (clipped with divisions) or from a surface
// (clipped with multiplications): clip, walk, and write the outputs of a hit.
// The triangle index is -1 for a miss; distance and weights then stay.
template <bool kFromSurface>
inline void traceNearestRay(const VelrIntersectObject& obj, const Ray& ray, Vel32f* dist,
                            Vel32f* w1, Vel32f* w2, Vel32s* triangle) {
  *triangle = -1;
  RayPath path;
  const bool entered = kFromSurface ? clipMultiplied(obj.pBound, ray, *dist, &path)
                                    : clipDivided(obj.pBound, ray, *dist, &path);
  if (!entered) return;
  Nearest<kFromSurface> q{{obj.pAccel, &ray, *dist, {}, -1}};
  traverse(obj.pRootNode, ray, path, kSplitMargin, q);
  if (q.triangle < 0) return;
  *dist = q.dist;
  *w1 = q.w1();
  *w2 = q.w2();
  *triangle = q.triangle;
}

// One shadow ray: rays switched off in the mask are skipped; a blocked ray is
// switched off and records its blocker.
inline void traceShadowRay(const VelrIntersectObject& obj, const Ray& ray, Vel32s* occluder,
                           Vel32s* mask) {
  *occluder = -1;
  if (*mask < 0) return;
  AnyHit q{obj.pAccel, &ray, kSegmentEnd, -1};
  traverse(obj.pRootNode, ray, segmentPath(ray), kSplitMargin, q);
  if (q.blocker < 0) return;
  *mask = -1;
  *occluder = q.blocker;
}

// The planes of the layered query: layer j of each starts j * layerStep
// elements after layer 0.
struct LayerPlanes {
  Vel32f* dist;
  Vel32f* w1;
  Vel32f* w2;
  Vel32s* triangle;
  std::int64_t layerStep;
};

// Up to maxHits layers of one ray, each from the hit of the one before. The
// triangle planes of all layers hold -1 already.
inline void traceLayers(const VelrIntersectObject& obj, Ray ray, const LayerPlanes& out,
                        std::int64_t i, int maxHits) {
  RayPath path;
  if (!clipDivided(obj.pBound, ray, out.dist[i], &path)) return;
  Vel32s ring[kLayerRing] = {-1, -1, -1, -1, -1, -1, -1, -1};
  Vel32s previous = -1;
  for (int p = 0; p < maxHits; ++p) {
    const std::int64_t at = i + p * out.layerStep;
    LayerHit q{{obj.pAccel, &ray, out.dist[at], {}, -1}, previous, ring, p % kLayerRing};
    traverse(obj.pRootNode, ray, path, kLayerMargin, q);
    if (q.triangle < 0) return;
    for (int a = 0; a < 3; ++a) ray.o[a] = ray.o[a] + q.dist * ray.d[a];
    out.dist[at] = p >= 1 ? q.dist + out.dist[at - out.layerStep] : q.dist;
    out.w1[at] = q.w1();
    out.w2[at] = q.w2();
    out.triangle[at] = q.triangle;
    ring[p % kLayerRing] = q.triangle;
    previous = q.triangle;
    if (p + 1 == maxHits) return;
    out.triangle[at + out.layerStep] = -1;
    out.dist[at + out.layerStep] = kNoLimit;
    path.tnear = 0.0f;
    path.tfar = layerExit(obj.pBound, ray, path);
  }
}

}  // namespace velr::rt
