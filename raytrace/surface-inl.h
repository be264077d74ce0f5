// Kernels for hit points, flat and smooth normals, triangle normals and the
// bounding box, one source for every SIMD target.
//
// Hit points and smooth normals have a block form and a one-ray form that
// round differently on purpose (multiplication order; an estimated versus a
// true square root with different thresholds). The block form is defined per
// element, so every vector width gives the same bits; the front end decides
// which form a packet gets.
#if defined(VELR_RAYTRACE_SURFACE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_RAYTRACE_SURFACE_INL_H_
#undef VELR_RAYTRACE_SURFACE_INL_H_
#else
#define VELR_RAYTRACE_SURFACE_INL_H_
#endif

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include <hwy/highway.h>

#include "raytrace/surface_rsqrt.h"

HWY_BEFORE_NAMESPACE();
namespace velr {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace surface {

using DF = hn::ScalableTag<float>;
using DI = hn::RebindToSigned<DF>;

// Wrapping 32-bit product, the element offset of a triangle's index record.
HWY_INLINE int32_t WrapMul(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Gather offsets for the active lanes; inactive lanes borrow the offset of
// the first active lane, so every gather reads only records that the
// one-ray form would read too. Needs at least one active lane.
template <class DI_, class M>
HWY_INLINE hn::Vec<DI_> OffsetsOfActive(DI_ di, M active, hn::Vec<DI_> offsets) {
  const size_t first = static_cast<size_t>(hn::FindFirstTrue(di, active));
  return hn::IfThenElse(active, offsets, hn::Set(di, hn::ExtractLane(offsets, first)));
}

// Hit point of one ray: block form (D * t) * eps + O, one-ray form
// (D * eps) * t + O.
HWY_INLINE float HitBlockForm(float o, float dir, float t, float eps) {
  return (dir * t) * eps + o;
}
HWY_INLINE float HitOneRayForm(float o, float dir, float t, float eps) {
  return (dir * eps) * t + o;
}

// Blended vertex normal of a hit: (N1 * v + N0 * u) + N2 * w.
struct Blend {
  float x, y, z, s;
};
HWY_INLINE Blend BlendNormal(const float* vn, const int32_t* tri, int32_t m, int32_t step,
                             float u, float v) {
  const int32_t* rec = tri + WrapMul(m, step);
  const float* n0 = vn + 3 * static_cast<ptrdiff_t>(rec[0]);
  const float* n1 = vn + 3 * static_cast<ptrdiff_t>(rec[1]);
  const float* n2 = vn + 3 * static_cast<ptrdiff_t>(rec[2]);
  const float w = (1.0f - u) - v;
  Blend b;
  b.x = (n1[0] * v + n0[0] * u) + n2[0] * w;
  b.y = (n1[1] * v + n0[1] * u) + n2[1] * w;
  b.z = (n1[2] * v + n0[2] * u) + n2[2] * w;
  b.s = (b.x * b.x + b.y * b.y) + b.z * b.z;
  return b;
}

// The block form of one ray: estimate, zero at or below FLT_EPSILON (a strict
// test, unlike the one-ray form), one Newton step.
HWY_INLINE void SmoothBlockLane(const Blend& b, float* x, float* y, float* z) {
  const float r = rsqrtNewtonStep(b.s, b.s > FLT_EPSILON ? rsqrtEstimate(b.s) : 0.0f);
  *x = b.x * r;
  *y = b.y * r;
  *z = b.z * r;
}

template <class V>
HWY_INLINE V RsqrtNewton(V s, V r) {
  const hn::DFromV<V> d;
  return hn::Mul(hn::Mul(r, hn::Set(d, -0.5f)),
                 hn::Sub(hn::Mul(hn::Mul(s, r), r), hn::Set(d, 3.0f)));
}

template <class V>
HWY_INLINE V RsqrtEstimate(V s) {
  const hn::DFromV<V> d;
  const hn::RebindToUnsigned<decltype(d)> du;
  const auto guess = hn::Sub(hn::Set(du, kRsqrtSeed), hn::ShiftRight<1>(hn::BitCast(du, s)));
  const V r = hn::BitCast(d, guess);
  return RsqrtNewton(s, RsqrtNewton(s, r));
}

// Triangle normal in double precision, rounded to float once.
HWY_INLINE void TriangleNormalOne(const float* vert, const int32_t* rec, float* out) {
  const float* p0 = vert + 3 * static_cast<ptrdiff_t>(rec[0]);
  const float* p1 = vert + 3 * static_cast<ptrdiff_t>(rec[1]);
  const float* p2 = vert + 3 * static_cast<ptrdiff_t>(rec[2]);
  const double ax = double(p0[0]) - double(p2[0]), ay = double(p0[1]) - double(p2[1]),
               az = double(p0[2]) - double(p2[2]);
  const double bx = double(p1[0]) - double(p2[0]), by = double(p1[1]) - double(p2[1]),
               bz = double(p1[2]) - double(p2[2]);
  const double nx = ay * bz - az * by, ny = az * bx - ax * bz, nz = ax * by - ay * bx;
  const double s = (nx * nx + ny * ny) + nz * nz;
  if (s < DBL_EPSILON) {
    out[0] = out[1] = out[2] = 0.0f;
    return;
  }
  const double len = std::sqrt(s);
  out[0] = static_cast<float>(nx / len);
  out[1] = static_cast<float>(ny / len);
  out[2] = static_cast<float>(nz / len);
}

}  // namespace surface

// ---------------------------------------------------------------- hit points

// One origin for all rays (originPlanes null) or one per ray.
void HitPointBlockKernel(const float* origin, const float* const* originPlanes,
                         const float* const* dir, const float* dist, const int32_t* mask,
                         float* const* out, size_t len, float eps) {
  using namespace surface;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto veps = hn::Set(d, eps);
  const auto zero = hn::Zero(d);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto m = hn::LoadU(DI(), mask + i);
    const auto active = hn::RebindMask(d, hn::Gt(m, hn::Set(DI(), -1)));
    if (hn::AllFalse(d, active)) {
      for (int c = 0; c < 3; ++c) hn::StoreU(zero, d, out[c] + i);
      continue;
    }
    const auto t = hn::LoadU(d, dist + i);
    for (int c = 0; c < 3; ++c) {
      const auto o = originPlanes ? hn::LoadU(d, originPlanes[c] + i) : hn::Set(d, origin[c]);
      const auto h = hn::Add(hn::Mul(hn::Mul(hn::LoadU(d, dir[c] + i), t), veps), o);
      hn::StoreU(hn::IfThenElseZero(active, h), d, out[c] + i);
    }
  }
  for (; i < len; ++i) {
    for (int c = 0; c < 3; ++c) {
      const float o = originPlanes ? originPlanes[c][i] : origin[c];
      out[c][i] = mask[i] >= 0 ? HitBlockForm(o, dir[c][i], dist[i], eps) : 0.0f;
    }
  }
}

void HitPointOneRayKernel(const float* origin, const float* const* originPlanes,
                          const float* const* dir, const float* dist, const int32_t* mask,
                          float* const* out, size_t len, float eps) {
  using namespace surface;
  for (size_t i = 0; i < len; ++i) {
    for (int c = 0; c < 3; ++c) {
      const float o = originPlanes ? originPlanes[c][i] : origin[c];
      out[c][i] = mask[i] >= 0 ? HitOneRayForm(o, dir[c][i], dist[i], eps) : 0.0f;
    }
  }
}

// ---------------------------------------------------------------- flat normals

void FlatNormalKernel(const float* triNormals, const int32_t* mask, float* const* out,
                      size_t len) {
  using namespace surface;
  const DF d;
  const DI di;
  const size_t n = hn::Lanes(d);
  const auto zero = hn::Zero(d);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto m = hn::LoadU(di, mask + i);
    const auto activeI = hn::Gt(m, hn::Set(di, -1));
    if (hn::AllFalse(di, activeI)) {
      for (int c = 0; c < 3; ++c) hn::StoreU(zero, d, out[c] + i);
      continue;
    }
    const auto active = hn::RebindMask(d, activeI);
    const auto off = OffsetsOfActive(di, activeI, hn::Add(hn::Add(m, m), m));
    // Loads, gathers and selections move bits unchanged, so the normals are
    // copied exactly, signalling NaNs included.
    for (int c = 0; c < 3; ++c)
      hn::StoreU(hn::IfThenElseZero(active, hn::GatherIndex(d, triNormals + c, off)), d,
                 out[c] + i);
  }
  for (; i < len; ++i) {
    const int32_t m = mask[i];
    for (int c = 0; c < 3; ++c) out[c][i] = m >= 0 ? triNormals[3 * static_cast<size_t>(m) + c] : 0.0f;
  }
}

