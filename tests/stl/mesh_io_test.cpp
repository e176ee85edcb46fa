// Facets into unassembled meshes and back: one triangle per facet on three
// vertices of its own, in reading order, coordinates widened exactly; written
// with new normals, little-endian records and the exact ASCII statement. The
// runs built from pointers and keys are judged through the drivers, which
// write the same bytes by either route.
#include "stl_files.h"

#include "mesh/qvMesh.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

namespace {

// The corners of each triangle in list order; releases the mesh.
std::vector<Facet> meshFacets(qvMesh *mesh) {
  std::vector<Facet> facets;
  for (const qvTri *t = mesh ? mesh->tri : nullptr; t; t = t->next) {
    double *corner[3];
    EXPECT_EQ(qvTriCoords(t, 0, corner), 0);
    Facet &facet = facets.emplace_back();
    for (int i = 0; i < 9; ++i) facet[i] = static_cast<float>(corner[i / 3][i % 3]);
  }
  EXPECT_EQ(mesh ? qvVtxCount(mesh->vtx) : 0, 3 * static_cast<int>(facets.size()));
  qvMeshFree(mesh);
  return facets;
}

qvMesh *meshOf(const std::vector<Facet> &facets) {
  const std::string path = tempPath("facets.stl");
  writeBytes(path, binaryStl(facets));
  int64_t status;
  return stlReadMesh(path.c_str(), &status);
}

// Writes mesh with the writer into a file, releases the mesh, returns the bytes.
std::string written(int (*writer)(const qvMesh *, int, FILE *), qvMesh *mesh) {
  const std::string path = tempPath("mesh.out");
  FILE *file = std::fopen(path.c_str(), "wb");
  EXPECT_EQ(writer(mesh, 0, file), qvTriCount(mesh->tri));
  std::fclose(file);
  qvMeshFree(mesh);
  return fileBytes(path);
}

TEST(MeshFromFacets, WholeFileReadsInReadingOrderOrFailsNegative) {
  const std::vector<Facet> ramp = rampFacets(5);
  const struct {
    std::string bytes;
    int64_t status;  // -9: any negative status, and no mesh
    std::vector<Facet> facets;
  } cases[] = {
      {binaryStl(ramp), 5, ramp},
      {asciiStl(ramp), 5, ramp},
      {"solid empty\nendsolid empty\n", 0, {}},
      {binaryStl({}), -9, {}},
      {asciiStl(ramp).substr(0, 300), -9, {}},
  };
  const std::string path = tempPath("read-mesh.stl");
  for (const auto &c : cases) {
    writeBytes(path, c.bytes);
    int64_t status = 99;
    qvMesh *mesh = stlReadMesh(path.c_str(), &status);
    EXPECT_EQ(mesh != nullptr, c.status >= 0) << c.bytes.size();
    EXPECT_TRUE(c.status >= 0 ? status == c.status : status < 0) << c.bytes.size();
    EXPECT_EQ(meshFacets(mesh), c.facets) << c.bytes.size();
  }
}

TEST(StlWriteMesh, NormalIsUnitOrZeroByTheCrossProductsLength) {
  const struct {
    Facet facet;
    float normal[3];
  } cases[] = {
      {{0, 0, 0, 2, 0, 0, 0, 3, 0}, {0, 0, 1}},
      {{0, 0, 0, 0, 3, 0, 2, 0, 0}, {0, 0, -1}},
      {{1, 1, 1, 1, 1, 1, 5, 5, 5}, {0, 0, 0}},             // zero area
      {{0, 0, 0, 0, 1e-3f, 0, 0, 0, 0.9e-3f}, {0, 0, 0}},  // cross 0.9e-06
      {{0, 0, 0, 0, 1e-3f, 0, 0, 0, 1.1e-3f}, {1, 0, 0}},  // cross 1.1e-06
  };
  for (const auto &c : cases) {
    const std::string bytes = written(stlWriteMeshBinary, meshOf({c.facet}));
    ASSERT_EQ(bytes.size(), 50u);
    float record[12];  // little-endian, as the tests' host is
    std::memcpy(record, bytes.data(), sizeof record);
    for (int i = 0; i < 12; ++i) EXPECT_NEAR(record[i], i < 3 ? c.normal[i] : c.facet[i - 3], 1e-6) << i;
    EXPECT_EQ(bytes.substr(48), std::string(2, '\0'));
  }
  EXPECT_EQ(written(stlWriteMeshAscii, meshOf({{-1.5f, 0, 2, 1000, 0, 2, -1.5f, 0.25f, 2}})),
            "facet normal  0.000000  0.000000  1.000000\n"
            "\touter loop\n"
            "\t\tvertex     -1.500000     0.000000     2.000000\n"
            "\t\tvertex   1000.000000     0.000000     2.000000\n"
            "\t\tvertex     -1.500000     0.250000     2.000000\n"
            "\tendloop\n"
            "endfacet\n");
}


// Every record of a chain, by place: each shell's vertices (flags and data
// bits), edges (flags, ends as vertex places) and triangles (flags, edges and
// neighbours as places), in list order.
std::vector<std::string> chainRecords(const qvMesh *chain) {
  std::vector<std::string> out;
  for (const qvMesh *m = chain; m; m = m->next) {
    std::map<const void *, int> place;
    int i = 0;
    for (const qvVtx *v = m->vtx; v; v = v->next) place[v->dat] = i++;
    for (const qvEdg *e = m->edg; e; e = e->next) place[e] = i++;
    for (const qvTri *t = m->tri; t; t = t->next) place[t] = i++;
    auto at = [&](const void *p) { return p ? (place.count(p) ? place[p] : -2) : -1; };
    out.push_back("mesh " + std::to_string(m->flags));
    for (const qvVtx *v = m->vtx; v; v = v->next)
      out.push_back("v " + std::to_string(v->flags) + " " +
                    std::string(reinterpret_cast<const char *>(v->dat), sizeof(double) * v->ndat));
    for (const qvEdg *e = m->edg; e; e = e->next)
      out.push_back("e " + std::to_string(e->flags) + " " + std::to_string(at(e->ends[0])) + " " +
                    std::to_string(at(e->ends[1])));
    for (const qvTri *t = m->tri; t; t = t->next) {
      std::string line = "t " + std::to_string(t->flags);
      for (int k = 0; k < 3; ++k) line += " " + std::to_string(at(t->edg[k])) + "/" + std::to_string(at(t->adj[k]));
      out.push_back(line);
    }
  }
  return out;
}

TEST(MeshFromFacets, AssemblyFromFacetsIsTheSoupsAssemblyRecordForRecord) {
  // A tetrahedron with a facet given twice, once turned, a facet with two
  // corners alike and one with all three, a corner at -0.0 beside 0.0; apart,
  // a fin of three facets on one edge. The soup is assembled as records, the
  // run straight from its facets, which settles fans and orientation on its
  // own where no edge has more than two facets.
  const std::vector<Facet> tetra = {{0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 0, 0, 0, 0, 1, 1, 0, 0},
                                    {0, 0, 0, 0, 1, 0, 0, 0, 1}, {1, 0, 0, 0, 0, 1, 0, 1, 0}};
  std::vector<Facet> built = tetra;
  built.push_back(tetra[1]);
  built.push_back({0, 0, 1, 0, 0, 0, 1, 0, 0});
  built.push_back({1, 0, 0, 1, 0, 0, 5, 5, 5});
  built.push_back({7, 7, 7, 7, 7, 7, 7, 7, 7});
  built.push_back({-0.0f, 0, 0, 3, 0, 0, 3, 3, 0});
  // Two facets meeting at a corner only, and two that run their edge alike.
  built.push_back({20, 0, 0, 21, 0, 0, 20, 1, 0});
  built.push_back({20, 0, 0, 19, 0, 0, 20, -1, 0});
  built.push_back({30, 0, 0, 31, 0, 0, 30, 1, 0});
  built.push_back({30, 0, 0, 31, 0, 0, 31, -1, 0});
  // A double cone whose rims are joined by a band: one shell, and its apex a
  // vertex of two fans.
  const float ring[3][2] = {{41, 0}, {40, 1}, {39, -1}};
  for (int i = 0; i < 3; ++i) {
    const float *a = ring[i], *b = ring[(i + 1) % 3];
    built.push_back({40, 0, 0, a[0], a[1], 1, b[0], b[1], 1});
    built.push_back({40, 0, 0, b[0], b[1], -1, a[0], a[1], -1});
    built.push_back({a[0], a[1], 1, a[0], a[1], -1, b[0], b[1], -1});
    built.push_back({a[0], a[1], 1, b[0], b[1], -1, b[0], b[1], 1});
  }
  std::vector<Facet> fin = tetra;
  for (float z : {1.0f, -1.0f, 2.0f}) fin.push_back({9, 0, 0, 9, 1, 0, 10, 0.5f, z});
  std::vector<std::vector<Facet>> models = {built, fin};
  for (const char *name : {"two-cubes-edge.stl", "pinched-edge.stl", "plate-hole.stl", "torus.stl", "bunny.stl"}) {
    Blocks blocks;
    const int n = blocks.load(dataPath(name));
    ASSERT_GT(n, 0) << name;
    models.emplace_back();
    for (int i = 0; i < n; ++i) models.back().push_back(blocks.at(i));
  }
  for (const auto &facets : models) {
    std::vector<FacetRec> recs(facets.size());
    std::vector<FacetRec *> table;
    for (size_t i = 0; i < facets.size(); ++i) {
      std::memcpy(recs[i].v, facets[i].data(), sizeof(FacetRec));
      table.push_back(&recs[i]);
    }
    const int n = static_cast<int>(table.size());
    int status = -1;
    qvMesh *soup = meshFromPointers(table.data(), n, &status);
    const int shells = qvMeshAssemble(soup, nullptr);
    int direct = -2;
    qvMesh *chain = assembleFromPointers(table.data(), n, &direct);
    EXPECT_GE(shells, 1);
    EXPECT_EQ(direct, shells);
    EXPECT_EQ(chainRecords(chain), chainRecords(soup));
    qvMeshDeleteAll(chain);
    qvMeshDeleteAll(soup);
  }
}

}  // namespace
