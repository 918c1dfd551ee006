// A context file made whole again after its writer, or the machine, stopped. The rules: see ContextFile.h.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/FileDescriptor.h"

namespace ostrel::detail {

/// Throws std::runtime_error with what failed and the reason in errno.
[[noreturn]] void failContextFile(std::string_view operation);

/// All bytes of an open file. Throws as above.
std::string readContextBytes(int descriptor, std::uint64_t size);

/// Keeps bytes as "FILE.unreadable", readable by whom `mode` says, or as ".unreadable.2" and so on up to 100 where such
/// a file holds others. False, with errno, when they are not kept.
bool keepAside(const std::string& path, std::string_view bytes, mode_t mode);

/// Completes what the journal tells to be interrupted: a write in this run of the machine, or whatever was not on the
/// disk when the machine stopped. Leaves alone a file that somebody else wrote. Requires: the caller holds the file's
/// lock, and the journal is a regular file. Throws as above.
void recoverContextFile(int file, const std::string& path, int journal);

/// Empties the journal after syncing the file: what it holds must not come back. Throws as above.
void retireJournal(int file, int journal);

}  // namespace ostrel::detail
