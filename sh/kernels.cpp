// Compiles the spherical-harmonic kernels once per SIMD target and
// dispatches to the best one the processor supports.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "sh/kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include "sh/basis-inl.h"
#include "sh/transforms-inl.h"

HWY_BEFORE_NAMESPACE();
namespace velr {
namespace HWY_NAMESPACE {

// Flat entry points, one per target, for the dispatch tables below.
void ShEvalBasis(const float* x, const float* y, const float* z, size_t len, float* dst, int order,
                 const float* ta, const float* tb) {
  shk::EvalBasis(x, y, z, len, dst, order, ta, tb);
}
void ShEvalBand(const float* x, const float* y, const float* z, size_t len, float* dst, int band) {
  shk::EvalBand(x, y, z, len, dst, band);
}
void ShForward(const float* x, const float* y, const float* z, const float* const* src,
               size_t srcStep, int channels, size_t len, float* const* coeffs, int order,
               const float* ta, const float* tb) {
  shk::Forward(x, y, z, src, srcStep, channels, len, coeffs, order, ta, tb);
}
void ShInverse(const float* const* coeffs, int channels, int order, const float* x, const float* y,
               const float* z, float* const* dst, size_t dstStep, size_t len, const float* ta,
               const float* tb) {
  shk::Inverse(coeffs, channels, order, x, y, z, dst, dstStep, len, ta, tb);
}

}  // namespace HWY_NAMESPACE
}  // namespace velr
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "sh/kernels.h"

namespace velr {

HWY_EXPORT(ShEvalBasis);
HWY_EXPORT(ShEvalBand);
HWY_EXPORT(ShForward);
HWY_EXPORT(ShInverse);

namespace sh {

void evalBasis(const float* x, const float* y, const float* z, size_t len, float* dst, int order,
               Tables tables) {
  HWY_DYNAMIC_DISPATCH(ShEvalBasis)(x, y, z, len, dst, order, tables.a, tables.b);
}

void evalBand(const float* x, const float* y, const float* z, size_t len, float* dst, int band) {
  HWY_DYNAMIC_DISPATCH(ShEvalBand)(x, y, z, len, dst, band);
}

void forward(const float* x, const float* y, const float* z, const float* const* src,
             size_t srcStep, int channels, size_t len, float* const* coeffs, int order,
             Tables tables) {
  HWY_DYNAMIC_DISPATCH(ShForward)
  (x, y, z, src, srcStep, channels, len, coeffs, order, tables.a, tables.b);
}

void inverse(const float* const* coeffs, int channels, int order, const float* x, const float* y,
             const float* z, float* const* dst, size_t dstStep, size_t len, Tables tables) {
  HWY_DYNAMIC_DISPATCH(ShInverse)
  (coeffs, channels, order, x, y, z, dst, dstStep, len, tables.a, tables.b);
}

}  // namespace sh
}  // namespace velr
#endif  // HWY_ONCE
