// STL reading: the binary and ASCII opening tests, the ASCII statement parser,
// the scan, the count, the block load and random access by ordinal.
//
// Every route tells the format by the same two tests, binary first. A file is
// binary exactly when its size fits its header count; only then is it read as
// records. Otherwise it is read as text, one fgets piece of at most 255
// characters at a time, each piece parsed with a fixed sscanf pattern.
#include "stl/stl_internal.h"
#include "kernels/alloc.h"
#include "kernels/failure.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cmath>
#include <cstdlib>

using namespace stl_detail;

static_assert(sizeof(off_t) >= 8, "seeks in files of 2 GiB and more need a 64-bit off_t");

// ---- Binary records ---------------------------------------------------------

bool stl_detail::decodeVertices(const unsigned char *record, float *vertices) {
  bool finite = true;
  for (int i = 0; i < 9; ++i) {
    vertices[i] = loadF32(record + kVertexOffset + 4 * i);
    finite = finite && std::isfinite(vertices[i]);
  }
  return finite;
}

int stlReadBinaryFacet(FILE *file, FacetWire *wire) {
  unsigned char record[kRecordBytes];
  if (!file || !wire || std::fread(record, 1, sizeof record, file) != sizeof record) {
    return FT_FAIL(-2);
  }
  for (int i = 0; i < 3; ++i) {
    wire->v[i] = loadF32(record + 4 * i);
  }
  return decodeVertices(record, wire->v + 3) ? 0 : -1;
}

// ---- Binary test ------------------------------------------------------------

// The decision rests on the size alone: (size - 84) / 50, divided toward zero,
// must equal the header's count. The header text is never looked at, so a
// header that begins with "solid" changes nothing, and up to 49 trailing bytes
// are accepted and never read.
FILE *stlOpenBinary(const char *name, int64_t *status) {
  int64_t unused;
  int64_t &result = status ? *status : unused;
  result = -1;
  struct stat info;
  if (!name || stat(name, &info) != 0 || S_ISDIR(info.st_mode)) {
    return nullptr;
  }
  const int64_t expected = (static_cast<int64_t>(info.st_size) - kDataOffset) / kRecordBytes;
  FILE *file = std::fopen(name, "rb");
  if (!file) {
    result = FT_FAIL(-2);
    return nullptr;
  }
  unsigned char header[kHeaderBytes];
  if (std::fread(header, 1, sizeof header, file) != sizeof header) {
    std::fclose(file);
    result = -2;
    return nullptr;
  }
  unsigned char countBytes[4];
  if (std::fread(countBytes, 1, sizeof countBytes, file) != sizeof countBytes ||
      static_cast<int64_t>(loadU32(countBytes)) != expected) {
    std::fclose(file);
    return nullptr;
  }
  result = expected;
  return file;
}

// ---- ASCII statements -------------------------------------------------------

