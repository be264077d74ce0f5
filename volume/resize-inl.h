// Resize kernels, compiled once per SIMD target. The drivers walk the
// destination plane by plane and line by line, keep the intermediate planes
// and x-resampled lines that the next plane or line needs again, and hand
// whole lines to the line kernels. A line kernel runs the coordinates whose
// taps lie inside the volume in vector form and the edges (and the vector
// tail) in the one-element form, which computes exactly the same values.
//
// Neighbouring taps are gathered together: 8- and 16-bit voxels as 32- or
// 64-bit words at their byte offsets, float pairs as 64-bit words, then split
// into lanes. A word may reach past the last tap, which is why the tap tables
// carry a vectorEnd that keeps the last few coordinates on the scalar form.

#if defined(VELR_VOLUME_RESIZE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_VOLUME_RESIZE_INL_H_
#undef VELR_VOLUME_RESIZE_INL_H_
#else
#define VELR_VOLUME_RESIZE_INL_H_
#endif

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#include "volume/common.h"
#include "volume/kernels.h"
#include "volume/resize_job.h"

HWY_BEFORE_NAMESPACE();
namespace velr::vol::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

static_assert(std::endian::native == std::endian::little,
              "the 32-bit fetches of 8- and 16-bit voxels assume little-endian lanes");

using DF = hn::ScalableTag<float>;
using DI = hn::ScalableTag<int32_t>;
using VF = hn::Vec<DF>;
using VI = hn::Vec<DI>;

// ---------------------------------------------------------------- stores

// Float results to voxels: integers are limited to their range first and
// then truncated toward zero, which equals truncating then saturating (and
// sends NaN to 0 on every path).
template <class T>
HWY_INLINE T ToVoxel(float v) {
  if constexpr (sizeof(T) == 4) {
    return v;
  } else {
    constexpr float kMax = sizeof(T) == 1 ? 255.0f : 65535.0f;
    v = v > 0.0f ? v : 0.0f;
    v = v < kMax ? v : kMax;
    return static_cast<T>(static_cast<int>(v));
  }
}

template <class T>
HWY_INLINE void StoreVoxels(VF v, T* HWY_RESTRICT p) {
  const DF df;
  if constexpr (sizeof(T) == 4) {
    hn::StoreU(v, df, p);
  } else {
    const DI di;
    const hn::Rebind<T, DI> dt;
    constexpr float kMax = sizeof(T) == 1 ? 255.0f : 65535.0f;
    v = hn::Min(hn::Max(v, hn::Zero(df)), hn::Set(df, kMax));
    hn::StoreU(hn::DemoteTo(dt, hn::ConvertTo(di, v)), dt, p);
  }
}

// ---------------------------------------------------------------- fetches

template <class T>
HWY_INLINE const int32_t* Words(const T* p) {
  return reinterpret_cast<const int32_t*>(p);
}

// Lane k of `word` as an integer 0 .. 255 (k bytes up).
template <int k>
HWY_INLINE VI ByteLane(VI word) {
  const DI di;
  return hn::And(hn::ShiftRight<8 * k>(word), hn::Set(di, 0xFF));
}
template <int k>
HWY_INLINE VI WordLane(VI word) {
  const DI di;
  return hn::And(hn::ShiftRight<16 * k>(word), hn::Set(di, 0xFFFF));
}

#if HWY_TARGET != HWY_SCALAR
// The 64-bit words at byte offsets `bytes`, one per lane, split into their
// low and high 32-bit halves. Gathers cost per element, so fetching two
// neighbouring voxels as one element halves the cost of the x passes.
HWY_INLINE void GatherPairs(const void* base, VI bytes, VI& low, VI& high) {
  const DI di;
  const hn::Half<DI> dh;
  const hn::Repartition<int64_t, DI> d64;
  const int64_t* p = static_cast<const int64_t*>(base);
  const VI w0 =
      hn::BitCast(di, hn::GatherOffset(d64, p, hn::PromoteTo(d64, hn::LowerHalf(dh, bytes))));
  const VI w1 =
      hn::BitCast(di, hn::GatherOffset(d64, p, hn::PromoteTo(d64, hn::UpperHalf(dh, bytes))));
  low = hn::ConcatEven(di, w1, w0);
  high = hn::ConcatOdd(di, w1, w0);
}
#endif

