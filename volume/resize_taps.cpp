// Per-axis tap tables of a resize and the carving of the caller's work
// buffer. Everything here runs once per call (or per slab), never per voxel.
#include <climits>
#include <cmath>
#include <cstdint>

#include "volume/kernels.h"
#include "volume/resize_job.h"

namespace velr::vol {

namespace {

constexpr int64_t a16(int64_t n) { return (n + 15) & ~int64_t{15}; }
constexpr int64_t a64(int64_t n) { return (n + 63) & ~int64_t{63}; }

// Elements that the vector loads of one destination coordinate read,
// starting at its lowest tap: 8- and 16-bit voxels are fetched as 32-bit
// words, so a nearest or linear 8-bit fetch reads up to three voxels beyond
// its taps.
int loadWidth(int code, int elemSize) {
  if (code == VELR_INTER_NEAREST) return 4 / elemSize;
  if (code == VELR_INTER_LINEAR) return elemSize == 1 ? 4 : 2;
  return 4;
}

// Hands out consecutive sub-arrays. Every size the buffer formula adds up is
// a multiple of 64 bytes, so aligning the start once keeps each sub-array on
// a 64-byte boundary, and the one alignment fits in the formula's margin.
class Carver {
 public:
  explicit Carver(Vel8u* p)
      : p_(reinterpret_cast<Vel8u*>((reinterpret_cast<uintptr_t>(p) + 63) & ~uintptr_t{63})) {}
  Vel8u* take(int64_t bytes) {
    Vel8u* r = p_;
    p_ += bytes;
    return r;
  }

