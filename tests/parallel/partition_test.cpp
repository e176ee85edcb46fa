// The partition of a shell: orderings against std::stable_sort, sides and
// seams of small meshes against hand counts, and every cut against the
// triangles it was given and the edges both halves hold.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "mesh/soup.h"
#include "parallel/parallel.h"

namespace {

using Point = std::array<double, 3>;

Point at(const double* h) { return {h[0], h[1], h[2]}; }

// A triangle's corners in cycle order from the smallest one.
Corners cornersOf(const qvTri* t) {
  double* p[3];
  EXPECT_EQ(qvTriCoords(t, 0, p), 0);
  int s = 0;
  for (int k = 1; k < 3; ++k)
    if (at(p[k]) < at(p[s])) s = k;
  Corners c;
  for (int k = 0; k < 9; ++k) c[k] = p[(s + k / 3) % 3][k % 3];
  return c;
}

qvMesh* loadModel(const char* name) {
  qvMesh* m = soupOf(readStl(name));
  EXPECT_EQ(qvMeshAssemble(m, nullptr), 1) << name;
  return m;
}

// The list a stable sort by box corners gives, worked out apart from qvTriSort.
std::vector<qvTri*> stableOrder(qvTri* head, int direction, int axis, int corner) {
  std::vector<std::pair<Point, qvTri*>> keyed;
  for (qvTri* t = head; t; t = t->next) {
    double* p[3];
    qvTriCoords(t, 0, p);
    Point key;
    for (int k = 0; k < 3; ++k) {
      const auto [lo, hi] = std::minmax({p[0][(axis + k) % 3], p[1][(axis + k) % 3], p[2][(axis + k) % 3]});
      key[k] = corner ? hi : lo;
    }
    keyed.push_back({key, t});
  }
  std::stable_sort(keyed.begin(), keyed.end(), [=](const auto& a, const auto& b) {
    return direction ? a.first < b.first : b.first < a.first;
  });
  std::vector<qvTri*> out;
  for (const auto& k : keyed) out.push_back(k.second);
  return out;
}

std::vector<qvTri*> listOf(qvTri* t) {
  std::vector<qvTri*> out;
  for (; t; t = t->next) out.push_back(t);
  return out;
}

struct CutCounts {
  int pieces[2] = {0, 0};
  long tris[2] = {0, 0}, nVtx = 0, nEdg = 0;
};

// Cuts m and frees the halves but m. Every piece valid and in the order of
// its flood; the triangles those of the input; the seam the edges that both
// halves hold, each a new edge copy, and their ends pinned in both halves
// and no other vertex.
CutCounts cutChecked(qvMesh* m, int32_t count = -1) {
  std::vector<Corners> before, after;
  for (const qvTri* t = m->tri; t; t = t->next) before.push_back(cornersOf(t));
  const long nEdg = qvEdgCount(m->edg);
  qvMeshPair pair{};
  EXPECT_EQ(qvMeshCut(m, count, &pair), 0);
  EXPECT_EQ(pair.first, m);
  CutCounts n;
  std::set<std::pair<Point, Point>> edges[2];
  std::set<Point> pinned[2], seam;
  for (int s = 0; s < 2; ++s)
    for (const qvMesh* p = s ? pair.second : pair.first; p; p = p->next, ++n.pieces[s]) {
      EXPECT_EQ(validateText(p), "");
      // Each piece stands in the order of its shell flood, which a flood
      // run again on the records keeps.
      const std::vector<qvTri*> list = listOf(p->tri);
      EXPECT_EQ(qvMeshShells(const_cast<qvMesh*>(p), qvVtxClone), 1);
      EXPECT_EQ(listOf(p->tri), list);
      n.nVtx += qvVtxCount(p->vtx);
      n.nEdg += qvEdgCount(p->edg);
      for (const qvTri* t = p->tri; t; t = t->next, ++n.tris[s]) after.push_back(cornersOf(t));
      for (const qvEdg* e = p->edg; e; e = e->next) edges[s].insert(std::minmax(at(e->ends[0]), at(e->ends[1])));
      for (const qvVtx* v = p->vtx; v; v = v->next)
        if (v->flags & kVtxPinned) pinned[s].insert(at(v->dat));
    }
  std::sort(before.begin(), before.end());
  std::sort(after.begin(), after.end());
  EXPECT_EQ(after, before);
  long shared = 0;
  for (const auto& e : edges[0])
    if (edges[1].count(e)) ++shared, seam.insert(e.first), seam.insert(e.second);
  EXPECT_EQ(n.nEdg - nEdg, shared);
  EXPECT_EQ(pinned[0], seam);
  EXPECT_EQ(pinned[1], seam);
  qvMeshDeleteAll(m->next);
  m->next = nullptr;
  qvMeshDeleteAll(pair.second);
  return n;
}

}  // namespace

