// Helpers shared by the files of front/ and used nowhere else.
#pragma once

#include <string>

// The text snprintf would write for format and its arguments, of any length.
// An encoding error gives an empty text.
std::string formatText(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Two names are one file when both exist with the same device and inode, which
// sees through "./", links and other spellings; names of which one does not
// exist are compared as text.
[[nodiscard]] bool sameFile(const std::string &a, const std::string &b);

// The file a route creates for a result named name. Normally name itself; when
// name is an existing file that a failure must leave as it was (the input, or
// the reduced file under a solid file of the same name), a new sibling in the
// same folder with that file's permissions, which replaces it only after
// success (settleOutput). Writing over it directly would leave it emptied or
// cut after a failed or interrupted write.
struct OutputTarget {
  std::string name; // the file the route creates
  bool sibling;     // name is a temporary sibling of the result
};

// Fills target for name; keep asks for a sibling when name exists. False when
// a sibling is needed and can't be made.
[[nodiscard]] bool planOutput(const std::string &name, bool keep, OutputTarget *target);
// A sibling replaces name after success (result >= 0) and is removed after a
// failure. The result, or -1 when the replacement fails.
[[nodiscard]] int settleOutput(const OutputTarget &target, const std::string &name, int result);
