// Vertex removal and the candidate order: the choice of spoke, commits on a
// closed surface with the state of the pass and the covers checked after
// each, and the order in which a sweep takes vertices.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>

#include "mesh/soup.h"
#include "stars.h"

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
      {"feature end: its passing feature spoke; ring features don't count", kVtxFeatureEnd,
       {{0, 2}, {0, 4}, {2, 3}, {5, 6}}, 2},
      {"feature end of one feature spoke", kVtxFeatureEnd, {{0, 2}}, 2},
      {"feature end whose feature spokes fail the link test", kVtxFeatureEnd, {{0, 3}, {0, 4}, {0, 5}}, 0},
      {"feature end whose features are gone: a plain vertex", kVtxFeatureEnd, {{2, 3}}, 6},
  };
  for (const Case& c : cases) {
    Fixture f(starShape({0, 0, 0.2}, ring, true));
    ASSERT_EQ(qvRedPrepFirst(f.mesh), 7);
    f.v[0]->flags |= c.hubFlags;
    for (auto [a, b] : c.features) f.e(a, b)->flags |= kEdgFeatureSet;
    qvSpokes spokes;
    ASSERT_EQ(qvSpokePick(f.mesh, f.t[0], f.v[0], &spokes), 0);
    EXPECT_EQ(spokes.n > 0 ? spokes.e[0] : nullptr, c.want ? f.e(0, c.want) : nullptr) << c.name;
    // The plain vertex has both passing spokes, the shorter first.
    EXPECT_TRUE(c.hubFlags != 0 || (spokes.n == 2 && spokes.e[1] == f.e(0, 2))) << c.name;
    // Blocked counts every spoke the link test refuses.
    EXPECT_EQ(spokes.blocked, 4) << c.name;
    backToRest(f.mesh);
    for (qvEdg* x = f.mesh->edg; x; x = x->next) x->flags &= ~kEdgFeatureSet;
    f.v[0]->flags &= ~kVtxFeatureEnd;
    EXPECT_EQ(validateText(f.mesh), "") << c.name;
  }
}

// The facets welded where their corners are equal.
Shape welded(const std::vector<Corners>& facets) {
  Shape s;
  std::map<std::array<double, 3>, int> at;
  for (const Corners& c : facets) {
    std::array<int, 3> face;
    for (int k = 0; k < 3; ++k) {
      const std::array<double, 3> x{c[3 * k], c[3 * k + 1], c[3 * k + 2]};
      auto it = at.emplace(x, static_cast<int>(s.pts.size())).first;
      if (it->second == static_cast<int>(s.pts.size())) s.pts.push_back(x);
      face[k] = it->second;
    }
    s.faces.push_back(face);
  }
  return s;
}

// A torus (or another shape) in a pass at tolerance tol: covers made, a
// trial to reuse. finish ends the pass, checks the mesh and gives the
// triangles left.
struct TorusPass {
  Fixture f;
  qvRedParams p{};
  qvTrial tr{};
  explicit TorusPass(double tol, const Shape& shape = torusShape(24, 12)) : f(shape) {
    EXPECT_EQ(qvRedParamsSet(tol, &p), 0);
    EXPECT_GT(qvRedPrepFirst(f.mesh), 0);
    EXPECT_EQ(qvCoverStart(f.mesh, &p), 0);
  }
  int32_t finish() {
    qvTrialFree(&tr);
    qvCoverEnd(f.mesh, &p);
    const int32_t left = qvRedFinishPass(f.mesh, 0);
    EXPECT_EQ(validateText(f.mesh), "");
    return left;
  }
  ~TorusPass() {  // both frees may come twice
    qvTrialFree(&tr);
    qvCoverEnd(f.mesh, &p);
    backToRest(f.mesh);
  }
};

