// Processor features read once with cpuid. The AVX families count only when
// the operating system saves their registers (XCR0), since an instruction the
// OS does not support is as unusable as one the processor lacks.
#include <cpuid.h>

#include <cstdint>

#include "velcore.h"

namespace {

struct CpuidRegs {
  unsigned a = 0, b = 0, c = 0, d = 0;
};

CpuidRegs cpuid(unsigned leaf, unsigned sub) {
  CpuidRegs r;
  __cpuid_count(leaf, sub, r.a, r.b, r.c, r.d);
  return r;
}

std::uint64_t readXcr0() {
  unsigned lo = 0, hi = 0;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  return (static_cast<std::uint64_t>(hi) << 32) | lo;
}

unsigned long long detect() {
  const unsigned maxLeaf = static_cast<unsigned>(__get_cpuid_max(0, nullptr));
  if (maxLeaf < 1) return 0;
  const CpuidRegs l1 = cpuid(1, 0);
  unsigned long long f = 0;
  auto set = [&f](bool on, unsigned long long bit) {
    if (on) f |= bit;
  };
  set(l1.d & (1u << 23), VEL_CPU_MMX);
  set(l1.d & (1u << 25), VEL_CPU_SSE);
  set(l1.d & (1u << 26), VEL_CPU_SSE2);
  set(l1.c & (1u << 0), VEL_CPU_SSE3);
  set(l1.c & (1u << 9), VEL_CPU_SSSE3);
  set(l1.c & (1u << 22), VEL_CPU_MOVBE);
  set(l1.c & (1u << 19), VEL_CPU_SSE41);
  set(l1.c & (1u << 20), VEL_CPU_SSE42);
  set(l1.c & (1u << 25), VEL_CPU_AES);
  set(l1.c & (1u << 1), VEL_CPU_CLMUL);
  set(l1.c & (1u << 23), VEL_CPU_POPCNT);

  const bool osxsave = (l1.c & (1u << 27)) != 0;
  const std::uint64_t xcr0 = osxsave ? readXcr0() : 0;
  const bool ymmSaved = (xcr0 & 0x6) == 0x6;
  const bool zmmSaved = (xcr0 & 0xE6) == 0xE6;
  const bool avx = ymmSaved && (l1.c & (1u << 28));
  set(avx, VEL_CPU_AVX);
  set(avx && (l1.c & (1u << 29)), VEL_CPU_F16C);
  set(avx && (l1.c & (1u << 12)), VEL_CPU_FMA3);

  if (maxLeaf >= 7) {
    const CpuidRegs l7 = cpuid(7, 0);
    set(avx && (l7.b & (1u << 5)), VEL_CPU_AVX2);
    set(l7.b & (1u << 3), VEL_CPU_BMI1);
    set(l7.b & (1u << 8), VEL_CPU_BMI2);
    const bool avx512 = avx && zmmSaved;
    set(avx512 && (l7.b & (1u << 16)), VEL_CPU_AVX512F);
    set(avx512 && (l7.b & (1u << 28)), VEL_CPU_AVX512CD);
    set(avx512 && (l7.b & (1u << 30)), VEL_CPU_AVX512BW);
    set(avx512 && (l7.b & (1u << 17)), VEL_CPU_AVX512DQ);
    set(avx512 && (l7.b & (1u << 31)), VEL_CPU_AVX512VL);
  }
  if (static_cast<unsigned>(__get_cpuid_max(0x80000000u, nullptr)) >= 0x80000001u) {
    const CpuidRegs e1 = cpuid(0x80000001u, 0);
    set(e1.c & (1u << 5), VEL_CPU_LZCNT);
  }
  return f;
}

}  // namespace

extern "C" {

unsigned long long velGetEnabledCpuFeatures(void) {
  // Function-local static: thread-safe one-time detection.
  static const unsigned long long features = detect();
  return features;
}

int ownGetFeature(unsigned long long mask, int /*reserved*/) {
  return mask != 0 && (velGetEnabledCpuFeatures() & mask) == mask ? 1 : 0;
}

}  // extern "C"
