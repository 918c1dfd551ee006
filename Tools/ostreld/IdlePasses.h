// The thread that calls the modules' idle operations from time to time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "Platform/Mutex.h"

namespace ostrel {

class BundleManager;

/// The first pass comes one interval after the start, and one every interval from then on; those that a long pass runs
/// into are left out.
///
/// Threads: `passes` may be called from any thread, the rest belongs to the one that made it.
class IdlePasses {
 public:
  /// Without an interval there is no pass and no thread. `modules` is borrowed.
  IdlePasses(BundleManager& modules, std::chrono::nanoseconds interval);
  /// Waits for a pass that runs.
  ~IdlePasses();
  IdlePasses(const IdlePasses&) = delete;
  IdlePasses& operator=(const IdlePasses&) = delete;

  /// Begins no pass any more, and waits for one that runs, at most for `limit` of real time; false when it runs still.
  bool stop(std::chrono::milliseconds limit);

  std::int64_t passes() const { return passes_; }
  std::chrono::nanoseconds interval() const { return interval_; }

 private:
  void run();

  BundleManager& modules_;
  const std::chrono::nanoseconds interval_;
  std::atomic<std::int64_t> passes_ = 0;
  Mutex mutex_;
  Condition changed_;
  bool stopping_ OSTREL_GUARDED_BY(mutex_) = false;
  bool hasEnded_ OSTREL_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace ostrel