// ---------------------------------------------------------------- smooth normals

void SmoothNormalBlockKernel(const float* vn, const int32_t* tri, const int32_t* mask,
                             const float* const* hit, float* const* out, size_t len,
                             int32_t step) {
  using namespace surface;
  const DF d;
  const DI di;
  const size_t n = hn::Lanes(d);
  const auto zero = hn::Zero(d);
  const auto one = hn::Set(d, 1.0f);
  const auto epsilon = hn::Set(d, FLT_EPSILON);
  const auto vstep = hn::Set(di, step);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto m = hn::LoadU(di, mask + i);
    const auto activeI = hn::Gt(m, hn::Set(di, -1));
    if (hn::AllFalse(di, activeI)) {
      for (int c = 0; c < 3; ++c) hn::StoreU(zero, d, out[c] + i);
      continue;
    }
    const auto active = hn::RebindMask(d, activeI);
    const auto off = OffsetsOfActive(di, activeI, hn::Mul(m, vstep));
    const auto k0 = hn::GatherIndex(di, tri, off);
    const auto k1 = hn::GatherIndex(di, tri + 1, off);
    const auto k2 = hn::GatherIndex(di, tri + 2, off);
    const auto v0 = hn::Add(hn::Add(k0, k0), k0);
    const auto v1 = hn::Add(hn::Add(k1, k1), k1);
    const auto v2 = hn::Add(hn::Add(k2, k2), k2);
    const auto u = hn::LoadU(d, hit[0] + i);
    const auto v = hn::LoadU(d, hit[1] + i);
    const auto w = hn::Sub(hn::Sub(one, u), v);
    const auto blend = [&](int c) {
      return hn::Add(hn::Add(hn::Mul(hn::GatherIndex(d, vn + c, v1), v),
                             hn::Mul(hn::GatherIndex(d, vn + c, v0), u)),
                     hn::Mul(hn::GatherIndex(d, vn + c, v2), w));
    };
    const auto nx = blend(0), ny = blend(1), nz = blend(2);
    const auto s = hn::Add(hn::Add(hn::Mul(nx, nx), hn::Mul(ny, ny)), hn::Mul(nz, nz));
    const auto r =
        RsqrtNewton(s, hn::IfThenElseZero(hn::Gt(s, epsilon), RsqrtEstimate(s)));
    hn::StoreU(hn::IfThenElseZero(active, hn::Mul(nx, r)), d, out[0] + i);
    hn::StoreU(hn::IfThenElseZero(active, hn::Mul(ny, r)), d, out[1] + i);
    hn::StoreU(hn::IfThenElseZero(active, hn::Mul(nz, r)), d, out[2] + i);
  }
  for (; i < len; ++i) {
    if (mask[i] < 0) {
      out[0][i] = out[1][i] = out[2][i] = 0.0f;
      continue;
    }
    SmoothBlockLane(BlendNormal(vn, tri, mask[i], step, hit[0][i], hit[1][i]), out[0] + i,
                    out[1] + i, out[2] + i);
  }
}

