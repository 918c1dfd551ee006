#include "Platform/FileDates.h"

#include <cerrno>

#include "Platform/Internal/SystemCalls.h"

namespace ostrel {

bool _statStructForFileAtPath(const std::string& path, struct stat* status) {
  if (!detail::isUsablePath(path)) return false;
  if (status != nullptr) return detail::retried([&] { return ::lstat(path.c_str(), status); }) == 0;
  errno = EINVAL;
  return false;
}

PlistValue modificationDateAtPath(const std::string& path) {
  struct stat status {};
  if (!_statStructForFileAtPath(path, &status)) return {};
  return PlistDate{static_cast<double>(status.st_mtim.tv_sec)};
}

bool ModDateIsOld(const PlistValue& dateA, const PlistValue& dateB) { return !(dateA == dateB); }

}  // namespace ostrel
