// The cost-driven KD-tree builder.
//
// Each triangle is represented by its axis-aligned bounds. Every axis keeps
// two lists of triangle numbers, ordered by the triangles' lowest (start)
// and highest (end) coordinate; they are sorted once at the root, and a split
// hands each child the subsequences that belong to it, which keeps the order.
// The whole build is therefore O(N log N) and a node's split search is one
// linear sweep per axis.
//
// The lists live on a stack of segments: a node's six lists are one block at
// its top. A split copies the larger child's lists above the block and
// compacts the smaller child's lists in place, then builds the larger child
// first, so the blocks that wait on the stack are the smaller halves.
#include "raytrace/kdtree_build.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstring>

#include "frame/alloc.h"
#include "frame/parallel.h"
#include "raytrace/kdtree_format.h"
#include "raytrace/kdtree_sweep.h"

namespace velr::kd {
namespace {

// ---------------------------------------------------------------- budget

// Fixed parts of the memory a build is charged for, and the leaf-list chunks.
constexpr std::int64_t kHeaderBytes = 204;
constexpr std::int64_t kArea = 16 << 20;
constexpr std::int64_t kNeedFixed = 0x20000F4;
constexpr std::int64_t kChunkHeaderBytes = 20;

// Nodes of this many triangles or more take the parallel split decision:
// all axes searched as by a team, and a node thin along two axes stays a leaf.
constexpr int kParallelMinTriangles = 76;
// Axes thinner than this are never searched; gains below it never split.
constexpr float kMinExtent = 0.00001f;
constexpr double kMinGain = static_cast<double>(0.00001f);
// Multiplier of the leaf cost that a split must beat, per unit of quality.
constexpr double kQualityScale = 0.5057569742202759;

// Real memory is tracked against the budget too, so a build never holds more
// than it was given; the nominal charges decide the documented outcomes.
class Memory {
 public:
  explicit Memory(std::uint64_t budget)
      : limit_(budget > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX
                                                              : static_cast<std::int64_t>(budget)),
        remaining_(limit_) {}

  void* alloc(std::int64_t bytes) {
    if (bytes < 1 || bytes > INT_MAX - 7 || live_ + bytes > limit_) return nullptr;
    void* p = allocItems8(static_cast<int>((bytes + 7) / 8));
    if (p == nullptr) return nullptr;
    live_ += bytes;
    peak_ = std::max(peak_, live_);
    return p;
  }
  void free(void* p, std::int64_t bytes) {
    if (p == nullptr) return;
    velFree(p);
    live_ -= bytes;
  }
  // Hands a block to the caller: it no longer counts as held by the build.
  void handOver(std::int64_t bytes) { live_ -= bytes; }

  void charge(std::int64_t bytes) { remaining_ -= bytes; }
  std::int64_t remaining() const { return remaining_; }
  std::int64_t peak() const { return peak_; }

 private:
  std::int64_t limit_;
  std::int64_t remaining_;
  std::int64_t live_ = 0;
  std::int64_t peak_ = 0;
};

// A block from Memory, released at scope exit.
template <class T>
class Block {
 public:
  Block() = default;
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { reset(); }
  bool allocate(Memory* mem, std::int64_t count) {
    reset();
    mem_ = mem;
    bytes_ = count * static_cast<std::int64_t>(sizeof(T));
    p_ = static_cast<T*>(mem->alloc(bytes_));
    return p_ != nullptr;
  }
  void reset() {
    if (p_ != nullptr) mem_->free(p_, bytes_);
    p_ = nullptr;
  }
  T* get() const { return p_; }
  std::int64_t bytes() const { return bytes_; }
  T* release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }

 private:
  Memory* mem_ = nullptr;
  T* p_ = nullptr;
  std::int64_t bytes_ = 0;
};

// ---------------------------------------------------------------- storage

// Append-only storage in chunks of equal power-of-two size, so growth never
// copies. The chunk size follows the expected content, so small builds make
// small allocations.
template <class T>
class Chunked {
 public:
  static constexpr int kMaxChunks = 1024;

  Chunked(Memory* mem, std::int64_t expected, int maxShift) : mem_(mem) {
    while (shift_ < maxShift && (std::int64_t{1} << shift_) < expected) ++shift_;
  }
  ~Chunked() { releaseAll(); }
  Chunked(const Chunked&) = delete;
  Chunked& operator=(const Chunked&) = delete;

