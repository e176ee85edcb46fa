// Topology analysis: what kind of surface a stitched mesh is, and the tools
// it shares with assembly, the solid output and the reduction: the marking
// pass that brings boundary edges to the list heads, the loop walks, the
// orientation check and flood, and caps over boundary loops.
//
// The file runs in the order of qvMeshTopo: counts, boundary, orientation,
// marking pass, loop walks, the analysis itself; then caps and closing.
// Everything keeps its state in the records: marks in the flags, degrees in
// vertex tags, walk exits in vertex links, so different meshes can be
// analysed at the same time.
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <utility>

#include "kernels/failure.h"
#include "mesh/mesh_internal.h"

using ftmesh::listMoveToHead;
using ftmesh::listPrepend;

namespace {

// Clears bits on every edge that a triangle of the mesh holds: the edges a
// walk over the triangles can have marked.
void clearTriEdgeBits(qvMesh* mesh, uint32_t bits) {
  for (qvTri* t = mesh->tri; t; t = t->next)
    for (qvEdg* e : t->edg)
      if (e) e->flags &= ~bits;
}

// The visit marks of a walk over the triangle list that takes each edge
// once, from the first triangle that holds it. They come off in one walk
// along the edge list, which runs through memory nearly in order, rather
// than by visiting the marked edges again in the order they were met;
// should fewer marks come off there than were set (an edge of a triangle
// not in the list), a pass over every triangle's edges clears the rest.
class EdgeVisits {
 public:
  explicit EdgeVisits(qvMesh* mesh) : mesh_(mesh) {}

  // Whether the walk meets e for the first time; e is marked then.
  bool first(qvEdg* e) {
    if (e->flags & kEdgMarkVisit) return false;
    e->flags |= kEdgMarkVisit;
    ++set_;
    return true;
  }

  // Clears the marks; the number of edges in the list. An edge of the list
  // that bears a bit of watch sets *seen.
  int32_t clear(uint32_t watch = 0, bool* seen = nullptr) {
    constexpr int32_t kAhead = 8;  // edges between a prefetch and the write
    size_t cleared = 0;
    int32_t listed = 0;
    qvEdg* ahead = mesh_->edg;
    for (int32_t i = 0; i < kAhead && ahead; ++i) ahead = ahead->next;
    for (qvEdg* e = mesh_->edg; e; e = e->next) {
      if (ahead) {
        __builtin_prefetch(ahead, 1);
        ahead = ahead->next;
      }
      ++listed;
      if ((e->flags & watch) && seen) *seen = true;
      if (e->flags & kEdgMarkVisit) {
        e->flags &= ~kEdgMarkVisit;
        ++cleared;
      }
    }
    if (cleared != set_) clearTriEdgeBits(mesh_, kEdgMarkVisit);
    return listed;
  }

 private:
  qvMesh* mesh_;
  size_t set_ = 0;  // marks set
};

// Whether two edges join the same two ends: a triangle on two such edges has
// corners that depend on the edges' directions.
bool sameEnds(const qvEdg* a, const qvEdg* b) {
  return a && b && ((a->ends[0] == b->ends[0] && a->ends[1] == b->ends[1]) ||
                    (a->ends[0] == b->ends[1] && a->ends[1] == b->ends[0]));
}

// The first edge behind the head run of edges that have a bit of mask.
qvEdg* headRunEnd(qvEdg* head, uint32_t mask) {
  qvEdg* e = head;
  while (e && (e->flags & mask)) e = e->next;
  return e;
}

}  // namespace

// ---------------------------------------------------------------------------
// Counts

int32_t qvMeshEuler(const qvMesh* mesh, qvTopo* topo) {
  if (!mesh || !topo) return -1;
  const int32_t result = topo->result;
  *topo = qvTopo{};
  topo->result = result;
  for (const qvVtx* v = mesh->vtx; v; v = v->next)
    if (!(v->flags & kVtxNotCounted)) ++topo->nVtx;
  topo->nEdg = qvEdgCount(mesh->edg);
  topo->nTri = qvTriCount(mesh->tri);
  // qvMeshTopo copies the characteristic into euler only once it is known to
  // be possible for one connected surface.
  topo->nBnd = topo->nVtx - topo->nEdg + topo->nTri;
  return topo->nBnd > 2 ? 1 : 0;
}

int32_t qvBndCount(qvMesh* mesh) {
  if (!mesh || !(mesh->flags & kMeshStitched)) return -1;
  int32_t count = 0;
  bool ok = true;
  EdgeVisits visits(mesh);
  ftmesh::TriLookahead ahead(mesh->tri);
  for (qvTri* t = mesh->tri; t && ok; t = t->next, ahead.step()) {
    if (!(t->flags & kTriLinked)) {
      ok = false;
      break;
    }
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg* e = t->edg[i];
      if (!e) {
        ok = false;
        break;
      }
      if (!visits.first(e)) continue;
      if (!t->adj[i]) ++count;
    }
  }
  visits.clear();
  return ok ? count : -1;
}

// ---------------------------------------------------------------------------
// Orientation

namespace {

// qvOrientCheck, and with bnd the boundary count of qvBndCount in the same
// walk: both take each edge once, where a triangle first holds it. *bnd is
// the count when the check comes out 0, and -1 when the count fails. The
// disagreement test is qvTriDisagree's, with t's corners read once for its
// three slots.
int32_t orientCheck(qvMesh* mesh, int32_t* bnd) {
  if (!mesh) return -1;
  int32_t result = 0;
  int32_t count = 0;
  bool counted = (mesh->flags & kMeshStitched) != 0;
  EdgeVisits visits(mesh);
  ftmesh::TriLookahead ahead(mesh->tri);
  for (qvTri* t = mesh->tri; t && result == 0; t = t->next, ahead.step()) {
    if (!(t->flags & kTriLinked)) counted = false;
    double* c[3];
    int32_t corners = -1;  // 0 read, 1 unreadable, -1 not read yet
    for (int32_t i = 0; i < 3 && result == 0; ++i) {
      qvEdg* e = t->edg[i];
      if (!e) {
        result = -1;
        break;
      }
      const qvTri* n = t->adj[i];
      if (!visits.first(e)) continue;
      // A boundary edge is never inconsistent.
      if (!n) {
        ++count;
        continue;
      }
      const int32_t j = ftmesh::edgeSlot(n, e);
      if (corners < 0) corners = ftmesh::cycleCorners(t, c) ? 0 : 1;
      const int32_t mine = corners != 0 ? -1 : e->ends[0] != c[i] ? 1 : 0;
      const int32_t theirs = j < 0 ? -1 : ftmesh::edgeRev(n, j);
      result = j < 0 || mine < 0 || theirs < 0 ? -1 : mine == theirs ? 1 : 0;
    }
  }
  visits.clear();
  if (bnd) *bnd = counted ? count : -1;
  return result;
}

}  // namespace

