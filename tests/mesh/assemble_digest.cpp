// Digest of assembly results, for work on the speed of assembly: prints one
// 64-bit hash per model over everything assembly leaves behind, so that two
// builds can be compared line by line. Not a test by itself: run it before
// and after a change and compare the output.
//
//   mesh_assemble_digest [STL...]   the built-in models, then each file given
//
// Per mesh of the chain, in list order: every vertex (flags, tag, ndat, the
// bits of its data, whether link and aux are null), every edge (flags, tag,
// tag2, its ends as vertex indices, whether link and own are null), every
// triangle (flags, tag, edges and neighbours as list indices, whether the
// working fields are null). Indices count across the whole chain.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "soup.h"
#include "support.h"

namespace {

struct Digest {
  uint64_t h = 1469598103934665603ull;  // FNV-1a
  void bytes(const void* p, size_t n) {
    const unsigned char* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ull;
  }
  template <class T>
  void add(T v) {
    bytes(&v, sizeof v);
  }
};

template <class T>
int64_t indexOf(const std::unordered_map<const void*, int64_t>& at, const T* p) {
  if (!p) return -1;
  auto it = at.find(p);
  return it == at.end() ? -2 : it->second;
}

uint64_t digestChain(qvMesh* chain, int32_t result, long counts[4]) {
  std::unordered_map<const void*, int64_t> vi, ei, ti;
  counts[0] = counts[1] = counts[2] = counts[3] = 0;
  for (qvMesh* m = chain; m; m = m->next) {
    ++counts[0];
    for (qvVtx* v = m->vtx; v; v = v->next) vi.emplace(v->dat, counts[1]++);
    for (qvEdg* e = m->edg; e; e = e->next) ei.emplace(e, counts[2]++);
    for (qvTri* t = m->tri; t; t = t->next) ti.emplace(t, counts[3]++);
  }
  Digest d;
  d.add(result);
  for (qvMesh* m = chain; m; m = m->next) {
    d.add(m->flags);
    d.add(m->edgHeld == nullptr);
    d.add(m->triHeld == nullptr);
    d.add(m->held == nullptr);
    for (qvVtx* v = m->vtx; v; v = v->next) {
      d.add(v->flags);
      d.add(v->tag);
      d.add(v->ndat);
      d.bytes(v->dat, sizeof(double) * static_cast<size_t>(v->ndat));
      d.add(v->link == nullptr);
      d.add(v->aux == nullptr);
    }
    for (qvEdg* e = m->edg; e; e = e->next) {
      d.add(e->flags);
      d.add(e->tag);
      d.add(e->tag2);
      d.add(indexOf(vi, e->ends[0]));
      d.add(indexOf(vi, e->ends[1]));
      d.add(e->link == nullptr);
      d.add(e->own == nullptr);
    }
    for (qvTri* t = m->tri; t; t = t->next) {
      d.add(t->flags);
      d.add(t->tag);
      for (int i = 0; i < 3; ++i) {
        d.add(indexOf(ei, t->edg[i]));
        d.add(indexOf(ti, t->adj[i]));
        d.add(t->aux[i] == nullptr);
      }
      d.add(t->link == nullptr);
      d.add(t->cache == nullptr);
    }
  }
  return d.h;
}

void report(const char* name, const std::vector<Corners>& facets, const double* tol) {
  qvMesh* m = soupOf(facets);
  const int32_t result = qvMeshAssemble(m, tol);
  long counts[4];
  const uint64_t h = digestChain(m, result, counts);
  std::printf("%-28s %s %3d shells %8ld vtx %8ld edg %8ld tri  %016llx\n", name, tol ? "tol " : "none", result,
              counts[1], counts[2], counts[3], static_cast<unsigned long long>(h));
  qvMeshDeleteAll(m);
}

// A small generator of our own, so that the soups are the same everywhere.
struct Lcg {
  uint64_t s;
  uint32_t next() {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(s >> 33);
  }
  double unit() { return next() / 4294967296.0; }
};

// A scan-like soup: a torus of float coordinates in shuffled facet order,
// with repeated facets (either way round), facets with two equal corners,
// turned facets, zeros of both signs, a cone apex with many edges, several
// facets on one edge, and two solids touching along an edge and at a point.
std::vector<Corners> scanSoup(int n, int m, uint64_t seed) {
  Lcg r{seed};
  std::vector<Corners> out;
  for (const Corners& c : cornersOf(torusShape(n, m))) {
    Corners f;
    for (int i = 0; i < 9; ++i) f[i] = static_cast<float>(c[i] * 3.0);
    out.push_back(f);
  }
  const size_t base = out.size();
  for (size_t i = 0; i < base / 50; ++i) {
    Corners f = out[r.next() % base];
    if (r.next() % 2) std::swap_ranges(f.begin() + 3, f.begin() + 6, f.begin() + 6);
    out.push_back(f);
  }
  for (size_t i = 0; i < base / 200; ++i) {
    Corners f = out[r.next() % base];
    std::copy(f.begin(), f.begin() + 3, f.begin() + 3);
    out.push_back(f);
  }
  for (size_t i = 0; i < base / 300; ++i) {
    Corners& f = out[r.next() % base];
    std::swap_ranges(f.begin() + 3, f.begin() + 6, f.begin() + 6);
  }
  // A cone of 64 facets with its apex at -0.0 and +0.0 by turns.
  for (int i = 0; i < 64; ++i) {
    const double u0 = 6.283185307179586 * i / 64, u1 = 6.283185307179586 * (i + 1) / 64;
    const double z0 = i % 2 ? -0.0 : 0.0;
    out.push_back({0.0, z0, 10.0, 12 + std::cos(u0), std::sin(u0), 9.0, 12 + std::cos(u1), std::sin(u1), 9.0});
    out.back()[0] = 12.0;
  }
  // Twenty facets on one edge, as a fan of fins.
  for (int i = 0; i < 20; ++i) {
    const double u = 6.283185307179586 * i / 20;
    out.push_back({20, 0, 0, 20, 0, 1, 20 + std::cos(u), std::sin(u), 0.5});
  }
  // Two cubes along an edge, two at a point.
  const Shape cube{{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}},
                   {{0, 2, 1}, {0, 3, 2}, {4, 5, 6}, {4, 6, 7}, {0, 1, 5}, {0, 5, 4},
                    {1, 2, 6}, {1, 6, 5}, {2, 3, 7}, {2, 7, 6}, {3, 0, 4}, {3, 4, 7}}};
  const double at[4][3] = {{30, 0, 0}, {31, 1, 0}, {40, 0, 0}, {41, 1, 1}};
  for (const auto& a : at)
    for (Corners c : cornersOf(cube)) {
      for (int k = 0; k < 9; ++k) c[k] += a[k % 3];
      out.push_back(c);
    }
  for (size_t i = out.size() - 1; i > 0; --i) std::swap(out[i], out[r.next() % (i + 1)]);
  // Near-coincident copies for the weld with a tolerance.
  for (size_t i = 0; i < out.size() / 100; ++i) {
    Corners f = out[r.next() % out.size()];
    for (double& x : f) x += (r.unit() - 0.5) * 1e-7;
    out.push_back(f);
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const double pair[2] = {kWeldTol, kWeldTol2};
  const char* files[] = {"bunny.stl", "torus.stl", "gearwheel.stl", "two-cubes-edge.stl", "sphere.stl",
                         "terrain.stl", "plate-hole.stl", "cube.stl", "tetrahedron.stl", "unitCube.stl"};
  for (const char* f : files) {
    const std::vector<Corners> facets = readStl(f);
    report(f, facets, nullptr);
    report(f, facets, pair);
  }
  const Shape shapes[] = {moebiusShape(12), joined(torusShape(8, 5), torusShape(6, 4), 0.0), tubeShape(40, 1, 0)};
  const char* names[] = {"moebius", "two tori", "closed tube"};
  for (int i = 0; i < 3; ++i) {
    report(names[i], cornersOf(shapes[i]), nullptr);
    report(names[i], cornersOf(shapes[i]), pair);
  }
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    const std::vector<Corners> soup = scanSoup(120 + 40 * static_cast<int>(seed), 60, seed);
    char name[32];
    std::snprintf(name, sizeof name, "scan soup %d", static_cast<int>(seed));
    report(name, soup, nullptr);
    report(name, soup, pair);
  }
  for (int i = 1; i < argc; ++i) {
    std::vector<Corners> facets;
    for (const Facet& f : readBinaryFacets(argv[i]))
      facets.push_back({f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8]});
    report(argv[i], facets, nullptr);
  }
  return 0;
}