// Voxels i and i + 1 as floats.
HWY_INLINE void FetchPair(const float* src, VI i, VF& a, VF& b) {
  const DF df;
#if HWY_TARGET != HWY_SCALAR
  VI low, high;
  GatherPairs(src, hn::ShiftLeft<2>(i), low, high);
  a = hn::BitCast(df, low);
  b = hn::BitCast(df, high);
#else
  a = hn::GatherIndex(df, src, i);
  b = hn::GatherIndex(df, src + 1, i);
#endif
}
HWY_INLINE void FetchPair(const uint16_t* src, VI i, VF& a, VF& b) {
  const DF df;
  const DI di;
  const VI w = hn::GatherOffset(di, Words(src), hn::Add(i, i));
  a = hn::ConvertTo(df, WordLane<0>(w));
  b = hn::ConvertTo(df, WordLane<1>(w));
}

// Voxels i - 1 .. i + 2 as floats.
HWY_INLINE void FetchFour(const float* src, VI i, VF p[4]) {
  const DF df;
  const DI di;
  const VI before = hn::Sub(i, hn::Set(di, 1));
#if HWY_TARGET != HWY_SCALAR
  VI w[4];
  GatherPairs(src, hn::ShiftLeft<2>(before), w[0], w[1]);
  GatherPairs(src, hn::ShiftLeft<2>(hn::Add(i, hn::Set(di, 1))), w[2], w[3]);
  for (int k = 0; k < 4; ++k) p[k] = hn::BitCast(df, w[k]);
#else
  p[0] = hn::GatherIndex(df, src, before);
  p[1] = hn::GatherIndex(df, src, i);
  p[2] = hn::GatherIndex(df, src + 1, i);
  p[3] = hn::GatherIndex(df, src + 2, i);
#endif
}
HWY_INLINE void FetchFour(const uint16_t* src, VI i, VF p[4]) {
  const DF df;
  const DI di;
  const VI before = hn::Add(hn::Sub(i, hn::Set(di, 1)), hn::Sub(i, hn::Set(di, 1)));
  VI lo, hi;
#if HWY_TARGET != HWY_SCALAR
  GatherPairs(src, before, lo, hi);
#else
  lo = hn::GatherOffset(di, Words(src), before);
  hi = hn::GatherOffset(di, Words(src), hn::Add(before, hn::Set(di, 4)));
#endif
  p[0] = hn::ConvertTo(df, WordLane<0>(lo));
  p[1] = hn::ConvertTo(df, WordLane<1>(lo));
  p[2] = hn::ConvertTo(df, WordLane<0>(hi));
  p[3] = hn::ConvertTo(df, WordLane<1>(hi));
}
HWY_INLINE void FetchFour(const uint8_t* src, VI i, VF p[4]) {
  const DF df;
  const DI di;
  const VI w = hn::GatherOffset(di, Words(src), hn::Sub(i, hn::Set(di, 1)));
  p[0] = hn::ConvertTo(df, ByteLane<0>(w));
  p[1] = hn::ConvertTo(df, ByteLane<1>(w));
  p[2] = hn::ConvertTo(df, ByteLane<2>(w));
  p[3] = hn::ConvertTo(df, ByteLane<3>(w));
}

// The four-tap sum in its one order: pairs first, then the two pairs.
HWY_INLINE VF Sum4(const VF w[4], const VF p[4]) {
  return hn::Add(hn::Add(hn::Mul(w[0], p[0]), hn::Mul(w[1], p[1])),
                 hn::Add(hn::Mul(w[2], p[2]), hn::Mul(w[3], p[3])));
}
HWY_INLINE float Sum4(const float w[4], const float p[4]) {
  return (w[0] * p[0] + w[1] * p[1]) + (w[2] * p[2] + w[3] * p[3]);
}

// Asks for the part of a source line that the x taps read. Each source
// line is fetched by gathers only once in a downscale, and gathers leave the
// hardware prefetchers untrained, so the driver asks for the line it will
// need two lines ahead.
template <class T>
HWY_INLINE void PrefetchTaps(const T* line, const AxisTaps& tx) {
  if (tx.count < 1) return;
  const char* p = reinterpret_cast<const char*>(line + clampIndex(tx.index[0] - 1, tx.extent));
  const char* end =
      reinterpret_cast<const char*>(line + clampIndex(tx.index[tx.count - 1] + 2, tx.extent));
  for (; p <= end; p += 64) hwy::Prefetch(p);
}