 private:
  Vel8u* p_;
};

}  // namespace

int64_t resizeWorkBytes(int W, int H, int D, int code) {
  // Unsigned: extents near INT_MAX on two axes overflow even 64 bits, and the
  // size query reports the formula's value modulo 2^32 anyway, which
  // wrapping arithmetic keeps exact; real buffers are far below the limit.
  const uint64_t w = static_cast<uint64_t>(W), h = static_cast<uint64_t>(H),
                 d = static_cast<uint64_t>(D);
  auto u16 = [](uint64_t n) { return (n + 15) & ~uint64_t{15}; };
  auto u64 = [](uint64_t n) { return (n + 63) & ~uint64_t{63}; };
  const uint64_t tables = 4 * (u16(w) + u16(h) + u16(d));
  if (code == VELR_INTER_NEAREST) return static_cast<int64_t>(tables);
  const uint64_t t = tables + 4 * (u64(w) + u64(h) + u64(d));
  if (code == VELR_INTER_LINEAR)
    return static_cast<int64_t>(t + 8 * h * u64(w) + 4 * (u64(2 * w + 64) + u64(8 * (w + h) + 64)));
  // The 4W term appears twice on purpose: the size is part of the contract.
  return static_cast<int64_t>(
      t + 16 * h * u64(w) +
      4 * (u64(128 * (w + h) + 192) + u64(4 * w + 192) + u64(4 * w + 192) + u64(4 * h + 192) +
           u64(4 * d + 192)));
}

void buildAxisTaps(const ResizeAxis& axis, int code, int extent, bool fixedPoint, int elemSize,
                   AxisTaps* taps) {
  const int n = axis.count();
  const int last = extent - 1;
  taps->count = n;
  taps->extent = extent;
  const double base = axis.off - 0.5;
  for (int v = 0; v < n; ++v) {
    const double c = static_cast<double>(axis.begin + v) + 0.5;
    if (code == VELR_INTER_NEAREST) {
      // No -0.5 here: the cell [i, i + 1) containing the image of the
      // centre; the bias sends an image exactly on a cell boundary down.
      taps->index[v] = clampIndex(truncToInt(c * axis.inv + axis.off - 1e-10), extent);
      continue;
    }
    const double s = c * axis.inv + base;
    const double fl = std::floor(s);
    const double t = s - fl;
    // Indices far outside the volume clamp to the same edge voxels; bounding
    // them keeps i - 1 .. i + 2 free of overflow for absurd shifts.
    int i = truncToInt(fl);
    if (i < -4) i = -4;
    if (i > last + 4) i = last + 4;
    taps->index[v] = i;
    if (code == VELR_INTER_LINEAR) {
      if (fixedPoint) {
        const uint32_t w1 = static_cast<uint32_t>(truncToInt(t * 16384.0 + 1e-7)) & 0xFFFFu;
        taps->fixed[v] = ((16384u - w1) & 0xFFFFu) | (w1 << 16);
      } else {
        taps->frac[v] = static_cast<float>(t);
      }
    } else {
      float w[4];
      cubicWeights(code, static_cast<float>(t), w);
      for (int k = 0; k < 4; ++k) taps->weight[k][v] = w[k];
    }
  }

  if (code == VELR_INTER_NEAREST) {
    taps->innerBegin = 0;
    taps->innerEnd = n;
  } else {
    // Inner: every tap inside 0 .. last (i .. i + 1, or i - 1 .. i + 2).
    const int lowest = code == VELR_INTER_LINEAR ? 0 : 1;
    const int highest = code == VELR_INTER_LINEAR ? last - 1 : last - 2;
    int b = 0;
    while (b < n && taps->index[b] < lowest) ++b;
    int e = b;
    while (e < n && taps->index[e] <= highest) ++e;
    taps->innerBegin = b;
    taps->innerEnd = e;
  }
  const int firstTap = code == VELR_INTER_NEAREST || code == VELR_INTER_LINEAR ? 0 : -1;
  const int reach = firstTap + loadWidth(code, elemSize) - 1;
  int e = taps->innerBegin;
  // Byte offsets of the 32-bit fetches are int: lines too long for them stay
  // on the scalar path.
  if (static_cast<int64_t>(extent) * elemSize < INT_MAX - 64)
    while (e < taps->innerEnd && taps->index[e] + reach <= last) ++e;
  taps->vectorEnd = e;
}

void prepareResizeJob(const ResizeSetup& setup, int W, int H, int D, Vel8u* buffer,
                      ResizeJob* job) {
  const int code = job->code;
  const int64_t w = W, h = H, d = D;
  Carver carve(buffer);
  AxisTaps* axes[3] = {&job->x, &job->y, &job->z};
  const int64_t len[3] = {w, h, d};
  const int extent[3] = {job->srcWidth, job->srcHeight, job->srcDepth};
  for (int k = 0; k < 3; ++k)
    axes[k]->index = reinterpret_cast<int32_t*>(carve.take(4 * a16(len[k])));

  if (code == VELR_INTER_LINEAR) {
    const bool fixedPoint = job->elemSize == 1;
    for (int k = 0; k < 3; ++k) {
      Vel8u* p = carve.take(4 * a64(len[k]));
      if (fixedPoint)
        axes[k]->fixed = reinterpret_cast<uint32_t*>(p);
      else
        axes[k]->frac = reinterpret_cast<float*>(p);
    }
    job->planeStride = a64(w);
    Vel8u* planes = carve.take(8 * h * a64(w));
    for (int k = 0; k < 2; ++k) job->planes[k] = planes + k * 4 * h * a64(w);
    Vel8u* lines = carve.take(4 * a64(2 * w + 64));
    for (int k = 0; k < 2; ++k) job->lines[k] = lines + k * 4 * a16(w);
    job->row = carve.take(4 * a64(8 * (w + h) + 64));
  } else if (code != VELR_INTER_NEAREST) {
    carve.take(4 * (a64(w) + a64(h) + a64(d)));  // fractions: the weights replace them
    job->planeStride = a64(w);
    Vel8u* planes = carve.take(16 * h * a64(w));
    for (int k = 0; k < 4; ++k) job->planes[k] = planes + k * 4 * h * a64(w);
    Vel8u* xy = carve.take(4 * a64(128 * (w + h) + 192));
    for (int k = 0; k < 4; ++k) {
      job->x.weight[k] = reinterpret_cast<float*>(xy + k * 4 * a16(w));
      job->y.weight[k] = reinterpret_cast<float*>(xy + 16 * a16(w) + k * 4 * a16(h));
    }
    Vel8u* lines = carve.take(4 * a64(4 * w + 192));
    for (int k = 0; k < 4; ++k) job->lines[k] = lines + k * 4 * a16(w);
    job->row = carve.take(4 * a64(4 * w + 192));
    carve.take(4 * a64(4 * h + 192));
    Vel8u* zw = carve.take(4 * a64(4 * d + 192));
    for (int k = 0; k < 4; ++k) job->z.weight[k] = reinterpret_cast<float*>(zw + k * 4 * a16(d));
  }

  for (int k = 0; k < 3; ++k)
    buildAxisTaps(setup.axis[k], code, extent[k], job->elemSize == 1, job->elemSize, axes[k]);
}

}  // namespace velr::vol
