// The commands of a batch, from a file that a person writes.
#pragma once

#include <optional>
#include <string>

#include "Containers/PlistValue.h"

namespace ostrel {

/// The "requestsArray" that a text spells: [{"name": MODULE, "request": {"command": ...}}, ...].
///
/// A text that begins with "[" or "{" is JSON, one that begins with "<" or "bplist" a property list: an array of such
/// members, one member, or a dictionary with a "requestsArray". Any other text has a command a line,
/// MODULE COMMAND [ARGUMENT...] with the arguments of `requestFromWords`; words are parted by blanks, quotes ('...' and
/// "...") and a backslash keep what is special, an empty line and one that begins with "#" are skipped.
/// Absent, with the reason in `fault`, when it is none of these; whether the modules exist is not looked at.
std::optional<PlistValue> requestsFromText(const std::string& text, std::string& fault);

}  // namespace ostrel
