// Volume jobs: every resize variant from one shared source per element
// type, each job with its own destination and work buffer.
#include "tests/reliability/jobs.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace velr::reliability {
namespace {

constexpr int kSrc = 22;  // source extent along every axis
constexpr int kDst = 20;  // destination extent: 16 or more, so the float path splits

template <class T>
struct Source {
  std::vector<T> voxels;
  std::vector<const T*> planes;
  int step = kSrc * static_cast<int>(sizeof(T));
  int planeStep = kSrc * kSrc * static_cast<int>(sizeof(T));

  Source() {
    const std::vector<double> content = workloads::volumeContent(kSrc, 5 + sizeof(T));
    for (double v : content)
      voxels.push_back(sizeof(T) == 4 ? static_cast<T>(v) : static_cast<T>(v * (sizeof(T) == 1 ? 255 : 65535)));
    for (int z = 0; z < kSrc; ++z) planes.push_back(voxels.data() + static_cast<size_t>(z) * kSrc * kSrc);
  }
};

template <class T>
const Source<T>& source() {
  static const Source<T> s;
  return s;
}

template <class T>
Bytes resizeJob(bool planar, int code, double factor, double shift) {
  const Source<T>& s = source<T>();
  const VelrVolume vol{kSrc, kSrc, kSrc};
  const VelrCuboid srcRoi{1, 0, 2, kSrc - 1, kSrc, kSrc - 2};
  const VelrCuboid dstRoi{0, 1, 0, kDst, kDst - 1, kDst};
  Bytes out;
  int size = 0;
  out.status(velrResizeGetBufSize(srcRoi, dstRoi, 1, code, &size));
  std::vector<Vel8u> buffer(static_cast<size_t>(size));
  const int dstStep = kDst * static_cast<int>(sizeof(T)), dstPlane = kDst * dstStep;
  std::vector<T> dst(static_cast<size_t>(kDst) * kDst * kDst, T(7));
  std::vector<T*> planes;
  for (int z = 0; z < kDst; ++z) planes.push_back(dst.data() + static_cast<size_t>(z) * kDst * kDst);
  const double f = factor, h = shift;
  VelStatus st;
  if constexpr (sizeof(T) == 1) {
    st = planar ? velrResize_8u_C1PV(s.planes.data(), vol, s.step, srcRoi, planes.data(), dstStep,
                                     dstRoi, f, f * 1.1, f * 0.9, h, -h, h / 2, code, buffer.data())
                : velrResize_8u_C1V(s.voxels.data(), vol, s.step, s.planeStep, srcRoi, dst.data(),
                                    dstStep, dstPlane, dstRoi, f, f * 1.1, f * 0.9, h, -h, h / 2,
                                    code, buffer.data());
  } else if constexpr (sizeof(T) == 2) {
    st = planar ? velrResize_16u_C1PV(s.planes.data(), vol, s.step, srcRoi, planes.data(),
                                      dstStep, dstRoi, f, f * 1.1, f * 0.9, h, -h, h / 2, code,
                                      buffer.data())
                : velrResize_16u_C1V(s.voxels.data(), vol, s.step, s.planeStep, srcRoi,
                                     dst.data(), dstStep, dstPlane, dstRoi, f, f * 1.1, f * 0.9,
                                     h, -h, h / 2, code, buffer.data());
  } else {
    st = planar ? velrResize_32f_C1PV(s.planes.data(), vol, s.step, srcRoi, planes.data(),
                                      dstStep, dstRoi, f, f * 1.1, f * 0.9, h, -h, h / 2, code,
                                      buffer.data())
                : velrResize_32f_C1V(s.voxels.data(), vol, s.step, s.planeStep, srcRoi,
                                     dst.data(), dstStep, dstPlane, dstRoi, f, f * 1.1, f * 0.9,
                                     h, -h, h / 2, code, buffer.data());
  }
  out.status(st);
  out.add(dst);
  return out;
}

template <class T>
void addResize(std::vector<Job>& jobs, const char* type) {
  source<T>();
  for (bool planar : {false, true})
    for (int code : {1, 2, 4, 5, 6, 7}) {
      const double factor = 0.75 + 0.1 * code, shift = 0.25 * code - 1;
      jobs.push_back({std::string("resize ") + type + (planar ? " PV" : " V") + " code " +
                          std::to_string(code),
                      [=] { return resizeJob<T>(planar, code, factor, shift); },
                      sizeof(T) == 4 && !planar});
    }
}

// Coordinate volumes for remap: a rotation about the z axis with a little
// scaling, some positions falling outside the source region.
struct Maps {
  std::vector<float> x, y, z;
  std::vector<const float*> px, py, pz;
  Maps() {
    const size_t n = static_cast<size_t>(kDst) * kDst * kDst;
    x.resize(n);
    y.resize(n);
    z.resize(n);
    for (int k = 0; k < kDst; ++k)
      for (int j = 0; j < kDst; ++j)
        for (int i = 0; i < kDst; ++i) {
          const size_t at = (static_cast<size_t>(k) * kDst + j) * kDst + i;
          x[at] = 0.9f * i - 0.3f * j + 3.2f;
          y[at] = 0.3f * i + 0.9f * j - 1.7f;
          z[at] = 1.05f * k + 0.01f * i - 0.4f;
        }
    for (int k = 0; k < kDst; ++k) {
      const size_t at = static_cast<size_t>(k) * kDst * kDst;
      px.push_back(x.data() + at);
      py.push_back(y.data() + at);
      pz.push_back(z.data() + at);
    }
  }
};

const Maps& maps() {
  static const Maps m;
  return m;
}

template <class T>
Bytes remapJob(int code, bool warp) {
  const Source<T>& s = source<T>();
  const VelrVolume vol{kSrc, kSrc, kSrc};
  const VelrCuboid srcRoi{1, 2, 0, kSrc - 2, kSrc - 3, kSrc};
  const int dstStep = kDst * static_cast<int>(sizeof(T));
  std::vector<T> dst(static_cast<size_t>(kDst) * kDst * kDst, T(3));
  std::vector<T*> planes;
  for (int z = 0; z < kDst; ++z) planes.push_back(dst.data() + static_cast<size_t>(z) * kDst * kDst);
  Bytes out;
  if (warp) {
    const double c[3][4] = {{0.95, 0.28, 0.0, -2.5}, {-0.3, 0.96, 0.05, 1.25}, {0.0, 0.02, 1.1, -0.6}};
    const VelrCuboid dstRoi{0, 0, 0, kDst, kDst, kDst};
    if constexpr (sizeof(T) == 1)
      out.status(velrWarpAffine_8u_C1PV(s.planes.data(), vol, s.step, srcRoi, planes.data(),
                                        dstStep, dstRoi, c, code, nullptr));
    else if constexpr (sizeof(T) == 2)
      out.status(velrWarpAffine_16u_C1PV(s.planes.data(), vol, s.step, srcRoi, planes.data(),
                                         dstStep, dstRoi, c, code, nullptr));
    else
      out.status(velrWarpAffine_32f_C1PV(s.planes.data(), vol, s.step, srcRoi, planes.data(),
                                         dstStep, dstRoi, c, code, nullptr));
  } else {
    const Maps& m = maps();
    const VelrVolume dstVol{kDst, kDst, kDst};
    const int mapStep = kDst * 4;
    if constexpr (sizeof(T) == 1)
      out.status(velrRemap_8u_C1PV(s.planes.data(), vol, s.step, srcRoi, m.px.data(), m.py.data(),
                                   m.pz.data(), mapStep, planes.data(), dstStep, dstVol, code));
    else if constexpr (sizeof(T) == 2)
      out.status(velrRemap_16u_C1PV(s.planes.data(), vol, s.step, srcRoi, m.px.data(),
                                    m.py.data(), m.pz.data(), mapStep, planes.data(), dstStep,
                                    dstVol, code));
    else
      out.status(velrRemap_32f_C1PV(s.planes.data(), vol, s.step, srcRoi, m.px.data(),
                                    m.py.data(), m.pz.data(), mapStep, planes.data(), dstStep,
                                    dstVol, code));
  }
  out.add(dst);
  return out;
}

// The filter's source: the shared 16-bit content as signed voxels, with a
// border of two voxels on every side of the destination region.
struct FilterSource {
  static constexpr int kBorder = 2, kExt = kDst + 2 * kBorder;
  std::vector<Vel16s> voxels;
  std::vector<const Vel16s*> planes;
  FilterSource() {
    const std::vector<double> content = workloads::volumeContent(kExt, 77);
    for (double v : content) voxels.push_back(static_cast<Vel16s>(v * 60000.0 - 30000.0));
    for (int z = 0; z < kExt; ++z)
      planes.push_back(voxels.data() + (static_cast<size_t>(z) * kExt + kBorder) * kExt + kBorder);
  }
};

const FilterSource& filterSource() {
  static const FilterSource f;
  return f;
}

Bytes filterJob(int k, int divisor, int sign) {
  const FilterSource& f = filterSource();
  std::vector<Vel32s> kernel(static_cast<size_t>(k) * k * k);
  for (size_t i = 0; i < kernel.size(); ++i) kernel[i] = sign * static_cast<int>(i % 7) - 2;
  const VelrVolume dstVol{kDst, kDst, kDst}, kVol{k, k, k};
  Bytes out;
  int size = 0;
  out.status(velrFilterGetBufSize(dstVol, kVol, 1, &size));
  std::vector<Vel8u> buffer(static_cast<size_t>(size));
  std::vector<Vel16s> dst(static_cast<size_t>(kDst) * kDst * kDst);
  std::vector<Vel16s*> planes;
  for (int z = 0; z < kDst; ++z) planes.push_back(dst.data() + static_cast<size_t>(z) * kDst * kDst);
  const VelrPoint anchor{k / 2, k / 2, k / 2};
  out.status(velrFilter_16s_C1PV(f.planes.data() + FilterSource::kBorder,
                                 FilterSource::kExt * 2, planes.data(), kDst * 2, dstVol,
                                 kernel.data(), kVol, anchor, divisor, buffer.data()));
  out.add(dst);
  return out;
}

}  // namespace

