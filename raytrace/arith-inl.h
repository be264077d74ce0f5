// Kernels of the masked per-ray arithmetic, one source for every SIMD target.
//
// A ray is active when its mask is 0 or more. Every member here computes the
// same per-ray result on its vector blocks as on its one-ray tail, except the
// light distance, whose four-ray form turns a NaN distance into 1.0 (the
// "s >= 1" test fails) while the one-ray form lets it through; the front end
// picks the form by alignment and length.
#if defined(VELR_RAYTRACE_ARITH_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_RAYTRACE_ARITH_INL_H_
#undef VELR_RAYTRACE_ARITH_INL_H_
#else
#define VELR_RAYTRACE_ARITH_INL_H_
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

namespace arith {

using DF = hn::ScalableTag<float>;

// Lanes whose mask is 0 or more, as a float mask.
template <class D>
HWY_INLINE hn::Mask<D> ActiveLanes(D d, const int32_t* mask) {
  const hn::RebindToSigned<D> di;
  return hn::RebindMask(d, hn::Gt(hn::LoadU(di, mask), hn::Set(di, -1)));
}

// Rays to treat one by one before the lead pointer is aligned to a whole
// vector, so that its loads and stores never straddle a cache line. A lead
// pointer that is not even float-aligned is left as it is: unaligned vector
// access serves it just as well.
HWY_INLINE size_t PeelCount(const void* lead, size_t len, size_t vectorBytes) {
  const uintptr_t a = reinterpret_cast<uintptr_t>(lead);
  if ((a & 3) != 0) return 0;
  const size_t n = ((0 - a) & (vectorBytes - 1)) / sizeof(float);
  return n < len ? n : len;
}

HWY_INLINE float BitsToFloat(uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

// The quiet NaN that a zero divided by zero (or NaN divided by zero) gives.
constexpr uint32_t kZeroDivNaN = 0xFFC00000u;

// ---------------------------------------------------------------- one ray

HWY_INLINE float DotOne(float x0, float y0, float z0, float x1, float y1, float z1) {
  return (x0 * x1 + y0 * y1) + z0 * z1;
}

// Distance clamped below at 1: four-ray form (NaN gives 1) and one-ray form
// (NaN passes through).
HWY_INLINE float SquaredDistance(float px, float py, float pz, const float* l) {
  const float dx = px - l[0], dy = py - l[1], dz = pz - l[2];
  return (dx * dx + dy * dy) + dz * dz;
}
HWY_INLINE float DistanceFourRayForm(float s) { return s >= 1.0f ? std::sqrt(s) : 1.0f; }
HWY_INLINE float DistanceOneRayForm(float s) { return s < 1.0f ? 1.0f : std::sqrt(s); }

HWY_INLINE float MaskFactor(int32_t m) { return m >= 0 ? 1.0f : 0.0f; }

}  // namespace arith

// ---------------------------------------------------------------- dot

void DotKernel(const float* const* a, const float* const* b, const int32_t* mask, float* dot,
               size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto active = ActiveLanes(d, mask + i);
    if (hn::AllFalse(d, active)) {
      hn::StoreU(hn::Zero(d), d, dot + i);
      continue;
    }
    const auto xx = hn::Mul(hn::LoadU(d, a[0] + i), hn::LoadU(d, b[0] + i));
    const auto yy = hn::Mul(hn::LoadU(d, a[1] + i), hn::LoadU(d, b[1] + i));
    const auto zz = hn::Mul(hn::LoadU(d, a[2] + i), hn::LoadU(d, b[2] + i));
    hn::StoreU(hn::IfThenElseZero(active, hn::Add(hn::Add(xx, yy), zz)), d, dot + i);
  }
  for (; i < len; ++i) {
    dot[i] = mask[i] >= 0 ? DotOne(a[0][i], a[1][i], a[2][i], b[0][i], b[1][i], b[2][i]) : 0.0f;
  }
}

// ---------------------------------------------------------------- dot, turn normal

