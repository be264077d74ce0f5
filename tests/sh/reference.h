// Test helpers: contexts, random directions, and a long-double reference of
// the real spherical harmonics by a route independent of the library:
// associated Legendre values from the upward recurrence in l, (x + iy)^m by
// complex multiplication, factorials by products.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "velr.h"

namespace velr::test {

// A context for `order` and `algorithm` in a 16-byte aligned buffer
// (malloc's alignment).
struct SHContext {
  std::vector<float> storage;
  SHContext(Vel32u order, int algorithm) {
    int size = 0;
    velrSHGetSize_32f(order, algorithm, &size);
    storage.assign(size / 4 + 1, 0.0f);
    velrSHInit_32f(state(), order, algorithm);
  }
  VelrSHState* state() { return reinterpret_cast<VelrSHState*>(storage.data()); }
};

// Values of bands 0..order at (x, y, z), index l^2 + l + m. The polynomials
// are evaluated as they stand, so a direction of length not exactly one
// gives the polynomials' values there, as the library does.
inline std::vector<long double> referenceBasis(long double x, long double y, long double z,
                                               int order) {
  // sqrt((2l + 1) / (4 pi) * (l - m)! / (l + m)!), once for all calls.
  static const std::vector<long double> norms = [] {
    const long double pi = 3.14159265358979323846264338327950288L;
    std::vector<long double> k(16 * 16);
    for (int l = 0; l < 16; ++l) {
      for (int m = 0; m <= l; ++m) {
        long double ratio = 1;
        for (int f = l - m + 1; f <= l + m; ++f) ratio /= f;
        k[l * 16 + m] = std::sqrt((2 * l + 1) / (4 * pi) * ratio);
      }
    }
    return k;
  }();
  std::vector<long double> out((order + 1) * (order + 1));
  long double re = 1, im = 0;  // (x + iy)^m
  long double dfact = 1;       // (2m - 1)!!
  for (int m = 0; m <= order; ++m) {
    if (m > 0) dfact *= 2 * m - 1;
    // q[l] = d^m P_l / dz^m: (2m - 1)!! at l = m, then the three-term rule.
    long double q[16];
    q[m] = dfact;
    if (m + 1 <= order) q[m + 1] = z * (2 * m + 1) * q[m];
    for (int l = m + 2; l <= order; ++l) {
      q[l] = ((2 * l - 1) * z * q[l - 1] - (l + m - 1) * q[l - 2]) / (l - m);
    }
    for (int l = m; l <= order; ++l) {
      if (m == 0) {
        out[l * l + l] = norms[l * 16] * q[l];
      } else {
        const long double n = (m % 2 ? -1 : 1) * std::sqrt(2.0L) * norms[l * 16 + m] * q[l];
        out[l * l + l + m] = n * re;
        out[l * l + l - m] = n * im;
      }
    }
    const long double r = re * x - im * y;
    im = im * x + re * y;
    re = r;
  }
  return out;
}

// splitmix64 directions, uniform on the sphere, computed in double and
// rounded to float once.
struct Directions {
  std::vector<float> x, y, z;
};
inline Directions randomDirections(int n, std::uint64_t seed) {
  Directions d;
  std::uint64_t s = seed;
  auto next = [&s] {
    s += 0x9E3779B97F4A7C15ull;
    std::uint64_t v = s;
    v = (v ^ (v >> 30)) * 0xBF58476D1CE4E5B9ull;
    v = (v ^ (v >> 27)) * 0x94D049BB133111EBull;
    return static_cast<double>((v ^ (v >> 31)) >> 11) * 0x1p-53;
  };
  for (int i = 0; i < n; ++i) {
    const double z = 2 * next() - 1, phi = 2 * 3.141592653589793 * next();
    const double r = std::sqrt(std::fmax(0.0, 1 - z * z));
    d.x.push_back(static_cast<float>(r * std::cos(phi)));
    d.y.push_back(static_cast<float>(r * std::sin(phi)));
    d.z.push_back(static_cast<float>(z));
  }
  return d;
}

}  // namespace velr::test
