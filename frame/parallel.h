// The one place where parallel regions are opened. Every parallel operation
// of the library splits its work into slabs the same way, so that results
// never depend on the thread count and the split is written once.
#pragma once

#include <omp.h>

#include "velcore.h"

namespace velr {

// Runs fn(first, count, threadIndex, threadCount) over [0, total) on up to
// nThreads threads. The master computes the slab size once, a barrier makes
// it visible to the team, and the last thread also takes the remainder.
// With one thread (requested or granted) fn runs once in the calling thread.
template <class Fn>
void parallelSlabs(int nThreads, int total, Fn&& fn) {
  if (total < 1) return;
  if (nThreads <= 1) {
    fn(0, total, 0, 1);
    return;
  }
  int chunk = 0;
  int remainder = 0;
#pragma omp parallel num_threads(nThreads)
  {
    const int team = omp_get_num_threads();
    const int id = omp_get_thread_num();
#pragma omp master
    {
      chunk = total / team;
      remainder = total % team;
    }
#pragma omp barrier
    const int first = id * chunk;
    const int count = chunk + (id == team - 1 ? remainder : 0);
    if (count > 0) fn(first, count, id, team);
  }
}

// Runs fn(index) for index 0 .. n-1 on a team of exactly n threads where the
// runtime grants them; with fewer threads granted, each thread takes the
// indices congruent to its own, so every index runs exactly once.
template <class Fn>
void parallelTeam(int n, Fn&& fn) {
  if (n <= 1) {
    if (n == 1) fn(0);
    return;
  }
#pragma omp parallel num_threads(n)
  {
    const int team = omp_get_num_threads();
    for (int i = omp_get_thread_num(); i < n; i += team) fn(i);
  }
}

// The thread count for a call over `total` units that wants at least
// `minPerThread` units per thread.
inline int threadsFor(int total, int minPerThread) {
  int n = ownGetNumThreads();
  if (minPerThread > 1 && total / minPerThread < n) n = total / minPerThread;
  return n < 1 ? 1 : n;
}

}  // namespace velr
