#include "ostreld/IdlePasses.h"

#include <system_error>

#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel {

IdlePasses::IdlePasses(BundleManager& modules, std::chrono::nanoseconds interval)
    : modules_(modules), interval_(interval) {
  if (interval_ <= std::chrono::nanoseconds::zero()) return;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    logAt(LogLevel::error, "[%d] no idle passes: no thread for them: %s", processId(), error.what());
  }
}

IdlePasses::~IdlePasses() {
  stop(std::chrono::milliseconds::zero());
  if (thread_.joinable()) thread_.join();
}

bool IdlePasses::stop(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const MutexLock lock(mutex_);
  stopping_ = true;
  changed_.notifyAll();
  while (thread_.joinable() && !hasEnded_) {
    if (!changed_.waitUntil(mutex_, deadline)) break;
  }
  return !thread_.joinable() || hasEnded_;
}

void IdlePasses::run() {
  Clock& clock = Clock::current();
  auto next = clock.monotonic() + interval_;
  MutexLock lock(mutex_);
  while (!stopping_) {
    const auto left = next - clock.monotonic();
    if (left > std::chrono::nanoseconds::zero()) {
      clock.waitFor(changed_, mutex_, left);
      continue;
    }
    lock.unlock();
    modules_.doIdle();
    ++passes_;
    next += interval_;
    if (next < clock.monotonic()) next = clock.monotonic() + interval_;
    lock.lock();
  }
  hasEnded_ = true;
  changed_.notifyAll();
}

}  // namespace ostrel
