// Spherical harmonics over 1M unit directions: the basis at orders 1 to 15
// by both algorithms and the band evaluator, each beside memcpy of the same
// output size (the bandwidth bound of writing it), and the transforms.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "velr.h"
#include "workloads/workloads.h"

namespace {

constexpr int kDirections = 1 << 20;

struct Directions {
  std::vector<float> x, y, z;
};

const Directions& directions() {
  static const Directions d = [] {
    Directions r;
    velr::workloads::SplitMix64 rng(4242);
    for (int i = 0; i < kDirections; ++i) {
      const double z = rng.uniform(-1, 1), phi = rng.uniform(0, 2 * 3.141592653589793);
      const double s = std::sqrt(1 - z * z);
      r.x.push_back(static_cast<float>(s * std::cos(phi)));
      r.y.push_back(static_cast<float>(s * std::sin(phi)));
      r.z.push_back(static_cast<float>(z));
    }
    return r;
  }();
  return d;
}

struct Context {
  std::vector<float> storage;
  Context(Vel32u order, int algorithm) {
    int size = 0;
    velrSHGetSize_32f(order, algorithm, &size);
    storage.assign(size / 4 + 1, 0.0f);
    velrSHInit_32f(state(), order, algorithm);
  }
  VelrSHState* state() { return reinterpret_cast<VelrSHState*>(storage.data()); }
};

void setOutputCounters(benchmark::State& state, int64_t valuesPerDirection) {
  state.SetItemsProcessed(state.iterations() * kDirections);
  state.SetBytesProcessed(state.iterations() * kDirections * valuesPerDirection * 4);
}

// Copies as many bytes as velrSH_32f of the same order writes.
void BM_Memcpy(benchmark::State& state) {
  const int order = static_cast<int>(state.range(0));
  const size_t n = size_t{kDirections} * (order + 1) * (order + 1);
  std::vector<float> src(n, 1.0f), dst(n, 0.0f);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), n * 4);
    benchmark::ClobberMemory();
  }
  setOutputCounters(state, (order + 1) * (order + 1));
}

void BM_SH(benchmark::State& state) {
  const int order = static_cast<int>(state.range(0));
  const int algorithm = static_cast<int>(state.range(1));
  const Directions& d = directions();
  Context ctx(order, algorithm);
  std::vector<float> out(size_t{kDirections} * (order + 1) * (order + 1), 0.0f);
  for (auto _ : state) {
    velrSH_32f(d.x.data(), d.y.data(), d.z.data(), kDirections, out.data(), order, ctx.state());
    benchmark::ClobberMemory();
  }
  setOutputCounters(state, (order + 1) * (order + 1));
}

void BM_SHBand(benchmark::State& state) {
  const int band = static_cast<int>(state.range(0));
  const Directions& d = directions();
  std::vector<float> out(size_t{kDirections} * (2 * band + 1), 0.0f);
  for (auto _ : state) {
    velrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), kDirections, out.data(), band);
    benchmark::ClobberMemory();
  }
  setOutputCounters(state, 2 * band + 1);
}

enum Transform { kFwdC1, kFwdC3P3, kFwdP3, kInvC1, kInvP3, kInvP3C3 };

void BM_Transform(benchmark::State& state) {
  const auto kind = static_cast<Transform>(state.range(0));
  const int order = static_cast<int>(state.range(1));
  const int algorithm = static_cast<int>(state.range(2));
  const int nv = (order + 1) * (order + 1);
  const Directions& d = directions();
  Context ctx(order, algorithm);
  std::vector<float> samples(3 * size_t{kDirections}, 0.5f), coeffs(3 * nv, 0.25f);
  float* c[3] = {coeffs.data(), coeffs.data() + nv, coeffs.data() + 2 * nv};
  float* p[3] = {samples.data(), samples.data() + kDirections, samples.data() + 2 * kDirections};
  const float* cp[3] = {c[0], c[1], c[2]};
  const float* pp[3] = {p[0], p[1], p[2]};
  for (auto _ : state) {
    switch (kind) {
      case kFwdC1:
        velrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), p[0], kDirections, c[0], order,
                           ctx.state());
        break;
      case kFwdC3P3:
        velrSHTFwd_32f_C3P3I(d.x.data(), d.y.data(), d.z.data(), p[0], kDirections, c, order,
                             ctx.state());
        break;
      case kFwdP3:
        velrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), pp, kDirections, c, order,
                           ctx.state());
        break;
      case kInvC1:
        velrSHTInv_32f_C1(c[0], order, d.x.data(), d.y.data(), d.z.data(), p[0], kDirections,
                          ctx.state());
        break;
      case kInvP3:
        velrSHTInv_32f_P3(cp, order, d.x.data(), d.y.data(), d.z.data(), p, kDirections,
                          ctx.state());
        break;
      case kInvP3C3:
        velrSHTInv_32f_P3C3(cp, order, d.x.data(), d.y.data(), d.z.data(), p[0], kDirections,
                            ctx.state());
        break;
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kDirections);
}

void orders(benchmark::internal::Benchmark* b) {
  for (int order : {1, 2, 3, 5, 7, 10, 15}) b->Arg(order);
}
void ordersAndAlgorithms(benchmark::internal::Benchmark* b) {
  for (int order : {1, 2, 3, 5, 7, 10, 15}) {
    for (int algorithm : {0, 1}) b->Args({order, algorithm});
  }
}
void transforms(benchmark::internal::Benchmark* b) {
  for (int kind = kFwdC1; kind <= kInvP3C3; ++kind) {
    for (int order : {3, 7}) {
      for (int algorithm : {0, 1}) b->Args({kind, order, algorithm});
    }
  }
}

BENCHMARK(BM_Memcpy)->Apply(orders)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SH)->Apply(ordersAndAlgorithms)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SHBand)->Apply(orders)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Transform)->Apply(transforms)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
