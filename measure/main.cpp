// FacetMeasure <original.stl> <reduced.stl> [options]: measures what a reduction
// did. Exit status 0 when measured (and, with a tolerance, certified within it),
// 1 when the certified lower bound exceeds the tolerance or the vertex subset
// check fails, 2 for bad usage or a file that cannot be measured, 3 when a
// refinement limit leaves the tolerance between the certified bounds. Messages
// go to standard error, so that the report on standard output stays clean for
// scripts.
#include "measure/measure.h"

#include <omp.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kExitFailed = 1;        // the tolerance or the subset check failed
constexpr int kExitBad = 2;           // bad usage, bad input, or out of memory
constexpr int kExitUndecided = 3;     // the certified bounds straddle the tolerance
constexpr double kStepsPerDiagonal = 2000; // default spacing: the box diagonal over this
constexpr long kThreadMax = 1024;     // most threads accepted by --threads

const char kUsage[] =
    "usage: FacetMeasure <original.stl> <reduced.stl> [--tolerance T] [--step S] [--threads N] "
    "[--json] [--no-edge-samples] [--no-face-samples]\n"
    "  --tolerance T  decide original -> reduced against T (any number): exit 0 when the certified\n"
    "                 upper bound is <= T, 1 when the lower bound is > T, 3 when undecided;\n"
    "                 without it the bounds are refined to within 0.1 % of each other\n";

// The parsed command line.
struct Options {
  const char *original; // file before the reduction
  const char *reduced;  // file after the reduction
  double tolerance;     // bound for original -> reduced, when `decide`
  bool decide;          // --tolerance was given
  double step;          // sample spacing; 0 for the default
  int threads;          // threads for the distances
  bool json;            // one JSON object instead of text
  bool edgeSamples;     // sample inside the edges
  bool faceSamples;     // sample inside the facets
};

bool parseReal(const char *text, double *value) {
  if (!text || !*text) {
    return false;
  }
  char *end = nullptr;
  errno = 0;
  *value = std::strtod(text, &end);
  return *end == '\0' && errno == 0 && std::isfinite(*value);
}

bool parseThreads(const char *text, int *value) {
  if (!text || !*text) {
    return false;
  }
  char *end = nullptr;
  errno = 0;
  const long n = std::strtol(text, &end, 10);
  if (*end != '\0' || errno != 0 || n < 1 || n > kThreadMax) {
    return false;
  }
  *value = static_cast<int>(n);
  return true;
}

// The value of an option given as "--name value" or "--name=value"; null when
// argv[*i] is not that option. Advances *i past a separate value.
const char *optionValue(int argc, char **argv, int *i, const char *name, bool *present) {
  const size_t length = std::strlen(name);
  const char *arg = argv[*i];
  if (std::strncmp(arg, name, length) != 0) {
    return nullptr;
  }
  if (arg[length] == '=') {
    *present = true;
    return arg + length + 1;
  }
  if (arg[length] != '\0') {
    return nullptr;
  }
  *present = true;
  return *i + 1 < argc ? argv[++*i] : nullptr;
}

// Fills `options`; false on bad usage, with the reason in `why`.
bool parseOptions(int argc, char **argv, Options *options, const char **why) {
  *options = {nullptr, nullptr, 0, false, 0, omp_get_max_threads(), false, true, true};
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    bool present = false;
    const char *value = nullptr;
    if ((value = optionValue(argc, argv, &i, "--tolerance", &present)) || present) {
      if (!parseReal(value, &options->tolerance)) {
        *why = "--tolerance needs a finite number";
        return false;
      }
      options->decide = true;
    } else if ((value = optionValue(argc, argv, &i, "--step", &present)) || present) {
      if (!parseReal(value, &options->step) || !(options->step > 0)) {
        *why = "--step needs a number above 0";
        return false;
      }
    } else if ((value = optionValue(argc, argv, &i, "--threads", &present)) || present) {
      if (!parseThreads(value, &options->threads)) {
        *why = "--threads needs a whole number from 1 to 1024";
        return false;
      }
    } else if (std::strcmp(arg, "--json") == 0) {
      options->json = true;
    } else if (std::strcmp(arg, "--no-edge-samples") == 0) {
      options->edgeSamples = false;
    } else if (std::strcmp(arg, "--no-face-samples") == 0) {
      options->faceSamples = false;
    } else if (arg[0] == '-' && arg[1] != '\0') {
      *why = "unknown option";
      return false;
    } else if (files == 0) {
      options->original = arg;
      ++files;
    } else if (files == 1) {
      options->reduced = arg;
      ++files;
    } else {
      *why = "more than two files";
      return false;
    }
  }
  if (files != 2) {
    *why = "two files are needed";
    return false;
  }
  return true;
}

