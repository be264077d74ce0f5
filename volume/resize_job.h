// What one resize call (or one slab of it) hands to the per-target kernels:
// the per-axis tap tables built once per call, the source and destination
// addressing, and the intermediate planes and lines carved from the caller's
// work buffer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "velr.h"
#include "volume/common.h"

namespace velr::vol {

// Source taps of one axis for every destination coordinate 0 .. count - 1
// (relative to the destination region's start). Because the source
// coordinate grows with the destination coordinate, the coordinates whose
// taps all lie inside the volume form one range [innerBegin, innerEnd); the
// edges on either side clamp their taps.
struct AxisTaps {
  int count = 0;
  int extent = 0;             // source volume extent N on this axis
  int32_t* index = nullptr;   // nearest: source index, clamped; others: floor(s)
  float* frac = nullptr;      // linear, float paths: s - floor(s)
  uint32_t* fixed = nullptr;  // linear, 8-bit path: w0 | w1 << 16, 14 fractional bits
  float* weight[4] = {};      // four-tap codes: weights of taps i - 1 .. i + 2
  int innerBegin = 0;
  int innerEnd = 0;
  // End of the part of [innerBegin, innerEnd) whose vector loads stay inside
  // the line: 8- and 16-bit lines are read four bytes at a time, which may
  // reach past the last tap.
  int vectorEnd = 0;
};

// Fills `taps` (whose arrays are already carved) for one axis. elemSize is
// the voxel size in bytes; it decides how far vector loads read.
void buildAxisTaps(const ResizeAxis& axis, int code, int extent, bool fixedPoint, int elemSize,
                   AxisTaps* taps);

// One resize job: destination planes zFirst .. zFirst + zCount - 1 of the
// destination region (relative to its start).
struct ResizeJob {
  int elemSize = 0;  // 1: Vel8u, 2: Vel16u, 4: Vel32f
  int code = 0;

  // Source: V layout when srcPlanes is null. Steps in elements.
  const void* srcBase = nullptr;
  const void* const* srcPlanes = nullptr;
  ptrdiff_t srcLineStep = 0;
  ptrdiff_t srcPlaneStep = 0;
  int srcWidth = 0, srcHeight = 0, srcDepth = 0;

  // Destination, addressed like the source; (dx, dy, dz) is the region's
  // first voxel in absolute coordinates.
  void* dstBase = nullptr;
  void* const* dstPlanes = nullptr;
  ptrdiff_t dstLineStep = 0;
  ptrdiff_t dstPlaneStep = 0;
  int dx = 0, dy = 0, dz = 0;

  int zFirst = 0;
  int zCount = 0;

  AxisTaps x, y, z;

  // Intermediate planes (nx by ny, planeStride elements apart per line) and
  // lines; element type float, or int16 on the 8-bit linear path.
  void* planes[4] = {};
  ptrdiff_t planeStride = 0;
  void* lines[4] = {};

  // Large results: each destination row is produced in `row` (one line of
  // A16(W) floats) and streamed out with non-temporal stores.
  bool streamRows = false;
  void* row = nullptr;
};

// Bytes of work buffer a resize into a W x H x D destination region needs
// for one thread, before the alignment margin.
int64_t resizeWorkBytes(int W, int H, int D, int code);

// Carves the tap tables, planes and lines of `job` (whose axes' counts are
// set) out of `buffer`, which holds resizeWorkBytes(W, H, D, code) + 64
// bytes, and builds the tap tables.
void prepareResizeJob(const ResizeSetup& setup, int W, int H, int D, Vel8u* buffer, ResizeJob* job);

}  // namespace velr::vol
