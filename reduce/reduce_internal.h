// Helpers of the reduction engine, used only inside reduce/ and by its tests:
// the five projection planes of a ring, the parts of the flip test, the
// covers and the trial removal.
#pragma once

#include <cstdio>

#include "kernels/alloc.h"
#include "reduce/reduce.h"

// Grows arr, reallocated, to room for need items, doubling from first. false
// when no memory can be had; arr and cap then stand as they were.
template <class T>
inline bool qvGrow(T *&arr, int32_t &cap, int32_t need, int32_t first = 32) {
  if (need <= cap) return true;
  int32_t next = cap ? cap * 2 : first;
  while (next < need) next *= 2;
  void *mem = ftRealloc(arr, sizeof(T) * static_cast<size_t>(next));
  if (!mem) return false;
  arr = static_cast<T *>(mem);
  cap = next;
  return true;
}

// ---- Opening a star -------------------------------------------------------------

constexpr int32_t kValenceMin = 3;  // the fewest triangles round a vertex: a closed fan
constexpr uint32_t kFanMarkMode = kFanMoveEdg | kFanMoveTri;  // marked star at the list heads

// The spokes a removal tries, shortest first: the shortest kSpokeTries, of
// which the certified score picks, and the next ones up to kSpokeMax only
// when those are all refused. One: the score then picks between the
// shortest spoke's fans, flipped and not. A wider pick among spokes that all
// pass tends to take longer ones, which leaves the vertices round them less
// room, so the model keeps more, and the extra tries cost time: the dragon
// at 0.1 % kept 0.5 % more with two, in 15 % more time, and 7 % more with
// four.
constexpr int32_t kSpokeTries = 1;
constexpr int32_t kSpokeMax = 12;
struct qvSpokes {
  qvEdg *e[kSpokeMax];
  int32_t n;
  int32_t blocked;  // spokes that fail the link test
  bool untested;    // a first pick: spokes past e[0] were not tested
};

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
[[nodiscard]] int32_t qvPlaneRingCubic(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                         double plane[4]);
// Sum of the unnormalised normals of the star's triangles.
[[nodiscard]] int32_t qvPlaneAreaSum(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                       double plane[4]);
// Sum of the unit normals of the star's triangles.
[[nodiscard]] int32_t qvPlaneUnitSum(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                       double plane[4]);
// Sum of the spoke vectors from each neighbour to the vertex, each spoke once
// from each of its two triangles.
[[nodiscard]] int32_t qvPlaneSpokeSum(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                        double plane[4]);
// Least-squares plane of the ring vertices, by Jacobi rotations.
[[nodiscard]] int32_t qvPlaneRingJacobi(qvMesh *mesh, const double *p, int32_t ring, const qvMarkSet *marks,
                          double plane[4]);

// The rows in the order they are tried.
constexpr int32_t kPlaneRows = 5;
extern const qvPlaneFn qvPlaneTable[kPlaneRows];

// Writes (u, v) in the plane's frame into the pair of each vertex of the marked
// ring, whose vertex marks stay as they were. 0, or -1 when the plane has no
// frame or the ring doesn't have exactly ring vertices in the engine's form.
[[nodiscard]] int32_t qvRingToPlane(qvMesh *mesh, const double plane[4], int32_t ring, const qvMarkSet *marks);
// 1 if two edges of the marked ring cross or overlap in (u, v), other than
// neighbours touching at their shared end; 0 if none do; -1 when the ring
// doesn't have exactly ring edges between vertices in the engine's form.
[[nodiscard]] int32_t qvRingSimple(qvMesh *mesh, int32_t ring, const qvMarkSet *marks);

// ---- Flip test --------------------------------------------------------------------

// 1 when both ends of the diagonal have a valence (tag) of 4 or more and the
// two triangles have no neighbour in common, 0 if not, -1 for a bad record.
[[nodiscard]] int32_t qvFlipSafe(const qvFlipRec *rec);
// 1 when the far apex lies strictly within the circle of the other three
// corners in (u, v), as both orders of the quad agree; 0 if not (a cocircular
// or a degenerate quad included); -1 for a bad record.
[[nodiscard]] int32_t qvQuadDelaunay(const qvFlipRec *rec);

