#include "Directory/DirectoryIdentifiers.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Directory/RecordListings.h"
#include "Platform/UuidSource.h"

namespace ostrel {
namespace {

constexpr std::string_view legacyPrefixes[] = {"FFFFEEEE-DDDD-CCCC-BBBB-AAAA", "AAAABBBB-CCCC-DDDD-EEEE-FFFF"};
constexpr int lowestGroupNumber = 500;
constexpr int highestGroupNumber = 32768;

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

bool isGroupNumberFree(DirectoryHandle session, DirectoryHandle node, const std::string& number) {
  const PlistValue found =
      DSGetRecordsByRecordTypeAndAttributeValues(session, node, directoryName::groups, directoryName::primaryGroupID,
                                                 PlistValue::arrayOf({number}), directoryMatch::exact, 1);
  // A question that failed frees no number.
  const PlistValue status = found.get("status");
  if (status.isNumber() && status.int64Value() != directoryStatus::success) return false;
  return found.get("recordsArray").count() == 0;
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

PlistValue DSGenerateLegacyGID(DirectoryHandle session, DirectoryHandle node) {
  for (int candidate = lowestGroupNumber; candidate <= highestGroupNumber; ++candidate) {
    const std::string number = std::to_string(candidate);
    if (isGroupNumberFree(session, node, number)) return number;
  }
  return {};
}

}  // namespace ostrel
