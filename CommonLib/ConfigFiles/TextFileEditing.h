// Text replaced in place in an open file.
#pragma once

#include <cstdint>
#include <cstdio>

#include "ConfigFiles/TextFileErrors.h"
#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// What all functions over streams share (also those of TextDirectives.h and TextBlocks.h):
//
// - `stream` is open for reading and writing, can be positioned, and is not in append mode; the caller opens and closes
//   it. Its position afterwards means nothing.
// - Positions are byte offsets into the file; -1 is none. A flag is on when it is 1 and off otherwise.
// - Lines end at a CR or an LF, each on its own: the LF of a CR LF pair is a line of its own, an empty one. What is
//   longer than 511 bytes is seen as several lines. A NUL byte ends what patterns see of a line; it is copied like
//   others.
// - The file is edited in place and never truncated: where text becomes shorter, the bytes that are left over at the
//   end of the file become line feeds, until `CompactFile` (TextFileCopies.h) removes them.
// - The result is 0 or a code of TextFileErrors.h. A failure leaves the file as it was at that moment; nothing is
//   rolled back. Where text becomes longer, disk space is reserved before the first byte is changed, so that a full
//   disk is told while the file is still whole (on file systems that can reserve).
// - A null stream, a negative offset or one beyond the end of the file cannot be positioned: kTextFileSeekErr, and
//   nothing is touched. Null outputs are not written. Nothing is logged, nothing is thrown.
// - Threads: one call at a time for a stream and for a file. They block on the disk.

/// The stream's size in bytes; the stream is then at its start. kTextFileSeekErr, kTextFileTellErr.
OSTREL_EXPORT std::int32_t GetSizeOfFile(std::FILE* stream, std::int64_t* size);

/// Replaces the bytes [start, end) by `text` (null: by nothing). `delta` becomes the length of the text less
/// (end - start); 0 on a failure. The rest of the file is held in memory: kTextFileNoMemoryErr, kTextFileReadErr. The
/// stream is flushed in all cases.
OSTREL_EXPORT std::int32_t InsertTextInFile(std::FILE* stream, const char* text, std::int64_t start, std::int64_t end,
                                            std::int64_t* delta);

/// Deletes the bytes from `start` through `end`, that one included; a negative `end` is the last byte of the file.
OSTREL_EXPORT std::int32_t DeleteSelectionInFile(std::FILE* stream, std::int64_t start, std::int64_t end);

/// Replaces the first match of `pattern` (TextPatterns.h) on every line by `replacement`, from `searchStart` on, as
/// long as lines start at or before `searchLimit` (below 1: to the end of the file). A start of -2 is the start of the
/// file with virtual-host sections left out, as `MatchDirectiveInFile` does. The limit is an offset before the call;
/// what moves before it takes it along. The line feeds with which the call fills up the file are lines, too: only an
/// empty pattern finds them. A replacement that would make them shorter is not made. 0 also when nothing matched.
OSTREL_EXPORT std::int32_t ReplaceTextInFile(std::FILE* stream, const char* pattern, const char* replacement,
                                             std::int64_t searchStart, std::int64_t searchLimit);

}  // extern "C"

}  // namespace ostrel
