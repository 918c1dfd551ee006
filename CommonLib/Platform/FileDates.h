// When files were changed. (Extensions of the file manager.)
#pragma once

#include <sys/stat.h>

#include <string>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// Safe from any thread. A path that is empty or holds a NUL names nothing; a symbolic link at its end is not followed.

/// `modificationDateAtPath:`: when the path itself was last modified, as a date of whole seconds; null when it cannot
/// be examined.
OSTREL_EXPORT PlistValue modificationDateAtPath(const std::string& path);

/// `_statStructForFileAtPath:stat:`: fills `status` as lstat(2) does. False, with errno, when the path cannot be
/// examined or `status` is null.
OSTREL_EXPORT bool _statStructForFileAtPath(const std::string& path, struct stat* status);

/// Whether two dates differ, a newer one included; also when exactly one is null.
OSTREL_EXPORT bool ModDateIsOld(const PlistValue& dateA, const PlistValue& dateB);

}  // namespace ostrel
