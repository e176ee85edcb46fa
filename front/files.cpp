// Names compared as files, and the sibling through which a result replaces a
// file that a failed run must leave as it was.
#include "front/front_internal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr mode_t kPermissionBits = 07777; // the mode bits a replacement takes over

} // namespace

bool sameFile(const std::string &a, const std::string &b) {
  struct stat statA;
  struct stat statB;
  if (stat(a.c_str(), &statA) == 0 && stat(b.c_str(), &statB) == 0)
    return statA.st_dev == statB.st_dev && statA.st_ino == statB.st_ino;
  return a == b;
}

bool planOutput(const std::string &name, bool keep, OutputTarget *target) {
  target->name = name;
  target->sibling = false;
  struct stat info;
  if (!keep || stat(name.c_str(), &info) != 0)
    return true;
  std::string pattern = name + ".XXXXXX";
  const int descriptor = mkstemp(pattern.data());
  if (descriptor < 0)
    return false;
  const bool permitted = fchmod(descriptor, info.st_mode & kPermissionBits) == 0;
  close(descriptor);
  if (!permitted) {
    std::remove(pattern.c_str());
    return false;
  }
  target->name = pattern;
  target->sibling = true;
  return true;
}

int settleOutput(const OutputTarget &target, const std::string &name, int result) {
  if (!target.sibling)
    return result;
  if (result >= 0 && std::rename(target.name.c_str(), name.c_str()) == 0)
    return result;
  std::remove(target.name.c_str());
  return -1;
}
