// Intersection kernels for blocks of rays, per SIMD target: tiles of rays are
// loaded into packets and walked through the tree together (traverse-inl.h).
// Every kernel here gives each ray the result of its one-ray algorithm
// (traverse.h); the front ends pick them for blocks of whole 4 x 4 tiles in
// 16-byte aligned planes.
#if defined(VELR_RAYTRACE_INTERSECT_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_RAYTRACE_INTERSECT_INL_H_
#undef VELR_RAYTRACE_INTERSECT_INL_H_
#else
#define VELR_RAYTRACE_INTERSECT_INL_H_
#endif

#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "raytrace/traverse-inl.h"
#include "raytrace/traverse.h"

HWY_BEFORE_NAMESPACE();
namespace velr::rt::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// The tiles of a block: 1 x 1, 2 x 2, 4 x 2 or 4 x 4 rays, the most compact
// tile for the lane count (compact tiles keep the rays coherent). Planes are
// read and written through small aligned buffers, one tile at a time.
class Tiles {
 public:
  using D = PacketTag;
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  using DI = hn::RebindToSigned<D>;
  using VI = hn::Vec<DI>;

  Tiles(int width, int height) : width_(width), height_(height) {}

  // Calls fn(at) with the offset of each tile's first ray, tiles row by row.
  template <class Fn>
  void forEach(Fn&& fn) const {
    for (int y = 0; y < height_; y += h_)
      for (int x = 0; x < width_; x += w_) fn(static_cast<std::ptrdiff_t>(y) * width_ + x);
  }

  template <typename T>
  HWY_INLINE auto load(const T* plane, std::ptrdiff_t at) const {
    HWY_ALIGN T buf[kMaxPacket];
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x) buf[y * w_ + x] = plane[at + y * width_ + x];
    if constexpr (std::is_integral_v<T>)
      return hn::Load(DI(), buf);
    else
      return hn::Load(D(), buf);
  }
  HWY_INLINE void store(V v, float* plane, std::ptrdiff_t at) const {
    HWY_ALIGN float buf[kMaxPacket];
    hn::Store(v, D(), buf);
    scatter(buf, plane, at);
  }
  HWY_INLINE void store(VI v, Vel32s* plane, std::ptrdiff_t at) const {
    HWY_ALIGN Vel32s buf[kMaxPacket];
    hn::Store(v, DI(), buf);
    scatter(buf, plane, at);
  }
  // Writes only the lanes of m, leaving the others as they are.
  HWY_INLINE void storeWhere(M m, V v, float* plane, std::ptrdiff_t at) const {
    store(hn::IfThenElse(m, v, load(plane, at)), plane, at);
  }
  HWY_INLINE void storeWhere(M m, VI v, Vel32s* plane, std::ptrdiff_t at) const {
    store(hn::IfThenElse(hn::RebindMask(DI(), m), v, load(plane, at)), plane, at);
  }
  // Calls fn(i) for the offset of each ray of the tile, in row order.
  template <class Fn>
  void forEachRay(std::ptrdiff_t at, Fn&& fn) const {
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x) fn(at + y * width_ + x);
  }

 private:
  template <typename T>
  HWY_INLINE void scatter(const T* buf, T* plane, std::ptrdiff_t at) const {
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x) plane[at + y * width_ + x] = buf[y * w_ + x];
  }

  // The tile shape is fixed per target, so the copies unroll.
  static constexpr int kLanes = static_cast<int>(HWY_MAX(hn::MaxLanes(D()), 1));
  static constexpr int w_ = kLanes >= 8 ? 4 : kLanes >= 2 ? 2 : 1;
  static constexpr int h_ = kLanes / w_;
  int width_, height_;
};

// Walks the packet once per sign group of its live lanes.
template <class Query>
HWY_INLINE void walkGroups(PacketRays<PacketTag>* rays, const hn::Mask<PacketTag> negative[3],
                           hn::Mask<PacketTag> live, const VelrKDTreeNode* root, float margin,
                           Query& q) {
  const PacketTag d;
  forEachSignGroup(d, negative, live, [&](const int sign[3], hn::Mask<PacketTag> group) {
    for (int a = 0; a < 3; ++a) rays->sign[a] = sign[a];
    traversePacket(d, root, *rays, group, margin, q);
  });
}

