// Directives of line-oriented configuration files: a line that begins with a keyword, white space and a value.
#pragma once

#include <cstdint>
#include <cstdio>

#include "ConfigFiles/TextFileErrors.h"
#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// Streams, positions, flags, lines and failures are as TextFileEditing.h says. Where all of these look for a directive:
//
// - `directive` is a pattern (TextPatterns.h). Its first match on a line counts when only spaces and tabs stand before
//   it, or when a "#" stands directly before it behind only spaces and tabs: then the directive is commented out. A
//   line whose first match stands elsewhere is passed over.
// - With `spaceRequired` on, a space or tab must follow the match at once.
// - The search begins with the line at `searchStart` and ends before the first line that starts beyond `searchLimit`,
//   or with the file when the limit is below 1.
// - A start of -2 searches from the start of the file and passes over virtual-host sections: a line that holds
//   "<VirtualHost", lines directly behind it that hold "</VirtualHost", and one line more. The rest of a longer section
//   is searched like other text.
//
// kDirectiveNotFoundErr also tells that the first line could not be read.

/// Finds the first such line. `lineStart` and `lineEnd` become the offsets of its first and last byte (that is its line
/// end, if it has one), -1 when there is none; `commented` whether it is commented out; `valueOffset` where in the line
/// the text behind the match begins, behind the required space, too.
OSTREL_EXPORT std::int32_t MatchDirectiveInFile(std::FILE* stream, const char* directive, std::int64_t* lineStart,
                                                std::int64_t* lineEnd, std::int32_t* commented,
                                                std::int64_t* valueOffset, std::int64_t searchStart,
                                                std::int64_t searchLimit, std::int32_t spaceRequired);

/// Finds a directive with the space required and reads its value: the rest of the line without leading spaces and tabs
/// and without CR and LF, at most 511 bytes, NUL-terminated in `value`, a buffer of 512 bytes. `directive`, a buffer of
/// 512 bytes too, holds the pattern and receives the text that matched, as the file spells it, without a line end.
OSTREL_EXPORT std::int32_t ReadDirectiveInFile(std::FILE* stream, char* directive, std::int64_t* lineStart, char* value,
                                               std::int32_t* commented, std::int64_t searchStart,
                                               std::int64_t searchLimit);
/// The same, the caller saying whether the space is required.
OSTREL_EXPORT std::int32_t ReadDirectiveInFileAlt(std::FILE* stream, char* directive, std::int64_t* lineStart,
                                                  char* value, std::int32_t* commented, std::int64_t searchStart,
                                                  std::int64_t searchLimit, std::int32_t spaceRequired);

/// Finds a directive with the space required and changes its value; a commented one stays commented.
///
/// Without an old value (null or empty) everything behind the keyword and the required space is replaced, the line end
/// excepted. With one, it is a pattern that is looked for in the whole line, keyword included, and only what it matches
/// is replaced; 0 and no change when it is not there, or when old and new value are the same text.
///
/// `searchLimit` may be null for none. A limit of 1 or more is moved by the change in size (and stays at least 1), so
/// that later searches end in the same place.
OSTREL_EXPORT std::int32_t UpdateDirectiveInFile(std::FILE* stream, const char* directive, const char* oldValue,
                                                 const char* newValue, std::int64_t searchStart,
                                                 std::int64_t* searchLimit);
/// The same, the caller saying whether the space is required. When it is not, the new value replaces everything
/// directly behind the keyword: it brings its own space along.
OSTREL_EXPORT std::int32_t UpdateDirectiveInFileAlt(std::FILE* stream, const char* directive, const char* oldValue,
                                                    const char* newValue, std::int64_t searchStart,
                                                    std::int64_t* searchLimit, std::int32_t spaceRequired);

/// Finds a directive with the space required and deletes its line, line end included.
OSTREL_EXPORT std::int32_t DeleteDirectiveInFile(std::FILE* stream, const char* directive, std::int64_t searchStart,
                                                 std::int64_t searchLimit);

/// Appends to the file: a line feed, "#" when `commented`, the directive, a space when `withSpace`, the value, a line
/// feed when `trailingNewline`. Texts are written as they are: a line feed in them begins a line.
OSTREL_EXPORT std::int32_t CreateDirectiveInFile(std::FILE* stream, const char* directive, const char* value,
                                                 std::int32_t withSpace, std::int32_t commented,
                                                 std::int32_t trailingNewline);

}  // extern "C"

}  // namespace ostrel
