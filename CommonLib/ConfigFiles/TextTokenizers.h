// Small tokenizers over NUL-terminated text, for line-oriented configuration files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// Each counts from the start of `text` and returns 0 always. The count goes through the last pointer, which may be
// null. A null text counts as an empty one. Threads: may be called from any thread.

/// Leading spaces and tabs.
OSTREL_EXPORT std::int32_t ParseTextUntilNoSpace(const char* text, std::size_t* length);
/// Characters before the first space or tab.
OSTREL_EXPORT std::int32_t ParseTextUntilSpace(const char* text, std::size_t* length);
/// Characters before the first space, tab or ":".
OSTREL_EXPORT std::int32_t ParseTextUntilSpaceOrColon(const char* text, std::size_t* length);
/// Characters before the first decimal digit.
OSTREL_EXPORT std::int32_t ParseTextUntilNumber(const char* text, std::size_t* length);
/// `skip`: leading spaces, tabs, CRs and LFs; `length`: the word behind them, up to the next of those four.
OSTREL_EXPORT std::int32_t ParseNextWord(const char* text, std::size_t* skip, std::size_t* length);
/// Characters before the first CR or LF, at most `maximum`; no more than those are looked at.
OSTREL_EXPORT std::int32_t ParseTextUntilEOL(const char* text, std::size_t maximum, std::size_t* length);
/// A path: from a double quote, single quote or back-quote through the same closing quote (to the end of the text when
/// there is none); otherwise the characters before the first space, tab, ">", CR or LF.
OSTREL_EXPORT std::int32_t ParsePathName(const char* text, std::size_t* length);
/// How far text and pattern agree, A-Z and a-z being the same. An empty (or null) pattern gives the text's length.
OSTREL_EXPORT std::int32_t ParseTextUntilMismatch(const char* text, const char* pattern, std::size_t* length);

/// A-Z to a-z; other characters as they are, whatever the locale.
OSTREL_EXPORT char ToLowerCase(char character);

/// Points into `path` just behind its last "/" or ":". Where it holds neither, the first character is dropped: callers
/// rely on that. An empty path gives its own end, null gives null.
OSTREL_EXPORT const char* ExtractFileName(const char* path);

}  // extern "C"

}  // namespace ostrel
