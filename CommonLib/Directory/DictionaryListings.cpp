// The listings that answer a response dictionary, by names and by the values of an attribute.
#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Directory/Internal/Administrators.h"
#include "Directory/Internal/OpenedNode.h"
#include "Directory/Internal/RecordDictionaries.h"
#include "Directory/Internal/Utf8Text.h"
#include "Directory/RecordListings.h"

namespace ostrel {
namespace {

using detail::makeList;
using detail::RecordCollector;
using detail::ReleasedDataNode;
using detail::ReleasedList;

struct NameMatch {
  PlistValue name;
  std::uint32_t match;
};

NameMatch chooseMatch(const PlistValue& startsWith, const PlistValue& contains, const PlistValue& endsWith) {
  using namespace directoryMatch;
  const auto counts = [](const PlistValue& name) { return !name.stringValue().empty() && name.stringValue() != "*"; };
  // What begins and ends with the same text is asked for exactly.
  if (counts(startsWith) && startsWith == endsWith) return {startsWith, exactIgnoringCase};
  if (counts(startsWith)) return {startsWith, startsWithIgnoringCase};
  if (counts(contains)) return {contains, containsIgnoringCase};
  if (counts(endsWith)) return {endsWith, endsWithIgnoringCase};
  return {directoryName::allRecords, any};
}

std::vector<std::string> typesToList(const PlistValue& recordTypes) {
  if (!detail::isUsableArray(recordTypes)) return {std::string(directoryName::users), std::string(detail::userAliases)};
  auto types = detail::namesIn(recordTypes);
  std::erase_if(types, detail::isAliasType);
  return types;
}

std::vector<std::string> attributesToList(const PlistValue& attributes) {
  if (!detail::isUsableArray(attributes)) return {std::string(directoryName::recordName)};
  auto names = detail::namesIn(attributes);
  std::erase_if(names, [](std::string_view name) { return name.empty() || name.starts_with(detail::virtualPrefix); });
  return names;
}

DirectoryStatus collectByName(RecordCollector& collector, DirectoryHandle node, std::uint32_t maximum,
                              const NameMatch& wanted, std::span<const std::string> recordTypes,
                              std::span<const std::string> attributeNames) {
  const auto name = detail::utf8Text(wanted.name);
  if (!name) return directoryStatus::outOfMemory;
  const ReleasedList names(makeList({&*name, 1}));
  const ReleasedList types(makeList(recordTypes));
  const ReleasedList attributes(makeList(attributeNames));
  if (!names || !types || !attributes) return directoryStatus::outOfMemory;
  const auto step = [&](DirectoryDataBuffer* buffer, std::uint32_t* count, DirectoryHandle* continuation) {
    return dsGetRecordList(node, buffer, names.get(), wanted.match, types.get(), attributes.get(), count, continuation);
  };
  // One more than are wanted tells whether there are more.
  return collector.collect(node, maximum + 1, step);
}

DirectoryStatus collectByValues(RecordCollector& collector, DirectoryHandle node, std::uint32_t maximum,
                                const PlistValue& recordType, const PlistValue& attributeType,
                                const PlistValue& attributeValues, std::uint32_t match) {
  const auto searched = detail::utf8Text(attributeType);
  if (!searched) return directoryStatus::outOfMemory;
  const auto type = detail::utf8Text(recordType);
  const ReleasedList types(dsBuildListFromStringsAlloc(type ? type->c_str() : nullptr, nullptr));
  const ReleasedList values(makeList(detail::namesIn(attributeValues)));
  const ReleasedList attributes(dsBuildListFromStringsAlloc(searched->c_str(), directoryName::recordName.data(),
                                                            directoryName::realName.data(), nullptr));
  const ReleasedDataNode attribute(dsDataNodeAllocateString(searched->c_str()));
  if (!types || !values || !attributes || !attribute) return directoryStatus::outOfMemory;
  const auto step = [&](DirectoryDataBuffer* buffer, std::uint32_t* count, DirectoryHandle* continuation) {
    return dsDoMultipleAttributeValueSearchWithData(node, buffer, types.get(), attribute.get(), match, values.get(),
                                                    attributes.get(), count, continuation);
  };
  return collector.collect(node, std::max(maximum, 1U), step);
}

void addCounts(PlistValue& response, const PlistValue& records, bool moreRecords) {
  response.set("nbRecords", records.count());
  response.set("moreRecords", moreRecords);
  response.set("status", directoryStatus::success);
}

}  // namespace

PlistValue DSGetListOfRecords(const PlistValue& nodePath, const PlistValue& recordTypes, const PlistValue& attributes,
                              const PlistValue& startsWith, const PlistValue& contains, const PlistValue& endsWith,
                              const PlistValue& maximum, const PlistValue& reserved) noexcept {
  return detail::answerOf([&] {
    const std::uint32_t most = detail::maximumOf(maximum);
    const auto types = typesToList(recordTypes);
    const NameMatch wanted = chooseMatch(startsWith, contains, endsWith);
    detail::OpenedNode listed;
    RecordCollector collector(most);
    DirectoryStatus status = listed.open(nodePath, directoryNodeType::search);
    if (status == directoryStatus::success)
      status = collectByName(collector, listed.node(), most, wanted, types, attributesToList(attributes));
    if (status != directoryStatus::success) return detail::statusAlone(status);
    const PlistValue records = collector.takeRecords();
    detail::markAdministrators(records, types, attributes, nodePath, reserved);

    PlistValue response = PlistValue::mutableDictionary();
    if (recordTypes.isArray()) response.set("recordTypesArray", recordTypes);
    response.set("recordsArray", records);
    if (!startsWith.stringValue().empty()) response.set("startsWithName", startsWith);
    if (!contains.stringValue().empty()) response.set("containsName", contains);
    response.set("nodePath", listed.foundPath());
    addCounts(response, records, collector.moreRecords());
    return response;
  });
}

PlistValue DSGetRecordsByRecordTypeAndAttributeValues(DirectoryHandle, DirectoryHandle node,
                                                      const PlistValue& recordType, const PlistValue& attributeType,
                                                      const PlistValue& attributeValues, std::uint32_t match,
                                                      const PlistValue& maximum) noexcept {
  return detail::answerOf([&] {
    const std::uint32_t most = detail::maximumOf(maximum);
    RecordCollector collector(most);
    const DirectoryStatus status =
        collectByValues(collector, node, most, recordType, attributeType, attributeValues, match);
    if (status != directoryStatus::success) return detail::statusAlone(status);
    PlistValue response = PlistValue::mutableDictionary();
    if (recordType.isString()) response.set("recordType", recordType);
    if (attributeType.isString()) response.set("attributeType", attributeType);
    if (attributeValues.isArray()) response.set("attributeValues", attributeValues);
    const PlistValue records = collector.takeRecords();
    response.set("recordsArray", records);
    addCounts(response, records, collector.moreRecords());
    return response;
  });
}

}  // namespace ostrel
