// An owned file descriptor and the operations on open files.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Containers/Export.h"

namespace ostrel {

/// Owns a descriptor and closes it; -1 is none. Threads: one object on one thread at a time. Closing keeps errno.
class OSTREL_EXPORT FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  /// Takes `descriptor` over.
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const noexcept { return descriptor_; }
  explicit operator bool() const noexcept { return descriptor_ >= 0; }
  /// Gives the descriptor up without closing it.
  int release() noexcept { return std::exchange(descriptor_, -1); }
  /// Closes the descriptor, then takes `descriptor` over.
  void reset(int descriptor = -1) noexcept;

 private:
  int descriptor_ = -1;
};

/// What stat(2) tells of a file.
struct FileStatus {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;  ///< bytes
  mode_t mode = 0;         ///< type and permission bits, as S_ISREG and its kin take them
  uid_t user = 0;
  gid_t group = 0;
  std::uint64_t links = 0;
  double modified = 0;                   ///< seconds since 1970-01-01T00:00:00Z, with a fraction
  std::int64_t modifiedNanoseconds = 0;  ///< the same, exactly
  std::int64_t changedNanoseconds = 0;   ///< when contents or status last changed; no program can set it

  bool isRegularFile() const noexcept { return (mode & 0170000U) == 0100000U; }
  bool isDirectory() const noexcept { return (mode & 0170000U) == 0040000U; }
  bool isSameFile(const FileStatus& other) const noexcept { return device == other.device && inode == other.inode; }
};

// Every operation below retries when a signal interrupts it, leaves its reason in errno when it fails, and may be
// called from any thread. A path that is empty or holds a NUL names nothing: ENOENT or EINVAL, never a shorter path.

/// Opens a file; close-on-exec is always added to `flags` (O_... of <fcntl.h>). None on failure.
OSTREL_EXPORT FileDescriptor openFile(const std::string& path, int flags, mode_t mode = 0);

/// The status of what a path leads to (links followed), of the path itself (a link is told as a link), of an open file.
OSTREL_EXPORT std::optional<FileStatus> fileStatus(const std::string& path);
OSTREL_EXPORT std::optional<FileStatus> linkStatus(const std::string& path);
OSTREL_EXPORT std::optional<FileStatus> descriptorStatus(int descriptor);

/// Reads up to `capacity` bytes at the file position; 0 at the end; -1 on failure.
OSTREL_EXPORT ssize_t readSome(int descriptor, void* buffer, std::size_t capacity);
/// Reads `size` bytes from `offset` unless the file ends before them, leaving the file position alone. The number of
/// bytes read, -1 on failure.
OSTREL_EXPORT ssize_t readAt(int descriptor, void* buffer, std::size_t size, std::uint64_t offset);
/// Writes all of `bytes` at the file position, or at `offset` without moving it. False on failure, when some of the
/// bytes may have been written.
OSTREL_EXPORT bool writeFully(int descriptor, std::string_view bytes);
OSTREL_EXPORT bool writeAt(int descriptor, std::string_view bytes, std::uint64_t offset);
/// Everything from the file position to the end, also of files that tell no size (pipes, /proc). Absent on failure, and
/// with EFBIG when there are more than `limit` bytes.
OSTREL_EXPORT std::optional<std::string> readToEnd(int descriptor, std::size_t limit = SIZE_MAX);

/// ftruncate(2), fsync(2), fdatasync(2), lseek(2) from the start.
OSTREL_EXPORT bool truncateFile(int descriptor, std::uint64_t size);
OSTREL_EXPORT bool syncFile(int descriptor);
OSTREL_EXPORT bool syncFileData(int descriptor);
OSTREL_EXPORT bool seekTo(int descriptor, std::uint64_t offset);
/// Sets the time of modification, in nanoseconds since 1970, and leaves that of access alone. The owner's right.
OSTREL_EXPORT bool setModified(int descriptor, std::int64_t nanoseconds);

/// Reserves disk space for `size` bytes from `offset` on without changing the file's size (fallocate(2)), so that a
/// write there does not find the disk full. True also where the file system cannot reserve, or this is no regular file.
OSTREL_EXPORT bool reserveSpace(int descriptor, std::uint64_t offset, std::uint64_t size);

/// A file in memory that no path leads to (memfd_create(2)); `label` is shown in /proc only.
OSTREL_EXPORT FileDescriptor makeMemoryFile(const std::string& label);

/// Tries to take the advisory exclusive lock of the whole file (flock(2)) without waiting. False with errno EWOULDBLOCK
/// when another open file description holds it, in this process or another.
OSTREL_EXPORT bool tryLockFile(int descriptor);
/// Gives the lock up; closing the last copy of the descriptor does so too.
OSTREL_EXPORT bool unlockFile(int descriptor);

/// fchown(2) and fchmod(2); an id of -1 leaves that one alone.
OSTREL_EXPORT bool changeOwner(int descriptor, uid_t user, gid_t group);
OSTREL_EXPORT bool changeMode(int descriptor, mode_t mode);

}  // namespace ostrel
