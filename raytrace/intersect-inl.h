// Intersection kernels for blocks of rays, per SIMD target: tiles of rays are
// loaded into packets and walked through the tree together (traverse-inl.h).
#if defined(VELR_RAYTRACE_INTERSECT_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_RAYTRACE_INTERSECT_INL_H_
#undef VELR_RAYTRACE_INTERSECT_INL_H_
#else
#define VELR_RAYTRACE_INTERSECT_INL_H_
#endif

#include <hwy/highway.h>

#include <cstddef>

#include "raytrace/traverse-inl.h"
#include "raytrace/traverse.h"

HWY_BEFORE_NAMESPACE();
namespace velr::rt::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Tile shape of a packet: 1 x 1, 2 x 2, 4 x 2 or 4 x 4 rays, the most
// compact tile for the lane count (compact tiles keep the rays coherent).
struct TileShape {
  int w, h;
};
inline TileShape tileShape(int lanes) {
  int w = 1;
  while (w * w < lanes && w < 4) w *= 2;
  return {w, lanes / w};
}

template <typename T>
HWY_INLINE void gatherTile(const T* plane, std::ptrdiff_t stride, TileShape s, T* out) {
  for (int y = 0; y < s.h; ++y)
    for (int x = 0; x < s.w; ++x) out[y * s.w + x] = plane[y * stride + x];
}
template <typename T>
HWY_INLINE void scatterTile(const T* in, TileShape s, std::ptrdiff_t stride, T* plane) {
  for (int y = 0; y < s.h; ++y)
    for (int x = 0; x < s.w; ++x) plane[y * stride + x] = in[y * s.w + x];
}

// Nearest hits for a block of eye rays whose width and height are multiples
// of 4, tile by tile. Tiles whose rays disagree in direction signs are traced
// ray by ray.
inline void IntersectEyePackets(const Vel32f* origin, const Vel32f* const dir[3], Vel32f* dist,
                                Vel32f* const hit[2], Vel32s* triangle,
                                const VelrIntersectObject* obj, int width, int height) {
  const PacketTag d;
  using V = hn::Vec<PacketTag>;
  using M = hn::Mask<PacketTag>;
  const hn::RebindToSigned<PacketTag> di;
  const TileShape shape = tileShape(static_cast<int>(hn::Lanes(d)));
  const std::ptrdiff_t stride = width;
  HWY_ALIGN float buf[kMaxPacket];
  HWY_ALIGN Vel32s ibuf[kMaxPacket];

  PacketRays<PacketTag> rays;
  for (int a = 0; a < 3; ++a) rays.o[a] = hn::Set(d, origin[a]);
  rays.o[3] = hn::Zero(d);
  rays.d[3] = hn::Zero(d);

  for (int y0 = 0; y0 < height; y0 += shape.h) {
    for (int x0 = 0; x0 < width; x0 += shape.w) {
      const std::ptrdiff_t at = y0 * stride + x0;
      for (int a = 0; a < 3; ++a) {
        gatherTile(dir[a] + at, stride, shape, buf);
        rays.d[a] = hn::Load(d, buf);
      }
      gatherTile(dist + at, stride, shape, buf);
      const V dist0 = hn::Load(d, buf);

      M negative[3];
      const M live = clipDividedPacket(d, obj->pBound, dist0, &rays, negative);
      if (!hn::AllFalse(d, live) && !commonSigns(d, negative, live, rays.sign)) {
        for (int y = 0; y < shape.h; ++y) {
          for (int x = 0; x < shape.w; ++x) {
            const std::ptrdiff_t i = at + y * stride + x;
            const Ray ray{{origin[0], origin[1], origin[2], 0.0f},
                          {dir[0][i], dir[1][i], dir[2][i], 0.0f}};
            traceEyeRay(*obj, ray, dist + i, hit[0] + i, hit[1] + i, triangle + i);
          }
        }
        continue;
      }

      PacketNearest<PacketTag> q{d, obj->pAccel, &rays, dist0, hn::Zero(d), hn::Zero(d),
                                 hn::Set(di, -1)};
      if (!hn::AllFalse(d, live)) traversePacket(d, obj->pRootNode, rays, live, kSplitMargin, q);

      hn::Store(q.triangle, di, ibuf);
      scatterTile(ibuf, shape, stride, triangle + at);
      const M taken = hn::RebindMask(d, hn::Gt(q.triangle, hn::Set(di, -1)));
      if (hn::AllFalse(d, taken)) continue;
      hn::Store(q.dist, d, buf);
      scatterTile(buf, shape, stride, dist + at);
      for (int w = 0; w < 2; ++w) {
        gatherTile(hit[w] + at, stride, shape, buf);
        hn::Store(hn::IfThenElse(taken, w == 0 ? q.w1 : q.w2, hn::Load(d, buf)), d, buf);
        scatterTile(buf, shape, stride, hit[w] + at);
      }
    }
  }
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace velr::rt::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // VELR_RAYTRACE_INTERSECT_INL_H_
