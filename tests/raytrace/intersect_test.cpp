#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "tests/common/targets.h"
#include "tests/raytrace/kdtree_testing.h"

namespace {

using velr::test::Block;
using velr::test::RayResult;
using velr::test::RecordTerms;
using velr::test::TestMesh;
using velr::test::recordTerms;

constexpr float kEps = 1.1920928955078125e-07f;
constexpr float kMaxFloat = 3.4028234663852886e+38f;

// ------------------------------------------------------------ references
// The queries written plainly from their description, one ray at a time.

float lesser(float a, float b) { return a < b ? a : b; }
float greater(float a, float b) { return a > b ? a : b; }

struct Interval {
  float inv[3];
  int sign[3];
  float tnear, tfar;
};

// Box clip in division form (eye and layers) or multiplication form (rays
// from surfaces); false for a miss.
bool clip(bool fromSurface, const float* box, const float o[3], const float d[3], float dist,
          Interval* iv) {
  iv->tnear = 0;
  iv->tfar = dist;
  for (int a = 0; a < 3; ++a) {
    const float lo = box[a], hi = box[a + 3];
    if (std::fabs(d[a]) <= kEps) {
      iv->inv[a] = fromSurface ? 83886.078125f : 838860800.0f;
      iv->sign[a] = 0;
      if (fromSurface && !(hi > o[a] && o[a] > lo)) return false;
      continue;
    }
    iv->inv[a] = 1 / d[a];
    const float t1 = fromSurface ? (hi - o[a]) * iv->inv[a] : (lo - o[a]) / d[a];
    const float t2 = fromSurface ? (lo - o[a]) * iv->inv[a] : (hi - o[a]) / d[a];
    iv->sign[a] = d[a] < 0;
    iv->tnear = greater(lesser(t1, t2), iv->tnear);
    iv->tfar = lesser(greater(t1, t2), iv->tfar);
    if (iv->tnear > iv->tfar) return false;
  }
  iv->tfar += 0.0001f;
  return true;
}

// The walk; test(n) returns true to end the ray, limit() is its distance.
template <class Test, class Limit>
void walk(const VelrKDTreeNode* root, const float o[3], Interval iv, float margin, Test test,
          Limit limit) {
  std::vector<std::pair<const VelrKDTreeNode*, float>> stack;
  const VelrKDTreeNode* node = root;
  for (;;) {
    if (!velr::kd::isLeaf(node)) {
      const int a = velr::kd::splitAxis(node);
      const float ts = (velr::kd::splitPosition(node) - o[a]) * iv.inv[a];
      const VelrKDTreeNode* nearChild = velr::kd::lowerChild(node) + iv.sign[a];
      const VelrKDTreeNode* farChild = velr::kd::lowerChild(node) + 1 - iv.sign[a];
      if (iv.tnear - ts > margin) {
        node = farChild;
      } else if (ts - iv.tfar > margin) {
        node = nearChild;
      } else {
        stack.emplace_back(farChild, iv.tfar);
        iv.tfar = greater(iv.tnear, lesser(ts, iv.tfar));
        node = nearChild;
      }
      continue;
    }
    Vel32s scratch[3];
    const Vel32s* list;
    const int count = velr::kd::leafTriangles(node, scratch, &list);
    for (int i = 0; i < count; ++i)
      if (test(list[i])) return;
    if (stack.empty() || iv.tfar >= limit()) return;
    iv.tnear = iv.tfar;
    node = stack.back().first;
    iv.tfar = stack.back().second;
    stack.pop_back();
  }
}

enum class Query { kEye, kSurface, kShadow, kLayers };

// Expected outputs of a whole block: a copy of `in` with each ray's result.
Block expected(Query query, const VelrIntersectObject& obj, const float* origin, Block& in,
               int width, int height, int maxHits = 1) {
  Block out(width, height, 0, maxHits);
  out.copyFrom(in);
  const int n = in.size();
  if (query == Query::kLayers)
    for (int i = 0; i < n * maxHits; ++i) out.tri()[i] = -1;
  for (int i = 0; i < n; ++i) {
    float o[3], d[3];
    for (int a = 0; a < 3; ++a) {
      o[a] = query == Query::kSurface ? in.o(a)[i] : origin[a];
      d[a] = in.d(a)[i];
    }
    if (query == Query::kShadow) {
      out.occluder()[i] = -1;
      if (in.mask()[i] < 0) continue;
      Interval iv{{}, {}, 0, 1.0001f};
      for (int a = 0; a < 3; ++a) {
        iv.sign[a] = d[a] < 0;
        iv.inv[a] = std::fabs(d[a]) <= kEps ? 83886.078125f : 1 / d[a];
      }
      float limit = 1.0f;
      auto test = [&](Vel32s t) {
        const RecordTerms r = recordTerms(obj.pAccel[t], o, d);
        if (obj.pAccel[t].axes == 0 || !(r.inside && 1.0f > r.t && r.t > 0)) return false;
        out.occluder()[i] = t;
        out.mask()[i] = -1;
        limit = 0;
        return true;
      };
      walk(obj.pRootNode, o, iv, 0.00001f, test, [&] { return limit; });
      continue;
    }
    if (query != Query::kLayers) out.tri()[i] = -1;
    Interval iv;
    if (!clip(query == Query::kSurface, obj.pBound, o, d, in.dist()[i], &iv)) continue;
    Vel32s ring[8] = {-1, -1, -1, -1, -1, -1, -1, -1}, previous = -1;
    for (int p = 0; p < maxHits; ++p) {
      const int at = i + p * n;
      RayResult r{out.dist()[at], 0, 0, -1};
      auto test = [&](Vel32s t) {
        const VelrTriangleAccel& rec = obj.pAccel[t];
        if (rec.axes == 0) return false;
        const RecordTerms h = recordTerms(rec, o, d);
        if (query == Query::kSurface) {
          if (t == r.tri || std::fabs(h.den) < 1.1920928955078125e-06f) return false;
          if (h.inside && r.dist - 0.00001f > h.t && h.t > 0) r = {h.t, h.w1, h.w2, t};
          return false;
        }
        if (t == previous || !(h.inside && r.dist > h.t && h.t > 0)) return false;
        for (int s = 0; s < p % 8; ++s)
          if (ring[s] == t) return false;
        r = {h.t, h.w1, h.w2, t};
        return false;
      };
      walk(obj.pRootNode, o, iv, query == Query::kLayers ? 0.00019f : 0.00001f, test,
           [&] { return r.dist; });
      if (r.tri < 0) break;
      for (int a = 0; a < 3; ++a) o[a] = o[a] + r.dist * d[a];
      out.dist()[at] = p >= 1 ? r.dist + out.dist()[at - n] : r.dist;
      out.w(0)[at] = r.w1;
      out.w(1)[at] = r.w2;
      out.tri()[at] = r.tri;
      ring[p % 8] = previous = r.tri;
      if (p + 1 == maxHits) break;
      out.tri()[at + n] = -1;
      out.dist()[at + n] = kMaxFloat;
      iv.tnear = 0;
      float tfar = kMaxFloat;
      for (int a = 0; a < 3; ++a)
        tfar = lesser(greater((obj.pBound[a] - o[a]) * iv.inv[a], (obj.pBound[a + 3] - o[a]) * iv.inv[a]),
                      tfar);
      iv.tfar = tfar + 0.0001f;
    }
  }
  return out;
}

VelStatus run(Query query, Block& b, const float* origin, const VelrIntersectObject& obj,
              int maxHits = 1) {
  switch (query) {
    case Query::kEye: return b.eye(origin, obj);
    case Query::kSurface: return b.surface(obj);
    case Query::kShadow: return b.shadow(origin, obj);
    case Query::kLayers: return b.layers(origin, obj, maxHits);
  }
  return velStsNoErr;
}

// Every output of two blocks is the same, bit for bit.
void expectSameBlocks(Block& a, Block& b, int layers = 1) {
  for (int l = 0; l < layers; ++l)
    for (int i = 0; i < a.size(); ++i) ASSERT_EQ(a.at(i, l), b.at(i, l)) << "ray " << i << " layer " << l;
  for (int i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a.mask()[i], b.mask()[i]) << i;
    ASSERT_EQ(a.occluder()[i], b.occluder()[i]) << i;
  }
}

