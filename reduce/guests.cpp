// Guests: small shells that assembly pulled off a larger one, their host,
// where the input gave an edge more than two facets. A scan's doubled and
// overlapping facets come out so by the thousand, and each holds the host's
// vertices where it touches them as joints, which may go only along straight
// lines of joint edges. On a whole shell the host's pass can answer for a
// guest instead: every guest triangle is certified within the tolerance of
// the host's triangles round the vertices they share and goes into their
// covers as a piece of the starting surface, which every removal of the pass
// then proves again like the host's own. A guest so taken is not written, and
// the host's joints that only taken guests held are joints no more.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <vector>

#include "kernels/alloc.h"
#include "kernels/failure.h"
#include "reduce/reduce_internal.h"

namespace {

using Point = std::array<double, 3>;

bool pointOf(const qvVtx* v, Point* p) {
  const double* x = qvVtxXyz(v);
  if (!x) return false;
  *p = {x[0], x[1], x[2]};
  return true;
}

// A joint vertex of a shell, by position; ties by shell, then list place.
struct Joint {
  Point p;
  int32_t shell;
  int32_t place;
  qvVtx* v;
};

bool jointBefore(const Joint& a, const Joint& b) {
  if (a.p != b.p) return a.p < b.p;
  if (a.shell != b.shell) return a.shell < b.shell;
  return a.place < b.place;
}

// The joint vertices of the shells, sorted; false when a vertex has no
// coordinates.
bool jointsOf(qvMesh* const* shells, int32_t n, std::vector<Joint>* out) {
  for (int32_t i = 0; i < n; ++i) {
    int32_t place = 0;
    for (qvVtx* v = shells[i] ? shells[i]->vtx : nullptr; v; v = v->next, ++place) {
      if (!(v->flags & kVtxJoint)) continue;
      Joint j{{}, i, place, v};
      if (!pointOf(v, &j.p)) return false;
      out->push_back(j);
    }
  }
  std::sort(out->begin(), out->end(), jointBefore);
  return true;
}

// The joints at p: [first, last) of the sorted list.
std::pair<size_t, size_t> jointsAt(const std::vector<Joint>& joints, const Point& p) {
  const auto lo = std::lower_bound(joints.begin(), joints.end(), p,
                                   [](const Joint& j, const Point& x) { return j.p < x; });
  auto hi = lo;
  while (hi != joints.end() && hi->p == p) ++hi;
  return {static_cast<size_t>(lo - joints.begin()), static_cast<size_t>(hi - joints.begin())};
}

bool pointIn(const double* sorted, int32_t n, const Point& p) {
  const auto* pts = reinterpret_cast<const Point*>(sorted);
  return n > 0 && std::binary_search(pts, pts + n, p);
}

// The live non-cap triangles round a vertex, each once, in the order met.
struct Gather {
  std::vector<qvTri*>* tris;
};

int32_t gatherTri(qvTri* t, void* ctx) {
  auto& tris = *static_cast<Gather*>(ctx)->tris;
  if (!(t->flags & (kTriCap | kTriRetired)) && std::find(tris.begin(), tris.end(), t) == tris.end())
    tris.push_back(t);
  return 0;
}

struct Placed {
  qvTri* home;
  qvPiece piece;
};

// The best home for the guest triangle with corners q among homes, alone or
// with a neighbour across one of its sides: false on failure.
bool bestPlace(const std::vector<qvTri*>& homes, const double* const q[3], Placed* best, double* bound) {
  *bound = std::numeric_limits<double>::infinity();
  for (qvTri* h : homes) {
    qvHome t;
    if (qvHomeSet(&t, h) != 0) return false;
    double b = 0.0;
    for (int k = 0; k < 3; ++k) b = std::max(b, qvHomeDist2(t, q[k]));
    if (b < *bound) {
      *bound = b;
      best->home = h;
      best->piece.kind = kPieceSingle;
    }
    for (int32_t s = 0; s < 3; ++s) {
      qvTri* n = h->aux[s] ? h->aux[s] : h->adj[s];
      if (!n || (n->flags & (kTriCap | kTriRetired))) continue;
      qvHome u;
      if (qvHomeSet(&u, n) != 0) return false;
      const double pb = qvPairBound(q, t, s, u);
      if (pb < *bound) {
        *bound = pb;
        best->home = h;
        best->piece.kind = s;
      }
    }
  }
  return true;
}

// For each shell that is no guest, the points where it has a joint and a
// shell of another owner (a guest's owner is its host) has one too.
bool sharedOf(const std::vector<Joint>& joints, int32_t n, const int32_t* host, double** shared, int32_t* nShared) {
  auto owner = [&](int32_t i) { return host[i] >= 0 ? host[i] : i; };
  std::vector<std::vector<Point>> out(static_cast<size_t>(n));
  for (size_t a = 0; a < joints.size();) {
    size_t b = a;
    while (b < joints.size() && joints[b].p == joints[a].p) ++b;
    for (size_t k = a; k < b; ++k) {
      const int32_t h = joints[k].shell;
      if (host[h] >= 0 || (!out[h].empty() && out[h].back() == joints[a].p)) continue;
      for (size_t m = a; m < b; ++m)
        if (owner(joints[m].shell) != h) {
          out[h].push_back(joints[a].p);
          break;
        }
    }
    a = b;
  }
  for (int32_t h = 0; h < n; ++h) {
    if (out[h].empty()) continue;
    shared[h] = static_cast<double*>(ftMalloc(sizeof(Point) * out[h].size()));
    if (!shared[h]) return false;
    std::copy(out[h].begin(), out[h].end(), reinterpret_cast<Point*>(shared[h]));
    nShared[h] = static_cast<int32_t>(out[h].size());
  }
  return true;
}

}  // namespace

