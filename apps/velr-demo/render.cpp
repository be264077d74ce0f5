#include "render.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>

#include "error.h"

namespace velr::demo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRays = kTile * kTile;
// Initial ray length: farther than anything in a scene.
constexpr float kFar = 1e30f;
// Hit points are placed at this fraction of the hit distance, a hair in
// front of the surface, so shadow rays that end there do not find the
// surface itself and mirror rays leave from its lit side.
constexpr float kHitEps = 0.9995f;
constexpr float kOne[3] = {1.0f, 1.0f, 1.0f};

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

int countActive(const Vel32s* mask, int n) {
  int k = 0;
  for (int i = 0; i < n; ++i) k += mask[i] >= 0;
  return k;
}

// Cosine-lobe factors per band: convolving radiance with them gives
// irradiance / pi, the ambient light a white diffuse surface reflects.
constexpr float kLambertBand[] = {1.0f, 2.0f / 3.0f, 0.25f, 0.0f, -1.0f / 24.0f};
static_assert(sizeof(kLambertBand) / sizeof(kLambertBand[0]) == Tracer::kShOrder + 1);

}  // namespace

const char* stageName(Stage s) {
  switch (s) {
    case kEyeRays: return "eye rays";
    case kNearestHit: return "nearest hits";
    case kSurface: return "hit points, normals";
    case kShadows: return "shadow rays";
    case kReflection: return "mirror rays";
    case kShading: return "shading";
    default: return "?";
  }
}

// The planes of one generation of rays in a block (eye rays or mirror rays).
struct Tracer::RayBlock {
  Vel32f* dir[3];
  Vel32f* dist;
  Vel32f* hit[2];
  Vel32s* tri;
  Vel32f* point[3];
  Vel32f* normal[3];
  Vel32f* dotRay;
  Vel32f* albedo[3];
  Vel32f* diffuse;
  Vel32f* color[3];
};

// Per-thread working planes, one 64-byte aligned block carved into planes
// of kRays elements, and the thread's share of the statistics.
struct Tracer::TileWork {
  RayBlock eye, bounce;
  Vel32s* shadowMask;
  Vel32f* dotShadow;
  Vel32f* shadowDir[3];
  Vel32s* occluder;
  Vel32f* lightDist;
  Vel32f* distSq;
  Vel32f* lambert;
  Vel32f* ambient[3];
  Vel32s* reflMask;
  Vel32f* reflWeight;

  std::array<double, kStageCount> ms{};
  long long eyeRays = 0, shadowRays = 0, reflectionRays = 0;

  TileWork() : storage_(std::size_t(kPlanes) * kRays) {
    auto f = [this] { return reinterpret_cast<Vel32f*>(take()); };
    auto s = [this] { return reinterpret_cast<Vel32s*>(take()); };
    for (RayBlock* b : {&eye, &bounce}) {
      for (auto& p : b->dir) p = f();
      b->dist = f();
      for (auto& p : b->hit) p = f();
      b->tri = s();
      for (auto& p : b->point) p = f();
      for (auto& p : b->normal) p = f();
      b->dotRay = f();
      for (auto& p : b->albedo) p = f();
      b->diffuse = f();
      for (auto& p : b->color) p = f();
    }
    shadowMask = s();
    dotShadow = f();
    for (auto& p : shadowDir) p = f();
    occluder = s();
    lightDist = f();
    distSq = f();
    lambert = f();
    for (auto& p : ambient) p = f();
    reflMask = s();
    reflWeight = f();
  }

 private:
  static constexpr int kPlanes = 2 * 21 + 14;
  std::uint32_t* take() {
    std::uint32_t* p = storage_.data() + std::size_t(used_) * kRays;
    ++used_;
    return p;
  }
  AlignedVector<std::uint32_t> storage_;
  int used_ = 0;
};

