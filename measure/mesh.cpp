// Reading and exact welding. Facets stream from the STL readers into a welder
// that looks every corner up in an open-addressing table keyed on the bit
// patterns of its three floats, so memory grows with the welded mesh and not
// with the file. The same table answers the subset check.
#include "measure/measure_internal.h"

#include "stl/stl.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int64_t kIndexLimit = INT32_MAX;  // facets and vertices are indexed in 32 bits
constexpr int64_t kFirstCapacity = 1024;    // vertices or facets before the first growth
constexpr uint64_t kFirstSlots = 2048;      // table slots before the first growth
constexpr int32_t kEmptySlot = -1;          // a table slot without a vertex

// The welded mesh under construction and its lookup table.
struct Welder {
  MeasureMesh *mesh;       // the mesh being filled
  int64_t vertexCapacity;  // vertices `mesh->xyz` has room for
  int64_t facetCapacity;   // facets `mesh->tri` has room for
  int32_t *slot;           // vertex index per slot, or kEmptySlot
  uint64_t slotCount;      // a power of two, at least twice the vertex count
};

void bitsOf(const float *v, uint32_t bits[3]) {
  std::memcpy(bits, v, 3 * sizeof(float));
}

// A 64-bit mix of the three bit patterns (the splitmix64 finaliser), so that
// grid-like coordinates do not crowd into neighbouring slots.
uint64_t hashBits(const uint32_t bits[3]) {
  uint64_t h = (static_cast<uint64_t>(bits[0]) << 32 | bits[1]) ^
               (static_cast<uint64_t>(bits[2]) * 0x9E3779B97F4A7C15ull);
  h ^= h >> 30;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 27;
  h *= 0x94D049BB133111EBull;
  h ^= h >> 31;
  return h;
}

bool sameBits(const float *v, const uint32_t bits[3]) {
  uint32_t own[3];
  bitsOf(v, own);
  return own[0] == bits[0] && own[1] == bits[1] && own[2] == bits[2];
}

// The slot that holds the vertex with these bits, or the empty slot where it
// would go. The table is never full, so the probe ends.
uint64_t probe(const int32_t *slot, uint64_t slotCount, const float *xyz, const uint32_t bits[3]) {
  uint64_t i = hashBits(bits) & (slotCount - 1);
  while (slot[i] != kEmptySlot && !sameBits(xyz + 3 * static_cast<int64_t>(slot[i]), bits)) {
    i = (i + 1) & (slotCount - 1);
  }
  return i;
}

// A table of `slotCount` slots holding vertices [0, vertexCount) of xyz; null when out of memory.
int32_t *tableOf(const float *xyz, int64_t vertexCount, uint64_t slotCount) {
  int32_t *slot = static_cast<int32_t *>(std::malloc(slotCount * sizeof(int32_t)));
  if (!slot) {
    return nullptr;
  }
  for (uint64_t i = 0; i < slotCount; ++i) {
    slot[i] = kEmptySlot;
  }
  for (int64_t v = 0; v < vertexCount; ++v) {
    uint32_t bits[3];
    bitsOf(xyz + 3 * v, bits);
    slot[probe(slot, slotCount, xyz, bits)] = static_cast<int32_t>(v);
  }
  return slot;
}

uint64_t slotsFor(int64_t vertexCount) {
  uint64_t slots = kFirstSlots;
  while (slots < 2 * static_cast<uint64_t>(vertexCount)) {
    slots *= 2;
  }
  return slots;
}

// Grows `*array` of `elementBytes`-sized elements to hold at least `needed`;
// false when out of memory (the old array stays valid and is still owned).
bool grow(void **array, int64_t *capacity, int64_t needed, size_t elementBytes) {
  if (needed <= *capacity) {
    return true;
  }
  int64_t next = *capacity > 0 ? *capacity : kFirstCapacity;
  while (next < needed) {
    next *= 2;
  }
  void *moved = std::realloc(*array, static_cast<size_t>(next) * elementBytes);
  if (!moved) {
    return false;
  }
  *array = moved;
  *capacity = next;
  return true;
}

// Index of the vertex with coordinates v, added when new; -3 when out of memory or too many.
int64_t welderVertex(Welder *w, const float *v) {
  MeasureMesh *mesh = w->mesh;
  uint32_t bits[3];
  bitsOf(v, bits);
  const uint64_t at = probe(w->slot, w->slotCount, mesh->xyz, bits);
  if (w->slot[at] != kEmptySlot) {
    return w->slot[at];
  }
  if (mesh->vertexCount >= kIndexLimit) {
    return -3;
  }
  void *xyz = mesh->xyz;
  if (!grow(&xyz, &w->vertexCapacity, mesh->vertexCount + 1, 3 * sizeof(float))) {
    return -3;
  }
  mesh->xyz = static_cast<float *>(xyz);
  const int64_t index = mesh->vertexCount++;
  std::memcpy(mesh->xyz + 3 * index, v, 3 * sizeof(float));
  w->slot[at] = static_cast<int32_t>(index);
  if (2 * static_cast<uint64_t>(mesh->vertexCount) > w->slotCount) {
    int32_t *bigger = tableOf(mesh->xyz, mesh->vertexCount, 2 * w->slotCount);
    if (!bigger) {
      return -3;
    }
    std::free(w->slot);
    w->slot = bigger;
    w->slotCount *= 2;
  }
  return index;
}

