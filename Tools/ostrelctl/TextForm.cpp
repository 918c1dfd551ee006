#include "ostrelctl/TextForm.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

#include "Containers/Base64.h"
#include "Containers/CalendarDate.h"
#include "Containers/Format.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

std::string shown(std::string_view text) {
  std::string out;
  appendEscapingControls(out, text, [](char byte) {
    return byte == '\n' || byte == '\t' ? std::string(1, byte) : format("\\x%02X", static_cast<unsigned char>(byte));
  });
  return out;
}

std::string leafText(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::null:
      return "";
    case PlistValue::Kind::boolean:
      return value.boolValue() ? "true" : "false";
    case PlistValue::Kind::date:
      return dateText(value.dateValue());
    case PlistValue::Kind::data:
      return encodeBase64(value.dataBytes());
    case PlistValue::Kind::string:
      return shown(value.stringValue());
    default:
      return value.description();
  }
}

bool isContainer(const PlistValue& value) { return value.isDictionary() || value.isArray(); }

class Writer {
 public:
  std::string take() { return std::move(out_); }

  void write(const PlistValue& value, std::size_t depth) {
    for (const PlistEntry& entry : value.entries()) member(shown(entry.keyText()) + ":", entry.value, depth);
    for (const PlistValue& element : value.elements()) member("-", element, depth);
    if (!isContainer(value)) out_ += leafText(value) + '\n';
  }

 private:
  void member(const std::string& label, const PlistValue& value, std::size_t depth) {
    out_.append(2 * depth, ' ') += label;
    if (isContainer(value)) {
      out_ += value.count() == 0 ? (value.isArray() ? " (none)\n" : " (empty)\n") : "\n";
      if (value.count() > 0) write(value, depth + 1);
      return;
    }
    const std::string text = leafText(value);
    if (text.find('\n') == std::string::npos) {
      out_ += (text.empty() ? "" : " ") + text + '\n';
      return;
    }
    out_ += '\n';
    lines(text, depth + 1);
  }

  void lines(std::string_view text, std::size_t depth) {
    while (!text.empty()) {
      const std::string_view line = text.substr(0, text.find('\n'));
      out_.append(2 * depth, ' ').append(line) += '\n';
      text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
  }

  std::string out_;
};

/// Reads exactly `digits` decimal digits at the front of the text and takes them off.
bool takeNumber(std::string_view& text, std::size_t digits, std::int32_t& number) {
  if (text.size() < digits || text.substr(0, digits).find_first_not_of("0123456789") != std::string_view::npos) {
    return false;
  }
  std::from_chars(text.data(), text.data() + digits, number);
  text.remove_prefix(digits);
  return true;
}

bool takeCharacter(std::string_view& text, char wanted) {
  if (!text.starts_with(wanted)) return false;
  text.remove_prefix(1);
  return true;
}

/// ".25", in microseconds at most; "" for none. Rounded down: the seconds before it stay right.
std::string fractionText(double fraction) {
  const auto microseconds = static_cast<std::int32_t>(fraction * 1e6);
  if (microseconds == 0) return {};
  std::string text = format(".%06d", microseconds);
  text.erase(text.find_last_not_of('0') + 1);
  return text;
}

}  // namespace

std::string readableText(const PlistValue& value) {
  Writer writer;
  writer.write(value, 0);
  return writer.take();
}

std::string dateText(PlistDate date) {
  const auto fields = calendarDate(date);
  if (!fields) return PlistValue(date.secondsSince1970).description();
  return format("%04d-%02d-%02dT%02d:%02d:%02d%sZ", fields->year, fields->month, fields->day, fields->hour,
                fields->minute, fields->second, fractionText(fields->fraction));
}

std::optional<PlistDate> dateFromText(std::string_view text) {
  std::int32_t year = 0;
  std::int32_t fields[5] = {};
  if (!takeNumber(text, 4, year)) return std::nullopt;
  constexpr char separators[] = {'-', '-', 'T', ':', ':'};
  for (int i = 0; i < 5; ++i) {
    if (!takeCharacter(text, separators[i]) || !takeNumber(text, 2, fields[i])) return std::nullopt;
  }
  double fraction = 0;
  if (text.starts_with('.')) {
    const std::size_t digits = text.find_first_not_of("0123456789", 1);
    if (digits == 1 || digits == std::string_view::npos) return std::nullopt;
    std::from_chars(text.data(), text.data() + digits, fraction);
    text.remove_prefix(digits);
  }
  if (text != "Z") return std::nullopt;
  const auto narrow = [&fields](int i) { return static_cast<std::uint8_t>(fields[i]); };
  return momentOf({year, narrow(0), narrow(1), narrow(2), narrow(3), narrow(4), fraction});
}

}  // namespace ostrel
