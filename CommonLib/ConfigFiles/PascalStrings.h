// Routines for Pascal strings: a length byte, then that many characters.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// A size is that of the destination in bytes, its length byte or terminating NUL included; with a size of 0 or a null
// destination nothing is written. What does not fit (a Pascal string holds 255 characters at most) is cut off, and the
// destination's length byte or NUL tells what was copied. A null source counts as an empty one. Mind the order of the
// arguments: only the Pascal copy takes the destination first. Threads: may be called from any thread.

/// 1 when length bytes and characters are equal; the second takes A-Z and a-z as the same.
OSTREL_EXPORT std::int32_t MyEqualPascalStrings(const unsigned char* a, const unsigned char* b);
OSTREL_EXPORT std::int32_t MyEqualCasePascalStrings(const unsigned char* a, const unsigned char* b);

OSTREL_EXPORT void MyCopyPascalStrings(unsigned char* destination, const unsigned char* source, std::size_t size);

/// Appends as many bytes as the source has characters, as far as they fit, beginning with the source's length byte: its
/// last character is not among them. Callers rely on it as it is.
OSTREL_EXPORT void MyConcatPascalStrings(const unsigned char* source, unsigned char* destination, std::size_t size);

/// Makes a Pascal string of a NUL-terminated one; the second drops a leading double quote, and a trailing one that
/// belongs to it.
OSTREL_EXPORT void MyCopyCStringToPascal(const char* source, unsigned char* destination, std::size_t size);
OSTREL_EXPORT void MyCopyCStringToPascalWithoutDQ(const char* source, unsigned char* destination, std::size_t size);

/// Makes a NUL-terminated string of a Pascal one; the second puts it in double quotes, with at most `size` - 3
/// characters between them; it gives an empty string when `size` does not allow the quotes.
OSTREL_EXPORT void MyCopyPascalToCString(const unsigned char* source, char* destination, std::size_t size);
OSTREL_EXPORT void MyCopyPascalToCStringWithDQ(const unsigned char* source, char* destination, std::size_t size);

}  // extern "C"

}  // namespace ostrel