void DotChangeNormKernel(const float* const* ray, const int32_t* mask, float* const* normal,
                         float* dot, size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto sign = hn::SignBit(d);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto active = ActiveLanes(d, mask + i);
    if (hn::AllFalse(d, active)) {
      hn::StoreU(hn::Zero(d), d, dot + i);
      continue;
    }
    const auto nx = hn::LoadU(d, normal[0] + i);
    const auto ny = hn::LoadU(d, normal[1] + i);
    const auto nz = hn::LoadU(d, normal[2] + i);
    const auto dp = hn::Add(hn::Add(hn::Mul(hn::LoadU(d, ray[0] + i), nx),
                                    hn::Mul(hn::LoadU(d, ray[1] + i), ny)),
                            hn::Mul(hn::LoadU(d, ray[2] + i), nz));
    const auto flip = hn::And(active, hn::Gt(dp, hn::Zero(d)));
    // A sign flip, not a subtraction from zero: +0 must become -0.
    const auto flipBits = hn::IfThenElseZero(flip, sign);
    hn::StoreU(hn::IfThenElseZero(active, hn::Xor(dp, flipBits)), d, dot + i);
    if (!hn::AllFalse(d, flip)) {
      hn::StoreU(hn::Xor(nx, flipBits), d, normal[0] + i);
      hn::StoreU(hn::Xor(ny, flipBits), d, normal[1] + i);
      hn::StoreU(hn::Xor(nz, flipBits), d, normal[2] + i);
    }
  }
  for (; i < len; ++i) {
    if (mask[i] < 0) {
      dot[i] = 0.0f;
      continue;
    }
    const float dp =
        DotOne(ray[0][i], ray[1][i], ray[2][i], normal[0][i], normal[1][i], normal[2][i]);
    if (dp > 0.0f) {
      normal[0][i] = -normal[0][i];
      normal[1][i] = -normal[1][i];
      normal[2][i] = -normal[2][i];
      dot[i] = -dp;
    } else {
      dot[i] = dp;
    }
  }
}

// ---------------------------------------------------------------- light distance

void DistAttenuationFourRayKernel(const float* light, const float* const* point,
                                  const int32_t* mask, float* dist, size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto one = hn::Set(d, 1.0f);
  const auto lx = hn::Set(d, light[0]), ly = hn::Set(d, light[1]), lz = hn::Set(d, light[2]);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto active = ActiveLanes(d, mask + i);
    if (hn::AllFalse(d, active)) {
      hn::StoreU(one, d, dist + i);
      continue;
    }
    const auto dx = hn::Sub(hn::LoadU(d, point[0] + i), lx);
    const auto dy = hn::Sub(hn::LoadU(d, point[1] + i), ly);
    const auto dz = hn::Sub(hn::LoadU(d, point[2] + i), lz);
    const auto s = hn::Add(hn::Add(hn::Mul(dx, dx), hn::Mul(dy, dy)), hn::Mul(dz, dz));
    const auto keep = hn::And(active, hn::Ge(s, one));
    hn::StoreU(hn::IfThenElse(keep, hn::Sqrt(s), one), d, dist + i);
  }
  for (; i < len; ++i) {
    dist[i] = mask[i] >= 0
                  ? DistanceFourRayForm(SquaredDistance(point[0][i], point[1][i], point[2][i], light))
                  : 1.0f;
  }
}

void DistAttenuationOneRayKernel(const float* light, const float* const* point,
                                 const int32_t* mask, float* dist, size_t len) {
  using namespace arith;
  for (size_t i = 0; i < len; ++i) {
    dist[i] = mask[i] >= 0
                  ? DistanceOneRayForm(SquaredDistance(point[0][i], point[1][i], point[2][i], light))
                  : 1.0f;
  }
}

// ---------------------------------------------------------------- multiply

void MulKernel(const float* src, const int32_t* mask, float* dst, size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto one = hn::Set(d, 1.0f);
  size_t i = 0;
  const size_t peel = PeelCount(dst, len, n * sizeof(float));
  for (; i < peel; ++i) dst[i] = (dst[i] * src[i]) * MaskFactor(mask[i]);
  for (; i + n <= len; i += n) {
    const auto f = hn::IfThenElseZero(ActiveLanes(d, mask + i), one);
    hn::StoreU(hn::Mul(hn::Mul(hn::LoadU(d, dst + i), hn::LoadU(d, src + i)), f), d, dst + i);
  }
  for (; i < len; ++i) dst[i] = (dst[i] * src[i]) * MaskFactor(mask[i]);
}

