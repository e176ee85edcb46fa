// Ring projection: a removal may improve its new fan by flips only in a plane
// onto which the ring of the removed vertex projects without crossing itself.
// Five planes are tried in turn; the first that gives a simple ring leaves its
// (u, v) in the ring vertices' pairs, where the flip test reads them.
#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <utility>

#include "kernels/kernels.h"
#include "kernels/alloc.h"
#include "reduce/reduce_internal.h"

namespace {

// Every test below is relative, so that a model scaled by a power of two
// projects, and so flips, exactly as before: normals are judged against the
// sizes they were summed from, the scatter matrix against its trace, and the
// ring is projected about its centroid in units of its radius.
constexpr double kNormalFloor2 = 1e-12;  // a plane normal shorter than this share of its parts is none
constexpr double kSolverZero = 1e-6;     // root floor of the cubic and zero limit of the elimination,
                                         // on the scatter matrix divided by its trace
constexpr double kFrameTol = 1e-6;       // shortest normal the frame accepts, on a unit normal
constexpr double kCrossTol = 1e-6;       // contact distance of two projected ring edges, in ring radii
constexpr int32_t kStackPoints = 16;     // rings up to this length are gathered on the stack

inline double dot3(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline const double* xyzOf(const double* h) { return h ? qvVtxXyz(qvVtxOf(h)) : nullptr; }

inline bool inEngineForm(const double* h) { return h && (qvVtxOf(h)->flags & kVtxHasParam); }

// The plane with normal n through point, unless n is short against mag, the
// sum of the lengths of the vectors it was made from.
int32_t planeThrough(const double n[3], const double* point, double mag, double plane[4]) {
  if (!(dot3(n, n) >= kNormalFloor2 * mag * mag) || !(mag > 0.0)) return kRowDegenerate;
  for (int k = 0; k < 3; ++k) plane[k] = n[k];
  plane[3] = dot3(n, point);
  return kRowUsable;
}

// Sum of the normals of the marked star triangles, each scaled to unit length
// first when unit is set.
int32_t normalSum(qvMesh* mesh, const double* p, int32_t ring, const qvMarkSet* marks,
                  double plane[4], bool unit) {
  const double* centre = xyzOf(p);
  if (!mesh || !centre || !marks || !plane) return kRowBroken;
  double sum[3] = {0.0, 0.0, 0.0};
  double mag = 0.0;
  int32_t count = 0;
  for (const qvTri* t = mesh->tri; t && (t->flags & marks->tri); t = t->next) {
    double n[3];
    if (qvTriNormal(t, nullptr, 0, nullptr, n) != 0) return kRowBroken;
    const double len = std::sqrt(dot3(n, n));
    if (unit && len > 0.0)
      for (double& c : n) c /= len;
    mag += unit ? (len > 0.0 ? 1.0 : 0.0) : len;
    for (int k = 0; k < 3; ++k) sum[k] += n[k];
    ++count;
  }
  if (count != ring) return kRowBroken;
  return planeThrough(sum, centre, mag, plane);
}

// The ring's coordinates, in the order of the marked ring edges: room for ring
// points on the stack up to kStackPoints, else on the heap.
struct RingPoints {
  double local[kStackPoints][3];
  double (*pts)[3];
  int32_t n;
  explicit RingPoints(int32_t ring) : pts(local), n(0) {
    if (ring > kStackPoints) pts = static_cast<double(*)[3]>(ftMalloc(sizeof(double[3]) * ring));
  }
  ~RingPoints() {
    if (pts != local) std::free(pts);
  }
  RingPoints(const RingPoints&) = delete;
  RingPoints& operator=(const RingPoints&) = delete;
};

int32_t markedEdges(const qvMesh* mesh, const qvMarkSet* marks) {
  int32_t n = 0;
  for (const qvEdg* e = mesh->edg; e && (e->flags & marks->edg); e = e->next) ++n;
  return n;
}

void remarkRing(qvMesh* mesh, const qvMarkSet* marks) {
  for (qvEdg* e = mesh->edg; e && (e->flags & marks->edg); e = e->next)
    for (double* x : e->ends)
      if (x) qvVtxOf(x)->flags |= marks->vtx;
}

// Gathers each ring vertex once: its vertex mark is cleared when it is taken
// and set again on all ends at the end. false unless exactly ring are found.
bool gatherRing(qvMesh* mesh, int32_t ring, const qvMarkSet* marks, RingPoints& out) {
  if (!out.pts || markedEdges(mesh, marks) != ring) return false;
  bool ok = true;
  for (qvEdg* e = mesh->edg; e && (e->flags & marks->edg); e = e->next)
    for (double* x : e->ends) {
      if (!x || !(qvVtxOf(x)->flags & marks->vtx)) continue;
      qvVtxOf(x)->flags &= ~marks->vtx;
      const double* q = xyzOf(x);
      if (!q || out.n == ring) {
        ok = false;
        continue;
      }
      for (int k = 0; k < 3; ++k) out.pts[out.n][k] = q[k];
      ++out.n;
    }
  remarkRing(mesh, marks);
  return ok && out.n == ring;
}

// A null vector of the 3 by 3 matrix a, by Gauss-Jordan elimination with
// partial pivoting; an entry below kSolverZero counts as zero. The first free
// column is set to 1 and the others to 0. false when the matrix has full rank.
bool nullVector(double a[3][3], double n[3]) {
  int32_t pivotCol[3];
  bool isPivot[3] = {false, false, false};
  int32_t rank = 0;
  for (int32_t col = 0; col < 3 && rank < 3; ++col) {
    int32_t best = rank;
    for (int32_t r = rank + 1; r < 3; ++r)
      if (std::fabs(a[r][col]) > std::fabs(a[best][col])) best = r;
    if (std::fabs(a[best][col]) < kSolverZero) continue;
    for (int k = 0; k < 3; ++k) std::swap(a[rank][k], a[best][k]);
    const double pivot = a[rank][col];
    for (int k = 0; k < 3; ++k) a[rank][k] /= pivot;
    for (int32_t r = 0; r < 3; ++r) {
      if (r == rank) continue;
      const double f = a[r][col];
      for (int k = 0; k < 3; ++k) a[r][k] -= f * a[rank][k];
    }
    pivotCol[rank] = col;
    isPivot[col] = true;
    ++rank;
  }
  if (rank == 3) return false;
  int32_t freeCol = 0;
  while (isPivot[freeCol]) ++freeCol;
  n[0] = n[1] = n[2] = 0.0;
  n[freeCol] = 1.0;
  for (int32_t i = 0; i < rank; ++i) n[pivotCol[i]] = -a[i][freeCol];
  return true;
}

// The normal of the least-squares plane of the scatter matrix m: the null
// vector of m - x I for the smallest real root x of the characteristic cubic,
// with a root below kSolverZero read as 0.
bool cubicNormal(const double given[3][3], double n[3]) {
  const double scale = given[0][0] + given[1][1] + given[2][2];
  if (!(scale > 0.0)) return false;
  double m[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m[i][j] = given[i][j] / scale;
  const double tr = m[0][0] + m[1][1] + m[2][2];
  const double minors = m[0][0] * m[1][1] - m[0][1] * m[0][1] + m[0][0] * m[2][2] -
                        m[0][2] * m[0][2] + m[1][1] * m[2][2] - m[1][2] * m[1][2];
  const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[1][2]) -
                     m[0][1] * (m[0][1] * m[2][2] - m[1][2] * m[0][2]) +
                     m[0][2] * (m[0][1] * m[1][2] - m[1][1] * m[0][2]);
  // det(x I - m) = x^3 - tr x^2 + minors x - det has the roots of det(m - x I).
  double re[3], im[3];
  int32_t kind = kRootsReal;
  const int32_t roots = solveCubic(1.0, -tr, minors, -det, kSolverZero, re, im, &kind);
  bool found = false;
  double x = 0.0;
  for (int32_t k = 0; k < roots; ++k) {
    if (im[k] != 0.0) continue;
    const double r = re[k] < kSolverZero ? 0.0 : re[k];
    if (!found || r < x) x = r;
    found = true;
  }
  if (!found) return false;
  double a[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) a[i][j] = m[i][j] - (i == j ? x : 0.0);
  return nullVector(a, n);
}

// The same normal as the eigenvector of m whose eigenvalue is smallest in
// magnitude, the first of equals in jacobiEigen's order.
bool jacobiNormal(const double m[3][3], double n[3]) {
  double work[3][3], vec[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) work[i][j] = m[i][j];
  double* rows[3] = {work[0], work[1], work[2]};
  double* vrows[3] = {vec[0], vec[1], vec[2]};
  if (jacobiEigen(rows, 3, vrows) < 0) return false;
  int32_t k = 0;
  for (int32_t i = 1; i < 3; ++i)
    if (std::fabs(work[i][i]) < std::fabs(work[k][k])) k = i;
  for (int i = 0; i < 3; ++i) n[i] = vec[i][k];
  return true;
}

// The least-squares plane of the ring, offset against its centroid.
int32_t ringFit(qvMesh* mesh, int32_t ring, const qvMarkSet* marks, double plane[4],
                bool (*normalOf)(const double m[3][3], double n[3])) {
  if (!mesh || !marks || !plane || ring < 3) return kRowBroken;
  RingPoints rp(ring);
  if (!gatherRing(mesh, ring, marks, rp)) return kRowBroken;
  const double(*pts)[3] = rp.pts;
  double c[3] = {0.0, 0.0, 0.0};
  for (int32_t i = 0; i < ring; ++i)
    for (int k = 0; k < 3; ++k) c[k] += pts[i][k];
  for (int k = 0; k < 3; ++k) c[k] /= ring;
  double n[3];
  double mag = 1.0;  // a null vector of the elimination has an entry 1
  if (ring == 3) {
    const double u[3] = {pts[1][0] - pts[0][0], pts[1][1] - pts[0][1], pts[1][2] - pts[0][2]};
    const double v[3] = {pts[2][0] - pts[0][0], pts[2][1] - pts[0][1], pts[2][2] - pts[0][2]};
    vecCross(u, v, n);
    mag = std::sqrt(dot3(u, u) * dot3(v, v));
  } else {
    double m[3][3] = {{0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}};
    for (int32_t i = 0; i < ring; ++i) {
      const double d[3] = {pts[i][0] - c[0], pts[i][1] - c[1], pts[i][2] - c[2]};
      for (int r = 0; r < 3; ++r)
        for (int s = 0; s < 3; ++s) m[r][s] += d[r] * d[s];
    }
    if (!normalOf(m, n)) return kRowDegenerate;
    if (normalOf == jacobiNormal) mag = std::sqrt(dot3(n, n));
  }
  return planeThrough(n, c, mag, plane);
}

bool shareEnd(const qvEdg* a, const qvEdg* b) {
  return a->ends[0] == b->ends[0] || a->ends[0] == b->ends[1] || a->ends[1] == b->ends[0] ||
         a->ends[1] == b->ends[1];
}

}  // namespace

// ---------------------------------------------------------------------------
// The plane rows

int32_t qvPlaneRingCubic(qvMesh* mesh, const double*, int32_t ring, const qvMarkSet* marks,
                         double plane[4]) {
  return ringFit(mesh, ring, marks, plane, cubicNormal);
}

int32_t qvPlaneAreaSum(qvMesh* mesh, const double* p, int32_t ring, const qvMarkSet* marks,
                       double plane[4]) {
  return normalSum(mesh, p, ring, marks, plane, false);
}

int32_t qvPlaneUnitSum(qvMesh* mesh, const double* p, int32_t ring, const qvMarkSet* marks,
                       double plane[4]) {
  return normalSum(mesh, p, ring, marks, plane, true);
}

int32_t qvPlaneSpokeSum(qvMesh* mesh, const double* p, int32_t ring, const qvMarkSet* marks,
                        double plane[4]) {
  const double* centre = xyzOf(p);
  if (!mesh || !centre || !marks || !plane) return kRowBroken;
  double sum[3] = {0.0, 0.0, 0.0};
  double mag = 0.0;
  int32_t spokes = 0;
  for (const qvTri* t = mesh->tri; t && (t->flags & marks->tri); t = t->next) {
    qvEdg* pair[2];
    if (qvTriEdgesAt(t, p, pair, nullptr) != 2) return kRowBroken;
    for (const qvEdg* e : pair) {
      const double* q = xyzOf(e->ends[0] == p ? e->ends[1] : e->ends[0]);
      if (!q) return kRowBroken;
      const double d[3] = {centre[0] - q[0], centre[1] - q[1], centre[2] - q[2]};
      for (int k = 0; k < 3; ++k) sum[k] += d[k];
      mag += std::sqrt(dot3(d, d));
      ++spokes;
    }
  }
  if (spokes != 2 * ring) return kRowBroken;
  return planeThrough(sum, centre, mag, plane);
}

int32_t qvPlaneRingJacobi(qvMesh* mesh, const double*, int32_t ring, const qvMarkSet* marks,
                          double plane[4]) {
  return ringFit(mesh, ring, marks, plane, jacobiNormal);
}

const qvPlaneFn qvPlaneTable[kPlaneRows] = {qvPlaneRingCubic, qvPlaneAreaSum, qvPlaneUnitSum,
                                            qvPlaneSpokeSum, qvPlaneRingJacobi};

// ---------------------------------------------------------------------------
// Projection and the crossing test

int32_t qvRingToPlane(qvMesh* mesh, const double plane[4], int32_t ring, const qvMarkSet* marks) {
  if (!mesh || !plane || !marks) return -1;
  const double len = std::sqrt(dot3(plane, plane));
  if (!(len > 0.0)) return -1;
  const double unit[3] = {plane[0] / len, plane[1] / len, plane[2] / len};
  double u[3], v[3], w[3];
  if (planeFrame(kFrameNormalW, unit, kFrameTol, u, v, w) != 0) return -1;
  // The ring about its centroid, in units of its radius.
  RingPoints rp(ring);
  if (!gatherRing(mesh, ring, marks, rp)) return -1;
  double c[3] = {0.0, 0.0, 0.0};
  for (int32_t i = 0; i < ring; ++i)
    for (int k = 0; k < 3; ++k) c[k] += rp.pts[i][k];
  for (double& x : c) x /= ring;
  double radius = 0.0;
  for (int32_t i = 0; i < ring; ++i) {
    const double d[3] = {rp.pts[i][0] - c[0], rp.pts[i][1] - c[1], rp.pts[i][2] - c[2]};
    radius = std::max(radius, std::sqrt(dot3(d, d)));
  }
  if (!(radius > 0.0)) return -1;
  int32_t n = 0;
  bool ok = true;
  for (qvEdg* e = mesh->edg; e && (e->flags & marks->edg); e = e->next)
    for (double* x : e->ends) {
      if (!x || !(qvVtxOf(x)->flags & marks->vtx)) continue;
      qvVtxOf(x)->flags &= ~marks->vtx;
      const double* q = xyzOf(x);
      if (++n > ring || !inEngineForm(x) || !q) {
        ok = false;
        continue;
      }
      const double d[3] = {q[0] - c[0], q[1] - c[1], q[2] - c[2]};
      x[kRedPairAt] = dot3(d, u) / radius;
      x[kRedPairAt + 1] = dot3(d, v) / radius;
    }
  remarkRing(mesh, marks);
  return ok && n == ring ? 0 : -1;
}

int32_t qvRingSimple(qvMesh* mesh, int32_t ring, const qvMarkSet* marks) {
  if (!mesh || !marks || markedEdges(mesh, marks) != ring) return -1;
  for (const qvEdg* e = mesh->edg; e && (e->flags & marks->edg); e = e->next)
    if (!inEngineForm(e->ends[0]) || !inEngineForm(e->ends[1])) return -1;
  for (const qvEdg* a = mesh->edg; a && (a->flags & marks->edg); a = a->next)
    for (const qvEdg* b = a->next; b && (b->flags & marks->edg); b = b->next) {
      double out[4];
      const int32_t r = segSegIntersect2d(a->ends[0], a->ends[1], b->ends[0], b->ends[1], kCrossTol, out);
      if (r == kCrossOverlap) return 1;
      if (r == kCrossPoint && !shareEnd(a, b)) return 1;
    }
  return 0;
}

int32_t qvRingProject(qvMesh* mesh, qvTri* t, const double* p, int32_t ring) {
  if (!mesh || !t || !p) return -1;
  const bool ownMarks = ring < 3;
  if (ownMarks)
    ring = qvFanMark(mesh, t, p, kMarkSet.tri, kMarkSet.edg, kMarkSet.vtx, kFanMoveEdg | kFanMoveTri);
  int32_t status = ring < 3 ? -1 : 1;
  for (int32_t row = 0; row < kPlaneRows && status > 0; ++row) {
    double plane[4];
    const int32_t r = qvPlaneTable[row](mesh, p, ring, &kMarkSet, plane);
    if (r < kRowDegenerate) {
      status = -1;
    } else if (r == kRowDegenerate) {
      status = 1;
    } else if (qvRingToPlane(mesh, plane, ring, &kMarkSet) != 0) {
      status = -1;
    } else {
      const int32_t s = qvRingSimple(mesh, ring, &kMarkSet);
      status = s < 0 ? -1 : s;
    }
  }
  if (ownMarks) {
    const uint32_t edgBits[2] = {kMarkSet.edg, kMarkSet.edg};
    qvHeadUnmark(mesh, kMarkSet.tri, edgBits, kMarkSet.vtx);
  }
  return status;
}
