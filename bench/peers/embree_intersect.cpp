// Our KD-tree build and eye-ray intersection against Embree 3 on the same
// triangles and rays, in one run, with the ratios printed at the end.
//
// Embree's thread setting is process-wide, so everything single-threaded
// runs on a one-thread device first; a two-thread device is made only for
// the two-thread build figures at the very end.
#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "intersect_common.h"

namespace {

using velr::bench::EyeRays;
using velr::bench::Scene;

RTCDevice device(int threads) {
  static int current = 0;
  static RTCDevice dev = nullptr;
  if (current != threads) {
    if (dev != nullptr) rtcReleaseDevice(dev);
    dev = rtcNewDevice(("threads=" + std::to_string(threads)).c_str());
    current = threads;
  }
  return dev;
}

RTCScene embreeScene(const velr::workloads::Mesh& m, RTCBuildQuality quality, int threads,
                     double* seconds) {
  RTCDevice dev = device(threads);
  RTCScene scene = rtcNewScene(dev);
  rtcSetSceneBuildQuality(scene, quality);
  RTCGeometry g = rtcNewGeometry(dev, RTC_GEOMETRY_TYPE_TRIANGLE);
  rtcSetGeometryBuildQuality(g, quality);
  auto* v = static_cast<float*>(rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0,
                                                        RTC_FORMAT_FLOAT3, 12, m.vertexCount()));
  auto* ix = static_cast<unsigned*>(rtcSetNewGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0,
                                                            RTC_FORMAT_UINT3, 12, m.triangleCount()));
  std::copy(m.vertices.begin(), m.vertices.end(), v);
  for (int t = 0; t < m.triangleCount(); ++t)
    for (int k = 0; k < 3; ++k) ix[3 * t + k] = static_cast<unsigned>(m.indices[4 * t + k]);
  rtcCommitGeometry(g);
  rtcAttachGeometry(scene, g);
  rtcReleaseGeometry(g);
  const auto t0 = std::chrono::steady_clock::now();
  rtcCommitScene(scene);
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return scene;
}

Scene& velrScene(const std::string& name) {
  static std::map<std::string, std::unique_ptr<Scene>> scenes;
  auto& s = scenes[name];
  if (!s) {
    s = std::make_unique<Scene>(name);
    s->build(velr::bench::benchTreeOptions());
  }
  return *s;
}

// The high-quality one-thread scene traced by all Embree ray benchmarks.
RTCScene tracedScene(const std::string& name) {
  static std::map<std::string, RTCScene> scenes;
  RTCScene& s = scenes[name];
  double seconds;
  if (s == nullptr) s = embreeScene(velr::bench::meshNamed(name), RTC_BUILD_QUALITY_HIGH, 1, &seconds);
  return s;
}

EyeRays& rays(bool misaligned) {
  static EyeRays aligned(false), shifted(true);
  return misaligned ? shifted : aligned;
}

void setRate(benchmark::State& state, long hits, double sumT) {
  state.counters["rays/s"] = benchmark::Counter(rays(false).blocks() * 256.0,
                                                benchmark::Counter::kIsIterationInvariantRate);
  state.counters["hits"] = static_cast<double>(hits);
  state.counters["sum_t"] = sumT;
}

// ---------------------------------------------------------------- builds

void BM_VelrBuild(benchmark::State& state, std::string name, int flags) {
  Scene& scene = velrScene(name);
  VelrKDTreeBuildOptions opt = velr::bench::benchTreeOptions();
  opt.flags = flags;
  for (auto _ : state)
    if (scene.build(opt) != velStsNoErr) state.SkipWithError("build failed");
  const velr::bench::TreeCounts c = velr::bench::countTree(scene.tree);
  state.counters["MB"] = scene.treeLength / 1048576.0;
  state.counters["nodes"] = static_cast<double>(c.nodes);
  state.counters["leaves"] = static_cast<double>(c.leaves);
  state.counters["tris/leaf"] = c.references / static_cast<double>(c.leaves - c.emptyLeaves);
}

void BM_EmbreeBuild(benchmark::State& state, std::string name, RTCBuildQuality quality,
                    int threads) {
  for (auto _ : state) {
    double seconds;
    RTCScene s = embreeScene(velr::bench::meshNamed(name), quality, threads, &seconds);
    state.SetIterationTime(seconds);
    rtcReleaseScene(s);
  }
}

// ---------------------------------------------------------------- rays

void BM_VelrEye(benchmark::State& state, std::string name, bool packets) {
  const VelrIntersectObject obj = velrScene(name).object();
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) rays(!packets).traceVelr(obj, &hits, &sumT);
  setRate(state, hits, sumT);
}

