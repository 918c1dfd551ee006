// Text files copied, and compacted after they were edited in place.
#pragma once

#include <cstdint>
#include <string>

#include "ConfigFiles/TextFileErrors.h"
#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// Both work on regular files, links to them included; anything else fails with kTextFileReadErr. The results are 0 or
// a code of TextFileErrors.h; a null or empty path leads to no file. Threads: may be called from any thread; blocks on
// the disk. The process's file-creation mask plays no part and is not touched, not even for a moment, since it would
// hold for the files that other threads make meanwhile: the bits are set by fchmod(2).

/// Copies a file byte for byte. The new file gets exactly the source's permission bits and the caller's owner; what
/// stands at `destination` (a link, not what it leads to) is removed first, as soon as the source is open. A file is
/// not copied onto itself: success without touching it.
///
/// kTextFileOpenErr: the source cannot be opened, the destination stays; kTextFileCreateErr; kTextFileReadErr,
/// kTextFileWriteErr: part of the destination may be there.
OSTREL_EXPORT std::int32_t DuplicateTextFile(const char* source, const char* destination);

/// Writes only the first of several lines that consist of one CR or LF alone. The new text goes to the file's path
/// followed by ".tmp" (a leftover of that name is removed, the new one is made exclusively), is synced, and takes the
/// file's place in one step: whoever reads the file finds the old or the new one whole, also after a crash. A symbolic
/// link is followed, and the file that it leads to is compacted beside itself; the link stays. Owner, group,
/// permission bits, access list and label are kept. `path` has at most 511 bytes, else kTextFileCreateErr.
///
/// A failure leaves the file as it was and no temporary file behind: kTextFileOpenErr, kTextFileCreateErr (also when
/// owner or mode cannot be kept), kTextFileReadErr, kTextFileWriteErr, kTextFileRenameErr (also when somebody else has
/// put another file at the temporary name meanwhile). One exception: kTextFileWriteErr after the folder could not be
/// synced, when the new text stands but might not survive a crash of the machine.
OSTREL_EXPORT std::int32_t CompactFile(const char* path);

}  // extern "C"

}  // namespace ostrel
