// What HostConfigUtilities does to the text of its file.
#pragma once

#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel::detail {

/// The text with every line that begins with `key` replaced by "KEY=value", or with that line added at the end.
OSTREL_EXPORT std::string hostConfigWithEntry(std::string_view text, std::string_view key, std::string_view value);

}  // namespace ostrel::detail
