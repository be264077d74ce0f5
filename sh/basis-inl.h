// Per-target kernels of the spherical-harmonic basis.
//
// A block of kBlock directions (one float vector) is evaluated into a
// value-major tile: row k holds basis value k of every direction of the
// block, so each basis function is computed once per vector of directions
// with no shuffling. The tile is then transposed, 4 x 4 at a time, into the
// caller's direction-major layout. Every lane computes exactly what a
// one-direction evaluation computes, so all targets agree bit for bit.
#if defined(VELR_SH_BASIS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_SH_BASIS_INL_H_
#undef VELR_SH_BASIS_INL_H_
#else
#define VELR_SH_BASIS_INL_H_
#endif

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include "sh/context.h"
#include "sh/polynomials-inl.h"

HWY_BEFORE_NAMESPACE();
namespace velr {
namespace HWY_NAMESPACE {
namespace shk {

namespace hn = hwy::HWY_NAMESPACE;
using ::velr::sh::bandBlock;
using ::velr::sh::kMaxBand;
using ::velr::sh::kMaxValues;
using ::velr::sh::valueCount;

using DF = hn::ScalableTag<float>;
using DD = hn::ScalableTag<double>;
// Directions per tile: one float vector, two double vectors.
constexpr size_t kBlock = HWY_LANES(float);
constexpr size_t kHalf = HWY_LANES(double);

using TileFn = void (*)(const float* HWY_RESTRICT x, const float* HWY_RESTRICT y,
                        const float* HWY_RESTRICT z, float* HWY_RESTRICT tile);

// ---------------------------------------------------------------- closed form

// Rounds a double vector to float and stores it as tile row kBase + k.
template <int kBase>
struct TileRowSink {
  float* rows;
  template <class V>
  HWY_INLINE void operator()(int k, V v) const {
    const hn::Rebind<float, DD> dh;
    hn::Store(hn::DemoteTo(dh, v), dh, rows + static_cast<size_t>(kBase + k) * kBlock);
  }
};

template <int l, int kFirst, int kLast, class V>
HWY_INLINE void EvalBands(V z, V z2, const V* c, const V* s, float* rows) {
  TileRowSink<l * l - kFirst * kFirst> put{rows};
  shpoly::EvalBand<l>(DD(), z, z2, c, s, put);
  if constexpr (l < kLast) EvalBands<l + 1, kFirst, kLast>(z, z2, c, s, rows);
}

// Bands kFirst..kLast of one block, in double, rows numbered from band kFirst.
template <int kFirst, int kLast>
HWY_NOINLINE void ClosedFormTile(const float* HWY_RESTRICT x, const float* HWY_RESTRICT y,
                                 const float* HWY_RESTRICT z, float* HWY_RESTRICT tile) {
  const DD dd;
  const hn::Rebind<float, DD> dh;
  using V = hn::Vec<DD>;
  for (size_t h = 0; h < kBlock; h += kHalf) {
    const V vx = hn::PromoteTo(dd, hn::LoadU(dh, x + h));
    const V vy = hn::PromoteTo(dd, hn::LoadU(dh, y + h));
    const V vz = hn::PromoteTo(dd, hn::LoadU(dh, z + h));
    // c[m] + i s[m] = (x + iy)^m, by repeated complex multiplication.
    V c[kLast + 1];
    V s[kLast + 1];
    c[0] = hn::Set(dd, 1.0);
    s[0] = hn::Zero(dd);
    if constexpr (kLast >= 1) {
      c[1] = vx;
      s[1] = vy;
    }
    for (int m = 2; m <= kLast; ++m) {
      c[m] = hn::Sub(hn::Mul(c[m - 1], vx), hn::Mul(s[m - 1], vy));
      s[m] = hn::Add(hn::Mul(s[m - 1], vx), hn::Mul(c[m - 1], vy));
    }
    EvalBands<kFirst, kFirst, kLast>(vz, hn::Mul(vz, vz), c, s, tile + h);
  }
}

template <size_t... I>
constexpr auto MakeOrderTiles(std::index_sequence<I...>) {
  return std::array<TileFn, sizeof...(I)>{&ClosedFormTile<0, static_cast<int>(I)>...};
}
template <size_t... I>
constexpr auto MakeBandTiles(std::index_sequence<I...>) {
  return std::array<TileFn, sizeof...(I)>{
      &ClosedFormTile<static_cast<int>(I), static_cast<int>(I)>...};
}

// Bands 0..order.
inline TileFn OrderTile(int order) {
  static constexpr auto kFns = MakeOrderTiles(std::make_index_sequence<kMaxBand + 1>());
  return kFns[order];
}
// Band `band` alone.
inline TileFn BandTile(int band) {
  static constexpr auto kFns = MakeBandTiles(std::make_index_sequence<kMaxBand + 1>());
  return kFns[band];
}

// ---------------------------------------------------------------- recurrence

inline float* Row(float* tile, int l, int m) {
  return tile + static_cast<size_t>(l * l + l + m) * kBlock;
}

// Bands 0..order in float from the context's seeds and coefficient tables.
HWY_NOINLINE inline void RecurrenceTile(const float* HWY_RESTRICT x, const float* HWY_RESTRICT y,
                                        const float* HWY_RESTRICT z, int order,
                                        const float* HWY_RESTRICT ta,
                                        const float* HWY_RESTRICT tb, float* HWY_RESTRICT tile) {
  const DF df;
  const auto vx = hn::LoadU(df, x);
  const auto vy = hn::LoadU(df, y);
  const auto vz = hn::LoadU(df, z);
  hn::Store(hn::Set(df, ta[0]), df, Row(tile, 0, 0));
  if (order == 0) return;
  const auto n1 = hn::Set(df, ta[2]);
  hn::Store(hn::Mul(n1, vy), df, Row(tile, 1, -1));
  hn::Store(hn::Mul(hn::Set(df, ta[1]), vz), df, Row(tile, 1, 0));
  hn::Store(hn::Mul(n1, vx), df, Row(tile, 1, 1));
  for (int l = 2; l <= order; ++l) {
    const float* a = ta + bandBlock(l);
    const float* b = tb + bandBlock(l);
    const auto yp = hn::Load(df, Row(tile, l - 1, l - 1));
    const auto ym = hn::Load(df, Row(tile, l - 1, -(l - 1)));
    const auto sl = hn::Set(df, a[l]);
    hn::Store(hn::Mul(hn::Sub(hn::Mul(yp, vx), hn::Mul(ym, vy)), sl), df, Row(tile, l, l));
    hn::Store(hn::Mul(hn::Add(hn::Mul(yp, vy), hn::Mul(ym, vx)), sl), df, Row(tile, l, -l));
    const auto az = hn::Mul(hn::Set(df, a[l - 1]), vz);
    hn::Store(hn::Mul(az, yp), df, Row(tile, l, l - 1));
    hn::Store(hn::Mul(az, ym), df, Row(tile, l, -(l - 1)));
    for (int m = 0; m <= l - 2; ++m) {
      const auto am = hn::Mul(hn::Set(df, a[m]), vz);
      const auto bm = hn::Set(df, b[m]);
      hn::Store(hn::Add(hn::Mul(am, hn::Load(df, Row(tile, l - 1, m))),
                        hn::Mul(bm, hn::Load(df, Row(tile, l - 2, m)))),
                df, Row(tile, l, m));
      if (m == 0) continue;
      hn::Store(hn::Add(hn::Mul(am, hn::Load(df, Row(tile, l - 1, -m))),
                        hn::Mul(bm, hn::Load(df, Row(tile, l - 2, -m)))),
                df, Row(tile, l, -m));
    }
  }
}

// ---------------------------------------------------------------- blocks

// Evaluates bands 0..order of one block by the context's algorithm.
struct BasisTiler {
  int order;
  const float* ta;  // null: closed form
  const float* tb;
  TileFn closed;

