// Time and sleep, replaceable so that minute-long budgets run in milliseconds under test.
#pragma once

#include <atomic>
#include <chrono>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"
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
  /// Waits until `condition` is notified, at most for `limit`; false when the time was up. May return true for no
  /// reason, so callers loop over their condition with what is left of their budget.
  virtual bool waitFor(Condition& condition, Mutex& mutex, std::chrono::nanoseconds limit) OSTREL_REQUIRES(mutex);

 private:
  friend class ScopedOverride<Clock>;
  static std::atomic<Clock*>& slot();
};

}  // namespace ostrel
