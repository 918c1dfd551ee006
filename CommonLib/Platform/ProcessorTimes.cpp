#include "Platform/ProcessorTimes.h"

#include <sys/resource.h>

#include <cerrno>

#include "Platform/Files.h"
#include "Platform/Internal/ProcessText.h"

namespace ostrel {
namespace {

class HostProcessorTimes final : public ProcessorTimes {
 public:
  std::optional<std::vector<ProcessorTicks>> processors() override {
    const auto text = readWholeFile("/proc/stat");
    if (!text) return std::nullopt;
    auto processors = detail::parseProcessorTicks(*text);
    if (!processors.empty()) return processors;
    errno = EBADMSG;
    return std::nullopt;
  }

  std::optional<ProcessTimes> ownTimes() override {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) return std::nullopt;
    return ProcessTimes{usage.ru_utime, usage.ru_stime};
  }
};

}  // namespace

std::atomic<ProcessorTimes*>& ProcessorTimes::slot() {
  static HostProcessorTimes host;
  static std::atomic<ProcessorTimes*> slot{&host};
  return slot;
}

}  // namespace ostrel
