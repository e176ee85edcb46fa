// Geometric kernels: vector and plane helpers, planar crossing, polynomial
// and eigen solvers.
//
// Contracts
//  1. A vector or point is three doubles given by pointer (two for the 2d
//     routines); out-arguments may alias inputs only where a routine says so.
//  2. A vector shorter than a routine's length limit is the zero vector.
//     Coincidence of points is decided on the stored bits (bitsEqual2d,
//     bitsEqual3d), so 0.0 and -0.0 differ.
//  3. Nothing here allocates, prints or keeps state between calls; all
//     routines may run on several threads at once.
//  4. The planar crossing uses the turning tests of kernels/predicates.h.
#pragma once

#include <cstdint>

#include "kernels/predicates.h"

// ---------------------------------------------------------------------------
// Vector and plane helpers

// Bits of vecCos2's `given` and of its result.
constexpr int32_t kCosGivenU = 1;  // u[3] holds u's squared length
constexpr int32_t kCosGivenV = 2;  // v[3] holds v's squared length
constexpr int32_t kCosShortU = 1;  // u's squared length is below tiny
constexpr int32_t kCosShortV = 2;  // v's squared length is below tiny

// Modes of planeFrame: which vector of the frame holds the normal.
constexpr int32_t kFrameNormalU = 1;  // u (also any mode other than 2 and 3)
constexpr int32_t kFrameNormalV = 2;  // v
constexpr int32_t kFrameNormalW = 3;  // w

// out = a x b; returns out. out may be a or b.
double* vecCross(const double* a, const double* b, double* out);

// a . (b x c).
double vecTriple(const double* a, const double* b, const double* c);

// Returns the length of v and scales v to unit length. A length below minLen
// makes v the zero vector and returns 0; a length equal to minLen is scaled.
double vecNormalize(double* v, double minLen);

// u and v are x, y, z and the squared length, filled here unless `given`
// says so. cos2 = sign(dot) dot^2 / (|u|^2 |v|^2), the division unguarded.
// Returns kCosShortU and kCosShortV for vectors whose squared length is
// below tiny.
[[nodiscard]] int32_t vecCos2(int32_t given, double* u, double* v, double tiny, double* cos2);

// A right-handed orthonormal frame u, v, w with the unit normal in the
// vector that mode names. 0, or 1 when normal is shorter than eps.
[[nodiscard]] int32_t planeFrame(int32_t mode, const double* normal, double eps, double* u, double* v,
                   double* w);

// 1 if the two (three) doubles of p and q have equal bits, else 0.
[[nodiscard]] int32_t bitsEqual2d(const double* p, const double* q);
[[nodiscard]] int32_t bitsEqual3d(const double* p, const double* q);

// Signed volume of the tetrahedron p0, p1, p2, p3, and of p0, p1, p2 with the
// origin.
double tetVolume(const double* p0, const double* p1, const double* p2, const double* p3);
double tetVolumeOrigin(const double* p0, const double* p1, const double* p2);

// ---------------------------------------------------------------------------
// Planar crossing and solvers

// Results of segSegIntersect2d.
constexpr int32_t kCrossNone = 0;     // no contact
constexpr int32_t kCrossPoint = 1;    // contact at one point
constexpr int32_t kCrossOverlap = 2;  // the segments overlap (or share both ends)

// Contact of the planar segments p0, p1 and q0, q1. out receives x, y of a
// contact point (the start of an overlap) and its positions along p and
// along q, each in 0 to 1. A segment shorter than tol counts as a point;
// ends are shared when bitsEqual2d says so; a crossing up to tol beyond an
// end counts as contact and is moved onto that end.
[[nodiscard]] int32_t segSegIntersect2d(const double* p0, const double* p1, const double* q0, const double* q1,
                          double tol, double* out);

// Kinds of roots reported by the polynomial solvers.
constexpr int32_t kRootsReal = 0;     // all roots real
constexpr int32_t kRootsComplex = 2;  // a complex pair among the roots

// Roots of a2 x^2 + a1 x + a0: their number, 0 to 2. re and im take up to two
// roots; kind is kRootsReal or kRootsComplex.
[[nodiscard]] int32_t solveQuadratic(double a2, double a1, double a0, double tol, double* re, double* im,
                       int32_t* kind);

// Roots of a3 x^3 + a2 x^2 + a1 x + a0: their number, or -1 on failure. re and
// im take up to three roots; kind is kRootsReal or kRootsComplex.
[[nodiscard]] int32_t solveCubic(double a3, double a2, double a1, double a0, double tol, double* re,
                   double* im, int32_t* kind);

// Largest matrix order jacobiEigen accepts.
constexpr int32_t kJacobiMaxOrder = 32;

// Cyclic Jacobi on the symmetric n by n matrix m (row pointers; the upper
// triangle is read and destroyed). m's diagonal ends up holding the
// eigenvalues and the columns of vectors the unit eigenvectors. Returns the
// number of rotations: 0 means the matrix was diagonal already and nothing
// was done (vectors is the unit matrix). -1 if n is outside 1 to
// kJacobiMaxOrder or the sweeps do not converge.
[[nodiscard]] int32_t jacobiEigen(double** m, int32_t n, double** vectors);
