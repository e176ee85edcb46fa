// Mesh from facets: a whole file is read into an array of facets, and a
// whole file or a run of sorted facets becomes either one unassembled qvMesh
// with one triangle per facet and three vertices of its own per triangle
// (welding left to qvMeshAssemble, which the caller runs), or straight the
// assembled chain of shells (qvMeshAssembleCorners), which makes only the
// records that stay.
//
// Facets are added at the head of the triangle list, so every builder of an
// unassembled mesh reverses the list once at the end to leave it in reading
// order or in run order.
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

// The unassembled mesh of facets[0..count), or null when memory runs out.
qvMesh *soupOfFacets(const FacetRec *facets, int64_t count) {
  qvMesh *mesh = newSoup();
  for (int64_t i = 0; mesh && i < count; ++i) {
    if (addCorners(mesh, facets[i].v) != 0) {
      qvMeshFree(mesh);
      mesh = nullptr;
    }
  }
  return mesh ? finishSoup(mesh) : nullptr;
}

// The binary load: status is the header's count, or the negative status of the
// opening test; a record that can't be read or stored makes it -2.
FacetRec *readBinaryFacets(const char *name, int64_t *status) {
  *status = 0;
  FILE *file = stlOpenBinary(name, status);
  if (*status < 1) {
    if (file) {
      std::fclose(file);
    }
    return nullptr;
  }
  // Triangle counts are 32-bit throughout the mesh model.
  auto *facets = *status <= INT32_MAX
                     ? static_cast<FacetRec *>(ftMalloc(sizeof(FacetRec) * static_cast<size_t>(*status)))
                     : nullptr;
  FacetWire wire;
  for (int64_t i = 0; facets && i < *status; ++i) {
    if (stlReadBinaryFacet(file, &wire) != 0) {
      std::free(facets);
      facets = nullptr;
    } else {
      std::memcpy(facets[i].v, wire.v + 3, sizeof(FacetRec));
    }
  }
  std::fclose(file);
  if (!facets) {
    *status = -2;
  }
  return facets;
}

// The ASCII load: status 0 from the opening test starts an array that grows
// by doubling, and the walk stores each facet; a malformed file gives the
// parser's status, a facet that can't be stored -2. An array is returned
// also for a file without facets.
FacetRec *readAsciiFacets(const char *name, int64_t *status) {
  int opened;
  FILE *file = stlOpenAscii(name, &opened);
  *status = opened;
  if (!file) {
    return nullptr;
  }
  int64_t capacity = 1024;
  auto *facets = static_cast<FacetRec *>(ftMalloc(sizeof(FacetRec) * capacity));
  int64_t count = 0;
  int result = facets ? 0 : -2;
  FacetWire wire;
  while (result >= 0 && result < 2) {
    result = stlReadAsciiFacet(file, &wire);
    if (result != 0) {
      continue;
    }
    if (count == INT32_MAX) {
      result = -2;
      continue;
    }
    if (count == capacity) {
      capacity = std::min<int64_t>(2 * capacity, INT32_MAX);
      auto *grown = static_cast<FacetRec *>(ftRealloc(facets, sizeof(FacetRec) * static_cast<size_t>(capacity)));
      if (!grown) {
        result = -2;
        continue;
      }
      facets = grown;
    }
    std::memcpy(facets[count++].v, wire.v + 3, sizeof(FacetRec));
  }
  std::fclose(file);
  if (result < 0) {
    std::free(facets);
    *status = result;
    return nullptr;
  }
  *status = count;
  return facets;
}

// The facets' corner triples, one pointer per facet; null when memory runs
// out or a facet is missing.
const float **cornersOf(FacetRec *const *table, const FacetRec *facets, int count) {
  auto *corners = static_cast<const float **>(ftMalloc(sizeof(float *) * static_cast<size_t>(count)));
  for (int i = 0; corners && i < count; ++i) {
    const FacetRec *facet = table ? table[i] : &facets[i];
    if (!facet) {
      std::free(corners);
      return nullptr;
    }
    corners[i] = facet->v;
  }
  return corners;
}

// The run as assembleFromPointers makes it, from a table or an array.
qvMesh *assembleRun(FacetRec *const *table, const FacetRec *facets, int count, int *shells) {
  int unused;
  int &result = shells ? *shells : unused;
  result = -1;
  if ((!table && !facets) || count < 1) {
    return nullptr;
  }
  const float **corners = cornersOf(table, facets, count);
  int32_t made = -1;
  qvMesh *mesh = corners ? qvMeshAssembleCorners(corners, count, nullptr, &made) : nullptr;
  std::free(corners);
  result = made;
  return mesh;
}

// One fetch of the streamed route: a facet's ordinal and its place in the run.
struct Fetch {
  int32_t ordinal; // place of the facet in the file
  int32_t slot;    // place of the facet in the run
};

// Puts fetches made in run order into file order: a stable radix sort by
// ordinal, so that a facet listed twice keeps its run order (a total order,
// the same as a comparison sort by ordinal, then slot). Falls back to that
// comparison sort when the spare table can't be had.
void sortFetches(Fetch *order, int count) {
  const size_t size = static_cast<size_t>(count);
  auto *spare = static_cast<Fetch *>(ftMalloc(sizeof(Fetch) * size));
  if (!spare) {
    std::sort(order, order + count, [](const Fetch &a, const Fetch &b) {
      return a.ordinal != b.ordinal ? a.ordinal < b.ordinal : a.slot < b.slot;
    });
    return;
  }
  radixByImage(order, spare, size, [](const Fetch &f) { return static_cast<uint32_t>(f.ordinal); });
  std::free(spare);
}

} // namespace

FacetRec *stlReadFacets(const char *name, int64_t *status) {
  int64_t unused;
  int64_t &result = status ? *status : unused;
  FacetRec *facets = readBinaryFacets(name, &result);
  if (result > 0) {
    return facets;
  }
  return readAsciiFacets(name, &result);
}

qvMesh *stlReadMesh(const char *name, int64_t *status) {
  int64_t unused;
  int64_t &result = status ? *status : unused;
  FacetRec *facets = stlReadFacets(name, &result);
  if (result < 0) {
    return nullptr;
  }
  qvMesh *mesh = soupOfFacets(facets, result);
  std::free(facets);
  if (!mesh) {
    result = -2;
  }
  return mesh;
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
    sortFetches(order, count);
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
  qvMesh *mesh = facets ? soupOfFacets(facets, count) : nullptr;
  std::free(facets);
  if (!mesh) {
    result = -1;
  }
  return mesh;
}

qvMesh *assembleFromPointers(FacetRec *const *table, int count, int *shells) {
  return assembleRun(table, nullptr, count, shells);
}

qvMesh *assembleFacets(const FacetRec *facets, int count, int *shells) {
  return assembleRun(nullptr, facets, count, shells);
}
