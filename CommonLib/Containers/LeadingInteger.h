// The decimal integer that a text begins with.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// The decimal integer at the start of `text`, as scanf(3) takes one: after any white space (ASCII, line breaks
/// included), with or without one sign; what follows the digits does not matter. One that does not fit becomes its
/// nearest end. Absent when the text begins with none. A pure function.
OSTREL_EXPORT std::optional<std::int64_t> leadingInteger(std::string_view text) noexcept;

/// The same held to the range of int; 0 when there is none.
OSTREL_EXPORT int leadingInt(std::string_view text) noexcept;

}  // namespace ostrel
