#include "scene.h"

#include <algorithm>
#include <cmath>

namespace velr::demo {
namespace {

enum MaterialId { kGround = 0, kBumpy = 1, kMirror = 2 };

void normalize(double v[3]) {
  const double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  for (int i = 0; i < 3; ++i) v[i] /= l;
}

void cross(const double a[3], const double b[3], double out[3]) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

}  // namespace

void Sky::radiance(float x, float y, float z, float rgb[3]) const {
  const float len = std::sqrt(x * x + y * y + z * z);
  if (!(len > 0.0f)) {
    rgb[0] = rgb[1] = rgb[2] = 0.0f;
    return;
  }
  const float dy = y / len;
  const float g = std::max(0.0f, (x * glowDir[0] + y * glowDir[1] + z * glowDir[2]) / len);
  const float glowTerm = glow * g * g * g * g;
  for (int c = 0; c < 3; ++c) {
    if (dy >= 0.0f) {
      const float t = std::sqrt(dy);
      rgb[c] = horizon[c] + (zenith[c] - horizon[c]) * t + glowTerm;
    } else {
      // Below the horizon the finite ground plane has ended: fade to a dim
      // brown so rays that leave the ground are not as bright as the sky.
      const float t = std::min(1.0f, -dy * 4.0f);
      rgb[c] = horizon[c] + (ground[c] - horizon[c]) * t;
    }
  }
}

Scene defaultScene(const SceneMesh* replacement) {
  Scene s;
  s.materials[kGround] = {{0.72f, 0.70f, 0.66f}, {0.16f, 0.18f, 0.22f}, 1.0f, 1.0f, 0.0f};
  s.materials[kBumpy] = {{0.80f, 0.24f, 0.06f}, {0, 0, 0}, 0.0f, 1.0f, 0.0f};
  s.materials[kMirror] = {{0.90f, 0.92f, 0.95f}, {0, 0, 0}, 0.0f, 0.05f, 0.9f};
  s.materialCount = 3;

  s.mesh.append(makeGround(24.0f, 24), kGround);
  const float bumpyCentre[3] = {-1.05f, 1.05f, 0.2f};
  if (replacement) {
    SceneMesh model = *replacement;
    placeOnGround(model, 2.1f, bumpyCentre[0], bumpyCentre[2]);
    s.mesh.append(model, kBumpy);
  } else {
    s.mesh.append(makeSphere(48, bumpyCentre, 0.95f, 7, 0.03f, 2024), kBumpy);
  }
  const float mirrorCentre[3] = {1.25f, 0.9f, -0.55f};
  s.mesh.append(makeSphere(40, mirrorCentre, 0.9f, 0, 0.0f, 1), kMirror);

  s.light = {{-5.0f, 5.0f, 4.5f}, {72.0f, 68.0f, 60.0f}};
  double toLight[3] = {s.light.position[0], s.light.position[1], s.light.position[2]};
  normalize(toLight);
  s.sky = {{0.12f, 0.26f, 0.62f}, {0.78f, 0.80f, 0.84f}, {0.20f, 0.17f, 0.14f},
           {float(toLight[0]), float(toLight[1]), float(toLight[2])}, 0.5f, 0.35f};
  const float eye[3] = {0.3f, 2.3f, 6.4f}, target[3] = {0.1f, 0.75f, 0.0f};
  std::copy(eye, eye + 3, s.eye);
  std::copy(target, target + 3, s.target);
  s.fovY = 38.0f;
  return s;
}

Camera makeCamera(const float eye[3], const float target[3], float fovY, int width, int height) {
  double f[3] = {target[0] - eye[0], target[1] - eye[1], target[2] - eye[2]};
  normalize(f);
  const double up[3] = {0.0, 1.0, 0.0};
  double r[3], u[3];
  cross(f, up, r);
  normalize(r);
  cross(r, f, u);
  const double h = std::tan(0.5 * fovY * M_PI / 180.0);
  const double w = h * width / height;
  Camera cam{};
  cam.width = width;
  cam.height = height;
  for (int i = 0; i < 3; ++i) {
    cam.eye[i] = eye[i];
    cam.dW[i] = static_cast<float>(r[i] * 2.0 * w / width);
    cam.dH[i] = static_cast<float>(-u[i] * 2.0 * h / height);
    // Centre of pixel (0, 0): top-left corner of the image plane plus half a pixel.
    cam.origin[i] = static_cast<float>(f[i] - r[i] * w + u[i] * h + 0.5 * (cam.dW[i] + cam.dH[i]));
  }
  return cam;
}

}  // namespace velr::demo
