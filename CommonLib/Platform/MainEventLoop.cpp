#include "Platform/MainEventLoop.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <system_error>

namespace ostrel {
namespace {

using Nanoseconds = std::chrono::nanoseconds;

// `delay` from now, without running over the clock's range.
std::chrono::steady_clock::time_point timeAfter(Nanoseconds delay) {
  const auto now = std::chrono::steady_clock::now();
  return now + std::clamp(delay, Nanoseconds(0), std::chrono::steady_clock::time_point::max() - now);
}

void waitUntilReadable(int descriptor) {
  pollfd watched{descriptor, POLLIN, 0};
  if (::poll(&watched, 1, -1) < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
}

template <class Action>
class AtExit {
 public:
  explicit AtExit(Action action) : action_(std::move(action)) {}
  ~AtExit() { action_(); }
  AtExit(const AtExit&) = delete;
  AtExit& operator=(const AtExit&) = delete;

 private:
  Action action_;
};

FileDescriptor makeTimer() { return FileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)); }

// One work that a thread waits for.
class HandedOver {
 public:
  void run(const MainEventLoop::Work& work) {
    try {
      work();
    } catch (...) {
      error_ = std::current_exception();
    }
    const MutexLock lock(mutex_);
    done_ = true;
    ended_.notifyAll();
  }
  void wait() {
    {
      const MutexLock lock(mutex_);
      while (!done_) ended_.wait(mutex_);
    }
    if (error_) std::rethrow_exception(error_);
  }

 private:
  Mutex mutex_;
  Condition ended_;
  bool done_ OSTREL_GUARDED_BY(mutex_) = false;
  std::exception_ptr error_;  // written before done_, read after it
};

}  // namespace

MainEventLoop::MainEventLoop() : timer_(makeTimer()) {
  if (!timer_) throw std::system_error(errno, std::generic_category(), "timerfd_create");
  surviveForks();
}

MainEventLoop& MainEventLoop::shared() {
  static auto* loop = new MainEventLoop;
  return *loop;
}

// A timer is shared with a child as it is: the child, setting it, would set its parent's.
void MainEventLoop::surviveForks() {
  const auto hold = []() OSTREL_NO_THREAD_SAFETY_ANALYSIS { shared().mutex_.lock(); };
  const auto release = []() OSTREL_NO_THREAD_SAFETY_ANALYSIS { shared().mutex_.unlock(); };
  const auto renew = []() OSTREL_NO_THREAD_SAFETY_ANALYSIS {
    MainEventLoop& loop = shared();
    if (const FileDescriptor own = makeTimer(); own && ::dup3(own.get(), loop.timer_.get(), O_CLOEXEC) != -1)
      loop.armTimer();
    loop.mutex_.unlock();
  };
  ::pthread_atfork(hold, release, renew);
}

void MainEventLoop::claimMainThread() {
  const MutexLock lock(mutex_);
  claimedBy_ = std::this_thread::get_id();
}

bool MainEventLoop::isMainThread() const {
  const MutexLock lock(mutex_);
  if (claimedBy_ == std::thread::id()) return ::gettid() == ::getpid();
  return claimedBy_ == std::this_thread::get_id();
}

void MainEventLoop::callAfter(Nanoseconds delay, Work work) { add(timeAfter(delay), std::move(work)); }

MainEventLoop::Key MainEventLoop::add(TimePoint due, Work work) {
  const MutexLock lock(mutex_);
  const Key key{due, nextNumber_++};
  works_.emplace(key, std::move(work));
  armTimer();
  return key;
}

void MainEventLoop::cancel(const Key& key) {
  const MutexLock lock(mutex_);
  works_.erase(key);
  armTimer();
}

void MainEventLoop::runOnMainThreadAndWait(const Work& work) {
  if (isMainThread()) return work();
  HandedOver handedOver;
  add(timeAfter(Nanoseconds(0)), [&] { handedOver.run(work); });
  handedOver.wait();
}

void MainEventLoop::run() { runUntil(std::nullopt); }

bool MainEventLoop::runFor(Nanoseconds duration) { return runUntil(timeAfter(duration)); }

bool MainEventLoop::runUntil(std::optional<TimePoint> deadline) {
  bool timeIsUp = false;
  std::optional<Key> end;
  // The run's end is one work among the others, so that one timer serves both.
  if (deadline) end = add(*deadline, [&timeIsUp] { timeIsUp = true; });
  countRun(1);
  const AtExit ended([&] {
    countRun(-1);
    if (end) cancel(*end);
  });
  for (;;) {
    if (takeStop()) return true;
    if (timeIsUp) return false;
    waitUntilReadable(timer_.get());
    processWorks(&timeIsUp);
  }
}

void MainEventLoop::stop() {
  const MutexLock lock(mutex_);
  stopped_ = true;
  armTimer();
}

std::size_t MainEventLoop::processPending() { return processWorks(nullptr); }

std::size_t MainEventLoop::processWorks(const bool* timeIsUp) {
  Key limit;
  {
    const MutexLock lock(mutex_);
    limit = {std::chrono::steady_clock::now(), nextNumber_};
  }
  std::size_t count = 0;
  while (auto work = takeDue(limit)) {
    ++count;
    (*work)();
    if (timeIsUp != nullptr && (*timeIsUp || isStopped())) break;
  }
  return count;
}

std::optional<MainEventLoop::Work> MainEventLoop::takeDue(const Key& limit) {
  const MutexLock lock(mutex_);
  const auto next = std::ranges::find_if(
      works_, [&](const auto& entry) { return entry.first.first > limit.first || entry.first.second < limit.second; });
  std::optional<Work> work;
  if (next != works_.end() && next->first.first <= limit.first) {
    work = std::move(next->second);
    works_.erase(next);
  }
  armTimer();
  return work;
}

void MainEventLoop::countRun(int change) {
  const MutexLock lock(mutex_);
  runs_ += change;
  armTimer();
}

bool MainEventLoop::isStopped() const {
  const MutexLock lock(mutex_);
  return stopped_;
}

bool MainEventLoop::takeStop() {
  const MutexLock lock(mutex_);
  const bool stopped = std::exchange(stopped_, false);
  armTimer();
  return stopped;
}

void MainEventLoop::armTimer() {
  itimerspec setting{};  // all zero: disarmed
  // Without a run the stop waits for the next one, and an outer loop that polls the descriptor must not spin on it.
  if (stopped_ && runs_ > 0) {
    setting.it_value.tv_nsec = 1;  // long past: readable at once
  } else if (!works_.empty()) {
    const Nanoseconds due = std::max(works_.begin()->first.first.time_since_epoch(), Nanoseconds(1));
    setting.it_value.tv_sec = static_cast<time_t>(due.count() / 1'000'000'000);
    setting.it_value.tv_nsec = static_cast<long>(due.count() % 1'000'000'000);
  }
  ::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

}  // namespace ostrel