// ------------------------------------------------------------ single rays

// Triangles in z = 0 (A = (0, 0, z), B = (1, 0, z), C = (0, 1, z)) listed by
// a one-leaf block in a chosen order.
struct FlatScene {
  TestMesh mesh;
  std::vector<VelrTriangleAccel> recs;
  std::vector<Vel32u> block;
  float box[6] = {-1, -1, -1, 2, 2, 2};
  explicit FlatScene(std::vector<float> heights) {
    for (float z : heights) {
      const float a[3] = {0, 0, z}, b[3] = {1, 0, z}, c[3] = {0, 1, z};
      mesh.addTriangle(a, b, c);
    }
    recs = velr::test::records(mesh);
  }
  VelrIntersectObject object(std::vector<Vel32u> order) {
    block = {0xFFFFFFF0u, static_cast<Vel32u>(order.size()), 0, 0};
    block.insert(block.end(), order.begin(), order.end());
    return {box, recs.data(), reinterpret_cast<const VelrKDTreeNode*>(block.data())};
  }
};

// One ray through the one-ray path, and in every lane of a 4 x 4 block
// through the packet path; both must agree. Returns the result with the
// mask and occluder in w1 and w2 for shadow rays.
RayResult single(Query query, const VelrIntersectObject& obj, const float o[3], const float d[3],
                 float dist, Vel32s entry = 5) {
  RayResult r[2];
  for (int path = 0; path < 2; ++path) {
    Block b(4, 4, path == 0 ? 1 : 0);
    for (int i = 0; i < b.size(); ++i) {
      for (int a = 0; a < 3; ++a) {
        b.o(a)[i] = o[a];
        b.d(a)[i] = d[a];
      }
      b.dist()[i] = dist;
      b.w(0)[i] = -5.0f;
      b.w(1)[i] = -6.0f;
      b.tri()[i] = b.mask()[i] = entry;
      b.occluder()[i] = 42;
    }
    EXPECT_EQ(run(query, b, o, obj), velStsNoErr);
    if (query == Query::kShadow)
      for (int i = 0; i < b.size(); ++i) {
        b.w(0)[i] = static_cast<float>(b.mask()[i]);
        b.tri()[i] = b.occluder()[i];
      }
    r[path] = b.at(0);
    for (int i = 1; i < b.size(); ++i) EXPECT_EQ(b.at(i), r[path]);
  }
  EXPECT_EQ(r[0], r[1]);
  return r[0];
}

