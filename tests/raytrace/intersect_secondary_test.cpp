// Rays from surfaces, shadow rays and layered hits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "tests/common/targets.h"
#include "tests/raytrace/kdtree_testing.h"

namespace {

using velr::test::Block;
using velr::test::expectSame;
using velr::test::RayResult;
using velr::test::TestMesh;

constexpr float kEps = 1.1920928955078125e-07f;
constexpr float kMaxFloat = 3.4028234663852886e+38f;

// ------------------------------------------------------------ references

struct Terms {
  float den, t, w1, w2;
  bool inside;
};

Terms terms(const VelrTriangleAccel& r, const float o[3], const float d[3]) {
  const int k = (r.axes >> 4) & 3, u = (r.axes >> 2) & 3, v = r.axes & 3;
  const float den = r.nu * d[u] + r.nv * d[v] + d[k];
  const float num = r.ck + r.nu * (r.cu - o[u]) + r.nv * (r.cv - o[v]) - o[k];
  const float hu = d[u] * num - (r.cu - o[u]) * den;
  const float hv = d[v] * num - (r.cv - o[v]) * den;
  const float b1 = r.bv * hu - r.bu * hv;
  const float b2 = r.au * hv - r.av * hu;
  const float b0 = den - b1 - b2;
  return {den, num / den, b1 / den, b2 / den, b0 * b1 >= 0 && b1 * b2 >= 0 && b0 * b2 >= 0};
}

struct Interval {
  float inv[3];
  int sign[3];
  float tnear, tfar;
};

float lesser(float a, float b) { return a < b ? a : b; }
float greater(float a, float b) { return a > b ? a : b; }

// The documented walk; test(n) returns true to end the ray.
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

bool clipEye(const float* box, const float o[3], const float d[3], float dist, Interval* iv) {
  iv->tnear = 0;
  iv->tfar = dist;
  for (int a = 0; a < 3; ++a) {
    if (std::fabs(d[a]) <= kEps) {
      iv->inv[a] = 838860800.0f;
      iv->sign[a] = 0;
      continue;
    }
    const float t1 = (box[a] - o[a]) / d[a], t2 = (box[a + 3] - o[a]) / d[a];
    iv->inv[a] = 1 / d[a];
    iv->sign[a] = d[a] < 0;
    iv->tnear = greater(lesser(t1, t2), iv->tnear);
    iv->tfar = lesser(greater(t1, t2), iv->tfar);
    if (iv->tnear > iv->tfar) return false;
  }
  iv->tfar += 0.0001f;
  return true;
}

RayResult surfaceRay(const VelrIntersectObject& obj, const float o[3], const float d[3],
                     float dist) {
  RayResult r{dist, 0, 0, -1};
  Interval iv{{}, {}, 0, dist};
  for (int a = 0; a < 3; ++a) {
    if (std::fabs(d[a]) <= kEps) {
      iv.inv[a] = 83886.078125f;
      iv.sign[a] = 0;
      if (!(obj.pBound[a + 3] > o[a] && o[a] > obj.pBound[a])) return r;
      continue;
    }
    iv.inv[a] = 1 / d[a];
    const float t1 = (obj.pBound[a + 3] - o[a]) * iv.inv[a];
    const float t2 = (obj.pBound[a] - o[a]) * iv.inv[a];
    iv.sign[a] = d[a] < 0;
    iv.tnear = greater(lesser(t1, t2), iv.tnear);
    iv.tfar = lesser(greater(t1, t2), iv.tfar);
    if (iv.tnear > iv.tfar) return r;
  }
  iv.tfar += 0.0001f;
  walk(
      obj.pRootNode, o, iv, 0.00001f,
      [&](Vel32s n) {
        const VelrTriangleAccel& rec = obj.pAccel[n];
        if (rec.axes == 0 || n == r.tri) return false;
        const Terms t = terms(rec, o, d);
        if (std::fabs(t.den) < 1.1920928955078125e-06f) return false;
        if (t.inside && (r.dist - 0.00001f) > t.t && t.t > 0) r = {t.t, t.w1, t.w2, n};
        return false;
      },
      [&] { return r.dist; });
  return r;
}

// Occluder of a shadow ray, -1 when free.
Vel32s shadowRay(const VelrIntersectObject& obj, const float o[3], const float d[3]) {
  Interval iv{{}, {}, 0, 1.0001f};
  for (int a = 0; a < 3; ++a) {
    iv.sign[a] = d[a] < 0;
    iv.inv[a] = std::fabs(d[a]) <= kEps ? 83886.078125f : 1 / d[a];
  }
  Vel32s blocker = -1;
  float limit = 1.0f;
  walk(
      obj.pRootNode, o, iv, 0.00001f,
      [&](Vel32s n) {
        const VelrTriangleAccel& rec = obj.pAccel[n];
        if (rec.axes == 0) return false;
        const Terms t = terms(rec, o, d);
        if (!(t.inside && 1.0f > t.t && t.t > 0)) return false;
        blocker = n;
        limit = 0;
        return true;
      },
      [&] { return limit; });
  return blocker;
}

// Layers of one ray into planes of maxHits layers (triangles preset to -1).
void layerRay(const VelrIntersectObject& obj, const float origin[3], const float d[3], int maxHits,
              int layerStep, float* dist, float* w1, float* w2, Vel32s* tri) {
  float o[3] = {origin[0], origin[1], origin[2]};
  Interval iv;
  if (!clipEye(obj.pBound, o, d, dist[0], &iv)) return;
  Vel32s ring[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
  Vel32s previous = -1;
  for (int p = 0; p < maxHits; ++p) {
    const int at = p * layerStep;
    RayResult r{dist[at], 0, 0, -1};
    walk(
        obj.pRootNode, o, iv, 0.00019f,
        [&](Vel32s n) {
          const VelrTriangleAccel& rec = obj.pAccel[n];
          if (rec.axes == 0 || n == previous) return false;
          const Terms t = terms(rec, o, d);
          if (!(t.inside && r.dist > t.t && t.t > 0)) return false;
          for (int s = 0; s < p % 8; ++s)
            if (ring[s] == n) return false;
          r = {t.t, t.w1, t.w2, n};
          return false;
        },
        [&] { return r.dist; });
    if (r.tri < 0) return;
    for (int a = 0; a < 3; ++a) o[a] = o[a] + r.dist * d[a];
    dist[at] = p >= 1 ? r.dist + dist[at - layerStep] : r.dist;
    w1[at] = r.w1;
    w2[at] = r.w2;
    tri[at] = r.tri;
    ring[p % 8] = r.tri;
    previous = r.tri;
    if (p + 1 == maxHits) return;
    tri[at + layerStep] = -1;
    dist[at + layerStep] = kMaxFloat;
    iv.tnear = 0;
    float tfar = kMaxFloat;
    for (int a = 0; a < 3; ++a)
      tfar = lesser(greater((obj.pBound[a] - o[a]) * iv.inv[a], (obj.pBound[a + 3] - o[a]) * iv.inv[a]),
                    tfar);
    iv.tfar = tfar + 0.0001f;
  }
}

// ------------------------------------------------------------ scenes

// Triangles in z = 0 listed by a one-leaf block.
struct FlatScene {
  TestMesh mesh;
  std::vector<VelrTriangleAccel> recs;
  std::vector<Vel32u> block;
  float box[6] = {-1, -1, -1, 2, 2, 2};
  void add(float z) {
    const float a[3] = {0, 0, z}, b[3] = {1, 0, z}, c[3] = {0, 1, z};
    mesh.addTriangle(a, b, c);
  }
  VelrIntersectObject object(std::vector<Vel32u> order) {
    recs = velr::test::records(mesh);
    block = {0xFFFFFFF0u, static_cast<Vel32u>(order.size()), 0, 0};
    block.insert(block.end(), order.begin(), order.end());
    return {box, recs.data(), reinterpret_cast<const VelrKDTreeNode*>(block.data())};
  }
};

// One ray through the one-ray path, and the same ray in every lane of a 4 x 4
// block through the packet path, which must agree.
RayResult traceSurface(const VelrIntersectObject& obj, const float o[3], const float d[3],
                       float dist, Vel32s entry = 5) {
  RayResult r[2];
  for (int path = 0; path < 2; ++path) {
    Block b(4, 4, path == 0 ? 1 : 0);
    for (int i = 0; i < b.size(); ++i) {
      for (int a = 0; a < 3; ++a) {
        b.o[a][i] = o[a];
        b.dir[a][i] = d[a];
      }
      b.dist[i] = dist;
      b.hit[0][i] = -5.0f;
      b.hit[1][i] = -6.0f;
      b.tri[i] = entry;
    }
    EXPECT_EQ(b.traceFromSurfaces(obj), velStsNoErr);
    r[path] = b.at(0);
    for (int i = 1; i < b.size(); ++i) expectSame(b.at(i), r[path], i);
  }
  expectSame(r[1], r[0], 0);
  return r[0];
}

TEST(IntersectFromSurface, BoxParallelAxesAndFlatTrianglesAreStrict) {
  FlatScene s;
  s.add(0);
  s.box[1] = 0;  // the box's lower y face holds the triangle's edge AB
  const VelrIntersectObject obj = s.object({0});
  const float down[3] = {0, 0, -1};
  // Parallel to y, origin on the face y = 0: outside the open slab, a miss
  // (the eye query ignores parallel slabs and hits).
  const float onFace[3] = {0.25f, 0.0f, 1.0f};
  EXPECT_EQ(traceSurface(obj, onFace, down, 1e30f).tri, -1);
  const float inside[3] = {0.25f, 0.25f, 1.0f};
  const RayResult r = traceSurface(obj, inside, down, 1e30f, 0);
  EXPECT_EQ(r.tri, 0);  // the triangle index on entry plays no part
  EXPECT_EQ(r.dist, 1.0f);
  EXPECT_EQ(r.w1, 0.5f);
  EXPECT_EQ(r.w2, 0.25f);
  // |den| below ten epsilons: passed over, though it lies on the ray.
  const float grazing[3] = {1.0f, 0.0f, -1.0e-6f};
  const float low[3] = {0.1f, 0.2f, 5e-8f};
  EXPECT_EQ(traceSurface(obj, low, grazing, 1e30f).tri, -1);
  const float steeper[3] = {1.0f, 0.0f, -1.3e-6f};
  EXPECT_EQ(traceSurface(obj, low, steeper, 1e30f).tri, 0);
  // A hit 5e-6 away counts only for an entry distance beyond it by more than
  // the gap.
  const float close[3] = {0.25f, 0.25f, 5e-6f};
  EXPECT_EQ(traceSurface(obj, close, down, 0.00001f).tri, -1);
  EXPECT_EQ(traceSurface(obj, close, down, 0.00002f).tri, 0);
}

TEST(IntersectFromSurface, NewHitsMustBeNearerByMoreThanTheGap) {
  FlatScene s;
  s.add(0);
  s.add(4e-6f);  // 4e-6 nearer to a ray from above
  s.add(0.5f);
  const float o[3] = {0.25f, 0.25f, 1.0f}, down[3] = {0, 0, -1};
  EXPECT_EQ(traceSurface(s.object({0, 1}), o, down, 1e30f).tri, 0);
  EXPECT_EQ(traceSurface(s.object({1, 0}), o, down, 1e30f).tri, 1);
  EXPECT_EQ(traceSurface(s.object({0, 1, 2}), o, down, 1e30f).tri, 2);
}

TEST(IntersectShadow, SegmentMaskAndFirstBlocker) {
  FlatScene s;
  s.add(0);
  s.add(0.5f);
  const float o[3] = {0.25f, 0.25f, 1.0f};
  auto shadow = [&](const VelrIntersectObject& obj, float dz, Vel32s mask) {
    std::pair<Vel32s, Vel32s> r[2];
    for (int path = 0; path < 2; ++path) {
      Block b(4, 4, path == 0 ? 1 : 0);
      for (int i = 0; i < b.size(); ++i) {
        b.dir[0][i] = b.dir[1][i] = 0.0f;
        b.dir[2][i] = dz;
        b.mask[i] = mask;
        b.occluder[i] = 42;
      }
      EXPECT_EQ(b.traceShadows(o, obj), velStsNoErr);
      r[path] = {b.occluder[0], b.mask[0]};
      for (int i = 1; i < b.size(); ++i) EXPECT_EQ(std::make_pair(b.occluder[i], b.mask[i]), r[path]);
    }
    EXPECT_EQ(r[0], r[1]);
    return r[0];
  };
  // The box is never read.
  VelrIntersectObject obj = s.object({0});
  obj.pBound = nullptr;
  EXPECT_EQ(shadow(obj, -1.0f, 3), (std::pair<Vel32s, Vel32s>(-1, 3)));  // t = 1: free
  EXPECT_EQ(shadow(obj, -1.0001f, 3), (std::pair<Vel32s, Vel32s>(0, -1)));
  EXPECT_EQ(shadow(obj, -1.0001f, -2), (std::pair<Vel32s, Vel32s>(-1, -2)));
  EXPECT_EQ(shadow(obj, 0.0f, 0), (std::pair<Vel32s, Vel32s>(-1, 0)));
  // The first blocker in walk order ends the search, not the nearest one.
  obj = s.object({0, 1});
  obj.pBound = nullptr;
  EXPECT_EQ(shadow(obj, -2.0f, 0).first, 0);
  obj = s.object({1, 0});
  obj.pBound = nullptr;
  EXPECT_EQ(shadow(obj, -2.0f, 0).first, 1);
}

// Six parallel square layers z = 0 .. 5 over [-2, 2]^2, two triangles each.
TestMesh layers() {
  TestMesh m;
  for (int z = 0; z < 6; ++z) {
    const float a[3] = {-2, -2, float(z)}, b[3] = {2, -2, float(z)}, c[3] = {2, 2, float(z)},
                e[3] = {-2, 2, float(z)};
    m.addTriangle(a, b, c);
    m.addTriangle(a, c, e);
  }
  return m;
}

TEST(IntersectLayers, LayersFollowRepeatedNearestHits) {
  const TestMesh m = layers();
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<float> box = velr::test::boundsOf(m);
  const velr::test::Tree tree = velr::test::buildTree(m, velr::test::fullOptions(1.0f));
  const VelrIntersectObject obj{box.data(), recs.data(), tree.root()};
  const float origin[3] = {0.1f, -0.3f, 9.0f};
  constexpr int kSide = 8, kLayers = 8;
  Block b(kSide, kSide, 0, kLayers);
  for (int i = 0; i < b.size(); ++i) {
    b.dir[0][i] = -1.9f + 0.5f * (i % kSide) - origin[0];
    b.dir[1][i] = -1.7f + 0.45f * (i / kSide) - origin[1];
    b.dir[2][i] = -origin[2];
    for (int l = 0; l < kLayers; ++l) {
      b.dist[i + l * b.size()] = l == 0 ? 1e30f : 77.0f;
      b.hit[0][i + l * b.size()] = b.hit[1][i + l * b.size()] = 77.0f;
      b.tri[i + l * b.size()] = 9;
    }
  }
  b.dist[3] = 0.4f;  // ends before the first layer
  for (int maxHits : {1, 3, 8}) {
    Block t(kSide, kSide, 0, kLayers);
    t.copyInputsFrom(b);
    ASSERT_EQ(t.traceLayers(origin, obj, maxHits), velStsNoErr);
    for (int i = 0; i < b.size(); ++i) {
      const float d[3] = {b.dir[0][i], b.dir[1][i], b.dir[2][i]};
      // One layer is a nearest hit (the wider margin changes nothing here).
      Block eye(1, 1, 1);
      for (int a = 0; a < 3; ++a) eye.dir[a][0] = d[a];
      eye.dist[0] = b.dist[i];
      eye.hit[0][0] = eye.hit[1][0] = 77.0f;
      eye.trace(origin, obj);
      expectSame(t.at(i, 0), eye.at(0), i);
      const int expected = i == 3 ? 0 : 6;
      for (int l = 0; l < kLayers; ++l) {
        const RayResult r = t.at(i, l);
        if (l < std::min(expected, maxHits)) {
          // Layer l lies on the plane z = 5 - l, its distance measured from
          // the origin.
          ASSERT_GE(r.tri, 0) << i << " " << l;
          EXPECT_EQ(r.tri / 2, 5 - l);
          EXPECT_NEAR(r.dist, (origin[2] - (5 - l)) / origin[2], 1e-5);
          if (l > 0) EXPECT_GT(r.dist, t.at(i, l - 1).dist);
        } else {
          // maxHits layers are cleared, the layer after the last hit is
          // reset, and everything else stays.
          EXPECT_EQ(r.tri, l < maxHits ? -1 : 9) << i << " " << l;
          const bool reset = expected > 0 && l == expected && l < maxHits;
          const float want = reset ? kMaxFloat : b.dist[i + l * b.size()];
          EXPECT_EQ(r.dist, want) << i << " " << l;
          EXPECT_EQ(r.w1, 77.0f);
        }
      }
    }
  }
}

// ------------------------------------------------------------ agreement

// Fills a block with rays that start near the mesh's surface and leave it in
// random directions, from per-ray origins.
void surfaceRays(Block* b, velr::workloads::SplitMix64& rng, float spread) {
  for (int i = 0; i < b->size(); ++i) {
    for (int a = 0; a < 3; ++a) {
      b->o[a][i] = static_cast<float>(rng.uniform(-spread, spread));
      b->dir[a][i] = static_cast<float>(rng.uniform(-1, 1));
    }
    if (i % 29 == 0) b->dir[i % 3][i] = 0.0f;
    b->dist[i] = i % 17 == 0 ? static_cast<float>(rng.uniform(0, 2)) : 1e30f;
    b->tri[i] = static_cast<Vel32s>(rng.next() % 50);
    b->mask[i] = i % 11 == 0 ? -1 : static_cast<Vel32s>(rng.next() % 5);
  }
}

TEST(IntersectSecondary, ArbitraryTreesFollowTheDocumentedWalkOnEveryPath) {
  velr::workloads::SplitMix64 rng(17);
  const TestMesh m = velr::test::soup(300, 8, 1.0);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const float box[6] = {-1, -1, -1, 1, 1, 1};
  int hits = 0, blocked = 0, layered = 0;
  for (int round = 0; round < 10; ++round) {
    const std::vector<Vel32u> tree = velr::test::randomTree(rng, m.nt());
    const VelrIntersectObject obj{box, recs.data(),
                                  reinterpret_cast<const VelrKDTreeNode*>(tree.data())};
    float o[3];
    for (float& x : o) x = static_cast<float>(rng.uniform(-1.5, 1.5));
    constexpr int kLayers = 3;
    Block in(16, 16, 0, kLayers);
    surfaceRays(&in, rng, 0.9f);
    // Shadow and layered rays share one origin and point to nearby targets.
    Block shared(16, 16, 0, kLayers);
    shared.copyInputsFrom(in);
    for (int i = 0; i < in.size(); ++i)
      for (int a = 0; a < 3; ++a) shared.dir[a][i] = in.o[a][i] - o[a];

    Block one(16, 16, 1, kLayers), packet(16, 16, 0, kLayers);
    one.copyInputsFrom(in);
    one.traceFromSurfaces(obj);
    for (int i = 0; i < in.size(); ++i) {
      const float oi[3] = {in.o[0][i], in.o[1][i], in.o[2][i]};
      const float d[3] = {in.dir[0][i], in.dir[1][i], in.dir[2][i]};
      RayResult want = surfaceRay(obj, oi, d, in.dist[i]);
      if (want.tri < 0) want = {in.dist[i], in.hit[0][i], in.hit[1][i], -1};
      expectSame(one.at(i), want, i);
      hits += want.tri >= 0;
    }
    Block oneShadow(16, 16, 1, kLayers);
    oneShadow.copyInputsFrom(shared);
    oneShadow.traceShadows(o, obj);
    for (int i = 0; i < in.size(); ++i) {
      const float d[3] = {shared.dir[0][i], shared.dir[1][i], shared.dir[2][i]};
      const Vel32s want = shared.mask[i] < 0 ? -1 : shadowRay(obj, o, d);
      EXPECT_EQ(oneShadow.occluder[i], want) << i;
      EXPECT_EQ(oneShadow.mask[i], want >= 0 ? -1 : shared.mask[i]) << i;
      blocked += want >= 0;
    }
    Block oneLayers(16, 16, 1, kLayers);
    oneLayers.copyInputsFrom(shared);
    oneLayers.traceLayers(o, obj, kLayers);
    {
      Block want(16, 16, 0, kLayers);
      want.copyInputsFrom(shared);
      const int n = in.size();
      for (int i = 0; i < n * kLayers; ++i) want.tri[i] = -1;
      for (int i = 0; i < n; ++i) {
        const float d[3] = {shared.dir[0][i], shared.dir[1][i], shared.dir[2][i]};
        layerRay(obj, o, d, kLayers, n, want.dist + i, want.hit[0] + i, want.hit[1] + i,
                 want.tri + i);
      }
      for (int l = 0; l < kLayers; ++l)
        for (int i = 0; i < n; ++i) {
          expectSame(oneLayers.at(i, l), want.at(i, l), i + l * n);
          layered += l > 0 && want.at(i, l).tri >= 0;
        }
    }

    velr::test::forEachTarget([&](const std::string& target) {
      SCOPED_TRACE(target);
      Block p(16, 16, 0, kLayers);
      p.copyInputsFrom(in);
      p.traceFromSurfaces(obj);
      for (int i = 0; i < in.size(); ++i) expectSame(p.at(i), one.at(i), i);
      p.copyInputsFrom(shared);
      p.traceShadows(o, obj);
      for (int i = 0; i < in.size(); ++i) {
        EXPECT_EQ(p.occluder[i], oneShadow.occluder[i]) << i;
        EXPECT_EQ(p.mask[i], oneShadow.mask[i]) << i;
      }
      p.copyInputsFrom(shared);
      p.traceLayers(o, obj, kLayers);
      for (int l = 0; l < kLayers; ++l)
        for (int i = 0; i < in.size(); ++i) expectSame(p.at(i, l), oneLayers.at(i, l), i);
    });
  }
  EXPECT_GT(hits, 100);
  EXPECT_GT(blocked, 100);
  EXPECT_GT(layered, 25);
}

TEST(IntersectSecondary, FullTreesAgreeWithBruteForce) {
  const TestMesh m = velr::test::bumpy(12);
  const std::vector<VelrTriangleAccel> recs = velr::test::records(m);
  const std::vector<float> box = velr::test::boundsOf(m);
  const velr::test::Tree full = velr::test::buildTree(m, velr::test::fullOptions(0.5f, 40));
  const velr::test::Tree all = velr::test::buildTree(m, {VELR_KDTREE_ONE_LEAF, 0, 0, 0, 0});
  const VelrIntersectObject tree{box.data(), recs.data(), full.root()};
  const VelrIntersectObject brute{box.data(), recs.data(), all.root()};
  velr::workloads::SplitMix64 rng(3);
  int hits = 0, blocked = 0;
  for (int round = 0; round < 4; ++round) {
    Block a(32, 32, 0), b(32, 32, 1);
    surfaceRays(&a, rng, 1.1f);
    b.copyInputsFrom(a);
    a.traceFromSurfaces(tree);
    b.traceFromSurfaces(brute);
    for (int i = 0; i < a.size(); ++i) {
      // Hits within the gap of each other may differ with the walk order.
      EXPECT_EQ(a.tri[i] >= 0, b.tri[i] >= 0) << i;
      if (a.tri[i] != b.tri[i]) EXPECT_NEAR(a.dist[i], b.dist[i], 1.1e-5) << i;
      hits += a.tri[i] >= 0;
    }
    const float light[3] = {3.0f, 4.0f, 1.5f};
    surfaceRays(&a, rng, 1.1f);
    for (int i = 0; i < a.size(); ++i)
      for (int k = 0; k < 3; ++k) a.dir[k][i] = a.o[k][i] - light[k];
    b.copyInputsFrom(a);
    a.traceShadows(light, tree);
    b.traceShadows(light, brute);
    for (int i = 0; i < a.size(); ++i) {
      EXPECT_EQ(a.mask[i], b.mask[i]) << i;
      blocked += a.occluder[i] >= 0;
    }
  }
  EXPECT_GT(hits, 1000);
  EXPECT_GT(blocked, 1000);
}

}  // namespace