int32_t qvOrientCheck(qvMesh* mesh) { return orientCheck(mesh, nullptr); }

// Each triangle gets kTriMarkVisit when its orientation is settled and
// kTriMarkFlood when it has been reached in list order. A triangle's
// neighbours without kTriMarkFlood are moved directly behind it, so the walk
// along the list goes deep first without a stack, and a piece ends at the
// first triangle that isn't settled yet.
int32_t qvOrientFlood(qvMesh* mesh) {
  if (!mesh) return -1;
  int32_t pieces = 0;
  int32_t status = 0;  // 0 going on, 1 can't be oriented, -1 failure
  for (qvTri* t = mesh->tri; t && status == 0; t = t->next) {
    if (!(t->flags & kTriMarkVisit)) {
      t->flags |= kTriMarkVisit;
      ++pieces;
    }
    t->flags |= kTriMarkFlood;
    for (int32_t i = 0; i < 3 && status == 0; ++i) {
      qvTri* n = t->adj[i];
      if (!n) continue;
      if (n == t) {
        status = -1;
        break;
      }
      const int32_t disagree = qvTriDisagree(t, i);
      if (disagree < 0) {
        status = -1;
      } else if (!(n->flags & kTriMarkVisit)) {
        n->flags |= kTriMarkVisit;
        if (disagree) qvTriFlip(n);
      } else if (disagree) {
        status = 1;  // settled both ways round: a one-sided surface
      }
    }
    if (status != 0) break;
    for (qvTri* n : t->adj) {
      if (!n || (n->flags & kTriMarkFlood)) continue;
      mesh->tri = ftmesh::listUnlink(mesh->tri, n);
      n->prev = t;
      n->next = t->next;
      if (t->next) t->next->prev = n;
      t->next = n;
    }
  }
  qvTriAndAll(mesh->tri, kMarkKeep);
  if (status < 0) return -1;
  return status == 1 ? 0 : pieces;
}

// ---------------------------------------------------------------------------
// The marking pass

int32_t qvTopoUnmark(qvMesh* mesh, uint32_t vtxBit, uint32_t edgBits, uint32_t swapBit) {
  if (!mesh) return -1;
  for (qvEdg* e = mesh->edg; e; e = e->next) {
    if (swapBit && (e->flags & swapBit)) std::swap(e->ends[0], e->ends[1]);
    e->flags &= ~(edgBits | swapBit);
  }
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    v->flags &= ~vtxBit;
    v->tag = 0;
  }
  return 0;
}

int32_t qvTopoMark(qvMesh* mesh, uint32_t vtxBit, uint32_t bndBit, uint32_t inBit, uint32_t swapBit,
                   qvCensus* census) {
  qvCensus c{0, 0, 0, 0, 0};
  if (census) *census = c;
  if (!mesh) return -1;
  const uint32_t sel = bndBit | inBit;
  // The pass keeps its own visit mark on the edges; a caller's bit can't be it.
  if (sel & kEdgMarkVisit) return -1;
  mesh->flags &= ~kMeshPassSet;

  // Stage one: classify each edge once, from the first triangle that holds it.
  // The triangle's corners are read once for its three slots; turning one of
  // its first two edges changes them only when those two join the same ends.
  int32_t inconsistent = 0;
  bool ok = true;
  EdgeVisits visits(mesh);
  ftmesh::TriLookahead ahead(mesh->tri);
  for (qvTri* t = mesh->tri; t && ok; t = t->next, ahead.step()) {
    double* corner[3];
    int32_t corners = -1;  // 0 read, 1 unreadable, -1 not read yet
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg* e = t->edg[i];
      if (!e || !e->ends[0] || !e->ends[1]) {
        ok = false;
        break;
      }
      if (!visits.first(e)) continue;
      if (corners < 0) corners = ftmesh::cycleCorners(t, corner) ? 0 : 1;
      const int32_t rev = corners != 0 ? -1 : e->ends[0] != corner[i] ? 1 : 0;
      if (rev < 0) {
        ok = false;
        break;
      }
      if (const qvTri* n = t->adj[i]) {
        const int32_t j = ftmesh::edgeSlot(n, e);
        const int32_t revN = j < 0 ? -1 : ftmesh::edgeRev(n, j);
        if (revN < 0) {
          ok = false;
          break;
        }
        if (rev == revN) {
          ++inconsistent;
          e->flags |= inBit;
        }
      } else {
        e->flags |= bndBit;
      }
      const bool marked = (e->flags & sel) != 0;
      if (marked) {
        for (double* h : e->ends) {
          qvVtx* v = qvVtxOf(h);
          v->flags |= vtxBit;
          mesh->vtx = listMoveToHead(mesh->vtx, v);
        }
        mesh->flags &= ~kMeshSortedSet;
      }
      // From here on the edge runs along the cycle of the triangle it was
      // reached from; a boundary edge thus along its only triangle.
      if (rev == 1) {
        std::swap(e->ends[0], e->ends[1]);
        e->flags |= swapBit;
        if (i < 2 && sameEnds(t->edg[0], t->edg[1])) corners = -1;
      }
      if (marked) mesh->edg = listMoveToHead(mesh->edg, e);
    }
  }
  visits.clear();
  if (!ok) {
    qvTopoUnmark(mesh, vtxBit, sel, swapBit);
    return -1;
  }

  // Stage two: each vertex counts its marked edges, one per bit an edge has.
  qvVtxSetTag(mesh->vtx, 0);
  if (sel) {
    for (qvEdg* e = mesh->edg; e && (e->flags & sel); e = e->next) {
      const int32_t add = ((e->flags & bndBit) ? 1 : 0) + ((e->flags & inBit) ? 1 : 0);
      for (double* h : e->ends) {
        qvVtx* v = qvVtxOf(h);
        if (v->flags & vtxBit) v->tag += add;
      }
    }
  }

  // Stage three: the census over the head run of marked vertices.
  bool first = true;
  for (qvVtx* v = mesh->vtx; vtxBit && v && (v->flags & vtxBit); v = v->next) {
    if (v->flags & kVtxNotCounted) continue;
    const int32_t deg = v->tag;
    if (first || deg < c.degMin) c.degMin = deg;
    if (first || deg > c.degMax) c.degMax = deg;
    first = false;
    if (deg & 1) {
      ++c.nOdd;
    } else {
      ++c.nEven;
      if (deg > 2) c.nExtra += (deg - 2) / 2;
    }
  }
  if (census) *census = c;
  // A boundary with an odd vertex can't decompose into closed walks.
  if (c.nOdd != 0) {
    qvTopoUnmark(mesh, vtxBit, sel, swapBit);
    return -1;
  }
  return inconsistent;
}

