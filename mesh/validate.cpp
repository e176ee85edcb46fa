// The whole-mesh validator. It reads only; every pointer it follows was
// first found in one of the mesh's own lists, and every walk stops at the
// first record seen before, so a broken mesh is reported and not looped on.
// It uses standard containers and so is meant for tests and debug builds.
#include <algorithm>
#include <cstdarg>
#include <functional>
#include <map>
#include <unordered_map>
#include <vector>

#include "mesh/qvMesh.h"

namespace {

struct Report {
  FILE* out;      // where messages go, or null
  int32_t count;  // violations so far
};

__attribute__((format(printf, 3, 4))) void violation(Report& r, int invariant, const char* fmt, ...) {
  ++r.count;
  if (!r.out) return;
  std::fprintf(r.out, "invariant %d: ", invariant);
  va_list args;
  va_start(args, fmt);
  std::vfprintf(r.out, fmt, args);
  va_end(args);
  std::fputc('\n', r.out);
}

// Which list a record was found in, for the message when it turns up again.
enum ListId { kListVtx, kListEdg, kListTri, kListEdgHeld, kListTriHeld };
const char* const kListName[] = {"vtx", "edg", "tri", "edgHeld", "triHeld"};

using Seen = std::unordered_map<const void*, int>;

// Walks one list, checking prev against the record walked before, and stops
// at a record already seen: in this list it is a cycle, in another list the
// two lists have run together. Returns the records in order.
template <class T>
std::vector<const T*> walkList(Report& r, Seen& seen, const T* head, ListId id) {
  std::vector<const T*> recs;
  const T* before = nullptr;
  for (const T* p = head; p; p = p->next) {
    auto found = seen.emplace(p, id);
    if (!found.second) {
      if (found.first->second == id)
        violation(r, 1, "%s list runs in a cycle: %p comes again after %zu records",
                  kListName[id], static_cast<const void*>(p), recs.size());
      else
        violation(r, 2, "%s list runs into the %s list at %p", kListName[id],
                  kListName[found.first->second], static_cast<const void*>(p));
      break;
    }
    if (p->prev != before)
      violation(r, 1, "%s %p: prev is %p, not the record before it (%p)", kListName[id],
                static_cast<const void*>(p), static_cast<const void*>(p->prev),
                static_cast<const void*>(before));
    recs.push_back(p);
    before = p;
  }
  return recs;
}

void checkMarks(Report& r, const char* what, const void* rec, uint32_t flags) {
  if (flags & kMarkMask)
    violation(r, 9, "%s %p carries mark bits %#x", what, rec, flags & kMarkMask);
}

void checkVertices(Report& r, const std::vector<const qvVtx*>& vtx,
                   std::unordered_map<const double*, const qvVtx*>& handles) {
  for (const qvVtx* v : vtx) {
    const void* p = v;
    const double* inlineDat = reinterpret_cast<const double*>(reinterpret_cast<const char*>(v) + sizeof(qvVtx));
    if (v->ndat <= 0 || v->ndat < qvVtxDataSize(v->flags))
      violation(r, 3, "vertex %p: ndat %d is short of the %d doubles its flags ask for", p, v->ndat,
                qvVtxDataSize(v->flags));
    if (!(v->flags & kVtxOwnBlock) && v->dat != inlineDat)
      violation(r, 3, "vertex %p: dat %p is not its inline data %p", p, static_cast<const void*>(v->dat),
                static_cast<const void*>(inlineDat));
    if ((v->flags & kVtxOwnBlock) && !v->dat) violation(r, 3, "vertex %p: its own data block is null", p);
    // The reduction leaves link and aux of its data-form vertices for the next
    // preparation to reset; they may name records that are gone.
    const bool engineForm = (v->flags & kVtxHasParam) != 0;
    if (v->link && !(v->flags & kVtxDerived) && !engineForm)
      violation(r, 8, "vertex %p: link is set at rest", p);
    if (v->tag) violation(r, 8, "vertex %p: tag is %d at rest", p, v->tag);
    if (v->aux && !engineForm) violation(r, 8, "vertex %p: aux is set at rest", p);
    checkMarks(r, "vertex", p, v->flags);
    if (v->dat) handles.emplace(v->dat, v);
  }
}

void checkEdges(Report& r, const std::vector<const qvEdg*>& edg,
                const std::unordered_map<const double*, const qvVtx*>& handles) {
  for (const qvEdg* e : edg) {
    const void* p = e;
    for (int k = 0; k < 2; ++k) {
      auto found = handles.find(e->ends[k]);
      if (found == handles.end()) {
        violation(r, 4, "edge %p: end %d (%p) is no vertex handle of this mesh", p, k,
                  static_cast<const void*>(e->ends[k]));
        continue;
      }
      const qvVtx* v = found->second;
      if (v->flags & (kVtxOwnBlock | kVtxDerived))
        violation(r, 4, "edge %p: end %d is vertex %p, which has no inline coordinates", p, k,
                  static_cast<const void*>(v));
    }
    if (e->ends[0] == e->ends[1]) violation(r, 4, "edge %p: both ends are the same handle", p);
    if (e->link) violation(r, 8, "edge %p: link is set at rest", p);
    if (e->own) violation(r, 8, "edge %p: own is set at rest", p);
    checkMarks(r, "edge", p, e->flags);
  }
}

// Uses of an edge by triangles: how many, and the first user and its slot.
struct EdgeUse {
  int32_t count;      // triangles that hold the edge
  const qvTri* first; // the first of them
  int32_t slot;       // the edge's slot in first
};

// Checks one triangle's edges and cycle (5); returns whether its three edges
// are distinct edges of the mesh, so that adjacency can be checked.
bool checkTriangleShape(Report& r, const qvTri* t, std::unordered_map<const qvEdg*, EdgeUse>& uses) {
  const void* p = t;
  if (!(t->flags & kTriLinked)) violation(r, 5, "triangle %p lacks kTriLinked", p);
  bool edgesOk = true;
  for (int i = 0; i < 3; ++i) {
    if (!uses.count(t->edg[i])) {
      violation(r, 5, "triangle %p: edg[%d] (%p) is no edge of this mesh", p, i,
                static_cast<const void*>(t->edg[i]));
      edgesOk = false;
    }
  }
  if (edgesOk && (t->edg[0] == t->edg[1] || t->edg[1] == t->edg[2] || t->edg[0] == t->edg[2])) {
    violation(r, 5, "triangle %p holds one edge twice", p);
    edgesOk = false;
  }
  if (!edgesOk) return false;
  double* c[3];
  if (qvTriCorners(t, 0, c) != 0) {
    violation(r, 5, "triangle %p: edg[0] and edg[1] share no end", p);
  } else {
    const qvEdg* e2 = t->edg[2];
    const bool closes = (e2->ends[0] == c[2] && e2->ends[1] == c[0]) ||
                        (e2->ends[0] == c[0] && e2->ends[1] == c[2]);
    if (!closes) violation(r, 5, "triangle %p: edg[2] does not join corner 2 to corner 0", p);
  }
  for (int i = 0; i < 3; ++i) {
    EdgeUse& u = uses[t->edg[i]];
    if (u.count++ == 0) {
      u.first = t;
      u.slot = i;
    }
  }
  return true;
}

void checkAdjacency(Report& r, const qvTri* t, const Seen& seen, bool stitched,
                    const std::unordered_map<const qvEdg*, EdgeUse>& uses) {
  const void* p = t;
  for (int i = 0; i < 3; ++i) {
    const qvTri* n = t->adj[i];
    if (n) {
      auto found = seen.find(n);
      if (found == seen.end() || found->second != kListTri) {
        violation(r, 6, "triangle %p: adj[%d] (%p) is no triangle of this mesh", p, i,
                  static_cast<const void*>(n));
        continue;
      }
      if (n == t) {
        violation(r, 6, "triangle %p: adj[%d] is the triangle itself", p, i);
        continue;
      }
      int j = 0;
      while (j < 3 && n->edg[j] != t->edg[i]) ++j;
      if (j == 3)
        violation(r, 6, "triangle %p: adj[%d] (%p) does not hold the shared edge %p", p, i,
                  static_cast<const void*>(n), static_cast<const void*>(t->edg[i]));
      else if (n->adj[j] != t)
        violation(r, 6, "triangle %p: adj[%d] is %p, whose adj[%d] is %p, not back", p, i,
                  static_cast<const void*>(n), j, static_cast<const void*>(n->adj[j]));
    }
    if (stitched) {
      const EdgeUse& u = uses.at(t->edg[i]);
      if (u.count == 2 && u.first != t && (n != u.first || u.first->adj[u.slot] != t))
        violation(r, 7, "edge %p: its triangles %p and %p are not joined by adj across it",
                  static_cast<const void*>(t->edg[i]), static_cast<const void*>(u.first), p);
    }
  }
}

void checkTriangleFields(Report& r, const qvTri* t) {
  const void* p = t;
  if (t->link) violation(r, 8, "triangle %p: link is set at rest", p);
  if (t->tag) violation(r, 8, "triangle %p: tag is %d at rest", p, t->tag);
  if (t->cache) violation(r, 8, "triangle %p: cache is set at rest", p);
  for (int i = 0; i < 3; ++i)
    if (t->aux[i]) violation(r, 8, "triangle %p: aux[%d] is set at rest", p, i);
  checkMarks(r, "triangle", p, t->flags);
}

// Two edges in two triangles each on the same two vertices, in either order;
// spokes of a cap are left out.
void checkEdgeEnds(Report& r, const std::vector<const qvEdg*>& edg,
                   const std::unordered_map<const qvEdg*, EdgeUse>& uses) {
  std::map<std::pair<const double*, const double*>, const qvEdg*> byEnds;
  for (const qvEdg* e : edg) {
    if (uses.at(e).count != 2 || (e->flags & kEdgCap)) continue;
    const double* a = std::min(e->ends[0], e->ends[1], std::less<const double*>());
    const double* b = std::max(e->ends[0], e->ends[1], std::less<const double*>());
    auto found = byEnds.emplace(std::make_pair(a, b), e);
    if (!found.second)
      violation(r, 10, "edges %p and %p join the same two vertices", static_cast<const void*>(found.first->second),
                static_cast<const void*>(e));
  }
}

}  // namespace

