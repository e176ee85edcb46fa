// FacetMeasure: what a reduction did to a surface. Reads two STL files, welds
// each exactly, counts their topology and size, checks that the reduced
// vertices are original vertices, and measures the one-sided Hausdorff distance
// both ways over dense samples with a bounding-volume hierarchy of its own.
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
//  6. The distance from any set of samples to a surface without facets is
//     +infinity; from a surface without facets to any surface it is 0 over 0
//     samples.
//  7. Records own nothing by themselves: each pointer field is released by the
//     matching free function, which leaves the record zeroed.
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
  double tolerance;                   // the bound to check; negative when none was given
};

// 1 when a tolerance was given and the original strays beyond it or a reduced
// vertex is not an original one; 0 otherwise.
int measureFails(const MeasureReport *report);
// Writes the report as text lines, or as one JSON object on one line.
void measureWriteText(FILE *file, const MeasureReport *report);
void measureWriteJson(FILE *file, const MeasureReport *report);
