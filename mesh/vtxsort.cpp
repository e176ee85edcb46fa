// The order of a vertex list, and bounding boxes of vertex lists and triangles.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kernels/alloc.h"
#include "mesh/qvMesh.h"

namespace {

// The bits of a float or double as an unsigned integer that orders as the
// number does: 0.0 and -0.0 alike, NaN after every number.
template <class U, class F>
U orderedBits(F d) {
  if (std::isnan(d)) return ~U{0};
  if (d == 0) d = 0;  // -0.0 orders as 0.0
  U bits;
  static_assert(sizeof bits == sizeof d, "an image of the same size");
  std::memcpy(&bits, &d, sizeof bits);
  const U sign = U{1} << (8 * sizeof(U) - 1);
  return (bits & sign) ? ~bits : (bits | sign);
}

// The order of a vertex list: by the sort axis, then the next axes
// cyclically, ascending or descending; a vertex without coordinates comes
// after those with them (before them, descending). Vertices that compare
// equal keep their order in the list, so the order is fully determined.
// Coordinates compare as numbers in a total order: 0.0 and -0.0 are equal,
// and NaN comes after every number, so that a hostile coordinate can't make
// the order inconsistent.
//
// Each vertex's coordinates are resolved once, into an integer key per axis
// that orders as the numbers do (qvCoordKey); the sort then compares keys alone.
struct SortKey {
  uint64_t k[3];  // the coordinate keys in comparison order, complemented descending
  int32_t pos;    // place in the list: the last word of the order
};

bool keyBefore(const SortKey& a, const SortKey& b) {
  if (a.k[0] != b.k[0]) return a.k[0] < b.k[0];
  if (a.k[1] != b.k[1]) return a.k[1] < b.k[1];
  if (a.k[2] != b.k[2]) return a.k[2] < b.k[2];
  return a.pos < b.pos;
}

// Puts the n vertices of order into sorted order; false if memory ran out,
// with order as it was.
bool sortVertices(qvVtx** order, int32_t n, int axis, bool descending) {
  SortKey* keys = static_cast<SortKey*>(ftMalloc(static_cast<size_t>(n) * sizeof(SortKey)));
  qvVtx** sorted = static_cast<qvVtx**>(ftMalloc(static_cast<size_t>(n) * sizeof(qvVtx*)));
  if (!keys || !sorted) {
    std::free(keys);
    std::free(sorted);
    return false;
  }
  const uint64_t flip = descending ? UINT64_MAX : 0;
  int32_t m = 0;
  for (int32_t i = 0; i < n; ++i) {
    const double* p = qvVtxXyz(order[i]);
    if (!p) continue;
    SortKey& key = keys[m++];
    for (int k = 0; k < 3; ++k) key.k[k] = qvCoordKey(p[(axis + k) % 3]) ^ flip;
    key.pos = i;
  }
  std::sort(keys, keys + m, keyBefore);
  // The vertices without coordinates keep list order, behind the others or,
  // descending, in front of them.
  const int32_t keyedFrom = descending ? n - m : 0;
  int32_t bare = descending ? 0 : m;
  for (int32_t i = 0; i < n; ++i)
    if (!qvVtxXyz(order[i])) sorted[bare++] = order[i];
  for (int32_t i = 0; i < m; ++i) sorted[keyedFrom + i] = order[keys[i].pos];
  std::memcpy(order, sorted, static_cast<size_t>(n) * sizeof(qvVtx*));
  std::free(sorted);
  std::free(keys);
  return true;
}

void boxClear(qvBox* box) {
  if (!box) return;
  for (double*& p : *box) p = nullptr;
}

// Widens the box by p. Each coordinate is compared with the smallest so far
// and, only if it isn't below, with the largest.
void boxAdd(qvBox* box, double* p, bool first) {
  for (int k = 0; k < 3; ++k) {
    if (first) {
      (*box)[k] = p + k;
      (*box)[k + 3] = p + k;
    } else if (p[k] < *(*box)[k]) {
      (*box)[k] = p + k;
    } else if (p[k] > *(*box)[k + 3]) {
      (*box)[k + 3] = p + k;
    }
  }
}

uint32_t requestedAxisBit(uint32_t request) {
  if (request & kMeshSortX) return kMeshSortX;
  if (request & kMeshSortY) return kMeshSortY;
  if (request & kMeshSortZ) return kMeshSortZ;
  return 0;
}

}  // namespace

uint64_t qvCoordKey(double d) { return orderedBits<uint64_t>(d); }

uint32_t qvFloatKey(float f) { return orderedBits<uint32_t>(f); }

