// Fuzzes the whole pipeline in process: bytes -> STL file -> runReduction ->
// reduced file (and solid file), as the command line would run it.
//
// The first three bytes choose the run, the rest is the file:
//   byte 0: bits 0-1 method (0 low, 1 medium, 2 or 3 high), bit 2 -s with a
//           solid file of its own, bit 3 -a given, bit 4 negative tolerance
//   byte 1: tolerance, a fraction of the file's box diagonal: 0 for 0,
//           otherwise 10^-(byte % 4), so 1 to 1/1000 of it (a diagonal of 0,
//           or no box, counts as 1). Smaller fractions make the engine's
//           deviation measure slow enough to stall the run.
//   byte 2: angle in degrees, byte - 64 (so -64 to 191)
// A successful run must leave a complete binary output (count equal to its
// records) whose every vertex is bitwise a vertex of the input; a failed block
// method must leave no output (unless only the solid extraction failed, which
// leaves a complete one); a failed -qh leaves none, a complete one, or one
// with a count of 0. Any broken rule stops the run as a crash.
//   pipeline_fuzz -max_total_time=600 -max_len=8192 fuzz/corpus/pipeline
#include "front/front.h"
#include "kernels/predicates.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr size_t kRunBytes = 3;

void require(bool holds, const char *what) {
  if (!holds) {
    std::fprintf(stderr, "pipeline_fuzz: %s\n", what);
    std::abort();
  }
}

// Scratch files of this process, removed before every input and at exit.
const std::string &scratch(int which) {
  static const std::string base = "/tmp/pipeline_fuzz_" + std::to_string(getpid());
  static const std::string names[] = {base + "_in.stl", base + "_out.stl", base + "_solid.stl",
                                      base + "_out.log"};
  return names[which];
}
enum { kIn, kOut, kSolid, kLog };

void removeScratch() {
  for (int i = kOut; i <= kLog; ++i) {
    std::remove(scratch(i).c_str());
  }
}

std::string bytesOf(const std::string &path, bool *present) {
  std::string bytes;
  FILE *file = std::fopen(path.c_str(), "rb");
  *present = file != nullptr;
  if (!file) {
    return bytes;
  }
  char buffer[4096];
  for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
    bytes.append(buffer, got);
  }
  std::fclose(file);
  return bytes;
}

uint32_t countField(const std::string &bytes) {
  uint32_t count = 0;
  for (int i = 0; i < 4; ++i) {
    count |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[80 + i])) << (8 * i);
  }
  return count;
}

// True when the file is a binary STL whose count equals its records.
bool complete(const std::string &bytes) {
  return bytes.size() >= 84 && (bytes.size() - 84) % 50 == 0 &&
         countField(bytes) == (bytes.size() - 84) / 50;
}

using Corner = std::array<uint32_t, 3>;

// The corners of every facet of the input as the library reads it, bitwise.
bool inputCorners(const char *name, std::set<Corner> *corners) {
  FacetBlock *blocks[kFacetBlockMax] = {};
  int blockCount = 0;
  const int loaded = stlLoadBlocks(name, blocks, &blockCount);
  for (int i = 0; i < loaded; ++i) {
    const float *v = blocks[i / kFacetBlockSize]->rec[i % kFacetBlockSize].v;
    for (int k = 0; k < 3; ++k) {
      Corner c;
      std::memcpy(c.data(), v + 3 * k, sizeof c);
      corners->insert(c);
    }
  }
  freeFacetBlocks(blocks, blockCount);
  return loaded >= 0;
}

void checkSubset(const std::string &output, const std::set<Corner> &corners) {
  for (size_t at = 84; at + 50 <= output.size(); at += 50) {
    for (int k = 0; k < 3; ++k) {
      Corner c;
      std::memcpy(c.data(), output.data() + at + 12 + 12 * k, sizeof c);
      require(corners.count(c) == 1, "every output vertex is an input vertex");
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  exactinit();
  // The low method prints progress lines.
  if (!std::freopen("/dev/null", "w", stdout)) {
    return 0;
  }
  std::atexit([] {
    std::remove(scratch(kIn).c_str());
    removeScratch();
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < kRunBytes) {
    return 0;
  }
  const std::string input(reinterpret_cast<const char *>(data) + kRunBytes, size - kRunBytes);
  {
    FILE *file = std::fopen(scratch(kIn).c_str(), "wb");
    if (!file) {
      return 0;
    }
    const bool written = std::fwrite(input.data(), 1, input.size(), file) == input.size();
    if (std::fclose(file) != 0 || !written) {
      return 0;
    }
  }
  removeScratch();

  ReduceOptions options;
  fillDefaultOptions(&options);
  options.inputName = scratch(kIn);
  options.outputName = scratch(kOut);
  options.logName = scratch(kLog);
  options.method = (data[0] & 3) == 0 ? kMethodLow : (data[0] & 3) == 1 ? kMethodMedium : kMethodHigh;
  options.solidWanted = (data[0] & 4) != 0;
  options.solidName = scratch(kSolid);
  options.angleGiven = (data[0] & 8) != 0;
  options.angle = static_cast<double>(data[2]) - 64.0;
  FacetBox box;
  double diagonal = 0.0;
  if (stlScan(options.inputName.c_str(), &box, nullptr) > 0) {
    for (int i = 0; i < 3; ++i) {
      const double extent = static_cast<double>(box.v[3 + i]) - box.v[i];
      diagonal += extent * extent;
    }
    diagonal = std::sqrt(diagonal);
  }
  if (!(diagonal > 0.0) || !std::isfinite(diagonal)) {
    diagonal = 1.0;
  }
  options.tolerance = data[1] == 0 ? 0.0 : diagonal * std::pow(10.0, -(data[1] % 4));
  if (data[0] & 16) {
    options.tolerance = -options.tolerance;
  }

  int32_t oldCount = 0;
  int32_t removedCount = 0;
  int32_t solidCount = -1;
  require(runReduction(&options, &oldCount, &removedCount, &solidCount) == 0, "runReduction gives 0");

  bool present = false;
  const std::string output = bytesOf(scratch(kOut), &present);
  bool inputPresent = false;
  require(bytesOf(scratch(kIn), &inputPresent) == input, "the input stays as it was");
  const bool block = options.method != kMethodHigh;
  if (removedCount < 0) {
    require(solidCount == -1, "no extraction after a failed reduction");
    require(!present || !block, "a failed block method leaves no output");
    require(!present || complete(output) || (output.size() >= 84 && countField(output) == 0),
            "a failed -qh leaves a complete output or one with a count of 0");
    return 0;
  }
  require(present && complete(output), "success leaves a complete output");
  const int64_t written = (static_cast<int64_t>(output.size()) - 84) / 50;
  require(written == static_cast<int64_t>(oldCount) - removedCount, "old minus removed is written");
  std::set<Corner> corners;
  require(inputCorners(options.inputName.c_str(), &corners), "a reduced input reads");
  checkSubset(output, corners);
  if (solidCount >= 0) {
    bool solidPresent = false;
    const std::string solid = bytesOf(scratch(kSolid), &solidPresent);
    require(solidPresent && complete(solid), "a solid extraction leaves a complete solid file");
  }
  return 0;
}
