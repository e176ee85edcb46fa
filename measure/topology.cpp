// Topology and size of a welded mesh: edges from a sort of all facet sides,
// shells from a union-find across the edges that exactly two facets share,
// degenerate facets by an exact zero-area test, then area, volume and box.
#include "measure/measure_internal.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

using namespace measure_detail;

namespace {

// ---- Exact zero-area test ---------------------------------------------------
//
// A facet has zero area when the cross product of two of its sides is exactly
// the zero vector. Each component is a 2 x 2 determinant of differences of
// floats. In double, such a determinant never underflows or overflows (floats
// span 2^-149 to 2^128), so a relative error bound decides all but the nearly
// zero cases; those are settled exactly with error-free transformations and an
// expansion sum, after Shewchuk's "Adaptive Precision Floating-Point Arithmetic".

constexpr double kUnit = DBL_EPSILON / 2;      // unit roundoff of double
constexpr double kFilterBound = 8 * kUnit;     // above 4u suffices; the rest is margin
constexpr int kTermMax = 16;                   // terms of one determinant, expanded

// a + b = s + e exactly.
void twoSum(double a, double b, double *s, double *e) {
  *s = a + b;
  const double bv = *s - a;
  const double av = *s - bv;
  *e = (a - av) + (b - bv);
}

// a * b = p + e exactly (the fused multiply-add rounds once).
void twoProduct(double a, double b, double *p, double *e) {
  *p = a * b;
  *e = std::fma(a, b, -*p);
}

// True when the sum of `count` doubles is exactly zero. The terms are added one
// by one into a nonoverlapping expansion (Shewchuk's Grow-Expansion); such an
// expansion is zero exactly when every component is.
bool sumIsZero(const double *term, int count) {
  double expansion[kTermMax];
  int length = 0;
  for (int t = 0; t < count; ++t) {
    double q = term[t];
    for (int i = 0; i < length; ++i) {
      double s;
      double e;
      twoSum(q, expansion[i], &s, &e);
      expansion[i] = e;
      q = s;
    }
    expansion[length++] = q;
  }
  for (int i = 0; i < length; ++i) {
    if (expansion[i] != 0) {
      return false;
    }
  }
  return true;
}

// True when u * t - v * s is exactly zero; d[0..3] hold u, v, s and t, each as
// the exact sum of two doubles.
bool determinantIsZero(const double d[4][2]) {
  double term[kTermMax];
  int n = 0;
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 2; ++j) {
      twoProduct(d[0][i], d[3][j], &term[n], &term[n + 1]);
      n += 2;
      twoProduct(-d[1][i], d[2][j], &term[n], &term[n + 1]);
      n += 2;
    }
  }
  return sumIsZero(term, n);
}

// True when component `axis` of (b - a) x (c - a) is exactly zero.
bool crossComponentIsZero(const float *a, const float *b, const float *c, int axis) {
  const int i = (axis + 1) % 3;
  const int j = (axis + 2) % 3;
  const double u = static_cast<double>(b[i]) - a[i];
  const double t = static_cast<double>(c[j]) - a[j];
  const double v = static_cast<double>(b[j]) - a[j];
  const double s = static_cast<double>(c[i]) - a[i];
  const double left = u * t;
  const double right = v * s;
  if (std::fabs(left - right) > kFilterBound * (std::fabs(left) + std::fabs(right))) {
    return false;
  }
  double d[4][2];
  twoSum(b[i], -static_cast<double>(a[i]), &d[0][0], &d[0][1]);
  twoSum(b[j], -static_cast<double>(a[j]), &d[1][0], &d[1][1]);
  twoSum(c[i], -static_cast<double>(a[i]), &d[2][0], &d[2][1]);
  twoSum(c[j], -static_cast<double>(a[j]), &d[3][0], &d[3][1]);
  return determinantIsZero(d);
}

bool isDegenerate(const MeasureMesh *mesh, int64_t f) {
  const int32_t *t = mesh->tri + 3 * f;
  if (t[0] == t[1] || t[1] == t[2] || t[2] == t[0]) {
    return true;
  }
  const float *a = mesh->xyz + 3 * static_cast<int64_t>(t[0]);
  const float *b = mesh->xyz + 3 * static_cast<int64_t>(t[1]);
  const float *c = mesh->xyz + 3 * static_cast<int64_t>(t[2]);
  return crossComponentIsZero(a, b, c, 0) && crossComponentIsZero(a, b, c, 1) &&
         crossComponentIsZero(a, b, c, 2);
}

