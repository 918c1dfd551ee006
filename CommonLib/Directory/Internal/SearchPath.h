// Where a node stands in the search path.
#pragma once

#include "Platform/DirectoryTypes.h"

namespace ostrel::detail {

/// As `DSGetNodeLevelInSearchList`, but success with -1 when the path is not in the search path.
DirectoryStatus levelInSearchPath(DirectoryHandle session, const char* nodePath, long& level) noexcept;

}  // namespace ostrel::detail
