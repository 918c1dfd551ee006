// Threads that nobody joins, counted so that a clean stop can wait for them.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace ostrel {

/// Threads: every operation may be called from any thread.
class BackgroundThreads {
 public:
  BackgroundThreads();
  /// Waits until none is left.
  ~BackgroundThreads();
  BackgroundThreads(const BackgroundThreads&) = delete;
  BackgroundThreads& operator=(const BackgroundThreads&) = delete;

  /// Runs `work` on a detached thread of its own; on this one when the system gives no thread, since work that is
  /// late is better than work that is lost. `work` must not throw. It is destroyed before it counts as done.
  void start(const std::function<void()>& work);
  /// The same, but not on this thread: false, with nothing done, when the system gives no thread.
  bool tryStart(const std::function<void()>& work);

  /// For the end of such a thread: blocks for `time`, but no longer than until somebody waits for none, and not at all
  /// when many threads do so already.
  void linger(std::chrono::nanoseconds time);

  /// Waits until none is left, those included that are started meanwhile. From then on none lingers.
  void waitUntilNone();
  /// The same, at most for `limit` of real time; true when none is left.
  bool waitUntilNone(std::chrono::milliseconds limit);

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the threads: the last of them may end after this object
};

}  // namespace ostrel
