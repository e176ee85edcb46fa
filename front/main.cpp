// FacetTrim: one STL file in, a smaller one out within a tolerance, and a run
// report beside it. Exit status 0 on success; every failure prints one message
// to standard output and ends with -1.
#include "front/front.h"
#include "kernels/failure.h"
#include "kernels/predicates.h"
#include "stl/stl.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

const char *const kLicenceRefused = "\nERROR: No valid license.\n\n";
const char *const kWrongSyntax = "WRONG SYNTAX. Usage: FacetTrim <input-file> [ -o<output-file> "
                                 "-s[<solid-file>] -t<tolerance> -a<angle> -q<l|m|h> ]\n";
const char *const kMissingInput = "MISSING INPUT FILE. Usage: FacetTrim <input-file> [ "
                                  "-o<output-file> -s[<solid-file>] -t<tolerance> -a<angle> "
                                  "-q<l|m|h> ]\n";
const char *const kWrongMethod = "WRONG METHOD. Usage: FacetTrim <input-file> [ -o<output-file> "
                                 "-s[<solid-file>] -t<tolerance> -a<angle> -q<l|m|h> ]\n";
const char *const kReductionFailed = "ERROR: REDUCTION NOT POSSIBLE !\n";

constexpr int kExitFailure = -1;

// With FT_TRACE=1 in the environment, a failed run also names on standard
// error the place in the source where it first failed.
void traceFailure() {
  const char *trace = std::getenv("FT_TRACE");
  char place[256];
  if (trace && std::strcmp(trace, "1") == 0)
    std::fprintf(stderr, "FacetTrim: first failure at %s\n",
                 ftFailPlace(place, sizeof place) ? place : "an unmarked place");
}

const char *parseMessage(int status) {
  if (status == -2)
    return kMissingInput;
  if (status == -3)
    return kWrongMethod;
  return kWrongSyntax;
}

} // namespace

int main(int argc, char **argv) {
  // The exact predicates derive their constants once, here on the main thread,
  // before any parallel region can ask for them.
  exactinit();

  // A run ended by a signal leaves no partial output. A file size limit makes
  // writes fail instead of ending the process, so it ends as any failed write:
  // with the one message and no partial output either.
  stlRemoveOutputOnSignal();
  std::signal(SIGXFSZ, SIG_IGN);

  ReduceOptions options;
  fillDefaultOptions(&options);

  // The gate runs before anything looks at the command line.
  if (licenceGranted() != 1) {
    std::fputs(kLicenceRefused, stdout);
    return kExitFailure;
  }

  const int parsed = parseCommandLine(&options, argc, argv);
  if (parsed != 0) {
    std::fputs(parseMessage(parsed), stdout);
    return kExitFailure;
  }

  // Whole seconds around everything behind the parse: reading, reduction,
  // writing and solid extraction.
  const std::time_t start = std::time(nullptr);
  int32_t oldCount = 0;
  int32_t removedCount = 0;
  int32_t solidCount = -1;
  // The low method prints progress lines of its own on standard output, which
  // a line rewritten in place on the same terminal would garble.
  progressStart(options.method != kMethodLow);
  const int result = runReduction(&options, &oldCount, &removedCount, &solidCount);
  const std::time_t end = std::time(nullptr);
  // The line is gone before any message can follow it.
  progressEnd();

  // One message for every failure behind the run: unreadable or malformed input,
  // limits, a failed write or a failed solid extraction.
  if (result != 0 || removedCount < 0 || solidCount < -1) {
    std::fputs(kReductionFailed, stdout);
    traceFailure();
    return kExitFailure;
  }

  // A report that cannot be written, or would overwrite a file of this run, is
  // left out without a word: the run itself succeeded.
  (void)writeRunReport(&options, oldCount, removedCount, solidCount, std::difftime(end, start));
  return 0;
}
