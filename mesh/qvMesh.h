// Mesh model: the records of a triangulated surface, their lists, and the
// small editing primitives that every later stage is written on.
//
// Invariants of a mesh at rest. qvMeshValidate checks them and cites these
// numbers in its messages.
//
//  1. Lists are null-ended chains without sentinel: the head's prev is null,
//     r.next.prev == r for every record, and no list runs in a cycle. A mesh
//     chain obeys the same rule through qvMesh.prev and qvMesh.next.
//  2. Every record is in exactly one list: a vertex in the mesh's vtx list,
//     an edge in edg, a triangle in tri. held is null, and edgHeld and
//     triHeld are empty.
//  3. A vertex's dat points at the doubles directly behind its header unless
//     kVtxOwnBlock says it is a block of its own; ndat is positive and holds
//     at least what the data bits (kVtxDataMask) ask for.
//  4. Each edge end is the handle (dat) of a vertex in the mesh's vertex
//     list, with inline data and without kVtxDerived, and the two ends of an
//     edge are different handles.
//  5. Each triangle has kTriLinked and three different edges of the mesh's
//     edge list; qvTriCorners reads its cycle from edg[0] and edg[1], and
//     edg[2] joins corner 2 to corner 0.
//  6. adj is symmetric across the shared edge: if t.adj[i] == n, then n is
//     another triangle of the mesh, n.edg[j] == t.edg[i] for some j, and
//     n.adj[j] == t.
//  7. Each edge is in one or two triangles. In a stitched mesh (kMeshStitched)
//     the two triangles of an edge are joined by adj across it.
//  8. Working fields are clear at rest: vertex link (except the owner of a
//     derived vertex), tag and aux; edge link and own; triangle link, tag,
//     cache and aux. The operation that uses them clears them again. A vertex
//     in the reduction's data form (kVtxHasParam) is the one exception: its
//     link and aux stay from the last pass, may name records that are gone,
//     and are reset by the next preparation, so they are neither checked nor
//     followed.
//  9. No mark at rest: bits of kMarkMask are clear on every vertex, edge and
//     triangle. (The mesh's own kMeshCapDone has the same value and is not a
//     mark.)
// 10. In a stitched mesh no two edges that are each in two triangles join
//     the same two vertices, except spokes of a cap (kEdgCap), one for each
//     passage of its loop through a pinched vertex. Pieces of a pulled-apart
//     edge, each in one triangle, may share their ends.
//
// Marked sets follow the head-run convention: a pass that marks records moves
// them to the head of their list, and a walker over the marked set stops at
// the first unmarked record. New records are prepended, so lists stand in
// reverse order of creation unless reversed.
//
// Results: a routine that finds or counts returns the count or pointer, and
// -1 or null for failure; a routine that only acts returns 0, and 1 or -1 for
// failure. List routines and routines on a mesh accept null as an empty list
// or as a failure, without touching anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>

struct qvTriCache;  // working block of the distance routines (kernels/)
struct qvTri;

// ---------------------------------------------------------------------------
// Flags. On vertices, edges and triangles, bits of kMarkMask are marks: the
// operation that sets one clears it again. All other bits stay for the
// record's life unless a routine says otherwise.

constexpr uint32_t kMarkMask = 0xF0000000u;  // marks on vertices, edges and triangles
constexpr uint32_t kMarkKeep = 0x0FFFFFFFu;  // everything but the marks

// qvVtx.flags
constexpr uint32_t kVtxOwnBlock = 0x1u;           // dat is a block of its own, not inline data
constexpr uint32_t kVtxRim = 0x2u;                // on a boundary loop over which a cap was built
constexpr uint32_t kVtxNoCensus = 0x4u;           // left out of the boundary census and vertex count
constexpr uint32_t kVtxDerived = 0x8u;            // no coordinates: they are those of the vertex in link
constexpr uint32_t kVtxHasNormal = 0x10u;         // data block has the normal slot
constexpr uint32_t kVtxHasExtra = 0x20u;          // data block has the further value
constexpr uint32_t kVtxHasParam = 0x40u;          // data block starts with the parameter pair
constexpr uint32_t kVtxFeatureEnd = 0x80u;        // end of a feature edge
constexpr uint32_t kVtxHub = 0x100u;              // hub of a cap: middle vertex of a closed loop
constexpr uint32_t kVtxPinned = 0x200u;           // engine: not to be removed (seam of a cut)
constexpr uint32_t kVtxJoint = 0x400u;            // where sheets the input joined were split apart
constexpr uint32_t kVtxRetired = 0x2000000u;      // engine: removed vertex of the running pass
constexpr uint32_t kVtxMarkEngine = 0x20000000u;  // mark: engine's working mark
constexpr uint32_t kVtxMarkBnd = 0x40000000u;     // mark: end of a marked edge; side in a cut
constexpr uint32_t kVtxMarkVisit = 0x80000000u;   // mark: visited; side in a cut
constexpr uint32_t kVtxDataMask = kVtxDerived | kVtxHasNormal | kVtxHasExtra | kVtxHasParam;
constexpr uint32_t kVtxNotCounted = kVtxNoCensus | kVtxDerived;   // out of the census (0xC)
constexpr uint32_t kVtxKeepSet = kVtxHub | kVtxPinned;  // never put forward for removal (0x300)

// qvEdg.flags
constexpr uint32_t kEdgFeature = 0x1u;            // feature edge, always with kEdgFeature2
constexpr uint32_t kEdgRim = 0x2u;                // boundary edge over which a cap was built
constexpr uint32_t kEdgJoint = 0x4u;              // piece of an edge the input gave more than two triangles
constexpr uint32_t kEdgFeature2 = 0x800u;         // feature edge, second bit of the pair
constexpr uint32_t kEdgExtField = 0x7000u;        // extended edge form code: reserved, always zero here
constexpr uint32_t kEdgPlain = 0x40000u;          // plain edge record
constexpr uint32_t kEdgExtended = 0x80000u;       // extended edge record
constexpr uint32_t kEdgCap = 0x100000u;           // provisional: edge of a cap
constexpr uint32_t kEdgReplace = 0x4000000u;      // engine: edge of a replacement triangle
constexpr uint32_t kEdgMarkSwap = 0x10000000u;    // mark: ends exchanged for a walk; second reap count
constexpr uint32_t kEdgMarkSpoke = 0x20000000u;   // mark: spoke under collapse; first reap count
constexpr uint32_t kEdgMarkBnd = 0x40000000u;     // mark: selected for a boundary walk
constexpr uint32_t kEdgMarkVisit = 0x80000000u;   // mark: visited
constexpr uint32_t kEdgFeatureSet = kEdgFeature | kEdgFeature2;           // 0x801
constexpr uint32_t kEdgNoFlipSet = kEdgCap | kEdgFeatureSet | kEdgRim | kEdgJoint;  // never flipped (0x100807)

