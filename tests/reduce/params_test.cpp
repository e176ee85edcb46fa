// The engine's data form and the valences, on the octahedron: preparation
// keeps every coordinate, enters each vertex at the last triangle that touches
// it, refuses what it can't handle without changing a vertex, and can be
// undone to a mesh the validator passes.
#include <gtest/gtest.h>

#include <map>

#include "stars.h"

TEST(Prep, FirstTurnsEveryVertexAndPassOnlyNewOnes) {
  Fixture f(kOctahedron);
  ASSERT_EQ(validateText(f.mesh), "");
  std::map<qvVtx*, qvTri*> last;  // the last triangle of the list at each vertex
  for (qvTri* t = f.mesh->tri; t; t = t->next) {
    qvVtx* c[3];
    ASSERT_EQ(qvTriCornerVtx(t, 0, c), 0);
    for (qvVtx* x : c) last[x] = t;
  }
  ASSERT_EQ(qvRedPrepFirst(f.mesh), 6);
  for (size_t i = 0; i < f.v.size(); ++i) {
    qvVtx* v = f.v[i];
    EXPECT_EQ(v->flags & (kVtxHasParam | kVtxHasNormal), kVtxHasParam);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(qvVtxXyz(v)[k], kOctahedron.pts[i][k]);
    EXPECT_EQ(*qvScoreOf(v), kRedScoreNone);
    EXPECT_TRUE(v->link == last[v] && v->aux == last[v]);
  }
  *qvScoreOf(f.v[0]) = 0.25;
  EXPECT_EQ(qvRedPrepPass(f.mesh), 0);  // all in the form already: scores stay
  EXPECT_EQ(*qvScoreOf(f.v[0]), 0.25);
  EXPECT_EQ(qvRedPrepFirst(f.mesh), 6);  // the first pass rewrites every one
  EXPECT_EQ(*qvScoreOf(f.v[0]), kRedScoreNone);
  EXPECT_EQ(qvVtxXyz(f.v[0])[0], 1.0);
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");
}

TEST(Prep, RefusesWithoutChangingAVertex) {
  Fixture f(kOctahedron);
  f.t[2]->flags |= kTriMarkVisit;  // a mark left on a triangle
  EXPECT_EQ(qvRedPrepFirst(f.mesh), -1);
  f.t[2]->flags &= ~kTriMarkVisit;
  f.v[3]->ndat = 5;  // too short for the engine's form
  EXPECT_EQ(qvRedPrepFirst(f.mesh), -1);
  f.v[3]->ndat = 6;
  f.mesh->vtx = qvVtxConcat(f.mesh->vtx, qvVtxNew(kVtxHasNormal, nullptr));  // touches nothing
  EXPECT_EQ(qvRedPrepPass(f.mesh), -1);
  for (qvVtx* v = f.mesh->vtx; v; v = v->next)
    EXPECT_TRUE(!(v->flags & kVtxHasParam) && !v->link && !v->aux);
}

TEST(Valence, FillCountsFansOfTheMarkedStarAndClearZeroes) {
  Fixture f(kOctahedron);
  ASSERT_EQ(qvRedPrepFirst(f.mesh), 6);
  ASSERT_EQ(markStar(f, 4), 4);
  f.v[0]->tag = 9;  // a tag already in force is kept
  EXPECT_EQ(qvValenceFill(f.mesh, kMarkSet.tri), 4);  // the hub and three more ring vertices
  for (int i = 0; i < 6; ++i) EXPECT_EQ(f.v[i]->tag, i == 0 ? 9 : (i == 5 ? 0 : 4)) << i;
  EXPECT_EQ(qvValenceClear(f.mesh), 8);
  for (qvVtx* v : f.v) EXPECT_EQ(v->tag, 0);
  unmarkStar(f.mesh);
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");

  // The ring vertices of an open cone have open fans: failure, no tag left.
  Fixture open(kOpenCone);
  ASSERT_EQ(qvRedPrepFirst(open.mesh), 5);
  ASSERT_EQ(markStar(open, 0), 4);
  EXPECT_EQ(qvValenceFill(open.mesh, kMarkSet.tri), -1);
  for (qvVtx* v : open.v) EXPECT_EQ(v->tag, 0);
}
