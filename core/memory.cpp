// Aligned allocation with a test hook that makes a chosen call fail, so that
// callers' failure paths can be exercised deterministically.
#include <atomic>
#include <cstdlib>

#include "velcore.h"

namespace {

// Countdown to the injected failure: 0 means disarmed.
std::atomic<int> g_failCountdown{0};
std::atomic<long> g_liveBlocks{0};

constexpr std::size_t kAlignment = 64;

bool consumeInjectedFailure() {
  int k = g_failCountdown.load(std::memory_order_relaxed);
  while (k > 0) {
    if (g_failCountdown.compare_exchange_weak(k, k - 1, std::memory_order_relaxed)) return k == 1;
  }
  return false;
}

}  // namespace

extern "C" {

void* velMalloc(int size) {
  if (size < 1) return nullptr;
  if (consumeInjectedFailure()) return nullptr;
  // aligned_alloc wants a size that is a multiple of the alignment.
  std::size_t bytes = (static_cast<std::size_t>(size) + kAlignment - 1) & ~(kAlignment - 1);
  void* p = std::aligned_alloc(kAlignment, bytes);
  if (p != nullptr) g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void velFree(void* ptr) {
  if (ptr == nullptr) return;
  g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(ptr);
}

void velTestFailMallocAfter(int k) { g_failCountdown.store(k < 1 ? 0 : k); }

long velTestLiveBlocks(void) { return g_liveBlocks.load(); }

}  // extern "C"
