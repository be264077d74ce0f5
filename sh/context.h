// Internal view of a spherical-harmonic context: where its tables are and
// how the recurrence coefficients of one band are laid out in them.
#pragma once

#include <cstdint>

#include "velr.h"

namespace velr::sh {

inline constexpr Vel32u kMaxBand = 15;
inline constexpr int kMaxValues = (kMaxBand + 1) * (kMaxBand + 1);

// Number of basis values of bands 0..order.
inline constexpr int valueCount(int order) { return (order + 1) * (order + 1); }

// Floats per table: one per (l, m) with 0 <= m <= l <= order. Wraps like the
// size query, which works in unsigned 32-bit arithmetic.
inline Vel32u tableCount(Vel32u order) { return (order + 1u) * (order + 2u) / 2u; }

// The coefficients of band l >= 2 start at l (l + 1) / 2 in both tables: the
// three seeds fill bands 0 and 1, and every block of l + 1 floats follows
// the previous one.
inline constexpr int bandBlock(int l) { return l * (l + 1) / 2; }

// Table positions are byte offsets from the context; 0 means no table.
inline const Vel32f* tableA(const VelrSHState* s) {
  return s->tableA ? reinterpret_cast<const Vel32f*>(reinterpret_cast<const char*>(s) + s->tableA)
                   : nullptr;
}
inline const Vel32f* tableB(const VelrSHState* s) {
  return s->tableB ? reinterpret_cast<const Vel32f*>(reinterpret_cast<const char*>(s) + s->tableB)
                   : nullptr;
}

}  // namespace velr::sh