  std::int64_t size() const { return size_; }
  T& operator[](std::int64_t i) {
    return chunks_[i >> shift_][i & ((std::int64_t{1} << shift_) - 1)];
  }

  // Appends n entries; returns the index of the first, -1 on failure.
  std::int64_t grow(std::int64_t n) {
    const std::int64_t first = size_;
    while ((std::int64_t{count_} << shift_) < size_ + n) {
      if (count_ == kMaxChunks) return -1;
      T* p = static_cast<T*>(mem_->alloc(chunkBytes()));
      if (p == nullptr) return -1;
      chunks_[count_++] = p;
    }
    size_ += n;
    return first;
  }

  void copyTo(T* dst) const {
    const std::int64_t chunk = std::int64_t{1} << shift_;
    for (std::int64_t done = 0, i = 0; done < size_; done += chunk, ++i) {
      const std::int64_t n = std::min(chunk, size_ - done);
      std::memcpy(dst + done, chunks_[i], static_cast<size_t>(n) * sizeof(T));
    }
  }

  void releaseAll() {
    for (int i = 0; i < count_; ++i) mem_->free(chunks_[i], chunkBytes());
    count_ = 0;
  }

 private:
  std::int64_t chunkBytes() const { return (std::int64_t{1} << shift_) * std::int64_t{sizeof(T)}; }

  Memory* mem_;
  int shift_ = 4;
  T* chunks_[kMaxChunks] = {};
  int count_ = 0;
  std::int64_t size_ = 0;
};

// Stack of int blocks in segments; blocks are released in LIFO order.
class ListStack {
 public:
  struct Mark {
    int seg;
    std::int64_t top;
  };
  static constexpr int kMaxSegments = 256;

  ListStack(Memory* mem, std::int64_t firstCap, std::int64_t laterCap)
      : mem_(mem), firstCap_(firstCap), laterCap_(laterCap) {}
  ~ListStack() { releaseAll(); }
  ListStack(const ListStack&) = delete;
  ListStack& operator=(const ListStack&) = delete;

  Mark mark() const { return {cur_, cur_ < 0 ? 0 : segs_[cur_].top}; }
  void release(Mark m) {
    cur_ = m.seg;
    if (cur_ >= 0) segs_[cur_].top = m.top;
  }
  int* at(Mark m) const { return segs_[m.seg].base + m.top; }
  // Space left in the current segment above its top.
  std::int64_t room() const { return cur_ < 0 ? 0 : segs_[cur_].cap - segs_[cur_].top; }

  // A block of n ints; *before receives the mark that releases it.
  int* push(std::int64_t n, Mark* before) {
    if (cur_ >= 0 && segs_[cur_].cap - segs_[cur_].top >= n) {
      *before = mark();
      int* p = segs_[cur_].base + segs_[cur_].top;
      segs_[cur_].top += n;
      return p;
    }
    const int next = cur_ + 1;
    if (next < count_ && segs_[next].cap < n) {
      for (int i = next; i < count_; ++i) freeSeg(i);
      count_ = next;
    }
    if (next >= count_) {
      if (count_ == kMaxSegments) return nullptr;
      const std::int64_t cap = std::max(n, count_ == 0 ? firstCap_ : laterCap_);
      int* p = static_cast<int*>(mem_->alloc(cap * 4));
      if (p == nullptr) return nullptr;
      segs_[count_++] = {p, cap, 0};
    }
    cur_ = next;
    *before = {cur_, 0};
    segs_[cur_].top = n;
    return segs_[cur_].base;
  }

  void releaseAll() {
    for (int i = 0; i < count_; ++i) freeSeg(i);
    count_ = 0;
    cur_ = -1;
  }

 private:
  struct Seg {
    int* base;
    std::int64_t cap;
    std::int64_t top;
  };
  void freeSeg(int i) { mem_->free(segs_[i].base, segs_[i].cap * 4); }

