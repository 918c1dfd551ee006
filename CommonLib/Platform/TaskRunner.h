// Starting other programs (posix_spawn(3)), without a shell.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Export.h"
#include "Platform/ProcessTable.h"
#include "Platform/Service.h"

namespace ostrel {

/// Where a program's output or errors go.
enum class TaskStream {
  inherited,  ///< where this process's go
  discarded,
  captured,  ///< into `TaskOutcome::output`; output and errors together when both are
};

/// A program to start.
///
/// The child gets nothing else of this process: no descriptor but the three standard ones, no blocked or ignored
/// signal, no handler. It keeps the working folder, the user and the umask.
struct Task {
  std::string path;                    ///< of the program, taken as it is: never searched for in PATH
  std::vector<std::string> arguments;  ///< behind the program's own name, which is `path`
  std::optional<std::string> input;    ///< the standard input; absent: empty (/dev/null)
  /// "NAME=value" each, instead of this process's environment; absent: that one.
  std::optional<std::vector<std::string>> environment;
  TaskStream output = TaskStream::inherited;
  TaskStream errors = TaskStream::inherited;
  std::size_t outputLimit = std::size_t{1} << 20;  ///< bytes kept of what is captured; the rest is read and dropped
  /// How long `run` waits before it kills the program (not what that has started). Absent: without limit.
  std::optional<std::chrono::milliseconds> timeLimit;
};

struct TaskOutcome {
  int status = 0;  ///< the exit status, or 128 and the number of the signal that ended it
  std::string output;
  bool outputCut = false;  ///< more was written than the limit keeps
  bool timedOut = false;   ///< it was killed at its time limit
};

/// Threads: every operation may be called from any thread; callers do not wait for one another. Nobody else may
/// collect the children (waitpid(-1), an ignored SIGCHLD) or, where it is passed on, change the environment meanwhile.
class OSTREL_EXPORT TaskRunner {
 public:
  virtual ~TaskRunner() = default;
  static TaskRunner& current() { return *slot().load(std::memory_order_acquire); }

  /// Runs a program and waits, without limit unless the task has one, until it ends; what it leaves running is not
  /// waited for, even where it holds on to the output. The input is given as a file, so a program that never reads it,
  /// or stops reading, holds nothing up. Absent with errno when the program cannot be started (ENOENT, EACCES, ENOEXEC;
  /// EINVAL for a text with a NUL, E2BIG) or its status cannot be had.
  virtual std::optional<TaskOutcome> run(const Task& task) = 0;

  /// Starts a program in a session of its own and returns; its end is collected while this process lives, and it
  /// outlives this process. What would be captured is discarded. Absent with errno when it cannot be started.
  virtual std::optional<ProcessIdentity> start(const Task& task) = 0;

 private:
  friend class ScopedOverride<TaskRunner>;
  static std::atomic<TaskRunner*>& slot();
};

/// Whether this process may run the regular file that the path leads to (access(2)). Safe from any thread.
OSTREL_EXPORT bool isProgram(const std::string& path);

}  // namespace ostrel
