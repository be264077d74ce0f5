// Packet traversal: the rays of a small pixel tile walk the tree together, one
// ray per vector lane. Every lane keeps exactly the state that the one-ray
// traversal (traverse.h) would keep for its ray, so each ray visits the same
// leaves in the same order with the same interval and gets the same result.
//
// How the shared walk reproduces each ray's own walk: the rays that walk
// together share their direction signs (a packet whose lanes differ walks
// once per sign group), so near and far children are the same for all of
// them. At an inner node a ray either goes far only, near only, or both (far
// pushed). The packet visits the near child with the rays that go there and
// pushes the far child with two lane masks: rays that go far only (their
// state is kept untouched until the entry is popped) and rays that go both
// ways (on pop they take tnear = their current tfar and the saved tfar, as a
// single ray's pop does). A ray leaves the packet for good when a leaf ends
// it; the entries it was pushed in are then skipped for it.
//
// Included once per SIMD target (foreach_target).
#if defined(VELR_RAYTRACE_TRAVERSE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELR_RAYTRACE_TRAVERSE_INL_H_
#undef VELR_RAYTRACE_TRAVERSE_INL_H_
#else
#define VELR_RAYTRACE_TRAVERSE_INL_H_
#endif

#include <hwy/highway.h>

#include <bit>

#include "raytrace/kdtree_format.h"
#include "raytrace/traverse.h"

HWY_BEFORE_NAMESPACE();
namespace velr::rt::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Packets never exceed a 4 x 4 tile, so every tile shape divides the 4 x 4
// blocks that the fast paths are given.
using PacketTag = hn::CappedTag<float, 16>;
inline constexpr int kMaxPacket = 16;

// Lane-wise min and max with the same selection as minOf and maxOf.
template <class V>
HWY_INLINE V MinOf(V a, V b) {
#if HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR
  // The x86 min and max instructions select exactly so (the second operand
  // when the comparison fails, NaN included).
  return hn::Min(a, b);
#else
  return hn::IfThenElse(hn::Lt(a, b), a, b);
#endif
}
template <class V>
HWY_INLINE V MaxOf(V a, V b) {
#if HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR
  return hn::Max(a, b);
#else
  return hn::IfThenElse(hn::Gt(a, b), a, b);
#endif
}

// The rays of a packet: origins and directions per axis (a fourth zero
// component guards records with a malformed axis field), per-axis inverse,
// the shared signs and each lane's interval.
template <class D>
struct PacketRays {
  using V = hn::Vec<D>;
  V o[4];
  V d[4];
  V inv[3];
  int sign[3];
  V tnear, tfar;
};

// The lanes of a mask as the bits of a number, lane 0 in bit 0.
template <class D>
HWY_INLINE Vel32u maskBits(D d, hn::Mask<D> m) {
  uint8_t bytes[8] = {};
  hn::StoreMaskBits(d, m, bytes);
  return static_cast<Vel32u>(bytes[0]) | static_cast<Vel32u>(bytes[1]) << 8;
}

// Rays share a walk only when their direction signs agree on every axis.
// Calls fn(sign, group) once for each sign pattern among the live lanes,
// with the lanes of that pattern; a coherent packet is one group.
template <class D, class Fn>
HWY_INLINE void forEachSignGroup(D d, const hn::Mask<D> negative[3], hn::Mask<D> live, Fn&& fn) {
  using M = hn::Mask<D>;
  // The signs of the first live lane, read from the masks' bits.
  Vel32u negativeBits[3];
  for (int a = 0; a < 3; ++a) negativeBits[a] = maskBits(d, negative[a]);
  while (!hn::AllFalse(d, live)) {
    const int first = std::countr_zero(maskBits(d, live));
    M group = live;
    int sign[3];
    for (int a = 0; a < 3; ++a) {
      sign[a] = static_cast<int>((negativeBits[a] >> first) & 1u);
      group = hn::And(group, sign[a] ? negative[a] : hn::Not(negative[a]));
    }
    fn(sign, group);
    live = hn::AndNot(group, live);
  }
}

