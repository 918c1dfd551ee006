// What may stand in a line of an HTTP head.
#pragma once

#include <algorithm>
#include <string_view>

namespace ostrel {

/// True when `text` holds no control character: it can neither end its header line nor smuggle another one in.
inline bool fitsHeaderLine(std::string_view text) {
  return std::ranges::none_of(text, [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; });
}

}  // namespace ostrel
