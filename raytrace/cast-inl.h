// Kernels of ray casting (eye, reflection and shadow rays), one source for
// every SIMD target.
//
// Each operation has a block form and a one-ray form that round differently
// on purpose (evaluation and summation order, how the mask is updated). The
// block form is defined per element as a four-ray step computes it, so a
// target with wider vectors gives the same bits as one with four lanes; the
// front end decides which form a packet gets.
#if defined(VELR_RAYTRACE_CAST_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_RAYTRACE_CAST_INL_H_
#undef VELR_RAYTRACE_CAST_INL_H_
#else
#define VELR_RAYTRACE_CAST_INL_H_
#endif

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace velr {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace cast {

using DF = hn::ScalableTag<float>;

template <class D>
HWY_INLINE hn::Mask<D> ActiveLanes(D d, const int32_t* mask) {
  const hn::RebindToSigned<D> di;
  return hn::RebindMask(d, hn::Gt(hn::LoadU(di, mask), hn::Set(di, -1)));
}

// One tenth of a degree: shadow rays that graze the surface closer than this
// (as an unnormalised dot product) are dropped, since their shading would be
// noise.
HWY_INLINE float GrazingLimit() {
  const uint32_t bits = 0x3AE4C388u;
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

// Eye rays of one packed plane triple, every pixel evaluated from scratch.
HWY_INLINE void EyeOneRay(const float* o, const float* dw, const float* dh, float offX,
                          float offY, float* const* out, size_t width, size_t height) {
  for (size_t y = 0; y < height; ++y) {
    const float fy = static_cast<float>(y) + offY;
    const size_t row = y * width;
    for (size_t x = 0; x < width; ++x) {
      const float fx = static_cast<float>(x) + offX;
      for (int c = 0; c < 3; ++c) out[c][row + x] = (dh[c] * fy + o[c]) + dw[c] * fx;
    }
  }
}

// The block form of the eye rays, element by element: a row base advanced
// by dh after each row, and four column counters that start at 0, 1, 2, 3
// and step by 4.0 in float.
HWY_INLINE void EyeBlocksOneLane(const float* base0, const float* dw, const float* dh,
                                 float* const* out, size_t width, size_t height) {
  float base[3] = {base0[0], base0[1], base0[2]};
  for (size_t y = 0; y < height; ++y) {
    const size_t row = y * width;
    float col[4] = {0.0f, 1.0f, 2.0f, 3.0f};
    for (size_t x = 0; x < width; x += 4) {
      for (size_t j = 0; j < 4; ++j) {
        for (int c = 0; c < 3; ++c) out[c][row + x + j] = dw[c] * col[j] + base[c];
        col[j] = col[j] + 4.0f;
      }
    }
    for (int c = 0; c < 3; ++c) base[c] = base[c] + dh[c];
  }
}

// Reflection: t = s + s with s the dot product, R = I - N * t.
HWY_INLINE void ReflectLane(float s, const float* const* inc, const float* const* nrm,
                            float* const* out, size_t i) {
  const float t = s + s;
  for (int c = 0; c < 3; ++c) out[c][i] = inc[c][i] - nrm[c][i] * t;
}

}  // namespace cast

// ---------------------------------------------------------------- eye rays

void CastEyeOneRayKernel(const float* o, const float* dw, const float* dh, float offX,
                         float offY, float* const* out, size_t width, size_t height) {
  cast::EyeOneRay(o, dw, dh, offX, offY, out, width, height);
}

// width is a multiple of 4.
void CastEyeBlockKernel(const float* o, const float* dw, const float* dh, float offX, float offY,
                        float* const* out, size_t width, size_t height) {
  using namespace cast;
  float base[3];
  for (int c = 0; c < 3; ++c) base[c] = (dh[c] * offY + o[c]) + dw[c] * offX;

  const DF d;
  const size_t n = hn::Lanes(d);
  if (n < 4) {
    EyeBlocksOneLane(base, dw, dh, out, width, height);
    return;
  }
  const hn::CappedTag<float, 4> d4;
  const auto dwx = hn::Set(d, dw[0]), dwy = hn::Set(d, dw[1]), dwz = hn::Set(d, dw[2]);
  const auto four = hn::Set(d, 4.0f);
  // Lane 4g + j holds the counter of column group g: exact small integers.
  const auto firstColumns = hn::Iota(d, 0.0f);
  HWY_ALIGN float spill[hn::MaxLanes(d)];
  for (size_t y = 0; y < height; ++y) {
    float* const px = out[0] + y * width;
    float* const py = out[1] + y * width;
    float* const pz = out[2] + y * width;
    const auto bx = hn::Set(d, base[0]), by = hn::Set(d, base[1]), bz = hn::Set(d, base[2]);
    auto col = firstColumns;
    size_t x = 0;
    for (; x + n <= width; x += n) {
      hn::StoreU(hn::Add(hn::Mul(dwx, col), bx), d, px + x);
      hn::StoreU(hn::Add(hn::Mul(dwy, col), by), d, py + x);
      hn::StoreU(hn::Add(hn::Mul(dwz, col), bz), d, pz + x);
      // One +4.0 per group this vector spans, as four-wide steps would add
      // them; this keeps the counters exact past 2^24 columns as well.
      for (size_t g = 0; g < n; g += 4) col = hn::Add(col, four);
    }
    if (x < width) {
      // Remaining groups of four continue from group 0 of the counters.
      hn::Store(col, d, spill);
      auto col4 = hn::Load(d4, spill);
      const auto four4 = hn::Set(d4, 4.0f);
      for (; x < width; x += 4) {
        hn::StoreU(hn::Add(hn::Mul(hn::Set(d4, dw[0]), col4), hn::Set(d4, base[0])), d4, px + x);
        hn::StoreU(hn::Add(hn::Mul(hn::Set(d4, dw[1]), col4), hn::Set(d4, base[1])), d4, py + x);
        hn::StoreU(hn::Add(hn::Mul(hn::Set(d4, dw[2]), col4), hn::Set(d4, base[2])), d4, pz + x);
        col4 = hn::Add(col4, four4);
      }
    }
    for (int c = 0; c < 3; ++c) base[c] = base[c] + dh[c];
  }
}

// ---------------------------------------------------------------- reflections

void ReflectOneRayKernel(const float* const* inc, const int32_t* mask, const float* const* nrm,
                         float* const* out, size_t len) {
  using namespace cast;
  for (size_t i = 0; i < len; ++i) {
    if (mask[i] < 0) {
      out[0][i] = out[1][i] = out[2][i] = 0.0f;
      continue;
    }
    ReflectLane((inc[1][i] * nrm[1][i] + inc[2][i] * nrm[2][i]) + inc[0][i] * nrm[0][i], inc,
                nrm, out, i);
  }
}

// len is a multiple of 4.
void ReflectBlockKernel(const float* const* inc, const int32_t* mask, const float* const* nrm,
                        float* const* out, size_t len) {
  using namespace cast;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto zero = hn::Zero(d);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto active = ActiveLanes(d, mask + i);
    if (hn::AllFalse(d, active)) {
      hn::StoreU(zero, d, out[0] + i);
      hn::StoreU(zero, d, out[1] + i);
      hn::StoreU(zero, d, out[2] + i);
      continue;
    }
    const auto ix = hn::LoadU(d, inc[0] + i), iy = hn::LoadU(d, inc[1] + i),
               iz = hn::LoadU(d, inc[2] + i);
    const auto nx = hn::LoadU(d, nrm[0] + i), ny = hn::LoadU(d, nrm[1] + i),
               nz = hn::LoadU(d, nrm[2] + i);
    const auto s = hn::Add(hn::Add(hn::Mul(ix, nx), hn::Mul(iy, ny)), hn::Mul(iz, nz));
    const auto t = hn::Add(s, s);
    hn::StoreU(hn::IfThenElseZero(active, hn::Sub(ix, hn::Mul(nx, t))), d, out[0] + i);
    hn::StoreU(hn::IfThenElseZero(active, hn::Sub(iy, hn::Mul(ny, t))), d, out[1] + i);
    hn::StoreU(hn::IfThenElseZero(active, hn::Sub(iz, hn::Mul(nz, t))), d, out[2] + i);
  }
  for (; i < len; ++i) {
    if (mask[i] < 0) {
      out[0][i] = out[1][i] = out[2][i] = 0.0f;
      continue;
    }
    ReflectLane((inc[0][i] * nrm[0][i] + inc[1][i] * nrm[1][i]) + inc[2][i] * nrm[2][i], inc,
                nrm, out, i);
  }
}

// ---------------------------------------------------------------- shadow rays

// The first len & ~3 rays take the block form: every ray that fails the test
// is switched off with -1, whatever its mask was. The last len & 3 rays take
// the one-ray form, which leaves an already negative mask as it is.
void ShadowKernel(const float* light, const float* dotRay, const float* const* nrm,
                  const float* const* point, int32_t* mask, float* dotShadow,
                  float* const* dir, size_t len) {
  using namespace cast;
  const float limit = GrazingLimit();
  const float lx = light[0], ly = light[1], lz = light[2];
  const size_t blocks = len & ~size_t{3};

  const DF d;
  const hn::RebindToSigned<DF> di;
  const size_t n = hn::Lanes(d);
  const auto vlx = hn::Set(d, lx), vly = hn::Set(d, ly), vlz = hn::Set(d, lz);
  const auto vlimit = hn::Set(d, limit);
  const auto zero = hn::Zero(d);
  const auto off = hn::Set(di, -1);
  size_t i = 0;
  for (; i + n <= blocks; i += n) {
    const auto m = hn::LoadU(di, mask + i);
    const auto sx = hn::Sub(hn::LoadU(d, point[0] + i), vlx);
    const auto sy = hn::Sub(hn::LoadU(d, point[1] + i), vly);
    const auto sz = hn::Sub(hn::LoadU(d, point[2] + i), vlz);
    const auto dp = hn::Add(hn::Add(hn::Mul(hn::LoadU(d, nrm[0] + i), sx),
                                    hn::Mul(hn::LoadU(d, nrm[1] + i), sy)),
                            hn::Mul(hn::LoadU(d, nrm[2] + i), sz));
    const auto ad = hn::Abs(dp);
    const auto sameSide = hn::Gt(hn::Mul(hn::LoadU(d, dotRay + i), dp), zero);
    const auto valid = hn::And(hn::And(hn::RebindMask(d, hn::Gt(m, off)), hn::Ge(ad, vlimit)),
                               sameSide);
    hn::StoreU(hn::IfThenElseZero(valid, ad), d, dotShadow + i);
    hn::StoreU(hn::IfThenElseZero(valid, sx), d, dir[0] + i);
    hn::StoreU(hn::IfThenElseZero(valid, sy), d, dir[1] + i);
    hn::StoreU(hn::IfThenElseZero(valid, sz), d, dir[2] + i);
    hn::StoreU(hn::IfThenElse(hn::RebindMask(di, valid), m, off), di, mask + i);
  }
  for (; i < blocks; ++i) {
    const float sx = point[0][i] - lx, sy = point[1][i] - ly, sz = point[2][i] - lz;
    const float dp = (nrm[0][i] * sx + nrm[1][i] * sy) + nrm[2][i] * sz;
    const float ad = std::fabs(dp);
    const bool valid = mask[i] >= 0 && ad >= limit && dotRay[i] * dp > 0.0f;
    dotShadow[i] = valid ? ad : 0.0f;
    dir[0][i] = valid ? sx : 0.0f;
    dir[1][i] = valid ? sy : 0.0f;
    dir[2][i] = valid ? sz : 0.0f;
    if (!valid) mask[i] = -1;
  }
  for (; i < len; ++i) {
    const float sx = point[0][i] - lx, sy = point[1][i] - ly, sz = point[2][i] - lz;
    const float dp = (sx * nrm[0][i] + sy * nrm[1][i]) + sz * nrm[2][i];
    const float ad = std::fabs(dp);
    // A grazing ray fails even against an infinite dotRay.
    const float side = ad < limit ? 0.0f : dotRay[i] * dp;
    const bool valid = mask[i] >= 0 && side > 0.0f;
    dotShadow[i] = valid ? ad : 0.0f;
    dir[0][i] = valid ? sx : 0.0f;
    dir[1][i] = valid ? sy : 0.0f;
    dir[2][i] = valid ? sz : 0.0f;
    if (!valid && mask[i] >= 0) mask[i] = -1;
  }
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#endif  // VELR_RAYTRACE_CAST_INL_H_