// ---- Edges --------------------------------------------------------------------

// One facet lying on one edge.
struct EdgeUse {
  int32_t lo;    // lower vertex index
  int32_t hi;    // higher vertex index
  int32_t facet; // the facet
};
static_assert(sizeof(EdgeUse) == 12, "EdgeUse is three indices");

bool useBefore(const EdgeUse &x, const EdgeUse &y) {
  if (x.lo != y.lo) {
    return x.lo < y.lo;
  }
  if (x.hi != y.hi) {
    return x.hi < y.hi;
  }
  return x.facet < y.facet;
}

bool sameEdge(const EdgeUse &x, const EdgeUse &y) {
  return x.lo == y.lo && x.hi == y.hi;
}

void addUse(EdgeUse *use, int64_t *count, int32_t p, int32_t q, int32_t facet) {
  use[(*count)++] = {std::min(p, q), std::max(p, q), facet};
}

// Each facet lies once on each of its distinct corner pairs (invariant 2).
int64_t collectUses(const MeasureMesh *mesh, EdgeUse *use) {
  int64_t count = 0;
  for (int64_t f = 0; f < mesh->facetCount; ++f) {
    const int32_t *t = mesh->tri + 3 * f;
    const int32_t facet = static_cast<int32_t>(f);
    if (t[0] != t[1] && t[1] != t[2] && t[2] != t[0]) {
      addUse(use, &count, t[0], t[1], facet);
      addUse(use, &count, t[1], t[2], facet);
      addUse(use, &count, t[2], t[0], facet);
    } else if (t[0] != t[1]) {
      addUse(use, &count, t[0], t[1], facet);
    } else if (t[1] != t[2]) {
      addUse(use, &count, t[1], t[2], facet);
    }
  }
  return count;
}

// ---- Shells ---------------------------------------------------------------------

// Root of f's set, halving the path on the way. Roots are the smallest facet
// of their set, so the result does not depend on the order of the unions.
int32_t findRoot(int32_t *parent, int32_t f) {
  while (parent[f] != f) {
    parent[f] = parent[parent[f]];
    f = parent[f];
  }
  return f;
}

void unite(int32_t *parent, int32_t f, int32_t g) {
  const int32_t rf = findRoot(parent, f);
  const int32_t rg = findRoot(parent, g);
  if (rf < rg) {
    parent[rg] = rf;
  } else if (rg < rf) {
    parent[rf] = rg;
  }
}

// Per shell root, what its edges showed.
constexpr uint8_t kShellHasEdge = 1; // some edge lies on a facet of the shell
constexpr uint8_t kShellOpen = 2;    // some edge lies on one, or three or more, of its facets

// Marks the shells on one edge given the roots of its facets, sorted in place.
void markShells(int32_t *roots, int64_t count, uint8_t *shellFlags) {
  std::sort(roots, roots + count);
  for (int64_t i = 0; i < count;) {
    int64_t j = i + 1;
    while (j < count && roots[j] == roots[i]) {
      ++j;
    }
    shellFlags[roots[i]] |= kShellHasEdge;
    if (j - i != 2) {
      shellFlags[roots[i]] |= kShellOpen;
    }
    i = j;
  }
}

