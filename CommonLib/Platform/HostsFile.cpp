#include "Platform/Internal/HostsFile.h"

#include <algorithm>

namespace ostrel::detail {
namespace {

std::string_view takeWord(std::string_view& line) {
  constexpr std::string_view blanks = " \t\r";
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  const std::string_view word = line.substr(0, line.find_first_of(blanks));
  line.remove_prefix(word.size());
  return word;
}

}  // namespace

std::optional<std::string> hostNameInHostsFile(std::string_view text, std::string_view address) {
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line = line.substr(0, line.find('#'));
    if (takeWord(line) != address) continue;
    const std::string_view name = takeWord(line);
    if (!name.empty()) return std::string(name);
  }
  return std::nullopt;
}

}  // namespace ostrel::detail
