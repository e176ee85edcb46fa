// STL writing at file level: creating a binary or ASCII file, patching the
// binary facet count once the number of facets written is known, and closing
// or discarding a file being written.
#include "stl/stl_internal.h"
#include "kernels/failure.h"

#include <sys/stat.h>

using namespace stl_detail;

namespace {

// The header text of every binary file written: 79 characters, followed by one
// zero byte that fills the 80-byte field.
constexpr char kHeaderText[] =
    " ---   QUAY VANE Fabrications SE   ---              <binary stl-data>          ";
static_assert(sizeof kHeaderText == kHeaderBytes, "header text is 79 characters and a zero byte");

} // namespace

// Flushing here reports a full disk at once.
bool stl_detail::writeHeader(FILE *file, uint32_t count) {
  unsigned char head[kDataOffset] = {};
  std::memcpy(head, kHeaderText, sizeof kHeaderText);
  storeU32(count, head + kCountOffset);
  return std::fwrite(head, 1, sizeof head, file) == sizeof head && std::fflush(file) == 0;
}

// The count is provisional: the writers append records and stlPatchCount puts
// the real count in at the end. A file whose header cannot be written is
// removed again: opening it has emptied it already.
FILE *stlCreateBinary(const char *name, uint32_t count) {
  FILE *file = openOutputFile(name, "wb");
  if (!file) {
    return FT_FAIL(nullptr);
  }
  if (!writeHeader(file, count)) {
    (void)stlCloseOutput(file, name, kOutputDiscard); // always -1: the failure is already known
    return nullptr;
  }
  return file;
}

FILE *stlCreateAscii(const char *name) {
  FILE *file = openOutputFile(name, "w");
  if (!file) {
    return FT_FAIL(nullptr);
  }
  if (std::fputs("solid ascii\n", file) < 0 || std::fflush(file) != 0) {
    (void)stlCloseOutput(file, name, kOutputDiscard); // always -1: the failure is already known
    return nullptr;
  }
  return file;
}

// Leaves the file position just after the count field, so nothing may be
// written after a patch. The flush makes a failed write show here, not at close.
int stlPatchCount(uint32_t count, FILE *file) {
  unsigned char bytes[4];
  storeU32(count, bytes);
  if (!file || fseeko(file, kCountOffset, SEEK_SET) != 0 ||
      std::fwrite(bytes, 1, sizeof bytes, file) != sizeof bytes || std::fflush(file) != 0) {
    return FT_FAIL(-1);
  }
  return 0;
}

// The identity of the open file is taken before it is closed, and the name is
// removed only while it still refers to that same regular file: a device such
// as /dev/null given as output, or a file that has taken the name meanwhile,
// stays. Whether the removal succeeds is not checked.
int stlCloseOutput(FILE *file, const char *name, int mode) {
  if (!file) {
    return FT_FAIL(-1);
  }
  struct stat opened;
  const bool regular = fstat(fileno(file), &opened) == 0 && S_ISREG(opened.st_mode);
  pendingDrop(file);
  const bool closed = std::fclose(file) == 0;
  if (mode == kOutputKeep || (mode == kOutputCheck && closed)) {
    return closed ? 0 : -1;
  }
  struct stat named;
  if (regular && name && stat(name, &named) == 0 && named.st_dev == opened.st_dev &&
      named.st_ino == opened.st_ino) {
    std::remove(name);
  }
  return FT_FAIL(-1);
}
