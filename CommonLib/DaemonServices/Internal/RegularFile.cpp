#include "DaemonServices/Internal/RegularFile.h"

#include <fcntl.h>

namespace ostrel::detail {

FileDescriptor openRegularFile(const std::string& path, FinalLink link) {
  const int noFollow = link == FinalLink::refused ? O_NOFOLLOW : 0;
  FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | noFollow);
  const auto status = descriptorStatus(file.get());
  if (!status || !status->isRegularFile()) file.reset();
  return file;
}

}  // namespace ostrel::detail
