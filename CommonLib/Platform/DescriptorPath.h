// The path of an open file.
#pragma once

#include <optional>
#include <string>

#include "Containers/Export.h"

namespace ostrel {

/// The absolute path under which an open file can be found now, symbolic links resolved, as /proc/self/fd tells it
/// (proc(5)). For a file that has been removed it is no path that leads anywhere. Absent, with the reason in errno,
/// when there is no such descriptor or no /proc. Threads: may be called from any thread.
OSTREL_EXPORT std::optional<std::string> descriptorPath(int descriptor);

}  // namespace ostrel
