// STL files: reading both formats, the facet store and its ordering, writing.
//
// Invariants
//  1. Readers print nothing. Failure is a negative status: -1 not this format or
//     malformed, -2 unreadable (short read, failed open, limit exceeded).
//  2. Every pass opens, walks and closes its own file. A routine that is handed an
//     open file (stlReadAsciiFacet, stlReadFacetAt, stlPatchCount) never closes it.
//  3. File sizes, counts read from binary headers and seek offsets are 64-bit, so
//     files of 2 GiB and more are read. A binary file is binary exactly when
//     (size - 84) / 50 equals the count in its header.
//  4. A vertex coordinate that is NaN or infinite makes a file malformed (-1) in
//     every reader that reads vertices. Normals are read and dropped unchecked.
//  5. A FacetBlock holds at most kFacetBlockSize facets, filled from the front; a
//     block array holds at most kFacetBlockMax blocks.
//  6. Facets with equal sort keys keep the order of their ordinals (their place in
//     the file), so every ordering here is deterministic.
#pragma once

#include <cstdint>
#include <cstdio>

// A facet in transit: normal x, y, z, then vertices 1, 2, 3 (x, y, z each).
struct FacetWire {
  float v[12];
};

// Minimum x, y, z, then maximum x, y, z.
struct FacetBox {
  float v[6];
};

// Three vertices in file order; no normal, no attribute word.
struct FacetRec {
  float v[9];
};
static_assert(sizeof(FacetRec) == 36, "FacetRec is nine floats");

constexpr int kFacetBlockSize = 500000;   // facets per block
constexpr int kFacetBlockMax = 20;        // blocks of the in-memory route
constexpr int kFacetLoadLimit = 10000000; // facets the block load accepts
constexpr int kFacetKeyLimit = 100000000; // facets the key readers accept

struct FacetBlock {
  FacetRec rec[kFacetBlockSize];
};

// One facet's place in the file and its sort key on the chosen axis.
struct FacetKey {
  int32_t ordinal; // position of the facet in the file
  float key;       // smallest vertex coordinate on the sort axis
};
static_assert(sizeof(FacetKey) == 8, "FacetKey is ordinal and key");

// stlFormatCode values.
constexpr int kStlUnknown = 0;
constexpr int kStlAscii = 1;
constexpr int kStlBinary = 2;

// ---- Reading ----------------------------------------------------------------

// Opens a binary STL placed at offset 84. status: facet count, -1 or -2.
FILE *stlOpenBinary(const char *name, int64_t *status);
// Reads the next 50-byte record of a binary file. 0, -1 non-finite vertex, -2 short read.
int stlReadBinaryFacet(FILE *file, FacetWire *wire);
// Opens an ASCII STL placed after its first line. status: 0, -1 or -2.
FILE *stlOpenAscii(const char *name, int *status);
// 0 facet read, 1 terminator line, 2 end of file at a statement border,
// -1 malformed line, -2 file ends inside a facet.
int stlReadAsciiFacet(FILE *file, FacetWire *wire);
// Seeks to the start and passes the first line. 0, -1 wrong first word, -2 failed read.
int stlRewindAscii(FILE *file);
// Facet count or negative status; box filled when the count is above 0; format may be null.
int64_t stlScan(const char *name, FacetBox *box, int *format);
// Facet count or negative status; reads no binary records.
int64_t stlCount(const char *name, int *format);
// 2 binary, 1 ASCII, 0 neither, -1 unreadable.
int stlProbeFormat(const char *name);
// Facets loaded into blocks[0..*blockCount), or a negative status.
int stlLoadBlocks(const char *name, FacetBlock **blocks, int *blockCount);
// Reads facet `ordinal` of an open file; position is the caller's cursor, starting at -1.
int stlReadFacetAt(FILE *file, int format, int ordinal, int *position, FacetWire *wire);

// ---- Facet store and ordering -----------------------------------------------

// 0, 1 or 2 for the longest extent; ties go to the earlier axis.
int facetSortAxis(const FacetBox *box);
// count, or 0 for a count below 1.
int facetBoxOfBlocks(FacetBlock *const *blocks, int count, FacetBox *box);
// New table of `count` facet pointers sorted on `axis`, or null. Free with free().
FacetRec **sortFacetPointers(FacetBlock *const *blocks, int count, int axis);
// New key table, or null. count: expected count in, result or negative status out.
FacetKey *readFacetKeys(const char *name, int axis, int *count, int *format);
// count, or -1 for a negative count.
int sortFacetKeys(FacetKey *keys, int count);
// Releases blocks from the last to the first and clears each slot.
void freeFacetBlocks(FacetBlock **blocks, int blockCount);

// ---- Writing ----------------------------------------------------------------

// Creates a binary STL with the fixed header and `count`; the open file or null.
FILE *stlCreateBinary(const char *name, uint32_t count);
// Creates an ASCII STL and writes its first line; the open file or null.
FILE *stlCreateAscii(const char *name);
// Overwrites the header's count. 0 or -1.
int stlPatchCount(uint32_t count, FILE *file);