  BasisTiler(int order_, const float* ta_, const float* tb_)
      : order(order_), ta(ta_), tb(tb_), closed(OrderTile(order_)) {}

  HWY_INLINE void operator()(const float* x, const float* y, const float* z, float* tile) const {
    if (ta) {
      RecurrenceTile(x, y, z, order, ta, tb, tile);
    } else {
      closed(x, y, z, tile);
    }
  }
};

// Directions i..i+count-1 of a block; a short last block is padded with
// zeros so the kernels always see whole vectors (the padding lanes are
// computed and never stored).
struct BlockInput {
  HWY_ALIGN float x[kBlock];
  HWY_ALIGN float y[kBlock];
  HWY_ALIGN float z[kBlock];
  const float* px;
  const float* py;
  const float* pz;

  HWY_INLINE void Point(const float* X, const float* Y, const float* Z, size_t i, size_t count) {
    if (count == kBlock) {
      px = X + i;
      py = Y + i;
      pz = Z + i;
      return;
    }
    for (size_t j = 0; j < kBlock; ++j) {
      x[j] = j < count ? X[i + j] : 0.0f;
      y[j] = j < count ? Y[i + j] : 0.0f;
      z[j] = j < count ? Z[i + j] : 0.0f;
    }
    px = x;
    py = y;
    pz = z;
  }
};

// Writes the first `count` directions of a tile of nv rows as out[j * stride
// + k]. Whole 4 x 4 squares go through registers; the odd last row of an odd
// band count and a short direction group are copied one by one.
HWY_INLINE void TileToRows(const float* HWY_RESTRICT tile, size_t nv, size_t count,
                           float* HWY_RESTRICT out, size_t stride) {
  size_t j = 0;
#if HWY_TARGET != HWY_SCALAR
  if constexpr (kBlock % 4 == 0) {
    const hn::Full128<float> d4;
    const size_t nv4 = nv & ~size_t{3};
    for (; j + 4 <= count; j += 4) {
      float* o0 = out + j * stride;
      float* o1 = o0 + stride;
      float* o2 = o1 + stride;
      float* o3 = o2 + stride;
      size_t k = 0;
      for (; k < nv4; k += 4) {
        const float* t = tile + k * kBlock + j;
        const auto r0 = hn::Load(d4, t);
        const auto r1 = hn::Load(d4, t + kBlock);
        const auto r2 = hn::Load(d4, t + 2 * kBlock);
        const auto r3 = hn::Load(d4, t + 3 * kBlock);
        const auto t0 = hn::InterleaveLower(d4, r0, r1);
        const auto t1 = hn::InterleaveLower(d4, r2, r3);
        const auto t2 = hn::InterleaveUpper(d4, r0, r1);
        const auto t3 = hn::InterleaveUpper(d4, r2, r3);
        hn::StoreU(hn::ConcatLowerLower(d4, t1, t0), d4, o0 + k);
        hn::StoreU(hn::ConcatUpperUpper(d4, t1, t0), d4, o1 + k);
        hn::StoreU(hn::ConcatLowerLower(d4, t3, t2), d4, o2 + k);
        hn::StoreU(hn::ConcatUpperUpper(d4, t3, t2), d4, o3 + k);
      }
      for (; k < nv; ++k) {
        const float* t = tile + k * kBlock + j;
        o0[k] = t[0];
        o1[k] = t[1];
        o2[k] = t[2];
        o3[k] = t[3];
      }
    }
  }
#endif
  for (; j < count; ++j) {
    for (size_t k = 0; k < nv; ++k) out[j * stride + k] = tile[k * kBlock + j];
  }
}

// Large outputs bypass the caches: a block is assembled in L1 and written
// with non-temporal stores, which saves reading every output line before
// overwriting it. Small outputs stay cached for the caller, who is likely
// to read them next.
constexpr size_t kStreamBytes = size_t{4} << 20;

struct BlockWriter {
  float* dst;
  size_t nv;
  bool stream;
  HWY_ALIGN float staged[kMaxValues * kBlock];

