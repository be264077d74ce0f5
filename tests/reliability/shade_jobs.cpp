// Shading jobs: one block of rays through ray casting, hit points, normals,
// shadow rays and the masked arithmetic, and the mesh-wide triangle normals
// (a parallel operation) and triangle records.
#include <algorithm>

#include "tests/reliability/jobs.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace velr::reliability {
namespace {

constexpr int kImage = 128, kBlock = 16, kRays = kBlock * kBlock;

// Everything the shading jobs read: a mesh, its normals, a camera and, per
// pixel, a hit (triangle number or -1, distance, weights) as an intersection
// pass would leave them.
struct ShadeScene {
  workloads::Mesh mesh = workloads::makeBumpySphere(15);  // 4500 triangles: the build opens teams
  workloads::Camera cam = workloads::standardCamera(kImage, kImage);
  std::vector<float> triNormals, vertNormals;
  std::vector<int> tri;
  std::vector<float> dist, u, v, light{3.0f, 4.0f, 1.5f}, colour{0.9f, 0.7f, 0.4f};

  std::vector<VelrTriangleAccel> records;
  std::vector<float> box = std::vector<float>(6);
  VelrKDTreeNode* tree = nullptr;

  ShadeScene() {
    const int nTri = mesh.triangleCount();
    records.resize(static_cast<size_t>(nTri));
    velrTriangleAccelInit(records.data(), mesh.vertices.data(), mesh.indices.data(), nTri);
    velrSetBoundBox_32f(mesh.vertices.data(), mesh.vertexCount(), box.data());
    int length = 0;
    const VelrKDTreeBuildOptions opt{VELR_KDTREE_FULL, 40, 0.8f, 64, 0};
    velrKDTreeBuildAlloc(&tree, mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(),
                         nTri, &length, &opt);
    triNormals.resize(3 * static_cast<size_t>(nTri));
    velrTriangleNormal_32f(mesh.vertices.data(), mesh.indices.data(), triNormals.data(), nTri);
    // Vertex normals: on a sphere about the origin, the position will do.
    vertNormals = mesh.vertices;
    workloads::SplitMix64 rng(2024);
    const size_t n = static_cast<size_t>(kImage) * kImage;
    tri.resize(n);
    dist.resize(n);
    u.resize(n);
    v.resize(n);
    for (size_t i = 0; i < n; ++i) {
      tri[i] = rng.uniform() < 0.2 ? -1 : static_cast<int>(rng.next() % nTri);
      dist[i] = static_cast<float>(rng.uniform(1.0, 4.0));
      u[i] = static_cast<float>(rng.uniform(0.0, 1.0));
      v[i] = static_cast<float>(rng.uniform(0.0, 1.0 - u[i]));
    }
  }
};

const ShadeScene& scene() {
  static const ShadeScene s;
  return s;
}

struct P3 {
  std::vector<float> c[3];
  explicit P3(size_t n, float fill = 0.0f) {
    for (auto& p : c) p.assign(n, fill);
  }
  float* const* out() {
    for (int i = 0; i < 3; ++i) ptr[i] = c[i].data();
    return ptr;
  }
  const float* const* in() {
    for (int i = 0; i < 3; ++i) cptr[i] = c[i].data();
    return cptr;
  }
  void addTo(Bytes& b) const {
    for (const auto& p : c) b.add(p);
  }
  float* ptr[3];
  const float* cptr[3];
};

// One 16 x 16 block through the shading chain; `len` shortens the packets
// (not a multiple of 4) so the one-ray paths run too.
Bytes shadeBlock(int bx, int by, int len) {
  const ShadeScene& s = scene();
  Bytes out;
  P3 dir(kRays);
  out.status(velrCastEye_32f(s.cam.origin, s.cam.dW, s.cam.dH, kBlock, kBlock, bx, by,
                             dir.out(), kBlock, kBlock));
  // This block's rows of the shared hit planes.
  std::vector<int> mask(kRays);
  std::vector<float> t(kRays), hu(kRays), hv(kRays);
  for (int y = 0; y < kBlock; ++y) {
    const size_t row = static_cast<size_t>(by * kBlock + y) * kImage + bx * kBlock;
    std::copy_n(s.tri.begin() + row, kBlock, mask.begin() + y * kBlock);
    std::copy_n(s.dist.begin() + row, kBlock, t.begin() + y * kBlock);
    std::copy_n(s.u.begin() + row, kBlock, hu.begin() + y * kBlock);
    std::copy_n(s.v.begin() + row, kBlock, hv.begin() + y * kBlock);
  }
  const float* hit[2] = {hu.data(), hv.data()};

  P3 point(kRays), flat(kRays), smooth(kRays), refl(kRays), shadowDir(kRays), eyeOrigins(kRays);
  for (int c = 0; c < 3; ++c) std::fill(eyeOrigins.c[c].begin(), eyeOrigins.c[c].end(), s.cam.eye[c]);
  out.status(velrHitPoint3DEpsS0_32f_M(s.cam.eye, dir.in(), t.data(), mask.data(), point.out(),
                                       len, 0.999f));
  P3 pointM(kRays);
  out.status(velrHitPoint3DEpsM0_32f_M(eyeOrigins.in(), dir.in(), t.data(), mask.data(),
                                       pointM.out(), len, 1.001f));
  out.status(velrSurfFlatNormal_32f(s.triNormals.data(), mask.data(), flat.out(), len));
  out.status(velrSurfSmoothNormal_32f(s.vertNormals.data(), s.mesh.indices.data(), mask.data(),
                                      hit, smooth.out(), len, 4));
  std::vector<float> dot(kRays), dotShadow(kRays), atten(kRays), lit(kRays);
  out.status(velrDotChangeNorm_32f_IM(dir.in(), mask.data(), smooth.out(), dot.data(), len));
  out.status(velrCastReflectionRay_32f(dir.in(), mask.data(), smooth.in(), refl.out(), len));
  std::vector<int> shadowMask = mask;
  out.status(velrCastShadowSO_32f(s.light.data(), dot.data(), smooth.in(), point.in(),
                                  shadowMask.data(), dotShadow.data(), shadowDir.out(), len));
  out.status(velrDistAttenuationSO_32f_M(s.light.data(), point.in(), shadowMask.data(),
                                         atten.data(), len));
  out.status(velrDiv_32f_C1IM(atten.data(), shadowMask.data(), dotShadow.data(), len));
  out.status(velrDot_32f_P3C1M(flat.in(), refl.in(), mask.data(), lit.data(), len));
  out.status(velrMul_32f_C1IM(t.data(), mask.data(), lit.data(), len));
  P3 colour(kRays, 0.25f);
  out.status(velrAddMulMul_32f_AC1P3IM(s.colour.data(), dotShadow.data(), flat.in(),
                                       shadowMask.data(), colour.out(), len));
  out.status(velrMul_32f_C1P3IM(lit.data(), mask.data(), colour.out(), len));
  for (const P3* p : {&dir, &point, &pointM, &flat, &smooth, &refl, &shadowDir, &colour})
    p->addTo(out);
  for (const auto* p : {&dot, &dotShadow, &atten, &lit}) out.add(*p);
  out.add(shadowMask);
  return out;
}

// Mesh-wide work over a slice of the triangles: normals (a parallel region
// per call), records and the bounding box of the slice's vertices.
Bytes meshSlice(int first, int count) {
  const ShadeScene& s = scene();
  Bytes out;
  std::vector<float> normals(3 * static_cast<size_t>(count));
  const int* idx = s.mesh.indices.data() + 4 * static_cast<size_t>(first);
  out.status(velrTriangleNormal_32f(s.mesh.vertices.data(), idx, normals.data(), count));
  std::vector<VelrTriangleAccel> records(static_cast<size_t>(count));
  out.status(velrTriangleAccelInit(records.data(), s.mesh.vertices.data(), idx, count));
  float box[6];
  out.status(velrSetBoundBox_32f(s.mesh.vertices.data() + 3 * static_cast<size_t>(first),
                                 std::min(count, s.mesh.vertexCount() - first), box));
  out.add(normals);
  out.add(records);
  out.add(box, 6);
  return out;
}

// A KD-tree built while other threads trace through the shared one; the
// full builder searches the axes of large nodes with a team of its own
// unless `flags` asks for the calling thread only.
Bytes buildJob(int flags, float quality) {
  const ShadeScene& s = scene();
  VelrKDTreeNode* tree = nullptr;
  int length = 0;
  const VelrKDTreeBuildOptions opt{VELR_KDTREE_FULL, 40, quality, 64, flags};
  Bytes out;
  out.status(velrKDTreeBuildAlloc(&tree, s.mesh.vertices.data(), s.mesh.indices.data(),
                                  s.mesh.vertexCount(), s.mesh.triangleCount(), &length, &opt));
  out.add(reinterpret_cast<const Vel8u*>(tree), static_cast<size_t>(length));
  out.status(velrKDTreeFree(tree));
  return out;
}

// One 16 x 16 block through the four intersection queries on the shared tree.
Bytes traceBlock(int bx, int by, int width, int height) {
  const ShadeScene& s = scene();
  const int n = width * height;
  Bytes out;
  P3 dir(n);
  out.status(velrCastEye_32f(s.cam.origin, s.cam.dW, s.cam.dH, width, height, bx, by, dir.out(),
                             width, height));
  const VelrIntersectObject obj{s.box.data(), s.records.data(), s.tree};
  std::vector<float> dist(n, 1e30f), u(n), v(n);
  std::vector<int> tri(n);
  float* hit[2] = {u.data(), v.data()};
  out.status(velrIntersectEyeSO_32f(s.cam.eye, dir.in(), dist.data(), hit, tri.data(), &obj,
                                    width, height));
  // Secondary rays from the hit points, a little off the surface.
  P3 point(n), refl(n), normal(n);
  out.status(velrHitPoint3DEpsS0_32f_M(s.cam.eye, dir.in(), dist.data(), tri.data(), point.out(),
                                       n, 0.999f));
  out.status(velrSurfFlatNormal_32f(s.triNormals.data(), tri.data(), normal.out(), n));
  out.status(velrCastReflectionRay_32f(dir.in(), tri.data(), normal.in(), refl.out(), n));
  std::vector<float> dist2(n, 1e30f), u2(n), v2(n);
  std::vector<int> tri2(n);
  float* hit2[2] = {u2.data(), v2.data()};
  out.status(velrIntersectMO_32f(point.in(), refl.in(), dist2.data(), hit2, tri2.data(), &obj,
                                 width, height));
  // Occlusion of segments from the eye, long enough (three direction
  // lengths) to reach the mesh for some rays and not for others.
  P3 segment(n);
  for (int c = 0; c < 3; ++c)
    for (int i = 0; i < n; ++i) segment.c[c][i] = dir.c[c][i] * (i % 2 == 0 ? 3.0f : 2.0f);
  std::vector<int> occluder(n), mask = tri;
  out.status(velrIntersectAnySO_32f(s.cam.eye, segment.in(), occluder.data(), mask.data(), width,
                                    height, &obj));
  constexpr int kLayers = 3;
  std::vector<float> ldist(kLayers * n, 1e30f), lu(kLayers * n), lv(kLayers * n);
  std::vector<int> ltri(kLayers * n);
  float* lhit[2] = {lu.data(), lv.data()};
  out.status(velrIntersectMultipleSO_32f(s.cam.eye, dir.in(), ldist.data(), lhit, ltri.data(),
                                         width, height, kLayers, &obj));
  for (const auto* p : {&dist, &u, &v, &dist2, &u2, &v2, &ldist, &lu, &lv}) out.add(*p);
  for (const auto* p : {&tri, &tri2, &occluder, &mask, &ltri}) out.add(*p);
  return out;
}

}  // namespace