// Least significant digit first: the two digits of lo, then the four of hi.
// A pass whose digit is the same for every key moves nothing and is skipped,
// which on keys from one region of a model is often the case for the top
// digits.
int32_t qvFloatKeysSort(qvFloatKeys* keys, int32_t n) {
  if (n < 2) return 0;
  constexpr int kPasses = 6;
  constexpr int kDigits = 1 << 16;
  qvFloatKeys* spare = static_cast<qvFloatKeys*>(ftMalloc(sizeof(qvFloatKeys) * static_cast<size_t>(n)));
  uint32_t* count = static_cast<uint32_t*>(ftCalloc(static_cast<size_t>(kPasses) * kDigits, sizeof(uint32_t)));
  if (!spare || !count) {
    std::free(spare);
    std::free(count);
    return -1;
  }
  auto digit = [](const qvFloatKeys& k, int pass) -> uint32_t {
    const uint64_t word = pass < 2 ? k.lo : k.hi;
    return static_cast<uint32_t>(word >> (16 * (pass < 2 ? pass : pass - 2))) & (kDigits - 1);
  };
  for (int32_t i = 0; i < n; ++i)
    for (int pass = 0; pass < kPasses; ++pass) ++count[pass * kDigits + digit(keys[i], pass)];
  qvFloatKeys* a = keys;
  qvFloatKeys* b = spare;
  for (int pass = 0; pass < kPasses; ++pass) {
    uint32_t* c = count + pass * kDigits;
    if (c[digit(a[0], pass)] == static_cast<uint32_t>(n)) continue;
    uint32_t sum = 0;
    for (int d = 0; d < kDigits; ++d) {
      const uint32_t here = c[d];
      c[d] = sum;
      sum += here;
    }
    for (int32_t i = 0; i < n; ++i) b[c[digit(a[i], pass)]++] = a[i];
    std::swap(a, b);
  }
  if (a != keys) std::memcpy(keys, a, sizeof(qvFloatKeys) * static_cast<size_t>(n));
  std::free(spare);
  std::free(count);
  return 0;
}

int32_t qvVtxBox(qvVtx* head, qvBox* box) {
  boxClear(box);
  int32_t n = 0;
  bool first = true;
  for (qvVtx* v = head; v; v = v->next) {
    ++n;
    double* p = qvVtxXyz(v);
    if (!box || !p) continue;
    boxAdd(box, p, first);
    first = false;
  }
  return n;
}

int32_t qvMeshBox(qvMesh* mesh, qvBox* box) {
  if (!mesh) {
    boxClear(box);
    return -1;
  }
  const int32_t n = qvVtxBox(mesh->vtx, box);
  if (n < 3) {
    boxClear(box);
    return -1;
  }
  return n;
}

int32_t qvMeshSortVtx(qvMesh* mesh, uint32_t request, qvBox* box) {
  boxClear(box);
  if (!mesh) return -1;
  const uint32_t bit = requestedAxisBit(request);
  if (!mesh->vtx) return -1;
  if (bit == 0 || (mesh->flags & bit)) return 0;

  const int32_t n = qvVtxCount(mesh->vtx);
  if (n == 1) {
    // One record is in every order: it gains the bit, the others stay.
    if (box) qvVtxBox(mesh->vtx, box);
    mesh->flags |= bit;
    return 0;
  }

  qvVtx** order = static_cast<qvVtx**>(ftMalloc(static_cast<size_t>(n) * sizeof(qvVtx*)));
  if (!order) return -1;
  int32_t i = 0;
  bool first = true;
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    order[i++] = v;
    double* p = box ? qvVtxXyz(v) : nullptr;
    if (p) {
      boxAdd(box, p, first);
      first = false;
    }
  }

  const int axis = bit == kMeshSortX ? 0 : bit == kMeshSortY ? 1 : 2;
  if (!sortVertices(order, n, axis, (request & kMeshSortDesc) != 0)) {
    std::free(order);
    return -1;
  }

  for (i = 0; i < n; ++i) {
    order[i]->prev = i > 0 ? order[i - 1] : nullptr;
    order[i]->next = i + 1 < n ? order[i + 1] : nullptr;
  }
  mesh->vtx = order[0];
  std::free(order);
  mesh->flags = (mesh->flags & ~kMeshSortedSet) | bit;
  return 0;
}

int32_t qvTriBox(const qvTri* t, qvBox* box) {
  boxClear(box);
  double* p[3];
  if (qvTriCoords(t, 0, p) != 0) return -1;
  if (box)
    for (int k = 0; k < 3; ++k) boxAdd(box, p[k], k == 0);
  return 3;
}
