// KD-tree build from arbitrary small meshes: repeated vertices, degenerate
// triangles, huge, tiny, infinite and not-a-number coordinates, with options
// on both sides of every limit. The status must follow the documented
// checks; a refused build writes nothing and holds no memory. A built block
// must be well formed (every child pair and leaf list inside the block,
// triangle numbers in range, no leaf deeper than the limit), and the nearest
// hits and any-hit answers through it must be those of the one-leaf tree of
// the same mesh, apart from ties in distance.
#include <cmath>

#include "tests/fuzz/fuzz_common.h"

namespace {

using fuzz::Arena;
using fuzz::Input;

float coordinate(Input& in, const float* previous, int count) {
  const uint8_t b = in.u8();
  if (b < 130) return static_cast<float>(static_cast<int>(in.u8() % 17) - 8) / 4.0f;
  if (b < 170 && count > 0) return previous[in.u8() % count];  // a repeated value
  if (b < 190) return static_cast<float>(static_cast<int16_t>(in.u16())) / 1024.0f;
  if (b < 200) return (in.oneIn(2) ? 1.0f : -1.0f) * (in.oneIn(2) ? 1e30f : 3e38f);
  if (b < 210) return (in.oneIn(2) ? 1.0f : -1.0f) * (in.oneIn(2) ? 1e-30f : 1e-44f);
  if (b < 215) return NAN;
  if (b < 218) return in.oneIn(2) ? INFINITY : -INFINITY;
  return in.f32();
}

// Whether a mesh's coordinates are all moderate: only then is the tree
// expected to answer every ray exactly as the flat list does (the traversal
// margins are absolute, and rounding of huge split distances may decide a
// hit that lies on a split plane differently).
bool moderate(const float* v, int n) {
  for (int i = 0; i < n; ++i)
    if (!(std::fabs(v[i]) <= 1e6f) || (v[i] != 0.0f && std::fabs(v[i]) < 1e-6f)) return false;
  return true;
}

struct TreeCheck {
  const VelrKDTreeNode* root;
  int bytes;
  int nTri;
  int maxDepth;

  bool inside(const void* p, size_t size) const {
    const char* b = reinterpret_cast<const char*>(root);
    const char* q = static_cast<const char*>(p);
    return q >= b && q + size <= b + bytes;
  }

  void triangle(int32_t t) const { FUZZ_CHECK(t >= 0 && t < nTri, "leaf triangle number"); }

  void walk(const VelrKDTreeNode* n, int depth) const {
    FUZZ_CHECK(inside(n, sizeof *n), "node inside the block");
    FUZZ_CHECK(depth <= maxDepth, "no node deeper than the limit");
    const uint32_t w0 = n->word[0], w1 = n->word[1];
    if ((w0 & 0x80000000u) == 0) {
      const uint32_t distance = (w0 >> 3) & 0x0FFFFFFFu;
      FUZZ_CHECK((w0 & 3u) != 3u, "split axis");
      FUZZ_CHECK(distance > 0, "children lie ahead");
      walk(n + distance, depth + 1);
      walk(n + distance + 1, depth + 1);
      return;
    }
    if ((w1 & 0x80000000u) == 0) {  // a list, or empty
      if (w1 == 0) return;
      const int32_t back = static_cast<int32_t>(w0 & ~3u);
      const auto* list = reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(n) -
                                                          static_cast<int64_t>(back));
      FUZZ_CHECK(inside(list, static_cast<size_t>(w1) * 4), "leaf list inside the block");
      for (uint32_t k = 0; k < w1; ++k) triangle(list[k]);
      return;
    }
    const uint32_t count = w1 & 3u;
    FUZZ_CHECK(count >= 1, "inline leaf count");
    if (count < 3) {
      triangle(static_cast<int32_t>(w0 & 0x7FFFFFFFu));
      if (count == 2) triangle(static_cast<int32_t>((w1 >> 2) & 0x1FFFFFFFu));
      return;
    }
    const int32_t m = static_cast<int32_t>((w1 >> 2) & 0x1FFFFFFFu);
    triangle(m - static_cast<int32_t>((w0 >> 16) & 0x7FFFu));
    triangle(m);
    triangle(m + static_cast<int32_t>(w0 & 0xFFFFu));
  }
};

// The one-leaf tree's fixed layout.
void checkOneLeaf(const VelrKDTreeNode* tree, int length, int nTri) {
  FUZZ_CHECK(length == 4 * nTri + 16, "one-leaf length");
  const auto* w = reinterpret_cast<const int32_t*>(tree);
  FUZZ_CHECK(w[0] == -16 && w[1] == nTri && w[2] == 0 && w[3] == 0, "one-leaf header");
  for (int i = 0; i < nTri; ++i) FUZZ_CHECK(w[4 + i] == i, "one-leaf list");
}