namespace {

constexpr int kLineBuffer = 256; // fgets buffer: a longer line arrives in pieces of 255
// A piece holds at most 255 characters, so a word read with %255s is never cut
// and never overflows. A word of more than 127 characters matches no keyword.
constexpr int kWordBuffer = 256;

// A keyword passes in all lower case or all upper case, each word by itself.
struct Keyword {
  const char *lower; // the keyword in lower case
  const char *upper; // the keyword in upper case
};

constexpr Keyword kSolid = {"solid", "SOLID"};
constexpr Keyword kFacet = {"facet", "FACET"};
constexpr Keyword kNormal = {"normal", "NORMAL"};
constexpr Keyword kOuter = {"outer", "OUTER"};
constexpr Keyword kLoop = {"loop", "LOOP"};
constexpr Keyword kVertex = {"vertex", "VERTEX"};
constexpr Keyword kEndLoop = {"endloop", "ENDLOOP"};
constexpr Keyword kEndFacet = {"endfacet", "ENDFACET"};
constexpr Keyword kEndSolid = {"endsolid", "ENDSOLID"};
constexpr Keyword kEnd = {"end", "END"};

bool isKeyword(const char *word, Keyword keyword) {
  return std::strcmp(word, keyword.lower) == 0 || std::strcmp(word, keyword.upper) == 0;
}

bool fetchLine(FILE *file, char *line) {
  return std::fgets(line, kLineBuffer, file) != nullptr;
}

// Reads the first line of a file placed at its start. 0 when its first word is
// "solid", -1 for any other first word or none, -2 when there is no line.
int passFirstLine(FILE *file) {
  char line[kLineBuffer];
  if (!fetchLine(file, line)) {
    return FT_FAIL(-2);
  }
  char word[kWordBuffer];
  if (std::sscanf(line, "%255s", word) < 1 || !isKeyword(word, kSolid)) {
    return FT_FAIL(-1);
  }
  return 0;
}

// A statement line with one word, such as "endloop".
int expectWord(FILE *file, Keyword keyword) {
  char line[kLineBuffer];
  char word[kWordBuffer];
  if (!fetchLine(file, line)) {
    return FT_FAIL(-2);
  }
  return std::sscanf(line, "%255s", word) == 1 && isKeyword(word, keyword) ? 0 : -1;
}

// The body of a facet after its start line: loop start, three vertices, loop
// end and facet end, each on its own line. Vertices go to vertices[0..9).
int readFacetBody(FILE *file, float *vertices) {
  char line[kLineBuffer];
  char first[kWordBuffer];
  char second[kWordBuffer];
  if (!fetchLine(file, line)) {
    return FT_FAIL(-2);
  }
  if (std::sscanf(line, "%255s %255s", first, second) != 2 || !isKeyword(first, kOuter) ||
      !isKeyword(second, kLoop)) {
    return FT_FAIL(-1);
  }
  for (int corner = 0; corner < 3; ++corner) {
    float *xyz = vertices + 3 * corner;
    if (!fetchLine(file, line)) {
      return FT_FAIL(-2);
    }
    if (std::sscanf(line, "%255s %f %f %f", first, &xyz[0], &xyz[1], &xyz[2]) != 4 ||
        !isKeyword(first, kVertex)) {
      return FT_FAIL(-1);
    }
    // %f accepts "nan" and "inf"; a vertex must be a point in space.
    if (!std::isfinite(xyz[0]) || !std::isfinite(xyz[1]) || !std::isfinite(xyz[2])) {
      return FT_FAIL(-1);
    }
  }
  const int loopEnd = expectWord(file, kEndLoop);
  if (loopEnd != 0) {
    return loopEnd;
  }
  return expectWord(file, kEndFacet);
}

} // namespace

FILE *stlOpenAscii(const char *name, int *status) {
  int unused;
  int &result = status ? *status : unused;
  FILE *file = name ? std::fopen(name, "r") : nullptr;
  if (!file) {
    result = FT_FAIL(-2);
    return nullptr;
  }
  result = passFirstLine(file);
  if (result != 0) {
    std::fclose(file);
    return nullptr;
  }
  return file;
}

int stlRewindAscii(FILE *file) {
  if (!file) {
    return FT_FAIL(-2);
  }
  std::clearerr(file);
  if (fseeko(file, 0, SEEK_SET) != 0) {
    return FT_FAIL(-2);
  }
  return passFirstLine(file);
}

// A line that does not give the five fields of a facet start is a terminator
// when its first word is "endsolid" (anything may follow) or its first two are
// "end solid"; everything else is malformed, a blank line and a second "solid"
// line included.
int stlReadAsciiFacet(FILE *file, FacetWire *wire) {
  char line[kLineBuffer];
  if (!file) {
    return FT_FAIL(-2);
  }
  if (!fetchLine(file, line)) {
    // No line left is the end of the file; a read error is not.
    return std::ferror(file) ? -2 : 2;
  }
  char first[kWordBuffer];
  char second[kWordBuffer];
  FacetWire read;
  const int fields =
      std::sscanf(line, "%255s %255s %f %f %f", first, second, &read.v[0], &read.v[1], &read.v[2]);
  if (fields == 5) {
    if (!isKeyword(first, kFacet) || !isKeyword(second, kNormal)) {
      return FT_FAIL(-1);
    }
    const int body = readFacetBody(file, read.v + 3);
    if (body == 0 && wire) {
      *wire = read;
    }
    return body;
  }
  if (fields < 1) {
    return FT_FAIL(-1);
  }
  if (isKeyword(first, kEndSolid)) {
    return 1;
  }
  if (fields < 2) {
    return FT_FAIL(-1);
  }
  return isKeyword(first, kEnd) && isKeyword(second, kSolid) ? 1 : -1;
}

// ---- Scan, count and format probe ------------------------------------------