// ---- Covers -------------------------------------------------------------------------

// A piece of the pass's starting surface: a starting triangle, or a fragment
// of one cut at midpoints, or a flat piece. Its corners point at vertex
// coordinates or at points of the pass's pool; both live until the pass
// ends.
//
// A flat piece is the triangle that holds it: it stands for the parts of the
// starting surface that lie in that triangle, in its plane, at distance 0. A
// removal whose fan keeps the plane of a star triangle drops the flat pieces
// and the measured pieces inside it there, and each fan triangle of that
// plane holds itself instead; any other removal measures a flat piece like
// any other piece, as the triangle it is (it lies in the star).
constexpr int32_t kPieceSingle = -1;  // kind of a piece held by its home alone
constexpr int32_t kPieceFlat = -2;    // kind of a flat piece
struct qvPiece {
  const double *q[3];  // corners
  const qvTri *src;    // the starting triangle it is part of; null for a flat piece and its fragments
  float bound;         // its certified squared bound, rounded up: the order of evaluation only
  int32_t kind;        // kPieceSingle, kPieceFlat, or the home's slot across which its partner lies
};

// The pieces a live non-cap triangle answers for, hung on its link: this
// header with the pieces right after it, in one block. A trial reads them
// by bound, largest first: a commit leaves every cover in that order, the
// pieces of equal bound in the order they came.
struct qvCover {
  int32_t n;
  int32_t cap;
  uint32_t pairs;   // bit s: a piece may have its partner across the home's slot s
  int32_t unsorted; // 1 when a piece came in above the one before it
};
static_assert(sizeof(qvCover) % alignof(qvPiece) == 0, "the pieces follow the header");
inline qvPiece *qvCoverPieces(qvCover *c) { return reinterpret_cast<qvPiece *>(c + 1); }
inline const qvPiece *qvCoverPieces(const qvCover *c) { return reinterpret_cast<const qvPiece *>(c + 1); }

// Adds a piece to t's cover, making the cover on first use. 0, or -1.
[[nodiscard]] int32_t qvCoverAdd(qvTri *t, const qvPiece &piece);
// Frees t's cover and clears its link.
void qvCoverFree(qvTri *t);
// Completes params for a pass over mesh: eta from the largest coordinate
// magnitude, lim2, the pool, and a cover of itself for every triangle but
// the caps (none at a tolerance of 0). 0, or -1.
[[nodiscard]] int32_t qvCoverStart(qvMesh *mesh, qvRedParams *params);
// Frees the covers of mesh and the pool of params.
void qvCoverEnd(qvMesh *mesh, qvRedParams *params);

// A triangle as a trial sees it: corners read once, its normal, and the
// homes across its edges.
struct qvHome {
  qvTri *tri;
  const double *h[3];  // corner handles in cycle order
  const double *x[3];  // corner coordinates
  double ab[3];        // x1 - x0
  double ac[3];        // x2 - x0
  double bc[3];        // x2 - x1
  double n[3];         // ab x ac
  double nn;           // |n|^2
  bool plane;          // not a needle: the distance may be taken to the plane inside
  int32_t nb[3];       // index of the home across edg[k], or -1
};
// Fills home from t. 0, or -1 when t's corners can't be read.
[[nodiscard]] int32_t qvHomeSet(qvHome *home, qvTri *t);
// The squared distance from p to the triangle of t, never below the true one
// by more than the rounding that eta allows; +inf when it isn't a number.
double qvHomeDist2(const qvHome &t, const double *p);
// Sets the neighbours of n homes: nb[k] is the home that holds edg[k] too.
void qvHomeLink(qvHome *homes, int32_t n);
// The best bound of a piece with corners q held by one of n linked homes, or
// by a pair of them across a shared edge, without splitting: the squared
// distance the certificate proves for every point of the piece (+eta), or
// +inf.
double qvPieceBound(const double *const q[3], qvHome *homes, int32_t n);
// The bound of the piece with corners q held by home t and its neighbour u
// across t's side s, the piece cut by the plane that bisects their angle
// there; +inf when there is no such plane.
double qvPairBound(const double *const q[3], const qvHome &t, int32_t s, const qvHome &u);
// A squared bound as a piece keeps it: the nearest float not below it.
float qvBoundKey(double bound);
// Puts t's cover back in the order trials read it, bounds descending and
// equal ones in the order they came, after qvCoverAdd took a piece above
// the last.
void qvCoverSort(qvTri *t);

