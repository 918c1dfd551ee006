// The listing by name or identifier that leaves system accounts out.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Directory/Internal/Administrators.h"
#include "Directory/Internal/RecordDictionaries.h"
#include "Directory/Internal/SystemAccounts.h"
#include "Directory/RecordListings.h"
#include "Platform/DirectoryQuery.h"

namespace ostrel {
namespace {

// Makes up for records that are hidden, so that a page is full all the same.
constexpr std::uint32_t hiddenAllowance = 100;

enum class Searched { name, identifier };

struct PatternKind {
  std::string_view key;
  std::uint32_t match;
  Searched searched;
};
constexpr PatternKind patternKinds[] = {
    {"nameIs", directoryMatch::exactIgnoringCase, Searched::name},
    {"nameContains", directoryMatch::containsIgnoringCase, Searched::name},
    {"nameStartsWith", directoryMatch::startsWithIgnoringCase, Searched::name},
    {"nameEndsWith", directoryMatch::endsWithIgnoringCase, Searched::name},
    {"idContains", directoryMatch::contains, Searched::identifier},
    {"idIs", directoryMatch::exact, Searched::identifier},
    {"idIsGreaterThan", directoryMatch::greaterThan, Searched::identifier},
    {"idIsLessThan", directoryMatch::lessThan, Searched::identifier},
    {"commentContains", directoryMatch::containsIgnoringCase, Searched::identifier},  // not the comment: that is meant
};

// "nameIs+returnSystemAccounts" as its two parts; what stands behind a second "+" has no meaning.
struct PatternKey {
  explicit PatternKey(std::string_view text) : key(text.substr(0, text.find('+'))) {
    if (key.size() == text.size()) return;
    text.remove_prefix(key.size() + 1);
    returnsSystemAccounts = text.substr(0, text.find('+')) == "returnSystemAccounts";
  }

  std::string_view key;
  bool returnsSystemAccounts = false;
};

PlistValue withoutAliases(const PlistValue& recordTypes) {
  PlistValue types = PlistValue::mutableArray();
  for (const PlistValue& type : recordTypes.elements())
    if (!detail::isAliasType(type.stringValue())) types.append(type);
  return types;
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  return std::ranges::find(names, name) != names.end();
}

detail::HiddenAccounts hiddenAccounts(const PatternKey& pattern, const std::vector<std::string>& types) {
  if (!pattern.returnsSystemAccounts) return {};
  return {!contains(types, directoryName::users), !contains(types, directoryName::groups)};
}

std::vector<std::string> attributesToList(const PlistValue& attributes) {
  auto names = detail::namesIn(attributes);
  return names.empty() ? std::vector{std::string(directoryName::recordName)} : names;
}

// What and how to compare.
void setMatch(DirectoryQuery& query, std::string_view key, std::string_view text) {
  if (text.empty() || text == "*") {
    query.value = directoryName::allRecords;
    return;
  }
  query.value = text;
  const auto kind = std::ranges::find(patternKinds, key, &PatternKind::key);
  query.match = kind == std::end(patternKinds) ? 0 : kind->match;
  if (kind == std::end(patternKinds) || kind->searched == Searched::name) return;
  const bool areGroups = !query.recordTypes.empty() && query.recordTypes.front() == directoryName::groups;
  query.attribute = areGroups ? directoryName::primaryGroupID : directoryName::uniqueID;
}

std::vector<DirectoryResult> ask(const PlistValue& nodePath, const DirectoryQuery& query) {
  const auto session = DirectorySession::defaultSession();
  if (!session) return {};
  const auto node =
      nodePath.isString() ? session->nodeNamed(nodePath.stringValue()) : session->nodeOfType(directoryNodeType::search);
  return node ? node->results(query) : std::vector<DirectoryResult>();
}

// A record's dictionary of the attributes, in their order.
PlistValue recordOf(const PlistValue& values, const std::vector<std::string>& attributes) {
  if (contains(attributes, directoryName::allAttributes)) return recordOf(values, detail::namesIn(values.allKeys()));
  PlistValue record = PlistValue::mutableDictionary();
  for (const std::string& attribute : attributes) {
    const PlistValue ofAttribute = values.get(attribute);
    record.set(attribute, ofAttribute.count() == 1 ? ofAttribute.at(0) : ofAttribute);
  }
  return record;
}

struct Listing {
  PlistValue records = PlistValue::mutableArray();
  std::uint32_t skipped = 0;
};

Listing listVisible(const std::vector<DirectoryResult>& results, const std::vector<std::string>& attributes,
                    const detail::HiddenAccounts& hidden, std::uint32_t maximum) {
  Listing listing;
  for (const DirectoryResult& result : results) {
    PlistValue record = recordOf(result.attributes, attributes);
    if (record.count() == 0) continue;
    if (hidden.hide(result.recordType, result.attributes)) {
      ++listing.skipped;
      continue;
    }
    listing.records.append(std::move(record));
    if (listing.records.count() >= maximum) break;
  }
  return listing;
}

PlistValue listMatching(const PlistValue& nodePath, const PlistValue& types, const PlistValue& attributes,
                        std::string_view patternKey, const PlistValue& patternText, std::uint32_t maximum,
                        const PlistValue& reserved) {
  const PatternKey pattern(patternKey);
  DirectoryQuery query;
  query.recordTypes = detail::namesIn(types);
  const detail::HiddenAccounts hidden = hiddenAccounts(pattern, query.recordTypes);
  setMatch(query, pattern.key, patternText.stringValue());
  const auto listed = attributesToList(attributes);
  query.attributes = listed;
  if (hidden.any()) {
    // What the test looks at, whether it is to be listed or not.
    for (const auto name : {directoryName::recordName, directoryName::uniqueID, directoryName::primaryGroupID})
      if (!contains(listed, name)) query.attributes.emplace_back(name);
  }
  if (maximum != detail::noMaximum) query.maximum = std::size_t{maximum} + (hidden.any() ? hiddenAllowance : 0);

  const auto results = ask(nodePath, query);
  if (results.empty()) return detail::statusAlone(directoryStatus::success);
  const Listing listing = listVisible(results, listed, hidden, maximum);
  detail::markAdministrators(listing.records, query.recordTypes, attributes, nodePath, reserved);

  PlistValue response =
      PlistValue::mutableDictionaryOf({{"recordTypesArray", types}, {"recordsArray", listing.records}});
  if (!patternText.stringValue().empty()) response.set("patternText", patternText);
  if (!pattern.key.empty()) response.set("patternKey", pattern.key);
  if (nodePath.isString()) response.set("nodePath", nodePath);
  response.set("nbRecords", listing.records.count());
  response.set("nbSkippedRecords", listing.skipped);
  response.set("moreRecords", false);
  response.set("status", directoryStatus::success);
  return response;
}

}  // namespace

PlistValue DSGetValueMatchedListOfRecords(const PlistValue& nodePath, const PlistValue& recordTypes,
                                          const PlistValue& attributes, const PlistValue& patternKey,
                                          const PlistValue& patternText, const PlistValue& maximum,
                                          const PlistValue& reserved) noexcept {
  return detail::answerOf([&] {
    const std::uint32_t asked = detail::maximumOf(maximum);
    const PlistValue types = withoutAliases(recordTypes);
    if (types.count() == 0) return detail::statusAlone(directoryStatus::success);
    return listMatching(nodePath, types, attributes, patternKey.stringValue(), patternText,
                        asked == 0 ? detail::defaultMaximum : asked, reserved);
  });
}

}  // namespace ostrel