void BM_Embree1(benchmark::State& state, std::string name) {
  RTCScene scene = tracedScene(name);
  EyeRays& r = rays(false);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) {
    hits = 0;
    sumT = 0;
    for (int b = 0; b < r.blocks(); ++b) {
      const float *dx = r.plane(0, b), *dy = r.plane(1, b), *dz = r.plane(2, b);
      for (int i = 0; i < EyeRays::kRaysPerBlock; ++i) {
        RTCRayHit rh;
        rh.ray.org_x = r.eye()[0];
        rh.ray.org_y = r.eye()[1];
        rh.ray.org_z = r.eye()[2];
        rh.ray.dir_x = dx[i];
        rh.ray.dir_y = dy[i];
        rh.ray.dir_z = dz[i];
        rh.ray.tnear = 0.0f;
        rh.ray.tfar = 1e30f;
        rh.ray.time = 0.0f;
        rh.ray.mask = ~0u;
        rh.ray.id = 0;
        rh.ray.flags = 0;
        rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(scene, &ctx, &rh);
        if (rh.hit.geomID != RTC_INVALID_GEOMETRY_ID) {
          ++hits;
          sumT += rh.ray.tfar;
        }
      }
    }
  }
  setRate(state, hits, sumT);
}

// Packets of W x H pixels inside each 16 x 16 block, tiles row-major.
template <int W, int H, class RayHitN, class Fn>
void embreePackets(benchmark::State& state, const std::string& name, Fn intersect) {
  constexpr int N = W * H;
  RTCScene scene = tracedScene(name);
  EyeRays& r = rays(false);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  ctx.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
  alignas(64) int valid[N];
  for (int& v : valid) v = -1;
  long hits = 0;
  double sumT = 0;
  for (auto _ : state) {
    hits = 0;
    sumT = 0;
    for (int b = 0; b < r.blocks(); ++b) {
      const float *dx = r.plane(0, b), *dy = r.plane(1, b), *dz = r.plane(2, b);
      for (int ty = 0; ty < EyeRays::kBlock; ty += H)
        for (int tx = 0; tx < EyeRays::kBlock; tx += W) {
          alignas(64) RayHitN rh;
          for (int l = 0; l < N; ++l) {
            const int i = (ty + l / W) * EyeRays::kBlock + tx + l % W;
            rh.ray.org_x[l] = r.eye()[0];
            rh.ray.org_y[l] = r.eye()[1];
            rh.ray.org_z[l] = r.eye()[2];
            rh.ray.dir_x[l] = dx[i];
            rh.ray.dir_y[l] = dy[i];
            rh.ray.dir_z[l] = dz[i];
            rh.ray.tnear[l] = 0.0f;
            rh.ray.tfar[l] = 1e30f;
            rh.ray.time[l] = 0.0f;
            rh.ray.mask[l] = ~0u;
            rh.ray.id[l] = 0;
            rh.ray.flags[l] = 0;
            rh.hit.geomID[l] = RTC_INVALID_GEOMETRY_ID;
          }
          intersect(valid, scene, &ctx, &rh);
          for (int l = 0; l < N; ++l)
            if (rh.hit.geomID[l] != RTC_INVALID_GEOMETRY_ID) {
              ++hits;
              sumT += rh.ray.tfar[l];
            }
        }
    }
  }
  setRate(state, hits, sumT);
}

void BM_Embree4(benchmark::State& state, std::string name) {
  embreePackets<2, 2, RTCRayHit4>(state, name, [](const int* v, RTCScene s, RTCIntersectContext* c,
                                                  RTCRayHit4* rh) { rtcIntersect4(v, s, c, rh); });
}
void BM_Embree8(benchmark::State& state, std::string name) {
  embreePackets<4, 2, RTCRayHit8>(state, name, [](const int* v, RTCScene s, RTCIntersectContext* c,
                                                  RTCRayHit8* rh) { rtcIntersect8(v, s, c, rh); });
}
void BM_Embree16(benchmark::State& state, std::string name) {
  embreePackets<4, 4, RTCRayHit16>(state, name,
                                   [](const int* v, RTCScene s, RTCIntersectContext* c,
                                      RTCRayHit16* rh) { rtcIntersect16(v, s, c, rh); });
}

// ---------------------------------------------------------------- ratios

