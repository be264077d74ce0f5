// Remap of a 128^3 volume through its smooth displacement field, and affine
// warp of a 192^3 volume by a 30-degree rotation about z with a small shift:
// every element type, codes 1, 2, 4 and 6, one and two threads.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "velcore.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace {

constexpr int kRemapEdge = 128;
constexpr int kWarpEdge = 192;

// The standard volume of one element type, [z][y][x] without padding.
template <class T>
std::vector<T> standardVolume(int n) {
  const std::vector<double> v = velr::workloads::volumeContent(n, 2024);
  std::vector<T> out(v.size());
  for (size_t i = 0; i < v.size(); ++i) {
    if constexpr (sizeof(T) == 1) {
      out[i] = static_cast<T>(std::lround(255.0 * v[i]));
    } else if constexpr (sizeof(T) == 2) {
      out[i] = static_cast<T>(std::lround(65535.0 * v[i]));
    } else {
      out[i] = static_cast<T>(v[i]);
    }
  }
  return out;
}

template <class T>
std::vector<T*> planesOf(std::vector<T>& v, int n) {
  std::vector<T*> p(n);
  for (int z = 0; z < n; ++z) p[z] = v.data() + static_cast<size_t>(z) * n * n;
  return p;
}

// Identity grid plus 3 (2 field_c - 1) voxels per component c (x, y, z).
struct DisplacementMaps {
  std::vector<float> map[3];
  std::vector<float*> planes[3];
  DisplacementMaps() {
    const int n = kRemapEdge;
    for (int c = 0; c < 3; ++c) {
      const std::vector<double> field = velr::workloads::volumeContent(n, 99 + c);
      map[c].resize(field.size());
      for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
          for (int x = 0; x < n; ++x) {
            const size_t i = (static_cast<size_t>(z) * n + y) * n + x;
            const int base = c == 0 ? x : c == 1 ? y : z;
            map[c][i] = static_cast<float>(base + 3.0 * (2.0 * field[i] - 1.0));
          }
      planes[c] = planesOf(map[c], n);
    }
  }
};

const DisplacementMaps& displacement() {
  static const DisplacementMaps maps;
  return maps;
}

// Forward transform: rotation by 30 degrees about z around the centre, then
// the shift (2.5, -1.5, 0.75).
void standardRotation(double c[3][4]) {
  const double a = 30.0 * std::numbers::pi / 180.0;
  const double r[3][3] = {{std::cos(a), -std::sin(a), 0}, {std::sin(a), std::cos(a), 0}, {0, 0, 1}};
  const double centre = (kWarpEdge - 1) / 2.0;
  const double shift[3] = {2.5, -1.5, 0.75};
  for (int i = 0; i < 3; ++i) {
    double moved = 0;
    for (int k = 0; k < 3; ++k) {
      c[i][k] = r[i][k];
      moved += r[i][k] * centre;
    }
    c[i][3] = centre - moved + shift[i];
  }
}

VelStatus remapCall(Vel8u** s, Vel8u** d, const DisplacementMaps& m, int code) {
  const VelrVolume v = {kRemapEdge, kRemapEdge, kRemapEdge};
  return velrRemap_8u_C1PV(s, v, kRemapEdge, {0, 0, 0, kRemapEdge, kRemapEdge, kRemapEdge},
                           m.planes[0].data(), m.planes[1].data(), m.planes[2].data(),
                           kRemapEdge * 4, d, kRemapEdge, v, code);
}
VelStatus remapCall(Vel16u** s, Vel16u** d, const DisplacementMaps& m, int code) {
  const VelrVolume v = {kRemapEdge, kRemapEdge, kRemapEdge};
  return velrRemap_16u_C1PV(s, v, kRemapEdge * 2, {0, 0, 0, kRemapEdge, kRemapEdge, kRemapEdge},
                            m.planes[0].data(), m.planes[1].data(), m.planes[2].data(),
                            kRemapEdge * 4, d, kRemapEdge * 2, v, code);
}
VelStatus remapCall(Vel32f** s, Vel32f** d, const DisplacementMaps& m, int code) {
  const VelrVolume v = {kRemapEdge, kRemapEdge, kRemapEdge};
  return velrRemap_32f_C1PV(s, v, kRemapEdge * 4, {0, 0, 0, kRemapEdge, kRemapEdge, kRemapEdge},
                            m.planes[0].data(), m.planes[1].data(), m.planes[2].data(),
                            kRemapEdge * 4, d, kRemapEdge * 4, v, code);
}

