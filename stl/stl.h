// STL files: reading both formats, the facet store and its ordering, writing.
//
// Invariants
//  1. Readers print nothing. Failure is a negative status: -1 not this format or
//     malformed, -2 unreadable (short read, failed open or allocation, limit exceeded).
//  2. Every pass opens, walks and closes its own file. A routine that is handed an
//     open file (stlReadAsciiFacet, stlReadBinaryFacet, stlReadFacetAt,
//     stlPatchCount) never closes it.
//  3. File sizes, counts read from binary headers and seek offsets are 64-bit, so
//     files of 2 GiB and more are read. A file is binary exactly when
//     (size - 84) / 50 equals the count in its header; only then is it read as
//     records, and only otherwise as text.
//  4. An ASCII line is one fgets piece of at most 255 characters; a longer line
//     arrives, and is parsed, as several. Keywords are all lower or all upper
//     case, word by word.
//  5. A vertex coordinate that is NaN or infinite makes a file malformed (-1) in
//     every reader that reads vertices. Normals are read and dropped unchecked.
//  6. A FacetBlock holds at most kFacetBlockSize facets, filled from the front; a
//     block array holds at most kFacetBlockMax blocks, of which blocks[0..blockCount)
//     are allocated; freeFacetBlocks nulls the slots it releases.
//  7. Facets with equal sort keys keep the order of their ordinals (their place in
//     the file), so every ordering is deterministic, and the pointer table and
//     the key table order one file identically.
//  8. A binary file written here starts with the fixed 80-byte header; its count
//     is provisional until stlPatchCount writes the real one. Records are written
//     little-endian whatever the host, and every write, flush and close is
//     checked.
//  9. A written normal is computed afresh from the corners in cycle order; a cross
//     product shorter than kStlNormalMinLength is written as the zero vector.
// 10. A writer deletes a file only while its name still names the regular file it
//     had open, so a device given as output is never removed.
// 11. Every file a writer creates here is removed, if its name still names it,
//     when SIGHUP, SIGINT, SIGQUIT or SIGTERM ends the process between its
//     creation and its close, once stlRemoveOutputOnSignal has run.
// 12. A mesh made from facets is unassembled: one triangle per facet, each with
//     three vertices of its own (kVtxHasNormal, normal slot zero), and its
//     triangle list runs in reading order or in the order of the run.
#pragma once

#include <cstdint>
#include <cstdio>

struct qvMesh;
struct qvTri;

// A facet in transit between a file and its reader.
struct FacetWire {
  float v[12]; // normal x, y, z, then vertices 1, 2, 3 (x, y, z each)
};
static_assert(sizeof(FacetWire) == 48, "FacetWire is twelve floats");

// An axis-aligned box in 32-bit floats.
struct FacetBox {
  float v[6]; // minimum x, y, z, then maximum x, y, z
};
static_assert(sizeof(FacetBox) == 24, "FacetBox is six floats");

// A stored facet; no normal, no attribute word.
struct FacetRec {
  float v[9]; // vertices 1, 2, 3 in file order, x, y, z each
};
static_assert(sizeof(FacetRec) == 36, "FacetRec is nine floats");

constexpr int kFacetBlockSize = 500000;   // facets per block
constexpr int kFacetBlockMax = 20;        // blocks of the in-memory route
constexpr int kFacetLoadLimit = 10000000; // facets the block load accepts
constexpr int kFacetKeyLimit = 100000000; // facets the key readers accept

// One allocation of the in-memory store, filled from the front.
struct FacetBlock {
  FacetRec rec[kFacetBlockSize]; // facets in reading order
};
static_assert(sizeof(FacetBlock) == sizeof(FacetRec) * kFacetBlockSize, "FacetBlock is records only");

// One facet's place in the file and its sort key on the chosen axis.
struct FacetKey {
  int32_t ordinal; // position of the facet in the file
  float key;       // smallest vertex coordinate on the sort axis
};
static_assert(sizeof(FacetKey) == 8, "FacetKey is ordinal and key");

// stlFormatCode values.
constexpr int kStlUnknown = 0; // neither format, or not known
constexpr int kStlAscii = 1;   // text
constexpr int kStlBinary = 2;  // 50-byte records

// ---- Reading ----------------------------------------------------------------

// Opens a binary STL placed at offset 84. status: facet count, -1 or -2.
FILE *stlOpenBinary(const char *name, int64_t *status);
// Reads the next 50-byte record of a binary file. 0, -1 non-finite vertex, -2 short read.
[[nodiscard]] int stlReadBinaryFacet(FILE *file, FacetWire *wire);
// Opens an ASCII STL placed after its first line. status: 0, -1 or -2.
FILE *stlOpenAscii(const char *name, int *status);
// 0 facet read, 1 terminator line, 2 end of file at a statement border,
// -1 malformed line, -2 file ends inside a facet. wire is written only for a facet.
[[nodiscard]] int stlReadAsciiFacet(FILE *file, FacetWire *wire);
// Seeks to the start and passes the first line. 0, -1 wrong first word, -2 failed read.
[[nodiscard]] int stlRewindAscii(FILE *file);
// Facet count or negative status; box filled when the count is above 0. format
// (may be null) receives 2 or 1, or 0 on failure.
[[nodiscard]] int64_t stlScan(const char *name, FacetBox *box, int *format);
// Facet count or negative status; reads no binary records. format as for stlScan.
[[nodiscard]] int64_t stlCount(const char *name, int *format);
// 2 binary, 1 ASCII, 0 neither, -1 unreadable.
[[nodiscard]] int stlProbeFormat(const char *name);
// Facets loaded into blocks[0..*blockCount), or a negative status; a count below 1
// from stlCount is returned as it is, with *blockCount untouched. A failure
// releases what was loaded and sets *blockCount to 0.
[[nodiscard]] int stlLoadBlocks(const char *name, FacetBlock **blocks, int *blockCount);
// Reads facet `ordinal` of a file opened with stlOpenBinary or stlOpenAscii.
// position is the caller's cursor, the ordinal of the next facet, starting at
// -1; any failure returns -1 and sets it back to -1.
[[nodiscard]] int stlReadFacetAt(FILE *file, int format, int ordinal, int *position, FacetWire *wire);