namespace {

// The ASCII walking loop: reads to the end of the file, passes over
// terminators and stops at the first negative result, which becomes the
// result of the pass. Adds every facet to box when one is given.
int64_t walkAscii(FILE *file, FacetBox *box) {
  FacetWire wire;
  int64_t count = 0;
  for (;;) {
    const int result = stlReadAsciiFacet(file, &wire);
    if (result < 0) {
      return result;
    }
    if (result >= 2) {
      return count;
    }
    if (result == 0) {
      if (box) {
        if (count == 0) {
          boxStart(box, wire.v + 3);
        }
        boxAdd(box, wire.v + 3);
      }
      ++count;
    }
  }
}

// Opens an ASCII file and walks it: the facet count or a negative status.
int64_t walkAsciiFile(const char *name, FacetBox *box) {
  int status;
  FILE *file = stlOpenAscii(name, &status);
  if (!file) {
    return status;
  }
  const int64_t count = walkAscii(file, box);
  std::fclose(file);
  return count;
}

// Reads every record of a binary file for its box. A file with no facets gives
// 0 and leaves box unset; a short read gives -2, a non-finite vertex -1.
int64_t scanBinary(const char *name, FacetBox *box) {
  int64_t count;
  FILE *file = stlOpenBinary(name, &count);
  if (count < 1) {
    if (file) {
      std::fclose(file);
    }
    return count;
  }
  unsigned char chunk[kRecordChunk * kRecordBytes];
  float vertices[9];
  int64_t result = count;
  for (int64_t done = 0; done < count && result > 0;) {
    const size_t want = static_cast<size_t>(std::min<int64_t>(kRecordChunk, count - done));
    if (std::fread(chunk, kRecordBytes, want, file) != want) {
      result = FT_FAIL(-2);
      break;
    }
    for (size_t i = 0; i < want; ++i) {
      if (!decodeVertices(chunk + i * kRecordBytes, vertices)) {
        result = FT_FAIL(-1);
        break;
      }
      if (done + static_cast<int64_t>(i) == 0) {
        boxStart(box, vertices);
      }
      boxAdd(box, vertices);
    }
    done += static_cast<int64_t>(want);
  }
  std::fclose(file);
  return result;
}

} // namespace

int64_t stlScan(const char *name, FacetBox *box, int *format) {
  FacetBox found;
  int kind = kStlBinary;
  int64_t count = scanBinary(name, &found);
  if (count < 0) {
    count = walkAsciiFile(name, &found);
    kind = count >= 0 ? kStlAscii : kStlUnknown;
  }
  if (format) {
    *format = kind;
  }
  if (box && count > 0) {
    *box = found;
  }
  return count;
}

int64_t stlCount(const char *name, int *format) {
  int kind = kStlBinary;
  int64_t count;
  FILE *file = stlOpenBinary(name, &count);
  if (file) {
    std::fclose(file);
  } else {
    count = walkAsciiFile(name, nullptr);
    kind = count >= 0 ? kStlAscii : kStlUnknown;
  }
  if (format) {
    *format = kind;
  }
  return count;
}

// Unlike scan and count, a binary test that could not read the file (-2) is
// final here.
int stlProbeFormat(const char *name) {
  int64_t binary;
  FILE *file = stlOpenBinary(name, &binary);
  if (file) {
    std::fclose(file);
    return kStlBinary;
  }
  if (binary == -2) {
    return -1;
  }
  int ascii;
  file = stlOpenAscii(name, &ascii);
  if (file) {
    std::fclose(file);
    return kStlAscii;
  }
  return ascii == -1 ? kStlUnknown : -1;
}

// ---- Loading blocks ---------------------------------------------------------

namespace {

// The caller's block array being filled in reading order.
struct BlockFill {
  FacetBlock **blocks; // the caller's array of kFacetBlockMax slots
  int *blockCount;     // blocks allocated so far
  int filled;          // facets stored so far
};

// The slot for the next facet, with a new block when the last one is full;
// null when a block cannot be allocated.
float *nextSlot(BlockFill *fill) {
  const int block = fill->filled / kFacetBlockSize;
  if (fill->filled % kFacetBlockSize == 0) {
    fill->blocks[block] = static_cast<FacetBlock *>(ftMalloc(sizeof(FacetBlock)));
    if (!fill->blocks[block]) {
      return nullptr;
    }
    ++*fill->blockCount;
  }
  return fill->blocks[block]->rec[fill->filled++ % kFacetBlockSize].v;
}

int failLoad(BlockFill *fill, FILE *file, int status) {
  freeFacetBlocks(fill->blocks, *fill->blockCount);
  *fill->blockCount = 0;
  if (file) {
    std::fclose(file);
  }
  return status;
}

// Reads exactly `count` records. The file must still have the count that the
// count pass saw: one that changed in between is refused, not half read.
int loadBinary(const char *name, int count, BlockFill *fill) {
  int64_t status;
  FILE *file = stlOpenBinary(name, &status);
  if (!file || status != count) {
    return failLoad(fill, file, -2);
  }
  unsigned char chunk[kRecordChunk * kRecordBytes];
  while (fill->filled < count) {
    const size_t want = static_cast<size_t>(std::min(kRecordChunk, count - fill->filled));
    if (std::fread(chunk, kRecordBytes, want, file) != want) {
      return failLoad(fill, file, -2);
    }
    for (size_t i = 0; i < want; ++i) {
      float *slot = nextSlot(fill);
      if (!slot) {
        return failLoad(fill, file, -2);
      }
      if (!decodeVertices(chunk + i * kRecordBytes, slot)) {
        return failLoad(fill, file, -1);
      }
    }
  }
  std::fclose(file);
  return fill->filled;
}

// Stops after `count` facets or at the end of the file, whichever comes first;
// a malformed line releases everything and gives its status.
int loadAscii(const char *name, int count, BlockFill *fill) {
  int status;
  FILE *file = stlOpenAscii(name, &status);
  if (!file) {
    return failLoad(fill, nullptr, status);
  }
  FacetWire wire;
  while (fill->filled < count) {
    const int result = stlReadAsciiFacet(file, &wire);
    if (result < 0) {
      return failLoad(fill, file, result);
    }
    if (result >= 2) {
      break;
    }
    if (result == 0) {
      float *slot = nextSlot(fill);
      if (!slot) {
        return failLoad(fill, file, -2);
      }
      std::memcpy(slot, wire.v + 3, sizeof(FacetRec));
    }
  }
  std::fclose(file);
  return fill->filled;
}

} // namespace

