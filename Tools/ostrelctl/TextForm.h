// Property-list values as text for a person at a terminal.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel {

/// A member a line, "key: value", nested ones indented by two spaces, "- " before the elements of an array. Text of
/// several lines stands indented below its key. Control characters other than line feed and tab are shown as \xHH: a
/// reply may hold what strangers wrote into a log. Data is shown in Base64.
std::string readableText(const PlistValue& value);

/// "2011-08-15T16:08:25Z", with a fraction when the moment has one; outside the years 1 to 9999 its seconds since 1970.
std::string dateText(PlistDate date);

/// The moment that such a text names; absent for any other text.
std::optional<PlistDate> dateFromText(std::string_view text);

}  // namespace ostrel
