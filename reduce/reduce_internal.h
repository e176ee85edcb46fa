// Helpers of the reduction engine, used only inside reduce/ and by its tests:
// the five projection planes of a ring, the parts of the flip test, and the
// levels of the deviation measure.
#pragma once

#include <limits>

#include "reduce/reduce.h"

// ---- Opening a star -------------------------------------------------------------

constexpr int32_t kValenceMin = 3;  // the fewest triangles round a vertex: a closed fan
constexpr uint32_t kFanMarkMode = kFanMoveEdg | kFanMoveTri;  // marked star at the list heads

// The star of a vertex as a trial or a removal opens it.
struct qvStarView {
  qvTri *start;  // the triangle the vertex's fan is entered at (its aux)
  qvEdg *spoke;  // the spoke the vertex collapses along
  bool clean;    // every spoke considered passed and the ring projects simply
};

// Picks the spoke of v, marks its star with kMarkSet at the list heads and,
// while the star is clean, projects the ring and fills the valences. Returns
// -1 for a failure before anything was marked, 1 when no spoke qualifies
// (nothing marked), and 0 when the star is marked: *err then says whether
// the marking, projection or valences failed, and the caller unmarks.
int32_t qvStarOpen(qvMesh *mesh, qvVtx *v, qvStarView *star, int32_t *err);

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

// A reference triangle as one measure sees it: its corners read once, and a
// ball that holds it, which bounds its distance from below so that most
// triangles of a search need no distance at all.
struct qvDevRef {
  qvTri *tri;
  const double *h[3];    // corner handles
  const double *xyz[3];  // corner coordinates
  double centre[3];      // centroid
  double radius;         // largest distance from centre to a corner
  double scale;          // largest coordinate magnitude of the corners
  uint32_t flags;        // the list node's own flags, given back at the end
};
// Reference lists up to this long get the table; longer ones (stars of very
// high valence) are read from the records as they stand.
constexpr int32_t kDevRefMax = 64;

// What one measure carries through its levels.
struct qvDevRun {
  const qvRedParams *params;  // tol2 for the early stop, leaf2 for the split limit
  int32_t *err;               // set to -1 on failure; every level stops when it is
  int32_t calls;              // levels entered so far, against kDevCallBudget
  qvDevRef *refs;             // the reference table, or null; while it is set,
                              // each node of the reference list holds its
                              // entry's index + 1 in flags
  int32_t nRefs;
};

// A level this deep measures its triangle at the corners only: 64 halvings
// take an edge below the resolution of the doubles of its ends.
constexpr int32_t kDevDepthMax = 64;
// Splits one measure may make. With leaf2 zero (a tolerance of 0) splitting
// need not end; a measure that spends its budget returns kDevTooFar, which
// refuses the removal. A distance that isn't a number counts as kDevTooFar too.
constexpr int32_t kDevCallBudget = 1 << 14;
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

// ---- Vertex removal (star copies, collapse, flips, grafting) ----------------------
//
// A removal copies the star of a vertex into a small qvMesh of its own,
// collapses the chosen spoke in the copy, may improve the new fan by Delaunay
// flips, and, for a commit, grafts the copy into the mesh in place of the star.
// A triangle of a copy holds its source triangle in link until the copy is
// retired or thrown away; a replacement triangle in the mesh holds in link a
// qvLnk list of the removed vertices buried under it.

