// Every family at once from eight threads on shared read-only inputs, many
// rounds, compared bit for bit with a serial run on one thread: the library
// keeps no state between calls, so neither interleaving nor the thread count
// of the parallel operations may change a single bit.
#include <gtest/gtest.h>

#include <barrier>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "tests/reliability/jobs.h"
#include "velcore.h"

namespace velr::reliability {
namespace {

std::vector<Job> allJobs() {
  std::vector<Job> jobs;
  addShadeJobs(jobs);
  addShJobs(jobs);
  addVolumeJobs(jobs);
  return jobs;
}

int rounds() {
  const char* e = std::getenv("VELR_CONCURRENCY_ROUNDS");
  return e != nullptr && std::atoi(e) > 0 ? std::atoi(e) : 25;
}

// Runs `jobs` from `nThreads` threads for `nRounds` rounds, each thread in
// its own order, every round started together; returns the mismatches.
std::vector<std::string> runConcurrently(const std::vector<Job>& jobs,
                                         const std::vector<std::vector<uint8_t>>& serial,
                                         int nThreads, int nRounds) {
  std::mutex lock;
  std::vector<std::string> faults;
  std::barrier start(nThreads);
  std::vector<std::thread> threads;
  const size_t n = jobs.size();
  for (int t = 0; t < nThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int r = 0; r < nRounds; ++r) {
        start.arrive_and_wait();
        for (size_t k = 0; k < n; ++k) {
          // Threads walk the jobs with different strides and starts, so
          // different families overlap in every round.
          const size_t j = (k * (2 * t + 1) + t + r) % n;
          if (jobs[j].run().data() != serial[j]) {
            std::lock_guard<std::mutex> g(lock);
            faults.push_back(jobs[j].name + " (thread " + std::to_string(t) + ", round " +
                             std::to_string(r) + ")");
          }
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  return faults;
}

std::vector<std::vector<uint8_t>> serialResults(const std::vector<Job>& jobs) {
  velSetNumThreads(1);
  std::vector<std::vector<uint8_t>> out;
  for (const Job& j : jobs) {
    const Bytes b = j.run();
    EXPECT_EQ(b.lastStatus(), 0) << j.name;
    out.push_back(b.data());
  }
  return out;
}

TEST(Concurrency, EveryFamilyFromEightThreadsMatchesSerialRun) {
  const std::vector<Job> jobs = allJobs();
  const auto serial = serialResults(jobs);
  velSetNumThreads(3);  // the parallel operations open teams of their own
  const auto faults = runConcurrently(jobs, serial, 8, rounds());
  velSetNumThreads(0);
  EXPECT_TRUE(faults.empty()) << faults.size() << " mismatches, first: " << faults.front();
}

TEST(Concurrency, ParallelOperationsFromSeveralThreadsAtOnce) {
  std::vector<Job> jobs;
  for (Job& j : allJobs())
    if (j.parallel) jobs.push_back(std::move(j));
  ASSERT_FALSE(jobs.empty());
  const auto serial = serialResults(jobs);
  for (int team : {2, 4}) {
    velSetNumThreads(team);
    const auto faults = runConcurrently(jobs, serial, 4, rounds());
    EXPECT_TRUE(faults.empty()) << "teams of " << team << ": " << faults.size()
                                << " mismatches, first: " << faults.front();
  }
  velSetNumThreads(0);
}

}  // namespace
}  // namespace velr::reliability
