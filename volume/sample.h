// What the per-voxel sampling kernels of remap and warp read: the source, its
// clipped region, the sampled weight table of a four-tap code, and the
// optional 32-bit byte addressing that lets the vector forms gather.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/alloc.h"
#include "velr.h"
#include "volume/common.h"

namespace velr::vol {

// Added to a four-tap result (widened to double) before truncation of 8- and
// 16-bit voxels. Slightly above one half so that a result that lands on a
// half after the float sum still rounds up.
inline constexpr double kCubicRoundOffset = 0.5000001;

template <class T>
struct SampleSource {
  const T* const* planes = nullptr;  // by absolute z; a planar call has one
  ptrdiff_t lineStep = 0;            // elements
  VelrRemapRegion region{};          // clipped, inclusive; z unused when planar
  int width = 0;                     // source extent: taps never leave it
  int height = 0;
  int depth = 0;
  const float* weights = nullptr;  // sampled table of a four-tap code

  // Vector addressing. Every voxel that a kernel may read lies at a byte
  // offset from `base` that fits in 32 bits: offset = planeOffsets[z] +
  // y * lineBytes + x * sizeof(T). Null base: one-element forms only.
  const char* base = nullptr;
  const int32_t* planeOffsets = nullptr;  // by absolute z
  int32_t lineBytes = 0;
};

// Positions of a run of destination voxels: remap reads them as floats from
// its coordinate volumes, warp computes them in double. Planar runs leave z
// null.
struct FloatRun {
  const float* x;
  const float* y;
  const float* z;
};
struct DoubleRun {
  const double* x;
  const double* y;
  const double* z;
};

// Planes a kernel may read for region bounds [lo, hi] on an axis of extent n:
// the trilinear step back and the four-tap left tap reach one below the
// region, and the four-tap rule for an integer part of 0 reaches index 2.
inline int firstReadable(int lo) { return lo > 0 ? lo - 1 : 0; }
inline int lastReadable(int hi, int n) {
  const int h = hi > 2 ? hi : 2;
  return h < n - 1 ? h : n - 1;
}

// Fills offsets[z] for z in [zLo, zHi] with the byte distance from planes[zLo]
// (other entries 0) and sets *base to planes[zLo]. False when a line of
// `rowBytes` bytes on any of `height` lines of those planes would lie beyond
// 32-bit offsets; the caller then keeps to the one-element forms.
template <class T>
bool planeOffsetsFit(const T* const* planes, int zLo, int zHi, ptrdiff_t lineBytes, int height,
                     ptrdiff_t rowBytes, int32_t* offsets, const char** base) {
  // Plane pointers are compared as integers: they may point into unrelated
  // allocations, and unread planes may even be null.
  const auto address = [&](int z) {
    return static_cast<int64_t>(reinterpret_cast<uintptr_t>(planes[z]));
  };
  const int64_t lines = static_cast<int64_t>(height - 1) * lineBytes;
  const int64_t lineLo = lines < 0 ? lines : 0;
  const int64_t lineHi = (lines > 0 ? lines : 0) + rowBytes;
  const int64_t origin = address(zLo);
  for (int z = 0; z < zLo; ++z) offsets[z] = 0;
  for (int z = zLo; z <= zHi; ++z) {
    const int64_t d = address(z) - origin;
    if (d + lineLo < INT32_MIN || d + lineHi > INT32_MAX) return false;
    offsets[z] = static_cast<int32_t>(d);
  }
  *base = reinterpret_cast<const char*>(planes[zLo]);
  return true;
}

// Enables the vector forms for a volume (3-D) or planar (2-D) source with the
// final code, when they can address it: 8-bit voxels are fetched as 32-bit
// words inside a line (needs 4 voxels per line), 16-bit ones as pairs (needs
// 2), and the trilinear vector form does not guard the zero-weight reads one
// below index 0 (needs every region end above 0). The returned block holds
// the plane offsets; an allocation failure just leaves the one-element forms.
template <class T>
ScratchBlock enableVectorForms(SampleSource<T>& s, int code, bool planar) {
  ScratchBlock block;
  if (sizeof(T) == 1 && s.width < 4) return block;
  if (sizeof(T) == 2 && s.width < 2) return block;
  if (code == VELR_INTER_LINEAR &&
      (s.region.xMax < 1 || s.region.yMax < 1 || (!planar && s.region.zMax < 1)))
    return block;
  const ptrdiff_t lineBytes = s.lineStep * static_cast<ptrdiff_t>(sizeof(T));
  const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(s.width) * static_cast<ptrdiff_t>(sizeof(T));
  if (lineBytes > INT32_MAX || lineBytes < -INT32_MAX) return block;
  const int zLo = planar ? 0 : firstReadable(s.region.zMin);
  const int zHi = planar ? 0 : lastReadable(s.region.zMax, s.depth);
  block.reset(allocItems4(zHi + 1));
  if (!block) return block;
  int32_t* offsets = block.get<int32_t>();
  const char* base = nullptr;
  if (!planeOffsetsFit(s.planes, zLo, zHi, lineBytes, s.height, rowBytes, offsets, &base)) {
    block.reset();
    return block;
  }
  s.base = base;
  s.planeOffsets = offsets;
  s.lineBytes = static_cast<int32_t>(lineBytes);
  return block;
}

}  // namespace velr::vol