// Copies the star of the vertex with handle p (t a live triangle at it): one
// new edge per spoke (same ends, tag and flags but marks), one new triangle per
// star triangle with its source in link; inner edges join the copy's
// triangles through aux, ring edges are the mesh's own. With outerMark, each
// ring edge gets it and the copy's slot takes adj and aux from the source.
// keep must be 1 (the engine always copies; moving the sources is not
// supported). The copy, or null with the mesh's marks cleared again.
qvMesh *qvStarCopy(qvMesh *mesh, qvTri *t, const double *p, uint32_t outerMark, int32_t keep);
// The valences when v collapses onto w, with a and b the corners opposite the
// spoke: w gains v.tag - 4, a and b lose one each. 0, or -1 when a valence
// would fall below 3 (nothing is changed then).
int32_t qvValenceCollapse(qvVtx *v, qvVtx *w, qvVtx *a, qvVtx *b);
// Collapses v along the first edge of the copy bearing mark onto the edge's
// other end: the two triangles on the edge go, their neighbours in the copy
// take over the ring edges. 0, or -1 for a missing or cap edge, a hub end, a
// broken copy or a valence failure.
int32_t qvCollapse(qvMesh *copy, qvVtx *v, uint32_t mark);
// Flips the diagonal of rec: each triangle takes one outer edge of the other
// and the new diagonal (kEdgMarkVisit, at the head of the copy's edges)
// replaces the old one, which is freed. 0, or -1 for a bad record or a
// valence that the flip would break.
int32_t qvFlipOp(qvMesh *copy, const qvFlipRec *rec);
// Delaunay flips over the inner edges of the copy until none is made. The
// number of flips, or -1.
int32_t qvFlipSweep(qvMesh *copy);
// The triangles of the starting surface under the marked star (kMarkSet.tri at
// the head of the triangle list): the base triangles of the star and the old
// fans of every vertex buried under its replacement triangles, caps left out.
// m marks them meanwhile. The star's triangles stay a head run. Null with *err
// -1 on failure, null with *err 0 for an empty patch.
qvLnk *qvOldPatch(qvMesh *mesh, uint32_t m, int32_t *err);
// The live replacement triangles round the ring of the marked star of v that
// are not in the star. Clears the ring's vertex marks. *err as for qvOldPatch.
qvLnk *qvNewNeighbours(qvMesh *mesh, qvVtx *v, const qvMarkSet *marks, int32_t *err);
// The ring vertices of the marked star, hubs left out, each once (their vertex
// marks are cleared). *err as for qvOldPatch; a retired ring vertex fails.
qvLnk *qvRingVertices(qvMesh *mesh, const qvMarkSet *marks, int32_t *err);
// Retires the sources of the copy's triangles (base ones keep their place with
// kTriRetired, replacement ones die in qvTriReap) and gathers the vertices
// buried under them, with a node for v in front. The list, or null with *err -1.
qvLnk *qvStarRetire(qvMesh *mesh, qvMesh *copy, qvVtx *v, int32_t *err);
// Frees replaced replacement triangles (a qvLnk list, freed too) with the edges
// that only they shared.
void qvTriReap(qvMesh *mesh, qvLnk *list);
// Gives each removed vertex (a qvLnk list, consumed) to the nearest triangle
// of the copy, and makes the copy's triangles the live entry (aux) of their
// corners. 0, or -1.
int32_t qvRemovedSpread(qvMesh *copy, qvLnk *removed);
// Writes the copy's triangles into aux of their neighbours across the edges
// bearing m (clearing it), then moves the copy's records into the mesh and
// frees the copy. 0, or -1 for a neighbour that doesn't hold the edge.
int32_t qvStarGraft(qvMesh *copy, qvMesh *mesh, uint32_t m);

// The order of a sweep (candidates.cpp): the vertex list's order kept in an
// index for the length of a sweep.
struct qvRedOrder;

// Removes v for good along its shortest admissible spoke: 0 removed, 1 no
// spoke (nothing changed), -1 failure (the mesh is given up). Full rescores
// the ring and merges it back into order; fast takes it out of the pass.
// order may be null outside a sweep: the ring is then rescored or unscored
// and the list stays as it is.
int32_t qvVtxRemoveFull(qvMesh *mesh, qvVtx *v, const qvRedParams *params, qvRedOrder *order);
int32_t qvVtxRemoveFast(qvMesh *mesh, qvVtx *v, const qvRedParams *params, qvRedOrder *order);

// ---- Removal candidates -----------------------------------------------------------