TEST(TriSort, EveryRowOrdersLikeAStableSortAlsoWithTwoThreadsAtOnce) {
  qvMesh* m[2] = {loadModel("torus.stl"), loadModel("bunny.stl")};
  // Coordinates off the float grid are sorted on keys of doubles, those of a
  // file on keys of floats: the bunny takes the one way, the torus the other.
  for (qvVtx* v = m[1]->vtx; v; v = v->next)
    for (int k = 0; k < 3; ++k) qvVtxXyz(v)[k] *= 1 + 0x1p-40;
  for (int row = 0; row < 12; ++row) {
    const int other = 11 - row;  // the second thread's row
    const std::vector<qvTri*> want[2] = {stableOrder(m[0]->tri, row / 6, row / 2 % 3, row % 2),
                                         stableOrder(m[1]->tri, other / 6, other / 2 % 3, other % 2)};
    std::thread second([&] { m[1]->tri = qvTriSort(m[1]->tri, other / 6, other / 2 % 3, other % 2); });
    m[0]->tri = qvTriSort(m[0]->tri, row / 6, row / 2 % 3, row % 2);
    second.join();
    EXPECT_EQ(listOf(m[0]->tri), want[0]) << "row " << row;
    EXPECT_EQ(listOf(m[1]->tri), want[1]) << "row " << other;
  }
  const std::vector<qvTri*> list = listOf(m[0]->tri);
  for (const auto& bad : std::vector<std::array<int, 3>>{{1, 3, 0}, {2, 0, 0}, {1, 0, -1}, {-1, 0, 0}})
    EXPECT_EQ(qvTriSort(m[0]->tri, bad[0], bad[1], bad[2]), nullptr);
  EXPECT_EQ(qvTriSort(nullptr, 1, 0, 0), nullptr);
  EXPECT_EQ(listOf(m[0]->tri), list);
  EXPECT_EQ(validateText(m[0]), "");  // tags are zero again
  qvMeshFree(m[0]);
  qvMeshFree(m[1]);
}

TEST(Halve, CutsAlongTheLongestAxisXBeforeYBeforeZ) {
  // An octahedron scaled per axis: the marked half is the four faces at the
  // low end of the axis (point 2 * axis + 1), the seam the other four points.
  for (const auto& [scale, axis] : std::vector<std::pair<Point, int>>{
           {{1, 1, 1}, 0}, {{1, 1, 2}, 2}, {{1, 2, 1}, 1}, {{1, 2, 2}, 1}, {{2, 1, 2}, 0}}) {
    Shape s = kOctahedron;
    for (auto& p : s.pts) p = {p[0] * scale[0], p[1] * scale[1], p[2] * scale[2]};
    Fixture f(s);
    ASSERT_EQ(qvMeshHalve(f.mesh, -1, kTriMarkVisit), 0);
    for (size_t i = 0; i < 8; ++i) {
      const bool atLow = std::count(s.faces[i].begin(), s.faces[i].end(), 2 * axis + 1) == 1;
      EXPECT_EQ((f.t[i]->flags & kTriMarkVisit) != 0, atLow) << axis;
    }
    for (int p = 0; p < 6; ++p) EXPECT_EQ((f.v[p]->flags & kVtxPinned) != 0, p / 2 != axis) << axis;
  }
}

