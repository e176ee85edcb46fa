// Facets made in code for the STL tests, and loaded blocks that release themselves.
#pragma once

#include "stl/stl.h"
#include "support.h"

// Facet i lies at x = i, so every facet is told apart by its coordinates.
inline std::vector<Facet> rampFacets(int count) {
  std::vector<Facet> facets;
  for (int i = 0; i < count; ++i) {
    const float x = static_cast<float>(i);
    facets.push_back({x, 0, 0, x + 1, 2, 0, x, 1, 3});
  }
  return facets;
}

// A block array that releases itself.
struct Blocks {
  FacetBlock *slot[kFacetBlockMax] = {};
  int count = 0;
  ~Blocks() { freeFacetBlocks(slot, count); }
  int load(const std::string &path) { return stlLoadBlocks(path.c_str(), slot, &count); }
  Facet at(int ordinal) const {
    Facet facet;
    std::memcpy(facet.data(), slot[ordinal / kFacetBlockSize]->rec[ordinal % kFacetBlockSize].v, 36);
    return facet;
  }
};
