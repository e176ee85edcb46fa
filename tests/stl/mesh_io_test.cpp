// Facets into unassembled meshes: one triangle per facet on three vertices of
// its own, in reading order or run order, coordinates widened exactly.
#include "stl_files.h"

#include "mesh/qvMesh.h"

#include <gtest/gtest.h>

namespace {

// The corners of each triangle in list order; releases the mesh.
std::vector<Facet> meshFacets(qvMesh *mesh) {
  std::vector<Facet> facets;
  for (const qvTri *t = mesh ? mesh->tri : nullptr; t; t = t->next) {
    double *corner[3];
    EXPECT_EQ(qvTriCoords(t, 0, corner), 0);
    Facet &facet = facets.emplace_back();
    for (int i = 0; i < 9; ++i) {
      facet[i] = static_cast<float>(corner[i / 3][i % 3]);
    }
  }
  EXPECT_EQ(mesh ? qvVtxCount(mesh->vtx) : 0, 3 * static_cast<int>(facets.size()));
  qvMeshFree(mesh);
  return facets;
}

TEST(MeshFromFacets, WholeFileReadsInReadingOrderOrFailsNegative) {
  const std::vector<Facet> ramp = rampFacets(5);
  const struct {
    std::string bytes;
    int64_t status; // -9: any negative status, and no mesh
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

TEST(MeshFromFacets, RunsBuildInRunOrderFromPointersAndFromKeysInBothFormats) {
  const std::vector<Facet> ramp = rampFacets(7);
  const int run[] = {5, 0, 6, 2, 3};
  std::vector<Facet> expected;
  FacetRec records[5];
  FacetRec *table[5];
  FacetKey keys[5];
  for (int i = 0; i < 5; ++i) {
    expected.push_back(ramp[run[i]]);
    std::memcpy(records[i].v, ramp[run[i]].data(), sizeof(FacetRec));
    table[i] = &records[i];
    keys[i] = {run[i], 0.0f};
  }
  int status = 99;
  EXPECT_EQ(meshFacets(meshFromPointers(table, 5, &status)), expected);
  EXPECT_EQ(meshFromPointers(table, 0, &status), nullptr);
  EXPECT_EQ(status, 0);
  const std::string path = tempPath("keys.stl");
  const FacetKey beyond[] = {{1, 0.0f}, {7, 0.0f}};
  for (int format : {kStlBinary, kStlAscii}) {
    writeBytes(path, format == kStlBinary ? binaryStl(ramp) : asciiStl(ramp));
    int64_t binaryStatus;
    FILE *file = format == kStlBinary ? stlOpenBinary(path.c_str(), &binaryStatus)
                                      : stlOpenAscii(path.c_str(), &status);
    EXPECT_EQ(meshFacets(meshFromKeys(file, format, keys, 5, &status)), expected) << format;
    EXPECT_EQ(meshFromKeys(file, format, beyond, 2, &status), nullptr) << format;
    EXPECT_EQ(status, -1) << format;
    std::fclose(file);
  }
}

} // namespace
