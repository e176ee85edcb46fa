// Topology analysis, loop walks and caps on small surfaces built in code,
// against hand counts: V - E + T, boundary edges, loops and genus.
#include <gtest/gtest.h>

#include <cmath>

#include "soup.h"

namespace {

// Counts, loops, characteristic, orientation, genus and code, in qvTopo order.
using TopoRow = std::array<int32_t, 9>;

TopoRow rowOf(const qvTopo& t) {
  return {t.nVtx, t.nEdg, t.nTri, t.nBnd, t.nLoop, t.euler, t.orient, t.genus, t.result};
}

Shape withFacesTurned(Shape s, std::initializer_list<int> faces) {
  for (int i : faces) std::swap(s.faces[i][1], s.faces[i][2]);
  return s;
}

const Shape kTriangle = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{0, 1, 2}}};

// Three triangles that meet only at vertex 0.
const Shape kLeaves = {{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {-1, 0, 0}, {-1, -1, 0}, {0, 1, 1}, {0, 0, 1}},
                       {{0, 1, 2}, {0, 3, 4}, {0, 5, 6}}};

// Moves a cap's records into the mesh, as the callers that keep a cap do.
void takeCap(qvMesh* mesh, qvMesh* cap) {
  qvMeshPrependLists(mesh, cap);
  qvMeshFree(cap);
}

// The vertex list as point numbers, then the edge list as pairs of them.
std::vector<int> listOrder(const Fixture& f) {
  auto number = [&f](const double* h) {
    for (size_t i = 0; i < f.v.size(); ++i)
      if (f.v[i]->dat == h) return static_cast<int>(i);
    return -1;
  };
  std::vector<int> order;
  for (const qvVtx* v = f.mesh->vtx; v; v = v->next) order.push_back(number(v->dat));
  for (const qvEdg* e = f.mesh->edg; e; e = e->next)
    for (const double* h : e->ends) order.push_back(number(h));
  return order;
}

}  // namespace

