// Mesh from facets: a whole file, or a run of sorted facets, becomes one
// unassembled qvMesh with one triangle per facet and three vertices of its own
// per triangle. Welding is left to qvMeshAssemble, which the caller runs.
//
// Facets are added at the head of the triangle list, so every builder reverses
// the list once at the end to leave it in reading order or in run order.
#include "stl/stl_internal.h"
#include "kernels/alloc.h"
#include "kernels/failure.h"

#include "mesh/qvMesh.h"

#include <cstdlib>

using namespace stl_detail;

namespace {

constexpr uint32_t kSoupMeshFlags = kMeshOwnsVtx;  // the mesh releases its vertices
constexpr uint32_t kSoupVtxFlags = kVtxHasNormal;  // x, y, z and a normal slot

qvMesh *newSoup() { return qvMeshNew(nullptr, nullptr, nullptr, kSoupMeshFlags); }

// Three new vertices at the corners, widened to doubles, with the normal slot
// zero, and one triangle on them. On failure the mesh is as it was.
int addCorners(qvMesh *mesh, const float *vertices) {
  qvVtx *corners[3];
  for (int i = 0; i < 3; ++i) {
    corners[i] = qvVtxNew(kSoupVtxFlags, nullptr);
    if (corners[i]) {
      double *xyz = qvVtxXyz(corners[i]);
      double *normal = qvVtxNrm(corners[i]);
      for (int k = 0; k < 3; ++k) {
        xyz[k] = vertices[3 * i + k];
        normal[k] = 0.0;
      }
    }
  }
  if (!corners[0] || !corners[1] || !corners[2] || qvMeshAddFacet(mesh, corners) != 0) {
    for (qvVtx *corner : corners) {
      qvVtxFree(corner);
    }
    return FT_FAIL(-1);
  }
  return 0;
}

qvMesh *finishSoup(qvMesh *mesh) {
  mesh->tri = qvTriReverse(mesh->tri);
  return mesh;
}

// The binary load: status is the header's count, or the negative status of the
// opening test; a record that can't be read or added makes it -2.
qvMesh *readBinaryMesh(const char *name, int64_t *status) {
  *status = 0;
  FILE *file = stlOpenBinary(name, status);
  if (*status < 1) {
    if (file) {
      std::fclose(file);
    }
    return nullptr;
  }
  // Triangle counts are 32-bit throughout the mesh model.
  qvMesh *mesh = *status <= INT32_MAX ? newSoup() : nullptr;
  FacetWire wire;
  for (int64_t i = 0; mesh && i < *status; ++i) {
    if (stlReadBinaryFacet(file, &wire) != 0 || addFacetToMesh(mesh, &wire) != 0) {
      qvMeshFree(mesh);
      mesh = nullptr;
    }
  }
  std::fclose(file);
  if (!mesh) {
    *status = -2;
    return nullptr;
  }
  return finishSoup(mesh);
}

// The ASCII load: status 0 from the opening test makes a mesh, and the walk
// adds each facet; a malformed file gives the parser's status, a failed add -2.
qvMesh *readAsciiMesh(const char *name, int64_t *status) {
  int opened;
  FILE *file = stlOpenAscii(name, &opened);
  *status = opened;
  if (!file) {
    return nullptr;
  }
  qvMesh *mesh = newSoup();
  int64_t count = 0;
  int result = mesh ? 0 : -2;
  FacetWire wire;
  while (result >= 0 && result < 2) {
    result = stlReadAsciiFacet(file, &wire);
    if (result == 0) {
      if (count == INT32_MAX || addFacetToMesh(mesh, &wire) != 0) {
        result = -2;
      } else {
        ++count;
      }
    }
  }
  std::fclose(file);
  if (result < 0) {
    qvMeshFree(mesh);
    *status = result;
    return nullptr;
  }
  *status = count;
  return finishSoup(mesh);
}

// One fetch of the streamed route: a facet's ordinal and its place in the run.
struct Fetch {
  int32_t ordinal; // place of the facet in the file
  int32_t slot;    // place of the facet in the run
};

} // namespace