// The extent of a triangle along axis a.
void boundsAlong(const float* verts, const int* tri, int a, float* lo, float* hi) {
  *lo = INFINITY;
  *hi = -INFINITY;
  for (int k = 0; k < 3; ++k) {
    *lo = std::fmin(*lo, verts[3 * tri[k] + a]);
    *hi = std::fmax(*hi, verts[3 * tri[k] + a]);
  }
}

// Whether a ray runs parallel to an axis in, or next to, the plane where a
// triangle ends along that axis, and meets it at distance t. The walk gives
// a parallel axis a large inverse, so a split plane at offset e from the
// origin counts as crossed at e times that inverse: with the narrow inverse
// (83886.078125) and the 0.00001 margin, a ray within (t + 1) * 1.2e-5 of
// the plane may be sent to either side. A triangle that ends at a split is
// stored on one side only (the builder counts a triangle ending exactly at a
// split on the lower side only, one starting there on the upper side only),
// so the tree may miss a hit on the boundary that the flat list finds.
bool grazesInPlane(const float o[3], const float d[3], float t, const float* verts,
                   const int* tri) {
  const double near = (std::fabs(static_cast<double>(t)) + 1.0) * 1.2e-5;
  for (int a = 0; a < 3; ++a) {
    if (!(std::fabs(d[a]) <= 1.1920928955078125e-07f)) continue;
    float lo, hi;
    boundsAlong(verts, tri, a, &lo, &hi);
    if (std::fabs(static_cast<double>(o[a]) - lo) <= near ||
        std::fabs(static_cast<double>(o[a]) - hi) <= near)
      return true;
  }
  return false;
}

// Whether a hit at distance t lies outside the triangle's bounding box by
// more than the walk's split margin (0.00001 of the ray's direction). The
// triangle test can report such a hit where its single-precision terms cannot
// resolve the triangle (a thin sliver, or a ray running within rounding of
// the plane of the box's face); a KD-tree walk only tests triangles whose
// boxes overlap the cells the ray crosses, so it need not meet it.
bool outsideBox(const float o[3], const float d[3], float t, const float* verts, const int* tri) {
  for (int a = 0; a < 3; ++a) {
    float lo, hi;
    boundsAlong(verts, tri, a, &lo, &hi);
    const double step = static_cast<double>(t) * d[a];
    const double p = o[a] + step;
    // A true hit's point, from a distance rounded to float, is off by far
    // less than the margin for the distances the harness uses.
    const double tol = 1e-5 * std::fabs(d[a]);
    if (p < lo - tol || p > hi + tol) return true;
  }
  return false;
}

// Prints what reproduces a disagreement: the ray, the mesh, the tree's words.
void dumpCase(const float o[3], const float d[3], float reach, const float* verts, const int* idx,
              int nTri, const VelrKDTreeNode* tree, int treeBytes, const float box[6]) {
  std::fprintf(stderr, "  origin (%a %a %a) direction (%a %a %a) reach %a\n", o[0], o[1], o[2],
               d[0], d[1], d[2], reach);
  for (int t = 0; t < nTri; ++t) {
    std::fprintf(stderr, "  triangle %d:", t);
    for (int k = 0; k < 3; ++k)
      std::fprintf(stderr, " (%a %a %a)", verts[3 * idx[4 * t + k]], verts[3 * idx[4 * t + k] + 1],
                   verts[3 * idx[4 * t + k] + 2]);
    std::fprintf(stderr, "\n");
  }
  const auto* w = reinterpret_cast<const uint32_t*>(tree);
  std::fprintf(stderr, "  tree words:");
  for (int k = 0; k < treeBytes / 4; ++k) std::fprintf(stderr, " %08x", w[k]);
  std::fprintf(stderr, "\n  box %a %a %a %a %a %a\n", box[0], box[1], box[2], box[3], box[4],
               box[5]);
}

