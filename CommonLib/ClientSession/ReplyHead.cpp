#include "ClientSession/ReplyHead.h"

#include <climits>

#include "ClientSession/Internal/HeaderText.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

/// The leading decimal integer of a word, held to the range of int; 0 when there is none.
int integerValue(std::string_view word) {
  const bool negative = word.starts_with('-');
  if (negative || word.starts_with('+')) word.remove_prefix(1);
  long long value = 0;
  for (const char digit : word) {
    if (digit < '0' || digit > '9') break;
    value = value * 10 + (digit - '0');
    if (value > INT_MAX) return negative ? INT_MIN : INT_MAX;
  }
  return static_cast<int>(negative ? -value : value);
}

void scanLine(std::string_view line, ReplyHead& head) {
  const std::size_t space = line.find(' ');
  if (space == std::string_view::npos) return;
  const std::string_view rest = line.substr(space + 1);
  const std::string_view secondWord = rest.substr(0, rest.find(' '));
  if (line.starts_with("HTTP/")) {
    head.status = integerValue(secondWord);
  } else if (line.starts_with("OstrelSessionID") && fitsHeaderLine(secondWord)) {
    head.sessionID = secondWord;
  }
}

}  // namespace

ReplyHead scanReplyHead(std::string_view chunk) {
  ReplyHead head;
  if (!isValidUtf8(chunk)) return head;
  if (const std::size_t blank = chunk.find("\r\n\r\n"); blank != std::string_view::npos) head.bodyStart = blank + 4;
  while (true) {
    const std::size_t end = chunk.find("\r\n");
    scanLine(chunk.substr(0, end), head);
    if (end == std::string_view::npos) return head;
    chunk.remove_prefix(end + 2);
  }
}

}  // namespace ostrel
