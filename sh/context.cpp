// Spherical-harmonic context: size query and initialisation in the caller's
// buffer. The recurrence coefficients are computed in double and rounded to
// float once, so a table is the same on every processor.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "sh/context.h"
#include "velr.h"

namespace {

using velr::sh::tableCount;

constexpr Vel32u kClosedFormSize = 16;

// Room for the header and both tables when the buffer is 16-byte aligned:
// 16 + (4T rounded up to 16) + 4T never exceeds 8T rounded up to 32, plus 16.
Vel32u recurrenceSize(Vel32u order) {
  const Vel32u t = tableCount(order);
  return ((t * 8u + 30u) & ~31u) + 16u;
}

std::uintptr_t roundUp16(std::uintptr_t p) { return (p + 15u) & ~std::uintptr_t{15}; }

void storeBits(float* dst, std::uint32_t bits) { std::memcpy(dst, &bits, sizeof bits); }

// Coefficients of band l (>= 2) into blocks of l + 1 floats; see the
// recurrence in basis-inl.h for how they are used.
void fillBand(Vel32u band, float* a, float* b) {
  const double l = band;
  const double ll = l * l;
  for (Vel32u mi = 0; mi < band; ++mi) {
    const double m = mi;
    a[mi] = static_cast<float>(std::sqrt((4.0 * ll - 1.0) / (ll - m * m)));
  }
  a[band] = static_cast<float>(-std::sqrt((2.0 * l + 1.0) / (2.0 * l)));
  // The three-term rule reaches back two bands only for |m| <= l - 2; the
  // m = l - 1 entry is zero, as is the sectoral slot. Both are written: with
  // a buffer that is not 16-byte aligned the end of table B lies beyond the
  // cleared size.
  b[band - 1] = 0.0f;
  b[band] = 0.0f;
  b[0] = static_cast<float>(-((l - 1.0) / l) * std::sqrt((2.0 * l + 1.0) / (2.0 * l - 3.0)));
  for (Vel32u mi = 1; mi + 2 <= band; ++mi) {
    const double m = mi;
    b[mi] = static_cast<float>(-std::sqrt((2.0 * l + 1.0) * ((l - 1.0) * (l - 1.0) - m * m) /
                                          ((2.0 * l - 3.0) * (ll - m * m))));
  }
}

}  // namespace

extern "C" {

VelStatus velrSHGetSize_32f(Vel32u order, int algorithm, int* pSize) {
  if (pSize == nullptr) return velStsNullPtrErr;
  if (algorithm == 0) {
    if (order > velr::sh::kMaxBand) return velStsSizeErr;
    *pSize = static_cast<int>(kClosedFormSize);
    return velStsNoErr;
  }
  if (algorithm == 1) {
    *pSize = static_cast<int>(recurrenceSize(order));
    return velStsNoErr;
  }
  return velStsRangeErr;
}

VelStatus velrSHInit_32f(VelrSHState* pSHState, Vel32u order, int algorithm) {
  if (pSHState == nullptr) return velStsNullPtrErr;
  if (algorithm == 0) {
    if (order > velr::sh::kMaxBand) return velStsSizeErr;
    std::memset(pSHState, 0, kClosedFormSize);
    pSHState->order = order;
    pSHState->algorithm = 0;
    return velStsNoErr;
  }
  if (algorithm != 1) return velStsRangeErr;

  std::memset(pSHState, 0, recurrenceSize(order));
  pSHState->order = order;
  pSHState->algorithm = 1;
  const Vel32u t = tableCount(order);
  const std::uintptr_t base = reinterpret_cast<std::uintptr_t>(pSHState);
  const std::uintptr_t posA = roundUp16(base) + 16u;
  const std::uintptr_t posB = roundUp16(posA + 4u * static_cast<std::uintptr_t>(t));
  pSHState->tableA = static_cast<Vel32u>(posA - base);
  pSHState->tableB = static_cast<Vel32u>(posB - base);
  float* a = reinterpret_cast<float*>(posA);
  float* b = reinterpret_cast<float*>(posB);

  // The seeds are fixed bit patterns: Y(0, 0) and +-sqrt(3 / (4 pi)).
  storeBits(a + 0, 0x3E906EBBu);
  storeBits(a + 1, 0x3EFA2A1Du);
  storeBits(a + 2, 0xBEFA2A1Du);
  b[0] = b[1] = b[2] = 0.0f;

  // Stop at the table's end, which a wrapped size query may have cut short.
  for (std::uint64_t l = 2; l <= order; ++l) {
    const std::uint64_t block = l * (l + 1) / 2;
    if (block + l >= t) break;
    fillBand(static_cast<Vel32u>(l), a + block, b + block);
  }
  return velStsNoErr;
}

}  // extern "C"