// The spoke of v to collapse along, starting from t, a live triangle at v:
// the shortest that passes the link test, not a cap edge, and for a feature
// end a feature spoke (none at all when the ring has an odd number of feature
// edges). *blocked gets the number of spokes that fail the link test, or -1
// on failure (the result is then null). Leaves no mark.
qvEdg *qvSpokePick(qvMesh *mesh, qvTri *t, qvVtx *v, int32_t *blocked);
// Scores v by a trial removal on a copy of its star: its score becomes the
// squared deviation, or kRedScoreNone. 0 scored or excluded, 1 no spoke, -1
// failure. The mesh is unchanged apart from the score and the order of
// marked records at the list heads.
int32_t qvVtxScore(qvMesh *mesh, qvVtx *v, const qvRedParams *params);
// The order of candidates: ascending score, every vertex without a score
// behind every vertex with one, and equal scores equal (no tie-break).
int32_t qvVtxScoreCmp(const qvVtx *a, const qvVtx *b);
// Sorts a list of n vertices (n < 0: counted first) by qvVtxScoreCmp and
// relinks it. The new head; *err is set to -1 when n doesn't match the list
// or no memory can be had, and the list then stands as it was.
qvVtx *qvVtxSortScore(qvVtx *head, int32_t n, int32_t *err);
// Scores every vertex in list order and sorts the list. Vertices visited, or -1.
int32_t qvRedScoreAll(qvMesh *mesh, const qvRedParams *params);
// Remove vertices from the head of the order while the score is within tol2.
// Removed count, or -1.
//
// The list is the order: retired vertices first, then ascending scores (a
// vertex entering goes behind its equals), then the vertices without a score
// in the order they were sent there. During a sweep that order is kept in a
// qvRedOrder, so that placing a vertex costs a logarithm rather than a walk,
// and the list is relinked to it when the sweep ends.
int32_t qvRedSweepFull(qvMesh *mesh, const qvRedParams *params);
int32_t qvRedSweepFast(qvMesh *mesh, const qvRedParams *params);
// After a full removal: rescores each ring vertex (a qvLnk list, consumed)
// and merges the ring back into the order. 0, or -1.
int32_t qvRingRescore(qvMesh *mesh, qvRedOrder *order, qvLnk *ring, const qvRedParams *params);
// The ring (consumed), sorted by qvVtxScoreCmp, enters the order: each vertex
// with a score behind its equals, the others at the tail. 0, or -1.
int32_t qvRingMerge(qvRedOrder *order, qvLnk *ring);
// After a fast removal: the ring (consumed) is out for the rest of the pass,
// without a score, at the tail. 0, or -1.
int32_t qvRingDefer(qvRedOrder *order, qvLnk *ring);
// Sends the ring vertices (consumed) to the tail in ring order. 0, or -1.
int32_t qvRingPark(qvRedOrder *order, qvLnk *ring);

// ---- The budget of a stepped run --------------------------------------------------

// What reduceStepped has spent of its tolerance, pass by pass.
struct qvRedBudget {
  double total;    // the whole tolerance, T
  double spent;    // charged so far, the pass about to run included
  double step;     // the tolerance of the pass about to run
  double ratio;    // share of the triangles that the last pass removed
  int32_t passes;  // passes run so far
};

// A budget of total (greater than 0) before its first pass.
qvRedBudget qvRedBudgetStart(double total);
// Charges the next pass: 1 with step and spent set (the pass is the full,
// closing one when spent has reached total), 0 when the budget is spent or
// its rest is too small for a closing pass. The caller sets ratio and counts
// passes after each pass.
int32_t qvRedBudgetNext(qvRedBudget *b);

// ---- List helpers -----------------------------------------------------------------

inline void qvTriToHead(qvMesh *mesh, qvTri *t) {
  if (mesh->tri == t) return;
  mesh->tri = qvTriConcat(t, qvTriUnlinkList(mesh->tri, t));
}
inline void qvEdgToHead(qvMesh *mesh, qvEdg *e) {
  if (mesh->edg == e) return;
  mesh->edg = qvEdgConcat(e, qvEdgUnlink(mesh->edg, e));
}