  Memory* mem_;
  std::int64_t firstCap_, laterCap_;
  Seg segs_[kMaxSegments] = {};
  int count_ = 0;
  int cur_ = -1;
};

// ---------------------------------------------------------------- sorting

// Order-preserving map of a float's bits to an unsigned key (no -0 or NaN
// reach here).
inline Vel32u sortKey(float f) {
  const Vel32u b = std::bit_cast<Vel32u>(f);
  return (b & 0x80000000u) ? ~b : (b | 0x80000000u);
}

// Writes the numbers 0 .. n-1 ordered by key, ties by number (the LSD passes
// are stable and start from ascending numbers). keys is overwritten; scratch
// holds 3n.
void sortByKey(Vel32u* keys, int n, int* out, int* scratch) {
  Vel32u* k0 = keys;
  Vel32u* k1 = reinterpret_cast<Vel32u*>(scratch);
  int* i0 = scratch + static_cast<std::int64_t>(n);
  int* i1 = i0 + n;
  constexpr int kBits = 11;
  constexpr int kBuckets = 1 << kBits;
  constexpr Vel32u kMask = kBuckets - 1;
  static_assert(3 * kBits >= 32);
  int count[3][kBuckets];
  std::memset(count, 0, sizeof count);
  for (int i = 0; i < n; ++i) {
    const Vel32u k = k0[i];
    ++count[0][k & kMask];
    ++count[1][(k >> kBits) & kMask];
    ++count[2][k >> (2 * kBits)];
  }
  for (auto& c : count) {
    int sum = 0;
    for (int& b : c) {
      const int here = b;
      b = sum;
      sum += here;
    }
  }
  for (int i = 0; i < n; ++i) {
    const Vel32u k = k0[i];
    const int pos = count[0][k & kMask]++;
    k1[pos] = k;
    i1[pos] = i;
  }
  for (int i = 0; i < n; ++i) {
    const Vel32u k = k1[i];
    const int pos = count[1][(k >> kBits) & kMask]++;
    k0[pos] = k;
    i0[pos] = i1[i];
  }
  for (int i = 0; i < n; ++i) out[count[2][k0[i] >> (2 * kBits)]++] = i0[i];
}

// Spreads the low 10 bits of v to every third bit.
inline Vel32u spreadBits(Vel32u v) {
  v &= 0x3FFu;
  v = (v | (v << 16)) & 0x030000FFu;
  v = (v | (v << 8)) & 0x0300F00Fu;
  v = (v | (v << 4)) & 0x030C30C3u;
  v = (v | (v << 2)) & 0x09249249u;
  return v;
}

// ---------------------------------------------------------------- search

struct Box {
  float lo[3], hi[3];
};

// ---------------------------------------------------------------- builder

struct Split {
  int axis;
  AxisResult r;
};

class Builder {
 public:
  Builder(Memory* mem, const FullBuildOptions& opt, int nT)
      : mem_(mem),
        teamMinTriangles_(opt.teamMinTriangles),
        maxDepth_(opt.maxDepth),
        f_(static_cast<float>((10.0 - 9.0 * static_cast<double>(opt.quality)) * kQualityScale)),
        nT_(nT),
        chunkEntries_(opt.chunkEntries),
        chunkCap_(opt.chunkEntries),
        stack_(mem, 6 * static_cast<std::int64_t>(nT) + 9 * static_cast<std::int64_t>(nT) / 2 + 4096,
               std::max<std::int64_t>(6 * static_cast<std::int64_t>(nT) / 4, 4096)),
        nodes_(mem, 2 * static_cast<std::int64_t>(nT) + 2, 18),
        lists_(mem, 2 * static_cast<std::int64_t>(nT) + 2, 19) {}

  bool run(const Vel32f* vertices, const int* indices);
  VelStatus finish(VelrKDTreeNode** ppTree, int* pLength, BuildStats* stats);

 private:
  bool computeBounds(const Vel32f* vertices, const int* indices, Box* root);
  bool build(std::int64_t node, int* lists, ListStack::Mark at, int n, const Box& box, int depth);
  bool chooseSplit(const int* lists, int n, const Box& box, Split* out);
  bool makeLeaf(std::int64_t node, int* ids, int n);
  bool reserveListEntries(std::int64_t n);

