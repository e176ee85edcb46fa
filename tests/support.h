// Helpers shared by the test folders, free of product code: a private
// temporary directory, whole files as bytes, binary STL written byte by byte,
// ASCII STL as text, tetrahedra and boxes, an independent binary reader, and a
// shell command run with its standard output captured.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using Facet = std::array<float, 9>;

// One directory per test program, removed at exit.
inline std::string tempPath(const std::string &leaf) {
  static const std::string dir = [] {
    char pattern[] = "/tmp/ft_test_XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  static const struct Cleanup {
    ~Cleanup() { std::filesystem::remove_all(dir); }
  } cleanup;
  return dir + "/" + leaf;
}

inline std::string dataPath(const char *leaf) { return std::string(FT_TEST_DATA) + "/" + leaf; }

inline std::string fileBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeBytes(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline void appendWord(std::string *bytes, uint32_t word) {
  for (int i = 0; i < 4; ++i) bytes->push_back(static_cast<char>(word >> (8 * i)));
}

// Binary STL: header text, count (the true one plus countDelta), records with
// the given normal, then `trailing` bytes of rubbish. Assumes a little-endian host.
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
  for (const Facet &facet : facets) text += asciiFacet(facet);
  return text + "endsolid test\n";
}

// A closed tetrahedron whose four facets all have x = base as sort key.
inline std::vector<Facet> tetrahedron(float base = 0) {
  const float b = base + 1;
  return {{base, 0, 0, base, 1, 0, b, 0, 0}, {base, 0, 0, b, 0, 0, base, 0, 1},
          {b, 0, 0, base, 1, 0, base, 0, 1}, {base, 0, 0, base, 0, 1, base, 1, 0}};
}

// Closed tetrahedra two units apart along x, then lone facets beyond them to
// make up count.
inline std::vector<Facet> tetrahedra(int count) {
  std::vector<Facet> facets;
  for (int i = 0; i + 4 <= count; i += 4)
    for (const Facet &facet : tetrahedron(static_cast<float>(i / 2))) facets.push_back(facet);
  for (float x = static_cast<float>(count); static_cast<int>(facets.size()) < count; x += 2)
    facets.push_back({x, 0, 0, x + 1, 0, 0, x, 1, 0});
  return facets;
}

// Box from lo to hi, faces turned outwards, two facets a face; without its top
// face (z = hi) when open. Corner i takes hi on axis k where bit k of i is set.
inline std::vector<Facet> boxFacets(std::array<float, 3> lo, std::array<float, 3> hi, bool open = false) {
  static const int quads[6][4] = {{0, 2, 3, 1}, {0, 1, 5, 4}, {2, 6, 7, 3},
                                  {0, 4, 6, 2}, {1, 3, 7, 5}, {4, 5, 7, 6}};
  std::vector<Facet> facets;
  for (int f = 0; f < (open ? 5 : 6); ++f)
    for (int half = 0; half < 2; ++half) {
      const int corners[3] = {quads[f][0], quads[f][1 + half], quads[f][2 + half]};
      Facet &facet = facets.emplace_back();
      for (int v = 0; v < 3; ++v)
        for (int k = 0; k < 3; ++k) facet[3 * v + k] = (corners[v] >> k & 1) ? hi[k] : lo[k];
    }
  return facets;
}

// The count field of a binary STL, or -1 for a file shorter than a header.
inline int64_t countField(const std::string &path) {
  const std::string bytes = fileBytes(path);
  if (bytes.size() < 84) return -1;
  uint32_t count;
  std::memcpy(&count, bytes.data() + 80, 4);
  return count;
}

// The vertices of a binary STL, read without the library.
inline std::vector<Facet> readBinaryFacets(const std::string &path) {
  const std::string bytes = fileBytes(path);
  std::vector<Facet> facets;
  for (size_t at = 84; at + 50 <= bytes.size(); at += 50)
    std::memcpy(facets.emplace_back().data(), bytes.data() + at + 12, 36);
  return facets;
}

// Runs command through the shell; its exit status, -1 if it did not exit.
inline int runCommand(const std::string &command, std::string *out = nullptr) {
  FILE *pipe = popen(command.c_str(), "r");
  std::string text;
  char buffer[4096];
  for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, got);
  const int status = pclose(pipe);
  if (out) *out = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
