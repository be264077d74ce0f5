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

}  // namespace

void addVolumeJobs(std::vector<Job>& jobs) {
  addResize<Vel8u>(jobs, "8u");
  addResize<Vel16u>(jobs, "16u");
  addResize<Vel32f>(jobs, "32f");
}

}  // namespace velr::reliability
