#include "Platform/Clock.h"

#include <thread>

namespace ostrel {
namespace {

class HostClock final : public Clock {
 public:
  PlistDate now() override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return PlistDate{std::chrono::duration<double>(sinceEpoch).count()};
  }
  std::chrono::nanoseconds monotonic() override { return std::chrono::steady_clock::now().time_since_epoch(); }
  void sleepFor(std::chrono::nanoseconds duration) override { std::this_thread::sleep_for(duration); }
};

}  // namespace

bool Clock::waitFor(Condition& condition, Mutex& mutex, std::chrono::nanoseconds limit) {
  return condition.waitUntil(mutex, std::chrono::steady_clock::now() + limit);
}

std::atomic<Clock*>& Clock::slot() {
  static std::atomic<Clock*> slot{new HostClock};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
