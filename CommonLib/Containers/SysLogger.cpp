#include "Containers/SysLogger.h"

#include <array>

#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr int levelBits = 7;

constexpr std::array<std::string_view, 8> fLevelStringDict{"Emergency", "Alert",  "Critical", "Error",
                                                           "Warning",   "Notice", "Info",     "Debug"};

std::string_view levelName(std::size_t level) {
  return level < fLevelStringDict.size() ? fLevelStringDict[level] : "Unknown Level";
}

}  // namespace

bool SysLogger::admits(int priority) noexcept {
  const std::int64_t level = priority & levelBits;
  std::int64_t mark = fHighWaterMark;
  while (level < mark && !fHighWaterMark.compare_exchange_weak(mark, level)) continue;
  return level <= fMinPriorityLevel;
}

void SysLogger::write(int priority, std::string_view message) const {
  const auto level = static_cast<std::size_t>(priority & levelBits);
  SystemLog::current().write(priority, format("%s:%s:%s", fPrefix, levelName(level), message));
}

}  // namespace ostrel
