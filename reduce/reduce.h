// Reduction engine: thins one stitched shell in place by removing vertices,
// each removal accepted only when a certificate proves that every point of the
// surface the pass started from stays within the tolerance of the surface the
// removal leaves.
//
// Invariants
//  1. The engine works on the one mesh it is given and touches no other (it
//     reads the guests it is given, and changes nothing in them); it knows
//     nothing of files or threads.
//  2. No surviving vertex moves: a removal collapses a vertex onto a neighbour
//     that keeps its coordinates.
//  3. Every distance inside the engine is squared.
//  4. Results are a status or a count that is not negative, and -1 for
//     failure. A failure abandons the mesh without repair; the caller
//     releases it.
//  5. At the end of a leaf the seam mark of the piece's vertices is clear.
//     Vertices in kVtxKeepSet (hubs, seams) are never removed, nor a joint
//     of sheets the input joined (kVtxJoint) but along a straight line of
//     joint edges. A rim vertex stays unless the pass is on a whole shell
//     (reduceWhole), whose open boundaries are its own; there it goes only
//     along its rim, onto a neighbour on the same loop, never where two loops
//     meet, nor over an ear (a triangle with both its rim edges); the cap
//     over the loop loses the corner with it and stays a cap. Edges in
//     kEdgNoFlipSet are never flipped.
//  6. No test in the engine compares a length with an absolute constant:
//     degeneracy is judged against the sizes it is made of, the rounding
//     allowance eta is a share of the largest coordinate, and the order of
//     candidates breaks ties by the area of a star, then by the place in the
//     list. A model scaled by a power of two, with its tolerance, reduces to
//     the same model scaled.
//
// The bound, and why it holds
//  During a pass, with tolerance t > 0, every live triangle that is not a cap
//  holds a cover: a list of pieces of the pass's starting surface, each a
//  starting triangle or a fragment of one cut at edge midpoints (measured),
//  or the holder itself (flat). With lim = t - eta, three invariants hold
//  after every commit:
//   (C) the measured pieces of all covers, with the parts of the starting
//       surface inside the triangles that hold a flat piece, cover the
//       starting surface less its caps; every cover belongs to a live
//       non-cap triangle;
//   (H) a measured piece P in the cover of T is single, every corner q of P
//       having a computed squared distance D(q, T) <= lim^2; or it is a pair
//       with the live non-cap neighbour U of T across one edge E: cut by a
//       plane through E, the corners and crossings of P on T's side are
//       within lim of T, those on the other side within lim of U;
//   (F) a flat piece has the corners of the triangle that holds it.
//  Proof of the bound from them: take x on the starting surface. By (C) x lies
//  in a measured piece P of the cover of a live triangle T, or inside a live
//  triangle T that holds a flat piece, where d(x, T) = 0. The distance to
//  a triangle is a convex function and P is the convex hull of its corners,
//  so in the single case d(x, T) <= max over the corners <= lim; in the pair
//  case the cut parts of P are convex hulls of the points listed, so the same
//  holds with T or U. T and U are live and not caps, so they are in the
//  result: d(x, result) <= lim + eta = t. (A rim vertex's fan holds a cap
//  triangle; it is never a home.)
//  Upkeep: a pass starts with each triangle covering itself, and with each
//  guest triangle it takes in the cover of a triangle round a vertex they
//  share, as a piece that (H) holds for, single or pair: the guest is then
//  part of the starting surface that (C) covers. A removal of v
//  destroys exactly its star; the pieces that may lose their home or partner
//  are those of the star's covers and the pair pieces across a ring edge. The
//  trial certifies each against the new fan and the live triangles round the
//  ring (single, then pair, then 1:4 splits to depth 24 and 1,024 fragments;
//  a limit reached refuses the removal), and the commit applies that very
//  trial: the grafted fan and the plan are those certified. Every other piece
//  keeps a live home and partner. Flat pieces, by the plane of the star
//  triangle that holds them: where the fan keeps that plane (its triangles
//  there turn one way and, by their outline, cover the region of the star's
//  there: the winding number of the fan's outline is at least the star's
//  everywhere), what a star triangle of that plane held flat, and any
//  measured piece lying inside it in its plane (exact tests), lies in the
//  fan's triangles of that plane, and each of them holds itself as a flat
//  piece. Elsewhere a flat piece is measured as above, as the triangle it is,
//  which lies in the star. So (C), (H) and (F) hold after each commit.
//  At t = 0 a removal is made only when the star and its ring lie exactly in
//  one plane (orient3d) and the old and new triangles all turn one way in a
//  coordinate plane (orient2d): both then tile the polygon of the ring, so the
//  union of the live non-cap triangles never changes. Rim vertices stay at
//  t = 0: their rings close over caps.
//
// Floating point
//  Coordinates are floats held exactly in doubles; S is the largest coordinate
//  magnitude of the pass and u = 2^-53. A computed distance to a triangle that
//  is not a needle (squared normal above 2^-20 of the largest product of two
//  squared sides) differs from the true one by at most about 2^12 u S; needles
//  are measured to their sides, which only overestimates. Midpoints and
//  crossing points lie within a few u S of the segments they are made on, so
//  the slivers that rounding leaves between pieces are that thin, and within
//  that distance of a certified piece. eta = 2^-32 S (2^21 u S) covers all of
//  these many times over, and lim^2 is rounded down by a further 4u. A
//  distance that is not a number refuses the removal.
#pragma once