// The walk. The query provides
//   test(Vel32s triangle, Mask active) -- the triangle test on the active
//       lanes; when Query::kEndsEarly it returns the lanes that end at once;
//   V limit() -- a leaf whose exit lies at or beyond it ends a lane.
template <class D, class Query>
HWY_INLINE void traversePacket(D d, const VelrKDTreeNode* root, const PacketRays<D>& rays,
                               hn::Mask<D> live, float margin, Query& result) {
  // The query's state is worked on in a local copy, which the compiler can
  // keep in registers for the whole walk.
  Query q = result;
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  // One slot more than the capacity: an entry is always written, and kept
  // only when some lane goes far and the stack has room.
  const VelrKDTreeNode* stackNode[kd::kStackCapacity + 1];
  HWY_ALIGN float stackFar[kd::kStackCapacity + 1][kMaxPacket];
  HWY_ALIGN float stackFarOnly[kd::kStackCapacity + 1][kMaxPacket];
  HWY_ALIGN float stackBoth[kd::kStackCapacity + 1][kMaxPacket];
  int sp = 0;
  const V vmargin = hn::Set(d, margin);
  V tnear = rays.tnear;
  V tfar = rays.tfar;
  M active = live;
  const VelrKDTreeNode* node = root;
  for (;;) {
    while (!kd::isLeaf(node)) {
      const int a = kd::splitAxis(node);
      const V tsplit =
          hn::Mul(hn::Sub(hn::Set(d, kd::splitPosition(node)), rays.o[a]), rays.inv[a]);
      const VelrKDTreeNode* lower = kd::lowerChild(node);
      const VelrKDTreeNode* nearChild = lower + rays.sign[a];
      const VelrKDTreeNode* farChild = lower + (1 - rays.sign[a]);
      const M farOnly = hn::And(active, hn::Gt(hn::Sub(tnear, tsplit), vmargin));
      const M rest = hn::AndNot(farOnly, active);
      const M nearOnly = hn::And(rest, hn::Gt(hn::Sub(tsplit, tfar), vmargin));
      const M both = hn::AndNot(nearOnly, rest);
      // Whether every lane goes far only is hard to predict, so both
      // outcomes are formed and one is selected without a branch.
      const bool split = !hn::AllFalse(d, rest);
      const M toFar = hn::Or(farOnly, both);
      stackNode[sp] = farChild;
      hn::Store(tfar, d, stackFar[sp]);
      hn::Store(hn::VecFromMask(d, farOnly), d, stackFarOnly[sp]);
      hn::Store(hn::VecFromMask(d, both), d, stackBoth[sp]);
      sp += static_cast<int>(split) & static_cast<int>(!hn::AllFalse(d, toFar)) &
            static_cast<int>(sp < kd::kStackCapacity);
      tfar = hn::IfThenElse(both, MaxOf(tnear, MinOf(tsplit, tfar)), tfar);
      active = split ? rest : active;
      node = split ? nearChild : farChild;
    }

    Vel32s scratch[3];
    const Vel32s* list;
    const int count = kd::leafTriangles(node, scratch, &list);
    for (int i = 0; i < count; ++i) {
      if constexpr (Query::kEndsEarly) {
        const M stop = q.test(list[i], active);
        live = hn::AndNot(stop, live);
        active = hn::AndNot(stop, active);
        if (hn::AllFalse(d, active)) break;
      } else {
        q.test(list[i], active);
      }
    }
    live = hn::AndNot(hn::And(active, hn::Ge(tfar, q.limit())), live);

    // Pop to the next entry that still has a live lane.
    for (;;) {
      if (sp == 0) {
        result = q;
        return;
      }
      --sp;
      const M farOnlyLanes = hn::MaskFromVec(hn::Load(d, stackFarOnly[sp]));
      const M bothLanes = hn::And(hn::MaskFromVec(hn::Load(d, stackBoth[sp])), live);
      const M act = hn::Or(hn::And(farOnlyLanes, live), bothLanes);
      if (hn::AllFalse(d, act)) continue;
      tnear = hn::IfThenElse(bothLanes, tfar, tnear);
      tfar = hn::IfThenElse(bothLanes, hn::Load(d, stackFar[sp]), tfar);
      active = act;
      node = stackNode[sp];
      break;
    }
  }
}

// The triangle terms of traverse.h for a packet, in the same order.
template <class D>
struct PacketTerms {
  hn::Vec<D> den, num, b1, b2;
};

