// Volume resize on the standard volume workloads: zoom by 2 (128^3 to
// 256^3), by 0.5 (256^3 to 128^3) and by (1.5, 0.75, 2.0) on 128^3, for each
// element type, codes 1, 2, 4 and 6, both layouts, one thread (and two for
// velrResize_32f_C1V), beside a memcpy of the output size.
//
// Names: resize/<workload>/<type>_<layout>/code:<c>/threads:<n>; the
// counters give output voxels per second (items) and output bytes per
// second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "velcore.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace {

struct Workload {
  const char* name;
  int n;  // source edge
  double f[3];
};

constexpr Workload kWorkloads[] = {
    {"zoom2", 128, {2.0, 2.0, 2.0}},
    {"zoom0.5", 256, {0.5, 0.5, 0.5}},
    {"aniso", 128, {1.5, 0.75, 2.0}},
};

const std::vector<double>& content(int n) {
  static std::map<int, std::vector<double>> cache;
  auto it = cache.find(n);
  if (it == cache.end()) it = cache.emplace(n, velr::workloads::volumeContent(n, 2024)).first;
  return it->second;
}

template <class T>
const std::vector<T>& sourceVolume(int n) {
  static std::map<int, std::vector<T>> cache;
  auto it = cache.find(n);
  if (it != cache.end()) return it->second;
  const std::vector<double>& v = content(n);
  std::vector<T> out(v.size());
  for (size_t k = 0; k < v.size(); ++k) {
    if constexpr (sizeof(T) == 1)
      out[k] = static_cast<T>(std::nearbyint(255 * v[k]));
    else if constexpr (sizeof(T) == 2)
      out[k] = static_cast<T>(std::nearbyint(65535 * v[k]));
    else
      out[k] = static_cast<float>(v[k]);
  }
  return cache.emplace(n, std::move(out)).first->second;
}

template <class T>
VelStatus resizeOnce(bool planar, const T* src, const T* const* srcPlanes, VelrVolume sv, T* dst,
                     T* const* dstPlanes, VelrCuboid dr, const double f[3], int code, Vel8u* buf) {
  const VelrCuboid sr = {0, 0, 0, sv.width, sv.height, sv.depth};
  const int ss = sv.width * static_cast<int>(sizeof(T)), sp = ss * sv.height;
  const int ds = dr.width * static_cast<int>(sizeof(T)), dp = ds * dr.height;
  if constexpr (sizeof(T) == 1)
    return planar ? velrResize_8u_C1PV(srcPlanes, sv, ss, sr, dstPlanes, ds, dr, f[0], f[1], f[2],
                                       0, 0, 0, code, buf)
                  : velrResize_8u_C1V(src, sv, ss, sp, sr, dst, ds, dp, dr, f[0], f[1], f[2], 0, 0,
                                      0, code, buf);
  else if constexpr (sizeof(T) == 2)
    return planar ? velrResize_16u_C1PV(srcPlanes, sv, ss, sr, dstPlanes, ds, dr, f[0], f[1], f[2],
                                        0, 0, 0, code, buf)
                  : velrResize_16u_C1V(src, sv, ss, sp, sr, dst, ds, dp, dr, f[0], f[1], f[2], 0, 0,
                                       0, code, buf);
  else
    return planar ? velrResize_32f_C1PV(srcPlanes, sv, ss, sr, dstPlanes, ds, dr, f[0], f[1], f[2],
                                        0, 0, 0, code, buf)
                  : velrResize_32f_C1V(src, sv, ss, sp, sr, dst, ds, dp, dr, f[0], f[1], f[2], 0, 0,
                                       0, code, buf);
}

VelrCuboid destinationOf(const Workload& w) {
  VelrCuboid d{};
  velrGetResizeCuboid({0, 0, 0, w.n, w.n, w.n}, &d, w.f[0], w.f[1], w.f[2], 0, 0, 0, 1);
  return d;
}

template <class T>
void runResize(benchmark::State& state, Workload w, bool planar, int code, int threads) {
  velSetNumThreads(threads);
  const std::vector<T>& src = sourceVolume<T>(w.n);
  const VelrVolume sv = {w.n, w.n, w.n};
  const VelrCuboid dr = destinationOf(w);
  const size_t planeElems = static_cast<size_t>(dr.width) * dr.height;
  std::vector<T> dst(planeElems * dr.depth);
  std::vector<const T*> srcPlanes(w.n);
  std::vector<T*> dstPlanes(dr.depth);
  for (int z = 0; z < w.n; ++z) srcPlanes[z] = src.data() + static_cast<size_t>(z) * w.n * w.n;
  for (int z = 0; z < dr.depth; ++z) dstPlanes[z] = dst.data() + z * planeElems;
  int size = 0;
  velrResizeGetBufSize({0, 0, 0, w.n, w.n, w.n}, dr, 1, code, &size);
  std::vector<Vel8u> buf(size);
  for (auto _ : state) {
    if (resizeOnce<T>(planar, src.data(), srcPlanes.data(), sv, dst.data(), dstPlanes.data(), dr,
                      w.f, code, buf.data()) != velStsNoErr)
      state.SkipWithError("resize failed");
    benchmark::ClobberMemory();
  }
  const int64_t voxels = static_cast<int64_t>(planeElems) * dr.depth;
  state.SetItemsProcessed(state.iterations() * voxels);
  state.SetBytesProcessed(state.iterations() * voxels * static_cast<int64_t>(sizeof(T)));
  velSetNumThreads(0);
}

void runMemcpy(benchmark::State& state, int64_t bytes) {
  std::vector<char> a(bytes, 1), b(bytes);
  for (auto _ : state) {
    std::memcpy(b.data(), a.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * bytes);
}

template <class T>
void registerType(const char* typeName) {
  for (const Workload& w : kWorkloads) {
    const VelrCuboid d = destinationOf(w);
    const int64_t bytes = static_cast<int64_t>(d.width) * d.height * d.depth * sizeof(T);
    benchmark::RegisterBenchmark((std::string("memcpy/") + w.name + "/" + typeName).c_str(),
                                 [bytes](benchmark::State& s) { runMemcpy(s, bytes); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    for (bool planar : {false, true})
      for (int code : {1, 2, 4, 6}) {
        const int maxThreads = (sizeof(T) == 4 && !planar) ? 2 : 1;
        for (int threads = 1; threads <= maxThreads; ++threads) {
          const std::string name = std::string("resize/") + w.name + "/" + typeName +
                                   (planar ? "_C1PV" : "_C1V") + "/code:" + std::to_string(code) +
                                   "/threads:" + std::to_string(threads);
          benchmark::RegisterBenchmark(
              name.c_str(), [=](benchmark::State& s) { runResize<T>(s, w, planar, code, threads); })
              ->Unit(benchmark::kMillisecond)
              ->UseRealTime();
        }
      }
  }
}

}  // namespace

int main(int argc, char** argv) {
  registerType<Vel8u>("8u");
  registerType<Vel16u>("16u");
  registerType<Vel32f>("32f");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
