// Test files made in code: a private temporary directory, binary STL written
// byte by byte, ASCII STL as text, and an independent binary reader.
#pragma once

#include "stl/stl.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

using Facet = std::array<float, 9>;

// One directory per test program, removed at exit.
inline std::string tempPath(const std::string &leaf) {
  static const std::string dir = [] {
    char pattern[] = "/tmp/ft_stl_test_XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  static const struct Cleanup {
    ~Cleanup() { std::filesystem::remove_all(dir); }
  } cleanup;
  return dir + "/" + leaf;
}

inline std::string dataPath(const char *leaf) { return std::string(FT_TEST_DATA) + "/" + leaf; }

inline void writeBytes(const std::string &path, const std::string &bytes) {
  FILE *file = std::fopen(path.c_str(), "wb");
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
}

inline void appendWord(std::string *bytes, uint32_t word) {
  for (int i = 0; i < 4; ++i) {
    bytes->push_back(static_cast<char>(word >> (8 * i)));
  }
}

// Binary STL: header text, count (the true one plus countDelta), records with
// the given normal, then `trailing` bytes of rubbish.
inline std::string binaryStl(const std::vector<Facet> &facets, const std::string &header = "test",
                             int countDelta = 0, size_t trailing = 0, float normal = 0.0f) {
  std::string bytes = header;
  bytes.resize(80, '\0');
  appendWord(&bytes, static_cast<uint32_t>(facets.size() + countDelta));
  for (const Facet &facet : facets) {
    float record[12] = {normal, normal, normal};
    std::memcpy(record + 3, facet.data(), sizeof(Facet));
    bytes.append(reinterpret_cast<const char *>(record), sizeof record).append(2, '\0');
  }
  return bytes + std::string(trailing, 'x');
}

inline std::string asciiFacet(const Facet &f) {
  char text[400];
  std::snprintf(text, sizeof text,
                "facet normal 0 0 1\n outer loop\n  vertex %.9g %.9g %.9g\n  vertex %.9g %.9g %.9g\n"
                "  vertex %.9g %.9g %.9g\n endloop\nendfacet\n",
                f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8]);
  return text;
}

inline std::string asciiStl(const std::vector<Facet> &facets) {
  std::string text = "solid test\n";
  for (const Facet &facet : facets) {
    text += asciiFacet(facet);
  }
  return text + "endsolid test\n";
}

// The vertices of a binary STL, read without the library.
inline std::vector<Facet> readBinaryFacets(const std::string &path) {
  std::vector<Facet> facets;
  FILE *file = std::fopen(path.c_str(), "rb");
  unsigned char record[50];
  std::fseek(file, 84, SEEK_SET);
  while (std::fread(record, 1, 50, file) == 50) {
    std::memcpy(facets.emplace_back().data(), record + 12, 36);
  }
  std::fclose(file);
  return facets;
}

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