// qvTri.flags
constexpr uint32_t kTriLinked = 0x1u;             // record has adj and aux; every triangle here has it
constexpr uint32_t kTriSignPos = 0x2u;            // turns counterclockwise in a plane
constexpr uint32_t kTriSignNeg = 0x4u;            // turns clockwise in a plane
constexpr uint32_t kTriLongOne = 0x20000u;        // long form with one extra slot, never made here
constexpr uint32_t kTriLongMore = 0x40000u;       // long form with more slots, never made here
constexpr uint32_t kTriCap = 0x100000u;           // provisional: triangle of a cap
constexpr uint32_t kTriRetired = 0x2000000u;      // engine: starting surface only
constexpr uint32_t kTriReplace = 0x4000000u;      // engine: replacement, live surface only
constexpr uint32_t kTriMarkFlood = 0x40000000u;   // mark: reached by the orientation flood
constexpr uint32_t kTriMarkVisit = 0x80000000u;   // mark: visited; degenerate on its way out
constexpr uint32_t kTriSignSet = kTriSignPos | kTriSignNeg;
constexpr uint32_t kTriLongSet = kTriLongOne | kTriLongMore;

// ---------------------------------------------------------------------------
// Marks by phase. Each phase names the mark bits it uses after the base
// names above; two phases whose marks stand at once must not share a bit,
// and the asserts below say so for each such pair.

// A boundary walk (census, caps): marked edges and their ends, and the edges
// whose ends the walk exchanged.
constexpr uint32_t kWalkVtxBit = kVtxMarkBnd;
constexpr uint32_t kWalkEdgBit = kEdgMarkBnd;
constexpr uint32_t kWalkSwapBit = kEdgMarkSwap;

// The engine's trial: the star of the vertex it works on bears kMarkSet, the
// spoke it collapses kEdgMarkSpoke and the collapsing vertex
// kVtxMarkCollapse; the ring edges of the trial's copy bear kEdgMarkOuter
// until the trial is committed or dropped.
struct qvMarkSet {
  uint32_t vtx;  // on the ring's vertices
  uint32_t edg;  // on the ring's edges (the edges opposite the centre)
  uint32_t tri;  // on the star's triangles
};
constexpr qvMarkSet kMarkSet = {kVtxMarkVisit, kEdgMarkVisit, kTriMarkVisit};
constexpr uint32_t kVtxMarkCollapse = kVtxMarkEngine;
constexpr uint32_t kEdgMarkOuter = kEdgMarkBnd;
static_assert((kMarkSet.edg & (kEdgMarkSpoke | kEdgMarkOuter)) == 0 && (kEdgMarkSpoke & kEdgMarkOuter) == 0,
              "a trial's edge marks");
static_assert((kMarkSet.vtx & kVtxMarkCollapse) == 0, "a trial's vertex marks");

// The engine's commit: it reaps the star with two counts per edge, which the
// spoke and swap marks lend, while kEdgMarkOuter still stands.
constexpr uint32_t kEdgReapOnce = kEdgMarkSpoke;   // edge met in one reaped triangle
constexpr uint32_t kEdgReapTwice = kEdgMarkSwap;   // edge met in a second one
constexpr uint32_t kEdgReapCount = kEdgReapOnce | kEdgReapTwice;
static_assert((kEdgReapOnce & kEdgReapTwice) == 0, "two reap counts, two bits");
static_assert((kEdgReapCount & kEdgMarkOuter) == 0, "reaping keeps the ring mark");

// The flip sweep in a trial's copy: it leaves alone the edges it has
// examined (kEdgMarkVisit) and the ring (kEdgMarkOuter).
constexpr uint32_t kEdgFlipDone = kEdgMarkVisit | kEdgMarkOuter;
static_assert((kEdgMarkVisit & kEdgMarkOuter) == 0 && (kEdgFlipDone & kMarkMask) == kEdgFlipDone,
              "the flip sweep's marks are two marks");

// qvMesh.flags
constexpr uint32_t kMeshStitched = 0x1u;          // adj is valid; the topology analysis may run
constexpr uint32_t kMeshPass2 = 0x2u;             // cleared by every marking pass, set by nothing here
constexpr uint32_t kMeshPass4 = 0x4u;             // cleared by every marking pass, set by nothing here
constexpr uint32_t kMeshOwnsVtx = 0x80u;          // the vertices are released with the mesh
constexpr uint32_t kMeshSortX = 0x200u;           // vertex list sorted by x
constexpr uint32_t kMeshSortY = 0x400u;           // vertex list sorted by y
constexpr uint32_t kMeshSortZ = 0x800u;           // vertex list sorted by z
constexpr uint32_t kMeshSortDesc = 0x1000u;       // sort request only: descending; never stored
constexpr uint32_t kMeshEdgExtra = 0x400000u;     // edges carry an extra record in own; never set here
constexpr uint32_t kMeshCapDone = 0x10000000u;    // cap building ended on its plain path; read by nobody
constexpr uint32_t kMeshSortedSet = kMeshSortX | kMeshSortY | kMeshSortZ;
constexpr uint32_t kMeshPassSet = kMeshPass2 | kMeshPass4;

// ---------------------------------------------------------------------------
// Records. All four main records begin with flags, prev and next.

// A vertex. The header stands directly in front of its inline doubles, and
// dat, the vertex handle, points at them: qvVtxOf steps back one header.
// The data block holds, in order and only when the flags ask: the parameter
// pair (kVtxHasParam), x y z (unless kVtxDerived), the normal slot
// (kVtxHasNormal), the further value (kVtxHasExtra).
struct qvVtx {
  uint32_t flags;  // kVtx* bits
  int32_t tag;     // working counter; zero at rest
  qvVtx* prev;     // previous vertex in its list, null at the head
  qvVtx* next;     // next vertex in its list, null at the tail
  void* link;      // by phase: owner of a derived vertex, merge target, qvLnk list, twin, ...
  void* aux;       // working pointer: spoke edge while a cap is built, live triangle in a pass
  double* dat;     // the handle: the data block, inline unless kVtxOwnBlock
  int32_t ndat;    // how many doubles the data block holds
  int32_t slot;    // working index: its place in a sweep's tables; zero at rest
};
static_assert(sizeof(qvVtx) == 56, "qvVtx header grew");
static_assert(sizeof(qvVtx) % alignof(double) == 0, "inline doubles must stay aligned");