// ---- Facet store and ordering -----------------------------------------------

// 0, 1 or 2 for the longest extent; ties go to the earlier axis.
[[nodiscard]] int facetSortAxis(const FacetBox *box);
// count, or 0 for a count below 1.
[[nodiscard]] int facetBoxOfBlocks(FacetBlock *const *blocks, int count, FacetBox *box);
// New table of `count` facet pointers sorted on `axis`, equal keys by ordinal
// (block x kFacetBlockSize + index), or null. Free with free(); it owns no facet.
FacetRec **sortFacetPointers(FacetBlock *const *blocks, int count, int axis);
// New key table in file order, or null. Free with free(). count: the expected
// count in (ASCII counts the file when it is negative), the count or a negative
// status out; an ASCII file whose terminator stands before its last facet, or
// that holds more facets than a count given, is refused with -1.
FacetKey *readFacetKeys(const char *name, int axis, int *count, int *format);
// Tables of this many keys or more are sorted in place: the radix sort's spare
// table of 8 bytes a facet would otherwise set the streamed route's peak,
// which is otherwise the keys and one block's mesh.
constexpr int kKeySortInPlaceFrom = 40000000;
// Orders by key, equal keys by ordinal, the same order whichever sort runs:
// a radix sort with a spare table, or from inPlaceFrom keys on a comparison
// sort in place. count, or -1 for a negative count.
[[nodiscard]] int sortFacetKeys(FacetKey *keys, int count, int inPlaceFrom = kKeySortInPlaceFrom);
// Releases blocks from the last to the first and clears each slot.
void freeFacetBlocks(FacetBlock **blocks, int blockCount);

// ---- Writing ----------------------------------------------------------------

// Creates a binary STL with the fixed header and `count`; the open file or null.
FILE *stlCreateBinary(const char *name, uint32_t count);
// Creates an ASCII STL and writes its first line; the open file or null.
FILE *stlCreateAscii(const char *name);
// Overwrites the header's count. 0 or -1.
[[nodiscard]] int stlPatchCount(uint32_t count, FILE *file);

// A cross product shorter than this is written as the zero normal.
constexpr double kStlNormalMinLength = 1e-06;

// Modes of stlCloseOutput.
constexpr int kOutputKeep = 0;    // the file stays, whatever happens
constexpr int kOutputCheck = 1;   // the file is deleted if closing fails
constexpr int kOutputDiscard = 2; // the file is deleted

// Closes a file being written and, as mode says, deletes it (invariant 10).
// 0 when the file was closed and kept, -1 when closing failed or it was discarded.
[[nodiscard]] int stlCloseOutput(FILE *file, const char *name, int mode);

// Installs the handler of invariant 11 for each of those signals that isn't
// ignored already; the number installed. Call it once, before any output exists.
int stlRemoveOutputOnSignal();

// One triangle as a 50-byte record: corners in cycle order (qvTriGeometry with
// sign), a new normal, attribute 0. 0 or -1.
[[nodiscard]] int stlWriteTriBinary(const qvTri *tri, int sign, FILE *file);
// The triangles of mesh from the head of its list: the number written, or -1.
[[nodiscard]] int stlWriteMeshBinary(const qvMesh *mesh, int sign, FILE *file);
// The same as text, one facet statement per triangle.
[[nodiscard]] int stlWriteMeshAscii(const qvMesh *mesh, int sign, FILE *file);
// A binary file of its own holding every mesh of chain, its count patched: the
// number of triangles written, or -1 with the file deleted. An empty chain gives
// an 84-byte file with count 0.
[[nodiscard]] int stlWriteMeshChain(const qvMesh *chain, int sign, const char *name);

// ---- Mesh from facets ---------------------------------------------------------

// The whole file's facets in reading order, binary tried first: a new array
// (free with free()). status: the facet count (0 for an ASCII file without
// facets), or negative with null returned.
FacetRec *stlReadFacets(const char *name, int64_t *status);
// The whole file as one unassembled mesh, as stlReadFacets reads it.
qvMesh *stlReadMesh(const char *name, int64_t *status);
// The run table[0..count) as one unassembled mesh, or null (status -1; a count
// below 1 gives null with status 0).
qvMesh *meshFromPointers(FacetRec *const *table, int count, int *status);
// The run keys[0..count) of a file opened with stlOpenBinary or stlOpenAscii, as
// one unassembled mesh, or null as for meshFromPointers.
qvMesh *meshFromKeys(FILE *file, int format, const FacetKey *keys, int count, int *status);
// The run table[0..count) assembled into a chain of shells, as meshFromPointers
// and then qvMeshAssemble without a tolerance make it, record for record, but
// with only the records that stay ever made. *shells (may be null): the number
// of shells, or -1 on failure, when the mesh returned (if any) is good only for
// being freed.
qvMesh *assembleFromPointers(FacetRec *const *table, int count, int *shells);
// The same for the array facets[0..count), as stlReadFacets gives it.
qvMesh *assembleFacets(const FacetRec *facets, int count, int *shells);
// The facets of the run keys[0..count) of a file opened with stlOpenBinary or
// stlOpenAscii, in run order: a new array, or null.
FacetRec *fetchFacetRun(FILE *file, int format, const FacetKey *keys, int count);
