// The first words of a command line that name a subcommand instead of a module.
#pragma once

#include <memory>
#include <span>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

/// How to add a subcommand: write its class, derived from `Subcommand`, into its own pair of files; declare the
/// function that makes one there; add one line to the table in Subcommands.cpp and the source file to CMakeLists.txt.
/// Its name is then reserved: a module so named is reached by "ostrelctl -- NAME COMMAND".
struct SubcommandEntry {
  const char* name;
  const char* summary;  ///< one line for --help
  std::unique_ptr<Subcommand> (*make)();
};

/// Every subcommand, in the order of --help.
std::span<const SubcommandEntry> subcommandTable();

}  // namespace ostrel
