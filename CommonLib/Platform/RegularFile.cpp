#include "Platform/RegularFile.h"

#include <fcntl.h>

#include <cerrno>

namespace ostrel {

FileDescriptor openRegularFile(const std::string& path, FinalLink link) {
  const int noFollow = link == FinalLink::refused ? O_NOFOLLOW : 0;
  FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | noFollow);
  if (!file) return file;
  const auto status = descriptorStatus(file.get());
  if (status && status->isRegularFile()) return file;
  if (status) errno = status->isDirectory() ? EISDIR : EINVAL;
  file.reset();
  return file;
}

}  // namespace ostrel
