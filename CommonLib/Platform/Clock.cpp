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

std::atomic<Clock*>& Clock::slot() {
  static HostClock host;
  static std::atomic<Clock*> slot{&host};
  return slot;
}

}  // namespace ostrel
