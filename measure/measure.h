// FacetMeasure: what a reduction did to a surface. Reads two STL files, welds
// each exactly, counts their topology and size, checks that the reduced
// vertices are original vertices, and measures the one-sided Hausdorff distance
// both ways over dense samples with a bounding-volume hierarchy of its own.
// From original to reduced it also certifies the distance: a lower and an upper
// bound of the largest distance of any point of the original surface, found by
// adaptive subdivision (the bound section below states the method and its
// rounding allowance).
//
// Invariants
//  1. A MeasureMesh is welded exactly: no two of its vertices have bitwise-equal
//     coordinates, so 0.0 and -0.0 are different vertices. Vertices are numbered
//     in order of first appearance in the file, facets keep file order, and every
//     index in `tri` is below `vertexCount`.
//  2. An edge is an unordered pair of distinct vertices that are corners of one
//     facet. A facet lies on each of its edges once, so a facet with a repeated
//     corner has fewer than three edges. `edge` is sorted by (low, high) index
//     and is null until measureTopology has run.
//  3. A shell is a set of facets joined across edges that exactly two facets
//     share. A shell is closed when each of its edges lies on exactly two of its
//     own facets, whatever other shells meet there.
//  4. Functions print nothing. Failure is a negative status: -1 malformed input
//     (non-finite coordinates included), -2 unreadable, -3 out of memory or more
//     than 2^31 - 1 facets or vertices, -4 a record not prepared as documented.
//  5. Every figure is the same for any thread count: samples are cut into chunks
//     that depend on the mesh alone, each chunk is measured by one thread from a
//     clean start, and the chunks' partial results are combined in chunk order.
//     The certified bounds evaluate each piece from a clean start and gather
//     each level in piece order.
//  6. The distance from any set of samples to a surface without facets is
//     +infinity; from a surface without facets to any surface it is 0 over 0
//     samples.
//  7. Records own nothing by themselves: each pointer field is released by the
//     matching free function, which leaves the record zeroed.
//  8. A certified bound holds for every point of the surface, not only for the
//     points evaluated: lower <= max over x in `from` of d(x, to) <= upper, the
//     rounding allowance included in both. A refinement stopped by a limit reports
//     the bounds it has, never a smaller upper bound.
#pragma once

#include <cstdint>
#include <cstdio>

// ---- Welded surface ---------------------------------------------------------

struct MeasureMesh {
  float *xyz;          // coordinates, three per vertex
  int32_t *tri;        // corner vertex indices, three per facet, in file order
  int32_t *edge;       // low and high vertex index per edge, sorted; null before measureTopology
  int64_t vertexCount; // distinct vertices
  int64_t facetCount;  // facets in the file
  int64_t edgeCount;   // distinct edges; 0 before measureTopology
};
static_assert(sizeof(MeasureMesh) == 48, "MeasureMesh is three arrays and three counts");

// Reads a binary or ASCII STL file of any size and welds it.
// Facet count, or -1 malformed, -2 unreadable, -3 out of memory or too large.
int64_t measureRead(const char *name, MeasureMesh *mesh);
// Welds `facetCount` facets of nine floats each into `mesh`; as measureRead.
int64_t measureWeld(const float *corners, int64_t facetCount, MeasureMesh *mesh);
void measureMeshFree(MeasureMesh *mesh);

// Vertices of `reduced` that are not bitwise vertices of `original`, or -3.
// first: index of the first of them in `reduced`, or -1 when there is none.
int64_t measureSubset(const MeasureMesh *original, const MeasureMesh *reduced, int64_t *first);

// ---- Topology and size --------------------------------------------------------

struct MeasureTopo {
  int64_t facets;           // facets in the file
  int64_t vertices;         // welded vertices
  int64_t edges;            // distinct edges
  int64_t shells;           // facet sets joined across two-facet edges
  int64_t closedShells;     // shells whose every edge lies on two of their facets
  int64_t boundaryEdges;    // edges on one facet
  int64_t nonManifoldEdges; // edges on three or more facets
  int64_t degenerateFacets; // facets of zero area or with a repeated corner
  double area;              // sum of the facet areas
  double volume;            // signed volume by the divergence theorem
  float box[6];             // minimum x, y, z then maximum x, y, z; zero without vertices
};
static_assert(sizeof(MeasureTopo) == 104, "MeasureTopo is eight counts, two sizes and a box");

// Fills `topo` and the mesh's edge table. 0, -3 out of memory, -4 for a null record.
int measureTopology(MeasureMesh *mesh, MeasureTopo *topo);

// ---- Distances ------------------------------------------------------------------

// Squared distance from p to the closed triangle abc, in double, and the closest
// point when `closest` is not null. Degenerate triangles (a segment or a point)
// are measured as the union of their sides.
double measurePointTriangle(const double p[3], const double a[3], const double b[3],
                            const double c[3], double closest[3]);

