// Whole files and folders by path: read, replaced in one step, listed, made and removed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Platform/FileDescriptor.h"

namespace ostrel {

// Every operation here leaves its reason in errno when it fails, may be called from any thread, and may block on the
// disk. A path that is empty or holds a NUL names nothing and is refused (ENOENT, EINVAL). Paths are taken as they
// are: callers put `hostPath` around the fixed ones.

/// A whole file, also one that tells no size (/proc). Absent when it cannot be read, is a folder, or holds more than
/// `limit` bytes (EFBIG). Waits for a writer when the path is a named pipe.
OSTREL_EXPORT std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit = SIZE_MAX);

/// How `writeFileAtomically` makes the file.
struct AtomicWriteOptions {
  mode_t mode = 0644;                    ///< permission bits of a new file, as they are: no umask is applied
  uid_t user = static_cast<uid_t>(-1);   ///< owner of a new file; -1: the writing process's
  gid_t group = static_cast<gid_t>(-1);  ///< group of a new file; -1: as the folder gives it
  bool keepExisting = true;              ///< an existing file keeps what it has instead of the three above
  bool followLink = true;                ///< false: a symbolic link at the end of the path is refused (ELOOP)
};

/// Puts `bytes` in place of the file at `path`, whole or not at all: they are written to a file of unpredictable name
/// in the same folder, synced, renamed over the target, and the folder is synced. Whoever has the old file open keeps
/// seeing the old bytes. A symbolic link is followed, unless `options` refuse it: the file that it leads to (which need
/// not exist) is replaced, the link stays. An existing file keeps its owner, group, permission bits, access list and
/// security label; when they cannot be given to the new file the write fails. The target must be a regular file or
/// absent.
///
/// False leaves the target as it was and no temporary file behind; the one exception is a failed sync of the folder
/// after the rename, when the new bytes stand but might not survive a crash of the machine.
OSTREL_EXPORT bool writeFileAtomically(const std::string& path, std::string_view bytes,
                                       const AtomicWriteOptions& options = {});

/// Makes a folder and the missing ones above it, each with `mode` (as it is: no umask is applied). True also when it is
/// there already; a file in the way fails with ENOTDIR.
OSTREL_EXPORT bool makeDirectories(const std::string& path, mode_t mode = 0755);

/// The names in a folder without "." and "..", in the order in which the listing returns them. Absent when the folder
/// cannot be read.
OSTREL_EXPORT std::optional<std::vector<std::string>> listDirectory(const std::string& path);

/// Whether the path leads to anything of any type, to a folder. Links are followed; a dangling one leads to nothing.
OSTREL_EXPORT bool fileExists(const std::string& path);
OSTREL_EXPORT bool isDirectory(const std::string& path);

/// Whether this process, by its effective user and groups, may read or write what the path leads to; also when it is
/// there at all (access(2)). For telling why something failed, never for deciding what to do.
OSTREL_EXPORT bool mayRead(const std::string& path);
OSTREL_EXPORT bool mayWrite(const std::string& path);

/// Where a symbolic link points, as it is spelled. Absent when there is no link.
OSTREL_EXPORT std::optional<std::string> readLink(const std::string& path);

/// Where the symbolic links at the end of a path lead, though nothing need be there; the path itself when it is no
/// link. Absent with ELOOP after too many.
OSTREL_EXPORT std::optional<std::string> followLinks(const std::string& path);

/// Gives an open file the owner, group, permission bits, access list and security label of another (which may be open
/// for its path alone, O_PATH). False when one of them cannot be given.
OSTREL_EXPORT bool copyFileAttributes(int from, int to);

/// Removes a file or a symbolic link (not what it leads to). Folders are refused.
OSTREL_EXPORT bool removeFile(const std::string& path);
/// Makes the names in a folder survive a crash of the machine: after a file was made, renamed or removed in it.
OSTREL_EXPORT bool syncDirectory(const std::string& path);

}  // namespace ostrel