template <class D>
HWY_INLINE PacketTerms<D> packetTerms(D d, const VelrTriangleAccel& r, const PacketRays<D>& rays) {
  using V = hn::Vec<D>;
  const int k = static_cast<int>((r.axes >> 4) & 3u);
  const int u = static_cast<int>((r.axes >> 2) & 3u);
  const int v = static_cast<int>(r.axes & 3u);
  const V nu = hn::Set(d, r.nu);
  const V nv = hn::Set(d, r.nv);
  PacketTerms<D> t;
  t.den = hn::Add(hn::Add(hn::Mul(nu, rays.d[u]), hn::Mul(nv, rays.d[v])), rays.d[k]);
  const V ou = hn::Sub(hn::Set(d, r.cu), rays.o[u]);
  const V ov = hn::Sub(hn::Set(d, r.cv), rays.o[v]);
  t.num = hn::Sub(hn::Add(hn::Add(hn::Set(d, r.ck), hn::Mul(nu, ou)), hn::Mul(nv, ov)), rays.o[k]);
  const V hu = hn::Sub(hn::Mul(rays.d[u], t.num), hn::Mul(ou, t.den));
  const V hv = hn::Sub(hn::Mul(rays.d[v], t.num), hn::Mul(ov, t.den));
  t.b1 = hn::Sub(hn::Mul(hn::Set(d, r.bv), hu), hn::Mul(hn::Set(d, r.bu), hv));
  t.b2 = hn::Sub(hn::Mul(hn::Set(d, r.au), hv), hn::Mul(hn::Set(d, r.av), hu));
  return t;
}

template <class D>
HWY_INLINE hn::Mask<D> packetInside(D d, const PacketTerms<D>& t) {
  const auto zero = hn::Zero(d);
  const auto b0 = hn::Sub(hn::Sub(t.den, t.b1), t.b2);
  return hn::And(hn::And(hn::Ge(hn::Mul(b0, t.b1), zero), hn::Ge(hn::Mul(t.b1, t.b2), zero)),
                 hn::Ge(hn::Mul(b0, t.b2), zero));
}

// What the nearest-hit queries keep for a packet, lane by lane as
// NearestState.
template <class D>
struct PacketNearestState {
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  using DI = hn::RebindToSigned<D>;
  using VI = hn::Vec<DI>;
  static constexpr bool kEndsEarly = false;

  D d;
  const VelrTriangleAccel* records;
  const PacketRays<D>* rays;
  V dist, b1, b2, den;  // the scaled weights and plane term of the hit kept
  VI triangle;

  // A later, nearer hit replaces an earlier one, so the weights are divided
  // out once, for the hit that is kept (the same quotients as at the take).
  HWY_INLINE void take(M lanes, const PacketTerms<D>& t, V dt, Vel32s n) {
    dist = hn::IfThenElse(lanes, dt, dist);
    b1 = hn::IfThenElse(lanes, t.b1, b1);
    b2 = hn::IfThenElse(lanes, t.b2, b2);
    den = hn::IfThenElse(lanes, t.den, den);
    triangle = hn::IfThenElse(hn::RebindMask(DI(), lanes), hn::Set(DI(), n), triangle);
  }
  HWY_INLINE V w1() const { return hn::Div(b1, den); }
  HWY_INLINE V w2() const { return hn::Div(b2, den); }
  HWY_INLINE V limit() const { return dist; }
};

// Nearest hit for a packet, lane by lane as Nearest<kFromSurface>.
template <class D, bool kFromSurface = false>
struct PacketNearest : PacketNearestState<D> {
  using Base = PacketNearestState<D>;
  using typename Base::DI;
  using typename Base::M;
  using typename Base::V;

