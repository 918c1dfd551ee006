#include "Platform/HostBoot.h"

#include <time.h>

#include "Platform/Files.h"

namespace ostrel {
namespace {

std::int64_t nanosecondsBy(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

class KernelBoot final : public HostBoot {
 public:
  const std::string& identifier() override {
    static const std::string identifier = readWholeFile("/proc/sys/kernel/random/boot_id", 64).value_or("");
    return identifier;
  }
  std::int64_t startedNanoseconds() override { return nanosecondsBy(CLOCK_REALTIME) - nanosecondsBy(CLOCK_BOOTTIME); }
};

}  // namespace

std::atomic<HostBoot*>& HostBoot::slot() {
  static KernelBoot kernel;
  static std::atomic<HostBoot*> slot{&kernel};
  return slot;
}

}  // namespace ostrel
