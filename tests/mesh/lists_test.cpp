// Records and list routines: hand-built lists checked link by link.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "fixture.h"
#include "mesh/qvMesh.h"

namespace {

// Prepends one vertex per entry of flags, x its creation number: newest first.
qvVtx* makeList(const std::vector<uint32_t>& flags) {
  qvVtx* head = nullptr;
  for (size_t i = 0; i < flags.size(); ++i) {
    qvVtx* v = qvVtxNew(kVtxHasNormal | flags[i], nullptr);
    v->dat[0] = static_cast<double>(i);
    head = qvVtxConcat(v, head);
  }
  return head;
}

// x of each record in list order; fails the test on a broken prev link.
std::vector<int> order(const qvVtx* head) {
  std::vector<int> xs;
  for (const qvVtx *v = head, *before = nullptr; v; before = v, v = v->next) {
    EXPECT_EQ(v->prev, before);
    xs.push_back(static_cast<int>(v->dat[0]));
  }
  return xs;
}

}  // namespace

TEST(VtxList, DeleteFlaggedCountsAndKeepsTheRestInOrder) {
  const std::vector<uint32_t> flags = {0, kVtxRim, kVtxFeatureEnd, kVtxRim | kVtxFeatureEnd, kVtxHub, kVtxMarkBnd};
  struct Case {
    uint32_t mask;
    int deleted;
    std::vector<int> left;
  } cases[] = {{kVtxRim, 2, {5, 4, 2, 0}},
               {kVtxFeatureEnd | kVtxHub, 3, {5, 1, 0}},
               {kVtxMarkBnd, 1, {4, 3, 2, 1, 0}},
               {0, 0, {5, 4, 3, 2, 1, 0}},
               {~kVtxHasNormal, 5, {0}}};  // every bit but the one all carry
  for (const Case& c : cases) {
    int32_t n = -1;
    qvVtx* head = qvVtxDeleteFlagged(makeList(flags), c.mask, &n);
    EXPECT_EQ(n, c.deleted) << c.mask;
    EXPECT_EQ(order(head), c.left) << c.mask;
    qvVtxDeleteAll(head);
  }
}

TEST(Records, CreationSetsFlagsAndRefusesWhatCantBeMade) {
  qvVtx* v = qvVtxNew(kVtxHasNormal | kVtxHasParam, nullptr);
  EXPECT_EQ(qvVtxOf(v->dat), v);
  EXPECT_EQ(qvVtxNew(kVtxDerived, nullptr), nullptr);  // no doubles at all

  v->flags |= kVtxMarkBnd;
  v->tag = 5;
  v->dat[2] = 4.5;
  qvVtx* c = qvVtxClone(v);
  EXPECT_EQ(c->flags, v->flags);  // marks included
  EXPECT_EQ(c->tag, 5);
  EXPECT_EQ(c->dat[2], 4.5);
  EXPECT_NE(c->dat, v->dat);

  qvVtx* d = qvVtxNew(kVtxDerived | kVtxHasNormal, nullptr);
  EXPECT_EQ(qvVtxXyz(d), nullptr);  // no owner yet
  EXPECT_EQ(qvVtxNrm(d), d->dat);
  d->link = v;
  EXPECT_EQ(qvVtxXyz(d), v->dat + 2);

  qvEdg* e = qvEdgNew(v->dat, c->dat, kEdgExtended | kEdgRim, 9);
  EXPECT_EQ(e->flags, kEdgPlain | kEdgRim);
  EXPECT_EQ(qvEdgNew(v->dat, c->dat, 0x2000u /* one extra slot */, 0), nullptr);
  qvTri* t = qvTriNew(e, e, e, kTriLongOne | kTriCap);
  EXPECT_EQ(t->flags, kTriLinked | kTriCap);
  qvTriFree(t);
  qvEdgFree(e);
  for (qvVtx* x : {v, c, d}) qvVtxFree(x);
}

TEST(Records, MeshWithoutOwnershipLeavesItsVerticesAlive) {
  qvVtx* head = makeList({0, 0, 0});
  qvMesh* m = qvMeshNew(nullptr, nullptr, head, 0);
  m->topo = qvTopoNew();
  qvMeshFree(m);
  EXPECT_EQ(order(head), (std::vector<int>{2, 1, 0}));  // read after free would trip ASan
  qvMeshDeleteAll(qvMeshNew(nullptr, nullptr, head, kMeshOwnsVtx));
}

