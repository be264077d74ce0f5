// Volumes for the volume harnesses: contiguous (one region, plane step) or
// planar (one region per plane behind an array of plane pointers), with
// padded, odd or negative line steps as callers pass them, and the voxels of
// a region marked as outputs.
#pragma once

#include <algorithm>

#include "tests/fuzz/fuzz_common.h"

namespace fuzz {

template <class T>
struct Volume {
  int w = 0, h = 0, d = 0;
  int step = 0;       // bytes between lines, as passed
  int planeStep = 0;  // bytes between planes (contiguous layout), as passed
  T* base = nullptr;  // contiguous layout: voxel (0, 0, 0)
  T** planes = nullptr;  // planar layout: one pointer per plane

  // The step the library uses: bytes turned into elements by a shift.
  static int elems(int bytes) { return bytes >> (sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : 2); }

  T* at(int x, int y, int z) const {
    const long line = static_cast<long>(y) * elems(step);
    if (planes != nullptr) return planes[z] + line + x;
    return base + static_cast<long>(z) * elems(planeStep) + line + x;
  }
};

// A line step for lines of w elements: the packed size, sometimes padded or
// (for wider elements) carrying a stray low byte that the library truncates,
// sometimes negative (lines stored bottom-up).
template <class T>
int lineStep(Input& in, int w, bool& negative) {
  int step = w * static_cast<int>(sizeof(T));
  const uint8_t b = in.u8();
  if (b & 1) step += static_cast<int>(sizeof(T)) * (1 + (b >> 1) % 5);
  if (sizeof(T) > 1 && (b & 0x40)) step += 1 + (b >> 4) % (sizeof(T) - 1);
  negative = (b & 0x80) && (b & 0x20);
  return negative ? -step : step;
}

// A volume of w x h x d voxels filled from the input, with a line step
// drawn from the input or, when `step` is non-zero, that one (which must
// hold w elements).
template <class T>
Volume<T> makeVolume(Arena& arena, Input& in, int w, int h, int d, bool planar, int step = 0) {
  Volume<T> v;
  v.w = w;
  v.h = h;
  v.d = d;
  bool flipped = step < 0;
  v.step = step != 0 ? step : lineStep<T>(in, w, flipped);
  const long lineElems = std::abs(Volume<T>::elems(v.step));
  const long planeElems = (h - 1) * lineElems + w;
  const long firstLine = flipped ? (h - 1) * lineElems : 0;  // where line 0 sits
  const size_t misalign = in.misalign(sizeof(T));
  if (planar) {
    v.planes = arena.add<T*>(static_cast<size_t>(d), 0);
    for (int z = 0; z < d; ++z)
      v.planes[z] = arena.add<T>(static_cast<size_t>(planeElems), misalign, &in) + firstLine;
    return v;
  }
  // Contiguous: planes packed or padded; with a flipped line order the
  // planes go bottom-up too (a negative plane step), as an image stack
  // stored upside down would.
  const long planePad = in.oneIn(3) ? in.range(1, 9) : 0;
  const long planeElemsStep = planeElems + planePad;
  v.planeStep = static_cast<int>(planeElemsStep * static_cast<long>(sizeof(T)));
  const long total = (d - 1) * planeElemsStep + planeElems;
  T* block = arena.add<T>(static_cast<size_t>(total), misalign, &in);
  if (flipped) {
    v.planeStep = -v.planeStep;
    v.base = block + (d - 1) * planeElemsStep + firstLine;
  } else {
    v.base = block;
  }
  return v;
}

// Marks voxels [x0, x1) x [y0, y1) x [z0, z1) as outputs.
template <class T>
void markWritable(Arena& arena, const Volume<T>& v, int x0, int y0, int z0, int x1, int y1,
                  int z1) {
  for (int z = z0; z < z1; ++z)
    for (int y = y0; y < y1; ++y)
      if (x1 > x0) arena.writable(v.at(x0, y, z), static_cast<size_t>(x1 - x0));
}

// Interpolation codes: mostly accepted ones, sometimes any int.
inline int interpolationCode(Input& in) {
  static constexpr int kCodes[] = {1, 2, 4, 5, 6, 7};
  const uint8_t b = in.u8();
  if (b < 200) return kCodes[b % 6];
  if (b < 240) return b % 10 - 1;  // -1 .. 8, with the holes 0 and 3
  return in.anyInt();
}

inline bool codeAccepted(int code) {
  return code == 1 || code == 2 || (code >= 4 && code <= 7);
}

// A region or cuboid the volume functions accept: offsets from 0, extents
// from 1.
inline bool roiValid(const VelrCuboid& r) {
  return r.x >= 0 && r.width >= 1 && r.y >= 0 && r.height >= 1 && r.z >= 0 && r.depth >= 1;
}

// The check order of the buffer-size queries of resize and warp.
inline VelStatus bufSizeStatus(const int* size, const VelrCuboid& src, const VelrCuboid& dst,
                               int channels, int code) {
  if (size == nullptr) return velStsNullPtrErr;
  if (!roiValid(src) || !roiValid(dst)) return velStsSizeErr;
  if (channels != 1) return velStsNumChannelsErr;
  if (!codeAccepted(code)) return velStsInterpolationErr;
  return velStsNoErr;
}

}  // namespace fuzz
