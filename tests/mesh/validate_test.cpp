// The validator on the fixtures, and on each kind of breakage made on purpose.
#include <gtest/gtest.h>

#include <functional>

#include "fixture.h"
#include "kernels/kernels.h"

namespace {

using Mend = std::function<void()>;

// Sets field to value and returns how to put the old value back.
template <class T, class V>
Mend poke(T& field, V value) {
  T old = field;
  field = value;
  return [&field, old] { field = old; };
}

}  // namespace

TEST(Validate, NonManifoldFixturesAreValidButTwoJoinedEdgesOnOnePairAreNot) {
  for (const Shape* shape : {&kOpenFan, &kBowTie, &kThreeOnEdge, &kSquare}) {
    Fixture f(*shape);
    f.mesh->flags |= kMeshCapDone;  // the mesh's own flag, with a mark's value
    EXPECT_EQ(validateText(f.mesh), "");
  }
  EXPECT_EQ(qvMeshValidate(nullptr, nullptr), 0);
  // Four faces on points 0 and 1, which the fixture joins two and two.
  const Fixture four({{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}},
                      {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}, {1, 0, 5}}});
  EXPECT_NE(validateText(four.mesh).find("invariant 10:"), std::string::npos);
}

// Each case breaks a tetrahedron (faces 0 2 1, 0 1 3, 0 3 2, 1 2 3) or the
// shape it names and returns how to mend it, so that the fixture can be freed.
TEST(Validate, ReportsEachKindOfBreakageByItsInvariant) {
  static double elsewhere[6];
  static double someCache[4];
  static qvMesh otherMesh;
  struct Case {
    const char* name;
    int invariant;
    std::function<Mend(Fixture&)> breakIt;
    const Shape* shape = &kTetra;
  } cases[] = {
      {"prev link", 1, [](Fixture& f) { return poke(f.mesh->vtx->next->prev, nullptr); }},
      {"cyclic edge list", 1, [](Fixture& f) { return poke(qvEdgTail(f.mesh->edg)->next, f.mesh->edg); }},
      {"mesh chain", 1, [](Fixture& f) { return poke(f.mesh->next, &otherMesh); }},
      {"edge in two lists", 2, [](Fixture& f) { return poke(f.mesh->edgHeld, f.mesh->edg->next); }},
      {"held at rest", 2, [](Fixture& f) { return poke(f.mesh->held, f.mesh->vtx); }},
      {"short ndat", 3, [](Fixture& f) { return poke(f.v[0]->ndat, 2); }},
      {"foreign end", 4, [](Fixture& f) { return poke(f.e(0, 1)->ends[0], elsewhere); }},
      {"derived end", 4, [](Fixture& f) { return poke(f.v[3]->flags, f.v[3]->flags | kVtxDerived); }},
      {"first edges apart", 5, [](Fixture& f) { return poke(f.t[0]->edg[1], f.e(1, 3)); }},
      {"adj one way", 6, [](Fixture& f) { return poke(f.t[2]->adj[2], nullptr); }},  // across 0-2
      {"edge in no triangle", 7, [](Fixture& f) {
         qvEdg* e = qvEdgNew(f.h(1), f.h(2), 0, 0);
         f.mesh->edg = qvEdgConcat(e, f.mesh->edg);
         return Mend([&f, e] { f.mesh->edg = qvEdgDelete(f.mesh->edg, e); });
       }},
      // The third face on the first face's edge, as an unstitched soup has
      // it: that edge in 3 triangles, the third face's own in none.
      {"edge of three faces", 7, [](Fixture& f) { return poke(f.t[2]->edg[0], f.t[0]->edg[0]); }, &kThreeOnEdge},
      {"vertex tag", 8, [](Fixture& f) { return poke(f.v[2]->tag, 3); }},
      {"edge own", 8, [](Fixture& f) { return poke(f.mesh->edg->own, f.t[0]); }},
      {"triangle cache", 8, [](Fixture& f) { return poke(f.t[3]->cache, reinterpret_cast<qvTriCache*>(someCache)); }},
      {"vertex mark", 9, [](Fixture& f) { return poke(f.v[1]->flags, f.v[1]->flags | kVtxMarkVisit); }},
  };
  for (const Case& c : cases) {
    Fixture f(*c.shape);
    const Mend mend = c.breakIt(f);
    int32_t n = 0;
    const std::string text = validateText(f.mesh, &n);
    EXPECT_GE(n, 1) << c.name;
    EXPECT_NE(text.find("invariant " + std::to_string(c.invariant) + ":"), std::string::npos)
        << c.name << ":\n" << text;
    mend();
    EXPECT_EQ(validateText(f.mesh), "") << c.name;
  }
}