// An edge. It stores vertex handles, never qvVtx pointers: two ends are the
// same vertex exactly when their handles are equal.
struct qvEdg {
  uint32_t flags;   // kEdg* bits
  int32_t tag;      // caller's number, copied when an edge is duplicated
  qvEdg* prev;      // previous edge in its list, null at the head
  qvEdg* next;      // next edge in its list, null at the tail
  void* link;       // by phase: qvLnk list of triangles, the one triangle, a spoke's triangle
  qvTri* own;       // working pointer: a triangle to be linked across this edge
  double* ends[2];  // first and second end, as vertex handles
  int32_t tag2;     // second number, carried across a cut
  int32_t pad;      // always zero
};
static_assert(sizeof(qvEdg) == 64, "qvEdg grew");

// A triangle. It stores no vertices: its corners follow from edg[0] and
// edg[1] (qvTriCorners), and its orientation is the order of its edges.
struct qvTri {
  uint32_t flags;    // kTri* bits
  int32_t tag;       // working number; zero at rest
  qvTri* prev;       // previous triangle in its list, null at the head
  qvTri* next;       // next triangle in its list, null at the tail
  void* link;        // engine: qvLnk list of removed vertices, or source of a copy
  qvTriCache* cache; // distance routines' block (malloc'd, freed with the triangle); null at rest
  qvEdg* edg[3];     // the edges in cycle order
  qvTri* adj[3];     // adj[i] is across edg[i], null on a boundary
  qvTri* aux[3];     // engine: live neighbour across edg[i] where it differs from adj; null at rest
};
static_assert(sizeof(qvTri) == 112, "qvTri grew");

// The result of analysing one mesh: nine signed 32-bit values in this order.
struct qvTopo {
  int32_t nVtx;    // vertices without kVtxNoCensus and kVtxDerived
  int32_t nEdg;    // edges in the list
  int32_t nTri;    // triangles in the list
  int32_t nBnd;    // boundary edges
  int32_t nLoop;   // boundary loops
  int32_t euler;   // nVtx - nEdg + nTri
  int32_t orient;  // 0 consistent, 2 turned into consistency, 3 not orientable
  int32_t genus;   // genus, or cross-caps of a surface that can't be oriented
  int32_t result;  // result code of the analysis, 0 for a valid surface
};
static_assert(sizeof(qvTopo) == 36, "qvTopo grew");

// One triangulated piece; meshes chain through prev and next, one per shell.
struct qvMesh {
  uint32_t flags;  // kMesh* bits
  int32_t pad;     // always zero
  qvMesh* prev;    // previous mesh of the chain
  qvMesh* next;    // next mesh of the chain
  qvTopo* topo;    // topology record, malloc'd and owned; null until asked for
  qvVtx* vtx;      // head of the vertex list
  qvEdg* edg;      // head of the edge list
  qvTri* tri;      // head of the triangle list
  qvVtx* held;     // tail of the vertex list kept by a fast sweep; null at rest
  qvEdg* edgHeld;  // edges held aside while stitching; empty at rest
  qvTri* triHeld;  // triangles held aside while stitching; empty at rest
};
static_assert(sizeof(qvMesh) == 80, "qvMesh grew");

// A node of a reference list, for a record that is in several lists at once.
// It doesn't own item. A list of them lives within one operation.
struct qvLnk {
  uint32_t flags;  // given at creation; the reduction passes 0
  int32_t pad;     // always zero
  qvLnk* prev;     // previous node
  qvLnk* next;     // next node
  void* item;      // the record referred to
};
static_assert(sizeof(qvLnk) == 32, "qvLnk grew");

// A bounding box: pointers to the smallest x, y, z, then the largest x, y, z.
typedef double* qvBox[6];

// ---------------------------------------------------------------------------
// Vertex data.

// The record of a handle: one header back from the inline data.
inline qvVtx* qvVtxOf(const double* h) {
  return reinterpret_cast<qvVtx*>(reinterpret_cast<char*>(const_cast<double*>(h)) - sizeof(qvVtx));
}
// Doubles the data bits of flags ask for.
[[nodiscard]] int32_t qvVtxDataSize(uint32_t flags);
// x, y, z of v, through its owner for a derived vertex (one level); null
// when v is null or a derived vertex has no owner. Inline: the walks that
// read every corner of a mesh call it millions of times.
inline double* qvVtxXyz(const qvVtx* v) {
  if (!v) return nullptr;
  if (v->flags & kVtxDerived) {
    const qvVtx* owner = static_cast<const qvVtx*>(v->link);
    if (!owner || !owner->dat) return nullptr;
    return owner->dat + ((owner->flags & kVtxHasParam) ? 2 : 0);
  }
  if (!v->dat) return nullptr;
  return v->dat + ((v->flags & kVtxHasParam) ? 2 : 0);
}
// The normal slot of v, or null when it has none.
double* qvVtxNrm(const qvVtx* v);

// ---------------------------------------------------------------------------
// Creation and release. Every record is one heap allocation; a failed
// allocation gives null.

// A vertex with flags (kVtxOwnBlock is cleared: the data is always inline).
// With srcDat, a vertex handle, its vertex gives ndat and the doubles are
// copied; otherwise ndat follows from flags and the doubles start at zero.
// Null when ndat isn't positive or is short of what flags ask for.
qvVtx* qvVtxNew(uint32_t flags, const double* srcDat);
// A copy of v with its flags (marks included; kVtxOwnBlock cleared, as the
// copy's data is inline), data and tag; in no list.
qvVtx* qvVtxClone(const qvVtx* v);
void qvVtxFree(qvVtx* v);
// A plain edge h0 -> h1. The extended form isn't made: a non-zero
// kEdgExtField in flags is refused with null.
qvEdg* qvEdgNew(double* h0, double* h1, uint32_t flags, int32_t tag);
void qvEdgFree(qvEdg* e);
// A linked triangle on e0, e1, e2; all other fields zero.
qvTri* qvTriNew(qvEdg* e0, qvEdg* e1, qvEdg* e2, uint32_t flags);
// Frees the triangle and its cache block.
void qvTriFree(qvTri* t);
qvMesh* qvMeshNew(qvTri* tri, qvEdg* edg, qvVtx* vtx, uint32_t flags);
// Frees topo, the triangles, the edges (held ones included), the vertices
// when kMeshOwnsVtx is set, then the mesh. Leaves prev and next alone.
void qvMeshFree(qvMesh* m);
qvLnk* qvLnkNew(uint32_t flags, void* item);
void qvLnkFree(qvLnk* l);
// A zeroed topology record for qvMesh.topo.
qvTopo* qvTopoNew();

