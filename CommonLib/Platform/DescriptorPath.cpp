#include "Platform/DescriptorPath.h"

#include <cerrno>

#include "Containers/Format.h"
#include "Platform/Files.h"

namespace ostrel {

std::optional<std::string> descriptorPath(int descriptor) {
  auto path = readLink(format("/proc/self/fd/%d", descriptor));
  if (!path || path->starts_with('/')) return path;
  errno = ENOENT;  // a pipe or a socket
  return std::nullopt;
}

}  // namespace ostrel
