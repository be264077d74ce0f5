#include "volume/warp_matrix.h"

#include <cmath>

namespace velr::vol {

bool nearlyEqualProducts(double p, double q) {
  if (std::fabs(p) <= 1e-200) return std::fabs(q) <= 1e-10;
  return std::fabs((p - q) / p) <= 1e-10;
}

bool diagonalVanishes(const double c[3][4]) {
  return std::fabs(c[0][0]) <= 1e-100 && std::fabs(c[1][1]) <= 1e-100 &&
         std::fabs(c[2][2]) <= 1e-100;
}

bool lowerRowsParallel(const double c[3][4]) {
  // The first pair that differs ends the test.
  return nearlyEqualProducts(c[1][1] * c[2][2], c[1][2] * c[2][1]) &&
         nearlyEqualProducts(c[2][2] * c[1][0], c[1][2] * c[2][0]) &&
         nearlyEqualProducts(c[2][1] * c[1][0], c[1][1] * c[2][0]);
}

bool invertAffine(const double c[3][4], double m[3][4]) {
  const double a = c[0][0], b = c[0][1], cc = c[0][2], d = c[0][3];
  const double e = c[1][0], f = c[1][1], g = c[1][2], h = c[1][3];
  const double i = c[2][0], j = c[2][1], k = c[2][2], l = c[2][3];
  const double u = f * k - j * g;
  const double v = k * e - g * i;
  const double w = j * e - f * i;
  const double det = a * u - b * v + cc * w;
  if (-1e-10 < det && det < 1e-10) return false;
  const double r = 1.0 / det;
  m[0][0] = u * r;
  m[1][0] = -v * r;
  m[2][0] = w * r;
  m[0][1] = -(k * b - j * cc) * r;
  m[1][1] = (k * a - i * cc) * r;
  m[2][1] = -(j * a - i * b) * r;
  m[0][2] = (g * b - f * cc) * r;
  m[1][2] = -(g * a - e * cc) * r;
  m[2][2] = (f * a - e * b) * r;
  // The shift in cofactor form, from the forward coefficients rather than
  // from the rounded inverse entries.
  const double p = g * l - k * h;
  const double q = cc * h - g * d;
  const double rr = cc * l - k * d;
  m[0][3] = -r * (b * p - f * rr + j * q);
  m[1][3] = r * (a * p - e * rr + i * q);
  m[2][3] = -r * (a * (f * l - j * h) - e * (l * b - j * d) + i * (b * h - f * d));
  return true;
}

bool invertPlaneAffine(const double a[2][3], double m[2][3]) {
  const double det = a[0][0] * a[1][1] - a[0][1] * a[1][0];
  if (det == 0.0) return false;
  const double r = 1.0 / det;
  m[0][0] = a[1][1] * r;
  m[0][1] = -a[0][1] * r;
  m[1][0] = -a[1][0] * r;
  m[1][1] = a[0][0] * r;
  m[0][2] = -(m[0][0] * a[0][2] + m[0][1] * a[1][2]);
  m[1][2] = -(m[1][0] * a[0][2] + m[1][1] * a[1][2]);
  for (int row = 0; row < 2; ++row)
    for (int col = 0; col < 3; ++col)
      if (!std::isfinite(m[row][col])) return false;
  return true;
}

}  // namespace velr::vol
