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

#if HWY_TARGET != HWY_SCALAR
// Per-ray records (a triangle's normal, a vertex normal) are three floats at
// 3k. Hardware gathers cost about as much per element as scalar loads on
// some processors, so the normal kernels read each record with one 16-byte
// load and transpose four rays at a time instead.
using D4 = hn::FixedTag<float, 4>;
using V4 = hn::Vec<D4>;

// The triple at base + 3k in lanes 1..3. The load starts one float early so
// that it never reads past the triple, which may end the caller's array;
// the first triple has nothing before it and is assembled lane by lane.
HWY_INLINE V4 LoadTriple(const float* base, int32_t k) {
  if (k > 0) return hn::LoadU(D4(), base + 3 * static_cast<ptrdiff_t>(k) - 1);
  HWY_ALIGN float t[4] = {0.0f, base[0], base[1], base[2]};
  return hn::Load(D4(), t);
}

// Rows (-, x_j, y_j, z_j) of rays j = 0..3 to the columns x, y and z.
HWY_INLINE void TransposeTriples(V4 r0, V4 r1, V4 r2, V4 r3, V4& x, V4& y, V4& z) {
  const D4 d;
  const V4 t0 = hn::InterleaveLower(d, r0, r1);  // -, -, x0, x1
  const V4 t1 = hn::InterleaveUpper(d, r0, r1);  // y0, y1, z0, z1
  const V4 t2 = hn::InterleaveLower(d, r2, r3);  // -, -, x2, x3
  const V4 t3 = hn::InterleaveUpper(d, r2, r3);  // y2, y3, z2, z3
  x = hn::ConcatUpperUpper(d, t2, t0);
  y = hn::ConcatLowerLower(d, t3, t1);
  z = hn::ConcatUpperUpper(d, t3, t1);
}

// Mask values of four rays with the inactive ones replaced by an active
// ray's, so that every load reads a record the one-ray form reads too.
// Needs at least one active ray among the four.
HWY_INLINE void ActiveOrFirst(const int32_t* mask, bool allActive, int32_t out[4]) {
  if (allActive) {
    for (int j = 0; j < 4; ++j) out[j] = mask[j];
    return;
  }
  int32_t fallback = mask[0];
  for (int j = 3; j >= 0; --j)
    if (mask[j] >= 0) fallback = mask[j];
  for (int j = 0; j < 4; ++j) out[j] = mask[j] >= 0 ? mask[j] : fallback;
}
#endif

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
  size_t i = 0;
#if HWY_TARGET != HWY_SCALAR
  const D4 d;
  const hn::RebindToSigned<D4> di;
  float* const px = out[0];
  float* const py = out[1];
  float* const pz = out[2];
  for (; i + 4 <= len; i += 4) {
    const auto activeI = hn::Gt(hn::LoadU(di, mask + i), hn::Set(di, -1));
    if (hn::AllFalse(di, activeI)) {
      hn::StoreU(hn::Zero(d), d, px + i);
      hn::StoreU(hn::Zero(d), d, py + i);
      hn::StoreU(hn::Zero(d), d, pz + i);
      continue;
    }
    int32_t m[4];
    ActiveOrFirst(mask + i, hn::AllTrue(di, activeI), m);
    V4 x, y, z;
    TransposeTriples(LoadTriple(triNormals, m[0]), LoadTriple(triNormals, m[1]),
                     LoadTriple(triNormals, m[2]), LoadTriple(triNormals, m[3]), x, y, z);
    // Loads, shuffles and selections move bits unchanged, so the normals are
    // copied exactly, signalling NaNs included.
    const auto active = hn::RebindMask(d, activeI);
    hn::StoreU(hn::IfThenElseZero(active, x), d, px + i);
    hn::StoreU(hn::IfThenElseZero(active, y), d, py + i);
    hn::StoreU(hn::IfThenElseZero(active, z), d, pz + i);
  }
#endif
  for (; i < len; ++i) {
    const int32_t m = mask[i];
    for (int c = 0; c < 3; ++c)
      out[c][i] = m >= 0 ? triNormals[3 * static_cast<size_t>(m) + c] : 0.0f;
  }
}

// ---------------------------------------------------------------- smooth normals