int addFacetToMesh(qvMesh *mesh, const FacetWire *wire) {
  if (!mesh || !wire) {
    return FT_FAIL(-1);
  }
  return addCorners(mesh, wire->v + 3);
}

qvMesh *stlReadMesh(const char *name, int64_t *status) {
  int64_t unused;
  int64_t &result = status ? *status : unused;
  qvMesh *mesh = readBinaryMesh(name, &result);
  if (result > 0) {
    return mesh;
  }
  return readAsciiMesh(name, &result);
}

qvMesh *meshFromPointers(FacetRec *const *table, int count, int *status) {
  int unused;
  int &result = status ? *status : unused;
  result = 0;
  if (!table || count < 1) {
    return nullptr;
  }
  qvMesh *mesh = newSoup();
  for (int i = 0; mesh && i < count; ++i) {
    if (!table[i] || addCorners(mesh, table[i]->v) != 0) {
      qvMeshFree(mesh);
      mesh = nullptr;
    }
  }
  if (!mesh) {
    result = -1;
    return nullptr;
  }
  return finishSoup(mesh);
}

// The facets are fetched in file order into their places in the run: a binary
// file is read forwards through its buffer and an ASCII file parsed once from
// the top, where fetching in run order would seek, or parse again from the
// top, for nearly every facet. One cursor serves the whole run, starting at -1.
FacetRec *fetchFacetRun(FILE *file, int format, const FacetKey *keys, int count) {
  const size_t size = static_cast<size_t>(count);
  auto *order = static_cast<Fetch *>(ftMalloc(sizeof(Fetch) * size));
  auto *facets = static_cast<FacetRec *>(ftMalloc(sizeof(FacetRec) * size));
  bool ok = order && facets;
  if (ok) {
    for (int i = 0; i < count; ++i) {
      order[i] = {keys[i].ordinal, i};
    }
    std::sort(order, order + count, [](const Fetch &a, const Fetch &b) {
      return a.ordinal != b.ordinal ? a.ordinal < b.ordinal : a.slot < b.slot;
    });
    int position = -1;
    FacetWire wire;
    for (int i = 0; ok && i < count; ++i) {
      ok = stlReadFacetAt(file, format, order[i].ordinal, &position, &wire) == 0;
      if (ok) {
        std::memcpy(facets[order[i].slot].v, wire.v + 3, sizeof(FacetRec));
      }
    }
  }
  std::free(order);
  if (!ok) {
    std::free(facets);
    return nullptr;
  }
  return facets;
}

qvMesh *meshFromKeys(FILE *file, int format, const FacetKey *keys, int count, int *status) {
  int unused;
  int &result = status ? *status : unused;
  result = 0;
  if (!file || !keys || count < 1) {
    return nullptr;
  }
  FacetRec *facets = fetchFacetRun(file, format, keys, count);
  qvMesh *mesh = facets ? newSoup() : nullptr;
  for (int i = 0; mesh && i < count; ++i) {
    if (addCorners(mesh, facets[i].v) != 0) {
      qvMeshFree(mesh);
      mesh = nullptr;
    }
  }
  std::free(facets);
  if (!mesh) {
    result = -1;
    return nullptr;
  }
  return finishSoup(mesh);
}

qvMesh *assembleFromPointers(FacetRec *const *table, int count, int *shells) {
  int unused;
  int &result = shells ? *shells : unused;
  result = -1;
  if (!table || count < 1) {
    return nullptr;
  }
  auto *corners = static_cast<const float **>(ftMalloc(sizeof(float *) * static_cast<size_t>(count)));
  bool ok = corners != nullptr;
  for (int i = 0; ok && i < count; ++i) {
    ok = table[i] != nullptr;
    if (ok) {
      corners[i] = table[i]->v;
    }
  }
  int32_t made = -1;
  qvMesh *mesh = ok ? qvMeshAssembleCorners(corners, count, nullptr, &made) : nullptr;
  std::free(corners);
  result = made;
  return mesh;
}