  Memory* mem_;
  std::int64_t teamMinTriangles_;
  Vel32u maxDepth_;
  float f_;
  int nT_;
  // The leaf-list chunk chain, counted as the budget sees it.
  std::int64_t chunkEntries_;
  std::int64_t chunkCap_;
  Block<float> bounds_;  // start[3][n] then end[3][n]
  Block<Vel8u> side_;
  // The builder numbers triangles in a spatial order, so a node's triangles
  // sit close together in the bounds arrays; original_ maps back.
  Block<int> original_;
  float* start_[3] = {};
  float* end_[3] = {};
  ListStack stack_;
  Chunked<VelrKDTreeNode> nodes_;
  Chunked<Vel32s> lists_;
  std::int64_t chunkUsed_ = 0;
  BuildStats stats_;
};

bool Builder::computeBounds(const Vel32f* v, const int* idx, Box* root) {
  const std::int64_t n = nT_;
  if (n == 0) {
    *root = Box{{0, 0, 0}, {0, 0, 0}};
    return true;
  }
  if (!bounds_.allocate(mem_, 6 * n) || !side_.allocate(mem_, n)) return false;
  for (int a = 0; a < 3; ++a) {
    start_[a] = bounds_.get() + a * n;
    end_[a] = bounds_.get() + (3 + a) * n;
  }
  float rlo[3] = {HUGE_VALF, HUGE_VALF, HUGE_VALF};
  float rhi[3] = {-HUGE_VALF, -HUGE_VALF, -HUGE_VALF};
  for (std::int64_t t = 0; t < n; ++t) {
    const float* p0 = v + 3 * static_cast<std::int64_t>(idx[4 * t]);
    const float* p1 = v + 3 * static_cast<std::int64_t>(idx[4 * t + 1]);
    const float* p2 = v + 3 * static_cast<std::int64_t>(idx[4 * t + 2]);
    for (int a = 0; a < 3; ++a) {
      float lo = std::min(std::min(p0[a], p1[a]), p2[a]);
      float hi = std::max(std::max(p0[a], p1[a]), p2[a]);
      // Adding +0 turns -0 into +0, so equal coordinates sort as equal;
      // unordered coordinates make a point at 0 rather than break the sweep.
      lo += 0.0f;
      hi += 0.0f;
      if (!(lo <= hi)) lo = hi = 0.0f;
      start_[a][t] = lo;
      end_[a][t] = hi;
      rlo[a] = std::min(rlo[a], lo);
      rhi[a] = std::max(rhi[a], hi);
    }
  }
  for (int a = 0; a < 3; ++a) {
    root->lo[a] = rlo[a];
    root->hi[a] = rhi[a];
  }
  return true;
}

bool Builder::run(const Vel32f* vertices, const int* indices) {
  Box root;
  if (!computeBounds(vertices, indices, &root)) return false;
  if (nodes_.grow(1) != 0) return false;
  if (nT_ == 0) {
    nodes_[0] = emptyLeaf();
    ++stats_.leaves;
    ++stats_.emptyLeaves;
    return true;
  }
  const std::int64_t n = nT_;
  ListStack::Mark at;
  int* lists = stack_.push(6 * n, &at);
  if (lists == nullptr) return false;
  // The sorts' scratch sits above the root's lists while they are made.
  ListStack::Mark scratchAt;
  int* scratch = stack_.push(4 * n, &scratchAt);
  if (scratch == nullptr || !original_.allocate(mem_, n)) return false;

  // Renumber by the Morton code of the centre of each triangle's bounds.
  // Results do not depend on the numbering (every decision reads values
  // and counts only, and leaves list original numbers in ascending order).
  Vel32u* keys = reinterpret_cast<Vel32u*>(lists);
  float scale[3];
  for (int a = 0; a < 3; ++a) {
    const float ext = root.hi[a] - root.lo[a];
    scale[a] = ext > 0.0f ? 1023.0f / ext : 0.0f;
  }
  for (std::int64_t t = 0; t < n; ++t) {
    Vel32u code = 0;
    for (int a = 0; a < 3; ++a) {
      const float c = (start_[a][t] + end_[a][t]) * 0.5f;
      const float u = (c - root.lo[a]) * scale[a];
      const Vel32u q = u > 0.0f ? (u < 1023.0f ? static_cast<Vel32u>(u) : 1023u) : 0u;
      code |= spreadBits(q) << a;
    }
    keys[t] = code;
  }
  int* original = original_.get();
  sortByKey(keys, nT_, original, scratch);
  float* moved = reinterpret_cast<float*>(lists);
  for (float* arr : {start_[0], start_[1], start_[2], end_[0], end_[1], end_[2]}) {
    for (std::int64_t t = 0; t < n; ++t) moved[t] = arr[original[t]];
    std::memcpy(arr, moved, static_cast<size_t>(n) * sizeof(float));
  }

  for (int a = 0; a < 3; ++a) {
    for (int e = 0; e < 2; ++e) {
      const float* value = e == 0 ? start_[a] : end_[a];
      Vel32u* k = reinterpret_cast<Vel32u*>(scratch + 3 * n);
      int* out = lists + (2 * a + e) * n;
      for (std::int64_t t = 0; t < n; ++t) k[t] = sortKey(value[t]);
      sortByKey(k, nT_, out, scratch);
    }
  }
  stack_.release(scratchAt);
  return build(0, lists, at, nT_, root, 0);
}

bool Builder::chooseSplit(const int* lists, int n, const Box& box, Split* out) {
  float ext[3];
  for (int a = 0; a < 3; ++a) ext[a] = box.hi[a] - box.lo[a];
  const double ex = ext[0], ey = ext[1], ez = ext[2];
  const double L = static_cast<double>(n) * (ex * ey + ez * (ex + ey));
  const double fl = static_cast<double>(f_) * L;
  const double T = fl > kMinGain ? fl : kMinGain;

  AxisResult res[3];
  double c[3] = {L, L, L};
  const std::int64_t len = n;
  auto search = [&](int a) {
    const float ea = ext[a == 0 ? 1 : 0];
    const float eb = ext[a == 2 ? 1 : 2];
    res[a] = searchAxis(lists + 2 * a * len, lists + (2 * a + 1) * len, n, start_[a], end_[a],
                        box.lo[a], box.hi[a], ea, eb);
    c[a] = res[a].cost;
  };
  if (n < kParallelMinTriangles) {
    for (int a = 0; a < 3; ++a)
      if (ext[a] > kMinExtent) search(a);
  } else {
    // One thread per axis that takes part. A large node that is thin along
    // two axes stays a leaf: such nodes are slivers not worth a split.
    int axes[3];
    int k = 0;
    for (int a = 0; a < 3; ++a)
      if (ext[a] > kMinExtent) axes[k++] = a;
    if (k < 2) return false;
    if (n < teamMinTriangles_) {
      for (int i = 0; i < k; ++i) search(axes[i]);
    } else {
      parallelTeam(k, [&](int i) { search(axes[i]); });
    }
  }

  // Ties between x and y go to y, ties with z to z.
  int a;
  if (c[1] > c[0])
    a = c[0] < c[2] ? 0 : 2;
  else
    a = c[1] < c[2] ? 1 : 2;
  // The gain is weighted by the count once more on purpose: it makes large
  // nodes split readily and keeps small leaves from splitting for little.
  if (!(static_cast<double>(n) * (L - c[a]) > T)) return false;
  out->axis = a;
  out->r = res[a];
  return true;
}

bool Builder::reserveListEntries(std::int64_t n) {
  if (chunkUsed_ + n > chunkCap_) {
    const std::int64_t cap = std::max(chunkEntries_, n);
    const std::int64_t cost = kChunkHeaderBytes + 4 * cap;
    if (mem_->remaining() < cost) return false;
    mem_->charge(cost);
    chunkCap_ = cap;
    chunkUsed_ = 0;
  }
  chunkUsed_ += n;
  return true;
}

bool Builder::makeLeaf(std::int64_t node, int* ids, int n) {
  ++stats_.leaves;
  stats_.references += n;
  if (n == 0) {
    ++stats_.emptyLeaves;
    nodes_[node] = emptyLeaf();
    return true;
  }
  // Ascending original numbers: a canonical test order, and the form the
  // inline three-triangle leaf needs.
  const int* original = original_.get();
  for (int i = 0; i < n; ++i) ids[i] = original[ids[i]];
  std::sort(ids, ids + n);
  VelrKDTreeNode leaf;
  if (inlineLeaf(ids, n, &leaf)) {
    nodes_[node] = leaf;
    return true;
  }
  if (!reserveListEntries(n)) return false;
  const std::int64_t first = lists_.grow(n);
  if (first < 0 || first > INT_MAX) return false;
  for (int i = 0; i < n; ++i) lists_[first + i] = ids[i];
  // Until the block is laid out, word 0 holds the list's index.
  nodes_[node] = {{kLeafBit | static_cast<Vel32u>(first), static_cast<Vel32u>(n)}};
  return true;
}

bool Builder::build(std::int64_t node, int* lists, ListStack::Mark at, int n, const Box& box,
                    int depth) {
  stats_.depth = std::max(stats_.depth, depth);
  if (n == 0 || static_cast<Vel32u>(depth) >= maxDepth_) return makeLeaf(node, lists, n);
  Split split;
  if (!chooseSplit(lists, n, box, &split)) return makeLeaf(node, lists, n);

  const int a = split.axis;
  const float x = split.r.pos;
  // Sides: bit 0 lower child, bit 1 upper child; a triangle goes below when
  // it starts below the plane and above when it ends above it. One lying in
  // the plane counts on neither side, so it is placed explicitly: with the
  // triangles of an empty-space cut; in the flat child of a plane on the
  // node's boundary (else the other child would be the node again, and the
  // same free split would repeat down to the maximum depth); on both sides
  // of a plane inside the node, where rays crossing it look on both sides.
  Vel8u planarSide = 3;
  if (split.r.kind == CutKind::kEmptyBelow || x == box.hi[a]) planarSide = 2;
  if (split.r.kind == CutKind::kEmptyAbove || x == box.lo[a]) planarSide = 1;
  const std::int64_t len = n;
  Vel8u* side = side_.get();
  std::int64_t nl = 0, nr = 0;
  {
    const int* ids = lists + 2 * a * len;
    const float* s = start_[a];
    const float* e = end_[a];
    for (int i = 0; i < n; ++i) {
      const int t = ids[i];
      Vel8u sd = static_cast<Vel8u>((s[t] < x ? 1 : 0) | (e[t] > x ? 2 : 0));
      if (sd == 0) sd = planarSide;
      side[t] = sd;
      nl += sd & 1;
      nr += sd >> 1;
    }
  }

  const std::int64_t pair = nodes_.grow(2);
  if (pair < 0 || pair - node > static_cast<std::int64_t>(kMaxChildDistance)) return false;
  nodes_[node] = innerNode(a, static_cast<Vel32u>(pair - node), x);

  Box lower = box, upper = box;
  lower.hi[a] = x;
  upper.lo[a] = x;

  const bool upperFirst = nr >= nl;
  const std::int64_t nb = upperFirst ? nr : nl;
  const std::int64_t ns = upperFirst ? nl : nr;
  const Vel8u bigBit = upperFirst ? 2 : 1;
  const Vel8u smallBit = upperFirst ? 1 : 2;

  // One int of slack: the branch-free copy below writes one entry past each
  // list it fills.
  ListStack::Mark bigAt;
  int* big = stack_.push(6 * nb + 1, &bigAt);
  if (big == nullptr) return false;
  // One pass per list: the larger child's entries go above, the smaller
  // child's are compacted in place. In place is safe: list k is written from
  // k * ns on, never past where list k is still being read.
  for (int k = 0; k < 6; ++k) {
    const int* src = lists + k * len;
    int* bigDst = big + k * nb;
    int* smallDst = lists + k * ns;
    for (int i = 0; i < n; ++i) {
      const int t = src[i];
      const Vel8u sd = side[t];
      *bigDst = t;
      bigDst += (sd & bigBit) ? 1 : 0;
      *smallDst = t;
      smallDst += (sd & smallBit) ? 1 : 0;
    }
  }
  const ListStack::Mark smallEnd{at.seg, at.top + 6 * ns};
  if (big == lists + 6 * len) {
    // Same segment: close the gap so the larger child sits right above.
    std::memmove(lists + 6 * ns, big, static_cast<size_t>(6 * nb) * sizeof(int));
    big = lists + 6 * ns;
    bigAt = smallEnd;
  }
  stack_.release({bigAt.seg, bigAt.top + 6 * nb});

  const std::int64_t bigNode = pair + (upperFirst ? 1 : 0);
  const std::int64_t smallNode = pair + (upperFirst ? 0 : 1);
  if (!build(bigNode, big, bigAt, static_cast<int>(nb), upperFirst ? upper : lower, depth + 1))
    return false;
  stack_.release(smallEnd);
  return build(smallNode, lists, at, static_cast<int>(ns), upperFirst ? lower : upper, depth + 1);
}

VelStatus Builder::finish(VelrKDTreeNode** ppTree, int* pLength, BuildStats* stats) {
  // Working memory goes before the block is made, so the peak stays low.
  stack_.releaseAll();
  bounds_.reset();
  side_.reset();
  original_.reset();

  const std::int64_t nodeCount = nodes_.size();
  const std::int64_t listCount = lists_.size();
  const std::int64_t length = 8 * nodeCount + 4 * listCount;
  if (length > INT_MAX - 8) return velStsMemAllocErr;
  Block<Vel8u> block;
  if (!block.allocate(mem_, (length + 7) & ~std::int64_t{7})) return velStsMemAllocErr;
  VelrKDTreeNode* nodes = reinterpret_cast<VelrKDTreeNode*>(block.get());
  nodes_.copyTo(nodes);
  lists_.copyTo(reinterpret_cast<Vel32s*>(nodes + nodeCount));
  for (std::int64_t i = 0; i < nodeCount; ++i) {
    VelrKDTreeNode& nd = nodes[i];
    if ((nd.word[0] & kLeafBit) && nd.word[1] != 0 && !(nd.word[1] & kLeafBit)) {
      const std::int64_t listIndex = nd.word[0] & ~kLeafBit;
      nd = listLeaf(static_cast<Vel32u>(8 * (nodeCount - i) + 4 * listIndex),
                    static_cast<int>(nd.word[1]));
    }
  }
  nodes_.releaseAll();
  lists_.releaseAll();

  stats_.nodes = nodeCount;
  stats_.peakBytes = mem_->peak();
  if (stats != nullptr) *stats = stats_;
  mem_->handOver(block.bytes());
  *ppTree = reinterpret_cast<VelrKDTreeNode*>(block.release());
  *pLength = static_cast<int>(length);
  return velStsNoErr;
}

}  // namespace

