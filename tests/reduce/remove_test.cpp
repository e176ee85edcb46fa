// Vertex removal and the candidate order: the collapse of a star copy, the
// choice of spoke, commits on a closed surface with the state of the pass
// checked after each, and the order in which a sweep takes vertices.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "mesh/soup.h"
#include "stars.h"

namespace {

// The corner of t at which its cycle starts, and the rest in order.
std::vector<double*> cornersOf(const qvTri* t) {
  double* c[3];
  EXPECT_EQ(qvTriCorners(t, 0, c), 0);
  return {c[0], c[1], c[2]};
}

// z of the normal of t: positive for a triangle turning counterclockwise
// seen from above.
double normalZ(const qvTri* t) {
  double n[3];
  qvTriNormal(t, nullptr, 0, nullptr, n);
  return n[2];
}

// Every retired vertex is buried under exactly one live replacement triangle,
// whose link holds it and which its aux names; a live triangle's link holds
// only retired vertices.
void expectBurialsKept(const qvMesh* mesh) {
  std::set<const qvVtx*> buried;
  for (const qvTri* t = mesh->tri; t; t = t->next) {
    if (t->flags & kTriRetired) continue;
    for (const qvLnk* l = static_cast<const qvLnk*>(t->link); l; l = l->next) {
      const qvVtx* x = static_cast<const qvVtx*>(l->item);
      EXPECT_TRUE(t->flags & kTriReplace);
      EXPECT_TRUE(x->flags & kVtxRetired);
      EXPECT_EQ(x->aux, t);
      EXPECT_TRUE(buried.insert(x).second) << "buried twice";
    }
  }
  size_t retired = 0;
  for (const qvVtx* v = mesh->vtx; v; v = v->next) retired += (v->flags & kVtxRetired) != 0;
  EXPECT_EQ(buried.size(), retired);
}

}  // namespace

TEST(Collapse, TheFanOfTheSurvivorReplacesTheStar) {
  // Ring of n round hub 0, closed below by the fan from vertex 1 so that every
  // fan is closed. Collapsing the hub onto vertex 1 leaves n - 2 triangles on
  // the ring edges and n - 3 new inner edges, turning as the star did.
  for (int n : {3, 4, 6, 9}) {
    Fixture f(starShape({0, 0, 0.2}, circle(n, 1.0, 0.0), true));
    ASSERT_EQ(qvRedPrepFirst(f.mesh), n + 1);
    qvEdg* spoke = f.e(0, 1);
    spoke->flags |= kEdgMarkSpoke;
    qvMesh* copy = qvStarCopy(f.mesh, f.t[0], f.h(0), 0, 1);
    spoke->flags &= ~kEdgMarkSpoke;
    ASSERT_NE(copy, nullptr) << n;
    EXPECT_EQ(qvTriCount(copy->tri), n);
    EXPECT_EQ(qvEdgCount(copy->edg), n);
    EXPECT_EQ(qvCollapse(copy, f.v[0], kEdgMarkSpoke), 0) << n;
    EXPECT_EQ(qvTriCount(copy->tri), n - 2) << n;
    EXPECT_EQ(qvEdgCount(copy->edg), n - 3) << n;
    for (qvTri* t = copy->tri; t; t = t->next) {
      const auto c = cornersOf(t);
      EXPECT_TRUE(c[0] == f.h(1) || c[1] == f.h(1) || c[2] == f.h(1)) << n;
      for (double* h : c) EXPECT_NE(h, f.h(0));
      EXPECT_GT(normalZ(t), 0.0) << n;
      for (int i = 0; i < 3; ++i) {
        // A ring edge is the mesh's and has nothing across in a trial; an
        // inner edge joins two triangles of the copy.
        const bool inner = qvEdgFind(copy->edg, t->edg[i]->ends[0], t->edg[i]->ends[1]) != nullptr;
        EXPECT_EQ(t->adj[i], nullptr);
        EXPECT_EQ(t->aux[i] != nullptr, inner);
      }
    }
    qvMeshFree(copy);
    backToRest(f.mesh);
    EXPECT_EQ(validateText(f.mesh), "") << n;  // a trial leaves the mesh as it was
  }
}

