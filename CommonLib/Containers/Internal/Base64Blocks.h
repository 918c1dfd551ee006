// Base64 in pieces, for text that is broken into lines. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ostrel::detail {

/// Writes the text of `count` bytes, padded when `count` is not a multiple of 3. Returns the end of what was written:
/// 4 characters for each 3 bytes begun.
char* encodeBase64Block(char* out, const char* bytes, std::size_t count) noexcept;

/// Decodes whole groups of four characters until there are fewer than four or one is not of the alphabet. Moves both
/// pointers on: 3 bytes are written for each 4 characters read. Requires: room at `out` for 3 bytes for each 4
/// characters up to `end`; all of that room may be written to.
void decodeBase64Groups(const char*& text, const char* end, char*& out) noexcept;

/// The six bits of a character, or a negative number for one outside the alphabet ("=" is outside).
int base64Digit(char character) noexcept;

}  // namespace ostrel::detail
