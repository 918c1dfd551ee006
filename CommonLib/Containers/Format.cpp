#include "Containers/Format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

namespace ostrel {
namespace {

/// What stands between "%" and the conversion letter.
struct ConversionOptions {
  bool leftAligned = false;
  bool zeroPadded = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  std::size_t width = 0;
  int precision = -1;
};

constexpr std::size_t widest = 4096;  // a width or precision beyond this is a mistake, not a wish

std::size_t parseNumber(std::string_view format, std::size_t& at) {
  std::size_t number = 0;
  for (; at < format.size() && format[at] >= '0' && format[at] <= '9'; ++at) {
    number = std::min(widest, number * 10 + static_cast<std::size_t>(format[at] - '0'));
  }
  return number;
}

ConversionOptions parseOptions(std::string_view format, std::size_t& at) {
  ConversionOptions options;
  for (; at < format.size(); ++at) {
    if (format[at] == '-')
      options.leftAligned = true;
    else if (format[at] == '0')
      options.zeroPadded = true;
    else if (format[at] == '+')
      options.plus = true;
    else if (format[at] == ' ')
      options.space = true;
    else if (format[at] == '#')
      options.alternate = true;
    else
      break;
  }
  options.width = parseNumber(format, at);
  if (at < format.size() && format[at] == '.') {
    ++at;
    options.precision = static_cast<int>(parseNumber(format, at));
  }
  while (at < format.size() && std::string_view("hlqjzt").find(format[at]) != std::string_view::npos) ++at;
  return options;
}

/// Appends `sign` and `body` in the wished width. Zeros go between the two, as printf puts them.
void appendPadded(std::string& out, const ConversionOptions& options, std::string_view sign, std::string_view body,
                  bool numeric) {
  const std::size_t length = sign.size() + body.size();
  const std::size_t padding = options.width > length ? options.width - length : 0;
  const bool zeros = numeric && options.zeroPadded && !options.leftAligned;
  if (!options.leftAligned && !zeros) out.append(padding, ' ');
  out += sign;
  if (zeros) out.append(padding, '0');
  out += body;
  if (options.leftAligned) out.append(padding, ' ');
}

std::string_view signOf(const ConversionOptions& options, bool negative) {
  if (negative) return "-";
  if (options.plus) return "+";
  return options.space ? " " : "";
}

void appendInteger(std::string& out, ConversionOptions options, char conversion, const FormatArgument& argument) {
  if (conversion == 'c') {
    const char character = static_cast<char>(argument.bits);
    return appendPadded(out, options, "", std::string_view(&character, 1), false);
  }
  const bool decimal = conversion == 'd' || conversion == 'i' || conversion == 'u';
  std::uint64_t bits = argument.bits;
  if (decimal && argument.negative) bits = 0 - bits;
  if (!decimal && argument.size < sizeof bits) bits &= (std::uint64_t{1} << (argument.size * 8)) - 1;
  char digits[32];
  const int base = decimal ? 10 : conversion == 'o' ? 8 : 16;
  std::string body(digits, std::to_chars(digits, digits + sizeof digits, bits, base).ptr);
  if (conversion == 'X')
    std::ranges::transform(body, body.begin(), [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
  if (options.precision >= 0) {
    options.zeroPadded = false;
    if (body.size() < static_cast<std::size_t>(options.precision))
      body.insert(0, static_cast<std::size_t>(options.precision) - body.size(), '0');
  }
  std::string sign(decimal ? signOf(options, argument.negative) : "");
  if (options.alternate && base == 16 && bits != 0) sign += conversion == 'x' ? "0x" : "0X";
  if (options.alternate && base == 8 && body.front() != '0') sign += '0';
  appendPadded(out, options, sign, body, true);
}

void appendReal(std::string& out, const ConversionOptions& options, char conversion, double real) {
  const bool upper = conversion < 'a';
  const char lower = upper ? static_cast<char>(conversion + 32) : conversion;
  const auto style = lower == 'e'   ? std::chars_format::scientific
                     : lower == 'f' ? std::chars_format::fixed
                                    : std::chars_format::general;
  const int precision = options.precision < 0 ? 6 : options.precision;
  std::string body(400 + static_cast<std::size_t>(precision), '\0');
  body.resize(static_cast<std::size_t>(
      std::to_chars(body.data(), body.data() + body.size(), std::fabs(real), style, precision).ptr - body.data()));
  if (upper)
    std::ranges::transform(body, body.begin(),
                           [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
  appendPadded(out, options, signOf(options, std::signbit(real)), body, std::isfinite(real));
}

bool appendArgument(std::string& out, const ConversionOptions& options, char conversion,
                    const FormatArgument& argument) {
  using Kind = FormatArgument::Kind;
  const auto isOneOf = [conversion](std::string_view set) { return set.find(conversion) != std::string_view::npos; };
  if (argument.kind == Kind::integer && isOneOf("diuxXoc")) {
    appendInteger(out, options, conversion, argument);
  } else if (argument.kind == Kind::real && isOneOf("eEfFgG")) {
    appendReal(out, options, conversion, argument.real);
  } else if (argument.kind == Kind::text && isOneOf("s@")) {
    const std::size_t most = options.precision < 0 ? argument.text.size() : static_cast<std::size_t>(options.precision);
    appendPadded(out, options, "", argument.text.substr(0, most), false);
  } else if (argument.kind == Kind::value && conversion == '@') {
    appendPadded(out, options, "", argument.value->description(), false);
  } else {
    return false;
  }
  return true;
}

}  // namespace

std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments) {
  std::string out;
  std::size_t used = 0;
  std::size_t at = 0;
  while (at < format.size()) {
    const std::size_t percent = std::min(format.find('%', at), format.size());
    out += format.substr(at, percent - at);
    if (percent == format.size()) break;
    at = percent + 1;
    if (at < format.size() && format[at] == '%') {
      out += format[at++];
      continue;
    }
    const ConversionOptions options = parseOptions(format, at);
    const bool formatted =
        at < format.size() && used < arguments.size() && appendArgument(out, options, format[at], arguments[used]);
    if (at < format.size()) ++at;
    if (!formatted) out += format.substr(percent, at - percent);
    ++used;
  }
  return out;
}

}  // namespace ostrel