int32_t qvGuestsFind(qvMesh* const* shells, int32_t n, int32_t* host, double** shared, int32_t* nShared) {
  if (!shells || !host || !shared || !nShared || n < 0) return FT_FAIL(-1);
  std::vector<int32_t> size(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) {
    host[i] = -1;
    shared[i] = nullptr;
    nShared[i] = 0;
    size[i] = shells[i] ? qvTriCount(shells[i]->tri) : 0;
  }
  std::vector<Joint> joints;
  if (!jointsOf(shells, n, &joints)) return FT_FAIL(-1);
  // Each small shell goes to the larger shell it shares the most joint
  // vertices with; ties to the first in the chain.
  int32_t found = 0;
  std::vector<std::pair<int32_t, int32_t>> votes;  // (shell, vertices shared)
  for (int32_t g = 0; g < n; ++g) {
    if (size[g] == 0 || size[g] > kGuestMax) continue;
    votes.clear();
    for (qvVtx* v = shells[g]->vtx; v; v = v->next) {
      Point p;
      if (!(v->flags & kVtxJoint)) continue;
      if (!pointOf(v, &p)) return FT_FAIL(-1);
      const auto at = jointsAt(joints, p);
      for (size_t k = at.first; k < at.second; ++k) {
        const int32_t j = joints[k].shell;
        if (j == g || size[j] <= kGuestMax) continue;
        auto it = std::find_if(votes.begin(), votes.end(), [j](const auto& x) { return x.first == j; });
        if (it == votes.end()) votes.push_back({j, 1});
        else ++it->second;
      }
    }
    int32_t most = 0;
    for (const auto& x : votes)
      if (x.second > most || (x.second == most && x.first < host[g])) {
        host[g] = x.first;
        most = x.second;
      }
    found += host[g] >= 0;
  }
  if (found > 0 && !sharedOf(joints, n, host, shared, nShared)) return FT_FAIL(-1);
  return found;
}

int32_t qvGuestsTake(qvMesh* mesh, const qvRedParams* params, qvGuests* guests) {
  if (!mesh || !params || !guests || guests->n < 0) return FT_FAIL(-1);
  for (int32_t i = 0; i < guests->n; ++i) guests->taken[i] = 0;
  // At a tolerance of 0 there are no covers to take a guest into.
  if (!params->pool || guests->n == 0) return 0;
  std::vector<Joint> joints;
  if (!jointsOf(&mesh, 1, &joints)) return FT_FAIL(-1);

  int32_t taken = 0;
  std::vector<qvTri*> homes;
  std::vector<Placed> placed;
  for (int32_t i = 0; i < guests->n; ++i) {
    const qvMesh* guest = guests->mesh[i];
    placed.clear();
    bool fits = guest && guest->tri;
    for (qvTri* t = fits ? guest->tri : nullptr; t && fits; t = t->next) {
      double* q[3];
      if (qvTriCoords(t, 0, q) != 0) return FT_FAIL(-1);
      // The homes: the host's triangles round the vertices it shares.
      homes.clear();
      Gather gather{&homes};
      for (const double* x : q) {
        const auto at = jointsAt(joints, {x[0], x[1], x[2]});
        for (size_t k = at.first; k < at.second; ++k) {
          qvVtx* v = joints[k].v;
          const int32_t r = qvFanWalk(static_cast<qvTri*>(v->aux), v->dat, gatherTri, &gather);
          if (r != 0 && r != -1) return FT_FAIL(-1);
        }
      }
      Placed best{nullptr, qvPiece{{q[0], q[1], q[2]}, t, 0.0f, kPieceSingle}};
      double bound;
      if (!bestPlace(homes, q, &best, &bound)) return FT_FAIL(-1);
      fits = best.home && (bound <= params->lim2 || bound == 0.0);
      best.piece.bound = qvBoundKey(bound);
      placed.push_back(best);
    }
    if (!fits) continue;
    for (const Placed& p : placed)
      if (qvCoverAdd(p.home, p.piece) != 0) return FT_FAIL(-1);
    for (const Placed& p : placed) qvCoverSort(p.home);
    guests->taken[i] = 1;
    ++taken;
  }

  // A joint stays where a shell the pass doesn't answer for has a vertex,
  // or where the host itself meets (two of its vertices at one point). A
  // joint edge stays while both its ends do.
  std::vector<Point> kept;
  for (int32_t i = 0; i < guests->n; ++i) {
    if (guests->taken[i] || !guests->mesh[i]) continue;
    for (const qvVtx* v = guests->mesh[i]->vtx; v; v = v->next) {
      Point p;
      if (!pointOf(v, &p)) return FT_FAIL(-1);
      kept.push_back(p);
    }
  }
  std::sort(kept.begin(), kept.end());
  for (size_t a = 0; a < joints.size();) {
    size_t b = a;
    while (b < joints.size() && joints[b].p == joints[a].p) ++b;
    const Point& p = joints[a].p;
    const bool stays = b - a > 1 || pointIn(guests->shared, guests->nShared, p) ||
                       std::binary_search(kept.begin(), kept.end(), p);
    if (!stays) joints[a].v->flags &= ~kVtxJoint;
    a = b;
  }
  for (qvEdg* e = mesh->edg; e; e = e->next)
    if ((e->flags & kEdgJoint) && !((qvVtxOf(e->ends[0])->flags & qvVtxOf(e->ends[1])->flags) & kVtxJoint))
      e->flags &= ~kEdgJoint;
  return taken;
}
