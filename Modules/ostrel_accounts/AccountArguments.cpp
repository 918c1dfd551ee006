#include "AccountArguments.h"

#include <algorithm>
#include <charconv>

#include "Containers/Utf8.h"
#include "Directory/DirectorySessions.h"

namespace ostrel::accounts {
namespace {

constexpr std::size_t longestName = 255;
constexpr std::size_t longestText = 65'535;
constexpr std::size_t mostValues = 100'000;
constexpr std::size_t mostAttributes = 1'000;
constexpr std::size_t shortestPassword = 8;
constexpr std::size_t longestPassword = 511;
constexpr std::int64_t usualMaximum = 256;
constexpr std::int64_t mostRecords = 100'000;

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

/// UTF-8 that can stand before a NUL.
std::optional<std::string> textOf(const PlistValue& value, std::size_t longest) {
  const std::string_view text = value.stringValue();
  if (!value.isString() || text.size() > longest || text.find('\0') != std::string_view::npos || !isValidUtf8(text))
    return std::nullopt;
  return std::string(text);
}

bool isNumber(std::string_view text) {
  std::uint32_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  return read.ec == std::errc{} && read.ptr == text.data() + text.size() && number != UINT32_MAX;
}

bool maySet(std::string_view attribute) {
  if (attribute.size() > longestName || std::ranges::any_of(attribute, isControl) || !isValidUtf8(attribute))
    return false;
  if (attribute == directoryName::recordName || attribute == directoryName::password) return false;
  return attribute.starts_with("dsAttrTypeStandard:") || attribute.starts_with("dsAttrTypeNative:");
}

std::optional<std::vector<std::string>> valuesOf(const PlistValue& value) {
  const PlistValue array = value.isArray() ? value : PlistValue::arrayOf({value});
  if (array.count() > mostValues) return std::nullopt;
  std::vector<std::string> values;
  for (const PlistValue& element : array.elements()) {
    auto text = textOf(element, longestText);
    if (!text) return std::nullopt;
    values.push_back(std::move(*text));
  }
  return values;
}

bool fits(std::string_view attribute, const std::vector<std::string>& values) {
  const bool isIdentifier = attribute == directoryName::uniqueID || attribute == directoryName::primaryGroupID;
  return !isIdentifier || (values.size() == 1 && isNumber(values.front()));
}

}  // namespace

std::optional<std::string> recordNameIn(const PlistValue& value) {
  auto name = textOf(value, longestName);
  if (!name || name->empty() || std::ranges::any_of(*name, isControl)) return std::nullopt;
  if (*name == "*" || *name == directoryName::allRecords) return std::nullopt;
  return name;
}

std::optional<std::string> nodePathOf(const PlistValue& request) {
  const PlistValue given = request.get("nodePath");
  auto path = textOf(given.isNull() ? DSGetDefaultLocalNodePath(0) : given, longestText);
  return path && path->starts_with('/') ? path : std::nullopt;
}

std::optional<AttributeChanges> attributeChangesIn(const PlistValue& request) {
  AttributeChanges changes;
  const PlistValue attributes = request.get("attributes");
  if (attributes.isNull()) return changes;
  if (!attributes.isDictionary() || attributes.count() > mostAttributes) return std::nullopt;
  for (const PlistEntry& entry : attributes.entries()) {
    auto values = valuesOf(entry.value);
    if (!values || !maySet(entry.keyText()) || !fits(entry.keyText(), *values)) return std::nullopt;
    changes.emplace_back(entry.keyText(), std::move(*values));
  }
  return changes;
}

const std::string* valueSetFor(const AttributeChanges& changes, std::string_view attribute) {
  for (const auto& [changed, values] : changes)
    if (changed == attribute && values.size() == 1) return &values.front();
  return nullptr;
}

std::optional<std::string> passwordIn(const PlistValue& request) {
  const PlistValue given = request.get("password");
  if (given.isNull()) return "";
  auto password = textOf(given, longestPassword);
  // Writing what stands in its place when it is read would change nothing, and look as if it had.
  if (!password || password->size() < shortestPassword || *password == directoryName::hiddenPassword)
    return std::nullopt;
  return password;
}

std::optional<std::vector<std::string>> namesIn(const PlistValue& request, std::string_view key) {
  std::vector<std::string> names;
  const PlistValue given = request.get(key);
  if (given.isNull()) return names;
  if (!given.isArray() || given.count() > mostValues) return std::nullopt;
  for (const PlistValue& element : given.elements()) {
    auto name = recordNameIn(element);
    if (!name) return std::nullopt;
    names.push_back(std::move(*name));
  }
  return names;
}

std::optional<std::int64_t> maximumIn(const PlistValue& request) {
  const PlistValue given = request.get("maximum");
  if (given.isNull()) return usualMaximum;
  if (!given.isInteger() || given.int64Value() < 1 || given.int64Value() > mostRecords) return std::nullopt;
  return given.int64Value();
}

std::optional<PlistValue> textIn(const PlistValue& request, std::string_view key) {
  const PlistValue given = request.get(key);
  if (given.isNull()) return given;
  if (!textOf(given, longestText)) return std::nullopt;
  return given;
}

}  // namespace ostrel::accounts