// ---------------------------------------------------------------------------
// Loop walks

namespace {

bool stackPush(qvLnk*& stack, qvVtx* v) {
  qvLnk* node = qvLnkNew(0, v);
  if (!node) return false;
  stack = listPrepend(stack, node);
  return true;
}

qvVtx* stackPop(qvLnk*& stack) {
  qvLnk* node = stack;
  if (!node) return nullptr;
  stack = qvLnkUnlink(stack, node);
  qvVtx* v = static_cast<qvVtx*>(node->item);
  qvLnkFree(node);
  return v;
}

// Called for each edge a walk takes, from v to w, after both tags were
// lowered; searched tells that the exit from v had to be searched for. A
// non-zero result fails the walk.
typedef int32_t (*WalkStep)(void* ctx, qvVtx* v, qvEdg* e, qvVtx* w, bool searched);

// The directed walk: leaves each vertex by the edge in its link, or else by
// the first marked edge from first on that starts there (the second exit of a
// vertex where loops touch). Each vertex's tag counts its untaken edges in and
// out; a vertex left with edges to spare goes on the stack, and when the walk
// stands at a vertex with none, it goes on from the stack. Since every edge
// taken loses mask, the walk ends. The number of edges taken, or -1.
int32_t walkDirected(qvEdg* first, qvVtx* start, uint32_t mask, WalkStep step, void* ctx) {
  if (!start || start->tag < 0 || (start->tag & 1)) return -1;
  qvLnk* stack = nullptr;
  int32_t taken = 0;
  bool ok = true;
  for (qvVtx* v = start; v && ok; v = stackPop(stack)) {
    while (v->tag != 0) {
      qvEdg* e = static_cast<qvEdg*>(v->link);
      const bool searched = e == nullptr;
      if (searched) e = qvEdgFrom(first, mask, v->dat);
      if (!e || !(e->flags & mask) || e->ends[0] != v->dat || !e->ends[1]) {
        ok = false;
        break;
      }
      e->flags &= ~mask;
      v->link = nullptr;
      if (--v->tag < 0 || (v->tag != 0 && !stackPush(stack, v))) {
        ok = false;
        break;
      }
      qvVtx* w = qvVtxOf(e->ends[1]);
      if (--w->tag < 0 || (step && step(ctx, v, e, w, searched) != 0)) {
        ok = false;
        break;
      }
      ++taken;
      v = w;
    }
  }
  qvLnkDeleteAll(stack);
  return ok ? taken : -1;
}

// Takes the first node that names item out of the list in v's link.
bool dropRef(qvVtx* v, const void* item) {
  qvLnk* list = static_cast<qvLnk*>(v->link);
  for (qvLnk* l = list; l; l = l->next) {
    if (l->item != item) continue;
    v->link = qvLnkDelete(list, l);
    return true;
  }
  return false;
}

// The undirected walk, for edges whose directions can't be trusted: each
// vertex holds a qvLnk list of its marked edges, and the walk leaves by any
// of them, to the edge's other end. Otherwise as the directed walk.
int32_t walkUndirected(qvVtx* start, uint32_t mask, WalkStep step, void* ctx) {
  if (!start || start->tag < 0 || (start->tag & 1)) return -1;
  qvLnk* stack = nullptr;
  int32_t taken = 0;
  bool ok = true;
  for (qvVtx* v = start; v && ok; v = stackPop(stack)) {
    while (v->tag != 0) {
      qvLnk* node = static_cast<qvLnk*>(v->link);
      qvEdg* e = node ? static_cast<qvEdg*>(node->item) : nullptr;
      if (!e || !(e->flags & mask) || !dropRef(v, e)) {
        ok = false;
        break;
      }
      double* other = e->ends[0] == v->dat ? e->ends[1] : e->ends[1] == v->dat ? e->ends[0] : nullptr;
      e->flags &= ~mask;
      if (!other || --v->tag < 0 || (v->tag != 0 && !stackPush(stack, v))) {
        ok = false;
        break;
      }
      qvVtx* w = qvVtxOf(other);
      if (!dropRef(w, e) || --w->tag < 0 || (step && step(ctx, v, e, w, false) != 0)) {
        ok = false;
        break;
      }
      ++taken;
      v = w;
    }
  }
  qvLnkDeleteAll(stack);
  return ok ? taken : -1;
}

// Frees the qvLnk lists in the links of the head run of vtxBit vertices.
void freeVtxLists(qvMesh* mesh, uint32_t vtxBit) {
  for (qvVtx* v = mesh->vtx; v && (v->flags & vtxBit); v = v->next) {
    qvLnkDeleteAll(static_cast<qvLnk*>(v->link));
    v->link = nullptr;
  }
}

// Clears link and aux on the head run of vtxBit vertices.
void clearVtxWork(qvMesh* mesh, uint32_t vtxBit) {
  for (qvVtx* v = mesh->vtx; v && (v->flags & vtxBit); v = v->next) {
    v->link = nullptr;
    v->aux = nullptr;
  }
}

// Gives each end of each marked edge of the head run a node for the edge.
bool buildVtxLists(qvMesh* mesh, qvEdg* stop) {
  for (qvEdg* e = mesh->edg; e != stop; e = e->next) {
    for (double* h : e->ends) {
      qvVtx* v = qvVtxOf(h);
      qvLnk* node = qvLnkNew(0, e);
      if (!node) return false;
      v->link = listPrepend(static_cast<qvLnk*>(v->link), node);
    }
  }
  return true;
}

// Loops of a consistently oriented boundary, one directed walk each.
int32_t countDirected(qvMesh* mesh) {
  qvEdg* stop = headRunEnd(mesh->edg, kWalkEdgBit);
  for (qvEdg* e = mesh->edg; e != stop; e = e->next) qvVtxOf(e->ends[0])->link = e;
  int32_t loops = 0;
  for (qvEdg* e = mesh->edg; e != stop && loops >= 0; e = e->next) {
    if (!(e->flags & kWalkEdgBit)) continue;
    if (walkDirected(e, qvVtxOf(e->ends[0]), kWalkEdgBit, nullptr, nullptr) < 0) loops = -1;
    else ++loops;
  }
  clearVtxWork(mesh, kWalkVtxBit);
  return loops;
}

// Loops of a boundary whose edges can't be trusted to run along it.
int32_t countUndirected(qvMesh* mesh) {
  int32_t loops = 0;
  if (!buildVtxLists(mesh, headRunEnd(mesh->edg, kWalkEdgBit))) loops = -1;
  for (qvVtx* v = mesh->vtx; v && (v->flags & kWalkVtxBit) && loops >= 0; v = v->next) {
    while (v->tag != 0 && loops >= 0) {
      if (walkUndirected(v, kWalkEdgBit, nullptr, nullptr) < 0) loops = -1;
      else ++loops;
    }
  }
  freeVtxLists(mesh, kWalkVtxBit);
  return loops;
}

}  // namespace

