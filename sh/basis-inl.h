// Per-target kernels of the spherical-harmonic basis.
//
// A block of kBlock directions (one float vector) is evaluated into a
// value-major tile: row k holds basis value k of every direction of the
// block, so each basis function is computed once per vector of directions
// with no shuffling. The tile is then transposed, in 8 x 8 or 4 x 4
// squares, into the caller's direction-major layout. Every lane computes exactly what a
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
    float* row = rows + static_cast<size_t>(kBase + k) * kBlock;
#if HWY_TARGET == HWY_SCALAR
    // The scalar target's demotion saturates at the largest float; the
    // conversion instructions of the vector targets (and the C++ cast) give
    // infinity, which is what a far-from-unit direction must produce.
    *row = static_cast<float>(hn::GetLane(v));
#else
    const hn::Rebind<float, DD> dh;
    hn::Store(hn::DemoteTo(dh, v), dh, row);
#endif
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

#if HWY_TARGET != HWY_SCALAR
// Tile rows k..k+3 of directions j..j+3 to out[(j + i) * stride + k + r].
HWY_INLINE void Transpose4(const float* HWY_RESTRICT tile, size_t k, size_t j,
                           float* HWY_RESTRICT out, size_t stride) {
  const hn::Full128<float> d;
  const float* t = tile + k * kBlock + j;
  float* o = out + j * stride + k;
  const auto r0 = hn::Load(d, t);
  const auto r1 = hn::Load(d, t + kBlock);
  const auto r2 = hn::Load(d, t + 2 * kBlock);
  const auto r3 = hn::Load(d, t + 3 * kBlock);
  const auto t0 = hn::InterleaveLower(d, r0, r1);
  const auto t1 = hn::InterleaveLower(d, r2, r3);
  const auto t2 = hn::InterleaveUpper(d, r0, r1);
  const auto t3 = hn::InterleaveUpper(d, r2, r3);
  hn::StoreU(hn::ConcatLowerLower(d, t1, t0), d, o);
  hn::StoreU(hn::ConcatUpperUpper(d, t1, t0), d, o + stride);
  hn::StoreU(hn::ConcatLowerLower(d, t3, t2), d, o + 2 * stride);
  hn::StoreU(hn::ConcatUpperUpper(d, t3, t2), d, o + 3 * stride);
}

#if HWY_TARGET <= HWY_AVX2
// The same for 8 x 8, in 256-bit vectors: 24 shuffles per 64 floats
// instead of 32, and half the loads and stores.
HWY_INLINE void Transpose8(const float* HWY_RESTRICT tile, size_t k, size_t j,
                           float* HWY_RESTRICT out, size_t stride) {
  const hn::CappedTag<float, 8> d;
  const hn::Repartition<double, decltype(d)> d64;
  const float* t = tile + k * kBlock + j;
  float* o = out + j * stride + k;
  using V = hn::Vec<decltype(d)>;
  V r[8];
  for (size_t i = 0; i < 8; ++i) r[i] = hn::Load(d, t + i * kBlock);
  // Within each 128-bit half: pairs of rows interleaved, then pairs of pairs.
  V p[8];
  for (size_t i = 0; i < 4; ++i) {
    p[2 * i] = hn::InterleaveLower(d, r[2 * i], r[2 * i + 1]);
    p[2 * i + 1] = hn::InterleaveUpper(d, r[2 * i], r[2 * i + 1]);
  }
  V q[8];  // q[4h + c]: rows 4h..4h+3 of columns c (low half) and c + 4 (high half)
  for (size_t h = 0; h < 2; ++h) {
    const auto a = hn::BitCast(d64, p[4 * h]), b = hn::BitCast(d64, p[4 * h + 2]);
    const auto e = hn::BitCast(d64, p[4 * h + 1]), f = hn::BitCast(d64, p[4 * h + 3]);
    q[4 * h + 0] = hn::BitCast(d, hn::InterleaveLower(d64, a, b));
    q[4 * h + 1] = hn::BitCast(d, hn::InterleaveUpper(d64, a, b));
    q[4 * h + 2] = hn::BitCast(d, hn::InterleaveLower(d64, e, f));
    q[4 * h + 3] = hn::BitCast(d, hn::InterleaveUpper(d64, e, f));
  }
  for (size_t c = 0; c < 4; ++c) {
    hn::StoreU(hn::ConcatLowerLower(d, q[4 + c], q[c]), d, o + c * stride);
    hn::StoreU(hn::ConcatUpperUpper(d, q[4 + c], q[c]), d, o + (c + 4) * stride);
  }
}
#endif
#endif

// Writes the first `count` directions of a tile of nv rows as out[j * stride
// + k]. Whole squares go through registers; the odd last row of an odd band
// count and a short direction group are copied one by one.
HWY_INLINE void TileToRows(const float* HWY_RESTRICT tile, size_t nv, size_t count,
                           float* HWY_RESTRICT out, size_t stride) {
  size_t j = 0;
#if HWY_TARGET != HWY_SCALAR
#if HWY_TARGET <= HWY_AVX2
  for (; j + 8 <= count; j += 8) {
    size_t k = 0;
    for (; k + 8 <= nv; k += 8) Transpose8(tile, k, j, out, stride);
    for (; k + 4 <= nv; k += 4) {
      Transpose4(tile, k, j, out, stride);
      Transpose4(tile, k, j + 4, out, stride);
    }
    for (; k < nv; ++k) {
      for (size_t i = j; i < j + 8; ++i) out[i * stride + k] = tile[k * kBlock + i];
    }
  }
#endif
  if constexpr (kBlock % 4 == 0) {
    for (; j + 4 <= count; j += 4) {
      size_t k = 0;
      for (; k + 4 <= nv; k += 4) Transpose4(tile, k, j, out, stride);
      for (; k < nv; ++k) {
        for (size_t i = j; i < j + 4; ++i) out[i * stride + k] = tile[k * kBlock + i];
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
