// The waits of a host that have a limit, for whoever watches over the process.
#pragma once

#include <algorithm>
#include <chrono>
#include <set>

#include "Platform/Clock.h"
#include "Platform/Mutex.h"

namespace ostrel::detail {

/// Threads: every operation may be called from any thread.
class LimitedWaits {
 public:
  /// How far the wait that is furthest beyond its limit is beyond it; zero when none is.
  std::chrono::nanoseconds longestOverrun() const {
    const MutexLock lock(mutex_);
    if (deadlines_.empty()) return {};
    return std::max(Clock::current().monotonic() - *deadlines_.begin(), std::chrono::nanoseconds::zero());
  }

 private:
  friend class LimitedWait;
  using Deadlines = std::multiset<std::chrono::nanoseconds>;
  mutable Mutex mutex_;
  Deadlines deadlines_ OSTREL_GUARDED_BY(mutex_);
};

/// One wait, for the life of this object, which should end within `limit`.
class LimitedWait {
 public:
  LimitedWait(LimitedWaits& waits, std::chrono::nanoseconds limit)
      : waits_(waits), begun_(Clock::current().monotonic()) {
    const MutexLock lock(waits_.mutex_);
    place_ = waits_.deadlines_.insert(begun_ + limit);
  }
  ~LimitedWait() {
    const MutexLock lock(waits_.mutex_);
    waits_.deadlines_.erase(place_);
  }
  std::chrono::nanoseconds duration() const { return Clock::current().monotonic() - begun_; }
  LimitedWait(const LimitedWait&) = delete;
  LimitedWait& operator=(const LimitedWait&) = delete;

 private:
  LimitedWaits& waits_;
  const std::chrono::nanoseconds begun_;
  LimitedWaits::Deadlines::iterator place_;
};

}  // namespace ostrel::detail
