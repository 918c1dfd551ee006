// Blocks of line-oriented configuration files: "<NAME ARGUMENT>" on a line, up to "</NAME>" on a later one.
#pragma once

#include <cstdint>
#include <cstdio>

#include "ConfigFiles/TextFileErrors.h"
#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// Streams, positions, flags, lines and failures are as TextFileEditing.h says.

/// Finds the first block of a name. Its opening tag is a line on which "<" and `name` (part of a pattern,
/// TextPatterns.h) stand behind spaces and tabs only, or directly behind a "#" that does. Behind the name, spaces and
/// tabs being skipped:
/// - without an argument (null), ">" must stand somewhere: a longer name is found, too;
/// - with one, the text must begin with it in any letter case, then ">" must follow, spaces and tabs between;
/// - with an empty one, ">" must follow at once.
/// The block ends with the first later line on which "</", the name and ">" stand in such a place; blocks of the same
/// name are not nested.
///
/// `start` becomes the offset of the opening line, `end` that of the last byte of the closing line (its line end, if it
/// has one), both -1 on a failure. `commented` becomes 1 when the opening tag is behind a "#", and also when that of an
/// earlier block was whose argument did not match. `lineCount` counts the lines from the opening to the closing one.
/// kBlockNotFoundErr also when a block is not closed.
OSTREL_EXPORT std::int32_t MatchBlockInFile(std::FILE* stream, const char* name, const char* argument,
                                            std::int64_t* start, std::int64_t* end, std::int32_t* commented,
                                            std::int32_t* lineCount);

/// Puts "#" into the first column of each line from `start` on (`comment` on), or takes it out of there (off), as long
/// as lines start at or before a positive `end`. Lines that are so already stay; empty lines and lines on which one of
/// `skipPatterns` (ended by null; may be null) matches are passed over. An `end` of -1 treats only the first line that
/// is not passed over; any other below 1 is the end of the file. `totalDelta` becomes the change in size.
OSTREL_EXPORT std::int32_t CommentOutBlockInFile(std::FILE* stream, std::int32_t comment, std::int64_t start,
                                                 std::int64_t end, const char* const* skipPatterns,
                                                 std::int64_t* totalDelta);

}  // extern "C"

}  // namespace ostrel
