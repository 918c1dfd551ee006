// The kernel's process table (/proc, proc(5)).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// What a process is doing. Only `none` (dead or unknown) and `zombie` count as not running.
enum class ProcessState : std::uint8_t { none, starting, running, sleeping, stopped, zombie };

/// Names one process for good: an id alone may be another's once its process has ended.
struct ProcessIdentity {
  pid_t id = 0;
  std::uint64_t started = 0;  ///< in clock ticks since the machine started; 0: unknown, whoever has the id now
};

/// One process. Plain memory: may be copied with memcpy.
struct ProcessEntry {
  pid_t pid = 0;
  pid_t parent = 0;
  std::uint64_t started = 0;  ///< as in `ProcessIdentity`
  ProcessState state = ProcessState::none;
  /// The kernel's short name, ending in a NUL: for a program at most 15 bytes of its file's name, or what it has called
  /// itself since; longer for some threads of the kernel. Any bytes may be in it, spaces and line feeds included.
  char command[64] = {};

  std::string_view name() const noexcept { return command; }
  ProcessIdentity identity() const noexcept { return {pid, started}; }
  bool isRunning() const noexcept { return state != ProcessState::none && state != ProcessState::zombie; }
};

/// Threads: every operation may be called from any thread. None waits. Processes come and go meanwhile: what ended
/// before it was looked at is left out. On a /proc that hides other users' processes (hidepid) they are not there. The
/// host root does not apply: these are the processes of this machine.
class OSTREL_EXPORT ProcessTable {
 public:
  virtual ~ProcessTable() = default;
  static ProcessTable& current() { return *slot().load(std::memory_order_acquire); }

  /// All processes by ascending id, zombies and threads of the kernel included. Absent, with errno, when the table
  /// cannot be read or held (ENOMEM, EMFILE).
  virtual std::optional<std::vector<ProcessEntry>> snapshot() = 0;

  /// The process with this id; absent when there is none, also for the id of a thread that is no process.
  virtual std::optional<ProcessEntry> find(pid_t pid);

  /// The id of the first process in the order of `snapshot` that `isNamed` so; -1 when there is none or the table
  /// cannot be read. Cheaper than a snapshot.
  virtual pid_t firstNamed(std::string_view name);

  /// Whether a process has exactly this name: its short name, or, for a name of more than 15 bytes that the kernel cut
  /// to the short name, the file name of its program (/proc/PID/exe) or of one of the first three words of its command
  /// line (a script stands there behind its interpreter and perhaps an option). The empty name is nobody's.
  virtual bool isNamed(const ProcessEntry& process, std::string_view name);

 private:
  friend class ScopedOverride<ProcessTable>;
  static std::atomic<ProcessTable*>& slot();
};

}  // namespace ostrel