// Appends one facet of nine floats. 0 or -3.
int welderFacet(Welder *w, const float *corners) {
  MeasureMesh *mesh = w->mesh;
  if (mesh->facetCount >= kIndexLimit) {
    return -3;
  }
  void *tri = mesh->tri;
  if (!grow(&tri, &w->facetCapacity, mesh->facetCount + 1, 3 * sizeof(int32_t))) {
    return -3;
  }
  mesh->tri = static_cast<int32_t *>(tri);
  for (int k = 0; k < 3; ++k) {
    const int64_t index = welderVertex(w, corners + 3 * k);
    if (index < 0) {
      return -3;
    }
    mesh->tri[3 * mesh->facetCount + k] = static_cast<int32_t>(index);
  }
  ++mesh->facetCount;
  return 0;
}

// Starts a welder on an empty mesh; `facets` is the expected count, for sizing. 0 or -3.
int welderStart(Welder *w, MeasureMesh *mesh, int64_t facets) {
  *mesh = {};
  w->mesh = mesh;
  w->vertexCapacity = 0;
  w->facetCapacity = 0;
  w->slotCount = slotsFor(facets < kIndexLimit ? facets : 0);
  w->slot = tableOf(nullptr, 0, w->slotCount);
  return w->slot ? 0 : -3;
}

// Ends a welder: frees the table, and the mesh too when `status` is a failure.
int64_t welderEnd(Welder *w, int64_t status) {
  std::free(w->slot);
  w->slot = nullptr;
  if (status < 0) {
    measureMeshFree(w->mesh);
    return status;
  }
  return w->mesh->facetCount;
}

// Reads `count` binary records from a file placed at the first record.
int64_t readBinary(FILE *file, int64_t count, Welder *w) {
  if (count > kIndexLimit) {
    return -3;
  }
  for (int64_t i = 0; i < count; ++i) {
    FacetWire wire;
    const int read = stlReadBinaryFacet(file, &wire);
    if (read < 0) {
      return read;
    }
    if (welderFacet(w, wire.v + 3) < 0) {
      return -3;
    }
  }
  return count;
}

// Reads ASCII facets up to the end of the file. Terminator lines are passed
// over, so facets after an "endsolid" count as facets of the one solid.
int64_t readAscii(FILE *file, Welder *w) {
  for (;;) {
    FacetWire wire;
    const int read = stlReadAsciiFacet(file, &wire);
    if (read < 0) {
      return read;
    }
    if (read >= 2) {
      return w->mesh->facetCount;
    }
    if (read == 0 && welderFacet(w, wire.v + 3) < 0) {
      return -3;
    }
  }
}

} // namespace

// A file is binary when its size fits its header count; only when that test
// fails, for whatever reason, is it tried as text, and then the text test's
// status stands: -2 when nothing could be read, -1 when it is not STL at all.
int64_t measureRead(const char *name, MeasureMesh *mesh) {
  if (!mesh) {
    return -4;
  }
  *mesh = {};
  if (!name) {
    return -2;
  }
  Welder w;
  int64_t count = 0;
  FILE *file = stlOpenBinary(name, &count);
  if (file) {
    int64_t status = welderStart(&w, mesh, count);
    if (status == 0) {
      status = readBinary(file, count, &w);
    }
    std::fclose(file);
    return welderEnd(&w, status);
  }
  int asciiStatus = 0;
  file = stlOpenAscii(name, &asciiStatus);
  if (!file) {
    return asciiStatus < 0 ? asciiStatus : -1;
  }
  int64_t status = welderStart(&w, mesh, 0);
  if (status == 0) {
    status = readAscii(file, &w);
  }
  std::fclose(file);
  return welderEnd(&w, status);
}

int64_t measureWeld(const float *corners, int64_t facetCount, MeasureMesh *mesh) {
  if (!mesh) {
    return -4;
  }
  *mesh = {};
  if (facetCount < 0 || (facetCount > 0 && !corners)) {
    return -4;
  }
  if (facetCount > kIndexLimit) {
    return -3;
  }
  Welder w;
  int64_t status = welderStart(&w, mesh, facetCount);
  for (int64_t f = 0; status == 0 && f < facetCount; ++f) {
    status = welderFacet(&w, corners + 9 * f);
  }
  return welderEnd(&w, status);
}

void measureMeshFree(MeasureMesh *mesh) {
  if (!mesh) {
    return;
  }
  std::free(mesh->xyz);
  std::free(mesh->tri);
  std::free(mesh->edge);
  *mesh = {};
}

int64_t measureSubset(const MeasureMesh *original, const MeasureMesh *reduced, int64_t *first) {
  int64_t unused;
  int64_t &firstOut = first ? *first : unused;
  firstOut = -1;
  if (!original || !reduced) {
    return -4;
  }
  const uint64_t slotCount = slotsFor(original->vertexCount);
  int32_t *slot = tableOf(original->xyz, original->vertexCount, slotCount);
  if (!slot) {
    return -3;
  }
  int64_t missing = 0;
  for (int64_t v = 0; v < reduced->vertexCount; ++v) {
    uint32_t bits[3];
    bitsOf(reduced->xyz + 3 * v, bits);
    if (slot[probe(slot, slotCount, original->xyz, bits)] == kEmptySlot) {
      if (missing == 0) {
        firstOut = v;
      }
      ++missing;
    }
  }
  std::free(slot);
  return missing;
}
