// Per-voxel sampling kernels of remap and warp, written once for both and
// for their planar (two-axis) forms, and compiled for every SIMD target.
//
// A kernel takes a run of destination voxels with their source positions
// (floats read from remap's coordinate volumes, or doubles computed by warp),
// leaves every voxel whose position falls outside the clipped region as it
// was, and interpolates the others. Each kernel has a one-element form, which
// defines the result and handles tails, and a vector form (see "lane blocks"
// below) that computes exactly the same values: the same operations in the
// same order, no fused multiply-add.

#if defined(VELR_VOLUME_SAMPLE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_VOLUME_SAMPLE_INL_H_
#undef VELR_VOLUME_SAMPLE_INL_H_
#else
#define VELR_VOLUME_SAMPLE_INL_H_
#endif

#include <hwy/highway.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "volume/kernels.h"
#include "volume/sample.h"

HWY_BEFORE_NAMESPACE();
namespace velr::vol::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

static_assert(std::endian::native == std::endian::little,
              "adjacent 8- and 16-bit taps are split out of wider words as little-endian lanes");

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
      m = hn::And(m,
                  hn::And(hn::Ge(p[a], hn::Set(df, b.lo[a])), hn::Le(p[a], hn::Set(df, b.hi[a]))));
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
          hi{static_cast<double>(r.xMax), static_cast<double>(r.yMax),
             static_cast<double>(r.zMax)} {}
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
        m = hn::And(
            m, hn::And(hn::Ge(p[a], hn::Set(dd, b.lo[a])), hn::Le(p[a], hn::Set(dd, b.hi[a]))));
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

// A line below index 0 on y or z (reached only by the two-tap step back on a
// region that ends at 0, with weight 0) is not read: its taps count as 0.
template <class T>
HWY_INLINE const T* LineOrNull(const SampleSource<T>& s, int y, int z) {
  return (y < 0 || z < 0) ? nullptr : SourceLine(s, y, z);
}

// Taps x and x + 1 of a line; a tap below index 0 counts as 0 likewise.
template <class T>
HWY_INLINE void PairOfLine(const T* line, int x, T out[2]) {
  out[0] = (line != nullptr && x >= 0) ? line[x] : T(0);
  out[1] = line != nullptr ? line[x + 1] : T(0);
}

// The two-tap cell of an axis: an integer part on the region's last index
// steps back one voxel (fraction 1.0), so the cell stays two voxels wide.
HWY_INLINE int LinearCell(int i, int last) { return i == last ? last - 1 : i; }

// Four-tap indices of an axis: the region's rule (lower clamp at the volume's
// index 0, upper clamp at the region's end), then the volume's last index,
// which only binds on planes too small to have been lowered to fewer taps.
HWY_INLINE void CubicTaps(int i, int last, int extent, int tap[4]) {
  regionCubicTaps(i, last, tap);
  for (int k = 0; k < 4; ++k) tap[k] = tap[k] < extent - 1 ? tap[k] : extent - 1;
}

// Taps i - 1 .. i + 2 need no clamping on this axis.
HWY_INLINE bool CubicInner(int i, int last) { return i >= 1 && i <= last - 2; }

// Nearest copies the voxel's bits (a float is not converted).
template <class T, int kDims>
HWY_INLINE void NearestOne(const SampleSource<T>& s, int x, int y, int z, T* out) {
  std::memcpy(out, SourceLine(s, y, kDims == 3 ? z : 0) + x, sizeof(T));
}

