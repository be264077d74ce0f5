#include <algorithm>
#include <cmath>

#include "workloads/workloads.h"

namespace velr::workloads {

std::vector<double> volumeContent(int n, std::uint64_t seed) {
  struct Wave {
    double kx, ky, kz, ph, a;
  };
  SplitMix64 rng(seed);
  Wave waves[6];
  for (Wave& w : waves) {
    w.kx = rng.uniform(-4, 4);
    w.ky = rng.uniform(-4, 4);
    w.kz = rng.uniform(-4, 4);
    w.ph = rng.uniform(0, 2 * M_PI);
    w.a = rng.uniform(0.05, 0.12);
  }
  std::vector<double> v(static_cast<size_t>(n) * n * n);
  size_t i = 0;
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        double s = 0.5;
        for (const Wave& w : waves)
          s += w.a * std::sin(2 * M_PI * (w.kx * x + w.ky * y + w.kz * z) / n + w.ph);
        v[i++] = std::clamp(s, 0.0, 1.0);
      }
  return v;
}

}  // namespace velr::workloads
