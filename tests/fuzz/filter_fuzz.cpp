// 3-D convolution and its buffer-size query. Kernels of every shape up to
// 7 x 7 x 7 with coefficients at and past the integer-path limits, anchors
// inside and outside the kernel, divisors of every class (one, powers of
// two, others, negative, zero, the extremes); the source carries exactly
// the border the anchor asks for, as separate regions per plane behind a
// plane array indexable below 0. The status must follow the documented
// order, and only destination voxels and the work buffer may change.
#include "tests/fuzz/volume_fuzz.h"

namespace {

using fuzz::Arena;
using fuzz::Input;

int64_t a16(int64_t n) { return (n + 15) / 16 * 16; }

// The size query's formula; -1 when it does not fit the int that reports it.
int64_t bufferSize(VelrVolume dst, VelrVolume k, int threads) {
  const int64_t s = (32 * static_cast<int64_t>((k.width + 1) / 2) * k.height * k.depth +
                     4 * a16(dst.width) + 64) *
                    threads;
  return s > INT_MAX ? -1 : s;
}

Vel32s coefficient(Input& in) {
  const uint8_t b = in.u8();
  if (b < 150) return static_cast<int8_t>(in.u8());
  if (b < 190) {
    static constexpr Vel32s kEdges[] = {32766, 32767, -32767, -32768, 98301, 98302, 65535, -65536};
    return kEdges[in.u8() % 8];
  }
  if (b < 230) return static_cast<int16_t>(in.u16());
  return static_cast<Vel32s>(in.u32());
}

int divisor(Input& in) {
  const uint8_t b = in.u8();
  if (b < 60) return 1;
  if (b < 120) return 1 << (b % 31);  // the shift class
  if (b < 200) return static_cast<int>(static_cast<int8_t>(in.u8()));
  if (b < 215) return INT_MIN;
  if (b < 225) return INT_MAX;
  return in.anyInt();
}

void fuzzBufSize(Input& in) {
  fuzz::pickThreads(in);
  Arena arena;
  VelrVolume dst{in.range(-1, 40), in.range(-1, 40), in.range(-1, 40)};
  VelrVolume k{in.range(-1, 9), in.range(-1, 9), in.range(-1, 9)};
  if (in.oneIn(8)) (in.oneIn(2) ? dst.width : k.depth) = in.range(1, INT_MAX);
  const int channels = in.oneIn(8) ? in.anyInt() : 1;
  int* size = in.oneIn(16) ? nullptr : arena.add<int>(1, 0, &in);
  if (size != nullptr) arena.writable(size);
  arena.seal();
  const VelStatus st = velrFilterGetBufSize(dst, k, channels, size);
  VelStatus want = velStsNoErr;
  const bool sizesOk = dst.width >= 1 && dst.height >= 1 && dst.depth >= 1 && k.width >= 1 &&
                       k.height >= 1 && k.depth >= 1;
  const int64_t expected = sizesOk ? bufferSize(dst, k, ownGetNumThreads()) : 0;
  if (size == nullptr) want = velStsNullPtrErr;
  else if (!sizesOk) want = velStsSizeErr;
  else if (channels != 1) want = velStsNumChannelsErr;
  else if (expected < 0) want = velStsSizeErr;  // a size the int cannot report
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
  if (st == velStsNoErr) FUZZ_CHECK(*size == expected, "buffer size");
}

void fuzzFilter(Input& in) {
  fuzz::pickThreads(in);
  Arena arena;
  const bool big = in.oneIn(12);  // slabs need 16 along every axis
  const int W = in.range(1, big ? 18 : 20), H = in.range(1, big ? 18 : 6),
            D = in.range(1, big ? 17 : 4);
  const int kw = in.range(1, 7), kh = in.range(1, 5), kd = in.range(1, 5);
  // Mostly inside the kernel; now and then beyond it on either side.
  auto anchor = [&](int k) { return in.oneIn(6) ? in.range(-2, k + 1) : in.range(0, k - 1); };
  const VelrPoint anc{anchor(kw), anchor(kh), anchor(kd)};
  VelrVolume dstVol{W, H, D}, kVol{kw, kh, kd};
  if (in.oneIn(12)) {
    int* f[] = {&dstVol.width, &dstVol.height, &dstVol.depth, &kVol.width, &kVol.height,
                &kVol.depth};
    *f[in.u8() % 6] = in.oneIn(2) ? 0 : INT_MIN;
  }
  const int div = divisor(in);

  // Source extent needed around the destination: x from anc.x - (kw - 1) to
  // W - 1 + anc.x, and likewise for lines and planes.
  const int x0 = std::min(0, anc.x - (kw - 1)), x1 = std::max(W - 1, W - 1 + anc.x);
  const int y0 = std::min(0, anc.y - (kh - 1)), y1 = std::max(H - 1, H - 1 + anc.y);
  const int z0 = std::min(0, anc.z - (kd - 1)), z1 = std::max(D - 1, D - 1 + anc.z);
  const int lineElems = x1 - x0 + 1 + (in.oneIn(3) ? in.range(1, 5) : 0);
  const int srcStep = 2 * lineElems + (in.oneIn(4) ? 1 : 0);  // an odd byte is truncated
  const int planes = z1 - z0 + 1;
  const Vel16s** srcList = arena.add<const Vel16s*>(static_cast<size_t>(planes), 0);
  const size_t misalign = in.misalign(2);
  for (int z = 0; z < planes; ++z) {
    const Vel16s* plane =
        arena.add<Vel16s>(static_cast<size_t>(y1 - y0) * lineElems + (x1 - x0 + 1), misalign, &in);
    srcList[z] = plane - static_cast<long>(y0) * lineElems - x0;  // voxel (0, 0) of the region
  }
  const Vel16s* const* src = srcList - z0;  // entry 0 is aligned with destination plane 0

  fuzz::Volume<Vel16s> dst = fuzz::makeVolume<Vel16s>(arena, in, W, H, D, true);
  fuzz::markWritable(arena, dst, 0, 0, 0, W, H, D);
  const size_t kCount = static_cast<size_t>(kw) * kh * kd;
  Vel32s* kernel = arena.add<Vel32s>(kCount, in.misalign(4));
  const uint8_t kernelKind = in.u8() % 4;
  for (size_t i = 0; i < kCount; ++i)
    kernel[i] = kernelKind == 0 ? -32767 : kernelKind == 1 ? 32766 : coefficient(in);

  const int64_t bytes = bufferSize({W, H, D}, {kw, kh, kd}, ownGetNumThreads());
  const int bufBytes = bytes > 0 ? static_cast<int>(bytes) : 64;
  Vel8u* buffer = arena.add<Vel8u>(static_cast<size_t>(bufBytes), in.misalign(1), &in);
  arena.writable(buffer, static_cast<size_t>(bufBytes));
  const int missing = in.oneIn(14) ? in.range(0, 3) : -1;
  arena.seal();
  FUZZ_TRACE("filter: dst %dx%dx%d step %d, src step %d, kernel %dx%dx%d (kind %d) anchor "
             "(%d %d %d), divisor %d, threads %d, missing %d\n",
             dstVol.width, dstVol.height, dstVol.depth, dst.step, srcStep, kVol.width, kVol.height,
             kVol.depth, kernelKind, anc.x, anc.y, anc.z, div, ownGetNumThreads(), missing);

  const VelStatus st =
      velrFilter_16s_C1PV(missing == 0 ? nullptr : src, srcStep, missing == 1 ? nullptr : dst.planes,
                          dst.step, dstVol, missing == 2 ? nullptr : kernel, kVol, anc, div,
                          missing == 3 ? nullptr : buffer);
  VelStatus want = velStsNoErr;
  if (missing >= 0) want = velStsNullPtrErr;
  else if (dstVol.width < 1 || dstVol.height < 1 || dstVol.depth < 1) want = velStsSizeErr;
  else if (kVol.width < 1 || kVol.height < 1 || kVol.depth < 1) want = velStsSizeErr;
  else if (div == 0) want = velStsSizeErr;
  FUZZ_EXPECT_STATUS(st, want);
  arena.verify(st == velStsNoErr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  if (in.u8() % 5 == 0)
    fuzzBufSize(in);
  else
    fuzzFilter(in);
  return 0;
}