void addShadeJobs(std::vector<Job>& jobs) {
  scene();
  for (int b = 0; b < 8; ++b) {
    const int bx = (b * 3) % (kImage / kBlock), by = (b * 5) % (kImage / kBlock);
    const int len = b % 2 == 0 ? kRays : kRays - 1 - b;
    jobs.push_back({"shade block " + std::to_string(b), [=] { return shadeBlock(bx, by, len); }});
  }
  const int nTri = scene().mesh.triangleCount();
  for (int b = 0; b < 6; ++b) {
    const int w = b % 3 == 2 ? 13 : 16, h = b % 2 == 0 ? 16 : 11;  // packets and single rays
    jobs.push_back({"trace block " + std::to_string(b), [=] { return traceBlock(b, 5 - b, w, h); }});
  }
  jobs.push_back({"kd-tree build, team per large node", [] { return buildJob(0, 0.8f); }, true});
  jobs.push_back({"kd-tree build, calling thread", [] { return buildJob(1, 0.3f); }, true});
  jobs.push_back({"triangle normals, all", [=] { return meshSlice(0, nTri); }, true});
  jobs.push_back({"triangle normals, slice", [=] { return meshSlice(nTri / 3, nTri / 2 + 1); },
                  true});
}

}  // namespace velr::reliability
