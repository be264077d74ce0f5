#include "volume.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "error.h"
#include "nifti1.h"

namespace velr::demo {
namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// A library status other than success means the step produced nothing
// useful, warnings included (they say that nothing was written).
void require(VelStatus status, const char* call) {
  check(status, call);
  if (status != velStsNoErr)
    throw std::runtime_error(std::string(call) + " wrote nothing (status " +
                             std::to_string(status) + ")");
}

// ---------------------------------------------------------------- phantom

struct Ellipsoid {
  double centre[3];
  double axes[3];
  double degrees;  // rotation about z
  double value;    // added inside
};

// Nested ellipsoids in the manner of the classic head phantoms (skull,
// brain, two ventricles and a handful of small features) in [-1, 1]^3. The
// skull is kept well below the beads so that projections show what is
// inside it.
constexpr Ellipsoid kEllipsoids[] = {
    {{0, 0, 0}, {0.69, 0.92, 0.81}, 0, 0.6},
    {{0, -0.0184, 0}, {0.6624, 0.874, 0.78}, 0, -0.3},
    {{0.22, 0, 0}, {0.11, 0.31, 0.22}, -18, -0.18},
    {{-0.22, 0, 0}, {0.16, 0.41, 0.28}, 18, -0.18},
    {{0, 0.35, -0.15}, {0.21, 0.25, 0.41}, 0, 0.12},
    {{0, 0.1, 0.25}, {0.08, 0.08, 0.09}, 0, 0.2},
    {{0, -0.1, 0.25}, {0.08, 0.08, 0.09}, 0, 0.2},
    {{-0.08, -0.605, 0}, {0.046, 0.023, 0.05}, 0, 0.15},
    {{0, -0.606, 0}, {0.023, 0.023, 0.02}, 0, 0.15},
    {{0.06, -0.605, 0}, {0.023, 0.046, 0.02}, 0, 0.15},
};

// A helix of bright beads winding up through the brain: it shows the
// rotation and the swirl clearly in the projections.
constexpr int kBeads = 14;
constexpr double kBeadRadius = 0.045;

struct Phantom {
  double cosine[std::size(kEllipsoids)], sine[std::size(kEllipsoids)];
  double bead[kBeads][3];

  Phantom() {
    for (std::size_t e = 0; e < std::size(kEllipsoids); ++e) {
      cosine[e] = std::cos(kEllipsoids[e].degrees * M_PI / 180.0);
      sine[e] = std::sin(kEllipsoids[e].degrees * M_PI / 180.0);
    }
    for (int b = 0; b < kBeads; ++b) {
      const double f = double(b) / (kBeads - 1), a = 2.2 * M_PI * f;
      bead[b][0] = 0.38 * std::cos(a);
      bead[b][1] = 0.38 * std::sin(a) - 0.05;
      bead[b][2] = -0.5 + f;
    }
  }

  double at(double x, double y, double z) const {
    double v = 0.0;
    for (std::size_t e = 0; e < std::size(kEllipsoids); ++e) {
      const Ellipsoid& el = kEllipsoids[e];
      const double dx = x - el.centre[0], dy = y - el.centre[1], dz = z - el.centre[2];
      const double u = (cosine[e] * dx + sine[e] * dy) / el.axes[0];
      const double w = (-sine[e] * dx + cosine[e] * dy) / el.axes[1];
      const double t = dz / el.axes[2];
      if (u * u + w * w + t * t <= 1.0) v += el.value;
    }
    for (const auto& b : bead) {
      const double d2 = (x - b[0]) * (x - b[0]) + (y - b[1]) * (y - b[1]) + (z - b[2]) * (z - b[2]);
      if (d2 <= kBeadRadius * kBeadRadius) v = 1.0;
    }
    return std::clamp(v, 0.0, 1.0);
  }
};

// ---------------------------------------------------------------- NIfTI-1

std::uint32_t swap32(std::uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}
template <class T>
void swapBytes(T& value) {
  unsigned char b[sizeof(T)];
  std::memcpy(b, &value, sizeof(T));
  std::reverse(b, b + sizeof(T));
  std::memcpy(&value, b, sizeof(T));
}

template <class T>
void convert(const unsigned char* data, std::size_t count, bool swapped, float* out) {
  for (std::size_t i = 0; i < count; ++i) {
    T v;
    std::memcpy(&v, data + i * sizeof(T), sizeof(T));
    if (swapped) swapBytes(v);
    out[i] = static_cast<float>(v);
  }
}

// ---------------------------------------------------------------- views

// Bilinear look-up in a w x h float image held by a function.
template <class Fn>
float sample(Fn&& at, int w, int h, float x, float y) {
  x = std::clamp(x, 0.0f, float(w - 1));
  y = std::clamp(y, 0.0f, float(h - 1));
  const int x0 = std::min(int(x), w - 1), y0 = std::min(int(y), h - 1);
  const int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
  const float fx = x - x0, fy = y - y0;
  const float top = at(x0, y0) + (at(x1, y0) - at(x0, y0)) * fx;
  const float bottom = at(x0, y1) + (at(x1, y1) - at(x0, y1)) * fx;
  return top + (bottom - top) * fy;
}

// Draws a w x h slice into a panel x panel square, keeping its aspect and
// centring it; `at(u, v)` gives the value at column u, row v (row 0 on top).
template <class Fn>
Image panelOf(Fn&& at, int w, int h, int panel) {
  Image img(panel, panel, 1, 0);
  const float scale = std::min(float(panel) / w, float(panel) / h);
  const int pw = std::max(1, int(std::lround(w * scale))), ph = std::max(1, int(std::lround(h * scale)));
  const int ox = (panel - pw) / 2, oy = (panel - ph) / 2;
  for (int py = 0; py < ph; ++py)
    for (int px = 0; px < pw; ++px) {
      const float v = sample(at, w, h, (px + 0.5f) / scale - 0.5f, (py + 0.5f) / scale - 0.5f);
      img.at(ox + px, oy + py)[0] =
          static_cast<std::uint8_t>(std::clamp(v, 0.0f, 1.0f) * 255.0f + 0.5f);
    }
  return img;
}

}  // namespace

