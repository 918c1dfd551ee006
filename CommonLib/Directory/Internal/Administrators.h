// Which of the listed users are administrators.
#pragma once

#include <span>
#include <string>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// Sets "dsAttrTypeVirtual:isAdmin" to true in those records (an array of mutable dictionaries) whose user is a member
/// of the group "admin" of the node at the path (null: of the search node), by one of the names or by primary group.
/// Does nothing unless `attributes` asks for it and users are among the types.
void markAdministrators(const PlistValue& records, std::span<const std::string> types, const PlistValue& attributes,
                        const PlistValue& nodePath, const PlistValue& reserved);

}  // namespace ostrel::detail