void addVolumeJobs(std::vector<Job>& jobs) {
  maps();
  filterSource();
  for (int code : {1, 2, 4, 5, 6, 7}) {
    jobs.push_back({"remap 8u code " + std::to_string(code), [=] { return remapJob<Vel8u>(code, false); }, true});
    jobs.push_back({"remap 32f code " + std::to_string(code), [=] { return remapJob<Vel32f>(code, false); }, true});
    jobs.push_back({"warp 16u code " + std::to_string(code), [=] { return remapJob<Vel16u>(code, true); }, true});
  }
  jobs.push_back({"remap 16u code 6", [] { return remapJob<Vel16u>(6, false); }, true});
  jobs.push_back({"warp 8u code 2", [] { return remapJob<Vel8u>(2, true); }, true});
  jobs.push_back({"warp 32f code 7", [] { return remapJob<Vel32f>(7, true); }, true});
  // Integer paths (3 x 3 x 3, 5 x 5 x 5) and the float path (negative taps
  // past the sum limit are fine; a 2 x 2 x 2 kernel takes the float path).
  jobs.push_back({"filter 3x3x3", [] { return filterJob(3, 16, 1); }, true});
  jobs.push_back({"filter 5x5x5", [] { return filterJob(5, 7, 1); }, true});
  jobs.push_back({"filter 2x2x2", [] { return filterJob(2, -3, -1); }, true});
  addResize<Vel8u>(jobs, "8u");
  addResize<Vel16u>(jobs, "16u");
  addResize<Vel32f>(jobs, "32f");
}

}  // namespace velr::reliability
