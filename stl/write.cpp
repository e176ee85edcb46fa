// STL writing at file level: creating a binary or ASCII file and patching the
// binary facet count once the number of facets written is known.
#include "stl/stl_internal.h"

using namespace stl_detail;

namespace {

// The header text of every binary file written: 79 characters, followed by one
// zero byte that fills the 80-byte field.
constexpr char kHeaderText[] =
    " ---   QUAY VANE Fabrications SE   ---              <binary stl-data>          ";
static_assert(sizeof kHeaderText == kHeaderBytes, "header text is 79 characters and a zero byte");

} // namespace

// The count is provisional: the writers append records and stlPatchCount puts
// the real count in at the end. Flushing here reports a full disk at once.
FILE *stlCreateBinary(const char *name, uint32_t count) {
  FILE *file = name ? std::fopen(name, "wb") : nullptr;
  if (!file) {
    return nullptr;
  }
  unsigned char head[kDataOffset] = {};
  std::memcpy(head, kHeaderText, sizeof kHeaderText);
  storeU32(count, head + kCountOffset);
  if (std::fwrite(head, 1, sizeof head, file) != sizeof head || std::fflush(file) != 0) {
    std::fclose(file);
    return nullptr;
  }
  return file;
}

FILE *stlCreateAscii(const char *name) {
  FILE *file = name ? std::fopen(name, "w") : nullptr;
  if (!file) {
    return nullptr;
  }
  if (std::fputs("solid ascii\n", file) < 0 || std::fflush(file) != 0) {
    std::fclose(file);
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
    return -1;
  }
  return 0;
}
