// Covers: the proof that a pass keeps its starting surface within the
// tolerance of the live one. Every live non-cap triangle answers for pieces
// of the starting surface (whole starting triangles, or fragments cut from
// them at midpoints), each certified to lie within lim of its home triangle,
// or of its home and the live neighbour across one of its edges. A trial
// removal certifies again every piece whose home or partner the removal
// destroys, against the new fan and the live triangles round the ring; the
// largest certified bound is the removal's score. See reduce/reduce.h for the
// invariants and the proof.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <unordered_map>
#include <vector>

#include "kernels/failure.h"
#include "kernels/predicates.h"
#include "kernels/alloc.h"
#include "reduce/reduce_internal.h"

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int32_t kPoolChunk = 4096;     // points per block of the pass's pool
constexpr int32_t kSplitDepth = 24;      // a piece is split 1:4 at most this often within one trial
constexpr int32_t kSplitFragments = 1024; // fragments one trial may make
// A triangle whose squared normal is at most this share of the largest
// product of two squared sides is measured as its three sides: the plane
// distance of a needle would carry a rounding error out of proportion.
constexpr double kNeedleShare = 0x1p-20;
// eta, the allowance for rounding, as a share of the largest coordinate
// magnitude of the pass (see reduce/reduce.h).
constexpr double kEtaShare = 0x1p-32;
constexpr double kUnit = 0x1p-53;
constexpr double kUnknown = -1.0;  // a distance of a row not yet measured

inline double dot3(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
inline void sub3(const double* a, const double* b, double* out) {
  for (int k = 0; k < 3; ++k) out[k] = a[k] - b[k];
}
inline void cross3(const double* a, const double* b, double* out) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

inline qvTri* liveAcross(const qvTri* t, int32_t i) { return t->aux[i] ? t->aux[i] : t->adj[i]; }

// Squared distance from p to the segment a-b.
double segDist2(const double* p, const double* a, const double* b) {
  double ab[3], ap[3];
  sub3(b, a, ab);
  sub3(p, a, ap);
  const double l2 = dot3(ab, ab);
  double t = l2 > 0.0 ? dot3(ap, ab) / l2 : 0.0;
  if (!(t > 0.0)) t = 0.0;  // NaN included: the end a
  if (t > 1.0) t = 1.0;
  double d[3];
  for (int k = 0; k < 3; ++k) d[k] = p[k] - (a[k] + t * ab[k]);
  return dot3(d, d);
}

// Orientation sign of three points in the coordinate plane that leaves out
// axis drop, on the exact predicate.
int32_t orient2dDrop(const double* a, const double* b, const double* c, int32_t drop) {
  const int32_t i = (drop + 1) % 3;
  const int32_t j = (drop + 2) % 3;
  const double pa[2] = {a[i], a[j]};
  const double pb[2] = {b[i], b[j]};
  const double pc[2] = {c[i], c[j]};
  const double d = orient2d(pa, pb, pc);
  return d > 0.0 ? 1 : (d < 0.0 ? -1 : 0);
}

// The normal (b - a) x (c - a) of a triangle into n, and the axis of its
// largest component: the coordinate plane that leaves it out shows the
// triangle largest.
int32_t widestView(const double* const t[3], double n[3]) {
  double ab[3], ac[3];
  sub3(t[1], t[0], ab);
  sub3(t[2], t[0], ac);
  cross3(ab, ac, n);
  int32_t drop = 0;
  for (int32_t k = 1; k < 3; ++k)
    if (std::fabs(n[k]) > std::fabs(n[drop])) drop = k;
  return drop;
}

float roundUp(double d) {
  const float f = static_cast<float>(d);
  return static_cast<double>(f) >= d ? f : std::nextafter(f, std::numeric_limits<float>::infinity());
}

}  // namespace

// ---------------------------------------------------------------------------
// The pool of fragment corners

struct qvCoverPool {
  struct Chunk {
    Chunk* next;
    double pts[kPoolChunk][3];
  };
  Chunk* head;
  int32_t used;  // points taken from head
  double scale;  // the largest coordinate magnitude of the pass
};

namespace {

double* poolPoint(qvCoverPool* pool) {
  if (!pool->head || pool->used == kPoolChunk) {
    auto* c = static_cast<qvCoverPool::Chunk*>(ftMalloc(sizeof(qvCoverPool::Chunk)));
    if (!c) return nullptr;
    c->next = pool->head;
    pool->head = c;
    pool->used = 0;
  }
  return pool->head->pts[pool->used++];
}

}  // namespace

// ---------------------------------------------------------------------------
// Covers

namespace {

// Covers that a thread frees wait as spares for their capacity, up to
// kShelfBytes of each, for the next cover of that capacity it makes: a
// commit frees the covers of its star and grows those of its fan.
// Capacities are powers of two from 2; larger ones than the shelves take go
// back to the allocator.
constexpr int32_t kShelves = 8;  // capacities 2 to 256
constexpr size_t kShelfBytes = kFtSpares ? size_t{1} << 20 : 0;

size_t coverBytes(int32_t cap) { return sizeof(qvCover) + sizeof(qvPiece) * static_cast<size_t>(cap); }

// The shelf of a capacity, or -1 for none.
int32_t shelfOf(int32_t cap) {
  int32_t k = 0;
  while (k < kShelves && (2 << k) != cap) ++k;
  return k < kShelves ? k : -1;
}

thread_local ftSpares shelves[kShelves];

qvCover* coverMake(int32_t cap) {
  const int32_t k = shelfOf(cap);
  void* c = k >= 0 ? ftSparePop(&shelves[k]) : nullptr;
  if (!c) c = ftMalloc(coverBytes(cap));
  if (!c) return nullptr;
  auto* cover = static_cast<qvCover*>(c);
  *cover = qvCover{0, cap, 0, 0};
  return cover;
}

void coverRelease(qvCover* c) {
  if (!c) return;
  static_assert(sizeof(qvCover) >= sizeof(void*), "a spare cover holds a pointer");
  const int32_t k = shelfOf(c->cap);
  if (k >= 0 && (shelves[k].n + 1) * coverBytes(c->cap) <= kShelfBytes) ftSparePush(&shelves[k], c);
  else std::free(c);
}

}  // namespace

void qvCoverFree(qvTri* t) {
  coverRelease(static_cast<qvCover*>(t->link));
  t->link = nullptr;
}

int32_t qvCoverAdd(qvTri* t, const qvPiece& piece) {
  auto* c = static_cast<qvCover*>(t->link);
  if (!c || c->n == c->cap) {
    // Most covers hold a handful of pieces: they start small.
    qvCover* grown = coverMake(c ? 2 * c->cap : 2);
    if (!grown) return -1;
    if (c) {
      const int32_t cap = grown->cap;
      std::memcpy(static_cast<void*>(grown), c, coverBytes(c->n));
      grown->cap = cap;
      coverRelease(c);
    }
    c = grown;
    t->link = c;
  }
  qvPiece* pieces = qvCoverPieces(c);
  if (c->n > 0 && piece.bound > pieces[c->n - 1].bound) c->unsorted = 1;
  pieces[c->n++] = piece;
  if (piece.kind >= 0) c->pairs |= 1u << piece.kind;
  return 0;
}

