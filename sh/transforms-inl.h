// Per-target kernels of the forward and inverse spherical-harmonic
// transforms, built on the basis tiles of basis-inl.h.
//
// Forward: each coefficient is a running sum over the samples in their
// order, so the accumulation is vectorised over coefficients (a sample's
// basis vector, scaled, added to the coefficient vector) and never
// reassociated across samples.
// Inverse: each result is a dot product over the coefficients, summed in
// coefficient order; it is vectorised over directions straight from the
// value-major tile, so every target sums in the same order.
#if defined(VELR_SH_TRANSFORMS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_SH_TRANSFORMS_INL_H_
#undef VELR_SH_TRANSFORMS_INL_H_
#else
#define VELR_SH_TRANSFORMS_INL_H_
#endif

#include <cstddef>

#include <hwy/highway.h>

#include "sh/basis-inl.h"

HWY_BEFORE_NAMESPACE();
namespace velr {
namespace HWY_NAMESPACE {
namespace shk {

inline void Forward(const float* x, const float* y, const float* z, const float* const* src,
                    size_t srcStep, int channels, size_t len, float* const* coeffs, int order,
                    const float* ta, const float* tb) {
  const DF df;
  const size_t nf = hn::Lanes(df);
  const size_t nv = static_cast<size_t>(valueCount(order));
  // kMaxValues is a multiple of every vector length, so padded rows fit.
  const size_t nvPad = (nv + nf - 1) / nf * nf;

  HWY_ALIGN float acc[3][kMaxValues];
  HWY_ALIGN float tile[kMaxValues * kBlock];
  HWY_ALIGN float basis[kMaxValues * kBlock];  // direction-major, rows of nvPad
  for (int c = 0; c < channels; ++c) {
    for (size_t k = 0; k < nvPad; ++k) acc[c][k] = k < nv ? coeffs[c][k] : 0.0f;
  }
  for (size_t j = 0; j < kBlock; ++j) {
    for (size_t k = nv; k < nvPad; ++k) basis[j * nvPad + k] = 0.0f;
  }

  const BasisTiler tiler(order, ta, tb);
  BlockInput in;
  for (size_t i = 0; i < len; i += kBlock) {
    const size_t count = len - i < kBlock ? len - i : kBlock;
    in.Point(x, y, z, i, count);
    tiler(in.px, in.py, in.pz, tile);
    TileToRows(tile, nv, count, basis, nvPad);
    for (int c = 0; c < channels; ++c) {
      const float* s = src[c] + i * srcStep;
      for (size_t k = 0; k < nvPad; k += nf) {
        auto a = hn::Load(df, acc[c] + k);
        for (size_t j = 0; j < count; ++j) {
          const float sj = s[j * srcStep];
          const auto yj = hn::Load(df, basis + j * nvPad + k);
          // A factor of 1 adds the basis vector as it is, a factor of 0 adds
          // zeros (never 0 * an infinite value).
          if (sj == 1.0f) {
            a = hn::Add(a, yj);
          } else if (sj == 0.0f) {
            a = hn::Add(a, hn::Zero(df));
          } else {
            a = hn::Add(a, hn::Mul(yj, hn::Set(df, sj)));
          }
        }
        hn::Store(a, df, acc[c] + k);
      }
    }
  }
  for (int c = 0; c < channels; ++c) {
    for (size_t k = 0; k < nv; ++k) coeffs[c][k] = acc[c][k];
  }
}

inline void Inverse(const float* const* coeffs, int channels, int order, const float* x,
                    const float* y, const float* z, float* const* dst, size_t dstStep, size_t len,
                    const float* ta, const float* tb) {
  const DF df;
  const size_t nv = static_cast<size_t>(valueCount(order));
  HWY_ALIGN float tile[kMaxValues * kBlock];
  HWY_ALIGN float result[3][kBlock];

  const BasisTiler tiler(order, ta, tb);
  BlockInput in;
  for (size_t i = 0; i < len; i += kBlock) {
    const size_t count = len - i < kBlock ? len - i : kBlock;
    in.Point(x, y, z, i, count);
    tiler(in.px, in.py, in.pz, tile);
    for (int c = 0; c < channels; ++c) {
      const float* w = coeffs[c];
      auto sum = hn::Mul(hn::Load(df, tile), hn::Set(df, w[0]));
      for (size_t k = 1; k < nv; ++k) {
        sum = hn::Add(sum, hn::Mul(hn::Load(df, tile + k * kBlock), hn::Set(df, w[k])));
      }
      hn::Store(sum, df, result[c]);
    }
    if (count == kBlock && dstStep == 1) {
      for (int c = 0; c < channels; ++c) {
        hn::StoreU(hn::Load(df, result[c]), df, dst[c] + i);
      }
    } else if (count == kBlock && dstStep == 3 && channels == 3) {
      // Interleaved: dst[c] is the same buffer shifted by c.
      hn::StoreInterleaved3(hn::Load(df, result[0]), hn::Load(df, result[1]),
                            hn::Load(df, result[2]), df, dst[0] + 3 * i);
    } else {
      for (int c = 0; c < channels; ++c) {
        for (size_t j = 0; j < count; ++j) dst[c][(i + j) * dstStep] = result[c][j];
      }
    }
  }
}

}  // namespace shk
}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#endif  // VELR_SH_TRANSFORMS_INL_H_
