// Front ends of the 3-D convolution: argument checks, path choice, kernel
// repacking into the caller's work buffer, and the split into slabs.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "volume/filter.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "volume/filter-inl.h"

#if HWY_ONCE

#include <cstdint>

#include "frame/parallel.h"
#include "velr.h"
#include "volume/filter.h"

namespace velr {
HWY_EXPORT(FilterSlab);

namespace {

// A kernel takes an integer path only when every tap fits 16 bits with a
// value to spare at each end (without -32768 no pairwise product sum can
// leave 32 bits) and the taps sum to at most three times the largest such
// tap. The limits decide results, not just speed: the paths round
// differently, so they are kept exactly.
constexpr int64_t kMaxIntegerKernelSum = 98301;
constexpr int32_t kMinIntegerTap = -32767;
constexpr int32_t kMaxIntegerTap = 32766;
// Below 16 voxels per line the integer paths would not fill one vector.
constexpr int kMinIntegerWidth = 16;
// Destinations this large are written past the caches: they would not stay
// there anyway, and streaming saves reading each line before writing it.
constexpr int64_t kStreamBytes = 8 << 20;
// Volumes are split into slabs only when every axis has this many voxels.
constexpr int kMinParallelExtent = 16;

int64_t roundUp16(int64_t v) { return (v + 15) / 16 * 16; }

// One thread's share of the work buffer: the kernel as 16-bit pairs, each
// pair given room for a 16-byte vector replicated twice; a line of 32-bit
// sums; 64 bytes to align it. False when the total for `threads` does not
// fit the int that reports it.
bool workBufferBytes(int width, VelrVolume k, int threads, int64_t* bytes) {
  int64_t kernelBytes = 32 * static_cast<int64_t>(filter::pairsPerRow(k.width));
  if (__builtin_mul_overflow(kernelBytes, static_cast<int64_t>(k.height), &kernelBytes) ||
      __builtin_mul_overflow(kernelBytes, static_cast<int64_t>(k.depth), &kernelBytes))
    return false;
  const int64_t share = kernelBytes + 4 * roundUp16(width) + 64;
  int64_t total = 0;
  if (__builtin_mul_overflow(share, static_cast<int64_t>(threads), &total) || total > INT32_MAX)
    return false;
  *bytes = total;
  return true;
}

uint32_t packPair(int32_t lo, int32_t hi) {
  return static_cast<uint32_t>(static_cast<uint16_t>(lo)) |
         static_cast<uint32_t>(static_cast<uint16_t>(hi)) << 16;
}

// Writes the kernel mirrored (source order) as coefficient pairs or floats.
void repackKernel(const Vel32s* kernel, VelrVolume k, filter::Path path, uint32_t* pairs,
                  float* taps) {
  const int pairCount = filter::pairsPerRow(k.width);
  for (int tz = 0; tz < k.depth; ++tz)
    for (int ty = 0; ty < k.height; ++ty) {
      const size_t row = static_cast<size_t>(tz) * k.height + ty;
      const Vel32s* src =
          kernel + ((static_cast<size_t>(k.depth - 1 - tz) * k.height) + (k.height - 1 - ty)) * k.width;
      auto tap = [&](int tx) { return src[k.width - 1 - tx]; };
      if (path == filter::Path::kFloat) {
        for (int tx = 0; tx < k.width; ++tx) taps[row * k.width + tx] = static_cast<float>(tap(tx));
        continue;
      }
      for (int p = 0; p < pairCount; ++p) {
        const int t = filter::pairOffset(k.width, p);
        const bool lastOfOdd = (k.width & 1) && p == k.width / 2;
        pairs[row * pairCount + p] = lastOfOdd ? packPair(0, tap(t + 1)) : packPair(tap(t), tap(t + 1));
      }
    }
}

filter::Path choosePath(const Vel32s* kernel, VelrVolume k, int width) {
  const int64_t count = static_cast<int64_t>(k.width) * k.height * k.depth;
  int64_t sum = 0;
  bool fits16 = true;
  for (int64_t i = 0; i < count; ++i) {
    sum += kernel[i];
    fits16 = fits16 && kernel[i] >= kMinIntegerTap && kernel[i] <= kMaxIntegerTap;
  }
  const bool integer = sum <= kMaxIntegerKernelSum && fits16 && width >= kMinIntegerWidth;
  if (!integer) return filter::Path::kFloat;
  if (k.width == 3 && k.height == 3 && k.depth == 3) return filter::Path::kCube3;
  if (k.width == 5 && k.height == 5 && k.depth == 5) return filter::Path::kCube5;
  if (k.width >= 3 && k.height >= 3 && k.depth >= 3) return filter::Path::kGeneric16;
  return filter::Path::kFloat;
}

uint8_t* alignUp64(uint8_t* p) {
  return p + ((64 - reinterpret_cast<uintptr_t>(p) % 64) % 64);
}

}  // namespace
}  // namespace velr

