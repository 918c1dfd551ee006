// A request dictionary from the words of a command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Containers/PlistValue.h"

namespace ostrel {

/// The request {"command": command, ...} with one member for each word: KEY[:TYPE]=VALUE, or KEY[:TYPE]@FILE where the
/// value is the content of a file ("-": standard input). Types: text (the default), int, real, bool, date, data
/// (Base64; from a file its bytes), json. Absent, with the reason in `fault`, when a word is none of these, a value is
/// not of its type, or a key comes twice.
std::optional<PlistValue> requestFromWords(const std::string& command, const std::vector<std::string>& words,
                                           std::string& fault);

/// The content of a file, or of standard input for "-". Absent with the reason in `fault`.
std::optional<std::string> contentOf(const std::string& file, std::string& fault);

}  // namespace ostrel