std::vector<const float*> Volume::planes() const {
  std::vector<const float*> p(depth);
  for (int z = 0; z < depth; ++z) p[z] = plane(z);
  return p;
}

std::vector<float*> Volume::planes() {
  std::vector<float*> p(depth);
  for (int z = 0; z < depth; ++z) p[z] = plane(z);
  return p;
}

Volume makePhantom(int n) {
  const Phantom phantom;
  Volume v(n, n, n);
#pragma omp parallel for schedule(static)
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        auto world = [n](int i) { return 2.0 * (i + 0.5) / n - 1.0; };
        v.plane(z)[std::size_t(y) * n + x] = static_cast<float>(phantom.at(world(x), world(y), world(z)));
      }
  return v;
}

Volume readNifti(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw UserError("volume file '" + path + "' is a directory");
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) throw UserError("cannot open volume file '" + path + "'");
  const std::streamoff fileSize = in.tellg();
  in.seekg(0);
  unsigned char magic2[2] = {0, 0};
  if (fileSize >= 2) in.read(reinterpret_cast<char*>(magic2), 2);
  if (magic2[0] == 0x1F && magic2[1] == 0x8B)
    throw UserError("'" + path + "' is compressed; decompress it first (gunzip)");
  if (fileSize < std::streamoff(sizeof(nifti_1_header)))
    throw UserError("'" + path + "' is too short for a NIfTI-1 header");
  static_assert(sizeof(nifti_1_header) == 348);
  nifti_1_header hdr;
  in.seekg(0);
  in.read(reinterpret_cast<char*>(&hdr), sizeof(hdr));
  if (!in) throw UserError("cannot read the header of '" + path + "'");

  bool swapped = false;
  if (hdr.sizeof_hdr != 348) {
    if (swap32(std::uint32_t(hdr.sizeof_hdr)) != 348u)
      throw UserError("'" + path + "' is not a NIfTI-1 file");
    swapped = true;
    for (short& d : hdr.dim) swapBytes(d);
    swapBytes(hdr.datatype);
    swapBytes(hdr.vox_offset);
    swapBytes(hdr.scl_slope);
    swapBytes(hdr.scl_inter);
  }
  if (std::memcmp(hdr.magic, "ni1", 4) == 0)
    throw UserError("'" + path + "' is a header of a .hdr/.img pair; only single .nii files are read");
  if (std::memcmp(hdr.magic, "n+1", 4) != 0)
    throw UserError("'" + path + "' is not a NIfTI-1 file (bad magic)");
  if (hdr.dim[0] < 3 || hdr.dim[0] > 7)
    throw UserError("'" + path + "' is not a 3-D volume (" + std::to_string(hdr.dim[0]) + " dimensions)");
  const int w = hdr.dim[1], h = hdr.dim[2], d = hdr.dim[3];
  if (w < 4 || h < 4 || d < 4)
    throw UserError("'" + path + "' is too small: the volume steps need at least 4 voxels along each axis");
  if (w > 1024 || h > 1024 || d > 1024 || double(w) * h * d > 512.0 * 512 * 512)
    throw UserError("'" + path + "' is too large for the demo (at most 512^3 voxels)");

  std::size_t bytes = 0;
  switch (hdr.datatype) {
    case NIFTI_TYPE_UINT8: case NIFTI_TYPE_INT8: bytes = 1; break;
    case NIFTI_TYPE_INT16: case NIFTI_TYPE_UINT16: bytes = 2; break;
    case NIFTI_TYPE_INT32: case NIFTI_TYPE_UINT32: case NIFTI_TYPE_FLOAT32: bytes = 4; break;
    case NIFTI_TYPE_FLOAT64: bytes = 8; break;
    default:
      throw UserError("'" + path + "' has voxel type " + std::to_string(hdr.datatype) +
                      ", which the demo does not read");
  }
  const std::size_t count = std::size_t(w) * h * d;
  const double offset = hdr.vox_offset;
  if (!(offset >= 348.0) || double(offset) + double(count * bytes) > double(fileSize))
    throw UserError("'" + path + "' is truncated or its data offset is invalid");
  std::vector<unsigned char> data(count * bytes);
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(reinterpret_cast<char*>(data.data()), std::streamsize(data.size()));
  if (!in) throw UserError("cannot read the voxels of '" + path + "'");

  Volume v(w, h, d);
  float* out = v.voxels.data();
  switch (hdr.datatype) {
    case NIFTI_TYPE_UINT8: convert<std::uint8_t>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_INT8: convert<std::int8_t>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_INT16: convert<std::int16_t>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_UINT16: convert<std::uint16_t>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_INT32: convert<std::int32_t>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_UINT32: convert<std::uint32_t>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_FLOAT32: convert<float>(data.data(), count, swapped, out); break;
    case NIFTI_TYPE_FLOAT64: convert<double>(data.data(), count, swapped, out); break;
  }
  // Intensity scaling of the file (a slope of 0 means none), then a window
  // from the minimum to a high percentile, so one hot voxel does not turn
  // everything else black.
  const bool scaled = std::isfinite(hdr.scl_slope) && hdr.scl_slope != 0.0f;
  std::vector<float> sample;
  const std::size_t stride = std::max<std::size_t>(1, count / 1000000);
  for (std::size_t i = 0; i < count; ++i) {
    float& x = out[i];
    if (scaled) x = x * hdr.scl_slope + (std::isfinite(hdr.scl_inter) ? hdr.scl_inter : 0.0f);
    if (!std::isfinite(x)) x = 0.0f;
    if (i % stride == 0) sample.push_back(x);
  }
  const float lo = *std::min_element(sample.begin(), sample.end());
  const std::size_t k = std::min(sample.size() - 1, sample.size() * 998 / 1000);
  std::nth_element(sample.begin(), sample.begin() + k, sample.end());
  const float hi = std::max(sample[k], lo);
  const float range = hi > lo ? hi - lo : 1.0f;
  for (std::size_t i = 0; i < count; ++i) out[i] = std::clamp((out[i] - lo) / range, 0.0f, 1.0f);
  return v;
}