int32_t qvCoverStart(qvMesh* mesh, qvRedParams* params) {
  if (!mesh || !params) return -1;
  double scale = 0.0;
  for (const qvVtx* v = mesh->vtx; v; v = v->next) {
    const double* x = qvVtxXyz(v);
    if (!x) return FT_FAIL(-1);
    for (int k = 0; k < 3; ++k) scale = std::max(scale, std::fabs(x[k]));
  }
  if (!std::isfinite(scale)) return FT_FAIL(-1);
  params->pool = nullptr;
  params->eta = kEtaShare * scale;
  // At a tolerance of exactly 0 a removal must leave the surface as it was,
  // which the exact test of a flat star decides without covers.
  if (params->tol == 0.0) {
    params->lim2 = 0.0;
    return 0;
  }
  const double lim = params->tol - params->eta;
  params->lim2 = lim > 0.0 ? lim * lim * (1.0 - 4.0 * kUnit) : -1.0;
  auto* pool = static_cast<qvCoverPool*>(ftCalloc(1, sizeof(qvCoverPool)));
  if (!pool) return -1;
  pool->scale = scale;
  params->pool = pool;
  for (qvTri* t = mesh->tri; t; t = t->next) {
    if (t->flags & kTriCap) continue;
    qvPiece whole{{nullptr, nullptr, nullptr}, t, 0.0f, kPieceSingle};
    double* c[3];
    if (t->link || qvTriCoords(t, 0, c) != 0) return FT_FAIL(-1);
    for (int k = 0; k < 3; ++k) whole.q[k] = c[k];
    if (qvCoverAdd(t, whole) != 0) return FT_FAIL(-1);
  }
  return 0;
}

void qvCoverEnd(qvMesh* mesh, qvRedParams* params) {
  if (mesh)
    for (qvTri* t = mesh->tri; t; t = t->next) qvCoverFree(t);
  if (!params || !params->pool) return;
  for (qvCoverPool::Chunk* c = params->pool->head; c;) {
    qvCoverPool::Chunk* next = c->next;
    std::free(c);
    c = next;
  }
  std::free(params->pool);
  params->pool = nullptr;
}

// ---------------------------------------------------------------------------
// Homes: the triangles a trial may give a piece to

int32_t qvHomeSet(qvHome* home, qvTri* t) {
  double* h[3];
  if (!t || qvTriCorners(t, 0, h) != 0) return -1;
  home->tri = t;
  for (int k = 0; k < 3; ++k) {
    home->h[k] = h[k];
    home->x[k] = qvVtxXyz(qvVtxOf(h[k]));
    if (!home->x[k]) return -1;
    home->nb[k] = -1;
  }
  double* ab = home->ab;
  double* ac = home->ac;
  double* bc = home->bc;
  sub3(home->x[1], home->x[0], ab);
  sub3(home->x[2], home->x[0], ac);
  sub3(home->x[2], home->x[1], bc);
  cross3(ab, ac, home->n);
  home->nn = dot3(home->n, home->n);
  const double lab = dot3(ab, ab);
  const double lac = dot3(ac, ac);
  const double lbc = dot3(bc, bc);
  const double widest = std::max(lab * lac, std::max(lab * lbc, lac * lbc));
  home->plane = home->nn > kNeedleShare * widest && std::isfinite(home->nn);
  return 0;
}

namespace {

// The squared distance from p to the triangle of t, when it is not a needle.
double faceDist2(const qvHome& t, const double* p) {
  // The region of the triangle's Voronoi diagram that p falls in decides:
  // a corner, a side, or the face, where the distance is the plane's.
  // The sides come with the home, and the six projections are all made
  // before any is tested.
  const double* ab = t.ab;
  const double* ac = t.ac;
  double ap[3], bp[3], cp[3], q[3];
  sub3(p, t.x[0], ap);
  sub3(p, t.x[1], bp);
  sub3(p, t.x[2], cp);
  const double d1 = dot3(ab, ap), d2 = dot3(ac, ap);
  const double d3 = dot3(ab, bp), d4 = dot3(ac, bp);
  const double d5 = dot3(ab, cp), d6 = dot3(ac, cp);
  if (d1 <= 0.0 && d2 <= 0.0) return dot3(ap, ap);
  if (d3 >= 0.0 && d4 <= d3) return dot3(bp, bp);
  const double vc = d1 * d4 - d3 * d2;
  if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0) {
    const double f = d1 / (d1 - d3);
    for (int k = 0; k < 3; ++k) q[k] = ap[k] - f * ab[k];
    return dot3(q, q);
  }
  if (d6 >= 0.0 && d5 <= d6) return dot3(cp, cp);
  const double vb = d5 * d2 - d1 * d6;
  if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0) {
    const double f = d2 / (d2 - d6);
    for (int k = 0; k < 3; ++k) q[k] = ap[k] - f * ac[k];
    return dot3(q, q);
  }
  const double va = d3 * d6 - d5 * d4;
  if (va <= 0.0 && d4 - d3 >= 0.0 && d5 - d6 >= 0.0) {
    const double f = (d4 - d3) / ((d4 - d3) + (d5 - d6));
    for (int k = 0; k < 3; ++k) q[k] = bp[k] - f * t.bc[k];
    return dot3(q, q);
  }
  const double s = dot3(ap, t.n);
  return s * s / t.nn;
}

}  // namespace

double qvHomeDist2(const qvHome& t, const double* p) {
  if (t.plane) {
    const double d = faceDist2(t, p);
    return d >= 0.0 ? d : kInf;  // not a number: no bound
  }
  // A needle: the nearest side. The sides are part of the triangle, so
  // this never falls below the true distance.
  double d = segDist2(p, t.x[0], t.x[1]);
  d = std::min(d, segDist2(p, t.x[1], t.x[2]));
  d = std::min(d, segDist2(p, t.x[2], t.x[0]));
  return d >= 0.0 ? d : kInf;
}

void qvHomeLink(qvHome* homes, int32_t n) {
  for (int32_t j = 0; j < n; ++j) homes[j].nb[0] = homes[j].nb[1] = homes[j].nb[2] = -1;
  // The homes' edges side by side, home after home: the first other home
  // that holds an edge owns its first entry from another home. Past the
  // local room, each edge is looked up in every home.
  constexpr int32_t kLocal = 64;
  if (n > kLocal) {
    for (int32_t j = 0; j < n; ++j)
      for (int32_t s = 0; s < 3; ++s)
        for (int32_t k = 0; k < n && homes[j].nb[s] < 0; ++k)
          if (k != j && qvTriEdgeSlot(homes[k].tri, homes[j].tri->edg[s]) >= 0) homes[j].nb[s] = k;
    return;
  }
  // Each edge keeps the first two homes that hold it, in the homes' order,
  // in a table open-addressed on its address: the first other home of any
  // holder is one of those two.
  struct Holders {
    const qvEdg* e;
    int32_t first, second;
  };
  Holders table[8 * kLocal];
  uint32_t size = 16;  // at least twice the edges
  while (size < 6u * static_cast<uint32_t>(n)) size *= 2;
  for (uint32_t i = 0; i < size; ++i) table[i].e = nullptr;
  const auto slotOf = [&](const qvEdg* e) {
    uint32_t i = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(e) >> 4) & (size - 1);
    while (table[i].e && table[i].e != e) i = (i + 1) & (size - 1);
    return i;
  };
  for (int32_t j = 0; j < n; ++j)
    for (const qvEdg* e : homes[j].tri->edg) {
      Holders& h = table[slotOf(e)];
      if (!h.e) h = Holders{e, j, -1};
      else if (h.second < 0 && h.first != j) h.second = j;
    }
  for (int32_t j = 0; j < n; ++j)
    for (int32_t s = 0; s < 3; ++s) {
      const Holders& h = table[slotOf(homes[j].tri->edg[s])];
      homes[j].nb[s] = h.first != j ? h.first : h.second;
    }
}

