// What the path and the form body of a request say. Pure functions over bytes that a stranger wrote.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace ostrel {

/// Undoes percent-escapes (RFC 3986, section 2.1). Absent when a "%" is not followed by two hexadecimal digits. Any
/// byte may come out, NUL included. With `plusIsSpace`, "+" is a space, as in application/x-www-form-urlencoded.
std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace = false);

/// What is wrong with a request, as far as its path or its body tell.
enum class RequestFault {
  none,
  badEscape,      ///< a "%" without two hexadecimal digits
  wrongPath,      ///< not "/commands/" and one name of 1 to 255 bytes of UTF-8 without "/" or NUL
  noInput,        ///< a form without the field "input"
  repeatedInput,  ///< a form with two of them: which one counts would be a guess
  badHeader,      ///< a head that two readers may understand differently
};

/// One field of a request's head.
struct HeaderField {
  std::string_view name;
  std::string_view value;
};

/// Whether a head leaves no doubt about where the body ends and who the caller is (RFC 9112, sections 5 and 6): names
/// are tokens, values hold no control characters, "Content-Length", "Transfer-Encoding", "OstrelSessionID" and
/// "Authorization" stand there once at most, the first two not together, and the only encoding is "chunked".
/// `badHeader` otherwise.
RequestFault judgeHeaders(std::span<const HeaderField> headers);

/// The module that an absolute request path names. The path comes as it was sent, without its query.
struct CommandPath {
  RequestFault fault = RequestFault::none;
  std::string module;  ///< only without a fault
};
CommandPath readCommandPath(std::string_view path);

/// The field "input" of a form body (application/x-www-form-urlencoded); other fields are read and left aside. An
/// empty body is no form: callers take it as the empty request before they come here.
struct FormBody {
  RequestFault fault = RequestFault::none;
  std::string input;  ///< decoded; only without a fault; may be empty
};
FormBody readFormBody(std::string_view body);

}  // namespace ostrel