Volume resizeCubic(const Volume& src, double factor, double* callMs) {
  const int code = VELR_INTER_CATMULL_ROM;
  VelrCuboid dstRoi{};
  require(velrGetResizeCuboid(src.whole(), &dstRoi, factor, factor, factor, 0, 0, 0, code),
          "velrGetResizeCuboid");
  Volume dst(dstRoi.x + dstRoi.width, dstRoi.y + dstRoi.height, dstRoi.z + dstRoi.depth);
  int size = 0;
  check(velrResizeGetBufSize(src.whole(), dstRoi, 1, code, &size), "velrResizeGetBufSize");
  AlignedVector<Vel8u> buffer(std::max(size, 1));
  const auto t0 = Clock::now();
  require(velrResize_32f_C1V(src.voxels.data(), src.extent(), src.lineStep(), src.planeStep(),
                             src.whole(), dst.voxels.data(), dst.lineStep(), dst.planeStep(), dstRoi,
                             factor, factor, factor, 0, 0, 0, code, buffer.data()),
          "velrResize_32f_C1V");
  *callMs = msSince(t0);
  return dst;
}

Volume rotate(const Volume& src, double degreesAboutZ, double degreesAboutX, double* callMs) {
  const double az = degreesAboutZ * M_PI / 180.0, ax = degreesAboutX * M_PI / 180.0;
  const double rz[3][3] = {{std::cos(az), -std::sin(az), 0}, {std::sin(az), std::cos(az), 0}, {0, 0, 1}};
  const double rx[3][3] = {{1, 0, 0}, {0, std::cos(ax), -std::sin(ax)}, {0, std::sin(ax), std::cos(ax)}};
  const double c[3] = {(src.width - 1) / 2.0, (src.height - 1) / 2.0, (src.depth - 1) / 2.0};
  // Forward transform: destination = R (source - c) + c with R = Rx Rz.
  Vel64f coeffs[3][4];
  for (int r = 0; r < 3; ++r) {
    double shift = c[r];
    for (int k = 0; k < 3; ++k) {
      double m = 0;
      for (int j = 0; j < 3; ++j) m += rx[r][j] * rz[j][k];
      coeffs[r][k] = m;
      shift -= m * c[k];
    }
    coeffs[r][3] = shift;
  }
  const int code = VELR_INTER_LINEAR;
  int size = 0;
  check(velrWarpAffineGetBufSize(src.whole(), src.whole(), 1, code, &size), "velrWarpAffineGetBufSize");
  AlignedVector<Vel8u> buffer(std::max(size, 1));
  // Voxels whose source position falls outside the volume are left as they
  // are: start from background.
  Volume dst(src.width, src.height, src.depth, 0.0f);
  const auto srcPlanes = src.planes();
  const auto dstPlanes = dst.planes();
  const auto t0 = Clock::now();
  require(velrWarpAffine_32f_C1PV(srcPlanes.data(), src.extent(), src.lineStep(), src.whole(),
                                  dstPlanes.data(), dst.lineStep(), dst.whole(), coeffs, code,
                                  buffer.data()),
          "velrWarpAffine_32f_C1PV");
  *callMs = msSince(t0);
  return dst;
}

