// Test files made in code: a private temporary directory, binary STL written
// byte by byte, ASCII STL as text, and an independent binary reader.
#pragma once

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
    std::string made = mkdtemp(pattern);
    return made;
  }();
  static struct Cleanup {
    ~Cleanup() { std::filesystem::remove_all(dir); }
  } cleanup;
  return dir + "/" + leaf;
}

inline void writeBytes(const std::string &path, const std::string &bytes) {
  FILE *file = std::fopen(path.c_str(), "wb");
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
}

inline void appendU32(std::string *bytes, uint32_t word) {
  for (int i = 0; i < 4; ++i) {
    bytes->push_back(static_cast<char>(word >> (8 * i)));
  }
}

inline void appendF32(std::string *bytes, float value) {
  uint32_t word;
  std::memcpy(&word, &value, 4);
  appendU32(bytes, word);
}

// Binary STL: header text, count (the true one plus countDelta), records with
// the given normal, then `trailing` bytes of rubbish.
inline std::string binaryStl(const std::vector<Facet> &facets, const std::string &header = "test",
                             int countDelta = 0, size_t trailing = 0, float normal = 0.0f) {
  std::string bytes = header;
  bytes.resize(80, '\0');
  appendU32(&bytes, static_cast<uint32_t>(facets.size() + countDelta));
  for (const Facet &facet : facets) {
    for (int i = 0; i < 3; ++i) {
      appendF32(&bytes, normal);
    }
    for (float value : facet) {
      appendF32(&bytes, value);
    }
    bytes += std::string(2, '\0');
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

// Reads the vertices of a binary STL without the library.
inline std::vector<Facet> readBinaryFacets(const std::string &path) {
  std::vector<Facet> facets;
  FILE *file = std::fopen(path.c_str(), "rb");
  unsigned char record[50];
  std::fseek(file, 84, SEEK_SET);
  while (std::fread(record, 1, 50, file) == 50) {
    Facet facet;
    std::memcpy(facet.data(), record + 12, 36);
    facets.push_back(facet);
  }
  std::fclose(file);
  return facets;
}

inline std::string dataPath(const char *leaf) { return std::string(FT_TEST_DATA) + "/" + leaf; }