TEST(IntersectEye, DistanceLimitsEdgesAndParallelSlabs) {
  FlatScene s({0});
  const VelrIntersectObject obj = s.object({0});
  const float above[3] = {0.25f, 0.25f, 1.0f}, down[3] = {0, 0, -1};
  // A miss leaves distance and weights; no t satisfies 0 < t < limit <= 0.
  for (float limit : {0.0f, -1.0f, 1.0f})
    EXPECT_EQ(single(Query::kEye, obj, above, down, limit), (RayResult{limit, -5, -6, -1}));
  EXPECT_EQ(single(Query::kEye, obj, above, down, std::nextafter(1.0f, 2.0f)),
            (RayResult{1.0f, 0.5f, 0.25f, 0}));  // weights of A and B
  const float below[3] = {0.25f, 0.25f, -1.0f};
  EXPECT_EQ(single(Query::kEye, obj, below, down, 1e30f).tri, -1);
  // On the edge AC (weight of B exactly 0), on vertex B, just outside BC.
  const float onEdge[3] = {0.0f, 0.5f, 1.0f}, onVertex[3] = {1, 0, 1},
              outside[3] = {0.5001f, 0.5001f, 1};
  EXPECT_EQ(single(Query::kEye, obj, onEdge, down, 1e30f), (RayResult{1, 0.5f, -0.0f, 0}));
  EXPECT_EQ(single(Query::kEye, obj, onVertex, down, 1e30f).tri, 0);
  EXPECT_EQ(single(Query::kEye, obj, outside, down, 1e30f).tri, -1);
  // A box beside the ray in x: parallel slabs are not tested.
  s.box[0] = 5;
  s.box[3] = 6;
  for (float tiny : {0.0f, -0.0f, 1e-7f, -kEps}) {
    const float d[3] = {tiny, 0, -1};
    EXPECT_EQ(single(Query::kEye, obj, above, d, 1e30f).tri, 0) << tiny;
  }
  const float steep[3] = {1.2e-7f, 0, -1};
  EXPECT_EQ(single(Query::kEye, obj, above, steep, 1e30f).tri, -1);
}

