// Patterns as the editing functions take them: text without regard to case, with one wildcard.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// A pattern is a NUL-terminated text. A-Z and a-z are the same, in ASCII only. A run of the byte 0x1F (unit separator)
// is a wildcard for one or more characters: from the leftmost start, as few as possible; at the end of the pattern it
// takes the rest of the text, line end included. An empty pattern matches the whole text.
//
// The text is walked once and never rewound: characters that agree with the pattern's beginning are passed over when
// the next one does not, so that "aab" is not found in "aaab". Callers rely on this being so. A wildcard at the
// pattern's end needs at least two characters (the second may be the line end).

/// The first match: `start` and `length` in `text`; both 0 when there is none, when the text is empty, or when either
/// is null. Returns 0 always. The outputs may be null. Threads: may be called from any thread.
OSTREL_EXPORT std::int32_t MatchTextWithString(const char* text, const char* pattern, std::size_t* start,
                                               std::size_t* length);

/// `flag` becomes 1 when the pattern matches somewhere in the text, else 0. Returns 0 always.
OSTREL_EXPORT std::int32_t DoesTextContainThisString(const char* text, const char* pattern, std::int32_t* flag);

}  // extern "C"

}  // namespace ostrel