// ---------------------------------------------------------------------------
// Lists: the routines below, for each record type whose lists need them.
// Prepending r to a list is Concat(r, head):
// one step, whereas Concat(head, r) walks the whole list.
//
//   Concat(a, b)           appends b to a; the new head (b if a is empty)
//   Unlink(head, r)        takes r out, its prev and next nulled; new head
//   Delete(head, r)        unlinks and frees r; new head
//   DeleteAll(head)        frees the whole list; 0
//   DeleteFlagged(h, m, n) frees each record with a bit of m; new head, and
//                          the number freed through n when n isn't null
//   AndAll(head, m)        flags &= m on each record; 0
//   OrAll(head, b)         flags |= b on each record; 0
//   Count(head)            number of records
//   Tail(head)             last record, null for an empty list
//
// Deleting a mesh frees it with all it holds (qvMeshFree).

qvVtx* qvVtxConcat(qvVtx* a, qvVtx* b);
qvVtx* qvVtxUnlink(qvVtx* head, qvVtx* r);
qvVtx* qvVtxDelete(qvVtx* head, qvVtx* r);
int32_t qvVtxDeleteAll(qvVtx* head);
qvVtx* qvVtxDeleteFlagged(qvVtx* head, uint32_t mask, int32_t* count = nullptr);
int32_t qvVtxAndAll(qvVtx* head, uint32_t mask);
[[nodiscard]] int32_t qvVtxCount(const qvVtx* head);
qvVtx* qvVtxTail(qvVtx* head);
// Sets tag to value on each vertex of the list; 0.
int32_t qvVtxSetTag(qvVtx* head, int32_t value);

qvEdg* qvEdgConcat(qvEdg* a, qvEdg* b);
qvEdg* qvEdgUnlink(qvEdg* head, qvEdg* r);
qvEdg* qvEdgDelete(qvEdg* head, qvEdg* r);
int32_t qvEdgDeleteAll(qvEdg* head);
qvEdg* qvEdgDeleteFlagged(qvEdg* head, uint32_t mask, int32_t* count = nullptr);
int32_t qvEdgAndAll(qvEdg* head, uint32_t mask);
int32_t qvEdgOrAll(qvEdg* head, uint32_t bits);
[[nodiscard]] int32_t qvEdgCount(const qvEdg* head);
qvEdg* qvEdgTail(qvEdg* head);

qvTri* qvTriConcat(qvTri* a, qvTri* b);
// Puts the triangle, edge and vertex lists of from in front of those of
// mesh and leaves from empty (not freed). Both must be non-null.
void qvMeshPrependLists(qvMesh* mesh, qvMesh* from);
// (Named apart from qvTriUnlink, which clears a triangle's adjacency.)
qvTri* qvTriUnlinkList(qvTri* head, qvTri* r);
qvTri* qvTriDelete(qvTri* head, qvTri* r);
int32_t qvTriDeleteAll(qvTri* head);
qvTri* qvTriDeleteFlagged(qvTri* head, uint32_t mask, int32_t* count = nullptr);
int32_t qvTriAndAll(qvTri* head, uint32_t mask);
int32_t qvTriOrAll(qvTri* head, uint32_t bits);
[[nodiscard]] int32_t qvTriCount(const qvTri* head);
qvTri* qvTriTail(qvTri* head);
// Reverses the list in place by exchanging prev and next in each record;
// returns the new head, the former tail.
qvTri* qvTriReverse(qvTri* head);

// Moves the contents of a mesh at rest's triangles among their own records so
// that the list runs through the records in address order, and a walk along
// it through memory in order; contents, list order, edges and vertices stay
// as they were, and no record is made or freed (a pointer to a triangle
// names another triangle afterwards). A list that steps back in memory at
// most once in 32 steps is left as it is. 0; -1 for a mesh not at rest (held
// triangles, a working link or aux set) or when memory runs out, and then
// nothing has changed.
int32_t qvMeshCompact(qvMesh* mesh);
// The same for the edges of a mesh at rest: their contents move among their
// own records so that the edge list runs up through memory, and the
// triangles' edges are renamed to match. A list that steps back in memory
// at most once in 32 steps is left as it is. 0; -1 for held edges, an edge with a
// working link or own, a triangle holding an edge outside the list, or no
// memory, and then nothing has changed.
int32_t qvMeshCompactEdges(qvMesh* mesh);
// Moves the contents of the n edges of order, the mesh's edge list in list
// order, among their own records so that the list runs up through memory,
// and renames the triangles' edges to match: the i-th edge of the list takes
// the i-th record by address. 0; -1 when order doesn't start at the list's
// head, an edge has a working link or own, a triangle holds an edge outside
// order, or memory runs out, and then nothing has changed.
int32_t qvMeshPlaceEdges(qvMesh* mesh, qvEdg* const* order, int32_t n);
// Moves the contents of from[i] to the record to[i] for each i below n, the
// two arrays naming the same n triangles, records at rest (link free): the
// neighbours are renamed to the records their contents went to, and the
// list is linked in the order of to. 0; -1 when a triangle names a
// neighbour that is not among them, or memory runs out, and then nothing
// has changed.
int32_t qvTriPlace(qvTri* const* from, qvTri* const* to, int32_t n);
// Lays the n triangles of order out in memory in that order through
// qvTriPlace: the i-th takes the record at the i-th lowest address among
// them. The record now first, or null with nothing changed (as qvTriPlace
// fails, for n below 1, or when memory runs out).
qvTri* qvTriPlaceInOrder(qvTri* const* order, int32_t n);
// Floods triangles numbered on arrays: adj holds the three neighbours of
// each (-1 for none), next and prev link them in a list from *head (-1
// ends it), reached is all false. Each triangle's unreached neighbours move
// in right behind it, so that the list ends as qvMeshShells leaves the
// records of a list in that order, each piece an unbroken run in the order
// of its flood from its head. The pieces; 0 for an empty list.
int32_t qvFloodAll(const int32_t* adj, int32_t* next, int32_t* prev, int32_t* head, bool* reached);

