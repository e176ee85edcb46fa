// Assembly from facet soups: welding, doubled and degenerate facets,
// non-manifold edges and vertices, orientation and shells. Expected counts
// are hand counts, or for real models the counts of FacetMeasure's exact weld.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "measure/measure.h"
#include "soup.h"
#include "support.h"

namespace {

const double kPair[2] = {kWeldTol, kWeldTol2};

std::vector<Corners> cat(std::vector<Corners> a, const std::vector<Corners>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Shape moved(Shape s, double x, double y, double z, double sy = 1, double sz = 1) {
  for (auto& p : s.pts) p = {p[0] + x, sy * p[1] + y, sz * p[2] + z};
  return s;
}

Corners turned(Corners c) {
  for (int i = 0; i < 3; ++i) std::swap(c[3 + i], c[6 + i]);
  return c;
}

// Assembles the facets, analyses every shell; the mesh chain is freed.
ChainSum assemble(const std::vector<Corners>& facets, const double* tol, int32_t* shells = nullptr) {
  qvMesh* m = soupOf(facets);
  const int32_t n = qvMeshAssemble(m, tol);
  if (shells) *shells = n;
  ChainSum s = n > 0 ? analyse(m) : ChainSum{};
  if (n == 0) s.invalid = qvMeshValidate(m, stderr) + (m->tri || m->edg || m->vtx);
  qvMeshDeleteAll(m);
  return s;
}

const Corners kTri = {0, 0, 0, 1, 0, 0, 0, 1, 0};

// The counts of a model's exact weld, by FacetMeasure's library rather than
// by assembly.
MeasureTopo weldOf(const char* name) {
  MeasureMesh m = {};
  MeasureTopo t = {};
  EXPECT_GT(measureRead(dataPath(name).c_str(), &m), 0) << name;
  EXPECT_EQ(measureTopology(&m, &t), 0) << name;
  EXPECT_EQ(t.degenerateFacets, 0) << name;  // every facet of the file stays
  measureMeshFree(&m);
  return t;
}

// The octahedron with its corner at `from` written as `to` in the given facets.
std::vector<Corners> octahedronWith(std::initializer_list<int> facets, std::array<double, 3> from,
                                    std::array<double, 3> to) {
  auto out = cornersOf(kOctahedron);
  for (int f : facets)
    for (int k = 0; k < 9; k += 3)
      if (out[f][k] == from[0] && out[f][k + 1] == from[1] && out[f][k + 2] == from[2])
        std::copy(to.begin(), to.end(), out[f].begin() + k);
  return out;
}

// An open cone of six facets whose apex (0, 0, 1) has x = +0, +0, -0, -0, +0, +0 round the fan.
std::vector<Corners> coneOfSignedZeros() {
  std::vector<Corners> cone;
  const double sign[6] = {1, 1, -1, -1, 1, 1};
  for (int i = 0; i < 6; ++i) {
    const double a = i * std::acos(-1.0) / 3, b = (i + 1) % 6 * std::acos(-1.0) / 3;
    cone.push_back({std::copysign(0.0, sign[i]), 0, 1, std::cos(a), std::sin(a), 0, std::cos(b), std::sin(b), 0});
  }
  return cone;
}

}  // namespace

TEST(Assemble, SmallSoupsComeOutAsHandCounted) {
  const auto tetra = cornersOf(kTetra);
  struct Case {
    const char* name;
    std::vector<Corners> facets;
    std::array<long, 5> want;  // shells, vertices, edges, triangles, boundary edges
    const double* tol = nullptr;
  };
  const double e = 1e-6;
  const Case cases[] = {
      {"octahedron", cornersOf(kOctahedron), {1, 6, 12, 8, 0}},
      {"doubled facet", {kTri, kTri}, {1, 3, 3, 1, 3}},
      {"degenerate facet alone", {{0, 0, 0, 0, 0, 0, 1, 0, 0}}, {0, 0, 0, 0, 0}},
      {"degenerate facet on an edge", {kTri, {0, 0, 0, 0, 0, 0, 1, 0, 0}}, {1, 3, 3, 1, 3}},
      {"three corners in a line stay", {{0, 0, 0, 1, 0, 0, 2, 0, 0}}, {1, 3, 3, 1, 3}},
      {"four facets on an edge", cat(tetra, cornersOf(moved(kTetra, 0, 0, 0, -1, -1))), {2, 8, 12, 8, 0}},
      {"solids touching at a vertex", cat(tetra, cornersOf(moved(kTetra, 1, 0, 0))), {2, 8, 12, 8, 0}},
      {"three facets on an edge: a fin", cat(tetra, {{0, 0, 0, 1, 0, 0, 0, -1, -1}}), {2, 7, 9, 5, 3}},
      {"three bare facets on an edge", cornersOf(kThreeOnEdge), {3, 9, 9, 3, 9}},
      // A flat 3 x 3 grid, and a facet across the fan of its vertex (1, 1)
      // to (2, 1) and (1, 2): on each of those two edges the grid's facets
      // are of one sheet and pair, so the fan stays whole and (1, 1) one
      // vertex; the facet across comes off alone.
      {"facet across a fan", [] {
         std::vector<Corners> f;
         for (double x = 0; x < 3; ++x)
           for (double y = 0; y < 3; ++y) {
             f.push_back({x, y, 0, x + 1, y, 0, x + 1, y + 1, 0});
             f.push_back({x, y, 0, x + 1, y + 1, 0, x, y + 1, 0});
           }
         f.push_back({1, 1, 0, 2, 1, 0, 1, 2, 0});
         return f;
       }(), {2, 19, 36, 19, 15}},
      {"moebius strip", cornersOf(moebiusShape(5)), {1, 10, 20, 10, 10}},
      // A long list on one edge, which the steps group by sorting instead of pairing.
      {"book of ten pages on one edge, each page twice", [] {
         std::vector<Corners> f;
         for (int i = 0; i < 20; ++i) f.push_back({0, 0, 0, 1, 0, 0, 0.5, std::cos(i / 2), std::sin(i / 2)});
         return f;
       }(), {10, 30, 30, 10, 30}},
      // Vertex (0, 1, 0) written with x = -0.0 in the two facets on its edge
      // to (0, 0, 1): without a tolerance two vertices, and the two edges
      // that cross between them doubled.
      {"signed zeros apart", octahedronWith({0, 1}, {0, 1, 0}, {-0.0, 1, 0}), {1, 7, 14, 8, 4}},
      {"signed zeros within a tolerance", octahedronWith({0, 1}, {0, 1, 0}, {-0.0, 1, 0}), {1, 6, 12, 8, 0}, kPair},
      // The sort sees all six apexes as equal and may interleave the signs;
      // still the +0 apexes are one vertex, the -0 ones another. The two arcs
      // share no spoke, only the ring vertices where they meet, which split.
      {"cone apex of both signs", coneOfSignedZeros(), {2, 10, 14, 6, 10}},
      // The solid output's pair: linear 1e-6, squared 1e-12.
      {"0.5e-6 apart in x", octahedronWith({0}, {0, 0, 1}, {0.5 * e, 0, 1}), {1, 6, 12, 8, 0}, kPair},
      {"0.8e-6 in x, y, z: squared 1.92e-12", octahedronWith({0}, {0, 0, 1}, {0.8 * e, 0.8 * e, 1 + 0.8 * e}), {1, 7, 14, 8, 4}, kPair},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int32_t shells = -9;
    const ChainSum s = assemble(c.facets, c.tol, &shells);
    EXPECT_EQ(shells, c.want[0]);
    EXPECT_EQ((std::array<long, 5>{s.shells, s.nVtx, s.nEdg, s.nTri, s.nBnd}), c.want);
    EXPECT_EQ(s.bad, 0);
    EXPECT_EQ(s.invalid, 0);
  }
}

// Four facets on one edge, alternating in sense, pair into two sheets that
// also meet round both ends of the edge, so no vertex split tells them
// apart: they must come out as pieces, not as two edges on the same ends.
TEST(Assemble, SheetsThatMeetRoundBothEndsOfAnEdgeAreNotPaired) {
  int32_t shells = 0;
  const ChainSum s = assemble(readStl("pinched-edge.stl"), nullptr, &shells);
  EXPECT_GT(shells, 0);
  EXPECT_EQ(s.nTri, 11);
  EXPECT_EQ(s.bad, 0);
  EXPECT_EQ(s.invalid, 0);
}

TEST(Assemble, ToleranceChainMergesIntoTheFirstVertexAndEmptyIsNoShell) {
  // P0, P1, P2 in x order, 0.8 apart with a tolerance of 1: P2 is 1.6 from P0
  // and still joins it through P1, which keeps its coordinates unaveraged.
  const std::vector<Corners> facets = {{0, 0, 0, 10, 20, 0, 10, 20, 10},
                                       {0.8, 0, 0, 10, 20, 10, 10, 30, 10},
                                       {1.6, 0, 0, 10, 30, 10, 10, 30, 0}};
  const double tol[2] = {1.0, 1.0};
  qvMesh* m = soupOf(facets);
  ASSERT_EQ(qvMeshAssemble(m, tol), 1);
  EXPECT_EQ(validateText(m), "");
  EXPECT_EQ(qvVtxCount(m->vtx) * 100 + qvEdgCount(m->edg), 507);
  for (qvVtx* v = m->vtx; v; v = v->next) {
    const double* p = qvVtxXyz(v);
    EXPECT_TRUE(p[0] > 5 || (p[0] == 0.0 && p[1] == 0.0 && p[2] == 0.0));
  }
  qvMeshDeleteAll(m);
  EXPECT_EQ(assemble(facets, nullptr).shells, 3);  // without a tolerance: corners only
  qvMesh* empty = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
  EXPECT_EQ(qvMeshAssemble(empty, nullptr), 0);
  qvMeshFree(empty);
}

TEST(Assemble, OrientsTurnedFacetsAndPutsBoundaryFirstAlongItsTriangle) {
  auto facets = cornersOf(kOctahedron);
  for (int f : {1, 4, 6}) facets[f] = turned(facets[f]);
  Shape fan = kOpenFan;
  std::swap(fan.faces[1][1], fan.faces[1][2]);
  for (const auto& soup : {facets, cornersOf(fan)}) {
    qvMesh* m = soupOf(soup);
    ASSERT_EQ(qvMeshAssemble(m, nullptr), 1);
    EXPECT_EQ(validateText(m), "");
    EXPECT_EQ(qvOrientCheck(m), 0);
    qvEdg* e = m->edg;
    for (int32_t i = 0, nBnd = qvBndCount(m); i < nBnd; ++i, e = e->next)
      for (qvTri* t = m->tri; t; t = t->next) {
        const int32_t slot = qvTriEdgeSlot(t, e);
        if (slot >= 0) {
          EXPECT_TRUE(t->adj[slot] == nullptr && qvTriEdgeRev(t, slot) == 0);
        }
      }
    qvMeshDeleteAll(m);
  }
}

TEST(Assemble, RealModelsMatchAnIndependentWeld) {
  for (const char* name : {"tetrahedron.stl", "cube.stl", "triangle.stl", "bunny.stl", "torus.stl",
                           "gearwheel.stl", "plate-hole.stl"}) {
    SCOPED_TRACE(name);
    const MeasureTopo w = weldOf(name);
    ASSERT_EQ(w.nonManifoldEdges, 0);
    ASSERT_EQ(w.shells, 1);
    int32_t shells = 0;
    const ChainSum s = assemble(readStl(name), nullptr, &shells);
    EXPECT_EQ(shells, 1);
    EXPECT_EQ(s.bad, 0);
    EXPECT_EQ(s.invalid, 0);
    EXPECT_EQ((std::array<long, 4>{s.nVtx, s.nEdg, s.nTri, s.nBnd}),
              (std::array<long, 4>{w.vertices, w.edges, w.facets, w.boundaryEdges}));
  }
}

// A list already in the order of its shell flood, as qvFloodAll leaves it on
// arrays, splits into the shells that the flood on the records gives: the
// same triangles, edges and vertices in the same order in each, with no
// triangle moved. The soup interleaves three models, so that the flood
// reorders it throughout.
TEST(Assemble, ShellsOfAFloodedListMatchTheFloodOnTheRecords) {
  const std::vector<Corners> models[3] = {readStl("torus.stl"), readStl("bunny.stl"), readStl("tetrahedron.stl")};
  std::vector<Corners> soup;
  for (size_t i = 0; soup.size() < models[0].size() + models[1].size() + models[2].size(); ++i)
    for (int s = 0; s < 3; ++s)
      if (i < models[s].size()) {
        Corners c = models[s][i];
        for (int k = 0; k < 9; k += 3) c[k] += 100.0 * s;
        soup.push_back(c);
      }
  // Per shell: corners of the triangles, ends of the edges, vertices, in list order.
  using Lists = std::vector<std::vector<double>>;
  auto listsOf = [](const qvMesh* chain) {
    Lists out;
    for (const qvMesh* m = chain; m; m = m->next) {
      std::vector<double> tri, edg, vtx;
      for (const qvTri* t = m->tri; t; t = t->next) {
        double* c[3];
        EXPECT_EQ(qvTriCoords(t, 0, c), 0);
        for (const double* p : c) tri.insert(tri.end(), p, p + 3);
      }
      for (const qvEdg* e = m->edg; e; e = e->next)
        for (const double* p : e->ends) edg.insert(edg.end(), p, p + 3);
      for (const qvVtx* v = m->vtx; v; v = v->next) vtx.insert(vtx.end(), v->dat, v->dat + 3);
      out.insert(out.end(), {tri, edg, vtx});
    }
    return out;
  };
  Lists lists[2];
  for (int flooded = 0; flooded < 2; ++flooded) {
    qvMesh* m = soupOf(soup);
    ASSERT_EQ(qvMeshStitch(m, nullptr), 0);
    if (flooded) {
      std::vector<qvTri*> order;
      for (qvTri* t = m->tri; t; t = t->next) {
        t->tag = static_cast<int32_t>(order.size());
        order.push_back(t);
      }
      const int32_t n = static_cast<int32_t>(order.size());
      std::vector<int32_t> adj(3 * order.size()), next(order.size()), prev(order.size());
      for (int32_t i = 0; i < n; ++i) {
        for (int k = 0; k < 3; ++k) adj[3 * i + k] = order[i]->adj[k] ? order[i]->adj[k]->tag : -1;
        next[i] = i + 1 < n ? i + 1 : -1;
        prev[i] = i - 1;
      }
      for (qvTri* t : order) t->tag = 0;
      std::unique_ptr<bool[]> reached(new bool[order.size()]());
      int32_t head = 0;
      ASSERT_EQ(qvFloodAll(adj.data(), next.data(), prev.data(), &head, reached.get()), 3);
      std::vector<qvTri*> byFlood;
      for (int32_t t = head; t >= 0; t = next[t]) byFlood.push_back(order[t]);
      m->tri = qvTriPlaceInOrder(byFlood.data(), n);
      ASSERT_NE(m->tri, nullptr);
    }
    ASSERT_EQ(flooded ? qvMeshShellsFlooded(m, qvVtxClone) : qvMeshShells(m, qvVtxClone), 3);
    lists[flooded] = listsOf(m);
    for (const qvMesh* s = m; s; s = s->next) EXPECT_EQ(qvMeshValidate(s, stderr), 0);
    qvMeshDeleteAll(m);
  }
  EXPECT_EQ(lists[0].size(), 9u);
  EXPECT_EQ(lists[0], lists[1]);
}