TEST(Removal, EveryCommitKeepsBothSurfacesAndTheCoversWhole) {
  // Commits in list order, far beyond the first ring, so that stars come to
  // hold replacement triangles whose covers hold fragments, on a torus; and
  // on a finely cut cube, whose faces hold flat pieces filed with the fans
  // that keep their plane, and measured where a fan bends across an edge:
  // after each commit both surfaces are linked, every piece is certified
  // afresh against its home and partner, and the pieces tile the start.
  const struct {
    Shape shape;
    double tol;
    int minRemoved, genus;
  } cases[] = {{torusShape(24, 12), 3.0, 60, 1}, {welded(refine(refine(refine(readStl("cube.stl"))))), 0.05, 300, 0}};
  for (const auto& c : cases) {
    TorusPass pass(c.tol, c.shape);
    std::vector<qvVtx*> order;
    for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next) order.push_back(v);
    int removed = 0;
    for (qvVtx* v : order) {
      const int32_t r = qvVtxRemove(pass.f.mesh, v, &pass.p, nullptr, &pass.tr);
      ASSERT_GE(r, 0);
      removed += r == 0;
      ASSERT_EQ(qvRedPassCheck(pass.f.mesh, stderr), 0) << "after removal " << removed;
      ASSERT_EQ(qvCoverCheck(pass.f.mesh, &pass.p, stderr), 0) << "after removal " << removed;
    }
    EXPECT_GT(removed, c.minRemoved);
    const int32_t left = pass.finish();
    EXPECT_EQ(left, qvTriCount(pass.f.mesh->tri));
    for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next) EXPECT_EQ(v->flags & (kVtxRetired | kMarkMask), 0u);
    qvTopo topo;
    EXPECT_EQ(qvMeshTopo(pass.f.mesh, &topo), 0);
    EXPECT_EQ(topo.genus, c.genus);
  }
}

TEST(Removal, AFeatureTurningRoundACollapsedTriangleGoesOnAlongItsRingEdge) {
  // The hub's features run 2 - 0 - 3 round the triangle (0, 2, 3); it goes
  // along its one passing feature spoke, to 2, and the ring edge (2, 3)
  // takes the place of the spoke to 3 on its line.
  TorusPass pass(3.0, starShape({0, 0, 0.2}, circle(6, 1.0, 0.0), true));
  Fixture& f = pass.f;
  for (int k : {0, 2, 3}) f.v[k]->flags |= kVtxFeatureEnd;
  f.e(0, 2)->flags |= kEdgFeatureSet;
  f.e(0, 3)->flags |= kEdgFeatureSet;
  qvEdg* const ringEdge = f.e(2, 3);
  ASSERT_EQ(qvVtxRemove(f.mesh, f.v[0], &pass.p, nullptr, &pass.tr), 0);
  EXPECT_EQ(ringEdge->flags & kEdgFeatureSet, kEdgFeatureSet);
  EXPECT_EQ(pass.finish(), 8);
}

TEST(Guests, ATakenGuestIsCertifiedInCoversInOrderAndFreesTheJointsOnlyItHeld) {
  // A low closed pyramid over a hexagon hosts guests that share its apex 0
  // and ring corner 1: one whose free corner rises 0.2 above the roof, and
  // one that stands 5 high. At a tolerance of 1 the pass takes the first,
  // whose pieces must hold where they went, in covers still read worst
  // first; the joints at 0 and 1 stay while the tall guest is there.
  const Shape host = starShape({0, 0, 0.2}, circle(6, 1.0, 0.0), true);
  const Shape low{{{0, 0, 0.2}, {1, 0, 0}, {0.5, 0.3, 0.3}}, {{0, 1, 2}}};
  const Shape tall{{{0, 0, 0.2}, {1, 0, 0}, {0.5, 0, 5}}, {{0, 2, 1}}};
  for (const bool withTall : {false, true}) {
    TorusPass pass(1.0, host);
    Fixture a(low), b(tall);
    pass.f.v[0]->flags |= kVtxJoint;
    pass.f.v[1]->flags |= kVtxJoint;
    pass.f.e(0, 1)->flags |= kEdgJoint;
    qvMesh* meshes[2] = {a.mesh, b.mesh};
    uint8_t taken[2] = {9, 9};
    qvGuests guests{meshes, taken, withTall ? 2 : 1, nullptr, 0};
    ASSERT_EQ(qvGuestsTake(pass.f.mesh, &pass.p, &guests), 1);
    EXPECT_EQ(taken[0], 1);
    EXPECT_EQ(taken[1], withTall ? 0 : 9);
    EXPECT_EQ(qvCoverCheck(pass.f.mesh, &pass.p, stderr), 0);
    const uint32_t joint = withTall ? kVtxJoint : 0u;
    EXPECT_EQ(pass.f.v[0]->flags & kVtxJoint, joint);
    EXPECT_EQ(pass.f.v[1]->flags & kVtxJoint, joint);
    EXPECT_EQ(pass.f.e(0, 1)->flags & kEdgJoint, withTall ? kEdgJoint : 0u);
    EXPECT_GE(pass.finish(), 0);
  }
}

