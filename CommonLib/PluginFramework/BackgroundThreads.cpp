#include "PluginFramework/Internal/BackgroundThreads.h"

#include <system_error>
#include <thread>
#include <utility>

#include "Platform/Mutex.h"

namespace ostrel {

struct BackgroundThreads::State {
  Mutex mutex;
  Condition changed;
  int running OSTREL_GUARDED_BY(mutex) = 0;

  void add(int difference) {
    const MutexLock lock(mutex);
    running += difference;
    changed.notifyAll();
  }
};

BackgroundThreads::BackgroundThreads() : state_(std::make_shared<State>()) {}

BackgroundThreads::~BackgroundThreads() { waitUntilNone(); }

void BackgroundThreads::waitUntilNone() {
  const MutexLock lock(state_->mutex);
  while (state_->running != 0) state_->changed.wait(state_->mutex);
}

void BackgroundThreads::start(std::function<void()> work) {
  state_->add(1);
  const auto body = std::make_shared<std::function<void()>>(std::move(work));
  const auto run = [state = state_](std::shared_ptr<std::function<void()>> mine) {
    (*mine)();
    mine.reset();
    state->add(-1);
  };
  try {
    std::thread(run, body).detach();
  } catch (const std::system_error&) {
    run(body);
  }
}

bool BackgroundThreads::waitUntilNone(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(state_->mutex);
  while (state_->running != 0)
    if (!state_->changed.waitUntil(state_->mutex, deadline)) break;
  return state_->running == 0;
}

}  // namespace ostrel