qvMesh* qvMeshConcat(qvMesh* a, qvMesh* b);
int32_t qvMeshDeleteAll(qvMesh* head);
[[nodiscard]] int32_t qvMeshCount(const qvMesh* head);

qvLnk* qvLnkConcat(qvLnk* a, qvLnk* b);
qvLnk* qvLnkUnlink(qvLnk* head, qvLnk* r);
qvLnk* qvLnkDelete(qvLnk* head, qvLnk* r);
int32_t qvLnkDeleteAll(qvLnk* head);
[[nodiscard]] int32_t qvLnkCount(const qvLnk* head);
qvLnk* qvLnkTail(qvLnk* head);
// Frees a qvLnk list given as void*, the form qvEdgListsFree passes on.
void qvLnkListFree(void* list);

// A mesh chain is released by qvMeshDeleteAll. Taking a mesh out of a chain:
// the new head; the second also frees it.
qvMesh* qvMeshUnchain(qvMesh* head, qvMesh* m);
qvMesh* qvMeshDropChained(qvMesh* head, qvMesh* m);

// ---------------------------------------------------------------------------
// The order of a vertex list.

// Sorts mesh's vertex list along the axis that request names (kMeshSortX, Y
// or Z, the lowest if several), descending with kMeshSortDesc; ties go to the
// next axis cyclically (x y z, y z x, z x y). Nothing happens when the mesh
// already has the requested sorted bit, or the list is empty, and then a
// requested box is nulled; a one-vertex list keeps its order and only gains
// the bit; otherwise the three sorted bits are replaced by the requested one.
// With box, it also receives the list's bounding box (qvVtxBox). A request
// that names no axis nulls the box and does nothing else. Result 0, or -1
// for a null mesh or an empty list. Safe for two threads sorting different
// meshes at once: the axis and direction are per thread.
int32_t qvMeshSortVtx(qvMesh* mesh, uint32_t request, qvBox* box);

// An integer that orders as the coordinate d does in the sorts' total order:
// 0.0 and -0.0 alike, NaN after every number.
uint64_t qvCoordKey(double d);
// The same order for a float in 32 bits: a coordinate that is a float
// widened orders by the key of that float as it does by qvCoordKey.
uint32_t qvFloatKey(float f);
// Three such keys (or their complements) in comparison order, and a place.
struct qvFloatKeys {
  uint64_t hi;  // the first key above the second
  uint32_t lo;  // the third key
  int32_t pos;  // the place, which the sort carries along
};
static_assert(sizeof(qvFloatKeys) == 16, "qvFloatKeys grew");
// Sorts n keys by (hi, lo) with a radix sort, 16 bits a pass, so that equal
// keys keep their order: keys given in order of pos come out ordered by
// (hi, lo, pos). 0, or -1 with the keys as they were when memory runs out.
[[nodiscard]] int32_t qvFloatKeysSort(qvFloatKeys* keys, int32_t n);

// ---------------------------------------------------------------------------
// Whole-mesh validator, for tests and debug builds. Checks invariants 1-9 on
// a mesh at rest, prints one line per violation to out (nothing when out is
// null) and returns the number of violations; 0 for a null mesh. Every walk
// is bounded, so a broken list is reported, not looped on, and no record is
// marked. It only reads records reached through checked links.
[[nodiscard]] int32_t qvMeshValidate(const qvMesh* mesh, FILE* out);

// ---------------------------------------------------------------------------
// Triangle queries. A slot is 0, 1 or 2; a handle is a vertex handle.

// The three corners as handles in cycle order, corner i where edg[i] starts:
// the end of edg[0] not shared with edg[1], the shared end, the end of edg[1]
// not shared. edg[2] isn't read. sign, when not 0, asks for a turning sense in
// the plane of the first two doubles at each handle: a negative product of
// sign and the triangle's sign (kTriSignPos, kTriSignNeg, or else orient2dClass)
// exchanges the first two corners. 0, or 1 for failure (no shared end, a null
// corner, a collinear triangle with a sign asked for).
int32_t qvTriCorners(const qvTri* t, int32_t sign, double* out[3]);
// The same as records.
int32_t qvTriCornerVtx(const qvTri* t, int32_t sign, qvVtx* out[3]);
// The same as coordinates (qvVtxXyz); 1 also when a corner has none.
int32_t qvTriCoords(const qvTri* t, int32_t sign, double* out[3]);
// Slot of e in t, or -1.
[[nodiscard]] int32_t qvTriEdgeSlot(const qvTri* t, const qvEdg* e);
// adj of t at e, its slot through slot (-1 when e isn't there or t is null).
qvTri* qvTriAdjAt(const qvTri* t, const qvEdg* e, int32_t* slot);
// The first corner in cycle order that isn't an end of e, or null.
double* qvTriOpposite(const qvTri* t, const qvEdg* e);
// The corner opposite the edge in slot i, or null.
double* qvTriOppositeAt(const qvTri* t, int32_t i);
// The first edge in slot order, not null, that doesn't touch h, or null.
qvEdg* qvTriFarEdge(const qvTri* t, const double* h);
// The edges of t at corner h, and their slots: returns how many (-1 for a
// null t or h, or a third). With two they are in cycle sense: slots (0,1),
// (1,2) or (2,0), so pair[0] ends at h and pair[1] starts there.
[[nodiscard]] int32_t qvTriEdgesAt(const qvTri* t, const double* h, qvEdg* pair[2], int32_t slots[2]);
// 0 if the edge in slot i runs along the cycle, 1 against it, -1 on failure.
[[nodiscard]] int32_t qvTriEdgeRev(const qvTri* t, int32_t i);
// 1 if adj[i] runs along edg[i] the same way as t, 0 if opposite or there is
// no neighbour, -1 on failure.
[[nodiscard]] int32_t qvTriDisagree(const qvTri* t, int32_t i);

// ---------------------------------------------------------------------------
// Changing links.

