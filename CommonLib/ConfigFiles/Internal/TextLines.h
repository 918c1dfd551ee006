// What the editors of line-oriented files share: reading a file as text, its lines, and their words.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ConfigFiles/FileChange.h"
#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"

namespace ostrel::detail {

/// Larger text files are taken for unreadable: no configuration is, and an editor holds several copies.
inline constexpr std::size_t maximumConfigurationSize = std::size_t{4} << 20U;

/// A whole file. Absent when it cannot be read, is no regular file (nothing is waited for) or is larger than `limit`;
/// errno tells why.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit = maximumConfigurationSize);

/// The same for one that is valid UTF-8 (EILSEQ).
std::optional<std::string> readConfigurationText(const std::string& path);

/// A change of a file's text that the editors can take back: absent (EFBIG) when the new text is too large to be read.
std::optional<FileChange> readableChange(const std::string& path, std::optional<std::string> oldText,
                                         std::string newText);

/// The parts of a text between the separators: one more than it has of them. An empty separator is nowhere.
std::vector<std::string_view> splitAt(std::string_view text, std::string_view separator);

/// The lines of a text without their line feeds. A text that ends with one has an empty last line. Carriage returns
/// stay.
inline std::vector<std::string_view> linesOf(std::string_view text) { return splitAt(text, "\n"); }

/// Without spaces and tabs at both ends.
std::string_view trimBlanks(std::string_view text);

/// Takes the first word off `rest`: skips spaces and tabs, then takes what comes up to the next one. "" at the end.
std::string_view takeWord(std::string_view& rest);

/// Whether two texts are equal but for the case of ASCII letters.
bool equalsIgnoringCase(std::string_view left, std::string_view right);

/// Whether a key or a value fits in one line of a file: a string of valid UTF-8 without line feed and NUL. What does
/// not could write a second setting beside its own.
bool fitsOneLine(const PlistValue& text);

/// Held from reading a file to replacing it: modules that are not serialised against one another share files.
Mutex& editing();

}  // namespace ostrel::detail