TEST(IntersectEye, DegenerateRecordsEqualDistancesAndEmptyBlocks) {
  FlatScene s({0, 0});
  const float p[3] = {0.2f, 0.2f, 0};
  s.mesh.addTriangle(p, p, p);  // 2: degenerate, on the ray
  s.recs = velr::test::records(s.mesh);
  const float o[3] = {0.2f, 0.2f, 1}, down[3] = {0, 0, -1};
  // The first of two triangles at the same distance keeps the hit.
  EXPECT_EQ(single(Query::kEye, s.object({2, 0, 1}), o, down, 1e30f).tri, 0);
  EXPECT_EQ(single(Query::kEye, s.object({2, 1, 0}), o, down, 1e30f).tri, 1);
  EXPECT_EQ(single(Query::kEye, s.object({2}), o, down, 1e30f).tri, -1);

  const VelrIntersectObject obj = s.object({0});
  Block b(4, 4, 0, 2);
  for (int i = 0; i < 32; ++i) b.tri()[i] = b.occluder()[i] = 9;
  for (auto [w, h] : {std::pair{0, 4}, std::pair{4, 0}, std::pair{-4, -4}}) {
    Vel32f* hit[2] = {b.w(0), b.w(1)};
    const Vel32f* const dir[3] = {b.d(0), b.d(1), b.d(2)};
    const Vel32f* const org[3] = {b.o(0), b.o(1), b.o(2)};
    EXPECT_EQ(velrIntersectEyeSO_32f(o, dir, b.dist(), hit, b.tri(), &obj, w, h), velStsNoErr);
    EXPECT_EQ(velrIntersectMO_32f(org, dir, b.dist(), hit, b.tri(), &obj, w, h), velStsNoErr);
    EXPECT_EQ(velrIntersectAnySO_32f(o, dir, b.occluder(), b.mask(), w, h, &obj), velStsNoErr);
    EXPECT_EQ(velrIntersectMultipleSO_32f(o, dir, b.dist(), hit, b.tri(), w, h, 2, &obj),
              velStsNoErr);
  }
  EXPECT_EQ(b.layers(o, obj, 0), velStsNoErr);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(b.tri()[i] + b.occluder()[i], 18);
}

TEST(IntersectFromSurface, StrictSlabsFlatTrianglesAndTheGap) {
  FlatScene s({0, 4e-6f, 0.5f});
  s.box[1] = 0;  // the box's lower y face holds the edge AB
  VelrIntersectObject obj = s.object({0});
  const float down[3] = {0, 0, -1};
  // Parallel to y with the origin on the face y = 0: outside the open slab.
  const float onFace[3] = {0.25f, 0, 1};
  EXPECT_EQ(single(Query::kSurface, obj, onFace, down, 1e30f).tri, -1);
  EXPECT_EQ(single(Query::kEye, obj, onFace, down, 1e30f).tri, 0);
  // The triangle index on entry plays no part.
  const float inside[3] = {0.25f, 0.25f, 1};
  EXPECT_EQ(single(Query::kSurface, obj, inside, down, 1e30f, 0), (RayResult{1, 0.5f, 0.25f, 0}));
  // |den| below ten epsilons is passed over.
  const float low[3] = {0.1f, 0.2f, 5e-8f}, grazing[3] = {1, 0, -1.0e-6f}, steeper[3] = {1, 0, -1.3e-6f};
  EXPECT_EQ(single(Query::kSurface, obj, low, grazing, 1e30f).tri, -1);
  EXPECT_EQ(single(Query::kEye, obj, low, grazing, 1e30f).tri, 0);
  EXPECT_EQ(single(Query::kSurface, obj, low, steeper, 1e30f).tri, 0);
  // A hit 5e-6 away counts only for a limit beyond it by more than 0.00001.
  const float close[3] = {0.25f, 0.25f, 5e-6f};
  EXPECT_EQ(single(Query::kSurface, obj, close, down, 0.00001f).tri, -1);
  EXPECT_EQ(single(Query::kSurface, obj, close, down, 0.00002f).tri, 0);
  // Triangle 1 is 4e-6 nearer than 0: the first met keeps the hit.
  EXPECT_EQ(single(Query::kSurface, s.object({0, 1}), inside, down, 1e30f).tri, 0);
  EXPECT_EQ(single(Query::kSurface, s.object({1, 0}), inside, down, 1e30f).tri, 1);
  EXPECT_EQ(single(Query::kSurface, s.object({0, 1, 2}), inside, down, 1e30f).tri, 2);
}

