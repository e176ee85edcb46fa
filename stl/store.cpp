// Facet store and ordering: the sort axis, the box of loaded blocks, the sorted
// pointer table of the in-memory route and the key table of the streamed route.
//
// Both tables are put in order by one routine over (key, ordinal) pairs, so
// facets with equal keys keep their order in the file, and the two routes
// order every file identically.
#include "kernels/alloc.h"
#include "stl/stl_internal.h"

#include <cstdlib>

using namespace stl_detail;

namespace {

constexpr uint32_t kSignBit = 0x80000000u; // top bit of a 32-bit word: sign of a float or an int32
constexpr int kRadixMinimum = 1024; // shorter tables are sorted by comparison

// ---- Axis and box -----------------------------------------------------------

FacetRec *recordAt(FacetBlock *const *blocks, int ordinal) {
  return &blocks[ordinal / kFacetBlockSize]->rec[ordinal % kFacetBlockSize];
}

// True when the blocks that hold `count` facets are all there.
bool blocksPresent(FacetBlock *const *blocks, int count) {
  for (int block = 0; block <= (count - 1) / kFacetBlockSize; ++block) {
    if (!blocks[block]) {
      return false;
    }
  }
  return true;
}

// ---- Ordering ---------------------------------------------------------------

// An unsigned image of a float that orders as the float compares. Minus zero
// compares equal to zero, so both get one image.
uint32_t orderImage(float key) {
  if (key == 0.0f) {
    key = 0.0f;
  }
  uint32_t bits;
  std::memcpy(&bits, &key, sizeof bits);
  return (bits & kSignBit) ? ~bits : bits | kSignBit;
}

bool keyBefore(const FacetKey &a, const FacetKey &b) {
  const uint32_t imageA = orderImage(a.key);
  const uint32_t imageB = orderImage(b.key);
  return imageA != imageB ? imageA < imageB : a.ordinal < b.ordinal;
}

uint32_t radixImage(const FacetKey &entry, bool byKey) {
  return byKey ? orderImage(entry.key) : static_cast<uint32_t>(entry.ordinal) ^ kSignBit;
}

// Stable passes over one 32-bit image: the key's or the ordinal's.
void radixPasses(FacetKey *keys, FacetKey *spare, size_t count, bool byKey) {
  radixByImage(keys, spare, count, [byKey](const FacetKey &entry) { return radixImage(entry, byKey); });
}

// Orders a table by key, equal keys by ordinal: a total order, so the result
// does not depend on the method. Long tables take a radix sort (ordinal
// first unless the table is in file order already, then key), which needs a
// spare table as large; short ones, tables of inPlaceFrom entries or more,
// and any table when the spare cannot be allocated, a comparison sort in place.
void sortKeyTable(FacetKey *keys, int count, int inPlaceFrom) {
  FacetKey *spare = nullptr;
  if (count >= kRadixMinimum && count < inPlaceFrom) {
    spare = static_cast<FacetKey *>(ftMalloc(sizeof(FacetKey) * static_cast<size_t>(count)));
  }
  if (!spare) {
    std::sort(keys, keys + count, keyBefore);
    return;
  }
  const size_t size = static_cast<size_t>(count);
  const bool inFileOrder = std::is_sorted(
      keys, keys + count, [](const FacetKey &a, const FacetKey &b) { return a.ordinal < b.ordinal; });
  if (!inFileOrder) {
    radixPasses(keys, spare, size, false);
  }
  radixPasses(keys, spare, size, true);
  std::free(spare);
}

// ---- Key readers ------------------------------------------------------------

// Takes the count from the file itself.
FacetKey *readBinaryKeys(const char *name, int axis, int *count) {
  int64_t status;
  FILE *file = stlOpenBinary(name, &status);
  if (status < 1 || status > kFacetKeyLimit) {
    if (file) {
      std::fclose(file);
    }
    *count = status > kFacetKeyLimit ? -2 : static_cast<int>(status);
    return nullptr;
  }
  const int total = static_cast<int>(status);
  auto *keys = static_cast<FacetKey *>(ftMalloc(sizeof(FacetKey) * static_cast<size_t>(total)));
  if (!keys) {
    std::fclose(file);
    *count = -2;
    return nullptr;
  }
  unsigned char chunk[kRecordChunk * kRecordBytes];
  float vertices[9];
  for (int done = 0; done < total;) {
    const int want = std::min(kRecordChunk, total - done);
    int failure = 0;
    if (std::fread(chunk, kRecordBytes, static_cast<size_t>(want), file) != static_cast<size_t>(want)) {
      failure = -2;
    }
    for (int i = 0; i < want && failure == 0; ++i) {
      if (decodeVertices(chunk + i * kRecordBytes, vertices)) {
        keys[done + i] = {done + i, facetKeyOf(vertices, axis)};
      } else {
        failure = -1;
      }
    }
    if (failure != 0) {
      std::free(keys);
      std::fclose(file);
      *count = failure;
      return nullptr;
    }
    done += want;
  }
  std::fclose(file);
  *count = total;
  return keys;
}

// Makes exactly `*count` facet reads, counting the file first when the count
// given is negative. Every read must give a facet: a terminator before the
// last facet would leave a key slot without a facet, so such a file is refused.
// So is a file with a facet after the last one read: it holds more facets than
// the count says, and is never read in part.
FacetKey *readAsciiKeys(const char *name, int axis, int *count) {
  int64_t wanted = *count;
  if (wanted < 0) {
    wanted = stlCount(name, nullptr);
  }
  if (wanted < 1) {
    return nullptr;
  }
  if (wanted > kFacetKeyLimit) {
    *count = -2;
    return nullptr;
  }
  int status;
  FILE *file = stlOpenAscii(name, &status);
  if (!file) {
    *count = status;
    return nullptr;
  }
  const int total = static_cast<int>(wanted);
  auto *keys = static_cast<FacetKey *>(ftMalloc(sizeof(FacetKey) * static_cast<size_t>(total)));
  if (!keys) {
    std::fclose(file);
    *count = -2;
    return nullptr;
  }
  FacetWire wire;
  for (int ordinal = 0; ordinal < total; ++ordinal) {
    const int result = stlReadAsciiFacet(file, &wire);
    if (result != 0) {
      std::free(keys);
      std::fclose(file);
      *count = result == 1 ? -1 : -2;
      return nullptr;
    }
    keys[ordinal] = {ordinal, facetKeyOf(wire.v + 3, axis)};
  }
  // Only terminators may follow: a facet more means the file holds more than
  // the count it was read for (it grew since it was counted), and its keys
  // would cover part of it.
  int rest = 1;
  while (rest == 1) {
    rest = stlReadAsciiFacet(file, &wire);
  }
  std::fclose(file);
  if (rest != 2) {
    std::free(keys);
    *count = rest == 0 ? -1 : rest;
    return nullptr;
  }
  *count = total;
  return keys;
}

} // namespace

