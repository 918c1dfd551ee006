// A thread for each command that runs, counted so that the server can wait for them.
#pragma once

#include <functional>

#include "Platform/Mutex.h"

namespace ostrel {

/// Threads: every operation may be called from any thread.
class CommandThreads {
 public:
  CommandThreads() = default;
  /// Waits until none is left.
  ~CommandThreads() { waitUntilNone(); }
  CommandThreads(const CommandThreads&) = delete;
  CommandThreads& operator=(const CommandThreads&) = delete;

  /// Runs a command on a thread of its own; on this one when the system gives no thread. `command` must not throw.
  void start(const std::function<void()>& command);
  void waitUntilNone();

 private:
  void end();

  Mutex mutex_;
  Condition ended_;
  int running_ OSTREL_GUARDED_BY(mutex_) = 0;
};

}  // namespace ostrel
