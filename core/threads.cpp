// The thread count that library calls use: an explicit setting, or OpenMP's
// maximum so that OMP_NUM_THREADS is honoured without any call of ours.
#include <omp.h>

#include <atomic>

#include "velcore.h"

namespace {
std::atomic<int> g_numThreads{0};  // 0: follow OpenMP
}

extern "C" {

int ownGetNumThreads(void) {
  int n = g_numThreads.load(std::memory_order_relaxed);
  if (n > 0) return n;
  n = omp_get_max_threads();
  return n > 0 ? n : 1;
}

void velSetNumThreads(int n) { g_numThreads.store(n < 1 ? 0 : n, std::memory_order_relaxed); }

}  // extern "C"
