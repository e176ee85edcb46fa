// Geometric kernels: vector and plane helpers, planar crossing, polynomial
// and eigen solvers, and the point, segment and triangle distances.
//
// Contracts
//  1. A vector or point is three doubles given by pointer (two for the 2d
//     routines); out-arguments may alias inputs only where a routine says so.
//  2. A vector shorter than a routine's length limit is the zero vector.
//     Coincidence of points is decided on the stored bits (bitsEqual2d,
//     bitsEqual3d), so 0.0 and -0.0 differ.
//  3. Every distance is squared and computed in plain IEEE double. Each
//     distance routine takes a length tolerance: an edge shorter than it
//     counts as a point and a triangle with a short normal as a sliver, so
//     degenerate input gets a distance and never a failure.
//  4. A qvTriCache describes one triangle with fixed corners. A field is
//     valid exactly when its bit is set in have; a routine fills what it
//     needs and writes have back. Every routine taking a cache accepts null.
//  5. Nothing here allocates, prints or keeps state between calls; all
//     routines may run on several threads at once (a cache belongs to the
//     thread that owns its triangle).
//  6. The planar crossing uses the turning tests of kernels/predicates.h.
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
// Distance kernels

// Bits of qvTriCache.have.
constexpr uint32_t kTriHaveAb = 1u;     // ab is valid
constexpr uint32_t kTriHaveBc = 2u;     // bc is valid
constexpr uint32_t kTriHaveAc = 4u;     // ac is valid
constexpr uint32_t kTriHaveN = 8u;      // n is valid
constexpr uint32_t kTriHaveAb2 = 16u;   // ab2 is valid
constexpr uint32_t kTriHaveBc2 = 32u;   // bc2 is valid
constexpr uint32_t kTriHaveAc2 = 64u;   // ac2 is valid
constexpr uint32_t kTriHaveN2 = 128u;   // n2 is valid
constexpr uint32_t kTriHaveVol = 256u;  // vol is valid

// Working block of one triangle a, b, c for the distance routines.
struct qvTriCache {
  uint32_t have;  // kTriHave bits: which fields below are valid
  double ab2;     // |ab|^2
  double bc2;     // |bc|^2
  double ac2;     // |ac|^2
  double n2;      // |n|^2
  double vol;     // vecTriple(ab, bc, n)
  double ab[3];   // b - a
  double bc[3];   // c - b
  double ac[3];   // c - a
  double n[3];    // ab x bc
};
static_assert(sizeof(qvTriCache) == 144, "qvTriCache is a word and seventeen doubles");

// Squared distance from p to the segment a, b. t receives the position of the
// nearest point of the line, not clamped. A segment shorter than tol counts as
// its midpoint, with t = 0. t may be null.
double pointSegDist2(const double* a, const double* b, const double* p, double tol, double* t);
// The same on x and y.
double pointSegDist2d(const double* a, const double* b, const double* p, double tol, double* t);

// Squared distance from p to the triangle a, b, c, the set a + s ab + t bc
// with 0 <= t <= s <= 1. raw and clamped receive (s, t) of the nearest point,
// before and after limiting to 0 and 1. Degenerate triangles, in this order:
// ab and bc shorter than tol (squared lengths at or below tol^2) and ac too:
// the centroid, with all four numbers 0.5; ab and bc short: the segment ac,
// (r, r); ab short: bc, (1, r); bc short: ab, (r, 0); |n|^2 at or below tol^2:
// the nearest edge, ab before bc before ac on a tie, and when ac is the
// nearest its pair carries the position found on ab. A regular triangle
// whose projection misses it is measured to its nearest edge in the same
// order. cache, raw and clamped may be null.
double pointTriDist2(qvTriCache* cache, const double* a, const double* b, const double* c,
                     const double* p, double tol, double* raw, double* clamped);

// Distance of the segments a0, a1 and b0, b1: out receives the squared
// distance and the positions along a and along b, each in 0 to 1. Returns 0
// when the lines have a single closest pair, 1 when they count as parallel
// (the squared length of their cross product at or below tol^2); the
// distance is the true one either way.
int32_t segSegDist2(const double* a0, const double* a1, const double* b0, const double* b1,
                    double tol, double* out);

// Squared distance of the segment p, q from the triangle a, b, c, 0.0 when
// the segment pierces it. The distance of q to the triangle is computed (it
// fills the cache) but does not enter the minimum.
double segTriDist2(qvTriCache* cache, const double* a, const double* b, const double* c,
                   const double* p, const double* q, double tol);

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
