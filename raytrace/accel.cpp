// Triangle intersection records. Everything is computed in double and rounded
// to float once on store, so thin triangles keep accurate slopes.
#include <cmath>
#include <cstring>

#include "velr.h"

namespace {

// Below this, both in-plane slopes count as zero and the plane is taken as
// perpendicular to the dominant axis.
constexpr double kSlopeEpsilon = 2.220446049250313e-16;

// (u, v) projection axes for each dominant axis k; the pair for k = y is not
// cyclic, which the sign s = -1 compensates.
constexpr int kAxisU[3] = {1, 0, 0};
constexpr int kAxisV[3] = {2, 2, 1};

void buildRecord(VelrTriangleAccel* rec, const Vel32f* vertices, const int* idx) {
  double a[3], b[3], c[3];
  for (int i = 0; i < 3; ++i) {
    a[i] = vertices[3 * idx[0] + i];
    b[i] = vertices[3 * idx[1] + i];
    c[i] = vertices[3 * idx[2] + i];
  }
  const double e1[3] = {a[0] - c[0], a[1] - c[1], a[2] - c[2]};
  const double e2[3] = {b[0] - c[0], b[1] - c[1], b[2] - c[2]};
  const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                       e1[0] * e2[1] - e1[1] * e2[0]};

  // Strict comparisons: ties go to the lower axis.
  int k = std::fabs(n[1]) > std::fabs(n[0]) ? 1 : 0;
  if (std::fabs(n[2]) > std::fabs(n[k])) k = 2;
  const int u = kAxisU[k];
  const int v = kAxisV[k];
  const double s = (k == 1) ? -1.0 : 1.0;

  if (n[k] == 0.0) {
    std::memset(rec, 0, sizeof(*rec));
    return;
  }
  const double r = 1.0 / n[k];

  Vel32u perpendicular = 0;
  if (std::fabs(n[u]) < kSlopeEpsilon && std::fabs(n[v]) < kSlopeEpsilon) {
    rec->nu = 0.0f;
    rec->nv = 0.0f;
    perpendicular = 0x80000000u;
  } else {
    rec->nu = static_cast<Vel32f>(n[u] * r);
    rec->nv = static_cast<Vel32f>(n[v] * r);
  }
  rec->ck = static_cast<Vel32f>(c[k]);
  rec->cu = static_cast<Vel32f>(c[u]);
  rec->cv = static_cast<Vel32f>(c[v]);
  const double q = r * s;
  rec->au = static_cast<Vel32f>(e1[u] * q);
  rec->av = static_cast<Vel32f>(e1[v] * q);
  rec->bu = static_cast<Vel32f>(e2[u] * q);
  rec->bv = static_cast<Vel32f>(e2[v] * q);
  rec->axes = static_cast<Vel32u>((k << 4) + (u << 2) + v) | perpendicular;
}

}  // namespace

extern "C" {

VelStatus velrTriangleAccelGetSize(int* pSize) {
  if (pSize == nullptr) return velStsNullPtrErr;
  *pSize = static_cast<int>(sizeof(VelrTriangleAccel));
  return velStsNoErr;
}

VelStatus velrTriangleAccelInit(VelrTriangleAccel* pAccel, const Vel32f* pVertexCoord,
                                const int* pTrnglIndex, int cntTrngl) {
  for (int t = 0; t < cntTrngl; ++t) buildRecord(pAccel + t, pVertexCoord, pTrnglIndex + 4 * t);
  return velStsNoErr;
}

}  // extern "C"

static_assert(sizeof(VelrTriangleAccel) == 40, "record layout is a shared format");
static_assert(sizeof(VelrKDTreeNode) == 8, "node layout is a shared format");
static_assert(sizeof(VelrSHState) == 16, "context header is 16 bytes");
