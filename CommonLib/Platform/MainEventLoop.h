// The main thread's event loop: delayed calls, calls handed over from other threads.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "Containers/Export.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Mutex.h"

namespace ostrel {

/// The main thread is the process's first thread unless another one calls `claimMainThread`.
///
/// A program either gives its main thread to the loop (`run`, `runFor`), or keeps a loop of its own, adds
/// `descriptor()` to what it polls for reading, and calls `processPending` when that is readable.
///
/// fork: the child has a loop of its own, under the same descriptor, with a copy of the works; what it does there is
/// nothing to its parent. Threads that wait for their works do not exist in the child.
///
/// Threads: each operation says where it may be called.
class OSTREL_EXPORT MainEventLoop {
 public:
  using Work = std::function<void()>;

  /// The loop of the process; never destroyed. Any thread.
  static MainEventLoop& shared();

  /// Makes the calling thread the main thread. Call it before anything else uses the loop.
  void claimMainThread();
  /// Whether the caller runs on the main thread. Any thread.
  bool isMainThread() const;

  /// Calls `work` on the main thread once, `delay` from now (monotonic time; a negative delay is 0). Works come in the
  /// order of their times, equal ones in the order of these calls. Any thread; never blocks, never calls at once.
  void callAfter(std::chrono::nanoseconds delay, Work work);

  /// Calls `work` on the main thread and returns when it has run; what it throws comes to the caller. On the main
  /// thread it is called at once; any other thread waits until the loop comes round, however long that takes.
  void runOnMainThreadAndWait(const Work& work);

  /// Main thread: runs the loop until `stop`. What a work throws leaves the loop through here; the work counts as done.
  void run();
  /// Main thread: runs the loop for that long, or until `stop`. True when it was stopped. Runs may nest.
  bool runFor(std::chrono::nanoseconds duration);
  /// Ends the innermost run after the work that is running now; without one the next run ends at once. Any thread.
  void stop();

  /// A descriptor that polls readable while work is due. It belongs to the loop: never read or
  /// close it. Any thread.
  int descriptor() const noexcept { return timer_.get(); }
  /// Main thread: runs the work that is due now, without waiting; work that becomes due meanwhile is left for the next
  /// call. The number of works run.
  std::size_t processPending();

 private:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Key = std::pair<TimePoint, std::uint64_t>;

  MainEventLoop();
  ~MainEventLoop() = delete;
  void surviveForks();

  Key add(TimePoint due, Work work);
  void cancel(const Key& key);
  std::size_t processWorks(const bool* timeIsUp);
  std::optional<Work> takeDue(const Key& limit);
  bool runUntil(std::optional<TimePoint> deadline);
  bool isStopped() const;
  bool takeStop();
  void countRun(int change);
  void armTimer() OSTREL_REQUIRES(mutex_);

  FileDescriptor timer_;
  mutable Mutex mutex_;
  std::thread::id claimedBy_ OSTREL_GUARDED_BY(mutex_);  // default: the process's first thread
  std::map<Key, Work> works_ OSTREL_GUARDED_BY(mutex_);
  std::uint64_t nextNumber_ OSTREL_GUARDED_BY(mutex_) = 0;
  int runs_ OSTREL_GUARDED_BY(mutex_) = 0;  // nested ones counted
  bool stopped_ OSTREL_GUARDED_BY(mutex_) = false;
};

}  // namespace ostrel
