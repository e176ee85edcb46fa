// Reading, exact welding, the subset check and the topology counts, against
// hand counts of small bodies and of the real models in tests/data.
#include "fixtures.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

using fixture::Soup;
using fixture::Welded;

// Hand counts. The torus is a 64 x 32 grid (V - E + F = 0). Two 10-cubes with
// 4 x 4 grids per face share the edge x = y = 10 cut into four: 2 * 98 - 5
// vertices, 2 * 288 - 4 edges, four edges on four facets, two shells, each
// closed in itself.
TEST(Topology, CountsOnRealModels) {
  // facets, vertices, edges, shells, closed shells, boundary and non-manifold
  // edges, degenerate facets, area and volume (checked when not negative)
  const struct Counts {
    const char *file;
    int64_t f, v, e, shells, closed, boundary, nonManifold, degenerate;
    double area, volume;
  } table[] = {
      {"cube.stl", 12, 8, 18, 1, 1, 0, 0, 0, 24, 8},
      {"tetrahedron.stl", 4, 4, 6, 1, 1, 0, 0, 0, -1, -1},
      {"torus.stl", 4096, 2048, 6144, 1, 1, 0, 0, 0, -1, -1},
      {"two-cubes-edge.stl", 384, 191, 572, 2, 2, 0, 4, 0, 1200, 2000},
      {"triangle.stl", 1, 3, 3, 1, 0, 3, 0, 0, 0.5, -1},
  };
  for (const Counts &c : table) {
    SCOPED_TRACE(c.file);
    MeasureMesh mesh;
    MeasureTopo t;
    ASSERT_EQ(measureRead(dataPath(c.file).c_str(), &mesh), c.f);
    ASSERT_EQ(measureTopology(&mesh, &t), 0);
    EXPECT_EQ((std::array<int64_t, 9>{t.facets, t.vertices, t.edges, mesh.edgeCount, t.shells, t.closedShells,
                                      t.boundaryEdges, t.nonManifoldEdges, t.degenerateFacets}),
              (std::array<int64_t, 9>{c.f, c.v, c.e, c.e, c.shells, c.closed, c.boundary, c.nonManifold,
                                      c.degenerate}));
    if (c.area >= 0) {
      EXPECT_NEAR(t.area, c.area, 1e-9);
    }
    if (c.volume >= 0) {
      EXPECT_NEAR(t.volume, c.volume, 1e-9);
    }
    measureMeshFree(&mesh);
  }
}

// Hand counts of built soups: the 5 x 5 unit sheet with 20 boundary edges;
// three facets on one edge, where none joins, so three open shells; a lone
// facet with a repeated corner; nothing. A facet with a repeated corner and one
// with three collinear corners are degenerate; thin but real facets are not,
// also when double arithmetic rounds their area to zero: (1, 1), (0, 0),
// (2^-60, 0) has area 2^-61.
TEST(Topology, CountsOnBuiltSoupsFinsAndDegenerateFacets) {
  const float a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0}, d[3] = {0, -1, 0},
              e[3] = {0, 0, 1}, two[3] = {2, 2, 0}, thin[3] = {0.5f, 1e-30f, 0},
              one[3] = {1, 1, 0}, tiny[3] = {0x1p-60f, 0, 0};
  Soup fins;
  fixture::tri(fins, a, b, c);
  fixture::tri(fins, b, a, d);
  fixture::tri(fins, a, b, e);
  const struct {
    Soup soup;
    // vertices, edges, shells, closed shells, boundary, non-manifold, degenerate, box max x
    std::array<int64_t, 8> counts;
  } table[] = {
      {fixture::sheet(5), {36, 3 * 25 + 2 * 5, 1, 0, 20, 0, 0, 5}},
      {fins, {5, 7, 3, 0, 6, 1, 0, 1}},
      {Soup{0, 0, 0, 0, 0, 0, 1, 0, 0}, {2, 1, 1, 0, 1, 0, 1, 1}},
      {Soup{}, {0, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto &row : table) {
    Welded w(row.soup);
    const MeasureTopo &t = w.topo;
    EXPECT_EQ(w.status, 0);
    EXPECT_EQ((std::array<int64_t, 8>{t.vertices, t.edges, t.shells, t.closedShells, t.boundaryEdges,
                                      t.nonManifoldEdges, t.degenerateFacets, int64_t(t.box[3])}),
              row.counts) << row.soup.size() / 9 << " facets";
  }
  Soup bad;
  fixture::tri(bad, a, a, b);
  fixture::tri(bad, a, one, two);
  fixture::tri(bad, a, thin, b);
  fixture::tri(bad, one, a, tiny);
  Welded z(bad);
  EXPECT_EQ(z.topo.degenerateFacets, 2);
  EXPECT_EQ(z.topo.edges, 8);
}

// The subset check is bitwise: one float step, or a zero of the other sign, is
// a different vertex. The corner (1, 1, 0) of the square, welded third, is
// replaced in the original, the reduced file or both.
TEST(Subset, BitwiseMembership) {
  const float up = std::nextafter(1.0f, 2.0f);
  struct Case {
    float original[3], reduced[3];
    int64_t missing;
  } table[] = {{{1, 1, 0}, {1, 1, 0}, 0},
               {{1, 1, 0}, {up, 1, 0}, 1},
               {{1, 1, 0}, {1, 1, -0.0f}, 1},
               {{1, 1, -0.0f}, {1, 1, 0}, 1},
               {{1, 1, -0.0f}, {1, 1, -0.0f}, 0}};
  for (const Case &c : table) {
    Soup original = fixture::square(0), reduced = original;
    for (int i = 0; i < 3; ++i) {
      original[6 + i] = original[12 + i] = c.original[i];
      reduced[6 + i] = reduced[12 + i] = c.reduced[i];
    }
    Welded o(original), r(reduced);
    int64_t first = -2;
    EXPECT_EQ(measureSubset(&o.mesh, &r.mesh, &first), c.missing) << c.reduced[0];
    EXPECT_EQ(first, c.missing ? 2 : -1);
  }
}

TEST(Read, BothFormatsAndEveryKindOfBadFile) {
  const std::string ascii = tempPath("cube.stl");
  writeBytes(ascii, asciiStl(boxFacets({-1, -1, -1}, {1, 1, 1})));
  MeasureMesh mesh;
  MeasureTopo t;
  ASSERT_EQ(measureRead(ascii.c_str(), &mesh), 12);
  ASSERT_EQ(measureTopology(&mesh, &t), 0);
  EXPECT_EQ(t.closedShells, 1);
  EXPECT_NEAR(t.volume, 8, 1e-12);
  measureMeshFree(&mesh);

  const std::string nan = tempPath("nan.stl"), empty = tempPath("empty.stl");
  std::vector<Facet> s = boxFacets({0, 0, 0}, {1, 1, 1});
  s[4][4] = std::numeric_limits<float>::quiet_NaN();
  writeBytes(nan, binaryStl(s));
  fixture::writeStl(empty, Soup{});
  EXPECT_EQ(measureRead(nan.c_str(), &mesh), -1);
  EXPECT_EQ(mesh.xyz, nullptr);
  EXPECT_EQ(measureRead(dataPath("broken-count-field.stl").c_str(), &mesh), -1);
  EXPECT_EQ(measureRead(tempPath("missing.stl").c_str(), &mesh), -2);
  EXPECT_EQ(measureRead(empty.c_str(), &mesh), 0);
  EXPECT_EQ(mesh.vertexCount, 0);
  measureMeshFree(&mesh);
}