TEST(Trial, KeepsTheBestTrySoFlipsNeverRaiseTheScore) {
  // Half the torus removed first, so that the covers hold pieces. Then every
  // vertex's trial scores no higher than any of its tries alone: each spoke
  // it weighs, with the fan's flips and without.
  TorusPass pass(1.0);
  int32_t i = 0;
  for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next, ++i)
    ASSERT_GE(i % 2 ? 0 : qvVtxRemove(pass.f.mesh, v, &pass.p, nullptr, &pass.tr), 0);
  int32_t compared = 0, unflippedKept = 0;
  for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next) {
    if (v->flags & kVtxRetired || qvTrialRun(pass.f.mesh, v, &pass.p, &pass.tr) != 0) continue;
    const double best = pass.tr.score;
    unflippedKept += pass.tr.spoke % 2;
    qvTrialDrop(&pass.tr);
    for (pass.tr.only = 0; pass.tr.only < 2 * kSpokeTries; ++pass.tr.only) {
      ASSERT_GE(qvTrialRun(pass.f.mesh, v, &pass.p, &pass.tr), 0);
      if (!pass.tr.copy) continue;
      EXPECT_LE(best, std::max(pass.tr.score, pass.p.eta * pass.p.eta)) << "try " << pass.tr.only;
      ++compared;
      qvTrialDrop(&pass.tr);
    }
    pass.tr.only = -1;
  }
  EXPECT_GT(compared, 200);
  EXPECT_GT(unflippedKept, 0);
  EXPECT_GE(pass.finish(), 0);
}

TEST(Trial, QuickOpeningGivesTheTrialOfTheWholeOne) {
  // The quick trial tests the spokes only up to the shortest that passes,
  // and projects the ring only where the unfold might take the fan on: it
  // must make the trial that the star opened whole makes, the same fan with
  // the same score. On a torus, and on a finely cut cube whose flat faces
  // fold fans over concave rings, every other vertex removed first.
  const struct {
    Shape shape;
    double tol;
  } cases[] = {{torusShape(24, 12), 3.0}, {welded(refine(refine(refine(readStl("cube.stl"))))), 0.05}};
  for (const auto& c : cases) {
    TorusPass pass(c.tol, c.shape);
    pass.p.quick = true;
    int32_t i = 0;
    for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next, ++i)
      ASSERT_GE(i % 2 ? 0 : qvVtxRemove(pass.f.mesh, v, &pass.p, nullptr, &pass.tr), 0);
    const auto fan = [&] {
      std::vector<std::array<const double*, 3>> tris;
      for (qvTri* t = pass.tr.copy->tri; t; t = t->next) {
        double* h[3];
        EXPECT_EQ(qvTriCorners(t, 0, h), 0);
        std::array<const double*, 3> c3{h[0], h[1], h[2]};
        std::sort(c3.begin(), c3.end(), std::less<const double*>());
        tris.push_back(c3);
      }
      std::sort(tris.begin(), tris.end());
      return tris;
    };
    int32_t compared = 0;
    for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next) {
      if (v->flags & kVtxRetired) continue;
      pass.tr.only = 1;  // the star opened whole, for the same try
      const int32_t whole = qvTrialRun(pass.f.mesh, v, &pass.p, &pass.tr);
      ASSERT_GE(whole, 0);
      const double score = whole == 0 ? pass.tr.score : 0.0;
      const auto wholeFan = whole == 0 ? fan() : decltype(fan()){};
      if (whole == 0) qvTrialDrop(&pass.tr);
      pass.tr.only = -1;
      const int32_t quick = qvTrialRun(pass.f.mesh, v, &pass.p, &pass.tr);
      ASSERT_EQ(quick, whole);
      if (quick != 0) continue;
      EXPECT_EQ(pass.tr.score, score);
      EXPECT_EQ(fan(), wholeFan);
      qvTrialDrop(&pass.tr);
      ++compared;
    }
    EXPECT_GT(compared, 50);
    EXPECT_GE(pass.finish(), 0);
  }
}

TEST(Sweep, EndsOnlyWhenEveryVertexLeftFailsOnTheFinalMesh) {
  // The order keeps stale keys and tries a vertex again when it comes up,
  // and the quick sweep tries again, a sweep later, every vertex a removal
  // changed: when either ends, a trial of every vertex left, on the final
  // mesh, finds no spoke or scores above the limit.
  for (const bool quick : {false, true})
  for (const double tol : {0.3, 1.5}) {
    TorusPass pass(tol);
    pass.p.quick = quick;
    EXPECT_GT(qvRedSweep(pass.f.mesh, &pass.p, &pass.tr), 10) << tol;
    for (qvVtx* v = pass.f.mesh->vtx; v; v = v->next) {
      const int32_t r = qvTrialRun(pass.f.mesh, v, &pass.p, &pass.tr);
      ASSERT_GE(r, 0);
      if (r == 1) continue;  // retired, or no spoke
      EXPECT_GT(pass.tr.score, pass.p.lim2) << tol;
      qvTrialDrop(&pass.tr);
    }
    EXPECT_GE(pass.finish(), 0);
  }
}
