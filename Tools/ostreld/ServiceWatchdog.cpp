#include "ostreld/ServiceWatchdog.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "Platform/SystemLog.h"
#include "ostreld/ServiceNotice.h"

namespace ostrel {
namespace {

std::optional<long long> numberIn(const char* variable) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return std::nullopt;
  long long number = 0;
  const char* end = text + std::strlen(text);
  const auto [stopped, fault] = std::from_chars(text, end, number);
  if (fault != std::errc() || stopped != end || number <= 0) return std::nullopt;
  return number;
}

}  // namespace

ServiceWatchdog::ServiceWatchdog() : last_(std::chrono::steady_clock::now()) {
  const auto microseconds = numberIn("WATCHDOG_USEC");
  const auto process = numberIn("WATCHDOG_PID");
  if (!microseconds || *microseconds > 1'000'000LL * 86'400 || (process && *process != processId())) return;
  patience_ = std::chrono::microseconds(*microseconds);
}

void ServiceWatchdog::tick(bool isWell) {
  const auto now = std::chrono::steady_clock::now();
  if (patience_ == std::chrono::nanoseconds::zero() || !isWell || now - last_ < patience_ / 2) return;
  notifyServiceManager("WATCHDOG=1");
  last_ = now;
}

}  // namespace ostrel
