// What every volume operation (resize, remap, warp, filter) shares: how a
// voxel is addressed in the contiguous (V) and planar (PV) layouts, the
// argument tests they all apply the same way, and the resize coordinate
// mapping with its destination-region rule.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

#include "velr.h"

namespace velr::vol {

// ---------------------------------------------------------------- addressing

// A byte step as an element count. The shift (not a division) is what callers
// rely on: a step that is not a multiple of the element size rounds down to
// the next lower multiple, also for negative steps.
template <class T>
constexpr ptrdiff_t elementStep(int bytes) {
  static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
  constexpr int shift = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
  return static_cast<ptrdiff_t>(bytes >> shift);
}

// One volume in either layout. Every product is formed in ptrdiff_t, so
// volumes beyond 2 GiB address correctly although steps and indices are int.
// T may be const-qualified for sources.
template <class T>
struct VolumeRef {
  T* base = nullptr;           // V: voxel (0, 0, 0)
  T* const* planes = nullptr;  // PV: one pointer per plane, by absolute z
  ptrdiff_t lineStep = 0;      // elements between consecutive lines
  ptrdiff_t planeStep = 0;     // V only: elements between consecutive planes

  static VolumeRef contiguous(T* base, int lineBytes, int planeBytes) {
    VolumeRef r;
    r.base = base;
    r.lineStep = elementStep<T>(lineBytes);
    r.planeStep = elementStep<T>(planeBytes);
    return r;
  }
  static VolumeRef planar(T* const* planes, int lineBytes) {
    VolumeRef r;
    r.planes = planes;
    r.lineStep = elementStep<T>(lineBytes);
    return r;
  }

  T* plane(int z) const {
    return planes ? planes[z] : base + static_cast<ptrdiff_t>(z) * planeStep;
  }
  T* line(int y, int z) const { return plane(z) + static_cast<ptrdiff_t>(y) * lineStep; }
  T* voxel(int x, int y, int z) const { return line(y, z) + x; }
};

// ---------------------------------------------------------------- argument tests

inline bool isInterpolationCode(int code) {
  return code == VELR_INTER_NEAREST || code == VELR_INTER_LINEAR ||
         (code >= VELR_INTER_CUBIC_LAGRANGE && code <= VELR_INTER_CUBIC_B05_C03);
}

// Taps per axis of a valid code: 1, 2 or 4.
inline int tapsPerAxis(int code) {
  return code == VELR_INTER_NEAREST ? 1 : code == VELR_INTER_LINEAR ? 2 : 4;
}

inline bool isEmptyVolume(const VelrVolume& v) {
  return v.width < 1 || v.height < 1 || v.depth < 1;
}

// Offsets below 0 or extents below 1, in the order x/width, y/height,
// z/depth (the order matters only to say which test fails first; the status
// is the same).
inline bool isBadCuboid(const VelrCuboid& r) {
  return r.x < 0 || r.width < 1 || r.y < 0 || r.height < 1 || r.z < 0 || r.depth < 1;
}

// The region's first voxel lies outside the volume on some axis.
inline bool startsOutside(const VelrCuboid& r, const VelrVolume& v) {
  return r.x >= v.width || r.y >= v.height || r.z >= v.depth;
}

// The region limited to the volume, as inclusive bounds. Requires a valid
// region that starts inside the volume.
inline VelrRemapRegion clippedBounds(const VelrCuboid& r, const VelrVolume& v) {
  auto last = [](int start, int len, int extent) {
    return start + (len < extent - start ? len : extent - start) - 1;
  };
  return {r.x,
          r.y,
          r.z,
          last(r.x, r.width, v.width),
          last(r.y, r.height, v.height),
          last(r.z, r.depth, v.depth)};
}

// Remap and warp sample at most what the volume holds: a volume below 4
// voxels on some axis cannot feed four taps, one below 2 not even two.
// Resize never lowers its code.
inline int lowerCodeForSmallVolume(int code, const VelrVolume& v) {
  const int smallest = v.width < v.height ? (v.width < v.depth ? v.width : v.depth)
                                          : (v.height < v.depth ? v.height : v.depth);
  if (smallest >= 4) return code;
  if (code >= VELR_INTER_CUBIC_LAGRANGE) code = VELR_INTER_LINEAR;
  if (smallest < 2) code = VELR_INTER_NEAREST;
  return code;
}

// ---------------------------------------------------------------- conversions

// Conversion toward zero that is defined for every double: out-of-range
// values saturate and NaN gives 0. Only absurd factors or shifts reach the
// limits, but they must not reach undefined behaviour.
inline int truncToInt(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT_MAX;
  if (v <= -2147483648.0) return INT_MIN;
  return static_cast<int>(v);
}

// ---------------------------------------------------------------- resize mapping

// One axis of a resize: destination coordinate v samples the source at
// (v + 0.5) * inv + (off - 0.5), with inv = 1 / factor and off = -shift /
// factor formed once; the destination voxels written are begin .. end - 1.
struct ResizeAxis {
  double inv = 0;
  double off = 0;
  int begin = 0;
  int end = 0;
  int count() const { return end - begin; }
};

// The per-call record of a resize, axes in the order x, y, z.
struct ResizeSetup {
  ResizeAxis axis[3];
};

// Start and end rounding of destination regions. A boundary exactly on a
// half voxel goes down at the start and up at the end, so resizes of
// adjacent source regions tile the destination without a gap.
inline constexpr double kRegionStartRound = 0.4999999999;
inline constexpr double kRegionEndRound = 0.5000000001;

// The shared checks of every resize function, in their order: null data or
// buffer, extents and regions, factors, the code, a source region starting
// outside the source volume (+40), an empty destination region (+1). On
// success fills *setup. Steps are deliberately not checked.
VelStatus resizeSetup(bool anyNull, const VelrVolume& srcVolume, const VelrCuboid& srcRoi,
                      const VelrCuboid& dstRoi, const double factor[3], const double shift[3],
                      int interpolation, ResizeSetup* setup);

}  // namespace velr::vol