void SmoothNormalOneRayKernel(const float* vn, const int32_t* tri, const int32_t* mask,
                              const float* const* hit, float* const* out, size_t len,
                              int32_t step) {
  using namespace surface;
  for (size_t i = 0; i < len; ++i) {
    if (mask[i] < 0) {
      out[0][i] = out[1][i] = out[2][i] = 0.0f;
      continue;
    }
    const Blend b = BlendNormal(vn, tri, mask[i], step, hit[0][i], hit[1][i]);
    if (b.s < FLT_EPSILON) {
      out[0][i] = out[1][i] = out[2][i] = 0.0f;
      continue;
    }
    const float len1 = std::sqrt(b.s);
    out[0][i] = b.x / len1;
    out[1][i] = b.y / len1;
    out[2][i] = b.z / len1;
  }
}

// ---------------------------------------------------------------- triangle normals

// Triangles [0, count) of the given records (index step 4) and outputs.
void TriangleNormalKernel(const float* vert, const int32_t* idx, float* out, size_t count) {
  using namespace surface;
  const hn::ScalableTag<double> dd;
  const hn::Rebind<float, decltype(dd)> df;
  const hn::Rebind<int32_t, decltype(dd)> di;
  const size_t n = hn::Lanes(dd);
  const auto recordOffsets = hn::ShiftLeft<2>(hn::Iota(di, 0));
  const auto tiny = hn::Set(dd, DBL_EPSILON);
  size_t j = 0;
  for (; j + n <= count; j += n) {
    const int32_t* rec = idx + 4 * j;
    const auto corner = [&](int k, int c) {
      const auto vi = hn::GatherIndex(di, rec + k, recordOffsets);
      const auto off = hn::Add(hn::Add(vi, vi), vi);
      return hn::PromoteTo(dd, hn::GatherIndex(df, vert + c, off));
    };
    const auto p2x = corner(2, 0), p2y = corner(2, 1), p2z = corner(2, 2);
    const auto ax = hn::Sub(corner(0, 0), p2x), ay = hn::Sub(corner(0, 1), p2y),
               az = hn::Sub(corner(0, 2), p2z);
    const auto bx = hn::Sub(corner(1, 0), p2x), by = hn::Sub(corner(1, 1), p2y),
               bz = hn::Sub(corner(1, 2), p2z);
    const auto nx = hn::Sub(hn::Mul(ay, bz), hn::Mul(az, by));
    const auto ny = hn::Sub(hn::Mul(az, bx), hn::Mul(ax, bz));
    const auto nz = hn::Sub(hn::Mul(ax, by), hn::Mul(ay, bx));
    const auto s = hn::Add(hn::Add(hn::Mul(nx, nx), hn::Mul(ny, ny)), hn::Mul(nz, nz));
    const auto degenerate = hn::Lt(s, tiny);
    const auto len = hn::Sqrt(s);
    const auto ox = hn::DemoteTo(df, hn::IfThenZeroElse(degenerate, hn::Div(nx, len)));
    const auto oy = hn::DemoteTo(df, hn::IfThenZeroElse(degenerate, hn::Div(ny, len)));
    const auto oz = hn::DemoteTo(df, hn::IfThenZeroElse(degenerate, hn::Div(nz, len)));
    hn::StoreInterleaved3(ox, oy, oz, df, out + 3 * j);
  }
  for (; j < count; ++j) TriangleNormalOne(vert, idx + 4 * j, out + 3 * j);
}

