// What the module ostrel_accounts answers, as text for a person at a terminal.
#pragma once

#include <string>
#include <vector>

#include "Containers/PlistValue.h"

namespace ostrel {

/// Rows of cells in columns of even width, two spaces apart. Control characters are shown as \xHH, line feeds and tabs
/// as spaces. Width counts characters, each as one column.
std::string alignedTable(const std::vector<std::vector<std::string>>& rows);

/// The records of a listing, a line each, below a heading.
std::string userTable(const PlistValue& listing);
std::string groupTable(const PlistValue& listing);

/// A record with the attributes' names shortened.
PlistValue accountPage(const PlistValue& record);

/// Why the directory did not do it, from the reply's "status"; "" when it tells none. `hasMembers`: the request named
/// members of a group.
std::string accountFault(const PlistValue& reply, bool hasMembers);

}  // namespace ostrel