namespace {

int32_t addArea(qvTri* t, void* ctx) {
  double* c[3];
  if (t->flags & kTriCap) return 0;
  if (qvTriCoords(t, 0, c) != 0) return 2;
  double ab[3], ac[3], n[3];
  sub3(c[1], c[0], ab);
  sub3(c[2], c[0], ac);
  cross3(ab, ac, n);
  *static_cast<double*>(ctx) += std::sqrt(dot3(n, n));
  return 0;
}

}  // namespace

double qvStarArea(qvVtx* v) {
  double twice = 0.0;
  const int32_t r = qvFanWalk(static_cast<qvTri*>(v->aux), v->dat, addArea, &twice);
  return r == 0 || r == -1 ? 0.5 * twice : kInf;
}

// ---------------------------------------------------------------------------
// Certifying pieces

namespace {

// The index of the row of squared distances from a corner to every home,
// made on first use; -1 on failure. Rows move as they grow: take pointers
// to them only once every row needed exists.
int32_t rowOf(qvTrial* tr, const double* x) {
  const int32_t nh = tr->nHomes;
  // Open addressing on the point's address; the table is kept at most half full.
  if (2 * (tr->nRows + 1) > tr->slotCount) {
    int32_t count = tr->slotCount ? tr->slotCount * 2 : 256;
    while (2 * (tr->nRows + 1) > count) count *= 2;
    auto* slots = static_cast<int32_t*>(ftMalloc(sizeof(int32_t) * static_cast<size_t>(count)));
    if (!slots) return -1;
    std::free(tr->slots);
    tr->slots = slots;
    tr->slotCount = count;
    std::fill(slots, slots + count, -1);
    for (int32_t r = 0; r < tr->nRows; ++r) {
      size_t i = (reinterpret_cast<uintptr_t>(tr->rowKey[r]) >> 3) & static_cast<size_t>(count - 1);
      while (slots[i] >= 0) i = (i + 1) & static_cast<size_t>(count - 1);
      slots[i] = r;
    }
  }
  const size_t mask = static_cast<size_t>(tr->slotCount - 1);
  size_t i = (reinterpret_cast<uintptr_t>(x) >> 3) & mask;
  while (tr->slots[i] >= 0) {
    if (tr->rowKey[tr->slots[i]] == x) return tr->slots[i];
    i = (i + 1) & mask;
  }
  const int32_t r = tr->nRows;
  if (!qvGrow(tr->rowKey, tr->rowKeyCap, r + 1)) return -1;
  if (!qvGrow(tr->rows, tr->rowsCap, (r + 1) * nh)) return -1;
  tr->rowKey[r] = x;
  tr->slots[i] = r;
  ++tr->nRows;
  double* row = tr->rows + static_cast<size_t>(r) * nh;
  std::fill(row, row + nh, kUnknown);
  return r;
}

// The squared distance from corner q to home j, through its row r: measured
// on first use.
inline double rowDist(const qvTrial* tr, double* r, const double* q, int32_t j) {
  if (r[j] == kUnknown) {
    const qvHome& t = tr->homes[j];
    r[j] = (q == t.x[0] || q == t.x[1] || q == t.x[2]) ? 0.0 : qvHomeDist2(t, q);
  }
  return r[j];
}

// The bound of a piece split by the plane through the edge in slot s of home
// t that bisects the angle between t and its neighbour u across it: the part
// on t's side against t, the rest against u. Any plane through the edge gives
// a sound bound, as the two parts together are the piece; the bisector gives
// a good one. +inf when there is no such plane.
double pairBound(const double* const q[3], const qvHome& t, int32_t s, const qvHome& u) {
  const double* e0 = t.x[s];
  const double* e1 = t.x[(s + 1) % 3];
  const double* apex = t.x[(s + 2) % 3];
  const double* apex2 = nullptr;
  for (int k = 0; k < 3; ++k)
    if (u.h[k] != t.h[s] && u.h[k] != t.h[(s + 1) % 3]) apex2 = u.x[k];
  if (!apex2) return kInf;
  double d[3];
  sub3(e1, e0, d);
  const double dd = dot3(d, d);
  if (!(dd > 0.0)) return kInf;
  double w[2][3];
  const double* apexes[2] = {apex, apex2};
  for (int side = 0; side < 2; ++side) {
    double a[3];
    sub3(apexes[side], e0, a);
    const double f = dot3(a, d) / dd;
    for (int k = 0; k < 3; ++k) w[side][k] = a[k] - f * d[k];
    const double len = std::sqrt(dot3(w[side], w[side]));
    if (!(len > 0.0)) return kInf;
    for (int k = 0; k < 3; ++k) w[side][k] /= len;
  }
  double normal[3];
  sub3(w[0], w[1], normal);
  double sd[3];
  bool plus[3];
  int32_t nPlus = 0;
  for (int k = 0; k < 3; ++k) {
    double r[3];
    sub3(q[k], e0, r);
    sd[k] = dot3(r, normal);
    if (!std::isfinite(sd[k])) return kInf;
    plus[k] = sd[k] >= 0.0;
    nPlus += plus[k];
  }
  double best = 0.0;
  if (nPlus == 3 || nPlus == 0) {
    const qvHome& h = nPlus == 3 ? t : u;
    for (int k = 0; k < 3; ++k) best = std::max(best, qvHomeDist2(h, q[k]));
    return best;
  }
  // One corner, i, lies alone on its side: the chord between the crossings on
  // its two sides cuts the piece into a triangle and a quadrilateral.
  int32_t i = 0;
  while (plus[i] == (nPlus == 1 ? false : true)) ++i;
  const qvHome& lone = plus[i] ? t : u;
  const qvHome& rest = plus[i] ? u : t;
  best = qvHomeDist2(lone, q[i]);
  for (int k = 1; k <= 2; ++k) {
    const double* o = q[(i + k) % 3];
    const double den = sd[i] - sd[(i + k) % 3];
    double f = den != 0.0 ? sd[i] / den : 0.0;
    if (!(f > 0.0)) f = 0.0;
    if (f > 1.0) f = 1.0;
    double x[3];
    for (int c = 0; c < 3; ++c) x[c] = q[i][c] + f * (o[c] - q[i][c]);
    best = std::max(best, std::max(qvHomeDist2(lone, x), qvHomeDist2(rest, x)));
    best = std::max(best, qvHomeDist2(rest, o));
  }
  return best;
}

struct Certified {
  double bound;   // squared; +inf when nothing held
  int32_t home;   // index into the homes
  int32_t kind;   // kPieceSingle or the slot of the partner
};

// The best single or pair home of a piece whose corners have the rows r;
// the first single home within enough, in the homes' order, when there is
// one. A single home within lim2 ends the search; the rows are complete
// when it doesn't.
Certified bestHome(qvTrial* tr, const double* const q[3], double* const r[3], double enough) {
  const int32_t nh = tr->nHomes;
  Certified best{kInf, -1, kPieceSingle};
  for (int32_t j = 0; j < nh; ++j) {
    double b = 0.0;
    for (int k = 0; k < 3 && b < best.bound; ++k) b = std::max(b, rowDist(tr, r[k], q[k], j));
    if (b < best.bound) best = Certified{b, j, kPieceSingle};
    if (best.bound <= enough) return best;
  }
  if (best.bound <= tr->lim2) return best;
  if (!tr->linked) {
    qvHomeLink(tr->homes, nh);
    tr->linked = true;
  }
  int32_t nearest[3] = {0, 0, 0};
  for (int32_t j = 0; j < nh; ++j)
    for (int k = 0; k < 3; ++k) {
      const double d = rowDist(tr, r[k], q[k], j);
      if (d < r[k][nearest[k]]) nearest[k] = j;
    }
  // Pairs across the edges of the corners' nearest homes and the best single one.
  const int32_t tryHomes[4] = {best.home, nearest[0], nearest[1], nearest[2]};
  for (int a = 0; a < 4; ++a) {
    const int32_t j = tryHomes[a];
    if (j < 0) continue;
    bool seen = false;
    for (int b = 0; b < a; ++b) seen = seen || tryHomes[b] == j;
    if (seen) continue;
    for (int32_t s = 0; s < 3; ++s) {
      const int32_t m = tr->homes[j].nb[s];
      if (m < 0) continue;
      // Each corner lies in one of the two parts, so the pair's bound is at
      // least the largest of the corners' distances to the nearer of the two.
      double below = 0.0;
      for (int k = 0; k < 3; ++k) below = std::max(below, std::min(r[k][j], r[k][m]));
      if (!(below < best.bound)) continue;
      const double b = pairBound(q, tr->homes[j], s, tr->homes[m]);
      if (b < best.bound) best = Certified{b, j, s};
    }
  }
  return best;
}

// The rows of the corners q, made on first use: false on failure (tr->err).
bool rowsOf(qvTrial* tr, const double* const q[3], double* r[3]) {
  int32_t at[3];
  for (int k = 0; k < 3; ++k) {
    at[k] = rowOf(tr, q[k]);
    if (at[k] < 0) {
      tr->err = -1;
      return false;
    }
  }
  for (int k = 0; k < 3; ++k) r[k] = tr->rows + static_cast<size_t>(at[k]) * tr->nHomes;
  return true;
}

// The best single or pair home of the piece with corners q, whatever the
// score so far; bound +inf on failure (tr->err).
Certified bestOf(qvTrial* tr, const double* const q[3]) {
  double* r[3];
  if (!rowsOf(tr, q, r)) return Certified{kInf, -1, kPieceSingle};
  return bestHome(tr, q, r, -1.0);
}

// Whether piece is one of those the runs hold.
bool listedPiece(const qvPieceRun* runs, int32_t nRuns, const qvPiece* piece) {
  const std::less<const qvPiece*> before;
  for (int32_t i = 0; i < nRuns; ++i) {
    const qvPieceRun& run = runs[i];
    if (run.pieces) {
      if (!before(piece, run.pieces) && before(piece, run.pieces + run.n)) return true;
      continue;
    }
    for (int32_t k = 0; k < run.n; ++k)
      if (run.list[k].piece == piece) return true;
  }
  return false;
}

// Certifies the piece with corners q (a fragment of src, null for a flat
// piece's): a plan entry per piece or fragment that holds, true when all
// hold; false when one can't be certified within the limits, or on failure
// (tr->err).
bool certify(qvTrial* tr, const double* const q[3], const qvTri* src, int32_t depth) {
  double* r[3];
  if (!rowsOf(tr, q, r)) return false;
  // A home that keeps the piece within the score so far leaves the score
  // as it is, and is as good as the best for it.
  const Certified c = bestHome(tr, q, r, tr->score);
  if (c.bound <= tr->lim2) {
    if (!qvGrow(tr->plan, tr->planCap, tr->nPlan + 1)) {
      tr->err = -1;
      return false;
    }
    qvPlanItem& item = tr->plan[tr->nPlan++];
    item.home = c.home;
    item.piece = qvPiece{{q[0], q[1], q[2]}, src, roundUp(c.bound), c.kind};
    if (c.bound > tr->score) tr->score = c.bound;
    return true;
  }
  // A corner beyond lim of every home can't be helped by splitting.
  for (int k = 0; k < 3; ++k) {
    double nearest = kInf;
    for (int32_t j = 0; j < tr->nHomes; ++j) nearest = std::min(nearest, r[k][j]);
    if (!(nearest <= tr->lim2)) return false;
  }
  if (depth >= kSplitDepth || tr->fragments + 4 > kSplitFragments) return false;
  tr->fragments += 4;
  double* m[3];
  for (int k = 0; k < 3; ++k) {
    m[k] = poolPoint(tr->pool);
    if (!m[k]) {
      tr->err = -1;
      return false;
    }
    const double* a = q[k];
    const double* b = q[(k + 1) % 3];
    for (int c2 = 0; c2 < 3; ++c2) m[k][c2] = 0.5 * (a[c2] + b[c2]);
  }
  const double* parts[4][3] = {{q[0], m[0], m[2]}, {m[0], q[1], m[1]}, {m[2], m[1], q[2]}, {m[0], m[1], m[2]}};
  for (auto& part : parts)
    if (!certify(tr, part, src, depth + 1)) return false;
  return true;
}

// The key of a piece with this bound at place n of a trial's gathering.
// A bound is never negative, and the bits of a float of either sign
// ascend with its magnitude; both zeros get the same key.
uint64_t worstFirst(float bound, int32_t n) {
  uint32_t bits = 0;
  if (bound > 0.0f) std::memcpy(&bits, &bound, sizeof bits);
  return static_cast<uint64_t>(0xFFFFFFFFu - bits) << 32 | static_cast<uint32_t>(n);
}

// The worst-first order of listed pieces.
bool keyBefore(const qvAffected& a, const qvAffected& b) { return a.key < b.key; }

// The homes: the new fan, then the live non-cap triangles round the ring.
// Each home's neighbours among them are found when a pair is first weighed.
bool gatherHomes(qvTrial* tr) {
  tr->nHomes = 0;
  const int32_t n = qvTriCount(tr->copy->tri) + tr->nNear;
  if (!qvGrow(tr->homes, tr->homesCap, n)) return false;
  // A cap triangle of the fan (a rim vertex's) is no home: it leaves with the caps.
  for (qvTri* c = tr->copy->tri; c; c = c->next)
    if (!(c->flags & kTriCap) && qvHomeSet(&tr->homes[tr->nHomes++], c) != 0) return false;
  for (int32_t i = 0; i < tr->nNear; ++i)
    if (qvHomeSet(&tr->homes[tr->nHomes++], tr->near[i]) != 0) return false;
  tr->linked = false;
  return true;
}

// At a tolerance of 0: whether the new fan covers exactly what the star
// covered. It does when the star and the ring lie in one plane (exactly)
// and, in a coordinate plane onto which that plane projects one to one, the
// old and the new triangles all turn the same way, strictly: both then tile
// the polygon of the ring.
bool flatStar(const qvTrial* tr) {
  const double* p = qvVtxXyz(tr->v);
  // A plane through v and two ring corners that are not collinear with it.
  const double* a = nullptr;
  const double* b = nullptr;
  int32_t drop = -1;
  for (int32_t i = 0; i < tr->nStar && drop < 0; ++i) {
    double* c[3];
    if (qvTriCoords(tr->star[i], 0, c) != 0) return false;
    for (int32_t axis = 0; axis < 3 && drop < 0; ++axis)
      if (orient2dDrop(c[0], c[1], c[2], axis) != 0) {
        a = c[0] == p ? c[1] : c[0];
        b = c[2] == p ? c[1] : c[2];
        drop = axis;
      }
  }
  if (drop < 0) return false;
  int32_t sense = 0;
  for (int32_t i = 0; i < tr->nStar; ++i) {
    double* c[3];
    if (qvTriCoords(tr->star[i], 0, c) != 0) return false;
    for (const double* x : c)
      if (orient3dSign(p, a, b, x) != 0) return false;
    const int32_t o = orient2dDrop(c[0], c[1], c[2], drop);
    if (o == 0 || (sense != 0 && o != sense)) return false;
    sense = o;
  }
  for (qvTri* t = tr->copy->tri; t; t = t->next) {
    double* c[3];
    if (qvTriCoords(t, 0, c) != 0 || orient2dDrop(c[0], c[1], c[2], drop) != sense) return false;
  }
  return true;
}

// The directed sides of triangles, each side met in both directions taken
// out: the boundary of the region they tile, when they turn one way. A run
// of sides: n of them, from[k] -> to[k].
struct Sides {
  const double** from;
  const double** to;
  int32_t n;
};

void addSides(Sides& sides, const double* const h[3]) {
  for (int k = 0; k < 3; ++k) {
    const double* a = h[k];
    const double* b = h[(k + 1) % 3];
    int32_t back = 0;
    while (back < sides.n && !(sides.from[back] == b && sides.to[back] == a)) ++back;
    if (back < sides.n) {
      --sides.n;
      sides.from[back] = sides.from[sides.n];
      sides.to[back] = sides.to[sides.n];
    } else {
      sides.from[sides.n] = a;
      sides.to[sides.n++] = b;
    }
  }
}

// Whether the fan's triangles in a plane cover at least the region of the
// star's there, given the sides of each left over after those they share:
// none; or the star's run a -> v -> w where the fan's run a -> w, and v lies
// strictly inside the segment from a to w, or beyond it, on the side away
// from the region (the fan then covers the triangle a, v, w as well).
bool fanCovers(const Sides& star, const Sides& fan, const qvTrial* tr, int32_t drop, int32_t sense) {
  if (star.n == 0 && fan.n == 0) return true;
  if (star.n != 2 || fan.n != 1) return false;
  const double* v = tr->v->dat;
  const int32_t in = star.to[0] == v ? 0 : 1;
  const int32_t out = 1 - in;
  if (star.to[in] != v || star.from[out] != v || star.from[in] != fan.from[0] || star.to[out] != fan.to[0])
    return false;
  const double* a = qvVtxXyz(qvVtxOf(fan.from[0]));
  const double* w = qvVtxXyz(qvVtxOf(fan.to[0]));
  const double* x = qvVtxXyz(tr->v);
  if (!a || !w) return false;
  const int32_t side = orient2dDrop(a, w, x, drop) * sense;
  if (side != 0) return side > 0;
  for (int k = 0; k < 3; ++k)
    if (a[k] != w[k]) return (a[k] < x[k] && x[k] < w[k]) || (w[k] < x[k] && x[k] < a[k]);
  return false;
}

constexpr int32_t kUngrouped = -2;  // group of a triangle whose plane isn't looked at yet

// Groups with star triangle g the triangles of the star and of the fan in
// its plane exactly, and decides whether the fan keeps that plane: its star
// triangles and fan triangles there all turn one way, strictly, in a
// coordinate plane onto which it projects one to one, and the fan's cover
// the star's region (fanCovers). group[i] for star triangle i and
// group[nStar + j] for fan triangle j name g then; a plane without a fan
// triangle is not kept and groups g alone. false on failure.
bool groupPlane(qvTrial* tr, int32_t g) {
  const int32_t nStar = tr->nStar;
  const int32_t nFan = tr->nHomes - tr->nNear;
  tr->group[g] = g;
  tr->planes[g] = qvPlaneKept{false, false, -1, 0};
  double* r[3];
  if (tr->star[g]->flags & kTriCap) return true;
  if (qvTriCoords(tr->star[g], 0, r) != 0) return false;
  int32_t drop = 0;
  while (drop < 3 && orient2dDrop(r[0], r[1], r[2], drop) == 0) ++drop;
  if (drop == 3) return true;
  const int32_t sense = orient2dDrop(r[0], r[1], r[2], drop);
  const auto inPlane = [&](const double* const* x) {
    for (int k = 0; k < 3; ++k)
      if (x[k] != r[0] && x[k] != r[1] && x[k] != r[2] && orient3dSign(r[0], r[1], r[2], x[k]) != 0) return false;
    return true;
  };
  int32_t fanMembers = 0;
  bool kept = true;
  for (int32_t j = 0; j < nFan; ++j) {
    const qvHome& t = tr->homes[j];
    if (tr->group[nStar + j] != kUngrouped || (t.tri->flags & kTriCap) || !inPlane(t.x)) continue;
    tr->group[nStar + j] = g;
    ++fanMembers;
    kept = kept && orient2dDrop(t.x[0], t.x[1], t.x[2], drop) == sense;
  }
  if (fanMembers == 0) return true;
  const int32_t most = 3 * (nStar + nFan);
  if (!qvGrow(tr->sideEnds, tr->sideEndsCap, 4 * most)) return false;
  Sides star{tr->sideEnds, tr->sideEnds + most, 0};
  Sides fan{tr->sideEnds + 2 * most, tr->sideEnds + 3 * most, 0};
  for (int32_t i = 0; i < nStar; ++i) {
    double* c[3];
    double* h[3];
    if (tr->group[i] != kUngrouped && i != g) continue;
    if ((tr->star[i]->flags & kTriCap) || qvTriCoords(tr->star[i], 0, c) != 0 || !inPlane(c)) continue;
    if (qvTriCorners(tr->star[i], 0, h) != 0) return false;
    tr->group[i] = g;
    kept = kept && orient2dDrop(c[0], c[1], c[2], drop) == sense;
    addSides(star, h);
  }
  for (int32_t j = 0; j < nFan && kept; ++j)
    if (tr->group[nStar + j] == g) addSides(fan, tr->homes[j].h);
  // Sides both share are taken out of both.
  for (int32_t k = 0; k < star.n && kept;) {
    int32_t m = 0;
    while (m < fan.n && !(fan.from[m] == star.from[k] && fan.to[m] == star.to[k])) ++m;
    if (m == fan.n) {
      ++k;
      continue;
    }
    --fan.n;
    fan.from[m] = fan.from[fan.n];
    fan.to[m] = fan.to[fan.n];
    --star.n;
    star.from[k] = star.from[star.n];
    star.to[k] = star.to[star.n];
  }
  kept = kept && fanCovers(star, fan, tr, drop, sense);
  tr->planes[g] = qvPlaneKept{kept, false, drop, sense};
  return true;
}

// Whether the fan triangle on the ring side of star triangle i lies in its
// plane. A plane is kept only where each of its star triangles has that
// side matched by a fan triangle there (fanCovers), so when this fails the
// plane of i is not kept, whatever else lies in it, and it needs no
// grouping.
bool ringSideInPlane(const qvTrial* tr, int32_t i) {
  const qvTri* t = tr->star[i];
  const double* p = tr->v->dat;
  const qvEdg* side = nullptr;
  for (const qvEdg* e : t->edg)
    if (e->ends[0] != p && e->ends[1] != p) side = e;
  if (!side || (t->flags & kTriCap)) return false;
  const int32_t nFan = tr->nHomes - tr->nNear;
  for (int32_t j = 0; j < nFan; ++j) {
    const qvHome& f = tr->homes[j];
    if (f.tri->edg[0] != side && f.tri->edg[1] != side && f.tri->edg[2] != side) continue;
    double* c[3];
    if (qvTriCoords(t, 0, c) != 0) return true;  // left to the grouping, which fails alike
    for (int k = 0; k < 3; ++k)
      if (f.h[k] != side->ends[0] && f.h[k] != side->ends[1]) return orient3dSign(c[0], c[1], c[2], f.x[k]) == 0;
    return true;
  }
  return false;
}

// The plane of star triangle i when the fan keeps it, else null; the plane
// is grouped on first use. err is set on failure.
qvPlaneKept* keptPlane(qvTrial* tr, int32_t i) {
  const int32_t n = tr->nStar + tr->nHomes - tr->nNear;
  if (!tr->grouped) {
    if (!qvGrow(tr->group, tr->groupCap, n) || !qvGrow(tr->planes, tr->planesCap, tr->nStar)) {
      tr->err = -1;
      return nullptr;
    }
    std::fill(tr->group, tr->group + n, kUngrouped);
    tr->grouped = true;
  }
  if (tr->group[i] == kUngrouped && !ringSideInPlane(tr, i)) return nullptr;
  if (tr->group[i] == kUngrouped && !groupPlane(tr, i)) {
    tr->err = -1;
    return nullptr;
  }
  const int32_t g = tr->group[i];
  return tr->planes[g].kept ? &tr->planes[g] : nullptr;
}

// Whether a measured piece lies in the plane of star triangle i and, there,
// inside it (exact tests).
bool insidePlane(const qvTrial* tr, const qvPiece& piece, int32_t i, const qvPlaneKept& plane) {
  double* c[3];
  if (piece.kind == kPieceFlat || qvTriCoords(tr->star[i], 0, c) != 0) return false;
  for (const double* x : piece.q)
    if (x != c[0] && x != c[1] && x != c[2] && orient3dSign(c[0], c[1], c[2], x) != 0) return false;
  if (orient2dDrop(piece.q[0], piece.q[1], piece.q[2], plane.drop) == 0) return false;
  for (int e = 0; e < 3; ++e)
    for (const double* x : piece.q)
      if (orient2dDrop(c[e], c[(e + 1) % 3], x, plane.drop) * plane.sense < 0) return false;
  return true;
}

}  // namespace

