// The arguments of a request, checked: whatever is malformed makes the whole request INVALID_ARG_ERR.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "AccountKind.h"
#include "Containers/PlistValue.h"

namespace ostrel::accounts {

/// A name that a record can have: UTF-8 of 1 to 255 bytes without control characters, and none that stands for all
/// records in a search.
std::optional<std::string> recordNameIn(const PlistValue& value);

/// "nodePath", by default that of the local node. Absent when it is no text of a path.
std::optional<std::string> nodePathOf(const PlistValue& request);

/// What "attributes" (a dictionary, may be missing) sets: an attribute's name and its values, none to remove it.
/// Values are strings or arrays of strings. Absent when there is any other, or an attribute that is not set this way:
/// names and passwords, and what is no "dsAttrTypeStandard:" or "dsAttrTypeNative:". Numbers are checked.
using AttributeChanges = std::vector<std::pair<std::string, std::vector<std::string>>>;
std::optional<AttributeChanges> attributeChangesIn(const PlistValue& request);

/// The single value that is set for an attribute; null when none is.
const std::string* valueSetFor(const AttributeChanges& changes, std::string_view attribute);

/// "password": absent when it is none that can be set; an empty text when it is not given.
std::optional<std::string> passwordIn(const PlistValue& request);

/// An array of record names under `key`; none when it is missing.
std::optional<std::vector<std::string>> namesIn(const PlistValue& request, std::string_view key);

/// "maximum", from 1 to 100,000; 256 by default.
std::optional<std::int64_t> maximumIn(const PlistValue& request);

/// A string, or null when it is missing. Absent for any other.
std::optional<PlistValue> textIn(const PlistValue& request, std::string_view key);

}  // namespace ostrel::accounts