const char *readFailure(int64_t status) {
  switch (status) {
  case -1:
    return "not a valid STL file (malformed, or a coordinate that is not finite)";
  case -2:
    return "cannot be read (missing, unreadable or cut short)";
  default:
    return "too large for this machine's memory or for 2^31 - 1 facets";
  }
}

// The default spacing: the diagonal of the box around both files over 2000.
double defaultStep(const MeasureTopo *a, const MeasureTopo *b) {
  float box[6] = {0, 0, 0, 0, 0, 0};
  bool any = false;
  const MeasureTopo *both[2] = {a, b};
  for (const MeasureTopo *t : both) {
    if (t->vertices == 0) {
      continue;
    }
    for (int i = 0; i < 3; ++i) {
      box[i] = any ? std::fmin(box[i], t->box[i]) : t->box[i];
      box[3 + i] = any ? std::fmax(box[3 + i], t->box[3 + i]) : t->box[3 + i];
    }
    any = true;
  }
  double d2 = 0;
  for (int i = 0; i < 3; ++i) {
    const double extent = static_cast<double>(box[3 + i]) - box[i];
    d2 += extent * extent;
  }
  return d2 > 0 ? std::sqrt(d2) / kStepsPerDiagonal : 1;
}

// Meshes and trees of one run, released together.
struct Work {
  MeasureMesh original;     // welded original
  MeasureMesh reduced;      // welded reduced file
  MeasureTree originalTree; // nearest-point tree of the original
  MeasureTree reducedTree;  // nearest-point tree of the reduced file
};

void release(Work *work) {
  measureMeshFree(&work->original);
  measureMeshFree(&work->reduced);
  measureTreeFree(&work->originalTree);
  measureTreeFree(&work->reducedTree);
}

// Everything but the reading; 0 or a negative status (out of memory).
int measure(const Options *options, Work *work, MeasureReport *report) {
  if (measureTopology(&work->original, &report->original) < 0 ||
      measureTopology(&work->reduced, &report->reduced) < 0) {
    return -3;
  }
  int64_t first = -1;
  report->subsetViolations = measureSubset(&work->original, &work->reduced, &first);
  if (report->subsetViolations < 0) {
    return -3;
  }
  if (first >= 0) {
    std::memcpy(report->subsetFirst, work->reduced.xyz + 3 * first, sizeof report->subsetFirst);
  }
  if (measureTreeBuild(&work->original, &work->originalTree) < 0 ||
      measureTreeBuild(&work->reduced, &work->reducedTree) < 0) {
    return -3;
  }
  MeasureSampling sampling;
  sampling.step = options->step > 0 ? options->step
                                    : defaultStep(&report->original, &report->reduced);
  sampling.cap = kMeasureSampleCap;
  sampling.edgeSamples = options->edgeSamples;
  sampling.faceSamples = options->faceSamples;
  if (measureDistance(&work->original, &work->reducedTree, &sampling, options->threads,
                      &report->originalToReduced) < 0 ||
      measureDistance(&work->reduced, &work->originalTree, &sampling, options->threads,
                      &report->reducedToOriginal) < 0 ||
      measureBound(&work->original, &work->reducedTree, options->decide, options->tolerance,
                   options->threads, &report->bound) < 0) {
    return -3;
  }
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  Options options;
  const char *why = "";
  if (!parseOptions(argc, argv, &options, &why)) {
    std::fprintf(stderr, "FacetMeasure: %s\n%s", why, kUsage);
    return kExitBad;
  }
  Work work = {};
  const int64_t originalStatus = measureRead(options.original, &work.original);
  if (originalStatus < 0) {
    std::fprintf(stderr, "FacetMeasure: %s: %s\n", options.original, readFailure(originalStatus));
    return kExitBad;
  }
  const int64_t reducedStatus = measureRead(options.reduced, &work.reduced);
  if (reducedStatus < 0) {
    std::fprintf(stderr, "FacetMeasure: %s: %s\n", options.reduced, readFailure(reducedStatus));
    release(&work);
    return kExitBad;
  }
  MeasureReport report = {};
  report.originalName = options.original;
  report.reducedName = options.reduced;
  report.tolerance = options.tolerance;
  report.decide = options.decide;
  if (measure(&options, &work, &report) < 0) {
    std::fprintf(stderr, "FacetMeasure: out of memory while measuring\n");
    release(&work);
    return kExitBad;
  }
  release(&work);
  if (options.json) {
    measureWriteJson(stdout, &report);
  } else {
    measureWriteText(stdout, &report);
  }
  const int status = measureStatus(&report);
  return status == 1 ? kExitFailed : status == 3 ? kExitUndecided : 0;
}