// a.adj at e = b and b.adj at e = a; either may be null, so qvTriLink(a, 0, e)
// clears a's side alone. 1 if e isn't in a triangle, leaving what was set.
int32_t qvTriLink(qvTri* a, qvTri* b, qvEdg* e);
// Clears adj of t and the neighbours' adj back to t. 1 if a neighbour doesn't
// hold the edge (t's side is cleared all the same).
int32_t qvTriUnlink(qvTri* t);
// Reverses t: exchanges edg[1] and edg[2], and on a linked triangle adj[1]
// with adj[2] and aux[1] with aux[2], which belong to those slots. 1 for null.
int32_t qvTriFlip(qvTri* t);
// Turns every edge end that is drop's handle into keep's. The number of ends
// rewritten, or -1.
int32_t qvVtxReplace(qvMesh* mesh, qvVtx* keep, qvVtx* drop);

// ---------------------------------------------------------------------------
// Reference lists of qvLnk nodes, added at the head; 0 or -1.

// In each edge's link, its triangles.
[[nodiscard]] int32_t qvEdgTriLists(qvMesh* mesh);
// In each vertex's link, its edges: one node at each end of each edge.
[[nodiscard]] int32_t qvVtxEdgLists(qvMesh* mesh);
// In each vertex's link, its triangles; -1 when a triangle's corners can't be
// read (the lists built so far stay for the caller to free).
[[nodiscard]] int32_t qvVtxTriLists(qvMesh* mesh);
// For each mesh of the chain and each edge (vertex), passes link to freeFn
// when it isn't null, and clears it. 0, or -1 for a null chain.
int32_t qvEdgListsFree(qvMesh* chain, void (*freeFn)(void*));
int32_t qvVtxListsFree(qvMesh* chain, void (*freeFn)(void*));

// ---------------------------------------------------------------------------
// Searches.

// The first edge from head on joining h0 and h1 in either direction, or null.
qvEdg* qvEdgFind(qvEdg* head, const double* h0, const double* h1);
// The first edge from head on that has a bit of bits and h as first end.
qvEdg* qvEdgFrom(qvEdg* head, uint32_t bits, const double* h);

// ---------------------------------------------------------------------------
// Measures.

// n = (b - a) x (c - a), unnormalised, with out the corners a, b, c as
// handles: the cycle's corners, or with e given e's ends and the corner
// opposite. 0, or 1 for failure.
int32_t qvTriNormal(const qvTri* t, const qvEdg* e, int32_t sign, double* out[3], double n[3]);
// The same normal, with out the corners as coordinates.
[[nodiscard]] int32_t qvTriGeometry(const qvTri* t, const qvEdg* e, int32_t sign, double* out[3], double n[3]);
// Reading t's corners waits on its first two edges, then on the vertices at
// their ends: records spread over the heap. A walk over an array of
// triangles asks for the edges some triangles ahead of the one it reads and
// for the corners of one nearer, whose edges are in by then.
inline void qvTriPrefetchEdges(const qvTri* t) {
  __builtin_prefetch(t->edg[0]);
  __builtin_prefetch(t->edg[1]);
}
inline void qvTriPrefetchCorners(const qvTri* t) {
  for (const qvEdg* e : {t->edg[0], t->edg[1]})
    if (e)
      for (const double* h : e->ends)
        if (h) {
          __builtin_prefetch(qvVtxOf(h));
          __builtin_prefetch(h);
        }
}
// Half the length of the normal; -1.0 when the corners can't be read.
double qvTriArea(const qvTri* t);
// Sum of the areas; -1.0 for a null mesh or at the first failure.
double qvMeshArea(const qvMesh* mesh);
// Signed volume of the tetrahedron of t and apex (the coordinate origin when
// apex is null). On failure *err = -1 and 0.0; err is otherwise untouched.
double qvTriVolume(const qvTri* t, const double* apex, int32_t* err);
// Sum of the volumes: *err = 0 first, then -1 and 0.0 at the first failure or
// for a null mesh.
double qvMeshVolume(const qvMesh* mesh, const double* apex, int32_t* err);
// Squared distance between the ends, summed y, x, z; -1.0 on failure.
double qvEdgLen2(const qvEdg* e);
// Box of a vertex list (vertices without coordinates are passed over, and
// entries stay null until one is found); returns the vertex count.
int32_t qvVtxBox(qvVtx* head, qvBox* box);
// Box of the mesh's vertices; the count, or -1 for fewer than three.
[[nodiscard]] int32_t qvMeshBox(qvMesh* mesh, qvBox* box);
// Box of the three corners; 3, or -1 when they can't be read.
[[nodiscard]] int32_t qvTriBox(const qvTri* t, qvBox* box);

// ---------------------------------------------------------------------------
// Fan walks round a corner h, starting at t. The walk crosses aux[i] where it
// is set and adj[i] otherwise (the live surface of a reduction pass);
// qvFanWalkOld crosses adj only (the starting surface). fn is called once for
// each triangle and may be null; a non-zero code stops the walk.
// Result: 0 the fan closed on t, -1 it is open (both directions walked),
// -2 bad input or a triangle where h hasn't exactly two edges (or a fan that
// loops without reaching t), -3 a triangle without kTriLinked, or the
// absolute value of the code with which fn stopped the walk.
typedef int32_t (*qvFanFn)(qvTri* t, void* ctx);
[[nodiscard]] int32_t qvFanWalk(qvTri* t, const double* h, qvFanFn fn, void* ctx);
[[nodiscard]] int32_t qvFanWalkOld(qvTri* t, const double* h, qvFanFn fn, void* ctx);

// Options of qvFanMark: which marked records move to the heads of mesh's lists.
constexpr uint32_t kFanMoveVtx = 0x1u;  // marked vertices
constexpr uint32_t kFanMoveEdg = 0x2u;  // marked far edges
constexpr uint32_t kFanMoveTri = 0x4u;  // marked triangles

// Marks the fan of h from t: triBit on each triangle, edgBit on its far edge
// (the edge not touching h), vtxBit on both ends of that edge where missing;
// zero bits mark nothing. opts move the marked records to the list heads
// (kFanMove*, with a mesh given). Returns the number of far edges marked
// (0 when edgBit is 0) once the fan has closed; -1 for an open fan, a
// triangle without a far edge, any other walk failure or a null t or h. Marks
// set before a failure stay.
int32_t qvFanMark(qvMesh* mesh, qvTri* t, const double* h, uint32_t triBit, uint32_t edgBit,
                  uint32_t vtxBit, uint32_t opts);
