#include "Platform/FileDescriptor.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

/// Held to the range: a file's owner may date it far beyond the year 2262.
std::int64_t nanosecondsOf(const timespec& time) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max() / nanosecondsPerSecond - 1;
  return std::clamp<std::int64_t>(time.tv_sec, -most, most) * nanosecondsPerSecond + time.tv_nsec;
}

FileStatus statusFrom(const struct stat& found) {
  FileStatus status;
  status.device = found.st_dev;
  status.inode = found.st_ino;
  status.size = static_cast<std::uint64_t>(found.st_size);
  status.mode = found.st_mode;
  status.user = found.st_uid;
  status.group = found.st_gid;
  status.links = found.st_nlink;
  status.modified = static_cast<double>(found.st_mtim.tv_sec) + static_cast<double>(found.st_mtim.tv_nsec) / 1e9;
  status.modifiedNanoseconds = nanosecondsOf(found.st_mtim);
  status.changedNanoseconds = nanosecondsOf(found.st_ctim);
  return status;
}

template <class Stat>
std::optional<FileStatus> statusBy(Stat stat) {
  struct stat found {};
  if (detail::retried([&] { return stat(&found); }) != 0) return std::nullopt;
  return statusFrom(found);
}

// What off_t can hold; larger offsets are refused rather than wrapped.
bool toOffset(std::uint64_t offset, off_t& out) {
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
    errno = EOVERFLOW;
    return false;
  }
  out = static_cast<off_t>(offset);
  return true;
}

}  // namespace

void FileDescriptor::reset(int descriptor) noexcept {
  if (descriptor_ >= 0) {
    const int kept = errno;
    ::close(descriptor_);
    errno = kept;
  }
  descriptor_ = descriptor;
}

FileDescriptor openFile(const std::string& path, int flags, mode_t mode) {
  if (!detail::isUsablePath(path)) return {};
  return FileDescriptor(detail::retried([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); }));
}

std::optional<FileStatus> fileStatus(const std::string& path) {
  if (!detail::isUsablePath(path)) return std::nullopt;
  return statusBy([&](struct stat* found) { return ::stat(path.c_str(), found); });
}

std::optional<FileStatus> linkStatus(const std::string& path) {
  if (!detail::isUsablePath(path)) return std::nullopt;
  return statusBy([&](struct stat* found) { return ::lstat(path.c_str(), found); });
}

std::optional<FileStatus> descriptorStatus(int descriptor) {
  return statusBy([&](struct stat* found) { return ::fstat(descriptor, found); });
}

ssize_t readSome(int descriptor, void* buffer, std::size_t capacity) {
  return detail::retried([&] { return ::read(descriptor, buffer, capacity); });
}

ssize_t readAt(int descriptor, void* buffer, std::size_t size, std::uint64_t offset) {
  off_t position = 0;
  if (!toOffset(offset, position)) return -1;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = detail::retried([&] {
      return ::pread(descriptor, static_cast<char*>(buffer) + done, size - done, position + static_cast<off_t>(done));
    });
    if (count < 0) return -1;
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

bool writeFully(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = detail::retried([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool writeAt(int descriptor, std::string_view bytes, std::uint64_t offset) {
  off_t position = 0;
  if (!toOffset(offset, position)) return false;
  while (!bytes.empty()) {
    const ssize_t count = detail::retried([&] { return ::pwrite(descriptor, bytes.data(), bytes.size(), position); });
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    position += count;
  }
  return true;
}

std::optional<std::string> readToEnd(int descriptor, std::size_t limit) {
  constexpr std::size_t smallest = 4096;
  const auto status = descriptorStatus(descriptor);
  // One byte more than the file tells, so that its end is seen without growing.
  const std::size_t told = status && status->isRegularFile() ? static_cast<std::size_t>(status->size) : 0;
  std::string bytes;
  bytes.resize(std::max(smallest, std::min(told, limit) + 1));
  std::size_t filled = 0;
  for (;;) {
    const ssize_t count = readSome(descriptor, bytes.data() + filled, bytes.size() - filled);
    if (count < 0) return std::nullopt;
    filled += static_cast<std::size_t>(count);
    if (filled > limit) {
      errno = EFBIG;
      return std::nullopt;
    }
    if (count == 0) break;
    if (filled == bytes.size()) bytes.resize(filled * 2);
  }
  bytes.resize(filled);
  return bytes;
}

bool truncateFile(int descriptor, std::uint64_t size) {
  off_t length = 0;
  return toOffset(size, length) && detail::retried([&] { return ::ftruncate(descriptor, length); }) == 0;
}

bool syncFile(int descriptor) {
  return detail::retried([&] { return ::fsync(descriptor); }) == 0;
}

bool syncFileData(int descriptor) {
  return detail::retried([&] { return ::fdatasync(descriptor); }) == 0;
}

bool seekTo(int descriptor, std::uint64_t offset) {
  off_t position = 0;
  return toOffset(offset, position) && ::lseek(descriptor, position, SEEK_SET) == position;
}

bool reserveSpace(int descriptor, std::uint64_t offset, std::uint64_t size) {
  off_t start = 0;
  off_t length = 0;
  if (!toOffset(offset, start) || !toOffset(size, length)) return false;
  if (detail::retried([&] { return ::fallocate(descriptor, FALLOC_FL_KEEP_SIZE, start, length); }) == 0) return true;
  // Only what a write would fail with, too.
  return errno != ENOSPC && errno != EDQUOT && errno != EFBIG && errno != EIO;
}

FileDescriptor makeMemoryFile(const std::string& label) {
  if (!detail::isUsablePath(label)) return {};
  return FileDescriptor(::memfd_create(label.c_str(), MFD_CLOEXEC));
}

bool setModified(int descriptor, std::int64_t nanoseconds) {
  const std::int64_t fraction = (nanoseconds % nanosecondsPerSecond + nanosecondsPerSecond) % nanosecondsPerSecond;
  const timespec times[2] = {{0, UTIME_OMIT}, {(nanoseconds - fraction) / nanosecondsPerSecond, fraction}};
  return detail::retried([&] { return ::futimens(descriptor, times); }) == 0;
}

bool tryLockFile(int descriptor) {
  return detail::retried([&] { return ::flock(descriptor, LOCK_EX | LOCK_NB); }) == 0;
}

bool unlockFile(int descriptor) {
  return detail::retried([&] { return ::flock(descriptor, LOCK_UN); }) == 0;
}

bool changeOwner(int descriptor, uid_t user, gid_t group) {
  return detail::retried([&] { return ::fchown(descriptor, user, group); }) == 0;
}

bool changeMode(int descriptor, mode_t mode) {
  return detail::retried([&] { return ::fchmod(descriptor, mode); }) == 0;
}

}  // namespace ostrel