// Whether every triangle that blocks the segment (0, 1) of a ray is one that
// a KD-tree walk may legitimately pass by: a blocker within rounding of the
// segment's end, one hit outside its box (see outsideBox), or one that a ray
// in an axis plane grazes (see grazesInPlane). Each triangle is traced alone,
// with nothing clipped away.
bool onlyDoubtfulBlockers(const float o[3], const float d[3], const float* verts, const int* idx,
                          const VelrTriangleAccel* records, int nTri) {
  static const float kEverywhere[6] = {-INFINITY, -INFINITY, -INFINITY,
                                       INFINITY,  INFINITY,  INFINITY};
  const float* dir[3] = {&d[0], &d[1], &d[2]};
  for (int t = 0; t < nTri; ++t) {
    const Vel32s leaf[5] = {-16, 1, 0, 0, t};
    const VelrIntersectObject one{kEverywhere, records,
                                  reinterpret_cast<const VelrKDTreeNode*>(leaf)};
    float dist = 1.0f, w1 = 0, w2 = 0;
    float* hit[2] = {&w1, &w2};
    Vel32s tri = -1;
    velrIntersectEyeSO_32f(o, dir, &dist, hit, &tri, &one, 1, 1);
    if (tri < 0 || std::fabs(dist - 1.0f) <= 2e-5f) continue;
    const int* corners = idx + 4 * t;
    if (!outsideBox(o, d, dist, verts, corners) && !grazesInPlane(o, d, dist, verts, corners))
      return false;
  }
  return true;
}

