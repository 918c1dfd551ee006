// The system calls of this program that change files or lock them, counted, recorded, failed or ended in the middle.
// The program's own pwrite and its kin stand before the C library's, also for the calls of libostrelcommon.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace ostrel::testing {

struct FileChange {
  enum class Kind { create, write, truncate, sync, syncAll };  // the last also a folder, or a file's times
  Kind kind;
  std::string path;
  std::uint64_t position = 0;  // of a write; the length of a truncation
  std::string bytes;
};

struct SystemCallTrap {
  /// The process ends with status 42 in place of the change of this number, from 1; 0: never. A write is done by half
  /// first when `tear` is set.
  static inline std::atomic<int> endAt = 0;
  static inline std::atomic<bool> tear = false;
  static inline std::atomic<int> changes = 0;
  /// Where the changes of this process are put down, in order; nullptr: nowhere. One thread only.
  static inline std::vector<FileChange>* record = nullptr;
  /// The write, sync or truncation of this number fails with EIO, after half of it when `tear` is set; 0: none.
  static inline std::atomic<int> failAt = 0;
  /// The attempt to lock of this number fails with EIO; 0: none.
  static inline std::atomic<int> failLockAt = 0;
  static inline std::atomic<int> locks = 0;
  /// The next fstat fails with EIO.
  static inline std::atomic<bool> failStatus = false;
  /// How many seconds the clock of the day is ahead of the machine's.
  static inline std::atomic<int> secondsAhead = 0;
};

}  // namespace ostrel::testing
