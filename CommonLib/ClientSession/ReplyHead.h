// What a client needs of the head of an HTTP reply (RFC 1945).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

struct ReplyHead {
  std::optional<int> status;             ///< the HTTP status; 0 when its word is no number
  std::optional<std::string> sessionID;  ///< the session identifier that the reply hands out
  std::optional<std::size_t> bodyStart;  ///< where the body starts in the chunk
};

/// Scans the first chunk of a reply. Nothing is found in a chunk that is not valid UTF-8. Every line of it counts,
/// those of the body included, and a later one overrides an earlier one: both are meant. An identifier that holds a
/// control character is passed over, because it could never be sent back without ending a header line. A pure function,
/// linear in the chunk.
OSTREL_EXPORT ReplyHead scanReplyHead(std::string_view chunk);

}  // namespace ostrel
