// What XinetdUtilities reads from and does to the text of a service file.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel::detail {

/// A text that an edit made.
struct XinetdEdit {
  std::string text;
  bool hasEntryAlready = false;  ///< an equal entry was found: nothing is to be written, and `text` is not whole
  std::size_t deletedEntries = 0;
};

/// The value of the first entry for `key` in the blocks of `service`.
OSTREL_EXPORT std::optional<std::string_view> xinetdValue(std::string_view text, std::string_view service,
                                                          std::string_view key);

/// The text with the first entry for `key` replaced, or added before the closing brace.
OSTREL_EXPORT XinetdEdit xinetdWithEntry(std::string_view text, std::string_view service, std::string_view key,
                                         std::string_view value);

/// The text without the entries for `key`.
OSTREL_EXPORT XinetdEdit xinetdWithoutEntry(std::string_view text, std::string_view service, std::string_view key);

}  // namespace ostrel::detail
