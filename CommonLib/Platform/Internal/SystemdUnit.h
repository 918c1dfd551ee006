// Unit files of systemd (systemd.unit(5), systemd.service(5), systemd.syntax(7)). Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// The service unit that a job's label names, or the path of its description file; see ServiceManager.h. Absent when
/// that can be no unit's name.
OSTREL_EXPORT std::optional<std::string> unitOfLabel(std::string_view label);
OSTREL_EXPORT std::optional<std::string> unitOfPath(std::string_view path);

/// The unit's name without ".service".
OSTREL_EXPORT std::string_view labelOfUnit(std::string_view unit);

/// One word of a unit file's line, in double quotes, plain ASCII: systemd reads back the very bytes.
/// Requires: `text` holds no NUL.
OSTREL_EXPORT std::string quotedWord(std::string_view text);

/// The text of a unit that runs the job of a description (docs/services.md has the table of keys). Absent when the
/// description has no "Label", or one that names a template ("a@"), or no program at an absolute path, when it is run
/// by something else than being switched on (a timer, a socket, a watched path), or when one of the keys that are
/// carried over cannot be: a service must not run without the user, folder or root that it asks for.
OSTREL_EXPORT std::optional<std::string> unitText(const PlistValue& description, std::string_view heading);

}  // namespace ostrel::detail
