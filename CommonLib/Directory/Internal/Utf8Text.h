// A value's text as the directory service takes it.
#pragma once

#include <optional>
#include <string>

#include "Containers/PlistValue.h"
#include "Containers/Utf8.h"

namespace ostrel::detail {

/// The text of a string that can stand before a NUL: UTF-8 without a NUL inside. Absent for anything else.
inline std::optional<std::string> utf8Text(const PlistValue& value) {
  const std::string_view text = value.stringValue();
  if (!value.isString() || text.find('\0') != std::string_view::npos || !isValidUtf8(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace ostrel::detail
