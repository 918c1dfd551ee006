// What a process takes of the machine, as /proc tells it (proc(5)).
#pragma once

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Platform/Mutex.h"

namespace ostrel::load {

struct Usage {
  long descriptors = 0;
  long threads = 0;
  long residentKilobytes = 0;
};

Usage usageOf(pid_t process);

/// What the process takes once it has come to rest: nothing has got less for `quiet`. Or after 30 seconds, in any case.
Usage usageAtRest(pid_t process, std::chrono::milliseconds quiet);

/// Looks at a process ten times a second, on a thread of its own, until it is destroyed.
class ProcessWatch {
 public:
  explicit ProcessWatch(pid_t process);
  ~ProcessWatch();
  ProcessWatch(const ProcessWatch&) = delete;
  ProcessWatch& operator=(const ProcessWatch&) = delete;

  /// Means over the first and over the last `length` that was watched.
  Usage first(std::chrono::milliseconds length) const;
  Usage last(std::chrono::milliseconds length) const;

 private:
  using Time = std::chrono::steady_clock::time_point;
  struct Sample {
    Time time;
    Usage usage;
  };
  Usage mean(Time from, Time to) const;

  mutable Mutex mutex_;
  std::vector<Sample> samples_ OSTREL_GUARDED_BY(mutex_);
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

}  // namespace ostrel::load