// Nearest hits from one origin (eye rays) or from one origin per ray (rays
// leaving surfaces).
template <bool kFromSurface>
HWY_INLINE void nearestPackets(const Vel32f* const origin[3], const Vel32f* const dir[3],
                               Vel32f* dist, Vel32f* const hit[2], Vel32s* triangle,
                               const VelrIntersectObject* obj, int width, int height) {
  const PacketTag d;
  using M = hn::Mask<PacketTag>;
  const hn::RebindToSigned<PacketTag> di;
  const Tiles tiles(width, height);
  PacketRays<PacketTag> rays;
  rays.o[3] = rays.d[3] = hn::Zero(d);
  if (!kFromSurface)
    for (int a = 0; a < 3; ++a) rays.o[a] = hn::Set(d, origin[a][0]);
  tiles.forEach([&](std::ptrdiff_t at) {
    for (int a = 0; a < 3; ++a) {
      rays.d[a] = tiles.load(dir[a], at);
      if (kFromSurface) rays.o[a] = tiles.load(origin[a], at);
    }
    const auto dist0 = tiles.load(dist, at);
    M negative[3];
    const M live = kFromSurface ? clipMultipliedPacket(d, obj->pBound, dist0, &rays, negative)
                                : clipDividedPacket(d, obj->pBound, dist0, &rays, negative);
    PacketNearest<PacketTag, kFromSurface> q{
        {d, obj->pAccel, &rays, dist0, hn::Zero(d), hn::Zero(d), hn::Set(d, 1.0f), hn::Set(di, -1)}};
    walkGroups(&rays, negative, live, obj->pRootNode, kSplitMargin, q);
    tiles.store(q.triangle, triangle, at);
    const M taken = hn::RebindMask(d, hn::Gt(q.triangle, hn::Set(di, -1)));
    if (hn::AllFalse(d, taken)) return;
    tiles.store(q.dist, dist, at);
    tiles.storeWhere(taken, q.w1(), hit[0], at);
    tiles.storeWhere(taken, q.w2(), hit[1], at);
  });
}

inline void IntersectEyePackets(const Vel32f* origin, const Vel32f* const dir[3], Vel32f* dist,
                                Vel32f* const hit[2], Vel32s* triangle,
                                const VelrIntersectObject* obj, int width, int height) {
  const Vel32f* const shared[3] = {origin, origin + 1, origin + 2};
  nearestPackets<false>(shared, dir, dist, hit, triangle, obj, width, height);
}

inline void IntersectSurfacePackets(const Vel32f* const origin[3], const Vel32f* const dir[3],
                                    Vel32f* dist, Vel32f* const hit[2], Vel32s* triangle,
                                    const VelrIntersectObject* obj, int width, int height) {
  nearestPackets<true>(origin, dir, dist, hit, triangle, obj, width, height);
}

// Shadow rays from one origin: a lane stops at its first blocker, and a
// packet ends when all its lanes have.
inline void IntersectShadowPackets(const Vel32f* origin, const Vel32f* const dir[3],
                                   Vel32s* occluder, Vel32s* mask, const VelrIntersectObject* obj,
                                   int width, int height) {
  const PacketTag d;
  using M = hn::Mask<PacketTag>;
  const hn::RebindToSigned<PacketTag> di;
  const Tiles tiles(width, height);
  PacketRays<PacketTag> rays;
  rays.o[3] = rays.d[3] = hn::Zero(d);
  for (int a = 0; a < 3; ++a) rays.o[a] = hn::Set(d, origin[a]);
  tiles.forEach([&](std::ptrdiff_t at) {
    const auto masks = tiles.load(mask, at);
    const M live = hn::RebindMask(d, hn::Gt(masks, hn::Set(di, -1)));
    PacketAny<PacketTag> q{d, obj->pAccel, &rays, hn::Set(d, kSegmentEnd), hn::Set(di, -1)};
    if (!hn::AllFalse(d, live)) {
      for (int a = 0; a < 3; ++a) rays.d[a] = tiles.load(dir[a], at);
      M negative[3];
      segmentPacket(d, &rays, negative);
      walkGroups(&rays, negative, live, obj->pRootNode, kSplitMargin, q);
    }
    tiles.store(q.blocker, occluder, at);
    const M blocked = hn::RebindMask(d, hn::Gt(q.blocker, hn::Set(di, -1)));
    if (!hn::AllFalse(d, blocked)) tiles.storeWhere(blocked, hn::Set(di, -1), mask, at);
  });
}