  HWY_INLINE void test(Vel32s n, M active) {
    const D d = this->d;
    const VelrTriangleAccel& r = this->records[n];
    if (r.axes == 0) return;
    if constexpr (kFromSurface)
      active = hn::AndNot(hn::RebindMask(d, hn::Eq(this->triangle, hn::Set(DI(), n))), active);
    const PacketTerms<D> t = packetTerms(d, r, *this->rays);
    M hit = hn::And(active, packetInside(d, t));
    if constexpr (kFromSurface)
      hit = hn::AndNot(hn::Lt(hn::Abs(t.den), hn::Set(d, kFlatDenominator)), hit);
    // No branch on whether any lane passed: which triangles of a leaf some
    // lane passes is hard to predict, and one division for all lanes costs
    // less than a mispredicted branch (7-9% of the walk on the 1M mesh).
    // Lanes that failed keep their state whatever the quotient is.
    const V dt = hn::Div(t.num, t.den);
    const V bound = kFromSurface ? hn::Sub(this->dist, hn::Set(d, kSurfaceGap)) : this->dist;
    const M nearer = hn::And(hit, hn::And(hn::Gt(bound, dt), hn::Gt(dt, hn::Zero(d))));
    this->take(nearer, t, dt, n);
  }
};

// Any hit for a packet, lane by lane as AnyHit: a lane ends at its first
// blocker.
template <class D>
struct PacketAny {
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  using DI = hn::RebindToSigned<D>;
  using VI = hn::Vec<DI>;
  static constexpr bool kEndsEarly = true;

  D d;
  const VelrTriangleAccel* records;
  const PacketRays<D>* rays;
  V end;
  VI blocker;

  HWY_INLINE M test(Vel32s n, M active) {
    const VelrTriangleAccel& r = records[n];
    if (r.axes == 0) return hn::AndNot(active, active);
    const PacketTerms<D> t = packetTerms(d, r, *rays);
    const M hit = hn::And(active, packetInside(d, t));
    const V dt = hn::Div(t.num, t.den);  // unconditionally, as in PacketNearest
    const M blocked =
        hn::And(hit, hn::And(hn::Gt(hn::Set(d, kSegmentEnd), dt), hn::Gt(dt, hn::Zero(d))));
    end = hn::IfThenElse(blocked, hn::Zero(d), end);
    blocker = hn::IfThenElse(hn::RebindMask(DI(), blocked), hn::Set(DI(), n), blocker);
    return blocked;
  }
  HWY_INLINE V limit() const { return end; }
};

// One pass of the layered query for a packet, lane by lane as LayerHit.
template <class D>
struct PacketLayer : PacketNearestState<D> {
  using Base = PacketNearestState<D>;
  using typename Base::DI;
  using typename Base::M;
  using typename Base::V;
  using typename Base::VI;

  VI previous;
  const VI* ring;
  int ringUsed;

  HWY_INLINE void test(Vel32s n, M active) {
    const D d = this->d;
    const VelrTriangleAccel& r = this->records[n];
    if (r.axes == 0) return;
    const VI vn = hn::Set(DI(), n);
    active = hn::AndNot(hn::RebindMask(d, hn::Eq(previous, vn)), active);
    const PacketTerms<D> t = packetTerms(d, r, *this->rays);
    const M hit = hn::And(active, packetInside(d, t));
    if (hn::AllFalse(d, hit)) return;
    const V dt = hn::Div(t.num, t.den);
    M nearer = hn::And(hit, hn::And(hn::Gt(this->dist, dt), hn::Gt(dt, hn::Zero(d))));
    for (int i = 0; i < ringUsed; ++i)
      nearer = hn::AndNot(hn::RebindMask(d, hn::Eq(ring[i], vn)), nearer);
    if (hn::AllFalse(d, nearer)) return;
    this->take(nearer, t, dt, n);
  }
};

// Slab clip with divisions for a packet, lane by lane as clipDivided. Sets
// the inverses and the interval; returns the lanes that hit the box, and in
// negative[] the lanes whose direction is negative and not parallel.
template <class D>
HWY_INLINE hn::Mask<D> clipDividedPacket(D d, const float* box, hn::Vec<D> dist,
                                         PacketRays<D>* p, hn::Mask<D> negative[3]) {
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  const V zero = hn::Zero(d);
  V tnear = zero;
  V tfar = dist;
  M miss = hn::Lt(zero, zero);
  for (int a = 0; a < 3; ++a) {
    const V dir = p->d[a];
    const M parallel = hn::Le(hn::Abs(dir), hn::Set(d, kParallelLimit));
    const V t1 = hn::Div(hn::Sub(hn::Set(d, box[a]), p->o[a]), dir);
    const V t2 = hn::Div(hn::Sub(hn::Set(d, box[3 + a]), p->o[a]), dir);
    p->inv[a] = hn::IfThenElse(parallel, hn::Set(d, kParallelInverseWide),
                               hn::Div(hn::Set(d, 1.0f), dir));
    negative[a] = hn::AndNot(parallel, hn::Lt(dir, zero));
    tnear = hn::IfThenElse(parallel, tnear, MaxOf(MinOf(t1, t2), tnear));
    tfar = hn::IfThenElse(parallel, tfar, MinOf(MaxOf(t1, t2), tfar));
    miss = hn::Or(miss, hn::AndNot(parallel, hn::Gt(tnear, tfar)));
  }
  p->tnear = tnear;
  p->tfar = hn::Add(tfar, hn::Set(d, kExitSlack));
  return hn::Not(miss);
}

