// Property-list values as JSON (RFC 8259), both ways.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel {

/// Two-space indented JSON with the members in their order and a line feed at the end. What JSON has no form for is
/// written as text: a date as "2011-08-15T16:08:25Z" (with a fraction when it has one), data as Base64, a real that is
/// not finite as "inf", "-inf" or "nan". Null is null; bytes that are not UTF-8 become U+FFFD.
std::string jsonText(const PlistValue& value);

/// The value that a JSON text spells. Absent, with the reason in `fault`, when it is not JSON, is or holds a null
/// (property lists have none), repeats a member's name or nests deeper than property lists may.
std::optional<PlistValue> valueFromJson(std::string_view text, std::string& fault);

}  // namespace ostrel
