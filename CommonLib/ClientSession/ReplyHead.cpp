#include "ClientSession/ReplyHead.h"

#include "ClientSession/Internal/HeaderText.h"
#include "Containers/LeadingInteger.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

void scanLine(std::string_view line, ReplyHead& head) {
  const std::size_t space = line.find(' ');
  if (space == std::string_view::npos) return;
  const std::string_view rest = line.substr(space + 1);
  const std::string_view secondWord = rest.substr(0, rest.find(' '));
  if (line.starts_with("HTTP/")) {
    head.status = leadingInt(secondWord);
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