// Rays through the mesh from points around it; the nearest hits and the
// any-hit answers of the two trees must agree.
void compareQueries(Input& in, const float* verts, int nVert, const int* idx, int nTri,
                    const VelrKDTreeNode* full, int treeBytes, const VelrKDTreeNode* flat) {
  std::vector<VelrTriangleAccel> records(static_cast<size_t>(nTri));
  velrTriangleAccelInit(records.data(), verts, idx, nTri);
  float box[6];
  velrSetBoundBox_32f(verts, nVert, box);
  const int width = in.oneIn(3) ? 3 : 4, height = in.oneIn(3) ? 5 : 4, n = width * height;
  std::vector<float> dir[3], org[3];
  for (int c = 0; c < 3; ++c) {
    dir[c].resize(n);
    org[c].resize(n);
  }
  float eye[3];
  for (int c = 0; c < 3; ++c) eye[c] = static_cast<float>(static_cast<int>(in.u8() % 41) - 20) / 4.0f;
  for (int r = 0; r < n; ++r) {
    // Aim at a vertex of a random triangle, or anywhere.
    const int t = in.u8() % nTri, k = in.u8() % 3;
    for (int c = 0; c < 3; ++c) {
      const float target = in.oneIn(4) ? coordinate(in, verts, 3 * nVert) : verts[3 * idx[4 * t + k] + c];
      dir[c][r] = target - eye[c] + static_cast<float>(static_cast<int>(in.u8() % 9) - 4) / 64.0f;
      org[c][r] = in.oneIn(2) ? eye[c] : coordinate(in, verts, 3 * nVert);
    }
  }
  const float* d[3] = {dir[0].data(), dir[1].data(), dir[2].data()};
  const float* o[3] = {org[0].data(), org[1].data(), org[2].data()};
  const float reach = in.oneIn(3) ? 1e30f : static_cast<float>(1 + in.u8() % 40);

  struct Result {
    std::vector<float> dist, u, v;
    std::vector<int> tri;
  };
  auto nearest = [&](const VelrKDTreeNode* root, bool many) {
    Result r{std::vector<float>(n, reach), std::vector<float>(n, -7.0f),
             std::vector<float>(n, -7.0f), std::vector<int>(n, -5)};
    float* hit[2] = {r.u.data(), r.v.data()};
    const VelrIntersectObject obj{box, records.data(), root};
    const VelStatus st = many ? velrIntersectMO_32f(o, d, r.dist.data(), hit, r.tri.data(), &obj,
                                                    width, height)
                              : velrIntersectEyeSO_32f(eye, d, r.dist.data(), hit, r.tri.data(),
                                                       &obj, width, height);
    FUZZ_EXPECT_STATUS(st, velStsNoErr);
    return r;
  };
  for (bool many : {false, true}) {
    const Result a = nearest(full, many), b = nearest(flat, many);
    for (int r = 0; r < n; ++r) {
      // Ties may go either way: equal distances, and distances within
      // rounding of each other or of the ray's reach. A split plane's
      // distance and that of a hit on the plane are rounded differently, so
      // a hit a last bit short of the reach or of another hit may be found
      // by one walk and not the other; the per-origin query also keeps the
      // first of two hits closer than 0.00001. A hit that the one-leaf tree
      // reports outside the triangle's box may be out of the walk's reach.
      const bool same = a.tri[r] == b.tri[r] && std::memcmp(&a.dist[r], &b.dist[r], 4) == 0;
      const bool tie = std::fabs(a.dist[r] - b.dist[r]) <=
                       2e-5f * std::fmax(1.0f, std::fabs(b.dist[r]));
      if (same || tie) continue;
      const float ro[3] = {many ? o[0][r] : eye[0], many ? o[1][r] : eye[1],
                           many ? o[2][r] : eye[2]};
      const float rd[3] = {d[0][r], d[1][r], d[2][r]};
      const int flatHit = b.tri[r] >= 0 ? b.tri[r] : a.tri[r];
      const float flatDist = b.tri[r] >= 0 ? b.dist[r] : a.dist[r];
      if (flatHit >= 0 && grazesInPlane(ro, rd, flatDist, verts, idx + 4 * flatHit)) continue;
      if (b.tri[r] >= 0 && outsideBox(ro, rd, b.dist[r], verts, idx + 4 * b.tri[r])) continue;
      std::fprintf(stderr, "%s ray %d: tree %d at %a, one leaf %d at %a\n",
                   many ? "many-origin" : "eye", r, a.tri[r], a.dist[r], b.tri[r], b.dist[r]);
      dumpCase(ro, rd, reach, verts, idx, nTri, full, treeBytes, box);
      fuzz::fail("nearest hit of the tree and of the one-leaf tree", __FILE__, __LINE__);
    }
  }
  // Shadow rays: whether a blocker exists between origin and tip.
  std::vector<float> seg[3];
  for (int c = 0; c < 3; ++c) {
    seg[c] = dir[c];
    for (float& s : seg[c]) s *= static_cast<float>(1 + in.u8() % 4) / 2.0f;
  }
  const float* s3[3] = {seg[0].data(), seg[1].data(), seg[2].data()};
  auto blocked = [&](const VelrKDTreeNode* root) {
    std::vector<int> occluder(n, -5), mask(n);
    for (int r = 0; r < n; ++r) mask[r] = r % 5 == 4 ? -1 : 0;
    const VelrIntersectObject obj{box, records.data(), root};
    FUZZ_EXPECT_STATUS(velrIntersectAnySO_32f(eye, s3, occluder.data(), mask.data(), width, height,
                                              &obj),
                       velStsNoErr);
    return mask;
  };
  const std::vector<int> viaTree = blocked(full), viaList = blocked(flat);
  if (viaTree == viaList) return;
  // Blockers within rounding of the segment's end, hit outside their boxes or
  // grazed in an axis plane may be found by one walk and not the other (see
  // the nearest hits above); a ray blocked only by such triangles may differ.
  // So may any ray with a component in [-epsilon, 0): the shadow walk takes
  // that axis's sign from the component (upper child first) but gives it the
  // positive parallel inverse, so it may leave the side the ray stays on. Any
  // other difference is a fault.
  Result end{std::vector<float>(n, 2.0f), std::vector<float>(n), std::vector<float>(n),
             std::vector<int>(n)};
  float* hit[2] = {end.u.data(), end.v.data()};
  const VelrIntersectObject obj{box, records.data(), flat};
  velrIntersectEyeSO_32f(eye, s3, end.dist.data(), hit, end.tri.data(), &obj, width, height);
  for (int r = 0; r < n; ++r) {
    if (viaTree[r] == viaList[r]) continue;
    const float rd[3] = {s3[0][r], s3[1][r], s3[2][r]};
    bool misSigned = false;
    for (float c : rd) misSigned |= c < 0.0f && c >= -1.1920928955078125e-07f;
    if (misSigned || onlyDoubtfulBlockers(eye, rd, verts, idx, records.data(), nTri)) continue;
    std::fprintf(stderr, "shadow ray %d: tree %d, one leaf %d, nearest blocker %d at %a\n", r,
                 viaTree[r], viaList[r], end.tri[r], end.dist[r]);
    dumpCase(eye, rd, 1.0f, verts, idx, nTri, full, treeBytes, box);
    fuzz::fail("any-hit answers of the tree and the one-leaf tree", __FILE__, __LINE__);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  fuzz::pickThreads(in);
  Arena arena;
  const int nVert = in.range(0, 20);
  const int nTri = nVert == 0 ? 0 : in.range(0, in.oneIn(6) ? 120 : 24);
  float* verts = arena.add<float>(3 * static_cast<size_t>(nVert), in.misalign(4));
  for (int i = 0; i < 3 * nVert; ++i) verts[i] = coordinate(in, verts, i);
  int* idx = arena.add<int>(4 * static_cast<size_t>(nTri), in.misalign(4));
  for (int t = 0; t < nTri; ++t) {
    for (int k = 0; k < 3; ++k) idx[4 * t + k] = in.u8() % nVert;
    idx[4 * t + 3] = static_cast<int>(in.u32());  // never read
  }

  VelrKDTreeBuildOptions opt{};
  const uint8_t algChoice = in.u8();
  opt.alg = algChoice < 200 ? VELR_KDTREE_FULL : algChoice < 240 ? VELR_KDTREE_ONE_LEAF : in.u32();
  opt.maxDepth = in.oneIn(12) ? in.u32() : in.u8() % 52;
  opt.qualityFactor = in.oneIn(12) ? in.f32() : static_cast<float>(in.u8() % 11) / 10.0f;
  opt.memoryLimitMB = in.oneIn(10) ? in.u32() : 31 + in.u8() % 8;
  opt.flags = in.oneIn(3) ? static_cast<int>(in.u32() | 1) : 0;
  int cntVertex = nVert, cntTrngl = nTri;
  if (in.oneIn(16)) (in.oneIn(2) ? cntVertex : cntTrngl) = in.oneIn(2) ? -1 : INT_MIN;
  const int missing = in.oneIn(16) ? in.range(0, 4) : -1;

  VelrKDTreeNode** out = arena.add<VelrKDTreeNode*>(1, 0, &in);
  int* length = arena.add<int>(1, 0, &in);
  auto* options = arena.add<VelrKDTreeBuildOptions>(1, 0);
  *options = opt;
  arena.writable(out);
  arena.writable(length);
  arena.seal();
  FUZZ_TRACE("kdtree: %d vertices, %d triangles (passed %d, %d), alg %#x depth %u quality %a "
             "budget %u flags %d, missing %d\n",
             nVert, nTri, cntVertex, cntTrngl, opt.alg, opt.maxDepth, opt.qualityFactor,
             opt.memoryLimitMB, opt.flags, missing);
  const long live = velTestLiveBlocks();
  const VelStatus st = velrKDTreeBuildAlloc(missing == 0 ? nullptr : out,
                                            missing == 1 ? nullptr : verts,
                                            missing == 2 ? nullptr : idx, cntVertex, cntTrngl,
                                            missing == 3 ? nullptr : length,
                                            missing == 4 ? nullptr : options);

  VelStatus want = velStsNoErr;
  const uint64_t need = 84ull * nTri + 12ull * nVert + 0x20000F4ull;
  if (missing >= 0 && missing <= 3) want = velStsNullPtrErr;
  else if (cntVertex < 0 || cntTrngl < 0) want = velStsSizeErr;
  else if (missing == 4) want = velStsNullPtrErr;
  else if (opt.alg == VELR_KDTREE_ONE_LEAF) want = opt.maxDepth > 50 ? velStsOutOfRangeErr : velStsNoErr;
  else if (opt.alg != VELR_KDTREE_FULL) want = velStsBadArgErr;
  else if (opt.maxDepth > 50 || opt.qualityFactor < 0.0f || opt.qualityFactor > 1.0f)
    want = velStsOutOfRangeErr;
  else if (static_cast<uint32_t>(opt.memoryLimitMB << 19) < 0x1000000u ||
           need > (static_cast<uint64_t>(opt.memoryLimitMB) << 20))
    want = velStsNoMemErr;
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
  if (st != velStsNoErr) {
    FUZZ_CHECK(velTestLiveBlocks() == live, "a refused build holds no memory");
    return 0;
  }
  FUZZ_CHECK(velTestLiveBlocks() == live + 1, "a build hands over exactly one block");
  VelrKDTreeNode* tree = *out;
  if (opt.alg == VELR_KDTREE_ONE_LEAF) {
    checkOneLeaf(tree, *length, nTri);
  } else {
    FUZZ_CHECK(*length >= 8 && *length % 4 == 0, "block length");
    TreeCheck{tree, *length, nTri, static_cast<int>(opt.maxDepth)}.walk(tree, 0);
    if (nTri > 0 && moderate(verts, 3 * nVert)) {
      VelrKDTreeNode* flat = nullptr;
      int flatLength = 0;
      const VelrKDTreeBuildOptions one{VELR_KDTREE_ONE_LEAF, 0, 0.0f, 0, 0};
      FUZZ_EXPECT_STATUS(velrKDTreeBuildAlloc(&flat, verts, idx, nVert, nTri, &flatLength, &one),
                         velStsNoErr);
      compareQueries(in, verts, nVert, idx, nTri, tree, *length, flat);
      velrKDTreeFree(flat);
    }
  }
  velrKDTreeFree(tree);
  FUZZ_CHECK(velTestLiveBlocks() == live, "the freed tree leaves nothing behind");
  return 0;
}
