// Surfaces built in code for the measure tests, as facet soups of nine floats
// per facet, and the little needed to weld them or write them as binary STL.
#pragma once

#include "measure/measure.h"
#include "support.h"

namespace fixture {

using Soup = std::vector<float>;

inline void tri(Soup &s, const float a[3], const float b[3], const float c[3]) {
  s.insert(s.end(), a, a + 3);
  s.insert(s.end(), b, b + 3);
  s.insert(s.end(), c, c + 3);
}

// The square [-1, 1]^2 at z = 0 as two facets split along the diagonal from
// (-1, -1) to (1, 1); with h > 0, four facets rising to an apex (0, 0, h).
inline Soup square(float h) {
  const float c[4][3] = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}};
  const float apex[3] = {0, 0, h};
  Soup s;
  if (h == 0) {
    tri(s, c[0], c[1], c[2]);
    tri(s, c[0], c[2], c[3]);
  } else {
    for (int k = 0; k < 4; ++k) {
      tri(s, c[k], c[(k + 1) % 4], apex);
    }
  }
  return s;
}

// Open n x n grid of unit squares at z = 0, two facets each.
inline Soup sheet(int n) {
  Soup s;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      const float a[3] = {float(i), float(j), 0};
      const float b[3] = {float(i + 1), float(j), 0};
      const float c[3] = {float(i + 1), float(j + 1), 0};
      const float d[3] = {float(i), float(j + 1), 0};
      tri(s, a, b, c);
      tri(s, a, c, d);
    }
  }
  return s;
}

// A welded mesh with its topology, released with the object.
struct Welded {
  MeasureMesh mesh = {};
  MeasureTopo topo = {};
  int64_t status = 0;
  explicit Welded(const Soup &s) {
    status = measureWeld(s.data(), static_cast<int64_t>(s.size() / 9), &mesh);
    if (status >= 0) {
      status = measureTopology(&mesh, &topo);
    }
  }
  Welded(const Welded &) = delete;
  Welded &operator=(const Welded &) = delete;
  ~Welded() { measureMeshFree(&mesh); }
};

inline std::vector<Facet> facets(const Soup &s) {
  return {reinterpret_cast<const Facet *>(s.data()), reinterpret_cast<const Facet *>(s.data() + s.size())};
}

inline void writeStl(const std::string &path, const Soup &s) { writeBytes(path, binaryStl(facets(s))); }

} // namespace fixture