void SmoothNormalBlockKernel(const float* vn, const int32_t* tri, const int32_t* mask,
                             const float* const* hit, float* const* out, size_t len,
                             int32_t step) {
  using namespace surface;
  size_t i = 0;
#if HWY_TARGET != HWY_SCALAR
  const D4 d;
  const hn::RebindToSigned<D4> di;
  const auto one = hn::Set(d, 1.0f);
  const auto epsilon = hn::Set(d, FLT_EPSILON);
  const float* const pu = hit[0];
  const float* const pv = hit[1];
  float* const px = out[0];
  float* const py = out[1];
  float* const pz = out[2];
  for (; i + 4 <= len; i += 4) {
    const auto activeI = hn::Gt(hn::LoadU(di, mask + i), hn::Set(di, -1));
    if (hn::AllFalse(di, activeI)) {
      hn::StoreU(hn::Zero(d), d, px + i);
      hn::StoreU(hn::Zero(d), d, py + i);
      hn::StoreU(hn::Zero(d), d, pz + i);
      continue;
    }
    int32_t m[4];
    ActiveOrFirst(mask + i, hn::AllTrue(di, activeI), m);
    const int32_t* rec[4];
    for (int j = 0; j < 4; ++j) rec[j] = tri + WrapMul(m[j], step);
    // Vertex normals of corner k of the four hit triangles, as columns.
    const auto corner = [&](int k, V4& x, V4& y, V4& z) {
      TransposeTriples(LoadTriple(vn, rec[0][k]), LoadTriple(vn, rec[1][k]),
                       LoadTriple(vn, rec[2][k]), LoadTriple(vn, rec[3][k]), x, y, z);
    };
    V4 n0x, n0y, n0z, n1x, n1y, n1z, n2x, n2y, n2z;
    corner(0, n0x, n0y, n0z);
    corner(1, n1x, n1y, n1z);
    corner(2, n2x, n2y, n2z);
    const auto u = hn::LoadU(d, pu + i);
    const auto v = hn::LoadU(d, pv + i);
    const auto w = hn::Sub(hn::Sub(one, u), v);
    const auto nx = hn::Add(hn::Add(hn::Mul(n1x, v), hn::Mul(n0x, u)), hn::Mul(n2x, w));
    const auto ny = hn::Add(hn::Add(hn::Mul(n1y, v), hn::Mul(n0y, u)), hn::Mul(n2y, w));
    const auto nz = hn::Add(hn::Add(hn::Mul(n1z, v), hn::Mul(n0z, u)), hn::Mul(n2z, w));
    const auto s = hn::Add(hn::Add(hn::Mul(nx, nx), hn::Mul(ny, ny)), hn::Mul(nz, nz));
    const auto r =
        RsqrtNewton(s, hn::IfThenElseZero(hn::Gt(s, epsilon), RsqrtEstimate(s)));
    const auto active = hn::RebindMask(d, activeI);
    hn::StoreU(hn::IfThenElseZero(active, hn::Mul(nx, r)), d, px + i);
    hn::StoreU(hn::IfThenElseZero(active, hn::Mul(ny, r)), d, py + i);
    hn::StoreU(hn::IfThenElseZero(active, hn::Mul(nz, r)), d, pz + i);
  }
#endif
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
  const size_t n = hn::Lanes(dd);
  const auto tiny = hn::Set(dd, DBL_EPSILON);
  // Corner coordinates of n triangles, gathered with scalar loads (cheaper
  // than hardware gathers on some processors) into one column per corner
  // and axis.
  constexpr size_t kMax = hn::MaxLanes(dd);
  HWY_ALIGN float col[9][kMax];
  size_t j = 0;
  for (; j + n <= count; j += n) {
    for (size_t l = 0; l < n; ++l) {
      const int32_t* rec = idx + 4 * (j + l);
      for (int k = 0; k < 3; ++k) {
        const float* p = vert + 3 * static_cast<ptrdiff_t>(rec[k]);
        col[3 * k][l] = p[0];
        col[3 * k + 1][l] = p[1];
        col[3 * k + 2][l] = p[2];
      }
    }
    const auto at = [&](int q) { return hn::PromoteTo(dd, hn::Load(df, col[q])); };
    const auto p2x = at(6), p2y = at(7), p2z = at(8);
    const auto ax = hn::Sub(at(0), p2x), ay = hn::Sub(at(1), p2y), az = hn::Sub(at(2), p2z);
    const auto bx = hn::Sub(at(3), p2x), by = hn::Sub(at(4), p2y), bz = hn::Sub(at(5), p2z);
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
