#include "SystemCallTrap.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>

using ostrel::testing::FileChange;
using Trap = ostrel::testing::SystemCallTrap;

namespace {

std::string pathOf(int descriptor) {
  std::array<char, 4096> path{};
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  return {path.data(), length < 0 ? 0 : static_cast<std::size_t>(length)};
}

/// False when the change is to fail. Ends the process when its turn has come, after `half` of it.
bool allowed(const auto& change, const auto& half) {
  const int number = ++Trap::changes;
  if (number == Trap::endAt) {
    if (Trap::tear) half();
    _exit(42);
  }
  if (number == Trap::failAt) {
    if (Trap::tear) half();
    errno = EIO;
    return false;
  }
  if (Trap::record != nullptr) Trap::record->push_back(change());
  return true;
}
constexpr auto nothing = [] {};

}  // namespace

// The rest of the program hides its symbols; these must be seen by the library.
#pragma GCC visibility push(default)
extern "C" {

ssize_t pwrite(int descriptor, const void* bytes, size_t size, off_t offset) {
  const auto half = [&] { syscall(SYS_pwrite64, descriptor, bytes, size / 2, offset); };
  const auto change = [&] {
    return FileChange{FileChange::Kind::write, pathOf(descriptor), static_cast<std::uint64_t>(offset),
                      std::string(static_cast<const char*>(bytes), size)};
  };
  return allowed(change, half) ? syscall(SYS_pwrite64, descriptor, bytes, size, offset) : -1;
}

int ftruncate(int descriptor, off_t length) noexcept {
  const auto change = [&] {
    return FileChange{FileChange::Kind::truncate, pathOf(descriptor), static_cast<std::uint64_t>(length), {}};
  };
  return allowed(change, nothing) ? static_cast<int>(syscall(SYS_ftruncate, descriptor, length)) : -1;
}

// Nothing is really synced: no test stops the machine, and a disk takes its time.
int fdatasync(int descriptor) {
  const auto change = [&] { return FileChange{FileChange::Kind::sync, pathOf(descriptor), 0, {}}; };
  return allowed(change, nothing) ? 0 : -1;
}

int fsync(int descriptor) {
  const auto change = [&] { return FileChange{FileChange::Kind::syncAll, pathOf(descriptor), 0, {}}; };
  return allowed(change, nothing) ? 0 : -1;
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const auto change = [&] { return FileChange{FileChange::Kind::create, path, 0, {}}; };
  if ((flags & O_CREAT) != 0 && !allowed(change, nothing)) return -1;
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int flock(int descriptor, int operation) noexcept {
  if ((operation & LOCK_EX) != 0 && ++Trap::locks == Trap::failLockAt) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, descriptor, operation));
}

int fstat(int descriptor, struct stat* status) noexcept {
  if (Trap::failStatus.exchange(false)) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fstat, descriptor, status));
}

int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (clock == CLOCK_REALTIME) time->tv_sec += Trap::secondsAhead;
  return result;
}

}  // extern "C"
#pragma GCC visibility pop
