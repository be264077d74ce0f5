#include <cmath>

#include "workloads/workloads.h"

namespace velr::workloads {

Camera standardCamera(int width, int height) {
  const double eye[3] = {1.0, 1.3, 2.7};
  const double up[3] = {0.0, 1.0, 0.0};
  auto normalize = [](double v[3]) {
    const double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    for (int i = 0; i < 3; ++i) v[i] /= l;
  };
  auto cross = [](const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
  };
  double f[3] = {-eye[0], -eye[1], -eye[2]};
  normalize(f);
  double r[3];
  cross(f, up, r);
  normalize(r);
  double u[3];
  cross(r, f, u);
  const double h = std::tan(20.0 * M_PI / 180.0);
  Camera cam{};
  cam.width = width;
  cam.height = height;
  for (int i = 0; i < 3; ++i) {
    const double dW = r[i] * 2.0 * h / width;
    const double dH = -u[i] * 2.0 * h / height;
    cam.eye[i] = static_cast<float>(eye[i]);
    cam.dW[i] = static_cast<float>(dW);
    cam.dH[i] = static_cast<float>(dH);
    cam.origin[i] = static_cast<float>(f[i] - r[i] * h + u[i] * h + dW / 2 + dH / 2);
  }
  return cam;
}

std::vector<int> blockPixelOrder(int width, int height, int block) {
  std::vector<int> order;
  order.reserve(static_cast<size_t>(width) * height);
  for (int by = 0; by < height; by += block)
    for (int bx = 0; bx < width; bx += block)
      for (int y = by; y < by + block && y < height; ++y)
        for (int x = bx; x < bx + block && x < width; ++x) order.push_back(y * width + x);
  return order;
}

}  // namespace velr::workloads
