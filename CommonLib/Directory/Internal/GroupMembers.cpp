#include "Directory/Internal/GroupMembers.h"

#include <unordered_set>

#include "Directory/DirectoryIdentifiers.h"
#include "Directory/RecordListings.h"

namespace ostrel::detail {
namespace {

// A set of strings as an array.
class IdentifierSet {
 public:
  void insert(const PlistValue& identifier) {
    if (seen_.emplace(identifier.stringValue()).second) identifiers_.append(identifier);
  }
  const PlistValue& identifiers() const { return identifiers_; }

 private:
  std::unordered_set<std::string> seen_;
  PlistValue identifiers_ = PlistValue::mutableArray();
};

// A string, or the first element of an array; null otherwise.
PlistValue firstText(const PlistValue& record, std::string_view attribute) {
  const PlistValue value = record.get(attribute);
  const PlistValue first = value.isArray() ? value.at(0) : value;
  return first.isString() ? first : PlistValue();
}

}  // namespace

DirectoryStatus MemberRecords::find(DirectoryHandle session, DirectoryHandle node, const PlistValue& members) {
  IdentifierSet legacyIds;
  IdentifierSet identifiers;
  for (const PlistValue& member : members.elements()) {
    // It would ask for everybody, and leave no room for those who are members.
    if (member.stringValue() == directoryName::allRecords) continue;
    const PlistValue legacyId = DSLegacyIDFromGeneratedUID(member);
    if (legacyId.isNull())
      identifiers.insert(member);
    else
      legacyIds.insert(legacyId);
  }
  const DirectoryStatus status = query(session, node, legacyAttribute_, legacyIds.identifiers(), byLegacyId_);
  if (status != directoryStatus::success) return status;
  return query(session, node, directoryName::generatedUID, identifiers.identifiers(), byIdentifier_);
}

DirectoryStatus MemberRecords::query(DirectoryHandle session, DirectoryHandle node, std::string_view attribute,
                                     const PlistValue& identifiers, Index& found) const {
  if (identifiers.count() == 0) return directoryStatus::success;
  const PlistValue listing = DSGetRecordsByRecordTypeAndAttributeValues(
      session, node, recordType_, attribute, identifiers, directoryMatch::exact, identifiers.count() + 1);
  const PlistValue records = listing.get("recordsArray");
  for (const PlistValue& record : records.elements()) {
    const PlistValue* identifier = record.find(attribute);
    if (identifier != nullptr && identifier->isString()) found.emplace(std::string(identifier->stringValue()), record);
  }
  return static_cast<DirectoryStatus>(listing.get("status").int64Value());
}

PlistValue MemberRecords::recordOf(const PlistValue& identifier) const {
  const PlistValue legacyId = DSLegacyIDFromGeneratedUID(identifier);
  const Index& index = legacyId.isNull() ? byIdentifier_ : byLegacyId_;
  const auto found = index.find(std::string((legacyId.isNull() ? identifier : legacyId).stringValue()));
  return found == index.end() ? PlistValue() : found->second;
}

void MemberRecords::name(const PlistValue& members, PlistValue& names, PlistValue& realNames) const {
  names = PlistValue::mutableArray();
  realNames = PlistValue::mutableArray();
  for (const PlistValue& member : members.elements()) {
    const PlistValue record = recordOf(member);
    PlistValue name = firstText(record, directoryName::recordName);
    if (name.isNull()) name = member;
    PlistValue realName = firstText(record, directoryName::realName);
    if (realName.isNull()) realName = name;
    names.append(std::move(name));
    realNames.append(std::move(realName));
  }
}

}  // namespace ostrel::detail
