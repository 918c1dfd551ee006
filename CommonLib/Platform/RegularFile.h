// Opening files whose paths others chose, without being held up by what is no file.
#pragma once

#include <string>

#include "Containers/Export.h"
#include "Platform/FileDescriptor.h"

namespace ostrel {

/// What a final symbolic link means when a file is opened.
enum class FinalLink { followed, refused };

/// The regular file at `path`, open for reading; none with errno when there is none or it cannot be opened. Never
/// waits: a folder (EISDIR), named pipe, device or socket (EINVAL) is refused. Safe from any thread.
OSTREL_EXPORT FileDescriptor openRegularFile(const std::string& path, FinalLink link = FinalLink::followed);

}  // namespace ostrel