int32_t qvMeshValidate(const qvMesh* mesh, FILE* out) {
  Report r{out, 0};
  if (!mesh) return 0;

  if (mesh->next && mesh->next->prev != mesh)
    violation(r, 1, "mesh %p: next mesh's prev does not lead back", static_cast<const void*>(mesh));
  if (mesh->prev && mesh->prev->next != mesh)
    violation(r, 1, "mesh %p: previous mesh's next does not lead back", static_cast<const void*>(mesh));
  if (mesh->vtx && mesh->vtx->prev) violation(r, 1, "vtx list: the head has a prev");
  if (mesh->edg && mesh->edg->prev) violation(r, 1, "edg list: the head has a prev");
  if (mesh->tri && mesh->tri->prev) violation(r, 1, "tri list: the head has a prev");

  Seen seen;
  const auto vtx = walkList(r, seen, mesh->vtx, kListVtx);
  const auto edg = walkList(r, seen, mesh->edg, kListEdg);
  const auto tri = walkList(r, seen, mesh->tri, kListTri);
  const auto edgHeld = walkList(r, seen, mesh->edgHeld, kListEdgHeld);
  const auto triHeld = walkList(r, seen, mesh->triHeld, kListTriHeld);
  if (mesh->held) violation(r, 2, "held is set at rest");
  if (!edgHeld.empty()) violation(r, 2, "edgHeld holds %zu edges at rest", edgHeld.size());
  if (!triHeld.empty()) violation(r, 2, "triHeld holds %zu triangles at rest", triHeld.size());

  std::unordered_map<const double*, const qvVtx*> handles;
  checkVertices(r, vtx, handles);
  checkEdges(r, edg, handles);

  std::unordered_map<const qvEdg*, EdgeUse> uses;
  for (const qvEdg* e : edg) uses.emplace(e, EdgeUse{0, nullptr, 0});
  std::vector<const qvTri*> shaped;
  for (const qvTri* t : tri) {
    if (checkTriangleShape(r, t, uses)) shaped.push_back(t);
    checkTriangleFields(r, t);
  }
  const bool stitched = (mesh->flags & kMeshStitched) != 0;
  for (const qvTri* t : shaped) checkAdjacency(r, t, seen, stitched, uses);
  for (const qvEdg* e : edg) {
    const int32_t n = uses.at(e).count;
    if (n < 1 || n > 2)
      violation(r, 7, "edge %p is in %d triangles", static_cast<const void*>(e), n);
  }
  if (stitched) checkEdgeEnds(r, edg, uses);
  return r.count;
}
