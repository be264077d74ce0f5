// The transform side of the affine warp: the singularity tests that reject a
// transform before anything is set up, and the inversion of the forward
// transform (source to destination) into the one the kernels walk.
#pragma once

namespace velr::vol {

// Two products are "nearly equal" when their relative difference is at most
// 1e-10, or, for a first product that is practically zero, when the second
// is below 1e-10 in magnitude.
bool nearlyEqualProducts(double p, double q);

// All three diagonal entries practically zero (|c| <= 1e-100). This rejects
// some valid transforms (permutations) too; callers rely on that.
bool diagonalVanishes(const double c[3][4]);

// Rows 1 and 2 of the linear part (nearly) parallel: all three 2 x 2 minors
// that they form have nearly equal products. Row 0 is not looked at.
bool lowerRowsParallel(const double c[3][4]);

// The inverse transform m (destination to source, same layout) in cofactor
// form. False for a determinant within 1e-10 of zero.
bool invertAffine(const double c[3][4], double m[3][4]);

// The inverse of a plane transform (a[r][0], a[r][1]; shift a[r][2]). False
// when it is not finite or the determinant is 0.
bool invertPlaneAffine(const double a[2][3], double m[2][3]);

}  // namespace velr::vol
