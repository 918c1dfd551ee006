// The mutex, lock and condition variable of the library, annotated for clang's -Wthread-safety
// (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html).
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define OSTREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define OSTREL_THREAD_ANNOTATION(x)
#endif

#define OSTREL_CAPABILITY(name) OSTREL_THREAD_ANNOTATION(capability(name))
#define OSTREL_SCOPED_CAPABILITY OSTREL_THREAD_ANNOTATION(scoped_lockable)
#define OSTREL_GUARDED_BY(mutex) OSTREL_THREAD_ANNOTATION(guarded_by(mutex))
#define OSTREL_REQUIRES(...) OSTREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define OSTREL_EXCLUDES(...) OSTREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define OSTREL_ACQUIRE(...) OSTREL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define OSTREL_RELEASE(...) OSTREL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define OSTREL_NO_THREAD_SAFETY_ANALYSIS OSTREL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace ostrel {

class OSTREL_CAPABILITY("mutex") Mutex {
 public:
  void lock() OSTREL_ACQUIRE() { mutex_.lock(); }
  void unlock() OSTREL_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

/// Holds a mutex for a scope. `unlock` and `lock` give it up and take it back within the scope.
class OSTREL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) OSTREL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() OSTREL_RELEASE() {
    if (held_) mutex_.unlock();
  }
  void unlock() OSTREL_RELEASE() {
    mutex_.unlock();
    held_ = false;
  }
  void lock() OSTREL_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
  bool held_ = true;
};

/// A condition variable for `Mutex`. The waits may wake for no reason: callers loop over their condition.
class Condition {
 public:
  void wait(Mutex& mutex) OSTREL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
    condition_.wait(held);
    held.release();
  }
  /// False when the time was up.
  bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) OSTREL_REQUIRES(mutex) {
    std::unique_lock<std::mutex> held(mutex.mutex_, std::adopt_lock);
    const bool woken = condition_.wait_until(held, deadline) == std::cv_status::no_timeout;
    held.release();
    return woken;
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace ostrel
