// Helpers shared by the readers, the facet store and the writers of stl/.
#pragma once

#include "stl/stl.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace stl_detail {

constexpr int64_t kHeaderBytes = 80;  // header text field of a binary file
constexpr int64_t kCountOffset = 80;  // offset of the 32-bit facet count
constexpr int64_t kDataOffset = 84;   // offset of the first facet record
constexpr int64_t kRecordBytes = 50;  // one binary facet record
constexpr int kVertexOffset = 12;     // vertex 1 within a record, after the normal
constexpr int kRecordChunk = 1024;    // records read with one fread by the sequential passes

// Little-endian 32-bit words, whatever the byte order of the host.
inline uint32_t loadU32(const unsigned char *bytes) {
  return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
         static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

inline void storeU32(uint32_t word, unsigned char *bytes) {
  bytes[0] = static_cast<unsigned char>(word);
  bytes[1] = static_cast<unsigned char>(word >> 8);
  bytes[2] = static_cast<unsigned char>(word >> 16);
  bytes[3] = static_cast<unsigned char>(word >> 24);
}

inline float loadF32(const unsigned char *bytes) {
  const uint32_t word = loadU32(bytes);
  float value;
  std::memcpy(&value, &word, sizeof value);
  return value;
}

inline void storeF32(float value, unsigned char *bytes) {
  uint32_t word;
  std::memcpy(&word, &value, sizeof word);
  storeU32(word, bytes);
}

// Writes the fixed 80-byte header and the count, and flushes. False on failure.
[[nodiscard]] bool writeHeader(FILE *file, uint32_t count);
// fopen for writing, with the file entered so that a signal that ends the
// process removes it (a name of 4096 bytes or more, or a file that isn't
// regular, is not entered); null when name is null or the open fails. Every
// writer creates its file through this, and stlCloseOutput takes it out again
// through pendingDrop before closing it.
FILE *openOutputFile(const char *name, const char *mode);
void pendingDrop(const FILE *file);

// Decodes the nine vertex coordinates of a 50-byte record. False when one of
// them is NaN or infinite: such a record makes the file malformed.
[[nodiscard]] bool decodeVertices(const unsigned char *record, float *vertices);

// Stable least-significant-digit passes, 8 bits each, over a 32-bit image of
// each entry (image(entry)), with spare as large as items; the result ends in
// items. A pass in which every entry falls into one bucket would move nothing
// and is skipped.
template <class T, class Image>
void radixByImage(T *items, T *spare, size_t count, Image image) {
  constexpr int kBits = 8;
  constexpr uint32_t kBuckets = 1u << kBits;
  T *from = items;
  T *to = spare;
  for (int shift = 0; shift < 32; shift += kBits) {
    size_t start[kBuckets] = {};
    for (size_t i = 0; i < count; ++i) {
      ++start[(image(from[i]) >> shift) & (kBuckets - 1)];
    }
    if (std::find(start, start + kBuckets, count) != start + kBuckets) {
      continue;
    }
    size_t sum = 0;
    for (size_t &bucket : start) {
      const size_t size = bucket;
      bucket = sum;
      sum += size;
    }
    for (size_t i = 0; i < count; ++i) {
      to[start[(image(from[i]) >> shift) & (kBuckets - 1)]++] = from[i];
    }
    std::swap(from, to);
  }
  if (from != items) {
    std::memcpy(items, from, count * sizeof(T));
  }
}

// Sort key of a facet on an axis: the smallest of its three coordinates there.
inline float facetKeyOf(const float *vertices, int axis) {
  return std::min(std::min(vertices[axis], vertices[3 + axis]), vertices[6 + axis]);
}

// The box rule: start from the first vertex of the first facet, then per
// coordinate "if below the minimum, take it, else if above the maximum, take it".
inline void boxStart(FacetBox *box, const float *vertices) {
  for (int i = 0; i < 3; ++i) {
    box->v[i] = vertices[i];
    box->v[3 + i] = vertices[i];
  }
}

inline void boxAdd(FacetBox *box, const float *vertices) {
  for (int corner = 0; corner < 3; ++corner) {
    for (int i = 0; i < 3; ++i) {
      const float value = vertices[3 * corner + i];
      if (box->v[i] > value) {
        box->v[i] = value;
      } else if (value > box->v[3 + i]) {
        box->v[3 + i] = value;
      }
    }
  }
}

} // namespace stl_detail