Volume swirl(const Volume& src, double maxDegrees, double* callMs) {
  // Each voxel samples the source at its own position turned about the
  // volume's vertical axis; the angle is largest on the axis at mid-height
  // and fades smoothly to nothing at the rim and at the top and bottom.
  const int w = src.width, h = src.height, d = src.depth;
  Volume mx(w, h, d), my(w, h, d), mz(w, h, d);
  const double cx = (w - 1) / 2.0, cy = (h - 1) / 2.0;
  const double radius = 0.5 * std::min(w, h);
  const double maxAngle = maxDegrees * M_PI / 180.0;
#pragma omp parallel for schedule(static)
  for (int z = 0; z < d; ++z) {
    const double along = d > 1 ? std::sin(M_PI * z / (d - 1)) : 1.0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const double dx = x - cx, dy = y - cy;
        const double r = std::sqrt(dx * dx + dy * dy) / radius;
        const double fade = r < 1.0 ? (1.0 - r) * (1.0 - r) : 0.0;
        const double a = maxAngle * along * fade;
        const std::size_t i = std::size_t(z) * w * h + std::size_t(y) * w + x;
        mx.voxels[i] = static_cast<float>(cx + std::cos(a) * dx - std::sin(a) * dy);
        my.voxels[i] = static_cast<float>(cy + std::sin(a) * dx + std::cos(a) * dy);
        mz.voxels[i] = static_cast<float>(z);
      }
  }
  Volume dst(w, h, d, 0.0f);
  const auto srcPlanes = src.planes();
  const auto dstPlanes = dst.planes();
  const auto xPlanes = std::as_const(mx).planes(), yPlanes = std::as_const(my).planes(),
             zPlanes = std::as_const(mz).planes();
  const auto t0 = Clock::now();
  require(velrRemap_32f_C1PV(srcPlanes.data(), src.extent(), src.lineStep(), src.whole(),
                             xPlanes.data(), yPlanes.data(), zPlanes.data(), mx.lineStep(),
                             dstPlanes.data(), dst.lineStep(), dst.extent(), VELR_INTER_LINEAR),
          "velrRemap_32f_C1PV");
  *callMs = msSince(t0);
  return dst;
}

