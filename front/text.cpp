// Formatting into owning strings, so that no derived name or report line is cut
// at a buffer's end.
#include "front/front_internal.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

std::string formatText(const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  // The first pass only measures: with size 0 nothing is written.
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string text;
  if (length > 0) {
    std::vector<char> buffer(static_cast<size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    text.assign(buffer.data(), static_cast<size_t>(length));
  }
  va_end(args);
  return text;
}
