#include "fixture.h"

#include <algorithm>
#include <cstdlib>
#include <map>

const Shape kTetra = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}},
                      {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}}};
const Shape kOctahedron = {
    {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}},
    {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4}, {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}}};
const Shape kOpenFan = {{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {-1, 1, 0}},
                        {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}}};
const Shape kOpenCone = {{{0, 0, 1}, {1, 0, 0}, {0, 1, 0}, {-1, 0, 0}, {0, -1, 0}},
                         {{0, 1, 2}, {0, 2, 3}, {0, 3, 4}, {0, 4, 1}}};
const Shape kBowTie = {{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {-1, 0, 0}, {-1, -1, 0}},
                       {{0, 1, 2}, {0, 3, 4}}};
const Shape kThreeOnEdge = {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}},
                            {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}}};
const Shape kSquare = {{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}, {{0, 1, 2}, {0, 2, 3}}};

Fixture::Fixture(const Shape& s) {
  mesh = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx | kMeshStitched);
  for (const auto& p : s.pts) {
    qvVtx* x = qvVtxNew(kVtxHasNormal, nullptr);
    std::copy(p.begin(), p.end(), x->dat);
    mesh->vtx = qvVtxConcat(x, mesh->vtx);
    v.push_back(x);
  }
  // Edges with one face so far, by their two points, and that face.
  std::map<std::pair<int, int>, std::pair<qvEdg*, size_t>> single;
  for (size_t fi = 0; fi < s.faces.size(); ++fi) {
    const auto& f = s.faces[fi];
    qvEdg* edge[3];
    long other[3] = {-1, -1, -1};
    for (int k = 0; k < 3; ++k) {
      const int a = f[k], b = f[(k + 1) % 3];
      const auto key = std::minmax(a, b);
      auto it = single.find(key);
      if (it != single.end()) {
        edge[k] = it->second.first;
        other[k] = static_cast<long>(it->second.second);
        single.erase(it);
      } else {
        edge[k] = qvEdgNew(h(a), h(b), 0, 0);
        mesh->edg = qvEdgConcat(edge[k], mesh->edg);
        single[key] = {edge[k], fi};
      }
    }
    t.push_back(qvTriNew(edge[0], edge[1], edge[2], 0));
    mesh->tri = qvTriConcat(t.back(), mesh->tri);
    for (int k = 0; k < 3; ++k)
      if (other[k] >= 0) qvTriLink(t[static_cast<size_t>(other[k])], t.back(), edge[k]);
  }
}

std::string validateText(const qvMesh* mesh, int32_t* n) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  const int32_t count = qvMeshValidate(mesh, out);
  std::fclose(out);
  std::string text(buf, len);
  std::free(buf);
  if (n) *n = count;
  return text;
}