double qvPairBound(const double* const q[3], const qvHome& t, int32_t s, const qvHome& u) {
  return pairBound(q, t, s, u);
}

float qvBoundKey(double bound) { return roundUp(bound); }

void qvCoverSort(qvTri* t) {
  auto* c = static_cast<qvCover*>(t->link);
  if (!c || !c->unsorted) return;
  c->unsorted = 0;
  qvPiece* pieces = qvCoverPieces(c);
  std::stable_sort(pieces, pieces + c->n, [](const qvPiece& a, const qvPiece& b) { return a.bound > b.bound; });
}

double qvPieceBound(const double* const q[3], qvHome* homes, int32_t n) {
  qvTrial tr{};
  tr.homes = homes;
  tr.nHomes = n;
  tr.linked = true;  // the caller's homes are linked
  tr.lim2 = -1.0;  // no early answer: the best of every single and pair bound
  double* r[3] = {nullptr, nullptr, nullptr};
  double bound = kInf;
  bool ok = true;
  for (int k = 0; k < 3 && ok; ++k) ok = (r[k] = static_cast<double*>(ftMalloc(sizeof(double) * (n + 1)))) != nullptr;
  if (ok) {
    for (int k = 0; k < 3; ++k)
      for (int32_t j = 0; j < n; ++j) r[k][j] = qvHomeDist2(homes[j], q[k]);
    bound = bestHome(&tr, q, r, -1.0).bound;
  }
  for (double* row : r) std::free(row);
  return bound;
}

