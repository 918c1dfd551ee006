// Which run of the machine this is.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// Threads: every operation may be called from any thread.
class OSTREL_EXPORT HostBoot {
 public:
  virtual ~HostBoot() = default;
  static HostBoot& current() { return *slot().load(std::memory_order_acquire); }

  /// Names the time from one start of the kernel to its end; different after each. "" when the kernel does not tell.
  /// "/proc/sys/kernel/random/boot_id" (random(4)), whatever the host root: it is about the kernel.
  virtual const std::string& identifier() = 0;
  /// When the kernel started, in nanoseconds since 1970 by the clock as it is set now.
  virtual std::int64_t startedNanoseconds() = 0;

 private:
  friend class ScopedOverride<HostBoot>;
  static std::atomic<HostBoot*>& slot();
};

}  // namespace ostrel
