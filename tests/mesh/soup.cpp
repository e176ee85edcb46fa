#include "soup.h"
#include "support.h"

#include <cmath>

qvMesh* soupOf(const std::vector<Corners>& facets) {
  qvMesh* m = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
  for (const Corners& f : facets) {
    qvVtx* c[3];
    for (int k = 0; k < 3; ++k) {
      c[k] = qvVtxNew(kVtxHasNormal, nullptr);
      for (int i = 0; i < 6; ++i) c[k]->dat[i] = i < 3 ? f[3 * k + i] : 0.0;
    }
    if (qvMeshAddFacet(m, c) != 0) std::abort();
  }
  m->tri = qvTriReverse(m->tri);
  return m;
}

std::vector<Corners> cornersOf(const Shape& s) {
  std::vector<Corners> out;
  for (const auto& f : s.faces) {
    Corners c;
    for (int k = 0; k < 3; ++k)
      for (int i = 0; i < 3; ++i) c[3 * k + i] = s.pts[f[k]][i];
    out.push_back(c);
  }
  return out;
}

std::vector<Corners> readStl(const std::string& name) {
  std::vector<Corners> out;
  for (const Facet& f : readBinaryFacets(dataPath(name.c_str())))
    out.push_back({f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8]});
  return out;
}

std::vector<Corners> refine(const std::vector<Corners>& facets) {
  std::vector<Corners> out;
  for (const Corners& f : facets) {
    double p[6][3];
    for (int k = 0; k < 9; ++k) p[k / 3][k % 3] = f[k];
    for (int k = 0; k < 3; ++k)
      for (int a = 0; a < 3; ++a) p[3 + k][a] = (p[k][a] + p[(k + 1) % 3][a]) * 0.5;
    for (const auto& t : {std::array<int, 3>{0, 3, 5}, {3, 1, 4}, {5, 4, 2}, {3, 4, 5}}) {
      Corners c;
      for (int k = 0; k < 9; ++k) c[k] = p[t[k / 3]][k % 3];
      out.push_back(c);
    }
  }
  return out;
}

namespace {
const double kPi = std::acos(-1.0);
}

Shape torusShape(int n, int m) {
  Shape s;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < m; ++j) {
      const double u = 2 * kPi * i / n, v = 2 * kPi * j / m;
      s.pts.push_back({(3 + std::cos(v)) * std::cos(u), (3 + std::cos(v)) * std::sin(u), std::sin(v)});
    }
  auto at = [&](int i, int j) { return (i % n) * m + j % m; };
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < m; ++j) {
      s.faces.push_back({at(i, j), at(i + 1, j), at(i + 1, j + 1)});
      s.faces.push_back({at(i, j), at(i + 1, j + 1), at(i, j + 1)});
    }
  return s;
}

Shape moebiusShape(int n) {
  Shape s;
  for (int i = 0; i < n; ++i) {
    const double u = 2 * kPi * i / n, c = std::cos(u / 2), sn = std::sin(u / 2);
    for (double w : {-0.5, 0.5})
      s.pts.push_back({(2 + w * c) * std::cos(u), (2 + w * c) * std::sin(u), w * sn});
  }
  // Column i has points 2i (w -0.5) and 2i+1; past the last column the strip
  // comes back to column 0 turned over.
  for (int i = 0; i < n; ++i) {
    const int a = 2 * i, b = 2 * i + 1;
    const int c = i + 1 < n ? 2 * i + 2 : 1, d = i + 1 < n ? 2 * i + 3 : 0;
    s.faces.push_back({a, c, d});
    s.faces.push_back({a, d, b});
  }
  return s;
}

Shape tubeShape(int n, double r0, double r1) {
  Shape s;
  for (int i = 0; i < n; ++i) {
    const double u = 2 * kPi * i / n;
    s.pts.push_back({r0 * std::cos(u), r0 * std::sin(u), 0});
    s.pts.push_back({r1 * std::cos(u), r1 * std::sin(u), 1});
  }
  for (int i = 0; i < n; ++i) {
    const int a = 2 * i, b = 2 * i + 1, c = 2 * ((i + 1) % n), d = c + 1;
    s.faces.push_back({a, c, d});
    s.faces.push_back({a, d, b});
  }
  return s;
}

Shape stripShape(int n) {
  Shape s;
  for (int i = 0; i < n + 2; ++i) s.pts.push_back({double(i), double(i % 2), 0});
  for (int i = 0; i < n; ++i) s.faces.push_back({i, i + 1 + i % 2, i + 2 - i % 2});
  return s;
}

Shape joined(const Shape& a, const Shape& b, double dx) {
  Shape s = a;
  const int off = static_cast<int>(a.pts.size());
  for (auto p : b.pts) s.pts.push_back({p[0] + dx, p[1], p[2]});
  for (auto f : b.faces) s.faces.push_back({f[0] + off, f[1] + off, f[2] + off});
  return s;
}

ChainSum analyse(qvMesh* chain) {
  ChainSum s;
  for (qvMesh* m = chain; m; m = m->next) {
    qvTopo t{};
    t.result = qvMeshTopo(m, &t);
    ++s.shells;
    s.nVtx += t.nVtx;
    s.nEdg += t.nEdg;
    s.nTri += t.nTri;
    s.nBnd += t.nBnd;
    s.bad += t.result != 0;
    s.invalid += qvMeshValidate(m, stderr);
  }
  return s;
}