int32_t qvLoopCount(qvMesh* mesh, int32_t* extra) {
  if (extra) *extra = 0;
  if (!mesh) return -1;
  qvCensus census;
  const int32_t inconsistent = qvTopoMark(mesh, kWalkVtxBit, kWalkEdgBit, 0, kWalkSwapBit, &census);
  if (inconsistent < 0) return -1;  // the pass has undone itself
  int32_t loops = 0;
  if (census.nEven != 0) {
    if (inconsistent > 0) {
      loops = countUndirected(mesh);
    } else {
      loops = countDirected(mesh);
      if (extra) *extra = census.nExtra;
    }
  }
  qvTopoUnmark(mesh, kWalkVtxBit, kWalkEdgBit, kWalkSwapBit);
  return loops;
}

// ---------------------------------------------------------------------------
// The analysis
//
// On a consistently oriented mesh, which is what assembly and the cut hand
// over, the analysis takes one walk along the triangles, one along the edges
// and one along the vertices. The walk along the triangles counts them, makes
// the orientation check and notes the boundary edges in the order the
// marking pass would reach them, each directed along its only triangle as
// that pass would direct it. Their loops are then counted on those arrays,
// and the edges and their ends are moved to the list heads as the marking
// pass moves them, so the lists come out as the loop count on the records
// leaves them. Whatever the arrays can't settle (an orientation to be
// turned, a boundary vertex with more edges in than out, a degenerate
// triangle, marks left on records) goes the way of the records.