// ---- Guests ---------------------------------------------------------------------

// Takes the guests into the covers of mesh, a host whose pass has started
// (qvCoverStart): a guest is taken when each of its triangles lies within
// lim of a live triangle of mesh round a vertex they share, alone or with a
// neighbour, and its triangles then join those covers whole, as pieces of
// the starting surface. Then a joint of mesh stays only where two of its
// vertices meet, where guests->shared names the point, or where a guest not
// taken has a vertex, and a joint edge only while both its ends stay.
// guests->taken tells which were taken. Their number, or -1.
[[nodiscard]] int32_t qvGuestsTake(qvMesh *mesh, const qvRedParams *params, qvGuests *guests);

// One piece placed by a trial, and one pair piece it takes from a cover
// round the ring.
struct qvPlanItem {
  int32_t home;  // index into the trial's homes
  qvPiece piece;
};
struct qvTaken {
  qvTri *tri;
  int32_t index;
};

// A corner of a star and the triangles round it.
struct qvValence {
  qvVtx *v;
  int32_t n;
};

// A plane of a star that the fan keeps: the fan's triangles in it cover the
// region of the star's, and both turn as sense in the coordinate plane that
// leaves out axis drop.
struct qvPlaneKept {
  bool kept;
  bool held;  // a piece of the star was dropped there: the fan's triangles there hold themselves
  int32_t drop;
  int32_t sense;
};

// A piece that a trial must place again, and its key in the worst-first
// order: the complement of its bound's bits above its place in the
// gathering, the tie-break, so that keys ascend as bounds descend.
struct qvAffected {
  const qvPiece *piece;
  uint64_t key;
};

// A run of pieces in the worst-first order, a cover's own or listed ones,
// and how far a trial has read it.
struct qvPieceRun {
  const qvPiece *pieces;    // a cover's pieces, or null
  const qvAffected *list;   // else the listed pieces
  int32_t n;
  int32_t at;
  const qvPiece *head() const { return pieces ? pieces + at : list[at].piece; }
};

// A trial removal: the star's copy with the spoke collapsed and the fan
// flipped, the certificate of every piece it displaces, and the plan that a
// commit applies. A trial is made on the current mesh and committed, or
// dropped, before the mesh changes. Its arrays are kept for the next trial.
struct qvTrial {
  qvVtx *v;
  qvTri *start;         // the triangle at v its star was entered at
  qvMesh *copy;         // the new fan; ring edges bear kEdgMarkOuter while it lives
  bool clean;           // the ring projected simply and the fan was flipped
  bool unsure;          // clean as far as the spokes tested tell: the others were not
  bool flat;            // a clean star whose ring lies exactly in one plane
  double score;         // the largest certified squared bound; +inf when refused
  int32_t err;          // -1 after a failure
  qvTri **star;         // the star's triangles
  int32_t nStar, starCap;
  qvTri **near;         // the live non-cap triangles across the ring edges
  int32_t nNear, nearCap;
  qvVtx **ring;         // the ring's vertices, hubs left out, each once
  int32_t nRing, ringCap;
  qvValence *valences;  // of a clean star: the triangles round each corner, set in tags while a spoke is tried
  int32_t nValences, valencesCap;
  qvHome *homes;        // the new fan, then near
  int32_t nHomes, homesCap;
  bool linked;          // the homes' neighbours are set (qvHomeLink): on first need
  qvPlanItem *plan;
  int32_t nPlan, planCap;
  qvTaken *taken;
  int32_t nTaken, takenCap;
  const double **rowKey;  // corners whose distances to every home are known
  double *rows;           // their distances, one row of nHomes each
  int32_t nRows, rowKeyCap, rowsCap;
  int32_t *slots;         // open-addressed index of rowKey
  int32_t slotCount;
  int32_t fragments;      // fragments made by this trial
  int32_t *group;         // per star triangle, then per fan triangle: the star triangle heading its plane,
                          // as far as it is known
  int32_t groupCap;
  qvPlaneKept *planes;    // per star triangle heading a plane: whether and how the fan keeps it
  int32_t planesCap;
  const double **sideEnds;  // room for the sides of a plane's triangles, while it is grouped
  int32_t sideEndsCap;
  bool grouped;           // group holds this trial's planes, as far as they are grouped
  qvAffected *affected;   // the pieces the trial places again that it lists, each list worst first
  int32_t affectedCap;
  qvPieceRun *runs;       // the sorted runs of pieces it merges, worst first
  int32_t runsCap;
  qvPiece *shelf;         // room to sort a cover on commit
  int32_t shelfCap;
  double beat;            // the score to beat: a trial that can't is refused early
  const qvPiece *critical;  // the piece the merge placed last at a new score: it holds the score
  const qvPiece *probe;     // a piece of the star to weigh before the others, against beat; or null
  double lim2;
  qvCoverPool *pool;
  qvTrial *spare;         // where the next spoke is tried, made on first use
  int32_t only = -1;      // the try made alone (see qvTrialRun); -1: all of them
  int32_t spoke;          // the try the trial kept
  int32_t flips;          // Delaunay flips made in the copy
  qvEdg *features[2];     // ring edges the commit marks as features (qvCollapse)
  double weight;         // of a score of 0: the area of the star (qvStarArea); else 0
  double area;           // the star area of v that the order holds, when above 0; else unknown
};

