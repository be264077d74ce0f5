// Runs a body under each thread count of the sweep that proves results do
// not depend on the number of threads.
#pragma once

#include "velcore.h"

namespace velr::test {

inline constexpr int kThreadSweep[] = {1, 2, 3, 5};

template <class Fn>
void forEachThreadCount(Fn&& fn) {
  for (int n : kThreadSweep) {
    velSetNumThreads(n);
    fn(n);
  }
  velSetNumThreads(0);
}

}  // namespace velr::test