VelStatus warpCall(Vel8u** s, Vel8u** d, const double c[3][4], int code) {
  const VelrCuboid all = {0, 0, 0, kWarpEdge, kWarpEdge, kWarpEdge};
  return velrWarpAffine_8u_C1PV(s, {kWarpEdge, kWarpEdge, kWarpEdge}, kWarpEdge, all, d, kWarpEdge,
                                all, c, code, nullptr);
}
VelStatus warpCall(Vel16u** s, Vel16u** d, const double c[3][4], int code) {
  const VelrCuboid all = {0, 0, 0, kWarpEdge, kWarpEdge, kWarpEdge};
  return velrWarpAffine_16u_C1PV(s, {kWarpEdge, kWarpEdge, kWarpEdge}, kWarpEdge * 2, all, d,
                                 kWarpEdge * 2, all, c, code, nullptr);
}
VelStatus warpCall(Vel32f** s, Vel32f** d, const double c[3][4], int code) {
  const VelrCuboid all = {0, 0, 0, kWarpEdge, kWarpEdge, kWarpEdge};
  return velrWarpAffine_32f_C1PV(s, {kWarpEdge, kWarpEdge, kWarpEdge}, kWarpEdge * 4, all, d,
                                 kWarpEdge * 4, all, c, code, nullptr);
}

// Arguments: interpolation code, thread count.
template <class T>
void BM_Remap(benchmark::State& state) {
  const int code = static_cast<int>(state.range(0));
  velSetNumThreads(static_cast<int>(state.range(1)));
  std::vector<T> src = standardVolume<T>(kRemapEdge);
  std::vector<T> dst(src.size());
  std::vector<T*> s = planesOf(src, kRemapEdge), d = planesOf(dst, kRemapEdge);
  const DisplacementMaps& maps = displacement();
  for (auto _ : state) {
    if (remapCall(s.data(), d.data(), maps, code) != velStsNoErr) state.SkipWithError("status");
    benchmark::ClobberMemory();
  }
  velSetNumThreads(0);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(src.size()));
}

template <class T>
void BM_WarpAffine(benchmark::State& state) {
  const int code = static_cast<int>(state.range(0));
  velSetNumThreads(static_cast<int>(state.range(1)));
  std::vector<T> src = standardVolume<T>(kWarpEdge);
  std::vector<T> dst(src.size());
  std::vector<T*> s = planesOf(src, kWarpEdge), d = planesOf(dst, kWarpEdge);
  double c[3][4];
  standardRotation(c);
  for (auto _ : state) {
    if (warpCall(s.data(), d.data(), c, code) != velStsNoErr) state.SkipWithError("status");
    benchmark::ClobberMemory();
  }
  velSetNumThreads(0);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(src.size()));
}

void codesAndThreads(benchmark::internal::Benchmark* b) {
  b->ArgNames({"code", "threads"});
  for (int code : {1, 2, 4, 6})
    for (int threads : {1, 2}) b->Args({code, threads});
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_Remap<Vel8u>)->Apply(codesAndThreads);
BENCHMARK(BM_Remap<Vel16u>)->Apply(codesAndThreads);
BENCHMARK(BM_Remap<Vel32f>)->Apply(codesAndThreads);
BENCHMARK(BM_WarpAffine<Vel8u>)->Apply(codesAndThreads);
BENCHMARK(BM_WarpAffine<Vel16u>)->Apply(codesAndThreads);
BENCHMARK(BM_WarpAffine<Vel32f>)->Apply(codesAndThreads);

}  // namespace

BENCHMARK_MAIN();
