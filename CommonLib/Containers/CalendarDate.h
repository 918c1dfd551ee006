// The civil date and time of a moment in UTC, as the proleptic Gregorian calendar has it.
#pragma once

#include <cstdint>
#include <optional>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// Fields of a date and time in UTC. Years 1 to 9999; month 1 to 12; second 0 to 59 (no leap seconds);
/// `fraction` in [0, 1).
struct CalendarDate {
  std::int32_t year = 1970;
  std::uint8_t month = 1;
  std::uint8_t day = 1;
  std::uint8_t hour = 0;
  std::uint8_t minute = 0;
  std::uint8_t second = 0;
  double fraction = 0;
};

/// The fields of a moment, or nothing when it is not a number or outside the years 1 to 9999.
OSTREL_EXPORT std::optional<CalendarDate> calendarDate(PlistDate date) noexcept;

/// The moment of the fields, or nothing when they name no date: 30 February, hour 24.
OSTREL_EXPORT std::optional<PlistDate> momentOf(const CalendarDate& date) noexcept;

}  // namespace ostrel
