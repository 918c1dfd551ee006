// The URL of a command, taken apart once (RFC 2396).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// A parsed URL of the form "scheme://host:port/path". Immutable; threads may share it.
class OSTREL_EXPORT CommandURL {
 public:
  /// Takes `text` apart. Absent when it is no such URL: a character that a URL cannot hold (white space, control
  /// characters, NUL, non-ASCII bytes, `"<>\^{|}` and the back-quote), a "%" without two hexadecimal digits, no
  /// scheme or no "//", a port that is not decimal, an IPv6 address outside brackets. So nothing that a URL carries
  /// can end a line of the request head.
  static std::optional<CommandURL> parse(std::string_view text);

  /// The whole text, as it was given.
  const std::string& text() const { return text_; }
  /// The host without user information, port or the brackets of an IPv6 address. May be "".
  const std::string& host() const { return host_; }
  /// The host as the "Host" header spells it: an IPv6 address in brackets.
  std::string hostForHeader() const;
  /// The digits of the port; "" when the URL has none.
  const std::string& portText() const { return port_; }
  /// The port's number, 0 when the URL has none, 2147483647 when it is larger than that.
  std::int32_t portNumber() const;
  /// The path with its percent-escapes as they stand; "/" when it is empty. Query and fragment are not part of it.
  const std::string& path() const { return path_; }

 private:
  CommandURL() = default;

  std::string text_;
  std::string host_;
  std::string port_;
  std::string path_;
};

}  // namespace ostrel
