// Opening files whose paths others chose, without being held up by what is no file. Not installed.
#pragma once

#include <string>

#include "Platform/FileDescriptor.h"

namespace ostrel::detail {

/// What a final symbolic link means when a file is opened.
enum class FinalLink { followed, refused };

/// The regular file at `path`, open for reading; none when there is none or it cannot be opened. Never waits: a named
/// pipe, device or socket is refused.
FileDescriptor openRegularFile(const std::string& path, FinalLink link = FinalLink::followed);

}  // namespace ostrel::detail