// ---------------------------------------------------------------- x passes

// Nearest: a copy of voxel index[x] (bits, for floats).
template <class T>
void NearestLine(const T* HWY_RESTRICT src, const AxisTaps& tx, T* HWY_RESTRICT out) {
  const DI di;
  const int n = tx.count;
  const int lanes = static_cast<int>(hn::Lanes(di));
  int x = 0;
  for (; x + lanes <= tx.vectorEnd; x += lanes) {
    const VI i = hn::LoadU(di, tx.index + x);
    if constexpr (sizeof(T) == 4) {
      hn::StoreU(hn::GatherIndex(di, Words(src), i), di, reinterpret_cast<int32_t*>(out) + x);
    } else {
      const hn::Rebind<T, DI> dt;
      const VI w = hn::GatherOffset(di, Words(src), sizeof(T) == 2 ? hn::Add(i, i) : i);
      const VI v = sizeof(T) == 2 ? WordLane<0>(w) : ByteLane<0>(w);
      hn::StoreU(hn::DemoteTo(dt, v), dt, out + x);
    }
  }
  for (; x < n; ++x) out[x] = src[tx.index[x]];
}

// Linear, float paths: a + (b - a) * t; the edges copy their edge voxel.
template <class T>
void LinearLine(const T* HWY_RESTRICT src, const AxisTaps& tx, float* HWY_RESTRICT out) {
  const DF df;
  const DI di;
  const int n = tx.count, last = tx.extent - 1;
  const int lanes = static_cast<int>(hn::Lanes(df));
  auto one = [&](int x) {
    const int i = tx.index[x];
    if (i < 0 || i >= last) {
      out[x] = static_cast<float>(src[clampIndex(i, tx.extent)]);
    } else {
      const float a = src[i], b = src[i + 1];
      out[x] = a + (b - a) * tx.frac[x];
    }
  };
  int x = 0;
  for (; x < tx.innerBegin; ++x) one(x);
  for (; x + lanes <= tx.vectorEnd; x += lanes) {
    VF a, b;
    FetchPair(src, hn::LoadU(di, tx.index + x), a, b);
    hn::StoreU(hn::Add(a, hn::Mul(hn::Sub(b, a), hn::LoadU(df, tx.frac + x))), df, out + x);
  }
  for (; x < n; ++x) one(x);
}

// Linear, 8-bit path, first step: (a w0 + b w1 + 128) >> 8 with 6 fractional
// bits kept, saturated to 16 bits. Clamped taps make the edges exact copies
// (a * 64).
HWY_INLINE int32_t Linear8One(const uint8_t* src, const AxisTaps& tx, int x, int round, int shift) {
  const int i = tx.index[x];
  const int32_t a = src[clampIndex(i, tx.extent)], b = src[clampIndex(i + 1, tx.extent)];
  const int32_t w0 = static_cast<int32_t>(tx.fixed[x] & 0xFFFF);
  const int32_t w1 = static_cast<int32_t>(tx.fixed[x] >> 16);
  return (a * w0 + b * w1 + round) >> shift;
}

template <int kShift, class TOut>
void Linear8Line(const uint8_t* HWY_RESTRICT src, const AxisTaps& tx, TOut* HWY_RESTRICT out) {
  const DI di;
  const hn::Rebind<TOut, DI> dout;
  constexpr int32_t kRound = 1 << (kShift - 1);
  const int n = tx.count;
  const int lanes = static_cast<int>(hn::Lanes(di));
  auto one = [&](int x) {
    int32_t r = Linear8One(src, tx, x, kRound, kShift);
    if constexpr (sizeof(TOut) == 2) r = r > 32767 ? 32767 : r;  // cannot trigger, kept exact
    out[x] = static_cast<TOut>(r);
  };
  int x = 0;
  for (; x < tx.innerBegin; ++x) one(x);
  const VI round = hn::Set(di, kRound);
  const VI low16 = hn::Set(di, 0xFFFF);
  for (; x + lanes <= tx.vectorEnd; x += lanes) {
    const VI w = hn::GatherOffset(di, Words(src), hn::LoadU(di, tx.index + x));
    const VI wt = hn::LoadU(di, reinterpret_cast<const int32_t*>(tx.fixed) + x);
    const VI sum = hn::Add(hn::Add(hn::Mul(ByteLane<0>(w), hn::And(wt, low16)),
                                   hn::Mul(ByteLane<1>(w), hn::ShiftRight<16>(wt))),
                           round);
    hn::StoreU(hn::DemoteTo(dout, hn::ShiftRight<kShift>(sum)), dout, out + x);
  }
  for (; x < n; ++x) one(x);
}

