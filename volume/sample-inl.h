// Per-voxel sampling kernels of remap and warp, written once for both and
// for their planar (two-axis) forms, and compiled for every SIMD target.
//
// A kernel takes a run of destination voxels with their source positions
// (floats read from remap's coordinate volumes, or doubles computed by warp),
// leaves every voxel whose position falls outside the clipped region as it
// was, and interpolates the others. Each kernel has a one-element form, which
// defines the result and handles tails, and a vector form that gathers the
// taps through 32-bit byte offsets and computes exactly the same values: the
// same operations in the same order, no fused multiply-add.

#if defined(VELR_VOLUME_SAMPLE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_VOLUME_SAMPLE_INL_H_
#undef VELR_VOLUME_SAMPLE_INL_H_
#else
#define VELR_VOLUME_SAMPLE_INL_H_
#endif

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <hwy/highway.h>

#include "volume/kernels.h"
#include "volume/sample.h"

HWY_BEFORE_NAMESPACE();
namespace velr::vol::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

static_assert(std::endian::native == std::endian::little,
              "8- and 16-bit taps are split out of 32-bit words as little-endian lanes");

// The kernels of the codes: nearest, the two-tap (bi/trilinear) and the
// four-tap kernels, which share one form and differ only by weight table.
enum SampleKind { kSampleNearest = 1, kSampleLinear = 2, kSampleCubic = 4 };

// Per-axis integer part and float position of one voxel's source position.
struct AxisPos {
  int i;
  float f;
};

using SampleDF = hn::ScalableTag<float>;
using SampleDI = hn::RebindToSigned<SampleDF>;
using SampleDU = hn::RebindToUnsigned<SampleDF>;
using SampleVF = hn::Vec<SampleDF>;
using SampleVI = hn::Vec<SampleDI>;
using SampleMask = hn::Mask<SampleDF>;

// ---------------------------------------------------------------- positions

// Remap: positions are floats, tested against the region bounds converted to
// float, truncated for the interpolating kernels and rounded for nearest:
// half to even on volumes, half up (trunc(p + 0.5)) on planar calls.
template <int kDims, bool kHalfUp>
struct MapCoords {
  using Run = FloatRun;
  struct Bounds {
    float lo[3];
    float hi[3];
    explicit Bounds(const VelrRemapRegion& r)
        : lo{static_cast<float>(r.xMin), static_cast<float>(r.yMin), static_cast<float>(r.zMin)},
          hi{static_cast<float>(r.xMax), static_cast<float>(r.yMax), static_cast<float>(r.zMax)} {}
  };

  // Written as "inside" tests so that a NaN position counts as outside and
  // never reaches an integer conversion.
  static HWY_INLINE bool Inside(const Run& run, int k, const Bounds& b, float p[3]) {
    p[0] = run.x[k];
    p[1] = run.y[k];
    if constexpr (kDims == 3) p[2] = run.z[k];
    for (int a = 0; a < kDims; ++a)
      if (!(p[a] >= b.lo[a] && p[a] <= b.hi[a])) return false;
    return true;
  }
  static HWY_INLINE bool Truncated(const Run& run, int k, const Bounds& b, AxisPos out[3]) {
    float p[3];
    if (!Inside(run, k, b, p)) return false;
    for (int a = 0; a < kDims; ++a) out[a] = {static_cast<int>(p[a]), p[a]};
    return true;
  }
  static HWY_INLINE bool Rounded(const Run& run, int k, const Bounds& b, int out[3]) {
    float p[3];
    if (!Inside(run, k, b, p)) return false;
    for (int a = 0; a < kDims; ++a)
      out[a] = kHalfUp ? static_cast<int>(p[a] + 0.5f) : static_cast<int>(std::nearbyint(p[a]));
    return true;
  }

#if HWY_TARGET != HWY_SCALAR
  // Vector forms: lanes outside the region get the region's first position,
  // so that their (discarded) taps are valid reads.
  static HWY_INLINE SampleMask LoadInside(const Run& run, int k, const Bounds& b, SampleVF p[3]) {
    const SampleDF df;
    p[0] = hn::LoadU(df, run.x + k);
    p[1] = hn::LoadU(df, run.y + k);
    if constexpr (kDims == 3) p[2] = hn::LoadU(df, run.z + k);
    SampleMask m = hn::And(hn::Ge(p[0], hn::Set(df, b.lo[0])), hn::Le(p[0], hn::Set(df, b.hi[0])));
    for (int a = 1; a < kDims; ++a)
      m = hn::And(m, hn::And(hn::Ge(p[a], hn::Set(df, b.lo[a])), hn::Le(p[a], hn::Set(df, b.hi[a]))));
    for (int a = 0; a < kDims; ++a) p[a] = hn::IfThenElse(m, p[a], hn::Set(df, b.lo[a]));
    return m;
  }
  static HWY_INLINE SampleMask LoadTruncated(const Run& run, int k, const Bounds& b, SampleVI i[3],
                                             SampleVF f[3]) {
    const SampleDI di;
    const SampleMask m = LoadInside(run, k, b, f);
    for (int a = 0; a < kDims; ++a) i[a] = hn::ConvertTo(di, f[a]);
    return m;
  }
  static HWY_INLINE SampleMask LoadRounded(const Run& run, int k, const Bounds& b, SampleVI i[3]) {
    const SampleDF df;
    const SampleDI di;
    SampleVF p[3];
    const SampleMask m = LoadInside(run, k, b, p);
    for (int a = 0; a < kDims; ++a)
      i[a] = kHalfUp ? hn::ConvertTo(di, hn::Add(p[a], hn::Set(df, 0.5f))) : hn::NearestInt(p[a]);
    return m;
  }
#endif
};

