// SIMD kernels of the 3-D convolution, compiled once per target.
//
// Integer paths. A vector of 16-bit source values seen as 32-bit lanes holds
// pairs (s[2q], s[2q + 1]); multiplying it pairwise by a coefficient pair and
// adding the halves gives, in lane q, two taps of output 2q. The same load
// shifted by one voxel gives the two taps of output 2q + 1. Every pair of
// taps therefore costs two plain loads and two pairwise multiply-adds, with
// no shuffles, and the outputs come out as an even and an odd vector that
// interleave into natural order by a shift and an or.
//
// Every result equals the one-voxel form in filter.h; where a line does not
// fill a whole vector, the last vector is shifted back to end at the line's
// end and recomputes a few voxels with identical values.

#if defined(VELR_VOLUME_FILTER_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_VOLUME_FILTER_INL_H_
#undef VELR_VOLUME_FILTER_INL_H_
#else
#define VELR_VOLUME_FILTER_INL_H_
#endif

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <type_traits>

#include "volume/filter.h"

HWY_BEFORE_NAMESPACE();
namespace velr {
namespace HWY_NAMESPACE {
namespace filter_impl {

namespace hn = hwy::HWY_NAMESPACE;
using filter::DivisorClass;
using filter::Job;
using filter::Path;
using filter::Scaling;

#if HWY_TARGET != HWY_SCALAR

// Widest and 16-output descriptors of the integer paths (32-bit lanes; each
// covers twice its lane count of outputs). The integer paths require lines
// of at least 16 voxels, so the narrow one always fits.
using DWide = hn::ScalableTag<int32_t>;
using DNarrow = hn::CappedTag<int32_t, 8>;

template <class D32>
constexpr size_t outputsPer(D32 d) {
  return 2 * hn::MaxLanes(d);
}

// Calls fn(d, x, slot) for the segments of a line of `width` outputs: x is
// the first output, slot the segment's place in the line of sums. Segments
// tile [0, width); the last one may start before the previous end (same
// outputs, same values) but keeps its own slot, so slots never overlap and
// end at most at width rounded up to 16.
template <class Fn>
HWY_INLINE void forEachSegment(int width, Fn&& fn) {
  const DWide dw;
  const DNarrow dn;
  constexpr ptrdiff_t kWide = static_cast<ptrdiff_t>(outputsPer(DWide()));
  constexpr ptrdiff_t kNarrow = static_cast<ptrdiff_t>(outputsPer(DNarrow()));
  ptrdiff_t x = 0;
  if constexpr (kWide > kNarrow) {
    for (; x + kWide <= width; x += kWide) fn(dw, x, x);
  }
  for (; x + kNarrow <= width; x += kNarrow) fn(dn, x, x);
  if (x < width) fn(dn, width - kNarrow, x);
}

// The scaling of filter::scaleIntegerSum on a vector of sums, giving 32-bit
// lanes already clamped to the 16-bit range.
template <DivisorClass kClass, class D32>
HWY_INLINE hn::VFromD<D32> scaleSums(D32 d, hn::VFromD<D32> s, const Scaling& sc) {
  using V = hn::VFromD<D32>;
  const V lo = hn::Set(d, -32768);
  const V hi = hn::Set(d, 32767);
  if constexpr (kClass == DivisorClass::kUnit) {
    return hn::Min(hn::Max(s, lo), hi);
  } else if constexpr (kClass == DivisorClass::kShift) {
    const V q = hn::ShiftRightSame(s, sc.shift);
    const V rem = hn::And(s, hn::Set(d, static_cast<int32_t>((1u << sc.shift) - 1u)));
    const V half = hn::Set(d, static_cast<int32_t>(1u << (sc.shift - 1)));
    const V one = hn::Set(d, 1);
    // rem and half are non-negative, so the signed compares are exact.
    const auto up =
        hn::Or(hn::Gt(rem, half), hn::And(hn::Eq(rem, half), hn::Eq(hn::And(q, one), one)));
    const V r = hn::Add(q, hn::IfThenElseZero(up, one));
    return hn::Min(hn::Max(r, lo), hi);
  } else {
    const hn::Half<D32> dh;
    const hn::Rebind<double, decltype(dh)> dd;
    const auto div = hn::Set(dd, static_cast<double>(sc.divisor));
    const auto qlo = hn::Set(dd, -32768.0);
    const auto qhi = hn::Set(dd, 32767.0);
    auto q0 = hn::Div(hn::PromoteTo(dd, hn::LowerHalf(dh, s)), div);
    auto q1 = hn::Div(hn::PromoteTo(dd, hn::UpperHalf(dh, s)), div);
    q0 = hn::Round(hn::Min(hn::Max(q0, qlo), qhi));
    q1 = hn::Round(hn::Min(hn::Max(q1, qlo), qhi));
    return hn::Combine(d, hn::DemoteTo(dh, q1), hn::DemoteTo(dh, q0));
  }
}

// Calls fn with the divisor class as a compile-time constant.
template <class Fn>
HWY_INLINE void withDivisorClass(DivisorClass cls, Fn&& fn) {
  switch (cls) {
    case DivisorClass::kUnit:
      fn(std::integral_constant<DivisorClass, DivisorClass::kUnit>());
      break;
    case DivisorClass::kShift:
      fn(std::integral_constant<DivisorClass, DivisorClass::kShift>());
      break;
    case DivisorClass::kGeneral:
      fn(std::integral_constant<DivisorClass, DivisorClass::kGeneral>());
      break;
  }
}

// Streams a vector in 16-byte pieces, so rows aligned to 16 bytes qualify.
template <class D16>
HWY_INLINE void streamPieces(D16 d, hn::VFromD<D16> v, Vel16s* out) {
  if constexpr (hn::MaxLanes(D16()) * sizeof(int16_t) <= 16) {
    hn::Stream(v, d, out);
  } else {
    const hn::Half<D16> dh;
    streamPieces(dh, hn::LowerHalf(dh, v), out);
    streamPieces(dh, hn::UpperHalf(dh, v), out + hn::MaxLanes(dh));
  }
}

// Interleaves the even and odd outputs (already in the 16-bit range) into
// natural order and stores 2 * Lanes(d) voxels, bypassing the caches when
// `stream` is set and the address allows it.
template <class D32>
HWY_INLINE void storeEvenOdd(D32 d, hn::VFromD<D32> even, hn::VFromD<D32> odd, Vel16s* out, bool stream) {
  const hn::Repartition<int16_t, D32> d16;
  const auto packed = hn::BitCast(d16, hn::Or(hn::And(even, hn::Set(d, 0xFFFF)), hn::ShiftLeft<16>(odd)));
  if (stream && (reinterpret_cast<uintptr_t>(out) & 15) == 0) {
    streamPieces(d16, packed, out);
  } else {
    hn::StoreU(packed, d16, out);
  }
}

HWY_INLINE void prefetchRow(const Vel16s* row, int count) {
  for (int x = 0; x < count; x += 32) hwy::Prefetch(row + x);
}

template <class D32>
HWY_INLINE hn::VFromD<hn::Repartition<int16_t, D32>> pairVector(D32 d, uint32_t pair) {
  return hn::BitCast(hn::Repartition<int16_t, D32>(), hn::Set(d, static_cast<int32_t>(pair)));
}

// ---------------------------------------------------------------- cubes

// The dedicated 3x3x3 and 5x5x5 paths sum all N^3 taps of L output lines
// in registers, over N source planes at a time. A source row feeds up to L
// output lines (with different kernel rows), so each load serves several
// multiply-adds; loads, not multiplies, bound this loop otherwise.
// rows[tz * (N + L - 1) + r] is source row r of plane tz for the group.
template <int N, int L, DivisorClass kClass, class D32, class V16>
HWY_INLINE void cubeSegment(D32 d, const Vel16s* const* rows, ptrdiff_t x, const V16* coef,
                            const Scaling& sc, Vel16s* const* out, bool stream) {
  constexpr int kRows = N + L - 1;
  constexpr int kPairs = filter::pairsPerRow(N);
  const hn::Repartition<int16_t, D32> d16;
  hn::VFromD<D32> even[L], even1[L], odd[L], odd1[L];
  HWY_UNROLL(4)
  for (int l = 0; l < L; ++l) even[l] = even1[l] = odd[l] = odd1[l] = hn::Zero(d);
  for (int tz = 0; tz < N; ++tz) {
    HWY_UNROLL(8)
    for (int r = 0; r < kRows; ++r) {
      const Vel16s* s = rows[tz * kRows + r] + x;
      HWY_UNROLL(3)
      for (int p = 0; p < kPairs; ++p) {
        const int t = filter::pairOffset(N, p);
        const V16 a = hn::LoadU(d16, s + t);
        const V16 b = hn::LoadU(d16, s + t + 1);
        HWY_UNROLL(4)
        for (int l = 0; l < L; ++l) {
          const int ty = r - l;
          if (ty < 0 || ty >= N) continue;
          const V16 c = coef[(tz * N + ty) * kPairs + p];
          even[l] = hn::ReorderWidenMulAccumulate(d, a, c, even[l], even1[l]);
          odd[l] = hn::ReorderWidenMulAccumulate(d, b, c, odd[l], odd1[l]);
        }
      }
    }
  }
  HWY_UNROLL(4)
  for (int l = 0; l < L; ++l) {
    const auto e = scaleSums<kClass>(d, hn::RearrangeToOddPlusEven(even[l], even1[l]), sc);
    const auto o = scaleSums<kClass>(d, hn::RearrangeToOddPlusEven(odd[l], odd1[l]), sc);
    storeEvenOdd(d, e, o, out[l] + x, stream);
  }
}

template <int N, int L, DivisorClass kClass, class CW, class CN>
HWY_INLINE void cubeLines(const Job& job, int y, int z, const CW* cw, const CN* cn) {
  constexpr int kRows = N + L - 1;
  const Vel16s* rows[N * kRows];
  for (int tz = 0; tz < N; ++tz)
    for (int r = 0; r < kRows; ++r) rows[tz * kRows + r] = filter::sourceRow(job, y, z, r, tz);
  Vel16s* out[L];
  for (int l = 0; l < L; ++l) out[l] = job.dst[z] + (y + l) * job.dstStride;
  // Only the newest source plane comes from memory (the others were read
  // for the previous output plane and are still cached). The many row
  // streams of a group defeat the hardware prefetchers, so the rows that
  // the next group adds are requested now (those the caller provides).
  for (int r = kRows; r < kRows + L && y + r < job.height + N - 1; ++r)
    prefetchRow(filter::sourceRow(job, y, z, r, N - 1), job.width + N - 1);
  forEachSegment(job.width, [&](auto d, ptrdiff_t x, ptrdiff_t) {
    if constexpr (hn::MaxLanes(decltype(d)()) == hn::MaxLanes(DWide())) {
      cubeSegment<N, L, kClass>(d, rows, x, cw, job.scaling, out, job.stream);
    } else {
      cubeSegment<N, L, kClass>(d, rows, x, cn, job.scaling, out, job.stream);
    }
  });
}

template <int N>
void cubeSlab(const Job& job, int depth) {
  // Four lines per pass fit the accumulators of both vector widths in
  // registers, beside the 3x3x3 coefficients on 32-register targets.
  constexpr int kLines = 4;
  constexpr int kCoefs = N * N * filter::pairsPerRow(N);
  hn::VFromD<hn::Repartition<int16_t, DWide>> cw[kCoefs];
  hn::VFromD<hn::Repartition<int16_t, DNarrow>> cn[kCoefs];
  for (int i = 0; i < kCoefs; ++i) {
    cw[i] = pairVector(DWide(), job.pairs[i]);
    cn[i] = pairVector(DNarrow(), job.pairs[i]);
  }
  withDivisorClass(job.scaling.cls, [&](auto cls) {
    for (int z = 0; z < depth; ++z) {
      int y = 0;
      for (; y + kLines <= job.height; y += kLines) cubeLines<N, kLines, cls.value>(job, y, z, cw, cn);
      for (; y < job.height; ++y) cubeLines<N, 1, cls.value>(job, y, z, cw, cn);
    }
  });
}

// ---------------------------------------------------------------- generic

// Any kernel of at least 3 along every axis: one line of 32-bit sums per
// output line, accumulated one kernel plane at a time (all its rows per
// pass), scaled and stored on the last plane.
template <DivisorClass kClass>
void genericSlab(const Job& job, int depth, int32_t* line) {
  const int pairs = filter::pairsPerRow(job.kw);
  for (int z = 0; z < depth; ++z)
    for (int y = 0; y < job.height; ++y) {
      Vel16s* out = job.dst[z] + y * job.dstStride;
      for (int tz = 0; tz < job.kd; ++tz) {
        const bool first = tz == 0;
        const bool last = tz == job.kd - 1;
        const uint32_t* planePairs = job.pairs + static_cast<size_t>(tz) * job.kh * pairs;
        forEachSegment(job.width, [&](auto d, ptrdiff_t x, ptrdiff_t slot) {
          using D32 = decltype(d);
          const ptrdiff_t n = static_cast<ptrdiff_t>(hn::Lanes(d));
          auto even = first ? hn::Zero(d) : hn::LoadU(d, line + slot);
          auto odd = first ? hn::Zero(d) : hn::LoadU(d, line + slot + n);
          auto even1 = hn::Zero(d), odd1 = hn::Zero(d);
          const hn::Repartition<int16_t, D32> d16;
          for (int ty = 0; ty < job.kh; ++ty) {
            const Vel16s* row = filter::sourceRow(job, y, z, ty, tz) + x;
            const uint32_t* rowPairs = planePairs + static_cast<size_t>(ty) * pairs;
            for (int p = 0; p < pairs; ++p) {
              const auto coef = pairVector(d, rowPairs[p]);
              const int t = filter::pairOffset(job.kw, p);
              even = hn::ReorderWidenMulAccumulate(d, hn::LoadU(d16, row + t), coef, even, even1);
              odd = hn::ReorderWidenMulAccumulate(d, hn::LoadU(d16, row + t + 1), coef, odd, odd1);
            }
          }
          even = hn::RearrangeToOddPlusEven(even, even1);
          odd = hn::RearrangeToOddPlusEven(odd, odd1);
          if (last) {
            storeEvenOdd(d, scaleSums<kClass>(d, even, job.scaling), scaleSums<kClass>(d, odd, job.scaling),
                         out + x, job.stream);
          } else {
            hn::StoreU(even, d, line + slot);
            hn::StoreU(odd, d, line + slot + n);
          }
        });
      }
    }
}

// ---------------------------------------------------------------- float

// Single-precision sums in the tap order of filter::floatSumAt; the vector
// lanes are independent voxels, so each lane repeats that order exactly.
void floatSlab(const Job& job, int depth) {
  const hn::ScalableTag<float> df;
  const hn::Rebind<int32_t, decltype(df)> di;
  const hn::Rebind<int16_t, decltype(df)> d16;
  const hn::Half<decltype(df)> dfh;
  const hn::Rebind<double, decltype(dfh)> dd;
  const hn::Rebind<int32_t, decltype(dfh)> dih;
  const ptrdiff_t n = static_cast<ptrdiff_t>(hn::Lanes(df));
  const auto recip = hn::Set(dd, static_cast<double>(job.scaling.reciprocal));
  const auto qlo = hn::Set(dd, -32768.0);
  const auto qhi = hn::Set(dd, 32767.0);
  for (int z = 0; z < depth; ++z)
    for (int y = 0; y < job.height; ++y) {
      Vel16s* out = job.dst[z] + y * job.dstStride;
      if (job.width < n) {
        for (int x = 0; x < job.width; ++x) out[x] = filter::voxelAt(job, x, y, z);
        continue;
      }
      for (ptrdiff_t x0 = 0; x0 < job.width; x0 += n) {
        const ptrdiff_t x = x0 + n <= job.width ? x0 : job.width - n;
        auto sum = hn::Zero(df);
        const float* c = job.taps;
        for (int tz = 0; tz < job.kd; ++tz)
          for (int ty = 0; ty < job.kh; ++ty) {
            const Vel16s* row = filter::sourceRow(job, y, z, ty, tz) + x;
            for (int tx = 0; tx < job.kw; ++tx) {
              const auto s = hn::ConvertTo(df, hn::PromoteTo(di, hn::LoadU(d16, row + tx)));
              sum = hn::Add(sum, hn::Mul(hn::Set(df, *c++), s));
            }
          }
        auto v0 = hn::Mul(hn::PromoteTo(dd, hn::LowerHalf(dfh, sum)), recip);
        auto v1 = hn::Mul(hn::PromoteTo(dd, hn::UpperHalf(dfh, sum)), recip);
        v0 = hn::Round(hn::Min(hn::Max(v0, qlo), qhi));
        v1 = hn::Round(hn::Min(hn::Max(v1, qlo), qhi));
        const auto r = hn::Combine(di, hn::DemoteTo(dih, v1), hn::DemoteTo(dih, v0));
        hn::StoreU(hn::DemoteTo(d16, r), d16, out + x);
      }
    }
}

#endif  // HWY_TARGET != HWY_SCALAR

}  // namespace filter_impl

// Filters `depth` destination planes of `job` (its plane arrays already
// start at the slab). `line` holds at least width rounded up to 16 sums.
void FilterSlab(const filter::Job& job, int depth, int32_t* line) {
  using filter::Path;
  // Streamed stores must be visible before the slab reports completion.
  struct Flush {
    ~Flush() { hwy::FlushStream(); }
  } flush;
#if HWY_TARGET == HWY_SCALAR
  (void)line;
  for (int z = 0; z < depth; ++z)
    for (int y = 0; y < job.height; ++y) {
      Vel16s* out = job.dst[z] + y * job.dstStride;
      for (int x = 0; x < job.width; ++x) out[x] = filter::voxelAt(job, x, y, z);
    }
#else
  switch (job.path) {
    case Path::kCube3:
      filter_impl::cubeSlab<3>(job, depth);
      break;
    case Path::kCube5:
      filter_impl::cubeSlab<5>(job, depth);
      break;
    case Path::kGeneric16:
      filter_impl::withDivisorClass(job.scaling.cls, [&](auto cls) {
        filter_impl::genericSlab<cls.value>(job, depth, line);
      });
      break;
    case Path::kFloat:
      filter_impl::floatSlab(job, depth);
      break;
  }
#endif
}

}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#endif  // include guard
