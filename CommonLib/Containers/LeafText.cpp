#include "Containers/Internal/LeafText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "Containers/CalendarDate.h"
#include "Containers/Internal/ByteScan.h"

namespace ostrel::detail {
namespace {

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

bool equalsIgnoringCase(std::string_view text, std::string_view lower) noexcept {
  return std::ranges::equal(text, lower, [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + 32 : a) == b; });
}

/// Takes a sign off the front; true for '-'.
bool takeSign(std::string_view& text) noexcept {
  if (text.empty() || (text.front() != '-' && text.front() != '+')) return false;
  const bool negative = text.front() == '-';
  text.remove_prefix(1);
  return negative;
}

template <class Number>
bool convert(std::string_view text, Number& number) noexcept {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  return failure == std::errc() && end == text.data() + text.size();
}

/// Digits at fixed places of a date.
template <class Number>
bool convertDigits(std::string_view text, Number& number) noexcept {
  return std::ranges::all_of(text, isDigit) && convert(text, number);
}

}  // namespace

PlistValue parseInteger(std::string_view text) noexcept {
  text = trimmed(text);
  const bool negative = takeSign(text);
  if (text.empty() || !isDigit(text.front())) return {};
  std::uint64_t magnitude = 0;
  if (!convert(text, magnitude)) return {};
  if (!negative) return magnitude;
  if (magnitude > std::uint64_t{1} << 63) return {};
  return static_cast<std::int64_t>(0 - magnitude);
}

PlistValue parseReal(std::string_view text) noexcept {
  text = trimmed(text);
  if (equalsIgnoringCase(text, "nan")) return std::numeric_limits<double>::quiet_NaN();
  const bool negative = takeSign(text);
  double real = 0;
  if (equalsIgnoringCase(text, "inf") || equalsIgnoringCase(text, "infinity")) {
    real = std::numeric_limits<double>::infinity();
  } else if (text.empty() || (!isDigit(text.front()) && text.front() != '.') || !convert(text, real)) {
    return {};
  }
  return negative ? -real : real;
}

PlistValue parseDate(std::string_view text) {
  text = trimmed(text);
  constexpr std::size_t secondsEnd = std::string_view("YYYY-MM-DDThh:mm:ss").size();
  if (text.size() <= secondsEnd || text.back() != 'Z') return {};
  if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') return {};
  CalendarDate date;
  const bool digits = convertDigits(text.substr(0, 4), date.year) && convertDigits(text.substr(5, 2), date.month) &&
                      convertDigits(text.substr(8, 2), date.day) && convertDigits(text.substr(11, 2), date.hour) &&
                      convertDigits(text.substr(14, 2), date.minute) && convertDigits(text.substr(17, 2), date.second);
  const auto moment = digits ? momentOf(date) : std::nullopt;
  if (!moment) return {};
  std::string_view fraction = text.substr(secondsEnd, text.size() - secondsEnd - 1);
  if (fraction.empty()) return *moment;
  if (fraction.size() < 2 || fraction.front() != '.') return {};
  fraction.remove_prefix(1);
  if (!std::ranges::all_of(fraction, isDigit)) return {};

  // The sum is rounded once, from its decimal digits: adding a rounded fraction would lose the last bits of a moment
  // near 1970. Below zero the fraction counts the other way: its digits are replaced by their ten's complement.
  auto whole = static_cast<std::int64_t>(moment->secondsSince1970);
  while (!fraction.empty() && fraction.back() == '0') fraction.remove_suffix(1);
  std::string decimal;
  if (whole < 0 && !fraction.empty()) {
    decimal = (whole == -1 ? "-" : "") + std::to_string(whole + 1) + '.';
    for (const char digit : fraction) decimal += static_cast<char>('0' + '9' - digit);
    ++decimal.back();  // the last digit was not 0, so this does not carry
  } else {
    decimal = std::to_string(whole) + '.' + std::string(fraction) + '0';
  }
  double seconds = 0;
  const auto [end, failure] = std::from_chars(decimal.data(), decimal.data() + decimal.size(), seconds);
  if (failure != std::errc()) seconds = moment->secondsSince1970;  // a fraction too small for a double
  if (!calendarDate(PlistDate{seconds})) return {};                // rounded into the year 10000
  return PlistDate{seconds};
}

char* writeInteger(char* out, const PlistValue& integer) noexcept {
  char* const end = out + leafTextCapacity;
  const std::int64_t number = integer.int64Value();
  const bool negative = number < 0 && integer.doubleValue() < 0;
  return negative ? std::to_chars(out, end, number).ptr : std::to_chars(out, end, integer.uint64Value()).ptr;
}

char* writeReal(char* out, double real) noexcept {
  const auto copy = [out](std::string_view text) { return std::copy(text.begin(), text.end(), out); };
  if (std::isnan(real)) return copy("nan");
  if (std::isinf(real)) return copy(real < 0 ? "-infinity" : "+infinity");
  return std::to_chars(out, out + leafTextCapacity, real).ptr;
}

namespace {

char* writeTwoDigits(char* out, unsigned number, char after) noexcept {
  out[0] = static_cast<char>('0' + number / 10);
  out[1] = static_cast<char>('0' + number % 10);
  out[2] = after;
  return out + 3;
}

/// The digits after the point, for a moment as `parseDate` reads it.
char* writeFraction(char* out, double moment) noexcept {
  char decimal[leafTextCapacity];
  char* const end = std::to_chars(decimal, decimal + sizeof decimal, moment, std::chars_format::fixed).ptr;
  char* const point = std::find(decimal, end, '.');
  if (moment < 0) {
    for (char* digit = point + 1; digit < end; ++digit) *digit = static_cast<char>('0' + '9' - *digit);
    ++end[-1];
  }
  return std::copy(point, end, out);
}

}  // namespace

char* writeDate(char* out, PlistDate date) noexcept {
  const double whole = std::floor(date.secondsSince1970);
  const auto fields = calendarDate(PlistDate{whole});
  if (!fields) return nullptr;
  const auto year = static_cast<unsigned>(fields->year);
  writeTwoDigits(out, year / 100, '0');
  out = writeTwoDigits(out + 2, year % 100, '-');
  out = writeTwoDigits(out, fields->month, '-');
  out = writeTwoDigits(out, fields->day, 'T');
  out = writeTwoDigits(out, fields->hour, ':');
  out = writeTwoDigits(out, fields->minute, ':');
  out = writeTwoDigits(out, fields->second, 'Z');
  if (whole == date.secondsSince1970) return out;
  out = writeFraction(out - 1, date.secondsSince1970);
  *out++ = 'Z';
  return out;
}

}  // namespace ostrel::detail