Volume smooth(const Volume& src, double* callMs) {
  // The filter works on 16-bit voxels and reads one voxel beyond each face,
  // so the volume is quantised into a copy with a replicated one-voxel border.
  constexpr float kScale = 16000.0f;
  const int w = src.width, h = src.height, d = src.depth;
  const int pw = w + 2, ph = h + 2, pd = d + 2;
  AlignedVector<Vel16s> padded(std::size_t(pw) * ph * pd);
  for (int z = 0; z < pd; ++z)
    for (int y = 0; y < ph; ++y)
      for (int x = 0; x < pw; ++x) {
        const float v = src.at(std::clamp(x - 1, 0, w - 1), std::clamp(y - 1, 0, h - 1),
                               std::clamp(z - 1, 0, d - 1));
        padded[(std::size_t(z) * ph + y) * pw + x] =
            static_cast<Vel16s>(std::clamp(std::lround(v * kScale), -32768L, 32767L));
      }
  // Plane pointers address voxel (0, 0) of each padded plane's interior;
  // entry -1 of the array passed is the border plane below the first.
  std::vector<const Vel16s*> srcPlanes(pd);
  for (int z = 0; z < pd; ++z) srcPlanes[z] = padded.data() + (std::size_t(z) * ph + 1) * pw + 1;
  AlignedVector<Vel16s> out(std::size_t(w) * h * d);
  std::vector<Vel16s*> dstPlanes(d);
  for (int z = 0; z < d; ++z) dstPlanes[z] = out.data() + std::size_t(z) * w * h;

  // Binomial 1-2-1 weights along each axis: 27 taps summing to 64.
  Vel32s kernel[27];
  const int k1[3] = {1, 2, 1};
  for (int z = 0; z < 3; ++z)
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 3; ++x) kernel[(z * 3 + y) * 3 + x] = k1[x] * k1[y] * k1[z];
  const VelrVolume roi{w, h, d}, kernelSize{3, 3, 3};
  int size = 0;
  check(velrFilterGetBufSize(roi, kernelSize, 1, &size), "velrFilterGetBufSize");
  AlignedVector<Vel8u> buffer(std::max(size, 1));
  const auto t0 = Clock::now();
  require(velrFilter_16s_C1PV(srcPlanes.data() + 1, pw * int(sizeof(Vel16s)), dstPlanes.data(),
                              w * int(sizeof(Vel16s)), roi, kernel, kernelSize, VelrPoint{1, 1, 1},
                              64, buffer.data()),
          "velrFilter_16s_C1PV");
  *callMs = msSince(t0);
  Volume dst(w, h, d);
  for (std::size_t i = 0; i < out.size(); ++i) dst.voxels[i] = out[i] / kScale;
  return dst;
}

Image viewRow(const Volume& v, int panel) {
  const int w = v.width, h = v.height, d = v.depth;
  const int zc = d / 2, yc = h / 2, xc = w / 2;
  // Rows run from the top of the picture: y and z grow upwards.
  const Image axial = panelOf([&](int u, int r) { return v.at(u, h - 1 - r, zc); }, w, h, panel);
  const Image coronal = panelOf([&](int u, int r) { return v.at(u, yc, d - 1 - r); }, w, d, panel);
  const Image sagittal = panelOf([&](int u, int r) { return v.at(xc, u, d - 1 - r); }, h, d, panel);
  std::vector<float> mip(std::size_t(w) * h, 0.0f);
  for (int z = 0; z < d; ++z)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        float& m = mip[std::size_t(y) * w + x];
        m = std::max(m, v.at(x, y, z));
      }
  const Image projection =
      panelOf([&](int u, int r) { return mip[std::size_t(h - 1 - r) * w + u]; }, w, h, panel);
  constexpr int kGap = 4;
  Image row(4 * panel + 3 * kGap, panel, 1, 0);
  int x = 0;
  for (const Image* p : {&axial, &coronal, &sagittal, &projection}) {
    blit(row, *p, x, 0);
    x += panel + kGap;
  }
  return row;
}

Image montage(const std::vector<Image>& rows, const std::vector<std::string>& captions, int panel) {
  constexpr int kMargin = 8, kCaption = 14, kGap = 4;
  const int width = 4 * panel + 3 * kGap + 2 * kMargin;
  int height = kMargin + kCaption;
  for (const Image& r : rows) height += kCaption + r.height + kGap;
  height += kMargin - kGap;
  Image img(width, height, 1, 24);
  const char* headers[4] = {"axial (xy)", "coronal (xz)", "sagittal (yz)", "max. projection (z)"};
  for (int c = 0; c < 4; ++c) drawText(img, kMargin + c * (panel + kGap) + 2, kMargin, headers[c], 160);
  int y = kMargin + kCaption;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    drawText(img, kMargin + 2, y + 2, i < captions.size() ? captions[i] : "", 235);
    y += kCaption;
    blit(img, rows[i], kMargin, y);
    y += rows[i].height + kGap;
  }
  return img;
}

}  // namespace velr::demo