TEST(Cut, LoneTrianglesChangeSidesOrBecomePieces) {
  // Strip T0..T5 placed so that T0, T3, T4 sort lowest: T0, with no marked
  // neighbour, changes sides; T5, with marked neighbours only, stays, cut off
  // from T0-T2. Seams: T2|T3 on points 3, 4 and T4|T5 on points 5, 6.
  Shape s = stripShape(6);
  const double x[8] = {-10, 5, 6, 7, 0, 8, 9, 10};
  for (int i = 0; i < 8; ++i) s.pts[i] = {x[i], i == 5 ? -5.0 : i % 2, 0.1 * i};
  Fixture f(s);
  ASSERT_EQ(qvMeshHalve(f.mesh, -1, kTriMarkVisit), 0);
  for (int i = 0; i < 6; ++i) EXPECT_EQ((f.t[i]->flags & kTriMarkVisit) != 0, i == 3 || i == 4) << i;
  Fixture g(s);
  const CutCounts n = cutChecked(g.mesh);
  EXPECT_EQ(n.pieces[0], 2);
  EXPECT_EQ(n.pieces[1], 1);
  EXPECT_EQ(n.tris[1], 2);
  EXPECT_EQ(n.nVtx, 8 + 4);
}

TEST(Cut, HalvesTouchingThemselvesAtAVertexAreUnpinched) {
  // An annulus: fan F0..F3 round apex 0 over ring 1-4, with G0, G2 outside
  // F0, F2 joined by a bridge B1 B3 B2 through point 10, H3 outside F3, and
  // H1 K1 K2 K3 outside F1. G, B, F0 and F2 sort lowest, so the lower half
  // is one piece whose boundary touches itself at the apex, and the upper
  // half two pieces that share only the apex. Seam: the four spokes.
  const Shape s = {{{1, 2, 1}, {0, 1.5, 0}, {1, 0, 0}, {1.5, 0, 0.5}, {0, 1.5, 0.5}, {-1, 0.5, 0}, {-1, 0.5, 1},
                    {3, 0, 0}, {0.5, 3, 0.2}, {4, 0.5, 0}, {-2, 1, 0.5}, {5, 1, 0}, {5, 0, 0.5}},
                   {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 1}, {2, 1, 5}, {4, 3, 6}, {3, 2, 7}, {1, 4, 8},
                    {5, 1, 10}, {4, 6, 10}, {10, 6, 5}, {7, 2, 9}, {7, 9, 11}, {7, 11, 12}}};
  Fixture f(s);
  const CutCounts n = cutChecked(f.mesh);
  EXPECT_EQ(n.pieces[0], 2);
  EXPECT_EQ(n.pieces[1], 1);
  EXPECT_EQ(n.nVtx, 13 + 5 + 2);  // the seam, and one more apex in each half
  EXPECT_EQ(n.nEdg, 27 + 4);
}

TEST(Split, AllMarkedFailsAndKeepsEveryRecord) {
  Fixture f(kOctahedron);
  qvTriOrAll(f.mesh->tri, kTriMarkVisit);
  qvMeshPair pair{};
  EXPECT_EQ(qvMeshSplit(f.mesh, kTriMarkVisit, qvVtxClone, &pair), 0);
  EXPECT_EQ(validateText(f.mesh), "");  // mask cleared
  EXPECT_EQ(qvMeshCut(f.mesh, 16, &pair), -1);  // half = 8: every face marked
  EXPECT_TRUE(pair.first == nullptr && pair.second == f.mesh);
  EXPECT_EQ(qvTriCount(f.mesh->tri), 8);
}

TEST(Cut, RealModelsAndAnOddStripGiveValidHalvesWithMatchingSeams) {
  for (const char* name : {"torus.stl", "bunny.stl"}) {
    qvMesh* m = loadModel(name);
    cutChecked(m);
    qvMeshFree(m);
  }
  Fixture f(stripShape(5001));  // the extra triangle on the upper side
  const CutCounts n = cutChecked(f.mesh);
  EXPECT_TRUE(n.tris[0] == 2501 && n.tris[1] == 2500);
}