TEST(IntersectShadow, SegmentMaskAndFirstBlocker) {
  FlatScene s({0, 0.5f});
  const float o[3] = {0.25f, 0.25f, 1};
  auto shadow = [&](std::vector<Vel32u> order, float dz, Vel32s mask) {
    VelrIntersectObject obj = s.object(order);
    obj.pBound = nullptr;  // never read
    const float d[3] = {0, 0, dz};
    const RayResult r = single(Query::kShadow, obj, o, d, 0, mask);
    return std::pair<Vel32s, Vel32s>(r.tri, static_cast<Vel32s>(r.w1));
  };
  using P = std::pair<Vel32s, Vel32s>;
  EXPECT_EQ(shadow({0}, -1.0f, 3), P(-1, 3));  // a blocker at t = 1 does not block
  EXPECT_EQ(shadow({0}, -1.0001f, 3), P(0, -1));
  EXPECT_EQ(shadow({0}, -1.0001f, -2), P(-1, -2));
  EXPECT_EQ(shadow({0}, 0.0f, 0), P(-1, 0));
  // The first blocker met ends the search, not the nearest one.
  EXPECT_EQ(shadow({0, 1}, -2.0f, 0).first, 0);
  EXPECT_EQ(shadow({1, 0}, -2.0f, 0).first, 1);
}

TEST(IntersectLayers, ParallelLayersFromOneOrigin) {
  // Six square layers z = 0 .. 5, two triangles each, seen from above.
  TestMesh m;
  for (int z = 0; z < 6; ++z) {
    const float a[3] = {-2, -2, float(z)}, b[3] = {2, -2, float(z)}, c[3] = {2, 2, float(z)},
                e[3] = {-2, 2, float(z)};
    m.addTriangle(a, b, c);
    m.addTriangle(a, c, e);
  }
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<float> box = velr::test::boxOf(m);
  const velr::test::Tree tree = velr::test::buildTree(m, velr::test::fullOptions(1.0f));
  const VelrIntersectObject obj{box.data(), recs.data(), tree.root()};
  const float origin[3] = {0.1f, -0.3f, 9.0f};
  constexpr int kSide = 8, kLayers = 8;
  Block in(kSide, kSide, 0, kLayers);
  for (int i = 0; i < in.size(); ++i) {
    in.d(0)[i] = -1.9f + 0.5f * (i % kSide) - origin[0];
    in.d(1)[i] = -1.7f + 0.45f * (i / kSide) - origin[1];
    in.d(2)[i] = -origin[2];
    for (int l = 0; l < kLayers; ++l) {
      const int j = i + l * in.size();
      in.dist()[j] = l == 0 ? (i == 3 ? 0.4f : 1e30f) : 77.0f;  // ray 3 stops short
      in.w(0)[j] = in.w(1)[j] = 77.0f;
      in.tri()[j] = 9;
    }
  }
  for (int maxHits : {1, 3, 8}) {
    Block out(kSide, kSide, 0, kLayers), eye(kSide, kSide, 0);
    out.copyFrom(in);
    eye.copyFrom(in);
    ASSERT_EQ(out.layers(origin, obj, maxHits), velStsNoErr);
    eye.eye(origin, obj);
    for (int i = 0; i < in.size(); ++i) {
      EXPECT_EQ(out.at(i, 0), eye.at(i));  // the first layer is the nearest hit
      const int hits = i == 3 ? 0 : std::min(6, maxHits);
      for (int l = 0; l < kLayers; ++l) {
        const RayResult r = out.at(i, l);
        if (l < hits) {
          // On the plane z = 5 - l, the distance counted from the origin.
          EXPECT_EQ(r.tri / 2, 5 - l);
          EXPECT_NEAR(r.dist, (origin[2] - (5 - l)) / origin[2], 1e-5);
        } else {
          // maxHits layers are cleared, the layer after the last hit reset,
          // everything else left as it was.
          EXPECT_EQ(r.tri, l < maxHits ? -1 : 9) << i << " " << l;
          const bool reset = hits > 0 && l == hits && l < maxHits;
          EXPECT_EQ(r.dist, reset ? kMaxFloat : in.dist()[i + l * in.size()]) << i << " " << l;
          EXPECT_EQ(r.w1, 77.0f);
        }
      }
    }
  }
}

