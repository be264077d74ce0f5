// Ray casting, hit points, normals, bounding box and per-ray arithmetic: the
// only argument checks are null pointers, so the harness drives every
// function with missing pointers, lengths around the four-ray blocks, every
// alignment and arbitrary float and mask values, and checks that the status
// follows from the pointers alone and that only the outputs are written.
#include "tests/fuzz/fuzz_common.h"

namespace {

using fuzz::Arena;
using fuzz::Input;

struct Call {
  explicit Call(Input& input) : in(input) {}

  // A pointer the front end checks: sometimes withheld.
  template <class P>
  P checked(P p) {
    if (!in.oneIn(14)) return p;
    missing = true;
    return nullptr;
  }

  // The one status the documented checks allow, then the memory rule: the
  // outputs may change only after a success with work to do.
  void finish(VelStatus got, VelStatus whenPresent, bool work) {
    FUZZ_EXPECT_STATUS(got, missing ? velStsNullPtrErr : whenPresent);
    arena.verify(got >= 0 && work);
  }

  Input& in;
  Arena arena;
  bool missing = false;
};

// A ray mask: arbitrary words, or, where active values index triangles,
// negative values and triangle numbers below nTri.
Vel32s* masks(Call& c, int n, int nTri, size_t misalign) {
  Vel32s* m = c.arena.add<Vel32s>(static_cast<size_t>(n), misalign, &c.in);
  if (nTri > 0) {
    for (int i = 0; i < n; ++i) {
      const uint32_t w = static_cast<uint32_t>(m[i]);
      m[i] = (w & 3) == 0 ? -static_cast<Vel32s>(1 + (w >> 2) % 7)
             : (w & 3) == 1 ? INT_MIN
                            : static_cast<Vel32s>((w >> 2) % static_cast<uint32_t>(nTri));
    }
  }
  return m;
}

// Triangles as index records of `step` words whose first three are vertex
// numbers below nVert.
Vel32s* triangles(Call& c, int nTri, int step, int nVert, size_t misalign) {
  Vel32s* t = c.arena.add<Vel32s>(static_cast<size_t>(nTri) * step, misalign, &c.in);
  for (int j = 0; j < nTri; ++j)
    for (int k = 0; k < 3; ++k)
      t[j * step + k] = static_cast<Vel32s>(static_cast<uint32_t>(t[j * step + k]) % nVert);
  return t;
}

Vel32f* floats(Call& c, size_t n, size_t misalign) { return c.arena.add<Vel32f>(n, misalign, &c.in); }

Vel32f** planes3(Call& c, int n, bool output, size_t misalign) {
  return fuzz::planes<Vel32f>(c.arena, c.in, 3, static_cast<size_t>(n > 0 ? n : 0), output,
                              misalign);
}

// Lengths around the block size of four, sometimes far below zero.
int length(Input& in) { return in.oneIn(16) ? in.anyInt() % 4096 : in.range(-2, 37); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  Call c(in);
  const int which = in.u8() % 16;
  const size_t al = in.misalign(4);  // one offset for most arrays of the call
  int len = length(in);
  const int n = len > 0 ? len : 0;

  switch (which) {
    case 0: {  // eye rays: only the direction triple is checked
      const int width = in.range(-2, 13), height = in.range(-2, 6);
      const int bw = in.anyInt(), bh = in.anyInt(), bx = in.anyInt(), by = in.anyInt();
      const bool work = width > 0 && height > 0;
      const size_t plane = work ? static_cast<size_t>(width) * height : 0;
      Vel32f* o = floats(c, 3, 0);
      Vel32f* dw = floats(c, 3, 0);
      Vel32f* dh = floats(c, 3, 0);
      if (!work && in.oneIn(2)) o = dw = dh = nullptr;  // never read without work
      Vel32f* const* dir = c.checked(fuzz::planes<Vel32f>(c.arena, in, 3, plane, true, al));
      c.arena.seal();
      c.finish(velrCastEye_32f(o, dw, dh, bw, bh, bx, by, dir, width, height), velStsNoErr, work);
      break;
    }
    case 1: {
      const Vel32f* const* inc = c.checked(planes3(c, n, false, al));
      const Vel32s* mask = c.checked(masks(c, n, 0, al));
      const Vel32f* const* norm = c.checked(planes3(c, n, false, in.misalign(4)));
      Vel32f* const* refl = c.checked(planes3(c, n, true, al));
      c.arena.seal();
      c.finish(velrCastReflectionRay_32f(inc, mask, norm, refl, len), velStsNoErr, len > 0);
      break;
    }
    case 2: {
      const Vel32f* light = floats(c, 3, 0);
      // The four-ray blocks read pDotRay with aligned loads: callers align it.
      const Vel32f* dotRay = c.checked(floats(c, n, len >= 4 ? 0 : al));
      const Vel32f* const* norm = c.checked(planes3(c, n, false, al));
      const Vel32f* const* point = c.checked(planes3(c, n, false, al));
      Vel32s* mask = c.checked(masks(c, n, 0, al));
      Vel32f* dotShadow = c.checked(floats(c, n, in.misalign(4)));
      Vel32f* const* dir = c.checked(planes3(c, n, true, al));
      if (mask != nullptr && n > 0) c.arena.writable(mask, n);
      if (dotShadow != nullptr && n > 0) c.arena.writable(dotShadow, n);
      c.arena.seal();
      c.finish(velrCastShadowSO_32f(light, dotRay, norm, point, mask, dotShadow, dir, len),
               velStsNoErr, len > 0);
      break;
    }
    case 3:
    case 4: {
      const bool many = which == 4;
      const Vel32f* one = floats(c, 3, 0);
      const Vel32f* const* origins = many ? c.checked(planes3(c, n, false, al)) : nullptr;
      const Vel32f* const* dir = c.checked(planes3(c, n, false, al));
      const Vel32f* dist = c.checked(floats(c, n, al));
      const Vel32s* mask = c.checked(masks(c, n, 0, al));
      Vel32f* const* hit = c.checked(planes3(c, n, true, in.oneIn(4) ? in.misalign(4) : al));
      const Vel32f eps = in.f32();
      c.arena.seal();
      const VelStatus st =
          many ? velrHitPoint3DEpsM0_32f_M(origins, dir, dist, mask, hit, len, eps)
               : velrHitPoint3DEpsS0_32f_M(one, dir, dist, mask, hit, len, eps);
      c.finish(st, velStsNoErr, len > 0);
      break;
    }
    case 5: {
      const int nTri = in.range(1, 9);
      const Vel32f* norms = c.checked(floats(c, 3 * static_cast<size_t>(nTri), al));
      const Vel32s* mask = c.checked(masks(c, n, nTri, al));
      Vel32f* const* out = planes3(c, n, true, al);  // not checked by the front end
      c.arena.seal();
      c.finish(velrSurfFlatNormal_32f(norms, mask, out, len), velStsNoErr, len > 0);
      break;
    }
    case 6: {
      const int nTri = in.range(1, 9), nVert = in.range(1, 12), step = in.range(3, 5);
      const Vel32f* vnorm = c.checked(floats(c, 3 * static_cast<size_t>(nVert), al));
      const Vel32s* tri = c.checked(triangles(c, nTri, step, nVert, al));
      const Vel32s* mask = c.checked(masks(c, n, nTri, al));
      const Vel32f* const* hit =
          c.checked(fuzz::planes<Vel32f>(c.arena, in, 2, static_cast<size_t>(n), false, al));
      Vel32f* const* out = c.checked(planes3(c, n, true, al));
      c.arena.seal();
      c.finish(velrSurfSmoothNormal_32f(vnorm, tri, mask, hit, out, len, step), velStsNoErr,
               len > 0);
      break;
    }
    case 7: {
      fuzz::pickThreads(in);
      const int nVert = in.range(1, 16);
      if (len > 24 && !in.oneIn(8)) len = n % 24;  // many triangles only now and then
      const int m = len > 0 ? len : 0;
      const Vel32f* verts = c.checked(floats(c, 3 * static_cast<size_t>(nVert), al));
      const Vel32s* tri = c.checked(triangles(c, m, 4, nVert, al));
      Vel32f* out = c.checked(floats(c, 3 * static_cast<size_t>(m), al));
      if (out != nullptr && m > 0) c.arena.writable(out, 3 * static_cast<size_t>(m));
      c.arena.seal();
      c.finish(velrTriangleNormal_32f(verts, tri, out, len), velStsNoErr, len > 0);
      break;
    }
    case 8: {  // the box is written even for an empty vertex set
      const Vel32f* verts = c.checked(floats(c, 3 * static_cast<size_t>(n), al));
      Vel32f* box = floats(c, 6, in.misalign(4));
      c.arena.writable(box, 6);
      c.arena.seal();
      c.finish(velrSetBoundBox_32f(verts, len, box), velStsNoErr, true);
      break;
    }
    case 9: {
      const Vel32f* colour = floats(c, 3, 0);
      const Vel32f* f = c.checked(floats(c, n, al));
      const Vel32f* const* src = c.checked(planes3(c, n, false, in.oneIn(3) ? in.misalign(4) : al));
      const Vel32s* mask = c.checked(masks(c, n, 0, in.oneIn(3) ? in.misalign(4) : al));
      Vel32f* const* dst = c.checked(planes3(c, n, true, in.oneIn(3) ? in.misalign(4) : al));
      c.arena.seal();
      c.finish(velrAddMulMul_32f_AC1P3IM(colour, f, src, mask, dst, len), velStsNoErr, len > 0);
      break;
    }
    case 10:
    case 11:
    case 12: {
      const Vel32f* f = c.checked(floats(c, n, in.oneIn(3) ? in.misalign(4) : al));
      // The mask is not checked by the division, but must be there to be read.
      const Vel32s* mask = which == 12 ? masks(c, n, 0, al) : c.checked(masks(c, n, 0, al));
      if (which == 11) {
        Vel32f* const* dst = c.checked(planes3(c, n, true, in.oneIn(3) ? in.misalign(4) : al));
        c.arena.seal();
        c.finish(velrMul_32f_C1P3IM(f, mask, dst, len), velStsNoErr, len > 0);
        break;
      }
      Vel32f* dst = c.checked(floats(c, n, in.oneIn(3) ? in.misalign(4) : al));
      if (dst != nullptr && n > 0) c.arena.writable(dst, n);
      c.arena.seal();
      if (which == 10) {
        c.finish(velrMul_32f_C1IM(f, mask, dst, len), velStsNoErr, len > 0);
        break;
      }
      bool zeroDivisor = false;
      for (int i = 0; f != nullptr && i < n; ++i) zeroDivisor |= mask[i] >= 0 && f[i] == 0.0f;
      c.finish(velrDiv_32f_C1IM(f, mask, dst, len), zeroDivisor ? velStsDivByZero : velStsNoErr,
               len > 0);
      break;
    }
    case 13: {
      const Vel32f* const* a = c.checked(planes3(c, n, false, al));
      const Vel32f* const* b = c.checked(planes3(c, n, false, in.oneIn(4) ? in.misalign(4) : al));
      const Vel32s* mask = c.checked(masks(c, n, 0, al));
      Vel32f* dot = c.checked(floats(c, n, al));
      if (dot != nullptr && n > 0) c.arena.writable(dot, n);
      c.arena.seal();
      c.finish(velrDot_32f_P3C1M(a, b, mask, dot, len), velStsNoErr, len > 0);
      break;
    }
    case 14: {
      const Vel32f* const* rays = c.checked(planes3(c, n, false, al));
      const Vel32s* mask = c.checked(masks(c, n, 0, al));
      Vel32f* const* norms = c.checked(planes3(c, n, true, in.oneIn(4) ? in.misalign(4) : al));
      Vel32f* dot = c.checked(floats(c, n, al));
      if (dot != nullptr && n > 0) c.arena.writable(dot, n);
      c.arena.seal();
      c.finish(velrDotChangeNorm_32f_IM(rays, mask, norms, dot, len), velStsNoErr, len > 0);
      break;
    }
    default: {
      const Vel32f* light = floats(c, 3, 0);
      const Vel32f* const* points = c.checked(planes3(c, n, false, al));
      const Vel32s* mask = c.checked(masks(c, n, 0, al));
      Vel32f* dist = c.checked(floats(c, n, in.oneIn(4) ? in.misalign(4) : al));
      if (dist != nullptr && n > 0) c.arena.writable(dist, n);
      c.arena.seal();
      c.finish(velrDistAttenuationSO_32f_M(light, points, mask, dist, len), velStsNoErr, len > 0);
      break;
    }
  }
  return 0;
}