void MulP3Kernel(const float* src, const int32_t* mask, float* const* dst, size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto one = hn::Set(d, 1.0f);
  float* const x = dst[0];
  float* const y = dst[1];
  float* const z = dst[2];
  const auto oneRay = [&](size_t k) {
    const float f = MaskFactor(mask[k]);
    x[k] = (x[k] * src[k]) * f;
    y[k] = (y[k] * src[k]) * f;
    z[k] = (z[k] * src[k]) * f;
  };
  size_t i = 0;
  const size_t peel = PeelCount(src, len, n * sizeof(float));
  for (; i < peel; ++i) oneRay(i);
  for (; i + n <= len; i += n) {
    const auto f = hn::IfThenElseZero(ActiveLanes(d, mask + i), one);
    const auto s = hn::LoadU(d, src + i);
    hn::StoreU(hn::Mul(hn::Mul(hn::LoadU(d, x + i), s), f), d, x + i);
    hn::StoreU(hn::Mul(hn::Mul(hn::LoadU(d, y + i), s), f), d, y + i);
    hn::StoreU(hn::Mul(hn::Mul(hn::LoadU(d, z + i), s), f), d, z + i);
  }
  for (; i < len; ++i) oneRay(i);
}

// ---------------------------------------------------------------- divide

// Returns whether an active ray had a zero divisor.
bool DivKernel(const float* src, const int32_t* mask, float* dst, size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  const auto zero = hn::Zero(d);
  const auto posInf = hn::Set(d, HUGE_VALF);
  const auto negInf = hn::Set(d, -HUGE_VALF);
  const auto nan = hn::Set(d, BitsToFloat(kZeroDivNaN));
  // Lanes that met an active zero divisor, tested once after the loop.
  auto zeroSeen = hn::Zero(d);
  size_t i = 0;
  for (; i + n <= len; i += n) {
    const auto active = ActiveLanes(d, mask + i);
    const auto s = hn::LoadU(d, src + i);
    const auto x = hn::LoadU(d, dst + i);
    const auto byZero = hn::Eq(s, zero);
    // The sign of a zero divisor is ignored: only the dividend's sign counts.
    const auto special = hn::IfThenElse(hn::Gt(x, zero), posInf,
                                        hn::IfThenElse(hn::Lt(x, zero), negInf, nan));
    const auto q = hn::IfThenElse(byZero, special, hn::Div(x, s));
    hn::StoreU(hn::IfThenElseZero(active, q), d, dst + i);
    zeroSeen = hn::Or(zeroSeen, hn::VecFromMask(d, hn::And(active, byZero)));
  }
  bool zeroDivisor = !hn::AllFalse(d, hn::MaskFromVec(zeroSeen));
  for (; i < len; ++i) {
    if (mask[i] < 0) {
      dst[i] = 0.0f;
    } else if (src[i] == 0.0f) {
      zeroDivisor = true;
      const float x = dst[i];
      dst[i] = x > 0.0f ? HUGE_VALF : (x < 0.0f ? -HUGE_VALF : BitsToFloat(kZeroDivNaN));
    } else {
      dst[i] = dst[i] / src[i];
    }
  }
  return zeroDivisor;
}

// ---------------------------------------------------------------- accumulate

void AddMulMulKernel(const float* colour, const float* weight, const float* const* src,
                     const int32_t* mask, float* const* dst, size_t len) {
  using namespace arith;
  const DF d;
  const size_t n = hn::Lanes(d);
  const float c0 = colour[0], c1 = colour[1], c2 = colour[2];
  const auto oneRay = [&](size_t k) {
    if (mask[k] < 0) return;
    dst[0][k] += (c0 * src[0][k]) * weight[k];
    dst[1][k] += (c1 * src[1][k]) * weight[k];
    dst[2][k] += (c2 * src[2][k]) * weight[k];
  };
  const auto v0 = hn::Set(d, c0), v1 = hn::Set(d, c1), v2 = hn::Set(d, c2);
  size_t i = 0;
  const size_t peel = PeelCount(weight, len, n * sizeof(float));
  for (; i < peel; ++i) oneRay(i);
  for (; i + n <= len; i += n) {
    const auto active = ActiveLanes(d, mask + i);
    if (hn::AllFalse(d, active)) continue;
    const auto w = hn::LoadU(d, weight + i);
    const auto accumulate = [&](const float* s, float* t, decltype(v0) c) {
      const auto old = hn::LoadU(d, t + i);
      const auto sum = hn::Add(old, hn::Mul(hn::Mul(c, hn::LoadU(d, s + i)), w));
      hn::StoreU(hn::IfThenElse(active, sum, old), d, t + i);
    };
    accumulate(src[0], dst[0], v0);
    accumulate(src[1], dst[1], v1);
    accumulate(src[2], dst[2], v2);
  }
  for (; i < len; ++i) oneRay(i);
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#endif  // VELR_RAYTRACE_ARITH_INL_H_
