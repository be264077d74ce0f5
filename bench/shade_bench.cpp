// Shading operations between intersection passes: ray casting, hit points,
// normals, bounding box and the masked per-ray arithmetic.
//
// Each operation runs on an in-cache packet (4096 rays) and an out-of-cache
// packet (4M rays). Every iteration times, back to back, the operation, a
// plain memcpy of the bytes the operation moves, and (in cache) the same work
// through the one-ray form, so that the ratios compare figures taken under
// the same machine load:
//   rays/s, bytes/s      the operation (bytes = bytes read + bytes written)
//   memcpy_bytes/s       memcpy(dst, src, bytes) for the same byte count
//   vs_memcpy            bytes/s over memcpy_bytes/s
//   vs_one_ray           rays/s over the one-ray form's rays/s (in cache)
// The one-ray form goes through the library where a packet's alignment or
// length selects it; where the library vectorises every alignment, it is a
// scalar loop of the same formula here, compiled without vectorisation.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "velr.h"
#include "workloads/workloads.h"

namespace {

constexpr int kInCache = 4096;
constexpr int kOutOfCache = 4 << 20;

// ---------------------------------------------------------------- data

// A float or int plane, 64-byte aligned, with one spare element so that a
// view one element in is available for the unaligned (one-ray) path.
template <class T>
struct Buffer {
  explicit Buffer(size_t n)
      : p(static_cast<T*>(std::aligned_alloc(64, ((n + 16) * sizeof(T) + 63) / 64 * 64))) {}
  ~Buffer() { std::free(p); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  T* p;
};

struct Triple {
  explicit Triple(size_t n) : b{Buffer<float>(n), Buffer<float>(n), Buffer<float>(n)} {}
  Buffer<float> b[3];
  float* const* out(int shift) {
    for (int c = 0; c < 3; ++c) w[c] = b[c].p + shift;
    return w;
  }
  const float* const* in(int shift) {
    for (int c = 0; c < 3; ++c) r[c] = b[c].p + shift;
    return r;
  }
  float* w[3];
  const float* r[3];
};

const velr::workloads::Mesh& mesh() {
  static const velr::workloads::Mesh m = velr::workloads::makeBumpySphere(224);
  return m;
}

// Per-vertex normals (the radial direction, the sphere's smooth normal) and
// per-triangle normals of the 1M-triangle mesh.
struct MeshNormals {
  std::vector<float> vertex, triangle;
};
const MeshNormals& meshNormals() {
  static const MeshNormals n = [] {
    const auto& m = mesh();
    MeshNormals r;
    r.vertex = m.vertices;
    for (size_t v = 0; v < r.vertex.size(); v += 3) {
      const float l = std::sqrt(r.vertex[v] * r.vertex[v] + r.vertex[v + 1] * r.vertex[v + 1] +
                                r.vertex[v + 2] * r.vertex[v + 2]);
      for (int c = 0; c < 3; ++c) r.vertex[v + c] /= l;
    }
    r.triangle.resize(3 * size_t(m.triangleCount()));
    velrTriangleNormal_32f(m.vertices.data(), m.indices.data(), r.triangle.data(),
                           m.triangleCount());
    return r;
  }();
  return n;
}

// One packet of n rays with every plane the operations read or write. Hits
// are spatially coherent, as in a block of pixels: ray i hits a triangle
// near i / 4, and about a third of the rays miss, in runs.
struct Packet {
  explicit Packet(int count)
      : n(count), dir(n), org(n), nrm(n), pt(n), out(n), dist(n), dotRay(n), weight(n), src(n),
        dst(n), dot(n), u(n), v(n), triOut(3 * size_t(n)), mask(n), work(n), copyFrom(size_t(n) * 80),
        copyTo(size_t(n) * 80) {
    velr::workloads::SplitMix64 rng(2718);
    const int triangles = mesh().triangleCount();
    const float light[3] = {velr::workloads::kLight[0], velr::workloads::kLight[1],
                            velr::workloads::kLight[2]};
    const size_t total = size_t(n) + 16;
    bool missing = false;
    for (size_t i = 0; i < total; ++i) {
      if (i % 64 == 0) missing = rng.uniform() < 0.35;
      const int tri = int(std::min<size_t>(i / 4 + size_t(rng.uniform(0, 8)), triangles - 1));
      mask.p[i] = missing ? -1 : tri;
      work.p[i] = mask.p[i];
      for (int c = 0; c < 3; ++c) {
        dir.b[c].p[i] = float(rng.uniform(-1, 1));
        org.b[c].p[i] = float(rng.uniform(-1, 1));
        nrm.b[c].p[i] = float(rng.uniform(-1, 1));
        pt.b[c].p[i] = light[c] + float(rng.uniform(-3, 3));
        out.b[c].p[i] = float(rng.uniform(-1, 1));
      }
      dist.p[i] = float(rng.uniform(1, 4));
      dotRay.p[i] = float(rng.uniform(-1, 1));
      weight.p[i] = float(rng.uniform(0, 1));
      src.p[i] = 1.0f;  // in-place products keep their values from run to run
      dst.p[i] = float(rng.uniform(-1, 1));
      dot.p[i] = 0.0f;
      u.p[i] = float(rng.uniform(0, 1));
      v.p[i] = float(rng.uniform(0, 1)) * (1 - u.p[i]);
    }
    std::memset(copyFrom.p, 1, size_t(n) * 80);
    std::memset(copyTo.p, 0, size_t(n) * 80);
  }
  int n;
  Triple dir, org, nrm, pt, out;
  Buffer<float> dist, dotRay, weight, src, dst, dot, u, v, triOut;
  Buffer<int32_t> mask, work;
  Buffer<char> copyFrom, copyTo;
};

Packet& packet(int n) {
  static std::map<int, std::unique_ptr<Packet>> packets;
  auto& p = packets[n];
  if (!p) p = std::make_unique<Packet>(n);
  return *p;
}

// ---------------------------------------------------------------- one-ray loops

#define ONE_RAY __attribute__((noinline, optimize("no-tree-vectorize")))

ONE_RAY void flatOneRay(const float* tn, const int32_t* m, float* const* o, int n) {
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c) o[c][i] = m[i] >= 0 ? tn[3 * size_t(m[i]) + c] : 0.0f;
}
ONE_RAY void dotOneRay(const float* const* a, const float* const* b, const int32_t* m, float* d,
                       int n) {
  for (int i = 0; i < n; ++i)
    d[i] = m[i] >= 0 ? (a[0][i] * b[0][i] + a[1][i] * b[1][i]) + a[2][i] * b[2][i] : 0.0f;
}
ONE_RAY void dotChangeNormOneRay(const float* const* s, const int32_t* m, float* const* nn,
                                 float* d, int n) {
  for (int i = 0; i < n; ++i) {
    if (m[i] < 0) {
      d[i] = 0;
      continue;
    }
    const float x = (s[0][i] * nn[0][i] + s[1][i] * nn[1][i]) + s[2][i] * nn[2][i];
    if (x > 0) {
      for (int c = 0; c < 3; ++c) nn[c][i] = -nn[c][i];
      d[i] = -x;
    } else {
      d[i] = x;
    }
  }
}
ONE_RAY void mulOneRay(const float* s, const int32_t* m, float* d, int n) {
  for (int i = 0; i < n; ++i) d[i] = (d[i] * s[i]) * (m[i] >= 0 ? 1.0f : 0.0f);
}
ONE_RAY void mulP3OneRay(const float* s, const int32_t* m, float* const* d, int n) {
  for (int i = 0; i < n; ++i) {
    const float f = m[i] >= 0 ? 1.0f : 0.0f;
    for (int c = 0; c < 3; ++c) d[c][i] = (d[c][i] * s[i]) * f;
  }
}
ONE_RAY void divOneRay(const float* s, const int32_t* m, float* d, int n) {
  for (int i = 0; i < n; ++i) {
    if (m[i] < 0)
      d[i] = 0;
    else if (s[i] == 0)
      d[i] = d[i] > 0 ? HUGE_VALF : (d[i] < 0 ? -HUGE_VALF : NAN);
    else
      d[i] = d[i] / s[i];
  }
}
ONE_RAY void addMulMulOneRay(const float* k, const float* w, const float* const* s,
                             const int32_t* m, float* const* d, int n) {
  for (int i = 0; i < n; ++i)
    if (m[i] >= 0)
      for (int c = 0; c < 3; ++c) d[c][i] += (k[c] * s[c][i]) * w[i];
}
ONE_RAY void shadowOneRay(const float* l, const float* dr, const float* const* nn,
                          const float* const* p, int32_t* m, float* ds, float* const* sd, int n) {
  const float limit = 0.0017453292f;
  for (int i = 0; i < n; ++i) {
    float s[3];
    for (int c = 0; c < 3; ++c) s[c] = p[c][i] - l[c];
    const float d = (s[0] * nn[0][i] + s[1] * nn[1][i]) + s[2] * nn[2][i];
    const float side = std::fabs(d) < limit ? 0.0f : dr[i] * d;
    const bool ok = m[i] >= 0 && side > 0;
    ds[i] = ok ? std::fabs(d) : 0.0f;
    for (int c = 0; c < 3; ++c) sd[c][i] = ok ? s[c] : 0.0f;
    if (!ok && m[i] >= 0) m[i] = -1;
  }
}
ONE_RAY void triangleNormalOneRay(const float* v, const int32_t* idx, float* o, int n) {
  for (int t = 0; t < n; ++t) {
    const float* p0 = v + 3 * size_t(idx[4 * t]);
    const float* p1 = v + 3 * size_t(idx[4 * t + 1]);
    const float* p2 = v + 3 * size_t(idx[4 * t + 2]);
    double a[3], b[3];
    for (int c = 0; c < 3; ++c) {
      a[c] = double(p0[c]) - p2[c];
      b[c] = double(p1[c]) - p2[c];
    }
    const double x = a[1] * b[2] - a[2] * b[1], y = a[2] * b[0] - a[0] * b[2],
                 z = a[0] * b[1] - a[1] * b[0];
    const double s = (x * x + y * y) + z * z;
    const double l = std::sqrt(s);
    const bool tiny = s < 2.220446049250313e-16;
    o[3 * t] = tiny ? 0.0f : float(x / l);
    o[3 * t + 1] = tiny ? 0.0f : float(y / l);
    o[3 * t + 2] = tiny ? 0.0f : float(z / l);
  }
}
ONE_RAY void boundsOneRay(const float* v, int n, float* box) {
  float lo[3] = {3.4e38f, 3.4e38f, 3.4e38f}, hi[3] = {-3.4e38f, -3.4e38f, -3.4e38f};
  for (int k = 0; k < n; ++k)
    for (int c = 0; c < 3; ++c) {
      const float x = v[3 * size_t(k) + c];
      if (lo[c] > x) lo[c] = x;
      if (x > hi[c]) hi[c] = x;
    }
  for (int c = 0; c < 3; ++c) {
    box[c] = lo[c];
    box[3 + c] = hi[c];
  }
}

// ---------------------------------------------------------------- operations

using Run = std::function<void(Packet&, int)>;

struct Op {
  const char* name;
  int bytesPerRay;  // read + written
  Run vector;       // the packet aligned, its length a multiple of 4
  Run oneRay;       // the same work through the one-ray form
};

const float kColour[3] = {0.8f, 0.7f, 0.6f};

std::vector<Op> operations() {
  const float* light = velr::workloads::kLight;
  static const velr::workloads::Camera cam = velr::workloads::standardCamera();
  std::vector<Op> ops;
  // Eye rays: rows of 64 pixels; a width of 63 takes the one-ray form.
  ops.push_back({"CastEye", 12,
                 [](Packet& p, int n) {
                   velrCastEye_32f(cam.origin, cam.dW, cam.dH, 64, 64, 3, 5, p.out.out(0), 64,
                                   n / 64);
                 },
                 [](Packet& p, int n) {
                   velrCastEye_32f(cam.origin, cam.dW, cam.dH, 64, 64, 3, 5, p.out.out(0), 63,
                                   n / 63);
                 }});
  // Reflections: a length that is not a multiple of 4 takes the one-ray form.
  ops.push_back({"CastReflectionRay", 40,
                 [](Packet& p, int n) {
                   velrCastReflectionRay_32f(p.dir.in(0), p.mask.p, p.nrm.in(0), p.out.out(0), n);
                 },
                 [](Packet& p, int n) {
                   velrCastReflectionRay_32f(p.dir.in(0), p.mask.p, p.nrm.in(0), p.out.out(0),
                                             n - 1);
                 }});
  ops.push_back({"CastShadowSO", 52,
                 [light](Packet& p, int n) {
                   velrCastShadowSO_32f(light, p.dotRay.p, p.nrm.in(0), p.pt.in(0), p.work.p,
                                        p.dot.p, p.out.out(0), n);
                 },
                 [light](Packet& p, int n) {
                   shadowOneRay(light, p.dotRay.p, p.nrm.in(0), p.pt.in(0), p.work.p, p.dot.p,
                                p.out.out(0), n);
                 }});
  // Hit points and smooth normals: planes one float off take the one-ray form.
  ops.push_back({"HitPoint3DEpsS0", 32,
                 [](Packet& p, int n) {
                   velrHitPoint3DEpsS0_32f_M(cam.eye, p.dir.in(0), p.dist.p, p.mask.p,
                                             p.out.out(0), n, 0.999f);
                 },
                 [](Packet& p, int n) {
                   velrHitPoint3DEpsS0_32f_M(cam.eye, p.dir.in(1), p.dist.p + 1, p.mask.p + 1,
                                             p.out.out(1), n, 0.999f);
                 }});
  ops.push_back({"HitPoint3DEpsM0", 44,
                 [](Packet& p, int n) {
                   velrHitPoint3DEpsM0_32f_M(p.org.in(0), p.dir.in(0), p.dist.p, p.mask.p,
                                             p.out.out(0), n, 1.001f);
                 },
                 [](Packet& p, int n) {
                   velrHitPoint3DEpsM0_32f_M(p.org.in(1), p.dir.in(1), p.dist.p + 1,
                                             p.mask.p + 1, p.out.out(1), n, 1.001f);
                 }});
  ops.push_back({"SurfFlatNormal", 28,
                 [](Packet& p, int n) {
                   velrSurfFlatNormal_32f(meshNormals().triangle.data(), p.mask.p, p.out.out(0),
                                          n);
                 },
                 [](Packet& p, int n) {
                   flatOneRay(meshNormals().triangle.data(), p.mask.p, p.out.out(0), n);
                 }});
  ops.push_back({"SurfSmoothNormal", 72,
                 [](Packet& p, int n) {
                   const float* hit[2] = {p.u.p, p.v.p};
                   velrSurfSmoothNormal_32f(meshNormals().vertex.data(), mesh().indices.data(),
                                            p.mask.p, hit, p.out.out(0), n, 4);
                 },
                 [](Packet& p, int n) {
                   const float* hit[2] = {p.u.p + 1, p.v.p + 1};
                   velrSurfSmoothNormal_32f(meshNormals().vertex.data(), mesh().indices.data(),
                                            p.mask.p + 1, hit, p.out.out(1), n, 4);
                 }});
  ops.push_back({"Dot_P3C1M", 32,
                 [](Packet& p, int n) {
                   velrDot_32f_P3C1M(p.dir.in(0), p.nrm.in(0), p.mask.p, p.dot.p, n);
                 },
                 [](Packet& p, int n) {
                   dotOneRay(p.dir.in(0), p.nrm.in(0), p.mask.p, p.dot.p, n);
                 }});
  ops.push_back({"DotChangeNorm_IM", 44,
                 [](Packet& p, int n) {
                   velrDotChangeNorm_32f_IM(p.dir.in(0), p.mask.p, p.nrm.out(0), p.dot.p, n);
                 },
                 [](Packet& p, int n) {
                   dotChangeNormOneRay(p.dir.in(0), p.mask.p, p.nrm.out(0), p.dot.p, n);
                 }});
  ops.push_back({"DistAttenuationSO", 20,
                 [light](Packet& p, int n) {
                   velrDistAttenuationSO_32f_M(light, p.pt.in(0), p.mask.p, p.dist.p, n);
                 },
                 [light](Packet& p, int n) {
                   velrDistAttenuationSO_32f_M(light, p.pt.in(1), p.mask.p + 1, p.dist.p + 1, n);
                 }});
  ops.push_back({"Mul_C1IM", 16,
                 [](Packet& p, int n) { velrMul_32f_C1IM(p.src.p, p.mask.p, p.dst.p, n); },
                 [](Packet& p, int n) { mulOneRay(p.src.p, p.mask.p, p.dst.p, n); }});
  ops.push_back({"Mul_C1P3IM", 32,
                 [](Packet& p, int n) { velrMul_32f_C1P3IM(p.src.p, p.mask.p, p.out.out(0), n); },
                 [](Packet& p, int n) { mulP3OneRay(p.src.p, p.mask.p, p.out.out(0), n); }});
  ops.push_back({"Div_C1IM", 16,
                 [](Packet& p, int n) { velrDiv_32f_C1IM(p.src.p, p.mask.p, p.dst.p, n); },
                 [](Packet& p, int n) { divOneRay(p.src.p, p.mask.p, p.dst.p, n); }});
  ops.push_back({"AddMulMul_AC1P3IM", 44,
                 [](Packet& p, int n) {
                   velrAddMulMul_32f_AC1P3IM(kColour, p.weight.p, p.nrm.in(0), p.mask.p,
                                             p.out.out(0), n);
                 },
                 [](Packet& p, int n) {
                   addMulMulOneRay(kColour, p.weight.p, p.nrm.in(0), p.mask.p, p.out.out(0), n);
                 }});
  // Mesh preparation: n triangles of the 1M-triangle mesh (index record,
  // three vertices, the normal written), and a bounding box of n vertices
  // (the packet's planes read as one vertex array).
  ops.push_back({"TriangleNormal", 64,
                 [](Packet& p, int n) {
                   const int t = std::min(n, mesh().triangleCount());
                   velrTriangleNormal_32f(mesh().vertices.data(), mesh().indices.data(),
                                          p.triOut.p, t);
                 },
                 [](Packet& p, int n) {
                   const int t = std::min(n, mesh().triangleCount());
                   triangleNormalOneRay(mesh().vertices.data(), mesh().indices.data(),
                                        p.triOut.p, t);
                 }});
  ops.push_back({"SetBoundBox", 12,
                 [](Packet& p, int n) {
                   float box[6];
                   velrSetBoundBox_32f(reinterpret_cast<const float*>(p.copyFrom.p), n, box);
                   benchmark::DoNotOptimize(box);
                 },
                 [](Packet& p, int n) {
                   float box[6];
                   boundsOneRay(reinterpret_cast<const float*>(p.copyFrom.p), n, box);
                   benchmark::DoNotOptimize(box);
                 }});
  return ops;
}

double seconds(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

void runOp(benchmark::State& state, const Op& op, int n) {
  Packet& p = packet(n);
  // TriangleNormal has 1M triangles at most; it counts what it processes.
  const int64_t rays = op.name == std::string("TriangleNormal")
                           ? std::min(n, mesh().triangleCount())
                           : int64_t(n);
  const size_t bytes = size_t(rays) * op.bytesPerRay;
  const bool inCache = n <= kInCache;
  meshNormals();
  op.vector(p, n);  // warm up
  double tOp = 0, tCopy = 0, tOne = 0;
  using Clock = std::chrono::steady_clock;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    op.vector(p, n);
    benchmark::ClobberMemory();
    const auto t1 = Clock::now();
    std::memcpy(p.copyTo.p, p.copyFrom.p, bytes);
    benchmark::ClobberMemory();
    const auto t2 = Clock::now();
    tOp += seconds(t0, t1);
    tCopy += seconds(t1, t2);
    if (inCache) {
      op.oneRay(p, n);
      benchmark::ClobberMemory();
      tOne += seconds(t2, Clock::now());
    }
    state.SetIterationTime(seconds(t0, t1));
  }
  const double it = double(state.iterations());
  state.counters["rays/s"] = rays * it / tOp;
  state.counters["bytes/s"] = double(bytes) * it / tOp;
  state.counters["memcpy_bytes/s"] = double(bytes) * it / tCopy;
  state.counters["vs_memcpy"] = tCopy / tOp;
  if (inCache) state.counters["vs_one_ray"] = tOne / tOp;
}

// The one-ray form of TriangleNormal is single-threaded; so is this run.
const bool kOneThread = [] {
  velSetNumThreads(1);
  return true;
}();

const bool kRegistered = [] {
  static const std::vector<Op> ops = operations();
  for (const Op& op : ops) {
    for (int n : {kInCache, kOutOfCache}) {
      const std::string name = std::string(op.name) + "/" + std::to_string(n);
      benchmark::RegisterBenchmark(name.c_str(),
                                   [&op, n](benchmark::State& s) { runOp(s, op, n); })
          ->UseManualTime()
          ->MinTime(n == kInCache ? 0.05 : 0.3);
    }
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