  BlockWriter(float* dst_, size_t len, size_t nv_)
      : dst(dst_), nv(nv_), stream(len * nv_ * sizeof(float) >= kStreamBytes) {}

  HWY_INLINE void Write(const float* tile, size_t i, size_t count) {
    float* out = dst + i * nv;
    if (!stream || count != kBlock) {
      TileToRows(tile, nv, count, out, nv);
      return;
    }
    // A whole block is one contiguous run of kBlock * nv floats: whole
    // aligned vectors are streamed, the ends (shared with the neighbouring
    // blocks' lines) stored normally.
    TileToRows(tile, nv, count, staged, nv);
    const size_t n = kBlock * nv;
    const DF df;
    constexpr size_t kVecBytes = kBlock * sizeof(float);
    const size_t misalign = reinterpret_cast<uintptr_t>(out) % kVecBytes;
    size_t head = misalign == 0 ? 0 : (kVecBytes - misalign) / sizeof(float);
    if (misalign % sizeof(float) != 0) head = n;  // not float-aligned: no streaming
    size_t k = 0;
    for (; k < head && k < n; ++k) out[k] = staged[k];
    for (; k + kBlock <= n; k += kBlock) hn::Stream(hn::LoadU(df, staged + k), df, out + k);
    for (; k < n; ++k) out[k] = staged[k];
  }

  ~BlockWriter() {
    if (stream) hwy::FlushStream();
  }
};

// ---------------------------------------------------------------- entries

inline void EvalBasis(const float* x, const float* y, const float* z, size_t len, float* dst,
                      int order, const float* ta, const float* tb) {
  HWY_ALIGN float tile[kMaxValues * kBlock];
  const BasisTiler tiler(order, ta, tb);
  const size_t nv = static_cast<size_t>(valueCount(order));
  BlockWriter writer(dst, len, nv);
  BlockInput in;
  for (size_t i = 0; i < len; i += kBlock) {
    const size_t count = len - i < kBlock ? len - i : kBlock;
    in.Point(x, y, z, i, count);
    tiler(in.px, in.py, in.pz, tile);
    writer.Write(tile, i, count);
  }
}

inline void EvalBand(const float* x, const float* y, const float* z, size_t len, float* dst,
                     int band) {
  HWY_ALIGN float tile[(2 * kMaxBand + 1) * kBlock];
  const TileFn fill = BandTile(band);
  const size_t nv = static_cast<size_t>(2 * band + 1);
  BlockWriter writer(dst, len, nv);
  BlockInput in;
  for (size_t i = 0; i < len; i += kBlock) {
    const size_t count = len - i < kBlock ? len - i : kBlock;
    in.Point(x, y, z, i, count);
    fill(in.px, in.py, in.pz, tile);
    writer.Write(tile, i, count);
  }
}

}  // namespace shk
}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#endif  // VELR_SH_BASIS_INL_H_
