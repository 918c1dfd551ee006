// Fakes of platform services that several test programs share.
#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/Mutex.h"
#include "Platform/SystemLog.h"

namespace ostrel::testing {

/// A clock that only sleeping moves. Safe from any thread.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(double start = 1'000'000'000) : start_(start) {}
  PlistDate now() override { return PlistDate{start_ + std::chrono::duration<double>(monotonic()).count()}; }
  std::chrono::nanoseconds monotonic() override {
    const MutexLock lock(mutex_);
    return elapsed_;
  }
  void sleepFor(std::chrono::nanoseconds duration) override {
    const MutexLock lock(mutex_);
    elapsed_ += duration;
    ++sleeps_;
  }
  /// False when the fake time has passed, by somebody's sleep; wakes every real millisecond.
  bool waitFor(Condition& condition, Mutex& mutex, std::chrono::nanoseconds limit) override OSTREL_REQUIRES(mutex) {
    const auto deadline = monotonic() + limit;
    condition.waitUntil(mutex, std::chrono::steady_clock::now() + std::chrono::milliseconds(1));
    return monotonic() < deadline;
  }
  int sleeps() {
    const MutexLock lock(mutex_);
    return sleeps_;
  }

 private:
  const double start_;
  Mutex mutex_;
  std::chrono::nanoseconds elapsed_ OSTREL_GUARDED_BY(mutex_){};
  int sleeps_ OSTREL_GUARDED_BY(mutex_) = 0;
};

/// The real time of day, and a real clock that runs `factor` times as fast: budgets of minutes pass in a second.
class FastClock final : public Clock {
 public:
  explicit FastClock(int factor) : factor_(factor) {}
  PlistDate now() override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return PlistDate{std::chrono::duration<double>(sinceEpoch).count()};
  }
  std::chrono::nanoseconds monotonic() override {
    return std::chrono::steady_clock::now().time_since_epoch() * factor_;
  }
  void sleepFor(std::chrono::nanoseconds duration) override { std::this_thread::sleep_for(duration / factor_); }
  bool waitFor(Condition& condition, Mutex& mutex, std::chrono::nanoseconds limit) override OSTREL_REQUIRES(mutex) {
    return Clock::waitFor(condition, mutex, limit / factor_);
  }

 private:
  const int factor_;
};

/// Keeps what was logged. Safe from any thread.
class RecordingLog final : public SystemLog {
 public:
  struct Record {
    int priority;
    std::vector<Field> fields;
    std::string message;
  };
  void write(int priority, std::string_view line) override {
    const MutexLock lock(mutex_);
    records_.push_back({priority, {}, std::string(line)});
  }
  void writeRecord(int priority, std::span<const Field> fields, std::string_view message) override {
    const MutexLock lock(mutex_);
    records_.push_back({priority, {fields.begin(), fields.end()}, std::string(message)});
  }
  std::vector<Record> records() {
    const MutexLock lock(mutex_);
    return records_;
  }
  std::vector<std::string> lines() {
    std::vector<std::string> lines;
    for (const Record& record : records()) lines.push_back(record.message);
    return lines;
  }
  bool holds(std::string_view line) {
    const auto all = lines();
    return std::ranges::find(all, line) != all.end();
  }

 private:
  Mutex mutex_;
  std::vector<Record> records_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel::testing