TEST(SpokePick, TheShortestLinkableSpokeAndAFeatureEndOnlyAlongItsFeature) {
  // Hub 0 over a hexagon closed below by the fan from vertex 1: only the
  // spokes to 2 and to 6 pass the link test (every other ring vertex shares
  // vertex 1 with the hub). Vertex 6 is nearer the hub than vertex 2.
  std::vector<Pt> ring = circle(6, 1.0, 0.0);
  ring[5] = {0.4, -0.7, 0.0};
  struct Case {
    const char* name;
    uint32_t hubFlags;
    std::vector<std::pair<int, int>> features;  // edges given kEdgFeatureSet
    int want;                                   // far end of the spoke chosen, 0 for none
  };
  const Case cases[] = {
      {"plain vertex: the shorter passing spoke", 0, {}, 6},
      {"feature end, feature spoke passes", kVtxFeatureEnd, {{0, 2}, {2, 3}, {5, 6}}, 2},
      {"feature end, only plain spokes pass", kVtxFeatureEnd, {{0, 3}, {2, 3}, {5, 6}}, 0},
      {"feature end, odd feature ring edges", kVtxFeatureEnd, {{0, 2}, {2, 3}}, 0},
  };
  for (const Case& c : cases) {
    Fixture f(starShape({0, 0, 0.2}, ring, true));
    ASSERT_EQ(qvRedPrepFirst(f.mesh), 7);
    f.v[0]->flags |= c.hubFlags;
    for (auto [a, b] : c.features) f.e(a, b)->flags |= kEdgFeatureSet;
    int32_t blocked = -5;
    qvEdg* e = qvSpokePick(f.mesh, f.t[0], f.v[0], &blocked);
    EXPECT_EQ(e, c.want ? f.e(0, c.want) : nullptr) << c.name;
    // Blocked counts every spoke the link test refuses, none when the
    // vertex has no spoke to begin with.
    EXPECT_EQ(blocked, c.features.size() == 2 ? 0 : 4) << c.name;
    backToRest(f.mesh);
    for (qvEdg* x = f.mesh->edg; x; x = x->next) x->flags &= ~kEdgFeatureSet;
    f.v[0]->flags &= ~kVtxFeatureEnd;
    EXPECT_EQ(validateText(f.mesh), "") << c.name;
  }
}

TEST(Removal, TetrahedronKeepsEveryVertex) {
  Fixture f(kTetra);
  qvRedParams p;
  qvRedParamsSet(10.0, &p);
  ASSERT_EQ(qvRedPrepFirst(f.mesh), 4);
  for (qvVtx* v : f.v) {
    EXPECT_EQ(qvVtxScore(f.mesh, v, &p), 1);
    EXPECT_EQ(*qvScoreOf(v), kRedScoreNone);
    EXPECT_EQ(qvVtxRemoveFull(f.mesh, v, &p, nullptr), 1);
  }
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");
  EXPECT_EQ(reduceOnePass(f.mesh, 10.0, nullptr), 0);
  EXPECT_EQ(qvTriCount(f.mesh->tri), 4);
}

TEST(Removal, CommitsKeepBothSurfacesAndPassBuriedVerticesOn) {
  // Commits on a torus in score order, far beyond the first ring: stars come
  // to hold replacement triangles, whose buried vertices must move on to the
  // new triangles with nothing lost.
  Fixture f(torusShape(24, 12));
  qvRedParams p;
  qvRedParamsSet(3.0, &p);
  ASSERT_GT(qvRedPrepFirst(f.mesh), 0);
  ASSERT_GT(qvRedScoreAll(f.mesh, &p), 0);
  std::vector<qvVtx*> order;
  for (qvVtx* v = f.mesh->vtx; v; v = v->next) order.push_back(v);
  int removed = 0, deepStars = 0;
  for (qvVtx* v : order) {
    if (v->flags & kVtxRetired) continue;
    // Stars that already hold a replacement triangle with buried vertices.
    bool deep = false;
    for (qvTri* t = f.mesh->tri; t; t = t->next)
      if (!(t->flags & kTriRetired) && t->link && qvTriEdgesAt(t, v->dat, nullptr, nullptr) == 2) deep = true;
    const int32_t r = qvVtxRemoveFull(f.mesh, v, &p, nullptr);
    ASSERT_GE(r, 0);
    removed += r == 0;
    deepStars += deep && r == 0;
    ASSERT_EQ(qvRedPassCheck(f.mesh, stderr), 0) << "after removal " << removed;
    expectBurialsKept(f.mesh);
  }
  EXPECT_GT(removed, 60);
  EXPECT_GT(deepStars, 10);
  // A walk round a removed vertex on the starting surface meets no
  // replacement triangle.
  for (qvVtx* v = f.mesh->vtx; v; v = v->next) {
    if (!(v->flags & kVtxRetired)) continue;
    EXPECT_EQ(qvFanWalkOld(static_cast<qvTri*>(v->link), v->dat,
                           [](qvTri* t, void*) { return (t->flags & kTriReplace) ? 1 : 0; }, nullptr),
              0);
  }
  const int32_t left = qvRedFinishPass(f.mesh, 0);
  EXPECT_EQ(left, qvTriCount(f.mesh->tri));
  EXPECT_EQ(validateText(f.mesh), "");
  for (qvVtx* v = f.mesh->vtx; v; v = v->next) EXPECT_EQ(v->flags & (kVtxRetired | kMarkMask), 0u);
  qvTopo topo;
  EXPECT_EQ(qvMeshTopo(f.mesh, &topo), 0);
  EXPECT_EQ(topo.genus, 1);
  backToRest(f.mesh);
}