Tracer::Tracer(const Scene& scene) : scene_(scene) {
  if (scene.mesh.triangleCount() < 1) throw UserError("the scene holds no triangles");
  auto t0 = Clock::now();
  buildMesh();
  stats_.setupMs[0] = msSince(t0);
  t0 = Clock::now();
  buildNormals();
  stats_.setupMs[1] = msSince(t0);
  t0 = Clock::now();
  projectSky();
  stats_.setupMs[2] = msSince(t0);
}

Tracer::~Tracer() {
  velrKDTreeFree(tree_);
  velFree(shState_);
}

void Tracer::buildMesh() {
  const SceneMesh& m = scene_.mesh;
  const int nTri = m.triangleCount(), nVert = m.vertexCount();
  indices_.assign(m.indices.begin(), m.indices.end());

  int recordSize = 0;
  check(velrTriangleAccelGetSize(&recordSize), "velrTriangleAccelGetSize");
  if (recordSize != int(sizeof(VelrTriangleAccel)))
    throw std::runtime_error("unexpected triangle record size " + std::to_string(recordSize));
  records_.resize(nTri);
  check(velrTriangleAccelInit(records_.data(), m.vertices.data(), indices_.data(), nTri),
        "velrTriangleAccelInit");

  // The full builder needs about 84 bytes per triangle and 12 per vertex on
  // top of a fixed 32 MiB; give it twice that so large OBJ files still fit.
  const long long need = 84LL * nTri + 12LL * nVert + 0x20000F4LL;
  const unsigned budgetMB = static_cast<unsigned>(std::min<long long>(2 * (need >> 20) + 64, 4000));
  const VelrKDTreeBuildOptions options{VELR_KDTREE_FULL, 40, 1.0f, budgetMB, 0};
  int length = 0;
  check(velrKDTreeBuildAlloc(&tree_, m.vertices.data(), indices_.data(), nVert, nTri, &length,
                             &options),
        "velrKDTreeBuildAlloc");
  check(velrSetBoundBox_32f(m.vertices.data(), nVert, bound_), "velrSetBoundBox_32f");
  object_ = {bound_, records_.data(), tree_};
}

void Tracer::buildNormals() {
  const SceneMesh& m = scene_.mesh;
  const int nTri = m.triangleCount();
  AlignedVector<Vel32f> faceNormals(std::size_t(nTri) * 3);
  check(velrTriangleNormal_32f(m.vertices.data(), indices_.data(), faceNormals.data(), nTri),
        "velrTriangleNormal_32f");
  // Vertex normal: the mean of the unit normals of the triangles around it.
  std::vector<double> sum(m.vertices.size(), 0.0);
  for (int t = 0; t < nTri; ++t)
    for (int k = 0; k < 3; ++k)
      for (int c = 0; c < 3; ++c) sum[std::size_t(indices_[4 * t + k]) * 3 + c] += faceNormals[3 * t + c];
  vertexNormals_.assign(m.vertices.size(), 0.0f);
  for (std::size_t v = 0; v < sum.size(); v += 3) {
    const double len = std::sqrt(sum[v] * sum[v] + sum[v + 1] * sum[v + 1] + sum[v + 2] * sum[v + 2]);
    if (len > 0)
      for (int c = 0; c < 3; ++c) vertexNormals_[v + c] = static_cast<float>(sum[v + c] / len);
  }
}

