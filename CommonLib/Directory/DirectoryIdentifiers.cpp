#include "Directory/DirectoryIdentifiers.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/UuidSource.h"

namespace ostrel {
namespace {

constexpr std::string_view legacyPrefixes[] = {"FFFFEEEE-DDDD-CCCC-BBBB-AAAA", "AAAABBBB-CCCC-DDDD-EEEE-FFFF"};

// The unsigned hexadecimal integer at the start of a text, with or without "0x".
std::optional<std::uint32_t> leadingHexadecimal(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
  std::uint32_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number, 16);
  if (read.ec != std::errc{}) return std::nullopt;
  return number;
}

PlistValue recordWithText(const PlistValue& records, std::string_view attribute, const PlistValue& text) {
  for (const PlistValue& record : records.elements()) {
    const PlistValue value = record.get(attribute);
    if (value.isString() && value == text) return record;
  }
  return {};
}

}  // namespace

PlistValue DSGenerateUniqueIdentifier() {
  const std::string identifier = UuidSource::current().make();
  return identifier.empty() ? PlistValue() : PlistValue(identifier);
}

PlistValue DSLegacyIDFromGeneratedUID(const PlistValue& identifier) {
  const std::string_view text = identifier.stringValue();
  for (const std::string_view prefix : legacyPrefixes) {
    if (!text.starts_with(prefix)) continue;
    const auto number = leadingHexadecimal(text.substr(prefix.size()));
    return number ? PlistValue(std::to_string(static_cast<std::int32_t>(*number))) : PlistValue();
  }
  return {};
}

PlistValue DSRecordWithMatchingGeneratedUID(const PlistValue& records, const PlistValue& identifier) {
  if (!identifier.isString()) return {};
  PlistValue record = recordWithText(records, directoryName::generatedUID, identifier);
  const PlistValue legacy = record.isNull() ? DSLegacyIDFromGeneratedUID(identifier) : PlistValue();
  if (legacy.isNull()) return record;
  record = recordWithText(records, directoryName::uniqueID, legacy);
  return record.isNull() ? recordWithText(records, directoryName::primaryGroupID, legacy) : record;
}

}  // namespace ostrel
