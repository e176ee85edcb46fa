// Helpers shared by the files of front/ and used nowhere else.
#pragma once

#include <string>

// The text snprintf would write for format and its arguments, of any length.
// An encoding error gives an empty text.
std::string formatText(const char *format, ...) __attribute__((format(printf, 1, 2)));