int32_t qvFanMarkOld(qvMesh* mesh, qvTri* t, const double* h, uint32_t triBit, uint32_t edgBit,
                     uint32_t vtxBit, uint32_t opts);

// Callback for qvFanWalk that marks a star: triBit on each triangle, moved to
// the head of mesh's triangle list, and, when edgBit isn't 0, edgBit on the
// two edges at h, moved to the head of the edge list in cycle order from the
// far edge. Returns 1 (stopping the walk) for a triangle without two edges at h.
struct qvSpokeMarkCtx {
  qvMesh* mesh;      // the lists to move to; may be null to mark without moving
  const double* h;   // the hub of the fan
  uint32_t triBit;   // bit for the triangles
  uint32_t edgBit;   // bit for the spokes, or 0
};
[[nodiscard]] int32_t qvFanMarkSpokes(qvTri* t, void* ctx);

// Undoes head-run marks: clears triBit from the head triangles while they
// have it; then, while head edges have a bit of edgBits[1], clears
// edgBits[0] from them and vtxBit from both ends, and moves an edge that
// still has a bit of edgBits[1] to the head. 0, or -1 for a null mesh.
int32_t qvHeadUnmark(qvMesh* mesh, uint32_t triBit, const uint32_t edgBits[2], uint32_t vtxBit);

// With qvLnk lists of triangles in the edges' link and of edges in the
// vertices' link: deletes each edge without a triangle list (only the head
// run of them with headOnly 1), takes it out of its vertices' lists, and
// deletes the vertices left with none from the head of the vertex list.
// Returns the number of edges deleted, or -1.
[[nodiscard]] int32_t qvEdgPurge(qvMesh* mesh, int32_t headOnly);

// ---------------------------------------------------------------------------
// The pair of triangles round an edge.

// A triangle and the slot of an edge, and optionally its neighbour across
// that edge and the edge's slot there.
struct qvQuad {
  qvTri* tri[2];    // the triangle, and the neighbour or null
  int32_t slot[2];  // the edge's slot in each
};
// out = c[s+1], c[s+2], c[s] of the first triangle's corners c (s its slot),
// then the neighbour's corner opposite its slot: a quad in cycle order with
// the edge from out[2] to out[0]. 0; 1 without a neighbour (out[3] null);
// -1 when a corner can't be had.
[[nodiscard]] int32_t qvEdgQuad(const qvQuad* q, int32_t sign, double* out[4]);
// 1 if the quad turns strictly and the same way at all four corners (turn2d
// on the first two doubles at each handle), 0 if not, -1 when qvEdgQuad
// doesn't give four corners.
[[nodiscard]] int32_t qvQuadConvex(const qvQuad* q);

// ---- Topology analysis
//
// What kind of surface a stitched mesh is: counts, boundary edges and loops,
// orientation and genus, with a result code in qvTopo.result:
//   0 a valid connected surface (closed when nLoop is 0)
//   1 euler above 2 (more than one closed piece, for instance)
//   2 orientation can't be worked out, or the mesh has more than one piece
//   3 the mesh isn't linked
//   4 the boundary can't be walked into loops
//   5 euler + nLoop is 3 or more, or odd for an orientable surface
//   6 not orientable, yet euler + nLoop leaves no cross-cap
// The analysis is not read-only: the orientation flood turns and reorders
// triangles, and the marking pass reorders edges and vertices (and clears the
// sorted bits when it does).

// Census of the vertices a marking pass selected, over the marked edges at each.
struct qvCensus {
  int32_t degMin;  // fewest marked edges at a counted vertex (0 when none is counted)
  int32_t degMax;  // most marked edges at a counted vertex
  int32_t nEven;   // counted vertices with an even number of them
  int32_t nOdd;    // counted vertices with an odd number of them
  int32_t nExtra;  // sum of (degree - 2) / 2 over even vertices above 2: extra passes of loops
};
static_assert(sizeof(qvCensus) == 20, "qvCensus grew");


// Clears the eight counts of topo and fills nVtx (vertices without
// kVtxNotCounted), nEdg and nTri; the characteristic goes into nBnd, where
// qvMeshTopo picks it up (euler stays 0). 1 if the characteristic is above 2,
// 0 if not, -1 for a null mesh or topo.
[[nodiscard]] int32_t qvMeshEuler(const qvMesh* mesh, qvTopo* topo);
// Boundary edges (each edge once, counted where its slot's adj is null), or -1
// for a mesh without kMeshStitched, a triangle without kTriLinked, or null.
[[nodiscard]] int32_t qvBndCount(qvMesh* mesh);
// 0 when every shared edge is run in opposite directions by its two
// triangles, 1 at the first edge where it isn't, -1 on failure.
[[nodiscard]] int32_t qvOrientCheck(qvMesh* mesh);
// Turns triangles into agreement with their neighbours, piece by piece, going
// deep first by moving neighbours behind the current triangle in the list.
// The number of pieces; 0 when the surface can't be oriented (triangles stay
// as far as the flood had turned them); -1 on failure. Marks are cleared.
[[nodiscard]] int32_t qvOrientFlood(qvMesh* mesh);
// Fills topo and returns its result code (see above), or -1 for a null mesh
// or topo; result itself is left to the caller.
[[nodiscard]] int32_t qvMeshTopo(qvMesh* mesh, qvTopo* topo);
// Analyses the mesh into a new record in mesh.topo and stores the code in
// result. -1 when the mesh already has a record, none can be made, or the
// code isn't 0 (the record then stays); 0 otherwise.
[[nodiscard]] int32_t qvMeshTopoMake(qvMesh* mesh);

// The marking pass. Each edge once: a boundary edge gets bndBit, an inner
// edge whose two triangles run it the same way gets inBit (and is counted);
// both ends of such an edge get vtxBit and move to the head of the vertex
// list, and the edge to the head of the edge list, so the marked sets are head
// runs. Every edge that runs against the triangle it was reached from has its
// ends exchanged and gets swapBit (for good when swapBit is 0). Then each
// vertex's tag counts its marked edges (one per bit an edge has), and census
// is filled over the head run of vtxBit vertices without kVtxNotCounted.
// Returns the number of inconsistent edges, or -1 when bndBit or inBit has
// kEdgMarkVisit, on failure, or when a counted vertex has an odd tag: then
// the pass has been undone (qvTopoUnmark) before it returns. Clears the mesh's
// kMeshPassSet. census may be null.
[[nodiscard]] int32_t qvTopoMark(qvMesh* mesh, uint32_t vtxBit, uint32_t bndBit, uint32_t inBit, uint32_t swapBit,
                   qvCensus* census);
