// The formatter of log lines and messages: printf's conversions and "%@", checked when the program is compiled.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// One argument of a format, borrowed for the duration of the call.
class OSTREL_EXPORT FormatArgument {
 public:
  enum class Kind : std::uint8_t { integer, real, text, value, unsupported };

  // Implicit on purpose: they are made from the arguments of format().
  template <std::integral Integer>
  FormatArgument(Integer number)
      : kind(Kind::integer),
        negative(std::is_signed_v<Integer> && number < Integer{}),
        size(sizeof(Integer)),
        bits(static_cast<std::uint64_t>(number)) {}
  template <std::floating_point Real>
  FormatArgument(Real number) : kind(Kind::real), real(static_cast<double>(number)) {}
  FormatArgument(std::string_view words) : kind(Kind::text), text(words) {}
  FormatArgument(const std::string& words) : kind(Kind::text), text(words) {}
  FormatArgument(const char* words) : kind(Kind::text), text(words == nullptr ? "(null)" : words) {}
  FormatArgument(const PlistValue& argument) : kind(Kind::value), value(&argument) {}

  template <class Argument>
  static consteval Kind kindOf() {
    using Plain = std::remove_cvref_t<Argument>;
    if constexpr (std::integral<Plain>) return Kind::integer;
    if constexpr (std::floating_point<Plain>) return Kind::real;
    if constexpr (std::same_as<Plain, PlistValue>) return Kind::value;
    if constexpr (std::convertible_to<Argument, std::string_view>) return Kind::text;
    return Kind::unsupported;
  }

  Kind kind;
  bool negative = false;
  std::uint8_t size = 0;
  std::uint64_t bits = 0;
  double real = 0;
  std::string_view text;
  const PlistValue* value = nullptr;
};

namespace detail {

/// Not constexpr on purpose: reaching it while a format is checked stops the compilation and names the fault.
void formatDoesNotMatchItsArguments(const char* fault);

consteval bool isOneOf(char wanted, std::string_view set) { return set.find(wanted) != std::string_view::npos; }

consteval bool conversionTakes(char conversion, FormatArgument::Kind kind) {
  using Kind = FormatArgument::Kind;
  if (isOneOf(conversion, "diuxXoc")) return kind == Kind::integer;
  if (isOneOf(conversion, "eEfFgG")) return kind == Kind::real;
  if (conversion == 's') return kind == Kind::text;
  if (conversion == '@') return kind == Kind::text || kind == Kind::value;
  return false;
}

consteval void checkFormat(std::string_view format, std::span<const FormatArgument::Kind> kinds) {
  std::size_t used = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') continue;
    ++i;
    if (i < format.size() && format[i] == '%') continue;
    while (i < format.size() && isOneOf(format[i], "-+ #0123456789.hlqjzt")) ++i;
    if (i >= format.size()) formatDoesNotMatchItsArguments("the format ends within a conversion");
    if (used >= kinds.size()) formatDoesNotMatchItsArguments("there are fewer arguments than conversions");
    if (!conversionTakes(format[i], kinds[used])) formatDoesNotMatchItsArguments("a conversion got the wrong type");
    ++used;
  }
  if (used != kinds.size()) formatDoesNotMatchItsArguments("there are more arguments than conversions");
}

}  // namespace detail

/// A format literal that was checked against the types of its arguments.
template <class... Arguments>
class FormatString {
 public:
  consteval FormatString(const char* literal) : text_(literal) {
    constexpr FormatArgument::Kind kinds[] = {FormatArgument::kindOf<Arguments>()...,
                                              FormatArgument::Kind::unsupported};
    detail::checkFormat(literal, std::span(kinds, sizeof...(Arguments)));
  }
  constexpr std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};

/// Formats with the arguments in order. Conversions: d i u x X o c for integers of any width (length modifiers are
/// accepted and need not be exact), e E f F g G for reals, s for text, @ for text and for a value's description, %% for
/// a percent sign; flags, width and precision as in printf(3), without "*". A wrong type or count does not compile.
/// A null pointer prints as "(null)". Reals use a point whatever the locale.
template <class... Arguments>
std::string format(FormatString<std::type_identity_t<Arguments>...> text, const Arguments&... arguments);

/// The same with the arguments already gathered. A conversion without its argument, or with one of the wrong type,
/// is copied as it stands; no argument is read that is not there.
OSTREL_EXPORT std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments);

template <class... Arguments>
std::string format(FormatString<std::type_identity_t<Arguments>...> text, const Arguments&... arguments) {
  if constexpr (sizeof...(Arguments) == 0) {
    return formatArguments(text.text(), {});
  } else {
    const FormatArgument gathered[] = {FormatArgument(arguments)...};
    return formatArguments(text.text(), gathered);
  }
}

}  // namespace ostrel
