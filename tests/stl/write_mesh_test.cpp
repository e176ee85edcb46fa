// Mesh writing: new normals with the 1e-06 threshold on the cross product,
// little-endian records, the exact ASCII statement, and chain files whose count
// equals their records.
#include "stl_files.h"

#include "mesh/qvMesh.h"

#include <gtest/gtest.h>

namespace {

qvMesh *soupOf(const std::vector<Facet> &facets) {
  qvMesh *mesh = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
  for (const Facet &facet : facets) {
    FacetWire wire = {};
    std::memcpy(wire.v + 3, facet.data(), sizeof(Facet));
    EXPECT_EQ(addFacetToMesh(mesh, &wire), 0);
  }
  mesh->tri = qvTriReverse(mesh->tri);
  return mesh;
}

// Writes mesh with the writer into a file, releases the mesh, returns the bytes.
std::string written(int (*writer)(const qvMesh *, int, FILE *), qvMesh *mesh, int count) {
  const std::string path = tempPath("mesh.out");
  FILE *file = std::fopen(path.c_str(), "wb");
  EXPECT_EQ(writer(mesh, 0, file), count);
  std::fclose(file);
  qvMeshFree(mesh);
  return fileBytes(path);
}

TEST(StlWriteMesh, NormalIsUnitOrZeroByTheCrossProductsLength) {
  const struct {
    Facet facet;
    float normal[3];
  } cases[] = {
      {{0, 0, 0, 2, 0, 0, 0, 3, 0}, {0, 0, 1}},
      {{0, 0, 0, 0, 3, 0, 2, 0, 0}, {0, 0, -1}},
      {{1, 1, 1, 1, 1, 1, 5, 5, 5}, {0, 0, 0}},            // zero area
      {{0, 0, 0, 0, 1e-3f, 0, 0, 0, 0.9e-3f}, {0, 0, 0}}, // cross 0.9e-06
      {{0, 0, 0, 0, 1e-3f, 0, 0, 0, 1.1e-3f}, {1, 0, 0}}, // cross 1.1e-06
  };
  for (const auto &c : cases) {
    const std::string bytes = written(stlWriteMeshBinary, soupOf({c.facet}), 1);
    ASSERT_EQ(bytes.size(), 50u);
    for (int i = 0; i < 12; ++i) {
      uint32_t word = 0; // little-endian on any host: byte by byte
      for (int b = 3; b >= 0; --b) {
        word = word << 8 | static_cast<unsigned char>(bytes[4 * i + b]);
      }
      float value;
      std::memcpy(&value, &word, 4);
      EXPECT_NEAR(value, i < 3 ? c.normal[i] : c.facet[i - 3], 1e-6) << i;
    }
    EXPECT_EQ(bytes.substr(48), std::string(2, '\0'));
  }
  EXPECT_EQ(stlWriteMeshBinary(nullptr, 0, stdout), -1);
}

TEST(StlWriteMesh, AsciiStatementIsExact) {
  EXPECT_EQ(written(stlWriteMeshAscii, soupOf({{-1.5f, 0, 2, 1000, 0, 2, -1.5f, 0.25f, 2}}), 1),
            "facet normal  0.000000  0.000000  1.000000\n"
            "\touter loop\n"
            "\t\tvertex     -1.500000     0.000000     2.000000\n"
            "\t\tvertex   1000.000000     0.000000     2.000000\n"
            "\t\tvertex     -1.500000     0.250000     2.000000\n"
            "\tendloop\n"
            "endfacet\n");
}

TEST(StlWriteMesh, ChainFileCountEqualsItsRecordsAndEmptyChainIs84Bytes) {
  const std::string path = tempPath("chain.stl");
  EXPECT_EQ(stlWriteMeshChain(nullptr, 0, path.c_str()), 0);
  EXPECT_EQ(std::filesystem::file_size(path), 84u);
  EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), 0);
  const std::vector<Facet> ramp = rampFacets(5);
  qvMesh *chain = qvMeshConcat(soupOf({ramp[0], ramp[1], ramp[2]}), soupOf({ramp[3], ramp[4]}));
  EXPECT_EQ(stlWriteMeshChain(chain, 0, path.c_str()), 5);
  EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), 5);
  EXPECT_EQ(readBinaryFacets(path), ramp);
  EXPECT_EQ(stlWriteMeshChain(chain, 0, tempPath("no/such/dir.stl").c_str()), -1);
  qvMeshDeleteAll(chain);
}

} // namespace