VelStatus buildOneLeaf(int cntTrngl, VelrKDTreeNode** ppTree, int* pLength) {
  const std::int64_t n = cntTrngl;
  const std::int64_t units = ((4 * n + 16) >> 3) + 1;
  if (units > INT_MAX / 8) return velStsNoMemErr;
  Vel32s* p = static_cast<Vel32s*>(allocItems8(static_cast<int>(units)));
  if (p == nullptr) return velStsNoMemErr;
  p[0] = -16;
  p[1] = cntTrngl;
  p[2] = 0;
  p[3] = 0;
  for (int i = 0; i < cntTrngl; ++i) p[4 + i] = i;
  *ppTree = reinterpret_cast<VelrKDTreeNode*>(p);
  *pLength = static_cast<int>(4 * n + 16);
  return velStsNoErr;
}

VelStatus buildFull(const Vel32f* vertices, const int* indices, int cntVertex, int cntTrngl,
                    const FullBuildOptions& options, VelrKDTreeNode** ppTree, int* pLength,
                    BuildStats* stats) {
  const std::int64_t nT = cntTrngl, nV = cntVertex;
  const std::uint64_t need = static_cast<std::uint64_t>(48 * nT + 12 * nV + 36 * nT + kNeedFixed);
  if (need > options.budgetBytes) return velStsNoMemErr;

  Memory mem(options.budgetBytes);
  // The nominal charges: header, working arrays, node area and vertex area.
  // The first leaf-list chunk belongs to the latter; more chunks are charged
  // as they are opened.
  mem.charge(kHeaderBytes);
  mem.charge(48 * nT);
  mem.charge((36 * nT) / kArea * kArea + kArea);
  mem.charge((((3 * nV) >> 20) << 24) + kArea);

  Builder builder(&mem, options, cntTrngl);
  if (!builder.run(vertices, indices)) return velStsMemAllocErr;
  return builder.finish(ppTree, pLength, stats);
}

}  // namespace velr::kd