// The vertices whose trials a commit of tr changes: those of its ring, whose
// stars changed, and the far corners of the triangles round the ring, whose
// stars lost pieces to the new fan or now border it. fn(vertices, count,
// ring) is called for each group while it returns 0, ring true for the
// ring; its first other result, or 0.
template <class Fn>
int32_t qvTrialTouched(const qvTrial *tr, Fn fn) {
  int32_t done = fn(tr->ring, tr->nRing, true);
  for (int32_t i = 0; i < tr->nNear && done == 0; ++i) {
    qvVtx *corners[3];
    done = qvTriCornerVtx(tr->near[i], 0, corners) == 0 ? fn(corners, 3, false) : -1;
  }
  return done;
}

// The area of the live non-cap triangles round v, in the order of its fan;
// +inf when the fan can't be walked.
double qvStarArea(qvVtx *v);

// Certifies the pieces the trial's removal displaces, against its fan and
// the live triangles round its ring; sets score and fills the plan. At a
// tolerance of 0 it tests instead whether the fan covers exactly what the
// star covered. 0, or -1 on failure.
[[nodiscard]] int32_t qvTrialCertify(qvTrial *tr, const qvRedParams *params);
// Moves the pieces of a committed trial into their homes' covers. 0, or -1.
[[nodiscard]] int32_t qvTrialApply(qvTrial *tr);
// Releases the arrays of a trial that holds no copy.
void qvTrialFree(qvTrial *tr);
// 0 when the piece lies within lim of its home (and partner), 1 otherwise.
[[nodiscard]] int32_t qvCoverCheckPiece(const qvTri *home, const qvPiece &piece, const qvRedParams *params);
// Whole-pass check, for tests and debug builds: every cover belongs to a
// live non-cap triangle and is in worst-first order, every piece is
// certified afresh, and the pieces of each starting triangle add up to its
// area. The number of violations.
[[nodiscard]] int32_t qvCoverCheck(const qvMesh *mesh, const qvRedParams *params, FILE *out);

// ---- Vertex removal (star copies, collapse, flips, grafting) ----------------------
//
// A removal copies the star of a vertex into a small qvMesh of its own,
// collapses the chosen spoke in the copy, may improve the new fan by Delaunay
// flips, and, for a commit, grafts the copy into the mesh in place of the star.
// A triangle of a copy holds its source triangle in link until the copy is
// grafted or thrown away; a live triangle of the mesh holds its cover there.

