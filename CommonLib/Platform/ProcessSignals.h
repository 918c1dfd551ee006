// Signals to other processes (pidfd_send_signal(2), kill(2)).
#pragma once

#include <atomic>

#include "Containers/Export.h"
#include "Platform/ProcessTable.h"
#include "Platform/Service.h"

namespace ostrel {

/// Threads: may be called from any thread.
class OSTREL_EXPORT ProcessSignals {
 public:
  virtual ~ProcessSignals() = default;
  static ProcessSignals& current() { return *slot().load(std::memory_order_acquire); }

  /// Sends a signal to the process, and to no other one that has got its id since. False with errno: ESRCH when that
  /// process is gone, EPERM when it may not be signalled, EINVAL for no signal or an id below 1 (groups of processes
  /// are never meant).
  virtual bool send(const ProcessIdentity& process, int signal) = 0;

 private:
  friend class ScopedOverride<ProcessSignals>;
  static std::atomic<ProcessSignals*>& slot();
};

}  // namespace ostrel
