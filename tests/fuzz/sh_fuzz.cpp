// Spherical harmonics: the context size query and initialisation (any order,
// both algorithms, unknown ones), the basis and band evaluation and the six
// transforms, over contexts of every order with an occasional unknown
// algorithm word, lengths of every sign and arbitrary directions. Statuses
// must follow the documented order; only the outputs (the context buffer,
// the values, the coefficient vectors) may change, and only on success with
// work to do.
#include "tests/fuzz/fuzz_common.h"

namespace {

using fuzz::Arena;
using fuzz::Input;

constexpr Vel32u kMaxBand = 15;

Vel32u anOrder(Input& in) {
  const uint8_t b = in.u8();
  if (b < 220) return b % 18;
  if (b < 240) return in.range(18, 300);
  return in.u32();
}

// Context orders: a recurrence context of order 32766 or more needs more
// than 2^32 bytes, which the size query's 32-bit arithmetic cannot report
// (it wraps), so no caller can size such a buffer; contexts stay below.
Vel32u aContextOrder(Input& in) {
  const Vel32u order = anOrder(in);
  return order < 32766 ? order : order % 32766;
}

int anAlgorithm(Input& in) {
  const uint8_t b = in.u8();
  if (b < 230) return b & 1;
  return b < 245 ? b % 4 - 1 : in.anyInt();
}

int aLength(Input& in) { return in.oneIn(16) ? in.anyInt() % 300 : in.range(-2, 33); }

// The size query's formula, in its 32-bit unsigned arithmetic.
Vel32u recurrenceSize(Vel32u order) {
  const Vel32u t = (order + 1) * (order + 2) / 2;
  return ((t * 8 + 30) & ~31u) + 16;
}

void fuzzSize(Input& in) {
  Arena arena;
  const Vel32u order = anOrder(in);
  const int alg = anAlgorithm(in);
  int* size = in.oneIn(16) ? nullptr : arena.add<int>(1, 0, &in);
  if (size != nullptr) arena.writable(size);
  arena.seal();
  const VelStatus st = velrSHGetSize_32f(order, alg, size);
  VelStatus want = velStsNoErr;
  if (size == nullptr) want = velStsNullPtrErr;
  else if (alg == 0 && order > kMaxBand) want = velStsSizeErr;
  else if (alg != 0 && alg != 1) want = velStsRangeErr;
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
  if (st == velStsNoErr)
    FUZZ_CHECK(static_cast<Vel32u>(*size) == (alg == 0 ? 16u : recurrenceSize(order)), "size");
}

// A context initialised as a caller would: sized by the query, 16-byte
// aligned. Null when the size is beyond what the harness allocates.
VelrSHState* makeContext(Arena& arena, Input& in, Vel32u order, int alg) {
  int size = 0;
  if (velrSHGetSize_32f(order, alg, &size) != velStsNoErr || size < 16 || size > (1 << 20))
    return nullptr;
  auto* ctx = arena.add<VelrSHState>(static_cast<size_t>(size) / sizeof(VelrSHState) + 1,
                                     in.oneIn(4) ? 16 : 0, &in);
  if (velrSHInit_32f(ctx, order, alg) != velStsNoErr) return nullptr;
  return ctx;
}

void fuzzInit(Input& in) {
  Arena arena;
  const Vel32u order = aContextOrder(in);
  const int alg = anAlgorithm(in);
  int size = 16;
  if (velrSHGetSize_32f(order, alg, &size) != velStsNoErr) size = 16;
  if (size < 16 || size > (1 << 20)) return;  // more than the harness allocates
  auto* ctx = arena.add<Vel8u>(static_cast<size_t>(size), in.oneIn(4) ? 16 : 0, &in);
  arena.writable(ctx, static_cast<size_t>(size));
  const bool missing = in.oneIn(16);
  arena.seal();
  const VelStatus st =
      velrSHInit_32f(missing ? nullptr : reinterpret_cast<VelrSHState*>(ctx), order, alg);
  VelStatus want = velStsNoErr;
  if (missing) want = velStsNullPtrErr;
  else if (alg == 0 && order > kMaxBand) want = velStsSizeErr;
  else if (alg != 0 && alg != 1) want = velStsRangeErr;
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
}

struct Call {
  explicit Call(Input& input) : in(input) {}
  template <class P>
  P checked(P p) {
    if (!in.oneIn(20)) return p;
    missing = true;
    return nullptr;
  }
  Vel32f* floats(size_t n, bool output) {
    Vel32f* p = arena.add<Vel32f>(n, in.misalign(4), &in);
    if (output && n > 0) arena.writable(p, n);
    return p;
  }
  // Three planes behind a pointer array; any of the four pointers may be
  // withheld, each one checked.
  Vel32f** planes3(size_t n, bool output) {
    Vel32f** list = fuzz::planes<Vel32f>(arena, in, 3, n, output, in.misalign(4));
    for (int c = 0; c < 3; ++c) list[c] = checked(list[c]);
    return checked(list);
  }
  Input& in;
  Arena arena;
  bool missing = false;
};

void fuzzEvaluate(Input& in) {
  Call c(in);
  const int which = in.u8() % 8;
  const Vel32u ctxOrder = aContextOrder(in);
  const int ctxAlg = in.u8() & 1;
  VelrSHState* ctx = which == 1 ? nullptr : makeContext(c.arena, in, ctxOrder, ctxAlg);
  if (which != 1 && ctx == nullptr) return;
  if (ctx != nullptr && in.oneIn(12)) ctx->algorithm = anAlgorithm(in);  // an unknown word
  const Vel32u order = in.oneIn(3) ? ctxOrder : anOrder(in);
  const int len = aLength(in);
  const size_t n = len > 0 ? static_cast<size_t>(len) : 0;
  const size_t count = order <= kMaxBand ? (order + 1) * (order + 1) : 0;  // per vector

  const Vel32f* x = c.checked(c.floats(n, false));
  const Vel32f* y = c.checked(c.floats(n, false));
  const Vel32f* z = c.checked(c.floats(n, false));
  // What a call with work to do writes, if the checks let it.
  const size_t perDir = which == 1 ? 2 * order + 1 : which == 0 ? count : 0;
  const bool fits = which == 1 ? order <= kMaxBand : order <= kMaxBand && order <= ctx->order;
  const size_t outCount = fits ? n * perDir : 0;
  VelStatus st;
  switch (which) {
    case 0: {
      Vel32f* dst = c.checked(c.floats(outCount, true));
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSH_32f(x, y, z, len, dst, order, s);
      break;
    }
    case 1: {
      Vel32f* dst = c.checked(c.floats(outCount, true));
      c.arena.seal();
      st = velrSHBand_32f(x, y, z, len, dst, order);
      break;
    }
    case 2: {
      const Vel32f* src = c.checked(c.floats(n, false));
      Vel32f* coeffs = c.checked(c.floats(fits ? count : 0, true));
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSHTFwd_32f_C1I(x, y, z, src, len, coeffs, order, s);
      break;
    }
    case 3: {
      const Vel32f* src = c.checked(c.floats(3 * n, false));
      Vel32f* const* coeffs = c.planes3(fits ? count : 0, true);
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSHTFwd_32f_C3P3I(x, y, z, src, len, coeffs, order, s);
      break;
    }
    case 4: {
      const Vel32f* const* src = c.planes3(n, false);
      Vel32f* const* coeffs = c.planes3(fits ? count : 0, true);
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSHTFwd_32f_P3I(x, y, z, src, len, coeffs, order, s);
      break;
    }
    case 5: {
      const Vel32f* coeffs = c.checked(c.floats(count, false));
      Vel32f* dst = c.checked(c.floats(fits ? n : 0, true));
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSHTInv_32f_C1(coeffs, order, x, y, z, dst, len, s);
      break;
    }
    case 6: {
      const Vel32f* const* coeffs = c.planes3(count, false);
      Vel32f* const* dst = c.planes3(fits ? n : 0, true);
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSHTInv_32f_P3(coeffs, order, x, y, z, dst, len, s);
      break;
    }
    default: {
      const Vel32f* const* coeffs = c.planes3(count, false);
      Vel32f* dst = c.checked(c.floats(fits ? 3 * n : 0, true));
      const VelrSHState* s = c.checked(ctx);
      c.arena.seal();
      st = velrSHTInv_32f_P3C3(coeffs, order, x, y, z, dst, len, s);
      break;
    }
  }
  FUZZ_TRACE("sh %d: order %u, context order %u algorithm %d, len %d, missing %d\n", which, order,
             ctx ? ctx->order : 0, ctx ? ctx->algorithm : -1, len, c.missing);

  VelStatus want = velStsNoErr;
  const bool badContext = ctx != nullptr && (order > ctx->order || (ctx->algorithm != 0 &&
                                                                    ctx->algorithm != 1));
  if (c.missing) want = velStsNullPtrErr;
  else if (which == 1) {
    want = order > kMaxBand ? velStsRangeErr : len == 0 ? velStsSizeErr : velStsNoErr;
  } else if (len == 0) {
    want = velStsSizeErr;
  } else if (which == 0 && len < 0) {
    want = velStsNoErr;  // the basis answers a negative length before the order
  } else if (badContext || order > kMaxBand) {
    want = velStsRangeErr;
  }
  FUZZ_EXPECT_STATUS(st, want);
  c.arena.verify(st == velStsNoErr && len > 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  switch (in.u8() % 4) {
    case 0: fuzzSize(in); break;
    case 1: fuzzInit(in); break;
    default: fuzzEvaluate(in); break;
  }
  return 0;
}
