// runReduction: the angle handed to the method, the method call, and the solid
// extraction with limits derived from the tolerance.
#include "front/front.h"
#include "front/front_internal.h"
#include "kernels/failure.h"
#include "solid/solid.h"

#include <cmath>

const double *methodAngle(const ReduceOptions *options, double *copy) {
  if (!options->angleGiven)
    return nullptr;
  // A strict test: an angle of exactly 1e-05 keeps the feature step. -1.0 tells
  // the engine to skip it; any other negative angle goes through as given.
  *copy = options->angle;
  if (1e-05 > std::fabs(options->angle))
    *copy = -1.0;
  return copy;
}

int runReduction(const ReduceOptions *options, int32_t *oldCount, int32_t *removedCount,
                 int32_t *solidCount) {
  double angleCopy = 0.0;
  const double *angle = methodAngle(options, &angleCopy);
  const char *input = options->inputName.c_str();
  const char *output = options->outputName.c_str();

  *solidCount = -1;
  // A method that fails before it counts leaves the old count unset.
  *oldCount = 0;
  switch (options->method) {
  case kMethodHigh:
    *removedCount = reduceHigh(input, output, options->tolerance, angle, oldCount);
    break;
  case kMethodMedium:
    *removedCount = reduceMedium(input, output, options->tolerance, angle, oldCount);
    break;
  default:
    *removedCount = reduceLow(input, output, options->tolerance, angle, oldCount);
    break;
  }

  // Nothing passes to the extraction but the reduced file on disk and these limits.
  if (options->solidWanted && *removedCount >= 0) {
    const double d = options->tolerance * 3.0;
    const double areaLimit = d * d;
    const double volumeLimit = (d * d) * d;
    // A solid file that is the reduced file or the input is written beside
    // it and takes its place only after success, so that a failed write
    // leaves both as they were.
    const std::string &solidName = options->solidName;
    OutputTarget target;
    int solids = -1;
    progressStage(kStageSolid);
    if (planOutput(solidName, sameFile(solidName, options->outputName) ||
                                  sameFile(solidName, options->inputName),
                   &target))
      solids = settleOutput(target, solidName,
                            extractSolids(output, target.name.c_str(), &volumeLimit, &areaLimit,
                                          &areaLimit));
    *solidCount = solids < 0 ? FT_FAIL(-2) : solids;
  }
  return 0;
}