// One node of the nearest-point hierarchy.
struct MeasureNode {
  float box[6];  // minimum x, y, z then maximum x, y, z of the triangles below
  int32_t first; // inner node: index of the left child, the right one follows; leaf: first slot
  int32_t count; // leaf: triangles in slots [first, first + count); 0 for an inner node
};
static_assert(sizeof(MeasureNode) == 32, "MeasureNode is a box and two indices");

// Median-split axis-aligned box tree over the facets of one mesh.
struct MeasureTree {
  MeasureNode *node; // nodes, the root first; null for a mesh without facets
  float *corner;     // nine coordinates per slot, slots in leaf order
  int32_t nodeCount; // nodes in use
  int32_t slotCount; // triangles, one per facet
};
static_assert(sizeof(MeasureTree) == 24, "MeasureTree is two arrays and two counts");

// 0, -3 out of memory, -4 for a mesh that is not welded.
int measureTreeBuild(const MeasureMesh *mesh, MeasureTree *tree);
// Squared distance from p to the nearest triangle, +infinity for an empty tree.
// hint: a slot to try first, or -1; on return the slot of the nearest triangle.
double measureTreeNearest(const MeasureTree *tree, const double p[3], int32_t *hint);
void measureTreeFree(MeasureTree *tree);

constexpr int64_t kMeasureSampleCap = 50000000; // samples per direction unless told otherwise

// How a surface is sampled.
struct MeasureSampling {
  double step;      // largest gap between samples along an edge or across a facet
  int64_t cap;      // most samples; the step grows until the count fits
  bool edgeSamples; // sample the inside of every edge
  bool faceSamples; // sample the inside of every facet
};

// One-sided Hausdorff distance from a sampled surface to another.
struct MeasureDistance {
  double max;      // largest distance over the samples; +infinity to an empty surface
  double mean;     // mean distance over the samples
  double rms;      // root mean square distance over the samples
  double at[3];    // the sample where the largest distance lies; the first one on ties
  int64_t samples; // samples taken
  double step;     // spacing used, larger than asked when the cap bit
  bool capped;     // the spacing was grown to keep the sample count under the cap
};
static_assert(sizeof(MeasureDistance) == 72, "MeasureDistance: figures, a point, a count, a flag");

// Samples `from` (after measureTopology) and measures each sample's distance to
// `to` on `threads` threads. 0, -3 out of memory, -4 for records not prepared.
int measureDistance(const MeasureMesh *from, const MeasureTree *to, const MeasureSampling *sampling,
                    int threads, MeasureDistance *out);

// ---- Certified bound ----------------------------------------------------------------
//
// Each facet of `from` is a piece; pieces are split 1:4 at their side midpoints.
// For a piece P with corners q_k, R the reduced surface and d(x, R) the distance:
//  - lower: the largest d(q, R) at a point q of P evaluated (corners, centre);
//  - upper, the least of
//    (a) one triangle: for a reduced triangle T, d(x, R) <= d(x, T), which is
//        convex in x, so max_k d(q_k, T) bounds all of P. T is tried among the
//        nearest triangles of the corners and of the centre.
//    (b) ball: P lies within max_k |q_k - c| of its centre c, so
//        d(c, R) + max_k |q_k - c| bounds all of P.
//    (c) pair: two of those triangles sharing an edge; the plane through that
//        edge bisecting their dihedral angle cuts P into two convex parts, each
//        bounded as in (a) against the triangle on its side, from its corners and
//        the two crossing points. Coplanar triangles (flat regions, where the
//        nearest triangle changes inside a piece at distance 0) settle this way.
//    Every distance in an upper bound is to a witness point built on T as a
//    convex combination of its corners, so it is a true upper bound however
//    ill-shaped T is; only rounding separates it from the exact one.
//  - refinement, level by level: L is the largest lower bound so far; a piece
//    is settled when its upper bound is at most the target (see below); the
//    others are split. Whole levels are evaluated in parallel, each piece from a
//    clean start, and L, the settled pieces and the next level are gathered in
//    piece order, so every figure is the same for any thread count.
//  - targets: deciding against a tolerance T, a piece settles when upper <= T,
//    and the run stops as soon as L > T. Without T a piece settles when
//    upper - L <= max(1e-3 upper, 1e-9 diagonal, 4 allowance): the allowance
//    itself cannot be refined away. The diagonal is that of the box of both.
//  - limits: no piece is split deeper than kBoundDepth levels below its facet,
//    and at most kBoundPieces pieces are evaluated beyond the facets. When a level
//    would pass the budget, the open pieces with the largest upper bounds (ties
//    to the earlier piece) are split first and the run stops after that level.
//    A run stopped by a limit reports the upper bound of its open pieces.
//
// Rounding allowance. Coordinates are floats, widened to double exactly. Let S
// be the largest coordinate magnitude of either mesh and u = 2^-53. A point the
// bound builds (a piece corner a + s (b - a) + t (c - a) with dyadic s, t; a
// witness on a reduced triangle; a crossing point on a side of a piece) takes
// at most three roundings per coordinate of terms below 2S, so it lies within
// 6 sqrt(3) u S < 11 u S of an exact point of the set it stands for; a crossing
// point builds on a corner, so within 11 + 7 u S. A computed length (|p - q|,
// or the sum of two for the ball) carries a relative error below 5.5 u. An
// upper bound involves at most two built points (ball: a corner and the centre's
// witness, the centre itself need not lie anywhere; (a): a corner and its
// witness; (c): a crossing point and its witness, 29 u S), so every upper
// bound is raised to computed (1 + 8 u) + delta with delta = 32 u S, and every
// lower bound is lowered to computed (1 - 8 u) - delta. In all delta plus the
// relative term stays below 32 u S + 8 u (2 sqrt(3) S) < 60 u S, under the
// engine's smallest eta, 64 u S. The lower bound takes the distance from the
// nearest-triangle search, whose plane test uses a computed normal; for a facet
// of `to` so thin that its normal is not correct to a few units in the last
// place, the lower bound can exceed its allowance (the upper bound cannot).
// An original facet whose corners are all, bitwise, corners of one reduced
// triangle lies in it: its upper bound is exactly 0, without allowance, so
// identical surfaces certify 0 and pass a tolerance of 0. Any other piece has
// an upper bound of at least delta, so a positive tolerance below delta is
// undecided without refinement.