// Four-tap codes: every tap clamped into the volume at the edges.
template <class T>
void CubicLine(const T* HWY_RESTRICT src, const AxisTaps& tx, float* HWY_RESTRICT out) {
  const DF df;
  const DI di;
  const int n = tx.count;
  const int lanes = static_cast<int>(hn::Lanes(df));
  auto one = [&](int x) {
    const int i = tx.index[x];
    float p[4], w[4];
    for (int k = 0; k < 4; ++k) {
      p[k] = static_cast<float>(src[clampIndex(i - 1 + k, tx.extent)]);
      w[k] = tx.weight[k][x];
    }
    out[x] = Sum4(w, p);
  };
  int x = 0;
  for (; x < tx.innerBegin; ++x) one(x);
  for (; x + lanes <= tx.vectorEnd; x += lanes) {
    VF p[4];
    FetchFour(src, hn::LoadU(di, tx.index + x), p);
    const VF w[4] = {hn::LoadU(df, tx.weight[0] + x), hn::LoadU(df, tx.weight[1] + x),
                     hn::LoadU(df, tx.weight[2] + x), hn::LoadU(df, tx.weight[3] + x)};
    hn::StoreU(Sum4(w, p), df, out + x);
  }
  for (; x < n; ++x) one(x);
}

// ---------------------------------------------------------------- row passes (y and z)

template <class T>
void LerpRows(const float* HWY_RESTRICT r0, const float* HWY_RESTRICT r1, float t, int n,
              T* HWY_RESTRICT out) {
  const DF df;
  const int lanes = static_cast<int>(hn::Lanes(df));
  const VF vt = hn::Set(df, t);
  int x = 0;
  for (; x + lanes <= n; x += lanes) {
    const VF a = hn::LoadU(df, r0 + x);
    StoreVoxels(hn::Add(a, hn::Mul(hn::Sub(hn::LoadU(df, r1 + x), a), vt)), out + x);
  }
  for (; x < n; ++x) out[x] = ToVoxel<T>(r0[x] + (r1[x] - r0[x]) * t);
}

template <class T>
void ConvertRow(const float* HWY_RESTRICT r, int n, T* HWY_RESTRICT out) {
  if constexpr (sizeof(T) == 4) {
    std::memcpy(out, r, static_cast<size_t>(n) * sizeof(float));
  } else {
    const DF df;
    const int lanes = static_cast<int>(hn::Lanes(df));
    int x = 0;
    for (; x + lanes <= n; x += lanes) StoreVoxels(hn::LoadU(df, r + x), out + x);
    for (; x < n; ++x) out[x] = ToVoxel<T>(r[x]);
  }
}

template <class T>
void Cubic4Rows(const float* const r[4], const float w[4], int n, T* HWY_RESTRICT out) {
  const DF df;
  const int lanes = static_cast<int>(hn::Lanes(df));
  const VF vw[4] = {hn::Set(df, w[0]), hn::Set(df, w[1]), hn::Set(df, w[2]), hn::Set(df, w[3])};
  int x = 0;
  for (; x + lanes <= n; x += lanes) {
    const VF p[4] = {hn::LoadU(df, r[0] + x), hn::LoadU(df, r[1] + x), hn::LoadU(df, r[2] + x),
                     hn::LoadU(df, r[3] + x)};
    StoreVoxels(Sum4(vw, p), out + x);
  }
  for (; x < n; ++x) {
    const float p[4] = {r[0][x], r[1][x], r[2][x], r[3][x]};
    out[x] = ToVoxel<T>(Sum4(w, p));
  }
}

