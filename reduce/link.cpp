// The link condition of a spoke: collapsing v onto w keeps the surface a
// surface only when the rings of v and w share exactly the two corners
// opposite the spoke and no edge. A spoke of a tetrahedron fails it, as does
// any spoke whose ends have a third common neighbour.
#include <algorithm>
#include <functional>
#include <utility>

#include "reduce/reduce_internal.h"

namespace {

struct LinkWalk {
  const double* v;     // the end whose ring is listed
  const double* w;     // the end whose fan is walked
  const double* a;     // the corners opposite the spoke
  const double* b;
  const double* const* ring;  // v's ring, as handles
  int32_t nRing;
  int32_t valence;     // triangles round w
};

// Whether x is in v's ring. The list is at hand, where the vertices round
// w, two steps from v, would each be fetched for a mark.
inline bool inRing(const LinkWalk& c, const double* x) {
  if (c.nRing > 16) return std::binary_search(c.ring, c.ring + c.nRing, x, std::less<const double*>());
  for (int32_t i = 0; i < c.nRing; ++i)
    if (c.ring[i] == x) return true;
  return false;
}

// The slots of the two edges of t at w, in cycle order as a fan walk takes
// them (slot 2 comes before slot 0), and its far edge. false unless exactly
// two of its edges touch w.
inline bool edgesAt(const qvTri* t, const double* w, int32_t at[2], const qvEdg** far) {
  int32_t n = 0;
  *far = nullptr;
  for (int32_t i = 0; i < 3; ++i) {
    const qvEdg* e = t->edg[i];
    if (!e) return false;
    if (e->ends[0] != w && e->ends[1] != w) *far = e;
    else if (n == 2) return false;
    else at[n++] = i;
  }
  if (n != 2) return false;
  if (at[0] == 0 && at[1] == 2) std::swap(at[0], at[1]);
  return true;
}

// Whether x, a neighbour of w, is in v's ring and is none of v, a and b.
inline bool ringHit(const LinkWalk& c, const double* x) {
  return x != c.v && x != c.a && x != c.b && inRing(c, x);
}

// Walks the live fan of w from cur, entered by the edge in, counting its
// triangles: 2 at a neighbour of w, other than v, a and b, that is in v's
// ring too; 0 back at stop; -1 at a boundary; -2 for a broken fan (a
// triangle met twice without reaching stop shows within twice the loop's
// length, as the saved one is renewed at doubling distances).
//
// The first triangle is read whole. Each next one is entered by the edge
// the last left by, whose far end is known: one more edge tells which side
// leaves and the neighbour it reaches, so a step reads one edge, not three.
int32_t walkLink(LinkWalk& c, qvTri* cur, const qvTri* stop, const qvEdg* in) {
  const qvTri* saved = cur;
  uint64_t limit = 2;
  uint64_t taken = 0;
  int32_t at[2];
  const qvEdg* far;
  if (!edgesAt(cur, c.w, at, &far)) return -2;
  ++c.valence;
  for (const double* x : far->ends)
    if (ringHit(c, x)) return 2;
  int32_t out;
  if (cur->edg[at[0]] == in) out = at[1];
  else if (cur->edg[at[1]] == in) out = at[0];
  else return -2;
  const double* past = cur->edg[out]->ends[0] == c.w ? cur->edg[out]->ends[1] : cur->edg[out]->ends[0];
  for (;;) {
    if (!(cur->flags & kTriLinked)) return -2;
    qvTri* next = cur->aux[out] ? cur->aux[out] : cur->adj[out];
    if (!next) return -1;
    if (next == stop) return 0;
    if (next == saved) return -2;
    if (++taken == limit) {
      saved = next;
      limit *= 2;
      taken = 0;
    }
    in = cur->edg[out];
    cur = next;
    int32_t i = 0;
    while (i < 3 && cur->edg[i] != in) ++i;
    if (i == 3) return -2;
    const qvEdg* side = cur->edg[(i + 1) % 3];
    const double* enter = past;  // the end of in past w
    if (!side) return -2;
    if (side->ends[0] == c.w || side->ends[1] == c.w) {
      out = (i + 1) % 3;
      past = side->ends[0] == c.w ? side->ends[1] : side->ends[0];
    } else {
      // side is the far edge, from the end of in to that of the way out.
      out = (i + 2) % 3;
      if (side->ends[0] == enter) past = side->ends[1];
      else if (side->ends[1] == enter) past = side->ends[0];
      else return -2;
    }
    ++c.valence;
    if (ringHit(c, past)) return 2;
  }
}

}  // namespace

int32_t qvLinkTest(qvTri* t, qvEdg* e, const double* v, const double* const* ring, int32_t nRing, int32_t valence,
                   int32_t* farValence) {
  if (!t || !e || !v || !ring) return -1;
  const int32_t i = qvTriEdgeSlot(t, e);
  const double* w = e->ends[0] == v ? e->ends[1] : e->ends[0];
  if (i < 0 || (e->ends[0] != v && e->ends[1] != v)) return -1;
  // The spoke's other triangle on the live surface.
  const qvTri* n = t->aux[i] ? t->aux[i] : t->adj[i];
  if (!n) return -1;
  LinkWalk walk{v, w, qvTriOpposite(t, e), qvTriOpposite(n, e), ring, nRing, 0};
  if (!walk.a || !walk.b) return -1;
  if (!inRing(walk, walk.a) || !inRing(walk, walk.b)) return -1;
  // Round w from t, and, where its fan is open, the other way too.
  int32_t at[2];
  const qvEdg* far;
  if (!edgesAt(t, w, at, &far)) return -1;
  int32_t r = walkLink(walk, t, t, t->edg[at[0]]);
  if (r == -1) {
    qvTri* back = t->aux[at[0]] ? t->aux[at[0]] : t->adj[at[0]];
    if (back) r = walkLink(walk, back, t, t->edg[at[0]]);
    if (r == 0) r = -2;
  }
  if (r == 2) return 0;
  if (r != 0) return -1;
  if (farValence) *farValence = walk.valence;
  // Both ends of valence 3: the two rings share the edge a-b, and the four
  // triangles close a tetrahedron.
  return valence == kValenceMin && walk.valence == kValenceMin ? 0 : 1;
}
