#include "Platform/DescriptorPath.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "Containers/Format.h"

namespace ostrel {

std::optional<std::string> descriptorPath(int descriptor) {
  const std::string link = format("/proc/self/fd/%d", descriptor);
  for (std::string path(256, '\0');; path.resize(path.size() * 2)) {
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    if (length < 0) return std::nullopt;
    if (static_cast<std::size_t>(length) == path.size()) continue;  // cut off, perhaps
    path.resize(static_cast<std::size_t>(length));
    if (path.starts_with('/')) return path;
    errno = ENOENT;  // a pipe or a socket
    return std::nullopt;
  }
}

}  // namespace ostrel