#include "mesh/qvMesh.h"

// ---- Leaves -----------------------------------------------------------------

// Guests: a shell of at most kGuestMax triangles that shares joint vertices
// with a larger shell, its host: what assembly makes of a scan's doubled and
// overlapping facets, which the input joined to the surface they lie on.
constexpr int32_t kGuestMax = 16;

// A host's guests, for reduceWholeWith.
struct qvGuests {
  qvMesh *const *mesh;  // the guests, each a shell of its own
  uint8_t *taken;       // per guest, set by the pass: 1 when it answers for it
  int32_t n;
  const double *shared;  // (x, y, z) triples, ascending: the host's joints where a
  int32_t nShared;       // shell that is neither the host nor its guest has a vertex
};

// For each of n shells, in host[i] the index of the shell it is a guest of,
// the one it shares most joint vertices with (the first among equals), or
// -1; and for each shell h that is no guest, as qvGuests wants them, the
// points where h has a joint vertex and a shell that is neither h nor one of
// h's guests has one too: shared[h] (malloc'd, null when none) and
// nShared[h]. The number of guests, or -1 (the arrays then hold what was
// made so far, for the caller to free).
[[nodiscard]] int32_t qvGuestsFind(qvMesh *const *shells, int32_t n, int32_t *host, double **shared,
                                   int32_t *nShared);

// One pass at the whole tolerance (high and medium methods). 0, or -1 on
// failure; *removed (may be null) gets the number of triangles removed.
// angle: fold angle in degrees, null for the default, negative to skip features.
[[nodiscard]] int32_t reduceOnePass(qvMesh *mesh, double tol, const double *angle, int32_t *removed);
// The same pass on a whole shell (high method): its open boundaries are its
// own, so rim vertices may slide along them. A block or a piece of a shell
// keeps its rims, some of which are borders with its neighbours.
[[nodiscard]] int32_t reduceWhole(qvMesh *mesh, double tol, const double *angle, int32_t *removed);
// reduceWhole on a host with the guests that lie on it (see qvGuestsFind):
// the pass answers for each guest it can take (guests->taken), whose
// triangles then lie within the tolerance of what the pass leaves; the
// caller drops those and reduces the others as shells of their own. guests
// may be null.
[[nodiscard]] int32_t reduceWholeWith(qvMesh *mesh, double tol, const double *angle, qvGuests *guests,
                                      int32_t *removed);
// The same pass trying only the shortest spoke of each vertex, its fan
// unfolded where it folds but not flipped, in list order with no order by
// cost: sweep after sweep, each removing vertices apart from one another,
// until every vertex left was refused on the final mesh (low method),
// likewise; at a tolerance of 0 it runs no pass.
[[nodiscard]] int32_t reduceQuick(qvMesh *mesh, double tol, const double *angle, int32_t *removed);

