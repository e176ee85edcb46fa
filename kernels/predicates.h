// Exact planar predicates and the planar turning tests built on them.
//
// orient2d and incircle follow Shewchuk's adaptive-precision predicates: a
// floating-point filter first and, only where it cannot decide, stages of
// growing exactness on floating-point expansions, ending in the exact sign.
//
// Contracts
//  1. The program calls exactinit() once at start-up, before any thread is
//     forked. orient2d and incircle read the constants it computes and do no
//     set-up of their own. incircleSign and orient2dClass run the one-time
//     set-up themselves, race-free, so they are safe even when it was missed.
//  2. After set-up every routine here is reentrant: the constants are read
//     only, and all work lies on the caller's stack. Nothing is allocated.
//  3. For finite input whose products neither overflow nor underflow, the
//     sign of orient2d and incircle is exact; their size is approximate.
//  4. A point is two consecutive doubles, x then y; further doubles behind
//     them are ignored.
//  5. A difference vector of the classifiers is three doubles: dx, dy and the
//     squared length (turn2dFast uses dx and dy only). With its given bit set
//     the vector is read as it stands; without, it is computed and stored so
//     that the caller can pass it on to the next test.
//  6. The three classifiers answer on the same scale: kTurnRight (-2),
//     kTurnLeft (2), and for collinear corners kTurnBehind (-1), kTurnBetween
//     (0) or kTurnBeyond (1). Only orient2dClass decides on the exact sign;
//     turn2d uses a relative threshold and turn2dFast plain floating point.
//  7. These routines are compiled without contraction into fused operations
//     and without extended precision; the expansion arithmetic depends on
//     every product and sum being rounded once.
#pragma once

#include <cstdint>

// Result of one planar cross test.
struct qvTurn {
  double det;   // the determinant or cross product
  double det2;  // its square
  double sin2;  // det2 divided as each test tells (a squared sine)
};
static_assert(sizeof(qvTurn) == 24, "qvTurn is three doubles");

// Bits of `given`: which difference vectors the caller has filled already.
constexpr int32_t kTurnGivenAb = 1;  // ab holds b - a
constexpr int32_t kTurnGivenAc = 2;  // ac holds c - a

// Results of the classifiers: where c lies against the directed line a to b.
constexpr int32_t kTurnRight = -2;   // clockwise: a, b, c turn right
constexpr int32_t kTurnLeft = 2;     // counterclockwise: a, b, c turn left
constexpr int32_t kTurnBehind = -1;  // collinear, c behind a
constexpr int32_t kTurnBetween = 0;  // collinear, c between a and b (or on an end)
constexpr int32_t kTurnBeyond = 1;   // collinear, c beyond b

// Computes the machine epsilon, the splitter and the error bounds. Running it
// again changes nothing.
void exactinit();

// Positive if a, b, c turn counterclockwise, negative if clockwise, 0 if
// collinear. The sign is exact.
double orient2d(const double* a, const double* b, const double* c);

// With a, b, c counterclockwise: positive if d lies inside their circle,
// negative outside, 0 on it. The sign is exact.
double incircle(const double* a, const double* b, const double* c, const double* d);

// The sign of incircle doubled: -2, 0 or 2.
int32_t incircleSign(const double* a, const double* b, const double* c, const double* d);

// Classifies c against the directed line a to b on the exact sign of
// orient2d. res.sin2 is det2 / |ab|^4: a measure relative to ab alone.
int32_t orient2dClass(const double* a, const double* b, const double* c, int32_t given,
                      double* ab, double* ac, qvTurn* res);

// The same question with a relative threshold: corners whose three turning
// angles all have a squared sine at or below 1e-20 count as collinear. res
// holds the cross test of ab against ac.
int32_t turn2d(const double* a, const double* b, const double* c, int32_t given, double* ab,
               double* ac, qvTurn* res);

// The same question in plain floating point. ab and ac hold dx and dy only.
int32_t turn2dFast(const double* a, const double* b, const double* c, int32_t given, double* ab,
                   double* ac);

// The sign of the determinant of the rows (a, 1), (b, 1), (c, 1), (d, 1):
// 0 exactly when the four points are coplanar, and otherwise the side of the
// plane through a, b, c on which d lies. Exact for finite input whose products
// neither overflow nor underflow. Filtered: fast unless the points are
// coplanar or nearly so.
[[nodiscard]] int32_t orient3dSign(const double* a, const double* b, const double* c, const double* d);
