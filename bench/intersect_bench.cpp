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

// The secondary rays of a mesh, made once per alignment.
velr::bench::SecondaryRays& secondary(const std::string& name, bool packets) {
  static std::map<std::string, std::unique_ptr<velr::bench::SecondaryRays>> made;
  auto& s = made[name + (packets ? "/p" : "/1")];
  if (!s) {
    EyeRays eye(false);
    s = std::make_unique<velr::bench::SecondaryRays>(sceneNamed(name), !packets, eye);
  }
  return *s;
}

void BM_Shadow(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  velr::bench::SecondaryRays& rays = secondary(name, packets);
  long blocked = 0;
  for (auto _ : state) blocked = rays.traceShadows(obj);
  state.counters["blocked"] = static_cast<double>(blocked);
}

void BM_Reflection(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  velr::bench::SecondaryRays& rays = secondary(name, packets);
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) rays.traceReflections(obj, &hits, &sumT);
  state.counters["hits"] = static_cast<double>(hits);
  state.counters["sum_t"] = sumT;
}

void BM_Layers(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = sceneNamed(name).object();
  velr::bench::SecondaryRays& rays = secondary(name, packets);
  long hits = 0;
  for (auto _ : state) hits = rays.traceLayers(obj);
  state.counters["hits"] = static_cast<double>(hits);
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
  for (const char* name : velr::bench::kMeshNames)
    for (bool packets : {true, false}) {
      const std::string suffix = std::string(packets ? "Packets/" : "OneRay/") + name;
      benchmark::RegisterBenchmark(("Shadow" + suffix).c_str(), BM_Shadow, name, packets)
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("Reflection" + suffix).c_str(), BM_Reflection, name, packets)
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("Layers" + suffix).c_str(), BM_Layers, name, packets)
          ->Unit(benchmark::kMillisecond);
    }
  return 0;
}
const int registered = registerAll();

}  // namespace

BENCHMARK_MAIN();