// Up to maxHits layers per ray, the lanes of a packet pass by pass. The
// triangle planes of all layers hold -1 already.
inline void IntersectLayerPackets(const Vel32f* origin, const Vel32f* const dir[3],
                                  const LayerPlanes* out, const VelrIntersectObject* obj,
                                  int width, int height, int maxHits) {
  const PacketTag d;
  using V = hn::Vec<PacketTag>;
  using M = hn::Mask<PacketTag>;
  const hn::RebindToSigned<PacketTag> di;
  using VI = hn::Vec<decltype(di)>;
  const Tiles tiles(width, height);
  PacketRays<PacketTag> rays;
  rays.o[3] = rays.d[3] = hn::Zero(d);
  tiles.forEach([&](std::ptrdiff_t at) {
    for (int a = 0; a < 3; ++a) {
      rays.o[a] = hn::Set(d, origin[a]);
      rays.d[a] = tiles.load(dir[a], at);
    }
    M negative[3];
    M live = clipDividedPacket(d, obj->pBound, tiles.load(out->dist, at), &rays, negative);
    VI ring[kLayerRing];
    for (VI& r : ring) r = hn::Set(di, -1);
    VI previous = hn::Set(di, -1);
    V reached = hn::Zero(d);  // the last layer's distance from the origin
    for (int p = 0; p < maxHits && !hn::AllFalse(d, live); ++p) {
      const std::ptrdiff_t layer = at + p * out->layerStep;
      const V limit = p == 0 ? tiles.load(out->dist, layer) : hn::Set(d, kNoLimit);
      PacketLayer<PacketTag> q{
          {d, obj->pAccel, &rays, limit, hn::Zero(d), hn::Zero(d), hn::Set(d, 1.0f), hn::Set(di, -1)},
          previous,
          ring,
          p % kLayerRing};
      walkGroups(&rays, negative, live, obj->pRootNode, kLayerMargin, q);
      live = hn::And(live, hn::RebindMask(d, hn::Gt(q.triangle, hn::Set(di, -1))));
      if (hn::AllFalse(d, live)) break;
      for (int a = 0; a < 3; ++a)
        rays.o[a] = hn::IfThenElse(live, hn::Add(rays.o[a], hn::Mul(q.dist, rays.d[a])), rays.o[a]);
      reached = p >= 1 ? hn::Add(q.dist, reached) : q.dist;
      tiles.storeWhere(live, reached, out->dist, layer);
      tiles.storeWhere(live, q.w1(), out->w1, layer);
      tiles.storeWhere(live, q.w2(), out->w2, layer);
      tiles.storeWhere(live, q.triangle, out->triangle, layer);
      ring[p % kLayerRing] = hn::IfThenElse(hn::RebindMask(di, live), q.triangle, ring[p % kLayerRing]);
      previous = hn::IfThenElse(hn::RebindMask(di, live), q.triangle, previous);
      if (p + 1 == maxHits) break;
      tiles.storeWhere(live, hn::Set(d, kNoLimit), out->dist, layer + out->layerStep);
      rays.tnear = hn::Zero(d);
      rays.tfar = layerExitPacket(d, obj->pBound, rays);
    }
  });
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace velr::rt::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // VELR_RAYTRACE_INTERSECT_INL_H_
