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

// The high-quality one-thread scene traced by all Embree ray benchmarks.
RTCScene tracedScene(const std::string& name) {
  static std::map<std::string, RTCScene> scenes;
  RTCScene& s = scenes[name];
  double seconds;
  if (s == nullptr) s = embreeScene(velr::bench::meshNamed(name), RTC_BUILD_QUALITY_HIGH, 1, &seconds);
  return s;
}

// ---------------------------------------------------------------- builds

void BM_VelrBuild(benchmark::State& state, std::string name, int flags) {
  Scene& scene = velr::bench::sceneNamed(name);
  VelrKDTreeBuildOptions opt = velr::bench::benchTreeOptions();
  opt.flags = flags;
  for (auto _ : state)
    if (scene.build(opt) != velStsNoErr) state.SkipWithError("build failed");
  velr::bench::treeCounters(state, scene);
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

void BM_Embree1(benchmark::State& state, std::string name) {
  RTCScene scene = tracedScene(name);
  EyeRays& r = velr::bench::eyeRays(false);
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
  velr::bench::rayCounters(state, hits, sumT);
}

// Packets of W x H pixels inside each 16 x 16 block, tiles row-major.
template <int W, int H, class RayHitN, class Fn>
void embreePackets(benchmark::State& state, const std::string& name, Fn intersect) {
  constexpr int N = W * H;
  RTCScene scene = tracedScene(name);
  EyeRays& r = velr::bench::eyeRays(false);
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
  velr::bench::rayCounters(state, hits, sumT);
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

// ---------------------------------------------------------------- secondary

using SR = velr::bench::SecondaryRays;

void BM_EmbreeOccluded1(benchmark::State& state, std::string name) {
  RTCScene scene = tracedScene(name);
  SR& r = velr::bench::secondaryRays(name, true);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  long blocked = 0;
  for (auto _ : state) {
    blocked = 0;
    for (int b = 0; b < r.blocks(); ++b) {
      const Vel32s* mask = r.planes().i(SR::kShadowMask, b);
      for (int i = 0; i < SR::kRays; ++i) {
        if (mask[i] < 0) continue;
        RTCRay ray;
        ray.org_x = velr::workloads::kLight[0];
        ray.org_y = velr::workloads::kLight[1];
        ray.org_z = velr::workloads::kLight[2];
        ray.dir_x = r.planes().f(SR::kShadowDir, b)[i];
        ray.dir_y = r.planes().f(SR::kShadowDir + 1, b)[i];
        ray.dir_z = r.planes().f(SR::kShadowDir + 2, b)[i];
        ray.tnear = 0.0f;
        ray.tfar = 1.0f;
        ray.time = 0.0f;
        ray.mask = ~0u;
        ray.id = 0;
        ray.flags = 0;
        rtcOccluded1(scene, &ctx, &ray);
        blocked += ray.tfar < 0.0f;
      }
    }
  }
  state.counters["blocked"] = static_cast<double>(blocked);
}

void BM_EmbreeOccluded16(benchmark::State& state, std::string name) {
  RTCScene scene = tracedScene(name);
  SR& r = velr::bench::secondaryRays(name, true);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  ctx.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
  long blocked = 0;
  for (auto _ : state) {
    blocked = 0;
    for (int b = 0; b < r.blocks(); ++b) {
      const Vel32s* mask = r.planes().i(SR::kShadowMask, b);
      for (int ty = 0; ty < SR::kBlock; ty += 4)
        for (int tx = 0; tx < SR::kBlock; tx += 4) {
          alignas(64) RTCRay16 ray;
          alignas(64) int valid[16];
          bool any = false;
          for (int l = 0; l < 16; ++l) {
            const int i = (ty + l / 4) * SR::kBlock + tx + l % 4;
            valid[l] = mask[i] >= 0 ? -1 : 0;
            any |= mask[i] >= 0;
            ray.org_x[l] = velr::workloads::kLight[0];
            ray.org_y[l] = velr::workloads::kLight[1];
            ray.org_z[l] = velr::workloads::kLight[2];
            ray.dir_x[l] = r.planes().f(SR::kShadowDir, b)[i];
            ray.dir_y[l] = r.planes().f(SR::kShadowDir + 1, b)[i];
            ray.dir_z[l] = r.planes().f(SR::kShadowDir + 2, b)[i];
            ray.tnear[l] = 0.0f;
            ray.tfar[l] = 1.0f;
            ray.time[l] = 0.0f;
            ray.mask[l] = ~0u;
            ray.id[l] = 0;
            ray.flags[l] = 0;
          }
          if (!any) continue;
          rtcOccluded16(valid, scene, &ctx, &ray);
          for (int l = 0; l < 16; ++l) blocked += valid[l] != 0 && ray.tfar[l] < 0.0f;
        }
    }
  }
  state.counters["blocked"] = static_cast<double>(blocked);
}

// One rtcIntersect1 from (o, d) with the interval [tnear, 1e30); returns the
// hit distance or a negative value.
float embreeNearest(RTCScene scene, RTCIntersectContext* ctx, const float o[3], const float d[3],
                    float tnear) {
  RTCRayHit rh;
  rh.ray.org_x = o[0];
  rh.ray.org_y = o[1];
  rh.ray.org_z = o[2];
  rh.ray.dir_x = d[0];
  rh.ray.dir_y = d[1];
  rh.ray.dir_z = d[2];
  rh.ray.tnear = tnear;
  rh.ray.tfar = 1e30f;
  rh.ray.time = 0.0f;
  rh.ray.mask = ~0u;
  rh.ray.id = 0;
  rh.ray.flags = 0;
  rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
  rtcIntersect1(scene, ctx, &rh);
  return rh.hit.geomID != RTC_INVALID_GEOMETRY_ID ? rh.ray.tfar : -1.0f;
}

void BM_EmbreeReflection1(benchmark::State& state, std::string name) {
  RTCScene scene = tracedScene(name);
  SR& r = velr::bench::secondaryRays(name, true);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  long hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (int b = 0; b < r.blocks(); ++b) {
      const float* limit = r.planes().f(SR::kReflLimit, b);
      for (int i = 0; i < SR::kRays; ++i) {
        if (limit[i] < 0.0f) continue;
        float o[3], d[3];
        for (int a = 0; a < 3; ++a) {
          o[a] = r.planes().f(SR::kReflOrigin + a, b)[i];
          d[a] = r.planes().f(SR::kReflDir + a, b)[i];
        }
        hits += embreeNearest(scene, &ctx, o, d, 0.0f) >= 0.0f;
      }
    }
  }
  state.counters["hits"] = static_cast<double>(hits);
}

// Four layers by repeated nearest hits, each starting just beyond the last.
void BM_EmbreeLayers1(benchmark::State& state, std::string name) {
  RTCScene scene = tracedScene(name);
  SR& r = velr::bench::secondaryRays(name, true);
  RTCIntersectContext ctx;
  rtcInitIntersectContext(&ctx);
  long hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (int b = 0; b < r.blocks(); ++b)
      for (int i = 0; i < SR::kRays; ++i) {
        float d[3];
        for (int a = 0; a < 3; ++a) d[a] = r.planes().f(SR::kEyeDir + a, b)[i];
        float tnear = 0.0f;
        for (int l = 0; l < SR::kLayers; ++l) {
          const float t = embreeNearest(scene, &ctx, r.eye(), d, tnear);
          if (t < 0.0f) break;
          ++hits;
          tnear = t + 0.00019f;
        }
      }
  }
  state.counters["hits"] = static_cast<double>(hits);
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
      const Entry sp = find("VelrShadowPackets/" + m), so = find("VelrShadowOneRay/" + m);
      const Entry o1 = find("EmbreeOccluded1/" + m), o16 = find("EmbreeOccluded16/" + m);
      if (sp.cpu > 0 && o1.cpu > 0)
        std::printf("%-10s shadows: packets x%.2f [%.2f] of Occluded16, x%.2f of Occluded1; one "
                    "ray x%.2f [%.2f] of Occluded1 (CPU ms: %.1f %.1f | %.1f %.1f)\n",
                    mesh, o16.cpu / sp.cpu, o16.wall / sp.wall, o1.cpu / sp.cpu, o1.cpu / so.cpu,
                    o1.wall / so.wall, sp.cpu * 1e3, so.cpu * 1e3, o16.cpu * 1e3, o1.cpu * 1e3);
      const Entry rp = find("VelrReflectionPackets/" + m), ro = find("VelrReflectionOneRay/" + m);
      const Entry r1 = find("EmbreeReflection1/" + m);
      if (rp.cpu > 0 && r1.cpu > 0)
        std::printf("%-10s reflections: packets x%.2f [%.2f], one ray x%.2f [%.2f] of Intersect1 "
                    "(CPU ms: %.1f %.1f | %.1f)\n",
                    mesh, r1.cpu / rp.cpu, r1.wall / rp.wall, r1.cpu / ro.cpu, r1.wall / ro.wall,
                    rp.cpu * 1e3, ro.cpu * 1e3, r1.cpu * 1e3);
      const Entry lp = find("VelrLayersPackets/" + m), lo = find("VelrLayersOneRay/" + m);
      const Entry l1 = find("EmbreeLayers1/" + m);
      if (lp.cpu > 0 && l1.cpu > 0)
        std::printf("%-10s 4 layers: packets x%.2f [%.2f], one ray x%.2f [%.2f] of repeated "
                    "Intersect1 (CPU ms: %.1f %.1f | %.1f)\n",
                    mesh, l1.cpu / lp.cpu, l1.wall / lp.wall, l1.cpu / lo.cpu, l1.wall / lo.wall,
                    lp.cpu * 1e3, lo.cpu * 1e3, l1.cpu * 1e3);
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
    ms(RegisterBenchmark(("VelrEyePackets/" + m).c_str(), velr::bench::velrEye, m, true));
    ms(RegisterBenchmark(("VelrEyeOneRay/" + m).c_str(), velr::bench::velrEye, m, false));
    ms(RegisterBenchmark(("EmbreeIntersect1/" + m).c_str(), BM_Embree1, m));
    ms(RegisterBenchmark(("EmbreeIntersect4/" + m).c_str(), BM_Embree4, m));
    ms(RegisterBenchmark(("EmbreeIntersect8/" + m).c_str(), BM_Embree8, m));
    ms(RegisterBenchmark(("EmbreeIntersect16/" + m).c_str(), BM_Embree16, m));
  }
  for (const char* mesh : velr::bench::kMeshNames) {
    const std::string m = mesh;
    for (bool packets : {true, false}) {
      const std::string kind = packets ? "Packets/" : "OneRay/";
      ms(RegisterBenchmark(("VelrShadow" + kind + m).c_str(), velr::bench::velrShadow, m, packets));
      ms(RegisterBenchmark(("VelrReflection" + kind + m).c_str(), velr::bench::velrReflection, m, packets));
      ms(RegisterBenchmark(("VelrLayers" + kind + m).c_str(), velr::bench::velrLayers, m, packets));
    }
    ms(RegisterBenchmark(("EmbreeOccluded1/" + m).c_str(), BM_EmbreeOccluded1, m));
    ms(RegisterBenchmark(("EmbreeOccluded16/" + m).c_str(), BM_EmbreeOccluded16, m));
    ms(RegisterBenchmark(("EmbreeReflection1/" + m).c_str(), BM_EmbreeReflection1, m));
    ms(RegisterBenchmark(("EmbreeLayers1/" + m).c_str(), BM_EmbreeLayers1, m));
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