TEST(Order, AscendingWithoutScoresLastAndNoTieBreak) {
  struct Case {
    double a, b;
    int32_t want;
  };
  const Case cases[] = {{0.0, 1.0, -1}, {1.0, 0.0, 1},  {2.0, 2.0, 0},  {0.0, -1.0, -1},
                        {-1.0, 0.0, 1}, {-1.0, -3.0, 0}, {0.0, 0.0, 0}, {NAN, 1.0, 1}};
  Fixture f(kSquare);
  ASSERT_EQ(qvRedPrepFirst(f.mesh), 4);
  for (const Case& c : cases) {
    *qvScoreOf(f.v[0]) = c.a;
    *qvScoreOf(f.v[1]) = c.b;
    EXPECT_EQ(qvVtxScoreCmp(f.v[0], f.v[1]), c.want) << c.a << " " << c.b;
  }
  const double scores[4] = {0.5, -1.0, 0.0, 0.25};
  for (int i = 0; i < 4; ++i) *qvScoreOf(f.v[i]) = scores[i];
  int32_t err = 0;
  EXPECT_EQ(qvVtxSortScore(f.mesh->vtx, 3, &err), f.mesh->vtx);
  EXPECT_EQ(err, -1);  // the count doesn't match: the list stands
  err = 0;
  f.mesh->vtx = qvVtxSortScore(f.mesh->vtx, -1, &err);
  EXPECT_EQ(err, 0);
  std::vector<qvVtx*> got;
  for (qvVtx* v = f.mesh->vtx; v; v = v->next) got.push_back(v);
  EXPECT_EQ(got, (std::vector<qvVtx*>{f.v[2], f.v[3], f.v[0], f.v[1]}));
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");
}

TEST(Sweep, ScoreOfExactlyTol2GoesAndARefusedVertexWaitsAtTheTail) {
  struct Case {
    const Shape& shape;
    double score;  // given to vertex 0, every other vertex has none
    int32_t removed;
  };
  qvRedParams p;
  qvRedParamsSet(1e-3, &p);
  const Case cases[] = {{kOctahedron, p.tol2, 1},
                        {kOctahedron, std::nextafter(p.tol2, 1.0), 0},
                        {kTetra, 0.0, 0}};  // no spoke: refused
  for (const Case& c : cases) {
    Fixture f(c.shape);
    ASSERT_GT(qvRedPrepFirst(f.mesh), 0);
    f.mesh->vtx = qvVtxConcat(f.v[0], qvVtxUnlink(f.mesh->vtx, f.v[0]));
    *qvScoreOf(f.v[0]) = c.score;
    EXPECT_EQ(qvRedSweepFull(f.mesh, &p), c.removed) << c.score;
    if (&c.shape == &kTetra) {
      EXPECT_EQ(qvVtxTail(f.mesh->vtx), f.v[0]);
      EXPECT_EQ(*qvScoreOf(f.v[0]), kRedScoreNone);
    }
    EXPECT_EQ(qvRedFinishPass(f.mesh, 0), static_cast<int32_t>(c.shape.faces.size()) - 2 * c.removed);
    EXPECT_EQ(validateText(f.mesh), "");
    backToRest(f.mesh);
  }
}

TEST(Order, FlatRegionScoresZeroAndComesFirst) {
  qvMesh* mesh = soupOf(readStl("flat-square.stl"));
  ASSERT_EQ(qvMeshAssemble(mesh, nullptr), 1);
  qvRedParams p;
  qvRedParamsSet(3.0, &p);
  ASSERT_GT(qvRedCapOpen(mesh), 0);
  ASSERT_GT(qvRedPrepFirst(mesh), 0);
  ASSERT_GT(qvRedScoreAll(mesh, &p), 0);
  int zeros = 0, negatives = 0;
  double last = 0.0;
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    const double s = *qvScoreOf(v);
    if (s < 0.0) {
      ++negatives;
      continue;
    }
    EXPECT_EQ(negatives, 0) << "a score behind the vertices without one";
    EXPECT_GE(s, last);
    last = s;
    zeros += s == 0.0;
  }
  EXPECT_EQ(*qvScoreOf(mesh->vtx), 0.0);
  EXPECT_GT(zeros, 10);
  EXPECT_EQ(negatives, 5);  // four corners on the rim and the hub of the cap
  qvRedFinishPass(mesh, 0);
  EXPECT_EQ(qvRedCapDrop(mesh), 4);
  EXPECT_EQ(validateText(mesh), "");
  qvMeshDeleteAll(mesh);
}