// Keeps every run's times per iteration, then prints our figures as ratios
// to Embree's. Ray rates use the tracing thread's CPU time: on a shared
// machine other processes disturb it far less than wall time, and both
// sides trace on one thread. Builds use wall time (they are parallel).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
      Entry& e = entries_[r.benchmark_name()];
      e.wall = r.GetAdjustedRealTime() / 1e3;  // reported in milliseconds
      e.cpu = r.GetAdjustedCPUTime() / 1e3;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const double rays = 1024.0 * 1024.0;
    std::printf("\nRatios measured in this run, ours / Embree's (rays: CPU time of the "
                "tracing thread; wall-time ratio in brackets):\n");
    for (const char* mesh : velr::bench::kMeshNames) {
      const std::string m = mesh;
      const Entry p = find("VelrEyePackets/" + m), o = find("VelrEyeOneRay/" + m);
      const Entry e1 = find("EmbreeIntersect1/" + m), e4 = find("EmbreeIntersect4/" + m),
                  e8 = find("EmbreeIntersect8/" + m), e16 = find("EmbreeIntersect16/" + m);
      if (p.cpu <= 0 || e1.cpu <= 0) continue;
      std::printf("%-10s packets %5.2f Mrays/s: x%.2f [%.2f] of Intersect4 (%.2f), x%.2f of 8 "
                  "(%.2f), x%.2f of 16 (%.2f), x%.2f of 1\n",
                  mesh, rays / p.cpu / 1e6, e4.cpu / p.cpu, e4.wall / p.wall, rays / e4.cpu / 1e6,
                  e8.cpu / p.cpu, rays / e8.cpu / 1e6, e16.cpu / p.cpu, rays / e16.cpu / 1e6,
                  e1.cpu / p.cpu);
      std::printf("%-10s one ray %5.2f Mrays/s: x%.2f [%.2f] of Intersect1 (%.2f)\n", mesh,
                  rays / o.cpu / 1e6, e1.cpu / o.cpu, e1.wall / o.wall, rays / e1.cpu / 1e6);
    }
    for (const char* mesh : velr::bench::kMeshNames) {
      const std::string m = mesh;
      const double h2 = find("EmbreeBuildHigh2t/" + m).wall;
      const double m2 = find("EmbreeBuildMedium2t/" + m).wall;
      const double h1 = find("EmbreeBuildHigh1t/" + m).wall;
      const double m1 = find("EmbreeBuildMedium1t/" + m).wall;
      for (const char* kind : {"VelrBuild/", "VelrBuildInCallingThread/"}) {
        const double build = find(kind + m).wall;
        if (build <= 0 || h2 <= 0) continue;
        std::printf("%-10s %s %.3f s: x%.2f of high 2t (%.3f s), x%.2f of medium 2t (%.3f s), "
                    "x%.2f of high 1t (%.3f s), x%.2f of medium 1t (%.3f s) (time; below 1 is "
                    "faster)\n",
                    mesh, kind, build, build / h2, h2, build / m2, m2, build / h1, h1, build / m1,
                    m1);
      }
    }
  }

 private:
  struct Entry {
    double wall = 0, cpu = 0;
  };
  Entry find(const std::string& prefix) const {
    for (const auto& [name, e] : entries_)
      if (name.rfind(prefix, 0) == 0) return e;
    return {};
  }
  std::map<std::string, Entry> entries_;
};

void registerAll() {
  using benchmark::RegisterBenchmark;
  auto ms = [](benchmark::internal::Benchmark* b) {
    return b->Unit(benchmark::kMillisecond)->UseRealTime();
  };
  auto manual = [](benchmark::internal::Benchmark* b) {
    return b->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
  };
  for (const char* mesh : velr::bench::kMeshNames) {
    const std::string m = mesh;
    ms(RegisterBenchmark(("VelrBuild/" + m).c_str(), BM_VelrBuild, m, 0))->Iterations(3);
    ms(RegisterBenchmark(("VelrBuildInCallingThread/" + m).c_str(), BM_VelrBuild, m, 1))
        ->Iterations(3);
    manual(RegisterBenchmark(("EmbreeBuildMedium1t/" + m).c_str(), BM_EmbreeBuild, m,
                         RTC_BUILD_QUALITY_MEDIUM, 1));
    manual(RegisterBenchmark(("EmbreeBuildHigh1t/" + m).c_str(), BM_EmbreeBuild, m,
                         RTC_BUILD_QUALITY_HIGH, 1));
  }
  for (const char* mesh : velr::bench::kMeshNames) {
    const std::string m = mesh;
    ms(RegisterBenchmark(("VelrEyePackets/" + m).c_str(), BM_VelrEye, m, true));
    ms(RegisterBenchmark(("VelrEyeOneRay/" + m).c_str(), BM_VelrEye, m, false));
    ms(RegisterBenchmark(("EmbreeIntersect1/" + m).c_str(), BM_Embree1, m));
    ms(RegisterBenchmark(("EmbreeIntersect4/" + m).c_str(), BM_Embree4, m));
    ms(RegisterBenchmark(("EmbreeIntersect8/" + m).c_str(), BM_Embree8, m));
    ms(RegisterBenchmark(("EmbreeIntersect16/" + m).c_str(), BM_Embree16, m));
  }
  for (const char* mesh : velr::bench::kMeshNames) {
    const std::string m = mesh;
    manual(RegisterBenchmark(("EmbreeBuildMedium2t/" + m).c_str(), BM_EmbreeBuild, m,
                         RTC_BUILD_QUALITY_MEDIUM, 2));
    manual(RegisterBenchmark(("EmbreeBuildHigh2t/" + m).c_str(), BM_EmbreeBuild, m,
                         RTC_BUILD_QUALITY_HIGH, 2));
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  registerAll();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