int32_t qvTrialCertify(qvTrial* tr, const qvRedParams* params) {
  tr->score = 0.0;
  tr->critical = nullptr;
  tr->weight = 0;
  tr->nPlan = 0;
  tr->nTaken = 0;
  tr->fragments = 0;
  tr->nRows = 0;
  if (tr->slots) std::fill(tr->slots, tr->slots + tr->slotCount, -1);
  // A fan is refused whatever it costs when a triangle of it has exactly zero
  // area (the result holds no degenerate triangle the input didn't), or lies
  // along a seam: all corners pinned and two sides on the cut. The piece on
  // the other side of the cut may lay the same triangle, and the joined
  // surface would fold over on itself there. Likewise for a new edge between
  // two pinned vertices: the other piece may draw the same chord, and the
  // joined edge would have four triangles.
  for (const qvEdg* e = tr->copy->edg; e; e = e->next)
    if (qvVtxOf(e->ends[0])->flags & qvVtxOf(e->ends[1])->flags & kVtxPinned) {
      tr->score = kInf;
      return 0;
    }
  for (const qvTri* t = tr->copy->tri; t; t = t->next) {
    double* c[3];
    if (qvTriCoords(t, 0, c) != 0) return -1;
    qvVtx* x[3];
    if (qvTriCornerVtx(t, 0, x) != 0) return -1;
    const bool pinned = (x[0]->flags & x[1]->flags & x[2]->flags & kVtxPinned) != 0;
    const int32_t rims = ((t->edg[0]->flags & kEdgRim) != 0) + ((t->edg[1]->flags & kEdgRim) != 0) +
                         ((t->edg[2]->flags & kEdgRim) != 0);
    const bool flat = orient2dDrop(c[0], c[1], c[2], 0) == 0 && orient2dDrop(c[0], c[1], c[2], 1) == 0 &&
                      orient2dDrop(c[0], c[1], c[2], 2) == 0;
    if (flat || (pinned && rims >= 2)) {
      tr->score = kInf;
      return 0;
    }
  }
  // A rim vertex's ring closes over its cap, so the exact test would weigh
  // the cap with the surface: at 0 its boundary stays as it is.
  if (params->tol == 0.0) {
    if ((tr->v->flags & kVtxRim) || !flatStar(tr)) tr->score = kInf;
    return 0;
  }
  tr->pool = params->pool;
  tr->lim2 = params->lim2;
  if (!tr->pool || !(tr->lim2 >= 0.0)) {
    tr->score = kInf;
    return 0;
  }
  if (!gatherHomes(tr)) return -1;

  // Where the fan keeps a plane of the star, the flat pieces in that plane,
  // and the measured pieces that lie inside its star triangles there, lie in
  // the fan's triangles of that plane: each of those holds itself as a flat
  // piece instead, with no measure.
  tr->grouped = false;

  // The pieces to place: every other piece of the star's covers, and the
  // pair pieces round the ring whose partner lies across a ring edge. They
  // are placed worst first, so that a refusal comes early, and most trials
  // are refused by one of their first pieces: each cover is a run already
  // in that order, read as far as the trial gets, and the runs are merged.
  // A cover in a kept plane is listed without the pieces the plane holds,
  // and the pair pieces round the ring are listed and sorted.
  // Room for every piece to be listed, made before any list points into it.
  int32_t count = 0;
  for (int32_t i = 0; i < tr->nStar; ++i) {
    const qvCover* c = static_cast<const qvCover*>(tr->star[i]->link);
    count += c ? c->n : 0;
  }
  for (int32_t i = 0; i < tr->nNear; ++i) {
    const qvCover* c = static_cast<const qvCover*>(tr->near[i]->link);
    count += c ? c->n : 0;
  }
  if (!qvGrow(tr->runs, tr->runsCap, tr->nStar + 1) || !qvGrow(tr->affected, tr->affectedCap, count + 1))
    return -1;
  qvPieceRun* runs = tr->runs;
  int32_t nRuns = 0;
  int32_t listed = 0;  // pieces listed in affected
  for (int32_t i = 0; i < tr->nStar; ++i) {
    const qvCover* c = static_cast<const qvCover*>(tr->star[i]->link);
    if (!c || c->n == 0) continue;
    qvPlaneKept* plane = keptPlane(tr, i);
    if (tr->err) return -1;
    const qvPiece* pieces = qvCoverPieces(c);
    if (!plane) {
      runs[nRuns++] = qvPieceRun{pieces, nullptr, c->n, 0};
      continue;
    }
    const int32_t first = listed;
    for (int32_t k = 0; k < c->n; ++k) {
      const qvPiece& piece = pieces[k];
      if (piece.kind == kPieceFlat || insidePlane(tr, piece, i, *plane)) {
        plane->held = true;
        continue;
      }
      tr->affected[listed++] = qvAffected{&piece, 0};
    }
    if (listed > first) runs[nRuns++] = qvPieceRun{nullptr, tr->affected + first, listed - first, 0};
  }
  if (tr->grouped) {
    const int32_t nFan = tr->nHomes - tr->nNear;
    for (int32_t j = 0; j < nFan; ++j) {
      const int32_t g = tr->group[tr->nStar + j];
      if (g < 0 || !tr->planes[g].held) continue;
      if (!qvGrow(tr->plan, tr->planCap, tr->nPlan + 1)) return -1;
      const qvHome& f = tr->homes[j];
      tr->plan[tr->nPlan++] = qvPlanItem{j, qvPiece{{f.x[0], f.x[1], f.x[2]}, nullptr, 0.0f, kPieceFlat}};
    }
  }
  const int32_t nearFirst = listed;
  for (int32_t i = 0; i < tr->nNear; ++i) {
    const qvTri* t = tr->near[i];
    const qvCover* c = static_cast<const qvCover*>(t->link);
    if (!c) continue;
    // Only pieces whose partner lies across a ring edge move.
    uint32_t across = 0;
    for (int32_t s = 0; s < 3; ++s)
      if ((c->pairs >> s & 1u) && (t->edg[s]->flags & kEdgMarkOuter)) across |= 1u << s;
    const qvPiece* pieces = qvCoverPieces(c);
    for (int32_t k = 0; across && k < c->n; ++k) {
      const qvPiece& piece = pieces[k];
      if (piece.kind < 0 || !(across >> piece.kind & 1u)) continue;
      if (!qvGrow(tr->taken, tr->takenCap, tr->nTaken + 1)) return -1;
      tr->taken[tr->nTaken++] = qvTaken{tr->near[i], k};
      tr->affected[listed] = qvAffected{&piece, worstFirst(piece.bound, listed)};
      ++listed;
    }
  }
  if (listed > nearFirst) {
    std::sort(tr->affected + nearFirst, tr->affected + listed, keyBefore);
    runs[nRuns++] = qvPieceRun{nullptr, tr->affected + nearFirst, listed - nearFirst, 0};
  }
  // A trial that must beat another weighs first the piece that held that
  // one's score: when its best home keeps it within lim but not under beat,
  // the trial is refused, in whatever order the rest would come.
  if (tr->probe && tr->beat < kInf && listedPiece(runs, nRuns, tr->probe)) {
    const Certified c = bestOf(tr, tr->probe->q);
    if (tr->err != 0) return -1;
    if (c.bound >= tr->beat && c.bound <= tr->lim2) {
      tr->score = kInf;
      return 0;
    }
  }
  // The merge: the head of the largest bound, of the earliest run among
  // equals, which is the order of the pieces' bounds and then of the covers
  // and their places in them.
  for (;;) {
    int32_t best = -1;
    float worst = 0.0f;
    for (int32_t r = 0; r < nRuns; ++r) {
      if (runs[r].at == runs[r].n) continue;
      const float b = runs[r].head()->bound;
      if (best < 0 || b > worst) {
        best = r;
        worst = b;
      }
    }
    if (best < 0) break;
    const qvPiece& piece = *runs[best].head();
    ++runs[best].at;
    if (runs[best].at < runs[best].n)
      for (const double* q : runs[best].head()->q) __builtin_prefetch(q);
    // Refused, or already no better than the bound it had to beat.
    const double before = tr->score;
    const bool placed = certify(tr, piece.q, piece.src, 0);
    if (tr->score > before) tr->critical = &piece;
    if (!placed || tr->score >= tr->beat) {
      tr->score = kInf;
      break;
    }
  }
  if (tr->err != 0) return -1;
  // A removal that leaves the surface where it was weighs its pieces, so
  // that such removals come in order of size.
  tr->weight = tr->score != 0.0 ? 0.0 : tr->area > 0.0 ? tr->area : qvStarArea(tr->v);
  return 0;
}

