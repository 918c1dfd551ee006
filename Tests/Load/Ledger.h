// What the clients measured, and what they found wrong.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"

namespace ostrel::load {

using Microseconds = std::chrono::microseconds;

/// Durations of one kind of request.
class Durations {
 public:
  void add(std::chrono::nanoseconds duration) { all_.push_back(std::chrono::duration_cast<Microseconds>(duration)); }
  void add(const Durations& others) { all_.insert(all_.end(), others.all_.begin(), others.all_.end()); }
  std::size_t count() const { return all_.size(); }
  /// The duration that this share of all does not exceed; 0 without any.
  Microseconds percentile(double share) {
    if (all_.empty()) return {};
    const auto index = static_cast<std::size_t>(share * static_cast<double>(all_.size() - 1));
    std::nth_element(all_.begin(), all_.begin() + static_cast<std::ptrdiff_t>(index), all_.end());
    return all_[index];
  }

 private:
  std::vector<Microseconds> all_;
};

/// Threads: any; clients measure on their own and hand it over when they are done.
class Ledger {
 public:
  using ByKind = std::map<std::string, Durations>;

  void add(const ByKind& measured) {
    const MutexLock lock(mutex_);
    for (const auto& [kind, durations] : measured) byKind_[kind].add(durations);
  }
  ByKind measured() const {
    const MutexLock lock(mutex_);
    return byKind_;
  }
  void forgetMeasured() {
    const MutexLock lock(mutex_);
    byKind_.clear();
  }

  void violation(std::string text) {
    const MutexLock lock(mutex_);
    ++violationCount_;
    if (violations_.size() < 20) violations_.push_back(std::move(text));
  }
  std::size_t violationCount() const {
    const MutexLock lock(mutex_);
    return violationCount_;
  }
  std::vector<std::string> violations() const {
    const MutexLock lock(mutex_);
    return violations_;
  }

 private:
  mutable Mutex mutex_;
  ByKind byKind_ OSTREL_GUARDED_BY(mutex_);
  std::vector<std::string> violations_ OSTREL_GUARDED_BY(mutex_);
  std::size_t violationCount_ OSTREL_GUARDED_BY(mutex_) = 0;
};

}  // namespace ostrel::load
