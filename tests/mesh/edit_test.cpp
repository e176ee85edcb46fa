// Editing primitives. The validator runs after every operation that changes
// a mesh; fans and marks are checked against hand counts.
#include <gtest/gtest.h>

#include <set>

#include "fixture.h"

namespace {

struct Visits {
  std::vector<qvTri*> seen;  // triangles in the order fn saw them
  size_t stopAt = 0;         // call on which to stop, 0 for never
};

int32_t record(qvTri* t, void* ctx) {
  Visits& v = *static_cast<Visits*>(ctx);
  v.seen.push_back(t);
  return v.seen.size() == v.stopAt ? -7 : 0;
}

const uint32_t kVisitOnly[2] = {kEdgMarkVisit, kEdgMarkVisit};

}  // namespace

TEST(Edit, FlipReversesTheCycleAndTwiceRestores) {
  Fixture f(kTetra);
  qvTri* t = f.t[3];  // 1 2 3
  const qvTri before = *t;
  ASSERT_EQ(qvTriFlip(t), 0);
  double* c[3];
  ASSERT_EQ(qvTriCorners(t, 0, c), 0);
  EXPECT_EQ(std::vector<double*>(c, c + 3), (std::vector<double*>{f.h(2), f.h(1), f.h(3)}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(qvTriDisagree(t, i), 1);  // every neighbour now runs alike
  EXPECT_EQ(validateText(f.mesh), "");
  qvTriFlip(t);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(t->edg[i] == before.edg[i] && t->adj[i] == before.adj[i]);
}

TEST(Edit, LinkAndUnlinkKeepAdjacencySymmetricOrReportIt) {
  Fixture f(kTetra);
  qvTri* a = f.t[0];  // 0 2 1; across 0-2 lies face 2
  EXPECT_EQ(qvTriLink(a, nullptr, f.e(0, 2)), 0);
  EXPECT_NE(validateText(f.mesh).find("invariant 6:"), std::string::npos);  // face 2 still points at a
  EXPECT_EQ(qvTriLink(a, f.t[2], f.e(1, 3)), 1);  // not an edge of a
  EXPECT_EQ(qvTriLink(a, f.t[2], f.e(0, 2)), 0);
  EXPECT_EQ(validateText(f.mesh), "");
  qvTri* t = f.t[3];
  EXPECT_EQ(qvTriUnlink(t), 0);
  int32_t n = 0;
  const std::string text = validateText(f.mesh, &n);
  EXPECT_EQ(n, 3) << text;  // its three edges, unjoined but with no one-way link
  EXPECT_EQ(text.find("invariant 6:"), std::string::npos);
  a->adj[0] = t;  // t doesn't hold a's edge 0-2: unlinked, and reported
  EXPECT_EQ(qvTriUnlink(a), 1);
  EXPECT_TRUE(!a->adj[0] && !a->adj[1] && !a->adj[2]);
}

TEST(FanWalk, VisitsEachTriangleOnceAndTellsClosedFromOpen) {
  struct Case {
    const char* name;
    const Shape* shape;
    int start, corner, result, calls;
  } cases[] = {
      {"tetrahedron corner", &kTetra, 0, 0, 0, 3},     {"octahedron top", &kOctahedron, 0, 4, 0, 4},
      {"open fan, middle", &kOpenFan, 1, 0, -1, 3},    {"cone rim", &kOpenCone, 0, 1, -1, 2},
      {"bow-tie wing", &kBowTie, 0, 0, -1, 1},         {"three on an edge, apart", &kThreeOnEdge, 2, 0, -1, 1},
      {"corner not in the triangle", &kTetra, 0, 3, -2, 0},
  };
  for (const Case& c : cases) {
    Fixture f(*c.shape);
    Visits v;
    EXPECT_EQ(qvFanWalk(f.t[c.start], f.h(c.corner), record, &v), c.result) << c.name;
    EXPECT_EQ(static_cast<int>(std::set<qvTri*>(v.seen.begin(), v.seen.end()).size()), c.calls) << c.name;
    EXPECT_EQ(static_cast<int>(v.seen.size()), c.calls) << c.name;
  }
  Fixture f(kOctahedron);
  Visits v;
  v.stopAt = 2;
  EXPECT_EQ(qvFanWalk(f.t[0], f.h(4), record, &v), 7);  // the absolute value of fn's code
  EXPECT_EQ(v.seen.size(), 2u);
}

TEST(FanMark, MarksFarEdgesAndBuildsHeadRunsThatUnmarkCleanly) {
  struct Case {
    const Shape* shape;
    int start, corner, ring;  // ring: far edges, triangles and far vertices alike
  } cases[] = {{&kTetra, 0, 0, 3}, {&kOctahedron, 1, 4, 4}, {&kOpenCone, 3, 0, 4}};
  for (const Case& c : cases) {
    Fixture f(*c.shape);
    f.mesh->flags |= kMeshSortX;
    EXPECT_EQ(qvFanMark(f.mesh, f.t[c.start], f.h(c.corner), kTriMarkVisit, kEdgMarkVisit, kVtxMarkVisit,
                        kFanMoveVtx | kFanMoveEdg | kFanMoveTri),
              c.ring);
    EXPECT_EQ(headRun(f.mesh->tri, kTriMarkVisit), c.ring);
    EXPECT_EQ(headRun(f.mesh->edg, kEdgMarkVisit), c.ring);
    EXPECT_EQ(headRun(f.mesh->vtx, kVtxMarkVisit), c.ring);
    for (qvEdg* e = f.mesh->edg; e && (e->flags & kEdgMarkVisit); e = e->next)
      EXPECT_TRUE(e->ends[0] != f.h(c.corner) && e->ends[1] != f.h(c.corner));
    EXPECT_EQ(f.mesh->flags & kMeshSortedSet, 0u);  // vertices moved
    EXPECT_EQ(qvHeadUnmark(f.mesh, kTriMarkVisit, kVisitOnly, kVtxMarkVisit), 0);
    EXPECT_EQ(validateText(f.mesh), "");
  }
  Fixture f(kOpenFan);
  EXPECT_EQ(qvFanMark(f.mesh, f.t[1], f.h(0), kTriMarkVisit, kEdgMarkVisit, 0, 0), -1);
  EXPECT_EQ(headRun(f.mesh->tri, kTriMarkVisit), 3);  // the marks set stay
}
