#include "Containers/CalendarDate.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace ostrel {
namespace {

constexpr std::int64_t secondsADay = 86400;
constexpr double firstSecond = -62135596800.0;     // 0001-01-01T00:00:00Z
constexpr double endOfTime = 253402300800.0;       // 10000-01-01T00:00:00Z
constexpr double belowOne = 0x1.fffffffffffffp-1;  // the fraction of a moment just before 1970 would round up to 1

}  // namespace

std::optional<CalendarDate> calendarDate(PlistDate date) noexcept {
  const double moment = date.secondsSince1970;
  if (!(moment >= firstSecond && moment < endOfTime)) return std::nullopt;
  const double whole = std::floor(moment);
  const auto seconds = static_cast<std::int64_t>(whole);
  const std::int64_t days = (seconds - (seconds % secondsADay + secondsADay) % secondsADay) / secondsADay;
  const std::int64_t ofDay = seconds - days * secondsADay;
  const std::chrono::year_month_day civil{std::chrono::sys_days(std::chrono::days(days))};
  return CalendarDate{.year = static_cast<int>(civil.year()),
                      .month = static_cast<std::uint8_t>(static_cast<unsigned>(civil.month())),
                      .day = static_cast<std::uint8_t>(static_cast<unsigned>(civil.day())),
                      .hour = static_cast<std::uint8_t>(ofDay / 3600),
                      .minute = static_cast<std::uint8_t>(ofDay / 60 % 60),
                      .second = static_cast<std::uint8_t>(ofDay % 60),
                      .fraction = std::min(moment - whole, belowOne)};
}

std::optional<PlistDate> momentOf(const CalendarDate& date) noexcept {
  const std::chrono::year_month_day civil{std::chrono::year(date.year), std::chrono::month(date.month),
                                          std::chrono::day(date.day)};
  if (!civil.ok() || date.year < 1 || date.year > 9999) return std::nullopt;
  if (date.hour > 23 || date.minute > 59 || date.second > 59) return std::nullopt;
  if (!(date.fraction >= 0 && date.fraction < 1)) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(civil).time_since_epoch().count();
  const std::int64_t seconds = days * secondsADay + date.hour * 3600 + date.minute * 60 + date.second;
  return PlistDate{static_cast<double>(seconds) + date.fraction};
}

}  // namespace ostrel