void Tracer::projectSky() {
  // Evenly spread directions (a Fibonacci lattice) sampling the sky once; the
  // projection is a Monte-Carlo integral, hence the 4 pi / N weight.
  constexpr int kSamples = 4096;
  AlignedVector<Vel32f> x(kSamples), y(kSamples), z(kSamples), rgb(3 * kSamples);
  const double golden = M_PI * (3.0 - std::sqrt(5.0));
  const float weight = static_cast<float>(4.0 * M_PI / kSamples);
  for (int i = 0; i < kSamples; ++i) {
    const double zi = 1.0 - (2.0 * i + 1.0) / kSamples;
    const double r = std::sqrt(1.0 - zi * zi);
    x[i] = static_cast<float>(r * std::cos(golden * i));
    y[i] = static_cast<float>(zi);
    z[i] = static_cast<float>(r * std::sin(golden * i));
    scene_.sky.radiance(x[i], y[i], z[i], &rgb[3 * std::size_t(i)]);
    for (int c = 0; c < 3; ++c) rgb[3 * std::size_t(i) + c] *= weight;
  }
  int size = 0;
  check(velrSHGetSize_32f(kShOrder, 1, &size), "velrSHGetSize_32f");
  shState_ = velMalloc(size);
  if (!shState_) throw std::bad_alloc();
  auto* state = static_cast<VelrSHState*>(shState_);
  check(velrSHInit_32f(state, kShOrder, 1), "velrSHInit_32f");
  const std::size_t count = (kShOrder + 1) * (kShOrder + 1);
  for (auto& c : shCoeffs_) c.assign(count, 0.0f);
  Vel32f* coeffs[3] = {shCoeffs_[0].data(), shCoeffs_[1].data(), shCoeffs_[2].data()};
  check(velrSHTFwd_32f_C3P3I(x.data(), y.data(), z.data(), rgb.data(), kSamples, coeffs, kShOrder,
                             state),
        "velrSHTFwd_32f_C3P3I");
  for (unsigned l = 0; l <= kShOrder; ++l)
    for (unsigned k = l * l; k < (l + 1) * (l + 1); ++k)
      for (auto& c : shCoeffs_) c[k] *= kLambertBand[l] * scene_.sky.ambient;
}

void Tracer::ambient(const float normal[3], float rgb[3]) const {
  const Vel32f* coeffs[3] = {shCoeffs_[0].data(), shCoeffs_[1].data(), shCoeffs_[2].data()};
  Vel32f* out[3] = {&rgb[0], &rgb[1], &rgb[2]};
  check(velrSHTInv_32f_P3(coeffs, kShOrder, &normal[0], &normal[1], &normal[2], out, 1,
                          static_cast<const VelrSHState*>(shState_)),
        "velrSHTInv_32f_P3");
}

