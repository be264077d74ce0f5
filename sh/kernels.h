// Entry points of the spherical-harmonic kernels, dispatched to the best
// SIMD target at run time. They check nothing: the front ends have.
#pragma once

#include <cstddef>

namespace velr::sh {

// Recurrence tables of a context; `a` null selects the closed form.
struct Tables {
  const float* a;
  const float* b;
};

// (order + 1)^2 values per direction, direction-major.
void evalBasis(const float* x, const float* y, const float* z, size_t len, float* dst, int order,
               Tables tables);

// The 2 band + 1 closed-form values of one band per direction.
void evalBand(const float* x, const float* y, const float* z, size_t len, float* dst, int band);

// Channel c of sample i is src[c][i * srcStep]; coefficient vector c is
// coeffs[c]. channels is 1 or 3.
void forward(const float* x, const float* y, const float* z, const float* const* src,
             size_t srcStep, int channels, size_t len, float* const* coeffs, int order,
             Tables tables);

// Writes channel c of sample i to dst[c][i * dstStep].
void inverse(const float* const* coeffs, int channels, int order, const float* x, const float* y,
             const float* z, float* const* dst, size_t dstStep, size_t len, Tables tables);

}  // namespace velr::sh
