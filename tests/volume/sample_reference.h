// A plain per-voxel reference of the remap and warp kernels, written from the
// rules rather than from the library's code: test volumes with scattered
// planes, the region test, and the nearest, two-tap and four-tap values.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "velr.h"
#include "volume/kernels.h"
#include "workloads/workloads.h"

namespace velr::test {

// Seeded test data.
using TestRng = velr::workloads::SplitMix64;
inline int below(TestRng& rng, int n) { return static_cast<int>(rng.next() % n); }

// A volume whose planes are separate allocations (so that nothing assumes
// evenly spaced planes), with padded lines. A negative line step stores the
// lines bottom up: the plane pointer is the last line's start.
template <class T>
struct TestVolume {
  int w = 0, h = 0, d = 0;
  int stepElems = 0;  // signed line step in elements
  std::vector<std::unique_ptr<T[]>> storage;
  std::vector<T*> planes;

  TestVolume(int w_, int h_, int d_, int pad = 3, bool bottomUp = false) : w(w_), h(h_), d(d_) {
    const int line = w + pad;
    stepElems = bottomUp ? -line : line;
    for (int z = 0; z < d; ++z) {
      storage.emplace_back(new T[static_cast<size_t>(line) * h]());
      T* p = storage.back().get();
      planes.push_back(bottomUp ? p + static_cast<ptrdiff_t>(h - 1) * line : p);
    }
  }
  int stepBytes() const { return stepElems * static_cast<int>(sizeof(T)); }
  T& at(int x, int y, int z) { return planes[z][static_cast<ptrdiff_t>(y) * stepElems + x]; }
  T at(int x, int y, int z) const { return planes[z][static_cast<ptrdiff_t>(y) * stepElems + x]; }
  const T* line(int y, int z) const { return planes[z] + static_cast<ptrdiff_t>(y) * stepElems; }
  const T* const* src() const { return const_cast<const T* const*>(planes.data()); }
  T* const* dst() { return planes.data(); }

  void fillRandom(TestRng& rng) {
    for (int z = 0; z < d; ++z)
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          if constexpr (sizeof(T) == 4) {
            at(x, y, z) = static_cast<T>(rng.uniform(-100.0, 300.0));
          } else {
            at(x, y, z) = static_cast<T>(rng.next() >> (64 - 8 * sizeof(T)));
          }
        }
  }
  void copyFrom(const TestVolume& o) {
    for (int z = 0; z < d; ++z)
      for (int y = 0; y < h; ++y) std::memcpy(&at(0, y, z), o.line(y, z), sizeof(T) * w);
  }
  bool sameAs(const TestVolume& o) const {
    for (int z = 0; z < d; ++z)
      for (int y = 0; y < h; ++y)
        if (std::memcmp(line(y, z), o.line(y, z), sizeof(T) * w) != 0) return false;
    return true;
  }
};

// Bitwise comparison; reports the first few differing voxels.
template <class T>
void expectSameVoxels(const TestVolume<T>& got, const TestVolume<T>& want,
                      const std::string& what) {
  int mismatches = 0;
  for (int z = 0; z < want.d; ++z)
    for (int y = 0; y < want.h; ++y)
      for (int x = 0; x < want.w; ++x) {
        const T g = got.at(x, y, z), w = want.at(x, y, z);
        if (std::memcmp(&g, &w, sizeof(T)) != 0 && ++mismatches <= 5)
          ADD_FAILURE() << what << " at (" << x << "," << y << "," << z << "): got " << +g
                        << " want " << +w;
      }
  EXPECT_EQ(mismatches, 0) << what;
}

// Inclusive source bounds; dims 2 ignores z.
struct RefBounds {
  int lo[3];
  int hi[3];
};

// Taps at index -1 (the zero-weight step back of a region ending at 0) read 0.
template <class T>
float refRead(const TestVolume<T>& v, int x, int y, int z) {
  if (x < 0 || y < 0 || z < 0) return 0.0f;
  return static_cast<float>(v.at(x, y, z));
}

// Two taps per axis from the integer parts i (truncations) and the float
// positions f.
template <class T>
float refLinear(const TestVolume<T>& v, const RefBounds& b, int dims, const int iIn[3],
                const float f[3]) {
  int i[3] = {0, 0, 0};
  float t[3] = {0, 0, 0};
  for (int a = 0; a < dims; ++a) {
    i[a] = iIn[a] == b.hi[a] ? b.hi[a] - 1 : iIn[a];
    t[a] = f[a] - static_cast<float>(i[a]);
  }
  float plane[2];
  for (int dz = 0; dz < (dims == 3 ? 2 : 1); ++dz) {
    float row[2];
    for (int dy = 0; dy < 2; ++dy) {
      const int y = i[1] + dy, z = i[2] + dz;
      row[dy] = refRead(v, i[0], y, z) * (1.0f - t[0]) + refRead(v, i[0] + 1, y, z) * t[0];
    }
    plane[dz] = row[0] * (1.0f - t[1]) + row[1] * t[1];
  }
  return dims == 3 ? plane[0] * (1.0f - t[2]) + plane[1] * t[2] : plane[0];
}

