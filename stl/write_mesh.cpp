// STL writing of meshes: one triangle as a binary record, a mesh in binary or
// as text, and a chain of meshes as a file of its own. Every normal is computed
// afresh from the corners; a normal read from an input never reaches a file.
#include "stl/stl_internal.h"
#include "kernels/failure.h"

#include "kernels/kernels.h"
#include "mesh/qvMesh.h"

#include <cfloat>

using namespace stl_detail;

namespace {

constexpr int kAsciiBuffer = 600; // one facet statement as text
constexpr char kAsciiFacet[] =
    "facet normal %9.6f %9.6f %9.6f\n\touter loop\n\t\tvertex  %12.6f %12.6f %12.6f\n"
    "\t\tvertex  %12.6f %12.6f %12.6f\n\t\tvertex  %12.6f %12.6f %12.6f\n\tendloop\nendfacet\n";

// A double beyond the float range becomes the largest float of its sign
// instead of meeting an undefined conversion. Coordinates come from floats and
// never move, so this only guards against a mesh made some other way.
float narrow(double value) {
  if (value > FLT_MAX) {
    return FLT_MAX;
  }
  if (value < -FLT_MAX) {
    return -FLT_MAX;
  }
  return static_cast<float>(value);
}

// The record's twelve floats: the normal of (c1 - c0) x (c2 - c0), scaled to
// unit length or zero when shorter than kStlNormalMinLength, then the corners
// in cycle order. False when the corners can't be read.
bool facetFloats(const qvTri *tri, int sign, float *out) {
  double *corner[3];
  double normal[3];
  if (!tri || qvTriGeometry(tri, nullptr, sign, corner, normal) != 0) {
    return false;
  }
  vecNormalize(normal, kStlNormalMinLength);
  for (int i = 0; i < 3; ++i) {
    out[i] = narrow(normal[i]);
    for (int k = 0; k < 3; ++k) {
      out[3 + 3 * i + k] = narrow(corner[i][k]);
    }
  }
  return true;
}

int writeTriAscii(const qvTri *tri, int sign, FILE *file) {
  float v[12];
  if (!facetFloats(tri, sign, v)) {
    return FT_FAIL(-1);
  }
  char text[kAsciiBuffer];
  const int length = std::snprintf(text, sizeof text, kAsciiFacet, v[0], v[1], v[2], v[3], v[4],
                                   v[5], v[6], v[7], v[8], v[9], v[10], v[11]);
  if (length < 0 || length >= kAsciiBuffer || std::fprintf(file, "%s", text) != length) {
    return FT_FAIL(-1);
  }
  return 0;
}

// One binary record, attribute word 0 in the last two bytes; false when the
// corners can't be read.
bool binaryRecord(const qvTri *tri, int sign, unsigned char *record) {
  float v[12];
  if (!facetFloats(tri, sign, v)) {
    return false;
  }
  for (int i = 0; i < 12; ++i) {
    storeF32(v[i], record + 4 * i);
  }
  record[48] = 0;
  record[49] = 0;
  return true;
}

constexpr int kAhead = 8;     // triangles between a corner prefetch and the read
constexpr int kBatch = 1024;  // records written with one fwrite

} // namespace

int stlWriteTriBinary(const qvTri *tri, int sign, FILE *file) {
  unsigned char record[kRecordBytes];
  if (!file || !binaryRecord(tri, sign, record)) {
    return FT_FAIL(-1);
  }
  return std::fwrite(record, 1, sizeof record, file) == sizeof record ? 0 : -1;
}

// The triangles go in batches: their records are made into one buffer and
// written with one call.
int stlWriteMeshBinary(const qvMesh *mesh, int sign, FILE *file) {
  if (!mesh || !file) {
    return FT_FAIL(-1);
  }
  const qvTri *batch[kBatch];
  static_assert(kRecordBytes * kBatch <= 65536, "one batch of records on the stack");
  unsigned char records[kRecordBytes * kBatch];
  int written = 0;
  const qvTri *tri = mesh->tri;
  while (tri) {
    int n = 0;
    for (; tri && n < kBatch; tri = tri->next) {
      batch[n++] = tri;
    }
    for (int i = 0; i < n; ++i) {
      if (i + 2 * kAhead < n) {
        qvTriPrefetchEdges(batch[i + 2 * kAhead]);
      }
      if (i + kAhead < n) {
        qvTriPrefetchCorners(batch[i + kAhead]);
      }
      if (!binaryRecord(batch[i], sign, records + kRecordBytes * i)) {
        return FT_FAIL(-1);
      }
    }
    const size_t bytes = static_cast<size_t>(kRecordBytes * n);
    if (std::fwrite(records, 1, bytes, file) != bytes) {
      return FT_FAIL(-1);
    }
    written += n;
  }
  return written;
}

int stlWriteMeshAscii(const qvMesh *mesh, int sign, FILE *file) {
  if (!mesh || !file) {
    return FT_FAIL(-1);
  }
  int written = 0;
  for (const qvTri *tri = mesh->tri; tri; tri = tri->next) {
    if (writeTriAscii(tri, sign, file) != 0) {
      return FT_FAIL(-1);
    }
    ++written;
  }
  return written;
}

// The file belongs to this routine from open to close; any failure deletes it.
int stlWriteMeshChain(const qvMesh *chain, int sign, const char *name) {
  FILE *file = openOutputFile(name, "wb");
  if (!file) {
    return FT_FAIL(-1);
  }
  if (!writeHeader(file, 0)) {
    return stlCloseOutput(file, name, kOutputDiscard);
  }
  int64_t sum = 0;
  for (const qvMesh *mesh = chain; mesh; mesh = mesh->next) {
    const int written = stlWriteMeshBinary(mesh, sign, file);
    if (written < 0 || sum + written > INT32_MAX) {
      return stlCloseOutput(file, name, kOutputDiscard);
    }
    sum += written;
  }
  if (stlPatchCount(static_cast<uint32_t>(sum), file) != 0) {
    return stlCloseOutput(file, name, kOutputDiscard);
  }
  return stlCloseOutput(file, name, kOutputCheck) == 0 ? static_cast<int>(sum) : -1;
}
