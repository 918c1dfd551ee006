// What a person at a terminal sees while a command takes long.
#pragma once

#include <string>
#include <thread>

#include "Platform/Mutex.h"

namespace ostrel {

/// For its life, shows the elapsed seconds on standard error, from the first second on, and clears them in the end.
/// Only when that is a terminal: nothing of it goes to a file or a pipe. `module` is shown without control characters.
class Progress {
 public:
  explicit Progress(const std::string& module);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Clears what is shown now. May be called from a signal handler.
  static void clearFromSignal() noexcept;

 private:
  void show(const std::string& module);

  Mutex mutex_;
  Condition changed_;
  bool isDone_ OSTREL_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace ostrel