// Runs of equal edges in the sorted uses: counts edges by how many facets lie
// on them, joins the facets of two-facet edges, writes the edge table, then
// marks which shells are open. Returns 0 or -3.
int edgesAndShells(MeasureMesh *mesh, const EdgeUse *use, int64_t useCount, MeasureTopo *topo) {
  const int64_t facets = mesh->facetCount;
  int32_t *parent = static_cast<int32_t *>(std::malloc((facets + 1) * sizeof(int32_t)));
  uint8_t *shellFlags = static_cast<uint8_t *>(std::calloc(facets + 1, 1));
  int64_t edges = 0;
  int64_t longestRun = 0;
  for (int64_t i = 0; i < useCount;) {
    int64_t j = i + 1;
    while (j < useCount && sameEdge(use[i], use[j])) {
      ++j;
    }
    ++edges;
    longestRun = std::max(longestRun, j - i);
    i = j;
  }
  mesh->edge = static_cast<int32_t *>(std::malloc((2 * edges + 1) * sizeof(int32_t)));
  int32_t *roots = static_cast<int32_t *>(std::malloc((longestRun + 1) * sizeof(int32_t)));
  if (!parent || !shellFlags || !mesh->edge || !roots) {
    std::free(mesh->edge);
    mesh->edge = nullptr;
    std::free(parent);
    std::free(shellFlags);
    std::free(roots);
    return -3;
  }
  mesh->edgeCount = edges;
  for (int64_t f = 0; f < facets; ++f) {
    parent[f] = static_cast<int32_t>(f);
  }
  int64_t e = 0;
  for (int64_t i = 0; i < useCount;) {
    int64_t j = i + 1;
    while (j < useCount && sameEdge(use[i], use[j])) {
      ++j;
    }
    mesh->edge[2 * e] = use[i].lo;
    mesh->edge[2 * e + 1] = use[i].hi;
    ++e;
    if (j - i == 1) {
      ++topo->boundaryEdges;
    } else if (j - i == 2) {
      unite(parent, use[i].facet, use[i + 1].facet);
    } else {
      ++topo->nonManifoldEdges;
    }
    i = j;
  }
  for (int64_t i = 0; i < useCount;) {
    int64_t j = i;
    for (; j < useCount && sameEdge(use[i], use[j]); ++j) {
      roots[j - i] = findRoot(parent, use[j].facet);
    }
    markShells(roots, j - i, shellFlags);
    i = j;
  }
  for (int64_t f = 0; f < facets; ++f) {
    if (parent[f] == f) {
      ++topo->shells;
      if (shellFlags[f] == kShellHasEdge) {
        ++topo->closedShells;
      }
    }
  }
  topo->edges = edges;
  std::free(parent);
  std::free(shellFlags);
  std::free(roots);
  return 0;
}

// ---- Size -------------------------------------------------------------------------

void measureSize(const MeasureMesh *mesh, MeasureTopo *topo) {
  for (int64_t f = 0; f < mesh->facetCount; ++f) {
    double a[3];
    double b[3];
    double c[3];
    corner(mesh, f, 0, a);
    corner(mesh, f, 1, b);
    corner(mesh, f, 2, c);
    double ab[3];
    double ac[3];
    double n[3];
    sub(b, a, ab);
    sub(c, a, ac);
    cross(ab, ac, n);
    topo->area += 0.5 * std::sqrt(dot(n, n));
    double bc[3];
    cross(b, c, bc);
    topo->volume += dot(a, bc) / 6;
    if (isDegenerate(mesh, f)) {
      ++topo->degenerateFacets;
    }
  }
  for (int64_t v = 0; v < mesh->vertexCount; ++v) {
    const float *p = mesh->xyz + 3 * v;
    for (int i = 0; i < 3; ++i) {
      if (v == 0 || p[i] < topo->box[i]) {
        topo->box[i] = p[i];
      }
      if (v == 0 || p[i] > topo->box[3 + i]) {
        topo->box[3 + i] = p[i];
      }
    }
  }
}

} // namespace

int measureTopology(MeasureMesh *mesh, MeasureTopo *topo) {
  if (!mesh || !topo || (mesh->facetCount > 0 && (!mesh->tri || !mesh->xyz))) {
    return -4;
  }
  *topo = {};
  std::free(mesh->edge);
  mesh->edge = nullptr;
  mesh->edgeCount = 0;
  topo->facets = mesh->facetCount;
  topo->vertices = mesh->vertexCount;
  EdgeUse *use = static_cast<EdgeUse *>(std::malloc((3 * mesh->facetCount + 1) * sizeof(EdgeUse)));
  if (!use) {
    return -3;
  }
  const int64_t useCount = collectUses(mesh, use);
  std::sort(use, use + useCount, useBefore);
  const int status = edgesAndShells(mesh, use, useCount, topo);
  std::free(use);
  if (status < 0) {
    return status;
  }
  measureSize(mesh, topo);
  return 0;
}
