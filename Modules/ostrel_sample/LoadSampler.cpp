#include "LoadSampler.h"

#include <cstdlib>
#include <utility>

#include "Platform/HostMemory.h"

namespace ostrel::sample {
namespace {

constexpr const char* noValue = "";

struct Sum {
  std::uint64_t busy = 0;
  std::uint64_t all = 0;
};

Sum sumOf(const std::vector<ProcessorTicks>& processors) {
  Sum sum;
  for (const ProcessorTicks& each : processors) {
    sum.busy += each.user + each.system + each.nice;
    sum.all += each.user + each.system + each.nice + each.idle;
  }
  return sum;
}

}  // namespace

std::optional<std::uint64_t> busyShare(const std::vector<ProcessorTicks>& earlier,
                                       const std::vector<ProcessorTicks>& later) {
  const Sum from = sumOf(earlier);
  const Sum to = sumOf(later);
  if (earlier.size() != later.size() || to.all <= from.all || to.busy < from.busy) return std::nullopt;
  if (to.busy - from.busy > to.all - from.all) return std::nullopt;
  return (to.busy - from.busy) * 1000 / (to.all - from.all);
}

PlistValue LoadSampler::take() {
  PlistValue processors = noValue;
  PlistValue load = noValue;
  PlistValue memory = noValue;
  if (auto ticks = ProcessorTimes::current().processors()) {
    const MutexLock lock(mutex_);
    if (const auto share = busyShare(std::exchange(last_, *ticks), *ticks)) processors = *share;
  }
  double minute = 0;
  if (getloadavg(&minute, 1) == 1) load = static_cast<std::uint64_t>(minute * 100);
  if (const auto now = hostMemory()) memory = now->total - now->available;
  return PlistValue::arrayOf({processors, load, memory});
}

PlistValue LoadSampler::descriptions() {
  const auto value = [](const char* key, const char* name, const char* unit, double scale) {
    return PlistValue::dictionaryOf({{"key", key}, {"name", name}, {"unit", unit}, {"scale", scale}});
  };
  return PlistValue::arrayOf({value("v1", "Processors busy", "%", 0.1), value("v2", "Load average", "", 0.01),
                              value("v3", "Memory in use", "B", 1)});
}

}  // namespace ostrel::sample
