// The command line: defaults, the file-name rules and parseCommandLine.
//
// FacetTrim <input-file> [ -o<output-file> -s[<solid-file>] -t<tolerance>
//                          -a<angle> -q<l|m|h> ]   and the unlisted -l<report-file>
// Every value is glued to its letter. A later option overrides an earlier one.
#include "front/front.h"
#include "front/front_internal.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int kParseSyntax = -1;  // no input, a stray word or a lone "-"
constexpr int kParseNoInput = -2; // the first argument is empty
constexpr int kParseMethod = -3;  // -q is not exactly -ql, -qm or -qh

// The C library's atof without its undefined behaviour on overflow: strtod gives
// the same value for every text atof converts, and +-HUGE_VAL where atof may not.
// Text that is no number gives 0.0; no range check follows.
double numberOf(const char *text) { return std::strtod(text, nullptr); }

bool endsWith(const std::string &name, const char *ending) {
  const size_t length = std::strlen(ending);
  return name.size() >= length && name.compare(name.size() - length, length, ending) == 0;
}

const char *methodTag(int32_t method) {
  switch (method) {
  case kMethodHigh:
    return "HQ";
  case kMethodMedium:
    return "MQ";
  default:
    return "LQ";
  }
}

} // namespace

void fillDefaultOptions(ReduceOptions *options) {
  options->inputName.clear();
  options->outputName.clear();
  options->solidName.clear();
  options->logName.clear();
  options->tolerance = 0.1;
  options->angle = 30.0;
  options->angleGiven = false;
  options->solidWanted = false;
  options->method = kMethodLow;
}

std::string provisionalOutputName(const std::string &inputName) {
  // Only the two exact spellings count as the extension; ".Stl" stays in the stem.
  std::string stem = inputName;
  if (endsWith(stem, ".stl") || endsWith(stem, ".STL"))
    stem.resize(stem.size() - 4);
  return formatText("%s_RED.stl", stem.c_str());
}

std::string defaultOutputName(int32_t method, double tolerance, const std::string &inputName) {
  // The input goes in whole, directory part included, so "dir/part.stl" gives
  // "res_LQ_0.10_dir/part.stl", under a directory of that very name.
  return formatText("res_%s_%.2lf_%s", methodTag(method), tolerance, inputName.c_str());
}

std::string reportNameOf(const std::string &outputName) {
  // The last three characters give way to "log" whatever they were: "out.stl"
  // gives "out.log", "result" gives "reslog".
  if (outputName.size() < 3)
    return outputName + ".log";
  return outputName.substr(0, outputName.size() - 3) + "log";
}

int parseCommandLine(ReduceOptions *options, int argCount, const char *const *args) {
  if (argCount < 2)
    return kParseSyntax;
  bool outputGiven = false;
  bool solidGiven = false;
  bool logGiven = false;

  // The first argument is the input whatever it holds, also when it starts with "-".
  options->inputName = args[1];
  // Stands only until -o or the default name below replaces it.
  options->outputName = provisionalOutputName(options->inputName);

  // Faults are reported in the order the arguments meet them.
  for (int i = 2; i < argCount; ++i) {
    const char *arg = args[i];
    if (arg[0] != '-' || arg[1] == '\0')
      return kParseSyntax;
    const char *value = arg + 2;
    switch (arg[1]) {
    case 'a':
      options->angle = numberOf(value);
      options->angleGiven = true;
      break;
    case 'l':
      options->logName = value;
      logGiven = true;
      break;
    case 'o':
      options->outputName = value;
      outputGiven = true;
      break;
    case 'q':
      if (std::strlen(arg) != 3)
        return kParseMethod;
      if (value[0] == 'l')
        options->method = kMethodLow;
      else if (value[0] == 'm')
        options->method = kMethodMedium;
      else if (value[0] == 'h')
        options->method = kMethodHigh;
      else
        return kParseMethod;
      break;
    case 's':
      // A bare -s after -s<name> keeps the name.
      options->solidWanted = true;
      if (value[0] != '\0') {
        options->solidName = value;
        solidGiven = true;
      }
      break;
    case 't':
      options->tolerance = numberOf(value);
      break;
    default:
      // Other letters, upper case included, are passed over.
      break;
    }
  }

  // Only an empty first argument gets here; no argument at all was a syntax fault.
  if (options->inputName.empty())
    return kParseNoInput;
  if (!outputGiven)
    options->outputName = defaultOutputName(options->method, options->tolerance, options->inputName);
  if (!logGiven)
    options->logName = reportNameOf(options->outputName);
  // The solid file then replaces the reduced file, which the extraction reads
  // whole before it writes.
  if (options->solidWanted && !solidGiven)
    options->solidName = options->outputName;
  return 0;
}