// Two 16-bit rows with 6 fractional bits blended with 14-bit weights:
// (r0 w0 + r1 w1 + round) >> kShift. kShift 14 keeps 6 fractional bits (an
// intermediate plane line); kShift 20 gives the voxel, saturated to 0..255.
template <int kShift, class TOut>
void Blend16Rows(const int16_t* HWY_RESTRICT r0, const int16_t* HWY_RESTRICT r1, uint32_t fixed,
                 int n, TOut* HWY_RESTRICT out) {
  const DI di;
  const hn::Rebind<int16_t, DI> d16;
  const hn::Rebind<TOut, DI> dout;
  constexpr int32_t kRound = 1 << (kShift - 1);
  const int32_t w0 = static_cast<int32_t>(fixed & 0xFFFF), w1 = static_cast<int32_t>(fixed >> 16);
  const int lanes = static_cast<int>(hn::Lanes(di));
  const VI vw0 = hn::Set(di, w0), vw1 = hn::Set(di, w1), round = hn::Set(di, kRound);
  int x = 0;
  for (; x + lanes <= n; x += lanes) {
    const VI a = hn::PromoteTo(di, hn::LoadU(d16, r0 + x));
    const VI b = hn::PromoteTo(di, hn::LoadU(d16, r1 + x));
    const VI sum = hn::Add(hn::Add(hn::Mul(a, vw0), hn::Mul(b, vw1)), round);
    hn::StoreU(hn::DemoteTo(dout, hn::ShiftRight<kShift>(sum)), dout, out + x);
  }
  for (; x < n; ++x) {
    int32_t v = (r0[x] * w0 + r1[x] * w1 + kRound) >> kShift;
    if constexpr (sizeof(TOut) == 1) v = v < 0 ? 0 : (v > 255 ? 255 : v);
    out[x] = static_cast<TOut>(v);
  }
}

// ---------------------------------------------------------------- streamed rows

// A destination far larger than the caches is not read back soon, and
// ordinary stores would first read every destination line into the cache
// only to overwrite it. Such calls produce each row in a cache-resident row
// buffer and stream it out from there with non-temporal stores.
HWY_INLINE void StreamBytes(const uint8_t* HWY_RESTRICT src, uint8_t* HWY_RESTRICT dst,
                            size_t bytes) {
  const hn::ScalableTag<uint8_t> d8;
  const size_t lanes = hn::Lanes(d8);
  size_t head = (lanes - reinterpret_cast<uintptr_t>(dst) % lanes) % lanes;
  if (head > bytes) head = bytes;
  std::memcpy(dst, src, head);
  size_t k = head;
  for (; k + lanes <= bytes; k += lanes) hn::Stream(hn::LoadU(d8, src + k), d8, dst + k);
  std::memcpy(dst + k, src + k, bytes - k);
}

template <class T, class Produce>
HWY_INLINE void WriteRow(const ResizeJob& j, T* HWY_RESTRICT dst, const Produce& produce) {
  if (!j.streamRows) {
    produce(dst);
    return;
  }
  T* row = static_cast<T*>(j.row);
  produce(row);
  StreamBytes(reinterpret_cast<const uint8_t*>(row), reinterpret_cast<uint8_t*>(dst),
              static_cast<size_t>(j.x.count) * sizeof(T));
}

// Makes the streamed rows of a job globally ordered before it returns.
HWY_INLINE void FinishRows(const ResizeJob& j) {
  if (j.streamRows) hwy::FlushStream();
}

// ---------------------------------------------------------------- drivers

// A few cached lines or planes, keyed by their (clamped) source index.
template <int K>
class SlotRing {
 public:
  SlotRing() { clear(); }
  void clear() {
    for (int& k : key_) k = INT_MIN;
  }
  // The slot holding `k`; when none does, a slot whose key is not among
  // keep[0 .. nKeep) is given to `k` and *fresh is set.
  int acquire(int k, const int* keep, int nKeep, bool* fresh) {
    for (int s = 0; s < K; ++s)
      if (key_[s] == k) {
        *fresh = false;
        return s;
      }
    for (int s = 0; s < K; ++s) {
      bool kept = false;
      for (int j = 0; j < nKeep; ++j) kept |= key_[s] == keep[j];
      if (!kept) {
        key_[s] = k;
        *fresh = true;
        return s;
      }
    }
    *fresh = true;  // not reached: callers keep fewer keys than slots
    key_[0] = k;
    return 0;
  }

