// The order of a vertex list, and bounding boxes of vertex lists and triangles.
#include <cmath>
#include <cstdlib>

#include "mesh/qvMesh.h"

namespace {

// The axis and direction the comparator reads. The library's quicksort
// passes no context, so they live outside the call; per thread, so that two
// threads sorting different meshes at once can't disturb each other.
thread_local int tSortAxis = 0;
thread_local bool tSortDescending = false;

// A total order on doubles, NaN after every number, so that a hostile
// coordinate can't make the comparator inconsistent.
int compareCoord(double a, double b) {
  if (a < b) return -1;
  if (a > b) return 1;
  return static_cast<int>(std::isnan(a)) - static_cast<int>(std::isnan(b));
}

// By the sort axis, then the next axes cyclically; a vertex without
// coordinates comes after those with them. Equal vertices compare 0.
int compareVtx(const void* pa, const void* pb) {
  const double* a = qvVtxXyz(*static_cast<qvVtx* const*>(pa));
  const double* b = qvVtxXyz(*static_cast<qvVtx* const*>(pb));
  int c = 0;
  if (!a || !b) {
    c = static_cast<int>(!a) - static_cast<int>(!b);
  } else {
    for (int k = 0; k < 3 && c == 0; ++k) {
      const int axis = (tSortAxis + k) % 3;
      c = compareCoord(a[axis], b[axis]);
    }
  }
  return tSortDescending ? -c : c;
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

  qvVtx** order = static_cast<qvVtx**>(std::malloc(static_cast<size_t>(n) * sizeof(qvVtx*)));
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

  tSortAxis = bit == kMeshSortX ? 0 : bit == kMeshSortY ? 1 : 2;
  tSortDescending = (request & kMeshSortDesc) != 0;
  std::qsort(order, static_cast<size_t>(n), sizeof(qvVtx*), compareVtx);

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