namespace {

// A boundary edge and its ends in the direction of its triangle.
struct BndEdge {
  qvEdg* e;
  const double* from;
  const double* to;
};

// What the walks learn.
struct Survey {
  int32_t nTri = 0;
  int32_t nEdg = 0;
  int32_t nVtx = 0;         // vertices without kVtxNotCounted
  int32_t check = 0;        // as orientCheck
  int32_t bnd = -1;         // as orientCheck's count, when check is 0
  bool plain = true;        // the boundary can be settled on the arrays
  bool vtxWork = false;     // a vertex bears a tag or the walk's mark
  BndEdge* at = nullptr;    // the boundary edges in the order first reached
  int32_t n = 0;            // how many
  int32_t capacity = 0;     // room in at
};

void surveyNote(Survey& s, qvEdg* e, const double* from, const double* to) {
  if (!s.plain) return;
  if (s.n == s.capacity) {
    const int32_t grown = s.capacity ? 2 * s.capacity : 1024;
    BndEdge* at = s.capacity < INT32_MAX / 2
                      ? static_cast<BndEdge*>(ftRealloc(s.at, sizeof(BndEdge) * static_cast<size_t>(grown)))
                      : nullptr;
    if (!at) {
      s.plain = false;
      return;
    }
    s.at = at;
    s.capacity = grown;
  }
  s.at[s.n++] = {e, from, to};
}

// The walks. With orient, the orientation check and the boundary count are
// orientCheck's, in the same walk, which goes on counting triangles past a
// check that isn't 0. Without, the walk reads what the marking pass reads,
// and stops, with plain false, where that pass would fail; an edge whose
// triangles run it the same way is no failure then.
void survey(qvMesh* mesh, Survey& s, bool orient) {
  constexpr uint32_t kWalkEdgBits = kWalkEdgBit | kWalkSwapBit;
  bool counted = (mesh->flags & kMeshStitched) != 0;
  int32_t count = 0;
  EdgeVisits visits(mesh);
  ftmesh::TriLookahead ahead(mesh->tri);
  for (qvTri* t = mesh->tri; t; t = t->next, ahead.step()) {
    ++s.nTri;
    if (s.check != 0) continue;
    if (!(t->flags & kTriLinked)) counted = false;
    // The marking pass reads the corners again after turning an edge of such
    // a triangle.
    if (sameEnds(t->edg[0], t->edg[1])) s.plain = false;
    double* c[3];
    int32_t corners = -1;  // 0 read, 1 unreadable, -1 not read yet
    for (int32_t i = 0; i < 3 && s.check == 0; ++i) {
      qvEdg* e = t->edg[i];
      if (!e) {
        s.check = -1;
        s.plain = false;
        break;
      }
      const qvTri* n = t->adj[i];
      if (!visits.first(e)) continue;
      if (!e->ends[0] || !e->ends[1]) s.plain = false;
      if (corners < 0) corners = ftmesh::cycleCorners(t, c) ? 0 : 1;
      const int32_t mine = corners != 0 ? -1 : e->ends[0] != c[i] ? 1 : 0;
      if (!n) {
        ++count;
        if (mine < 0) s.plain = false;
        else if (mine == 1) surveyNote(s, e, e->ends[1], e->ends[0]);
        else surveyNote(s, e, e->ends[0], e->ends[1]);
        continue;
      }
      const int32_t j = ftmesh::edgeSlot(n, e);
      const int32_t theirs = j < 0 ? -1 : ftmesh::edgeRev(n, j);
      const int32_t check = j < 0 || mine < 0 || theirs < 0 ? -1 : mine == theirs ? 1 : 0;
      if (orient) {
        s.check = check;
      } else if (check < 0) {
        s.check = -1;
        s.plain = false;
      }
    }
  }
  bool marked = false;
  s.nEdg = visits.clear(kWalkEdgBits, &marked);
  if (marked) s.plain = false;
  s.bnd = counted ? count : -1;
  for (const qvVtx* v = mesh->vtx; v; v = v->next) {
    if (!(v->flags & kVtxNotCounted)) ++s.nVtx;
    if (v->tag != 0 || (v->flags & kWalkVtxBit)) s.vtxWork = true;
  }
}

// A boundary end as the loop count sees it: the vertex, the edge, and +1
// for an edge that leaves it, -1 for one that arrives.
struct BndEnd {
  const double* h;
  int32_t edge;
  int32_t way;
};

int32_t findRoot(int32_t* parent, int32_t i) {
  while (parent[i] != i) {
    parent[i] = parent[parent[i]];
    i = parent[i];
  }
  return i;
}

// The loops of the noted boundary: its pieces, edges joined where they share
// a vertex, as the directed walks of the loop count take one piece each when
// every vertex has as many edges in as out. -1 when one hasn't, or memory
// runs out.
int32_t loopsOnArrays(const Survey& s) {
  const size_t n = static_cast<size_t>(s.n);
  BndEnd* ends = static_cast<BndEnd*>(ftMalloc(sizeof(BndEnd) * 2 * n));
  int32_t* parent = static_cast<int32_t*>(ftMalloc(sizeof(int32_t) * n));
  int32_t loops = ends && parent ? s.n : -1;
  for (int32_t i = 0; loops >= 0 && i < s.n; ++i) {
    parent[i] = i;
    ends[2 * i] = {s.at[i].from, i, 1};
    ends[2 * i + 1] = {s.at[i].to, i, -1};
  }
  if (loops >= 0)
    std::sort(ends, ends + 2 * n, [](const BndEnd& a, const BndEnd& b) {
      return std::less<const double*>()(a.h, b.h);
    });
  for (size_t i = 0; loops >= 0 && i < 2 * n;) {
    size_t k = i;
    int32_t balance = 0;
    for (; k < 2 * n && ends[k].h == ends[i].h; ++k) {
      balance += ends[k].way;
      const int32_t a = findRoot(parent, ends[i].edge);
      const int32_t b = findRoot(parent, ends[k].edge);
      if (a != b) {
        parent[b] = a;
        --loops;
      }
    }
    if (balance != 0) loops = -1;
    i = k;
  }
  std::free(ends);
  std::free(parent);
  return loops;
}

// Whether every vertex of the noted boundary has exactly two of its edges;
// false also when memory runs out.
bool twoAtEach(const Survey& s) {
  const size_t n = 2 * static_cast<size_t>(s.n);
  const double** ends = static_cast<const double**>(ftMalloc(sizeof(const double*) * (n ? n : 1)));
  if (!ends) return false;
  for (int32_t i = 0; i < s.n; ++i) {
    ends[2 * i] = s.at[i].from;
    ends[2 * i + 1] = s.at[i].to;
  }
  std::sort(ends, ends + n, std::less<const double*>());
  bool two = true;
  for (size_t i = 0; i < n && two; i += 2) two = ends[i] == ends[i + 1] && (i + 2 == n || ends[i + 2] != ends[i]);
  std::free(ends);
  return two;
}

// The list moves and working fields the marking pass over the boundary and
// qvTopoUnmark after it leave: each boundary edge in turn moves to the head
// of the edge list and its ends to the head of the vertex list; every
// vertex's tag and walk mark are cleared. With loops, also the link and aux
// of the boundary's vertices, as the loop count clears them.
void settleAsMarked(qvMesh* mesh, const Survey& s, bool loops) {
  mesh->flags &= ~kMeshPassSet;
  for (int32_t i = 0; i < s.n; ++i) {
    qvEdg* e = s.at[i].e;
    for (double* h : e->ends) mesh->vtx = ftmesh::listMoveToHead(mesh->vtx, qvVtxOf(h));
    mesh->edg = ftmesh::listMoveToHead(mesh->edg, e);
  }
  if (s.n > 0) mesh->flags &= ~kMeshSortedSet;
  for (int32_t i = 0; loops && i < s.n; ++i)
    for (double* h : s.at[i].e->ends) {
      qvVtx* v = qvVtxOf(h);
      v->link = nullptr;
      v->aux = nullptr;
    }
  if (s.vtxWork)
    for (qvVtx* v = mesh->vtx; v; v = v->next) {
      v->flags &= ~kWalkVtxBit;
      v->tag = 0;
    }
}

}  // namespace

