// Feature classification: before a reduction, the edges where the surface
// folds are marked so that the engine keeps them.
#include <algorithm>
#include <cmath>

#include "reduce/reduce_internal.h"

namespace {

constexpr double kDefaultFold2 = 0.96984631;  // cos^2 of 10 degrees, to eight places
constexpr double kDegToRad = 0.017453292519943295;

inline double dot3(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

// The unnormalised normal of t, (b - a) x (c - a) over its cycle, computed on
// first use; false when the corners can't be read.
struct LazyNormal {
  const qvTri* t;
  bool have;
  double n[3];
  double len2;
  bool get() {
    if (!have) {
      if (qvTriNormal(t, nullptr, 0, nullptr, n) != 0) return false;
      len2 = dot3(n, n);
      have = true;
    }
    return true;
  }
};

// The judgement of the edge e between t (normal a) and its neighbour: 1 a
// feature, 0 not, -1 when the neighbour's normal can't be had. A fold is a
// feature when it is sharper than the angle and visible at the tolerance:
// flattening it would move the lower of the two triangles (its height over
// e) by more than tol, that is min(h1, h2) * sin(fold) > tol, with the sine
// taken as 1 past 90 degrees. Squared, every term is a length to the power
// it should be, so the rule holds at any scale.
int32_t judge(LazyNormal& a, qvTri* n, const qvEdg* e, double c2, double tol2) {
  LazyNormal b{n, false, {0.0, 0.0, 0.0}, 0.0};
  if (!a.get() || !b.get()) return -1;
  // The cosine of the fold, squared with its sign kept. The threshold is
  // compared with a squared cosine, so an angle above 90 degrees acts as its
  // supplement, while the sign makes a fold past 90 degrees count for any
  // positive threshold. A zero normal (or one whose square underflows) has
  // no direction to fold from, and such a pair is not judged.
  const double den = a.len2 * b.len2;
  if (!(den > 0.0)) return 0;
  const double ab = dot3(a.n, b.n);
  const double s = ab * std::fabs(ab) / den;
  if (!(c2 > s)) return 0;
  const double e2 = qvEdgLen2(e);
  if (!(e2 > 0.0)) return 0;
  const double sin2 = s > 0.0 ? 1.0 - s : 1.0;
  const double h2 = std::min(a.len2, b.len2) / e2;  // the lower height, squared
  return h2 * sin2 > tol2 ? 1 : 0;
}

}  // namespace

int32_t qvRedFeatures(qvMesh* mesh, const double* angle, const qvRedParams* params) {
  if (!mesh) return 0;
  if (!params) return -1;
  double c2 = kDefaultFold2;
  if (angle) {
    const double c = std::cos(*angle * kDegToRad);
    c2 = c * c;
  }

  int32_t count = 0;
  bool failed = false;
  for (qvTri* t = mesh->tri; t && !failed; t = t->next) {
    LazyNormal a{t, false, {0.0, 0.0, 0.0}, 0.0};
    for (int i = 0; i < 3; ++i) {
      qvEdg* e = t->edg[i];
      if (!e || !e->ends[0] || !e->ends[1]) {
        failed = true;
        break;
      }
      // Each edge is judged once, from the first of its triangles in the list.
      if (e->flags & kEdgMarkVisit) continue;
      e->flags |= kEdgMarkVisit;
      if (!t->adj[i]) continue;  // a boundary edge is never a feature
      const int32_t r = judge(a, t->adj[i], e, c2, params->tol2);
      if (r < 0) {
        failed = true;
        break;
      }
      if (r == 0) continue;
      e->flags |= kEdgFeatureSet;
      qvVtxOf(e->ends[0])->flags |= kVtxFeatureEnd;
      qvVtxOf(e->ends[1])->flags |= kVtxFeatureEnd;
      ++count;
    }
  }
  qvEdgAndAll(mesh->edg, ~kEdgMarkVisit);
  return failed ? -1 : count;
}