extern "C" {

VELR_API VelStatus velrFilterGetBufSize(VelrVolume dstRoiVolume, VelrVolume kernelVolume,
                                        int nChannel, int* pSize) {
  if (pSize == nullptr) return velStsNullPtrErr;
  if (dstRoiVolume.width < 1 || dstRoiVolume.height < 1 || dstRoiVolume.depth < 1 ||
      kernelVolume.width < 1 || kernelVolume.height < 1 || kernelVolume.depth < 1)
    return velStsSizeErr;
  if (nChannel != 1) return velStsNumChannelsErr;
  int64_t bytes = 0;
  if (!velr::workBufferBytes(dstRoiVolume.width, kernelVolume, ownGetNumThreads(), &bytes))
    return velStsSizeErr;
  *pSize = static_cast<int>(bytes);
  return velStsNoErr;
}

VELR_API VelStatus velrFilter_16s_C1PV(const Vel16s* const* pSrc, int srcStep, Vel16s* const* pDst,
                                       int dstStep, VelrVolume dstRoiVolume, const Vel32s* pKernel,
                                       VelrVolume kernelVolume, VelrPoint anchor, int divisor,
                                       Vel8u* pBuffer) {
  using namespace velr;
  if (pSrc == nullptr || pDst == nullptr || pKernel == nullptr) return velStsNullPtrErr;
  if (pBuffer == nullptr) return velStsNullPtrErr;
  const VelrVolume d = dstRoiVolume;
  const VelrVolume k = kernelVolume;
  if (d.width < 1 || d.height < 1 || d.depth < 1) return velStsSizeErr;
  if (k.width < 1 || k.height < 1 || k.depth < 1) return velStsSizeErr;
  if (divisor == 0) return velStsSizeErr;

  const bool split = d.width >= kMinParallelExtent && d.height >= kMinParallelExtent &&
                     d.depth >= kMinParallelExtent;
  const int available = ownGetNumThreads();
  const int threads = split && available > 1 ? available : 1;
  int64_t bytes = 0;
  // A kernel whose work buffer cannot be sized cannot have been given one.
  if (!workBufferBytes(d.width, k, threads, &bytes)) return velStsSizeErr;

  filter::Job job;
  job.src = pSrc;
  job.srcStride = srcStep >> 1;
  job.dst = pDst;
  job.dstStride = dstStep >> 1;
  job.width = d.width;
  job.height = d.height;
  job.kw = k.width;
  job.kh = k.height;
  job.kd = k.depth;
  job.xOrigin = static_cast<int64_t>(anchor.x) - (k.width - 1);
  job.yOrigin = static_cast<int64_t>(anchor.y) - (k.height - 1);
  job.zOrigin = static_cast<int64_t>(anchor.z) - (k.depth - 1);
  job.path = choosePath(pKernel, k, d.width);
  job.scaling = filter::classifyDivisor(divisor);
  job.stream = static_cast<int64_t>(d.width) * d.height * d.depth * 2 >= kStreamBytes;

  // Lines first, each a multiple of 64 bytes from one aligned start; the
  // kernel after them. This fits one thread's 64 spare bytes.
  const int64_t lineInts = roundUp16(d.width);
  uint8_t* lines = alignUp64(pBuffer);
  uint8_t* kernelArea = lines + 4 * lineInts * threads;
  job.pairs = reinterpret_cast<const uint32_t*>(kernelArea);
  job.taps = reinterpret_cast<const float*>(kernelArea);
  repackKernel(pKernel, k, job.path, reinterpret_cast<uint32_t*>(kernelArea),
               reinterpret_cast<float*>(kernelArea));

  int32_t* const lineBase = reinterpret_cast<int32_t*>(lines);
  parallelSlabs(threads, d.depth, [&](int first, int count, int id, int) {
    filter::Job slab = job;
    slab.src = job.src + first;
    slab.dst = job.dst + first;
    HWY_DYNAMIC_DISPATCH(FilterSlab)(slab, count, lineBase + lineInts * id);
  });
  return velStsNoErr;
}

}  // extern "C"

#endif  // HWY_ONCE