// Each triangle as its corners' places in the vertex list and its neighbours'
// places in the triangle list, each edge as its ends' places, in list order.
std::vector<int> shape(const qvMesh* m) {
  std::vector<const void*> vtx, tri;
  for (const qvVtx* v = m->vtx; v; v = v->next) vtx.push_back(v->dat);
  for (const qvTri* t = m->tri; t; t = t->next) tri.push_back(t);
  auto at = [](const std::vector<const void*>& list, const void* p) {
    for (size_t i = 0; i < list.size(); ++i)
      if (list[i] == p) return static_cast<int>(i);
    return -1;
  };
  std::vector<int> out;
  for (const qvTri* t = m->tri; t; t = t->next) {
    double* c[3];
    EXPECT_EQ(qvTriCorners(t, 0, c), 0);
    for (int k = 0; k < 3; ++k) out.insert(out.end(), {at(vtx, c[k]), at(tri, t->adj[k]), static_cast<int>(t->flags)});
  }
  for (const qvEdg* e = m->edg; e; e = e->next)
    out.insert(out.end(), {at(vtx, e->ends[0]), at(vtx, e->ends[1]), static_cast<int>(e->flags)});
  return out;
}

// A flat grid of n x n squares, two faces each: enough records that
// compaction sorts their addresses by digits.
Shape gridShape(int n) {
  Shape s;
  for (int i = 0; i <= n; ++i)
    for (int j = 0; j <= n; ++j) s.pts.push_back({double(i), double(j), 0.0});
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const int a = i * (n + 1) + j, b = a + n + 1;
      s.faces.push_back({a, b, b + 1});
      s.faces.push_back({a, b + 1, a + 1});
    }
  return s;
}

TEST(MeshCompact, ListsRunUpThroughMemoryWithContentsAndOrderKeptAndRefusalsChangeNothing) {
  const Shape grid = gridShape(48);
  for (const Shape* s : {&kOctahedron, &kOpenCone, &kBowTie, &kThreeOnEdge, &grid}) {
    Fixture f(*s);
    // Both lists down through memory.
    auto downwards = [](auto* head) {
      std::vector<decltype(head)> records;
      for (auto* r = head; r; r = r->next) records.push_back(r);
      std::sort(records.begin(), records.end(), std::greater<decltype(head)>());
      for (size_t i = 0; i < records.size(); ++i) {
        records[i]->prev = i > 0 ? records[i - 1] : nullptr;
        records[i]->next = i + 1 < records.size() ? records[i + 1] : nullptr;
      }
      return records[0];
    };
    f.mesh->tri = downwards(f.mesh->tri);
    f.mesh->edg = downwards(f.mesh->edg);
    const std::vector<int> before = shape(f.mesh);
    const qvTri* oldHead = f.mesh->tri;
    const qvEdg* oldEdge = f.mesh->edg;
    f.mesh->tri->next->link = f.mesh->tri;  // a working link: refused
    f.mesh->edg->next->own = f.mesh->tri;
    EXPECT_EQ(qvMeshCompact(f.mesh), -1);
    EXPECT_EQ(qvMeshCompactEdges(f.mesh), -1);
    EXPECT_EQ(f.mesh->tri, oldHead);
    EXPECT_EQ(f.mesh->edg, oldEdge);
    f.mesh->tri->next->link = nullptr;
    f.mesh->edg->next->own = nullptr;
    EXPECT_EQ(shape(f.mesh), before);
    ASSERT_EQ(qvMeshCompact(f.mesh), 0);
    ASSERT_EQ(qvMeshCompactEdges(f.mesh), 0);
    EXPECT_EQ(shape(f.mesh), before);
    for (const qvTri* t = f.mesh->tri; t->next; t = t->next) EXPECT_LT(t, t->next);
    for (const qvEdg* e = f.mesh->edg; e->next; e = e->next) EXPECT_LT(e, e->next);
    EXPECT_EQ(validateText(f.mesh), "");
    f.t.clear();
  }
}