TEST(Topo, ClassifiesSurfacesAsHandCounted) {
  struct Case {
    const char* name;
    Shape shape;
    TopoRow want;  // nVtx nEdg nTri nBnd nLoop euler orient genus code
  };
  const Case cases[] = {
      {"octahedron", kOctahedron, {6, 12, 8, 0, 0, 2, 0, 0, 0}},
      {"torus", torusShape(8, 4), {32, 96, 64, 0, 0, 0, 0, 1, 0}},
      {"open cone", kOpenCone, {5, 8, 4, 4, 1, 1, 0, 0, 0}},
      // Two closed pieces: the characteristic 4 stays in nBnd, euler stays 0.
      {"two tetrahedra", joined(kTetra, kTetra, 5), {8, 12, 8, 4, 0, 0, 0, 0, 1}},
      {"two triangles", joined(kTriangle, kTriangle, 5), {6, 6, 2, 6, 2, 2, 0, 0, 5}},
      {"moebius", moebiusShape(5), {10, 20, 10, 10, 1, 0, 3, 1, 0}},
      {"bow tie: figure of eight", kBowTie, {5, 6, 2, 6, 1, 1, 0, 0, 0}},
      {"turned faces", withFacesTurned(kOctahedron, {0, 5}), {6, 12, 8, 0, 0, 2, 2, 0, 0}},
      // Inconsistent, and the flood finds two pieces.
      {"two tubes", joined(tubeShape(6, 1, 2), withFacesTurned(tubeShape(6, 1, 2), {3}), 9),
       {24, 48, 24, 0, 0, 0, 2, 0, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f(c.shape);
    ASSERT_EQ(qvMeshTopoMake(f.mesh), c.want[8] == 0 ? 0 : -1);
    ASSERT_NE(f.mesh->topo, nullptr);
    EXPECT_EQ(rowOf(*f.mesh->topo), c.want);
    EXPECT_EQ(qvMeshTopoMake(f.mesh), -1);  // a record exists already
    EXPECT_EQ(validateText(f.mesh), "");
    if (c.want[6] == 2 && c.want[8] == 0) {
      EXPECT_EQ(qvOrientCheck(f.mesh), 0);  // turned for good
    }
  }
}

TEST(Topo, OddBoundaryVertexFailsEveryWalkWithoutTrace) {
  // Three triangles on one edge record, only two of them linked: vertices 0
  // and 1 then have three boundary edges each.
  Fixture f(kThreeOnEdge);
  qvEdg* own = qvTriFarEdge(f.t[2], f.h(4));  // face 2's own 0-1 edge
  f.t[2]->edg[qvTriEdgeSlot(f.t[2], own)] = qvTriFarEdge(f.t[0], f.h(2));
  f.mesh->edg = qvEdgDelete(f.mesh->edg, own);
  // Face 2 last, so that the edge is first reached from a linked face.
  f.mesh->tri = qvTriConcat(qvTriUnlinkList(f.mesh->tri, f.t[2]), f.t[2]);
  const std::string before = validateText(f.mesh);  // the edge of three faces
  qvCensus c;
  EXPECT_EQ(qvTopoMark(f.mesh, kWalkVtxBit, kWalkEdgBit, 0, kWalkSwapBit, &c), -1);
  EXPECT_EQ(c.nOdd, 2);
  EXPECT_EQ(qvLoopCount(f.mesh, nullptr), -1);
  int32_t n = 5;
  EXPECT_EQ(qvCapBuild(f.mesh, &n), nullptr);
  EXPECT_EQ(n, -1);
  qvTopo t{};
  EXPECT_EQ(qvMeshTopo(f.mesh, &t), 4);
  EXPECT_EQ(validateText(f.mesh), before);  // no mark, working field or rim bit left
  for (qvEdg* e = f.mesh->edg; e; e = e->next) EXPECT_EQ(e->flags & kEdgRim, 0u);
}

TEST(Cap, ClosesEveryLoopAndComesOffAgain) {
  struct Case {
    const char* name;
    Shape shape;
    int32_t loops, extra;          // boundary loops, extra passes through pinched vertices
    int32_t euler, orient, genus;  // of the capped surface
  };
  const Case cases[] = {
      {"open cone", kOpenCone, 1, 0, 2, 0, 0},
      {"tube: two loops", tubeShape(6, 1, 2), 2, 0, 2, 0, 0},
      {"torus with a hole", [] { Shape s = torusShape(6, 4); s.faces.pop_back(); return s; }(), 1, 0, 0, 0, 1},
      {"moebius: undirected, a projective plane", moebiusShape(5), 1, 0, 1, 3, 1},
      {"bow tie: one walk through the pinch", kBowTie, 1, 1, 2, 0, 0},
      // Three leaves that meet only at vertex 0: one circuit through it three
      // times, a spoke for each passage.
      {"three leaves", kLeaves, 1, 2, 2, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f(c.shape);
    qvTopo open{};
    ASSERT_EQ(qvMeshTopo(f.mesh, &open), 0);
    if (open.orient == 0) {
      // The analysis leaves the lists as the loop count on the records does.
      Fixture g(c.shape);
      ASSERT_EQ(qvLoopCount(g.mesh, nullptr), c.loops);
      EXPECT_EQ(listOrder(f), listOrder(g));
    }
    {
      // So does the plain marking pass as the pass and its undoing, and it
      // leaves a pinched boundary alone.
      Fixture p(c.shape), q(c.shape);
      EXPECT_EQ(qvTopoMarkPlain(p.mesh), c.extra == 0 ? 1 : 0);
      if (c.extra == 0) {
        EXPECT_GE(qvTopoMark(q.mesh, kWalkVtxBit, kWalkEdgBit, 0, kWalkSwapBit, nullptr), 0);
        qvTopoUnmark(q.mesh, kWalkVtxBit, kWalkEdgBit, kWalkSwapBit);
      }
      EXPECT_EQ(listOrder(p), listOrder(q));
      EXPECT_EQ(validateText(p.mesh), "");
    }
    int32_t extra = -9;
    EXPECT_EQ(qvLoopCount(f.mesh, &extra), c.loops);
    EXPECT_EQ(extra, c.extra);
    int32_t n = -9;
    qvMesh* cap = qvCapBuild(f.mesh, &n);
    ASSERT_NE(cap, nullptr);
    EXPECT_EQ(n, c.loops);
    // A hub per loop, a spoke and a triangle for each passage round it.
    EXPECT_EQ((std::array<int32_t, 3>{qvVtxCount(cap->vtx), qvEdgCount(cap->edg), qvTriCount(cap->tri)}),
              (std::array<int32_t, 3>{c.loops, open.nBnd, open.nBnd}));
    takeCap(f.mesh, cap);
    EXPECT_EQ(validateText(f.mesh), "");
    EXPECT_EQ(qvBndCount(f.mesh), 0);
    if (c.orient == 0) {
      EXPECT_EQ(qvOrientCheck(f.mesh), 0);  // caps run against their rims
    }
    qvTopo closed{};
    EXPECT_EQ(qvMeshTopo(f.mesh, &closed), 0);
    EXPECT_EQ(closed.euler, c.euler);
    EXPECT_EQ(closed.orient, c.orient);
    EXPECT_EQ(closed.genus, c.genus);

    EXPECT_EQ(qvCapRemove(f.mesh), open.nBnd);
    EXPECT_EQ(validateText(f.mesh), "");
    qvTopo again{};
    EXPECT_EQ(qvMeshTopo(f.mesh, &again), 0);
    EXPECT_EQ(rowOf(again), rowOf(open));
  }
}

TEST(Close, AcceptsCapsUnderTheAreaLimitOnly) {
  // Regular octagons: radius 1 gives area 2 sqrt 2, radius 2 four times that.
  Fixture f(tubeShape(8, 1, 2));
  const double limit = 5.0;
  EXPECT_EQ(qvMeshClose(f.mesh, &limit), 1);
  ASSERT_NE(f.mesh->topo, nullptr);
  const qvTopo& t = *f.mesh->topo;
  EXPECT_EQ(rowOf(t), (TopoRow{17, 40, 24, 8, 1, 1, 0, 0, 0}));
  EXPECT_EQ(validateText(f.mesh), "");
  EXPECT_EQ(qvMeshClose(f.mesh, nullptr), 1);
  EXPECT_EQ(rowOf(*f.mesh->topo), (TopoRow{18, 48, 32, 0, 0, 2, 0, 0, 0}));
  EXPECT_EQ(qvMeshClose(f.mesh, nullptr), 0);
  EXPECT_EQ(validateText(f.mesh), "");
  int32_t n = -9;
  EXPECT_EQ(qvCapBuild(f.mesh, &n), nullptr);  // nothing left to cap
  EXPECT_EQ(n, 0);

  Fixture two(joined(kTriangle, kTriangle, 5));
  EXPECT_EQ(qvMeshClose(two.mesh, nullptr), -1);  // code 5: not one surface
  EXPECT_EQ(qvTriCount(two.mesh->tri), 2);
  EXPECT_EQ(validateText(two.mesh), "");
}