// Normals, materials, ambient and direct light for the hits of one block of
// rays; rays that missed take the sky's colour.
void Tracer::shadeSurface(RayBlock& b, TileWork& w) {
  const int n = kRays;
  const SceneMesh& mesh = scene_.mesh;
  const PointLight& light = scene_.light;
  auto t = Clock::now();
  auto lap = [&](Stage s) {
    const auto now = Clock::now();
    w.ms[s] += std::chrono::duration<double, std::milli>(now - t).count();
    t = now;
  };

  check(velrSurfSmoothNormal_32f(vertexNormals_.data(), indices_.data(), b.tri, b.hit, b.normal,
                                 n, 4),
        "velrSurfSmoothNormal_32f");
  check(velrDotChangeNorm_32f_IM(b.dir, b.tri, b.normal, b.dotRay, n), "velrDotChangeNorm_32f_IM");
  lap(kSurface);

  for (int i = 0; i < n; ++i) {
    const int tri = b.tri[i];
    if (tri >= 0) {
      const Material& m = scene_.materials[mesh.material[tri]];
      const float* a = m.albedo;
      if (m.checker > 0.0f) {
        const long cx = std::lround(std::floor(b.point[0][i] / m.checker));
        const long cz = std::lround(std::floor(b.point[2][i] / m.checker));
        if ((cx + cz) & 1) a = m.albedo2;
      }
      for (int c = 0; c < 3; ++c) {
        b.albedo[c][i] = a[c];
        b.color[c][i] = 0.0f;
      }
      b.diffuse[i] = m.diffuse;
    } else {
      float sky[3];
      scene_.sky.radiance(b.dir[0][i], b.dir[1][i], b.dir[2][i], sky);
      for (int c = 0; c < 3; ++c) {
        b.albedo[c][i] = 0.0f;
        b.color[c][i] = sky[c];
      }
      b.diffuse[i] = 0.0f;
    }
  }
  // Ambient: the sky's irradiance evaluated from its coefficients at every
  // normal, times albedo and the material's diffuse weight.
  const Vel32f* coeffs[3] = {shCoeffs_[0].data(), shCoeffs_[1].data(), shCoeffs_[2].data()};
  check(velrSHTInv_32f_P3(coeffs, kShOrder, b.normal[0], b.normal[1], b.normal[2], w.ambient, n,
                          static_cast<const VelrSHState*>(shState_)),
        "velrSHTInv_32f_P3");
  for (int c = 0; c < 3; ++c)
    check(velrMul_32f_C1IM(b.albedo[c], b.tri, w.ambient[c], n), "velrMul_32f_C1IM");
  check(velrAddMulMul_32f_AC1P3IM(kOne, b.diffuse, w.ambient, b.tri, b.color, n),
        "velrAddMulMul_32f_AC1P3IM");
  lap(kShading);

  // Direct light: shadow rays run from the light to each lit-side hit point;
  // any blocker on the way switches the ray off in the mask.
  std::memcpy(w.shadowMask, b.tri, sizeof(Vel32s) * n);
  check(velrCastShadowSO_32f(light.position, b.dotRay, b.normal, b.point, w.shadowMask,
                             w.dotShadow, w.shadowDir, n),
        "velrCastShadowSO_32f");
  w.shadowRays += countActive(w.shadowMask, n);
  check(velrIntersectAnySO_32f(light.position, w.shadowDir, w.occluder, w.shadowMask, kTile, kTile,
                               &object_),
        "velrIntersectAnySO_32f");
  check(velrDistAttenuationSO_32f_M(light.position, b.point, w.shadowMask, w.lightDist, n),
        "velrDistAttenuationSO_32f_M");
  lap(kShadows);

  // |N . S| / |S| is the cosine at the surface; the light falls off with the
  // squared distance.
  std::memcpy(w.lambert, w.dotShadow, sizeof(Vel32f) * n);
  std::memcpy(w.distSq, w.lightDist, sizeof(Vel32f) * n);
  check(velrDiv_32f_C1IM(w.lightDist, w.shadowMask, w.lambert, n), "velrDiv_32f_C1IM");
  check(velrMul_32f_C1IM(w.lightDist, w.shadowMask, w.distSq, n), "velrMul_32f_C1IM");
  check(velrDiv_32f_C1IM(w.distSq, w.shadowMask, w.lambert, n), "velrDiv_32f_C1IM");
  check(velrMul_32f_C1IM(b.diffuse, w.shadowMask, w.lambert, n), "velrMul_32f_C1IM");
  check(velrAddMulMul_32f_AC1P3IM(light.power, w.lambert, b.albedo, w.shadowMask, b.color, n),
        "velrAddMulMul_32f_AC1P3IM");
  lap(kShading);
}

