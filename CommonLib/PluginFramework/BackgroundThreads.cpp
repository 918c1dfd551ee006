#include "PluginFramework/Internal/BackgroundThreads.h"

#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "Platform/Clock.h"
#include "Platform/Mutex.h"

namespace ostrel {
namespace {

constexpr int mostThatLinger = 64;

}  // namespace

struct BackgroundThreads::State {
  Mutex mutex;
  // Two conditions: a thread that begins or ends must not wake the ones that linger.
  Condition noneRuns;
  Condition ending;
  int running OSTREL_GUARDED_BY(mutex) = 0;
  int lingering OSTREL_GUARDED_BY(mutex) = 0;
  bool isEnding OSTREL_GUARDED_BY(mutex) = false;

  void add(int difference) {
    const MutexLock lock(mutex);
    running += difference;
    if (running == 0) noneRuns.notifyAll();
  }
  void end() OSTREL_REQUIRES(mutex) {
    isEnding = true;
    ending.notifyAll();
  }
};

BackgroundThreads::BackgroundThreads() : state_(std::make_shared<State>()) {}

BackgroundThreads::~BackgroundThreads() { waitUntilNone(); }

void BackgroundThreads::waitUntilNone() {
  const MutexLock lock(state_->mutex);
  state_->end();
  while (state_->running != 0) state_->noneRuns.wait(state_->mutex);
}

void BackgroundThreads::start(const std::function<void()>& work) {
  if (!tryStart(work)) work();
}

bool BackgroundThreads::tryStart(const std::function<void()>& work) {
  state_->add(1);
  try {
    std::thread([state = state_, mine = std::optional(work)]() mutable {
      (*mine)();
      mine.reset();
      state->add(-1);
    }).detach();
    return true;
  } catch (const std::system_error&) {
    state_->add(-1);
    return false;
  } catch (...) {  // no memory
    state_->add(-1);
    throw;
  }
}

void BackgroundThreads::linger(std::chrono::nanoseconds time) {
  Clock& clock = Clock::current();
  const auto end = clock.monotonic() + time;
  State& state = *state_;
  const MutexLock lock(state.mutex);
  if (state.lingering >= mostThatLinger) return;
  ++state.lingering;
  while (!state.isEnding) {
    const auto left = end - clock.monotonic();
    if (left <= std::chrono::nanoseconds::zero()) break;
    clock.waitFor(state.ending, state.mutex, left);
  }
  --state.lingering;
}

bool BackgroundThreads::waitUntilNone(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(state_->mutex);
  state_->end();
  while (state_->running != 0)
    if (!state_->noneRuns.waitUntil(state_->mutex, deadline)) break;
  return state_->running == 0;
}

}  // namespace ostrel