// The tap rule of the four-tap kernels, case by case.
inline void refTaps(int i, int last, int extent, int tap[4]) {
  if (i <= 0) {
    tap[0] = 0, tap[1] = 0, tap[2] = 1, tap[3] = 2;
  } else if (i == last - 1) {
    tap[0] = i - 1, tap[1] = i, tap[2] = i + 1, tap[3] = i + 1;
  } else if (i >= last) {
    tap[0] = i - 1, tap[1] = i, tap[2] = i, tap[3] = i;
  } else {
    tap[0] = i - 1, tap[1] = i, tap[2] = i + 1, tap[3] = i + 2;
  }
  for (int k = 0; k < 4; ++k) tap[k] = std::min(tap[k], extent - 1);
}

inline float refWeight(const float* table, float d) {
  const float u = std::min(d, 2.0f) * 100.0f;
  const int n = static_cast<int>(u);
  return table[n] + (table[n + 1] - table[n]) * (u - static_cast<float>(n));
}

template <class T>
float refCubic(const TestVolume<T>& v, const RefBounds& b, int dims, int code, const int i[3],
               const float f[3]) {
  const float* table = velr::vol::cubicWeightTable(code);
  const int extent[3] = {v.w, v.h, v.d};
  int tap[3][4] = {{0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}};
  float w[3][4] = {{1, 0, 0, 0}, {1, 0, 0, 0}, {1, 0, 0, 0}};
  for (int a = 0; a < dims; ++a) {
    refTaps(i[a], b.hi[a], extent[a], tap[a]);
    const float t = f[a] - static_cast<float>(i[a]);
    for (int k = 0; k < 4; ++k)
      w[a][k] = refWeight(table, std::fabs(static_cast<float>(k - 1) - t));
  }
  float col[4] = {0, 0, 0, 0};
  for (int c = 0; c < (dims == 3 ? 4 : 1); ++c) {
    float r[4];
    for (int q = 0; q < 4; ++q) {
      float s = 0.0f;
      for (int e = 0; e < 4; ++e) {
        const float p = w[0][e] * static_cast<float>(v.at(tap[0][e], tap[1][q], tap[2][c]));
        s = e == 0 ? p : s + p;
      }
      r[q] = s;
    }
    col[c] = ((w[1][0] * r[0] + w[1][1] * r[1]) + w[1][2] * r[2]) + w[1][3] * r[3];
  }
  return dims == 3 ? ((w[2][0] * col[0] + w[2][1] * col[1]) + w[2][2] * col[2]) + w[2][3] * col[3]
                   : col[0];
}

template <class T>
T refLinearVoxel(float v) {
  if constexpr (sizeof(T) == 4) {
    return v;
  } else {
    return static_cast<T>(std::lrint(v));
  }
}

template <class T>
T refCubicVoxel(float v) {
  if constexpr (sizeof(T) == 4) {
    return v;
  } else {
    const double limit = sizeof(T) == 1 ? 255.0 : 65535.0;
    const double d = std::trunc(static_cast<double>(v) + 0.5000001);
    return static_cast<T>(d < 0.0 ? 0.0 : (d > limit ? limit : d));
  }
}

// The code after lowering for a small source volume (volume path).
inline int loweredCode(int code, int w, int h, int d) {
  const int m = std::min({w, h, d});
  if (m >= 4) return code;
  if (code >= 4) code = 2;
  return m < 2 ? 1 : code;
}

// One voxel from integer parts (truncated, or rounded for code 1) and float
// positions; the caller has done the region test.
template <class T>
T refSample(const TestVolume<T>& v, const RefBounds& b, int dims, int code, const int i[3],
            const float f[3]) {
  if (code == VELR_INTER_NEAREST) return v.at(i[0], i[1], dims == 3 ? i[2] : 0);
  if (code == VELR_INTER_LINEAR) return refLinearVoxel<T>(refLinear(v, b, dims, i, f));
  return refCubicVoxel<T>(refCubic(v, b, dims, code, i, f));
}

}  // namespace velr::test
