// The method entries reduceLow, reduceMedium and reduceHigh.
#include "front/front.h"
#include "stl/stl.h"

namespace {

// Facets the block methods accept; a larger count or any scan failure is refused.
constexpr uint64_t kBlockFacetLimit = 100000000;

// Stand-in until the block routes exist: scans the input, refuses what the block
// methods refuse, reports the input count and removes nothing. No output is written.
int scanOnly(const char *inputName, int32_t *oldCount) {
  FacetBox box;
  const int64_t count = stlScan(inputName, &box, nullptr);
  // Taken as unsigned, one test refuses an over-long file and every negative status.
  if (static_cast<uint64_t>(count) > kBlockFacetLimit) {
    *oldCount = 0;
    return -1;
  }
  *oldCount = static_cast<int32_t>(count);
  return 0;
}

} // namespace

int reduceLow(const char *inputName, [[maybe_unused]] const char *outputName,
              [[maybe_unused]] double tolerance, [[maybe_unused]] const double *angle,
              int32_t *oldCount) {
  return scanOnly(inputName, oldCount);
}

int reduceMedium(const char *inputName, [[maybe_unused]] const char *outputName,
                 [[maybe_unused]] double tolerance, [[maybe_unused]] const double *angle,
                 int32_t *oldCount) {
  return scanOnly(inputName, oldCount);
}

int reduceHigh(const char *inputName, [[maybe_unused]] const char *outputName,
               [[maybe_unused]] double tolerance, [[maybe_unused]] const double *angle,
               int32_t *oldCount) {
  return scanOnly(inputName, oldCount);
}
