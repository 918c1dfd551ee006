// A xinetd service file, and a server's argument string.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ConfigFiles/Internal/XinetdText.h"
#include "ConfigFiles/XinetdUtilities.h"
#include "EditorInputs.h"

namespace {

using namespace ostrel;

std::string_view firstWord(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  return line.substr(0, line.find_first_of(" \t"));
}

// The lines that no edit of "port" may touch, without the blanks at their ends.
std::string otherLines(std::string_view text) {
  std::string others;
  while (!text.empty()) {
    std::string_view line = fuzz::takeLine(text);
    const std::string_view word = firstWord(line);
    line = line.substr(0, line.find_last_not_of(' ') + 1);
    if (word != "port" && word != "}") others.append(line) += '\n';
  }
  return others.substr(0, others.find_last_not_of('\n') + 1);
}

void editFile(std::string_view text) {
  detail::xinetdValue(text, "ftp", "port");
  const detail::XinetdEdit set = detail::xinetdWithEntry(text, "ftp", "port", "21");
  if (!set.hasEntryAlready) {
    fuzz::require(otherLines(set.text) == otherLines(text), "setting leaves other lines alone");
    const detail::XinetdEdit again = detail::xinetdWithEntry(set.text, "ftp", "port", "21");
    fuzz::require(again.hasEntryAlready || again.text == set.text, "the same entry again changes nothing");
  }
  const detail::XinetdEdit removed = detail::xinetdWithoutEntry(text, "ftp", "port");
  fuzz::require(otherLines(removed.text) == otherLines(text), "removing leaves other lines alone");
}

void convertArguments(const std::string& text) {
  static const XinetdUtilities utilities("ftp", "fuzz");
  const PlistValue options = utilities.dictionaryFromArgList(text);
  for (const PlistEntry& option : options.entries()) {
    const bool isPath = option.keyText() == "path";
    fuzz::require(isPath || leadingCharacterLength(option.keyText()) == option.keyText().size(), "options are letters");
    fuzz::require(option.value.isString() || option.value == PlistValue(true) || option.value.count() > 1,
                  "values are text, true, or several");
  }
  fuzz::require(utilities.argListFromDictionary(options).isString(), "what was read can be written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  ostrel::fuzz::NoLog::install();
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  editFile(text);
  convertArguments(std::string(text));
  return 0;
}