// Warp: positions are doubles, tested against double bounds; integer parts
// are truncations (or half-to-even roundings) of the doubles and the float
// positions their roundings to float.
template <int kDims>
struct AffineCoords {
  using Run = DoubleRun;
  struct Bounds {
    double lo[3];
    double hi[3];
    explicit Bounds(const VelrRemapRegion& r)
        : lo{static_cast<double>(r.xMin), static_cast<double>(r.yMin), static_cast<double>(r.zMin)},
          hi{static_cast<double>(r.xMax), static_cast<double>(r.yMax), static_cast<double>(r.zMax)} {}
  };

  static HWY_INLINE bool Inside(const Run& run, int k, const Bounds& b, double p[3]) {
    p[0] = run.x[k];
    p[1] = run.y[k];
    if constexpr (kDims == 3) p[2] = run.z[k];
    for (int a = 0; a < kDims; ++a)
      if (!(p[a] >= b.lo[a] && p[a] <= b.hi[a])) return false;
    return true;
  }
  static HWY_INLINE bool Truncated(const Run& run, int k, const Bounds& b, AxisPos out[3]) {
    double p[3];
    if (!Inside(run, k, b, p)) return false;
    for (int a = 0; a < kDims; ++a) out[a] = {static_cast<int>(p[a]), static_cast<float>(p[a])};
    return true;
  }
  static HWY_INLINE bool Rounded(const Run& run, int k, const Bounds& b, int out[3]) {
    double p[3];
    if (!Inside(run, k, b, p)) return false;
    for (int a = 0; a < kDims; ++a) out[a] = static_cast<int>(std::nearbyint(p[a]));
    return true;
  }

#if HWY_TARGET != HWY_SCALAR
  // The doubles of one float vector are two double vectors; each half is
  // tested and converted on its own and the halves are joined.
  template <bool kRound>
  static HWY_INLINE SampleMask Load(const Run& run, int k, const Bounds& b, SampleVI i[3],
                                    SampleVF f[3]) {
    const SampleDF df;
    const SampleDI di;
    const hn::Half<SampleDF> dh;
    const hn::Half<SampleDI> dih;
    const hn::Repartition<double, SampleDF> dd;
    const size_t nh = hn::Lanes(dd);
    const double* src[3] = {run.x, run.y, run.z};
    hn::Vec<decltype(dih)> ih[2][3];
    hn::Vec<decltype(dh)> fh[2][3];
    hn::Vec<decltype(dh)> inside[2];
    for (int h = 0; h < 2; ++h) {
      hn::Vec<decltype(dd)> p[3];
      for (int a = 0; a < kDims; ++a) p[a] = hn::LoadU(dd, src[a] + k + h * nh);
      auto m = hn::And(hn::Ge(p[0], hn::Set(dd, b.lo[0])), hn::Le(p[0], hn::Set(dd, b.hi[0])));
      for (int a = 1; a < kDims; ++a)
        m = hn::And(m,
                    hn::And(hn::Ge(p[a], hn::Set(dd, b.lo[a])), hn::Le(p[a], hn::Set(dd, b.hi[a]))));
      for (int a = 0; a < kDims; ++a) {
        p[a] = hn::IfThenElse(m, p[a], hn::Set(dd, b.lo[a]));
        ih[h][a] = hn::DemoteTo(dih, kRound ? hn::Round(p[a]) : p[a]);
        fh[h][a] = hn::DemoteTo(dh, p[a]);
      }
      inside[h] = hn::DemoteTo(dh, hn::IfThenElseZero(m, hn::Set(dd, 1.0)));
    }
    for (int a = 0; a < kDims; ++a) {
      i[a] = hn::Combine(di, ih[1][a], ih[0][a]);
      f[a] = hn::Combine(df, fh[1][a], fh[0][a]);
    }
    return hn::Gt(hn::Combine(df, inside[1], inside[0]), hn::Zero(df));
  }
  static HWY_INLINE SampleMask LoadTruncated(const Run& run, int k, const Bounds& b, SampleVI i[3],
                                             SampleVF f[3]) {
    return Load<false>(run, k, b, i, f);
  }
  static HWY_INLINE SampleMask LoadRounded(const Run& run, int k, const Bounds& b, SampleVI i[3]) {
    SampleVF f[3];
    return Load<true>(run, k, b, i, f);
  }
#endif
};