// ---- Engine flags ---------------------------------------------------------------
//
// During a pass the mesh holds two surfaces: the one the pass started from
// (adj) and the live one (aux where set, else adj). Base triangles belong to
// both, replacement triangles (kTriReplace) to the live one only, retired ones
// (kTriRetired) to the starting one only. The engine's marks, by phase, are
// in the table of marks in mesh/qvMesh.h; these are the bits that outlive a
// phase.

// qvEdg.flags
// At the end of a pass edges keep only their lasting bits. The mask has seven
// hex digits on purpose: besides the marks it clears kEdgReplace (0x4000000),
// so no replacement mark survives into the next pass.
constexpr uint32_t kEdgPassKeep = 0xBFFFFFFu;

// qvTri.flags
// At the end of a pass triangles keep only their lasting bits: the mask
// clears kTriReplace and kTriRetired too.
constexpr uint32_t kTriPassKeep = 0xFFFFFFu;

// qvVtx.flags
// Bits a vertex loses at the end of a pass: the marks it can carry and kVtxRetired.
constexpr uint32_t kVtxPassDrop = kVtxMarkVisit | kVtxMarkBnd | kVtxMarkEngine | kVtxRetired;

// ---- Parameters of a pass -------------------------------------------------------

struct qvCoverPool;  // the fragment corners of a pass (reduce/cover.cpp)

// The numbers of a pass, made from one tolerance t by qvRedParamsSet and
// completed by qvCoverStart.
struct qvRedParams {
  double tol;          // t: the pass's budget as a length
  double tol2;         // t * t: the order's limit
  double eta;          // the allowance for rounding, a share of the pass's largest coordinate
  double lim2;         // (t - eta)^2, rounded down: every certified bound is held to it
  qvCoverPool *pool;   // the pass's fragment corners; null outside a pass and at t = 0
  bool quick;          // each vertex tries its shortest spoke only, unflipped, in list order
  bool rims;           // rim vertices may slide along their loops: the mesh is a whole shell,
                       // whose open boundaries are all its own
};

// Whether v stays out of the pass's trials: hubs and seams always, rim
// vertices unless params lets them slide.
inline bool qvVtxStays(const qvVtx *v, const qvRedParams *params) {
  return (v->flags & kVtxKeepSet) || ((v->flags & kVtxRim) && !params->rims);
}

// Fills params from the tolerance t (lim2 = t * t, not quick, rims fixed, and no pool until
// qvCoverStart). 0, or -1 for a null params.
[[nodiscard]] int32_t qvRedParamsSet(double t, qvRedParams *params);

// ---- The engine's data form of a vertex -----------------------------------------
//
// During a pass every vertex has kVtxHasParam and not kVtxHasNormal, and its
// block reads: the parameter pair, x, y, z, score. The pair holds (u, v) from a
// ring's projection to the end of its flips. The handle points at the pair, so
// the planar tests read u and v straight through it.

constexpr int32_t kRedPairAt = 0;      // index of the parameter pair in the block
constexpr int32_t kRedXyzAt = 2;       // index of x, y, z
constexpr int32_t kRedScoreAt = 5;     // index of score
constexpr int32_t kRedDataSize = 6;    // doubles a vertex needs to take the engine's form
constexpr double kRedScoreNone = -1.0;  // score of a vertex that is no candidate now

// The score of a vertex in the engine's form: the double after its x, y, z.
inline double *qvScoreOf(const qvVtx *v) {
  double *xyz = qvVtxXyz(v);
  return xyz ? xyz + (kRedScoreAt - kRedXyzAt) : nullptr;
}

// Makes the vertices ready for a pass. Fails (-1) when a triangle bears a mark
// or lacks kTriLinked, or a vertex is derived, has fewer than kRedDataSize
// doubles, or touches no triangle; the vertices' link and aux are then null.
// Otherwise each vertex's link and aux name the last triangle of the list that
// touches it, and qvRedPrepFirst turns every vertex into the engine's form (pair
// zero, score kRedScoreNone), qvRedPrepPass only those not in it yet, so that
// the others keep their score. Result: the number of vertices turned, or -1.
[[nodiscard]] int32_t qvRedPrepFirst(qvMesh *mesh);
[[nodiscard]] int32_t qvRedPrepPass(qvMesh *mesh);

