// Benchmark helpers for the reduction drivers; run them through bench/passthrough.sh.
//
//   drivers_bench gen FILE COUNT   a binary height field of about COUNT facets
//   drivers_bench plate FILE COUNT a flat plate, the same grid at height 0
//   drivers_bench block FILE [N]   block N (default 0): meshFromPointers, then qvMeshAssemble;
//                                  then assembleFromPointers, as the block route assembles
//   drivers_bench check FILE       the whole file assembled as -qh does it, each shell validated
//                                  and every vertex checked for one fan of triangles
//
// `block` sorts the file's facets as the in-memory route does, takes run N of
// kFacetBlockSize, and prints one line per phase (processor seconds, facets/s, heap in
// use at its end per facet), then the peak resident bytes per facet that
// building and assembly added.
#include "mesh/qvMesh.h"
#include "stl/stl.h"

#include <malloc.h>

#include <algorithm>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

namespace {

// A wavy height field of nx by ny quads, two facets each, longest along x.
// The facets go to the file row by row along x, so the sort along x gathers
// every run from all over the file, as for a scan stored along its longest
// extent: the hard case for the streamed route's fetches.
int generate(const char *name, int64_t count, double amplitude) {
  const int64_t ny = std::max<int64_t>(1, static_cast<int64_t>(std::sqrt(count / 8.0)));
  const int64_t nx = std::max<int64_t>(1, count / (2 * ny));
  FILE *file = std::fopen(name, "wb");
  if (!file) {
    return 1;
  }
  unsigned char head[84] = {};
  const uint32_t facets = static_cast<uint32_t>(2 * nx * ny);
  std::memcpy(head + 80, &facets, 4);
  bool ok = std::fwrite(head, 1, sizeof head, file) == sizeof head;
  auto height = [amplitude](int64_t x, int64_t y) {
    return static_cast<float>(std::sin(0.01 * static_cast<double>(x)) * std::cos(0.013 * static_cast<double>(y)) * amplitude);
  };
  unsigned char record[50] = {};
  auto put = [&](int64_t ax, int64_t ay, int64_t bx, int64_t by, int64_t cx, int64_t cy) {
    const float v[9] = {static_cast<float>(ax), static_cast<float>(ay), height(ax, ay),
                        static_cast<float>(bx), static_cast<float>(by), height(bx, by),
                        static_cast<float>(cx), static_cast<float>(cy), height(cx, cy)};
    std::memcpy(record + 12, v, sizeof v);
    ok = ok && std::fwrite(record, 1, sizeof record, file) == sizeof record;
  };
  for (int64_t y = 0; y < ny; ++y) {
    for (int64_t x = 0; x < nx; ++x) {
      put(x, y, x + 1, y, x + 1, y + 1);
      put(x, y, x + 1, y + 1, x, y + 1);
    }
  }
  return std::fclose(file) == 0 && ok ? 0 : 1;
}

// Processor time of this single-threaded process: on a shared machine it
// tells more than the wall clock.
double now() {
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double heapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

// A field of /proc/self/status in KiB, or -1.
long statusKiB(const char *field) {
  FILE *file = std::fopen("/proc/self/status", "r");
  char line[256];
  long value = -1;
  while (file && std::fgets(line, sizeof line, file)) {
    if (std::strncmp(line, field, std::strlen(field)) == 0) {
      value = std::atol(line + std::strlen(field) + 1);
    }
  }
  if (file) {
    std::fclose(file);
  }
  return value;
}

void phase(const char *name, double seconds, int facets) {
  std::printf("%-20s %8.4f cpu s %10.0f facets/s %6.0f heap bytes/facet at its end\n", name, seconds,
              facets / seconds, heapBytes() / facets);
}

int block(const char *name, int index) {
  FacetBlock *blocks[kFacetBlockMax] = {};
  int blockCount = 0;
  const int count = stlLoadBlocks(name, blocks, &blockCount);
  FacetBox box;
  if (count < 1 || facetBoxOfBlocks(blocks, count, &box) != count) {
    return 1;
  }
  FacetRec **table = sortFacetPointers(blocks, count, facetSortAxis(&box));
  const int first = index * kFacetBlockSize;
  const int size = std::min(count - first, kFacetBlockSize);
  if (size < 1) {
    return 1;
  }
  // The run is copied so that the heap holds nothing else but the mesh.
  auto *run = static_cast<FacetRec *>(std::malloc(sizeof(FacetRec) * size));
  auto **pointers = static_cast<FacetRec **>(std::malloc(sizeof(FacetRec *) * size));
  for (int i = 0; i < size; ++i) {
    run[i] = *table[first + i];
    pointers[i] = &run[i];
  }
  std::free(table);
  freeFacetBlocks(blocks, blockCount);
  malloc_trim(0);
  // From here on the peak resident size counts the mesh alone (Linux resets
  // it on writing 5 to clear_refs).
  FILE *clear = std::fopen("/proc/self/clear_refs", "w");
  if (clear) {
    std::fputs("5", clear);
    std::fclose(clear);
  }
  const long baseline = statusKiB("VmRSS:");

  double start = now();
  int status;
  qvMesh *mesh = meshFromPointers(pointers, size, &status);
  phase("meshFromPointers", now() - start, size);
  start = now();
  const int shells = qvMeshAssemble(mesh, nullptr);
  phase("qvMeshAssemble", now() - start, size);
  const long peak = statusKiB("VmHWM:");
  start = now();
  qvMeshDeleteAll(mesh);
  phase("release", now() - start, size);
  std::printf("%d facets, %d shells, peak resident bytes/facet of building and assembly %.0f\n",
              size, shells, (peak - baseline) * 1024.0 / size);
  // The block route's way: the run assembled straight from its facets.
  malloc_trim(0);
  clear = std::fopen("/proc/self/clear_refs", "w");
  if (clear) {
    std::fputs("5", clear);
    std::fclose(clear);
  }
  const long before = statusKiB("VmRSS:");
  start = now();
  int direct = -1;
  mesh = assembleFromPointers(pointers, size, &direct);
  phase("assembleFromPointers", now() - start, size);
  const long directPeak = statusKiB("VmHWM:");
  qvMeshDeleteAll(mesh);
  std::free(pointers);
  std::free(run);
  std::printf("%d shells, peak resident bytes/facet of assembly from facets %.0f\n", direct,
              (directPeak - before) * 1024.0 / size);
  return shells < 1 || direct != shells;
}

int countTri(qvTri *, void *ctx) {
  ++*static_cast<int *>(ctx);
  return 0;
}

// Validator violations plus vertices whose triangles are not all in the fan
// walked from one of them, over every shell of the assembled file.
int check(const char *name) {
  int64_t status = 0;
  qvMesh *chain = stlReadMesh(name, &status);
  const int shells = chain && status >= 0 ? qvMeshAssemble(chain, nullptr) : -1;
  if (shells < 0) {
    std::printf("assembly failed\n");
    qvMeshDeleteAll(chain);
    return 1;
  }
  long violations = 0, split = 0, vertices = 0;
  for (qvMesh *m = shells > 0 ? chain : nullptr; m; m = m->next) {
    violations += qvMeshValidate(m, violations < 20 ? stdout : nullptr);
    std::unordered_map<const double *, std::vector<qvTri *>> star;
    for (qvTri *t = m->tri; t; t = t->next) {
      double *c[3];
      if (qvTriCorners(t, 0, c) == 0) {
        for (double *h : c) {
          star[h].push_back(t);
        }
      }
    }
    for (const auto &hub : star) {
      int walked = 0;
      const int walk = qvFanWalk(hub.second.front(), hub.first, countTri, &walked);
      ++vertices;
      if ((walk != 0 && walk != -1) || walked != static_cast<int>(hub.second.size())) {
        if (split < 20) {
          std::printf("vertex %p: %zu triangles, fan walk %d reached %d\n", static_cast<const void *>(hub.first),
                      hub.second.size(), walk, walked);
        }
        ++split;
      }
    }
  }
  std::printf("%d shells, %ld vertices, %ld validator violations, %ld vertices of more than one fan\n", shells,
              vertices, violations, split);
  qvMeshDeleteAll(chain);
  return violations + split > 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc == 4 && std::strcmp(argv[1], "gen") == 0) {
    return generate(argv[2], std::atoll(argv[3]), 5.0);
  }
  if (argc == 4 && std::strcmp(argv[1], "plate") == 0) {
    return generate(argv[2], std::atoll(argv[3]), 0.0);
  }
  if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "block") == 0) {
    return block(argv[2], argc == 4 ? std::atoi(argv[3]) : 0);
  }
  if (argc == 3 && std::strcmp(argv[1], "check") == 0) {
    return check(argv[2]);
  }
  std::fprintf(stderr, "usage: drivers_bench gen|plate FILE COUNT | block FILE [N] | check FILE\n");
  return 2;
}
