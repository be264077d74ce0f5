// Triangle-record construction on the 1M-triangle mesh.
#include <benchmark/benchmark.h>

#include <vector>

#include "velr.h"
#include "workloads/workloads.h"

namespace {

const velr::workloads::Mesh& bumpy1M() {
  static const velr::workloads::Mesh mesh = velr::workloads::makeBumpySphere(224);
  return mesh;
}

void BM_TriangleAccelInit(benchmark::State& state) {
  const auto& mesh = bumpy1M();
  std::vector<VelrTriangleAccel> records(mesh.triangleCount());
  for (auto _ : state) {
    velrTriangleAccelInit(records.data(), mesh.vertices.data(), mesh.indices.data(),
                          mesh.triangleCount());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * mesh.triangleCount());
  state.SetBytesProcessed(state.iterations() * mesh.triangleCount() *
                          static_cast<int64_t>(sizeof(VelrTriangleAccel)));
  state.counters["triangles"] = mesh.triangleCount();
}
BENCHMARK(BM_TriangleAccelInit)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
