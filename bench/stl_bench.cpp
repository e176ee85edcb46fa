// Benchmark of the STL readers and the facet store, one operation per run so
// that the peak resident size belongs to that operation alone.
//
//   stl_bench gen-binary FILE COUNT | gen-ascii FILE COUNT
//   stl_bench scan|load|keys FILE
//
// A timed run prints one line: seconds, facets, file bytes, peak RSS in KiB.
#include "stl/stl.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A ribbon of facets along x with a little noise, longest on x, shuffled in
// blocks so the sort has work to do. Deterministic.
void facetOf(int64_t i, float *v) {
  uint64_t state = static_cast<uint64_t>(i) * 6364136223846793005ull + 1442695040888963407ull;
  auto noise = [&state] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<float>(state >> 40) / static_cast<float>(1 << 24);
  };
  const float x = static_cast<float>((i * 7919) % 1000003) * 0.01f;
  for (int corner = 0; corner < 3; ++corner) {
    v[3 * corner] = x + noise();
    v[3 * corner + 1] = 50.0f * noise();
    v[3 * corner + 2] = 20.0f * noise();
  }
}

int generate(const char *kind, const char *name, int64_t count) {
  FILE *file = std::fopen(name, std::strcmp(kind, "gen-binary") == 0 ? "wb" : "w");
  if (!file) {
    return 1;
  }
  float v[9];
  if (std::strcmp(kind, "gen-binary") == 0) {
    unsigned char head[84] = {};
    const uint32_t count32 = static_cast<uint32_t>(count);
    std::memcpy(head + 80, &count32, 4);
    std::fwrite(head, 1, sizeof head, file);
    unsigned char record[50] = {};
    for (int64_t i = 0; i < count; ++i) {
      facetOf(i, v);
      std::memcpy(record + 12, v, sizeof v);
      std::fwrite(record, 1, sizeof record, file);
    }
  } else {
    std::fputs("solid bench\n", file);
    for (int64_t i = 0; i < count; ++i) {
      facetOf(i, v);
      std::fprintf(file,
                   "  facet normal %e %e %e\n    outer loop\n      vertex %e %e %e\n"
                   "      vertex %e %e %e\n      vertex %e %e %e\n    endloop\n  endfacet\n",
                   0.0, 0.0, 1.0, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]);
    }
    std::fputs("endsolid bench\n", file);
  }
  return std::fclose(file) == 0 ? 0 : 1;
}

int64_t timed(const char *operation, const char *name) {
  if (std::strcmp(operation, "scan") == 0) {
    FacetBox box;
    return stlScan(name, &box, nullptr);
  }
  if (std::strcmp(operation, "load") == 0) {
    FacetBlock *blocks[kFacetBlockMax] = {};
    int blockCount = 0;
    const int count = stlLoadBlocks(name, blocks, &blockCount);
    FacetBox box;
    FacetRec **table = nullptr;
    if (facetBoxOfBlocks(blocks, count, &box) == count && count > 0) {
      table = sortFacetPointers(blocks, count, facetSortAxis(&box));
    }
    const int64_t result = table ? count : -1;
    std::free(table);
    freeFacetBlocks(blocks, blockCount);
    return result;
  }
  int count = -1;
  int format;
  FacetKey *keys = readFacetKeys(name, 0, &count, &format);
  const int64_t result = keys && sortFacetKeys(keys, count) == count ? count : -1;
  std::free(keys);
  return result;
}

} // namespace

int main(int argc, char **argv) {
  if (argc == 4 && std::strncmp(argv[1], "gen-", 4) == 0) {
    return generate(argv[1], argv[2], std::atoll(argv[3]));
  }
  if (argc != 3) {
    std::fprintf(stderr, "usage: stl_bench gen-binary|gen-ascii FILE COUNT | scan|load|keys FILE\n");
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  const int64_t facets = timed(argv[1], argv[2]);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  struct stat info;
  struct rusage usage;
  if (facets < 0 || stat(argv[2], &info) != 0 || getrusage(RUSAGE_SELF, &usage) != 0) {
    std::fprintf(stderr, "stl_bench: %s failed on %s (%lld)\n", argv[1], argv[2],
                 static_cast<long long>(facets));
    return 1;
  }
  std::printf("%.4f %lld %lld %ld\n", seconds, static_cast<long long>(facets),
              static_cast<long long>(info.st_size), usage.ru_maxrss);
  return 0;
}
