// From the words of a command line to the subcommand that they ask for.
#pragma once

#include <memory>

#include "ostrelctl/Subcommand.h"

namespace ostrel {

struct CommandLine {
  SharedOptions shared;
  std::unique_ptr<Subcommand> subcommand;  ///< filled with what was given; null: the program is to end at once
  int exitStatus = 0;                      ///< with which, when it is
};

/// Reads the command line. The first word that is no option chooses the subcommand; when it is none, or stands behind
/// "--", it is a module. A help text or what is wrong has been printed when there is nothing to run.
std::unique_ptr<CommandLine> readCommandLine(int argc, const char* const* argv);

}  // namespace ostrel
