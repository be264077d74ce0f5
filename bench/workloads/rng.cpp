#include "workloads/workloads.h"

namespace velr::workloads {

std::uint64_t SplitMix64::next() {
  s_ += 0x9E3779B97F4A7C15ull;
  std::uint64_t z = s_;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

double SplitMix64::uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

double SplitMix64::uniform(double a, double b) { return a + (b - a) * uniform(); }

}  // namespace velr::workloads