// Copies the star of the vertex with handle p (t a live triangle at it): one
// new edge per spoke (same ends, tag and flags but marks), one new triangle per
// star triangle with its source in link; inner edges join the copy's
// triangles through aux, ring edges are the mesh's own: each gets outerMark
// and the copy's slot takes adj and aux from the source. The copy, or null
// with the mesh's marks cleared again.
qvMesh *qvStarCopy(qvMesh *mesh, qvTri *t, const double *p, uint32_t outerMark);
// The valences when v collapses onto w, with a and b the corners opposite the
// spoke: w gains v.tag - 4, a and b lose one each. 0, or -1 when a valence
// would fall below 3 (nothing is changed then).
[[nodiscard]] int32_t qvValenceCollapse(qvVtx *v, qvVtx *w, qvVtx *a, qvVtx *b);
// Collapses v along the first edge of the copy bearing mark onto the edge's
// other end: the two triangles on the edge go, their neighbours in the copy
// take over the ring edges. 0, or -1 for a missing or cap edge, a hub end, a
// broken copy or a valence failure. Where a feature spoke of v goes with
// one of those triangles, the ring edge that takes its place becomes a
// feature: at once when the copy owns it, else it is put in features (two
// slots, one per triangle, null when none; features may be null) for the
// commit to mark.
[[nodiscard]] int32_t qvCollapse(qvMesh *copy, qvVtx *v, uint32_t mark, qvEdg **features);
// Flips the diagonal of rec: each triangle takes one outer edge of the other
// and the new diagonal (kEdgMarkVisit, at the head of the copy's edges)
// replaces the old one, which is freed. 0, or -1 for a bad record or a
// valence that the flip would break.
[[nodiscard]] int32_t qvFlipOp(qvMesh *copy, const qvFlipRec *rec);
// When the fan from w in the copy (a collapse onto w, ring in (u, v)) folds
// over in (u, v), flips it into a triangulation of the ring by clipped ears.
// The copy is of a star that passes the link test at every spoke, as for
// qvFlipSweep. 0 when the fan is unfolded or didn't fold, 1 when it stays as
// it is (a ring too long or degenerate, no ear, a valence or a ring edge in
// the way), -1 for a copy not as expected.
[[nodiscard]] int32_t qvFanUnfold(qvMesh *copy, const double *w, bool anyRing);
// Delaunay flips over the inner edges of the copy (ring edges, which bear
// kEdgMarkOuter, stay) until none is made. The copy is of a star that
// passes the link test at every spoke: no edge outside it joins two of its
// ring vertices, so a new diagonal can only double a ring edge, and no fan
// outside the copy is walked to find out. The number of flips, or -1.
[[nodiscard]] int32_t qvFlipSweep(qvMesh *copy);
// Retires the n triangles of a star that copy replaces: base ones keep their
// place with kTriRetired, replacement ones are freed with the edges only they
// shared; the covers of both go, and the copy's triangles forget their
// sources. 0, or -1.
[[nodiscard]] int32_t qvStarRetire(qvMesh *mesh, qvTri *const *star, int32_t n, qvMesh *copy);
// Writes the copy's triangles into aux of their neighbours across the edges
// bearing m (clearing it) and into aux of their corners, then moves the
// copy's records into the mesh and frees the copy. 0, or -1 for a neighbour
// that doesn't hold the edge.
[[nodiscard]] int32_t qvStarGraft(qvMesh *copy, qvMesh *mesh, uint32_t m);

// Makes a trial removal of v on the current mesh into tr (whose arrays are
// reused), along up to kSpokeTries spokes, shortest first, until one is
// certified within eta, and keeps the best: 0 with tr->copy, tr->score and
// tr->spoke set, 1 when v is no candidate or has no further spoke (tr holds
// no copy), -1 on failure. With tr->only set, the spoke in that place alone
// is tried (the last one when there are fewer); with params->quick, the
// shortest spoke alone, its fan not flipped. The mesh is unchanged apart
// from the order of records at the list heads and the mark on the ring edges.
[[nodiscard]] int32_t qvTrialRun(qvMesh *mesh, qvVtx *v, const qvRedParams *params, qvTrial *tr);
// Throws the trial's copy away and clears the ring edges' mark.
void qvTrialDrop(qvTrial *tr);
// Commits the trial: the star is retired, the copy grafted, the plan
// applied. 0, or -1 (the mesh is given up).
[[nodiscard]] int32_t qvTrialCommit(qvMesh *mesh, qvTrial *tr, const qvRedParams *params);

// The order of a sweep (candidates.cpp): the vertex list's order kept in an
// index for the length of a sweep.
struct qvRedOrder;

