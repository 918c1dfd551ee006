// One change to a configuration file, as a person asks for it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel {

struct ConfigEdit {
  enum class Verb { set, add, unset, comment, uncomment, addBlock };

  Verb verb = Verb::set;
  std::vector<std::string> blocks;  ///< the blocks that lead to the place, outermost first
  std::string key;                  ///< "" where the innermost block itself is meant
  std::string value;                ///< of set and add; the new block of addBlock
  std::string type = "text";        ///< of a property list's value, as RequestArguments.h names them
};

/// Where a name may stand several times, "NAME[2]" is the second one. The number, and the name without it; 0 for none.
std::size_t takeOccurrence(std::string& name);

/// The changes that a list tells, one a line:
///
///   set KEY VALUE...      set:TYPE KEY VALUE... (property lists)      add KEY VALUE...
///   unset [KEY]           comment [KEY]                               uncomment [KEY]
///   add-block NAME ARGUMENT...
///   enter NAME ARGUMENT...    the lines behind it are about this block, up to "leave" or the end
///
/// Empty lines and lines that begin with "#" are passed over. Absent, with the line and the reason in `fault`, when a
/// line is none of these.
std::optional<std::vector<ConfigEdit>> readChangeList(std::string_view text, std::string& fault);

}  // namespace ostrel