constexpr int kBoundDepth = 30;               // deepest split of a facet; its grid fits 32 bits
constexpr int64_t kBoundPieces = 1 << 23;     // pieces evaluated beyond the facets themselves
constexpr double kBoundGap = 1e-3;            // without a tolerance: upper - lower over upper
constexpr double kBoundDiagonalGap = 1e-9;    // or upper - lower over the diagonal

constexpr int32_t kVerdictWithin = 0;    // upper <= tolerance
constexpr int32_t kVerdictBeyond = 1;    // lower > tolerance
constexpr int32_t kVerdictUndecided = 3; // a limit or the allowance left the tolerance between the bounds
constexpr int32_t kVerdictNone = -1;     // no tolerance was given

// Certified bounds of the one-sided distance from a surface to another.
struct MeasureBound {
  double lower;     // some point of `from` is at least this far from `to`; +infinity to an empty surface
  double upper;     // no point of `from` is further than this; 0 from an empty surface
  double allowance; // delta, the rounding allowance inside both bounds
  int64_t pieces;   // pieces evaluated, the facets included
  int32_t depth;    // deepest split level evaluated
  int32_t verdict;  // kVerdict* against the tolerance, kVerdictNone without one
  bool limited;     // the depth or piece limit stopped the refinement before its target
};
static_assert(sizeof(MeasureBound) == 48, "MeasureBound: three figures, two counts, verdict, flag");

// Bounds the distance from `from` (welded) to the surface of `to` on `threads`
// threads. With `decide`, refines until the bounds settle `tolerance` (any finite
// value, 0 and negative ones included); otherwise until the gap target above.
// 0, -3 out of memory, -4 for records not prepared or a tolerance not finite.
[[nodiscard]] int measureBound(const MeasureMesh *from, const MeasureTree *to, bool decide,
                               double tolerance, int threads, MeasureBound *out);

// ---- Report -----------------------------------------------------------------------

// Everything FacetMeasure reports about one pair of files.
struct MeasureReport {
  const char *originalName;           // file name as given
  const char *reducedName;            // file name as given
  MeasureTopo original;               // counts and size of the original
  MeasureTopo reduced;                // counts and size of the reduced file
  int64_t subsetViolations;           // reduced vertices that are not original vertices
  float subsetFirst[3];               // the first of them, when there is one
  MeasureDistance originalToReduced;  // the bound a reduction promises
  MeasureDistance reducedToOriginal;  // how far the reduced surface strays
  MeasureBound bound;                 // certified bounds of original -> reduced
  double tolerance;                   // the bound to check, any finite value when `decide`
  bool decide;                        // a tolerance was given
};

// The verdict as FacetMeasure's exit status: 1 when a reduced vertex is not an
// original one or the bound's verdict is beyond the tolerance, 3 when the
// bound's verdict is undecided, 0 otherwise (also without a tolerance).
int measureStatus(const MeasureReport *report);
// Writes the report as text lines, or as one JSON object on one line.
void measureWriteText(FILE *file, const MeasureReport *report);
void measureWriteJson(FILE *file, const MeasureReport *report);
