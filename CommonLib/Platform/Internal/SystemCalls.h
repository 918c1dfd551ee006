// What every wrapper of a system call does.
#pragma once

#include <cerrno>
#include <string>

namespace ostrel::detail {

/// Repeats a call that answers -1 with EINTR.
template <class Call>
auto retried(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

/// False, with errno set, for a path that is empty or that C would read shorter than it is.
inline bool isUsablePath(const std::string& path) {
  if (path.empty())
    errno = ENOENT;
  else if (path.find('\0') != std::string::npos)
    errno = EINVAL;
  else
    return true;
  return false;
}

}  // namespace ostrel::detail
