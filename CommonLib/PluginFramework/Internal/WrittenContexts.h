// What this process remembers of the context files that it wrote last, so that the next write need not read them.
#pragma once

#include <optional>
#include <string>

#include "Platform/FileDescriptor.h"
#include "PluginFramework/Internal/ContextJournal.h"

namespace ostrel::detail {

struct WrittenContext {
  FileStatus file;  ///< after the write
  std::string path;
  std::string bytes;       ///< of the file
  FileDescriptor journal;  ///< open: its inode cannot become another file's
  FileStatus journalFile;  ///< which file that is
};

// Threads: both may be called from any thread. What is taken is the caller's alone. A few files are remembered.

/// Remembers a file. Requires: every other writer gives it another time of modification.
void rememberWritten(WrittenContext written);

/// What is remembered of the file, which is forgotten with that. Absent when it is unknown or its status is not what it
/// was. Whether its name and its journal are the same still is the caller's to see.
std::optional<WrittenContext> takeWritten(const FileStatus& file);

}  // namespace ostrel::detail
