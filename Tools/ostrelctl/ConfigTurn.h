// Takes turns with others of this program that change the same file.
#pragma once

#include <string>

#include "Platform/FileDescriptor.h"

namespace ostrel {

/// Opens the regular file at `path` for reading and locks it (flock(2)) until the descriptor is closed. A file that is
/// saved gets a new inode: whoever waited for the old one goes on to the new one, so that what is read here is what the
/// last one saved. Waits at most ten seconds, then gives none with errno EWOULDBLOCK; none with another errno when the
/// file cannot be opened. Where files cannot be locked it is opened all the same.
FileDescriptor openInTurn(const std::string& path);

}  // namespace ostrel
