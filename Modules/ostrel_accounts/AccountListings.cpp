#include "AccountListings.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "AccountArguments.h"
#include "Directory/RecordListings.h"

namespace ostrel::accounts {
namespace {

constexpr std::string_view patternKeys[] = {"nameIs",     "nameContains",    "nameStartsWith", "nameEndsWith",   "idIs",
                                            "idContains", "idIsGreaterThan", "idIsLessThan",   "commentContains"};
constexpr std::int64_t extraForHiddenRecords = 100;  // that many more are looked at to make up for hidden ones
constexpr std::size_t mostAttributes = 100;

PlistValue usualAttributes(const AccountKind& kind) {
  using namespace directoryName;
  if (kind.type == directoryName::groups) return PlistValue::arrayOf({recordName, primaryGroupID, realName, member});
  return PlistValue::arrayOf({recordName, uniqueID, primaryGroupID, realName, "dsAttrTypeVirtual:isAdmin"});
}

/// The attributes to list; absent when they are malformed.
std::optional<PlistValue> attributesIn(const AccountKind& kind, const PlistValue& request) {
  const PlistValue given = request.get("attributes");
  if (given.isNull()) return usualAttributes(kind);
  const bool usable = given.isArray() && given.count() > 0 && given.count() <= mostAttributes &&
                      std::ranges::all_of(given.elements(), [](const PlistValue& each) {
                        return recordNameIn(each).has_value();  // names of attributes are held to the same rules
                      });
  return usable ? std::optional(given) : std::nullopt;
}

/// Passwords read as "********" at most; a list is no place even for that.
void dropPasswords(const PlistValue& records) {
  for (PlistValue record : records.elements()) record.remove(directoryName::password);
}

PlistValue matching(const AccountKind& kind, const std::string& nodePath, const PlistValue& attributes,
                    std::int64_t maximum, const PlistValue& request) {
  const PlistValue key = request.get("patternKey");
  const auto text = textIn(request, "patternText");
  if (!text || std::ranges::find(patternKeys, key.stringValue()) == std::end(patternKeys)) return {};
  std::string wholeKey(key.stringValue());
  if (request.get("systemAccounts").boolValue()) wholeKey += "+returnSystemAccounts";
  // That listing never says whether there is more, so it is asked for one more.
  PlistValue listing = DSGetValueMatchedListOfRecords(nodePath, PlistValue::arrayOf({kind.type}), attributes, wholeKey,
                                                      *text, maximum + 1);
  PlistValue records = listing.get("recordsArray");
  const auto listed = static_cast<std::int64_t>(records.count());
  const std::int64_t looked = listed + listing.get("nbSkippedRecords").int64Value();
  listing.set("moreRecords", listed > maximum || looked >= maximum + 1 + extraForHiddenRecords);
  if (listed > maximum) records.removeAt(static_cast<std::size_t>(maximum));
  if (records.isNull()) listing.set("recordsArray", PlistValue::arrayOf({}));
  listing.set("nbRecords", std::min(listed, maximum));
  return listing;
}

PlistValue named(const AccountKind& kind, const std::string& nodePath, const PlistValue& attributes,
                 std::int64_t maximum, const PlistValue& request) {
  const auto startsWith = textIn(request, "startsWith");
  const auto contains = textIn(request, "contains");
  const auto endsWith = textIn(request, "endsWith");
  if (!startsWith || !contains || !endsWith) return {};
  return DSGetListOfRecords(nodePath, PlistValue::arrayOf({kind.type}), attributes, *startsWith, *contains, *endsWith,
                            maximum);
}

}  // namespace

PlistValue listAccounts(const AccountKind& kind, const PlistValue& request) {
  const auto nodePath = nodePathOf(request);
  const auto maximum = maximumIn(request);
  const auto attributes = attributesIn(kind, request);
  if (!nodePath || !maximum || !attributes) return {};
  PlistValue listing = request.contains("patternKey") ? matching(kind, *nodePath, *attributes, *maximum, request)
                                                      : named(kind, *nodePath, *attributes, *maximum, request);
  dropPasswords(listing.get("recordsArray"));
  return listing;
}

}  // namespace ostrel::accounts