template <class T, int kDims>
HWY_INLINE float LinearOne(const SampleSource<T>& s, const AxisPos pos[3]) {
  const int last[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
  int i[3] = {0, 0, 0};
  float t[3], u[3];
  for (int a = 0; a < kDims; ++a) {
    i[a] = LinearCell(pos[a].i, last[a]);
    t[a] = pos[a].f - static_cast<float>(i[a]);
    u[a] = 1.0f - t[a];
  }
  const auto row = [&](int y, int z) {
    T p[2];
    PairOfLine(LineOrNull(s, y, z), i[0], p);
    return static_cast<float>(p[0]) * u[0] + static_cast<float>(p[1]) * t[0];
  };
  if constexpr (kDims == 2) {
    return row(i[1], 0) * u[1] + row(i[1] + 1, 0) * t[1];
  } else {
    const float b0 = row(i[1], i[2]) * u[1] + row(i[1] + 1, i[2]) * t[1];
    const float b1 = row(i[1], i[2] + 1) * u[1] + row(i[1] + 1, i[2] + 1) * t[1];
    return b0 * u[2] + b1 * t[2];
  }
}

// The separable four-tap sum: dot products along x for each tap line, then
// along y, then along z, each summed from the first tap on.
template <class T, int kDims>
HWY_INLINE float CubicOne(const SampleSource<T>& s, const AxisPos pos[3]) {
  const int last[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
  const int extent[3] = {s.width, s.height, s.depth};
  int tap[3][4] = {};
  float w[3][4];
  for (int a = 0; a < kDims; ++a) {
    CubicTaps(pos[a].i, last[a], extent[a], tap[a]);
    const float t = pos[a].f - static_cast<float>(pos[a].i);
    for (int k = 0; k < 4; ++k)
      w[a][k] = sampledWeight(s.weights, std::fabs(static_cast<float>(k - 1) - t));
  }
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
// ---------------------------------------------------------------- lane blocks
//
// The vector forms work on blocks of one vector of destination voxels. The
// positions, region tests, cells, fractions and weight indices are computed
// in vector form; then a loop over the lanes copies each voxel's taps, a
// whole run of adjacent taps per source line where the cell is inside the
// region (the in-range fast path), tap by tap where the region's tap rule
// clamps (the gather path), into lane-major buffers; then the interpolation
// runs in vector form on the transposed taps. Both paths fill the buffers with
// the same values, so they give the same results. Copying taps with plain
// loads beats hardware gathers, which fetch one element at a time.

inline constexpr size_t kSampleLanes = hn::MaxLanes(SampleDF());

// Per-lane integer parts, line offsets (y * lineStep + x) and region flags
// of a block.
struct SampleLanes {
  HWY_ALIGN int32_t x[kSampleLanes];
  HWY_ALIGN int32_t y[kSampleLanes];
  HWY_ALIGN int32_t z[kSampleLanes];
  HWY_ALIGN int32_t offset[kSampleLanes];
  HWY_ALIGN int32_t active[kSampleLanes];

  template <int kDims, class T>
  HWY_INLINE void Store(const SampleSource<T>& s, const SampleVI i[3], SampleMask m) {
    const SampleDI di;
    hn::Store(i[0], di, x);
    hn::Store(i[1], di, y);
    if constexpr (kDims == 3) {
      hn::Store(i[2], di, z);
    } else {
      hn::Store(hn::Zero(di), di, z);
    }
    const SampleVI step = hn::Set(di, static_cast<int32_t>(s.lineStep));
    hn::Store(hn::Add(hn::Mul(i[1], step), i[0]), di, offset);
    hn::Store(hn::VecFromMask(di, hn::RebindMask(di, m)), di, active);
  }
};

HWY_INLINE SampleVF LowBits(SampleVI w, int32_t mask) {
  return hn::ConvertTo(SampleDF(), hn::And(w, hn::Set(SampleDI(), mask)));
}

// kTaps taps per lane, stored lane after lane (tap-minor), as kTaps vectors
// with one lane per voxel.
template <class T, int kTaps>
HWY_INLINE void LoadLaneTaps(const T* HWY_RESTRICT row, SampleVF v[kTaps]) {
  const SampleDF df;
  const SampleDI di;
  const size_t n = hn::Lanes(df);
  if constexpr (sizeof(T) == 4) {
    const float* f = reinterpret_cast<const float*>(row);
    if constexpr (kTaps == 2) {
      const SampleVF a = hn::LoadU(df, f), b = hn::LoadU(df, f + n);
      v[0] = hn::ConcatEven(df, b, a);
      v[1] = hn::ConcatOdd(df, b, a);
    } else {
      const SampleVF q0 = hn::LoadU(df, f), q1 = hn::LoadU(df, f + n);
      const SampleVF q2 = hn::LoadU(df, f + 2 * n), q3 = hn::LoadU(df, f + 3 * n);
      const SampleVF even01 = hn::ConcatEven(df, q1, q0), odd01 = hn::ConcatOdd(df, q1, q0);
      const SampleVF even23 = hn::ConcatEven(df, q3, q2), odd23 = hn::ConcatOdd(df, q3, q2);
      v[0] = hn::ConcatEven(df, even23, even01);
      v[1] = hn::ConcatEven(df, odd23, odd01);
      v[2] = hn::ConcatOdd(df, even23, even01);
      v[3] = hn::ConcatOdd(df, odd23, odd01);
    }
  } else if constexpr (sizeof(T) == 2) {
    const int32_t* w = reinterpret_cast<const int32_t*>(row);
    if constexpr (kTaps == 2) {
      const SampleVI a = hn::LoadU(di, w);
      v[0] = LowBits(a, 0xFFFF);
      v[1] = LowBits(hn::ShiftRight<16>(a), 0xFFFF);
    } else {
      const SampleVI a = hn::LoadU(di, w), b = hn::LoadU(di, w + n);
      const SampleVI lo = hn::ConcatEven(di, b, a), hi = hn::ConcatOdd(di, b, a);
      v[0] = LowBits(lo, 0xFFFF);
      v[1] = LowBits(hn::ShiftRight<16>(lo), 0xFFFF);
      v[2] = LowBits(hi, 0xFFFF);
      v[3] = LowBits(hn::ShiftRight<16>(hi), 0xFFFF);
    }
  } else {
    if constexpr (kTaps == 2) {
      const hn::Rebind<uint16_t, SampleDI> d16;
      const SampleVI a = hn::BitCast(
          di, hn::PromoteTo(SampleDU(), hn::LoadU(d16, reinterpret_cast<const uint16_t*>(row))));
      v[0] = LowBits(a, 0xFF);
      v[1] = LowBits(hn::ShiftRight<8>(a), 0xFF);
    } else {
      const SampleVI a = hn::LoadU(di, reinterpret_cast<const int32_t*>(row));
      v[0] = LowBits(a, 0xFF);
      v[1] = LowBits(hn::ShiftRight<8>(a), 0xFF);
      v[2] = LowBits(hn::ShiftRight<16>(a), 0xFF);
      v[3] = LowBits(hn::ShiftRight<24>(a), 0xFF);
    }
  }
}

// The two-tap rows (y, y + 1 on planes z, z + 1) of one lane into its slots;
// `stride` is the number of elements of one row buffer. The cell lies inside
// the volume (the vector forms do not run for regions ending at index 0).
template <class T, int kDims>
HWY_INLINE void FetchLinearLane(const SampleSource<T>& s, int z, int32_t offset, T* rows,
                                size_t stride, size_t lane) {
  T* slot = rows + 2 * lane;
  const T* p0 = s.planes[kDims == 3 ? z : 0] + offset;
  std::memcpy(slot, p0, 2 * sizeof(T));
  std::memcpy(slot + stride, p0 + s.lineStep, 2 * sizeof(T));
  if constexpr (kDims == 3) {
    const T* p1 = s.planes[z + 1] + offset;
    std::memcpy(slot + 2 * stride, p1, 2 * sizeof(T));
    std::memcpy(slot + 3 * stride, p1 + s.lineStep, 2 * sizeof(T));
  }
}

// The 4 x 4 (x 4) taps of one lane: a run of four per line inside the region,
// otherwise tap by tap through the region's tap rule.
template <class T, int kDims>
HWY_INLINE void FetchCubicLane(const SampleSource<T>& s, int x, int y, int z, int32_t offset,
                               T* rows, size_t stride, size_t lane) {
  const VelrRemapRegion& r = s.region;
  T* slot = rows + 4 * lane;
  if (CubicInner(x, r.xMax) && CubicInner(y, r.yMax) && (kDims == 2 || CubicInner(z, r.zMax))) {
    const ptrdiff_t first = offset - s.lineStep - 1;  // tap (x - 1, y - 1)
    for (int c = 0; c < (kDims == 3 ? 4 : 1); ++c) {
      const T* line = s.planes[kDims == 3 ? z - 1 + c : 0] + first;
      for (int b = 0; b < 4; ++b, line += s.lineStep, slot += stride)
        std::memcpy(slot, line, 4 * sizeof(T));
    }
  } else {
    int tx[4], ty[4], tz[4] = {0, 0, 0, 0};
    CubicTaps(x, r.xMax, s.width, tx);
    CubicTaps(y, r.yMax, s.height, ty);
    if constexpr (kDims == 3) CubicTaps(z, r.zMax, s.depth, tz);
    for (int c = 0; c < (kDims == 3 ? 4 : 1); ++c)
      for (int b = 0; b < 4; ++b, slot += stride) {
        const T* line = SourceLine(s, ty[b], tz[c]);
        for (int e = 0; e < 4; ++e) slot[e] = line[tx[e]];
      }
  }
}

HWY_INLINE SampleVF Dot4(const SampleVF w[4], const SampleVF v[4]) {
  return hn::Add(hn::Add(hn::Add(hn::Mul(w[0], v[0]), hn::Mul(w[1], v[1])), hn::Mul(w[2], v[2])),
                 hn::Mul(w[3], v[3]));
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
  const SampleDF df;
  const int n = static_cast<int>(hn::Lanes(df));
  SampleLanes lanes;
  for (; s.lineOffsets32 && k + n <= count; k += n) {
    SampleVI i[3];
    const SampleMask m = C::LoadRounded(run, k, b, i);
    if (hn::AllFalse(df, m)) continue;
    lanes.Store<kDims>(s, i, m);
    for (int v = 0; v < n; ++v)
      if (lanes.active[v])
        std::memcpy(dst + k + v, s.planes[lanes.z[v]] + lanes.offset[v], sizeof(T));
  }
#endif
  for (; k < count; ++k) {
    int at[3] = {0, 0, 0};
    if (C::Rounded(run, k, b, at)) NearestOne<T, kDims>(s, at[0], at[1], at[2], dst + k);
  }
}

template <class T, int kDims, class C>
void SampleLinear(const SampleSource<T>& s, const typename C::Run& run, T* HWY_RESTRICT dst,
                  int count) {
  const typename C::Bounds b(s.region);
  int k = 0;
#if HWY_TARGET != HWY_SCALAR
  const SampleDF df;
  const SampleDI di;
  const int n = static_cast<int>(hn::Lanes(df));
  const int lastIndex[3] = {s.region.xMax, s.region.yMax, s.region.zMax};
  constexpr int kRows = kDims == 3 ? 4 : 2;
  constexpr size_t kStride = 2 * kSampleLanes;
  HWY_ALIGN T rows[kRows][kStride];
  SampleLanes lanes;
  // A region that ends at index 0 on some axis reaches index -1 (weight 0),
  // which only the one-element form guards.
  const bool vector = s.lineOffsets32 && lastIndex[0] > 0 && lastIndex[1] > 0 &&
                      (kDims == 2 || lastIndex[2] > 0);
  for (; vector && k + n <= count; k += n) {
    SampleVI i[3];
    SampleVF f[3], t[3], u[3];
    const SampleMask m = C::LoadTruncated(run, k, b, i, f);
    if (hn::AllFalse(df, m)) continue;
    for (int a = 0; a < kDims; ++a) {
      const SampleVI last = hn::Set(di, lastIndex[a]);
      i[a] = hn::IfThenElse(hn::Eq(i[a], last), hn::Sub(last, hn::Set(di, 1)), i[a]);
      t[a] = hn::Sub(f[a], hn::ConvertTo(df, i[a]));
      u[a] = hn::Sub(hn::Set(df, 1.0f), t[a]);
    }
    lanes.Store<kDims>(s, i, m);
    // Lanes outside the region sit on the region's first cell: reading it
    // costs less than a branch per lane.
    for (int v = 0; v < n; ++v)
      FetchLinearLane<T, kDims>(s, lanes.z[v], lanes.offset[v], &rows[0][0], kStride, v);
    SampleVF r[kRows];
    for (int q = 0; q < kRows; ++q) {
      SampleVF p[2];
      LoadLaneTaps<T, 2>(rows[q], p);
      r[q] = hn::Add(hn::Mul(p[0], u[0]), hn::Mul(p[1], t[0]));
    }
    const SampleVF b0 = hn::Add(hn::Mul(r[0], u[1]), hn::Mul(r[1], t[1]));
    SampleVF v = b0;
    if constexpr (kDims == 3) {
      const SampleVF b1 = hn::Add(hn::Mul(r[2], u[1]), hn::Mul(r[3], t[1]));
      v = hn::Add(hn::Mul(b0, u[2]), hn::Mul(b1, t[2]));
    }
    StoreLinear(v, m, dst + k);
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
  const SampleDF df;
  const SampleDI di;
  const int n = static_cast<int>(hn::Lanes(df));
  constexpr int kRows = kDims == 3 ? 16 : 4;
  constexpr int kWeights = 4 * kDims;
  constexpr size_t kStride = 4 * kSampleLanes;
  HWY_ALIGN T rows[kRows][kStride];
  HWY_ALIGN int32_t index[kWeights][kSampleLanes];
  HWY_ALIGN WeightPair pairs[kWeights][kSampleLanes];
  SampleLanes lanes;
  for (; s.lineOffsets32 && k + n <= count; k += n) {
    SampleVI i[3];
    SampleVF f[3];
    const SampleMask m = C::LoadTruncated(run, k, b, i, f);
    if (hn::AllFalse(df, m)) continue;
    // Table positions of the distances |q - t|, q = -1 .. 2, as sampledWeight
    // forms them; the fractions between table entries stay in registers.
    SampleVF frac[3][4];
    for (int a = 0; a < kDims; ++a) {
      const SampleVF t = hn::Sub(f[a], hn::ConvertTo(df, i[a]));
      for (int q = 0; q < 4; ++q) {
        const SampleVF d = hn::Abs(hn::Sub(hn::Set(df, static_cast<float>(q - 1)), t));
        const SampleVF u = hn::Mul(hn::Min(d, hn::Set(df, 2.0f)), hn::Set(df, 100.0f));
        const SampleVI whole = hn::ConvertTo(di, u);
        hn::Store(whole, di, index[a * 4 + q]);
        frac[a][q] = hn::Sub(u, hn::ConvertTo(df, whole));
      }
    }
    lanes.Store<kDims>(s, i, m);
    for (int v = 0; v < n; ++v) {
      for (int j = 0; j < kWeights; ++j) pairs[j][v] = s.pairs[index[j][v]];
      if (lanes.active[v]) {
        FetchCubicLane<T, kDims>(s, lanes.x[v], lanes.y[v], lanes.z[v], lanes.offset[v],
                                 &rows[0][0], kStride, v);
      } else {
        for (int r = 0; r < kRows; ++r)
          for (int e = 0; e < 4; ++e) rows[r][4 * v + e] = T(0);
      }
    }
    SampleVF w[3][4];
    for (int a = 0; a < kDims; ++a)
      for (int q = 0; q < 4; ++q) {
        const float* pair = &pairs[a * 4 + q][0].base;
        const SampleVF lo = hn::Load(df, pair), hi = hn::Load(df, pair + n);
        w[a][q] = hn::Add(hn::ConcatEven(df, hi, lo), hn::Mul(hn::ConcatOdd(df, hi, lo), frac[a][q]));
      }
    SampleVF col[4];
    for (int c = 0; c < (kDims == 3 ? 4 : 1); ++c) {
      SampleVF r[4];
      for (int q = 0; q < 4; ++q) {
        SampleVF taps[4];
        LoadLaneTaps<T, 4>(rows[c * 4 + q], taps);
        r[q] = Dot4(w[0], taps);
      }
      col[c] = Dot4(w[1], r);
    }
    StoreCubic(kDims == 3 ? Dot4(w[2], col) : col[0], m, dst + k);
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