 private:
  int key_[K];
};

template <class T>
struct Volumes {
  VolumeRef<const T> src;
  VolumeRef<T> dst;
  explicit Volumes(const ResizeJob& j) {
    src.base = static_cast<const T*>(j.srcBase);
    src.planes = reinterpret_cast<const T* const*>(j.srcPlanes);
    src.lineStep = j.srcLineStep;
    src.planeStep = j.srcPlaneStep;
    dst.base = static_cast<T*>(j.dstBase);
    dst.planes = reinterpret_cast<T* const*>(j.dstPlanes);
    dst.lineStep = j.dstLineStep;
    dst.planeStep = j.dstPlaneStep;
  }
};

template <class T>
HWY_INLINE T* DstRow(const ResizeJob& j, const VolumeRef<T>& dst, int y, int z) {
  return dst.line(j.dy + y, j.dz + z) + j.dx;
}

// Copies destination plane z - 1 into plane z (both already addressed
// through the destination's own steps).
template <class T>
void RepeatPlane(const ResizeJob& j, const VolumeRef<T>& dst, int z) {
  for (int y = 0; y < j.y.count; ++y)
    std::memmove(DstRow(j, dst, y, z), DstRow(j, dst, y, z - 1),
                 static_cast<size_t>(j.x.count) * sizeof(T));
}

template <class T>
void RunNearest(const ResizeJob& j) {
  const Volumes<T> v(j);
  const int nx = j.x.count, ny = j.y.count;
  int prevZ = INT_MIN;
  for (int z = j.zFirst; z < j.zFirst + j.zCount; ++z) {
    const int iz = j.z.index[z];
    if (iz == prevZ) {
      RepeatPlane(j, v.dst, z);
      continue;
    }
    prevZ = iz;
    int prevY = INT_MIN;
    for (int y = 0; y < ny; ++y) {
      const int iy = j.y.index[y];
      T* out = DstRow(j, v.dst, y, z);
      if (iy == prevY) {
        std::memmove(out, DstRow(j, v.dst, y - 1, z), static_cast<size_t>(nx) * sizeof(T));
        continue;
      }
      prevY = iy;
      NearestLine(v.src.line(iy, iz), j.x, out);
      if (y + 2 < ny) PrefetchTaps(v.src.line(j.y.index[y + 2], iz), j.x);
    }
  }
}

HWY_INLINE bool LinearEdge(int i, int extent) { return i < 0 || i >= extent - 1; }

// Linear, 16- and 32-bit voxels: float intermediates, difference form.
template <class T>
class LinearFloat {
 public:
  explicit LinearFloat(const ResizeJob& j) : j_(j), v_(j) {}

  void run() {
    const int nx = j_.x.count, ny = j_.y.count, depth = j_.srcDepth;
    for (int z = j_.zFirst; z < j_.zFirst + j_.zCount; ++z) {
      const int iz = j_.z.index[z];
      if (LinearEdge(iz, depth)) {
        const int key = clampIndex(iz, depth);
        const float* p = plane(key, &key, 1);
        for (int y = 0; y < ny; ++y)
          WriteRow(j_, DstRow(j_, v_.dst, y, z),
                   [&](T* out) { ConvertRow(p + y * j_.planeStride, nx, out); });
      } else {
        const int keep[2] = {iz, iz + 1};
        const float* p0 = plane(iz, keep, 2);
        const float* p1 = plane(iz + 1, keep, 2);
        const float t = j_.z.frac[z];
        for (int y = 0; y < ny; ++y) {
          const ptrdiff_t o = y * j_.planeStride;
          WriteRow(j_, DstRow(j_, v_.dst, y, z),
                   [&](T* out) { LerpRows(p0 + o, p1 + o, t, nx, out); });
        }
      }
    }
  }

 private:
  const float* plane(int iz, const int* keep, int nKeep) {
    bool fresh;
    const int s = planes_.acquire(iz, keep, nKeep, &fresh);
    float* p = static_cast<float*>(j_.planes[s]);
    if (fresh) fill(iz, p);
    return p;
  }

