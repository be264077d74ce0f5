// KD-tree build and eye-ray intersection on the standard meshes and camera:
// build time, tree statistics, and rays per second through the packet path
// and the one-ray path, one thread, 16 x 16 blocks in the standard order.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>

#include "intersect_common.h"

namespace {

using velr::bench::EyeRays;
using velr::bench::Scene;

Scene& sceneNamed(const std::string& name) {
  static std::map<std::string, std::unique_ptr<Scene>> scenes;
  auto& s = scenes[name];
  if (!s) {
    s = std::make_unique<Scene>(name);
    s->build(velr::bench::benchTreeOptions());
  }
  return *s;
}

void BM_Build(benchmark::State& state, std::string name, float quality) {
  Scene& scene = sceneNamed(name);
  VelrKDTreeBuildOptions opt = velr::bench::benchTreeOptions();
  opt.qualityFactor = quality;
  for (auto _ : state) {
    if (scene.build(opt) != velStsNoErr) state.SkipWithError("build failed");
  }
  const velr::bench::TreeCounts c = velr::bench::countTree(scene.tree);
  const double n = scene.mesh->triangleCount();
  state.counters["triangles/s"] =
      benchmark::Counter(n, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["MB"] = scene.treeLength / 1048576.0;
  state.counters["nodes"] = static_cast<double>(c.nodes);
  state.counters["leaves"] = static_cast<double>(c.leaves);
  state.counters["empty"] = static_cast<double>(c.emptyLeaves);
  state.counters["tris/leaf"] = c.references / static_cast<double>(c.leaves - c.emptyLeaves);
  state.counters["depth"] = c.depth;
  // Leave the benchmark tree in place for the tracing benchmarks.
  scene.build(velr::bench::benchTreeOptions());
}

void BM_Eye(benchmark::State& state, std::string name, bool packets) {
  Scene& scene = sceneNamed(name);
  static EyeRays aligned(false), misaligned(true);
  EyeRays& rays = packets ? aligned : misaligned;
  const VelrIntersectObject obj = scene.object();
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) rays.traceVelr(obj, &hits, &sumT);
  state.counters["rays/s"] = benchmark::Counter(rays.blocks() * 256.0,
                                                benchmark::Counter::kIsIterationInvariantRate);
  state.counters["hits"] = static_cast<double>(hits);
  state.counters["sum_t"] = sumT;
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
    benchmark::RegisterBenchmark(("EyePackets/" + std::string(name)).c_str(), BM_Eye, name, true)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("EyeOneRay/" + std::string(name)).c_str(), BM_Eye, name, false)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  return 0;
}
const int registered = registerAll();

}  // namespace

BENCHMARK_MAIN();