TEST(IntersectLayers, SurfacesJustLeftAreNotHitAgain) {
  // Two copies of one tilted triangle. A ray that hits them starts its next
  // pass on their plane, where rounding can put them a hair in front of it
  // again: the previous layer's triangle and those in the ring must not be
  // taken then, so the ray gets the copy once each and nothing more.
  TestMesh m;
  const float a[3] = {0, 0, 0}, b[3] = {1, 0, 0.3f}, c[3] = {0, 1, 0.7f};
  m.addTriangle(a, b, c);
  m.addTriangle(a, b, c);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<Vel32u> block = {0xFFFFFFF0u, 2, 0, 0, 0, 1};
  const float box[6] = {-1, -1, -1, 2, 2, 2};
  const VelrIntersectObject obj{box, recs.data(), reinterpret_cast<const VelrKDTreeNode*>(block.data())};
  const float origin[3] = {0.2f, 0.1f, 1.5f};

  // Rays for which the copies come out in front of each new origin (found
  // with the plain reference, so the search does not lean on the code under
  // test); with no exclusion each would be hit again and again.
  constexpr int kSide = 4, kLayers = 4;
  Block in(kSide, kSide, 0, kLayers);
  velr::workloads::SplitMix64 rng(5);
  int found = 0;
  for (int tries = 0; found < in.size() && tries < 200000; ++tries) {
    float d[3], o[3] = {origin[0], origin[1], origin[2]};
    const double u = rng.uniform(0.05, 0.45), v = rng.uniform(0.05, 0.45);
    for (int k = 0; k < 3; ++k)
      d[k] = static_cast<float>(a[k] + u * (b[k] - a[k]) + v * (c[k] - a[k])) - origin[k];
    const RecordTerms first = recordTerms(recs[0], o, d);
    if (!first.inside || !(first.t > 0)) continue;
    bool again = true;
    float t = first.t;
    for (int pass = 0; pass < 2 && again; ++pass) {
      for (int k = 0; k < 3; ++k) o[k] = o[k] + t * d[k];
      const RecordTerms next = recordTerms(recs[pass], o, d);
      again = next.inside && next.t > 0;
      t = next.t;
    }
    if (!again) continue;
    for (int k = 0; k < 3; ++k) in.d(k)[found] = d[k];
    ++found;
  }
  ASSERT_EQ(found, in.size());
  for (int i = 0; i < in.size() * kLayers; ++i) in.dist()[i] = 1e30f;

  for (int path = 0; path < 2; ++path) {
    Block out(kSide, kSide, path, kLayers);
    out.copyFrom(in);
    ASSERT_EQ(out.layers(origin, obj, kLayers), velStsNoErr);
    for (int i = 0; i < in.size(); ++i) {
      EXPECT_EQ(out.tri()[i], 0) << i;  // the first copy keeps the tie
      EXPECT_EQ(out.tri()[i + in.size()], 1) << i;
      EXPECT_EQ(out.tri()[i + 2 * in.size()], -1) << i;
      EXPECT_EQ(out.tri()[i + 3 * in.size()], -1) << i;
    }
  }
}

TEST(IntersectLayers, TheNinthPassStillSkipsThePreviousLayer) {
  // Ten parallel tilted planes, one triangle each, crossed in turn. The ring
  // of earlier layers is searched only up to slot (p mod 8) - 1, so on the
  // ninth pass it holds nothing and only the previous-triangle rule keeps a
  // ray from taking the plane it stands on once more.
  TestMesh m;
  constexpr int kPlanes = 10;
  for (int k = 0; k < kPlanes; ++k) {
    const float z = -0.25f * k;
    const float a[3] = {-5, -5, z - 5.0f}, b[3] = {10, -5, z - 0.5f}, c[3] = {-5, 10, z + 5.5f};
    m.addTriangle(a, b, c);  // z = 0.3 x + 0.7 y - 0.25 k
  }
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<float> box = velr::test::boxOf(m);
  const velr::test::Tree tree = velr::test::buildTree(m, velr::test::kOneLeaf);
  const VelrIntersectObject obj{box.data(), recs.data(), tree.root()};
  const float origin[3] = {0.1f, 0.2f, 4.0f};

  // Rays whose ninth origin, reached as the query reaches it, lies a hair
  // behind the eighth plane.
  constexpr int kSide = 4;
  Block in(kSide, kSide, 0, kPlanes);
  velr::workloads::SplitMix64 rng(9);
  int found = 0;
  for (int tries = 0; found < in.size() && tries < 100000; ++tries) {
    float d[3] = {static_cast<float>(rng.uniform(-0.3, 0.3)),
                  static_cast<float>(rng.uniform(-0.3, 0.3)), -1.0f};
    float o[3] = {origin[0], origin[1], origin[2]};
    for (int p = 0; p < 8; ++p) {
      const float t = recordTerms(recs[p], o, d).t;
      for (int k = 0; k < 3; ++k) o[k] = o[k] + t * d[k];
    }
    const RecordTerms again = recordTerms(recs[7], o, d);
    if (!again.inside || !(again.t > 0)) continue;
    for (int k = 0; k < 3; ++k) in.d(k)[found] = d[k];
    ++found;
  }
  ASSERT_EQ(found, in.size());
  for (int i = 0; i < in.size() * kPlanes; ++i) in.dist()[i] = 1e30f;

  for (int path = 0; path < 2; ++path) {
    Block out(kSide, kSide, path, kPlanes);
    out.copyFrom(in);
    ASSERT_EQ(out.layers(origin, obj, kPlanes), velStsNoErr);
    for (int i = 0; i < in.size(); ++i)
      for (int l = 0; l < kPlanes; ++l) EXPECT_EQ(out.tri()[i + l * in.size()], l) << i;
  }
}