  void fill(int iz, float* plane) {
    const int ny = j_.y.count, nx = j_.x.count, height = j_.srcHeight;
    lines_.clear();
    for (int y = 0; y < ny; ++y) {
      const int iy = j_.y.index[y];
      float* row = plane + y * j_.planeStride;
      if (LinearEdge(iy, height)) {
        LinearLine(v_.src.line(clampIndex(iy, height), iz), j_.x, row);
      } else {
        const int keep[2] = {iy, iy + 1};
        const float* a = line(iy, iz, keep);
        const float* b = line(iy + 1, iz, keep);
        LerpRows(a, b, j_.y.frac[y], nx, row);
      }
    }
  }

  const float* line(int iy, int iz, const int* keep) {
    bool fresh;
    const int s = lines_.acquire(iy, keep, 2, &fresh);
    float* l = static_cast<float*>(j_.lines[s]);
    if (fresh) {
      LinearLine(v_.src.line(iy, iz), j_.x, l);
      if (iy + 2 < j_.srcHeight) PrefetchTaps(v_.src.line(iy + 2, iz), j_.x);
    }
    return l;
  }

  const ResizeJob& j_;
  const Volumes<T> v_;
  SlotRing<2> planes_;
  SlotRing<2> lines_;
};

// Linear, 8-bit voxels: 14-bit fixed point. Intermediate lines and planes
// hold 16-bit values with 6 fractional bits. Destination planes whose source
// plane is an edge plane are two-dimensional interpolations of that plane,
// rounded once at the end; their lines whose source line is an edge line
// interpolate x alone in one step.
class Linear8 {
 public:
  explicit Linear8(const ResizeJob& j) : j_(j), v_(j) {}

  void run() {
    const int nx = j_.x.count, ny = j_.y.count, depth = j_.srcDepth;
    int prevEdge = INT_MIN;
    for (int z = j_.zFirst; z < j_.zFirst + j_.zCount; ++z) {
      const int iz = j_.z.index[z];
      if (LinearEdge(iz, depth)) {
        const int key = clampIndex(iz, depth);
        if (key == prevEdge) {
          RepeatPlane(j_, v_.dst, z);
          continue;
        }
        prevEdge = key;
        edgePlane(key, z);
        continue;
      }
      prevEdge = INT_MIN;
      const int keep[2] = {iz, iz + 1};
      const int16_t* p0 = plane(iz, keep);
      const int16_t* p1 = plane(iz + 1, keep);
      for (int y = 0; y < ny; ++y) {
        const ptrdiff_t o = y * j_.planeStride;
        WriteRow(j_, DstRow(j_, v_.dst, y, z),
                 [&](uint8_t* out) { Blend16Rows<20>(p0 + o, p1 + o, j_.z.fixed[z], nx, out); });
      }
    }
  }

 private:
  void edgePlane(int iz, int z) {
    const int ny = j_.y.count, nx = j_.x.count, height = j_.srcHeight;
    lines_.clear();
    for (int y = 0; y < ny; ++y) {
      const int iy = j_.y.index[y];
      uint8_t* out = DstRow(j_, v_.dst, y, z);
      if (LinearEdge(iy, height)) {
        Linear8Line<14>(v_.src.line(clampIndex(iy, height), iz), j_.x, out);
      } else {
        const int keep[2] = {iy, iy + 1};
        const int16_t* a = line(iy, iz, keep);
        const int16_t* b = line(iy + 1, iz, keep);
        Blend16Rows<20>(a, b, j_.y.fixed[y], nx, out);
      }
    }
  }

  const int16_t* plane(int iz, const int* keep) {
    bool fresh;
    const int s = planes_.acquire(iz, keep, 2, &fresh);
    int16_t* p = static_cast<int16_t*>(j_.planes[s]);
    if (fresh) fill(iz, p);
    return p;
  }

  void fill(int iz, int16_t* plane) {
    const int ny = j_.y.count, nx = j_.x.count, height = j_.srcHeight;
    lines_.clear();
    for (int y = 0; y < ny; ++y) {
      const int iy = j_.y.index[y];
      int16_t* row = plane + y * j_.planeStride;
      if (LinearEdge(iy, height)) {
        Linear8Line<8>(v_.src.line(clampIndex(iy, height), iz), j_.x, row);
      } else {
        const int keep[2] = {iy, iy + 1};
        const int16_t* a = line(iy, iz, keep);
        const int16_t* b = line(iy + 1, iz, keep);
        Blend16Rows<14>(a, b, j_.y.fixed[y], nx, row);
      }
    }
  }

