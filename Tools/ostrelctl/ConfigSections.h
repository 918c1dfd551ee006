// The blocks of a web-server-style configuration text, nested ones included.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel {

/// "<NAME ARGUMENT>" on a line of its own up to "</NAME>" on another.
struct ConfigBlock {
  std::string name;
  std::string argument;
  std::size_t line = 0;            ///< number of the opening line, from 1
  std::size_t start = 0, end = 0;  ///< bytes, both tags and the line end of the closing one included
  std::size_t bodyStart = 0, bodyEnd = 0;
  std::size_t parent = 0;  ///< index of the block around it; 0 is the whole text
  bool isClosed = false;   ///< without a closing tag it goes on to the end of the text
};

/// A line together with those that a backslash at its end joins to it.
struct LogicalLine {
  std::size_t start = 0, end = 0;  ///< bytes; the end is behind the line end
  std::size_t number = 0;          ///< from 1
  std::size_t block = 0;           ///< the innermost block around it; its tags belong to the block around that
};

class ConfigSections {
 public:
  explicit ConfigSections(std::string_view text);

  /// The first block stands for the whole text.
  const std::vector<ConfigBlock>& blocks() const { return blocks_; }
  const std::vector<LogicalLine>& lines() const { return lines_; }
  /// The line that begins at an offset; null when none does.
  const LogicalLine* lineAt(std::size_t offset) const;

  /// Follows "NAME ARGUMENT" texts inwards, letter case aside; "NAME" alone takes any argument, "[2]" behind it the
  /// second of several. Absent with the reason in `fault` when there is none or more than one.
  std::optional<std::size_t> blockAt(const std::vector<std::string>& path, std::string& fault) const;

 private:
  std::vector<ConfigBlock> blocks_;
  std::vector<LogicalLine> lines_;
};

/// A tag's name and argument, "<NAME ARGUMENT>" with blanks around it; absent for other text. Closing tags have a "/"
/// before the name.
struct ConfigTag {
  std::string_view name, argument;
};
std::optional<ConfigTag> configTagIn(std::string_view line);

bool equalIgnoringCase(std::string_view a, std::string_view b);

/// Whether "NAME ARGUMENT" or "NAME" names a block of this tag.
bool namesBlock(std::string_view wanted, std::string_view name, std::string_view argument);

}  // namespace ostrel
