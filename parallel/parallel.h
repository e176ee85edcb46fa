// Parallel reduction: cuts a shell into pieces, reduces the pieces side by
// side with a leaf of the engine, and joins them again.
//
// Invariants
//  1. Threads exist only inside the two entries; they have all ended when an
//     entry returns, before any mesh is written.
//  2. Each piece belongs to one thread at a time; no record is locked.
//  3. Seam vertices carry the pinned mark while they are shared by two pieces,
//     so neither side removes them.
//  4. The result depends on the processor count only, never on timing.
#pragma once

#include "mesh/qvMesh.h"

// One stitched shell with null next, as assembly leaves it (qvMeshCut),
// reduced on pieces side by side: medium with reduceOnePass and silent, low
// with reduceQuick and progress lines on standard output. The triangles taken out, or -1. Either way mesh again holds
// every triangle, in one set of lists, with null next.
[[nodiscard]] int32_t reduceParallelMedium(qvMesh *mesh, double tolerance, const double *angleRef);
[[nodiscard]] int32_t reduceParallelLow(qvMesh *mesh, double tolerance, const double *angleRef);

struct qvMeshPair;
// The first cut of the recursion, made ahead of the reduction, so that it can
// run on another thread while something else is reduced: 1 with pair
// holding the halves as qvMeshCut leaves them; 0 when the entries would not
// cut the shell (one processor, or a small shell), pair then (shell, null);
// -1 for a shell in a chain or a failed cut, pair (shell, null) and every
// record back in shell, which is good only for being freed.
[[nodiscard]] int32_t reduceParallelFirstCut(qvMesh *shell, qvMeshPair *pair);
// The entries on a shell whose first cut reduceParallelFirstCut made: the
// same result, leaves and progress lines as on the shell itself. They take
// both halves; afterwards cut->first holds every triangle, with null next,
// and cut->second is null. -1 with nothing taken when cut holds no such cut.
[[nodiscard]] int32_t reduceParallelMediumCut(qvMeshPair *cut, double tolerance, const double *angleRef);
[[nodiscard]] int32_t reduceParallelLowCut(qvMeshPair *cut, double tolerance, const double *angleRef);

// ---- Partition ----------------------------------------------------------------
//
// A cut gives two meshes that share no record and no adj: the lower part of
// the shell along its longest axis moves to a new mesh. The vertices on the
// cut stand once in each half, with equal coordinates, and both records carry
// kVtxPinned, which outlives the cut until the engine clears it at the end of
// the leaf that holds the vertex.

// The result of a cut: first is the mesh that was cut, now holding the upper
// part along the axis, and second a new mesh holding the lower part. Either
// may head a chain of pieces.
struct qvMeshPair {
  qvMesh *first;   // the mesh given to the cut, or null when a split took every triangle
  qvMesh *second;  // the new mesh, or null when nothing was split off
};
static_assert(sizeof(qvMeshPair) == 2 * sizeof(qvMesh *), "qvMeshPair grew");

// Sorts a triangle list by the corners of the triangles' boxes and returns the
// new head: direction 1 ascending, 0 descending; axis 0, 1, 2 names the first
// key (then the next axes cyclically); corner 0 the low corner, 1 the high
// one. Equal triangles keep their list order, and tag is zero afterwards.
// Null, with the list untouched, for an argument out of range, a null head, a
// head with a prev, a list over 268,435,455 triangles or no memory. Safe for
// two threads sorting different lists at once.
qvTri *qvTriSort(qvTri *head, int32_t direction, int32_t axis, int32_t corner);
// Chooses the sides of a cut: sorts the triangles ascending by the low corner
// along the longest axis of the box (x before y before z on equal extents),
// sets mask on the first count / 2 (count < 0: the list is counted) and
// clears it on the rest. A marked triangle with no marked neighbour then goes
// to the unmarked side; one with neighbours of both kinds sets kVtxPinned on
// the ends of its edges to unmarked ones. 0; -1 for a mesh of fewer than
// three vertices, a zero mask, or a marked triangle with no neighbour at all
// (mask is then clear again, pinned vertices stay).
[[nodiscard]] int32_t qvMeshHalve(qvMesh *mesh, int32_t count, uint32_t mask);
// Moves the triangles with a bit of mask to a new mesh with its own edges and
// vertices; an edge between the sides is copied into the moved triangle, and
// a vertex used by both sides is copied with clone. Records keep their
// relative order on both sides, and no mark stays. pair is always written:
// (mesh, null) and 0 when nothing is marked, or for a null mesh; (null, mesh)
// and 0, mask cleared, when everything is; (mesh, new) and 0 after a split.
// 1 on failure (pair (mesh, null)): a seam edge missing in its neighbour, a
// vertex with link set, a vertex no edge uses, two triangles sharing an edge
// without adj, no memory; the new records are then back in mesh's lists and
// mesh is good only for being freed.
[[nodiscard]] int32_t qvMeshSplit(qvMesh *mesh, uint32_t mask, qvVtx *(*clone)(const qvVtx *), qvMeshPair *pair);
// Gives a vertex at which boundary loops touch one record per pair of
// boundary edges (the copies made with clone), each taking over one fan of
// triangles. The number of records added, or -1 for a vertex with an odd
// number of boundary edges, a fan that doesn't end at a boundary edge of the
// vertex, or other failure. No mark stays.
[[nodiscard]] int32_t qvMeshUnpinch(qvMesh *mesh, qvVtx *(*clone)(const qvVtx *));
// Cuts one stitched, connected shell with a valid analysis and no marks into
// pair (count as for qvMeshHalve): each half is unpinched and split into its
// pieces, chained behind it. The shell comes as assembly and qvMeshShells
// leave every shell, its triangle list in the order of the shell flood, and
// each piece of a cut is given its list in that order as well. The triangles
// are laid out in memory on the way (qvTriPlace), in the order of the sort
// and then in the order of the pieces' lists; so a pointer to a triangle may
// name another one afterwards. 0, or -1 at the first failing step, with pair
// possibly half filled and the mesh given up as it stands.
[[nodiscard]] int32_t qvMeshCut(qvMesh *mesh, int32_t count, qvMeshPair *pair);

// ---- Recursion and rejoining --------------------------------------------------

// One level of the recursion of the medium and the low method, at depth + 1:
// a chain forks on its first mesh and the rest; a single mesh is cut and
// forks while the level is below maxDepth and it holds 5000 triangles or
// more; otherwise it is a leaf. The entries pass depth -1. The triangles
// taken out, or -1.
[[nodiscard]] int32_t reduceNodeMedium(qvMesh *mesh, double tolerance, const double *angleRef, int32_t depth,
                         int32_t maxDepth);
[[nodiscard]] int32_t reduceNodeLow(qvMesh *mesh, double tolerance, const double *angleRef, int32_t depth,
                      int32_t maxDepth);
// Appends the triangle, edge and vertex lists of pair->second to those of
// pair->first, frees pair->second and sets it null. Nothing else: no vertex
// is merged and no adj is linked across the seam; first keeps its place in
// any chain. 0, or -1 with nothing changed when either mesh is null, both
// are the same, or second heads a chain (whose rest would be lost).
[[nodiscard]] int32_t qvMeshJoin(qvMeshPair *pair);