// Undoes a marking pass: every edge with swapBit gets its ends exchanged back
// and loses it, edges lose edgBits, vertices lose vtxBit and have tag zeroed.
// 0, or -1 for a null mesh.
int32_t qvTopoUnmark(qvMesh* mesh, uint32_t vtxBit, uint32_t edgBits, uint32_t swapBit);
// The marking pass over the boundary (vtxBit kWalkVtxBit, bndBit kWalkEdgBit,
// no inBit, swapBit kWalkSwapBit) and qvTopoUnmark after it, where every
// vertex of the boundary has exactly two boundary edges: the lists come out
// as that pair leaves them, in one walk along each list. 1 when so done; 0,
// with nothing changed, where a vertex has another number of them or the
// pass would fail; -1 for a null mesh.
[[nodiscard]] int32_t qvTopoMarkPlain(qvMesh* mesh);
// Boundary loops: connected boundary circuits, a vertex where loops touch
// counted in nExtra (through extra, which may be null) and not as a split.
// Directed walks on a consistent mesh, undirected ones (nExtra then 0) when
// some edge is inconsistent. The number of loops, or -1.
[[nodiscard]] int32_t qvLoopCount(qvMesh* mesh, int32_t* extra);

// Caps over the boundary loops: per loop a hub (kVtxHub) at the mean of the
// loop's vertices and one triangle per boundary edge, joined by adj to each
// other and to the boundary triangles of mesh, which stay linked to them. Hub,
// spokes and cap triangles are provisional (kVtxHub, kEdgCap, kTriCap) and
// live in the returned mesh until a caller moves its lists into mesh; rim
// edges and vertices get kVtxRim / kEdgRim. Null when there is nothing to
// cap (count 0) or on failure (count -1, mesh unlinked from any cap again).
qvMesh* qvCapBuild(qvMesh* mesh, int32_t* count);
// Removes the provisional cap records of mesh by their bits: unlinks each
// triangle with kTriCap from its neighbours, then deletes those triangles,
// the edges with kEdgCap and the vertices with kVtxHub. The number of
// triangles deleted, or -1 for a null mesh.
[[nodiscard]] int32_t qvCapRemove(qvMesh* mesh);
// Closes the boundary loops of one shell with caps whose area isn't above
// *maxArea (no limit when maxArea is null), analyses the closed mesh again
// into topo, and returns the number of loops closed; -1 when the mesh has no
// valid analysis, on failure, or when the new analysis isn't valid.
[[nodiscard]] int32_t qvMeshClose(qvMesh* mesh, const double* maxArea);

// ---- Assembly
//
// From a soup of facets to a chain of shells: coinciding vertices become one,
// edges on the same two vertices one edge; degenerate and doubled triangles
// go; on an edge with more than two triangles, triangles of bodies that meet
// along it are paired, and else the two of a sheet that meets it with just
// those two, in opposite senses (a sheet being what one reaches across edges
// of two triangles), and the rest pulled apart; vertices with more than one
// fan split; a pairing stays only where the split tells its bodies apart;
// orientation is made consistent where it can be, and the mesh is cut into
// its connected pieces. Afterwards each edge has one or two triangles, the
// triangles round each vertex form one fan, two triangles meet at the one
// edge of their two vertices, boundary edges stand at the head of the edge
// list and run along their triangle. Where the input joined sheets that the
// assembly pulled apart, the vertices of every fan split off and of every
// edge that had more than two triangles bear kVtxJoint, and every edge made
// from such an edge bears kEdgJoint: the engine keeps them, but for a joint
// inside a straight line of joint edges, which may go along that line, so the
// sheets still meet there in the output.

// The default welding tolerances: linear, and on the squared distance.
constexpr double kWeldTol = 1e-6;
constexpr double kWeldTol2 = 1e-12;

// Takes three new corners (kVtxHasNormal, coordinates set) into mesh with
// three new edges c0-c1, c1-c2, c2-c0 and one triangle on them, all
// prepended. 0; -1 for a null argument or a failed allocation, and then the
// mesh and the corners are as they were (the corners stay the caller's).
[[nodiscard]] int32_t qvMeshAddFacet(qvMesh* mesh, qvVtx* corners[3]);
// Welds and links a soup as qvMeshAddFacet builds it: every triangle on three
// edges of its own in the cycle of its corners, no triangle linked; any other
// mesh is refused with -1, untouched. tol, when not null, is the pair {linear, squared}
// within which vertices merge (transitively along sorted x); without it only
// bitwise equal coordinates merge. 0, with kMeshStitched set; -1 on failure,
// with the mesh good only for being freed. A surface that can't be oriented
// is no failure: its triangles stay as the orientation flood left them.
[[nodiscard]] int32_t qvMeshStitch(qvMesh* mesh, const double* tol);
// Cuts mesh into its connected pieces, chained behind it (between it and its
// former next) with its flags; a vertex shared by two pieces is copied with
// clone (a third piece on it is a failure). When the mesh splits, the sorted
// bits are cleared and an analysis in mesh.topo, which no piece fits, is
// released. The number of shells (0 for a mesh without triangles), or -1.
[[nodiscard]] int32_t qvMeshShells(qvMesh* mesh, qvVtx* (*clone)(const qvVtx*));
// qvMeshShells for a triangle list that stands in the order qvMeshShells
// would leave it (as qvFloodAll gives it): the same shells and lists, with no
// triangle moved.
[[nodiscard]] int32_t qvMeshShellsFlooded(qvMesh* mesh, qvVtx* (*clone)(const qvVtx*));
// qvMeshStitch, then qvMeshShells with qvVtxClone: the number of shells, or -1.
[[nodiscard]] int32_t qvMeshAssemble(qvMesh* mesh, const double* tol);
// The chain that qvMeshAssemble makes of the soup of n facets that
// qvMeshAddFacet would build from corners (nine coordinates each, three
// corners in order), record for record and in the same list order; only the
// records that stay are made, and each shell's triangles lie in memory in
// list order (see qvMeshCompact). *shells (may be null) receives the number of
// shells, or -1 on failure, when the mesh returned is good only for being
// freed. Null when no mesh could be made.
qvMesh* qvMeshAssembleCorners(const float* const* corners, int32_t n, const double* tol, int32_t* shells);
