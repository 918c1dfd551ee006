// What the threads of one batch share: the condition lock and the container of the responses.
#pragma once

#include <chrono>

#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"

namespace ostrel {

/// Threads: every operation may be called from any thread. It outlives a batch that was given up: the threads that are
/// left write into it still.
class BatchResults {
 public:
  enum class Shape { array, dictionary };
  explicit BatchResults(Shape shape);

  /// Adds one response and advances the condition by 1. In an array: {"response", "name", "command"}, ending before the
  /// first that is null. In a dictionary: under its command in the module's dictionary, in place of an earlier one;
  /// what has no text for a name or a command, or no response, has no place there.
  void add(const PlistValue& response, const PlistValue& name, const PlistValue& command) OSTREL_EXCLUDES(mutex_);

  /// Waits until the condition is `count`; false when that takes longer than `limit`.
  bool waitFor(int count, std::chrono::nanoseconds limit) OSTREL_EXCLUDES(mutex_);

  /// {"responsesArray": container}, or the container itself. Once all have been waited for it is the container; before
  /// that a copy, since others may write.
  PlistValue answer(bool isComplete) OSTREL_EXCLUDES(mutex_);

 private:
  const Shape shape_;
  Mutex mutex_;
  Condition changed_;
  int condition_ OSTREL_GUARDED_BY(mutex_) = 0;
  PlistValue responses_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel
