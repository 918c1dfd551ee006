// Time and sleep, replaceable so that minute-long budgets run in milliseconds under test.
#pragma once

#include <atomic>
#include <chrono>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Service.h"

namespace ostrel {

/// Threads: every operation may be called from any thread.
class OSTREL_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  static Clock& current() { return *slot().load(std::memory_order_acquire); }

  /// The time of day. May step when the host's clock is set: not for measuring.
  virtual PlistDate now() = 0;
  /// Time since an arbitrary start; never goes back. For budgets and durations.
  virtual std::chrono::nanoseconds monotonic() = 0;
  /// Blocks the calling thread for at least this long.
  virtual void sleepFor(std::chrono::nanoseconds duration) = 0;

 private:
  friend class ScopedOverride<Clock>;
  static std::atomic<Clock*>& slot();
};

}  // namespace ostrel