// ------------------------------------------------------------ agreement

// Rays in all directions from origins spread over [-reach, reach]^3, with
// now and then a parallel component or a short limit; origins of shared-
// origin queries come from `origin`, and shadow rays point at the per-ray
// origins from there.
// With `nearlyParallel`, every 29th ray gets one component at or within the
// parallel limit, of either sign: each query treats those by its own rules.
void randomRays(Block* b, velr::workloads::SplitMix64& rng, float reach, const float* origin,
                bool towards, bool nearlyParallel = false) {
  static constexpr float kTiny[] = {0.0f, -1e-30f, kEps, -kEps, -0.0f, 1e-9f};
  for (int i = 0; i < b->size(); ++i) {
    for (int a = 0; a < 3; ++a) {
      b->o(a)[i] = static_cast<float>(rng.uniform(-reach, reach));
      b->d(a)[i] = towards ? b->o(a)[i] - origin[a] : static_cast<float>(rng.uniform(-1, 1));
    }
    if (i % 29 == 0) b->d(i % 3)[i] = nearlyParallel ? kTiny[i / 29 % 6] : 0.0f;
    b->dist()[i] = i % 17 == 0 ? static_cast<float>(rng.uniform(0, 2)) : 1e30f;
    b->tri()[i] = static_cast<Vel32s>(rng.next() % 50);
    b->mask()[i] = i % 11 == 0 ? -1 : static_cast<Vel32s>(rng.next() % 5);
  }
}

TEST(Intersect, ArbitraryTreesFollowTheDocumentedWalkOnEveryPath) {
  // Random trees whose leaves hold random triangles: which leaves a ray
  // visits, in which order and with which interval decides what it finds.
  velr::workloads::SplitMix64 rng(17);
  const TestMesh m = velr::test::soup(300, 8, 1.0);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const float box[6] = {-1, -1, -1, 1, 1, 1};
  constexpr int kLayers = 3;
  int found = 0;
  for (int round = 0; round < 10; ++round) {
    const std::vector<Vel32u> tree = velr::test::randomTree(rng, m.nt());
    const VelrIntersectObject obj{box, recs.data(),
                                  reinterpret_cast<const VelrKDTreeNode*>(tree.data())};
    float origin[3];
    for (float& x : origin) x = static_cast<float>(rng.uniform(-1.5, 1.5));
    for (Query q : {Query::kEye, Query::kSurface, Query::kShadow, Query::kLayers}) {
      Block in(16, 16, 0, kLayers);
      randomRays(&in, rng, 0.9f, origin, q != Query::kSurface, true);
      Block one(16, 16, 1, kLayers);
      one.copyFrom(in);
      run(q, one, origin, obj, kLayers);
      Block want = expected(q, obj, origin, in, 16, 16, q == Query::kLayers ? kLayers : 1);
      expectSameBlocks(one, want, q == Query::kLayers ? kLayers : 1);
      for (int i = 0; i < in.size(); ++i) found += one.tri()[i] >= 0 || one.occluder()[i] >= 0;
      velr::test::forEachTarget([&](const std::string& target) {
        SCOPED_TRACE(target);
        Block packet(16, 16, 0, kLayers);
        packet.copyFrom(in);
        run(q, packet, origin, obj, kLayers);
        expectSameBlocks(packet, one, kLayers);
      });
    }
  }
  EXPECT_GT(found, 1000);
}

TEST(Intersect, FullTreesAgreeWithBruteForce) {
  const TestMesh meshes[] = {velr::test::bumpy(12), velr::test::soup(2000, 21, 0.3),
                             velr::test::lattice()};
  int hits = 0, ties = 0, blocked = 0;
  for (TestMesh m : meshes) {
    if (m.nt() == 864)
      for (float& x : m.v) x = x / 3.0f - 1.0f;  // the lattice, into [-1, 1]
    const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
    const std::vector<float> box = velr::test::boxOf(m);
    const velr::test::Tree all = velr::test::buildTree(m, velr::test::kOneLeaf);
    const VelrIntersectObject brute{box.data(), recs.data(), all.root()};
    velr::workloads::SplitMix64 rng(1234 + m.nt());
    for (float q : {0.0f, 1.0f}) {
      const velr::test::Tree full = velr::test::buildTree(m, velr::test::fullOptions(q, 40));
      const VelrIntersectObject tree{box.data(), recs.data(), full.root()};
      for (int round = 0; round < 4; ++round) {
        float origin[3];
        for (float& x : origin) x = static_cast<float>(rng.uniform(-3, 3));
        for (Query query : {Query::kEye, Query::kSurface, Query::kShadow}) {
          Block a(32, 32, 0), b(32, 32, 1);
          randomRays(&a, rng, 1.1f, origin, query == Query::kShadow);
          if (query == Query::kEye)
            for (int i = 0; i < a.size(); ++i)
              for (int k = 0; k < 3; ++k) a.d(k)[i] = a.o(k)[i] - origin[k];
          b.copyFrom(a);
          run(query, a, origin, tree);
          run(query, b, origin, brute);
          for (int i = 0; i < a.size(); ++i) {
            ASSERT_EQ(a.mask()[i], b.mask()[i]) << i;  // blocked or not
            blocked += a.occluder()[i] >= 0;
            ASSERT_EQ(a.tri()[i] >= 0, b.tri()[i] >= 0) << i;
            hits += a.tri()[i] >= 0;
            if (a.tri()[i] == b.tri()[i]) {
              EXPECT_EQ(a.at(i), b.at(i));
            } else if (query == Query::kEye) {
              // Only triangles at exactly the same distance may differ.
              EXPECT_EQ(a.dist()[i], b.dist()[i]) << i;
              ++ties;
            } else {
              // From surfaces, hits within the 0.00001 gap of each other.
              EXPECT_NEAR(a.dist()[i], b.dist()[i], 1.1e-5) << i;
            }
          }
        }
      }
    }
  }
  EXPECT_GT(hits, 20000);
  EXPECT_GT(blocked, 5000);
  EXPECT_LT(ties, hits / 100);
}

TEST(IntersectEye, PacketsGiveTheOneRayResultForOddRays) {
  // A fan whose signs change mid-block, with parallel, NaN and huge
  // components, short and negative limits, and whole tiles of parallel rays.
  const TestMesh m = velr::test::bumpy(10);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<float> box = velr::test::boxOf(m);
  const velr::test::Tree tree = velr::test::buildTree(m, velr::test::fullOptions(1.0f, 40));
  const VelrIntersectObject obj{box.data(), recs.data(), tree.root()};
  const float origin[3] = {0.3f, 0.2f, 2.5f};
  constexpr int kSide = 48;
  Block in(kSide, kSide, 0);
  velr::workloads::SplitMix64 rng(99);
  const float specials[] = {0.0f, -0.0f, 1e-8f, -1e-8f, kEps,
                            std::numeric_limits<float>::quiet_NaN(), 1e30f};
  for (int i = 0; i < in.size(); ++i) {
    in.d(0)[i] = -0.3f + 0.9f * (i % kSide - kSide / 2 + 0.5f) / kSide;
    in.d(1)[i] = -0.2f + 0.9f * (i / kSide - kSide / 2 + 0.5f) / kSide;
    const int y = (i / kSide) % 16, x = (i % kSide) % 16;
    in.d(2)[i] = y >= 8 && y < 12 && x < 4 ? 0.0f : -1.0f;
    in.dist()[i] = 1e30f;
    in.w(0)[i] = in.w(1)[i] = 7.0f;
    if (rng.next() % 11 == 0) in.d(rng.next() % 3)[i] = specials[rng.next() % 7];
    if (rng.next() % 13 == 0) in.dist()[i] = static_cast<float>(rng.uniform(-1, 3));
  }
  Block one(kSide, kSide, 1);
  one.copyFrom(in);
  one.eye(origin, obj);
  int hits = 0;
  for (int i = 0; i < one.size(); ++i) hits += one.tri()[i] >= 0;
  EXPECT_GT(hits, one.size() / 4);
  velr::test::forEachTarget([&](const std::string& target) {
    SCOPED_TRACE(target);
    Block packet(kSide, kSide, 0);
    packet.copyFrom(in);
    packet.eye(origin, obj);
    expectSameBlocks(packet, one);
  });
}

}  // namespace