// Removes v for good, by a trial on the current mesh committed when its
// score is within lim2 and no greater than the next key of order: 0
// removed, 1 refused or no spoke, 2 not committed as the score lies behind
// the next key (tr->score holds it), -1 failure (the mesh is given up).
// order may be null outside a sweep.
[[nodiscard]] int32_t qvVtxRemove(qvMesh *mesh, qvVtx *v, const qvRedParams *params, qvRedOrder *order,
                                  qvTrial *tr);

// ---- Removal candidates -----------------------------------------------------------

// The spokes of v to collapse along, starting from t, a live triangle at v:
// the up to kSpokeTries shortest that pass the link test, are no cap edge,
// and for a feature end are feature spokes, so that it moves along a
// feature line only (one with no feature spoke left is a plain vertex);
// ties in star order. 0 with *out filled (out->n may be
// 0), or -1 on failure. Leaves no mark.
[[nodiscard]] int32_t qvSpokePick(qvMesh *mesh, qvTri *t, qvVtx *v, qvSpokes *out);
// The same on the star of v bearing kMarkSet at the list heads with ring
// vertices; the marks stay. With valences, v and every far end that passes
// the link test get in tag the triangles round them. With first, only the
// shortest admissible spoke that passes is sought: the spokes are tested in
// order of length up to it, out->e[0] is that spoke, blocked counts the
// ones before it, and out->untested tells that the rest were not tested
// (the far ends then get no tag).
[[nodiscard]] int32_t qvSpokePickMarked(qvMesh *mesh, qvVtx *v, int32_t ring, bool valences, bool first,
                                        qvSpokes *out);
// Scores v by a trial removal along its shortest spoke: its score becomes the
// certified squared deviation (+inf when refused), or kRedScoreNone when it is no candidate.
// 0 scored or excluded, 1 no spoke, -1 failure. The mesh is unchanged apart
// from the score and the order of records at the list heads.
[[nodiscard]] int32_t qvVtxScore(qvMesh *mesh, qvVtx *v, const qvRedParams *params, qvTrial *tr);
// Scores every vertex in list order, then removes vertices from the head of
// the order while its key is within tol2. Removed count, or -1.
//
// The order is a queue of keys: each vertex enters at its score, and a
// vertex without one waits at the tail. Among scores of 0 the vertex with
// the smaller star comes first, so that a flat face thins out evenly rather
// than in fans that grow across it, and a commit brings the keys of 0 round
// it up to its ring's new stars; other ties keep the order of the list. The
// head is tried again on the current mesh, and that very trial is
// committed when its score is within lim2 and its key no greater than the
// next one; else the vertex goes back at its new key. A
// commit does not rescore its neighbourhood: it brings every vertex whose
// trial it changed (qvRingDirty) back to a key within tol2, so that the
// sweep ends only when every vertex left was tried on the final mesh. A
// vertex that goes back keeps the place of the spoke its trial chose, until
// a commit changes its surroundings: tried again, it tries that spoke alone,
// and every spoke only if that one is refused. When the sweep ends the list
// is relinked: retired vertices first, then the order.
//
// With params->quick the sweep keeps no order: it tries the vertices in list
// order, each along its shortest spoke, and commits every trial within lim2;
// the vertices a commit changes wait for the next sweep, and sweeps go on
// while any waits. The vertices' scores hold the sweep's states meanwhile.
[[nodiscard]] int32_t qvRedSweep(qvMesh *mesh, const qvRedParams *params, qvTrial *tr);
// After a removal: the vertices it touched whose key lies above the
// tolerance, or that have none, enter the order again at the squared
// tolerance, so that each is tried on the changed mesh before the sweep
// ends; the others keep their keys and are tried again when they come up,
// every spoke of them. A key of 0 is weighed again by the vertex's star
// area when ring says the stars changed. 0, or -1.
[[nodiscard]] int32_t qvRingDirty(qvRedOrder *order, qvVtx *const *touched, int32_t n, bool ring,
                                  const qvRedParams *params);
// Whether a trial of this score and weight comes behind the head of the
// order; false when the order is empty or null.
bool qvRedOrderBehind(qvRedOrder *order, double score, double weight);