// ---- Feature classification ---------------------------------------------------

// Marks the edges where the surface folds by more than the angle (degrees; null
// for 10) as features (kEdgFeatureSet) and their ends with kVtxFeatureEnd. Each
// edge is judged once, by its first triangle in the list; a boundary edge, a
// fold too shallow to show at the tolerance (the lower triangle's height over
// the edge times the fold's sine, 1 past 90 degrees, at most tol), and a pair
// with a zero normal are not features. Result: the number of feature edges, 0 for a null
// mesh, -1 when a triangle's corners can't be read or params is null.
[[nodiscard]] int32_t qvRedFeatures(qvMesh *mesh, const double *angle, const qvRedParams *params);

// ---- Validity tests -------------------------------------------------------------

// The link condition of the spoke e of t from the vertex with handle v,
// whose ring vertices are the nRing handles of ring, in ascending order, and
// whose star has valence triangles: 1 when the rings of the two ends share
// only the two corners opposite e and no edge, 0 when not, -1 on failure (e
// not in t or not at v, no neighbour across e, an opposite corner not in the
// ring, a broken fan). When the test passes, farValence (may be null) gets
// the triangles round the far end.
[[nodiscard]] int32_t qvLinkTest(qvTri *t, qvEdg *e, const double *v, const double *const *ring, int32_t nRing,
                                 int32_t valence, int32_t *farValence = nullptr);

// Projects the ring of the vertex with handle p (t a triangle at it) onto the
// first of five planes in which it doesn't cross itself, leaving (u, v) in
// the ring vertices' pairs. ring is the ring's length when the star bears
// kMarkSet already, its triangles and ring edges at the heads of their lists;
// below 3 the routine marks the star itself and clears it again. 0 when a plane gives a simple ring, positive when none
// does, -1 on failure.
[[nodiscard]] int32_t qvRingProject(qvMesh *mesh, qvTri *t, const double *p, int32_t ring);

// One diagonal: the two triangles across it and its slot in each.
typedef qvQuad qvFlipRec;

// Whether the diagonal should be flipped, on the (u, v) of the quad's corners
// and the tags of the diagonal's ends: 1 flip, 0 don't, -1 on failure.
[[nodiscard]] int32_t qvFlipTest(const qvFlipRec *rec);

// ---- Passes -----------------------------------------------------------------------

// Scores every vertex, then sweeps in score order (qvRedSweep): a commit
// sends the trials it changed back into the order. Removed count, or -1
// (also for a null mesh).
[[nodiscard]] int32_t qvRedPass(qvMesh *mesh, const qvRedParams *params);
// Ends a pass: retired records go, live aux becomes adj, link lists and caches
// are released, and the pass's bits are cleared (kVtxPinned too unless
// keepFrozen). Vertices stay in the engine's form and keep link and aux, which
// the next preparation resets and which may name a triangle that is gone. The
// number of triangles left, or -1 for a null mesh.
[[nodiscard]] int32_t qvRedFinishPass(qvMesh *mesh, int32_t keepFrozen);
// Closes the open boundaries with provisional caps, so that every fan is
// closed during the passes. Loops closed, or -1.
[[nodiscard]] int32_t qvRedCapOpen(qvMesh *mesh);
// Takes the caps away again after the passes. Cap triangles deleted, or -1.
[[nodiscard]] int32_t qvRedCapDrop(qvMesh *mesh);

// Whole-mesh check in the middle of a pass, for tests and debug builds: every
// live triangle has a live neighbour across each edge that holds the edge and
// sees it back (the live surface is closed and symmetric), no live link leads
// to a retired triangle, and each live vertex's aux is a live triangle at it.
// Prints one line per violation to out (when not null); the number of them.
int32_t qvRedPassCheck(const qvMesh *mesh, FILE *out);