// ---- Entry points -----------------------------------------------------------

// A running best starts at 0 and only a strictly greater extent replaces it:
// ties go to the earlier axis, and a box with no positive extent gives x.
int facetSortAxis(const FacetBox *box) {
  int axis = 0;
  if (!box) {
    return axis;
  }
  float best = 0.0f;
  for (int i = 0; i < 3; ++i) {
    const float extent = box->v[3 + i] - box->v[i];
    if (extent > best) {
      best = extent;
      axis = i;
    }
  }
  return axis;
}

int facetBoxOfBlocks(FacetBlock *const *blocks, int count, FacetBox *box) {
  if (!blocks || !box || count < 1 || count > kFacetLoadLimit || !blocksPresent(blocks, count)) {
    return 0;
  }
  boxStart(box, recordAt(blocks, 0)->v);
  for (int ordinal = 0; ordinal < count; ++ordinal) {
    boxAdd(box, recordAt(blocks, ordinal)->v);
  }
  return count;
}

// The keys are computed once, ordered with their ordinals, and the ordinals
// then name the records; the table does not own them.
FacetRec **sortFacetPointers(FacetBlock *const *blocks, int count, int axis) {
  if (!blocks || count < 1 || count > kFacetLoadLimit || axis < 0 || axis > 2 ||
      !blocksPresent(blocks, count)) {
    return nullptr;
  }
  const size_t size = static_cast<size_t>(count);
  auto *table = static_cast<FacetRec **>(ftMalloc(sizeof(FacetRec *) * size));
  auto *keys = static_cast<FacetKey *>(ftMalloc(sizeof(FacetKey) * size));
  if (!table || !keys) {
    std::free(table);
    std::free(keys);
    return nullptr;
  }
  for (int ordinal = 0; ordinal < count; ++ordinal) {
    keys[ordinal] = {ordinal, facetKeyOf(recordAt(blocks, ordinal)->v, axis)};
  }
  sortKeyTable(keys, count, kKeySortInPlaceFrom);
  for (int i = 0; i < count; ++i) {
    table[i] = recordAt(blocks, keys[i].ordinal);
  }
  std::free(keys);
  return table;
}

FacetKey *readFacetKeys(const char *name, int axis, int *count, int *format) {
  int unused;
  int &kind = format ? *format : unused;
  if (!count || axis < 0 || axis > 2) {
    kind = kStlUnknown;
    if (count) {
      *count = -1;
    }
    return nullptr;
  }
  kind = stlProbeFormat(name);
  if (kind == kStlBinary) {
    return readBinaryKeys(name, axis, count);
  }
  if (kind == kStlAscii) {
    return readAsciiKeys(name, axis, count);
  }
  *count = kind == kStlUnknown ? -1 : -2;
  return nullptr;
}

int sortFacetKeys(FacetKey *keys, int count, int inPlaceFrom) {
  if (count < 0 || (count >= 2 && !keys)) {
    return -1;
  }
  if (count >= 2) {
    sortKeyTable(keys, count, inPlaceFrom);
  }
  return count;
}

void freeFacetBlocks(FacetBlock **blocks, int blockCount) {
  if (!blocks) {
    return;
  }
  for (int i = std::min(blockCount, kFacetBlockMax) - 1; i >= 0; --i) {
    std::free(blocks[i]);
    blocks[i] = nullptr;
  }
}