int32_t qvTrialApply(qvTrial* tr) {
  // Pieces taken from the covers round the ring leave them first.
  for (int32_t i = 0; i < tr->nTaken; ++i) {
    auto* c = static_cast<qvCover*>(tr->taken[i].tri->link);
    qvCoverPieces(c)[tr->taken[i].index].q[0] = nullptr;
  }
  for (int32_t i = 0; i < tr->nTaken; ++i) {
    auto* c = static_cast<qvCover*>(tr->taken[i].tri->link);
    if (!c) continue;
    qvPiece* pieces = qvCoverPieces(c);
    int32_t kept = 0;
    c->pairs = 0;
    for (int32_t k = 0; k < c->n; ++k)
      if (pieces[k].q[0]) {
        pieces[kept] = pieces[k];
        if (pieces[kept].kind >= 0) c->pairs |= 1u << pieces[kept].kind;
        ++kept;
      }
    c->n = kept;
  }
  for (int32_t i = 0; i < tr->nPlan; ++i)
    if (qvCoverAdd(tr->homes[tr->plan[i].home].tri, tr->plan[i].piece) != 0) return -1;
  // Each cover back in the order trials read it: bounds descending, equal
  // ones in the order they came.
  for (int32_t i = 0; i < tr->nPlan; ++i) {
    auto* c = static_cast<qvCover*>(tr->homes[tr->plan[i].home].tri->link);
    if (!c || !c->unsorted) continue;
    c->unsorted = 0;
    qvPiece* pieces = qvCoverPieces(c);
    if (!qvGrow(tr->affected, tr->affectedCap, c->n) || !qvGrow(tr->shelf, tr->shelfCap, c->n)) return -1;
    for (int32_t k = 0; k < c->n; ++k) tr->affected[k] = qvAffected{&pieces[k], worstFirst(pieces[k].bound, k)};
    std::sort(tr->affected, tr->affected + c->n, keyBefore);
    for (int32_t k = 0; k < c->n; ++k) tr->shelf[k] = *tr->affected[k].piece;
    std::copy(tr->shelf, tr->shelf + c->n, pieces);
  }
  return 0;
}

