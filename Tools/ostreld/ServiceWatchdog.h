// Keeps the service manager's watchdog quiet for as long as the daemon is well (sd_watchdog_enabled(3)).
#pragma once

#include <chrono>

namespace ostrel {

/// Reads WATCHDOG_USEC and WATCHDOG_PID once. Without them, or when they are meant for another process, it does
/// nothing. Threads: one.
class ServiceWatchdog {
 public:
  ServiceWatchdog();

  /// To be called often: sends WATCHDOG=1 when half of the manager's patience has passed since the last one, and the
  /// daemon is well. A manager that hears nothing restarts it.
  void tick(bool isWell);

 private:
  std::chrono::nanoseconds patience_{};  // zero: no watchdog
  std::chrono::steady_clock::time_point last_;
};

}  // namespace ostrel