int32_t qvMeshTopo(qvMesh* mesh, qvTopo* topo) {
  if (!mesh || !topo) return -1;
  Survey found;
  survey(mesh, found, true);
  const int32_t result = topo->result;
  *topo = qvTopo{};
  topo->result = result;
  topo->nVtx = found.nVtx;
  topo->nEdg = found.nEdg;
  topo->nTri = found.nTri;
  // The characteristic stands in nBnd until it is known to be possible for
  // one connected surface, as qvMeshEuler leaves it.
  topo->nBnd = found.nVtx - found.nEdg + found.nTri;
  int32_t arrayLoops = -1;
  if (topo->nBnd <= 2 && found.check == 0 && found.bnd > 0 && found.plain)
    arrayLoops = loopsOnArrays(found);
  if (arrayLoops >= 0) settleAsMarked(mesh, found, true);
  std::free(found.at);
  if (topo->nBnd > 2) return 1;
  topo->euler = topo->nBnd;

  bool orientable = true;
  int32_t bnd = found.bnd;
  const int32_t check = found.check;
  if (check < 0) return 2;
  if (check > 0) {
    topo->orient = 2;
    const int32_t pieces = qvOrientFlood(mesh);
    if (pieces < 0 || pieces > 1) return 2;
    if (pieces == 0) {
      orientable = false;
      topo->orient = 3;
    }
  }

  // The count of the check's walk holds unless the flood turned triangles.
  if (check > 0) bnd = qvBndCount(mesh);
  if (bnd < 0) {
    topo->nBnd = 0;
    return 3;
  }
  topo->nBnd = bnd;
  if (bnd != 0) {
    const int32_t loops = arrayLoops >= 0 ? arrayLoops : qvLoopCount(mesh, nullptr);
    if (loops < 0) {
      topo->nLoop = 0;
      return 4;
    }
    topo->nLoop = loops;
  }

  // A connected surface with b boundary loops has euler + b = 2 - 2g when it
  // is orientable and 2 - k (k cross-caps) when it isn't.
  const int32_t s = topo->euler + topo->nLoop;
  if (s >= 3) return 5;
  const int32_t k = 2 - s;
  if (!orientable) {
    if (k < 1) {
      topo->genus = 0;
      return 6;
    }
    topo->genus = k;
    return 0;
  }
  if (s & 1) {
    topo->genus = 0;
    return 5;
  }
  topo->genus = k / 2;
  return 0;
}

int32_t qvTopoMarkPlain(qvMesh* mesh) {
  if (!mesh) return -1;
  Survey found;
  survey(mesh, found, false);
  const bool plain = found.plain && twoAtEach(found);
  if (plain) settleAsMarked(mesh, found, false);
  std::free(found.at);
  return plain ? 1 : 0;
}

int32_t qvMeshTopoMake(qvMesh* mesh) {
  if (!mesh || mesh->topo) return -1;
  qvTopo* topo = qvTopoNew();
  if (!topo) return -1;
  const int32_t code = qvMeshTopo(mesh, topo);
  topo->result = code;
  mesh->topo = topo;
  return code == 0 ? 0 : FT_FAIL(-1);
}

// ---------------------------------------------------------------------------
// Caps
//
// A cap is a cone over one boundary loop: a hub, a spoke from the hub to each
// passage of the loop through a vertex, and one triangle per boundary edge
// made of the edge and the spokes at its two ends. A spoke collects its two
// triangles as they come, the one that leaves its vertex in link and the one
// that arrives in own, and joins them across itself once both are there.

