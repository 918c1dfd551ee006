// The first chunk of a daemon's reply, as any peer may send it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ClientSession/OstrelDaemonSession.h"
#include "ClientSession/ReplyHead.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view chunk(reinterpret_cast<const char*>(bytes), size);
  const ostrel::ReplyHead head = ostrel::scanReplyHead(chunk);
  if (head.bodyStart && !chunk.substr(0, *head.bodyStart).ends_with("\r\n\r\n")) std::abort();
  // What is sent back as a header must not be able to end it.
  if (head.sessionID && std::ranges::any_of(*head.sessionID, [](unsigned char byte) { return byte < 0x20; }))
    std::abort();
  const ostrel::PlistValue reply =
      ostrel::OstrelDaemonSession::buildNSDictionaryFromResponseData(chunk.substr(head.bodyStart.value_or(0)));
  if (!reply.isDictionary()) std::abort();
  // A prefix that is a URL is used as the whole URL.
  if (const auto url = ostrel::CommandURL::parse(chunk); url && url->path().find_first_of("\r\n ") != std::string::npos)
    std::abort();
  return 0;
}
