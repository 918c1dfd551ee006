// LDAP nodes: the users and groups of a site's servers.
#pragma once

#include <memory>
#include <string>

#include "Platform/DirectoryNode.h"

namespace ostrel::detail {

/// Makes a node of the kind "LDAP"; docs/directory.md has the keys of its entry.
///
/// Users and groups only. Changes go through a connection that is bound in the name of the one who was authenticated,
/// else by the configuration. The server's own rights decide what may be read and changed.
std::unique_ptr<DirectoryNode> makeLdapNode(const std::string& path, const PlistValue& entry, std::string& fault);

}  // namespace ostrel::detail
