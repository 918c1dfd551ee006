#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <optional>

#include "DaemonServices/ProcessControl.h"
#include "Platform/ProcessorTimes.h"

namespace ostrel {
namespace {

struct MachineTicks {
  std::uint64_t idle = 0;
  std::uint64_t total = 0;
};

/// Nice ticks are not in the total: meant so.
std::optional<MachineTicks> machineTicks() try {
  const auto processors = ProcessorTimes::current().processors();
  if (!processors) return std::nullopt;
  MachineTicks sum;
  for (const ProcessorTicks& processor : *processors) {
    sum.idle += processor.idle;
    sum.total += processor.user + processor.system + processor.idle;
  }
  return sum;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return std::nullopt;
}

double elapsed(std::uint64_t now, std::uint64_t baseline) {
  return static_cast<double>(now) - static_cast<double>(baseline);
}

int truncated(double number) {
  using Limits = std::numeric_limits<int>;
  return static_cast<int>(std::clamp<double>(number, Limits::min(), Limits::max()));
}

}  // namespace

timeval get_process_cpu_usage() {
  constexpr decltype(timeval::tv_usec) second = 1'000'000;
  const auto times = ProcessorTimes::current().ownTimes();
  if (!times) return {};
  timeval sum{times->user.tv_sec + times->system.tv_sec, times->user.tv_usec + times->system.tv_usec};
  sum.tv_sec += sum.tv_usec / second;
  sum.tv_usec %= second;
  return sum;
}

int reset_total_cpu_usage(std::uint64_t* idleTicks, std::uint64_t* totalTicks) {
  if (idleTicks != nullptr) *idleTicks = 0;
  if (totalTicks != nullptr) *totalTicks = 0;
  if (idleTicks == nullptr || totalTicks == nullptr) return EINVAL;
  const auto now = machineTicks();
  if (!now) return errno;
  *idleTicks = now->idle;
  *totalTicks = now->total;
  return 0;
}

int get_total_cpu_usage(std::uint64_t idleBaseline, std::uint64_t totalBaseline) {
  const auto now = machineTicks();
  if (!now) return -1;
  const double total = elapsed(now->total, totalBaseline);
  if (total == 0) return 0;
  return truncated(100 * (total - elapsed(now->idle, idleBaseline)) / total);
}

}  // namespace ostrel
