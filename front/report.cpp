// The run report: a short text file written after a fully successful run.
#include "front/front.h"
#include "front/front_internal.h"

#include <cstdio>

namespace {

const char *methodLine(int32_t method) {
  switch (method) {
  case kMethodHigh:
    return "    method          :    high quality \n";
  case kMethodMedium:
    return "    method          :    medium quality \n";
  default:
    return "    method          :    low quality \n";
  }
}
} // namespace

std::string formatRunReport(const ReduceOptions *options, int32_t oldCount,
                            int32_t removedCount, int32_t solidCount, double elapsedSeconds) {
  // With no triangles in, none were removed: 0.00 %, where a division would give NaN.
  double percent = 0.0;
  if (oldCount != 0)
    percent = static_cast<double>(removedCount) / static_cast<double>(oldCount) * 100.0;

  // Both fields of the first line carry the input name.
  std::string text = formatText("--> FacetTrim from %s to %s\n", options->inputName.c_str(),
                                options->inputName.c_str());
  text += methodLine(options->method);
  text += formatText("    old tri count   :    %d          \n", oldCount);
  // Not recounted from the file: after a solid extraction this is still the
  // count of the reduced file. 64-bit so that no pair of counts can overflow.
  text += formatText("    new tri count   :    %lld          \n",
                     static_cast<long long>(oldCount) - removedCount);
  text += formatText("    tolerance       :    %.4f        \n", options->tolerance);
  text += formatText("    reduction       :    %.2f %s     \n", percent, "%");
  if (solidCount >= 0)
    text += formatText("    number of solids:    %d \n", solidCount);
  text += formatText("    elapsed time    :    %6.0f sec   \n", elapsedSeconds);
  return text;
}

int writeRunReport(const ReduceOptions *options, int32_t oldCount, int32_t removedCount,
                   int32_t solidCount, double elapsedSeconds) {
  // Opening the report for writing would empty a result or the input itself.
  const std::string &logName = options->logName;
  if (sameFile(logName, options->inputName) || sameFile(logName, options->outputName) ||
      (options->solidWanted && sameFile(logName, options->solidName)))
    return 1;

  FILE *file = std::fopen(logName.c_str(), "w");
  if (file == nullptr)
    return -1;
  // The text goes out in one write, with no buffer: a buffer would be the
  // first large request the allocator sees after the reduction, which makes
  // it merge every small chunk the engine freed since its last one (about
  // 0.3 s after the full dragon with -qh).
  std::setvbuf(file, nullptr, _IONBF, 0);
  const std::string text =
      formatRunReport(options, oldCount, removedCount, solidCount, elapsedSeconds);
  const size_t written = std::fwrite(text.data(), 1, text.size(), file);
  const int closed = std::fclose(file);
  return written == text.size() && closed == 0 ? 0 : -1;
}