  const int16_t* line(int iy, int iz, const int* keep) {
    bool fresh;
    const int s = lines_.acquire(iy, keep, 2, &fresh);
    int16_t* l = static_cast<int16_t*>(j_.lines[s]);
    if (fresh) {
      Linear8Line<8>(v_.src.line(iy, iz), j_.x, l);
      if (iy + 2 < j_.srcHeight) PrefetchTaps(v_.src.line(iy + 2, iz), j_.x);
    }
    return l;
  }

  const ResizeJob& j_;
  const Volumes<uint8_t> v_;
  SlotRing<2> planes_;
  SlotRing<2> lines_;
};

// Four-tap codes: x, then y into intermediate float planes, then z as
// (w0 p0 + w1 p1) + (w2 p2 + w3 p3).
template <class T>
class Cubic {
 public:
  explicit Cubic(const ResizeJob& j) : j_(j), v_(j) {}

  void run() {
    const int nx = j_.x.count, ny = j_.y.count, depth = j_.srcDepth;
    for (int z = j_.zFirst; z < j_.zFirst + j_.zCount; ++z) {
      const int iz = j_.z.index[z];
      int keys[4];
      for (int k = 0; k < 4; ++k) keys[k] = clampIndex(iz - 1 + k, depth);
      const float* p[4];
      for (int k = 0; k < 4; ++k) p[k] = plane(keys[k], keys);
      const float w[4] = {j_.z.weight[0][z], j_.z.weight[1][z], j_.z.weight[2][z],
                          j_.z.weight[3][z]};
      for (int y = 0; y < ny; ++y) {
        const ptrdiff_t o = y * j_.planeStride;
        const float* rows[4] = {p[0] + o, p[1] + o, p[2] + o, p[3] + o};
        WriteRow(j_, DstRow(j_, v_.dst, y, z), [&](T* out) { Cubic4Rows(rows, w, nx, out); });
      }
    }
  }

 private:
  const float* plane(int iz, const int* keep) {
    bool fresh;
    const int s = planes_.acquire(iz, keep, 4, &fresh);
    float* p = static_cast<float*>(j_.planes[s]);
    if (fresh) fill(iz, p);
    return p;
  }

  void fill(int iz, float* plane) {
    const int ny = j_.y.count, nx = j_.x.count, height = j_.srcHeight;
    lines_.clear();
    for (int y = 0; y < ny; ++y) {
      const int iy = j_.y.index[y];
      int keys[4];
      for (int k = 0; k < 4; ++k) keys[k] = clampIndex(iy - 1 + k, height);
      const float* rows[4];
      for (int k = 0; k < 4; ++k) {
        bool fresh;
        const int s = lines_.acquire(keys[k], keys, 4, &fresh);
        float* l = static_cast<float*>(j_.lines[s]);
        if (fresh) {
          CubicLine(v_.src.line(keys[k], iz), j_.x, l);
          if (keys[k] + 2 < height) PrefetchTaps(v_.src.line(keys[k] + 2, iz), j_.x);
        }
        rows[k] = l;
      }
      const float w[4] = {j_.y.weight[0][y], j_.y.weight[1][y], j_.y.weight[2][y],
                          j_.y.weight[3][y]};
      Cubic4Rows(rows, w, nx, plane + y * j_.planeStride);
    }
  }

  const ResizeJob& j_;
  const Volumes<T> v_;
  SlotRing<4> planes_;
  SlotRing<4> lines_;
};

template <class T>
void RunTyped(const ResizeJob& j) {
  if (j.code == VELR_INTER_NEAREST) {
    RunNearest<T>(j);
  } else if (j.code == VELR_INTER_LINEAR) {
    if constexpr (sizeof(T) == 1)
      Linear8(j).run();
    else
      LinearFloat<T>(j).run();
  } else {
    Cubic<T>(j).run();
  }
}

// The per-target entry: one call per job, the code and type chosen once.
void RunResize(const ResizeJob& j) {
  if (j.elemSize == 1)
    RunTyped<uint8_t>(j);
  else if (j.elemSize == 2)
    RunTyped<uint16_t>(j);
  else
    RunTyped<float>(j);
  FinishRows(j);
}

}  // namespace velr::vol::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // include guard
