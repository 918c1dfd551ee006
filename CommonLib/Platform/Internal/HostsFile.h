// Reads the file of host names (hosts(5)).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel::detail {

/// The first name on the first line of `text` that begins with that address, as it is spelled; absent when there is
/// none. What follows "#" on a line is a comment. A pure function, in time linear in the text.
OSTREL_EXPORT std::optional<std::string> hostNameInHostsFile(std::string_view text, std::string_view address);

}  // namespace ostrel::detail
