#include "Directory/Internal/Administrators.h"

#include <algorithm>
#include <unordered_set>

#include "Directory/Internal/RecordDictionaries.h"
#include "Directory/RecordListings.h"

namespace ostrel::detail {
namespace {

// The group, as far as it tells who belongs to it. The views live as long as its record.
class AdminGroup {
 public:
  explicit AdminGroup(PlistValue record) : record_(std::move(record)) {
    const PlistValue* members = record_.find(directoryName::member);
    if (members == nullptr) return;
    if (members->isString()) members_.insert(members->stringValue());
    for (const PlistValue& member : members->elements())
      if (member.isString()) members_.insert(member.stringValue());
  }

  bool holds(const PlistValue& user) const {
    const PlistValue* names = user.find(directoryName::recordName);
    if (names != nullptr && (isMember(*names) || std::ranges::any_of(names->elements(), [this](const PlistValue& name) {
                               return isMember(name);
                             })))
      return true;
    const PlistValue* group = user.find(directoryName::primaryGroupID);
    const PlistValue* number = record_.find(directoryName::primaryGroupID);
    return group != nullptr && number != nullptr && group->isString() && number->isString() && *group == *number;
  }

 private:
  bool isMember(const PlistValue& name) const { return name.isString() && members_.contains(name.stringValue()); }

  const PlistValue record_;
  std::unordered_set<std::string_view> members_;
};

}  // namespace

void markAdministrators(const PlistValue& records, std::span<const std::string> types, const PlistValue& attributes,
                        const PlistValue& nodePath, const PlistValue& reserved) {
  if (std::ranges::find(types, directoryName::users) == types.end()) return;
  const auto asked = namesIn(attributes);
  if (std::ranges::find(asked, isAdminAttribute) == asked.end()) return;
  const PlistValue listing = DSGetListOfRecords(
      nodePath, PlistValue::arrayOf({directoryName::groups}),
      PlistValue::arrayOf({directoryName::recordName, directoryName::primaryGroupID, directoryName::member}), "admin",
      {}, "admin", {}, reserved);
  const AdminGroup group(listing.get("recordsArray").at(0));
  for (PlistValue record : records.elements())
    if (group.holds(record)) record.set(isAdminAttribute, true);
}

}  // namespace ostrel::detail