// ---------------------------------------------------------------- bounding box

// Minimum and maximum per axis of count vertices; NaN coordinates never
// replace a running value.
void BoundsKernel(const float* vert, size_t count, float* lo, float* hi) {
  using namespace surface;
  lo[0] = lo[1] = lo[2] = FLT_MAX;
  hi[0] = hi[1] = hi[2] = -FLT_MAX;
  const DF d;
  const size_t n = hn::Lanes(d);
  size_t k = 0;
  if (count >= n) {
    // Three vectors hold n whole vertices; lane l of vector a always sees
    // axis (a * n + l) % 3, so the running values stay per axis until the
    // fold. Zero signs may come out either way, which the margin hides.
    auto lo0 = hn::Set(d, FLT_MAX), lo1 = lo0, lo2 = lo0;
    auto hi0 = hn::Set(d, -FLT_MAX), hi1 = hi0, hi2 = hi0;
    for (; k + n <= count; k += n) {
      const float* p = vert + 3 * k;
      const auto a = hn::LoadU(d, p), b = hn::LoadU(d, p + n), c = hn::LoadU(d, p + 2 * n);
      lo0 = hn::IfThenElse(hn::Gt(lo0, a), a, lo0);
      lo1 = hn::IfThenElse(hn::Gt(lo1, b), b, lo1);
      lo2 = hn::IfThenElse(hn::Gt(lo2, c), c, lo2);
      hi0 = hn::IfThenElse(hn::Gt(a, hi0), a, hi0);
      hi1 = hn::IfThenElse(hn::Gt(b, hi1), b, hi1);
      hi2 = hn::IfThenElse(hn::Gt(c, hi2), c, hi2);
    }
    HWY_ALIGN float los[3 * hn::MaxLanes(d)];
    HWY_ALIGN float his[3 * hn::MaxLanes(d)];
    hn::Store(lo0, d, los);
    hn::Store(lo1, d, los + n);
    hn::Store(lo2, d, los + 2 * n);
    hn::Store(hi0, d, his);
    hn::Store(hi1, d, his + n);
    hn::Store(hi2, d, his + 2 * n);
    for (size_t l = 0; l < 3 * n; ++l) {
      const size_t axis = l % 3;
      if (lo[axis] > los[l]) lo[axis] = los[l];
      if (his[l] > hi[axis]) hi[axis] = his[l];
    }
  }
  for (; k < count; ++k) {
    for (int c = 0; c < 3; ++c) {
      const float x = vert[3 * k + c];
      if (lo[c] > x) lo[c] = x;
      if (x > hi[c]) hi[c] = x;
    }
  }
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#endif  // VELR_RAYTRACE_SURFACE_INL_H_