// ---------------------------------------------------------------- one element

template <class T>
HWY_INLINE const T* SourceLine(const SampleSource<T>& s, int y, int z) {
  return s.planes[z] + static_cast<ptrdiff_t>(y) * s.lineStep;
}

// Nearest copies the voxel's bits (a float is not converted).
template <class T, int kDims>
HWY_INLINE void NearestOne(const SampleSource<T>& s, const int at[3], T* out) {
  std::memcpy(out, SourceLine(s, at[1], kDims == 3 ? at[2] : 0) + at[0], sizeof(T));
}

// Two taps per axis. An integer part on the region's last index steps back
// one voxel (fraction 1.0), so the cell stays two voxels wide; on a region
// that ends at index 0 the step reaches index -1, whose taps weigh 0 and are
// taken as 0 instead of being read from outside the volume.
template <class T, int kDims>
HWY_INLINE float LinearOne(const SampleSource<T>& s, const AxisPos pos[3]) {
  const int last[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
  int i[3];
  float t[3], u[3];
  for (int a = 0; a < kDims; ++a) {
    i[a] = pos[a].i == last[a] ? last[a] - 1 : pos[a].i;
    t[a] = pos[a].f - static_cast<float>(i[a]);
    u[a] = 1.0f - t[a];
  }
  const auto row = [&](int y, int z) {
    const T* line = (y < 0 || z < 0) ? nullptr : SourceLine(s, y, z);
    const float s0 = (line != nullptr && i[0] >= 0) ? static_cast<float>(line[i[0]]) : 0.0f;
    const float s1 = line != nullptr ? static_cast<float>(line[i[0] + 1]) : 0.0f;
    return s0 * u[0] + s1 * t[0];
  };
  if constexpr (kDims == 2) {
    return row(i[1], 0) * u[1] + row(i[1] + 1, 0) * t[1];
  } else {
    const float b0 = row(i[1], i[2]) * u[1] + row(i[1] + 1, i[2]) * t[1];
    const float b1 = row(i[1], i[2] + 1) * u[1] + row(i[1] + 1, i[2] + 1) * t[1];
    return b0 * u[2] + b1 * t[2];
  }
}

// Four taps per axis: the region's tap rule (lower clamp at the volume's
// index 0, upper clamp at the region's end), then the volume's last index,
// which only binds on planes too small to have been lowered to fewer taps.
// Weights come from the sampled table at the distances |k - t|.
HWY_INLINE void CubicAxisOne(const float* table, AxisPos p, int last, int extent, int tap[4],
                             float w[4]) {
  regionCubicTaps(p.i, last, tap);
  for (int k = 0; k < 4; ++k) tap[k] = tap[k] < extent - 1 ? tap[k] : extent - 1;
  const float t = p.f - static_cast<float>(p.i);
  for (int k = 0; k < 4; ++k) w[k] = sampledWeight(table, std::fabs(static_cast<float>(k - 1) - t));
}

template <class T, int kDims>
HWY_INLINE float CubicOne(const SampleSource<T>& s, const AxisPos pos[3]) {
  const int last[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
  const int extent[3] = {s.width, s.height, s.depth};
  int tap[3][4];
  float w[3][4];
  for (int a = 0; a < kDims; ++a) CubicAxisOne(s.weights, pos[a], last[a], extent[a], tap[a], w[a]);
  const auto column = [&](int z) {
    float r[4];
    for (int b = 0; b < 4; ++b) {
      const T* line = SourceLine(s, tap[1][b], z);
      r[b] = ((w[0][0] * static_cast<float>(line[tap[0][0]]) +
               w[0][1] * static_cast<float>(line[tap[0][1]])) +
              w[0][2] * static_cast<float>(line[tap[0][2]])) +
             w[0][3] * static_cast<float>(line[tap[0][3]]);
    }
    return ((w[1][0] * r[0] + w[1][1] * r[1]) + w[1][2] * r[2]) + w[1][3] * r[3];
  };
  if constexpr (kDims == 2) {
    return column(0);
  } else {
    float c[4];
    for (int k = 0; k < 4; ++k) c[k] = column(tap[2][k]);
    return ((w[2][0] * c[0] + w[2][1] * c[1]) + w[2][2] * c[2]) + w[2][3] * c[3];
  }
}

// Two-tap results round half to even (the processor's default rounding) and
// keep the low bits: a convex combination of voxels cannot leave the range.
template <class T>
HWY_INLINE T LinearToVoxel(float v) {
  if constexpr (sizeof(T) == 4) {
    return v;
  } else {
    return static_cast<T>(static_cast<int>(std::nearbyint(v)));
  }
}

// Four-tap results overshoot, so integers are limited to their range; the
// offset is added in double and the sum truncated toward zero.
template <class T>
HWY_INLINE T CubicToVoxel(float v) {
  if constexpr (sizeof(T) == 4) {
    return v;
  } else {
    constexpr double kMax = sizeof(T) == 1 ? 255.0 : 65535.0;
    double d = static_cast<double>(v) + kCubicRoundOffset;
    d = d < 0.0 ? 0.0 : d;
    d = d > kMax ? kMax : d;
    return static_cast<T>(static_cast<int>(d));
  }
}

#if HWY_TARGET != HWY_SCALAR
// ---------------------------------------------------------------- vector taps

// The byte offset of a line: its plane's offset plus y lines.
template <class T, int kDims>
HWY_INLINE SampleVI LineOffset(const SampleSource<T>& s, SampleVI y, SampleVI plane) {
  const SampleDI di;
  const SampleVI lines = hn::Mul(y, hn::Set(di, s.lineBytes));
  return kDims == 3 ? hn::Add(plane, lines) : lines;
}

template <class T>
HWY_INLINE SampleVI Words(const SampleSource<T>& s, SampleVI offsets) {
  return hn::GatherOffset(SampleDI(), reinterpret_cast<const int32_t*>(s.base), offsets);
}

// Bits `shift` and up of each 32-bit word, unsigned.
HWY_INLINE SampleVI WordShift(SampleVI w, SampleVI shift) {
  const SampleDU du;
  return hn::BitCast(SampleDI(), hn::Shr(hn::BitCast(du, w), hn::BitCast(du, shift)));
}

HWY_INLINE SampleVF LowBits(SampleVI w, int32_t mask) {
  return hn::ConvertTo(SampleDF(), hn::And(w, hn::Set(SampleDI(), mask)));
}

// One tap per lane at voxel index x. 8- and 16-bit voxels come from a 32-bit
// word that starts early enough to end inside the line, shifted down.
template <class T>
struct OneTap {
  SampleVI offset;  // bytes from the line start to the word or float
  SampleVI shift;   // bits to drop from the word
};

template <class T>
HWY_INLINE OneTap<T> PrepareOneTap(const SampleSource<T>& s, SampleVI x) {
  const SampleDI di;
  if constexpr (sizeof(T) == 4) {
    return {hn::ShiftLeft<2>(x), hn::Zero(di)};
  } else {
    const SampleVI p = hn::Min(x, hn::Set(di, s.width - (sizeof(T) == 1 ? 4 : 2)));
    const SampleVI bytes = sizeof(T) == 1 ? p : hn::ShiftLeft<1>(p);
    const SampleVI shift = hn::ShiftLeft<sizeof(T) == 1 ? 3 : 4>(hn::Sub(x, p));
    return {bytes, shift};
  }
}

template <class T>
HWY_INLINE SampleVI OneTapBits(const SampleSource<T>& s, SampleVI line, const OneTap<T>& x) {
  const SampleVI w = Words(s, hn::Add(line, x.offset));
  if constexpr (sizeof(T) == 4) {
    return w;
  } else {
    return hn::And(WordShift(w, x.shift), hn::Set(SampleDI(), sizeof(T) == 1 ? 0xFF : 0xFFFF));
  }
}

template <class T>
HWY_INLINE SampleVF OneTapValue(const SampleSource<T>& s, SampleVI line, const OneTap<T>& x) {
  if constexpr (sizeof(T) == 4) {
    return hn::GatherOffset(SampleDF(), reinterpret_cast<const float*>(s.base),
                            hn::Add(line, x.offset));
  } else {
    return hn::ConvertTo(SampleDF(), OneTapBits(s, line, x));
  }
}

// Two adjacent taps x, x + 1 per lane.
template <class T>
HWY_INLINE OneTap<T> PreparePair(const SampleSource<T>& s, SampleVI x) {
  const SampleDI di;
  if constexpr (sizeof(T) == 1) {
    return PrepareOneTap<T>(s, x);  // word at min(x, width - 4): both bytes inside
  } else {
    (void)s;
    return {hn::ShiftLeft<sizeof(T) == 4 ? 2 : 1>(x), hn::Zero(di)};
  }
}

template <class T>
HWY_INLINE void PairValues(const SampleSource<T>& s, SampleVI line, const OneTap<T>& x,
                           SampleVF& s0, SampleVF& s1) {
  const SampleDF df;
  const SampleVI at = hn::Add(line, x.offset);
  if constexpr (sizeof(T) == 4) {
    const float* base = reinterpret_cast<const float*>(s.base);
    s0 = hn::GatherOffset(df, base, at);
    s1 = hn::GatherOffset(df, base, hn::Add(at, hn::Set(SampleDI(), 4)));
  } else if constexpr (sizeof(T) == 2) {
    const SampleVI w = Words(s, at);
    s0 = LowBits(w, 0xFFFF);
    s1 = LowBits(hn::ShiftRight<16>(w), 0xFFFF);
  } else {
    const SampleVI w = WordShift(Words(s, at), x.shift);
    s0 = LowBits(w, 0xFF);
    s1 = LowBits(hn::ShiftRight<8>(w), 0xFF);
  }
}

// Four adjacent taps x .. x + 3 per lane, all inside the line.
template <class T>
HWY_INLINE void FourValues(const SampleSource<T>& s, SampleVI line, SampleVI xBytes,
                           SampleVF v[4]) {
  const SampleDI di;
  const SampleVI at = hn::Add(line, xBytes);
  if constexpr (sizeof(T) == 4) {
    const float* base = reinterpret_cast<const float*>(s.base);
    for (int k = 0; k < 4; ++k)
      v[k] = hn::GatherOffset(SampleDF(), base, hn::Add(at, hn::Set(di, 4 * k)));
  } else if constexpr (sizeof(T) == 2) {
    const SampleVI w0 = Words(s, at);
    const SampleVI w1 = Words(s, hn::Add(at, hn::Set(di, 4)));
    v[0] = LowBits(w0, 0xFFFF);
    v[1] = LowBits(hn::ShiftRight<16>(w0), 0xFFFF);
    v[2] = LowBits(w1, 0xFFFF);
    v[3] = LowBits(hn::ShiftRight<16>(w1), 0xFFFF);
  } else {
    const SampleVI w = Words(s, at);
    v[0] = LowBits(w, 0xFF);
    v[1] = LowBits(hn::ShiftRight<8>(w), 0xFF);
    v[2] = LowBits(hn::ShiftRight<16>(w), 0xFF);
    v[3] = LowBits(hn::ShiftRight<24>(w), 0xFF);
  }
}

HWY_INLINE SampleVF Dot4(const SampleVF w[4], const SampleVF v[4]) {
  return hn::Add(hn::Add(hn::Add(hn::Mul(w[0], v[0]), hn::Mul(w[1], v[1])), hn::Mul(w[2], v[2])),
                 hn::Mul(w[3], v[3]));
}

// sampledWeight() per lane.
HWY_INLINE SampleVF SampledWeights(const float* table, SampleVF d) {
  const SampleDF df;
  const SampleDI di;
  const SampleVF u = hn::Mul(hn::Min(d, hn::Set(df, 2.0f)), hn::Set(df, 100.0f));
  const SampleVI n = hn::ConvertTo(di, u);
  const SampleVF t0 = hn::GatherIndex(df, table, n);
  const SampleVF t1 = hn::GatherIndex(df, table + 1, n);
  return hn::Add(t0, hn::Mul(hn::Sub(t1, t0), hn::Sub(u, hn::ConvertTo(df, n))));
}

// ---------------------------------------------------------------- vector stores

// Integer lanes already in the voxel range, stored where `m` is set.
template <class T>
HWY_INLINE void StoreInts(SampleVI v, SampleMask m, T* HWY_RESTRICT p) {
  const SampleDI di;
  const hn::Rebind<T, SampleDI> dt;
  if (!hn::AllTrue(SampleDF(), m)) {
    v = hn::IfThenElse(hn::RebindMask(di, m), v, hn::PromoteTo(di, hn::LoadU(dt, p)));
  }
  hn::StoreU(hn::DemoteTo(dt, v), dt, p);
}

template <class T>
HWY_INLINE void StoreBits(SampleVI bits, SampleMask m, T* HWY_RESTRICT p) {
  if constexpr (sizeof(T) == 4) {
    const SampleDF df;
    hn::BlendedStore(hn::BitCast(df, bits), m, df, reinterpret_cast<float*>(p));
  } else {
    StoreInts(bits, m, p);
  }
}

template <class T>
HWY_INLINE void StoreLinear(SampleVF v, SampleMask m, T* HWY_RESTRICT p) {
  if constexpr (sizeof(T) == 4) {
    hn::BlendedStore(v, m, SampleDF(), p);
  } else {
    StoreInts(hn::NearestInt(v), m, p);
  }
}

template <class T>
HWY_INLINE void StoreCubic(SampleVF v, SampleMask m, T* HWY_RESTRICT p) {
  if constexpr (sizeof(T) == 4) {
    hn::BlendedStore(v, m, SampleDF(), p);
  } else {
    const SampleDI di;
    const hn::Half<SampleDF> dh;
    const hn::Half<SampleDI> dih;
    const hn::Repartition<double, SampleDF> dd;
    const auto offset = hn::Set(dd, kCubicRoundOffset);
    const auto lo = hn::Zero(dd);
    const auto hi = hn::Set(dd, sizeof(T) == 1 ? 255.0 : 65535.0);
    const auto convert = [&](hn::Vec<decltype(dh)> half) {
      const auto d = hn::Add(hn::PromoteTo(dd, half), offset);
      return hn::DemoteTo(dih, hn::Min(hn::Max(d, lo), hi));
    };
    StoreInts(hn::Combine(di, convert(hn::UpperHalf(dh, v)), convert(hn::LowerHalf(dh, v))), m, p);
  }
}
#endif  // HWY_TARGET != HWY_SCALAR

// ---------------------------------------------------------------- kernels

template <class T, int kDims, class C>
void SampleNearest(const SampleSource<T>& s, const typename C::Run& run, T* HWY_RESTRICT dst,
                   int count) {
  const typename C::Bounds b(s.region);
  int k = 0;
#if HWY_TARGET != HWY_SCALAR
  if (s.base != nullptr) {
    const SampleDI di;
    const int n = static_cast<int>(hn::Lanes(di));
    for (; k + n <= count; k += n) {
      SampleVI i[3];
      const SampleMask m = C::LoadRounded(run, k, b, i);
      if (hn::AllFalse(SampleDF(), m)) continue;
      const SampleVI plane =
          kDims == 3 ? hn::GatherIndex(di, s.planeOffsets, i[2]) : hn::Zero(di);
      const SampleVI line = LineOffset<T, kDims>(s, i[1], plane);
      StoreBits(OneTapBits(s, line, PrepareOneTap<T>(s, i[0])), m, dst + k);
    }
  }
#endif
  for (; k < count; ++k) {
    int at[3];
    if (C::Rounded(run, k, b, at)) NearestOne<T, kDims>(s, at, dst + k);
  }
}

template <class T, int kDims, class C>
void SampleLinear(const SampleSource<T>& s, const typename C::Run& run, T* HWY_RESTRICT dst,
                  int count) {
  const typename C::Bounds b(s.region);
  int k = 0;
#if HWY_TARGET != HWY_SCALAR
  if (s.base != nullptr) {
    const SampleDF df;
    const SampleDI di;
    const int n = static_cast<int>(hn::Lanes(di));
    const int lastIndex[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
    const SampleVF one = hn::Set(df, 1.0f);
    const SampleVI oneI = hn::Set(di, 1);
    for (; k + n <= count; k += n) {
      SampleVI i[3];
      SampleVF f[3], t[3], u[3];
      const SampleMask m = C::LoadTruncated(run, k, b, i, f);
      if (hn::AllFalse(df, m)) continue;
      for (int a = 0; a < kDims; ++a) {
        const SampleVI last = hn::Set(di, lastIndex[a]);
        i[a] = hn::IfThenElse(hn::Eq(i[a], last), hn::Sub(last, oneI), i[a]);
        t[a] = hn::Sub(f[a], hn::ConvertTo(df, i[a]));
        u[a] = hn::Sub(one, t[a]);
      }
      const OneTap<T> x = PreparePair<T>(s, i[0]);
      const auto row = [&](SampleVI line) {
        SampleVF s0, s1;
        PairValues(s, line, x, s0, s1);
        return hn::Add(hn::Mul(s0, u[0]), hn::Mul(s1, t[0]));
      };
      const SampleVI step = hn::Set(di, s.lineBytes);
      SampleVF v;
      if constexpr (kDims == 2) {
        const SampleVI line = LineOffset<T, 2>(s, i[1], hn::Zero(di));
        v = hn::Add(hn::Mul(row(line), u[1]), hn::Mul(row(hn::Add(line, step)), t[1]));
      } else {
        const SampleVI p0 = hn::GatherIndex(di, s.planeOffsets, i[2]);
        const SampleVI p1 = hn::GatherIndex(di, s.planeOffsets, hn::Add(i[2], oneI));
        const SampleVI l0 = LineOffset<T, 3>(s, i[1], p0);
        const SampleVI l1 = LineOffset<T, 3>(s, i[1], p1);
        const SampleVF b0 = hn::Add(hn::Mul(row(l0), u[1]), hn::Mul(row(hn::Add(l0, step)), t[1]));
        const SampleVF b1 = hn::Add(hn::Mul(row(l1), u[1]), hn::Mul(row(hn::Add(l1, step)), t[1]));
        v = hn::Add(hn::Mul(b0, u[2]), hn::Mul(b1, t[2]));
      }
      StoreLinear(v, m, dst + k);
    }
  }
#endif
  for (; k < count; ++k) {
    AxisPos p[3];
    if (C::Truncated(run, k, b, p)) dst[k] = LinearToVoxel<T>(LinearOne<T, kDims>(s, p));
  }
}

template <class T, int kDims, class C>
void SampleCubic(const SampleSource<T>& s, const typename C::Run& run, T* HWY_RESTRICT dst,
                 int count) {
  const typename C::Bounds b(s.region);
  int k = 0;
#if HWY_TARGET != HWY_SCALAR
  if (s.base != nullptr) {
    const SampleDF df;
    const SampleDI di;
    const int n = static_cast<int>(hn::Lanes(di));
    const int lastIndex[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
    const int extent[3] = {s.width, s.height, s.depth};
    for (; k + n <= count; k += n) {
      SampleVI i[3];
      SampleVF f[3];
      const SampleMask m = C::LoadTruncated(run, k, b, i, f);
      if (hn::AllFalse(df, m)) continue;
      SampleVF w[3][4];
      // Lanes inside the region whose taps need the rule of the region's
      // edges on some axis; lanes outside never force the clamped path.
      auto clamped = hn::FirstN(di, 0);
      for (int a = 0; a < kDims; ++a) {
        const SampleVF t = hn::Sub(f[a], hn::ConvertTo(df, i[a]));
        for (int q = 0; q < 4; ++q) {
          const SampleVF d = hn::Abs(hn::Sub(hn::Set(df, static_cast<float>(q - 1)), t));
          w[a][q] = SampledWeights(s.weights, d);
        }
        const SampleVI beforeLast = hn::Set(di, lastIndex[a] - 1);
        clamped = hn::Or(clamped,
                         hn::Not(hn::And(hn::Gt(i[a], hn::Zero(di)), hn::Lt(i[a], beforeLast))));
      }
      SampleVF col[4];
      const int zTaps = kDims == 3 ? 4 : 1;
      if (hn::AllFalse(di, hn::And(hn::RebindMask(di, m), clamped))) {
        // Every tap in range: taps i - 1 .. i + 2 on every axis. Lanes
        // outside the region are moved onto valid cells.
        for (int a = 0; a < kDims; ++a)
          i[a] = hn::Min(hn::Max(i[a], hn::Set(di, 1)), hn::Set(di, lastIndex[a] - 2));
        const SampleVI xBytes = hn::Mul(hn::Sub(i[0], hn::Set(di, 1)), hn::Set(di, static_cast<int32_t>(sizeof(T))));
        for (int c = 0; c < zTaps; ++c) {
          const SampleVI plane = kDims == 3 ? hn::GatherIndex(di, s.planeOffsets,
                                                              hn::Add(i[2], hn::Set(di, c - 1)))
                                            : hn::Zero(di);
          SampleVF r[4];
          for (int q = 0; q < 4; ++q) {
            const SampleVI line = LineOffset<T, kDims>(s, hn::Add(i[1], hn::Set(di, q - 1)), plane);
            SampleVF v[4];
            FourValues(s, line, xBytes, v);
            r[q] = Dot4(w[0], v);
          }
          col[c] = Dot4(w[1], r);
        }
      } else {
        // The tap rule per lane: i <= 0 takes 0, 0, 1, 2; otherwise i - 1 ..
        // i + 2 limited to the region's last index; then to the extent.
        SampleVI taps[3][4];
        for (int a = 0; a < kDims; ++a) {
          const SampleVI last = hn::Set(di, lastIndex[a]);
          const SampleVI end = hn::Set(di, extent[a] - 1);
          const auto atStart = hn::Lt(i[a], hn::Set(di, 1));
          for (int q = 0; q < 4; ++q) {
            const SampleVI general = hn::Min(hn::Add(i[a], hn::Set(di, q - 1)), last);
            const SampleVI first = hn::Set(di, q < 2 ? 0 : q - 1);
            taps[a][q] = hn::Min(hn::IfThenElse(atStart, first, general), end);
          }
        }
        OneTap<T> x[4];
        for (int q = 0; q < 4; ++q) x[q] = PrepareOneTap<T>(s, taps[0][q]);
        for (int c = 0; c < zTaps; ++c) {
          const SampleVI plane =
              kDims == 3 ? hn::GatherIndex(di, s.planeOffsets, taps[2][c]) : hn::Zero(di);
          SampleVF r[4];
          for (int q = 0; q < 4; ++q) {
            const SampleVI line = LineOffset<T, kDims>(s, taps[1][q], plane);
            SampleVF v[4];
            for (int e = 0; e < 4; ++e) v[e] = OneTapValue(s, line, x[e]);
            r[q] = Dot4(w[0], v);
          }
          col[c] = Dot4(w[1], r);
        }
      }
      StoreCubic(kDims == 3 ? Dot4(w[2], col) : col[0], m, dst + k);
    }
  }
#endif
  for (; k < count; ++k) {
    AxisPos p[3];
    if (C::Truncated(run, k, b, p)) dst[k] = CubicToVoxel<T>(CubicOne<T, kDims>(s, p));
  }
}

// One entry point per kernel kind, so that the walkers of remap and warp are
// templated on the kind only.
template <int kKind, class T, int kDims, class C>
HWY_INLINE void SampleRun(const SampleSource<T>& s, const typename C::Run& run, T* HWY_RESTRICT dst,
                          int count) {
  if constexpr (kKind == kSampleNearest) {
    SampleNearest<T, kDims, C>(s, run, dst, count);
  } else if constexpr (kKind == kSampleLinear) {
    SampleLinear<T, kDims, C>(s, run, dst, count);
  } else {
    SampleCubic<T, kDims, C>(s, run, dst, count);
  }
}

}  // namespace velr::vol::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // include guard
