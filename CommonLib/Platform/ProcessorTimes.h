// What the processors have done: for this process (getrusage(2)) and in all (/proc/stat, proc(5)).
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// What one running processor has done since the machine started, in clock ticks. Linux tells more kinds: time spent
/// on interrupts counts as system, waiting for a disk as idle; time that the hypervisor took is in none.
struct ProcessorTicks {
  std::uint64_t user = 0;
  std::uint64_t system = 0;
  std::uint64_t idle = 0;
  std::uint64_t nice = 0;
};

struct ProcessTimes {
  timeval user{};
  timeval system{};
};

/// Threads: every operation may be called from any thread.
class OSTREL_EXPORT ProcessorTimes {
 public:
  virtual ~ProcessorTimes() = default;
  static ProcessorTimes& current() { return *slot().load(std::memory_order_acquire); }

  /// The running processors; never empty. Absent with errno when the kernel does not tell.
  virtual std::optional<std::vector<ProcessorTicks>> processors() = 0;
  /// The time used by this process's threads, those that have ended included. Absent with errno.
  virtual std::optional<ProcessTimes> ownTimes() = 0;

 private:
  friend class ScopedOverride<ProcessorTimes>;
  static std::atomic<ProcessorTimes*>& slot();
};

}  // namespace ostrel
