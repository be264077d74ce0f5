// KD-tree build and eye-ray intersection on the standard meshes and camera:
// build time, tree statistics, and rays per second through the packet path
// and the one-ray path, one thread, 16 x 16 blocks in the standard order.
#include <benchmark/benchmark.h>

#include <string>

#include "intersect_common.h"

namespace {

using velr::bench::Scene;

void BM_Build(benchmark::State& state, std::string name, float quality) {
  Scene& scene = velr::bench::sceneNamed(name);
  VelrKDTreeBuildOptions opt = velr::bench::benchTreeOptions();
  opt.qualityFactor = quality;
  for (auto _ : state) {
    if (scene.build(opt) != velStsNoErr) state.SkipWithError("build failed");
  }
  state.counters["triangles/s"] = benchmark::Counter(
      scene.mesh->triangleCount(), benchmark::Counter::kIsIterationInvariantRate);
  velr::bench::treeCounters(state, scene);
  // Leave the benchmark tree in place for the tracing benchmarks.
  scene.build(velr::bench::benchTreeOptions());
}

int registerAll() {
  for (const char* name : velr::bench::kMeshNames) {
    for (float q : {0.5f, 1.0f})
      benchmark::RegisterBenchmark(("Build/" + std::string(name) + "/q" + std::to_string(q).substr(0, 3))
                                       .c_str(),
                                   BM_Build, name, q)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime()
          ->Iterations(2);
  }
  for (const char* name : velr::bench::kMeshNames) {
    benchmark::RegisterBenchmark(("EyePackets/" + std::string(name)).c_str(), velr::bench::velrEye, name, true)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("EyeOneRay/" + std::string(name)).c_str(), velr::bench::velrEye, name, false)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  for (const char* name : velr::bench::kMeshNames)
    for (bool packets : {true, false}) {
      const std::string suffix = std::string(packets ? "Packets/" : "OneRay/") + name;
      benchmark::RegisterBenchmark(("Shadow" + suffix).c_str(), velr::bench::velrShadow, name, packets)
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("Reflection" + suffix).c_str(), velr::bench::velrReflection, name, packets)
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("Layers" + suffix).c_str(), velr::bench::velrLayers, name, packets)
          ->Unit(benchmark::kMillisecond);
    }
  return 0;
}
const int registered = registerAll();

}  // namespace

BENCHMARK_MAIN();
