// Text that XML can carry (XML 1.0, section 2.2).
#pragma once

#include <cstdint>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// Whether XML can carry a character: tab, line feed, carriage return, and from the space on all but surrogates,
/// U+FFFE and U+FFFF.
OSTREL_EXPORT bool isXmlCharacter(std::uint32_t character) noexcept;

/// The value with U+FFFD for each character of its strings that XML cannot carry and for each byte that is no UTF-8.
/// For text that the sender did not choose, such as a log's: a reader is better served by a mark than by nothing.
/// What needs no change is shared; containers that do are new and immutable. Keys are left as they are, since two
/// could become one, and so is what lies deeper than `maximumPlistDepth`.
OSTREL_EXPORT PlistValue withXmlText(const PlistValue& value);

}  // namespace ostrel
