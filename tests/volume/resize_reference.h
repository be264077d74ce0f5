// A per-voxel resize written straight from the documented formulas: no tap
// tables, no cached lines or planes, no vectors. The library's separable,
// cached and vectorised form must reproduce it exactly.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include "velr.h"
#include "volume/kernels.h"

namespace velr::test {

// Source coordinate of one destination coordinate along one axis.
struct AxisSample {
  int i;       // nearest: clamped source index; others: floor(s)
  double t;    // s - floor(s)
  int w0, w1;  // 14-bit weights of the 8-bit linear path
  bool edge;   // linear: both taps clamp to the same edge voxel
};

inline AxisSample sampleAxis(int v, double f, double h, int code, int n) {
  AxisSample a{};
  const double inv = 1.0 / f, off = -h / f;
  if (code == VELR_INTER_NEAREST) {
    int i = static_cast<int>((v + 0.5) * inv + off - 1e-10);
    a.i = i < 0 ? 0 : (i > n - 1 ? n - 1 : i);
    return a;
  }
  const double s = (v + 0.5) * inv + (off - 0.5);
  a.i = static_cast<int>(std::floor(s));
  a.t = s - std::floor(s);
  a.w1 = static_cast<int>(a.t * 16384 + 1e-7);
  a.w0 = 16384 - a.w1;
  a.edge = s < 0 || s >= n - 1;
  return a;
}

inline int clampTo(int i, int n) { return i < 0 ? 0 : (i > n - 1 ? n - 1 : i); }

// src(x, y, z) over the whole source volume (taps are clamped by the caller).
template <class T>
using VoxelFn = std::function<T(int, int, int)>;

template <class T>
T toVoxel(float v) {
  if constexpr (sizeof(T) == 4) {
    return v;
  } else {
    const double top = sizeof(T) == 1 ? 255 : 65535;
    const double r = std::trunc(static_cast<double>(v));
    return static_cast<T>(r < 0 ? 0 : (r > top ? top : r));
  }
}

// The 8-bit linear path in 14-bit fixed point, with its edge-plane and
// single-edge-line forms.
inline Vel8u linear8(const VoxelFn<Vel8u>& src, const int n[3], const AxisSample& ax,
                     const AxisSample& ay, const AxisSample& az) {
  using T = Vel8u;
  auto at = [&](int x, int y, int z) -> int {
    return src(clampTo(x, n[0]), clampTo(y, n[1]), clampTo(z, n[2]));
  };
  auto xi = [&](int y, int z) {  // 6 fractional bits
    return (at(ax.i, y, z) * ax.w0 + at(ax.i + 1, y, z) * ax.w1 + 128) >> 8;
  };
  auto sat = [](int v) { return static_cast<T>(v < 0 ? 0 : (v > 255 ? 255 : v)); };
  if (az.edge) {
    // An edge plane: x then y, rounded once; an edge line of it: x alone.
    const int z = clampTo(az.i, n[2]);
    if (ay.edge) {
      const int y = clampTo(ay.i, n[1]);
      return sat((at(ax.i, y, z) * ax.w0 + at(ax.i + 1, y, z) * ax.w1 + 8192) >> 14);
    }
    return sat((xi(ay.i, z) * ay.w0 + xi(ay.i + 1, z) * ay.w1 + 524288) >> 20);
  }
  auto plane = [&](int z) {
    if (ay.edge) return xi(clampTo(ay.i, n[1]), z);
    return (xi(ay.i, z) * ay.w0 + xi(ay.i + 1, z) * ay.w1 + 8192) >> 14;
  };
  return sat((plane(az.i) * az.w0 + plane(az.i + 1) * az.w1 + 524288) >> 20);
}

// Value of destination voxel (vx, vy, vz), absolute coordinates.
template <class T>
T referenceVoxel(const VoxelFn<T>& src, const int n[3], const double f[3], const double h[3],
                 int code, int vx, int vy, int vz) {
  const AxisSample ax = sampleAxis(vx, f[0], h[0], code, n[0]);
  const AxisSample ay = sampleAxis(vy, f[1], h[1], code, n[1]);
  const AxisSample az = sampleAxis(vz, f[2], h[2], code, n[2]);
  auto at = [&](int x, int y, int z) {
    return src(clampTo(x, n[0]), clampTo(y, n[1]), clampTo(z, n[2]));
  };

  if (code == VELR_INTER_NEAREST) return src(ax.i, ay.i, az.i);

  if constexpr (sizeof(T) == 1) {
    if (code == VELR_INTER_LINEAR) return linear8(src, n, ax, ay, az);
  }
  if (code == VELR_INTER_LINEAR) {
    const float tx = static_cast<float>(ax.t), ty = static_cast<float>(ay.t),
                tz = static_cast<float>(az.t);
    auto xl = [&](int y, int z) -> float {
      if (ax.edge) return static_cast<float>(at(ax.i, y, z));
      const float a = static_cast<float>(at(ax.i, y, z)),
                  b = static_cast<float>(at(ax.i + 1, y, z));
      return a + (b - a) * tx;
    };
    auto yl = [&](int z) -> float {
      if (ay.edge) return xl(clampTo(ay.i, n[1]), z);
      const float a = xl(ay.i, z), b = xl(ay.i + 1, z);
      return a + (b - a) * ty;
    };
    if (az.edge) return toVoxel<T>(yl(clampTo(az.i, n[2])));
    const float a = yl(az.i), b = yl(az.i + 1);
    return toVoxel<T>(a + (b - a) * tz);
  }

  float wx[4], wy[4], wz[4];
  velr::vol::cubicWeights(code, static_cast<float>(ax.t), wx);
  velr::vol::cubicWeights(code, static_cast<float>(ay.t), wy);
  velr::vol::cubicWeights(code, static_cast<float>(az.t), wz);
  auto sum4 = [](const float w[4], const float p[4]) {
    return (w[0] * p[0] + w[1] * p[1]) + (w[2] * p[2] + w[3] * p[3]);
  };
  float planes[4];
  for (int kz = 0; kz < 4; ++kz) {
    float lines[4];
    for (int ky = 0; ky < 4; ++ky) {
      float p[4];
      for (int kx = 0; kx < 4; ++kx)
        p[kx] = static_cast<float>(at(ax.i - 1 + kx, ay.i - 1 + ky, az.i - 1 + kz));
      lines[ky] = sum4(wx, p);
    }
    planes[kz] = sum4(wy, lines);
  }
  return toVoxel<T>(sum4(wz, planes));
}

}  // namespace velr::test