// Slab clip with multiplications for a packet, lane by lane as
// clipMultiplied.
template <class D>
HWY_INLINE hn::Mask<D> clipMultipliedPacket(D d, const float* box, hn::Vec<D> dist,
                                            PacketRays<D>* p, hn::Mask<D> negative[3]) {
  using V = hn::Vec<D>;
  using M = hn::Mask<D>;
  const V zero = hn::Zero(d);
  V tnear = zero;
  V tfar = dist;
  M miss = hn::Lt(zero, zero);
  for (int a = 0; a < 3; ++a) {
    const V dir = p->d[a];
    const V lo = hn::Set(d, box[a]), hi = hn::Set(d, box[3 + a]);
    const M parallel = hn::Le(hn::Abs(dir), hn::Set(d, kParallelLimit));
    const V inv = hn::Div(hn::Set(d, 1.0f), dir);
    p->inv[a] = hn::IfThenElse(parallel, hn::Set(d, kParallelInverseNarrow), inv);
    negative[a] = hn::AndNot(parallel, hn::Lt(dir, zero));
    const V t1 = hn::Mul(hn::Sub(hi, p->o[a]), inv);
    const V t2 = hn::Mul(hn::Sub(lo, p->o[a]), inv);
    const M outside = hn::Not(hn::And(hn::Gt(hi, p->o[a]), hn::Gt(p->o[a], lo)));
    tnear = hn::IfThenElse(parallel, tnear, MaxOf(MinOf(t1, t2), tnear));
    tfar = hn::IfThenElse(parallel, tfar, MinOf(MaxOf(t1, t2), tfar));
    // A miss on an earlier axis ends the ray before later axes count.
    miss = hn::Or(miss, hn::Or(hn::And(parallel, outside),
                               hn::AndNot(parallel, hn::Gt(tnear, tfar))));
  }
  p->tnear = tnear;
  p->tfar = hn::Add(tfar, hn::Set(d, kExitSlack));
  return hn::Not(miss);
}

// A packet of shadow rays, lane by lane as segmentPath.
template <class D>
HWY_INLINE void segmentPacket(D d, PacketRays<D>* p, hn::Mask<D> negative[3]) {
  for (int a = 0; a < 3; ++a) {
    const auto dir = p->d[a];
    const auto parallel = hn::Le(hn::Abs(dir), hn::Set(d, kParallelLimit));
    p->inv[a] = hn::IfThenElse(parallel, hn::Set(d, kParallelInverseNarrow),
                               hn::Div(hn::Set(d, 1.0f), dir));
    negative[a] = hn::Lt(dir, hn::Zero(d));
  }
  p->tnear = hn::Zero(d);
  p->tfar = hn::Set(d, kSegmentExit);
}

// The next layer's exit distance for a packet, lane by lane as layerExit.
template <class D>
HWY_INLINE hn::Vec<D> layerExitPacket(D d, const float* box, const PacketRays<D>& p) {
  auto tfar = hn::Set(d, kNoLimit);
  for (int a = 0; a < 3; ++a) {
    const auto t1 = hn::Mul(hn::Sub(hn::Set(d, box[a]), p.o[a]), p.inv[a]);
    const auto t2 = hn::Mul(hn::Sub(hn::Set(d, box[3 + a]), p.o[a]), p.inv[a]);
    tfar = MinOf(MaxOf(t1, t2), tfar);
  }
  return hn::Add(tfar, hn::Set(d, kExitSlack));
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace velr::rt::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // VELR_RAYTRACE_TRAVERSE_INL_H_
