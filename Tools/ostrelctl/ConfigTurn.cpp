#include "ostrelctl/ConfigTurn.h"

#include <cerrno>
#include <chrono>

#include "Platform/Clock.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace {

// Anybody who may read a file may lock it: nobody is waited for without end.
constexpr std::chrono::seconds patience{10};
constexpr std::chrono::milliseconds pause{5};

bool leadsTo(const std::string& path, int file) {
  const auto held = descriptorStatus(file);
  const auto present = fileStatus(path);
  return held && present && held->device == present->device && held->inode == present->inode;
}

}  // namespace

FileDescriptor openInTurn(const std::string& path) {
  Clock& clock = Clock::current();
  const auto deadline = clock.monotonic() + patience;
  for (;;) {
    FileDescriptor file = openRegularFile(path);
    if (!file) return file;
    if (tryLockFile(file.get())) {
      if (leadsTo(path, file.get())) return file;
    } else if (errno != EWOULDBLOCK) {
      return file;
    }
    if (clock.monotonic() >= deadline) {
      file.reset();
      errno = EWOULDBLOCK;
      return file;
    }
    clock.sleepFor(pause);
  }
}

}  // namespace ostrel
