// Fuzzes the STL readers: every route reads the same bytes, and where two
// routes must agree (formats, counts, facets, box, orders) a disagreement
// stops the run as a crash.
//   stl_read_fuzz -max_total_time=600 -max_len=8192 fuzz/corpus/stl
#include "stl/stl.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr int kAsciiAccessLimit = 64; // facets read back and forth in an ASCII file, a quadratic walk

void require(bool holds, const char *what) {
  if (!holds) {
    std::fprintf(stderr, "stl_read_fuzz: %s\n", what);
    std::abort();
  }
}

// One scratch file per process, removed at exit.
const std::string &inputPath() {
  static const std::string path = "/tmp/stl_read_fuzz_" + std::to_string(getpid()) + ".stl";
  static const bool removal = std::atexit([] { std::remove(inputPath().c_str()); }) == 0;
  (void)removal;
  return path;
}

const FacetRec &recordAt(FacetBlock *const *blocks, int ordinal) {
  return blocks[ordinal / kFacetBlockSize]->rec[ordinal % kFacetBlockSize];
}

bool sameVertices(const FacetWire &wire, const FacetRec &rec) {
  return std::memcmp(wire.v + 3, rec.v, sizeof rec.v) == 0;
}

// Random access forwards, backwards and one past the end, against the load.
void checkRandomAccess(const char *name, int format, FacetBlock *const *blocks, int loaded) {
  int64_t binaryStatus;
  int asciiStatus;
  FILE *file = format == kStlBinary ? stlOpenBinary(name, &binaryStatus) : stlOpenAscii(name, &asciiStatus);
  require(file != nullptr, "a loaded file opens again");
  const int reach = format == kStlBinary ? loaded : std::min(loaded, kAsciiAccessLimit);
  int position = -1;
  FacetWire wire;
  for (int ordinal = 0; ordinal < reach; ++ordinal) {
    require(stlReadFacetAt(file, format, ordinal, &position, &wire) == 0, "forward read");
    require(sameVertices(wire, recordAt(blocks, ordinal)), "forward read gives the loaded facet");
  }
  for (int ordinal = reach - 1; ordinal >= 0; --ordinal) {
    require(stlReadFacetAt(file, format, ordinal, &position, &wire) == 0, "backward read");
    require(sameVertices(wire, recordAt(blocks, ordinal)), "backward read gives the loaded facet");
  }
  if (reach == loaded) {
    require(stlReadFacetAt(file, format, loaded, &position, &wire) == -1, "no facet past the end");
    require(position == -1, "a failed read resets the cursor");
  }
  std::fclose(file);
}

// Keys against the loaded facets, and the key order against the pointer order.
void checkKeys(const char *name, int format, FacetBlock *const *blocks, int loaded, int axis) {
  int count = format == kStlAscii ? -1 : loaded;
  int keyFormat;
  FacetKey *keys = readFacetKeys(name, axis, &count, &keyFormat);
  require(keyFormat == format, "key reader probes the same format");
  if (!keys) {
    // Only an ASCII file with a terminator before its last facet is refused.
    require(format == kStlAscii && count == -1, "keys refused only for an early terminator");
    return;
  }
  require(count == loaded, "key count equals load count");
  for (int i = 0; i < count; ++i) {
    const float *v = recordAt(blocks, i).v;
    const float key = std::min(std::min(v[axis], v[3 + axis]), v[6 + axis]);
    require(keys[i].ordinal == i && keys[i].key == key, "key of each facet");
  }
  FacetRec **table = sortFacetPointers(blocks, loaded, axis);
  require(table != nullptr && sortFacetKeys(keys, count) == count, "both tables sort");
  for (int i = 0; i < count; ++i) {
    require(table[i] == &recordAt(blocks, keys[i].ordinal), "pointer and key orders agree");
  }
  std::free(table);
  std::free(keys);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *name = inputPath().c_str();
  FILE *out = std::fopen(name, "wb");
  if (!out) {
    return 0;
  }
  std::fwrite(data, 1, size, out);
  std::fclose(out);

  FacetBox box;
  int scanFormat;
  int countFormat;
  const int64_t scanned = stlScan(name, &box, &scanFormat);
  const int64_t counted = stlCount(name, &countFormat);
  const int probe = stlProbeFormat(name);

  require((counted >= 0) == (countFormat != kStlUnknown), "count format tells success");
  require(countFormat != kStlBinary || probe == kStlBinary, "binary by count is binary by probe");
  require(countFormat != kStlAscii || counted == 0 || probe == kStlAscii, "ASCII facets mean an ASCII probe");
  if (scanned >= 0 && scanFormat == kStlBinary) {
    require(countFormat == kStlBinary && counted == scanned, "binary scan and count agree");
  }
  if (scanned >= 0 && scanFormat == kStlAscii && countFormat == kStlAscii) {
    require(counted == scanned, "ASCII scan and count agree");
  }

  FacetBlock *blocks[kFacetBlockMax] = {};
  int blockCount = 0;
  const int loaded = stlLoadBlocks(name, blocks, &blockCount);
  if (counted >= 1) {
    const bool sameRoute = scanned >= 0 && scanFormat == countFormat;
    require(sameRoute ? loaded == scanned : loaded == -1, "load agrees with scan");
  } else {
    require(loaded == counted, "load passes a count below 1 on");
  }
  require(loaded >= 1 ? blockCount == (loaded - 1) / kFacetBlockSize + 1 : blockCount == 0,
          "blocks in use match the load");
  if (loaded >= 1) {
    FacetBox fromBlocks;
    require(facetBoxOfBlocks(blocks, loaded, &fromBlocks) == loaded &&
                std::memcmp(&fromBlocks, &box, sizeof box) == 0,
            "box of blocks equals scanned box");
    checkRandomAccess(name, countFormat, blocks, loaded);
    checkKeys(name, countFormat, blocks, loaded, facetSortAxis(&box));
  }
  freeFacetBlocks(blocks, blockCount);
  return 0;
}
