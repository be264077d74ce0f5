// 3-D convolution of the int16 256^3 workload volume: binomial 3x3x3 and
// 5x5x5 kernels (dedicated paths) and a 7x3x3 binomial (generic path), on
// one and two threads. Items are output voxels.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "velr.h"
#include "workloads/workloads.h"

namespace {

constexpr int kN = 256;
constexpr int kBorder = 3;  // enough for every kernel below
constexpr int kPadded = kN + 2 * kBorder;

// The workload volume, edge-replicated by kBorder voxels on every side so
// that every output voxel has its full neighbourhood.
struct PaddedVolume {
  std::vector<Vel16s> voxels;
  std::vector<const Vel16s*> planes;  // one per padded plane
  PaddedVolume() : voxels(static_cast<size_t>(kPadded) * kPadded * kPadded), planes(kPadded) {
    const std::vector<double> v = velr::workloads::volumeContent(kN, 2024);
    auto clampN = [](int i) { return i < 0 ? 0 : (i >= kN ? kN - 1 : i); };
    for (int z = 0; z < kPadded; ++z)
      for (int y = 0; y < kPadded; ++y)
        for (int x = 0; x < kPadded; ++x) {
          const size_t src = (static_cast<size_t>(clampN(z - kBorder)) * kN + clampN(y - kBorder)) * kN +
                             clampN(x - kBorder);
          voxels[(static_cast<size_t>(z) * kPadded + y) * kPadded + x] =
              static_cast<Vel16s>(std::nearbyint(4095 * v[src]));
        }
    for (int z = 0; z < kPadded; ++z)
      planes[z] = voxels.data() + (static_cast<size_t>(z) * kPadded + kBorder) * kPadded + kBorder;
  }
};

const PaddedVolume& source() {
  static const PaddedVolume volume;
  return volume;
}

// Separable binomial kernels as a full 3-D array (x fastest).
std::vector<Vel32s> outer(const std::vector<int>& kx, const std::vector<int>& ky, const std::vector<int>& kz) {
  std::vector<Vel32s> k;
  for (int c : kz)
    for (int b : ky)
      for (int a : kx) k.push_back(a * b * c);
  return k;
}

void runFilter(benchmark::State& state, const std::vector<Vel32s>& kernel, VelrVolume kv, int divisor) {
  const int threads = static_cast<int>(state.range(0));
  velSetNumThreads(threads);
  const PaddedVolume& src = source();
  std::vector<Vel16s> dst(static_cast<size_t>(kN) * kN * kN);
  std::vector<Vel16s*> dstPlanes(kN);
  for (int z = 0; z < kN; ++z) dstPlanes[z] = dst.data() + static_cast<size_t>(z) * kN * kN;
  const VelrVolume dv{kN, kN, kN};
  const VelrPoint anchor{kv.width / 2, kv.height / 2, kv.depth / 2};
  int size = 0;
  velrFilterGetBufSize(dv, kv, 1, &size);
  std::vector<Vel8u> buffer(size);
  for (auto _ : state) {
    const VelStatus st = velrFilter_16s_C1PV(src.planes.data() + kBorder, 2 * kPadded, dstPlanes.data(), 2 * kN,
                                             dv, kernel.data(), kv, anchor, divisor, buffer.data());
    if (st != velStsNoErr) state.SkipWithError("filter failed");
    benchmark::ClobberMemory();
  }
  velSetNumThreads(0);
  const int64_t taps = static_cast<int64_t>(kv.width) * kv.height * kv.depth;
  state.SetItemsProcessed(state.iterations() * kN * kN * kN);
  state.counters["MAC/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * kN * kN * kN * taps,
                                               benchmark::Counter::kIsRate);
}

void BM_Filter3x3x3(benchmark::State& state) {
  runFilter(state, outer({1, 2, 1}, {1, 2, 1}, {1, 2, 1}), {3, 3, 3}, 64);
}
void BM_Filter5x5x5(benchmark::State& state) {
  runFilter(state, outer({1, 4, 6, 4, 1}, {1, 4, 6, 4, 1}, {1, 4, 6, 4, 1}), {5, 5, 5}, 4096);
}
void BM_Filter7x3x3(benchmark::State& state) {
  runFilter(state, outer({1, 6, 15, 20, 15, 6, 1}, {1, 2, 1}, {1, 2, 1}), {7, 3, 3}, 1024);
}

BENCHMARK(BM_Filter3x3x3)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Filter5x5x5)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Filter7x3x3)->ArgName("threads")->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
