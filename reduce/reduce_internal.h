// Helpers of the reduction engine, used only inside reduce/ and by its tests:
// the five projection planes of a ring, the parts of the flip test, and the
// levels of the deviation measure.
#pragma once

#include <limits>

#include "reduce/reduce.h"

// ---- Ring projection ------------------------------------------------------------

// Results of a plane row.
constexpr int32_t kRowUsable = 0;       // the plane is filled
constexpr int32_t kRowDegenerate = -1;  // no plane here: try the next row
constexpr int32_t kRowBroken = -2;      // the star isn't what the marks promised: stop

// A plane row: from the marked star of the vertex with handle p (ring edges at
// the head of the edge list, star triangles at the head of the triangle list)
// a plane, normal then offset.
typedef int32_t (*qvPlaneFn)(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                             double plane[4]);

// Least-squares plane of the ring vertices, by the roots of the characteristic
// cubic and elimination; three vertices give their own plane.
int32_t qvPlaneRingCubic(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                         double plane[4]);
// Sum of the unnormalised normals of the star's triangles.
int32_t qvPlaneAreaSum(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                       double plane[4]);
// Sum of the unit normals of the star's triangles.
int32_t qvPlaneUnitSum(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                       double plane[4]);
// Sum of the spoke vectors from each neighbour to the vertex, each spoke once
// from each of its two triangles.
int32_t qvPlaneSpokeSum(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                        double plane[4]);
// Least-squares plane of the ring vertices, by Jacobi rotations.
int32_t qvPlaneRingJacobi(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                          double plane[4]);

// The rows in the order they are tried.
constexpr int32_t kPlaneRows = 5;
extern const qvPlaneFn qvPlaneTable[kPlaneRows];

// Writes (u, v) in the plane's frame into the pair of each vertex of the marked
// ring, whose vertex marks stay as they were. 0, or -1 when the plane has no
// frame or the ring doesn't have exactly ring vertices in the engine's form.
int32_t qvRingToPlane(qvMesh *mesh, const double plane[4], int32_t ring, const qvMarkSet *marks);
// 1 if two edges of the marked ring cross or overlap in (u, v), other than
// neighbours touching at their shared end; 0 if none do; -1 when the ring
// doesn't have exactly ring edges between vertices in the engine's form.
int32_t qvRingSimple(qvMesh *mesh, int32_t ring, const qvMarkSet *marks);

// ---- Flip test --------------------------------------------------------------------

// 1 when both ends of the diagonal have a valence (tag) of 4 or more and the
// two triangles have no neighbour in common, 0 if not, -1 for a bad record.
int32_t qvFlipSafe(const qvFlipRec *rec);
// 1 when the far apex lies strictly within the circle of the other three
// corners in (u, v), as both orders of the quad agree; 0 if not (a cocircular
// or a degenerate quad included); -1 for a bad record.
int32_t qvQuadDelaunay(const qvFlipRec *rec);

// ---- Deviation measure ------------------------------------------------------------

// A corner of a measured triangle: a vertex of the surface, or a point the
// measure made (a midpoint), with its nearest reference triangle.
struct qvDevPt {
  const double *h;    // vertex handle; null for a point made by the measure
  const double *xyz;  // coordinates
  qvTri *near;        // nearest reference triangle, null when none is known
  double dist;        // squared distance to near
};

// What one measure carries through its levels.
struct qvDevRun {
  const qvRedParams *params;  // tol2 for the early stop, leaf2 for the split limit
  int32_t *err;               // set to -1 on failure; every level stops when it is
  int32_t calls;              // levels entered so far, against kDevCallBudget
};

// A level this deep measures its triangle at the corners only: 64 halvings
// take an edge below the resolution of the doubles of its ends.
constexpr int32_t kDevDepthMax = 64;
// Splits one measure may make. With leaf2 zero (a tolerance of 0) splitting
// need not end; a measure that spends its budget returns kDevTooFar, which
// refuses the removal. A distance that isn't a number counts as kDevTooFar too.
constexpr int32_t kDevCallBudget = 1 << 20;
constexpr double kDevTooFar = std::numeric_limits<double>::infinity();

// Nearest reference triangle of each corner of old, stored in the corner's pair
// (the triangle's address, then the squared distance); each corner once. 0, or
// -1 (no mark left behind).
int32_t qvDevNearest(qvLnk *old, qvLnk *ref);
// Measures one triangle by how many of its corners are corners of ref.
double qvDevTri(qvDevPt c[3], qvLnk *ref, qvDevRun *run, int32_t depth);
// How the nearest triangles of the corners relate: 1 all the same (or two and
// none), 2 two that share an edge, 0 otherwise; -1 when a nearest triangle
// isn't in ref or a pair to compare holds a null. With pin 0 to 2, three
// different triangles are judged by the two corners other than pin.
int32_t qvDevClass(const qvDevPt c[3], int32_t pin, qvLnk *ref);
// 0 when no edge of a stands in b; otherwise 1 if neither triangle has
// kTriReplace, 2 if both have, 3 if one has, and out (when not null) receives
// the slot in a of the first such edge and the number of such edges. -1 for a
// null triangle.
int32_t qvTriShareKind(const qvTri *a, const qvTri *b, int32_t out[2]);
// A triangle with no corner on ref: by the corners, by the edge between two
// nearest triangles, or split in four.
double qvDevFree(qvDevPt c[3], qvLnk *ref, qvDevRun *run, int32_t depth);
double qvDevSplit4(qvDevPt c[3], qvLnk *ref, qvDevRun *run, int32_t depth);
double qvDevPair(const qvDevPt c[3], qvDevRun *run);
// Two corners on ref: always split in four, each part measured afresh.
double qvDevTwoShared(qvDevPt c[3], qvLnk *ref, qvDevRun *run, int32_t depth);
// One corner, c[index], on ref: measured against the reference triangles at
// that corner only. ref's nodes are regrouped and its head stays its head.
double qvDevOneShared(qvDevPt c[3], int32_t index, qvLnk *ref, qvDevRun *run, int32_t depth);
double qvDevPinned(qvDevPt c[3], int32_t pin, qvLnk *list, qvDevRun *run, int32_t depth);
// Halves the edge opposite c[pin]; *leaf = 1 instead when it is short.
double qvDevBisect(qvDevPt c[3], int32_t pin, qvLnk *list, qvDevRun *run, int32_t depth,
                   int32_t *leaf);
double qvDevPinnedPair(const qvDevPt c[3], int32_t pin, qvDevRun *run);