int stlLoadBlocks(const char *name, FacetBlock **blocks, int *blockCount) {
  if (!blocks || !blockCount) {
    return FT_FAIL(-2);
  }
  int format;
  const int64_t count = stlCount(name, &format);
  if (count < 1) {
    return static_cast<int>(count);
  }
  if (format != kStlAscii && format != kStlBinary) {
    return FT_FAIL(-2);
  }
  *blockCount = 0;
  if (count > kFacetLoadLimit) {
    return FT_FAIL(-2);
  }
  BlockFill fill = {blocks, blockCount, 0};
  const int wanted = static_cast<int>(count);
  return format == kStlAscii ? loadAscii(name, wanted, &fill) : loadBinary(name, wanted, &fill);
}

// ---- Random access ----------------------------------------------------------

namespace {

// The file position is always that of the record `*position`, so reading on
// needs only a relative seek; stepping back seeks from the start.
int readBinaryAt(FILE *file, int ordinal, int *position, FacetWire *wire) {
  if (*position < 0) {
    unsigned char countBytes[4];
    if (fseeko(file, kCountOffset, SEEK_SET) != 0 ||
        std::fread(countBytes, 1, sizeof countBytes, file) != sizeof countBytes ||
        ordinal >= static_cast<int64_t>(loadU32(countBytes))) {
      return FT_FAIL(-1);
    }
    *position = 0;
  }
  if (*position <= ordinal) {
    const int64_t step = (static_cast<int64_t>(ordinal) - *position) * kRecordBytes;
    if (step != 0 && fseeko(file, static_cast<off_t>(step), SEEK_CUR) != 0) {
      return FT_FAIL(-1);
    }
  } else if (fseeko(file, static_cast<off_t>(ordinal * kRecordBytes + kDataOffset), SEEK_SET) != 0) {
    return FT_FAIL(-1);
  }
  if (stlReadBinaryFacet(file, wire) != 0) {
    return FT_FAIL(-1);
  }
  *position = ordinal + 1;
  return 0;
}

// Moving backwards costs a new parse from the top.
int readAsciiAt(FILE *file, int ordinal, int *position, FacetWire *wire) {
  if (*position < 0 || *position > ordinal) {
    if (stlRewindAscii(file) != 0) {
      return FT_FAIL(-1);
    }
    *position = 0;
  }
  while (*position <= ordinal) {
    const int result = stlReadAsciiFacet(file, wire);
    if (result == 0) {
      ++*position;
    } else if (result != 1) {
      return FT_FAIL(-1);
    }
  }
  return 0;
}

} // namespace

// Any failure leaves the cursor at -1, so the next call starts afresh. The
// cursor is 32-bit, so the last ordinal it can pass is INT32_MAX - 1.
int stlReadFacetAt(FILE *file, int format, int ordinal, int *position, FacetWire *wire) {
  if (!position) {
    return FT_FAIL(-1);
  }
  if (!file || !wire || ordinal < 0 || ordinal == INT32_MAX) {
    *position = -1;
    return FT_FAIL(-1);
  }
  const int result = format == kStlBinary ? readBinaryAt(file, ordinal, position, wire)
                                          : readAsciiAt(file, ordinal, position, wire);
  if (result != 0) {
    *position = -1;
  }
  return result;
}
