// Text files that are read and written whole, and keep their owner.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

// Safe from any thread; both block on the disk.

/// `UTF8StringWithContentsOfFile:`: a file's whole text. Absent when it cannot be read or is not valid UTF-8.
OSTREL_EXPORT std::optional<std::string> UTF8StringWithContentsOfFile(const std::string& path);

/// `writeUTF8StringToFile:atomically:defaultUserID:defaultGroupID:` and, without the ids,
/// `writeUTF8StringToFile:atomically:`. Writes `text` to the file: in one step when asked (see `writeFileAtomically`),
/// else in place. An existing file keeps its owner and group; a new one gets the given ones, -1 leaving what the
/// process makes.
///
/// False when the text is not valid UTF-8, and when the file cannot be written, which is left as it was if the write
/// was to be atomic. False also, and "Error: Couldn't set the owner and group of file %@" is logged, when the owner
/// cannot be set: a new file then stands with its text, an existing one that was to be replaced is left as it was.
OSTREL_EXPORT bool writeUTF8StringToFile(std::string_view text, const std::string& path, bool atomically,
                                         uid_t defaultUserID = static_cast<uid_t>(-1),
                                         gid_t defaultGroupID = static_cast<gid_t>(-1));

}  // namespace ostrel