namespace {

struct CapWalk {
  qvMesh* cap;    // the cap mesh: hubs, spokes, triangles
  qvVtx* hub;     // hub of the loop being walked
  qvEdg* first;   // where searches for a further exit begin
  uint32_t mask;  // the edges of the walk
  int32_t count;  // vertices summed into the hub's coordinates
};

qvEdg* newSpoke(qvMesh* cap, double* hub, qvVtx* v) {
  qvEdg* s = qvEdgNew(hub, v->dat, kEdgCap, 0);
  if (s) cap->edg = listPrepend(cap->edg, s);
  return s;
}

// Joins a spoke's two triangles once both are known and frees the spoke for
// its vertex: a passage that is complete can't take a third.
int32_t spokeClose(qvEdg* s, qvVtx* v) {
  if (!s->link || !s->own) return 0;
  if (qvTriLink(static_cast<qvTri*>(s->link), s->own, s) != 0) return -1;
  s->link = nullptr;
  s->own = nullptr;
  if (v->aux == s) v->aux = nullptr;
  return 0;
}

bool addHubPoint(CapWalk& w, const qvVtx* v) {
  const double* p = qvVtxXyz(v);
  if (!p) return false;
  double* c = w.hub->dat;
  for (int k = 0; k < 3; ++k) c[k] += p[k];
  ++w.count;
  return true;
}

// Joins the new cap triangle to the boundary triangle across e.
bool joinRim(qvEdg* e, qvTri* t) {
  qvTri* inner = e->own;
  if (!inner || qvTriLink(inner, t, e) != 0) return false;
  e->own = nullptr;
  return true;
}

// One boundary edge e from v to w of a directed cap walk. Every passage of
// the walk through a vertex has a spoke of its own: it arrives by one edge
// and leaves by the next, and those two triangles share the spoke. A vertex
// keeps the spoke of its current passage in aux. Where the walk will leave a
// vertex again but the vertex has no exit in link, the exit is searched for
// at once and a new spoke made for it, so that the passage that begins with
// this arrival has its spoke.
int32_t capStepDirected(void* ctx, qvVtx* v, qvEdg* e, qvVtx* w, bool searched) {
  CapWalk& c = *static_cast<CapWalk*>(ctx);
  double* hub = c.hub->dat;

  qvEdg* vs = searched ? newSpoke(c.cap, hub, v) : static_cast<qvEdg*>(v->aux);
  if (!vs || vs->link || (vs->ends[0] && vs->ends[0] != hub)) return -1;
  if (searched) v->aux = vs;
  vs->ends[0] = hub;

  qvEdg* ws = static_cast<qvEdg*>(w->aux);
  // A spoke that waits for its arriving triangle, or one not yet used.
  const bool usable = ws && !ws->own;
  if (!usable) {
    if (w->tag == 0) return -1;
    if (!w->link) {
      w->link = qvEdgFrom(c.first, c.mask, w->dat);
      if (!w->link) return -1;
    }
    ws = newSpoke(c.cap, hub, w);
    if (!ws) return -1;
    w->aux = ws;
  }

  if (!addHubPoint(c, v)) return -1;
  qvTri* t = qvTriNew(e, vs, ws, kTriCap);
  if (!t) return -1;
  c.cap->tri = listPrepend(c.cap->tri, t);
  ws->own = t;
  vs->link = t;
  if (spokeClose(vs, v) != 0 || spokeClose(ws, w) != 0) return -1;
  return joinRim(e, t) ? 0 : -1;
}

// The spoke of v in the undirected variant: one per vertex, made on first need.
qvEdg* vertexSpoke(qvMesh* cap, qvVtx* v) {
  if (!v->aux) v->aux = newSpoke(cap, nullptr, v);
  return static_cast<qvEdg*>(v->aux);
}

// One boundary edge of an undirected cap walk, taken from v to w. The
// triangle runs against e, which the marking pass turned along its boundary
// triangle, whichever way the walk goes. A vertex can be left once only.
int32_t capStepUndirected(void* ctx, qvVtx* v, qvEdg* e, qvVtx* w, bool) {
  CapWalk& c = *static_cast<CapWalk*>(ctx);
  qvEdg* vs = vertexSpoke(c.cap, v);
  qvEdg* ws = vertexSpoke(c.cap, w);
  if (!vs || !ws || vs->ends[0]) return -1;
  vs->ends[0] = c.hub->dat;
  if (!addHubPoint(c, v)) return -1;

  qvEdg* s0 = e->ends[0] == v->dat ? vs : ws;
  qvEdg* s1 = s0 == vs ? ws : vs;
  qvTri* t = qvTriNew(e, s0, s1, kTriCap);
  if (!t) return -1;
  c.cap->tri = listPrepend(c.cap->tri, t);
  for (qvEdg* s : {s0, s1}) {
    if (!s->own) {
      s->own = t;
    } else if (!s->link) {
      s->link = t;
      if (qvTriLink(s->own, t, s) != 0) return -1;
    } else {
      return -1;
    }
  }
  return joinRim(e, t) ? 0 : -1;
}

// A hub at the origin, to which the walk adds the loop's vertices.
qvVtx* newHub(qvMesh* cap) {
  qvVtx* hub = qvVtxNew(kVtxHasNormal, nullptr);
  if (!hub) return nullptr;
  hub->flags |= kVtxHub;
  for (int32_t k = 0; k < hub->ndat; ++k) hub->dat[k] = 0.0;
  cap->vtx = listPrepend(cap->vtx, hub);
  return hub;
}

void hubFinish(const CapWalk& w) {
  const double scale = 1.0 / w.count;
  for (int k = 0; k < 3; ++k) w.hub->dat[k] *= scale;
}

// Gives each marked edge of the head run its boundary triangle in own.
void rimOwners(qvMesh* mesh) {
  for (qvTri* t = mesh->tri; t; t = t->next)
    for (qvEdg* e : t->edg)
      if (e && (e->flags & kWalkEdgBit)) e->own = t;
}

void clearOwners(qvMesh* mesh) {
  for (qvEdg* e = mesh->edg; e; e = e->next) e->own = nullptr;
}

// Releases a cap that is still apart from the mesh's lists: the boundary
// triangles are unlinked from it first, and its hubs go with it.
void capDiscard(qvMesh* cap) {
  if (!cap) return;
  for (qvTri* t = cap->tri; t; t = t->next) qvTriUnlink(t);
  qvVtxDeleteAll(cap->vtx);
  cap->vtx = nullptr;
  qvMeshFree(cap);
}

// Whether the marked edges of a head run of n were all taken and joined.
bool rimDone(const qvMesh* mesh, int32_t n) {
  const qvEdg* e = mesh->edg;
  for (int32_t i = 0; i < n && e; ++i, e = e->next)
    if ((e->flags & kWalkEdgBit) || e->own) return false;
  return true;
}

qvMesh* capUndirected(qvMesh* mesh, int32_t* loops) {
  // A vertex with one spoke can be passed once: the fields must be free, and
  // no boundary can have been capped before.
  bool ok = true;
  for (const qvVtx* v = mesh->vtx; v && ok; v = v->next)
    if ((v->flags & kVtxRim) || v->aux || (v->link && !(v->flags & kVtxDerived))) ok = false;
  for (const qvEdg* e = mesh->edg; e && ok; e = e->next)
    if (e->flags & kEdgRim) ok = false;
  qvMesh* cap = ok ? qvMeshNew(nullptr, nullptr, nullptr, 0) : nullptr;
  if (!cap) {
    qvTopoUnmark(mesh, kWalkVtxBit, kWalkEdgBit, kWalkSwapBit);
    *loops = -1;
    return nullptr;
  }

  int32_t count = 0;
  int32_t nRim = 0;
  qvEdg* stop = headRunEnd(mesh->edg, kWalkEdgBit);
  for (qvEdg* e = mesh->edg; e != stop; e = e->next, ++nRim) {
    e->flags |= kEdgRim;
    for (double* h : e->ends) qvVtxOf(h)->flags |= kVtxRim;
  }
  ok = buildVtxLists(mesh, stop);
  rimOwners(mesh);
  for (qvVtx* v = mesh->vtx; ok && v && (v->flags & kWalkVtxBit); v = v->next) {
    while (ok && v->tag != 0) {
      CapWalk w{cap, newHub(cap), nullptr, kWalkEdgBit, 0};
      ok = w.hub && walkUndirected(v, kWalkEdgBit, capStepUndirected, &w) > 0 && w.count > 0;
      if (ok) {
        hubFinish(w);
        ++count;
      }
    }
  }
  // Every spoke must have both its triangles, and every rim edge its partner.
  for (qvEdg* s = cap->edg; s; s = s->next) {
    if (!s->own || !s->link || !s->ends[0]) ok = false;
    s->own = nullptr;
    s->link = nullptr;
  }
  if (ok && !rimDone(mesh, nRim)) ok = false;
  freeVtxLists(mesh, kWalkVtxBit);
  clearVtxWork(mesh, kWalkVtxBit);
  if (!ok) {
    capDiscard(cap);
    clearOwners(mesh);
    cap = nullptr;
    count = -1;
  }
  qvTopoUnmark(mesh, kWalkVtxBit, kWalkEdgBit, kWalkSwapBit);
  *loops = count;
  return cap;
}

}  // namespace