void qvTrialFree(qvTrial* tr) {
  std::free(tr->star);
  std::free(tr->near);
  std::free(tr->ring);
  std::free(tr->valences);
  std::free(tr->homes);
  std::free(tr->plan);
  std::free(tr->taken);
  std::free(tr->affected);
  std::free(tr->runs);
  std::free(tr->shelf);
  std::free(tr->group);
  std::free(tr->planes);
  std::free(tr->sideEnds);
  std::free(tr->rowKey);
  std::free(tr->rows);
  std::free(tr->slots);
  qvTrial* spare = tr->spare;
  *tr = qvTrial{};
  if (spare) {
    qvTrialFree(spare);
    std::free(spare);
  }
}

// ---------------------------------------------------------------------------
// The check of the covers, for tests and debug builds

namespace {

double pieceArea(const qvPiece& p) {
  double ab[3], ac[3], n[3];
  sub3(p.q[1], p.q[0], ab);
  sub3(p.q[2], p.q[0], ac);
  cross3(ab, ac, n);
  return 0.5 * std::sqrt(dot3(n, n));
}

}  // namespace

int32_t qvCoverCheckPiece(const qvTri* home, const qvPiece& piece, const qvRedParams* params) {
  if (!home || (home->flags & (kTriCap | kTriRetired))) return 1;
  qvHome t;
  if (qvHomeSet(&t, const_cast<qvTri*>(home)) != 0) return 1;
  // A flat piece is its home.
  if (piece.kind == kPieceFlat) return piece.q[0] == t.x[0] && piece.q[1] == t.x[1] && piece.q[2] == t.x[2] ? 0 : 1;
  double b = 0.0;
  if (piece.kind == kPieceSingle) {
    // A corner of the home itself lies at distance 0, as a trial counts it.
    for (const double* x : piece.q)
      if (x != t.x[0] && x != t.x[1] && x != t.x[2]) b = std::max(b, qvHomeDist2(t, x));
  } else {
    const qvTri* partner = liveAcross(home, piece.kind);
    qvHome u;
    if (!partner || (partner->flags & (kTriCap | kTriRetired)) || qvHomeSet(&u, const_cast<qvTri*>(partner)) != 0)
      return 1;
    b = pairBound(piece.q, t, piece.kind, u);
  }
  // Distance 0 holds at any tolerance: a pass whose lim is below 0 keeps each
  // triangle's cover of itself.
  return b <= params->lim2 || b == 0.0 ? 0 : 1;
}

