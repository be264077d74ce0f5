// Spherical-harmonic jobs: basis, band and the six transforms over shared
// directions and samples, with one shared context per algorithm.
#include <cmath>

#include "tests/reliability/jobs.h"
#include "velcore.h"
#include "velr.h"
#include "workloads/workloads.h"

namespace velr::reliability {
namespace {

constexpr int kDirs = 301;  // odd: the vector loops leave a tail
constexpr Vel32u kOrder = 15;

struct ShScene {
  std::vector<float> x, y, z, samples, samplesC3, coeffs[3];
  VelrSHState* context[2] = {};

  ShScene() {
    workloads::SplitMix64 rng(99);
    for (int i = 0; i < kDirs; ++i) {
      const double zz = rng.uniform(-1.0, 1.0), phi = rng.uniform(0.0, 6.283185307179586);
      const double r = std::sqrt(1.0 - zz * zz);
      x.push_back(static_cast<float>(r * std::cos(phi)));
      y.push_back(static_cast<float>(r * std::sin(phi)));
      z.push_back(static_cast<float>(zz));
      samples.push_back(static_cast<float>(rng.uniform(-1.0, 2.0)));
    }
    for (int i = 0; i < 3 * kDirs; ++i) samplesC3.push_back(static_cast<float>(rng.uniform()));
    for (auto& c : coeffs)
      for (int k = 0; k < 256; ++k) c.push_back(static_cast<float>(rng.uniform(-1.0, 1.0)));
    for (int alg = 0; alg < 2; ++alg) {
      int size = 0;
      velrSHGetSize_32f(kOrder, alg, &size);
      context[alg] = static_cast<VelrSHState*>(velMalloc(size));
      velrSHInit_32f(context[alg], kOrder, alg);
    }
  }
};

const ShScene& scene() {
  static const ShScene s;
  return s;
}

Bytes shJob(int alg, Vel32u order) {
  const ShScene& s = scene();
  const VelrSHState* ctx = s.context[alg];
  const size_t per = (order + 1) * (order + 1);
  Bytes out;
  std::vector<float> basis(per * kDirs), band((2 * order + 1) * kDirs);
  out.status(velrSH_32f(s.x.data(), s.y.data(), s.z.data(), kDirs, basis.data(), order, ctx));
  out.status(velrSHBand_32f(s.x.data(), s.y.data(), s.z.data(), kDirs, band.data(), order));
  std::vector<float> c1(per), c3[3], p3[3];
  for (int k = 0; k < 3; ++k) {
    c3[k].assign(per, 0.0f);
    p3[k].assign(per, 0.0f);
  }
  float* c3p[3] = {c3[0].data(), c3[1].data(), c3[2].data()};
  float* p3p[3] = {p3[0].data(), p3[1].data(), p3[2].data()};
  const float* planes[3] = {s.samplesC3.data(), s.samplesC3.data() + kDirs,
                            s.samplesC3.data() + 2 * kDirs};
  out.status(velrSHTFwd_32f_C1I(s.x.data(), s.y.data(), s.z.data(), s.samples.data(), kDirs,
                                c1.data(), order, ctx));
  out.status(velrSHTFwd_32f_C3P3I(s.x.data(), s.y.data(), s.z.data(), s.samplesC3.data(), kDirs,
                                  c3p, order, ctx));
  out.status(velrSHTFwd_32f_P3I(s.x.data(), s.y.data(), s.z.data(), planes, kDirs, p3p, order,
                                ctx));
  const float* coeffs[3] = {s.coeffs[0].data(), s.coeffs[1].data(), s.coeffs[2].data()};
  std::vector<float> inv1(kDirs), invP3[3], invC3(3 * kDirs);
  for (auto& v : invP3) v.assign(kDirs, 0.0f);
  float* invP3p[3] = {invP3[0].data(), invP3[1].data(), invP3[2].data()};
  out.status(velrSHTInv_32f_C1(coeffs[0], order, s.x.data(), s.y.data(), s.z.data(), inv1.data(),
                               kDirs, ctx));
  out.status(velrSHTInv_32f_P3(coeffs, order, s.x.data(), s.y.data(), s.z.data(), invP3p, kDirs,
                               ctx));
  out.status(velrSHTInv_32f_P3C3(coeffs, order, s.x.data(), s.y.data(), s.z.data(),
                                 invC3.data(), kDirs, ctx));
  out.add(basis);
  out.add(band);
  out.add(c1);
  for (int k = 0; k < 3; ++k) {
    out.add(c3[k]);
    out.add(p3[k]);
    out.add(invP3[k]);
  }
  out.add(inv1);
  out.add(invC3);
  return out;
}

// A context built while other threads evaluate theirs.
Bytes contextJob(Vel32u order) {
  int size = 0;
  Bytes out;
  out.status(velrSHGetSize_32f(order, 1, &size));
  std::vector<Vel8u> buf(static_cast<size_t>(size) + 16);
  auto* ctx = reinterpret_cast<VelrSHState*>(
      (reinterpret_cast<uintptr_t>(buf.data()) + 15) & ~uintptr_t{15});
  out.status(velrSHInit_32f(ctx, order, 1));
  // Table positions depend on the address; their contents must not.
  const float* a = reinterpret_cast<const float*>(reinterpret_cast<const Vel8u*>(ctx) + ctx->tableA);
  const float* b = reinterpret_cast<const float*>(reinterpret_cast<const Vel8u*>(ctx) + ctx->tableB);
  const size_t t = (order + 1) * (order + 2) / 2;
  out.add(a, t);
  out.add(b, t);
  return out;
}

}  // namespace

void addShJobs(std::vector<Job>& jobs) {
  scene();
  for (int alg = 0; alg < 2; ++alg)
    for (Vel32u order : {kOrder, 4u, 7u})
      jobs.push_back({"sh algorithm " + std::to_string(alg) + " order " + std::to_string(order),
                      [=] { return shJob(alg, order); }});
  jobs.push_back({"sh context order 40", [] { return contextJob(40); }});
}

}  // namespace velr::reliability
