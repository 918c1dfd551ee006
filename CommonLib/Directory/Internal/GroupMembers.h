// The names behind the identifiers that a group holds.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel::detail {

/// Finds the records of one type for the identifiers of a group's members.
class MemberRecords {
 public:
  /// `legacyAttribute`: what holds the number that an identifier may carry.
  MemberRecords(std::string_view recordType, std::string_view legacyAttribute)
      : recordType_(recordType), legacyAttribute_(legacyAttribute) {}

  /// Looks the members (an array of identifiers) up on a node; none when it is null. The first failure ends it.
  DirectoryStatus find(DirectoryHandle session, DirectoryHandle node, const PlistValue& members);

  /// For each member, in order, its record name and real name: one stands in for the other, the identifier for both.
  void name(const PlistValue& members, PlistValue& names, PlistValue& realNames) const;

 private:
  /// The records of one query by what `DSRecordWithMatchingGeneratedUID` would find them, the first of equals: that one
  /// looks at every record for every member.
  using Index = std::unordered_map<std::string, PlistValue>;

  DirectoryStatus query(DirectoryHandle session, DirectoryHandle node, std::string_view attribute,
                        const PlistValue& identifiers, Index& found) const;
  PlistValue recordOf(const PlistValue& identifier) const;

  const std::string_view recordType_;
  const std::string_view legacyAttribute_;
  Index byLegacyId_;
  Index byIdentifier_;
};

}  // namespace ostrel::detail