void Tracer::traceTile(const Camera& cam, int bx, int by, TileWork& w, Framebuffer& fb) {
  const int n = kRays;
  RayBlock& eye = w.eye;
  RayBlock& bounce = w.bounce;
  auto t = Clock::now();
  auto lap = [&](Stage s) {
    const auto now = Clock::now();
    w.ms[s] += std::chrono::duration<double, std::milli>(now - t).count();
    t = now;
  };

  check(velrCastEye_32f(cam.origin, cam.dW, cam.dH, kTile, kTile, bx, by, eye.dir, kTile, kTile),
        "velrCastEye_32f");
  lap(kEyeRays);
  std::fill(eye.dist, eye.dist + n, kFar);
  check(velrIntersectEyeSO_32f(cam.eye, eye.dir, eye.dist, eye.hit, eye.tri, &object_, kTile, kTile),
        "velrIntersectEyeSO_32f");
  w.eyeRays += n;
  lap(kNearestHit);
  check(velrHitPoint3DEpsS0_32f_M(cam.eye, eye.dir, eye.dist, eye.tri, eye.point, n, kHitEps),
        "velrHitPoint3DEpsS0_32f_M");
  lap(kSurface);
  shadeSurface(eye, w);
  t = Clock::now();

  // One mirror bounce for the hits on reflective materials. Each mirror ray
  // starts at its own hit point, which lies a hair in front of the surface
  // it leaves; rays that do not reflect get a zero length so they find
  // nothing.
  int reflecting = 0;
  for (int i = 0; i < n; ++i) {
    const int tri = eye.tri[i];
    const float weight = tri >= 0 ? scene_.materials[scene_.mesh.material[tri]].mirror : 0.0f;
    w.reflMask[i] = weight > 0.0f ? tri : -1;
    w.reflWeight[i] = weight;
    reflecting += weight > 0.0f;
  }
  if (reflecting > 0) {
    check(velrCastReflectionRay_32f(eye.dir, w.reflMask, eye.normal, bounce.dir, n),
          "velrCastReflectionRay_32f");
    for (int i = 0; i < n; ++i) bounce.dist[i] = w.reflMask[i] >= 0 ? kFar : 0.0f;
    check(velrIntersectMO_32f(eye.point, bounce.dir, bounce.dist, bounce.hit, bounce.tri, &object_,
                              kTile, kTile),
          "velrIntersectMO_32f");
    w.reflectionRays += reflecting;
    lap(kReflection);
    check(velrHitPoint3DEpsM0_32f_M(eye.point, bounce.dir, bounce.dist, bounce.tri, bounce.point, n,
                                    kHitEps),
          "velrHitPoint3DEpsM0_32f_M");
    lap(kSurface);
    shadeSurface(bounce, w);
    t = Clock::now();
    check(velrAddMulMul_32f_AC1P3IM(kOne, w.reflWeight, bounce.color, w.reflMask, eye.color, n),
          "velrAddMulMul_32f_AC1P3IM");
  }

  for (int y = 0; y < kTile; ++y) {
    const int py = by * kTile + y;
    if (py >= fb.height) break;
    for (int x = 0; x < kTile; ++x) {
      const int px = bx * kTile + x;
      if (px >= fb.width) break;
      float* dst = &fb.rgb[(std::size_t(py) * fb.width + px) * 3];
      for (int c = 0; c < 3; ++c) dst[c] = eye.color[c][y * kTile + x];
    }
  }
  lap(kShading);
}

Framebuffer Tracer::render(const Camera& camera, int threads) {
  Framebuffer fb;
  fb.width = camera.width;
  fb.height = camera.height;
  fb.rgb.assign(std::size_t(fb.width) * fb.height * 3, 0.0f);
  const int tilesX = (fb.width + kTile - 1) / kTile;
  const int tilesY = (fb.height + kTile - 1) / kTile;
  const int tiles = tilesX * tilesY;

  std::atomic<bool> failed{false};
  std::string failure;
  RenderStats sum = stats_;
  sum.stageMs.fill(0.0);
  sum.eyeRays = sum.shadowRays = sum.reflectionRays = 0;
  const auto t0 = Clock::now();
#pragma omp parallel num_threads(std::max(threads, 1))
  {
    std::unique_ptr<TileWork> work;
    try {
      work = std::make_unique<TileWork>();
    } catch (const std::exception& e) {
#pragma omp critical(velr_demo_failure)
      failure = e.what();
      failed = true;
    }
#pragma omp for schedule(dynamic, 1)
    for (int tile = 0; tile < tiles; ++tile) {
      if (failed.load(std::memory_order_relaxed)) continue;
      try {
        traceTile(camera, tile % tilesX, tile / tilesX, *work, fb);
      } catch (const std::exception& e) {
#pragma omp critical(velr_demo_failure)
        failure = e.what();
        failed = true;
      }
    }
    if (work) {
#pragma omp critical(velr_demo_stats)
      {
        for (int s = 0; s < kStageCount; ++s) sum.stageMs[s] += work->ms[s];
        sum.eyeRays += work->eyeRays;
        sum.shadowRays += work->shadowRays;
        sum.reflectionRays += work->reflectionRays;
      }
    }
  }
  sum.wallMs = msSince(t0);
  if (failed) throw std::runtime_error(failure);
  stats_ = sum;
  return fb;
}

}  // namespace velr::demo