qvMesh* qvCapBuild(qvMesh* mesh, int32_t* count) {
  int32_t dummy = 0;
  int32_t& loops = count ? *count : dummy;
  loops = -1;
  if (!mesh) return nullptr;
  qvCensus census;
  const int32_t inconsistent = qvTopoMark(mesh, kWalkVtxBit, kWalkEdgBit, 0, kWalkSwapBit, &census);
  if (inconsistent < 0) {
    mesh->flags |= kMeshCapDone;
    return nullptr;
  }
  if (census.nEven == 0) {
    loops = 0;
    mesh->flags |= kMeshCapDone;
    qvTopoUnmark(mesh, kWalkVtxBit, kWalkEdgBit, kWalkSwapBit);
    return nullptr;
  }
  if (inconsistent > 0) return capUndirected(mesh, &loops);

  qvMesh* cap = qvMeshNew(nullptr, nullptr, nullptr, 0);
  bool ok = cap != nullptr;
  int32_t n = 0;
  int32_t nRim = 0;
  qvEdg* stop = headRunEnd(mesh->edg, kWalkEdgBit);
  // Each rim vertex gets an exit in link and, once, a spoke whose hub is set
  // by the walk that first leaves the vertex.
  for (qvEdg* e = mesh->edg; ok && e != stop; e = e->next, ++nRim) {
    e->flags |= kEdgRim;
    for (double* h : e->ends) qvVtxOf(h)->flags |= kVtxRim;
    qvVtx* v = qvVtxOf(e->ends[0]);
    v->link = e;
    if (!v->aux) {
      v->aux = newSpoke(cap, nullptr, v);
      ok = v->aux != nullptr;
    }
  }
  if (ok) rimOwners(mesh);
  for (qvEdg* e = mesh->edg; ok && e != stop; e = e->next) {
    if (!(e->flags & kWalkEdgBit)) continue;
    CapWalk w{cap, newHub(cap), e, kWalkEdgBit, 0};
    ok = w.hub && walkDirected(e, qvVtxOf(e->ends[0]), kWalkEdgBit, capStepDirected, &w) > 0;
    if (ok) {
      hubFinish(w);
      ++n;
    }
  }
  for (const qvEdg* s = cap ? cap->edg : nullptr; s && ok; s = s->next)
    if (s->link || s->own || !s->ends[0]) ok = false;
  if (ok && !rimDone(mesh, nRim)) ok = false;
  clearVtxWork(mesh, kWalkVtxBit);
  if (!ok) {
    capDiscard(cap);
    clearOwners(mesh);
    cap = nullptr;
    n = -1;
  }
  // Set on this path whatever the result; nothing reads it.
  mesh->flags |= kMeshCapDone;
  qvTopoUnmark(mesh, kWalkVtxBit, kWalkEdgBit, kWalkSwapBit);
  loops = n;
  return cap;
}

int32_t qvCapRemove(qvMesh* mesh) {
  if (!mesh) return -1;
  for (qvTri* t = mesh->tri; t; t = t->next)
    if (t->flags & kTriCap) qvTriUnlink(t);
  int32_t nTri = 0;
  int32_t nVtx = 0;
  mesh->tri = qvTriDeleteFlagged(mesh->tri, kTriCap, &nTri);
  mesh->edg = qvEdgDeleteFlagged(mesh->edg, kEdgCap);
  mesh->vtx = qvVtxDeleteFlagged(mesh->vtx, kVtxHub, &nVtx);
  if (nVtx) mesh->flags &= ~kMeshSortedSet;
  return nTri;
}

// ---------------------------------------------------------------------------
// Closing holes

namespace {

// The end that two edges share, or null.
double* commonEnd(const qvEdg* a, const qvEdg* b) {
  if (!a || !b) return nullptr;
  for (double* h : a->ends)
    if (h && (h == b->ends[0] || h == b->ends[1])) return h;
  return nullptr;
}

// Makes the caps whose area passes the limit part of the surface: they lose
// their provisional bits, and their rim edges kEdgRim. Each loop's triangles
// stand in one run, in the order of the hubs. The number accepted, or -1.
int32_t capAccept(qvMesh* cap, const double* maxArea) {
  int32_t accepted = 0;
  qvTri* cursor = cap->tri;
  for (qvVtx* hub = cap->vtx; hub; hub = hub->next) {
    qvTri* end = cursor;
    double area = 0.0;
    for (; end; end = end->next) {
      if (!(end->flags & kTriCap)) return -1;
      const double* h = commonEnd(end->edg[1], end->edg[2]);
      if (!h) return -1;
      if (h != hub->dat) break;
      const double a = qvTriArea(end);
      if (a < 0.0) return -1;
      area += a;
    }
    qvTri* run = cursor;
    cursor = end;
    if (run == end || (maxArea && area > *maxArea)) continue;
    for (qvTri* t = run; t != end; t = t->next) {
      if (!(t->edg[0]->flags & kEdgRim)) return -1;
      t->flags &= ~kTriCap;
      t->edg[0]->flags &= ~kEdgRim;
      t->edg[1]->flags &= ~kEdgCap;
      t->edg[2]->flags &= ~kEdgCap;
    }
    hub->flags &= ~kVtxHub;
    ++accepted;
  }
  return accepted;
}

}  // namespace

int32_t qvMeshClose(qvMesh* mesh, const double* maxArea) {
  if (!mesh) return -1;
  if (!mesh->topo) (void)qvMeshTopoMake(mesh);  // its code is read from topo below
  if (!mesh->topo || mesh->topo->result != 0) return -1;
  if (mesh->topo->nLoop == 0) return 0;

  int32_t loops = 0;
  qvMesh* cap = qvCapBuild(mesh, &loops);
  if (loops < 0) return -1;
  if (!cap) return 0;
  const int32_t accepted = capAccept(cap, maxArea);
  if (accepted < 0) {
    capDiscard(cap);
    return -1;
  }
  if (accepted != mesh->topo->nLoop && qvCapRemove(cap) < 0) {
    capDiscard(cap);
    return FT_FAIL(-1);
  }

  qvMeshPrependLists(mesh, cap);
  qvMeshFree(cap);
  if (accepted > 0) mesh->flags &= ~kMeshSortedSet;

  const int32_t code = qvMeshTopo(mesh, mesh->topo);
  mesh->topo->result = code;
  return code == 0 ? accepted : FT_FAIL(-1);
}
