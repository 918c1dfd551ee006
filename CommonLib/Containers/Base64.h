// Base64 (RFC 4648 section 4, the standard alphabet with padding).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// The text of `bytes` on one line, padded with "=".
OSTREL_EXPORT std::string encodeBase64(std::string_view bytes);

/// The bytes of `text`, or nothing when it is not exactly what an encoder writes: a character outside the alphabet
/// (white space included), padding that is missing, too much or in the middle, unused bits that are not zero.
OSTREL_EXPORT std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace ostrel
