// XML without a byte beyond ASCII.
#pragma once

#include <string>
#include <string_view>

namespace ostrel {

/// The same document with each character beyond ASCII written as a character reference, "&#233;" (XML 1.0, section
/// 4.1). Readers get the same text, and the bytes can be cut anywhere without leaving half a character.
/// Requires: such characters in text and attribute values only, never in names, comments or CDATA sections. A byte that
/// belongs to no UTF-8 character becomes U+FFFD. Pure; takes time in proportion to the length.
std::string asciiXml(std::string_view xml);

}  // namespace ostrel