namespace {

// Whether triangle c lies in the plane of triangle q and overlaps its box,
// up to the rounding of midpoints: each corner of c within 2^-30 of q's
// size of q's plane.
bool inPlaneOf(const double* const q[3], const double* const c[3]) {
  double n[3], lo[3], hi[3];
  widestView(q, n);
  const double nn = std::sqrt(dot3(n, n));
  double size = 0.0;
  for (int k = 0; k < 3; ++k) {
    lo[k] = std::min({q[0][k], q[1][k], q[2][k]});
    hi[k] = std::max({q[0][k], q[1][k], q[2][k]});
    size = std::max(size, hi[k] - lo[k]);
  }
  if (!(nn > 0.0)) return false;
  for (int k = 0; k < 3; ++k)
    if (std::max({c[0][k], c[1][k], c[2][k]}) < lo[k] || std::min({c[0][k], c[1][k], c[2][k]}) > hi[k]) return false;
  for (int j = 0; j < 3; ++j) {
    double d[3];
    sub3(c[j], q[0], d);
    if (std::fabs(dot3(d, n)) / nn > 0x1p-30 * size) return false;
  }
  return true;
}

// The area of the part of triangle q inside triangle c, both in one plane,
// measured in the coordinate plane where that plane's normal is largest.
double clippedArea(const double* const q[3], const double* const c[3]) {
  double nrm[3];
  const int32_t drop = widestView(c, nrm);
  const int32_t i = (drop + 1) % 3, j = (drop + 2) % 3;
  const double sense = nrm[drop] > 0.0 ? 1.0 : -1.0;
  // Relative to a corner of q, so that far from the origin the products
  // keep their digits.
  const auto at = [&](const double* x) { return std::array<double, 2>{x[i] - q[0][i], x[j] - q[0][j]}; };
  std::vector<std::array<double, 2>> poly = {at(q[0]), at(q[1]), at(q[2])};
  for (int32_t e = 0; e < 3 && !poly.empty(); ++e) {
    const std::array<double, 2> a = at(c[e]);
    const std::array<double, 2> b = at(c[(e + 1) % 3]);
    auto side = [&](const std::array<double, 2>& x) {
      return sense * ((b[0] - a[0]) * (x[1] - a[1]) - (b[1] - a[1]) * (x[0] - a[0]));
    };
    std::vector<std::array<double, 2>> out;
    for (size_t k = 0; k < poly.size(); ++k) {
      const auto& x = poly[k];
      const auto& y = poly[(k + 1) % poly.size()];
      const double sx = side(x), sy = side(y);
      if (sx >= 0.0) out.push_back(x);
      if ((sx >= 0.0) != (sy >= 0.0)) {
        const double f = sx / (sx - sy);
        out.push_back({x[0] + f * (y[0] - x[0]), x[1] + f * (y[1] - x[1])});
      }
    }
    poly = out;
  }
  double twice = 0.0;
  for (size_t k = 0; k < poly.size(); ++k) {
    const auto& x = poly[k];
    const auto& y = poly[(k + 1) % poly.size()];
    twice += x[0] * y[1] - x[1] * y[0];
  }
  // Back to the plane's own measure from its projection.
  return 0.5 * std::fabs(twice) * std::sqrt(dot3(nrm, nrm)) / std::fabs(nrm[drop]);
}

}  // namespace

int32_t qvCoverCheck(const qvMesh* mesh, const qvRedParams* params, FILE* out) {
  if (!mesh || !params || !params->pool) return 0;
  int32_t bad = 0;
  auto report = [&](const char* what, const void* rec) {
    ++bad;
    if (out) std::fprintf(out, "covers: %s (%p)\n", what, rec);
  };
  // Per starting triangle, the area of its measured pieces; and the pieces
  // of no starting triangle: flat pieces and their fragments.
  std::unordered_map<const qvTri*, double> area;
  std::vector<const qvPiece*> flat;
  for (const qvTri* t = mesh->tri; t; t = t->next) {
    const auto* c = static_cast<const qvCover*>(t->link);
    if (!c) continue;
    if (t->flags & (kTriCap | kTriRetired)) {
      report("a cap or a retired triangle holds a cover", t);
      continue;
    }
    double* h[3];
    if (qvTriCoords(t, 0, h) != 0) report("a triangle without corners holds a cover", t);
    for (int32_t k = 0; k < c->n; ++k) {
      const qvPiece& piece = qvCoverPieces(c)[k];
      if (qvCoverCheckPiece(t, piece, params) != 0) report("a piece is not within the limit of its home", t);
      if (k > 0 && piece.bound > qvCoverPieces(c)[k - 1].bound) report("a cover is out of worst-first order", t);
      if (piece.src) area[piece.src] += pieceArea(piece);
      else flat.push_back(&piece);
    }
  }
  // The measured pieces of a starting triangle tile it, unless part of it
  // went into flat pieces: then those in its plane make up the rest (they
  // may overlap, as one removal after another measured fragments of them).
  for (const qvTri* t = mesh->tri; t; t = t->next) {
    if ((t->flags & kTriCap) || (t->flags & kTriReplace)) continue;
    const double want = qvTriArea(t);
    const auto it = area.find(t);
    double have = it == area.end() ? 0.0 : it->second;
    if (have < want * (1.0 - 1e-9)) {
      double* q[3];
      if (qvTriCoords(t, 0, q) != 0) continue;
      for (const qvPiece* piece : flat)
        if (inPlaneOf(q, piece->q)) have += clippedArea(q, piece->q);
    }
    if (have < want * (1.0 - 1e-9) || (it != area.end() && it->second > want * (1.0 + 1e-9)))
      report("the pieces of a starting triangle don't tile it", t);
  }
  return bad;
}
